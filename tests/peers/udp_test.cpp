// MPEG transport streams over UDP, sent by ffmpeg and GStreamer.

#include <algorithm>

#include "harness/Damage.h"
#include "harness/PeerTest.h"

namespace peers {
namespace {

class Udp : public PeerTest, public Scene {
  protected:
    const uint16_t port = FreeUdpPort();
    const std::string url = UdpUrl(port);
};

struct PlayRow {
    const char *name;  // of the material
};

class UdpPlays : public PeerTest, public testing::WithParamInterface<Group<PlayRow>> {};

TEST_P(UdpPlays, FramesEqualTheMaterial) {
    SideBySide(GetParam().rows, [](const PlayRow &row) {
        const Material &material = GetMaterial(row.name);
        Scene scene;
        const uint16_t port = FreeUdpPort();
        Host host(kUdp);
        OpenUdp(host, port);
        const auto sender = scene.SendUdp(material, port);
        ExpectPlays(host, material);
        ExpectCloses(host);
    });
}

INSTANTIATE_TEST_SUITE_P(
    , UdpPlays,
    testing::Values(Group<PlayRow>{"h264_aac", {{"h264_aac"}}},
                    Group<PlayRow>{
                        "other_codecs",
                        {{"h265_aac"}, {"h264_mp3"}, {"h264_ac3"}, {"h264_opus"}, {"h264_only"}, {"aac_only"}, {"mp3_only"}}}),
    kGroupName);

struct LongRow {
    const char *name;
    std::vector<std::string> sender;
};

// Where the 33 bits of the times are used up, after 26.5 hours: the stream is joined six seconds before.
const std::vector<std::string> kBeforeTheWrap = {"-output_ts_offset", "95436"};

// Every second of a longer run brings one key frame, an unchanged stream calls
// back once, and times that wrap do not interrupt.
TEST_F(Udp, LongRunsHaveNoHole) {
    const LongRow rows[] = {{"plain", {}}, {"times_that_wrap", kBeforeTheWrap}};
    SideBySide(rows, [&](const LongRow &row) {
        const Material &material = GetMaterial("h264_aac");
        Scene scene;
        const uint16_t own = FreeUdpPort();
        Host host(kUdp);
        OpenUdp(host, own);
        const auto sender = scene.SendUdp(material, own, row.sender);
        ExpectPlays(host, material, seconds(11));
        EXPECT_TRUE(KeyFramesComplete(material, host.Frames(SHB_VIDEO), 10));
        EXPECT_EQ(host.Calls(0).size(), 1U);
        EXPECT_EQ(host.Calls(1).size(), 1U);
        EXPECT_EQ(Reconnects(host), 0U);
    });
}

// What the sender of the case above does: the times begin anew while it sends.
TEST_F(Udp, TimesWrapWithinTheLongRun) {
    const Material &material = GetMaterial("h264_aac");
    std::vector<std::string> arguments = {"-stream_loop", "1", "-i", material.path, "-map", "0", "-c", "copy", "-t", "12"};
    arguments.insert(arguments.end(), kBeforeTheWrap.begin(), kBeforeTheWrap.end());
    arguments.insert(arguments.end(), {"-f", "mpegts"});
    constexpr uint64_t kSecond = 90000;
    constexpr uint64_t kEnd = uint64_t{1} << 33U;
    size_t before = 0;
    size_t after = 0;
    ChangeTimes(ReadFile(DerivedFile(material.name + "-wrapping.ts", arguments)), [&](uint64_t time) {
        before += time > kEnd - 10 * kSecond ? 1 : 0;
        after += time < 10 * kSecond ? 1 : 0;
        return time;
    });
    EXPECT_GT(before, 100U);
    EXPECT_GT(after, 100U);
}

// Another picture size within the same session is told, and the frames go on.
TEST_F(Udp, SizeThatChangesIsReported) {
    const Material &small = GetMaterial("h264_aac");
    const Material &large = GetMaterial("h264_aac_large");
    ASSERT_NE(small.width, large.width);
    Host host(kUdp);
    OpenUdp(host, port);
    auto sender = SendUdp(small, port);
    ASSERT_TRUE(WaitMedia(host, small, seconds(2)));
    sender->Stop();
    sender = SendUdp(large, port);
    const auto width = [&] { return host.VideoInfo().params.video.width; };
    EXPECT_TRUE(WaitFor([&] { return width() == large.width; })) << width();
    EXPECT_EQ(host.VideoInfo().params.video.height, large.height);
    EXPECT_EQ(host.Status().width, large.width);
    EXPECT_EQ(host.Calls(0).size(), 2U);
    EXPECT_TRUE(host.WaitFrames(SHB_VIDEO, host.Count(SHB_VIDEO) + 50));
    EXPECT_EQ(Reconnects(host), 0U);
    EXPECT_TRUE(host.Close());
}

// The sender gives the parameter sets once, at its first picture; readers
// that join later need them at every key frame.
TEST_F(Udp, ParameterSetsAreInEveryKeyFrame) {
    struct SetsRow {
        const char *name;  // of the material
        const char *parser;
    };
    const SetsRow rows[] = {{"h264_only", "h264parse"}, {"h265_only", "h265parse"}};
    SideBySide(rows, [](const SetsRow &row) {
        const Material &material = GetMaterial(row.name);
        Scene scene;
        const uint16_t own = FreeUdpPort();
        Host host(kUdp);
        OpenUdp(host, own);
        // Matroska keeps the sets in its header: the parser hands them over once, with the first access unit.
        const auto sender = scene.Start(
            "gst-launch", {"env", "GST_REGISTRY_UPDATE=no", "gst-launch-1.0", "-q", "filesrc", "location=" + material.path, "!",
                           "matroskademux", "!", row.parser, "config-interval=0", "!", "mpegtsmux", "alignment=7", "!",
                           "udpsink", "host=127.0.0.1", "port=" + std::to_string(own), "sync=true"});
        ASSERT_TRUE(host.WaitFrames(SHB_VIDEO, 130));
        const auto frames = host.Frames(SHB_VIDEO);
        EXPECT_TRUE(SameVideo(material, frames, 125));
        EXPECT_TRUE(KeyFramesComplete(material, frames, 5));
        const auto sets = std::count_if(frames.begin(), frames.end(), [&](const Frame &frame) {
            return Traits(material.video, SplitByteStream(frame.data)).parameterSets;
        });
        EXPECT_GE(sets, 5);
    });
}

TEST_F(Udp, ChangeOfVideoCodecRebuilds) {
    const Material &before = GetMaterial("h264_aac");
    const Material &after = GetMaterial("h265_aac");
    Host host(kUdp);
    OpenUdp(host, port);
    {
        const auto sender = SendUdp(before, port);
        ASSERT_TRUE(WaitMedia(host, before, seconds(2)));
    }
    EXPECT_EQ(Text(host.Status().video_code), "H264");
    const auto epoch = host.Epoch();
    // Another version number of the tables, as a multiplexer gives it that changes its programme.
    const auto sender = SendUdp(after, port, {"-tables_version", "1"});
    EXPECT_TRUE(log.WaitLine("WARN", "[CUDPSource] Check media data changed, reset session.... URL=" + url));
    ExpectReconnects(host);
    EXPECT_TRUE(log.Has("WARN", "[CUDPSource] Video media data chanage !!!  new encode= H265, url=" + url));
    ASSERT_TRUE(host.WaitEpochAfter(epoch));
    ExpectTruth(after, host);
    const auto frames = host.Frames(SHB_VIDEO);
    const auto change = std::find_if(frames.begin(), frames.end(), [&](const Frame &f) { return f.info.epoch != epoch; });
    EXPECT_TRUE(SameVideo(before, {frames.begin(), change}, 50));
    EXPECT_TRUE(SameVideo(after, {change, frames.end()}, 50));
    EXPECT_TRUE(KeyFramesComplete(after, {change, frames.end()}, 2));
    EXPECT_EQ(log.CountContaining("reset session"), 1U);
}

TEST_F(Udp, SilenceRebuildsUntilTheSenderReturns) {
    const Material &material = GetMaterial("h264_aac");
    Host host(kUdp);
    OpenUdp(host, port);
    auto sender = SendUdp(material, port);
    ASSERT_TRUE(WaitMedia(host, material, seconds(2)));
    EXPECT_EQ(host.State(), "connected");
    const auto killed = Clock::now();
    sender->Kill();
    ExpectReconnects(host);
    // Five seconds of silence and three of waiting.
    EXPECT_GT(Clock::now() - killed, milliseconds(7500));
    EXPECT_TRUE(log.Has("ERR", "[CUDPSource] DoBusMessage--------------error!! URL=" + url));
    EXPECT_GT(log.CountContaining("GstUDPSrcTimeout"), 0U);
    const auto epoch = host.Epoch();
    sender = SendUdp(material, port);
    ExpectPlaysAfter(epoch, host, material);
    EXPECT_EQ(Reconnects(host), 1U);
}

// Silence from the start is silence all the same, and a sender that comes late is taken.
TEST_F(Udp, SenderThatStartsLateIsTaken) {
    const Material &material = GetMaterial("h264_aac");
    Host host(kUdp);
    OpenUdp(host, port);
    ExpectReconnects(host);
    EXPECT_EQ(host.Count(SHB_VIDEO), 0U);
    EXPECT_EQ(Text(host.Status().video_code), "");
    const auto sender = SendUdp(material, port);
    ExpectPlays(host, material, seconds(2));
}

TEST_F(Udp, MulticastGroupIsJoined) {
    const Material &material = GetMaterial("h264_aac");
    const std::string group = "udp://239.255.42.42:" + std::to_string(port);
    Host host(kUdp);
    ASSERT_TRUE(host.Open(group, UdpOptions{}));
    ASSERT_TRUE(WaitFor([&] { return UdpBound(port); }));
    const auto sender = SendTs(material, group + "?pkt_size=1316&ttl=0");
    ExpectPlays(host, material, seconds(2));
}

}  // namespace
}  // namespace peers
