#include "audio_config.h"

#include <gst/pbutils/codec-utils.h>
#include <string.h>

#include "shb.h"

#define ADTS_HEADER_SIZE 7
#define OPUS_HEAD_SIZE 19

void shb_audio_config_clear(ShbAudioConfig *config) {
    g_clear_pointer(&config->codec_data, g_bytes_unref);
    for (guint i = 0; i < SHB_VORBIS_HEADERS; i++)
        g_clear_pointer(&config->headers[i], g_bytes_unref);
    *config = (ShbAudioConfig){0};
}

static GBytes *bytes_of(GstBuffer *buffer) {
    gsize size = gst_buffer_get_size(buffer);
    gpointer copy = g_malloc(size);
    size = gst_buffer_extract(buffer, 0, copy, size);
    return g_bytes_new_take(copy, size);
}

/* The header `index` that a container had, null when it had none. */
static GBytes *stream_header(const GstStructure *caps, guint index) {
    const GValue *headers = gst_structure_get_value(caps, "streamheader");
    if (!G_VALUE_HOLDS(headers, GST_TYPE_ARRAY) || gst_value_array_get_size(headers) <= index)
        return NULL;
    const GValue *header = gst_value_array_get_value(headers, index);
    GstBuffer *buffer = G_VALUE_HOLDS(header, GST_TYPE_BUFFER) ? gst_value_get_buffer(header) : NULL;
    return buffer != NULL ? bytes_of(buffer) : NULL;
}

/* ---- AAC ---------------------------------------------------------------------------------------------------------- */

static void take_aac(ShbAudioConfig *config, GBytes *codec_data) {
    gsize size;
    const guint8 *data = g_bytes_get_data(codec_data, &size);
    config->codec_data = codec_data;
    config->rate = (gint)gst_codec_utils_aac_get_sample_rate(data, (guint)size);
    config->channels = (gint)gst_codec_utils_aac_get_channels(data, (guint)size);
}

static void aac_from_caps(ShbAudioConfig *config, const GstStructure *caps) {
    const gchar *format = gst_structure_get_string(caps, "stream-format");
    g_strlcpy(config->format, format != NULL ? format : "", sizeof config->format);
    if (g_str_equal(config->format, "adts"))
        config->in_band = SHB_IN_BAND_ADTS;
    const GValue *codec_data = gst_structure_get_value(caps, "codec_data");
    if (g_str_equal(config->format, "raw") && G_VALUE_HOLDS(codec_data, GST_TYPE_BUFFER) &&
        gst_value_get_buffer(codec_data) != NULL)
        take_aac(config, bytes_of(gst_value_get_buffer(codec_data)));
}

/* The AudioSpecificConfig of the frames behind an ADTS header. */
static void read_adts(ShbAudioConfig *config, const guint8 *data, gsize size) {
    if (size < ADTS_HEADER_SIZE || data[0] != 0xff || (data[1] & 0xf6) != 0xf0)
        return;
    guint object_type = (data[2] >> 6) + 1u;
    guint rate_index = data[2] >> 2 & 0xfu;
    guint channels = (data[2] & 1u) << 2 | data[3] >> 6;
    config->complete = TRUE;
    /* Channel configuration 0: the layout is in the frames. */
    if (channels == 0)
        return;
    const guint8 made[2] = {(guint8)(object_type << 3 | rate_index >> 1), (guint8)((rate_index & 1) << 7 | channels << 3)};
    take_aac(config, g_bytes_new(made, sizeof made));
}

/* ---- Opus --------------------------------------------------------------------------------------------------------- */

static void opus_from_caps(ShbAudioConfig *config, GstCaps *caps, const GstStructure *structure) {
    GBytes *head = stream_header(structure, 0);
    if (head != NULL && g_bytes_get_size(head) >= OPUS_HEAD_SIZE &&
        memcmp(g_bytes_get_data(head, NULL), "OpusHead", strlen("OpusHead")) == 0) {
        config->codec_data = head;
        return;
    }
    g_clear_pointer(&head, g_bytes_unref);
    guint32 rate = 0;
    guint8 channels = 0, family = 0, streams = 0, coupled = 0, mapping[256];
    if (!gst_structure_has_field_typed(structure, "channel-mapping-family", G_TYPE_INT) ||
        !gst_codec_utils_opus_parse_caps(caps, &rate, &channels, &family, &streams, &coupled, mapping)) {
        /*
         * Caps from RTP may lack the mapping, which one or two channels do not need. Without channels: stereo.
         */
        gint stated = 2;
        gst_structure_get_int(structure, "channels", &stated);
        if (stated < 1 || stated > 2)
            return;
        channels = (guint8)stated;
        family = 0;
    }
    GstBuffer *made = gst_codec_utils_opus_create_header(rate, channels, family, streams, coupled, family != 0 ? mapping : NULL,
                                                         0 /* pre-skip */, 0 /* gain */);
    if (made == NULL)
        return;
    config->codec_data = bytes_of(made);
    gst_buffer_unref(made);
}

/* ---- Vorbis ------------------------------------------------------------------------------------------------------- */

/* First bytes of the three headers. In frames of sound it is even. */
static const guint8 vorbis_types[SHB_VORBIS_HEADERS] = {1, 3, 5};
enum { VORBIS_COMMENTS = 1, VORBIS_SETUP = 2, VORBIS_FIRST_SIZE = 30 };

static gboolean is_vorbis_header(const guint8 *data, gsize size, guint *index) {
    if (size < 1 + strlen("vorbis") || memcmp(data + 1, "vorbis", strlen("vorbis")) != 0)
        return FALSE;
    for (*index = 0; *index < SHB_VORBIS_HEADERS; ++*index)
        if (data[0] == vorbis_types[*index])
            return TRUE;
    return FALSE;
}

/* Xiph lacing: number of headers - 1, sizes of all but the last, the headers. */
static GBytes *lace(GBytes *const headers[SHB_VORBIS_HEADERS]) {
    GByteArray *laced = g_byte_array_new();
    const guint8 more = SHB_VORBIS_HEADERS - 1;
    g_byte_array_append(laced, &more, 1);
    for (guint i = 0; i < more; i++) {
        gsize size = g_bytes_get_size(headers[i]);
        for (; size >= 255; size -= 255)
            g_byte_array_append(laced, (const guint8 *)"\xff", 1);
        g_byte_array_append(laced, &(const guint8){(guint8)size}, 1);
    }
    for (guint i = 0; i < SHB_VORBIS_HEADERS; i++) {
        gsize size;
        const guint8 *data = g_bytes_get_data(headers[i], &size);
        g_byte_array_append(laced, data, (guint)size);
    }
    return g_byte_array_free_to_bytes(laced);
}

static void lace_vorbis(ShbAudioConfig *config) {
    for (guint i = 0; i < SHB_VORBIS_HEADERS; i++)
        if (config->headers[i] == NULL)
            return;
    gsize size;
    const guint8 *first = g_bytes_get_data(config->headers[0], &size);
    if (size >= VORBIS_FIRST_SIZE) {
        config->channels = first[11];
        config->rate = (gint)MIN(GST_READ_UINT32_LE(first + 12), (guint32)G_MAXINT);
    }
    g_clear_pointer(&config->codec_data, g_bytes_unref);
    config->codec_data = lace(config->headers);
    if (g_bytes_get_size(config->codec_data) <= SHB_CODEC_DATA_MAX)
        return;
    /* No decoder needs the comments. An empty header: no vendor, no comments, framing bit. */
    static const guint8 no_comments[] = "\3vorbis\0\0\0\0\0\0\0\0\1";
    g_bytes_unref(config->headers[VORBIS_COMMENTS]);
    config->headers[VORBIS_COMMENTS] = g_bytes_new_static(no_comments, sizeof no_comments - 1);
    g_bytes_unref(config->codec_data);
    config->codec_data = lace(config->headers);
}

static gboolean put_vorbis_header(ShbAudioConfig *config, GBytes *header) {
    gsize size;
    const guint8 *data = g_bytes_get_data(header, &size);
    guint index;
    if (!is_vorbis_header(data, size, &index)) {
        g_bytes_unref(header);
        return FALSE;
    }
    g_clear_pointer(&config->headers[index], g_bytes_unref);
    config->headers[index] = header;
    return TRUE;
}

static void vorbis_from_caps(ShbAudioConfig *config, const GstStructure *caps) {
    config->in_band = SHB_IN_BAND_VORBIS;
    for (guint i = 0; i < SHB_VORBIS_HEADERS; i++) {
        GBytes *header = stream_header(caps, i);
        if (header != NULL)
            put_vorbis_header(config, header);
    }
    lace_vorbis(config);
}

/* ---- All --------------------------------------------------------------------------------------------------------- */

void shb_audio_config_from_caps(ShbAudioConfig *config, GstCaps *caps) {
    const GstStructure *structure = gst_caps_get_structure(caps, 0);
    gboolean vorbis = gst_structure_has_name(structure, "audio/x-vorbis");
    /* Headers from the frames stay valid when only the caps are renewed. */
    if (!vorbis || config->in_band != SHB_IN_BAND_VORBIS)
        shb_audio_config_clear(config);
    gint version = 1;
    gst_structure_get_int(structure, "mpegversion", &version);
    if (vorbis)
        vorbis_from_caps(config, structure);
    else if (gst_structure_has_name(structure, "audio/x-opus"))
        opus_from_caps(config, caps, structure);
    else if (gst_structure_has_name(structure, "audio/mpeg") && version != 1)
        aac_from_caps(config, structure);
}

gboolean shb_audio_config_from_frame(ShbAudioConfig *config, const guint8 *data, gsize size) {
    guint index;
    if (config->in_band == SHB_IN_BAND_ADTS && !config->complete)
        read_adts(config, data, size);
    if (config->in_band != SHB_IN_BAND_VORBIS || !is_vorbis_header(data, size, &index))
        return FALSE;
    put_vorbis_header(config, g_bytes_new(data, size));
    /* The setup header is the last one. Before it, headers of two streams would mix. */
    if (index == VORBIS_SETUP)
        lace_vorbis(config);
    return TRUE;
}
