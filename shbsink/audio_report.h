/*
 * What an audio stream is, as far as its caps and the length of its frames tell.
 */
#ifndef SHB_AUDIO_REPORT_H
#define SHB_AUDIO_REPORT_H

#include <gst/gst.h>

G_BEGIN_DECLS

typedef struct {
    const gchar *code; /* static; null when the caps are not those of an audio stream */
    gint sample_rate;
    gint channels;
    gint samples_per_frame; /* 0 while not known: it then follows from the first frame, see below */
    gint nominal_bitrate;
    gint bits_per_sample; /* of samples that are coded one by one, 0 for the others */
    guint frames_without_length;
} ShbAudioReport;

void shb_audio_report_from_caps(ShbAudioReport *report, const GstStructure *caps);
/* Fills in samples_per_frame from a frame of data. */
void shb_audio_report_from_frame(ShbAudioReport *report, gsize size, GstClockTime duration);

G_END_DECLS

#endif /* SHB_AUDIO_REPORT_H */
