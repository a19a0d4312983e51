#include "record_view.h"

#include <poll.h>
#include <unistd.h>

#include <utility>
#include <vector>

#include "interrupts.h"
#include "output.h"
#include "paint.h"
#include "record.h"
#include "text.h"

namespace reader {
namespace {

constexpr double kNsPerSecond = 1e9;
constexpr std::array<const char *, kKinds> kNames{"video", "audio"};

std::string Length(int64_t ns) {
    return tool::FormatElapsed(static_cast<double>(ns) / kNsPerSecond);
}

// "3000 video frames, 5625 audio frames"
std::string FramesText(uint64_t video, uint64_t audio) {
    std::string text;
    text += video > 0 ? tool::Count(video, "video frame", "video frames") : "";
    text += audio > 0 ? (text.empty() ? "" : ", ") + tool::Count(audio, "audio frame", "audio frames") : "";
    return text.empty() ? "no frames" : text;
}

std::string FormatsText(const MuxStatus &status) {
    std::string text;
    for (const std::string &format : status.formats) {
        text += format.empty() ? "" : (text.empty() ? "" : " and ") + format;
    }
    return tool::Printable(text);
}

uint64_t LostOf(const MuxStatus &status) {
    return status.lost[SHB_VIDEO] + status.lost[SHB_AUDIO];
}

// A terminal that is held (Ctrl-S), or a pipe that nobody reads, must not hold up the recording.
bool TakesLines() {
    pollfd ready{STDERR_FILENO, POLLOUT, 0};
    return poll(&ready, 1, 0) > 0;
}

}  // namespace

RecordView::RecordView(std::string name, bool json) : m_name(std::move(name)), m_json(json) {
    if (tool::CanDraw(STDERR_FILENO)) {
        m_screen = std::make_unique<tool::Screen>(STDERR_FILENO);
    }
}

RecordView::~RecordView() {
    Clear();
}

void RecordView::Clear() {
    if (m_drawn && TakesLines()) {
        m_screen->Room();
        m_screen->Draw({});
    }
    m_drawn = false;
}

void RecordView::Tell(const std::string &line) {
    if (TakesLines()) {
        Clear();
        Complain(line);
    }
}

void RecordView::Report(const tool::Record &record) {
    if (!m_json || !IsHeard()) {
        return;
    }
    try {
        WriteOut(tool::JsonLine(record));
    } catch (...) {
        m_deaf = std::current_exception();
    }
}

void RecordView::Opened(const FileWriter &file, const MuxStatus &status) {
    const std::string &reason = file.Start().reason;
    const std::string formats = FormatsText(status);
    const std::string what = (reason.empty() ? "" : reason + "; ") + (formats != m_told_formats ? formats + " " : "");
    m_told_formats = formats;
    Tell(m_name + ": " + what + "into " + tool::Printable(file.Name()));
}

void RecordView::Finished(const FileWriter &file, const MuxStatus &status, bool complete) {
    const uint64_t video = file.Frames(SHB_VIDEO);
    const uint64_t audio = file.Frames(SHB_AUDIO);
    if (status.files > 1) {
        Tell(tool::Printable(file.Name()) + ": " + Length(file.Length()) + ", " + FramesText(video, audio) + ", " +
             tool::FormatBytes(file.Bytes()) + (complete ? "" : ", not complete"));
    }
    tool::Record record;
    record["type"] = "file";
    record["time"] = tool::TimeNow();
    record["path"] = file.Name();
    record["complete"] = complete;
    record["duration_s"] = tool::Rounded(static_cast<double>(file.Length()) / kNsPerSecond);
    record["bytes"] = file.Bytes();
    record["video_frames"] = video;
    record["audio_frames"] = audio;
    record["reason"] = tool::TextOrNull(file.Start().reason);
    Report(record);
}

void RecordView::Progress(const MuxStatus &status) {
    constexpr std::chrono::milliseconds kInterval{500};
    constexpr std::chrono::seconds kUntilTold{2};
    const Clock::time_point now = Clock::now();
    const bool waiting = status.files == 0;
    if (m_screen == nullptr) {
        if (waiting && !m_told_of_waiting && now - m_begin > kUntilTold) {
            m_told_of_waiting = true;
            Complain(m_name + ": nothing has come yet, waiting for it");
        }
        return;
    }
    if ((now < m_due && m_drawn && !tool::interrupts::RedrawWanted()) || !TakesLines()) {
        return;
    }
    m_due = now + kInterval;
    const tool::Painter paint(tool::ColorsAllowed());
    const tool::Window room = m_screen->Room();
    std::vector<std::string> lines;
    if (waiting) {
        const double seconds = std::chrono::duration<double>(now - m_begin).count();
        lines.push_back(paint(tool::kYellow, tool::Cut(m_name + ": waiting for the first picture or sound, " +
                                                           tool::FormatElapsed(seconds) + "  (Ctrl-C ends)",
                                                       room.columns)));
    } else {
        const uint64_t bytes = status.bytes + (status.newest != nullptr ? status.newest->Bytes() : 0);
        std::string line = Length(status.recorded) + "  " + tool::FormatBytes(bytes);
        for (const shb_kind_t kind : {SHB_VIDEO, SHB_AUDIO}) {
            if (status.frames[kind] > 0) {
                line += "  " + std::string(kNames[kind]) + " " + std::to_string(status.frames[kind]);
            }
        }
        const uint64_t lost = LostOf(status);
        line += "  lost " + std::to_string(lost) + (status.files > 1 ? "  " + tool::Count(status.files, "file", "files") : "") +
                "  (Ctrl-C ends)";
        lines.push_back(paint(lost > 0 ? tool::kYellow : tool::kGreen, tool::Cut(line, room.columns)));
    }
    m_drawn = m_screen->Draw(lines);
}

void RecordView::Conclude(const MuxStatus &status) {
    const uint64_t lost = LostOf(status);
    Tell(m_name + ": " + tool::Count(status.files, "file", "files") + ", " + Length(status.recorded) + ", " +
         FramesText(status.frames[SHB_VIDEO], status.frames[SHB_AUDIO]) + ", " + tool::FormatBytes(status.bytes) + ", " +
         std::to_string(lost) + " lost");
    tool::Record record;
    record["type"] = "summary";
    record["time"] = tool::TimeNow();
    record["name"] = m_name;
    record["files"] = status.files;
    record["duration_s"] = tool::Rounded(static_cast<double>(status.recorded) / kNsPerSecond);
    record["bytes"] = status.bytes;
    record["video_frames"] = status.frames[SHB_VIDEO];
    record["audio_frames"] = status.frames[SHB_AUDIO];
    record["video_lost_frames"] = status.lost[SHB_VIDEO];
    record["audio_lost_frames"] = status.lost[SHB_AUDIO];
    Report(record);
    if (m_deaf) {
        std::rethrow_exception(m_deaf);
    }
}

}  // namespace reader
