#include "workarounds/HiddenPlaylistRequests.h"

#include <chrono>
#include <condition_variable>
#include <memory>
#include <thread>
#include <utility>

namespace GSTREAMER {

namespace {

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
    const auto resting = std::make_shared<Resting>();
    // Of low priority: whatever has been answered is handed on first.
    g_main_context_invoke_full(context, G_PRIORITY_LOW, RestAwhile, new std::shared_ptr<Resting>(resting), ForgetRest);
    {
        std::unique_lock<std::mutex> lock(resting->mutex);
        resting->given = !resting->cond.wait_for(lock, kRestBound, [&] { return resting->begun; });
    }
    g_main_context_unref(context);
}

}  // namespace GSTREAMER
