// Readers that a host can see: each lists itself in the file of waiters, and nothing that stands there harms anybody.
#include <fcntl.h>
#include <grp.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <random>

#include "shb_layout.h"
#include "shb_support.h"

using namespace shbtest;

namespace {

std::vector<shb_reader_info_t> ReadersOf(const Buffer &buffer, size_t capacity = 256) {
    std::vector<shb_reader_info_t> readers(capacity);
    size_t count = 0;
    EXPECT_EQ(SHB_OK, shb_buffer_readers(buffer.get(), readers.data(), readers.size(), &count));
    readers.resize(std::min(count, capacity));
    return readers;
}

size_t CountOf(const Buffer &buffer) {
    size_t count = 0;
    EXPECT_EQ(SHB_OK, shb_buffer_readers(buffer.get(), nullptr, 0, &count));
    return count;
}

shb_reader_table_t *TableOf(const Segment &waiters) {
    return reinterpret_cast<shb_reader_table_t *>(waiters.bytes + waiters.size - sizeof(shb_reader_table_t));
}

// A child with `count` readers of the video, until it is ended.
int HoldReaders(const std::string &name, size_t count, const Pipe &opened) {
    const Map map = Attach(name);
    std::vector<Reader> readers;
    for (size_t i = 0; i < count; i++)
        readers.push_back(OpenReader(map, SHB_START_NEWEST));
    opened.Signal();
    pause();
    return 0;
}

constexpr size_t kSlots = SHB_READER_SLOTS;

}  // namespace

TEST(ShbReaders, EachOneIsListedWithItsCounters) {
    const std::string name = UniqueName();
    shb_geometry_t geometry = SmallGeometry();
    geometry.channels = 2;
    geometry.streams = 2;
    const Buffer buffer = Create(name, geometry);
    shb_writer_t *opened = nullptr;
    ASSERT_EQ(SHB_OK, shb_writer_open(buffer.get(), 1, 0, SHB_AUDIO, &opened));
    const Writer writer(opened);
    EXPECT_EQ(0u, CountOf(buffer));
    const Map map = Attach(name);
    shb_reader_t *other = nullptr;
    ASSERT_EQ(SHB_OK, shb_reader_open(map.get(), 1, 0, SHB_AUDIO, SHB_START_OLDEST, &other));
    Reader reader(other);
    ASSERT_EQ(SHB_OK, shb_reader_open(map.get(), 0, 1, SHB_VIDEO, SHB_START_NEWEST, &other));
    Reader idle(other);
    for (uint64_t i = 0; i < 5; i++)
        WritePattern(writer, 1, i, 100);
    for (int i = 0; i < 3; i++)
        ASSERT_EQ(SHB_OK, Read(reader).result);
    const auto readers = ReadersOf(buffer);
    ASSERT_EQ(2u, readers.size());
    const auto &busy = readers[readers[0].kind == SHB_AUDIO ? 0 : 1];
    EXPECT_EQ(sizeof(shb_reader_info_t), busy.struct_size);
    EXPECT_EQ(getpid(), busy.pid);
    EXPECT_EQ(1, busy.pid_is_ours);
    EXPECT_EQ(SHB_AUDIO, busy.kind);
    EXPECT_EQ(1u, busy.channel);
    EXPECT_EQ(0u, busy.stream);
    EXPECT_EQ(3u, busy.frames);
    EXPECT_EQ(300u, busy.bytes);
    EXPECT_EQ(0u, busy.lost);
    EXPECT_EQ(0u, busy.left_out);
    EXPECT_EQ(2u, busy.waiting);
    constexpr uint64_t kMinute = 60'000'000'000;
    EXPECT_LT(busy.open_ns, kMinute);
    EXPECT_LT(busy.last_read_age_ns, kMinute);
    EXPECT_EQ(std::string(program_invocation_short_name).substr(0, 15), busy.program);
    const auto &quiet = readers[readers[0].kind == SHB_AUDIO ? 1 : 0];
    EXPECT_EQ(SHB_VIDEO, quiet.kind);
    EXPECT_EQ(0u, quiet.channel);
    EXPECT_EQ(1u, quiet.stream);
    EXPECT_EQ(0u, quiet.frames);
    EXPECT_EQ(SHB_TIME_NONE, quiet.last_read_age_ns);
    idle.reset();
    EXPECT_EQ(1u, CountOf(buffer));
    reader.reset();
    EXPECT_EQ(0u, CountOf(buffer));
}

TEST(ShbReaders, AMapOfTheSameUserSeesTheSame) {
    const std::string name = UniqueName();
    const Buffer buffer = Create(name, SmallGeometry());
    const Writer writer = OpenWriter(buffer);
    const Map map = Attach(name);
    const Reader reader = OpenReader(map, SHB_START_OLDEST);
    WritePattern(writer, 1, 0, 100);
    const void *data = nullptr;
    shb_frame_t frame{};
    ASSERT_EQ(SHB_OK, shb_reader_borrow(reader.get(), 0, &data, &frame));
    ASSERT_EQ(SHB_OK, shb_reader_return(reader.get()));
    shb_reader_info_t seen{};
    size_t count = 0;
    ASSERT_EQ(SHB_OK, shb_map_readers(map.get(), &seen, 1, &count));
    ASSERT_EQ(1u, count);
    EXPECT_EQ(getpid(), seen.pid);
    EXPECT_EQ(1u, seen.frames);
    EXPECT_EQ(100u, seen.bytes);
}

TEST(ShbReaders, OneThatLosesFramesShowsHowMany) {
    const std::string name = UniqueName();
    const Buffer buffer = Create(name, SmallGeometry());
    const Writer writer = OpenWriter(buffer);
    Pipe ready, go, read;
    Child slow([&] {
        const Map map = Attach(name);
        const Reader reader = OpenReader(map, SHB_START_OLDEST);
        ready.Signal();
        go.Await();
        const bool got = Read(reader).result == SHB_OK;
        read.Signal();
        pause();
        return got ? 0 : 1;
    });
    ASSERT_TRUE(ready.Await());
    for (uint64_t i = 0; i < 40; i++)
        WritePattern(writer, 1, i, 100);
    const std::vector<uint8_t> huge(65537);
    EXPECT_EQ(SHB_ERR_TOO_BIG, shb_writer_write(writer.get(), huge.data(), huge.size(), 0, 0, 0, 0));
    EXPECT_EQ(40u, ReadersOf(buffer).at(0).waiting);
    for (uint64_t i = 40; i < 56; i++)
        WritePattern(writer, 1, i, 100);
    ASSERT_TRUE(go.Signal());
    ASSERT_TRUE(read.Await());
    // It goes on at the oldest frame that is held, which is one that came after the one that was left out.
    const auto readers = ReadersOf(buffer);
    ASSERT_EQ(1u, readers.size());
    EXPECT_EQ(slow.Id(), readers[0].pid);
    EXPECT_EQ(1u, readers[0].frames);
    EXPECT_EQ(40u, readers[0].lost);
    EXPECT_EQ(1u, readers[0].left_out);
    EXPECT_EQ(15u, readers[0].waiting);
}

TEST(ShbReaders, OneThatWasKilledIsListedNoMore) {
    const std::string name = UniqueName();
    const Buffer buffer = Create(name, SmallGeometry());
    Pipe opened;
    Child first([&] { return HoldReaders(name, 1, opened); });
    Child second([&] { return HoldReaders(name, 2, opened); });
    ASSERT_TRUE(opened.Await() && opened.Await());
    EXPECT_EQ(3u, CountOf(buffer));
    // A zombie has ended as well.
    second.KillOnly();
    const auto left = ReadersOf(buffer);
    ASSERT_EQ(1u, left.size());
    EXPECT_EQ(first.Id(), left[0].pid);
    first.Kill();
    EXPECT_EQ(0u, CountOf(buffer));
}

TEST(ShbReaders, AForkedChildLeavesItsParentsAlone) {
    const std::string name = UniqueName();
    const Buffer buffer = Create(name, SmallGeometry());
    const Map map = Attach(name);
    Reader reader = OpenReader(map, SHB_START_NEWEST);
    Child child([&] {
        reader.reset();
        return 0;
    });
    EXPECT_EQ(0, child.Wait());
    EXPECT_EQ(1u, CountOf(buffer));
}

TEST(ShbReaders, ThoseThatFindNoRoomReadAllTheSame) {
    const std::string name = UniqueName();
    const Buffer buffer = Create(name, SmallGeometry());
    const Writer writer = OpenWriter(buffer);
    const Map map = Attach(name);
    std::vector<Reader> readers;
    for (size_t i = 0; i < kSlots; i++)
        readers.push_back(OpenReader(map, SHB_START_OLDEST));
    Reader late = OpenReader(map, SHB_START_OLDEST);
    ASSERT_TRUE(late);
    EXPECT_EQ(kSlots, CountOf(buffer));
    WritePattern(writer, 1, 0, 100);
    EXPECT_EQ(SHB_OK, Read(late).result);
    late.reset();
    EXPECT_EQ(kSlots, CountOf(buffer));
    // Who leaves makes room.
    readers.pop_back();
    EXPECT_EQ(kSlots - 1, CountOf(buffer));
    late = OpenReader(map, SHB_START_OLDEST);
    EXPECT_EQ(kSlots, CountOf(buffer));
    // Fewer entries than there are: those fit, and all are counted.
    std::vector<shb_reader_info_t> few(3);
    size_t count = 0;
    EXPECT_EQ(SHB_OK, shb_buffer_readers(buffer.get(), few.data(), few.size(), &count));
    EXPECT_EQ(kSlots, count);
    EXPECT_EQ(getpid(), few[2].pid);
}

TEST(ShbReaders, ANewcomerTakesTheRoomOfDeadOnes) {
    const std::string name = UniqueName();
    const Buffer buffer = Create(name, SmallGeometry());
    Pipe opened;
    Child many([&] { return HoldReaders(name, kSlots, opened); });
    ASSERT_TRUE(opened.Await());
    const Map map = Attach(name);
    const Reader unlisted = OpenReader(map, SHB_START_NEWEST);
    EXPECT_EQ(kSlots, CountOf(buffer));
    many.Kill();
    // Before anybody has looked at the list.
    const Reader listed = OpenReader(map, SHB_START_NEWEST);
    const auto readers = ReadersOf(buffer);
    ASSERT_EQ(1u, readers.size());
    EXPECT_EQ(getpid(), readers[0].pid);
}

TEST(ShbReaders, ThoseOfOtherUsersAreNotListed) {
    constexpr uid_t kNobody = 65534;
    if (geteuid() != 0)
        GTEST_SKIP() << "only root can become somebody else";
    const std::string name = UniqueName();
    const Buffer buffer = CreateFor(name, SmallGeometry(), 0644);
    const Writer writer = OpenWriter(buffer);
    Pipe opened;
    Child other([&] {
        if (setgroups(0, nullptr) != 0 || setgid(kNobody) != 0 || setuid(kNobody) != 0)
            return 1;
        const Map map = Attach(name);
        const Reader reader = OpenReader(map, SHB_START_NEWEST);
        size_t count = 0;
        if (shb_map_readers(map.get(), nullptr, 0, &count) != SHB_ERR_NOT_FOUND)
            return 2;
        opened.Signal();
        return Read(reader, 60'000).result == SHB_OK ? 0 : 3;
    });
    ASSERT_TRUE(opened.Await());
    EXPECT_EQ(0u, CountOf(buffer));
    WritePattern(writer, 1, 0, 100);
    EXPECT_EQ(0, other.Wait());
}

// A creator of libshb 2.0 has no table in its file of waiters.
TEST(ShbReaders, WithoutATableReadersSleepOnTheirWordAllTheSame) {
    const std::string name = UniqueName();
    const Buffer buffer = Create(name, SmallGeometry());
    const Writer writer = OpenWriter(buffer);
    const std::string path = WaitersPath(name);
    ASSERT_EQ(0, truncate(path.c_str(), sizeof(shb_waiters_header_t) + 2 * sizeof(shb_waiters_t)));
    Pipe opened;
    Child child([&] {
        const Map map = Attach(name);
        const Reader reader = OpenReader(map, SHB_START_NEWEST);
        size_t count = 0;
        if (shb_map_readers(map.get(), nullptr, 0, &count) != SHB_ERR_NOT_FOUND)
            return 1;
        opened.Signal();
        return Read(reader, 60'000).result == SHB_OK ? 0 : 2;
    });
    ASSERT_TRUE(opened.Await());
    const Segment waiters(path);
    const auto *words = reinterpret_cast<const shb_waiters_t *>(waiters.bytes + sizeof(shb_waiters_header_t));
    EXPECT_TRUE(Eventually([&] { return words[SHB_VIDEO].waiting == 1; }));
    WritePattern(writer, 1, 0, 100);
    EXPECT_EQ(0, child.Wait());
}

// Nor does one of a later version, whatever it has there.
TEST(ShbReaders, ATableOfAnotherShapeIsLeftAlone) {
    const std::string name = UniqueName();
    const Buffer buffer = Create(name, SmallGeometry());
    const Segment waiters(WaitersPath(name));
    TableOf(waiters)->slot_bytes = 256;
    const Map map = Attach(name);
    ASSERT_TRUE(OpenReader(map, SHB_START_NEWEST));
    size_t count = 0;
    EXPECT_EQ(SHB_ERR_NOT_FOUND, shb_map_readers(map.get(), nullptr, 0, &count));
    const std::vector<uint8_t> empty(sizeof TableOf(waiters)->slot);
    EXPECT_EQ(0, memcmp(empty.data(), TableOf(waiters)->slot, empty.size()));
}

TEST(ShbReaders, WrongArgumentsAreRefused) {
    const std::string name = UniqueName();
    const Buffer buffer = Create(name, SmallGeometry());
    const Map map = Attach(name);
    shb_reader_info_t info{};
    size_t count = 7;
    EXPECT_EQ(SHB_ERR_ARG, shb_buffer_readers(nullptr, &info, 1, &count));
    EXPECT_EQ(SHB_ERR_ARG, shb_map_readers(nullptr, &info, 1, &count));
    EXPECT_EQ(SHB_ERR_ARG, shb_buffer_readers(buffer.get(), &info, 1, nullptr));
    EXPECT_EQ(SHB_ERR_ARG, shb_map_readers(map.get(), &info, 1, nullptr));
    EXPECT_EQ(SHB_ERR_ARG, shb_buffer_readers(buffer.get(), nullptr, 1, &count));
    EXPECT_EQ(SHB_ERR_ARG, shb_map_readers(map.get(), nullptr, 1, &count));
    info.struct_size = 8;
    EXPECT_EQ(SHB_ERR_ARG, shb_buffer_readers(buffer.get(), &info, 1, &count));
    EXPECT_EQ(SHB_ERR_ARG, shb_map_readers(map.get(), &info, 1, &count));
    EXPECT_EQ(7u, count);
}

// What any process of the same user may do.
TEST(ShbReaders, NoiseInTheTableHarmsNobody) {
    struct Noise {
        std::atomic<bool> over{false};
        std::atomic<uint64_t> rounds{0};
    };
    const std::string name = UniqueName();
    const Shared<Noise> noise;
    const Buffer buffer = Create(name, SmallGeometry());
    const Writer writer = OpenWriter(buffer);
    const std::string path = WaitersPath(name);
    ASSERT_FALSE(path.empty());
    const Map map = Attach(name);
    Reader reader = OpenReader(map, SHB_START_OLDEST);
    Child vandal([&] {
        const Segment waiters(path);
        auto *words = reinterpret_cast<uint8_t *>(TableOf(waiters)->slot);
        std::mt19937_64 random(11);  // NOLINT(cert-msc32-c,cert-msc51-cpp): every run the same
        for (; !noise->over; noise->rounds++) {
            for (size_t at = 0; at + 8 <= sizeof TableOf(waiters)->slot; at += 8) {
                // Among the small ones are claims of live processes and numbers of tracks.
                const uint64_t value = random() % 2 == 0 ? random() : random() % 4;
                memcpy(words + at, &value, sizeof value);
            }
            // So that most of them are listed: by the test's own process, which is alive.
            for (size_t i = 0; i < kSlots; i += 2)
                TableOf(waiters)->slot[i].claim = static_cast<uint64_t>(getppid());
        }
        return 0;
    });
    uint64_t listed = 0, sequence = 0;
    for (uint64_t round = 0; round < 50 || (round < 1'000'000 && noise->rounds < 50); round++) {
        for (int i = 0; i < 10; i++) {
            WritePattern(writer, 1, sequence, 100);
            const ReadFrame got = Read(reader);
            ASSERT_EQ(SHB_OK, got.result);
            ASSERT_EQ(sequence++, got.frame.sequence);
        }
        const auto readers = ReadersOf(buffer);
        listed += readers.size();
        ASSERT_LE(readers.size(), kSlots);
        for (const auto &info : readers) {
            EXPECT_EQ(0u, info.channel);
            EXPECT_EQ(0u, info.stream);
            EXPECT_TRUE(info.kind == SHB_VIDEO || info.kind == SHB_AUDIO);
            const char *end = static_cast<const char *>(memchr(info.program, 0, sizeof info.program));
            ASSERT_NE(nullptr, end);
            EXPECT_TRUE(std::all_of(info.program, end, [](char c) { return c >= ' ' && c <= '~'; }));
        }
        // Readers come and go meanwhile.
        ASSERT_TRUE(OpenReader(map, SHB_START_NEWEST));
    }
    EXPECT_GT(listed, 0u);
    noise->over = true;
    EXPECT_EQ(0, vandal.Wait());
}
