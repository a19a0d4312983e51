#include "udp_port.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <csignal>
#include <cstring>
#include <stdexcept>

#include "fd.h"
#include "temp_dir.h"

using namespace tool;

namespace {

struct Bound {
    Fd socket;
    unsigned port = 0;
};

// Port 0: one of the kernel's choice.
Bound Bind(const std::string &address, unsigned port = 0, bool connect_it = false) {
    sockaddr_in v4{};
    v4.sin_family = AF_INET;
    v4.sin_port = htons(static_cast<uint16_t>(port));
    sockaddr_in6 v6{};
    v6.sin6_family = AF_INET6;
    v6.sin6_port = v4.sin_port;
    const bool is_v4 = inet_pton(AF_INET, address.c_str(), &v4.sin_addr) == 1;
    if (!is_v4 && inet_pton(AF_INET6, address.c_str(), &v6.sin6_addr) != 1) {
        throw std::logic_error(address);
    }
    auto *place = is_v4 ? reinterpret_cast<sockaddr *>(&v4) : reinterpret_cast<sockaddr *>(&v6);
    socklen_t size = is_v4 ? sizeof v4 : sizeof v6;
    Bound bound{Fd(socket(is_v4 ? AF_INET : AF_INET6, SOCK_DGRAM | SOCK_CLOEXEC, 0))};
    if (bind(bound.socket.Get(), place, size) != 0 || getsockname(bound.socket.Get(), place, &size) != 0) {
        throw std::runtime_error(std::string("bind: ") + std::strerror(errno));
    }
    bound.port = ntohs(is_v4 ? v4.sin_port : v6.sin6_port);
    if (connect_it && connect(bound.socket.Get(), place, size) != 0) {
        throw std::runtime_error("connect");
    }
    return bound;
}

// Another process that keeps a socket, which this one gives up.
class Keeper {
  public:
    explicit Keeper(Bound bound) : port(bound.port) {
        const pid_t parent = getpid();
        m_id = fork();
        if (m_id == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            prctl(PR_SET_NAME, "port-keeper");
            while (getppid() == parent) {
                pause();
            }
            _exit(0);
        }
    }
    ~Keeper() {
        kill(m_id, SIGKILL);
        waitpid(m_id, nullptr, 0);
    }
    Keeper(const Keeper &) = delete;
    Keeper &operator=(const Keeper &) = delete;

    pid_t Id() const { return m_id; }
    const unsigned port;

  private:
    pid_t m_id = -1;
};

// Pid of the process, 0 for nobody.
int Found(const std::string &address, unsigned port) {
    const auto user = WhoHasUdpPort(address, port);
    return user ? user->pid : 0;
}

bool HasIpv6() {
    const Fd probe(socket(AF_INET6, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    sockaddr_in6 place{};
    place.sin6_family = AF_INET6;
    place.sin6_addr = in6addr_loopback;
    return bind(probe.Get(), reinterpret_cast<sockaddr *>(&place), sizeof place) == 0;
}

}  // namespace

TEST(UdpPort, AnotherProcessIsNamed) {
    const Keeper keeper(Bind("127.0.0.1"));
    for (const char *address : {"127.0.0.1", "0.0.0.0", "::", "::ffff:127.0.0.1"}) {
        const auto user = WhoHasUdpPort(address, keeper.port);
        ASSERT_TRUE(user) << address;
        EXPECT_EQ(user->pid, keeper.Id());
    }
    for (const char *address : {"127.0.0.2", "::1", "239.1.1.1", "ff02::1", "a.name.example", ""}) {
        EXPECT_FALSE(WhoHasUdpPort(address, keeper.port)) << address;
    }
    EXPECT_FALSE(WhoHasUdpPort("127.0.0.1", 0));
    const std::string url = "udp://127.0.0.1:" + std::to_string(keeper.port);
    const std::string expected = url + ": port " + std::to_string(keeper.port) + " is in use by ";
    const std::string said = UdpPortTaken(url).value_or("");
    EXPECT_EQ(said.rfind(expected, 0), 0U) << said;
    EXPECT_NE(said.find(" (process " + std::to_string(keeper.Id()) + "); two receivers of one port take each other's packets"),
              std::string::npos)
        << said;
    EXPECT_EQ(UdpPortTaken("srt://127.0.0.1:" + std::to_string(keeper.port)), std::nullopt);
}

TEST(UdpPort, AWildcardTakesEveryAddress) {
    const Keeper keeper(Bind("0.0.0.0"));
    EXPECT_EQ(Found("127.0.0.1", keeper.port), keeper.Id());
    EXPECT_EQ(Found("0.0.0.0", keeper.port), keeper.Id());
}

TEST(UdpPort, BothFamilies) {
    if (!HasIpv6()) {
        GTEST_SKIP() << "no IPv6 on this machine";
    }
    const Keeper any(Bind("::"));
    EXPECT_EQ(Found("127.0.0.1", any.port), any.Id());
    EXPECT_EQ(Found("::1", any.port), any.Id());
    const Keeper loopback(Bind("::1"));
    EXPECT_EQ(Found("::1", loopback.port), loopback.Id());
    EXPECT_EQ(Found("::", loopback.port), loopback.Id());
    EXPECT_EQ(Found("127.0.0.1", loopback.port), 0);
}

TEST(UdpPort, OwnConnectedAndMulticastSocketsTakeNothing) {
    const Bound own = Bind("127.0.0.1");
    EXPECT_FALSE(WhoHasUdpPort("127.0.0.1", own.port));
    const Keeper connected(Bind("127.0.0.1", 0, true));
    EXPECT_FALSE(WhoHasUdpPort("127.0.0.1", connected.port));
    const Keeper group(Bind("239.255.0.1"));
    EXPECT_FALSE(WhoHasUdpPort("0.0.0.0", group.port));
}

TEST(UdpPort, AProcessOfAnotherUserHasNoName) {
    if (getuid() != 0) {
        GTEST_SKIP() << "only root can become another user";
    }
    const Keeper keeper(Bind("127.0.0.1"));
    std::array<int, 2> ends{};
    ASSERT_EQ(pipe2(ends.data(), O_CLOEXEC), 0);
    const Fd read_end(ends[0]);
    Fd write_end(ends[1]);
    const pid_t looker = fork();
    if (looker == 0) {
        constexpr uid_t kNobody = 65534;
        std::string said = "not another user";
        if (setgid(kNobody) == 0 && setuid(kNobody) == 0) {
            said = UdpPortTaken("udp://127.0.0.1:" + std::to_string(keeper.port)).value_or("nobody");
        }
        WriteAll(write_end.Get(), said);
        _exit(0);
    }
    write_end = Fd();
    std::string said;
    std::array<char, 512> buffer{};
    for (ssize_t got = 1; got > 0;) {
        got = read(read_end.Get(), buffer.data(), buffer.size());
        said.append(buffer.data(), got > 0 ? static_cast<size_t>(got) : 0);
    }
    waitpid(looker, nullptr, 0);
    EXPECT_NE(said.find(" is in use by another process; two receivers"), std::string::npos) << said;
}
