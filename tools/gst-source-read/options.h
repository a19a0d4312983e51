// The command line.
#pragma once

#include <nlohmann/json_fwd.hpp>

#include <cstdint>
#include <optional>
#include <string>

#include "parsed.h"
#include "record_options.h"
#include "shb.h"
#include "view_options.h"

namespace reader {

enum class Command { kList, kTracks, kRead, kRecord, kPlay, kSnapshot, kRemove };

struct Options {
    Command command = Command::kList;
    std::string name;  // empty: the one live buffer of this machine
    bool json = false;

    std::optional<double> watch;  // s, of tracks

    // Of read.
    uint32_t channel = 0;
    uint32_t stream = 0;
    shb_kind_t kind = SHB_VIDEO;
    shb_start_t start = SHB_START_KEY;
    std::string output;              // empty: standard output, unless records go there; "-": standard output
    uint64_t frames = 0;             // 0: no such end
    std::optional<double> duration;  // s
    std::string format;              // container of video and audio together; empty: the frames of one track

    RecordOptions record;

    ViewOptions view;

    bool follow = false;
    bool kind_given = false;
    bool force = false;  // of remove
};

using ParseResult = tool::Parsed<Options>;

ParseResult ParseOptions(int argc, const char *const *argv);

// The command line as data; see describe.h.
nlohmann::json DescribeOptions();

}  // namespace reader
