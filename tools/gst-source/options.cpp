#include "options.h"

#include <grp.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <charconv>
#include <limits>
#include <sstream>
#include <stdexcept>

#include "command_line.h"
#include "container_names.h"
#include "secrets.h"
#include "stream_url.h"

#ifndef TOOL_VERSION
#define TOOL_VERSION "unknown"
#endif

namespace tool {
namespace {

// Bytes, with K, M or G for their binary multiples.
uint64_t ParseTrackSize(const std::string &flag, const std::string &text) {
    uint64_t value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    const std::string unit(end, text.data() + text.size());
    int shift = -1;
    if (unit.empty()) {
        shift = 0;
    } else if (unit == "K") {
        shift = 10;
    } else if (unit == "M") {
        shift = 20;
    } else if (unit == "G") {
        shift = 30;
    }
    constexpr uint64_t kSmallest = 64u << 10;
    constexpr uint64_t kLargest = 1u << 30;
    const bool readable = error == std::errc() && shift >= 0 && value <= kLargest;
    const uint64_t bytes = readable ? value << shift : 0;
    if (bytes < kSmallest || bytes > kLargest || (bytes & (bytes - 1)) != 0) {
        Refuse(flag + ": \"" + text + "\" is not a power of two from 64K to 1G (bytes; K, M and G are binary multiples)");
    }
    return bytes;
}

uint32_t ParseMode(const std::string &flag, const std::string &text) {
    constexpr std::pair<std::string_view, uint32_t> kModes[] = {{"0600", 0600}, {"0640", 0640}, {"0604", 0604}, {"0644", 0644}};
    for (const auto &[name, mode] : kModes) {
        if (text == name || text == name.substr(1)) {
            return mode;
        }
    }
    Refuse(flag + ": \"" + text + "\" is not 0600, 0640, 0604 or 0644: its user writes the buffer, others may only read it");
}

uint32_t ParseGroup(const std::string &flag, const std::string &text) {
    if (const group *known = getgrnam(text.c_str())) {
        return known->gr_gid;
    }
    const bool number = !text.empty() && text.find_first_not_of("0123456789") == std::string::npos;
    if (!number) {
        Refuse(flag + ": there is no group \"" + text + "\"");
    }
    // The largest number means "unchanged" to the system.
    return ParseWhole<uint32_t>(flag, text, 0, std::numeric_limits<uint32_t>::max() - 1);
}

std::string Lower(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(), [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return text;
}

// 0 for an unknown name.
uint32_t TransportBit(const std::string &name) {
    constexpr std::pair<std::string_view, uint32_t> kBits[] = {
        {"udp", 1}, {"multicast", 2}, {"tcp", 4}, {"http", 16}, {"tls", 32}};
    const auto *known =
        std::find_if(std::begin(kBits), std::end(kBits), [&name](const auto &bit) { return bit.first == name; });
    return known == std::end(kBits) ? 0 : known->second;
}

// The mask as a number, or names joined by commas.
uint32_t ParseRtspProtocols(const std::string &flag, const std::string &text) {
    if (!text.empty() && std::isdigit(static_cast<unsigned char>(text.front())) != 0) {
        return ParseWhole<uint32_t>(flag, text, 0, std::numeric_limits<uint32_t>::max());
    }
    uint32_t mask = 0;
    bool known = !text.empty();
    std::istringstream names(Lower(text));
    for (std::string name; std::getline(names, name, ',');) {
        const uint32_t bit = TransportBit(name);
        known = known && bit != 0;
        mask |= bit;
    }
    if (!known || mask == 0) {
        Refuse(flag + ": \"" + text + "\" is neither a number nor a list of udp, multicast, tcp, http and tls");
    }
    return mask;
}

// Secrets by their three ways in; a flag beats a file, a file beats the environment.
struct SecretFlags {
    std::string credentials_file;
    std::string passphrase_file;
    std::string token_file;
    std::string proxy_pwd_file;
};

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
        if (options.user.empty()) {
            options.user = credentials.user;
        }
        if (options.password.empty()) {
            options.password = credentials.password;
        }
    }
    FillFromFile(flags.passphrase_file, options.srt.passphrase, options.warnings);
    FillFromFile(flags.token_file, options.rtmp.token, options.warnings);
    FillFromFile(flags.proxy_pwd_file, options.hls.proxy_pwd, options.warnings);
    FillFromEnvironment(environment, "GST_SOURCE_USER", options.user);
    FillFromEnvironment(environment, "GST_SOURCE_PASSWORD", options.password);
    FillFromEnvironment(environment, "GST_SOURCE_PASSPHRASE", options.srt.passphrase);
    FillFromEnvironment(environment, "GST_SOURCE_TOKEN", options.rtmp.token);
    FillFromEnvironment(environment, "GST_SOURCE_PROXY_PASSWORD", options.hls.proxy_pwd);
}

// The buffer takes 2^31 ms at most.
constexpr double kLongestStallWatch = 2'000'000;

constexpr const char *kUsage =
    "gst-source [FLAGS] URL...\n\n"
    "Each URL is one source and one channel of the shared buffer, counted from 0. Its scheme tells the protocol:\n"
    "udp://  rtsp:// rtsps:// rtspt:// rtspu://  srt://  rtmp:// rtmps://  http:// https:// (HLS)";

class CommandLine {
  public:
    explicit CommandLine(Options &options) : m_options(options) {
        m_app.formatter(MakeHelpFormatter(kUsage));
        m_app.set_version_flag("--version", std::string("gst-source ") + TOOL_VERSION);
        AddGeneral();
        AddOutput();
        AddRtsp();
        AddSrt();
        AddRtmp();
        AddUdp();
        AddHls();
        m_app.footer(
            "Secrets given as flags can be read in the process list by every user of the machine; files and the environment\n"
            "(GST_SOURCE_USER, GST_SOURCE_PASSWORD, GST_SOURCE_PASSPHRASE, GST_SOURCE_TOKEN, GST_SOURCE_PROXY_PASSWORD)\n"
            "cannot. A flag beats a file, a file beats the environment. Secrets are shown as *** in the log.\n"
            "\n"
            "With an rtmps:// URL the run is without TLS 1.3, whose session tickets librtmp takes for an error, unless\n"
            "GNUTLS_SYSTEM_PRIORITY_FILE is set.\n"
            "\n"
            "Ctrl-C (or SIGTERM) closes every source and prints the summary; a second one while they close leaves at once.\n"
            "Exit code: 0 every source has delivered; 1 one has not, or something failed, with one line that says what;\n"
            "2 the command line is wrong and nothing was opened; 130 or 143 left by a second Ctrl-C or SIGTERM.");
    }

    void Parse(int argc, const char *const *argv) { m_app.parse(argc, argv); }
    const CLI::App &App() const { return m_app; }

    const SecretFlags &Secrets() const { return m_secrets; }

    // Flags of protocols that no URL asks for are a slip that would otherwise go unnoticed.
    void WarnOfIdleFlags() {
        for (const auto &[protocol, flag] : m_protocolFlags) {
            const bool used = std::any_of(m_options.urls.begin(), m_options.urls.end(),
                                          [p = protocol](const std::string &url) { return ProtocolOf(url) == p; });
            if (flag->count() > 0 && !used) {
                m_options.warnings.push_back(flag->get_name() + " has no effect: no " + ProtocolName(protocol) +
                                             " source is given");
            }
        }
    }

  private:
    CLI::Option *Text(const std::string &flag, std::string &target, const std::string &type, const std::string &help) {
        return m_app.add_option(flag, target, help)->type_name(type)->group(m_group);
    }

    CLI::Option *Whole(const std::string &flag, uint32_t &target, const std::string &unit, const std::string &help) {
        return m_app
            .add_option_function<std::string>(
                flag,
                [flag, &target](const std::string &text) {
                    target = ParseWhole<uint32_t>(flag, text, 0, std::numeric_limits<uint32_t>::max());
                },
                help)
            ->type_name(unit)
            ->default_str(std::to_string(target))
            ->group(m_group);
    }

    void Of(Protocol protocol, std::initializer_list<CLI::Option *> flags) {
        for (CLI::Option *flag : flags) {
            m_protocolFlags.emplace_back(protocol, flag);
        }
    }

    void AddGeneral() {
        m_group = "Sources";
        m_app.add_option("URL", m_options.urls)->required()->group("");
        Whole("--caching", m_options.caching, "MS", "0 sets the demultiplexer latency of UDP, SRT and HLS to 0");
        Text("--user", m_options.user, "NAME", "user name for RTSP, RTMP and HLS, for every source");
        Text("--password", m_options.password, "TEXT", "password to it");
        Text("--credentials", m_secrets.credentials_file, "FILE", "both from a file: user:password, or two lines");
        m_app
            .add_option_function<std::string>(
                "--duration", [this](const std::string &text) { m_options.duration = ParseSeconds("--duration", text); },
                "end after this time")
            ->type_name("SECONDS")
            ->group(m_group);
        m_app
            .add_option_function<std::string>(
                "--frames",
                [this](const std::string &text) {
                    m_options.frames = ParseWhole<uint64_t>("--frames", text, 1, std::numeric_limits<uint64_t>::max());
                },
                "end once every source has delivered N access units of video (audio frames when it has no video); together "
                "with "
                "--duration, running out of time is a failure")
            ->type_name("N")
            ->group(m_group);
        Seconds("--close-timeout", m_options.close_timeout, "how long sources may take to close before the tool leaves anyway");

        m_group = "Shared buffer";
        Text("--name", m_options.name, "NAME", "name of the buffer; default gst-source-PID");
        TrackSize("--video-bytes", m_options.video_bytes, "8M", "payload of each video track, a power of two");
        TrackSize("--audio-bytes", m_options.audio_bytes, "512K", "payload of each audio track, a power of two");
        m_app
            .add_option_function<std::string>(
                "--buffer-mode", [this](const std::string &text) { m_options.buffer_mode = ParseMode("--buffer-mode", text); },
                "who may read the buffer: 0600 this user, 0640 also the group, 0604 also all others, 0644 everybody; the umask "
                "is taken off")
            ->type_name("MODE")
            ->default_str("0600")
            ->group(m_group);
        m_app
            .add_option_function<std::string>(
                "--buffer-group",
                [this](const std::string &text) { m_options.buffer_group = ParseGroup("--buffer-group", text); },
                "group of the buffer, by name or number, for --buffer-mode 0640; this user must be in it")
            ->type_name("GROUP")
            ->group(m_group);
        m_app
            .add_option_function<std::string>(
                "--stall-watch",
                [this](const std::string &text) {
                    m_options.stall_watch = ParseSeconds("--stall-watch", text, kLongestStallWatch);
                },
                "connect again when a track that has carried data gets none for this time; off unless given")
            ->type_name("SECONDS")
            ->group(m_group);
    }

    void AddOutput() {
        m_group = "Output";
        Text("--dump-video", m_options.dump_video, "FILE",
             "write the video elementary stream as it comes out of the buffer; with several sources %d in the name is the "
             "channel, "
             "else the channel is put before the extension; - is standard output (one source, one dump, no table)");
        Text("--dump-audio", m_options.dump_audio, "FILE",
             "the same for audio (AAC in ADTS; Opus and PCM frames without framing)");
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
        Text("--log", m_options.log_file, "FILE",
             "append the library's log to FILE; without it the log goes to standard error, or, when the live table is there, "
             "its "
             "last lines stand under the table");
    }

    void AddRtsp() {
        m_group = "RTSP";
        auto *protocols =
            m_app
                .add_option_function<std::string>(
                    "--protocols",
                    [this](const std::string &text) { m_options.rtsp.protocols = ParseRtspProtocols("--protocols", text); },
                    "transports that may be used: tcp, udp, multicast, http, tls joined by commas, or their mask")
                ->type_name("LIST")
                ->default_str("tcp (4)")
                ->group(m_group);
        Of(Protocol::kRtsp,
           {protocols, Whole("--rtsp-latency", m_options.rtsp.latency, "MS", "jitter-buffer latency"),
            Whole("--rtsp-contimeout", m_options.rtsp.contimeout, "SECONDS", "to wait for the server over TCP")});
    }

    void AddSrt() {
        m_group = "SRT";
        auto *mode = m_app
                         .add_option_function<std::string>(
                             "--mode",
                             [this](const std::string &text) {
                                 m_options.srt.mode = Lower(text);
                                 if (m_options.srt.mode != "caller" && m_options.srt.mode != "listener" &&
                                     m_options.srt.mode != "rendezvous") {
                                     Refuse("--mode: \"" + text + "\" is not caller, listener or rendezvous");
                                 }
                             },
                             "caller, listener (of srt://:PORT) or rendezvous")
                         ->type_name("MODE")
                         ->default_str(m_options.srt.mode)
                         ->group(m_group);
        Of(Protocol::kSrt,
           {mode, Text("--streamid", m_options.srt.streamid, "ID", "shown to the peer; a listener admits only callers with it"),
            Text("--passphrase", m_options.srt.passphrase, "TEXT", "10 to 79 characters, together with --keylen"),
            Text("--passphrase-file", m_secrets.passphrase_file, "FILE", "the same from the first line of a file"),
            Whole("--keylen", m_options.srt.keylen, "BYTES", "length of the encryption key: 16, 24, 32, or 0 for none"),
            Whole("--srt-latency", m_options.srt.latency, "MS", "SRT latency"),
            Whole("--tslatency", m_options.srt.tslatency, "MS", "logged only: the demultiplexer stays at 50 ms"),
            Text("--localaddress", m_options.srt.localaddress, "ADDRESS", "local address to bind")});
    }

    void AddRtmp() {
        m_group = "RTMP";
        Of(Protocol::kRtmp, {Whole("--rtmp-contimeout", m_options.rtmp.contimeout, "SECONDS", "to wait for the server"),
                             Whole("--idle-timeout", m_options.rtmp.idle_timeout, "SECONDS",
                                   "without data before an RTMP session ends, 0 never"),
                             Text("--token", m_options.rtmp.token, "TEXT", "secure token"),
                             Text("--token-file", m_secrets.token_file, "FILE", "the same from the first line of a file")});
    }

    void AddUdp() {
        m_group = "UDP";
        Of(Protocol::kUdp, {Whole("--ts-latency", m_options.udp.ts_latency, "MS", "demultiplexer latency"),
                            Whole("--mtu", m_options.udp.mtu, "BYTES", "largest expected datagram")});
    }

    void AddHls() {
        m_group = "HLS";
        auto *retries = m_app
                            .add_option_function<std::string>(
                                "--retries",
                                [this](const std::string &text) {
                                    m_options.hls.retries =
                                        ParseWhole<int32_t>("--retries", text, -1, std::numeric_limits<int32_t>::max());
                                },
                                "attempts of a failed request, -1 for no end")
                            ->type_name("N")
                            ->default_str(std::to_string(m_options.hls.retries))
                            ->group(m_group);
        Of(Protocol::kHls,
           {Whole("--hls-timeout", m_options.hls.timeout, "SECONDS", "until a silent HTTP request is given up, at most 3600"),
            retries, Whole("--islive", m_options.hls.islive, "0|1", "1: the HTTP source behaves as a live source"),
            Text("--proxy", m_options.hls.proxy, "URL", "HTTP proxy"),
            Text("--proxy-id", m_options.hls.proxy_id, "NAME", "user name for the proxy"),
            Text("--proxy-pwd", m_options.hls.proxy_pwd, "TEXT", "password to it"),
            Text("--proxy-pwd-file", m_secrets.proxy_pwd_file, "FILE", "the same from the first line of a file"),
            Text("--user-agent", m_options.hls.user_agent, "TEXT", "HTTP user agent")});
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

    void TrackSize(const std::string &flag, uint64_t &target, const std::string &shown, const std::string &help) {
        m_app
            .add_option_function<std::string>(
                flag, [flag, &target](const std::string &text) { target = ParseTrackSize(flag, text); }, help)
            ->type_name("BYTES")
            ->default_str(shown)
            ->group(m_group);
    }

    CLI::App m_app{"Keeps live streams coming and shows what arrives of them in the shared buffer.", "gst-source"};
    Options &m_options;
    SecretFlags m_secrets;
    std::string m_group;
    std::vector<std::pair<Protocol, CLI::Option *>> m_protocolFlags;
};

void CheckUrls(const Options &options) {
    for (const std::string &url : options.urls) {
        if (!ProtocolOf(url)) {
            Refuse(PublicUrl(url) +
                   ": not a stream URL; known are udp, rtsp, rtsps, rtspt, rtspu, srt, rtmp, rtmps, http and https");
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
                   "; beside a running host: gst-source-read record " + (options.name.empty() ? "NAME" : options.name) + " " +
                   *file);
        }
    }
    if (!options.dump_video.empty() && options.dump_video == options.dump_audio) {
        Refuse("--dump-video and --dump-audio name the same file");
    }
}

bool Uses(const Options &options, Protocol protocol) {
    return std::any_of(options.urls.begin(), options.urls.end(),
                       [protocol](const std::string &url) { return ProtocolOf(url) == protocol; });
}

// Values that the framework refuses with a warning in its own words, or
// that have no effect, once the stream is opened.
void WarnOfValues(Options &options) {
    const auto warn = [&options](bool when, const std::string &text) {
        if (when) {
            options.warnings.push_back(text);
        }
    };
    warn(options.buffer_group && (options.buffer_mode & S_IRGRP) == 0,
         "--buffer-group gives nobody access without --buffer-mode 0640 or 0644");
    const mode_t mask = umask(S_IRWXG | S_IRWXO);
    umask(mask);
    warn((options.buffer_mode & mask) != 0, "the umask takes permissions off --buffer-mode");
    constexpr uint32_t kLargestInt = 0x7fffffff;
    for (const std::string &url : options.urls) {
        warn(ProtocolOf(url) == Protocol::kUdp && !HasPort(url), PublicUrl(url) + " has no port; the framework takes 5004");
    }
    if (Uses(options, Protocol::kUdp)) {
        warn(options.udp.mtu > kLargestInt, "--mtu is refused by the framework, which stays at its default");
        warn(options.udp.ts_latency > kLargestInt, "--ts-latency is refused by the framework, which stays at its default");
    }
    if (Uses(options, Protocol::kRtsp)) {
        warn(options.rtsp.protocols == 0 || options.rtsp.protocols == 16, "--protocols: RTSP cannot be played with this alone");
        constexpr uint32_t kWraps = 4295;
        warn(options.rtsp.contimeout >= kWraps, "--rtsp-contimeout of 4295 s and more wraps around to a short time");
    }
    if (Uses(options, Protocol::kSrt)) {
        const uint32_t keylen = options.srt.keylen;
        const size_t length = options.srt.passphrase.size();
        warn(keylen != 0 && keylen != 16 && keylen != 24 && keylen != 32,
             "--keylen is refused by the framework: not 0, 16, 24 or 32");
        warn(length > 0 && keylen == 0, "the passphrase has no effect without --keylen: the stream is not encrypted");
        warn(length == 0 && keylen != 0, "--keylen has no effect without a passphrase: the stream is not encrypted");
        constexpr size_t kShortest = 10;
        constexpr size_t kLongest = 79;
        warn(length > 0 && (length < kShortest || length > kLongest),
             "the passphrase is refused by SRT: not 10 to 79 characters");
        warn(options.srt.latency > kLargestInt, "--srt-latency is refused by the framework, which stays at its default");
    }
    if (Uses(options, Protocol::kHls)) {
        constexpr uint32_t kLongest = 3600;
        warn(options.hls.timeout > kLongest,
             "--hls-timeout above 3600 s is refused by the framework, which stays at its default");
        warn(options.hls.proxy.empty() && (!options.hls.proxy_id.empty() || !options.hls.proxy_pwd.empty()),
             "proxy credentials have no effect without --proxy");
        warn(!options.hls.proxy.empty() && options.hls.proxy_id.empty() != options.hls.proxy_pwd.empty(),
             "proxy credentials have no effect: both user name and password are needed");
    }
    if (Uses(options, Protocol::kRtsp) || Uses(options, Protocol::kRtmp)) {
        warn(options.user.empty() != options.password.empty(),
             "credentials have no effect for RTSP and RTMP: both user name and password are needed");
    }
}

}  // namespace

ParseResult ParseOptions(int argc, const char *const *argv, const Environment &environment) {
    ParseResult result;
    Options options;
    CommandLine command_line(options);
    const auto parse = [&] {
        try {
            command_line.Parse(argc, argv);
        } catch (const CLI::RequiredError &) {
            Refuse("no URL given; gst-source --help tells more");
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
    if (options.name.empty()) {
        options.name = "gst-source-" + std::to_string(getpid());
    }
    result.options = std::move(options);
    return result;
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
