// Faults on demand: the calls of the library into the framework that can fail, replaced at link time. One instance at a time;
// without one (and after its end) everything goes through. All functions may be called while other threads run.
#pragma once

#include <gst/gst.h>

#include <functional>
#include <string>
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

class Faults {
  public:
    Faults();
    ~Faults();
    Faults(const Faults &) = delete;
    Faults &operator=(const Faults &) = delete;

    // Elements. `FailFactory` takes effect until `Forgive`; the n-th call counts from 1 and from now on.
    void FailFactory(const std::string &factory);
    void Forgive(const std::string &factory);
    void FailNthMake(int n);
    bool NthMakeWasReached() const;
    // Makes another element in place of the asked one.
    void Substitute(const std::string &factory, const std::string &other);
    // Called with each element of that factory as soon as it is made.
    void OnMade(const std::string &factory, std::function<void(GstElement *)> hook);
    // "factory name" of each made or refused element, in order.
    std::vector<std::string> Made() const;

    void FailPipeline();
    void FailBus();
    // The n-th link from now on, counted from 1; 0 for none.
    void FailElementLink(int n);
    void FailPadLink(int n);
    void FailThreadStart();

    // The n-th call of any kind that can fail, counted from 1 and from now on, fails; with `and_all_after` the later ones as
    // well. 0 ends it.
    void FailCall(int n, bool and_all_after = false);
    // The one that failed first, without a function when none has.
    FrameworkCall FailedCall() const;

    // State changes of pipelines.
    void SetPlay(Play play);
    void ReportStopFailure();
    // How often a pipeline was told to play and did not fail.
    int Plays() const;
    void ForgetPlays();

    // Called with the command of each fcntl, before it; an errno that it gives is what the call fails with, 0 lets it go on.
    void OnDescriptorCall(std::function<int(int command)> hook);

    // The waits of the worker: recorded; not slept through unless asked for. The hook is called on the worker with the number
    // of the wait, counted from 1.
    void SleepReally();
    void OnSleep(std::function<void(int)> hook);
    std::vector<gulong> Sleeps() const;
    // Called with the number of each poll, counted from 1; a message that it gives is what the poll finds, a null leaves it
    // to the bus.
    void OnPoll(std::function<GstMessage *(int)> hook);
    // Time-outs that the bus was polled with.
    std::vector<GstClockTime> Polls() const;
    // An empty bus is left after a millisecond, so that a worker sees a stop at once.
    void PollFast();
};

// Calls that the thread makes in its lifetime are the test's own, not the library's: they are not counted and never fail.
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
