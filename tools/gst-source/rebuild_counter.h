// Counts how often a source was rebuilt, from what a host can see of it and what the log says.
#pragma once

#include <algorithm>
#include <cstdint>
#include <string>

#include "stream_url.h"

namespace tool {

class RebuildCounter {
  public:
    explicit RebuildCounter(Protocol protocol) : m_statesTell(protocol != Protocol::kSrt) {}

    void OnState(const std::string &state) {
        // An SRT source says "reconnect" from every successful play on
        // until data has come, the first play included.
        if (m_statesTell && state == "reconnect" && m_state != "reconnect") {
            ++m_transitions;
        }
        m_state = state;
    }

    // Every rebuild that brings data opens the tracks anew. That also catches a "reconnect" that came and
    // went unseen: after a change of media the old pipeline's next report turns it back into "connected".
    void OnEpoch(uint64_t epoch) { m_epoch = std::max(m_epoch, epoch); }

    // The log has a line for each; a state that lasts for a moment is seen there alone.
    void OnReconnects(unsigned logged) { m_logged = std::max<uint64_t>(m_logged, logged); }

    unsigned Count() const {
        const uint64_t reopened = m_epoch > 0 ? m_epoch - 1 : 0;
        return static_cast<unsigned>(std::max({m_transitions, reopened, m_logged}));
    }

  private:
    const bool m_statesTell;
    std::string m_state;
    uint64_t m_transitions = 0;
    uint64_t m_epoch = 0;
    uint64_t m_logged = 0;
};

}  // namespace tool
