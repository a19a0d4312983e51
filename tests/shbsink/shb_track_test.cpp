// One writer, one reader: content, order, loss, epochs, descriptions, statistics.
#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <random>
#include <thread>

#include "shb_support.h"

using namespace shbtest;

class ShbTrack : public ::testing::Test {
  protected:
    ShbTrack() : name_(UniqueName()), buffer_(Create(name_, SmallGeometry())), map_(Attach(name_)) {}
    // Writes `count` frames that go on after the last, each `size` bytes, a key frame every `keys`.
    void Write(uint64_t count, size_t size, uint64_t keys = 0) {
        for (uint64_t i = 0; i < count; i++, sequence_++)
            ASSERT_EQ(SHB_OK, WritePattern(writer_, epoch_, sequence_, size,
                                           keys != 0 && sequence_ % keys == 0 ? uint32_t{SHB_FRAME_KEY} : 0u));
    }
    void NextEpoch() {
        writer_.reset();
        writer_ = OpenWriter(buffer_);
        ASSERT_TRUE(writer_);
        epoch_++;
        sequence_ = 0;
    }
    shb_stats_t Stats() const {
        shb_stats_t stats{};
        EXPECT_EQ(SHB_OK, shb_buffer_stats(buffer_.get(), 0, 0, SHB_VIDEO, &stats));
        return stats;
    }
    const std::string name_;
    Buffer buffer_;
    Map map_;
    Writer writer_ = OpenWriter(buffer_);
    uint64_t epoch_ = 1;
    uint64_t sequence_ = 0;
};

TEST_F(ShbTrack, DeliversByteForByte) {
    Reader reader = OpenReader(map_, SHB_START_OLDEST);
    std::mt19937 random(1);  // NOLINT(cert-msc32-c,cert-msc51-cpp): every run the same
    // Sizes around every alignment the payload could care for, and many times around the ring.
    for (uint64_t i = 0; i < 3000; i++) {
        const size_t size = i < 300 ? i + 1 : 1 + random() % 9000;
        const auto bytes = Pattern(1, i, size);
        const uint32_t flags = static_cast<uint32_t>(i % 8);
        ASSERT_EQ(SHB_OK, shb_writer_write(writer_.get(), bytes.data(), size, i, i % 3 == 0 ? SHB_TIME_NONE : i * 2, 7, flags));
        ReadFrame got = Read(reader);
        ASSERT_EQ(SHB_OK, got.result);
        EXPECT_EQ(bytes, got.bytes);
        EXPECT_EQ(i, got.frame.sequence);
        EXPECT_EQ(1u, got.frame.epoch);
        EXPECT_EQ(i, got.frame.pts);
        EXPECT_EQ(i % 3 == 0 ? SHB_TIME_NONE : i * 2, got.frame.dts);
        EXPECT_EQ(7u, got.frame.duration);
        EXPECT_EQ(0u, got.frame.lost);
        EXPECT_EQ(flags, got.frame.flags);
        EXPECT_EQ(0u, got.frame.description);
    }
    EXPECT_EQ(SHB_ERR_TIMEOUT, Read(reader).result);
}

TEST_F(ShbTrack, SourceMayLieAnywhere) {
    Reader reader = OpenReader(map_, SHB_START_OLDEST);
    std::vector<uint8_t> storage(300);
    for (size_t shift = 0; shift < 16; shift++) {
        const auto bytes = Pattern(1, shift, 200);
        memcpy(storage.data() + shift, bytes.data(), bytes.size());
        ASSERT_EQ(SHB_OK, shb_writer_write(writer_.get(), storage.data() + shift, 200, 0, 0, 0, 0));
        std::vector<uint8_t> target(300, 0xee);
        shb_frame_t frame;
        ASSERT_EQ(SHB_OK, shb_reader_read(reader.get(), target.data() + shift, 200, 0, &frame));
        EXPECT_EQ(0, memcmp(target.data() + shift, bytes.data(), 200));
        EXPECT_EQ(0xee, target[shift + 200]) << "wrote behind the frame";
    }
}

TEST_F(ShbTrack, TellsExactLossByDescriptors) {
    Reader reader = OpenReader(map_, SHB_START_OLDEST);
    Write(5, 10);
    EXPECT_EQ(0u, Read(reader).frame.sequence);
    Write(100, 10);
    // 105 written, 16 held: 89 is the oldest, of which the reader missed 1 to 88.
    ReadFrame got = Read(reader);
    ASSERT_EQ(SHB_OK, got.result);
    EXPECT_EQ(89u, got.frame.sequence);
    EXPECT_EQ(88u, got.frame.lost);
    EXPECT_TRUE(got.Whole());
    for (uint64_t i = 90; i < 105; i++) {
        got = Read(reader);
        ASSERT_EQ(SHB_OK, got.result);
        EXPECT_EQ(i, got.frame.sequence);
        EXPECT_EQ(0u, got.frame.lost);
    }
    EXPECT_EQ(SHB_ERR_TIMEOUT, Read(reader).result);
}

TEST_F(ShbTrack, TellsExactLossByBytes) {
    Reader reader = OpenReader(map_, SHB_START_OLDEST);
    // Six frames of 10000 bytes fit, a seventh starts at the front again and takes the first with it.
    Write(6, 10000);
    EXPECT_EQ(0u, Read(OpenReader(map_, SHB_START_OLDEST)).frame.sequence);
    Write(1, 10000);
    ReadFrame got = Read(reader);
    EXPECT_EQ(1u, got.frame.sequence);
    EXPECT_EQ(1u, got.frame.lost);
    EXPECT_TRUE(got.Whole());
    // One as large as the track takes everything with it.
    Write(1, 65536);
    got = Read(reader);
    EXPECT_EQ(7u, got.frame.sequence);
    EXPECT_EQ(5u, got.frame.lost);
    EXPECT_TRUE(got.Whole());
}

TEST_F(ShbTrack, LossAddsUpWhateverTheSizes) {
    Reader reader = OpenReader(map_, SHB_START_OLDEST);
    std::mt19937 random(7);  // NOLINT(cert-msc32-c,cert-msc51-cpp): every run the same
    uint64_t read = 0, lost = 0;
    for (int round = 0; round < 400; round++) {
        for (auto i = random() % 30; i > 0; i--)
            Write(1, 1 + random() % (random() % 4 == 0 ? 40000 : 2000));
        for (auto i = random() % 12; i > 0; i--) {
            ReadFrame got = Read(reader);
            if (got.result == SHB_ERR_TIMEOUT)
                break;
            ASSERT_EQ(SHB_OK, got.result);
            ASSERT_TRUE(got.Whole());
            read++;
            lost += got.frame.lost;
            ASSERT_EQ(read + lost, got.frame.sequence + 1);
        }
    }
    EXPECT_GT(lost, 100u);
    EXPECT_GT(read, 100u);
}

TEST_F(ShbTrack, StartsWhereItWasAsked) {
    Write(10, 10, 4);  // key frames 0, 4, 8
    Reader oldest = OpenReader(map_, SHB_START_OLDEST);
    Reader newest = OpenReader(map_, SHB_START_NEWEST);
    Reader key = OpenReader(map_, SHB_START_KEY);
    EXPECT_EQ(SHB_ERR_TIMEOUT, Read(newest).result);
    EXPECT_EQ(0u, Read(oldest).frame.sequence);
    EXPECT_EQ(8u, Read(key).frame.sequence);
    EXPECT_EQ(9u, Read(key).frame.sequence);
    Write(1, 10);
    EXPECT_EQ(10u, Read(newest).frame.sequence);
    EXPECT_EQ(0u, Read(newest).frame.lost);
    EXPECT_EQ(10u, Read(key).frame.sequence);
}

TEST_F(ShbTrack, AfterALossTheStartRuleHoldsAgain) {
    Reader oldest = OpenReader(map_, SHB_START_OLDEST);
    Reader newest = OpenReader(map_, SHB_START_NEWEST);
    Reader key = OpenReader(map_, SHB_START_KEY);
    Write(1, 10, 4);
    for (const Reader *reader : {&oldest, &newest, &key})
        EXPECT_EQ(0u, Read(*reader).frame.sequence);
    Write(42, 10, 4);  // 1 to 42, held 27 to 42, newest key 40
    ReadFrame got = Read(oldest);
    EXPECT_EQ(27u, got.frame.sequence);
    EXPECT_EQ(26u, got.frame.lost);
    got = Read(newest);
    EXPECT_EQ(42u, got.frame.sequence);
    EXPECT_EQ(41u, got.frame.lost);
    got = Read(key);
    EXPECT_EQ(40u, got.frame.sequence);
    EXPECT_EQ(39u, got.frame.lost);
    EXPECT_EQ(41u, Read(key).frame.sequence);
}

TEST_F(ShbTrack, WaitsForAKeyFrame) {
    Write(3, 10);
    Reader key = OpenReader(map_, SHB_START_KEY);
    EXPECT_EQ(SHB_ERR_TIMEOUT, Read(key).result);
    Write(30, 10);
    EXPECT_EQ(SHB_ERR_TIMEOUT, Read(key).result);
    WritePattern(writer_, 1, sequence_++, 10, SHB_FRAME_KEY);
    Write(1, 10);
    ReadFrame got = Read(key);
    EXPECT_EQ(33u, got.frame.sequence);
    EXPECT_EQ(0u, got.frame.lost) << "nothing is lost before the first frame";
    EXPECT_EQ(34u, Read(key).frame.sequence);
    // After a loss with no key frame left, all that was passed over counts.
    Write(40, 10);
    EXPECT_EQ(SHB_ERR_TIMEOUT, Read(key).result);
    WritePattern(writer_, 1, sequence_++, 10, SHB_FRAME_KEY);
    got = Read(key);
    EXPECT_EQ(75u, got.frame.sequence);
    EXPECT_EQ(40u, got.frame.lost);
}

TEST_F(ShbTrack, SmallMemoryLeavesTheFrameUnread) {
    Reader reader = OpenReader(map_, SHB_START_OLDEST);
    Write(2, 5000);
    ReadFrame got = Read(reader, 0, 4999);
    EXPECT_EQ(SHB_ERR_TOO_BIG, got.result);
    EXPECT_EQ(5000u, got.frame.size);
    shb_frame_t frame;
    EXPECT_EQ(SHB_ERR_TOO_BIG, shb_reader_read(reader.get(), nullptr, 0, 0, &frame));
    EXPECT_EQ(5000u, frame.size);
    got = Read(reader, 0, 5000);
    EXPECT_EQ(SHB_OK, got.result);
    EXPECT_EQ(0u, got.frame.sequence);
    EXPECT_TRUE(got.Whole());
}

TEST_F(ShbTrack, FrameLargerThanTheTrackChangesNothing) {
    Reader reader = OpenReader(map_, SHB_START_OLDEST);
    Write(3, 1000);
    const std::vector<uint8_t> huge(65537);
    EXPECT_EQ(SHB_ERR_TOO_BIG, shb_writer_write(writer_.get(), huge.data(), huge.size(), 0, 0, 0, 0));
    EXPECT_EQ(SHB_ERR_ARG, shb_writer_write(writer_.get(), huge.data(), 0, 0, 0, 0, 0));
    EXPECT_EQ(SHB_ERR_ARG, shb_writer_write(writer_.get(), nullptr, 10, 0, 0, 0, 0));
    EXPECT_EQ(SHB_ERR_ARG, shb_writer_write(nullptr, huge.data(), 10, 0, 0, 0, 0));
    EXPECT_EQ(3u, Stats().frames);
    for (uint64_t i = 0; i < 3; i++) {
        ReadFrame got = Read(reader);
        EXPECT_EQ(i, got.frame.sequence);
        EXPECT_TRUE(got.Whole());
    }
    // The next frame tells of it.
    Write(1, 65536);
    ReadFrame got = Read(reader);
    EXPECT_TRUE(got.Whole());
    EXPECT_EQ(1u, got.frame.left_out);
    EXPECT_EQ(uint32_t{SHB_FRAME_DISCONT}, got.frame.flags);
    EXPECT_EQ(0u, got.frame.lost);
    EXPECT_EQ(1u, Stats().left_out);
    Write(1, 10);
    got = Read(reader);
    EXPECT_EQ(0u, got.frame.left_out);
    EXPECT_EQ(0u, got.frame.flags);
}

TEST_F(ShbTrack, OneWriterATrack) {
    int result;
    OpenWriter(buffer_, SHB_VIDEO, &result);
    EXPECT_EQ(SHB_ERR_BUSY, result);
    EXPECT_TRUE(OpenWriter(buffer_, SHB_AUDIO, &result)) << "the other kind is another track";
    Child other([&] {
        int r;
        OpenWriter(buffer_, SHB_VIDEO, &r);
        return r == SHB_ERR_BUSY ? 0 : 1;
    });
    EXPECT_EQ(0, other.Wait());
    EXPECT_EQ(getpid(), Stats().writer_pid);
    writer_.reset();
    EXPECT_EQ(0, Stats().writer_pid);
    EXPECT_TRUE(OpenWriter(buffer_, SHB_VIDEO));
}

TEST_F(ShbTrack, TrackOfADeadWriterCanBeOpened) {
    writer_.reset();
    Pipe made;
    Child other([&] {
        Writer writer = OpenWriter(buffer_);
        WritePattern(writer, 2, 0, 100);
        made.Signal();
        pause();
        return 0;
    });
    ASSERT_TRUE(made.Await());
    int result;
    OpenWriter(buffer_, SHB_VIDEO, &result);
    EXPECT_EQ(SHB_ERR_BUSY, result);
    other.Kill();
    EXPECT_EQ(0, Stats().writer_pid);
    writer_ = OpenWriter(buffer_);
    ASSERT_TRUE(writer_);
    EXPECT_EQ(3u, Stats().epoch);
    // What the dead one completed is still there, and the next goes on behind it.
    WritePattern(writer_, 3, 0, 100);
    Reader reader = OpenReader(map_, SHB_START_OLDEST);
    EXPECT_TRUE(Read(reader).Whole());
    ReadFrame got = Read(reader);
    EXPECT_EQ(3u, got.frame.epoch);
    EXPECT_TRUE(got.Whole());
}

TEST_F(ShbTrack, EpochsFollowOneAnother) {
    Reader reader = OpenReader(map_, SHB_START_OLDEST);
    Write(3, 100);
    EXPECT_EQ(0u, Read(reader).frame.sequence);
    NextEpoch();
    Write(2, 100);
    // The rest of the old epoch comes first.
    for (uint64_t expected : {1u, 2u}) {
        ReadFrame got = Read(reader);
        EXPECT_EQ(1u, got.frame.epoch);
        EXPECT_EQ(expected, got.frame.sequence);
        EXPECT_TRUE(got.Whole());
    }
    for (uint64_t expected : {0u, 1u}) {
        ReadFrame got = Read(reader);
        EXPECT_EQ(2u, got.frame.epoch);
        EXPECT_EQ(expected, got.frame.sequence);
        EXPECT_EQ(0u, got.frame.lost);
        EXPECT_TRUE(got.Whole());
    }
    // Losses are those of all epochs since the frame before.
    Write(4, 100);
    NextEpoch();
    Write(20, 100);
    ReadFrame got = Read(reader);
    EXPECT_EQ(3u, got.frame.epoch);
    EXPECT_EQ(4u, got.frame.sequence);
    EXPECT_EQ(8u, got.frame.lost);
    EXPECT_EQ(4u, got.frame.lost_before);
    // Of an epoch that is gone as a whole, too.
    Write(1, 100);
    NextEpoch();
    Write(3, 100);
    NextEpoch();
    Write(18, 100);
    got = Read(reader);
    EXPECT_EQ(5u, got.frame.epoch);
    EXPECT_EQ(2u, got.frame.sequence);
    EXPECT_EQ(15u + 1 + 3 + 2, got.frame.lost);
    EXPECT_EQ(15u + 1 + 3, got.frame.lost_before);
    EXPECT_EQ(3u, Read(reader).frame.sequence);
}

TEST_F(ShbTrack, KeyReaderStartsEachEpochAtAKeyFrame) {
    Reader key = OpenReader(map_, SHB_START_KEY);
    Write(2, 100, 10);
    EXPECT_EQ(0u, Read(key).frame.sequence);
    EXPECT_EQ(1u, Read(key).frame.sequence);
    NextEpoch();
    for (uint32_t flags : {0u, 0u, uint32_t{SHB_FRAME_KEY}, 0u})
        WritePattern(writer_, epoch_, sequence_++, 100, flags);
    ReadFrame got = Read(key);
    EXPECT_EQ(2u, got.frame.epoch);
    EXPECT_EQ(2u, got.frame.sequence);
    EXPECT_EQ(2u, got.frame.lost);
    EXPECT_EQ(0u, got.frame.lost_before);
    EXPECT_EQ(3u, Read(key).frame.sequence);
}

TEST_F(ShbTrack, CountsWhatWasWritten) {
    shb_stats_t stats = Stats();
    EXPECT_EQ(1u, stats.epoch);
    EXPECT_EQ(SHB_TIME_NONE, stats.age_ns);
    const auto before = std::chrono::steady_clock::now();
    Write(5, 100, 2);
    shb_writer_set_rates(writer_.get(), 1234567, 29970);
    stats = Stats();
    EXPECT_EQ(5u, stats.frames);
    EXPECT_EQ(500u, stats.bytes);
    EXPECT_EQ(3u, stats.key_frames);
    EXPECT_EQ(5u, stats.total_frames);
    EXPECT_EQ(500u, stats.total_bytes);
    EXPECT_EQ(1234567u, stats.bitrate);
    EXPECT_EQ(29970u, stats.fps_milli);
    EXPECT_LE(std::chrono::nanoseconds(stats.age_ns), std::chrono::steady_clock::now() - before);
    NextEpoch();
    stats = Stats();
    EXPECT_EQ(2u, stats.epoch);
    EXPECT_EQ(0u, stats.frames);
    EXPECT_EQ(0u, stats.bytes);
    EXPECT_EQ(0u, stats.key_frames);
    EXPECT_EQ(0u, stats.bitrate);
    EXPECT_EQ(SHB_TIME_NONE, stats.age_ns);
    EXPECT_EQ(5u, stats.total_frames);
    Write(1, 50);
    stats = Stats();
    EXPECT_EQ(1u, stats.frames);
    EXPECT_EQ(50u, stats.bytes);
    EXPECT_EQ(6u, stats.total_frames);
    EXPECT_EQ(550u, stats.total_bytes);
    shb_stats_t seen;
    ASSERT_EQ(SHB_OK, shb_map_stats(map_.get(), 0, 0, SHB_VIDEO, &seen));
    EXPECT_EQ(stats.total_bytes, seen.total_bytes);
    EXPECT_EQ(stats.writer_pid, seen.writer_pid);
    shb_stats_t never;
    ASSERT_EQ(SHB_OK, shb_map_stats(map_.get(), 0, 0, SHB_AUDIO, &never));
    EXPECT_EQ(0u, never.epoch);
    EXPECT_EQ(0, never.writer_pid);
}

static shb_description_t Described(int width) {
    shb_description_t description{};
    description.serial = 77;  // ignored
    description.media = 48;
    strcpy(description.code, "H264");
    strcpy(description.profile, "high");
    description.width = width;
    description.height = 360;
    return description;
}

TEST_F(ShbTrack, DescriptionsComeInOrder) {
    shb_description_t description;
    Reader reader = OpenReader(map_, SHB_START_OLDEST);
    EXPECT_EQ(SHB_ERR_NOT_FOUND, shb_buffer_description(buffer_.get(), 0, 0, SHB_VIDEO, &description));
    EXPECT_EQ(SHB_ERR_NOT_FOUND, shb_reader_description(reader.get(), &description));
    Write(1, 10);
    for (int width : {640, 640, 1280, 1920}) {
        const shb_description_t next = Described(width);
        ASSERT_EQ(SHB_OK, shb_writer_describe(writer_.get(), &next, nullptr, 0));
        Write(1, 10);
    }
    const struct {
        uint32_t serial;
        int width;  // 0: none
    } expected[] = {{0, 0}, {1, 640}, {1, 640}, {2, 1280}, {3, 1920}};
    for (const auto &want : expected) {
        ReadFrame got = Read(reader);
        ASSERT_EQ(SHB_OK, got.result);
        EXPECT_EQ(want.serial, got.frame.description);
        int result = shb_reader_description(reader.get(), &description);
        EXPECT_EQ(want.width == 0 ? SHB_ERR_NOT_FOUND : SHB_OK, result) << want.serial;
        if (result == SHB_OK) {
            EXPECT_EQ(want.width, description.width);
            EXPECT_EQ(want.serial, description.serial);
            EXPECT_STREQ("H264", description.code);
        }
    }
    ASSERT_EQ(SHB_OK, shb_map_description(map_.get(), 0, 0, SHB_VIDEO, &description));
    EXPECT_EQ(1920, description.width);
    EXPECT_EQ(SHB_ERR_ARG, shb_writer_describe(writer_.get(), nullptr, nullptr, 0));
}

TEST_F(ShbTrack, DescriptionsBelongToTheirEpoch) {
    shb_description_t next = Described(640);
    shb_writer_describe(writer_.get(), &next, nullptr, 0);
    Write(1, 10);
    Reader reader = OpenReader(map_, SHB_START_OLDEST);
    NextEpoch();
    shb_description_t description;
    EXPECT_EQ(SHB_ERR_NOT_FOUND, shb_buffer_description(buffer_.get(), 0, 0, SHB_VIDEO, &description));
    next = Described(1280);
    shb_writer_describe(writer_.get(), &next, nullptr, 0);
    Write(1, 10);
    // Both have serial 1.
    for (int width : {640, 1280}) {
        ReadFrame got = Read(reader);
        EXPECT_EQ(1u, got.frame.description);
        ASSERT_EQ(SHB_OK, shb_reader_description(reader.get(), &description));
        EXPECT_EQ(width, description.width);
    }
}

TEST_F(ShbTrack, TextsBehindTheirEndDoNotCount) {
    shb_description_t next = Described(640);
    shb_writer_describe(writer_.get(), &next, nullptr, 0);
    memset(next.code + 5, 'x', sizeof next.code - 5);
    memset(next.level + 1, 'x', sizeof next.level - 1);
    shb_writer_describe(writer_.get(), &next, nullptr, 0);
    shb_description_t description;
    ASSERT_EQ(SHB_OK, shb_buffer_description(buffer_.get(), 0, 0, SHB_VIDEO, &description));
    EXPECT_EQ(1u, description.serial);
    memset(next.code, 'x', sizeof next.code);
    shb_writer_describe(writer_.get(), &next, nullptr, 0);
    ASSERT_EQ(SHB_OK, shb_buffer_description(buffer_.get(), 0, 0, SHB_VIDEO, &description));
    EXPECT_EQ(2u, description.serial);
    EXPECT_EQ(std::string(15, 'x'), description.code);
}

TEST_F(ShbTrack, ReaderWaitsForAFrame) {
    Reader reader = OpenReader(map_, SHB_START_OLDEST);
    EXPECT_EQ(SHB_ERR_TIMEOUT, Read(reader, 20).result);
    for (uint64_t i = 0; i < 200; i++) {
        std::thread later([&] { Write(1, 10); });
        ReadFrame got = Read(reader, 20'000);
        later.join();
        ASSERT_EQ(SHB_OK, got.result);
        ASSERT_EQ(i, got.frame.sequence);
    }
}

TEST_F(ShbTrack, WaitingReaderIsWokenByTheFrame) {
    // Frames go to and fro between two tracks. Readers look after the creator every now and then in any case:
    // if that was what woke them, each turn would take 400 ms.
    constexpr uint64_t kTurns = 300;
    std::thread partner([&] {
        Writer back = OpenWriter(buffer_, SHB_AUDIO);
        Reader reader = OpenReader(map_, SHB_START_OLDEST);
        for (uint64_t i = 0; i < kTurns && Read(reader, 60'000).result == SHB_OK; i++)
            WritePattern(back, 1, i, 10);
    });
    Reader reader = OpenReader(map_, SHB_START_OLDEST, SHB_AUDIO);
    uint64_t turns = 0, slow = 0;
    for (; turns < kTurns; turns++) {
        const auto began = std::chrono::steady_clock::now();
        Write(1, 10);
        if (Read(reader, 60'000).result != SHB_OK)
            break;
        slow += std::chrono::steady_clock::now() - began > std::chrono::milliseconds(200);
    }
    partner.join();
    EXPECT_EQ(kTurns, turns);
    // A busy machine delays some of them.
    EXPECT_LT(slow, kTurns / 2);
}

TEST_F(ShbTrack, WaitingReaderIsToldOfTheEnd) {
    Reader reader = OpenReader(map_, SHB_START_OLDEST);
    std::thread later([&] {
        Write(1, 10);
        writer_.reset();
        buffer_.reset();
    });
    EXPECT_EQ(SHB_OK, Read(reader, -1).result);
    EXPECT_EQ(SHB_ERR_CLOSED, Read(reader, -1).result);
    later.join();
    EXPECT_EQ(SHB_ERR_CLOSED, Read(reader, 0).result);
}

TEST_F(ShbTrack, ReaderMayComeBeforeTheWriter) {
    Reader reader = OpenReader(map_, SHB_START_KEY, SHB_AUDIO);
    ASSERT_TRUE(reader);
    EXPECT_EQ(SHB_ERR_TIMEOUT, Read(reader).result);
    Writer audio = OpenWriter(buffer_, SHB_AUDIO);
    WritePattern(audio, 1, 0, 300, SHB_FRAME_KEY);
    EXPECT_TRUE(Read(reader).Whole());
}

TEST_F(ShbTrack, ReaderInAnotherProcess) {
    Pipe ready;
    const std::string name = name_;
    Child other([&] {
        Map map = Attach(name);
        Reader reader = OpenReader(map, SHB_START_OLDEST);
        ready.Signal();
        uint64_t next = 0;
        for (;;) {
            ReadFrame got = Read(reader, -1);
            if (got.result == SHB_ERR_CLOSED)
                return next == 500 ? 0 : 1;
            if (got.result != SHB_OK || !got.Whole() || got.frame.sequence != next + got.frame.lost)
                return 2;
            next = got.frame.sequence + 1;
        }
    });
    ASSERT_TRUE(ready.Await());
    Write(500, 3000);
    writer_.reset();
    buffer_.reset();
    EXPECT_EQ(0, other.Wait());
}

TEST(ShbTracks, DoNotTouchOneAnother) {
    shb_geometry_t geometry = SmallGeometry();
    geometry.channels = 3;
    geometry.streams = 2;
    geometry.audio_bytes = 131072;
    geometry.audio_frames = 32;
    const std::string name = UniqueName();
    Buffer buffer = Create(name, geometry);
    Map map = Attach(name);
    std::vector<Writer> writers;
    std::vector<Reader> readers;
    for (uint32_t track = 0; track < 12; track++) {
        shb_writer_t *writer = nullptr;
        shb_reader_t *reader = nullptr;
        const auto kind = static_cast<shb_kind_t>(track % 2);
        ASSERT_EQ(SHB_OK, shb_writer_open(buffer.get(), track / 4, track / 2 % 2, kind, &writer));
        writers.emplace_back(writer);
        ASSERT_EQ(SHB_OK, shb_reader_open(map.get(), track / 4, track / 2 % 2, kind, SHB_START_OLDEST, &reader));
        readers.emplace_back(reader);
    }
    for (uint64_t round = 0; round < 50; round++)
        for (uint64_t track = 0; track < 12; track++) {
            const auto bytes = Pattern(track, round, 60000);
            ASSERT_EQ(SHB_OK, shb_writer_write(writers[track].get(), bytes.data(), bytes.size(), track, 0, 0, 0));
        }
    for (uint64_t track = 0; track < 12; track++) {
        ReadFrame got = Read(readers[track]);
        ASSERT_EQ(SHB_OK, got.result);
        EXPECT_EQ(track, got.frame.pts);
        EXPECT_EQ(Pattern(track, got.frame.sequence, 60000), got.bytes);
        EXPECT_EQ(track % 2 == 0 ? 49u : 48u, got.frame.sequence) << "the larger track holds two";
    }
}
