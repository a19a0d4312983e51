// RTSP: a server built on gst-rtsp-server, and VLC's as a second one that shares no code with it.

#include <gio/gio.h>

#include <algorithm>
#include <cstdlib>
#include <ostream>
#include <sstream>

#include "harness/PeerTest.h"

namespace peers {
namespace {

constexpr int kRtsp = 0;
constexpr unsigned kUdpOnly = 1;
constexpr unsigned kTcpOnly = 4;
constexpr uid_t kNobody = 65534;

class Rtsp : public PeerTest {
  protected:
    std::unique_ptr<Process> Serve(const Material &material, const std::vector<std::string> &more = {}) {
        std::vector<std::string> args = {std::getenv("PEERS_RTSP_SERVER"), "--file", material.path};
        const auto add = [&](const char *option, std::string codec) {
            std::transform(codec.begin(), codec.end(), codec.begin(), [](unsigned char c) { return std::tolower(c); });
            if (!codec.empty()) {
                args.insert(args.end(), {option, codec});
            }
        };
        add("--video", material.VideoName());
        add("--audio", material.AudioName());
        args.insert(args.end(), more.begin(), more.end());
        if (port != 0) {
            args.insert(args.end(), {"--port", std::to_string(port)});
        }
        auto server = Start("rtsp-server", args);
        // A restarted server writes behind its predecessor's lines.
        ++serversStarted;
        EXPECT_TRUE(WaitFor([&] { return Lines(*server, "port ").size() >= serversStarted; }, seconds(10)));
        const auto ports = Lines(*server, "port ");
        port = ports.empty() ? uint16_t{0} : static_cast<uint16_t>(std::stoi(ports.back()));
        return server;
    }

    static std::vector<std::string> Lines(const Process &server, const std::string &prefix) {
        std::vector<std::string> found;
        std::istringstream all(server.Output());
        for (std::string line; std::getline(all, line);) {
            if (line.rfind(prefix, 0) == 0) {
                found.push_back(line.substr(prefix.size()));
            }
        }
        return found;
    }

    static size_t Requests(const Process &server, const std::string &method) {
        const auto all = Lines(server, "request ");
        return static_cast<size_t>(std::count(all.begin(), all.end(), method));
    }

    static size_t Answers(const Process &server, const std::string &status) {
        const auto all = Lines(server, "response ");
        return static_cast<size_t>(std::count(all.begin(), all.end(), status));
    }

    std::string Url(const std::string &scheme = "rtsp", const std::string &login = "") const {
        return scheme + "://" + login + "127.0.0.1:" + std::to_string(port) + "/stream";
    }

    uint16_t port = 0;
    size_t serversStarted = 0;
};

struct PlayRow {
    const char *name;
    const char *material;
    std::vector<std::string> server;
    unsigned protocols;
    const char *login;  // in the URL
    const char *user, *password;
};

std::ostream &operator<<(std::ostream &out, const PlayRow &row) {
    return out << row.name;
}

class RtspPlays : public Rtsp, public testing::WithParamInterface<PlayRow> {};

TEST_P(RtspPlays, FramesEqualTheMaterial) {
    const PlayRow &row = GetParam();
    const Material &material = GetMaterial(row.material);
    const auto server = Serve(material, row.server);
    Host host(kRtsp);
    RtspOptions options;
    options.protocols = row.protocols;
    options.user = row.user;
    options.password = row.password;
    ASSERT_TRUE(host.Open(Url("rtsp", row.login), options));
    ExpectPlays(host, material, seconds(3));
    EXPECT_EQ(log.CountContaining("Rtsp source reconnect..."), 0U);
    EXPECT_TRUE(host.Close());
    // The server is told good-bye.
    EXPECT_TRUE(WaitFor([&] { return Requests(*server, "TEARDOWN") == 1; }, seconds(5)));
}

INSTANTIATE_TEST_SUITE_P(
    , RtspPlays,
    testing::Values(
        PlayRow{"h264_aac_tcp", "h264_aac", {}, kTcpOnly, "", "", ""},
        PlayRow{"h264_aac_udp", "h264_aac", {}, kUdpOnly, "", "", ""},
        PlayRow{"h265_aac_tcp", "h265_aac", {}, kTcpOnly, "", "", ""},
        PlayRow{"h265_opus_udp", "h265_opus", {}, kUdpOnly, "", "", ""},
        PlayRow{"h264_opus_tcp", "h264_opus", {}, kTcpOnly, "", "", ""},
        PlayRow{"h264_pcma_tcp", "h264_pcma", {}, kTcpOnly, "", "", ""},
        PlayRow{"h264_pcmu_udp", "h264_pcmu", {}, kUdpOnly, "", "", ""},
        PlayRow{"video_only", "h264_only", {}, kTcpOnly, "", "", ""},
        PlayRow{"audio_only", "aac_only", {}, kTcpOnly, "", "", ""},
        PlayRow{"reordered_pictures", "h264_bframes", {}, kTcpOnly, "", "", ""},
        PlayRow{"either_transport_udp_server", "h264_aac", {"--transports", "udp"}, kUdpOnly | kTcpOnly, "", "", ""},
        PlayRow{"either_transport_tcp_server", "h264_aac", {"--transports", "tcp"}, kUdpOnly | kTcpOnly, "", "", ""},
        PlayRow{"metadata_tcp", "h264_aac", {"--metadata"}, kTcpOnly, "", "", ""},
        PlayRow{"metadata_udp", "h264_aac", {"--metadata"}, kUdpOnly, "", "", ""},
        PlayRow{"basic", "h264_aac", {"--auth", "basic", "--user", "u", "--password", "p w"}, kTcpOnly, "", "u", "p w"},
        PlayRow{"digest", "h264_aac", {"--auth", "digest", "--user", "u", "--password", "p w"}, kTcpOnly, "", "u", "p w"},
        PlayRow{"digest_in_url", "h264_aac", {"--auth", "digest", "--user", "u", "--password", "p"}, kTcpOnly, "u:p@", "", ""}),
    [](const auto &row) { return row.param.name; });

struct RefusedRow {
    const char *name;
    std::vector<std::string> server;
    unsigned protocols;
    const char *user, *password;
    const char *answer;
};

std::ostream &operator<<(std::ostream &out, const RefusedRow &row) {
    return out << row.name;
}

class RtspRefused : public Rtsp, public testing::WithParamInterface<RefusedRow> {};

// Nothing arrives, the session ends, and the source keeps asking.
TEST_P(RtspRefused, AsksAgainAndDeliversNothing) {
    const RefusedRow &row = GetParam();
    const auto server = Serve(GetMaterial("h264_aac"), row.server);
    Host host(kRtsp);
    RtspOptions options;
    options.protocols = row.protocols;
    options.user = row.user;
    options.password = row.password;
    ASSERT_TRUE(host.Open(Url(), options));
    EXPECT_TRUE(log.WaitLine("INFO", "[CRtspSource] Rtsp source reconnect..." + Url(), seconds(20)));
    EXPECT_TRUE(log.Has("ERR", "[CRtspSource] DoBusMessage--------------error!! URL=" + Url()));
    EXPECT_TRUE(host.SawState("reconnect"));
    const size_t refused = Answers(*server, row.answer);
    EXPECT_GT(refused, 0U);
    EXPECT_TRUE(WaitFor([&] { return Answers(*server, row.answer) > refused; }, seconds(15))) << "asked once only";
    EXPECT_EQ(Requests(*server, "PLAY"), 0U);
    EXPECT_EQ(host.Count(SHB_VIDEO) + host.Count(SHB_AUDIO), 0U);
    EXPECT_TRUE(host.Calls().empty());
    EXPECT_EQ(log.CountContaining("Set user-id and user-pw") > 0, *row.user != '\0' && *row.password != '\0');
}

const std::vector<std::string> kBasic = {"--auth", "basic", "--user", "u", "--password", "p"};
const std::vector<std::string> kDigest = {"--auth", "digest", "--user", "u", "--password", "p"};

INSTANTIATE_TEST_SUITE_P(, RtspRefused,
                         testing::Values(RefusedRow{"basic_wrong_password", kBasic, kTcpOnly, "u", "x", "401"},
                                         RefusedRow{"basic_no_credentials", kBasic, kTcpOnly, "", "", "401"},
                                         RefusedRow{"digest_wrong_password", kDigest, kTcpOnly, "u", "x", "401"},
                                         RefusedRow{"digest_wrong_user", kDigest, kTcpOnly, "x", "p", "401"},
                                         // One of the two alone is as good as none.
                                         RefusedRow{"digest_user_without_password", kDigest, kTcpOnly, "u", "", "401"},
                                         RefusedRow{"digest_no_credentials", kDigest, kTcpOnly, "", "", "401"},
                                         RefusedRow{"tcp_against_udp_server", {"--transports", "udp"}, kTcpOnly, "", "", "461"},
                                         RefusedRow{
                                             "udp_against_tcp_server", {"--transports", "tcp"}, kUdpOnly, "", "", "461"}),
                         [](const auto &row) { return row.param.name; });

struct RestartRow {
    const char *name;
    unsigned protocols;
};

std::ostream &operator<<(std::ostream &out, const RestartRow &row) {
    return out << row.name;
}

class RtspRestart : public Rtsp, public testing::WithParamInterface<RestartRow> {};

TEST_P(RtspRestart, ServerKilledAndStartedAgain) {
    const Material &material = GetMaterial("h264_aac");
    auto server = Serve(material);
    Host host(kRtsp);
    RtspOptions options;
    options.protocols = GetParam().protocols;
    ASSERT_TRUE(host.Open(Url(), options));
    ASSERT_TRUE(WaitMedia(host, material, seconds(2), seconds(20)));
    server->Kill();
    EXPECT_TRUE(log.WaitLine("INFO", "[CRtspSource] Rtsp source reconnect..." + Url(), seconds(20)));
    EXPECT_TRUE(host.SawState("reconnect"));
    const auto epoch = host.Frames(SHB_VIDEO).back().info.epoch;
    // It stays away for one more attempt.
    EXPECT_TRUE(log.WaitLine("INFO", "[CRtspSource] Rtsp source reconnect..." + Url(), seconds(20), 2));
    server = Serve(material);
    ASSERT_TRUE(WaitFor([&] { return host.Frames(SHB_VIDEO).back().info.epoch > epoch; }, seconds(20)));
    ExpectPlays(host, material, seconds(2));
    // This protocol forgets its records before a rebuild, and so calls again for a stream that has not changed.
    EXPECT_EQ(host.Calls(0).size(), 2U);
    EXPECT_EQ(host.Calls(1).size(), 2U);
}

INSTANTIATE_TEST_SUITE_P(, RtspRestart, testing::Values(RestartRow{"tcp", kTcpOnly}, RestartRow{"udp", kUdpOnly}),
                         [](const auto &row) { return row.param.name; });

// A server that comes up after the source has been opened.
TEST_F(Rtsp, StallWatchNoticesAServerThatIsStopped) {
    const Material &material = GetMaterial("h264_aac");
    const auto server = Serve(material);
    Host host(kRtsp);
    RtspOptions options;
    options.protocols = kTcpOnly;
    ASSERT_TRUE(host.Open(Url(), options));
    ASSERT_TRUE(WaitMedia(host, material, seconds(2), seconds(20)));
    const auto epoch = host.Frames(SHB_VIDEO).back().info.epoch;
    server->Pause();
    ExpectStallWatchNotices(host, "[CRtspSource] Rtsp source reconnect..." + Url());
    server->Resume();
    EXPECT_TRUE(WaitEpochAfter(host, epoch, seconds(40)));
}

TEST_F(Rtsp, ServerThatStartsLateIsTaken) {
    const Material &material = GetMaterial("h264_aac");
    port = FreeTcpPort();
    Host host(kRtsp);
    ASSERT_TRUE(host.Open(Url(), RtspOptions{}));
    ASSERT_TRUE(log.WaitLine("INFO", "[CRtspSource] Rtsp source reconnect..." + Url(), seconds(20)));
    const auto server = Serve(material);
    ExpectPlays(host, material, seconds(2));
}

// The same server may come back with another stream.
TEST_F(Rtsp, ServerReturnsWithAnotherCodec) {
    const Material &before = GetMaterial("h264_aac");
    const Material &after = GetMaterial("h265_opus");
    auto server = Serve(before);
    Host host(kRtsp);
    ASSERT_TRUE(host.Open(Url(), RtspOptions{}));
    ASSERT_TRUE(WaitMedia(host, before, seconds(1), seconds(20)));
    server->Kill();
    const auto epoch = host.Frames(SHB_VIDEO).back().info.epoch;
    server = Serve(after);
    ASSERT_TRUE(WaitFor([&] { return host.Frames(SHB_VIDEO).back().info.epoch > epoch && host.CountOfEpoch(SHB_VIDEO) > 60; },
                        seconds(20)));
    ExpectTruth(after, host);
    auto frames = host.Frames(SHB_VIDEO);
    const auto change = std::find_if(frames.begin(), frames.end(), [&](const Frame &f) { return f.info.epoch != epoch; });
    EXPECT_TRUE(SameVideo(after, {change, frames.end()}, 50));
}

class RtspTls : public Rtsp {
  protected:
    void SetUp() override {
        MakeCertificate();
        WriteFile(dir.File("both.pem"), ReadFile(dir.File("certificate.pem")) + ReadFile(dir.File("key.pem")));
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
};

TEST_F(RtspTls, KnownCertificatePlays) {
    const Material &material = GetMaterial("h264_aac");
    const auto server = Serve(material, {"--certificate", dir.File("both.pem")});
    Trust(dir.File("certificate.pem").c_str());
    Host host(kRtsp);
    ASSERT_TRUE(host.Open(Url("rtsps"), RtspOptions{}));
    ExpectPlays(host, material, seconds(2));
}

TEST_F(RtspTls, UnknownCertificateIsRefused) {
    const auto server = Serve(GetMaterial("h264_aac"), {"--certificate", dir.File("both.pem")});
    Host host(kRtsp);
    ASSERT_TRUE(host.Open(Url("rtsps"), RtspOptions{}));
    EXPECT_TRUE(log.WaitLine("INFO", "[CRtspSource] Rtsp source reconnect..." + Url("rtsps"), seconds(20)));
    EXPECT_EQ(Requests(*server, "DESCRIBE"), 0U);
    EXPECT_EQ(host.Count(SHB_VIDEO), 0U);
}

class RtspVlc : public Rtsp {
  protected:
    // VLC does not run as root.
    std::unique_ptr<Process> ServeVlc(const Material &material) {
        const std::string ts = dir.File("stream.ts");
        RunCommand({"ffmpeg", "-nostdin", "-v", "error", "-i", material.path, "-map", "0", "-c", "copy", ts},
                   dir.File("ts.out"));
        port = FreeTcpPort();
        auto vlc = Start("vlc",
                         {"env", "HOME=" + dir.Path(), "cvlc", "-I", "dummy", "--no-dbus", "--loop", ts, "--sout-keep",
                          "--sout", "#rtp{sdp=rtsp://127.0.0.1:" + std::to_string(port) + "/stream}"},
                         kNobody);
        EXPECT_TRUE(WaitFor([&] { return TcpListening(port); }, seconds(20)));
        return vlc;
    }
};

TEST_F(RtspVlc, PlaysOverUdp) {
    const Material &material = GetMaterial("h264_aac");
    const auto vlc = ServeVlc(material);
    Host host(kRtsp);
    RtspOptions options;
    options.protocols = kUdpOnly;
    ASSERT_TRUE(host.Open(Url(), options));
    ExpectPlays(host, material, seconds(3), seconds(30));
}

// It knows no interleaved transport.
TEST_F(RtspVlc, RefusesTcp) {
    const auto vlc = ServeVlc(GetMaterial("h264_aac"));
    Host host(kRtsp);
    ASSERT_TRUE(host.Open(Url(), RtspOptions{}));
    EXPECT_TRUE(log.WaitLine("INFO", "[CRtspSource] Rtsp source reconnect..." + Url(), seconds(20)));
    EXPECT_EQ(host.Count(SHB_VIDEO), 0U);
}

}  // namespace
}  // namespace peers
