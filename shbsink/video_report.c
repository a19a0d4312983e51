#include "video_report.h"

#include <string.h>

void shb_video_reader_init(ShbVideoReader *reader, ShbVideoRead read, void (*free_reader)(ShbVideoReader *reader)) {
    reader->read = read;
    reader->free = free_reader;
    reader->sets = g_byte_array_new();
    reader->repeated = 0;
}

void shb_video_reader_free(ShbVideoReader *reader) {
    if (reader == NULL)
        return;
    g_byte_array_unref(reader->sets);
    reader->free(reader);
}

gboolean shb_video_reader_is_news(ShbVideoReader *reader, const guint8 *set, guint size) {
    GByteArray *sets = reader->sets;
    if (size <= sets->len - reader->repeated && memcmp(sets->data + reader->repeated, set, size) == 0) {
        reader->repeated += size;
        return FALSE;
    }
    g_byte_array_set_size(sets, reader->repeated);
    g_byte_array_append(sets, set, size);
    reader->repeated = sets->len;
    return TRUE;
}

void shb_video_report_set_rate(ShbVideoReport *report, guint64 fps_n, guint64 fps_d, const ShbVideoHints *hints) {
    if (fps_n == 0 || fps_d == 0) {
        fps_n = hints->fps_n > 0 ? (guint64)hints->fps_n : 0;
        fps_d = hints->fps_d > 0 ? (guint64)hints->fps_d : 0;
    }
    report->fps_n = 0;
    report->fps_d = 1;
    if (fps_n == 0 || fps_d == 0)
        return;
    guint64 common = (guint64)gst_util_greatest_common_divisor_int64((gint64)fps_n, (gint64)fps_d);
    fps_n /= common;
    fps_d /= common;
    if (fps_n > G_MAXINT || fps_d > G_MAXINT)
        return;
    report->fps_n = (gint)fps_n;
    report->fps_d = (gint)fps_d;
}
