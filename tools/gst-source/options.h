// The command line: what it may say, what it means, and what it must not leave open.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "parsed.h"

namespace tool {

enum class ColorMode { kAuto, kNever, kAlways };

// Names and units of the protocol fields are those of the open functions in gst_source_api.h.
struct Options {
    std::vector<std::string> urls;

    uint32_t caching = 200;
    std::string user;
    std::string password;

    struct Rtsp {
        uint32_t protocols = 4;
        uint32_t latency = 2000;
        uint32_t contimeout = 15;
    } rtsp;
    struct Srt {
        std::string mode = "caller";
        std::string streamid;
        std::string passphrase;
        uint32_t keylen = 0;
        uint32_t latency = 125;
        uint32_t tslatency = 50;
        std::string localaddress;
    } srt;
    struct Rtmp {
        uint32_t contimeout = 10;
        uint32_t idle_timeout = 0;
        std::string token;
    } rtmp;
    struct Udp {
        uint32_t ts_latency = 700;
        uint32_t mtu = 1492;
    } udp;
    struct Hls {
        uint32_t timeout = 15;
        int32_t retries = 3;
        uint32_t islive = 0;
        std::string proxy;
        std::string proxy_id;
        std::string proxy_pwd;
        std::string user_agent;
    } hls;

    std::string name;          // of the shared buffer
    uint64_t video_bytes = 0;  // per video track, 0 leaves it to the buffer
    uint64_t audio_bytes = 0;
    uint32_t buffer_mode = 0600;           // permissions of its files
    std::optional<uint32_t> buffer_group;  // of its files; otherwise the process's own
    double stall_watch = 0;                // s without data after which a session ends, 0: never

    double interval = 1.0;           // s
    std::optional<double> duration;  // s
    uint64_t frames = 0;             // 0: no such end
    double close_timeout = 10.0;     // s
    bool json = false;
    ColorMode color = ColorMode::kAuto;
    std::string log_file;    // empty: standard error, or under the live table
    std::string dump_video;  // as given; see DumpPath
    std::string dump_audio;

    std::vector<std::string> warnings;  // what a person should know before the start, one line each
};

using ParseResult = Parsed<Options>;

// Looks up an environment variable; null when it is not set.
using Environment = std::function<const char *(const char *)>;

ParseResult ParseOptions(int argc, const char *const *argv, const Environment &environment);

// File of one source's dump: "%d" becomes the channel; without it, and with several sources, the channel is
// put before the extension ("video.h264" gives "video.1.h264").
std::string DumpPath(const std::string &pattern, unsigned channel, size_t sources);

}  // namespace tool
