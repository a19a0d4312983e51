// What one source is to be: from the command line or from a file.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "stream_url.h"

namespace tool {

// Names and units of the protocol fields are those of the open functions in gst_source_api.h.
struct SourceConfig {
    std::string name;  // unique in a run; of the shared buffer as well when the source has its own
    std::string url;

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
        uint32_t idle_timeout = 30;
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

    struct Memory {
        uint64_t video_bytes = 0;  // per video track, 0 leaves it to the buffer
        uint64_t audio_bytes = 0;
        uint32_t mode = 0600;           // permissions of the buffer's files
        std::optional<uint32_t> group;  // of its files; otherwise the process's own
    } memory;

    // s without data after which a session ends, 0: never. Unless it is given, the protocol decides.
    std::optional<double> stall_watch;
};

bool operator==(const SourceConfig::Memory &left, const SourceConfig::Memory &right);
// Whether both would be opened alike. Options of other protocols do not matter, nor does the memory.
bool SameStream(const SourceConfig &left, const SourceConfig &right);

}  // namespace tool
