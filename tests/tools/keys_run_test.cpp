// Keys of the live table on a real terminal: what they do, and what they leave behind.
#include <gtest/gtest.h>
#include <termios.h>

#include <csignal>
#include <cstdlib>

#include "run_support.h"

namespace {

class Table : public Child {
  public:
    explicit Table(const std::string &sources, const std::vector<std::string> &more = {})
        : Child(Command(sources, more), {{"TERM", "xterm"}, {"NO_COLOR", "1"}}, Output::kTerminal) {
        EXPECT_TRUE(Shows("gst-source"));
    }
    // In what comes from now on.
    void Press(std::string_view keys) {
        m_seen = Screen().size();
        Type(keys);
    }
    void Mark() { m_seen = Screen().size(); }
    bool Shows(const std::string &text) {
        return WaitWhileRunning(*this, [&] { return Has(Screen().substr(m_seen), text); });
    }
    // Lines, and an echo of what is typed.
    bool HasUsualMode() const {
        termios mode{};
        return tcgetattr(Terminal(), &mode) == 0 && (mode.c_lflag & (ICANON | ECHO)) == (ICANON | ECHO);
    }

  private:
    static std::vector<std::string> Command(const std::string &sources, const std::vector<std::string> &more) {
        const char *path = std::getenv("TABLE_DEMO");
        std::vector<std::string> command{path != nullptr ? path : "table-demo", sources};
        command.insert(command.end(), more.begin(), more.end());
        return command;
    }
    size_t m_seen = 0;
};

}  // namespace

TEST(KeysOnATerminal, Scroll) {
    // 26 of them fit under the head of a window of 30 rows.
    Table table("100");
    EXPECT_TRUE(table.Shows("1-26 of 100"));
    EXPECT_FALSE(table.HasUsualMode());
    for (const auto &[keys, range] : std::vector<std::pair<std::string, std::string>>{{"j", "2-27 of 100"},
                                                                                      {"\x1b[B", "3-28 of 100"},
                                                                                      {"\x1bOA", "2-27 of 100"},
                                                                                      {"\x1b[6~", "28-53 of 100"},
                                                                                      {"k", "27-52 of 100"},
                                                                                      {"\x1b[5~", "1-26 of 100"},
                                                                                      {"\x1b[F", "75-100 of 100"},
                                                                                      {"jjj\x1b[6~", "75-100 of 100"},
                                                                                      {"\x1b[H", "1-26 of 100"}}) {
        table.Press(keys);
        EXPECT_TRUE(table.Shows(range)) << range << " " << table.Screen();
    }
    table.Press("q");
    EXPECT_EQ(table.Wait(), 0);
    EXPECT_TRUE(Has(table.Screen(), "source 99: ")) << "the summary";
    EXPECT_FALSE(Has(table.Screen(), "jjj")) << "no echo";
    EXPECT_TRUE(table.HasUsualMode());
}

TEST(KeysOnATerminal, SortAndHelp) {
    Table table("40");
    for (const char *by : {"by name", "by state", "by bit rate", "by age", "by rebuilds"}) {
        table.Press("s");
        EXPECT_TRUE(table.Shows(by)) << table.Screen();
    }
    table.Press("r");
    EXPECT_TRUE(table.Shows("by rebuilds, reversed"));
    table.Press("?");
    EXPECT_TRUE(table.Shows("s: sort"));
    table.Press("\x03");
    EXPECT_EQ(table.Wait(), 0) << "Ctrl-C is still the signal";
    EXPECT_TRUE(table.HasUsualMode());
}

TEST(KeysOnATerminal, ContinuingTakesTheModeAgain) {
    Table table("3");
    table.Signal(SIGSTOP);
    // What a shell does for a process that could not.
    termios mode{};
    ASSERT_EQ(tcgetattr(table.Terminal(), &mode), 0);
    mode.c_lflag |= ICANON | ECHO;
    ASSERT_EQ(tcsetattr(table.Terminal(), TCSANOW, &mode), 0);
    table.Signal(SIGCONT);
    EXPECT_TRUE(WaitFor([&table] { return !table.HasUsualMode(); }, 20s));
    table.Press("?");
    EXPECT_TRUE(table.Shows("s: sort"));
    table.Press("q");
    EXPECT_EQ(table.Wait(), 0);
    EXPECT_TRUE(table.HasUsualMode());
}

TEST(KeysOnATerminal, ACrashGivesTheModeBack) {
    for (const int crash : {SIGABRT, SIGSEGV}) {
        Table table("3");
        EXPECT_FALSE(table.HasUsualMode());
        table.Signal(crash);
        EXPECT_EQ(table.Wait(), ExitOfCrash(crash));
        EXPECT_TRUE(table.HasUsualMode());
    }
}

TEST(KeysOnATerminal, LeavingAtOnceGivesTheModeBack) {
    Table table("3", {"hang"});
    table.Type("\x03");
    EXPECT_TRUE(table.Shows("closing ..."));
    EXPECT_FALSE(table.HasUsualMode());
    // Those that follow at once are the same wish.
    EXPECT_TRUE(WaitFor([&table] {
        table.Type("\x03");
        return !table.Running();
    }));
    EXPECT_EQ(table.Wait(), 130);
    EXPECT_TRUE(table.HasUsualMode());
}

// A shell with job control and without an editor for its own line: it leaves the mode of the terminal alone.
class KeysUnderAShell : public ::testing::Test {
  protected:
    void SetUp() override { ASSERT_TRUE(Shows("ready$ ")); }
    void Type(const std::string &keys) {
        m_seen = m_shell.Screen().size();
        m_shell.Type(keys);
    }
    bool Shows(const std::string &text) {
        return WaitWhileRunning(m_shell, [&] { return Has(m_shell.Screen().substr(m_seen), text); });
    }
    bool HasUsualMode() const {
        termios mode{};
        return tcgetattr(m_shell.Terminal(), &mode) == 0 && (mode.c_lflag & (ICANON | ECHO)) == (ICANON | ECHO);
    }
    void Leave() {
        Type("q");
        EXPECT_TRUE(Shows("ready$ ")) << m_shell.Screen();
        EXPECT_TRUE(HasUsualMode());
        Type("exit\n");
        EXPECT_EQ(m_shell.Wait(), 0);
    }

    Child m_shell{
        {"dash", "-i"}, {{"TERM", "xterm"}, {"NO_COLOR", "1"}, {"PS1", "ready$ "}, {"ENV", ""}}, Child::Output::kTerminal};
    size_t m_seen = 0;
};

TEST_F(KeysUnderAShell, SuspendingGivesTheModeBack) {
    Type("\"$TABLE_DEMO\" 3\n");
    ASSERT_TRUE(Shows("(q ends, ? more)")) << m_shell.Screen();
    EXPECT_FALSE(HasUsualMode());
    Type("\x1a");
    ASSERT_TRUE(Shows("ready$ ")) << m_shell.Screen();
    EXPECT_TRUE(HasUsualMode());
    Type("fg\n");
    ASSERT_TRUE(Shows("(q ends, ? more)")) << m_shell.Screen();
    Type("?");
    EXPECT_TRUE(Shows("s: sort")) << m_shell.Screen();
    Leave();
}

TEST_F(KeysUnderAShell, InTheBackgroundTheTerminalIsLeftAlone) {
    Type("\"$TABLE_DEMO\" 3 &\n");
    ASSERT_TRUE(Shows("3 sources: 3 live")) << m_shell.Screen();
    EXPECT_TRUE(HasUsualMode());
    Type("jobs | sed 's/Running.*/goes on/'\n");
    EXPECT_TRUE(Shows("goes on")) << m_shell.Screen();
    Type("fg\n");
    ASSERT_TRUE(Shows("(q ends, ? more)")) << m_shell.Screen();
    Type("?");
    EXPECT_TRUE(Shows("s: sort")) << m_shell.Screen();
    Leave();
}
