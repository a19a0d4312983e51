// Things that run out around a playing source: it says so, goes
// on when they are back, and closes in any case.

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <fstream>

#include "harness/PeerTest.h"

namespace peers {
namespace {

class Exhaustion : public PeerTest, public Scene {
  protected:
    void PlayAndClose(Host &host) const {
        ASSERT_TRUE(host.Open(url, UdpOptions{}));
        EXPECT_TRUE(host.WaitFrames(SHB_VIDEO, host.Count(SHB_VIDEO) + 50));
        EXPECT_TRUE(host.Close());
        EXPECT_EQ(host.State(), "stop");
    }
    void WaitContaining(const std::string &text) const {
        EXPECT_TRUE(WaitFor([&] { return log.CountContaining(text) == 1; })) << text;
    }

    const Material &material = GetMaterial("h264_aac");
    const uint16_t port = FreeUdpPort();
    const std::string url = UdpUrl(port);
};

// Standard output is something else while an object lives.
class OutputReplaced {
  public:
    explicit OutputReplaced(int with) : saved_(fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 3)) {
        std::fflush(stdout);
        dup2(with, STDOUT_FILENO);
    }
    ~OutputReplaced() {
        dup2(saved_, STDOUT_FILENO);
        close(saved_);
    }
    OutputReplaced(const OutputReplaced &) = delete;
    OutputReplaced &operator=(const OutputReplaced &) = delete;

  private:
    int saved_;
};

struct Pipe {
    Pipe() { EXPECT_EQ(pipe2(ends, O_CLOEXEC), 0); }
    ~Pipe() {
        close(ends[0]);
        close(ends[1]);
    }
    Pipe(const Pipe &) = delete;
    Pipe &operator=(const Pipe &) = delete;
    void Fill() const {
        const int flags = fcntl(ends[1], F_GETFL);
        fcntl(ends[1], F_SETFL, flags | O_NONBLOCK);
        const std::string junk(4096, '-');
        while (write(ends[1], junk.data(), junk.size()) > 0) {
        }
        EXPECT_EQ(errno, EAGAIN);
        fcntl(ends[1], F_SETFL, flags);
    }
    std::string Drain() const {
        std::string all;
        char block[4096];
        fcntl(ends[0], F_SETFL, O_NONBLOCK);
        for (ssize_t got = read(ends[0], block, sizeof block); got > 0; got = read(ends[0], block, sizeof block)) {
            all.append(block, static_cast<size_t>(got));
        }
        return all;
    }
    int ends[2] = {-1, -1};
};

TEST_F(Exhaustion, OutputThatNobodyReadsHoldsNothingUp) {
    const auto sender = SendUdp(material, port);
    Host host(kUdp);
    const Pipe pipe;
    pipe.Fill();
    {
        const OutputReplaced output(pipe.ends[1]);
        PlayAndClose(host);
        // Somebody reads at last: the next line is preceded by what has been left out.
        pipe.Drain();
        ASSERT_TRUE(host.Open(url, UdpOptions{}));
        EXPECT_TRUE(host.Close());
    }
    const std::string text = pipe.Drain();
    EXPECT_NE(text.find("(WARN)"), std::string::npos) << text;
    EXPECT_NE(text.find("[Logger] Standard output was full, lines dropped: "), std::string::npos) << text;
    EXPECT_NE(text.find("[CUDPSource] Open " + url), std::string::npos) << text;
}

TEST_F(Exhaustion, OutputThatTakesNothingHoldsNothingUp) {
    const auto sender = SendUdp(material, port);
    Host host(kUdp);
    const int full = open("/dev/full", O_WRONLY | O_CLOEXEC);
    ASSERT_GE(full, 0);
    {
        const OutputReplaced output(full);
        PlayAndClose(host);
    }
    close(full);
}

TEST_F(Exhaustion, OutputWhoseReaderIsGoneHoldsNothingUp) {
    const auto sender = SendUdp(material, port);
    Host host(kUdp);
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
    close(ends[0]);
    {
        const OutputReplaced output(ends[1]);
        PlayAndClose(host);
    }
    close(ends[1]);
}

size_t OpenDescriptors() {
    const std::filesystem::directory_iterator all("/proc/self/fd");
    return static_cast<size_t>(std::distance(begin(all), end(all)));
}

// Lets no more than `room` descriptors be opened while an object lives.
class FewDescriptors {
  public:
    explicit FewDescriptors(rlim_t room) {
        getrlimit(RLIMIT_NOFILE, &saved_);
        // The limit is on numbers, of which lower ones may be free: fewer than `room` can then be had above.
        const rlimit limit{OpenDescriptors() - 1 + room, saved_.rlim_max};
        setrlimit(RLIMIT_NOFILE, &limit);
    }
    ~FewDescriptors() { setrlimit(RLIMIT_NOFILE, &saved_); }
    FewDescriptors(const FewDescriptors &) = delete;
    FewDescriptors &operator=(const FewDescriptors &) = delete;

  private:
    rlimit saved_{};
};

TEST_F(Exhaustion, OpenSaysThatThereAreNoDescriptors) {
    const auto sender = SendUdp(material, port);
    Host host(kUdp);
    for (const rlim_t room : std::initializer_list<rlim_t>{0, 1, 3, 6, 20}) {
        const FewDescriptors few(room);
        EXPECT_FALSE(host.Open(url, UdpOptions{}));
        EXPECT_TRUE(host.Close());
    }
    EXPECT_EQ(log.Count("ERR", "[CBaseSource] Too few file descriptors are left for a pipeline!!! needed=32, URL=" + url), 5U);
    EXPECT_EQ(log.Count("ERR", "[CUDPSource] _CreateGstElements error!!! URL=" + url), 5U);
    PlayAndClose(host);
}

TEST_F(Exhaustion, RebuildWaitsForDescriptors) {
    auto sender = SendUdp(material, port);
    Host host(kUdp);
    OpenUdp(host, port);
    ASSERT_TRUE(WaitMedia(host, material, seconds(2)));
    const auto epoch = host.Epoch();
    sender->Kill();
    // The three seconds before a rebuild.
    ASSERT_TRUE(WaitFor([&] { return host.State() == "reconnect"; }));
    {
        const FewDescriptors few(2);
        sender.reset();
        WaitContaining("Too few file descriptors");
    }
    EXPECT_TRUE(log.WaitLine("INFO", "[CBaseSource] There are file descriptors again. URL=" + url));
    sender = SendUdp(material, port);
    EXPECT_TRUE(host.WaitEpochAfter(epoch));
    EXPECT_TRUE(host.Close());
}

TEST_F(Exhaustion, CloseEndsTheWaitForDescriptors) {
    Host host(kUdp);
    OpenUdp(host, port);
    // The three seconds before a rebuild.
    ASSERT_TRUE(WaitFor([&] { return host.State() == "reconnect"; }));
    const FewDescriptors few(2);
    WaitContaining("Too few file descriptors");
    EXPECT_TRUE(host.Close());
    EXPECT_EQ(host.State(), "stop");
}

// Leaves address space for the stacks of a few threads while an object lives.
class FewThreads {
  public:
    FewThreads() {
        constexpr rlim_t kRoom = 64 << 20;
        getrlimit(RLIMIT_AS, &saved_);
        rlim_t pages = 0;
        std::ifstream("/proc/self/statm") >> pages;
        const rlimit limit{pages * static_cast<rlim_t>(sysconf(_SC_PAGESIZE)) + kRoom, saved_.rlim_max};
        setrlimit(RLIMIT_AS, &limit);
    }
    ~FewThreads() { setrlimit(RLIMIT_AS, &saved_); }
    FewThreads(const FewThreads &) = delete;
    FewThreads &operator=(const FewThreads &) = delete;

  private:
    rlimit saved_{};
};

TEST_F(Exhaustion, OpenSaysThatThereAreNoThreads) {
    const auto sender = SendUdp(material, port);
    Host host(kUdp);
    {
        const FewThreads few;
        EXPECT_FALSE(host.Open(url, UdpOptions{}));
        EXPECT_TRUE(host.Close());
    }
    EXPECT_EQ(log.Count("ERR", "[CBaseSource] Too few threads can be started for a pipeline!!! needed=16, URL=" + url), 1U);
    EXPECT_EQ(log.Count("ERR", "[CUDPSource] _CreateGstElements error!!! URL=" + url), 1U);
    PlayAndClose(host);
}

// What plays goes on; what has to be built again waits.
TEST_F(Exhaustion, RebuildWaitsForThreads) {
    auto sender = SendUdp(material, port);
    Host host(kUdp);
    OpenUdp(host, port);
    ASSERT_TRUE(WaitMedia(host, material, seconds(2)));
    const auto epoch = host.Epoch();
    const std::string missing = "[CBaseSource] Too few threads can be started for a pipeline!!! needed=16, URL=" + url;
    {
        const auto few = std::make_unique<FewThreads>();
        EXPECT_TRUE(host.WaitFrames(SHB_VIDEO, host.Count(SHB_VIDEO) + 50));
        sender->Kill();
        EXPECT_TRUE(log.WaitLine("ERR", missing));
    }
    EXPECT_TRUE(log.WaitLine("INFO", "[CBaseSource] Threads can be started again. URL=" + url));
    sender = SendUdp(material, port);
    EXPECT_TRUE(host.WaitEpochAfter(epoch));
    EXPECT_EQ(log.Count("ERR", missing), 1U);
    EXPECT_TRUE(host.Close());
}

TEST_F(Exhaustion, CloseEndsTheWaitForThreads) {
    Host host(kUdp);
    OpenUdp(host, port);
    const FewThreads few;
    WaitContaining("Too few threads can be started");
    EXPECT_TRUE(host.Close());
    EXPECT_EQ(host.State(), "stop");
}

// Whoever opens something next gets the number. The log does not go into that.
TEST_F(Exhaustion, ClosedOutputIsNoFileOfSomebodyElse) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    int buffer = 0;
    EXPECT_EXIT(
        {
            close(STDOUT_FILENO);
            void *source = gst_source_create(kUdp, &buffer, 0, 0);
            const int next = memfd_create("next", MFD_CLOEXEC);
            dup2(next, STDOUT_FILENO);
            gst_source_destroy(source);
            _exit(lseek(next, 0, SEEK_END) == 0 ? 0 : 1);
        },
        testing::ExitedWithCode(0), "");
}

}  // namespace
}  // namespace peers
