// A file of sources (TOML): what it says, and every mistake in it with its place.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "options.h"
#include "source_config.h"

namespace tool {

// What the file says of the run as a whole. Empty: nothing.
struct ServiceConfig {
    std::string http;
    std::string http_token;
    std::string log_file;
    std::string log_level;
    std::optional<double> close_timeout;  // s
};

bool operator==(const ServiceConfig &left, const ServiceConfig &right);

struct Mistake {
    unsigned line = 0;  // from 1; 0: of the file as a whole
    unsigned column = 0;
    std::string text;
    bool fatal = true;  // false: the file can be used as it is
};

struct ConfigFile {
    std::string path;
    ServiceConfig service;
    std::vector<SourceConfig> sources;
    std::vector<Mistake> mistakes;  // in the order of their places

    bool Good() const;
    // One line each, "FILE:LINE:COLUMN: text"; what is not fatal has "warning: " in front of the text.
    std::string Report() const;
};

// Reads the file and the files of secrets that it names. Relative paths start at the file's own directory.
ConfigFile ReadConfigFile(const std::string &path, const Environment &environment);
// The same with the text at hand.
ConfigFile ParseConfig(const std::string &text, const std::string &path, const Environment &environment);

// The absolute path without symbolic links, by which a run and a reload mean the same file.
std::string RealPath(const std::string &path);

// A file that says the same with every option that means something. Secrets are left out.
std::string PrintConfig(const ServiceConfig &service, const std::vector<SourceConfig> &sources);

}  // namespace tool
