// The messages of one kind that a pipeline's elements post, seen on the thread that posts them.
#pragma once

#include <gst/gst.h>

#include <functional>

namespace GSTREAMER {

class SyncMessages {
  public:
    SyncMessages() = default;
    ~SyncMessages() { End(); }
    SyncMessages(const SyncMessages &) = delete;
    SyncMessages &operator=(const SyncMessages &) = delete;

    // `type` is the framework's name of the kind, such as "warning". `handle` runs on the posting thread.
    void Begin(GstElement *pipeline, const char *type, std::function<void(GstMessage *)> handle);
    // Not while a message may be posted: before the pipeline plays, or after it has stopped.
    void End();

  private:
    static void sync_message_handler(GstBus *bus, GstMessage *message, gpointer user_data);

    GstBus *m_pBus = nullptr;  // owned, between Begin and End
    gulong m_nHandler = 0;
    std::function<void(GstMessage *)> m_fnHandle;
};

}  // namespace GSTREAMER
