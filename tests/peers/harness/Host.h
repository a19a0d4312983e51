// A host of the library: a shared buffer, one source made through the C interface, readers of both tracks,
// and a record of everything that the library told.
#pragma once

#include <gst_source_api.h>
#include <shb.h>

#include <atomic>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "Wait.h"

namespace peers {

struct Frame {
    shb_frame_t info;
    std::string data;
    Clock::time_point at;
};

struct StateChange {
    std::string state;
    Clock::time_point at;
};

struct RtspOptions {
    unsigned caching = 200, protocols = 4, latency = 200, contimeout = 15;
    std::string user, password;
};
struct SrtOptions {
    unsigned caching = 200;
    std::string mode = "caller", streamid, passphrase;
    unsigned keylen = 0, latency = 125, tslatency = 50;
    std::string localaddress;
};
struct RtmpOptions {
    unsigned caching = 200, contimeout = 10, idleTimeout = 0;
    std::string user, password, token;
};
struct UdpOptions {
    unsigned caching = 200, tsLatency = 200, mtu = 1492;
};
struct HlsOptions {
    unsigned caching = 200, islive = 0, timeout = 15;
    int retries = 3;
    std::string proxy, proxyUser, proxyPassword, userAgent, user, password;
};

// The library's numbers of the protocols.
constexpr int kRtsp = 0;
constexpr int kRtmp = 1;
constexpr int kSrt = 2;
constexpr int kUdp = 3;
constexpr int kHls = 5;

class Host {
  public:
    explicit Host(int type);
    ~Host();
    Host(const Host &) = delete;
    Host &operator=(const Host &) = delete;

    // True when the library answered 0.
    bool Open(const std::string &url, const RtspOptions &options);
    bool Open(const std::string &url, const SrtOptions &options);
    bool Open(const std::string &url, const RtmpOptions &options);
    bool Open(const std::string &url, const UdpOptions &options);
    bool Open(const std::string &url, const HlsOptions &options);
    bool Close();
    void *Handle() { return source_; }
    // The line of the library's log with which a session at what was opened last begins anew.
    std::string ReconnectLine() const;
    // 0: off, as it is at first.
    void SetStallWatch(Clock::duration time);
    const shb_buffer_t *Buffer() const { return buffer_; }

    source_status_t Status() const;
    std::string State() const;
    media_code_info_t VideoInfo() const;
    media_code_info_t AudioInfo() const;
    // Records that the callback brought, in order.
    std::vector<media_code_info_t> Calls() const;
    std::vector<media_code_info_t> Calls(int type) const;
    // Changes of the status's state text as a thread saw them that looks every few milliseconds.
    std::vector<StateChange> States() const;
    bool SawState(const std::string &state) const;

    std::vector<Frame> Frames(shb_kind_t kind) const;
    size_t Count(shb_kind_t kind) const;
    // The time since the newest video frame; there has been one.
    Clock::duration Silence() const;
    // The epoch of the newest video frame, 0 when there is none. Each pipeline has a later one.
    uint64_t Epoch() const;
    // Frames of the newest epoch only: of the pipeline that runs now.
    size_t CountOfEpoch(shb_kind_t kind) const;
    bool WaitFrames(shb_kind_t kind, size_t count) const;
    // Waits for two seconds of video of a later epoch than `epoch`.
    bool WaitEpochAfter(uint64_t epoch) const;

  private:
    struct Track {
        std::vector<Frame> frames;
        std::string failure;
    };

    static void OnMediaChange(void *user, media_code_info_t *info);
    void ReadTrack(shb_kind_t kind);
    void WatchState();

    const int type_;
    std::string name_;
    std::string url_;
    shb_buffer_t *buffer_ = nullptr;
    shb_map_t *map_ = nullptr;
    void *source_ = nullptr;
    std::atomic<bool> stop_{false};
    mutable std::mutex mutex_;
    Track tracks_[2];
    std::vector<media_code_info_t> calls_;
    std::vector<StateChange> states_;
    std::vector<std::thread> threads_;
};

// A field of fixed size as text, whether or not it is terminated.
template <size_t Size>
std::string Text(const char (&field)[Size]) {
    const std::string all(field, Size);
    return all.substr(0, all.find('\0'));
}

}  // namespace peers
