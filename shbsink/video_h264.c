#include <string.h>

#define GST_USE_UNSTABLE_API
#include <gst/codecparsers/gsth264parser.h>
#include <gst/pbutils/codec-utils.h>

#include "video_report.h"

typedef struct {
    ShbVideoReader base;
    GstH264NalParser *parser;
    gboolean seen_frame; /* a whole frame, under parameter sets that allow fields */
} H264Reader;

#define PIC_STRUCT_NOT_TOLD (-1)
#define CAVLC_444_INTRA 44

/* What was met in one access unit. */
typedef struct {
    gboolean has_sps;
    gboolean recovery_point;
    gint pic_struct;
} H264Unit;

static void read_sps(H264Reader *reader, GstH264NalUnit *nalu) {
    GstH264SPS sps;
    if (gst_h264_parser_parse_sps(reader->parser, nalu, &sps) == GST_H264_PARSER_OK)
        gst_h264_sps_clear(&sps);
    reader->seen_frame = FALSE;
}

static void read_pps(H264Reader *reader, GstH264NalUnit *nalu) {
    GstH264PPS pps;
    if (gst_h264_parser_parse_pps(reader->parser, nalu, &pps) == GST_H264_PARSER_OK)
        gst_h264_pps_clear(&pps);
}

/* Parses new sets, sequence sets first: in the stream they may come in any order. */
static void read_sets(H264Reader *reader) {
    const GPtrArray *sets = reader->base.sets.sets;
    if (!reader->base.sets.unparsed)
        return;
    reader->base.sets.unparsed = FALSE;
    for (guint i = 0; i < sets->len; i++) {
        ShbParamSet *set = g_ptr_array_index(sets, i);
        GstH264NalUnit nalu;
        if (set->parsed)
            continue;
        set->parsed = TRUE;
        if (gst_h264_parser_identify_nalu_unchecked(reader->parser, set->unit->data, 0, set->unit->len, &nalu) !=
            GST_H264_PARSER_OK)
            continue;
        if (set->kind == SHB_SET_SEQUENCE)
            read_sps(reader, &nalu);
        else
            read_pps(reader, &nalu);
    }
}

static void read_sei(H264Reader *reader, GstH264NalUnit *nalu, H264Unit *unit) {
    /* The messages of interest cannot be read without the sequence they belong to. */
    read_sets(reader);
    if (reader->parser->last_sps == NULL)
        return;
    GArray *messages = NULL;
    gst_h264_parser_parse_sei(reader->parser, nalu, &messages);
    if (messages == NULL)
        return;
    for (guint i = 0; i < messages->len; i++) {
        const GstH264SEIMessage *message = &g_array_index(messages, GstH264SEIMessage, i);
        if (message->payloadType == GST_H264_SEI_RECOVERY_POINT)
            unit->recovery_point = TRUE;
        else if (message->payloadType == GST_H264_SEI_PIC_TIMING && message->payload.pic_timing.pic_struct_present_flag)
            unit->pic_struct = message->payload.pic_timing.pic_struct;
    }
    g_array_unref(messages);
}

static ShbScan scan_of(H264Reader *reader, const GstH264SPS *sps, const H264Unit *unit, gboolean field_picture) {
    if (sps->frame_mbs_only_flag)
        return SHB_SCAN_PROGRESSIVE;
    switch (unit->pic_struct) {
        case GST_H264_SEI_PIC_STRUCT_FRAME:
        case GST_H264_SEI_PIC_STRUCT_FRAME_DOUBLING:
        case GST_H264_SEI_PIC_STRUCT_FRAME_TRIPLING:
            reader->seen_frame = TRUE;
            break;
        case PIC_STRUCT_NOT_TOLD:
            reader->seen_frame |= !field_picture && !sps->mb_adaptive_frame_field_flag;
            break;
        default:
            break;
    }
    return reader->seen_frame ? SHB_SCAN_MIXED : SHB_SCAN_INTERLACED;
}

/* max_num_reorder_frames if stated, 0 where the standard infers no reordering, otherwise -1. */
static gint reorder_frames_of(const GstH264SPS *sps) {
    const GstH264VUIParams *vui = &sps->vui_parameters;
    if (sps->vui_parameters_present_flag && vui->bitstream_restriction_flag)
        return (gint)MIN(vui->num_reorder_frames, SHB_REORDER_MAX);
    /* Output order is coding order, or there are no B slices. */
    if (sps->pic_order_cnt_type == 2 || sps->profile_idc == GST_H264_PROFILE_BASELINE)
        return 0;
    switch (sps->profile_idc) {
        case GST_H264_PROFILE_HIGH:
        case GST_H264_PROFILE_HIGH10:
        case GST_H264_PROFILE_HIGH_422:
        case GST_H264_PROFILE_HIGH_444:
        case GST_H264_PROFILE_SCALABLE_HIGH:
            return sps->constraint_set3_flag ? 0 : -1;
        case CAVLC_444_INTRA:
            return 0;
        default:
            return -1;
    }
}

static void report_sps(const GstH264SPS *sps, const ShbVideoHints *hints, ShbVideoReport *report) {
    gboolean cropped = sps->frame_cropping_flag && sps->crop_rect_width > 0 && sps->crop_rect_height > 0;
    report->width = cropped ? sps->crop_rect_width : sps->width;
    report->height = cropped ? sps->crop_rect_height : sps->height;
    guint64 fps_n = 0, fps_d = 0;
    if (sps->vui_parameters_present_flag && sps->vui_parameters.timing_info_present_flag) {
        /* The tick is that of a field; frames come at half its rate, however a single picture is coded. */
        fps_n = sps->vui_parameters.time_scale;
        fps_d = (guint64)sps->vui_parameters.num_units_in_tick * 2;
    }
    shb_video_report_set_rate(report, fps_n, fps_d, hints);
    report->ref_frames = (gint)MIN(sps->num_ref_frames, (guint32)G_MAXINT);
    report->reorder_frames = reorder_frames_of(sps);
    const guint8 profile_and_level[3] = {
        sps->profile_idc,
        (guint8)(sps->constraint_set0_flag << 7 | sps->constraint_set1_flag << 6 | sps->constraint_set2_flag << 5 |
                 sps->constraint_set3_flag << 4 | sps->constraint_set4_flag << 3 | sps->constraint_set5_flag << 2),
        sps->level_idc,
    };
    const gchar *profile = gst_codec_utils_h264_get_profile(profile_and_level, sizeof profile_and_level);
    const gchar *level = gst_codec_utils_h264_get_level(profile_and_level, sizeof profile_and_level);
    g_strlcpy(report->profile, profile != NULL ? profile : "", sizeof report->profile);
    g_strlcpy(report->level, level != NULL ? level : "", sizeof report->level);
}

/* The sequence that this picture is coded under, which need not be the last one that came. */
static const GstH264SPS *sequence_of(H264Reader *reader, GstH264NalUnit *nalu, gboolean *field_picture) {
    GstH264SliceHdr slice;
    if (gst_h264_parser_parse_slice_hdr(reader->parser, nalu, &slice, FALSE, FALSE) != GST_H264_PARSER_OK ||
        slice.pps == NULL || slice.pps->sequence == NULL || !slice.pps->sequence->valid)
        return NULL;
    *field_picture = slice.field_pic_flag;
    return slice.pps->sequence;
}

static void read_unit(ShbVideoReader *base, const guint8 *data, gsize size, gboolean parser_says_key,
                      const ShbVideoHints *hints, ShbAccessUnit *out, ShbVideoReport *report) {
    H264Reader *reader = (H264Reader *)base;
    H264Unit unit = {.pic_struct = PIC_STRUCT_NOT_TOLD};
    out->key = FALSE;
    out->reported = FALSE;
    out->headers_only = FALSE;
    out->new_sets = FALSE;
    guint offset = 0;
    GstH264NalUnit nalu;
    /* Everything of interest stands before the first slice: the bulk of the data is not looked at. */
    while (gst_h264_parser_identify_nalu_unchecked(reader->parser, data, offset, size, &nalu) == GST_H264_PARSER_OK) {
        if (nalu.type >= GST_H264_NAL_SLICE && nalu.type <= GST_H264_NAL_SLICE_IDR) {
            /*
             * A decoder can also start at a recovery point, and at an intra picture that brings its parameter
             * sets.
             */
            out->headers_only = FALSE;
            out->new_sets = base->sets.changed;
            out->key = nalu.type == GST_H264_NAL_SLICE_IDR || unit.recovery_point || (parser_says_key && unit.has_sps);
            if (!out->key && !unit.has_sps && base->told)
                return;
            gboolean field_picture = FALSE;
            read_sets(reader);
            const GstH264SPS *sps = sequence_of(reader, &nalu, &field_picture);
            if (sps == NULL)
                return;
            report_sps(sps, hints, report);
            report->scan = scan_of(reader, sps, &unit, field_picture);
            out->reported = base->told = TRUE;
            return;
        }
        GstH264ParserResult found = gst_h264_parser_identify_nalu(reader->parser, data, offset, size, &nalu);
        if (found != GST_H264_PARSER_OK && found != GST_H264_PARSER_NO_NAL_END)
            break;
        switch (nalu.type) {
            case GST_H264_NAL_SPS:
                unit.has_sps = TRUE;
                out->headers_only = TRUE;
                shb_param_sets_put_h264(&base->sets, SHB_SET_SEQUENCE, nalu.data + nalu.offset, nalu.size);
                break;
            case GST_H264_NAL_PPS:
                out->headers_only = TRUE;
                shb_param_sets_put_h264(&base->sets, SHB_SET_PICTURE, nalu.data + nalu.offset, nalu.size);
                break;
            case GST_H264_NAL_SEI:
                read_sei(reader, &nalu, &unit);
                break;
            default:
                break;
        }
        offset = nalu.offset + nalu.size;
    }
}

static void free_h264(ShbVideoReader *base) {
    H264Reader *reader = (H264Reader *)base;
    gst_h264_nal_parser_free(reader->parser);
    g_free(reader);
}

ShbVideoReader *shb_h264_reader_new(void) {
    H264Reader *reader = g_new0(H264Reader, 1);
    shb_video_reader_init(&reader->base, read_unit, free_h264);
    reader->parser = gst_h264_nal_parser_new();
    return &reader->base;
}
