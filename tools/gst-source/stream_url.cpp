#include "stream_url.h"

#include <arpa/inet.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <charconv>

namespace tool {
namespace {

constexpr std::string_view kSchemeEnd = "://";

struct Scheme {
    std::string_view name;
    Protocol protocol;
    unsigned port;            // where a location without one leads
    std::string_view server;  // schemes that reach the same one have the same text
};

constexpr Scheme kSchemes[] = {
    {"udp", Protocol::kUdp, 5004, "udp"},    {"rtsp", Protocol::kRtsp, 554, "rtsp"},   {"rtsps", Protocol::kRtsp, 554, "rtsps"},
    {"rtspt", Protocol::kRtsp, 554, "rtsp"}, {"rtspu", Protocol::kRtsp, 554, "rtsp"},  {"srt", Protocol::kSrt, 7001, "srt"},
    {"rtmp", Protocol::kRtmp, 1935, "rtmp"}, {"rtmps", Protocol::kRtmp, 443, "rtmps"}, {"http", Protocol::kHls, 80, "http"},
    {"https", Protocol::kHls, 443, "https"},
};

constexpr unsigned kLargestPort = 65535;

bool EqualIgnoringCase(std::string_view left, std::string_view right) {
    return std::equal(left.begin(), left.end(), right.begin(), right.end(),
                      [](unsigned char a, unsigned char b) { return std::tolower(a) == std::tolower(b); });
}

struct Span {
    size_t begin, end;
};

size_t FindOr(const std::string &text, std::string_view what, size_t from, size_t otherwise) {
    const size_t found = text.find_first_of(what, from);
    return found == std::string::npos ? otherwise : found;
}

// The parts of a URL that has a scheme we know. Views into it.
struct Parts {
    const Scheme *scheme = nullptr;
    std::string_view user;  // with the password
    bool has_user = false;  // there is an "@", be it with nothing before it
    std::string_view host;  // without brackets
    bool bracketed = false;
    bool open_bracket = false;  // one without its end
    std::string_view port;
    bool has_port = false;     // there is a ":", be it with nothing behind it
    std::string_view garbage;  // between a bracket and the port
    std::string_view rest;     // path, query and fragment
};

const Scheme *SchemeOf(std::string_view url) {
    const size_t end = url.find(kSchemeEnd);
    if (end == std::string_view::npos || end + kSchemeEnd.size() == url.size()) {
        return nullptr;
    }
    const auto *known = std::find_if(std::begin(kSchemes), std::end(kSchemes),
                                     [&](const Scheme &scheme) { return EqualIgnoringCase(url.substr(0, end), scheme.name); });
    return known != std::end(kSchemes) ? known : nullptr;
}

std::optional<Parts> Split(std::string_view url) {
    Parts parts;
    parts.scheme = SchemeOf(url);
    if (parts.scheme == nullptr) {
        return std::nullopt;
    }
    std::string_view authority = url.substr(url.find(kSchemeEnd) + kSchemeEnd.size());
    const size_t path = std::min(authority.find_first_of("/?#"), authority.size());
    parts.rest = authority.substr(path);
    authority = authority.substr(0, path);
    const size_t at = authority.rfind('@');
    if (at != std::string_view::npos) {
        parts.has_user = true;
        parts.user = authority.substr(0, at);
        authority.remove_prefix(at + 1);
    }
    if (!authority.empty() && authority.front() == '[') {
        const size_t end = authority.find(']');
        parts.bracketed = true;
        parts.open_bracket = end == std::string_view::npos;
        parts.host = authority.substr(1, std::min(end, authority.size()) - 1);
        authority.remove_prefix(parts.open_bracket ? authority.size() : end + 1);
        parts.garbage = authority.substr(0, authority.find(':'));
        authority.remove_prefix(parts.garbage.size());
    } else {
        parts.host = authority.substr(0, authority.rfind(':'));
        authority.remove_prefix(parts.host.size());
    }
    parts.has_port = !authority.empty();
    parts.port = parts.has_port ? authority.substr(1) : authority;
    return parts;
}

bool IsDigits(std::string_view text) {
    return !text.empty() && std::all_of(text.begin(), text.end(), [](unsigned char c) { return std::isdigit(c) != 0; });
}

// 0 for what is no port.
unsigned PortNumber(std::string_view text) {
    unsigned port = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), port);
    return error == std::errc() && end == text.data() + text.size() && port <= kLargestPort ? port : 0;
}

// The address in the one form that it has in binary; empty for a name. A zone, "%eth0", stands apart.
std::string Binary(std::string_view host) {
    const std::string text(host.substr(0, host.find('%')));
    std::array<char, sizeof(in6_addr)> address{};
    if (inet_pton(AF_INET, text.c_str(), address.data()) == 1) {
        return {address.data(), sizeof(in_addr)};
    }
    return inet_pton(AF_INET6, text.c_str(), address.data()) == 1 ? std::string(address.data(), address.size()) : "";
}

bool IsWildcard(std::string_view host) {
    const std::string binary = Binary(host);
    return host.empty() || (!binary.empty() && binary.find_first_not_of('\0') == std::string::npos);
}

bool SameHost(std::string_view a, std::string_view b) {
    const std::string binary = Binary(a);
    return binary.empty()
               ? EqualIgnoringCase(a, b)
               : binary == Binary(b) && a.substr(std::min(a.find('%'), a.size())) == b.substr(std::min(b.find('%'), b.size()));
}

// 300.1.1.1: four numbers of which one is too large.
bool IsWrongIpv4(std::string_view host) {
    const bool numbers =
        host.find_first_not_of("0123456789.") == std::string_view::npos && std::count(host.begin(), host.end(), '.') == 3;
    return numbers && Binary(host).empty();
}

// A password with one of "/?#" ends the part of the URL in which it is looked for.
bool UserIsCutShort(const Parts &parts) {
    return parts.has_port && !IsDigits(parts.port) && parts.rest.find('@') != std::string_view::npos;
}

std::optional<std::string> HostMistake(const Parts &parts) {
    if (parts.open_bracket) {
        return "the address in brackets has no \"]\" at its end";
    }
    if (parts.bracketed && Binary(parts.host).size() != sizeof(in6_addr)) {
        return "\"[" + std::string(parts.host) + "]\" is not an IPv6 address";
    }
    if (!parts.garbage.empty()) {
        return "behind the \"]\" of an address comes :PORT";
    }
    if (!parts.bracketed && parts.host.find(':') != std::string_view::npos) {
        return "an IPv6 address stands in brackets, as in [ff02::1]:5000";
    }
    if (IsWrongIpv4(parts.host)) {
        return "\"" + std::string(parts.host) + "\" is not an IPv4 address";
    }
    // SRT listens without a host, and UDP receives; both need the port then.
    const bool may_listen = parts.scheme->protocol == Protocol::kUdp || parts.scheme->protocol == Protocol::kSrt;
    if (parts.host.empty() && !(may_listen && parts.has_port)) {
        return "there is no host in it";
    }
    return std::nullopt;
}

std::optional<std::string> PortMistake(const Parts &parts) {
    if (!parts.has_port || (parts.port.empty() && parts.scheme->protocol == Protocol::kHls)) {
        return std::nullopt;
    }
    if (parts.port.empty()) {
        return "there is no port behind the colon";
    }
    if (!IsDigits(parts.port) || PortNumber(parts.port) == 0) {
        return "\"" + std::string(parts.port) + "\" is not a port from 1 to " + std::to_string(kLargestPort);
    }
    return std::nullopt;
}

// Blanks have a meaning for RTMPS alone: behind the path, librtmp takes options.
std::optional<std::string> LetterMistake(std::string_view url) {
    const Scheme *scheme = SchemeOf(url);
    const size_t begin = scheme != nullptr ? url.find(kSchemeEnd) + kSchemeEnd.size() : 0;
    const size_t path = std::min(url.find('/', begin), url.size());
    const std::string_view strict = scheme != nullptr && scheme->name == "rtmps" ? url.substr(0, path) : url;
    if (std::any_of(url.begin(), url.end(), [](unsigned char c) { return c < 0x20 || c == 0x7f; })) {
        return "there is a control character in it";
    }
    if (strict.find(' ') != std::string_view::npos) {
        return "there is a blank in it; a URL has %20 in its place";
    }
    return std::nullopt;
}

// What a server tells streams apart by.
std::string StreamOf(const Parts &parts) {
    std::string stream(parts.rest.substr(0, parts.rest.find('#')));
    if (parts.scheme->protocol == Protocol::kSrt) {
        constexpr std::string_view kSecret = "passphrase=";
        const size_t secret = stream.find(kSecret);
        if (secret != std::string::npos) {
            stream.erase(secret, FindOr(stream, "&", secret, stream.size() - 1) - secret + 1);
        }
        while (!stream.empty() && (stream.back() == '&' || stream.back() == '?')) {
            stream.pop_back();
        }
    }
    return stream == "/" ? "" : stream;
}

// Where the secrets of a URL stand, from left to right: the password
// before the host, and SRT's passphrase parameter.
std::vector<Span> SecretSpans(const std::string &url) {
    std::vector<Span> spans;
    const size_t scheme_end = url.find(kSchemeEnd);
    if (scheme_end == std::string::npos) {
        return spans;
    }
    const size_t authority = scheme_end + kSchemeEnd.size();
    const size_t path = FindOr(url, "/?#", authority, url.size());
    const auto parts = Split(url);
    const bool cut_short = parts && UserIsCutShort(*parts);
    const size_t at = url.rfind('@', cut_short ? std::string::npos : path);
    if (at != std::string::npos && at >= authority) {
        const size_t colon = url.find(':', authority);
        if (colon < at) {
            spans.push_back({colon + 1, at});
        }
    }
    const size_t query = url.find('?', authority);
    if (query != std::string::npos) {
        constexpr std::string_view kKey = "passphrase=";
        for (size_t begin = query + 1; begin < url.size();) {
            const size_t end = FindOr(url, "&#", begin, url.size());
            if (url.compare(begin, kKey.size(), kKey) == 0) {
                spans.push_back({begin + kKey.size(), end});
            }
            begin = end + 1;
        }
    }
    spans.erase(std::remove_if(spans.begin(), spans.end(), [](const Span &span) { return span.begin >= span.end; }),
                spans.end());
    return spans;
}

}  // namespace

std::optional<Protocol> ProtocolOf(std::string_view url) {
    const Scheme *scheme = SchemeOf(url);
    return scheme != nullptr ? std::optional(scheme->protocol) : std::nullopt;
}

const char *ProtocolName(Protocol protocol) {
    switch (protocol) {
        case Protocol::kRtsp:
            return "rtsp";
        case Protocol::kRtmp:
            return "rtmp";
        case Protocol::kSrt:
            return "srt";
        case Protocol::kUdp:
            return "udp";
        case Protocol::kHls:
            return "hls";
    }
    return "";
}

std::string PublicUrl(const std::string &url) {
    std::string shown = url;
    const std::vector<Span> spans = SecretSpans(url);
    for (auto span = spans.rbegin(); span != spans.rend(); ++span) {
        shown.replace(span->begin, span->end - span->begin, "***");
    }
    return shown;
}

std::vector<std::string> SecretsOf(const std::string &url) {
    std::vector<std::string> secrets;
    for (const Span &span : SecretSpans(url)) {
        secrets.push_back(url.substr(span.begin, span.end - span.begin));
    }
    return secrets;
}

bool HasPort(const std::string &url) {
    const size_t authority = url.find(kSchemeEnd);
    if (authority == std::string::npos) {
        return false;
    }
    const size_t end = FindOr(url, "/?#", authority + kSchemeEnd.size(), url.size());
    const size_t colon = url.rfind(':', end);
    if (colon == std::string::npos || colon <= authority || colon + 1 >= end) {
        return false;
    }
    return std::all_of(url.begin() + static_cast<std::ptrdiff_t>(colon) + 1, url.begin() + static_cast<std::ptrdiff_t>(end),
                       [](unsigned char c) { return std::isdigit(c) != 0; });
}

std::string NormalisedUrl(const std::string &url) {
    const auto parts = Split(url);
    if (!parts || parts->scheme->protocol != Protocol::kUdp || !parts->user.empty() || !parts->has_port ||
        (!parts->has_user && (!parts->host.empty() || parts->bracketed))) {
        return url;
    }
    const std::string host = parts->bracketed ? "[" + std::string(parts->host) + "]" : std::string(parts->host);
    return url.substr(0, url.find(kSchemeEnd) + kSchemeEnd.size()) + (host.empty() ? "0.0.0.0" : host) + ":" +
           std::string(parts->port) + std::string(parts->rest);
}

std::optional<std::string> UrlMistake(const std::string &url) {
    if (auto mistake = LetterMistake(url)) {
        return mistake;
    }
    const auto parts = Split(url);
    if (!parts) {
        return "not a stream URL; known are udp, rtsp, rtsps, rtspt, rtspu, srt, rtmp, rtmps, http and https";
    }
    // Nothing of it is quoted: it may be a password.
    if (UserIsCutShort(*parts)) {
        return "a password has %2F, %3F and %23 in place of \"/\", \"?\" and \"#\"";
    }
    if (auto mistake = HostMistake(*parts)) {
        return mistake;
    }
    return PortMistake(*parts);
}

bool SamePlace(const std::string &url_a, const std::string &url_b) {
    const auto a = Split(url_a);
    const auto b = Split(url_b);
    if (!a || !b || a->scheme->server != b->scheme->server) {
        return false;
    }
    const auto port = [](const Parts &parts) { return parts.port.empty() ? parts.scheme->port : PortNumber(parts.port); };
    if (port(*a) != port(*b)) {
        return false;
    }
    const bool listens = a->scheme->protocol == Protocol::kUdp || a->scheme->protocol == Protocol::kSrt;
    const bool same_host = SameHost(a->host, b->host) || (listens && (IsWildcard(a->host) || IsWildcard(b->host)));
    return same_host && (a->scheme->protocol == Protocol::kUdp || StreamOf(*a) == StreamOf(*b));
}

std::optional<UdpPlace> UdpPlaceOf(const std::string &url) {
    const auto parts = Split(url);
    if (!parts || parts->scheme->protocol != Protocol::kUdp || UrlMistake(url)) {
        return std::nullopt;
    }
    return UdpPlace{parts->host.empty() ? "0.0.0.0" : std::string(parts->host),
                    parts->has_port ? PortNumber(parts->port) : parts->scheme->port};
}

}  // namespace tool
