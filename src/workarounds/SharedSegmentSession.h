// Symptom: closing an HLS source never ends once a segment has failed during a reload of the playlist.
// Seen: hlsdemux of GStreamer 1.22.0 and 1.26.2. The reload waits for a session that waits for its lock.
// Done: segments get an HTTP session of their own: a source with cookies, even none, has one.
// Cost: one thread and one more connection to the server.
// Test: Hls.ClosesWhileSegmentsAreRefused.
#pragma once

#include "workarounds/Workaround.h"

namespace GSTREAMER {

class SharedSegmentSession final : public Workaround {
  public:
    void Attach(GstElement *pipeline) override;
};

}  // namespace GSTREAMER
