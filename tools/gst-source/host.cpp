#include "host.h"

#include <fcntl.h>
#include <gst/gst.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <filesystem>
#include <future>
#include <map>
#include <memory>
#include <mutex>
#include <sstream>
#include <stdexcept>
#include <vector>

#include "capacity.h"
#include "config_file.h"
#include "control.h"
#include "dump.h"
#include "emergency.h"
#include "fd.h"
#include "fleet.h"
#include "format.h"
#include "frame_tap.h"
#include "http/http_side.h"
#include "interrupts.h"
#include "log_capture.h"
#include "log_level.h"
#include "missing.h"
#include "process_sample.h"
#include "reason.h"
#include "rtmps_policy.h"
#include "secrets.h"
#include "service.h"
#include "service_manager.h"
#include "udp_port.h"
#include "view_records.h"
#include "view_table.h"

namespace tool {
namespace {

using Clock = std::chrono::steady_clock;
using Seconds = std::chrono::duration<double>;

// Often enough for what is measured between two ticks, and to end soon after the frame that was waited for.
constexpr std::chrono::milliseconds kTick{100};
// Redraws between two reports, after a change.
constexpr std::chrono::milliseconds kRedraw{200};
// Samples for other threads.
constexpr std::chrono::seconds kPublish{1};

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

struct DetachMap {
    void operator()(shb_map_t *map) const { shb_detach(map); }
};
using Map = std::unique_ptr<shb_map_t, DetachMap>;

const char *FromEnvironment(const char *name) {
    return std::getenv(name);
}

// The sources of a file that are to be run: all, or the one that is wanted.
void Choose(ConfigFile &file, const std::string &only) {
    if (only.empty() || !file.Good()) {
        return;
    }
    const auto wanted = std::find_if(file.sources.begin(), file.sources.end(),
                                     [&only](const SourceConfig &source) { return source.name == only; });
    if (wanted == file.sources.end()) {
        file.mistakes.push_back({0, 0, "no source is called \"" + only + "\"", true});
        return;
    }
    file.sources = {*wanted};
    // One address cannot be listened at by every source's own process.
    file.service.http.clear();
}

// The program that makes pictures: beside this one, where it stands in the build, or wherever PATH finds it.
std::string ReaderProgram() {
    std::string name = "gst-source-read";
    std::error_code error;
    const std::filesystem::path own = std::filesystem::read_symlink("/proc/self/exe", error).parent_path();
    for (const std::filesystem::path &path : {own / name, own.parent_path() / name / name}) {
        if (!error && access(path.c_str(), X_OK) == 0 && std::filesystem::is_regular_file(path, error)) {
            return path.string();
        }
    }
    return name;
}

std::string JoinedLines(const std::vector<std::string> &lines) {
    std::string text;
    for (const std::string &line : lines) {
        text += line + "\n";
    }
    return text;
}

// A run: its sources, its views, and the end.
class Host : private Service {
  public:
    // `file`: what it names is run; without one, the sources of the command line in one buffer.
    Host(const Options &options, std::optional<ConfigFile> file, Fd out, Fd err)
        : m_options(options),
          m_file(std::move(file)),
          m_out(std::move(out)),
          m_err(std::move(err)),
          m_journal(IsJournal(m_err.Get())),
          m_dumpsToOut(options.dump_video == "-" || options.dump_audio == "-"),
          m_live(!options.json && !options.quiet && !m_dumpsToOut && CanDraw(m_out.Get())) {}

    int Run();

  private:
    enum class End { kAsked, kOutOfTime, kFailed };

    std::shared_ptr<const RunSample> Newest() const override;
    std::vector<std::string> Log(const std::string &source) const override;
    bool Restart(const std::string &source) override;

    void MakeLog();
    bool FindRoom();
    void MakeSources();
    void MakeReaders();
    void FinishReaders();
    void MakeView();
    void MakeControl();
    void MakeHttp();
    End Watch();
    // False when the person at the terminal wants the end.
    bool Wait(Clock::time_point until);
    bool GoalsReached() const;
    void ServeOthers(Clock::time_point now);
    // What they see from now on.
    void Publish(Clock::time_point now);
    ControlAnswer ReadFileAgain();
    ControlAnswer AskForReload();
    bool ReportDue(Clock::time_point now, uint64_t change) const;
    bool Show(Phase phase);
    RunSample Sample(Phase phase);
    void Close();
    void LeaveHanging(const std::vector<std::string> &hanging);
    void CollectDumpErrors();
    void Complain(const std::string &message, LogLevel level = LogLevel::kError) const;
    void ComplainOfLines(const std::string &lines, LogLevel level) const;
    int Conclude(End end);

    const Options &m_options;
    std::optional<ConfigFile> m_file;
    const Fd m_out;
    const Fd m_err;
    const bool m_journal;
    const bool m_dumpsToOut;
    const bool m_live;

    // In this order: each needs those before it until it is gone.
    Fd m_logFile;
    std::vector<std::string> m_missing;  // element factories; the log's thread, and everybody once the log has ended
    Masker m_masker;
    NewsDesk m_news;
    std::unique_ptr<LogCapture> m_log;
    std::unique_ptr<Fleet> m_fleet;
    Map m_map;
    std::vector<std::unique_ptr<FrameTap>> m_taps;  // by channel
    std::vector<std::unique_ptr<Dump>> m_dumps;
    std::unique_ptr<View> m_view;

    // What other threads ask for, and what they see.
    mutable std::mutex m_mutex;
    std::deque<std::string> m_restarts;
    std::deque<std::promise<ControlAnswer>> m_reloads;
    bool m_noMoreReloads = false;
    std::shared_ptr<const RunSample> m_newest = std::make_shared<RunSample>();
    std::unique_ptr<ControlServer> m_control;
    std::unique_ptr<HttpSide> m_http;

    std::vector<std::string> m_errors;
    Clock::time_point m_start;
    Clock::time_point m_end;
    bool m_ended = false;
    Clock::time_point m_lastReport;
    Clock::time_point m_nextReport;
    Clock::time_point m_nextPublish;
    uint64_t m_lastChange = 0;
    bool m_redraw = false;
    bool m_ready = false;
    uint64_t m_reloadCount = 0;
    bool m_reloadGood = true;
    double m_reloadTime = 0;
};

int Host::Run() {
    for (const std::string &warning : m_options.warnings) {
        Complain("warning: " + warning, LogLevel::kWarning);
    }
    emergency::HandleCrashes();
    interrupts::Install(m_live ? m_out.Get() : -1, m_file.has_value());
    MakeLog();
    if (!FindRoom()) {
        return kExitNothing;
    }
    End end = End::kFailed;
    try {
        MakeControl();
        MakeHttp();
        MakeSources();
        MakeReaders();
        MakeView();
        end = Watch();
    } catch (...) {
        // Somebody may wait for the answer to a reload, and the sources close side by side.
        Close();
        throw;
    }
    Close();
    return Conclude(end);
}

std::shared_ptr<const RunSample> Host::Newest() const {
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_newest;
}

std::vector<std::string> Host::Log(const std::string &source) const {
    return m_news.Log(source);
}

bool Host::Restart(const std::string &source) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    const bool known = std::any_of(m_newest->sources.begin(), m_newest->sources.end(),
                                   [&source](const SourceSample &one) { return one.name == source; });
    if (known && std::find(m_restarts.begin(), m_restarts.end(), source) == m_restarts.end()) {
        m_restarts.push_back(source);
        interrupts::WakeUp();
    }
    return known;
}

void Host::Complain(const std::string &message, LogLevel level) const {
    // The table has the log under it, and a line beside it would tear it.
    const bool to_log = m_log && m_view && m_live && isatty(m_err.Get()) != 0;
    const std::string prefix(m_journal ? JournalPrefix(level) : "");
    WriteAll(to_log ? STDERR_FILENO : m_err.Get(), prefix + "gst-source: " + message + "\n", interrupts::PatienceAfterStop());
}

void Host::ComplainOfLines(const std::string &lines, LogLevel level) const {
    std::istringstream in(lines);
    for (std::string line; std::getline(in, line);) {
        Complain(line, level);
    }
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
    const LogPolicy policy = PolicyOf(m_options.quiet, m_options.verbose ? 1 : 0, m_options.log_level);
    const bool takes_errors = shares_terminal || (target == m_err.Get() && (policy.Filters() || IsJournal(target)));
    const auto on_line = [this](const std::string &line) {
        m_news.OnLine(line);
        const auto factory = MissingElement(line);
        if (factory && std::find(m_missing.begin(), m_missing.end(), *factory) == m_missing.end()) {
            m_missing.push_back(*factory);
        }
    };
    m_log = std::make_unique<LogCapture>(target, takes_errors, m_masker, on_line, policy);
}

bool Host::FindRoom() {
    if (!m_file) {
        return true;
    }
    RaiseDescriptorLimit();
    const size_t sources = m_file->sources.size();
    const Needs needs = NeedsOf(m_file->sources);
    const Limits limits = LimitsNow();
    for (const std::string &doubt : Doubts(sources, needs, limits)) {
        Complain("warning: " + doubt, LogLevel::kWarning);
    }
    const std::vector<std::string> lines = Shortages(sources, needs, limits);
    ComplainOfLines(JoinedLines(lines), LogLevel::kError);
    return lines.empty();
}

void Host::MakeControl() {
    if (m_file) {
        m_control = std::make_unique<ControlServer>(RealPath(m_file->path), m_options.only, [this] { return AskForReload(); });
    }
}

void Host::MakeHttp() {
    if (m_options.http.empty()) {
        return;
    }
    Service &self = *this;
    m_http = std::make_unique<HttpSide>(HttpOptions{m_options.http, m_options.http_token, ReaderProgram()}, self);
    Complain("page, metrics and API at http://" + m_http->Address() + "/", LogLevel::kInfo);
}

void Host::MakeSources() {
    m_fleet = std::make_unique<Fleet>(m_masker, m_news);
    if (m_file) {
        m_fleet->Apply(m_file->sources);
        return;
    }
    const std::vector<SourceConfig> sources = SourcesOf(m_options);
    for (const SourceConfig &source : sources) {
        if (const auto taken = UdpPortTaken(source.url)) {
            throw std::runtime_error(*taken);
        }
    }
    m_fleet->Share(sources, m_options.common.name);
}

// What reads along in this process.
void Host::MakeReaders() {
    if (m_options.dump_video.empty() && m_options.dump_audio.empty() && m_options.frames == 0) {
        return;
    }
    shb_map_t *map = nullptr;
    const int result = shb_attach(m_options.common.name.c_str(), &map);
    if (result != SHB_OK) {
        throw std::runtime_error(std::string("the shared buffer cannot be read: ") + shb_strerror(result));
    }
    m_map.reset(map);
    const size_t sources = m_fleet->Stations().size();
    for (unsigned channel = 0; m_options.frames > 0 && channel < sources; ++channel) {
        m_taps.push_back(std::make_unique<FrameTap>(map, channel, m_options.frames, interrupts::WakeUp));
    }
    const auto add = [&](const std::string &pattern, shb_kind_t kind) {
        for (unsigned channel = 0; !pattern.empty() && channel < sources; ++channel) {
            const std::string path = pattern == "-" ? pattern : DumpPath(pattern, channel, sources);
            const FrameTap *tap = m_taps.empty() ? nullptr : m_taps[channel].get();
            m_dumps.push_back(std::make_unique<Dump>(map, channel, kind, path, m_out.Get(), tap));
        }
    };
    add(m_options.dump_video, SHB_VIDEO);
    add(m_options.dump_audio, SHB_AUDIO);
}

void Host::FinishReaders() {
    for (const auto &tap : m_taps) {
        tap->Finish();
    }
    for (const auto &dump : m_dumps) {
        dump->Finish();
    }
}

void Host::MakeView() {
    if (m_live) {
        m_view = std::make_unique<TableView>(m_out.Get(), WantsColors(m_options.color), *m_log, static_cast<bool>(m_logFile),
                                             STDIN_FILENO);
        return;
    }
    const RecordFormat format = m_options.json ? RecordFormat::kJson : RecordFormat::kKeyValue;
    // A service has its log, its metrics and its page; a line per source and second would bury the log.
    const bool silent = !m_options.json && (m_file || m_options.quiet);
    const int summary = m_dumpsToOut ? m_err.Get() : m_out.Get();
    m_view = std::make_unique<RecordView>(format, m_dumpsToOut || silent ? -1 : m_out.Get(), silent && m_file ? -1 : summary);
}

Host::End Host::Watch() {
    m_start = Clock::now();
    m_fleet->Tick();
    if (!m_fleet->AnyHope() && !m_file) {
        return End::kFailed;
    }
    const auto interval = std::chrono::duration_cast<Clock::duration>(Seconds(m_options.interval));
    m_nextReport = m_live ? m_start : m_start + interval;
    for (;;) {
        const auto now = Clock::now();
        m_fleet->Tick();
        ServeOthers(now);
        uint64_t change = m_log->LineCount();
        for (const auto &station : m_fleet->Stations()) {
            const SourceSample &sample = station->Latest();
            change += sample.rebuilds + sample.video.epoch + sample.audio.epoch;
        }
        const bool dump_ended = std::any_of(m_dumps.begin(), m_dumps.end(), [](const auto &dump) { return dump->Failed(); });
        if (interrupts::StopRequested() || dump_ended || GoalsReached()) {
            return End::kAsked;
        }
        if (m_options.duration && now - m_start >= Seconds(*m_options.duration)) {
            return m_options.frames > 0 ? End::kOutOfTime : End::kAsked;
        }
        if (ReportDue(now, change)) {
            m_lastReport = now;
            m_lastChange = change;
            m_redraw = false;
            // Reports keep to the clock; those that were missed are not made up for.
            while (m_nextReport <= now) {
                m_nextReport += interval;
            }
            if (!Show(Phase::kRunning)) {
                return End::kAsked;
            }
        }
        if (!Wait(std::min(m_nextReport, now + kTick))) {
            return End::kAsked;
        }
    }
}

bool Host::Wait(Clock::time_point until) {
    const auto wait = std::chrono::ceil<std::chrono::milliseconds>(until - Clock::now());
    std::array<pollfd, 2> wake{{{interrupts::WakeDescriptor(), POLLIN, 0}, {m_view->InputDescriptor(), POLLIN, 0}}};
    poll(wake.data(), wake.size(), static_cast<int>(std::clamp(wait, std::chrono::milliseconds(0), kTick).count()));
    interrupts::Acknowledge();
    const View::Asked asked = wake[1].revents != 0 ? m_view->OnInput() : View::Asked::kNothing;
    m_redraw = m_redraw || asked == View::Asked::kRedraw;
    return asked != View::Asked::kQuit;
}

bool Host::GoalsReached() const {
    return !m_taps.empty() && std::all_of(m_taps.begin(), m_taps.end(), [](const auto &tap) { return tap->Reached(); });
}

// What other threads, other processes and the service manager want of this one.
void Host::ServeOthers(Clock::time_point now) {
    std::deque<std::string> restarts;
    std::deque<std::promise<ControlAnswer>> reloads;
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        restarts.swap(m_restarts);
        reloads.swap(m_reloads);
    }
    for (const std::string &name : restarts) {
        m_fleet->Restart(name);
    }
    std::optional<ControlAnswer> answer;
    if (m_file && (interrupts::TakeReload() || !reloads.empty())) {
        try {
            answer = ReadFileAgain();
        } catch (const std::exception &error) {
            // Whatever it was, the sources go on.
            m_reloadGood = false;
            answer = {false, m_file->path + ": the reload broke off: " + error.what() + "\n"};
            ComplainOfLines(answer->text, LogLevel::kError);
        }
    }
    for (const auto &station : m_fleet->Stations()) {
        if (const auto complaint = m_file ? station->TakeComplaint() : std::nullopt) {
            Complain(station->Name() + ": " + *complaint, LogLevel::kWarning);
        }
    }
    // Once a reload is answered, its new sources are there for everybody who asks.
    if (answer || now >= m_nextPublish) {
        Publish(now);
    }
    for (auto &reload : reloads) {
        reload.set_value(*answer);
    }
}

void Host::Publish(Clock::time_point now) {
    m_nextPublish = now + kPublish;
    auto sample = std::make_shared<RunSample>(Sample(Phase::kRunning));
    sample->process = SampleProcess();
    const auto live = std::count_if(sample->sources.begin(), sample->sources.end(),
                                    [](const SourceSample &source) { return source.flow == Flow::kLive; });
    const std::string status = std::to_string(live) + " of " + std::to_string(sample->sources.size()) + " sources live";
    if (!m_ready && m_fleet->AllTried()) {
        m_ready = true;
        service_manager::Ready(status);
    } else {
        service_manager::Status(status);
    }
    // The loop turns, and every source has been looked at.
    service_manager::Alive();
    if (m_http) {
        m_http->OnSample(sample, now);
    }
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_newest = std::move(sample);
}

// On the control's thread.
ControlAnswer Host::AskForReload() {
    std::future<ControlAnswer> answer;
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        if (m_noMoreReloads) {
            return {false, "the run is ending\n"};
        }
        m_reloads.emplace_back();
        answer = m_reloads.back().get_future();
    }
    interrupts::WakeUp();
    return answer.get();
}

ControlAnswer Host::ReadFileAgain() {
    ConfigFile file = ReadConfigFile(m_file->path, FromEnvironment);
    Choose(file, m_options.only);
    std::string text = file.Report();
    m_reloadGood = file.Good();
    if (m_reloadGood) {
        // What is there already has its place.
        std::map<std::string, const SourceConfig *> present;
        for (const SourceConfig &source : m_file->sources) {
            present[source.name] = &source;
        }
        std::vector<SourceConfig> added;
        uint64_t more_bytes = 0;
        size_t larger = 0;
        for (const SourceConfig &source : file.sources) {
            const auto known = present.find(source.name);
            if (known == present.end()) {
                added.push_back(source);
                continue;
            }
            const uint64_t before = BytesOf(known->second->memory, 1);
            const uint64_t after = BytesOf(source.memory, 1);
            larger += after > before ? 1U : 0U;
            more_bytes += after > before ? after - before : 0;
        }
        Needs needs = NeedsOf(added);
        needs.shared_bytes += more_bytes;
        const std::vector<std::string> lines = Shortages(added.size() + larger, needs, LimitsNow());
        m_reloadGood = lines.empty();
        text += JoinedLines(lines);
    }
    if (!m_reloadGood) {
        text += m_file->path + ": nothing was changed\n";
        ComplainOfLines(text, LogLevel::kError);
        return {false, text};
    }
    if (!(file.service == m_file->service)) {
        text += m_file->path + ": warning: changes of [service] take effect with the next start\n";
    }
    const Fleet::Changes changes = m_fleet->Apply(file.sources);
    m_file = std::move(file);
    ++m_reloadCount;
    m_reloadTime = Seconds(std::chrono::system_clock::now().time_since_epoch()).count();
    text += m_file->path + ": " + std::to_string(changes.added) + " added, " + std::to_string(changes.removed) + " removed, " +
            std::to_string(changes.changed) + " changed, " + std::to_string(changes.untouched) + " untouched\n";
    ComplainOfLines(text, LogLevel::kInfo);
    return {true, text};
}

bool Host::ReportDue(Clock::time_point now, uint64_t change) const {
    if (now >= m_nextReport) {
        return true;
    }
    return m_live && (m_redraw || interrupts::RedrawWanted() || (change != m_lastChange && now - m_lastReport >= kRedraw));
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
    run.buffer_name = m_file ? "" : "/" + m_options.common.name;
    run.phase = phase;
    run.config_file = m_file ? m_file->path : "";
    run.reloads = m_reloadCount;
    run.reload_good = m_reloadGood;
    run.reload_time_s = m_reloadTime;
    for (const auto &station : m_fleet->Stations()) {
        run.sources.push_back(station->Sample());
    }
    for (size_t channel = 0; channel < m_taps.size(); ++channel) {
        m_taps[channel]->Report(run.sources[channel]);
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
    service_manager::Stopping();
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_noMoreReloads = true;
        for (auto &reload : m_reloads) {
            reload.set_value({false, "the run is ending\n"});
        }
        m_reloads.clear();
    }
    m_control.reset();
    m_http.reset();
    if (m_view && m_live) {
        Show(Phase::kClosing);
    }
    const Seconds patience(m_options.close_timeout.value_or(kCloseTimeout));
    const std::vector<std::string> hanging =
        !m_fleet ? std::vector<std::string>()
                 : m_fleet->Close(Clock::now() + std::chrono::duration_cast<Clock::duration>(patience));
    if (!hanging.empty()) {
        LeaveHanging(hanging);
    }
    FinishReaders();
    CollectDumpErrors();
}

// A source that does not come back from the framework cannot be freed, nor the buffer that it may still write
// to. All that is left is to say so and to leave without a trace.
void Host::LeaveHanging(const std::vector<std::string> &hanging) {
    FinishReaders();
    std::string names;
    for (const std::string &name : hanging) {
        names += (names.empty() ? "" : ", ") + name;
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
    m_fleet.reset();
    m_log.reset();
    // Not an error by itself: one medium may do without it.
    for (const std::string &factory : m_missing) {
        Complain("the GStreamer element \"" + factory + "\" is missing; is its plug-in installed?");
    }

    // A service whose camera is off does its work all the same.
    const bool must_deliver = !m_file || m_options.frames > 0;
    for (size_t channel = 0; channel < m_taps.size(); ++channel) {
        if (m_taps[channel]->Lost() > 0) {
            m_errors.push_back("source " + std::to_string(channel) + ": " +
                               Count(m_taps[channel]->Lost(), "frame was", "frames were") +
                               " overwritten before their bytes could be counted; larger --video-bytes would hold them");
        }
    }
    std::string silent;
    for (const SourceSample &source : run.sources) {
        if (must_deliver && !Delivered(source)) {
            silent += (silent.empty() ? "" : ", ") +
                      (HasOwnBuffer(source) ? source.name : "source " + std::to_string(source.channel) + " " + source.url) +
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

// What the file says of the run, where the command line says nothing.
void UseService(const ServiceConfig &service, Options &options) {
    if (options.http.empty()) {
        options.http = service.http;
    }
    if (options.http_token.empty()) {
        options.http_token = service.http_token;
    }
    if (options.log_file.empty()) {
        options.log_file = service.log_file;
    }
    if (options.log_level.empty()) {
        options.log_level = service.log_level;
    }
    if (!options.close_timeout) {
        options.close_timeout = service.close_timeout;
    }
}

// Lines before and after the time of a log: what keeps a service from starting has its priority in the journal as well.
std::string ForErrors(int fd, const std::string &lines, LogLevel level) {
    if (!IsJournal(fd)) {
        return lines;
    }
    std::istringstream in(lines);
    std::string text;
    for (std::string line; std::getline(in, line);) {
        text += std::string(JournalPrefix(level)) + line + "\n";
    }
    return text;
}

int RunOptions(Options &options, std::optional<ConfigFile> file) {
    OpenStandardDescriptors();
    std::vector<std::string> urls = options.urls;
    if (file) {
        UseService(file->service, options);
        std::transform(file->sources.begin(), file->sources.end(), std::back_inserter(urls),
                       [](const SourceConfig &source) { return source.url; });
    }
    KeepFrameworkPlain(STDERR_FILENO);
    const Fd policy = UseRtmpsPolicy(urls, options.warnings);
    Fd out = Duplicate(STDOUT_FILENO);
    Fd err = Duplicate(STDERR_FILENO);
    const Fd complaints = Duplicate(STDERR_FILENO);
    try {
        return Host(options, std::move(file), std::move(out), std::move(err)).Run();
    } catch (const std::exception &error) {
        const std::string line = std::string("gst-source: ") + error.what() + "\n";
        WriteAll(complaints.Get(), ForErrors(complaints.Get(), line, LogLevel::kError));
        return kExitNothing;
    }
}

int CheckFile(const std::string &path) {
    const ConfigFile file = ReadConfigFile(path, FromEnvironment);
    std::fputs(file.Report().c_str(), stderr);
    if (!file.Good()) {
        return kExitUsage;
    }
    std::printf("%s: good, %s\n", path.c_str(), Count(file.sources.size(), "source", "sources").c_str());
    return kExitOk;
}

int Reload(const std::string &path) {
    const ConfigFile file = ReadConfigFile(path, FromEnvironment);
    const std::vector<ControlAnswer> answers = AskForReload(RealPath(path));
    if (answers.empty()) {
        std::fputs(file.Report().c_str(), stderr);
        std::fprintf(stderr, "gst-source: no run of this user has %s open\n", path.c_str());
        return file.Good() ? kExitNothing : kExitUsage;
    }
    int result = kExitOk;
    for (const ControlAnswer &answer : answers) {
        std::fputs(answer.text.c_str(), answer.good ? stdout : stderr);
        if (!answer.good) {
            result = std::max(result, answer.reached ? kExitUsage : kExitNothing);
        }
    }
    return result;
}

// In a file each source has a buffer of its own: the one of the command line has its name, several get a number behind it.
std::vector<SourceConfig> SourcesForFile(const Options &options) {
    std::vector<SourceConfig> sources = SourcesOf(options);
    for (SourceConfig &source : sources) {
        if (!options.common.name.empty()) {
            source.name = options.common.name + (sources.size() > 1 ? "-" + source.name : "");
        }
    }
    return sources;
}

}  // namespace

int RunHost(Options options) {
    if (options.command == Command::kCheck) {
        return CheckFile(options.config_file);
    }
    if (options.command == Command::kReload) {
        return Reload(options.config_file);
    }
    std::optional<ConfigFile> file;
    if (!options.config_file.empty()) {
        interrupts::HoldHangup();
        file = ReadConfigFile(options.config_file, FromEnvironment);
        Choose(*file, options.only);
        const LogLevel level = file->Good() ? LogLevel::kWarning : LogLevel::kError;
        std::fputs(ForErrors(STDERR_FILENO, file->Report(), level).c_str(), stderr);
        if (!file->Good()) {
            return kExitUsage;
        }
    }
    if (options.command == Command::kPrintConfig) {
        if (file) {
            UseService(file->service, options);
        }
        const ServiceConfig service{options.http, options.http_token, options.log_file, options.log_level,
                                    options.close_timeout};
        const std::string text = PrintConfig(service, file ? file->sources : SourcesForFile(options));
        if (std::fputs(text.c_str(), stdout) < 0 || std::fflush(stdout) != 0) {
            std::fprintf(stderr, "gst-source: standard output: %s\n", std::strerror(errno));
            return kExitNothing;
        }
        return kExitOk;
    }
    return RunOptions(options, std::move(file));
}

}  // namespace tool
