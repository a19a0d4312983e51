// The records of the line and JSON outputs: names, units and order, which
// scripts rely on. docs/gst-source.md lists them.
#pragma once

#include <string>

#include "record.h"
#include "sample.h"
#include "view.h"

namespace tool {

// The state of one source. `time` is the wall clock, "2024-05-01T12:00:00.123Z".
Record SampleRecord(const RunSample &run, const SourceSample &source, const std::string &time);
// What one source has delivered in all.
Record SummaryRecord(const RunSample &run, const SourceSample &source, const std::string &time);

}  // namespace tool
