#include "container_names.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <string_view>

namespace tool {

std::string ContainerSuffix(const std::string &path) {
    static constexpr std::array<std::string_view, 14> kSuffixes{".mp4", ".m4v", ".m4a",  ".mov", ".mkv", ".mka", ".webm",
                                                                ".ts",  ".mts", ".m2ts", ".flv", ".avi", ".3gp", ".mxf"};
    const size_t slash = path.rfind('/');
    const size_t dot = path.rfind('.');
    if (dot == std::string::npos || (slash != std::string::npos && dot < slash)) {
        return "";
    }
    std::string suffix = path.substr(dot);
    std::transform(suffix.begin(), suffix.end(), suffix.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return std::find(kSuffixes.begin(), kSuffixes.end(), suffix) != kSuffixes.end() ? suffix : "";
}

}  // namespace tool
