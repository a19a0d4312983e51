#include "live_track.h"

#include <gst/app/app.h>
#include <gtest/gtest.h>

#include "wait_for.h"

namespace {

bool IsH265(const std::string &file) {
    return file.size() > 5 && file.compare(file.size() - 5, 5, ".h265") == 0;
}

std::string CapsText(bool h265) {
    return std::string(h265 ? "video/x-h265" : "video/x-h264") + ",stream-format=byte-stream,alignment=au";
}

}  // namespace

std::vector<std::string> AccessUnits(const std::string &file) {
    const bool h265 = IsH265(file);
    const std::string text = std::string("filesrc name=source ! ") + (h265 ? "h265parse" : "h264parse") + " ! " +
                             CapsText(h265) + " ! appsink name=sink sync=false";
    GstElement *pipeline = gst_parse_launch(text.c_str(), nullptr);
    std::vector<std::string> units;
    if (pipeline == nullptr) {
        ADD_FAILURE() << text;
        return units;
    }
    GstElement *source = gst_bin_get_by_name(GST_BIN(pipeline), "source");
    g_object_set(source, "location", file.c_str(), nullptr);
    gst_object_unref(source);
    GstElement *sink = gst_bin_get_by_name(GST_BIN(pipeline), "sink");
    gst_element_set_state(pipeline, GST_STATE_PLAYING);
    while (GstSample *sample = gst_app_sink_try_pull_sample(GST_APP_SINK(sink), 60 * GST_SECOND)) {
        GstBuffer *buffer = gst_sample_get_buffer(sample);
        std::string unit(gst_buffer_get_size(buffer), '\0');
        gst_buffer_extract(buffer, 0, unit.data(), unit.size());
        units.push_back(std::move(unit));
        gst_sample_unref(sample);
    }
    gst_element_set_state(pipeline, GST_STATE_NULL);
    gst_object_unref(sink);
    gst_object_unref(pipeline);
    EXPECT_FALSE(units.empty()) << file;
    return units;
}

std::string Joined(const std::vector<std::string> &units, size_t begin, size_t end) {
    std::string all;
    for (size_t i = begin; i < end && i < units.size(); ++i) {
        all += units[i];
    }
    return all;
}

LiveBuffer::LiveBuffer(const std::string &name)
    : m_name(name), m_buffer([&name] {
          shb_buffer_t *buffer = nullptr;
          EXPECT_EQ(shb_create(name.c_str(), nullptr, &buffer), SHB_OK);
          return buffer;
      }()) {}

void LiveBuffer::LeaveOut(shb_kind_t kind) const {
    EXPECT_EQ(shb_set_presence(m_buffer.get(), 0, 0, kind, SHB_PRESENCE_ABSENT), SHB_OK);
}

LiveVideo::LiveVideo(const LiveBuffer &buffer, bool h265) : m_buffer(buffer) {
    const std::string caps = CapsText(h265);
    const std::string text = "appsrc name=source format=time is-live=true do-timestamp=true caps=" + caps + " ! " +
                             (h265 ? "h265parse" : "h264parse") + " ! " + caps + " ! shbsink name=sink sync=false async=false";
    m_pipeline = gst_parse_launch(text.c_str(), nullptr);
    if (m_pipeline == nullptr) {
        throw std::runtime_error(text);
    }
    GstElement *sink = gst_bin_get_by_name(GST_BIN(m_pipeline), "sink");
    constexpr gint kH264 = 48;
    constexpr gint kH265 = 64;
    g_object_set(sink, "share-buffer", buffer.Get(), "media", h265 ? kH265 : kH264, nullptr);
    gst_object_unref(sink);
    m_source = gst_bin_get_by_name(GST_BIN(m_pipeline), "source");
    gst_object_unref(m_source);
    gst_element_set_state(m_pipeline, GST_STATE_PLAYING);
}

LiveVideo::~LiveVideo() {
    gst_element_set_state(m_pipeline, GST_STATE_NULL);
    gst_object_unref(m_pipeline);
}

void LiveVideo::Push(const std::string &unit) {
    gst_app_src_push_buffer(GST_APP_SRC(m_source), gst_buffer_new_memdup(unit.data(), unit.size()));
    ++m_pushed;
    EXPECT_TRUE(WaitFor([this] {
        shb_stats_t stats{};
        return shb_buffer_stats(m_buffer.Get(), 0, 0, SHB_VIDEO, &stats) == SHB_OK && stats.frames >= m_pushed;
    }));
}

void LiveVideo::Push(const std::vector<std::string> &units, size_t begin, size_t end) {
    for (size_t i = begin; i < end && i < units.size(); ++i) {
        Push(units[i]);
    }
}
