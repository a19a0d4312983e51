#include "log_capture.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <system_error>

#include "emergency.h"
#include "reason.h"
#include "screen.h"
#include "text.h"

namespace tool {
namespace {

constexpr size_t kLongestLine = size_t{64} * 1024;
constexpr int kPipeSize = 1024 * 1024;

bool SameFile(int a, int b) {
    struct stat file_a {};
    struct stat file_b {};
    return fstat(a, &file_a) == 0 && fstat(b, &file_b) == 0 && file_a.st_dev == file_b.st_dev && file_a.st_ino == file_b.st_ino;
}

// The reasons of a failure are shown whatever level the library gives them.
bool IsOfNote(const std::string &line, LogLevel level, LogLevel least) {
    if (level <= least) {
        return true;
    }
    const auto reason = ParseReasonLine(line);
    return reason && (reason->reason.ends || least >= LogLevel::kWarning);
}

}  // namespace

LogCapture::LogCapture(int target, bool with_errors, Masker masker, std::function<void(const std::string &)> on_line,
                       LogPolicy policy)
    : m_target(target),
      m_form(IsJournal(target) ? Form::kJournal : (isatty(target) != 0 && ColorsAllowed() ? Form::kColored : Form::kPlain)),
      m_policy(policy),
      m_masker(std::move(masker)),
      m_withErrors(with_errors),
      m_onLine(std::move(on_line)),
      m_savedOut(Duplicate(STDOUT_FILENO)),
      m_savedErr(Duplicate(STDERR_FILENO)),
      m_stop(eventfd(0, EFD_CLOEXEC)) {
    std::array<int, 2> ends{-1, -1};
    if (pipe2(ends.data(), O_CLOEXEC) != 0) {
        throw std::system_error(errno, std::generic_category(), "pipe");
    }
    m_remember = target < 0 || !SameFile(target, m_savedErr.Get());
    m_pipeRead = Fd(ends[0]);
    const Fd write_end(ends[1]);
    // The library does not wait for room. Where the system allows less, the pipe keeps its size.
    fcntl(write_end.Get(), F_SETPIPE_SZ, kPipeSize);
    fcntl(m_pipeRead.Get(), F_SETFL, O_NONBLOCK);

    std::fflush(stdout);
    // To a pipe, stdio would hold lines back until its buffer is full.
    std::setvbuf(stdout, nullptr, _IOLBF, 0);
    m_thread = std::thread(&LogCapture::Read, this);
    dup2(write_end.Get(), STDOUT_FILENO);
    if (m_withErrors) {
        dup2(write_end.Get(), STDERR_FILENO);
        emergency::SaveLog(m_pipeRead.Get(), m_savedErr.Get());
    }
}

LogCapture::~LogCapture() {
    std::fflush(stdout);
    emergency::SaveLog(-1, -1);
    dup2(m_savedOut.Get(), STDOUT_FILENO);
    if (m_withErrors) {
        dup2(m_savedErr.Get(), STDERR_FILENO);
    }
    constexpr std::chrono::seconds kPatience{2};
    m_endsAt = std::chrono::steady_clock::now() + kPatience;
    m_ending.store(true);
    // Not by the end of the file: a child of the framework may still hold the other end.
    eventfd_write(m_stop.Get(), 1);
    m_thread.join();
}

std::vector<std::string> LogCapture::LastLines(size_t count) const {
    const std::lock_guard<std::mutex> lock(m_mutex);
    count = std::min(count, m_kept.size());
    return {m_kept.end() - static_cast<std::ptrdiff_t>(count), m_kept.end()};
}

void LogCapture::Read() {
    std::array<char, 4096> buffer{};
    for (;;) {
        const ssize_t got = read(m_pipeRead.Get(), buffer.data(), buffer.size());
        if (got > 0) {
            TakeIn(buffer.data(), static_cast<size_t>(got));
            continue;
        }
        if (got == 0 || (errno != EAGAIN && errno != EINTR)) {
            break;
        }
        std::array<pollfd, 2> wait{{{m_pipeRead.Get(), POLLIN, 0}, {m_stop.Get(), POLLIN, 0}}};
        poll(wait.data(), wait.size(), -1);
        if ((wait[1].revents & POLLIN) != 0 && (wait[0].revents & POLLIN) == 0) {
            break;
        }
    }
    if (!m_partial.empty()) {
        HandOut(m_partial);
    }
}

void LogCapture::TakeIn(const char *data, size_t size) {
    m_partial.append(data, size);
    size_t begin = 0;
    for (size_t end = m_partial.find('\n'); end != std::string::npos; end = m_partial.find('\n', begin)) {
        HandOut(m_partial.substr(begin, end - begin));
        begin = end + 1;
    }
    m_partial.erase(0, begin);
    if (m_partial.size() > kLongestLine) {
        HandOut(std::exchange(m_partial, {}));
    }
}

void LogCapture::HandOut(const std::string &line) {
    std::string plain = m_masker.Mask(StripEscapes(line, false));
    const LogLevel level = LevelOf(plain);
    if (m_target >= 0 && !m_targetStalled && level <= m_policy.to_target) {
        WriteToTarget(line, plain, level);
    }
    if (m_remember) {
        emergency::RememberLine(plain);
    }
    if (m_onLine) {
        m_onLine(plain);
    }
    if (IsOfNote(plain, level, m_policy.to_table)) {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_kept.push_back(std::move(plain));
        if (m_kept.size() > kKept) {
            m_kept.pop_front();
        }
        m_noted.fetch_add(1);
    }
    m_lines.fetch_add(1);
}

void LogCapture::WriteToTarget(const std::string &line, const std::string &plain, LogLevel level) {
    std::string text;
    switch (m_form) {
        case Form::kPlain:
            text = plain;
            break;
        case Form::kColored:
            text = m_masker.Mask(StripEscapes(line, true));
            break;
        case Form::kJournal:
            text = std::string(JournalPrefix(level)) + WithoutStamp(plain);
            break;
    }
    // A pager that nobody looks at must not keep the run from its end.
    const auto give_up = [this] { return m_ending.load() && std::chrono::steady_clock::now() >= m_endsAt; };
    m_targetStalled = m_targetStalled || (!WriteAll(m_target, text + "\n", give_up) && errno == ECANCELED);
}

}  // namespace tool
