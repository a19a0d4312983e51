// Containers by name, what their muxers carry, and the names of files.
#include "container.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <ctime>
#include <stdexcept>

#include "codec.h"
#include "container_names.h"
#include "file_names.h"
#include "options.h"
#include "temp_dir.h"

namespace {

using reader::CapsPtr;
using reader::Container;
using reader::FileNames;

CapsPtr Caps(const char *text) {
    gst_init(nullptr, nullptr);
    return CapsPtr(gst_caps_from_string(text));
}

const Container &Of(const char *name) {
    return *reader::ContainerNamed(name);
}

constexpr const char *kH264 =
    "video/x-h264,stream-format=avc,alignment=au,width=640,height=360,framerate=25/1,codec_data=(buffer)01";
constexpr const char *kAdts = "audio/mpeg,mpegversion=4,stream-format=adts,rate=48000,channels=2";

reader::ParseResult Parse(std::vector<const char *> arguments) {
    arguments.insert(arguments.begin(), "gst-source-read");
    return reader::ParseOptions(static_cast<int>(arguments.size()), arguments.data());
}

reader::Options Parsed(const std::vector<const char *> &arguments) {
    const reader::ParseResult result = Parse(arguments);
    EXPECT_TRUE(result.options) << result.err;
    return result.options.value_or(reader::Options{});
}

}  // namespace

TEST(Containers, AreFoundByTheEndOfAName) {
    for (const auto &[path, name] : std::vector<std::pair<std::string, std::string>>{{"cam.mkv", "mkv"},
                                                                                     {"/a.b/cam.x.MP4", "mp4"},
                                                                                     {"cam.m4a", "mp4"},
                                                                                     {"cam-%Y.ts", "mpegts"},
                                                                                     {"cam.m2ts", "mpegts"}}) {
        const Container *container = reader::ContainerOf(path);
        ASSERT_NE(container, nullptr) << path;
        EXPECT_EQ(container->name, name) << path;
    }
    for (const char *path : {"", "cam", ".mp4", "cam.mp4x", "cam.avi", "mp4", "cam.ts/"}) {
        EXPECT_EQ(reader::ContainerOf(path), nullptr) << path;
    }
    EXPECT_EQ(reader::ContainerNamed("ts"), reader::ContainerNamed("mpegts"));
    EXPECT_EQ(reader::ContainerNamed("avi"), nullptr);
    EXPECT_EQ(reader::KnownSuffixes(), ".mkv, .mp4 or .ts");
}

TEST(Containers, NamesThatPromiseOne) {
    EXPECT_EQ(tool::ContainerSuffix("a/cam.MOV"), ".mov");
    EXPECT_EQ(tool::ContainerSuffix("cam.ts"), ".ts");
    for (const char *path : {"cam.h264", "cam", "a.ts/cam", "-", "", "cam.aac", "cam.mp3"}) {
        EXPECT_EQ(tool::ContainerSuffix(path), "") << path;
    }
}

TEST(Containers, CarryWhatTheirMuxersTake) {
    struct Row {
        const char *caps;
        const char *name;
        const char *containers;
    };
    for (const Row &row : std::vector<Row>{
             {kH264, "H264", "MKV, MP4 or TS"},
             {"video/x-h265,stream-format=byte-stream", "H265", "MKV, MP4 or TS"},
             {kAdts, "AAC", "MKV, MP4 or TS"},
             {"audio/mpeg,mpegversion=4,stream-format=loas,rate=48000,channels=2", "AAC", ""},
             {"audio/mpeg,mpegversion=1,layer=3,rate=44100,channels=2", "MP3", "MKV, MP4 or TS"},
             {"audio/mpeg,mpegversion=1,layer=2,rate=48000,channels=2", "MP2", "MKV, MP4 or TS"},
             {"audio/x-ac3,rate=48000,channels=6", "AC3", "MKV, MP4 or TS"},
             {"audio/x-eac3,rate=48000,channels=2", "EAC3", "MKV"},
             {"audio/x-opus,rate=48000,channels=2", "OPUS", "MKV, MP4 or TS"},
             {"audio/x-vorbis,rate=44100,channels=2", "VORBIS", "MKV"},
             {"audio/x-alaw,rate=8000,channels=1", "PCMA", "MKV"},
             {"audio/x-mulaw,rate=8000,channels=1", "PCMU", "MKV"},
         }) {
        const CapsPtr caps = Caps(row.caps);
        EXPECT_EQ(reader::CodecName(caps.get()), row.name);
        EXPECT_EQ(reader::ContainersFor(caps.get()), row.containers) << row.name;
    }
}

TEST(Containers, OneFileHasOneFormatOfATrack) {
    const CapsPtr small = Caps(kH264);
    const CapsPtr large = Caps("video/x-h264,stream-format=avc,width=1280,height=720,framerate=25/1,codec_data=(buffer)02");
    const CapsPtr slow = Caps("video/x-h264,stream-format=avc,width=640,height=360,framerate=5/1,codec_data=(buffer)01");
    const CapsPtr other = Caps("video/x-h265,stream-format=hvc1,width=640,height=360,codec_data=(buffer)01");
    for (const char *name : {"mkv", "mp4"}) {
        EXPECT_FALSE(reader::SameIn(Of(name), small.get(), large.get()));
        EXPECT_TRUE(reader::SameIn(Of(name), small.get(), slow.get()));
        EXPECT_FALSE(reader::SameIn(Of(name), small.get(), other.get()));
    }
    EXPECT_TRUE(reader::SameIn(Of("ts"), small.get(), large.get()));
    EXPECT_FALSE(reader::SameIn(Of("ts"), small.get(), other.get()));
}

TEST(Containers, TracksHaveTheFormOfTheMuxer) {
    const auto form = [](const char *container, const char *caps) {
        const CapsPtr made = reader::FormIn(Of(container), Caps(caps).get());
        const gchar *text = gst_structure_get_string(gst_caps_get_structure(made.get(), 0), "stream-format");
        return std::string(text != nullptr ? text : "");
    };
    EXPECT_EQ(form("mkv", kH264), "avc");
    EXPECT_EQ(form("mp4", "video/x-h265"), "hvc1");
    EXPECT_EQ(form("ts", "video/x-h265"), "byte-stream");
    EXPECT_EQ(form("mp4", kAdts), "raw");
    EXPECT_EQ(form("ts", kAdts), "adts");
    EXPECT_EQ(form("mkv", "audio/mpeg,mpegversion=1,layer=3"), "");
}

TEST(Codecs, AreDescribedForPeople) {
    EXPECT_EQ(reader::Describe(Caps("video/x-h264,profile=high,level=(string)4.1,width=1920,height=1080,framerate=30000/1001,"
                                    "interlace-mode=interleaved")
                                   .get()),
              "H264 high level 4.1 1920x1080i 29.97 fps");
    EXPECT_EQ(reader::Describe(Caps("video/x-h265").get()), "H265 -");
    EXPECT_EQ(reader::Describe(Caps(kAdts).get()), "AAC 48000 Hz 2 ch");
    EXPECT_EQ(reader::Describe(Caps("audio/x-unheard").get()), "audio/x-unheard -");
}

TEST(Codecs, HaveOneParserEach) {
    EXPECT_STREQ(reader::ParserOf(Caps(kH264).get()).factory, "h264parse");
    EXPECT_STREQ(reader::ParserOf(Caps("audio/x-eac3").get()).factory, "ac3parse");
    EXPECT_EQ(reader::ParserOf(Caps("audio/x-alaw").get()).factory, nullptr);
    EXPECT_TRUE(reader::SameParser(Caps(kH264).get(), Caps("video/x-h264,width=1").get()));
    EXPECT_FALSE(reader::SameParser(Caps(kAdts).get(), Caps("audio/mpeg,mpegversion=1").get()));
}

TEST(FileNamesTest, MarksStandBeforeTheSuffix) {
    EXPECT_EQ(reader::WithMark("cam.mp4", "-2"), "cam-2.mp4");
    EXPECT_EQ(reader::WithMark("/a.b/cam", "-2"), "/a.b/cam-2");
    EXPECT_EQ(reader::WithMark("/a/.mp4", "-2"), "/a/.mp4-2");
}

TEST(FileNamesTest, NoNameIsUsedTwice) {
    const TempDir dir;
    FileNames names(dir.File("cam-%H.ts"), true, true);
    const time_t moment = 1'700'000'000;
    std::vector<std::string> paths(3);
    for (std::string &path : paths) {
        const int fd = names.Create(moment, path);
        EXPECT_GE(fd, 0);
        close(fd);
    }
    EXPECT_EQ(paths[1], reader::WithMark(paths[0], "-2"));
    EXPECT_EQ(paths[2], reader::WithMark(paths[0], "-3"));
}

// A recording that runs is not given up for a name.
TEST(FileNamesTest, OnlyTheFirstNameCanBeRefused) {
    const TempDir dir;
    dir.Write("cam-2.ts", "precious");
    FileNames names(dir.File("cam.ts"), false, false);
    EXPECT_NO_THROW(names.Check());
    std::string path;
    close(names.Create(0, path));
    close(names.Create(0, path));
    EXPECT_EQ(path, dir.File("cam-3.ts"));
    EXPECT_EQ(ReadAll(dir.File("cam-2.ts")), "precious");
    FileNames again(dir.File("cam.ts"), false, false);
    EXPECT_THROW(again.Check(), std::runtime_error);
    EXPECT_THROW(again.Create(0, path), std::runtime_error);
    EXPECT_THROW(FileNames(dir.File("none/cam.ts"), false, false).Check(), std::runtime_error);
    // Folders of the time are made.
    FileNames folders(dir.File("%Y/%m/cam.ts"), false, false);
    EXPECT_NO_THROW(folders.Check());
    close(folders.Create(1'700'000'000, path));
    EXPECT_EQ(path, dir.File("2023/11/cam.ts"));
}

TEST(RecordOptionsTest, PlacesAndTimes) {
    const reader::Options both = Parsed({"record", "cam", "x.mp4", "--segment", "10m", "--from", "-10s", "--duration", "1.5h"});
    EXPECT_EQ(both.command, reader::Command::kRecord);
    EXPECT_EQ(both.name, "cam");
    EXPECT_EQ(both.record.out, "x.mp4");
    constexpr int64_t kSecond = 1'000'000'000;
    EXPECT_EQ(both.record.segment, 600 * kSecond);
    EXPECT_EQ(both.record.duration, 5400 * kSecond);
    EXPECT_EQ(both.record.from, "-10000ms");
    const reader::Options one = Parsed({"record", "--from=-1500ms", "x.ts"});
    EXPECT_EQ(one.name, "");
    EXPECT_EQ(one.record.out, "x.ts");
    EXPECT_EQ(one.record.from, "-1500ms");
    EXPECT_EQ(Parsed({"record", "x.ts", "--duration", "90"}).record.duration, 90 * kSecond);
    EXPECT_EQ(Parsed({"record", "x.ts"}).record.from, "key");
    EXPECT_EQ(Parsed({"record", "x.ts", "--from", "-2m"}).record.from, "-120000ms");
    EXPECT_EQ(Parsed({"record", "x.ts", "--from", "-5"}).record.from, "-5000ms");
}

TEST(RecordOptionsTest, ReadWithAFormat) {
    const reader::Options pipe = Parsed({"read", "cam", "--format", "ts", "-"});
    EXPECT_EQ(pipe.format, "mpegts");
    EXPECT_EQ(pipe.name, "cam");
    EXPECT_EQ(pipe.output, "-");
    const reader::Options nameless = Parsed({"read", "--format", "mkv", "-"});
    EXPECT_EQ(nameless.name, "");
    EXPECT_EQ(nameless.output, "-");
    EXPECT_FALSE(nameless.kind_given);
    EXPECT_TRUE(Parsed({"read", "--format", "mkv", "--kind", "audio"}).kind_given);
}
