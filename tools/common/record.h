// Records of the outputs for programs: one object or one line of key=value each.
#pragma once

#include <nlohmann/json.hpp>
#include <string>

namespace tool {

using Record = nlohmann::ordered_json;

// Null for what is not known: an empty text, a number that is not above 0.
Record TextOrNull(const std::string &text);
template <typename Number>
Record NumberOrNull(Number number) {
    return number > 0 ? Record(number) : Record(nullptr);
}
// The same where 0 is a value: null below it.
template <typename Number>
Record CountOrNull(Number number) {
    return number >= 0 ? Record(number) : Record(nullptr);
}
// To a thousandth, because a float like 29.97 has more digits than it means.
double Rounded(double value);
// "progressive", "interlaced" or "mixed", as the scan type of a description says.
const char *ScanName(int scan);

// One line of JSON, whatever letters a text has.
std::string JsonLine(const Record &record);
// The same record as "key=value" in one line; texts with blanks, quotes or
// nothing in them are quoted, unknown values are "-".
std::string KeyValueLine(const Record &record);

// The wall clock now, UTC, "2024-05-01T12:00:00.123Z".
std::string TimeNow();

}  // namespace tool
