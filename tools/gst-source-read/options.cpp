#include "options.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <iterator>
#include <limits>
#include <utility>
#include <vector>

#include "command_line.h"
#include "companion.h"
#include "container.h"
#include "container_names.h"
#include "describe.h"
#include "view_options.h"

namespace reader {
namespace {

constexpr const char *kProgram = "gst-source-read";

// One of a few words.
template <typename Value>
Value ParseWord(const std::string &flag, const std::string &text, const std::vector<std::pair<const char *, Value>> &words) {
    const auto known = std::find_if(words.begin(), words.end(), [&text](const auto &word) { return text == word.first; });
    if (known != words.end()) {
        return known->second;
    }
    std::string list;
    std::vector<std::string> names;
    for (size_t i = 0; i < words.size(); ++i) {
        list += (i == 0 ? "" : (i + 1 == words.size() ? " or " : ", ")) + std::string(words[i].first);
        names.emplace_back(words[i].first);
    }
    tool::Refuse(flag + ": \"" + text + "\" is not " + list + tool::Suggestion(text, names));
}

class CommandLine {
  public:
    explicit CommandLine(Options &options) : m_options(options) {
        m_app.formatter(tool::MakeHelpFormatter(
            "gst-source-read COMMAND [FLAGS]\n\n"
            "gst-source-read list [--json]\n"
            "gst-source-read tracks [NAME] [--watch [SECONDS]] [--json]\n"
            "gst-source-read read [NAME] [--channel N] [--stream N] [--kind video|audio] [--start oldest|newest|key]\n"
            "                     [--output FILE|-] [--frames N] [--duration SECONDS] [--follow] [--json]\n"
            "gst-source-read read [NAME] --format mpegts|mkv [-] [--channel N] [--stream N] [--start ...] [--frames N] ...\n"
            "gst-source-read record [NAME] OUT.mkv|.mp4|.ts [--segment TIME] [--from -10s] [--duration TIME] ...\n"
            "gst-source-read play [NAME] [--channel N] [--stream N] [--no-audio] [--follow]\n"
            "gst-source-read snapshot NAME OUT.jpg|OUT.png|- [--channel N] [--stream N] [--timeout SECONDS] ...\n"
            "gst-source-read remove NAME [--force]\n\n"
            "Without NAME: the one live buffer of this machine. COMMAND --help explains the flags of a command."));
        m_app.set_version_flag("--version", tool::VersionText(kProgram));
        m_app.require_subcommand(1);
        AddList();
        AddTracks();
        AddRead();
        AddRecord();
        AddPlayOptions(*Add(Command::kPlay, "play", "play [NAME] [FLAGS]", "a window with the picture, and the sound"),
                       m_options);
        AddSnapshotOptions(*Add(Command::kSnapshot, "snapshot", "snapshot NAME OUT.jpg|OUT.png|- [FLAGS]",
                                "the newest key frame as a picture"),
                           m_options);
        AddRemove();
        m_app.footer(
            "Exit code: 0 all went well; 1 nothing arrived, or something failed, with one line that says what; 2 the command\n"
            "line is wrong. Ctrl-C ends a run in order; a closed pipe ends it by SIGPIPE, as usual (141 in a shell).");
    }

    void Parse(int argc, const char *const *argv) {
        std::vector<std::string> arguments(argv + std::min(argc, 1), argv + argc);
        // The value of --watch may be left out also in front of the name.
        for (size_t i = 0; i < arguments.size(); ++i) {
            const bool number = i + 1 < arguments.size() && arguments[i + 1].find_first_of("0123456789.") == 0;
            if (arguments[i] == "--watch" && !number) {
                arguments[i] = "--watch=1";
            }
            // A value that looks like a flag.
            if (arguments[i] == "--from" && i + 1 < arguments.size()) {
                arguments[i] += "=" + arguments[i + 1];
                arguments.erase(arguments.begin() + static_cast<std::ptrdiff_t>(i) + 1);
            }
        }
        const std::string first = arguments.empty() ? "" : arguments.front();
        // The parser takes them from the end.
        std::reverse(arguments.begin(), arguments.end());
        try {
            m_app.parse(std::move(arguments));
        } catch (const CLI::RequiredError &) {
            const bool wrong = !first.empty() && first.front() != '-';
            const std::string suggestion = wrong ? tool::Suggestion(first, CommandNames()) : "";
            tool::Refuse((wrong ? "\"" + first + "\" is not a command" : "no command given") +
                         (suggestion.empty() ? "; gst-source-read --help says more" : suggestion));
        }
        if (m_options.command == Command::kRemove && m_options.name.empty()) {
            tool::Refuse("remove: no NAME given");
        }
        if (m_options.command == Command::kSnapshot) {
            CheckSnapshotOptions(m_options);
        }
        if (m_options.command == Command::kRead) {
            CheckRead();
        }
        if (m_options.command == Command::kRecord) {
            CheckRecord(m_options.record, m_options.name);
        }
    }
    const CLI::App &App() const { return m_app; }

  private:
    CLI::App *Add(Command command, const std::string &name, const std::string &usage, const std::string &help) {
        CLI::App *sub = m_app.add_subcommand(name, help);
        sub->formatter(tool::MakeHelpFormatter(std::string(kProgram) + " " + usage));
        sub->callback([this, command] { m_options.command = command; });
        return sub;
    }

    std::vector<std::string> CommandNames() const {
        std::vector<std::string> names;
        for (const CLI::App *command : m_app.get_subcommands([](const CLI::App *) { return true; })) {
            names.push_back(command->get_name());
        }
        return names;
    }

    void CheckRead() {
        if (m_options.name == "-" && m_options.output.empty()) {
            m_options.name.clear();
            m_options.output = "-";
        }
        if (m_options.json && m_options.output == "-") {
            tool::Refuse("--json and --output - both go to standard output");
        }
        const bool to_file = !m_options.output.empty() && m_options.output != "-";
        const std::string suffix = to_file ? tool::ContainerSuffix(m_options.output) : "";
        const std::string instead =
            "gst-source-read record " + (m_options.name.empty() ? "" : m_options.name + " ") + m_options.output;
        if (to_file && !m_options.format.empty()) {
            tool::Refuse("--format goes to standard output; for a file: " + instead);
        }
        if (!suffix.empty()) {
            tool::Refuse("read writes the bare frames of one track, which is no " + suffix + "; for that: " + instead);
        }
        if (!m_options.format.empty() && m_options.json) {
            tool::Refuse("--json and --format both go to standard output");
        }
    }

    void Json(CLI::App *sub, const std::string &help) { sub->add_flag("--json", m_options.json, help); }

    CLI::Option *Name(CLI::App *sub) { return sub->add_option("NAME", m_options.name)->group(""); }

    template <typename Function>
    static CLI::Option *Value(CLI::App *sub, const std::string &flag, const std::string &type, const std::string &help,
                              Function function) {
        return sub->add_option_function<std::string>(flag, function, help)->type_name(type);
    }

    void Source(CLI::App *sub) {
        const auto index = [](const std::string &flag, uint32_t &target) {
            return [flag, &target](const std::string &text) {
                target = tool::ParseWhole<uint32_t>(flag, text, 0, std::numeric_limits<uint32_t>::max());
            };
        };
        Value(sub, "--channel", "N", "channel, from 0", index("--channel", m_options.channel))->default_str("0");
        Value(sub, "--stream", "N", "stream of the channel, from 0", index("--stream", m_options.stream))->default_str("0");
    }

    void AddList() {
        CLI::App *sub = Add(Command::kList, "list", "list [--json]", "every shared buffer of this machine");
        Json(sub, "one JSON object a buffer");
    }

    void AddTracks() {
        CLI::App *sub = Add(Command::kTracks, "tracks", "tracks [NAME] [FLAGS]", "the tracks of a buffer and what they carry");
        Name(sub);
        Value(sub, "--watch", "[SECONDS]", "again every SECONDS (1), on a terminal in place, until Ctrl-C",
              [this](const std::string &text) { m_options.watch = tool::ParseSeconds("--watch", text); });
        Json(sub, "one JSON object a track");
    }

    void AddRead() {
        CLI::App *sub = Add(Command::kRead, "read", "read [NAME] [FLAGS]\n\nFor one: gst-source-read read NAME | ffplay -",
                            "the frames of a track");
        Name(sub);
        Source(sub);
        sub->add_option("OUT", m_options.output)->group("");
        Value(sub, "--format", "CONTAINER",
              "mpegts or mkv: video and audio together, for a player behind a pipe, on standard output; --kind takes one alone",
              [this](const std::string &text) {
                  const std::string suggestion = tool::Suggestion(text, {"mpegts", "mkv"});
                  const Container *container = ContainerNamed(text);
                  if (container == nullptr || !container->streamable) {
                      tool::Refuse("--format: \"" + text + "\" is not mpegts or mkv" + suggestion);
                  }
                  m_options.format = container->name;
              });
        Value(sub, "--kind", "KIND", "video or audio", [this](const std::string &text) {
            m_options.kind = ParseWord<shb_kind_t>("--kind", text, {{"video", SHB_VIDEO}, {"audio", SHB_AUDIO}});
            m_options.kind_given = true;
        })->default_str("video");
        Value(sub, "--start", "WHERE",
              "oldest: at the oldest frame held; newest: at the next frame to come; key: at the newest key frame held, or the "
              "next "
              "to come. The same rule holds after a loss",
              [this](const std::string &text) {
                  m_options.start = ParseWord<shb_start_t>(
                      "--start", text, {{"oldest", SHB_START_OLDEST}, {"newest", SHB_START_NEWEST}, {"key", SHB_START_KEY}});
              })
            ->default_str("key");
        sub->add_option(
               "--output", m_options.output,
               "where the frames go, one behind the other; - is standard output, which is the default unless --json is "
               "given")
            ->type_name("FILE");
        Value(sub, "--frames", "N", "end after N frames; together with --duration, running out of time is a failure",
              [this](const std::string &text) {
                  m_options.frames = tool::ParseWhole<uint64_t>("--frames", text, 1, std::numeric_limits<uint64_t>::max());
              });
        Value(sub, "--duration", "SECONDS", "end after this time",
              [this](const std::string &text) { m_options.duration = tool::ParseSeconds("--duration", text); });
        sub->add_flag(
            "--follow", m_options.follow,
            "go on when the track gets a new writer, and when the buffer comes back after its host has gone; without it "
            "the run ends with the writer");
        Json(sub, "one JSON object a frame on standard output; the frames themselves only with --output FILE");
    }

    void AddRecord() {
        CLI::App *sub = Add(Command::kRecord, "record",
                            "record [NAME] OUT [FLAGS]\n\n"
                            "OUT ends in " +
                                KnownSuffixes() + " and may be a pattern of strftime: cam-%Y%m%d-%H%M%S.mp4",
                            "video and audio of a source in files that play");
        Source(sub);
        AddRecordFlags(*sub, m_options.record);
        Json(sub, "one JSON object a finished file, then a summary, on standard output");
    }

    void AddRemove() {
        CLI::App *sub = Add(Command::kRemove, "remove", "remove NAME [--force]", "remove what a dead host has left behind");
        Name(sub);
        sub->add_flag("--force", m_options.force,
                      "also when its creator is alive: attached readers go on, others no longer find the buffer");
    }

    CLI::App m_app{"Lists, shows and reads the shared buffers that hosts on this machine write.", kProgram};
    Options &m_options;
};

}  // namespace

ParseResult ParseOptions(int argc, const char *const *argv) {
    ParseResult result;
    Options options;
    CommandLine command_line(options);
    if (const auto end = tool::Parse(command_line.App(), kProgram, [&] { command_line.Parse(argc, argv); })) {
        static_cast<tool::ParseEnd &>(result) = *end;
        return result;
    }
    result.options = std::move(options);
    return result;
}

nlohmann::json DescribeOptions() {
    Options options;
    return tool::Describe(CommandLine(options).App());
}

}  // namespace reader
