#include "screen.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <string_view>

#include "emergency.h"
#include "fd.h"
#include "interrupts.h"

namespace tool {
namespace {

constexpr std::string_view kHideCursor = "\x1b[?25l";
constexpr std::string_view kShowCursor = "\x1b[?25h";
constexpr std::string_view kClearLine = "\x1b[2K";
constexpr std::string_view kClearBelow = "\x1b[J";
constexpr std::string_view kClearAll = "\x1b[H\x1b[2J";

}  // namespace

bool CanDraw(int fd) {
    const char *type = std::getenv("TERM");
    return isatty(fd) != 0 && type != nullptr && std::strcmp(type, "") != 0 && std::strcmp(type, "dumb") != 0;
}

Window WindowOf(int terminal) {
    winsize size{};
    Window window;
    if (ioctl(terminal, TIOCGWINSZ, &size) == 0 && size.ws_col > 0 && size.ws_row > 0) {
        window.columns = size.ws_col;
        window.rows = size.ws_row;
    }
    return window;
}

bool ColorsAllowed() {
    const char *no_color = std::getenv("NO_COLOR");
    return no_color == nullptr || *no_color == '\0';
}

void KeepFrameworkPlain(int standard_error) {
    if (isatty(standard_error) == 0 || !ColorsAllowed()) {
        setenv("GST_DEBUG_NO_COLOR", "1", 1);
        // It would decide otherwise.
        unsetenv("GST_DEBUG_COLOR_MODE");
    }
}

Screen::Screen(int terminal) : m_terminal(terminal) {
    emergency::RestoreCursor(terminal);
    WriteAll(terminal, kHideCursor, interrupts::PatienceAfterStop());
}

Screen::~Screen() {
    WriteAll(m_terminal, kShowCursor, interrupts::PatienceAfterStop());
    emergency::RestoreCursor(-1);
}

Window Screen::Room() {
    const Window now = WindowOf(m_terminal);
    if (interrupts::TakeRedraw() || now.columns != m_window.columns || now.rows != m_window.rows) {
        // The terminal may have wrapped the old lines anew, so nobody knows where they are.
        m_clear = m_drawn > 0;
        m_drawn = 0;
        m_window = now;
    }
    // The cursor rests on the line below the frame; in the last row its newline would scroll the frame away.
    return {now.columns, now.rows > 1 ? now.rows - 1 : 1};
}

bool Screen::Draw(const std::vector<std::string> &lines) {
    std::string frame;
    if (m_clear) {
        frame += kClearAll;
        m_clear = false;
    }
    if (m_drawn > 0) {
        frame += "\r\x1b[" + std::to_string(m_drawn) + "A";
    }
    for (const std::string &line : lines) {
        // Before the text: behind a line as wide as the window it would take the last letter.
        frame += kClearLine;
        frame += line;
        frame += "\n";
    }
    frame += kClearBelow;
    m_drawn = lines.size();
    return Write(frame);
}

bool Screen::Write(const std::string &text) const {
    return WriteAll(m_terminal, text, interrupts::PatienceAfterStop());
}

}  // namespace tool
