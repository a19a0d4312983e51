// The built reader tool and the reader example, beside buffers of this process and beside a real host.
#include <gtest/gtest.h>
#include <pwd.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <sstream>

#include "run_support.h"
#include "shb_support.h"

namespace {

std::string FromEnvironment(const char *name, const char *otherwise) {
    const char *value = std::getenv(name);
    return value != nullptr ? value : otherwise;
}

std::vector<std::string> Reading(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), FromEnvironment("GST_SOURCE_READ_TOOL", "gst-source-read"));
    return arguments;
}

std::vector<std::string> Hosting(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), FromEnvironment("GST_SOURCE_TOOL", "gst-source"));
    return arguments;
}

std::vector<Json> Records(const std::string &text) {
    std::vector<Json> records;
    // The last line may still be on its way.
    const size_t end = text.rfind('\n');
    for (const std::string &line : Lines(text.substr(0, end == std::string::npos ? 0 : end))) {
        records.push_back(Json::parse(line));
    }
    return records;
}

size_t CountOf(const std::string &text, const std::string &part) {
    size_t count = 0;
    for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + part.size())) {
        ++count;
    }
    return count;
}

std::string Frame(uint64_t epoch, uint64_t sequence, size_t size) {
    const auto bytes = shbtest::Pattern(epoch, sequence, size);
    return {bytes.begin(), bytes.end()};
}

shb_description_t Picture(int width) {
    shb_description_t description{};
    std::strcpy(description.code, "H264");
    std::strcpy(description.profile, "high");
    std::strcpy(description.level, "4.1");
    description.width = width;
    description.height = 1080;
    description.fps_n = 30000;
    description.fps_d = 1001;
    description.ref_frames = 3;
    std::strcpy(description.format, "byte-stream");
    description.reorder_frames = 2;
    return description;
}

// The record of one buffer in the list; null when it is not there.
Json Listed(const std::string &name) {
    Child child(Reading({"list", "--json"}));
    EXPECT_EQ(child.Wait(), 0) << child.Err();
    for (const Json &record : Records(child.Out())) {
        if (record["name"] == name) {
            return record;
        }
    }
    return nullptr;
}

// A buffer of this process with one video track.
struct OwnBuffer {
    explicit OwnBuffer(const std::string &test, const std::string &known = "")
        : name(known.empty() ? BufferName(test) : known) {
        buffer = shbtest::Create(name, shbtest::SmallGeometry());
        writer = shbtest::OpenWriter(buffer);
    }
    void Write(uint64_t epoch, uint64_t first, uint64_t end, size_t size = 100) const {
        for (uint64_t sequence = first; sequence < end; ++sequence) {
            ASSERT_EQ(shbtest::WritePattern(writer, epoch, sequence, size, sequence % 4 == 0 ? SHB_FRAME_KEY : 0), SHB_OK);
        }
    }
    const std::string name;
    shbtest::Buffer buffer;
    shbtest::Writer writer;
};

// A process that makes a buffer with one frame, stands still and is killed in the end: its file can be cut
// short, which would end a process that goes on writing.
class StoppedMaker {
  public:
    explicit StoppedMaker(const std::string &test) : m_name(BufferName(test)), m_id(fork()) {
        if (m_id == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            const OwnBuffer own(test, m_name);
            own.Write(1, 0, 1);
            for (;;) {
                raise(SIGSTOP);
            }
        }
        int status = 0;
        EXPECT_TRUE(waitpid(m_id, &status, WUNTRACED) == m_id && WIFSTOPPED(status));
    }
    ~StoppedMaker() {
        kill(m_id, SIGKILL);
        waitpid(m_id, nullptr, 0);
        for (const std::string &file : MemoryOf(m_name)) {
            unlink(file.c_str());
        }
    }
    StoppedMaker(const StoppedMaker &) = delete;
    StoppedMaker &operator=(const StoppedMaker &) = delete;
    const std::string &Name() const { return m_name; }
    void CutShort() const { EXPECT_EQ(truncate(("/dev/shm/" + m_name).c_str(), 0), 0); }

  private:
    const std::string m_name;
    const pid_t m_id;
};

struct RemoveAtEnd {
    const std::string path;
    ~RemoveAtEnd() { unlink(path.c_str()); }
};

// Takes away what a host that was killed leaves; stands before it, so that it goes after it.
struct RemoveLeftover {
    const std::string name;
    ~RemoveLeftover() { shb_remove(name.c_str(), 1); }
};

bool Stopped(const Child &child) {
    const std::string stat = ReadAll("/proc/" + std::to_string(child.Id()) + "/stat");
    const size_t name_end = stat.rfind(") ");
    return name_end != std::string::npos && stat[name_end + 2] == 'T';
}

}  // namespace

TEST(ReadRun, HelpAndVersion) {
    for (const std::vector<std::string> &arguments :
         std::vector<std::vector<std::string>>{{"--help"}, {"list", "--help"}, {"tracks", "--help"}, {"read", "--help"}}) {
        Child help(Reading(arguments));
        EXPECT_EQ(help.Wait(), 0);
        EXPECT_TRUE(Has(help.Out(), "Usage: gst-source-read")) << help.Out();
        EXPECT_EQ(help.Err(), "");
    }
    Child version(Reading({"--version"}));
    EXPECT_EQ(version.Wait(), 0);
    EXPECT_EQ(version.Out().rfind("gst-source-read ", 0), 0u) << version.Out();
    EXPECT_TRUE(Has(version.Out(), " (libshb ") && Has(version.Out(), ", GStreamer 1.")) << version.Out();
}

TEST(ReadRun, WrongCommandLinesSayWhatIsWrong) {
    const std::vector<std::pair<std::vector<std::string>, const char *>> cases{
        {{}, "no command given"},
        {{"look"}, "\"look\" is not a command"},
        {{"remove"}, "remove: no NAME given"},
        {{"list", "--frobnicate"}, "--frobnicate"},
        {{"tracks", "x", "--watch", "0"}, "--watch: \"0\" is not a number of seconds above 0"},
        {{"read", "x", "--channel", "-1"}, "--channel: \"-1\" is not a whole number"},
        {{"read", "x", "--stream", "4294967296"}, "--stream: \"4294967296\" is not a whole number"},
        {{"read", "x", "--kind", "text"}, "--kind: \"text\" is not video or audio"},
        {{"read", "x", "--start", "middle"}, "--start: \"middle\" is not oldest, newest or key"},
        {{"read", "x", "--frames", "0"}, "--frames: \"0\" is not a whole number from 1"},
        {{"read", "x", "--duration", "nan"}, "--duration: \"nan\" is not a number of seconds"},
        {{"read", "x", "--json", "--output", "-"}, "both go to standard output"},
    };
    for (const auto &[arguments, message] : cases) {
        Child child(Reading(arguments));
        EXPECT_EQ(child.Wait(), 2) << message;
        EXPECT_EQ(child.Out(), "");
        EXPECT_EQ(Lines(child.Err()).size(), 1u) << child.Err();
        EXPECT_TRUE(Has(child.Err(), message)) << child.Err();
    }
}

TEST(ReadRun, FailuresAreOneLine) {
    const OwnBuffer own("failures");
    const std::vector<std::pair<std::vector<std::string>, std::string>> cases{
        {{"tracks", own.name + "-not"}, own.name + "-not: no shared buffer of this name"},
        {{"read", own.name + "-not"}, own.name + "-not: no shared buffer of this name"},
        {{"tracks", "x" + own.name}, "x" + own.name + ": no shared buffer of this name; did you mean " + own.name + "?"},
        {{"remove", own.name + "-not"}, own.name + "-not: no shared buffer of this name"},
        {{"read", "a/b"}, "a/b: not a name that a shared buffer can have"},
        {{"read", own.name, "--channel", "1"}, own.name + " has 1 channel of 1 stream, counted from 0"},
        {{"read", own.name, "--output", "/nonexistent/file"}, "/nonexistent/file: No such file or directory"},
        {{"read", own.name, "--duration", "0.1"}, "nothing arrived from video 0.0 of " + own.name},
    };
    for (const auto &[arguments, message] : cases) {
        Child child(Reading(arguments));
        EXPECT_EQ(child.Wait(), 1) << message;
        EXPECT_EQ(child.Out(), "");
        EXPECT_EQ(child.Err(), "gst-source-read: " + message + "\n");
    }
}

TEST(ReadRun, ListTellsOfEveryBuffer) {
    const auto before = std::chrono::steady_clock::now();
    const OwnBuffer own("list");
    const Json record = Listed(own.name);
    const auto age = std::chrono::ceil<std::chrono::milliseconds>(std::chrono::steady_clock::now() - before);
    ASSERT_TRUE(record.is_object());
    ExpectFields(record, {{"type", "buffer"}, {"state", "alive"}, {"alive", true}, {"creator_pid", getpid()}});
    ExpectFields(record, {{"creator_pid_here", true}, {"owner_uid", getuid()}, {"group_gid", getgid()}, {"mode", "0600"}});
    EXPECT_LE(record["heartbeat_age_ms"], age.count());
    EXPECT_GE(record["layout_version"], 3);
    EXPECT_GT(record["total_bytes"], 2 * 65536);
    ExpectFields(record, {{"channels", 1},
                          {"streams", 1},
                          {"video_bytes", 65536},
                          {"video_frames", 16},
                          {"audio_bytes", 65536},
                          {"audio_frames", 16}});

    Child table(Reading({"list"}));
    EXPECT_EQ(table.Wait(), 0);
    const std::vector<std::string> lines = Lines(table.Out());
    ASSERT_GE(lines.size(), 2u);
    EXPECT_EQ(lines[0].rfind("NAME ", 0), 0u);
    const auto line = std::find_if(lines.begin(), lines.end(), [&own](const auto &one) { return one.rfind(own.name, 0) == 0; });
    ASSERT_NE(line, lines.end());
    const passwd *user = getpwuid(getuid());
    const std::string owner = user != nullptr ? user->pw_name : std::to_string(getuid());
    EXPECT_TRUE(Has(*line, " alive ") && Has(*line, " " + owner + " ") && Has(*line, "64K/16")) << *line;
    EXPECT_TRUE(Has(*line, std::to_string(getpid()) + " ")) << *line;
}

// Its number means another process here, or none.
TEST(ReadRun, ACreatorOfAnotherPidNamespaceIsMarked) {
    const std::vector<std::string> isolated{"unshare", "--user", "--map-root-user", "--pid", "--fork", "--kill-child"};
    auto probe = isolated;
    probe.emplace_back("true");
    Child allowed(probe);
    if (allowed.Wait() != 0) {
        GTEST_SKIP() << "no PID namespace for tests: " << allowed.Err();
    }
    const std::string name = BufferName("namespace");
    const RemoveLeftover leftover{name};
    auto command = isolated;
    for (const std::string &argument : Hosting({UdpUrl(FreeUdpPort()), "--name", name})) {
        command.push_back(argument);
    }
    Child host(command);
    ASSERT_TRUE(WaitWhileRunning(host, [&name] { return Listed(name).is_object(); })) << host.Err();
    ExpectFields(Listed(name), {{"creator_pid", 1}, {"creator_pid_here", false}, {"state", "alive"}});
    Child table(Reading({"list"}));
    EXPECT_EQ(table.Wait(), 0);
    EXPECT_TRUE(Has(table.Out(), " 1 (other) ")) << table.Out();
    Child tracks(Reading({"tracks", name}));
    EXPECT_EQ(tracks.Wait(), 0);
    EXPECT_TRUE(Has(tracks.Out(), "made by process 1 (other), ")) << tracks.Out();
}

TEST(ReadRun, ABufferOfAnotherUserNamesItsOwner) {
    if (getuid() != 0) {
        GTEST_SKIP() << "only root can be another user";
    }
    const OwnBuffer own("shut");
    for (const char *command : {"tracks", "read"}) {
        const std::vector<std::string> reading = Reading({command, own.name});
        std::vector<std::string> nobody{"setpriv", "--reuid=65534", "--regid=65534", "--clear-groups"};
        nobody.insert(nobody.end(), reading.begin(), reading.end());
        Child child(nobody);
        EXPECT_EQ(child.Wait(), 1);
        EXPECT_EQ(child.Err(), "gst-source-read: " + own.name + ": it belongs to root and is not for this user\n");
    }
}

TEST(ReadRun, AFileThatIsCutShortIsNoCrash) {
    for (const std::vector<std::string> &flags : std::vector<std::vector<std::string>>{{}, {"--follow"}}) {
        const StoppedMaker maker("cut");
        std::vector<std::string> reading{"read", maker.Name(), "--start", "oldest"};
        reading.insert(reading.end(), flags.begin(), flags.end());
        Child read(Reading(reading));
        Child watch(Reading({"tracks", maker.Name(), "--watch", "0.1"}));
        ASSERT_TRUE(WaitWhileRunning(read, [&read] { return read.Out().size() == 100; })) << read.Err();
        ASSERT_TRUE(WaitWhileRunning(watch, [&watch] { return Has(watch.Out(), "0.0 video"); })) << watch.Err();
        maker.CutShort();
        EXPECT_EQ(read.Wait(), 1);
        ASSERT_FALSE(Lines(read.Err()).empty());
        EXPECT_EQ(Lines(read.Err()).back(), "gst-source-read: " + maker.Name() + ": " + shb_strerror(SHB_ERR_CORRUPT));
        EXPECT_EQ(watch.Wait(), 1);
        EXPECT_EQ(watch.Err(),
                  std::string("gst-source-read: the shared buffer cannot be read: ") + shb_strerror(SHB_ERR_CORRUPT) + "\n");
    }
}

TEST(ReadRun, ListTellsWhoReadsAndWhatTheyLost) {
    const OwnBuffer own("readers");
    EXPECT_EQ(Listed(own.name)["readers"], Json::array());
    const shbtest::Map map = shbtest::Attach(own.name);
    const shbtest::Reader reader = shbtest::OpenReader(map, SHB_START_OLDEST);
    EXPECT_TRUE(Listed(own.name)["readers"][0]["age_ms"].is_null());
    own.Write(1, 0, 20);
    ASSERT_EQ(shbtest::Read(reader).result, SHB_OK);
    const Json readers = Listed(own.name)["readers"];
    ASSERT_EQ(readers.size(), 1u);
    ExpectFields(readers[0], {{"pid", getpid()}, {"pid_here", true}, {"channel", 0}, {"stream", 0}, {"kind", "video"}});
    ExpectFields(readers[0],
                 {{"frames", 1}, {"bytes", 100}, {"lost_frames", 4}, {"left_out_frames", 0}, {"waiting_frames", 15}});
    EXPECT_EQ(readers[0]["program"], std::string(program_invocation_short_name).substr(0, 15));
    EXPECT_TRUE(readers[0]["age_ms"].is_number() && readers[0]["open_ms"].is_number());

    Child table(Reading({"list"}));
    EXPECT_EQ(table.Wait(), 0);
    const std::vector<std::string> lines = Lines(table.Out());
    const auto line = std::find_if(lines.begin(), lines.end(), [&own](const auto &one) { return one.rfind(own.name, 0) == 0; });
    ASSERT_NE(line, lines.end());
    std::istringstream words(*line);
    const std::vector<std::string> cells{std::istream_iterator<std::string>(words), {}};
    ASSERT_GE(cells.size(), 3u);
    EXPECT_EQ(std::vector<std::string>(cells.end() - 3, cells.end() - 1), (std::vector<std::string>{"1", "4"}));
}

TEST(ReadRun, ListTellsOfOtherVersions) {
    const OwnBuffer own("version");
    std::string header = ReadAll("/dev/shm/" + own.name).substr(0, 4096);
    constexpr size_t kVersion = 8;  // in all versions
    header[kVersion] = 99;
    const std::string name = own.name + "-99";
    const RemoveAtEnd file{"/dev/shm/" + name};
    std::ofstream(file.path, std::ios::binary) << header;
    const Json record = Listed(name);
    ASSERT_TRUE(record.is_object());
    ExpectFields(record, {{"layout_version", 99}, {"state", "alive"}, {"creator_pid", getpid()}});
    for (const char *unknown :
         {"heartbeat_age_ms", "total_bytes", "channels", "streams", "video_bytes", "audio_frames", "readers"}) {
        EXPECT_TRUE(record[unknown].is_null()) << unknown;
    }
    Child child(Reading({"tracks", name}));
    EXPECT_EQ(child.Wait(), 1);
    EXPECT_EQ(child.Err(), "gst-source-read: " + name + ": not a shared buffer of this version\n");
}

TEST(ReadRun, ListTellsOfAHostThatIsStopped) {
    const std::string name = BufferName("stopped");
    const RemoveLeftover leftover{name};
    Child host(Hosting({UdpUrl(FreeUdpPort()), "--name", name}));
    const auto state_is = [&name](const char *state) {
        return WaitFor([&] {
            const Json record = Listed(name);
            return record.is_object() && record["state"] == state;
        });
    };
    ASSERT_TRUE(state_is("alive")) << host.Err();
    host.Signal(SIGSTOP);
    EXPECT_TRUE(state_is("stopped"));
    host.Signal(SIGCONT);
    EXPECT_TRUE(state_is("alive"));
    host.Signal(SIGTERM);
    EXPECT_TRUE(host.Wait());
    EXPECT_FALSE(MemoryLeft(name));
}

// In a /dev/shm of its own, where no other buffer is.
TEST(ReadRun, TheOneLiveBufferNeedsNoName) {
    const std::vector<std::string> isolated{"unshare", "--user", "--map-root-user", "--mount", "sh", "-ec"};
    auto probe = isolated;
    probe.emplace_back("mount -t tmpfs none /dev/shm");
    Child allowed(probe);
    if (allowed.Wait() != 0) {
        GTEST_SKIP() << "no mount namespace for tests: " << allowed.Err();
    }
    auto command = isolated;
    command.emplace_back(
        "mount -t tmpfs none /dev/shm\n"
        "\"$1\" list && \"$1\" tracks && exit 3\n"
        "setpriv --pdeathsig KILL \"$0\" \"$2\" --name only >/dev/null 2>&1 & host=$!\n"
        "until [ -n \"$(\"$1\" list --json)\" ]; do kill -0 $host; done\n"
        "\"$1\" tracks || status=$?\n"
        "kill -TERM $host\n"
        "wait $host || true\n"
        "exit ${status:-0}");
    command.push_back(Hosting({})[0]);
    command.push_back(Reading({})[0]);
    command.push_back(UdpUrl(FreeUdpPort()));
    Child child(command);
    EXPECT_EQ(child.Wait(), 0) << child.Err();
    EXPECT_TRUE(Has(child.Out(), "only  alive, made by process ")) << child.Out();
    EXPECT_TRUE(Has(child.Out(), "no track has had a writer yet")) << child.Out();
    const std::vector<std::string> err = Lines(child.Err());
    ASSERT_GE(err.size(), 2u);
    EXPECT_EQ(err[0], "gst-source-read: no shared buffers on this machine");
    EXPECT_EQ(err[1], "gst-source-read: no live shared buffer on this machine");
}

TEST(ReadRun, SeveralLiveBuffersAreNamed) {
    const OwnBuffer first("several-1");
    const OwnBuffer second("several-2");
    for (const char *command : {"tracks", "read"}) {
        Child child(Reading({command}));
        EXPECT_EQ(child.Wait(), 1);
        EXPECT_EQ(Lines(child.Err()).size(), 1u);
        EXPECT_TRUE(Has(child.Err(), "several live shared buffers, say which: ")) << child.Err();
        EXPECT_TRUE(Has(child.Err(), first.name) && Has(child.Err(), second.name)) << child.Err();
    }
}

TEST(ReadRun, TracksTellWhatTheirWriterTold) {
    OwnBuffer own("tracks");
    const shb_description_t description = Picture(1920);
    ASSERT_EQ(shb_writer_describe(own.writer.get(), &description, "codec", 5), SHB_OK);
    own.Write(1, 0, 20);
    const std::vector<char> huge(70'000);
    ASSERT_EQ(shb_writer_write(own.writer.get(), huge.data(), huge.size(), 0, 0, 0, 0), SHB_ERR_TOO_BIG);
    shb_writer_set_rates(own.writer.get(), 4'200'000, 29'970);

    Child child(Reading({"tracks", own.name, "--json"}));
    EXPECT_EQ(child.Wait(), 0) << child.Err();
    // The audio track has never had a writer.
    const std::vector<Json> records = Records(child.Out());
    ASSERT_EQ(records.size(), 1u);
    const Json &track = records[0];
    ExpectFields(track, {{"type", "track"},
                         {"name", own.name},
                         {"kind", "video"},
                         {"channel", 0},
                         {"epoch", 1},
                         {"writer_pid", getpid()},
                         {"codec", "H264"},
                         {"profile", "high"},
                         {"level", "4.1"},
                         {"format", "byte-stream"},
                         {"codec_data_bytes", 5},
                         {"reorder_frames", 2},
                         {"presence", "expected"},
                         {"width_px", 1920},
                         {"height_px", 1080},
                         {"scan", "progressive"},
                         {"announced_fps", 29.97}});
    EXPECT_TRUE(track["sample_rate_hz"].is_null());
    ExpectFields(track, {{"frames", 20}, {"bytes", 2000}, {"key_frames", 5}, {"held_frames", 16}, {"left_out_frames", 1}});
    EXPECT_TRUE(track["age_ms"].is_number());

    // A new writer begins to count again; a track without one has no rates.
    own.writer.reset();
    own.writer = shbtest::OpenWriter(own.buffer);
    own.writer.reset();
    Child later(Reading({"tracks", own.name, "--json"}));
    EXPECT_EQ(later.Wait(), 0) << later.Err();
    const Json closed = Records(later.Out()).at(0);
    EXPECT_EQ(closed["epoch"], 2);
    EXPECT_TRUE(closed["writer_pid"].is_null());
    ExpectFields(closed, {{"frames", 0}, {"total_frames", 20}, {"total_bytes", 2000}, {"bitrate_bps", 0}, {"measured_fps", 0}});
}

TEST(ReadRun, TracksThatTheSourceDoesNotHave) {
    const OwnBuffer own("absent");
    ASSERT_EQ(shb_set_presence(own.buffer.get(), 0, 0, SHB_AUDIO, SHB_PRESENCE_ABSENT), SHB_OK);
    Child json(Reading({"tracks", own.name, "--json"}));
    EXPECT_EQ(json.Wait(), 0) << json.Err();
    const std::vector<Json> records = Records(json.Out());
    ASSERT_EQ(records.size(), 2u);
    ExpectFields(records[0], {{"kind", "video"}, {"presence", "expected"}, {"epoch", 1}, {"codec_data_bytes", nullptr}});
    ExpectFields(records[1], {{"kind", "audio"}, {"presence", "absent"}, {"epoch", 0}, {"codec", nullptr}});
    const auto line = [&own](size_t number) {
        Child table(Reading({"tracks", own.name}));
        EXPECT_EQ(table.Wait(), 0) << table.Err();
        return Lines(table.Out()).at(number);
    };
    EXPECT_EQ(line(2).rfind("0.0 video  - ", 0), 0u) << line(2);
    EXPECT_EQ(line(3).rfind("0.0 audio  absent ", 0), 0u) << line(3);
    ASSERT_EQ(shb_set_presence(own.buffer.get(), 0, 0, SHB_AUDIO, SHB_PRESENCE_EXPECTED), SHB_OK);
    EXPECT_EQ(line(3).rfind("0.0 audio  expected ", 0), 0u) << line(3);
    // Also one that has carried data.
    ASSERT_EQ(shb_set_presence(own.buffer.get(), 0, 0, SHB_VIDEO, SHB_PRESENCE_ABSENT), SHB_OK);
    EXPECT_EQ(line(2).rfind("0.0 video  absent ", 0), 0u) << line(2);
}

TEST(ReadRun, TracksAsATable) {
    const OwnBuffer own("table");
    const shb_description_t description = Picture(1920);
    ASSERT_EQ(shb_writer_describe(own.writer.get(), &description, nullptr, 0), SHB_OK);
    own.Write(1, 0, 3);
    Child child(Reading({"tracks", "/" + own.name}));
    EXPECT_EQ(child.Wait(), 0) << child.Err();
    const std::vector<std::string> lines = Lines(child.Out());
    ASSERT_EQ(lines.size(), 3u) << child.Out();
    EXPECT_EQ(lines[0].rfind(own.name + "  alive, made by process " + std::to_string(getpid()) + ", ", 0), 0u) << lines[0];
    EXPECT_EQ(lines[1].rfind("TRACK ", 0), 0u);
    EXPECT_EQ(lines[2].rfind("0.0 video  H264   1920x1080p", 0), 0u) << lines[2];
    EXPECT_FALSE(Has(child.Out(), "\x1b"));
}

TEST(ReadRun, WatchReportsUntilTheSignal) {
    const OwnBuffer own("watch");
    own.Write(1, 0, 3);
    // The seconds may be left out also in front of the name.
    for (const std::vector<std::string> &arguments :
         {std::vector<std::string>{"tracks", "--watch", own.name}, {"tracks", own.name, "--watch", "0.1"}}) {
        Child text(Reading(arguments));
        ASSERT_TRUE(WaitWhileRunning(text, [&text] { return CountOf(text.Out(), "0.0 video") >= 3; })) << text.Err();
        text.Signal(SIGINT);
        EXPECT_EQ(text.Wait(), 0);
        EXPECT_EQ(CountOf(text.Out(), own.name + "  alive"), CountOf(text.Out(), "0.0 video")) << text.Out();
    }
    Child json(Reading({"tracks", own.name, "--watch", "0.1", "--json"}));
    ASSERT_TRUE(WaitWhileRunning(json, [&json] { return Records(json.Out()).size() >= 3; })) << json.Err();
    own.Write(1, 3, 5);
    EXPECT_TRUE(WaitWhileRunning(json, [&json] { return Records(json.Out()).back()["frames"] == 5; })) << json.Out();
    json.Signal(SIGTERM);
    EXPECT_EQ(json.Wait(), 0);
}

TEST(ReadRun, WatchFollowsABufferThatIsMadeAgain) {
    OwnBuffer own("again");
    Child child(Reading({"tracks", own.name, "--watch", "0.1"}));
    ASSERT_TRUE(WaitWhileRunning(child, [&] { return Has(child.Out(), own.name + "  alive"); })) << child.Err();
    own.writer.reset();
    own.buffer.reset();
    ASSERT_TRUE(WaitWhileRunning(child, [&] { return Has(child.Out(), own.name + "  stale"); })) << child.Out();
    const size_t before = child.Out().size();
    own.buffer = shbtest::Create(own.name, shbtest::SmallGeometry());
    EXPECT_TRUE(WaitWhileRunning(child, [&] { return Has(child.Out().substr(before), own.name + "  alive"); })) << child.Out();
    child.Signal(SIGINT);
    EXPECT_EQ(child.Wait(), 0);
}

TEST(ReadRunOnATerminal, WatchDrawsInPlaceAndGivesTheCursorBack) {
    const OwnBuffer own("screen");
    own.Write(1, 0, 3);
    Child child(Reading({"tracks", own.name, "--watch", "0.1"}), {{"TERM", "xterm"}, {"NO_COLOR", ""}},
                Child::Output::kTerminal);
    ASSERT_TRUE(WaitWhileRunning(child, [&child] { return CountOf(child.Screen(), "0.0 video") >= 3; })) << child.Screen();
    EXPECT_TRUE(Has(child.Screen(), "\x1b[32malive")) << child.Screen();
    EXPECT_TRUE(Has(child.Screen(), "A\x1b[2K"));
    EXPECT_FALSE(Has(child.Screen(), "\x1b[H\x1b[2J"));
    child.Resize(60, 20);
    EXPECT_TRUE(WaitWhileRunning(child, [&child] { return Has(child.Screen(), "\x1b[H\x1b[2J"); }));
    child.Signal(SIGINT);
    EXPECT_EQ(child.Wait(), 0);
    EXPECT_GT(child.Screen().rfind("\x1b[?25h"), child.Screen().rfind("\x1b[?25l")) << child.Screen();
}

TEST(ReadRunOnATerminal, FramesDoNotGoThereUnasked) {
    const OwnBuffer own("tty");
    own.Write(1, 0, 1);
    Child refused(Reading({"read", own.name}), {}, Child::Output::kTerminal);
    EXPECT_EQ(refused.Wait(), 2);
    EXPECT_TRUE(Has(refused.Screen(), "frames are not for a terminal")) << refused.Screen();
    Child asked(Reading({"read", own.name, "--output", "-", "--frames", "1"}), {}, Child::Output::kTerminal);
    EXPECT_EQ(asked.Wait(), 0) << asked.Screen();
}

TEST(ReadRun, FramesOneBehindTheOther) {
    OwnBuffer own("frames");
    own.Write(1, 0, 10);
    Child all(Reading({"read", own.name, "--start", "oldest"}));
    Child keys(Reading({"read", own.name}));
    Child some(Reading({"read", own.name, "--start", "oldest", "--frames", "2"}));
    EXPECT_EQ(some.Wait(), 0) << some.Err();
    EXPECT_EQ(some.Out(), Frame(1, 0, 100) + Frame(1, 1, 100));
    ASSERT_TRUE(WaitWhileRunning(all, [&all] { return all.Out().size() == 1000; })) << all.Err();
    ASSERT_TRUE(WaitWhileRunning(keys, [&keys] { return keys.Out().size() == 200; })) << keys.Err();
    // Without --follow the run ends with the writer.
    own.writer.reset();
    EXPECT_EQ(all.Wait(), 0) << all.Err();
    EXPECT_EQ(keys.Wait(), 0) << keys.Err();
    std::string expected;
    for (uint64_t sequence = 0; sequence < 10; ++sequence) {
        expected += Frame(1, sequence, 100);
    }
    EXPECT_EQ(all.Out(), expected);
    EXPECT_EQ(keys.Out(), Frame(1, 8, 100) + Frame(1, 9, 100));
    EXPECT_TRUE(Has(all.Err(), "video 0.0 of " + own.name + ": its writer has gone\n")) << all.Err();
    EXPECT_TRUE(Has(all.Err(), "video 0.0 of " + own.name + ": 10 frames, 3 key frames, 1.00 kB, 0 lost, in 00:0"))
        << all.Err();
}

TEST(ReadRun, JsonTellsAboutEachFrame) {
    OwnBuffer own("json");
    const shb_description_t first = Picture(1920);
    shb_description_t second = Picture(1280);
    second.reorder_frames = -1;
    const auto now = [](auto clock) {
        return std::chrono::duration_cast<std::chrono::nanoseconds>(clock.time_since_epoch()).count();
    };
    const auto before = std::pair(now(std::chrono::steady_clock::now()), now(std::chrono::system_clock::now()));
    ASSERT_EQ(shb_writer_describe(own.writer.get(), &first, "codec", 5), SHB_OK);
    own.Write(1, 0, 2);
    ASSERT_EQ(shb_writer_describe(own.writer.get(), &second, nullptr, 0), SHB_OK);
    ASSERT_EQ(shb_writer_set_clock(own.writer.get(), -1234), SHB_OK);
    ASSERT_EQ(shb_writer_write(own.writer.get(), "xyz", 3, SHB_TIME_NONE, SHB_TIME_NONE, SHB_TIME_NONE,
                               SHB_FRAME_DISCONT | SHB_FRAME_HEADER),
              SHB_OK);
    own.writer.reset();
    const TempDir dir;
    Child child(Reading({"read", own.name, "--start", "oldest", "--json", "--output", dir.File("payload"), "--frames", "3"}));
    EXPECT_EQ(child.Wait(), 0) << child.Err();
    EXPECT_EQ(ReadAll(dir.File("payload")), Frame(1, 0, 100) + Frame(1, 1, 100) + "xyz");
    std::vector<Json> frames = Records(child.Out());
    ASSERT_EQ(frames.size(), 3u);
    for (Json &frame : frames) {
        EXPECT_GE(frame["arrival_ns"], before.first);
        EXPECT_LE(frame["arrival_ns"], now(std::chrono::steady_clock::now()));
        EXPECT_GE(frame["wall_ns"], before.second);
        EXPECT_LE(frame["wall_ns"], now(std::chrono::system_clock::now()));
        frame.erase("arrival_ns");
        frame.erase("wall_ns");
    }
    EXPECT_EQ(frames[1], Json({{"type", "frame"},
                               {"creator_pid", getpid()},
                               {"epoch", 1},
                               {"sequence", 1},
                               {"lost", 0},
                               {"lost_before", 0},
                               {"left_out", 0},
                               {"clock_offset_ns", nullptr},
                               {"pts_ns", 40},
                               {"dts_ns", 41},
                               {"duration_ns", 40},
                               {"size_bytes", 100},
                               {"key", false},
                               {"discontinuity", false},
                               {"header", false},
                               {"description", nullptr}}));
    EXPECT_EQ(frames[0]["key"], true);
    EXPECT_EQ(frames[0]["description"]["codec"], "H264");
    EXPECT_EQ(frames[0]["description"]["width_px"], 1920);
    EXPECT_EQ(frames[0]["description"]["announced_fps"], 29.97);
    ExpectFields(frames[0]["description"], {{"format", "byte-stream"}, {"codec_data_bytes", 5}, {"reorder_frames", 2}});
    ExpectFields(frames[2]["description"], {{"codec_data_bytes", 0}, {"reorder_frames", nullptr}});
    EXPECT_EQ(frames[2]["clock_offset_ns"], -1234);
    EXPECT_EQ(frames[2]["description"]["width_px"], 1280);
    EXPECT_TRUE(frames[2]["pts_ns"].is_null() && frames[2]["dts_ns"].is_null() && frames[2]["duration_ns"].is_null());
    EXPECT_EQ(frames[2]["discontinuity"], true);
    EXPECT_EQ(frames[2]["header"], true);
    EXPECT_TRUE(Has(child.Err(), ": H264 high level 4.1 1920x1080p 29.97 fps\n")) << child.Err();
    EXPECT_TRUE(Has(child.Err(), ": H264 high level 4.1 1280x1080p 29.97 fps\n")) << child.Err();
}

TEST(ReadRun, LossesAreTold) {
    OwnBuffer own("lost");
    Child child(Reading({"read", own.name, "--start", "oldest", "--json"}));
    own.Write(1, 0, 1);
    ASSERT_TRUE(WaitWhileRunning(child, [&child] { return Records(child.Out()).size() == 1; })) << child.Err();
    child.Signal(SIGSTOP);
    ASSERT_TRUE(WaitFor([&child] { return Stopped(child); }));
    own.Write(1, 1, 101);
    child.Signal(SIGCONT);
    own.writer.reset();
    EXPECT_EQ(child.Wait(), 0) << child.Err();
    const std::vector<Json> frames = Records(child.Out());
    ASSERT_GT(frames.size(), 1u);
    uint64_t lost = 0;
    uint64_t losses = 0;
    for (const Json &frame : frames) {
        lost += frame["lost"].get<uint64_t>();
        losses += frame["lost"] > 0 ? 1U : 0U;
    }
    EXPECT_GE(losses, 1u);
    EXPECT_EQ(lost + frames.size(), 101u);
    EXPECT_EQ(CountOf(child.Err(), " lost before frame "), losses) << child.Err();
    EXPECT_TRUE(Has(child.Err(), std::to_string(lost) + " lost, in ")) << child.Err();
}

TEST(ReadRun, LossesAtTheEndOfAnEpochAreTold) {
    OwnBuffer own("ends");
    Child child(Reading({"read", own.name, "--start", "oldest", "--follow", "--json"}));
    own.Write(1, 0, 1);
    ASSERT_TRUE(WaitWhileRunning(child, [&child] { return Records(child.Out()).size() == 1; })) << child.Err();
    child.Signal(SIGSTOP);
    ASSERT_TRUE(WaitFor([&child] { return Stopped(child); }));
    own.Write(1, 1, 51);
    own.writer.reset();
    own.writer = shbtest::OpenWriter(own.buffer);
    own.Write(2, 0, 100);
    child.Signal(SIGCONT);
    ASSERT_TRUE(WaitWhileRunning(child, [&child] { return Records(child.Out()).back()["sequence"] == 99; })) << child.Err();
    child.Signal(SIGINT);
    EXPECT_EQ(child.Wait(), 0) << child.Err();
    const std::vector<Json> frames = Records(child.Out());
    uint64_t lost = 0;
    uint64_t lost_before = 0;
    for (const Json &frame : frames) {
        lost += frame["lost"].get<uint64_t>();
        lost_before += frame["lost_before"].get<uint64_t>();
    }
    EXPECT_EQ(lost + frames.size(), 151u);
    EXPECT_GT(lost_before, 0u);
    EXPECT_TRUE(Has(child.Err(), " of epoch 2, " + std::to_string(lost_before) + " of them in earlier epochs\n"))
        << child.Err();
}

TEST(ReadRun, FramesLargerThanTheTrackAreTold) {
    OwnBuffer own("huge");
    own.Write(1, 0, 1);
    const std::vector<char> huge(70'000);
    for (int i = 0; i < 2; ++i) {
        ASSERT_EQ(shb_writer_write(own.writer.get(), huge.data(), huge.size(), 0, 0, 0, 0), SHB_ERR_TOO_BIG);
    }
    own.Write(1, 1, 2);
    Child child(Reading({"read", own.name, "--start", "oldest", "--json", "--frames", "2"}));
    EXPECT_EQ(child.Wait(), 0) << child.Err();
    const std::vector<Json> frames = Records(child.Out());
    ASSERT_EQ(frames.size(), 2u);
    ExpectFields(frames[0], {{"left_out", 0}, {"discontinuity", false}});
    ExpectFields(frames[1], {{"left_out", 2}, {"lost", 0}, {"discontinuity", true}});
    EXPECT_TRUE(Has(child.Err(), ": 2 frames larger than the track were left out before frame 1 of epoch 1\n")) << child.Err();
}

TEST(ReadRun, FollowsWritersAndBuffers) {
    OwnBuffer own("follow");
    own.Write(1, 0, 2);
    const TempDir dir;
    Child stays(Reading({"read", own.name, "--start", "oldest"}));
    Child child(Reading({"read", own.name, "--start", "oldest", "--follow", "--json", "--output", dir.File("payload")}));
    const auto arrived = [&child](size_t frames) {
        return WaitWhileRunning(child, [&] { return Records(child.Out()).size() == frames; });
    };
    ASSERT_TRUE(arrived(2)) << child.Err();
    ASSERT_TRUE(WaitWhileRunning(stays, [&stays] { return stays.Out().size() == 200; })) << stays.Err();
    own.writer.reset();
    EXPECT_EQ(stays.Wait(), 0) << stays.Err();
    EXPECT_EQ(stays.Out(), Frame(1, 0, 100) + Frame(1, 1, 100));
    own.writer = shbtest::OpenWriter(own.buffer);
    own.Write(2, 0, 3);
    ASSERT_TRUE(arrived(5)) << child.Err();
    EXPECT_TRUE(Has(child.Err(), ": a new writer, epoch 2\n")) << child.Err();

    own.writer.reset();
    own.buffer.reset();
    const std::string gone =
        own.name + ": its host, process " + std::to_string(getpid()) + ", has gone; waiting for it to come back\n";
    ASSERT_TRUE(WaitWhileRunning(child, [&] { return Has(child.Err(), gone); })) << child.Err();
    own.buffer = shbtest::Create(own.name, shbtest::SmallGeometry());
    own.writer = shbtest::OpenWriter(own.buffer);
    own.Write(1, 0, 1, 60'000);
    ASSERT_TRUE(arrived(6)) << child.Err();
    EXPECT_TRUE(Has(child.Err(), own.name + ": here, made by process ")) << child.Err();
    child.Signal(SIGINT);
    EXPECT_EQ(child.Wait(), 0) << child.Err();
    EXPECT_TRUE(Has(child.Err(), ": 6 frames, ")) << child.Err();
    EXPECT_EQ(ReadAll(dir.File("payload")), Frame(1, 0, 100) + Frame(1, 1, 100) + Frame(2, 0, 100) + Frame(2, 1, 100) +
                                                Frame(2, 2, 100) + Frame(1, 0, 60'000));
}

TEST(ReadRun, FollowWaitsForABufferThatIsNotThereYet) {
    const std::string name = BufferName("early");
    Child child(Reading({"read", name, "--follow", "--start", "oldest", "--frames", "1"}));
    ASSERT_TRUE(WaitWhileRunning(child, [&] { return Has(child.Err(), name + ": not there yet, waiting for it\n"); }));
    const OwnBuffer own("early");
    own.Write(1, 0, 1);
    EXPECT_EQ(child.Wait(), 0) << child.Err();
    EXPECT_EQ(child.Out(), Frame(1, 0, 100));
}

TEST(ReadRun, AnotherWriterEndsARunThatDoesNotFollow) {
    OwnBuffer own("other");
    Child child(Reading({"read", own.name, "--start", "oldest"}));
    own.Write(1, 0, 2);
    ASSERT_TRUE(WaitWhileRunning(child, [&child] { return child.Out().size() == 200; })) << child.Err();
    child.Signal(SIGSTOP);
    ASSERT_TRUE(WaitFor([&child] { return Stopped(child); }));
    own.writer.reset();
    own.writer = shbtest::OpenWriter(own.buffer);
    own.Write(2, 0, 2);
    child.Signal(SIGCONT);
    EXPECT_EQ(child.Wait(), 0) << child.Err();
    EXPECT_EQ(child.Out(), Frame(1, 0, 100) + Frame(1, 1, 100));
    EXPECT_TRUE(Has(child.Err(), ": another writer has it now; --follow goes on with that one\n")) << child.Err();
}

TEST(ReadRun, LargeFrames) {
    const std::string name = BufferName("large");
    shb_geometry_t geometry = shbtest::SmallGeometry();
    geometry.video_bytes = 4 << 20;
    const auto buffer = shbtest::Create(name, geometry);
    auto writer = shbtest::OpenWriter(buffer);
    ASSERT_EQ(shbtest::WritePattern(writer, 1, 0, 1'000'000, SHB_FRAME_KEY), SHB_OK);
    ASSERT_EQ(shbtest::WritePattern(writer, 1, 1, 2'000'000), SHB_OK);
    Child child(Reading({"read", name, "--frames", "2"}));
    EXPECT_EQ(child.Wait(), 0) << child.Err();
    EXPECT_TRUE(child.Out() == Frame(1, 0, 1'000'000) + Frame(1, 1, 2'000'000));
}

TEST(ReadRun, TimeRunsOut) {
    const OwnBuffer own("time");
    own.Write(1, 0, 1);
    Child enough(Reading({"read", own.name, "--start", "oldest", "--duration", "0.2"}));
    EXPECT_EQ(enough.Wait(), 0) << enough.Err();
    EXPECT_EQ(enough.Out(), Frame(1, 0, 100));
    Child child(Reading({"read", own.name, "--start", "oldest", "--duration", "0.2", "--frames", "2"}));
    EXPECT_EQ(child.Wait(), 1);
    EXPECT_EQ(Lines(child.Err()).back(), "gst-source-read: the time ran out before 2 frames had arrived");
}

TEST(ReadRun, AClosedPipeEndsItQuietly) {
    const OwnBuffer own("pipe");
    own.Write(1, 0, 1);
    for (const std::vector<std::string> &arguments :
         std::vector<std::vector<std::string>>{{"read", own.name, "--start", "oldest"},
                                               {"read", own.name, "--start", "oldest", "--json"},
                                               {"tracks", own.name},
                                               {"tracks", own.name, "--watch", "0.1"},
                                               {"list"}}) {
        Child child(Reading(arguments), {}, Child::Output::kClosedPipe);
        EXPECT_EQ(child.Wait(), 256 + SIGPIPE) << arguments[0];
        EXPECT_EQ(child.Err(), "");
    }
}

TEST(ReadRun, FullDiskIsNamed) {
    const OwnBuffer own("full");
    own.Write(1, 0, 1);
    Child child(Reading({"read", own.name, "--start", "oldest", "--output", "/dev/full"}));
    EXPECT_EQ(child.Wait(), 1);
    EXPECT_EQ(child.Err(), "gst-source-read: /dev/full: No space left on device\n");
}

class ReadRunSignal : public ::testing::TestWithParam<int> {};

TEST_P(ReadRunSignal, EndsWithTheSummary) {
    const OwnBuffer own("signal");
    Child child(Reading({"read", own.name, "--start", "oldest"}));
    own.Write(1, 0, 2);
    ASSERT_TRUE(WaitWhileRunning(child, [&child] { return child.Out().size() == 200; })) << child.Err();
    child.Signal(GetParam());
    EXPECT_EQ(child.Wait(), 0) << child.Err();
    EXPECT_EQ(Lines(child.Err()).size(), 1u) << child.Err();
    EXPECT_TRUE(Has(child.Err(), ": 2 frames, 1 key frame, ")) << child.Err();

    Child nothing(Reading({"read", own.name, "--kind", "audio"}));
    const std::string maps = "/proc/" + std::to_string(nothing.Id()) + "/maps";
    ASSERT_TRUE(WaitWhileRunning(nothing, [&] { return Has(ReadAll(maps), own.name); })) << nothing.Err();
    nothing.Signal(GetParam());
    EXPECT_EQ(nothing.Wait(), 1);
    EXPECT_EQ(nothing.Err(), "gst-source-read: nothing arrived from audio 0.0 of " + own.name + "\n");
}

INSTANTIATE_TEST_SUITE_P(Signals, ReadRunSignal, ::testing::Values(SIGINT, SIGTERM, SIGHUP));

TEST(ReadRun, RemoveLeavesTheLivingAloneUnlessForced) {
    OwnBuffer own("remove");
    Child child(Reading({"remove", own.name}));
    EXPECT_EQ(child.Wait(), 1);
    EXPECT_EQ(child.Err(), "gst-source-read: " + own.name + ": its creator is alive; --force removes it all the same\n");
    EXPECT_TRUE(MemoryLeft(own.name));
    Child reader(Reading({"read", own.name, "--start", "oldest"}));
    own.Write(1, 0, 1);
    ASSERT_TRUE(WaitWhileRunning(reader, [&reader] { return reader.Out().size() == 100; })) << reader.Err();
    Child forced(Reading({"remove", own.name, "--force"}));
    EXPECT_EQ(forced.Wait(), 0) << forced.Err();
    EXPECT_EQ(forced.Out(), "removed " + own.name + "\n");
    EXPECT_TRUE(Listed(own.name).is_null());
    // Who was attached goes on.
    own.Write(1, 1, 2);
    own.writer.reset();
    EXPECT_EQ(reader.Wait(), 0) << reader.Err();
    EXPECT_EQ(reader.Out(), Frame(1, 0, 100) + Frame(1, 1, 100));
}

TEST(ReadRunBesideAHost, EveryReaderGetsWhatTheHostDumps) {
    const std::string name = BufferName("bytes");
    const RemoveLeftover leftover{name};
    const std::string url = UdpUrl(FreeUdpPort());
    const TempDir dir;
    Sender sender(url);
    Child host(Hosting(
        {url, "--name", name, "--interval", "0.1", "--dump-video", dir.File("video"), "--dump-audio", dir.File("audio")}));
    ASSERT_TRUE(WaitWhileRunning(host, [&host] { return Has(host.Out(), "flow=live"); })) << host.Err();
    Child video(Reading({"read", name, "--start", "oldest", "--json", "--output", dir.File("read")}));
    Child audio(Reading({"read", name, "--kind", "audio", "--start", "oldest"}));
    ASSERT_TRUE(WaitWhileRunning(video, [&video] { return Records(video.Out()).size() > 30; })) << video.Err();

    const std::string example = FromEnvironment("SHB_EXAMPLE_READER", "shb-example-reader");
    Child c_video({example, name});
    Child c_audio({example, name, "audio"});
    for (Child *one : {&c_video, &c_audio}) {
        ASSERT_TRUE(WaitWhileRunning(*one, [one] { return one->Out().size() > 1000; })) << one->Err();
    }
    const size_t at_start = Records(video.Out()).size();
    ASSERT_TRUE(WaitWhileRunning(video, [&] { return Records(video.Out()).size() > at_start + 50; })) << video.Err();
    host.Signal(SIGTERM);
    EXPECT_EQ(host.Wait(), 0) << host.Err();
    for (Child *one : {&video, &audio, &c_video, &c_audio}) {
        EXPECT_EQ(one->Wait(), 0) << one->Err();
    }

    const std::string dumped_video = ReadAll(dir.File("video"));
    const std::string dumped_audio = ReadAll(dir.File("audio"));
    EXPECT_TRUE(ReadAll(dir.File("read")) == dumped_video);
    EXPECT_TRUE(audio.Out() == dumped_audio);
    // The example begins in the middle, with a key frame, and goes to the same end.
    std::vector<size_t> key_places;
    size_t place = 0;
    uint64_t sequence = 0;
    for (const Json &frame : Records(video.Out())) {
        EXPECT_EQ(frame["sequence"], sequence++);
        if (frame["key"] == true) {
            key_places.push_back(place);
        }
        place += frame["size_bytes"].get<size_t>();
    }
    EXPECT_EQ(place, dumped_video.size());
    const std::string out = c_video.Out();
    ASSERT_LE(out.size(), dumped_video.size());
    const size_t begin = dumped_video.size() - out.size();
    EXPECT_TRUE(dumped_video.compare(begin, out.size(), out) == 0);
    EXPECT_EQ(std::count(key_places.begin(), key_places.end(), begin), 1);
    const std::string sound = c_audio.Out();
    ASSERT_LE(sound.size(), dumped_audio.size());
    EXPECT_TRUE(dumped_audio.compare(dumped_audio.size() - sound.size(), sound.size(), sound) == 0);
    // ADTS begins with twelve set bits.
    EXPECT_EQ(sound.compare(0, 1, "\xff"), 0);
    EXPECT_EQ(Lines(c_video.Err()), std::vector<std::string>{"H264 constrained-baseline 320x180"});
    EXPECT_EQ(Lines(c_audio.Err()), std::vector<std::string>{"AAC 48000 Hz, 2 channels"});
}

TEST(ReadRunBesideAHost, ExampleTellsWhatIsWrong) {
    const std::string example = FromEnvironment("SHB_EXAMPLE_READER", "shb-example-reader");
    const std::string name = BufferName("none");
    Child usage({example});
    EXPECT_EQ(usage.Wait(), 2);
    EXPECT_TRUE(Has(usage.Err(), "usage: ")) << usage.Err();
    Child none({example, name});
    EXPECT_EQ(none.Wait(), 1);
    EXPECT_EQ(none.Err(), name + ": not found\n");
}

TEST(ReadRunBesideAHost, ExampleTellsLossesAndChanges) {
    const std::string example = FromEnvironment("SHB_EXAMPLE_READER", "shb-example-reader");
    OwnBuffer own("examples");
    shb_description_t description = Picture(1920);
    ASSERT_EQ(shb_writer_describe(own.writer.get(), &description, nullptr, 0), SHB_OK);
    own.Write(1, 0, 1);
    Child child({example, own.name});
    ASSERT_TRUE(WaitWhileRunning(child, [&child] { return child.Out().size() == 100; })) << child.Err();
    child.Signal(SIGSTOP);
    ASSERT_TRUE(WaitFor([&child] { return Stopped(child); }));
    description = Picture(1280);
    ASSERT_EQ(shb_writer_describe(own.writer.get(), &description, nullptr, 0), SHB_OK);
    own.Write(1, 1, 102);
    own.writer.reset();
    own.buffer.reset();
    child.Signal(SIGCONT);
    EXPECT_EQ(child.Wait(), 0) << child.Err();
    // The newest key frame is number 100.
    EXPECT_EQ(Lines(child.Err()),
              (std::vector<std::string>{"H264 high 1920x1080", "99 frames lost before frame 100", "H264 high 1280x1080"}));
    EXPECT_EQ(child.Out(), Frame(1, 0, 100) + Frame(1, 100, 100) + Frame(1, 101, 100));
}

TEST(ReadRunBesideAHost, TheHostSaysWhichTrackTheSourceDoesNotHave) {
    const std::string name = BufferName("presence");
    const RemoveLeftover leftover{name};
    const std::string url = UdpUrl(FreeUdpPort());
    Sender sender(url, false);
    Child host(Hosting({url, "--name", name}));
    const auto presence = [&name](const char *kind) -> Json {
        Child tracks(Reading({"tracks", name, "--json"}));
        tracks.Wait();
        for (const Json &record : Records(tracks.Out())) {
            if (record["kind"] == kind) {
                return record["presence"];
            }
        }
        return nullptr;
    };
    EXPECT_TRUE(WaitWhileRunning(host, [&] { return presence("video") == "absent"; })) << host.Err();
    EXPECT_EQ(presence("audio"), "expected");
    host.Signal(SIGTERM);
    EXPECT_EQ(host.Wait(), 0) << host.Err();
}

TEST(ReadRunBesideAHost, FollowsAHostThatIsKilledAndStartedAgain) {
    const std::string name = BufferName("killed");
    const RemoveLeftover leftover{name};
    const std::string url = UdpUrl(FreeUdpPort());
    const TempDir dir;
    Sender sender(url);
    const auto command = Hosting({url, "--name", name});
    auto host = std::make_unique<Child>(command);
    Child reader(Reading({"read", name, "--start", "oldest", "--follow", "--json", "--output", dir.File("payload")}));
    // The host may need longer than the reader.
    ASSERT_TRUE(WaitWhileRunning(reader, [&reader] { return Records(reader.Out()).size() > 10; })) << host->Err();
    const pid_t first = host->Id();
    host->Signal(SIGKILL);
    EXPECT_EQ(host->Wait(), 256 + SIGKILL);
    const std::string gone =
        name + ": its host, process " + std::to_string(first) + ", has gone; waiting for it to come back\n";
    ASSERT_TRUE(WaitWhileRunning(reader, [&] { return Has(reader.Err(), gone); })) << reader.Err();

    // What it left is there to be seen and read.
    const Json stale = Listed(name);
    ASSERT_TRUE(stale.is_object());
    ExpectFields(stale, {{"state", "stale"}, {"alive", false}, {"creator_pid", first}});
    Child late(Reading({"read", name, "--start", "oldest"}));
    EXPECT_EQ(late.Wait(), 0) << late.Err();
    EXPECT_TRUE(late.Out() == ReadAll(dir.File("payload")));
    EXPECT_TRUE(Has(late.Err(), "process " + std::to_string(first) + ", has gone\n")) << late.Err();

    host = std::make_unique<Child>(command);
    const pid_t second = host->Id();
    ASSERT_TRUE(WaitWhileRunning(reader, [&] { return Records(reader.Out()).back()["creator_pid"] == second; }))
        << reader.Err();
    EXPECT_TRUE(Has(reader.Err(), name + ": here, made by process " + std::to_string(second) + "\n")) << reader.Err();
    reader.Signal(SIGINT);
    EXPECT_EQ(reader.Wait(), 0) << reader.Err();
    size_t bytes = 0;
    uint64_t next = 0;
    pid_t creator = first;
    for (const Json &frame : Records(reader.Out())) {
        if (frame["creator_pid"] != creator) {
            creator = frame["creator_pid"];
            next = 0;
        }
        EXPECT_EQ(frame["lost"], 0);
        EXPECT_EQ(frame["sequence"], next++);
        bytes += frame["size_bytes"].get<size_t>();
    }
    EXPECT_EQ(std::filesystem::file_size(dir.File("payload")), bytes);

    host->Signal(SIGKILL);
    EXPECT_EQ(host->Wait(), 256 + SIGKILL);
    EXPECT_TRUE(MemoryLeft(name));
    Child remove(Reading({"remove", name}));
    EXPECT_EQ(remove.Wait(), 0) << remove.Err();
    EXPECT_FALSE(MemoryLeft(name));
    EXPECT_TRUE(Listed(name).is_null());
}
