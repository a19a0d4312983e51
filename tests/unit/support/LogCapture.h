// What the library writes to standard output, as the host sees it:
// log lines taken apart, everything else as it is.
#pragma once

#include <cstddef>
#include <functional>
#include <iosfwd>
#include <mutex>
#include <string>
#include <vector>

namespace unit {

struct Line {
    std::string level;  // empty for a line that bypasses the logger
    std::string message;
};
bool operator==(const Line &left, const Line &right);
std::ostream &operator<<(std::ostream &out, const Line &line);

using Lines = std::vector<Line>;

Line Err(const std::string &message);
Line Warn(const std::string &message);
Line Info(const std::string &message);
Line Raw(const std::string &text);

// Joins lists of lines, in order.
Lines operator+(Lines left, const Lines &right);

// Waits for a condition that another thread brings about. The bound is far
// above any expected time: it ends a broken test.
bool Eventually(const std::function<bool()> &condition, int seconds = 60);

// Takes over file descriptor 1 for its lifetime. What was captured is printed when the test has failed.
class LogCapture {
  public:
    LogCapture();
    ~LogCapture();
    LogCapture(const LogCapture &) = delete;
    LogCapture &operator=(const LogCapture &) = delete;

    Lines All() const;
    // The lines since the last call.
    Lines Take();
    // Both look at the lines that have not been taken yet.
    std::size_t Count(const Line &line) const;
    bool WaitFor(const Line &line, std::size_t count = 1) const;
    // Everything, as it came.
    std::string Text() const { return TextFrom(0); }

  private:
    std::string TextFrom(std::size_t at) const;

    int m_saved;
    int m_file;
    // What has been taken apart so far: a wait looks again and again, and from several threads.
    mutable std::mutex m_mutex;
    mutable Lines m_lines;
    mutable std::size_t m_parsed = 0;  // bytes
    std::size_t m_taken = 0;
};

}  // namespace unit
