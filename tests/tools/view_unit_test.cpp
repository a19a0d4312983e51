// The parts of gst-source-read that need no buffer: command lines, packages, sizes, files, key pictures.
#include <gst/pbutils/pbutils.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>

#include "field_stream.h"
#include "key_picture.h"
#include "live_track.h"
#include "options.h"
#include "packages.h"
#include "picture_file.h"
#include "square.h"
#include "temp_dir.h"
#include "words.h"

namespace {

reader::ParseResult Parse(const std::string &line) {
    const std::vector<std::string> words = Words("gst-source-read " + line);
    std::vector<const char *> argv;
    argv.reserve(words.size());
    for (const std::string &word : words) {
        argv.push_back(word.c_str());
    }
    return reader::ParseOptions(static_cast<int>(argv.size()), argv.data());
}

reader::Options Good(const std::string &line) {
    const reader::ParseResult result = Parse(line);
    EXPECT_TRUE(result.options) << result.err;
    return result.options.value_or(reader::Options());
}

// Every refusal is one line and exit code 2.
std::string Refusal(const std::string &line) {
    const reader::ParseResult result = Parse(line);
    EXPECT_FALSE(result.options) << line;
    EXPECT_EQ(result.exit_code, 2) << line;
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(std::count(result.err.begin(), result.err.end(), '\n'), 1) << result.err;
    EXPECT_EQ(result.err.rfind("gst-source-read: ", 0), 0U) << result.err;
    return result.err;
}

std::string Material(const std::string &file) {
    const char *folder = std::getenv("SHBSINK_MATERIALS");
    return std::string(folder != nullptr ? folder : "") + "/" + file;
}

// How many access units a picture takes from unit `first` on.
size_t Taken(const std::vector<std::string> &units, size_t first, reader::VideoCodec codec, bool *refreshed = nullptr) {
    reader::KeyPicture picture(codec);
    for (size_t i = first; i < units.size(); ++i) {
        if (picture.Add(units[i])) {
            if (refreshed != nullptr) {
                *refreshed = picture.IsRefreshed();
            }
            return i - first + 1;
        }
    }
    return 0;
}

class Framework : public testing::Environment {
  public:
    void SetUp() override { gst_init(nullptr, nullptr); }
};
const auto *const framework = testing::AddGlobalTestEnvironment(new Framework);  // NOLINT(cert-err58-cpp)

}  // namespace

TEST(ViewOptions, Play) {
    const reader::Options plain = Good("play camera");
    EXPECT_EQ(plain.command, reader::Command::kPlay);
    EXPECT_EQ(plain.name, "camera");
    EXPECT_TRUE(plain.view.sound);
    EXPECT_FALSE(plain.follow);
    EXPECT_EQ(Good("play").name, "");
    const reader::Options all = Good("play --no-audio camera --channel 3 --stream 1 --follow");
    EXPECT_FALSE(all.view.sound);
    EXPECT_TRUE(all.follow);
    EXPECT_EQ(all.channel, 3U);
    EXPECT_EQ(all.stream, 1U);
    EXPECT_NE(Refusal("play camera --channel -1").find("--channel: \"-1\" is not a whole number from 0"), std::string::npos);
    EXPECT_NE(Refusal("play camera --stream 2147483648").find("--stream"), std::string::npos);
    EXPECT_NE(Refusal("play camera more").find("more"), std::string::npos);
    EXPECT_NE(Refusal("play camera --timeout 3").find("--timeout"), std::string::npos);
}

TEST(ViewOptions, SlipsAreGuessed) {
    EXPECT_EQ(Refusal("recrod cam out.mkv --segment 5m"),
              "gst-source-read: \"recrod\" is not a command; did you mean record?\n");
    EXPECT_EQ(Refusal("xyzzy"), "gst-source-read: \"xyzzy\" is not a command; gst-source-read --help says more\n");
    EXPECT_EQ(Refusal("record cam out.mkv --segmnt 5m"), "gst-source-read: unknown option --segmnt; did you mean --segment?\n");
    EXPECT_EQ(Refusal("list --segment 5m"), "gst-source-read: unknown option --segment\n");
    EXPECT_EQ(Refusal("list more"), "gst-source-read: unexpected argument \"more\"\n");
    EXPECT_EQ(Refusal("read --kind vidoe"), "gst-source-read: --kind: \"vidoe\" is not video or audio; did you mean video?\n");
    EXPECT_NE(Refusal("read --format mpegt").find("; did you mean mpegts?"), std::string::npos);
    EXPECT_NE(Refusal("record cam out.mkv --from oldset").find("; did you mean oldest?"), std::string::npos);
}

TEST(ViewOptions, Snapshot) {
    const reader::Options plain = Good("snapshot camera picture.jpg");
    EXPECT_EQ(plain.command, reader::Command::kSnapshot);
    EXPECT_EQ(plain.name, "camera");
    EXPECT_EQ(plain.output, "picture.jpg");
    EXPECT_EQ(plain.view.format, reader::PictureFormat::kJpeg);
    EXPECT_EQ(plain.view.timeout, 10);
    EXPECT_EQ(plain.view.width, 0);
    const reader::Options all = Good("snapshot camera --timeout 0.5 A.PNG --channel 3 --stream 1 --width 320");
    EXPECT_EQ(all.view.width, 320);
    EXPECT_EQ(all.view.format, reader::PictureFormat::kPng);
    EXPECT_EQ(all.view.timeout, 0.5);
    EXPECT_EQ(all.channel, 3U);
    EXPECT_EQ(all.stream, 1U);
    EXPECT_EQ(Good("snapshot camera a.jpeg").view.format, reader::PictureFormat::kJpeg);
    EXPECT_EQ(Good("snapshot camera -").output, "-");
    EXPECT_EQ(Good("snapshot camera -").view.format, reader::PictureFormat::kJpeg);
    EXPECT_EQ(Refusal("snapshot"), "gst-source-read: snapshot: no NAME given\n");
    EXPECT_EQ(Refusal("snapshot camera"), "gst-source-read: snapshot: no OUT given, such as picture.jpg\n");
    for (const char *name : {"a.gif", ".jpg", "png", "a.jpg/"}) {
        EXPECT_EQ(Refusal(std::string("snapshot camera ") + name),
                  std::string("gst-source-read: snapshot: \"") + name + "\" ends neither in .jpg nor in .png\n");
    }
    EXPECT_NE(Refusal("snapshot camera a.jpg --timeout nan").find("--timeout"), std::string::npos);
}

TEST(ViewPackages, AreThoseOfTheElement) {
    EXPECT_EQ(reader::MissingElement("jpegenc"),
              "the GStreamer element \"jpegenc\" is missing; it is in the package gstreamer1.0-plugins-good");
    EXPECT_EQ(reader::MissingElement("ximagesink"),
              "the GStreamer element \"ximagesink\" is missing; it is in the package gstreamer1.0-x");
    EXPECT_EQ(reader::MissingElement("nobody"), "the GStreamer element \"nobody\" is missing");
}

TEST(ViewPackages, AreThoseOfTheCodec) {
    const std::vector<std::pair<const char *, const char *>> cases{
        {"video/x-h264, profile=high", "H.264 needs a decoder: apt install gstreamer1.0-libav"},
        {"video/x-h265", "H.265 needs a decoder: apt install gstreamer1.0-libav"},
        {"audio/mpeg, mpegversion=4, rate=48000", "AAC needs a decoder: apt install gstreamer1.0-libav"},
        {"audio/mpeg, mpegversion=1, layer=3", "MPEG audio needs a decoder: apt install gstreamer1.0-plugins-good"},
        {"audio/x-opus", "Opus needs a decoder: apt install gstreamer1.0-plugins-base"},
        {"audio/x-alaw", "G.711 A-law needs a decoder: apt install gstreamer1.0-plugins-good"},
        {"video/x-unheard-of", "video/x-unheard-of needs a decoder that is not installed"},
    };
    const reader::ElementPtr element(
        static_cast<GstElement *>(gst_object_ref_sink(gst_element_factory_make("fakesink", nullptr))));
    for (const auto &[text, expected] : cases) {
        const reader::CapsPtr caps(gst_caps_from_string(text));
        EXPECT_EQ(reader::MissingDecoder(caps.get()), expected);
        // As decodebin says it.
        const reader::MessagePtr message(gst_missing_decoder_message_new(element.get(), caps.get()));
        EXPECT_EQ(reader::MissingPart(message.get()), expected);
    }
    const reader::MessagePtr missing(gst_missing_element_message_new(element.get(), "h264parse"));
    EXPECT_EQ(reader::MissingPart(missing.get()), reader::MissingElement("h264parse"));
    const reader::MessagePtr other(gst_message_new_element(GST_OBJECT(element.get()), gst_structure_new_empty("shbsrc-lost")));
    EXPECT_EQ(reader::MissingPart(other.get()), "");
}

// An element that the table names and this machine has is in the package that the table says.
TEST(ViewPackages, AreThoseThatDebianHas) {
    for (const char *factory : {"appsink", "appsrc", "audioconvert", "audioresample", "decodebin", "videoconvert", "videoscale",
                                "autoaudiosink", "deinterlace", "jpegenc", "pngenc", "h264parse", "h265parse", "ximagesink"}) {
        const reader::FactoryPtr found(gst_element_factory_find(factory));
        ASSERT_TRUE(found) << factory;
        const std::unique_ptr<GstPlugin, reader::UnrefObject> plugin(
            gst_plugin_feature_get_plugin(GST_PLUGIN_FEATURE(found.get())));
        ASSERT_TRUE(plugin) << factory;
        const TempDir dir;
        const std::string said = dir.File("said");
        const std::string command = "dpkg-query -S '*" +
                                    std::filesystem::path(gst_plugin_get_filename(plugin.get())).filename().string() + "' >'" +
                                    said + "' 2>/dev/null";
        ASSERT_EQ(std::system(command.c_str()), 0) << factory;
        const std::string owner = ReadAll(said).substr(0, ReadAll(said).find(':'));
        EXPECT_EQ(reader::MissingElement(factory),
                  std::string("the GStreamer element \"") + factory + "\" is missing; it is in the package " + owner);
    }
}

TEST(SquarePixels, AWidthKeepsTheShape) {
    const auto narrowed = [](int width, int height, int most) {
        const reader::PictureSize made = reader::NoWiderThan({width, height}, most);
        return std::make_pair(made.width, made.height);
    };
    EXPECT_EQ(narrowed(1920, 1080, 480), std::make_pair(480, 270));
    EXPECT_EQ(narrowed(768, 576, 500), std::make_pair(500, 375));
    EXPECT_EQ(narrowed(1920, 1080, 0), std::make_pair(1920, 1080));
    EXPECT_EQ(narrowed(320, 240, 480), std::make_pair(320, 240));
    EXPECT_EQ(narrowed(16384, 2, 1), std::make_pair(1, 1));
}

TEST(ViewSquare, TheWidthFollowsTheShapeOfThePixels) {
    const auto size = [](int width, int height, int n, int d) {
        const reader::PictureSize made = reader::SquarePixels({width, height}, n, d);
        return std::pair(made.width, made.height);
    };
    EXPECT_EQ(size(1920, 1080, 1, 1), std::pair(1920, 1080));
    EXPECT_EQ(size(720, 576, 16, 15), std::pair(768, 576));
    EXPECT_EQ(size(720, 480, 8, 9), std::pair(640, 480));
    EXPECT_EQ(size(720, 576, 64, 45), std::pair(1024, 576));
    EXPECT_EQ(size(1440, 1080, 4, 3), std::pair(1920, 1080));
    EXPECT_EQ(size(1, 1, 1, 3), std::pair(1, 1));
    // No camera has these, but a stream can say so.
    EXPECT_EQ(size(1920, 1080, 65535, 1), std::pair(1920, 1080));
    EXPECT_EQ(size(1920, 1080, 1, 65535), std::pair(1920, 1080));
    EXPECT_EQ(size(1920, 1080, 0, 1), std::pair(1920, 1080));
    EXPECT_EQ(size(1920, 1080, 1, 0), std::pair(1920, 1080));
    EXPECT_EQ(size(8192, 4320, 4, 1), std::pair(8192, 4320));
}

TEST(ViewPictureFile, IsThereWholeOrNotAtAll) {
    const TempDir dir;
    const std::string path = dir.File("a.jpg");
    const auto count = [&dir] {
        return std::distance(std::filesystem::directory_iterator(dir.File(".")), std::filesystem::directory_iterator());
    };
    {
        const reader::PictureFile unfinished(path);
        EXPECT_EQ(count(), 1);
        EXPECT_TRUE(std::filesystem::exists(path + ".part-" + std::to_string(getpid())));
        const reader::PictureFile other(path);
        EXPECT_EQ(count(), 2);
    }
    EXPECT_EQ(count(), 0);
    reader::PictureFile file(path);
    file.Finish("picture");
    EXPECT_EQ(ReadAll(path), "picture");
    EXPECT_EQ(count(), 1);
    { const reader::PictureFile unfinished(path); }
    EXPECT_EQ(ReadAll(path), "picture");
    reader::PictureFile again(path);
    again.Finish("another");
    EXPECT_EQ(ReadAll(path), "another");
    EXPECT_EQ(count(), 1);
    struct stat made {};
    ASSERT_EQ(stat(path.c_str(), &made), 0);
    const mode_t mask = umask(0);
    umask(mask);
    EXPECT_EQ(made.st_mode & 0777, 0666 & ~mask);
}

TEST(ViewPictureFile, TakesThePlaceOfNothingButAFile) {
    const TempDir dir;
    ASSERT_EQ(mkfifo(dir.File("pipe.jpg").c_str(), 0600), 0);
    EXPECT_THROW(reader::PictureFile(dir.File("pipe.jpg")), std::runtime_error);
    EXPECT_THROW(reader::PictureFile(dir.File(".")), std::runtime_error);
    EXPECT_THROW(reader::PictureFile(dir.File("none/a.jpg")), std::runtime_error);
}

TEST(ViewKeyPicture, IsOneUnitAsARule) {
    for (const char *file : {"progressive.h264", "interlaced.h264", "intra.h264"}) {
        EXPECT_EQ(Taken(AccessUnits(Material(file)), 0, reader::VideoCodec::kH264), 1U) << file;
    }
    for (const char *file : {"progressive.h265", "opengop.h265"}) {
        EXPECT_EQ(Taken(AccessUnits(Material(file)), 0, reader::VideoCodec::kH265), 1U) << file;
    }
}

TEST(ViewKeyPicture, OfFieldsIsTwoUnits) {
    const std::vector<std::string> units = FieldStream::Units(2);
    bool refreshed = true;
    EXPECT_EQ(Taken(units, 0, reader::VideoCodec::kH264, &refreshed), 2U);
    EXPECT_FALSE(refreshed);
    EXPECT_EQ(Taken(units, 2, reader::VideoCodec::kH264), 2U);
    EXPECT_EQ(Taken({units[0] + units[1]}, 0, reader::VideoCodec::kH264), 1U);
    // Something that is no picture does not end it.
    EXPECT_EQ(Taken({units[0], std::string("\0\0\0\1\x09\xf0", 6), units[1]}, 0, reader::VideoCodec::kH264), 3U);
}

TEST(ViewKeyPicture, ThatIsRefreshedTakesAllOfTheRefresh) {
    const std::vector<std::string> units = AccessUnits(Material("refresh.h264"));
    // x264 says at its second key frame that 21 reference frames make the picture whole.
    const std::string sequence_set("\0\0\1\x67", 4);
    size_t key = 1;
    while (key < units.size() && units[key].find(sequence_set) == std::string::npos) {
        ++key;
    }
    ASSERT_LT(key, units.size());
    std::vector<std::string> from(units.begin() + static_cast<std::ptrdiff_t>(key), units.end());
    bool refreshed = false;
    const size_t taken = Taken(from, 0, reader::VideoCodec::kH264, &refreshed);
    EXPECT_TRUE(refreshed);
    EXPECT_GT(taken, 21U);
    // What begins the stream anew ends it.
    from.resize(5);
    from.push_back(units[0]);
    EXPECT_EQ(Taken(from, 0, reader::VideoCodec::kH264), 6U);
}

TEST(ViewKeyPicture, WhatCannotBeReadIsLeftToTheDecoder) {
    for (const auto codec : {reader::VideoCodec::kH264, reader::VideoCodec::kH265}) {
        const std::string slice = codec == reader::VideoCodec::kH264 ? std::string("\0\0\0\1\x65\x88\x84\x21", 8)
                                                                     : std::string("\0\0\0\1\x26\x01\xaf\x06", 8);
        EXPECT_EQ(Taken({slice}, 0, codec), 1U);
        EXPECT_EQ(Taken({""}, 0, codec), 0U);
        EXPECT_EQ(Taken({std::string(1000, '\xff')}, 0, codec), 0U);
    }
}
