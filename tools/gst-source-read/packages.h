// Names of the Debian packages that have what a pipeline is missing.
#pragma once

#include <string>

#include "gst_ptr.h"

namespace reader {

// Owned, and in no bin yet. Throws std::runtime_error with the text of MissingElement.
ElementPtr NewElement(const char *factory);

// "the GStreamer element "jpegenc" is missing; it is in the package gstreamer1.0-plugins-good".
std::string MissingElement(const std::string &factory);
// "H.264 needs a decoder: apt install gstreamer1.0-libav".
std::string MissingDecoder(const GstCaps *media);

// The same for a message of an element that looked for another one; empty for every other message.
std::string MissingPart(GstMessage *message);

}  // namespace reader
