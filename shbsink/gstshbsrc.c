/*
 * shbsrc: the frames of one source of a shared buffer, video and audio, as a live source of a pipeline.
 */
#include "gstshbsrc.h"

#include "gstshbsrc_private.h"

GST_DEBUG_CATEGORY(shb_src_debug);
#define GST_CAT_DEFAULT shb_src_debug

#define DEFAULT_LATENCY_MS 100

enum {
    PROP_0,
    PROP_BUFFER,
    PROP_CHANNEL,
    PROP_STREAM,
    PROP_START,
    PROP_FOLLOW,
    PROP_CATCH_UP,
    PROP_INTERVAL,
    PROP_LATENCY,
    PROP_NUM_BUFFERS,
    PROP_STATS
};

GstStaticPadTemplate shb_src_video_template =
    GST_STATIC_PAD_TEMPLATE("video", GST_PAD_SRC, GST_PAD_SOMETIMES,
                            GST_STATIC_CAPS("video/x-h264, stream-format = (string) byte-stream, alignment = (string) au; "
                                            "video/x-h265, stream-format = (string) byte-stream, alignment = (string) au"));
GstStaticPadTemplate shb_src_audio_template = GST_STATIC_PAD_TEMPLATE(
    "audio", GST_PAD_SRC, GST_PAD_SOMETIMES,
    GST_STATIC_CAPS("audio/mpeg, mpegversion = (int) { 1, 4 }; audio/x-ac3; audio/x-eac3; audio/x-opus; "
                    "audio/x-alaw; audio/x-mulaw; audio/x-vorbis"));

G_DEFINE_TYPE_WITH_CODE(GstShbSrc, gst_shb_src, GST_TYPE_ELEMENT,
                        G_IMPLEMENT_INTERFACE(GST_TYPE_URI_HANDLER, shb_src_uri_handler_init))
GST_ELEMENT_REGISTER_DEFINE(shbsrc, "shbsrc", GST_RANK_PRIMARY, GST_TYPE_SHB_SRC)

/* ---- State --------------------------------------------------------------------------------------------------------- */

static GstStateChangeReturn change_state(GstElement *element, GstStateChange transition) {
    GstShbSrc *self = GST_SHB_SRC(element);
    if (transition == GST_STATE_CHANGE_READY_TO_PAUSED && !shb_src_begin(self))
        return GST_STATE_CHANGE_FAILURE;
    if (transition == GST_STATE_CHANGE_PLAYING_TO_PAUSED)
        shb_src_set_flag(self, &self->playing, FALSE);
    /* Before the pads are deactivated: a thread that waits must not begin to push again. */
    if (transition == GST_STATE_CHANGE_PAUSED_TO_READY)
        shb_src_set_flag(self, &self->stopping, TRUE);

    GstStateChangeReturn result = GST_ELEMENT_CLASS(gst_shb_src_parent_class)->change_state(element, transition);

    if (transition == GST_STATE_CHANGE_PAUSED_TO_READY)
        shb_src_end(self);
    if (result == GST_STATE_CHANGE_FAILURE) {
        if (transition == GST_STATE_CHANGE_READY_TO_PAUSED) {
            shb_src_set_flag(self, &self->stopping, TRUE);
            shb_src_end(self);
        }
        return result;
    }
    if (transition == GST_STATE_CHANGE_PAUSED_TO_PLAYING)
        shb_src_set_flag(self, &self->playing, TRUE);
    /* Live: no data in PAUSED. */
    if (transition == GST_STATE_CHANGE_READY_TO_PAUSED || transition == GST_STATE_CHANGE_PLAYING_TO_PAUSED)
        return GST_STATE_CHANGE_NO_PREROLL;
    return result;
}

/* gst-launch-1.0 -e ends a pipeline so. */
static gboolean send_event(GstElement *element, GstEvent *event) {
    GstShbSrc *self = GST_SHB_SRC(element);
    gboolean taken = GST_EVENT_TYPE(event) == GST_EVENT_EOS;
    if (taken)
        shb_src_set_flag(self, &self->ending, TRUE);
    gst_event_unref(event);
    return taken;
}

static gboolean element_query(GstElement *element, GstQuery *query) {
    GstShbSrc *self = GST_SHB_SRC(element);
    if (GST_QUERY_TYPE(query) == GST_QUERY_LATENCY || GST_QUERY_TYPE(query) == GST_QUERY_URI)
        return shb_src_query(NULL, GST_OBJECT(self), query);
    return GST_ELEMENT_CLASS(gst_shb_src_parent_class)->query(element, query);
}
/* ---- Properties --------------------------------------------------------------------------------------------------- */

static GstStructure *make_stats(GstShbSrc *self) {
    GstStructure *stats = gst_structure_new_empty("shbsrc-stats");
    g_mutex_lock(&self->lock);
    for (guint i = 0; i < TRACKS; i++) {
        const Track *track = &self->tracks[i];
        const struct {
            const gchar *name;
            guint64 value;
        } values[] = {{"frames", track->frames}, {"bytes", track->bytes}, {"lost", track->lost}, {"left-out", track->left_out}};
        for (guint j = 0; j < G_N_ELEMENTS(values); j++) {
            gchar *name = g_strdup_printf("%s-%s", shb_src_kind_name(track->kind), values[j].name);
            gst_structure_set(stats, name, G_TYPE_UINT64, values[j].value, NULL);
            g_free(name);
        }
    }
    g_mutex_unlock(&self->lock);
    return stats;
}

static void set_property(GObject *object, guint id, const GValue *value, GParamSpec *spec) {
    GstShbSrc *self = GST_SHB_SRC(object);
    GST_OBJECT_LOCK(self);
    switch (id) {
        case PROP_BUFFER:
            g_free(self->buffer);
            self->buffer = g_value_dup_string(value);
            break;
        case PROP_CHANNEL:
            self->channel = g_value_get_int(value);
            break;
        case PROP_STREAM:
            self->stream = g_value_get_int(value);
            break;
        case PROP_START:
            g_free(self->start);
            self->start = g_value_dup_string(value);
            break;
        case PROP_FOLLOW:
            self->follow = g_value_get_boolean(value);
            break;
        case PROP_CATCH_UP:
            self->catch_up = g_value_get_boolean(value);
            break;
        case PROP_INTERVAL:
            self->interval_ms = g_value_get_uint(value);
            break;
        case PROP_LATENCY:
            self->latency_ms = g_value_get_uint(value);
            break;
        case PROP_NUM_BUFFERS:
            self->num_buffers = g_value_get_int(value);
            break;
        default:
            G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, spec);
            break;
    }
    GST_OBJECT_UNLOCK(self);
}

static void get_property(GObject *object, guint id, GValue *value, GParamSpec *spec) {
    GstShbSrc *self = GST_SHB_SRC(object);
    if (id == PROP_STATS) {
        g_value_take_boxed(value, make_stats(self));
        return;
    }
    GST_OBJECT_LOCK(self);
    switch (id) {
        case PROP_BUFFER:
            g_value_set_string(value, self->buffer);
            break;
        case PROP_CHANNEL:
            g_value_set_int(value, self->channel);
            break;
        case PROP_STREAM:
            g_value_set_int(value, self->stream);
            break;
        case PROP_START:
            g_value_set_string(value, self->start);
            break;
        case PROP_FOLLOW:
            g_value_set_boolean(value, self->follow);
            break;
        case PROP_CATCH_UP:
            g_value_set_boolean(value, self->catch_up);
            break;
        case PROP_INTERVAL:
            g_value_set_uint(value, self->interval_ms);
            break;
        case PROP_LATENCY:
            g_value_set_uint(value, self->latency_ms);
            break;
        case PROP_NUM_BUFFERS:
            g_value_set_int(value, self->num_buffers);
            break;
        default:
            G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, spec);
            break;
    }
    GST_OBJECT_UNLOCK(self);
}

/* ---- Class -------------------------------------------------------------------------------------------------------- */

static void gst_shb_src_init(GstShbSrc *self) {
    self->start = g_strdup(SHB_SRC_DEFAULT_START);
    self->latency_ms = DEFAULT_LATENCY_MS;
    self->num_buffers = -1;
    g_mutex_init(&self->lock);
    g_cond_init(&self->changed);
    self->flows = gst_flow_combiner_new();
    gst_segment_init(&self->segment, GST_FORMAT_TIME);
    for (guint i = 0; i < TRACKS; i++) {
        Track *track = &self->tracks[i];
        track->src = self;
        track->kind = (shb_kind_t)i;
        g_rec_mutex_init(&track->task_lock);
        shb_src_begin_track(track);
    }
    GST_OBJECT_FLAG_SET(self, GST_ELEMENT_FLAG_SOURCE);
}

static void finalize(GObject *object) {
    GstShbSrc *self = GST_SHB_SRC(object);
    gst_flow_combiner_free(self->flows);
    for (guint i = 0; i < TRACKS; i++)
        g_rec_mutex_clear(&self->tracks[i].task_lock);
    g_cond_clear(&self->changed);
    g_mutex_clear(&self->lock);
    g_free(self->buffer);
    g_free(self->start);
    G_OBJECT_CLASS(gst_shb_src_parent_class)->finalize(object);
}

static void gst_shb_src_class_init(GstShbSrcClass *class) {
    GObjectClass *object_class = G_OBJECT_CLASS(class);
    GstElementClass *element_class = GST_ELEMENT_CLASS(class);
    const GParamFlags flags = (GParamFlags)(G_PARAM_READWRITE | G_PARAM_STATIC_STRINGS);
    const GParamFlags ready = (GParamFlags)(flags | GST_PARAM_MUTABLE_READY);
    GST_DEBUG_CATEGORY_INIT(shb_src_debug, "shbsrc", 0, "shared buffer source");

    object_class->set_property = set_property;
    object_class->get_property = get_property;
    object_class->finalize = finalize;
    g_object_class_install_property(object_class, PROP_BUFFER,
                                    g_param_spec_string("buffer", "buffer", "Name of the shared buffer", NULL, ready));
    g_object_class_install_property(
        object_class, PROP_CHANNEL,
        g_param_spec_int("channel", "channel", "Channel of the shared buffer, from 0", 0, G_MAXINT, 0, ready));
    g_object_class_install_property(
        object_class, PROP_STREAM,
        g_param_spec_int("stream", "stream", "Stream of the channel, from 0", 0, G_MAXINT, 0, ready));
    g_object_class_install_property(
        object_class, PROP_START,
        g_param_spec_string(
            "start", "start",
            "Where to begin: \"newest\" (next key frame to come), \"key\" (newest key frame held), \"oldest\", or "
            "the newest key frame that is at least so old: \"-10s\", \"-1500ms\", \"-2m\"",
            SHB_SRC_DEFAULT_START, ready));
    g_object_class_install_property(
        object_class, PROP_FOLLOW,
        g_param_spec_boolean("follow", "follow", "Wait for the buffer when its host has gone, and when there is none yet",
                             FALSE, ready));
    g_object_class_install_property(
        object_class, PROP_CATCH_UP,
        g_param_spec_boolean("catch-up", "catch-up",
                             "Frames from before the start are for decoding only: a picture at once and no lag, for viewers",
                             FALSE, ready));
    g_object_class_install_property(
        object_class, PROP_INTERVAL,
        g_param_spec_uint(
            "interval", "interval",
            "ms between two looks at the buffer, what has come goes on together: saves processor time, costs latency; "
            "0: each frame at once",
            0, 10000, 0, ready));
    g_object_class_install_property(
        object_class, PROP_LATENCY,
        g_param_spec_uint("latency", "latency", "ms by which frames may come later than the first one did", 0, 600000,
                          DEFAULT_LATENCY_MS, flags));
    g_object_class_install_property(
        object_class, PROP_NUM_BUFFERS,
        g_param_spec_int("num-buffers", "num-buffers", "Frames of each pad before EOS, -1: no such end", -1, G_MAXINT, -1,
                         ready));
    g_object_class_install_property(
        object_class, PROP_STATS,
        g_param_spec_boxed("stats", "stats", "Frames, bytes, frames lost and left out of each track", GST_TYPE_STRUCTURE,
                           (GParamFlags)(G_PARAM_READABLE | G_PARAM_STATIC_STRINGS)));

    gst_element_class_add_static_pad_template(element_class, &shb_src_video_template);
    gst_element_class_add_static_pad_template(element_class, &shb_src_audio_template);
    gst_element_class_set_static_metadata(element_class, "Shared buffer source", "Source",
                                          "Reads the video and audio of a source from a shared buffer", "gst-source");
    element_class->change_state = change_state;
    element_class->send_event = send_event;
    element_class->query = element_query;
}
