#include "table.h"

#include <algorithm>
#include <string_view>

#include "format.h"
#include "layout.h"
#include "paint.h"

namespace tool {
namespace {

constexpr size_t kMostLogLines = 6;
constexpr size_t kLinesPerSource = 3;

enum Column : size_t { kTrack, kCodec, kFormat, kFps, kReal, kRate, kFrames, kBytes, kAge, kLost, kColumns };

const std::vector<ColumnStyle> &Styles() {
    static const std::vector<ColumnStyle> styles{{"TRACK", false, 5, 100}, {"CODEC", false, 5, 90}, {"FORMAT", false, 13, 60},
                                                 {"FPS", true, 5, 30},     {"REAL", true, 5, 70},   {"BIT RATE", true, 9, 80},
                                                 {"FRAMES", true, 7, 50},  {"BYTES", true, 7, 20},  {"AGE", true, 6, 65},
                                                 {"LOST", true, 4, 40}};
    return styles;
}

constexpr size_t kIndent = 2;

Row TrackRow(const char *name, const TrackSample &track, const std::string &format, double announced_fps) {
    Row row(kColumns);
    row[kTrack] = name;
    row[kCodec] = track.codec.empty() ? "-" : Printable(track.codec);
    row[kFormat] = format;
    row[kFps] = FormatRate(announced_fps);
    row[kReal] = FormatRate(track.measured_fps);
    row[kRate] = FormatBitRate(track.bitrate);
    row[kFrames] = std::to_string(track.frames);
    row[kBytes] = FormatBytes(track.bytes);
    row[kAge] = FormatAge(track.age_ns);
    row[kLost] = track.lost_frames ? std::to_string(*track.lost_frames) : "";
    return row;
}

std::string_view StateColor(const SourceSample &source) {
    if (source.state == "failed") {
        return kRed;
    }
    if (source.state == "connected" && source.flow == Flow::kLive) {
        return kGreen;
    }
    return source.state == "stop" ? kDim : kYellow;
}

std::string HeadLine(const RunSample &run, size_t columns, const Painter &paint) {
    const std::string left = "gst-source  " + FormatElapsed(run.elapsed_s);
    std::string rest = "  " + std::to_string(run.sources.size()) + (run.sources.size() == 1 ? " source" : " sources") +
                       " into " + run.buffer_name;
    switch (run.phase) {
        case Phase::kRunning:
            rest += "  (Ctrl-C ends)";
            break;
        case Phase::kClosing:
            rest += "  closing ... (Ctrl-C again leaves at once)";
            break;
        case Phase::kEnded:
            rest += "  ended";
            break;
    }
    const std::string whole = Cut(left + rest, columns);
    return whole.size() > left.size() ? paint(kBold, left) + whole.substr(left.size()) : paint(kBold, whole);
}

// State and rebuilds stand before the URL, which takes what is left and is cut first.
std::string SourceLine(const SourceSample &source, size_t columns, const Painter &paint) {
    constexpr size_t kStateWidth = 9;
    const std::string number = std::to_string(source.channel);
    std::string head = number + std::string(number.size() < kIndent ? kIndent - number.size() : 1, ' ');
    std::string state = FormatState(source);
    const size_t state_columns = Columns(state);
    const std::string pad(state_columns < kStateWidth ? kStateWidth - state_columns : 0, ' ');
    const std::string tail = pad + "  " + std::to_string(source.rebuilds) +
                             (source.rebuilds == 1 ? " rebuild  " : " rebuilds  ") + Printable(source.url);
    const size_t used = head.size() + state_columns;
    if (used > columns) {
        return Cut(head + state, columns);
    }
    return head + paint(StateColor(source), state) + Cut(tail, columns - used);
}

std::string_view LogColor(const std::string &line) {
    constexpr size_t kLevel = sizeof "03.07.30" - 1;
    const auto has = [&line](const char *level) { return line.compare(kLevel, std::string_view(level).size(), level) == 0; };
    if (line.size() <= kLevel) {
        return kDim;
    }
    return has(" ERR ") || has(" FATAL ") ? kRed : (has(" WARN ") ? kYellow : kDim);
}

std::vector<std::string> LogLines(const LogTail &log, size_t most, size_t columns, const Painter &paint) {
    std::vector<std::string> lines;
    constexpr size_t kFrame = 2;  // a blank line and the title
    if (log.total == 0 || most <= kFrame) {
        return lines;
    }
    const size_t count = std::min({log.lines.size(), most - kFrame, kMostLogLines});
    std::string title = "log: " + std::to_string(log.total) + (log.total == 1 ? " line" : " lines");
    if (log.total > count) {
        title += ", the last " + std::to_string(count) + " here" + (log.kept_elsewhere ? "" : "; --log FILE keeps all");
    }
    lines.emplace_back();
    lines.push_back(paint(kDim, Cut(title, columns)));
    for (size_t i = log.lines.size() - count; i < log.lines.size(); ++i) {
        const std::string line = ShortLogLine(Printable(log.lines[i]));
        lines.push_back(paint(LogColor(line), Cut(line, columns)));
    }
    return lines;
}

}  // namespace

std::string ShortLogLine(const std::string &line) {
    // "[2024-05-01 12.00.00] (ERR) (85) text": the day and the line number are of no use on a narrow screen.
    constexpr size_t kTime = sizeof "[2024-05-01 " - 1;
    constexpr size_t kTimeEnd = sizeof "[2024-05-01 12.00.00" - 1;
    constexpr std::string_view kLevelBegin = "] (";
    constexpr std::string_view kNumberBegin = ") (";
    constexpr std::string_view kTextBegin = ") ";
    if (line.size() < kTimeEnd || line.front() != '[' || line.compare(kTimeEnd, kLevelBegin.size(), kLevelBegin) != 0) {
        return line;
    }
    const size_t level = kTimeEnd + kLevelBegin.size();
    const size_t number = line.find(kNumberBegin, level);
    const size_t text = number == std::string::npos ? number : line.find(kTextBegin, number + kNumberBegin.size());
    if (text == std::string::npos) {
        return line;
    }
    return line.substr(kTime, kTimeEnd - kTime) + " " + line.substr(level, number - level) + " " +
           line.substr(text + kTextBegin.size());
}

std::vector<std::string> TableLines(const RunSample &run, const LogTail &log, const Window &window, bool colors) {
    const Painter paint(colors);
    std::vector<Row> rows;
    for (const SourceSample &source : run.sources) {
        rows.push_back(TrackRow("video", source.video, FormatPicture(source.video), source.video.announced_fps));
        rows.push_back(TrackRow("audio", source.audio, FormatSound(source.audio), 0));
    }
    const bool dumps = std::any_of(rows.begin(), rows.end(), [](const Row &row) { return !row[kLost].empty(); });
    const Layout layout(Styles(), rows, window.columns, kIndent, dumps ? std::vector<size_t>{} : std::vector<size_t>{kLost});

    std::vector<std::string> lines;
    lines.push_back(HeadLine(run, window.columns, paint));
    lines.emplace_back();
    lines.push_back(paint(kDim, Cut(layout.Titles(), window.columns)));
    for (size_t i = 0; i < run.sources.size(); ++i) {
        const bool last = i + 1 == run.sources.size();
        // One line stays free to tell of the sources that find no room.
        if (lines.size() + kLinesPerSource + (last ? 0 : 1) > window.rows) {
            const size_t left_out = run.sources.size() - i;
            lines.push_back(
                paint(kYellow, Cut("   and " + std::to_string(left_out) + " more; the window is too low", window.columns)));
            break;
        }
        lines.push_back(SourceLine(run.sources[i], window.columns, paint));
        lines.push_back(Cut(layout.Line(rows[2 * i]), window.columns));
        lines.push_back(Cut(layout.Line(rows[2 * i + 1]), window.columns));
    }
    const size_t room = window.rows > lines.size() ? window.rows - lines.size() : 0;
    const std::vector<std::string> log_lines = LogLines(log, room, window.columns, paint);
    lines.insert(lines.end(), log_lines.begin(), log_lines.end());
    if (lines.size() > window.rows) {
        lines.resize(window.rows);
    }
    return lines;
}

}  // namespace tool
