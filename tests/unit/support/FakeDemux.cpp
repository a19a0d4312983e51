#include "FakeDemux.h"

#include <mutex>
#include <thread>

namespace unit {

const char kFakeDemux[] = "unitfakedemux";

namespace {

struct FakeDemux {
    GstElement parent;
    std::thread *thread;
    std::atomic<bool> *stop;
};

struct FakeDemuxClass {
    GstElementClass parent;
};

GstElementClass *g_parentClass = nullptr;
std::mutex g_scriptMutex;
DemuxScript g_script;

FakeDemux *Demux(gpointer object) {
    return static_cast<FakeDemux *>(object);
}

DemuxScript Script() {
    const std::lock_guard<std::mutex> lock(g_scriptMutex);
    return g_script;
}

// As a task of GStreamer's tells it: who works for which pipeline is known by these messages.
void PostStatus(GstElement *self, GstStreamStatusType type) {
    gst_element_post_message(self, gst_message_new_stream_status(GST_OBJECT(self), type, self));
}

GstStateChangeReturn ChangeState(GstElement *element, GstStateChange transition) {
    FakeDemux *self = Demux(element);
    const GstStateChangeReturn result = g_parentClass->change_state(element, transition);
    if (transition == GST_STATE_CHANGE_READY_TO_PAUSED) {
        *self->stop = false;
        self->thread = new std::thread([element, self, script = Script()] {
            PostStatus(element, GST_STREAM_STATUS_TYPE_ENTER);
            if (script) {
                script(element, *self->stop);
            }
            PostStatus(element, GST_STREAM_STATUS_TYPE_LEAVE);
        });
    } else if (transition == GST_STATE_CHANGE_PAUSED_TO_READY && self->thread != nullptr) {
        *self->stop = true;
        self->thread->join();
        delete self->thread;
        self->thread = nullptr;
    }
    return result;
}

void InitClass(gpointer klass, gpointer) {
    g_parentClass = GST_ELEMENT_CLASS(g_type_class_peek_parent(klass));
    GstElementClass *element = GST_ELEMENT_CLASS(klass);
    element->change_state = ChangeState;
    GObjectClass *object = G_OBJECT_CLASS(klass);
    // The options of those that it stands in for are taken and forgotten.
    object->set_property = [](GObject *, guint, const GValue *, GParamSpec *) {};
    object->finalize = [](GObject *self) {
        delete Demux(self)->stop;
        G_OBJECT_CLASS(g_parentClass)->finalize(self);
    };
    const auto flags = static_cast<GParamFlags>(G_PARAM_WRITABLE | G_PARAM_STATIC_STRINGS);
    guint id = 0;
    const auto install = [&](GParamSpec *spec) { g_object_class_install_property(object, ++id, spec); };
    install(g_param_spec_int("latency", nullptr, nullptr, G_MININT, G_MAXINT, 0, flags));
    install(g_param_spec_string("location", nullptr, nullptr, nullptr, flags));
    install(g_param_spec_uint("protocols", nullptr, nullptr, 0, G_MAXUINT, 0, flags));
    install(g_param_spec_uint64("tcp-timeout", nullptr, nullptr, 0, G_MAXUINT64, 0, flags));
    install(g_param_spec_int("udp-buffer-size", nullptr, nullptr, G_MININT, G_MAXINT, 0, flags));
    GstCaps *any = gst_caps_new_any();
    gst_element_class_add_pad_template(element, gst_pad_template_new("sink", GST_PAD_SINK, GST_PAD_ALWAYS, any));
    gst_element_class_add_pad_template(element, gst_pad_template_new("src_%u", GST_PAD_SRC, GST_PAD_SOMETIMES, any));
    gst_caps_unref(any);
    gst_element_class_set_static_metadata(element, "Fake", "Demuxer", "Exposes pads", "Tests");
}

void InitInstance(GTypeInstance *instance, gpointer klass) {
    Demux(instance)->stop = new std::atomic<bool>(false);
    GstPad *sink = gst_pad_new_from_template(gst_element_class_get_pad_template(GST_ELEMENT_CLASS(klass), "sink"), "sink");
    gst_pad_set_chain_function(sink, [](GstPad *, GstObject *, GstBuffer *buffer) {
        gst_buffer_unref(buffer);
        return GST_FLOW_OK;
    });
    gst_element_add_pad(GST_ELEMENT(instance), sink);
}

GType FakeDemuxType() {
    static const GType type = g_type_register_static_simple(GST_TYPE_ELEMENT, "UnitFakeDemux", sizeof(FakeDemuxClass),
                                                            InitClass, sizeof(FakeDemux), InitInstance, GTypeFlags(0));
    return type;
}

}  // namespace

void RegisterFakeDemux() {
    gst_element_register(nullptr, kFakeDemux, GST_RANK_NONE, FakeDemuxType());
}

void SetDemuxScript(DemuxScript script) {
    const std::lock_guard<std::mutex> lock(g_scriptMutex);
    g_script = std::move(script);
}

void ScriptDemuxers(Faults &faults, DemuxScript script) {
    RegisterFakeDemux();
    for (const char *factory : {"tsdemux", "flvdemux", "rtspsrc", "hlsdemux"}) {
        faults.Substitute(factory, kFakeDemux);
    }
    SetDemuxScript([script = std::move(script)](GstElement *self, const std::atomic<bool> &stop) {
        if (std::string(GST_OBJECT_NAME(self)) == "Hlsdemux") {
            ExposePad(self, "src_0", "video/mpegts");
        } else {
            script(self, stop);
        }
    });
}

void ExposePad(GstElement *demux, const std::string &name, const std::string &caps) {
    GstPad *pad = gst_pad_new(name.c_str(), GST_PAD_SRC);
    gst_pad_set_active(pad, TRUE);
    GstCaps *parsed = gst_caps_from_string(caps.c_str());
    gst_pad_push_event(pad, gst_event_new_stream_start(name.c_str()));
    gst_pad_set_caps(pad, parsed);
    gst_caps_unref(parsed);
    gst_element_add_pad(demux, pad);
}

GstElement *Sibling(GstElement *demux, const char *name) {
    GstObject *bin = gst_object_get_parent(GST_OBJECT(demux));
    if (bin == nullptr) {
        return nullptr;
    }
    GstElement *element = gst_bin_get_by_name(GST_BIN(bin), name);
    gst_object_unref(bin);
    return element;
}

}  // namespace unit
