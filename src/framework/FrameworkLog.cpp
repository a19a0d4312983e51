#include "framework/FrameworkLog.h"

#include "framework/Reason.h"

namespace GSTREAMER {

namespace {

// An element posts its error within microseconds of the line; a machine that stands still takes longer.
constexpr gint64 kFreshUs = gint64{10} * G_USEC_PER_SEC;

// Without a destructor: the framework's threads may outlive the library's use.
struct ThreadCause {
    char text[256];
    gint64 at;
    bool named;  // it says more than that something failed
};
thread_local ThreadCause t_cause{};

bool IsFresh() {
    return t_cause.text[0] != '\0' && g_get_monotonic_time() - t_cause.at < kFreshUs;
}

// On whatever thread logs, which may hold any lock of the framework: nothing is called that could log.
void log_handler(GstDebugCategory * /*category*/, GstDebugLevel level, const gchar * /*file*/, const gchar * /*function*/,
                 gint /*line*/, GObject * /*object*/, GstDebugMessage *message, gpointer /*user*/) {
    if (level != GST_LEVEL_ERROR) {
        return;
    }
    const gchar *text = gst_debug_message_get(message);
    const bool named = text != nullptr && CodeOf(text)[0] != '\0';
    // The first line is the lowest layer's and says why; those behind it only that the caller failed as well.
    if (text == nullptr || (!named && IsFresh())) {
        return;
    }
    if (named && t_cause.named && IsFresh()) {
        return;
    }
    g_strlcpy(t_cause.text, text, sizeof t_cause.text);
    t_cause.at = g_get_monotonic_time();
    t_cause.named = named;
}

// Of the cause on a message. Written before the first pipeline of the process.
GQuark g_cause = 0;

}  // namespace

void WatchFrameworkLog() {
    g_cause = g_quark_from_static_string("gst-source-cause");
    // Without the macro, which compares the function to a data pointer.
    (gst_debug_add_log_function)(log_handler, nullptr, nullptr);
}

void UnwatchFrameworkLog() {
    (gst_debug_remove_log_function)(log_handler);
}

void ForgetThreadCause() {
    t_cause.text[0] = '\0';
}

std::string TakeThreadCause() {
    std::string cause = IsFresh() ? t_cause.text : "";
    ForgetThreadCause();
    return cause;
}

void AttachCause(GstMessage *message) {
    if (IsFresh()) {
        gst_mini_object_set_qdata(GST_MINI_OBJECT_CAST(message), g_cause, g_strdup(t_cause.text), g_free);
    }
    ForgetThreadCause();
}

std::string CauseOf(GstMessage *message) {
    const auto *cause = static_cast<const gchar *>(gst_mini_object_get_qdata(GST_MINI_OBJECT_CAST(message), g_cause));
    return cause != nullptr ? cause : "";
}

}  // namespace GSTREAMER
