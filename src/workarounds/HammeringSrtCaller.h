// Symptom: a refused SRT caller asks again 65 to 95 times a second, which can stop SRT in the process.
// Seen: srtsrc of GStreamer 1.22.0 with libsrt 1.5.1. With 1.26.2 a refusal is an error.
// Done: after two refusals in a row the streaming thread waits 0.1 s, then longer, up to 1 s.
// Cost: a peer that stops refusing is reached up to 1 s later.
// Test: Srt.RefusedCallerDoesNotHammer.
#pragma once

#include "workarounds/SyncMessages.h"
#include "workarounds/Workaround.h"

#include <condition_variable>
#include <mutex>

namespace GSTREAMER {

class HammeringSrtCaller final : public Workaround {
  public:
    // srtsrc posts a warning on its streaming thread each time right before it connects again.
    explicit HammeringSrtCaller(GstElement *source)
        : m_warnings("sync-message::warning", source, [this](GstMessage * /*message*/) { _WaitBeforeRetry(); }) {}

    void Attach(GstElement *pipeline) override;
    void BeforeStop() override;

  private:
    void _WaitBeforeRetry();

    SyncMessages m_warnings;
    std::mutex m_mtx;
    std::condition_variable m_cond;
    bool m_bStopping = false;  // guarded by m_mtx
    gint64 m_nLastRetry = 0;   // as g_get_monotonic_time; streaming thread
    gint64 m_nWaitMs = 0;      // streaming thread
};

}  // namespace GSTREAMER
