// Symptom: closing an HLS source ends the process, in libsoup, or never ends.
// Seen: souphttpsrc of GStreamer 1.22.0 (libsoup 3.2.3) and 1.26.2 (3.6.5), stopped just as an answer arrives or as it begins to connect.
// Done: a stop waits until the playlist's and the segments' requests are answered. A refusal is given 30 ms more, for hlsdemux to deal with it.
// Cost: a close takes as long as the server for its answer, half a second at most.
// Test: Hls.ClosedJustWhenTheAnswerComesEndsWell, Hls.ClosedJustWhenTheFirstSegmentComesEndsWell, Hls.ClosedWhileItBeginsToConnectEndsWell.
#pragma once

#include "workarounds/Workaround.h"

namespace GSTREAMER {

class UnansweredHttpRequests final : public Workaround {
  public:
    void Attach(GstElement *pipeline) override { m_pPipeline = pipeline; }
    void BeforeStop() override;

  private:
    GstElement *m_pPipeline = nullptr;  // outlives this
};

}  // namespace GSTREAMER
