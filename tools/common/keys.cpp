#include "keys.h"

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <csignal>
#include <optional>
#include <utility>

#include "emergency.h"

namespace tool {
namespace {

constexpr char kEscape = '\x1b';
constexpr size_t kLongestSequence = 32;

// "ESC [ 5 ~", "ESC [ 1 ; 5 A" or "ESC O A", with its last letter.
std::optional<KeyPress> KeyOf(const std::string &sequence) {
    static constexpr std::array<std::pair<char, Key>, 4> kLetters{
        {{'A', Key::kUp}, {'B', Key::kDown}, {'H', Key::kHome}, {'F', Key::kEnd}}};
    static constexpr std::array<std::pair<std::string_view, Key>, 6> kNumbers{
        {{"1", Key::kHome}, {"4", Key::kEnd}, {"5", Key::kPageUp}, {"6", Key::kPageDown}, {"7", Key::kHome}, {"8", Key::kEnd}}};
    constexpr size_t kBegin = 2;
    if (sequence.back() == '~') {
        const std::string_view number = std::string_view(sequence).substr(kBegin, sequence.find_first_of(";~") - kBegin);
        for (const auto &[known, key] : kNumbers) {
            if (number == known) {
                return KeyPress{key};
            }
        }
        return std::nullopt;
    }
    for (const auto &[letter, key] : kLetters) {
        if (sequence.back() == letter) {
            return KeyPress{key};
        }
    }
    return std::nullopt;
}

// Of a sequence with `c` added: whether it is complete.
bool Ends(const std::string &sequence, char c) {
    const bool parameter = c >= ' ' && c <= '?';
    return sequence.size() >= kLongestSequence || !(sequence[1] == '[' && parameter);
}

bool InForeground(int terminal) {
    return tcgetpgrp(terminal) == getpgrp();
}

}  // namespace

std::vector<KeyPress> KeyParser::Feed(std::string_view bytes) {
    std::vector<KeyPress> keys;
    for (const char c : bytes) {
        // The escape key alone is followed by another key, and so is a sequence that broke off.
        if (c == kEscape || (m_sequence.size() == 1 && c != '[' && c != 'O')) {
            m_sequence.clear();
        }
        if (c == kEscape || m_sequence.size() == 1) {
            m_sequence += c;
        } else if (!m_sequence.empty()) {
            m_sequence += c;
            if (Ends(m_sequence, c)) {
                if (const auto key = KeyOf(std::exchange(m_sequence, {}))) {
                    keys.push_back(*key);
                }
            }
        } else if (c > ' ' && c <= '~') {
            keys.push_back({Key::kLetter, c});
        }
    }
    return keys;
}

Keyboard::Keyboard(int input) {
    // Of another session's terminal, nobody could say who may read from it.
    if (input >= 0 && isatty(input) != 0 && tcgetpgrp(input) >= 0) {
        m_input = input;
        emergency::UseKeysOf(input);
        emergency::EnterKeyMode();
    }
}

Keyboard::~Keyboard() {
    if (m_input >= 0) {
        emergency::LeaveKeyMode();
        emergency::UseKeysOf(-1);
    }
}

int Keyboard::Descriptor() const {
    return m_input >= 0 && InForeground(m_input) ? m_input : -1;
}

std::vector<KeyPress> Keyboard::Read() {
    pollfd ready{Descriptor(), POLLIN, 0};
    if (ready.fd < 0 || poll(&ready, 1, 0) <= 0) {
        return {};
    }
    // Should the process lose the terminal right now, the read fails instead of stopping it.
    sigset_t background;
    sigset_t before;
    sigemptyset(&background);
    sigaddset(&background, SIGTTIN);
    pthread_sigmask(SIG_BLOCK, &background, &before);
    std::array<char, 256> bytes{};
    const ssize_t got = read(ready.fd, bytes.data(), bytes.size());
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    if (got == 0 || (ready.revents & (POLLHUP | POLLERR | POLLNVAL)) != 0) {
        // The terminal has gone, and would be readable without end.
        m_input = -1;
    }
    return m_parser.Feed({bytes.data(), static_cast<size_t>(std::max<ssize_t>(got, 0))});
}

}  // namespace tool
