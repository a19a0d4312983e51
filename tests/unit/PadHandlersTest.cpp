// What a new pad is taken for, by its caps. The branches themselves are another
// test's affair: here they show by their first line.
#include "support/Fixture.h"

namespace unit {

namespace {

// One pad: its caps, the builder that is called and its encoding ("Video H264";
// none: no builder), and what is printed before.
struct PadCase {
    std::string caps;
    std::string called;
    std::vector<std::string> printed;
};

class PadHandlers : public ClassTest {
  protected:
    void SetUp() override {
        ClassTest::SetUp();
        Build();
        // Encodings that no pad brings: a builder says the one that it is called with, and builds nothing.
        SourceProbe::VideoEncode(Source()).Set("other");
        SourceProbe::AudioEncode(Source()).Set("other");
        m_log.Take();
    }

    Line NewPad(const std::string &name) const { return Info(Row().padDemuxText + name + " pad added handler. url=" + Url()); }
    void Handle(GstPad *pad) { Row().padAdded(SourceProbe::Pipeline(Source()), pad, &Source()); }

    void Expect(const PadCase &row) {
        SCOPED_TRACE(row.caps);
        const TestPad pad = MakePad("src_7", row.caps);
        GstCaps *caps = gst_pad_get_current_caps(pad.get());
        ASSERT_NE(nullptr, caps);
        gchar *text = gst_caps_to_string(caps);
        Lines expected{NewPad("src_7"), Raw("strcaps string :" + std::string(text) + " ")};
        g_free(text);
        gst_caps_unref(caps);
        for (const std::string &printed : row.printed) {
            expected.push_back(Raw(printed));
        }
        if (!row.called.empty()) {
            const std::size_t blank = row.called.find(' ');
            expected.push_back(Row().MediaChanged(row.called.substr(0, blank), row.called.substr(blank + 1)));
        }
        SourceProbe::MediaChanged(Source()) = false;
        Handle(pad.get());
        EXPECT_EQ(expected, m_log.Take());
        EXPECT_EQ(!row.called.empty(), SourceProbe::MediaChanged(Source()));
        EXPECT_EQ(nullptr, GST_PAD_PEER(pad.get()));
    }
    // Pads that are told by the name of their media and left alone.
    void ExpectUnsupported(const std::string &demux, const std::vector<std::string> &all) {
        for (const std::string &caps : all) {
            Expect({caps, "", {demux + " unsupport current media: " + caps.substr(0, caps.find(','))}});
        }
    }
};

}  // namespace

// ---- All classes ------------------------------------------------------------------------------------------------------------

TEST_P(PadHandlers, SinkPadsAndMissingArgumentsAreIgnored) {
    const TestPad sink = MakePad("sink_1", "video/x-h264", GST_PAD_SINK);
    Handle(sink.get());
    Handle(nullptr);
    const TestPad source = MakePad("src_1", "video/x-h264");
    Row().padAdded(SourceProbe::Pipeline(Source()), source.get(), nullptr);
    Row().padAdded(SourceProbe::Pipeline(Source()), sink.get(), nullptr);
    EXPECT_EQ(Lines{}, m_log.Take());
}

TEST_P(PadHandlers, NoCaps) {
    const TestPad pad = MakePad("src_1", "");
    Handle(pad.get());
    EXPECT_EQ((Lines{NewPad("src_1"), Err(Row().padCapsFailure + Url())}), m_log.Take());
}

TEST_P(PadHandlers, CapsWithoutStructure) {
    for (const char *caps : {"EMPTY", "ANY"}) {
        const TestPad pad = MakeOddPad("src_1", caps);
        Handle(pad.get());
        EXPECT_EQ(
            (Lines{NewPad("src_1"), Raw("strcaps string :" + std::string(caps) + " "), Err(Row().padStructureFailure + Url())}),
            m_log.Take());
    }
}

TEST_P(PadHandlers, CapsAreReleased) {
    const TestPad pad = MakePad("src_1", "video/x-unknown");
    GstCaps *caps = gst_pad_get_current_caps(pad.get());
    const int before = GST_CAPS_REFCOUNT_VALUE(caps);
    Handle(pad.get());
    EXPECT_EQ(before, GST_CAPS_REFCOUNT_VALUE(caps));
    gst_caps_unref(caps);
}

TEST_P(PadHandlers, AreConnectedToTheDemultiplexer) {
    if (Row().type == SOURCE_TYPE_HLS) {
        return;  // in two stages, see below
    }
    const std::string &front = Row().front.back();
    GstElement *demux = Element(Source(), front.substr(front.find(' ') + 1));
    const TestPad pad = MakePad("src_9", "");
    g_signal_emit_by_name(demux, "pad-added", pad.get());
    EXPECT_EQ((Lines{NewPad("src_9"), Err(Row().padCapsFailure + Url())}), m_log.Take());
}

// ---- Transport streams: SRT, UDP and the second stage of HLS ----------------------------------------------------------------

TEST_P(PadHandlers, TransportStreams) {
    if (Row().type == SOURCE_TYPE_RTSP || Row().type == SOURCE_TYPE_RTMP) {
        return;
    }
    const PadCase rows[] = {
        {"video/x-h264, stream-format=(string)byte-stream, alignment=(string)nal", "Video H264", {}},
        {"video/x-h265", "Video H265", {}},
        {"audio/mpeg", "Audio AAC", {}},
        {"audio/mpeg, mpegversion=(int)1", "Audio MP3", {"MPEG version: 1"}},
        {"audio/mpeg, mpegversion=(int)2", "Audio AAC", {"MPEG version: 2"}},
        {"audio/mpeg, mpegversion=(int)4", "Audio AAC", {"MPEG version: 4"}},
        {"audio/mpeg, mpegversion=(int)0", "Audio AAC", {"MPEG version: 0"}},
        {"audio/mpeg, mpegversion=(int)-1", "Audio AAC", {"MPEG version: -1"}},
        {"audio/mpeg, mpegversion=(int)1, stream-format=(string)adts", "Audio MP3", {"MPEG version: 1", "Stream format: adts"}},
        {"audio/mpeg, mpegversion=(int)2, stream-format=(string)adts", "Audio AAC", {"MPEG version: 2", "Stream format: adts"}},
        {"audio/mpeg, stream-format=(string)loas", "Audio AAC", {"Stream format: loas"}},
        // Not a number: the version stays the default one, and is printed all the same.
        {"audio/mpeg, mpegversion=(string)1", "Audio AAC", {"MPEG version: 4"}},
        {"audio/x-opus", "Audio OPUS", {}},
        {"audio/x-ac3", "Audio AC3", {}},
    };
    for (const PadCase &row : rows) {
        Expect(row);
    }
    ExpectUnsupported("Tsdeumx",
                      {"audio/x-eac3", "audio/x-mulaw", "audio/x-alaw", "video/mpeg, mpegversion=(int)2", "video/mpegts",
                       "application/x-rtp, media=(string)video, encoding-name=(string)H264", "subpicture/x-dvb",
                       "private/teletext", "meta/x-klv, parsed=(boolean)true", "video/x-h264s", "Video/x-h264"});
}

// ---- FLV --------------------------------------------------------------------------------------------------------------------

TEST_P(PadHandlers, Flv) {
    if (Row().type != SOURCE_TYPE_RTMP) {
        return;
    }
    const PadCase rows[] = {
        {"video/x-h264, stream-format=(string)avc", "Video H264", {}},
        {"audio/mpeg", "Audio AAC", {}},
        {"audio/mpeg, mpegversion=(int)1", "Audio MP3", {"MPEG version: 1"}},
        {"audio/mpeg, mpegversion=(int)2", "Audio AAC", {"MPEG version: 2"}},
        {"audio/mpeg, mpegversion=(int)4, stream-format=(string)raw", "Audio AAC", {"MPEG version: 4"}},
        {"audio/mpeg, mpegversion=(string)1", "Audio AAC", {"MPEG version: 4"}},
        {"audio/x-mulaw", "Audio PCMU", {}},
        {"audio/x-alaw", "Audio PCMA", {}},
    };
    for (const PadCase &row : rows) {
        Expect(row);
    }
    ExpectUnsupported("flvdeumx",
                      {"video/x-h265", "audio/x-opus", "audio/x-ac3", "audio/x-speex", "video/x-flash-video", "audio/x-raw"});
}

// ---- RTP --------------------------------------------------------------------------------------------------------------------

TEST_P(PadHandlers, Rtp) {
    if (Row().type != SOURCE_TYPE_RTSP) {
        return;
    }
    const PadCase rows[] = {
        {"application/x-rtp, media=(string)video, encoding-name=(string)H264", "Video H264", {}},
        {"application/x-rtp, media=(string)video, encoding-name=(string)H265", "Video H265", {}},
        {"application/x-rtp, media=(string)video, encoding-name=(string)VP8", "Video VP8", {}},
        {"application/x-rtp, media=(string)video, encoding-name=(string)PCMA", "Video PCMA", {}},
        {"application/x-rtp, media=(string)audio, encoding-name=(string)MPEG4-GENERIC", "Audio MPEG4-GENERIC", {}},
        {"application/x-rtp, media=(string)audio, encoding-name=(string)pcma", "Audio pcma", {}},
        {"application/x-rtp, media=(string)audio, encoding-name=(string)OPUS", "Audio OPUS", {}},
        {"application/x-rtp, encoding-name=(string)H264, media=(string)video, payload=(int)96", "Video H264", {}},
        // Left alone without a word.
        {"application/x-rtp, media=(string)application, encoding-name=(string)VND.ONVIF.METADATA", "", {}},
        {"application/x-rtp, media=(string)Video, encoding-name=(string)H264", "", {}},
        {"application/x-rtp, media=(string)video", "", {}},
        {"application/x-rtp, media=(string)audio", "", {}},
        {"application/x-rtp, encoding-name=(string)H264", "", {}},
        {"application/x-rtp, media=(int)1, encoding-name=(string)H264", "", {}},
        {"application/x-rtp, media=(string)video, encoding-name=(int)264", "", {}},
        {"application/x-rtp, media=(string)audio, encoding-name=(boolean)true", "", {}},
        {"application/x-rtp", "", {}},
        {"video/x-h264, media=(string)video, encoding-name=(string)H264", "", {}},
        {"video/x-h265", "", {}},
        {"audio/x-raw", "", {}},
        {"audio/mpeg", "", {}},
        {"application/x-rtcp, media=(string)video, encoding-name=(string)H264", "", {}},
    };
    for (const PadCase &row : rows) {
        Expect(row);
    }
}

TEST_P(PadHandlers, RtpWithNullTexts) {
    if (Row().type != SOURCE_TYPE_RTSP) {
        return;
    }
    for (const char *field : {"media", "encoding-name"}) {
        const TestPad pad = MakePad("src_1", "");
        GstCaps *caps = gst_caps_new_simple("application/x-rtp", "media", G_TYPE_STRING, "video", "encoding-name",
                                            G_TYPE_STRING, "H264", nullptr);
        gst_caps_set_simple(caps, field, G_TYPE_STRING, nullptr, nullptr);
        gst_pad_push_event(pad.get(), gst_event_new_stream_start("s"));
        gst_pad_set_caps(pad.get(), caps);
        gst_caps_unref(caps);
        Handle(pad.get());
        const Lines lines = m_log.Take();
        ASSERT_EQ(2U, lines.size()) << field;
        EXPECT_EQ(NewPad("src_1"), lines[0]);
        EXPECT_EQ("", lines[1].level);
    }
}

INSTANTIATE_TEST_SUITE_P(Classes, PadHandlers, testing::ValuesIn(SourceClasses()), ClassName());

// ---- First stage of HLS -----------------------------------------------------------------------------------------------------

namespace {

class HlsFirstStage : public SourceTest {
  protected:
    void SetUp() override { MakeBuilt(ClassOf(SOURCE_TYPE_HLS)); }

    void Handle(GstPad *pad) { g_signal_emit_by_name(Element(*m_source, "Hlsdemux"), "pad-added", pad); }
    Lines Seen(const std::string &name, const std::string &caps) const {
        return {Info("[CHLSSource] hlsdeumx A new " + name + " pad added handler. url=" + m_url),
                Raw("strcaps string :" + caps + " ")};
    }

    // A pad of these caps ends in this line.
    void ExpectEnd(const std::string &caps, const Line &end) {
        const TestPad pad = MakePad("src_0", caps);
        Handle(pad.get());
        EXPECT_EQ(Seen("src_0", caps) + Lines{end}, m_log.Take());
    }

    const std::string m_url = ClassOf(SOURCE_TYPE_HLS).url;
    const Line m_unsupported = Err("[CHLSSource] Unable support hlsdeumx current meida structure!!! url=" + m_url);
    const Line m_linkFailure = Err("[CHLSSource] hlsdemux element src_pad link tsdemux sink_pad faild !!! url=" + m_url);
    const Line m_linked = Info("[CHLSSource] hlsdemux element src_pad link tsdemux sink_pad OK.... url=" + m_url);
};

}  // namespace

TEST_F(HlsFirstStage, TransportStreamIsAccepted) {
    const TestPad pad = MakePad("src_0", "video/mpegts");
    Handle(pad.get());
    EXPECT_EQ(Seen("src_0", "video/mpegts") + Lines{m_linked}, m_log.Take());
    GstElement *demux = SourceProbe::HlsTsDemux(*m_source);
    ASSERT_NE(nullptr, demux);
    EXPECT_EQ(demux, Element(*m_source, "Tsdemux"));
    EXPECT_EQ("tsdemux", FactoryOf(demux));
    EXPECT_EQ(50, Property<gint>(demux, "latency"));
    EXPECT_EQ(std::vector<std::string>{"tsdemux Tsdemux"}, ChainBehind(pad.get()));
    EXPECT_EQ("video/mpegts", SourceProbe::HlsMediaType(*m_source).Get());

    // The second stage is connected.
    const TestPad second = MakePad("video_0", "");
    g_signal_emit_by_name(demux, "pad-added", second.get());
    EXPECT_EQ((Lines{Info("[CHLSSource] tsdeumx A new video_0 pad added handler. url=" + m_url),
                     Err("[CHLSSource] Unable to get tsdeumx current caps by source pad!!! url=" + m_url)}),
              m_log.Take());
}

TEST_F(HlsFirstStage, LatencyWithoutCaching) {
    SourceProbe::Caching(*m_source) = 0;
    const TestPad pad = MakePad("src_0", "video/mpegts");
    Handle(pad.get());
    EXPECT_EQ(0, Property<gint>(SourceProbe::HlsTsDemux(*m_source), "latency"));
}

TEST_F(HlsFirstStage, SecondPadIsRefused) {
    const TestPad first = MakePad("src_0", "video/mpegts");
    Handle(first.get());
    GstElement *demux = SourceProbe::HlsTsDemux(*m_source);
    m_log.Take();
    const TestPad second = MakePad("src_1", "video/mpegts, systemstream=(boolean)true");
    Handle(second.get());
    EXPECT_EQ(Seen("src_1", "video/mpegts, systemstream=(boolean)true") +
                  Lines{Warn("[CHLSSource] HLS media data src chanage so refused, noly support one!!!  new media src is "
                             "video/mpegts, url=" +
                             m_url)},
              m_log.Take());
    EXPECT_EQ(demux, SourceProbe::HlsTsDemux(*m_source));
    EXPECT_EQ(nullptr, GST_PAD_PEER(second.get()));
}

TEST_F(HlsFirstStage, OtherMediaAreRefused) {
    for (const char *caps : {"audio/mpeg, mpegversion=(int)4", "video/quicktime", "application/x-subtitle-vtt"}) {
        ExpectEnd(caps, m_unsupported);
    }
    EXPECT_EQ(nullptr, SourceProbe::HlsTsDemux(*m_source));
    EXPECT_EQ("", SourceProbe::HlsMediaType(*m_source).Get());
    // A refused pad does not use up the place of the one.
    const TestPad pad = MakePad("src_1", "video/mpegts");
    Handle(pad.get());
    EXPECT_EQ(1U, m_log.Count(m_linked));
    // Once one is accepted, other media are still told as such.
    m_log.Take();
    const TestPad late = MakePad("src_2", "audio/mpeg");
    Handle(late.get());
    EXPECT_EQ(m_unsupported, m_log.Take().back());
}

TEST_F(HlsFirstStage, PadsWithoutCapsOrStructure) {
    const TestPad none = MakePad("src_0", "");
    Handle(none.get());
    EXPECT_EQ((Lines{Info("[CHLSSource] hlsdeumx A new src_0 pad added handler. url=" + m_url),
                     Err("[CHLSSource] Unable to get hlsdeumx current caps by source pad!!! url=" + m_url)}),
              m_log.Take());
    for (const char *caps : {"EMPTY", "ANY"}) {
        const TestPad odd = MakeOddPad("src_0", caps);
        Handle(odd.get());
        EXPECT_EQ(
            Seen("src_0", caps) + Lines{Err("[CHLSSource] Unable to get hlsdeumx current structure by caps!!! url=" + m_url)},
            m_log.Take());
    }
}

TEST_F(HlsFirstStage, SinkPadsAndMissingArgumentsAreIgnored) {
    const TestPad sink = MakePad("sink", "video/mpegts", GST_PAD_SINK);
    Handle(sink.get());
    SourceProbe::HlsPadAdded(nullptr, nullptr, m_source.get());
    const TestPad pad = MakePad("src_0", "video/mpegts");
    SourceProbe::HlsPadAdded(nullptr, pad.get(), nullptr);
    EXPECT_EQ(Lines{}, m_log.Take());
}

TEST_F(HlsFirstStage, MissingDemultiplexer) {
    m_faults.FailFactory("tsdemux");
    const TestPad pad = MakePad("src_0", "video/mpegts");
    Handle(pad.get());
    const Lines failure{NotMade("tsdemux Tsdemux"), m_linkFailure};
    EXPECT_EQ(Seen("src_0", "video/mpegts") + failure, m_log.Take());
    EXPECT_EQ(nullptr, SourceProbe::HlsTsDemux(*m_source));
    EXPECT_EQ("video/mpegts", SourceProbe::HlsMediaType(*m_source).Get()) << "taken all the same";
}

TEST_F(HlsFirstStage, FailedLink) {
    m_faults.FailPadLink(1);
    const TestPad pad = MakePad("src_0", "video/mpegts");
    Handle(pad.get());
    EXPECT_EQ(Seen("src_0", "video/mpegts") + Lines{m_linkFailure}, m_log.Take());
    EXPECT_NE(nullptr, Element(*m_source, "Tsdemux"));
    EXPECT_EQ(nullptr, GST_PAD_PEER(pad.get()));
}

TEST_F(HlsFirstStage, PadThatIsTakenElsewhere) {
    const TestPad pad = MakePad("src_0", "video/mpegts");
    const TestPad taker = MakePad("sink", "", GST_PAD_SINK);
    ASSERT_EQ(GST_PAD_LINK_OK, gst_pad_link(pad.get(), taker.get()));
    Handle(pad.get());
    EXPECT_EQ(m_linkFailure, m_log.Take().back());
    gst_pad_unlink(pad.get(), taker.get());
}

TEST_F(HlsFirstStage, DemultiplexerThatHasAPeerAlready) {
    const TestPad other = MakePad("other", "video/mpegts");
    OccupyWhenAdded(*m_source, "Tsdemux", other);
    const TestPad pad = MakePad("src_0", "video/mpegts");
    Handle(pad.get());
    EXPECT_EQ(Seen("src_0", "video/mpegts"), m_log.Take());
    EXPECT_EQ(nullptr, GST_PAD_PEER(pad.get()));
}

TEST_F(HlsFirstStage, RebuiltPipelineAcceptsItsPadAgain) {
    const SourceClass &row = ClassOf(SOURCE_TYPE_HLS);
    const TestPad first = MakePad("src_0", "video/mpegts");
    Handle(first.get());
    SourceProbe::State(*m_source) = GST_STATE_PLAYING;
    EXPECT_TRUE(row.stop(*m_source));
    row.destroy(*m_source);
    EXPECT_TRUE(LiveObjects().empty());
    ASSERT_TRUE(row.build(*m_source));
    m_log.Take();
    const TestPad second = MakePad("src_0", "video/mpegts");
    Handle(second.get());
    EXPECT_EQ(Seen("src_0", "video/mpegts") + Lines{m_linked}, m_log.Take());
}

TEST_F(HlsFirstStage, DemultiplexerFollowsThePipelinesState) {
    for (const char *name : {"Souphttpsrc", "Hlsdemux"}) {
        gst_element_set_locked_state(Element(*m_source, name), TRUE);
    }
    gst_element_set_state(SourceProbe::Pipeline(*m_source), GST_STATE_PLAYING);
    SourceProbe::State(*m_source) = GST_STATE_PLAYING;
    const TestPad pad = MakePad("src_0", "video/mpegts");
    Handle(pad.get());
    EXPECT_EQ(GST_STATE_PLAYING, GST_STATE(Element(*m_source, "Tsdemux")));
}

}  // namespace unit
