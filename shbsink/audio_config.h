/*
 * What an audio decoder needs before the first frame, and the form of the frames: from the caps, otherwise from
 * the frames.
 */
#ifndef SHB_AUDIO_CONFIG_H
#define SHB_AUDIO_CONFIG_H

#include <gst/gst.h>

G_BEGIN_DECLS

typedef enum { SHB_IN_BAND_NOTHING = 0, SHB_IN_BAND_ADTS, SHB_IN_BAND_VORBIS } ShbInBand;

#define SHB_VORBIS_HEADERS 3

typedef struct {
    gchar format[16];
    GBytes *codec_data; /* null: none, or not yet */
    ShbInBand in_band;  /* what is read from frames */
    gboolean complete;  /* the ADTS header has been read */
    gint rate;          /* Hz, from the codec data; 0: not known */
    gint channels;      /* from the codec data; 0: not known */
    GBytes *headers[SHB_VORBIS_HEADERS];
} ShbAudioConfig;

void shb_audio_config_clear(ShbAudioConfig *config);
void shb_audio_config_from_caps(ShbAudioConfig *config, GstCaps *caps);
/* True when the frame is a header of the codec without sound. */
gboolean shb_audio_config_from_frame(ShbAudioConfig *config, const guint8 *data, gsize size);

G_END_DECLS

#endif /* SHB_AUDIO_CONFIG_H */
