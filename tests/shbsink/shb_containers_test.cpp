// Creators and readers that share /dev/shm and nothing else: other PID, time and user namespaces, as containers have them.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/syscall.h>

#include <cerrno>
#include <fstream>
#include <thread>

#include "shb_layout.h"
#include "shb_support.h"

using namespace shbtest;

namespace {

struct Meeting {
    std::atomic<int> made{0};
    std::atomic<int> stop{0};
    std::atomic<pid_t> inner{0};  // as this process sees it
    std::atomic<uint64_t> written{0};
    std::atomic<uint64_t> got{0};
    std::atomic<int> result{0};
};

constexpr int kNoRight = 77, kBroken = 76;

// Not root with all its rights, or a kernel without such namespaces. Anything else is a failure.
int WhyNot() {
    return errno == EPERM || errno == EACCES || errno == ENOSYS || errno == EINVAL ? kNoRight : kBroken;
}

bool WriteFile(const std::string &path, const std::string &text) {
    std::ofstream file(path);
    file << text << std::flush;
    return file.good();
}

bool EnterUserNamespace() {
    return unshare(CLONE_NEWUSER) == 0 && WriteFile("/proc/self/setgroups", "deny") &&
           WriteFile("/proc/self/uid_map", "0 0 1") && WriteFile("/proc/self/gid_map", "0 0 1");
}

// Runs `body` as the first process of new namespaces; kNoRight where they are not to be had.
int InNamespaces(int kinds, const Shared<Meeting> &meeting, const std::function<int()> &body) {
    if ((kinds & CLONE_NEWUSER) != 0 && !EnterUserNamespace())
        return WhyNot();
    if (unshare(kinds & ~CLONE_NEWUSER) != 0)
        return WhyNot();
    if ((kinds & CLONE_NEWTIME) != 0 && !WriteFile("/proc/self/timens_offsets", "monotonic 1000000 0\nboottime 1000000 0\n"))
        return WhyNot();
    const pid_t inner = fork();
    if (inner == 0) {
        const bool own_proc = (kinds & CLONE_NEWNS) == 0 || (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
                                                             mount("proc", "/proc", "proc", 0, nullptr) == 0);
        _exit(own_proc ? body() : WhyNot());
    }
    meeting->inner = inner;
    int status = -1;
    waitpid(inner, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

constexpr int kContainer = CLONE_NEWPID | CLONE_NEWNS;

struct Kind {
    const char *name;
    int kinds;
};

int WriteUntilStopped(const std::string &name, const Shared<Meeting> &meeting) {
    const Buffer buffer = Create(name, SmallGeometry());
    const Writer writer = OpenWriter(buffer);
    if (!writer)
        return 2;
    while (meeting->stop == 0) {
        WritePattern(writer, 1, meeting->written, 100, SHB_FRAME_KEY);
        meeting->written++;
        meeting->made = 1;
        sched_yield();
    }
    return 0;
}

class ShbContainers : public ::testing::TestWithParam<Kind> {
  protected:
    const std::string name = UniqueName();
    const Shared<Meeting> meeting;

    int Contained(const std::function<int()> &body) const { return InNamespaces(GetParam().kinds, meeting, body); }
    int CreateOutThere() const {
        const int code = Contained([this] { return WriteUntilStopped(name, meeting); });
        meeting->result = code;
        return code;
    }
    // The creator and its process id, or the reason why there is none.
    bool IsThere() const { return (meeting->made == 1 && meeting->inner != 0) || meeting->result != 0; }
    bool HasNoRight() const { return meeting->result == kNoRight; }
};

shb_info_t InfoOf(const std::string &name) {
    std::vector<shb_info_t> all(256);
    size_t count = 0;
    if (shb_list(all.data(), all.size(), &count) == SHB_OK)
        for (size_t i = 0; i < count && i < all.size(); i++)
            if (all[i].name == "/" + name)
                return all[i];
    return {};
}

}  // namespace

TEST_P(ShbContainers, AReaderOutThereIsListed) {
    const Buffer buffer = Create(name, SmallGeometry());
    ASSERT_TRUE(buffer);
    Child child([&] {
        meeting->result = Contained([this] {
            const Map map = Attach(name);
            const Reader reader = OpenReader(map, SHB_START_NEWEST);
            meeting->made = 1;
            while (meeting->stop == 0)
                Read(reader, 10);
            return 0;
        });
        return 0;
    });
    ASSERT_TRUE(Eventually([&] { return IsThere(); }));
    if (HasNoRight())
        GTEST_SKIP() << "no right to such namespaces";
    shb_reader_info_t info{};
    size_t count = 0;
    ASSERT_EQ(SHB_OK, shb_buffer_readers(buffer.get(), &info, 1, &count));
    EXPECT_EQ(1u, count);
    const bool same = (GetParam().kinds & CLONE_NEWPID) == 0;
    EXPECT_EQ(same, info.pid_is_ours != 0);
    EXPECT_EQ(same ? meeting->inner.load() : 1, info.pid);
    meeting->stop = 1;
    EXPECT_EQ(0, child.Wait());
    EXPECT_EQ(SHB_OK, shb_buffer_readers(buffer.get(), nullptr, 0, &count));
    EXPECT_EQ(0u, count);
}

TEST_P(ShbContainers, ACreatorOutThereIsAlive) {
    Child creator([&] { return CreateOutThere(); });
    ASSERT_TRUE(Eventually([&] { return IsThere(); }));
    if (HasNoRight())
        GTEST_SKIP() << "no right to such namespaces";
    EXPECT_EQ(1, InfoOf(name).alive);
    EXPECT_EQ((GetParam().kinds & CLONE_NEWPID) == 0, InfoOf(name).pid_is_ours != 0);
    EXPECT_EQ(SHB_ERR_EXISTS, shb_remove(name.c_str(), 0));
    int result = SHB_OK;
    EXPECT_FALSE(Create(name, SmallGeometry(), &result));
    EXPECT_EQ(SHB_ERR_EXISTS, result);
    const Map map = Attach(name);
    ASSERT_TRUE(map);
    const Reader reader = OpenReader(map, SHB_START_NEWEST);
    for (int i = 0; i < 100; i++) {
        const ReadFrame got = Read(reader, 20'000);
        ASSERT_EQ(SHB_OK, got.result);
        ASSERT_TRUE(got.Whole());
        EXPECT_EQ(1, shb_map_alive(map.get()));
    }
    shb_stats_t stats{};
    ASSERT_EQ(SHB_OK, shb_map_stats(map.get(), 0, 0, SHB_VIDEO, &stats));
    EXPECT_NE(0, stats.writer_pid);
    EXPECT_LT(stats.age_ns, UINT64_C(10'000'000'000));
    meeting->stop = 1;
    EXPECT_EQ(0, creator.Wait());
    ReadFrame last;
    do
        last = Read(reader, 20'000);
    while (last.result == SHB_OK);
    EXPECT_EQ(SHB_ERR_CLOSED, last.result);
}

TEST_P(ShbContainers, AReaderOutThereReads) {
    const Buffer buffer = Create(name, SmallGeometry());
    const Writer writer = OpenWriter(buffer);
    ASSERT_TRUE(writer);
    Child follower([&] {
        const int code = Contained([&] {
            const Map map = Attach(name);
            if (!map)
                return 1;
            const Reader reader = OpenReader(map, SHB_START_NEWEST);
            int other = SHB_OK;
            if (InfoOf(name).alive != 1 || shb_remove(name.c_str(), 0) != SHB_ERR_EXISTS ||
                Create(name, SmallGeometry(), &other) || other != SHB_ERR_EXISTS)
                return 2;
            meeting->made = 1;
            for (int i = 0; i < 100; i++, meeting->got++) {
                const ReadFrame got = Read(reader, 20'000);
                if (got.result != SHB_OK || !got.Whole())
                    return 3;
            }
            return 0;
        });
        meeting->result = code == 0 ? 1 : code;
        return code;
    });
    ASSERT_TRUE(Eventually([&] { return meeting->made == 1 || meeting->result != 0; }));
    if (HasNoRight())
        GTEST_SKIP() << "no right to such namespaces";
    for (uint64_t sequence = 0; meeting->result == 0; sequence++) {
        WritePattern(writer, 1, sequence, 100);
        sched_yield();
    }
    EXPECT_EQ(0, follower.Wait());
    EXPECT_EQ(100u, meeting->got);
}

// It is stopped for three seconds and goes on: a reader that waits gets its next frame, and nobody has taken the name meanwhile.
TEST_P(ShbContainers, ACreatorThatWasStoppedIsAliveAgain) {
    Child creator([&] { return CreateOutThere(); });
    ASSERT_TRUE(Eventually([&] { return IsThere(); }));
    if (HasNoRight())
        GTEST_SKIP() << "no right to such namespaces";
    const Map map = Attach(name);
    const Reader reader = OpenReader(map, SHB_START_NEWEST);
    ASSERT_TRUE(reader);
    ASSERT_EQ(SHB_OK, Read(reader, 20'000).result);
    ASSERT_EQ(0, kill(meeting->inner, SIGSTOP));
    // Everything that it wrote before.
    ReadFrame got;
    do
        got = Read(reader, 100);
    while (got.result == SHB_OK);
    EXPECT_EQ(SHB_ERR_TIMEOUT, got.result);
    std::atomic<int> waited{1};
    std::thread waiter([&] { waited = Read(reader, 60'000).result; });
    shb_info_t info{};
    constexpr uint64_t kStopped = 3'000'000'000;
    EXPECT_TRUE(Eventually([&] { return shb_map_info(map.get(), &info) == SHB_OK && info.heartbeat_age_ns >= kStopped; }));
    EXPECT_EQ(1, waited) << "a reader gave it up";
    EXPECT_EQ(1, shb_map_alive(map.get()));
    EXPECT_EQ(SHB_ERR_EXISTS, shb_remove(name.c_str(), 0));
    ASSERT_EQ(0, kill(meeting->inner, SIGCONT));
    waiter.join();
    EXPECT_EQ(SHB_OK, waited);
    meeting->stop = 1;
    EXPECT_EQ(0, creator.Wait());
}

// Where the process cannot be asked for, its heartbeat decides, which takes a few seconds.
TEST_P(ShbContainers, ACreatorThatWasKilledIsNoticed) {
    Child creator([&] { return CreateOutThere(); });
    ASSERT_TRUE(Eventually([&] { return IsThere(); }));
    if (HasNoRight())
        GTEST_SKIP() << "no right to such namespaces";
    const Map map = Attach(name);
    const Reader reader = OpenReader(map, SHB_START_NEWEST);
    ASSERT_TRUE(reader);
    ASSERT_EQ(0, kill(meeting->inner, SIGKILL));
    EXPECT_EQ(128 + SIGKILL, creator.Wait());
    // At once only where the process can be asked for.
    if ((GetParam().kinds & CLONE_NEWPID) == 0) {
        EXPECT_TRUE(Create(name, SmallGeometry()));
    }
    ReadFrame got;
    do
        got = Read(reader, 30'000);
    while (got.result == SHB_OK);
    EXPECT_EQ(SHB_ERR_CLOSED, got.result);
    EXPECT_TRUE(Eventually([&] { return shb_map_alive(map.get()) == 0; }));
    int result = SHB_ERR_ARG;
    EXPECT_TRUE(Create(name, SmallGeometry(), &result));
    EXPECT_EQ(SHB_OK, result);
}

INSTANTIATE_TEST_SUITE_P(Namespaces, ShbContainers,
                         ::testing::Values(Kind{"pid", kContainer}, Kind{"time", CLONE_NEWTIME},
                                           Kind{"pid_time", kContainer | CLONE_NEWTIME},
                                           Kind{"user", kContainer | CLONE_NEWUSER}),
                         [](const auto &kind) { return kind.param.name; });

// A process lives on when its main thread has ended.
TEST(ShbCreator, WhoseMainThreadHasEndedIsAlive) {
    const std::string name = UniqueName();
    const Shared<Meeting> meeting;
    Child creator([&] {
        std::thread([&] { _exit(WriteUntilStopped(name, meeting)); }).detach();
        syscall(SYS_exit, 0);
        return 1;
    });
    ASSERT_TRUE(Eventually([&] { return meeting->made == 1; }));
    const std::string stat = "/proc/" + std::to_string(creator.Id()) + "/stat";
    ASSERT_TRUE(Eventually([&] {
        std::string line;
        std::getline(std::ifstream(stat), line);
        return line.find(") Z") != std::string::npos;
    }));
    const Map map = Attach(name);
    ASSERT_TRUE(map);
    EXPECT_EQ(1, InfoOf(name).alive);
    EXPECT_EQ(SHB_ERR_EXISTS, shb_remove(name.c_str(), 0));
    // Also while its heartbeat stands still.
    creator.Signal(SIGSTOP);
    shb_info_t info{};
    constexpr uint64_t kOld = 700'000'000;
    EXPECT_TRUE(Eventually([&] { return shb_map_info(map.get(), &info) == SHB_OK && info.heartbeat_age_ns >= kOld; }));
    EXPECT_EQ(1, shb_map_alive(map.get()));
    EXPECT_EQ(SHB_ERR_EXISTS, shb_remove(name.c_str(), 0));
    creator.Signal(SIGCONT);
    meeting->stop = 1;
    EXPECT_EQ(0, creator.Wait());
}

TEST(ShbCreator, ThatWasKilledIsReplacedAtOnce) {
    const std::string name = UniqueName();
    const Shared<Meeting> meeting;
    Child creator([&] { return WriteUntilStopped(name, meeting); });
    ASSERT_TRUE(Eventually([&] { return meeting->made == 1; }));
    creator.Kill();
    int result = SHB_ERR_ARG;
    EXPECT_TRUE(Create(name, SmallGeometry(), &result));
    EXPECT_EQ(SHB_OK, result);
}
