// MPEG transport streams over UDP, sent by ffmpeg and GStreamer.

#include <algorithm>

#include "harness/Damage.h"
#include "harness/PeerTest.h"

namespace peers {
namespace {

constexpr int kUdp = 3;

std::string Url(uint16_t port) {
    return "udp://127.0.0.1:" + std::to_string(port);
}

class Udp : public PeerTest {
  protected:
    // Opens the source and waits until its socket is there, so that a sender's first datagram arrives.
    void Open(Host &host) {
        ASSERT_TRUE(host.Open(url, UdpOptions{}));
        ASSERT_TRUE(WaitFor([&] { return UdpBound(port); }, seconds(5)));
    }
    std::unique_ptr<Process> SendUdp(const Material &material, const std::vector<std::string> &more = {}) {
        return SendTs(material, url + "?pkt_size=1316", more);
    }

    const uint16_t port = FreeUdpPort();
    const std::string url = Url(port);
};

class UdpPlays : public Udp, public testing::WithParamInterface<const char *> {};

TEST_P(UdpPlays, FramesEqualTheMaterial) {
    const Material &material = GetMaterial(GetParam());
    Host host(kUdp);
    Open(host);
    const auto sender = SendUdp(material);
    ExpectPlays(host, material);
    EXPECT_TRUE(host.Close());
    EXPECT_EQ(host.State(), "stop");
}

INSTANTIATE_TEST_SUITE_P(, UdpPlays,
                         testing::Values("h264_aac", "h265_aac", "h264_mp3", "h264_ac3", "h264_opus", "h264_only", "aac_only",
                                         "mp3_only"),
                         ParamName);

// Every second of a longer run brings one key frame, and an unchanged stream calls back once.
TEST_F(Udp, LongRunHasNoHole) {
    const Material &material = GetMaterial("h264_aac");
    Host host(kUdp);
    Open(host);
    const auto sender = SendUdp(material);
    ExpectPlays(host, material, seconds(11), seconds(30));
    EXPECT_TRUE(KeyFramesComplete(material, host.Frames(SHB_VIDEO), 10));
    EXPECT_EQ(host.Calls(0).size(), 1U);
    EXPECT_EQ(host.Calls(1).size(), 1U);
}

// The 33 bits of the times are used up after 26.5 hours: the stream is joined six seconds before.
TEST_F(Udp, TimesThatWrapDoNotInterrupt) {
    const Material &material = GetMaterial("h264_aac");
    const std::vector<std::string> late = {"-output_ts_offset", "95436"};
    std::vector<std::string> arguments = {"-stream_loop", "1", "-i", material.path, "-map", "0", "-c", "copy", "-t", "12"};
    arguments.insert(arguments.end(), late.begin(), late.end());
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
    ASSERT_GT(before, 100U);
    ASSERT_GT(after, 100U);

    Host host(kUdp);
    Open(host);
    const auto sender = SendUdp(material, late);
    ExpectPlays(host, material, seconds(11), seconds(30));
    EXPECT_TRUE(KeyFramesComplete(material, host.Frames(SHB_VIDEO), 10));
    EXPECT_EQ(log.CountContaining("UDP source reconnect..."), 0U);
}

// Another picture size within the same session is told, and the frames go on.
TEST_F(Udp, SizeThatChangesIsReported) {
    const Material &small = GetMaterial("h264_aac");
    const Material &large = GetMaterial("h264_aac_large");
    ASSERT_NE(small.width, large.width);
    Host host(kUdp);
    Open(host);
    auto sender = SendUdp(small);
    ASSERT_TRUE(WaitMedia(host, small, seconds(2), seconds(20)));
    sender->Stop();
    sender = SendUdp(large);
    const auto width = [&] { return host.VideoInfo().params.video.width; };
    EXPECT_TRUE(WaitFor([&] { return width() == large.width; }, seconds(30))) << width();
    EXPECT_EQ(host.VideoInfo().params.video.height, large.height);
    EXPECT_EQ(host.Status().width, large.width);
    EXPECT_EQ(host.Calls(0).size(), 2U);
    EXPECT_TRUE(host.WaitFrames(SHB_VIDEO, host.Count(SHB_VIDEO) + 50, seconds(10)));
    EXPECT_EQ(log.CountContaining("UDP source reconnect..."), 0U);
    EXPECT_TRUE(host.Close());
}

class UdpParameterSets : public Udp, public testing::WithParamInterface<const char *> {};

// The sender gives the parameter sets once, at its first picture; readers that join later need them at every key frame.
TEST_P(UdpParameterSets, AreInEveryKeyFrame) {
    const Material &material = GetMaterial(GetParam());
    const std::string parser = material.video == Codec::H264 ? "h264parse" : "h265parse";
    // Matroska keeps the sets in its header: the parser hands them over once, with the first access unit.
    const auto sets = [&](const std::vector<Frame> &frames) {
        return std::count_if(frames.begin(), frames.end(), [&](const Frame &frame) {
            return Traits(material.video, SplitByteStream(frame.data)).parameterSets;
        });
    };
    Host host(kUdp);
    Open(host);
    const auto sender =
        Start("gst-launch", {"env", "GST_REGISTRY_UPDATE=no", "gst-launch-1.0", "-q", "filesrc", "location=" + material.path,
                             "!", "matroskademux", "!", parser, "config-interval=0", "!", "mpegtsmux", "alignment=7", "!",
                             "udpsink", "host=127.0.0.1", "port=" + std::to_string(port), "sync=true"});
    ASSERT_TRUE(host.WaitFrames(SHB_VIDEO, 130, seconds(20)));
    const auto frames = host.Frames(SHB_VIDEO);
    EXPECT_TRUE(SameVideo(material, frames, 125));
    EXPECT_TRUE(KeyFramesComplete(material, frames, 5));
    EXPECT_GE(sets(frames), 5);
}

INSTANTIATE_TEST_SUITE_P(, UdpParameterSets, testing::Values("h264_only", "h265_only"), ParamName);

TEST_F(Udp, ChangeOfVideoCodecRebuilds) {
    const Material &before = GetMaterial("h264_aac");
    const Material &after = GetMaterial("h265_aac");
    Host host(kUdp);
    Open(host);
    {
        const auto sender = SendUdp(before);
        ASSERT_TRUE(WaitMedia(host, before, seconds(2), seconds(20)));
    }
    EXPECT_EQ(Text(host.Status().video_code), "H264");
    const auto epoch = host.Frames(SHB_VIDEO).back().info.epoch;
    // Another version number of the tables, as a multiplexer gives it that changes its programme.
    const auto sender = SendUdp(after, {"-tables_version", "1"});
    EXPECT_TRUE(log.WaitLine("WARN", "[CUDPSource] Check media data changed, reset session.... URL=" + url, seconds(10)));
    EXPECT_TRUE(log.WaitLine("INFO", "[CUDPSource] UDP source reconnect..." + url, seconds(10)));
    EXPECT_TRUE(log.Has("WARN", "[CUDPSource] Video media data chanage !!!  new encode= H265, url=" + url));
    ASSERT_TRUE(WaitFor(
        [&] {
            const auto frames = host.Frames(SHB_VIDEO);
            return frames.back().info.epoch > epoch && host.CountOfEpoch(SHB_VIDEO) >= 60;
        },
        seconds(20)));
    ExpectTruth(after, host);

    auto frames = host.Frames(SHB_VIDEO);
    const auto change = std::find_if(frames.begin(), frames.end(), [&](const Frame &f) { return f.info.epoch != epoch; });
    EXPECT_TRUE(SameVideo(before, {frames.begin(), change}, 50));
    EXPECT_TRUE(SameVideo(after, {change, frames.end()}, 50));
    EXPECT_TRUE(KeyFramesComplete(after, {change, frames.end()}, 2));
    EXPECT_EQ(log.CountContaining("reset session"), 1U);
}

TEST_F(Udp, SilenceRebuildsUntilTheSenderReturns) {
    const Material &material = GetMaterial("h264_aac");
    Host host(kUdp);
    Open(host);
    auto sender = SendUdp(material);
    ASSERT_TRUE(WaitMedia(host, material, seconds(2), seconds(20)));
    EXPECT_EQ(host.State(), "connected");
    const auto killed = Clock::now();
    sender->Kill();
    ASSERT_TRUE(log.WaitLine("INFO", "[CUDPSource] UDP source reconnect..." + url, seconds(20)));
    // Five seconds of silence and three of waiting.
    EXPECT_GT(Clock::now() - killed, milliseconds(7500));
    EXPECT_TRUE(log.Has("ERR", "[CUDPSource] DoBusMessage--------------error!! URL=" + url));
    EXPECT_GT(log.CountContaining("GstUDPSrcTimeout"), 0U);
    EXPECT_TRUE(host.SawState("reconnect"));
    const auto epoch = host.Frames(SHB_VIDEO).back().info.epoch;

    sender = SendUdp(material);
    ASSERT_TRUE(WaitFor([&] { return host.Frames(SHB_VIDEO).back().info.epoch > epoch; }, seconds(20)));
    ExpectPlays(host, material, seconds(2));
    EXPECT_EQ(log.CountContaining("UDP source reconnect..."), 1U);
}

// Silence from the start is silence all the same, and a sender that comes late is taken.
TEST_F(Udp, SenderThatStartsLateIsTaken) {
    const Material &material = GetMaterial("h264_aac");
    Host host(kUdp);
    Open(host);
    ASSERT_TRUE(log.WaitLine("INFO", "[CUDPSource] UDP source reconnect..." + url, seconds(20)));
    EXPECT_EQ(host.Count(SHB_VIDEO), 0U);
    EXPECT_EQ(Text(host.Status().video_code), "");
    const auto sender = SendUdp(material);
    ExpectPlays(host, material, seconds(2));
}

TEST_F(Udp, MulticastGroupIsJoined) {
    const Material &material = GetMaterial("h264_aac");
    const std::string group = "udp://239.255.42.42:" + std::to_string(port);
    Host host(kUdp);
    ASSERT_TRUE(host.Open(group, UdpOptions{}));
    ASSERT_TRUE(WaitFor([&] { return UdpBound(port); }, seconds(5)));
    const auto sender = SendTs(material, group + "?pkt_size=1316&ttl=0");
    ExpectPlays(host, material, seconds(2));
}

}  // namespace
}  // namespace peers
