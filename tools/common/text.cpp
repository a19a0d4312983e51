#include "text.h"

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

bool IsContinuation(char c) {
    return (static_cast<unsigned char>(c) & 0xc0u) == 0x80u;
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
    for (size_t i = 0; i < text.size(); ++i) {
        const auto c = static_cast<unsigned char>(text[i]);
        if (c == 0x1b && i + 1 < text.size() && text[i + 1] == '[') {
            // A control sequence ends at its first letter.
            i += 2;
            while (i < text.size() && (text[i] < '@' || text[i] > '~')) {
                ++i;
            }
        } else if (c == '\t') {
            result += ' ';
        } else if (c < 0x20 || c == 0x7f) {
            result += '?';
        } else {
            result += text[i];
        }
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
    for (const char c : text) {
        columns += IsContinuation(c) ? 0U : 1U;
    }
    return columns;
}

std::string Cut(std::string_view text, size_t columns) {
    if (Columns(text) <= columns) {
        return std::string(text);
    }
    constexpr std::string_view kMark = "..";
    const size_t kept = columns > kMark.size() ? columns - kMark.size() : 0;
    size_t seen = 0;
    size_t end = 0;
    for (; end < text.size(); ++end) {
        if (!IsContinuation(text[end]) && ++seen > kept) {
            break;
        }
    }
    return std::string(text.substr(0, end)) + std::string(kMark.substr(0, columns));
}

}  // namespace tool
