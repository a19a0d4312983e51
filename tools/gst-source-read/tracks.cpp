#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>

#include "buffers.h"
#include "commands.h"
#include "interrupts.h"
#include "layout.h"
#include "output.h"
#include "paint.h"
#include "presence_name.h"
#include "record.h"
#include "screen.h"
#include "text.h"

namespace reader {
namespace {

using Clock = std::chrono::steady_clock;
using Seconds = std::chrono::duration<double>;

constexpr uint64_t kNsPerMs = 1'000'000;

// The rates are those of the last window in which frames came.
bool RatesHold(const shb_stats_t &stats) {
    constexpr uint64_t kSilence = 2'000'000'000;
    return stats.writer_pid != 0 && stats.age_ns != SHB_TIME_NONE && stats.age_ns < kSilence;
}

double MeasuredFps(const shb_stats_t &stats) {
    constexpr double kMilli = 1000;
    return RatesHold(stats) ? stats.fps_milli / kMilli : 0;
}

uint32_t BitRate(const shb_stats_t &stats) {
    return RatesHold(stats) ? stats.bitrate : 0;
}

tool::Record TrackRecord(const shb_info_t &info, const Track &track, const std::string &time) {
    const shb_stats_t &stats = track.stats;
    const bool known = track.description.has_value();
    const shb_description_t media = track.description.value_or(shb_description_t{});
    tool::Record record;
    record["type"] = "track";
    record["time"] = time;
    record["name"] = NameOf(info);
    record["state"] = StateOf(info);
    record["creator_pid"] = info.creator_pid;
    record["creator_pid_here"] = info.pid_is_ours != 0;
    record["channel"] = track.channel;
    record["stream"] = track.stream;
    record["kind"] = KindName(track.kind);
    record["presence"] = tool::PresenceName(stats.presence);
    record["epoch"] = stats.epoch;
    record["writer_pid"] = tool::NumberOrNull(stats.writer_pid);
    record["codec"] = tool::TextOrNull(media.code);
    record["profile"] = tool::TextOrNull(media.profile);
    record["level"] = tool::TextOrNull(media.level);
    record["format"] = tool::TextOrNull(media.format);
    record["codec_data_bytes"] = known ? tool::Record(media.codec_data_bytes) : tool::Record(nullptr);
    record["width_px"] = tool::NumberOrNull(media.width);
    record["height_px"] = tool::NumberOrNull(media.height);
    record["scan"] = media.width > 0 ? tool::Record(tool::ScanName(media.scan_type)) : tool::Record(nullptr);
    record["announced_fps"] = tool::NumberOrNull(tool::Rounded(AnnouncedFps(media)));
    record["reorder_frames"] =
        known && track.kind == SHB_VIDEO ? tool::CountOrNull(media.reorder_frames) : tool::Record(nullptr);
    record["sample_rate_hz"] = tool::NumberOrNull(media.sample_rate);
    record["audio_channels"] = tool::NumberOrNull(media.channels);
    record["measured_fps"] = tool::Rounded(MeasuredFps(stats));
    record["bitrate_bps"] = BitRate(stats);
    record["frames"] = stats.frames;
    record["bytes"] = stats.bytes;
    record["key_frames"] = stats.key_frames;
    record["age_ms"] = stats.age_ns == SHB_TIME_NONE ? tool::Record(nullptr) : tool::Record(stats.age_ns / kNsPerMs);
    record["held_frames"] = stats.held;
    record["left_out_frames"] = stats.left_out;
    record["total_frames"] = stats.total_frames;
    record["total_bytes"] = stats.total_bytes;
    return record;
}

enum Column : size_t {
    kTrack,
    kCodec,
    kFormat,
    kFps,
    kReal,
    kRate,
    kFrames,
    kKeys,
    kBytes,
    kAge,
    kEpoch,
    kWriter,
    kHeld,
    kLeftOut,
    kColumns
};

const std::vector<tool::ColumnStyle> &Styles() {
    static const std::vector<tool::ColumnStyle> styles{
        {"TRACK", false, 9, 100}, {"CODEC", false, 5, 90},   {"FORMAT", false, 13, 60}, {"FPS", true, 5, 20},
        {"REAL", true, 5, 80},    {"BIT RATE", true, 9, 85}, {"FRAMES", true, 6, 55},   {"KEYS", true, 4, 35},
        {"BYTES", true, 7, 30},   {"AGE", true, 6, 70},      {"EPOCH", true, 5, 65},    {"WRITER", true, 6, 50},
        {"HELD", true, 4, 40},    {"LEFT OUT", true, 8, 45}};
    return styles;
}

// A track that the source does not have says so, whatever it has carried before.
std::string CodecText(const Track &track) {
    if (track.stats.presence == SHB_PRESENCE_ABSENT || track.stats.epoch == 0) {
        return tool::PresenceName(track.stats.presence);
    }
    const bool known = track.description && track.description->code[0] != '\0';
    return known ? tool::Printable(track.description->code) : "-";
}

tool::Row TrackRow(const Track &track) {
    const shb_stats_t &stats = track.stats;
    const shb_description_t media = track.description.value_or(shb_description_t{});
    tool::Row row(kColumns);
    row[kTrack] = std::to_string(track.channel) + "." + std::to_string(track.stream) + " " + KindName(track.kind);
    row[kCodec] = CodecText(track);
    row[kFormat] = FormatOf(track.kind, media);
    row[kFps] = tool::FormatRate(AnnouncedFps(media));
    row[kReal] = tool::FormatRate(MeasuredFps(stats));
    row[kRate] = tool::FormatBitRate(BitRate(stats));
    row[kFrames] = std::to_string(stats.frames);
    row[kKeys] = std::to_string(stats.key_frames);
    row[kBytes] = tool::FormatBytes(stats.bytes);
    row[kAge] = tool::FormatAge(stats.age_ns == SHB_TIME_NONE ? std::nullopt : std::optional<uint64_t>(stats.age_ns));
    row[kEpoch] = std::to_string(stats.epoch);
    row[kWriter] = stats.writer_pid > 0 ? std::to_string(stats.writer_pid) : "-";
    row[kHeld] = std::to_string(stats.held);
    row[kLeftOut] = std::to_string(stats.left_out);
    return row;
}

std::string HeadLine(const shb_info_t &info, const std::string &note, size_t columns, const tool::Painter &paint) {
    const std::string state = StateOf(info);
    const std::string left = NameOf(info) + "  ";
    std::string right = ", made by process " + CreatorOf(info) + ", heartbeat " + tool::FormatAge(info.heartbeat_age_ns) +
                        " ago, " + tool::FormatBytes(info.total_bytes) + note;
    if (left.size() + state.size() >= columns) {
        return tool::Cut(left + state, columns);
    }
    const std::string_view color = state == "alive" ? tool::kGreen : (state == "stale" ? tool::kRed : tool::kYellow);
    return paint(tool::kBold, left) + paint(color, state) + tool::Cut(right, columns - left.size() - state.size());
}

std::vector<std::string> TrackLines(const shb_info_t &info, const std::vector<Track> &tracks, const std::string &note,
                                    const tool::Window &window, bool colors) {
    const tool::Painter paint(colors);
    std::vector<tool::Row> rows;
    std::transform(tracks.begin(), tracks.end(), std::back_inserter(rows), TrackRow);
    const tool::Layout layout(Styles(), rows, window.columns, 0);
    std::vector<std::string> lines{HeadLine(info, note, window.columns, paint)};
    if (tracks.empty()) {
        lines.push_back(tool::Cut("no track has had a writer yet", window.columns));
        return lines;
    }
    lines.push_back(paint(tool::kDim, tool::Cut(layout.Titles(), window.columns)));
    for (const tool::Row &row : rows) {
        lines.push_back(tool::Cut(layout.Line(row), window.columns));
    }
    if (lines.size() > window.rows) {
        const size_t kept = window.rows > 0 ? window.rows - 1 : 0;
        const size_t left_out = lines.size() - kept;
        lines.resize(kept);
        lines.push_back(paint(tool::kYellow,
                              tool::Cut("and " + std::to_string(left_out) + " more; the window is too low", window.columns)));
    }
    return lines;
}

std::string Joined(const std::vector<std::string> &lines) {
    std::string text;
    for (const std::string &line : lines) {
        text += line + "\n";
    }
    return text;
}

std::string JsonLines(const shb_info_t &info, const std::vector<Track> &tracks) {
    const std::string time = tool::TimeNow();
    std::string text;
    for (const Track &track : tracks) {
        text += tool::JsonLine(TrackRecord(info, track, time));
    }
    return text;
}

int Show(const Options &options, const std::string &name) {
    const Map map = Attach(name);
    const shb_info_t info = InfoOf(map.get());
    const std::vector<Track> tracks = TracksOf(map);
    if (options.json) {
        WriteOut(JsonLines(info, tracks));
        return tool::kExitOk;
    }
    const bool terminal = isatty(STDOUT_FILENO) != 0;
    const tool::Window window{terminal ? tool::WindowOf(STDOUT_FILENO).columns : tool::Layout::kAnyWidth,
                              tool::Layout::kAnyWidth};
    WriteOut(Joined(TrackLines(info, tracks, "", window, terminal && tool::CanDraw(STDOUT_FILENO) && tool::ColorsAllowed())));
    return tool::kExitOk;
}

// Until the next report, a signal or another size of the window.
void WaitUntil(Clock::time_point due) {
    constexpr std::chrono::milliseconds kLongest{500};
    const auto wait =
        std::clamp(std::chrono::ceil<std::chrono::milliseconds>(due - Clock::now()), std::chrono::milliseconds(0), kLongest);
    pollfd wake{tool::interrupts::WakeDescriptor(), POLLIN, 0};
    poll(&wake, 1, static_cast<int>(wait.count()));
    tool::interrupts::Acknowledge();
}

int Watch(const Options &options, const std::string &name) {
    const auto interval = std::chrono::duration_cast<Clock::duration>(Seconds(*options.watch));
    const bool live = !options.json && tool::CanDraw(STDOUT_FILENO);
    tool::interrupts::Install(live ? STDOUT_FILENO : -1);
    Map map = Attach(name);
    std::optional<tool::Screen> screen;
    if (live) {
        screen.emplace(STDOUT_FILENO);
    }
    auto due = Clock::now();
    for (bool first = true; !tool::interrupts::StopRequested(); WaitUntil(due)) {
        if (Clock::now() < due && !(live && tool::interrupts::RedrawWanted())) {
            continue;
        }
        while (due <= Clock::now()) {
            due += interval;
        }
        // A host that comes back makes a new buffer of the old name.
        if (shb_map_alive(map.get()) == 0) {
            if (Map again = TryAttachLive(name)) {
                map = std::move(again);
            }
        }
        const shb_info_t info = InfoOf(map.get());
        const std::vector<Track> tracks = TracksOf(map);
        if (options.json) {
            WriteOut(JsonLines(info, tracks));
        } else if (live) {
            if (!screen->Draw(TrackLines(info, tracks, "  (Ctrl-C ends)", screen->Room(), tool::ColorsAllowed()))) {
                break;  // the terminal is gone
            }
        } else {
            const std::string text =
                Joined(TrackLines(info, tracks, "", {tool::Layout::kAnyWidth, tool::Layout::kAnyWidth}, false));
            WriteOut((first ? "" : "\n") + tool::TimeNow() + "\n" + text);
        }
        first = false;
    }
    return tool::kExitOk;
}

}  // namespace

int RunTracks(const Options &options) {
    const std::string name = ChooseName(options.name);
    return options.watch ? Watch(options, name) : Show(options, name);
}

}  // namespace reader
