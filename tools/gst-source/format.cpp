#include "format.h"

#include <algorithm>
#include <cctype>
#include <cmath>

namespace tool {
namespace {

std::string DumpSummary(const TrackSample &track, const char *what) {
    if (!track.dumped_frames) {
        return {};
    }
    return "; " + std::string(what) + " dump: " + std::to_string(*track.dumped_frames) + " written, " +
           std::to_string(track.lost_frames.value_or(0)) + " lost, " +
           Count(track.discontinuities.value_or(0), "discontinuity", "discontinuities");
}

}  // namespace

std::string FormatPicture(const VideoSample &video) {
    return FormatPicture(video.width, video.height, video.scan);
}

std::string FormatSound(const AudioSample &audio) {
    return FormatSound(audio.sample_rate, audio.channels);
}

std::string FormatReason(const Reason &reason) {
    const bool status = !reason.code.empty() && std::isdigit(static_cast<unsigned char>(reason.code.front())) != 0;
    return Printable(status ? reason.code + " " + reason.text : reason.text);
}

std::string FormatState(const SourceSample &sample) {
    if (sample.last_error && sample.retry_in_s && sample.state == "reconnect") {
        const auto seconds = std::max(1, static_cast<int>(std::ceil(*sample.retry_in_s)));
        return "waiting: " + FormatReason(*sample.last_error) + ", again in " + std::to_string(seconds) + " s";
    }
    // An element that tries again by itself only warns.
    if (sample.last_error && !sample.last_error->ends && sample.flow != Flow::kLive && sample.state != "stop") {
        return "trying: " + FormatReason(*sample.last_error);
    }
    if (sample.state == "connected" && sample.flow != Flow::kLive) {
        return "no data";
    }
    return sample.state.empty() ? "-" : sample.state;
}

std::string FormatSummary(const SourceSample &sample) {
    std::string text =
        "source " + std::to_string(sample.channel) + ": " + Count(sample.video.frames, "access unit", "access units");
    if (sample.video.frames > 0) {
        text += " (" + sample.video.codec + " " + FormatPicture(sample.video) + ", " + FormatBytes(sample.video.bytes) + ")";
    }
    text += ", " + Count(sample.audio.frames, "audio frame", "audio frames");
    if (sample.audio.frames > 0) {
        text += " (" + sample.audio.codec + " " + FormatSound(sample.audio) + ", " + FormatBytes(sample.audio.bytes) + ")";
    }
    text += ", " + Count(sample.rebuilds, "rebuild", "rebuilds");
    if (sample.last_error) {
        text += ", last error: " + FormatReason(*sample.last_error);
    }
    text += DumpSummary(sample.video, "video") + DumpSummary(sample.audio, "audio");
    return text + "  " + Printable(sample.url);
}

}  // namespace tool
