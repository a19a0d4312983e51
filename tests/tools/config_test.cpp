// Files of sources: what they say, and what is wrong with them.
#include "config_file.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <map>
#include <ostream>

#include "capacity.h"
#include "source_fields.h"
#include "temp_dir.h"

using namespace tool;

namespace {

using Variables = std::map<std::string, std::string>;

Environment From(const Variables &variables) {
    return [&variables](const char *name) {
        const auto found = variables.find(name);
        return found == variables.end() ? nullptr : found->second.c_str();
    };
}

ConfigFile Parse(const std::string &text, const Variables &variables = {}) {
    return ParseConfig(text, "f", From(variables));
}

// The one source of a file that must be good.
SourceConfig One(const std::string &text, const Variables &variables = {}) {
    const ConfigFile file = Parse(text, variables);
    EXPECT_TRUE(file.Good()) << file.Report();
    EXPECT_EQ(file.sources.size(), 1u);
    return file.sources.empty() ? SourceConfig() : file.sources.front();
}

std::string Source(const std::string &url, const std::string &more = "") {
    return "[[source]]\nname = \"a\"\nurl = \"" + url + "\"\n" + more;
}

}  // namespace

TEST(ConfigFile, EveryOptionUnderTheNameOfItsArgument) {
    const SourceConfig rtsp = One(Source("rtsp://h/x", R"(
caching = 1
user = "u"
pwd = "p"
protocols = ["tcp", "udp"]
latency = 2
contimeout = 3
stall_watch = 4.5
video_bytes = "16M"
audio_bytes = 65536
buffer_mode = 0o640
buffer_group = 4242
)"));
    EXPECT_EQ(rtsp.name, "a");
    EXPECT_EQ(rtsp.url, "rtsp://h/x");
    EXPECT_EQ(rtsp.caching, 1u);
    EXPECT_EQ(rtsp.user, "u");
    EXPECT_EQ(rtsp.password, "p");
    EXPECT_EQ(rtsp.rtsp.protocols, 5u);
    EXPECT_EQ(rtsp.rtsp.latency, 2u);
    EXPECT_EQ(rtsp.rtsp.contimeout, 3u);
    EXPECT_EQ(rtsp.stall_watch, 4.5);
    EXPECT_EQ(rtsp.memory.video_bytes, 16u << 20);
    EXPECT_EQ(rtsp.memory.audio_bytes, 65536u);
    EXPECT_EQ(rtsp.memory.mode, 0640u);
    EXPECT_EQ(rtsp.memory.group, 4242u);

    const SourceConfig srt = One(Source("srt://h:1", R"(
mode = "Listener"
streamid = "id"
passphrase = "0123456789"
keylen = 32
latency = 4
tslatency = 5
localaddress = "127.0.0.1"
)"));
    EXPECT_EQ(srt.srt.mode, "listener");
    EXPECT_EQ(srt.srt.streamid, "id");
    EXPECT_EQ(srt.srt.passphrase, "0123456789");
    EXPECT_EQ(srt.srt.keylen, 32u);
    EXPECT_EQ(srt.srt.latency, 4u);
    EXPECT_EQ(srt.srt.tslatency, 5u);
    EXPECT_EQ(srt.srt.localaddress, "127.0.0.1");

    const SourceConfig rtmp = One(Source("rtmp://h/a/b", "contimeout = 6\nidle_timeout = 7\ntoken = \"t\"\n"));
    EXPECT_EQ(rtmp.rtmp.contimeout, 6u);
    EXPECT_EQ(rtmp.rtmp.idle_timeout, 7u);
    EXPECT_EQ(rtmp.rtmp.token, "t");

    const SourceConfig udp = One(Source("udp://@:5000", "ts_latency = 8\nmtu = 9\n"));
    EXPECT_EQ(udp.url, "udp://0.0.0.0:5000");
    EXPECT_EQ(udp.udp.ts_latency, 8u);
    EXPECT_EQ(udp.udp.mtu, 9u);

    const SourceConfig hls = One(Source("http://h/a.m3u8", R"(
timeout = 10
retries = -1
islive = true
proxy = "http://p:3128"
proxy_id = "pi"
proxy_pwd = "pp"
user_agent = "ua"
user_id = "u"
user_pw = "p"
)"));
    EXPECT_EQ(hls.hls.timeout, 10u);
    EXPECT_EQ(hls.hls.retries, -1);
    EXPECT_EQ(hls.hls.islive, 1u);
    EXPECT_EQ(hls.hls.proxy, "http://p:3128");
    EXPECT_EQ(hls.hls.proxy_id, "pi");
    EXPECT_EQ(hls.hls.proxy_pwd, "pp");
    EXPECT_EQ(hls.hls.user_agent, "ua");
    EXPECT_EQ(hls.user, "u");
    EXPECT_EQ(hls.password, "p");
}

TEST(ConfigFile, DefaultsOfAllAndOfAProtocol) {
    const ConfigFile file = Parse(R"(
[defaults]
caching = 5
video_bytes = "1M"
user = "everybody"
password = "${PW}"
[defaults.rtsp]
latency = 100
user = "cameras"
[defaults.udp]
mtu = 1400
[[source]]
name = "one"
url = "rtsp://h/1"
[[source]]
name = "two"
url = "rtsp://h/2"
latency = 200
user = "me"
[[source]]
name = "three"
url = "udp://127.0.0.1:5000"
caching = 6
)",
                                  {{"PW", "geheim"}});
    ASSERT_TRUE(file.Good()) << file.Report();
    ASSERT_EQ(file.sources.size(), 3u);
    EXPECT_EQ(file.sources[0].rtsp.latency, 100u);
    EXPECT_EQ(file.sources[0].user, "cameras");
    EXPECT_EQ(file.sources[0].password, "geheim");
    EXPECT_EQ(file.sources[1].rtsp.latency, 200u);
    EXPECT_EQ(file.sources[1].user, "me");
    EXPECT_EQ(file.sources[2].udp.mtu, 1400u);
    EXPECT_EQ(file.sources[2].caching, 6u);
    EXPECT_EQ(file.sources[2].user, "") << "UDP takes no credentials";
    for (const SourceConfig &source : file.sources) {
        EXPECT_EQ(source.memory.video_bytes, 1u << 20);
    }
}

TEST(ConfigFile, SecretsFromEnvironmentAndFiles) {
    const TempDir dir;
    dir.Write("password", "from a file\n");
    dir.Write("both", "u2:p2");
    dir.Write("token", "bearer");
    const Variables variables{{"HOST", "camera.example"}, {"PW", "pw from outside"}, {"LATENCY", "70"}};
    const std::string text =
        "[service]\nhttp = \"127.0.0.1:0\"\nhttp_token_file = \"token\"\n"
        "[[source]]\nname = \"a\"\nurl = \"rtsp://${HOST}/$${x}\"\nuser = \"u\"\npassword = \"${PW}!\"\nlatency = "
        "\"${LATENCY}\"\n"
        "[[source]]\nname = \"b\"\nurl = \"rtsp://h/b\"\nuser = \"u\"\npassword_file = \"password\"\n"
        "[[source]]\nname = \"c\"\nurl = \"rtsp://h/c\"\ncredentials_file = \"both\"\n";
    const ConfigFile file = ParseConfig(text, dir.Write("file.toml", text), From(variables));
    ASSERT_TRUE(file.Good()) << file.Report();
    ASSERT_EQ(file.sources.size(), 3u);
    EXPECT_EQ(file.service.http, "127.0.0.1:0");
    EXPECT_EQ(file.service.http_token, "bearer");
    EXPECT_EQ(file.sources[0].url, "rtsp://camera.example/${x}");
    EXPECT_EQ(file.sources[0].password, "pw from outside!");
    EXPECT_EQ(file.sources[0].rtsp.latency, 70u);
    EXPECT_EQ(file.sources[1].password, "from a file");
    EXPECT_EQ(file.sources[2].user, "u2");
    EXPECT_EQ(file.sources[2].password, "p2");
}

TEST(ConfigFile, WarnsOfASecretThatOthersCanRead) {
    const TempDir dir;
    const std::string text = Source("rtsp://h/x", "user = \"u\"\npassword = \"p\"\n");
    const std::string path = dir.Write("file.toml", text);
    const auto report = [&](mode_t mode) {
        EXPECT_EQ(chmod(path.c_str(), mode), 0);
        const ConfigFile file = ReadConfigFile(path, From({}));
        EXPECT_TRUE(file.Good());
        return file.Report();
    };
    EXPECT_NE(report(0644).find(": warning: holds a secret and can be read by others"), std::string::npos);
    EXPECT_EQ(report(0600), "");
}

struct WrongFile {
    const char *name;
    std::string text;
    std::vector<std::string> lines;  // of the report, each the beginning of one
};

// GoogleTest would print its bytes, which nobody has set between the members.
void PrintTo(const WrongFile &file, std::ostream *out) {
    *out << file.name;
}

class WrongFiles : public testing::TestWithParam<WrongFile> {};

TEST_P(WrongFiles, AreReportedWithTheirPlaces) {
    const ConfigFile file = Parse(GetParam().text);
    EXPECT_FALSE(file.Good());
    std::istringstream report(file.Report());
    std::vector<std::string> lines;
    for (std::string line; std::getline(report, line);) {
        lines.push_back(line);
    }
    ASSERT_EQ(lines.size(), GetParam().lines.size()) << file.Report();
    for (size_t i = 0; i < lines.size(); ++i) {
        EXPECT_EQ(lines[i].substr(0, GetParam().lines[i].size()), GetParam().lines[i]);
    }
}

const std::string kUdp = "[[source]]\nname = \"a\"\nurl = \"udp://127.0.0.1:5000\"\n";

INSTANTIATE_TEST_SUITE_P(
    All, WrongFiles,
    testing::Values(
        WrongFile{"empty", "", {"f: no source: each begins with [[source]] and has a name and a url"}},
        WrongFile{"syntax", kUdp + "mtu = = 3\n", {"f:4:7: "}},
        WrongFile{"unclosed_text", "[[source]]\nname = \"a\nurl = \"udp://h:1\"\n", {"f:2:"}},
        WrongFile{"key_twice", kUdp + "mtu = 1\nmtu = 2\n", {"f:5:7: "}},
        WrongFile{"not_toml", "rtsp://camera/1\n", {"f:1:5: "}},
        WrongFile{"unknown_table",
                  "[sources]\n" + kUdp,
                  {"f:1:2: unknown table or key \"sources\"; did you mean source?; there are"}},
        WrongFile{"one_bracket",
                  "[source]\nname = \"a\"\nurl = \"udp://h:1\"\n",
                  {"f: no source: each begins with [[source]]", "f:1:2: a source begins with [[source]], in two brackets"}},
        WrongFile{"service_no_table", "service = 3\n" + kUdp, {"f:1:1: service is a table: [service]"}},
        WrongFile{"unknown_service",
                  "[service]\nhtp = \"x\"\n" + kUdp,
                  {"f:2:1: unknown option \"htp\" of [service]; did you mean http"}},
        WrongFile{
            "log_level", "[service]\nlog_level = \"loud\"\n" + kUdp, {"f:2:13: log_level: \"loud\" is not error, warning"}},
        WrongFile{"close_timeout",
                  "[service]\nclose_timeout = -1\n" + kUdp,
                  {"f:2:17: close_timeout: \"-1\" is not a number of seconds"}},
        WrongFile{"unknown_default",
                  "[defaults]\nlatency = 3\n" + kUdp,
                  {"f:2:1: unknown option \"latency\" of [defaults]; known are"}},
        WrongFile{"default_of_protocol",
                  "[defaults.udp]\nlatency = 3\n" + kUdp,
                  {"f:2:1: latency is no option of udp; it has caching, "}},
        WrongFile{"default_value", "[defaults.udp]\nmtu = 1.5\n" + kUdp, {"f:2:7: mtu takes a whole number, not a number"}},
        WrongFile{"no_name", "[[source]]\nurl = \"udp://h:1\"\n", {"f:1:1: a source without a name"}},
        WrongFile{"no_url", "[[source]]\nname = \"a\"\n", {"f:1:1: a source without a url"}},
        WrongFile{
            "bad_name", "[[source]]\nname = \"front door\"\nurl = \"udp://h:1\"\n", {"f:2:8: \"front door\" cannot be a name"}},
        WrongFile{
            "long_name", "[[source]]\nname = \"" + std::string(201, 'x') + "\"\nurl = \"udp://h:1\"\n", {"f:2:8: \"xxxxxxxx"}},
        WrongFile{
            "name_number", "[[source]]\nname = 5\nurl = \"udp://h:1\"\n", {"f:2:8: name takes a text, not a whole number"}},
        WrongFile{
            "bad_scheme", "[[source]]\nname = \"a\"\nurl = \"ftp://h/1\"\n", {"f:3:7: ftp://h/1: not a stream URL; known are"}},
        WrongFile{
            "bad_port", "[[source]]\nname = \"a\"\nurl = \"udp://127.0.0.1:99999\"\n", {"f:3:7: \"99999\" is not a port"}},
        WrongFile{"secret_in_message",
                  "[[source]]\nname = \"a\"\nurl = \"foo://u:geheim@h/1\"\n",
                  {"f:3:7: foo://u:***@h/1: not a stream"}},
        WrongFile{"name_twice",
                  kUdp + "[[source]]\nname = \"a\"\nurl = \"udp://127.0.0.1:5001\"\n",
                  {"f:5:8: the name \"a\" is that of the source of line 2"}},
        WrongFile{"url_twice",
                  kUdp + "[[source]]\nname = \"b\"\nurl = \"udp://127.0.0.1:5000\"\n",
                  {"f:6:7: the same stream as the source of line 3"}},
        WrongFile{"wildcard_of_the_same_port",
                  kUdp + "[[source]]\nname = \"b\"\nurl = \"udp://@:5000\"\n",
                  {"f:6:7: the same stream as the source of line 3"}},
        WrongFile{
            "unknown_option", kUdp + "mtuu = 3\n", {"f:4:1: unknown option \"mtuu\" of a source of udp; did you mean mtu"}},
        WrongFile{"option_of_another_protocol", kUdp + "contimeout = 3\n", {"f:4:1: contimeout is no option of udp; it has"}},
        WrongFile{"text_for_number", kUdp + "mtu = \"big\"\n", {"f:4:7: mtu takes a whole number, not a text"}},
        WrongFile{
            "number_too_large", kUdp + "mtu = 4294967296\n", {"f:4:7: mtu: \"4294967296\" is not a whole number from 0 to"}},
        WrongFile{"negative", kUdp + "ts_latency = -1\n", {"f:4:14: ts_latency: \"-1\" is not a whole number"}},
        WrongFile{"table_for_text", kUdp + "video_bytes = { a = 1 }\n", {"f:4:15: video_bytes takes a text, not a table"}},
        WrongFile{"odd_size", kUdp + "video_bytes = 100000\n", {"f:4:15: video_bytes: \"100000\" is not a power of two"}},
        WrongFile{"no_variable",
                  Source("rtsp://h/x", "user = \"u\"\npassword = \"${NOT_SET}\"\n"),
                  {"f:5:12: the environment has no variable NOT_SET"}},
        WrongFile{"open_variable", Source("rtsp://h/x", "user = \"${\"\n"), {"f:4:8: \"${\" without the name"}},
        WrongFile{"secret_as_number",
                  Source("rtsp://h/x", "user = \"u\"\npassword = 123456789012345678901234\n"),
                  {"f:5:36: Error while parsing decimal integer: '***' is not representable"}},
        WrongFile{"secret_as_table",
                  Source("rtsp://h/x", "password = { geheim = 1, geheim = 2 }\n"),
                  {"f:4:35: Error while parsing key-value pair: cannot redefine existing integer '***'"}},
        WrongFile{
            "secret_as_list", Source("rtsp://h/x", "password = [\"geheim\"]\n"), {"f:4:12: password takes a text, not a list"}},
        WrongFile{"secret_with_a_variable",
                  Source("rtsp://h/x", "password = \"a${ge heim}\"\n"),
                  {"f:4:12: \"${\" without the name of a variable and \"}\""}},
        WrongFile{"secret_as_key",
                  "\"rtsp://u:geheim@h/\" = 1\n" + kUdp,
                  {"f:1:1: unknown table or key \"rtsp://u:***@h/\"; there are"}},
        WrongFile{"secret_as_option",
                  kUdp + "\"rtsp://u:geheim@h/\" = 1\n",
                  {"f:4:1: unknown option \"rtsp://u:***@h/\" of a source of udp"}},
        WrongFile{
            "secret_with_two_signs", Source("rtsp://u:ge@he:im/x@h/y"), {"f:3:7: a password has %2F, %3F and %23 in place of"}},
        WrongFile{"http_address", "[service]\nhttp = \"here\"\n" + kUdp, {"f:2:8: \"here\" is no address to listen on"}},
        WrongFile{"http_port", "[service]\nhttp = \"127.0.0.1:99999\"\n" + kUdp, {"f:2:8: \"127.0.0.1:99999\": the port is"}},
        WrongFile{"no_utf8", kUdp + "# \xff\xfe\n", {"f:4:2: Encountered invalid utf-8 sequence"}},
        WrongFile{"no_secret_file",
                  Source("rtsp://h/x", "user = \"u\"\npassword_file = \"nowhere\"\n"),
                  {"f:5:17: nowhere: No such file"}},
        WrongFile{"file_of_no_secret", kUdp + "mtu_file = \"x\"\n", {"f:4:1: unknown option \"mtu_file\" of a source of udp"}},
        WrongFile{"several_at_once",
                  "[service]\nhttp = 1\n[[source]]\nname = \"a\"\nurl = \"rtsp://h/x\"\nlatency = true\ncontimeout = []\n"
                  "[[source]]\nname = \"\"\nurl = 7\n",
                  {"f:2:8: http takes a text", "f:6:11: latency takes a whole number, not true or false",
                   "f:7:14: contimeout takes a whole number, not a list", "f:9:8: \"\" cannot be a name",
                   "f:10:7: url takes a text"}}),
    [](const auto &one) { return std::string(one.param.name); });

TEST(ConfigFile, FilesThatCannotBeRead) {
    const TempDir dir;
    EXPECT_EQ(ReadConfigFile("/nowhere/at all", From({})).Report(), "/nowhere/at all: No such file or directory\n");
    const std::string directory = dir.File("");
    EXPECT_NE(ReadConfigFile(directory, From({})).Report().find("Is a directory"), std::string::npos);
    // A pipe would be waited for, and with it all sources of a run that reads its file again.
    const std::string pipe = dir.File("pipe");
    ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
    EXPECT_EQ(ReadConfigFile(pipe, From({})).Report(), pipe + ": is no regular file\n");
    const std::string text = Source("rtsp://h/x", "user = \"u\"\npassword_file = \"pipe\"\n");
    EXPECT_EQ(ParseConfig(text, dir.File("f"), From({})).Report(),
              dir.File("f") + ":5:17: " + pipe + ": is a pipe, not a file\n");
    const std::string endless = Source("rtsp://h/x", "user = \"u\"\npassword_file = \"/dev/zero\"\n");
    EXPECT_EQ(Parse(endless).Report(), "f:5:17: /dev/zero: is larger than any secret\n");
    const std::string large = dir.Write("large", "# " + std::string(17u << 20, 'x'));
    EXPECT_EQ(ReadConfigFile(large, From({})).Report(), large + ": is larger than 16 MB, which no file of sources is\n");
}

TEST(ConfigFile, EndsOfLinesAndMarksOfOtherEditors) {
    std::string text = "\xef\xbb\xbf" + Source("udp://127.0.0.1:5000", "mtu = 1400\n");
    for (size_t at = text.find('\n'); at != std::string::npos; at = text.find('\n', at + 2)) {
        text.insert(at, "\r");
    }
    EXPECT_EQ(One(text).udp.mtu, 1400u);
}

TEST(ConfigFile, AnAddressForOthersWantsAToken) {
    const std::string text = "[service]\nhttp = \"0.0.0.0:9090\"\n";
    const std::string source = Source("udp://127.0.0.1:5000");
    const ConfigFile file = Parse(text + source);
    EXPECT_TRUE(file.Good());
    EXPECT_EQ(file.Report(),
              "f:2:8: warning: other machines reach 0.0.0.0:9090, so a token is needed: http_token or http_token_file\n");
    EXPECT_EQ(Parse(text + "http_token = \"${T}\"\n" + source, {{"T", "geheim"}}).Report(), "");
    EXPECT_EQ(Parse(text + source, {{"GST_SOURCE_HTTP_TOKEN", "geheim"}}).Report(), "");
}

TEST(ConfigFile, DoubtsAreWarningsAtTheSource) {
    const ConfigFile file = Parse(Source("srt://h:1", "keylen = 10\n"));
    EXPECT_TRUE(file.Good());
    EXPECT_EQ(file.Report(),
              "f:1:1: warning: keylen is refused by the framework: not 0, 16, 24 or 32\n"
              "f:1:1: warning: keylen has no effect without a passphrase: the stream is not encrypted\n");
}

TEST(ConfigFile, PrintedFileSaysTheSameAgain) {
    const std::string text =
        "[service]\nhttp = \"127.0.0.1:9090\"\nlog_level = \"warning\"\nclose_timeout = 3\n"
        "[defaults.rtsp]\nlatency = 55\n"
        "[[source]]\nname = \"a\"\nurl = \"rtsp://h/1\"\nprotocols = \"tcp,tls\"\nstall_watch = 0\nbuffer_mode = \"0640\"\n"
        "[[source]]\nname = \"b\"\nurl = \"http://h/2.m3u8\"\nuser_agent = \"say \\\"hi\\\"\"\nvideo_bytes = \"2M\"\n"
        "[[source]]\nname = \"c\"\nurl = \"udp://@239.1.1.1:5000\"\n";
    const ConfigFile file = Parse(text);
    ASSERT_TRUE(file.Good()) << file.Report();
    const std::string printed = PrintConfig(file.service, file.sources);
    const ConfigFile again = Parse(printed);
    ASSERT_TRUE(again.Good()) << again.Report() << printed;
    EXPECT_TRUE(again.service == file.service);
    ASSERT_EQ(again.sources.size(), file.sources.size());
    for (size_t i = 0; i < file.sources.size(); ++i) {
        EXPECT_TRUE(SameStream(again.sources[i], file.sources[i])) << printed;
        EXPECT_TRUE(again.sources[i].memory == file.sources[i].memory) << printed;
        EXPECT_EQ(again.sources[i].name, file.sources[i].name);
    }
}

TEST(ConfigFile, OddValuesArePrintedSoThatTheyComeBack) {
    SourceConfig source = One(Source("http://h/x.m3u8"));
    source.stall_watch = 1234567.25;
    for (const char *odd : {"${HOME}", "$${x", "a\"b'c\\d", "tab\tbell\x07 delete\x7f", "\xc3\xa4\xe2\x82\xac \xf0\x9f\x8e\xa5",
                            "two\nlines\r\n", "\'\'\'", "\"\"\"", " # no comment"}) {
        source.hls.user_agent = odd;
        const std::string printed = PrintConfig({"", "", "/tmp/a ${b}\".log", "", 0.1234567}, {source});
        const ConfigFile again = Parse(printed);
        ASSERT_TRUE(again.Good()) << again.Report() << printed;
        EXPECT_TRUE(SameStream(again.sources.at(0), source)) << printed;
        EXPECT_EQ(again.service.log_file, "/tmp/a ${b}\".log");
        EXPECT_EQ(again.service.close_timeout, 0.1234567);
    }
}

TEST(ConfigFile, SecretsAreNotPrinted) {
    const SourceConfig proxied = One(Source("http://h/x.m3u8", "proxy = \"http://u:geheim@p:3128\"\n"));
    EXPECT_NE(PrintConfig({}, {proxied}).find("proxy = 'http://u:***@p:3128'"), std::string::npos)
        << PrintConfig({}, {proxied});
    const SourceConfig source = One(Source("rtsp://me:geheim1@h/x", "user = \"u\"\npassword = \"geheim2\"\n"));
    const std::string printed = PrintConfig({"", "geheim3", "", "", {}}, {source});
    EXPECT_EQ(printed.find("geheim"), std::string::npos) << printed;
    EXPECT_NE(printed.find("# password is set"), std::string::npos) << printed;
}

TEST(SourceFields, StreamsAreComparedByWhatTheirProtocolUses) {
    SourceConfig one;
    one.url = "udp://127.0.0.1:1";
    SourceConfig other = one;
    EXPECT_TRUE(SameStream(one, other));
    other.rtsp.latency = 1;
    EXPECT_TRUE(SameStream(one, other)) << "no option of UDP";
    other.udp.mtu = 1;
    EXPECT_FALSE(SameStream(one, other));
    other = one;
    other.url = "udp://127.0.0.1:2";
    EXPECT_FALSE(SameStream(one, other));
    other = one;
    other.stall_watch = 5;
    EXPECT_FALSE(SameStream(one, other));
}

TEST(SourceFields, StallWatchIsOnUnlessItIsSwitchedOff) {
    SourceConfig source;
    source.url = "udp://127.0.0.1:1";
    EXPECT_EQ(StallWatchOf(source), 10);
    source.url = "http://h/x.m3u8";
    EXPECT_EQ(StallWatchOf(source), 30);
    source.stall_watch = 0;
    EXPECT_EQ(StallWatchOf(source), 0);
}

TEST(Capacity, WhatDoesNotSufficeIsSaidWithBothFigures) {
    const Needs needs{9'000'000'000, 2'000'000'000, 14000, 9000, 6};
    EXPECT_TRUE(Shortages(1000, needs, {}).empty()) << "no bounds";
    EXPECT_TRUE(Shortages(1000, needs, {9'000'000'000, 11'000'000'000, 14000, 9000, 2}).empty());
    const std::vector<std::string> lines = Shortages(1000, needs, {8'000'000'000, 10'000'000'000, 1024, 4096, 2});
    ASSERT_EQ(lines.size(), 4u);
    EXPECT_EQ(lines[0].rfind("1000 sources take 9.00 GB of shared memory, and 8.00 GB are free in /dev/shm", 0), 0u)
        << lines[0];
    EXPECT_EQ(lines[1].rfind("1000 sources take about 11.0 GB of memory, shared memory included, and 10.0 GB are available", 0),
              0u)
        << lines[1];
    EXPECT_EQ(lines[2].rfind("1000 sources take about 14000 file descriptors, and 1024 may be opened", 0), 0u) << lines[2];
    EXPECT_EQ(lines[3].rfind("1000 sources take about 9000 threads, and 4096 may be started", 0), 0u) << lines[3];
}

TEST(Capacity, WhatMayNotSufficeIsAWarning) {
    const Needs needs{0, 0, 0, 0, 6};
    EXPECT_TRUE(Doubts(1000, needs, {}).empty());
    EXPECT_TRUE(Doubts(1000, needs, {{}, {}, {}, {}, 6}).empty());
    EXPECT_EQ(Doubts(1000, needs, {{}, {}, {}, {}, 1.5}),
              std::vector<std::string>{"1000 sources of 2 Mb/s each take about 6 cores, and this process may use 1.5"});
    EXPECT_GT(LimitsNow().cores.value_or(0), 0);
}

TEST(Capacity, NeedsGrowWithTheSourcesAndTheirBuffers) {
    SourceConfig small;
    small.url = "udp://127.0.0.1:1";
    small.memory.video_bytes = 1u << 20;
    SourceConfig large = small;
    large.memory.video_bytes = 64u << 20;
    const Needs one = NeedsOf({small});
    const Needs two = NeedsOf({small, small});
    EXPECT_GE(one.shared_bytes, 1u << 20);
    EXPECT_EQ(two.shared_bytes, 2 * one.shared_bytes);
    EXPECT_EQ(two.descriptors, 2 * one.descriptors);
    EXPECT_EQ(NeedsOf({large}).shared_bytes, one.shared_bytes + (63u << 20));
    EXPECT_GT(LimitsNow().shared_bytes.value_or(0), 0u);
    SourceConfig over_tcp;
    over_tcp.url = "rtsp://127.0.0.1/live";
    SourceConfig over_udp = over_tcp;
    over_udp.rtsp.protocols = 1;
    EXPECT_GT(NeedsOf({over_udp}).descriptors, 2 * NeedsOf({over_tcp}).descriptors);
    EXPECT_GT(NeedsOf({over_udp}).threads, NeedsOf({over_tcp}).threads);
}

TEST(ServiceGuide, NamesEveryOption) {
    const std::string guide = ReadAll(std::getenv("SERVICE_GUIDE"));
    for (const SourceField &field : SourceFields()) {
        EXPECT_NE(guide.find("`" + std::string(field.key) + "`"), std::string::npos) << field.key;
    }
}

// The guide's first file and the installed example are what somebody begins with.
TEST(ServiceGuide, ItsFilesAreGood) {
    const std::string guide = ReadAll(std::getenv("SERVICE_GUIDE"));
    const size_t begin = guide.find("```toml\n");
    ASSERT_NE(begin, std::string::npos);
    const std::string first = guide.substr(begin + 8, guide.find("```", begin + 8) - begin - 8);
    const TempDir dir;
    ASSERT_EQ(chmod(dir.Write("front-door.password", "secret").c_str(), 0600), 0);
    for (const std::string &text : {first, ReadAll(std::getenv("SERVICE_EXAMPLE"))}) {
        const ConfigFile file = ParseConfig(text, dir.Write("file.toml", text), From({{"STUDIO_PASSPHRASE", "0123456789"}}));
        EXPECT_EQ(file.Report(), "");
        EXPECT_GE(file.sources.size(), 2u);
    }
}
