// The command record of the built tool, beside buffers of this process that carry real frames.
#include <gtest/gtest.h>

#include <cmath>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <iterator>

#include "record_support.h"

namespace {

constexpr int64_t kSecond = kNsPerSecond;
constexpr double kMs = 0.001;

bool SaysInto(const Child &child) {
    return Has(child.Err(), " into ");
}

// All that the station has sent is in the files when this returns.
void EndWith(Station &station, Child &recorder) {
    ASSERT_TRUE(WaitWhileRunning(recorder, [&recorder] { return SaysInto(recorder); })) << recorder.Err();
    station.Close();
    ASSERT_EQ(recorder.Wait(), 0) << recorder.Err();
}

const Media &H264() {
    static const Media media = LoadH264();
    return media;
}

const Media &Aac() {
    static const Media media = LoadAac();
    return media;
}

class InEachContainer : public testing::TestWithParam<std::string> {};
class LongInEachContainer : public InEachContainer {};

}  // namespace

TEST_P(InEachContainer, EveryFrameIsThereAndPlays) {
    const TempDir dir;
    const std::string out = dir.File("cam." + GetParam());
    Station station("all-" + GetParam());
    station.Carry(&H264(), &Aac());
    station.Send(0, 4 * kSecond);
    Child recorder(Recording(station, out, {"--no-follow"}));
    EndWith(station, recorder);
    const Probed probed = Probe(out);
    EXPECT_EQ(probed.complaints, "");
    EXPECT_EQ(probed.video.codec, "h264");
    EXPECT_EQ(probed.audio.codec, "aac");
    EXPECT_EQ(probed.video.packets.size(), station.Sent(SHB_VIDEO));
    EXPECT_EQ(probed.audio.packets.size(), station.Sent(SHB_AUDIO));
    EXPECT_NEAR(probed.duration, 4.0, 0.05);
    // Both began at the same moment.
    EXPECT_NEAR(probed.audio.Times().front(), probed.video.Times().front(), kMs);
    EXPECT_NEAR(probed.video.Times().back() - probed.video.Times().front(), 3.96, kMs);
    EXPECT_EQ(Decode(out), "");
    EXPECT_TRUE(Has(recorder.Err(), station.Name() + ": 1 file, 00:00:04, 100 video frames, ")) << recorder.Err();
    EXPECT_TRUE(Has(recorder.Err(), ", 0 lost\n")) << recorder.Err();
    EXPECT_FALSE(Has(recorder.Err(), "\x1b"));
    EXPECT_EQ(recorder.Out(), "");
}

// Decoding and presentation differ, and decoding begins before the first picture is shown.
TEST_P(InEachContainer, PicturesInAnotherOrderKeepTheirTimes) {
    const Media video =
        LoadMedia("reordered.ts", "tsdemux ! h264parse ! video/x-h264,stream-format=byte-stream,alignment=au", SHB_VIDEO);
    const TempDir dir;
    const std::string out = dir.File("cam." + GetParam());
    Station station("order-" + GetParam());
    station.Carry(&video, &Aac());
    station.Send(0, 4 * kSecond);
    Child recorder(Recording(station, out, {"--no-follow"}));
    EndWith(station, recorder);
    const Probed probed = Probe(out);
    EXPECT_EQ(probed.complaints, "");
    ASSERT_EQ(probed.video.packets.size(), station.Sent(SHB_VIDEO));
    for (size_t i = 0; i < probed.video.packets.size(); ++i) {
        const double sent = static_cast<double>(video.units[i].pts - video.units[0].pts) / kSecond;
        EXPECT_NEAR(probed.video.packets[i].pts - probed.video.packets[0].pts, sent, kMs) << i;
    }
    // The sound begins with the first frame that is not before the first picture.
    const double picture = static_cast<double>(video.units[0].pts) / kSecond;
    const double frame = 1024.0 / 48000;
    const double sound = std::ceil(picture / frame) * frame;
    EXPECT_NEAR(probed.audio.Times().front() - probed.video.Times().front(), sound - picture, kMs);
    EXPECT_EQ(Decode(out), "");
}

// A source that was away: the time passes in the file as well.
TEST_P(InEachContainer, OutagesKeepTheirLength) {
    const TempDir dir;
    const std::string out = dir.File("cam." + GetParam());
    Station station("gap-" + GetParam());
    station.Carry(&H264(), &Aac());
    station.Send(0, 2 * kSecond);
    station.Carry(&H264(), &Aac());
    station.Send(90 * kSecond, 92 * kSecond);
    Child recorder(Recording(station, out, {"--no-follow"}));
    EndWith(station, recorder);
    EXPECT_EQ(FilesIn(dir.File("")).size(), 1u);
    const Probed probed = Probe(out);
    EXPECT_EQ(probed.video.packets.size(), station.Sent(SHB_VIDEO));
    EXPECT_EQ(probed.audio.packets.size(), station.Sent(SHB_AUDIO));
    for (const ProbedTrack *track : {&probed.video, &probed.audio}) {
        const std::vector<double> times = track->Times();
        double longest = 0;
        for (size_t i = 1; i < times.size(); ++i) {
            longest = std::max(longest, times[i] - times[i - 1]);
        }
        EXPECT_NEAR(longest, 88, 0.05);
    }
    EXPECT_NEAR(probed.video.Times().back() - probed.video.Times().front(), 91.96, kMs);
    EXPECT_NEAR(probed.duration, 92, 0.1);
}

TEST_P(LongInEachContainer, AnotherCodecGoesIntoAnotherFile) {
    const Media h265 = LoadH265();
    const TempDir dir;
    const std::string out = dir.File("cam." + GetParam());
    Station station("codec-" + GetParam());
    station.Carry(&H264(), &Aac());
    station.Send(0, 2 * kSecond);
    const size_t before = station.Sent(SHB_VIDEO);
    station.Carry(&h265, &Aac());
    const int64_t second = h265.length;
    station.Send(second, 2 * second);
    Child recorder(Recording(station, out, {"--no-follow"}));
    EndWith(station, recorder);
    const std::string other = dir.File("cam-2." + GetParam());
    const Probed one = Probe(out);
    const Probed two = Probe(other);
    EXPECT_EQ(one.video.codec, "h264");
    EXPECT_EQ(one.video.packets.size(), before);
    EXPECT_EQ(two.video.codec, "hevc");
    EXPECT_EQ(two.video.packets.size(), station.Sent(SHB_VIDEO) - before);
    EXPECT_EQ(one.audio.packets.size() + two.audio.packets.size(), station.Sent(SHB_AUDIO));
    EXPECT_EQ(Decode(out), "");
    EXPECT_EQ(Decode(other), "");
    EXPECT_TRUE(Has(recorder.Err(), ": the picture has another format; H265 ")) << recorder.Err();
    EXPECT_TRUE(Has(recorder.Err(), " into " + other + "\n")) << recorder.Err();
}

// Killed at any time: what was written before plays.
TEST_P(InEachContainer, AKilledRecordingPlays) {
    const TempDir dir;
    const std::string out = dir.File("cam." + GetParam());
    Station station("kill-" + GetParam());
    station.Carry(&H264(), &Aac());
    station.Send(0, 3 * kSecond);
    Child recorder(Recording(station, out));
    // So much is more than picture and sound of two seconds, with what the container adds.
    size_t enough = 0;
    for (const Media *media : {&H264(), &Aac()}) {
        for (const Unit &unit : media->units) {
            enough += unit.dts < 2200 * kSecond / 1000 ? unit.bytes.size() : 0;
        }
    }
    ASSERT_TRUE(WaitWhileRunning(recorder, [&] {
        return std::filesystem::exists(out) && std::filesystem::file_size(out) > enough;
    })) << recorder.Err();
    recorder.Signal(SIGKILL);
    EXPECT_EQ(recorder.Wait(), 256 + SIGKILL);
    const Probed probed = Probe(out);
    EXPECT_GE(probed.video.packets.size(), 50u);
    EXPECT_GE(probed.audio.Times().back() - probed.audio.Times().front(), 1.5);
    if (GetParam() == "mp4") {
        EXPECT_NEAR(probed.duration, probed.video.Times().back() + 0.04, 0.1);
    }
}

TEST_P(InEachContainer, SegmentsAddUp) {
    const TempDir dir;
    Station station("segments-" + GetParam());
    station.Carry(&H264(), &Aac());
    station.Send(0, 6 * kSecond);
    Child recorder(Recording(station, dir.File("cam." + GetParam()), {"--no-follow", "--segment", "2s"}));
    EndWith(station, recorder);
    const std::vector<std::string> files = FilesIn(dir.File(""));
    ASSERT_EQ(files.size(), 3u) << recorder.Err();
    size_t video = 0;
    size_t audio = 0;
    for (const std::string &file : files) {
        const Probed probed = Probe(file);
        EXPECT_TRUE(probed.video.packets.front().key) << file;
        EXPECT_EQ(probed.video.packets.size(), 50u) << file;
        EXPECT_NEAR(probed.duration, 2, 0.05) << file;
        EXPECT_LT(probed.audio.Times().front() - probed.video.Times().front(), 0.022) << file;
        EXPECT_EQ(Decode(file), "") << file;
        video += probed.video.packets.size();
        audio += probed.audio.packets.size();
    }
    EXPECT_EQ(video, station.Sent(SHB_VIDEO));
    EXPECT_EQ(audio, station.Sent(SHB_AUDIO));
    EXPECT_TRUE(Has(recorder.Err(), ": the next segment; into ")) << recorder.Err();
    EXPECT_TRUE(Has(recorder.Err(), ": 3 files, 00:00:06, 150 video frames, ")) << recorder.Err();
}

// The sound stops, the picture goes on, and the sound comes back.
TEST_P(LongInEachContainer, SilenceOfTheSoundStopsNothing) {
    const TempDir dir;
    const std::string out = dir.File("cam." + GetParam());
    Station station("silence-" + GetParam());
    station.Carry(&H264(), &Aac());
    station.Send(0, 2 * kSecond);
    station.SendOnly(SHB_VIDEO, 2 * kSecond, 20 * kSecond);
    Child recorder(Recording(station, out, {"--no-follow"}));
    // The file grows although the sound is silent.
    size_t enough = 0;
    for (const Unit &unit : H264().units) {
        enough += 3 * unit.bytes.size();
    }
    ASSERT_TRUE(WaitWhileRunning(recorder, [&] {
        return std::filesystem::exists(out) && std::filesystem::file_size(out) > enough;
    })) << recorder.Err();
    station.Send(21 * kSecond, 24 * kSecond);
    EndWith(station, recorder);
    size_t video = 0;
    size_t audio = 0;
    for (const std::string &file : FilesIn(dir.File(""))) {
        const Probed probed = Probe(file);
        video += probed.video.packets.size();
        audio += probed.audio.packets.size();
    }
    EXPECT_EQ(video, station.Sent(SHB_VIDEO));
    EXPECT_EQ(audio, station.Sent(SHB_AUDIO));
    const bool one = GetParam() != "mp4";
    EXPECT_EQ(FilesIn(dir.File("")).size(), one ? 1u : 2u) << recorder.Err();
    if (one) {
        const Probed probed = Probe(out);
        EXPECT_NEAR(probed.audio.Times().back(), probed.video.Times().back(), 0.05);
    } else {
        EXPECT_TRUE(Has(recorder.Err(), ": the sound is back; into ")) << recorder.Err();
    }
}

INSTANTIATE_TEST_SUITE_P(RecordRun, InEachContainer, testing::Values("mkv", "mp4", "ts"),
                         [](const auto &row) { return row.param; });
INSTANTIATE_TEST_SUITE_P(RecordRun, LongInEachContainer, testing::Values("mkv", "mp4", "ts"),
                         [](const auto &row) { return row.param; });
