#include "frame_tap.h"

#include <poll.h>
#include <sys/eventfd.h>

#include <algorithm>
#include <ctime>
#include <stdexcept>
#include <string>

namespace tool {
namespace {

constexpr uint64_t kEverything = UINT64_MAX;

// The clock of shb_frame_t::arrival_ns.
uint64_t NowNs() {
    constexpr uint64_t kSecond = 1'000'000'000;
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<uint64_t>(now.tv_sec) * kSecond + static_cast<uint64_t>(now.tv_nsec);
}

}  // namespace

void FrameTap::Counted::Add(const shb_frame_t &frame, uint64_t most) {
    const uint64_t unseen = std::min(frame.lost, most - frames);
    frames += unseen;
    lost += unseen;
    if (frames < most) {
        ++frames;
        bytes += frame.size;
        key_frames += (frame.flags & SHB_FRAME_KEY) != 0 ? 1U : 0U;
    }
}

FrameTap::FrameTap(shb_map_t *map, unsigned channel, uint64_t frames, std::function<void()> on_reached,
                   std::chrono::milliseconds video_may_follow)
    : m_map(map),
      m_channel(channel),
      m_goal(frames),
      m_onReached(std::move(on_reached)),
      m_videoMayFollow(video_may_follow),
      m_stop(eventfd(0, EFD_CLOEXEC)) {
    shb_set_t *set = nullptr;
    int result = shb_set_open(&set);
    m_set.reset(set);
    for (const shb_kind_t kind : {SHB_VIDEO, SHB_AUDIO}) {
        shb_reader_t *reader = nullptr;
        if (result == SHB_OK) {
            result = shb_reader_open(map, channel, 0, kind, SHB_START_OLDEST, &reader);
        }
        m_tracks[kind].reader.reset(reader);
        if (result == SHB_OK) {
            result = shb_set_add(set, reader);
        }
    }
    if (result != SHB_OK || !m_stop) {
        throw std::runtime_error(std::string("the frames cannot be counted: ") +
                                 shb_strerror(result == SHB_OK ? SHB_ERR_SYSTEM : result));
    }
    m_thread = std::thread(&FrameTap::Run, this);
}

FrameTap::~FrameTap() {
    Finish();
}

bool FrameTap::Reached() const {
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_reached;
}

uint64_t FrameTap::Lost() const {
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_counted[SHB_VIDEO].lost + m_counted[SHB_AUDIO].lost;
}

uint64_t FrameTap::Frames(shb_kind_t kind) const {
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_counted[kind].frames;
}

void FrameTap::Report(SourceSample &sample) const {
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (!m_reached) {
        return;
    }
    const auto put = [](const Counted &counted, TrackSample &track) {
        track.frames = counted.frames;
        track.bytes = counted.bytes;
        track.key_frames = counted.key_frames;
    };
    put(m_counted[SHB_VIDEO], sample.video);
    put(m_counted[SHB_AUDIO], sample.audio);
}

void FrameTap::Finish() {
    eventfd_write(m_stop.Get(), 1);
    if (m_thread.joinable()) {
        m_thread.join();
    }
}

FrameTap::Verdict FrameTap::Judge(shb_kind_t kind, uint64_t number, std::chrono::milliseconds wait) const {
    std::unique_lock<std::mutex> lock(m_mutex);
    const auto look = [&] {
        // While no video has come, the sound may be what counts.
        const bool sound_may_count = kind == SHB_AUDIO && !m_reached && m_counted[SHB_VIDEO].frames == 0;
        const uint64_t certain = sound_may_count ? m_soundAtGoal.frames : m_counted[kind].frames;
        if (number < certain || (m_ended && !m_reached)) {
            return Verdict::kWithin;
        }
        return m_reached ? Verdict::kBeyond : Verdict::kUnknown;
    };
    m_changed.wait_for(lock, wait, [&] { return look() != Verdict::kUnknown; });
    return look();
}

void FrameTap::Run() {
    bool reached = false;
    do {
        // Audio that arrived later than this may follow a picture that has not been seen yet.
        const uint64_t seen_until = m_finishing ? kEverything : NowNs();
        CountVideo();
        reached = m_reachedAt > 0;
        CountAudio(reached ? m_reachedAt : seen_until);
        reached = reached || SoundIsEnough();
    } while (!reached && WaitForMore());
    Conclude(reached);
    if (reached && m_onReached) {
        m_onReached();
    }
}

// Whether there is a frame that has not been counted, now.
bool FrameTap::Peek(Track &track) {
    while (!track.has_next && !track.ended) {
        const void *data = nullptr;
        const int result = shb_reader_borrow(track.reader.get(), 0, &data, &track.next);
        if (result == SHB_ERR_TIMEOUT) {
            return false;
        }
        if (result != SHB_OK) {
            track.ended = true;
            return false;
        }
        // A frame that was overwritten meanwhile is in the `lost` of the next one.
        track.has_next = shb_reader_return(track.reader.get()) == SHB_OK;
    }
    return track.has_next;
}

void FrameTap::CountVideo() {
    Track &video = m_tracks[SHB_VIDEO];
    while (m_reachedAt == 0 && Peek(video)) {
        video.has_next = false;
        const std::lock_guard<std::mutex> lock(m_mutex);
        Counted &counted = m_counted[SHB_VIDEO];
        counted.Add(video.next, m_goal);
        if (counted.frames >= m_goal) {
            m_reachedAt = video.next.arrival_ns;
        }
        m_changed.notify_all();
    }
}

void FrameTap::CountAudio(uint64_t until_ns) {
    Track &audio = m_tracks[SHB_AUDIO];
    while (Peek(audio) && audio.next.arrival_ns <= until_ns) {
        audio.has_next = false;
        m_firstAudio = m_firstAudio.value_or(Clock::now());
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_counted[SHB_AUDIO].Add(audio.next, kEverything);
        m_soundAtGoal.Add(audio.next, m_goal);
        m_changed.notify_all();
    }
}

bool FrameTap::HasVideo() const {
    shb_stats_t stats{};
    return shb_map_stats(m_map, m_channel, 0, SHB_VIDEO, &stats) == SHB_OK && (stats.epoch > 0 || stats.total_frames > 0);
}

bool FrameTap::SoundIsEnough() const {
    return m_firstAudio && m_soundAtGoal.frames >= m_goal && Clock::now() - *m_firstAudio >= m_videoMayFollow && !HasVideo();
}

// False when nothing more will come.
bool FrameTap::WaitForMore() {
    if (m_finishing || (m_tracks[SHB_VIDEO].ended && m_tracks[SHB_AUDIO].ended)) {
        return false;
    }
    if (m_tracks[SHB_AUDIO].has_next) {
        return true;
    }
    int wait_ms = -1;
    if (m_soundAtGoal.frames >= m_goal && m_counted[SHB_VIDEO].frames == 0) {
        // Later, only the next frame can change anything.
        const auto left = *m_firstAudio + m_videoMayFollow - Clock::now();
        const auto ms = std::chrono::ceil<std::chrono::milliseconds>(left).count();
        wait_ms = ms > 0 ? static_cast<int>(ms) : -1;
    }
    // The descriptor stays readable until the set has been asked to the end. Readers that have ended are of
    // no interest to it any more.
    for (Track &track : m_tracks) {
        if (track.ended && track.reader) {
            shb_set_remove(m_set.get(), track.reader.get());
            track.reader.reset();
        }
    }
    shb_reader_t *ready = nullptr;
    if (shb_set_next(m_set.get(), 0, &ready) == SHB_OK) {
        return true;
    }
    std::array<pollfd, 2> wait{{{shb_set_fd(m_set.get()), POLLIN, 0}, {m_stop.Get(), POLLIN, 0}}};
    poll(wait.data(), wait.size(), wait_ms);
    // What came until then is still counted.
    m_finishing = (wait[1].revents & POLLIN) != 0;
    return true;
}

void FrameTap::Conclude(bool reached) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_reached = reached;
    m_ended = true;
    if (reached && m_reachedAt == 0) {
        m_counted[SHB_AUDIO] = m_soundAtGoal;
    }
    m_changed.notify_all();
}

}  // namespace tool
