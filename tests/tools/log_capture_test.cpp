#include "log_capture.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <pty.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <thread>

#include "temp_dir.h"
#include "wait_for.h"

using namespace tool;

namespace {

Fd Create(const std::string &path) {
    return Fd(open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600));
}

}  // namespace

TEST(LogCapture, HandsEveryLineOverInOrderWithoutSecrets) {
    const TempDir dir;
    const Fd target = Create(dir.File("log"));
    Masker masker;
    masker.Add("geheim");
    {
        const LogCapture capture(target.Get(), false, masker);
        std::printf("first pwd=geheim\n");
        std::fflush(stdout);
        ASSERT_EQ(write(STDOUT_FILENO, "sec", 3), 3);
        ASSERT_EQ(write(STDOUT_FILENO, "ond\n", 4), 4);
        std::printf("no newline at the end");
    }
    EXPECT_EQ(ReadAll(dir.File("log")), "first pwd=***\nsecond\nno newline at the end\n");
}

TEST(LogCapture, LosesNothingFromManyThreads) {
    const TempDir dir;
    const Fd target = Create(dir.File("log"));
    constexpr int kThreads = 4;
    constexpr int kLines = 2000;
    {
        LogCapture capture(target.Get(), false, {});
        std::vector<std::thread> threads;
        threads.reserve(kThreads);
        for (int t = 0; t < kThreads; ++t) {
            threads.emplace_back([t] {
                for (int i = 0; i < kLines; ++i) {
                    std::printf("thread %d line %d\n", t, i);
                }
            });
        }
        for (std::thread &thread : threads) {
            thread.join();
        }
    }
    std::istringstream log(ReadAll(dir.File("log")));
    std::vector<int> next(kThreads, 0);
    for (std::string text; std::getline(log, text);) {
        std::istringstream words(text);
        std::string word;
        size_t thread = 0;
        int line = 0;
        ASSERT_TRUE(words >> word >> thread >> word >> line) << text;
        ASSERT_EQ(line, next.at(thread)++);
    }
    EXPECT_EQ(next, std::vector<int>(kThreads, kLines));
}

TEST(LogCapture, KeepsTheLastLinesWithoutATarget) {
    {
        const LogCapture capture(-1, false, {});
        for (int i = 0; i < 60; ++i) {
            std::printf("line %d\n", i);
        }
        std::fflush(stdout);
        ASSERT_TRUE(WaitFor([&capture] { return capture.LineCount() == 60; }));
        EXPECT_EQ(capture.LastLines(2), (std::vector<std::string>{"line 58", "line 59"}));
        EXPECT_EQ(capture.LastLines(1000).size(), LogCapture::kKept);
    }
}

TEST(LogCapture, PutsTheDescriptorsBack) {
    const TempDir dir;
    const Fd out = Duplicate(STDOUT_FILENO);
    const Fd err = Duplicate(STDERR_FILENO);
    const Fd file = Create(dir.File("out"));
    dup2(file.Get(), STDOUT_FILENO);
    dup2(file.Get(), STDERR_FILENO);
    {
        const LogCapture capture(-1, true, {});
        std::printf("captured\n");
        std::fprintf(stderr, "captured too\n");
    }
    std::printf("back\n");
    std::fflush(stdout);
    std::fprintf(stderr, "and back\n");
    dup2(out.Get(), STDOUT_FILENO);
    dup2(err.Get(), STDERR_FILENO);
    EXPECT_EQ(ReadAll(dir.File("out")), "back\nand back\n");
}

namespace {

constexpr const char *kLines =
    "[2024-05-01 12.00.00] (INFO) (1) started\n"
    "\x1b[31m0:00:00.123456789\x1b[00m    12 0x7f00 \x1b[31;01mERROR\x1b[00m x x.c:1:f: red\n"
    "\x1b]0;title\x07[2024-05-01 12.00.01] (WARN) (2) careful\n"
    "[2024-05-01 12.00.02] (INFO) (3) [GSTREAMER] Warning from \"Srtsrc\": Wrong (BADSECRET). URL=srt://h:1\n"
    "0:00:00.123456789    12 0x7f00 DEBUG x x.c:1:f: small\n";

// What a policy lets to a file, and what it keeps.
struct Seen {
    std::string target;
    std::vector<std::string> kept;
    std::vector<std::string> all;
    uint64_t total = 0;
    uint64_t noted = 0;
};

Seen Pass(int target, LogPolicy policy) {
    Seen seen;
    LogCapture capture(
        target, false, {}, [&seen](const std::string &line) { seen.all.push_back(line); }, policy);
    std::printf("%s", kLines);
    std::fflush(stdout);
    EXPECT_TRUE(WaitFor([&capture] { return capture.LineCount() == 5; }));
    seen.kept = capture.LastLines(LogCapture::kKept);
    seen.total = capture.LineCount();
    seen.noted = capture.NotedCount();
    return seen;
}

Seen PassToFile(LogPolicy policy) {
    const TempDir dir;
    Seen seen;
    {
        const Fd target = Create(dir.File("log"));
        seen = Pass(target.Get(), policy);
    }
    seen.target = ReadAll(dir.File("log"));
    return seen;
}

}  // namespace

TEST(LogCapture, APolicyDecidesWhatGoesWhere) {
    const std::string error = "0:00:00.123456789    12 0x7f00 ERROR x x.c:1:f: red\n";
    const std::string warning = "[2024-05-01 12.00.01] (WARN) (2) careful\n";
    Seen seen = PassToFile(PolicyOf(false, 0, ""));
    EXPECT_EQ(seen.target.find('\x1b'), std::string::npos);
    EXPECT_EQ(std::count(seen.target.begin(), seen.target.end(), '\n'), 5);
    ASSERT_EQ(seen.kept.size(), 3U);
    EXPECT_EQ(seen.kept[0] + "\n", error);
    EXPECT_EQ(seen.kept[1] + "\n", warning);
    EXPECT_NE(seen.kept[2].find("BADSECRET"), std::string::npos) << "a reason, whatever its level";
    EXPECT_EQ(seen.noted, 3U);
    EXPECT_EQ(seen.total, 5U);
    EXPECT_EQ(seen.all.size(), 5U);
    EXPECT_EQ(seen.all[1] + "\n", error);

    seen = PassToFile(PolicyOf(true, 0, ""));
    EXPECT_EQ(seen.target, error);
    EXPECT_EQ(seen.kept.size(), 1U);
    EXPECT_EQ(seen.all.size(), 5U) << "who looks for reasons sees every line";
    EXPECT_EQ(PassToFile(PolicyOf(false, 0, "warning")).target, error + warning);
    EXPECT_EQ(PassToFile(PolicyOf(false, 1, "")).kept.size(), 5U);
}

TEST(LogCapture, TheJournalGetsLevelsAndNoStamp) {
    const TempDir dir;
    {
        const Fd target = Create(dir.File("log"));
        struct stat about {};
        ASSERT_EQ(fstat(target.Get(), &about), 0);
        setenv("JOURNAL_STREAM", (std::to_string(about.st_dev) + ":" + std::to_string(about.st_ino)).c_str(), 1);
        Pass(target.Get(), {});
        unsetenv("JOURNAL_STREAM");
    }
    EXPECT_EQ(ReadAll(dir.File("log")),
              "<6>(INFO) (1) started\n"
              "<3>0:00:00.123456789    12 0x7f00 ERROR x x.c:1:f: red\n"
              "<4>(WARN) (2) careful\n"
              "<6>(INFO) (3) [GSTREAMER] Warning from \"Srtsrc\": Wrong (BADSECRET). URL=srt://h:1\n"
              "<7>0:00:00.123456789    12 0x7f00 DEBUG x x.c:1:f: small\n");
}

TEST(LogCapture, ATerminalGetsColorsAndNothingElse) {
    int terminal = -1;
    int other = -1;
    ASSERT_EQ(openpty(&terminal, &other, nullptr, nullptr, nullptr), 0);
    const Fd screen(terminal);
    const Fd target(other);
    unsetenv("NO_COLOR");
    Pass(target.Get(), {});
    std::array<char, 4096> buffer{};
    const ssize_t got = read(screen.Get(), buffer.data(), buffer.size());
    const std::string text(buffer.data(), static_cast<size_t>(std::max<ssize_t>(got, 0)));
    EXPECT_NE(text.find("\x1b[31;01mERROR\x1b[00m x"), std::string::npos) << text;
    EXPECT_EQ(text.find("title"), std::string::npos) << text;
}
