/*
 * Caps of the frames of a track, made from its description.
 */
#ifndef SHB_STREAM_CAPS_H
#define SHB_STREAM_CAPS_H

#include <gst/gst.h>

#include "shb.h"

G_BEGIN_DECLS

/*
 * The caps that frames of this description have, with the codec data where the caps carry them (raw AAC, Opus,
 * Vorbis). `frame` is the first of them: it tells E-AC-3 from AC-3. Null when the codec is none of those that
 * the sink writes.
 */
GstCaps *shb_stream_caps(shb_kind_t kind, const shb_description_t *description, GBytes *codec_data, const guint8 *frame,
                         gsize size);

/* Whether an access unit of a byte stream brings a sequence parameter set before its picture. */
gboolean shb_has_parameter_sets(const shb_description_t *description, const guint8 *data, gsize size);

G_END_DECLS

#endif /* SHB_STREAM_CAPS_H */
