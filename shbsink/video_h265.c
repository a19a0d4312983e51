#include <string.h>

#define GST_USE_UNSTABLE_API
#include <gst/codecparsers/gsth265parser.h>
#include <gst/pbutils/codec-utils.h>

#include "video_report.h"

typedef struct {
    ShbVideoReader base;
    GstH265Parser *parser;
} H265Reader;

static void read_set(H265Reader *reader, GstH265NalUnit *nalu) {
    /* Each of these keeps its own copy in the parser; the one returned holds no memory. */
    switch (nalu->type) {
        case GST_H265_NAL_VPS: {
            GstH265VPS vps;
            gst_h265_parser_parse_vps(reader->parser, nalu, &vps);
            break;
        }
        case GST_H265_NAL_SPS: {
            GstH265SPS *sps = g_new0(GstH265SPS, 1);
            gst_h265_parser_parse_sps(reader->parser, nalu, sps, TRUE);
            g_free(sps);
            break;
        }
        default: {
            GstH265PPS *pps = g_new0(GstH265PPS, 1);
            gst_h265_parser_parse_pps(reader->parser, nalu, pps);
            g_free(pps);
            break;
        }
    }
}

/* Parses new sets, sequence sets first: in the stream they may come in any order. */
static void read_sets(H265Reader *reader) {
    const GPtrArray *sets = reader->base.sets.sets;
    if (!reader->base.sets.unparsed)
        return;
    reader->base.sets.unparsed = FALSE;
    for (guint i = 0; i < sets->len; i++) {
        ShbParamSet *set = g_ptr_array_index(sets, i);
        GstH265NalUnit nalu;
        if (set->parsed)
            continue;
        set->parsed = TRUE;
        if (gst_h265_parser_identify_nalu_unchecked(reader->parser, set->unit->data, 0, set->unit->len, &nalu) !=
            GST_H265_PARSER_OK)
            continue;
        read_set(reader, &nalu);
    }
}

static gboolean has_recovery_point(H265Reader *reader, GstH265NalUnit *nalu) {
    read_sets(reader);
    if (reader->parser->last_sps == NULL)
        return FALSE;
    GArray *messages = NULL;
    gboolean found = FALSE;
    gst_h265_parser_parse_sei(reader->parser, nalu, &messages);
    if (messages == NULL)
        return FALSE;
    for (guint i = 0; i < messages->len; i++)
        found |= g_array_index(messages, GstH265SEIMessage, i).payloadType == GST_H265_SEI_RECOVERY_POINT;
    g_array_unref(messages);
    return found;
}

static ShbScan scan_of(const GstH265SPS *sps, const ShbVideoHints *hints) {
    const GstH265ProfileTierLevel *ptl = &sps->profile_tier_level;
    if (sps->vui_parameters_present_flag && sps->vui_params.field_seq_flag)
        return SHB_SCAN_INTERLACED;
    if (ptl->progressive_source_flag && ptl->interlaced_source_flag)
        return SHB_SCAN_MIXED;
    if (ptl->progressive_source_flag)
        return SHB_SCAN_PROGRESSIVE;
    if (ptl->interlaced_source_flag || hints->interlaced)
        return SHB_SCAN_INTERLACED;
    return SHB_SCAN_PROGRESSIVE;
}

static void report_sps(const GstH265SPS *sps, const ShbVideoHints *hints, ShbVideoReport *report) {
    gboolean cropped = sps->conformance_window_flag && sps->crop_rect_width > 0 && sps->crop_rect_height > 0;
    report->width = cropped ? sps->crop_rect_width : sps->width;
    report->height = cropped ? sps->crop_rect_height : sps->height;
    guint64 fps_n = 0, fps_d = 0;
    if (sps->vui_parameters_present_flag && sps->vui_params.timing_info_present_flag) {
        fps_n = sps->vui_params.time_scale;
        fps_d = sps->vui_params.num_units_in_tick;
    } else if (sps->vps != NULL && sps->vps->valid && sps->vps->timing_info_present_flag) {
        fps_n = sps->vps->time_scale;
        fps_d = sps->vps->num_units_in_tick;
    }
    shb_video_report_set_rate(report, fps_n, fps_d, hints);
    guint layers = MIN(sps->max_sub_layers_minus1, GST_H265_MAX_SUB_LAYERS - 1);
    report->ref_frames = sps->max_dec_pic_buffering_minus1[layers];
    report->reorder_frames = (gint)MIN(sps->max_num_reorder_pics[layers], SHB_REORDER_MAX);
    report->scan = scan_of(sps, hints);

    const GstH265ProfileTierLevel *ptl = &sps->profile_tier_level;
    const gchar *profile = gst_h265_profile_to_string(gst_h265_profile_tier_level_get_profile(ptl));
    /* The helper wants the twelve coded bytes and looks at the level, the last of them. */
    guint8 coded[12] = {0};
    coded[11] = ptl->level_idc;
    const gchar *level = gst_codec_utils_h265_get_level(coded, sizeof coded);
    g_strlcpy(report->profile, profile != NULL ? profile : "", sizeof report->profile);
    g_strlcpy(report->level, level != NULL ? level : "", sizeof report->level);
}

static ShbSetKind set_kind(const GstH265NalUnit *nalu) {
    if (nalu->type == GST_H265_NAL_VPS)
        return SHB_SET_VIDEO;
    return nalu->type == GST_H265_NAL_SPS ? SHB_SET_SEQUENCE : SHB_SET_PICTURE;
}

static gboolean report_picture(H265Reader *reader, GstH265NalUnit *nalu, const ShbVideoHints *hints, ShbVideoReport *report) {
    read_sets(reader);
    GstH265SliceHdr *slice = g_new0(GstH265SliceHdr, 1);
    gboolean known = gst_h265_parser_parse_slice_hdr(reader->parser, nalu, slice) == GST_H265_PARSER_OK;
    if (known) {
        known = slice->pps != NULL && slice->pps->sps != NULL && slice->pps->sps->valid;
        if (known)
            report_sps(slice->pps->sps, hints, report);
        gst_h265_slice_hdr_free(slice);
    }
    g_free(slice);
    return known;
}

static void read_unit(ShbVideoReader *base, const guint8 *data, gsize size, gboolean parser_says_key,
                      const ShbVideoHints *hints, ShbAccessUnit *out, ShbVideoReport *report) {
    (void)parser_says_key; /* the picture type itself tells */
    H265Reader *reader = (H265Reader *)base;
    gboolean recovery_point = FALSE, has_sps = FALSE;
    out->key = FALSE;
    out->reported = FALSE;
    out->headers_only = FALSE;
    out->new_sets = FALSE;
    guint offset = 0;
    GstH265NalUnit nalu;
    /* Everything of interest stands before the first slice: the bulk of the data is not looked at. */
    while (gst_h265_parser_identify_nalu_unchecked(reader->parser, data, offset, size, &nalu) == GST_H265_PARSER_OK) {
        if (nalu.type < GST_H265_NAL_VPS) {
            out->headers_only = FALSE;
            out->new_sets = base->sets.changed;
            out->key = (nalu.type >= GST_H265_NAL_SLICE_BLA_W_LP && nalu.type <= GST_H265_NAL_SLICE_CRA_NUT) || recovery_point;
            if (out->key || has_sps || !base->told)
                out->reported = report_picture(reader, &nalu, hints, report);
            base->told |= out->reported;
            return;
        }
        GstH265ParserResult found = gst_h265_parser_identify_nalu(reader->parser, data, offset, size, &nalu);
        if (found != GST_H265_PARSER_OK && found != GST_H265_PARSER_NO_NAL_END)
            break;
        switch (nalu.type) {
            case GST_H265_NAL_VPS:
            case GST_H265_NAL_SPS:
            case GST_H265_NAL_PPS:
                out->headers_only = TRUE;
                has_sps |= nalu.type == GST_H265_NAL_SPS;
                /* Other layers' sets have numbers of their own. */
                if (nalu.layer_id == 0)
                    shb_param_sets_put_h265(&base->sets, set_kind(&nalu), nalu.data + nalu.offset, nalu.size);
                break;
            case GST_H265_NAL_PREFIX_SEI:
                recovery_point |= has_recovery_point(reader, &nalu);
                break;
            default:
                break;
        }
        offset = nalu.offset + nalu.size;
    }
}

static void free_h265(ShbVideoReader *base) {
    H265Reader *reader = (H265Reader *)base;
    gst_h265_parser_free(reader->parser);
    g_free(reader);
}

ShbVideoReader *shb_h265_reader_new(void) {
    H265Reader *reader = g_new0(H265Reader, 1);
    shb_video_reader_init(&reader->base, read_unit, free_h265);
    reader->parser = gst_h265_parser_new();
    return &reader->base;
}
