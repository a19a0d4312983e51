#include "workarounds/UnannouncedRtspEnd.h"

#include "framework/Elements.h"

#include <algorithm>
#include <utility>

namespace GSTREAMER {

namespace {

// What the end of the streams may take after the server has left, beside what the jitter buffers hold back.
constexpr gint64 kEndMs = 3000;
constexpr gint64 kUsPerMs = 1000;

bool IsReadWarning(GstMessage *message, GstElement *source) {
    if (message == nullptr || GST_MESSAGE_TYPE(message) != GST_MESSAGE_WARNING ||
        GST_MESSAGE_SRC(message) != GST_OBJECT_CAST(source) || gst_message_get_structure(message) == nullptr) {
        return false;
    }
    GError *warning = nullptr;
    gst_message_parse_warning(message, &warning, nullptr);
    const bool read = g_error_matches(warning, GST_RESOURCE_ERROR, GST_RESOURCE_ERROR_READ) != FALSE;
    g_clear_error(&warning);
    return read;
}

}  // namespace

UnannouncedRtspEnd::UnannouncedRtspEnd(GstElement *source, gint64 latency_ms, std::function<gint64()> last_report)
    : m_source(ElementRef::Share(source)),
      m_nPatienceUs((kEndMs + latency_ms) * kUsPerMs),
      m_fnLastReport(std::move(last_report)) {}

void UnannouncedRtspEnd::AfterPoll(GstMessage *message) {
    if (IsReadWarning(message, m_source)) {
        m_nServerLeft = g_get_monotonic_time();
    }
    // Over UDP the media may well go on.
    if (m_nServerLeft != 0 && g_get_monotonic_time() - std::max(m_nServerLeft, m_fnLastReport()) > m_nPatienceUs) {
        m_nServerLeft = 0;
        PostReadError(m_source, "The server has closed the connection, and no media came since.");
    }
}

}  // namespace GSTREAMER
