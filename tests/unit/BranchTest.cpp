// Video and audio branches: what is built behind a pad, in which order, with
// which options, and what a failure leaves behind.
#include "CodecTables.h"
#include "support/Fixture.h"
#include "support/Records.h"

#include <algorithm>
#include <cstdio>

namespace unit {

namespace {

// Also the place in BranchFields.
enum Medium { kVideo, kAudio };
constexpr Medium kMedia[] = {kVideo, kAudio};

class Branch : public ClassTest {
  protected:
    void SetUp() override {
        ClassTest::SetUp();
        Begin();
    }

    // A front whose elements stay in the NULL state, in a pipeline that
    // plays: what a builder finds, without a network.
    void Begin() {
        Build();
        PlayLocked();
        m_children = GST_BIN_NUMCHILDREN(GST_BIN(SourceProbe::Pipeline(Source())));
        m_front = LiveObjects().size();
        m_log.Take();
    }
    void PlayLocked() {
        for (const std::string &element : Row().front) {
            gst_element_set_locked_state(Element(Source(), InstanceName(element)), TRUE);
        }
        ASSERT_NE(GST_STATE_CHANGE_FAILURE, gst_element_set_state(SourceProbe::Pipeline(Source()), GST_STATE_PLAYING));
        SourceProbe::State(Source()) = GST_STATE_PLAYING;
    }

    // Ends the pipeline run and begins another.
    void Restart() {
        EXPECT_TRUE(Row().stop(Source()));
        Row().destroy(Source());
        ExpectNothingLives();
        Begin();
    }

    bool Video(GstPad *pad, const char *encode) { return Row().video(Source(), pad, encode); }
    bool Audio(GstPad *pad, const char *encode) { return Row().audio(Source(), pad, encode); }
    bool Add(Medium medium, const TestPad &pad, const char *encode) {
        return medium == kVideo ? Video(pad.get(), encode) : Audio(pad.get(), encode);
    }
    Tessaro::BranchFields Fields() { return Row().branch(Source()); }
    int State() { return SourceProbe::State(Source()); }
    std::string Encode(Medium medium) {
        return (medium == kVideo ? SourceProbe::VideoEncode(Source()) : SourceProbe::AudioEncode(Source())).Get();
    }
    // Children of the pipeline beside the front.
    int Children() { return GST_BIN_NUMCHILDREN(GST_BIN(SourceProbe::Pipeline(Source()))) - m_children; }
    // Elements that live beside the front, in the pipeline or not.
    std::size_t Alive() { return LiveObjects().size() - m_front; }

    void ExpectNoFields(Medium medium) {
        const Tessaro::BranchFields fields = Fields();
        for (GstElement *const *field : {fields.depay, fields.queue, fields.parse, fields.filter, fields.sink}) {
            EXPECT_EQ(nullptr, field[medium]);
        }
    }
    // Nothing was built, and the session plays on.
    void ExpectNothingBuilt(Medium medium) {
        EXPECT_EQ(0, Children());
        EXPECT_EQ(0U, Alive()) << testing::PrintToString(LiveObjects());
        EXPECT_EQ(GST_STATE_PLAYING, State());
        ExpectNoFields(medium);
    }
    void ExpectCaps(const char *expected, GstElement *filter) {
        GstCaps *caps = Property<GstCaps *>(filter, "caps");
        GstCaps *parsed = gst_caps_from_string(expected);
        EXPECT_TRUE(gst_caps_is_strictly_equal(parsed, caps));
        gst_caps_unref(parsed);
        gst_caps_unref(caps);
    }
    void ExpectUnlinkedQueue(Medium medium) {
        GstPad *source = gst_element_get_static_pad(Fields().queue[medium], "src");
        EXPECT_FALSE(gst_pad_is_linked(source));
        gst_object_unref(source);
    }
    void ExpectPlaying(const std::vector<std::string> &chain) {
        for (const std::string &element : chain) {
            GstElement *found = Element(Source(), InstanceName(element));
            ASSERT_NE(nullptr, found) << element;
            EXPECT_EQ(GST_STATE_PLAYING, GST_STATE(found)) << element;
        }
    }

    // The sets of the table with this test's buffer, and then the kind of media.
    std::vector<std::string> Sets(const std::vector<std::string> &row, int media) {
        std::vector<std::string> sets = row;
        char pointer[32] = "";
        std::snprintf(pointer, sizeof pointer, "share-buffer=%p", static_cast<void *>(&m_buffer));
        sets[0] = pointer;
        sets.push_back("media=" + std::to_string(media));
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
        const std::string parser = Parser(encode);
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
    static std::string Parser(const std::string &encode) { return Tessaro::Lookup(Tessaro::g_mapAudioParseElements, encode); }
    std::vector<std::string> Chain(Medium medium, const std::string &encode) const {
        return medium == kVideo ? VideoChain(encode) : AudioChain(encode);
    }

    Line Changed(Medium medium, const std::string &encode) const {
        return Row().MediaChanged(medium == kVideo ? "Video" : "Audio", encode);
    }
    Line Repeated(Medium medium) const {
        return Warn(Row().Tag() + " Multiple " + (medium == kVideo ? "video" : "audio") + " media data ???  url=" + Url());
    }
    Line VideoNotMade() const { return Err(Row().Tag() + " Make h26x element faild by name!!! url=" + Url()); }
    Line PadLinked(Medium medium) const {
        return Info((medium == kVideo ? Row().videoLinkSuccess : Row().audioLinkSuccess) + Url());
    }
    Line PadLinkFailure(Medium medium) const {
        return Err((medium == kVideo ? Row().videoLinkFailure : Row().audioLinkFailure) + Url());
    }
    Line ChainFailure(Medium medium) const {
        if (medium == kVideo) {
            return Err(Row().Tag() + " Video element link many faild !!! url=" + Url());
        }
        // RTMP says this in the name of RTSP.
        const std::string tag = Row().type == SOURCE_TYPE_RTMP ? "[CRtspSource]" : Row().Tag();
        return Err(tag + " Audio element link many faild !!! url=" + Url());
    }

    Line AudioFound(const std::string &encode) const {
        if (Row().depays) {
            return Info("[CRtspSource]~~~~~Found audio parse element by name!!!" + Tessaro::g_mapDepayElements.at(encode) +
                        "->" + Parser(encode));
        }
        return Info(Row().Tag() + " ~~~~~Find audio parse element by name!!!" + Parser(encode));
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
    // What the starting of an audio branch says; RTMP in the name of RTSP.
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
        if (Row().depays && !parsed) {
            return {};
        }
        if (parsed && (Row().depays || Row().type == SOURCE_TYPE_RTMP)) {
            return {Info("[CRtspSource] Audio element link many ok !!! url=" + Url())};
        }
        return {Info(Row().Tag() + "Audio element link many ok !!!  url=" + Url())};
    }
    // What a branch says before its pad is linked.
    Lines LinesBeforeThePad(Medium medium, const std::string &encode) const {
        return medium == kVideo ? Lines{} : Lines{AudioFound(encode)} + AudioSynced(Parser(encode) != "none");
    }
    // All that a good audio branch says.
    Lines AudioLines(const std::string &encode) const {
        return LinesBeforeThePad(kAudio, encode) + Lines{PadLinked(kAudio)} + AudioLinked(Parser(encode) != "none");
    }

    int m_children = 0;
    std::size_t m_front = 0;
    const TestPad m_pad = MakePad("src_0", "");
    const TestPad m_second = MakePad("src_1", "");
};

// An encoding of each medium, and another one.
constexpr const char *kOne[] = {"H264", "MP3"};
constexpr const char *kOther[] = {"H265", "AAC"};

}  // namespace

// ---- Video ------------------------------------------------------------------------------------------------------------------

TEST_P(Branch, Video) {
    struct Encoding {
        const char *name;
        int media;
        const char *caps;
    };
    const Encoding encodings[] = {{"H264", 48, "video/x-h264,stream-format=byte-stream,alignment=au"},
                                  {"H265", 64, "video/x-h265,stream-format=byte-stream,alignment=au"}};
    for (const Encoding &encoding : encodings) {
        SCOPED_TRACE(encoding.name);
        EXPECT_TRUE(Video(m_pad.get(), encoding.name));
        EXPECT_EQ(Lines{PadLinked(kVideo)}, m_log.Take());
        const std::vector<std::string> chain = VideoChain(encoding.name);
        EXPECT_EQ(chain, ChainBehind(m_pad.get()));
        EXPECT_EQ(static_cast<int>(chain.size()), Children());
        ExpectPlaying(chain);
        EXPECT_EQ(GST_STATE_PLAYING, State());
        EXPECT_FALSE(SourceProbe::MediaChanged(Source()));
        EXPECT_EQ(encoding.name, Encode(kVideo));
        EXPECT_EQ("", Encode(kAudio));

        const Tessaro::BranchFields fields = Fields();
        EXPECT_EQ(Row().depays, fields.depay[0] != nullptr);
        EXPECT_EQ(Element(Source(), "vqueue"), fields.queue[0]);
        EXPECT_EQ(Element(Source(), "h26xshbsink"), fields.sink[0]);
        ASSERT_NE(nullptr, fields.parse[0]);
        ASSERT_NE(nullptr, fields.filter[0]);
        EXPECT_EQ(1000000000U, Property<guint64>(fields.queue[0], "max-size-time"));
        EXPECT_EQ(-1, Property<gint>(fields.parse[0], "config-interval"));
        ExpectCaps(encoding.caps, fields.filter[0]);
        EXPECT_EQ(Sets(Row().videoSinkSets, encoding.media), SetsOf(fields.sink[0]));
        EXPECT_EQ(!Row().depays, Property<gboolean>(fields.sink[0], "sync") != FALSE);
        EXPECT_FALSE(Property<gboolean>(fields.sink[0], "async"));
        ExpectNoFields(kAudio);
        Restart();
    }
}

TEST_P(Branch, SinksReportCountsAsTheEncoding) {
    ASSERT_TRUE(Video(m_pad.get(), "H264"));
    VideoReport report;
    report.code = "H265";
    EmitVideoChanged(Fields().sink[0], report);
    m_log.Take();
    EXPECT_TRUE(Video(m_second.get(), "H264"));
    EXPECT_EQ(Lines{Changed(kVideo, "H264")}, m_log.Take());
    EXPECT_TRUE(SourceProbe::MediaChanged(Source()));
}

TEST_P(Branch, UnknownVideo) {
    for (const char *encode : {"VP8", "h264", "H264 ", "H26", "AAC"}) {
        SCOPED_TRACE(encode);
        EXPECT_FALSE(Video(m_pad.get(), encode));
        EXPECT_EQ(Lines{VideoNotMade()}, m_log.Take());
        EXPECT_EQ(encode, Encode(kVideo)) << "recorded all the same";
        ExpectNothingBuilt(kVideo);

        EXPECT_TRUE(Video(m_pad.get(), encode));
        EXPECT_EQ(Lines{Repeated(kVideo)}, m_log.Take());
        EXPECT_TRUE(Video(m_pad.get(), "H264"));
        EXPECT_EQ(Lines{Changed(kVideo, "H264")}, m_log.Take());
        SourceProbe::MediaChanged(Source()) = false;
        Restart();
    }
}

TEST_P(Branch, EachMissingVideoElement) {
    for (const char *encode : {"H264", "H265"}) {
        for (const std::string &element : VideoChain(encode)) {
            SCOPED_TRACE(element);
            m_faults.FailFactory(FactoryName(element));
            EXPECT_FALSE(Video(m_pad.get(), encode));
            m_faults.Forgive(FactoryName(element));
            EXPECT_EQ((Lines{NotMade(element), VideoNotMade()}), m_log.Take());
            ExpectNothingBuilt(kVideo);
            EXPECT_EQ(nullptr, GST_PAD_PEER(m_pad.get()));
            EXPECT_EQ(encode, Encode(kVideo));
            EXPECT_TRUE(Video(m_pad.get(), encode));
            EXPECT_EQ(Lines{Repeated(kVideo)}, m_log.Take());
            Restart();
        }
    }
}

TEST_P(Branch, AllVideoElementsMissing) {
    for (const std::string &element : VideoChain("H264")) {
        m_faults.FailFactory(FactoryName(element));
    }
    EXPECT_FALSE(Video(m_pad.get(), "H264"));
    const Lines lines = m_log.Take();
    EXPECT_EQ(VideoChain("H264").size() + 1, lines.size());
    for (const std::string &element : VideoChain("H264")) {
        EXPECT_EQ(1, std::count(lines.begin(), lines.end(), NotMade(element)));
    }
    EXPECT_EQ(VideoNotMade(), lines.back());
}

// ---- Audio ------------------------------------------------------------------------------------------------------------------

TEST_P(Branch, AudioOfEveryEncoding) {
    for (const auto &[encode, parser] : Tessaro::g_mapAudioParseElements) {
        SCOPED_TRACE(encode);
        const std::vector<std::string> chain = AudioChain(encode);
        if (chain.empty()) {
            continue;  // refused, see below
        }
        EXPECT_TRUE(Audio(m_pad.get(), encode.c_str()));
        EXPECT_EQ(AudioLines(encode), m_log.Take());
        EXPECT_EQ(chain, ChainBehind(m_pad.get()));
        EXPECT_EQ(static_cast<int>(chain.size()), Children());
        ExpectPlaying(chain);
        EXPECT_EQ(GST_STATE_PLAYING, State());
        EXPECT_FALSE(SourceProbe::MediaChanged(Source()));
        EXPECT_EQ(encode, Encode(kAudio));
        EXPECT_EQ("", Encode(kVideo));

        const Tessaro::BranchFields fields = Fields();
        EXPECT_EQ(Row().depays, fields.depay[1] != nullptr);
        EXPECT_EQ(Element(Source(), "aqueue"), fields.queue[1]);
        EXPECT_EQ(Element(Source(), "apaser"), fields.parse[1]);
        EXPECT_EQ(Element(Source(), "aaccapsfilter"), fields.filter[1]);
        EXPECT_EQ(Element(Source(), "audioshbsink"), fields.sink[1]);
        EXPECT_EQ(1000000000U, Property<guint64>(fields.queue[1], "max-size-time"));
        EXPECT_EQ(Sets(Row().audioSinkSets, Tessaro::Lookup(Tessaro::g_mapAudioMediaTypes, encode)), SetsOf(fields.sink[1]));
        if (fields.filter[1] != nullptr) {
            ExpectCaps("audio/mpeg,stream-format=adts", fields.filter[1]);
        }
        ExpectNoFields(kVideo);
        Restart();
    }
}

TEST_P(Branch, MediaKinds) {
    const std::pair<const char *, int> rows[] = {{"AAC", 21}, {"MP4A-LATM", 23}, {"AC3", 25}, {"MP3", 18}, {"VORBIS", 0}};
    for (const auto &[encode, media] : rows) {
        ASSERT_TRUE(Audio(m_pad.get(), encode));
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
        if (Row().acceptsUnparsed) {
            EXPECT_TRUE(Audio(m_pad.get(), encode));
            EXPECT_EQ(AudioLines(encode), m_log.Take());
            EXPECT_EQ(AudioChain(encode), ChainBehind(m_pad.get()));
        } else {
            EXPECT_FALSE(Audio(m_pad.get(), encode));
            EXPECT_EQ((Lines{Info(Row().Tag() + " ~~~~~Find audio parse element by name!!!none"),
                             Err(Row().Tag() + " Make audio parse faild by name!!! none, url=" + Url())}),
                      m_log.Take());
            ExpectNothingBuilt(kAudio);
        }
        EXPECT_EQ(encode, Encode(kAudio));
        EXPECT_EQ(GST_STATE_PLAYING, State());
        EXPECT_TRUE(Audio(m_second.get(), encode));
        EXPECT_EQ(Lines{Repeated(kAudio)}, m_log.Take());
        Restart();
    }
}

TEST_P(Branch, UnknownAudioIsNotRecorded) {
    for (const char *encode : {"aac", "G722", "H264", "MPEG"}) {
        EXPECT_FALSE(Audio(m_pad.get(), encode));
        EXPECT_EQ(Lines{AudioUnknown(encode)}, m_log.Take());
        EXPECT_EQ("", Encode(kAudio));
        ExpectNothingBuilt(kAudio);
    }
    // The next pad is tried afresh.
    EXPECT_TRUE(Audio(m_second.get(), "AAC"));
    EXPECT_EQ(AudioLines("AAC"), m_log.Take());
}

TEST_P(Branch, MissingAudioParser) {
    m_faults.FailFactory("aacparse");
    EXPECT_FALSE(Audio(m_pad.get(), "AAC"));
    EXPECT_EQ((Lines{AudioFound("AAC"), AudioParserFailure("aacparse")}), m_log.Take());
    ExpectNothingBuilt(kAudio);
    EXPECT_EQ("AAC", Encode(kAudio)) << "recorded";
    EXPECT_TRUE(Audio(m_pad.get(), "AAC"));
    EXPECT_EQ(Lines{Repeated(kAudio)}, m_log.Take());
}

TEST_P(Branch, MissingAudioDepayloader) {
    if (!Row().depays) {
        return;
    }
    for (const auto &[encode, depayloader] : Tessaro::g_mapDepayElements) {
        m_faults.FailFactory(depayloader);
        EXPECT_FALSE(Audio(m_pad.get(), encode.c_str()));
        m_faults.Forgive(depayloader);
        EXPECT_EQ((Lines{AudioFound(encode),
                         Err("[CRtspSource] Make rtpaudiodeplay element faild by name!!! " + depayloader + ", url=" + Url())}),
                  m_log.Take());
        ExpectNothingBuilt(kAudio);
        EXPECT_EQ(encode, Encode(kAudio));
        Restart();
    }
}

TEST_P(Branch, MissingAudioSink) {
    // The branch is built up to there, and the host is told what is missing.
    m_faults.FailFactory("shbsink");
    EXPECT_TRUE(Audio(m_pad.get(), "AAC"));
    Lines synced = AudioSynced(true);
    if (Row().depays) {
        synced.pop_back();  // no sink to be started
    }
    EXPECT_EQ(
        (Lines{NotMade("shbsink audioshbsink"), AudioFound("AAC")}) + synced + Lines{PadLinked(kAudio)} + AudioLinked(true),
        m_log.Take());
    std::vector<std::string> chain = AudioChain("AAC");
    chain.pop_back();
    EXPECT_EQ(chain, ChainBehind(m_pad.get()));
    EXPECT_EQ(nullptr, Fields().sink[1]);
}

TEST_P(Branch, MissingAudioSinkBehindAQueueAlone) {
    if (Row().type != SOURCE_TYPE_RTMP) {
        return;  // the only class whose chain without a parser is queue and sink
    }
    m_faults.FailFactory("shbsink");
    EXPECT_FALSE(Audio(m_pad.get(), "PCMU")) << "a queue alone is no branch";
    EXPECT_EQ((Lines{NotMade("shbsink audioshbsink"), AudioFound("PCMU"), PadLinked(kAudio), ChainFailure(kAudio)}),
              m_log.Take());
    EXPECT_EQ(0, State());
    EXPECT_EQ((std::vector<std::string>{"queue aqueue"}), ChainBehind(m_pad.get()));
    Restart();
}

TEST_P(Branch, MissingAudioQueue) {
    m_faults.FailFactory("queue");
    EXPECT_FALSE(Audio(m_pad.get(), "AAC"));
    Lines expected{NotMade("queue aqueue"), AudioFound("AAC")};
    if (Row().depays) {
        // The pad goes to the depayloader, which then has nothing to be linked to.
        EXPECT_EQ((expected + Lines{PadLinked(kAudio), ChainFailure(kAudio)}), m_log.Take());
        EXPECT_EQ((std::vector<std::string>{"rtpmp4gdepay adepay"}), ChainBehind(m_pad.get()));
    } else {
        EXPECT_EQ((expected + Lines{PadLinkFailure(kAudio)}), m_log.Take());
        EXPECT_EQ(0, Children());
    }
    EXPECT_EQ(0, State());
    // What was made but never added goes with the next stop.
    Restart();
}

TEST_P(Branch, MissingAudioCapsFilter) {
    m_faults.FailFactory("capsfilter");
    EXPECT_TRUE(Audio(m_pad.get(), "AAC"));
    EXPECT_EQ((Lines{AudioFound("AAC"), NotMade("capsfilter aaccapsfilter")}) + AudioSynced(true) + Lines{PadLinked(kAudio)} +
                  AudioLinked(true),
              m_log.Take());
    std::vector<std::string> chain = AudioChain("AAC");
    chain.erase(chain.end() - 2);
    EXPECT_EQ(chain, ChainBehind(m_pad.get()));
}

// ---- Each of the two --------------------------------------------------------------------------------------------------------

// Those of its medium: a sink of the one has nothing to say of the other.
TEST_P(Branch, SignalsReachTheRecords) {
    struct Case {
        Medium medium;
        guint bitrate;
        guint fps;
        const char *handler;
        const char *status;
        const char *info;
    };
    const Case cases[] = {{kVideo, 5000, 26, "video_changed_handler",
                           " connected: H264 1920x1080 25 fps, 26 real, 5000 bit/s;  0 Hz, 0 channels, 0 real, 0 bit/s",
                           "H264 1920x1080 25 fps, scan 0, 4 references"},
                          {kAudio, 128, 47, "audio_changed_handler",
                           " connected:  0x0 0 fps, 0 real, 0 bit/s; AAC 48000 Hz, 2 channels, 47 real, 128 bit/s",
                           "AAC 48000 Hz, 2 channels, 1024 samples, extra 128000"}};
    for (const Case &row : cases) {
        SCOPED_TRACE(row.handler);
        Make(Row());
        Begin();
        ASSERT_TRUE(Add(row.medium, m_pad, row.medium == kVideo ? "H264" : "AAC"));
        GstElement *sink = Fields().sink[row.medium];
        m_log.Take();
        EmitBitrate(sink, row.bitrate);
        EmitFps(sink, row.fps);
        EmitVideoChanged(sink, {});
        EmitAudioChanged(sink, {});
        EXPECT_EQ(row.status, Describe(SourceProbe::Status(Source())));
        media_code_info_t infos[2] = {};
        Source().GetMediaInfo(&infos[kVideo], &infos[kAudio]);
        EXPECT_EQ(row.info, Describe(infos[row.medium]));
        const Line called = Info(std::string("[CBaseSource] ~~~~~") + row.handler + " callback!!! URL=" + Url());
        EXPECT_EQ(1U, m_log.Count(called)) << "connected once";
    }
}

TEST_P(Branch, Repeated) {
    for (const Medium medium : kMedia) {
        SCOPED_TRACE(kOne[medium]);
        ASSERT_TRUE(Add(medium, m_pad, kOne[medium]));
        m_log.Take();
        const int children = Children();
        EXPECT_TRUE(Add(medium, m_second, kOne[medium]));
        EXPECT_EQ(Lines{Repeated(medium)}, m_log.Take());
        EXPECT_EQ(children, Children());
        EXPECT_EQ(nullptr, GST_PAD_PEER(m_second.get()));
        EXPECT_FALSE(SourceProbe::MediaChanged(Source()));
        EXPECT_EQ(GST_STATE_PLAYING, State());
        Restart();
    }
}

TEST_P(Branch, Changed) {
    for (const Medium medium : kMedia) {
        SCOPED_TRACE(kOne[medium]);
        ASSERT_TRUE(Add(medium, m_pad, kOne[medium]));
        m_log.Take();
        const int children = Children();
        EXPECT_TRUE(Add(medium, m_second, kOther[medium]));
        EXPECT_EQ(Lines{Changed(medium, kOther[medium])}, m_log.Take());
        EXPECT_TRUE(SourceProbe::MediaChanged(Source()));
        EXPECT_EQ(children, Children());
        EXPECT_EQ(kOne[medium], Encode(medium));
        EXPECT_EQ(nullptr, GST_PAD_PEER(m_second.get()));
        SourceProbe::MediaChanged(Source()) = false;
        Restart();
    }
}

// Once refused by the framework, once by a pad that is somebody else's already.
TEST_P(Branch, FailedPadLink) {
    const TestPad taker = MakePad("sink", "", GST_PAD_SINK);
    ASSERT_EQ(GST_PAD_LINK_OK, gst_pad_link(m_second.get(), taker.get()));
    for (const Medium medium : kMedia) {
        const char *encode = kOther[medium];
        SCOPED_TRACE(encode);
        for (const TestPad *pad : {&m_second, &m_pad}) {
            m_faults.FailPadLink(pad == &m_pad ? 1 : 0);
            EXPECT_FALSE(Add(medium, *pad, encode));
            EXPECT_EQ(LinesBeforeThePad(medium, encode) + Lines{PadLinkFailure(medium)}, m_log.Take());
            EXPECT_EQ(medium == kVideo ? Row().stateAfterVideoPadLinkFailure : 0, State());
            EXPECT_EQ(static_cast<int>(Chain(medium, encode).size()), Children()) << "they stay in";
            ExpectPlaying(Chain(medium, encode));
            ExpectUnlinkedQueue(medium);
            Restart();
        }
    }
    gst_pad_unlink(m_second.get(), taker.get());
}

TEST_P(Branch, EachFailedChainLink) {
    const std::pair<Medium, const char *> rows[] = {{kVideo, "H265"}, {kAudio, "AAC"}, {kAudio, "MP3"}, {kAudio, "PCMA"}};
    for (const auto &[medium, encode] : rows) {
        const std::vector<std::string> chain = Chain(medium, encode);
        for (int link = 1; link < static_cast<int>(chain.size()); ++link) {
            SCOPED_TRACE(std::string(encode) + " " + std::to_string(link));
            m_faults.FailElementLink(link);
            EXPECT_FALSE(Add(medium, m_pad, encode));
            EXPECT_EQ((LinesBeforeThePad(medium, encode) + Lines{PadLinked(medium), ChainFailure(medium)}), m_log.Take());
            EXPECT_EQ(encode, Encode(medium));
            const Tessaro::BranchFields fields = Fields();
            EXPECT_NE(nullptr, fields.queue[medium]);
            EXPECT_NE(nullptr, fields.sink[medium]);
            if (medium == kAudio && Row().type == SOURCE_TYPE_UDP) {
                // Queue, parser and sink are taken out; the caps
                // filter stays in. State and fields stay as they are.
                EXPECT_EQ(GST_STATE_PLAYING, State());
                EXPECT_EQ(fields.filter[1] != nullptr ? 1 : 0, Children());
                for (const char *name : {"aqueue", "apaser", "audioshbsink"}) {
                    EXPECT_EQ(nullptr, Element(Source(), name));
                }
                for (GstElement *element : {fields.queue[1], fields.parse[1], fields.sink[1]}) {
                    EXPECT_EQ(GST_STATE_NULL, GST_STATE(element));
                    EXPECT_EQ(nullptr, GST_OBJECT_PARENT(element));
                }
                EXPECT_FALSE(gst_pad_is_linked(m_pad.get()));
            } else {
                EXPECT_EQ(0, State());
                EXPECT_EQ(static_cast<int>(chain.size()), Children()) << "they stay in";
            }
            m_faults.FailElementLink(0);
            Restart();
        }
    }
}

TEST_P(Branch, ChainThatTheElementsRefuse) {
    m_faults.Substitute("h264parse", "h265parse");  // what it delivers never passes the caps filter
    EXPECT_FALSE(Video(m_pad.get(), "H264"));
    EXPECT_EQ((Lines{PadLinked(kVideo), ChainFailure(kVideo)}), m_log.Take());
    EXPECT_EQ(0, State());
    Restart();
    m_faults.Substitute("aacparse", "h264parse");
    EXPECT_FALSE(Audio(m_pad.get(), "AAC"));
    EXPECT_EQ(ChainFailure(kAudio), m_log.Take().back());
    EXPECT_EQ(Row().type == SOURCE_TYPE_UDP ? static_cast<int>(GST_STATE_PLAYING) : 0, State());
}

TEST_P(Branch, HasAPeerAlready) {
    for (const Medium medium : kMedia) {
        const char *encode = kOther[medium];
        SCOPED_TRACE(encode);
        const std::vector<std::string> chain = Chain(medium, encode);
        OccupyWhenAdded(Source(), InstanceName(chain.front()), m_second);
        EXPECT_TRUE(Add(medium, m_pad, encode));
        EXPECT_EQ(LinesBeforeThePad(medium, encode) + (medium == kVideo ? Lines{} : AudioLinked(true)), m_log.Take());
        EXPECT_EQ(nullptr, GST_PAD_PEER(m_pad.get()));
        EXPECT_EQ(chain, ChainBehind(m_second.get()));
        EXPECT_EQ(GST_STATE_PLAYING, State());
        Restart();
    }
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
    EXPECT_EQ(PadLinkFailure(kAudio), m_log.Take().back());
    EXPECT_EQ(0, State());
    SourceProbe::State(Source()) = GST_STATE_PLAYING;
    EXPECT_FALSE(Video(pad.get(), "H264"));
    EXPECT_EQ(PadLinkFailure(kVideo), m_log.Take().back());
    EXPECT_EQ(0, State());
}

// ---- Both -------------------------------------------------------------------------------------------------------------------

TEST_P(Branch, VideoAndAudioSideBySide) {
    for (int run = 0; run < 2; ++run) {
        EXPECT_TRUE(Video(m_pad.get(), "H265"));
        EXPECT_TRUE(Audio(m_second.get(), "AAC"));
        EXPECT_EQ(VideoChain("H265"), ChainBehind(m_pad.get()));
        EXPECT_EQ(AudioChain("AAC"), ChainBehind(m_second.get()));
        for (const GstElement *field : Row().fields(Source())) {
            EXPECT_TRUE(field != nullptr || IsHls());  // HLS: no first stage here
        }
        Restart();
        EXPECT_EQ("", Encode(kVideo));
        EXPECT_EQ("", Encode(kAudio));
    }
}

TEST_P(Branch, CloseWithBranches) {
    ASSERT_TRUE(Video(m_pad.get(), "H264"));
    ASSERT_TRUE(Audio(m_second.get(), "MP3"));
    Source().CloseLiveStream();
    ExpectNothingLives();
}

TEST_P(Branch, TeardownWithoutAStop) {
    ASSERT_TRUE(Video(m_pad.get(), "H264"));
    ASSERT_EQ(GST_STATE_CHANGE_SUCCESS, gst_element_set_state(SourceProbe::Pipeline(Source()), GST_STATE_NULL));
    Row().destroy(Source());
    EXPECT_EQ(std::vector<std::string>{}, LiveObjects());
}

// Every element that is made between open and the last branch, refused one at a time: no
// critical, no leak, and a source that can be closed.
TEST_P(Branch, EachMakeRefusedInTurn) {
    int refused = 0;
    for (int n = 1; n < 100; ++n) {
        SCOPED_TRACE(n);
        m_source.reset();
        ExpectNothingLives();
        Make(Row());
        m_faults.FailNthMake(n);
        SourceProbe::SetUrl(Source(), Url());
        if (Row().build(Source())) {
            PlayLocked();
            const TestPad hls = MakePad("src_0", "video/mpegts");
            if (IsHls()) {
                SourceProbe::HlsPadAdded(nullptr, hls.get(), &Source());
            }
            Video(m_pad.get(), "H264");
            Audio(m_second.get(), "AAC");
            Video(m_pad.get(), "H265");
            Audio(m_second.get(), "MP3");
            Source().CloseLiveStream();
        }
        if (!m_faults.NthMakeWasReached()) {
            break;
        }
        ++refused;
    }
    // Front, video branch, audio branch.
    const std::size_t made = Row().front.size() + VideoChain("H264").size() + AudioChain("AAC").size();
    EXPECT_EQ(static_cast<int>(made) + (IsHls() ? 1 : 0), refused);
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
