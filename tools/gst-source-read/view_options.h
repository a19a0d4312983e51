// The command lines of the commands that show pictures.
#pragma once

#include <CLI/CLI.hpp>

namespace reader {

struct Options;

enum class PictureFormat { kJpeg, kPng };

// Of play and snapshot. Their channel, stream, follow and output are those of the other commands.
struct ViewOptions {
    double timeout = 10;  // s
    PictureFormat format = PictureFormat::kJpeg;
    int width = 0;  // pixels, at most; 0: that of the stream
    bool sound = true;
};

void AddPlayOptions(CLI::App &command, Options &options);

void AddSnapshotOptions(CLI::App &command, Options &options);
// What depends on several of them. To be called when all have been parsed.
void CheckSnapshotOptions(Options &options);

}  // namespace reader
