// The HTTP sources that hlsdemux makes for its segments, for workarounds that have to do with them.
#pragma once

#include <gst/gst.h>

#include <functional>

namespace GSTREAMER {

// Calls `found` with each HTTP source that is put into the pipeline from now on. Streaming thread.
void OnSegmentSource(GstElement *pipeline, std::function<void(GstElement *source)> found);

// Calls `handler` before each request of the source. Its streaming thread.
void BeforeEachRequest(GstElement *source, std::function<void(GstPad *pad)> handler);

}  // namespace GSTREAMER
