#include "fields.h"

namespace tool {
namespace {

Record AgeMs(const TrackSample &track) {
    constexpr uint64_t kNsPerMs = 1'000'000;
    return track.age_ns ? Record(*track.age_ns / kNsPerMs) : Record(nullptr);
}

Record Optional(const std::optional<uint64_t> &value) {
    return value ? Record(*value) : Record(nullptr);
}

const char *FlowName(Flow flow) {
    switch (flow) {
        case Flow::kNone:
            return "none";
        case Flow::kLive:
            return "live";
        case Flow::kSilent:
            return "silent";
    }
    return "";
}

void AddError(Record &record, const SourceSample &source) {
    const Reason none;
    const Reason &error = source.last_error ? *source.last_error : none;
    record["last_error"] = TextOrNull(error.text);
    record["last_error_code"] = TextOrNull(error.code);
    record["last_error_time"] = TextOrNull(error.time);
    record["attempts"] = source.attempts;
}

// Behind the fields that were there first.
void AddPlace(Record &record, const SourceSample &source) {
    record["name"] = source.name;
    record["buffer"] = source.buffer;
}

void AddHead(Record &record, const char *type, const RunSample &run, const SourceSample &source, const std::string &time) {
    record["type"] = type;
    record["time"] = time;
    record["elapsed_s"] = Rounded(run.elapsed_s);
    record["source"] = source.channel;
    record["url"] = source.url;
    record["protocol"] = ProtocolName(source.protocol);
}

}  // namespace

Record SampleRecord(const RunSample &run, const SourceSample &source, const std::string &time) {
    const VideoSample &video = source.video;
    const AudioSample &audio = source.audio;
    Record record;
    AddHead(record, "sample", run, source, time);
    record["state"] = TextOrNull(source.state);
    record["flow"] = FlowName(source.flow);
    record["rebuilds"] = source.rebuilds;

    record["video_codec"] = TextOrNull(video.codec);
    record["video_width_px"] = NumberOrNull(video.width);
    record["video_height_px"] = NumberOrNull(video.height);
    record["video_scan"] = video.width > 0 ? Record(ScanName(video.scan)) : Record(nullptr);
    record["video_announced_fps"] = NumberOrNull(Rounded(video.announced_fps));
    record["video_measured_fps"] = Rounded(video.measured_fps);
    record["video_bitrate_bps"] = video.bitrate;
    record["video_frames"] = video.frames;
    record["video_bytes"] = video.bytes;
    record["video_age_ms"] = AgeMs(video);
    record["video_lost_frames"] = Optional(video.lost_frames);
    record["video_discontinuities"] = Optional(video.discontinuities);

    record["audio_codec"] = TextOrNull(audio.codec);
    record["audio_sample_rate_hz"] = NumberOrNull(audio.sample_rate);
    record["audio_channels"] = NumberOrNull(audio.channels);
    record["audio_measured_fps"] = Rounded(audio.measured_fps);
    record["audio_bitrate_bps"] = audio.bitrate;
    record["audio_frames"] = audio.frames;
    record["audio_bytes"] = audio.bytes;
    record["audio_age_ms"] = AgeMs(audio);
    record["audio_lost_frames"] = Optional(audio.lost_frames);
    record["audio_discontinuities"] = Optional(audio.discontinuities);
    AddError(record, source);
    AddPlace(record, source);
    return record;
}

Record SummaryRecord(const RunSample &run, const SourceSample &source, const std::string &time) {
    Record record;
    AddHead(record, "summary", run, source, time);
    record["delivered"] = Delivered(source);
    record["rebuilds"] = source.rebuilds;
    record["video_codec"] = TextOrNull(source.video.codec);
    record["video_frames"] = source.video.frames;
    record["video_bytes"] = source.video.bytes;
    record["video_dumped_frames"] = Optional(source.video.dumped_frames);
    record["video_lost_frames"] = Optional(source.video.lost_frames);
    record["video_discontinuities"] = Optional(source.video.discontinuities);
    record["audio_codec"] = TextOrNull(source.audio.codec);
    record["audio_frames"] = source.audio.frames;
    record["audio_bytes"] = source.audio.bytes;
    record["audio_dumped_frames"] = Optional(source.audio.dumped_frames);
    record["audio_lost_frames"] = Optional(source.audio.lost_frames);
    record["audio_discontinuities"] = Optional(source.audio.discontinuities);
    AddError(record, source);
    AddPlace(record, source);
    return record;
}

}  // namespace tool
