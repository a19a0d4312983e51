// SRT: srt-live-transmit and ffmpeg at the other end, in every mode.

#include <algorithm>
#include <ostream>

#include "harness/PeerTest.h"

namespace peers {
namespace {

constexpr int kSrt = 2;
constexpr const char *kSecret = "a long enough secret";

class Srt : public PeerTest {
  protected:
    std::string At(const std::string &host, const std::string &query = "") const {
        return "srt://" + host + ":" + std::to_string(port) + (query.empty() ? "" : "?" + query);
    }
    std::string Reconnect(const std::string &url) const { return "[CSrtSource] Srt source reconnect..." + url; }

    // Opens a listener and waits until it is bound.
    void Listen(Host &host, SrtOptions options = {}) {
        options.mode = "listener";
        ASSERT_TRUE(host.Open(At(""), options));
        ASSERT_TRUE(WaitFor([&] { return UdpBound(port); }, seconds(5)));
    }
    std::unique_ptr<Process> Call(const Material &material, const std::string &query = "") {
        return SendTs(material, At("127.0.0.1", "mode=caller" + (query.empty() ? "" : "&" + query)));
    }
    // ffmpeg that waits for a caller; it plays to that one only.
    std::unique_ptr<Process> FfmpegListener(const Material &material, const std::string &query = "") {
        auto listener = SendTs(material, At("127.0.0.1", "mode=listener" + (query.empty() ? "" : "&" + query)));
        EXPECT_TRUE(WaitFor([&] { return UdpBound(port); }, seconds(10)));
        return listener;
    }
    // A relay from UDP that outlives its callers.
    std::unique_ptr<Process> Transmit(const std::string &target) {
        auto relay = Start("srt-live-transmit", {"srt-live-transmit", "udp://127.0.0.1:" + std::to_string(feed), target});
        EXPECT_TRUE(WaitFor([&] { return UdpBound(feed); }, seconds(10)));
        return relay;
    }
    std::unique_ptr<Process> Feed(const Material &material) {
        return SendTs(material, "udp://127.0.0.1:" + std::to_string(feed) + "?pkt_size=1316");
    }

    const uint16_t port = FreeUdpPort();
    const uint16_t feed = FreeUdpPort();
};

// ---- Our side calls -------------------------------------------------------------------------------------------------

struct CallerRow {
    const char *name;
    const char *material;
    const char *mode;  // as the host spells it
    const char *peerQuery;
    const char *passphrase;
    unsigned keylen;
};

std::ostream &operator<<(std::ostream &out, const CallerRow &row) {
    return out << row.name;
}

class SrtCaller : public Srt, public testing::WithParamInterface<CallerRow> {};

TEST_P(SrtCaller, PlaysFromFfmpeg) {
    const CallerRow &row = GetParam();
    const Material &material = GetMaterial(row.material);
    const auto listener = FfmpegListener(material, row.peerQuery);
    Host host(kSrt);
    SrtOptions options;
    options.mode = row.mode;
    options.passphrase = row.passphrase;
    options.keylen = row.keylen;
    ASSERT_TRUE(host.Open(At("127.0.0.1"), options));
    ExpectPlays(host, material);
    EXPECT_TRUE(host.Close());
    EXPECT_EQ(host.State(), "stop");
}

INSTANTIATE_TEST_SUITE_P(
    , SrtCaller,
    testing::Values(CallerRow{"h264_aac", "h264_aac", "caller", "", "", 0},
                    CallerRow{"h265_aac", "h265_aac", "caller", "", "", 0},
                    CallerRow{"h264_mp3", "h264_mp3", "caller", "", "", 0},
                    CallerRow{"h264_ac3", "h264_ac3", "caller", "", "", 0},
                    CallerRow{"unknown_mode_calls", "h264_aac", "LiStEnEr", "", "", 0},
                    CallerRow{"key_of_16", "h264_aac", "caller", "passphrase=a long enough secret&pbkeylen=16", kSecret, 16},
                    CallerRow{"key_of_32", "h264_aac", "caller", "passphrase=a long enough secret&pbkeylen=32", kSecret, 32},
                    // Without a key length the passphrase is not used, and an open peer plays.
                    CallerRow{"passphrase_without_length", "h264_aac", "caller", "", kSecret, 0}),
    [](const auto &row) { return row.param.name; });

struct RefusedCallerRow {
    const char *name;
    const char *passphrase;
    unsigned keylen;
};

std::ostream &operator<<(std::ostream &out, const RefusedCallerRow &row) {
    return out << row.name;
}

class SrtRefusedCaller : public Srt, public testing::WithParamInterface<RefusedCallerRow> {};

TEST_P(SrtRefusedCaller, DeliversNothing) {
    const Material &material = GetMaterial("h264_aac");
    const auto listener = FfmpegListener(material, "passphrase=a long enough secret&pbkeylen=16&enforced_encryption=1");
    {
        Host host(kSrt);
        SrtOptions options;
        options.passphrase = GetParam().passphrase;
        options.keylen = GetParam().keylen;
        ASSERT_TRUE(host.Open(At("127.0.0.1"), options));
        EXPECT_TRUE(HoldsFor([&] { return host.Count(SHB_VIDEO) + host.Count(SHB_AUDIO) == 0; }, seconds(3)));
        EXPECT_NE(host.State(), "connected");
        EXPECT_TRUE(listener->Running()) << "the listener took the caller";
    }
    // The listener is still there for one who knows.
    Host host(kSrt);
    SrtOptions options;
    options.passphrase = kSecret;
    options.keylen = 16;
    ASSERT_TRUE(host.Open(At("127.0.0.1"), options));
    ExpectPlays(host, material, seconds(1));
}

INSTANTIATE_TEST_SUITE_P(, SrtRefusedCaller,
                         testing::Values(RefusedCallerRow{"wrong_passphrase", "quite another secret", 16},
                                         RefusedCallerRow{"no_passphrase", "", 16},
                                         RefusedCallerRow{"passphrase_without_length", kSecret, 0}),
                         [](const auto &row) { return row.param.name; });

TEST_F(Srt, CallerPlaysFromLiveTransmit) {
    const Material &material = GetMaterial("h264_aac");
    const auto relay = Transmit(At("127.0.0.1", "mode=listener"));
    const auto sender = Feed(material);
    Host host(kSrt);
    ASSERT_TRUE(host.Open(At("127.0.0.1"), SrtOptions{}));
    ExpectPlays(host, material);
    EXPECT_EQ(log.CountContaining("Srt source reconnect..."), 0U);
}

// The element calls again by itself: no rebuild, the same pipeline goes on with a gap.
TEST_F(Srt, CallerResumesWhenThePeerReturns) {
    const Material &material = GetMaterial("h264_aac");
    auto listener = FfmpegListener(material);
    Host host(kSrt);
    ASSERT_TRUE(host.Open(At("127.0.0.1"), SrtOptions{}));
    ASSERT_TRUE(WaitMedia(host, material, seconds(2), seconds(20)));
    listener->Kill();
    // What was on its way still arrives.
    ASSERT_TRUE(WaitFor(
        [&] {
            const auto frames = host.Frames(SHB_VIDEO);
            return Clock::now() - frames.back().at > seconds(2);
        },
        seconds(20)));
    const size_t video = host.Count(SHB_VIDEO);
    const size_t audio = host.Count(SHB_AUDIO);
    listener = FfmpegListener(material);
    ASSERT_TRUE(host.WaitFrames(SHB_VIDEO, video + 60, seconds(30)));
    ASSERT_TRUE(host.WaitFrames(SHB_AUDIO, audio + 100, seconds(30)));
    ExpectTruth(material, host);
    const auto halves = [](const std::vector<Frame> &frames, size_t at) {
        const auto middle = frames.begin() + static_cast<std::ptrdiff_t>(at);
        return std::make_pair(std::vector<Frame>(frames.begin(), middle), std::vector<Frame>(middle, frames.end()));
    };
    const auto allVideo = host.Frames(SHB_VIDEO);
    const auto allAudio = host.Frames(SHB_AUDIO);
    const auto [videoBefore, videoAfter] = halves(allVideo, RestartOfVideo(material, allVideo));
    const auto [audioBefore, audioAfter] = halves(allAudio, RestartOfAudio(material, allAudio));
    EXPECT_TRUE(SameVideo(material, videoBefore, 50));
    EXPECT_TRUE(SameVideo(material, videoAfter, 50));
    EXPECT_TRUE(SameAudio(material, audioBefore, 80));
    EXPECT_TRUE(SameAudio(material, audioAfter, 80));
    EXPECT_EQ(log.CountContaining("Srt source reconnect..."), 0U);
}

TEST_F(Srt, StallWatchNoticesAPeerThatIsStopped) {
    const Material &material = GetMaterial("h264_aac");
    auto listener = FfmpegListener(material);
    Host host(kSrt);
    ASSERT_TRUE(host.Open(At("127.0.0.1"), SrtOptions{}));
    ASSERT_TRUE(WaitMedia(host, material, seconds(2), seconds(20)));
    const auto epoch = host.Frames(SHB_VIDEO).back().info.epoch;
    listener->Pause();
    ExpectStallWatchNotices(host, Reconnect(At("127.0.0.1")));
    listener->Kill();
    listener = FfmpegListener(material);
    EXPECT_TRUE(WaitEpochAfter(host, epoch, seconds(40)));
}

TEST_F(Srt, CallerWaitsForAPeerThatStartsLate) {
    const Material &material = GetMaterial("h264_aac");
    Host host(kSrt);
    ASSERT_TRUE(host.Open(At("127.0.0.1"), SrtOptions{}));
    EXPECT_TRUE(HoldsFor([&] { return host.State() != "connected"; }, seconds(2)));
    const auto listener = FfmpegListener(material);
    ExpectPlays(host, material, seconds(2), seconds(30));
}

// ---- Our side listens -----------------------------------------------------------------------------------------------

struct ListenerRow {
    const char *name;
    const char *material;
    const char *mode;
    const char *peerQuery;
    const char *passphrase;
    unsigned keylen;
    const char *streamid;
};

std::ostream &operator<<(std::ostream &out, const ListenerRow &row) {
    return out << row.name;
}

class SrtListener : public Srt, public testing::WithParamInterface<ListenerRow> {};

TEST_P(SrtListener, PlaysFromFfmpeg) {
    const ListenerRow &row = GetParam();
    const Material &material = GetMaterial(row.material);
    Host host(kSrt);
    SrtOptions options;
    options.mode = row.mode;
    options.passphrase = row.passphrase;
    options.keylen = row.keylen;
    options.streamid = row.streamid;
    ASSERT_TRUE(host.Open(At(""), options));
    ASSERT_TRUE(WaitFor([&] { return UdpBound(port); }, seconds(5)));
    const auto caller = Call(material, row.peerQuery);
    ExpectPlays(host, material);
}

INSTANTIATE_TEST_SUITE_P(
    , SrtListener,
    testing::Values(ListenerRow{"open", "h264_aac", "listener", "", "", 0, ""},
                    ListenerRow{"capitals", "h265_aac", "LISTENER", "", "", 0, ""},
                    ListenerRow{"leading_capital", "h264_aac", "Listener", "", "", 0, ""},
                    ListenerRow{"passphrase", "h264_aac", "listener", "passphrase=a long enough secret&pbkeylen=16", kSecret,
                                16, ""},
                    ListenerRow{"stream_id", "h264_aac", "listener", "streamid=camera one", "", 0, "camera one"},
                    ListenerRow{"stream_id_not_asked_for", "h264_aac", "listener", "streamid=anything", "", 0, ""},
                    ListenerRow{"both", "h264_aac", "listener", "streamid=cam&passphrase=a long enough secret&pbkeylen=24",
                                kSecret, 24, "cam"}),
    [](const auto &row) { return row.param.name; });

struct RefusingRow {
    const char *name;
    const char *wrongQuery;
    const char *rightQuery;
    const char *passphrase;
    unsigned keylen;
    const char *streamid;
};

std::ostream &operator<<(std::ostream &out, const RefusingRow &row) {
    return out << row.name;
}

class SrtRefusing : public Srt, public testing::WithParamInterface<RefusingRow> {};

// The refused caller gives up, and the next one, who is right, is admitted to the same session.
TEST_P(SrtRefusing, AdmitsTheRightCallerAfterARefusal) {
    const RefusingRow &row = GetParam();
    const Material &material = GetMaterial("h264_aac");
    Host host(kSrt);
    SrtOptions options;
    options.passphrase = row.passphrase;
    options.keylen = row.keylen;
    options.streamid = row.streamid;
    Listen(host, options);
    for (int attempt = 0; attempt < 2; ++attempt) {
        const auto refused = Call(material, row.wrongQuery);
        const auto status = refused->Wait(seconds(15));
        ASSERT_TRUE(status.has_value()) << "the caller was admitted";
        EXPECT_NE(*status, 0);
    }
    EXPECT_EQ(host.Count(SHB_VIDEO) + host.Count(SHB_AUDIO), 0U);
    const auto admitted = Call(material, row.rightQuery);
    ExpectPlays(host, material, seconds(2));
    EXPECT_EQ(log.CountContaining("Srt source reconnect..."), 0U);
}

INSTANTIATE_TEST_SUITE_P(
    , SrtRefusing,
    testing::Values(RefusingRow{"wrong_stream_id", "streamid=camera two", "streamid=camera one", "", 0, "camera one"},
                    RefusingRow{"stream_id_in_other_case", "streamid=Camera One", "streamid=camera one", "", 0, "camera one"},
                    RefusingRow{"longer_stream_id", "streamid=camera one1", "streamid=camera one", "", 0, "camera one"},
                    RefusingRow{"no_stream_id", "", "streamid=camera one", "", 0, "camera one"},
                    RefusingRow{"wrong_passphrase", "passphrase=quite another secret&pbkeylen=16",
                                "passphrase=a long enough secret&pbkeylen=16", kSecret, 16, ""},
                    RefusingRow{"no_passphrase", "", "passphrase=a long enough secret&pbkeylen=16", kSecret, 16, ""}),
    [](const auto &row) { return row.param.name; });

TEST_F(Srt, ListenerTakesTheNextCallerWhenOneVanishes) {
    const Material &material = GetMaterial("h264_aac");
    Host host(kSrt);
    Listen(host);
    auto caller = Call(material);
    ASSERT_TRUE(WaitMedia(host, material, seconds(2), seconds(20)));
    caller->Kill();
    EXPECT_TRUE(log.WaitLine("INFO", Reconnect(At("")), seconds(30)));
    const auto epoch = host.Frames(SHB_VIDEO).back().info.epoch;
    ASSERT_TRUE(WaitFor([&] { return log.CountContaining("Srt debug version 1.00") >= 3; }, seconds(10)));
    ASSERT_TRUE(WaitFor([&] { return UdpBound(port); }, seconds(10)));
    caller = Call(material);
    ASSERT_TRUE(WaitFor([&] { return host.Frames(SHB_VIDEO).back().info.epoch > epoch; }, seconds(20)));
    ExpectPlays(host, material, seconds(2));
}

TEST_F(Srt, ListenerReopensItsPortAtOnce) {
    const Material &material = GetMaterial("h264_aac");
    Host host(kSrt);
    for (int round = 0; round < 3; ++round) {
        SCOPED_TRACE(round);
        Listen(host);
        const auto caller = Call(material);
        const auto epoch = host.Count(SHB_VIDEO) == 0 ? 0 : host.Frames(SHB_VIDEO).back().info.epoch;
        ASSERT_TRUE(WaitFor(
            [&] {
                const auto frames = host.Frames(SHB_VIDEO);
                return !frames.empty() && frames.back().info.epoch > epoch && host.CountOfEpoch(SHB_VIDEO) > 25;
            },
            seconds(20)));
        EXPECT_TRUE(host.Close());
    }
    EXPECT_TRUE(SameVideo(material, host.Frames(SHB_VIDEO), 25));
    EXPECT_TRUE(SameAudio(material, host.Frames(SHB_AUDIO), 25));
}

// ---- Both call ------------------------------------------------------------------------------------------------------

class SrtRendezvous : public Srt, public testing::WithParamInterface<const char *> {};

TEST_P(SrtRendezvous, MeetsLiveTransmit) {
    const Material &material = GetMaterial("h264_aac");
    const std::string ours = std::to_string(FreeUdpPort());
    const auto relay = Transmit("srt://127.0.0.1:" + ours + "?mode=rendezvous&adapter=127.0.0.1&port=" + std::to_string(port));
    const auto sender = Feed(material);
    Host host(kSrt);
    SrtOptions options;
    options.mode = GetParam();
    options.localaddress = "127.0.0.1";
    ASSERT_TRUE(host.Open(At("127.0.0.1", "mode=rendezvous&localport=" + ours), options));
    ExpectPlays(host, material, seconds(2), seconds(30));
}

INSTANTIATE_TEST_SUITE_P(, SrtRendezvous, testing::Values("rendezvous", "RENDEZVOUS", "Rendezvous"), ParamName);

}  // namespace
}  // namespace peers
