// Reading where the frame lies, waiting without reading, a reader's own
// counts, and descriptions that change all the time.
#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <thread>

#include "shb_support.h"

using namespace shbtest;

namespace {

struct Borrowed {
    int result = SHB_ERR_ARG;
    const void *place = nullptr;
    shb_frame_t frame{};
    bool Whole() const {
        const auto expected = Pattern(frame.epoch, frame.sequence, frame.size);
        return result == SHB_OK && memcmp(expected.data(), place, expected.size()) == 0;
    }
};

Borrowed Borrow(const Reader &reader, int timeout_ms = 0) {
    Borrowed got;
    got.result = shb_reader_borrow(reader.get(), timeout_ms, &got.place, &got.frame);
    return got;
}

shb_reader_stats_t StatsOf(const Reader &reader) {
    shb_reader_stats_t stats{};
    EXPECT_EQ(SHB_OK, shb_reader_get_stats(reader.get(), &stats));
    return stats;
}

}  // namespace

class ShbPlace : public ::testing::Test {
  protected:
    void Write(uint64_t count, size_t size, uint64_t keys = 0) {
        for (uint64_t i = 0; i < count; i++, sequence_++)
            ASSERT_EQ(SHB_OK, WritePattern(writer_, epoch_, sequence_, size,
                                           keys != 0 && sequence_ % keys == 0 ? uint32_t{SHB_FRAME_KEY} : 0u));
    }
    void Describe(int width) const {
        shb_description_t description{};
        description.media = 48;
        strcpy(description.code, "H264");
        description.width = width;
        ASSERT_EQ(SHB_OK, shb_writer_describe(writer_.get(), &description, nullptr, 0));
    }
    const std::string name_ = UniqueName();
    Buffer buffer_ = Create(name_, SmallGeometry());
    Map map_ = Attach(name_);
    Writer writer_ = OpenWriter(buffer_);
    uint64_t epoch_ = 1;
    uint64_t sequence_ = 0;
};

TEST_F(ShbPlace, FrameIsReadWhereItLies) {
    Reader reader = OpenReader(map_, SHB_START_OLDEST);
    Reader copier = OpenReader(map_, SHB_START_OLDEST);
    std::mt19937 random(2);  // NOLINT(cert-msc32-c,cert-msc51-cpp): every run the same
    uintptr_t lowest = UINTPTR_MAX, highest = 0;
    for (uint64_t i = 0; i < 500; i++) {
        Write(1, 1 + random() % 9000, 7);
        Borrowed got = Borrow(reader);
        ASSERT_TRUE(got.Whole()) << i;
        const ReadFrame copy = Read(copier);
        EXPECT_EQ(0, memcmp(&copy.frame, &got.frame, sizeof copy.frame));
        const auto at = reinterpret_cast<uintptr_t>(got.place);
        EXPECT_EQ(0u, at % 64);
        lowest = std::min(lowest, at);
        highest = std::max(highest, at + got.frame.size);
        EXPECT_EQ(SHB_OK, shb_reader_return(reader.get()));
    }
    EXPECT_LE(highest - lowest, 65536u) << "all of them lie in the track";
    EXPECT_GT(highest - lowest, 50000u);
    EXPECT_EQ(SHB_ERR_TIMEOUT, Borrow(reader).result);
    EXPECT_EQ(SHB_ERR_TIMEOUT, Borrow(reader, 10).result);
}

TEST_F(ShbPlace, PlaceCannotBeWritten) {
    Write(1, 100);
    Reader reader = OpenReader(map_, SHB_START_OLDEST);
    const Borrowed got = Borrow(reader);
    ASSERT_TRUE(got.Whole());
    Child vandal([&] {
        signal(SIGSEGV, [](int) { _exit(7); });
        *const_cast<volatile char *>(static_cast<const char *>(got.place)) = 1;
        return 0;
    });
    EXPECT_EQ(7, vandal.Wait());
}

TEST_F(ShbPlace, OverwrittenFrameIsTold) {
    Reader reader = OpenReader(map_, SHB_START_OLDEST);
    Write(3, 1000);
    ASSERT_TRUE(Borrow(reader).Whole());
    EXPECT_EQ(SHB_OK, shb_reader_return(reader.get()));
    ASSERT_TRUE(Borrow(reader).Whole());
    // 18 written: 2 is the oldest held, so 1 has just been taken away under the reader's eyes.
    Write(15, 1000);
    EXPECT_EQ(SHB_ERR_OVERRUN, shb_reader_return(reader.get()));
    EXPECT_EQ(1u, StatsOf(reader).frames) << "an overrun frame was not delivered";
    EXPECT_EQ(17u, StatsOf(reader).waiting) << "nor is it forgotten";
    Borrowed got = Borrow(reader);
    ASSERT_TRUE(got.Whole());
    EXPECT_EQ(2u, got.frame.sequence);
    EXPECT_EQ(1u, got.frame.lost);
    // By bytes as well: one as large as the track.
    Write(1, 65536);
    EXPECT_EQ(SHB_ERR_OVERRUN, shb_reader_return(reader.get()));
    ReadFrame copy = Read(reader);
    EXPECT_TRUE(copy.Whole());
    EXPECT_EQ(18u, copy.frame.sequence);
    EXPECT_EQ(17u, copy.frame.lost);
    const shb_reader_stats_t stats = StatsOf(reader);
    EXPECT_EQ(2u, stats.frames);
    EXPECT_EQ(17u, stats.lost);
    EXPECT_EQ(1u, stats.losses);
    EXPECT_EQ(0u, stats.waiting);
}

TEST_F(ShbPlace, LastFrameThatStillHoldsIsReturned) {
    Reader reader = OpenReader(map_, SHB_START_OLDEST);
    Write(1, 100);
    ASSERT_TRUE(Borrow(reader).Whole());
    Write(15, 100);
    EXPECT_EQ(SHB_OK, shb_reader_return(reader.get())) << "16 frames are held, the borrowed one among them";
    EXPECT_EQ(1u, Read(reader).frame.sequence);
}

TEST_F(ShbPlace, OneFrameAtATime) {
    Reader reader = OpenReader(map_, SHB_START_OLDEST);
    const void *place = nullptr;
    shb_frame_t frame;
    char byte;
    EXPECT_EQ(SHB_ERR_ARG, shb_reader_return(reader.get())) << "none is out";
    EXPECT_EQ(SHB_ERR_TIMEOUT, Borrow(reader).result);
    EXPECT_EQ(SHB_ERR_ARG, shb_reader_return(reader.get()));
    Write(2, 100);
    ASSERT_EQ(SHB_OK, Borrow(reader).result);
    EXPECT_EQ(SHB_ERR_ARG, Borrow(reader).result);
    EXPECT_EQ(SHB_ERR_ARG, shb_reader_read(reader.get(), &byte, 1, 0, &frame));
    EXPECT_EQ(SHB_ERR_ARG, shb_reader_wait(reader.get(), 0));
    EXPECT_EQ(SHB_OK, shb_reader_return(reader.get()));
    EXPECT_EQ(SHB_ERR_ARG, shb_reader_return(reader.get())) << "it has been returned";
    EXPECT_EQ(1u, Borrow(reader).frame.sequence);

    EXPECT_EQ(SHB_ERR_ARG, shb_reader_return(nullptr));
    EXPECT_EQ(SHB_ERR_ARG, shb_reader_borrow(nullptr, 0, &place, &frame));
    EXPECT_EQ(SHB_ERR_ARG, shb_reader_borrow(reader.get(), 0, nullptr, &frame));
    EXPECT_EQ(SHB_ERR_ARG, shb_reader_borrow(reader.get(), 0, &place, nullptr));
    EXPECT_EQ(SHB_ERR_ARG, shb_reader_borrow(reader.get(), -2, &place, &frame));
    EXPECT_EQ(SHB_ERR_ARG, shb_reader_wait(nullptr, 0));
    EXPECT_EQ(SHB_ERR_ARG, shb_reader_wait(reader.get(), -2));
    EXPECT_EQ(SHB_ERR_ARG, shb_reader_get_stats(nullptr, nullptr));
    EXPECT_EQ(SHB_ERR_ARG, shb_reader_get_stats(reader.get(), nullptr));
    EXPECT_EQ(SHB_ERR_ARG, shb_reader_description(reader.get(), nullptr));
}

TEST_F(ShbPlace, BorrowedFrameHasItsDescription) {
    Reader reader = OpenReader(map_, SHB_START_OLDEST);
    Write(1, 10);
    Describe(640);
    Write(1, 10);
    Describe(1280);
    Write(1, 10);
    shb_description_t description{};
    for (int width : {0, 640, 1280}) {
        ASSERT_EQ(SHB_OK, Borrow(reader).result);
        EXPECT_EQ(width == 0 ? SHB_ERR_NOT_FOUND : SHB_OK, shb_reader_description(reader.get(), &description));
        EXPECT_EQ(width, description.width);
        EXPECT_EQ(SHB_OK, shb_reader_return(reader.get()));
    }
}

TEST_F(ShbPlace, WaitingForAFrameTakesNothing) {
    Reader reader = OpenReader(map_, SHB_START_KEY);
    EXPECT_EQ(SHB_ERR_TIMEOUT, shb_reader_wait(reader.get(), 0));
    EXPECT_EQ(SHB_ERR_TIMEOUT, shb_reader_wait(reader.get(), 10));
    Write(1, 100, 5);
    Write(2, 100);
    std::thread later([&] { Write(3, 100, 5); });
    for (int i = 0; i < 3; i++)
        EXPECT_EQ(SHB_OK, shb_reader_wait(reader.get(), 60'000));
    EXPECT_EQ(0u, StatsOf(reader).frames);
    shb_description_t description;
    EXPECT_EQ(SHB_ERR_NOT_FOUND, shb_reader_description(reader.get(), &description));
    later.join();
    for (uint64_t i = 0; i < 6; i++) {
        EXPECT_EQ(SHB_OK, shb_reader_wait(reader.get(), 0));
        const ReadFrame got = Read(reader);
        EXPECT_EQ(i, got.frame.sequence);
        EXPECT_EQ(0u, got.frame.lost);
        EXPECT_TRUE(got.Whole());
    }
    EXPECT_EQ(SHB_ERR_TIMEOUT, shb_reader_wait(reader.get(), 0));
    // The end is told to who waits as well.
    writer_.reset();
    std::thread end([&] { buffer_.reset(); });
    EXPECT_EQ(SHB_ERR_CLOSED, shb_reader_wait(reader.get(), -1));
    end.join();
    EXPECT_EQ(SHB_ERR_CLOSED, Borrow(reader, -1).result);
}

TEST_F(ShbPlace, ReaderKeepsCountOfItself) {
    Reader reader = OpenReader(map_, SHB_START_OLDEST);
    uint64_t frames = 0, bytes = 0, keys = 0, lost = 0, losses = 0;
    std::mt19937 random(4);  // NOLINT(cert-msc32-c,cert-msc51-cpp): every run the same
    for (int round = 0; round < 80; round++) {
        if (round % 20 == 0 && round > 0) {
            // The last time, the end of the epoch before is lost with the beginning of the next one.
            const bool drain = round != 60;
            if (!drain)
                Write(20, 100, 5);
            for (Borrowed got; drain && (got = Borrow(reader)).result == SHB_OK;) {
                frames++;
                bytes += got.frame.size;
                keys += (got.frame.flags & SHB_FRAME_KEY) != 0;
                lost += got.frame.lost;
                losses += got.frame.lost != 0;
                ASSERT_EQ(SHB_OK, shb_reader_return(reader.get()));
            }
            EXPECT_EQ(drain, StatsOf(reader).waiting == 0);
            writer_.reset();
            writer_ = OpenWriter(buffer_);
            epoch_++;
            sequence_ = 0;
        }
        const uint64_t waiting = StatsOf(reader).waiting;
        const uint64_t written = random() % 25;
        Write(written, 1 + random() % 500, 5);
        EXPECT_EQ(waiting + written, StatsOf(reader).waiting);
        EXPECT_EQ(frames + lost + waiting + written, StatsOf(reader).offered);
        for (auto i = random() % 15; i > 0; i--) {
            const ReadFrame got = Read(reader);
            if (got.result != SHB_OK)
                break;
            frames++;
            bytes += got.frame.size;
            keys += (got.frame.flags & SHB_FRAME_KEY) != 0;
            lost += got.frame.lost;
            losses += got.frame.lost != 0;
        }
    }
    const shb_reader_stats_t stats = StatsOf(reader);
    EXPECT_EQ(frames, stats.frames);
    EXPECT_EQ(bytes, stats.bytes);
    EXPECT_EQ(keys, stats.key_frames);
    EXPECT_EQ(lost, stats.lost);
    EXPECT_EQ(losses, stats.losses);
    EXPECT_EQ(4u, stats.epochs);
    EXPECT_GT(losses, 5u);
    shb_stats_t track{};
    ASSERT_EQ(SHB_OK, shb_map_stats(map_.get(), 0, 0, SHB_VIDEO, &track));
    EXPECT_EQ(track.total_frames, stats.frames + stats.lost + stats.waiting);
}

TEST_F(ShbPlace, FrameThatComesAgainAfterASeekIsNoNewEpoch) {
    Reader reader = OpenReader(map_, SHB_START_OLDEST);
    Write(3, 100);
    for (int round = 0; round < 3; round++) {
        EXPECT_EQ(0u, Read(reader).frame.sequence);
        EXPECT_EQ(1u, StatsOf(reader).epochs);
        EXPECT_EQ(SHB_OK, shb_reader_seek(reader.get(), SHB_SEEK_OLDEST, 0));
    }
}

// ---- Descriptions ----------------------------------------------------------------------------------------------------

TEST_F(ShbPlace, ChangesBeyondTheSlotsTakeTheirFramesAway) {
    Reader reader = OpenReader(map_, SHB_START_OLDEST);
    for (int width = 1; width <= 8; width++) {
        Describe(width);
        Write(1, 10);
    }
    // All eight slots are in use. The ninth description takes the first
    // one's, and with it the frames that belong to that.
    Describe(9);
    ReadFrame got = Read(reader);
    EXPECT_EQ(1u, got.frame.sequence);
    EXPECT_EQ(1u, got.frame.lost);
    shb_description_t description{};
    ASSERT_EQ(SHB_OK, shb_reader_description(reader.get(), &description));
    EXPECT_EQ(2, description.width);
    // Descriptions without frames of their own push out those before them just the same.
    for (int width = 10; width <= 16; width++)
        Describe(width);
    Write(1, 10);
    got = Read(reader);
    EXPECT_EQ(8u, got.frame.sequence);
    EXPECT_EQ(6u, got.frame.lost);
    ASSERT_EQ(SHB_OK, shb_reader_description(reader.get(), &description));
    EXPECT_EQ(16, description.width);
    EXPECT_EQ(16u, description.serial);
}

TEST_F(ShbPlace, EveryFrameHasItsDescriptionHoweverOftenItChanges) {
    Reader reader = OpenReader(map_, SHB_START_OLDEST);
    std::mt19937 random(8);  // NOLINT(cert-msc32-c,cert-msc51-cpp): every run the same
    std::vector<int> width_of;
    int width = 0;
    uint64_t delivered = 0, lost = 0;
    int last_width = 0;
    for (int round = 0; round < 400; round++) {
        for (auto i = random() % 12; i > 0; i--) {
            if (random() % 2 == 0 || width == 0)
                Describe(++width);
            Write(1, 1 + random() % 3000);
            width_of.push_back(width);
        }
        for (auto i = random() % 12; i > 0; i--) {
            const ReadFrame got = Read(reader);
            if (got.result != SHB_OK)
                break;
            ASSERT_TRUE(got.Whole());
            delivered++;
            lost += got.frame.lost;
            ASSERT_EQ(got.frame.sequence + 1, delivered + lost);
            shb_description_t description{};
            ASSERT_EQ(SHB_OK, shb_reader_description(reader.get(), &description)) << got.frame.sequence;
            ASSERT_EQ(width_of[got.frame.sequence], description.width);
            ASSERT_EQ(static_cast<uint32_t>(description.width), description.serial);
            ASSERT_EQ(description.serial, got.frame.description);
            ASSERT_GE(description.width, last_width);
            last_width = description.width;
        }
    }
    EXPECT_GT(width, 1000);
    EXPECT_GT(lost, 100u);
    EXPECT_GT(delivered, 1000u);
}

TEST_F(ShbPlace, EveryFrameHasItsDescriptionWhileTheWriterRuns) {
    // The width is the frame's number: whoever takes the description of another frame is found out.
    constexpr uint64_t kFrames = 60'000;
    struct Tally {
        uint64_t delivered = 0, lost = 0, wrong = 0, overruns = 0;
        int last = SHB_OK;
    };
    Tally tallies[2];
    std::vector<std::thread> threads;
    for (size_t which = 0; which < 2; which++)
        threads.emplace_back([&tally = tallies[which], which, map = Attach(name_)] {
            Reader reader = OpenReader(map, SHB_START_OLDEST);
            std::vector<uint8_t> bytes(65536);
            for (;;) {
                Borrowed got;
                tally.last = which == 0 ? shb_reader_read(reader.get(), bytes.data(), bytes.size(), -1, &got.frame)
                                        : shb_reader_borrow(reader.get(), -1, &got.place, &got.frame);
                if (tally.last != SHB_OK)
                    return;
                shb_description_t description{};
                const bool right = shb_reader_description(reader.get(), &description) == SHB_OK &&
                                   static_cast<uint64_t>(description.width) == got.frame.sequence / 2 + 1;
                if (which == 1 && shb_reader_return(reader.get()) != SHB_OK) {
                    tally.overruns++;
                    continue;
                }
                tally.wrong += !right;
                tally.delivered++;
                tally.lost += got.frame.lost;
            }
        });
    for (uint64_t i = 0; i < kFrames; i++) {
        if (i % 2 == 0)
            Describe(static_cast<int>(i / 2) + 1);
        Write(1, 200);
        if (i % 16 == 0)
            std::this_thread::yield();
    }
    writer_.reset();
    buffer_.reset();
    for (auto &thread : threads)
        thread.join();
    for (const Tally &tally : tallies) {
        EXPECT_EQ(SHB_ERR_CLOSED, tally.last);
        EXPECT_EQ(0u, tally.wrong);
        EXPECT_GT(tally.delivered, 8u);
        EXPECT_LE(tally.delivered + tally.lost, kFrames);
    }
    EXPECT_GT(tallies[0].lost + tallies[1].lost, 0u);
}
