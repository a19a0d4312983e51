#include "LogCapture.h"

#include <glib.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <thread>

namespace unit {

bool operator==(const Line &left, const Line &right) {
    return left.level == right.level && left.message == right.message;
}

std::ostream &operator<<(std::ostream &out, const Line &line) {
    return out << '\n' << (line.level.empty() ? "(raw)" : line.level) << " |" << line.message << '|';
}

Line Err(const std::string &message) {
    return {"ERR", message};
}

Line Warn(const std::string &message) {
    return {"WARN", message};
}

Line Info(const std::string &message) {
    return {"INFO", message};
}

Line Raw(const std::string &text) {
    return {"", text};
}

Lines operator+(Lines left, const Lines &right) {
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

bool Eventually(const std::function<bool()> &condition, int seconds) {
    // Time in which the whole machine stood still does not count.
    constexpr std::chrono::steady_clock::duration kLongestLook = std::chrono::seconds(1);
    const std::chrono::seconds bound(seconds);
    std::chrono::steady_clock::duration spent{0};
    for (auto begun = std::chrono::steady_clock::now(); !condition(); begun = std::chrono::steady_clock::now()) {
        if (spent > bound) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
        spent += std::min(std::chrono::steady_clock::now() - begun, kLongestLook);
    }
    return true;
}

LogCapture::LogCapture() : m_saved(-1), m_file(memfd_create("captured", MFD_CLOEXEC)) {
    std::fflush(stdout);
    m_saved = dup(STDOUT_FILENO);
    if (m_saved < 0 || m_file < 0 || dup2(m_file, STDOUT_FILENO) < 0) {
        std::perror("unable to capture standard output");
        std::abort();
    }
}

LogCapture::~LogCapture() {
    std::fflush(stdout);
    dup2(m_saved, STDOUT_FILENO);
    close(m_saved);
    if (testing::Test::HasFailure()) {
        const std::string text = Text();
        std::printf("---- captured ----\n%s---- end of captured ----\n", text.c_str());
        std::fflush(stdout);
    }
    close(m_file);
}

std::string LogCapture::TextFrom(std::size_t at) const {
    std::fflush(stdout);
    struct stat info {};
    if (fstat(m_file, &info) != 0 || static_cast<std::size_t>(info.st_size) <= at) {
        return {};
    }
    std::string text(static_cast<std::size_t>(info.st_size) - at, '\0');
    const ssize_t got = pread(m_file, text.data(), text.size(), static_cast<off_t>(at));
    text.resize(got > 0 ? static_cast<std::size_t>(got) : 0);
    return text;
}

Lines LogCapture::All() const {
    // A line that begins like a log line and is not one stays raw, and so matches no expected line.
    static GRegex *const prefix = g_regex_new(
        R"(^\[[0-9]{4}-[0-9]{2}-[0-9]{2} [0-9]{2}\.[0-9]{2}\.[0-9]{2}\] \((FATAL|ERR|WARN|INFO|DEBUG)\) \([1-9][0-9]*\) )",
        G_REGEX_OPTIMIZE, GRegexMatchFlags(0), nullptr);
    const std::lock_guard<std::mutex> lock(m_mutex);
    const std::string text = TextFrom(m_parsed);
    std::size_t begin = 0;
    for (std::size_t end = text.find('\n'); end != std::string::npos; end = text.find('\n', begin)) {
        const std::string line = text.substr(begin, end - begin);
        GMatchInfo *match = nullptr;
        if (g_regex_match(prefix, line.c_str(), GRegexMatchFlags(0), &match) != FALSE) {
            gchar *level = g_match_info_fetch(match, 1);
            gint length = 0;
            g_match_info_fetch_pos(match, 0, nullptr, &length);
            m_lines.push_back({level, line.substr(static_cast<std::size_t>(length))});
            g_free(level);
        } else {
            m_lines.push_back({"", line});
        }
        g_match_info_free(match);
        begin = end + 1;
    }
    m_parsed += begin;
    return m_lines;
}

Lines LogCapture::Take() {
    const Lines lines = All();
    const std::size_t from = std::min(m_taken, lines.size());
    m_taken = lines.size();
    return Lines(lines.begin() + static_cast<std::ptrdiff_t>(from), lines.end());
}

std::size_t LogCapture::Count(const Line &line) const {
    const Lines lines = All();
    const std::size_t from = std::min(m_taken, lines.size());
    return static_cast<std::size_t>(std::count(lines.begin() + static_cast<std::ptrdiff_t>(from), lines.end(), line));
}

bool LogCapture::WaitFor(const Line &line, std::size_t count) const {
    return Eventually([&] { return Count(line) >= count; });
}

}  // namespace unit
