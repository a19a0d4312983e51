// Classification of bus messages, with what it prints.
#include "support/Fixture.h"

namespace unit {

namespace {

class BusMessage : public SourceTest {
  protected:
    void SetUp() override { Make(ClassOf(SOURCE_TYPE_UDP)); }

    // Classifies and drops the message.
    void Expect(int result, const Lines &lines, GstMessage *message) {
        SCOPED_TRACE(GST_MESSAGE_TYPE_NAME(message));
        EXPECT_EQ(result, m_source->DoBusMessage(message));
        EXPECT_EQ(lines, m_log.Take());
        EXPECT_EQ(1, GST_MINI_OBJECT_REFCOUNT_VALUE(message)) << "the message stays the caller's";
        gst_message_unref(message);
    }
};

using namespace Tessaro;

}  // namespace

TEST_F(BusMessage, Results) {
    EXPECT_EQ(0, BUS_MSG_NONE);
    EXPECT_EQ(1, BUS_MSG_EOS);
    EXPECT_EQ(2, BUS_MSG_ERROR);
    EXPECT_EQ(3, BUS_MSG_TIMEOUT);
}

TEST_F(BusMessage, EndOfStream) {
    Expect(BUS_MSG_EOS, {Raw("-------------GST_MESSAGE_EOS")}, gst_message_new_eos(nullptr));
}

TEST_F(BusMessage, Error) {
    GError *error = g_error_new_literal(GST_STREAM_ERROR, GST_STREAM_ERROR_FAILED, "details stay unlogged");
    Expect(BUS_MSG_ERROR, {Raw("-------------GST_MESSAGE_ERROR")}, gst_message_new_error(nullptr, error, "debug"));
    g_error_free(error);
}

TEST_F(BusMessage, TimeOuts) {
    for (const char *name : {"GstUDPSrcTimeout", "GstRTSPSrcTimeout"}) {
        GstStructure *structure = gst_structure_new(name, "timeout", G_TYPE_UINT64, G_GUINT64_CONSTANT(5000000000), nullptr);
        const std::string text = std::string(name) + ", timeout=(guint64)5000000000;";
        Expect(BUS_MSG_TIMEOUT, {Info("[CBaseSource] ~~~~~(GST_MESSAGE_ELEMENT) Info :" + text)},
               gst_message_new_element(nullptr, structure));
    }
}

TEST_F(BusMessage, OtherElementMessagesAreLoggedOnly) {
    // Close names are other names.
    for (const char *name : {"pat", "GstUDPSrcTimeouts", "gstudpsrctimeout", "GstUDPSrc"}) {
        Expect(BUS_MSG_NONE, {Info("[CBaseSource] ~~~~~(GST_MESSAGE_ELEMENT) Info :" + std::string(name) + ";")},
               gst_message_new_element(nullptr, gst_structure_new_empty(name)));
    }
}

TEST_F(BusMessage, ElementMessageWithoutStructure) {
    Expect(BUS_MSG_NONE, {}, gst_message_new_custom(GST_MESSAGE_ELEMENT, nullptr, nullptr));
}

// What is posted by hand need not hold what its type promises; the handler that learns
// the streaming threads looks at every message.
TEST_F(BusMessage, StreamStatusWithoutAStatusIsPassedOn) {
    ASSERT_TRUE(ClassOf(SOURCE_TYPE_UDP).build(*m_source));
    for (GstStructure *structure : {static_cast<GstStructure *>(nullptr), gst_structure_new_empty("empty"),
                                    gst_structure_new("wrong", "type", G_TYPE_STRING, "enter", nullptr)}) {
        GstMessage *message = gst_message_new_custom(GST_MESSAGE_STREAM_STATUS, nullptr, structure);
        Post(message);
        GstMessage *taken = gst_bus_pop(SourceProbe::Bus(*m_source));
        EXPECT_EQ(message, taken);
        Expect(BUS_MSG_NONE, {}, taken == message ? taken : gst_message_new_eos(nullptr));
        EXPECT_FALSE(m_source->IsOwnThread());
    }
}

// A thread that streams for one source may close another.
TEST_F(BusMessage, StreamingThreadIsThatOfOneSource) {
    const SourceClass &row = ClassOf(SOURCE_TYPE_UDP);
    ASSERT_TRUE(row.build(*m_source));
    const SourcePtr other(row.create(&m_buffer, kChannel, kStream));
    ASSERT_TRUE(row.build(*other));
    GstElement *owner = Element(*m_source, "Udpsrc");
    Post(gst_message_new_stream_status(GST_OBJECT(owner), GST_STREAM_STATUS_TYPE_ENTER, owner));
    EXPECT_TRUE(m_source->IsOwnThread());
    EXPECT_FALSE(other->IsOwnThread());
    Post(gst_message_new_stream_status(GST_OBJECT(owner), GST_STREAM_STATUS_TYPE_START, owner));
    EXPECT_TRUE(m_source->IsOwnThread());
    Post(gst_message_new_stream_status(GST_OBJECT(owner), GST_STREAM_STATUS_TYPE_LEAVE, owner));
    EXPECT_FALSE(m_source->IsOwnThread());
}

TEST_F(BusMessage, TimeOutNameInAnotherMessageType) {
    Expect(BUS_MSG_NONE, {}, gst_message_new_application(nullptr, gst_structure_new_empty("GstUDPSrcTimeout")));
}

TEST_F(BusMessage, Latency) {
    GstElement *bin = GST_ELEMENT(gst_object_ref_sink(gst_bin_new("loud")));
    Expect(BUS_MSG_NONE, {Raw("------------- GST_MESSAGE_LATENCY "), Raw("--------message->src:----loud ")},
           gst_message_new_latency(GST_OBJECT(bin)));
    gst_object_unref(bin);
}

TEST_F(BusMessage, LatencyWithoutSource) {
    Expect(BUS_MSG_NONE, {Raw("------------- GST_MESSAGE_LATENCY "), Raw("--------message->src:---- ")},
           gst_message_new_latency(nullptr));
}

TEST_F(BusMessage, SilentTypes) {
    GError *warning = g_error_new_literal(GST_STREAM_ERROR, GST_STREAM_ERROR_FAILED, "no matter");
    GstMessage *messages[] = {
        gst_message_new_state_changed(nullptr, GST_STATE_READY, GST_STATE_PAUSED, GST_STATE_PLAYING),
        gst_message_new_buffering(nullptr, 50),
        gst_message_new_async_start(nullptr),
        gst_message_new_async_done(nullptr, GST_CLOCK_TIME_NONE),
        gst_message_new_warning(nullptr, warning, nullptr),
        gst_message_new_info(nullptr, warning, nullptr),
        gst_message_new_duration_changed(nullptr),
        gst_message_new_clock_lost(nullptr, nullptr),
        gst_message_new_tag(nullptr, gst_tag_list_new_empty()),
    };
    g_error_free(warning);
    for (GstMessage *message : messages) {
        Expect(BUS_MSG_NONE, {}, message);
    }
}

}  // namespace unit
