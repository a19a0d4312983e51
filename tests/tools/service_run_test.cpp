// The built tool with a file of sources: reloads, restarts, what it refuses, and what a service manager gets to know.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>

#include "http_client.h"
#include "run_support.h"
#include "shb.h"

namespace {

std::string Tool() {
    const char *path = std::getenv("GST_SOURCE_TOOL");
    return path != nullptr ? path : "gst-source";
}

struct Detach {
    void operator()(shb_map_t *map) const { shb_detach(map); }
    void operator()(shb_reader_t *reader) const { shb_reader_close(reader); }
};
using Map = std::unique_ptr<shb_map_t, Detach>;
using Reader = std::unique_ptr<shb_reader_t, Detach>;

Map Attach(const std::string &name) {
    shb_map_t *map = nullptr;
    return Map(shb_attach(name.c_str(), &map) == SHB_OK ? map : nullptr);
}

shb_stats_t VideoOf(const Map &map) {
    shb_stats_t stats{};
    EXPECT_EQ(shb_map_stats(map.get(), 0, 0, SHB_VIDEO, &stats), SHB_OK);
    return stats;
}

// The port that the kernel has chosen, once the tool has named it; 0 when it does not.
uint16_t HttpPort(Child &child) {
    const std::string begin = "page, metrics and API at http://127.0.0.1:";
    EXPECT_TRUE(WaitWhileRunning(child, [&] { return Has(child.Err(), begin); })) << child.Err();
    const std::string err = child.Err();
    const size_t at = err.find(begin);
    return at == std::string::npos ? uint16_t{0} : static_cast<uint16_t>(std::stoul(err.substr(at + begin.size())));
}

int Restart(uint16_t port, const std::string &source) {
    return StatusOf(
        Fetch(port, "/api/sources/" + source + "/restart", "POST", "X-Requested-With: test\r\nContent-Length: 0\r\n"));
}

Json SourceOf(uint16_t port, const std::string &source) {
    return Json::parse(BodyOf(Fetch(port, "/api/sources/" + source)), nullptr, false);
}

// Whether the process is the tool by now and takes or holds back the signal, as the kernel says.
bool Minds(pid_t process, int number) {
    std::ifstream status("/proc/" + std::to_string(process) + "/status");
    uint64_t minded = 0;
    bool is_tool = false;
    for (std::string key, value; status >> key >> value;) {
        // A fork blocks every signal for a moment, long before the tool is there.
        is_tool = is_tool || (key == "Name:" && value == "gst-source");
        if (key == "SigBlk:" || key == "SigCgt:") {
            minded |= std::stoull(value, nullptr, 16);
        }
    }
    return is_tool && (minded >> (number - 1) & 1U) != 0;
}

// A file of sources with names that no other test has, and the tool that has it open.
class Service : public testing::Test {
  protected:
    std::string Name(const std::string &source) const { return BufferName("service") + "-" + source; }

    std::string SourceText(const std::string &source, const std::string &url, const std::string &more = "") const {
        return "[[source]]\nname = \"" + Name(source) + "\"\nurl = \"" + url + "\"\n" + more;
    }

    void Write(const std::string &text) { m_file = m_dir.Write("sources.toml", text); }

    Child::Variables Environment() const { return {{"XDG_RUNTIME_DIR", m_dir.File("")}, {"RUNTIME_DIRECTORY", ""}}; }

    std::unique_ptr<Child> Start(std::vector<std::string> more = {}, const Child::Variables &variables = {}) {
        more.insert(more.begin(), {Tool(), "--config", m_file, "--interval", "0.2"});
        Child::Variables all = Environment();
        all.insert(variables.begin(), variables.end());
        return std::make_unique<Child>(more, all);
    }

    // The last record of each source, by the name in the file.
    std::map<std::string, Json> Newest(Child &child) const {
        std::map<std::string, Json> newest;
        for (const std::string &line : Lines(child.Out())) {
            const Json record = Json::parse(line, nullptr, false);
            if (!record.is_discarded()) {
                newest[record.at("name").get<std::string>().substr(Name("").size())] = record;
            }
        }
        return newest;
    }

    // The names of the sources in the last round of reports.
    bool Reports(Child &child, const std::string &source, const Json &expected) const {
        const auto newest = Newest(child);
        const auto found = newest.find(source);
        if (found == newest.end()) {
            return false;
        }
        for (const auto &[key, value] : expected.items()) {
            if (found->second.at(key) != value) {
                return false;
            }
        }
        return true;
    }

    int Reload(std::string &text) {
        Child reload({Tool(), "reload", m_file}, Environment());
        const int result = reload.Wait().value_or(-1);
        text = reload.Out() + reload.Err();
        return result;
    }

    static void ExpectOrderlyEnd(Child &child) {
        child.Signal(SIGTERM);
        EXPECT_EQ(child.Wait(), 0) << child.Err();
    }

    TempDir m_dir;
    std::string m_file;
};

}  // namespace

TEST_F(Service, ReloadTouchesOnlyWhatHasChanged) {
    const std::array<std::string, 4> urls{UdpUrl(FreeUdpPort()), UdpUrl(FreeUdpPort()), UdpUrl(FreeUdpPort()),
                                          UdpUrl(FreeUdpPort())};
    Write(SourceText("stays", urls[0]) + SourceText("changes", urls[1]) + SourceText("goes", urls[2]));
    const auto child = Start({"--json"});
    ASSERT_TRUE(WaitWhileRunning(*child, [&] { return Reports(*child, "goes", {{"state", "connected"}}); })) << child->Err();
    const Sender stays(urls[0]);
    const Sender changes(urls[1]);
    ASSERT_TRUE(WaitWhileRunning(*child, [&] {
        return Reports(*child, "stays", {{"flow", "live"}}) && Reports(*child, "changes", {{"flow", "live"}});
    })) << child->Err();
    const Map untouched = Attach(Name("stays"));
    const Map changed = Attach(Name("changes"));
    ASSERT_TRUE(untouched && changed && Attach(Name("goes")));
    const uint64_t epoch = VideoOf(untouched).epoch;
    const uint64_t earlier = VideoOf(changed).epoch;

    Write(SourceText("stays", urls[0]) + SourceText("changes", urls[1], "mtu = 1400\n") + SourceText("comes", urls[3]));
    std::string text;
    EXPECT_EQ(Reload(text), 0);
    EXPECT_EQ(text, m_file + ": 1 added, 1 removed, 1 changed, 1 untouched\n");
    EXPECT_TRUE(WaitWhileRunning(*child, [&] { return Reports(*child, "comes", {{"state", "connected"}}); })) << child->Err();
    // The same buffer, with another writer: its readers need not attach again.
    EXPECT_TRUE(WaitWhileRunning(*child, [&] { return VideoOf(changed).epoch > earlier && VideoOf(changed).frames > 0; }));
    EXPECT_EQ(shb_map_alive(changed.get()), 1);
    EXPECT_EQ(VideoOf(untouched).epoch, epoch);
    EXPECT_TRUE(WaitWhileRunning(*child, [&] { return !MemoryLeft(Name("goes")); }));

    EXPECT_EQ(Reload(text), 0);
    EXPECT_EQ(text, m_file + ": 0 added, 0 removed, 0 changed, 3 untouched\n");
    ExpectOrderlyEnd(*child);
    for (const char *source : {"stays", "changes", "goes", "comes"}) {
        EXPECT_FALSE(MemoryLeft(Name(source))) << source;
    }
}

TEST_F(Service, WrongFilesChangeNothing) {
    const std::string url = UdpUrl(FreeUdpPort());
    Write(SourceText("a", url));
    const auto child = Start({"--json"});
    ASSERT_TRUE(WaitWhileRunning(*child, [&] { return Reports(*child, "a", {{"state", "connected"}}); })) << child->Err();
    const Map map = Attach(Name("a"));
    ASSERT_TRUE(map);
    Write(SourceText("b", url) + "mtuu = 3\n");
    std::string text;
    EXPECT_EQ(Reload(text), 2);
    EXPECT_EQ(text, m_file + ":4:1: unknown option \"mtuu\" of a source of udp; did you mean mtu?\n" + m_file +
                        ": nothing was changed\n");
    // By the signal as well.
    child->Signal(SIGHUP);
    EXPECT_TRUE(
        WaitWhileRunning(*child, [&] { return Lines(child->Err()).size() > 4 && Has(child->Err(), "nothing was changed"); }));
    EXPECT_TRUE(Attach(Name("a")));
    EXPECT_FALSE(Attach(Name("b")));
    Write(SourceText("a", url) + SourceText("b", UdpUrl(FreeUdpPort())));
    child->Signal(SIGHUP);
    EXPECT_TRUE(WaitWhileRunning(*child, [&] { return Attach(Name("b")) != nullptr; })) << child->Err();
    ExpectOrderlyEnd(*child);
}

TEST_F(Service, ASourceThatGoesAndComesBackAtOnce) {
    const std::string url = UdpUrl(FreeUdpPort());
    const std::string other = SourceText("b", UdpUrl(FreeUdpPort()));
    Write(SourceText("a", url) + other);
    const auto child = Start({"--json"});
    ASSERT_TRUE(WaitWhileRunning(*child, [&] { return Reports(*child, "a", {{"state", "connected"}}); })) << child->Err();
    const Sender sender(url);
    std::string text;
    for (int round = 0; round < 3; ++round) {
        Write(other);
        EXPECT_EQ(Reload(text), 0) << text;
        Write(SourceText("a", url) + other);
        EXPECT_EQ(Reload(text), 0) << text;
    }
    const auto seen = Newest(*child)["a"]["video_frames"];
    EXPECT_TRUE(WaitWhileRunning(*child,
                                 [&] {
                                     const Map map = Attach(Name("a"));
                                     return map && VideoOf(map).frames > 20;
                                 }))
        << seen << child->Err();
    ExpectOrderlyEnd(*child);
}

TEST_F(Service, OneRunAFile) {
    Write(SourceText("a", UdpUrl(FreeUdpPort())));
    std::string text;
    EXPECT_EQ(Reload(text), 1);
    EXPECT_EQ(text, "gst-source: no run of this user has " + m_file + " open\n");
    const auto child = Start({"--json"});
    ASSERT_TRUE(WaitWhileRunning(*child, [&] { return Reports(*child, "a", {{"state", "connected"}}); })) << child->Err();
    const auto second = Start();
    EXPECT_EQ(second->Wait(), 1);
    EXPECT_TRUE(Has(second->Err(), "another run has this file open (process " + std::to_string(child->Id()) + ")"))
        << second->Err();
    // A run that was killed leaves its socket behind, which holds up nobody.
    child->Signal(SIGKILL);
    EXPECT_EQ(child->Wait(), 256 + SIGKILL);
    const auto third = Start({"--json"});
    EXPECT_TRUE(WaitWhileRunning(*third, [&] { return Reports(*third, "a", {{"state", "connected"}}); })) << third->Err();
    ExpectOrderlyEnd(*third);
}

TEST_F(Service, OneSourceOfTheFile) {
    const std::string url = UdpUrl(FreeUdpPort());
    Write("[service]\nhttp = \"127.0.0.1:1\"\n" + SourceText("a", UdpUrl(FreeUdpPort())) + SourceText("b", url));
    const auto child = Start({"--json", "--only", Name("b")});
    ASSERT_TRUE(WaitWhileRunning(*child, [&] { return Reports(*child, "b", {{"state", "connected"}}); })) << child->Err();
    EXPECT_FALSE(Attach(Name("a")));
    // Both are asked.
    const auto other = Start({"--json", "--only", Name("a")});
    ASSERT_TRUE(WaitWhileRunning(*other, [&] { return Reports(*other, "a", {{"state", "connected"}}); })) << other->Err();
    std::string text;
    EXPECT_EQ(Reload(text), 0);
    EXPECT_EQ(Lines(text).size(), 2u) << text;
    const auto none = Start({"--only", "nobody"});
    EXPECT_EQ(none->Wait(), 2);
    EXPECT_EQ(none->Err(), m_file + ": no source is called \"nobody\"\n");
    ExpectOrderlyEnd(*child);
    ExpectOrderlyEnd(*other);
}

TEST_F(Service, APortThatAnotherProcessHasIsWaitedFor) {
    const std::string url = UdpUrl(FreeUdpPort());
    Write(SourceText("a", url));
    Child first({Tool(), url, "--json", "--interval", "0.2", "--name", BufferName("service-port")});
    ASSERT_TRUE(WaitWhileRunning(first, [&first] { return Has(first.Out(), "connected"); })) << first.Err();
    const auto child = Start({"--json"});
    EXPECT_TRUE(WaitWhileRunning(*child, [&] {
        return Reports(*child, "a", {{"state", "failed"}, {"last_error_code", "port-in-use"}});
    })) << child->Err();
    const std::string reason = Newest(*child)["a"].at("last_error").get<std::string>();
    EXPECT_TRUE(Has(reason, "gst-source (process " + std::to_string(first.Id()) + ")")) << reason;
    // Without a file, it is an error at once.
    Child second({Tool(), url});
    EXPECT_EQ(second.Wait(), 1);
    EXPECT_TRUE(Has(second.Err(), "(process " + std::to_string(first.Id()) + ")")) << second.Err();
    first.Signal(SIGTERM);
    first.Wait();
    EXPECT_TRUE(WaitWhileRunning(*child, [&] { return Reports(*child, "a", {{"state", "connected"}}); })) << child->Err();
    ExpectOrderlyEnd(*child);
}

TEST_F(Service, TheServiceManagerIsNotified) {
    const std::string path = m_dir.File("notify");
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    ASSERT_LT(path.size(), sizeof address.sun_path);
    path.copy(static_cast<char *>(address.sun_path), path.size());
    const tool::Fd socket(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    ASSERT_EQ(bind(socket.Get(), reinterpret_cast<const sockaddr *>(&address), sizeof address), 0);
    std::string messages;
    const auto received = [&](const std::string &text) {
        std::array<char, 512> message{};
        for (ssize_t got = 0; (got = recv(socket.Get(), message.data(), message.size(), 0)) > 0;) {
            messages.append(message.data(), static_cast<size_t>(got)).append("|");
        }
        return Has(messages, text);
    };
    // A camera that is off keeps nothing from being ready.
    Write(SourceText("a", UdpUrl(FreeUdpPort())) + SourceText("b", "rtsp://127.0.0.1:1/off"));
    const auto child = Start({}, {{"NOTIFY_SOCKET", path}, {"WATCHDOG_USEC", "5000000"}});
    EXPECT_TRUE(WaitWhileRunning(*child, [&] { return received("READY=1\nSTATUS=0 of 2 sources live"); }))
        << messages << child->Err();
    EXPECT_TRUE(WaitWhileRunning(*child, [&] { return received("WATCHDOG=1"); })) << messages;
    child->Signal(SIGTERM);
    EXPECT_EQ(child->Wait(), 0);
    EXPECT_TRUE(received("STOPPING=1")) << messages;
    EXPECT_EQ(child->Out(), "") << "a service does not report by lines";
}

TEST_F(Service, WhatKeepsItFromStartingIsAnErrorInTheJournal) {
    const std::string journal = "JOURNAL_STREAM=$(stat -L -c %d:%i /dev/fd/2) exec \"$@\"";
    Write(SourceText("a", UdpUrl(FreeUdpPort()), "mtuu = 3\n"));
    Child mistake({"sh", "-c", journal, "sh", Tool(), "--config", m_file}, Environment());
    EXPECT_EQ(mistake.Wait(), 2);
    EXPECT_EQ(mistake.Err(), "<3>" + m_file + ":4:1: unknown option \"mtuu\" of a source of udp; did you mean mtu?\n");
    Write(SourceText("a", UdpUrl(FreeUdpPort())));
    Child failure({"sh", "-c", journal, "sh", Tool(), "--config", m_file, "--log", m_dir.File("none/log")}, Environment());
    EXPECT_EQ(failure.Wait(), 1);
    EXPECT_EQ(failure.Err(), "<3>gst-source: " + m_dir.File("none/log") + ": No such file or directory\n");
}

TEST_F(Service, AThousandSourcesThatDoNotFitAreRefusedWithFigures) {
    std::string text;
    for (int i = 0; i < 1000; ++i) {
        text += SourceText(std::to_string(i), "udp://127.0.0.1:" + std::to_string(20000 + i), "video_bytes = \"1G\"\n");
    }
    Write(text);
    const auto child = Start();
    EXPECT_EQ(child->Wait(), 1);
    EXPECT_TRUE(Has(child->Err(), "gst-source: 1000 sources take 1.07 TB of shared memory, and ")) << child->Err();
    EXPECT_FALSE(MemoryLeft(Name("0")));
}

TEST_F(Service, ARestartByTheApiKeepsReadersAndCounters) {
    const std::string url = UdpUrl(FreeUdpPort());
    Write(SourceText("a", url) + SourceText("b", UdpUrl(FreeUdpPort())));
    const auto child = Start({"--http", "127.0.0.1:0"});
    const uint16_t port = HttpPort(*child);
    ASSERT_NE(port, 0);
    const Sender sender(url);
    ASSERT_TRUE(WaitWhileRunning(*child, [&] { return SourceOf(port, Name("a")).value("flow", "") == "live"; }))
        << child->Err();
    const Map map = Attach(Name("a"));
    ASSERT_TRUE(map);
    shb_reader_t *opened = nullptr;
    ASSERT_EQ(shb_reader_open(map.get(), 0, 0, SHB_VIDEO, SHB_START_OLDEST, &opened), SHB_OK);
    const Reader reader(opened);
    EXPECT_EQ(Restart(port, "nobody"), 404);
    uint64_t frames = 0;
    for (unsigned restart = 1; restart <= 3; ++restart) {
        const uint64_t epoch = VideoOf(map).epoch;
        EXPECT_EQ(Restart(port, Name("a")), 202);
        EXPECT_TRUE(WaitWhileRunning(*child, [&] {
            const Json source = SourceOf(port, Name("a"));
            return VideoOf(map).epoch > epoch && source.value("flow", "") == "live" && source.value("rebuilds", 0U) == restart;
        })) << SourceOf(port, Name("a"));
        const Json source = SourceOf(port, Name("a"));
        EXPECT_EQ(source.at("rebuild_reasons"), Json({{"restart", restart}}));
        EXPECT_GE(source.at("video_frames").get<uint64_t>(), frames);
        EXPECT_LE(source.at("video_key_frames"), source.at("video_frames"));
        frames = source.at("video_frames").get<uint64_t>();
    }
    EXPECT_EQ(shb_map_alive(map.get()), 1);
    std::vector<char> data(1u << 20);
    shb_frame_t frame{};
    EXPECT_EQ(shb_reader_read(reader.get(), data.data(), data.size(), 10000, &frame), SHB_OK) << "still attached";
    EXPECT_EQ(SourceOf(port, Name("b")).at("rebuilds"), 0);
    ExpectOrderlyEnd(*child);
}

TEST_F(Service, AReloadIsAnsweredOnceItsSourcesCanBeAskedFor) {
    std::string sources = SourceText("a", UdpUrl(FreeUdpPort()));
    Write(sources);
    const auto child = Start({"--http", "127.0.0.1:0"});
    const uint16_t port = HttpPort(*child);
    for (const char *added : {"b", "c", "d", "e", "f"}) {
        sources += SourceText(added, UdpUrl(FreeUdpPort()));
        Write(sources);
        std::string text;
        ASSERT_EQ(Reload(text), 0) << text;
        EXPECT_EQ(SourceOf(port, Name(added)).value("name", ""), Name(added));
        EXPECT_EQ(Restart(port, Name(added)), 202) << added;
    }
    ExpectOrderlyEnd(*child);
}

TEST_F(Service, ARestartInTheBufferOfACommandLineLosesNoFrameOfADump) {
    const std::string url = UdpUrl(FreeUdpPort());
    const std::string dump = m_dir.File("video.h264");
    Child child({Tool(), url, "--http", "127.0.0.1:0", "--name", BufferName("service-cli"), "--frames", "150", "--dump-video",
                 dump, "--json", "--duration", "120"});
    const uint16_t port = HttpPort(child);
    ASSERT_NE(port, 0);
    const Sender sender(url);
    const auto frames = [&] { return SourceOf(port, "0").value("video_frames", 0); };
    ASSERT_TRUE(WaitWhileRunning(child, [&] { return frames() > 20; })) << child.Err();
    EXPECT_EQ(Restart(port, "0"), 202);
    EXPECT_EQ(child.Wait(), 0) << child.Err();
    const Json summary = Json::parse(Lines(child.Out()).back());
    ExpectFields(
        summary,
        {{"type", "summary"}, {"video_frames", 150}, {"video_dumped_frames", 150}, {"video_lost_frames", 0}, {"rebuilds", 1}});
    EXPECT_EQ(ReadAll(dump).size(), summary.at("video_bytes").get<size_t>());
}

TEST_F(Service, AnAddressThatIsInUseOrNeedsATokenOpensNothing) {
    Write(SourceText("a", UdpUrl(FreeUdpPort())));
    const auto child = Start({"--http", "127.0.0.1:0"});
    const std::string address = "127.0.0.1:" + std::to_string(HttpPort(*child));
    const std::string name = BufferName("service-http");
    for (const auto &[flags, line] : std::vector<std::pair<std::vector<std::string>, std::string>>{
             {{"--http", address}, "cannot listen on " + address + ": Address already in use"},
             {{"--http", "0.0.0.0:0"}, "other machines reach 0.0.0.0:0, so a token is needed"},
             {{"--http", "somewhere:1"}, "\"somewhere:1\" is no address to listen on, such as 127.0.0.1:9090 or [::1]:9090"}}) {
        std::vector<std::string> command{Tool(), UdpUrl(FreeUdpPort()), "--name", name};
        command.insert(command.end(), flags.begin(), flags.end());
        Child other(command);
        EXPECT_EQ(other.Wait(), 1);
        EXPECT_EQ(other.Err(), "gst-source: " + line + "\n");
        EXPECT_FALSE(MemoryLeft(name));
    }
    ExpectOrderlyEnd(*child);
}

TEST_F(Service, ATokenOpensTheAddressOfAllInterfaces) {
    Write("[service]\nhttp = \"0.0.0.0:0\"\nhttp_token = \"${TOKEN}\"\n" + SourceText("a", UdpUrl(FreeUdpPort())));
    const auto child = Start({}, {{"TOKEN", "geheim"}});
    const std::string begin = "page, metrics and API at http://0.0.0.0:";
    ASSERT_TRUE(WaitWhileRunning(*child, [&] { return Has(child->Err(), begin); })) << child->Err();
    const std::string err = child->Err();
    const auto port = static_cast<uint16_t>(std::stoul(err.substr(err.find(begin) + begin.size())));
    EXPECT_EQ(StatusOf(Fetch(port, "/api/sources")), 401);
    EXPECT_EQ(StatusOf(Fetch(port, "/api/sources", "GET", "Authorization: Bearer geheim\r\n")), 200);
    ExpectOrderlyEnd(*child);
    EXPECT_FALSE(Has(child->Err() + child->Out(), "geheim"));
}

TEST_F(Service, ASignalThatInterruptsAnyThreadHoldsUpNothing) {
    Write(SourceText("a", UdpUrl(FreeUdpPort())));
    const auto child = Start({"--json"});
    ASSERT_TRUE(WaitWhileRunning(*child, [&] { return Reports(*child, "a", {{"state", "connected"}}); })) << child->Err();
    // The kernel chooses a thread by itself, nearly always the first.
    int threads = 0;
    for (int round = 0; round < 10; ++round) {
        threads = 0;
        for (const auto &thread : std::filesystem::directory_iterator("/proc/" + std::to_string(child->Id()) + "/task")) {
            threads += tgkill(child->Id(), std::stoi(thread.path().filename().string()), SIGHUP) == 0 ? 1 : 0;
        }
    }
    EXPECT_GT(threads, 4);
    ExpectOrderlyEnd(*child);
}

TEST_F(Service, HangupsAtAnyMomentAreReloads) {
    const std::string url = UdpUrl(FreeUdpPort());
    Write(SourceText("a", url));
    const auto child = Start({"--json"});
    ASSERT_TRUE(WaitWhileRunning(*child, [&] { return Minds(child->Id(), SIGHUP); }));
    for (int round = 0; round < 300; ++round) {
        child->Signal(SIGHUP);
        if (round % 20 == 0) {
            Write(SourceText("a", url, round % 40 == 0 ? "mtu = 1400\n" : ""));
            std::string text;
            Reload(text);
        }
    }
    Write(SourceText("a", url) + SourceText("b", UdpUrl(FreeUdpPort())));
    child->Signal(SIGHUP);
    EXPECT_TRUE(WaitWhileRunning(*child,
                                 [&] {
                                     return Reports(*child, "b", {{"state", "connected"}});
                                 }))
        << child->Out() << child->Err();
    child->Signal(SIGHUP);
    child->Signal(SIGTERM);
    child->Signal(SIGHUP);
    EXPECT_EQ(child->Wait(), 0) << child->Out() << child->Err();
    EXPECT_FALSE(MemoryLeft(Name("a")) || MemoryLeft(Name("b")));
}

TEST_F(Service, AFileThatIsGoneOrAPipeChangesNothing) {
    Write(SourceText("a", UdpUrl(FreeUdpPort())));
    const auto child = Start({"--json"});
    ASSERT_TRUE(WaitWhileRunning(*child, [&] { return Reports(*child, "a", {{"state", "connected"}}); })) << child->Err();
    ASSERT_EQ(unlink(m_file.c_str()), 0);
    std::string text;
    EXPECT_EQ(Reload(text), 2);
    EXPECT_EQ(text, m_file + ": No such file or directory\n" + m_file + ": nothing was changed\n");
    ASSERT_EQ(mkfifo(m_file.c_str(), 0600), 0);
    EXPECT_EQ(Reload(text), 2);
    EXPECT_EQ(text, m_file + ": is no regular file\n" + m_file + ": nothing was changed\n");
    EXPECT_TRUE(Attach(Name("a")));
    ExpectOrderlyEnd(*child);
}

TEST_F(Service, ManySourcesEndTogetherAndACrashLeavesNothing) {
    constexpr int kSources = 100;
    std::string text;
    std::vector<std::string> names;
    for (int i = 0; i < kSources; ++i) {
        names.push_back(std::to_string(i));
        text += SourceText(names.back(), UdpUrl(FreeUdpPort()), "video_bytes = \"64K\"\naudio_bytes = \"64K\"\n");
    }
    Write(text);
    for (const int signal : {SIGTERM, SIGSEGV}) {
        const auto child = Start({"--json"});
        ASSERT_TRUE(WaitWhileRunning(*child, [&] {
            return Reports(*child, names.back(), {{"state", "connected"}});
        })) << child->Err();
        std::vector<std::string> files;
        for (const std::string &name : names) {
            const std::vector<std::string> own = MemoryOf(Name(name));
            files.insert(files.end(), own.begin(), own.end());
        }
        EXPECT_GE(files.size(), names.size());
        child->Signal(signal);
        EXPECT_EQ(child->Wait(), signal == SIGTERM ? 0 : ExitOfCrash(signal)) << child->Err();
        for (const std::string &file : files) {
            EXPECT_NE(access(file.c_str(), F_OK), 0) << file;
        }
        EXPECT_TRUE(std::filesystem::is_empty(m_dir.File("gst-source"))) << "the control socket";
    }
}

TEST_F(Service, PrintsWhatIsInForceWithItsFlags) {
    const std::string url = UdpUrl(5000);
    Child child({Tool(), url, "srt://127.0.0.1:7000", "--print-config", "--http", "127.0.0.1:9191", "--log-level", "error",
                 "--close-timeout", "3", "--mtu", "1400", "--passphrase", "geheimgeheim", "--keylen", "16"});
    EXPECT_EQ(child.Wait(), 0);
    EXPECT_FALSE(Has(child.Out(), "geheim")) << child.Out();
    m_file = m_dir.Write("printed.toml", child.Out());
    Child check({Tool(), "check", m_file});
    EXPECT_EQ(check.Wait(), 0) << check.Err();
    Child again({Tool(), "--config", m_file, "--print-config", "--log-level", "debug"});
    EXPECT_EQ(again.Wait(), 0);
    for (const char *line :
         {"http = '127.0.0.1:9191'", "log_level = 'debug'", "close_timeout = 3", "mtu = 1400", "keylen = 16"}) {
        EXPECT_TRUE(Has(again.Out(), line)) << line << "\n" << again.Out();
    }
    for (const auto &[urls, name] : std::vector<std::pair<std::vector<std::string>, std::string>>{
             {{url}, "name = 'cam'\n"}, {{url, "srt://127.0.0.1:7000"}, "name = 'cam-1'\n"}}) {
        std::vector<std::string> command{Tool(), "--name", "cam", "--print-config"};
        command.insert(command.end(), urls.begin(), urls.end());
        Child named(command);
        EXPECT_EQ(named.Wait(), 0);
        EXPECT_TRUE(Has(named.Out(), name)) << named.Out();
    }
    Child full({"sh", "-c", "exec \"$0\" --config \"$1\" --print-config >/dev/full", Tool(), m_file});
    EXPECT_EQ(full.Wait(), 1);
    EXPECT_TRUE(Has(full.Err(), "gst-source: standard output: No space left on device\n")) << full.Err();
}

TEST_F(Service, ALogThatNobodyTakesHoldsUpNoEnd) {
    Write(SourceText("a", UdpUrl(FreeUdpPort())));
    const std::string pipe = m_dir.File("pipe");
    ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
    const tool::Fd reader(open(pipe.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC));
    const std::string block(4096, 'x');
    while (write(reader.Get(), block.data(), block.size()) > 0) {
    }
    const auto child = std::make_unique<Child>(
        std::vector<std::string>{"sh", "-c", "exec \"$0\" --config \"$1\" --json --interval 0.2 --log \"$2\"", Tool(), m_file,
                                 pipe},
        Environment());
    ASSERT_TRUE(WaitWhileRunning(*child, [&] { return Reports(*child, "a", {{"state", "connected"}}); })) << child->Err();
    ExpectOrderlyEnd(*child);
}
