#include "process_sample.h"

#include <sys/resource.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

namespace tool {
namespace {

double SecondsOf(const timeval &time) {
    constexpr double kMicro = 1e-6;
    return static_cast<double>(time.tv_sec) + kMicro * static_cast<double>(time.tv_usec);
}

// Since 1970-01-01 UTC.
double BootTime() {
    std::ifstream file("/proc/stat");
    for (std::string word; file >> word;) {
        double time = 0;
        if (word == "btime" && file >> time) {
            return time;
        }
    }
    return 0;
}

}  // namespace

ProcessSample SampleProcess() {
    ProcessSample sample;
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    sample.cpu_s = SecondsOf(usage.ru_utime) + SecondsOf(usage.ru_stime);

    std::ifstream memory("/proc/self/statm");
    uint64_t pages = 0;
    uint64_t resident = 0;
    if (memory >> pages >> resident) {
        sample.resident_bytes = resident * static_cast<uint64_t>(sysconf(_SC_PAGESIZE));
    }

    // Fields behind the name, which stands in brackets and may hold anything.
    std::ifstream file("/proc/self/stat");
    std::string line;
    std::getline(file, line);
    std::istringstream fields(line.substr(line.rfind(')') + 1));
    constexpr int kThreads = 17;  // counted from the state, which is 0
    constexpr int kStart = 19;
    std::string field;
    for (int i = 0; fields >> field && i <= kStart; ++i) {
        if (i == kThreads) {
            sample.threads = std::stoull(field);
        } else if (i == kStart) {
            static const double boot = BootTime();
            sample.start_time_s = boot + std::stod(field) / static_cast<double>(sysconf(_SC_CLK_TCK));
        }
    }

    std::error_code error;
    sample.descriptors = static_cast<uint64_t>(std::distance(std::filesystem::directory_iterator("/proc/self/fd", error), {}));
    return sample;
}

}  // namespace tool
