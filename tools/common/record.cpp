#include "record.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <cmath>
#include <ctime>

namespace tool {

Record TextOrNull(const std::string &text) {
    return text.empty() ? Record(nullptr) : Record(text);
}

double Rounded(double value) {
    constexpr double kMilli = 1000;
    return std::round(value * kMilli) / kMilli;
}

const char *ScanName(int scan) {
    return scan == 0 ? "progressive" : (scan == 1 ? "interlaced" : "mixed");
}

std::string JsonLine(const Record &record) {
    return record.dump(-1, ' ', false, Record::error_handler_t::replace) + "\n";
}

std::string KeyValueLine(const Record &record) {
    std::string line;
    for (const auto &[key, value] : record.items()) {
        line += (line.empty() ? "" : " ") + key + "=";
        if (value.is_null()) {
            line += "-";
        } else if (value.is_string()) {
            const auto &text = value.get_ref<const std::string &>();
            const bool plain = !text.empty() && text != "-" && std::none_of(text.begin(), text.end(), [](unsigned char c) {
                return c <= ' ' || c == '"' || c == '\\' || c == 0x7f;
            });
            line += plain ? text : value.dump(-1, ' ', false, Record::error_handler_t::replace);
        } else {
            line += value.dump();
        }
    }
    return line + "\n";
}

std::string TimeNow() {
    const auto now = std::chrono::system_clock::now();
    const std::time_t seconds = std::chrono::system_clock::to_time_t(now);
    const auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(now.time_since_epoch()).count() % 1000;
    std::tm utc{};
    gmtime_r(&seconds, &utc);
    std::array<char, 32> text{};
    const size_t length = std::strftime(text.data(), text.size(), "%Y-%m-%dT%H:%M:%S", &utc);
    const std::string fraction = std::to_string(1000 + ms).substr(1);
    return std::string(text.data(), length) + "." + fraction + "Z";
}

}  // namespace tool
