// Messages on the bus of a pipeline, looked at on the thread that posts them.
#pragma once

#include <gst/gst.h>

#include <functional>
#include <list>

namespace GSTREAMER {

class SyncMessages {
  public:
    SyncMessages() = default;
    ~SyncMessages();
    SyncMessages(const SyncMessages &) = delete;
    SyncMessages &operator=(const SyncMessages &) = delete;

    // Calls `seen` with each message of that type ("need-context"), for as long as this lives.
    void Watch(GstElement *pipeline, const char *type, std::function<void(GstMessage *)> seen);

  private:
    using Seen = std::function<void(GstMessage *)>;
    static void message_handler(GstBus *bus, GstMessage *message, gpointer seen);

    GstBus *m_pBus = nullptr;  // owned, while messages are watched
    std::list<Seen> m_listSeen;
};

}  // namespace GSTREAMER
