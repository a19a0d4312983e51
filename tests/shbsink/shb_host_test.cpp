// A buffer in a host that forks, has limits, waits in its handlers, and gives things back in the wrong order.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <cerrno>
#include <thread>

#include "shb_layout.h"
#include "shb_support.h"

using namespace shbtest;

namespace {

uint64_t HeartbeatOf(const Segment &segment) {
    return reinterpret_cast<const shb_header_t *>(segment.bytes)->heartbeat_ns;
}

struct Patience {
    std::atomic<bool> entered{false};
    std::atomic<bool> released{false};
};

void WaitForTheHost(void *user, uint64_t) {
    auto *patience = static_cast<Patience *>(user);
    patience->entered = true;
    while (!patience->released)
        sched_yield();
}

}  // namespace

TEST(ShbHost, AStallHandlerThatWaitsHoldsUpNothing) {
    const std::string name = UniqueName();
    const Buffer buffer = Create(name, SmallGeometry());
    Writer writer = OpenWriter(buffer);
    Writer other = OpenWriter(buffer, SHB_AUDIO);
    ASSERT_TRUE(writer && other);
    Patience patience, of_other;
    of_other.released = true;
    ASSERT_EQ(SHB_OK, shb_writer_on_stall(writer.get(), WaitForTheHost, &patience));
    ASSERT_EQ(SHB_OK, shb_writer_on_stall(other.get(), WaitForTheHost, &of_other));
    ASSERT_EQ(SHB_OK, shb_set_stall_watch(buffer.get(), 1));
    WritePattern(writer, 1, 0, 100);
    ASSERT_TRUE(Eventually([&] { return patience.entered.load(); }));
    // With that one waiting: heartbeats go on, other handlers come, buffers come and go.
    WritePattern(other, 1, 0, 100);
    EXPECT_TRUE(Eventually([&] { return of_other.entered.load(); }));
    const Segment segment(shb_file(buffer.get(), 0));
    for (int beats = 0; beats < 3; beats++) {
        const uint64_t before = HeartbeatOf(segment);
        EXPECT_TRUE(Eventually([&] { return HeartbeatOf(segment) != before; }));
    }
    EXPECT_TRUE(Create(UniqueName(), SmallGeometry()));
    EXPECT_FALSE(patience.released);
    patience.released = true;
    writer.reset();
}

TEST(ShbHost, ClosingAWriterWaitsForItsHandler) {
    const Buffer buffer = Create(UniqueName(), SmallGeometry());
    Writer writer = OpenWriter(buffer);
    ASSERT_TRUE(writer);
    Patience patience;
    ASSERT_EQ(SHB_OK, shb_writer_on_stall(writer.get(), WaitForTheHost, &patience));
    ASSERT_EQ(SHB_OK, shb_set_stall_watch(buffer.get(), 1));
    WritePattern(writer, 1, 0, 100);
    ASSERT_TRUE(Eventually([&] { return patience.entered.load(); }));
    std::atomic<bool> closed{false};
    std::thread closer([&] {
        writer.reset();
        closed = true;
    });
    const Segment segment(shb_file(buffer.get(), 0));
    const uint64_t before = HeartbeatOf(segment);
    EXPECT_TRUE(Eventually([&] { return HeartbeatOf(segment) != before; }));
    EXPECT_FALSE(closed);
    patience.released = true;
    closer.join();
    EXPECT_TRUE(closed);
}

TEST(ShbHost, ALimitOfFileSizesIsNoSignal) {
    Child child([] {
        struct rlimit limit {};
        limit.rlim_cur = limit.rlim_max = 1 << 20;
        if (setrlimit(RLIMIT_FSIZE, &limit) != 0)
            return 9;
        int result = SHB_OK;
        errno = 0;
        const Buffer buffer = Create(UniqueName(), shb_geometry_t{}, &result);
        return result == SHB_ERR_NO_SPACE && errno == EFBIG ? 0 : 1;
    });
    EXPECT_EQ(0, child.Wait());
}

// A source that connects again closes its track and opens it anew.
TEST(ShbHost, ATrackChangesHandsWithoutADescriptorLeft) {
    const std::string name = UniqueName();
    Child child([&] {
        const Buffer buffer = Create(name, SmallGeometry());
        Writer writer = OpenWriter(buffer);
        rlimit limit{};
        limit.rlim_cur = limit.rlim_max = 0;
        if (setrlimit(RLIMIT_NOFILE, &limit) != 0 || open("/dev/null", O_RDONLY | O_CLOEXEC) >= 0)
            return 1;
        shb_stats_t stats{};
        writer.reset();
        if (shb_buffer_stats(buffer.get(), 0, 0, SHB_VIDEO, &stats) != SHB_OK || stats.writer_pid != 0)
            return 2;
        int result = SHB_ERR_ARG;
        writer = OpenWriter(buffer, SHB_VIDEO, &result);
        return -result;
    });
    EXPECT_EQ(0, child.Wait());
    EXPECT_TRUE(FilesOf(name).empty());
}

TEST(ShbHost, WhatWasAskedForAndWhatThereIs) {
    uint64_t needed = 0, available = 0;
    ASSERT_EQ(SHB_OK, shb_room(nullptr, &needed, &available));
    const std::string name = UniqueName();
    const Buffer buffer = Create(name, shb_geometry_t{});
    ASSERT_TRUE(buffer);
    shb_info_t info{};
    ASSERT_EQ(SHB_OK, shb_map_info(Attach(name).get(), &info));
    EXPECT_EQ(info.total_bytes, needed);
    uint64_t rest = 0;
    ASSERT_EQ(SHB_OK, shb_room(nullptr, &needed, &rest));
    EXPECT_LT(rest, available);
    EXPECT_EQ(SHB_ERR_ARG, shb_room(nullptr, nullptr, &rest));
    shb_geometry_t wrong{};
    wrong.streams = 65;
    EXPECT_EQ(SHB_ERR_ARG, shb_room(&wrong, &needed, &rest));
}

// A fork finds the locks of the library free, whatever the other threads are doing. The address sanitizer's own locks are
// not, so this is for builds without it.
TEST(ShbHost, AForkedChildNeverHangs) {
    if (kSanitized || kThreadSanitized)
        GTEST_SKIP() << "the sanitizers are not made for forks of threaded programs";
    const Buffer buffer = Create(UniqueName(), SmallGeometry());
    const Writer writer = OpenWriter(buffer);
    ASSERT_TRUE(writer);
    std::atomic<bool> stop{false};
    std::vector<std::thread> busy;
    for (int i = 0; i < 3; i++)
        busy.emplace_back([&, i] {
            while (!stop) {
                shb_stats_t stats{};
                shb_buffer_stats(buffer.get(), 0, 0, SHB_VIDEO, &stats);
                shb_writer_on_stall(writer.get(), nullptr, nullptr);
                if (i == 0)
                    Create(UniqueName(), SmallGeometry());
            }
        });
    constexpr int kForks = 300;
    int hung = 0;
    for (int i = 0; i < kForks; i++) {
        const pid_t child = fork();
        if (child == 0) {
            // Ends a child that hangs; one that does not is through in milliseconds.
            alarm(30);
            shb_stats_t stats{};
            const int result = shb_buffer_stats(buffer.get(), 0, 0, SHB_VIDEO, &stats);
            shb_buffer_t *own = nullptr;
            const shb_geometry_t geometry = SmallGeometry();
            const int made = shb_create(UniqueName().c_str(), &geometry, &own);
            shb_destroy(own);
            _exit(result == SHB_OK && made == SHB_OK ? 0 : 1);
        }
        int status = -1;
        ASSERT_EQ(child, waitpid(child, &status, 0));
        hung += WIFEXITED(status) && WEXITSTATUS(status) == 0 ? 0 : 1;
        if (hung > 0)
            break;
    }
    stop = true;
    for (std::thread &thread : busy)
        thread.join();
    EXPECT_EQ(0, hung);
}

// The owner of a buffer cuts its file short under a reader.
TEST(ShbHost, ATruncatedFileIsDamageForAGuardedReader) {
    for (const bool guarded : {true, false}) {
        const std::string name = UniqueName();
        const Buffer buffer = Create(name, SmallGeometry());
        Writer writer = OpenWriter(buffer);
        ASSERT_TRUE(writer);
        WritePattern(writer, 1, 0, 20'000);
        Pipe ready, cut;
        Child child([&] {
            if (guarded && shb_guard(1) != SHB_OK)
                return 1;
            const Map map = Attach(name);
            const Reader reader = OpenReader(map, SHB_START_OLDEST);
            const Reader second = OpenReader(map, SHB_START_OLDEST);
            const void *data = nullptr;
            shb_frame_t frame{};
            if (shb_reader_borrow(second.get(), 0, &data, &frame) != SHB_OK)
                return 2;
            ready.Signal();
            cut.Await();
            unsigned sum = 0;
            for (uint32_t i = 0; i < frame.size; i++)
                sum += static_cast<const uint8_t *>(data)[i];
            if (sum != 0 || shb_reader_return(second.get()) != SHB_ERR_CORRUPT)
                return 3;
            if (Read(reader).result != SHB_ERR_CORRUPT || shb_reader_wait(reader.get(), 0) != SHB_ERR_CORRUPT)
                return 4;
            shb_stats_t stats{};
            shb_info_t info{};
            shb_description_t description{};
            return shb_map_stats(map.get(), 0, 0, SHB_VIDEO, &stats) == SHB_ERR_CORRUPT &&
                           shb_map_info(map.get(), &info) == SHB_ERR_CORRUPT &&
                           shb_map_description(map.get(), 0, 0, SHB_VIDEO, &description) == SHB_ERR_CORRUPT
                       ? 0
                       : 5;
        });
        ASSERT_TRUE(ready.Await());
        writer.reset();
        Child cutter([&] { return truncate(("/dev/shm/" + name).c_str(), SHB_PAGE_BYTES) == 0 ? 0 : 1; });
        ASSERT_EQ(0, cutter.Wait());
        cut.Signal();
        if (guarded) {
            EXPECT_EQ(0, child.Wait());
        } else if (!kSanitized && !kThreadSanitized) {
            EXPECT_EQ(SIGBUS, child.WaitSignal());
        }
        // The writer's side must not be touched any more: it is gone with the file.
        ASSERT_EQ(0, truncate(("/dev/shm/" + name).c_str(), static_cast<off_t>(4) << 20));
    }
}

// A fault that is not in a buffer goes where it would have gone.
TEST(ShbHost, TheGuardLeavesOtherFaultsAlone) {
    if (kSanitized || kThreadSanitized)
        GTEST_SKIP() << "the sanitizer has a handler of its own for this";
    Child child([] {
        if (shb_guard(1) != SHB_OK || shb_guard(1) != SHB_OK)
            return 1;
        const int fd = open("/dev/shm", O_TMPFILE | O_RDWR | O_CLOEXEC, 0600);
        if (ftruncate(fd, 4096) != 0)
            return 2;
        auto *map = static_cast<volatile char *>(mmap(nullptr, 4096, PROT_READ, MAP_SHARED, fd, 0));
        if (ftruncate(fd, 0) != 0)
            return 3;
        return *map == 0 ? 4 : 5;
    });
    EXPECT_EQ(SIGBUS, child.WaitSignal());
    Child back([] {
        struct sigaction before {
        }, after{};
        sigaction(SIGBUS, nullptr, &before);
        shb_guard(1);
        shb_guard(0);
        sigaction(SIGBUS, nullptr, &after);
        return before.sa_handler == after.sa_handler ? 0 : 1;
    });
    EXPECT_EQ(0, back.Wait());
}

TEST(ShbHost, AMapThatIsGivenBackServesItsReadersOn) {
    const std::string name = UniqueName();
    const Buffer buffer = Create(name, SmallGeometry());
    Writer writer = OpenWriter(buffer);
    ASSERT_TRUE(writer);
    WritePattern(writer, 1, 0, 5000, SHB_FRAME_KEY);
    Map map = Attach(name);
    Reader first = OpenReader(map, SHB_START_OLDEST);
    Reader second = OpenReader(map, SHB_START_NEWEST);
    ASSERT_TRUE(first && second);
    map.reset();
    const ReadFrame got = Read(first);
    EXPECT_EQ(SHB_OK, got.result);
    EXPECT_TRUE(got.Whole());
    first.reset();
    WritePattern(writer, 1, 1, 5000, SHB_FRAME_KEY);
    EXPECT_EQ(SHB_OK, Read(second).result);
}

TEST(ShbHost, StructsWithoutTheirSizeAreRefused) {
    const std::string name = UniqueName();
    const Buffer buffer = Create(name, SmallGeometry());
    const Writer writer = OpenWriter(buffer);
    const Map map = Attach(name);
    const Reader reader = OpenReader(map, SHB_START_OLDEST);
    ASSERT_TRUE(writer && reader);
    shb_geometry_t geometry{};
    shb_stats_t stats{};
    shb_info_t info{};
    shb_description_t description{};
    shb_reader_stats_t counts{};
    shb_frame_t frame{};
    shb_create_options_t options{};
    shb_attach_options_t conditions{};
    shb_follow_options_t follow{};
    geometry.struct_size = stats.struct_size = info.struct_size = description.struct_size = 0;
    counts.struct_size = frame.struct_size = options.struct_size = conditions.struct_size = follow.struct_size = 0;
    shb_buffer_t *other = nullptr;
    shb_map_t *other_map = nullptr;
    shb_follow_t *other_follow = nullptr;
    size_t count = 0;
    char byte = 0;
    size_t size = 0;
    const void *data = nullptr;
    EXPECT_EQ(SHB_ERR_ARG, shb_create(UniqueName().c_str(), &geometry, &other));
    EXPECT_EQ(SHB_ERR_ARG, shb_create_with(UniqueName().c_str(), nullptr, &options, &other));
    EXPECT_EQ(SHB_ERR_ARG, shb_get_geometry(buffer.get(), &geometry));
    EXPECT_EQ(SHB_ERR_ARG, shb_buffer_stats(buffer.get(), 0, 0, SHB_VIDEO, &stats));
    EXPECT_EQ(SHB_ERR_ARG, shb_buffer_description(buffer.get(), 0, 0, SHB_VIDEO, &description));
    EXPECT_EQ(SHB_ERR_ARG, shb_writer_describe(writer.get(), &description, nullptr, 0));
    EXPECT_EQ(SHB_ERR_ARG, shb_attach_with(name.c_str(), &conditions, &other_map));
    EXPECT_EQ(SHB_ERR_ARG, shb_map_geometry(map.get(), &geometry));
    EXPECT_EQ(SHB_ERR_ARG, shb_map_info(map.get(), &info));
    EXPECT_EQ(SHB_ERR_ARG, shb_map_stats(map.get(), 0, 0, SHB_VIDEO, &stats));
    EXPECT_EQ(SHB_ERR_ARG, shb_map_description(map.get(), 0, 0, SHB_VIDEO, &description));
    EXPECT_EQ(SHB_ERR_ARG, shb_map_codec_data(map.get(), 0, 0, SHB_VIDEO, &description, &byte, 1, &size));
    EXPECT_EQ(SHB_ERR_ARG, shb_reader_read(reader.get(), &byte, 1, 0, &frame));
    EXPECT_EQ(SHB_ERR_ARG, shb_reader_borrow(reader.get(), 0, &data, &frame));
    EXPECT_EQ(SHB_ERR_ARG, shb_reader_description(reader.get(), &description));
    EXPECT_EQ(SHB_ERR_ARG, shb_reader_get_stats(reader.get(), &counts));
    EXPECT_EQ(SHB_ERR_ARG, shb_follow_open(name.c_str(), &follow, &other_follow));
    EXPECT_EQ(SHB_ERR_ARG, shb_list(&info, 1, &count));
}

TEST(ShbHost, StructsThatWereNotFilledInAreRefused) {
    shb_geometry_t geometry = SmallGeometry();
    geometry.struct_size = 0xa5a5a5a5;
    shb_buffer_t *other = nullptr;
    EXPECT_EQ(SHB_ERR_ARG, shb_create(UniqueName().c_str(), &geometry, &other));
    const Buffer buffer = Create(UniqueName(), SmallGeometry());
    EXPECT_EQ(SHB_ERR_ARG, shb_get_geometry(buffer.get(), &geometry));
}

// A program that was built with a later header: what it knows more of is 0, and what it asks for more is refused.
TEST(ShbHost, StructsOfALaterHeaderAreTaken) {
    struct LaterStats {
        shb_stats_t known;
        uint64_t later = 7;
    } stats;
    struct LaterGeometry {
        shb_geometry_t known = SmallGeometry();
        uint64_t later = 0;
    } geometry;
    struct LaterInfo {
        shb_info_t known;
        uint64_t later = 7;
    };
    stats.known.struct_size = sizeof stats;
    geometry.known.struct_size = sizeof geometry;
    const std::string name = UniqueName();
    shb_buffer_t *made = nullptr;
    ASSERT_EQ(SHB_OK, shb_create(name.c_str(), &geometry.known, &made));
    const Buffer buffer(made);
    ASSERT_EQ(SHB_OK, shb_buffer_stats(buffer.get(), 0, 0, SHB_VIDEO, &stats.known));
    EXPECT_EQ(sizeof stats, stats.known.struct_size);
    EXPECT_EQ(0u, stats.later);
    geometry.later = 1;
    shb_buffer_t *other = nullptr;
    EXPECT_EQ(SHB_ERR_ARG, shb_create(UniqueName().c_str(), &geometry.known, &other));
    size_t count = 0;
    ASSERT_EQ(SHB_OK, shb_list(nullptr, 0, &count));
    // Others come and go meanwhile.
    std::vector<LaterInfo> infos(count + 100);
    infos[0].known.struct_size = sizeof(LaterInfo);
    ASSERT_EQ(SHB_OK, shb_list(&infos[0].known, infos.size(), &count));
    ASSERT_LE(count, infos.size());
    size_t found = 0;
    for (size_t i = 0; i < count; i++) {
        EXPECT_EQ(sizeof(LaterInfo), infos[i].known.struct_size);
        EXPECT_EQ(0u, infos[i].later);
        found += infos[i].known.name == "/" + name;
    }
    EXPECT_EQ(1u, found);
}

TEST(ShbHost, TheVersionIsThatOfTheHeader) {
    EXPECT_EQ(static_cast<uint32_t>(SHB_VERSION_NUMBER), shb_version());
}
