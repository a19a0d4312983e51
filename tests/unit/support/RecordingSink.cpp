#include "RecordingSink.h"

#include <gst/base/gstbasesink.h>

#include <cstdio>

struct RecordingSink {
    GstBaseSink parent;
    std::vector<std::string> *sets;
    gpointer shareBuffer;
    gint numbers[4];  // media, channel, stream, debug
};

struct RecordingSinkClass {
    GstBaseSinkClass parent;
};

namespace {

enum Property : guint { kShareBuffer = 1, kMedia, kChannel, kStream, kDebug, kAsync, kSync };

GObjectClass *g_parentClass = nullptr;

RecordingSink *Self(gpointer object) {
    return static_cast<RecordingSink *>(object);
}

void SetProperty(GObject *object, guint id, const GValue *value, GParamSpec *spec) {
    RecordingSink *self = Self(object);
    std::string text;
    switch (id) {
        case kShareBuffer: {
            self->shareBuffer = g_value_get_pointer(value);
            char pointer[32] = "";
            std::snprintf(pointer, sizeof pointer, "%p", self->shareBuffer);
            text = pointer;
            break;
        }
        case kMedia:
        case kChannel:
        case kStream:
        case kDebug:
            self->numbers[id - kMedia] = g_value_get_int(value);
            text = std::to_string(self->numbers[id - kMedia]);
            break;
        case kAsync:
            gst_base_sink_set_async_enabled(GST_BASE_SINK(object), g_value_get_boolean(value));
            text = g_value_get_boolean(value) != FALSE ? "true" : "false";
            break;
        case kSync:
            gst_base_sink_set_sync(GST_BASE_SINK(object), g_value_get_boolean(value));
            text = g_value_get_boolean(value) != FALSE ? "true" : "false";
            break;
        default:
            G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, spec);
            return;
    }
    self->sets->push_back(std::string(g_param_spec_get_name(spec)) + "=" + text);
}

void GetProperty(GObject *object, guint id, GValue *value, GParamSpec *spec) {
    const RecordingSink *self = Self(object);
    switch (id) {
        case kShareBuffer:
            g_value_set_pointer(value, self->shareBuffer);
            break;
        case kMedia:
        case kChannel:
        case kStream:
        case kDebug:
            g_value_set_int(value, self->numbers[id - kMedia]);
            break;
        case kAsync:
            g_value_set_boolean(value, gst_base_sink_is_async_enabled(GST_BASE_SINK(object)));
            break;
        case kSync:
            g_value_set_boolean(value, gst_base_sink_get_sync(GST_BASE_SINK(object)));
            break;
        default:
            G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, spec);
            break;
    }
}

void Finalize(GObject *object) {
    delete Self(object)->sets;
    g_parentClass->finalize(object);
}

void InitClass(gpointer type, gpointer) {
    g_parentClass = G_OBJECT_CLASS(g_type_class_peek_parent(type));
    GObjectClass *object = G_OBJECT_CLASS(type);
    GstElementClass *element = GST_ELEMENT_CLASS(type);
    object->set_property = SetProperty;
    object->get_property = GetProperty;
    object->finalize = Finalize;

    const auto flags = static_cast<GParamFlags>(G_PARAM_READWRITE | G_PARAM_STATIC_STRINGS);
    g_object_class_install_property(object, kShareBuffer, g_param_spec_pointer("share-buffer", nullptr, nullptr, flags));
    const struct {
        Property id;
        const char *name;
    } numbers[] = {{kMedia, "media"}, {kChannel, "channel"}, {kStream, "stream"}, {kDebug, "debug"}};
    for (const auto &number : numbers) {
        g_object_class_install_property(object, number.id,
                                        g_param_spec_int(number.name, nullptr, nullptr, G_MININT, G_MAXINT, 0, flags));
    }
    g_object_class_override_property(object, kAsync, "async");
    g_object_class_override_property(object, kSync, "sync");

    const GType owner = G_TYPE_FROM_CLASS(type);
    g_signal_new("v-media-changed", owner, G_SIGNAL_RUN_LAST, 0, nullptr, nullptr, nullptr, G_TYPE_NONE, 9, G_TYPE_STRING,
                 G_TYPE_STRING, G_TYPE_STRING, G_TYPE_STRING, G_TYPE_INT, G_TYPE_INT, G_TYPE_INT, G_TYPE_INT, G_TYPE_INT);
    g_signal_new("a-media-changed", owner, G_SIGNAL_RUN_LAST, 0, nullptr, nullptr, nullptr, G_TYPE_NONE, 7, G_TYPE_STRING,
                 G_TYPE_INT, G_TYPE_INT, G_TYPE_INT, G_TYPE_INT, G_TYPE_INT, G_TYPE_INT);
    g_signal_new("media-real-bitrate", owner, G_SIGNAL_RUN_LAST, 0, nullptr, nullptr, nullptr, G_TYPE_NONE, 1, G_TYPE_UINT);
    g_signal_new("media-real-fps", owner, G_SIGNAL_RUN_LAST, 0, nullptr, nullptr, nullptr, G_TYPE_NONE, 1, G_TYPE_UINT);

    GstCaps *any = gst_caps_new_any();
    gst_element_class_add_pad_template(element, gst_pad_template_new("sink", GST_PAD_SINK, GST_PAD_ALWAYS, any));
    gst_caps_unref(any);
    gst_element_class_set_static_metadata(element, "Recording sink", "Sink", "Records what is set on it", "Tests");
}

void InitInstance(GTypeInstance *self, gpointer) {
    Self(self)->sets = new std::vector<std::string>;
}

GType RecordingSinkType() {
    static const GType type = g_type_register_static_simple(GST_TYPE_BASE_SINK, "RecordingSink", sizeof(RecordingSinkClass),
                                                            InitClass, sizeof(RecordingSink), InitInstance, GTypeFlags(0));
    return type;
}

}  // namespace

namespace unit {

void RegisterRecordingSink() {
    gst_element_register(nullptr, "shbsink", GST_RANK_NONE, RecordingSinkType());
}

std::vector<std::string> SetsOf(GstElement *sink) {
    if (!G_TYPE_CHECK_INSTANCE_TYPE(sink, RecordingSinkType())) {
        return {"not a recording sink"};
    }
    return *Self(sink)->sets;
}

void EmitVideoChanged(GstElement *sink, const VideoReport &report) {
    g_signal_emit_by_name(sink, "v-media-changed", report.code, "unused", nullptr, report.scanType, report.width, report.height,
                          report.fpsN, report.fpsD, report.refFrames);
}

void EmitAudioChanged(GstElement *sink, const AudioReport &report) {
    g_signal_emit_by_name(sink, "a-media-changed", report.code, report.sampleRate, report.channels, report.samples,
                          report.extra, -7, -8);
}

void EmitBitrate(GstElement *sink, guint bitrate) {
    g_signal_emit_by_name(sink, "media-real-bitrate", bitrate);
}

void EmitFps(GstElement *sink, guint fps) {
    g_signal_emit_by_name(sink, "media-real-fps", fps);
}

}  // namespace unit
