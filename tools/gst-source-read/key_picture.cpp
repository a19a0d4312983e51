#include "key_picture.h"

#define GST_USE_UNSTABLE_API
#include <gst/codecparsers/gsth264parser.h>
#include <gst/codecparsers/gsth265parser.h>

namespace reader {

// Reads access units in their order. The parsing is GStreamer's.
struct KeyPicture::Reader {
    Reader() = default;
    virtual ~Reader() = default;
    Reader(const Reader &) = delete;
    Reader &operator=(const Reader &) = delete;

    struct Unit {
        bool picture = false;
        bool read = false;   // its header could be read
        bool start = false;  // decoding can start here without anything that follows
        bool field = false;  // the picture is one field
        uint32_t count = 0;  // number of the picture, which wraps around at `wrap`
        uint32_t wrap = 1;
        uint32_t recovery = 0;  // how much higher the number of the first whole picture is
    };
    virtual Unit Read(const guint8 *data, gsize size) = 0;

    Unit key;  // the first one
};

namespace {

using Reader = KeyPicture::Reader;

uint32_t AtLeastZero(gint32 number) {
    return number > 0 ? static_cast<uint32_t>(number) : 0;
}

struct FreeArray {
    void operator()(GArray *array) const { g_array_unref(array); }
};
using Array = std::unique_ptr<GArray, FreeArray>;

class H264 : public Reader {
  public:
    H264() = default;
    ~H264() override { gst_h264_nal_parser_free(m_parser); }
    H264(const H264 &) = delete;
    H264 &operator=(const H264 &) = delete;

    Unit Read(const guint8 *data, gsize size) override {
        Unit unit;
        GstH264NalUnit nalu{};
        bool top = false;
        bool bottom = false;
        for (guint offset = 0;; offset = nalu.offset + nalu.size) {
            const GstH264ParserResult found = gst_h264_parser_identify_nalu(m_parser, data, offset, size, &nalu);
            if (found != GST_H264_PARSER_OK && found != GST_H264_PARSER_NO_NAL_END) {
                break;
            }
            if (nalu.type != GST_H264_NAL_SLICE && nalu.type != GST_H264_NAL_SLICE_IDR) {
                ReadHeader(nalu, unit);
                continue;
            }
            unit.picture = true;
            GstH264SliceHdr slice{};
            if (gst_h264_parser_parse_slice_hdr(m_parser, &nalu, &slice, FALSE, FALSE) == GST_H264_PARSER_OK) {
                unit.read = true;
                unit.start = unit.start || nalu.type == GST_H264_NAL_SLICE_IDR;
                unit.count = slice.frame_num;
                unit.wrap = slice.pps->sequence->max_frame_num;
                (slice.bottom_field_flag != 0 ? bottom : top) = true;
                // Both fields can be in one unit.
                unit.field = slice.field_pic_flag != 0 && !(top && bottom);
            }
        }
        return unit;
    }

  private:
    void ReadHeader(GstH264NalUnit &nalu, Unit &unit) {
        if (nalu.type == GST_H264_NAL_SPS) {
            GstH264SPS sps{};
            if (gst_h264_parser_parse_sps(m_parser, &nalu, &sps) == GST_H264_PARSER_OK) {
                gst_h264_sps_clear(&sps);
            }
        } else if (nalu.type == GST_H264_NAL_PPS) {
            GstH264PPS pps{};
            if (gst_h264_parser_parse_pps(m_parser, &nalu, &pps) == GST_H264_PARSER_OK) {
                gst_h264_pps_clear(&pps);
            }
        } else if (nalu.type == GST_H264_NAL_SEI && m_parser->last_sps != nullptr) {
            GArray *parsed = nullptr;
            gst_h264_parser_parse_sei(m_parser, &nalu, &parsed);
            const Array messages(parsed);
            for (guint i = 0; messages && i < messages->len; ++i) {
                const auto &message = g_array_index(messages.get(), GstH264SEIMessage, i);
                if (message.payloadType == GST_H264_SEI_RECOVERY_POINT) {
                    unit.recovery = message.payload.recovery_point.recovery_frame_cnt;
                }
            }
        }
    }

    GstH264NalParser *const m_parser = gst_h264_nal_parser_new();
};

class H265 : public Reader {
  public:
    H265() = default;
    ~H265() override { gst_h265_parser_free(m_parser); }
    H265(const H265 &) = delete;
    H265 &operator=(const H265 &) = delete;

    Unit Read(const guint8 *data, gsize size) override {
        Unit unit;
        GstH265NalUnit nalu{};
        for (guint offset = 0;; offset = nalu.offset + nalu.size) {
            const GstH265ParserResult found = gst_h265_parser_identify_nalu(m_parser, data, offset, size, &nalu);
            if (found != GST_H265_PARSER_OK && found != GST_H265_PARSER_NO_NAL_END) {
                break;
            }
            if (nalu.type > GST_H265_NAL_SLICE_CRA_NUT) {
                ReadHeader(nalu, unit);
                continue;
            }
            unit.picture = true;
            const auto slice = std::make_unique<GstH265SliceHdr>();
            if (!unit.read && gst_h265_parser_parse_slice_hdr(m_parser, &nalu, slice.get()) == GST_H265_PARSER_OK) {
                const GstH265SPS *sps = slice->pps->sps;
                unit.read = true;
                unit.start = nalu.type >= GST_H265_NAL_SLICE_BLA_W_LP;
                unit.count = slice->pic_order_cnt_lsb;
                unit.wrap = 1U << (sps->log2_max_pic_order_cnt_lsb_minus4 + 4U);
                unit.field = sps->vui_parameters_present_flag != 0 && sps->vui_params.field_seq_flag != 0;
                gst_h265_slice_hdr_free(slice.get());
            }
        }
        return unit;
    }

  private:
    void ReadHeader(GstH265NalUnit &nalu, Unit &unit) {
        if (nalu.type == GST_H265_NAL_VPS) {
            gst_h265_parser_parse_vps(m_parser, &nalu, std::make_unique<GstH265VPS>().get());
        } else if (nalu.type == GST_H265_NAL_SPS) {
            gst_h265_parser_parse_sps(m_parser, &nalu, std::make_unique<GstH265SPS>().get(), TRUE);
        } else if (nalu.type == GST_H265_NAL_PPS) {
            gst_h265_parser_parse_pps(m_parser, &nalu, std::make_unique<GstH265PPS>().get());
        } else if (nalu.type == GST_H265_NAL_PREFIX_SEI && m_parser->last_sps != nullptr) {
            GArray *parsed = nullptr;
            gst_h265_parser_parse_sei(m_parser, &nalu, &parsed);
            const Array messages(parsed);
            for (guint i = 0; messages && i < messages->len; ++i) {
                const auto &message = g_array_index(messages.get(), GstH265SEIMessage, i);
                if (message.payloadType == GST_H265_SEI_RECOVERY_POINT) {
                    unit.recovery = AtLeastZero(message.payload.recovery_point.recovery_poc_cnt);
                }
            }
        }
    }

    GstH265Parser *const m_parser = gst_h265_parser_new();
};

std::unique_ptr<Reader> MakeReader(VideoCodec codec) {
    if (codec == VideoCodec::kH264) {
        return std::make_unique<H264>();
    }
    return std::make_unique<H265>();
}

}  // namespace

KeyPicture::KeyPicture(VideoCodec codec) : m_reader(MakeReader(codec)) {}

KeyPicture::~KeyPicture() = default;

bool KeyPicture::Add(std::string_view unit) {
    const Reader::Unit now = m_reader->Read(reinterpret_cast<const guint8 *>(unit.data()), unit.size());
    Reader::Unit &key = m_reader->key;
    if (!m_begun) {
        m_begun = true;
        key = now;
        m_refreshed = now.recovery > 0 && !now.start;
        m_count = now.count;
    }
    // What cannot be read is left to the decoder.
    if (!now.read || !key.read) {
        return now.picture;
    }
    // Numbers wrap around sooner than a picture is refreshed.
    const int64_t step = (int64_t{now.count} - m_count + 2 * int64_t{now.wrap}) % now.wrap;
    m_distance += step > now.wrap / 2 ? step - now.wrap : step;
    m_count = now.count;
    if (m_refreshed && !now.start && m_distance < key.recovery) {
        return false;
    }
    // The second field ends the picture, and so does whatever else follows a field that has none.
    const bool whole = !now.field || m_hasField;
    m_hasField = now.field;
    return whole;
}

bool KeyPicture::IsRefreshed() const {
    return m_refreshed;
}

}  // namespace reader
