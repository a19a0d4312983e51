#include "clock_offset.h"

#include <time.h>

#include "shb.h"

static gint64 monotonic_now(void) {
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return (gint64)now.tv_sec * G_GINT64_CONSTANT(1000000000) + now.tv_nsec;
}

static gboolean is_monotonic(GstClock *clock) {
    /* Subclasses have times of their own: audio clocks, network clocks. */
    if (G_OBJECT_TYPE(clock) != GST_TYPE_SYSTEM_CLOCK)
        return FALSE;
    GstClockType type;
    GstClockTime internal, external, rate_num, rate_denom;
    g_object_get(clock, "clock-type", &type, NULL);
    gst_clock_get_calibration(clock, &internal, &external, &rate_num, &rate_denom);
    return type == GST_CLOCK_TYPE_MONOTONIC && internal == external && rate_num == rate_denom;
}

/* CLOCK_MONOTONIC minus the clock. */
static gint64 compare(GstClock *clock) {
    enum { TRIES = 3 };
    if (is_monotonic(clock))
        return 0;
    gint64 best = 0, shortest = G_MAXINT64;
    /* The thread may be interrupted in the middle. The shortest measurement has the smallest error. */
    for (int i = 0; i < TRIES; i++) {
        gint64 before = monotonic_now();
        gint64 time = (gint64)gst_clock_get_time(clock);
        gint64 took = monotonic_now() - before;
        if (took < shortest) {
            shortest = took;
            best = before + took / 2 - time;
        }
    }
    return best;
}

gint64 shb_clock_offset(GstClock *clock, GstClockTime base_time, const GstSegment *segment) {
    if (clock == NULL || !GST_CLOCK_TIME_IS_VALID(base_time) || segment->format != GST_FORMAT_TIME || segment->rate < 1.0 ||
        segment->rate > 1.0)
        return SHB_OFFSET_NONE;
    guint64 running = 0;
    gint sign = gst_segment_to_running_time_full(segment, GST_FORMAT_TIME, segment->start, &running);
    if (sign == 0)
        return SHB_OFFSET_NONE;
    if (sign < 0)
        running = 0 - running;
    return (gint64)(base_time + running - segment->start + (guint64)compare(clock));
}
