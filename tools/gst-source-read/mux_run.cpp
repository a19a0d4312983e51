#include "mux_run.h"

#include <poll.h>

#include <algorithm>
#include <numeric>
#include <stdexcept>
#include <utility>

#include "buffers.h"
#include "codec.h"
#include "elements.h"
#include "interrupts.h"
#include "output.h"
#include "text.h"

namespace reader {
namespace {

using std::chrono::milliseconds;

// What a muxer has not taken yet: the disk, or whoever reads the pipe, is slower than the stream.
constexpr uint64_t kMostQueued = uint64_t{32} << 20;
// A source that does not say what it has is given 5 s by the element to bring the other kind, which may be none.
constexpr std::chrono::seconds kPresence{6};
// Between a frame's time and its arrival.
constexpr std::chrono::seconds kLateness{2};

int64_t Now() {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(MuxRun::Clock::now().time_since_epoch()).count();
}

}  // namespace

MuxRun::MuxRun(MuxSettings settings, MakeWriter make_writer, MuxObserver &observer)
    : m_settings(std::move(settings)),
      m_makeWriter(std::move(make_writer)),
      m_observer(observer),
      m_cutter(
          [this] {
              Cutter::Rules rules;
              rules.segment = m_settings.segment;
              rules.duration = m_settings.duration;
              rules.frames = m_settings.frames;
              rules.longest_gap = m_settings.container->longest_gap;
              rules.skips = m_settings.container->silence != Silence::kCannot;
              rules.same_format = [this](FormatId one, FormatId other) {
                  return SameIn(*m_settings.container, m_source->Caps(one), m_source->Caps(other));
              };
              return rules;
          }(),
          *this) {}

// ---- Files ---------------------------------------------------------------------------------------------------------

FileWriter *MuxRun::WriterOf(uint64_t file) {
    const auto found =
        std::find_if(m_files.begin(), m_files.end(), [file](const OpenFile &one) { return one.number == file && !one.closed; });
    return found != m_files.end() ? found->writer.get() : nullptr;
}

void MuxRun::Open(const FileStart &start) {
    if (!m_failure.empty()) {
        return;
    }
    FileWriter::TrackCaps caps{};
    for (const shb_kind_t kind : {SHB_VIDEO, SHB_AUDIO}) {
        const FormatId format = start.formats[kind];
        caps[kind] = format != 0 ? m_source->Caps(format) : nullptr;
        m_status.formats[kind] = format != 0 ? Describe(caps[kind]) : "";
    }
    if (m_settings.one_file && start.number > 0) {
        Fail(start.reason + ", which takes another file; the output ends here");
        return;
    }
    OpenFile file;
    file.number = start.number;
    try {
        file.writer = m_makeWriter(start, caps);
    } catch (const std::runtime_error &error) {
        Fail(error.what());
        return;
    }
    ++m_status.files;
    m_files.push_back(std::move(file));
    m_status.newest = m_files.back().writer.get();
    m_observer.Opened(*m_files.back().writer, m_status);
}

void MuxRun::Write(uint64_t file, Frame frame) {
    if (FileWriter *writer = WriterOf(file)) {
        ++m_status.frames[frame.kind];
        writer->Write(std::move(frame));
    }
}

void MuxRun::Skip(uint64_t file, shb_kind_t kind, int64_t time) {
    if (FileWriter *writer = WriterOf(file)) {
        writer->Skip(kind, time);
    }
}

void MuxRun::EndTrack(uint64_t file, shb_kind_t kind) {
    if (FileWriter *writer = WriterOf(file)) {
        writer->EndTrack(kind);
    }
}

void MuxRun::Close(uint64_t file) {
    for (OpenFile &one : m_files) {
        if (one.number == file) {
            one.writer->EndTrack(SHB_VIDEO);
            one.writer->EndTrack(SHB_AUDIO);
            one.closed = true;
        }
    }
}

void MuxRun::Fail(const std::string &reason) {
    if (m_failure.empty()) {
        m_failure = reason;
        if (m_status.files > 0) {
            m_observer.Tell(reason);
        }
    }
}

void MuxRun::LookAtFiles() {
    for (auto file = m_files.begin(); file != m_files.end();) {
        FileWriter &writer = *file->writer;
        writer.Flush();
        const FileWriter::State state = writer.Look();
        if (state == FileWriter::State::kRunning) {
            ++file;
            continue;
        }
        const bool complete = state == FileWriter::State::kDone;
        if (!complete) {
            const double seconds = static_cast<double>(writer.Length()) / 1e9;
            Fail(writer.Name() + ": " + writer.Reason() + "; it has what came before, " + tool::FormatElapsed(seconds) +
                 " at most");
        }
        m_status.bytes += writer.Bytes();
        if (m_status.newest == &writer) {
            m_status.newest = nullptr;
        }
        m_observer.Finished(writer, m_status, complete);
        file = m_files.erase(file);
    }
}

// ---- The source ----------------------------------------------------------------------------------------------------

std::string MuxRun::NotCarried(FormatId format) const {
    const GstCaps *caps = m_source->Caps(format);
    const std::string others = ContainersFor(caps);
    return m_settings.source.buffer + ": " + CodecName(caps) + " cannot be in " + m_settings.container->title +
           (others.empty() ? ", and in none of the others" : "; " + others + " can carry it");
}

void MuxRun::TellLoss(const AvSource::Event &event) {
    const std::string track = m_settings.source.buffer + ": " + KindName(event.kind) + ": ";
    const std::string place = " before frame " + std::to_string(event.sequence) + " of epoch " + std::to_string(event.epoch);
    m_status.lost[event.kind] += event.lost + event.left_out;
    if (event.lost > 0) {
        m_observer.Tell(track + tool::Count(event.lost, "frame", "frames") + " lost" + place);
    }
    if (event.left_out > 0) {
        m_observer.Tell(track + tool::Count(event.left_out, "frame", "frames") + " larger than the track " +
                        (event.left_out == 1 ? "was" : "were") + " left out" + place);
    }
}

void MuxRun::TakeEvent(const AvSource::Event &event) {
    using What = AvSource::Event::What;
    const std::string &name = m_settings.source.buffer;
    // Both tracks report what happens to the host and to the source.
    const bool first_of_two = event.kind == SHB_VIDEO || !m_source->Has(SHB_VIDEO);
    switch (event.what) {
        case What::kLost:
            TellLoss(event);
            break;
        case What::kGone:
            if (first_of_two && !m_status.gone) {
                m_observer.Tell(name + ": its host has gone" +
                                (m_settings.source.follow ? "; waiting for it to come back" : ""));
            }
            m_status.gone = m_status.gone || first_of_two;
            break;
        case What::kRestarted:
            if (first_of_two && m_status.gone) {
                m_observer.Tell(name + ": its host is back");
            }
            m_status.gone = m_status.gone && !first_of_two;
            break;
        case What::kNewWriter:
            if (first_of_two && m_status.files > 0) {
                m_observer.Tell(name + ": the source has been connected again");
            }
            break;
        case What::kNotCarried: {
            const std::string reason = NotCarried(event.format);
            if (m_status.files == 0) {
                throw std::runtime_error(reason);
            }
            m_observer.Tell(reason + "; going on without it");
            break;
        }
        case What::kFailed:
            Fail(event.text.compare(0, name.size(), name) == 0 ? event.text : name + ": " + event.text);
            break;
    }
}

void MuxRun::TakeEvents() {
    for (const AvSource::Event &event : m_source->TakeEvents()) {
        TakeEvent(event);
    }
}

void MuxRun::TakeFrames(bool all) {
    std::array<bool, kKinds> ended{};
    for (const shb_kind_t kind : {SHB_VIDEO, SHB_AUDIO}) {
        ended[kind] = m_source->Ended(kind);
        if (m_source->Has(kind)) {
            m_cutter.Expect(kind);
        }
    }
    const uint64_t queued = std::accumulate(m_files.begin(), m_files.end(), uint64_t{0},
                                            [](uint64_t sum, const OpenFile &file) { return sum + file.writer->Queued(); });
    if (all || queued < kMostQueued) {
        const int64_t now = Now();
        for (Frame &frame : m_source->TakeFrames()) {
            m_last_frame = Clock::now();
            m_first_frame = m_first_frame.value_or(m_last_frame);
            m_cutter.Add(std::move(frame), now);
        }
        for (const shb_kind_t kind : {SHB_VIDEO, SHB_AUDIO}) {
            if (ended[kind]) {
                m_cutter.End(kind);
            }
        }
        m_cutter.Advance(now);
    } else {
        // What waits here has come.
        m_last_frame = Clock::now();
    }
    m_status.recorded = m_cutter.Recorded();
}

// ---- The run -------------------------------------------------------------------------------------------------------

bool MuxRun::IsOver() {
    const Clock::time_point now = Clock::now();
    if (tool::interrupts::StopRequested() || !m_failure.empty() || m_cutter.Done() || !m_observer.IsHeard()) {
        return true;
    }
    // In an outage no frame says that the time is over.
    if (m_settings.duration > 0 && m_first_frame &&
        now - *m_first_frame > std::chrono::nanoseconds(m_settings.duration) + kLateness) {
        return true;
    }
    const bool until_end = m_settings.timeout == 0 && !m_first_frame && m_settings.duration > 0;
    const int64_t patience = until_end ? m_settings.duration + std::chrono::nanoseconds(kPresence).count() : m_settings.timeout;
    if (patience > 0 && now - m_last_frame > std::chrono::nanoseconds(patience)) {
        if (m_status.files > 0) {
            m_observer.Tell(m_settings.source.buffer + ": nothing has come for " +
                            tool::FormatAge(static_cast<uint64_t>(patience)));
        }
        return true;
    }
    return m_source->Ended();
}

void MuxRun::Wait() const {
    constexpr milliseconds kTick{200};
    constexpr milliseconds kSoon{20};
    // A file that is being completed, or one that is behind.
    const bool soon = std::any_of(m_files.begin(), m_files.end(),
                                  [](const OpenFile &file) { return file.closed || file.writer->Queued() > 0; });
    std::array<pollfd, 2> wake{{{tool::interrupts::WakeDescriptor(), POLLIN, 0}, {-1, POLLIN, 0}}};
    if (m_source) {
        wake[1].fd = m_source->WakeDescriptor();
    }
    poll(wake.data(), wake.size(), static_cast<int>((m_source ? kTick : (soon ? kSoon : kTick)).count()));
    tool::interrupts::Acknowledge();
    if (m_source) {
        m_source->Acknowledge();
    }
}

void MuxRun::Step() {
    TakeEvents();
    TakeFrames(false);
    LookAtFiles();
    m_observer.Progress(m_status);
}

// Each file gets its end, however long its muxer takes for it. A second signal leaves at once.
void MuxRun::CloseAll() {
    m_cutter.Finish();
    LookAtFiles();
    while (!m_files.empty()) {
        constexpr milliseconds kSoon{10};
        pollfd wake{tool::interrupts::WakeDescriptor(), POLLIN, 0};
        poll(&wake, 1, static_cast<int>(kSoon.count()));
        tool::interrupts::Acknowledge();
        LookAtFiles();
        m_observer.Progress(m_status);
    }
    m_status.recorded = m_cutter.Recorded();
    for (const shb_kind_t kind : {SHB_VIDEO, SHB_AUDIO}) {
        m_status.lost[kind] += m_cutter.LeftOut(kind);
    }
}

bool MuxRun::Go() {
    RequireElement(m_settings.container->muxer, m_settings.container->package);
    m_source = std::make_unique<AvSource>(m_settings.source, *m_settings.container);
    for (Step(); !IsOver(); Step()) {
        Wait();
    }
    // What has come meanwhile.
    TakeFrames(true);
    TakeEvents();
    CloseAll();
    if (m_status.files == 0) {
        throw std::runtime_error(m_failure.empty() ? "nothing arrived from " + m_settings.source.buffer : m_failure);
    }
    return m_failure.empty();
}

}  // namespace reader
