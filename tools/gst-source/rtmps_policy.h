// librtmp plays RTMPS, and takes the session tickets of TLS 1.3 for an error. A policy file of GnuTLS turns
// TLS 1.3 off. GnuTLS reads it when it is loaded.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "fd.h"

namespace tool {

// The file that GnuTLS reads unless the environment names another one.
constexpr char kMachinePolicy[] = "/etc/gnutls/config";

// Whether the library plays one of the URLs by librtmp. It compares the scheme as it stands: "RTMPS" is none.
bool HasRtmps(const std::vector<std::string> &urls);

// The policy of the machine and no TLS 1.3. Nothing when that policy is an allow
// list: GnuTLS then refuses to turn a version off.
std::optional<std::string> WithoutTls13(const std::string &machine_policy);

// Names a policy without TLS 1.3 in the environment when a URL needs it and the environment names none. The
// policy lasts as long as the result. Call it before anything loads GnuTLS, while there is one thread.
Fd UseRtmpsPolicy(const std::vector<std::string> &urls, std::vector<std::string> &warnings,
                  const char *machine_policy = kMachinePolicy);

}  // namespace tool
