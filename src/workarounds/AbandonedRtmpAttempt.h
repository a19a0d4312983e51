// Symptom: an RTMP source that is closed while it connects leaves its element, a socket and a main context.
// Seen: rtmp2src of GStreamer 1.22.0 and 1.26.2. Its loop ends at the stop, whatever its attempt waits for.
// Done: its own sockets are shut down first, so that the attempt fails while the loop still runs.
// Cost: a close waits for that (slow name look-ups), 0.6 s at most. A hook for GIO's connections.
// Test: RtmpAttempt.IsOverBeforeTheElementIsReleased, Rtmp.ClosedAtAnyMomentOfConnectingLeavesNothingBehind.
#pragma once

#include "framework/Ownership.h"
#include "workarounds/ClientSockets.h"
#include "workarounds/SyncMessages.h"
#include "workarounds/Workaround.h"

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <string>

namespace GSTREAMER {

class AbandonedRtmpAttempt final : public Workaround {
  public:
    // Makes an element that has one GstTask of its own, and gives the name of the thread on which that runs:
    // the framework numbers its tasks. "" without a task, and when other threads make tasks without a pause.
    static ElementRef Make(const char *factory, const char *name, std::string &thread_name);

    // `thread_name` is what Make has given for `source`. `on_left` is called when an attempt stays for good.
    AbandonedRtmpAttempt(GstElement *source, std::string thread_name, std::function<void()> on_left);
    ~AbandonedRtmpAttempt() override;

    void Attach(GstElement *pipeline) override;
    void BeforePlay() override { m_bRuns = true; }
    void BeforeStop() override;

  private:
    struct Attempt;
    static GstPadProbeReturn data_probe(GstPad *pad, GstPadProbeInfo *info, gpointer user_data);
    bool _IsOwnThread() const;
    void _EndAttempt(GMainContext *context, std::chrono::steady_clock::time_point until);
    bool _AwaitEndOfElement();

    GstElement *const m_pSource;  // borrowed; not touched after AfterStop
    GWeakRef m_source{};
    const std::string m_strThread;
    const std::function<void()> m_fnOnLeft;
    const std::shared_ptr<Attempt> m_pAttempt;
    // From before the start of the task to before its stop. Before, nobody has the name; later, anybody may.
    std::atomic<bool> m_bRuns{false};
    SyncMessages m_errors;
    ClientSockets m_sockets;
};

}  // namespace GSTREAMER
