#include <unistd.h>

#include <algorithm>
#include <iterator>
#include <numeric>

#include "buffers.h"
#include "commands.h"
#include "layout.h"
#include "output.h"
#include "record.h"
#include "screen.h"
#include "text.h"

namespace reader {
namespace {

constexpr uint64_t kNsPerMs = 1'000'000;

// "0640".
std::string ModeText(uint32_t mode) {
    constexpr unsigned kBits = 3;
    std::string text;
    for (unsigned digit = 4; digit-- > 0;) {
        text += static_cast<char>('0' + (mode >> (digit * kBits) & 7U));
    }
    return text;
}

tool::Record ReaderRecord(const shb_reader_info_t &reader) {
    tool::Record record;
    record["pid"] = reader.pid;
    record["pid_here"] = reader.pid_is_ours != 0;
    record["program"] = reader.program;
    record["channel"] = reader.channel;
    record["stream"] = reader.stream;
    record["kind"] = KindName(reader.kind);
    record["frames"] = reader.frames;
    record["bytes"] = reader.bytes;
    record["lost_frames"] = reader.lost;
    record["left_out_frames"] = reader.left_out;
    record["waiting_frames"] = reader.waiting;
    record["open_ms"] = reader.open_ns / kNsPerMs;
    record["age_ms"] =
        reader.last_read_age_ns == SHB_TIME_NONE ? tool::Record(nullptr) : tool::Record(reader.last_read_age_ns / kNsPerMs);
    return record;
}

tool::Record BufferRecord(const shb_info_t &info) {
    const shb_geometry_t &geometry = info.geometry;
    tool::Record record;
    record["type"] = "buffer";
    record["name"] = NameOf(info);
    record["state"] = StateOf(info);
    record["alive"] = info.alive != 0;
    record["creator_pid"] = info.creator_pid;
    record["creator_pid_here"] = info.pid_is_ours != 0;
    record["owner_uid"] = info.owner;
    record["group_gid"] = info.group;
    record["mode"] = ModeText(info.mode);
    record["heartbeat_age_ms"] = Readable(info) ? tool::Record(info.heartbeat_age_ns / kNsPerMs) : tool::Record(nullptr);
    record["layout_version"] = info.version;
    record["total_bytes"] = tool::NumberOrNull(info.total_bytes);
    record["channels"] = tool::NumberOrNull(geometry.channels);
    record["streams"] = tool::NumberOrNull(geometry.streams);
    record["video_bytes"] = tool::NumberOrNull(geometry.video_bytes);
    record["video_frames"] = tool::NumberOrNull(geometry.video_frames);
    record["audio_bytes"] = tool::NumberOrNull(geometry.audio_bytes);
    record["audio_frames"] = tool::NumberOrNull(geometry.audio_frames);
    record["readers"] = nullptr;
    if (const auto readers = ReadersOf(info)) {
        record["readers"] = tool::Record::array();
        std::transform(readers->begin(), readers->end(), std::back_inserter(record["readers"]), ReaderRecord);
    }
    return record;
}

// Sizes of tracks are powers of two and are given as such.
std::string TrackSize(uint64_t bytes, uint32_t frames) {
    constexpr unsigned kKilo = 10;
    constexpr unsigned kMega = 20;
    const bool mega = bytes >> kMega > 0;
    return std::to_string(bytes >> (mega ? kMega : kKilo)) + (mega ? "M/" : "K/") + std::to_string(frames);
}

tool::Row BufferRow(const shb_info_t &info) {
    tool::Row row{tool::Printable(NameOf(info)),
                  StateOf(info),
                  tool::Printable(UserName(info.owner)),
                  CreatorOf(info),
                  "-",
                  info.total_bytes > 0 ? tool::FormatBytes(info.total_bytes) : "-",
                  "-",
                  "-",
                  "-",
                  "-",
                  "-",
                  std::to_string(info.version)};
    if (Readable(info)) {
        const shb_geometry_t &geometry = info.geometry;
        row[4] = tool::FormatAge(info.heartbeat_age_ns);
        row[6] = std::to_string(geometry.channels) + " x " + std::to_string(geometry.streams);
        row[7] = TrackSize(geometry.video_bytes, geometry.video_frames);
        row[8] = TrackSize(geometry.audio_bytes, geometry.audio_frames);
    }
    if (const auto readers = ReadersOf(info)) {
        const uint64_t lost = std::accumulate(readers->begin(), readers->end(), uint64_t{0},
                                              [](uint64_t sum, const auto &reader) { return sum + reader.lost; });
        row[9] = std::to_string(readers->size());
        row[10] = std::to_string(lost);
    }
    return row;
}

}  // namespace

int RunList(const Options &options) {
    const std::vector<shb_info_t> buffers = ListBuffers();
    std::string text;
    if (options.json) {
        for (const shb_info_t &info : buffers) {
            text += tool::JsonLine(BufferRecord(info));
        }
    } else if (buffers.empty()) {
        Complain("no shared buffers on this machine");
    } else {
        static const std::vector<tool::ColumnStyle> styles{
            {"NAME", false, 0, 100},    {"STATE", false, 0, 90},  {"OWNER", false, 0, 65}, {"CREATOR", true, 0, 80},
            {"HEARTBEAT", true, 0, 60}, {"SIZE", true, 0, 70},    {"TRACKS", true, 0, 50}, {"VIDEO", true, 0, 40},
            {"AUDIO", true, 0, 30},     {"READERS", true, 0, 55}, {"LOST", true, 0, 54},   {"VERSION", true, 0, 20}};
        std::vector<tool::Row> rows(buffers.size());
        std::transform(buffers.begin(), buffers.end(), rows.begin(), BufferRow);
        const size_t width = isatty(STDOUT_FILENO) != 0 ? tool::WindowOf(STDOUT_FILENO).columns : tool::Layout::kAnyWidth;
        const tool::Layout layout(styles, rows, width, 0);
        text += layout.Titles() + "\n";
        for (const tool::Row &row : rows) {
            text += layout.Line(row) + "\n";
        }
    }
    WriteOut(text);
    return tool::kExitOk;
}

}  // namespace reader
