#include "frame_tap.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <string>
#include <thread>
#include <utility>

#include "dump.h"
#include "temp_dir.h"
#include "wait_for.h"

using namespace tool;

namespace {

class FrameTapTest : public ::testing::Test {
  protected:
    void SetUp() override {
        const std::string name = "tool-tap-test-" + std::to_string(getpid());
        shb_geometry_t geometry{};
        geometry.video_bytes = 1 << 20;
        geometry.video_frames = 64;
        geometry.channels = 2;
        ASSERT_EQ(shb_create(name.c_str(), &geometry, &m_buffer), SHB_OK);
        ASSERT_EQ(shb_attach(name.c_str(), &m_map), SHB_OK);
    }
    void TearDown() override {
        shb_detach(m_map);
        shb_writer_close(m_video);
        shb_writer_close(m_audio);
        shb_destroy(m_buffer);
    }

    void Open(shb_kind_t kind) {
        shb_writer_t *&writer = kind == SHB_VIDEO ? m_video : m_audio;
        ASSERT_EQ(shb_writer_open(m_buffer, 0, 0, kind, &writer), SHB_OK);
    }
    void Write(shb_kind_t kind, size_t size, uint32_t flags = 0) {
        shb_writer_t *writer = kind == SHB_VIDEO ? m_video : m_audio;
        const std::string frame(size, kind == SHB_VIDEO ? 'v' : 'a');
        ASSERT_EQ(shb_writer_write(writer, frame.data(), frame.size(), 0, 0, 0, flags), SHB_OK);
    }
    // What a tap reports in the place of other numbers.
    static SourceSample Report(const FrameTap &tap) {
        SourceSample sample;
        sample.video.frames = 999;
        tap.Report(sample);
        return sample;
    }

    shb_buffer_t *m_buffer = nullptr;
    shb_writer_t *m_video = nullptr;
    shb_writer_t *m_audio = nullptr;
    shb_map_t *m_map = nullptr;
    TempDir m_dir;
};

TEST_F(FrameTapTest, CountsToTheGoalAndNotFurther) {
    std::atomic<int> calls{0};
    FrameTap tap(m_map, 0, 10, [&calls] { ++calls; });
    Dump video(m_map, 0, SHB_VIDEO, m_dir.File("video"), -1, &tap);
    Dump audio(m_map, 0, SHB_AUDIO, m_dir.File("audio"), -1, &tap);
    Open(SHB_AUDIO);
    Write(SHB_AUDIO, 3);
    Open(SHB_VIDEO);
    for (size_t i = 1; i <= 25; ++i) {
        Write(SHB_VIDEO, i, i % 5 == 1 ? SHB_FRAME_KEY : 0);
        Write(SHB_AUDIO, 1);
        Write(SHB_AUDIO, 1);
    }
    ASSERT_TRUE(WaitFor([&] { return tap.Reached() && calls == 1; }));
    tap.Finish();
    video.Finish();
    audio.Finish();
    const SourceSample sample = Report(tap);
    EXPECT_EQ(sample.video.frames, 10U);
    EXPECT_EQ(sample.video.bytes, 55U);
    EXPECT_EQ(sample.video.key_frames, 2U);
    // The first frame, and two behind each picture but the tenth.
    EXPECT_EQ(sample.audio.frames, 19U);
    EXPECT_EQ(sample.audio.bytes, 21U);
    EXPECT_EQ(tap.Lost(), 0U);
    EXPECT_EQ(ReadAll(m_dir.File("video")), std::string(55, 'v'));
    EXPECT_EQ(ReadAll(m_dir.File("audio")), std::string(21, 'a'));
    TrackSample track;
    audio.Report(track);
    EXPECT_EQ(track.dumped_frames, 19U);
    EXPECT_EQ(calls, 1);
}

TEST_F(FrameTapTest, CountsThroughNewEpochs) {
    const FrameTap tap(m_map, 0, 5);
    for (int epoch = 0; epoch < 3; ++epoch) {
        Open(SHB_VIDEO);
        Write(SHB_VIDEO, 10);
        Write(SHB_VIDEO, 10);
        EXPECT_EQ(tap.Reached() && epoch < 2, false);
        shb_writer_close(m_video);
        m_video = nullptr;
    }
    ASSERT_TRUE(WaitFor([&tap] { return tap.Reached(); }));
    EXPECT_EQ(Report(tap).video.frames, 5U);
    EXPECT_EQ(Report(tap).video.bytes, 50U);
}

TEST_F(FrameTapTest, SoundCountsWhenNoVideoFollows) {
    FrameTap tap(m_map, 0, 4, nullptr, 200ms);
    Dump audio(m_map, 0, SHB_AUDIO, m_dir.File("audio"), -1, &tap);
    Open(SHB_AUDIO);
    for (int i = 0; i < 20; ++i) {
        Write(SHB_AUDIO, 2);
    }
    ASSERT_TRUE(WaitFor([&tap] { return tap.Reached(); }));
    tap.Finish();
    audio.Finish();
    EXPECT_EQ(Report(tap).video.frames, 0U);
    EXPECT_EQ(Report(tap).audio.frames, 4U);
    EXPECT_EQ(Report(tap).audio.bytes, 8U);
    EXPECT_EQ(ReadAll(m_dir.File("audio")), std::string(8, 'a'));
}

TEST_F(FrameTapTest, VideoThatIsAnnouncedIsWaitedFor) {
    FrameTap tap(m_map, 0, 2, nullptr, 1ms);
    Dump audio(m_map, 0, SHB_AUDIO, m_dir.File("audio"), -1, &tap);
    Open(SHB_VIDEO);
    Open(SHB_AUDIO);
    for (int i = 0; i < 20; ++i) {
        Write(SHB_AUDIO, 1);
    }
    // The sound is not what counts, and the dump holds the rest of it back until it is known.
    ASSERT_TRUE(WaitFor([&] {
        TrackSample track;
        audio.Report(track);
        return track.dumped_frames == 2U;
    }));
    EXPECT_FALSE(tap.Reached());
    Write(SHB_VIDEO, 1);
    ASSERT_TRUE(WaitFor([&] {
        TrackSample track;
        audio.Report(track);
        return track.dumped_frames == 20U;
    }));
    Write(SHB_VIDEO, 1);
    ASSERT_TRUE(WaitFor([&tap] { return tap.Reached(); }));
    EXPECT_EQ(Report(tap).video.frames, 2U);
    EXPECT_EQ(Report(tap).audio.frames, 20U);
}

TEST_F(FrameTapTest, AnEndBeforeTheGoalLeavesNothingOut) {
    FrameTap tap(m_map, 0, 100);
    Dump audio(m_map, 0, SHB_AUDIO, m_dir.File("audio"), -1, &tap);
    Dump video(m_map, 0, SHB_VIDEO, m_dir.File("video"), -1, &tap);
    Open(SHB_VIDEO);
    Open(SHB_AUDIO);
    Write(SHB_AUDIO, 30);
    Write(SHB_VIDEO, 20);
    Write(SHB_AUDIO, 30);
    tap.Finish();
    video.Finish();
    audio.Finish();
    EXPECT_FALSE(tap.Reached());
    EXPECT_EQ(Report(tap).video.frames, 999U) << "the buffer's own counters stay";
    EXPECT_EQ(ReadAll(m_dir.File("video")), std::string(20, 'v'));
    EXPECT_EQ(ReadAll(m_dir.File("audio")), std::string(60, 'a'));
}

TEST_F(FrameTapTest, WhatIsOverwrittenUnseenIsCountedAndNamed) {
    // The ring holds 64 frames, and the writer does not wait for anybody.
    EXPECT_TRUE(WaitFor([this] {
        const uint64_t goal = 100'000;
        FrameTap tap(m_map, 0, goal);
        Open(SHB_VIDEO);
        for (uint64_t i = 0; i < goal; ++i) {
            Write(SHB_VIDEO, 1);
        }
        EXPECT_TRUE(WaitFor([&tap] { return tap.Reached(); }));
        EXPECT_EQ(Report(tap).video.frames, goal);
        EXPECT_EQ(Report(tap).video.bytes + tap.Lost(), goal);
        shb_writer_close(std::exchange(m_video, nullptr));
        return tap.Lost() > 0;
    }));
}

TEST_F(FrameTapTest, IsExactWhileTwoWritersRun) {
    for (int round = 0; round < 20; ++round) {
        const unsigned channel = 1;
        FrameTap tap(m_map, channel, 50 + static_cast<uint64_t>(round));
        Dump video(m_map, channel, SHB_VIDEO, m_dir.File("v"), -1, &tap);
        Dump audio(m_map, channel, SHB_AUDIO, m_dir.File("a"), -1, &tap);
        std::atomic<bool> stop{false};
        std::array<std::thread, 2> threads;
        for (const shb_kind_t kind : {SHB_VIDEO, SHB_AUDIO}) {
            threads[kind] = std::thread([&, kind] {
                shb_writer_t *writer = nullptr;
                ASSERT_EQ(shb_writer_open(m_buffer, channel, 0, kind, &writer), SHB_OK);
                for (uint64_t number = 0; !stop; ++number) {
                    shb_writer_write(writer, "x", 1, 0, 0, 0, 0);
                    // The rings hold 64 frames. Once the goal is reached, they lap the dumps.
                    tap.Judge(kind, number, 20ms);
                }
                shb_writer_close(writer);
            });
        }
        EXPECT_TRUE(WaitFor([&tap] { return tap.Reached(); }));
        stop = true;
        for (std::thread &thread : threads) {
            thread.join();
        }
        tap.Finish();
        video.Finish();
        audio.Finish();
        // The writers of earlier rounds have left frames in the rings, which count as well.
        const SourceSample sample = Report(tap);
        EXPECT_EQ(sample.video.frames, 50U + static_cast<uint64_t>(round));
        TrackSample track;
        audio.Report(track);
        EXPECT_EQ(track.dumped_frames.value_or(0) + track.lost_frames.value_or(0), sample.audio.frames);
        video.Report(track);
        EXPECT_EQ(track.dumped_frames.value_or(0) + track.lost_frames.value_or(0), sample.video.frames);
    }
}

}  // namespace
