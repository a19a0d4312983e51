// Symptom: closing an HLS source ends the process, in libsoup, or never ends.
// Seen: souphttpsrc of GStreamer 1.22.0 and 1.26.2, stopped as an answer arrives or as it begins to connect.
// Done: a stop waits until the playlist's and the segments' requests are answered, and 30 ms after a refusal.
// Cost: a close takes as long as the server for its answer, half a second at most.
// Test: Hls.ClosedJustWhenTheFirstSegmentComesEndsWell, Hls.ClosedWhileItBeginsToConnectEndsWell.
#pragma once

#include "workarounds/Workaround.h"

namespace GSTREAMER {

class UnansweredHttpRequests final : public Workaround {
  public:
    void Attach(GstElement *pipeline) override { m_pPipeline = pipeline; }
    void BeforeStop() override;

  private:
    GstElement *m_pPipeline = nullptr;  // not touched after AfterStop
};

}  // namespace GSTREAMER
