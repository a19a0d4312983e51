/*
 * How the time stamps of a stream relate to CLOCK_MONOTONIC.
 */
#ifndef SHB_CLOCK_OFFSET_H
#define SHB_CLOCK_OFFSET_H

#include <gst/gst.h>

G_BEGIN_DECLS

/*
 * Time stamp + offset = time of CLOCK_MONOTONIC at which the frame is due, without latency. SHB_OFFSET_NONE
 * without a clock or a base time, and for segments that are not in time or not at rate 1. A clock that is not
 * the monotonic system clock is measured against it in this call.
 */
gint64 shb_clock_offset(GstClock *clock, GstClockTime base_time, const GstSegment *segment);

G_END_DECLS

#endif /* SHB_CLOCK_OFFSET_H */
