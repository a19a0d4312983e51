#include "http/target.h"

#include <charconv>

namespace tool {
namespace {

std::optional<std::string> Decode(std::string_view text) {
    constexpr int kHex = 16;
    std::string decoded;
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '%') {
            decoded += text[i];
            continue;
        }
        unsigned letter = 0;
        const char *digits = text.data() + i + 1;
        if (i + 2 >= text.size() || std::from_chars(digits, digits + 2, letter, kHex).ptr != digits + 2 || letter == 0) {
            return std::nullopt;
        }
        decoded += static_cast<char>(static_cast<unsigned char>(letter));
        i += 2;
    }
    return decoded;
}

}  // namespace

std::optional<std::vector<std::string>> SplitTarget(std::string_view target) {
    std::string_view path = target.substr(0, target.find_first_of("?#"));
    if (path.empty() || path.front() != '/' || path.find('\0') != std::string_view::npos) {
        return std::nullopt;
    }
    std::vector<std::string> segments;
    path.remove_prefix(1);
    while (!path.empty()) {
        const size_t slash = path.find('/');
        auto segment = Decode(path.substr(0, slash));
        if (!segment) {
            return std::nullopt;
        }
        segments.push_back(std::move(*segment));
        if (slash == std::string_view::npos) {
            break;
        }
        path.remove_prefix(slash + 1);
        // A slash at the end makes another path.
        if (path.empty()) {
            segments.emplace_back();
        }
    }
    return segments;
}

}  // namespace tool
