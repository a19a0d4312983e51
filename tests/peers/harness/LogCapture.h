// Standard output of the test program as lines: what the library logs and
// prints, in the order in which it was written.
#pragma once

#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "Wait.h"

namespace peers {

struct LogLine {
    std::string raw;
    std::string level;    // empty for a line that did not come through the logger
    std::string message;  // the whole line then
    Clock::time_point at;
};

// While an object lives, file descriptor 1 is a pipe into it. What GoogleTest prints on a
// failure lands between the library's lines, which is where a person wants to see it: Dump
// gives everything back to the real standard output.
class LogCapture {
  public:
    LogCapture();
    ~LogCapture() { Restore(); }
    LogCapture(const LogCapture &) = delete;
    LogCapture &operator=(const LogCapture &) = delete;

    std::vector<LogLine> Lines() const;
    // How many lines are exactly this level and message; an empty level means a bare line.
    size_t Count(const std::string &level, const std::string &message) const;
    bool Has(const std::string &level, const std::string &message) const { return Count(level, message) > 0; }
    bool WaitLine(const std::string &level, const std::string &message, size_t times = 1) const;
    // How many lines contain the text.
    size_t CountContaining(const std::string &text) const;

    // Ends the capture. Safe to call twice.
    void Restore();
    void Dump();

  private:
    template <typename Condition>
    size_t CountIf(Condition condition) const;
    void Read();
    // Waits until everything that has been written so far is among the lines.
    void Drain() const;

    int saved_ = -1;
    int pipe_ = -1;
    std::thread reader_;
    mutable std::mutex mutex_;
    std::vector<LogLine> lines_;
};

}  // namespace peers
