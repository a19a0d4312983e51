#include "workarounds/AbandonedRtmpAttempt.h"

#include "framework/Elements.h"

#include <sys/prctl.h>

#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <mutex>
#include <thread>
#include <utility>

namespace GSTREAMER {

namespace {

constexpr std::chrono::milliseconds kBound{300};
constexpr std::chrono::milliseconds kPause{1};

// The number that the framework gives to the name of a task made now.
long TaskNumber() {
    GstTask *const task = gst_task_new([](gpointer) {}, nullptr, nullptr);
    constexpr std::size_t kPrefix = sizeof "task" - 1;
    const long number = std::strtol(GST_OBJECT_NAME(task) + kPrefix, nullptr, 10);
    gst_object_unref(task);
    return number;
}

}  // namespace

// How far it has come, for threads of the element too.
struct AbandonedRtmpAttempt::Attempt {
    ~Attempt() { g_clear_pointer(&m_pContext, g_main_context_unref); }
    void SetOver() {
        const std::lock_guard<std::mutex> lock(m_mtx);
        m_bOver = true;
        m_cond.notify_all();
    }
    // Thread of the element's task, which connects. False when that is of no concern any more.
    bool SetContext(GMainContext *context) {
        const std::lock_guard<std::mutex> lock(m_mtx);
        if (m_pContext == nullptr && !m_bOver) {
            m_pContext = g_main_context_ref(context);
            m_cond.notify_all();
        }
        return m_pContext == context && !m_bOver;
    }
    // Borrowed; null when the bound or the attempt is over.
    GMainContext *AwaitContext(std::chrono::milliseconds bound) {
        std::unique_lock<std::mutex> lock(m_mtx);
        m_cond.wait_for(lock, bound, [this] { return m_bOver || m_pContext != nullptr; });
        return m_bOver ? nullptr : m_pContext;
    }
    void AwaitOver(std::chrono::steady_clock::time_point until) {
        std::unique_lock<std::mutex> lock(m_mtx);
        m_cond.wait_until(lock, until, [this] { return m_bOver; });
    }

  private:
    std::mutex m_mtx;  // guards all below
    std::condition_variable m_cond;
    bool m_bOver = false;  // it has failed, or data flow
    GMainContext *m_pContext = nullptr;
};

ElementRef AbandonedRtmpAttempt::Make(const char *factory, const char *name, std::string &thread_name) {
    constexpr int kTries = 20;
    thread_name.clear();
    ElementRef element;
    for (int i = 0; i < kTries; ++i) {
        const long before = TaskNumber();
        element = MakeElement(factory, name);
        const long made = TaskNumber() - before - 1;
        if (element == nullptr || made == 0) {
            break;
        }
        // More than one: another thread of the process makes tasks as well.
        if (made == 1) {
            thread_name = "task" + std::to_string(before + 1);
            break;
        }
    }
    return element;
}

AbandonedRtmpAttempt::AbandonedRtmpAttempt(GstElement *source, std::string thread_name, std::function<void()> on_left)
    : m_pSource(source),
      m_strThread(std::move(thread_name)),
      m_fnOnLeft(std::move(on_left)),
      m_pAttempt(std::make_shared<Attempt>()),
      m_errors("sync-message::error", source, [attempt = m_pAttempt](GstMessage *) { attempt->SetOver(); }),
      m_sockets([this] { return _IsOwnThread(); }) {
    g_weak_ref_init(&m_source, source);
}

AbandonedRtmpAttempt::~AbandonedRtmpAttempt() {
    m_errors.Detach();
    if (!_AwaitEndOfElement()) {
        m_fnOnLeft();
    }
    g_weak_ref_clear(&m_source);
}

void AbandonedRtmpAttempt::Attach(GstElement *pipeline) {
    m_errors.Attach(pipeline);
    if (const PadPtr pad(gst_element_get_static_pad(m_pSource, "src")); pad) {
        auto *const attempt = new std::shared_ptr<Attempt>(m_pAttempt);
        const auto forget = [](gpointer user_data) { delete static_cast<std::shared_ptr<Attempt> *>(user_data); };
        if (gst_pad_add_probe(pad.get(), GST_PAD_PROBE_TYPE_DATA_DOWNSTREAM, data_probe, attempt, forget) == 0) {
            forget(attempt);
        }
    }
}

// The first buffer, or the end of a stream without one.
GstPadProbeReturn AbandonedRtmpAttempt::data_probe(GstPad * /*pad*/, GstPadProbeInfo *info, gpointer user_data) {
    if ((info->type & GST_PAD_PROBE_TYPE_EVENT_DOWNSTREAM) != 0 &&
        GST_EVENT_TYPE(gst_pad_probe_info_get_event(info)) != GST_EVENT_EOS) {
        return GST_PAD_PROBE_OK;
    }
    (*static_cast<std::shared_ptr<Attempt> *>(user_data))->SetOver();
    return GST_PAD_PROBE_REMOVE;
}

// A failed task returns its thread to the pool with the same name. SetContext is false from then on.
bool AbandonedRtmpAttempt::_IsOwnThread() const {
    constexpr std::size_t kNameSize = 16;
    char name[kNameSize] = "";
    GMainContext *const context = g_main_context_get_thread_default();
    return m_bRuns && context != nullptr && !m_strThread.empty() && prctl(PR_GET_NAME, name) == 0 && m_strThread == name &&
           m_pAttempt->SetContext(context);
}

void AbandonedRtmpAttempt::BeforeStop() {
    if (GST_STATE(m_pSource) >= GST_STATE_PAUSED) {
        const auto until = std::chrono::steady_clock::now() + kBound;
        if (GMainContext *const context = m_pAttempt->AwaitContext(kBound); context != nullptr) {
            _EndAttempt(context, until);
        }
    }
    m_bRuns = false;
}

// Runs on the element's own context at low priority: a shutdown between two steps would be missed.
// Every 1 ms, since another address may follow.
void AbandonedRtmpAttempt::_EndAttempt(GMainContext *context, std::chrono::steady_clock::time_point until) {
    GSource *const shutdown = g_timeout_source_new(static_cast<guint>(kPause.count()));
    g_source_set_priority(shutdown, G_PRIORITY_LOW);
    const GSourceFunc shut_down = [](gpointer user_data) -> gboolean {
        static_cast<AbandonedRtmpAttempt *>(user_data)->m_sockets.Shutdown();
        return G_SOURCE_CONTINUE;
    };
    g_source_set_callback(shutdown, shut_down, this, nullptr);
    g_source_attach(shutdown, context);
    m_pAttempt->AwaitOver(until);
    g_source_destroy(shutdown);
    g_source_unref(shutdown);
}

bool AbandonedRtmpAttempt::_AwaitEndOfElement() {
    const auto until = std::chrono::steady_clock::now() + kBound;
    for (;;) {
        gpointer alive = g_weak_ref_get(&m_source);
        if (alive == nullptr) {
            return true;
        }
        gst_object_unref(alive);
        if (std::chrono::steady_clock::now() >= until) {
            return false;
        }
        std::this_thread::sleep_for(kPause);
    }
}

}  // namespace GSTREAMER
