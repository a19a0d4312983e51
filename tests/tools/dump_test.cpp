#include "dump.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <stdexcept>

#include "temp_dir.h"
#include "wait_for.h"

using namespace tool;

namespace {

class DumpTest : public ::testing::Test {
  protected:
    void SetUp() override {
        std::signal(SIGPIPE, SIG_IGN);
        const std::string name = "tool-dump-test-" + std::to_string(getpid());
        shb_geometry_t geometry{};
        geometry.video_bytes = 1 << 20;
        geometry.video_frames = 64;
        ASSERT_EQ(shb_create(name.c_str(), &geometry, &m_buffer), SHB_OK);
        ASSERT_EQ(shb_writer_open(m_buffer, 0, 0, SHB_VIDEO, &m_writer), SHB_OK);
        ASSERT_EQ(shb_attach(name.c_str(), &m_map), SHB_OK);
    }
    void TearDown() override {
        shb_detach(m_map);
        shb_writer_close(m_writer);
        shb_destroy(m_buffer);
    }

    void Write(const std::string &frame, uint32_t flags = 0) {
        ASSERT_EQ(shb_writer_write(m_writer, frame.data(), frame.size(), 0, 0, 0, flags), SHB_OK);
    }

    shb_buffer_t *m_buffer = nullptr;
    shb_writer_t *m_writer = nullptr;
    shb_map_t *m_map = nullptr;
    TempDir m_dir;
};

TEST_F(DumpTest, WritesEveryFrameAsItIs) {
    // One frame is larger than what a dump sets aside at first.
    const std::string large(600'000, 'L');
    Dump dump(m_map, 0, SHB_VIDEO, m_dir.File("video"), -1);
    Write("before ");
    Write(large);
    Write(" after", SHB_FRAME_DISCONT);
    dump.Finish();
    EXPECT_EQ(ReadAll(m_dir.File("video")), "before " + large + " after");
    EXPECT_FALSE(dump.Failed());
    EXPECT_EQ(dump.Error(), "");
    TrackSample track;
    dump.Report(track);
    EXPECT_EQ(track.dumped_frames, 3u);
    EXPECT_EQ(track.lost_frames, 0u);
    EXPECT_EQ(track.discontinuities, 1u);
}

TEST_F(DumpTest, StartsWithTheOldestFrameAndTellsWhatWasLost) {
    // The dump stops reading while the pipe is full, and the buffer holds 64 frames only.
    std::array<int, 2> ends{};
    ASSERT_EQ(pipe(ends.data()), 0);
    const Fd read_end(ends[0]);
    Fd write_end(ends[1]);
    constexpr size_t kFrames = 1000;
    constexpr size_t kSize = 4096;
    auto dump = std::make_unique<Dump>(m_map, 0, SHB_VIDEO, "-", write_end.Get());
    for (size_t i = 0; i < kFrames; ++i) {
        Write(std::string(kSize, 'x'));
    }
    size_t received = 0;
    std::thread reader([&read_end, &received] {
        std::array<char, 65536> buffer{};
        for (ssize_t got = 1; got > 0; received += static_cast<size_t>(got)) {
            got = read(read_end.Get(), buffer.data(), buffer.size());
        }
    });
    dump->Finish();
    TrackSample track;
    dump->Report(track);
    write_end = Fd();
    reader.join();
    EXPECT_GT(*track.lost_frames, 0u);
    EXPECT_EQ(*track.dumped_frames + *track.lost_frames, kFrames);
    EXPECT_EQ(received, *track.dumped_frames * kSize);
}

TEST_F(DumpTest, FullDiskEndsItWithTheReason) {
    Dump dump(m_map, 0, SHB_VIDEO, "/dev/full", -1);
    Write("frame");
    ASSERT_TRUE(WaitFor([&dump] { return dump.Failed(); }));
    EXPECT_EQ(dump.Error(), "/dev/full: No space left on device");
}

TEST_F(DumpTest, ReaderThatGoesAwayIsNoError) {
    std::array<int, 2> ends{};
    ASSERT_EQ(pipe(ends.data()), 0);
    const Fd write_end(ends[1]);
    { const Fd read_end(ends[0]); }
    Dump dump(m_map, 0, SHB_VIDEO, "-", write_end.Get());
    Write("frame");
    ASSERT_TRUE(WaitFor([&dump] { return dump.Failed(); }));
    EXPECT_EQ(dump.Error(), "");
}

TEST_F(DumpTest, ReaderThatStallsIsLeftBehind) {
    std::array<int, 2> ends{};
    ASSERT_EQ(pipe(ends.data()), 0);
    const Fd read_end(ends[0]);
    const Fd write_end(ends[1]);
    Dump dump(m_map, 0, SHB_VIDEO, "-", write_end.Get());
    Write(std::string(500'000, 'x'));
    dump.Finish();
    EXPECT_TRUE(dump.Failed());
    EXPECT_NE(dump.Error().find("nobody takes the data"), std::string::npos) << dump.Error();
}

TEST_F(DumpTest, FileThatCannotBeMade) {
    EXPECT_THROW(Dump(m_map, 0, SHB_VIDEO, "/nonexistent/file", -1), std::runtime_error);
    EXPECT_THROW(Dump(m_map, 7, SHB_VIDEO, m_dir.File("x"), -1), std::runtime_error);
}

}  // namespace
