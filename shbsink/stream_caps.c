#include "stream_caps.h"

#include <gst/pbutils/codec-utils.h>
#include <gst/tag/tag.h>
#include <string.h>

static gboolean is_code(const shb_description_t *description, const gchar *code) {
    return strcmp(description->code, code) == 0;
}

static GstBuffer *buffer_of(const guint8 *data, gsize size) {
    return gst_buffer_new_memdup(data, size);
}

/* ---- Video -------------------------------------------------------------------------------------------------------- */

static GstCaps *video_caps(const gchar *name, const shb_description_t *description) {
    GstCaps *caps = gst_caps_new_simple(name, "stream-format", G_TYPE_STRING, "byte-stream", "alignment", G_TYPE_STRING, "au",
                                        "parsed", G_TYPE_BOOLEAN, TRUE, NULL);
    if (description->width > 0 && description->height > 0)
        gst_caps_set_simple(caps, "width", G_TYPE_INT, description->width, "height", G_TYPE_INT, description->height, NULL);
    if (description->fps_n > 0 && description->fps_d > 0)
        gst_caps_set_simple(caps, "framerate", GST_TYPE_FRACTION, description->fps_n, description->fps_d, NULL);
    if (description->profile[0] != '\0')
        gst_caps_set_simple(caps, "profile", G_TYPE_STRING, description->profile, NULL);
    if (description->level[0] != '\0')
        gst_caps_set_simple(caps, "level", G_TYPE_STRING, description->level, NULL);
    return caps;
}

enum { H264_SPS = 7, H264_FIRST_PICTURE = 1, H264_LAST_PICTURE = 5, H265_SPS = 33, H265_LAST_PICTURE = 31 };

gboolean shb_has_parameter_sets(const shb_description_t *description, const guint8 *data, gsize size) {
    gboolean h265 = is_code(description, "H265");
    for (gsize i = 0; i + 3 < size; i++) {
        if (data[i] != 0 || data[i + 1] != 0 || data[i + 2] != 1)
            continue;
        guint type = h265 ? data[i + 3] >> 1 & 0x3fu : data[i + 3] & 0x1fu;
        if (type == (h265 ? H265_SPS : H264_SPS))
            return TRUE;
        if (h265 ? type <= H265_LAST_PICTURE : type >= H264_FIRST_PICTURE && type <= H264_LAST_PICTURE)
            return FALSE;
        i += 2;
    }
    return FALSE;
}

/* ---- Audio -------------------------------------------------------------------------------------------------------- */

static void set_format(GstCaps *caps, const shb_description_t *description) {
    if (description->sample_rate > 0)
        gst_caps_set_simple(caps, "rate", G_TYPE_INT, description->sample_rate, NULL);
    if (description->channels > 0)
        gst_caps_set_simple(caps, "channels", G_TYPE_INT, description->channels, NULL);
}

static GstCaps *aac_caps(const shb_description_t *description, const guint8 *config, gsize size) {
    const gchar *format = description->format[0] != '\0' ? description->format : "adts";
    GstCaps *caps = gst_caps_new_simple("audio/mpeg", "mpegversion", G_TYPE_INT, 4, "stream-format", G_TYPE_STRING, format,
                                        "framed", G_TYPE_BOOLEAN, TRUE, NULL);
    set_format(caps, description);
    if (size > 0)
        gst_codec_utils_aac_caps_set_level_and_profile(caps, config, (guint)size);
    if (size > 0 && strcmp(format, "raw") == 0) {
        GstBuffer *codec_data = buffer_of(config, size);
        gst_caps_set_simple(caps, "codec_data", GST_TYPE_BUFFER, codec_data, NULL);
        gst_buffer_unref(codec_data);
    }
    return caps;
}

/* The layer is in each frame; "MPA" does not say it. */
static GstCaps *mpeg_caps(const shb_description_t *description, const guint8 *frame, gsize size) {
    GstCaps *caps = gst_caps_new_simple("audio/mpeg", "mpegversion", G_TYPE_INT, 1, "parsed", G_TYPE_BOOLEAN, TRUE, NULL);
    set_format(caps, description);
    gint layer = size >= 2 && frame[0] == 0xff ? 4 - (frame[1] >> 1 & 3) : 4;
    if (layer < 4)
        gst_caps_set_simple(caps, "layer", G_TYPE_INT, layer, NULL);
    return caps;
}

/* RTP and some containers name both AC-3: the identification of the bit stream decides. */
static GstCaps *ac3_caps(const shb_description_t *description, const guint8 *frame, gsize size) {
    enum { BSID_AT = 5, LAST_AC3_BSID = 10 };
    gboolean enhanced = size > BSID_AT && frame[0] == 0x0b && frame[1] == 0x77 ? frame[BSID_AT] >> 3 > LAST_AC3_BSID
                                                                               : is_code(description, "EAC3");
    GstCaps *caps = gst_caps_new_simple(enhanced ? "audio/x-eac3" : "audio/x-ac3", "framed", G_TYPE_BOOLEAN, TRUE, "alignment",
                                        G_TYPE_STRING, "frame", NULL);
    set_format(caps, description);
    return caps;
}

/* Takes the buffer. */
static void append_header(GValue *list, GstBuffer *header) {
    GValue value = G_VALUE_INIT;
    g_value_init(&value, GST_TYPE_BUFFER);
    GST_BUFFER_FLAG_SET(header, GST_BUFFER_FLAG_HEADER);
    gst_value_take_buffer(&value, header);
    gst_value_array_append_and_take_value(list, &value);
}

static GstCaps *opus_caps(const shb_description_t *description, const guint8 *head, gsize size) {
    GstCaps *caps = NULL;
    if (size > 0) {
        GstBuffer *header = buffer_of(head, size);
        GstTagList *tags = gst_tag_list_new_empty();
        GstBuffer *comments = gst_tag_list_to_vorbiscomment_buffer(tags, (const guint8 *)"OpusTags", 8, "gst-source");
        caps = gst_codec_utils_opus_create_caps_from_header(header, comments);
        gst_buffer_unref(comments);
        gst_tag_list_unref(tags);
        gst_buffer_unref(header);
    }
    if (caps == NULL) {
        caps = gst_caps_new_simple("audio/x-opus", "channel-mapping-family", G_TYPE_INT, 0, NULL);
        set_format(caps, description);
    }
    return caps;
}

/* The codec data are the three headers in Xiph lacing. */
static GstCaps *vorbis_caps(const shb_description_t *description, const guint8 *data, gsize size) {
    enum { HEADERS = 3 };
    GstCaps *caps = gst_caps_new_empty_simple("audio/x-vorbis");
    set_format(caps, description);
    gsize sizes[HEADERS] = {0};
    gsize at = 1;
    gsize sum = 0;
    if (size == 0 || data[0] != HEADERS - 1)
        return caps;
    for (guint i = 0; i + 1 < HEADERS; i++) {
        while (at < size && data[at] == 255)
            sizes[i] += data[at++];
        if (at < size)
            sizes[i] += data[at++];
        sum += sizes[i];
    }
    if (at + sum > size)
        return caps;
    sizes[HEADERS - 1] = size - at - sum;
    GValue list = G_VALUE_INIT;
    g_value_init(&list, GST_TYPE_ARRAY);
    for (guint i = 0; i < HEADERS; i++) {
        append_header(&list, buffer_of(data + at, sizes[i]));
        at += sizes[i];
    }
    gst_caps_set_value(caps, "streamheader", &list);
    g_value_unset(&list);
    return caps;
}

static GstCaps *sample_caps(const gchar *name, const shb_description_t *description) {
    GstCaps *caps = gst_caps_new_empty_simple(name);
    set_format(caps, description);
    return caps;
}

static GstCaps *audio_caps(const shb_description_t *description, const guint8 *config, gsize config_size, const guint8 *frame,
                           gsize size) {
    if (is_code(description, "AAC") || is_code(description, "MP4A-LATM"))
        return aac_caps(description, config, config_size);
    if (is_code(description, "MP1") || is_code(description, "MP2") || is_code(description, "MP3") ||
        is_code(description, "MPA"))
        return mpeg_caps(description, frame, size);
    if (is_code(description, "AC3") || is_code(description, "EAC3"))
        return ac3_caps(description, frame, size);
    if (is_code(description, "OPUS"))
        return opus_caps(description, config, config_size);
    if (is_code(description, "VORBIS"))
        return vorbis_caps(description, config, config_size);
    if (is_code(description, "PCMA"))
        return sample_caps("audio/x-alaw", description);
    if (is_code(description, "PCMU"))
        return sample_caps("audio/x-mulaw", description);
    return NULL;
}

GstCaps *shb_stream_caps(shb_kind_t kind, const shb_description_t *description, GBytes *codec_data, const guint8 *frame,
                         gsize size) {
    gsize config_size = 0;
    const guint8 *config = codec_data != NULL ? g_bytes_get_data(codec_data, &config_size) : NULL;
    if (kind == SHB_AUDIO)
        return audio_caps(description, config, config_size, frame, size);
    if (is_code(description, "H264"))
        return video_caps("video/x-h264", description);
    if (is_code(description, "H265"))
        return video_caps("video/x-h265", description);
    return NULL;
}
