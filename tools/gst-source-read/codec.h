// Codecs as caps name them.
#pragma once

#include <string>

#include "gst_ptr.h"

namespace reader {

// "H264", "AAC", "PCMA"; the name of the caps when it is none of those that a shared buffer has.
std::string CodecName(const GstCaps *caps);
// "H264 high level 4.1 640x360p 25 fps", "AAC 48000 Hz 2 ch".
std::string Describe(const GstCaps *caps);

struct Parser {
    const char *factory;  // null: none is needed
    const char *package;
};
Parser ParserOf(const GstCaps *caps);
// Whether one parser takes both, one after the other.
bool SameParser(const GstCaps *one, const GstCaps *other);

}  // namespace reader
