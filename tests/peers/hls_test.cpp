// HLS: nginx serves what ffmpeg writes, straight or through tinyproxy.

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <deque>
#include <map>
#include <sstream>
#include <thread>
#include <utility>
#include <vector>

#include "harness/PeerTest.h"

namespace peers {
namespace {

struct Request {
    std::string uri, status, agent, via, user, method;
    bool Playlist() const { return uri.find(".m3u8") != std::string::npos; }
};

// A server, and what ffmpeg writes into its directory.
class Site : public Scene {
  public:
    // `server` is put into nginx's server block.
    void Serve(const std::string &server = "") { nginx = ServeHttp(port, server); }
    // A rolling playlist of segments of one second, each beginning with a key frame.
    std::unique_ptr<Process> Write(const Material &material, const std::vector<std::string> &more = {}) {
        std::vector<std::string> target = {
            "-f", "hls", "-hls_time", "1", "-hls_list_size", "8", "-hls_flags", "delete_segments", "-hls_delete_threshold",
            "8"};
        target.insert(target.end(), more.begin(), more.end());
        target.push_back(NginxFile("www/live.m3u8"));
        auto writer = Send(material, target);
        EXPECT_TRUE(WaitSegments("live.m3u8", 3));
        return writer;
    }
    bool WaitSegments(const std::string &playlist, size_t count) const {
        return WaitFor([&] {
            const std::string text = ReadFile(NginxFile("www/" + playlist));
            size_t found = 0;
            for (size_t at = text.find("#EXTINF"); at != std::string::npos; at = text.find("#EXTINF", at + 1)) {
                ++found;
            }
            return found >= count;
        });
    }
    // For nginx's server block: files are asked for with a password, "u" and "p".
    std::string Protect() const {
        WriteFile(dir.File("passwords"), "u:{PLAIN}p\n");
        return "auth_basic \"peers\"; auth_basic_user_file " + dir.File("passwords") + ";";
    }
    // For ffmpeg: segments are encrypted with the key that is to be had as `url`.
    std::string MakeKey(const std::string &url = "secret.key") const {
        WriteFile(NginxFile("www/secret.key"), "0123456789abcdef");
        WriteFile(dir.File("keyinfo"), url + "\n" + NginxFile("www/secret.key") + "\n00112233445566778899aabbccddeeff\n");
        return dir.File("keyinfo");
    }
    std::string Url(const std::string &file = "live.m3u8") const {
        return "http://127.0.0.1:" + std::to_string(port) + "/" + file;
    }
    std::vector<Request> Requests() const {
        std::vector<Request> requests;
        std::istringstream lines(ReadFile(NginxFile("access.log")));
        for (std::string line; std::getline(lines, line);) {
            std::istringstream fields(line);
            Request request;
            for (auto *field : {&request.uri, &request.status, &request.agent, &request.via, &request.user, &request.method}) {
                std::getline(fields, *field, '|');
            }
            requests.push_back(request);
        }
        return requests;
    }
    // Every segment that was asked for was given, and there were some. With
    // credentials the server may first ask for them.
    void ExpectSegmentsGiven() const {
        std::map<std::string, bool> given;
        for (const auto &request : Requests()) {
            if (!request.Playlist()) {
                given[request.uri] = given[request.uri] || request.status == "200";
            }
        }
        EXPECT_GE(given.size(), 3U);
        for (const auto &[uri, ok] : given) {
            EXPECT_TRUE(ok) << uri;
        }
    }
    // Playlists that were handed out, the first one and its reloads.
    std::ptrdiff_t PlaylistsGiven() const {
        const auto requests = Requests();
        return std::count_if(requests.begin(), requests.end(),
                             [](const Request &r) { return r.Playlist() && r.status == "200"; });
    }

    // tinyproxy, which may ask for "pu" and "pp".
    std::unique_ptr<Process> StartProxy(bool protect) {
        WriteFile(dir.File("tinyproxy.conf"),
                  "Port " + std::to_string(proxyPort) +
                      "\nListen 127.0.0.1\nAllow 127.0.0.1\nTimeout 60\nMaxClients 20\nLogLevel Connect\n"
                      "ViaProxyName \"peers\"\nUser root\nGroup root\n" +
                      (protect ? "BasicAuth pu pp\n" : ""));
        auto proxy = Start("tinyproxy", {"tinyproxy", "-d", "-c", dir.File("tinyproxy.conf")});
        EXPECT_TRUE(WaitFor([&] { return TcpListening(proxyPort); }));
        return proxy;
    }
    HlsOptions ThroughProxy(const char *user, const char *password) const {
        HlsOptions options;
        options.proxy = "http://127.0.0.1:" + std::to_string(proxyPort);
        options.proxyUser = user;
        options.proxyPassword = password;
        return options;
    }

    const uint16_t port = FreeTcpPort();
    const uint16_t proxyPort = FreeTcpPort();
    std::unique_ptr<Process> nginx;
};

class Hls : public PeerTest, public Site {
  protected:
    static void CloseAgainAndAgain(size_t hosts, int rounds, const std::string &url, const HlsOptions &options, bool connected);
};

// ---- Straight from the server ---------------------------------------------------------------------------------------

struct PlayRow {
    const char *name;
    const char *material = "h264_aac";
    bool protect = false;
    unsigned islive = 0, timeout = 15, caching = 200;
    const char *agent = "";
};

class HlsPlays : public PeerTest, public testing::WithParamInterface<Group<PlayRow>> {};

TEST_P(HlsPlays, FramesEqualTheMaterial) {
    SideBySide(GetParam().rows, [&](const PlayRow &row) {
        const Material &material = GetMaterial(row.material);
        Site site;
        site.Serve(row.protect ? site.Protect() : "");
        const auto writer = site.Write(material);
        Host host(kHls);
        HlsOptions options;
        options.islive = row.islive;
        options.timeout = row.timeout;
        options.caching = row.caching;
        options.userAgent = row.agent;
        if (row.protect) {
            options.user = "u";
            options.password = "p";
        }
        ASSERT_TRUE(host.Open(site.Url(), options));
        ExpectPlays(host, material, seconds(4));
        EXPECT_EQ(Reconnects(host), 0U);
        EXPECT_TRUE(log.Has("INFO", "[CHLSSource] hlsdemux element src_pad link tsdemux sink_pad OK.... url=" + site.Url()));
        // Asked for again, and with the credentials where they are wanted.
        EXPECT_TRUE(WaitFor([&] { return site.PlaylistsGiven() >= 3; })) << site.PlaylistsGiven();
        ExpectCloses(host);
        site.ExpectSegmentsGiven();
        const auto requests = site.Requests();
        const auto first = std::find_if(requests.begin(), requests.end(), [](const Request &r) { return r.Playlist(); });
        ASSERT_NE(first, requests.end());
        for (const auto &request : requests) {
            EXPECT_EQ(request.method, "GET") << request.uri;
            if (*row.agent != '\0') {
                EXPECT_EQ(first->agent, row.agent);
                // Reloads are out of the library's reach: they name the framework.
                EXPECT_TRUE(request.agent == row.agent || request.Playlist()) << request.uri << " said " << request.agent;
            }
            if (row.protect) {
                EXPECT_EQ(request.user, request.status == "401" ? "-" : "u") << request.uri << " " << request.status;
            }
        }
    });
}

constexpr const char *kAgent = "Peer/7 (loopback)";

INSTANTIATE_TEST_SUITE_P(, HlsPlays,
                         testing::Values(Group<PlayRow>{"h264_aac", {{"h264_aac"}}},
                                         Group<PlayRow>{"codecs",
                                                        {{"h265_aac", "h265_aac"},
                                                         {"h264_mp3", "h264_mp3"},
                                                         {"h264_ac3", "h264_ac3"},
                                                         {"video_only", "h264_only"},
                                                         {"audio_only", "aac_only"},
                                                         {"is_live", "h264_aac", false, 1},
                                                         {"no_caching", "h264_aac", false, 0, 15, 0}}},
                                         Group<PlayRow>{"requests",
                                                        {{"user_agent", "h264_aac", false, 0, 15, 200, kAgent},
                                                         {"credentials", "h264_aac", true},
                                                         {"credentials_short_timeout", "h264_aac", true, 0, 10},
                                                         {"short_timeout", "h264_aac", false, 0, 10},
                                                         {"user_agent_short_timeout", "h264_aac", false, 0, 10, 200, kAgent},
                                                         {"credentials_user_agent", "h264_aac", true, 0, 15, 200, kAgent}}}),
                         kGroupName);

TEST_F(Hls, RefusedAsksAgainAndDeliversNothing) {
    struct RefusedRow {
        const char *name;
        bool protect;
        const char *file;
        const char *user, *password;
        const char *status;
    };
    const RefusedRow rows[] = {
        {"no_such_playlist", false, "none.m3u8", "", "", "404"},      {"no_credentials", true, "live.m3u8", "", "", "401"},
        {"wrong_password", true, "live.m3u8", "u", "x", "401"},       {"wrong_user", true, "live.m3u8", "x", "p", "401"},
        {"user_without_password", true, "live.m3u8", "u", "", "401"},
    };
    SideBySide(rows, [&](const RefusedRow &row) {
        Site site;
        site.Serve(row.protect ? site.Protect() : "");
        WriteFile(site.NginxFile("www/live.m3u8"), "#EXTM3U\n");
        Host host(kHls);
        HlsOptions options;
        options.user = row.user;
        options.password = row.password;
        ASSERT_TRUE(host.Open(site.Url(row.file), options));
        ExpectReconnects(host);
        const size_t asked = site.Requests().size();
        EXPECT_TRUE(WaitFor([&] { return site.Requests().size() > asked; })) << "asked once only";
        for (const auto &request : site.Requests()) {
            EXPECT_EQ(request.status, row.status);
            EXPECT_TRUE(request.Playlist());
        }
        EXPECT_EQ(host.Count(SHB_VIDEO) + host.Count(SHB_AUDIO), 0U);
        EXPECT_TRUE(host.Calls().empty());
    });
}

// ---- Credentials and other servers ------------------------------------------------------------------------------------

// Another server that hands out the same files and wants the same password.
TEST_F(Hls, CredentialsGoToThePlaylistsServerOnly) {
    struct ElsewhereRow {
        const char *name;
        std::string (*playlist)(const Site &site, const Site &other);
        const char *elsewhere;  // what the other server is asked for
    };
    const ElsewhereRow rows[] = {
        {"segments",
         [](const Site &, const Site &other) {
             return "#EXTM3U\n#EXT-X-TARGETDURATION:6\n#EXTINF:6,\n" + other.Url("a.ts") + "\n#EXT-X-ENDLIST\n";
         },
         "/a.ts"},
        // By the same HTTP source, which has been given the credentials for the first.
        {"segments_on_both",
         [](const Site &, const Site &other) {
             return "#EXTM3U\n#EXT-X-TARGETDURATION:6\n#EXTINF:6,\na.ts\n#EXTINF:6,\n" + other.Url("open/b.ts") +
                    "\n#EXTINF:6,\nc.ts\n#EXTINF:6,\n" + other.Url("d.ts") + "\n#EXT-X-ENDLIST\n";
         },
         "/d.ts"},
        {"variant",
         [](const Site &, const Site &other) {
             return "#EXTM3U\n#EXT-X-STREAM-INF:BANDWIDTH=100000\n" + other.Url("variant.m3u8") + "\n";
         },
         "/variant.m3u8"},
        {"key",
         [](const Site &, const Site &other) {
             return "#EXTM3U\n#EXT-X-TARGETDURATION:6\n#EXT-X-KEY:METHOD=AES-128,URI=\"" + other.Url("secret.key") +
                    "\"\n#EXTINF:6,\na.ts\n#EXT-X-ENDLIST\n";
         },
         "/secret.key"},
    };
    SideBySide(rows, [&](const ElsewhereRow &row) {
        Site site;
        Site other;
        site.Serve(site.Protect());
        const std::string files = "root " + site.NginxFile("www") + "; ";
        other.Serve("location /open/ { alias " + site.NginxFile("www/") + "; } location / { " + files + other.Protect() + " }");
        const std::string ts = ReadFile(DerivedFile(
            "h264_aac-6s.ts", {"-i", GetMaterial("h264_aac").path, "-map", "0", "-c", "copy", "-t", "6", "-f", "mpegts"}));
        for (const char *segment : {"a", "b", "c", "d"}) {
            WriteFile(site.NginxFile(std::string("www/") + segment + ".ts"), ts);
        }
        WriteFile(site.NginxFile("www/live.m3u8"), row.playlist(site, other));
        Host host(kHls);
        HlsOptions options;
        options.user = "u";
        options.password = "p";
        ASSERT_TRUE(host.Open(site.Url(), options));
        EXPECT_TRUE(WaitFor([&] {
            const auto requests = other.Requests();
            return std::any_of(requests.begin(), requests.end(), [&](const Request &r) { return r.uri == row.elsewhere; });
        }));
        ExpectCloses(host);
        for (const auto &request : other.Requests()) {
            EXPECT_EQ(request.user, "-") << request.uri;
            EXPECT_EQ(request.status, request.uri.find("/open/") == 0 ? "200" : "401") << request.uri;
        }
        for (const auto &request : site.Requests()) {
            EXPECT_EQ(request.user, request.status == "401" ? "-" : "u") << request.uri << " " << request.status;
        }
    });
}

// ---- Retries ----------------------------------------------------------------------------------------------------------

// After 503, souphttpsrc of GStreamer 1.26 asks again; with 1.22 the session begins anew.
TEST_F(Hls, RetriesWithoutEnd) {
    HlsOptions options;
    options.retries = -1;
    constexpr auto kAsked = seconds(6);
    constexpr auto kOftenPerSecond = 5;
    struct RetriesRow {
        const char *name;
        const char *file;  // that is answered 503
    };
    const RetriesRow rows[] = {{"playlist", "live.m3u8"}, {"segments", "ts"}};
    SideBySide(rows, [&](const RetriesRow &row) {
        const Material &material = GetMaterial("h264_aac");
        Site site;
        const std::string refusal = std::string("location ~ ") + row.file + "$ { return 503; }";
        site.Serve(refusal);
        const auto writer = site.Write(material);
        Host host(kHls);
        ASSERT_TRUE(host.Open(site.Url(), options));
        const auto refused = [&] {
            const auto requests = site.Requests();
            return std::count_if(requests.begin(), requests.end(), [](const Request &r) { return r.status == "503"; });
        };
        EXPECT_TRUE(WaitFor([&] { return refused() >= 3; })) << refused();
        const auto before = refused();
        EXPECT_TRUE(HoldsFor([&] { return refused() <= before + kOftenPerSecond * kAsked.count(); }, kAsked))
            << refused() - before;
        {
            Host other(kHls);
            ASSERT_TRUE(other.Open(site.Url(), options));
            const auto asked = refused();
            EXPECT_TRUE(WaitFor([&] { return refused() >= asked + 4; }));
            ExpectCloses(other, seconds(3));  // in a pause
        }
        site.nginx->Kill();
        site.Serve();
        EXPECT_TRUE(host.WaitFrames(SHB_VIDEO, 10));
        ExpectCloses(host);
    });
}

// ---- Through a proxy ------------------------------------------------------------------------------------------------

// The way of every request, reloads included, is in nginx's access log.
TEST_F(Hls, EveryRequestComesThroughTheProxy) {
    struct ProxyRow {
        const char *name;
        bool proxyProtected;
        bool serverProtected;
        const char *user, *password;  // for the proxy
        unsigned timeout;
    };
    const ProxyRow rows[] = {
        {"open", false, false, "", "", 15},
        {"credentials", true, false, "pu", "pp", 15},
        {"credentials_not_asked_for", false, false, "pu", "pp", 15},
        {"server_credentials", false, true, "", "", 15},
        {"both_credentials", true, true, "pu", "pp", 15},
        {"short_timeout", true, true, "pu", "pp", 10},
    };
    SideBySide(rows, [&](const ProxyRow &row) {
        const Material &material = GetMaterial("h264_aac");
        Site site;
        site.Serve(row.serverProtected ? site.Protect() : "");
        const auto proxy = site.StartProxy(row.proxyProtected);
        const auto writer = site.Write(material);
        Host host(kHls);
        HlsOptions options = site.ThroughProxy(row.user, row.password);
        options.timeout = row.timeout;
        if (row.serverProtected) {
            options.user = "u";
            options.password = "p";
        }
        ASSERT_TRUE(host.Open(site.Url(), options));
        ExpectPlays(host, material, seconds(4));
        EXPECT_EQ(Reconnects(host), 0U);
        EXPECT_TRUE(WaitFor([&] { return site.PlaylistsGiven() >= 3; })) << site.PlaylistsGiven();
        size_t segments = 0;
        for (const auto &request : site.Requests()) {
            EXPECT_NE(request.via, "-") << request.uri << " went past the proxy";
            EXPECT_EQ(request.method, "GET") << request.uri;
            segments += request.Playlist() ? 0U : 1U;
        }
        EXPECT_GE(segments, 3U);
    });
}

TEST_F(Hls, NothingReachesTheServerWhenTheProxyRefuses) {
    struct ProxyRow {
        const char *name;
        const char *user, *password;
    };
    const ProxyRow rows[] = {{"wrong_password", "pu", "x"}, {"no_credentials", "", ""}, {"user_without_password", "pu", ""}};
    SideBySide(rows, [&](const ProxyRow &row) {
        Site site;
        site.Serve();
        const auto proxy = site.StartProxy(true);
        WriteFile(site.NginxFile("www/live.m3u8"), "#EXTM3U\n");
        Host host(kHls);
        ASSERT_TRUE(host.Open(site.Url(), site.ThroughProxy(row.user, row.password)));
        ExpectReconnects(host, 2);
        EXPECT_TRUE(site.Requests().empty());
        EXPECT_EQ(host.Count(SHB_VIDEO), 0U);
    });
}

// ---- Segments that are refused -----------------------------------------------------------------------------------------

// hlsdemux used to dead-lock in its stop once a segment had failed during a reload of the playlist.
TEST_F(Hls, ClosesWhileSegmentsAreRefused) {
    struct StatusRow {
        const char *name;
        const char *status;
    };
    const StatusRow rows[] = {{"unauthorized", "401"}, {"forbidden", "403"}, {"not_found", "404"}, {"server_error", "500"}};
    SideBySide(rows, [&](const StatusRow &row) {
        Site site;
        site.Serve(std::string("location ~ [.]ts$ { return ") + row.status + "; }");
        const auto writer = site.Write(GetMaterial("h264_aac"));
        Host host(kHls);
        ASSERT_TRUE(host.Open(site.Url(), HlsOptions{}));
        // hlsdemux tries for ever, at each reload of the playlist, and does not end the session.
        const auto refused = [&] {
            const auto requests = site.Requests();
            return std::count_if(requests.begin(), requests.end(), [&](const Request &r) { return r.status == row.status; });
        };
        EXPECT_TRUE(WaitFor([&] { return refused() >= 5 && site.PlaylistsGiven() >= 5; }));
        EXPECT_EQ(Reconnects(host), 0U);
        ExpectCloses(host);
        EXPECT_EQ(host.Count(SHB_VIDEO) + host.Count(SHB_AUDIO), 0U);
    });
}

// ---- Closed while a request is under way ------------------------------------------------------------------------------

// Answers each request after a while, not always the same: "404", on the same connection.
class SlowServer {
  public:
    SlowServer(milliseconds delay, milliseconds spread)
        : delay_(delay), spread_(spread), listener_(ListenOnLoopback(port_)), thread_([this] { Run(); }) {}
    ~SlowServer() {
        stop_ = true;
        thread_.join();
        close(listener_);
    }
    SlowServer(const SlowServer &) = delete;
    SlowServer &operator=(const SlowServer &) = delete;

    std::string Url() const { return "http://127.0.0.1:" + std::to_string(port_) + "/live.m3u8"; }
    size_t Answered() const { return answered_; }

  private:
    void Run() {
        std::vector<pollfd> ends = {{listener_, POLLIN, 0}};
        std::deque<std::pair<Clock::time_point, int>> due;
        constexpr int kSteps = 50;
        int asked = 0;
        while (!stop_) {
            poll(ends.data(), ends.size(), due.empty() ? 20 : 1);
            while (!due.empty() && due.front().first <= Clock::now()) {
                const std::string answer = "HTTP/1.1 404 Not Found\r\nContent-Length: 0\r\n\r\n";
                answered_ += send(due.front().second, answer.data(), answer.size(), MSG_NOSIGNAL) > 0 ? 1 : 0;
                due.pop_front();
            }
            for (size_t i = ends.size(); i-- > 1;) {
                char request[4096];
                const ssize_t got = ends[i].revents != 0 ? recv(ends[i].fd, request, sizeof request, MSG_DONTWAIT) : -1;
                if (got > 0) {
                    due.emplace_back(Clock::now() + delay_ + spread_ * (++asked % kSteps) / kSteps, ends[i].fd);
                } else if (got == 0) {
                    due.erase(std::remove_if(due.begin(), due.end(), [&](const auto &one) { return one.second == ends[i].fd; }),
                              due.end());
                    close(ends[i].fd);
                    ends.erase(ends.begin() + static_cast<std::ptrdiff_t>(i));
                }
            }
            if ((ends[0].revents & POLLIN) != 0) {
                ends.push_back({accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC), POLLIN, 0});
            }
        }
        for (size_t i = 1; i < ends.size(); ++i) {
            close(ends[i].fd);
        }
    }

    const Clock::duration delay_, spread_;
    uint16_t port_ = 0;
    const int listener_;
    std::atomic<bool> stop_{false};
    std::atomic<size_t> answered_{0};
    std::thread thread_;
};

// Several hosts at once open and close a source again and again, at once or when the worker waits for news.
void Hls::CloseAgainAndAgain(size_t hosts, int rounds, const std::string &url, const HlsOptions &options, bool connected) {
    struct HostRow {
        const char *name = "one of several hosts";
    };
    SideBySide(std::vector<HostRow>(hosts), [&](const HostRow &) {
        Host host(kHls);
        for (int round = 0; round < rounds; ++round) {
            EXPECT_TRUE(host.Open(url, options));
            EXPECT_TRUE(!connected || WaitFor([&] { return host.State() == "connected"; }));
            ExpectCloses(host);
        }
    });
}

// An answer that came just when souphttpsrc was stopped used to end the process,
// in libsoup. The worker looks up every 100 ms.
TEST_F(Hls, ClosedJustWhenTheAnswerComesEndsWell) {
    const SlowServer server(milliseconds(99), milliseconds(3));
    CloseAgainAndAgain(8, 80, server.Url(), HlsOptions{}, true);
    EXPECT_GT(server.Answered(), 0U);
}

// The same with the first segment, which is asked for as soon as the playlist has come.
TEST_F(Hls, ClosedJustWhenTheFirstSegmentComesEndsWell) {
    Serve();
    const auto writer = Write(GetMaterial("h264_aac"));
#ifdef __SANITIZE_ADDRESS__
    constexpr int kRounds = 100;
#else
    constexpr int kRounds = 250;
#endif
    CloseAgainAndAgain(4, kRounds, Url(), HlsOptions{}, false);
}

// A connection attempt that was cancelled as it began used to be forgotten by
// GLib, and souphttpsrc waited for it for ever.
TEST_F(Hls, ClosedWhileItBeginsToConnectEndsWell) {
    HlsOptions options;
    options.proxy = "127.0.0.1:" + std::to_string(FreeTcpPort());
    options.retries = 0;
#ifdef __SANITIZE_ADDRESS__
    constexpr int kRounds = 150;  // each takes thirty times as long
#else
    constexpr int kRounds = 400;
#endif
    CloseAgainAndAgain(4, kRounds, Url(), options, false);
}

// ---- Other playlists ------------------------------------------------------------------------------------------------

TEST_F(Hls, EncryptedSegmentsPlay) {
    const Material &material = GetMaterial("h264_aac");
    Serve();
    const auto writer = Write(material, {"-hls_key_info_file", MakeKey()});
    Host host(kHls);
    ASSERT_TRUE(host.Open(Url(), HlsOptions{}));
    ExpectPlays(host, material, seconds(4));
    const auto requests = Requests();
    EXPECT_TRUE(std::any_of(requests.begin(), requests.end(), [](const Request &r) { return r.uri == "/secret.key"; }));
}

TEST_F(Hls, MediaThatIsNoTransportStreamIsRefused) {
    struct ForeignRow {
        const char *name;
        const char *material;
        std::vector<std::string> target;  // LIST and SEGMENTS stand for files of the server
    };
    const ForeignRow rows[] = {
        {"fragmented_mp4",
         "h264_aac",
         {"-f", "hls", "-hls_time", "1", "-hls_list_size", "8", "-hls_segment_type", "fmp4", "LIST"}},
        {"packed_aac",
         "aac_only",
         {"-f", "segment", "-segment_time", "1", "-segment_list", "LIST", "-segment_list_type", "m3u8", "-segment_list_flags",
          "live", "-segment_list_size", "8", "-segment_format", "adts", "SEGMENTS"}},
    };
    SideBySide(rows, [&](const ForeignRow &row) {
        Site site;
        site.Serve();
        std::vector<std::string> target = row.target;
        for (auto &arg : target) {
            arg = arg == "LIST" ? site.NginxFile("www/live.m3u8") : arg == "SEGMENTS" ? site.NginxFile("www/s%03d.aac") : arg;
        }
        const auto writer = site.Send(GetMaterial(row.material), target);
        ASSERT_TRUE(site.WaitSegments("live.m3u8", 3));
        Host host(kHls);
        ASSERT_TRUE(host.Open(site.Url(), HlsOptions{}));
        EXPECT_TRUE(log.WaitLine("ERR", "[CHLSSource] Unable support hlsdeumx current meida structure!!! url=" + site.Url()));
        ExpectReconnects(host);
        EXPECT_EQ(log.CountContaining("tsdeumx A new"), 0U);
        EXPECT_EQ(host.Count(SHB_VIDEO) + host.Count(SHB_AUDIO), 0U);
    });
}

// ---- Several variants -------------------------------------------------------------------------------------------------

// hlsdemux changes variants by a new pad, which is refused: a change would end the session.
TEST_F(Hls, FastestVariantIsKept) {
    struct VariantsRow {
        const char *name;
        std::vector<const char *> bitrates;  // as the master playlist tells them, in its order
        size_t fastest;
        bool encrypted;
        const char *server;
    };
    const VariantsRow rows[] = {
        {"slow_first", {"200k", "900k", "4000k"}, 2, false, ""},
        {"fast_first", {"4000k", "900k", "200k"}, 0, false, ""},
        {"slow_first_encrypted", {"200k", "900k", "4000k"}, 2, true, ""},
        {"fast_first_encrypted", {"4000k", "900k", "200k"}, 0, true, ""},
        // What comes is less than the variant is said to have, and enough for what it has.
        {"slow_network", {"200k", "900k", "8000k"}, 2, false, "limit_rate 500k;"},
    };
    constexpr auto kPlayed = seconds(60);
    SideBySide(rows, [&](const VariantsRow &row) {
        const Material &material = GetMaterial("h264_aac");
        Site site;
        site.Serve(row.server);
        std::vector<std::string> target;
        std::string map;
        for (size_t variant = 0; variant < row.bitrates.size(); ++variant) {
            const std::string number = std::to_string(variant);
            target.insert(target.end(), {"-b:v:" + number, row.bitrates[variant]});
            map += "v:" + number + ",a:" + number + " ";
            if (variant != 0) {
                target.insert(target.begin(), {"-map", "0"});
            }
        }
        target.insert(target.end(), {"-f", "hls", "-hls_time", "1", "-hls_list_size", "8", "-hls_flags", "delete_segments",
                                     "-hls_delete_threshold", "8", "-master_pl_name", "master.m3u8", "-var_stream_map", map});
        if (row.encrypted) {
            target.insert(target.end(), {"-hls_key_info_file", site.MakeKey()});
        }
        target.push_back(site.NginxFile("www/v%v.m3u8"));
        const auto writer = site.Send(material, target);
        for (size_t variant = 0; variant < row.bitrates.size(); ++variant) {
            ASSERT_TRUE(site.WaitSegments("v" + std::to_string(variant) + ".m3u8", 3));
        }
        Host host(kHls);
        ASSERT_TRUE(host.Open(site.Url("master.m3u8"), HlsOptions{}));
        ExpectPlays(host, material, kPlayed);
        EXPECT_EQ(Reconnects(host), 0U);
        const std::string fastest = "/v" + std::to_string(row.fastest);
        for (const auto &request : site.Requests()) {
            EXPECT_TRUE(request.uri == "/master.m3u8" || request.uri == "/secret.key" || request.uri.find(fastest) == 0)
                << request.uri;
        }
        ExpectCloses(host);
    });
    EXPECT_EQ(log.CountContaining("chanage so refused"), 0U);
}

TEST_F(Hls, ServerThatGoesAwayAndComesBack) {
    const Material &material = GetMaterial("h264_aac");
    Serve();
    const auto writer = Write(material);
    Host host(kHls);
    ASSERT_TRUE(host.Open(Url(), HlsOptions{}));
    ASSERT_TRUE(WaitMedia(host, material, seconds(2)));
    nginx->Kill();
    ExpectReconnects(host);
    const auto epoch = host.Epoch();
    // Refused connections are tried again and again.
    ExpectReconnects(host, 2);
    Serve();
    ExpectPlaysAfter(epoch, host, material);
}

}  // namespace
}  // namespace peers
