// A recorded file, taken apart by libavformat and compared with the material that was sent.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

#include "../peers/harness/Material.h"

namespace peers {

using std::chrono::nanoseconds;

// A container without decoding times leaves those of the first packets open.
constexpr nanoseconds kUnknown(INT64_MIN);

struct RecordedPacket {
    std::string data;  // video: as a byte stream, with parameter sets at key frames
    std::string unit;  // the part that is compared
    nanoseconds pts, dts, duration;
    bool key;
};

struct RecordedStream {
    Codec codec = Codec::None;  // None: there is no such stream, or no packet of it
    int width = 0, height = 0;
    int sampleRate = 0, channels = 0;
    std::string codecData;  // of video: parameter sets as a byte stream
    std::vector<RecordedPacket> packets;

    // From the first time to the last, with the last packet's duration if there is one.
    nanoseconds Length() const;
};

struct RecordedFile {
    std::string container;
    RecordedStream video, audio;
};

// Throws when the file cannot be opened. Reads as far as it is whole.
RecordedFile ReadRecorded(const std::string &path);

// Packets of one stream in a material, by their unit.
struct Excerpt {
    size_t first = 0;  // position of the first packet in the material
    size_t count = 0;
    std::vector<nanoseconds> shifts;  // of each packet: time in the file - time in the material

    size_t End() const { return first + count; }
};

// The material as the same library sees it; lives as long as the program.
const RecordedFile &Original(const Material &material);

// Where each packet stands in the original; the original's number of packets for one that is not of it.
std::vector<size_t> Positions(const RecordedStream &original, const RecordedStream &recorded);

// The packets are an excerpt of the material without a hole, and their times rise. Reports which, and their times.
testing::AssertionResult IsExcerpt(const RecordedStream &original, const RecordedStream &recorded, Excerpt &excerpt);

// Both streams are excerpts of the material's, with its codecs, sizes and rates. Picture and sound are further apart
// than in the material by no more than one audio frame and `slack`.
testing::AssertionResult IsRecordingOf(const Material &material, const RecordedFile &file, Excerpt &video, Excerpt &audio,
                                       nanoseconds slack = nanoseconds(0));

// ffmpeg decodes all of it without an error.
testing::AssertionResult Decodes(const std::string &path);

}  // namespace peers
