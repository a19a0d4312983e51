// RTMP: nginx plays what ffmpeg publishes to it; RTMPS is the same behind nginx's TLS.

#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <iterator>
#include <thread>

#include "harness/PeerTest.h"
#include "harness/Relay.h"

namespace peers {
namespace {

class Rtmp : public PeerTest, public Scene {
  protected:
    void SetUp() override { nginx = Serve(); }

    std::unique_ptr<Process> Serve() { return StartNginx(Blocks(), port); }
    std::string Blocks() const {
        return "rtmp { access_log off; server { listen 127.0.0.1:" + std::to_string(port) +
               "; application live { live on; } } }\n";
    }
    std::unique_ptr<Process> Publish(const Material &material, const std::string &stream = "one") {
        return Send(material, {"-f", "flv", "-flvflags", "no_duration_filesize", Url(stream)});
    }
    std::string Url(const std::string &stream = "one") const { return UrlAt("rtmp", port, "live/" + stream); }
    static std::string UrlAt(const std::string &scheme, uint16_t port, const std::string &path) {
        return scheme + "://127.0.0.1:" + std::to_string(port) + "/" + path;
    }

    const uint16_t port = FreeTcpPort();
    std::unique_ptr<Process> nginx;
};

struct PlayRow {
    const char *name;
    const char *material;
    const char *user = "", *password = "", *token = "";
};

class RtmpPlays : public Rtmp, public testing::WithParamInterface<Group<PlayRow>> {};

TEST_P(RtmpPlays, FramesEqualTheMaterial) {
    SideBySide(GetParam().rows, [&](const PlayRow &row) {
        const Material &material = GetMaterial(row.material);
        const auto publisher = Publish(material, row.name);
        Host host(kRtmp);
        RtmpOptions options;
        options.user = row.user;
        options.password = row.password;
        options.token = row.token;
        ASSERT_TRUE(host.Open(Url(row.name), options));
        ExpectPlays(host, material);
        EXPECT_EQ(Reconnects(host), 0U);
        EXPECT_EQ(log.Has("INFO", "[CRtmpSource] RTMPS set username adn passwd... url=" + Url(row.name)), *row.user != '\0');
        ExpectCloses(host);
    });
}

INSTANTIATE_TEST_SUITE_P(, RtmpPlays,
                         testing::Values(Group<PlayRow>{"h264_aac", {{"h264_aac", "h264_aac"}}},
                                         Group<PlayRow>{"others",
                                                        {{"h264_mp3", "h264_mp3"},
                                                         {"h264_pcma", "h264_pcma"},
                                                         {"h264_pcmu", "h264_pcmu"},
                                                         {"video_only", "h264_only"},
                                                         {"audio_only", "aac_only"},
                                                         {"mp3_only", "mp3_only"},
                                                         // A server that asks for nothing does not mind
                                                         // being told.
                                                         {"credentials_not_asked_for", "h264_aac", "u", "p", "t"}}}),
                         kGroupName);

TEST_F(Rtmp, StreamThatStartsAfterTheOpenIsTaken) {
    const Material &material = GetMaterial("h264_aac");
    Host host(kRtmp);
    ASSERT_TRUE(host.Open(Url(), RtmpOptions{}));
    EXPECT_TRUE(WaitFor([&] { return host.State() == "connected"; }));
    EXPECT_TRUE(HoldsFor([&] { return host.Count(SHB_VIDEO) == 0; }, seconds(2)));
    const auto publisher = Publish(material);
    ExpectPlays(host, material, seconds(2));
    EXPECT_EQ(Reconnects(host), 0U);
}

TEST_F(Rtmp, IdleTimeoutEndsAStreamThatNeverComes) {
    Host host(kRtmp);
    RtmpOptions options;
    options.idleTimeout = 2;
    ASSERT_TRUE(host.Open(Url("nothing"), options));
    ExpectReconnects(host);
}

TEST_F(Rtmp, PublisherThatLeavesAndReturns) {
    const Material &material = GetMaterial("h264_aac");
    auto publisher = Publish(material);
    Host host(kRtmp);
    ASSERT_TRUE(host.Open(Url(), RtmpOptions{}));
    ASSERT_TRUE(WaitMedia(host, material, seconds(2)));
    publisher->Stop();
    ExpectReconnects(host);
    EXPECT_GT(log.Count("", "-------------GST_MESSAGE_EOS"), 0U);
    const auto epoch = host.Epoch();
    publisher = Publish(material);
    ExpectPlaysAfter(epoch, host, material);
}

TEST_F(Rtmp, ServerKilledAndStartedAgain) {
    const Material &material = GetMaterial("h264_aac");
    auto publisher = Publish(material);
    Host host(kRtmp);
    ASSERT_TRUE(host.Open(Url(), RtmpOptions{}));
    ASSERT_TRUE(WaitMedia(host, material, seconds(2)));
    nginx->Kill();
    publisher->Stop();
    // Refused connections are tried again and again.
    ExpectReconnects(host, 2);
    const auto epoch = host.Epoch();
    nginx = Serve();
    publisher = Publish(material);
    ExpectPlaysAfter(epoch, host, material);
}

TEST_F(Rtmp, StallWatchNoticesAPublisherThatIsStopped) {
    const Material &material = GetMaterial("h264_aac");
    const auto publisher = Publish(material);
    Host host(kRtmp);
    ASSERT_TRUE(host.Open(Url(), RtmpOptions{}));
    ASSERT_TRUE(WaitMedia(host, material, seconds(2)));
    const auto epoch = host.Epoch();
    publisher->Pause();
    ExpectStallWatchNotices(host);
    publisher->Resume();
    EXPECT_TRUE(host.WaitEpochAfter(epoch));
}

TEST_F(Rtmp, StallWatchNoticesAServerThatAcceptsAndSaysNothing) {
    const Material &material = GetMaterial("h264_aac");
    const auto publisher = Publish(material);
    Relay relay(port);
    Host host(kRtmp);
    ASSERT_TRUE(host.Open(UrlAt("rtmp", relay.Port(), "live/one"), RtmpOptions{}));
    ASSERT_TRUE(WaitMedia(host, material, seconds(2)));
    const auto epoch = host.Epoch();
    relay.Hold();
    const size_t accepted = relay.Accepted();
    ExpectStallWatchNotices(host);
    // The next connection is taken as well, and hears as little.
    EXPECT_TRUE(WaitFor([&] { return relay.Accepted() > accepted; }));
    relay.Release();
    EXPECT_TRUE(host.WaitEpochAfter(epoch));
}

TEST_F(Rtmp, UnknownApplicationIsRefused) {
    Host host(kRtmp);
    ASSERT_TRUE(host.Open(UrlAt("rtmp", port, "nowhere/one"), RtmpOptions{}));
    ExpectReconnects(host, 2);
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
    ASSERT_TRUE(host.WaitFrames(SHB_VIDEO, 1));
    EXPECT_TRUE(host.Close());
    const auto before = descriptors();
    // The conversation before the first frame takes about 150 ms on an idle machine.
    constexpr int kMoments = 25;
    for (int moment = 0; moment < kMoments; ++moment) {
        ASSERT_TRUE(host.Open(moment % 2 == 0 ? Url() : Url("nothing"), RtmpOptions{}));
        std::this_thread::sleep_for(milliseconds(8 * moment));
        EXPECT_TRUE(host.Close());
    }
    EXPECT_TRUE(WaitFor([&] { return descriptors() <= before; })) << descriptors() << ", before: " << before;
    EXPECT_EQ(log.CountContaining("A connection attempt does not end"), 0U);
}

// What a server offers of TLS. Each offers 1.2, the newest that the
// policy leaves (tools/gst-source/rtmps-gnutls.conf).
struct TlsOffer {
    const char *name;
    const char *directives;
};

constexpr TlsOffer kTls13{"tls13", "ssl_protocols TLSv1.2 TLSv1.3;"};
constexpr TlsOffer kOffersThatLibrtmpTakes[] = {
    {"tls12", "ssl_protocols TLSv1.2;"},
    {"tls12_without_tickets", "ssl_protocols TLSv1.2; ssl_session_tickets off;"},
    // ssl_session_tickets stops those of TLS 1.2 alone.
    {"tls13_without_tickets", "ssl_protocols TLSv1.2 TLSv1.3; ssl_conf_command NumTickets 0;"},
};

class RtmpsServer : public Rtmp {
  protected:
    void SetUp() override {
        MakeCertificate();
        std::string servers;
        for (const TlsOffer &offer : kOffersThatLibrtmpTakes) {
            offers.push_back({offer.name, FreeTcpPort()});
            servers += TlsServer(offer, offers.back().port);
        }
        nginx = StartNginx(Blocks() + "stream { log_format tls '$server_port $ssl_protocol.'; access_log tls.log tls; " +
                               servers + TlsServer(kTls13, tlsPort) + "}\n",
                           tlsPort);
        publisher = Publish(material);
    }
    std::string TlsServer(const TlsOffer &offer, uint16_t at) const {
        return "server { listen 127.0.0.1:" + std::to_string(at) + " ssl; " + offer.directives + " ssl_certificate " +
               dir.File("certificate.pem") + "; ssl_certificate_key " + dir.File("key.pem") +
               "; proxy_pass 127.0.0.1:" + std::to_string(port) + "; }\n";
    }
    std::string TlsUrl() const { return UrlThrough(tlsPort); }
    static std::string UrlThrough(uint16_t port) { return UrlAt("rtmps", port, "live/one"); }
    // The server at this port has ended a connection of this version.
    bool WaitVersion(uint16_t at, const std::string &version) const {
        const std::string line = std::to_string(at) + " " + version + ".";
        return WaitFor([&] { return ReadFile(NginxFile("tls.log")).find(line) != std::string::npos; });
    }
    void ExpectPlaysThrough(uint16_t at, const std::string &version) {
        Host host(kRtmp);
        ASSERT_TRUE(host.Open(UrlThrough(at), RtmpOptions{}));
        ExpectPlays(host, material);
        EXPECT_EQ(Reconnects(host), 0U);
        ExpectCloses(host);
        EXPECT_TRUE(WaitVersion(at, version)) << ReadFile(NginxFile("tls.log"));
    }

    struct Served {
        std::string name;
        uint16_t port;
    };
    const Material &material = GetMaterial("h264_aac");
    // With TLS 1.3 and its tickets, as servers have it that are told nothing.
    const uint16_t tlsPort = FreeTcpPort();
    // Those that librtmp takes as they are.
    std::vector<Served> offers;
    std::unique_ptr<Process> publisher;
};

// A host that has been started as docs/protocols.md says.
class Rtmps : public RtmpsServer {
  protected:
    void SetUp() override {
        ASSERT_NE(std::getenv("GNUTLS_SYSTEM_PRIORITY_FILE"), nullptr) << "run by \"meson test rtmps\", which sets it";
        RtmpsServer::SetUp();
    }
};

// A host that has been started without a word about TLS, and the tool, which needs none.
class RtmpsUnprepared : public RtmpsServer {
  protected:
    void SetUp() override {
        ASSERT_EQ(std::getenv("GNUTLS_SYSTEM_PRIORITY_FILE"), nullptr);
        RtmpsServer::SetUp();
        all = offers;
        all.push_back({kTls13.name, tlsPort});
    }
    std::unique_ptr<Process> StartTool(uint16_t at, const std::vector<std::string> &environment = {}) {
        std::vector<std::string> command = {"env"};
        command.insert(command.end(), environment.begin(), environment.end());
        command.insert(command.end(), {std::getenv("GST_SOURCE_TOOL"), UrlThrough(at), "--frames", "50", "--name",
                                       "peers-tool-" + std::to_string(getpid()) + "-" + std::to_string(at)});
        return Start("gst-source", command);
    }

    std::vector<Served> all;
};

TEST_F(Rtmps, PlaysWhateverTlsTheServerOffers) {
    ExpectPlaysThrough(tlsPort, "TLSv1.2");
    SideBySide(offers, [&](const Served &served) { ExpectPlaysThrough(served.port, "TLSv1.2"); });
}

TEST_F(RtmpsUnprepared, TicketsOfTls13AreTakenForAnError) {
    Host host(kRtmp);
    ASSERT_TRUE(host.Open(TlsUrl(), RtmpOptions{}));
    ExpectReconnects(host, 2);
    EXPECT_EQ(host.Count(SHB_VIDEO), 0U);
    ExpectCloses(host);
    EXPECT_TRUE(WaitVersion(tlsPort, "TLSv1.3")) << ReadFile(NginxFile("tls.log"));
}

TEST_F(RtmpsUnprepared, OtherServersPlay) {
    SideBySide(offers, [&](const Served &served) {
        ExpectPlaysThrough(served.port, served.name == "tls13_without_tickets" ? "TLSv1.3" : "TLSv1.2");
    });
}

TEST_F(RtmpsUnprepared, ToolPlaysWhateverTlsTheServerOffers) {
    SideBySide(all, [&](const Served &served) {
        const auto tool = StartTool(served.port);
        EXPECT_EQ(tool->Wait(), 0) << tool->Output();
        EXPECT_TRUE(WaitVersion(served.port, "TLSv1.2")) << ReadFile(NginxFile("tls.log"));
    });
}

TEST_F(RtmpsUnprepared, ToolLeavesThePolicyToTheUser) {
    const auto tool = StartTool(tlsPort, {"GNUTLS_SYSTEM_PRIORITY_FILE="});
    EXPECT_TRUE(WaitFor([&] { return tool->Output().find("RTMP source reconnect...") != std::string::npos; }));
    tool->Stop();
    EXPECT_NE(tool->Output().find("gst-source: nothing arrived from source 0"), std::string::npos) << tool->Output();
    EXPECT_TRUE(WaitVersion(tlsPort, "TLSv1.3")) << ReadFile(NginxFile("tls.log"));
}

TEST_F(Rtmps, PlaysWithoutCredentials) {
    Host host(kRtmp);
    ASSERT_TRUE(host.Open(TlsUrl(), RtmpOptions{}));
    ExpectPlays(host, material);
    EXPECT_EQ(log.CountContaining("Modified RTMPS address"), 0U);
    EXPECT_EQ(Reconnects(host), 0U);
}

// The element ends its connection under the hands of its own streaming
// thread: what holds once may not hold a dozen times.
TEST_F(Rtmps, ClosesAgainAndAgain) {
    for (int round = 0; round < 12; ++round) {
        SCOPED_TRACE(round);
        Host host(kRtmp);
        ASSERT_TRUE(host.Open(TlsUrl(), RtmpOptions{}));
        ASSERT_TRUE(WaitMedia(host, material, milliseconds(500)));
        EXPECT_TRUE(host.Close());
    }
}

// Its library waits for the peer without an end that anybody could bring about, but for the socket's.
TEST_F(Rtmps, ClosesAtOnceWhileThePeerIsSilent) {
    // Left alone, it takes twice the time for connecting.
    RtmpOptions options;
    options.contimeout = 30;
    constexpr auto kAtOnce = seconds(30);
    for (int round = 0; round < 3; ++round) {
        SCOPED_TRACE(round);
        Relay relay(tlsPort);
        Host host(kRtmp);
        ASSERT_TRUE(host.Open(UrlThrough(relay.Port()), options));
        ASSERT_TRUE(WaitMedia(host, material, milliseconds(500)));
        relay.Hold();
        ASSERT_TRUE(WaitFor([&] { return host.Silence() > milliseconds(500); }));
        ExpectCloses(host, kAtOnce);
        // In the middle of the handshake with a peer that says nothing.
        const size_t accepted = relay.Accepted();
        ASSERT_TRUE(host.Open(UrlThrough(relay.Port()), options));
        ASSERT_TRUE(WaitFor([&] { return relay.Accepted() > accepted; }));
        ExpectCloses(host, kAtOnce);
    }
}

TEST_F(Rtmps, StallWatchRebuildsAStalledStream) {
    Relay relay(tlsPort);
    Host host(kRtmp);
    ASSERT_TRUE(host.Open(UrlThrough(relay.Port()), RtmpOptions{}));
    ASSERT_TRUE(WaitMedia(host, material, seconds(1)));
    const auto epoch = host.Epoch();
    relay.Hold();
    ExpectStallWatchNotices(host);
    relay.Release();
    EXPECT_TRUE(host.WaitEpochAfter(epoch));
}

// The credentials become part of the location, where the element takes them for the name of the host.
TEST_F(Rtmps, CredentialsInTheLocationDoNotConnect) {
    const std::string modified = "rtmps://u:p@" + TlsUrl().substr(8) + " live=1";
    Host host(kRtmp);
    RtmpOptions options;
    options.user = "u";
    options.password = "p";
    ASSERT_TRUE(host.Open(TlsUrl(), options));
    EXPECT_TRUE(log.Has("INFO", "[CRtmpSource] Modified RTMPS address... url=" + modified));
    EXPECT_TRUE(log.WaitLine("INFO", "[CRtmpSource] RTMP source reconnect..." + modified, 2));
    EXPECT_EQ(host.Count(SHB_VIDEO), 0U);
}

}  // namespace
}  // namespace peers
