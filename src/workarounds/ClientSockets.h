// The sockets that GIO's socket client connects to a host of the network for one
// element, for workarounds that have to end them. They are known by the thread that
// connects them: no socket of the host is ever touched.
#pragma once

#include "framework/ConnectionEvents.h"

#include <functional>
#include <list>
#include <mutex>
#include <optional>

namespace GSTREAMER {

class ClientSockets {
  public:
    enum class Stage { None, Resolving, Connecting, Ended };

    // While this lives, `is_own` is asked on each thread of the process that connects by GIO.
    // It must be quick and must not use this object.
    explicit ClientSockets(const std::function<bool()> &is_own);
    ~ClientSockets();
    ClientSockets(const ClientSockets &) = delete;
    ClientSockets &operator=(const ClientSockets &) = delete;

    // How far the last connection attempt has come. Any thread.
    Stage LastStage() const;
    // Shuts down in both directions all sockets of the element that are still there, those included that are
    // being connected: whoever waits for one is woken. Any thread.
    void Shutdown();

  private:
    void _Note(GSocketClientEvent event, GObject *connection);

    mutable std::mutex m_mtx;
    Stage m_stage = Stage::None;        // guarded by m_mtx
    std::list<GWeakRef> m_listSockets;  // guarded by m_mtx; in a list, since weak references must not move
    std::optional<ConnectionEvents> m_events;
};

}  // namespace GSTREAMER
