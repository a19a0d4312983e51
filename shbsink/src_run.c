/*
 * The threads of the two tracks: waiting for the buffer, the first frames, the pads, and then frame after frame.
 *
 * Each track is read by a thread of its own, which also pushes: a muxer that waits for one of them must not stop
 * the other. Before anything is pushed, both tracks are known or one is known not to come, so that whoever links
 * the pads (a muxer, decodebin) finds them all.
 */
#include <errno.h>

#include "gstshbsrc_private.h"

#define GST_CAT_DEFAULT shb_src_debug

/* Longest sleep of a reading thread, and with it of a stop. */
#define TICK_MS 100
/* How long a source that does not say what streams it has is given to bring the second one. */
#define SECOND_TRACK_NS (5 * GST_SECOND)
/* How long when that one flows, but without a frame to begin with: a key frame is to come. */
#define FIRST_KEY_NS (30 * GST_SECOND)
/* A track that is silent while the other goes on says so, or a muxer waits for it. */
#define GAP_AFTER_NS (GST_SECOND)
#define GAP_MARGIN_NS (GST_SECOND / 2)
/*
 * Least rise of the times: more than two ticks of 90 kHz, so that they differ in a transport stream as well.
 * mpegtsmux rounds towards the start of the segment, from both sides.
 */
#define STEP_NS (GST_SECOND / 45000 + 1)
#define MAX_BATCH 512

const gchar *shb_src_kind_name(shb_kind_t kind) {
    return kind == SHB_VIDEO ? "video" : "audio";
}

static Track *other_track(Track *track) {
    return &track->src->tracks[track->kind == SHB_VIDEO ? AUDIO : VIDEO];
}

static GstClockTime monotonic_now(void) {
    return (GstClockTime)g_get_monotonic_time() * GST_USECOND;
}

/* ---- Messages ----------------------------------------------------------------------------------------------------- */

static void post(Track *track, GstStructure *structure) {
    gst_structure_set(structure, "kind", G_TYPE_STRING, shb_src_kind_name(track->kind), NULL);
    gst_element_post_message(GST_ELEMENT(track->src), gst_message_new_element(GST_OBJECT(track->src), structure));
}

static void post_events(Track *track) {
    static const struct {
        uint32_t event;
        const gchar *name;
    } names[] = {
        {SHB_FOLLOW_GONE, "shbsrc-gone"}, {SHB_FOLLOW_RESTARTED, "shbsrc-restarted"}, {SHB_FOLLOW_EPOCH, "shbsrc-epoch"}};
    uint32_t events = shb_src_track_events(&track->track);
    for (guint i = 0; i < G_N_ELEMENTS(names); i++)
        if (events & names[i].event)
            post(track, gst_structure_new_empty(names[i].name));
}

static void post_loss(Track *track, const ShbSrcFrame *frame) {
    if (frame->lost == 0 && frame->left_out == 0)
        return;
    GST_WARNING_OBJECT(track->src, "%s: %" G_GUINT64_FORMAT " frames lost, %" G_GUINT64_FORMAT " left out",
                       shb_src_kind_name(track->kind), frame->lost, frame->left_out);
    post(track, gst_structure_new("shbsrc-lost", "lost", G_TYPE_UINT64, frame->lost, "left-out", G_TYPE_UINT64, frame->left_out,
                                  "epoch", G_TYPE_UINT64, frame->epoch, "sequence", G_TYPE_UINT64, frame->sequence, NULL));
}

/* Once a run: both threads find what ends it. */
static gboolean fails_first(GstShbSrc *self) {
    g_mutex_lock(&self->lock);
    gboolean first = !self->failed && !self->stopping;
    self->failed = TRUE;
    g_mutex_unlock(&self->lock);
    return first;
}

/* What a reading thread cannot get over: a damaged buffer, or one of the same name that is made otherwise. */
static gboolean ends_track(Track *track, ShbSrcResult result) {
    GstShbSrc *self = track->src;
    const gchar *name = track->track.name;
    switch (result) {
        case SHB_SRC_END:
            break;
        case SHB_SRC_CORRUPT:
            if (fails_first(self))
                GST_ELEMENT_ERROR(self, RESOURCE, READ, ("The shared buffer \"%s\" is damaged.", name), (NULL));
            break;
        case SHB_SRC_NO_SUCH:
            if (fails_first(self))
                GST_ELEMENT_ERROR(self, RESOURCE, SETTINGS, ("The shared buffer \"%s\" has no such track.", name),
                                  ("channel %u, stream %u", track->track.channel, track->track.stream));
            break;
        default:
            return FALSE;
    }
    track->phase = PHASE_DONE;
    return TRUE;
}

/* ---- Pads --------------------------------------------------------------------------------------------------------- */

gboolean shb_src_query(GstPad *pad, GstObject *parent, GstQuery *query) {
    GstShbSrc *self = GST_SHB_SRC(parent);
    switch (GST_QUERY_TYPE(query)) {
        case GST_QUERY_LATENCY: {
            GST_OBJECT_LOCK(self);
            GstClockTime latency = ((GstClockTime)self->latency_ms + self->interval_ms) * GST_MSECOND;
            GST_OBJECT_UNLOCK(self);
            gst_query_set_latency(query, TRUE, latency, GST_CLOCK_TIME_NONE);
            return TRUE;
        }
        case GST_QUERY_URI: {
            gchar *uri = gst_uri_handler_get_uri(GST_URI_HANDLER(self));
            gst_query_set_uri(query, uri);
            g_free(uri);
            return TRUE;
        }
        case GST_QUERY_SEEKING: {
            GstFormat format;
            gst_query_parse_seeking(query, &format, NULL, NULL, NULL);
            gst_query_set_seeking(query, format, FALSE, 0, -1);
            return TRUE;
        }
        default:
            return gst_pad_query_default(pad, parent, query);
    }
}

static gboolean pad_event(GstPad *pad, GstObject *parent, GstEvent *event) {
    if (GST_EVENT_TYPE(event) != GST_EVENT_SEEK)
        return gst_pad_event_default(pad, parent, event);
    gst_event_unref(event);
    return FALSE;
}

/* With the events that come before the first buffer, so that whoever links it knows what it carries. */
static void add_pad(Track *track) {
    GstShbSrc *self = track->src;
    const gchar *name = shb_src_kind_name(track->kind);
    GstPad *pad =
        gst_pad_new_from_static_template(track->kind == SHB_VIDEO ? &shb_src_video_template : &shb_src_audio_template, name);
    gst_pad_set_query_function(pad, shb_src_query);
    gst_pad_set_event_function(pad, pad_event);
    gst_pad_use_fixed_caps(pad);
    gst_pad_set_active(pad, TRUE);

    gchar *id = gst_pad_create_stream_id(pad, GST_ELEMENT(self), name);
    GstEvent *stream_start = gst_event_new_stream_start(id);
    g_free(id);
    gst_event_set_group_id(stream_start, self->group);
    gst_pad_push_event(pad, stream_start);
    gst_pad_push_event(pad, gst_event_new_caps(track->track.caps));
    gst_pad_push_event(pad, gst_event_new_segment(&self->segment));
    track->new_caps = FALSE;

    g_mutex_lock(&self->lock);
    track->pad = gst_object_ref(pad);
    gst_flow_combiner_add_pad(self->flows, pad);
    g_mutex_unlock(&self->lock);
    gst_element_add_pad(GST_ELEMENT(self), pad);
}

static void remove_pad(Track *track) {
    if (track->pad == NULL)
        return;
    gst_flow_combiner_remove_pad(track->src->flows, track->pad);
    gst_pad_set_active(track->pad, FALSE);
    gst_element_remove_pad(GST_ELEMENT(track->src), track->pad);
    gst_clear_object(&track->pad);
}

/* ---- Time --------------------------------------------------------------------------------------------------------- */

static GstClockTime running_time_now(GstShbSrc *self) {
    GstClock *clock = gst_element_get_clock(GST_ELEMENT(self));
    if (clock == NULL)
        return 0;
    GstClockTime now = gst_clock_get_time(clock);
    GstClockTime base = gst_element_get_base_time(GST_ELEMENT(self));
    gst_object_unref(clock);
    return now > base ? now - base : 0;
}

static GstClockTime shifted(const GstShbSrc *self, GstClockTime time) {
    if (!GST_CLOCK_TIME_IS_VALID(time) || (self->shift < 0 && time < (GstClockTime)-self->shift))
        return time;
    return time + (GstClockTime)self->shift;
}

/*
 * One shift and one segment for both tracks: the first frame is due now, and no frame of the two is due before
 * it came. With the lock held.
 */
static void set_time(GstShbSrc *self) {
    GstClockTime running_time = running_time_now(self);
    gboolean any = FALSE;
    self->shift = 0;
    for (guint i = 0; i < TRACKS; i++) {
        const Track *track = &self->tracks[i];
        if (track->resolution != RESOLVED_FRAME)
            continue;
        self->shift = any ? MAX(self->shift, track->lag) : track->lag;
        any = TRUE;
    }
    const Track *first = &self->tracks[self->tracks[VIDEO].resolution == RESOLVED_FRAME ? VIDEO : AUDIO];
    gst_segment_init(&self->segment, GST_FORMAT_TIME);
    self->segment.start = self->catch_up_in_force ? monotonic_now() : shifted(self, first->first_time);
    self->segment.time = 0;
    self->segment.base = running_time;
    self->segment.position = self->segment.start;
}

/* A decoder takes frames in order: decoding times rise, whatever restarts and unknown times there are. */
static void set_times(Track *track, ShbSrcFrame *frame) {
    GstShbSrc *self = track->src;
    GstClockTime pts = shifted(self, GST_CLOCK_TIME_IS_VALID(frame->pts) ? frame->pts : frame->dts);
    GstClockTime dts = shifted(self, frame->dts);
    if (!GST_CLOCK_TIME_IS_VALID(pts))
        pts = frame->arrival;
    if (track->kind == SHB_VIDEO) {
        if (!GST_CLOCK_TIME_IS_VALID(dts))
            dts = MIN(pts, frame->arrival);
        if (GST_CLOCK_TIME_IS_VALID(track->last_dts))
            dts = MAX(dts, track->last_dts + STEP_NS);
        pts = MAX(pts, dts);
        track->last_dts = dts;
    } else {
        if (GST_CLOCK_TIME_IS_VALID(track->last_pts))
            pts = MAX(pts, track->last_pts + STEP_NS);
        dts = pts;
    }
    track->last_pts = pts;
    GST_BUFFER_PTS(frame->buffer) = pts;
    GST_BUFFER_DTS(frame->buffer) = dts;
    GST_BUFFER_DURATION(frame->buffer) = frame->duration;
}

/* ---- The first frames --------------------------------------------------------------------------------------------- */

static void resolve(Track *track, Resolution resolution) {
    GstShbSrc *self = track->src;
    g_mutex_lock(&self->lock);
    track->resolution = resolution;
    track->resolved_at = monotonic_now();
    if (resolution == RESOLVED_FRAME) {
        const ShbSrcFrame *frame = &track->held;
        GstClockTime due = GST_CLOCK_TIME_IS_VALID(frame->dts) ? frame->dts : frame->pts;
        track->lag = GST_CLOCK_TIME_IS_VALID(due) ? GST_CLOCK_DIFF(due, frame->arrival) : 0;
        track->first_time = GST_CLOCK_TIME_IS_VALID(frame->pts) ? frame->pts : frame->arrival;
    }
    g_cond_broadcast(&self->changed);
    g_mutex_unlock(&self->lock);
}

static Resolution resolution_of(Track *track) {
    g_mutex_lock(&track->src->lock);
    Resolution resolution = track->resolution;
    g_mutex_unlock(&track->src->lock);
    return resolution;
}

/* Sleeps until something changes, at most `ms`. False when the run is over. */
static gboolean doze(GstShbSrc *self, guint ms) {
    gint64 until = g_get_monotonic_time() + (gint64)ms * G_TIME_SPAN_MILLISECOND;
    g_mutex_lock(&self->lock);
    if (!self->stopping && !self->ending)
        g_cond_wait_until(&self->changed, &self->lock, until);
    gboolean goes_on = !self->stopping && !self->ending;
    g_mutex_unlock(&self->lock);
    return goes_on;
}

static gboolean get_stats(const Track *track, shb_kind_t kind, shb_stats_t *stats) {
    shb_map_t *map = shb_follow_map(track->track.reader);
    return map != NULL && shb_map_stats(map, track->track.channel, track->track.stream, kind, stats) == SHB_OK;
}

/* For how long the source has brought this track already, by its rate of frames: 0 when that is not known yet. */
static GstClockTime flowed(const Track *track) {
    shb_stats_t stats = SHB_INIT(shb_stats_t);
    if (!get_stats(track, track->kind, &stats) || stats.fps_milli == 0)
        return 0;
    return gst_util_uint64_scale(stats.frames, 1000 * GST_SECOND, stats.fps_milli);
}

/* Whether the other track is not to be waited for, by one that could go on since `since`. */
static gboolean is_without_other(Track *track, GstClockTime since) {
    Track *other = other_track(track);
    if (resolution_of(other) != UNRESOLVED)
        return TRUE;
    /* Both look at the same mapping; each has its own reader of it. */
    shb_stats_t stats = SHB_INIT(shb_stats_t);
    if (!get_stats(track, other->kind, &stats))
        return FALSE;
    if (stats.presence == SHB_PRESENCE_ABSENT)
        return TRUE;
    GstClockTime waited = monotonic_now() - since;
    return stats.total_frames > 0 ? waited > FIRST_KEY_NS : MAX(waited, flowed(track)) > SECOND_TRACK_NS;
}

static void step_attach(Track *track) {
    ShbSrcResult result = shb_src_track_attach(&track->track, TICK_MS);
    if (ends_track(track, result) || result != SHB_SRC_FRAME)
        return;
    track->resolved_at = monotonic_now();
    track->phase = PHASE_SEEK;
}

/* Sound begins with the first picture, so it waits until that one is known. */
static void step_seek(Track *track) {
    GstShbSrc *self = track->src;
    ShbStartRule rule = self->rule;
    if (track->kind == SHB_AUDIO) {
        if (!is_without_other(track, track->resolved_at)) {
            doze(self, TICK_MS);
            return;
        }
        if (resolution_of(other_track(track)) == RESOLVED_FRAME)
            rule.where = SHB_SEEK_OLDEST;
    }
    shb_src_track_seek(&track->track, &rule);
    track->phase = PHASE_FIRST;
}

static gboolean is_before_picture(Track *track, const ShbSrcFrame *frame) {
    Track *video = other_track(track);
    if (track->kind != SHB_AUDIO || resolution_of(video) != RESOLVED_FRAME || !GST_CLOCK_TIME_IS_VALID(frame->pts))
        return FALSE;
    return frame->pts < video->first_time;
}

static void step_first(Track *track) {
    ShbSrcFrame frame;
    ShbSrcResult result = shb_src_track_read(&track->track, TICK_MS, &frame);
    if (ends_track(track, result) || result != SHB_SRC_FRAME)
        return;
    track->new_caps |= frame.new_caps;
    if (is_before_picture(track, &frame)) {
        gst_buffer_unref(frame.buffer);
        return;
    }
    /* What a start passes over is not lost. */
    frame.lost = frame.left_out = 0;
    track->held = frame;
    resolve(track, RESOLVED_FRAME);
    track->phase = PHASE_GATE;
}

static void open_gate(GstShbSrc *self) {
    for (guint i = 0; i < TRACKS; i++)
        if (resolution_of(&self->tracks[i]) == RESOLVED_FRAME)
            add_pad(&self->tracks[i]);
    gst_element_no_more_pads(GST_ELEMENT(self));
    gst_element_post_message(GST_ELEMENT(self), gst_message_new_latency(GST_OBJECT(self)));
    g_mutex_lock(&self->lock);
    self->open = TRUE;
    g_cond_broadcast(&self->changed);
    g_mutex_unlock(&self->lock);
}

static void step_gate(Track *track) {
    GstShbSrc *self = track->src;
    gboolean alone = is_without_other(track, track->resolved_at);
    g_mutex_lock(&self->lock);
    gboolean is_open = self->open;
    gboolean opens = !self->opening && alone && !self->stopping;
    if (opens) {
        self->opening = TRUE;
        set_time(self);
    }
    /* One that resolves while the pads are being added comes after them. */
    gboolean late = is_open && track->pad == NULL;
    g_mutex_unlock(&self->lock);
    if (opens)
        open_gate(self);
    else if (late)
        add_pad(track);
    else if (!is_open)
        doze(self, TICK_MS);
    if (opens || is_open)
        track->phase = PHASE_RUN;
}

/* ---- Frames ------------------------------------------------------------------------------------------------------- */

/* What a push has come to. False: this track is done. */
static gboolean take_flow(Track *track, GstFlowReturn flow) {
    GstShbSrc *self = track->src;
    g_mutex_lock(&self->lock);
    GstFlowReturn combined = gst_flow_combiner_update_pad_flow(self->flows, track->pad, flow);
    g_mutex_unlock(&self->lock);
    if (flow == GST_FLOW_EOS || flow == GST_FLOW_FLUSHING)
        return FALSE;
    if (combined == GST_FLOW_OK || combined == GST_FLOW_EOS || combined == GST_FLOW_FLUSHING)
        return TRUE;
    if (fails_first(self))
        GST_ELEMENT_FLOW_ERROR(self, combined);
    return FALSE;
}

static gboolean push_batch(Track *track) {
    GstBufferList *batch = track->batch;
    if (batch == NULL)
        return TRUE;
    track->batch = NULL;
    if (gst_buffer_list_length(batch) > 1)
        return take_flow(track, gst_pad_push_list(track->pad, batch));
    GstBuffer *only = gst_buffer_ref(gst_buffer_list_get(batch, 0));
    gst_buffer_list_unref(batch);
    return take_flow(track, gst_pad_push(track->pad, only));
}

static void count(Track *track, const ShbSrcFrame *frame) {
    GstShbSrc *self = track->src;
    GstClockTime end = GST_BUFFER_PTS(frame->buffer);
    if (GST_CLOCK_TIME_IS_VALID(frame->duration))
        end += frame->duration;
    g_mutex_lock(&self->lock);
    track->frames++;
    track->bytes += gst_buffer_get_size(frame->buffer);
    track->lost += frame->lost;
    track->left_out += frame->left_out;
    if (!GST_CLOCK_TIME_IS_VALID(track->position) || end > track->position)
        track->position = end;
    g_mutex_unlock(&self->lock);
}

/* Takes the frame's buffer. */
static gboolean hand_on(Track *track, ShbSrcFrame *frame) {
    GstShbSrc *self = track->src;
    if (frame->new_caps || track->new_caps) {
        track->new_caps = FALSE;
        if (!push_batch(track)) {
            gst_buffer_unref(frame->buffer);
            return FALSE;
        }
        gst_pad_push_event(track->pad, gst_event_new_caps(track->track.caps));
    }
    post_loss(track, frame);
    set_times(track, frame);
    count(track, frame);
    if (track->batch == NULL)
        track->batch = gst_buffer_list_new();
    gst_buffer_list_add(track->batch, frame->buffer);
    frame->buffer = NULL;
    if (self->num_buffers_in_force >= 0 && ++track->buffers >= self->num_buffers_in_force) {
        push_batch(track);
        return FALSE;
    }
    return self->interval_in_force > 0 || push_batch(track);
}

/* Says how far there is nothing, when the other track is further. */
static void push_gap(Track *track) {
    GstShbSrc *self = track->src;
    g_mutex_lock(&self->lock);
    GstClockTime mine = track->position;
    GstClockTime others = other_track(track)->position;
    GstClockTime from = mine, until = 0;
    if (GST_CLOCK_TIME_IS_VALID(mine) && GST_CLOCK_TIME_IS_VALID(others) && others > mine + GAP_AFTER_NS + GAP_MARGIN_NS) {
        until = others - GAP_MARGIN_NS;
        track->position = until;
    }
    g_mutex_unlock(&self->lock);
    if (until > 0)
        gst_pad_push_event(track->pad, gst_event_new_gap(from, until - from));
}

static void step_run(Track *track) {
    GstShbSrc *self = track->src;
    ShbSrcFrame frame;
    if (track->held.buffer != NULL) {
        frame = track->held;
        track->held.buffer = NULL;
        if (!hand_on(track, &frame))
            track->phase = PHASE_DONE;
        return;
    }
    gint wait = TICK_MS;
    for (guint i = 0; i < MAX_BATCH && track->phase == PHASE_RUN; i++) {
        ShbSrcResult result = shb_src_track_read(&track->track, wait, &frame);
        post_events(track);
        if (result == SHB_SRC_FRAME) {
            if (!hand_on(track, &frame))
                track->phase = PHASE_DONE;
            if (self->interval_in_force == 0)
                return;
            wait = 0;
            continue;
        }
        gboolean takes = push_batch(track);
        if (ends_track(track, result) || !takes)
            track->phase = PHASE_DONE;
        else if (wait == 0)
            doze(self, self->interval_in_force);
        else
            push_gap(track);
        return;
    }
    if (!push_batch(track))
        track->phase = PHASE_DONE;
}

/* ---- The thread of a track ---------------------------------------------------------------------------------------- */

/* The last words of a track. */
static void end_track(Track *track) {
    GstShbSrc *self = track->src;
    post_events(track);
    gst_clear_buffer(&track->held.buffer);
    g_clear_pointer(&track->batch, gst_buffer_list_unref);
    g_mutex_lock(&self->lock);
    gboolean has_pad = track->pad != NULL;
    gboolean over = !self->stopping;
    g_mutex_unlock(&self->lock);
    if (has_pad && over)
        gst_pad_push_event(track->pad, gst_event_new_eos());
    resolve(track, has_pad ? RESOLVED_FRAME : RESOLVED_NONE);
    /* Without a pad there is nothing that could carry the end. */
    g_mutex_lock(&self->lock);
    gboolean nothing = over && !self->open && !self->opening && self->tracks[VIDEO].resolution == RESOLVED_NONE &&
                       self->tracks[AUDIO].resolution == RESOLVED_NONE;
    g_mutex_unlock(&self->lock);
    if (nothing && fails_first(self))
        GST_ELEMENT_ERROR(self, RESOURCE, READ, ("No frame came from the shared buffer before the end."), (NULL));
    gst_task_stop(track->task);
}

static gboolean await_playing(GstShbSrc *self, gboolean *ending) {
    g_mutex_lock(&self->lock);
    while (!self->playing && !self->stopping && !self->ending)
        g_cond_wait(&self->changed, &self->lock);
    gboolean goes_on = !self->stopping;
    *ending = self->ending;
    g_mutex_unlock(&self->lock);
    return goes_on;
}

static void run(gpointer data) {
    Track *track = data;
    gboolean ending;
    if (!await_playing(track->src, &ending)) {
        gst_task_stop(track->task);
        return;
    }
    if (ending) {
        if (track->phase == PHASE_RUN)
            push_batch(track);
        track->phase = PHASE_DONE;
    }
    switch (track->phase) {
        case PHASE_ATTACH:
            step_attach(track);
            break;
        case PHASE_SEEK:
            step_seek(track);
            break;
        case PHASE_FIRST:
            step_first(track);
            break;
        case PHASE_GATE:
            step_gate(track);
            break;
        case PHASE_RUN:
            step_run(track);
            break;
        case PHASE_DONE:
            end_track(track);
            break;
    }
}

/* ---- Begin and end -------------------------------------------------------------------------------------------------------- */

/* Looks at the buffer once, so that what is wrong is said at once and by name. */
static gboolean is_readable(GstShbSrc *self, const gchar *name, gint channel, gint stream, gboolean follow) {
    shb_map_t *map;
    int result = shb_attach(name, &map);
    int reason = errno;
    if (result == SHB_ERR_NOT_FOUND && follow)
        return TRUE;
    switch (result) {
        case SHB_OK:
            break;
        case SHB_ERR_ARG:
            GST_ELEMENT_ERROR(self, RESOURCE, SETTINGS, ("\"%s\" cannot be the name of a shared buffer.", name), (NULL));
            return FALSE;
        case SHB_ERR_NOT_FOUND:
            GST_ELEMENT_ERROR(self, RESOURCE, NOT_FOUND, ("There is no shared buffer \"%s\".", name),
                              ("gst-source-read list shows those of this machine; follow=true waits for it"));
            return FALSE;
        default:
            GST_ELEMENT_ERROR(self, RESOURCE, OPEN_READ, ("The shared buffer \"%s\" cannot be read.", name),
                              ("%s%s%s", shb_strerror(result), result == SHB_ERR_SYSTEM ? ": " : "",
                               result == SHB_ERR_SYSTEM ? g_strerror(reason) : ""));
            return FALSE;
    }
    shb_geometry_t geometry = SHB_INIT(shb_geometry_t);
    result = shb_map_geometry(map, &geometry);
    shb_detach(map);
    if (result != SHB_OK) {
        GST_ELEMENT_ERROR(self, RESOURCE, OPEN_READ, ("The shared buffer \"%s\" cannot be read.", name),
                          ("%s", shb_strerror(result)));
        return FALSE;
    }
    if ((guint)channel >= geometry.channels || (guint)stream >= geometry.streams) {
        GST_ELEMENT_ERROR(self, RESOURCE, SETTINGS, ("The shared buffer \"%s\" has no such track.", name),
                          ("channel %d, stream %d; the buffer has %u channels of %u streams", channel, stream,
                           geometry.channels, geometry.streams));
        return FALSE;
    }
    return TRUE;
}

static void close_tracks(GstShbSrc *self) {
    for (guint i = 0; i < TRACKS; i++) {
        Track *track = &self->tracks[i];
        shb_src_track_close(&track->track);
        gst_clear_buffer(&track->held.buffer);
        g_clear_pointer(&track->batch, gst_buffer_list_unref);
    }
}

void shb_src_begin_track(Track *track) {
    track->phase = PHASE_ATTACH;
    track->held = (ShbSrcFrame){0};
    track->new_caps = FALSE;
    track->last_dts = track->last_pts = track->position = GST_CLOCK_TIME_NONE;
    track->buffers = 0;
    track->resolution = UNRESOLVED;
    track->frames = track->bytes = track->lost = track->left_out = 0;
}

static gboolean open_tracks(GstShbSrc *self) {
    GST_OBJECT_LOCK(self);
    gchar *name = g_strdup(self->buffer);
    gchar *start = g_strdup(self->start);
    gint channel = self->channel, stream = self->stream;
    gboolean follow = self->follow;
    self->interval_in_force = self->interval_ms;
    self->num_buffers_in_force = self->num_buffers;
    self->catch_up_in_force = self->catch_up;
    GST_OBJECT_UNLOCK(self);
    gboolean opened = FALSE;
    if (name == NULL || name[0] == '\0')
        GST_ELEMENT_ERROR(self, RESOURCE, SETTINGS, ("No shared buffer was named."), ("\"buffer\" is not set"));
    else if (!shb_start_rule_parse(start, &self->rule))
        GST_ELEMENT_ERROR(self, RESOURCE, SETTINGS, ("start=\"%s\" is not a place to start.", start != NULL ? start : ""),
                          ("newest, key, oldest, or how far back, such as -10s"));
    else if (is_readable(self, name, channel, stream, follow)) {
        opened = TRUE;
        for (guint i = 0; i < TRACKS; i++) {
            shb_src_begin_track(&self->tracks[i]);
            opened &= shb_src_track_open(&self->tracks[i].track, (shb_kind_t)i, name, (guint)channel, (guint)stream, follow,
                                         self->catch_up_in_force);
        }
        if (!opened) {
            close_tracks(self);
            GST_ELEMENT_ERROR(self, RESOURCE, OPEN_READ, ("The shared buffer \"%s\" cannot be read.", name), (NULL));
        }
    }
    g_free(name);
    g_free(start);
    return opened;
}

gboolean shb_src_begin(GstShbSrc *self) {
    if (!open_tracks(self))
        return FALSE;
    g_mutex_lock(&self->lock);
    self->playing = self->stopping = self->ending = self->opening = self->open = self->failed = FALSE;
    gst_flow_combiner_reset(self->flows);
    g_mutex_unlock(&self->lock);
    self->group = gst_util_group_id_next();
    for (guint i = 0; i < TRACKS; i++) {
        Track *track = &self->tracks[i];
        track->task = gst_task_new(run, track, NULL);
        gst_task_set_lock(track->task, &track->task_lock);
        gchar *name = g_strdup_printf("%s:%s", GST_OBJECT_NAME(self), shb_src_kind_name(track->kind));
        gst_object_set_name(GST_OBJECT(track->task), name);
        g_free(name);
        gst_task_start(track->task);
    }
    return TRUE;
}

void shb_src_set_flag(GstShbSrc *self, gboolean *flag, gboolean value) {
    g_mutex_lock(&self->lock);
    *flag = value;
    g_cond_broadcast(&self->changed);
    g_mutex_unlock(&self->lock);
}

void shb_src_end(GstShbSrc *self) {
    for (guint i = 0; i < TRACKS; i++) {
        Track *track = &self->tracks[i];
        if (track->task == NULL)
            continue;
        gst_task_stop(track->task);
        gst_task_join(track->task);
        gst_clear_object(&track->task);
    }
    for (guint i = 0; i < TRACKS; i++)
        remove_pad(&self->tracks[i]);
    close_tracks(self);
}
