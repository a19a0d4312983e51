// Still pictures of real streams in a shared buffer, compared with what ffmpeg makes of the same units.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <filesystem>

#include "field_stream.h"
#include "live_track.h"
#include "run_support.h"

namespace {

std::string Variable(const char *name) {
    const char *value = std::getenv(name);
    return value != nullptr ? value : "";
}

std::string Material(const std::string &file) {
    return Variable("SHBSINK_MATERIALS") + "/" + file;
}

std::vector<std::string> Snapshot(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), {Variable("GST_SOURCE_READ_TOOL"), "snapshot"});
    return arguments;
}

struct Picture {
    unsigned width = 0;
    unsigned height = 0;
    std::string rgb;
};

// What ffmpeg makes of a file: the last picture.
Picture PictureOf(const std::string &file) {
    const TempDir dir;
    const std::string out = dir.File("out.ppm");
    std::vector<std::string> command = Words("ffmpeg -nostdin -v error -y -i");
    command.push_back(file);
    for (const std::string &word : Words("-fps_mode passthrough -pix_fmt rgb24 -update 1")) {
        command.push_back(word);
    }
    command.push_back(out);
    Child ffmpeg(command);
    EXPECT_EQ(ffmpeg.Wait(), 0) << ffmpeg.Err();
    std::ifstream ppm(out, std::ios::binary);
    Picture picture;
    std::string magic;
    unsigned most = 0;
    ppm >> magic >> picture.width >> picture.height >> most;
    ppm.get();
    picture.rgb.assign(std::istreambuf_iterator<char>(ppm), {});
    EXPECT_EQ(magic, "P6") << file;
    EXPECT_EQ(picture.rgb.size(), size_t{3} * picture.width * picture.height) << file;
    return picture;
}

// Mean difference of the samples; 256 when the pictures are not of one size.
double Difference(const Picture &a, const Picture &b) {
    if (a.width != b.width || a.height != b.height || a.rgb.empty() || a.rgb.size() != b.rgb.size()) {
        ADD_FAILURE() << a.width << "x" << a.height << " beside " << b.width << "x" << b.height;
        return 256;
    }
    uint64_t sum = 0;
    for (size_t i = 0; i < a.rgb.size(); ++i) {
        sum += static_cast<uint64_t>(std::abs(static_cast<uint8_t>(a.rgb[i]) - static_cast<uint8_t>(b.rgb[i])));
    }
    return static_cast<double>(sum) / static_cast<double>(a.rgb.size());
}

// Chroma is brought to full size in different ways, of interlaced pictures field by field. A wrong colour
// matrix alone makes 10.
constexpr double kSame = 4;
constexpr double kSameAsJpeg = 6;

// Nothing but this is in the folder.
void ExpectOnly(const TempDir &dir, const std::vector<std::string> &names) {
    std::vector<std::string> found;
    for (const auto &entry : std::filesystem::directory_iterator(dir.File("."))) {
        found.push_back(entry.path().filename());
    }
    std::sort(found.begin(), found.end());
    EXPECT_EQ(found, names);
}

void ExpectSize(const std::string &file, unsigned width, unsigned height) {
    const Picture picture = PictureOf(file);
    EXPECT_EQ(picture.width, width);
    EXPECT_EQ(picture.height, height);
}

// A stream of ffmpeg's in `dir`, and its access units.
std::vector<std::string> Encoded(const TempDir &dir, const std::string &name, const std::string &options) {
    std::vector<std::string> command = Words("ffmpeg -nostdin -v error -y " + options);
    command.push_back(dir.File(name));
    Child ffmpeg(command);
    EXPECT_EQ(ffmpeg.Wait(), 0) << ffmpeg.Err();
    return AccessUnits(dir.File(name));
}

struct Stream {
    const char *name;
    const char *file;
    size_t key;    // a key frame, with which the buffer ends
    size_t after;  // access units behind it that are in the buffer
};

class SnapshotOf : public testing::TestWithParam<Stream> {};

TEST_P(SnapshotOf, IsThePictureOfTheNewestKeyFrame) {
    const Stream &row = GetParam();
    const std::vector<std::string> units = AccessUnits(Material(row.file));
    ASSERT_GT(units.size(), row.key + row.after);
    const LiveBuffer buffer(BufferName("snapshot"));
    LiveVideo video(buffer, std::string(row.file).find("h265") != std::string::npos);
    video.Push(units, 0, row.key + 1 + row.after);
    const TempDir dir;
    const Picture expected = PictureOf(dir.Write(row.file, Joined(units, 0, row.key + 1)));
    for (const auto &[name, most] : {std::pair{"out.png", kSame}, std::pair{"out.JPEG", kSameAsJpeg}}) {
        Child child(Snapshot({buffer.Name(), dir.File(name)}));
        ASSERT_EQ(child.Wait(), 0) << child.Err();
        EXPECT_EQ(child.Err(), "");
        EXPECT_EQ(child.Out(), "");
        EXPECT_LT(Difference(PictureOf(dir.File(name)), expected), most) << name;
    }
}

INSTANTIATE_TEST_SUITE_P(Streams, SnapshotOf,
                         testing::Values(Stream{"H264", "progressive.h264", 25, 3},
                                         Stream{"H264Alone", "progressive.h264", 0, 0},
                                         Stream{"H264Interlaced", "interlaced.h264", 0, 0},
                                         Stream{"H264Intra", "intra.h264", 7, 0}, Stream{"H265", "progressive.h265", 20, 2},
                                         Stream{"H265BFrames", "opengop.h265", 0, 0}),
                         [](const testing::TestParamInfo<Stream> &row) { return std::string(row.param.name); });

// Every one is larger than any difference of rounding and smaller than that of a wrong range or matrix.
struct Colour {
    const char *name;
    const char *size;
    const char *encoder;
    double most;
};

class SnapshotColour : public testing::TestWithParam<Colour> {};

TEST_P(SnapshotColour, IsThatOfTheStream) {
    const Colour &row = GetParam();
    const TempDir dir;
    const auto units = Encoded(dir, "colour.h264",
                               "-f lavfi -i color=c=0xC83C28:size=" + std::string(row.size) + " -frames:v 1 " + row.encoder);
    const LiveBuffer buffer(BufferName("colour"));
    LiveVideo video(buffer, false);
    video.Push(units, 0, 1);
    for (const char *name : {"out.png", "out.jpg"}) {
        Child child(Snapshot({buffer.Name(), dir.File(name)}));
        ASSERT_EQ(child.Wait(), 0) << child.Err();
        const Picture picture = PictureOf(dir.File(name));
        ASSERT_FALSE(picture.rgb.empty());
        const size_t middle = (picture.height / 2 * picture.width + picture.width / 2) * size_t{3};
        EXPECT_NEAR(static_cast<uint8_t>(picture.rgb[middle]), 0xC8, row.most) << name;
        EXPECT_NEAR(static_cast<uint8_t>(picture.rgb[middle + 1]), 0x3C, row.most) << name;
        EXPECT_NEAR(static_cast<uint8_t>(picture.rgb[middle + 2]), 0x28, row.most) << name;
    }
}

INSTANTIATE_TEST_SUITE_P(
    Colours, SnapshotColour,
    testing::Values(Colour{"StandardDefinition", "320x240", "-c:v libx264 -pix_fmt yuv420p", 5},
                    Colour{"HighDefinition", "1280x720",
                           "-vf scale=out_color_matrix=bt709 -c:v libx264 -pix_fmt yuv420p -colorspace bt709 "
                           "-color_primaries bt709 -color_trc bt709",
                           5},
                    Colour{"FullRange", "320x240",
                           "-vf scale=out_range=pc -c:v libx264 -pix_fmt yuvj420p -colorspace smpte170m -color_range pc", 5}),
    [](const testing::TestParamInfo<Colour> &row) { return std::string(row.param.name); });

TEST(Snapshot, PixelsAreSquare) {
    const TempDir dir;
    const auto units = Encoded(dir, "wide.h264",
                               "-f lavfi -i testsrc2=size=720x576 -vf setsar=16/15 -frames:v 1 -c:v libx264 -pix_fmt yuv420p");
    const LiveBuffer buffer(BufferName("square"));
    LiveVideo video(buffer, false);
    video.Push(units, 0, 1);
    Child child(Snapshot({buffer.Name(), dir.File("out.png")}));
    ASSERT_EQ(child.Wait(), 0) << child.Err();
    ExpectSize(dir.File("out.png"), 768, 576);
    Child small(Snapshot({buffer.Name(), dir.File("small.png"), "--width", "384"}));
    ASSERT_EQ(small.Wait(), 0) << small.Err();
    ExpectSize(dir.File("small.png"), 384, 288);
}

TEST(Snapshot, APictureOfTwoFieldsHasBoth) {
    const std::vector<std::string> units = FieldStream::Units(2);
    const LiveBuffer buffer(BufferName("fields"));
    LiveVideo video(buffer, false);
    const TempDir dir;
    // The newest key frame is the first field of the second picture.
    video.Push(units, 0, 3);
    Child child(Snapshot({buffer.Name(), dir.File("out.png"), "--timeout", "60"}));
    ASSERT_TRUE(WaitWhileRunning(child, [&] { return Has(child.Err(), "waiting up to"); })) << child.Err();
    EXPECT_EQ(child.Err(),
              "gst-source-read: video 0.0 of " + buffer.Name() + " has a key frame in part; waiting up to 60 s for the rest\n");
    video.Push(units, 3, 4);
    ASSERT_EQ(child.Wait(), 0) << child.Err();
    const Picture picture = PictureOf(dir.File("out.png"));
    ASSERT_EQ(picture.width, FieldStream::kSize);
    ASSERT_EQ(picture.height, FieldStream::kSize);
    for (unsigned line = 0; line < FieldStream::kSize; ++line) {
        // From 16..235 to 0..255.
        const double expected = (FieldStream::FieldSample(1, 32, line) - 16) * 255.0 / 219;
        ASSERT_NEAR(static_cast<uint8_t>(picture.rgb[(line * FieldStream::kSize + 32) * size_t{3}]), expected, 3) << line;
    }
}

// H.265 has a picture for each field.
TEST(Snapshot, FieldsThatArePicturesAreWoven) {
    const TempDir dir;
    const auto units = Encoded(dir, "fields.h265",
                               "-f lavfi -i testsrc2=size=320x120:rate=50 -frames:v 4 -c:v libx265 -pix_fmt yuv420p "
                               "-x265-params interlace=1:log-level=none");
    const LiveBuffer buffer(BufferName("woven"));
    LiveVideo video(buffer, true);
    video.Push(units, 0, 2);
    Child child(Snapshot({buffer.Name(), dir.File("out.png")}));
    ASSERT_EQ(child.Wait(), 0) << child.Err();
    const Picture top = PictureOf(dir.Write("top.h265", units[0]));
    const Picture bottom = PictureOf(dir.Write("both.h265", units[0] + units[1]));
    ASSERT_EQ(top.height, 120U);
    ASSERT_EQ(bottom.rgb.size(), top.rgb.size());
    Picture both{top.width, top.height * 2, ""};
    const size_t line = size_t{3} * top.width;
    for (size_t begin = 0; begin < top.rgb.size(); begin += line) {
        both.rgb += top.rgb.substr(begin, line) + bottom.rgb.substr(begin, line);
    }
    EXPECT_LT(Difference(PictureOf(dir.File("out.png")), both), kSame);
}

TEST(Snapshot, APictureThatIsRefreshedIsWhole) {
    const std::vector<std::string> units = AccessUnits(Material("refresh.h264"));
    const LiveBuffer buffer(BufferName("refresh"));
    LiveVideo video(buffer, false);
    const TempDir dir;
    // The second key frame and 30 pictures, behind the last of which the picture is whole.
    constexpr size_t kEnd = 60;
    ASSERT_GE(units.size(), kEnd);
    video.Push(units, 0, 25);
    Child child(Snapshot({buffer.Name(), dir.File("out.png"), "--timeout", "60"}));
    ASSERT_TRUE(WaitWhileRunning(child, [&] { return Has(child.Err(), "waiting up to"); })) << child.Err();
    video.Push(units, 25, kEnd);
    ASSERT_EQ(child.Wait(), 0) << child.Err();
    const Picture made = PictureOf(dir.File("out.png"));
    // One of the pictures at that place of the stream; others differ by more, as their clock goes on.
    double least = 256;
    for (size_t end = 40; end < kEnd; ++end) {
        least = std::min(least, Difference(made, PictureOf(dir.Write("all.h264", Joined(units, 0, end)))));
    }
    EXPECT_LT(least, kSame);
}

TEST(Snapshot, ADeadHostLeavesItsLastPicture) {
    const std::string name = BufferName("dead");
    const auto port = FreeUdpPort();
    const TempDir dir;
    struct RemoveLeftover {
        const std::string name;
        ~RemoveLeftover() { shb_remove(name.c_str(), 1); }
    } const leftover{name};
    Child host({Variable("GST_SOURCE_TOOL"), UdpUrl(port), "--name", name});
    const Sender sender(UdpUrl(port));
    ASSERT_TRUE(WaitWhileRunning(host, [&name] { return MemoryLeft(name); })) << host.Err();
    Child lives(Snapshot({name, dir.File("lives.png"), "--timeout", "60"}));
    ASSERT_EQ(lives.Wait(), 0) << lives.Err();
    host.Signal(SIGKILL);
    ASSERT_EQ(host.Wait(), 256 + SIGKILL);
    Child dead(Snapshot({name, dir.File("dead.png")}));
    EXPECT_EQ(dead.Wait(), 0) << dead.Err();
    ExpectSize(dir.File("dead.png"), 320, 180);
}

TEST(Snapshot, WaitsForAKeyFrameAndSaysSo) {
    const std::vector<std::string> units = AccessUnits(Material("progressive.h264"));
    const LiveBuffer buffer(BufferName("wait"));
    const TempDir dir;
    Child child(Snapshot({buffer.Name(), dir.File("out.png"), "--timeout", "60"}));
    ASSERT_TRUE(WaitWhileRunning(child, [&] { return Has(child.Err(), "\n"); }));
    EXPECT_EQ(child.Err(),
              "gst-source-read: video 0.0 of " + buffer.Name() + " has had no writer; waiting up to 60 s for a key frame\n");
    LiveVideo video(buffer, false);
    video.Push(units, 0, 1);
    EXPECT_EQ(child.Wait(), 0) << child.Err();
    ExpectSize(dir.File("out.png"), 636, 358);
    ExpectOnly(dir, {"out.png"});
}

TEST(Snapshot, StandardOutputGetsAJpeg) {
    const std::vector<std::string> units = AccessUnits(Material("progressive.h264"));
    const LiveBuffer buffer(BufferName("stdout"));
    LiveVideo video(buffer, false);
    video.Push(units, 0, 1);
    Child child(Snapshot({buffer.Name(), "-"}));
    ASSERT_EQ(child.Wait(), 0) << child.Err();
    EXPECT_EQ(child.Out().substr(0, 3), "\xFF\xD8\xFF");
    Child terminal(Snapshot({buffer.Name(), "-"}), {}, Child::Output::kTerminal);
    EXPECT_EQ(terminal.Wait(), 2);
    EXPECT_TRUE(Has(terminal.Screen(), "a picture is not for a terminal")) << terminal.Screen();
    Child pipe(Snapshot({buffer.Name(), "-"}), {}, Child::Output::kClosedPipe);
    EXPECT_EQ(pipe.Wait(), 256 + SIGPIPE);
}

TEST(Snapshot, FailuresAreOneLineAndLeaveNothing) {
    const LiveBuffer buffer(BufferName("failures"));
    const TempDir dir;
    std::filesystem::create_directory(dir.File("folder.png"));
    const std::string &name = buffer.Name();
    const std::vector<std::tuple<std::vector<std::string>, int, std::string>> cases{
        {{"x", "x.gif"}, 2, "snapshot: \"x.gif\" ends neither in .jpg nor in .png"},
        {{"x"}, 2, "snapshot: no OUT given, such as picture.jpg"},
        {{}, 2, "snapshot: no NAME given"},
        {{"x", "x.png", "--timeout", "0"}, 2, "--timeout: \"0\" is not a number of seconds above 0 and up to 1000000000"},
        {{name + "-not", dir.File("x.png")}, 1, name + "-not: no shared buffer of this name"},
        {{name, "/nonexistent/x.png"}, 1, "/nonexistent/x.png: No such file or directory"},
        {{name, dir.File("folder.png")}, 1, dir.File("folder.png") + ": it is there and is no file"},
        {{name, dir.File("x.png"), "--channel", "1"}, 1, name + " has 1 channel of 1 stream, counted from 0"},
        {{name, dir.File("x.png"), "--timeout", "0.2"},
         1,
         "no picture: video 0.0 of " + name + " has had no writer after 0.2 s"},
    };
    for (const auto &[arguments, code, message] : cases) {
        Child child(Snapshot(arguments));
        EXPECT_EQ(child.Wait(), code) << message;
        EXPECT_EQ(child.Out(), "");
        EXPECT_EQ(child.Err(), "gst-source-read: " + message + "\n");
    }
    buffer.LeaveOut(SHB_VIDEO);
    Child sound(Snapshot({name, dir.File("x.png"), "--timeout", "60"}));
    EXPECT_EQ(sound.Wait(), 1);
    EXPECT_EQ(sound.Err(),
              "gst-source-read: no picture: video 0.0 of " + name + " has no stream: the source carries no video\n");
    ExpectOnly(dir, {"folder.png"});
}

TEST(Snapshot, AFileThatCannotGrowIsNotLeftInPart) {
    const std::vector<std::string> units = AccessUnits(Material("progressive.h264"));
    const LiveBuffer buffer(BufferName("full"));
    LiveVideo video(buffer, false);
    video.Push(units, 0, 1);
    const TempDir dir;
    dir.Write("out.png", "before");
    std::vector<std::string> command{"sh", "-c", "trap '' XFSZ; ulimit -f 1; exec \"$@\"", "sh"};
    for (const std::string &word : Snapshot({buffer.Name(), dir.File("out.png")})) {
        command.push_back(word);
    }
    // What it writes for itself would not fit either.
    Child child(command, {{"GST_REGISTRY_UPDATE", "no"}});
    EXPECT_EQ(child.Wait(), 1);
    EXPECT_EQ(child.Err(), "gst-source-read: " + dir.File("out.png") + ": File too large\n");
    EXPECT_EQ(ReadAll(dir.File("out.png")), "before");
    ExpectOnly(dir, {"out.png"});
}

TEST(Snapshot, ASignalEndsTheWaitAndLeavesNothing) {
    const LiveBuffer buffer(BufferName("signal"));
    const TempDir dir;
    Child child(Snapshot({buffer.Name(), dir.File("out.png"), "--timeout", "60"}));
    ASSERT_TRUE(WaitWhileRunning(child, [&] { return Has(child.Err(), "waiting up to"); })) << child.Err();
    child.Signal(SIGINT);
    EXPECT_EQ(child.Wait(), 1);
    EXPECT_EQ(Lines(child.Err()).back(), "gst-source-read: ended before there was a picture of video 0.0 of " + buffer.Name());
    ExpectOnly(dir, {});
}

TEST(Snapshot, AMissingDecoderIsAskedForByPackage) {
    const std::vector<std::string> units = AccessUnits(Material("progressive.h264"));
    const LiveBuffer buffer(BufferName("missing"));
    LiveVideo video(buffer, false);
    video.Push(units, 0, 1);
    const TempDir dir;
    Child child(Snapshot({buffer.Name(), dir.File("out.png")}),
                {{"GST_PLUGIN_FEATURE_RANK", "avdec_h264:NONE,openh264dec:NONE"}});
    EXPECT_EQ(child.Wait(), 1);
    EXPECT_EQ(child.Err(), "gst-source-read: H.264 needs a decoder: apt install gstreamer1.0-libav\n");
    ExpectOnly(dir, {});
}

}  // namespace

namespace {

class Framework : public testing::Environment {
  public:
    void SetUp() override { gst_init(nullptr, nullptr); }
};
const auto *const framework = testing::AddGlobalTestEnvironment(new Framework);  // NOLINT(cert-err58-cpp)

}  // namespace
