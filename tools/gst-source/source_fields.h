// The options of a source, each with its name in a file, its flag and its meaning. The command line, the file of sources and
// what is printed of either are made from this one table.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "source_config.h"

namespace tool {

struct SourceField {
    enum class Kind { kText, kWhole, kNumber };

    std::optional<Protocol> protocol;  // nothing: of all
    const char *key;                   // in a file
    const char *flag;                  // on the command line
    const char *unit;                  // what stands behind the flag in the help
    const char *help;
    Kind kind;
    bool secret;
    // `label` is what a message calls the option. Throws std::runtime_error with a message for people.
    std::function<void(SourceConfig &config, const std::string &label, const std::string &text)> set;
    // As it would be given; empty for what is not set.
    std::function<std::string(const SourceConfig &config)> get;
};

// In the order in which they are shown: those of all protocols first.
const std::vector<SourceField> &SourceFields();

// Whether the option means something to sources of this protocol. Credentials are of no use to SRT and UDP.
bool Applies(const SourceField &field, Protocol protocol);

// Values that the framework refuses with a warning in its own words, or that have no effect, once the stream is opened: one
// sentence each. `label` says what the option with this key is called.
using Label = std::function<std::string(const char *key)>;
std::vector<std::string> DoubtsOf(const SourceConfig &config, const Label &label);

// What a message calls an option: its flag, or its key.
std::string FlagOf(Protocol protocol, const char *key);

// With all its digits and no more, as a file and a flag take it.
std::string NumberText(double value);

// Seconds without data after which a session ends, 0: never. HLS: until it is known how long its segments are.
double StallWatchOf(const SourceConfig &config);

}  // namespace tool
