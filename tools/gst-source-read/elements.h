// GStreamer as the commands need it that make pipelines.
#pragma once

#include <string>

#include "gst_ptr.h"

namespace reader {

// Makes GStreamer ready, and finds the element shbsrc also where GStreamer does not look by itself. Throws
// std::runtime_error with a message for people when there is none.
void StartGStreamer();

// Floating. Throws std::runtime_error, which names the Debian package that brings the element.
GstElement *MakeElement(const char *factory, const char *package);

// The same without making one.
void RequireElement(const char *factory, const char *package);

// The text of an error message, one line for people.
std::string ErrorText(GstMessage *message);

}  // namespace reader
