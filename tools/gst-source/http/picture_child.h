// A program that writes a picture to its standard output.
#pragma once

#include <chrono>
#include <string>
#include <vector>

#include "fd.h"

namespace tool {

struct ChildResult {
    bool good = false;   // it ended with exit code 0 and had written something
    std::string out;     // what it wrote to standard output
    std::string reason;  // the last line of its standard error, or what happened to it
    double cpu_s = 0;    // what it took of the processor
};

// Starts the program (looked up in PATH unless it has a slash) without a shell, in a process group of its own, and waits
// for its end. A program that takes longer than `longest`, writes more than `most` bytes, or still runs when `stop`
// becomes readable is killed. Nothing of it is left on return.
ChildResult RunChild(const std::vector<std::string> &command, std::chrono::milliseconds longest, size_t most, int stop);

}  // namespace tool
