// The records of the interface as one line of text each, in which every field shows.
#pragma once

#include "gst_source_api.h"

#include <string>

namespace unit {

// A text field, which need not have an end.
template <std::size_t Size>
std::string FieldText(const char (&field)[Size]) {
    return std::string(field, Size).substr(0, std::string(field, Size).find('\0'));
}

// "H264 1920x1080 25 fps, scan 0, 4 references" or "AAC 48000 Hz, 2
// channels, 1024 samples, extra 128000", by the type.
std::string Describe(const media_code_info_t &info);
// "live connected: H264 1920x1080 25 fps, 26 real, 5000 bit/s; AAC 48000 Hz, 2 channels, 47 real, 128 bit/s"
std::string Describe(const source_status_t &status);

}  // namespace unit
