// What other users of the machine may see of a buffer, and that they can neither stop nor delay anybody.
#include <fcntl.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <linux/futex.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/syscall.h>

#include <cerrno>
#include <climits>
#include <fstream>

#include "shb_layout.h"
#include "shb_support.h"

using namespace shbtest;

namespace {

constexpr uid_t kNobody = 65534;
constexpr gid_t kSomeGroup = 4242;

bool Become(uid_t user, gid_t group) {
    return setgroups(0, nullptr) == 0 && setgid(group) == 0 && setuid(user) == 0;
}

class ShbUsers : public ::testing::Test {
  protected:
    void SetUp() override {
        if (geteuid() != 0)
            GTEST_SKIP() << "only root can become somebody else";
    }
};

Buffer CreateWith(const std::string &name, uint32_t mode, int64_t group = -1, int *result = nullptr) {
    const shb_geometry_t geometry = SmallGeometry();
    shb_create_options_t options{};
    options.mode = mode;
    options.group_given = group >= 0 ? 1 : 0;
    options.group = group >= 0 ? static_cast<uint32_t>(group) : 0;
    shb_buffer_t *buffer = nullptr;
    const int r = shb_create_with(name.c_str(), &geometry, &options, &buffer);
    if (result != nullptr)
        *result = r;
    return Buffer(r == SHB_OK ? buffer : nullptr);
}

mode_t ModeOf(const char *path) {
    struct stat file {};
    return stat(path, &file) == 0 ? file.st_mode & 0777 : 0;
}

// Exit codes of a child that attaches: the answer as a positive number.
int AttachAs(const std::string &name, uid_t user, gid_t group) {
    Child child([&] {
        if (!Become(user, group))
            return 100;
        int result = SHB_OK;
        errno = 0;
        const Map map = Attach(name, &result);
        return result == SHB_ERR_SYSTEM ? errno + 100 : -result;
    });
    return child.Wait();
}

}  // namespace

TEST_F(ShbUsers, ABufferIsForItsOwnUserUnlessSaidOtherwise) {
    const std::string name = UniqueName();
    const Buffer buffer = Create(name, SmallGeometry());
    ASSERT_TRUE(buffer);
    for (unsigned i = 0; i < 3; i++)
        EXPECT_EQ(0600u, ModeOf(shb_file(buffer.get(), i))) << i;
    EXPECT_EQ(100 + EACCES, AttachAs(name, kNobody, kNobody));
    const Map map = Attach(name);
    ASSERT_TRUE(map);
    shb_info_t info{};
    ASSERT_EQ(SHB_OK, shb_map_info(map.get(), &info));
    EXPECT_EQ(geteuid(), info.owner);
    EXPECT_EQ(0600u, info.mode);
}

TEST_F(ShbUsers, AGroupMayReadAndOthersMayNot) {
    const std::string name = UniqueName();
    const Buffer buffer = CreateWith(name, 0640, kSomeGroup);
    ASSERT_TRUE(buffer);
    EXPECT_EQ(0640u, ModeOf(shb_file(buffer.get(), 0)));
    EXPECT_EQ(0600u, ModeOf(shb_file(buffer.get(), 1)));
    EXPECT_EQ(0660u, ModeOf(shb_file(buffer.get(), 2)));
    EXPECT_EQ(0, AttachAs(name, kNobody, kSomeGroup));
    EXPECT_EQ(100 + EACCES, AttachAs(name, kNobody, kNobody));
    shb_info_t info{};
    ASSERT_EQ(SHB_OK, shb_map_info(Attach(name).get(), &info));
    EXPECT_EQ(kSomeGroup, info.group);
    EXPECT_EQ(0640u, info.mode);
}

TEST_F(ShbUsers, TheUmaskIsTakenOff) {
    Child child([] {
        umask(077);
        const Buffer buffer = CreateWith(UniqueName(), 0644);
        return buffer ? static_cast<int>(ModeOf(shb_file(buffer.get(), 0)) != 0600) * 2 +
                            static_cast<int>(ModeOf(shb_file(buffer.get(), 2)) != 0600)
                      : 9;
    });
    EXPECT_EQ(0, child.Wait());
}

TEST_F(ShbUsers, ModesThatLetOthersWriteAreRefused) {
    for (const uint32_t mode : {0660u, 0666u, 0400u, 0044u, 01644u, 0700u}) {
        int result = SHB_OK;
        EXPECT_FALSE(CreateWith(UniqueName(), mode, -1, &result));
        EXPECT_EQ(SHB_ERR_ARG, result) << std::oct << mode;
    }
}

TEST_F(ShbUsers, AGroupThatIsNotTheCreatorsIsRefused) {
    Child child([] {
        if (!Become(kNobody, kNobody))
            return 8;
        int result = SHB_OK;
        const std::string name = UniqueName();
        const Buffer buffer = CreateWith(name, 0640, kSomeGroup, &result);
        return result == SHB_ERR_SYSTEM && errno == EPERM && FilesOf(name).empty() ? 0 : 1;
    });
    EXPECT_EQ(0, child.Wait());
}

TEST_F(ShbUsers, AnOwnerCanBeDemanded) {
    const std::string name = UniqueName();
    const Buffer buffer = CreateWith(name, 0644);
    ASSERT_TRUE(buffer);
    Child child([&] {
        if (!Become(kNobody, kNobody))
            return 8;
        shb_attach_options_t mine{};
        mine.owner_given = 1;
        mine.owner = kNobody;
        shb_map_t *map = nullptr;
        if (shb_attach_with(name.c_str(), &mine, &map) != SHB_ERR_OWNER)
            return 1;
        mine.owner = 0;
        const bool attached = shb_attach_with(name.c_str(), &mine, &map) == SHB_OK;
        shb_detach(map);
        return attached ? 0 : 2;
    });
    EXPECT_EQ(0, child.Wait());
}

// Whoever may read a file may lock it.
TEST_F(ShbUsers, ALockOfAnotherUserStopsNoRestart) {
    const std::string name = UniqueName();
    Pipe made, locked;
    Child creator([&] {
        const Buffer buffer = CreateWith(name, 0644);
        made.Signal();
        pause();
        return 0;
    });
    ASSERT_TRUE(made.Await());
    Child other([&] {
        const int fd = open(("/dev/shm/" + name).c_str(), O_RDONLY | O_CLOEXEC);
        if (!Become(kNobody, kNobody) || flock(fd, LOCK_EX) != 0)
            return 1;
        struct flock reading {};
        reading.l_type = F_RDLCK;
        if (fcntl(fd, F_OFD_SETLK, &reading) != 0)
            return 2;
        locked.Signal();
        pause();
        return 0;
    });
    ASSERT_TRUE(locked.Await());
    creator.Kill();
    int result = SHB_ERR_ARG;
    Buffer again = Create(name, SmallGeometry(), &result);
    EXPECT_EQ(SHB_OK, result);
    EXPECT_EQ(SHB_OK, shb_remove(name.c_str(), 1));
    EXPECT_FALSE(SegmentExists(name));
    again.reset();
    EXPECT_TRUE(FilesOf(name).empty());
}

// A file that somebody else has put where the lock is expected holds nobody up either.
TEST_F(ShbUsers, AFileInThePlaceOfTheLockStopsNoRestart) {
    const std::string name = UniqueName();
    Pipe made;
    Child creator([&] {
        const Buffer buffer = CreateWith(name, 0644);
        made.Signal();
        pause();
        return 0;
    });
    ASSERT_TRUE(made.Await());
    creator.Kill();
    const std::string path = WaitersPath(name);
    ASSERT_FALSE(path.empty());
    ASSERT_EQ(0, unlink(path.c_str()));
    Pipe placed;
    Child other([&] {
        if (!Become(kNobody, kNobody))
            return 1;
        const int fd = open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
        if (fd < 0 || flock(fd, LOCK_EX) != 0)
            return 2;
        placed.Signal();
        pause();
        return 0;
    });
    ASSERT_TRUE(placed.Await());
    int result = SHB_ERR_ARG;
    const Buffer again = Create(name, SmallGeometry(), &result);
    EXPECT_EQ(SHB_OK, result);
    unlink(path.c_str());
}

namespace {

struct Sleeper {
    std::atomic<uint32_t> ready{0};
    std::atomic<uint32_t> asleep{0};  // how often the reader has gone to sleep
    std::atomic<uint32_t> stop{0};
    std::atomic<uint64_t> rounds{0};  // of the thief
    std::atomic<uint64_t> got{0};
    std::atomic<uint64_t> late{0};
};

bool Sleeps(pid_t process) {
    std::string line;
    std::getline(std::ifstream("/proc/" + std::to_string(process) + "/stat"), line);
    return line.find(") S ") != std::string::npos;
}

// Moves whoever sleeps on a word of the mapping to a word of its own, as fast as it can.
int StealSleepers(const std::string &name, const Shared<Sleeper> &sleeper) {
    const int fd = open(("/dev/shm/" + name).c_str(), O_RDONLY | O_CLOEXEC);
    if (!Become(kNobody, kNobody) || fd < 0)
        return 1;
    constexpr size_t kWatched = SHB_PAGE_BYTES + 4096;
    auto *map = static_cast<uint8_t *>(mmap(nullptr, kWatched, PROT_READ, MAP_SHARED, fd, 0));
    auto *den = static_cast<uint32_t *>(mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    if (map == MAP_FAILED || den == MAP_FAILED)
        return 2;
    sleeper->ready++;
    for (; sleeper->stop == 0; sleeper->rounds++)
        for (size_t at = SHB_PAGE_BYTES; at < kWatched; at += 4)
            syscall(SYS_futex, map + at, FUTEX_REQUEUE, 0, INT_MAX, den, 0);
    return 0;
}

}  // namespace

TEST_F(ShbUsers, NobodyCanTakeSleepersAway) {
    const std::string name = UniqueName();
    const Shared<Sleeper> sleeper;
    const Buffer buffer = CreateWith(name, 0644);
    Writer writer = OpenWriter(buffer);
    ASSERT_TRUE(writer);
    Child thief([&] { return StealSleepers(name, sleeper); });
    Child follower([&] {
        const Map map = Attach(name);
        const Reader reader = OpenReader(map, SHB_START_NEWEST);
        sleeper->ready++;
        // One that has been taken away finds the frame only when it looks by itself, after 200 ms.
        constexpr auto kLate = std::chrono::milliseconds(190);
        while (sleeper->stop == 0) {
            sleeper->asleep++;
            const auto before = std::chrono::steady_clock::now();
            if (Read(reader, 1000).result != SHB_OK)
                continue;
            sleeper->late += std::chrono::steady_clock::now() - before >= kLate ? 1 : 0;
            sleeper->got++;
        }
        return 0;
    });
    ASSERT_TRUE(Eventually([&] { return sleeper->ready == 2; }));
    constexpr uint64_t kFrames = 30;
    Segment waiters(shb_file(buffer.get(), 1));
    const auto *words = reinterpret_cast<const shb_waiters_t *>(waiters.bytes + sizeof(shb_waiters_header_t));
    for (uint64_t i = 0; i < kFrames; i++) {
        ASSERT_TRUE(Eventually([&] { return sleeper->asleep == i + 1 && words[SHB_VIDEO].waiting != 0; }));
        ASSERT_TRUE(Eventually([&] { return Sleeps(follower.Id()); }));
        // Now the thief has its time.
        const uint64_t rounds = sleeper->rounds;
        ASSERT_TRUE(Eventually([&] { return sleeper->rounds >= rounds + 3; }));
        ASSERT_EQ(SHB_OK, WritePattern(writer, 1, i, 100));
        ASSERT_TRUE(Eventually([&] { return sleeper->got == i + 1; }));
    }
    sleeper->stop = 1;
    WritePattern(writer, 1, kFrames, 100);
    EXPECT_EQ(0, follower.Wait());
    EXPECT_EQ(0, thief.Wait());
    // A machine that is busy with other things may be late a few times; a stolen sleeper is late each time.
    EXPECT_LT(sleeper->late, kFrames / 3);
}

// What another user does at the socket costs nobody else anything.
TEST_F(ShbUsers, ConnectionsOfOneUserAreLimited) {
    const std::string name = UniqueName();
    const Buffer buffer = CreateWith(name, 0644);
    Writer writer = OpenWriter(buffer);
    ASSERT_TRUE(writer);
    constexpr size_t kMany = 100, kAllowed = 64;
    const auto sockets = [] {
        size_t found = 0;
        constexpr int kMostDescriptors = 1024;
        for (int fd = 0; fd < kMostDescriptors; fd++) {
            struct stat file {};
            found += fstat(fd, &file) == 0 && S_ISSOCK(file.st_mode);
        }
        return found;
    };
    const size_t before = sockets();
    Pipe armed, written;
    Child greedy([&] {
        if (!Become(kNobody, kNobody))
            return 100;
        const Map map = Attach(name);
        std::vector<Reader> readers;
        std::vector<shb_set_t *> sets(kMany);
        shb_reader_t *ready = nullptr;
        for (size_t i = 0; i < kMany; i++) {
            readers.push_back(OpenReader(map, SHB_START_NEWEST));
            if (shb_set_open(&sets[i]) != SHB_OK || shb_set_add(sets[i], readers[i].get()) != SHB_OK ||
                shb_set_next(sets[i], 0, &ready) != SHB_ERR_TIMEOUT)
                return 1;
        }
        armed.Signal();
        written.Await();
        // All of them go on: those that are not woken look by themselves.
        for (size_t i = 0; i < kMany; i++) {
            if (shb_set_next(sets[i], 20'000, &ready) != SHB_OK || Read(readers[i]).result != SHB_OK)
                return 2;
            shb_set_close(sets[i]);
        }
        return 0;
    });
    ASSERT_TRUE(armed.Await());
    EXPECT_TRUE(Eventually([&] { return sockets() - before == kAllowed; }));
    WritePattern(writer, 1, 0, 100);
    written.Signal();
    EXPECT_EQ(0, greedy.Wait());
}
