// What a stream's URL tells before anything is opened: the class that
// plays it, and which of its letters are secret.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tool {

enum class Protocol { kRtsp, kRtmp, kSrt, kUdp, kHls };

// By the scheme alone, in any case, as URIs have it; nothing for a scheme
// that no class plays or a URL without an address.
std::optional<Protocol> ProtocolOf(std::string_view url);

// Lower-case name for people and records: "rtsp", "rtmp", "srt", "udp", "hls".
const char *ProtocolName(Protocol protocol);

// The URL with its password and passphrase replaced by "***": what is shown and recorded.
std::string PublicUrl(const std::string &url);

// The texts that PublicUrl hides.
std::vector<std::string> SecretsOf(const std::string &url);

// False for a UDP location that the framework would silently replace by its default port.
bool HasPort(const std::string &url);

}  // namespace tool
