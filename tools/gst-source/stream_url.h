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

// The usual short forms of a UDP location as the framework reads them: udp://:5000, udp://@:5000 and
// udp://@239.1.1.1:5000 become udp://0.0.0.0:5000 and udp://239.1.1.1:5000. Every other URL stays as it is.
std::string NormalisedUrl(const std::string &url);

// What no class can play, in one sentence without secrets: a wrong port, a missing host, blanks and the like.
// Nothing when the URL may be played.
std::optional<std::string> UrlMistake(const std::string &url);

// Whether two URLs name one stream: another user, another port of the same meaning, an RTSP transport or the
// case of the host make no difference.
bool SamePlace(const std::string &url_a, const std::string &url_b);

// Where a UDP location listens.
struct UdpPlace {
    std::string address;  // "0.0.0.0" or "::" for every address of the machine
    unsigned port = 0;
};
// Nothing for other locations and those with a mistake.
std::optional<UdpPlace> UdpPlaceOf(const std::string &url);

}  // namespace tool
