#include "video_report.h"

void shb_video_reader_init(ShbVideoReader *reader, ShbVideoRead read, void (*free_reader)(ShbVideoReader *reader)) {
    reader->read = read;
    reader->free = free_reader;
    shb_param_sets_init(&reader->sets);
}

void shb_video_reader_free(ShbVideoReader *reader) {
    if (reader == NULL)
        return;
    shb_param_sets_clear(&reader->sets);
    g_clear_pointer(&reader->codec_data, g_bytes_unref);
    reader->free(reader);
}

GBytes *shb_video_reader_codec_data(ShbVideoReader *reader) {
    if (reader->codec_data == NULL || reader->sets.changed) {
        g_clear_pointer(&reader->codec_data, g_bytes_unref);
        reader->codec_data = shb_param_sets_to_bytes(&reader->sets);
        reader->sets.changed = FALSE;
    }
    return reader->codec_data;
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
