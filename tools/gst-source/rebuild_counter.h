// Counts how often a source was rebuilt, from what a host can see of it and what the log says.
#pragma once

#include <algorithm>
#include <cstdint>
#include <string>

#include "stream_url.h"

namespace tool {

class RebuildCounter {
  public:
    // `epoch`: of the tracks before the source is opened; `logged`: lines of the log of sources before it.
    explicit RebuildCounter(Protocol protocol, uint64_t epoch = 0, uint64_t logged = 0)
        : m_statesTell(protocol != Protocol::kSrt),
          m_firstEpoch(epoch),
          m_epoch(epoch),
          m_firstLogged(logged),
          m_logged(logged) {}

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
    void OnReconnects(uint64_t logged) { m_logged = std::max(m_logged, logged); }

    // Without the log.
    uint64_t Seen() const {
        const uint64_t reopened = m_epoch > m_firstEpoch ? m_epoch - m_firstEpoch - 1 : 0;
        return std::max(m_transitions, reopened);
    }
    unsigned Count() const { return static_cast<unsigned>(std::max(Seen(), m_logged - m_firstLogged)); }

  private:
    const bool m_statesTell;
    std::string m_state;
    uint64_t m_transitions = 0;
    uint64_t m_firstEpoch;
    uint64_t m_epoch;
    uint64_t m_firstLogged;
    uint64_t m_logged;
};

}  // namespace tool
