// Times of frames, moving to a moment, both tracks of a source at one moment, and counting that is exact through all of it.
#include <gtest/gtest.h>

#include <ctime>
#include <thread>

#include "shb_layout.h"
#include "shb_support.h"

extern "C" {
int shbtest_seek(shb_reader_t *reader, int where);
int shbtest_open_av(shb_map_t *map, int where, shb_reader_t **video, shb_reader_t **audio);
int shbtest_set_presence(shb_buffer_t *buffer, int presence);
}

using namespace shbtest;

namespace {

uint64_t Now(clockid_t clock) {
    timespec now{};
    clock_gettime(clock, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1'000'000'000 + static_cast<uint64_t>(now.tv_nsec);
}

shb_reader_stats_t StatsOf(const Reader &reader) {
    shb_reader_stats_t stats{};
    EXPECT_EQ(SHB_OK, shb_reader_get_stats(reader.get(), &stats));
    return stats;
}

// One that arrives at a later nanosecond than all before it.
void WriteAt(const Writer &writer, uint64_t sequence, uint32_t flags, uint64_t pts) {
    const uint64_t before = Now(CLOCK_MONOTONIC), wall_before = Now(CLOCK_REALTIME);
    while (Now(CLOCK_MONOTONIC) == before || Now(CLOCK_REALTIME) == wall_before)
        continue;
    const auto bytes = Pattern(1, sequence, 100);
    ASSERT_EQ(SHB_OK, shb_writer_write(writer.get(), bytes.data(), bytes.size(), pts, pts, 40, flags));
}

shb_geometry_t RoomyGeometry() {
    shb_geometry_t geometry = SmallGeometry();
    geometry.video_frames = geometry.audio_frames = 64;
    return geometry;
}

}  // namespace

TEST(ShbTime, AFrameKnowsWhenItCame) {
    const std::string name = UniqueName();
    const Buffer buffer = Create(name, SmallGeometry());
    Writer writer = OpenWriter(buffer);
    const Map map = Attach(name);
    const Reader reader = OpenReader(map, SHB_START_OLDEST);
    ASSERT_TRUE(writer && reader);
    const uint64_t before = Now(CLOCK_MONOTONIC), wall_before = Now(CLOCK_REALTIME);
    WritePattern(writer, 1, 0, 100);
    const uint64_t after = Now(CLOCK_MONOTONIC), wall_after = Now(CLOCK_REALTIME);
    ReadFrame got = Read(reader);
    ASSERT_EQ(SHB_OK, got.result);
    EXPECT_GE(got.frame.arrival_ns, before);
    EXPECT_LE(got.frame.arrival_ns, after);
    EXPECT_GE(got.frame.wall_ns, wall_before);
    EXPECT_LE(got.frame.wall_ns, wall_after);
    EXPECT_EQ(SHB_OFFSET_NONE, got.frame.clock_offset);
    EXPECT_EQ(SHB_ERR_ARG, shb_writer_set_clock(nullptr, 0));
    ASSERT_EQ(SHB_OK, shb_writer_set_clock(writer.get(), -12345));
    shb_stats_t stats{};
    ASSERT_EQ(SHB_OK, shb_map_stats(map.get(), 0, 0, SHB_VIDEO, &stats));
    EXPECT_EQ(-12345, stats.clock_offset);
    WritePattern(writer, 1, 1, 100);
    got = Read(reader);
    EXPECT_EQ(-12345, got.frame.clock_offset);
    // The next writer has a clock of its own.
    writer.reset();
    writer = OpenWriter(buffer);
    WritePattern(writer, 2, 0, 100);
    EXPECT_EQ(SHB_OFFSET_NONE, Read(reader).frame.clock_offset);
}

TEST(ShbSeek, GoesToTheKeyFrameAtOrBeforeAMoment) {
    const std::string name = UniqueName();
    const Buffer buffer = Create(name, RoomyGeometry());
    const Writer writer = OpenWriter(buffer);
    const Map map = Attach(name);
    const Reader all = OpenReader(map, SHB_START_OLDEST);
    const Reader reader = OpenReader(map, SHB_START_OLDEST);
    ASSERT_TRUE(writer && all && reader);
    // Key frames 0, 5, 10, ... 35.
    std::vector<shb_frame_t> frames;
    for (uint64_t i = 0; i < 40; i++) {
        WriteAt(writer, i, i % 5 == 0 ? SHB_FRAME_KEY : 0, i);
        frames.push_back(Read(all).frame);
        ASSERT_EQ(i, frames.back().sequence);
    }
    const auto sequence_at = [&](shb_seek_t where, uint64_t ns) {
        EXPECT_EQ(SHB_OK, shb_reader_seek(reader.get(), where, ns));
        const ReadFrame got = Read(reader);
        EXPECT_EQ(SHB_OK, got.result);
        EXPECT_EQ(0u, got.frame.lost);
        return got.frame.sequence;
    };
    for (uint64_t i = 0; i < 40; i++) {
        EXPECT_EQ(i / 5 * 5, sequence_at(SHB_SEEK_MONOTONIC, frames[i].arrival_ns));
        EXPECT_EQ(i / 5 * 5, sequence_at(SHB_SEEK_WALL, frames[i].wall_ns));
    }
    EXPECT_EQ(0u, sequence_at(SHB_SEEK_MONOTONIC, 0));
    EXPECT_EQ(0u, sequence_at(SHB_SEEK_BACK, UINT64_MAX));
    EXPECT_EQ(35u, sequence_at(SHB_SEEK_BACK, 0));
    // The time goes on between the look at the clock and the library's own: so far the moment may have moved.
    const uint64_t before = Now(CLOCK_MONOTONIC);
    const uint64_t key = sequence_at(SHB_SEEK_BACK, before - frames[19].arrival_ns);
    const uint64_t latest = frames[19].arrival_ns + (Now(CLOCK_MONOTONIC) - before);
    EXPECT_EQ(0u, key % 5);
    EXPECT_GE(key, 15u);
    EXPECT_LE(frames[key].arrival_ns, latest);
    EXPECT_EQ(0u, sequence_at(SHB_SEEK_OLDEST, 0));
    EXPECT_EQ(1u, Read(reader).frame.sequence);
    EXPECT_EQ(35u, sequence_at(SHB_SEEK_KEY, 0));
    EXPECT_EQ(SHB_OK, shb_reader_seek(reader.get(), SHB_SEEK_NEWEST, 0));
    EXPECT_EQ(SHB_ERR_TIMEOUT, Read(reader).result);
    WriteAt(writer, 40, 0, 40);
    EXPECT_EQ(40u, Read(reader).frame.sequence);
    EXPECT_EQ(SHB_ERR_ARG, shb_reader_seek(nullptr, SHB_SEEK_KEY, 0));
    EXPECT_EQ(SHB_ERR_ARG, shbtest_seek(reader.get(), 6));
    EXPECT_EQ(SHB_ERR_ARG, shbtest_seek(reader.get(), -1));
    const shb_reader_stats_t stats = StatsOf(reader);
    EXPECT_EQ(0u, stats.lost);
    EXPECT_EQ(stats.offered, stats.frames + stats.lost + stats.waiting);
}

TEST(ShbSeek, WithoutAKeyFrameItWaitsForOne) {
    const std::string name = UniqueName();
    const Buffer buffer = Create(name, RoomyGeometry());
    const Writer writer = OpenWriter(buffer);
    const Map map = Attach(name);
    const Reader reader = OpenReader(map, SHB_START_OLDEST);
    for (uint64_t i = 0; i < 10; i++)
        WritePattern(writer, 1, i, 100);
    ASSERT_EQ(SHB_OK, shb_reader_seek(reader.get(), SHB_SEEK_BACK, 1'000'000));
    WritePattern(writer, 1, 10, 100);
    EXPECT_EQ(SHB_ERR_TIMEOUT, Read(reader).result);
    WritePattern(writer, 1, 11, 100, SHB_FRAME_KEY);
    const ReadFrame got = Read(reader);
    EXPECT_EQ(11u, got.frame.sequence);
    EXPECT_EQ(0u, got.frame.lost);
    const void *data = nullptr;
    shb_frame_t frame{};
    WritePattern(writer, 1, 12, 100);
    ASSERT_EQ(SHB_OK, shb_reader_borrow(reader.get(), 0, &data, &frame));
    EXPECT_EQ(SHB_ERR_ARG, shb_reader_seek(reader.get(), SHB_SEEK_OLDEST, 0));
    EXPECT_EQ(SHB_OK, shb_reader_return(reader.get()));
}

// Back into the epoch of an earlier writer.
TEST(ShbSeek, GoesBackOverEpochs) {
    const std::string name = UniqueName();
    const Buffer buffer = Create(name, RoomyGeometry());
    Writer writer = OpenWriter(buffer);
    const Map map = Attach(name);
    for (const shb_start_t start : {SHB_START_OLDEST, SHB_START_KEY}) {
        writer.reset();
        writer = OpenWriter(buffer);
        for (uint64_t i = 0; i < 10; i++)
            WriteAt(writer, i, i % 5 == 0 ? SHB_FRAME_KEY : 0, i);
        const uint64_t between = Now(CLOCK_MONOTONIC);
        writer.reset();
        writer = OpenWriter(buffer);
        for (uint64_t i = 0; i < 10; i++)
            WriteAt(writer, i, i % 5 == 0 ? SHB_FRAME_KEY : 0, i);
        const Reader reader = OpenReader(map, start);
        ASSERT_EQ(SHB_OK, shb_reader_seek(reader.get(), SHB_SEEK_KEY, 0));
        const uint64_t newest = Read(reader).frame.epoch;
        ASSERT_EQ(SHB_OK, shb_reader_seek(reader.get(), SHB_SEEK_MONOTONIC, between));
        ReadFrame got = Read(reader);
        ASSERT_EQ(SHB_OK, got.result);
        EXPECT_EQ(newest - 1, got.frame.epoch);
        EXPECT_EQ(5u, got.frame.sequence);
        for (int i = 0; i < 14; i++)
            got = Read(reader);
        EXPECT_EQ(SHB_OK, got.result);
        EXPECT_EQ(newest, got.frame.epoch);
        EXPECT_EQ(9u, got.frame.sequence);
        EXPECT_EQ(0u, StatsOf(reader).lost);
    }
}

TEST(ShbOpenAv, BothTracksBeginAtOneMoment) {
    const std::string name = UniqueName();
    const Buffer buffer = Create(name, RoomyGeometry());
    const Writer video = OpenWriter(buffer), audio = OpenWriter(buffer, SHB_AUDIO);
    const Map map = Attach(name);
    // Different clocks of the stream, which say how they relate: sound of 1000 + t is picture of t.
    ASSERT_EQ(SHB_OK, shb_writer_set_clock(video.get(), 5'000'000));
    ASSERT_EQ(SHB_OK, shb_writer_set_clock(audio.get(), 4'999'000));
    for (uint64_t t = 0; t < 50; t++) {
        WriteAt(video, t, t % 10 == 0 ? SHB_FRAME_KEY : 0, t * 10);
        // Sound that comes earlier than its picture.
        WriteAt(audio, t, SHB_FRAME_KEY, 1000 + t * 10 + 55);
    }
    shb_reader_t *v = nullptr, *a = nullptr;
    ASSERT_EQ(SHB_OK, shb_open_av(map.get(), 0, 0, SHB_SEEK_KEY, 0, &v, &a));
    Reader picture(v), sound(a);
    EXPECT_EQ(40u, Read(picture).frame.sequence);
    const shb_frame_t first = Read(sound).frame;
    // The first one that is not before the picture at 400.
    EXPECT_EQ(1405u, first.pts);
    ASSERT_EQ(SHB_OK, shb_open_av(map.get(), 0, 0, SHB_SEEK_BACK, UINT64_MAX, &v, &a));
    picture.reset(v);
    sound.reset(a);
    EXPECT_EQ(0u, Read(picture).frame.sequence);
    EXPECT_EQ(1055u, Read(sound).frame.pts);
    EXPECT_EQ(SHB_ERR_ARG, shb_open_av(map.get(), 0, 1, SHB_SEEK_KEY, 0, &v, &a));
    EXPECT_EQ(SHB_ERR_ARG, shb_open_av(map.get(), 0, 0, SHB_SEEK_KEY, 0, nullptr, &a));
    EXPECT_EQ(SHB_ERR_ARG, shbtest_open_av(map.get(), 6, &v, &a));
    EXPECT_EQ(SHB_ERR_ARG, shb_open_av(nullptr, 0, 0, SHB_SEEK_KEY, 0, &v, &a));
}

TEST(ShbOpenAv, WithoutClocksArrivalDecides) {
    const std::string name = UniqueName();
    const Buffer buffer = Create(name, RoomyGeometry());
    const Writer video = OpenWriter(buffer), audio = OpenWriter(buffer, SHB_AUDIO);
    const Map map = Attach(name);
    for (uint64_t t = 0; t < 20; t++) {
        WriteAt(audio, 2 * t, SHB_FRAME_KEY, 7);
        WriteAt(video, t, t == 10 ? SHB_FRAME_KEY : 0, t);
        WriteAt(audio, 2 * t + 1, SHB_FRAME_KEY, 7);
    }
    shb_reader_t *v = nullptr, *a = nullptr;
    ASSERT_EQ(SHB_OK, shb_open_av(map.get(), 0, 0, SHB_SEEK_KEY, 0, &v, &a));
    const Reader picture(v), sound(a);
    EXPECT_EQ(10u, Read(picture).frame.sequence);
    EXPECT_EQ(21u, Read(sound).frame.sequence);
}

TEST(ShbOpenAv, WithoutAPictureTheSoundGoesByItself) {
    const std::string name = UniqueName();
    const Buffer buffer = Create(name, RoomyGeometry());
    const Writer audio = OpenWriter(buffer, SHB_AUDIO);
    const Map map = Attach(name);
    for (uint64_t t = 0; t < 20; t++)
        WriteAt(audio, t, SHB_FRAME_KEY, t);
    shb_reader_t *v = nullptr, *a = nullptr;
    ASSERT_EQ(SHB_OK, shb_open_av(map.get(), 0, 0, SHB_SEEK_OLDEST, 0, &v, &a));
    const Reader picture(v), sound(a);
    EXPECT_EQ(SHB_ERR_TIMEOUT, Read(picture).result);
    EXPECT_EQ(0u, Read(sound).frame.sequence);
}

// ---- Counting -------------------------------------------------------------------------------------------------------

// At any moment, without draining first: delivered + lost + waiting = written.
TEST(ShbCount, LossIsExactOverEpochs) {
    const std::string name = UniqueName();
    const Buffer buffer = Create(name, SmallGeometry());
    const Map map = Attach(name);
    const Reader reader = OpenReader(map, SHB_START_OLDEST);
    uint64_t written = 0, delivered = 0, lost = 0, before = 0;
    unsigned random = 1;
    for (uint64_t epoch = 1; epoch <= 60; epoch++) {
        Writer writer = OpenWriter(buffer);
        ASSERT_TRUE(writer);
        random = random * 1103515245 + 12345;
        const uint64_t frames = (random >> 16) % 120;
        for (uint64_t i = 0; i < frames; i++, written++) {
            ASSERT_EQ(SHB_OK, WritePattern(writer, epoch, i, 100));
            random = random * 1103515245 + 12345;
            if ((random >> 16) % 9 == 0) {
                const ReadFrame got = Read(reader);
                ASSERT_EQ(SHB_OK, got.result);
                ASSERT_TRUE(got.Whole());
                EXPECT_LE(got.frame.lost_before, got.frame.lost);
                if (got.frame.lost_before > 0) {
                    EXPECT_EQ(got.frame.sequence, got.frame.lost - got.frame.lost_before);
                }
                delivered++;
                lost += got.frame.lost;
                before += got.frame.lost_before;
            }
            const shb_reader_stats_t stats = StatsOf(reader);
            ASSERT_EQ(written + 1, stats.frames + stats.lost + stats.waiting);
            ASSERT_EQ(written + 1, stats.offered);
        }
    }
    const shb_reader_stats_t stats = StatsOf(reader);
    EXPECT_EQ(delivered, stats.frames);
    EXPECT_EQ(lost, stats.lost);
    EXPECT_GT(before, 0u) << "no epoch ended with frames that were lost";
}

TEST(ShbCount, TheEndOfAnEpochIsReported) {
    const std::string name = UniqueName();
    const Buffer buffer = Create(name, SmallGeometry());
    const Map map = Attach(name);
    const Reader reader = OpenReader(map, SHB_START_OLDEST);
    Writer writer = OpenWriter(buffer);
    for (uint64_t i = 0; i < 100; i++) {
        WritePattern(writer, 1, i, 100);
        if (i < 31) {
            ASSERT_EQ(SHB_OK, Read(reader).result);
        }
    }
    writer.reset();
    writer = OpenWriter(buffer);
    for (uint64_t i = 0; i < 20; i++)
        WritePattern(writer, 2, i, 100);
    const shb_frame_t frame = Read(reader).frame;
    EXPECT_EQ(2u, frame.epoch);
    EXPECT_EQ(4u, frame.sequence);
    EXPECT_EQ(69u + 4u, frame.lost);
    EXPECT_EQ(69u, frame.lost_before);
}

// Readers that begin at key frames pass over what does not decode, and count that too.
TEST(ShbCount, AddsUpForReadersOfKeyFrames) {
    const std::string name = UniqueName();
    const Buffer buffer = Create(name, SmallGeometry());
    const Map map = Attach(name);
    const Reader reader = OpenReader(map, SHB_START_KEY);
    unsigned random = 7;
    for (uint64_t epoch = 1; epoch <= 40; epoch++) {
        Writer writer = OpenWriter(buffer);
        for (uint64_t i = 0; i < 50; i++) {
            random = random * 1103515245 + 12345;
            WritePattern(writer, epoch, i, 100, (random >> 16) % 12 == 0 ? SHB_FRAME_KEY : 0);
            if ((random >> 20) % 3 == 0)
                Read(reader);
            const shb_reader_stats_t stats = StatsOf(reader);
            ASSERT_EQ(stats.offered, stats.frames + stats.lost + stats.waiting);
        }
    }
    EXPECT_GT(StatsOf(reader).lost, 0u);
    EXPECT_GT(StatsOf(reader).frames, 100u);
}

TEST(ShbCount, AFrameThatIsTooBigLeavesAMark) {
    const std::string name = UniqueName();
    const Buffer buffer = Create(name, SmallGeometry());
    const Map map = Attach(name);
    Writer writer = OpenWriter(buffer);
    const Reader reader = OpenReader(map, SHB_START_OLDEST);
    const std::vector<uint8_t> big(65537);
    const auto too_big = [&] { return shb_writer_write(writer.get(), big.data(), big.size(), 0, 0, 0, 0); };
    WritePattern(writer, 1, 0, 100);
    EXPECT_EQ(SHB_ERR_TOO_BIG, too_big());
    EXPECT_EQ(SHB_ERR_TOO_BIG, too_big());
    WritePattern(writer, 1, 1, 100);
    WritePattern(writer, 1, 2, 100);
    shb_frame_t frame = Read(reader).frame;
    EXPECT_EQ(0u, frame.left_out);
    EXPECT_EQ(0u, frame.flags & SHB_FRAME_DISCONT);
    frame = Read(reader).frame;
    EXPECT_EQ(2u, frame.left_out);
    EXPECT_EQ(0u, frame.lost);
    EXPECT_NE(0u, frame.flags & SHB_FRAME_DISCONT);
    frame = Read(reader).frame;
    EXPECT_EQ(0u, frame.left_out);
    EXPECT_EQ(0u, frame.flags & SHB_FRAME_DISCONT);
    // Marks are not lost with the frames that carried them, nor with the writer.
    EXPECT_EQ(SHB_ERR_TOO_BIG, too_big());
    for (uint64_t i = 3; i < 40; i++)
        WritePattern(writer, 1, i, 100);
    EXPECT_EQ(SHB_ERR_TOO_BIG, too_big());
    writer.reset();
    writer = OpenWriter(buffer);
    for (uint64_t i = 0; i < 16; i++)
        WritePattern(writer, 2, i, 100);
    frame = Read(reader).frame;
    EXPECT_EQ(2u, frame.left_out);
    EXPECT_EQ(37u, frame.lost);
    EXPECT_EQ(4u, StatsOf(reader).left_out);
    shb_stats_t stats{};
    ASSERT_EQ(SHB_OK, shb_map_stats(map.get(), 0, 0, SHB_VIDEO, &stats));
    EXPECT_EQ(0u, stats.left_out);
    EXPECT_EQ(4u, stats.total_left_out);
}

// A writer that overwrites faster than a reader can copy: a read without time comes back, however often it was lapped.
TEST(ShbCount, DeadlinesHoldWhileLapped) {
    const std::string name = UniqueName();
    const Buffer buffer = Create(name, SmallGeometry());
    Writer writer = OpenWriter(buffer);
    const Map map = Attach(name);
    std::atomic<bool> stop{false};
    std::thread lapper([&] {
        // Each frame takes the whole track.
        const std::vector<uint8_t> whole(65536, 1);
        while (!stop)
            shb_writer_write(writer.get(), whole.data(), whole.size(), 0, 0, 0, SHB_FRAME_KEY);
    });
    uint64_t attempts = 0, delivered = 0;
    std::vector<uint8_t> data(65536);
    for (const shb_start_t start : {SHB_START_OLDEST, SHB_START_NEWEST, SHB_START_KEY}) {
        const Reader reader = OpenReader(map, start);
        for (int i = 0; i < 2000; i++) {
            shb_frame_t frame{};
            const int result = shb_reader_read(reader.get(), data.data(), data.size(), 0, &frame);
            ASSERT_TRUE(result == SHB_OK || result == SHB_ERR_TIMEOUT) << result;
            attempts++;
            delivered += result == SHB_OK;
            const shb_reader_stats_t stats = StatsOf(reader);
            ASSERT_GE(stats.offered, stats.frames + stats.lost);
        }
    }
    stop = true;
    lapper.join();
    EXPECT_EQ(6000u, attempts);
    EXPECT_LT(delivered, attempts) << "it was never lapped";
}

// ---- Codec data and presence ----------------------------------------------------------------------------------------

TEST(ShbDescribe, CodecDataGoesWithItsDescription) {
    const std::string name = UniqueName();
    const Buffer buffer = Create(name, SmallGeometry());
    const Writer writer = OpenWriter(buffer);
    const Map map = Attach(name);
    const Reader reader = OpenReader(map, SHB_START_OLDEST);
    shb_description_t description{};
    description.media = 48;
    memcpy(description.code, "H264", 5);
    memcpy(description.format, "byte-stream", 12);
    description.reorder_frames = 2;
    const std::string first = "first sets", second(SHB_CODEC_DATA_MAX, 'x');
    ASSERT_EQ(SHB_OK, shb_writer_describe(writer.get(), &description, first.data(), first.size()));
    WritePattern(writer, 1, 0, 100);
    ASSERT_EQ(SHB_OK, shb_writer_describe(writer.get(), &description, first.data(), first.size()));
    WritePattern(writer, 1, 1, 100);
    ASSERT_EQ(SHB_OK, shb_writer_describe(writer.get(), &description, second.data(), second.size()));
    WritePattern(writer, 1, 2, 100);
    EXPECT_EQ(SHB_ERR_TOO_BIG, shb_writer_describe(writer.get(), &description, second.data(), second.size() + 1));
    EXPECT_EQ(SHB_ERR_ARG, shb_writer_describe(writer.get(), &description, nullptr, 1));
    const auto data_of = [&](size_t capacity, int *result) {
        std::string data(capacity, '\0');
        size_t size = 0;
        *result = shb_reader_codec_data(reader.get(), data.data(), data.size(), &size);
        data.resize(*result == SHB_OK ? size : 0);
        return *result == SHB_ERR_TOO_BIG ? std::to_string(size) : data;
    };
    int result = SHB_OK;
    data_of(0, &result);
    EXPECT_EQ(SHB_ERR_NOT_FOUND, result);
    EXPECT_EQ(1u, Read(reader).frame.description);
    EXPECT_EQ(first, data_of(100, &result));
    EXPECT_EQ("10", data_of(9, &result));
    EXPECT_EQ(SHB_ERR_TOO_BIG, result);
    shb_description_t got{};
    ASSERT_EQ(SHB_OK, shb_reader_description(reader.get(), &got));
    EXPECT_EQ(first.size(), got.codec_data_bytes);
    EXPECT_STREQ("byte-stream", got.format);
    EXPECT_EQ(2, got.reorder_frames);
    EXPECT_EQ(1u, Read(reader).frame.description) << "nothing has changed";
    EXPECT_EQ(2u, Read(reader).frame.description);
    EXPECT_EQ(second, data_of(SHB_CODEC_DATA_MAX, &result));
    std::string newest(SHB_CODEC_DATA_MAX, '\0');
    size_t size = 0;
    ASSERT_EQ(SHB_OK, shb_map_codec_data(map.get(), 0, 0, SHB_VIDEO, &got, newest.data(), newest.size(), &size));
    EXPECT_EQ(second, newest);
    EXPECT_EQ(2u, got.serial);
    EXPECT_EQ(SHB_ERR_TOO_BIG, shb_map_codec_data(map.get(), 0, 0, SHB_VIDEO, &got, newest.data(), 5, &size));
    EXPECT_EQ(SHB_CODEC_DATA_MAX, size);
    EXPECT_EQ(SHB_ERR_NOT_FOUND, shb_map_codec_data(map.get(), 0, 0, SHB_AUDIO, &got, newest.data(), 5, &size));
    // What eight changes have overwritten is gone.
    for (uint64_t i = 0; i < 8; i++) {
        description.width = static_cast<int32_t>(i) + 1;
        ASSERT_EQ(SHB_OK, shb_writer_describe(writer.get(), &description, first.data(), i));
    }
    data_of(SHB_CODEC_DATA_MAX, &result);
    EXPECT_EQ(SHB_ERR_NOT_FOUND, result);
}

TEST(ShbPresence, ATrackSaysWhetherItHasAStream) {
    const std::string name = UniqueName();
    const Buffer buffer = Create(name, SmallGeometry());
    const Map map = Attach(name);
    const auto presence = [&] {
        shb_stats_t stats{};
        EXPECT_EQ(SHB_OK, shb_map_stats(map.get(), 0, 0, SHB_AUDIO, &stats));
        return stats.presence;
    };
    EXPECT_EQ(SHB_PRESENCE_UNKNOWN, presence());
    ASSERT_EQ(SHB_OK, shb_set_presence(buffer.get(), 0, 0, SHB_AUDIO, SHB_PRESENCE_ABSENT));
    EXPECT_EQ(SHB_PRESENCE_ABSENT, presence());
    Writer writer = OpenWriter(buffer, SHB_AUDIO);
    EXPECT_EQ(SHB_PRESENCE_EXPECTED, presence());
    writer.reset();
    EXPECT_EQ(SHB_PRESENCE_EXPECTED, presence());
    EXPECT_EQ(SHB_ERR_ARG, shb_set_presence(nullptr, 0, 0, SHB_AUDIO, SHB_PRESENCE_ABSENT));
    EXPECT_EQ(SHB_ERR_ARG, shb_set_presence(buffer.get(), 0, 1, SHB_AUDIO, SHB_PRESENCE_ABSENT));
    EXPECT_EQ(SHB_ERR_ARG, shbtest_set_presence(buffer.get(), 3));
    EXPECT_EQ(SHB_ERR_ARG, shbtest_set_presence(buffer.get(), -1));
}
