/*
 * One track of a shared buffer as the element `shbsrc` reads it: frames with the caps that they have, through
 * restarts of the source and of its host.
 */
#ifndef SHB_SRC_TRACK_H
#define SHB_SRC_TRACK_H

#include <gst/gst.h>

#include "shb.h"
#include "start_rule.h"

G_BEGIN_DECLS

typedef struct {
    gchar *name;
    shb_kind_t kind;
    guint channel, stream;
    gboolean follow;  /* wait for a host that has gone */
    gboolean newest;  /* after a loss go on at the newest key frame, which is what a viewer wants */
    gboolean has_end; /* the host has gone, and is not waited for */
    shb_follow_t *reader;
    uint32_t events;     /* SHB_FOLLOW_, not yet given out */
    gboolean wants_key;  /* video: what comes before the next key frame cannot be decoded */
    gboolean counts;     /* frames that are passed over until then count as lost */
    gboolean wants_sets; /* video: the next key frame needs its parameter sets */
    gboolean wants_caps; /* the description in use is one of an earlier buffer */
    uint64_t epoch;      /* of the last frame */
    uint32_t serial;     /* of the description that `caps` were made from */
    uint64_t caps_epoch; /* and its epoch */
    shb_description_t media;
    GBytes *codec_data;
    GstCaps *caps;     /* of the last frame given out; null: none yet */
    uint64_t passed;   /* frames passed over and not yet reported */
    uint64_t left_out; /* likewise */
    int64_t offset;    /* of this epoch, where frames have none: what is added to their time stamps */
    uint64_t offset_epoch;
} ShbSrcTrack;

/* One frame on its way out. Its times are those of CLOCK_MONOTONIC, GST_CLOCK_TIME_NONE when not known. */
typedef struct {
    GstBuffer *buffer; /* without times; owned by the receiver */
    gboolean new_caps; /* track->caps are others than before */
    gboolean discont;
    uint64_t lost; /* right before it, those that could not have been decoded included */
    uint64_t left_out;
    uint64_t epoch, sequence;
    GstClockTime pts, dts, duration;
    GstClockTime arrival;
} ShbSrcFrame;

typedef enum {
    SHB_SRC_FRAME,
    SHB_SRC_NOTHING, /* within the time given; `events` may say more */
    SHB_SRC_END,     /* the host has gone and everything has been read */
    SHB_SRC_CORRUPT, /* the buffer is damaged */
    SHB_SRC_NO_SUCH, /* a new buffer of the name has no such track */
} ShbSrcResult;

/* False when memory is short or the name cannot be one. */
gboolean shb_src_track_open(ShbSrcTrack *track, shb_kind_t kind, const gchar *name, guint channel, guint stream,
                            gboolean follow, gboolean newest);
void shb_src_track_close(ShbSrcTrack *track);

/* Waits for the buffer. SHB_SRC_NOTHING: it is not there yet. SHB_SRC_FRAME: it is. */
ShbSrcResult shb_src_track_attach(ShbSrcTrack *track, gint timeout_ms);
/* Where the first frame is to come from. Once, between attach and read. */
void shb_src_track_seek(ShbSrcTrack *track, const ShbStartRule *rule);
ShbSrcResult shb_src_track_read(ShbSrcTrack *track, gint timeout_ms, ShbSrcFrame *out);
/* What has happened since the last call, SHB_FOLLOW_. */
uint32_t shb_src_track_events(ShbSrcTrack *track);

/* The source says that it has no such stream. */
gboolean shb_src_track_is_absent(ShbSrcTrack *track);
/* Frames of this kind have come, whether or not they can be begun with. */
gboolean shb_src_track_has_data(ShbSrcTrack *track);

G_END_DECLS

#endif /* SHB_SRC_TRACK_H */
