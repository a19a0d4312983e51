// A part of a terminal that is drawn again and again in place.
#pragma once

#include <string>
#include <vector>

namespace tool {

struct Window {
    size_t columns = 80;
    size_t rows = 24;
};

// Hides the cursor as long as it lives.
class Screen {
  public:
    // `terminal` is not owned.
    explicit Screen(int terminal);
    ~Screen();
    Screen(const Screen &) = delete;
    Screen &operator=(const Screen &) = delete;

    // The room for the next Draw: lines and their columns.
    Window Room();
    // Replaces what was drawn before; lines are without a newline.
    // False when the terminal is gone, with errno set.
    bool Draw(const std::vector<std::string> &lines);
    // Adds text below what was drawn.
    bool Write(const std::string &text) const;

  private:
    const int m_terminal;
    size_t m_drawn = 0;  // lines of the last frame, above the cursor
    bool m_clear = false;
    Window m_window;
};

// True when `fd` is a terminal that understands cursor movements.
bool CanDraw(int fd);

// The size of a terminal, or the usual one where nobody knows it.
Window WindowOf(int terminal);

// What NO_COLOR asks for: colours unless it is set to something.
bool ColorsAllowed();

// GStreamer colours its lines whatever they are written to. Switches that off when standard error is no
// terminal or NO_COLOR asks for it. To be called before GStreamer is initialised and threads exist.
void KeepFrameworkPlain(int standard_error);

}  // namespace tool
