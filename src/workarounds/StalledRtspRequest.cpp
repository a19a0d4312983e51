#include "workarounds/StalledRtspRequest.h"

#include <atomic>

namespace GSTREAMER {

namespace {

// A stop of a server that answers takes a fraction of this.
constexpr std::chrono::seconds kPatience{2};

std::atomic<guint> g_nLastMark{0};
thread_local guint t_nMark = 0;

}  // namespace

StalledRtspRequest::StalledRtspRequest(GstElement *source)
    : m_pSource(source), m_nMark(++g_nLastMark), m_sockets([mark = m_nMark] { return t_nMark == mark; }) {}

StalledRtspRequest::~StalledRtspRequest() {
    _Detach();
}

void StalledRtspRequest::Attach(GstElement *pipeline) {
    _Detach();
    m_pBus = gst_element_get_bus(pipeline);
    gst_bus_enable_sync_message_emission(m_pBus);
    m_nHandler = g_signal_connect(m_pBus, "sync-message::progress", G_CALLBACK(progress_handler), this);
}

void StalledRtspRequest::_Detach() {
    if (m_pBus != nullptr) {
        g_signal_handler_disconnect(m_pBus, m_nHandler);
        gst_bus_disable_sync_message_emission(m_pBus);
        g_clear_pointer(&m_pBus, gst_object_unref);
    }
}

void StalledRtspRequest::progress_handler(GstBus * /*bus*/, GstMessage *message, gpointer user_data) {
    const auto *self = static_cast<StalledRtspRequest *>(user_data);
    if (GST_MESSAGE_SRC(message) != GST_OBJECT_CAST(self->m_pSource)) {
        return;
    }
    GstProgressType type = GST_PROGRESS_TYPE_ERROR;
    gst_message_parse_progress(message, &type, nullptr, nullptr);
    t_nMark = type == GST_PROGRESS_TYPE_START || type == GST_PROGRESS_TYPE_CONTINUE ? self->m_nMark : 0;
}

void StalledRtspRequest::BeforeStop() {
    m_help.Begin(kPatience, [this] { m_sockets.Shutdown(); });
}

void StalledRtspRequest::AfterStop() {
    m_help.End();
}

}  // namespace GSTREAMER
