// Making, finding and removing buffers; who lives and who has died.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>

#include "shb_support.h"

using namespace shbtest;

extern "C" int shbtest_open_writer(shb_buffer_t *buffer, int kind, shb_writer_t **out);
extern "C" int shbtest_open_reader(shb_map_t *map, int kind, int start, shb_reader_t **out);

TEST(ShbBuffer, FillsInDefaults) {
    const std::string name = UniqueName();
    shb_buffer_t *raw = nullptr;
    ASSERT_EQ(SHB_OK, shb_create(name.c_str(), nullptr, &raw));
    Buffer buffer(raw);
    EXPECT_EQ("/" + name, shb_name(raw));
    shb_geometry_t geometry;
    ASSERT_EQ(SHB_OK, shb_get_geometry(raw, &geometry));
    EXPECT_EQ(1u, geometry.channels);
    EXPECT_EQ(1u, geometry.streams);
    EXPECT_EQ(8u << 20, geometry.video_bytes);
    EXPECT_EQ(512u << 10, geometry.audio_bytes);
    EXPECT_EQ(1024u, geometry.video_frames);
    EXPECT_EQ(1024u, geometry.audio_frames);
    Map map = Attach("/" + name);
    ASSERT_TRUE(map);
    shb_geometry_t seen;
    ASSERT_EQ(SHB_OK, shb_map_geometry(map.get(), &seen));
    EXPECT_EQ(0, memcmp(&geometry, &seen, sizeof seen));
}

TEST(ShbBuffer, ChecksNames) {
    const shb_geometry_t geometry = SmallGeometry();
    shb_buffer_t *raw = nullptr;
    for (const char *name : {"", "/", "a/b", "//a", "a b", "ä", ".", "..", "/..", "a\n", "a*"}) {
        EXPECT_EQ(SHB_ERR_ARG, shb_create(name, &geometry, &raw)) << '"' << name << '"';
        shb_map_t *map = nullptr;
        EXPECT_EQ(SHB_ERR_ARG, shb_attach(name, &map)) << '"' << name << '"';
    }
    EXPECT_EQ(SHB_ERR_ARG, shb_create(nullptr, &geometry, &raw));
    EXPECT_EQ(SHB_ERR_ARG, shb_create(std::string(201, 'a').c_str(), &geometry, &raw));
    EXPECT_EQ(nullptr, raw);
    std::string longest = UniqueName() + "-._";
    longest.append(200 - longest.size(), 'x');
    Buffer buffer = Create(longest, geometry);
    EXPECT_TRUE(buffer);
    EXPECT_TRUE(SegmentExists(longest));
}

TEST(ShbBuffer, ChecksGeometry) {
    const auto refused = [](void (*change)(shb_geometry_t &)) {
        shb_geometry_t geometry = SmallGeometry();
        change(geometry);
        shb_buffer_t *raw = nullptr;
        int result = shb_create(UniqueName().c_str(), &geometry, &raw);
        shb_destroy(raw);
        return result == SHB_ERR_ARG;
    };
    EXPECT_TRUE(refused([](shb_geometry_t &g) { g.channels = 1025; }));
    EXPECT_TRUE(refused([](shb_geometry_t &g) { g.streams = 65; }));
    EXPECT_TRUE(refused([](shb_geometry_t &g) { g.video_bytes = 65536 - 1; }));
    EXPECT_TRUE(refused([](shb_geometry_t &g) { g.video_bytes = 65536 + 64; }));
    EXPECT_TRUE(refused([](shb_geometry_t &g) { g.audio_bytes = 32768; }));
    EXPECT_TRUE(refused([](shb_geometry_t &g) { g.audio_bytes = uint64_t{1} << 31; }));
    EXPECT_TRUE(refused([](shb_geometry_t &g) { g.video_frames = 8; }));
    EXPECT_TRUE(refused([](shb_geometry_t &g) { g.video_frames = 1000; }));
    EXPECT_TRUE(refused([](shb_geometry_t &g) { g.audio_frames = 131072; }));
}

TEST(ShbBuffer, LeavesNothingBehind) {
    const std::string name = UniqueName();
    Buffer buffer = Create(name, SmallGeometry());
    ASSERT_TRUE(buffer);
    EXPECT_EQ(3u, FilesOf(name).size());
    struct stat file;
    for (unsigned index = 0; index < 3; index++) {
        ASSERT_EQ(0, stat(shb_file(buffer.get(), index), &file)) << index;
        EXPECT_EQ(0600u, file.st_mode & 0777u) << index;
        EXPECT_EQ(index == 2, S_ISSOCK(file.st_mode));
        EXPECT_GE(static_cast<uint64_t>(file.st_blocks) * 512, static_cast<uint64_t>(file.st_size)) << "not reserved";
    }
    Map map = Attach(name);
    ASSERT_TRUE(map);
    EXPECT_EQ(1, shb_map_alive(map.get()));
    buffer.reset();
    EXPECT_TRUE(FilesOf(name).empty());
    EXPECT_EQ(0, shb_map_alive(map.get()));
    int result;
    Attach(name, &result);
    EXPECT_EQ(SHB_ERR_NOT_FOUND, result);
}

// Whoever may read the buffer may connect to the socket, which takes the right to write; the waiters are for their user alone.
TEST(ShbBuffer, UmaskIsTakenOffTheMode) {
    const struct {
        mode_t umask;
        uint32_t asked, buffer, socket;
    } modes[] = {{0, 0644, 0644, 0666},   {022, 0644, 0644, 0666}, {027, 0644, 0640, 0660},
                 {077, 0644, 0600, 0600}, {022, 0640, 0640, 0660}, {0, 0, 0600, 0600}};
    for (const auto &mode : modes) {
        const mode_t before = umask(mode.umask);
        Buffer buffer = CreateFor(UniqueName(), SmallGeometry(), mode.asked);
        umask(before);
        ASSERT_TRUE(buffer);
        const uint32_t expected[] = {mode.buffer, 0600, mode.socket};
        for (unsigned index = 0; index < 3; index++) {
            struct stat file;
            ASSERT_EQ(0, stat(shb_file(buffer.get(), index), &file));
            EXPECT_EQ(expected[index], file.st_mode & 0777u) << "umask " << mode.umask << ", file " << index;
        }
    }
    for (const uint32_t mode : {0666u, 0620u, 0755u, 0400u, 0044u, 01644u}) {
        int result;
        CreateFor(UniqueName(), SmallGeometry(), mode, &result);
        EXPECT_EQ(SHB_ERR_ARG, result) << mode;
    }
}

TEST(ShbBuffer, NameOfALivingCreatorIsTaken) {
    const std::string name = UniqueName();
    Buffer buffer = Create(name, SmallGeometry());
    ASSERT_TRUE(buffer);
    int result;
    Create(name, SmallGeometry(), &result);
    EXPECT_EQ(SHB_ERR_EXISTS, result);
    Child other([&] {
        int r;
        Create(name, SmallGeometry(), &r);
        return r == SHB_ERR_EXISTS ? 0 : 1;
    });
    EXPECT_EQ(0, other.Wait());
    EXPECT_TRUE(SegmentExists(name));
}

TEST(ShbBuffer, FileThatIsNoBufferIsLeftAlone) {
    const std::string name = UniqueName();
    const std::string path = "/dev/shm/" + name;
    int fd = open(path.c_str(), O_CREAT | O_WRONLY, 0600);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(5, write(fd, "hello", 5));
    close(fd);
    int result;
    Create(name, SmallGeometry(), &result);
    EXPECT_EQ(SHB_ERR_EXISTS, result);
    EXPECT_TRUE(SegmentExists(name));
    Attach(name, &result);
    EXPECT_EQ(SHB_ERR_VERSION, result);
    unlink(path.c_str());
}

class StaleBuffer : public ::testing::TestWithParam<bool> {};

TEST_P(StaleBuffer, OfADeadCreatorIsReplaced) {
    const std::string name = UniqueName();
    Pipe made;
    Child creator([&] {
        Buffer buffer = Create(name, SmallGeometry());
        Writer writer = OpenWriter(buffer);
        WritePattern(writer, 1, 0, 100, SHB_FRAME_KEY);
        made.Signal();
        pause();
        return 0;
    });
    ASSERT_TRUE(made.Await());
    Map map = Attach(name);
    ASSERT_TRUE(map);
    Reader reader = OpenReader(map, SHB_START_OLDEST);
    ASSERT_TRUE(reader);
    EXPECT_EQ(1, shb_map_alive(map.get()));
    if (GetParam())
        creator.KillOnly();
    else
        creator.Kill();
    // Its last heartbeat is young: nobody asks the system yet.
    ASSERT_TRUE(Eventually([&] { return shb_map_alive(map.get()) == 0; }));
    shb_stats_t stats;
    ASSERT_EQ(SHB_OK, shb_map_stats(map.get(), 0, 0, SHB_VIDEO, &stats));
    EXPECT_EQ(0, stats.writer_pid);
    // What it left can still be read, then the end is told, however long the reader is willing to wait.
    ReadFrame got = Read(reader, -1);
    EXPECT_EQ(SHB_OK, got.result);
    EXPECT_TRUE(got.Whole());
    EXPECT_EQ(SHB_ERR_CLOSED, Read(reader, -1).result);
    EXPECT_TRUE(SegmentExists(name));

    int result;
    Buffer next = Create(name, SmallGeometry(), &result);
    ASSERT_EQ(SHB_OK, result);
    Map fresh = Attach(name);
    ASSERT_TRUE(fresh);
    EXPECT_EQ(1, shb_map_alive(fresh.get()));
    EXPECT_EQ(0, shb_map_alive(map.get()));
}

INSTANTIATE_TEST_SUITE_P(Dead, StaleBuffer, ::testing::Values(false, true),
                         [](const auto &which) { return which.param ? "Zombie" : "Reaped"; });

TEST(ShbBuffer, OnlyOneOfManyReplacesAStaleBuffer) {
    for (int round = 0; round < 20; round++) {
        const std::string name = UniqueName();
        Child creator([&] {
            shb_buffer_t *raw = nullptr;
            const shb_geometry_t geometry = SmallGeometry();
            return shb_create(name.c_str(), &geometry, &raw) == SHB_OK ? 0 : 1;
        });
        ASSERT_EQ(0, creator.Wait());
        ASSERT_TRUE(SegmentExists(name));
        Pipe go, done, leave;
        const auto contender = [&] {
            shb_buffer_t *raw = nullptr;
            const shb_geometry_t geometry = SmallGeometry();
            go.Await();
            int result = shb_create(name.c_str(), &geometry, &raw);
            done.Signal();
            leave.Await();
            return result == SHB_OK ? 10 : result == SHB_ERR_EXISTS ? 11 : 12;
        };
        std::vector<std::unique_ptr<Child>> contenders;
        contenders.reserve(4);
        for (int i = 0; i < 4; i++)
            contenders.push_back(std::make_unique<Child>(contender));
        for (int i = 0; i < 4; i++)
            go.Signal();
        for (int i = 0; i < 4; i++)
            done.Await();
        for (int i = 0; i < 4; i++)
            leave.Signal();
        int winners = 0;
        for (auto &child : contenders) {
            int code = child->Wait();
            EXPECT_TRUE(code == 10 || code == 11) << code;
            winners += code == 10;
        }
        EXPECT_EQ(1, winners);
        EXPECT_EQ(SHB_OK, shb_remove(name.c_str(), 0));
    }
}

TEST(ShbBuffer, ForkedChildDoesNotTakeTheBufferAway) {
    const std::string name = UniqueName();
    Buffer buffer = Create(name, SmallGeometry());
    ASSERT_TRUE(buffer);
    Map map = Attach(name);
    Child child([&] {
        shb_destroy(buffer.get());
        return 0;
    });
    EXPECT_EQ(0, child.Wait());
    EXPECT_TRUE(SegmentExists(name));
    EXPECT_EQ(1, shb_map_alive(map.get()));
}

TEST(ShbBuffer, AbsurdGeometryFindsNoSpace) {
    shb_geometry_t geometry{};
    geometry.channels = 1024;
    geometry.streams = 64;
    geometry.video_bytes = uint64_t{1} << 30;
    geometry.audio_bytes = uint64_t{1} << 30;
    geometry.video_frames = 65536;
    geometry.audio_frames = 65536;
    const std::string name = UniqueName();
    int result;
    Create(name, geometry, &result);
    EXPECT_EQ(SHB_ERR_NO_SPACE, result);
    EXPECT_FALSE(SegmentExists(name));
}

TEST(ShbBuffer, FullSharedMemoryFindsNoSpace) {
    Child child([] {
        if (unshare(CLONE_NEWNS) != 0 || mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
            mount("tmpfs", "/dev/shm", "tmpfs", 0, "size=1m") != 0)
            return 2;
        int result;
        const std::string name = UniqueName();
        shb_geometry_t large{};
        Create(name, large, &result);
        if (result != SHB_ERR_NO_SPACE || SegmentExists(name))
            return 1;
        Buffer small = Create(name, SmallGeometry(), &result);
        if (result != SHB_OK)
            return 1;
        // Room for the buffer itself, but not for its file of waiters.
        const std::string size = "size=" + std::to_string(Segment("/dev/shm/" + name).size);
        small.reset();
        if (mount("tmpfs", "/dev/shm", "tmpfs", 0, size.c_str()) != 0)
            return 2;
        Create(name, SmallGeometry(), &result);
        return result == SHB_ERR_NO_SPACE && FilesOf(name).empty() ? 0 : 1;
    });
    int code = child.Wait();
    if (code == 2)
        GTEST_SKIP() << "no right to mount";
    EXPECT_EQ(0, code);
}

TEST(ShbBuffer, ForeignPointersAreNotFollowed) {
    int nothing[64] = {};
    void *unmapped = reinterpret_cast<void *>(uintptr_t{0x1000});
    for (void *pointer : {static_cast<void *>(nullptr), static_cast<void *>(nothing), unmapped}) {
        auto *foreign = static_cast<shb_buffer_t *>(pointer);
        shb_geometry_t geometry;
        shb_stats_t stats;
        shb_description_t description;
        shb_writer_t *writer = nullptr;
        EXPECT_EQ(SHB_ERR_ARG, shb_get_geometry(foreign, &geometry));
        EXPECT_EQ(SHB_ERR_ARG, shb_buffer_stats(foreign, 0, 0, SHB_VIDEO, &stats));
        EXPECT_EQ(SHB_ERR_ARG, shb_buffer_description(foreign, 0, 0, SHB_VIDEO, &description));
        EXPECT_EQ(SHB_ERR_ARG, shb_writer_open(foreign, 0, 0, SHB_VIDEO, &writer));
        EXPECT_EQ(SHB_ERR_ARG, shb_set_presence(foreign, 0, 0, SHB_VIDEO, SHB_PRESENCE_ABSENT));
        EXPECT_EQ(SHB_ERR_ARG, shb_set_stall_watch(foreign, 1));
        EXPECT_EQ(0u, shb_get_stall_watch(foreign));
        shb_destroy(foreign);
    }
}

TEST(ShbBuffer, WriterThatIsStillOpenOutlivesTheBuffer) {
    const std::string name = UniqueName();
    Buffer buffer = Create(name, SmallGeometry());
    Writer writer = OpenWriter(buffer);
    ASSERT_TRUE(writer);
    buffer.reset();
    EXPECT_FALSE(SegmentExists(name));
    EXPECT_EQ(SHB_OK, WritePattern(writer, 1, 0, 100));
}

TEST(ShbBuffer, ChecksArguments) {
    EXPECT_EQ(SHB_ERR_ARG, shb_create("a", nullptr, nullptr));
    EXPECT_EQ(SHB_ERR_ARG, shb_attach("a", nullptr));
    EXPECT_EQ(nullptr, shb_name(nullptr));
    EXPECT_EQ(SHB_ERR_ARG, shb_map_geometry(nullptr, nullptr));
    EXPECT_EQ(0, shb_map_alive(nullptr));
    shb_destroy(nullptr);
    shb_writer_close(nullptr);
    shb_detach(nullptr);
    shb_reader_close(nullptr);
    shb_writer_set_rates(nullptr, 1, 1);

    const std::string name = UniqueName();
    Buffer buffer = Create(name, SmallGeometry());
    Map map = Attach(name);
    ASSERT_TRUE(map);
    shb_stats_t stats;
    shb_writer_t *writer = nullptr;
    shb_reader_t *reader = nullptr;
    const struct {
        uint32_t channel, stream;
        int kind;
    } outside[] = {{1, 0, 0}, {0, 1, 0}, {UINT32_MAX, 0, 0}, {0, UINT32_MAX, 1}};
    for (const auto &at : outside) {
        const auto kind = static_cast<shb_kind_t>(at.kind);
        EXPECT_EQ(SHB_ERR_ARG, shb_writer_open(buffer.get(), at.channel, at.stream, kind, &writer));
        EXPECT_EQ(SHB_ERR_ARG, shb_reader_open(map.get(), at.channel, at.stream, kind, SHB_START_OLDEST, &reader));
        EXPECT_EQ(SHB_ERR_ARG, shb_buffer_stats(buffer.get(), at.channel, at.stream, kind, &stats));
        EXPECT_EQ(SHB_ERR_ARG, shb_map_stats(map.get(), at.channel, at.stream, kind, &stats));
    }
    for (int kind : {-1, 2, 1000})
        EXPECT_EQ(SHB_ERR_ARG, shbtest_open_writer(buffer.get(), kind, &writer));
    EXPECT_EQ(SHB_ERR_ARG, shbtest_open_reader(map.get(), 2, SHB_START_OLDEST, &reader));
    EXPECT_EQ(SHB_ERR_ARG, shbtest_open_reader(map.get(), SHB_VIDEO, 3, &reader));
    EXPECT_EQ(SHB_ERR_ARG, shbtest_open_reader(map.get(), SHB_VIDEO, -1, &reader));
    Reader good = OpenReader(map, SHB_START_OLDEST);
    shb_frame_t frame;
    char byte;
    EXPECT_EQ(SHB_ERR_ARG, shb_reader_read(nullptr, &byte, 1, 0, &frame));
    EXPECT_EQ(SHB_ERR_ARG, shb_reader_read(good.get(), nullptr, 1, 0, &frame));
    EXPECT_EQ(SHB_ERR_ARG, shb_reader_read(good.get(), &byte, 1, 0, nullptr));
    EXPECT_EQ(SHB_ERR_ARG, shb_reader_read(good.get(), &byte, 1, -2, &frame));
}

TEST(ShbBuffer, EveryResultHasAText) {
    for (int result = 0; result >= SHB_ERR_OWNER; result--)
        EXPECT_STRNE("unknown result", shb_strerror(result)) << result;
    EXPECT_STREQ("unknown result", shb_strerror(-100));
    EXPECT_STREQ("unknown result", shb_strerror(1));
}
