/*
 * shbsink: writes the frames of one elementary stream into one track of a shared buffer, and reports what it
 * sees.
 *
 * Signals are emitted on the streaming thread, after the frame that caused them has been written.
 */
#include "gstshbsink.h"

#include <string.h>

#include "audio_config.h"
#include "audio_report.h"
#include "clock_offset.h"
#include "dts_maker.h"
#include "rate_window.h"
#include "shb.h"
#include "video_report.h"

GST_DEBUG_CATEGORY_STATIC(shbsink_debug);
#define GST_CAT_DEFAULT shbsink_debug

G_STATIC_ASSERT(SHB_TIME_NONE == GST_CLOCK_TIME_NONE);

enum { MEDIA_BY_CAPS = 0, MEDIA_H264 = 48, MEDIA_H265 = 64 };

/* What a host may ask for by "media". `names` are the caps that go with it. */
typedef struct {
    gint media;
    gint mpegversion; /* 1, or 4 for the AAC of versions 2 and 4, or 0 */
    const gchar *code;
    const gchar *names[2];
} MediaKind;

static const MediaKind media_kinds[] = {
    {MEDIA_H264, 0, "H264", {"video/x-h264", NULL}},
    {MEDIA_H265, 0, "H265", {"video/x-h265", NULL}},
    {21, 4, "AAC", {"audio/mpeg", NULL}},
    {23, 4, "MP4A-LATM", {"audio/mpeg", NULL}},
    {17, 1, "MP2", {"audio/mpeg", NULL}},
    {18, 1, "MP3", {"audio/mpeg", NULL}},
    {30, 1, "MPA", {"audio/mpeg", NULL}},
    {22, 0, "OPUS", {"audio/x-opus", NULL}},
    {19, 0, "PCMA", {"audio/x-alaw", NULL}},
    {24, 0, "PCMU", {"audio/x-mulaw", NULL}},
    {25, 0, "AC3", {"audio/x-ac3", "audio/x-eac3"}},
};

struct _GstShbSink {
    GstBaseSink parent;

    /* Properties, under the object lock. */
    gpointer share_buffer;
    gint media;
    gint channel;
    gint stream;
    gint debug;

    /*
     * Everything below belongs to the streaming thread between start and stop, and to the state changing thread
     * otherwise. The base class hands it over under locks of its own; `turn` says the same to tools that do not
     * see into those.
     */
    gint turn;
    shb_writer_t *writer;
    shb_kind_t kind; /* of the track that `writer` has open */
    gboolean has_caps;
    gboolean log_frames; /* "debug" as it was when the caps came */
    gint media_in_force;
    const gchar *code;
    ShbVideoReader *video_reader;
    ShbVideoHints hints;
    ShbDtsMaker dts_maker;
    ShbAudioReport audio;
    ShbAudioConfig audio_config;
    shb_description_t description; /* as last written; empty while nothing was */
    GBytes *codec_data;            /* that goes with it; null: none */
    gint nominal_bitrate;          /* from tags */
    gboolean warned_too_big;
    guint64 too_big;
    gboolean gap; /* a flush: the next frame does not follow on the last written */
    gboolean has_collection;
    GstStreamType collected; /* kinds of the streams in the last collection */
    /* What `clock_offset` was made of, and with it the segment unless that is new. */
    gboolean new_segment;
    GstClock *clock;
    GstClockTime base_time;
    gint64 clock_offset; /* as last written */
    ShbRateWindow window;
};

enum { PROP_0, PROP_SHARE_BUFFER, PROP_MEDIA, PROP_CHANNEL, PROP_STREAM, PROP_DEBUG };
enum { SIGNAL_VIDEO_CHANGED, SIGNAL_AUDIO_CHANGED, SIGNAL_REAL_BITRATE, SIGNAL_REAL_FPS, SIGNALS };
static guint signals[SIGNALS];

/*
 * Branches are linked before their caps are known, and some of them without a parser: nothing is asked for here
 * that a depayloader or a freshly made parser does not promise.
 */
static GstStaticPadTemplate sink_template = GST_STATIC_PAD_TEMPLATE(
    "sink", GST_PAD_SINK, GST_PAD_ALWAYS,
    GST_STATIC_CAPS("video/x-h264, stream-format = (string) byte-stream, alignment = (string) au; "
                    "video/x-h265, stream-format = (string) byte-stream, alignment = (string) au; "
                    "audio/mpeg, mpegversion = (int) { 1, 2, 4 }; "
                    "audio/x-ac3; audio/x-eac3; audio/x-opus; audio/x-alaw; audio/x-mulaw; audio/x-vorbis"));

G_DEFINE_TYPE(GstShbSink, gst_shb_sink, GST_TYPE_BASE_SINK)
GST_ELEMENT_REGISTER_DEFINE(shbsink, "shbsink", GST_RANK_NONE, GST_TYPE_SHB_SINK)

/* ---- Properties --------------------------------------------------------------------------------------------------- */

static void set_property(GObject *object, guint id, const GValue *value, GParamSpec *spec) {
    GstShbSink *self = GST_SHB_SINK(object);
    GST_OBJECT_LOCK(self);
    switch (id) {
        case PROP_SHARE_BUFFER:
            self->share_buffer = g_value_get_pointer(value);
            break;
        case PROP_MEDIA:
            self->media = g_value_get_int(value);
            break;
        case PROP_CHANNEL:
            self->channel = g_value_get_int(value);
            break;
        case PROP_STREAM:
            self->stream = g_value_get_int(value);
            break;
        case PROP_DEBUG:
            self->debug = g_value_get_int(value);
            break;
        default:
            G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, spec);
            break;
    }
    GST_OBJECT_UNLOCK(self);
}

static void get_property(GObject *object, guint id, GValue *value, GParamSpec *spec) {
    GstShbSink *self = GST_SHB_SINK(object);
    GST_OBJECT_LOCK(self);
    switch (id) {
        case PROP_SHARE_BUFFER:
            g_value_set_pointer(value, self->share_buffer);
            break;
        case PROP_MEDIA:
            g_value_set_int(value, self->media);
            break;
        case PROP_CHANNEL:
            g_value_set_int(value, self->channel);
            break;
        case PROP_STREAM:
            g_value_set_int(value, self->stream);
            break;
        case PROP_DEBUG:
            g_value_set_int(value, self->debug);
            break;
        default:
            G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, spec);
            break;
    }
    GST_OBJECT_UNLOCK(self);
}

/* ---- Media kinds and caps ----------------------------------------------------------------------------------------- */

static gboolean is_video(gint media) {
    return media == MEDIA_H264 || media == MEDIA_H265;
}

static const MediaKind *find_kind(gint media) {
    for (guint i = 0; i < G_N_ELEMENTS(media_kinds); i++)
        if (media_kinds[i].media == media)
            return &media_kinds[i];
    return NULL;
}

static gboolean kind_takes(const MediaKind *kind, gint media, const GstStructure *caps) {
    const gchar *name = gst_structure_get_name(caps);
    /* A number that is not in the table is some audio; its caps tell which. */
    if (kind == NULL)
        return !is_video(media) && g_str_has_prefix(name, "audio/");
    for (guint i = 0; i < G_N_ELEMENTS(kind->names); i++) {
        if (g_strcmp0(kind->names[i], name) != 0)
            continue;
        gint version = 0;
        gst_structure_get_int(caps, "mpegversion", &version);
        return kind->mpegversion == 0 || (kind->mpegversion == 1) == (version == 1);
    }
    return FALSE;
}

/* ---- Track -------------------------------------------------------------------------------------------------------- */

static void close_track(GstShbSink *self) {
    shb_writer_close(self->writer);
    self->writer = NULL;
}

/*
 * On a thread of the buffer. A source whose protocol never notices a dead peer connects again for this error.
 */
static void stalled(void *user, uint64_t silent_ms) {
    GstShbSink *self = user;
    GST_OBJECT_LOCK(self);
    gboolean playing = GST_STATE(self) == GST_STATE_PLAYING && GST_STATE_PENDING(self) == GST_STATE_VOID_PENDING;
    GST_OBJECT_UNLOCK(self);
    if (playing)
        GST_ELEMENT_ERROR(self, RESOURCE, READ, ("The stream has stalled."),
                          ("no data for %" G_GUINT64_FORMAT " ms", silent_ms));
}

static gboolean open_track(GstShbSink *self, shb_kind_t kind) {
    GST_OBJECT_LOCK(self);
    gpointer share_buffer = self->share_buffer;
    gint channel = self->channel;
    gint stream = self->stream;
    GST_OBJECT_UNLOCK(self);

    if (share_buffer == NULL) {
        GST_ELEMENT_ERROR(self, RESOURCE, SETTINGS, ("No shared buffer was set."), ("\"share-buffer\" is null"));
        return FALSE;
    }
    shb_geometry_t geometry = SHB_INIT(shb_geometry_t);
    if (shb_get_geometry(share_buffer, &geometry) != SHB_OK) {
        GST_ELEMENT_ERROR(self, RESOURCE, SETTINGS, ("The shared buffer is not known."),
                          ("\"share-buffer\" %p is not an open buffer of this process", share_buffer));
        return FALSE;
    }
    if (channel < 0 || (guint)channel >= geometry.channels || stream < 0 || (guint)stream >= geometry.streams) {
        GST_ELEMENT_ERROR(self, RESOURCE, SETTINGS, ("The shared buffer has no such track."),
                          ("channel %d, stream %d; the buffer has %u channels of %u streams", channel, stream,
                           geometry.channels, geometry.streams));
        return FALSE;
    }
    int result = shb_writer_open(share_buffer, (uint32_t)channel, (uint32_t)stream, kind, &self->writer);
    if (result != SHB_OK) {
        self->writer = NULL;
        GST_ELEMENT_ERROR(
            self, RESOURCE, OPEN_WRITE, ("The track of the shared buffer cannot be written."),
            ("channel %d, stream %d, %s: %s", channel, stream, kind == SHB_VIDEO ? "video" : "audio", shb_strerror(result)));
        return FALSE;
    }
    shb_writer_on_stall(self->writer, stalled, self);
    self->kind = kind;
    self->warned_too_big = FALSE;
    self->too_big = 0;
    self->gap = FALSE;
    self->description = SHB_INIT(shb_description_t);
    g_clear_pointer(&self->codec_data, g_bytes_unref);
    self->new_segment = TRUE;
    self->clock_offset = SHB_OFFSET_NONE;
    shb_rate_window_reset(&self->window);
    return TRUE;
}

static void take_over(GstShbSink *self) {
    (void)g_atomic_int_get(&self->turn);
}

static void hand_over(GstShbSink *self) {
    g_atomic_int_set(&self->turn, 1);
}

static void forget_stream(GstShbSink *self) {
    g_clear_pointer(&self->video_reader, shb_video_reader_free);
    shb_dts_maker_init(&self->dts_maker);
    self->audio = (ShbAudioReport){0};
    shb_audio_config_clear(&self->audio_config);
    self->hints = (ShbVideoHints){0};
    g_clear_pointer(&self->codec_data, g_bytes_unref);
    gst_clear_object(&self->clock);
    self->has_collection = FALSE;
    self->has_caps = FALSE;
    self->code = NULL;
}

static gint read_property(GstShbSink *self, const gint *property) {
    GST_OBJECT_LOCK(self);
    gint value = *property;
    GST_OBJECT_UNLOCK(self);
    return value;
}

static gboolean start(GstBaseSink *sink) {
    GstShbSink *self = GST_SHB_SINK(sink);
    take_over(self);
    forget_stream(self);
    self->nominal_bitrate = 0;
    gboolean opened = open_track(self, is_video(read_property(self, &self->media)) ? SHB_VIDEO : SHB_AUDIO);
    hand_over(self);
    return opened;
}

static gboolean stop(GstBaseSink *sink) {
    GstShbSink *self = GST_SHB_SINK(sink);
    take_over(self);
    if (self->too_big > 0)
        GST_WARNING_OBJECT(self, "%" G_GUINT64_FORMAT " frames were larger than the track", self->too_big);
    close_track(self);
    forget_stream(self);
    hand_over(self);
    return TRUE;
}

/* ---- Caps and events ---------------------------------------------------------------------------------------------- */

static void take_video_caps(GstShbSink *self, const GstStructure *caps, gboolean other_codec) {
    self->hints = (ShbVideoHints){0};
    gst_structure_get_fraction(caps, "framerate", &self->hints.fps_n, &self->hints.fps_d);
    const gchar *interlace_mode = gst_structure_get_string(caps, "interlace-mode");
    self->hints.interlaced = interlace_mode != NULL && !g_str_equal(interlace_mode, "progressive");
    /* Parsers renew their caps whenever a detail changes; what the reader knows of the stream stays true. */
    if (other_codec || self->video_reader == NULL) {
        g_clear_pointer(&self->video_reader, shb_video_reader_free);
        shb_dts_maker_init(&self->dts_maker);
        self->video_reader = self->media_in_force == MEDIA_H264 ? shb_h264_reader_new() : shb_h265_reader_new();
    }
}

/*
 * Reports whether the source has a stream of the other kind. Without one, that track has no sink to report it.
 */
static void report_presence(GstShbSink *self) {
    gboolean video = self->kind == SHB_VIDEO;
    /* The caps decide which kind this sink has. A collection without that kind describes something else. */
    if (!self->has_caps || !self->has_collection ||
        (self->collected & (video ? GST_STREAM_TYPE_VIDEO : GST_STREAM_TYPE_AUDIO)) == 0)
        return;
    gboolean other = (self->collected & (video ? GST_STREAM_TYPE_AUDIO : GST_STREAM_TYPE_VIDEO)) != 0;
    GST_OBJECT_LOCK(self);
    gpointer share_buffer = self->share_buffer;
    guint channel = (guint)self->channel;
    guint stream = (guint)self->stream;
    GST_OBJECT_UNLOCK(self);
    shb_kind_t kind = video ? SHB_AUDIO : SHB_VIDEO;
    /* Another source may fill that track. */
    shb_stats_t stats = SHB_INIT(shb_stats_t);
    if (!other && shb_buffer_stats(share_buffer, channel, stream, kind, &stats) == SHB_OK && stats.writer_pid != 0 &&
        stats.frames > 0)
        return;
    shb_set_presence(share_buffer, channel, stream, kind, other ? SHB_PRESENCE_EXPECTED : SHB_PRESENCE_ABSENT);
}

static void take_collection(GstShbSink *self, GstEvent *event) {
    GstStreamCollection *collection = NULL;
    gst_event_parse_stream_collection(event, &collection);
    if (collection == NULL)
        return;
    self->has_collection = TRUE;
    self->collected = 0;
    for (guint i = 0; i < gst_stream_collection_get_size(collection); i++)
        self->collected |= gst_stream_get_stream_type(gst_stream_collection_get_stream(collection, i));
    gst_object_unref(collection);
    report_presence(self);
}

static gboolean take_caps(GstShbSink *self, GstCaps *caps) {
    /* The media is read here and not when it was set: hosts set a provisional one first. */
    gint media = read_property(self, &self->media);
    const MediaKind *kind = find_kind(media);
    const GstStructure *structure = gst_caps_get_structure(caps, 0);
    self->has_caps = FALSE;
    if (!kind_takes(kind, media, structure)) {
        GST_ELEMENT_ERROR(self, STREAM, WRONG_TYPE, ("The stream is not of the media kind that was set."),
                          ("media %d (%s), caps %s", media, kind != NULL ? kind->code : "audio by its caps",
                           gst_structure_get_name(structure)));
        return FALSE;
    }
    shb_kind_t track = is_video(media) ? SHB_VIDEO : SHB_AUDIO;
    if (self->writer == NULL || track != self->kind) {
        close_track(self);
        if (!open_track(self, track))
            return FALSE;
    }
    gboolean other_codec = media != self->media_in_force;
    self->media_in_force = media;
    if (track == SHB_VIDEO) {
        take_video_caps(self, structure, other_codec);
        self->code = kind->code;
    } else {
        gint samples = self->audio.samples_per_frame;
        const gchar *code = self->audio.code;
        shb_audio_report_from_caps(&self->audio, structure);
        shb_audio_config_from_caps(&self->audio_config, caps);
        if (self->audio.samples_per_frame == 0 && g_strcmp0(code, self->audio.code) == 0)
            self->audio.samples_per_frame = samples;
        self->code = kind != NULL ? kind->code : self->audio.code;
    }
    self->log_frames = read_property(self, &self->debug) > 0;
    self->has_caps = TRUE;
    report_presence(self);
    GST_DEBUG_OBJECT(self, "media %d, caps %" GST_PTR_FORMAT, media, (gpointer)caps);
    return TRUE;
}

static gboolean set_caps(GstBaseSink *sink, GstCaps *caps) {
    GstShbSink *self = GST_SHB_SINK(sink);
    take_over(self);
    gboolean taken = take_caps(self, caps);
    hand_over(self);
    return taken;
}

static gboolean event(GstBaseSink *sink, GstEvent *event) {
    GstShbSink *self = GST_SHB_SINK(sink);
    take_over(self);
    switch (GST_EVENT_TYPE(event)) {
        case GST_EVENT_TAG: {
            GstTagList *tags;
            guint bitrate;
            gst_event_parse_tag(event, &tags);
            if (gst_tag_list_get_uint(tags, GST_TAG_NOMINAL_BITRATE, &bitrate) && bitrate <= G_MAXINT)
                self->nominal_bitrate = (gint)bitrate;
            break;
        }
        case GST_EVENT_STREAM_START:
            self->nominal_bitrate = 0;
            self->has_collection = FALSE;
            shb_writer_on_stall(self->writer, stalled, self);
            break;
        case GST_EVENT_EOS:
            /* Nothing more is to come, and the silence is none that anybody needs to be told of. */
            shb_writer_on_stall(self->writer, NULL, NULL);
            break;
        case GST_EVENT_STREAM_COLLECTION:
            take_collection(self, event);
            break;
        case GST_EVENT_SEGMENT:
            shb_dts_maker_restart(&self->dts_maker);
            self->new_segment = TRUE;
            break;
        case GST_EVENT_FLUSH_STOP:
            shb_rate_window_reset(&self->window);
            shb_dts_maker_restart(&self->dts_maker);
            self->new_segment = TRUE;
            self->gap = TRUE;
            break;
        default:
            break;
    }
    hand_over(self);
    return GST_BASE_SINK_CLASS(gst_shb_sink_parent_class)->event(sink, event);
}

/* ---- Data --------------------------------------------------------------------------------------------------------- */

static const gchar *scan_text(gint scan) {
    switch (scan) {
        case SHB_SCAN_PROGRESSIVE:
            return "progressive";
        case SHB_SCAN_INTERLACED:
            return "interlaced";
        default:
            return "mixed";
    }
}

static gboolean same_bytes(GBytes *a, GBytes *b) {
    return a == b || (a != NULL && b != NULL && g_bytes_equal(a, b));
}

/* True when they differ in what the signals report. The signals do not report format and reorder depth. */
static gboolean reports_differ(const shb_description_t *a, const shb_description_t *b) {
    shb_description_t other = *a;
    memcpy(other.format, b->format, sizeof other.format);
    other.reorder_frames = b->reorder_frames;
    return memcmp(&other, b, sizeof other) != 0;
}

/* Makes `next` the description of the next frames. True when the host has to be told. */
static gboolean describe(GstShbSink *self, const shb_description_t *next, GBytes *codec_data) {
    if (memcmp(next, &self->description, sizeof *next) == 0 && same_bytes(codec_data, self->codec_data))
        return FALSE;
    gboolean changed = reports_differ(next, &self->description);
    self->description = *next;
    g_clear_pointer(&self->codec_data, g_bytes_unref);
    gsize size = 0;
    gconstpointer data = NULL;
    if (codec_data != NULL) {
        self->codec_data = g_bytes_ref(codec_data);
        data = g_bytes_get_data(codec_data, &size);
    }
    if (size > SHB_CODEC_DATA_MAX) {
        GST_WARNING_OBJECT(self, "%" G_GSIZE_FORMAT " bytes of codec data, more than a description takes: left out", size);
        data = NULL;
        size = 0;
    }
    shb_writer_describe(self->writer, next, data, size);
    return changed;
}

/* True when the stream has changed and the host is to be told. */
static gboolean describe_video(GstShbSink *self, const ShbVideoReport *report) {
    shb_description_t next = SHB_INIT(shb_description_t);
    next.media = self->media_in_force;
    g_strlcpy(next.code, self->code, sizeof next.code);
    g_strlcpy(next.profile, report->profile, sizeof next.profile);
    g_strlcpy(next.level, report->level, sizeof next.level);
    g_strlcpy(next.format, "byte-stream", sizeof next.format);
    next.width = report->width;
    next.height = report->height;
    next.fps_n = report->fps_n;
    next.fps_d = report->fps_d;
    next.scan_type = (gint32)report->scan;
    /* Streams of intra pictures only announce none, which hosts take for "not known". */
    next.ref_frames = MAX(report->ref_frames, 1);
    next.reorder_frames = report->reorder_frames;
    shb_dts_maker_set_depth(&self->dts_maker, report->reorder_frames);
    return describe(self, &next, shb_video_reader_codec_data(self->video_reader));
}

static gboolean describe_audio(GstShbSink *self, gsize size, GstClockTime duration, gboolean header) {
    ShbAudioReport *audio = &self->audio;
    /* rtpmp4gdepay and rtpvorbisdepay leave these out of their caps. */
    if (audio->sample_rate == 0)
        audio->sample_rate = self->audio_config.rate;
    if (audio->channels == 0)
        audio->channels = self->audio_config.channels;
    if (audio->samples_per_frame == 0 && !header)
        shb_audio_report_from_frame(audio, size, duration);
    if (audio->samples_per_frame == 0 || audio->sample_rate == 0 || audio->channels == 0 || self->code == NULL)
        return FALSE;
    shb_description_t next = SHB_INIT(shb_description_t);
    next.media = self->media_in_force;
    g_strlcpy(next.code, self->code, sizeof next.code);
    g_strlcpy(next.format, self->audio_config.format, sizeof next.format);
    next.sample_rate = audio->sample_rate;
    next.channels = audio->channels;
    next.samples_per_frame = audio->samples_per_frame;
    next.nominal_bitrate = audio->nominal_bitrate > 0 ? audio->nominal_bitrate : self->nominal_bitrate;
    gboolean told = self->description.code[0] != '\0' && g_str_equal(self->description.code, next.code) &&
                    self->description.sample_rate == next.sample_rate && self->description.channels == next.channels;
    return describe(self, &next, self->audio_config.codec_data) && !told;
}

static void emit_changed(GstShbSink *self) {
    const shb_description_t *d = &self->description;
    if (self->kind == SHB_VIDEO) {
        GST_INFO_OBJECT(self, "%s %s %s %s %dx%d %d/%d refs %d", d->code, d->profile, d->level, scan_text(d->scan_type),
                        d->width, d->height, d->fps_n, d->fps_d, d->ref_frames);
        g_signal_emit(self, signals[SIGNAL_VIDEO_CHANGED], 0, d->code, d->profile, d->level, scan_text(d->scan_type), d->width,
                      d->height, d->fps_n, d->fps_d, d->ref_frames);
    } else {
        GST_INFO_OBJECT(self, "%s %d Hz %d channels %d samples", d->code, d->sample_rate, d->channels, d->samples_per_frame);
        g_signal_emit(self, signals[SIGNAL_AUDIO_CHANGED], 0, d->code, d->sample_rate, d->channels, d->samples_per_frame,
                      d->nominal_bitrate, d->media, self->audio.bits_per_sample);
    }
}

static void emit_rates(GstShbSink *self, const ShbRates *rates) {
    shb_writer_set_rates(self->writer, rates->bits_per_second, rates->frames_per_1000_seconds);
    if (!rates->second)
        return;
    g_signal_emit(self, signals[SIGNAL_REAL_BITRATE], 0, rates->bits_per_second);
    g_signal_emit(self, signals[SIGNAL_REAL_FPS], 0, (rates->frames_per_1000_seconds + 500) / 1000);
}

static void frame_too_big(GstShbSink *self, gsize size) {
    self->too_big++;
    GST_LOG_OBJECT(self, "frame of %" G_GSIZE_FORMAT " bytes left out", size);
    if (self->warned_too_big)
        return;
    self->warned_too_big = TRUE;
    GST_ELEMENT_WARNING(self, RESOURCE, NO_SPACE_LEFT, ("A frame is larger than the track of the shared buffer."),
                        ("%" G_GSIZE_FORMAT " bytes; such frames are left out", size));
}

static GstClockTime make_dts(GstShbSink *self, GstBuffer *buffer) {
    GstClockTime duration = GST_BUFFER_DURATION(buffer);
    const shb_description_t *d = &self->description;
    if (!GST_CLOCK_TIME_IS_VALID(duration) && d->fps_n > 0)
        duration = gst_util_uint64_scale_int(GST_SECOND, d->fps_d, d->fps_n);
    return shb_dts_maker_next(&self->dts_maker, GST_BUFFER_PTS(buffer), GST_BUFFER_DTS(buffer), duration,
                              GST_BUFFER_FLAG_IS_SET(buffer, GST_BUFFER_FLAG_DISCONT));
}

/* Reads what a frame tells about itself and the stream, and its decoding time. Returns its flags. */
static uint32_t examine(GstShbSink *self, GstBuffer *buffer, const GstMapInfo *map, GstClockTime *dts, gboolean *changed) {
    uint32_t flags = 0;
    *dts = GST_BUFFER_DTS(buffer);
    if (GST_BUFFER_FLAG_IS_SET(buffer, GST_BUFFER_FLAG_DISCONT) || self->gap)
        flags |= SHB_FRAME_DISCONT;
    if (self->kind == SHB_AUDIO) {
        gboolean header = shb_audio_config_from_frame(&self->audio_config, map->data, map->size) ||
                          GST_BUFFER_FLAG_IS_SET(buffer, GST_BUFFER_FLAG_HEADER);
        *changed = describe_audio(self, map->size, GST_BUFFER_DURATION(buffer), header);
        return flags | SHB_FRAME_KEY | (header ? (uint32_t)SHB_FRAME_HEADER : 0);
    }
    ShbAccessUnit unit;
    ShbVideoReport report;
    gboolean parser_says_key = !GST_BUFFER_FLAG_IS_SET(buffer, GST_BUFFER_FLAG_DELTA_UNIT);
    self->video_reader->read(self->video_reader, map->data, map->size, parser_says_key, &self->hints, &unit, &report);
    if (unit.reported)
        *changed = describe_video(self, &report);
    else if (unit.new_sets && self->description.code[0] != '\0')
        describe(self, &self->description, shb_video_reader_codec_data(self->video_reader));
    /* Headers may have the time of the next picture, and count as no frame. */
    if (!unit.headers_only)
        *dts = make_dts(self, buffer);
    return flags | (unit.key ? (uint32_t)SHB_FRAME_KEY : 0) | (unit.headers_only ? (uint32_t)SHB_FRAME_HEADER : 0);
}

/* Writes how time stamps relate to the clock, when that has changed. */
static void relate_clock(GstShbSink *self) {
    GST_OBJECT_LOCK(self);
    GstClock *clock = GST_ELEMENT_CLOCK(self);
    GstClockTime base_time = (GstClockTime)GST_ELEMENT(self)->base_time;
    gboolean same = !self->new_segment && clock == self->clock && base_time == self->base_time;
    if (!same && clock != NULL)
        gst_object_ref(clock);
    GST_OBJECT_UNLOCK(self);
    if (same)
        return;
    gst_clear_object(&self->clock);
    self->clock = clock;
    self->base_time = base_time;
    self->new_segment = FALSE;
    gint64 offset = shb_clock_offset(clock, base_time, &GST_BASE_SINK(self)->segment);
    if (offset == self->clock_offset)
        return;
    self->clock_offset = offset;
    shb_writer_set_clock(self->writer, offset);
}

static GstFlowReturn write_frame(GstShbSink *self, GstBuffer *buffer) {
    if (!self->has_caps) {
        GST_ELEMENT_ERROR(self, CORE, NEGOTIATION, ("Data came without a description of its format."), (NULL));
        return GST_FLOW_NOT_NEGOTIATED;
    }
    GstMapInfo map;
    if (!gst_buffer_map(buffer, &map, GST_MAP_READ)) {
        GST_ELEMENT_ERROR(self, RESOURCE, READ, ("A frame could not be mapped."), (NULL));
        return GST_FLOW_ERROR;
    }
    gsize size = map.size;
    gboolean changed = FALSE;
    int result = SHB_ERR_ARG;
    if (size > 0) {
        GstClockTime dts;
        relate_clock(self);
        uint32_t flags = examine(self, buffer, &map, &dts, &changed);
        result =
            shb_writer_write(self->writer, map.data, size, GST_BUFFER_PTS(buffer), dts, GST_BUFFER_DURATION(buffer), flags);
        if (self->log_frames)
            GST_LOG_OBJECT(self, "%" G_GSIZE_FORMAT " bytes, pts %" GST_TIME_FORMAT ", flags %u: %s", size,
                           GST_TIME_ARGS(GST_BUFFER_PTS(buffer)), flags, shb_strerror(result));
    }
    gst_buffer_unmap(buffer, &map);
    if (size == 0)
        return GST_FLOW_OK;
    if (changed)
        emit_changed(self);
    if (result == SHB_ERR_TOO_BIG) {
        frame_too_big(self, size);
        return GST_FLOW_OK;
    }
    if (result != SHB_OK) {
        GST_ELEMENT_ERROR(self, RESOURCE, WRITE, ("A frame could not be written."), ("%s", shb_strerror(result)));
        return GST_FLOW_ERROR;
    }
    self->gap = FALSE;
    ShbRates rates;
    if (shb_rate_window_add(&self->window, g_get_monotonic_time(), size, &rates))
        emit_rates(self, &rates);
    return GST_FLOW_OK;
}

static GstFlowReturn render(GstBaseSink *sink, GstBuffer *buffer) {
    GstShbSink *self = GST_SHB_SINK(sink);
    take_over(self);
    GstFlowReturn result = write_frame(self, buffer);
    hand_over(self);
    return result;
}

/* ---- Class -------------------------------------------------------------------------------------------------------- */

static void gst_shb_sink_init(GstShbSink *self) {
    /* Nobody asks this sink for its last picture; holding the frame back would only cost memory. */
    gst_base_sink_set_last_sample_enabled(GST_BASE_SINK(self), FALSE);
    /*
     * Frames from before the segment are not to be shown, but the ones after them may be predicted from them.
     */
    gst_base_sink_set_drop_out_of_segment(GST_BASE_SINK(self), FALSE);
}

static void install_int(GObjectClass *class, guint id, const gchar *name, const gchar *blurb) {
    g_object_class_install_property(
        class, id,
        g_param_spec_int(name, name, blurb, G_MININT, G_MAXINT, 0, (GParamFlags)(G_PARAM_READWRITE | G_PARAM_STATIC_STRINGS)));
}

static void gst_shb_sink_class_init(GstShbSinkClass *class) {
    GObjectClass *object_class = G_OBJECT_CLASS(class);
    GstElementClass *element_class = GST_ELEMENT_CLASS(class);
    GstBaseSinkClass *sink_class = GST_BASE_SINK_CLASS(class);
    GST_DEBUG_CATEGORY_INIT(shbsink_debug, "shbsink", 0, "shared buffer sink");

    object_class->set_property = set_property;
    object_class->get_property = get_property;
    g_object_class_install_property(
        object_class, PROP_SHARE_BUFFER,
        g_param_spec_pointer("share-buffer", "share-buffer", "The host's shared buffer (shb_buffer_t *), kept open by the host",
                             (GParamFlags)(G_PARAM_READWRITE | G_PARAM_STATIC_STRINGS)));
    install_int(object_class, PROP_MEDIA, "media", "Media kind code: 48 H.264, 64 H.265, others audio, 0 audio by its caps");
    install_int(object_class, PROP_CHANNEL, "channel", "Channel of the shared buffer, from 0");
    install_int(object_class, PROP_STREAM, "stream", "Stream of the channel, from 0");
    install_int(object_class, PROP_DEBUG, "debug", "Above 0: every frame is logged in the category shbsink at level LOG");

    GType type = G_TYPE_FROM_CLASS(class);
    signals[SIGNAL_VIDEO_CHANGED] =
        g_signal_new("v-media-changed", type, G_SIGNAL_RUN_LAST, 0, NULL, NULL, NULL, G_TYPE_NONE, 9, G_TYPE_STRING,
                     G_TYPE_STRING, G_TYPE_STRING, G_TYPE_STRING, G_TYPE_INT, G_TYPE_INT, G_TYPE_INT, G_TYPE_INT, G_TYPE_INT);
    signals[SIGNAL_AUDIO_CHANGED] =
        g_signal_new("a-media-changed", type, G_SIGNAL_RUN_LAST, 0, NULL, NULL, NULL, G_TYPE_NONE, 7, G_TYPE_STRING, G_TYPE_INT,
                     G_TYPE_INT, G_TYPE_INT, G_TYPE_INT, G_TYPE_INT, G_TYPE_INT);
    signals[SIGNAL_REAL_BITRATE] =
        g_signal_new("media-real-bitrate", type, G_SIGNAL_RUN_LAST, 0, NULL, NULL, NULL, G_TYPE_NONE, 1, G_TYPE_UINT);
    signals[SIGNAL_REAL_FPS] =
        g_signal_new("media-real-fps", type, G_SIGNAL_RUN_LAST, 0, NULL, NULL, NULL, G_TYPE_NONE, 1, G_TYPE_UINT);

    gst_element_class_add_static_pad_template(element_class, &sink_template);
    gst_element_class_set_static_metadata(element_class, "Shared buffer sink", "Sink",
                                          "Writes an elementary stream into a shared buffer", "gst-source");
    sink_class->start = start;
    sink_class->stop = stop;
    sink_class->set_caps = set_caps;
    sink_class->event = event;
    sink_class->render = render;
}
