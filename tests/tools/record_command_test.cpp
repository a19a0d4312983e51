// The command record of the built tool: its flags, its lines, its failures and its end.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <ctime>
#include <filesystem>
#include <fstream>

#include "record_support.h"

namespace {

constexpr int64_t kSecond = kNsPerSecond;

bool SaysInto(const Child &child) {
    return Has(child.Err(), " into ");
}

const Media &H264() {
    static const Media media = LoadH264();
    return media;
}

const Media &Aac() {
    static const Media media = LoadAac();
    return media;
}

// Four seconds of picture and sound.
class Running : public Station {
  public:
    explicit Running(const std::string &test) : Station(test) {
        Carry(&H264(), &Aac());
        Send(0, 4 * kSecond);
    }
};

std::vector<Json> Records(const std::string &text) {
    std::vector<Json> records;
    for (const std::string &line : Lines(text)) {
        records.push_back(Json::parse(line));
    }
    return records;
}

size_t CountOf(const std::string &text, const std::string &part) {
    size_t count = 0;
    for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + part.size())) {
        ++count;
    }
    return count;
}

}  // namespace

TEST(RecordCommand, WrongCommandLinesSayWhatIsWrong) {
    const std::vector<std::pair<std::vector<std::string>, const char *>> cases{
        {{"record", "x", "x.avi"}, "\"x.avi\": the file's name has to end in .mkv, .mp4 or .ts"},
        {{"record", "x", "x"}, "\"x\": the file's name has to end in .mkv, .mp4 or .ts"},
        {{"record", "x", "-"}, "gst-source-read read NAME --format mpegts"},
        {{"record"}, "record: no file given; its name ends in .mkv, .mp4 or .ts"},
        {{"record", "x", "x.ts", "--segment", "0"}, "--segment: \"0\" is not a time above 0"},
        {{"record", "x", "x.ts", "--segment", "10x"}, "--segment: \"10x\" is not a time above 0"},
        {{"record", "x", "x.ts", "--from", "10s"}, "--from: \"10s\" is not key, newest, oldest, or how far back, such as -10s"},
        {{"record", "x", "x.ts", "--from", "-"}, "--from: \"-\" is not key"},
        {{"record", "x", "x.ts", "--duration", "nan"}, "--duration: \"nan\" is not a time above 0"},
        {{"record", "x", "x.ts", "--follow", "--no-follow"}, "--no-follow"},
        {{"record", "x", "x.ts", "--video-only", "--audio-only"}, "--audio-only"},
        {{"read", "x", "--output", "x.mp4"}, "gst-source-read record x x.mp4"},
        {{"read", "x", "--format", "mp4"}, "--format: \"mp4\" is not mpegts or mkv"},
        {{"read", "x", "--format", "mkv", "--output", "x.mkv"}, "gst-source-read record x x.mkv"},
        {{"read", "x", "--format", "mkv", "--json"}, "--json and --format both go to standard output"},
    };
    for (const auto &[arguments, message] : cases) {
        Child child(Reading(arguments));
        EXPECT_EQ(child.Wait(), 2) << message;
        EXPECT_EQ(child.Out(), "");
        EXPECT_EQ(Lines(child.Err()).size(), 1u) << child.Err();
        EXPECT_TRUE(Has(child.Err(), message)) << child.Err();
    }
    Child dump({std::getenv("GST_SOURCE_TOOL"), "udp://127.0.0.1:1", "--name", "cam", "--dump-video", "x.mp4"});
    EXPECT_EQ(dump.Wait(), 2);
    EXPECT_EQ(Lines(dump.Err()).size(), 1u) << dump.Err();
    EXPECT_TRUE(Has(dump.Err(), "gst-source-read record cam x.mp4")) << dump.Err();
}

TEST(RecordCommand, FailuresAreOneLineAndLeaveNoFile) {
    const TempDir dir;
    const Running station("failures");
    const std::string name = station.Name();
    dir.Write("there.mp4", "precious");
    std::filesystem::create_directory(dir.File("folder.mp4"));
    const std::vector<std::pair<std::vector<std::string>, std::string>> cases{
        {{"record", name + "-not", dir.File("x.mp4")}, name + "-not: no shared buffer of this name"},
        {{"record", "a/b", dir.File("x.mp4")}, "a/b: not a name that a shared buffer can have"},
        {{"record", name, dir.File("x.mp4"), "--channel", "1"}, name + " has 1 channel of 1 stream, counted from 0"},
        {{"record", name, dir.File("none/x.mp4")}, dir.File("none/x.mp4") + ": No such file or directory"},
        {{"record", name, dir.File("there.mp4")},
         dir.File("there.mp4") + ": there is such a file already; --overwrite replaces it"},
        {{"record", name, dir.File("folder.mp4"), "--overwrite"}, dir.File("folder.mp4") + ": Is a directory"},
    };
    for (const auto &[arguments, message] : cases) {
        Child child(Reading(arguments));
        EXPECT_EQ(child.Wait(), 1) << message;
        EXPECT_EQ(child.Out(), "");
        EXPECT_EQ(child.Err(), "gst-source-read: " + message + "\n");
    }
    EXPECT_EQ(ReadAll(dir.File("there.mp4")), "precious");
    EXPECT_EQ(FilesIn(dir.File("")).size(), 2u);
    if (getuid() == 0) {
        std::vector<std::string> nobody{"setpriv", "--reuid=65534", "--regid=65534", "--clear-groups"};
        std::filesystem::create_directory(dir.File("closed"));
        const auto recording = Reading({"record", name, dir.File("closed/x.mp4")});
        nobody.insert(nobody.end(), recording.begin(), recording.end());
        Child child(nobody);
        EXPECT_EQ(child.Wait(), 1);
        EXPECT_EQ(child.Err(), "gst-source-read: " + dir.File("closed/x.mp4") + ": Permission denied\n");
    }
}

TEST(RecordCommand, AFileIsReplacedOnlyWhenAsked) {
    const TempDir dir;
    Running station("replace");
    const std::string out = dir.Write("cam.mkv", std::string(10'000'000, 'x'));
    Child recorder(Recording(station, out, {"--overwrite", "--duration", "1s"}));
    EXPECT_EQ(recorder.Wait(), 0) << recorder.Err();
    EXPECT_EQ(Probe(out).video.packets.size(), 25u);
}

TEST(RecordCommand, DurationIsExact) {
    for (const std::string suffix : {"mkv", "mp4", "ts"}) {
        const TempDir dir;
        Running station("duration-" + suffix);
        const std::string out = dir.File("cam." + suffix);
        Child recorder(Recording(station, out, {"--duration", "2s"}));
        EXPECT_EQ(recorder.Wait(), 0) << recorder.Err();
        const Probed probed = Probe(out);
        EXPECT_EQ(probed.video.packets.size(), 50u);
        EXPECT_EQ(probed.audio.packets.size(), 94u);
        EXPECT_TRUE(Has(recorder.Err(), ": 1 file, 00:00:02, 50 video frames, 94 audio frames, ")) << recorder.Err();
    }
}

// What was before the command was given.
TEST(RecordLong, FromGoesBackInTime) {
    const TempDir dir;
    Station station("from");
    station.Carry(&H264(), &Aac());
    station.Send(0, kSecond);
    const auto sent = std::chrono::steady_clock::now();
    ASSERT_TRUE(WaitFor([sent] { return std::chrono::steady_clock::now() - sent > 500ms; }));
    station.Send(kSecond, 2 * kSecond);
    // The first second came at least half a second ago, the second one did not.
    Child back(Recording(station, dir.File("back.mkv"), {"--from", "-400ms"}));
    Child all(Recording(station, dir.File("all.mkv"), {"--from", "-10m"}));
    Child key(Recording(station, dir.File("key.mkv"), {"--from", "key"}));
    for (Child *child : {&back, &all, &key}) {
        ASSERT_TRUE(WaitWhileRunning(*child, [child] { return SaysInto(*child); })) << child->Err();
        child->Signal(SIGINT);
        EXPECT_EQ(child->Wait(), 0) << child->Err();
    }
    EXPECT_EQ(Probe(dir.File("all.mkv")).video.packets.size(), 50u);
    EXPECT_EQ(Probe(dir.File("key.mkv")).video.packets.size(), 25u);
    EXPECT_GE(Probe(dir.File("back.mkv")).video.packets.size(), 25u);
}

TEST(RecordCommand, NamesFollowTheTimeAndAreNeverUsedTwice) {
    const TempDir dir;
    Running station("names");
    const time_t now = std::time(nullptr);
    Child recorder(Recording(station, dir.File("%Y/cam-100%%.mkv"), {"--segment", "1s", "--duration", "3s"}),
                   {{"TZ", "Pacific/Kiritimati"}});
    EXPECT_EQ(recorder.Wait(), 0) << recorder.Err();
    setenv("TZ", "Pacific/Kiritimati", 1);
    tzset();
    tm local{};
    localtime_r(&now, &local);
    unsetenv("TZ");
    tzset();
    const std::string folder = dir.File(std::to_string(1900 + local.tm_year));
    EXPECT_EQ(FilesIn(folder),
              (std::vector<std::string>{folder + "/cam-100%-2.mkv", folder + "/cam-100%-3.mkv", folder + "/cam-100%.mkv"}));
    // A name without a pattern gets the time.
    Child plain(Recording(station, dir.File("plain.ts"), {"--segment", "2s", "--duration", "3s"}));
    EXPECT_EQ(plain.Wait(), 0) << plain.Err();
    size_t files = 0;
    for (const std::string &file : FilesIn(dir.File(""))) {
        files += Has(file, "plain-20") && file.size() == dir.File("plain-20240501-120000.ts").size() ? 1U : 0U;
    }
    EXPECT_EQ(files, 2u);
}

TEST(RecordLong, AnotherPictureSizeIsAnotherFileWhereItHasToBe) {
    const Media small = LoadH264("fake.h264");
    for (const std::string suffix : {"mkv", "mp4", "ts"}) {
        const TempDir dir;
        Station station("size-" + suffix);
        station.Carry(&H264(), &Aac());
        station.Send(0, 2 * kSecond);
        station.Carry(&small, &Aac());
        station.Send(3 * kSecond, 5 * kSecond);
        Child recorder(Recording(station, dir.File("cam." + suffix), {"--no-follow"}));
        ASSERT_TRUE(WaitWhileRunning(recorder, [&recorder] { return SaysInto(recorder); })) << recorder.Err();
        station.Close();
        ASSERT_EQ(recorder.Wait(), 0) << recorder.Err();
        EXPECT_EQ(FilesIn(dir.File("")).size(), suffix == "ts" ? 1u : 2u) << recorder.Err();
        size_t frames = 0;
        for (const std::string &file : FilesIn(dir.File(""))) {
            frames += Probe(file).video.packets.size();
            EXPECT_EQ(Decode(file), "") << file;
        }
        EXPECT_EQ(frames, station.Sent(SHB_VIDEO));
    }
}

TEST(RecordLong, AnotherSoundIsAnotherFileAtTheNextKeyFrame) {
    const Media low = LoadAac("low.aac");
    const TempDir dir;
    Station station("sound");
    station.Carry(&H264(), &Aac());
    station.Send(0, 2500 * kSecond / 1000);
    const size_t before = station.Sent(SHB_AUDIO);
    // The picture goes on as it was.
    station.CarrySound(&low);
    station.Send(2500 * kSecond / 1000, 5 * kSecond);
    Child recorder(Recording(station, dir.File("cam.mp4"), {"--no-follow"}));
    ASSERT_TRUE(WaitWhileRunning(recorder, [&recorder] { return SaysInto(recorder); })) << recorder.Err();
    station.Close();
    ASSERT_EQ(recorder.Wait(), 0) << recorder.Err();
    const Probed one = Probe(dir.File("cam.mp4"));
    const Probed two = Probe(dir.File("cam-2.mp4"));
    EXPECT_EQ(one.video.packets.size(), 75u);
    EXPECT_EQ(one.audio.packets.size(), before);
    EXPECT_EQ(two.video.packets.size(), 50u);
    EXPECT_EQ(two.audio.packets.size(), station.Sent(SHB_AUDIO) - before);
    // Its sound began before its first picture.
    EXPECT_NEAR(two.video.Times().front() - two.audio.Times().front(), 0.5, 0.06);
    EXPECT_TRUE(Has(recorder.Err(), ": the sound has another format; ")) << recorder.Err();
    EXPECT_TRUE(Has(recorder.Err(), "AAC 22050 Hz 1 ch into ")) << recorder.Err();
}

TEST(RecordLong, OneTrackAlone) {
    const TempDir dir;
    Running station("alone");
    Station silent("absent");
    silent.Carry(&H264(), nullptr);
    silent.Send(0, 4 * kSecond);
    Child video(Recording(station, dir.File("video.mp4"), {"--video-only", "--duration", "1s"}));
    Child audio(Recording(station, dir.File("audio.m4a"), {"--audio-only", "--duration", "1s"}));
    // A source without sound is not waited for.
    Child absent(Recording(silent, dir.File("absent.mkv"), {"--duration", "1s"}));
    for (Child *child : {&video, &audio, &absent}) {
        EXPECT_EQ(child->Wait(), 0) << child->Err();
    }
    EXPECT_EQ(Probe(dir.File("video.mp4")).video.packets.size(), 25u);
    EXPECT_EQ(Probe(dir.File("video.mp4")).audio.codec, "");
    EXPECT_EQ(Probe(dir.File("audio.m4a")).audio.packets.size(), 47u);
    EXPECT_EQ(Probe(dir.File("audio.m4a")).video.codec, "");
    EXPECT_EQ(Probe(dir.File("absent.mkv")).video.packets.size(), 25u);
    EXPECT_EQ(Probe(dir.File("absent.mkv")).audio.codec, "");
}

TEST(RecordCommand, ATrackThatTheSourceDoesNotHaveIsNoRecording) {
    const TempDir dir;
    Station silent("no-sound");
    silent.Carry(&H264(), nullptr);
    silent.Send(0, kSecond);
    const std::string reason = "gst-source-read: " + silent.Name() + ": the source carries no audio\n";
    Child recorder(Recording(silent, dir.File("x.m4a"), {"--audio-only"}));
    EXPECT_EQ(recorder.Wait(), 1);
    EXPECT_EQ(recorder.Err(), reason);
    Child reader(Reading({"read", silent.Name(), "--format", "mkv", "--kind", "audio"}));
    EXPECT_EQ(reader.Wait(), 1);
    EXPECT_EQ(reader.Err(), reason);
    EXPECT_TRUE(FilesIn(dir.File("")).empty());
}

// The picture goes on nowhere, and nothing of the sound can be recorded any more.
TEST(RecordCommand, EndsWithTheHostAlsoWhenNothingIsCarriedAnyMore) {
    const Media g711 = MakeG711("PCMU");
    const TempDir dir;
    Station station("not-carried");
    station.Carry(&H264(), &Aac());
    station.Send(0, 2 * kSecond);
    Child recorder(Recording(station, dir.File("x.m4a"), {"--audio-only", "--no-follow"}));
    ASSERT_TRUE(WaitWhileRunning(recorder, [&recorder] { return SaysInto(recorder); })) << recorder.Err();
    station.CarrySound(&g711);
    station.Send(2 * kSecond, 3 * kSecond);
    ASSERT_TRUE(WaitWhileRunning(recorder, [&recorder] { return Has(recorder.Err(), "; going on without it\n"); }))
        << recorder.Err();
    station.Close();
    EXPECT_EQ(recorder.Wait(), 0) << recorder.Err();
    EXPECT_GT(Probe(dir.File("x.m4a")).audio.packets.size(), 90u);
}

TEST(RecordLong, ASourceThatBringsNothingIsGivenUp) {
    const TempDir dir;
    Station station("nothing");
    station.Carry(&H264(), &Aac());
    for (const std::vector<std::string> &flags :
         std::vector<std::vector<std::string>>{{"--duration", "300ms"}, {"--timeout", "300ms"}}) {
        Child recorder(Recording(station, dir.File("x.mp4"), flags));
        EXPECT_EQ(recorder.Wait(), 1);
        ASSERT_FALSE(Lines(recorder.Err()).empty());
        EXPECT_EQ(Lines(recorder.Err()).back(), "gst-source-read: nothing arrived from " + station.Name());
    }
    EXPECT_TRUE(FilesIn(dir.File("")).empty());
    // One that has brought something is complete.
    station.Send(0, kSecond);
    Child recorder(Recording(station, dir.File("x.mp4"), {"--timeout", "1s"}));
    EXPECT_EQ(recorder.Wait(), 0) << recorder.Err();
    EXPECT_TRUE(Has(recorder.Err(), ": nothing has come for 1.00 s\n")) << recorder.Err();
    EXPECT_EQ(Probe(dir.File("x.mp4")).video.packets.size(), 25u);
}

TEST(RecordLong, AFullDiskLeavesWhatCameBefore) {
    const Running station("full");
    for (const std::string suffix : {"mkv", "mp4", "ts"}) {
        const TempDir dir;
        const std::string out = dir.File("cam." + suffix);
        std::vector<std::string> command{"prlimit", "--fsize=400000"};
        for (const std::string &word : Recording(station, out)) {
            command.push_back(word);
        }
        Child recorder(command);
        EXPECT_EQ(recorder.Wait(), 1);
        const std::vector<std::string> lines = Lines(recorder.Err());
        ASSERT_EQ(lines.size(), 3u) << recorder.Err();
        EXPECT_TRUE(Has(lines[1], out + ": File too large; it has what came before, 00:00:0")) << lines[1];
        EXPECT_TRUE(Has(lines[2], station.Name() + ": 1 file, ")) << lines[2];
        EXPECT_EQ(std::filesystem::file_size(out), 400000u);
        EXPECT_GE(Probe(out).video.packets.size(), 30u);

        // The device that is always full.
        std::filesystem::create_symlink("/dev/full", dir.File("full." + suffix));
        Child full(Recording(station, dir.File("full." + suffix), {"--overwrite"}));
        EXPECT_EQ(full.Wait(), 1);
        EXPECT_TRUE(Has(full.Err(), "full." + suffix + ": No space left on device; it has what came before, ")) << full.Err();
    }
}

TEST(RecordCommand, AMissingPluginIsNamedWithItsPackage) {
    const Running station("missing");
    const std::filesystem::path installed = std::getenv("GST_PLUGINS_DIR");
    const TempDir dir;
    std::filesystem::create_directory(dir.File("plugins"));
    for (const char *plugin : {"libgstcoreelements.so", "libgstapp.so", "libgstisomp4.so", "libgstvideoparsersbad.so"}) {
        std::filesystem::create_symlink(installed / plugin, dir.File("plugins/" + std::string(plugin)));
    }
    const auto variables = [&dir](const std::string &registry) {
        return Child::Variables{{"GST_PLUGIN_SYSTEM_PATH", dir.File("plugins")}, {"GST_REGISTRY", dir.File(registry)}};
    };
    Child muxer(Recording(station, dir.File("x.ts")), variables("one"));
    EXPECT_EQ(muxer.Wait(), 1);
    EXPECT_EQ(
        muxer.Err(),
        "gst-source-read: the GStreamer element \"mpegtsmux\" is missing; it is in the package gstreamer1.0-plugins-bad\n");
    Child parser(Recording(station, dir.File("x.mp4")), variables("one"));
    EXPECT_EQ(parser.Wait(), 1);
    EXPECT_TRUE(
        Has(parser.Err(), "the GStreamer element \"aacparse\" is missing; it is in the package gstreamer1.0-plugins-good\n"))
        << parser.Err();
    EXPECT_EQ(Lines(parser.Err()).size(), 1u) << parser.Err();
    // The tool knows where it has been built.
    auto without = variables("two");
    without["GST_PLUGIN_PATH"] = "";
    Child found(Recording(station, dir.File("x.mp4"), {"--video-only", "--duration", "1s"}), without);
    EXPECT_EQ(found.Wait(), 0) << found.Err();
}

TEST(RecordCommand, SignalsCompleteTheFile) {
    const TempDir dir;
    const Running station("signals");
    for (const int number : {SIGINT, SIGTERM, SIGHUP}) {
        const std::string out = dir.File(std::to_string(number) + ".mp4");
        Child recorder(Recording(station, out));
        ASSERT_TRUE(WaitWhileRunning(recorder, [&recorder] { return SaysInto(recorder); })) << recorder.Err();
        recorder.Signal(number);
        EXPECT_EQ(recorder.Wait(), 0) << recorder.Err();
        const Probed probed = Probe(out);
        EXPECT_EQ(probed.video.packets.size(), 100u);
        EXPECT_EQ(probed.complaints, "");
    }
}

// The host ends and comes back; a recorder goes on unless it is told not to.
TEST(RecordCommand, GoesOnWhenTheHostIsBack) {
    const TempDir dir;
    const std::string out = dir.File("cam.mkv");
    Station station("restart");
    station.Carry(&H264(), &Aac());
    station.Send(0, kSecond);
    Child recorder(Recording(station, out));
    ASSERT_TRUE(WaitWhileRunning(recorder, [&recorder] { return SaysInto(recorder); })) << recorder.Err();
    station.Close();
    const std::string gone = station.Name() + ": its host has gone; waiting for it to come back\n";
    ASSERT_TRUE(WaitWhileRunning(recorder, [&] { return Has(recorder.Err(), gone); })) << recorder.Err();
    station.Open();
    station.Carry(&H264(), &Aac());
    station.Send(10 * kSecond, 11 * kSecond);
    ASSERT_TRUE(WaitWhileRunning(recorder, [&] { return Has(recorder.Err(), station.Name() + ": its host is back\n"); }))
        << recorder.Err();
    ASSERT_TRUE(WaitWhileRunning(recorder, [&] { return std::filesystem::file_size(out) > 300'000 && station.AllRead(); }))
        << recorder.Err();
    recorder.Signal(SIGINT);
    EXPECT_EQ(recorder.Wait(), 0) << recorder.Err();
    const Probed probed = Probe(out);
    EXPECT_EQ(probed.video.packets.size(), 50u);
    EXPECT_EQ(CountOf(recorder.Err(), "has gone"), 1u) << recorder.Err();
    EXPECT_EQ(CountOf(recorder.Err(), "is back"), 1u) << recorder.Err();
}

TEST(RecordLong, FollowWaitsForABufferThatIsNotThereYet) {
    const TempDir dir;
    Station station("later");
    station.Close();
    Child recorder(Recording(station, dir.File("cam.mkv"), {"--follow", "--duration", "1s", "--timeout", "1h"}));
    ASSERT_TRUE(WaitWhileRunning(recorder, [&] {
        return Has(recorder.Err(), station.Name() + ": nothing has come yet, waiting for it\n");
    })) << recorder.Err();
    station.Open();
    station.Carry(&H264(), &Aac());
    station.Send(0, 2 * kSecond);
    EXPECT_EQ(recorder.Wait(), 0) << recorder.Err();
    EXPECT_EQ(Probe(dir.File("cam.mkv")).video.packets.size(), 25u);
}

TEST(RecordCommand, JsonHasAnObjectAFile) {
    const TempDir dir;
    const Running station("json");
    Child recorder(Recording(station, dir.File("cam.mkv"), {"--json", "--segment", "1s", "--duration", "2s"}));
    EXPECT_EQ(recorder.Wait(), 0) << recorder.Err();
    const std::vector<Json> records = Records(recorder.Out());
    ASSERT_EQ(records.size(), 3u) << recorder.Out();
    for (size_t i = 0; i < 2; ++i) {
        ExpectFields(records[i], {{"type", "file"}, {"complete", true}, {"video_frames", 25}});
        const std::string path = records[i]["path"];
        EXPECT_EQ(records[i]["bytes"], std::filesystem::file_size(path));
        EXPECT_NEAR(records[i]["duration_s"].get<double>(), 1, 0.03);
    }
    EXPECT_TRUE(records[0]["reason"].is_null());
    EXPECT_EQ(records[1]["reason"], "the next segment");
    ExpectFields(records[2], {{"type", "summary"},
                              {"name", station.Name()},
                              {"files", 2},
                              {"video_frames", 50},
                              {"audio_frames", 94},
                              {"video_lost_frames", 0},
                              {"audio_lost_frames", 0}});
}

TEST(RecordCommand, AStandardOutputThatNobodyTakesEndsItInOrder) {
    const TempDir dir;
    const Running station("json-pipe");
    Child recorder(Recording(station, dir.File("cam.mkv"), {"--json", "--segment", "1s"}), {}, Child::Output::kClosedPipe);
    EXPECT_EQ(recorder.Wait(), 256 + SIGPIPE);
    const std::vector<std::string> files = FilesIn(dir.File(""));
    ASSERT_GE(files.size(), 2u);
    for (const std::string &file : files) {
        // Without its end, it would not know.
        EXPECT_GT(Probe(file).duration, 0.9) << file;
    }
}

TEST(RecordCommandOnATerminal, ATerminalThatIsHeldHoldsUpNothing) {
    const TempDir dir;
    const std::string out = dir.File("cam.mkv");
    Running station("held");
    Child recorder(Recording(station, out), {{"TERM", "xterm"}}, Child::Output::kTerminal);
    ASSERT_TRUE(WaitWhileRunning(recorder, [&recorder] { return Has(recorder.Screen(), "video "); })) << recorder.Screen();
    constexpr const char *kHold = "\x13";
    constexpr const char *kGoOn = "\x11";
    recorder.Type(kHold);
    // A key frame every second, each of which is longer than the line is away.
    for (int second = 4; second < 8; ++second) {
        const auto before = std::filesystem::file_size(out);
        station.Send(second * kSecond, (second + 1) * kSecond);
        ASSERT_TRUE(WaitWhileRunning(recorder, [&] { return std::filesystem::file_size(out) > before + 40'000; })) << second;
        // The time of one line, at least.
        const auto begin = std::chrono::steady_clock::now();
        ASSERT_TRUE(WaitFor([&] { return std::chrono::steady_clock::now() - begin > 600ms; }));
    }
    recorder.Type(kGoOn);
    recorder.Signal(SIGINT);
    EXPECT_EQ(recorder.Wait(), 0);
    EXPECT_TRUE(Has(recorder.Screen(), ": 1 file, 00:00:08, 200 video frames")) << recorder.Screen();
}

TEST(RecordCommandOnATerminal, ProgressIsDrawnInPlace) {
    const TempDir dir;
    const Running station("screen");
    Child recorder(Recording(station, dir.File("cam.mkv")), {{"TERM", "xterm"}}, Child::Output::kTerminal);
    ASSERT_TRUE(WaitWhileRunning(recorder, [&recorder] { return Has(recorder.Screen(), "video 100  audio "); }))
        << recorder.Screen();
    recorder.Signal(SIGINT);
    EXPECT_EQ(recorder.Wait(), 0);
    EXPECT_TRUE(Has(recorder.Screen(), "lost 0  (Ctrl-C ends)")) << recorder.Screen();
    EXPECT_TRUE(Has(recorder.Screen(), ": 1 file, 00:00:04, 100 video frames")) << recorder.Screen();
    EXPECT_GT(recorder.Screen().rfind("\x1b[?25h"), recorder.Screen().rfind("\x1b[?25l")) << recorder.Screen();

    Station silent("waiting");
    silent.Carry(&H264(), &Aac());
    Child waiting(Recording(silent, dir.File("x.mkv")), {{"TERM", "xterm"}}, Child::Output::kTerminal);
    EXPECT_TRUE(WaitWhileRunning(waiting, [&waiting] {
        return Has(waiting.Screen(), ": waiting for the first picture or sound, 00:00:0");
    })) << waiting.Screen();
    waiting.Signal(SIGINT);
    EXPECT_EQ(waiting.Wait(), 1);
}

TEST(ReadMuxed, IsForPlayersBehindAPipe) {
    const Running station("pipe");
    for (const std::string format : {"mpegts", "mkv"}) {
        const TempDir dir;
        Child reader(Reading({"read", station.Name(), "--format", format, "--start", "oldest", "--frames", "50", "-"}));
        EXPECT_EQ(reader.Wait(), 0) << reader.Err();
        const std::string out = dir.Write("out", reader.Out());
        const Probed probed = Probe(out);
        EXPECT_EQ(probed.complaints, "");
        EXPECT_EQ(probed.video.packets.size(), 50u);
        EXPECT_GE(probed.audio.packets.size(), 90u);
        EXPECT_TRUE(
            Has(reader.Err(), station.Name() + ": H264 constrained-baseline level 3 636x358p 25 fps and AAC 48000 Hz 2 ch\n"))
            << reader.Err();
        EXPECT_TRUE(Has(reader.Err(), ": 00:00:02, 50 video frames, ")) << reader.Err();
    }
    Child short_of(
        Reading({"read", station.Name(), "--format", "ts", "--start", "oldest", "--frames", "1000", "--duration", "1"}));
    EXPECT_EQ(short_of.Wait(), 1);
    EXPECT_EQ(Lines(short_of.Err()).back(), "gst-source-read: the time ran out before 1000 frames had arrived");
    Child sound(Reading({"read", station.Name(), "--format", "ts", "--kind", "audio", "--start", "oldest", "--frames", "40"}));
    EXPECT_EQ(sound.Wait(), 0) << sound.Err();
    const TempDir dir;
    const Probed probed = Probe(dir.Write("out", sound.Out()));
    EXPECT_EQ(probed.video.codec, "");
    EXPECT_EQ(probed.audio.packets.size(), 40u);
}

TEST(ReadMuxed, EndsAsAPipeDoes) {
    const Running station("closed");
    Child reader(Reading({"read", station.Name(), "--format", "mpegts", "--start", "oldest"}), {}, Child::Output::kClosedPipe);
    EXPECT_EQ(reader.Wait(), 256 + SIGPIPE);
    EXPECT_FALSE(Has(reader.Err(), "ipe")) << reader.Err();
    Child terminal(Reading({"read", station.Name(), "--format", "mpegts"}), {}, Child::Output::kTerminal);
    EXPECT_EQ(terminal.Wait(), 2);
    EXPECT_TRUE(Has(terminal.Screen(), "this is not for a terminal")) << terminal.Screen();
}

TEST(ReadMuxed, AChangeThatTakesAnotherFileEndsIt) {
    const Media h265 = LoadH265();
    Station station("change");
    station.Carry(&H264(), &Aac());
    station.Send(0, 2 * kSecond);
    station.Carry(&h265, &Aac());
    station.Send(h265.length, 2 * h265.length);
    Child reader(Reading({"read", station.Name(), "--format", "mkv", "--start", "oldest"}));
    EXPECT_EQ(reader.Wait(), 1);
    EXPECT_TRUE(Has(reader.Err(), "the picture has another format, which takes another file; the output ends here\n"))
        << reader.Err();
    const TempDir dir;
    EXPECT_EQ(Probe(dir.Write("out", reader.Out())).video.packets.size(), 50u);
}
