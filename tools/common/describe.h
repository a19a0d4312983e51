// A command line as data, for its manual page and its completions.
#pragma once

#include <CLI/CLI.hpp>
#include <nlohmann/json_fwd.hpp>

#include <string>

namespace tool {

// Everything that --help shows: "name", "summary", "usage" (as given), "footer", "options" (each with "names", "type",
// "default", "help" and "group", the empty ones left out) and "commands" (each the same once more).
nlohmann::json Describe(const CLI::App &app);

}  // namespace tool
