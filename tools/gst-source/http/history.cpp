#include "http/history.h"

#include <algorithm>
#include <cmath>
#include <set>

namespace tool {
namespace {

HistoryPoint PointOf(const SourceSample &source) {
    HistoryPoint point;
    point.known = true;
    point.video_bitrate = source.video.bitrate;
    point.audio_bitrate = source.audio.bitrate;
    point.video_fps = source.video.measured_fps;
    point.flow = source.flow;
    return point;
}

// Hundredths are enough for a curve.
double Hundredths(double value) {
    constexpr double kHundred = 100;
    return std::round(value * kHundred) / kHundred;
}

}  // namespace

void History::Add(const RunSample &run, Clock::time_point now) {
    const std::lock_guard lock(m_mutex);
    // Seconds without a sample leave a gap, so that a curve's width stays its time.
    size_t steps = 1;
    if (m_last) {
        const double seconds = std::chrono::duration<double>(now - *m_last).count();
        steps = static_cast<size_t>(std::clamp(std::round(seconds), 0.0, static_cast<double>(kPoints)));
    }
    // The next step counts from the end of this one: rounding must not add up.
    m_last = m_last && steps < kPoints ? *m_last + std::chrono::seconds(steps) : now;
    std::set<std::string> names;
    for (const SourceSample &source : run.sources) {
        names.insert(source.name);
        std::deque<HistoryPoint> &points = m_sources[source.name];
        for (size_t i = 1; i < steps && !points.empty(); ++i) {
            points.emplace_back();
        }
        if (steps == 0 && !points.empty()) {
            points.pop_back();
        }
        points.push_back(PointOf(source));
        while (points.size() > kPoints) {
            points.pop_front();
        }
    }
    for (auto source = m_sources.begin(); source != m_sources.end();) {
        source = names.count(source->first) > 0 ? std::next(source) : m_sources.erase(source);
    }
}

std::optional<std::vector<HistoryPoint>> History::Of(const std::string &source) const {
    const std::lock_guard lock(m_mutex);
    const auto found = m_sources.find(source);
    if (found == m_sources.end()) {
        return std::nullopt;
    }
    return std::vector<HistoryPoint>(found->second.begin(), found->second.end());
}

Record HistoryRecord(const std::vector<HistoryPoint> &points) {
    std::vector<Record> video;
    std::vector<Record> audio;
    std::vector<Record> rate;
    std::vector<Record> flow;
    for (const HistoryPoint &point : points) {
        video.push_back(point.known ? Record(point.video_bitrate) : Record(nullptr));
        audio.push_back(point.known ? Record(point.audio_bitrate) : Record(nullptr));
        rate.push_back(point.known ? Record(Hundredths(point.video_fps)) : Record(nullptr));
        flow.push_back(point.known ? Record(point.flow == Flow::kLive ? 1 : 0) : Record(nullptr));
    }
    Record record;
    record["step_s"] = 1;
    record["video_bps"] = std::move(video);
    record["audio_bps"] = std::move(audio);
    record["video_fps"] = std::move(rate);
    record["live"] = std::move(flow);
    return record;
}

}  // namespace tool
