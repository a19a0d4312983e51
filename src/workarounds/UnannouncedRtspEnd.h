// Symptom: an RTSP source stays "connected" for ever after its server has closed the connection.
// Seen: rtspsrc of GStreamer 1.22.0 and 1.26.2. The end is lost without a pad or in a jitter buffer.
// Done: when nothing has come for 3 s and the latency after that warning, an error ends the session.
// Cost: none.
// Test: SourceTest.RtspServerThatHasLeftForGoodEndsTheSession.
#pragma once

#include "framework/Ownership.h"
#include "workarounds/Workaround.h"

#include <functional>

namespace GSTREAMER {

class UnannouncedRtspEnd final : public Workaround {
  public:
    // `latency_ms` is what the jitter buffers hold back. `last_report` gives when media
    // last came, as g_get_monotonic_time, 0 for never.
    UnannouncedRtspEnd(GstElement *source, gint64 latency_ms, std::function<gint64()> last_report);

    void AfterPoll(GstMessage *message) override;

  private:
    ElementRef m_source;
    const gint64 m_nPatienceUs;
    const std::function<gint64()> m_fnLastReport;
    gint64 m_nServerLeft = 0;  // when, as g_get_monotonic_time; 0: it has not
};

}  // namespace GSTREAMER
