#include "futex_watch.h"

#include <dlfcn.h>
#include <linux/futex.h>
#include <poll.h>
#include <sched.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <ctime>
#include <fstream>
#include <string>

namespace futex_watch {

std::atomic<uint64_t> woken{0};
std::atomic<uint64_t> forgotten{0};
std::atomic<bool> poll_ran_out{false};
std::atomic<uint64_t> looks{0};
std::atomic<bool> wakes_are_slow{false};
thread_local Gate *gate_of_this_thread = nullptr;

bool Gate::Asleep() const {
    if (thread == 0)
        return false;
    std::string line;
    std::getline(std::ifstream("/proc/self/task/" + std::to_string(thread) + "/stat"), line);
    const size_t end = line.rfind(')');
    return end != std::string::npos && line.substr(end, 3) == ") S";
}

namespace {

// Found when the program starts, so that nobody has to wait for it later.
const auto real = reinterpret_cast<long (*)(long, ...)>(dlsym(RTLD_NEXT, "syscall"));               // NOLINT(cert-err58-cpp)
const auto real_ppoll = reinterpret_cast<decltype(&ppoll)>(dlsym(RTLD_NEXT, "ppoll"));              // NOLINT(cert-err58-cpp)
const auto real_nanosleep = reinterpret_cast<decltype(&nanosleep)>(dlsym(RTLD_NEXT, "nanosleep"));  // NOLINT(cert-err58-cpp)

void StandAtTheGate(Gate &gate) {
    gate.waiting = true;
    while (!gate.open)
        sched_yield();
    gate.thread = static_cast<pid_t>(real(SYS_gettid));
}

}  // namespace
}  // namespace futex_watch

// The library's doors to the kernel: the definitions in the executable come before those of the C library.
extern "C" long syscall(long number, ...) noexcept {
    using namespace futex_watch;
    long a[6];
    va_list list;
    va_start(list, number);
    for (long &argument : a)
        argument = va_arg(list, long);
    va_end(list);
    if (number != SYS_futex)
        return real(number, a[0], a[1], a[2], a[3], a[4], a[5]);
    if (a[1] == FUTEX_WAKE && wakes_are_slow)
        sched_yield();
    if (a[1] == FUTEX_WAIT && gate_of_this_thread != nullptr)
        StandAtTheGate(*gate_of_this_thread);
    const long result = real(number, a[0], a[1], a[2], a[3], a[4], a[5]);
    const int saved = errno;
    if (a[1] == FUTEX_WAIT) {
        const auto *word = reinterpret_cast<const std::atomic<uint32_t> *>(a[0]);
        woken += result == 0;
        if (result == -1 && saved == ETIMEDOUT && *word != static_cast<uint32_t>(a[2])) {
            forgotten++;
            if (gate_of_this_thread != nullptr)
                gate_of_this_thread->forgotten++;
        }
    }
    errno = saved;
    return result;
}

extern "C" int ppoll(pollfd *descriptors, nfds_t count, const timespec *limit, const sigset_t *mask) {
    const int result = futex_watch::real_ppoll(descriptors, count, limit, mask);
    futex_watch::woken += result > 0;
    futex_watch::poll_ran_out = result == 0;
    return result;
}

extern "C" int nanosleep(const timespec *pause, timespec *left) {
    futex_watch::looks++;
    return futex_watch::real_nanosleep(pause, left);
}
