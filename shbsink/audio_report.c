#include "audio_report.h"

/* Frames of data that may come without a length before the codec's usual one is taken. */
#define PATIENCE 4

static gint field(const GstStructure *caps, const gchar *name, gint otherwise) {
    gint value;
    return gst_structure_get_int(caps, name, &value) && value > 0 ? value : otherwise;
}

static void mpeg_audio(ShbAudioReport *report, const GstStructure *caps) {
    if (field(caps, "mpegversion", 0) != 1) {
        report->code = "AAC";
        report->samples_per_frame = 1024;
        return;
    }
    switch (field(caps, "layer", 3)) {
        case 1:
            report->code = "MP1";
            report->samples_per_frame = 384;
            break;
        case 2:
            report->code = "MP2";
            report->samples_per_frame = 1152;
            break;
        default:
            report->code = "MP3";
            /* The low sampling rates of versions 2 and 2.5 come with frames of half the length. */
            report->samples_per_frame = field(caps, "mpegaudioversion", 1) == 1 ? 1152 : 576;
            break;
    }
}

static void sample_wise(ShbAudioReport *report, const gchar *code) {
    report->code = code;
    report->bits_per_sample = 8;
    if (report->channels == 0)
        report->channels = 1;
    if (report->sample_rate == 0)
        report->sample_rate = 8000;
    report->nominal_bitrate = report->sample_rate * report->channels * report->bits_per_sample;
}

void shb_audio_report_from_caps(ShbAudioReport *report, const GstStructure *caps) {
    *report = (ShbAudioReport){0};
    report->sample_rate = field(caps, "rate", 0);
    report->channels = field(caps, "channels", 0);
    report->nominal_bitrate = field(caps, "bitrate", 0);
    if (gst_structure_has_name(caps, "audio/mpeg")) {
        mpeg_audio(report, caps);
    } else if (gst_structure_has_name(caps, "audio/x-ac3")) {
        report->code = "AC3";
        report->samples_per_frame = 1536;
    } else if (gst_structure_has_name(caps, "audio/x-eac3")) {
        report->code = "EAC3";
    } else if (gst_structure_has_name(caps, "audio/x-opus")) {
        report->code = "OPUS";
        /* Opus always decodes at 48 kHz, and means stereo where nothing else is said. */
        if (report->sample_rate == 0)
            report->sample_rate = 48000;
        if (report->channels == 0)
            report->channels = 2;
    } else if (gst_structure_has_name(caps, "audio/x-alaw")) {
        sample_wise(report, "PCMA");
    } else if (gst_structure_has_name(caps, "audio/x-mulaw")) {
        sample_wise(report, "PCMU");
    } else if (gst_structure_has_name(caps, "audio/x-vorbis")) {
        report->code = "VORBIS";
    }
}

void shb_audio_report_from_frame(ShbAudioReport *report, gsize size, GstClockTime duration) {
    if (report->bits_per_sample > 0) {
        report->samples_per_frame = (gint)(size * 8 / (gsize)(report->bits_per_sample * report->channels));
    } else if (GST_CLOCK_TIME_IS_VALID(duration) && duration > 0 && duration <= 10 * GST_SECOND) {
        report->samples_per_frame = (gint)gst_util_uint64_scale_round(duration, (guint64)report->sample_rate, GST_SECOND);
    } else if (++report->frames_without_length >= PATIENCE) {
        gboolean opus = report->code != NULL && g_str_equal(report->code, "OPUS");
        report->samples_per_frame = opus ? report->sample_rate / 50 : 1024;
    }
}
