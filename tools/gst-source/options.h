// The command line: what it may say, what it means, and what it must not leave open.
#pragma once

#include <nlohmann/json_fwd.hpp>

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "parsed.h"
#include "source_config.h"

namespace tool {

enum class ColorMode { kAuto, kNever, kAlways };

enum class Command { kRun, kCheck, kReload, kPrintConfig };

struct Options {
    Command command = Command::kRun;
    std::vector<std::string> urls;
    SourceConfig common;      // what the flags say of each of them; its name is that of their shared buffer
    std::string config_file;  // names the sources instead of the command line
    std::string only;         // the one source of the file that is wanted; empty: all

    std::string http;  // ADDRESS:PORT to listen at, empty: nowhere
    std::string http_token;

    double interval = 1.0;                // s
    std::optional<double> duration;       // s
    uint64_t frames = 0;                  // 0: no such end
    std::optional<double> close_timeout;  // s
    bool json = false;
    ColorMode color = ColorMode::kAuto;
    std::string log_file;  // empty: standard error, or under the live table
    bool quiet = false;
    bool verbose = false;
    std::string log_level;   // "error", "warning", "info", "debug"; empty: not given
    std::string dump_video;  // as given; see DumpPath
    std::string dump_audio;

    std::vector<std::string> warnings;  // what a person should know before the start, one line each
};

using ParseResult = Parsed<Options>;

// Looks up an environment variable; null when it is not set.
using Environment = std::function<const char *(const char *)>;

ParseResult ParseOptions(int argc, const char *const *argv, const Environment &environment);

// The command line as data (see describe.h), and the options of a source in a file: "key", "type", "help", "kind" ("text" or
// "number"), and where there is one "protocol" and "default".
nlohmann::json DescribeOptions();
nlohmann::json DescribeSourceFields();

// "error", "warning", "info" or "debug". Throws std::runtime_error with a message for people.
std::string CheckedLogLevel(const std::string &label, const std::string &text);

// The sources of the command line, each named by its channel.
std::vector<SourceConfig> SourcesOf(const Options &options);

constexpr double kCloseTimeout = 10;  // s, unless another one is given

// File of one source's dump: "%d" becomes the channel; without it, and with several sources, the channel is
// put before the extension ("video.h264" gives "video.1.h264").
std::string DumpPath(const std::string &pattern, unsigned channel, size_t sources);

}  // namespace tool
