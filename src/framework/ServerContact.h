// How far the last connection to one server has come: for elements that say no more of one that failed than
// that the stream has stopped. Known by what GIO's socket client tells of every connection of the process.
#pragma once

#include <gio/gio.h>

#include <mutex>
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
    ~ServerContact();
    ServerContact(const ServerContact &) = delete;
    ServerContact &operator=(const ServerContact &) = delete;

    // Whether the server's name has an address; true for one that is an address, and for none. Asks
    // the resolver, which takes its time. Any thread.
    bool HasAddress() const;
    const std::string &Host() const { return m_strHost; }
    // Why the last connection came to nothing, or no answer by it. Any thread.
    Failure LastFailure() const;

  private:
    enum class Stage { None, Resolving, Connecting, Connected };

    static gboolean client_event_hook(GSignalInvocationHint *hint, guint count, const GValue *values, gpointer user);
    void _Note(GSocketClientEvent event, GNetworkAddress *server, GObject *connection);

    std::string m_strHost;  // empty: there is none to watch
    int m_nPort = -1;       // -1: the scheme's
    bool m_bTls = false;
    mutable std::mutex m_mtx;  // guards what follows
    Stage m_stage = Stage::None;
    gint64 m_nBegun = 0;    // of the stage, as g_get_monotonic_time
    gint64 m_nGivenUp = 0;  // 0: it was not
    bool m_bRouted = true;
};

}  // namespace GSTREAMER
