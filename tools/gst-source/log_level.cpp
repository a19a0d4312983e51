#include "log_level.h"

#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cstdlib>
#include <stdexcept>
#include <utility>

#include "command_line.h"

namespace tool {
namespace {

using Name = std::pair<std::string_view, LogLevel>;

template <size_t Size>
std::optional<LogLevel> Find(const std::array<Name, Size> &names, std::string_view text) {
    const auto known = std::find_if(names.begin(), names.end(), [text](const Name &name) { return name.first == text; });
    return known != names.end() ? std::optional(known->second) : std::nullopt;
}

bool IsDigit(char c) {
    return std::isdigit(static_cast<unsigned char>(c)) != 0;
}

bool StartsWith(std::string_view text, std::string_view start) {
    return text.substr(0, start.size()) == start;
}

constexpr std::string_view kStamp = "[2024-05-01 12.00.00] ";

// "[2024-05-01 12.00.00] (ERR) (85) text"
bool HasStamp(std::string_view line) {
    return line.size() > kStamp.size() && std::equal(kStamp.begin(), kStamp.end(), line.begin(),
                                                     [](char like, char c) { return IsDigit(like) ? IsDigit(c) : c == like; });
}

std::optional<LogLevel> LibraryLevel(std::string_view line) {
    static constexpr std::array<Name, 5> kNames{{{"FATAL", LogLevel::kError},
                                                 {"ERR", LogLevel::kError},
                                                 {"WARN", LogLevel::kWarning},
                                                 {"INFO", LogLevel::kInfo},
                                                 {"DEBUG", LogLevel::kDebug}}};
    if (!HasStamp(line) || line[kStamp.size()] != '(') {
        return std::nullopt;
    }
    line.remove_prefix(kStamp.size() + 1);
    return Find(kNames, line.substr(0, line.find(')')));
}

std::string_view TakeWord(std::string_view &text) {
    text.remove_prefix(std::min(text.find_first_not_of(' '), text.size()));
    const std::string_view word = text.substr(0, text.find(' '));
    text.remove_prefix(word.size());
    return word;
}

// "0:00:00.123456789 12345 0x55d0c0ffee00 WARN    udpsrc gstudpsrc.c:1:function:<name> text"
std::optional<LogLevel> FrameworkLevel(std::string_view line) {
    static constexpr std::array<Name, 8> kNames{{{"ERROR", LogLevel::kError},
                                                 {"WARN", LogLevel::kWarning},
                                                 {"FIXME", LogLevel::kInfo},
                                                 {"INFO", LogLevel::kInfo},
                                                 {"DEBUG", LogLevel::kDebug},
                                                 {"LOG", LogLevel::kDebug},
                                                 {"TRACE", LogLevel::kDebug},
                                                 {"MEMDUMP", LogLevel::kDebug}}};
    constexpr std::string_view kTimeEnd = ":00:00.123456789";
    const std::string_view time = TakeWord(line);
    const std::string_view process = TakeWord(line);
    const std::string_view thread = TakeWord(line);
    const bool is_time = time.size() > kTimeEnd.size() && time[time.size() - kTimeEnd.size()] == ':' &&
                         time.find_first_not_of("0123456789:.") == std::string_view::npos;
    if (!is_time || process.find_first_not_of("0123456789") != std::string_view::npos || !StartsWith(thread, "0x")) {
        return std::nullopt;
    }
    return Find(kNames, TakeWord(line));
}

// "(gst-source:1): GLib-CRITICAL **: 12:00:00.000: text", "** Message: text", "Domain-INFO: text"
std::optional<LogLevel> GlibLevel(std::string_view line) {
    static constexpr std::array<Name, 6> kNames{{{"ERROR", LogLevel::kError},
                                                 {"CRITICAL", LogLevel::kError},
                                                 {"WARNING", LogLevel::kWarning},
                                                 {"Message", LogLevel::kInfo},
                                                 {"INFO", LogLevel::kInfo},
                                                 {"DEBUG", LogLevel::kDebug}}};
    constexpr std::string_view kNoDomain = "** ";
    constexpr std::string_view kProcessEnd = "): ";
    const bool without_domain = StartsWith(line, kNoDomain);
    line.remove_prefix(without_domain ? kNoDomain.size() : 0);
    bool marked = without_domain;
    if (StartsWith(line, "(")) {
        const size_t end = line.find(kProcessEnd);
        marked = end != std::string_view::npos;
        line.remove_prefix(marked ? end + kProcessEnd.size() : 0);
    }
    std::string_view level = line.substr(0, std::min(line.find_first_of(": "), line.size()));
    const size_t dash = level.rfind('-');
    marked = marked || dash != std::string_view::npos;
    level.remove_prefix(dash == std::string_view::npos ? 0 : dash + 1);
    return marked && line.find(':') != std::string_view::npos ? Find(kNames, level) : std::nullopt;
}

// "ERROR: RTMP_Connect1, handshake failed.", "ERROR:file.c:1:function: assertion failed"
std::optional<LogLevel> PlainLevel(std::string_view line) {
    static constexpr std::array<Name, 3> kNames{
        {{"ERROR", LogLevel::kError}, {"WARNING", LogLevel::kWarning}, {"DEBUG", LogLevel::kDebug}}};
    const size_t colon = line.find(':');
    return colon == std::string_view::npos ? std::nullopt : Find(kNames, line.substr(0, colon));
}

constexpr std::array<Name, 4> kLevels{
    {{"error", LogLevel::kError}, {"warning", LogLevel::kWarning}, {"info", LogLevel::kInfo}, {"debug", LogLevel::kDebug}}};

}  // namespace

LogLevel LevelOf(std::string_view line) {
    for (const auto look : {LibraryLevel, FrameworkLevel, GlibLevel, PlainLevel}) {
        if (const auto level = look(line)) {
            return *level;
        }
    }
    return LogLevel::kInfo;
}

std::optional<LogLevel> ParseLogLevel(std::string_view text) {
    return Find(kLevels, text);
}

LogPolicy PolicyOf(bool quiet, unsigned verbose, const std::string &log_level) {
    if (!log_level.empty()) {
        const auto level = ParseLogLevel(log_level);
        if (!level) {
            std::vector<std::string> names;
            std::transform(kLevels.begin(), kLevels.end(), std::back_inserter(names),
                           [](const Name &name) { return std::string(name.first); });
            throw std::runtime_error("--log-level: \"" + log_level + "\" is not error, warning, info or debug" +
                                     Suggestion(log_level, names));
        }
        return {*level, *level};
    }
    if (quiet) {
        return {LogLevel::kError, LogLevel::kError};
    }
    // Lines of less weight are there only when GST_DEBUG or G_MESSAGES_DEBUG ask for them.
    return {LogLevel::kDebug, verbose > 0 ? LogLevel::kDebug : LogLevel::kWarning};
}

bool IsJournal(int fd) {
    const char *journal = std::getenv("JOURNAL_STREAM");
    struct stat file {};
    return journal != nullptr && fstat(fd, &file) == 0 &&
           std::to_string(file.st_dev) + ":" + std::to_string(file.st_ino) == journal;
}

std::string_view JournalPrefix(LogLevel level) {
    switch (level) {
        case LogLevel::kError:
            return "<3>";
        case LogLevel::kWarning:
            return "<4>";
        case LogLevel::kInfo:
            return "<6>";
        case LogLevel::kDebug:
            break;
    }
    return "<7>";
}

std::string WithoutStamp(const std::string &line) {
    return HasStamp(line) ? line.substr(kStamp.size()) : line;
}

}  // namespace tool
