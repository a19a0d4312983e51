#include "rtmps_policy.h"

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string_view>

#include "rtmps_policy_text.h"

namespace tool {
namespace {

constexpr char kVariable[] = "GNUTLS_SYSTEM_PRIORITY_FILE";

std::string ReadFile(const char *path) {
    std::ifstream file(path);
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

bool IsAllowList(const std::string &policy) {
    std::istringstream lines(policy);
    for (std::string line; std::getline(lines, line);) {
        line.erase(std::remove_if(line.begin(), line.end(), [](unsigned char c) { return std::isspace(c) != 0; }), line.end());
        std::transform(line.begin(), line.end(), line.begin(), [](unsigned char c) { return std::tolower(c); });
        if (line == "override-mode=allowlist") {
            return true;
        }
    }
    return false;
}

}  // namespace

bool HasRtmps(const std::vector<std::string> &urls) {
    return std::any_of(urls.begin(), urls.end(), [](const std::string &url) { return url.rfind("rtmps", 0) == 0; });
}

std::optional<std::string> WithoutTls13(const std::string &machine_policy) {
    if (IsAllowList(machine_policy)) {
        return std::nullopt;
    }
    return machine_policy + "\n" + kRtmpsPolicy;
}

Fd UseRtmpsPolicy(const std::vector<std::string> &urls, std::vector<std::string> &warnings, const char *machine_policy) {
    if (!HasRtmps(urls) || std::getenv(kVariable) != nullptr) {
        return {};
    }
    const auto warn = [&warnings](const std::string &reason) {
        warnings.push_back("RTMPS servers that send session tickets of TLS 1.3 cannot be played: " + reason);
    };
    const auto policy = WithoutTls13(ReadFile(machine_policy));
    if (!policy) {
        warn(std::string(machine_policy) + " is an allow list");
        return {};
    }
    Fd file(memfd_create("rtmps-gnutls.conf", MFD_CLOEXEC));
    // Not /proc/self: children read it too, such as the scanner of
    // plug-ins, and have another file of this number.
    const std::string path = "/proc/" + std::to_string(getpid()) + "/fd/" + std::to_string(file.Get());
    if (!file || !WriteAll(file.Get(), *policy) || access(path.c_str(), R_OK) != 0 || setenv(kVariable, path.c_str(), 1) != 0) {
        warn("GnuTLS cannot be given a policy");
        return {};
    }
    return file;
}

}  // namespace tool
