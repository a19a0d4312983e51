#include "src_track.h"

#include <string.h>

#include "stream_caps.h"

/* Between a frame's time and its arrival: more than any source runs ahead or lags. */
#define FARTHEST_NS ((int64_t)(600 * GST_SECOND))

gboolean shb_src_track_open(ShbSrcTrack *track, shb_kind_t kind, const gchar *name, guint channel, guint stream,
                            gboolean follow, gboolean newest) {
    *track = (ShbSrcTrack){
        .kind = kind, .channel = channel, .stream = stream, .follow = follow, .newest = newest, .offset = SHB_OFFSET_NONE};
    track->wants_key = track->wants_sets = track->wants_caps = TRUE;
    track->name = g_strdup(name);
    shb_follow_options_t options = SHB_INIT(shb_follow_options_t);
    options.channel = channel;
    options.stream = stream;
    options.kind = kind;
    options.start = newest && kind == SHB_VIDEO ? SHB_START_KEY : SHB_START_OLDEST;
    return shb_follow_open(name, &options, &track->reader) == SHB_OK;
}

void shb_src_track_close(ShbSrcTrack *track) {
    shb_follow_close(track->reader);
    track->reader = NULL;
    g_clear_pointer(&track->name, g_free);
    g_clear_pointer(&track->codec_data, g_bytes_unref);
    gst_clear_caps(&track->caps);
}

uint32_t shb_src_track_events(ShbSrcTrack *track) {
    uint32_t events = track->events;
    track->events = 0;
    return events;
}

/* ---- State of the source ------------------------------------------------------------------------------------------- */

static gboolean get_stats(ShbSrcTrack *track, shb_stats_t *stats) {
    shb_reader_t *reader = shb_follow_reader(track->reader);
    return reader != NULL &&
           shb_map_stats(shb_follow_map(track->reader), track->channel, track->stream, track->kind, stats) == SHB_OK;
}

gboolean shb_src_track_is_absent(ShbSrcTrack *track) {
    shb_stats_t stats = SHB_INIT(shb_stats_t);
    return get_stats(track, &stats) && stats.presence == SHB_PRESENCE_ABSENT;
}

gboolean shb_src_track_has_data(ShbSrcTrack *track) {
    shb_stats_t stats = SHB_INIT(shb_stats_t);
    return get_stats(track, &stats) && stats.total_frames > 0;
}

/* ---- Reading ------------------------------------------------------------------------------------------------------- */

/* What a call of shb_follow_read has said that is no frame. */
static ShbSrcResult take_result(ShbSrcTrack *track, int result, uint32_t events) {
    if (events & SHB_FOLLOW_ATTACHED) {
        /* Serials and epochs begin anew with each buffer. */
        track->wants_caps = TRUE;
        track->offset = SHB_OFFSET_NONE;
        track->offset_epoch = 0;
        track->epoch = 0;
    }
    if (events & SHB_FOLLOW_RESTARTED) {
        track->wants_key = TRUE;
        track->counts = FALSE;
    }
    if ((events & SHB_FOLLOW_GONE) && !track->follow)
        track->has_end = TRUE;
    if (track->has_end)
        return SHB_SRC_END;
    if (result == SHB_ERR_CORRUPT)
        return SHB_SRC_CORRUPT;
    if (result == SHB_ERR_ARG)
        return SHB_SRC_NO_SUCH;
    return SHB_SRC_NOTHING;
}

/* The size of the next frame, which stays where it is. */
static ShbSrcResult peek(ShbSrcTrack *track, gint timeout_ms, shb_frame_t *frame) {
    uint32_t events = 0;
    if (track->has_end)
        return SHB_SRC_END;
    int result = shb_follow_read(track->reader, NULL, 0, timeout_ms, frame, &events);
    /* With a frame, they come again. */
    if (result == SHB_ERR_TOO_BIG)
        return SHB_SRC_FRAME;
    track->events |= events;
    return take_result(track, result, events);
}

static gboolean is_gone(const ShbSrcTrack *track) {
    shb_map_t *map;
    int result = shb_attach(track->name, &map);
    if (result == SHB_OK)
        shb_detach(map);
    return result == SHB_ERR_NOT_FOUND;
}

ShbSrcResult shb_src_track_attach(ShbSrcTrack *track, gint timeout_ms) {
    shb_frame_t frame = SHB_INIT(shb_frame_t);
    if (shb_follow_reader(track->reader) != NULL)
        return SHB_SRC_FRAME;
    ShbSrcResult result = peek(track, timeout_ms, &frame);
    if (shb_follow_reader(track->reader) != NULL)
        return result == SHB_SRC_NOTHING ? SHB_SRC_FRAME : result;
    /* It was there when the element looked. */
    if (!track->follow && is_gone(track))
        track->has_end = TRUE;
    return track->has_end ? SHB_SRC_END : result;
}

void shb_src_track_seek(ShbSrcTrack *track, const ShbStartRule *rule) {
    shb_reader_seek(shb_follow_reader(track->reader), rule->where, rule->ns);
}

static void take_description(ShbSrcTrack *track, const shb_frame_t *frame, const guint8 *data, ShbSrcFrame *out) {
    shb_reader_t *reader = shb_follow_reader(track->reader);
    shb_description_t media = SHB_INIT(shb_description_t);
    if (!track->wants_caps && frame->description == track->serial && frame->epoch == track->caps_epoch)
        return;
    if (frame->description == 0 || shb_reader_description(reader, &media) != SHB_OK)
        return;
    guint8 codec_data[SHB_CODEC_DATA_MAX];
    size_t size = 0;
    if (shb_reader_codec_data(reader, codec_data, sizeof codec_data, &size) != SHB_OK)
        size = 0;
    track->wants_caps = FALSE;
    track->serial = frame->description;
    track->caps_epoch = frame->epoch;
    track->media = media;
    g_clear_pointer(&track->codec_data, g_bytes_unref);
    if (size > 0)
        track->codec_data = g_bytes_new(codec_data, size);
    GstCaps *caps = shb_stream_caps(track->kind, &media, track->codec_data, data, frame->size);
    if (caps == NULL)
        return;
    track->wants_sets = TRUE;
    if (track->caps != NULL && gst_caps_is_equal(caps, track->caps)) {
        gst_caps_unref(caps);
        return;
    }
    gst_caps_take(&track->caps, caps);
    out->new_caps = TRUE;
}

/* The time stamps' place on CLOCK_MONOTONIC. Without one, the first frame of the epoch is due when it came. */
static int64_t offset_of(ShbSrcTrack *track, const shb_frame_t *frame) {
    if (frame->clock_offset != SHB_OFFSET_NONE) {
        track->offset = frame->clock_offset;
        track->offset_epoch = frame->epoch;
        return frame->clock_offset;
    }
    if (track->offset != SHB_OFFSET_NONE && track->offset_epoch == frame->epoch)
        return track->offset;
    uint64_t time = frame->dts != SHB_TIME_NONE ? frame->dts : frame->pts;
    shb_stats_t stats = SHB_INIT(shb_stats_t);
    if (get_stats(track, &stats) && stats.epoch == frame->epoch && stats.clock_offset != SHB_OFFSET_NONE)
        track->offset = stats.clock_offset;
    else if (time != SHB_TIME_NONE)
        track->offset = (int64_t)(frame->arrival_ns - time);
    else
        return SHB_OFFSET_NONE;
    track->offset_epoch = frame->epoch;
    return track->offset;
}

/*
 * A time that is far from when its frame came is one that nobody knows: damage, or an encoder's slip, behind which
 * all later frames would have to stay.
 */
static GstClockTime place(uint64_t time, int64_t offset, uint64_t arrival) {
    int64_t placed;
    if (time > INT64_MAX || arrival > INT64_MAX || offset == SHB_OFFSET_NONE ||
        __builtin_add_overflow((int64_t)time, offset, &placed) || placed < 0)
        return GST_CLOCK_TIME_NONE;
    int64_t early = placed - (int64_t)arrival;
    return early > FARTHEST_NS || early < -FARTHEST_NS ? GST_CLOCK_TIME_NONE : (GstClockTime)placed;
}

/* False: the frame is passed over. */
static gboolean is_wanted(ShbSrcTrack *track, const shb_frame_t *frame) {
    gboolean key = (frame->flags & SHB_FRAME_KEY) != 0;
    if (track->kind == SHB_VIDEO) {
        if (frame->lost > 0 || (track->epoch != 0 && frame->epoch != track->epoch)) {
            track->wants_key = TRUE;
            track->counts = TRUE;
        }
        if (track->wants_key && !key)
            return FALSE;
        if (track->epoch != frame->epoch)
            track->wants_sets = TRUE;
    }
    /* Nothing can be made of a frame of which nobody knows what it is. */
    return track->caps != NULL || frame->description != 0;
}

/* In front of a key frame, for a stream that sends them only once, or whose reader begins later. */
static GstBuffer *with_parameter_sets(ShbSrcTrack *track, GstBuffer *buffer, const guint8 *data, gsize size) {
    track->wants_sets = FALSE;
    if (track->codec_data == NULL || shb_has_parameter_sets(&track->media, data, size))
        return buffer;
    GstBuffer *sets = gst_buffer_new_memdup(g_bytes_get_data(track->codec_data, NULL), g_bytes_get_size(track->codec_data));
    return gst_buffer_append(sets, buffer);
}

static void set_flags(GstBuffer *buffer, const shb_frame_t *frame, gboolean discont) {
    if ((frame->flags & SHB_FRAME_KEY) == 0)
        GST_BUFFER_FLAG_SET(buffer, GST_BUFFER_FLAG_DELTA_UNIT);
    if (frame->flags & SHB_FRAME_HEADER)
        GST_BUFFER_FLAG_SET(buffer, GST_BUFFER_FLAG_HEADER);
    if (discont)
        GST_BUFFER_FLAG_SET(buffer, GST_BUFFER_FLAG_DISCONT);
}

static gboolean take_frame(ShbSrcTrack *track, const shb_frame_t *frame, guint8 *data, ShbSrcFrame *out) {
    *out = (ShbSrcFrame){0};
    gboolean first_of_epoch = track->epoch != frame->epoch;
    gboolean wanted = is_wanted(track, frame);
    track->epoch = frame->epoch;
    track->left_out += frame->left_out;
    track->passed += frame->lost;
    if (!wanted) {
        track->passed += track->counts ? 1 : 0;
        return FALSE;
    }
    take_description(track, frame, data, out);
    if (track->caps == NULL)
        return FALSE;
    track->wants_key = FALSE;
    track->counts = FALSE;
    out->lost = track->passed;
    out->left_out = track->left_out;
    track->passed = track->left_out = 0;
    out->discont = first_of_epoch || out->lost > 0 || out->left_out > 0 || (frame->flags & SHB_FRAME_DISCONT) != 0;
    out->epoch = frame->epoch;
    out->sequence = frame->sequence;
    int64_t offset = offset_of(track, frame);
    out->pts = place(frame->pts, offset, frame->arrival_ns);
    out->dts = place(frame->dts, offset, frame->arrival_ns);
    out->duration = frame->duration == SHB_TIME_NONE ? GST_CLOCK_TIME_NONE : frame->duration;
    out->arrival = frame->arrival_ns;
    out->buffer = gst_buffer_new_wrapped(data, frame->size);
    if (track->kind == SHB_VIDEO && track->wants_sets && (frame->flags & SHB_FRAME_KEY))
        out->buffer = with_parameter_sets(track, out->buffer, data, frame->size);
    set_flags(out->buffer, frame, out->discont);
    return TRUE;
}

ShbSrcResult shb_src_track_read(ShbSrcTrack *track, gint timeout_ms, ShbSrcFrame *out) {
    shb_frame_t frame = SHB_INIT(shb_frame_t);
    ShbSrcResult found = peek(track, timeout_ms, &frame);
    if (found != SHB_SRC_FRAME)
        return found;
    uint32_t events = 0;
    gsize capacity = frame.size;
    guint8 *data = g_malloc(capacity);
    /* It may have been overwritten by now, and the next one may be larger: then it is looked at again. */
    int result = shb_follow_read(track->reader, data, capacity, 0, &frame, &events);
    if (result != SHB_ERR_TOO_BIG)
        track->events |= events;
    if (result != SHB_OK) {
        g_free(data);
        return result == SHB_ERR_TOO_BIG ? SHB_SRC_NOTHING : take_result(track, result, events);
    }
    take_result(track, SHB_OK, events);
    if (take_frame(track, &frame, data, out))
        return SHB_SRC_FRAME;
    g_free(data);
    return SHB_SRC_NOTHING;
}
