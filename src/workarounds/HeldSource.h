// The streaming thread of a source element, held outside of the element.
#pragma once

#include <gst/gst.h>

namespace GSTREAMER {

// Waits until the streaming thread of a source element stands still at its source pad, outside of the element, and keeps it
// there until the element is stopped. True when it does; false when nothing came within `bound_ms`, or when it does not stream.
bool HoldAtSourcePad(GstElement *source, int bound_ms);

}  // namespace GSTREAMER
