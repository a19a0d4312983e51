/*
 * What a byte-stream access unit says about itself and about its stream. One reader per codec; the parsing is
 * GStreamer's.
 */
#ifndef SHB_VIDEO_REPORT_H
#define SHB_VIDEO_REPORT_H

#include <gst/gst.h>

#include "param_sets.h"

G_BEGIN_DECLS

/* Values of shb_description_t's scan_type. */
typedef enum { SHB_SCAN_PROGRESSIVE = 0, SHB_SCAN_INTERLACED = 1, SHB_SCAN_MIXED = 2 } ShbScan;

/* The deepest reordering that the standards allow, frames. */
#define SHB_REORDER_MAX 16

typedef struct {
    gint width, height; /* after cropping */
    gint fps_n, fps_d;  /* lowest terms; 0/1 when the stream does not tell */
    ShbScan scan;
    gint ref_frames;
    gint reorder_frames; /* -1 when the stream does not state it */
    gchar profile[24];
    gchar level[16];
} ShbVideoReport;

typedef struct {
    gboolean key;          /* decoding can start here */
    gboolean headers_only; /* no picture in it */
    gboolean reported;     /* the report was written: the picture's parameter sets are known */
    gboolean new_sets;     /* a picture, and the codec data have changed since they were last taken */
} ShbAccessUnit;

/* What the caps add: used only where the stream itself is silent. */
typedef struct {
    gint fps_n, fps_d;
    gboolean interlaced;
} ShbVideoHints;

typedef struct ShbVideoReader ShbVideoReader;

/*
 * Reads one access unit. `parser_says_key` is the upstream parser's opinion. `report` is written when a picture
 * was examined.
 */
typedef void (*ShbVideoRead)(ShbVideoReader *reader, const guint8 *data, gsize size, gboolean parser_says_key,
                             const ShbVideoHints *hints, ShbAccessUnit *unit, ShbVideoReport *report);

struct ShbVideoReader {
    ShbVideoRead read;
    void (*free)(ShbVideoReader *reader);
    ShbParamSets sets;
    GBytes *codec_data; /* made of the sets; null before the first call */
    gboolean told;      /* a report was made: from then on only key pictures and new parameter sets are looked into */
};

ShbVideoReader *shb_h264_reader_new(void);
ShbVideoReader *shb_h265_reader_new(void);
void shb_video_reader_free(ShbVideoReader *reader);
/* All parameter sets in force, as byte-stream. Owned by the reader, valid until the next call. */
GBytes *shb_video_reader_codec_data(ShbVideoReader *reader);

/* For the codec readers. */
void shb_video_reader_init(ShbVideoReader *reader, ShbVideoRead read, void (*free_reader)(ShbVideoReader *reader));
/* Takes the first pair that tells a rate, in lowest terms. */
void shb_video_report_set_rate(ShbVideoReport *report, guint64 fps_n, guint64 fps_d, const ShbVideoHints *hints);

G_END_DECLS

#endif /* SHB_VIDEO_REPORT_H */
