// Whether the machine can carry the sources that are asked for, before the first one is opened.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "source_config.h"

namespace tool {

// What sources take, as measured (docs/operating.md).
struct Needs {
    uint64_t shared_bytes = 0;
    uint64_t memory_bytes = 0;
    uint64_t descriptors = 0;
    uint64_t threads = 0;
    double cores = 0;  // at 2 Mb/s each
};

// What this process may still take. Nothing where there is no bound.
struct Limits {
    std::optional<uint64_t> shared_bytes;
    std::optional<uint64_t> memory_bytes;
    std::optional<uint64_t> descriptors;
    std::optional<uint64_t> threads;
    std::optional<double> cores;
};

Needs NeedsOf(const std::vector<SourceConfig> &sources);
// Of the shared memory, the machine, the process and its control group.
Limits LimitsNow();

// One line for each that does not suffice, with both figures and where the bound is set. Empty: all does.
std::vector<std::string> Shortages(size_t sources, const Needs &needs, const Limits &limits);

// The same for what may suffice or not, because it depends on the streams.
std::vector<std::string> Doubts(size_t sources, const Needs &needs, const Limits &limits);

// Lets the process open as many files as the system allows it.
void RaiseDescriptorLimit();

}  // namespace tool
