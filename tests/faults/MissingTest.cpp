// Plug-ins that are not installed, as a host meets them: the factory is not in
// the registry. What is missing has to be named.
#include "../unit/support/Fixture.h"
#include "../unit/support/Watchdog.h"

#include <algorithm>

namespace unit {

namespace {

// Takes a factory out of the registry for its lifetime.
class Uninstalled {
  public:
    explicit Uninstalled(const std::string &factory)
        : m_feature(GST_PLUGIN_FEATURE(gst_element_factory_find(factory.c_str()))) {
        if (m_feature == nullptr) {
            ADD_FAILURE() << factory << " is not installed at all";
            return;
        }
        gst_registry_remove_feature(gst_registry_get(), m_feature);
    }
    ~Uninstalled() {
        if (m_feature != nullptr) {
            gst_registry_add_feature(gst_registry_get(), m_feature);
            gst_object_unref(m_feature);
        }
    }
    Uninstalled(const Uninstalled &) = delete;
    Uninstalled &operator=(const Uninstalled &) = delete;

  private:
    GstPluginFeature *m_feature;
};

class Missing : public ClassTest {
  protected:
    void SetUp() override {
        ClassTest::SetUp();
        m_faults.PollFast();
    }
    // ERR lines that name the factory.
    std::size_t Naming(const std::string &factory) const {
        const Lines lines = m_log.All();
        return static_cast<std::size_t>(std::count_if(lines.begin(), lines.end(), [&](const Line &line) {
            return line.level == "ERR" && line.message.find(factory) != std::string::npos;
        }));
    }

    Watchdog m_watchdog{"missing plug-in"};
};

TEST_P(Missing, EachFrontElementIsNamedAndTheOpenFails) {
    for (const std::string &element : Row().front) {
        const std::string factory = FactoryName(element);
        SCOPED_TRACE(factory);
        {
            const Uninstalled uninstalled(factory);
            EXPECT_FALSE(Row().open(Source(), Url().c_str()));
            EXPECT_EQ(1U, m_log.Count(NotMade(element)));
            EXPECT_EQ(1U, m_log.Count(Row().NotAllElements(Url())));
            EXPECT_EQ(1U, m_log.Count(Row().BuildFailure(Url())));
        }
        // Installed after all, the same source opens.
        m_log.Take();
        m_faults.SetPlay(Play::Pretend);
        EXPECT_TRUE(Row().open(Source(), Url().c_str()));
        EXPECT_EQ(0, gst_source_close_live_stream(m_source.get()));
        m_log.Take();
    }
}

TEST_P(Missing, EachVideoElementIsNamed) {
    std::vector<std::string> factories{"queue", "h264parse", "capsfilter", "shbsink"};
    if (Row().depays) {
        factories.emplace_back("rtph264depay");
    }
    for (const std::string &factory : factories) {
        SCOPED_TRACE(factory);
        Make(Row());
        OpenPretended(Row());
        m_log.Take();
        const TestPad pad = MakePad("video_0", "");
        const Uninstalled uninstalled(factory);
        const std::size_t before = Naming("factory \"" + factory + "\"!!! Is its plug-in installed?");
        EXPECT_FALSE(Row().video(Source(), pad.get(), "H264"));
        EXPECT_EQ(before + 1, Naming("factory \"" + factory + "\"!!! Is its plug-in installed?"));
        EXPECT_EQ(1U, m_log.Count(Err(Row().Tag() + " Make h26x element faild by name!!! url=" + Url())));
    }
}

TEST_P(Missing, EachAudioElementIsNamed) {
    std::vector<std::string> factories{"queue", "aacparse", "capsfilter", "shbsink"};
    const std::string encode = Row().depays ? "MPEG4-GENERIC" : "AAC";
    if (Row().depays) {
        factories.emplace_back("rtpmp4gdepay");
    }
    for (const std::string &factory : factories) {
        SCOPED_TRACE(factory);
        Make(Row());
        OpenPretended(Row());
        const TestPad pad = MakePad("audio_0", "");
        const Uninstalled uninstalled(factory);
        const std::size_t before = Naming(factory);
        static_cast<void>(Row().audio(Source(), pad.get(), encode.c_str()));
        EXPECT_LT(before, Naming(factory));
    }
}

INSTANTIATE_TEST_SUITE_P(Classes, Missing, testing::ValuesIn(SourceClasses()), ClassName());

TEST_F(SourceTest, SecondDemultiplexerIsNamed) {
    const SourceClass &row = ClassOf(SOURCE_TYPE_HLS);
    Make(row);
    OpenPretended(row);
    const Uninstalled uninstalled("tsdemux");
    const TestPad pad = MakePad("src_0", "video/mpegts, systemstream=(boolean)true");
    SourceProbe::HlsPadAdded(Element(*m_source, "Hlsdemux"), pad.get(), m_source.get());
    EXPECT_EQ(1U, m_log.Count(NotMade("tsdemux Tsdemux")));
    EXPECT_EQ(1U, m_log.Count(Err("[CHLSSource] hlsdemux element src_pad link tsdemux sink_pad faild !!! url=" + row.url)));
}

TEST_F(SourceTest, RtmpsSourceIsNamed) {
    const SourceClass &row = ClassOf(SOURCE_TYPE_RTMP);
    const Uninstalled uninstalled("rtmpsrc");
    Make(row);
    EXPECT_FALSE(row.open(*m_source, "rtmps://127.0.0.1:9/live/none"));
    EXPECT_EQ(1U, m_log.Count(NotMade("rtmpsrc Rtmpsrc")));
}

}  // namespace

}  // namespace unit
