#include "source.h"

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstring>

namespace tool {
namespace {

int TypeOf(Protocol protocol) {
    switch (protocol) {
        case Protocol::kRtsp:
            return SOURCE_TYPE_RTSP;
        case Protocol::kRtmp:
            return SOURCE_TYPE_RTMP;
        case Protocol::kSrt:
            return SOURCE_TYPE_SRT;
        case Protocol::kUdp:
            return SOURCE_TYPE_UDP;
        case Protocol::kHls:
            return SOURCE_TYPE_HLS;
    }
    return -1;
}

// The texts of the records fill their field without a terminator when they are as long as it.
template <size_t Size>
std::string FieldText(const char (&field)[Size]) {
    return {field, strnlen(field, Size)};
}

// HLS brings a segment at once and then nothing until the next one.
uint64_t SilentAfter(Protocol protocol) {
    constexpr uint64_t kSecond = 1'000'000'000;
    return (protocol == Protocol::kHls ? 15 : 2) * kSecond;
}

bool IsCurrent(const TrackSample &track, uint64_t silent_after) {
    return track.age_ns && *track.age_ns < silent_after;
}

// `earlier`: key frames of the track's writer when it was looked at last.
void ReadTrack(const shb_buffer_t *buffer, unsigned channel, shb_kind_t kind, uint64_t silent_after, uint64_t &earlier,
               TrackSample &track) {
    shb_stats_t stats{};
    if (shb_buffer_stats(buffer, channel, 0, kind, &stats) != SHB_OK) {
        return;
    }
    track.frames = stats.total_frames;
    track.bytes = stats.total_bytes;
    track.left_out = stats.total_left_out;
    // The buffer counts the key frames of one writer, the sample those of all.
    track.key_frames +=
        stats.epoch == track.epoch && stats.key_frames >= earlier ? stats.key_frames - earlier : stats.key_frames;
    earlier = stats.key_frames;
    track.epoch = stats.epoch;
    track.open = stats.writer_pid != 0;
    track.presence = stats.presence;
    track.age_ns = stats.age_ns == SHB_TIME_NONE ? std::nullopt : std::optional<uint64_t>(stats.age_ns);
    // The rates are those of the last window in which frames came.
    const bool current = IsCurrent(track, silent_after);
    track.bitrate = current ? stats.bitrate : 0;
    constexpr double kMilli = 1000.0;
    track.measured_fps = current ? stats.fps_milli / kMilli : 0;
}

// The later of both tracks.
uint64_t EpochOf(const shb_buffer_t *buffer, unsigned channel) {
    uint64_t epoch = 0;
    for (const shb_kind_t kind : {SHB_VIDEO, SHB_AUDIO}) {
        shb_stats_t stats{};
        if (shb_buffer_stats(buffer, channel, 0, kind, &stats) == SHB_OK) {
            epoch = std::max(epoch, stats.epoch);
        }
    }
    return epoch;
}

}  // namespace

Source::Source(const SourceConfig &config, unsigned channel, shb_buffer_t *buffer, const SourceNews &news,
               const SourceSample *earlier)
    : m_config(config),
      m_protocol(ProtocolOf(config.url).value()),
      m_buffer(buffer),
      m_handle(gst_source_create(TypeOf(m_protocol), buffer, static_cast<int>(channel), 0)),
      m_rebuilds(m_protocol, EpochOf(buffer, channel), news.reconnects) {
    if (earlier != nullptr) {
        m_sample.video.key_frames = earlier->video.key_frames;
        m_sample.audio.key_frames = earlier->audio.key_frames;
    }
    // What the buffer has had before this source is none of its own.
    for (const shb_kind_t kind : {SHB_VIDEO, SHB_AUDIO}) {
        shb_stats_t stats{};
        if (shb_buffer_stats(buffer, channel, 0, kind, &stats) == SHB_OK) {
            m_keyFrames[kind] = stats.key_frames;
            (kind == SHB_VIDEO ? static_cast<TrackSample &>(m_sample.video) : m_sample.audio).epoch = stats.epoch;
            m_framesSeen += stats.total_frames;
        }
    }
    m_sample.name = config.name;
    m_sample.buffer = shb_name(buffer);
    m_sample.channel = channel;
    m_sample.url = PublicUrl(config.url);
    m_sample.protocol = m_protocol;
}

bool Source::Open() {
    const SourceConfig &with = m_config;
    const char *url = with.url.c_str();
    const char *user = with.user.c_str();
    const char *password = with.password.c_str();
    int result = -1;
    switch (m_protocol) {
        case Protocol::kRtsp:
            result = gst_rtsp_source_open_live_stream(m_handle.get(), url, with.caching, with.rtsp.protocols, with.rtsp.latency,
                                                      with.rtsp.contimeout, user, password);
            break;
        case Protocol::kRtmp:
            result = gst_rtmp_source_open_live_stream(m_handle.get(), url, with.caching, with.rtmp.contimeout,
                                                      with.rtmp.idle_timeout, user, password, with.rtmp.token.c_str());
            break;
        case Protocol::kSrt:
            result = gst_srt_source_open_live_stream(m_handle.get(), url, with.caching, with.srt.mode.c_str(),
                                                     with.srt.streamid.c_str(), with.srt.passphrase.c_str(), with.srt.keylen,
                                                     with.srt.latency, with.srt.tslatency, with.srt.localaddress.c_str());
            break;
        case Protocol::kUdp:
            result = gst_udp_source_open_live_stream(m_handle.get(), url, with.caching, with.udp.ts_latency, with.udp.mtu);
            break;
        case Protocol::kHls:
            result = gst_hls_source_open_live_stream(m_handle.get(), url, with.caching, with.hls.islive, with.hls.timeout,
                                                     with.hls.retries, with.hls.proxy.c_str(), with.hls.proxy_id.c_str(),
                                                     with.hls.proxy_pwd.c_str(), with.hls.user_agent.c_str(), user, password);
            break;
    }
    m_opened = result == 0;
    return m_opened;
}

void Source::Poll() {
    if (m_handle) {
        source_status_t status{};
        if (gst_source_get_status(m_handle.get(), &status) == 0) {
            m_rebuilds.OnState(FieldText(status.state));
        }
    }
    ReadCounters();
    ReportPresence();
}

void Source::ReportPresence() {
    const auto words = m_presence.Look(m_sample.rebuilds, m_sample, PresenceWatch::Clock::now());
    for (const shb_kind_t kind : {SHB_VIDEO, SHB_AUDIO}) {
        if (!words[kind]) {
            continue;
        }
        shb_set_presence(m_buffer, m_sample.channel, 0, kind, *words[kind]);
        // A writer that has opened the track meanwhile knows better, and its word has just been overwritten.
        shb_stats_t stats{};
        if (shb_buffer_stats(m_buffer, m_sample.channel, 0, kind, &stats) == SHB_OK && stats.writer_pid != 0) {
            shb_set_presence(m_buffer, m_sample.channel, 0, kind, SHB_PRESENCE_EXPECTED);
        }
    }
}

void Source::Take(const SourceNews &news) {
    m_endedAt = news.waiting ? std::optional(news.last_at) : std::nullopt;
    m_sample.last_error = news.last;
    m_sample.rebuild_reasons = news.reconnect_reasons;
    m_rebuilds.OnReconnects(news.reconnects);
}

const SourceSample &Source::Sample() {
    ReadRecords();
    ReadCounters();
    ReadReaders();
    m_sample.retry_in_s.reset();
    if (m_endedAt) {
        // The library's wait between two sessions.
        constexpr double kWait = 3;
        const std::chrono::duration<double> gone = std::chrono::steady_clock::now() - *m_endedAt;
        m_sample.retry_in_s = std::max(0.0, kWait - gone.count());
    }
    return m_sample;
}

void Source::Destroy() {
    // Closing empties the codec texts of the record, and the summary wants them.
    ReadRecords();
    m_handle.reset();
    ReadCounters();
    if (m_opened) {
        m_sample.state = "stop";
    }
}

void Source::ReadRecords() {
    if (!m_handle) {
        return;
    }
    source_status_t status{};
    media_code_info_t video{};
    media_code_info_t audio{};
    if (gst_source_get_status(m_handle.get(), &status) != 0 || gst_source_get_media_info(m_handle.get(), &video, &audio) != 0) {
        return;
    }
    m_sample.state = m_opened ? FieldText(status.state) : "failed";
    m_sample.video.codec = FieldText(status.video_code);
    m_sample.video.width = status.width;
    m_sample.video.height = status.height;
    m_sample.video.scan = video.params.video.scan_type;
    m_sample.video.announced_fps = static_cast<double>(status.fps);
    m_sample.audio.codec = FieldText(status.audio_code);
    m_sample.audio.sample_rate = status.sample_rate;
    m_sample.audio.channels = status.channels;
}

void Source::ReadCounters() {
    const uint64_t silent_after = SilentAfter(m_protocol);
    ReadTrack(m_buffer, m_sample.channel, SHB_VIDEO, silent_after, m_keyFrames[SHB_VIDEO], m_sample.video);
    ReadTrack(m_buffer, m_sample.channel, SHB_AUDIO, silent_after, m_keyFrames[SHB_AUDIO], m_sample.audio);
    m_rebuilds.OnEpoch(std::max(m_sample.video.epoch, m_sample.audio.epoch));
    m_sample.rebuilds = m_rebuilds.Count();
    const uint64_t frames = m_sample.video.frames + m_sample.audio.frames;
    if (frames != m_framesSeen) {
        m_framesSeen = frames;
        m_rebuildsAtMedia = m_sample.rebuilds;
        m_hadMedia = true;
    }
    m_sample.attempts = m_sample.rebuilds - m_rebuildsAtMedia + (m_hadMedia ? 0U : 1U);
    if (!Delivered(m_sample)) {
        m_sample.flow = Flow::kNone;
    } else {
        const bool live = IsCurrent(m_sample.video, silent_after) || IsCurrent(m_sample.audio, silent_after);
        m_sample.flow = live ? Flow::kLive : Flow::kSilent;
    }
}

// Those of this process are its own business.
void Source::ReadReaders() {
    std::array<shb_reader_info_t, kMostReaders> readers{};
    size_t count = 0;
    m_sample.readers.clear();
    if (shb_buffer_readers(m_buffer, readers.data(), readers.size(), &count) != SHB_OK) {
        return;
    }
    for (size_t i = 0; i < std::min(count, readers.size()); ++i) {
        const shb_reader_info_t &reader = readers[i];
        if (reader.channel != m_sample.channel || (reader.pid_is_ours != 0 && reader.pid == getpid())) {
            continue;
        }
        ReaderSample sample;
        sample.pid = reader.pid;
        sample.program = FieldText(reader.program);
        sample.video = reader.kind == SHB_VIDEO;
        sample.frames = reader.frames;
        sample.bytes = reader.bytes;
        sample.lost = reader.lost;
        if (reader.last_read_age_ns != SHB_TIME_NONE) {
            sample.age_ns = reader.last_read_age_ns;
        }
        m_sample.readers.push_back(std::move(sample));
    }
}

}  // namespace tool
