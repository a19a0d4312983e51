#include "shb_support.h"

#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>

// The framework is not instrumented: what its own locks order looks like a race there. Children that end with
// a thread still running would be held for a second each.
extern "C" const char *__tsan_default_options();
extern "C" const char *__tsan_default_options() {
    return "ignore_noninstrumented_modules=1:atexit_sleep_ms=0";
}
// GLib keeps the outgrown table of its quarks on purpose; that is made when the library is loaded. The exact
// unwinder is needed to see so far through code without frame pointers.
extern "C" const char *__lsan_default_suppressions();
extern "C" const char *__lsan_default_suppressions() {
    return "leak:call_init\n";
}
extern "C" const char *__asan_default_options();
extern "C" const char *__asan_default_options() {
    return "fast_unwind_on_malloc=0";
}

namespace {

std::vector<std::string> EntriesOf(const std::string &prefix) {
    std::vector<std::string> names;
    DIR *directory = opendir("/dev/shm");
    if (directory == nullptr)
        return names;
    while (const dirent *entry = readdir(directory))
        if (std::string(entry->d_name).rfind(prefix, 0) == 0)
            names.emplace_back(entry->d_name);
    closedir(directory);
    return names;
}

// Tokens of the sockets that this process and its children have made: nothing in the system tells whose a socket is.
struct Sockets {
    static constexpr size_t kMost = 65536;
    std::atomic<uint64_t> count;
    std::atomic<uint64_t> tokens[kMost];
};
shbtest::Shared<Sockets> sockets;  // NOLINT(cert-err58-cpp)

// No test leaves anything in the system, however it ended.
class NothingLeft : public ::testing::Environment {
  public:
    void TearDown() override {
        for (const std::string &name : shbtest::FilesOf("shbtest-" + std::to_string(getpid()) + "-"))
            ADD_FAILURE() << name << " was left in /dev/shm";
        const uint64_t count = sockets->count;
        ASSERT_LE(count, Sockets::kMost);
        for (uint64_t i = 0; i < count; i++) {
            char name[32];
            snprintf(name, sizeof name, "+%016llx", static_cast<unsigned long long>(sockets->tokens[i]));
            EXPECT_FALSE(shbtest::SegmentExists(name)) << name << " was left in /dev/shm";
        }
    }
};
const auto *const nothing_left = ::testing::AddGlobalTestEnvironment(new NothingLeft);  // NOLINT(cert-err58-cpp)

}  // namespace

// The definition in the executable comes before that of the C library.
extern "C" int bind(int fd, const sockaddr *address, socklen_t size) noexcept {
    static const auto real = reinterpret_cast<decltype(&bind)>(dlsym(RTLD_NEXT, "bind"));
    const int result = real(fd, address, size);
    const char *const path = reinterpret_cast<const sockaddr_un *>(address)->sun_path;
    if (result == 0 && address->sa_family == AF_UNIX && strncmp(path, "/dev/shm/+", 10) == 0)
        sockets->tokens[sockets->count++ % Sockets::kMost] = strtoull(path + 10, nullptr, 16);
    return result;
}

namespace shbtest {

namespace {

bool OthersSleep() {
    bool all = true;
    DIR *threads = opendir("/proc/self/task");
    if (threads == nullptr)
        return true;
    while (const dirent *entry = readdir(threads)) {
        if (entry->d_name[0] == '.' || std::to_string(gettid()) == entry->d_name)
            continue;
        std::ifstream file(std::string("/proc/self/task/") + entry->d_name + "/stat");
        std::string line;
        std::getline(file, line);
        // "ID (NAME) STATE ...", and a name may hold anything.
        const size_t name_end = line.rfind(')');
        all = all && (name_end == std::string::npos || line.compare(name_end, 3, ") S") == 0);
    }
    closedir(threads);
    return all;
}

}  // namespace

void AwaitSleepingThreads() {
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(200);
    while (!OthersSleep() && std::chrono::steady_clock::now() < end)
        sched_yield();
}

std::vector<std::string> FilesOf(const std::string &prefix) {
    static std::map<std::string, std::string> seen;  // name of a socket: name of the buffer
    std::vector<std::string> names = EntriesOf(prefix);
    for (const std::string &name : names)
        if (const size_t plus = name.find('+'); plus != std::string::npos)
            seen[name.substr(plus)] = name.substr(0, plus);
    for (const auto &[socket, buffer] : seen)
        if (buffer.rfind(prefix, 0) == 0 && SegmentExists(socket))
            names.push_back(socket);
    return names;
}

std::string WaitersPath(const std::string &name) {
    const auto found = EntriesOf(name + "+");
    return found.size() == 1 ? "/dev/shm/" + found[0] : "";
}

Segment::Segment(const std::string &path) {
    const int fd = open(path.c_str(), O_RDWR | O_CLOEXEC);
    struct stat file {};
    if (fd >= 0 && fstat(fd, &file) == 0) {
        size = static_cast<size_t>(file.st_size);
        bytes = static_cast<uint8_t *>(mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0));
    }
    close(fd);
}

Segment::~Segment() {
    munmap(bytes, size);
}

}  // namespace shbtest
