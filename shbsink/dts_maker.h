/*
 * Makes decoding times for video that has only presentation times, as RTP carries it. Each frame gets its time
 * at once.
 *
 * With a reorder depth of d, frame i gets the (i - d)th smallest presentation time of the frames up to it.
 */
#ifndef SHB_DTS_MAKER_H
#define SHB_DTS_MAKER_H

#include <gst/gst.h>

G_BEGIN_DECLS

/* The deepest reordering that H.264 and H.265 allow, frames. */
#define SHB_DTS_DEPTH_MAX 16u
/* A learned depth that does not occur in twice as many frames is forgotten. */
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
/* Sets the depth that the stream states; below 0: it states none. */
void shb_dts_maker_set_depth(ShbDtsMaker *maker, gint depth);
/* Begins a new run: after a flush, or with a new segment. The depth stays. */
void shb_dts_maker_restart(ShbDtsMaker *maker);
/*
 * The decoding time of the next frame: `dts` if it is valid, otherwise one that is made. A time that is made is
 * above the one before in the run, and not above `pts`. GST_CLOCK_TIME_NONE when there is no such time: `pts`
 * is missing, is that of the frame before (the second field of a frame), or is reordered deeper than was known.
 * `duration` of a frame may be GST_CLOCK_TIME_NONE.
 */
GstClockTime shb_dts_maker_next(ShbDtsMaker *maker, GstClockTime pts, GstClockTime dts, GstClockTime duration,
                                gboolean discont);

G_END_DECLS

#endif /* SHB_DTS_MAKER_H */
