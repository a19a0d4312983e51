#include "Host.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cinttypes>
#include <stdexcept>

namespace peers {
namespace {

std::string UniqueName() {
    static std::atomic<int> number{0};
    return "peers-" + std::to_string(getpid()) + "-" + std::to_string(number++);
}

}  // namespace

Host::Host(int type) : type_(type), name_(UniqueName()) {
    if (shb_create(name_.c_str(), nullptr, &buffer_) != SHB_OK || shb_attach(name_.c_str(), &map_) != SHB_OK) {
        shb_destroy(buffer_);
        throw std::runtime_error("no shared buffer");
    }
    source_ = gst_source_create(type, buffer_, 0, 0);
    if (source_ == nullptr) {
        shb_detach(map_);
        shb_destroy(buffer_);
        throw std::runtime_error("no source");
    }
    gst_source_set_media_change_callback(source_, OnMediaChange, this);
    threads_.emplace_back([this] { ReadTrack(SHB_VIDEO); });
    threads_.emplace_back([this] { ReadTrack(SHB_AUDIO); });
    threads_.emplace_back([this] { WatchState(); });
}

Host::~Host() {
    stop_ = true;
    for (auto &thread : threads_) {
        thread.join();
    }
    gst_source_destroy(source_);
    shb_detach(map_);
    shb_destroy(buffer_);
    for (const auto &track : tracks_) {
        EXPECT_EQ(track.failure, "");
    }
}

bool Host::Open(const std::string &url, const RtspOptions &o) {
    url_ = url;
    return gst_rtsp_source_open_live_stream(source_, url.c_str(), o.caching, o.protocols, o.latency, o.contimeout,
                                            o.user.c_str(), o.password.c_str()) == 0;
}

bool Host::Open(const std::string &url, const SrtOptions &o) {
    url_ = url;
    return gst_srt_source_open_live_stream(source_, url.c_str(), o.caching, o.mode.c_str(), o.streamid.c_str(),
                                           o.passphrase.c_str(), o.keylen, o.latency, o.tslatency, o.localaddress.c_str()) == 0;
}

bool Host::Open(const std::string &url, const RtmpOptions &o) {
    url_ = url;
    return gst_rtmp_source_open_live_stream(source_, url.c_str(), o.caching, o.contimeout, o.idleTimeout, o.user.c_str(),
                                            o.password.c_str(), o.token.c_str()) == 0;
}

bool Host::Open(const std::string &url, const UdpOptions &o) {
    url_ = url;
    return gst_udp_source_open_live_stream(source_, url.c_str(), o.caching, o.tsLatency, o.mtu) == 0;
}

bool Host::Open(const std::string &url, const HlsOptions &o) {
    url_ = url;
    return gst_hls_source_open_live_stream(source_, url.c_str(), o.caching, o.islive, o.timeout, o.retries, o.proxy.c_str(),
                                           o.proxyUser.c_str(), o.proxyPassword.c_str(), o.userAgent.c_str(), o.user.c_str(),
                                           o.password.c_str()) == 0;
}

bool Host::Close() {
    return gst_source_close_live_stream(source_) == 0;
}

std::string Host::ReconnectLine() const {
    switch (type_) {
        case kRtsp:
            return "[CRtspSource] Rtsp source reconnect..." + url_;
        case kRtmp:
            // The library's own form of the address where it is one of RTMPS.
            return "[CRtmpSource] RTMP source reconnect..." + url_ + (url_.rfind("rtmps:", 0) == 0 ? " live=1" : "");
        case kSrt:
            return "[CSrtSource] Srt source reconnect..." + url_;
        case kUdp:
            return "[CUDPSource] UDP source reconnect..." + url_;
        default:
            return "[CHLSSource] HLS source reconnect..." + url_;
    }
}

void Host::SetStallWatch(Clock::duration time) {
    const auto ms = std::chrono::duration_cast<milliseconds>(time).count();
    ASSERT_EQ(shb_set_stall_watch(buffer_, static_cast<uint32_t>(ms)), SHB_OK);
}

source_status_t Host::Status() const {
    source_status_t status{};
    EXPECT_EQ(gst_source_get_status(source_, &status), 0);
    return status;
}

std::string Host::State() const {
    return Text(Status().state);
}

media_code_info_t Host::VideoInfo() const {
    media_code_info_t video{};
    media_code_info_t audio{};
    EXPECT_EQ(gst_source_get_media_info(source_, &video, &audio), 0);
    return video;
}

media_code_info_t Host::AudioInfo() const {
    media_code_info_t video{};
    media_code_info_t audio{};
    EXPECT_EQ(gst_source_get_media_info(source_, &video, &audio), 0);
    return audio;
}

std::vector<media_code_info_t> Host::Calls() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return calls_;
}

std::vector<media_code_info_t> Host::Calls(int type) const {
    auto calls = Calls();
    calls.erase(std::remove_if(calls.begin(), calls.end(), [&](const auto &call) { return call.type != type; }), calls.end());
    return calls;
}

std::vector<StateChange> Host::States() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return states_;
}

bool Host::SawState(const std::string &state) const {
    const auto states = States();
    return std::any_of(states.begin(), states.end(), [&](const auto &change) { return change.state == state; });
}

std::vector<Frame> Host::Frames(shb_kind_t kind) const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return tracks_[kind].frames;
}

size_t Host::Count(shb_kind_t kind) const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return tracks_[kind].frames.size();
}

size_t Host::CountOfEpoch(shb_kind_t kind) const {
    const std::lock_guard<std::mutex> lock(mutex_);
    const auto &frames = tracks_[kind].frames;
    return static_cast<size_t>(std::count_if(frames.begin(), frames.end(),
                                             [&](const Frame &frame) { return frame.info.epoch == frames.back().info.epoch; }));
}

Clock::duration Host::Silence() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return Clock::now() - tracks_[SHB_VIDEO].frames.back().at;
}

uint64_t Host::Epoch() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    const auto &frames = tracks_[SHB_VIDEO].frames;
    return frames.empty() ? 0 : frames.back().info.epoch;
}

bool Host::WaitFrames(shb_kind_t kind, size_t count) const {
    return WaitFor([&] { return Count(kind) >= count; });
}

bool Host::WaitEpochAfter(uint64_t epoch) const {
    return WaitFor([&] { return Epoch() > epoch && CountOfEpoch(SHB_VIDEO) > 50; });
}

void Host::OnMediaChange(void *user, media_code_info_t *info) {
    auto *self = static_cast<Host *>(user);
    const std::lock_guard<std::mutex> lock(self->mutex_);
    self->calls_.push_back(*info);
}

void Host::ReadTrack(shb_kind_t kind) {
    Track &track = tracks_[kind];
    shb_reader_t *reader = nullptr;
    int result = shb_reader_open(map_, 0, 0, kind, SHB_START_OLDEST, &reader);
    std::string data(size_t{4} << 20, '\0');
    while (result == SHB_OK && !stop_) {
        shb_frame_t info{};
        result = shb_reader_read(reader, data.data(), data.size(), 50, &info);
        if (result == SHB_OK) {
            const std::lock_guard<std::mutex> lock(mutex_);
            track.frames.push_back({info, data.substr(0, info.size), Clock::now()});
        } else if (result == SHB_ERR_TIMEOUT) {
            result = SHB_OK;
        }
    }
    if (result != SHB_OK) {
        const std::lock_guard<std::mutex> lock(mutex_);
        track.failure = std::string("reader: ") + shb_strerror(result);
    }
    shb_reader_close(reader);
}

void Host::WatchState() {
    std::string last;
    while (!stop_) {
        const std::string state = State();
        if (state != last) {
            const std::lock_guard<std::mutex> lock(mutex_);
            states_.push_back({state, Clock::now()});
            last = state;
        }
        std::this_thread::sleep_for(milliseconds(5));
    }
}

}  // namespace peers
