// The HTTP side as its clients see it.
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <fstream>
#include <random>
#include <thread>

#include "http/http_side.h"
#include "http_client.h"
#include "http_fake.h"
#include "record.h"
#include "temp_dir.h"
#include "wait_for.h"

namespace {

using tool::Record;

const std::string kSays = "X-Requested-With: test\r\n";

class HttpServer : public testing::Test {
  protected:
    explicit HttpServer(tool::RunSample run = FakeFleet()) : m_service(std::move(run)) {}

    void Start(const std::string &token = "", const std::string &reader = "", const std::string &address = "127.0.0.1:0") {
        m_side = std::make_unique<tool::HttpSide>(tool::HttpOptions{address, token, reader}, m_service);
        m_side->OnSample(m_service.Newest());
    }
    std::string Get(const std::string &target, const std::string &headers = "") const {
        return Fetch(m_side->Port(), target, "GET", headers);
    }
    Record Json(const std::string &target) const {
        const std::string answer = Get(target);
        EXPECT_EQ(StatusOf(answer), 200) << answer;
        EXPECT_NE(answer.find("Content-Type: application/json\r\n"), std::string::npos) << answer;
        return Record::parse(BodyOf(answer), nullptr, false);
    }
    // The one message of a refusal.
    static std::string ErrorOf(const std::string &answer) {
        const Record record = Record::parse(BodyOf(answer), nullptr, false);
        return record.is_object() && record.contains("error") ? record["error"].get<std::string>() : "no error in: " + answer;
    }

    FakeService m_service;
    std::unique_ptr<tool::HttpSide> m_side;
};

TEST_F(HttpServer, Metrics) {
    Start();
    const std::string answer = Get("/metrics");
    EXPECT_EQ(StatusOf(answer), 200);
    EXPECT_NE(answer.find("Content-Type: text/plain; version=0.0.4; charset=utf-8\r\n"), std::string::npos)
        << answer.substr(0, 500);
    EXPECT_NE(answer.find("gst_source_up{source=\"gate-north\"} 1\n"), std::string::npos);
    const std::string small = Get("/metrics", "Accept-Encoding: gzip\r\n");
    EXPECT_NE(small.find("Content-Encoding: gzip\r\n"), std::string::npos);
    EXPECT_LT(small.size() * 5, answer.size());
    // A new sample is seen at once.
    tool::RunSample run = FakeFleet();
    run.sources[0].flow = tool::Flow::kSilent;
    m_service.Set(std::move(run));
    EXPECT_NE(Get("/metrics").find("gst_source_up{source=\"gate-north\"} 0\n"), std::string::npos);
}

TEST_F(HttpServer, HealthIsThatOfTheServiceNotOfItsCameras) {
    m_side = std::make_unique<tool::HttpSide>(tool::HttpOptions{"127.0.0.1:0", "", ""}, m_service);
    EXPECT_EQ(StatusOf(Get("/healthz")), 503);
    EXPECT_EQ(BodyOf(Get("/healthz")), "no sample of the sources has been taken yet\n");
    EXPECT_EQ(StatusOf(Get("/readyz")), 503);
    m_side->OnSample(m_service.Newest());
    EXPECT_EQ(BodyOf(Get("/healthz")), "ok\n");
    const Record ready = Json("/readyz");
    EXPECT_EQ(ready["ready"], true) << "dead cameras are no reason";
    EXPECT_EQ(ready["sources"], 12);
    EXPECT_EQ(ready["live"], 8);
    EXPECT_EQ(ready["silent"], 1);
    EXPECT_EQ(ready["none"], 3);

    tool::RunSample opening = FakeFleet();
    opening.sources[0].state.clear();
    m_service.Set(std::move(opening));
    EXPECT_EQ(StatusOf(Get("/readyz")), 503);
    tool::RunSample closing = FakeFleet();
    closing.phase = tool::Phase::kClosing;
    m_service.Set(std::move(closing));
    EXPECT_EQ(StatusOf(Get("/healthz")), 503);
    EXPECT_EQ(StatusOf(Get("/readyz")), 503);
}

TEST_F(HttpServer, WithoutSamplesItIsIllLong) {
    Start();
    EXPECT_TRUE(WaitFor([&] { return StatusOf(Get("/healthz")) == 503; }));
    EXPECT_EQ(BodyOf(Get("/healthz")).rfind("no sample of the sources for ", 0), 0U);
}

TEST_F(HttpServer, Api) {
    m_service.SetLog("gate-north", {"one", "two \"three\" \xff"});
    Start();
    const Record sources = Json("/api/sources");
    ASSERT_EQ(sources.size(), 12U);
    EXPECT_EQ(sources[3]["last_error"], "Not found (404)");
    EXPECT_EQ(Json("/api/sources/gate-north")["video_width_px"], 1920);
    EXPECT_EQ(Json("/api/sources/gate-north/log")[0], "one");
    EXPECT_EQ(Json("/api/sources/gate-south/log"), Record::array());
    m_side->OnSample(m_service.Newest());
    EXPECT_EQ(Json("/api/sources/gate-north/history")["video_bps"].back(), 4'210'000);
    const Record run = Json("/api/run");
    EXPECT_EQ(run["process"]["threads"], 148);
    EXPECT_EQ(run["config_file"], "/etc/gst-source/fleet.toml");
    EXPECT_EQ(ErrorOf(Get("/api/sources/nobody")), "there is no source \"nobody\"");
    for (const char *nothing :
         {"/api", "/api/", "/api/source", "/api/sources/", "/api/sources/gate-north/", "/api/sources/gate-north/x",
          "/api/sources/gate-north/log/x", "/x", "/etc/passwd", "/../../etc/passwd", "/page.html", "//", "/%2e%2e"}) {
        const std::string answer = Get(nothing);
        EXPECT_EQ(StatusOf(answer), 404) << answer;
        EXPECT_NE(ErrorOf(answer), "") << answer;
    }
    EXPECT_EQ(StatusOf(Get("/%zz")), 400);
    EXPECT_EQ(StatusOf(Get("/api/sources/%00/log")), 400);
}

TEST_F(HttpServer, NamesAreEncoded) {
    tool::RunSample run = FakeFleet();
    run.sources[0].name = "a/b c\u00e4?%";
    m_service.Set(std::move(run));
    Start();
    EXPECT_EQ(Json("/api/sources/a%2Fb%20c%C3%A4%3F%25")["name"], "a/b c\u00e4?%");
}

TEST_F(HttpServer, ThePageAndItsFiles) {
    Start();
    for (const auto &[path, type] : {std::pair("/", "text/html"), std::pair("/page.css", "text/css"),
                                     std::pair("/page.js", "text/javascript"), std::pair("/icon.svg", "image/svg+xml")}) {
        const std::string answer = Get(path);
        EXPECT_EQ(StatusOf(answer), 200) << path;
        EXPECT_NE(answer.find(std::string("Content-Type: ") + type), std::string::npos) << answer.substr(0, 500);
        EXPECT_NE(answer.find("Content-Security-Policy: default-src 'self';"), std::string::npos);
        EXPECT_NE(answer.find("X-Content-Type-Options: nosniff"), std::string::npos);
        const size_t tag = answer.find("ETag: ");
        ASSERT_NE(tag, std::string::npos);
        const std::string value = answer.substr(tag + 6, answer.find('\r', tag) - tag - 6);
        const std::string again = Get(path, "If-None-Match: " + value + "\r\n");
        EXPECT_EQ(StatusOf(again), 304) << again;
        EXPECT_EQ(BodyOf(again), "");
    }
}

TEST_F(HttpServer, Methods) {
    Start();
    const uint16_t port = m_side->Port();
    const std::string head = Fetch(port, "/api/sources", "HEAD");
    EXPECT_EQ(StatusOf(head), 200);
    EXPECT_EQ(BodyOf(head), "");
    EXPECT_NE(head.find("Content-Length: " + std::to_string(BodyOf(Get("/api/sources")).size())), std::string::npos) << head;
    for (const char *method : {"POST", "PUT", "DELETE", "PATCH", "OPTIONS"}) {
        const std::string answer = Fetch(port, "/metrics", method);
        EXPECT_EQ(StatusOf(answer), 405) << method;
        EXPECT_NE(answer.find("Allow: GET, HEAD\r\n"), std::string::npos) << answer;
        EXPECT_EQ(ErrorOf(answer), "this path takes GET, HEAD");
    }
    const std::string answer = Get("/api/sources/gate-north/restart");
    EXPECT_EQ(StatusOf(answer), 405);
    EXPECT_NE(answer.find("Allow: POST\r\n"), std::string::npos) << answer;
}

TEST_F(HttpServer, RestartIsForThisSiteAlone) {
    Start();
    const auto post = [&](const std::string &name, const std::string &headers) {
        return Fetch(m_side->Port(), "/api/sources/" + name + "/restart", "POST", headers);
    };
    EXPECT_EQ(StatusOf(post("gate-north", "")), 403);
    EXPECT_EQ(StatusOf(post("gate-north", kSays + "Sec-Fetch-Site: cross-site\r\n")), 403);
    EXPECT_EQ(StatusOf(post("gate-north", kSays + "Origin: http://evil.example\r\n")), 403);
    EXPECT_TRUE(m_service.Restarts().empty());
    EXPECT_EQ(StatusOf(post("nobody", kSays)), 404);
    EXPECT_EQ(StatusOf(post("gate-north", kSays)), 202);
    EXPECT_EQ(StatusOf(post("gate-south", "Content-Type: application/json\r\nContent-Length: 0\r\n")), 202);
    EXPECT_EQ(m_service.Restarts(), (std::vector<std::string>{"gate-north", "gate-south"}));
}

TEST_F(HttpServer, ATokenIsAskedForEverywhereButForHealthAndThePage) {
    Start("let me in");
    for (const char *open : {"/healthz", "/readyz", "/", "/page.js", "/page.css", "/icon.svg"}) {
        EXPECT_EQ(StatusOf(Get(open)), 200) << open;
    }
    for (const char *closed :
         {"/metrics", "/api/run", "/api/sources", "/api/sources/gate-north", "/api/sources/nobody", "/x"}) {
        const std::string answer = Get(closed);
        EXPECT_EQ(StatusOf(answer), 401) << closed;
        EXPECT_NE(answer.find("WWW-Authenticate: Bearer\r\n"), std::string::npos);
        EXPECT_EQ(StatusOf(Get(closed, "Authorization: Bearer let me out\r\n")), 401) << closed;
        EXPECT_NE(StatusOf(Get(closed, "Authorization: Bearer let me in\r\n")), 401) << closed;
    }
    const std::string restart = "/api/sources/gate-north/restart";
    EXPECT_EQ(StatusOf(Fetch(m_side->Port(), restart, "POST", kSays)), 401);
    EXPECT_EQ(StatusOf(Fetch(m_side->Port(), restart, "POST", "Authorization: Bearer let me in\r\n")), 403);
    EXPECT_EQ(StatusOf(Fetch(m_side->Port(), restart, "POST", kSays + "Authorization: Bearer let me in\r\n")), 202);
}

TEST_F(HttpServer, AnotherNameForLoopbackIsRefused) {
    Start();
    HttpClient client(m_side->Port());
    client.Send("GET /api/sources HTTP/1.1\r\nHost: rebound.example\r\nConnection: close\r\n\r\n");
    const std::string answer = client.ReadToEnd();
    EXPECT_EQ(StatusOf(answer), 403);
    EXPECT_EQ(ErrorOf(answer), "the Host header is not an address of this service; ask for http://" + m_side->Address() + "/");
    HttpClient old(m_side->Port());
    old.Send("GET /healthz HTTP/1.0\r\n\r\n");
    EXPECT_EQ(BodyOf(old.ReadToEnd()), "ok\n") << "no browser";
}

TEST_F(HttpServer, WhatCannotBeListenedOnIsOneLine) {
    Start();
    const auto why = [&](const std::string &address, const std::string &token) -> std::string {
        try {
            const tool::HttpSide side(tool::HttpOptions{address, token, ""}, m_service);
            return "";
        } catch (const std::runtime_error &error) {
            return error.what();
        }
    };
    EXPECT_EQ(why(m_side->Address(), ""), "cannot listen on " + m_side->Address() + ": Address already in use");
    EXPECT_EQ(why("0.0.0.0:0", ""), "other machines reach 0.0.0.0:0, so a token is needed");
    EXPECT_EQ(why("0.0.0.0:0", "token"), "");
    EXPECT_EQ(why("nonsense", ""), "\"nonsense\" is no address to listen on, such as 127.0.0.1:9090 or [::1]:9090");
    EXPECT_NE(why("203.0.113.1:80", "token"), "");
}

TEST_F(HttpServer, OneConnectionTakesManyRequests) {
    Start();
    HttpClient client(m_side->Port());
    for (int i = 0; i < 20; ++i) {
        ASSERT_TRUE(client.Send("GET /healthz HTTP/1.1\r\nHost: localhost\r\n\r\n"));
        EXPECT_EQ(BodyOf(client.ReadAnswer()), "ok\n");
    }
    // All at once, with a body that nobody wants, and an empty line in between.
    client.Send(
        "GET /healthz HTTP/1.1\r\nHost: localhost\r\n\r\nPOST /healthz HTTP/1.1\r\nHost: localhost\r\nContent-Length: "
        "5\r\n\r\nGET /\r\n"
        "HEAD /healthz HTTP/1.1\r\nHost: localhost\r\n\r\nGET /nothing HTTP/1.1\r\nHost: localhost\r\nConnection: "
        "close\r\n\r\n");
    EXPECT_EQ(StatusOf(client.ReadAnswer()), 200);
    EXPECT_EQ(StatusOf(client.ReadAnswer()), 405);
    EXPECT_EQ(StatusOf(client.ReadAnswer(false)), 200);
    EXPECT_EQ(StatusOf(client.ReadAnswer()), 404);
    EXPECT_EQ(client.ReadToEnd(), "");
}

TEST_F(HttpServer, AConnectionTakesAThousandRequestsAndNoMore) {
    Start();
    HttpClient client(m_side->Port());
    std::string all;
    std::thread reader([&] { all = client.ReadToEnd(); });
    for (int i = 0; i < 1100 && client.Send("GET /healthz HTTP/1.1\r\nHost: localhost\r\n\r\n"); ++i) {
    }
    reader.join();
    size_t answers = 0;
    for (size_t at = all.find("HTTP/1.1 200"); at != std::string::npos; at = all.find("HTTP/1.1 200", at + 1)) {
        ++answers;
    }
    EXPECT_EQ(answers, 1000U);
}

TEST_F(HttpServer, WhatIsTooLargeIsRefusedWithAReason) {
    Start();
    const auto answer = [&](const std::string &bytes) {
        HttpClient client(m_side->Port());
        client.Send(bytes);
        return StatusOf(client.ReadToEnd());
    };
    const std::string get = "GET / HTTP/1.1\r\nHost: localhost\r\n";
    EXPECT_EQ(answer("GET /" + std::string(20'000, 'a') + " HTTP/1.1\r\n\r\n"), 414);
    EXPECT_EQ(answer("GET /" + std::string(9'000, 'a') + " HTTP/1.1\r\nHost: localhost\r\n\r\n"), 414);
    EXPECT_EQ(answer(get + "X: " + std::string(20'000, 'a') + "\r\n\r\n"), 431);
    EXPECT_EQ(answer(get + "Content-Length: 5000\r\n\r\n" + std::string(5000, 'a')), 413);
    EXPECT_EQ(answer(get + "Content-Length: 10000000000\r\n\r\n"), 413);
    EXPECT_EQ(answer(get + "Transfer-Encoding: chunked\r\n\r\n5\r\nhello\r\n0\r\n\r\n"), 411);
    EXPECT_EQ(answer("\x16\x03\x01\x02"
                     "a TLS greeting\r\n\r\n"),
              400);
    EXPECT_EQ(answer("GET / HTTP/1.1\r\n\r\n"), 400);
    EXPECT_EQ(StatusOf(Get("/api/sources/" + std::string(7'000, 'n'))), 404);
}

// Slow clients of both kinds, and how long others wait meanwhile.
class SlowClients {
  public:
    SlowClients(uint16_t port, size_t count) {
        constexpr int kSmall = 2048;
        for (size_t i = 0; i < count; ++i) {
            m_clients.push_back(std::make_unique<HttpClient>(port, kSmall));
        }
        m_thread = std::thread([this] { Dribble(); });
    }
    ~SlowClients() {
        m_ending = true;
        m_thread.join();
    }
    size_t Connected() const {
        return static_cast<size_t>(
            std::count_if(m_clients.begin(), m_clients.end(), [](const auto &client) { return client->Connected(); }));
    }

  private:
    // One half sends a byte now and then, the other asks for much and reads nothing.
    void Dribble() {
        const std::string request = "GET /api/sources HTTP/1.1\r\nHost: localhost\r\n\r\n";
        for (size_t round = 0; !m_ending; ++round) {
            for (size_t i = 0; i < m_clients.size() && !m_ending; ++i) {
                if (i % 2 == 0) {
                    m_clients[i]->Send("GET /"[round % 5] == 0 ? "" : "a");
                } else if (round == 0) {
                    m_clients[i]->Send(request + request + request);
                }
            }
            WaitFor([this] { return m_ending.load(); }, 1s);
        }
    }

    std::vector<std::unique_ptr<HttpClient>> m_clients;
    std::atomic<bool> m_ending{false};
    std::thread m_thread;
};

class HttpServerLarge : public HttpServer {
  protected:
    HttpServerLarge() : HttpServer(LargeFleet(300)) {}
};

TEST_F(HttpServerLarge, SlowClientsHoldUpNobody) {
    Start();
    const SlowClients slow(m_side->Port(), 200);
    EXPECT_EQ(slow.Connected(), 200U);
    const char *paths[] = {"/metrics", "/"};
    std::vector<double> times;
    for (int i = 0; i < 200; ++i) {
        const auto begin = std::chrono::steady_clock::now();
        ASSERT_EQ(StatusOf(Get(paths[i % 2])), 200);
        times.push_back(std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - begin).count());
    }
    std::sort(times.begin(), times.end());
    std::printf("300 sources, 200 slow clients: median %.1f ms, p99 %.1f ms\n", times[times.size() / 2],
                times[times.size() * 99 / 100]);
    EXPECT_LT(times.back(), 5000) << "a slow client's patience is longer";
    const auto begin = std::chrono::steady_clock::now();
    m_side.reset();
    EXPECT_LT(std::chrono::steady_clock::now() - begin, 5s);
}

TEST_F(HttpServer, ARequestThatNeverEndsIsGivenUp) {
    const tool::ListenAddress any("127.0.0.1:0");
    tool::ListenAddress address = any;
    tool::ConnectionLimits limits;
    limits.request = 200ms;
    limits.idle = 300ms;
    limits.answer = 400ms;
    tool::Fd listener = address.Listen();
    const auto large = std::make_shared<const std::string>(size_t{20} << 20U, 'x');
    const tool::Connections connections(
        std::move(listener),
        [&](const tool::HttpRequest &request) {
            tool::HttpAnswer answer;
            answer.body = request.target == "/large" ? large : std::make_shared<const std::string>("small");
            return answer;
        },
        limits);
    HttpClient silent(address.Port());
    EXPECT_EQ(silent.ReadToEnd(), "");
    HttpClient half(address.Port());
    half.Send("GET / HTTP/1.1\r\n");
    EXPECT_EQ(half.ReadToEnd(), "");
    HttpClient idle(address.Port());
    idle.Send("GET / HTTP/1.1\r\nHost: a\r\n\r\n");
    EXPECT_EQ(BodyOf(idle.ReadToEnd()), "small");
    HttpClient lazy(address.Port(), 2048);
    lazy.Send("GET /large HTTP/1.1\r\nHost: a\r\n\r\n");
    // Bytes that were on their way when the server gave up still come.
    ASSERT_TRUE(WaitFor([&] { return !lazy.Send("x"); })) << "the connection is gone";
    EXPECT_LT(lazy.ReadToEnd().size(), large->size());
}

TEST_F(HttpServer, ANewcomerTakesThePlaceOfTheOneThatHasWaitedLongest) {
    tool::ListenAddress address("127.0.0.1:0");
    tool::ConnectionLimits limits;
    limits.connections = 3;
    tool::Fd listener = address.Listen();
    const tool::Connections connections(
        std::move(listener), [](const tool::HttpRequest &) { return tool::HttpAnswer(); }, limits);
    const std::string get = "GET / HTTP/1.1\r\nHost: a\r\n\r\n";
    std::vector<std::unique_ptr<HttpClient>> clients;
    for (int i = 0; i < 3; ++i) {
        clients.push_back(std::make_unique<HttpClient>(address.Port()));
        clients.back()->Send(get);
        EXPECT_EQ(StatusOf(clients.back()->ReadAnswer()), 200);
    }
    clients[0]->Send(get);
    EXPECT_EQ(StatusOf(clients[0]->ReadAnswer()), 200);
    HttpClient newcomer(address.Port());
    newcomer.Send(get);
    EXPECT_EQ(StatusOf(newcomer.ReadAnswer()), 200);
    EXPECT_EQ(clients[1]->ReadToEnd(), "") << "closed";
    clients[0]->Send(get);
    EXPECT_EQ(StatusOf(clients[0]->ReadAnswer()), 200);
}

TEST_F(HttpServer, ManyConnectionsLeaveTheSourcesTheirDescriptors) {
    rlimit before{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &before), 0);
    rlimit few = before;
    few.rlim_cur = 128;
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &few), 0);
    Start();
    {
        // Each takes two descriptors of this process.
        std::vector<std::unique_ptr<HttpClient>> clients;
        for (int i = 0; i < 48; ++i) {
            clients.push_back(std::make_unique<HttpClient>(m_side->Port()));
            EXPECT_TRUE(clients.back()->Connected());
        }
        EXPECT_EQ(StatusOf(Get("/healthz")), 200);
        EXPECT_EQ(clients.front()->ReadToEnd(), "") << "only a quarter of them is for clients";
    }
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &before), 0);
}

// Pictures by programs that behave like gst-source-read, or do not.
class HttpPictures : public HttpServer {
  protected:
    std::string Program(const std::string &script) const {
        const std::string path = m_dir.Write("program", "#!/bin/sh\n" + script + "\n");
        chmod(path.c_str(), 0755);
        return path;
    }
    // The answer once it is no longer that of the beginning.
    std::string FirstPicture(const std::string &source) const {
        std::string answer;
        EXPECT_TRUE(WaitFor([&] {
            answer = Get("/api/sources/" + source + "/picture");
            return answer.find("the first picture is being made") == std::string::npos;
        }));
        return answer;
    }

    const TempDir m_dir;
};

TEST_F(HttpPictures, AreMadeByAProgramAndTagged) {
    Start("", Program("echo \"$@\" >> " + m_dir.File("calls") + "; printf jpeg-of-$2"));
    const std::string answer = FirstPicture("gate-north");
    EXPECT_EQ(StatusOf(answer), 200) << answer;
    EXPECT_EQ(BodyOf(answer), "jpeg-of-/gate-north");
    EXPECT_NE(answer.find("Content-Type: image/jpeg\r\n"), std::string::npos);
    EXPECT_NE(answer.find("Age: "), std::string::npos);
    EXPECT_EQ(ReadAll(m_dir.File("calls")).rfind("snapshot /gate-north - --channel 0 --timeout 1 --width 640", 0), 0U)
        << ReadAll(m_dir.File("calls"));
    const size_t tag = answer.find("ETag: ");
    ASSERT_NE(tag, std::string::npos);
    // The next picture has another tag, and this one may have been made meanwhile.
    const std::string again = Get("/api/sources/gate-north/picture",
                                  "If-None-Match: " + answer.substr(tag + 6, answer.find('\r', tag) - tag - 6) + "\r\n");
    EXPECT_TRUE(StatusOf(again) == 304 || StatusOf(again) == 200) << again;
    EXPECT_EQ(StatusOf(Get("/api/sources/nobody/picture")), 404);
}

TEST_F(HttpPictures, OfOneBufferHaveTheirChannel) {
    tool::RunSample run = FakeFleet();
    run.buffer_name = "/fleet";
    m_service.Set(std::move(run));
    Start("", Program("printf \"channel $5\""));
    EXPECT_EQ(BodyOf(FirstPicture("gate-south")), "channel 1");
}

TEST_F(HttpPictures, AFailureHasItsReason) {
    Start("", Program("case $2 in /gate-north) echo one >&2; echo 'gst-source-read: no key frame' >&2; exit 1;; /gate-south) "
                      "kill -SEGV $$;; "
                      "/parking-p1) exit 0;; /studio-a) yes;; *) printf good;; esac"));
    const auto error = [&](const std::string &source) { return ErrorOf(FirstPicture(source)); };
    EXPECT_EQ(error("gate-north"), "gst-source-read: no key frame");
    const Record none = Json("/api/sources/gate-north/picture?else=json");
    EXPECT_TRUE(none["picture"].is_null());
    EXPECT_EQ(none["reason"], "gst-source-read: no key frame");
    EXPECT_EQ(error("gate-south"), "the program that makes pictures ended by signal " + std::to_string(SIGSEGV));
    EXPECT_EQ(error("parking-p1"), "the program that makes pictures failed");
    EXPECT_EQ(error("studio-a"), "the picture is too large");
    EXPECT_EQ(error("satellite-9"), "the source has brought no video yet");
    EXPECT_EQ(BodyOf(FirstPicture("satellite-7")), "good") << "the others go on";
}

TEST_F(HttpPictures, AProgramThatIsNotThereIsAReason) {
    Start("", m_dir.File("missing"));
    EXPECT_EQ(ErrorOf(FirstPicture("gate-north")), m_dir.File("missing") + " cannot be started: No such file or directory");
    m_side.reset();
    Start("", "");
    EXPECT_EQ(ErrorOf(FirstPicture("gate-north")), "this run makes no pictures");
}

bool IsGone(int pid) {
    return kill(pid, 0) != 0;
}

TEST_F(HttpPictures, AProgramThatHangsIsKilledWithItsChildrenLong) {
    Start("", Program("sleep 1000 & echo $! > " + m_dir.File("child") + "; echo $$ > " + m_dir.File("self") + "; sleep 1000"));
    EXPECT_EQ(ErrorOf(FirstPicture("gate-north")), "the picture took too long");
    for (const char *file : {"child", "self"}) {
        const int pid = std::atoi(ReadAll(m_dir.File(file)).c_str());
        ASSERT_GT(pid, 0);
        EXPECT_TRUE(WaitFor([pid] { return IsGone(pid); })) << file;
    }
}

double CpuOfChildren() {
    rusage usage{};
    getrusage(RUSAGE_CHILDREN, &usage);
    const auto seconds = [](const timeval &time) {
        return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
    };
    return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

TEST_F(HttpPictures, TogetherTakeAQuarterOfACoreLong) {
    Start("", Program("i=0; while [ $i -lt 300000 ]; do i=$((i+1)); done; echo x >> " + m_dir.File("made") + "; printf jpeg"));
    const double before = CpuOfChildren();
    const auto begin = std::chrono::steady_clock::now();
    ASSERT_TRUE(WaitFor([&] {
        for (const auto &source : FakeFleet().sources) {
            Get("/api/sources/" + source.name + "/picture");
        }
        return ReadAll(m_dir.File("made")).size() >= 2 * 5;
    }));
    // The rest behind the last one belongs to it.
    const double spent = CpuOfChildren() - before;
    const double share =
        spent / (std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count() + 3 * spent / 5);
    std::printf("5 pictures of %.0f ms took %.0f %% of a core\n", 1000 * spent / 5, 100 * share);
    EXPECT_LT(share, 0.3);
}

TEST_F(HttpPictures, TheEndDoesNotWaitForAPicture) {
    Start("", Program("echo $$ > " + m_dir.File("part") + "; mv " + m_dir.File("part") + " " + m_dir.File("self") +
                      "; exec sleep 1000"));
    Get("/api/sources/gate-north/picture");
    ASSERT_TRUE(WaitFor([&] { return !ReadAll(m_dir.File("self")).empty(); }));
    const int pid = std::atoi(ReadAll(m_dir.File("self")).c_str());
    m_side.reset();
    EXPECT_TRUE(IsGone(pid));
}

TEST_F(HttpPictures, AChildHasNothingOfThisProcess) {
    Start("", Program("ls /proc/self/fd | wc -l; cat /proc/self/stat | cut -d' ' -f19"));
    const HttpClient other(m_side->Port());
    // 0, 1, 2 and the directory that is listed, at a lower priority.
    std::string body = BodyOf(FirstPicture("gate-north"));
    EXPECT_EQ(body.substr(0, body.find('\n')), "4");
    EXPECT_EQ(body.substr(body.find('\n')), "\n10\n");
}

// Whatever comes over the network, the next client is served. HTTP_FUZZ_SECONDS makes it last longer.
TEST_F(HttpServer, NonsenseHurtsNobody) {
    Start();
    const char *seconds = std::getenv("HTTP_FUZZ_SECONDS");
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(seconds == nullptr ? 1 : std::atoi(seconds));
    const unsigned seed = std::random_device{}();
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    const std::string request = "GET /api/sources/gate-north/history HTTP/1.1\r\nHost: localhost\r\nContent-Length: 0\r\n\r\n";
    while (std::chrono::steady_clock::now() < end) {
        std::string bytes;
        for (auto i = random() % 4; i > 0; --i) {
            bytes += request;
        }
        for (auto i = random() % 20; i > 0 && !bytes.empty(); --i) {
            bytes[random() % bytes.size()] = static_cast<char>(random());
        }
        bytes.append(random() % 10 == 0 ? random() % 40'000 : 0, static_cast<char>(random()));
        const HttpClient client(m_side->Port());
        ASSERT_TRUE(client.Connected());
        const size_t part = bytes.empty() ? 0 : random() % bytes.size();
        client.Send(std::string_view(bytes).substr(0, part));
        client.Send(std::string_view(bytes).substr(part));
        if (random() % 2 == 0) {
            client.EndSending();
        }
    }
    EXPECT_EQ(StatusOf(Get("/metrics")), 200);
}

}  // namespace
