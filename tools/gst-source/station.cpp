#include "station.h"

#include <gst/gst.h>

#include <algorithm>
#include <stdexcept>
#include <utility>

#include "record.h"
#include "source_fields.h"
#include "udp_port.h"

namespace tool {
namespace {

using Seconds = std::chrono::duration<double>;

// The framework is initialised once the first source exists.
void RequireSink() {
    GstElementFactory *factory = gst_element_factory_find("shbsink");
    if (factory == nullptr) {
        throw std::runtime_error(
            "the GStreamer element \"shbsink\" is missing; GST_PLUGIN_PATH must name the directory of libgstshbsink.so");
    }
    gst_object_unref(factory);
}

// As long as the library waits between two sessions.
constexpr std::chrono::seconds kRetry{3};

}  // namespace

Station::Station(SourceConfig config, unsigned channel, std::shared_ptr<SharedBuffer> shared, bool alone)
    : m_config(std::move(config)), m_channel(channel), m_ownBuffer(!shared), m_alone(alone), m_buffer(std::move(shared)) {
    m_sample.name = m_config.name;
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
        if (!m_buffer) {
            m_buffer = std::make_shared<SharedBuffer>(m_config.name, 1, m_config.memory);
            m_stallWatch = -1;
        }
        if (m_alone && m_stallWatch < 0) {
            m_stallWatch = StallWatchOf(m_config);
            m_buffer->SetStallWatch(m_stallWatch);
        }
        m_source = std::make_unique<Source>(m_config, m_channel, m_buffer->Get());
    } catch (const std::exception &error) {
        Block(error.what(), "full");
        return;
    }
    // Without it no source of this process would ever play.
    static const bool sink_is_there = (RequireSink(), true);
    static_cast<void>(sink_is_there);
    m_source->Take(m_news);
    m_sessionAt = Clock::now();
    m_awaitsFirst = true;
    if (!m_source->Open()) {
        m_source.reset();
        Block("the source could not be opened; the log says why", "");
    }
}

void Station::Block(const std::string &text, const std::string &code) {
    m_blockedBy = Reason{text, code, TimeNow(), true};
    m_retryAt = Clock::now() + kRetry;
    m_sample.state = "failed";
    m_sample.last_error = m_blockedBy;
}

void Station::BeginClose() {
    m_next.reset();
    if (m_closing.valid() || !m_source) {
        return;
    }
    TakeSample(m_source->Sample());
    std::packaged_task<void()> task([this] { m_source->Destroy(); });
    m_closing = task.get_future();
    m_closer = std::thread(std::move(task));
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
    m_closer.join();
    TakeSample(m_source->Latest());
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
    m_longestPause = Clock::duration::zero();
    m_sample.url = PublicUrl(m_config.url);
    m_sample.protocol = ProtocolOf(m_config.url).value();
}

// Times of sessions, by what has reached the buffer.
void Station::Follow(const SourceSample &sample) {
    const auto now = Clock::now();
    const uint64_t frames = sample.video.frames + sample.audio.frames;
    if (m_news.session_at > m_sessionAt) {
        m_sessionAt = m_news.session_at;
        m_awaitsFirst = true;
    }
    WatchPauses(frames, now);
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

// HLS brings a segment at once and then nothing until the next one: how long that takes is seen and not announced.
void Station::WatchPauses(uint64_t frames, Clock::time_point now) {
    if (!m_alone || ProtocolOf(m_config.url) != Protocol::kHls || m_config.stall_watch || !m_hadFrames || frames == m_frames ||
        m_awaitsFirst) {
        return;
    }
    m_longestPause = std::max(m_longestPause, now - m_lastFrameAt);
    constexpr double kShortest = 10;
    constexpr double kLongest = 60;
    constexpr double kPauses = 3;
    constexpr std::chrono::seconds kPause{1};
    const double wanted = std::clamp(kPauses * Seconds(m_longestPause).count(), kShortest, kLongest);
    if (m_longestPause > kPause && wanted != m_stallWatch) {
        m_stallWatch = wanted;
        m_buffer->SetStallWatch(wanted);
    }
}

void Station::TakeSample(const SourceSample &sample) {
    m_sample = sample;
    m_sample.first_frame = m_firstFrame;
    m_sample.recovery = m_recovery;
    if (m_restarts > 0) {
        m_sample.rebuild_reasons["restart"] = m_restarts;
    }
}

const SourceSample &Station::Sample() {
    if (IsOpen()) {
        TakeSample(m_source->Sample());
    } else if (m_closing.valid()) {
        m_sample.state = "closing";
        m_sample.flow = Flow::kNone;
    }
    return m_sample;
}

}  // namespace tool
