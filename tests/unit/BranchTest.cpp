// Video and audio branches: what is built behind a pad, in which order, with which options, and what a failure leaves behind.
#include "CodecTables.h"
#include "support/Fixture.h"

#include <algorithm>
#include <cstdio>
#include <set>

namespace unit {

namespace {

std::string FactoryName(const std::string &factory_and_name) {
    return factory_and_name.substr(0, factory_and_name.find(' '));
}

std::string InstanceName(const std::string &factory_and_name) {
    return factory_and_name.substr(factory_and_name.find(' ') + 1);
}

class Branch : public ClassTest {
  protected:
    void SetUp() override {
        ClassTest::SetUp();
        Begin();
    }

    // A front whose elements stay in the NULL state, in a pipeline that plays: what a builder finds, without a network.
    void Begin() {
        SourceProbe::SetUrl(Source(), Url());
        ASSERT_TRUE(Row().build(Source()));
        for (const std::string &element : Row().front) {
            gst_element_set_locked_state(Element(Source(), InstanceName(element)), TRUE);
        }
        ASSERT_NE(GST_STATE_CHANGE_FAILURE, gst_element_set_state(SourceProbe::Pipeline(Source()), GST_STATE_PLAYING));
        SourceProbe::State(Source()) = GST_STATE_PLAYING;
        m_children = GST_BIN_NUMCHILDREN(GST_BIN(SourceProbe::Pipeline(Source())));
        m_front = LiveObjects().size();
        m_log.Take();
    }

    // Ends the pipeline run and begins another.
    void Restart() {
        EXPECT_TRUE(Row().stop(Source()));
        Row().destroy(Source());
        EXPECT_TRUE(Eventually([] { return LiveObjects().empty(); }, 20)) << testing::PrintToString(LiveObjects());
        Begin();
    }

    bool Video(GstPad *pad, const char *encode) { return Row().video(Source(), pad, encode); }
    bool Audio(GstPad *pad, const char *encode) { return Row().audio(Source(), pad, encode); }
    Tessaro::BranchFields Fields() { return Row().branch(Source()); }
    int State() { return SourceProbe::State(Source()); }
    // Children of the pipeline beside the front.
    int Children() { return GST_BIN_NUMCHILDREN(GST_BIN(SourceProbe::Pipeline(Source()))) - m_children; }
    // Elements that live beside the front, in the pipeline or not.
    std::size_t Alive() { return LiveObjects().size() - m_front; }

    // The sets of the table with this test's buffer, and then these.
    std::vector<std::string> Sets(const std::vector<std::string> &row, const std::vector<std::string> &then) {
        std::vector<std::string> sets = row;
        char pointer[32] = "";
        std::snprintf(pointer, sizeof pointer, "share-buffer=%p", static_cast<void *>(&m_buffer));
        sets[0] = pointer;
        sets.insert(sets.end(), then.begin(), then.end());
        return sets;
    }

    // "factory name" of the elements of a video branch, in chain order.
    std::vector<std::string> VideoChain(const std::string &encode) const {
        const std::string codec = encode == "H264" ? "264" : "265";
        std::vector<std::string> chain;
        if (Row().depays) {
            chain.push_back("rtph" + codec + "depay Rtph" + codec + "depay");
        }
        chain.push_back("queue vqueue");
        chain.push_back("h" + codec + "parse H" + codec + "parse");
        chain.push_back("capsfilter H" + codec + "capsfilter");
        chain.push_back("shbsink h26xshbsink");
        return chain;
    }

    // The same of an audio branch; empty for a refused encoding.
    std::vector<std::string> AudioChain(const std::string &encode) const {
        const std::string parser = Tessaro::Lookup(Tessaro::g_mapAudioParseElements, encode);
        if (parser.empty() || (parser == "none" && !Row().acceptsUnparsed)) {
            return {};
        }
        std::vector<std::string> chain;
        if (Row().depays) {
            chain.push_back(Tessaro::g_mapDepayElements.at(encode) + " adepay");
        }
        chain.push_back("queue aqueue");
        if (parser != "none") {
            chain.push_back(parser + " apaser");
        }
        if (encode == "AAC" || encode == "MP4A-LATM" || encode == "MPEG4-GENERIC") {
            chain.push_back("capsfilter aaccapsfilter");
        }
        chain.push_back("shbsink audioshbsink");
        return chain;
    }

    Line VideoChanged(const std::string &encode) const {
        return Warn(Row().Tag() + " Video media data chanage !!!  new encode= " + encode + ", url=" + Url());
    }
    Line VideoRepeated() const { return Warn(Row().Tag() + " Multiple video media data ???  url=" + Url()); }
    Line VideoNotMade() const { return Err(Row().Tag() + " Make h26x element faild by name!!! url=" + Url()); }
    Line VideoChainFailure() const { return Err(Row().Tag() + " Video element link many faild !!! url=" + Url()); }
    Line AudioChanged(const std::string &encode) const {
        return Warn(Row().Tag() + " Audio media data chanage !!!  new encode= " + encode + ", url=" + Url());
    }
    Line AudioRepeated() const { return Warn(Row().Tag() + " Multiple audio media data ???  url=" + Url()); }

    // RTMP says some of this in the name of RTSP.
    std::string AudioChainTag() const { return Row().type == SOURCE_TYPE_RTMP ? "[CRtspSource]" : Row().Tag(); }
    Line AudioFound(const std::string &encode) const {
        const std::string parser = Tessaro::Lookup(Tessaro::g_mapAudioParseElements, encode);
        if (Row().depays) {
            return Info("[CRtspSource]~~~~~Found audio parse element by name!!!" + Tessaro::g_mapDepayElements.at(encode) +
                        "->" + parser);
        }
        return Info(Row().Tag() + " ~~~~~Find audio parse element by name!!!" + parser);
    }
    Line AudioUnknown(const std::string &encode) const {
        return Err(Row().Tag() + " ~~~~~Not found audio parse element by name!!!" + (Row().depays ? "aencode=" : "") + encode +
                   ", url=" + Url());
    }
    Line AudioParserFailure(const std::string &parser) const {
        if (Row().depays) {
            return Err("[CRtspSource] Make audio depay element faild by name!!! aparse=" + parser + ", url=" + Url());
        }
        return Err(Row().Tag() + " Make audio parse faild by name!!! " + parser + ", url=" + Url());
    }
    // What the starting of an audio branch says.
    Lines AudioSynced(bool parsed) const {
        Lines lines;
        if (parsed && (Row().depays || Row().type == SOURCE_TYPE_RTMP)) {
            lines.push_back(Info("[CRtspSource] audioparse sync state with parent OK. url=" + Url()));
        }
        if (Row().depays) {
            lines.push_back(Info("[CRtspSource] audioshbsink sync state with parent OK"));
        }
        return lines;
    }
    Lines AudioLinked(bool parsed) const {
        if (Row().depays) {
            return parsed ? Lines{Info("[CRtspSource] Audio element link many ok !!! url=" + Url())} : Lines{};
        }
        if (Row().type == SOURCE_TYPE_RTMP && parsed) {
            return {Info("[CRtspSource] Audio element link many ok !!! url=" + Url())};
        }
        return {Info(Row().Tag() + "Audio element link many ok !!!  url=" + Url())};
    }
    Line AudioChainFailure() const { return Err(AudioChainTag() + " Audio element link many faild !!! url=" + Url()); }
    // All that a good audio branch says.
    Lines AudioLines(const std::string &encode) const {
        const bool parsed = Tessaro::Lookup(Tessaro::g_mapAudioParseElements, encode) != "none";
        return Lines{AudioFound(encode)} + AudioSynced(parsed) + Lines{Info(Row().audioLinkSuccess + Url())} +
               AudioLinked(parsed);
    }

    void ExpectPlaying(const std::vector<std::string> &chain) {
        for (const std::string &element : chain) {
            GstElement *found = Element(Source(), InstanceName(element));
            ASSERT_NE(nullptr, found) << element;
            EXPECT_EQ(GST_STATE_PLAYING, GST_STATE(found)) << element;
        }
    }

    int m_children = 0;
    std::size_t m_front = 0;
};

}  // namespace

// ---- Video ------------------------------------------------------------------------------------------------------------------

TEST_P(Branch, Video) {
    const std::pair<const char *, int> rows[] = {{"H264", 48}, {"H265", 64}};
    for (const auto &[encode, media] : rows) {
        SCOPED_TRACE(encode);
        const TestPad pad = MakePad("video_0", "");
        EXPECT_TRUE(Video(pad.get(), encode));
        EXPECT_EQ(Lines{Info(Row().videoLinkSuccess + Url())}, m_log.Take());
        const std::vector<std::string> chain = VideoChain(encode);
        EXPECT_EQ(chain, ChainBehind(pad.get()));
        EXPECT_EQ(static_cast<int>(chain.size()), Children());
        ExpectPlaying(chain);
        EXPECT_EQ(GST_STATE_PLAYING, State());
        EXPECT_FALSE(SourceProbe::MediaChanged(Source()));
        EXPECT_EQ(encode, SourceProbe::VideoEncode(Source()).Get());
        EXPECT_EQ("", SourceProbe::AudioEncode(Source()).Get());

        const Tessaro::BranchFields fields = Fields();
        EXPECT_EQ(Row().depays, fields.depay[0] != nullptr);
        EXPECT_EQ(Element(Source(), "vqueue"), fields.queue[0]);
        EXPECT_EQ(Element(Source(), "h26xshbsink"), fields.sink[0]);
        ASSERT_NE(nullptr, fields.parse[0]);
        ASSERT_NE(nullptr, fields.filter[0]);
        EXPECT_EQ(1000000000U, Property<guint64>(fields.queue[0], "max-size-time"));
        EXPECT_EQ(-1, Property<gint>(fields.parse[0], "config-interval"));
        GstCaps *caps = Property<GstCaps *>(fields.filter[0], "caps");
        GstCaps *expected =
            gst_caps_from_string(std::string(encode) == "H264" ? "video/x-h264,stream-format=byte-stream,alignment=au"
                                                               : "video/x-h265,stream-format=byte-stream,alignment=au");
        EXPECT_TRUE(gst_caps_is_strictly_equal(expected, caps));
        gst_caps_unref(expected);
        gst_caps_unref(caps);
        EXPECT_EQ(Sets(Row().videoSinkSets, {"media=" + std::to_string(media)}), SetsOf(fields.sink[0]));
        EXPECT_EQ(!Row().depays, Property<gboolean>(fields.sink[0], "sync") != FALSE);
        EXPECT_FALSE(Property<gboolean>(fields.sink[0], "async"));
        for (GstElement *audio : {fields.queue[1], fields.parse[1], fields.filter[1], fields.sink[1]}) {
            EXPECT_EQ(nullptr, audio);
        }
        Restart();
    }
}

TEST_P(Branch, VideoSignalsReachTheRecords) {
    const TestPad pad = MakePad("video_0", "");
    ASSERT_TRUE(Video(pad.get(), "H264"));
    GstElement *sink = Fields().sink[0];
    m_log.Take();
    EmitBitrate(sink, 5000);
    EmitFps(sink, 26);
    EmitVideoChanged(sink, {});
    source_status_t status = SourceProbe::Status(Source());
    EXPECT_EQ(5000U, status.video_bitrate);
    EXPECT_EQ(0U, status.audio_bitrate);
    EXPECT_EQ(26.0F, status.video_real_fps);
    EXPECT_EQ(0.0F, status.audio_real_fps);
    EXPECT_STREQ("H264", status.video_code);
    EXPECT_EQ(1920, status.width);
    EXPECT_EQ(1080, status.height);
    EXPECT_EQ(25.0F, status.fps);
    media_code_info_t video{};
    media_code_info_t audio{};
    Source().GetMediaInfo(&video, &audio);
    EXPECT_EQ(4, video.params.video.ref_frames);
    EXPECT_EQ(1U, m_log.Count(Info("[CBaseSource] ~~~~~video_changed_handler callback!!! URL=" + Url()))) << "connected once";
    EmitAudioChanged(sink, {});
    EXPECT_STREQ("", SourceProbe::Status(Source()).audio_code) << "the video sink has no audio";
}

TEST_P(Branch, RepeatedVideo) {
    const TestPad first = MakePad("video_0", "");
    const TestPad second = MakePad("video_1", "");
    ASSERT_TRUE(Video(first.get(), "H264"));
    m_log.Take();
    const int children = Children();
    EXPECT_TRUE(Video(second.get(), "H264"));
    EXPECT_EQ(Lines{VideoRepeated()}, m_log.Take());
    EXPECT_EQ(children, Children());
    EXPECT_EQ(nullptr, GST_PAD_PEER(second.get()));
    EXPECT_FALSE(SourceProbe::MediaChanged(Source()));
    EXPECT_EQ(GST_STATE_PLAYING, State());
}

TEST_P(Branch, ChangedVideo) {
    const TestPad first = MakePad("video_0", "");
    const TestPad second = MakePad("video_1", "");
    ASSERT_TRUE(Video(first.get(), "H264"));
    m_log.Take();
    const int children = Children();
    EXPECT_TRUE(Video(second.get(), "H265"));
    EXPECT_EQ(Lines{VideoChanged("H265")}, m_log.Take());
    EXPECT_TRUE(SourceProbe::MediaChanged(Source()));
    EXPECT_EQ(children, Children());
    EXPECT_EQ("H264", SourceProbe::VideoEncode(Source()).Get());
    EXPECT_EQ(nullptr, GST_PAD_PEER(second.get()));
}

TEST_P(Branch, SinksReportCountsAsTheEncoding) {
    const TestPad first = MakePad("video_0", "");
    const TestPad second = MakePad("video_1", "");
    ASSERT_TRUE(Video(first.get(), "H264"));
    VideoReport report;
    report.code = "H265";
    EmitVideoChanged(Fields().sink[0], report);
    m_log.Take();
    EXPECT_TRUE(Video(second.get(), "H264"));
    EXPECT_EQ(Lines{VideoChanged("H264")}, m_log.Take());
    EXPECT_TRUE(SourceProbe::MediaChanged(Source()));
}

TEST_P(Branch, UnknownVideo) {
    for (const char *encode : {"VP8", "h264", "H264 ", "H26", "AAC"}) {
        SCOPED_TRACE(encode);
        const TestPad pad = MakePad("video_0", "");
        EXPECT_FALSE(Video(pad.get(), encode));
        EXPECT_EQ(Lines{VideoNotMade()}, m_log.Take());
        EXPECT_EQ(encode, SourceProbe::VideoEncode(Source()).Get()) << "recorded all the same";
        EXPECT_EQ(0, Children());
        EXPECT_EQ(0U, Alive());
        EXPECT_EQ(GST_STATE_PLAYING, State());
        const Tessaro::BranchFields fields = Fields();
        EXPECT_EQ(nullptr, fields.queue[0]);
        EXPECT_EQ(nullptr, fields.sink[0]);

        EXPECT_TRUE(Video(pad.get(), encode));
        EXPECT_EQ(Lines{VideoRepeated()}, m_log.Take());
        EXPECT_TRUE(Video(pad.get(), "H264"));
        EXPECT_EQ(Lines{VideoChanged("H264")}, m_log.Take());
        SourceProbe::MediaChanged(Source()) = false;
        Restart();
    }
}

TEST_P(Branch, EachMissingVideoElement) {
    for (const char *encode : {"H264", "H265"}) {
        for (const std::string &element : VideoChain(encode)) {
            SCOPED_TRACE(element);
            m_faults.FailFactory(FactoryName(element));
            const TestPad pad = MakePad("video_0", "");
            EXPECT_FALSE(Video(pad.get(), encode));
            m_faults.Forgive(FactoryName(element));
            EXPECT_EQ((Lines{NotMade(element), VideoNotMade()}), m_log.Take());
            EXPECT_EQ(0, Children());
            EXPECT_EQ(0U, Alive()) << testing::PrintToString(LiveObjects());
            EXPECT_EQ(nullptr, GST_PAD_PEER(pad.get()));
            EXPECT_EQ(encode, SourceProbe::VideoEncode(Source()).Get());
            EXPECT_EQ(GST_STATE_PLAYING, State()) << "untouched";
            const Tessaro::BranchFields fields = Fields();
            for (GstElement *field : {fields.depay[0], fields.queue[0], fields.parse[0], fields.filter[0], fields.sink[0]}) {
                EXPECT_EQ(nullptr, field);
            }
            EXPECT_TRUE(Video(pad.get(), encode));
            EXPECT_EQ(Lines{VideoRepeated()}, m_log.Take());
            Restart();
        }
    }
}

TEST_P(Branch, AllVideoElementsMissing) {
    std::set<std::string> missing;
    for (const std::string &element : VideoChain("H264")) {
        m_faults.FailFactory(FactoryName(element));
    }
    const TestPad pad = MakePad("video_0", "");
    EXPECT_FALSE(Video(pad.get(), "H264"));
    const Lines lines = m_log.Take();
    EXPECT_EQ(VideoChain("H264").size() + 1, lines.size());
    for (const std::string &element : VideoChain("H264")) {
        EXPECT_EQ(1, std::count(lines.begin(), lines.end(), NotMade(element)));
    }
    EXPECT_EQ(VideoNotMade(), lines.back());
}

TEST_P(Branch, VideoPadLinkFailure) {
    // Once refused by the framework, once by a pad that is somebody else's already.
    const TestPad taken = MakePad("video_0", "");
    const TestPad taker = MakePad("sink", "", GST_PAD_SINK);
    ASSERT_EQ(GST_PAD_LINK_OK, gst_pad_link(taken.get(), taker.get()));
    const TestPad free = MakePad("video_1", "");
    for (GstPad *pad : {taken.get(), free.get()}) {
        if (pad == free.get()) {
            m_faults.FailPadLink(1);
        }
        EXPECT_FALSE(Video(pad, "H264"));
        EXPECT_EQ(Lines{Err(Row().videoLinkFailure + Url())}, m_log.Take());
        EXPECT_EQ(Row().stateAfterVideoPadLinkFailure, State());
        EXPECT_EQ(static_cast<int>(VideoChain("H264").size()), Children()) << "they stay in";
        ExpectPlaying(VideoChain("H264"));
        // The chain is not linked.
        GstPad *source = gst_element_get_static_pad(Fields().queue[0], "src");
        EXPECT_FALSE(gst_pad_is_linked(source));
        gst_object_unref(source);
        Restart();
    }
    gst_pad_unlink(taken.get(), taker.get());
}

TEST_P(Branch, EachVideoChainLinkFailure) {
    const int links = static_cast<int>(VideoChain("H264").size()) - 1;
    for (int link = 1; link <= links; ++link) {
        SCOPED_TRACE(link);
        const TestPad pad = MakePad("video_0", "");
        m_faults.FailElementLink(link);
        EXPECT_FALSE(Video(pad.get(), "H265"));
        EXPECT_EQ((Lines{Info(Row().videoLinkSuccess + Url()), VideoChainFailure()}), m_log.Take());
        EXPECT_EQ(0, State());
        EXPECT_EQ(links + 1, Children()) << "they stay in";
        EXPECT_EQ("H265", SourceProbe::VideoEncode(Source()).Get());
        EXPECT_NE(nullptr, Fields().sink[0]);
        m_faults.FailElementLink(0);
        Restart();
    }
}

TEST_P(Branch, VideoChainThatTheElementsRefuse) {
    m_faults.Substitute("h264parse", "h265parse");  // what it delivers never passes the caps filter
    const TestPad pad = MakePad("video_0", "");
    EXPECT_FALSE(Video(pad.get(), "H264"));
    EXPECT_EQ((Lines{Info(Row().videoLinkSuccess + Url()), VideoChainFailure()}), m_log.Take());
    EXPECT_EQ(0, State());
}

TEST_P(Branch, VideoBranchThatHasAPeerAlready) {
    const TestPad other = MakePad("other", "");
    OccupyWhenAdded(Source(), InstanceName(VideoChain("H264").front()), other);
    const TestPad pad = MakePad("video_0", "");
    EXPECT_TRUE(Video(pad.get(), "H264"));
    EXPECT_EQ(Lines{}, m_log.Take());
    EXPECT_EQ(nullptr, GST_PAD_PEER(pad.get()));
    EXPECT_EQ(VideoChain("H264"), ChainBehind(other.get()));
    EXPECT_EQ(GST_STATE_PLAYING, State());
}

// ---- Audio ------------------------------------------------------------------------------------------------------------------

TEST_P(Branch, AudioOfEveryEncoding) {
    for (const auto &[encode, parser] : Tessaro::g_mapAudioParseElements) {
        SCOPED_TRACE(encode);
        const std::vector<std::string> chain = AudioChain(encode);
        if (chain.empty()) {
            continue;  // refused, see below
        }
        const TestPad pad = MakePad("audio_0", "");
        EXPECT_TRUE(Audio(pad.get(), encode.c_str()));
        EXPECT_EQ(AudioLines(encode), m_log.Take());
        EXPECT_EQ(chain, ChainBehind(pad.get()));
        EXPECT_EQ(static_cast<int>(chain.size()), Children());
        ExpectPlaying(chain);
        EXPECT_EQ(GST_STATE_PLAYING, State());
        EXPECT_FALSE(SourceProbe::MediaChanged(Source()));
        EXPECT_EQ(encode, SourceProbe::AudioEncode(Source()).Get());
        EXPECT_EQ("", SourceProbe::VideoEncode(Source()).Get());

        const Tessaro::BranchFields fields = Fields();
        EXPECT_EQ(Row().depays, fields.depay[1] != nullptr);
        EXPECT_EQ(Element(Source(), "aqueue"), fields.queue[1]);
        EXPECT_EQ(Element(Source(), "apaser"), fields.parse[1]);
        EXPECT_EQ(Element(Source(), "aaccapsfilter"), fields.filter[1]);
        EXPECT_EQ(Element(Source(), "audioshbsink"), fields.sink[1]);
        EXPECT_EQ(1000000000U, Property<guint64>(fields.queue[1], "max-size-time"));
        const int media = Tessaro::Lookup(Tessaro::g_mapAudioMediaTypes, encode);
        EXPECT_EQ(Sets(Row().audioSinkSets, {"media=" + std::to_string(media)}), SetsOf(fields.sink[1]));
        if (fields.filter[1] != nullptr) {
            GstCaps *caps = Property<GstCaps *>(fields.filter[1], "caps");
            GstCaps *expected = gst_caps_from_string("audio/mpeg,stream-format=adts");
            EXPECT_TRUE(gst_caps_is_strictly_equal(expected, caps));
            gst_caps_unref(expected);
            gst_caps_unref(caps);
        }
        for (GstElement *video : {fields.queue[0], fields.parse[0], fields.filter[0], fields.sink[0]}) {
            EXPECT_EQ(nullptr, video);
        }
        Restart();
    }
}

TEST_P(Branch, MediaKinds) {
    const std::pair<const char *, int> rows[] = {{"AAC", 21}, {"MP4A-LATM", 23}, {"AC3", 25}, {"MP3", 18}, {"VORBIS", 0}};
    for (const auto &[encode, media] : rows) {
        const TestPad pad = MakePad("audio_0", "");
        ASSERT_TRUE(Audio(pad.get(), encode));
        EXPECT_EQ(media, Property<gint>(Fields().sink[1], "media")) << encode;
        EXPECT_EQ(kChannel, Property<gint>(Fields().sink[1], "channel"));
        EXPECT_EQ(kStream, Property<gint>(Fields().sink[1], "stream"));
        EXPECT_EQ(&m_buffer, Property<gpointer>(Fields().sink[1], "share-buffer"));
        Restart();
    }
}

TEST_P(Branch, AudioWithoutAParser) {
    for (const char *encode : {"PCMA", "PCMU"}) {
        SCOPED_TRACE(encode);
        const TestPad pad = MakePad("audio_0", "");
        if (Row().acceptsUnparsed) {
            EXPECT_TRUE(Audio(pad.get(), encode));
            Lines expected{AudioFound(encode)};
            if (Row().depays) {
                expected.push_back(Info("[CRtspSource] audioshbsink sync state with parent OK"));
            }
            expected.push_back(Info(Row().audioLinkSuccess + Url()));
            if (!Row().depays) {
                expected.push_back(Info("[CRtmpSource]Audio element link many ok !!!  url=" + Url()));
            }
            EXPECT_EQ(expected, m_log.Take());
            EXPECT_EQ(AudioChain(encode), ChainBehind(pad.get()));
        } else {
            EXPECT_FALSE(Audio(pad.get(), encode));
            EXPECT_EQ((Lines{Info(Row().Tag() + " ~~~~~Find audio parse element by name!!!none"),
                             Err(Row().Tag() + " Make audio parse faild by name!!! none, url=" + Url())}),
                      m_log.Take());
            EXPECT_EQ(0, Children());
            EXPECT_EQ(0U, Alive());
        }
        EXPECT_EQ(encode, SourceProbe::AudioEncode(Source()).Get());
        EXPECT_EQ(GST_STATE_PLAYING, State());
        const TestPad second = MakePad("audio_1", "");
        EXPECT_TRUE(Audio(second.get(), encode));
        EXPECT_EQ(Lines{AudioRepeated()}, m_log.Take());
        Restart();
    }
}

TEST_P(Branch, AudioSignalsReachTheRecords) {
    const TestPad pad = MakePad("audio_0", "");
    ASSERT_TRUE(Audio(pad.get(), "AAC"));
    GstElement *sink = Fields().sink[1];
    m_log.Take();
    EmitBitrate(sink, 128);
    EmitFps(sink, 47);
    EmitAudioChanged(sink, {});
    const source_status_t status = SourceProbe::Status(Source());
    EXPECT_EQ(128U, status.audio_bitrate);
    EXPECT_EQ(0U, status.video_bitrate);
    EXPECT_EQ(47.0F, status.audio_real_fps);
    EXPECT_EQ(0.0F, status.video_real_fps);
    EXPECT_STREQ("AAC", status.audio_code);
    EXPECT_EQ(48000, status.sample_rate);
    EXPECT_EQ(2, status.channels);
    media_code_info_t video{};
    media_code_info_t audio{};
    Source().GetMediaInfo(&video, &audio);
    EXPECT_EQ(1024, audio.params.audio.no_samples);
    EXPECT_EQ(128000, audio.params.audio.extra);
    EXPECT_EQ(1U, m_log.Count(Info("[CBaseSource] ~~~~~audio_changed_handler callback!!! URL=" + Url()))) << "connected once";
    EmitVideoChanged(sink, {});
    EXPECT_STREQ("", SourceProbe::Status(Source()).video_code);
}

TEST_P(Branch, RepeatedAudio) {
    const TestPad first = MakePad("audio_0", "");
    const TestPad second = MakePad("audio_1", "");
    ASSERT_TRUE(Audio(first.get(), "MP3"));
    m_log.Take();
    const int children = Children();
    EXPECT_TRUE(Audio(second.get(), "MP3"));
    EXPECT_EQ(Lines{AudioRepeated()}, m_log.Take());
    EXPECT_EQ(children, Children());
    EXPECT_EQ(nullptr, GST_PAD_PEER(second.get()));
    EXPECT_FALSE(SourceProbe::MediaChanged(Source()));
}

TEST_P(Branch, ChangedAudio) {
    const TestPad first = MakePad("audio_0", "");
    const TestPad second = MakePad("audio_1", "");
    ASSERT_TRUE(Audio(first.get(), "MP3"));
    m_log.Take();
    EXPECT_TRUE(Audio(second.get(), "AAC"));
    EXPECT_EQ(Lines{AudioChanged("AAC")}, m_log.Take());
    EXPECT_TRUE(SourceProbe::MediaChanged(Source()));
    EXPECT_EQ("MP3", SourceProbe::AudioEncode(Source()).Get());
    EXPECT_EQ(nullptr, GST_PAD_PEER(second.get()));
}

TEST_P(Branch, UnknownAudioIsNotRecorded) {
    for (const char *encode : {"aac", "G722", "H264", "MPEG"}) {
        const TestPad pad = MakePad("audio_0", "");
        EXPECT_FALSE(Audio(pad.get(), encode));
        EXPECT_EQ(Lines{AudioUnknown(encode)}, m_log.Take());
        EXPECT_EQ("", SourceProbe::AudioEncode(Source()).Get());
        EXPECT_EQ(0, Children());
        EXPECT_EQ(0U, Alive());
        EXPECT_EQ(GST_STATE_PLAYING, State());
        EXPECT_EQ(nullptr, Fields().queue[1]);
        EXPECT_EQ(nullptr, Fields().sink[1]);
    }
    // The next pad is tried afresh.
    const TestPad pad = MakePad("audio_1", "");
    EXPECT_TRUE(Audio(pad.get(), "AAC"));
    EXPECT_EQ(AudioLines("AAC"), m_log.Take());
}

TEST_P(Branch, MissingAudioParser) {
    m_faults.FailFactory("aacparse");
    const TestPad pad = MakePad("audio_0", "");
    EXPECT_FALSE(Audio(pad.get(), "AAC"));
    EXPECT_EQ((Lines{AudioFound("AAC"), AudioParserFailure("aacparse")}), m_log.Take());
    EXPECT_EQ(0, Children());
    EXPECT_EQ(0U, Alive());
    EXPECT_EQ(GST_STATE_PLAYING, State());
    const Tessaro::BranchFields fields = Fields();
    for (GstElement *field : {fields.depay[1], fields.queue[1], fields.parse[1], fields.filter[1], fields.sink[1]}) {
        EXPECT_EQ(nullptr, field);
    }
    EXPECT_EQ("AAC", SourceProbe::AudioEncode(Source()).Get()) << "recorded";
    EXPECT_TRUE(Audio(pad.get(), "AAC"));
    EXPECT_EQ(Lines{AudioRepeated()}, m_log.Take());
}

TEST_P(Branch, MissingAudioDepayloader) {
    if (!Row().depays) {
        return;
    }
    for (const auto &[encode, depayloader] : Tessaro::g_mapDepayElements) {
        m_faults.FailFactory(depayloader);
        const TestPad pad = MakePad("audio_0", "");
        EXPECT_FALSE(Audio(pad.get(), encode.c_str()));
        m_faults.Forgive(depayloader);
        EXPECT_EQ((Lines{AudioFound(encode),
                         Err("[CRtspSource] Make rtpaudiodeplay element faild by name!!! " + depayloader + ", url=" + Url())}),
                  m_log.Take());
        EXPECT_EQ(0U, Alive());
        EXPECT_EQ(GST_STATE_PLAYING, State());
        EXPECT_EQ(encode, SourceProbe::AudioEncode(Source()).Get());
        Restart();
    }
}

TEST_P(Branch, MissingAudioSink) {
    // The branch is built up to there, and the host is told what is missing.
    m_faults.FailFactory("shbsink");
    const TestPad pad = MakePad("audio_0", "");
    EXPECT_TRUE(Audio(pad.get(), "AAC"));
    Lines synced = AudioSynced(true);
    if (Row().depays) {
        synced.pop_back();  // no sink to be started
    }
    EXPECT_EQ((Lines{NotMade("shbsink audioshbsink"), AudioFound("AAC")}) + synced +
                  Lines{Info(Row().audioLinkSuccess + Url())} + AudioLinked(true),
              m_log.Take());
    std::vector<std::string> chain = AudioChain("AAC");
    chain.pop_back();
    EXPECT_EQ(chain, ChainBehind(pad.get()));
    EXPECT_EQ(nullptr, Fields().sink[1]);
}

TEST_P(Branch, MissingAudioSinkBehindAQueueAlone) {
    if (Row().type != SOURCE_TYPE_RTMP) {
        return;  // the only class whose chain without a parser is queue and sink
    }
    m_faults.FailFactory("shbsink");
    const TestPad pad = MakePad("audio_0", "");
    EXPECT_FALSE(Audio(pad.get(), "PCMU")) << "a queue alone is no branch";
    EXPECT_EQ(
        (Lines{NotMade("shbsink audioshbsink"), AudioFound("PCMU"), Info(Row().audioLinkSuccess + Url()), AudioChainFailure()}),
        m_log.Take());
    EXPECT_EQ(0, State());
    EXPECT_EQ((std::vector<std::string>{"queue aqueue"}), ChainBehind(pad.get()));
    Restart();
}

TEST_P(Branch, MissingAudioQueue) {
    m_faults.FailFactory("queue");
    const TestPad pad = MakePad("audio_0", "");
    const bool built = Audio(pad.get(), "AAC");
    const Lines lines = m_log.Take();
    ASSERT_LE(3U, lines.size());
    EXPECT_EQ(NotMade("queue aqueue"), lines[0]);
    EXPECT_EQ(AudioFound("AAC"), lines[1]);
    if (Row().depays) {
        // The pad goes to the depayloader, which then has nothing to be linked to.
        EXPECT_FALSE(built);
        EXPECT_EQ((Lines{NotMade("queue aqueue"), AudioFound("AAC"), Info(Row().audioLinkSuccess + Url()),
                         Err("[CRtspSource] Audio element link many faild !!! url=" + Url())}),
                  lines);
        EXPECT_EQ(0, State());
        EXPECT_EQ((std::vector<std::string>{"rtpmp4gdepay adepay"}), ChainBehind(pad.get()));
    } else {
        EXPECT_FALSE(built);
        EXPECT_EQ((Lines{NotMade("queue aqueue"), AudioFound("AAC"), Err(Row().audioLinkFailure + Url())}), lines);
        EXPECT_EQ(0, State());
        EXPECT_EQ(0, Children());
    }
    // What was made but never added goes with the next stop.
    Restart();
}

TEST_P(Branch, MissingAudioCapsFilter) {
    m_faults.FailFactory("capsfilter");
    const TestPad pad = MakePad("audio_0", "");
    EXPECT_TRUE(Audio(pad.get(), "AAC"));
    EXPECT_EQ((Lines{AudioFound("AAC"), NotMade("capsfilter aaccapsfilter")}) + AudioSynced(true) +
                  Lines{Info(Row().audioLinkSuccess + Url())} + AudioLinked(true),
              m_log.Take());
    std::vector<std::string> chain = AudioChain("AAC");
    chain.erase(chain.end() - 2);
    EXPECT_EQ(chain, ChainBehind(pad.get()));
}

TEST_P(Branch, AudioPadLinkFailure) {
    const TestPad taken = MakePad("audio_0", "");
    const TestPad taker = MakePad("sink", "", GST_PAD_SINK);
    ASSERT_EQ(GST_PAD_LINK_OK, gst_pad_link(taken.get(), taker.get()));
    const TestPad free = MakePad("audio_1", "");
    for (GstPad *pad : {taken.get(), free.get()}) {
        if (pad == free.get()) {
            m_faults.FailPadLink(1);
        }
        EXPECT_FALSE(Audio(pad, "AAC"));
        EXPECT_EQ(Lines{AudioFound("AAC")} + AudioSynced(true) + Lines{Err(Row().audioLinkFailure + Url())}, m_log.Take());
        EXPECT_EQ(0, State());
        EXPECT_EQ(static_cast<int>(AudioChain("AAC").size()), Children()) << "they stay in";
        GstPad *source = gst_element_get_static_pad(Fields().queue[1], "src");
        EXPECT_FALSE(gst_pad_is_linked(source));
        gst_object_unref(source);
        Restart();
    }
    gst_pad_unlink(taken.get(), taker.get());
}

TEST_P(Branch, EachAudioChainLinkFailure) {
    for (const char *encode : {"AAC", "MP3", "PCMA"}) {
        const std::vector<std::string> chain = AudioChain(encode);
        const bool parsed = std::string(encode) != "PCMA";
        for (int link = 1; link < static_cast<int>(chain.size()); ++link) {
            SCOPED_TRACE(std::string(encode) + " " + std::to_string(link));
            const TestPad pad = MakePad("audio_0", "");
            m_faults.FailElementLink(link);
            EXPECT_FALSE(Audio(pad.get(), encode));
            EXPECT_EQ((Lines{AudioFound(encode)} + AudioSynced(parsed) +
                       Lines{Info(Row().audioLinkSuccess + Url()), AudioChainFailure()}),
                      m_log.Take());
            EXPECT_EQ(encode, SourceProbe::AudioEncode(Source()).Get());
            const Tessaro::BranchFields fields = Fields();
            EXPECT_NE(nullptr, fields.queue[1]);
            EXPECT_NE(nullptr, fields.sink[1]);
            if (Row().type == SOURCE_TYPE_UDP) {
                // Queue, parser and sink are taken out; the caps filter stays in. State and fields stay as they are.
                EXPECT_EQ(GST_STATE_PLAYING, State());
                EXPECT_EQ(fields.filter[1] != nullptr ? 1 : 0, Children());
                EXPECT_EQ(nullptr, Element(Source(), "aqueue"));
                EXPECT_EQ(nullptr, Element(Source(), "apaser"));
                EXPECT_EQ(nullptr, Element(Source(), "audioshbsink"));
                for (GstElement *element : {fields.queue[1], fields.parse[1], fields.sink[1]}) {
                    EXPECT_EQ(GST_STATE_NULL, GST_STATE(element));
                    EXPECT_EQ(nullptr, GST_OBJECT_PARENT(element));
                }
                EXPECT_FALSE(gst_pad_is_linked(pad.get()));
            } else {
                EXPECT_EQ(0, State());
                EXPECT_EQ(static_cast<int>(chain.size()), Children());
            }
            m_faults.FailElementLink(0);
            Restart();
        }
    }
}

TEST_P(Branch, AudioChainThatTheElementsRefuse) {
    m_faults.Substitute("aacparse", "h264parse");
    const TestPad pad = MakePad("audio_0", "");
    EXPECT_FALSE(Audio(pad.get(), "AAC"));
    EXPECT_EQ(AudioChainFailure(), m_log.Take().back());
    EXPECT_EQ(Row().type == SOURCE_TYPE_UDP ? static_cast<int>(GST_STATE_PLAYING) : 0, State());
}

TEST_P(Branch, AudioBranchThatHasAPeerAlready) {
    const TestPad other = MakePad("other", "");
    OccupyWhenAdded(Source(), InstanceName(AudioChain("AAC").front()), other);
    const TestPad pad = MakePad("audio_0", "");
    EXPECT_TRUE(Audio(pad.get(), "AAC"));
    EXPECT_EQ(Lines{AudioFound("AAC")} + AudioSynced(true) + AudioLinked(true), m_log.Take());
    EXPECT_EQ(nullptr, GST_PAD_PEER(pad.get()));
    EXPECT_EQ(AudioChain("AAC"), ChainBehind(other.get()));
}

TEST_P(Branch, PadOfForeignCaps) {
    if (!Row().depays) {
        return;  // a queue takes everything
    }
    GstCaps *caps = gst_caps_from_string("text/x-raw");
    GstPadTemplate *foreign = gst_pad_template_new("src_%u", GST_PAD_SRC, GST_PAD_SOMETIMES, caps);
    gst_caps_unref(caps);
    gst_object_ref_sink(foreign);
    const TestPad pad(GST_PAD(gst_object_ref_sink(gst_pad_new_from_template(foreign, "src_0"))));
    gst_object_unref(foreign);
    gst_pad_set_active(pad.get(), TRUE);
    EXPECT_FALSE(Audio(pad.get(), "PCMA"));
    EXPECT_EQ(Err(Row().audioLinkFailure + Url()), m_log.Take().back());
    EXPECT_EQ(0, State());
    SourceProbe::State(Source()) = GST_STATE_PLAYING;
    EXPECT_FALSE(Video(pad.get(), "H264"));
    EXPECT_EQ(Err(Row().videoLinkFailure + Url()), m_log.Take().back());
    EXPECT_EQ(0, State());
}

// ---- Both -------------------------------------------------------------------------------------------------------------------

TEST_P(Branch, VideoAndAudioSideBySide) {
    for (int run = 0; run < 2; ++run) {
        const TestPad video = MakePad("video_0", "");
        const TestPad audio = MakePad("audio_0", "");
        EXPECT_TRUE(Video(video.get(), "H265"));
        EXPECT_TRUE(Audio(audio.get(), "AAC"));
        EXPECT_EQ(VideoChain("H265"), ChainBehind(video.get()));
        EXPECT_EQ(AudioChain("AAC"), ChainBehind(audio.get()));
        for (const GstElement *field : Row().fields(Source())) {
            EXPECT_TRUE(field != nullptr || Row().type == SOURCE_TYPE_HLS);  // HLS: no first stage here
        }
        Restart();
        EXPECT_EQ("", SourceProbe::VideoEncode(Source()).Get());
        EXPECT_EQ("", SourceProbe::AudioEncode(Source()).Get());
    }
}

TEST_P(Branch, CloseWithBranches) {
    const TestPad video = MakePad("video_0", "");
    const TestPad audio = MakePad("audio_0", "");
    ASSERT_TRUE(Video(video.get(), "H264"));
    ASSERT_TRUE(Audio(audio.get(), "MP3"));
    Source().CloseLiveStream();
    EXPECT_TRUE(Eventually([] { return LiveObjects().empty(); }, 20)) << testing::PrintToString(LiveObjects());
}

TEST_P(Branch, TeardownWithoutAStop) {
    const TestPad video = MakePad("video_0", "");
    ASSERT_TRUE(Video(video.get(), "H264"));
    ASSERT_EQ(GST_STATE_CHANGE_SUCCESS, gst_element_set_state(SourceProbe::Pipeline(Source()), GST_STATE_NULL));
    Row().destroy(Source());
    EXPECT_TRUE(LiveObjects().empty());
}

// Every element that is made between open and the last branch, refused one at a time: no critical, no leak, and a source that
// can be closed.
TEST_P(Branch, EachMakeRefusedInTurn) {
    int refused = 0;
    for (int n = 1; n < 100; ++n) {
        SCOPED_TRACE(n);
        m_source.reset();
        ASSERT_TRUE(Eventually([] { return LiveObjects().empty(); }, 20)) << testing::PrintToString(LiveObjects());
        Make(Row());
        m_faults.FailNthMake(n);
        SourceProbe::SetUrl(Source(), Url());
        if (Row().build(Source())) {
            for (const std::string &element : Row().front) {
                gst_element_set_locked_state(Element(Source(), InstanceName(element)), TRUE);
            }
            gst_element_set_state(SourceProbe::Pipeline(Source()), GST_STATE_PLAYING);
            SourceProbe::State(Source()) = GST_STATE_PLAYING;
            const TestPad hls = MakePad("src_0", "video/mpegts");
            if (Row().type == SOURCE_TYPE_HLS) {
                SourceProbe::HlsPadAdded(nullptr, hls.get(), &Source());
            }
            const TestPad video = MakePad("video_0", "");
            const TestPad audio = MakePad("audio_0", "");
            Video(video.get(), "H264");
            Audio(audio.get(), "AAC");
            Video(video.get(), "H265");
            Audio(audio.get(), "MP3");
            Source().CloseLiveStream();
        }
        if (!m_faults.NthMakeWasReached()) {
            break;
        }
        ++refused;
    }
    // Front, video branch, audio branch.
    const std::size_t made = Row().front.size() + VideoChain("H264").size() + AudioChain("AAC").size();
    EXPECT_EQ(static_cast<int>(made) + (Row().type == SOURCE_TYPE_HLS ? 1 : 0), refused);
}

INSTANTIATE_TEST_SUITE_P(Classes, Branch, testing::ValuesIn(SourceClasses()), ClassName());

// ---- All the way: pads through the handlers, into the branches --------------------------------------------------------------

TEST_F(SourceTest, TransportStreamPadsGetTheirBranches) {
    const SourceClass &row = ClassOf(SOURCE_TYPE_UDP);
    Make(row);
    OpenPretended(row);
    const TestPad video = MakePad("video_0_0100", "video/x-h264, stream-format=(string)byte-stream, alignment=(string)nal");
    const TestPad audio = MakePad("audio_0_0101", "audio/mpeg, mpegversion=(int)4, stream-format=(string)adts");
    const TestPad other = MakePad("private_0_0102", "private/teletext");
    for (const TestPad *pad : {&video, &audio, &other}) {
        g_signal_emit_by_name(Element(*m_source, "Tsdemux"), "pad-added", pad->get());
    }
    EXPECT_EQ(
        (std::vector<std::string>{"queue vqueue", "h264parse H264parse", "capsfilter H264capsfilter", "shbsink h26xshbsink"}),
        ChainBehind(video.get()));
    EXPECT_EQ((std::vector<std::string>{"queue aqueue", "aacparse apaser", "capsfilter aaccapsfilter", "shbsink audioshbsink"}),
              ChainBehind(audio.get()));
    EXPECT_EQ(nullptr, GST_PAD_PEER(other.get()));
    EXPECT_EQ(1U, m_log.Count(Raw("Tsdeumx unsupport current media: private/teletext")));

    // Another video codec brings a new session, which begins without encodings.
    m_log.Take();
    const TestPad changed = MakePad("video_0_0103", "video/x-h265");
    g_signal_emit_by_name(Element(*m_source, "Tsdemux"), "pad-added", changed.get());
    ASSERT_TRUE(m_log.WaitFor(Warn("[CUDPSource] Check media data changed, reset session.... URL=" + row.url)));
    ASSERT_TRUE(m_log.WaitFor(Info(row.reconnectMessage + row.url)));
    ASSERT_TRUE(Eventually([&] { return SourceProbe::StateText(*m_source) == "connected"; }));
    EXPECT_EQ("", SourceProbe::VideoEncode(*m_source).Get());
    EXPECT_EQ("", SourceProbe::AudioEncode(*m_source).Get());
    EXPECT_EQ(nullptr, Element(*m_source, "vqueue"));
}

}  // namespace unit
