// What the shared-buffer tests have in common: owners, frames whose
// content can be checked, children that always end.
#pragma once

#include <sched.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>
#include <algorithm>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "shb.h"

namespace shbtest {

// It has its own ways with signals and with children of threaded programs.
#ifdef __SANITIZE_THREAD__
constexpr bool kThreadSanitized = true;
#else
constexpr bool kThreadSanitized = false;
#endif

// Instrumented code takes many times as long, and each process that is forked a multiple of that.
#ifdef __SANITIZE_ADDRESS__
constexpr bool kSanitized = true;
#else
constexpr bool kSanitized = false;
#endif

// A name that no other test of this machine uses.
inline std::string UniqueName() {
    static std::atomic<int> counter{0};
    return "shbtest-" + std::to_string(getpid()) + "-" + std::to_string(counter++);
}

inline bool SegmentExists(const std::string &name) {
    return access(("/dev/shm/" + name).c_str(), F_OK) == 0;
}

struct Deleter {
    void operator()(shb_buffer_t *p) const { shb_destroy(p); }
    void operator()(shb_writer_t *p) const { shb_writer_close(p); }
    void operator()(shb_map_t *p) const { shb_detach(p); }
    void operator()(shb_reader_t *p) const { shb_reader_close(p); }
};
using Buffer = std::unique_ptr<shb_buffer_t, Deleter>;
using Writer = std::unique_ptr<shb_writer_t, Deleter>;
using Map = std::unique_ptr<shb_map_t, Deleter>;
using Reader = std::unique_ptr<shb_reader_t, Deleter>;

// The smallest tracks there are: wrap-around and loss come soon.
inline shb_geometry_t SmallGeometry() {
    shb_geometry_t geometry{};
    geometry.video_bytes = 65536;
    geometry.audio_bytes = 65536;
    geometry.video_frames = 16;
    geometry.audio_frames = 16;
    return geometry;
}

inline Buffer Create(const std::string &name, const shb_geometry_t &geometry, int *result = nullptr) {
    shb_buffer_t *buffer = nullptr;
    int r = shb_create(name.c_str(), &geometry, &buffer);
    if (result != nullptr)
        *result = r;
    return Buffer(r == SHB_OK ? buffer : nullptr);
}

// The same for readers whom `mode` lets in.
inline Buffer CreateFor(const std::string &name, const shb_geometry_t &geometry, uint32_t mode, int *result = nullptr) {
    shb_create_options_t options{};
    options.mode = mode;
    shb_buffer_t *buffer = nullptr;
    int r = shb_create_with(name.c_str(), &geometry, &options, &buffer);
    if (result != nullptr)
        *result = r;
    return Buffer(r == SHB_OK ? buffer : nullptr);
}

inline Writer OpenWriter(const Buffer &buffer, shb_kind_t kind = SHB_VIDEO, int *result = nullptr) {
    shb_writer_t *writer = nullptr;
    int r = shb_writer_open(buffer.get(), 0, 0, kind, &writer);
    if (result != nullptr)
        *result = r;
    return Writer(r == SHB_OK ? writer : nullptr);
}

inline Map Attach(const std::string &name, int *result = nullptr) {
    shb_map_t *map = nullptr;
    int r = shb_attach(name.c_str(), &map);
    if (result != nullptr)
        *result = r;
    return Map(r == SHB_OK ? map : nullptr);
}

inline Reader OpenReader(const Map &map, shb_start_t start, shb_kind_t kind = SHB_VIDEO) {
    shb_reader_t *reader = nullptr;
    return Reader(shb_reader_open(map.get(), 0, 0, kind, start, &reader) == SHB_OK ? reader : nullptr);
}

// Content that follows from epoch, sequence and size alone, so that a
// frame can be checked without having been kept.
inline std::vector<uint8_t> Pattern(uint64_t epoch, uint64_t sequence, size_t size) {
    uint64_t state = (epoch << 40) ^ (sequence * 0x9e3779b97f4a7c15u) ^ size ^ 1;
    std::vector<uint8_t> bytes(size);
    for (auto &byte : bytes) {
        state ^= state << 13;
        state ^= state >> 7;
        state ^= state << 17;
        byte = static_cast<uint8_t>(state >> 32);
    }
    return bytes;
}

inline int WritePattern(const Writer &writer, uint64_t epoch, uint64_t sequence, size_t size, uint32_t flags = 0) {
    const auto bytes = Pattern(epoch, sequence, size);
    return shb_writer_write(writer.get(), bytes.data(), bytes.size(), sequence * 40, sequence * 40 + 1, 40, flags);
}

struct ReadFrame {
    int result = SHB_ERR_ARG;
    shb_frame_t frame{};
    std::vector<uint8_t> bytes;
    bool Whole() const { return bytes == Pattern(frame.epoch, frame.sequence, frame.size); }
};

inline ReadFrame Read(const Reader &reader, int timeout_ms = 0, size_t capacity = 1 << 20) {
    ReadFrame got;
    got.bytes.resize(capacity);
    got.result = shb_reader_read(reader.get(), got.bytes.data(), capacity, timeout_ms, &got.frame);
    got.bytes.resize(got.result == SHB_OK ? got.frame.size : 0);
    return got;
}

// Until the other threads of the process sleep, a fifth of a second at most. A child that is forked while
// one of them, the heartbeat of a buffer that has just been made, holds the lock of the address
// sanitizer's allocator would have it locked for ever.
void AwaitSleepingThreads();

// A forked child that runs `body` and ends with its result. It is ended and reaped in any case.
class Child {
  public:
    explicit Child(const std::function<int()> &body) {
        AwaitSleepingThreads();
        pid_ = fork();
        if (pid_ == 0)
            _exit(body());
    }
    Child(const Child &) = delete;
    Child &operator=(const Child &) = delete;
    ~Child() { Kill(); }
    pid_t Id() const { return pid_; }
    // -1 when it did not end by itself.
    int Wait() {
        const int status = Status();
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }
    // The signal that ended it, 0 when none did.
    int WaitSignal() {
        const int status = Status();
        return WIFSIGNALED(status) ? WTERMSIG(status) : 0;
    }
    void Signal(int number) const { kill(pid_, number); }
    void Kill() {
        if (pid_ <= 0)
            return;
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
        pid_ = -1;
    }
    // Killed and left unreaped: a zombie.
    void KillOnly() const {
        kill(pid_, SIGKILL);
        siginfo_t info;
        waitid(P_PID, static_cast<id_t>(pid_), &info, WEXITED | WNOWAIT);
    }

  private:
    int Status() {
        int status = -1;
        if (pid_ > 0)
            waitpid(pid_, &status, 0);
        pid_ = -1;
        return status;
    }
    pid_t pid_ = -1;
};

// Memory that a test and its children share, zeroed.
template <typename T>
class Shared {
  public:
    Shared() : value_(new (mmap(nullptr, sizeof(T), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0)) T()) {}
    Shared(const Shared &) = delete;
    Shared &operator=(const Shared &) = delete;
    ~Shared() { munmap(value_, sizeof(T)); }
    T *operator->() const { return value_; }
    T &operator*() const { return *value_; }

  private:
    T *const value_;
};

// Gives way until it holds, false after a minute, in which time does
// not count while the whole machine stands still.
inline bool Eventually(const std::function<bool()> &holds) {
    constexpr std::chrono::steady_clock::duration longest_look = std::chrono::seconds(1);
    std::chrono::steady_clock::duration spent{0};
    for (auto last = std::chrono::steady_clock::now(); !holds();) {
        if (spent > std::chrono::minutes(1))
            return false;
        sched_yield();
        const auto now = std::chrono::steady_clock::now();
        spent += std::min(now - last, longest_look);
        last = now;
    }
    return true;
}

// What stands in /dev/shm for the buffers whose names begin so. A socket has no name of a buffer in its own: it is found by the
// token in that of the file of waiters, also when that file is gone but was seen by an earlier call.
std::vector<std::string> FilesOf(const std::string &prefix);

// Path of the file of waiters that belongs to a buffer, empty when there is none.
std::string WaitersPath(const std::string &name);

// A whole file of shared memory, writable, as no reader sees it.
class Segment {
  public:
    explicit Segment(const std::string &path);
    Segment(const Segment &) = delete;
    Segment &operator=(const Segment &) = delete;
    ~Segment();
    template <typename T>
    void Put(size_t offset, T value) const {
        memcpy(bytes + offset, &value, sizeof value);
    }
    uint8_t *bytes = nullptr;
    size_t size = 0;
};

// Lets two processes meet: one byte per step.
class Pipe {
  public:
    Pipe() {
        if (pipe(fds_) != 0)
            fds_[0] = fds_[1] = -1;
    }
    Pipe(const Pipe &) = delete;
    Pipe &operator=(const Pipe &) = delete;
    ~Pipe() {
        close(fds_[0]);
        close(fds_[1]);
    }
    bool Signal() const { return write(fds_[1], "x", 1) == 1; }
    bool Await() const {
        char byte;
        return read(fds_[0], &byte, 1) == 1;
    }

  private:
    int fds_[2];
};

}  // namespace shbtest
