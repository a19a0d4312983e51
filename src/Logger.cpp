#include "Logger.h"

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <ctime>
#include <mutex>

namespace GSTREAMER {

namespace {

const char *LevelName(LogLevel level) {
    switch (level) {
        case LogLevel::Fatal:
            return "FATAL";
        case LogLevel::Err:
            return "ERR";
        case LogLevel::Warn:
            return "WARN";
        case LogLevel::Info:
            return "INFO";
        case LogLevel::Debug:
            break;
    }
    return "DEBUG";
}

constexpr int kPatienceMs = 1000;
// What a pipe with any room at all takes in one piece (PIPE_BUF of Linux).
constexpr size_t kPiece = 4096;

bool Writable(int patienceMs) {
    pollfd out{STDOUT_FILENO, POLLOUT, 0};
    int ready = 0;
    do {
        ready = poll(&out, 1, patienceMs);
    } while (ready < 0 && errno == EINTR);
    // What is closed or broken does not block.
    return ready != 0;
}

std::string FormLine(LogLevel level, int line, const std::string &message) {
    const std::time_t now = std::time(nullptr);
    std::tm local{};
    localtime_r(&now, &local);
    char when[32] = "";
    std::strftime(when, sizeof when, "%Y-%m-%d %H.%M.%S", &local);

    std::string text;
    text.reserve(message.size() + 64);
    text.append("[").append(when).append("] (").append(LevelName(level)).append(") (");
    text.append(std::to_string(line)).append(") ").append(message).append("\n");
    return text;
}

// The same stdio stream as printf and g_print, one write and a flush for each line: a host that reads through a pipe sees whole
// lines at once and in order.
void Put(const char *text, size_t size) {
    std::fwrite(text, 1, size, stdout);
    std::fflush(stdout);
}

}  // namespace

bool OutputReady() noexcept {
    static std::mutex mutex;
    static bool blocked = false;
    static unsigned long dropped = 0;
    try {
        const std::lock_guard<std::mutex> lock(mutex);
        if (!Writable(blocked ? 0 : kPatienceMs)) {
            blocked = true;
            ++dropped;
            return false;
        }
        blocked = false;
        if (dropped == 0) {
            return true;
        }
        const std::string told =
            FormLine(LogLevel::Warn, __LINE__, "[Logger] Standard output was full, lines dropped: " + std::to_string(dropped));
        dropped = 0;
        Put(told.data(), told.size());
        // That may have filled it again.
        blocked = !Writable(0);
        dropped = blocked ? 1 : 0;
        return !blocked;
    } catch (...) {
        return true;
    }
}

void WriteLogLine(LogLevel level, int line, const std::string &message) noexcept {
    try {
        const std::string text = FormLine(level, line, message);
        for (size_t at = 0; at < text.size() && OutputReady(); at += kPiece) {
            Put(text.data() + at, std::min(kPiece, text.size() - at));
        }
    } catch (...) {  // NOLINT(bugprone-empty-catch): no memory for the line, and no way to tell
    }
}

}  // namespace GSTREAMER
