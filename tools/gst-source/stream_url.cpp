#include "stream_url.h"

#include <algorithm>
#include <cctype>

namespace tool {
namespace {

constexpr std::string_view kSchemeEnd = "://";

struct Scheme {
    std::string_view name;
    Protocol protocol;
};

constexpr Scheme kSchemes[] = {
    {"udp", Protocol::kUdp},    {"rtsp", Protocol::kRtsp}, {"rtsps", Protocol::kRtsp}, {"rtspt", Protocol::kRtsp},
    {"rtspu", Protocol::kRtsp}, {"srt", Protocol::kSrt},   {"rtmp", Protocol::kRtmp},  {"rtmps", Protocol::kRtmp},
    {"http", Protocol::kHls},   {"https", Protocol::kHls},
};

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
    const size_t at = url.rfind('@', path);
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
    const size_t scheme_end = url.find(kSchemeEnd);
    if (scheme_end == std::string_view::npos || scheme_end + kSchemeEnd.size() == url.size()) {
        return std::nullopt;
    }
    for (const Scheme &scheme : kSchemes) {
        if (EqualIgnoringCase(url.substr(0, scheme_end), scheme.name)) {
            return scheme.protocol;
        }
    }
    return std::nullopt;
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

}  // namespace tool
