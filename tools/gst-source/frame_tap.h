// Counts what a source writes, frame by frame, up to the N-th.
#pragma once

#include <array>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>

#include "fd.h"
#include "sample.h"
#include "shb.h"

namespace tool {

// Access units of video count; audio frames only of a stream that shows no video for a while after its first
// audio, because either may come first. What is counted ends with the N-th: of the other track, all that was
// written before it.
class FrameTap {
  public:
    static constexpr std::chrono::milliseconds kVideoMayFollow{2000};

    // Begins to count on a thread of its own. To be made before the source is opened. `map` must outlive the
    // tap. `on_reached` is called once by that thread. Throws std::runtime_error with a message for people.
    FrameTap(shb_map_t *map, unsigned channel, uint64_t frames, std::function<void()> on_reached = nullptr,
             std::chrono::milliseconds video_may_follow = kVideoMayFollow);
    ~FrameTap();
    FrameTap(const FrameTap &) = delete;
    FrameTap &operator=(const FrameTap &) = delete;

    bool Reached() const;
    // Frames that were overwritten before the tap saw them. They count, but nobody knows their bytes.
    uint64_t Lost() const;
    // Of one track, as far as they are counted.
    uint64_t Frames(shb_kind_t kind) const;
    // Once the goal is reached: puts what was counted in the place of the counters of the buffer.
    void Report(SourceSample &sample) const;

    // Counts what the buffer still holds and ends the thread. The track's writers should have been closed.
    void Finish();

    // For a reader of the same track that wants the counted frames alone: what is known of the frame with
    // this number, from 0, of all that the track has had. Waits a while as long as nothing is known. A tap
    // that ended before its goal lets everything through.
    enum class Verdict { kWithin, kBeyond, kUnknown };
    Verdict Judge(shb_kind_t kind, uint64_t number, std::chrono::milliseconds wait) const;

  private:
    struct CloseReader {
        void operator()(shb_reader_t *reader) const { shb_reader_close(reader); }
    };
    struct CloseSet {
        void operator()(shb_set_t *set) const { shb_set_close(set); }
    };
    using Clock = std::chrono::steady_clock;

    struct Counted {
        uint64_t frames = 0;
        uint64_t bytes = 0;
        uint64_t key_frames = 0;
        uint64_t lost = 0;

        void Add(const shb_frame_t &frame, uint64_t most);
    };
    struct Track {
        std::unique_ptr<shb_reader_t, CloseReader> reader;
        shb_frame_t next{};  // has been read, and is not counted yet
        bool has_next = false;
        bool ended = false;
    };

    void Run();
    bool Peek(Track &track);
    void CountVideo();
    void CountAudio(uint64_t until_ns);
    bool HasVideo() const;
    bool SoundIsEnough() const;
    bool WaitForMore();
    void Conclude(bool reached);

    shb_map_t *const m_map;
    const unsigned m_channel;
    const uint64_t m_goal;
    const std::function<void()> m_onReached;
    const std::chrono::milliseconds m_videoMayFollow;
    Fd m_stop;
    // The thread's own.
    std::array<Track, 2> m_tracks;  // by shb_kind_t
    std::unique_ptr<shb_set_t, CloseSet> m_set;
    std::optional<Clock::time_point> m_firstAudio;
    uint64_t m_reachedAt = 0;  // arrival of the last frame that counts
    bool m_finishing = false;

    mutable std::mutex m_mutex;
    mutable std::condition_variable m_changed;
    std::array<Counted, 2> m_counted;  // by shb_kind_t
    Counted m_soundAtGoal;             // audio up to its N-th frame
    bool m_reached = false;
    bool m_ended = false;
    std::thread m_thread;
};

}  // namespace tool
