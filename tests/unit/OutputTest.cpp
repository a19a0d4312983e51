// Standard output that takes nothing: it belongs to the host, and the library does not wait for it.
#include "gst_source_api.h"
#include "Logger.h"
#include "support/EndChild.h"
#include "support/FewDescriptors.h"
#include "support/Fixture.h"
#include "support/OutputPipe.h"
#include "support/Watchdog.h"

#include <fcntl.h>
#include <pty.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

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

using Strings = std::vector<std::string>;

void Log(const std::string &message) {
    WriteLogLine(LogLevel::Info, 1, message);
}

// What a line brings along for which there is room. Nothing is left to be reported then.
Strings WithRoomAgain() {
    OutputPipe pipe;
    Log("room");
    return Messages(pipe.Drain());
}

// How many of `messages` are not `message`, whole.
std::ptrdiff_t Others(const Strings &messages, const std::string &message) {
    return std::count_if(messages.begin(), messages.end(), [&](const std::string &is) { return is != message + "\n"; });
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

TEST(Output, TextsComeAsTheyAre) {
    const LogCapture log;
    PRINT_BY_STDIO("%s: %d\n", "by printf", 1);
    PRINT_BY_GLIB("%s: %d\n", "by g_print", 2);
    PRINT_BY_GLIB("%s", "");
    EXPECT_EQ("by printf: 1\nby g_print: 2\n", log.Text());
}

// ---- Pipes ------------------------------------------------------------------------------------------------------------------

namespace {

// How a pipe is written to without waiting, the best first.
enum class Way { PromptWrite, SecondOpen, AfterPoll };

class PipeOutput : public testing::TestWithParam<Way> {
  protected:
    PipeOutput() {
        WithRoomAgain();
        if (GetParam() != Way::PromptWrite) {
            m_faults.RefusePromptWrite();
        }
        if (GetParam() == Way::AfterPoll) {
            m_faults.RefuseSecondOpen();
        }
    }

    const Watchdog m_watchdog{"standard output is a pipe", 20};
    Faults m_faults;
};

std::string NameOf(const testing::TestParamInfo<Way> &way) {
    switch (way.param) {
        case Way::PromptWrite:
            return "PromptWrite";
        case Way::SecondOpen:
            return "SecondOpen";
        case Way::AfterPoll:
            break;
    }
    return "AfterPoll";
}

const auto kWays = testing::Values(Way::PromptWrite, Way::SecondOpen, Way::AfterPoll);

}  // namespace

TEST_P(PipeOutput, FullOneIsNotWaitedForAndDroppedLinesAreCounted) {
    std::chrono::duration<double> took{};
    Strings reported;
    Strings later;
    {
        OutputPipe pipe;
        pipe.Fill();
        const Clock::time_point begin = Clock::now();
        Log("one");
        Log("two");
        PRINT_BY_STDIO("three\n");
        PRINT_BY_GLIB("four\n");
        took = Clock::now() - begin;
        pipe.Drain();
        Log("five");
        reported = Messages(pipe.Drain());
        Log("six");
        later = Messages(pipe.Drain());
    }
    EXPECT_LT(took.count(), 0.9);
    EXPECT_EQ((Strings{Dropped(4), "five\n"}), reported);
    EXPECT_EQ(Strings{"six\n"}, later);
}

TEST_P(PipeOutput, LineThatThePipeCannotHoldComesWhole) {
    const std::string text(200000, 'x');
    std::string got;
    int count = 0;
    {
        OutputPipe pipe;
        Log(text);
        for (got = pipe.Drain(); got.find("room\n") == std::string::npos && count < 100; got += pipe.Drain()) {
            Log("room");
            ++count;
        }
    }
    // The lines that came before its end are dropped.
    EXPECT_EQ((Strings{text + "\n", Dropped(count - 1), "room\n"}), Messages(got));
    EXPECT_GT(count, 1);
}

// The pipe that the begin went to has been replaced.
TEST_P(PipeOutput, EndOfALineDoesNotGoElsewhere) {
    {
        const OutputPipe pipe(4096);
        Log(std::string(10000, 'x'));
    }
    EXPECT_EQ(Strings{"room\n"}, WithRoomAgain());
}

// A pipe with room for one of them. A line that goes in only where another one has left room is dropped.
TEST_P(PipeOutput, TwoThreadsAndRoomForOneLine) {
    constexpr int kRounds = 300;
    const std::string text(3000, 'x');
    int dropped = 0;
    std::ptrdiff_t cut = 0;
    for (int round = 0; round < kRounds; ++round) {
        Strings messages;
        {
            OutputPipe pipe(4096);
            std::atomic<int> ready{0};
            const auto write = [&] {
                for (++ready; ready < 2;) {
                }
                Log(text);
            };
            std::thread other(write);
            write();
            other.join();
            messages = Messages(pipe.Drain());
        }
        dropped += WithRoomAgain() == Strings{Dropped(1), "room\n"} ? 1 : 0;
        cut += Others(messages, text);
    }
    EXPECT_EQ(kRounds, dropped);
    EXPECT_EQ(0, cut);
}

TEST_P(PipeOutput, FlagsOfTheHostStay) {
    int before = 0;
    int after = 0;
    {
        const OutputPipe pipe;
        before = fcntl(STDOUT_FILENO, F_GETFL);
        Log("line");
        after = fcntl(STDOUT_FILENO, F_GETFL);
    }
    EXPECT_EQ(before, after);
    EXPECT_EQ(0, after & O_NONBLOCK);
}

TEST_P(PipeOutput, NoDescriptorIsLeft) {
    std::string got;
    {
        OutputPipe pipe;
        const FewDescriptors none(0);
        Log("all the same");
        got = pipe.Drain();
    }
    EXPECT_EQ(Strings{"all the same\n"}, Messages(got));
}

namespace {

// Standard output is something else for its lifetime, and the signal of a broken pipe does what it does to a
// host that does not care for it.
class OutputIs {
  public:
    explicit OutputIs(int fd) : m_saved(dup(STDOUT_FILENO)), m_action(std::signal(SIGPIPE, SIG_DFL)) {
        std::fflush(stdout);
        dup2(fd, STDOUT_FILENO);
    }
    ~OutputIs() {
        dup2(m_saved, STDOUT_FILENO);
        close(m_saved);
        std::signal(SIGPIPE, m_action);
    }
    OutputIs(const OutputIs &) = delete;
    OutputIs &operator=(const OutputIs &) = delete;

  private:
    int m_saved;
    void (*m_action)(int);
};

bool HoldsPipeSignal(int (*ask)(sigset_t *)) {
    sigset_t set;
    sigemptyset(&set);
    ask(&set);
    return sigismember(&set, SIGPIPE) != 0;
}

bool PipeSignalIsPending() {
    return HoldsPipeSignal(sigpending);
}

bool PipeSignalIsBlocked() {
    return HoldsPipeSignal([](sigset_t *set) { return pthread_sigmask(SIG_BLOCK, nullptr, set); });
}

// Both ends are closed at the end.
struct Pipe {
    Pipe() { EXPECT_EQ(0, pipe2(ends.data(), O_CLOEXEC)); }
    ~Pipe() {
        CloseReader();
        close(ends[1]);
    }
    Pipe(const Pipe &) = delete;
    Pipe &operator=(const Pipe &) = delete;
    void CloseReader() {
        if (ends[0] >= 0) {
            close(ends[0]);
            ends[0] = -1;
        }
    }
    std::array<int, 2> ends{-1, -1};
};

}  // namespace

TEST_P(PipeOutput, NobodyReadsAnyMore) {
    Pipe pipe;
    bool pending = false;
    bool blocked = false;
    {
        const OutputIs output(pipe.ends[1]);
        // The end of this one is not kept.
        Log(std::string(100000, 'x'));
        pipe.CloseReader();
        Log("lost");
        PRINT_BY_GLIB("lost\n");
        pending = PipeSignalIsPending();
        blocked = PipeSignalIsBlocked();
    }
    EXPECT_FALSE(pending);
    EXPECT_FALSE(blocked);
    EXPECT_EQ((Strings{Dropped(2), "room\n"}), WithRoomAgain());
}

// A signal that waits for the host, and was not raised here, stays.
TEST_P(PipeOutput, SignalOfTheHostIsNotTaken) {
    Pipe pipe;
    pipe.CloseReader();
    bool pending = false;
    {
        sigset_t signal;
        sigset_t before;
        sigemptyset(&signal);
        sigaddset(&signal, SIGPIPE);
        pthread_sigmask(SIG_BLOCK, &signal, &before);
        const OutputIs output(pipe.ends[1]);
        std::raise(SIGPIPE);
        Log("lost");
        pending = PipeSignalIsPending();
        const timespec none{};
        sigtimedwait(&signal, nullptr, &none);
        pthread_sigmask(SIG_SETMASK, &before, nullptr);
    }
    EXPECT_TRUE(pending);
    EXPECT_EQ((Strings{Dropped(1), "room\n"}), WithRoomAgain());
}

INSTANTIATE_TEST_SUITE_P(Ways, PipeOutput, kWays, NameOf);

// ---- What else it may be ----------------------------------------------------------------------------------------------------

namespace {

std::string ReadAll(int fd) {
    fcntl(fd, F_SETFL, O_NONBLOCK);
    std::string text;
    std::array<char, 4096> bytes{};
    for (ssize_t got = 0; (got = read(fd, bytes.data(), bytes.size())) > 0;) {
        text.append(bytes.data(), static_cast<std::size_t>(got));
    }
    return text;
}

// More than the peer takes, then the same line again until all of it has come.
std::string WriteMoreThanFits(const std::string &text, int peer) {
    for (int line = 0; line < 2000; ++line) {
        Log(text);
    }
    std::string got = ReadAll(peer);
    for (int line = 0; line < 100 && got.find("lines dropped") == std::string::npos; ++line) {
        Log(text);
        got += ReadAll(peer);
    }
    return got;
}

void ExpectWholeLinesAndOneNotice(const std::string &got, const std::string &text) {
    const Strings messages = Messages(got);
    ASSERT_GE(messages.size(), 2U);
    EXPECT_EQ(1, Others(messages, text)) << "the notice alone";
    EXPECT_EQ(0U, messages.at(messages.size() - 2).find("[Logger] Standard output was full, lines dropped: "));
    EXPECT_EQ(text + "\n", messages.back());
}

}  // namespace

TEST(Output, SocketThatIsFullOrBroken) {
    const Watchdog watchdog("standard output is a socket", 20);
    std::array<int, 2> ends{-1, -1};
    ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()));
    const std::string text(700, 'x');
    std::string got;
    bool pending = false;
    {
        const OutputIs output(ends[0]);
        got = WriteMoreThanFits(text, ends[1]);
        close(ends[1]);
        Log("lost");
        pending = PipeSignalIsPending();
    }
    close(ends[0]);
    ExpectWholeLinesAndOneNotice(got, text);
    EXPECT_FALSE(pending);
    EXPECT_EQ((Strings{Dropped(1), "room\n"}), WithRoomAgain());
}

namespace {

class TerminalOutput : public PipeOutput {};

}  // namespace

TEST_P(TerminalOutput, FullOne) {
    int master = -1;
    int terminal = -1;
    ASSERT_EQ(0, openpty(&master, &terminal, nullptr, nullptr, nullptr));
    termios settings{};
    tcgetattr(terminal, &settings);
    cfmakeraw(&settings);
    tcsetattr(terminal, TCSANOW, &settings);
    const std::string text(700, 'x');
    std::string got;
    {
        const OutputIs output(terminal);
        got = WriteMoreThanFits(text, master);
        // It hands on what it has taken a moment later, so that
        // a line more may find no room, or a part of it.
        EXPECT_TRUE(Eventually([&] {
            Log(text);
            got += ReadAll(master);
            return Messages(got).back() == text + "\n";
        }));
    }
    close(terminal);
    close(master);
    const Strings messages = Messages(got);
    EXPECT_LT(0, Others(messages, text)) << "a notice at least";
    for (const std::string &message : messages) {
        EXPECT_TRUE(message == text + "\n" || message.find("[Logger] Standard output was full, lines dropped: ") == 0)
            << message;
    }
    WithRoomAgain();
}

INSTANTIATE_TEST_SUITE_P(Ways, TerminalOutput, testing::Values(Way::SecondOpen, Way::AfterPoll), NameOf);

TEST(Output, FileThatTheHostWritesToAsWell) {
    const int file = memfd_create("file", MFD_CLOEXEC);
    fcntl(file, F_SETFL, O_APPEND);
    const std::string text(100000, 'x');
    ssize_t hosts = 0;
    {
        const OutputIs output(file);
        Log("one");
        hosts = pwrite(file, "host's\n", 7, 0);
        Log(text);
        lseek(file, 0, SEEK_SET);
        PRINT_BY_GLIB("two\n");
    }
    lseek(file, 0, SEEK_SET);
    EXPECT_EQ(7, hosts);
    EXPECT_EQ((Strings{"one\n", "host's\n", text + "\n", "two\n"}), Messages(ReadAll(file)));
    close(file);
}

TEST(Output, DiskThatIsFull) {
    const int full = open("/dev/full", O_WRONLY | O_CLOEXEC);
    ASSERT_GE(full, 0);
    {
        const OutputIs output(full);
        Log("lost");
    }
    close(full);
    EXPECT_EQ((Strings{Dropped(1), "room\n"}), WithRoomAgain());
}

// ---- Texts of the host ------------------------------------------------------------------------------------------------------

TEST(HostsText, ComesBeforeWhatIsWrittenLater) {
    std::string piped;
    {
        OutputPipe pipe;
        std::printf("host ");
        PRINT_BY_STDIO("library\n");
        piped = pipe.Drain();
    }
    EXPECT_EQ("host library\n", piped);
    const LogCapture log;
    std::printf("host ");
    PRINT_BY_GLIB("library\n");
    EXPECT_EQ("host library\n", log.Text());
}

TEST(HostsText, FullPipeIsNotWaitedFor) {
    const Watchdog watchdog("text of the host and a full pipe", 20);
    std::string got;
    {
        OutputPipe pipe;
        pipe.Fill();
        std::printf("host ");
        Log("dropped");
        pipe.Drain();
        PRINT_BY_STDIO("library\n");
        got = pipe.Drain();
    }
    EXPECT_EQ(0U, got.find("host [")) << got;
    EXPECT_EQ((Strings{Dropped(1), "library\n"}), Messages(got));
}

TEST(HostsText, LockOfItsStreamIsNotWaitedFor) {
    const Watchdog watchdog("stdio is locked", 20);
    std::string got;
    {
        OutputPipe pipe;
        flockfile(stdout);
        std::thread([] { Log("line"); }).join();
        got = pipe.Drain();
        funlockfile(stdout);
    }
    EXPECT_EQ(Strings{"line\n"}, Messages(got));
}

// ---- Handler of the host for g_print ----------------------------------------------------------------------------------------

namespace {

std::mutex g_handledMutex;
std::string g_handled;
std::atomic<int> g_handledCalls{0};

std::string TakeHandled() {
    const std::lock_guard<std::mutex> lock(g_handledMutex);
    return std::exchange(g_handled, std::string());
}

void Handle(const gchar *text) {
    const std::lock_guard<std::mutex> lock(g_handledMutex);
    g_handled += text;
}

void HandleAndLog(const gchar *text) {
    Handle(text);
    Log("in the handler");
}

void HandleLoudly(const gchar *text) {
    Handle("!");
    Handle(text);
}

void CountCall(const gchar *) {
    ++g_handledCalls;
}

// The handler of a host for its lifetime.
class HandlerIs {
  public:
    explicit HandlerIs(GPrintFunc handler) : m_before(g_set_print_handler(handler)) { TakeHandled(); }
    ~HandlerIs() { g_set_print_handler(m_before); }
    HandlerIs(const HandlerIs &) = delete;
    HandlerIs &operator=(const HandlerIs &) = delete;

  private:
    GPrintFunc m_before;
};

}  // namespace

TEST(PrintHandler, GetsTheTextOnce) {
    LogCapture log;
    {
        const HandlerIs handler(Handle);
        PRINT_BY_GLIB("%s %d\n", "text", 1);
        PRINT_BY_STDIO("printed\n");
        EXPECT_EQ("text 1\n", TakeHandled());
    }
    PRINT_BY_GLIB("text 2\n");
    EXPECT_EQ("", TakeHandled());
    EXPECT_EQ((Lines{Raw("printed"), Raw("text 2")}), log.All());
}

TEST(PrintHandler, StaysWhenItIsChanged) {
    const LogCapture log;
    const HandlerIs first(Handle);
    PRINT_BY_GLIB("a");
    {
        const HandlerIs second(HandleLoudly);
        PRINT_BY_GLIB("b");
        g_print("c");
        EXPECT_EQ("!b!c", TakeHandled());
    }
    PRINT_BY_GLIB("d");
    g_print("e");
    EXPECT_EQ("de", TakeHandled());
    EXPECT_EQ("", log.Text());
}

TEST(PrintHandler, GetsTheTextWithFullOutput) {
    const Watchdog watchdog("print handler and full output", 20);
    std::string handled;
    std::string got;
    {
        OutputPipe pipe;
        pipe.Fill();
        const HandlerIs handler(Handle);
        PRINT_BY_GLIB("text\n");
        handled = TakeHandled();
        pipe.Drain();
        Log("line");
        got = pipe.Drain();
    }
    EXPECT_EQ("text\n", handled);
    EXPECT_EQ(Strings{"line\n"}, Messages(got)) << "nothing was dropped";
}

// No lock of the library's is held while it runs.
TEST(PrintHandler, MayLog) {
    const LogCapture log;
    const HandlerIs handler(HandleAndLog);
    PRINT_BY_GLIB("text\n");
    EXPECT_EQ("text\n", TakeHandled());
    EXPECT_EQ(Lines{unit::Info("in the handler")}, log.All());
}

TEST(PrintHandler, TextsOfOtherThreadsKeepTheirWay) {
    constexpr int kTexts = 20000;
    const LogCapture log;
    const HandlerIs handler(CountCall);
    g_handledCalls = 0;
    std::thread host([] {
        for (int text = 0; text < kTexts; ++text) {
            g_print("host\n");
        }
    });
    for (int text = 0; text < kTexts; ++text) {
        PRINT_BY_GLIB("library\n");
    }
    host.join();
    EXPECT_EQ(2 * kTexts, g_handledCalls);
    EXPECT_EQ("", log.Text());
}

// ---- Closed -----------------------------------------------------------------------------------------------------------------

namespace {

// For a process of its own, since a closed standard output is remembered for good.
class ClosedOutput : public testing::Test {
  protected:
    ClosedOutput() { GTEST_FLAG_SET(death_test_style, "threadsafe"); }

    // 0 when nothing reaches whoever gets the number next.
    static int WriteToNextOwner() {
        std::array<int, 2> ends{-1, -1};
        if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()) != 0 || ends[0] != STDOUT_FILENO) {
            return 1;
        }
        Log("line");
        PRINT_BY_STDIO("printed\n");
        PRINT_BY_GLIB("printed by GLib\n");
        const HandlerIs handler(Handle);
        PRINT_BY_GLIB("handled");
        std::array<char, 64> bytes{};
        const ssize_t got = recv(ends[1], bytes.data(), bytes.size(), MSG_DONTWAIT);
        return got < 0 && errno == EAGAIN && TakeHandled() == "handled" ? 0 : 2;
    }
    static bool IsClosed() { return fcntl(STDOUT_FILENO, F_GETFD) < 0 && errno == EBADF; }
};

}  // namespace

TEST_F(ClosedOutput, IsRememberedByTheFirstSource) {
    EXPECT_EXIT(
        {
            close(STDOUT_FILENO);
            int buffer = 0;
            void *source = gst_source_create(SOURCE_TYPE_UDP, &buffer, 0, 0);
            const bool stays = IsClosed();
            const int result = WriteToNextOwner();
            gst_source_destroy(source);
            EndChild(stays ? result : 3);
        },
        testing::ExitedWithCode(0), "");
}

TEST_F(ClosedOutput, IsRememberedByTheFirstLine) {
    EXPECT_EXIT(
        {
            Log("open");
            close(STDOUT_FILENO);
            Log("lost");
            const bool stays = IsClosed();
            EndChild(stays ? WriteToNextOwner() : 3);
        },
        testing::ExitedWithCode(0), "");
}

// The number belongs to somebody who does not write.
TEST_F(ClosedOutput, ThatIsOpenForReadingCountsAsClosed) {
    EXPECT_EXIT(
        {
            close(STDOUT_FILENO);
            const bool reads = open("/dev/zero", O_RDONLY | O_CLOEXEC) == STDOUT_FILENO;
            Log("lost");
            close(STDOUT_FILENO);
            EndChild(reads ? WriteToNextOwner() : 3);
        },
        testing::ExitedWithCode(0), "");
}

// ---- All classes ------------------------------------------------------------------------------------------------------------

namespace {

class FullOutput : public ClassTest {};

}  // namespace

// Everything that is printed on the way of a session, in the log and beside it.
TEST_P(FullOutput, HoldsNothingUp) {
    const Watchdog watchdog("session with full output");
    m_faults.SetPlay(Play::Pretend);
    // A failure is reported at the end, when there is somewhere to print it.
    std::string reported;
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
        reported = pipe.Drain();
    }
    EXPECT_TRUE(refused);
    EXPECT_TRUE(opened);
    EXPECT_TRUE(reached);
    EXPECT_TRUE(rebuilt);
    EXPECT_EQ("stop", state);
    EXPECT_EQ("", leaked);
    const Strings messages = Messages(reported);
    ASSERT_EQ(2U, messages.size()) << reported;
    EXPECT_EQ(0U, messages[0].find("[Logger] Standard output was full, lines dropped: ")) << reported;
    EXPECT_EQ("room again\n", messages[1]);
}

INSTANTIATE_TEST_SUITE_P(Classes, FullOutput, testing::ValuesIn(SourceClasses()), ClassName());

}  // namespace unit
