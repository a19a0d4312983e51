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
    uint64_t left_out = 0;        // of the total: of too little weight for the table
};

// A line of the library's log as "12.00.00 ERR text"; any other line as it is.
std::string ShortLogLine(const std::string &line);

enum class SortBy { kGiven, kName, kState, kBitRate, kAge, kRebuilds };

// What a person has asked for.
struct TableControl {
    SortBy sort = SortBy::kGiven;
    bool reversed = false;
    size_t first = 0;   // the source at the top, of those that are sorted; the table puts it right
    bool keys = false;  // somebody can press them
    bool help = false;  // the line that says which
};

struct Table {
    std::vector<std::string> lines;
    size_t first = 0;  // the source that is at the top
    size_t shown = 0;  // sources
};

// At most `rows` lines of at most `columns` columns. What does not fit gives way in this order: columns of
// less use, log lines, the three lines of a source for one, sources. Without a newline at the end of each.
Table MakeTable(const RunSample &run, const LogTail &log, const Window &window, bool colors, const TableControl &control = {});

}  // namespace tool
