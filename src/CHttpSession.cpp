#include "CHttpSession.h"

#include <chrono>
#include <condition_variable>
#include <memory>
#include <thread>

namespace GSTREAMER {

namespace {

constexpr char kSessionContext[] = "gst.soup.session";
// A server takes milliseconds for its answer, or longer than a close may last.
constexpr int kAnswerLooks = 500;
constexpr std::chrono::milliseconds kLookPause{1};
// Far more than hlsdemux takes to deal with a segment that has been refused.
constexpr std::chrono::milliseconds kRefusalPause{30};

constexpr char kContextNote[] = "http-session-context";
// What a stop takes until it has cancelled everything, and what a session may take until it rests.
constexpr std::chrono::milliseconds kRest{30};
constexpr std::chrono::milliseconds kRestBound{100};

// Shared by the waiting thread and the session's.
struct Resting {
    std::mutex mutex;
    std::condition_variable cond;
    bool begun = false;  // guarded by mutex
    bool given = false;  // nobody waits for it any more; guarded by mutex
};

gboolean RestAwhile(gpointer user_data) {
    Resting &resting = **static_cast<std::shared_ptr<Resting> *>(user_data);
    {
        const std::lock_guard<std::mutex> lock(resting.mutex);
        if (resting.given) {
            return G_SOURCE_REMOVE;
        }
        resting.begun = true;
    }
    resting.cond.notify_all();
    std::this_thread::sleep_for(kRest);
    return G_SOURCE_REMOVE;
}

void ForgetRest(gpointer user_data) {
    delete static_cast<std::shared_ptr<Resting> *>(user_data);
}

// What the sources are about. Their answers' headers go out as sticky events, which last until the next request.
struct Requests {
    int waiting = 0;   // sources that stream and have no answer yet
    int answered = 0;  // sources whose last request has been answered
};

void CountRequest(GstElement *source, Requests &requests) {
    const PadPtr pad(gst_element_get_static_pad(source, "src"));
    if (!pad) {
        return;
    }
    GstEvent *headers = gst_pad_get_sticky_event(pad.get(), GST_EVENT_CUSTOM_DOWNSTREAM_STICKY, 0);
    if (headers != nullptr) {
        ++requests.answered;
    } else if (gst_pad_get_task_state(pad.get()) == GST_TASK_STARTED) {
        ++requests.waiting;
    }
    g_clear_pointer(&headers, gst_event_unref);
}

Requests CountRequests(GstElement *pipeline, GstElement *own) {
    Requests requests;
    if (own != nullptr) {
        CountRequest(own, requests);
    }
    if (pipeline == nullptr) {
        return requests;
    }
    GstIterator *const sources = gst_bin_iterate_all_by_element_factory_name(GST_BIN(pipeline), "souphttpsrc");
    // Elements that come or go meanwhile are counted the next time.
    gst_iterator_foreach(
        sources,
        [](const GValue *value, gpointer user) {
            CountRequest(static_cast<GstElement *>(g_value_get_object(value)), *static_cast<Requests *>(user));
        },
        &requests);
    gst_iterator_free(sources);
    return requests;
}

}  // namespace

void CHttpSession::Open(GstElement *pipeline, const char *location, std::function<void(GstElement *)> configure) {
    Close();
    m_pSource = gst_element_factory_make("souphttpsrc", "HttpSession");
    if (m_pSource != nullptr) {
        gst_object_ref_sink(m_pSource);
    }
    m_pBus = m_pSource != nullptr ? gst_bus_new() : nullptr;
    if (m_pBus == nullptr) {
        g_clear_pointer(&m_pSource, gst_object_unref);
        return;
    }
    m_pPipeline = pipeline;
    m_fnConfigure = std::move(configure);
    {
        const std::lock_guard<std::mutex> lock(m_mtx);
        m_bSettled = false;
    }
    gst_bus_set_sync_handler(m_pBus, message_handler, this, nullptr);
    gst_element_set_bus(m_pSource, m_pBus);
    g_object_set(m_pSource, "location", location, "method", "HEAD", "retries", 0, nullptr);
    gst_element_set_state(m_pSource, GST_STATE_PAUSED);
}

bool CHttpSession::IsSettled() {
    const std::lock_guard<std::mutex> lock(m_mtx);
    return m_bSettled;
}

void CHttpSession::AwaitAnswers(GstElement *pipeline) const {
    Requests last;
    for (int look = 0; look < kAnswerLooks; ++look) {
        const Requests now = CountRequests(pipeline, m_pSource);
        if (now.waiting == 0 && (last.waiting == 0 || now.answered > last.answered)) {
            break;
        }
        std::this_thread::sleep_for(now.waiting != 0 ? kLookPause : kRefusalPause);
        last = now;
    }
    Rest(G_OBJECT(m_pSource));
}

void CHttpSession::NoteContext(GObject *keeper, GstMessage *message) {
    const GstStructure *structure = gst_message_get_structure(message);
    GMainContext *const context = g_main_context_get_thread_default();
    if (GST_MESSAGE_TYPE(message) == GST_MESSAGE_ELEMENT && structure != nullptr && context != nullptr &&
        gst_structure_has_name(structure, "http-headers") != FALSE) {
        g_object_set_data_full(keeper, kContextNote, g_main_context_ref(context),
                               reinterpret_cast<GDestroyNotify>(g_main_context_unref));
    }
}

void CHttpSession::Rest(GObject *keeper) {
    auto *const context = keeper != nullptr ? static_cast<GMainContext *>(g_object_steal_data(keeper, kContextNote)) : nullptr;
    if (context == nullptr) {
        return;
    }
    const auto resting = std::make_shared<Resting>();
    // Of low priority: whatever has been answered is handed on first.
    g_main_context_invoke_full(context, G_PRIORITY_LOW, RestAwhile, new std::shared_ptr<Resting>(resting), ForgetRest);
    {
        std::unique_lock<std::mutex> lock(resting->mutex);
        resting->given = !resting->cond.wait_for(lock, kRestBound, [&] { return resting->begun; });
    }
    g_main_context_unref(context);
}

void CHttpSession::Close() {
    if (m_pSource == nullptr) {
        return;
    }
    gst_element_set_state(m_pSource, GST_STATE_NULL);
    gst_element_set_bus(m_pSource, nullptr);
    gst_bus_set_sync_handler(m_pBus, nullptr, nullptr, nullptr);
    g_clear_pointer(&m_pSource, gst_object_unref);
    g_clear_pointer(&m_pBus, gst_object_unref);
    m_pPipeline = nullptr;
    m_fnConfigure = nullptr;
    const std::lock_guard<std::mutex> lock(m_mtx);
    m_bSettled = true;
}

GstBusSyncReply CHttpSession::message_handler(GstBus * /*bus*/, GstMessage *message, gpointer user_data) {
    auto *self = static_cast<CHttpSession *>(user_data);
    switch (GST_MESSAGE_TYPE(message)) {
        case GST_MESSAGE_NEED_CONTEXT:
            // The moment between the source's decision that its session can be shared, which it takes by its defaults, and the
            // making of the session, which follows the options.
            self->m_fnConfigure(self->m_pSource);
            break;
        case GST_MESSAGE_HAVE_CONTEXT: {
            GstContext *context = nullptr;
            gst_message_parse_have_context(message, &context);
            if (gst_context_has_context_type(context, kSessionContext) != FALSE) {
                gst_element_set_context(self->m_pPipeline, context);
            }
            gst_context_unref(context);
            break;
        }
        case GST_MESSAGE_ELEMENT:  // the answer's headers
            NoteContext(G_OBJECT(self->m_pSource), message);
            G_GNUC_FALLTHROUGH;
        case GST_MESSAGE_EOS:
        case GST_MESSAGE_ERROR: {
            const std::lock_guard<std::mutex> lock(self->m_mtx);
            self->m_bSettled = true;
            break;
        }
        default:
            break;
    }
    gst_message_unref(message);
    return GST_BUS_DROP;
}

}  // namespace GSTREAMER
