#include "host.h"

#include <fcntl.h>
#include <gst/gst.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstring>
#include <future>
#include <memory>
#include <stdexcept>
#include <thread>
#include <vector>

#include "dump.h"
#include "emergency.h"
#include "fd.h"
#include "format.h"
#include "frame_goal.h"
#include "interrupts.h"
#include "log_capture.h"
#include "missing.h"
#include "reason.h"
#include "rtmps_policy.h"
#include "secrets.h"
#include "source.h"
#include "view_records.h"
#include "view_table.h"

namespace tool {
namespace {

using Clock = std::chrono::steady_clock;
using Seconds = std::chrono::duration<double>;

// Often enough to see every state of a source and to end soon after the frame that was waited for.
constexpr std::chrono::milliseconds kTick{50};
// Redraws between two reports, after a change.
constexpr std::chrono::milliseconds kRedraw{200};

Masker MakeMasker(const Options &options) {
    Masker masker;
    for (const std::string &url : options.urls) {
        for (const std::string &secret : SecretsOf(url)) {
            masker.Add(secret);
        }
    }
    masker.AddCredentials(options.user, options.password);
    masker.AddCredentials(options.hls.proxy_id, options.hls.proxy_pwd);
    for (const std::string &secret : SecretsOf(options.hls.proxy)) {
        masker.Add(secret);
    }
    masker.Add(options.srt.passphrase);
    masker.Add(options.rtmp.token);
    return masker;
}

bool WantsColors(ColorMode mode) {
    return mode == ColorMode::kAlways || (mode == ColorMode::kAuto && ColorsAllowed());
}

Fd OpenLog(const std::string &path) {
    if (path.empty()) {
        return {};
    }
    constexpr mode_t kMode = 0666;
    Fd file(open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, kMode));
    if (!file) {
        throw std::runtime_error(path + ": " + std::strerror(errno));
    }
    return file;
}

struct DestroyBuffer {
    void operator()(shb_buffer_t *buffer) const {
        shb_destroy(buffer);
        emergency::RemoveFiles({});
    }
};
struct DetachMap {
    void operator()(shb_map_t *map) const { shb_detach(map); }
};
using Buffer = std::unique_ptr<shb_buffer_t, DestroyBuffer>;
using Map = std::unique_ptr<shb_map_t, DetachMap>;

// To be asked before errno changes.
std::string WhyNotMade(int result, const shb_geometry_t &geometry, const shb_create_options_t &readers) {
    if (result == SHB_ERR_SYSTEM && errno == EPERM && readers.group_given != 0) {
        return "this user is not in the group of --buffer-group";
    }
    if (result != SHB_ERR_SYSTEM && result != SHB_ERR_NO_SPACE) {
        return shb_strerror(result);
    }
    std::string reason = std::strerror(errno);
    uint64_t needed = 0;
    uint64_t available = 0;
    if (result == SHB_ERR_NO_SPACE && shb_room(&geometry, &needed, &available) == SHB_OK) {
        reason += "; it takes " + FormatBytes(needed) + " of shared memory, and " + FormatBytes(available) +
                  " are free. Give smaller --video-bytes and --audio-bytes, or a larger /dev/shm (of a container: --shm-size)";
    }
    return reason;
}

Buffer MakeBuffer(const Options &options) {
    shb_geometry_t geometry{};
    geometry.channels = static_cast<uint32_t>(options.urls.size());
    geometry.streams = 1;
    geometry.video_bytes = options.video_bytes;
    geometry.audio_bytes = options.audio_bytes;
    shb_create_options_t readers{};
    readers.mode = options.buffer_mode;
    readers.group_given = options.buffer_group ? 1 : 0;
    readers.group = options.buffer_group.value_or(0);
    shb_buffer_t *buffer = nullptr;
    const int result = shb_create_with(options.name.c_str(), &geometry, &readers, &buffer);
    if (result != SHB_OK) {
        throw std::runtime_error("the shared buffer " + options.name +
                                 " cannot be made: " + WhyNotMade(result, geometry, readers));
    }
    emergency::RemoveFiles({shb_file(buffer, 0), shb_file(buffer, 1), shb_file(buffer, 2)});
    Buffer owner(buffer);
    constexpr double kMsPerSecond = 1000;
    const auto stall_ms = static_cast<uint32_t>(std::ceil(options.stall_watch * kMsPerSecond));
    if (shb_set_stall_watch(buffer, stall_ms) != SHB_OK) {
        throw std::runtime_error("the stall watch of the shared buffer cannot be set");
    }
    return owner;
}

// The framework is initialised once the first source exists.
void RequireSink() {
    GstElementFactory *factory = gst_element_factory_find("shbsink");
    if (factory == nullptr) {
        throw std::runtime_error(
            "the GStreamer element \"shbsink\" is missing; GST_PLUGIN_PATH must name the directory of libgstshbsink.so");
    }
    gst_object_unref(factory);
}

class Host {
  public:
    Host(const Options &options, Fd out, Fd err)
        : m_options(options),
          m_out(std::move(out)),
          m_err(std::move(err)),
          m_dumpsToOut(options.dump_video == "-" || options.dump_audio == "-"),
          m_live(!options.json && !m_dumpsToOut && CanDraw(m_out.Get())) {}

    int Run();

  private:
    enum class End { kAsked, kOutOfTime, kFailed };

    void MakeLog();
    void MakeSources();
    void MakeDumps();
    void MakeView();
    End Watch();
    bool ReportDue(Clock::time_point now, uint64_t change) const;
    bool Show(Phase phase);
    RunSample Sample(Phase phase);
    void Close();
    void LeaveHanging(const std::vector<const Source *> &hanging);
    void CollectDumpErrors();
    void Complain(const std::string &message) const {
        WriteAll(m_err.Get(), "gst-source: " + message + "\n", interrupts::PatienceAfterStop());
    }
    int Conclude(End end);

    const Options &m_options;
    const Fd m_out;
    const Fd m_err;
    const bool m_dumpsToOut;
    const bool m_live;

    // In this order: each needs those before it until it is gone.
    Fd m_logFile;
    std::vector<std::string> m_missing;  // element factories; the log's thread, and everybody once the log has ended
    std::unique_ptr<NewsDesk> m_news;
    std::unique_ptr<LogCapture> m_log;
    Buffer m_buffer;
    Map m_map;
    std::vector<std::unique_ptr<Dump>> m_dumps;
    std::vector<std::unique_ptr<Source>> m_sources;
    std::unique_ptr<View> m_view;

    std::vector<FrameGoal> m_goals;
    std::vector<std::string> m_errors;
    Clock::time_point m_start;
    Clock::time_point m_end;
    bool m_ended = false;
    Clock::time_point m_lastReport;
    Clock::time_point m_nextReport;
    uint64_t m_lastChange = 0;
};

int Host::Run() {
    for (const std::string &warning : m_options.warnings) {
        Complain("warning: " + warning);
    }
    emergency::HandleCrashes();
    interrupts::Install(m_live ? m_out.Get() : -1);
    MakeLog();
    m_buffer = MakeBuffer(m_options);
    MakeSources();
    MakeDumps();
    MakeView();
    const End end = Watch();
    Close();
    return Conclude(end);
}

void Host::MakeLog() {
    m_logFile = OpenLog(m_options.log_file);
    // On the terminal of the table, lines written past it would tear it.
    const bool shares_terminal = m_live && isatty(m_err.Get()) != 0;
    int target = m_err.Get();
    if (m_logFile) {
        target = m_logFile.Get();
    } else if (shares_terminal) {
        target = -1;
    }
    const Masker masker = MakeMasker(m_options);
    std::vector<std::string> urls = m_options.urls;
    std::transform(urls.begin(), urls.end(), urls.begin(), [&](const std::string &url) { return masker.Mask(url); });
    m_news = std::make_unique<NewsDesk>(urls);
    m_log = std::make_unique<LogCapture>(target, shares_terminal, masker, [this](const std::string &line) {
        m_news->OnLine(line);
        const auto factory = MissingElement(line);
        if (factory && std::find(m_missing.begin(), m_missing.end(), *factory) == m_missing.end()) {
            m_missing.push_back(*factory);
        }
    });
}

void Host::MakeSources() {
    for (const std::string &url : m_options.urls) {
        const auto channel = static_cast<unsigned>(m_sources.size());
        const auto protocol = ProtocolOf(url);
        if (!protocol) {
            throw std::logic_error("a URL that was not checked: " + PublicUrl(url));
        }
        m_sources.push_back(std::make_unique<Source>(channel, url, *protocol, m_buffer.get()));
        if (channel == 0) {
            RequireSink();
        }
        m_goals.emplace_back(m_options.frames);
    }
}

void Host::MakeDumps() {
    if (m_options.dump_video.empty() && m_options.dump_audio.empty()) {
        return;
    }
    shb_map_t *map = nullptr;
    const int result = shb_attach(shb_name(m_buffer.get()), &map);
    if (result != SHB_OK) {
        throw std::runtime_error(std::string("the shared buffer cannot be read: ") + shb_strerror(result));
    }
    m_map.reset(map);
    const auto add = [this](const std::string &pattern, shb_kind_t kind) {
        for (unsigned channel = 0; !pattern.empty() && channel < m_sources.size(); ++channel) {
            const std::string path = pattern == "-" ? pattern : DumpPath(pattern, channel, m_sources.size());
            m_dumps.push_back(std::make_unique<Dump>(m_map.get(), channel, kind, path, m_out.Get()));
        }
    };
    add(m_options.dump_video, SHB_VIDEO);
    add(m_options.dump_audio, SHB_AUDIO);
}

void Host::MakeView() {
    if (m_live) {
        m_view = std::make_unique<TableView>(m_out.Get(), WantsColors(m_options.color), *m_log, static_cast<bool>(m_logFile));
        return;
    }
    const RecordFormat format = m_options.json ? RecordFormat::kJson : RecordFormat::kKeyValue;
    m_view = std::make_unique<RecordView>(format, m_dumpsToOut ? -1 : m_out.Get(), m_dumpsToOut ? m_err.Get() : m_out.Get());
}

Host::End Host::Watch() {
    m_start = Clock::now();
    size_t opened = 0;
    for (const auto &source : m_sources) {
        opened += source->Open(m_options) ? 1U : 0U;
    }
    if (opened == 0) {
        return End::kFailed;
    }
    const auto interval = std::chrono::duration_cast<Clock::duration>(Seconds(m_options.interval));
    m_nextReport = m_live ? m_start : m_start + interval;
    for (;;) {
        const auto now = Clock::now();
        uint64_t change = m_log->LineCount();
        bool reached = m_options.frames > 0;
        for (size_t i = 0; i < m_sources.size(); ++i) {
            m_sources[i]->Take(m_news->Of(i), m_news->IsShared(i));
            m_sources[i]->Poll();
            const SourceSample &sample = m_sources[i]->Latest();
            reached = reached && m_goals[i].Reached(sample, now);
            change += sample.rebuilds + sample.video.epoch + sample.audio.epoch;
        }
        const bool dump_ended = std::any_of(m_dumps.begin(), m_dumps.end(), [](const auto &dump) { return dump->Failed(); });
        if (interrupts::StopRequested() || reached || dump_ended) {
            return End::kAsked;
        }
        if (m_options.duration && now - m_start >= Seconds(*m_options.duration)) {
            return m_options.frames > 0 ? End::kOutOfTime : End::kAsked;
        }
        if (ReportDue(now, change)) {
            m_lastReport = now;
            m_lastChange = change;
            // Reports keep to the clock; those that were missed are not made up for.
            while (m_nextReport <= now) {
                m_nextReport += interval;
            }
            if (!Show(Phase::kRunning)) {
                return End::kAsked;
            }
        }
        const auto until_report = std::chrono::ceil<std::chrono::milliseconds>(m_nextReport - Clock::now());
        const auto wait = std::clamp(until_report, std::chrono::milliseconds(0), kTick);
        pollfd wake{interrupts::WakeDescriptor(), POLLIN, 0};
        poll(&wake, 1, static_cast<int>(wait.count()));
        interrupts::Acknowledge();
    }
}

bool Host::ReportDue(Clock::time_point now, uint64_t change) const {
    if (now >= m_nextReport) {
        return true;
    }
    return m_live && (interrupts::RedrawWanted() || (change != m_lastChange && now - m_lastReport >= kRedraw));
}

bool Host::Show(Phase phase) {
    if (m_view->Show(Sample(phase))) {
        return true;
    }
    if (errno != EPIPE && errno != EIO && errno != ECANCELED) {
        m_errors.push_back(std::string("standard output: ") + std::strerror(errno));
    }
    return false;
}

RunSample Host::Sample(Phase phase) {
    RunSample run;
    run.elapsed_s = Seconds((m_ended ? m_end : Clock::now()) - m_start).count();
    run.buffer_name = shb_name(m_buffer.get());
    run.phase = phase;
    for (size_t i = 0; i < m_sources.size(); ++i) {
        m_sources[i]->Take(m_news->Of(i), m_news->IsShared(i));
        run.sources.push_back(m_sources[i]->Sample());
    }
    for (const auto &dump : m_dumps) {
        SourceSample &source = run.sources[dump->Channel()];
        dump->Report(dump->Kind() == SHB_VIDEO ? static_cast<TrackSample &>(source.video) : source.audio);
    }
    return run;
}

void Host::Close() {
    m_end = Clock::now();
    m_ended = true;
    if (m_live) {
        Show(Phase::kClosing);
    }
    // Side by side, because one that waits for the network must not keep the others open.
    struct Closing {
        const Source *source;
        std::future<void> done;
    };
    std::vector<Closing> closings;
    std::vector<std::thread> threads;
    for (const auto &source : m_sources) {
        std::packaged_task<void()> task([&source] { source->Destroy(); });
        closings.push_back({source.get(), task.get_future()});
        threads.emplace_back(std::move(task));
    }
    const auto deadline = Clock::now() + std::chrono::duration_cast<Clock::duration>(Seconds(m_options.close_timeout));
    std::vector<const Source *> hanging;
    for (const Closing &closing : closings) {
        if (closing.done.wait_until(deadline) != std::future_status::ready) {
            hanging.push_back(closing.source);
        }
    }
    if (!hanging.empty()) {
        LeaveHanging(hanging);
    }
    for (std::thread &thread : threads) {
        thread.join();
    }
    for (const auto &dump : m_dumps) {
        dump->Finish();
    }
    CollectDumpErrors();
}

// A source that does not come back from the framework cannot be freed, nor the buffer that it may still write
// to. All that is left is to say so and to leave without a trace.
void Host::LeaveHanging(const std::vector<const Source *> &hanging) {
    for (const auto &dump : m_dumps) {
        dump->Finish();
    }
    std::string names;
    for (const Source *source : hanging) {
        names += (names.empty() ? "" : ", ") + source->Url();
    }
    Complain("did not close in time, left as it is: " + names);
    emergency::Clean();
    _exit(kExitNothing);
}

void Host::CollectDumpErrors() {
    for (const auto &dump : m_dumps) {
        if (!dump->Error().empty()) {
            m_errors.push_back(dump->Error());
        }
    }
}

int Host::Conclude(End end) {
    const RunSample run = Sample(Phase::kEnded);
    m_view->Finish(run);
    m_view.reset();
    // What the sources said while they closed comes before the verdict.
    m_sources.clear();
    m_log.reset();
    // Not an error by itself: one medium may do without it.
    for (const std::string &factory : m_missing) {
        Complain("the GStreamer element \"" + factory + "\" is missing; is its plug-in installed?");
    }

    std::string silent;
    for (const SourceSample &source : run.sources) {
        if (!Delivered(source)) {
            silent += (silent.empty() ? "" : ", ") + ("source " + std::to_string(source.channel) + " " + source.url) +
                      (source.state == "failed" ? " (could not be opened)" : "") +
                      (source.last_error ? ": " + FormatReason(*source.last_error) : "");
        }
    }
    if (!silent.empty()) {
        m_errors.push_back("nothing arrived from " + silent);
    } else if (end == End::kOutOfTime) {
        m_errors.push_back("the time ran out before every source had delivered " + std::to_string(m_options.frames) +
                           " frames");
    }
    for (const std::string &error : m_errors) {
        Complain(error);
    }
    return m_errors.empty() ? kExitOk : kExitNothing;
}

}  // namespace

int RunHost(Options options) {
    OpenStandardDescriptors();
    const Fd policy = UseRtmpsPolicy(options.urls, options.warnings);
    Fd out = Duplicate(STDOUT_FILENO);
    Fd err = Duplicate(STDERR_FILENO);
    const Fd complaints = Duplicate(STDERR_FILENO);
    try {
        return Host(options, std::move(out), std::move(err)).Run();
    } catch (const std::exception &error) {
        WriteAll(complaints.Get(), std::string("gst-source: ") + error.what() + "\n");
        return kExitNothing;
    }
}

}  // namespace tool
