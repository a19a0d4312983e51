#include "source_fields.h"

#include <grp.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <charconv>
#include <limits>
#include <sstream>
#include <string_view>

#include "command_line.h"

namespace tool {
namespace {

using Kind = SourceField::Kind;
using Set = decltype(SourceField::set);
using Get = decltype(SourceField::get);

// The buffer takes 2^31 ms at most.
constexpr double kLongestStallWatch = 2'000'000;

constexpr std::pair<std::string_view, unsigned> kBinaryUnits[] = {{"G", 30}, {"M", 20}, {"K", 10}, {"", 0}};

// Bytes, with K, M or G for their binary multiples.
uint64_t ParseTrackSize(const std::string &label, const std::string &text) {
    uint64_t value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    const std::string unit(end, text.data() + text.size());
    const auto *known =
        std::find_if(std::begin(kBinaryUnits), std::end(kBinaryUnits), [&unit](const auto &one) { return one.first == unit; });
    constexpr uint64_t kSmallest = 64u << 10;
    constexpr uint64_t kLargest = 1u << 30;
    const bool readable = error == std::errc() && known != std::end(kBinaryUnits) && value <= kLargest;
    const uint64_t bytes = readable ? value << known->second : 0;
    if (bytes < kSmallest || bytes > kLargest || (bytes & (bytes - 1)) != 0) {
        Refuse(label + ": \"" + text + "\" is not a power of two from 64K to 1G (bytes; K, M and G are binary multiples)");
    }
    return bytes;
}

std::string TrackSizeText(uint64_t bytes) {
    if (bytes == 0) {
        return {};
    }
    const auto *unit = std::find_if(std::begin(kBinaryUnits), std::end(kBinaryUnits),
                                    [bytes](const auto &one) { return bytes >> one.second << one.second == bytes; });
    return std::to_string(bytes >> unit->second) + std::string(unit->first);
}

constexpr std::pair<std::string_view, uint32_t> kModes[] = {{"0600", 0600}, {"0640", 0640}, {"0604", 0604}, {"0644", 0644}};

uint32_t ParseMode(const std::string &label, const std::string &text) {
    for (const auto &[name, mode] : kModes) {
        if (text == name || text == name.substr(1)) {
            return mode;
        }
    }
    Refuse(label + ": \"" + text + "\" is not 0600, 0640, 0604 or 0644: its user writes the buffer, others may only read it");
}

std::string ModeText(uint32_t mode) {
    const auto *known =
        std::find_if(std::begin(kModes), std::end(kModes), [mode](const auto &one) { return one.second == mode; });
    return known == std::end(kModes) ? std::string() : std::string(known->first);
}

uint32_t ParseGroup(const std::string &label, const std::string &text) {
    if (const group *known = getgrnam(text.c_str())) {
        return known->gr_gid;
    }
    const bool number = !text.empty() && text.find_first_not_of("0123456789") == std::string::npos;
    if (!number) {
        Refuse(label + ": there is no group \"" + text + "\"");
    }
    // The largest number means "unchanged" to the system.
    return ParseWhole<uint32_t>(label, text, 0, std::numeric_limits<uint32_t>::max() - 1);
}

std::string Lower(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(), [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return text;
}

constexpr std::pair<std::string_view, uint32_t> kTransports[] = {
    {"tcp", 4}, {"udp", 1}, {"multicast", 2}, {"http", 16}, {"tls", 32}};

// 0 for an unknown name.
uint32_t TransportBit(const std::string &name) {
    const auto *known =
        std::find_if(std::begin(kTransports), std::end(kTransports), [&name](const auto &bit) { return bit.first == name; });
    return known == std::end(kTransports) ? 0 : known->second;
}

// The mask as a number, or names joined by commas.
uint32_t ParseRtspProtocols(const std::string &label, const std::string &text) {
    if (!text.empty() && std::isdigit(static_cast<unsigned char>(text.front())) != 0) {
        return ParseWhole<uint32_t>(label, text, 0, std::numeric_limits<uint32_t>::max());
    }
    uint32_t mask = 0;
    bool known = !text.empty();
    std::istringstream names(Lower(text));
    for (std::string name; std::getline(names, name, ',');) {
        const uint32_t bit = TransportBit(name);
        known = known && bit != 0;
        mask |= bit;
    }
    if (!known || mask == 0) {
        Refuse(label + ": \"" + text + "\" is neither a number nor a list of udp, multicast, tcp, http and tls");
    }
    return mask;
}

// Names where the mask has no other bits.
std::string RtspProtocolsText(uint32_t mask) {
    std::string names;
    uint32_t rest = mask;
    for (const auto &[name, bit] : kTransports) {
        if ((mask & bit) != 0) {
            names += (names.empty() ? "" : ",") + std::string(name);
            rest &= ~bit;
        }
    }
    return rest == 0 && mask != 0 ? names : std::to_string(mask);
}

std::string ParseSrtMode(const std::string &label, const std::string &text) {
    std::string mode = Lower(text);
    if (mode != "caller" && mode != "listener" && mode != "rendezvous") {
        Refuse(label + ": \"" + text + "\" is not caller, listener or rendezvous");
    }
    return mode;
}

double ParseStallWatch(const std::string &label, const std::string &text) {
    return text == "0" ? 0 : ParseSeconds(label, text, kLongestStallWatch);
}

// Setters and getters of a member, `Member` being a function that finds it.
template <typename Member>
Set SetText(Member member) {
    return [member](SourceConfig &config, const std::string & /*label*/, const std::string &text) { member(config) = text; };
}
template <typename Member>
Get GetText(Member member) {
    return [member](const SourceConfig &config) { return member(config); };
}
template <typename Member>
Set SetWhole(Member member) {
    return [member](SourceConfig &config, const std::string &label, const std::string &text) {
        member(config) = ParseWhole<uint32_t>(label, text, 0, std::numeric_limits<uint32_t>::max());
    };
}
template <typename Member>
Get GetWhole(Member member) {
    return [member](const SourceConfig &config) { return std::to_string(member(config)); };
}
template <typename Member, typename Parse>
Set SetParsed(Member member, Parse parse) {
    return [member, parse](SourceConfig &config, const std::string &label, const std::string &text) {
        member(config) = parse(label, text);
    };
}

#define MEMBER(path) ([](auto &config) -> auto & { return config.path; })
#define TEXT(path) SetText(MEMBER(path)), GetText(MEMBER(path))
#define WHOLE(path) SetWhole(MEMBER(path)), GetWhole(MEMBER(path))

std::vector<SourceField> MakeFields() {
    constexpr bool kOpen = false;
    constexpr bool kSecret = true;
    const auto rtsp = Protocol::kRtsp;
    const auto srt = Protocol::kSrt;
    const auto rtmp = Protocol::kRtmp;
    const auto udp = Protocol::kUdp;
    const auto hls = Protocol::kHls;
    return {
        {{},
         "caching",
         "--caching",
         "MS",
         "0 sets the demultiplexer latency of UDP, SRT and HLS to 0",
         Kind::kWhole,
         kOpen,
         WHOLE(caching)},
        {{}, "user", "--user", "NAME", "user name for RTSP, RTMP and HLS, for every source", Kind::kText, kOpen, TEXT(user)},
        {{}, "password", "--password", "TEXT", "password to it", Kind::kText, kSecret, TEXT(password)},
        {{},
         "stall_watch",
         "--stall-watch",
         "SECONDS",
         "connect again when a track that has carried data gets none for this time; 0 never. By default 10, and for HLS three "
         "times the longest pause between its segments, 10 to 60",
         Kind::kNumber,
         kOpen,
         SetParsed(MEMBER(stall_watch), ParseStallWatch),
         [](const SourceConfig &config) { return config.stall_watch ? NumberText(*config.stall_watch) : std::string(); }},
        {{},
         "video_bytes",
         "--video-bytes",
         "BYTES",
         "payload of each video track, a power of two; default 8M",
         Kind::kText,
         kOpen,
         SetParsed(MEMBER(memory.video_bytes), ParseTrackSize),
         [](const SourceConfig &config) { return TrackSizeText(config.memory.video_bytes); }},
        {{},
         "audio_bytes",
         "--audio-bytes",
         "BYTES",
         "payload of each audio track, a power of two; default 512K",
         Kind::kText,
         kOpen,
         SetParsed(MEMBER(memory.audio_bytes), ParseTrackSize),
         [](const SourceConfig &config) { return TrackSizeText(config.memory.audio_bytes); }},
        {{},
         "buffer_mode",
         "--buffer-mode",
         "MODE",
         "who may read the buffer: 0600 this user, 0640 also the group, 0604 also all others, 0644 everybody; the umask "
         "is taken off",
         Kind::kText,
         kOpen,
         SetParsed(MEMBER(memory.mode), ParseMode),
         [](const SourceConfig &config) { return ModeText(config.memory.mode); }},
        {{},
         "buffer_group",
         "--buffer-group",
         "GROUP",
         "group of the buffer, by name or number, for --buffer-mode 0640; this user must be in it",
         Kind::kText,
         kOpen,
         SetParsed(MEMBER(memory.group), ParseGroup),
         [](const SourceConfig &config) { return config.memory.group ? std::to_string(*config.memory.group) : std::string(); }},

        {rtsp, "protocols", "--protocols", "LIST",
         "transports that may be used: tcp, udp, multicast, http, tls joined by commas, or their mask", Kind::kText, kOpen,
         SetParsed(MEMBER(rtsp.protocols), ParseRtspProtocols),
         [](const SourceConfig &config) { return RtspProtocolsText(config.rtsp.protocols); }},
        {rtsp, "latency", "--rtsp-latency", "MS", "jitter-buffer latency", Kind::kWhole, kOpen, WHOLE(rtsp.latency)},
        {rtsp, "contimeout", "--rtsp-contimeout", "SECONDS", "to wait for the server over TCP", Kind::kWhole, kOpen,
         WHOLE(rtsp.contimeout)},

        {srt, "mode", "--mode", "MODE", "caller, listener (of srt://:PORT) or rendezvous", Kind::kText, kOpen,
         SetParsed(MEMBER(srt.mode), ParseSrtMode), GetText(MEMBER(srt.mode))},
        {srt, "streamid", "--streamid", "ID", "shown to the peer; a listener admits only callers with it", Kind::kText, kOpen,
         TEXT(srt.streamid)},
        {srt, "passphrase", "--passphrase", "TEXT", "10 to 79 characters, together with --keylen", Kind::kText, kSecret,
         TEXT(srt.passphrase)},
        {srt, "keylen", "--keylen", "BYTES", "length of the encryption key: 16, 24, 32, or 0 for none", Kind::kWhole, kOpen,
         WHOLE(srt.keylen)},
        {srt, "latency", "--srt-latency", "MS", "SRT latency", Kind::kWhole, kOpen, WHOLE(srt.latency)},
        {srt, "tslatency", "--tslatency", "MS", "logged only: the demultiplexer stays at 50 ms", Kind::kWhole, kOpen,
         WHOLE(srt.tslatency)},
        {srt, "localaddress", "--localaddress", "ADDRESS", "local address to bind", Kind::kText, kOpen, TEXT(srt.localaddress)},

        {rtmp, "contimeout", "--rtmp-contimeout", "SECONDS", "to wait for the server", Kind::kWhole, kOpen,
         WHOLE(rtmp.contimeout)},
        {rtmp, "idle_timeout", "--idle-timeout", "SECONDS", "without data before an RTMP session ends, 0 never", Kind::kWhole,
         kOpen, WHOLE(rtmp.idle_timeout)},
        {rtmp, "token", "--token", "TEXT", "secure token", Kind::kText, kSecret, TEXT(rtmp.token)},

        {udp, "ts_latency", "--ts-latency", "MS", "demultiplexer latency", Kind::kWhole, kOpen, WHOLE(udp.ts_latency)},
        {udp, "mtu", "--mtu", "BYTES", "largest expected datagram", Kind::kWhole, kOpen, WHOLE(udp.mtu)},

        {hls, "timeout", "--hls-timeout", "SECONDS", "until a silent HTTP request is given up, at most 3600", Kind::kWhole,
         kOpen, WHOLE(hls.timeout)},
        {hls, "retries", "--retries", "N", "attempts of a failed request, -1 for no end", Kind::kWhole, kOpen,
         [](SourceConfig &config, const std::string &label, const std::string &text) {
             config.hls.retries = ParseWhole<int32_t>(label, text, -1, std::numeric_limits<int32_t>::max());
         },
         GetWhole(MEMBER(hls.retries))},
        {hls, "islive", "--islive", "0|1", "1: the HTTP source behaves as a live source", Kind::kWhole, kOpen,
         WHOLE(hls.islive)},
        {hls, "proxy", "--proxy", "URL", "HTTP proxy", Kind::kText, kOpen, TEXT(hls.proxy)},
        {hls, "proxy_id", "--proxy-id", "NAME", "user name for the proxy", Kind::kText, kOpen, TEXT(hls.proxy_id)},
        {hls, "proxy_pwd", "--proxy-pwd", "TEXT", "password to it", Kind::kText, kSecret, TEXT(hls.proxy_pwd)},
        {hls, "user_agent", "--user-agent", "TEXT", "HTTP user agent", Kind::kText, kOpen, TEXT(hls.user_agent)},
    };
}

#undef WHOLE
#undef TEXT
#undef MEMBER

bool TakesCredentials(Protocol protocol) {
    return protocol == Protocol::kRtsp || protocol == Protocol::kRtmp || protocol == Protocol::kHls;
}

void DoubtsOfSrt(const SourceConfig &config, const Label &label, const std::function<void(bool, const std::string &)> &doubt) {
    const uint32_t keylen = config.srt.keylen;
    const size_t length = config.srt.passphrase.size();
    const std::string name = label("keylen");
    doubt(keylen != 0 && keylen != 16 && keylen != 24 && keylen != 32,
          name + " is refused by the framework: not 0, 16, 24 or 32");
    doubt(length > 0 && keylen == 0, "the passphrase has no effect without " + name + ": the stream is not encrypted");
    doubt(length == 0 && keylen != 0, name + " has no effect without a passphrase: the stream is not encrypted");
    doubt(config.url.find("://:") != std::string::npos && config.srt.mode == "caller",
          PublicUrl(config.url) + " has no host to call: " + label("mode") + " listener waits at that port");
    constexpr size_t kShortest = 10;
    constexpr size_t kLongest = 79;
    doubt(length > 0 && (length < kShortest || length > kLongest), "the passphrase is refused by SRT: not 10 to 79 characters");
}

}  // namespace

std::string NumberText(double value) {
    std::array<char, 64> text{};
    const auto end = std::to_chars(text.data(), text.data() + text.size(), value);
    return {text.data(), end.ptr};
}

bool operator==(const SourceConfig::Memory &left, const SourceConfig::Memory &right) {
    return left.video_bytes == right.video_bytes && left.audio_bytes == right.audio_bytes && left.mode == right.mode &&
           left.group == right.group;
}

bool SameStream(const SourceConfig &left, const SourceConfig &right) {
    const auto protocol = ProtocolOf(left.url);
    if (left.url != right.url || !protocol || left.stall_watch != right.stall_watch) {
        return false;
    }
    const std::vector<SourceField> &fields = SourceFields();
    return std::all_of(fields.begin(), fields.end(), [&](const SourceField &field) {
        return !Applies(field, *protocol) || field.get(left) == field.get(right);
    });
}

const std::vector<SourceField> &SourceFields() {
    static const std::vector<SourceField> fields = MakeFields();
    return fields;
}

bool Applies(const SourceField &field, Protocol protocol) {
    const std::string_view key = field.key;
    if (key == "user" || key == "password") {
        return TakesCredentials(protocol);
    }
    return !field.protocol || *field.protocol == protocol;
}

std::vector<std::string> DoubtsOf(const SourceConfig &config, const Label &label) {
    std::vector<std::string> doubts;
    const auto doubt = [&doubts](bool when, const std::string &text) {
        if (when) {
            doubts.push_back(text);
        }
    };
    constexpr uint32_t kLargestInt = 0x7fffffff;
    const auto refused = [&](uint32_t value, const char *key) {
        doubt(value > kLargestInt, label(key) + " is refused by the framework, which stays at its default");
    };
    doubt(config.memory.group && (config.memory.mode & S_IRGRP) == 0,
          label("buffer_group") + " gives nobody access without " + label("buffer_mode") + " 0640 or 0644");
    const mode_t mask = umask(S_IRWXG | S_IRWXO);
    umask(mask);
    doubt((config.memory.mode & mask) != 0, "the umask takes permissions off " + label("buffer_mode"));
    const auto protocol = ProtocolOf(config.url).value_or(Protocol::kUdp);
    switch (protocol) {
        case Protocol::kUdp:
            doubt(!HasPort(config.url), PublicUrl(config.url) + " has no port; the framework takes 5004");
            refused(config.udp.mtu, "mtu");
            refused(config.udp.ts_latency, "ts_latency");
            break;
        case Protocol::kRtsp: {
            constexpr uint32_t kHttpAlone = 16;
            doubt(config.rtsp.protocols == 0 || config.rtsp.protocols == kHttpAlone,
                  label("protocols") + ": RTSP cannot be played with this alone");
            constexpr uint32_t kWraps = 4295;
            doubt(config.rtsp.contimeout >= kWraps, label("contimeout") + " of 4295 s and more wraps around to a short time");
            break;
        }
        case Protocol::kSrt:
            DoubtsOfSrt(config, label, doubt);
            refused(config.srt.latency, "latency");
            break;
        case Protocol::kHls: {
            constexpr uint32_t kLongest = 3600;
            doubt(config.hls.timeout > kLongest,
                  label("timeout") + " above 3600 s is refused by the framework, which stays at its default");
            const bool any = !config.hls.proxy_id.empty() || !config.hls.proxy_pwd.empty();
            doubt(config.hls.proxy.empty() && any, "proxy credentials have no effect without " + label("proxy"));
            doubt(!config.hls.proxy.empty() && config.hls.proxy_id.empty() != config.hls.proxy_pwd.empty(),
                  "proxy credentials have no effect: both user name and password are needed");
            break;
        }
        case Protocol::kRtmp:
            break;
    }
    doubt((protocol == Protocol::kRtsp || protocol == Protocol::kRtmp) && config.user.empty() != config.password.empty(),
          "credentials have no effect for RTSP and RTMP: both user name and password are needed");
    return doubts;
}

std::string FlagOf(Protocol protocol, const char *key) {
    for (const SourceField &field : SourceFields()) {
        if (std::string_view(field.key) == key && (!field.protocol || *field.protocol == protocol)) {
            return field.flag;
        }
    }
    return key;
}

double StallWatchOf(const SourceConfig &config) {
    constexpr double kUsual = 10;
    // Three times the ten seconds that are the longest usual segment.
    constexpr double kHls = 30;
    return config.stall_watch.value_or(ProtocolOf(config.url) == Protocol::kHls ? kHls : kUsual);
}

}  // namespace tool
