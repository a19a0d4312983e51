#include "dts_maker.h"

#include <string.h>

/* Taken where nothing states the duration of a frame. */
#define USUAL_DURATION (40 * GST_MSECOND)
/*
 * Between frames that have no times of their own to take. Containers that count in milliseconds still see a
 * rise.
 */
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

/* Frames that a time stamp may go back. Encoders use up to 16 B frames in a row. */
#define LONGEST_REACH 32

/* True when `pts` goes further than reordering can. */
static gboolean is_jump(const ShbDtsMaker *maker, GstClockTime pts, GstClockTime duration, gboolean discont) {
    if (maker->held == 0)
        return FALSE;
    GstClockTime reach = MAX(GST_SECOND, LONGEST_REACH * MIN(duration, GST_SECOND));
    GstClockTime newest = maker->latest[maker->held - 1];
    if (pts < newest)
        return newest - pts > reach;
    /* A slow stream also goes forward in large steps. */
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
    /* Times before the first frame. Steps are shorter where there is no room for whole ones above zero. */
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
        /* Depths are in frames: both fields of a frame count once. */
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
