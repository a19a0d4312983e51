// A reader that has something to read asks the system for nothing, and neither does a host that looks at the counters.
#include <gtest/gtest.h>
#include <unistd.h>

#include <ctime>
#include <thread>

#include "no_system_calls.h"
#include "shb_layout.h"
#include "shb_support.h"

using namespace shbtest;

namespace {

enum : int { kSilent = 7, kWrong = 1, kNoRight = 3 };

uint64_t Clock(clockid_t clock) {
    timespec now{};
    clock_gettime(clock, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1'000'000'000 + static_cast<uint64_t>(now.tv_nsec);
}

// The creator's heartbeat, as young or as old as a test needs it, however busy the machine is.
class Heart {
  public:
    explicit Heart(const std::string &name) : segment_("/dev/shm/" + name) {}
    void Beat() const { Set(Clock(CLOCK_MONOTONIC), Clock(CLOCK_REALTIME)); }
    void Stop() const { Set(0, 0); }

  private:
    void Set(uint64_t monotonic, uint64_t wall) const {
        auto *header = reinterpret_cast<shb_header_t *>(segment_.bytes);
        header->heartbeat_ns = monotonic;
        header->heartbeat_wall_ns = wall;
    }
    Segment segment_;
};

// All that a program does again and again.
struct Looks {
    explicit Looks(const std::string &name) : map(Attach(name)), reader(OpenReader(map, SHB_START_OLDEST)), bytes(65536) {}

    int ReadOne() { return shb_reader_read(reader.get(), bytes.data(), bytes.size(), 0, &frame); }

    int BorrowOne() {
        const void *data = nullptr;
        const int result = shb_reader_borrow(reader.get(), 0, &data, &frame);
        // It may be overwritten meanwhile: the writer does not wait.
        if (result == SHB_OK)
            shb_reader_return(reader.get());
        return result;
    }

    bool Counters() {
        size_t size = 0;
        return shb_map_stats(map.get(), 0, 0, SHB_VIDEO, &stats) == SHB_OK && shb_map_alive(map.get()) == 1 &&
               shb_map_info(map.get(), &info) == SHB_OK && info.alive == 1 && info.pid_is_ours == 1 &&
               shb_map_geometry(map.get(), &geometry) == SHB_OK &&
               shb_map_description(map.get(), 0, 0, SHB_VIDEO, &description) == SHB_OK &&
               shb_map_codec_data(map.get(), 0, 0, SHB_VIDEO, &description, bytes.data(), bytes.size(), &size) == SHB_OK &&
               shb_reader_get_stats(reader.get(), &reader_stats) == SHB_OK && reader_stats.frames <= stats.frames;
    }

    Map map;
    Reader reader;
    std::vector<uint8_t> bytes;
    shb_frame_t frame{};
    shb_stats_t stats{};
    shb_info_t info{};
    shb_geometry_t geometry{};
    shb_description_t description{};
    shb_reader_stats_t reader_stats{};
};

// Not by _exit, before which the sanitizers ask for the stack.
int EndWith(int code) {
    syscall(SYS_exit_group, code);
    return code;
}

// Runs `body` in a process without system calls beside one that writes all the time.
int BesideAWriter(const std::function<int(Looks &, const Heart &)> &body, int *signal = nullptr) {
    const std::string name = UniqueName();
    Buffer buffer = Create(name, SmallGeometry());
    Writer writer = OpenWriter(buffer);
    shb_description_t description{};
    description.width = 320;
    EXPECT_EQ(SHB_OK, shb_writer_describe(writer.get(), &description, "abc", 3));
    for (uint64_t i = 0; i < 10; i++)
        EXPECT_EQ(SHB_OK, WritePattern(writer, 1, i, 1000, SHB_FRAME_KEY));
    Child child([&] {
        Looks looks(name);
        const Heart heart(name);
        // The loader and the sanitizers do their own when something is called for the first time.
        heart.Beat();
        // A frame may be gone before it has been copied.
        if (!Eventually([&] { return looks.ReadOne() == SHB_OK; }) ||
            !Eventually([&] { return looks.BorrowOne() == SHB_OK; }) || !looks.Counters())
            return int{kWrong};
        return ForbidSystemCalls() ? EndWith(body(looks, heart)) : int{kNoRight};
    });
    siginfo_t info{};
    for (uint64_t i = 10;
         waitid(P_PID, static_cast<id_t>(child.Id()), &info, WEXITED | WNOWAIT | WNOHANG) == 0 && info.si_pid == 0; i++)
        WritePattern(writer, 1, i, 1000, SHB_FRAME_KEY);
    if (signal != nullptr) {
        *signal = info.si_code == CLD_EXITED ? 0 : info.si_status;
        return info.si_code == CLD_EXITED ? info.si_status : -1;
    }
    return child.Wait();
}

}  // namespace

TEST(ShbQuiet, ReadingAndLookingMakeNoSystemCall) {
    const int code = BesideAWriter([](Looks &looks, const Heart &heart) {
        int read = 0, borrowed = 0;
        while (read < 1000 || borrowed < 1000) {
            heart.Beat();
            const int first = looks.ReadOne(), second = looks.BorrowOne();
            if ((first != SHB_OK && first != SHB_ERR_TIMEOUT) || (second != SHB_OK && second != SHB_ERR_TIMEOUT) ||
                !looks.Counters())
                return int{kWrong};
            read += first == SHB_OK;
            borrowed += second == SHB_OK;
        }
        return int{kSilent};
    });
    if (code == kNoRight)
        GTEST_SKIP() << "no right to filter system calls";
    EXPECT_EQ(kSilent, code) << "it made one";
}

TEST(ShbQuiet, OnlyAHeartThatStandsStillIsAskedAbout) {
    // The counterpart: asking is a system call, and the end.
    int signal = 0;
    const int code = BesideAWriter(
        [](Looks &looks, const Heart &heart) {
            // The creator's own heartbeat may come in between.
            for (int i = 0; i < 1000; i++) {
                heart.Stop();
                shb_map_alive(looks.map.get());
            }
            return int{kSilent};
        },
        &signal);
    if (code == kNoRight)
        GTEST_SKIP() << "no right to filter system calls";
    EXPECT_EQ(SIGSYS, signal);
}

namespace {

// What a host asks about its buffer again and again.
bool LookAtBuffer(const Buffer &buffer, pid_t writer) {
    shb_stats_t stats{};
    shb_description_t description{};
    shb_geometry_t geometry{};
    return shb_buffer_stats(buffer.get(), 0, 0, SHB_VIDEO, &stats) == SHB_OK && stats.writer_pid == writer &&
           shb_buffer_stats(buffer.get(), 0, 0, SHB_AUDIO, &stats) == SHB_OK && stats.writer_pid == 0 &&
           shb_buffer_description(buffer.get(), 0, 0, SHB_VIDEO, &description) == SHB_OK &&
           shb_get_geometry(buffer.get(), &geometry) == SHB_OK;
}

int LookInSilence(const Buffer &buffer, pid_t writer) {
    if (!LookAtBuffer(buffer, writer))
        return kWrong;
    if (!ForbidSystemCalls())
        return kNoRight;
    for (int i = 0; i < 1000; i++)
        if (!LookAtBuffer(buffer, writer))
            return EndWith(kWrong);
    return EndWith(kSilent);
}

Writer OpenDescribedWriter(const Buffer &buffer) {
    Writer writer = OpenWriter(buffer);
    shb_description_t description{};
    description.width = 320;
    shb_writer_describe(writer.get(), &description, nullptr, 0);
    return writer;
}

}  // namespace

TEST(ShbQuiet, AHostThatLooksAtItsBufferMakesNoSystemCall) {
    const std::string name = UniqueName();
    Child host([&] {
        const Buffer buffer = Create(name, SmallGeometry());
        const Writer writer = OpenDescribedWriter(buffer);
        return LookInSilence(buffer, getpid());
    });
    const int code = host.Wait();
    if (code == kNoRight)
        GTEST_SKIP() << "no right to filter system calls";
    EXPECT_EQ(kSilent, code) << "it made one";
    EXPECT_EQ(SHB_OK, shb_remove(name.c_str(), 0));
}

// The writer is the creator's process there as well, and not its own.
TEST(ShbQuiet, AForkedChildThatLooksAtItsParentsBufferMakesNoSystemCall) {
    const Buffer buffer = Create(UniqueName(), SmallGeometry());
    const Writer writer = OpenDescribedWriter(buffer);
    const pid_t parent = getpid();
    Child child([&] { return LookInSilence(buffer, parent); });
    const int code = child.Wait();
    if (code == kNoRight)
        GTEST_SKIP() << "no right to filter system calls";
    EXPECT_EQ(kSilent, code) << "it made one";
}

// The counterpart: a writer in another process has to be asked about.
TEST(ShbQuiet, OnlyAWriterOfAnotherProcessIsAskedAbout) {
    const Buffer buffer = Create(UniqueName(), SmallGeometry());
    Pipe opened;
    Child other([&] {
        const Writer writer = OpenDescribedWriter(buffer);
        opened.Signal();
        pause();
        return 0;
    });
    ASSERT_TRUE(opened.Await());
    Child child([&] { return LookInSilence(buffer, other.Id()); });
    siginfo_t info{};
    ASSERT_EQ(0, waitid(P_PID, static_cast<id_t>(child.Id()), &info, WEXITED | WNOWAIT));
    if (info.si_code == CLD_EXITED && info.si_status == kNoRight)
        GTEST_SKIP() << "no right to filter system calls";
    EXPECT_EQ(SIGSYS, child.WaitSignal());
}
