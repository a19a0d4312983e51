#include "text.h"

#include <glib.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>

namespace tool {
namespace {

std::string Fixed(double value, int decimals) {
    std::array<char, 64> text{};
    const auto [end, error] = std::to_chars(text.data(), text.data() + text.size(), value, std::chars_format::fixed, decimals);
    return error == std::errc() ? std::string(text.data(), end) : "?";
}

std::string TwoDigits(uint64_t number) {
    return (number < 10 ? "0" : "") + std::to_string(number);
}

// Three significant digits with a decimal multiple of the unit.
std::string Scaled(double value, const char *unit) {
    constexpr std::array<const char *, 5> kMultiples{"", "k", "M", "G", "T"};
    constexpr double kStep = 1000.0;
    size_t multiple = 0;
    // Rounded before the comparison, so that 999.9 k becomes 1.00 M and not 1000 k.
    while (multiple + 1 < kMultiples.size() && std::round(value) >= kStep) {
        value /= kStep;
        ++multiple;
    }
    int decimals = 0;
    if (multiple > 0) {
        decimals = value < 9.995 ? 2 : (value < 99.95 ? 1 : 0);
    }
    return Fixed(value, decimals) + " " + kMultiples[multiple] + unit;
}

// Bytes of the escape sequence at the beginning; one that has no end reaches to that of the text.
size_t EscapeSize(std::string_view text) {
    constexpr std::string_view kStringEnd = "\x1b\\";
    if (text.size() < 2) {
        return text.size();
    }
    if (text[1] == '[') {
        // Ends at its first letter.
        const auto *end = std::find_if(text.begin() + 2, text.end(), [](char c) { return c >= '@' && c <= '~'; });
        return static_cast<size_t>(end - text.begin()) + (end != text.end() ? 1 : 0);
    }
    if (std::string_view("]P^_X").find(text[1]) != std::string_view::npos) {
        // A title or another text, which ends at a bell or at an escape sequence of its own.
        const size_t bell = std::min(text.find('\a'), text.size());
        const size_t end = std::min(text.find(kStringEnd, 2), text.size());
        return std::min(text.size(), bell < end ? bell + 1 : end + kStringEnd.size());
    }
    const size_t end = std::min(text.find_first_not_of(" !\"#$%&'()*+,-./", 1), text.size());
    return std::min(text.size(), end + 1);
}

struct Letter {
    size_t bytes = 1;
    size_t columns = 1;
    bool valid = true;
    bool control = false;  // a terminal obeys it
};

// The one that the text begins with. What is not UTF-8 counts as a letter for each byte.
Letter FirstLetter(std::string_view text) {
    constexpr gunichar kIncomplete = static_cast<gunichar>(-2);
    const gunichar c = g_utf8_get_char_validated(text.data(), static_cast<gssize>(text.size()));
    if (c >= kIncomplete) {
        return {1, 1, false, false};
    }
    Letter letter;
    letter.bytes = static_cast<size_t>(g_unichar_to_utf8(c, nullptr));
    letter.control = g_unichar_iscntrl(c) != FALSE;
    if (!letter.control) {
        letter.columns = g_unichar_iszerowidth(c) != FALSE ? 0 : (g_unichar_iswide(c) != FALSE ? 2 : 1);
    }
    return letter;
}

}  // namespace

std::string FormatBitRate(uint32_t bits_per_second) {
    return bits_per_second == 0 ? "-" : Scaled(bits_per_second, "b/s");
}

std::string FormatBytes(uint64_t bytes) {
    return Scaled(static_cast<double>(bytes), "B");
}

std::string FormatRate(double per_second) {
    if (per_second <= 0) {
        return "-";
    }
    std::string text = Fixed(per_second, 2);
    text.erase(text.find_last_not_of('0') + 1);
    if (text.back() == '.') {
        text.pop_back();
    }
    return text;
}

std::string FormatAge(std::optional<uint64_t> nanoseconds) {
    if (!nanoseconds) {
        return "-";
    }
    const double seconds = static_cast<double>(*nanoseconds) / 1e9;
    constexpr double kMinute = 60;
    constexpr double kHour = 3600;
    if (seconds < 9.995) {
        return Fixed(seconds, 2) + " s";
    }
    if (seconds < 2 * kMinute) {
        return Fixed(seconds, 0) + " s";
    }
    if (seconds < 2 * kHour) {
        return Fixed(seconds / kMinute, 0) + " min";
    }
    return Fixed(seconds / kHour, 0) + " h";
}

std::string FormatElapsed(double seconds) {
    const auto whole = static_cast<uint64_t>(seconds);
    return TwoDigits(whole / 3600) + ":" + TwoDigits(whole / 60 % 60) + ":" + TwoDigits(whole % 60);
}

std::string FormatPicture(int width, int height, int scan) {
    if (width <= 0 || height <= 0) {
        return "-";
    }
    return std::to_string(width) + "x" + std::to_string(height) + (scan == 0 ? "p" : (scan == 1 ? "i" : ""));
}

std::string FormatSound(int sample_rate, int channels) {
    return sample_rate <= 0 ? "-" : std::to_string(sample_rate) + " Hz " + std::to_string(channels) + " ch";
}

std::string Count(uint64_t number, const char *one, const char *many) {
    return std::to_string(number) + " " + (number == 1 ? one : many);
}

std::string Printable(std::string_view text) {
    std::string result;
    result.reserve(text.size());
    while (!text.empty()) {
        const bool sequence = text.front() == '\x1b' && text.size() > 1 && text[1] == '[';
        const Letter letter = FirstLetter(text);
        if (text.front() == '\t') {
            result += ' ';
        } else if (!sequence) {
            result += letter.control || !letter.valid ? "?" : text.substr(0, letter.bytes);
        }
        text.remove_prefix(sequence ? EscapeSize(text) : letter.bytes);
    }
    return result;
}

std::string StripEscapes(std::string_view text, bool keep_colors) {
    std::string result;
    result.reserve(text.size());
    while (!text.empty()) {
        const size_t plain = std::min(text.find('\x1b'), text.size());
        result += text.substr(0, plain);
        text.remove_prefix(plain);
        const std::string_view sequence = text.substr(0, EscapeSize(text));
        const bool color = sequence.size() > 2 && sequence[1] == '[' && sequence.back() == 'm';
        result += keep_colors && color ? sequence : std::string_view();
        text.remove_prefix(sequence.size());
    }
    return result;
}

size_t Columns(std::string_view text) {
    size_t columns = 0;
    while (!text.empty()) {
        const Letter letter = FirstLetter(text);
        columns += letter.columns;
        text.remove_prefix(letter.bytes);
    }
    return columns;
}

std::string Cut(std::string_view text, size_t columns) {
    if (Columns(text) <= columns) {
        return std::string(text);
    }
    constexpr std::string_view kMark = "..";
    const size_t kept = columns > kMark.size() ? columns - kMark.size() : 0;
    size_t used = 0;
    size_t end = 0;
    while (end < text.size()) {
        const Letter letter = FirstLetter(text.substr(end));
        if (used + letter.columns > kept) {
            break;
        }
        used += letter.columns;
        end += letter.bytes;
    }
    return std::string(text.substr(0, end)) + std::string(kMark.substr(0, columns));
}

}  // namespace tool
