#include "Fixture.h"

namespace unit {

void ExpectNothingLives() {
    EXPECT_TRUE(Eventually([] { return LiveObjects().empty(); })) << testing::PrintToString(LiveObjects());
}

void PostOn(CBaseSource &source, GstMessage *message) {
    GstBus *bus = GST_BUS(gst_object_ref(SourceProbe::Bus(source)));
    gst_bus_post(bus, message);
    gst_object_unref(bus);
}

GstElement *AnySink() {
    static int sink = 0;
    return static_cast<GstElement *>(static_cast<void *>(&sink));
}

void ReportVideo(CBaseSource &source, const VideoReport &report) {
    std::string code = report.code;
    std::string scan = report.scanType != nullptr ? report.scanType : "";
    CBaseSource::shbsink_video_changed_handler(AnySink(), code.data(), nullptr, nullptr,
                                               report.scanType != nullptr ? scan.data() : nullptr, report.width, report.height,
                                               report.fpsN, report.fpsD, report.refFrames, &source);
}

void ReportAudio(CBaseSource &source, const AudioReport &report) {
    std::string code = report.code;
    CBaseSource::shbsink_audio_changed_handler(AnySink(), code.data(), report.sampleRate, report.channels, report.samples,
                                               report.extra, -1, -2, &source);
}

GstElement *Element(CBaseSource &source, const std::string &name) {
    GstElement *pipeline = SourceProbe::Pipeline(source);
    GstElement *element = pipeline != nullptr ? gst_bin_get_by_name(GST_BIN(pipeline), name.c_str()) : nullptr;
    if (element != nullptr) {
        gst_object_unref(element);
    }
    return element;
}

std::string FactoryOf(GstElement *element) {
    GstElementFactory *factory = gst_element_get_factory(element);
    return factory != nullptr ? GST_OBJECT_NAME(factory) : "?";
}

TestPad MakePad(const std::string &name, const std::string &caps, GstPadDirection direction) {
    TestPad pad(GST_PAD(gst_object_ref_sink(gst_pad_new(name.c_str(), direction))));
    gst_pad_set_active(pad.get(), TRUE);
    if (!caps.empty() && direction == GST_PAD_SRC) {
        GstCaps *parsed = gst_caps_from_string(caps.c_str());
        gst_pad_push_event(pad.get(), gst_event_new_stream_start(name.c_str()));
        gst_pad_set_caps(pad.get(), parsed);
        gst_caps_unref(parsed);
    }
    return pad;
}

TestPad MakeOddPad(const std::string &name, const std::string &caps) {
    TestPad pad = MakePad(name, "");
    GstCaps *parsed = gst_caps_from_string(caps.c_str());
    // gst_event_new_caps refuses such caps; some elements have stored them all the same.
    GstEvent *event =
        gst_event_new_custom(GST_EVENT_CAPS, gst_structure_new("GstEventCaps", "caps", GST_TYPE_CAPS, parsed, nullptr));
    gst_caps_unref(parsed);
    EXPECT_EQ(GST_FLOW_OK, gst_pad_store_sticky_event(pad.get(), event));
    gst_event_unref(event);
    return pad;
}

namespace {

struct Occupation {
    std::string element;
    GstPad *other;
};

void Occupy(GstBin *, GstElement *element, gpointer user) {
    const auto *occupation = static_cast<const Occupation *>(user);
    if (occupation->element == GST_ELEMENT_NAME(element)) {
        GstPad *sink = gst_element_get_static_pad(element, "sink");
        EXPECT_EQ(GST_PAD_LINK_OK, gst_pad_link(occupation->other, sink));
        gst_object_unref(sink);
    }
}

void EndOccupation(gpointer data, GClosure *) {
    delete static_cast<Occupation *>(data);
}

}  // namespace

void OccupyWhenAdded(CBaseSource &source, const std::string &element, const TestPad &other) {
    g_signal_connect_data(SourceProbe::Pipeline(source), "element-added", G_CALLBACK(Occupy),
                          new Occupation{element, other.get()}, EndOccupation, GConnectFlags(0));
}

std::vector<std::string> ChainBehind(GstPad *pad) {
    std::vector<std::string> chain;
    GstPad *source = GST_PAD(gst_object_ref(pad));
    while (source != nullptr) {
        GstPad *peer = gst_pad_get_peer(source);
        gst_object_unref(source);
        source = nullptr;
        if (peer != nullptr) {
            GstElement *element = gst_pad_get_parent_element(peer);
            if (element != nullptr) {
                chain.push_back(FactoryOf(element) + " " + GST_ELEMENT_NAME(element));
                source = gst_element_get_static_pad(element, "src");
                gst_object_unref(element);
            }
            gst_object_unref(peer);
        }
    }
    return chain;
}

}  // namespace unit
