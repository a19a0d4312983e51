// The records of the API. docs/http.md lists them.
#pragma once

#include <string>

#include "record.h"
#include "view.h"

namespace tool {

// What the records of --json hold, and what only a service knows.
Record SourceRecord(const RunSample &run, const SourceSample &source, const std::string &time);
Record SourcesRecord(const RunSample &run, const std::string &time);
// The run itself: totals, process, configuration.
Record RunRecord(const RunSample &run, const std::string &time);

// How many sources have frames, had some, have had none yet, and have not been opened yet.
struct FlowCounts {
    size_t live = 0;
    size_t silent = 0;
    size_t none = 0;
    size_t not_opened = 0;
};
FlowCounts CountFlows(const RunSample &run);
Record FlowCountsRecord(const FlowCounts &counts);

}  // namespace tool
