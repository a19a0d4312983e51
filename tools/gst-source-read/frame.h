// One access unit of video or one audio frame on its way into a file.
#pragma once

#include <cstdint>

#include "gst_ptr.h"
#include "shb.h"

namespace reader {

// Number of a format that a track has had, from 1 (see AvSource::Caps); 0: none.
using FormatId = uint32_t;

struct Frame {
    shb_kind_t kind = SHB_VIDEO;
    // ns, on one axis for video and audio, across outages and restarts of the source. Decoding times rise.
    int64_t pts = 0;
    int64_t dts = 0;
    int64_t duration = 0;  // 0: not known
    bool key = false;      // a file can begin here
    FormatId format = 0;
    size_t size = 0;
    BufferPtr data;
};

}  // namespace reader
