// One writer that never waits, four readers that read whole frames or are told what they missed.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <random>
#include <thread>

#include "shb_support.h"

using namespace shbtest;

namespace {

struct Tally {
    uint64_t read = 0;
    uint64_t lost = 0;
    uint64_t torn = 0;
    uint64_t wrong = 0;
    int last = SHB_OK;
};

// Reads until the end and checks each frame against what it must hold, and each step against the one before.
Tally ReadAll(const std::string &name, shb_start_t start, bool dawdles) {
    Tally tally;
    Map map = Attach(name);
    Reader reader = OpenReader(map, start);
    std::vector<uint8_t> bytes(65536);
    uint64_t epoch = 0, next = 0;
    for (;;) {
        shb_frame_t frame;
        tally.last = shb_reader_read(reader.get(), bytes.data(), bytes.size(), -1, &frame);
        if (tally.last != SHB_OK)
            return tally;
        const auto expected = Pattern(frame.epoch, frame.sequence, frame.size);
        tally.torn += !std::equal(expected.begin(), expected.end(), bytes.begin());
        tally.wrong += frame.pts != frame.sequence * 40;
        if (epoch == frame.epoch)
            tally.wrong += frame.sequence != next + frame.lost;
        else
            tally.wrong += frame.epoch < epoch || (epoch != 0 && frame.sequence != frame.lost - frame.lost_before);
        epoch = frame.epoch;
        next = frame.sequence + 1;
        tally.read++;
        tally.lost += frame.lost;
        if (dawdles && tally.read % 16 == 0)
            for (int i = 0; i < 20; i++)
                std::this_thread::yield();
    }
}

}  // namespace

TEST(ShbStress, FourReadersNeverGetATornFrame) {
    const std::string name = UniqueName();
    Buffer buffer = Create(name, SmallGeometry());
    ASSERT_TRUE(buffer);
    Tally tallies[4];
    std::vector<std::thread> threads;
    const shb_start_t starts[] = {SHB_START_OLDEST, SHB_START_OLDEST, SHB_START_NEWEST, SHB_START_KEY};
    for (size_t i = 0; i < 4; i++)
        threads.emplace_back([&, i] { tallies[i] = ReadAll(name, starts[i], i == 1); });
    std::mt19937 random(11);  // NOLINT(cert-msc32-c,cert-msc51-cpp): every run the same
    uint64_t written = 0;
    for (uint64_t epoch = 1; epoch <= 20; epoch++) {
        Writer writer = OpenWriter(buffer);
        ASSERT_TRUE(writer);
        for (uint64_t sequence = 0; sequence < 1500; sequence++, written++) {
            const size_t size = 1 + random() % (sequence % 20 == 0 ? 30000 : 1500);
            ASSERT_EQ(SHB_OK, WritePattern(writer, epoch, sequence, size, sequence % 20 == 0 ? uint32_t{SHB_FRAME_KEY} : 0u));
            // Now and then the readers get a chance to come up.
            if (sequence % 64 == 0)
                std::this_thread::yield();
        }
    }
    buffer.reset();
    for (auto &thread : threads)
        thread.join();
    for (const Tally &tally : tallies) {
        EXPECT_EQ(SHB_ERR_CLOSED, tally.last);
        EXPECT_EQ(0u, tally.torn);
        EXPECT_EQ(0u, tally.wrong);
        EXPECT_GT(tally.read, 20u);
        EXPECT_LE(tally.read + tally.lost, written);
        RecordProperty("read", static_cast<int>(tally.read));
        RecordProperty("lost", static_cast<int>(tally.lost));
    }
    // What makes the check worth its name: the readers were really lapped.
    EXPECT_GT(tallies[0].lost + tallies[1].lost + tallies[2].lost + tallies[3].lost, 0u);
}

TEST(ShbStress, LargeFramesAreNeverTorn) {
    // Two frames fill the track: each write takes away what the readers are
    // copying, and takes long enough for them to meet.
    shb_geometry_t geometry = SmallGeometry();
    geometry.video_bytes = 1 << 20;
    constexpr size_t kSize = 400'000;
    constexpr uint64_t kFrames = 4000;
    const auto value = [](uint64_t sequence) { return static_cast<uint8_t>(sequence % 251); };
    const std::string name = UniqueName();
    Buffer buffer = Create(name, geometry);
    ASSERT_TRUE(buffer);
    Tally tallies[2];
    std::vector<std::thread> threads;
    for (auto &tally : tallies)
        threads.emplace_back([&, map = Attach(name)] {
            Reader reader = OpenReader(map, SHB_START_OLDEST);
            std::vector<uint8_t> bytes(kSize);
            shb_frame_t frame;
            uint64_t first = 0;
            while ((tally.last = shb_reader_read(reader.get(), bytes.data(), bytes.size(), -1, &frame)) == SHB_OK) {
                tally.read++;
                tally.lost += frame.lost;
                tally.torn += bytes[0] != value(frame.sequence) || memcmp(bytes.data(), bytes.data() + 1, kSize - 1) != 0;
                /* A reader whose thread came late began with the oldest frame held then. */
                if (tally.read == 1)
                    first = frame.sequence - frame.lost;
                tally.wrong += first + tally.read + tally.lost != frame.sequence + 1;
            }
        });
    Writer writer = OpenWriter(buffer);
    for (uint64_t sequence = 0; sequence < kFrames; sequence++) {
        const std::vector<uint8_t> bytes(kSize, value(sequence));
        ASSERT_EQ(SHB_OK, shb_writer_write(writer.get(), bytes.data(), bytes.size(), 0, 0, 0, 0));
    }
    writer.reset();
    buffer.reset();
    for (auto &thread : threads)
        thread.join();
    for (const Tally &tally : tallies) {
        EXPECT_EQ(SHB_ERR_CLOSED, tally.last);
        EXPECT_EQ(0u, tally.torn);
        EXPECT_EQ(0u, tally.wrong);
    }
}
