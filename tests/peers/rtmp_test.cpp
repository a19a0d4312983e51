// RTMP: nginx plays what ffmpeg publishes to it; RTMPS is the same behind nginx's TLS.

#include <algorithm>
#include <filesystem>
#include <iterator>
#include <ostream>
#include <thread>

#include "harness/PeerTest.h"
#include "harness/Relay.h"

namespace peers {
namespace {

constexpr int kRtmp = 1;

class Rtmp : public PeerTest {
  protected:
    void SetUp() override { nginx = Serve(); }

    std::unique_ptr<Process> Serve() {
        return StartNginx("rtmp { access_log off; server { listen 127.0.0.1:" + std::to_string(port) +
                              "; application live { live on; } } }\n",
                          port);
    }
    std::unique_ptr<Process> Publish(const Material &material, const std::string &stream = "one") {
        return Send(material, {"-f", "flv", "-flvflags", "no_duration_filesize", Url(stream)});
    }
    std::string Url(const std::string &stream = "one") const {
        return "rtmp://127.0.0.1:" + std::to_string(port) + "/live/" + stream;
    }
    std::string Reconnect(const std::string &url) const { return "[CRtmpSource] RTMP source reconnect..." + url; }

    const uint16_t port = FreeTcpPort();
    std::unique_ptr<Process> nginx;
};

struct PlayRow {
    const char *name;
    const char *material;
    const char *user, *password, *token;
};

std::ostream &operator<<(std::ostream &out, const PlayRow &row) {
    return out << row.name;
}

class RtmpPlays : public Rtmp, public testing::WithParamInterface<PlayRow> {};

TEST_P(RtmpPlays, FramesEqualTheMaterial) {
    const PlayRow &row = GetParam();
    const Material &material = GetMaterial(row.material);
    const auto publisher = Publish(material);
    Host host(kRtmp);
    RtmpOptions options;
    options.user = row.user;
    options.password = row.password;
    options.token = row.token;
    ASSERT_TRUE(host.Open(Url(), options));
    ExpectPlays(host, material);
    EXPECT_EQ(log.CountContaining("RTMP source reconnect..."), 0U);
    EXPECT_EQ(log.Has("INFO", "[CRtmpSource] RTMPS set username adn passwd... url=" + Url()), *row.user != '\0');
    EXPECT_TRUE(host.Close());
    EXPECT_EQ(host.State(), "stop");
}

INSTANTIATE_TEST_SUITE_P(
    , RtmpPlays,
    testing::Values(PlayRow{"h264_aac", "h264_aac", "", "", ""}, PlayRow{"h264_mp3", "h264_mp3", "", "", ""},
                    PlayRow{"h264_pcma", "h264_pcma", "", "", ""}, PlayRow{"h264_pcmu", "h264_pcmu", "", "", ""},
                    PlayRow{"video_only", "h264_only", "", "", ""}, PlayRow{"audio_only", "aac_only", "", "", ""},
                    PlayRow{"mp3_only", "mp3_only", "", "", ""},
                    // A server that asks for nothing does not mind being told.
                    PlayRow{"credentials_not_asked_for", "h264_aac", "u", "p", "t"}),
    [](const auto &row) { return row.param.name; });

TEST_F(Rtmp, StreamThatStartsAfterTheOpenIsTaken) {
    const Material &material = GetMaterial("h264_aac");
    Host host(kRtmp);
    ASSERT_TRUE(host.Open(Url(), RtmpOptions{}));
    EXPECT_TRUE(WaitFor([&] { return host.State() == "connected"; }, seconds(10)));
    EXPECT_TRUE(HoldsFor([&] { return host.Count(SHB_VIDEO) == 0; }, seconds(2)));
    const auto publisher = Publish(material);
    ExpectPlays(host, material, seconds(2));
    EXPECT_EQ(log.CountContaining("RTMP source reconnect..."), 0U);
}

TEST_F(Rtmp, IdleTimeoutEndsAStreamThatNeverComes) {
    Host host(kRtmp);
    RtmpOptions options;
    options.idleTimeout = 2;
    ASSERT_TRUE(host.Open(Url("nothing"), options));
    EXPECT_TRUE(log.WaitLine("INFO", Reconnect(Url("nothing")), seconds(20)));
    EXPECT_TRUE(host.SawState("reconnect"));
}

TEST_F(Rtmp, PublisherThatLeavesAndReturns) {
    const Material &material = GetMaterial("h264_aac");
    auto publisher = Publish(material);
    Host host(kRtmp);
    ASSERT_TRUE(host.Open(Url(), RtmpOptions{}));
    ASSERT_TRUE(WaitMedia(host, material, seconds(2), seconds(20)));
    publisher->Stop();
    EXPECT_TRUE(log.WaitLine("INFO", Reconnect(Url()), seconds(20)));
    EXPECT_GT(log.Count("", "-------------GST_MESSAGE_EOS"), 0U);
    EXPECT_TRUE(host.SawState("reconnect"));
    const auto epoch = host.Frames(SHB_VIDEO).back().info.epoch;
    publisher = Publish(material);
    ASSERT_TRUE(WaitFor([&] { return host.Frames(SHB_VIDEO).back().info.epoch > epoch; }, seconds(20)));
    ExpectPlays(host, material, seconds(2));
}

TEST_F(Rtmp, ServerKilledAndStartedAgain) {
    const Material &material = GetMaterial("h264_aac");
    auto publisher = Publish(material);
    Host host(kRtmp);
    ASSERT_TRUE(host.Open(Url(), RtmpOptions{}));
    ASSERT_TRUE(WaitMedia(host, material, seconds(2), seconds(20)));
    nginx->Kill();
    publisher->Stop();
    EXPECT_TRUE(log.WaitLine("INFO", Reconnect(Url()), seconds(20)));
    // Refused connections are tried again and again.
    EXPECT_TRUE(log.WaitLine("INFO", Reconnect(Url()), seconds(20), 2));
    const auto epoch = host.Frames(SHB_VIDEO).back().info.epoch;
    nginx = Serve();
    publisher = Publish(material);
    ASSERT_TRUE(WaitFor([&] { return host.Frames(SHB_VIDEO).back().info.epoch > epoch; }, seconds(20)));
    ExpectPlays(host, material, seconds(2));
}

TEST_F(Rtmp, StallWatchNoticesAPublisherThatIsStopped) {
    const Material &material = GetMaterial("h264_aac");
    const auto publisher = Publish(material);
    Host host(kRtmp);
    ASSERT_TRUE(host.Open(Url(), RtmpOptions{}));
    ASSERT_TRUE(WaitMedia(host, material, seconds(2), seconds(20)));
    const auto epoch = host.Frames(SHB_VIDEO).back().info.epoch;
    publisher->Pause();
    ExpectStallWatchNotices(host, Reconnect(Url()));
    publisher->Resume();
    EXPECT_TRUE(WaitEpochAfter(host, epoch, seconds(40)));
}

TEST_F(Rtmp, StallWatchNoticesAServerThatAcceptsAndSaysNothing) {
    const Material &material = GetMaterial("h264_aac");
    const auto publisher = Publish(material);
    Relay relay(port);
    const std::string url = "rtmp://127.0.0.1:" + std::to_string(relay.Port()) + "/live/one";
    Host host(kRtmp);
    ASSERT_TRUE(host.Open(url, RtmpOptions{}));
    ASSERT_TRUE(WaitMedia(host, material, seconds(2), seconds(20)));
    const auto epoch = host.Frames(SHB_VIDEO).back().info.epoch;
    relay.Hold();
    const size_t accepted = relay.Accepted();
    ExpectStallWatchNotices(host, Reconnect(url));
    // The next connection is taken as well, and hears as little.
    EXPECT_TRUE(WaitFor([&] { return relay.Accepted() > accepted; }, seconds(20)));
    relay.Release();
    EXPECT_TRUE(WaitEpochAfter(host, epoch, seconds(40)));
}

TEST_F(Rtmp, UnknownApplicationIsRefused) {
    const std::string url = "rtmp://127.0.0.1:" + std::to_string(port) + "/nowhere/one";
    Host host(kRtmp);
    ASSERT_TRUE(host.Open(url, RtmpOptions{}));
    EXPECT_TRUE(log.WaitLine("INFO", Reconnect(url), seconds(20), 2));
    EXPECT_EQ(host.Count(SHB_VIDEO), 0U);
}

// rtmp2src, stopped in the midst of connecting, would keep its socket and itself for ever.
TEST_F(Rtmp, ClosedAtAnyMomentOfConnectingLeavesNothingBehind) {
    const auto publisher = Publish(GetMaterial("h264_aac"));
    const auto descriptors = [] {
        const std::filesystem::directory_iterator open("/proc/self/fd");
        return std::distance(begin(open), end(open));
    };
    Host host(kRtmp);
    // Once through, so that what is made on first use is there.
    ASSERT_TRUE(host.Open(Url(), RtmpOptions{}));
    ASSERT_TRUE(WaitFor([&] { return host.Count(SHB_VIDEO) > 0; }, seconds(20)));
    EXPECT_TRUE(host.Close());
    const auto before = descriptors();
    // The conversation before the first frame takes about 150 ms on an idle machine.
    constexpr int kMoments = 25;
    for (int moment = 0; moment < kMoments; ++moment) {
        ASSERT_TRUE(host.Open(moment % 2 == 0 ? Url() : Url("nothing"), RtmpOptions{}));
        std::this_thread::sleep_for(milliseconds(8 * moment));
        EXPECT_TRUE(host.Close());
    }
    EXPECT_TRUE(WaitFor([&] { return descriptors() <= before; }, seconds(5))) << descriptors() << ", before: " << before;
    EXPECT_EQ(log.CountContaining("A connection attempt does not end"), 0U);
}

class Rtmps : public Rtmp {
  protected:
    void SetUp() override {
        MakeCertificate();
        const std::string address = "127.0.0.1:" + std::to_string(port);
        // TLS 1.2: librtmp takes the session tickets of TLS 1.3, which nginx 1.24 offers by itself, for an error.
        nginx = StartNginx("rtmp { access_log off; server { listen " + address + "; application live { live on; } } }\n" +
                               "stream { server { listen 127.0.0.1:" + std::to_string(tlsPort) +
                               " ssl; ssl_protocols TLSv1.2; ssl_certificate " + dir.File("certificate.pem") +
                               "; ssl_certificate_key " + dir.File("key.pem") + "; proxy_pass " + address + "; } }\n",
                           tlsPort);
    }
    std::string TlsUrl() const { return "rtmps://127.0.0.1:" + std::to_string(tlsPort) + "/live/one"; }

    const uint16_t tlsPort = FreeTcpPort();
};

TEST_F(Rtmps, PlaysWithoutCredentials) {
    const Material &material = GetMaterial("h264_aac");
    const auto publisher = Publish(material);
    Host host(kRtmp);
    ASSERT_TRUE(host.Open(TlsUrl(), RtmpOptions{}));
    ExpectPlays(host, material);
    EXPECT_EQ(log.CountContaining("Modified RTMPS address"), 0U);
    EXPECT_EQ(log.CountContaining("RTMP source reconnect..."), 0U);
}

// The element ends its connection under the hands of its own streaming thread: what holds once may not hold a dozen times.
TEST_F(Rtmps, ClosesAgainAndAgain) {
    const Material &material = GetMaterial("h264_aac");
    const auto publisher = Publish(material);
    for (int round = 0; round < 12; ++round) {
        SCOPED_TRACE(round);
        Host host(kRtmp);
        ASSERT_TRUE(host.Open(TlsUrl(), RtmpOptions{}));
        ASSERT_TRUE(WaitMedia(host, material, milliseconds(500), seconds(20)));
        EXPECT_TRUE(host.Close());
    }
}

// Its library waits for the peer without an end that anybody could bring about, but for the socket's.
TEST_F(Rtmps, ClosesAtOnceWhileThePeerIsSilent) {
    const Material &material = GetMaterial("h264_aac");
    const auto publisher = Publish(material);
    for (int round = 0; round < 3; ++round) {
        SCOPED_TRACE(round);
        Relay relay(tlsPort);
        Host host(kRtmp);
        const std::string url = "rtmps://127.0.0.1:" + std::to_string(relay.Port()) + "/live/one";
        ASSERT_TRUE(host.Open(url, RtmpOptions{}));
        ASSERT_TRUE(WaitMedia(host, material, milliseconds(500), seconds(20)));
        relay.Hold();
        ASSERT_TRUE(WaitFor([&] { return Clock::now() - host.Frames(SHB_VIDEO).back().at > milliseconds(500); }, seconds(20)));
        const auto began = Clock::now();
        EXPECT_TRUE(host.Close());
        // Left alone, it takes twice the time for connecting: 20 s.
        EXPECT_LT(Clock::now() - began, seconds(5));
        EXPECT_EQ(host.State(), "stop");
        // In the middle of the handshake with a peer that says nothing.
        const size_t accepted = relay.Accepted();
        ASSERT_TRUE(host.Open(url, RtmpOptions{}));
        ASSERT_TRUE(WaitFor([&] { return relay.Accepted() > accepted; }, seconds(20)));
        const auto again = Clock::now();
        EXPECT_TRUE(host.Close());
        EXPECT_LT(Clock::now() - again, seconds(5));
    }
}

TEST_F(Rtmps, StallWatchRebuildsAStalledStream) {
    const Material &material = GetMaterial("h264_aac");
    const auto publisher = Publish(material);
    Relay relay(tlsPort);
    Host host(kRtmp);
    const std::string url = "rtmps://127.0.0.1:" + std::to_string(relay.Port()) + "/live/one";
    ASSERT_TRUE(host.Open(url, RtmpOptions{}));
    ASSERT_TRUE(WaitMedia(host, material, seconds(1), seconds(20)));
    const auto epoch = host.Frames(SHB_VIDEO).back().info.epoch;
    relay.Hold();
    ExpectStallWatchNotices(host, Reconnect(url + " live=1"));
    relay.Release();
    EXPECT_TRUE(WaitEpochAfter(host, epoch, seconds(40)));
}

// The credentials become part of the location, where the element takes them for the name of the host.
TEST_F(Rtmps, CredentialsInTheLocationDoNotConnect) {
    const auto publisher = Publish(GetMaterial("h264_aac"));
    const std::string modified = "rtmps://u:p@" + TlsUrl().substr(8) + " live=1";
    Host host(kRtmp);
    RtmpOptions options;
    options.user = "u";
    options.password = "p";
    ASSERT_TRUE(host.Open(TlsUrl(), options));
    EXPECT_TRUE(log.Has("INFO", "[CRtmpSource] Modified RTMPS address... url=" + modified));
    EXPECT_TRUE(log.WaitLine("INFO", Reconnect(modified), seconds(30), 2));
    EXPECT_EQ(host.Count(SHB_VIDEO), 0U);
}

}  // namespace
}  // namespace peers
