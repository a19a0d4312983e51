#include "LiveSource.h"

#include <gst/base/gstpushsrc.h>

#include <mutex>

namespace unit {

const char kLiveSource[] = "unitlivesource";

namespace {

struct State {
    ReadScript script;
    std::atomic<bool> stop{false};
    std::atomic<bool> reading{false};
};

struct LiveSource {
    GstPushSrc parent;
    State *state;
};

struct LiveSourceClass {
    GstPushSrcClass parent;
};

GObjectClass *g_parentClass = nullptr;
std::mutex g_scriptMutex;
ReadScript g_script;
std::atomic<bool> g_stoppedAmidRead{false};
std::atomic<int> g_stopsGiven{0};

State &StateOf(gpointer object) {
    return *static_cast<LiveSource *>(object)->state;
}

gboolean Start(GstBaseSrc *self) {
    State &state = StateOf(self);
    const std::lock_guard<std::mutex> lock(g_scriptMutex);
    state.script = g_script;
    state.stop = false;
    return TRUE;
}

gboolean Unlock(GstBaseSrc *self) {
    State &state = StateOf(self);
    ++g_stopsGiven;
    // A live source is unlocked twice: on the way to PAUSED, and
    // on the way to READY, when the read may be over.
    if (state.reading) {
        g_stoppedAmidRead = true;
    }
    state.stop = true;
    return TRUE;
}

gboolean UnlockStop(GstBaseSrc *self) {
    StateOf(self).stop = false;
    return TRUE;
}

GstFlowReturn Create(GstPushSrc *self, GstBuffer **buffer) {
    State &state = StateOf(self);
    state.reading = true;
    const bool more = state.script(state.stop);
    state.reading = false;
    if (state.stop) {
        return GST_FLOW_FLUSHING;
    }
    if (!more) {
        return GST_FLOW_EOS;
    }
    *buffer = gst_buffer_new_allocate(nullptr, 16, nullptr);
    return GST_FLOW_OK;
}

void InitClass(gpointer klass, gpointer) {
    g_parentClass = G_OBJECT_CLASS(g_type_class_peek_parent(klass));
    GObjectClass *object = G_OBJECT_CLASS(klass);
    // The options of those that it stands in for are taken and forgotten.
    object->set_property = [](GObject *, guint, const GValue *, GParamSpec *) {};
    object->finalize = [](GObject *self) {
        delete &StateOf(self);
        g_parentClass->finalize(self);
    };
    const auto flags = static_cast<GParamFlags>(G_PARAM_WRITABLE | G_PARAM_STATIC_STRINGS);
    guint id = 0;
    for (const char *name : {"location", "uri"}) {
        g_object_class_install_property(object, ++id, g_param_spec_string(name, nullptr, nullptr, nullptr, flags));
    }
    for (const char *name : {"timeout", "latency", "mode"}) {
        g_object_class_install_property(object, ++id, g_param_spec_int(name, nullptr, nullptr, G_MININT, G_MAXINT, 0, flags));
    }
    GstBaseSrcClass *source = GST_BASE_SRC_CLASS(klass);
    source->start = Start;
    source->unlock = Unlock;
    source->unlock_stop = UnlockStop;
    GST_PUSH_SRC_CLASS(klass)->create = Create;
    GstCaps *any = gst_caps_new_any();
    gst_element_class_add_pad_template(GST_ELEMENT_CLASS(klass), gst_pad_template_new("src", GST_PAD_SRC, GST_PAD_ALWAYS, any));
    gst_caps_unref(any);
    gst_element_class_set_static_metadata(GST_ELEMENT_CLASS(klass), "Live source of the tests", "Source", "Follows a script",
                                          "-");
}

void InitInstance(GTypeInstance *self, gpointer) {
    reinterpret_cast<LiveSource *>(self)->state = new State;
    gst_base_src_set_live(GST_BASE_SRC(self), TRUE);
    gst_base_src_set_format(GST_BASE_SRC(self), GST_FORMAT_TIME);
}

}  // namespace

void RegisterLiveSource() {
    static const bool done = [] {
        const GTypeInfo info = {sizeof(LiveSourceClass), nullptr, nullptr,      InitClass, nullptr, nullptr,
                                sizeof(LiveSource),      0,       InitInstance, nullptr};
        const GType type = g_type_register_static(GST_TYPE_PUSH_SRC, "UnitLiveSource", &info, GTypeFlags(0));
        return gst_element_register(nullptr, kLiveSource, GST_RANK_NONE, type) != FALSE;
    }();
    (void)done;
}

void SetReadScript(ReadScript script) {
    const std::lock_guard<std::mutex> lock(g_scriptMutex);
    g_script = std::move(script);
    g_stoppedAmidRead = false;
    g_stopsGiven = 0;
}

int StopsGiven() {
    return g_stopsGiven;
}

bool StoppedAmidRead() {
    return g_stoppedAmidRead;
}

}  // namespace unit
