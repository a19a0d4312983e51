#include "workarounds/HiddenPlaylistRequests.h"

#include <chrono>
#include <condition_variable>
#include <memory>
#include <thread>
#include <utility>

namespace GSTREAMER {

namespace {

// Longer than a stop takes to cancel all requests; how long a stop waits for the pause to begin.
constexpr std::chrono::milliseconds kPause{30};
constexpr std::chrono::milliseconds kPauseBound{100};

// Shared by the waiting thread and the session's.
struct Pause {
    std::mutex mutex;
    std::condition_variable cond;
    bool begun = false;      // guarded by mutex
    bool cancelled = false;  // nobody waits for it any more; guarded by mutex
};

gboolean PauseSession(gpointer user_data) {
    Pause &pause = **static_cast<std::shared_ptr<Pause> *>(user_data);
    {
        const std::lock_guard<std::mutex> lock(pause.mutex);
        if (pause.cancelled) {
            return G_SOURCE_REMOVE;
        }
        pause.begun = true;
    }
    pause.cond.notify_all();
    std::this_thread::sleep_for(kPause);
    return G_SOURCE_REMOVE;
}

void ReleasePause(gpointer user_data) {
    delete static_cast<std::shared_ptr<Pause> *>(user_data);
}

}  // namespace

HiddenPlaylistRequests::~HiddenPlaylistRequests() {
    g_clear_pointer(&m_pContext, g_main_context_unref);
}

void HiddenPlaylistRequests::Attach(GstElement *pipeline) {
    m_answers.Attach(pipeline);
}

void HiddenPlaylistRequests::_NoteContext(GstMessage *message) {
    const GstStructure *structure = gst_message_get_structure(message);
    GMainContext *const context = g_main_context_get_thread_default();
    if (structure == nullptr || context == nullptr || gst_structure_has_name(structure, "http-headers") == FALSE) {
        return;
    }
    const std::lock_guard<std::mutex> lock(m_mtx);
    if (m_pContext != nullptr) {
        g_main_context_unref(m_pContext);
    }
    m_pContext = g_main_context_ref(context);
}

void HiddenPlaylistRequests::BeforeStop() {
    GMainContext *context = nullptr;
    {
        const std::lock_guard<std::mutex> lock(m_mtx);
        context = std::exchange(m_pContext, nullptr);
    }
    if (context == nullptr) {
        return;
    }
    const auto pause = std::make_shared<Pause>();
    // Of low priority: whatever has been answered is handed on first.
    g_main_context_invoke_full(context, G_PRIORITY_LOW, PauseSession, new std::shared_ptr<Pause>(pause), ReleasePause);
    {
        std::unique_lock<std::mutex> lock(pause->mutex);
        pause->cancelled = !pause->cond.wait_for(lock, kPauseBound, [&] { return pause->begun; });
    }
    g_main_context_unref(context);
}

}  // namespace GSTREAMER
