// One source of a fleet: its options, its buffer, and what has become of it over all restarts.
#pragma once

#include <chrono>
#include <future>
#include <memory>
#include <optional>
#include <string>
#include <thread>

#include "pause_watch.h"
#include "reason.h"
#include "sample.h"
#include "shared_buffer.h"
#include "source.h"
#include "source_config.h"

namespace tool {

class Station {
  public:
    using Clock = std::chrono::steady_clock;

    // The buffer is made with the first Open() unless it is given here. `alone`: no other source uses it.
    Station(SourceConfig config, unsigned channel, std::shared_ptr<SharedBuffer> shared, bool alone);
    ~Station();
    Station(const Station &) = delete;
    Station &operator=(const Station &) = delete;

    const std::string &Name() const { return m_config.name; }
    const SourceConfig &Config() const { return m_next ? *m_next : m_config; }
    unsigned Channel() const { return m_channel; }
    const SharedBuffer *Buffer() const { return m_buffer.get(); }

    // Makes the buffer if need be and opens the source. What keeps it from that is in the sample, and is tried again.
    void Open();
    // Close it, and open it again as `next` or leave it closed for good. Returns at once.
    void Reopen(const SourceConfig &next);
    void Retire();
    // Forgets that it was to be opened again, and closes it.
    void BeginClose();

    // What the log says of it.
    void Take(const SourceNews &news);
    // Looks at the source, and goes on with what was begun; opens it only with `may_open`. False once it is retired and closed.
    bool Tick(bool may_open);

    bool IsRetired() const { return m_retired; }
    bool IsClosed() const { return !m_source && !m_closing.valid(); }
    bool WasTried() const { return m_tried; }
    // The library refused to open it, or its port is taken: it will be tried again.
    bool IsBlocked() const { return m_tried && IsClosed() && !m_retired; }
    // Why it is blocked, once for each reason.
    std::optional<std::string> TakeComplaint();
    // Waits for the end of a close. False when it has not come by then: the source must be left as it is.
    bool AwaitClose(Clock::time_point deadline);

    // The whole, for a report.
    const SourceSample &Sample();
    // The counters as of the last Tick(), the rest as of the last Sample().
    const SourceSample &Latest() const { return IsOpen() ? m_source->Latest() : m_sample; }

  private:
    bool IsOpen() const { return m_source && !m_closing.valid(); }
    void Block(const std::string &text, const std::string &code);
    void Follow(const SourceSample &sample);
    void UseNext();
    void TakeSample(const SourceSample &sample);
    void BeginSession(Clock::time_point at);
    void SumUp();
    void Idle();
    void WatchPauses(const SourceSample &sample, Clock::time_point now);

    SourceConfig m_config;
    const unsigned m_channel;
    const bool m_ownBuffer;
    const bool m_alone;
    std::shared_ptr<SharedBuffer> m_buffer;
    std::unique_ptr<Source> m_source;

    std::thread m_closer;
    std::future<void> m_closing;
    std::optional<SourceConfig> m_next;
    bool m_retired = false;
    bool m_tried = false;
    std::optional<Reason> m_blockedBy;
    std::string m_complaint;  // the last one; empty since it was open
    bool m_complains = false;
    Clock::time_point m_retryAt;

    SourceNews m_news;
    SourceSample m_sample;  // what is reported while there is no source, and what it was when it was reported last
    Clock::time_point m_sampleAt;
    Histogram m_firstFrame;
    Histogram m_recovery;
    uint64_t m_restarts = 0;
    uint64_t m_rebuildsSeen = 0;  // without the log, of sources before the present one
    uint64_t m_unexplained = 0;   // rebuilds of which the log has said nothing
    uint64_t m_moreThanLogged = 0;
    Clock::time_point m_moreSince;
    Clock::time_point m_sessionAt;
    bool m_awaitsFirst = false;
    bool m_hadFrames = false;
    uint64_t m_frames = 0;
    Clock::time_point m_lastFrameAt;
    PauseWatch m_pauses;
    double m_stallWatch = -1;  // s, in force
};

}  // namespace tool
