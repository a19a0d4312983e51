#include "view_options.h"

#include <strings.h>

#include <limits>

#include "command_line.h"
#include "options.h"

namespace reader {
namespace {

void AddIndex(CLI::App &command, const std::string &flag, const std::string &help, uint32_t &target) {
    command
        .add_option_function<std::string>(
            flag,
            [flag, &target](const std::string &text) {
                target = tool::ParseWhole<uint32_t>(flag, text, 0, std::numeric_limits<int32_t>::max());
            },
            help)
        ->type_name("N")
        ->default_str("0");
}

// One flag of each command, as the other commands have it.
void AddTrack(CLI::App &command, Options &options) {
    AddIndex(command, "--channel", "channel, from 0", options.channel);
    AddIndex(command, "--stream", "stream of the channel, from 0", options.stream);
}

bool EndsWith(const std::string &text, const std::string &end) {
    return text.size() > end.size() && strcasecmp(text.c_str() + text.size() - end.size(), end.c_str()) == 0;
}

}  // namespace

void AddPlayOptions(CLI::App &command, Options &options) {
    command.add_option("NAME", options.name)->group("");
    AddTrack(command, options);
    command.add_flag("--no-audio{false}", options.view.sound, "the picture alone");
    command.add_flag("--follow", options.follow,
                     "go on when the buffer comes back after its host has gone; also waits for one that is not there yet");
}

void AddSnapshotOptions(CLI::App &command, Options &options) {
    command.add_option("NAME", options.name)->group("");
    command.add_option("OUT", options.output)->group("");
    AddTrack(command, options);
    command
        .add_option_function<std::string>(
            "--timeout", [&options](const std::string &text) { options.view.timeout = tool::ParseSeconds("--timeout", text); },
            "how long to wait for a key frame when none is held")
        ->type_name("SECONDS")
        ->default_str("10");
    command
        .add_option_function<std::string>(
            "--width",
            [&options](const std::string &text) {
                constexpr int kWidest = 16384;
                options.view.width = tool::ParseWhole<int>("--width", text, 1, kWidest);
            },
            "a smaller picture, of this width; one that is narrower stays as it is")
        ->type_name("PIXELS");
}

void CheckSnapshotOptions(Options &options) {
    if (options.name.empty() || options.output.empty()) {
        tool::Refuse(options.name.empty() ? "snapshot: no NAME given" : "snapshot: no OUT given, such as picture.jpg");
    }
    if (EndsWith(options.output, ".png")) {
        options.view.format = PictureFormat::kPng;
    } else if (options.output != "-" && !EndsWith(options.output, ".jpg") && !EndsWith(options.output, ".jpeg")) {
        tool::Refuse("snapshot: \"" + options.output + "\" ends neither in .jpg nor in .png");
    }
}

}  // namespace reader
