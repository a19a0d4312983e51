#include "options.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <map>

#include "command_line.h"
#include "temp_dir.h"
#include "words.h"

using namespace tool;

namespace {

using Variables = std::map<std::string, std::string>;

ParseResult Parse(const std::vector<std::string> &arguments, const Variables &variables = {}) {
    std::vector<const char *> argv{"gst-source"};
    for (const std::string &argument : arguments) {
        argv.push_back(argument.c_str());
    }
    return ParseOptions(static_cast<int>(argv.size()), argv.data(), [&variables](const char *name) {
        const auto found = variables.find(name);
        return found == variables.end() ? nullptr : found->second.c_str();
    });
}

Options Good(const std::vector<std::string> &arguments, const Variables &variables = {}) {
    ParseResult result = Parse(arguments, variables);
    EXPECT_TRUE(result.options) << result.err;
    EXPECT_EQ(result.err, "");
    return result.options.value_or(Options());
}

// Every refusal is one line and exit code 2.
std::string Refusal(const std::vector<std::string> &arguments) {
    const ParseResult result = Parse(arguments);
    EXPECT_FALSE(result.options);
    EXPECT_EQ(result.exit_code, 2);
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(std::count(result.err.begin(), result.err.end(), '\n'), 1) << result.err;
    EXPECT_EQ(result.err.rfind("gst-source: ", 0), 0u) << result.err;
    return result.err;
}

testing::AssertionResult Contains(const std::string &text, const std::string &part) {
    if (text.find(part) != std::string::npos) {
        return testing::AssertionSuccess();
    }
    return testing::AssertionFailure() << "\"" << part << "\" is not in: " << text;
}

struct Umask {
    explicit Umask(mode_t mask) : before(umask(mask)) {}
    ~Umask() { umask(before); }
    Umask(const Umask &) = delete;
    Umask &operator=(const Umask &) = delete;
    const mode_t before;
};

std::string Warnings(const std::vector<std::string> &arguments) {
    std::string all;
    for (const std::string &warning : Good(arguments).warnings) {
        all += warning + "\n";
    }
    return all;
}

}  // namespace

TEST(Options, Defaults) {
    const Options options = Good({"udp://127.0.0.1:5000"});
    EXPECT_EQ(options.urls, std::vector<std::string>{"udp://127.0.0.1:5000"});
    EXPECT_EQ(options.common.caching, 200u);
    EXPECT_EQ(options.common.rtsp.protocols, 4u);
    EXPECT_EQ(options.common.rtsp.latency, 2000u);
    EXPECT_EQ(options.common.rtsp.contimeout, 15u);
    EXPECT_EQ(options.common.srt.mode, "caller");
    EXPECT_EQ(options.common.srt.keylen, 0u);
    EXPECT_EQ(options.common.srt.latency, 125u);
    EXPECT_EQ(options.common.srt.tslatency, 50u);
    EXPECT_EQ(options.common.rtmp.contimeout, 10u);
    EXPECT_EQ(options.common.rtmp.idle_timeout, 30u);
    EXPECT_EQ(options.common.udp.ts_latency, 700u);
    EXPECT_EQ(options.common.memory.mode, 0600u);
    EXPECT_FALSE(options.common.memory.group);
    EXPECT_EQ(options.common.udp.mtu, 1492u);
    EXPECT_EQ(options.common.hls.timeout, 15u);
    EXPECT_EQ(options.common.hls.retries, 3);
    EXPECT_EQ(options.common.hls.islive, 0u);
    EXPECT_EQ(options.common.name, "gst-source-" + std::to_string(getpid()));
    EXPECT_FALSE(options.duration);
    EXPECT_EQ(options.frames, 0u);
    EXPECT_TRUE(options.warnings.empty());
}

TEST(Options, EveryFlagReachesItsField) {
    const Umask mask(022);
    const Options options =
        Good(Words("rtsp://h/1 srt://h:1 rtmp://h/a/b udp://h:1 http://h/a.m3u8 --caching 1 --user u --password p --protocols "
                   "tcp,UDP --rtsp-latency 2 --rtsp-contimeout 3 --mode Listener --streamid id --passphrase 0123456789 "
                   "--keylen 32 --srt-latency 4 --tslatency 5 --localaddress 127.0.0.1 --rtmp-contimeout 6 --idle-timeout 7 "
                   "--token t --ts-latency 8 --mtu 9 --hls-timeout 10 --retries -1 --islive 1 --proxy http://p:3128 "
                   "--proxy-id pi --proxy-pwd pp --user-agent ua --name buffer --buffer-mode 0640 --buffer-group 4242 "
                   "--video-bytes 16M --audio-bytes 65536 "
                   "--duration 2.5 --frames 11 --interval 0.5 --json --color never --log log --dump-video v%d --dump-audio "
                   "a%d --close-timeout 12"));
    EXPECT_TRUE(options.warnings.empty()) << options.warnings.front();
    EXPECT_EQ(options.urls.size(), 5u);
    EXPECT_EQ(options.common.caching, 1u);
    EXPECT_EQ(options.common.user, "u");
    EXPECT_EQ(options.common.password, "p");
    EXPECT_EQ(options.common.rtsp.protocols, 5u);
    EXPECT_EQ(options.common.rtsp.latency, 2u);
    EXPECT_EQ(options.common.rtsp.contimeout, 3u);
    EXPECT_EQ(options.common.srt.mode, "listener");
    EXPECT_EQ(options.common.srt.streamid, "id");
    EXPECT_EQ(options.common.srt.passphrase, "0123456789");
    EXPECT_EQ(options.common.srt.keylen, 32u);
    EXPECT_EQ(options.common.srt.latency, 4u);
    EXPECT_EQ(options.common.srt.tslatency, 5u);
    EXPECT_EQ(options.common.srt.localaddress, "127.0.0.1");
    EXPECT_EQ(options.common.rtmp.contimeout, 6u);
    EXPECT_EQ(options.common.rtmp.idle_timeout, 7u);
    EXPECT_EQ(options.common.rtmp.token, "t");
    EXPECT_EQ(options.common.udp.ts_latency, 8u);
    EXPECT_EQ(options.common.udp.mtu, 9u);
    EXPECT_EQ(options.common.hls.timeout, 10u);
    EXPECT_EQ(options.common.hls.retries, -1);
    EXPECT_EQ(options.common.hls.islive, 1u);
    EXPECT_EQ(options.common.hls.proxy, "http://p:3128");
    EXPECT_EQ(options.common.hls.proxy_id, "pi");
    EXPECT_EQ(options.common.hls.proxy_pwd, "pp");
    EXPECT_EQ(options.common.hls.user_agent, "ua");
    EXPECT_EQ(options.common.name, "buffer");
    EXPECT_EQ(options.common.memory.video_bytes, 16u << 20);
    EXPECT_EQ(options.common.memory.mode, 0640u);
    EXPECT_EQ(options.common.memory.group, 4242u);
    EXPECT_EQ(options.common.memory.audio_bytes, 65536u);
    EXPECT_EQ(options.duration, 2.5);
    EXPECT_EQ(options.frames, 11u);
    EXPECT_EQ(options.interval, 0.5);
    EXPECT_TRUE(options.json);
    EXPECT_EQ(options.color, ColorMode::kNever);
    EXPECT_EQ(options.log_file, "log");
    EXPECT_EQ(options.dump_video, "v%d");
    EXPECT_EQ(options.dump_audio, "a%d");
    EXPECT_EQ(options.close_timeout, 12);
}

TEST(Options, TransportsByNameOrMask) {
    const std::pair<const char *, uint32_t> table[] = {{"tcp", 4},
                                                       {"udp", 1},
                                                       {"multicast", 2},
                                                       {"http", 16},
                                                       {"tls", 32},
                                                       {"7", 7},
                                                       {"tcp,tls", 36},
                                                       {"udp,multicast,tcp", 7},
                                                       {"4294967295", UINT32_MAX}};
    for (const auto &[text, mask] : table) {
        EXPECT_EQ(Good({"rtsp://h/", "--protocols", text}).common.rtsp.protocols, mask) << text;
    }
    EXPECT_TRUE(Contains(Refusal({"rtsp://h/", "--protocols", "sctp"}), "sctp"));
    EXPECT_TRUE(Contains(Refusal({"rtsp://h/", "--protocols", ","}), "--protocols"));
    EXPECT_TRUE(Contains(Refusal({"rtsp://h/", "--protocols", "4x"}), "4x"));
}

TEST(Options, NumbersAreUnsigned32Bit) {
    EXPECT_EQ(Good({"udp://h:1", "--mtu", "0"}).common.udp.mtu, 0u);
    EXPECT_EQ(Good({"udp://h:1", "--caching", "4294967295"}).common.caching, UINT32_MAX);
    for (const char *flag : {"--caching", "--rtsp-latency", "--rtsp-contimeout", "--keylen", "--srt-latency", "--tslatency",
                             "--rtmp-contimeout", "--idle-timeout", "--ts-latency", "--mtu", "--hls-timeout", "--islive"}) {
        for (const char *value : {"-1", "4294967296", "1.5", "", "12x", " 1", "+1", "0x10", "99999999999999999999999"}) {
            const std::string error = Refusal({"udp://h:1", flag, value});
            EXPECT_TRUE(Contains(error, flag)) << value;
            EXPECT_TRUE(Contains(error, std::string("\"") + value + "\" is not a whole number from 0 to 4294967295"));
        }
    }
    EXPECT_TRUE(Contains(Refusal({"http://h/", "--retries", "-2"}), "from -1 to 2147483647"));
    EXPECT_TRUE(Contains(Refusal({"udp://h:1", "--frames", "0"}), "--frames"));
}

TEST(Options, OtherValuesAreCheckedToo) {
    for (const char *value : {"0", "-1", "x", "nan", "inf", "1e300", ""}) {
        EXPECT_TRUE(Contains(Refusal({"udp://h:1", "--duration", value}), "is not a number of seconds above 0"));
        EXPECT_TRUE(Contains(Refusal({"udp://h:1", "--interval", value}), "is not a number of seconds above 0"));
        if (std::string(value) != "0") {
            EXPECT_TRUE(Contains(Refusal({"udp://h:1", "--stall-watch", value}), "is not a number of seconds above 0"));
        }
    }
    EXPECT_EQ(Good({"udp://h:1", "--stall-watch", "0"}).common.stall_watch, 0);
    EXPECT_FALSE(Good({"udp://h:1"}).common.stall_watch);
    for (const char *value : {"100000", "32K", "2G", "1T", "M", "-64K", "99999999999999999999G"}) {
        EXPECT_TRUE(Contains(Refusal({"udp://h:1", "--video-bytes", value}), "is not a power of two from 64K to 1G"));
    }
    EXPECT_EQ(Good({"udp://h:1", "--video-bytes", "1G"}).common.memory.video_bytes, 1u << 30);
    EXPECT_TRUE(Contains(Refusal({"srt://h:1", "--mode", "server"}), "is not caller, listener or rendezvous"));
    EXPECT_TRUE(Contains(Refusal({"udp://h:1", "--color", "blue"}), "is not auto, never or always"));
}

TEST(Options, WrongCommandLines) {
    EXPECT_TRUE(Contains(Refusal({}), "no URL and no --config given"));
    EXPECT_TRUE(Contains(Refusal({"ftp://h/x"}), "ftp://h/x: not a stream URL"));
    EXPECT_TRUE(Contains(Refusal({"udp://h:1", "camera"}), "camera: not a stream URL"));
    EXPECT_TRUE(Contains(Refusal({"foo://u:geheim@h/x"}), "foo://u:***@h/x"));
    EXPECT_TRUE(Contains(Refusal({"udp://h:1", "--no-such-flag"}), "--no-such-flag"));
    EXPECT_TRUE(Contains(Refusal({"udp://h:1", "--mtu"}), "--mtu"));
    EXPECT_TRUE(Contains(Refusal({"udp://h:1", "--dump-video", "-", "--dump-audio", "-"}), "only one of"));
    EXPECT_TRUE(Contains(Refusal({"udp://h:1", "udp://h:2", "--dump-video", "-"}), "exactly one source"));
    EXPECT_TRUE(Contains(Refusal({"udp://h:1", "--dump-video", "x", "--dump-audio", "x"}), "the same file"));
    EXPECT_TRUE(Contains(Refusal({"udp://h:1", "--credentials", "/nonexistent/file"}), "/nonexistent/file: "));
}

TEST(Options, SlipsAreGuessed) {
    EXPECT_EQ(Refusal({"udp://h:1", "--durtion", "5"}), "gst-source: unknown option --durtion; did you mean --duration?\n");
    EXPECT_EQ(Refusal({"--jsn"}), "gst-source: unknown option --jsn; did you mean --json?\n");
    EXPECT_EQ(Refusal({"udp://h:1", "--pasword=geheim"}), "gst-source: unknown option --pasword; did you mean --password?\n");
    EXPECT_EQ(Refusal({"udp://h:1", "-json"}), "gst-source: unknown option -json; did you mean --json?\n");
    EXPECT_EQ(Refusal({"udp://h:1", "--no-such-flag"}), "gst-source: unknown option --no-such-flag\n");
    EXPECT_EQ(Refusal({"udp://h:1", "--x"}), "gst-source: unknown option --x\n");
}

TEST(Options, SuggestionsAreCloseByOrNone) {
    const std::vector<std::string> names{"caller", "listener", "rendezvous", "cam1"};
    EXPECT_EQ(Suggestion("Listner", names), "; did you mean listener?");
    EXPECT_EQ(Suggestion("clalre", names), "; did you mean caller?");
    EXPECT_EQ(Suggestion("rend", names), "; did you mean rendezvous?");
    EXPECT_EQ(Suggestion("cam", names), "; did you mean cam1?");
    EXPECT_EQ(Suggestion("cam11", names), "; did you mean cam1?");
    for (const char *text : {"", "-", "xy", "server", "caller", "cab2x"}) {
        EXPECT_EQ(Suggestion(text, names), "") << text;
    }
    EXPECT_EQ(Suggestion("anything", {}), "");
}

TEST(Options, HelpAndVersion) {
    const ParseResult help = Parse({"--help"});
    EXPECT_FALSE(help.options);
    EXPECT_EQ(help.exit_code, 0);
    EXPECT_EQ(help.err, "");
    for (const char *part : {"Usage: gst-source", "RTSP:", "SRT:", "RTMP:", "UDP:", "HLS:", "--mtu BYTES=1492",
                             "--rtsp-latency MS=2000", "GST_SOURCE_PASSWORD", "Exit code"}) {
        EXPECT_TRUE(Contains(help.out, part));
    }
    std::istringstream lines(help.out);
    for (std::string line; std::getline(lines, line);) {
        EXPECT_LE(line.size(), 120u) << line;
    }
    const ParseResult version = Parse({"--version"});
    EXPECT_EQ(version.exit_code, 0);
    EXPECT_EQ(version.out.rfind("gst-source ", 0), 0u) << version.out;
}

TEST(Options, SecretsComeFromFlagThenFileThenEnvironment) {
    const TempDir dir;
    const std::string credentials = dir.Write("credentials", "fileuser:filepassword");
    const std::string passphrase = dir.Write("passphrase", "filepassphrase");
    const std::string token = dir.Write("token", "filetoken");
    const std::string proxy = dir.Write("proxy", "fileproxy");
    const Variables variables{{"GST_SOURCE_USER", "envuser"},
                              {"GST_SOURCE_PASSWORD", "envpassword"},
                              {"GST_SOURCE_PASSPHRASE", "envpassphrase"},
                              {"GST_SOURCE_TOKEN", "envtoken"},
                              {"GST_SOURCE_PROXY_PASSWORD", "envproxy"}};

    Options options = Good({"udp://h:1"}, variables);
    EXPECT_EQ(options.common.user, "envuser");
    EXPECT_EQ(options.common.password, "envpassword");
    EXPECT_EQ(options.common.srt.passphrase, "envpassphrase");
    EXPECT_EQ(options.common.rtmp.token, "envtoken");
    EXPECT_EQ(options.common.hls.proxy_pwd, "envproxy");

    options = Good({"udp://h:1", "--credentials", credentials, "--passphrase-file", passphrase, "--token-file", token,
                    "--proxy-pwd-file", proxy},
                   variables);
    EXPECT_EQ(options.common.user, "fileuser");
    EXPECT_EQ(options.common.password, "filepassword");
    EXPECT_EQ(options.common.srt.passphrase, "filepassphrase");
    EXPECT_EQ(options.common.rtmp.token, "filetoken");
    EXPECT_EQ(options.common.hls.proxy_pwd, "fileproxy");

    options = Good({"udp://h:1", "--user", "flaguser", "--credentials", credentials}, variables);
    EXPECT_EQ(options.common.user, "flaguser");
    EXPECT_EQ(options.common.password, "filepassword");
}

TEST(Options, WarnsOfWhatTheFrameworkRefuses) {
    EXPECT_TRUE(Contains(Warnings({"http://h/", "--hls-timeout", "3601"}), "--hls-timeout above 3600"));
    EXPECT_TRUE(Contains(Warnings({"srt://h:1", "--keylen", "10", "--passphrase", "0123456789"}), "not 0, 16, 24 or 32"));
    EXPECT_TRUE(Contains(Warnings({"srt://h:1", "--passphrase", "0123456789"}), "no effect without --keylen"));
    EXPECT_TRUE(Contains(Warnings({"srt://h:1", "--keylen", "16"}), "no effect without a passphrase"));
    EXPECT_TRUE(Contains(Warnings({"srt://h:1", "--keylen", "16", "--passphrase", "012345678"}), "not 10 to 79 characters"));
    EXPECT_TRUE(Contains(Warnings({"rtsp://h/", "--protocols", "0"}), "--protocols"));
    EXPECT_TRUE(Contains(Warnings({"rtsp://h/", "--protocols", "http"}), "--protocols"));
    EXPECT_TRUE(Contains(Warnings({"rtsp://h/", "--rtsp-contimeout", "4295"}), "wraps around"));
    EXPECT_TRUE(Contains(Warnings({"rtsp://h/", "--user", "u"}), "both user name and password"));
    EXPECT_TRUE(Contains(Warnings({"udp://h:1", "--mtu", "2147483648"}), "--mtu is refused"));
    EXPECT_TRUE(Contains(Warnings({"udp://h"}), "udp://h has no port"));
    EXPECT_TRUE(Contains(Warnings({"http://h/", "--proxy-id", "x", "--proxy-pwd", "y"}), "without --proxy"));
}

TEST(Options, WarnsOfFlagsThatNoSourceUses) {
    EXPECT_EQ(Warnings({"udp://h:1", "--rtsp-latency", "5"}), "--rtsp-latency has no effect: no rtsp source is given\n");
    EXPECT_EQ(Warnings({"rtsp://h/", "--rtsp-latency", "5"}), "");
}

TEST(Options, DumpPaths) {
    EXPECT_EQ(DumpPath("out.h264", 0, 1), "out.h264");
    EXPECT_EQ(DumpPath("out.h264", 1, 2), "out.1.h264");
    EXPECT_EQ(DumpPath("out", 1, 2), "out.1");
    EXPECT_EQ(DumpPath("dir.d/out", 1, 2), "dir.d/out.1");
    EXPECT_EQ(DumpPath("dir/.hidden", 1, 2), "dir/.hidden.1");
    EXPECT_EQ(DumpPath("cam%d.h264", 7, 1), "cam7.h264");
    EXPECT_EQ(DumpPath("cam%d.h264", 7, 9), "cam7.h264");
}

TEST(Options, WhoMayReadTheBuffer) {
    const Umask mask(022);
    for (const auto &[text, mode] : {std::pair("0600", 0600u), std::pair("604", 0604u), std::pair("0644", 0644u)}) {
        EXPECT_EQ(Good({"udp://h:1", "--buffer-mode", text}).common.memory.mode, mode);
    }
    for (const char *text : {"0660", "0700", "0", "06000", "rw", "-600"}) {
        EXPECT_TRUE(Contains(Refusal({"udp://h:1", std::string("--buffer-mode=") + text}), "is not 0600, 0640, 0604 or 0644"))
            << text;
    }
    EXPECT_EQ(Good({"udp://h:1", "--buffer-mode", "0640", "--buffer-group", "root"}).common.memory.group, 0u);
    EXPECT_TRUE(Contains(Refusal({"udp://h:1", "--buffer-group", "no-such-group"}), "there is no group \"no-such-group\""));
    for (const char *number : {"4294967295", "99999999999"}) {
        EXPECT_TRUE(Contains(Refusal({"udp://h:1", "--buffer-group", number}), "is not a whole number from 0 to 4294967294"));
    }
    EXPECT_TRUE(Contains(Warnings({"udp://h:1", "--buffer-group", "root"}), "--buffer-group gives nobody access"));
    EXPECT_EQ(Warnings({"udp://h:1", "--buffer-group", "root", "--buffer-mode", "0640"}), "");
}

TEST(Options, TheUmaskStandsAboveTheBufferMode) {
    const Umask mask(077);
    EXPECT_TRUE(Contains(Warnings({"udp://h:1", "--buffer-mode", "0644"}), "the umask takes permissions off --buffer-mode"));
    EXPECT_EQ(Warnings({"udp://h:1"}), "");
    // It is asked for, and stays.
    EXPECT_EQ(umask(077), 077u);
}
