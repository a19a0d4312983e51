/*
 * What an audio decoder needs before the first frame, and the form that the frames have: from the caps, or from the
 * first frames where the caps do not have it.
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
    ShbInBand in_band;  /* what the frames have to tell */
    gboolean complete;  /* nothing more is read from frames */
    gint rate;          /* that the codec data state, Hz; 0: they do not */
    gint channels;      /* the same */
    GBytes *headers[SHB_VORBIS_HEADERS];
} ShbAudioConfig;

void shb_audio_config_clear(ShbAudioConfig *config);
void shb_audio_config_from_caps(ShbAudioConfig *config, GstCaps *caps);
/* True when the frame is a header of the codec and no sound. */
gboolean shb_audio_config_from_frame(ShbAudioConfig *config, const guint8 *data, gsize size);

G_END_DECLS

#endif /* SHB_AUDIO_CONFIG_H */
