/*
 * What the files of the element shbsrc share: the element with its properties (gstshbsrc.c), its URI (src_uri.c),
 * and what the threads of its two tracks do (src_run.c).
 */
#ifndef GST_SHB_SRC_PRIVATE_H
#define GST_SHB_SRC_PRIVATE_H

#include <gst/base/gstflowcombiner.h>
#include <gst/gst.h>

#include "gstshbsrc.h"
#include "shb.h"
#include "src_track.h"
#include "start_rule.h"

G_BEGIN_DECLS

GST_DEBUG_CATEGORY_EXTERN(shb_src_debug);

#define SHB_SRC_DEFAULT_START "key"

enum { VIDEO = SHB_VIDEO, AUDIO = SHB_AUDIO, TRACKS };

typedef enum { PHASE_ATTACH, PHASE_SEEK, PHASE_FIRST, PHASE_GATE, PHASE_RUN, PHASE_DONE } Phase;

typedef enum {
    UNRESOLVED,
    RESOLVED_FRAME, /* its first frame is at hand */
    RESOLVED_NONE   /* it will not come, or is not waited for any longer */
} Resolution;

typedef struct {
    GstShbSrc *src;
    shb_kind_t kind;
    GstTask *task;
    GRecMutex task_lock;

    /* Of the task's thread; of the state changing one while there is no task. */
    ShbSrcTrack track;
    Phase phase;
    ShbSrcFrame held; /* a frame on its way out */
    gboolean new_caps;
    GstClockTime last_dts, last_pts;
    gint64 buffers;
    GstBufferList *batch;

    /* Under the source's lock. */
    Resolution resolution;
    GstClockTime resolved_at; /* monotonic time */
    GstClockTime first_time;  /* on CLOCK_MONOTONIC, of the first frame; not shifted */
    gint64 lag;               /* how much later than due that frame came */
    GstPad *pad;
    GstClockTime position; /* end of what was pushed */
    guint64 frames, bytes, lost, left_out;
} Track;

struct _GstShbSrc {
    GstElement parent;

    /* Properties, under the object lock. */
    gchar *buffer;
    gint channel, stream;
    gchar *start;
    gboolean follow, catch_up;
    guint interval_ms, latency_ms;
    gint num_buffers;

    /* As they were when the element went to PAUSED. */
    ShbStartRule rule;
    guint interval_in_force;
    gint num_buffers_in_force;
    gboolean catch_up_in_force;

    GMutex lock;
    GCond changed;
    gboolean playing, stopping, ending;
    gboolean opening, open; /* the pads are being added; have been */
    gint64 shift;           /* all time stamps, so that frames are due when they came */
    GstSegment segment;
    guint group;
    GstFlowCombiner *flows;
    gboolean failed;
    Track tracks[TRACKS];
};

extern GstStaticPadTemplate shb_src_video_template;
extern GstStaticPadTemplate shb_src_audio_template;

/* Of the lists of properties, pads and messages. */
const gchar *shb_src_kind_name(shb_kind_t kind);

/* As it is before a run. */
void shb_src_begin_track(Track *track);
/* Opens the tracks and starts their threads, which wait for `playing`. False: the error has been posted. */
gboolean shb_src_begin(GstShbSrc *self);
/* Ends the threads and takes the pads away. `stopping` must have been set. */
void shb_src_end(GstShbSrc *self);
/* One of `playing`, `stopping` and `ending`. */
void shb_src_set_flag(GstShbSrc *self, gboolean *flag, gboolean value);
/* Answers for the pads and the element; null for the element. */
gboolean shb_src_query(GstPad *pad, GstObject *parent, GstQuery *query);

void shb_src_uri_handler_init(gpointer interface, gpointer data);

G_END_DECLS

#endif /* GST_SHB_SRC_PRIVATE_H */
