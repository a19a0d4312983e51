/*
 * How the time stamps of a stream relate to CLOCK_MONOTONIC.
 */
#ifndef SHB_CLOCK_OFFSET_H
#define SHB_CLOCK_OFFSET_H

#include <gst/gst.h>

G_BEGIN_DECLS

/*
 * What a time stamp of this segment plus is the time of CLOCK_MONOTONIC at which it is due, without latency; SHB_OFFSET_NONE without a
 * clock or a base time, and for segments that are not of time at rate 1. A clock other than the monotonic system clock
 * is compared with that once, now.
 */
gint64 shb_clock_offset(GstClock *clock, GstClockTime base_time, const GstSegment *segment);

G_END_DECLS

#endif /* SHB_CLOCK_OFFSET_H */
