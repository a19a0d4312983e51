// When a run that is to end after N frames has them from one source.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>

#include "sample.h"

namespace tool {

class FrameGoal {
  public:
    using Clock = std::chrono::steady_clock;

    explicit FrameGoal(uint64_t frames) : m_frames(frames) {}

    // Access units of video count; audio frames only of a stream that shows no video for a while after
    // its first audio, because either may come first.
    bool Reached(const SourceSample &sample, Clock::time_point now) {
        if (sample.video.frames > 0 || sample.video.epoch > 0) {
            return sample.video.frames >= m_frames;
        }
        if (sample.audio.frames > 0 && !m_firstAudio) {
            m_firstAudio = now;
        }
        constexpr std::chrono::seconds kVideoMayFollow{2};
        return sample.audio.frames >= m_frames && m_firstAudio && now - *m_firstAudio >= kVideoMayFollow;
    }

  private:
    const uint64_t m_frames;
    std::optional<Clock::time_point> m_firstAudio;
};

}  // namespace tool
