// Why a source does not play, provoked by real peers: the library's line
// and what gst-source shows of it name each cause.

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <functional>
#include <sstream>

#include "harness/Damage.h"
#include "harness/PeerTest.h"

namespace peers {
namespace {

using Args = std::vector<std::string>;

// The peers of one group of causes, and what a row needs of them.
struct Stage {
    Scene *scene = nullptr;
    std::string http, https, silent, closing, emptyRtsp, rtsp, rtspAuth, rtspTls, rtspUdp, rtmp, srt, udpTaken, blackHole;
    std::string refused;  // "127.0.0.1:PORT" of nobody
    const Material *material = nullptr;
    Args launcher;  // what starts the tool, empty for nothing
};

struct Row {
    const char *name;
    // The tool's arguments, location first.
    std::function<Args(const Stage &)> arguments;
    const char *kind;  // "Error", "Warning", or "" where it depends on the release
    const char *element;
    const char *text;  // a part of the sentence
    const char *code;  // "" for none
};

std::string Local(unsigned port) {
    return "127.0.0.1:" + std::to_string(port);
}

// A name that no resolver knows.
constexpr char kNobody[] = "no-such-host.invalid";

// Whether a line holds all parts, in their order.
bool HasLine(const std::string &all, const std::vector<std::string> &parts) {
    std::istringstream lines(all);
    for (std::string line; std::getline(lines, line);) {
        size_t at = 0;
        const bool holds = std::all_of(parts.begin(), parts.end(), [&](const std::string &part) {
            at = line.find(part, at);
            return at != std::string::npos;
        });
        if (holds) {
            return true;
        }
    }
    return false;
}

void ExpectNamed(const Stage &stage, const Row &row) {
    Scene scene;
    const std::string log = scene.dir.File("log");
    Args args = stage.launcher;
    for (const Args &more :
         {Args{std::getenv("GST_SOURCE_TOOL"), "--json", "--interval", "0.2", "--log", log}, row.arguments(stage)}) {
        args.insert(args.end(), more.begin(), more.end());
    }
    const auto tool = scene.Start("gst-source", args);
    const std::string code = row.code;
    const std::vector<std::string> line = {"[GSTREAMER] " + std::string(row.kind),
                                           " from \"" + std::string(row.element),
                                           "\": ",
                                           row.text,
                                           code.empty() ? "" : " (" + code + ")",
                                           ". URL="};
    const std::vector<std::string> record = {
        "\"last_error\":\"", row.text,
        "\",\"last_error_code\":" + (code.empty() ? "null" : "\"" + code + "\"") + ",\"last_error_time\":\"20",
        "Z\",\"attempts\":"};
    const auto text = [&] { return access(log.c_str(), R_OK) == 0 ? ReadFile(log) : std::string(); };
    EXPECT_TRUE(WaitFor([&] { return HasLine(text(), line); })) << row.name << "\n" << text();
    EXPECT_TRUE(WaitFor([&] { return HasLine(tool->Output(), record); })) << row.name << "\n" << tool->Output();
    for (const char *secret : {"hidden", "wrongsecret"}) {
        const std::string all = text();
        for (size_t at = all.find("[GSTREAMER] "); at != std::string::npos; at = all.find("[GSTREAMER] ", at + 1)) {
            EXPECT_EQ(all.substr(at, all.find('\n', at) - at).find(secret), std::string::npos) << row.name;
        }
    }
    tool->Stop();
}

// A listener that takes no connection any more: the next one stays without an answer.
class FullListener {
  public:
    FullListener() {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        auto *const place = static_cast<sockaddr *>(static_cast<void *>(&address));
        socklen_t size = sizeof address;
        bind(sockets_[0], place, size);
        listen(sockets_[0], 0);
        getsockname(sockets_[0], place, &size);
        port_ = ntohs(address.sin_port);
        // One waits to be accepted. What comes behind it waits for room.
        for (size_t i = 1; i < sockets_.size(); ++i) {
            connect(sockets_[i], place, size);
        }
    }
    ~FullListener() { std::for_each(sockets_.begin(), sockets_.end(), close); }
    FullListener(const FullListener &) = delete;
    FullListener &operator=(const FullListener &) = delete;
    uint16_t Port() const { return port_; }

  private:
    static int Socket(int flags) { return socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | flags, 0); }

    const std::array<int, 4> sockets_{Socket(0), Socket(SOCK_NONBLOCK), Socket(SOCK_NONBLOCK), Socket(SOCK_NONBLOCK)};
    uint16_t port_ = 0;
};

class Causes : public PeerTest, public Scene {
  protected:
    Causes() {
        stage.scene = this;
        stage.refused = Local(FreeTcpPort());
        stage.material = &GetMaterial("h264_aac");
        stage.blackHole = Local(full.Port());
    }

    void Play(const std::vector<Row> &rows) {
        SideBySide(rows, [this](const Row &row) { ExpectNamed(stage, row); });
    }
    std::string Serve(const std::string &name, const Args &args) {
        servers.push_back(StartServer(name, args));
        return Local(servers.back()->Number("port"));
    }
    std::string Rude(const char *manner) {
        return Serve(manner, {"python3", std::string(std::getenv("PEERS_SERVERS")) + "/rude.py", manner});
    }
    std::string Rtsp(const Args &more) {
        servers.push_back(ServeRtsp(*stage.material, more));
        return Local(servers.back()->Number("port"));
    }

    Stage stage;
    const FullListener full;
    std::vector<std::unique_ptr<Process>> servers;
};

TEST_F(Causes, Rtsp) {
    MakeCertificate();
    WriteFile(dir.File("both.pem"), ReadFile(dir.File("certificate.pem")) + ReadFile(dir.File("key.pem")));
    stage.rtsp = Rtsp({});
    stage.rtspAuth = Rtsp({"--auth", "digest", "--user", "me", "--password", "right"});
    stage.rtspTls = Rtsp({"--certificate", dir.File("both.pem")});
    stage.rtspUdp = Rtsp({"--transports", "udp"});
    stage.silent = Rude("silent");
    stage.closing = Rude("closing");
    stage.emptyRtsp = Rude("empty-rtsp");
    Play({
        {"wrong path", [](const Stage &s) { return Args{"rtsp://" + s.rtsp + "/nothing"}; }, "Error", "Rtspsrc", "Not Found",
         "404"},
        {"wrong password", [](const Stage &s) { return Args{"rtsp://me:hidden@" + s.rtspAuth + "/stream"}; }, "Error",
         "Rtspsrc", "Unauthorized", "401"},
        {"no credentials", [](const Stage &s) { return Args{"rtsp://" + s.rtspAuth + "/stream"}; }, "Error", "Rtspsrc",
         "Unauthorized", "401"},
        {"refused", [](const Stage &s) { return Args{"rtsp://" + s.refused + "/stream"}; }, "Error", "Rtspsrc",
         "Connection refused", "refused"},
        {"unknown name", [](const Stage &) { return Args{std::string("rtsp://") + kNobody + "/stream"}; }, "Error", "Rtspsrc",
         kNobody, "dns"},
        {"certificate of nobody", [](const Stage &s) { return Args{"rtsps://" + s.rtspTls + "/stream"}; }, "Error", "Rtspsrc",
         "certificate", "tls"},
        {"no TLS", [](const Stage &s) { return Args{"rtsps://" + s.rtsp + "/stream"}; }, "Error", "Rtspsrc", "TLS", "tls"},
        {"silence",
         [](const Stage &s) {
             return Args{"rtsp://" + s.silent + "/stream", "--rtsp-contimeout", "2"};
         },
         "Error", "Rtspsrc", "Timeout", "timeout"},
        {"closed", [](const Stage &s) { return Args{"rtsp://" + s.closing + "/stream"}; }, "Error", "Rtspsrc", "closed",
         "closed"},
        {"black hole",
         [](const Stage &s) {
             return Args{"rtsp://" + s.blackHole + "/stream", "--rtsp-contimeout", "2"};
         },
         "Error", "Rtspsrc", "timed out", "timeout"},
        {"transport refused",
         [](const Stage &s) {
             return Args{"rtsp://" + s.rtspUdp + "/stream", "--protocols", "4"};
         },
         "Error", "Rtspsrc", "No supported stream", "no-stream"},
        {"no media", [](const Stage &s) { return Args{"rtsp://" + s.emptyRtsp + "/stream"}; }, "Error", "Rtspsrc",
         "SDP contains no streams", "no-stream"},
    });
}

TEST_F(Causes, Rtmp) {
    const uint16_t port = FreeTcpPort();
    const auto nginx = StartNginx("rtmp { access_log off; server { listen " + Local(port) +
                                      "; application live { live on; } application denied { live on; deny play all; } "
                                      "application known { live on; idle_streams off; } } }\n",
                                  port);
    stage.rtmp = Local(port);
    stage.silent = Rude("silent");
    stage.closing = Rude("closing");
    servers.push_back(
        Start("ffmpeg", {"ffmpeg", "-nostdin", "-hide_banner", "-loglevel", "warning", "-re", "-i", stage.material->path, "-an",
                         "-c:v", "flv", "-f", "flv", "rtmp://" + stage.rtmp + "/live/sorenson"}));
    Play({
        {"refused", [](const Stage &s) { return Args{"rtmp://" + s.refused + "/live/a"}; }, "Error", "Rtmp2src",
         "Connection refused", "refused"},
        {"refused with TLS", [](const Stage &s) { return Args{"rtmps://" + s.refused + "/live/a"}; }, "Error", "Rtmpsrc",
         "Connection refused", "refused"},
        {"unknown name", [](const Stage &) { return Args{std::string("rtmp://") + kNobody + "/live/a"}; }, "Error", "Rtmp2src",
         kNobody, "dns"},
        {"silence",
         [](const Stage &s) {
             return Args{"rtmp://" + s.silent + "/live/a", "--rtmp-contimeout", "2"};
         },
         "Error", "Rtmp2src", "timed out", "timeout"},
        {"black hole",
         [](const Stage &s) {
             return Args{"rtmp://" + s.blackHole + "/live/a", "--rtmp-contimeout", "2"};
         },
         "Error", "Rtmp2src", "timed out", "timeout"},
        {"no TLS", [](const Stage &s) { return Args{"rtmps://" + s.closing + "/live/a"}; }, "Error", "Rtmpsrc", "TLS", "tls"},
        {"unknown application", [](const Stage &s) { return Args{"rtmp://" + s.rtmp + "/nothing/a"}; }, "Error", "Rtmp2src",
         "closed", "closed"},
        {"no publisher", [](const Stage &s) { return Args{"rtmp://" + s.rtmp + "/known/nobody"}; }, "Error", "Rtmp2src",
         "stream not found", "NetStream.Play.StreamNotFound"},
        {"nobody ever publishes",
         [](const Stage &s) {
             return Args{"rtmp://" + s.rtmp + "/live/nobody", "--idle-timeout", "2"};
         },
         "Error", "Flvdemux", "before any media came", "end"},
        {"play denied", [](const Stage &s) { return Args{"rtmp://" + s.rtmp + "/denied/a"}; }, "Error", "Flvdemux",
         "before any media came", "end"},
        {"wrong codec", [](const Stage &s) { return Args{"rtmp://" + s.rtmp + "/live/sorenson"}; }, "Error", "Rtmp2src",
         "No medium of the stream", "not-linked"},
    });
}

TEST_F(Causes, Srt) {
    const uint16_t port = FreeUdpPort();
    stage.srt = Local(port);
    servers.push_back(Start("srt-live-transmit", {"srt-live-transmit", UdpUrl(FreeUdpPort()),
                                                  "srt://" + stage.srt + "?mode=listener&passphrase=rightsecret&pbkeylen=16"}));
    ASSERT_TRUE(WaitFor([&] { return UdpBound(port); }));
    Play({
        {"wrong passphrase",
         [](const Stage &s) {
             return Args{"srt://" + s.srt, "--passphrase", "wrongsecret", "--keylen", "16"};
         },
         "", "Srtsrc", "Incorrect passphrase", "BADSECRET"},
        {"no passphrase", [](const Stage &s) { return Args{"srt://" + s.srt}; }, "", "Srtsrc",
         "Password required or unexpected", "UNSECURE"},
        {"passphrase too short", [](const Stage &s) { return Args{"srt://" + s.srt + "?passphrase=hidden"}; }, "Error",
         "Srtsrc", "failed to set passphrase", ""},
        {"nobody there", [](const Stage &s) { return Args{"srt://" + s.refused}; }, "Warning", "Srtsrc", "timeout", "timeout"},
        {"unknown name", [](const Stage &) { return Args{std::string("srt://") + kNobody + ":9000"}; }, "Error", "Srtsrc",
         kNobody, "dns"},
        {"port taken",
         [](const Stage &s) {
             return Args{"srt://:" + s.srt.substr(s.srt.find(':') + 1), "--mode", "listener"};
         },
         "Error", "Srtsrc", "Cannot bind", "bind"},
    });
}

TEST_F(Causes, Udp) {
    const uint16_t port = FreeUdpPort();
    // By its name, which gst-source does not look up: a port that another process has is its own error otherwise.
    const int taken = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ASSERT_EQ(bind(taken, static_cast<const sockaddr *>(static_cast<const void *>(&address)), sizeof address), 0);
    // Where the name leads there first. Without IPv6 it does not.
    const int taken6 = socket(AF_INET6, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_in6 address6{};
    address6.sin6_family = AF_INET6;
    address6.sin6_port = htons(port);
    address6.sin6_addr = in6addr_loopback;
    const int bound6 = bind(taken6, static_cast<const sockaddr *>(static_cast<const void *>(&address6)), sizeof address6);
    static_cast<void>(bound6);
    stage.udpTaken = "localhost:" + std::to_string(port);
    const uint16_t mpeg2 = FreeUdpPort();
    servers.push_back(
        Start("ffmpeg", {"ffmpeg", "-nostdin", "-hide_banner", "-loglevel", "warning", "-re", "-i", stage.material->path, "-an",
                         "-c:v", "mpeg2video", "-f", "mpegts", UdpUrl(mpeg2) + "?pkt_size=1316"}));
    Play({
        {"port taken", [](const Stage &s) { return Args{"udp://" + s.udpTaken}; }, "Error", "Udpsrc", "already in use",
         "port-in-use"},
        {"address of another machine", [](const Stage &) { return Args{"udp://192.0.2.1:5000"}; }, "Error", "Udpsrc",
         "Cannot assign requested address", "no-address"},
        {"unknown name", [](const Stage &) { return Args{std::string("udp://") + kNobody + ":5000"}; }, "Error", "pipeline",
         kNobody, "dns"},
        {"silence", [](const Stage &) { return Args{UdpUrl(FreeUdpPort())}; }, "Error", "Udpsrc", "No data came for 5 s",
         "timeout"},
        {"wrong codec", [mpeg2](const Stage &) { return Args{UdpUrl(mpeg2)}; }, "Error", "Udpsrc", "No medium of the stream",
         "not-linked"},
    });
    close(taken);
    close(taken6);
}

TEST_F(Causes, Hls) {
    MakeCertificate();
    const uint16_t port = FreeTcpPort();
    const uint16_t tls = FreeTcpPort();
    WriteFile(dir.File("users"), "me:{PLAIN}right\n");
    const auto nginx = ServeHttp(port, "listen " + Local(tls) + " ssl; ssl_certificate " + dir.File("certificate.pem") +
                                           "; ssl_certificate_key " + dir.File("key.pem") +
                                           "; location /private { auth_basic here; auth_basic_user_file " + dir.File("users") +
                                           "; } location /forbidden { return 403; } location /broken { return 500; } "
                                           "location /busy { return 503; }");
    stage.http = "http://" + Local(port);
    stage.https = "https://" + Local(tls);
    stage.silent = Rude("silent");
    stage.closing = Rude("closing");
    const auto list = [&](const std::string &name, const std::string &head, const std::string &segment) {
        std::string text = "#EXTM3U\n#EXT-X-VERSION:7\n#EXT-X-TARGETDURATION:2\n#EXT-X-MEDIA-SEQUENCE:1\n" + head;
        for (int n = 0; n < 4; ++n) {
            text += "#EXTINF:2,\n" + segment + "\n";
        }
        WriteFile(NginxFile("www/" + name), text);
    };
    const std::string ts =
        ReadFile(DerivedFile("causes.ts", {"-i", stage.material->path, "-map", "0", "-c", "copy", "-t", "2", "-f", "mpegts"}));
    WriteFile(NginxFile("www/good.ts"), ts);
    WriteFile(NginxFile("www/a.m4s"),
              ReadFile(DerivedFile("causes.mp4", {"-i", stage.material->path, "-map", "0", "-c", "copy", "-t", "2", "-movflags",
                                                  "frag_keyframe+empty_moov", "-f", "mp4"})));
    WriteFile(NginxFile("www/noise.ts"), Noise(50000, 1));
    WriteFile(NginxFile("www/page.m3u8"), "<html>Welcome</html>");
    WriteFile(NginxFile("www/empty.m3u8"), "");
    list("drm.m3u8", "#EXT-X-KEY:METHOD=SAMPLE-AES,URI=\"skd://one\",KEYFORMAT=\"com.apple.streamingkeydelivery\"\n",
         "good.ts");
    list("nokey.m3u8", "#EXT-X-KEY:METHOD=AES-128,URI=\"/nothing.key\"\n", "good.ts");
    list("lost.m3u8", "", "nothing.ts");
    list("noise.m3u8", "", "noise.ts");
    list("fragments.m3u8", "", "a.m4s");
    list("denied.m3u8", "", "/forbidden/a.ts");
    Play({
        {"wrong path", [](const Stage &s) { return Args{s.http + "/nothing.m3u8"}; }, "Error", "Souphttpsrc", "Not Found",
         "404"},
        {"wrong password",
         [](const Stage &s) {
             return Args{s.http + "/private/a.m3u8", "--user", "me", "--password", "hidden"};
         },
         "Error", "Souphttpsrc", "Unauthorized", "401"},
        {"forbidden", [](const Stage &s) { return Args{s.http + "/forbidden/a.m3u8"}; }, "Error", "Souphttpsrc", "Forbidden",
         "403"},
        {"server error", [](const Stage &s) { return Args{s.http + "/broken/a.m3u8"}; }, "Error", "Souphttpsrc",
         "Internal Server Error", "500"},
        {"server busy", [](const Stage &s) { return Args{s.http + "/busy/a.m3u8"}; }, "Error", "Souphttpsrc", "Service", "503"},
        {"refused", [](const Stage &s) { return Args{"http://" + s.refused + "/a.m3u8"}; }, "Error", "Souphttpsrc", "refused",
         "refused"},
        {"unknown name", [](const Stage &) { return Args{std::string("http://") + kNobody + "/a.m3u8"}; }, "Error",
         "Souphttpsrc", kNobody, "dns"},
        {"certificate of nobody", [](const Stage &s) { return Args{s.https + "/good.m3u8"}; }, "Error", "Souphttpsrc", "TLS",
         "tls"},
        {"silence",
         [](const Stage &s) {
             return Args{"http://" + s.silent + "/a.m3u8", "--hls-timeout", "2", "--retries", "0"};
         },
         "Error", "Souphttpsrc", "does not answer", "timeout"},
        {"black hole",
         [](const Stage &s) {
             return Args{"http://" + s.blackHole + "/a.m3u8", "--hls-timeout", "2", "--retries", "0"};
         },
         "Error", "Souphttpsrc", "No answer to the connection request", "timeout"},
        {"closed", [](const Stage &s) { return Args{"http://" + s.closing + "/a.m3u8"}; }, "Error", "Souphttpsrc", "closed",
         "closed"},
        {"web page", [](const Stage &s) { return Args{s.http + "/page.m3u8"}; }, "Error", "Hlsdemux", "Invalid playlist",
         "playlist"},
        {"empty playlist", [](const Stage &s) { return Args{s.http + "/empty.m3u8"}; }, "Error", "Souphttpsrc", "empty",
         "playlist"},
        {"DRM", [](const Stage &s) { return Args{s.http + "/drm.m3u8"}; }, "Error", "Hlsdemux", "key", "key"},
        {"key that is not there", [](const Stage &s) { return Args{s.http + "/nokey.m3u8"}; }, "Error", "Hlsdemux", "key",
         "key"},
        {"segments that are not there", [](const Stage &s) { return Args{s.http + "/lost.m3u8"}; }, "Warning", "souphttpsrc",
         "/nothing.ts", "404"},
        {"segments that are forbidden", [](const Stage &s) { return Args{s.http + "/denied.m3u8"}; }, "Warning", "souphttpsrc",
         "/forbidden/a.ts", "403"},
        {"segments of noise", [](const Stage &s) { return Args{s.http + "/noise.m3u8"}; }, "Error", "Hlsdemux",
         "determine type", "format"},
        {"fragments of MP4", [](const Stage &s) { return Args{s.http + "/fragments.m3u8"}; }, "Error", "Hlsdemux",
         "No medium of the stream", "not-linked"},
    });
}

// On a network of its own, which has no interface that is up.
TEST_F(Causes, NoRoute) {
    stage.launcher = geteuid() == 0 ? Args{"unshare", "--net"} : Args{"unshare", "--net", "--map-root-user"};
    Args trial = stage.launcher;
    trial.emplace_back("true");
    const auto allowed = Start("unshare", trial);
    if (allowed->Wait() != 0) {
        GTEST_SKIP() << "no network of its own may be made here: " << allowed->Output();
    }
    Play({
        {"RTSP", [](const Stage &) { return Args{"rtsp://192.0.2.1/stream"}; }, "Error", "Rtspsrc", "Network is unreachable",
         "no-route"},
        {"RTMP", [](const Stage &) { return Args{"rtmp://192.0.2.1/live/a"}; }, "Error", "Rtmp2src", "Network is unreachable",
         "no-route"},
        {"RTMPS", [](const Stage &) { return Args{"rtmps://192.0.2.1/live/a"}; }, "Error", "Rtmpsrc", "Network is unreachable",
         "no-route"},
        {"HLS", [](const Stage &) { return Args{"http://192.0.2.1/a.m3u8"}; }, "Error", "Souphttpsrc", "no route to 192.0.2.1",
         "no-route"},
        {"multicast without an interface", [](const Stage &) { return Args{"udp://239.1.1.1:5000"}; }, "Error", "Udpsrc",
         "Error joining multicast group", "no-route"},
        {"SRT, which tries on", [](const Stage &) { return Args{"srt://192.0.2.1:9000"}; }, "Warning", "Srtsrc", "timeout",
         "timeout"},
    });
}

}  // namespace
}  // namespace peers
