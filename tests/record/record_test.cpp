// gst-source-read record behind real senders and servers: what is in the files is what was sent.
#include <gtest/gtest.h>

#include <unistd.h>

#include <atomic>
#include <csignal>
#include <filesystem>
#include <random>

#include "../peers/harness/PeerTest.h"
#include "Feeder.h"
#include "Recording.h"
#include "WholePart.h"

namespace peers {
namespace {

struct Row {
    const char *name;
    Protocol protocol;
    const char *material;
    const char *ending = "mkv";
};

constexpr double kSeconds = 5;

// A file holds what has been reported of it, plays, and is an excerpt of the material.
void ExpectGood(const Material &material, const Reported &reported, Excerpt &video, Excerpt &audio,
                nanoseconds slack = nanoseconds(0)) {
    SCOPED_TRACE(reported.path);
    EXPECT_TRUE(reported.complete);
    const RecordedFile file = ReadRecorded(reported.path);
    EXPECT_TRUE(IsRecordingOf(material, file, video, audio, slack));
    EXPECT_EQ(reported.video, file.video.packets.size());
    EXPECT_EQ(reported.audio, file.audio.packets.size());
    EXPECT_TRUE(Decodes(reported.path));
}

// The same of a file in whose time the source has connected once more: what was sent meanwhile is in no file.
void ExpectParts(const Material &material, const Reported &reported) {
    SCOPED_TRACE(reported.path);
    EXPECT_TRUE(reported.complete);
    const RecordedFile file = ReadRecorded(reported.path);
    const RecordedFile &original = Original(material);
    EXPECT_EQ(file.video.codec, original.video.codec);
    EXPECT_EQ(file.audio.codec, original.audio.codec);
    for (const size_t position : Positions(original.video, file.video)) {
        EXPECT_LT(position, original.video.packets.size());
    }
    EXPECT_EQ(reported.video, file.video.packets.size());
    EXPECT_EQ(reported.audio, file.audio.packets.size());
    EXPECT_GT(reported.video, 50U);
    EXPECT_TRUE(Decodes(reported.path));
}

// So many frames as a stretch of the material has, more or less what a source bends at its start, and at an end
// between reordered pictures.
void ExpectLength(const Material &material, const Reported &reported, double seconds) {
    if (material.video != Codec::None) {
        EXPECT_NEAR(static_cast<double>(reported.video), seconds * static_cast<double>(material.fps), 3);
    }
    if (material.audio != Codec::None) {
        EXPECT_NEAR(static_cast<double>(reported.audio), seconds * material.sampleRate / material.samplesPerFrame, 5);
    }
}

class Records : public testing::TestWithParam<Group<Row>> {};

TEST_P(Records, WhatIsSent) {
    SideBySide(GetParam().rows, [](const Row &row) {
        const Material &material = GetMaterial(row.material);
        Recording recording(row.protocol);
        recording.Play(material);
        ASSERT_TRUE(recording.WaitPlayed(material, 3));
        const auto recorder = recording.Record(std::string("a.") + row.ending, {"--duration", "5s"});
        ASSERT_EQ(recorder->Wait(), 0) << recorder->Output();
        const auto files = ReportedFiles(*recorder);
        ASSERT_EQ(files.size(), 1U);
        Excerpt video, audio;
        ExpectGood(material, files[0], video, audio);
        ExpectLength(material, files[0], kSeconds);
        const auto summary = Summary(*recorder);
        EXPECT_EQ(summary["video_lost_frames"], 0);
        EXPECT_EQ(summary["audio_lost_frames"], 0);
    });
}

INSTANTIATE_TEST_SUITE_P(, Records,
                         testing::Values(Group<Row>{"udp", {{"udp", Protocol::Udp, "h264_aac"}}},
                                         Group<Row>{"rtsp_reordered",
                                                    {{"rtsp_reordered", Protocol::Rtsp, "h264_bframes_aac", "mp4"}}},
                                         Group<Row>{"udp_codecs",
                                                    {{"h265_aac", Protocol::Udp, "h265_aac", "mp4"},
                                                     {"h264_mp3", Protocol::Udp, "h264_mp3", "mkv"},
                                                     {"h264_ac3", Protocol::Udp, "h264_ac3", "mkv"},
                                                     {"h264_ac3_ts", Protocol::Udp, "h264_ac3", "ts"},
                                                     {"h264_opus", Protocol::Udp, "h264_opus", "mp4"},
                                                     {"h264_aac_ts", Protocol::Udp, "h264_aac", "ts"},
                                                     {"h264_aac_mp4", Protocol::Udp, "h264_aac", "mp4"},
                                                     {"video_only", Protocol::Udp, "h264_only", "mp4"},
                                                     {"audio_only", Protocol::Udp, "aac_only", "mkv"},
                                                     {"mp3_only", Protocol::Udp, "mp3_only", "mkv"}}},
                                         Group<Row>{"rtsp_codecs",
                                                    {{"h264_aac", Protocol::Rtsp, "h264_aac", "mkv"},
                                                     {"h264_bframes_aac_mkv", Protocol::Rtsp, "h264_bframes_aac", "mkv"},
                                                     {"h264_bframes_aac_ts", Protocol::Rtsp, "h264_bframes_aac", "ts"},
                                                     {"h265_opus", Protocol::Rtsp, "h265_opus", "mkv"},
                                                     {"h265_aac", Protocol::Rtsp, "h265_aac", "ts"},
                                                     {"h264_opus", Protocol::Rtsp, "h264_opus", "mp4"},
                                                     {"video_only", Protocol::Rtsp, "h265_only", "mp4"},
                                                     {"audio_only", Protocol::Rtsp, "aac_only", "mp4"}}},
                                         Group<Row>{"srt",
                                                    {{"h264_aac", Protocol::Srt, "h264_aac", "mp4"},
                                                     {"h265_aac", Protocol::Srt, "h265_aac", "mkv"},
                                                     {"h264_mp3", Protocol::Srt, "h264_mp3", "ts"}}},
                                         Group<Row>{"rtmp",
                                                    {{"h264_aac", Protocol::Rtmp, "h264_aac", "mkv"},
                                                     {"h264_mp3", Protocol::Rtmp, "h264_mp3", "mp4"},
                                                     {"h264_bframes_aac", Protocol::Rtmp, "h264_bframes_aac", "ts"},
                                                     {"video_only", Protocol::Rtmp, "h264_only", "mkv"},
                                                     {"audio_only", Protocol::Rtmp, "aac_only", "mp4"}}},
                                         Group<Row>{"hls",
                                                    {{"h264_aac", Protocol::Hls, "h264_aac", "mp4"},
                                                     {"h264_mp3", Protocol::Hls, "h264_mp3", "mkv"},
                                                     {"h264_bframes_aac", Protocol::Hls, "h264_bframes_aac", "ts"}}}),
                         kGroupName);

// Every frame is in one file, and in one only.
TEST(RecordsSegments, OneAfterTheOther) {
    const std::vector<Row> rows = {{"udp_mkv", Protocol::Udp, "h264_aac", "mkv"},
                                   {"udp_ts", Protocol::Udp, "h264_ac3", "ts"},
                                   {"rtsp_mp4", Protocol::Rtsp, "h264_bframes_aac", "mp4"}};
    SideBySide(rows, [](const Row &row) {
        const Material &material = GetMaterial(row.material);
        Recording recording(row.protocol);
        recording.Play(material);
        ASSERT_TRUE(recording.WaitPlayed(material, 3));
        const auto recorder =
            recording.Record(std::string("%H%M%S.") + row.ending, {"--segment", "1s", "--duration", "5500ms"});
        ASSERT_EQ(recorder->Wait(), 0) << recorder->Output();
        const auto files = ReportedFiles(*recorder);
        ASSERT_GE(files.size(), 5U);
        Excerpt video, audio, before, sound_before;
        for (const Reported &file : files) {
            ExpectGood(material, file, video, audio);
            if (&file != &files.front()) {
                EXPECT_EQ(video.first, before.End()) << file.path;
                EXPECT_EQ(audio.first, sound_before.End()) << file.path;
            }
            before = video;
            sound_before = audio;
        }
    });
}

struct ChangeRow {
    const char *name;
    Protocol protocol;
    const char *first, *second;
    const char *ending;
};

TEST(RecordsChanges, AnotherCodecBeginsAnotherFile) {
    const std::vector<ChangeRow> rows = {{"udp_mkv", Protocol::Udp, "h264_aac", "h265_opus", "mkv"},
                                         {"udp_mp4", Protocol::Udp, "h265_aac", "h264_mp3", "mp4"},
                                         {"rtsp_mp4", Protocol::Rtsp, "h264_aac", "h265_opus", "mp4"}};
    SideBySide(rows, [](const ChangeRow &row) {
        const Material &first = GetMaterial(row.first);
        const Material &second = GetMaterial(row.second);
        Recording recording(row.protocol);
        recording.Play(first);
        ASSERT_TRUE(recording.WaitPlayed(first, 3));
        const auto recorder = recording.Record(std::string("a.") + row.ending, {});
        const auto begun = [&recorder](const char *file) {
            return WaitFor([&] { return recorder->Output().find(std::string(file) + ".") != std::string::npos; });
        };
        ASSERT_TRUE(begun("/a"));
        recording.StopPeer();
        recording.Play(second);
        ASSERT_TRUE(begun("/a-2")) << recorder->Output();
        ASSERT_TRUE(recording.WaitPlayed(second, 3));
        recorder->Signal(SIGINT);
        ASSERT_EQ(recorder->Wait(), 0) << recorder->Output();
        const auto files = ReportedFiles(*recorder);
        ASSERT_EQ(files.size(), 2U) << recorder->Output();
        Excerpt video, audio;
        ExpectGood(first, files[0], video, audio);
        // The source may find out later that the sound is another one as well, and connects again for it.
        const std::string output = recorder->Output();
        if (output.find("connected again", output.find("/a-2.")) != std::string::npos) {
            ExpectParts(second, files[1]);
        } else {
            // It is still finding its peer's clock then.
            ExpectGood(second, files[1], video, audio, milliseconds(40));
        }
    });
}

// ---- Killed at any moment -------------------------------------------------------------------------------------------

struct Kill {
    std::string name;
    const char *ending;
    milliseconds moment;  // behind the first frame that is in a file
};

std::vector<Kill> Kills(size_t count, unsigned seed) {
    std::mt19937 random(seed);
    const char *const endings[] = {"mp4", "mkv", "ts"};
    std::vector<Kill> kills;
    for (size_t i = 0; i < count; ++i) {
        const milliseconds moment(std::uniform_int_distribution<int>(0, 3500)(random));
        kills.push_back({std::to_string(moment.count()) + " ms, " + endings[i % 3], endings[i % 3], moment});
    }
    return kills;
}

std::vector<std::string> RecordedFiles(const Scene &scene, const std::string &ending) {
    std::vector<std::string> files;
    for (const auto &entry : std::filesystem::directory_iterator(scene.dir.Path())) {
        if (entry.path().extension() == "." + ending) {
            files.push_back(entry.path());
        }
    }
    std::sort(files.begin(), files.end());
    return files;
}

void WaitUntil(nanoseconds moment) {
    EXPECT_TRUE(WaitFor([&] { return Monotonic() >= moment; }));
}

// When the recorder has begun to write.
nanoseconds WaitBegun(const Scene &scene, const Process &recorder, const std::string &ending) {
    EXPECT_TRUE(WaitFor([&] {
        const auto files = RecordedFiles(scene, ending);
        return !files.empty() && std::filesystem::file_size(files.front()) > 0;
    })) << recorder.Output();
    return Monotonic();
}

// What stands in a file that was not completed plays as far as it is whole, and a player finds no less in the file
// itself. Returns how many of the material's pictures that are.
size_t ExpectWholePart(const Material &material, const Scene &scene, const std::string &path) {
    SCOPED_TRACE(path);
    const std::string whole = scene.dir.File("whole-" + std::filesystem::path(path).filename().string());
    if (!CopyWholePart(path, whole)) {
        return 0;
    }
    const RecordedFile part = ReadRecorded(whole);
    const RecordedFile all = ReadRecorded(path);
    EXPECT_TRUE(Decodes(whole));
    EXPECT_GE(all.video.packets.size(), part.video.packets.size());
    EXPECT_GE(all.audio.packets.size(), part.audio.packets.size());
    Excerpt excerpt;
    EXPECT_TRUE(IsExcerpt(Original(material).video, part.video, excerpt));
    EXPECT_TRUE(IsExcerpt(Original(material).audio, part.audio, excerpt));
    return part.video.packets.size();
}

void KillRecorder(const Kill &kill) {
    const Material &material = GetMaterial("h264_bframes_aac");
    Scene scene;
    const Feeder feeder(material);
    ASSERT_TRUE(feeder.WaitFrames(SHB_VIDEO, 30));
    const auto recorder =
        scene.Start("record", {ReadTool(), "record", feeder.Name(), scene.dir.File(std::string("%H%M%S.") + kill.ending),
                               "--segment", "1s", "--json"});
    WaitUntil(WaitBegun(scene, *recorder, kill.ending) + kill.moment);
    recorder->Kill();
    const auto reported = ReportedFiles(*recorder);
    Excerpt video, audio;
    size_t pictures = 0;
    for (const std::string &path : RecordedFiles(scene, kill.ending)) {
        const auto complete =
            std::find_if(reported.begin(), reported.end(), [&path](const Reported &file) { return file.path == path; });
        if (complete != reported.end()) {
            ExpectGood(material, *complete, video, audio);
            pictures += video.count;
        } else {
            pictures += ExpectWholePart(material, scene, path);
        }
    }
    // No more than the fragment that was being written is missing, and what was on its way.
    if (kill.moment >= seconds(3)) {
        EXPECT_GT(pictures, 25U);
    }
}

TEST(KilledRecorder, OnceLeavesWhatPlays) {
    KillRecorder(Kills(1, 2).front());
}

TEST(KilledRecorder, AtAnyMomentLeavesWhatPlays) {
    const auto kills = Kills(25, 1);
    for (size_t i = 0; i < kills.size(); i += 5) {
        SideBySide(std::vector<Kill>(kills.begin() + static_cast<std::ptrdiff_t>(i),
                                     kills.begin() + static_cast<std::ptrdiff_t>(i + 5)),
                   KillRecorder);
    }
}

// The recorder notices, and completes its file.
void KillHost(const Kill &kill) {
    const Material &material = GetMaterial("h264_bframes_aac");
    Scene scene;
    static std::atomic<int> counter{0};
    const std::string name = "killed-" + std::to_string(getpid()) + "-" + std::to_string(counter++);
    const auto host = scene.Start("host", {std::getenv("RECORD_FEEDER"), name, "h264_bframes_aac"});
    const auto recorder = scene.Start(
        "record", {ReadTool(), "record", name, scene.dir.File(std::string("a.") + kill.ending), "--follow", "--json"});
    WaitUntil(WaitBegun(scene, *recorder, kill.ending) + kill.moment);
    host->Kill();
    EXPECT_TRUE(WaitFor([&] { return recorder->Output().find("has gone") != std::string::npos; })) << recorder->Output();
    recorder->Signal(SIGINT);
    EXPECT_EQ(recorder->Wait(), 0) << recorder->Output();
    shb_remove(name.c_str(), 1);
    const auto files = ReportedFiles(*recorder);
    ASSERT_EQ(files.size(), 1U);
    Excerpt video, audio;
    ExpectGood(material, files[0], video, audio);
    EXPECT_EQ(video.first, 0U);
}

TEST(KilledHost, AtAnyMomentLeavesACompleteFile) {
    const auto kills = Kills(25, 3);
    for (size_t i = 0; i < kills.size(); i += 5) {
        SideBySide(std::vector<Kill>(kills.begin() + static_cast<std::ptrdiff_t>(i),
                                     kills.begin() + static_cast<std::ptrdiff_t>(i + 5)),
                   KillHost);
    }
}

}  // namespace
}  // namespace peers
