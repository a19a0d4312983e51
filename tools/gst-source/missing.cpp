#include "missing.h"

#include <string_view>

namespace tool {
namespace {

// What stands between two texts, the last one of the first kind; nothing
// when one of them is absent or nothing is between.
std::optional<std::string> Between(const std::string &line, std::string_view before, std::string_view after) {
    const size_t start = line.rfind(before);
    if (start == std::string::npos) {
        return std::nullopt;
    }
    const size_t begin = start + before.size();
    const size_t end = line.find(after, begin);
    if (end == std::string::npos || end == begin) {
        return std::nullopt;
    }
    return line.substr(begin, end - begin);
}

}  // namespace

std::optional<std::string> MissingElement(const std::string &line) {
    if (line.find("] (ERR) (") == std::string::npos) {
        return std::nullopt;
    }
    if (line.find("] Unable to make element \"") != std::string::npos) {
        return Between(line, "\" of factory \"", "\"!!!");
    }
    // Parsers and depayloaders of audio are named by the branch that wanted them.
    for (const char *wanted : {"] Make audio parse faild by name!!! ", "] Make rtpaudiodeplay element faild by name!!! ",
                               "] Make audio depay element faild by name!!! aparse="}) {
        const auto factory = Between(line, wanted, ", url=");
        if (factory) {
            // An encoding that needs no parser and is refused for that: nothing that could be installed.
            return *factory == "none" ? std::nullopt : factory;
        }
    }
    return std::nullopt;
}

}  // namespace tool
