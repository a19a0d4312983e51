#include "dts_maker.h"

#include <string.h>

/* Taken where nothing states the duration of a frame. */
#define USUAL_DURATION (40 * GST_MSECOND)
/* While a new depth comes into force. Containers that count in milliseconds still see it rise. */
#define SMALLEST_STEP GST_MSECOND

void shb_dts_maker_init(ShbDtsMaker *maker) {
    memset(maker, 0, sizeof *maker);
    shb_dts_maker_restart(maker);
}

void shb_dts_maker_set_depth(ShbDtsMaker *maker, gint depth) {
    maker->stated = (guint)CLAMP(depth, 0, (gint)SHB_DTS_DEPTH_MAX);
}

void shb_dts_maker_restart(ShbDtsMaker *maker) {
    maker->held = 0;
    maker->last_pts = GST_CLOCK_TIME_NONE;
    maker->last_dts = GST_CLOCK_TIME_NONE;
}

/* Frames that are shown between one and the next to be decoded: no encoder puts more B frames in a row. */
#define LONGEST_REACH 32

/* Whether `pts` is of another time line, and not only of frames in another order. */
static gboolean is_jump(const ShbDtsMaker *maker, GstClockTime pts, GstClockTime duration, gboolean discont) {
    if (maker->held == 0)
        return FALSE;
    GstClockTime reach = MAX(GST_SECOND, LONGEST_REACH * MIN(duration, GST_SECOND));
    GstClockTime newest = maker->latest[maker->held - 1];
    if (pts < newest)
        return newest - pts > reach;
    /* Forwards, frames that are far apart are also just that. */
    return discont && pts - newest > reach;
}

/* Puts `pts` among the latest; how many of them are later. */
static guint insert(ShbDtsMaker *maker, GstClockTime pts) {
    guint at = maker->held;
    while (at > 0 && maker->latest[at - 1] > pts)
        at--;
    guint later = maker->held - at;
    if (maker->held <= SHB_DTS_DEPTH_MAX) {
        memmove(maker->latest + at + 1, maker->latest + at, later * sizeof *maker->latest);
        maker->latest[at] = pts;
        maker->held++;
    } else if (at > 0) {
        memmove(maker->latest, maker->latest + 1, (at - 1) * sizeof *maker->latest);
        maker->latest[at - 1] = pts;
    }
    return MIN(later, SHB_DTS_DEPTH_MAX);
}

static void learn(ShbDtsMaker *maker, guint depth) {
    maker->seen = MAX(maker->seen, depth);
    if (++maker->frames < SHB_DTS_MEMORY)
        return;
    maker->frames = 0;
    maker->seen_before = maker->seen;
    maker->seen = 0;
}

static GstClockTime candidate(const ShbDtsMaker *maker, GstClockTime duration) {
    guint depth = MAX(maker->stated, MAX(maker->seen, maker->seen_before));
    if (maker->held > depth)
        return maker->latest[maker->held - 1 - depth];
    /* What would have been shown before the first frame; in shorter steps where the time line begins too soon for that. */
    guint before = depth - maker->held + 1;
    GstClockTime step = MIN(duration, maker->latest[0] / depth);
    return step > 0 ? maker->latest[0] - before * step : GST_CLOCK_TIME_NONE;
}

GstClockTime shb_dts_maker_next(ShbDtsMaker *maker, GstClockTime pts, GstClockTime dts, GstClockTime duration,
                                gboolean discont) {
    GstClockTime made = GST_CLOCK_TIME_NONE;
    if (!GST_CLOCK_TIME_IS_VALID(duration) || duration == 0)
        duration = USUAL_DURATION;
    if (GST_CLOCK_TIME_IS_VALID(pts)) {
        if (is_jump(maker, pts, duration, discont))
            shb_dts_maker_restart(maker);
        /* Both fields of a frame count once: depths are in frames. */
        if (pts != maker->last_pts) {
            learn(maker, insert(maker, pts));
            made = candidate(maker, duration);
        }
        maker->last_pts = pts;
    }
    if (GST_CLOCK_TIME_IS_VALID(maker->last_dts) && made <= maker->last_dts)
        made = maker->last_dts + SMALLEST_STEP;
    if (made > pts)
        made = GST_CLOCK_TIME_NONE;
    if (GST_CLOCK_TIME_IS_VALID(dts))
        made = dts;
    if (GST_CLOCK_TIME_IS_VALID(made))
        maker->last_dts = made;
    return made;
}
