// The containers that a recording can have: which file names mean them, which muxer makes them and what they carry.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "frame.h"

namespace reader {

// How a muxer learns that a track is silent while the other one goes on. Without that it waits for it.
enum class Silence {
    kCannot,         // the track has to end; when it comes back, another file begins
    kGap,            // a frame without bytes, flagged as a gap
    kNoPresentation  // a frame without bytes and presentation time
};

struct Container {
    const char *name;   // as --format takes it
    const char *title;  // as messages name it
    std::vector<const char *> suffixes;
    const char *muxer;
    const char *package;      // of Debian, that has the muxer
    const char *h264_format;  // stream-format that the muxer takes
    const char *h265_format;
    const char *aac_format;
    bool changes_picture;  // the picture may have another size within a file
    bool streamable;       // can be written to a pipe
    Silence silence;
    int64_t longest_gap;  // ns; a longer outage begins another file
};

const std::vector<Container> &Containers();

// By the end of a file's name, in whatever case. Null: none.
const Container *ContainerOf(const std::string &path);
// By its name, or one of its suffixes. Null: none.
const Container *ContainerNamed(const std::string &name);
// ".mkv, .mp4 or .ts"
std::string KnownSuffixes();

// What follows asks the registry of GStreamer.

// Whether its muxer takes a track with these caps, as the element shbsrc gives them.
bool Carries(const Container &container, const GstCaps *caps);
// Names of those that do, "MKV or TS"; empty: none.
std::string ContainersFor(const GstCaps *caps);
// The form in which the muxer takes such a track.
CapsPtr FormIn(const Container &container, const GstCaps *caps);
// Whether one track of one file can have both.
bool SameIn(const Container &container, const GstCaps *one, const GstCaps *other);

}  // namespace reader
