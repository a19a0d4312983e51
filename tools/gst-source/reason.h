// What the library's log says of why a source does not play, line by line.
#pragma once

#include <chrono>
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
    unsigned reconnects = 0;
    bool waiting = false;  // a session has ended, and the next has not begun
};

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
    // `urls` as they stand in the log.
    explicit NewsDesk(const std::vector<std::string> &urls);

    void OnLine(const std::string &line);
    SourceNews Of(size_t source) const;
    // Whether another source has the same location: the lines are then those of both.
    bool IsShared(size_t source) const;

  private:
    template <typename Change>
    void ForEach(const std::string &url, Change change);

    std::vector<std::string> m_places;
    mutable std::mutex m_mutex;
    std::vector<SourceNews> m_news;
};

}  // namespace tool
