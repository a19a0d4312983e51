// What comes out of a command line, and the exit codes of the tools.
#pragma once

#include <optional>
#include <string>

namespace tool {

constexpr int kExitOk = 0;
constexpr int kExitNothing = 1;  // nothing arrived, or something failed on the way
constexpr int kExitUsage = 2;    // nothing was opened

// The texts to print and the exit code of a command line that asks for no run.
struct ParseEnd {
    int exit_code = kExitOk;
    std::string out;
    std::string err;
};

// Either options to run with, or an end.
template <typename Options>
struct Parsed : ParseEnd {
    std::optional<Options> options;
};

}  // namespace tool
