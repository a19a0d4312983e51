// The example gateway: what it sends reaches receivers, and each way for it to end.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <csignal>
#include <fstream>
#include <sstream>
#include <thread>

#include "../free_port.h"
#include "sender.h"
#include "support.h"
#include "wait_for.h"

namespace {

using namespace hpp;

constexpr gs::Track kVideo = {0, 0, gs::Kind::video};
constexpr gs::Track kAudio = {0, 0, gs::Kind::audio};

std::string FromEnvironment(const char *name) {
    const char *value = std::getenv(name);
    return value != nullptr ? value : name;
}

bool Has(const std::string &text, const std::string &part) {
    return text.find(part) != std::string::npos;
}

// The first of four ports in a row.
std::uint16_t FourUdpPorts() {
    for (;;) {
        const std::uint16_t first = free_port::Take(SOCK_DGRAM);
        bool all = true;
        for (int more = 1; more <= 3; ++more) {
            const auto port = static_cast<std::uint16_t>(first + more);
            all = all && free_port::Free(SOCK_DGRAM, port) && free_port::Claim(SOCK_DGRAM, port);
        }
        if (all) {
            return first;
        }
    }
}

// Somebody has bound the port; to send there to find out would be received.
bool UdpBound(std::uint16_t port) {
    std::ostringstream end;
    end << ":" << std::uppercase << std::hex << port;
    std::ifstream table("/proc/net/udp");
    for (std::string number, local, line; table >> number >> local && std::getline(table, line);) {
        if (local.size() > 5 && Has(local, end.str())) {
            return true;
        }
    }
    return false;
}

class Gateway : public Child {
  public:
    Gateway(const std::string &buffer, std::uint16_t port)
        : Child({FromEnvironment("GATEWAY"), buffer, "127.0.0.1", std::to_string(port)}) {}

    // Its SDP file, once it has printed it.
    std::string Sdp() {
        const bool printed = WaitFor([this] { return Has(Out(), "m=") && Out().back() == '\n'; });
        EXPECT_TRUE(printed) << Err();
        return Out();
    }
    int End(int signal = SIGTERM) {
        Signal(signal);
        return Wait().value_or(-1);
    }
};

// Hashes of the pictures that a file decodes to; none while it is not there.
std::vector<std::string> Pictures(const std::string &file) {
    Child ffmpeg(Words("ffmpeg -nostdin -v quiet -f h264 -i " + file + " -map 0:v -f framemd5 -"));
    ffmpeg.Wait();
    std::vector<std::string> hashes;
    std::istringstream lines(ffmpeg.Out());
    for (std::string line; std::getline(lines, line);) {
        if (!line.empty() && line[0] != '#') {
            hashes.push_back(line.substr(line.rfind(' ') + 1));
        }
    }
    return hashes;
}

std::size_t CountLines(const std::string &text, const char *start) {
    std::istringstream lines(text);
    std::size_t count = 0;
    for (std::string line; std::getline(lines, line);) {
        count += line.rfind(start, 0) == 0 ? 1U : 0U;
    }
    return count;
}

class GatewayPlays : public testing::Test {
  protected:
    void Open(const std::string &options = "") {
        const std::string url = "udp://127.0.0.1:" + std::to_string(FreeUdpPort());
        source = gs::Source::open(buffer, url).value();
        if (options.empty()) {
            sender.emplace(url);
        } else {
            sender.emplace(url, options);
        }
    }
    // As many pictures and sounds as are asked for come out of a receiver that opens the SDP file.
    void ExpectReceived(Gateway &gateway, const std::string &description) {
        const std::string file = folder.Write("stream.sdp", gateway.Sdp());
        Child receiver(Words("ffmpeg -nostdin -v error -protocol_whitelist file,udp,rtp -i " + file +
                             " -map 0:v -map 0:a -flush_packets 1 -f framecrc -"));
        // Counted here: ffmpeg's own limits end all streams with the first that reaches its own.
        const auto received = [&] { return CountLines(receiver.Out(), "0,") >= 50 && CountLines(receiver.Out(), "1,") >= 50; };
        EXPECT_TRUE(WaitFor([&] { return received() || !receiver.Running(); }) && received())
            << receiver.Out() << receiver.Err();
        receiver.Signal(SIGINT);
        receiver.Wait();
        Child probe(
            Words("ffprobe -v error -protocol_whitelist file,udp,rtp -show_entries "
                  "stream=codec_name,width,height,sample_rate -of csv=p=0 " +
                  file));
        EXPECT_EQ(probe.Wait(120s), 0) << probe.Err();
        EXPECT_EQ(probe.Out(), description);
    }

    const TempDir folder;
    const std::string name = UniqueName();
    gs::Buffer buffer = gs::Buffer::create(name).value();
    const std::uint16_t port = FourUdpPorts();
    gs::Source source;
    std::optional<Sender> sender;
};

TEST_F(GatewayPlays, H264WithAac) {
    Open();
    Gateway gateway(name, port);
    const std::string sdp = gateway.Sdp();
    EXPECT_TRUE(Has(sdp, "m=video " + std::to_string(port) + " RTP/AVP 96")) << sdp;
    EXPECT_TRUE(Has(sdp, "a=rtpmap:96 H264/90000")) << sdp;
    EXPECT_TRUE(Has(sdp, "packetization-mode=1")) << sdp;
    EXPECT_TRUE(Has(sdp, "sprop-parameter-sets=")) << sdp;
    EXPECT_TRUE(Has(sdp, "m=audio " + std::to_string(port + 2) + " RTP/AVP 98")) << sdp;
    EXPECT_TRUE(Has(sdp, "a=rtpmap:98 MPEG4-GENERIC/48000/2")) << sdp;
    ExpectReceived(gateway, "h264,320,240\naac,48000\n");
    EXPECT_EQ(gateway.End(SIGINT), 0) << gateway.Err();
}

TEST_F(GatewayPlays, H265WithOpus) {
    Open(
        "-f lavfi -i testsrc2=size=320x180:rate=25 -f lavfi -i sine=sample_rate=48000 -c:v libx265 -preset ultrafast "
        "-x265-params keyint=25:bframes=0:log-level=none -pix_fmt yuv420p -c:a libopus -ac 2");
    Gateway gateway(name, port);
    const std::string sdp = gateway.Sdp();
    EXPECT_TRUE(Has(sdp, "a=rtpmap:97 H265/90000")) << sdp;
    EXPECT_TRUE(Has(sdp, "sprop-vps=")) << sdp;
    EXPECT_TRUE(Has(sdp, "m=audio " + std::to_string(port + 2) + " RTP/AVP 111")) << sdp;
    EXPECT_TRUE(Has(sdp, "a=rtpmap:111 OPUS/48000/2")) << sdp;
    ExpectReceived(gateway, "hevc,320,180\nopus,48000\n");
    EXPECT_EQ(gateway.End(), 0) << gateway.Err();
}

// A receiver that is there from the beginning decodes every picture, the first one included.
TEST_F(GatewayPlays, BeginsWithAKeyFrameAndLosesNothing) {
    Open();
    const gs::Map map = gs::Map::attach(name).value();
    gs::Reader reader = gs::Reader::open(map, kVideo, gs::Start::oldest).value();
    const std::string received = folder.File("received.h264");
    const std::string sdp =
        folder.Write("early.sdp", "v=0\no=- 1 1 IN IP4 127.0.0.1\ns=-\nc=IN IP4 127.0.0.1\nt=0 0\nm=video " +
                                      std::to_string(port) + " RTP/AVP 96\na=rtpmap:96 H264/90000\n");
    Child receiver(Words("ffmpeg -nostdin -v error -protocol_whitelist file,udp,rtp -i " + sdp +
                         " -map 0:v -c copy -flush_packets 1 -f h264 " + received));
    ASSERT_TRUE(WaitFor([&] { return UdpBound(port) || !receiver.Running(); }));
    ASSERT_TRUE(receiver.Running()) << receiver.Err();
    ASSERT_TRUE(WaitFor([&] { return buffer.stats(kVideo)->held > 30; }));
    Gateway gateway(name, port);
    // Whole pictures: more than a hundred, so that the stream has begun anew once.
    std::ofstream written(folder.File("written.h264"), std::ios::binary);
    Bytes memory;
    for (int i = 0; i < 150; ++i) {
        const auto frame = reader.read(memory, kPatience);
        ASSERT_TRUE(Succeeds(frame));
        ASSERT_EQ(frame->lost, 0U);
        written.write(reinterpret_cast<const char *>(frame->data.data()), static_cast<std::streamsize>(frame->data.size()));
    }
    written.close();
    const std::vector<std::string> sent = Pictures(folder.File("written.h264"));
    ASSERT_GT(sent.size(), 100U);
    std::vector<std::string> got;
    // The last one may not be whole yet.
    ASSERT_TRUE(WaitFor([&] { return (got = Pictures(received)).size() > 75; })) << got.size() << receiver.Err();
    got.resize(75);
    // The pictures of an encoder differ: the hashes have one place where all of them fit.
    const auto place = std::search(sent.begin(), sent.end(), got.begin(), got.end());
    EXPECT_NE(place, sent.end());
    EXPECT_EQ(gateway.End(), 0) << gateway.Err();
}

// ---- Without a stream -------------------------------------------------------------------------------------

class GatewayRuns : public testing::Test {
  protected:
    // 20 ms of sound, number `count` of the stream. After the fifth one, a second is missing.
    void WriteSound(int count) {
        gs::FrameInfo info;
        info.pts = count * 20ms + (count < 5 ? 0s : 1s);
        info.discont = count == 5;
        info.duration = 20ms;
        ASSERT_TRUE(Succeeds(writer.write(Bytes(160, static_cast<std::uint8_t>(count)), info)));
    }
    void Describe(const std::string &code) {
        gs::Description description;
        description.code = code;
        description.sample_rate = 8000;
        description.channels = 1;
        ASSERT_TRUE(Succeeds(writer.describe(description)));
    }
    void SetUp() override {
        ASSERT_TRUE(Succeeds(buffer.set_presence(kVideo, gs::Presence::absent)));
        ASSERT_TRUE(Succeeds(writer.set_clock(std::chrono::steady_clock::now().time_since_epoch())));
    }

    const std::string name = UniqueName();
    gs::Buffer buffer = gs::Buffer::create(name, Small()).value();
    gs::Writer writer = gs::Writer::open(buffer, kAudio).value();
    const std::uint16_t port = FourUdpPorts();
};

std::uint32_t Number(const Bytes &packet, std::size_t at, std::size_t size) {
    std::uint32_t number = 0;
    for (std::size_t i = at; i < at + size; ++i) {
        number = number << 8U | packet[i];
    }
    return number;
}

TEST_F(GatewayRuns, TimesAndNumbersAreThoseOfTheFrames) {
    const int receiver = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(port + 2));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ASSERT_EQ(bind(receiver, reinterpret_cast<const sockaddr *>(&address), sizeof address), 0);
    Describe("PCMA");
    WriteSound(0);
    Gateway gateway(name, port);
    EXPECT_TRUE(Has(gateway.Sdp(), "m=audio " + std::to_string(port + 2) + " RTP/AVP 8")) << gateway.Out();
    constexpr int count = 10;
    for (int i = 1; i < count; ++i) {
        WriteSound(i);
    }
    EXPECT_FALSE(Has(gateway.Out(), "m=video"));
    std::vector<Bytes> packets;
    ASSERT_TRUE(WaitFor([&] {
        pollfd ready = {receiver, POLLIN, 0};
        Bytes packet(2000);
        while (poll(&ready, 1, 0) > 0) {
            packet.resize(static_cast<std::size_t>(std::max<ssize_t>(recv(receiver, packet.data(), 2000, 0), 0)));
            packets.push_back(packet);
            packet.resize(2000);
        }
        return packets.size() >= count;
    })) << packets.size();
    close(receiver);
    // RTP: a byte of version, one of marker and type, sequence, time stamp, source, then the sound.
    constexpr std::size_t header = 12;
    for (std::size_t i = 0; i < count; ++i) {
        const Bytes &packet = packets[i];
        ASSERT_EQ(packet.size(), header + 160);
        EXPECT_EQ(packet[1] & 0x7fU, 8U);
        EXPECT_EQ(Number(packet, 2, 2), (Number(packets[0], 2, 2) + i) % 65536);
        EXPECT_EQ(packet[header], i);
        const std::uint32_t step = i == 0 ? 160 : Number(packet, 4, 4) - Number(packets[i - 1], 4, 4);
        // The payloader counts samples, and takes the time of a frame after a gap. There it may be one packet late.
        const std::uint32_t missing = i == 5 ? 8000 : 0;
        EXPECT_GE(step, missing + 160) << i;
        EXPECT_LE(step, missing + (i == 5 ? 320U : 160U)) << i;
    }
    EXPECT_EQ(gateway.End(), 0) << gateway.Err();
}

TEST_F(GatewayRuns, EndsWithTheBuffer) {
    Describe("PCMU");
    WriteSound(0);
    Gateway gateway(name, port);
    gateway.Sdp();
    writer.close();
    buffer.close();
    EXPECT_EQ(gateway.Wait(), 0) << gateway.Err();
}

TEST_F(GatewayRuns, EndsWhenAnotherCodecComes) {
    Describe("PCMA");
    WriteSound(0);
    Gateway gateway(name, port);
    gateway.Sdp();
    Describe("PCMU");
    WriteSound(1);
    EXPECT_EQ(gateway.Wait(), 1);
    EXPECT_TRUE(Has(gateway.Err(), "the stream is PCMU now, not PCMA")) << gateway.Err();
}

TEST_F(GatewayRuns, NamesACodecThatItCannotSend) {
    Describe("VORBIS");
    WriteSound(0);
    Gateway gateway(name, port);
    EXPECT_EQ(gateway.Wait(), 1);
    EXPECT_TRUE(Has(gateway.Err(), "VORBIS: this gateway has no payloader for it")) << gateway.Err();
}

// Its writer does not say what it writes.
TEST_F(GatewayRuns, NamesFramesWithoutADescription) {
    WriteSound(0);
    Gateway gateway(name, port);
    EXPECT_EQ(gateway.Wait(), 1);
    EXPECT_EQ(gateway.Err(), "gateway: frames have come, but no track says what they are\n");
}

TEST_F(GatewayRuns, CanBeInterruptedBeforeTheFirstFrame) {
    Gateway gateway(name, port);
    // It has the buffer attached once the file is among those that it has mapped.
    const std::string maps = "/proc/" + std::to_string(gateway.Id()) + "/maps";
    ASSERT_TRUE(WaitFor([&] { return Has(ReadAll(maps), name); }));
    EXPECT_EQ(gateway.End(), 0) << gateway.Err();
    EXPECT_EQ(gateway.Out(), "");
}

TEST(GatewayCommandLine, SaysWhatIsWrong) {
    Gateway without("no-such-buffer-" + std::to_string(getpid()), 5004);
    EXPECT_EQ(without.Wait(), 1);
    EXPECT_TRUE(Has(without.Err(), "not found")) << without.Err();
    Gateway no_port("buffer", 0);
    EXPECT_EQ(no_port.Wait(), 2);
    EXPECT_TRUE(Has(no_port.Err(), "usage:")) << no_port.Err();
}

}  // namespace
