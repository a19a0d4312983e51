#include "http_fake.h"

#include "record.h"

namespace {

constexpr uint64_t kMs = 1'000'000;

tool::SourceSample Base(const std::string &name, const std::string &url, tool::Protocol protocol) {
    tool::SourceSample source;
    source.name = name;
    source.url = url;
    source.protocol = protocol;
    source.buffer = "/" + name;
    source.state = "start";
    return source;
}

void Video(tool::SourceSample &source, const std::string &codec, int width, int height, double fps, uint32_t bitrate) {
    tool::VideoSample &video = source.video;
    video.codec = codec;
    video.width = width;
    video.height = height;
    video.announced_fps = fps;
    video.measured_fps = fps;
    video.bitrate = bitrate;
    video.frames = 90'000;
    video.bytes = uint64_t{bitrate} / 8 * 3600;
    video.key_frames = 1800;
    video.epoch = 1;
    video.open = true;
    video.presence = SHB_PRESENCE_EXPECTED;
    video.age_ns = 20 * kMs;
    source.state = "connected";
    source.flow = tool::Flow::kLive;
    source.first_frame.Observe(0.4);
}

void Audio(tool::SourceSample &source, const std::string &codec, uint32_t bitrate) {
    tool::AudioSample &audio = source.audio;
    audio.codec = codec;
    audio.sample_rate = 48'000;
    audio.channels = 2;
    audio.measured_fps = 46.88;
    audio.bitrate = bitrate;
    audio.frames = 168'750;
    audio.bytes = uint64_t{bitrate} / 8 * 3600;
    audio.key_frames = audio.frames;
    audio.epoch = 1;
    audio.open = true;
    audio.presence = SHB_PRESENCE_EXPECTED;
    audio.age_ns = 12 * kMs;
}

void Quiet(tool::SourceSample &source, uint64_t age_ms) {
    for (tool::TrackSample *track :
         {static_cast<tool::TrackSample *>(&source.video), static_cast<tool::TrackSample *>(&source.audio)}) {
        track->bitrate = 0;
        track->measured_fps = 0;
        track->open = false;
        if (track->frames > 0) {
            track->age_ns = age_ms * kMs;
        }
    }
    source.flow = tool::Flow::kSilent;
}

void Fail(tool::SourceSample &source, const std::string &text, const std::string &code, unsigned attempts, double retry) {
    source.state = "reconnect";
    source.last_error = tool::Reason{text, code, tool::TimeNow(), true};
    source.attempts = attempts;
    source.rebuilds += attempts;
    source.retry_in_s = retry;
    source.rebuild_reasons["error"] += attempts;
}

tool::ReaderSample Reader(const std::string &program, int pid, bool video, uint64_t lost) {
    tool::ReaderSample reader;
    reader.pid = pid;
    reader.program = program;
    reader.video = video;
    reader.frames = 89'000;
    reader.bytes = 890'000'000;
    reader.lost = lost;
    reader.age_ns = 30 * kMs;
    return reader;
}

}  // namespace

tool::RunSample FakeFleet() {
    using tool::Protocol;
    tool::RunSample run;
    run.elapsed_s = 3725;
    std::vector<tool::SourceSample> &sources = run.sources;

    sources.push_back(Base("gate-north", "rtsp://10.20.0.11/stream1", Protocol::kRtsp));
    Video(sources.back(), "H264", 1920, 1080, 25, 4'210'000);
    Audio(sources.back(), "AAC", 128'000);
    sources.back().readers = {Reader("recorder", 4120, true, 0), Reader("recorder", 4120, false, 0),
                              Reader("analytics", 4188, true, 37)};

    sources.push_back(Base("gate-south", "rtsp://10.20.0.12/stream1", Protocol::kRtsp));
    Video(sources.back(), "H264", 1920, 1080, 25, 3'980'000);
    sources.back().audio.presence = SHB_PRESENCE_ABSENT;
    sources.back().readers = {Reader("recorder", 4121, true, 0)};

    sources.push_back(Base("parking-p1", "rtsp://10.20.0.21/h265", Protocol::kRtsp));
    Video(sources.back(), "H265", 2560, 1440, 20, 2'750'000);
    sources.back().audio.presence = SHB_PRESENCE_ABSENT;

    sources.push_back(Base("parking-p2", "rtsp://10.20.0.22/h265", Protocol::kRtsp));
    Fail(sources.back(), "Not found (404)", "404", 14, 2.1);

    sources.push_back(Base("lobby", "rtsps://10.20.0.31:322/main", Protocol::kRtsp));
    Video(sources.back(), "H264", 1280, 720, 30, 1'900'000);
    Audio(sources.back(), "AAC", 96'000);
    Quiet(sources.back(), 48'000);

    sources.push_back(Base("studio-a", "srt://10.30.0.5:9000", Protocol::kSrt));
    Video(sources.back(), "H265", 3840, 2160, 50, 18'400'000);
    Audio(sources.back(), "AAC", 256'000);
    sources.back().readers = {Reader("mixer", 2210, true, 0), Reader("mixer", 2210, false, 0)};

    sources.push_back(Base("studio-b", "srt://10.30.0.6:9000", Protocol::kSrt));
    Fail(sources.back(), "Connection refused", "refused", 3, 0.4);

    sources.push_back(Base("satellite-7", "udp://239.1.7.1:5000", Protocol::kUdp));
    Video(sources.back(), "H264", 1920, 1080, 25, 7'600'000);
    sources.back().video.scan = 1;
    Audio(sources.back(), "MP2", 192'000);
    sources.back().readers = {Reader("gst-source-read", 5310, true, 1204)};

    sources.push_back(Base("satellite-9", "udp://239.1.9.1:5000", Protocol::kUdp));
    sources.back().state = "connected";
    sources.back().attempts = 1;

    sources.push_back(Base("event-stream", "rtmp://live.example.net/app/event", Protocol::kRtmp));
    Video(sources.back(), "H264", 1280, 720, 30, 2'480'000);
    Audio(sources.back(), "AAC", 128'000);
    sources.back().rebuilds = 6;
    sources.back().rebuild_reasons = {{"end of stream", 4}, {"error", 2}};
    sources.back().recovery.Observe(3.4);
    sources.back().recovery.Observe(7.9);

    sources.push_back(Base("news-hls", "https://cdn.example.net/news/index.m3u8", Protocol::kHls));
    Video(sources.back(), "H264", 1280, 720, 25, 3'100'000);
    Audio(sources.back(), "AAC", 128'000);
    sources.back().video.age_ns = 3100 * kMs;

    sources.push_back(Base("radio-relay", "https://cdn.example.net/radio/index.m3u8", Protocol::kHls));
    Audio(sources.back(), "AAC", 192'000);
    sources.back().state = "connected";
    sources.back().flow = tool::Flow::kLive;
    sources.back().video.presence = SHB_PRESENCE_ABSENT;

    for (size_t i = 0; i < sources.size(); ++i) {
        sources[i].channel = static_cast<unsigned>(i);
    }
    run.process = {412.7, 186'000'000, 148, 402, 1'714'550'000.25};
    run.config_file = "/etc/gst-source/fleet.toml";
    run.reloads = 2;
    run.reload_time_s = 1'714'552'000;
    return run;
}

tool::RunSample LargeFleet(size_t count) {
    tool::RunSample run;
    for (size_t i = 0; i < count; ++i) {
        const std::string number = std::to_string(i);
        run.sources.push_back(Base("camera-" + number, "rtsp://10.0.0." + number + "/main", tool::Protocol::kRtsp));
        Video(run.sources.back(), "H264", 1920, 1080, 25, 4'000'000 + static_cast<uint32_t>(i) * 1000);
        Audio(run.sources.back(), "AAC", 128'000);
        run.sources.back().channel = static_cast<unsigned>(i);
        run.sources.back().readers = {Reader("recorder", 100 + static_cast<int>(i), true, 0)};
    }
    return run;
}
