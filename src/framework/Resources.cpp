#include "framework/Resources.h"

#include <dirent.h>
#include <fcntl.h>
#include <pthread.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>

// No C++ allocation in this file: std::bad_alloc on the worker would end the process.
namespace GSTREAMER {

namespace {

using Count = std::uint64_t;
constexpr Count kNoLimit = std::numeric_limits<Count>::max();

Count Room(Count limit, Count used) {
    return limit == kNoLimit ? kNoLimit : limit - std::min(limit, used);
}

// The beginning of a small file, terminated. False when it cannot be read.
template <size_t N>
bool ReadFile(const char *path, std::array<char, N> &text) {
    const int file = open(path, O_RDONLY | O_CLOEXEC);
    if (file < 0) {
        return false;
    }
    const ssize_t got = read(file, text.data(), N - 1);
    close(file);
    text.at(static_cast<size_t>(std::max<ssize_t>(got, 0))) = '\0';
    return got > 0;
}

// The number that a file consists of; `otherwise` for another text ("max") and for no file.
Count NumberIn(const char *path, Count otherwise) {
    std::array<char, 32> text{};
    if (!ReadFile(path, text) || std::isdigit(static_cast<unsigned char>(text.front())) == 0) {
        return otherwise;
    }
    return std::strtoull(text.data(), nullptr, 10);
}

Count SoftLimit(__rlimit_resource resource) {
    rlimit limit{};
    return getrlimit(resource, &limit) != 0 || limit.rlim_cur == RLIM_INFINITY ? kNoLimit : limit.rlim_cur;
}

// Threads of all processes, from the fourth field of "0.20 0.18 0.12 1/80 11206". 0 when it cannot be read.
Count ThreadsOfAll() {
    std::array<char, 128> text{};
    const char *const slash = ReadFile("/proc/loadavg", text) ? std::strchr(text.data(), '/') : nullptr;
    return slash != nullptr ? std::strtoull(slash + 1, nullptr, 10) : 0;
}

// Threads of the processes of this user, as many as can be seen.
Count ThreadsOfUser() {
    DIR *const all = opendir("/proc");
    if (all == nullptr) {
        return 0;
    }
    Count threads = 0;
    for (const dirent *entry = readdir(all); entry != nullptr;
         entry = readdir(all)) {  // NOLINT(concurrency-mt-unsafe): its own stream
        std::array<char, 64> path{};
        struct stat tasks {};
        std::snprintf(path.data(), path.size(), "%.20s/task", entry->d_name);
        if (std::isdigit(static_cast<unsigned char>(entry->d_name[0])) == 0 ||
            fstatat(dirfd(all), path.data(), &tasks, 0) != 0 || tasks.st_uid != geteuid()) {
            continue;
        }
        threads += tasks.st_nlink - 2;  // one link for each thread, beside "." and ".."
    }
    closedir(all);
    return threads;
}

// Whether the limit of the user holds for this process: CAP_SYS_RESOURCE and CAP_SYS_ADMIN lift it.
bool IsBoundByUserLimit() {
    constexpr Count kLifting = (Count{1} << 24) | (Count{1} << 21);
    std::array<char, 4096> status{};
    const char *const line = ReadFile("/proc/self/status", status) ? std::strstr(status.data(), "\nCapEff:") : nullptr;
    return line == nullptr || (std::strtoull(line + std::strlen("\nCapEff:"), nullptr, 16) & kLifting) == 0;
}

// Threads whose stacks the address space still holds.
Count RoomOfMemory() {
    const Count limit = SoftLimit(RLIMIT_AS);
    if (limit == kNoLimit) {
        return kNoLimit;
    }
    pthread_attr_t attributes{};
    size_t stack = 0;
    if (pthread_attr_init(&attributes) != 0) {
        return 0;
    }
    pthread_attr_getstacksize(&attributes, &stack);
    pthread_attr_destroy(&attributes);
    const Count pages = NumberIn("/proc/self/statm", 0);
    return Room(limit, pages * static_cast<Count>(sysconf(_SC_PAGESIZE))) / std::max<size_t>(stack, 1);
}

Count RoomOfKernel() {
    return Room(NumberIn("/proc/sys/kernel/threads-max", kNoLimit), ThreadsOfAll());
}

}  // namespace

size_t ThreadRoomOfUser(size_t needed) {
    const Count limit = SoftLimit(RLIMIT_NPROC);
    if (limit == kNoLimit || Room(limit, ThreadsOfAll()) >= needed || !IsBoundByUserLimit()) {
        return kNoLimit;
    }
    return Room(limit, ThreadsOfUser());
}

// The control group of the process and those above it, with "pids.max" in each. Version 2
// has one tree, version 1 one for this controller.
size_t ThreadRoomOfControlGroups(const char *root) {
    std::array<char, 4096> groups{};
    std::array<char, 4096> path{};
    std::snprintf(path.data(), path.size(), "%s/proc/self/cgroup", root);
    if (!ReadFile(path.data(), groups)) {
        return kNoLimit;
    }
    constexpr std::array<std::array<const char *, 2>, 2> kTrees{{{"0::", "/sys/fs/cgroup"}, {":pids:", "/sys/fs/cgroup/pids"}}};
    Count room = kNoLimit;
    for (const auto &[mark, tree] : kTrees) {
        const char *const line = std::strstr(groups.data(), mark);
        if (line == nullptr) {
            continue;
        }
        const char *const begin = line + std::strlen(mark);
        for (auto length = static_cast<int>(std::strcspn(begin, "\n")); length >= 0; --length) {
            if (length > 0 && begin[length - 1] == '/') {
                continue;
            }
            std::snprintf(path.data(), path.size(), "%s%s%.*s/pids.max", root, tree, length, begin);
            const Count limit = NumberIn(path.data(), kNoLimit);
            std::snprintf(path.data(), path.size(), "%s%s%.*s/pids.current", root, tree, length, begin);
            room = std::min(room, Room(limit, NumberIn(path.data(), 0)));
            while (length > 0 && begin[length - 1] != '/') {
                --length;
            }
        }
    }
    return room;
}

bool DescriptorsLeft(size_t count) {
    // New descriptors get the lowest free numbers below the limit. Most free ones are at its end.
    const Count limit = SoftLimit(RLIMIT_NOFILE);
    if (limit == kNoLimit) {
        return true;
    }
    size_t free = 0;
    for (Count number = limit; number > 0 && free < count; --number) {
        if (fcntl(static_cast<int>(number - 1), F_GETFD) < 0 && errno == EBADF) {
            ++free;
        }
    }
    return free >= count;
}

bool ThreadsLeft(size_t count) {
    return RoomOfMemory() >= count && RoomOfKernel() >= count && ThreadRoomOfControlGroups("") >= count &&
           ThreadRoomOfUser(count) >= count;
}

}  // namespace GSTREAMER
