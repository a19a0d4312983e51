// Which of a source's two tracks it does not have, as far as the other one shows.
#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <optional>

#include "sample.h"
#include "shb.h"

namespace tool {

class PresenceWatch {
  public:
    using Clock = std::chrono::steady_clock;
    // What is to be said of a track now; nothing where no word is due. Indexed by shb_kind_t.
    using Words = std::array<std::optional<shb_presence_t>, 2>;

    // `session`: another number whenever the source connects anew. A track without a writer is absent once
    // the other one has brought data for 5 s of the session; a new session knows nothing yet.
    Words Look(unsigned session, const SourceSample &sample, Clock::time_point now) {
        const std::array<const TrackSample *, 2> tracks{&sample.video, &sample.audio};
        Words words;
        const bool anew = session != m_session;
        m_session = session;
        for (size_t kind = 0; kind < tracks.size(); ++kind) {
            m_tracks[kind].Follow(*tracks[kind], anew, now);
            if (anew && tracks[kind]->presence == SHB_PRESENCE_ABSENT) {
                words[kind] = SHB_PRESENCE_UNKNOWN;
            }
        }
        constexpr std::chrono::seconds kLongEnough{5};
        for (size_t kind = 0; kind < tracks.size(); ++kind) {
            // The word of an earlier session counts no more; one of this session does.
            const bool open = m_tracks[kind].opened || tracks[kind]->open;
            const bool known =
                tracks[kind]->presence != SHB_PRESENCE_UNKNOWN && tracks[kind]->presence != m_tracks[kind].before;
            const bool absent = tracks[kind]->presence == SHB_PRESENCE_ABSENT;
            if (!open && !known && !absent && m_tracks[1 - kind].brought >= kLongEnough) {
                words[kind] = SHB_PRESENCE_ABSENT;
            }
        }
        return words;
    }

  private:
    // One track since the session began.
    struct Track {
        uint64_t epoch = 0;
        uint64_t frames = 0;
        uint32_t before = SHB_PRESENCE_UNKNOWN;  // its presence when the session began
        bool opened = false;
        std::optional<Clock::time_point> first;
        Clock::duration brought{0};  // from the first frame to the last one

        void Follow(const TrackSample &track, bool anew, Clock::time_point now) {
            const bool now_opened = track.epoch != epoch;
            opened = !anew && (opened || now_opened);
            before = anew ? track.presence : before;
            // The old pipeline may go on for a while in the new session.
            if (anew || now_opened) {
                first.reset();
                brought = Clock::duration::zero();
            }
            if (track.frames != frames) {
                first = first.value_or(now);
                brought = now - *first;
            }
            epoch = track.epoch;
            frames = track.frames;
        }
    };

    unsigned m_session = 0;
    std::array<Track, 2> m_tracks;
};

}  // namespace tool
