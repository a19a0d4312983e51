#include "Recording.h"

#include <shb.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>

namespace peers {
namespace {

using Json = nlohmann::json;

std::vector<Json> Objects(const Process &recorder) {
    std::vector<Json> objects;
    for (const std::string &rest : recorder.Told("{")) {
        // The last line may still be on its way.
        const Json object = Json::parse("{" + rest, nullptr, false);
        if (!object.is_discarded()) {
            objects.push_back(object);
        }
    }
    return objects;
}

size_t Segments(const std::string &playlist) {
    const std::string text = ReadFile(playlist);
    size_t found = 0;
    for (size_t at = text.find("#EXTINF"); at != std::string::npos; at = text.find("#EXTINF", at + 1)) {
        ++found;
    }
    return found;
}

}  // namespace

std::vector<Reported> ReportedFiles(const Process &recorder) {
    std::vector<Reported> files;
    for (const Json &object : Objects(recorder)) {
        if (object["type"] == "file") {
            files.push_back({object["path"], object["complete"], object["video_frames"], object["audio_frames"],
                             object["reason"].is_null() ? "" : object["reason"].get<std::string>()});
        }
    }
    return files;
}

Json Summary(const Process &recorder) {
    const auto objects = Objects(recorder);
    return !objects.empty() && objects.back()["type"] == "summary" ? objects.back() : Json();
}

std::string ReadTool() {
    return std::getenv("GST_SOURCE_READ_TOOL");
}

Recording::Recording(Protocol protocol)
    : protocol_(protocol), port_(protocol == Protocol::Udp || protocol == Protocol::Srt ? FreeUdpPort() : FreeTcpPort()) {
    static std::atomic<int> counter{0};
    name_ = "recording-" + std::to_string(getpid()) + "-" + std::to_string(counter++);
    const std::string place = "127.0.0.1:" + std::to_string(port_);
    switch (protocol) {
        case Protocol::Udp:
            url_ = "udp://" + place;
            break;
        case Protocol::Rtsp:
            url_ = "rtsp://" + place + "/stream";
            break;
        case Protocol::Srt:
            url_ = "srt://" + place;
            break;
        case Protocol::Rtmp:
            url_ = "rtmp://" + place + "/live/one";
            server_ =
                StartNginx("rtmp { access_log off; server { listen " + place + "; application live { live on; } } }\n", port_);
            break;
        case Protocol::Hls:
            url_ = "http://" + place + "/live.m3u8";
            server_ = ServeHttp(port_);
            break;
    }
}

Recording::~Recording() {
    host_.reset();
    // A host that was killed leaves its files.
    shb_remove(name_.c_str(), 0);
}

void Recording::StartHost() {
    if (host_ == nullptr) {
        host_ = Start("gst-source", {std::getenv("GST_SOURCE_TOOL"), url_, "--name", name_});
        EXPECT_TRUE(protocol_ != Protocol::Udp || WaitFor([&] { return UdpBound(port_); })) << "no host";
    }
}

void Recording::Play(const Material &material) {
    switch (protocol_) {
        case Protocol::Udp:
            // What is sent before somebody listens is lost.
            StartHost();
            peer_ = SendUdp(material, port_);
            break;
        case Protocol::Rtsp:
            peer_ = ServeRtsp(material, {"--port", std::to_string(port_)});
            break;
        case Protocol::Srt:
            peer_ = SendTs(material, url_ + "?mode=listener");
            EXPECT_TRUE(WaitFor([&] { return UdpBound(port_); })) << "no listener";
            break;
        case Protocol::Rtmp:
            peer_ = Send(material, {"-f", "flv", "-flvflags", "no_duration_filesize", url_});
            break;
        case Protocol::Hls:
            peer_ = Send(material, {"-f", "hls", "-hls_time", "1", "-hls_list_size", "8", "-hls_flags", "delete_segments",
                                    "-hls_delete_threshold", "8", NginxFile("www/live.m3u8")});
            EXPECT_TRUE(WaitFor([&] { return Segments(NginxFile("www/live.m3u8")) >= 3; })) << "no segments";
            break;
    }
    StartHost();
}

void Recording::StopPeer() {
    peer_.reset();
}

bool Recording::WaitPlayed(const Material &material, double length) const {
    const bool video = material.video != Codec::None;
    const double rate =
        video ? static_cast<double>(material.fps) : static_cast<double>(material.sampleRate) / material.samplesPerFrame;
    return WaitFor([&] {
        shb_map_t *map = nullptr;
        shb_stats_t stats{};
        if (shb_attach(name_.c_str(), &map) == SHB_OK) {
            shb_map_stats(map, 0, 0, video ? SHB_VIDEO : SHB_AUDIO, &stats);
            shb_detach(map);
        }
        return static_cast<double>(stats.frames) >= length * rate;
    });
}

std::unique_ptr<Process> Recording::Record(const std::string &file, const std::vector<std::string> &more) {
    std::vector<std::string> command = {ReadTool(), "record", name_, dir.File(file), "--json"};
    command.insert(command.end(), more.begin(), more.end());
    return Start("record", command);
}

}  // namespace peers
