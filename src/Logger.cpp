#include "Logger.h"

#include <fcntl.h>
#include <glib.h>
#include <poll.h>
#include <stdio_ext.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <climits>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <ctime>
#include <mutex>
#include <thread>
#include <type_traits>
#include <utility>

namespace GSTREAMER {

namespace {

// Threads may log while the process exits: nothing here has a destructor that does something.
std::mutex g_outputMutex;
std::mutex g_handlerMutex;
static_assert(std::is_trivially_destructible_v<std::mutex>);
std::atomic<bool> g_closed{false};
std::atomic<unsigned long> g_dropped{0};

using Lock = std::unique_lock<std::mutex>;

// Gives up after half a second at least: a disk stalls, or fork() lost the holder.
Lock Take(std::mutex &mutex) {
    Lock lock(mutex, std::try_to_lock);
    for (int tries = 0; !lock && tries < 5000; ++tries) {
        std::this_thread::sleep_for(std::chrono::microseconds(100));
        lock = Lock(mutex, std::try_to_lock);
    }
    return lock;
}

// The unwritten end of a text. It goes out before anything else.
struct Rest {
    std::string text;
    size_t at = 0;
    struct stat file {};
};

// Guarded by g_outputMutex.
Rest &KeptRest() {
    static Rest &rest = *new Rest;
    return rest;
}

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

__attribute__((format(printf, 1, 0))) std::string FormText(const char *format, va_list arguments) {
    va_list again;
    va_copy(again, arguments);
    // NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized): the copy has just been made
    const int size = std::vsnprintf(nullptr, 0, format, again);
    va_end(again);
    std::string text(static_cast<size_t>(std::max(size, 0)) + 1, '\0');
    std::vsnprintf(text.data(), text.size(), format, arguments);
    text.pop_back();
    return text;
}

bool IsSame(const struct stat &file, const struct stat &other) {
    return file.st_dev == other.st_dev && file.st_ino == other.st_ino;
}

// False when there is nothing to write to, which is remembered.
bool LookAtOutput(struct stat &file) {
    if (fstat(STDOUT_FILENO, &file) == 0) {
        return true;
    }
    if (errno == EBADF) {
        g_closed = true;
    }
    return false;
}

// Whether a reader that does not read makes a write block.
bool CanBlock(const struct stat &file) {
    return S_ISFIFO(file.st_mode) || S_ISSOCK(file.st_mode) || (S_ISCHR(file.st_mode) && isatty(STDOUT_FILENO) != 0);
}

bool HasRoom() {
    pollfd out{STDOUT_FILENO, POLLOUT, 0};
    return poll(&out, 1, 0) > 0;
}

// A second open file of the same pipe or terminal, one that does not block: the flags of the host's stay as
// they are. -1 when that cannot be done.
int OpenAnew(const struct stat &file) {
    const int anew = open("/proc/self/fd/1", O_WRONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
    struct stat opened {};
    if (anew >= 0 && (fstat(anew, &opened) != 0 || !IsSame(opened, file))) {
        close(anew);
        return -1;
    }
    return anew;
}

// One write that does not wait. Result and errno as of write().
ssize_t WriteSome(const struct stat &file, char *data, size_t size) {
    if (S_ISSOCK(file.st_mode)) {
        return send(STDOUT_FILENO, data, size, MSG_DONTWAIT | MSG_NOSIGNAL);
    }
    if (!CanBlock(file)) {
        return write(STDOUT_FILENO, data, size);
    }
    if (S_ISFIFO(file.st_mode)) {
        // Pipes since Linux 6.4.
        const iovec piece{data, size};
        const ssize_t written = pwritev2(STDOUT_FILENO, &piece, 1, -1, RWF_NOWAIT);
        if (written >= 0 || (errno != EOPNOTSUPP && errno != ENOSYS)) {
            return written;
        }
    }
    const int anew = OpenAnew(file);
    if (anew >= 0) {
        const ssize_t written = write(anew, data, size);
        const int error = errno;
        close(anew);
        errno = error;
        return written;
    }
    // OpenAnew failed: another user's file, no /proc, no descriptor. A writable
    // pipe takes PIPE_BUF bytes, a terminal one byte.
    if (!HasRoom()) {
        errno = EAGAIN;
        return -1;
    }
    return write(STDOUT_FILENO, data, S_ISFIFO(file.st_mode) ? std::min(size, size_t{PIPE_BUF}) : 1);
}

// Writes from `at` on what there is room for, and moves `at` there. 0 or an errno.
int WriteFrom(const struct stat &file, std::string &text, size_t &at) {
    while (at < text.size()) {
        const ssize_t written = WriteSome(file, &text[at], text.size() - at);
        if (written > 0) {
            at += static_cast<size_t>(written);
        } else if (written == 0 || errno != EINTR) {
            return written == 0 ? EAGAIN : errno;
        }
    }
    return 0;
}

// False when it is not out yet.
bool WriteRest(const struct stat &file) {
    Rest &rest = KeptRest();
    if (rest.text.empty()) {
        return true;
    }
    int error = 0;
    if (IsSame(rest.file, file)) {
        error = WriteFrom(file, rest.text, rest.at);
    }
    // Another file, or a reader that has gone, has nothing to do with it.
    if (error == 0 || error == EPIPE) {
        rest.text.clear();
    }
    return error == 0;
}

// What the host has printed before, and stdio still holds, comes first, as far as that cannot block.
void FlushHostsText(const struct stat &file) {
    if (ftrylockfile(stdout) != 0) {
        return;
    }
    const size_t pending = __fpending(stdout);
    if (pending > 0 && fileno_unlocked(stdout) == STDOUT_FILENO &&
        (!CanBlock(file) || (S_ISFIFO(file.st_mode) && pending <= PIPE_BUF && HasRoom()))) {
        fflush_unlocked(stdout);
    }
    funlockfile(stdout);
}

// False when it found no room at all. With room for a part of it, it counts as written: the rest follows.
bool WriteWhole(const struct stat &file, std::string text) {
    Rest &rest = KeptRest();
    if (!WriteRest(file)) {
        return false;
    }
    size_t at = 0;
    const int error = WriteFrom(file, text, at);
    if (error == EBADF) {
        g_closed = true;
    }
    if (error != 0 && at > 0) {
        rest.text = std::move(text);
        rest.at = at;
        rest.file = file;
    }
    return error == 0 || at > 0;
}

// A write to a pipe without a reader raises SIGPIPE on its thread. In this scope the signal is taken back.
class WithoutPipeSignal {
  public:
    WithoutPipeSignal() {
        sigset_t pending;
        sigemptyset(&m_pipe);
        sigaddset(&m_pipe, SIGPIPE);
        pthread_sigmask(SIG_BLOCK, &m_pipe, &m_before);
        sigpending(&pending);
        m_bHosts = sigismember(&pending, SIGPIPE) != 0;
    }
    ~WithoutPipeSignal() {
        const timespec none{};
        while (!m_bHosts && sigtimedwait(&m_pipe, nullptr, &none) < 0 && errno == EINTR) {
        }
        pthread_sigmask(SIG_SETMASK, &m_before, nullptr);
    }
    WithoutPipeSignal(const WithoutPipeSignal &) = delete;
    WithoutPipeSignal &operator=(const WithoutPipeSignal &) = delete;

  private:
    sigset_t m_pipe{};
    sigset_t m_before{};
    bool m_bHosts = false;
};

// `form` makes the text. It runs under the lock too, because of localtime_r: in a child of fork() that could
// wait forever for another thread of ours.
template <typename Form>
void Write(Form form) {
    if (g_closed) {
        return;
    }
    const Lock lock = Take(g_outputMutex);
    if (!lock) {
        ++g_dropped;
        return;
    }
    struct stat file {};
    if (!LookAtOutput(file)) {
        return;
    }
    const WithoutPipeSignal no_signal;
    if (WriteRest(file)) {
        FlushHostsText(file);
    }
    const unsigned long dropped = g_dropped;
    if (dropped > 0) {
        const std::string notice = "[Logger] Standard output was full, lines dropped: " + std::to_string(dropped);
        if (!WriteWhole(file, FormLine(LogLevel::Warn, __LINE__, notice))) {
            ++g_dropped;
            return;
        }
        g_dropped -= dropped;
    }
    if (!WriteWhole(file, form())) {
        ++g_dropped;
    }
}

// GLib has no getter. Setting the handler that is set already disturbs no thread. Another one, which the host
// has set since, is returned by that and put back.
bool HostHasPrintHandler() {
    static bool known = false;
    static GPrintFunc standard = nullptr;  // null before GLib 2.76
    static GPrintFunc last = nullptr;
    const Lock lock = Take(g_handlerMutex);
    if (!lock) {
        return false;
    }
    if (!known) {
        last = g_set_print_handler(nullptr);
        standard = g_set_print_handler(last);
        known = true;
    }
    GPrintFunc found = g_set_print_handler(last);
    while (found != last) {
        const GPrintFunc expected = std::exchange(last, found);
        const GPrintFunc replaced = g_set_print_handler(found);
        // The host may be changing it right now.
        found = replaced == expected ? found : replaced;
    }
    return last != standard;
}

}  // namespace

void RememberStandardOutput() noexcept {
    struct stat file {};
    LookAtOutput(file);
}

void WriteLogLine(LogLevel level, int line, const std::string &message) noexcept {
    try {
        Write([&] { return FormLine(level, line, message); });
    } catch (...) {  // NOLINT(bugprone-empty-catch): no memory for the line, and no way to report that
    }
}

void PrintByStdio(const char *format, ...) noexcept {
    va_list arguments;
    va_start(arguments, format);
    try {
        std::string text = FormText(format, arguments);
        Write([&] { return std::move(text); });
    } catch (...) {  // NOLINT(bugprone-empty-catch)
    }
    va_end(arguments);
}

// GLib's own handler writes by stdio, which may block. (It also converts to the locale's character set: the
// texts are ASCII.)
void PrintByGlib(const char *format, ...) noexcept {
    va_list arguments;
    va_start(arguments, format);
    try {
        std::string text = FormText(format, arguments);
        if (HostHasPrintHandler()) {
            g_print("%s", text.c_str());
        } else {
            Write([&] { return std::move(text); });
        }
    } catch (...) {  // NOLINT(bugprone-empty-catch)
    }
    va_end(arguments);
}

}  // namespace GSTREAMER
