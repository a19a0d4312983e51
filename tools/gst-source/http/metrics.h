// What monitoring systems read: the text format of Prometheus, version 0.0.4. docs/http.md lists the families.
#pragma once

#include <string>

#include "view.h"

namespace tool {

// `age_s`: of the sample. The number of series depends on the number of sources alone, except for readers,
// of which a source shows no more than kMostReaders, and for the reasons of rebuilds, no more than kMostReasons.
std::string MetricsText(const RunSample &run, double age_s);

constexpr size_t kMostReaders = 32;
constexpr size_t kMostReasons = 32;

// Valid UTF-8 of at most `bytes`, cut between two letters.
std::string LabelText(const std::string &text, size_t bytes);

}  // namespace tool
