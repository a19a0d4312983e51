// How long an HLS stream may be silent: it brings a segment at once and then nothing until the next one, and how long that
// takes is seen and not announced.
#pragma once

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdint>
#include <optional>

namespace tool {

class PauseWatch {
  public:
    using Clock = std::chrono::steady_clock;

    static constexpr double kShortest = 10;  // s, of a stall watch
    static constexpr double kLongest = 60;
    // At the beginning several segments come one right behind the other; their pauses say nothing of those that follow.
    static constexpr double kUntilKnown = 30;
    static constexpr std::chrono::seconds kLearning{60};

    // A session has begun: what was silent before it was no pause.
    void BeginSession() {
        for (Track &track : m_tracks) {
            track.last_at.reset();
        }
    }

    // Frames of both tracks so far. The stall watch of seconds that suits them, or nothing as long as there is no pause. Each
    // track counts by itself, because the buffer watches each by itself.
    std::optional<double> Look(const std::array<uint64_t, 2> &frames, Clock::time_point now) {
        for (size_t kind = 0; kind < m_tracks.size(); ++kind) {
            Track &track = m_tracks[kind];
            if (frames[kind] == track.frames) {
                continue;
            }
            track.frames = frames[kind];
            m_since = m_since.value_or(now);
            m_longest = std::max(m_longest, now - track.last_at.value_or(now));
            track.last_at = now;
        }
        constexpr std::chrono::seconds kPause{1};
        if (m_longest <= kPause) {
            return std::nullopt;
        }
        constexpr double kPauses = 3;
        const double least = now - *m_since < kLearning ? kUntilKnown : kShortest;
        return std::clamp(kPauses * std::chrono::duration<double>(m_longest).count(), least, kLongest);
    }

  private:
    struct Track {
        uint64_t frames = 0;
        std::optional<Clock::time_point> last_at;
    };

    std::array<Track, 2> m_tracks;  // by shb_kind_t
    std::optional<Clock::time_point> m_since;
    Clock::duration m_longest{0};
};

}  // namespace tool
