#include "table.h"

#include <algorithm>
#include <string_view>
#include <utility>

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
    switch (StandingOf(source)) {
        case Standing::kFailing:
            return kRed;
        case Standing::kWaiting:
            break;
        case Standing::kLive:
            return source.state == "connected" ? kGreen : kYellow;
        case Standing::kStopped:
            return kDim;
    }
    return kYellow;
}

// The last known age of what matters most of a source.
std::optional<uint64_t> AgeOf(const SourceSample &source) {
    return source.video.age_ns ? source.video.age_ns : source.audio.age_ns;
}

uint64_t BitRateOf(const SourceSample &source) {
    return uint64_t{source.video.bitrate} + source.audio.bitrate;
}

// What wants a look comes first.
bool ComesFirst(const SourceSample &a, const SourceSample &b, SortBy sort) {
    switch (sort) {
        case SortBy::kGiven:
            break;
        case SortBy::kName:
            return FormatName(a) < FormatName(b);
        case SortBy::kState:
            return StandingOf(a) < StandingOf(b);
        case SortBy::kBitRate:
            return BitRateOf(a) > BitRateOf(b);
        case SortBy::kAge:
            return AgeOf(a).value_or(UINT64_MAX) > AgeOf(b).value_or(UINT64_MAX);
        case SortBy::kRebuilds:
            return a.rebuilds > b.rebuilds;
    }
    return a.channel < b.channel;
}

using Sources = std::vector<const SourceSample *>;

Sources Sorted(const RunSample &run, const TableControl &control) {
    Sources sources;
    sources.reserve(run.sources.size());
    for (const SourceSample &source : run.sources) {
        sources.push_back(&source);
    }
    std::stable_sort(sources.begin(), sources.end(),
                     [&control](const SourceSample *a, const SourceSample *b) { return ComesFirst(*a, *b, control.sort); });
    if (control.reversed) {
        std::reverse(sources.begin(), sources.end());
    }
    return sources;
}

const char *NameOf(SortBy sort) {
    switch (sort) {
        case SortBy::kGiven:
            return "number";
        case SortBy::kName:
            return "name";
        case SortBy::kState:
            return "state";
        case SortBy::kBitRate:
            return "bit rate";
        case SortBy::kAge:
            return "age";
        case SortBy::kRebuilds:
            return "rebuilds";
    }
    return "";
}

// "97 live, 2 waiting, 1 failing"
std::string Counts(const RunSample &run) {
    std::string text;
    for (const auto &[standing, word] : {std::pair(Standing::kLive, "live"), std::pair(Standing::kWaiting, "waiting"),
                                         std::pair(Standing::kFailing, "failing"), std::pair(Standing::kStopped, "stopped")}) {
        const auto count = std::count_if(run.sources.begin(), run.sources.end(),
                                         [wanted = standing](const auto &source) { return StandingOf(source) == wanted; });
        if (count > 0) {
            text += (text.empty() ? "" : ", ") + std::to_string(count) + " " + word;
        }
    }
    return text;
}

std::string HeadLine(const RunSample &run, const Table &table, const TableControl &control, size_t columns,
                     const Painter &paint) {
    const size_t total = run.sources.size();
    const std::string left = "gst-source  " + FormatElapsed(run.elapsed_s);
    std::string rest = "  ";
    if (table.shown > 0 && table.shown < total) {
        rest +=
            std::to_string(table.first + 1) + "-" + std::to_string(table.first + table.shown) + " of " + std::to_string(total);
    } else {
        rest += Count(total, "source", "sources");
    }
    if (control.sort != SortBy::kGiven || control.reversed) {
        rest += std::string(" by ") + NameOf(control.sort) + (control.reversed ? ", reversed" : "");
    }
    if (total > 1) {
        rest += ": " + Counts(run);
    }
    // Several sources leave less room; where their buffer is gives way first.
    const std::string into = run.buffer_name.empty() ? "" : " into " + run.buffer_name;
    rest += total > 1 ? "" : into;
    switch (run.phase) {
        case Phase::kRunning:
            rest += control.keys ? "  (q ends, ? more)" : "  (Ctrl-C ends)";
            break;
        case Phase::kClosing:
            rest += "  closing ... (Ctrl-C again leaves at once)";
            break;
        case Phase::kEnded:
            rest += "  ended";
            break;
    }
    rest += total > 1 && !into.empty() ? " " + into : "";
    const std::string whole = Cut(left + rest, columns);
    return whole.size() > left.size() ? paint(kBold, left) + whole.substr(left.size()) : paint(kBold, whole);
}

// State and rebuilds stand before name and URL, which take what is left and are cut first.
std::string SourceLine(const SourceSample &source, size_t columns, const Painter &paint) {
    constexpr size_t kStateWidth = 9;
    const std::string number = std::to_string(source.channel);
    std::string head = number + std::string(number.size() < kIndent ? kIndent - number.size() : 1, ' ');
    if (HasOwnBuffer(source)) {
        head.clear();
    }
    std::string state = FormatState(source);
    const size_t state_columns = Columns(state);
    const std::string pad(state_columns < kStateWidth ? kStateWidth - state_columns : 0, ' ');
    const std::string url = Printable(source.url);
    const std::string name = FormatName(source);
    const std::string tail = pad + "  " + std::to_string(source.rebuilds) +
                             (source.rebuilds == 1 ? " rebuild  " : " rebuilds  ") + (name == url ? "" : name + "  ") + url;
    const size_t used = head.size() + state_columns;
    if (used > columns) {
        return Cut(head + state, columns);
    }
    return head + paint(StateColor(source), state) + Cut(tail, columns - used);
}

void AddSources(const Sources &sources, size_t columns, const Painter &paint, Table &table) {
    std::vector<Row> rows;
    for (const SourceSample *source : sources) {
        rows.push_back(TrackRow("video", source->video, FormatPicture(source->video), source->video.announced_fps));
        rows.push_back(TrackRow("audio", source->audio, FormatSound(source->audio), 0));
    }
    const bool dumps = std::any_of(rows.begin(), rows.end(), [](const Row &row) { return !row[kLost].empty(); });
    const Layout layout(Styles(), rows, columns, kIndent, dumps ? std::vector<size_t>{} : std::vector<size_t>{kLost});
    table.lines.push_back(paint(kDim, Cut(layout.Titles(), columns)));
    for (size_t i = 0; i < sources.size(); ++i) {
        table.lines.push_back(SourceLine(*sources[i], columns, paint));
        table.lines.push_back(Cut(layout.Line(rows[2 * i]), columns));
        table.lines.push_back(Cut(layout.Line(rows[2 * i + 1]), columns));
    }
    table.shown = sources.size();
}

// ---- One line a source ------------------------------------------------------------------------------------------------------

enum ShortColumn : size_t {
    kSource,
    kState,
    kShortCodec,
    kShortFormat,
    kShortReal,
    kShortRate,
    kShortAge,
    kRebuilds,
    kShortColumns
};

const std::vector<ColumnStyle> &ShortStyles() {
    static const std::vector<ColumnStyle> styles{
        {"SOURCE", false, 12, 100}, {"STATE", false, 9, 95},   {"CODEC", false, 8, 50}, {"FORMAT", false, 10, 40},
        {"REAL", true, 5, 70},      {"BIT RATE", true, 9, 90}, {"AGE", true, 6, 85},    {"REBUILDS", true, 8, 60}};
    return styles;
}

std::string ShortCodec(const SourceSample &source) {
    const std::string &video = source.video.codec;
    const std::string &audio = source.audio.codec;
    return video.empty() && audio.empty() ? "-" : Printable(video + (video.empty() || audio.empty() ? "" : "/") + audio);
}

Row ShortRow(const SourceSample &source, size_t number_columns, size_t name_columns) {
    const bool sound = source.video.codec.empty() && !source.audio.codec.empty();
    const std::string number = std::to_string(source.channel);
    Row row(kShortColumns);
    row[kSource] = Cut(FormatName(source), name_columns);
    if (!HasOwnBuffer(source)) {
        row[kSource] = std::string(number_columns - number.size(), ' ') + number + " " + row[kSource];
    }
    // A source that waits for its next session has failed; one that waits for its first frame has not.
    const std::string state = FormatShortState(source);
    row[kState] = state == "waiting" && StandingOf(source) == Standing::kFailing ? "failing" : state;
    row[kShortCodec] = ShortCodec(source);
    row[kShortFormat] = sound ? FormatSound(source.audio) : FormatPicture(source.video);
    row[kShortReal] = FormatRate(sound ? source.audio.measured_fps : source.video.measured_fps);
    row[kShortRate] = FormatBitRate(static_cast<uint32_t>(std::min<uint64_t>(BitRateOf(source), UINT32_MAX)));
    row[kShortAge] = FormatAge(AgeOf(source));
    row[kRebuilds] = std::to_string(source.rebuilds);
    return row;
}

// Why nothing comes, with what the state leaves out.
std::string ReasonCell(const SourceSample &source) {
    const std::string whole = FormatState(source);
    const std::string state = FormatShortState(source);
    return whole.size() > state.size() ? whole.substr(whole.find_first_not_of(":, ", state.size())) : "";
}

void AddShortSources(const Sources &sources, size_t rows, size_t columns, const Painter &paint, Table &table) {
    constexpr size_t kGap = 2;
    constexpr size_t kReason = 22;  // columns that most of them can do with
    constexpr size_t kLeastName = 10;
    constexpr size_t kMostName = 40;
    const auto largest = std::max_element(sources.begin(), sources.end(),
                                          [](const SourceSample *a, const SourceSample *b) { return a->channel < b->channel; });
    const size_t number_columns = largest == sources.end() ? 1 : std::to_string((*largest)->channel).size();
    const size_t name_columns = std::clamp(columns / 4, kLeastName, kMostName);
    std::vector<Row> cells;
    size_t longest = 0;
    for (const SourceSample *source : sources) {
        cells.push_back(ShortRow(*source, number_columns, name_columns));
        longest = std::max(longest, Columns(ReasonCell(*source)));
    }
    const size_t reserved = longest > 0 ? std::min(longest, std::max(kReason, columns / 4)) + kGap : 0;
    const Layout layout(ShortStyles(), cells, columns > 2 * reserved ? columns - reserved : columns, 0);
    const size_t reason_at = layout.Width() + kGap;
    const bool reasons_fit = longest > 0 && reason_at < columns;
    std::string titles = layout.Titles();
    if (reasons_fit) {
        titles += std::string(reason_at - Columns(titles), ' ') + "REASON";
    }
    table.lines.push_back(paint(kDim, Cut(titles, columns)));
    for (size_t i = 0; i < rows && table.first + i < sources.size(); ++i) {
        const SourceSample &source = *sources[table.first + i];
        const Row &row = cells[table.first + i];
        const std::string plain = layout.Line(row);
        if (Columns(plain) > columns) {
            table.lines.push_back(Cut(plain, columns));
        } else {
            std::string line = layout.Line(row, [&](size_t column, const std::string &cell) {
                return column == kState ? paint(StateColor(source), cell) : cell;
            });
            const std::string reason = reasons_fit ? ReasonCell(source) : "";
            if (!reason.empty()) {
                line += std::string(reason_at - Columns(plain), ' ') + Cut(reason, columns - reason_at);
            }
            table.lines.push_back(line);
        }
        ++table.shown;
    }
}

// ---- Log --------------------------------------------------------------------------------------------------------------------

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
    if (log.total == log.left_out || most <= kFrame) {
        return lines;
    }
    const size_t count = std::min({log.lines.size(), most - kFrame, kMostLogLines});
    const uint64_t noted = log.total - log.left_out;
    std::string title = "log: " + Count(log.total, "line", "lines");
    if (log.left_out > 0) {
        title = "log: " + std::to_string(noted) + " of note among " + Count(log.total, "line", "lines") + "; -v shows all";
    } else if (log.total > count) {
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

Table MakeTable(const RunSample &run, const LogTail &log, const Window &window, bool colors, const TableControl &control) {
    constexpr size_t kHead = 3;  // the head, a blank line or the keys, the titles
    constexpr const char *kKeys =
        "arrows, PgUp, PgDn, Home, End, j, k: scroll  s: sort  r: reverse  q: end  ?: without this line";
    const Painter paint(colors);
    const Sources sources = Sorted(run, control);
    Table table;
    table.lines.resize(2);
    table.lines[1] = control.help ? paint(kDim, Cut(kKeys, window.columns)) : "";
    if (kHead + kLinesPerSource * sources.size() <= window.rows) {
        AddSources(sources, window.columns, paint, table);
    } else {
        const size_t rows = window.rows > kHead ? window.rows - kHead : 0;
        table.first = std::min(control.first, sources.size() - std::min(rows, sources.size()));
        AddShortSources(sources, rows, window.columns, paint, table);
    }
    table.lines[0] = HeadLine(run, table, control, window.columns, paint);
    const size_t room = window.rows > table.lines.size() ? window.rows - table.lines.size() : 0;
    const std::vector<std::string> log_lines = LogLines(log, room, window.columns, paint);
    table.lines.insert(table.lines.end(), log_lines.begin(), log_lines.end());
    if (table.lines.size() > window.rows) {
        table.lines.resize(window.rows);
    }
    return table;
}

}  // namespace tool
