#include "picture.h"

#include <gst/app/app.h>
#include <gst/video/video.h>

#include <chrono>
#include <mutex>
#include <stdexcept>

#include "interrupts.h"
#include "packages.h"
#include "square.h"
#include "text.h"

namespace reader {
namespace {

using Clock = std::chrono::steady_clock;

// A slow machine takes seconds for a large picture. What takes longer has gone wrong.
constexpr std::chrono::seconds kLongest{60};

CapsPtr CapsOf(VideoCodec codec) {
    return CapsPtr(gst_caps_new_simple(codec == VideoCodec::kH264 ? "video/x-h264" : "video/x-h265", "stream-format",
                                       G_TYPE_STRING, "byte-stream", "alignment", G_TYPE_STRING, "au", nullptr));
}

// appsrc ! decodebin ! appsink.
class Decoder {
  public:
    explicit Decoder(const KeyFrame &frame) : m_frame(frame), m_caps(CapsOf(frame.codec)) {
        gst_bin_add_many(GST_BIN(m_pipeline.get()), m_source.get(), m_decodebin.get(), m_sink.get(), nullptr);
        gst_element_link(m_source.get(), m_decodebin.get());
        g_object_set(m_source.get(), "caps", m_caps.get(), nullptr);
        g_object_set(m_sink.get(), "sync", FALSE, nullptr);
        g_signal_connect(m_decodebin.get(), "pad-added", G_CALLBACK(OnPad), this);
        GstAppSinkCallbacks callbacks{};
        callbacks.new_sample = OnSample;
        gst_app_sink_set_callbacks(GST_APP_SINK(m_sink.get()), &callbacks, this, nullptr);
    }
    ~Decoder() { gst_element_set_state(m_pipeline.get(), GST_STATE_NULL); }
    Decoder(const Decoder &) = delete;
    Decoder &operator=(const Decoder &) = delete;

    SamplePtr Run() {
        gst_element_set_state(m_pipeline.get(), GST_STATE_PLAYING);
        for (const std::string &unit : m_frame.units) {
            gst_app_src_push_buffer(GST_APP_SRC(m_source.get()), gst_buffer_new_memdup(unit.data(), unit.size()));
        }
        // With the end the decoder gives out what it would hold back for the frames that follow.
        gst_app_src_end_of_stream(GST_APP_SRC(m_source.get()));
        const std::string trouble = WaitForEnd();
        const std::lock_guard lock(m_lock);
        if (!m_picture) {
            throw std::runtime_error(trouble.empty() ? NoPicture("") : trouble);
        }
        return std::move(m_picture);
    }

  private:
    // Why it has failed; empty when all was decoded.
    std::string WaitForEnd() {
        const BusPtr bus(gst_element_get_bus(m_pipeline.get()));
        const Clock::time_point deadline = Clock::now() + kLongest;
        std::string missing;
        while (Clock::now() < deadline) {
            if (tool::interrupts::StopRequested()) {
                return "ended before there was a picture";
            }
            const auto kinds = static_cast<GstMessageType>(GST_MESSAGE_EOS | GST_MESSAGE_ERROR | GST_MESSAGE_ELEMENT);
            const MessagePtr message(gst_bus_timed_pop_filtered(bus.get(), 100 * GST_MSECOND, kinds));
            if (!message) {
                continue;
            }
            if (GST_MESSAGE_TYPE(message.get()) == GST_MESSAGE_EOS) {
                return missing;
            }
            if (GST_MESSAGE_TYPE(message.get()) == GST_MESSAGE_ERROR) {
                return missing.empty() ? NoPicture(ErrorText(message.get())) : missing;
            }
            // The error that follows says less.
            if (missing.empty()) {
                missing = MissingPart(message.get());
            }
        }
        return NoPicture("it gives no answer");
    }

    std::string NoPicture(const std::string &reason) const {
        std::string text = "the decoder made no picture of " + m_frame.description;
        text += reason.empty() ? "" : " (" + reason + ")";
        // Other decoders leave out interlaced pictures and higher profiles.
        const char *complete = m_frame.codec == VideoCodec::kH264 ? "avdec_h264" : "avdec_h265";
        const FactoryPtr installed(gst_element_factory_find(complete));
        return installed ? text : text + "; for a decoder of all forms: apt install gstreamer1.0-libav";
    }

    static void OnPad(GstElement * /*decodebin*/, GstPad *pad, gpointer user) {
        Decoder &self = *static_cast<Decoder *>(user);
        const PadPtr end(gst_element_get_static_pad(self.m_sink.get(), "sink"));
        const CapsPtr caps(gst_pad_get_current_caps(pad));
        GstVideoInfo info;
        gst_video_info_init(&info);
        const bool known = caps && gst_video_info_from_caps(&info, caps.get()) != FALSE;
        if (known && GST_VIDEO_INFO_INTERLACE_MODE(&info) == GST_VIDEO_INTERLACE_MODE_ALTERNATE) {
            self.Weave(pad);
        } else {
            gst_pad_link(pad, end.get());
        }
    }

    // Puts two pictures of one field each into one.
    void Weave(GstPad *pad) {
        gst_bin_add(GST_BIN(m_pipeline.get()), m_weaver.get());
        gst_util_set_object_arg(G_OBJECT(m_weaver.get()), "method", "weave");
        const PadPtr begin(gst_element_get_static_pad(m_weaver.get(), "sink"));
        gst_pad_link(pad, begin.get());
        gst_element_link(m_weaver.get(), m_sink.get());
        gst_element_sync_state_with_parent(m_weaver.get());
    }

    static GstFlowReturn OnSample(GstAppSink *sink, gpointer user) {
        Decoder &self = *static_cast<Decoder *>(user);
        SamplePtr sample(gst_app_sink_pull_sample(sink));
        const std::lock_guard lock(self.m_lock);
        if (!self.m_picture || self.m_frame.want_last) {
            self.m_picture = std::move(sample);
        }
        return GST_FLOW_OK;
    }

    const KeyFrame &m_frame;
    const CapsPtr m_caps;
    const ElementPtr m_pipeline = NewElement("pipeline");
    const ElementPtr m_source = NewElement("appsrc");
    const ElementPtr m_decodebin = NewElement("decodebin");
    const ElementPtr m_weaver = NewElement("deinterlace");
    const ElementPtr m_sink = NewElement("appsink");
    std::mutex m_lock;
    SamplePtr m_picture;
};

SamplePtr Convert(GstSample *from, const CapsPtr &caps) {
    GError *error = nullptr;
    constexpr GstClockTime kTime = std::chrono::nanoseconds(kLongest).count();
    GstSample *made = gst_video_convert_sample(from, caps.get(), kTime, &error);
    if (made == nullptr) {
        const std::string reason = error != nullptr ? error->message : "no reason given";
        g_clear_error(&error);
        throw std::runtime_error("the picture cannot be converted: " + tool::Printable(reason));
    }
    return SamplePtr(made);
}

}  // namespace

SamplePtr DecodePicture(const KeyFrame &frame) {
    return Decoder(frame).Run();
}

SamplePtr EncodePicture(GstSample *picture, PictureFormat format, int width) {
    // The conversion looks for them itself and would not say which package has them.
    for (const char *part : {"videoconvert", "videoscale", format == PictureFormat::kPng ? "pngenc" : "jpegenc"}) {
        NewElement(part);
    }
    GstVideoInfo info;
    gst_video_info_init(&info);
    GstCaps *raw = gst_sample_get_caps(picture);
    if (raw == nullptr || gst_video_info_from_caps(&info, raw) == FALSE) {
        throw std::runtime_error("the decoder gives no picture in memory");
    }
    const PictureSize square = SquarePixels({GST_VIDEO_INFO_WIDTH(&info), GST_VIDEO_INFO_HEIGHT(&info)},
                                            GST_VIDEO_INFO_PAR_N(&info), GST_VIDEO_INFO_PAR_D(&info));
    const PictureSize size = NoWiderThan(square, width);
    // By way of RGB: jpegenc takes YUV as it is, and JPEG has another range and other colours than television.
    const CapsPtr rgb(gst_caps_new_simple("video/x-raw", "format", G_TYPE_STRING, "RGB", "width", G_TYPE_INT, size.width,
                                          "height", G_TYPE_INT, size.height, "pixel-aspect-ratio", GST_TYPE_FRACTION, 1, 1,
                                          nullptr));
    const SamplePtr colours = Convert(picture, rgb);
    const CapsPtr file(gst_caps_new_empty_simple(format == PictureFormat::kPng ? "image/png" : "image/jpeg"));
    return Convert(colours.get(), file);
}

SampleBytes::SampleBytes(GstSample *sample) : m_buffer(gst_sample_get_buffer(sample)) {
    if (gst_buffer_map(m_buffer, &m_map, GST_MAP_READ) == FALSE) {
        throw std::runtime_error("the picture is not in memory");
    }
}

SampleBytes::~SampleBytes() {
    gst_buffer_unmap(m_buffer, &m_map);
}

}  // namespace reader
