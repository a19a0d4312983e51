// Symptom: closing an HLS source never ends once a segment has failed during a reload of the playlist.
// Seen: hlsdemux of GStreamer 1.22.0 and 1.26.2. The reload holds a lock and waits for its HTTP session, which waits for that lock to report the segment.
// Done: segments get an HTTP session of their own. A source with a list of cookies, even an empty one, does not share its session.
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
