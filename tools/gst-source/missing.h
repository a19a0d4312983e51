// GStreamer elements that are not installed, as the library's log names them.
#pragma once

#include <optional>
#include <string>

namespace tool {

// The factory that a line of the log says could not be made; nothing for every other line.
std::optional<std::string> MissingElement(const std::string &line);

}  // namespace tool
