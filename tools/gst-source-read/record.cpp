#include <ctime>
#include <memory>
#include <string>

#include "buffers.h"
#include "commands.h"
#include "container.h"
#include "elements.h"
#include "fd.h"
#include "file_names.h"
#include "interrupts.h"
#include "mux_run.h"
#include "record_view.h"

namespace reader {
namespace {

// Frames that come together: less work for the machine, and no reader of a recording notices.
constexpr uint32_t kTogetherMs = 200;

// The time stamps of the element are those of CLOCK_MONOTONIC, moved to when the first frame came.
time_t WallTime(int64_t monotonic_ns) {
    constexpr int64_t kNsPerSecond = 1'000'000'000;
    const auto read = [](clockid_t id) {
        timespec now{};
        clock_gettime(id, &now);
        return now.tv_sec * kNsPerSecond + now.tv_nsec;
    };
    return (read(CLOCK_REALTIME) - read(CLOCK_MONOTONIC) + monotonic_ns) / kNsPerSecond;
}

// Says at once what following would wait for without end. True while its host lives.
bool CheckSource(const Options &options, const std::string &name) {
    const Map map = options.record.wait ? TryAttachLive(name) : Attach(name);
    if (map == nullptr) {
        return true;
    }
    CheckTrack(map.get(), name, options.channel, options.stream);
    CheckKinds(map.get(), name, options.channel, options.stream, {options.record.video, options.record.audio});
    return shb_map_alive(map.get()) != 0;
}

}  // namespace

int RunRecord(const Options &options) {
    const RecordOptions &record = options.record;
    const std::string name = ChooseName(options.name);
    FileNames names(record.out, record.segment > 0, record.overwrite);
    names.Check();
    const bool alive = CheckSource(options, name);
    tool::interrupts::Install(tool::CanDraw(STDERR_FILENO) ? STDERR_FILENO : -1);
    StartGStreamer();

    MuxSettings settings;
    settings.source.buffer = name;
    settings.source.channel = options.channel;
    settings.source.stream = options.stream;
    settings.source.start = record.from;
    settings.source.follow = !record.ends_with_host && (alive || record.wait);
    settings.source.interval_ms = kTogetherMs;
    settings.source.wanted = {record.video, record.audio};
    settings.container = ContainerOf(record.out);
    settings.segment = record.segment;
    settings.duration = record.duration;
    settings.timeout = record.timeout;

    RecordView view(name, options.json);
    const auto make_writer = [&](const FileStart &start, const FileWriter::TrackCaps &caps) {
        std::string path;
        tool::Fd fd(names.Create(WallTime(start.zero), path));
        return std::make_unique<FileWriter>(*settings.container, start, caps, std::move(fd), path);
    };
    MuxRun run(settings, make_writer, view);
    const bool whole = run.Go();
    view.Conclude(run.Status());
    return whole ? tool::kExitOk : tool::kExitNothing;
}

}  // namespace reader
