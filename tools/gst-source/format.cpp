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

// A source that was opened anew, and has got nothing since, knows no codec.
std::string Contents(const TrackSample &track, const std::string &format) {
    const std::string codec = track.codec.empty() ? "" : Printable(track.codec) + " " + format + ", ";
    return " (" + codec + FormatBytes(track.bytes) + ")";
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

const Reason *CurrentReason(const SourceSample &sample) {
    if (!sample.last_error || sample.state == "stop") {
        return nullptr;
    }
    // With attempts == 0, media have come since, and no session has failed after them.
    const bool waits = sample.retry_in_s && sample.state == "reconnect";
    const bool fails = sample.flow == Flow::kNone || sample.attempts > 0 || !sample.last_error->ends;
    return waits || (fails && sample.flow != Flow::kLive) ? &*sample.last_error : nullptr;
}

std::string FormatName(const SourceSample &sample) {
    const bool named = !sample.name.empty() && sample.name != std::to_string(sample.channel);
    return Printable(named ? sample.name : sample.url);
}

bool HasOwnBuffer(const SourceSample &sample) {
    return !sample.name.empty() && sample.buffer == "/" + sample.name;
}

Standing StandingOf(const SourceSample &sample) {
    if (sample.state == "stop") {
        return Standing::kStopped;
    }
    if (sample.state == "failed" || CurrentReason(sample) != nullptr) {
        return Standing::kFailing;
    }
    return sample.flow == Flow::kLive ? Standing::kLive : Standing::kWaiting;
}

std::string FormatShortState(const SourceSample &sample) {
    const Reason *reason = CurrentReason(sample);
    if (reason != nullptr && sample.retry_in_s && sample.state == "reconnect") {
        return "waiting";
    }
    // An element that tries again by itself only warns.
    if (reason != nullptr && !reason->ends) {
        return "trying";
    }
    if (sample.state == "connected" && sample.flow != Flow::kLive) {
        return sample.flow == Flow::kNone ? "waiting" : "no data";
    }
    return sample.state.empty() ? "-" : sample.state;
}

std::string FormatState(const SourceSample &sample) {
    std::string text = FormatShortState(sample);
    if (const Reason *reason = CurrentReason(sample)) {
        text += ": " + FormatReason(*reason);
    }
    if (sample.last_error && sample.retry_in_s && sample.state == "reconnect") {
        const auto seconds = std::max(1, static_cast<int>(std::ceil(*sample.retry_in_s)));
        text += ", again in " + std::to_string(seconds) + " s";
    }
    return text;
}

std::string FormatSummary(const SourceSample &sample) {
    std::string text = (HasOwnBuffer(sample) ? Printable(sample.name) : "source " + std::to_string(sample.channel)) + ": " +
                       Count(sample.video.frames, "access unit", "access units");
    if (sample.video.frames > 0) {
        text += Contents(sample.video, FormatPicture(sample.video));
    }
    text += ", " + Count(sample.audio.frames, "audio frame", "audio frames");
    if (sample.audio.frames > 0) {
        text += Contents(sample.audio, FormatSound(sample.audio));
    }
    text += ", " + Count(sample.rebuilds, "rebuild", "rebuilds");
    if (sample.last_error) {
        text += ", last error: " + FormatReason(*sample.last_error);
    }
    text += DumpSummary(sample.video, "video") + DumpSummary(sample.audio, "audio");
    const std::string name = FormatName(sample);
    const std::string url = Printable(sample.url);
    return text + "  " + (name == url || HasOwnBuffer(sample) ? "" : name + "  ") + url;
}

}  // namespace tool
