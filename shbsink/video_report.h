/*
 * What a byte-stream access unit says about itself and about its stream. One reader per codec; the parsing is GStreamer's.
 */
#ifndef SHB_VIDEO_REPORT_H
#define SHB_VIDEO_REPORT_H

#include <gst/gst.h>

G_BEGIN_DECLS

/* Values of shb_description_t's scan_type. */
typedef enum { SHB_SCAN_PROGRESSIVE = 0, SHB_SCAN_INTERLACED = 1, SHB_SCAN_MIXED = 2 } ShbScan;

typedef struct {
    gint width, height; /* after cropping */
    gint fps_n, fps_d;  /* lowest terms; 0/1 when the stream does not tell */
    ShbScan scan;
    gint ref_frames;
    gchar profile[24];
    gchar level[16];
} ShbVideoReport;

typedef struct {
    gboolean key;          /* decoding can start here */
    gboolean headers_only; /* no picture in it */
    gboolean reported;     /* the report was written: the picture's parameter sets are known */
} ShbAccessUnit;

/* What the caps add: used only where the stream itself is silent. */
typedef struct {
    gint fps_n, fps_d;
    gboolean interlaced;
} ShbVideoHints;

typedef struct ShbVideoReader ShbVideoReader;

/* Reads one access unit. `parser_says_key` is the upstream parser's opinion. `report` is written when a picture was examined. */
typedef void (*ShbVideoRead)(ShbVideoReader *reader, const guint8 *data, gsize size, gboolean parser_says_key,
                             const ShbVideoHints *hints, ShbAccessUnit *unit, ShbVideoReport *report);

struct ShbVideoReader {
    ShbVideoRead read;
    void (*free)(ShbVideoReader *reader);
    /* Parameter sets of the last access unit that had any, one after the other, and how far this one has repeated them. */
    GByteArray *sets;
    guint repeated;
    gboolean told; /* a report was made: from then on only key pictures and new parameter sets are looked into */
};

ShbVideoReader *shb_h264_reader_new(void);
ShbVideoReader *shb_h265_reader_new(void);
void shb_video_reader_free(ShbVideoReader *reader);

/* For the codec readers. */
void shb_video_reader_init(ShbVideoReader *reader, ShbVideoRead read, void (*free_reader)(ShbVideoReader *reader));
/* True when this parameter set differs from what stood in its place in the last access unit that had any. */
gboolean shb_video_reader_is_news(ShbVideoReader *reader, const guint8 *set, guint size);
/* Takes the first pair that tells a rate, in lowest terms. */
void shb_video_report_set_rate(ShbVideoReport *report, guint64 fps_n, guint64 fps_d, const ShbVideoHints *hints);

G_END_DECLS

#endif /* SHB_VIDEO_REPORT_H */
