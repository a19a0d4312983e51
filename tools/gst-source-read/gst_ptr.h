// Who holds which reference of GStreamer's objects is in its type.
#pragma once

#include <gst/gst.h>

#include <memory>

namespace reader {

struct UnrefObject {
    void operator()(gpointer object) const { gst_object_unref(object); }
};
struct UnrefBuffer {
    void operator()(GstBuffer *buffer) const { gst_buffer_unref(buffer); }
};
struct UnrefCaps {
    void operator()(GstCaps *caps) const { gst_caps_unref(caps); }
};
struct UnrefSample {
    void operator()(GstSample *sample) const { gst_sample_unref(sample); }
};
struct UnrefMessage {
    void operator()(GstMessage *message) const { gst_message_unref(message); }
};
struct FreeText {
    void operator()(gchar *text) const { g_free(text); }
};
struct FreeError {
    void operator()(GError *error) const { g_error_free(error); }
};
// A pipeline stops before it goes.
struct StopPipeline {
    void operator()(GstElement *pipeline) const {
        gst_element_set_state(pipeline, GST_STATE_NULL);
        gst_object_unref(pipeline);
    }
};

using ElementPtr = std::unique_ptr<GstElement, UnrefObject>;
using PadPtr = std::unique_ptr<GstPad, UnrefObject>;
using BusPtr = std::unique_ptr<GstBus, UnrefObject>;
using ClockPtr = std::unique_ptr<GstClock, UnrefObject>;
using FactoryPtr = std::unique_ptr<GstElementFactory, UnrefObject>;
using BufferPtr = std::unique_ptr<GstBuffer, UnrefBuffer>;
using CapsPtr = std::unique_ptr<GstCaps, UnrefCaps>;
using SamplePtr = std::unique_ptr<GstSample, UnrefSample>;
using MessagePtr = std::unique_ptr<GstMessage, UnrefMessage>;
using TextPtr = std::unique_ptr<gchar, FreeText>;
using ErrorPtr = std::unique_ptr<GError, FreeError>;
using PipelinePtr = std::unique_ptr<GstElement, StopPipeline>;

}  // namespace reader
