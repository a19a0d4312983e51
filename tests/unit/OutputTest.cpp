// Standard output that takes nothing: it belongs to the host, and the library does not wait for it.
#include "Logger.h"
#include "support/FewDescriptors.h"
#include "support/Fixture.h"
#include "support/OutputPipe.h"
#include "support/Watchdog.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <thread>

namespace unit {

namespace {

using GSTREAMER::LogLevel;
using GSTREAMER::WriteLogLine;
using Clock = std::chrono::steady_clock;

// The message of one log line: what stands behind time, level and source line.
std::string Message(const std::string &line) {
    const std::size_t level = line.find(") (");
    const std::size_t at = level == std::string::npos ? level : line.find(") ", level + 3);
    return at == std::string::npos ? line : line.substr(at + 2);
}

// The messages of whole log lines, each with its end of line.
std::vector<std::string> Messages(const std::string &text) {
    std::vector<std::string> messages;
    std::size_t begin = 0;
    for (std::size_t end = text.find('\n'); end != std::string::npos; end = text.find('\n', begin)) {
        messages.push_back(Message(text.substr(begin, end + 1 - begin)));
        begin = end + 1;
    }
    if (begin < text.size()) {
        messages.push_back(text.substr(begin));
    }
    return messages;
}

std::string Dropped(int lines) {
    return "[Logger] Standard output was full, lines dropped: " + std::to_string(lines) + "\n";
}

double SecondsOf(const std::function<void()> &work) {
    const Clock::time_point begin = Clock::now();
    work();
    return std::chrono::duration<double>(Clock::now() - begin).count();
}

using Strings = std::vector<std::string>;

// What a line brings along for which there is room. Nothing is left to be told then.
Strings WithRoomAgain() {
    OutputPipe pipe;
    WriteLogLine(LogLevel::Info, 1, "room");
    return Messages(pipe.Drain());
}

}  // namespace

TEST(Output, LevelsByName) {
    const LogCapture log;
    LOG_FATAL("f" << 1);
    LOG_ERR("e" << 2);
    LOG_WARN("w" << 3);
    LOG_INFO("i" << 4);
    LOG_DEBUG("d" << 5);
    EXPECT_EQ((Lines{{"FATAL", "f1"}, {"ERR", "e2"}, {"WARN", "w3"}, {"INFO", "i4"}, {"DEBUG", "d5"}}), log.All());
}

TEST(Output, FullOneIsWaitedForOnceAndWhatWasLeftOutIsTold) {
    const Watchdog watchdog("full output");
    double first = 0;
    double second = 0;
    Strings told;
    Strings later;
    {
        OutputPipe pipe;
        pipe.Fill();
        first = SecondsOf([] { WriteLogLine(LogLevel::Info, 1, "one"); });
        second = SecondsOf([] { WriteLogLine(LogLevel::Info, 1, "two"); });
        pipe.Drain();
        WriteLogLine(LogLevel::Info, 1, "three");
        told = Messages(pipe.Drain());
        WriteLogLine(LogLevel::Info, 1, "four");
        later = Messages(pipe.Drain());
    }
    EXPECT_GE(first, 0.9);
    EXPECT_LT(second, 0.9) << "no patience a second time";
    EXPECT_EQ((Strings{Dropped(2), "three\n"}), told);
    EXPECT_EQ(Strings{"four\n"}, later);
}

// The notice takes all the room there is: the line behind it is left out again, and told again.
TEST(Output, NoticeThatFillsItIsFollowedByAnother) {
    const Watchdog watchdog("notice that fills");
    Faults faults;
    faults.PollWithoutPatience();
    Strings told;
    {
        OutputPipe pipe(4096);
        pipe.Fill();
        for (int line = 0; line < 3; ++line) {
            WriteLogLine(LogLevel::Info, 1, "left out");
            const Strings now = Messages(pipe.Drain());
            told.insert(told.end(), now.begin(), now.end());
        }
    }
    EXPECT_EQ((Strings{Dropped(1), Dropped(1)}), told);
    EXPECT_EQ((Strings{Dropped(1), "room\n"}), WithRoomAgain());
}

TEST(Output, LongLineComesWhole) {
    const std::string text(10000, 'x');
    std::string got;
    {
        OutputPipe pipe;
        WriteLogLine(LogLevel::Warn, 1, text);
        got = pipe.Drain();
    }
    EXPECT_EQ(Strings{text + "\n"}, Messages(got));
}

TEST(Output, LongLineIsCutWhereNothingMoreGoesIn) {
    const Watchdog watchdog("cut line");
    Faults faults;
    faults.PollWithoutPatience();
    std::string got;
    Strings after;
    {
        OutputPipe pipe(4096);
        WriteLogLine(LogLevel::Info, 1, std::string(10000, 'x'));
        got = pipe.Drain();
        WriteLogLine(LogLevel::Info, 1, "next");
        // The notice takes all the room there is; the line behind it is not waited for.
        after = Messages(pipe.Drain());
    }
    EXPECT_EQ(4096U, got.size());
    EXPECT_EQ(Strings{Dropped(1)}, after);
    EXPECT_EQ((Strings{Dropped(1), "room\n"}), WithRoomAgain());
}

namespace {

std::atomic<int> g_signals{0};

void CountSignal(int) {
    ++g_signals;
}

}  // namespace

TEST(Output, SignalsDoNotEndTheWait) {
    const Watchdog watchdog("interrupted output");
    struct sigaction action {};
    struct sigaction saved {};
    action.sa_handler = CountSignal;
    sigaction(SIGUSR1, &action, &saved);
    g_signals = 0;
    Strings got;
    {
        OutputPipe pipe;
        pipe.Fill();
        std::atomic<bool> done{false};
        std::thread writer([] { WriteLogLine(LogLevel::Info, 1, "patient"); });
        // One after the other, so that the second of patience always begins anew.
        std::thread signaller([&] {
            while (!done) {
                pthread_kill(writer.native_handle(), SIGUSR1);
                std::this_thread::sleep_for(std::chrono::milliseconds(1));
            }
        });
        Eventually([] { return g_signals > 100; });
        // The line may come while the rest is still being read.
        std::string text;
        Eventually([&] {
            text += pipe.Drain();
            return !text.empty() && text.back() == '\n';
        });
        done = true;
        signaller.join();
        writer.join();
        got = Messages(text);
    }
    sigaction(SIGUSR1, &saved, nullptr);
    EXPECT_EQ(Strings{"patient\n"}, got);
}

// Then there is nothing to wait for, and nothing that would block.
TEST(Output, OneThatCannotBeAskedIsWrittenTo) {
    const LogCapture log;
    {
        const FewDescriptors none(0);
        WriteLogLine(LogLevel::Info, 1, "all the same");
    }
    EXPECT_EQ(Lines{Info("all the same")}, log.All());
}

// ---- All classes ------------------------------------------------------------------------------------------------------------

namespace {

class FullOutput : public ClassTest {};

}  // namespace

// Everything that is printed on the way of a session, in the log and beside it.
TEST_P(FullOutput, HoldsNothingUp) {
    const Watchdog watchdog("session with full output");
    m_faults.SetPlay(Play::Pretend);
    m_faults.PollWithoutPatience();
    // A failure is told at the end, when there is somewhere to print it.
    std::string told;
    std::string leaked;
    bool refused = false;
    bool opened = false;
    bool reached = false;
    bool rebuilt = false;
    std::string state;
    {
        OutputPipe pipe;
        pipe.Fill();
        refused = gst_source_get_status(nullptr, nullptr) == -1;
        opened = Row().open(Source(), Url().c_str());
        reached = Eventually([&] { return SourceProbe::StateText(Source()) == Row().stateAfterPlay; });
        const bool rtp = Row().depays;
        for (const char *caps : {"video/x-h264", "audio/mpeg,mpegversion=(int)4,stream-format=(string)raw", "text/x-raw"}) {
            const TestPad pad = MakePad("src_1", caps);
            Row().padAdded(SourceProbe::Pipeline(Source()), pad.get(), &Source());
        }
        if (rtp) {
            const TestPad pad =
                MakePad("src_2", "application/x-rtp,media=(string)video,encoding-name=(string)H264,clock-rate=(int)90000");
            Row().padAdded(SourceProbe::Pipeline(Source()), pad.get(), &Source());
        }
        const int plays = m_faults.Plays();
        Post(gst_message_new_latency(GST_OBJECT(SourceProbe::Pipeline(Source()))));
        Post(gst_message_new_eos(nullptr));
        rebuilt = Eventually([&] { return m_faults.Plays() > plays; });
        Source().CloseLiveStream();
        state = SourceProbe::StateText(Source());
        leaked = pipe.Drain();
        WriteLogLine(LogLevel::Info, 1, "room again");
        told = pipe.Drain();
    }
    EXPECT_TRUE(refused);
    EXPECT_TRUE(opened);
    EXPECT_TRUE(reached);
    EXPECT_TRUE(rebuilt);
    EXPECT_EQ("stop", state);
    EXPECT_EQ("", leaked);
    const Strings messages = Messages(told);
    ASSERT_EQ(2U, messages.size()) << told;
    EXPECT_EQ(0U, messages[0].find("[Logger] Standard output was full, lines dropped: ")) << told;
    EXPECT_EQ("room again\n", messages[1]);
}

INSTANTIATE_TEST_SUITE_P(Classes, FullOutput, testing::ValuesIn(SourceClasses()), ClassName());

}  // namespace unit
