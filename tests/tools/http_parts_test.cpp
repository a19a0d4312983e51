// The parts of the HTTP side that need no socket.
#include <gtest/gtest.h>

#include <random>

#include "http/address.h"
#include "http/api.h"
#include "http/exchange.h"
#include "http/guard.h"
#include "http/head.h"
#include "http/history.h"
#include "http/picture_schedule.h"
#include "http/target.h"
#include "http_client.h"
#include "http_fake.h"

using namespace std::chrono_literals;

namespace {

using Segments = std::vector<std::string>;

std::string Refusal(const std::string &address) {
    try {
        const tool::ListenAddress parsed(address);
        return "";
    } catch (const std::runtime_error &error) {
        return error.what();
    }
}

TEST(HttpAddress, IsNumbers) {
    EXPECT_EQ(tool::ListenAddress("127.0.0.1:9090").Text(), "127.0.0.1:9090");
    EXPECT_EQ(tool::ListenAddress("[::1]:80").Text(), "[::1]:80");
    EXPECT_EQ(tool::ListenAddress("0.0.0.0:0").Port(), 0);
    for (const char *wrong : {"", "9090", "host:9090", "::1:9090", "[::1]", "[::1]9090", "[127.0.0.1]:1", "127.1:80", ":80"}) {
        EXPECT_NE(Refusal(wrong).find("is no address to listen on"), std::string::npos) << wrong << ": " << Refusal(wrong);
    }
    for (const char *wrong :
         {"127.0.0.1:", "127.0.0.1:65536", "127.0.0.1:-1", "127.0.0.1:8o", "127.0.0.1:000080", "[::1]: 1"}) {
        EXPECT_NE(Refusal(wrong).find("the port is a number from 0 to 65535"), std::string::npos)
            << wrong << ": " << Refusal(wrong);
    }
}

TEST(HttpAddress, LoopbackIsWhatNoOtherMachineReaches) {
    for (const char *inside : {"127.0.0.1:1", "127.8.9.10:1", "[::1]:1"}) {
        EXPECT_TRUE(tool::ListenAddress(inside).IsLoopback()) << inside;
    }
    for (const char *outside : {"0.0.0.0:1", "[::]:1", "10.0.0.1:1", "128.0.0.1:1", "[::ffff:10.0.0.1]:1"}) {
        EXPECT_FALSE(tool::ListenAddress(outside).IsLoopback()) << outside;
    }
}

TEST(HttpAddress, OfLoopbackHasFewNames) {
    const tool::ListenAddress loopback("127.0.0.1:9090");
    for (const char *good :
         {"localhost", "LocalHost:9090", "127.0.0.1:9090", "127.0.0.1", "127.3.2.1:1", "[::1]:9090", "[::1]"}) {
        EXPECT_TRUE(loopback.IsHost(good)) << good;
    }
    for (const char *bad : {"", "evil.example", "localhost.evil.example", "127.0.0.1.evil.example:9090", "[::2]:1", "10.0.0.1",
                            ":9090", "[::1"}) {
        EXPECT_FALSE(loopback.IsHost(bad)) << bad;
    }
    EXPECT_TRUE(tool::ListenAddress("0.0.0.0:9090").IsHost("monitor.example:9090"));
}

TEST(HttpTarget, IsTakenApart) {
    EXPECT_EQ(tool::SplitTarget("/"), Segments());
    EXPECT_EQ(tool::SplitTarget("/metrics?x=1"), Segments{"metrics"});
    EXPECT_EQ(tool::SplitTarget("/api/sources/a%2Fb%20c"), (Segments{"api", "sources", "a/b c"}));
    EXPECT_EQ(tool::SplitTarget("/a/"), (Segments{"a", ""}));
    EXPECT_EQ(tool::SplitTarget("//a"), (Segments{"", "a"}));
    EXPECT_EQ(tool::SplitTarget("/../..%2f"), (Segments{"..", "../"}));
    for (const char *wrong : {"", "*", "metrics", "/%", "/%4", "/%zz", "/%00", "/a%-1", "http://host/"}) {
        EXPECT_FALSE(tool::SplitTarget(wrong)) << wrong;
    }
}

TEST(HttpGuard, TheTokenIsCompared) {
    const auto with = [](const std::string &value) { return tool::HttpRequest{"GET", "/", {{"authorization", value}}}; };
    EXPECT_TRUE(tool::HasToken(with("Bearer secret"), "secret"));
    EXPECT_TRUE(tool::HasToken(with("bearer secret"), "secret"));
    for (const char *wrong :
         {"", "secret", "Bearer", "Bearer ", "Bearer secre", "Bearer secrets", "Bearer secretsecret", "Basic secret"}) {
        EXPECT_FALSE(tool::HasToken(with(wrong), "secret")) << wrong;
    }
    EXPECT_FALSE(tool::SameSecret("", ""));
}

TEST(HttpGuard, ChangesAreForPagesOfThisSite) {
    using Headers = std::map<std::string, std::string>;
    const auto reason = [](Headers headers) {
        headers.emplace("host", "localhost:9090");
        return tool::CrossSiteReason({"POST", "/", std::move(headers)});
    };
    EXPECT_EQ(reason({{"x-requested-with", "curl"}}), "");
    EXPECT_EQ(reason({{"content-type", "application/json; charset=utf-8"}}), "");
    EXPECT_EQ(reason({{"x-requested-with", "page"}, {"sec-fetch-site", "same-origin"}, {"origin", "http://localhost:9090"}}),
              "");
    EXPECT_NE(reason({}), "");
    EXPECT_NE(reason({{"content-type", "text/plain"}}), "");
    EXPECT_NE(reason({{"x-requested-with", "x"}, {"sec-fetch-site", "cross-site"}}), "");
    EXPECT_NE(reason({{"x-requested-with", "x"}, {"sec-fetch-site", "same-site"}}), "");
    EXPECT_NE(reason({{"x-requested-with", "x"}, {"origin", "http://localhost:8080"}}), "");
    EXPECT_NE(reason({{"x-requested-with", "x"}, {"origin", "null"}}), "");
}

tool::Head Check(const std::string &head) {
    return tool::CheckHead(head);
}

TEST(HttpHead, EndsWithAnEmptyLine) {
    EXPECT_EQ(tool::HeadSize("GET / HTTP/1.1\r\nHost: a\r\n\r\nrest"), 27U);
    EXPECT_EQ(tool::HeadSize("GET / HTTP/1.1\nHost: a\n\n"), 24U);
    EXPECT_FALSE(tool::HeadSize("GET / HTTP/1.1\r\nHost: a\r\n\r"));
    EXPECT_FALSE(tool::HeadSize(""));
}

TEST(HttpHead, WhatTheLibraryWouldActOnIsLeftOut) {
    const tool::Head head =
        Check("GET / HTTP/1.1\nHost: a\nRange: bytes=0-1\nExpect: 100-continue\nContent-Length: 3\nX: y\n\n");
    EXPECT_EQ(head.status, 0) << head.message;
    EXPECT_EQ(head.body, 3U);
    EXPECT_EQ(head.text, "GET / HTTP/1.1\r\nHost: a\r\nX: y\r\n\r\n");
}

TEST(HttpHead, Refusals) {
    const std::string get = "GET / HTTP/1.1\r\nHost: a\r\n";
    EXPECT_EQ(Check("GET /\r\nHost: a\r\n\r\n").status, 400);
    EXPECT_EQ(Check("GET  / HTTP/1.1\r\nHost: a\r\n\r\n").status, 400);
    EXPECT_EQ(Check("GET / b HTTP/1.1\r\nHost: a\r\n\r\n").status, 400);
    EXPECT_EQ(Check("G(T / HTTP/1.1\r\nHost: a\r\n\r\n").status, 400);
    EXPECT_EQ(Check("GET /\xe4 HTTP/1.1\r\nHost: a\r\n\r\n").status, 400);
    EXPECT_EQ(Check("GET / HTTP/2.0\r\nHost: a\r\n\r\n").status, 505);
    EXPECT_EQ(Check("GET / HTTP/1.1\r\n\r\n").status, 400);
    EXPECT_EQ(Check("GET / HTTP/1.0\r\n\r\n").status, 0);
    EXPECT_EQ(Check("TRACE / HTTP/1.1\r\nHost: a\r\n\r\n").status, 501);
    EXPECT_EQ(Check(get + "Host: b\r\n\r\n").status, 400);
    EXPECT_EQ(Check(get + "No colon\r\n\r\n").status, 400);
    EXPECT_EQ(Check(get + "X : y\r\n\r\n").status, 400);
    EXPECT_EQ(Check(get + " folded\r\n\r\n").status, 400);
    EXPECT_EQ(Check(get + std::string("X: a\0b\r\n\r\n", 10)).status, 400);
    EXPECT_EQ(Check(get + "X: a\x1b[0m\r\n\r\n").status, 400);
    EXPECT_EQ(Check(get + "Content-Length: -1\r\n\r\n").status, 400);
    EXPECT_EQ(Check(get + "Content-Length: 1\r\nContent-Length: 1\r\n\r\n").status, 400);
    EXPECT_EQ(Check(get + "Content-Length: 4097\r\n\r\n").status, 413);
    EXPECT_EQ(Check(get + "Content-Length: 99999999999999999999999\r\n\r\n").status, 413);
    EXPECT_EQ(Check(get + "Transfer-Encoding: chunked\r\n\r\n").status, 411);
    EXPECT_EQ(Check("GET /" + std::string(9000, 'a') + " HTTP/1.1\r\nHost: a\r\n\r\n").status, 414);
    EXPECT_EQ(Check(get + "X: " + std::string(9000, 'a') + "\r\n\r\n").status, 431);
    std::string many = get;
    for (int i = 0; i < 64; ++i) {
        many += "X: y\r\n";
    }
    EXPECT_EQ(Check(many + "\r\n").status, 431);
}

TEST(HttpExchange, AnswersOneRequest) {
    tool::HttpRequest seen;
    tool::Exchange exchange([&seen](const tool::HttpRequest &request) {
        seen = request;
        tool::HttpAnswer answer;
        answer.body = std::make_shared<const std::string>(1000, 'x');
        return answer;
    });
    const auto answer = [&](const std::string &head) { return exchange.Answer(Check(head), false); };
    auto result = answer("GET /a%20b?c=d HTTP/1.1\r\nHost: here\r\nAccept-Encoding: gzip, br\r\nRange: bytes=1-2\r\n\r\n");
    EXPECT_EQ(seen.target, "/a%20b?c=d");
    EXPECT_EQ(seen.Header("host"), "here");
    EXPECT_EQ(seen.Header("accept-encoding"), "gzip, br");
    EXPECT_EQ(StatusOf(result.bytes), 200);
    EXPECT_EQ(BodyOf(result.bytes), std::string(1000, 'x')) << "neither compressed nor cut";
    EXPECT_FALSE(result.close);

    result = answer("HEAD / HTTP/1.1\r\nHost: here\r\n\r\n");
    EXPECT_NE(result.bytes.find("Content-Length: 1000\r\n"), std::string::npos) << result.bytes;
    EXPECT_EQ(BodyOf(result.bytes), "");

    EXPECT_TRUE(answer("GET / HTTP/1.1\r\nHost: here\r\nConnection: close\r\n\r\n").close);
    EXPECT_TRUE(answer("GET / HTTP/1.0\r\nHost: here\r\n\r\n").close);
    EXPECT_TRUE(exchange.Answer(Check("GET / HTTP/1.1\r\nHost: here\r\n\r\n"), true).close);

    result = answer("BREW / HTTP/1.1\r\nHost: here\r\n\r\n");
    EXPECT_EQ(StatusOf(result.bytes), 501);
    EXPECT_NE(BodyOf(result.bytes).find("\"error\""), std::string::npos) << result.bytes;
    result = answer("GET / HTTP/3\r\n\r\n");
    EXPECT_EQ(StatusOf(result.bytes), 505);
    EXPECT_TRUE(result.close);
}

TEST(HttpExchange, AnExceptionIsAnAnswer) {
    tool::Exchange exchange([](const tool::HttpRequest &) -> tool::HttpAnswer { throw std::runtime_error("secret"); });
    const auto result = exchange.Answer(Check("GET / HTTP/1.1\r\nHost: here\r\n\r\n"), false);
    EXPECT_EQ(StatusOf(result.bytes), 500);
    EXPECT_EQ(result.bytes.find("secret"), std::string::npos);
}

TEST(HttpHistory, KeepsTenMinutesOfEachName) {
    tool::History history;
    tool::RunSample run = LargeFleet(2);
    const auto begin = tool::History::Clock::now();
    for (int i = 0; i < 700; ++i) {
        run.sources[0].video.bitrate = static_cast<uint32_t>(i);
        history.Add(run, begin + std::chrono::milliseconds(1000 * i + (i % 2) * 30));
    }
    auto points = history.Of("camera-0");
    ASSERT_TRUE(points);
    ASSERT_EQ(points->size(), tool::History::kPoints);
    EXPECT_EQ(points->front().video_bitrate, 100U);
    EXPECT_EQ(points->back().video_bitrate, 699U);
    EXPECT_TRUE(points->front().known);

    run.sources.erase(run.sources.begin());
    history.Add(run, begin + 700s);
    EXPECT_FALSE(history.Of("camera-0"));
    EXPECT_TRUE(history.Of("camera-1"));
    EXPECT_FALSE(history.Of("nobody"));
}

TEST(HttpHistory, SecondsWithoutASampleAreAGap) {
    tool::History history;
    const tool::RunSample run = LargeFleet(1);
    const auto begin = tool::History::Clock::now();
    history.Add(run, begin);
    history.Add(run, begin + 300ms);  // the second that is there already
    EXPECT_EQ(history.Of("camera-0")->size(), 1U);
    history.Add(run, begin + 4s);
    const auto points = *history.Of("camera-0");
    ASSERT_EQ(points.size(), 5U);
    EXPECT_TRUE(points[0].known && points[4].known);
    EXPECT_FALSE(points[1].known || points[2].known || points[3].known);
    const tool::Record record = tool::HistoryRecord(points);
    EXPECT_TRUE(record["video_bps"][2].is_null());
    EXPECT_EQ(record["video_bps"][4], 4'000'000);
    EXPECT_EQ(record["live"].size(), 5U);

    history.Add(run, begin + 10h);
    EXPECT_EQ(history.Of("camera-0")->size(), tool::History::kPoints);
    history.Add(run, begin + 10h + 1s);
    EXPECT_TRUE((*history.Of("camera-0"))[598].known && (*history.Of("camera-0"))[599].known);
    EXPECT_FALSE((*history.Of("camera-0"))[597].known);
}

TEST(HttpApi, ASourceHasWhatTheTableShowsAndMore) {
    const tool::RunSample run = FakeFleet();
    const tool::Record record = tool::SourceRecord(run, run.sources[0], "now");
    EXPECT_EQ(record["name"], "gate-north");
    EXPECT_EQ(record["video_frames"], 90'000);
    EXPECT_EQ(record["buffer"], "/gate-north");
    EXPECT_EQ(record["readers"].size(), 3U);
    EXPECT_EQ(record["readers"][2]["lost_frames"], 37);
    EXPECT_TRUE(record["retry_in_s"].is_null());
    EXPECT_EQ(record["audio_presence"], "expected");
    EXPECT_EQ(record["first_frame"]["count"], 1);
    const tool::Record failing = tool::SourceRecord(run, run.sources[3], "now");
    EXPECT_EQ(failing["retry_in_s"], 2.1);
    EXPECT_EQ(failing["last_error_code"], "404");
    EXPECT_EQ(failing["rebuild_reasons"]["error"], 14);
    EXPECT_EQ(tool::SourcesRecord(run, "now").size(), 12U);
    EXPECT_EQ(tool::RunRecord(run, "now")["flow"]["live"], 8);
}

using Schedule = tool::PictureSchedule;

TEST(HttpPictureSchedule, OnlyWhatIsLookedAt) {
    Schedule schedule;
    const auto now = Schedule::Clock::now();
    EXPECT_FALSE(schedule.Next(now));
    schedule.Ask("a", now);
    EXPECT_EQ(schedule.Next(now), "a");
    schedule.Done("a", now, 0);
    EXPECT_FALSE(schedule.Next(now + 4s)) << "every five seconds";
    EXPECT_EQ(schedule.LookAt(now + 4s), now + 5s);
    EXPECT_EQ(schedule.Next(now + 5s), "a");
    EXPECT_FALSE(schedule.Next(now + 11s)) << "nobody asks any more";
}

TEST(HttpPictureSchedule, TheOldestPictureComesFirst) {
    Schedule schedule;
    auto now = Schedule::Clock::now();
    schedule.Ask("a", now);
    schedule.Done("a", now, 0);
    schedule.Ask("b", now);
    EXPECT_EQ(schedule.Next(now), "b");
    schedule.Done("b", now + 1s, 0);
    now += 7s;
    schedule.Ask("a", now);
    schedule.Ask("b", now);
    EXPECT_EQ(schedule.Next(now), "a");
}

TEST(HttpPictureSchedule, TakesAQuarterOfACore) {
    Schedule schedule;
    const auto begin = Schedule::Clock::now();
    auto now = begin;
    double spent = 0;
    // A hundred sources on a page, and children that take 0.2 s.
    while (now < begin + 60s) {
        for (int i = 0; i < 100; ++i) {
            schedule.Ask("camera-" + std::to_string(i), now);
        }
        if (const auto source = schedule.Next(now)) {
            now += 200ms;
            spent += 0.2;
            schedule.Done(*source, now, 0.2);
        } else {
            now = std::max(schedule.LookAt(now), now + 1ms);
        }
    }
    EXPECT_LT(spent, 0.26 * 60);
    EXPECT_GT(spent, 0.2 * 60) << "and that it uses";
}

// Requests that were damaged on their way.
TEST(HttpFuzz, EveryHeadHasAnAnswer) {
    const char *seconds = std::getenv("HTTP_FUZZ_SECONDS");
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(seconds == nullptr ? 1 : std::atoi(seconds));
    const unsigned seed = std::random_device{}();
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    tool::Exchange exchange([](const tool::HttpRequest &request) {
        tool::SplitTarget(request.target);
        tool::HasToken(request, "token");
        tool::CrossSiteReason(request);
        tool::ListenAddress("127.0.0.1:1").IsHost(request.Header("host"));
        return tool::HttpAnswer();
    });
    const std::vector<std::string> seeds{
        "GET /metrics HTTP/1.1\r\nHost: localhost\r\nAccept-Encoding: gzip;q=0, br\r\nRange: bytes=0-1,5-\r\n\r\n",
        "POST /api/sources/a%20b/restart HTTP/1.1\r\nHost: [::1]:9090\r\nContent-Length: 12\r\nContent-Type: "
        "application/json\r\n\r\n",
        "HEAD /api/sources/%e2%82%ac/picture?x=%41&y HTTP/1.0\r\nHost: 127.0.0.1\r\nConnection: Keep-Alive\r\nIf-None-Match: "
        "\"x\"\r\n\r\n",
        "OPTIONS * HTTP/1.1\nHost: localhost\nAuthorization: Bearer x\nExpect: 100-continue\nCookie: a=b; c=\"d\"\n\n"};
    const std::vector<std::string> pieces{
        "%", "%00", "..", "\r\n", "\n", ":", " ", "HTTP/1.1", "\xff", "/", "?", "Content-Length: 9", "=&", "\t", "\""};
    size_t good = 0;
    while (std::chrono::steady_clock::now() < end) {
        std::string head = seeds[random() % seeds.size()];
        for (auto changes = random() % 6; changes > 0 && !head.empty(); --changes) {
            const size_t at = random() % head.size();
            switch (random() % 4) {
                case 0:
                    head[at] = static_cast<char>(random());
                    break;
                case 1:
                    head.insert(at, pieces[random() % pieces.size()]);
                    break;
                case 2:
                    head.erase(at, random() % 8);
                    break;
                default:
                    head.insert(at, std::string(random() % 300, static_cast<char>(random())));
                    break;
            }
        }
        const auto size = tool::HeadSize(head);
        if (!size) {
            continue;
        }
        const tool::Head checked = tool::CheckHead(std::string_view(head).substr(0, *size));
        const auto result = exchange.Answer(checked, false);
        ASSERT_EQ(result.bytes.rfind("HTTP/1.1 ", 0), 0U) << head;
        const int status = StatusOf(result.bytes);
        ASSERT_TRUE(status == 200 || (status >= 400 && status < 506)) << head << "\n" << result.bytes;
        good += status == 200 ? 1U : 0U;
    }
    EXPECT_GT(good, 0U);
}

}  // namespace
