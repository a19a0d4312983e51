#include "workarounds/SocketWait.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <istream>
#include <sstream>
#include <string>
#include <vector>

namespace GSTREAMER {

namespace {

// What the thread waits for in the kernel: "NUMBER ARGUMENT..."
// of a system call; other text when it does not.
std::string SystemCallOf(pid_t thread) {
    std::ifstream file("/proc/self/task/" + std::to_string(thread) + "/syscall");
    std::string text;
    std::getline(file, text);
    return text;
}

bool IsSocketCall(long number) {
    switch (number) {
        case SYS_connect:
        case SYS_read:
        case SYS_readv:
        case SYS_recvfrom:
        case SYS_recvmsg:
        case SYS_write:
        case SYS_writev:
        case SYS_sendto:
        case SYS_sendmsg:
            return true;
        default:
            return false;
    }
}

// Not every architecture has the calls without a p, and those of 32 bits may have a later ppoll.
bool IsPollCall(long number) {
    switch (number) {
#ifdef SYS_poll
        case SYS_poll:
#endif
#ifdef SYS_ppoll
        case SYS_ppoll:
#endif
#ifdef SYS_ppoll_time64
        case SYS_ppoll_time64:
#endif
            return true;
        default:
            return false;
    }
}

bool IsNetworkSocket(int descriptor) {
    int domain = 0;
    socklen_t size = sizeof domain;
    return getsockopt(descriptor, SOL_SOCKET, SO_DOMAIN, &domain, &size) == 0 && (domain == AF_INET || domain == AF_INET6);
}

// A service may have been started with its standard input, output or error on a connection.
bool IsStandardStream(int descriptor) {
    struct stat is {};
    if (fstat(descriptor, &is) != 0) {
        return true;  // unknown: left alone
    }
    for (const int standard : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        struct stat other {};
        if (fstat(standard, &other) == 0 && other.st_dev == is.st_dev && other.st_ino == is.st_ino) {
            return true;
        }
    }
    return false;
}

// The descriptors that a poll is about. They are on the other thread's stack,
// which may be gone by now: the kernel looks for us.
std::vector<int> PolledBy(std::istream &arguments) {
    constexpr unsigned long kMost = 16;
    unsigned long place = 0;
    unsigned long count = 0;
    if (!(arguments >> place >> count) || count == 0 || count > kMost) {
        return {};
    }
    std::vector<pollfd> polled(count);
    const iovec here{polled.data(), count * sizeof(pollfd)};
    const iovec there{reinterpret_cast<void *>(place), count * sizeof(pollfd)};
    if (process_vm_readv(getpid(), &here, 1, &there, 1, 0) != static_cast<ssize_t>(here.iov_len)) {
        return {};
    }
    std::vector<int> descriptors;
    descriptors.reserve(polled.size());
    for (const pollfd &one : polled) {
        descriptors.push_back(one.fd);
    }
    return descriptors;
}

}  // namespace

bool EndSocketWait(pid_t thread) {
    const std::string call = SystemCallOf(thread);
    std::istringstream fields(call);
    long number = -1;
    // The number of the call is decimal, its arguments are not.
    if (!(fields >> number) || !(fields >> std::hex)) {
        return false;
    }
    std::vector<int> descriptors;
    int fd = -1;
    if (IsPollCall(number)) {
        descriptors = PolledBy(fields);
    } else if (IsSocketCall(number) && fields >> fd) {
        descriptors = {fd};
    }
    // Duplicate the descriptors, then read the system call again: if it is unchanged, these are its sockets.
    std::vector<int> own;
    for (const int descriptor : descriptors) {
        const int copy = fcntl(descriptor, F_DUPFD_CLOEXEC, 0);
        if (copy >= 0) {
            own.push_back(copy);
        }
    }
    // Threads also poll what wakes them within the process, pairs of
    // local sockets among it: that must stay whole.
    const auto others =
        std::partition(own.begin(), own.end(), [](int copy) { return IsNetworkSocket(copy) && !IsStandardStream(copy); });
    std::for_each(others, own.end(), close);
    own.erase(others, own.end());
    const bool still = !own.empty() && SystemCallOf(thread) == call;
    bool ended = false;
    for (const int copy : own) {
        ended = (still && shutdown(copy, SHUT_RDWR) == 0) || ended;
        close(copy);
    }
    return ended;
}

}  // namespace GSTREAMER
