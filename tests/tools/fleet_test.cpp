// Sources of a run without a network: what they report while they wait, over restarts and reloads, and at the end.
#include "fleet.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <memory>
#include <numeric>

#include "../free_port.h"
#include "fd.h"
#include "wait_for.h"

using namespace tool;

namespace {

std::string Name(const std::string &source) {
    return "fleet-" + source + "-" + std::to_string(getpid());
}

SourceConfig Udp(const std::string &source, unsigned short port = free_port::Take(SOCK_DGRAM)) {
    SourceConfig config;
    config.name = Name(source);
    config.url = "udp://127.0.0.1:" + std::to_string(port);
    config.memory.video_bytes = 64u << 10;
    config.memory.audio_bytes = 64u << 10;
    return config;
}

uint64_t Sum(const std::map<std::string, uint64_t> &reasons) {
    return std::accumulate(reasons.begin(), reasons.end(), uint64_t{0},
                           [](uint64_t sum, const auto &reason) { return sum + reason.second; });
}

// Key frames in the buffer of a station, in the place of those of its stream.
class Frames {
  public:
    explicit Frames(const Station &station) {
        shb_writer_t *writer = nullptr;
        EXPECT_EQ(shb_writer_open(station.Buffer()->Get(), 0, 0, SHB_VIDEO, &writer), SHB_OK);
        m_writer.reset(writer);
    }
    void Write(int count) const {
        for (int i = 0; i < count; ++i) {
            EXPECT_EQ(shb_writer_write(m_writer.get(), "frame", 5, 0, 0, 0, SHB_FRAME_KEY), SHB_OK);
        }
    }

  private:
    struct Close {
        void operator()(shb_writer_t *writer) const { shb_writer_close(writer); }
    };
    std::unique_ptr<shb_writer_t, Close> m_writer;
};

// Another process that receives on the port, until it is asked to go.
class PortHolder {
  public:
    explicit PortHolder(unsigned short port) {
        const Fd socket(::socket(AF_INET, SOCK_DGRAM, 0));
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(port);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        EXPECT_EQ(bind(socket.Get(), reinterpret_cast<const sockaddr *>(&address), sizeof address), 0);
        m_id = fork();
        if (m_id == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            for (;;) {
                pause();
            }
        }
    }
    ~PortHolder() { Go(); }
    PortHolder(const PortHolder &) = delete;
    PortHolder &operator=(const PortHolder &) = delete;
    void Go() {
        if (m_id > 0) {
            kill(m_id, SIGKILL);
            waitpid(m_id, nullptr, 0);
            m_id = -1;
        }
    }

  private:
    pid_t m_id = -1;
};

class FleetTest : public testing::Test {
  protected:
    void TearDown() override { EXPECT_TRUE(m_fleet.Close(Fleet::Clock::now() + 60s).empty()); }

    Station *Find(const std::string &source) {
        for (const auto &station : m_fleet.Stations()) {
            if (station->Name() == Name(source)) {
                return station.get();
            }
        }
        return nullptr;
    }
    const SourceSample &Sample(const std::string &source = "a") {
        m_fleet.Tick();
        return Find(source)->Sample();
    }
    // Until the source is open again after something that closes it.
    bool Opens(const std::string &source = "a") {
        return WaitFor([&] {
            const std::string &state = Sample(source).state;
            return state != "closing" && state != "failed" && !state.empty() && !Find(source)->IsClosed();
        });
    }
    void Restart(const std::string &source = "a") {
        EXPECT_TRUE(m_fleet.Restart(Name(source)));
        EXPECT_TRUE(Opens(source));
    }

    NewsDesk m_news;
    Fleet m_fleet{Masker(), m_news};
};

}  // namespace

TEST_F(FleetTest, CountersGoOnOverRestarts) {
    const SourceConfig config = Udp("a");
    m_fleet.Apply({config});
    ASSERT_TRUE(Opens());
    EXPECT_EQ(Sample().attempts, 1u);
    {
        const Frames frames(*Find("a"));
        frames.Write(3);
        EXPECT_EQ(Sample().attempts, 0u);
        EXPECT_EQ(Sample().video.key_frames, 3u);
    }
    Restart();
    EXPECT_EQ(Sample().video.frames, 3u);
    EXPECT_EQ(Sample().video.key_frames, 3u);
    EXPECT_EQ(Sample().attempts, 1u) << "the frames are those of the session before";
    EXPECT_EQ(Sample().rebuilds, 1u) << "also without any frame";
    EXPECT_EQ(Sample().rebuild_reasons, (std::map<std::string, uint64_t>{{"restart", 1}}));
    EXPECT_EQ(Sample().first_frame.Count(), 1u);
    {
        const Frames frames(*Find("a"));
        frames.Write(2);
        EXPECT_EQ(Sample().video.frames, 5u);
        EXPECT_EQ(Sample().video.key_frames, 5u);
    }
    EXPECT_EQ(Sample().first_frame.Count(), 2u);
    EXPECT_EQ(Sample().recovery.Count(), 1u);
    EXPECT_EQ(Sample().rebuilds, 1u) << "a new writer is no second rebuild";

    m_news.OnLine("[2024-05-01 12:00:00.000000] (INFO) (1) [CUDPSource] UDP source reconnect..." + config.url);
    EXPECT_EQ(Sample().rebuilds, 2u);
    Restart();
    EXPECT_EQ(Sample().rebuilds, 3u);
    EXPECT_EQ(Sum(Sample().rebuild_reasons), 3u);
}

// The log may lose a line; a writer that comes anew shows it all the same. Its reason is not known.
TEST_F(FleetTest, RebuildsWithoutALineAreCountedAsOther) {
    m_fleet.Apply({Udp("a")});
    ASSERT_TRUE(Opens());
    for (int session = 0; session < 3; ++session) {
        const Frames frames(*Find("a"));
        frames.Write(1);
    }
    EXPECT_EQ(Sample().rebuilds, 2u);
    EXPECT_EQ(Sum(Sample().rebuild_reasons), 0u) << "the line may be on its way";
    EXPECT_TRUE(WaitFor([&] { return Sum(Sample().rebuild_reasons) == 2; }));
    EXPECT_EQ(Sample().rebuilds, 2u);
    EXPECT_EQ(Sample().rebuild_reasons, (std::map<std::string, uint64_t>{{"other", 2}}));
}

TEST_F(FleetTest, ABufferOfAnotherSizeBeginsAtNothing) {
    SourceConfig config = Udp("a");
    m_fleet.Apply({config});
    ASSERT_TRUE(Opens());
    {
        const Frames frames(*Find("a"));
        frames.Write(3);
        EXPECT_EQ(Sample().first_frame.Count(), 1u);
    }
    config.memory.video_bytes *= 2;
    EXPECT_EQ(m_fleet.Apply({config}).changed, 1u);
    ASSERT_TRUE(Opens());
    EXPECT_EQ(Sample().video.frames, 0u);
    EXPECT_EQ(Sample().flow, Flow::kNone);
    EXPECT_EQ(Sample().first_frame.Count(), 1u) << "no frame has come since";
    EXPECT_EQ(Sample().recovery.Count(), 0u);
    const Frames frames(*Find("a"));
    frames.Write(1);
    EXPECT_EQ(Sample().video.key_frames, 1u);
    EXPECT_EQ(Sample().first_frame.Count(), 2u);
    EXPECT_EQ(Sample().recovery.Count(), 1u);
    EXPECT_EQ(Sample().rebuilds, 1u);
}

TEST_F(FleetTest, ASourceThatIsBlockedIsNotLive) {
    SourceConfig config = Udp("a");
    m_fleet.Apply({config});
    ASSERT_TRUE(Opens());
    const Frames frames(*Find("a"));
    frames.Write(3);
    EXPECT_EQ(Sample().flow, Flow::kLive);
    const unsigned short port = free_port::Take(SOCK_DGRAM);
    PortHolder holder(port);
    m_fleet.Apply({Udp("a", port)});
    EXPECT_TRUE(WaitFor([&] { return Sample().state == "failed"; }));
    EXPECT_EQ(Sample().flow, Flow::kSilent);
    EXPECT_EQ(Sample().video.bitrate, 0u);
    ASSERT_TRUE(Sample().retry_in_s);
    EXPECT_LE(*Sample().retry_in_s, 3);
    EXPECT_EQ(Sample().last_error->code, "port-in-use");
    EXPECT_EQ(Sample().buffer, "/" + Name("a"));
    const auto complaint = Find("a")->TakeComplaint();
    ASSERT_TRUE(complaint);
    EXPECT_NE(complaint->find("port " + std::to_string(port) + " is in use by"), std::string::npos) << *complaint;
    // It is tried again, and says no more about it.
    const double left = *Sample().retry_in_s;
    EXPECT_TRUE(WaitFor([&] { return *Sample().retry_in_s > left; }));
    EXPECT_FALSE(Find("a")->TakeComplaint());
    holder.Go();
    EXPECT_TRUE(Opens());
    EXPECT_FALSE(Sample().retry_in_s);
}

TEST_F(FleetTest, ANameThatAnotherProcessHasIsWaitedFor) {
    shb_geometry_t geometry{};
    shb_buffer_t *other = nullptr;
    ASSERT_EQ(shb_create(Name("a").c_str(), &geometry, &other), SHB_OK);
    m_fleet.Apply({Udp("a")});
    EXPECT_EQ(Sample().state, "failed");
    EXPECT_EQ(Sample().last_error->code, "") << "there is room enough";
    EXPECT_TRUE(m_fleet.AllTried());
    shb_destroy(other);
    EXPECT_TRUE(Opens());
}

TEST_F(FleetTest, ComesBackWhileItIsStillBeingClosed) {
    const SourceConfig a = Udp("a");
    const SourceConfig b = Udp("b");
    EXPECT_EQ(m_fleet.Apply({a, b}).added, 2u);
    ASSERT_TRUE(Opens("a") && Opens("b"));
    EXPECT_EQ(m_fleet.Apply({b}).removed, 1u);
    EXPECT_EQ(m_fleet.Stations().size(), 2u) << "the other is being closed";
    EXPECT_EQ(m_fleet.Stations()[0]->Name(), Name("b"));
    EXPECT_FALSE(m_fleet.Restart(Name("a"))) << "it is wanted no more";
    EXPECT_EQ(m_fleet.Apply({a, b}).added, 1u);
    EXPECT_EQ(m_fleet.Stations()[0]->Name(), Name("a"));
    EXPECT_TRUE(Opens("a"));
    EXPECT_EQ(m_fleet.Apply({a, b}).untouched, 2u);
    m_fleet.Apply({b});
    EXPECT_TRUE(WaitFor([&] {
        m_fleet.Tick();
        return m_fleet.Stations().size() == 1;
    }));
}

TEST_F(FleetTest, RestartsOfAllAtOnceAndTheEndAmidst) {
    constexpr int kSources = 50;
    std::vector<SourceConfig> sources;
    for (int i = 0; i < kSources; ++i) {
        sources.push_back(Udp(std::to_string(i)));
    }
    m_fleet.Apply(sources);
    EXPECT_TRUE(WaitFor([&] {
        m_fleet.Tick();
        return m_fleet.AllTried();
    }));
    for (int round = 0; round < 3; ++round) {
        for (const SourceConfig &source : sources) {
            EXPECT_TRUE(m_fleet.Restart(source.name));
        }
        m_fleet.Tick();
    }
    EXPECT_TRUE(m_fleet.Close(Fleet::Clock::now() + 60s).empty());
    for (const auto &station : m_fleet.Stations()) {
        EXPECT_TRUE(station->IsClosed());
    }
}
