#include "udp_port.h"

#include <arpa/inet.h>
#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <charconv>
#include <cstring>
#include <fstream>
#include <memory>
#include <sstream>
#include <string_view>
#include <vector>

#include "fd.h"
#include "stream_url.h"
#include "text.h"

namespace tool {
namespace {

// An address of either family; IPv4 as IPv6 has it, ::ffff:1.2.3.4. Their wildcards are one.
using Address = std::array<unsigned char, sizeof(in6_addr)>;
constexpr Address kAny{};

constexpr std::array<unsigned char, 12> kMapped{0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xff, 0xff};

bool IsMapped(const Address &address) {
    return std::equal(kMapped.begin(), kMapped.end(), address.begin());
}

Address FromIpv4(const unsigned char *bytes) {
    Address address{};
    std::copy(kMapped.begin(), kMapped.end(), address.begin());
    std::copy_n(bytes, sizeof(in_addr), address.begin() + kMapped.size());
    const bool any = std::all_of(bytes, bytes + sizeof(in_addr), [](unsigned char byte) { return byte == 0; });
    return any ? kAny : address;
}

std::optional<Address> ParseAddress(const std::string &text) {
    Address address{};
    const std::string plain = text.substr(0, text.find('%'));
    if (inet_pton(AF_INET, plain.c_str(), address.data()) == 1) {
        return FromIpv4(address.data());
    }
    if (inet_pton(AF_INET6, plain.c_str(), address.data()) == 1) {
        return IsMapped(address) ? FromIpv4(&address[kMapped.size()]) : address;
    }
    return std::nullopt;
}

bool IsMulticast(const Address &address) {
    constexpr unsigned char kFirst4 = 224;
    constexpr unsigned char kLast4 = 239;
    constexpr unsigned char kIpv6 = 0xff;
    const unsigned char first4 = address[kMapped.size()];
    return address[0] == kIpv6 || (IsMapped(address) && first4 >= kFirst4 && first4 <= kLast4);
}

// As the kernel prints it: words of four bytes, each as a number of this machine.
std::optional<Address> ParseKernelAddress(std::string_view text) {
    constexpr size_t kDigits = 8;
    Address address{};
    size_t at = 0;
    for (; text.size() >= kDigits && at < address.size(); at += sizeof(uint32_t)) {
        uint32_t word = 0;
        const auto [end, error] = std::from_chars(text.data(), text.data() + kDigits, word, 16);
        if (error != std::errc() || end != text.data() + kDigits) {
            return std::nullopt;
        }
        std::memcpy(&address[at], &word, sizeof word);
        text.remove_prefix(kDigits);
    }
    if (!text.empty() || (at != sizeof(in_addr) && at != address.size())) {
        return std::nullopt;
    }
    if (at == sizeof(in_addr)) {
        return FromIpv4(address.data());
    }
    return IsMapped(address) ? FromIpv4(&address[kMapped.size()]) : address;
}

// The inode of the socket of such a line, when it takes what comes to this place.
std::optional<std::string> SocketOfLine(const std::string &line, const Address &address, unsigned port) {
    // Connected: it gets the datagrams of its own peer alone.
    constexpr std::string_view kConnected = "01";
    std::istringstream words(line);
    std::string slot, local, remote, state, queues, timer, retransmits, user, timeout, inode;
    if (!(words >> slot >> local >> remote >> state >> queues >> timer >> retransmits >> user >> timeout >> inode)) {
        return std::nullopt;
    }
    const size_t colon = local.find(':');
    unsigned bound = 0;
    const auto bound_to = ParseKernelAddress(std::string_view(local).substr(0, colon));
    if (colon == std::string::npos || !bound_to || state == kConnected ||
        std::from_chars(local.data() + colon + 1, local.data() + local.size(), bound, 16).ec != std::errc() || bound != port) {
        return std::nullopt;
    }
    const bool overlaps = *bound_to == address || *bound_to == kAny || address == kAny;
    return overlaps && !IsMulticast(*bound_to) ? std::optional(inode) : std::nullopt;
}

std::vector<std::string> SocketsOn(const Address &address, unsigned port) {
    std::vector<std::string> inodes;
    for (const char *path : {"/proc/net/udp", "/proc/net/udp6"}) {
        std::ifstream table(path);
        for (std::string line; std::getline(table, line);) {
            if (const auto inode = SocketOfLine(line, address, port)) {
                inodes.push_back("socket:[" + *inode + "]");
            }
        }
    }
    return inodes;
}

struct CloseDirectory {
    void operator()(DIR *directory) const { closedir(directory); }
};
using Directory = std::unique_ptr<DIR, CloseDirectory>;

// Takes the sockets out of `inodes` that the process has, and says whether there was one. A process that has
// gone meanwhile, or is somebody else's, has none.
bool HoldsOne(const std::string &process, std::vector<std::string> &inodes) {
    const Directory descriptors(opendir(("/proc/" + process + "/fd").c_str()));
    const size_t before = inodes.size();
    while (descriptors != nullptr && !inodes.empty()) {
        const dirent *entry = readdir(descriptors.get());
        if (entry == nullptr) {
            break;
        }
        std::array<char, 64> target{};
        const ssize_t size = readlinkat(dirfd(descriptors.get()), entry->d_name, target.data(), target.size());
        if (size > 0) {
            const std::string_view link(target.data(), static_cast<size_t>(size));
            inodes.erase(std::remove(inodes.begin(), inodes.end(), link), inodes.end());
        }
    }
    return inodes.size() < before;
}

std::string NameOf(const std::string &process) {
    std::string name;
    std::ifstream file("/proc/" + process + "/comm");
    std::getline(file, name);
    return Printable(name);
}

}  // namespace

std::optional<PortUser> WhoHasUdpPort(const std::string &address, unsigned port) {
    const auto wanted = ParseAddress(address);
    if (!wanted || port == 0 || IsMulticast(*wanted)) {
        return std::nullopt;
    }
    std::vector<std::string> inodes = SocketsOn(*wanted, port);
    if (inodes.empty()) {
        return std::nullopt;
    }
    HoldsOne("self", inodes);
    if (inodes.empty()) {
        return std::nullopt;
    }
    const Directory processes(opendir("/proc"));
    while (const dirent *entry = processes != nullptr ? readdir(processes.get()) : nullptr) {
        const std::string process = entry->d_name;
        int pid = 0;
        const auto [end, error] = std::from_chars(process.data(), process.data() + process.size(), pid);
        if (error == std::errc() && end == process.data() + process.size() && HoldsOne(process, inodes)) {
            return PortUser{pid, NameOf(process)};
        }
    }
    return PortUser{};
}

std::optional<std::string> UdpPortTaken(const std::string &url) {
    const auto place = UdpPlaceOf(url);
    const auto user = place ? WhoHasUdpPort(place->address, place->port) : std::nullopt;
    if (!user) {
        return std::nullopt;
    }
    const std::string who = user->pid == 0 ? "another process" : user->name + " (process " + std::to_string(user->pid) + ")";
    return PublicUrl(url) + ": port " + std::to_string(place->port) + " is in use by " + who +
           "; two receivers of one port take each other's packets";
}

}  // namespace tool
