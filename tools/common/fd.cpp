#include "fd.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>

namespace tool {

Fd &Fd::operator=(Fd &&other) noexcept {
    if (this != &other) {
        Fd old(std::exchange(m_fd, std::exchange(other.m_fd, -1)));
    }
    return *this;
}

Fd::~Fd() {
    if (m_fd >= 0) {
        close(m_fd);
    }
}

int Fd::Close() {
    const int fd = std::exchange(m_fd, -1);
    // It is closed in any case, on Linux.
    return fd >= 0 && close(fd) != 0 && errno != EINTR ? errno : 0;
}

Fd Duplicate(int fd) {
    return Fd(fcntl(fd, F_DUPFD_CLOEXEC, STDERR_FILENO + 1));
}

void OpenStandardDescriptors() {
    for (int fd = open("/dev/null", O_RDWR); fd >= 0; fd = open("/dev/null", O_RDWR)) {
        if (fd > STDERR_FILENO) {
            close(fd);
            return;
        }
    }
}

bool WriteAll(int fd, std::string_view data, const std::function<bool()> &give_up) {
    constexpr int kSliceMs = 200;
    while (!data.empty()) {
        pollfd ready{fd, POLLOUT, 0};
        const int polled = poll(&ready, 1, kSliceMs);
        if (polled <= 0) {
            if (polled < 0 && errno != EINTR) {
                return false;
            }
            if (give_up && give_up()) {
                errno = ECANCELED;
                return false;
            }
            continue;
        }
        // A pipe that is ready takes this much without waiting.
        const ssize_t written = write(fd, data.data(), std::min<size_t>(data.size(), PIPE_BUF));
        if (written < 0) {
            if (errno != EINTR && errno != EAGAIN) {
                return false;
            }
            continue;
        }
        data.remove_prefix(static_cast<size_t>(written));
    }
    return true;
}

}  // namespace tool
