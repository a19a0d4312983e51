// GStreamer, for the commands that need it.
#pragma once

#include <string>

#include "gst_ref.h"

namespace reader {

// Both throw std::runtime_error with a message for people.

// Once, before everything else of GStreamer.
void StartGStreamer();
// In no bin yet. What is missing is named with its package.
Ref<GstElement> MakeElement(const char *factory);

// An element error in one line: which element, and what it says.
std::string ErrorText(GstMessage *message);

}  // namespace reader
