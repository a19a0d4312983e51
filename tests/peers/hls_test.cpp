// HLS: nginx serves what ffmpeg writes, straight or through tinyproxy.

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <filesystem>
#include <map>
#include <ostream>
#include <sstream>
#include <thread>
#include <utility>
#include <vector>

#include "harness/PeerTest.h"
#include "harness/Ports.h"

namespace peers {
namespace {

constexpr int kHls = 5;

struct Request {
    std::string uri, status, agent, via, user;
    bool Playlist() const { return uri.find(".m3u8") != std::string::npos; }
};

class Hls : public PeerTest {
  protected:
    // Segments are fetched as fast as the network goes, and the audio sink does not wait for the clock.
    Hls() { burst = 60; }

    // `server` is put into nginx's server block.
    void ServeHttp(const std::string &server = "") {
        const std::string format = "log_format all '$request_uri|$status|$http_user_agent|$http_via|$remote_user';";
        // The directories that it makes at its start by default are root's.
        std::string directories;
        for (const char *use : {"client_body", "proxy", "fastcgi", "uwsgi", "scgi"}) {
            directories += std::string(use) + "_temp_path " + use + "; ";
        }
        nginx = StartNginx(
            "http { types { application/vnd.apple.mpegurl m3u8; video/mp2t ts; video/mp4 mp4 m4s; audio/aac aac; }\n" +
                directories + format + " access_log access.log all; server { listen 127.0.0.1:" + std::to_string(port) +
                "; root www; " + server + " } }\n",
            port);
    }
    // A rolling playlist of segments of one second, each beginning with a key frame.
    std::unique_ptr<Process> Write(const Material &material, const std::vector<std::string> &more = {}) {
        std::vector<std::string> target = {
            "-f", "hls", "-hls_time", "1", "-hls_list_size", "8", "-hls_flags", "delete_segments", "-hls_delete_threshold",
            "8"};
        target.insert(target.end(), more.begin(), more.end());
        target.push_back(NginxFile("www/live.m3u8"));
        std::filesystem::create_directories(NginxFile("www"));
        auto writer = Send(material, target);
        EXPECT_TRUE(WaitSegments("live.m3u8", 3));
        return writer;
    }
    bool WaitSegments(const std::string &playlist, size_t count) const {
        return WaitFor(
            [&] {
                const std::string text = ReadFile(NginxFile("www/" + playlist));
                size_t found = 0;
                for (size_t at = text.find("#EXTINF"); at != std::string::npos; at = text.find("#EXTINF", at + 1)) {
                    ++found;
                }
                return found >= count;
            },
            seconds(20));
    }
    // Files of `www` asked for with a password: "u" and "p".
    std::string Protect() const {
        WriteFile(dir.File("passwords"), "u:{PLAIN}p\n");
        return "auth_basic \"peers\"; auth_basic_user_file " + dir.File("passwords") + ";";
    }
    std::string Url(const std::string &file = "live.m3u8") const {
        return "http://127.0.0.1:" + std::to_string(port) + "/" + file;
    }
    std::string Reconnect(const std::string &url) const { return "[CHLSSource] HLS source reconnect..." + url; }
    std::vector<Request> Requests() const {
        std::vector<Request> requests;
        std::istringstream lines(ReadFile(NginxFile("access.log")));
        for (std::string line; std::getline(lines, line);) {
            std::istringstream fields(line);
            Request request;
            for (auto *field : {&request.uri, &request.status, &request.agent, &request.via, &request.user}) {
                std::getline(fields, *field, '|');
            }
            requests.push_back(request);
        }
        return requests;
    }
    // Every segment that was asked for was given, and there were some. With credentials the server may first ask for them.
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
    static std::ptrdiff_t Given(const std::vector<Request> &requests) {
        return std::count_if(requests.begin(), requests.end(),
                             [](const Request &r) { return r.Playlist() && r.status == "200"; });
    }

    const uint16_t port = FreeTcpPort();
    std::unique_ptr<Process> nginx;
};

// ---- Straight from the server ---------------------------------------------------------------------------------------

struct PlayRow {
    const char *name;
    const char *material;
    bool protect;
    unsigned islive, timeout, caching;
    const char *agent;
};

std::ostream &operator<<(std::ostream &out, const PlayRow &row) {
    return out << row.name;
}

class HlsPlays : public Hls, public testing::WithParamInterface<PlayRow> {};

TEST_P(HlsPlays, FramesEqualTheMaterial) {
    const PlayRow &row = GetParam();
    const Material &material = GetMaterial(row.material);
    ServeHttp(row.protect ? Protect() : "");
    const auto writer = Write(material);
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
    ASSERT_TRUE(host.Open(Url(), options));
    ExpectPlays(host, material, seconds(4), seconds(30));
    EXPECT_EQ(log.CountContaining("HLS source reconnect..."), 0U);
    EXPECT_TRUE(log.Has("INFO", "[CHLSSource] hlsdemux element src_pad link tsdemux sink_pad OK.... url=" + Url()));
    EXPECT_TRUE(host.Close());
    EXPECT_EQ(host.State(), "stop");
    ExpectSegmentsGiven();
    const auto requests = Requests();
    ASSERT_FALSE(requests.empty());
    EXPECT_GE(std::count_if(requests.begin(), requests.end(), [](const Request &r) { return r.Playlist(); }), 2)
        << "the playlist was not asked for again";
    if (*row.agent != '\0') {
        const auto told = std::find_if(requests.begin(), requests.end(), [](const Request &r) { return r.Playlist(); });
        EXPECT_EQ(told->agent, row.agent);
        for (const auto &request : requests) {
            // Reloads are out of the library's reach: they name the framework.
            EXPECT_TRUE(request.agent == row.agent || request.Playlist()) << request.uri << " said " << request.agent;
        }
    }
    if (row.protect) {
        EXPECT_GE(Given(requests), 3) << "reloads did not go out with the credentials";
        for (const auto &request : requests) {
            EXPECT_EQ(request.user, request.status == "401" ? "-" : "u") << request.uri << " " << request.status;
        }
    }
}

INSTANTIATE_TEST_SUITE_P(
    , HlsPlays,
    testing::Values(
        PlayRow{"h264_aac", "h264_aac", false, 0, 15, 200, ""}, PlayRow{"h265_aac", "h265_aac", false, 0, 15, 200, ""},
        PlayRow{"h264_mp3", "h264_mp3", false, 0, 15, 200, ""}, PlayRow{"h264_ac3", "h264_ac3", false, 0, 15, 200, ""},
        PlayRow{"video_only", "h264_only", false, 0, 15, 200, ""}, PlayRow{"audio_only", "aac_only", false, 0, 15, 200, ""},
        PlayRow{"is_live", "h264_aac", false, 1, 15, 200, ""}, PlayRow{"no_caching", "h264_aac", false, 0, 15, 0, ""},
        PlayRow{"user_agent", "h264_aac", false, 0, 15, 200, "Peer/7 (loopback)"},
        PlayRow{"credentials", "h264_aac", true, 0, 15, 200, ""},
        PlayRow{"credentials_short_timeout", "h264_aac", true, 0, 10, 200, ""},
        PlayRow{"user_agent_short_timeout", "h264_aac", false, 0, 10, 200, "Peer/7 (loopback)"},
        PlayRow{"credentials_user_agent", "h264_aac", true, 0, 15, 200, "Peer/7 (loopback)"}),
    [](const auto &row) { return row.param.name; });

struct RefusedRow {
    const char *name;
    bool protect;
    const char *file;
    const char *user, *password;
    const char *status;
};

std::ostream &operator<<(std::ostream &out, const RefusedRow &row) {
    return out << row.name;
}

class HlsRefused : public Hls, public testing::WithParamInterface<RefusedRow> {};

TEST_P(HlsRefused, AsksAgainAndDeliversNothing) {
    const RefusedRow &row = GetParam();
    ServeHttp(row.protect ? Protect() : "");
    WriteFile(NginxFile("www/live.m3u8"), "#EXTM3U\n");
    Host host(kHls);
    HlsOptions options;
    options.user = row.user;
    options.password = row.password;
    ASSERT_TRUE(host.Open(Url(row.file), options));
    EXPECT_TRUE(log.WaitLine("INFO", Reconnect(Url(row.file)), seconds(20)));
    const size_t asked = Requests().size();
    EXPECT_TRUE(WaitFor([&] { return Requests().size() > asked; }, seconds(15))) << "asked once only";
    for (const auto &request : Requests()) {
        EXPECT_EQ(request.status, row.status);
        EXPECT_TRUE(request.Playlist());
    }
    EXPECT_EQ(host.Count(SHB_VIDEO) + host.Count(SHB_AUDIO), 0U);
    EXPECT_TRUE(host.Calls().empty());
}

INSTANTIATE_TEST_SUITE_P(, HlsRefused,
                         testing::Values(RefusedRow{"no_such_playlist", false, "none.m3u8", "", "", "404"},
                                         RefusedRow{"no_credentials", true, "live.m3u8", "", "", "401"},
                                         RefusedRow{"wrong_password", true, "live.m3u8", "u", "x", "401"},
                                         RefusedRow{"wrong_user", true, "live.m3u8", "x", "p", "401"},
                                         RefusedRow{"user_without_password", true, "live.m3u8", "u", "", "401"}),
                         [](const auto &row) { return row.param.name; });

// ---- Through a proxy ------------------------------------------------------------------------------------------------

struct ProxyRow {
    const char *name;
    bool proxyProtected;
    bool serverProtected;
    const char *user, *password;  // for the proxy
    unsigned timeout;
};

std::ostream &operator<<(std::ostream &out, const ProxyRow &row) {
    return out << row.name;
}

class HlsProxy : public Hls {
  protected:
    std::unique_ptr<Process> StartProxy(bool protect) {
        WriteFile(dir.File("tinyproxy.conf"),
                  "Port " + std::to_string(proxyPort) +
                      "\nListen 127.0.0.1\nAllow 127.0.0.1\nTimeout 60\nMaxClients 20\nLogLevel Connect\n"
                      "ViaProxyName \"peers\"\nUser root\nGroup root\n" +
                      (protect ? "BasicAuth pu pp\n" : ""));
        auto proxy = Start("tinyproxy", {"tinyproxy", "-d", "-c", dir.File("tinyproxy.conf")});
        EXPECT_TRUE(WaitFor([&] { return TcpListening(proxyPort); }, seconds(10)));
        return proxy;
    }
    HlsOptions Options(const char *user, const char *password) const {
        HlsOptions options;
        options.proxy = "http://127.0.0.1:" + std::to_string(proxyPort);
        options.proxyUser = user;
        options.proxyPassword = password;
        return options;
    }

    const uint16_t proxyPort = FreeTcpPort();
};

class HlsProxyPlays : public HlsProxy, public testing::WithParamInterface<ProxyRow> {};

// The way of every request, reloads included, is in nginx's access log.
TEST_P(HlsProxyPlays, EveryRequestComesThroughTheProxy) {
    const ProxyRow &row = GetParam();
    const Material &material = GetMaterial("h264_aac");
    ServeHttp(row.serverProtected ? Protect() : "");
    const auto proxy = StartProxy(row.proxyProtected);
    const auto writer = Write(material);
    Host host(kHls);
    HlsOptions options = Options(row.user, row.password);
    options.timeout = row.timeout;
    if (row.serverProtected) {
        options.user = "u";
        options.password = "p";
    }
    ASSERT_TRUE(host.Open(Url(), options));
    ExpectPlays(host, material, seconds(4), seconds(30));
    EXPECT_EQ(log.CountContaining("HLS source reconnect..."), 0U);
    const auto requests = Requests();
    ASSERT_FALSE(requests.empty());
    size_t segments = 0;
    for (const auto &request : requests) {
        EXPECT_NE(request.via, "-") << request.uri << " went past the proxy";
        segments += request.Playlist() ? 0U : 1U;
    }
    EXPECT_GE(Given(requests), 3) << "the playlist was not asked for again and again";
    EXPECT_GE(segments, 3U);
}

INSTANTIATE_TEST_SUITE_P(, HlsProxyPlays,
                         testing::Values(ProxyRow{"open", false, false, "", "", 15},
                                         ProxyRow{"credentials", true, false, "pu", "pp", 15},
                                         ProxyRow{"credentials_not_asked_for", false, false, "pu", "pp", 15},
                                         ProxyRow{"server_credentials", false, true, "", "", 15},
                                         ProxyRow{"both_credentials", true, true, "pu", "pp", 15},
                                         ProxyRow{"short_timeout", true, true, "pu", "pp", 10}),
                         [](const auto &row) { return row.param.name; });

class HlsProxyRefuses : public HlsProxy, public testing::WithParamInterface<ProxyRow> {};

TEST_P(HlsProxyRefuses, NothingReachesTheServer) {
    ServeHttp();
    const auto proxy = StartProxy(true);
    WriteFile(NginxFile("www/live.m3u8"), "#EXTM3U\n");
    Host host(kHls);
    ASSERT_TRUE(host.Open(Url(), Options(GetParam().user, GetParam().password)));
    EXPECT_TRUE(log.WaitLine("INFO", Reconnect(Url()), seconds(20), 2));
    EXPECT_TRUE(Requests().empty());
    EXPECT_EQ(host.Count(SHB_VIDEO), 0U);
}

INSTANTIATE_TEST_SUITE_P(, HlsProxyRefuses,
                         testing::Values(ProxyRow{"wrong_password", true, false, "pu", "x", 15},
                                         ProxyRow{"no_credentials", true, false, "", "", 15},
                                         ProxyRow{"user_without_password", true, false, "pu", "", 15}),
                         [](const auto &row) { return row.param.name; });

// ---- Segments that are refused -----------------------------------------------------------------------------------------

struct RefusedSegmentRow {
    const char *name;
    const char *status;
};

std::ostream &operator<<(std::ostream &out, const RefusedSegmentRow &row) {
    return out << row.name;
}

class HlsRefusedSegments : public Hls, public testing::WithParamInterface<RefusedSegmentRow> {};

// hlsdemux used to dead-lock in its stop once a segment had failed during a reload of the playlist.
TEST_P(HlsRefusedSegments, CloseReturns) {
    const std::string status = GetParam().status;
    ServeHttp("location ~ [.]ts$ { return " + status + "; }");
    const auto writer = Write(GetMaterial("h264_aac"));
    Host host(kHls);
    ASSERT_TRUE(host.Open(Url(), HlsOptions{}));
    // hlsdemux tries for ever, at each reload of the playlist, and does not end the session.
    const auto refused = [&] {
        const auto requests = Requests();
        return std::count_if(requests.begin(), requests.end(), [&](const Request &r) { return r.status == status; });
    };
    EXPECT_TRUE(WaitFor([&] { return refused() >= 5 && Given(Requests()) >= 5; }, seconds(60)));
    EXPECT_EQ(log.CountContaining("HLS source reconnect..."), 0U);

    std::atomic<bool> closed{false};
    std::thread closing([&] { closed = host.Close(); });
    if (!WaitFor([&] { return closed.load(); }, seconds(20))) {
        // The thread cannot be ended: nothing but the end of this program frees it.
        std::fputs("close hangs\n", stderr);
        std::abort();
    }
    closing.join();
    EXPECT_EQ(host.State(), "stop");
    EXPECT_EQ(host.Count(SHB_VIDEO) + host.Count(SHB_AUDIO), 0U);
}

INSTANTIATE_TEST_SUITE_P(, HlsRefusedSegments,
                         testing::Values(RefusedSegmentRow{"unauthorized", "401"}, RefusedSegmentRow{"forbidden", "403"},
                                         RefusedSegmentRow{"not_found", "404"}, RefusedSegmentRow{"server_error", "500"}),
                         [](const auto &row) { return row.param.name; });

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
void CloseAgainAndAgain(int hosts, int rounds, const std::string &url, const HlsOptions &options, bool connected) {
    std::atomic<int> running{hosts};
    std::vector<std::thread> threads;
    for (int i = 0; i < hosts; ++i) {
        threads.emplace_back([&] {
            Host host(kHls);
            for (int round = 0; round < rounds; ++round) {
                EXPECT_TRUE(host.Open(url, options));
                EXPECT_TRUE(!connected || WaitFor([&] { return host.State() == "connected"; }, seconds(20)));
                EXPECT_TRUE(host.Close());
                EXPECT_EQ(host.State(), "stop");
            }
            --running;
        });
    }
    if (!WaitFor([&] { return running == 0; }, seconds(60))) {
        // The thread cannot be ended: nothing but the end of this program frees it.
        std::fputs("close hangs\n", stderr);
        std::abort();
    }
    for (std::thread &thread : threads) {
        thread.join();
    }
}

// An answer that came just when souphttpsrc was stopped used to end the process, in libsoup. The worker looks up every 100 ms.
TEST_F(Hls, ClosedJustWhenTheAnswerComesEndsWell) {
    const SlowServer server(milliseconds(99), milliseconds(3));
    CloseAgainAndAgain(8, 80, server.Url(), HlsOptions{}, true);
    EXPECT_GT(server.Answered(), 0U);
}

// The same with the first segment, which is asked for as soon as the playlist has come.
TEST_F(Hls, ClosedJustWhenTheFirstSegmentComesEndsWell) {
    ServeHttp();
    const auto writer = Write(GetMaterial("h264_aac"));
    ASSERT_TRUE(WaitSegments("live.m3u8", 3));
#ifdef __SANITIZE_ADDRESS__
    constexpr int kRounds = 100;
#else
    constexpr int kRounds = 250;
#endif
    CloseAgainAndAgain(4, kRounds, Url(), HlsOptions{}, false);
}

// A connection attempt that was cancelled as it began used to be forgotten by GLib, and souphttpsrc waited for it for ever.
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
    ServeHttp();
    WriteFile(NginxFile("www/secret.key"), "0123456789abcdef");
    WriteFile(dir.File("keyinfo"), "secret.key\n" + NginxFile("www/secret.key") + "\n00112233445566778899aabbccddeeff\n");
    const auto writer = Write(material, {"-hls_key_info_file", dir.File("keyinfo")});
    Host host(kHls);
    ASSERT_TRUE(host.Open(Url(), HlsOptions{}));
    ExpectPlays(host, material, seconds(4), seconds(30));
    const auto requests = Requests();
    EXPECT_TRUE(std::any_of(requests.begin(), requests.end(), [](const Request &r) { return r.uri == "/secret.key"; }));
}

struct ForeignRow {
    const char *name;
    const char *material;
    std::vector<std::string> target;
};

std::ostream &operator<<(std::ostream &out, const ForeignRow &row) {
    return out << row.name;
}

class HlsForeign : public Hls, public testing::WithParamInterface<ForeignRow> {};

TEST_P(HlsForeign, MediaThatIsNoTransportStreamIsRefused) {
    ServeHttp();
    const Material &material = GetMaterial(GetParam().material);
    std::vector<std::string> target = GetParam().target;
    for (auto &arg : target) {
        arg = arg == "LIST" ? NginxFile("www/live.m3u8") : arg == "SEGMENTS" ? NginxFile("www/s%03d.aac") : arg;
    }
    const auto writer = Send(material, target);
    ASSERT_TRUE(WaitSegments("live.m3u8", 3));
    Host host(kHls);
    ASSERT_TRUE(host.Open(Url(), HlsOptions{}));
    EXPECT_TRUE(
        log.WaitLine("ERR", "[CHLSSource] Unable support hlsdeumx current meida structure!!! url=" + Url(), seconds(20)));
    EXPECT_TRUE(log.WaitLine("INFO", Reconnect(Url()), seconds(20)));
    EXPECT_EQ(log.CountContaining("tsdeumx A new"), 0U);
    EXPECT_EQ(host.Count(SHB_VIDEO) + host.Count(SHB_AUDIO), 0U);
}

INSTANTIATE_TEST_SUITE_P(, HlsForeign,
                         testing::Values(ForeignRow{"fragmented_mp4",
                                                    "h264_aac",
                                                    {"-f", "hls", "-hls_time", "1", "-hls_list_size", "8", "-hls_segment_type",
                                                     "fmp4", "LIST"}},
                                         ForeignRow{"packed_aac",
                                                    "aac_only",
                                                    {"-f", "segment", "-segment_time", "1", "-segment_list", "LIST",
                                                     "-segment_list_type", "m3u8", "-segment_list_flags", "live",
                                                     "-segment_list_size", "8", "-segment_format", "adts", "SEGMENTS"}}),
                         [](const auto &row) { return row.param.name; });

// The demultiplexer changes to the better variant at once; that second pad is refused and the session ends.
TEST_F(Hls, SecondVariantIsRefusedAndTheSourceComesBack) {
    const Material &material = GetMaterial("h264_aac");
    ServeHttp();
    std::filesystem::create_directories(NginxFile("www"));
    const auto writer =
        Send(material, {"-map", "0", "-f", "hls", "-hls_time", "1", "-hls_list_size", "8", "-master_pl_name", "master.m3u8",
                        "-b:v:0", "200k", "-b:v:1", "900k", "-var_stream_map", "v:0,a:0 v:1,a:1", NginxFile("www/v%v.m3u8")});
    ASSERT_TRUE(WaitSegments("v0.m3u8", 4));
    ASSERT_TRUE(WaitSegments("v1.m3u8", 4));
    Host host(kHls);
    ASSERT_TRUE(host.Open(Url("master.m3u8"), HlsOptions{}));
    EXPECT_TRUE(host.WaitFrames(SHB_VIDEO, 10, seconds(20)));
    EXPECT_TRUE(log.WaitLine("WARN",
                             "[CHLSSource] HLS media data src chanage so refused, noly support one!!!  new media src is "
                             "video/mpegts, url=" +
                                 Url("master.m3u8"),
                             seconds(20)));
    EXPECT_TRUE(log.WaitLine("INFO", Reconnect(Url("master.m3u8")), seconds(30)));
    const auto epoch = host.Frames(SHB_VIDEO).back().info.epoch;
    EXPECT_TRUE(WaitFor([&] { return host.Frames(SHB_VIDEO).back().info.epoch > epoch; }, seconds(20)));
    EXPECT_TRUE(SameVideo(material, host.Frames(SHB_VIDEO), 0));
}

TEST_F(Hls, ServerThatGoesAwayAndComesBack) {
    const Material &material = GetMaterial("h264_aac");
    ServeHttp();
    const auto writer = Write(material);
    Host host(kHls);
    ASSERT_TRUE(host.Open(Url(), HlsOptions{}));
    ASSERT_TRUE(WaitMedia(host, material, seconds(2), seconds(30)));
    nginx->Kill();
    EXPECT_TRUE(log.WaitLine("INFO", Reconnect(Url()), seconds(40)));
    EXPECT_TRUE(host.SawState("reconnect"));
    const auto epoch = host.Frames(SHB_VIDEO).back().info.epoch;
    // Refused connections are tried again and again.
    EXPECT_TRUE(log.WaitLine("INFO", Reconnect(Url()), seconds(30), 2));
    ServeHttp();
    ASSERT_TRUE(WaitFor([&] { return host.Frames(SHB_VIDEO).back().info.epoch > epoch; }, seconds(30)));
    ExpectPlays(host, material, seconds(2), seconds(30));
}

}  // namespace
}  // namespace peers
