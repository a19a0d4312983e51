// The library's log: lines on standard output, "[local time] (LEVEL) (line) message".
#pragma once

#include <locale>
#include <sstream>
#include <string>

namespace GSTREAMER {

enum class LogLevel { Fatal, Err, Warn, Info, Debug };

// Writes one whole line to standard output and flushes it, if it takes it. Any thread; never throws. `line` is the source line of the
// statement.
void WriteLogLine(LogLevel level, int line, const std::string &message) noexcept;

// Whether standard output takes a line without blocking. It belongs to the host and may be a pipe that nobody reads: the first line that finds
// it full waits up to a second, the following ones not at all, and what was left out is told by one line as soon as
// there is room again. To be asked before everything that is printed. Any thread; never throws.
bool OutputReady() noexcept;

}  // namespace GSTREAMER

// The statement's operands are streamed: LOG_INFO(kTag << " Open " << url). A line for which there is no memory is dropped, or cut where it
// ran out, rather than thrown: log statements stand on paths that must not fail.
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

// The diagnostics that do not come through the log, by GLib's print handler and by printf.
#define PRINT_BY_GLIB(...)              \
    do {                                \
        if (GSTREAMER::OutputReady()) { \
            g_print(__VA_ARGS__);       \
        }                               \
    } while (false)
#define PRINT_BY_STDIO(...)             \
    do {                                \
        if (GSTREAMER::OutputReady()) { \
            std::printf(__VA_ARGS__);   \
            std::fflush(stdout);        \
        }                               \
    } while (false)

#define LOG_FATAL(operands) GST_SOURCE_LOG(GSTREAMER::LogLevel::Fatal, operands)
#define LOG_ERR(operands) GST_SOURCE_LOG(GSTREAMER::LogLevel::Err, operands)
#define LOG_WARN(operands) GST_SOURCE_LOG(GSTREAMER::LogLevel::Warn, operands)
#define LOG_INFO(operands) GST_SOURCE_LOG(GSTREAMER::LogLevel::Info, operands)
#define LOG_DEBUG(operands) GST_SOURCE_LOG(GSTREAMER::LogLevel::Debug, operands)
