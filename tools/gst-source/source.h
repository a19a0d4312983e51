// One source of the library, from create to destroy, and what it has
// delivered into its channel of the shared buffer.
#pragma once

#include <array>
#include <chrono>
#include <memory>
#include <optional>
#include <string>

#include "gst_source_api.h"
#include "presence.h"
#include "rebuild_counter.h"
#include "sample.h"
#include "shb.h"
#include "source_config.h"

namespace tool {

class Source {
  public:
    // `config` must have a URL that ProtocolOf() knows. The buffer must outlive the source. `news`: what the log says of
    // sources of this name so far. `earlier`: the last sample of one that wrote into the same buffer, or null.
    Source(const SourceConfig &config, unsigned channel, shb_buffer_t *buffer, const SourceNews &news,
           const SourceSample *earlier);

    // False when the library refuses; its log says why.
    bool Open();

    // Notes changes of the state, and says in the buffer which track the source does not have. To be called far more often
    // than the 3 s that a rebuild waits.
    void Poll();

    // What the log says of this source.
    void Take(const SourceNews &news);

    const SourceSample &Sample();
    // The counters and the number of rebuilds as of the last Poll(), the rest as of the last Sample().
    const SourceSample &Latest() const { return m_sample; }
    // Its rebuilds as far as they show without the log.
    uint64_t RebuildsSeen() const { return m_rebuilds.Seen(); }

    // Closes and frees the library's object. Waits for the library, in the worst case without
    // end. After it, Sample() keeps the texts and the final counters. May run on another
    // thread as long as nothing else is called meanwhile.
    void Destroy();

  private:
    static constexpr size_t kMostReaders = 64;

    struct Deleter {
        void operator()(void *handle) const { gst_source_destroy(handle); }
    };

    void ReadRecords();
    void ReadCounters();
    void ReadReaders();
    void ReportPresence();

    const SourceConfig m_config;
    const Protocol m_protocol;
    shb_buffer_t *const m_buffer;
    std::unique_ptr<void, Deleter> m_handle;
    bool m_opened = false;
    std::optional<std::chrono::steady_clock::time_point> m_endedAt;  // the session, while the next one has not begun
    RebuildCounter m_rebuilds;
    PresenceWatch m_presence;
    uint64_t m_framesSeen = 0;
    std::array<uint64_t, 2> m_keyFrames{};  // by shb_kind_t, of the writer in force
    unsigned m_rebuildsAtMedia = 0;
    bool m_hadMedia = false;
    SourceSample m_sample;
};

}  // namespace tool
