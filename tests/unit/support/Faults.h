// Faults on demand: the calls of the library into the framework that can fail, replaced at link
// time. One instance at a time; without one (and after its end) everything goes through. All
// functions may be called while other threads run.
#pragma once

#include <gst/gst.h>

#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace unit {

enum class Play {
    Real,
    Pretend,  // reported as started, left as it is: nothing but the test puts messages on the bus
    Fail
};

// One call of the library into the framework.
struct FrameworkCall {
    std::string function;
    std::string detail;  // what it was about: "factory name", the element's name, ...
};

// What the replaced calls do, and what they have noted. Tests go through Faults.
struct Plan {
    std::set<std::string> failingFactories;
    int failNthMake = 0;
    bool nthMakeReached = false;
    std::map<std::string, std::string> substitutes;
    std::map<std::string, std::function<void(GstElement *)>> onMade;
    std::vector<std::string> made;
    bool failPipeline = false;
    bool failBus = false;
    int failElementLink = 0;
    int failPadLink = 0;
    bool failThreadStart = false;
    int failCall = 0;
    bool failAllAfter = false;
    int calls = 0;
    FrameworkCall failedCall;
    Play play = Play::Real;
    bool reportStopFailure = false;
    std::function<void()> onStop;
    int plays = 0;
    gint64 clock = 0;
    bool sleepReally = false;
    std::function<void(int)> onSleep;
    std::vector<gulong> sleeps;
    std::function<GstMessage *(int)> onPoll;
    std::vector<GstClockTime> polls;
    bool pollFast = false;
    bool noPromptWrite = false;
    bool noSecondOpen = false;
    std::function<int(int)> onDescriptorCall;
};

extern std::mutex g_planMutex;
extern std::unique_ptr<Plan> g_plan;

// Runs `body` on the plan, under its lock; a default result without a plan.
template <typename Body>
auto WithPlan(Body &&body) -> decltype(body(*g_plan)) {
    const std::lock_guard<std::mutex> lock(g_planMutex);
    if (g_plan) {
        return body(*g_plan);
    }
    return decltype(body(*g_plan))();
}

class Faults {
  public:
    Faults();
    ~Faults();
    Faults(const Faults &) = delete;
    Faults &operator=(const Faults &) = delete;

    // Elements. `FailFactory` takes effect until `Forgive`; the n-th call counts from 1 and from now on.
    void FailFactory(const std::string &factory) {
        WithPlan([&](Plan &plan) { plan.failingFactories.insert(factory); });
    }
    void Forgive(const std::string &factory) {
        WithPlan([&](Plan &plan) { plan.failingFactories.erase(factory); });
    }
    void FailNthMake(int n) {
        Set(&Plan::failNthMake, n);
        Set(&Plan::nthMakeReached, false);
    }
    bool NthMakeWasReached() const { return Get(&Plan::nthMakeReached); }
    // Makes another element in place of the asked one.
    void Substitute(const std::string &factory, const std::string &other) {
        WithPlan([&](Plan &plan) { plan.substitutes[factory] = other; });
    }
    // Called with each element of that factory as soon as it is made.
    void OnMade(const std::string &factory, std::function<void(GstElement *)> hook) {
        WithPlan([&](Plan &plan) { plan.onMade[factory] = std::move(hook); });
    }
    // "factory name" of each made or refused element, in order.
    std::vector<std::string> Made() const { return Get(&Plan::made); }

    void FailPipeline() { Set(&Plan::failPipeline, true); }
    void FailBus() { Set(&Plan::failBus, true); }
    // The n-th link from now on, counted from 1; 0 for none.
    void FailElementLink(int n) { Set(&Plan::failElementLink, n); }
    void FailPadLink(int n) { Set(&Plan::failPadLink, n); }
    void FailThreadStart() { Set(&Plan::failThreadStart, true); }

    // The n-th call of any kind that can fail, counted from 1 and from now on, fails; with
    // `and_all_after` the later ones as well. 0 ends it.
    void FailCall(int n, bool and_all_after = false) {
        WithPlan([&](Plan &plan) {
            plan.failCall = n;
            plan.failAllAfter = and_all_after;
            if (n != 0) {
                plan.calls = 0;
                plan.failedCall = {};
            }
        });
    }
    // The one that failed first, without a function when none has.
    FrameworkCall FailedCall() const { return Get(&Plan::failedCall); }

    // State changes of pipelines.
    void SetPlay(Play play) { Set(&Plan::play, play); }
    void ReportStopFailure() { Set(&Plan::reportStopFailure, true); }
    // Called right before a pipeline is told to stop, on the thread that tells it.
    void OnStop(std::function<void()> hook) { Set(&Plan::onStop, std::move(hook)); }
    // How often a pipeline was told to play and did not fail.
    int Plays() const { return Get(&Plan::plays); }
    void ForgetPlays() { Set(&Plan::plays, 0); }

    // Called with the command of each fcntl, before it; an errno that it gives
    // is what the call fails with, 0 lets it go on.
    void OnDescriptorCall(std::function<int(int command)> hook) { Set(&Plan::onDescriptorCall, std::move(hook)); }

    // pwritev2() does not know pipes, as before Linux 6.4.
    void RefusePromptWrite() { Set(&Plan::noPromptWrite, true); }
    // Files are not opened by way of /proc/self/fd, as when they belong to another user.
    void RefuseSecondOpen() { Set(&Plan::noSecondOpen, true); }
    // What the library takes for g_get_monotonic_time from now on; it stands still until it is set again.
    void SetClock(gint64 microseconds) { Set(&Plan::clock, microseconds); }
    // The waits of the worker: recorded; not slept through unless asked for. The hook is called on the
    // worker with the number of the wait, counted from 1.
    void SleepReally() { Set(&Plan::sleepReally, true); }
    void OnSleep(std::function<void(int)> hook) { Set(&Plan::onSleep, std::move(hook)); }
    std::vector<gulong> Sleeps() const { return Get(&Plan::sleeps); }
    // Called with the number of each poll, counted from 1; a message that it gives is
    // what the poll finds, a null leaves it to the bus.
    void OnPoll(std::function<GstMessage *(int)> hook) { Set(&Plan::onPoll, std::move(hook)); }
    // Time-outs that the bus was polled with.
    std::vector<GstClockTime> Polls() const { return Get(&Plan::polls); }
    // An empty bus is left after a millisecond, so that a worker sees a stop at once.
    void PollFast() { Set(&Plan::pollFast, true); }

  private:
    template <typename Field, typename Value>
    static void Set(Field Plan::*field, Value &&value) {
        WithPlan([&](Plan &plan) { plan.*field = std::forward<Value>(value); });
    }
    template <typename Field>
    static Field Get(Field Plan::*field) {
        return WithPlan([&](Plan &plan) { return plan.*field; });
    }
};

// Calls that the thread makes in its lifetime are the test's own, not the
// library's: they are not counted and never fail.
class Uncounted {
  public:
    Uncounted();
    ~Uncounted();
    Uncounted(const Uncounted &) = delete;
    Uncounted &operator=(const Uncounted &) = delete;
};

// Names of the elements, pipelines and buses that the library made and that still live.
std::vector<std::string> LiveObjects();
// Takes them off the list, so that what one test has left behind does not fail the next.
void ForgetLiveObjects();

}  // namespace unit
