#include "reason.h"

#include <algorithm>
#include <cctype>
#include <set>
#include <string_view>

#include "record.h"

namespace tool {
namespace {

constexpr std::string_view kAuthority = "://";

// Where a location leads: without credentials, which the library may have put into it,
// and without what it has added behind a blank.
std::string PlaceOf(std::string url) {
    url.erase(std::min(url.find(' '), url.size()));
    const size_t scheme_end = url.find(kAuthority);
    if (scheme_end == std::string::npos) {
        return url;
    }
    const size_t authority = scheme_end + kAuthority.size();
    const size_t path = std::min(url.find_first_of("/?#", authority), url.size());
    const size_t at = url.rfind('@', path);
    if (at != std::string::npos && at >= authority) {
        url.erase(authority, at + 1 - authority);
    }
    return url;
}

std::string WithoutQuery(const std::string &place) {
    return place.substr(0, place.find('?'));
}

// The location that a line names, as it stands there; empty when it names none.
std::string LocationIn(const std::string &line) {
    const size_t authority = line.rfind(kAuthority);
    if (authority == std::string::npos) {
        return {};
    }
    size_t begin = authority;
    while (begin > 0 && std::isalpha(static_cast<unsigned char>(line[begin - 1])) != 0) {
        --begin;
    }
    // "reconnect..." and "URL=" stand right before it, without a letter between.
    std::string url = line.substr(begin, line.find_first_of(" \"{", authority) - begin);
    // "Open URL... {Opts:"
    constexpr std::string_view kDots = "...";
    if (url.size() > kDots.size() && url.compare(url.size() - kDots.size(), kDots.size(), kDots) == 0) {
        url.resize(url.size() - kDots.size());
    }
    return url;
}

// " (CODE)" at the end of a text, taken off it.
std::string TakeCode(std::string &text) {
    const size_t open = text.rfind(" (");
    if (open == std::string::npos || text.back() != ')') {
        return {};
    }
    std::string code = text.substr(open + 2, text.size() - open - 3);
    const bool is_code = !code.empty() && std::all_of(code.begin(), code.end(), [](unsigned char c) {
        return std::isalnum(c) != 0 || c == '-' || c == '.';
    });
    if (!is_code) {
        return {};
    }
    text.erase(open);
    return code;
}

// ", 650 times more" at the end of a text.
void DropRepeats(std::string &text) {
    constexpr std::string_view kTail = " times more";
    const size_t comma = text.rfind(", ");
    if (comma != std::string::npos && text.size() > kTail.size() &&
        text.compare(text.size() - kTail.size(), kTail.size(), kTail) == 0) {
        text.erase(comma);
    }
}

}  // namespace

std::optional<ReasonLine> ParseReasonLine(const std::string &line) {
    constexpr std::string_view kTag = ") [GSTREAMER] ";
    constexpr std::string_view kFrom = " from \"";
    constexpr std::string_view kColon = "\": ";
    constexpr std::string_view kUrl = ". URL=";
    const size_t tag = line.find(kTag);
    if (tag == std::string::npos) {
        return std::nullopt;
    }
    const size_t kind = tag + kTag.size();
    const size_t from = line.find(kFrom, kind);
    const size_t colon = from == std::string::npos ? from : line.find(kColon, from + kFrom.size());
    const size_t url = line.rfind(kUrl);
    if (colon == std::string::npos || url == std::string::npos || url < colon + kColon.size()) {
        return std::nullopt;
    }
    const std::string word = line.substr(kind, from - kind);
    if (word != "Error" && word != "Warning") {
        return std::nullopt;
    }
    ReasonLine parsed;
    parsed.reason.text = line.substr(colon + kColon.size(), url - colon - kColon.size());
    DropRepeats(parsed.reason.text);
    parsed.reason.code = TakeCode(parsed.reason.text);
    parsed.reason.ends = word == "Error";
    parsed.url = line.substr(url + kUrl.size());
    return parsed;
}

std::optional<std::string> ParseReconnectLine(const std::string &line) {
    constexpr std::string_view kEnd = " source reconnect...";
    const size_t end = line.find(kEnd);
    if (line.find("] (INFO) (") == std::string::npos || line.find(") [C") == std::string::npos || end == std::string::npos) {
        return std::nullopt;
    }
    return line.substr(end + kEnd.size());
}

std::string RebuildReason(const std::optional<Reason> &reason) {
    if (!reason) {
        return "other";
    }
    static const std::set<std::string> kKnown{
        "dns",      "refused", "no-route", "timeout",     "closed",        "tls",           "end",       "BADSECRET",
        "UNSECURE", "bind",    "rejected", "port-in-use", "no-address",    "not-linked",    "no-stream", "playlist",
        "key",      "format",  "full",     "denied",      "media-changed", "not-negotiated"};
    constexpr std::string_view kStalled = "The stream has stalled";
    if (reason->text.compare(0, kStalled.size(), kStalled) == 0) {
        return "stalled";
    }
    const std::string &code = reason->code;
    const bool answer =
        code.size() == 3 && std::all_of(code.begin(), code.end(), [](unsigned char c) { return std::isdigit(c) != 0; });
    if (answer || kKnown.count(code) > 0) {
        return code;
    }
    constexpr std::string_view kRtmp = "Net";
    return code.compare(0, kRtmp.size(), kRtmp) == 0 ? "rtmp" : "other";
}

void NewsDesk::Add(const std::string &name, const std::string &url) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    Source &source = m_sources[name];
    ForgetPlace(name, source.place);
    source.place = PlaceOf(url);
    m_names[source.place] = name;
    m_namesOfPaths.emplace(WithoutQuery(source.place), name);
}

void NewsDesk::Remove(const std::string &name) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    const auto source = m_sources.find(name);
    if (source != m_sources.end()) {
        ForgetPlace(name, source->second.place);
        m_sources.erase(source);
    }
}

void NewsDesk::ForgetPlace(const std::string &name, const std::string &place) {
    if (const auto at = m_names.find(place); at != m_names.end() && at->second == name) {
        m_names.erase(at);
    }
    const auto [first, last] = m_namesOfPaths.equal_range(WithoutQuery(place));
    const auto path = std::find_if(first, last, [&name](const auto &one) { return one.second == name; });
    if (path != last) {
        m_namesOfPaths.erase(path);
    }
}

// The library may have hidden or left out parts of a query, so one that is not found is looked for without it.
NewsDesk::Source *NewsDesk::Find(const std::string &url) {
    const std::string place = PlaceOf(url);
    if (const auto name = m_names.find(place); name != m_names.end()) {
        return &m_sources[name->second];
    }
    const std::string path = WithoutQuery(place);
    if (m_namesOfPaths.count(path) != 1) {
        return nullptr;
    }
    return &m_sources[m_namesOfPaths.find(path)->second];
}

void NewsDesk::OnLine(const std::string &line) {
    const auto reason = ParseReasonLine(line);
    const auto reconnect = reason ? std::nullopt : ParseReconnectLine(line);
    std::string url = LocationIn(line);
    if (reason) {
        url = reason->url;
    } else if (reconnect) {
        url = *reconnect;
    }
    if (url.empty()) {
        return;
    }
    const std::lock_guard<std::mutex> lock(m_mutex);
    Source *const source = Find(url);
    if (source == nullptr) {
        return;
    }
    source->lines.push_back(line);
    if (source->lines.size() > kKeptLines) {
        source->lines.pop_front();
    }
    SourceNews &news = source->news;
    const auto now = std::chrono::steady_clock::now();
    if (reason) {
        news.last = reason->reason;
        news.last->time = TimeNow();
        news.last_at = now;
        news.waiting = news.waiting || reason->reason.ends;
        if (reason->reason.ends) {
            source->ended_by = news.last;
        }
    } else if (reconnect) {
        ++news.reconnects;
        ++news.reconnect_reasons[RebuildReason(source->ended_by)];
        source->ended_by.reset();
        news.session_at = now;
        news.waiting = false;
    }
    m_edition.fetch_add(1);
}

SourceNews NewsDesk::Of(const std::string &name) const {
    const std::lock_guard<std::mutex> lock(m_mutex);
    const auto source = m_sources.find(name);
    return source == m_sources.end() ? SourceNews() : source->second.news;
}

std::vector<std::string> NewsDesk::Log(const std::string &name) const {
    const std::lock_guard<std::mutex> lock(m_mutex);
    const auto source = m_sources.find(name);
    return source == m_sources.end() ? std::vector<std::string>()
                                     : std::vector<std::string>(source->second.lines.begin(), source->second.lines.end());
}

}  // namespace tool
