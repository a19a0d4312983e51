#include "rate_window.h"

/* Long enough that ordinary jitter never reaches it. */
#define GAP_US ((gint64)2 * G_USEC_PER_SEC)

void shb_rate_window_reset(ShbRateWindow *window) {
    *window = (ShbRateWindow){0};
}

static void mark(ShbRateWindow *window, gint64 now_us) {
    window->marks[window->count++ % SHB_RATE_MARKS] =
        (ShbRateMark){.us = now_us, .bytes = window->bytes, .frames = window->frames};
}

/* The latest mark that is at least a second old, or null. */
static const ShbRateMark *a_second_ago(const ShbRateWindow *window, gint64 now_us) {
    for (guint back = 1; back <= SHB_RATE_MARKS && back <= window->count; back++) {
        const ShbRateMark *at = &window->marks[(window->count - back) % SHB_RATE_MARKS];
        if (now_us - at->us >= G_USEC_PER_SEC)
            return at;
    }
    return NULL;
}

static guint per_second(guint64 amount, guint64 elapsed_us) {
    guint64 value = (amount * G_USEC_PER_SEC + elapsed_us / 2) / elapsed_us;
    return value > G_MAXUINT ? G_MAXUINT : (guint)value;
}

/*
 * A window reaches from one frame to another and holds as many frames as intervals: the frame that ends it is
 * not part of it.
 */
static gboolean slide(ShbRateWindow *window, gint64 now_us, ShbRates *rates) {
    gboolean gap = now_us - window->last_us > GAP_US;
    gboolean slow = window->slow;
    window->slow = gap;
    /*
     * One long pause is an interruption, and a mean over it would be true of nothing. Pause after pause is a
     * slow stream.
     */
    if (window->count == 0 || (gap && !slow)) {
        window->count = 0;
        window->told_us = now_us;
        mark(window, now_us);
        return FALSE;
    }
    if (now_us - window->marks[(window->count - 1) % SHB_RATE_MARKS].us < SHB_RATE_STEP_US &&
        now_us - window->told_us < G_USEC_PER_SEC)
        return FALSE;
    const ShbRateMark *from = a_second_ago(window, now_us);
    if (from != NULL) {
        guint64 elapsed = (guint64)(now_us - from->us);
        rates->bits_per_second = per_second((window->bytes - from->bytes) * 8, elapsed);
        rates->frames_per_1000_seconds = per_second((window->frames - from->frames) * 1000, elapsed);
        rates->second = now_us - window->told_us >= G_USEC_PER_SEC;
        if (rates->second)
            window->told_us = now_us;
    }
    mark(window, now_us);
    return from != NULL;
}

gboolean shb_rate_window_add(ShbRateWindow *window, gint64 now_us, gsize bytes, ShbRates *rates) {
    gboolean slid = slide(window, now_us, rates);
    window->last_us = now_us;
    window->bytes += bytes;
    window->frames++;
    return slid;
}
