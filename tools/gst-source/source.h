// One source of the library, from create to destroy, and what it has
// delivered into its channel of the shared buffer.
#pragma once

#include <memory>
#include <string>

#include "gst_source_api.h"
#include "options.h"
#include "presence.h"
#include "rebuild_counter.h"
#include "sample.h"
#include "shb.h"

namespace tool {

class Source {
  public:
    // The buffer must outlive the source.
    Source(unsigned channel, const std::string &url, Protocol protocol, shb_buffer_t *buffer);

    // False when the library refuses; its log tells why.
    bool Open(const Options &options);

    // Notes changes of the state, and tells the buffer which track the source does not have. To be called far more often than the 3 s that a rebuild waits.
    void Poll();

    // What the log says of this source. `shared`: other sources have the same location.
    void Take(const SourceNews &news, bool shared);

    const SourceSample &Sample();
    // The counters and the number of rebuilds as of the last Poll(), the rest as of the last Sample().
    const SourceSample &Latest() const { return m_sample; }

    // Closes and frees the library's object. Waits for the library, in the worst case without
    // end. After it, Sample() keeps the texts and the final counters. May run on another
    // thread as long as nothing else is called meanwhile.
    void Destroy();

    const std::string &Url() const { return m_sample.url; }

  private:
    struct Deleter {
        void operator()(void *handle) const { gst_source_destroy(handle); }
    };

    void ReadRecords();
    void ReadCounters();
    void TellPresence();

    const std::string m_location;
    const Protocol m_protocol;
    shb_buffer_t *const m_buffer;
    std::unique_ptr<void, Deleter> m_handle;
    bool m_opened = false;
    RebuildCounter m_rebuilds;
    PresenceWatch m_presence;
    uint64_t m_framesSeen = 0;
    unsigned m_rebuildsAtMedia = 0;
    bool m_hadMedia = false;
    SourceSample m_sample;
};

}  // namespace tool
