// The path of a request, taken apart.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tool {

// The segments between the slashes, decoded: "/api/sources/a%2Fb?x" gives {"api", "sources", "a/b"}. "/" gives none.
// Nothing when the path is malformed: no slash at the beginning, a percent sign without two digits, a NUL.
std::optional<std::vector<std::string>> SplitTarget(std::string_view target);

}  // namespace tool
