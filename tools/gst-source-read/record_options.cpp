#include "record_options.h"

#include "command_line.h"
#include "container.h"

namespace reader {

std::string ParseFrom(const std::string &flag, const std::string &text) {
    if (text == "key" || text == "newest" || text == "oldest") {
        return text;
    }
    const std::string wrong = flag + ": \"" + text + "\" is not key, newest, oldest, or how far back, such as -10s";
    if (text.size() < 2 || text.front() != '-') {
        tool::Refuse(wrong + tool::Suggestion(text, {"key", "newest", "oldest"}));
    }
    constexpr int64_t kNsPerMs = 1'000'000;
    const int64_t back = tool::ParseTime(flag, text.substr(1));
    return "-" + std::to_string((back + kNsPerMs - 1) / kNsPerMs) + "ms";
}

void AddRecordFlags(CLI::App &command, RecordOptions &options) {
    const auto time = [&command](const std::string &flag, int64_t &target, const std::string &help) {
        command
            .add_option_function<std::string>(
                flag, [flag, &target](const std::string &text) { target = tool::ParseTime(flag, text); }, help)
            ->type_name("TIME");
    };
    command.add_option("PLACES", options.places)->expected(1, 2)->group("");
    time("--segment", options.segment,
         "a new file this often, at a key frame: 10m, 30s, 1h. OUT is then best a pattern of strftime; without % the time is "
         "put before its suffix");
    time("--duration", options.duration, "end when this much has been recorded");
    command
        .add_option_function<std::string>(
            "--from", [&options](const std::string &text) { options.from = ParseFrom("--from", text); },
            "where to begin: -10s is what came ten seconds ago, as far as the buffer reaches back; key the newest key frame "
            "held; newest the next one to come; oldest the oldest one held")
        ->type_name("WHERE")
        ->default_str("key");
    time("--timeout", options.timeout, "end when nothing has come for this long");
    CLI::Option *wait = command.add_flag("--follow", options.wait,
                                         "wait also for a buffer that is not there yet; one that goes and comes back is "
                                         "waited for in any case");
    command.add_flag("--no-follow", options.ends_with_host, "end when the host ends")->excludes(wait);
    command.add_flag("--overwrite", options.overwrite, "replace files that are there already");
    CLI::Option *video = command.add_flag(
        "--video-only", [&options](int64_t) { options.audio = false; }, "without the sound");
    command
        .add_flag(
            "--audio-only", [&options](int64_t) { options.video = false; }, "without the picture")
        ->excludes(video);
}

void CheckRecord(RecordOptions &options, std::string &name) {
    if (options.places.empty()) {
        tool::Refuse("record: no file given; its name ends in " + KnownSuffixes());
    }
    options.out = options.places.back();
    if (options.places.size() > 1) {
        name = options.places.front();
    }
    if (options.out == "-") {
        tool::Refuse("record writes files; gst-source-read read NAME --format mpegts writes to standard output");
    }
    if (ContainerOf(options.out) == nullptr) {
        tool::Refuse("\"" + options.out + "\": the file's name has to end in " + KnownSuffixes());
    }
}

}  // namespace reader
