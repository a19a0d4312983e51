#include <unistd.h>

#include <array>
#include <memory>
#include <stdexcept>
#include <string>

#include "buffers.h"
#include "commands.h"
#include "container.h"
#include "elements.h"
#include "interrupts.h"
#include "mux_run.h"
#include "output.h"
#include "text.h"

namespace reader {
namespace {

class Lines : public MuxObserver {
  public:
    explicit Lines(std::string name) : m_name(std::move(name)) {}
    void Tell(const std::string &line) override { Complain(line); }
    void Opened(const FileWriter & /*file*/, const MuxStatus &status) override {
        std::string text;
        for (const std::string &format : status.formats) {
            text += format.empty() ? "" : (text.empty() ? "" : " and ") + format;
        }
        Complain(m_name + ": " + tool::Printable(text));
    }
    void Finished(const FileWriter & /*file*/, const MuxStatus & /*status*/, bool /*complete*/) override {}
    void Progress(const MuxStatus & /*status*/) override {}

  private:
    const std::string m_name;
};

std::string StartOf(shb_start_t start) {
    return start == SHB_START_OLDEST ? "oldest" : (start == SHB_START_NEWEST ? "newest" : "key");
}

}  // namespace

int RunReadMuxed(const Options &options) {
    if (options.output.empty() && isatty(STDOUT_FILENO) != 0) {
        Complain("this is not for a terminal; give it a pipe, or record it: gst-source-read record");
        return tool::kExitUsage;
    }
    const std::string name = ChooseName(options.name);
    const std::array<bool, kKinds> wanted{!options.kind_given || options.kind == SHB_VIDEO,
                                          !options.kind_given || options.kind == SHB_AUDIO};
    if (const Map map = options.follow ? TryAttachLive(name) : Attach(name)) {
        CheckTrack(map.get(), name, options.channel, options.stream);
        CheckKinds(map.get(), name, options.channel, options.stream, wanted);
    }
    tool::interrupts::Install(-1);
    StartGStreamer();

    constexpr double kNsPerSecond = 1e9;
    MuxSettings settings;
    settings.source.buffer = name;
    settings.source.channel = options.channel;
    settings.source.stream = options.stream;
    settings.source.start = StartOf(options.start);
    settings.source.follow = options.follow;
    settings.source.wanted = wanted;
    settings.container = ContainerNamed(options.format);
    settings.duration = static_cast<int64_t>(options.duration.value_or(0) * kNsPerSecond);
    settings.frames = options.frames;
    settings.one_file = true;

    Lines lines(name);
    MuxRun run(
        settings,
        [&settings](const FileStart &start, const FileWriter::TrackCaps &caps) {
            return std::make_unique<FileWriter>(*settings.container, start, caps);
        },
        lines);
    const bool whole = run.Go();
    const MuxStatus &status = run.Status();
    Complain(name + ": " + tool::FormatElapsed(static_cast<double>(status.recorded) / kNsPerSecond) + ", " +
             tool::Count(status.frames[SHB_VIDEO], "video frame", "video frames") + ", " +
             tool::Count(status.frames[SHB_AUDIO], "audio frame", "audio frames") + ", " + tool::FormatBytes(status.bytes) +
             ", " + std::to_string(status.lost[SHB_VIDEO] + status.lost[SHB_AUDIO]) + " lost");
    const uint64_t frames = status.frames[SHB_VIDEO] > 0 ? status.frames[SHB_VIDEO] : status.frames[SHB_AUDIO];
    if (whole && options.duration && frames < options.frames && !tool::interrupts::StopRequested()) {
        throw std::runtime_error("the time ran out before " + tool::Count(options.frames, "frame", "frames") + " had arrived");
    }
    return whole ? tool::kExitOk : tool::kExitNothing;
}

}  // namespace reader
