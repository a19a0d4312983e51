#include "PeerTest.h"

#include <glib.h>
#ifdef __SANITIZE_ADDRESS__
#include <sanitizer/lsan_interface.h>
#endif

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>

namespace peers {
namespace {

size_t Units(double perSecond, Clock::duration span) {
    return static_cast<size_t>(perSecond * std::chrono::duration<double>(span).count());
}

// PCM has no frames of its own: the senders here pass the material's packets on as they are.
double AudioUnitsPerSecond(const Material &material) {
    return material.samplesPerFrame == 0 ? static_cast<double>(material.audioUnits.size()) / 95
                                         : static_cast<double>(material.sampleRate) / material.samplesPerFrame;
}

size_t VideoWanted(const Material &material, Clock::duration span) {
    return material.video == Codec::None ? 0 : Units(static_cast<double>(material.fps), span);
}

size_t AudioWanted(const Material &material, Clock::duration span) {
    return material.audio == Codec::None ? 0 : Units(AudioUnitsPerSecond(material), span);
}

// Criticals end the program, as G_DEBUG asks, but for three that are the framework's own. rtspsrc stopped in the midst of its handshake may
// set a sequence number that it has not got. tsdemux drops an array that a damaged ATSC table has not
// made, and arrays of that kind are used nowhere here. The demultiplexer of HLS takes a segment's source down on one thread while another is just
// bringing it up, when segments are refused and the stream is stopped at that moment: the bin and what is in it, by the names that only it gives.
void EndAtCriticals(const gchar *domain, GLogLevelFlags level, const gchar *message, gpointer) {
    if ((level & (G_LOG_LEVEL_DEBUG | G_LOG_LEVEL_INFO)) != 0) {
        return;
    }
    std::fprintf(stderr, "%s: %s\n", domain != nullptr ? domain : "", message);
    const auto holds = [message](const char *text) { return std::strstr(message, text) != nullptr; };
    const bool segment = holds(", but it is in READY") &&
                         (holds("Trying to dispose element srcbin-src_") || holds("Trying to dispose element souphttpsrc") ||
                          holds("Trying to dispose element queue"));
    const bool known = segment || holds("g_ptr_array_unref: assertion 'array' failed") ||
                       holds("gst_event_set_seqnum: assertion 'seqnum != GST_SEQNUM_INVALID' failed");
    if ((level & (G_LOG_LEVEL_CRITICAL | G_LOG_LEVEL_ERROR)) != 0 && !known) {
        std::abort();
    }
}

#ifdef __SANITIZE_ADDRESS__
// The leak check stops all threads and reads their memory. At the end of the process it meets threads of SRT's library that are just being
// taken down, and does not survive that; here they all rest.
class LeakCheck : public testing::Environment {
  public:
    void TearDown() override { __lsan_do_leak_check(); }
};

const testing::Environment *const g_leakCheck = testing::AddGlobalTestEnvironment(new LeakCheck);
#endif

const GLogFunc g_previousLog = [] {
    g_log_set_always_fatal(G_LOG_LEVEL_ERROR);
    return g_log_set_default_handler(EndAtCriticals, nullptr);
}();

}  // namespace

PeerTest::PeerTest() = default;

void PeerTest::TearDown() {
    log.Restore();
    if (!HasFailure()) {
        return;
    }
    log.Dump();
    for (const auto &path : outputs_) {
        const std::string text = ReadFile(path);
        const size_t shown = std::min<size_t>(text.size(), 3000);
        std::printf("    --- end of %s ---\n%s\n", path.c_str(), text.substr(text.size() - shown).c_str());
    }
    std::fflush(stdout);
}

std::unique_ptr<Process> PeerTest::Start(const std::string &name, const std::vector<std::string> &args, uid_t uid) {
    const std::string output = dir.File(name + ".out");
    if (std::find(outputs_.begin(), outputs_.end(), output) == outputs_.end()) {
        outputs_.push_back(output);
    }
    return std::make_unique<Process>(args, Process::Options{output, {}, uid});
}

std::unique_ptr<Process> PeerTest::Send(const Material &material, const std::vector<std::string> &target) {
    std::vector<std::string> args = {"ffmpeg", "-nostdin",    "-hide_banner", "-loglevel", "warning", "-re",
                                     "-i",     material.path, "-map",         "0",         "-c",      "copy"};
    args.insert(args.end(), target.begin(), target.end());
    return Start("ffmpeg", args);
}

std::unique_ptr<Process> PeerTest::SendTs(const Material &material, const std::string &url,
                                          const std::vector<std::string> &more) {
    std::vector<std::string> target = more;
    target.insert(target.end(), {"-f", "mpegts", url});
    return Send(material, target);
}

std::unique_ptr<Process> PeerTest::StartNginx(const std::string &blocks, uint16_t port) {
    std::filesystem::create_directories(NginxFile("www"));
    // One process in the foreground: what is started is what is ended.
    WriteFile(NginxFile("nginx.conf"),
              "load_module /usr/lib/nginx/modules/ngx_rtmp_module.so;\n"
              "load_module /usr/lib/nginx/modules/ngx_stream_module.so;\n"
              "user root; daemon off; master_process off; pid nginx.pid; error_log stderr notice;\n"
              "events { worker_connections 256; }\n" +
                  blocks);
    // By its path, which ordinary users do not search; what it says before it has read its configuration goes where the rest goes.
    auto nginx = Start("nginx", {"/usr/sbin/nginx", "-e", "stderr", "-p", NginxFile(""), "-c", NginxFile("nginx.conf")});
    EXPECT_TRUE(WaitFor([&] { return TcpListening(port); }, seconds(10))) << "nginx does not listen";
    return nginx;
}

void PeerTest::MakeCertificate() const {
    RunCommand({"openssl", "req", "-x509", "-newkey", "rsa:2048", "-nodes", "-days", "2", "-subj", "/CN=127.0.0.1", "-addext",
                "subjectAltName=IP:127.0.0.1", "-keyout", dir.File("key.pem"), "-out", dir.File("certificate.pem")},
               dir.File("openssl.out"));
}

bool PeerTest::WaitMedia(const Host &host, const Material &material, Clock::duration span, Clock::duration bound) const {
    return WaitFor(
        [&] {
            // Two more than compared: the joining and the end may each cut one.
            return (material.video == Codec::None || host.CountOfEpoch(SHB_VIDEO) >= VideoWanted(material, span) + 2) &&
                   (material.audio == Codec::None || host.CountOfEpoch(SHB_AUDIO) >= AudioWanted(material, span) + 2);
        },
        bound);
}

void PeerTest::ExpectStallWatchNotices(Host &host, const std::string &line) {
    // What was on its way still arrives.
    ASSERT_TRUE(WaitFor([&] { return Clock::now() - host.Frames(SHB_VIDEO).back().at > seconds(1); }, seconds(20)));
    const size_t before = log.Count("INFO", line);
    EXPECT_TRUE(HoldsFor([&] { return log.Count("INFO", line) == before; }, seconds(3)));
    const size_t errors = log.Count("", "-------------GST_MESSAGE_ERROR");
    host.SetStallWatch(seconds(2));
    EXPECT_TRUE(log.WaitLine("INFO", line, seconds(20), before + 1));
    EXPECT_GT(log.Count("", "-------------GST_MESSAGE_ERROR"), errors);
    EXPECT_TRUE(host.SawState("reconnect"));
}

bool PeerTest::WaitEpochAfter(const Host &host, uint64_t epoch, Clock::duration bound) {
    return WaitFor([&] { return host.Frames(SHB_VIDEO).back().info.epoch > epoch && host.CountOfEpoch(SHB_VIDEO) > 50; },
                   bound);
}

void PeerTest::ExpectSameFrames(const Host &host, const Material &material, Clock::duration span) const {
    if (material.video != Codec::None) {
        EXPECT_TRUE(SameVideo(material, host.Frames(SHB_VIDEO), VideoWanted(material, span)));
        EXPECT_TRUE(KeyFramesComplete(material, host.Frames(SHB_VIDEO), VideoWanted(material, span) > 50 ? 2 : 0));
    } else {
        EXPECT_EQ(host.Count(SHB_VIDEO), 0U);
    }
    if (material.audio != Codec::None) {
        EXPECT_TRUE(SameAudio(material, host.Frames(SHB_AUDIO), AudioWanted(material, span)));
    } else {
        EXPECT_EQ(host.Count(SHB_AUDIO), 0U);
    }
}

void PeerTest::ExpectPlays(const Host &host, const Material &material, Clock::duration span, Clock::duration bound) {
    EXPECT_TRUE(WaitMedia(host, material, span, bound))
        << "arrived: " << host.CountOfEpoch(SHB_VIDEO) << " video, " << host.CountOfEpoch(SHB_AUDIO) << " audio";
    ExpectTruth(material, host, burst);
    ExpectSameFrames(host, material, span);
}

}  // namespace peers
