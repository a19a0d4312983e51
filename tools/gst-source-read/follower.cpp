#include "follower.h"

#include <stdexcept>
#include <utility>

#include "text.h"

namespace reader {
namespace {

constexpr size_t kFirstCapacity = size_t{256} * 1024;

// Of the writer that has the track, or, when there is none, of the next one.
uint64_t EpochInForce(const shb_map_t *map, const Options &options) {
    shb_stats_t stats{};
    shb_map_stats(map, options.channel, options.stream, options.kind, &stats);
    return stats.writer_pid != 0 ? stats.epoch : stats.epoch + 1;
}

}  // namespace

Follower::Follower(const Options &options, std::string name, Tell tell)
    : m_options(options), m_name(std::move(name)), m_tell(std::move(tell)), m_data(kFirstCapacity) {
    // What following would wait for without end, or what is not waited for, is said here.
    if (const Map map = m_options.follow ? TryAttachLive(m_name) : Attach(m_name)) {
        m_host = InfoOf(map.get());
        m_home = EpochInForce(map.get(), m_options);
    }
    shb_follow_options_t follow{};
    follow.channel = m_options.channel;
    follow.stream = m_options.stream;
    follow.kind = m_options.kind;
    follow.start = m_options.start;
    shb_follow_t *opened = nullptr;
    if (const int result = shb_follow_open(m_name.c_str(), &follow, &opened); result != SHB_OK) {
        Fail(result);
    }
    m_follow.reset(opened);
}

std::string Follower::TrackName() const {
    return std::string(KindName(m_options.kind)) + " " + std::to_string(m_options.channel) + "." +
           std::to_string(m_options.stream) + " of " + m_name;
}

void Follower::Fail(int result) const {
    std::string reason = AttachReason(m_name, result);
    if (result == SHB_ERR_ARG) {
        // Either the name or the track is wrong; the name shows here.
        const shb_geometry_t geometry = InfoOf(Attach(m_name).get()).geometry;
        reason = m_name + " has " + tool::Count(geometry.channels, "channel", "channels") + " of " +
                 tool::Count(geometry.streams, "stream", "streams") + ", counted from 0";
    }
    throw std::runtime_error(reason);
}

Follower::Got Follower::Next(int timeout_ms) {
    for (;;) {
        // Seen before the read, so that what the writer wrote last is still read.
        const shb_map_t *map = shb_follow_map(m_follow.get());
        const bool ending = !m_options.follow && map != nullptr && EpochInForce(map, m_options) > m_home;
        uint32_t events = 0;
        const int result =
            shb_follow_read(m_follow.get(), m_data.data(), m_data.size(), ending ? 0 : timeout_ms, &m_frame, &events);
        if (result != SHB_OK && result != SHB_ERR_TIMEOUT && result != SHB_ERR_TOO_BIG) {
            Fail(result);
        }
        if (!TellOfHost(events)) {
            return Got::kEnd;
        }
        if (result == SHB_ERR_TOO_BIG) {
            m_data.resize(m_frame.size);
            continue;
        }
        if (result == SHB_ERR_TIMEOUT) {
            if (ending && events == 0) {
                m_tell(TrackName() + ": its writer has gone");
                return Got::kEnd;
            }
            return Got::kNothing;
        }
        if (!m_options.follow && m_frame.epoch > m_home) {
            if (m_frame.lost_before > 0) {
                m_tell(TrackName() + ": " + tool::Count(m_frame.lost_before, "frame", "frames") + " lost at its end");
            }
            m_tell(TrackName() + ": another writer has it now; --follow goes on with that one");
            return Got::kEnd;
        }
        TellOfFrame(events);
        return Got::kFrame;
    }
}

// False when the run ends with the host.
bool Follower::TellOfHost(uint32_t events) {
    const shb_map_t *map = shb_follow_map(m_follow.get());
    if ((events & SHB_FOLLOW_GONE) != 0 || (!m_options.follow && map == nullptr)) {
        m_tell(m_name + ": its host, process " + CreatorOf(m_host) + ", has gone" +
               (m_options.follow ? "; waiting for it to come back" : ""));
        m_waiting = m_options.follow;
        if (!m_options.follow) {
            return false;
        }
    }
    if ((events & SHB_FOLLOW_ATTACHED) != 0) {
        m_host = InfoOf(map);
        if (m_waiting) {
            m_tell(m_name + ": here, made by process " + CreatorOf(m_host));
        }
        m_waiting = false;
    } else if (map == nullptr && !m_waiting) {
        m_tell(m_name + ": not there yet, waiting for it");
        m_waiting = true;
    }
    return true;
}

void Follower::TellOfFrame(uint32_t events) {
    const std::string place =
        " before frame " + std::to_string(m_frame.sequence) + " of epoch " + std::to_string(m_frame.epoch);
    if ((events & SHB_FOLLOW_EPOCH) != 0) {
        m_tell(TrackName() + ": a new writer, epoch " + std::to_string(m_frame.epoch));
    }
    if (m_frame.lost > 0) {
        m_tell(TrackName() + ": " + tool::Count(m_frame.lost, "frame", "frames") + " lost" + place +
               (m_frame.lost_before > 0 ? ", " + std::to_string(m_frame.lost_before) + " of them in earlier epochs" : ""));
    }
    if (m_frame.left_out > 0) {
        m_tell(TrackName() + ": " + tool::Count(m_frame.left_out, "frame", "frames") + " larger than the track " +
               (m_frame.left_out == 1 ? "was" : "were") + " left out" + place);
    }
    m_newDescription.reset();
    shb_description_t now{};
    // A frame may come before its writer knows what it carries.
    if ((events & SHB_FOLLOW_MEDIA) != 0 && shb_reader_description(shb_follow_reader(m_follow.get()), &now) == SHB_OK) {
        m_newDescription = now;
        m_tell(TrackName() + ": " + Describe(m_options.kind, now));
    }
}

}  // namespace reader
