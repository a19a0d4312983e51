// RTSP: a server built on gst-rtsp-server, and VLC's as a second one that shares no code with it.

#include <gio/gio.h>

#include <algorithm>

#include "harness/PeerTest.h"

namespace peers {
namespace {

constexpr unsigned kUdpOnly = 1;
constexpr unsigned kTcpOnly = 4;
constexpr uid_t kNobody = 65534;

size_t Requests(const Process &server, const std::string &method) {
    const auto all = server.Told("request ");
    return static_cast<size_t>(std::count(all.begin(), all.end(), method));
}

size_t Answers(const Process &server, const std::string &status) {
    const auto all = server.Told("response ");
    return static_cast<size_t>(std::count(all.begin(), all.end(), status));
}

std::string Url(unsigned port, const std::string &scheme = "rtsp", const std::string &login = "") {
    return scheme + "://" + login + "127.0.0.1:" + std::to_string(port) + "/stream";
}

std::string Url(const Process &server) {
    return Url(server.Number("port"));
}

// The options of a server that takes the place of one that listened at the address.
std::vector<std::string> InPlaceOf(const Process &server) {
    return {"--port", std::to_string(server.Number("port"))};
}

struct PlayRow {
    const char *name;
    const char *material;
    unsigned protocols;
    std::vector<std::string> server = {};
    const char *user = "", *password = "";
    const char *login = "";  // in the URL
};

class Rtsp : public PeerTest, public Scene {};
class RtspPlays : public PeerTest, public testing::WithParamInterface<Group<PlayRow>> {};

TEST_P(RtspPlays, FramesEqualTheMaterial) {
    SideBySide(GetParam().rows, [&](const PlayRow &row) {
        const Material &material = GetMaterial(row.material);
        Scene scene;
        const auto server = scene.ServeRtsp(material, row.server);
        Host host(kRtsp);
        RtspOptions options;
        options.protocols = row.protocols;
        options.user = row.user;
        options.password = row.password;
        ASSERT_TRUE(host.Open(Url(server->Number("port"), "rtsp", row.login), options));
        ExpectPlays(host, material);
        EXPECT_EQ(Reconnects(host), 0U);
        ExpectCloses(host);
        // The server is told good-bye.
        EXPECT_TRUE(WaitFor([&] { return Requests(*server, "TEARDOWN") == 1; }));
    });
}

const std::vector<std::string> kBasic = {"--auth", "basic", "--user", "u", "--password", "p w"};
const std::vector<std::string> kDigest = {"--auth", "digest", "--user", "u", "--password", "p w"};
const std::vector<std::string> kDigestForUrl = {"--auth", "digest", "--user", "u", "--password", "p"};

INSTANTIATE_TEST_SUITE_P(
    , RtspPlays,
    testing::Values(Group<PlayRow>{"h264_aac_tcp", {{"h264_aac_tcp", "h264_aac", kTcpOnly}}},
                    Group<PlayRow>{"codecs",
                                   {{"h264_aac_udp", "h264_aac", kUdpOnly},
                                    {"h265_aac_tcp", "h265_aac", kTcpOnly},
                                    {"h265_opus_udp", "h265_opus", kUdpOnly},
                                    {"h264_opus_tcp", "h264_opus", kTcpOnly},
                                    {"h264_pcma_tcp", "h264_pcma", kTcpOnly},
                                    {"h264_pcmu_udp", "h264_pcmu", kUdpOnly},
                                    {"video_only", "h264_only", kTcpOnly},
                                    {"audio_only", "aac_only", kTcpOnly},
                                    {"reordered_pictures", "h264_bframes", kTcpOnly}}},
                    Group<PlayRow>{"servers",
                                   {{"either_transport_udp_server", "h264_aac", kUdpOnly | kTcpOnly, {"--transports", "udp"}},
                                    {"either_transport_tcp_server", "h264_aac", kUdpOnly | kTcpOnly, {"--transports", "tcp"}},
                                    {"metadata_tcp", "h264_aac", kTcpOnly, {"--metadata"}},
                                    {"metadata_udp", "h264_aac", kUdpOnly, {"--metadata"}},
                                    {"basic", "h264_aac", kTcpOnly, kBasic, "u", "p w"},
                                    {"digest", "h264_aac", kTcpOnly, kDigest, "u", "p w"},
                                    {"digest_in_url", "h264_aac", kTcpOnly, kDigestForUrl, "", "", "u:p@"}}}),
    kGroupName);

// Nothing arrives, the session ends, and the source keeps asking.
TEST_F(Rtsp, RefusedAsksAgainAndDeliversNothing) {
    struct RefusedRow {
        const char *name;
        std::vector<std::string> server;
        unsigned protocols;
        const char *user, *password;
        const char *answer;
    };
    const RefusedRow rows[] = {
        {"basic_wrong_password", kBasic, kTcpOnly, "u", "x", "401"},
        {"basic_no_credentials", kBasic, kTcpOnly, "", "", "401"},
        {"digest_wrong_password", kDigest, kTcpOnly, "u", "x", "401"},
        {"digest_wrong_user", kDigest, kTcpOnly, "x", "p w", "401"},
        // One of the two alone is as good as none.
        {"digest_user_without_password", kDigest, kTcpOnly, "u", "", "401"},
        {"digest_no_credentials", kDigest, kTcpOnly, "", "", "401"},
        {"tcp_against_udp_server", {"--transports", "udp"}, kTcpOnly, "", "", "461"},
        {"udp_against_tcp_server", {"--transports", "tcp"}, kUdpOnly, "", "", "461"},
    };
    SideBySide(rows, [&](const RefusedRow &row) {
        Scene scene;
        const auto server = scene.ServeRtsp(GetMaterial("h264_aac"), row.server);
        const std::string url = Url(*server);
        Host host(kRtsp);
        RtspOptions options;
        options.protocols = row.protocols;
        options.user = row.user;
        options.password = row.password;
        ASSERT_TRUE(host.Open(url, options));
        ExpectReconnects(host);
        EXPECT_TRUE(log.Has("ERR", "[CRtspSource] DoBusMessage--------------error!! URL=" + url));
        const size_t refused = Answers(*server, row.answer);
        EXPECT_GT(refused, 0U);
        EXPECT_TRUE(WaitFor([&] { return Answers(*server, row.answer) > refused; })) << "asked once only";
        EXPECT_EQ(Requests(*server, "PLAY"), 0U);
        EXPECT_EQ(host.Count(SHB_VIDEO) + host.Count(SHB_AUDIO), 0U);
        EXPECT_TRUE(host.Calls().empty());
        EXPECT_EQ(log.Has("INFO", "[CRtspSource] Set user-id and user-pw. URL=" + url),
                  *row.user != '\0' && *row.password != '\0');
    });
}

TEST_F(Rtsp, ServerKilledAndStartedAgain) {
    struct RestartRow {
        const char *name;
        unsigned protocols;
    };
    const RestartRow rows[] = {{"tcp", kTcpOnly}, {"udp", kUdpOnly}};
    SideBySide(rows, [&](const RestartRow &row) {
        const Material &material = GetMaterial("h264_aac");
        Scene scene;
        auto server = scene.ServeRtsp(material);
        Host host(kRtsp);
        RtspOptions options;
        options.protocols = row.protocols;
        ASSERT_TRUE(host.Open(Url(*server), options));
        ASSERT_TRUE(WaitMedia(host, material, seconds(2)));
        server->Kill();
        // It stays away for one more attempt.
        ExpectReconnects(host, 2);
        const auto epoch = host.Epoch();
        server = scene.ServeRtsp(material, InPlaceOf(*server));
        ExpectPlaysAfter(epoch, host, material);
        // This protocol forgets its records before a rebuild, and so
        // calls again for a stream that has not changed.
        EXPECT_EQ(host.Calls(0).size(), 2U);
        EXPECT_EQ(host.Calls(1).size(), 2U);
    });
}

TEST_F(Rtsp, StallWatchNoticesAServerThatIsStopped) {
    const Material &material = GetMaterial("h264_aac");
    const auto server = ServeRtsp(material);
    Host host(kRtsp);
    ASSERT_TRUE(host.Open(Url(*server), RtspOptions{}));
    ASSERT_TRUE(WaitMedia(host, material, seconds(2)));
    const auto epoch = host.Epoch();
    server->Pause();
    ExpectStallWatchNotices(host);
    server->Resume();
    EXPECT_TRUE(host.WaitEpochAfter(epoch));
}

// A server that comes up after the source has been opened.
TEST_F(Rtsp, ServerThatStartsLateIsTaken) {
    const Material &material = GetMaterial("h264_aac");
    const uint16_t port = FreeTcpPort();
    Host host(kRtsp);
    ASSERT_TRUE(host.Open(Url(port), RtspOptions{}));
    ExpectReconnects(host);
    const auto server = ServeRtsp(material, {"--port", std::to_string(port)});
    ExpectPlays(host, material, seconds(2));
}

// The same server may come back with another stream.
TEST_F(Rtsp, ServerReturnsWithAnotherCodec) {
    const Material &before = GetMaterial("h264_aac");
    const Material &after = GetMaterial("h265_opus");
    auto server = ServeRtsp(before);
    Host host(kRtsp);
    ASSERT_TRUE(host.Open(Url(*server), RtspOptions{}));
    ASSERT_TRUE(WaitMedia(host, before, seconds(1)));
    server->Kill();
    const auto epoch = host.Epoch();
    server = ServeRtsp(after, InPlaceOf(*server));
    ASSERT_TRUE(host.WaitEpochAfter(epoch));
    ExpectTruth(after, host);
    const auto frames = host.Frames(SHB_VIDEO);
    const auto change = std::find_if(frames.begin(), frames.end(), [&](const Frame &f) { return f.info.epoch != epoch; });
    EXPECT_TRUE(SameVideo(after, {change, frames.end()}, 50));
}

class RtspTls : public Rtsp {
  protected:
    void SetUp() override {
        MakeCertificate();
        WriteFile(dir.File("both.pem"), ReadFile(dir.File("certificate.pem")) + ReadFile(dir.File("key.pem")));
        server = ServeRtsp(material, {"--certificate", dir.File("both.pem")});
        url = Url(server->Number("port"), "rtsps");
    }
    void TearDown() override {
        Trust(nullptr);
        Rtsp::TearDown();
    }
    // What the process takes for known authorities; null is the system's own list.
    static void Trust(const char *file) {
        GTlsDatabase *database = file != nullptr ? g_tls_file_database_new(file, nullptr) : nullptr;
        g_tls_backend_set_default_database(g_tls_backend_get_default(), database);
        g_clear_object(&database);
    }

    const Material &material = GetMaterial("h264_aac");
    std::unique_ptr<Process> server;
    std::string url;
};

TEST_F(RtspTls, KnownCertificatePlays) {
    Trust(dir.File("certificate.pem").c_str());
    Host host(kRtsp);
    ASSERT_TRUE(host.Open(url, RtspOptions{}));
    ExpectPlays(host, material, seconds(2));
}

TEST_F(RtspTls, UnknownCertificateIsRefused) {
    Host host(kRtsp);
    ASSERT_TRUE(host.Open(url, RtspOptions{}));
    ExpectReconnects(host);
    EXPECT_EQ(Requests(*server, "DESCRIBE"), 0U);
    EXPECT_EQ(host.Count(SHB_VIDEO), 0U);
}

// VLC's server knows no interleaved transport.
TEST_F(Rtsp, VlcPlaysOverUdpAndRefusesTcp) {
    const Material &material = GetMaterial("h264_aac");
    const std::string ts = dir.File("stream.ts");
    RunCommand({"ffmpeg", "-nostdin", "-v", "error", "-i", material.path, "-map", "0", "-c", "copy", ts}, dir.File("ts.out"));
    const uint16_t port = FreeTcpPort();
    // VLC does not run as root.
    const auto vlc = Start("vlc",
                           {"env", "HOME=" + dir.Path(), "cvlc", "-I", "dummy", "--no-dbus", "--loop", ts, "--sout-keep",
                            "--sout", "#rtp{sdp=" + Url(port) + "}"},
                           kNobody);
    ASSERT_TRUE(WaitFor([&] { return TcpListening(port); }));
    Host refused(kRtsp);
    Host host(kRtsp);
    RtspOptions options;
    options.protocols = kTcpOnly;
    ASSERT_TRUE(refused.Open(Url(port), options));
    ExpectReconnects(refused);
    options.protocols = kUdpOnly;
    ASSERT_TRUE(host.Open(Url(port), options));
    ExpectPlays(host, material);
    EXPECT_EQ(refused.Count(SHB_VIDEO), 0U);
}

}  // namespace
}  // namespace peers
