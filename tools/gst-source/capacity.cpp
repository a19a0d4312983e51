#include "capacity.h"

#include <sched.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "shared_buffer.h"
#include "text.h"

namespace tool {
namespace {

// Of one playing source with video and audio, without its shared memory.
struct Cost {
    uint64_t memory_bytes;
    uint64_t descriptors;
    uint64_t threads;
};

constexpr uint64_t kMiB = uint64_t{1} << 20;

// Of 2 Mb/s over UDP, on a core of 2023 (docs/reports/bench/fleet.md).
constexpr double kCores = 0.006;

// Measured, and a little more, since a source takes more while it connects (docs/operating.md has the figures).
Cost CostOf(const SourceConfig &source) {
    constexpr uint32_t kRtspUdp = 1;
    constexpr uint32_t kRtspMulticast = 2;
    switch (ProtocolOf(source.url).value_or(Protocol::kUdp)) {
        case Protocol::kUdp:
            return {3 * kMiB, 8, 5};
        case Protocol::kRtsp:
            // Sockets and threads for each track.
            return (source.rtsp.protocols & (kRtspUdp | kRtspMulticast)) != 0 ? Cost{3 * kMiB, 28, 18} : Cost{3 * kMiB, 8, 12};
        case Protocol::kRtmp:
            return {3 * kMiB, 8, 7};
        case Protocol::kSrt:
            return {12 * kMiB, 10, 9};
        case Protocol::kHls:
            return {12 * kMiB, 14, 13};
    }
    return {};
}

std::optional<uint64_t> NumberIn(const std::string &path) {
    std::ifstream file(path);
    uint64_t number = 0;
    return file >> number ? std::optional(number) : std::nullopt;
}

void Lower(std::optional<uint64_t> &bound, std::optional<uint64_t> other) {
    if (other && (!bound || *other < *bound)) {
        bound = other;
    }
}

uint64_t Minus(uint64_t whole, uint64_t used) {
    return whole > used ? whole - used : 0;
}

// The value behind "KEY:" of a file of /proc, its unit left away.
std::optional<uint64_t> FieldOf(const std::string &path, const std::string &key) {
    std::ifstream file(path);
    for (std::string line; std::getline(file, line);) {
        if (line.compare(0, key.size() + 1, key + ":") == 0) {
            std::istringstream value(line.substr(key.size() + 1));
            uint64_t number = 0;
            return value >> number ? std::optional(number) : std::nullopt;
        }
    }
    return std::nullopt;
}

// Of the process's control group and those above it (version 2).
std::vector<std::string> ControlGroups() {
    std::ifstream file("/proc/self/cgroup");
    std::vector<std::string> groups;
    for (std::string line; std::getline(file, line);) {
        constexpr std::string_view kUnified = "0::";
        if (line.compare(0, kUnified.size(), kUnified) == 0) {
            std::filesystem::path path = line.substr(kUnified.size());
            for (; path.has_relative_path(); path = path.parent_path()) {
                groups.push_back("/sys/fs/cgroup" + path.string());
            }
        }
    }
    // In a container the group of the process is the root of what it sees.
    groups.emplace_back("/sys/fs/cgroup");
    return groups;
}

std::optional<uint64_t> RoomIn(const std::string &group, const std::string &limit, const std::string &used) {
    const auto bound = NumberIn(group + "/" + limit);
    return bound ? std::optional(Minus(*bound, NumberIn(group + "/" + used).value_or(0))) : std::nullopt;
}

uint64_t OpenDescriptors() {
    std::error_code error;
    return static_cast<uint64_t>(std::distance(std::filesystem::directory_iterator("/proc/self/fd", error), {}));
}

}  // namespace

Needs NeedsOf(const std::vector<SourceConfig> &sources) {
    Needs needs;
    for (const SourceConfig &source : sources) {
        const Cost cost = CostOf(source);
        needs.shared_bytes += BytesOf(source.memory, 1);
        needs.memory_bytes += cost.memory_bytes;
        // Two of them for the buffer.
        needs.descriptors += cost.descriptors + 2;
        needs.threads += cost.threads;
        needs.cores += kCores;
    }
    return needs;
}

Limits LimitsNow() {
    Limits limits;
    constexpr uint64_t kKiB = 1024;
    uint64_t needed = 0;
    uint64_t available = 0;
    if (shb_room(nullptr, &needed, &available) == SHB_OK) {
        limits.shared_bytes = available;
    }
    if (const auto available_kib = FieldOf("/proc/meminfo", "MemAvailable")) {
        limits.memory_bytes = *available_kib * kKiB;
    }
    rlimit bound{};
    if (getrlimit(RLIMIT_NOFILE, &bound) == 0 && bound.rlim_cur != RLIM_INFINITY) {
        limits.descriptors = Minus(bound.rlim_cur, OpenDescriptors());
    }
    limits.threads = NumberIn("/proc/sys/kernel/threads-max");
    Lower(limits.threads, NumberIn("/proc/sys/kernel/pid_max"));
    // root is not held to it.
    if (geteuid() != 0 && getrlimit(RLIMIT_NPROC, &bound) == 0 && bound.rlim_cur != RLIM_INFINITY) {
        Lower(limits.threads, bound.rlim_cur);
    }
    cpu_set_t cores;
    if (sched_getaffinity(0, sizeof cores, &cores) == 0) {
        limits.cores = CPU_COUNT(&cores);
    }
    for (const std::string &group : ControlGroups()) {
        // "QUOTA PERIOD", or "max PERIOD".
        std::ifstream file(group + "/cpu.max");
        double quota = 0;
        double period = 0;
        if (file >> quota >> period && period > 0) {
            limits.cores = std::min(limits.cores.value_or(quota / period), quota / period);
        }
        Lower(limits.threads, RoomIn(group, "pids.max", "pids.current"));
        Lower(limits.memory_bytes, RoomIn(group, "memory.max", "memory.current"));
    }
    return limits;
}

std::vector<std::string> Shortages(size_t sources, const Needs &needs, const Limits &limits) {
    std::vector<std::string> lines;
    const std::string head = Count(sources, "source takes", "sources take") + " ";
    if (limits.shared_bytes && needs.shared_bytes > *limits.shared_bytes) {
        lines.push_back(head + FormatBytes(needs.shared_bytes) + " of shared memory, and " + FormatBytes(*limits.shared_bytes) +
                        " are free in /dev/shm: smaller video_bytes, or a larger /dev/shm (of a container: --shm-size)");
    }
    // The shared memory is memory as well.
    const uint64_t memory = needs.memory_bytes + needs.shared_bytes;
    if (limits.memory_bytes && memory > *limits.memory_bytes) {
        lines.push_back(head + "about " + FormatBytes(memory) + " of memory, shared memory included, and " +
                        FormatBytes(*limits.memory_bytes) + " are available (MemAvailable, or the control group's memory.max)");
    }
    if (limits.descriptors && needs.descriptors > *limits.descriptors) {
        lines.push_back(head + "about " + std::to_string(needs.descriptors) + " file descriptors, and " +
                        std::to_string(*limits.descriptors) + " may be opened: ulimit -n, or LimitNOFILE= of the service");
    }
    if (limits.threads && needs.threads > *limits.threads) {
        lines.push_back(head + "about " + std::to_string(needs.threads) + " threads, and " + std::to_string(*limits.threads) +
                        " may be started (ulimit -u, kernel.threads-max, or TasksMax= of the service)");
    }
    return lines;
}

std::vector<std::string> Doubts(size_t sources, const Needs &needs, const Limits &limits) {
    if (!limits.cores || needs.cores <= *limits.cores) {
        return {};
    }
    std::ostringstream line;
    line.precision(2);
    line << Count(sources, "source", "sources") << " of 2 Mb/s each take about " << needs.cores
         << " cores, and this process may use " << *limits.cores;
    return {line.str()};
}

void RaiseDescriptorLimit() {
    rlimit bound{};
    if (getrlimit(RLIMIT_NOFILE, &bound) == 0) {
        bound.rlim_cur = bound.rlim_max;
        setrlimit(RLIMIT_NOFILE, &bound);
    }
}

}  // namespace tool
