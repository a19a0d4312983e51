// Which source gets the next picture, and when: a fleet's pictures share a quarter of one core.
#pragma once

#include <chrono>
#include <map>
#include <optional>
#include <string>

namespace tool {

class PictureSchedule {
  public:
    using Clock = std::chrono::steady_clock;
    // A picture is made only for a source that was asked for within this time,
    static constexpr std::chrono::seconds kInterest{10};
    // and no more often than this.
    static constexpr std::chrono::seconds kInterval{5};
    // After a child that took t of the processor nothing is made for this many t.
    static constexpr int kRest = 3;

    void Ask(const std::string &source, Clock::time_point now);
    // The source whose turn it is: the one whose picture is the oldest. The caller reports its end by Done().
    std::optional<std::string> Next(Clock::time_point now);
    // When to look again, unless somebody asks before.
    Clock::time_point LookAt(Clock::time_point now) const;
    void Done(const std::string &source, Clock::time_point now, double cpu_s);

  private:
    struct Entry {
        Clock::time_point asked;
        std::optional<Clock::time_point> made;
    };
    std::optional<Clock::time_point> DueAt(const Entry &entry, Clock::time_point now) const;

    std::map<std::string, Entry> m_entries;
    Clock::time_point m_restUntil;
};

}  // namespace tool
