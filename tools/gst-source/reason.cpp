#include "reason.h"

#include <algorithm>
#include <cctype>
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
    const size_t query = url.find('?');
    return query == std::string::npos ? url : url.substr(0, query);
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

NewsDesk::NewsDesk(const std::vector<std::string> &urls) : m_news(urls.size()) {
    std::transform(urls.begin(), urls.end(), std::back_inserter(m_places), PlaceOf);
}

template <typename Change>
void NewsDesk::ForEach(const std::string &url, Change change) {
    const std::string place = PlaceOf(url);
    const std::lock_guard<std::mutex> lock(m_mutex);
    for (size_t i = 0; i < m_places.size(); ++i) {
        if (m_places[i] == place) {
            change(m_news[i]);
        }
    }
}

void NewsDesk::OnLine(const std::string &line) {
    if (const auto parsed = ParseReasonLine(line)) {
        ForEach(parsed->url, [&](SourceNews &news) {
            news.last = parsed->reason;
            news.last->time = TimeNow();
            news.last_at = std::chrono::steady_clock::now();
            news.waiting = news.waiting || parsed->reason.ends;
        });
    } else if (const auto url = ParseReconnectLine(line)) {
        ForEach(*url, [](SourceNews &news) {
            ++news.reconnects;
            news.waiting = false;
        });
    }
}

SourceNews NewsDesk::Of(size_t source) const {
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_news[source];
}

bool NewsDesk::IsShared(size_t source) const {
    return std::count(m_places.begin(), m_places.end(), m_places[source]) > 1;
}

}  // namespace tool
