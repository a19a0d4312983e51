// Symptom: with retries of -1, which is without end, an HLS source requests nothing at all.
// Seen: souphttpsrc of GStreamer 1.26.2, not of 1.22.0. A large number alone makes 1,000 requests a second.
// Done: where the element has a back-off, -1 becomes the largest number, with pauses of 1, 2 and then 3 s.
// Cost: none.
// Test: Hls.RetriesWithoutEnd.
#pragma once

#include <gst/gst.h>

namespace GSTREAMER {

// Sets "retries" as the host means it. `source` may be null.
void SetRetries(GstElement *source, gint32 retries);

}  // namespace GSTREAMER
