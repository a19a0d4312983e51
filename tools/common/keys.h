// Keys that a person presses while something is drawn on the terminal.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace tool {

enum class Key { kUp, kDown, kPageUp, kPageDown, kHome, kEnd, kLetter };

struct KeyPress {
    Key key = Key::kLetter;
    char letter = '\0';  // of kLetter: a printable one of ASCII

    bool operator==(const KeyPress &other) const { return key == other.key && letter == other.letter; }
};

// Makes keys of what a terminal sends. A sequence may come in pieces; other keys and letters are left out.
class KeyParser {
  public:
    std::vector<KeyPress> Feed(std::string_view bytes);

  private:
    std::string m_sequence;  // begun with an escape
};

// Keys come at once and are not shown as long as it lives. Ctrl-C and Ctrl-Z stay what they are. While the
// process is in the background the terminal is left alone.
class Keyboard {
  public:
    // `input`: a descriptor of the controlling terminal, not owned; any other file, and -1, has no keys.
    explicit Keyboard(int input);
    ~Keyboard();
    Keyboard(const Keyboard &) = delete;
    Keyboard &operator=(const Keyboard &) = delete;

    // What to wait for; -1 while there is nothing to read from. To be asked before every wait.
    int Descriptor() const;
    // Does not wait.
    std::vector<KeyPress> Read();

  private:
    int m_input = -1;
    KeyParser m_parser;
};

}  // namespace tool
