// What is known of a source at one moment. Made by Source, shown by the views.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "histogram.h"
#include "reason.h"
#include "stream_url.h"

namespace tool {

// What both kinds of track have. Counters run over the whole life of the shared buffer.
struct TrackSample {
    std::string codec;        // empty while unknown
    uint32_t bitrate = 0;     // bits per second, measured, 0 once the track is silent
    double measured_fps = 0;  // frames per second, likewise
    uint64_t frames = 0;
    uint64_t bytes = 0;
    uint64_t key_frames = 0;
    uint64_t left_out = 0;                    // frames larger than the track, which were not written
    uint64_t epoch = 0;                       // writers that have opened the track so far
    bool open = false;                        // one of them has it open
    uint32_t presence = 0;                    // shb_presence_t
    std::optional<uint64_t> age_ns;           // of the last frame
    std::optional<uint64_t> lost_frames;      // overwritten before the dump read them; only with a dump
    std::optional<uint64_t> dumped_frames;    // only with a dump
    std::optional<uint64_t> discontinuities;  // gaps in the stream, as marked on the frames; only with a dump
};

struct VideoSample : TrackSample {
    int width = 0;   // pixels
    int height = 0;  // pixels
    int scan = 0;    // 0 progressive, 1 interlaced, 2 anything else
    double announced_fps = 0;
};

struct AudioSample : TrackSample {
    int sample_rate = 0;  // Hz
    int channels = 0;
};

// What reaches the buffer, whatever the state says: "connected" is true of a
// source that waits for a silent sender as well.
enum class Flow { kNone, kLive, kSilent };

// A reader of the source's tracks, as far as it can be seen: one of the user that this process runs as.
struct ReaderSample {
    int pid = 0;  // in its own PID namespace
    std::string program;
    bool video = true;  // the track that it reads
    uint64_t frames = 0;
    uint64_t bytes = 0;
    uint64_t lost = 0;               // frames that were overwritten before it had read them
    std::optional<uint64_t> age_ns;  // since it last read
};

struct SourceSample {
    std::string name;    // unique among the sources of a run
    std::string buffer;  // name of the shared buffer, with its leading "/"
    unsigned channel = 0;
    std::string url;  // without secrets
    Protocol protocol = Protocol::kUdp;
    std::string state;  // of the library's status record; "failed" when the open call refused
    Flow flow = Flow::kNone;
    unsigned rebuilds = 0;
    // Sessions begun since media last came, 0 while they come.
    unsigned attempts = 0;
    std::optional<Reason> last_error;
    // Seconds until the next session begins; only between two sessions.
    std::optional<double> retry_in_s;
    std::map<std::string, uint64_t> rebuild_reasons;  // rebuilds by what ended the session before, see RebuildReason
    Histogram first_frame;                            // from the beginning of a session to its first frame
    Histogram recovery;                               // from the last frame before a rebuild to the first one after it
    std::vector<ReaderSample> readers;
    VideoSample video;
    AudioSample audio;
};

inline bool Delivered(const SourceSample &sample) {
    return sample.video.frames > 0 || sample.audio.frames > 0;
}

}  // namespace tool
