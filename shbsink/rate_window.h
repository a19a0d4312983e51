/*
 * Real bit rate and frame rate over a sliding window of about one second of the monotonic clock.
 */
#ifndef SHB_RATE_WINDOW_H
#define SHB_RATE_WINDOW_H

#include <glib.h>

G_BEGIN_DECLS

/* Steps in which the window slides. More marks than steps in a second, so that the oldest is a second old. */
#define SHB_RATE_STEP_US (G_USEC_PER_SEC / 8)
#define SHB_RATE_MARKS 12

/* What had come before the frame at `us`. */
typedef struct {
    gint64 us;
    guint64 bytes;
    guint64 frames;
} ShbRateMark;

typedef struct {
    ShbRateMark marks[SHB_RATE_MARKS]; /* used in turn */
    guint count;                       /* marks since the beginning; 0: no frame yet */
    gint64 last_us;
    gint64 told_us; /* when a whole second was last told */
    guint64 bytes;
    guint64 frames;
    gboolean slow;
} ShbRateWindow;

typedef struct {
    guint bits_per_second;
    guint frames_per_1000_seconds;
    gboolean second; /* a second has passed since this was last true */
} ShbRates;

void shb_rate_window_reset(ShbRateWindow *window);
/* Counts a frame that came at `now_us`; true when the window has slid on, whose rates are then in `rates`. */
gboolean shb_rate_window_add(ShbRateWindow *window, gint64 now_us, gsize bytes, ShbRates *rates);

G_END_DECLS

#endif /* SHB_RATE_WINDOW_H */
