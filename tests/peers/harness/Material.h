// The streams that the peers send: made by ffmpeg once for all builds, and taken apart for comparison.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "Units.h"

namespace peers {

struct Material {
    std::string name;
    std::string path;  // Matroska, longer than any test plays
    Codec video = Codec::None;
    Codec audio = Codec::None;
    int width = 0;
    int height = 0;
    float fps = 0;
    int sampleRate = 0;
    int channels = 0;
    int samplesPerFrame = 0;  // 0: as the packets happen to be cut
    // Compared parts in stream order, all different from each other. PCM has no frames: it is one text here.
    std::vector<std::string> videoUnits;
    std::vector<std::string> audioUnits;
    // How many bytes an average second of each medium has.
    double videoBytesPerSecond = 0;
    double audioBytesPerSecond = 0;

    const char *VideoName() const;
    const char *AudioName() const;
};

// Names are rows of the table in Material.cpp, such as "h264_aac" or "h265_only".
// Made on first use; lives as long as the program.
const Material &GetMaterial(std::string_view name);

// A file made from others by one ffmpeg call, cached beside the materials.
std::string DerivedFile(const std::string &file, const std::vector<std::string> &ffmpegArgs);

}  // namespace peers
