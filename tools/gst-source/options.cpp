#include "options.h"

#include <unistd.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <cctype>
#include <charconv>
#include <limits>
#include <sstream>
#include <stdexcept>

#include "command_line.h"
#include "companion.h"
#include "container_names.h"
#include "describe.h"
#include "secrets.h"
#include "source_fields.h"
#include "stream_url.h"

namespace tool {
namespace {

// Secrets by their three ways in; a flag beats a file, a file beats the environment.
struct SecretFlags {
    std::string credentials_file;
    std::string passphrase_file;
    std::string token_file;
    std::string proxy_pwd_file;
    std::string http_token_file;

    std::string &Of(std::string_view key) {
        return key == "passphrase" ? passphrase_file : (key == "token" ? token_file : proxy_pwd_file);
    }
};

// The flag for a file that holds this secret; null for what has none.
const char *SecretFileFlag(std::string_view key) {
    constexpr std::pair<std::string_view, const char *> kFlags[] = {
        {"passphrase", "--passphrase-file"}, {"token", "--token-file"}, {"proxy_pwd", "--proxy-pwd-file"}};
    const auto *known = std::find_if(std::begin(kFlags), std::end(kFlags), [key](const auto &one) { return one.first == key; });
    return known == std::end(kFlags) ? nullptr : known->second;
}

void FillFromEnvironment(const Environment &environment, const char *name, std::string &value) {
    if (value.empty()) {
        const char *found = environment(name);
        value = found != nullptr ? found : "";
    }
}

void FillFromFile(const std::string &path, std::string &value, std::vector<std::string> &warnings) {
    if (!path.empty()) {
        const std::string secret = ReadSecretFile(path, warnings);
        if (value.empty()) {
            value = secret;
        }
    }
}

void FillSecrets(Options &options, const SecretFlags &flags, const Environment &environment) {
    if (!flags.credentials_file.empty()) {
        const Credentials credentials = ReadCredentialsFile(flags.credentials_file, options.warnings);
        if (options.common.user.empty()) {
            options.common.user = credentials.user;
        }
        if (options.common.password.empty()) {
            options.common.password = credentials.password;
        }
    }
    FillFromFile(flags.http_token_file, options.http_token, options.warnings);
    FillFromFile(flags.passphrase_file, options.common.srt.passphrase, options.warnings);
    FillFromFile(flags.token_file, options.common.rtmp.token, options.warnings);
    FillFromFile(flags.proxy_pwd_file, options.common.hls.proxy_pwd, options.warnings);
    FillFromEnvironment(environment, "GST_SOURCE_HTTP_TOKEN", options.http_token);
    if (!options.config_file.empty()) {
        return;  // names its secrets itself
    }
    FillFromEnvironment(environment, "GST_SOURCE_USER", options.common.user);
    FillFromEnvironment(environment, "GST_SOURCE_PASSWORD", options.common.password);
    FillFromEnvironment(environment, "GST_SOURCE_PASSPHRASE", options.common.srt.passphrase);
    FillFromEnvironment(environment, "GST_SOURCE_TOKEN", options.common.rtmp.token);
    FillFromEnvironment(environment, "GST_SOURCE_PROXY_PASSWORD", options.common.hls.proxy_pwd);
}

constexpr const char *kUsage =
    "gst-source [FLAGS] URL...\n"
    "       gst-source [FLAGS] --config FILE\n"
    "       gst-source check FILE\n"
    "       gst-source reload FILE\n\n"
    "Each URL is one source and one channel of the shared buffer, counted from 0. Its scheme is the protocol:\n"
    "udp://  rtsp:// rtsps:// rtspt:// rtspu://  srt://  rtmp:// rtmps://  http:// https:// (HLS)\n"
    "A file names its sources, each with a shared buffer of its own (man gst-source.toml). check reports every mistake in it;\n"
    "reload makes the run that has it open read it again: sources that did not change go on untouched.";

constexpr const char *kSchemes = "udp, rtsp, rtsps, rtspt, rtspu, srt, rtmp, rtmps, http and https";

const char *GroupOf(Protocol protocol) {
    switch (protocol) {
        case Protocol::kRtsp:
            return "RTSP";
        case Protocol::kSrt:
            return "SRT";
        case Protocol::kRtmp:
            return "RTMP";
        case Protocol::kUdp:
            return "UDP";
        case Protocol::kHls:
            return "HLS";
    }
    return "";
}

class CommandLine {
  public:
    explicit CommandLine(Options &options) : m_options(options) {
        m_app.formatter(MakeHelpFormatter(kUsage));
        m_app.set_version_flag("--version", VersionText("gst-source"));
        AddSources();
        AddBuffer();
        AddOutput();
        for (const Protocol protocol : {Protocol::kRtsp, Protocol::kSrt, Protocol::kRtmp, Protocol::kUdp, Protocol::kHls}) {
            m_group = GroupOf(protocol);
            for (const SourceField &field : SourceFields()) {
                if (field.protocol == protocol) {
                    AddField(field);
                }
            }
        }
        m_app.footer(
            "Secrets given as flags can be read in the process list by every user of the machine; files and the environment\n"
            "(GST_SOURCE_USER, GST_SOURCE_PASSWORD, GST_SOURCE_PASSPHRASE, GST_SOURCE_TOKEN, GST_SOURCE_PROXY_PASSWORD,\n"
            "GST_SOURCE_HTTP_TOKEN) cannot. A flag beats a file, a file beats the environment. Secrets are shown as *** in\n"
            "the log.\n"
            "\n"
            "With an rtmps:// URL the run is without TLS 1.3, whose session tickets librtmp takes for an error, unless\n"
            "GNUTLS_SYSTEM_PRIORITY_FILE is set.\n"
            "\n"
            "Ctrl-C (or SIGTERM) closes every source and prints the summary; a second one while they close leaves at once.\n"
            "SIGHUP makes a run with --config read its file again.\n"
            "Exit code: 0 every source has delivered (with --config: the run was asked to end); 1 one has not, or something\n"
            "failed, with one line that says what; 2 the command line or the file is wrong and nothing was opened; 130 or 143\n"
            "left by a second Ctrl-C or SIGTERM.");
    }

    void Parse(int argc, const char *const *argv) { m_app.parse(argc, argv); }
    const CLI::App &App() const { return m_app; }

    const SecretFlags &Secrets() const { return m_secrets; }

    // Flags of protocols that no URL asks for are a slip that would otherwise go unnoticed.
    void WarnOfIdleFlags() {
        if (!m_secrets.http_token_file.empty() && m_options.http.empty() && m_options.config_file.empty()) {
            m_options.warnings.emplace_back("--http-token-file has no effect without --http");
        }
        for (const auto &[protocol, flag] : m_protocolFlags) {
            const bool used = std::any_of(m_options.urls.begin(), m_options.urls.end(),
                                          [p = protocol](const std::string &url) { return ProtocolOf(url) == p; });
            if (flag->count() > 0 && !used) {
                m_options.warnings.push_back(flag->get_name() + " has no effect: no " + ProtocolName(protocol) +
                                             " source is given");
            }
        }
    }

    // With a file of sources, what is said of sources stands there.
    void CheckConfigAlone() const {
        if (!m_options.urls.empty()) {
            Refuse("--config takes its sources from the file; " + PublicUrl(m_options.urls.front()) +
                   " has no place beside it");
        }
        for (const CLI::Option *flag : m_sourceFlags) {
            if (flag->count() > 0) {
                Refuse(flag->get_name() + " has no place beside --config, which takes its sources from a file");
            }
        }
    }

  private:
    CLI::Option *Text(const std::string &flag, std::string &target, const std::string &type, const std::string &help) {
        return m_app.add_option(flag, target, help)->type_name(type)->group(m_group);
    }

    CLI::Option *OfSource(CLI::Option *flag) {
        m_sourceFlags.push_back(flag);
        return flag;
    }

    void AddField(const SourceField &field) {
        CLI::Option *flag =
            m_app
                .add_option_function<std::string>(
                    field.flag, [this, &field](const std::string &text) { field.set(m_options.common, field.flag, text); },
                    field.help)
                ->type_name(field.unit)
                ->group(m_group);
        if (!field.secret) {
            flag->default_str(field.get(m_options.common));
        }
        OfSource(flag);
        Remember(field.protocol, flag);
        if (const char *file = SecretFileFlag(field.key); file != nullptr) {
            Remember(field.protocol,
                     OfSource(Text(file, m_secrets.Of(field.key), "FILE", "the same from the first line of a file")));
        }
    }

    void Remember(std::optional<Protocol> protocol, CLI::Option *flag) {
        if (protocol) {
            m_protocolFlags.emplace_back(*protocol, flag);
        }
    }

    void AddFields(std::initializer_list<const char *> keys) {
        for (const char *key : keys) {
            for (const SourceField &field : SourceFields()) {
                if (!field.protocol && std::string_view(field.key) == key) {
                    AddField(field);
                }
            }
        }
    }

    void AddSources() {
        m_group = "Sources";
        m_app.add_option("URL", m_options.urls)->group("");
        Text("--config", m_options.config_file, "FILE", "take the sources from a file (TOML)");
        Text("--only", m_options.only, "NAME", "run this one source of the file, without the file's HTTP address");
        m_app
            .add_flag(
                "--print-config",
                [this](std::int64_t count) { m_options.command = count > 0 ? Command::kPrintConfig : m_options.command; },
                "print what would be in force, as a file for --config, and end; secrets are left out")
            ->group(m_group);
        AddFields({"caching", "user", "password"});
        OfSource(Text("--credentials", m_secrets.credentials_file, "FILE", "both from a file: user:password, or two lines"));
        AddFields({"stall_watch"});
        m_app
            .add_option_function<std::string>(
                "--duration", [this](const std::string &text) { m_options.duration = ParseSeconds("--duration", text); },
                "end after this time")
            ->type_name("SECONDS")
            ->group(m_group);
        CLI::Option *frames = m_app
                                  .add_option_function<std::string>(
                                      "--frames",
                                      [this](const std::string &text) {
                                          m_options.frames =
                                              ParseWhole<uint64_t>("--frames", text, 1, std::numeric_limits<uint64_t>::max());
                                      },
                                      "end once every source has delivered N access units of video (audio frames when it has "
                                      "no video), and count "
                                      "no further; together with --duration, running out of time is a failure")
                                  ->type_name("N")
                                  ->group(m_group);
        OfSource(frames);
        m_app
            .add_option_function<std::string>(
                "--close-timeout",
                [this](const std::string &text) { m_options.close_timeout = ParseSeconds("--close-timeout", text); },
                "how long sources may take to close before the tool leaves anyway")
            ->type_name("SECONDS")
            ->default_str("10")
            ->group(m_group);
    }

    void AddBuffer() {
        m_group = "Shared buffer";
        OfSource(Text("--name", m_options.common.name, "NAME", "name of the buffer; default gst-source-PID"));
        AddFields({"video_bytes", "audio_bytes", "buffer_mode", "buffer_group"});
    }

    void AddOutput() {
        m_group = "Service";
        Text("--http", m_options.http, "ADDRESS:PORT",
             "serve a page, metrics for Prometheus, health and an API there; an address that others can reach takes a token");
        Text("--http-token-file", m_secrets.http_token_file, "FILE", "the token that requests have to bear");

        m_group = "Output";
        OfSource(
            Text("--dump-video", m_options.dump_video, "FILE",
                 "write the video elementary stream as it comes out of the buffer; with several sources %d in the name is the "
                 "channel, "
                 "else the channel is put before the extension; - is standard output (one source, one dump, no table)"));
        OfSource(Text("--dump-audio", m_options.dump_audio, "FILE",
                      "the same for audio (AAC in ADTS; Opus and PCM frames without framing)"));
        m_app.add_flag("--json", m_options.json, "one JSON object per source and interval, then one summary object per source")
            ->group(m_group);
        Seconds("--interval", m_options.interval, "time between two reports");
        m_app
            .add_option_function<std::string>(
                "--color",
                [this](const std::string &text) {
                    if (text == "auto") {
                        m_options.color = ColorMode::kAuto;
                    } else if (text == "never") {
                        m_options.color = ColorMode::kNever;
                    } else if (text == "always") {
                        m_options.color = ColorMode::kAlways;
                    } else {
                        Refuse("--color: \"" + text + "\" is not auto, never or always");
                    }
                },
                "colours of the live table: auto, never, always; auto respects NO_COLOR")
            ->type_name("WHEN")
            ->default_str("auto")
            ->group(m_group);
        m_app.add_flag("-q,--quiet", m_options.quiet, "of the log, only errors; no reports")->group(m_group);
        m_app.add_flag("-v,--verbose", m_options.verbose, "the whole log, under the table as well")->group(m_group);
        m_app
            .add_option_function<std::string>(
                "--log-level", [this](const std::string &text) { m_options.log_level = CheckedLogLevel("--log-level", text); },
                "the lowest level of the log that is shown: error, warning, info or debug. By default all of it, under the "
                "table "
                "warning")
            ->type_name("LEVEL")
            ->group(m_group);
        Text("--log", m_options.log_file, "FILE",
             "append the library's log to FILE; without it the log goes to standard error, or, when the live table is there, "
             "its "
             "last lines stand under the table");
    }

    void Seconds(const std::string &flag, double &target, const std::string &help) {
        std::ostringstream shown;
        shown << target;
        m_app
            .add_option_function<std::string>(
                flag, [flag, &target](const std::string &text) { target = ParseSeconds(flag, text); }, help)
            ->type_name("SECONDS")
            ->default_str(shown.str())
            ->group(m_group);
    }

    CLI::App m_app{"Keeps live streams coming and shows what arrives of them in the shared buffer.", "gst-source"};
    Options &m_options;
    SecretFlags m_secrets;
    std::string m_group;
    std::vector<std::pair<Protocol, CLI::Option *>> m_protocolFlags;
    std::vector<const CLI::Option *> m_sourceFlags;
};

void CheckUrls(Options &options) {
    for (std::string &url : options.urls) {
        if (!ProtocolOf(url)) {
            Refuse(PublicUrl(url) + ": not a stream URL; known are " + kSchemes +
                   (url.find("://") == std::string::npos ? Suggestion(url, {"check", "reload"}) : ""));
        }
        if (const auto mistake = UrlMistake(url)) {
            Refuse(PublicUrl(url) + ": " + *mistake);
        }
        url = NormalisedUrl(url);
    }
    for (size_t i = 0; i < options.urls.size(); ++i) {
        for (size_t j = 0; j < i; ++j) {
            if (SamePlace(options.urls[i], options.urls[j])) {
                Refuse(PublicUrl(options.urls[i]) + " is given twice; one source has as many readers as are wanted");
            }
        }
    }
}

void CheckDumps(const Options &options) {
    const bool video_out = options.dump_video == "-";
    const bool audio_out = options.dump_audio == "-";
    if (video_out && audio_out) {
        Refuse("only one of --dump-video and --dump-audio can go to standard output");
    }
    if ((video_out || audio_out) && options.urls.size() > 1) {
        Refuse("a dump to standard output takes exactly one source");
    }
    for (const auto &[flag, file] :
         {std::pair("--dump-video", &options.dump_video), std::pair("--dump-audio", &options.dump_audio)}) {
        const std::string suffix = ContainerSuffix(*file);
        if (!suffix.empty()) {
            Refuse(std::string(flag) + " writes the bare frames of one track, which is no " + suffix +
                   "; beside a running host: gst-source-read record " +
                   (options.common.name.empty() ? "NAME" : options.common.name) + " " + *file);
        }
    }
    if (!options.dump_video.empty() && options.dump_video == options.dump_audio) {
        Refuse("--dump-video and --dump-audio name the same file");
    }
}

void WarnOfValues(Options &options) {
    for (const SourceConfig &source : SourcesOf(options)) {
        const Protocol protocol = *ProtocolOf(source.url);
        for (std::string &doubt : DoubtsOf(source, [protocol](const char *key) { return FlagOf(protocol, key); })) {
            if (std::find(options.warnings.begin(), options.warnings.end(), doubt) == options.warnings.end()) {
                options.warnings.push_back(std::move(doubt));
            }
        }
    }
}

// "check FILE" and "reload FILE".
class FileCommand {
  public:
    FileCommand(Command command, std::string &file)
        : m_name(command == Command::kCheck ? "gst-source check" : "gst-source reload") {
        const bool checks = command == Command::kCheck;
        m_app.description(checks ? "Reports every mistake in a file of sources as FILE:LINE:COLUMN: ..., and opens nothing."
                                 : "Makes the run that has the file open read it again. Sources that did not change go on "
                                   "untouched.");
        m_app.name(m_name);
        m_app.formatter(MakeHelpFormatter(m_name + " FILE"));
        m_app.add_option("FILE", file)->group("");
        m_app.footer(
            checks ? "Exit code: 0 the file is good; 2 it is not."
                   : "Exit code: 0 the file is in force; 1 no run has it open, or it could not be reached; 2 the file is not "
                     "good, and the run goes on with what it had.");
    }

    void Parse(int argc, const char *const *argv) { m_app.parse(argc, argv); }
    const CLI::App &App() const { return m_app; }
    const std::string &Name() const { return m_name; }

  private:
    const std::string m_name;
    CLI::App m_app;
};

ParseResult ParseFileCommand(Command command, int argc, const char *const *argv) {
    ParseResult result;
    Options options;
    options.command = command;
    FileCommand command_line(command, options.config_file);
    const auto parse = [&] {
        command_line.Parse(argc - 1, argv + 1);
        if (options.config_file.empty()) {
            Refuse("no file given");
        }
    };
    if (const auto end = Parse(command_line.App(), command_line.Name(), parse)) {
        static_cast<ParseEnd &>(result) = *end;
        return result;
    }
    result.options = std::move(options);
    return result;
}

}  // namespace

ParseResult ParseOptions(int argc, const char *const *argv, const Environment &environment) {
    for (const auto &[name, command] : {std::pair("check", Command::kCheck), std::pair("reload", Command::kReload)}) {
        if (argc > 1 && std::string_view(argv[1]) == name) {
            return ParseFileCommand(command, argc, argv);
        }
    }
    ParseResult result;
    Options options;
    CommandLine command_line(options);
    const auto parse = [&] {
        command_line.Parse(argc, argv);
        if (!options.config_file.empty()) {
            command_line.CheckConfigAlone();
        } else if (options.urls.empty()) {
            Refuse("no URL and no --config given; gst-source --help says more");
        } else if (!options.only.empty()) {
            Refuse("--only chooses a source of a file: it takes --config");
        }
        CheckUrls(options);
        CheckDumps(options);
        FillSecrets(options, command_line.Secrets(), environment);
        command_line.WarnOfIdleFlags();
        WarnOfValues(options);
    };
    if (const auto end = Parse(command_line.App(), "gst-source", parse)) {
        static_cast<ParseEnd &>(result) = *end;
        return result;
    }
    // A file that is printed has no use for a name that goes with this process.
    if (options.common.name.empty() && options.command != Command::kPrintConfig) {
        options.common.name = "gst-source-" + std::to_string(getpid());
    }
    result.options = std::move(options);
    return result;
}

nlohmann::json DescribeOptions() {
    Options options;
    nlohmann::json all = Describe(CommandLine(options).App());
    for (const Command command : {Command::kCheck, Command::kReload}) {
        all["commands"].push_back(Describe(FileCommand(command, options.config_file).App()));
    }
    return all;
}

nlohmann::json DescribeSourceFields() {
    nlohmann::json fields = nlohmann::json::array();
    const SourceConfig defaults;
    for (const SourceField &field : SourceFields()) {
        nlohmann::json record = {{"key", field.key},
                                 {"type", field.unit},
                                 {"help", field.help},
                                 {"kind", field.kind == SourceField::Kind::kText ? "text" : "number"}};
        if (field.protocol) {
            record["protocol"] = GroupOf(*field.protocol);
        }
        if (!field.secret && !field.get(defaults).empty()) {
            record["default"] = field.get(defaults);
        }
        fields.push_back(record);
    }
    return fields;
}

std::string CheckedLogLevel(const std::string &flag, const std::string &text) {
    for (const char *level : {"error", "warning", "info", "debug"}) {
        if (text == level) {
            return text;
        }
    }
    Refuse(flag + ": \"" + text + "\" is not error, warning, info or debug");
}

std::vector<SourceConfig> SourcesOf(const Options &options) {
    std::vector<SourceConfig> sources;
    for (const std::string &url : options.urls) {
        SourceConfig source = options.common;
        source.name = std::to_string(sources.size());
        source.url = url;
        sources.push_back(std::move(source));
    }
    return sources;
}

std::string DumpPath(const std::string &pattern, unsigned channel, size_t sources) {
    const std::string number = std::to_string(channel);
    const size_t place = pattern.find("%d");
    if (place != std::string::npos) {
        std::string path = pattern;
        return path.replace(place, 2, number);
    }
    if (sources <= 1) {
        return pattern;
    }
    const size_t name = pattern.rfind('/') == std::string::npos ? 0 : pattern.rfind('/') + 1;
    const size_t dot = pattern.rfind('.');
    if (dot == std::string::npos || dot <= name) {
        return pattern + "." + number;
    }
    return pattern.substr(0, dot) + "." + number + pattern.substr(dot);
}

}  // namespace tool
