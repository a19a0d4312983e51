// The lines of the live table, made to measure for a window. Knows nothing of terminals but colours.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "screen.h"
#include "view.h"

namespace tool {

struct LogTail {
    std::vector<std::string> lines;  // the last ones, oldest first
    uint64_t total = 0;
    bool kept_elsewhere = false;  // the whole log goes to a file
};

// A line of the library's log as "12.00.00 ERR text"; any other line as it is.
std::string ShortLogLine(const std::string &line);

// At most `rows` lines of at most `columns` columns. What does not fit gives way in this order: columns of
// less use, log lines, sources. Without a newline at the end of each.
std::vector<std::string> TableLines(const RunSample &run, const LogTail &log, const Window &window, bool colors);

}  // namespace tool
