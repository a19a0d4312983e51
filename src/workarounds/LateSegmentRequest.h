// Symptom: closing an HLS source while hlsdemux begins to request a segment ends the process, in libsoup.
// Seen: souphttpsrc of GStreamer 1.22.0 and 1.26.2, in a request that has not begun at the stop.
// Done: once the pipeline is being stopped, a segment source finds its pad flushing before a request.
// Cost: none.
// Test: ClosingHls.WhileSegmentFollowsSegment.
#pragma once

#include "workarounds/Workaround.h"

#include <atomic>
#include <memory>

namespace GSTREAMER {

class LateSegmentRequest final : public Workaround {
  public:
    void Attach(GstElement *pipeline) override;
    void BeforeStop() override { *m_pStopping = true; }

  private:
    // Shared with the probes, which live as long as their pads.
    const std::shared_ptr<std::atomic<bool>> m_pStopping = std::make_shared<std::atomic<bool>>(false);
};

}  // namespace GSTREAMER
