#include "log_capture.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
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
