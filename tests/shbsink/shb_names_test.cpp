// What stands in /dev/shm under a buffer's name, whoever made it: listing,
// telling, removing, replacing. And who still beats.
#include <fcntl.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <fstream>
#include <random>
#include <thread>

#include "shb_layout.h"
#include "shb_support.h"

using namespace shbtest;

namespace {

std::string PathOf(const std::string &name) {
    return "/dev/shm/" + name;
}

// Identity of a process that has been, and is no more.
uint64_t DeadIdentity() {
    const std::string name = UniqueName();
    Child creator([&] {
        shb_buffer_t *raw = nullptr;
        const shb_geometry_t geometry = SmallGeometry();
        return shb_create(name.c_str(), &geometry, &raw) == SHB_OK ? 0 : 1;
    });
    EXPECT_EQ(0, creator.Wait());
    const Segment segment(PathOf(name));
    uint64_t creator_identity;
    memcpy(&creator_identity, segment.bytes + offsetof(shb_header_t, creator), sizeof creator_identity);
    EXPECT_EQ(SHB_OK, shb_remove(name.c_str(), 0));
    return creator_identity;
}

uint64_t OwnIdentity() {
    const std::string name = UniqueName();
    Buffer buffer = Create(name, SmallGeometry());
    const Segment segment(PathOf(name));
    uint64_t identity;
    memcpy(&identity, segment.bytes + offsetof(shb_header_t, creator), sizeof identity);
    return identity;
}

shb_waiters_header_t HeaderOfWaiters() {
    const std::string name = UniqueName();
    Buffer buffer = Create(name, SmallGeometry());
    const Segment waiters(WaitersPath(name));
    shb_waiters_header_t header{};
    memcpy(&header, waiters.bytes, sizeof header);
    return header;
}

void MakeFile(const std::string &path, const std::string &content) {
    std::ofstream(path, std::ios::binary) << content;
}

// A buffer of another layout version: what all versions have in common, and 72 bytes of header in all.
void MakeForeignVersion(const std::string &name, uint32_t version, uint64_t creator) {
    std::string bytes(256 * 1024, '\0');
    const uint64_t magic = SHB_LAYOUT_MAGIC, total = bytes.size();
    const uint32_t header_bytes = 4096;
    memcpy(&bytes[0], &magic, 8);
    memcpy(&bytes[8], &version, 4);
    memcpy(&bytes[12], &header_bytes, 4);
    memcpy(&bytes[16], &total, 8);
    memcpy(&bytes[24], &creator, 8);
    MakeFile(PathOf(name), bytes);
}

// An entry of the list, or one without a name.
shb_info_t Listed(const std::string &name) {
    size_t count = 0;
    EXPECT_EQ(SHB_OK, shb_list(nullptr, 0, &count));
    // Others come and go meanwhile.
    std::vector<shb_info_t> all(count + 100);
    EXPECT_EQ(SHB_OK, shb_list(all.data(), all.size(), &count));
    all.resize(std::min(count, all.size()));
    EXPECT_TRUE(
        std::is_sorted(all.begin(), all.end(), [](const auto &a, const auto &b) { return strcmp(a.name, b.name) < 0; }));
    for (const shb_info_t &info : all)
        if (info.name == "/" + name)
            return info;
    return {};
}

int Remove(const std::string &name, bool force = false) {
    return shb_remove(name.c_str(), force ? 1 : 0);
}

int CreateResult(const std::string &name) {
    int result;
    Create(name, SmallGeometry(), &result);
    return result;
}

int AttachResult(const std::string &name) {
    int result;
    Attach(name, &result);
    return result;
}

// A buffer whose creator is no more.
std::string LeaveBuffer(uint32_t mode = 0600) {
    const std::string name = UniqueName();
    Child creator([&] { return CreateFor(name, SmallGeometry(), mode).release() != nullptr ? 0 : 1; });
    EXPECT_EQ(0, creator.Wait());
    return name;
}

}  // namespace

TEST(ShbNames, LivingBufferIsListedWithAllItIs) {
    const std::string name = UniqueName();
    shb_geometry_t geometry = SmallGeometry();
    geometry.channels = 2;
    geometry.streams = 3;
    Buffer buffer = Create(name, geometry);
    ASSERT_TRUE(buffer);
    const shb_info_t info = Listed(name);
    EXPECT_EQ("/" + name, info.name);
    EXPECT_EQ(SHB_LAYOUT_VERSION, info.version);
    EXPECT_EQ(getpid(), info.creator_pid);
    EXPECT_EQ(1, info.alive);
    EXPECT_EQ(0, memcmp(&geometry, &info.geometry, sizeof geometry));
    uint64_t bytes = 0;
    for (unsigned i = 0; i < 2; i++) {
        struct stat file {};
        ASSERT_EQ(0, stat(shb_file(buffer.get(), i), &file)) << i;
        bytes += static_cast<uint64_t>(file.st_size);
    }
    EXPECT_EQ(nullptr, shb_file(buffer.get(), 3));
    EXPECT_EQ(nullptr, shb_file(nullptr, 0));
    EXPECT_EQ(bytes, info.total_bytes);
    EXPECT_EQ(1, info.pid_is_ours);
    EXPECT_EQ(geteuid(), info.owner);
    EXPECT_EQ(0600u, info.mode);
    Map map = Attach(name);
    shb_info_t mapped{};
    ASSERT_EQ(SHB_OK, shb_map_info(map.get(), &mapped));
    mapped.heartbeat_age_ns = info.heartbeat_age_ns;
    EXPECT_EQ(0, memcmp(&info, &mapped, sizeof info));
    buffer.reset();
    EXPECT_STREQ("", Listed(name).name);
    ASSERT_EQ(SHB_OK, shb_map_info(map.get(), &mapped));
    EXPECT_EQ(0, mapped.alive);
}

TEST(ShbNames, ListTellsHowManyThereAre) {
    const std::string first = UniqueName(), second = UniqueName();
    Buffer a = Create(first, SmallGeometry()), b = Create(second, SmallGeometry());
    shb_info_t one{};
    size_t count = 0;
    EXPECT_EQ(SHB_OK, shb_list(&one, 1, &count));
    EXPECT_GE(count, 2u);
    EXPECT_NE('\0', one.name[0]);
    EXPECT_EQ(SHB_ERR_ARG, shb_list(nullptr, 1, &count));
    EXPECT_EQ(SHB_ERR_ARG, shb_list(&one, 1, nullptr));
    EXPECT_EQ(SHB_ERR_ARG, shb_map_info(nullptr, &one));
}

TEST(ShbNames, RemovesWhatADeadCreatorLeft) {
    const std::string name = LeaveBuffer();
    Map map = Attach(name);
    const shb_info_t info = Listed(name);
    EXPECT_EQ(0, info.alive);
    EXPECT_GT(info.creator_pid, 0);
    EXPECT_EQ(SmallGeometry().video_bytes, info.geometry.video_bytes);
    EXPECT_EQ(3u, FilesOf(name).size());
    EXPECT_EQ(SHB_OK, Remove("/" + name));
    EXPECT_TRUE(FilesOf(name).empty());
    EXPECT_EQ(SHB_ERR_NOT_FOUND, Remove(name));
    EXPECT_EQ(SHB_ERR_ARG, Remove("a/b"));
    EXPECT_EQ(SHB_ERR_ARG, shb_remove(nullptr, 0));
}

TEST(ShbNames, LivingBufferIsRemovedByForceOnly) {
    const std::string name = UniqueName();
    Buffer buffer = Create(name, SmallGeometry());
    Writer writer = OpenWriter(buffer);
    Map map = Attach(name);
    Reader reader = OpenReader(map, SHB_START_OLDEST);
    EXPECT_EQ(SHB_ERR_EXISTS, Remove(name));
    EXPECT_EQ(3u, FilesOf(name).size());
    EXPECT_EQ(SHB_OK, Remove(name, true));
    EXPECT_TRUE(FilesOf(name).empty());
    EXPECT_EQ(SHB_ERR_NOT_FOUND, AttachResult(name));
    // Who had it goes on with it, waits included, and the name is free for another.
    ReadFrame got;
    std::thread waiter([&] { got = Read(reader, 60'000); });
    WritePattern(writer, 1, 0, 100);
    waiter.join();
    EXPECT_TRUE(got.Whole());
    Buffer other = Create(name, SmallGeometry());
    ASSERT_TRUE(other);
    writer.reset();
    buffer.reset();
    EXPECT_EQ(3u, FilesOf(name).size()) << "the name is the other's now";
    EXPECT_EQ(SHB_OK, AttachResult(name));
    EXPECT_EQ(SHB_ERR_CLOSED, Read(reader, -1).result);
}

class ShbForeignVersion : public ::testing::TestWithParam<uint32_t> {};

TEST_P(ShbForeignVersion, IsListedAndReplacedByItsCreatorsLife) {
    const std::string name = UniqueName();
    MakeForeignVersion(name, GetParam(), OwnIdentity());
    shb_info_t info = Listed(name);
    EXPECT_EQ(GetParam(), info.version);
    EXPECT_EQ(1, info.alive);
    EXPECT_EQ(getpid(), info.creator_pid);
    EXPECT_EQ(0u, info.total_bytes);
    EXPECT_EQ(0u, info.geometry.channels);
    EXPECT_EQ(SHB_ERR_VERSION, AttachResult(name));
    EXPECT_EQ(SHB_ERR_EXISTS, CreateResult(name));
    EXPECT_EQ(SHB_ERR_EXISTS, Remove(name));
    EXPECT_EQ(SHB_OK, Remove(name, true));

    const uint64_t dead = DeadIdentity();
    MakeForeignVersion(name, GetParam(), dead);
    EXPECT_EQ(0, Listed(name).alive);
    EXPECT_EQ(SHB_ERR_VERSION, AttachResult(name));
    EXPECT_EQ(SHB_OK, Remove(name));
    MakeForeignVersion(name, GetParam(), dead);
    Buffer buffer = Create(name, SmallGeometry());
    ASSERT_TRUE(buffer);
    EXPECT_EQ(SHB_OK, AttachResult(name));
}

INSTANTIATE_TEST_SUITE_P(Versions, ShbForeignVersion, ::testing::Values(1u, 2u, 4u));

TEST(ShbNames, WhatIsNoBufferIsLeftAlone) {
    const std::string name = UniqueName(), target = UniqueName();
    const auto expect_left_alone = [&](const char *what) {
        EXPECT_STREQ("", Listed(name).name) << what;
        EXPECT_EQ(SHB_ERR_EXISTS, CreateResult(name)) << what;
        EXPECT_EQ(SHB_ERR_VERSION, Remove(name)) << what;
        EXPECT_EQ(SHB_ERR_VERSION, Remove(name, true)) << what;
        EXPECT_EQ(SHB_ERR_VERSION, AttachResult(name)) << what;
        struct stat file;
        EXPECT_EQ(0, lstat(PathOf(name).c_str(), &file)) << what;
    };
    for (const std::string &content : {std::string(), std::string("hello"), std::string(300'000, 'x')}) {
        MakeFile(PathOf(name), content);
        expect_left_alone("file");
        ASSERT_EQ(0, unlink(PathOf(name).c_str()));
    }
    ASSERT_EQ(0, mkfifo(PathOf(name).c_str(), 0600));
    expect_left_alone("pipe");
    ASSERT_EQ(0, unlink(PathOf(name).c_str()));
    ASSERT_EQ(0, mkdir(PathOf(name).c_str(), 0700));
    expect_left_alone("folder");
    ASSERT_EQ(0, rmdir(PathOf(name).c_str()));
    // A link is not followed, not even to a sound buffer.
    Buffer buffer = Create(target, SmallGeometry());
    ASSERT_TRUE(buffer);
    ASSERT_EQ(0, symlink(PathOf(target).c_str(), PathOf(name).c_str()));
    expect_left_alone("link");
    ASSERT_EQ(0, unlink(PathOf(name).c_str()));
    EXPECT_EQ(SHB_OK, AttachResult(target));
}

TEST(ShbNames, OrphanedWaitersAreSweptAway) {
    const std::string name = UniqueName();
    const shb_waiters_header_t sound = HeaderOfWaiters();
    std::mt19937_64 random(std::random_device{}());
    // With what stands in the place of their socket. The name of the socket.
    const auto make_waiters = [&](uint64_t creator) {
        shb_waiters_header_t header = sound;
        header.creator = creator;
        header.token = random();
        std::string bytes(sizeof header + 2 * sizeof(shb_waiters_t), '\0');
        memcpy(&bytes[0], &header, sizeof header);
        char socket[32];
        snprintf(socket, sizeof socket, "+%016llx", static_cast<unsigned long long>(header.token));
        MakeFile(PathOf(name + socket), bytes);
        MakeFile(PathOf(socket), "");
        return std::string(socket);
    };
    const uint64_t dead = DeadIdentity();
    make_waiters(dead);
    const std::string alive = make_waiters(OwnIdentity());
    MakeFile(PathOf(name + "+2123456789abcdef"), std::string(1000, 'x'));
    make_waiters(dead);
    EXPECT_EQ(7u, FilesOf(name).size());
    // Without a buffer there is nothing to remove, but what the dead have left goes.
    EXPECT_EQ(SHB_ERR_NOT_FOUND, Remove(name));
    EXPECT_EQ(3u, FilesOf(name).size());
    EXPECT_TRUE(SegmentExists(name + alive)) << "its creator lives";
    EXPECT_TRUE(SegmentExists(alive)) << "its creator lives";
    EXPECT_TRUE(SegmentExists(name + "+2123456789abcdef")) << "it is none";
    make_waiters(dead);
    Buffer buffer = Create(name, SmallGeometry());
    EXPECT_EQ(6u, FilesOf(name).size());
    buffer.reset();
    EXPECT_EQ(3u, FilesOf(name).size());
    for (const std::string &left : FilesOf(name))
        unlink(PathOf(left).c_str());
}

TEST(ShbNames, OtherUsersBuffersAreSeenButStay) {
    if (geteuid() != 0)
        GTEST_SKIP() << "only root can become somebody else";
    const std::string name = LeaveBuffer(0644);
    Child other([&] {
        if (setgroups(0, nullptr) != 0 || setgid(65534) != 0 || setuid(65534) != 0)
            return 3;
        if (Listed(name).version != SHB_LAYOUT_VERSION || Listed(name).alive != 0)
            return 4;
        if (Remove(name) != SHB_ERR_SYSTEM || (errno != EPERM && errno != EACCES))
            return 5;
        return CreateResult(name) == SHB_ERR_EXISTS && AttachResult(name) == SHB_OK ? 0 : 6;
    });
    EXPECT_EQ(0, other.Wait());
    EXPECT_EQ(3u, FilesOf(name).size());
    EXPECT_EQ(SHB_OK, Remove(name));
}

TEST(ShbNames, LockThatSomebodyKeepsHoldsNobodyUp) {
    // Whoever may read the buffer may lock it, which means nothing.
    std::string name = LeaveBuffer();
    int fd = open(PathOf(name).c_str(), O_RDONLY | O_CLOEXEC);
    ASSERT_EQ(0, flock(fd, LOCK_EX));
    EXPECT_EQ(SHB_OK, Remove(name));
    close(fd);
    // The waiters are locked while a buffer is being removed, by its user: that is waited for, but not for good.
    name = LeaveBuffer();
    fd = open(WaitersPath(name).c_str(), O_RDONLY | O_CLOEXEC);
    ASSERT_EQ(0, flock(fd, LOCK_EX));
    EXPECT_EQ(SHB_ERR_SYSTEM, Remove(name));
    EXPECT_EQ(3u, FilesOf(name).size());
    close(fd);
    EXPECT_EQ(SHB_OK, Remove(name));
}

// ---- Heartbeat -------------------------------------------------------------------------------------------------------

TEST(ShbNames, StoppedCreatorLivesButItsHeartDoesNotBeat) {
    constexpr uint64_t kSecond = 1'000'000'000;
    const std::string name = UniqueName();
    Pipe made;
    Child creator([&] {
        Buffer buffer = Create(name, SmallGeometry());
        made.Signal();
        pause();
        return 0;
    });
    ASSERT_TRUE(made.Await());
    Map map = Attach(name);
    const auto info = [&] {
        shb_info_t now{};
        EXPECT_EQ(SHB_OK, shb_map_info(map.get(), &now));
        return now;
    };
    const Segment segment(PathOf(name));
    const auto *header = reinterpret_cast<const shb_header_t *>(segment.bytes);
    const auto beats = [&](int times) {
        for (uint64_t last = header->heartbeat_ns; times > 0; times--, last = header->heartbeat_ns)
            if (!Eventually([&] { return header->heartbeat_ns != last; }))
                return false;
        return true;
    };
    EXPECT_TRUE(beats(2));
    Reader reader = OpenReader(map, SHB_START_OLDEST);
    creator.Signal(SIGSTOP);
    EXPECT_TRUE(Eventually([&] { return info().heartbeat_age_ns > kSecond; }));
    EXPECT_EQ(1, info().alive);
    EXPECT_EQ(1, Listed(name).alive);
    EXPECT_GT(Listed(name).heartbeat_age_ns, kSecond);
    EXPECT_EQ(SHB_ERR_TIMEOUT, Read(reader).result) << "it may go on";
    creator.Signal(SIGCONT);
    EXPECT_TRUE(beats(2));
    creator.Kill();
    EXPECT_TRUE(Eventually([&] { return info().alive == 0; }));
    EXPECT_EQ(SHB_ERR_CLOSED, Read(reader, -1).result);
    EXPECT_EQ(SHB_OK, Remove(name));
}
