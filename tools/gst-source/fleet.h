// All sources of a run, each from the wish for it to its end.
//
// A source that is closed may take its time, so that happens on threads; everything else is done by the one thread that
// calls Tick().
#pragma once

#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "reason.h"
#include "secrets.h"
#include "shared_buffer.h"
#include "source_config.h"
#include "station.h"

namespace tool {

class Fleet {
  public:
    using Clock = std::chrono::steady_clock;

    struct Changes {
        size_t added = 0;
        size_t removed = 0;
        size_t changed = 0;
        size_t untouched = 0;
        bool Any() const { return added + removed + changed > 0; }
    };

    // `masker` learns the secrets of every source before it is opened; `news` what each is called in the log.
    Fleet(Masker masker, NewsDesk &news);
    // Close() must have been called.
    ~Fleet();
    Fleet(const Fleet &) = delete;
    Fleet &operator=(const Fleet &) = delete;

    // All sources in one buffer, each with a channel of its own. Opened by the first Tick(). Once, and then no Apply().
    void Share(const std::vector<SourceConfig> &sources, const std::string &buffer);

    // Makes the sources those of the list, each with a buffer of its own. What stays the same is not touched; a source with
    // other options keeps its buffer, and with it its readers. May be called again and again.
    Changes Apply(const std::vector<SourceConfig> &wanted);

    // Closes the source and opens it again. False for an unknown name.
    bool Restart(const std::string &name);

    // Looks after every source. To be called ten times a second.
    void Tick();

    // In the order of the list, and at the end those that are still being closed.
    const std::vector<std::unique_ptr<Station>> &Stations() const { return m_stations; }
    // Every source of the list has been opened once, or could not be.
    bool AllTried() const;
    // At least one source is open or will be tried again.
    bool AnyHope() const;

    // Closes all, side by side. The result names those that have not come back by then; they must be left as they are.
    std::vector<std::string> Close(Clock::time_point deadline);

  private:
    void Introduce(const SourceConfig &config);
    void SortLike(const std::vector<SourceConfig> &wanted);

    Masker m_masker;
    NewsDesk &m_news;
    uint64_t m_edition = 0;
    std::vector<std::unique_ptr<Station>> m_stations;
};

// The secrets of a source, for the log.
void AddSecretsOf(const SourceConfig &config, Masker &masker);

}  // namespace tool
