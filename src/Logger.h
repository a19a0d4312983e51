// The library's log: lines on standard output, "[local time] (LEVEL) (line) message".
#pragma once

#include <locale>
#include <sstream>
#include <string>

namespace GSTREAMER {

enum class LogLevel { Fatal, Err, Warn, Info, Debug };

// These three write a text to descriptor 1, at once and in order. They do not wait for a reader: a text that
// finds no room is dropped, one that is written in part is completed before the next. After dropped texts, a
// line with their number comes first. A regular file on a disk that stalls blocks them until the write is
// done; other threads wait 0.5 s or more for their turn, then drop their text. Any thread.

// A log line. `line` is the source line of the statement.
void WriteLogLine(LogLevel level, int line, const std::string &message) noexcept;

// A text as by printf.
__attribute__((format(printf, 1, 2))) void PrintByStdio(const char *format, ...) noexcept;

// A text as by g_print: a handler that the host has set (g_set_print_handler) gets it, whatever standard
// output is.
__attribute__((format(printf, 1, 2))) void PrintByGlib(const char *format, ...) noexcept;

// If standard output is closed, nothing is written to descriptor 1 any more: the next file or socket that
// anybody opens gets the number. Any thread.
void RememberStandardOutput() noexcept;

}  // namespace GSTREAMER

// The statement's operands are streamed: LOG_INFO(kTag << " Open " << url). A line for which there is no
// memory is dropped, or cut where it ran out, rather than thrown: log statements stand on paths that must not
// fail.
#define GST_SOURCE_LOG(level, operands)                                                 \
    do {                                                                                \
        try {                                                                           \
            std::ostringstream gst_source_log_stream;                                   \
            gst_source_log_stream.imbue(std::locale::classic());                        \
            gst_source_log_stream << operands; /* NOLINT(bugprone-macro-parentheses) */ \
            GSTREAMER::WriteLogLine(level, __LINE__, gst_source_log_stream.str());      \
        } catch (...) { /* NOLINT(bugprone-empty-catch) */                              \
        }                                                                               \
    } while (false)

// The diagnostics that do not come through the log.
#define PRINT_BY_GLIB(...) GSTREAMER::PrintByGlib(__VA_ARGS__)
#define PRINT_BY_STDIO(...) GSTREAMER::PrintByStdio(__VA_ARGS__)

#define LOG_FATAL(operands) GST_SOURCE_LOG(GSTREAMER::LogLevel::Fatal, operands)
#define LOG_ERR(operands) GST_SOURCE_LOG(GSTREAMER::LogLevel::Err, operands)
#define LOG_WARN(operands) GST_SOURCE_LOG(GSTREAMER::LogLevel::Warn, operands)
#define LOG_INFO(operands) GST_SOURCE_LOG(GSTREAMER::LogLevel::Info, operands)
#define LOG_DEBUG(operands) GST_SOURCE_LOG(GSTREAMER::LogLevel::Debug, operands)
