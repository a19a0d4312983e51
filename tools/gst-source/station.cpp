#include "station.h"

#include <algorithm>
#include <stdexcept>
#include <system_error>
#include <utility>

#include "companion.h"
#include "record.h"
#include "source_fields.h"
#include "udp_port.h"

namespace tool {
namespace {

using Seconds = std::chrono::duration<double>;

// As long as the library waits between two sessions.
constexpr std::chrono::seconds kRetry{3};

}  // namespace

Station::Station(SourceConfig config, unsigned channel, std::shared_ptr<SharedBuffer> shared, bool alone)
    : m_config(std::move(config)), m_channel(channel), m_ownBuffer(!shared), m_alone(alone), m_buffer(std::move(shared)) {
    m_sample.name = m_config.name;
    m_sample.buffer = m_buffer ? m_buffer->Name() : "/" + m_config.name;
    m_sample.url = PublicUrl(m_config.url);
    m_sample.protocol = ProtocolOf(m_config.url).value();
    m_sample.channel = m_channel;
}

Station::~Station() {
    if (m_closer.joinable()) {
        m_closer.join();
    }
}

void Station::Open() {
    m_tried = true;
    m_blockedBy.reset();
    if (const auto taken = UdpPortTaken(m_config.url)) {
        Block(*taken, "port-in-use");
        return;
    }
    try {
        bool fresh = false;
        if (!m_buffer) {
            m_buffer = std::make_shared<SharedBuffer>(m_config.name, 1, m_config.memory);
            m_stallWatch = -1;
            m_frames = 0;
            m_pauses = {};
            fresh = true;
        }
        if (m_alone && m_stallWatch < 0) {
            m_stallWatch = StallWatchOf(m_config);
            m_buffer->SetStallWatch(m_stallWatch);
        }
        m_source = std::make_unique<Source>(m_config, m_channel, m_buffer->Get(), m_news, fresh ? nullptr : &m_sample);
    } catch (const NoRoom &error) {
        Block(error.what(), "full");
        return;
    } catch (const std::exception &error) {
        Block(error.what(), "");
        return;
    }
    // Without it no source of this process would ever play.
    static const bool sink_is_there = (RequireCompanion("shbsink"), true);
    static_cast<void>(sink_is_there);
    m_source->Take(m_news);
    BeginSession(Clock::now());
    if (!m_source->Open()) {
        m_source.reset();
        Block("the source could not be opened; the log says why", "");
        return;
    }
    m_complaint.clear();
}

void Station::BeginSession(Clock::time_point at) {
    m_sessionAt = at;
    m_awaitsFirst = true;
    m_pauses.BeginSession();
}

void Station::Block(const std::string &text, const std::string &code) {
    m_blockedBy = Reason{text, code, TimeNow(), true};
    m_retryAt = Clock::now() + kRetry;
    m_sample.state = "failed";
    m_sample.last_error = m_blockedBy;
    m_complains = m_complains || text != m_complaint;
    m_complaint = text;
}

std::optional<std::string> Station::TakeComplaint() {
    return std::exchange(m_complains, false) ? std::optional(m_complaint) : std::nullopt;
}

void Station::BeginClose() {
    m_next.reset();
    if (m_closing.valid() || !m_source) {
        return;
    }
    TakeSample(m_source->Sample());
    const auto task = std::make_shared<std::packaged_task<void()>>([this] { m_source->Destroy(); });
    m_closing = task->get_future();
    try {
        m_closer = std::thread([task] { (*task)(); });
    } catch (const std::system_error &) {
        // The system has no more threads: all others wait meanwhile, but this one closes.
        (*task)();
    }
}

void Station::Reopen(const SourceConfig &next) {
    BeginClose();
    m_next = next;
    m_retired = false;
    m_retryAt = Clock::now();
}

void Station::Retire() {
    BeginClose();
    m_retired = true;
}

bool Station::AwaitClose(Clock::time_point deadline) {
    if (!m_closing.valid()) {
        return true;
    }
    if (m_closing.wait_until(deadline) != std::future_status::ready) {
        return false;
    }
    m_closing.get();
    if (m_closer.joinable()) {
        m_closer.join();
    }
    TakeSample(m_source->Latest());
    m_rebuildsSeen += m_source->RebuildsSeen();
    m_source.reset();
    return true;
}

void Station::Take(const SourceNews &news) {
    m_news = news;
    // What ended before it was opened anew is over.
    m_news.waiting = news.waiting && news.last_at > m_sessionAt;
    if (IsOpen()) {
        m_source->Take(m_news);
    }
}

bool Station::Tick(bool may_open) {
    const auto now = Clock::now();
    if (m_closing.valid()) {
        if (!AwaitClose(now)) {
            return true;
        }
        ++m_restarts;
    }
    if (m_retired) {
        return false;
    }
    if (!m_source && may_open && now >= m_retryAt) {
        UseNext();
        Open();
    }
    if (m_source) {
        m_source->Poll();
        Follow(m_source->Latest());
    }
    return true;
}

void Station::UseNext() {
    if (!m_next) {
        return;
    }
    const SourceConfig next = *std::exchange(m_next, std::nullopt);
    if (m_ownBuffer && !(next.memory == m_config.memory)) {
        m_buffer.reset();
    }
    m_config = next;
    m_stallWatch = -1;
    m_pauses = {};
    m_sample.url = PublicUrl(m_config.url);
    m_sample.protocol = ProtocolOf(m_config.url).value();
}

// Times of sessions, by what has reached the buffer.
void Station::Follow(const SourceSample &sample) {
    const auto now = Clock::now();
    const uint64_t frames = sample.video.frames + sample.audio.frames;
    if (m_news.session_at > m_sessionAt) {
        BeginSession(m_news.session_at);
    }
    WatchPauses(sample, now);
    if (frames == m_frames) {
        return;
    }
    m_frames = frames;
    if (m_awaitsFirst) {
        m_awaitsFirst = false;
        m_firstFrame.Observe(Seconds(now - m_sessionAt).count());
        if (m_hadFrames) {
            m_recovery.Observe(Seconds(now - m_lastFrameAt).count());
        }
    }
    m_hadFrames = true;
    m_lastFrameAt = now;
}

void Station::WatchPauses(const SourceSample &sample, Clock::time_point now) {
    if (!m_alone || ProtocolOf(m_config.url) != Protocol::kHls || m_config.stall_watch) {
        return;
    }
    const auto wanted = m_pauses.Look({sample.video.frames, sample.audio.frames}, now);
    if (wanted && *wanted != m_stallWatch) {
        m_stallWatch = *wanted;
        m_buffer->SetStallWatch(m_stallWatch);
    }
}

void Station::TakeSample(const SourceSample &sample) {
    m_sample = sample;
    m_sampleAt = Clock::now();
}

// What goes on over all sources of this station, so that no counter falls while the buffer is the same.
void Station::SumUp() {
    m_sample.first_frame = m_firstFrame;
    m_sample.recovery = m_recovery;
    const uint64_t logged = m_news.reconnects;
    const uint64_t seen = m_rebuildsSeen + (IsOpen() ? m_source->RebuildsSeen() : 0);
    const uint64_t more = seen > logged ? seen - logged : 0;
    // The state may change a moment before the log says so. A line that never came has been lost.
    constexpr std::chrono::seconds kLate{10};
    if (more != m_moreThanLogged) {
        m_moreThanLogged = more;
        m_moreSince = Clock::now();
    } else if (Clock::now() - m_moreSince >= kLate) {
        m_unexplained = std::max(m_unexplained, more);
    }
    m_sample.rebuilds = static_cast<unsigned>(m_restarts + std::max(seen, logged + m_unexplained));
    m_sample.rebuild_reasons = m_news.reconnect_reasons;
    if (m_unexplained > 0) {
        m_sample.rebuild_reasons["other"] += m_unexplained;
    }
    if (m_restarts > 0) {
        m_sample.rebuild_reasons["restart"] = m_restarts;
    }
}

// There is nothing to look at: what was measured last is over.
void Station::Idle() {
    const auto now = Clock::now();
    m_sample.flow = Delivered(m_sample) ? Flow::kSilent : Flow::kNone;
    for (TrackSample *const track :
         {static_cast<TrackSample *>(&m_sample.video), static_cast<TrackSample *>(&m_sample.audio)}) {
        track->bitrate = 0;
        track->measured_fps = 0;
        if (track->age_ns) {
            *track->age_ns += static_cast<uint64_t>((now - m_sampleAt) / std::chrono::nanoseconds(1));
        }
    }
    m_sampleAt = now;
    m_sample.retry_in_s.reset();
    if (m_closing.valid()) {
        m_sample.state = "closing";
    } else if (m_blockedBy && !m_retired) {
        m_sample.retry_in_s = std::max(0.0, Seconds(m_retryAt - now).count());
    }
}

const SourceSample &Station::Sample() {
    if (IsOpen()) {
        TakeSample(m_source->Sample());
    } else {
        Idle();
    }
    SumUp();
    return m_sample;
}

}  // namespace tool
