// The last ten minutes of every source, a point a second.
#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "record.h"
#include "view.h"

namespace tool {

struct HistoryPoint {
    bool known = false;  // no sample was taken in this second
    uint32_t video_bitrate = 0;
    uint32_t audio_bitrate = 0;
    double video_fps = 0;
    Flow flow = Flow::kNone;
};

// Any thread.
class History {
  public:
    using Clock = std::chrono::steady_clock;
    static constexpr size_t kPoints = 600;

    // A source that is not in the sample is forgotten; one with the name of another one goes on with its points.
    void Add(const RunSample &run, Clock::time_point now);
    // Oldest first. Nothing for a name that is not in the newest sample.
    std::optional<std::vector<HistoryPoint>> Of(const std::string &source) const;

  private:
    mutable std::mutex m_mutex;
    std::map<std::string, std::deque<HistoryPoint>> m_sources;
    std::optional<Clock::time_point> m_last;
};

// Arrays of the same length; null where no sample was taken.
Record HistoryRecord(const std::vector<HistoryPoint> &points);

}  // namespace tool
