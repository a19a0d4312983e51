// How much a line of the log matters, and which lines go where.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace tool {

// From what matters most to what matters least.
enum class LogLevel { kError, kWarning, kInfo, kDebug };

// Of a line without escape sequences: the library's, the framework's, GLib's, librtmp's. All others are
// kInfo.
LogLevel LevelOf(std::string_view line);

// "error", "warning", "info", "debug".
std::optional<LogLevel> ParseLogLevel(std::string_view text);

// The least that goes to the target of a LogCapture, and the least that it keeps for the table, where the
// reasons of a failure have their place in any case. At first everything, everywhere.
struct LogPolicy {
    LogLevel to_target = LogLevel::kDebug;
    LogLevel to_table = LogLevel::kDebug;

    // It leaves something out: what the framework writes to standard error has to come by the capture then.
    bool Filters() const { return to_target != LogLevel::kDebug; }
};

// Of -q, of the number of -v and of --log-level (empty when not given, which decides when it is). Throws
// std::runtime_error with a message for people for any other text.
LogPolicy PolicyOf(bool quiet, unsigned verbose, const std::string &log_level);

// Whether a descriptor leads to the journal of the system, by JOURNAL_STREAM.
bool IsJournal(int fd);
// What the journal reads at the beginning of a line: "<3>".
std::string_view JournalPrefix(LogLevel level);
// Without the library's own time stamp, of which the journal has a better one.
std::string WithoutStamp(const std::string &line);

}  // namespace tool
