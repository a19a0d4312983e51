/*
 * Decoding times for video that comes without them (RTP carries presentation times only), each at once and without delay.
 *
 * With a reorder depth of d, the decoding time of a frame is the earliest presentation time but d that the frames
 * up to it have not used: that of the frame that is shown when this one is decoded.
 */
#ifndef SHB_DTS_MAKER_H
#define SHB_DTS_MAKER_H

#include <gst/gst.h>

G_BEGIN_DECLS

/* The deepest reordering that H.264 and H.265 allow, frames. */
#define SHB_DTS_DEPTH_MAX 16u
/* After twice as many frames a depth that is no longer seen is forgotten. */
#define SHB_DTS_MEMORY 256u

typedef struct {
    guint stated; /* depth that the stream states */
    /* Depth that its time stamps showed among the last SHB_DTS_MEMORY frames, and among those before. */
    guint seen, seen_before;
    guint frames;                               /* counted towards SHB_DTS_MEMORY */
    GstClockTime latest[SHB_DTS_DEPTH_MAX + 1]; /* the latest presentation times of the run, rising */
    guint held;                                 /* of `latest` */
    GstClockTime last_pts, last_dts;            /* of the run; GST_CLOCK_TIME_NONE before the first */
} ShbDtsMaker;

void shb_dts_maker_init(ShbDtsMaker *maker);
/* The depth that the stream states; below 0: it does not. */
void shb_dts_maker_set_depth(ShbDtsMaker *maker, gint depth);
/* The next frame does not follow on the last: a flush, a new segment. */
void shb_dts_maker_restart(ShbDtsMaker *maker);
/*
 * The decoding time of the next frame: its own `dts` if it has one. Otherwise one that is above all before in the run and not above
 * `pts`, or GST_CLOCK_TIME_NONE when there is none such: without `pts`, for a second field with the same `pts`, or when frames are
 * reordered deeper than was known. `duration`: that of a frame, GST_CLOCK_TIME_NONE when not known.
 */
GstClockTime shb_dts_maker_next(ShbDtsMaker *maker, GstClockTime pts, GstClockTime dts, GstClockTime duration,
                                gboolean discont);

G_END_DECLS

#endif /* SHB_DTS_MAKER_H */
