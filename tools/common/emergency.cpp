#include "emergency.h"

#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <mutex>

namespace tool::emergency {
namespace {

constexpr std::string_view kShowCursor = "\x1b[?25h\x1b[0m";

// Longer than any path of a shared buffer.
constexpr size_t kPathSize = 512;
struct File {
    std::atomic<bool> in_use{false};  // the path is whole
    std::array<char, kPathSize> path{};
};
// Memory that nobody frees: a crash may come at any moment.
constexpr size_t kMostFiles = 4096;
std::array<File, kMostFiles> g_files{};
std::atomic<size_t> g_files_end{0};  // no slot from here on has been used
std::mutex g_files_mutex;            // of those who add and forget
std::atomic<int> g_terminal{-1};
std::atomic<int> g_log_pipe{-1};
std::atomic<int> g_log_target{-1};

std::atomic<int> g_keys{-1};
std::atomic<bool> g_key_mode{false};
// Its own mode. Written only by whoever holds the flag, while g_key_mode is not set.
termios g_mode{};
std::atomic_flag g_mode_busy = ATOMIC_FLAG_INIT;

// The tail of the log as a ring of letters. A crash in the
// middle of a line shows half of that line, no worse.
constexpr size_t kTailSize = 8192;
std::array<std::atomic<char>, kTailSize> g_tail{};
std::atomic<size_t> g_tail_end{0};

constexpr std::array<int, 5> kCrashes{SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT};
std::array<struct sigaction, kCrashes.size()> g_previous{};

bool InForeground(int terminal) {
    return terminal >= 0 && tcgetpgrp(terminal) == getpgrp();
}

// Without the signal that stops a process which has just lost its terminal.
void SetMode(int terminal, const termios &mode) {
    sigset_t background;
    sigset_t before;
    sigemptyset(&background);
    sigaddset(&background, SIGTTOU);
    pthread_sigmask(SIG_BLOCK, &background, &before);
    tcsetattr(terminal, TCSANOW, &mode);
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

void Put(int fd, const char *data, size_t size) {
    while (size > 0) {
        const ssize_t written = write(fd, data, size);
        if (written <= 0) {
            return;
        }
        data += written;
        size -= static_cast<size_t>(written);
    }
}

void PutLog() {
    const int target = g_log_target.load();
    const int pipe_fd = g_log_pipe.load();
    if (target < 0 || pipe_fd < 0) {
        return;
    }
    const size_t end = g_tail_end.load();
    std::array<char, 512> buffer{};
    size_t used = 0;
    for (size_t at = end > kTailSize ? end - kTailSize : 0; at < end; ++at) {
        buffer[used++] = g_tail[at % kTailSize].load(std::memory_order_relaxed);
        if (used == buffer.size() || at + 1 == end) {
            Put(target, buffer.data(), used);
            used = 0;
        }
    }
    // Does not wait: the reading end never does.
    for (ssize_t got = read(pipe_fd, buffer.data(), buffer.size()); got > 0;
         got = read(pipe_fd, buffer.data(), buffer.size())) {
        Put(target, buffer.data(), static_cast<size_t>(got));
    }
}

void OnCrash(int number, siginfo_t *info, void * /*context*/) {
    const int saved = errno;
    for (size_t i = 0; i < kCrashes.size(); ++i) {
        sigaction(kCrashes[i], &g_previous[i], nullptr);
    }
    Clean();
    PutLog();
    errno = saved;
    // An instruction at fault runs again and meets the previous handler with all that it says;
    // what was sent would not come again by itself.
    const bool sent = info->si_code <= 0;
    if (sent) {
        raise(number);
    }
}

}  // namespace

void AddFile(std::string_view path) {
    const std::lock_guard<std::mutex> lock(g_files_mutex);
    const auto slot = std::find_if(g_files.begin(), g_files.end(), [](const File &file) { return !file.in_use.load(); });
    if (slot == g_files.end() || path.size() >= kPathSize) {
        return;
    }
    *std::copy(path.begin(), path.end(), slot->path.begin()) = '\0';
    slot->in_use.store(true);
    g_files_end.store(std::max<size_t>(g_files_end.load(), static_cast<size_t>(slot - g_files.begin()) + 1));
}

void ForgetFile(std::string_view path) {
    const std::lock_guard<std::mutex> lock(g_files_mutex);
    for (size_t i = 0; i < g_files_end.load(); ++i) {
        if (g_files[i].in_use.load() && path == g_files[i].path.data()) {
            g_files[i].in_use.store(false);
        }
    }
}

void RestoreCursor(int fd) {
    g_terminal.store(fd);
}

void UseKeysOf(int fd) {
    g_keys.store(fd);
}

void EnterKeyMode() {
    const int saved = errno;
    const int terminal = g_keys.load();
    // A signal handler may interrupt this very function; what it would do is being done.
    if (InForeground(terminal) && !g_mode_busy.test_and_set()) {
        termios mode{};
        if (tcgetattr(terminal, &mode) == 0) {
            if (!g_key_mode.load()) {
                g_mode = mode;
                g_key_mode.store(true);
            }
            mode.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO);
            mode.c_cc[VMIN] = 1;
            mode.c_cc[VTIME] = 0;
            SetMode(terminal, mode);
        }
        g_mode_busy.clear();
    }
    errno = saved;
}

void LeaveKeyMode() {
    const int saved = errno;
    const int terminal = g_keys.load();
    if (g_key_mode.exchange(false) && InForeground(terminal)) {
        SetMode(terminal, g_mode);
    }
    errno = saved;
}

void SaveLog(int pipe_fd, int error_fd) {
    g_log_target.store(error_fd);
    g_log_pipe.store(pipe_fd);
}

void RememberLine(std::string_view line) {
    size_t end = g_tail_end.load(std::memory_order_relaxed);
    for (const char c : line) {
        g_tail[end++ % kTailSize].store(c, std::memory_order_relaxed);
    }
    g_tail[end++ % kTailSize].store('\n', std::memory_order_relaxed);
    g_tail_end.store(end);
}

void Clean() {
    LeaveKeyMode();
    for (size_t i = 0; i < g_files_end.load(); ++i) {
        if (g_files[i].in_use.load()) {
            unlink(g_files[i].path.data());
        }
    }
    const int terminal = g_terminal.load();
    if (terminal >= 0) {
        Put(terminal, kShowCursor.data(), kShowCursor.size());
    }
}

void HandleCrashes() {
    struct sigaction action {};
    action.sa_sigaction = OnCrash;
    action.sa_flags = SA_SIGINFO;
    sigemptyset(&action.sa_mask);
    for (size_t i = 0; i < kCrashes.size(); ++i) {
        sigaction(kCrashes[i], &action, &g_previous[i]);
    }
}

}  // namespace tool::emergency
