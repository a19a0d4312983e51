// How far the last connection to one server came, by the events of GIO's socket client. For elements
// that only report that the stream has stopped.
#pragma once

#include "framework/ConnectionEvents.h"

#include <sys/socket.h>

#include <mutex>
#include <optional>
#include <string>

namespace GSTREAMER {

class ServerContact {
  public:
    struct Failure {
        std::string text;  // empty when there was no connection to speak of
        std::string code;
    };

    // Watches the server of the location, which may have none.
    explicit ServerContact(const std::string &location);

    // Whether the server's name has an address; true for one that is an address, and for none. Asks
    // the resolver, which takes its time. Any thread.
    bool HasAddress(GCancellable *cancellable) const;
    const std::string &Host() const { return m_strHost; }
    // Why the last connection failed or brought no answer. Empty: not known. Any thread.
    Failure LastFailure() const;

  private:
    enum class Stage { None, Resolving, Connecting, Connected };

    void _Note(GSocketClientEvent event, GObject *connection);

    std::string m_strHost;  // empty: there is none to watch
    int m_nPort = -1;       // -1: the scheme's
    bool m_bTls = false;
    mutable std::mutex m_mtx;  // guards what follows
    Stage m_stage = Stage::None;
    gint64 m_nBegun = 0;           // of the stage, as g_get_monotonic_time
    gint64 m_nGivenUp = 0;         // 0: it was not
    sockaddr_storage m_address{};  // of the last connection attempt
    gssize m_nAddress = 0;         // size of that; 0: it is not known
    // Last, so that no event comes once the others are gone.
    std::optional<ConnectionEvents> m_events;
};

}  // namespace GSTREAMER
