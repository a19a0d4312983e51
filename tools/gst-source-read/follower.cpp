#include "follower.h"

#include <poll.h>

#include <cstring>
#include <stdexcept>
#include <utility>

#include "interrupts.h"
#include "text.h"

namespace reader {
namespace {

constexpr size_t kFirstCapacity = size_t{256} * 1024;

bool SameMedia(shb_description_t left, shb_description_t right) {
    left.serial = right.serial = 0;
    return std::memcmp(&left, &right, sizeof left) == 0;
}

}  // namespace

Follower::Follower(const Options &options, std::string name, Tell tell)
    : m_options(options), m_name(std::move(name)), m_tell(std::move(tell)), m_data(kFirstCapacity) {
    if (Map map = m_options.follow ? TryAttach(m_name) : Attach(m_name)) {
        Use(std::move(map));
    } else {
        m_tell(m_name + ": not there yet, waiting for it");
    }
}

std::string Follower::TrackName() const {
    return std::string(KindName(m_options.kind)) + " " + std::to_string(m_options.channel) + "." +
           std::to_string(m_options.stream) + " of " + m_name;
}

void Follower::Use(Map map) {
    shb_reader_t *reader = nullptr;
    const int result =
        shb_reader_open(map.get(), m_options.channel, m_options.stream, m_options.kind, m_options.start, &reader);
    if (result == SHB_ERR_ARG) {
        const shb_geometry_t geometry = InfoOf(map).geometry;
        throw std::runtime_error(m_name + " has " + tool::Count(geometry.channels, "channel", "channels") + " of " +
                                 tool::Count(geometry.streams, "stream", "streams") + ", counted from 0");
    }
    if (result != SHB_OK) {
        throw std::runtime_error(m_name + ": " + Reason(result));
    }
    m_reader.reset(reader);
    m_map = std::move(map);
    m_creator = InfoOf(m_map).creator_pid;
    m_lastEpoch = 0;
    shb_stats_t stats{};
    shb_map_stats(m_map.get(), m_options.channel, m_options.stream, m_options.kind, &stats);
    m_home = stats.writer_pid != 0 ? stats.epoch : stats.epoch + 1;
}

Follower::Got Follower::Next(int timeout_ms) {
    if (m_map == nullptr) {
        Map map = TryAttachLive(m_name);
        if (map == nullptr) {
            // Nobody tells of new buffers.
            pollfd wake{tool::interrupts::WakeDescriptor(), POLLIN, 0};
            poll(&wake, 1, timeout_ms);
            tool::interrupts::Acknowledge();
            return Got::kNothing;
        }
        Use(std::move(map));
        m_tell(m_name + ": here, made by process " + std::to_string(m_creator));
    }
    for (;;) {
        const int result = shb_reader_read(m_reader.get(), m_data.data(), m_data.size(), m_ending ? 0 : timeout_ms, &m_frame);
        if (result == SHB_OK) {
            if (!m_options.follow && m_frame.epoch > m_home) {
                m_tell(TrackName() + ": another writer has it now; --follow goes on with that one");
                return Got::kEnd;
            }
            TakeFrame();
            return Got::kFrame;
        }
        if (result == SHB_ERR_TOO_BIG && m_frame.size > m_data.size()) {
            m_data.resize(m_frame.size);
            continue;
        }
        if (result == SHB_ERR_TIMEOUT) {
            if (m_ending) {
                m_tell(TrackName() + ": its writer has gone");
                return Got::kEnd;
            }
            // What it wrote last may have come since.
            m_ending = !m_options.follow && WriterGone();
            return Got::kNothing;
        }
        if (result != SHB_ERR_CLOSED) {
            throw std::runtime_error(m_name + ": " + Reason(result));
        }
        m_tell(m_name + ": its host, process " + std::to_string(m_creator) + ", has gone" +
               (m_options.follow ? "; waiting for it to come back" : ""));
        if (!m_options.follow) {
            return Got::kEnd;
        }
        m_reader.reset();
        m_map.reset();
        return Got::kNothing;
    }
}

bool Follower::WriterGone() const {
    shb_stats_t stats{};
    return shb_map_stats(m_map.get(), m_options.channel, m_options.stream, m_options.kind, &stats) == SHB_OK &&
           (stats.epoch > m_home || (stats.epoch == m_home && stats.writer_pid == 0));
}

void Follower::TakeFrame() {
    if (m_lastEpoch != 0 && m_frame.epoch != m_lastEpoch) {
        m_tell(TrackName() + ": a new writer, epoch " + std::to_string(m_frame.epoch));
    }
    m_lastEpoch = m_frame.epoch;
    if (m_frame.lost > 0) {
        m_tell(TrackName() + ": " + tool::Count(m_frame.lost, "frame", "frames") + " lost before frame " +
               std::to_string(m_frame.sequence) + " of epoch " + std::to_string(m_frame.epoch));
    }
    TakeDescription();
}

void Follower::TakeDescription() {
    m_newDescription.reset();
    shb_description_t now{};
    // A frame may come before its writer knows what it carries.
    if (shb_reader_description(m_reader.get(), &now) != SHB_OK || (m_description && SameMedia(*m_description, now))) {
        return;
    }
    m_description = m_newDescription = now;
    m_tell(TrackName() + ": " + Describe(m_options.kind, now));
}

}  // namespace reader
