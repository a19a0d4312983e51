// The command line of record.
#pragma once

#include <CLI/CLI.hpp>

#include <cstdint>
#include <string>
#include <vector>

namespace reader {

struct RecordOptions {
    std::string out;
    int64_t segment = 0;       // ns; 0: one file
    int64_t duration = 0;      // ns; 0: until a signal
    int64_t timeout = 0;       // ns; 0: waits as long as it takes
    std::string from = "key";  // as the element shbsrc takes it
    bool wait = false;         // for a buffer that is not there yet
    bool ends_with_host = false;
    bool overwrite = false;
    bool video = true;
    bool audio = true;

    std::vector<std::string> places;  // NAME and OUT as given
};

// Adds the flags to the command `record`.
void AddRecordFlags(CLI::App &command, RecordOptions &options);
// Takes NAME and OUT apart and refuses what cannot be meant. `name` stays empty without a NAME.
void CheckRecord(RecordOptions &options, std::string &name);

// A place to begin: "key", "newest", "oldest", or how far back, "-10s". Refuses others.
std::string ParseFrom(const std::string &flag, const std::string &text);

}  // namespace reader
