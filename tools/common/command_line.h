// What the command lines of the tools have in common.
#pragma once

#include <CLI/CLI.hpp>

#include <charconv>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "parsed.h"

namespace tool {

// Ends the parsing with a message for people.
[[noreturn]] void Refuse(const std::string &message);

// "; did you mean --duration?" when one of the candidates is hardly different from the text, empty otherwise.
std::string Suggestion(const std::string &text, const std::vector<std::string> &candidates);

// The whole text as a number of this range; what has a sign, a
// fraction or an overflow where none may be is refused.
template <typename Number>
Number ParseWhole(const std::string &flag, const std::string &text, Number lowest, Number highest) {
    Number value{};
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc() || end != text.data() + text.size() || value < lowest || value > highest) {
        Refuse(flag + ": \"" + text + "\" is not a whole number from " + std::to_string(lowest) + " to " +
               std::to_string(highest));
    }
    return value;
}

// A number above 0.
double ParseSeconds(const std::string &flag, const std::string &text, double longest = 1e9);

// A time above 0, in ns: "10s", "1500ms", "10m", "1h"; a number alone is seconds.
int64_t ParseTime(const std::string &flag, const std::string &text);

// The stock formatter neither wraps descriptions nor says plainly what a command line looks like. `usage` is
// what stands behind "Usage: " and may have several lines.
std::shared_ptr<CLI::Formatter> MakeHelpFormatter(const std::string &usage);

// Runs `parse`, which uses `app`. What it refuses ends in one line for people, wishes for help or the version
// in a text; nothing when there is a run to make.
std::optional<ParseEnd> Parse(const CLI::App &app, const std::string &program, const std::function<void()> &parse);

}  // namespace tool
