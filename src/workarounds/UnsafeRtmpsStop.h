// Symptom: the process crashes when an RTMPS source that plays is stopped (3 of 44 closes).
// Seen: rtmpsrc of GStreamer 1.22.0 and 1.26.2. The stop frees the TLS session that its thread reads from.
// Done: the streaming thread is held at the source pad first; without data its read is ended by its socket.
// Cost: a close waits for the next buffer, 0.3 s at most, 2 s more where a read does not end. Needs /proc.
// Test: RtmpsStop.LiveStreamIsStoppedBetweenTwoReads, RtmpsStop.StalledReadIsEndedByItsSocket.
#pragma once

#include "workarounds/SyncMessages.h"
#include "workarounds/Workaround.h"

#include <sys/types.h>

#include <mutex>

namespace GSTREAMER {

class UnsafeRtmpsStop final : public Workaround {
  public:
    explicit UnsafeRtmpsStop(GstElement *source);

    void Attach(GstElement *pipeline) override { m_streamStatus.Attach(pipeline); }
    void BeforeStop() override;

  private:
    bool _IsStreaming() const;
    void _EndRead();

    GstElement *const m_pSource;  // borrowed; not touched after AfterStop
    std::mutex m_mtx;
    // Guarded by m_mtx. The streaming thread from its beginning to its end, which takes the lock; else 0.
    pid_t m_nThread = 0;
    SyncMessages m_streamStatus;
};

}  // namespace GSTREAMER
