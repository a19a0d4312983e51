// The built tool as a person or a script starts it.
#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <regex>

#include "run_support.h"

namespace {

std::string Tool() {
    const char *path = std::getenv("GST_SOURCE_TOOL");
    return path != nullptr ? path : "gst-source";
}

std::vector<std::string> Command(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), Tool());
    return arguments;
}

// Lines of the tool itself on standard error, where the library's log goes as well.
std::vector<std::string> Complaints(const std::string &err) {
    std::vector<std::string> own;
    for (const std::string &line : Lines(err)) {
        if (line.rfind("gst-source: ", 0) == 0) {
            own.push_back(line);
        }
    }
    return own;
}

// Breaks off in the midst of its first answer: rtspsrc does not leave a message that it has begun to read,
// until the source loses its patience (2 s) and takes the socket away.
class SilentServer {
  public:
    SilentServer() : m_socket(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof address;
        if (bind(m_socket.Get(), reinterpret_cast<sockaddr *>(&address), length) != 0 || listen(m_socket.Get(), 8) != 0 ||
            getsockname(m_socket.Get(), reinterpret_cast<sockaddr *>(&address), &length) != 0) {
            throw std::runtime_error("no server");
        }
        m_port = ntohs(address.sin_port);
        fcntl(m_socket.Get(), F_SETFL, O_NONBLOCK);
    }
    std::string Url() const { return "rtsp://127.0.0.1:" + std::to_string(m_port) + "/x"; }
    // A client that has connected takes its time to close from then on.
    bool Connected() {
        if (!m_client) {
            m_client = tool::Fd(accept(m_socket.Get(), nullptr, nullptr));
        }
        char request[1024];
        // The answer must not be there before the question.
        if (m_client && !m_answered && recv(m_client.Get(), request, sizeof request, 0) > 0) {
            const std::string half = "RTSP/1.0 200 OK\r\nCSeq: 1\r\nPub";
            m_answered = send(m_client.Get(), half.data(), half.size(), MSG_NOSIGNAL) > 0;
        }
        return m_answered;
    }

  private:
    tool::Fd m_socket;
    tool::Fd m_client;
    bool m_answered = false;
    unsigned short m_port = 0;
};

}  // namespace

TEST(Run, HelpAndVersion) {
    Child help(Command({"--help"}));
    EXPECT_EQ(help.Wait(), 0);
    EXPECT_TRUE(Has(help.Out(), "Usage: gst-source"));
    EXPECT_EQ(help.Err(), "");
    Child version(Command({"--version"}));
    EXPECT_EQ(version.Wait(), 0);
    EXPECT_TRUE(std::regex_match(version.Out(), std::regex("gst-source \\d+\\.\\d+\\.\\d+ "
                                                           "\\(libshb \\d+\\.\\d+\\.\\d+, GStreamer 1\\.\\d+\\.\\d+\\)\n")))
        << version.Out();
}

TEST(Run, WrongCommandLinesOpenNothing) {
    const std::string name = BufferName("run-wrong");
    for (const std::vector<std::string> &arguments :
         std::vector<std::vector<std::string>>{{"--name", name},
                                               {"--name", name, "ftp://127.0.0.1/x"},
                                               {"--name", name, "udp://127.0.0.1:1", "--mtu", "-5"},
                                               {"--name", name, "udp://127.0.0.1:1", "--buffer-mode", "0666"},
                                               {"--name", name, "udp://127.0.0.1:1", "--buffer-group", "no-such-group"}}) {
        Child child(Command(arguments));
        EXPECT_EQ(child.Wait(), 2);
        EXPECT_EQ(child.Out(), "");
        EXPECT_EQ(Lines(child.Err()).size(), 1u) << child.Err();
        EXPECT_FALSE(MemoryLeft(name));
    }
}

TEST(Run, ReadersOfTheGroupAreAskedFor) {
    const std::string name = BufferName("run-mode");
    const std::string url = UdpUrl(FreeUdpPort());
    const std::string group = std::to_string(getgid());
    for (const auto &[flags, mode] : std::vector<std::pair<std::vector<std::string>, mode_t>>{
             {{}, 0600}, {{"--buffer-mode", "0640", "--buffer-group", group}, 0640}, {{"--buffer-mode", "0604"}, 0604}}) {
        std::vector<std::string> command = Command({url, "--name", name});
        command.insert(command.end(), flags.begin(), flags.end());
        Child child(command);
        ASSERT_TRUE(WaitWhileRunning(child, [&child] { return Has(child.Out(), "flow=none"); })) << child.Err();
        struct stat file {};
        ASSERT_EQ(stat(("/dev/shm/" + name).c_str(), &file), 0);
        EXPECT_EQ(file.st_mode & 07777, mode);
        EXPECT_EQ(file.st_gid, getgid());
        child.Signal(SIGTERM);
        EXPECT_EQ(child.Wait(), 1);
        EXPECT_FALSE(MemoryLeft(name));
    }
}

TEST(Run, AGroupOfOthersIsRefused) {
    if (getuid() != 0) {
        GTEST_SKIP() << "only root can be another user";
    }
    const std::string name = BufferName("run-group");
    std::vector<std::string> nobody{"setpriv", "--reuid=65534", "--regid=65534", "--clear-groups"};
    const std::vector<std::string> command =
        Command({UdpUrl(FreeUdpPort()), "--name", name, "--buffer-mode", "0640", "--buffer-group", "0"});
    nobody.insert(nobody.end(), command.begin(), command.end());
    Child child(nobody);
    EXPECT_EQ(child.Wait(), 1);
    EXPECT_EQ(Complaints(child.Err()),
              std::vector<std::string>{"gst-source: the shared buffer " + name +
                                       " cannot be made: this user is not in the group of --buffer-group"});
    EXPECT_FALSE(MemoryLeft(name));
}

// In a small /dev/shm of its own.
TEST(Run, TooLittleSharedMemoryIsCounted) {
    const std::vector<std::string> isolated{"unshare", "--user", "--map-root-user", "--mount", "sh", "-ec"};
    auto probe = isolated;
    probe.emplace_back("mount -t tmpfs -o size=1m none /dev/shm");
    Child allowed(probe);
    if (allowed.Wait() != 0) {
        GTEST_SKIP() << "no mount namespace for tests: " << allowed.Err();
    }
    auto command = isolated;
    command.emplace_back(probe.back() + "\nexec \"$0\" \"$1\" --name small");
    command.push_back(Tool());
    command.push_back(UdpUrl(FreeUdpPort()));
    Child child(command);
    EXPECT_EQ(child.Wait(), 1);
    const std::vector<std::string> complaints = Complaints(child.Err());
    ASSERT_EQ(complaints.size(), 1u) << child.Err();
    const std::string begin = "gst-source: the shared buffer small cannot be made: No space left on device; it takes 9.";
    EXPECT_EQ(complaints[0].rfind(begin, 0), 0u) << complaints[0];
    EXPECT_TRUE(Has(complaints[0], " MB of shared memory, and 1.05 MB are free. Give smaller --video-bytes")) << complaints[0];
}

TEST(Run, NothingArrives) {
    const std::string name = BufferName("run-nothing");
    const std::string first = UdpUrl(FreeUdpPort());
    const std::string second = UdpUrl(FreeUdpPort());
    Child child(Command({first, second, "--duration", "1", "--name", name}));
    EXPECT_EQ(child.Wait(), 1);
    EXPECT_EQ(Complaints(child.Err()),
              std::vector<std::string>{"gst-source: nothing arrived from source 0 " + first + ", source 1 " + second});
    EXPECT_TRUE(Has(child.Out(), "source 0: 0 access units, 0 audio frames, 0 rebuilds  " + first)) << child.Out();
    EXPECT_FALSE(MemoryLeft(name));
}

TEST(Run, LibraryLogStaysOutOfTheOutput) {
    const TempDir dir;
    const std::string url = UdpUrl(FreeUdpPort());
    Child child(Command({url, "--json", "--duration", "1", "--interval", "0.2", "--log", dir.File("log")}));
    EXPECT_EQ(child.Wait(), 1);
    EXPECT_TRUE(Has(ReadAll(dir.File("log")), "[CUDPSource] Open " + url)) << ReadAll(dir.File("log"));
    EXPECT_TRUE(Has(ReadAll(dir.File("log")), "UDP source pthread exit")) << ReadAll(dir.File("log"));
    EXPECT_EQ(Lines(child.Err()), Complaints(child.Err()));
    size_t samples = 0;
    size_t summaries = 0;
    for (const std::string &line : Lines(child.Out())) {
        const Json record = Json::parse(line);
        EXPECT_EQ(record["url"], url);
        samples += record["type"] == "sample" ? 1U : 0U;
        summaries += record["type"] == "summary" ? 1U : 0U;
    }
    EXPECT_GE(samples, 2u);
    EXPECT_EQ(summaries, 1u);
}

// The library's log tells what an open call was given; the values are all
// different, so that none can take another's place.
TEST(Run, EveryOptionReachesItsOpenCall) {
    // Nobody listens there.
    const std::string address = "127.0.0.1:" + std::to_string(FreeUdpPort());
    Child child(Command(Words(
        "udp://" + address + " rtsp://" + address + "/a srt://" + address + " rtmp://" + address + "/b/c http://" + address +
        "/d.m3u8 --caching=101 --user=u1 --protocols=5 --rtsp-latency=102 --rtsp-contimeout=103 "
        "--mode=rendezvous --streamid=s1 --keylen=24 --srt-latency=104 --tslatency=105 --localaddress=127.0.0.1 "
        "--rtmp-contimeout=106 --idle-timeout=107 --ts-latency=108 --mtu=1109 --hls-timeout=110 --retries=1 --islive=2 "
        "--proxy=http://" +
        address + " --proxy-id=p1 --user-agent=agent")));
    const std::vector<std::string> lines = {
        "[CUDPSource] Open udp://" + address + "... {Opts:caching=101,ts_latency=108,mtu=1109}",
        "[CRtspSource] Open rtsp://" + address +
            "/a... {Opts:caching=101,protocols=5,latency=102,contimeout=103000000,user=u1,pwd=}",
        "[CSrtSource] Open srt://" + address +
            "... {Opts:caching=101,mode=rendezvous,streamid=s1,passphrase=,keylen=24,latency=104,tslatency=105,"
            "localaddress=127.0.0.1}",
        "[CRtmpSource] Open rtmp://" + address +
            "/b/c... {Opts:caching=101,contimeout=106,idle_timeout=107,user=u1,pwd=,token=}",
        "[CHLSSource] Open http://" + address + "/d.m3u8 { Opts: caching=101,islive=1,timeout=110,retries=1,proxy=http://" +
            address + ",proxy_id=p1,proxy_pwd=,user_agent=agent }"};
    // Sources open one after another.
    for (const std::string &line : lines) {
        EXPECT_TRUE(WaitWhileRunning(child, [&] { return Has(child.Err(), line); })) << line << "\nis not in\n" << child.Err();
    }
    child.Signal(SIGTERM);
    EXPECT_EQ(child.Wait(), 1);
}

TEST(Run, SecretsAreMaskedInTheLog) {
    // Nobody listens there.
    const std::string url = "rtsp://127.0.0.1:" + std::to_string(FreeUdpPort()) + "/live";
    Child child(Command({url, "--duration", "0.5"}), {{"GST_SOURCE_USER", "somebody"}, {"GST_SOURCE_PASSWORD", "Geheim-4711"}});
    EXPECT_EQ(child.Wait(), 1);
    EXPECT_TRUE(Has(child.Err(), "user=somebody,pwd=***}")) << child.Err();
    EXPECT_FALSE(Has(child.Err() + child.Out(), "Geheim-4711"));
}

TEST(Run, MissingSinkIsNamed) {
    const TempDir dir;
    const auto without = [&dir](const std::string &registry) {
        return Child::Variables{{"GST_PLUGIN_PATH", dir.File("none")},
                                {"GST_PLUGIN_SYSTEM_PATH", dir.File("none")},
                                {"GST_REGISTRY", dir.File(registry)}};
    };
    // A copy elsewhere has no plug-in beside it; the libraries are where they were.
    const std::filesystem::path built = std::getenv("GST_SOURCE_TOOL");
    const std::filesystem::path build = built.parent_path().parent_path().parent_path();
    std::filesystem::copy(built, dir.File("gst-source"));
    auto moved = without("one");
    moved["LD_LIBRARY_PATH"] = (build / "src").string() + ":" + (build / "shbsink").string();
    Child child({dir.File("gst-source"), UdpUrl(FreeUdpPort())}, moved);
    EXPECT_EQ(child.Wait(), 1);
    ASSERT_EQ(Complaints(child.Err()).size(), 1u) << child.Err();
    EXPECT_EQ(Complaints(child.Err())[0],
              "gst-source: the GStreamer element \"shbsink\" is missing; GST_PLUGIN_PATH must name the directory of "
              "libgstshbsink.so");

    // The program that was built knows where its plug-in has been built, although GStreamer does not: what it lacks is the
    // rest of the chain.
    Child found(Command({UdpUrl(FreeUdpPort())}), without("two"));
    EXPECT_EQ(found.Wait(), 1);
    EXPECT_FALSE(Has(found.Err(), "\"shbsink\" is missing")) << found.Err();
    EXPECT_TRUE(Has(found.Err(), "\"udpsrc\" is missing")) << found.Err();
}

TEST(Run, BufferNameInUse) {
    const std::string name = BufferName("run-inuse");
    Child first(Command({UdpUrl(FreeUdpPort()), "--name", name}));
    ASSERT_TRUE(WaitWhileRunning(first, [&name] { return MemoryLeft(name); }));
    Child second(Command({UdpUrl(FreeUdpPort()), "--name", name, "--duration", "1"}));
    EXPECT_EQ(second.Wait(), 1);
    EXPECT_TRUE(Has(second.Err(), "gst-source: the shared buffer " + name + " cannot be made")) << second.Err();
    EXPECT_TRUE(MemoryLeft(name));
    first.Signal(SIGTERM);
    EXPECT_TRUE(first.Wait());
}

TEST(Run, FileThatCannotBeWritten) {
    const std::string name = BufferName("run-unwritable");
    for (const char *flag : {"--dump-video", "--log"}) {
        Child child(Command({UdpUrl(FreeUdpPort()), "--name", name, flag, "/nonexistent/file"}));
        EXPECT_EQ(child.Wait(), 1);
        EXPECT_TRUE(Has(child.Err(), "gst-source: /nonexistent/file: No such file or directory")) << child.Err();
        EXPECT_FALSE(MemoryLeft(name));
    }
}

class RunSignal : public ::testing::TestWithParam<int> {};

TEST_P(RunSignal, EndsWithSummaryAndWithoutTrace) {
    const std::string name = BufferName("run-signal");
    const std::string url = UdpUrl(FreeUdpPort());
    Sender sender(url);
    Child child(Command({url, "--name", name, "--interval", "0.1"}));
    ASSERT_TRUE(WaitWhileRunning(child, [&child] { return Has(child.Out(), "flow=live"); })) << child.Err();
    EXPECT_TRUE(MemoryLeft(name));
    child.Signal(GetParam());
    EXPECT_EQ(child.Wait(), 0) << child.Err();
    EXPECT_TRUE(Has(Lines(child.Out()).back(), "source 0: ")) << child.Out();
    EXPECT_TRUE(Complaints(child.Err()).empty()) << child.Err();
    EXPECT_FALSE(MemoryLeft(name));
}

INSTANTIATE_TEST_SUITE_P(Signals, RunSignal, ::testing::Values(SIGINT, SIGTERM, SIGHUP));

TEST(Run, SignalBeforeAnythingArrived) {
    const std::string name = BufferName("run-early");
    Child child(Command({UdpUrl(FreeUdpPort()), "--name", name}));
    ASSERT_TRUE(WaitWhileRunning(child, [&name] { return MemoryLeft(name); }));
    child.Signal(SIGINT);
    EXPECT_EQ(child.Wait(), 1);
    EXPECT_EQ(Complaints(child.Err()).size(), 1u) << child.Err();
    EXPECT_FALSE(MemoryLeft(name));
}

TEST(Run, CrashLeavesNoMemory) {
    const std::string name = BufferName("run-crash");
    Child child(Command({UdpUrl(FreeUdpPort()), "--name", name}));
    ASSERT_TRUE(WaitWhileRunning(child, [&child] { return Has(child.Err(), "pthread start"); }));
    const std::vector<std::string> files = MemoryOf(name);
    EXPECT_EQ(files.size(), 3u);
    child.Signal(SIGABRT);
    EXPECT_EQ(child.Wait(), 256 + SIGABRT);
    for (const std::string &file : files) {
        EXPECT_FALSE(std::filesystem::exists(file)) << file;
    }
}

TEST(Run, SecondSignalLeavesASourceThatDoesNotClose) {
    const std::string name = BufferName("run-second");
    SilentServer server;
    Child child(Command({server.Url(), "--name", name, "--close-timeout", "1000"}));
    ASSERT_TRUE(WaitWhileRunning(child, [&server] { return server.Connected(); })) << child.Err();
    EXPECT_TRUE(MemoryLeft(name));
    // Signals come in quick succession, as from an impatient
    // person; those right after the first do not count.
    ASSERT_TRUE(WaitFor([&child] {
        child.Signal(SIGINT);
        return !child.Running();
    }));
    EXPECT_EQ(child.Wait(), 130);
    EXPECT_FALSE(MemoryLeft(name));
}

TEST(Run, SourceThatDoesNotCloseIsLeftAfterAWhile) {
    const std::string name = BufferName("run-hanging");
    SilentServer server;
    Child child(Command({server.Url(), "--name", name, "--duration", "1", "--close-timeout", "0.2"}));
    ASSERT_TRUE(WaitWhileRunning(child, [&server] { return server.Connected(); })) << child.Err();
    EXPECT_EQ(child.Wait(), 1);
    EXPECT_TRUE(Has(child.Err(), "gst-source: did not close in time, left as it is: " + server.Url())) << child.Err();
    EXPECT_FALSE(MemoryLeft(name));
}

TEST(Run, FramesJsonAndDumpsOfARealStream) {
    const TempDir dir;
    const std::string name = BufferName("run-frames");
    const std::string url = UdpUrl(FreeUdpPort());
    Sender sender(url);
    Child child(Command({url, "--json", "--frames", "50", "--duration", "60", "--interval", "0.2", "--name", name,
                         "--dump-video", dir.File("video.h264"), "--dump-audio", dir.File("audio.aac")}));
    ASSERT_EQ(child.Wait(), 0) << child.Err();
    EXPECT_FALSE(MemoryLeft(name));

    const std::vector<std::string> lines = Lines(child.Out());
    ASSERT_GE(lines.size(), 3u);
    const Json sample = Json::parse(lines[lines.size() - 2]);
    ExpectFields(sample, {{"type", "sample"},
                          {"state", "connected"},
                          {"flow", "live"},
                          {"video_codec", "H264"},
                          {"video_width_px", 320},
                          {"video_height_px", 180},
                          {"video_scan", "progressive"},
                          {"video_announced_fps", 25.0}});
    EXPECT_GT(sample["video_bitrate_bps"], 0);
    ExpectFields(sample, {{"audio_codec", "AAC"}, {"audio_sample_rate_hz", 48000}, {"audio_channels", 2}});

    const Json summary = Json::parse(lines.back());
    ExpectFields(summary, {{"type", "summary"}, {"delivered", true}, {"rebuilds", 0}});
    EXPECT_GE(summary["video_frames"], 50);
    ExpectFields(summary, {{"video_dumped_frames", summary["video_frames"]},
                           {"audio_dumped_frames", summary["audio_frames"]},
                           {"video_lost_frames", 0}});
    EXPECT_EQ(std::filesystem::file_size(dir.File("video.h264")), summary["video_bytes"]);
    EXPECT_EQ(std::filesystem::file_size(dir.File("audio.aac")), summary["audio_bytes"]);

    // Another program finds the same number of access units and frames in the files.
    for (const auto &[file, key] : {std::pair("video.h264", "video_frames"), std::pair("audio.aac", "audio_frames")}) {
        Child probe({"ffprobe", "-v", "error", "-count_packets", "-show_entries", "stream=nb_read_packets", "-of", "csv=p=0",
                     dir.File(file)});
        ASSERT_EQ(probe.Wait(), 0) << probe.Err();
        EXPECT_EQ(std::stoul(probe.Out()), summary[key]) << file;
    }
}

TEST(Run, DumpToStandardOutputIsTheStreamAndNothingElse) {
    const std::string url = UdpUrl(FreeUdpPort());
    Sender sender(url);
    Child child(Command({url, "--frames", "10", "--dump-video", "-"}));
    ASSERT_EQ(child.Wait(), 0) << child.Err();
    EXPECT_EQ(child.Out().compare(0, 4, std::string("\0\0\0\1", 4)), 0);
    EXPECT_FALSE(Has(child.Out(), "source"));
    EXPECT_TRUE(Has(child.Err(), "video dump: ")) << child.Err();
}

TEST(Run, FramesOfASoundOnlyStream) {
    const std::string url = UdpUrl(FreeUdpPort());
    Sender sender(url, false);
    Child child(Command({url, "--frames", "20"}));
    EXPECT_EQ(child.Wait(), 0) << child.Err();
    EXPECT_TRUE(Has(child.Out(), "source 0: 0 access units, ")) << child.Out();
}

TEST(Run, TimeRunsOutBeforeTheFrames) {
    const std::string url = UdpUrl(FreeUdpPort());
    Sender sender(url);
    Child child(Command({url, "--frames", "1000000", "--duration", "5"}));
    EXPECT_EQ(child.Wait(), 1);
    EXPECT_EQ(Complaints(child.Err()),
              std::vector<std::string>{"gst-source: the time ran out before every source had delivered 1000000 frames"});
}

TEST(Run, StallWatchEndsASessionWhoseSenderFallsSilent) {
    const std::string url = UdpUrl(FreeUdpPort());
    Sender sender(url);
    Child child(Command({url, "--stall-watch", "1", "--interval", "0.1"}));
    ASSERT_TRUE(WaitWhileRunning(child, [&child] { return Has(child.Out(), "flow=live"); })) << child.Err();
    const char *error = "DoBusMessage--------------error!!";
    EXPECT_FALSE(Has(child.Err(), error)) << child.Err();
    sender.Signal(SIGSTOP);
    ASSERT_TRUE(WaitWhileRunning(child, [&] { return Has(child.Err(), error); })) << child.Err();
    // It was not the source element's own look at the silence, which takes 5 s and says so.
    EXPECT_FALSE(Has(child.Err().substr(0, child.Err().find(error)), "GstUDPSrcTimeout")) << child.Err();
    sender.Signal(SIGCONT);
    ASSERT_TRUE(WaitWhileRunning(child, [&child] { return Has(child.Err(), "UDP source reconnect..."); })) << child.Err();
    const size_t before = child.Out().size();
    EXPECT_TRUE(WaitWhileRunning(child, [&] {
        return Has(child.Out().substr(before), "state=connected flow=live rebuilds=1");
    })) << child.Err();
    child.Signal(SIGTERM);
    EXPECT_EQ(child.Wait(), 0);
}

TEST(Run, OneSilentSourceAmongSeveralIsNamed) {
    const std::string good = UdpUrl(FreeUdpPort());
    const std::string silent = UdpUrl(FreeUdpPort());
    Sender sender(good);
    Child child(Command({good, silent, "--interval", "0.1"}));
    ASSERT_TRUE(WaitWhileRunning(child, [&child] { return Has(child.Out(), "flow=live"); })) << child.Err();
    child.Signal(SIGTERM);
    EXPECT_EQ(child.Wait(), 1);
    // On a slow machine it has been silent for long enough to say why.
    const std::vector<std::string> complaints = Complaints(child.Err());
    ASSERT_EQ(complaints.size(), 1u) << child.Err();
    const std::string named = "gst-source: nothing arrived from source 1 " + silent;
    EXPECT_TRUE(complaints[0] == named || complaints[0] == named + ": No data came for 5 s") << complaints[0];
}

TEST(Run, EndsWhenNobodyReadsItsReports) {
    const std::string name = BufferName("run-pipe");
    Child child(Command({UdpUrl(FreeUdpPort()), "--name", name, "--interval", "0.1"}), {}, Child::Output::kClosedPipe);
    EXPECT_EQ(child.Wait(), 1);
    EXPECT_EQ(Complaints(child.Err()).size(), 1u) << child.Err();
    EXPECT_TRUE(Has(child.Err(), "gst-source: nothing arrived from source 0")) << child.Err();
    EXPECT_FALSE(MemoryLeft(name));
}

TEST(Run, FullDiskIsNamed) {
    const std::string url = UdpUrl(FreeUdpPort());
    Sender sender(url);
    Child child(Command({url, "--dump-video", "/dev/full"}));
    EXPECT_EQ(child.Wait(), 1);
    EXPECT_EQ(Complaints(child.Err()), std::vector<std::string>{"gst-source: /dev/full: No space left on device"});
}

TEST(RunOnATerminal, DrawsInPlaceAndGivesTheCursorBack) {
    const std::string name = BufferName("run-terminal");
    const std::string url = UdpUrl(FreeUdpPort());
    Sender sender(url);
    Child child(Command({url, "--name", name, "-v"}), {{"TERM", "xterm"}, {"NO_COLOR", ""}}, Child::Output::kTerminal);
    ASSERT_TRUE(WaitWhileRunning(child, [&child] { return Has(child.Screen(), "320x180p"); })) << child.Screen();
    EXPECT_TRUE(Has(child.Screen(), "\x1b[?25l"));
    EXPECT_TRUE(Has(child.Screen(), "\x1b[32mconnected")) << child.Screen();
    // The library's log has its place under the table, and the old frame is overwritten.
    EXPECT_TRUE(WaitWhileRunning(child, [&child] { return Has(child.Screen(), "log: "); })) << child.Screen();
    EXPECT_TRUE(Has(child.Screen(), "A\x1b[2K"));
    EXPECT_FALSE(Has(child.Screen(), "\x1b[H\x1b[2J"));
    child.Resize(60, 20);
    EXPECT_TRUE(WaitWhileRunning(child, [&child] { return Has(child.Screen(), "\x1b[H\x1b[2J"); }));
    // The terminal turns ^C into the signal.
    child.Signal(SIGINT);
    EXPECT_EQ(child.Wait(), 0) << child.Screen();
    const std::string &screen = child.Screen();
    EXPECT_GT(screen.rfind("\x1b[?25h"), screen.rfind("\x1b[?25l")) << screen;
    EXPECT_TRUE(Has(screen, "source 0: "));
    EXPECT_FALSE(MemoryLeft(name));
}

TEST(RunOnATerminal, RespectsNoColor) {
    for (const auto &[mode, colored] : {std::pair("auto", false), std::pair("always", true)}) {
        Child child(Command({UdpUrl(FreeUdpPort()), "--duration", "0.3", "--color", mode}),
                    {{"TERM", "xterm"}, {"NO_COLOR", "1"}}, Child::Output::kTerminal);
        EXPECT_EQ(child.Wait(), 1);
        EXPECT_EQ(Has(child.Screen(), "\x1b[33m"), colored) << child.Screen();
    }
}

TEST(RunOnATerminal, SimpleTerminalsGetLines) {
    Child child(Command({UdpUrl(FreeUdpPort()), "--interval", "0.1"}), {{"TERM", "dumb"}}, Child::Output::kTerminal);
    EXPECT_TRUE(WaitWhileRunning(child, [&child] { return Has(child.Screen(), "type=sample "); })) << child.Screen();
    child.Signal(SIGTERM);
    EXPECT_EQ(child.Wait(), 1);
    EXPECT_FALSE(Has(child.Screen(), "\x1b")) << child.Screen();
}

TEST(RunOnATerminal, CrashShowsTheCursorAndTheLog) {
    Child child(Command({UdpUrl(FreeUdpPort()), "-v"}), {{"TERM", "xterm"}}, Child::Output::kTerminal);
    ASSERT_TRUE(WaitWhileRunning(child, [&child] { return Has(child.Screen(), "pthread start"); })) << child.Screen();
    const size_t before = child.Screen().size();
    child.Signal(SIGABRT);
    EXPECT_EQ(child.Wait(), 256 + SIGABRT);
    const std::string after = child.Screen().substr(before);
    EXPECT_TRUE(Has(after, "\x1b[?25h")) << after;
    EXPECT_TRUE(Has(after, "UDP source pthread start...")) << after;
}
