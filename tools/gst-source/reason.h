// What the library's log says of why a source does not play, line by line.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <deque>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace tool {

struct Reason {
    std::string text;
    std::string code;  // "404", "refused", ...; empty when the line has none
    std::string time;  // wall clock, UTC, "2024-05-01T12:00:00.123Z"
    bool ends = true;  // the session; a warning does not
};

// What the log has said of one source so far.
struct SourceNews {
    std::optional<Reason> last;
    std::chrono::steady_clock::time_point last_at;
    std::chrono::steady_clock::time_point session_at;  // the last rebuild; the epoch of the clock when there was none
    unsigned reconnects = 0;
    bool waiting = false;  // a session has ended, and the next has not begun
    std::map<std::string, uint64_t> reconnect_reasons;
};

// What a rebuild is counted under: the code of what ended the session, for the codes that the library has of its own and the
// answers of servers; "other" for the rest, so that their number has an end.
std::string RebuildReason(const std::optional<Reason> &reason);

// The two kinds of lines that tell; `url` is the location at the line's end.
struct ReasonLine {
    Reason reason;  // without the time
    std::string url;
};
std::optional<ReasonLine> ParseReasonLine(const std::string &line);
std::optional<std::string> ParseReconnectLine(const std::string &line);

// Keeps the news of all sources. Any thread.
class NewsDesk {
  public:
    static constexpr size_t kKeptLines = 200;

    // A source under its name, and its location as it stands in the log. What is known of the name stays.
    void Add(const std::string &name, const std::string &url);
    void Remove(const std::string &name);

    void OnLine(const std::string &line);
    // Rises with everything that is said of a source.
    uint64_t Edition() const { return m_edition.load(); }
    // Nothing was said of a source that is not there.
    SourceNews Of(const std::string &name) const;
    // The last lines that name its location, oldest first, at most kKeptLines.
    std::vector<std::string> Log(const std::string &name) const;

  private:
    struct Source {
        std::string place;
        SourceNews news;
        std::optional<Reason> ended_by;  // since the last rebuild
        std::deque<std::string> lines;
    };

    Source *Find(const std::string &url);
    void ForgetPlace(const std::string &name, const std::string &place);

    std::atomic<uint64_t> m_edition{0};
    mutable std::mutex m_mutex;
    std::map<std::string, Source> m_sources;
    std::map<std::string, std::string> m_names;              // by place
    std::multimap<std::string, std::string> m_namesOfPaths;  // by place without its query
};

}  // namespace tool
