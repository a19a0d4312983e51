// A stand-in for the sink element, registered under its factory name: it records what
// is set on it and emits its signals on demand.
#pragma once

#include <gst/gst.h>

#include <string>
#include <vector>

namespace unit {

// Makes the factory known. After gst_init, once.
void RegisterRecordingSink();

// "property=value" of each set, in order. Pointers in hexadecimal, booleans as true and false.
std::vector<std::string> SetsOf(GstElement *sink);

struct VideoReport {
    const char *code = "H264";
    const char *scanType = "progressive";
    int width = 1920;
    int height = 1080;
    int fpsN = 25;
    int fpsD = 1;
    int refFrames = 4;
};
void EmitVideoChanged(GstElement *sink, const VideoReport &report);

struct AudioReport {
    const char *code = "AAC";
    int sampleRate = 48000;
    int channels = 2;
    int samples = 1024;
    int extra = 128000;
};
void EmitAudioChanged(GstElement *sink, const AudioReport &report);

void EmitBitrate(GstElement *sink, guint bitrate);
void EmitFps(GstElement *sink, guint fps);

}  // namespace unit
