#include "http/picture_schedule.h"

#include <algorithm>

namespace tool {

void PictureSchedule::Ask(const std::string &source, Clock::time_point now) {
    m_entries[source].asked = now;
}

// Nothing when nobody wants it any more.
std::optional<PictureSchedule::Clock::time_point> PictureSchedule::DueAt(const Entry &entry, Clock::time_point now) const {
    if (now - entry.asked > kInterest) {
        return std::nullopt;
    }
    return std::max(m_restUntil, entry.made ? *entry.made + kInterval : now);
}

std::optional<std::string> PictureSchedule::Next(Clock::time_point now) {
    // What nobody has asked for in a long time is forgotten: names come and go.
    for (auto entry = m_entries.begin(); entry != m_entries.end();) {
        entry = now - entry->second.asked > kInterest + kInterval ? m_entries.erase(entry) : std::next(entry);
    }
    const std::pair<const std::string, Entry> *oldest = nullptr;
    for (const auto &entry : m_entries) {
        const auto due = DueAt(entry.second, now);
        const auto made = entry.second.made.value_or(Clock::time_point::min());
        if (due && *due <= now && (oldest == nullptr || made < oldest->second.made.value_or(Clock::time_point::min()))) {
            oldest = &entry;
        }
    }
    return oldest == nullptr ? std::nullopt : std::optional<std::string>(oldest->first);
}

PictureSchedule::Clock::time_point PictureSchedule::LookAt(Clock::time_point now) const {
    Clock::time_point next = now + kInterest;
    for (const auto &entry : m_entries) {
        next = std::min(next, DueAt(entry.second, now).value_or(next));
    }
    return next;
}

void PictureSchedule::Done(const std::string &source, Clock::time_point now, double cpu_s) {
    m_entries[source].made = now;
    m_restUntil = now + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(kRest * cpu_s));
}

}  // namespace tool
