// The connection attempts of rtmp2src, for the sake of those that it leaves behind.
//
// rtmp2src connects on a thread and a main context of its own. Stopped in the midst of that, it ends its loop at once: what is
// still to be answered, by the server or by the thread that looks the proxy up, is never heard, and the attempt keeps the
// element, the context and the socket for ever. (Its connection would notice the stop if it were told; it is given a
// cancellable that is never cancelled.) The socket's client says where an attempt runs, so that this class can end its socket
// and hear it out in the element's place. That comes too late for an attempt that was cancelled just when GLib had looked up
// whether there is a proxy, or had made the connection: then GLib itself forgets to answer. So the stop waits, but not for long,
// until the connection stands or was refused. Seen with GStreamer 1.22 and GLib 2.74.
#pragma once

#include "framework/Ownership.h"

#include <memory>
#include <string>

namespace GSTREAMER {

class CConnectAttempts {
  public:
    // Attempts towards that server are noted from now on. Before the element is started.
    explicit CConnectAttempts(GstElement *element);
    ~CConnectAttempts();
    CConnectAttempts(const CConnectAttempts &) = delete;
    CConnectAttempts &operator=(const CConnectAttempts &) = delete;

    // Before an element that has been started is stopped: until its connection stands or was refused, half a second at most.
    // Any thread without a lock that a streaming thread takes; so does the next one.
    void AwaitConnection();
    // Once the element is stopped and released: true when it is gone, if need be after its attempt has been ended. False when
    // that took too long (2 s).
    bool Sweep();

  private:
    struct Target;
    std::unique_ptr<Target> m_pTarget;
};

}  // namespace GSTREAMER
