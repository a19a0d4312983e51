// examples/recorder.c beside a buffer that is written in real time.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <filesystem>

#include "../peers/harness/Scene.h"
#include "../record/Feeder.h"

namespace peers {
namespace {

// A line that a complete file is reported with.
struct Report {
    std::string path;
    double seconds = 0;
    size_t video = 0, audio = 0, lost = 0;
};

std::vector<Report> Reports(const Process &recorder) {
    std::vector<Report> reports;
    for (const std::string &rest : recorder.Told("")) {
        const size_t colon = rest.find(": ");
        Report report;
        if (colon != std::string::npos &&
            std::sscanf(rest.c_str() + colon, ": %lf s, %zu video frames, %zu audio frames, %zu lost", &report.seconds,
                        &report.video, &report.audio, &report.lost) == 4) {
            report.path = rest.substr(0, colon);
            reports.push_back(report);
        }
    }
    return reports;
}

bool Has(const Process &process, const std::string &text) {
    return process.Output().find(text) != std::string::npos;
}

// Seconds of the material.
size_t Pictures(const Material &material, double seconds) {
    return static_cast<size_t>(static_cast<double>(material.fps) * seconds);
}

class Recorder : public testing::Test, public Scene {
  protected:
    std::vector<std::string> Command(const std::string &name, const std::string &file, const std::string &before,
                                     const std::string &after) const {
        return {std::getenv("EXAMPLE_RECORDER"), name, dir.File(file), before, after};
    }
    // It takes events when this comes back.
    std::unique_ptr<Process> StartRecorder(const std::vector<std::string> &command) {
        auto recorder = Start("recorder", command);
        EXPECT_TRUE(WaitFor([&] { return Has(*recorder, "waiting for events"); }));
        return recorder;
    }
    size_t Files() const {
        const std::filesystem::directory_iterator all(dir.Path());
        return static_cast<size_t>(std::count_if(
            begin(all), end(all), [](const auto &entry) { return entry.path().filename().string().rfind("door-", 0) == 0; }));
    }
    bool WaitReports(const Process &recorder, size_t count) const {
        return WaitFor([&] { return Reports(recorder).size() >= count; });
    }
    // What is in a file is what the feeder wrote from a key frame at least `before` ahead of the event on, until
    // `after` behind it. The event came at `event` or later, and had been taken at `taken`.
    void ExpectAround(const Material &material, const Feeder &feeder, const Report &report, nanoseconds event,
                      nanoseconds taken, nanoseconds before, nanoseconds after) {
        const RecordedFile file = ReadRecorded(report.path);
        Excerpt video, audio;
        ASSERT_TRUE(IsRecordingOf(material, file, video, audio));
        const size_t group = Pictures(material, 1);
        EXPECT_EQ(video.first % group, 0U);
        EXPECT_LE(feeder.Before(SHB_VIDEO, video.first), taken - before);
        EXPECT_GT(feeder.After(SHB_VIDEO, video.first + group), event - before);
        EXPECT_GE(feeder.Due(SHB_VIDEO, video.End()), event + after);
        EXPECT_GE(feeder.Due(SHB_AUDIO, audio.End()), event + after);
        EXPECT_GE(file.audio.packets.front().pts, file.video.packets.front().pts);
        EXPECT_EQ(report.video, video.count);
        EXPECT_EQ(report.audio, audio.count);
        EXPECT_EQ(report.lost, 0U);
        const double length = std::chrono::duration<double>(std::max(file.video.Length(), file.audio.Length())).count();
        EXPECT_NEAR(report.seconds, length, 0.05);
        EXPECT_TRUE(Decodes(report.path));
    }
};

TEST_F(Recorder, SecondsBeforeAndAfterTheEvent) {
    const Material &material = GetMaterial("h264_aac");
    const Feeder feeder(material);
    const auto recorder = StartRecorder(Command(feeder.Name(), "door.mkv", "2", "1"));
    ASSERT_TRUE(feeder.WaitFrames(SHB_VIDEO, Pictures(material, 3.2)));
    const nanoseconds event = Monotonic();
    recorder->Signal(SIGUSR1);
    ASSERT_TRUE(WaitFor([&] { return Files() == 1; })) << recorder->Output();
    const nanoseconds taken = Monotonic();
    ASSERT_TRUE(WaitReports(*recorder, 1)) << recorder->Output();
    ExpectAround(material, feeder, Reports(*recorder).front(), event, taken, seconds(2), seconds(1));
    recorder->Signal(SIGTERM);
    EXPECT_EQ(recorder->Wait(), 0);
}

TEST_F(Recorder, LinesAreEventsOneAfterTheOther) {
    const Material &material = GetMaterial("h264_aac");
    FeederOptions raw;
    raw.adts = false;
    const Feeder feeder(material, raw);
    const std::string fifo = dir.File("lines");
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    std::vector<std::string> command = {"sh", "-c", R"(exec "$@" <"$0")", fifo};
    for (const std::string &word : Command(feeder.Name(), "door.mp4", "1", "0.5")) {
        command.push_back(word);
    }
    const auto recorder = Start("recorder", command);
    const int lines = open(fifo.c_str(), O_WRONLY | O_CLOEXEC);
    ASSERT_GE(lines, 0);
    ASSERT_TRUE(feeder.WaitFrames(SHB_VIDEO, Pictures(material, 2.2)));
    for (size_t count = 1; count <= 2; ++count) {
        const nanoseconds event = Monotonic();
        EXPECT_EQ(write(lines, "event\n", 6), 6);
        ASSERT_TRUE(WaitFor([&] { return Files() == count; })) << recorder->Output();
        const nanoseconds taken = Monotonic();
        ASSERT_TRUE(WaitReports(*recorder, count)) << recorder->Output();
        ExpectAround(material, feeder, Reports(*recorder).back(), event, taken, seconds(1), milliseconds(500));
    }
    // The end of the lines is not the end of the events.
    close(lines);
    recorder->Signal(SIGUSR1);
    EXPECT_TRUE(WaitReports(*recorder, 3)) << recorder->Output();
    recorder->Signal(SIGINT);
    EXPECT_EQ(recorder->Wait(), 0);
}

TEST_F(Recorder, AnEventMeanwhileProlongs) {
    const Material &material = GetMaterial("h264_aac");
    const Feeder feeder(material);
    const auto recorder = StartRecorder(Command(feeder.Name(), "door.mkv", "0", "2"));
    ASSERT_TRUE(feeder.WaitFrames(SHB_VIDEO, Pictures(material, 1.2)));
    const nanoseconds event = Monotonic();
    recorder->Signal(SIGUSR1);
    ASSERT_TRUE(WaitFor([&] { return Files() == 1; })) << recorder->Output();
    const nanoseconds taken = Monotonic();
    ASSERT_TRUE(feeder.WaitFrames(SHB_VIDEO, feeder.Count(SHB_VIDEO) + Pictures(material, 0.8)));
    const nanoseconds later = Monotonic();
    recorder->Signal(SIGUSR1);
    ASSERT_TRUE(WaitReports(*recorder, 1)) << recorder->Output();
    EXPECT_EQ(Files(), 1U);
    ExpectAround(material, feeder, Reports(*recorder).front(), event, taken, seconds(0), seconds(2) + later - event);
}

TEST_F(Recorder, TheEndOfTheProgramCompletesTheFile) {
    const Material &material = GetMaterial("h264_aac");
    const Feeder feeder(material);
    const auto recorder = StartRecorder(Command(feeder.Name(), "door.mp4", "1", "3600"));
    ASSERT_TRUE(feeder.WaitFrames(SHB_VIDEO, Pictures(material, 2.2)));
    const nanoseconds event = Monotonic();
    recorder->Signal(SIGUSR1);
    ASSERT_TRUE(WaitFor([&] { return Files() == 1; })) << recorder->Output();
    const nanoseconds taken = Monotonic();
    ASSERT_TRUE(feeder.WaitFrames(SHB_VIDEO, feeder.Count(SHB_VIDEO) + Pictures(material, 0.5)));
    recorder->Signal(SIGINT);
    ASSERT_EQ(recorder->Wait(), 0) << recorder->Output();
    ASSERT_EQ(Reports(*recorder).size(), 1U);
    ExpectAround(material, feeder, Reports(*recorder).front(), event, taken, seconds(1), milliseconds(0));
}

TEST_F(Recorder, AnotherCodecBeginsAnotherFile) {
    const Material &first = GetMaterial("h264_aac");
    const Material &second = GetMaterial("h265_opus");
    Feeder feeder(first);
    const auto recorder = StartRecorder(Command(feeder.Name(), "door.mkv", "0", "3"));
    ASSERT_TRUE(feeder.WaitFrames(SHB_VIDEO, Pictures(first, 1.5)));
    recorder->Signal(SIGUSR1);
    ASSERT_TRUE(WaitFor([&] { return Files() == 1; })) << recorder->Output();
    feeder.Change(second);
    ASSERT_TRUE(WaitReports(*recorder, 2)) << recorder->Output();
    const auto reports = Reports(*recorder);
    Excerpt video, audio;
    ASSERT_TRUE(IsRecordingOf(first, ReadRecorded(reports[0].path), video, audio));
    ASSERT_TRUE(IsRecordingOf(second, ReadRecorded(reports[1].path), video, audio));
    EXPECT_EQ(video.first, 0U);
    for (const Report &report : reports) {
        EXPECT_EQ(report.lost, 0U);
        EXPECT_TRUE(Decodes(report.path));
    }
    EXPECT_EQ(reports[1].path.find("Z-2.mkv"), reports[1].path.size() - 7);
}

TEST_F(Recorder, ReorderedPicturesWithoutDecodingTimes) {
    const Material &material = GetMaterial("h264_mp3");
    FeederOptions options;
    options.decodingTimes = false;
    const Feeder feeder(material, options);
    for (const char *file : {"door.mkv", "door.mp4"}) {
        const auto recorder = StartRecorder(Command(feeder.Name(), file, "1", "2"));
        ASSERT_TRUE(feeder.WaitFrames(SHB_VIDEO, Pictures(material, 2.2)));
        recorder->Signal(SIGUSR1);
        ASSERT_TRUE(WaitReports(*recorder, 1)) << recorder->Output();
        const Report report = Reports(*recorder).front();
        Excerpt video, audio;
        EXPECT_TRUE(IsRecordingOf(material, ReadRecorded(report.path), video, audio));
        EXPECT_EQ(report.video, video.count);
        EXPECT_GT(video.count, Pictures(material, 2.5));
        EXPECT_TRUE(Decodes(report.path));
    }
}

TEST_F(Recorder, FramesBeforeTheirDescriptionAreLeftOut) {
    const Material &material = GetMaterial("h264_aac");
    FeederOptions options;
    options.described = false;
    const Feeder feeder(material, options);
    const auto recorder = StartRecorder(Command(feeder.Name(), "door.mkv", "60", "1"));
    ASSERT_TRUE(feeder.WaitFrames(SHB_VIDEO, Pictures(material, 1.2)));
    recorder->Signal(SIGUSR1);
    ASSERT_TRUE(WaitFor([&] { return !Reports(*recorder).empty() || Has(*recorder, "nothing arrived"); }));
    ASSERT_EQ(Reports(*recorder).size(), 1U) << recorder->Output();
    const Report report = Reports(*recorder).front();
    Excerpt video, audio;
    ASSERT_TRUE(IsRecordingOf(material, ReadRecorded(report.path), video, audio));
    EXPECT_EQ(video.first, 0U);
    EXPECT_EQ(audio.first, 0U);
    EXPECT_EQ(report.lost, 0U);
}

TEST_F(Recorder, OneKindIsEnough) {
    for (const char *name : {"h264_only", "aac_only"}) {
        const Material &material = GetMaterial(name);
        const Feeder feeder(material);
        const shb_kind_t kind = material.video == Codec::None ? SHB_AUDIO : SHB_VIDEO;
        const auto recorder = StartRecorder(Command(feeder.Name(), "door.mkv", "1", "1"));
        ASSERT_TRUE(feeder.WaitFrames(kind, 60));
        recorder->Signal(SIGUSR1);
        ASSERT_TRUE(WaitReports(*recorder, 1)) << recorder->Output();
        const Report report = Reports(*recorder).front();
        Excerpt video, audio;
        EXPECT_TRUE(IsRecordingOf(material, ReadRecorded(report.path), video, audio)) << name;
        EXPECT_GT(video.count + audio.count, 40U) << name;
        EXPECT_TRUE(Decodes(report.path));
    }
}

TEST_F(Recorder, LossesAreCounted) {
    const Material &material = GetMaterial("h264_aac");
    FeederOptions small;
    small.geometry.video_frames = 64;
    small.geometry.audio_frames = 64;
    const Feeder feeder(material, small);
    const auto recorder = StartRecorder(Command(feeder.Name(), "door.mkv", "0", "3600"));
    ASSERT_TRUE(feeder.WaitFrames(SHB_VIDEO, Pictures(material, 1.2)));
    recorder->Signal(SIGUSR1);
    ASSERT_TRUE(WaitFor([&] { return Files() == 1; })) << recorder->Output();
    recorder->Pause();
    ASSERT_TRUE(feeder.WaitFrames(SHB_VIDEO, feeder.Count(SHB_VIDEO) + 2 * small.geometry.video_frames));
    recorder->Resume();
    ASSERT_TRUE(feeder.WaitFrames(SHB_VIDEO, feeder.Count(SHB_VIDEO) + 10));
    recorder->Signal(SIGTERM);
    ASSERT_EQ(recorder->Wait(), 0) << recorder->Output();
    const Report report = Reports(*recorder).front();
    const RecordedFile file = ReadRecorded(report.path);
    size_t missing = 0;
    const RecordedFile &sent = Original(material);
    const std::pair<const RecordedStream *, const RecordedStream *> kinds[] = {{&sent.video, &file.video},
                                                                               {&sent.audio, &file.audio}};
    for (const auto &[original, recorded] : kinds) {
        const auto positions = Positions(*original, *recorded);
        ASSERT_FALSE(positions.empty());
        ASSERT_LT(*std::max_element(positions.begin(), positions.end()), original->packets.size());
        EXPECT_TRUE(std::is_sorted(positions.begin(), positions.end()));
        missing += positions.back() - positions.front() + 1 - positions.size();
    }
    EXPECT_GT(missing, 0U);
    EXPECT_EQ(report.lost, missing);
    EXPECT_TRUE(Decodes(report.path));
}

TEST_F(Recorder, AHostThatComesBackIsRecordedAtTheNextEvent) {
    const Material &material = GetMaterial("h264_aac");
    auto feeder = std::make_unique<Feeder>(material);
    FeederOptions options;
    options.name = feeder->Name();
    const auto recorder = StartRecorder(Command(options.name, "door.mkv", "0", "3600"));
    ASSERT_TRUE(feeder->WaitFrames(SHB_VIDEO, Pictures(material, 1.2)));
    recorder->Signal(SIGUSR1);
    ASSERT_TRUE(WaitFor([&] { return Files() == 1; })) << recorder->Output();
    // What the host has written is recorded to its end.
    feeder.reset();
    ASSERT_TRUE(WaitReports(*recorder, 1)) << recorder->Output();
    EXPECT_TRUE(Decodes(Reports(*recorder).front().path));
    recorder->Signal(SIGUSR1);
    ASSERT_TRUE(WaitFor([&] { return Has(*recorder, options.name + ": not found\n"); })) << recorder->Output();
    feeder = std::make_unique<Feeder>(material, options);
    ASSERT_TRUE(feeder->WaitFrames(SHB_VIDEO, Pictures(material, 0.2)));
    recorder->Signal(SIGUSR1);
    ASSERT_TRUE(WaitFor([&] { return Files() == 2; })) << recorder->Output();
    recorder->Signal(SIGTERM);
    // One event went without a recording.
    EXPECT_EQ(recorder->Wait(), 1);
    ASSERT_EQ(Reports(*recorder).size(), 2U);
    EXPECT_TRUE(Decodes(Reports(*recorder).back().path));
}

TEST_F(Recorder, FailuresAreOneLine) {
    struct Row {
        std::vector<std::string> arguments;
        const char *message;
    };
    const Row rows[] = {
        {{}, "usage: "},
        {{"camera", "door.mkv", "10"}, "usage: "},
        {{"camera", "door.mkv", "x", "10"}, "usage: "},
        {{"camera", "door.mkv", "10", "-1"}, "usage: "},
        {{"camera", "door.mkv", "10", "nan"}, "usage: "},
        {{"camera", "door", "10", "20"}, "door: no container has this ending"},
        {{"camera", "door.xyz", "10", "20"}, "door.xyz: no container has this ending"},
    };
    for (const Row &row : rows) {
        std::vector<std::string> command = {std::getenv("EXAMPLE_RECORDER")};
        command.insert(command.end(), row.arguments.begin(), row.arguments.end());
        const auto recorder = Start("recorder", command);
        EXPECT_EQ(recorder->Wait(), 2) << row.message;
        EXPECT_TRUE(Has(*recorder, row.message)) << recorder->Output();
        EXPECT_EQ(recorder->Told("").size(), 1U) << recorder->Output();
    }
}

TEST_F(Recorder, FilesThatCannotBeWrittenAreNamed) {
    const Material &material = GetMaterial("h264_pcma");
    const Feeder feeder(material);
    ASSERT_TRUE(feeder.WaitFrames(SHB_VIDEO, Pictures(material, 1.2)));
    const auto fails = [&](const std::vector<std::string> &command, const std::string &message) {
        const auto recorder = StartRecorder(command);
        recorder->Signal(SIGUSR1);
        EXPECT_TRUE(WaitFor([&] { return Has(*recorder, message); })) << recorder->Output();
        recorder->Signal(SIGTERM);
        EXPECT_EQ(recorder->Wait(), 1);
        EXPECT_TRUE(Reports(*recorder).empty());
    };
    fails(Command(feeder.Name(), "none/door.mkv", "0", "1"), ".mkv: No such file or directory\n");
    // MP4 has no A-law. Nothing is left of the attempt.
    fails(Command(feeder.Name(), "door.mp4", "0", "1"), ".mp4: Invalid argument\n");
    EXPECT_EQ(Files(), 0U);
    std::vector<std::string> full = {"sh", "-c", R"(trap '' XFSZ; ulimit -f 8; exec "$0" "$@")"};
    for (const std::string &word : Command(feeder.Name(), "door.mkv", "0", "1")) {
        full.push_back(word);
    }
    fails(full, ".mkv: File too large\n");
}

}  // namespace
}  // namespace peers
