// Takes the library's log, which goes to standard output, out of the way of the tool's own output.
//
// While it exists, file descriptor 1 (and 2 on request) is a pipe. A thread splits what comes into lines,
// takes escape sequences and secrets out, hands to the target and keeps for the live table what the policy
// lets through.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "fd.h"
#include "log_level.h"
#include "secrets.h"

namespace tool {

class LogCapture {
  public:
    // `target`: descriptor that lines are written to, -1 for none; not owned. The journal gets them as it
    // wants them, a terminal with their colours. `with_errors`: take descriptor 2 as well, for what the
    // framework says there would tear a table on the same terminal, or pass by the policy and the journal.
    // `on_line`: called with every line, by one thread and no more once the destructor is through.
    LogCapture(int target, bool with_errors, Masker masker, std::function<void(const std::string &)> on_line = nullptr,
               LogPolicy policy = {});
    // Puts the descriptors back once everything written so far has been handled. A target that takes nothing is waited for
    // two seconds.
    ~LogCapture();
    LogCapture(const LogCapture &) = delete;
    LogCapture &operator=(const LogCapture &) = delete;

    static constexpr size_t kKept = 50;
    // The last lines for the table, oldest first, at most kKept.
    std::vector<std::string> LastLines(size_t count) const;
    uint64_t LineCount() const { return m_lines.load(); }
    // Those among them that the policy keeps for the table.
    uint64_t NotedCount() const { return m_noted.load(); }

  private:
    void Read();
    void TakeIn(const char *data, size_t size);
    void HandOut(const std::string &line);
    void WriteToTarget(const std::string &line, const std::string &plain, LogLevel level);

    enum class Form { kPlain, kColored, kJournal };

    const int m_target;
    const Form m_form;
    const LogPolicy m_policy;
    const Masker m_masker;
    const bool m_withErrors;
    const std::function<void(const std::string &)> m_onLine;
    bool m_remember = true;  // for a crash: the target does not show what has been written
    Fd m_savedOut;
    Fd m_savedErr;
    Fd m_pipeRead;
    Fd m_stop;
    std::string m_partial;         // reader thread only
    bool m_targetStalled = false;  // likewise: it has had its time at the end
    std::atomic<bool> m_ending{false};
    std::chrono::steady_clock::time_point m_endsAt;  // set before m_ending
    std::atomic<uint64_t> m_lines{0};
    std::atomic<uint64_t> m_noted{0};
    mutable std::mutex m_mutex;
    std::deque<std::string> m_kept;
    std::thread m_thread;
};

}  // namespace tool
