// What GIO's socket client reports of each connection of the process to a host of the network.
#pragma once

#include <gio/gio.h>

#include <functional>

namespace GSTREAMER {

class ConnectionEvents {
  public:
    // `connection` is null until there is one.
    using Handler = std::function<void(GSocketClientEvent event, GNetworkAddress *server, GObject *connection)>;

    // `handler` is called on the threads that connect, whoever's they are, until this is destroyed. It must be
    // quick, and must not make or destroy objects of this class.
    explicit ConnectionEvents(Handler handler);
    ~ConnectionEvents();
    ConnectionEvents(const ConnectionEvents &) = delete;
    ConnectionEvents &operator=(const ConnectionEvents &) = delete;

  private:
    static gboolean client_event_hook(GSignalInvocationHint *hint, guint count, const GValue *values, gpointer user);

    const Handler m_fnHandler;
};

}  // namespace GSTREAMER
