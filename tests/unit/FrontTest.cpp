// The front of every pipeline: which elements, with which options, and what happens when one of them cannot be had.
#include "support/Fixture.h"
#include "support/PropertySpy.h"

#include <gio/gio.h>
#include <sys/socket.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <utility>

namespace unit {

namespace {

std::vector<std::string> PrefixOf(const std::vector<std::string> &all, std::size_t count) {
    return {all.begin(), all.begin() + static_cast<std::ptrdiff_t>(count)};
}

std::string Factory(const std::string &factory_and_name) {
    return factory_and_name.substr(0, factory_and_name.find(' '));
}

std::string Name(const std::string &factory_and_name) {
    return factory_and_name.substr(factory_and_name.find(' ') + 1);
}

// Number of handlers that are connected to a signal of the element with this user data.
guint HandlersWithData(GstElement *element, gpointer data) {
    guint count = 0;
    count += g_signal_handlers_block_matched(element, G_SIGNAL_MATCH_DATA, 0, 0, nullptr, nullptr, data);
    g_signal_handlers_unblock_matched(element, G_SIGNAL_MATCH_DATA, 0, 0, nullptr, nullptr, data);
    return count;
}

class Front : public ClassTest {
  protected:
    void ExpectNothingLeft() {
        EXPECT_TRUE(LiveObjects().empty()) << testing::PrintToString(LiveObjects());
        EXPECT_EQ(nullptr, SourceProbe::Pipeline(Source()));
        EXPECT_EQ(nullptr, SourceProbe::Bus(Source()));
        EXPECT_FALSE(SourceProbe::ElementsCreated(Source()));
        EXPECT_FALSE(SourceProbe::Joinable(Source()));
        EXPECT_EQ(GST_STATE_NULL, SourceProbe::State(Source()));
        for (const GstElement *element : Row().fields(Source())) {
            EXPECT_EQ(nullptr, element);
        }
    }

    // What an open says whose build fails: `reason` between the build's own lines.
    Lines FailedOpen(const Lines &build, const Lines &reason) const {
        return Lines{Info(Row().OpenLine(Url()))} + build + reason +
               Lines{Err(Row().Tag() + " _CreateGstElements error!!! URL=" + Url())};
    }
    Line NotAllElements() const { return Err(Row().Tag() + " Not all elements could be created!!! url=" + Url()); }
};

}  // namespace

// ---- What all classes have in common ----------------------------------------------------------------------------------------

TEST_P(Front, ElementsAndLinks) {
    OpenPretended(Row());
    EXPECT_EQ(Row().front, PrefixOf(m_faults.Made(), Row().front.size()));
    EXPECT_STREQ("pipeline", GST_ELEMENT_NAME(SourceProbe::Pipeline(Source())));
    EXPECT_EQ(static_cast<guint>(Row().front.size()),
              static_cast<guint>(GST_BIN_NUMCHILDREN(GST_BIN(SourceProbe::Pipeline(Source())))));
    for (const std::string &element : Row().front) {
        ASSERT_NE(nullptr, Element(Source(), Name(element)));
        EXPECT_EQ(Factory(element), FactoryOf(Element(Source(), Name(element))));
    }
    GstElement *last = Element(Source(), Name(Row().front.back()));
    EXPECT_LE(1U, HandlersWithData(last, &Source())) << "pad-added";
    if (Row().front.size() == 2) {
        GstPad *pad = gst_element_get_static_pad(Element(Source(), Name(Row().front[0])), "src");
        ASSERT_NE(nullptr, pad);
        EXPECT_EQ(std::vector<std::string>{Row().front[1]}, PrefixOf(ChainBehind(pad), 1));
        gst_object_unref(pad);
    }
}

TEST_P(Front, SecondBuildIsSkipped) {
    SourceProbe::SetUrl(Source(), Url());
    ASSERT_TRUE(Row().build(Source()));
    const std::vector<GstElement *> fields = Row().fields(Source());
    m_log.Take();
    SourceProbe::SetUrl(Source(), "other://location");
    EXPECT_TRUE(Row().build(Source()));
    EXPECT_EQ(Row().SkippedBuildLines(), m_log.Take());
    EXPECT_EQ(fields, Row().fields(Source()));
    EXPECT_EQ(Row().front.size(), m_faults.Made().size());
}

TEST_P(Front, EachMissingElement) {
    for (const std::string &element : Row().front) {
        SCOPED_TRACE(element);
        m_faults.FailFactory(Factory(element));
        EXPECT_FALSE(Row().open(Source(), Url().c_str()));
        m_faults.Forgive(Factory(element));
        // RTSP tells its latency on the source that is missing here.
        const Lines build = Row().type == SOURCE_TYPE_RTSP ? Lines{} : Row().BuildLines(Url());
        EXPECT_EQ(FailedOpen(build, {NotMade(element), NotAllElements()}), m_log.Take());
        ExpectNothingLeft();
        EXPECT_EQ(Url(), Source().GetURL());
    }
    Source().CloseLiveStream();
    EXPECT_EQ(Row().IdleCloseLines(Url()), m_log.Take());
}

TEST_P(Front, AllElementsMissing) {
    Lines missing;
    for (const std::string &element : Row().front) {
        m_faults.FailFactory(Factory(element));
        missing.push_back(NotMade(element));
    }
    m_faults.FailPipeline();
    EXPECT_FALSE(Row().open(Source(), Url().c_str()));
    const Lines build = Row().type == SOURCE_TYPE_RTSP ? Lines{} : Row().BuildLines(Url());
    EXPECT_EQ(FailedOpen(build, missing + Lines{NotAllElements()}), m_log.Take());
    ExpectNothingLeft();
}

TEST_P(Front, MissingPipeline) {
    m_faults.FailPipeline();
    EXPECT_FALSE(Row().open(Source(), Url().c_str()));
    EXPECT_EQ(FailedOpen(Row().BuildLines(Url()), {NotAllElements()}), m_log.Take());
    ExpectNothingLeft();
}

TEST_P(Front, MissingBus) {
    m_faults.FailBus();
    EXPECT_FALSE(Row().open(Source(), Url().c_str()));
    EXPECT_EQ(FailedOpen(Row().BuildLines(Url()), {NotAllElements()}), m_log.Take());
    ExpectNothingLeft();
}

TEST_P(Front, FailedLink) {
    if (Row().frontLinkFailure.empty()) {
        m_faults.FailElementLink(1);
        OpenPretended(Row());  // nothing is linked here
        return;
    }
    m_faults.FailElementLink(1);
    EXPECT_FALSE(Row().open(Source(), Url().c_str()));
    EXPECT_EQ(FailedOpen(Row().BuildLines(Url()), {Err(Row().frontLinkFailure + Url())}), m_log.Take());
    ExpectNothingLeft();
}

TEST_P(Front, LinkThatTheElementsRefuse) {
    if (Row().frontLinkFailure.empty()) {
        return;
    }
    // A source that has lost its pad.
    m_faults.OnMade(Factory(Row().front[0]), [](GstElement *element) {
        GstPad *pad = gst_element_get_static_pad(element, "src");
        gst_pad_set_active(pad, FALSE);
        gst_element_remove_pad(element, pad);
        gst_object_unref(pad);
    });
    EXPECT_FALSE(Row().open(Source(), Url().c_str()));
    EXPECT_EQ(FailedOpen(Row().BuildLines(Url()), {Err(Row().frontLinkFailure + Url())}), m_log.Take());
    ExpectNothingLeft();
}

INSTANTIATE_TEST_SUITE_P(Classes, Front, testing::ValuesIn(SourceClasses()), ClassName());

// ---- Options of each class --------------------------------------------------------------------------------------------------

namespace {

using Sets = std::vector<std::string>;

Sets operator+(Sets left, const Sets &right) {
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

class Options : public SourceTest {
  protected:
    void SetUp() override {
        for (const char *factory :
             {"rtspsrc", "rtmpsrc", "rtmp2src", "srtsrc", "udpsrc", "souphttpsrc", "hlsdemux", "tsdemux", "flvdemux"}) {
            SpyOn(factory);
            m_faults.OnMade(factory, StartRecord);
        }
    }
    void TearDown() override {
        SourceTest::TearDown();
        ForgetRecords();
    }

    std::size_t m_made = 0;
    Sets SetsOn(const char *name) { return RecordOf(Source(name)); }

    // Opens anew with `open`, which starts no real session, and gives the source element.
    template <typename Class, typename... Args>
    bool Open(Args... args) {
        m_source.reset(Class::CreateNew(&m_buffer, kChannel, kStream));
        m_faults.SetPlay(Play::Pretend);
        m_log.Take();
        const bool opened = static_cast<Class &>(*m_source).OpenLiveStream(args...);
        EXPECT_TRUE(opened);
        return opened;
    }
    GstElement *Source(const char *name) { return Element(*m_source, name); }
};

}  // namespace

TEST_F(Options, Udp) {
    using Tessaro::CUDPSource;
    ASSERT_TRUE(Open<CUDPSource>("udp://127.0.0.1:5004", 200U, 321U, 1316U));
    GstElement *source = Source("Udpsrc");
    EXPECT_EQ("udp://127.0.0.1:5004", TextProperty(source, "uri"));
    EXPECT_EQ(5000000000U, Property<guint64>(source, "timeout"));
    EXPECT_EQ(1572864, Property<gint>(source, "buffer-size"));
    EXPECT_EQ(1316U, Property<guint>(source, "mtu"));
    EXPECT_EQ(321, Property<gint>(Source("Tsdemux"), "latency"));
    EXPECT_EQ((Sets{"uri=udp://127.0.0.1:5004", "timeout=5000000000", "buffer-size=1572864", "mtu=1316"}), SetsOn("Udpsrc"));
    EXPECT_EQ(Sets{"latency=321"}, SetsOn("Tsdemux"));

    ASSERT_TRUE(Open<CUDPSource>("udp://127.0.0.1:5004", 0U, 321U, 0U));
    EXPECT_EQ(0, Property<gint>(Source("Tsdemux"), "latency"));
    EXPECT_EQ(0U, Property<guint>(Source("Udpsrc"), "mtu"));
    ASSERT_TRUE(Open<CUDPSource>("udp://127.0.0.1:5004", 0xFFFFFFFFU, 0U, 1492U));
    EXPECT_EQ(0, Property<gint>(Source("Tsdemux"), "latency"));
    ASSERT_TRUE(Open<CUDPSource>("udp://127.0.0.1:5004", 1U, 700U, 1492U));
    EXPECT_EQ(700, Property<gint>(Source("Tsdemux"), "latency"));
}

TEST_F(Options, UdpBeforeAnOpen) {
    const SourceClass &row = ClassOf(SOURCE_TYPE_UDP);
    Make(row);
    SourceProbe::SetUrl(*m_source, row.url);
    ASSERT_TRUE(row.build(*m_source));
    EXPECT_EQ(1492U, Property<guint>(Source("Udpsrc"), "mtu"));
    EXPECT_EQ(700, Property<gint>(Source("Tsdemux"), "latency"));
}

TEST_F(Options, UdpRebuildTakesNewOptions) {
    const SourceClass &row = ClassOf(SOURCE_TYPE_UDP);
    Make(row);
    SourceProbe::SetUrl(*m_source, row.url);
    ASSERT_TRUE(row.build(*m_source));
    m_faults.SetPlay(Play::Pretend);
    ASSERT_TRUE(static_cast<Tessaro::CUDPSource &>(*m_source).OpenLiveStream("udp://127.0.0.1:5006", 200, 5, 600));
    EXPECT_EQ(1492U, Property<guint>(Source("Udpsrc"), "mtu")) << "stored, not applied to what stands";
    EXPECT_EQ("udp://127.0.0.1:5006", m_source->GetURL());
    ASSERT_TRUE(Eventually([&] { return SourceProbe::StateText(*m_source) == "connected"; }));
    Post(gst_message_new_eos(nullptr));
    ASSERT_TRUE(m_log.WaitFor(Info(row.reconnectMessage + "udp://127.0.0.1:5006")));
    ASSERT_TRUE(Eventually([&] { return SourceProbe::StateText(*m_source) == "connected"; }));
    EXPECT_EQ(600U, Property<guint>(Source("Udpsrc"), "mtu"));
    EXPECT_EQ(5, Property<gint>(Source("Tsdemux"), "latency"));
    EXPECT_EQ("udp://127.0.0.1:5006", TextProperty(Source("Udpsrc"), "uri"));
}

TEST_F(Options, Rtsp) {
    using Tessaro::CRtspSource;
    const char *url = "rtsp://127.0.0.1:9/a";
    ASSERT_TRUE(Open<CRtspSource>(url, 0U, 7UL, 150U, 3000000U, "user", "secret"));
    GstElement *source = Source("Rtspsrc");
    EXPECT_EQ(url, TextProperty(source, "location"));
    EXPECT_EQ(7U, Property<guint>(source, "protocols"));
    EXPECT_EQ(150U, Property<guint>(source, "latency"));
    EXPECT_EQ(3000000U, Property<guint64>(source, "tcp-timeout"));
    EXPECT_EQ(2097152, Property<gint>(source, "udp-buffer-size"));
    EXPECT_EQ("user", TextProperty(source, "user-id"));
    EXPECT_EQ("secret", TextProperty(source, "user-pw"));
    EXPECT_EQ((Sets{"user-id=user", "user-pw=secret", "location=rtsp://127.0.0.1:9/a", "protocols=7", "latency=150",
                    "tcp-timeout=3000000", "udp-buffer-size=2097152"}),
              SetsOn("Rtspsrc"));
    const Lines lines = m_log.Take();
    ASSERT_LE(3U, lines.size());
    EXPECT_EQ(Info("[CRtspSource] Open rtsp://127.0.0.1:9/a... {Opts:caching=0,protocols=7,latency=150,contimeout=3000000,"
                   "user=user,pwd=secret}"),
              lines[0]);
    EXPECT_EQ(Info("[CRtspSource] Set user-id and user-pw. URL=rtsp://127.0.0.1:9/a"), lines[1]);
    EXPECT_EQ(Info("[CRtspSource] Rtsp latency=150, url=rtsp://127.0.0.1:9/a"), lines[2]);
}

TEST_F(Options, RtspHalfCredentialsAreNotSet) {
    using Tessaro::CRtspSource;
    const std::pair<const char *, const char *> rows[] = {{"user", ""}, {"", "secret"}, {"", ""}};
    for (const auto &[user, password] : rows) {
        ASSERT_TRUE(Open<CRtspSource>("rtsp://127.0.0.1:9/a", 200U, 4UL, 2000U, 15000000U, user, password));
        EXPECT_EQ("(null)", TextProperty(Source("Rtspsrc"), "user-id"));
        EXPECT_EQ("(null)", TextProperty(Source("Rtspsrc"), "user-pw"));
        EXPECT_EQ((Sets{"location=rtsp://127.0.0.1:9/a", "protocols=4", "latency=2000", "tcp-timeout=15000000",
                        "udp-buffer-size=2097152"}),
                  SetsOn("Rtspsrc"));
        const Lines lines = m_log.Take();
        ASSERT_LE(2U, lines.size());
        EXPECT_EQ(Info("[CRtspSource] Open rtsp://127.0.0.1:9/a... {Opts:caching=200,protocols=4,latency=2000,"
                       "contimeout=15000000,user=" +
                       std::string(user) + ",pwd=" + password + "}"),
                  lines[0]);
        EXPECT_EQ(Info("[CRtspSource] Rtsp latency=2000, url=rtsp://127.0.0.1:9/a"), lines[1]);
    }
    ASSERT_TRUE(Open<CRtspSource>("rtsp://127.0.0.1:9/a", 200U, 0UL, 0U, 0U, "", ""));
    EXPECT_EQ(0U, Property<guint>(Source("Rtspsrc"), "protocols"));
}

TEST_F(Options, RtspBeforeAnOpen) {
    const SourceClass &row = ClassOf(SOURCE_TYPE_RTSP);
    Make(row);
    SourceProbe::SetUrl(*m_source, row.url);
    ASSERT_TRUE(row.build(*m_source));
    EXPECT_EQ(4U, Property<guint>(Source("Rtspsrc"), "protocols"));
    EXPECT_EQ(2000U, Property<guint>(Source("Rtspsrc"), "latency"));
    EXPECT_EQ(15000000U, Property<guint64>(Source("Rtspsrc"), "tcp-timeout"));
}

TEST_F(Options, SrtModes) {
    using Tessaro::CSrtSource;
    const std::pair<const char *, int> rows[] = {
        {"caller", 1},     {"CALLER", 1},     {"", 1},          {"listener", 2},   {"LISTENER", 2},
        {"Listener", 2},   {"LiStEnEr", 1},   {"listener ", 1}, {"rendezvous", 3}, {"RENDEZVOUS", 3},
        {"Rendezvous", 3}, {"RendezVous", 1}, {"anything", 1},
    };
    for (const auto &[mode, value] : rows) {
        // The option overrides what the location says.
        ASSERT_TRUE(Open<CSrtSource>("srt://127.0.0.1:9?mode=listener", 200U, mode, "", "", 0U, 125U, 50U, ""));
        EXPECT_EQ(value, Property<gint>(Source("Srtsrc"), "mode")) << mode;
        EXPECT_EQ(mode, SourceProbe::SrtMode(*m_source));
    }
}

TEST_F(Options, Srt) {
    using Tessaro::CSrtSource;
    ASSERT_TRUE(Open<CSrtSource>("srt://127.0.0.1:9", 200U, "caller", "id", "0123456789", 24U, 77U, 999U, "127.0.0.1"));
    EXPECT_EQ((Sets{"uri=srt://127.0.0.1:9", "latency=77", "mode=1", "pbkeylen=24", "passphrase=0123456789",
                    "authentication=TRUE", "streamid=id", "localaddress=127.0.0.1"}),
              SetsOn("Srtsrc"));
    EXPECT_EQ(77, Property<gint>(Source("Srtsrc"), "latency"));
    EXPECT_EQ(24, Property<gint>(Source("Srtsrc"), "pbkeylen"));
    EXPECT_EQ(1U, HandlersWithData(Source("Srtsrc"), m_source.get())) << "caller-connecting";
    EXPECT_EQ(Sets{"latency=50"}, SetsOn("Tsdemux")) << "tslatency has no effect";

    ASSERT_TRUE(Open<CSrtSource>("srt://127.0.0.1:9", 0U, "caller", "", "", 0U, 125U, 999U, ""));
    EXPECT_EQ((Sets{"uri=srt://127.0.0.1:9", "latency=125", "mode=1"}), SetsOn("Srtsrc"));
    EXPECT_EQ(0U, HandlersWithData(Source("Srtsrc"), m_source.get()));
    EXPECT_EQ(Sets{"latency=0"}, SetsOn("Tsdemux"));
}

TEST_F(Options, SrtEncryptionTakesBoth) {
    using Tessaro::CSrtSource;
    for (const auto &[passphrase, length] : {std::pair<const char *, unsigned int>{"0123456789", 0}, {"", 16}, {"", 0}}) {
        ASSERT_TRUE(Open<CSrtSource>("srt://127.0.0.1:9", 200U, "caller", "", passphrase, length, 125U, 50U, ""));
        EXPECT_EQ((Sets{"uri=srt://127.0.0.1:9", "latency=125", "mode=1"}), SetsOn("Srtsrc"));
    }
}

TEST_F(Options, SrtBeforeAnOpen) {
    const SourceClass &row = ClassOf(SOURCE_TYPE_SRT);
    Make(row);
    SourceProbe::SetUrl(*m_source, row.url);
    ASSERT_TRUE(row.build(*m_source));
    EXPECT_EQ((Sets{"uri=srt://127.0.0.1:9", "latency=125", "mode=1"}), SetsOn("Srtsrc"));
    EXPECT_EQ(Sets{"latency=50"}, SetsOn("Tsdemux"));
}

TEST_F(Options, SrtDebugLineComesWithEveryBuildAttempt) {
    const SourceClass &row = ClassOf(SOURCE_TYPE_SRT);
    Make(row);
    SourceProbe::SetUrl(*m_source, row.url);
    m_faults.FailFactory("srtsrc");
    EXPECT_FALSE(row.build(*m_source));
    EXPECT_EQ(Raw(" Srt debug version 1.00"), m_log.Take().at(0));
    m_faults.Forgive("srtsrc");
    EXPECT_TRUE(row.build(*m_source));
    EXPECT_TRUE(row.build(*m_source));
    EXPECT_EQ(Lines(2, Raw(" Srt debug version 1.00")), m_log.Take());
}

TEST_F(Options, SrtCallers) {
    const SourceClass &row = ClassOf(SOURCE_TYPE_SRT);
    CBaseSource &source = Make(row);
    SourceProbe::SetUrl(source, row.url);
    GstElement *element = GST_ELEMENT(gst_object_ref_sink(gst_bin_new("any")));
    GSocketAddress *address = g_inet_socket_address_new_from_string("127.0.0.1", 9);
    char good[] = "abc";
    char bad[] = "ABC";
    char empty[] = "";
    for (char *id : {good, bad, empty, static_cast<char *>(nullptr)}) {
        EXPECT_TRUE(SourceProbe::CallerConnecting(element, address, id, &source));
    }
    SourceProbe::SetSrtStreamId(source, "abc");
    EXPECT_TRUE(SourceProbe::CallerConnecting(element, address, good, &source));
    EXPECT_FALSE(SourceProbe::CallerConnecting(element, address, bad, &source));
    EXPECT_FALSE(SourceProbe::CallerConnecting(element, address, empty, &source));
    EXPECT_FALSE(SourceProbe::CallerConnecting(element, address, nullptr, &source));
    EXPECT_EQ(Lines{}, m_log.Take());

    const std::string text = "[CSrtSource] Srt caller connecting...But args invalid. url=";
    EXPECT_FALSE(SourceProbe::CallerConnecting(nullptr, address, good, &source));
    EXPECT_FALSE(SourceProbe::CallerConnecting(element, nullptr, good, &source));
    EXPECT_FALSE(SourceProbe::CallerConnecting(element, address, good, nullptr));
    EXPECT_EQ((Lines{Err(text + row.url), Err(text + row.url), Err(text)}), m_log.Take());
    g_object_unref(address);
    gst_object_unref(element);
}

TEST_F(Options, SrtCallersThroughTheElementsSignal) {
    using Tessaro::CSrtSource;
    ASSERT_TRUE(Open<CSrtSource>("srt://:0", 200U, "listener", "abc", "", 0U, 125U, 50U, ""));
    GSocketAddress *address = g_inet_socket_address_new_from_string("127.0.0.1", 9);
    for (const auto &[id, admitted] : {std::pair<const char *, bool>{"abc", true}, {"abd", false}, {"", false}}) {
        gboolean result = admitted ? FALSE : TRUE;
        g_signal_emit_by_name(Source("Srtsrc"), "caller-connecting", address, id, &result);
        EXPECT_EQ(admitted, result != FALSE) << id;
    }
    g_object_unref(address);
}

TEST_F(Options, Rtmp) {
    using Tessaro::CRtmpSource;
    const char *url = "rtmp://127.0.0.1:9/app/stream";
    ASSERT_TRUE(Open<CRtmpSource>(url, 200U, 11U, 22U, "user", "secret", "token"));
    GstElement *source = Source("Rtmp2src");
    ASSERT_NE(nullptr, source);
    EXPECT_EQ(url, TextProperty(source, "location"));
    EXPECT_EQ("user", TextProperty(source, "username"));
    EXPECT_EQ("secret", TextProperty(source, "password"));
    EXPECT_EQ("token", TextProperty(source, "secure-token"));
    EXPECT_EQ(11U, Property<guint>(source, "timeout"));
    EXPECT_EQ(22U, Property<guint>(source, "idle-timeout"));
    // The location first: setting it wipes the credentials.
    EXPECT_EQ((Sets{"location=rtmp://127.0.0.1:9/app/stream", "username=user", "password=secret", "secure-token=token",
                    "timeout=11", "idle-timeout=22"}),
              SetsOn("Rtmp2src"));
    EXPECT_EQ(Sets{}, SetsOn("Flvdemux"));
    EXPECT_EQ(url, m_source->GetURL());
    EXPECT_FALSE(SourceProbe::IsRtmps(*m_source));
    const Lines lines = m_log.Take();
    ASSERT_LE(2U, lines.size());
    EXPECT_EQ(Info("[CRtmpSource] Open rtmp://127.0.0.1:9/app/stream... {Opts:caching=200,contimeout=11,idle_timeout=22,"
                   "user=user,pwd=secret,token=token}"),
              lines[0]);
    EXPECT_EQ(Info("[CRtmpSource] RTMPS set username adn passwd... url=rtmp://127.0.0.1:9/app/stream"), lines[1]);
}

TEST_F(Options, RtmpHalfCredentialsAreNotSet) {
    using Tessaro::CRtmpSource;
    const std::pair<const char *, const char *> rows[] = {{"user", ""}, {"", "secret"}, {"", ""}};
    for (const auto &[user, password] : rows) {
        ASSERT_TRUE(Open<CRtmpSource>("rtmp://127.0.0.1:9/app/stream", 200U, 10U, 0U, user, password, ""));
        EXPECT_EQ((Sets{"location=rtmp://127.0.0.1:9/app/stream", "timeout=10", "idle-timeout=0"}), SetsOn("Rtmp2src"));
        EXPECT_EQ(0U, m_log.Count(Info("[CRtmpSource] RTMPS set username adn passwd... url=rtmp://127.0.0.1:9/app/stream")));
    }
}

TEST_F(Options, RtmpsLocations) {
    using Tessaro::CRtmpSource;
    struct Row {
        const char *url;
        const char *user;
        const char *password;
        bool rtmps;
        const char *stored;
        bool told;
    };
    const Row rows[] = {
        {"rtmps://host:443/app/s", "U", "P", true, "rtmps://U:P@host:443/app/s live=1", true},
        {"rtmps://host:443/app/s", "", "", true, "rtmps://host:443/app/s live=1", false},
        {"rtmps://host:443/app/s", "U", "", true, "rtmps://host:443/app/s live=1", false},
        {"rtmps://host:443/app/s", "", "P", true, "rtmps://host:443/app/s live=1", false},
        {"rtmps://a://b", "U", "P", true, "rtmps://U:P@a://b live=1", true},
        {"rtmps", "U", "P", false, "rtmps", false},
        {"RTMPS://host/app/s", "U", "P", false, "RTMPS://host/app/s", false},
        {"Rtmps://host/app/s", "", "", false, "Rtmps://host/app/s", false},
        {"rtmp://host/rtmps/s", "", "", false, "rtmp://host/rtmps/s", false},
        {"rtmpsx", "U", "P", true, "rtU:P@mpsx live=1", true},
        {"rtmps:host", "U", "P", true, "rtU:P@mps:host live=1", true},
        {"rtmpse://host/app/s", "", "", true, "rtmpse://host/app/s live=1", false},
        {"", "U", "P", false, "", false},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.url);
        ASSERT_TRUE(Open<CRtmpSource>(row.url, 200U, 12U, 34U, row.user, row.password, "token"));
        EXPECT_EQ(row.stored, m_source->GetURL());
        EXPECT_EQ(row.rtmps, SourceProbe::IsRtmps(*m_source));
        EXPECT_EQ(row.rtmps, Source("Rtmpsrc") != nullptr);
        EXPECT_EQ(!row.rtmps, Source("Rtmp2src") != nullptr);
        const Lines lines = m_log.Take();
        EXPECT_EQ(Info("[CRtmpSource] Open " + std::string(row.url) +
                       "... {Opts:caching=200,contimeout=12,idle_timeout=34,user=" + row.user + ",pwd=" + row.password +
                       ",token=token}"),
                  lines.at(0));
        const Line told = Info("[CRtmpSource] Modified RTMPS address... url=" + std::string(row.stored));
        EXPECT_EQ(row.told ? 1 : 0, std::count(lines.begin(), lines.end(), told));
        for (const Line &line : lines) {
            EXPECT_TRUE(row.told || line.message.find("Modified RTMPS") == std::string::npos);
            EXPECT_TRUE(!row.rtmps || line.message.find("RTMPS set username") == std::string::npos);
        }
        if (row.rtmps) {
            EXPECT_EQ((Sets{"location=" + std::string(row.stored), "timeout=12"}), SetsOn("Rtmpsrc"));
        }
    }
    // The element keeps a location that it can read.
    ASSERT_TRUE(Open<CRtmpSource>("rtmps://host:443/app/s", 200U, 12U, 34U, "U", "P", "token"));
    EXPECT_EQ("rtmps://U:P@host:443/app/s live=1", TextProperty(Source("Rtmpsrc"), "location"));
}

TEST_F(Options, RtmpsIsDecidedAnewByEachOpen) {
    using Tessaro::CRtmpSource;
    ASSERT_TRUE(Open<CRtmpSource>("rtmps://host/app/s", 200U, 10U, 0U, "", "", ""));
    m_source->CloseLiveStream();
    auto &source = static_cast<CRtmpSource &>(*m_source);
    ASSERT_TRUE(source.OpenLiveStream("rtmp://host/app/s", 200, 10, 0, "", "", ""));
    EXPECT_FALSE(SourceProbe::IsRtmps(source));
    EXPECT_NE(nullptr, Source("Rtmp2src"));
    source.CloseLiveStream();
    ASSERT_TRUE(source.OpenLiveStream("rtmps://host/app/s", 200, 10, 0, "", "", ""));
    EXPECT_EQ("rtmps://host/app/s live=1", source.GetURL()) << "rewritten from the host's location";
}

TEST_F(Options, RtmpsRefusalsAndFailures) {
    using Tessaro::CRtmpSource;
    m_source.reset(CRtmpSource::CreateNew(&m_buffer, 0, 0));
    auto &source = static_cast<CRtmpSource &>(*m_source);
    m_faults.FailFactory("rtmpsrc");
    EXPECT_FALSE(source.OpenLiveStream("rtmps://host/app/s", 200, 10, 0, "", "", ""));
    const std::string url = "rtmps://host/app/s live=1";
    Lines lines = m_log.Take();
    lines.erase(lines.begin());
    EXPECT_EQ((Lines{NotMade("rtmpsrc Rtmpsrc"), Err("[CRtmpSource] Not all elements could be created!!! url=" + url),
                     Err("[CRtmpSource] _CreateGstElements error!!! URL=" + url)}),
              lines);
    m_faults.Forgive("rtmpsrc");
    m_faults.FailElementLink(1);
    EXPECT_FALSE(source.OpenLiveStream("rtmps://host/app/s", 200, 10, 0, "", "", ""));
    lines = m_log.Take();
    lines.erase(lines.begin());
    EXPECT_EQ((Lines{Err("[CRtmpSource] Failed to link rtmpsrc and flvdemux.!!! url=" + url),
                     Err("[CRtmpSource] _CreateGstElements error!!! URL=" + url)}),
              lines);
    EXPECT_TRUE(LiveObjects().empty());
}

TEST_F(Options, RtmpBeforeAnOpen) {
    const SourceClass &row = ClassOf(SOURCE_TYPE_RTMP);
    Make(row);
    SourceProbe::SetUrl(*m_source, row.url);
    ASSERT_TRUE(row.build(*m_source));
    EXPECT_EQ(10U, Property<guint>(Source("Rtmp2src"), "timeout"));
    EXPECT_EQ(0U, Property<guint>(Source("Rtmp2src"), "idle-timeout"));
}

TEST_F(Options, Hls) {
    using Tessaro::CHLSSource;
    const char *url = "http://127.0.0.1:9/a.m3u8";
    ASSERT_TRUE(Open<CHLSSource>(url, 200U, true, 15U, -1, "", "pi", "pp", "agent/1", "user", "secret"));
    GstElement *source = Source("Souphttpsrc");
    EXPECT_EQ(url, TextProperty(source, "location"));
    EXPECT_EQ(15U, Property<guint>(source, "timeout"));
    EXPECT_TRUE(Property<gboolean>(source, "is-live"));
    EXPECT_EQ(-1, Property<gint>(source, "retries"));
    // A proxy's credentials go with a proxy only.
    EXPECT_EQ((Sets{"location=http://127.0.0.1:9/a.m3u8", "timeout=15", "is-live=TRUE", "retries=-1", "user-agent=agent/1",
                    "user-id=user", "user-pw=secret"}),
              SetsOn("Souphttpsrc"));
    EXPECT_EQ(Sets{}, SetsOn("Hlsdemux"));
    const Line line = m_log.Take().at(0);
    EXPECT_EQ(Info("[CHLSSource] Open http://127.0.0.1:9/a.m3u8 { Opts: caching=200,islive=1,timeout=15,retries=-1,proxy=,"
                   "proxy_id=pi,proxy_pwd=pp,user_agent=agent/1 }"),
              line);

    ASSERT_TRUE(Open<CHLSSource>(url, 200U, false, 15U, 3, "", "", "", "", "", ""));
    EXPECT_EQ((Sets{"location=http://127.0.0.1:9/a.m3u8", "timeout=15", "is-live=FALSE", "retries=3"}), SetsOn("Souphttpsrc"));
    EXPECT_EQ(nullptr, Source("Tsdemux")) << "comes with the first stage";
}

TEST_F(Options, HlsCredentialsEachByItself) {
    using Tessaro::CHLSSource;
    const char *url = "http://127.0.0.1:9/a.m3u8";
    ASSERT_TRUE(Open<CHLSSource>(url, 200U, false, 15U, 3, "", "", "", "", "user", ""));
    EXPECT_EQ("user", TextProperty(Source("Souphttpsrc"), "user-id"));
    EXPECT_EQ("(null)", TextProperty(Source("Souphttpsrc"), "user-pw"));
    ASSERT_TRUE(Open<CHLSSource>(url, 200U, false, 15U, 3, "", "", "", "", "", "secret"));
    EXPECT_EQ("(null)", TextProperty(Source("Souphttpsrc"), "user-id"));
    EXPECT_EQ("secret", TextProperty(Source("Souphttpsrc"), "user-pw"));
}

namespace {

// Counts GObject's warnings: what it says when a property gets a value out of its range, which is a critical with GLib 2.84. All other
// criticals end the test, as everywhere.
class WarningCounter {
  public:
    WarningCounter()
        : m_default(g_log_set_default_handler(EndAtCriticals, nullptr)),
          m_handler(g_log_set_handler("GLib-GObject", static_cast<GLogLevelFlags>(G_LOG_LEVEL_WARNING | G_LOG_LEVEL_CRITICAL),
                                      Count, this)),
          m_fatal(g_log_set_always_fatal(G_LOG_LEVEL_ERROR)) {}
    ~WarningCounter() {
        g_log_set_always_fatal(m_fatal);
        g_log_remove_handler("GLib-GObject", m_handler);
        g_log_set_default_handler(m_default, nullptr);
    }
    WarningCounter(const WarningCounter &) = delete;
    WarningCounter &operator=(const WarningCounter &) = delete;
    int Take() { return std::exchange(m_count, 0); }

  private:
    static void EndAtCriticals(const gchar *domain, GLogLevelFlags level, const gchar *message, gpointer user) {
        g_log_default_handler(domain, level, message, user);
        if ((level & G_LOG_LEVEL_CRITICAL) != 0) {
            std::abort();
        }
    }

    static void Count(const gchar *domain, GLogLevelFlags level, const gchar *message, gpointer counter) {
        if (std::strstr(message, "is invalid or out of range for property") == nullptr) {
            EndAtCriticals(domain, level, message, nullptr);
        }
        ++static_cast<WarningCounter *>(counter)->m_count;
    }

    int m_count = 0;
    GLogFunc m_default;
    guint m_handler;
    GLogLevelFlags m_fatal;
};

constexpr unsigned int kIntMax = 2147483647U;
constexpr unsigned int kUintMax = 4294967295U;

}  // namespace

TEST_F(Options, ValuesInRangeGiveNoWarning) {
    WarningCounter warnings;
    for (const unsigned int value : {0U, 1U, kIntMax}) {
        ASSERT_TRUE(Open<Tessaro::CUDPSource>("udp://127.0.0.1:9", value, value, value));
        EXPECT_EQ(value, Property<guint>(Source("Udpsrc"), "mtu"));
        EXPECT_EQ(value == 0 ? 0 : static_cast<gint>(value), Property<gint>(Source("Tsdemux"), "latency"));
        ASSERT_TRUE(Open<Tessaro::CSrtSource>("srt://127.0.0.1:9", value, "caller", "", "", 0U, value, value, ""));
        EXPECT_EQ(static_cast<gint>(value), Property<gint>(Source("Srtsrc"), "latency"));
        ASSERT_TRUE(Open<Tessaro::CRtmpSource>("rtmps://127.0.0.1:9/a/b", value, value, value, "", "", ""));
        EXPECT_EQ(static_cast<gint>(value), Property<gint>(Source("Rtmpsrc"), "timeout"));
    }
    for (const unsigned int value : {0U, 1U, kIntMax, kUintMax}) {
        ASSERT_TRUE(Open<Tessaro::CRtmpSource>("rtmp://127.0.0.1:9/a/b", value, value, value, "", "", ""));
        EXPECT_EQ(value, Property<guint>(Source("Rtmp2src"), "timeout"));
        EXPECT_EQ(value, Property<guint>(Source("Rtmp2src"), "idle-timeout"));
        ASSERT_TRUE(Open<Tessaro::CRtspSource>("rtsp://127.0.0.1:9/a", value, 4UL, 0U, value, "", ""));
        EXPECT_EQ(guint64{value}, Property<guint64>(Source("Rtspsrc"), "tcp-timeout"));
    }
    for (const unsigned int keylen : {16U, 24U, 32U}) {
        ASSERT_TRUE(Open<Tessaro::CSrtSource>("srt://127.0.0.1:9", 200U, "caller", "", "0123456789", keylen, 125U, 50U, ""));
        EXPECT_EQ(static_cast<gint>(keylen), Property<gint>(Source("Srtsrc"), "pbkeylen"));
    }
    for (const unsigned int timeout : {0U, 15U}) {
        for (const int retries : {-1, 0, 2147483647}) {
            ASSERT_TRUE(
                Open<Tessaro::CHLSSource>("http://127.0.0.1:9/a.m3u8", 200U, true, timeout, retries, "", "", "", "", "", ""));
            EXPECT_EQ(timeout, Property<guint>(Source("Souphttpsrc"), "timeout"));
            EXPECT_EQ(retries, Property<gint>(Source("Souphttpsrc"), "retries"));
        }
    }
    EXPECT_EQ(0, warnings.Take());
}

TEST_F(Options, ValuesOutOfRangeGiveAWarningAndLeaveTheDefault) {
    WarningCounter warnings;
    ASSERT_TRUE(Open<Tessaro::CUDPSource>("udp://127.0.0.1:9", 200U, 700U, kIntMax + 1));
    EXPECT_EQ(1, warnings.Take());
    EXPECT_EQ(1492U, Property<guint>(Source("Udpsrc"), "mtu"));
    ASSERT_TRUE(Open<Tessaro::CSrtSource>("srt://127.0.0.1:9", 200U, "caller", "", "0123456789", 10U, 125U, 50U, ""));
    EXPECT_EQ(1, warnings.Take());
    EXPECT_EQ(0, Property<gint>(Source("Srtsrc"), "pbkeylen"));
    ASSERT_TRUE(Open<Tessaro::CHLSSource>("http://127.0.0.1:9/a.m3u8", 200U, false, 15U, -5, "", "", "", "", "", ""));
    EXPECT_EQ(1, warnings.Take());
    EXPECT_EQ(3, Property<gint>(Source("Souphttpsrc"), "retries"));
}

// souphttpsrc aborts the process over a proxy that is no URI.
TEST_F(Options, HlsProxyThatIsNoUriIsRefused) {
    const char *url = "http://127.0.0.1:9/a.m3u8";
    for (const char *proxy : {"http://[", "://", "http://", "http://\xff\xfe"}) {
        SCOPED_TRACE(proxy);
        m_source.reset(Tessaro::CHLSSource::CreateNew(&m_buffer, kChannel, kStream));
        m_log.Take();
        EXPECT_FALSE(
            static_cast<Tessaro::CHLSSource &>(*m_source).OpenLiveStream(url, 200, false, 15, 3, proxy, "", "", "", "", ""));
        const Lines lines = m_log.Take();
        ASSERT_EQ(3U, lines.size());
        EXPECT_EQ(Err(std::string("[CHLSSource] The proxy is not a URI!!! proxy=") + proxy + ", url=" + url), lines[1]);
        EXPECT_EQ(Err(std::string("[CHLSSource] _CreateGstElements error!!! URL=") + url), lines[2]);
    }
    for (const char *proxy : {"127.0.0.1:9", "http://127.0.0.1:9", "http://proxy.example", "http://[::1]:9/"}) {
        SCOPED_TRACE(proxy);
        m_source.reset(Tessaro::CHLSSource::CreateNew(&m_buffer, kChannel, kStream));
        m_faults.SetPlay(Play::Pretend);
        EXPECT_TRUE(
            static_cast<Tessaro::CHLSSource &>(*m_source).OpenLiveStream(url, 200, false, 15, 3, proxy, "", "", "", "", ""));
    }
}

TEST_F(Options, HlsProxy) {
    using Tessaro::CHLSSource;
    const char *url = "http://127.0.0.1:9/a.m3u8";
    struct Row {
        const char *id;
        const char *password;
        const char *seenId;
        const char *seenPassword;
    };
    const Row rows[] = {
        {"i", "p", "i", "p"}, {"i", "", "(null)", "(null)"}, {"", "p", "(null)", "(null)"}, {"", "", "(null)", "(null)"}};
    for (const Row &row : rows) {
        // Built only: playing with a proxy makes a request of its own.
        const SourceClass &hls = ClassOf(SOURCE_TYPE_HLS);
        m_source.reset(hls.create(&m_buffer, 0, 0));
        m_faults.SetPlay(Play::Pretend);
        ASSERT_TRUE(static_cast<CHLSSource &>(*m_source).OpenLiveStream(url, 200, false, 15, 3, "http://127.0.0.1:9/", row.id,
                                                                        row.password, "", "", ""));
        EXPECT_EQ("http://127.0.0.1:9/", TextProperty(Source("Souphttpsrc"), "proxy"));
        EXPECT_EQ(row.seenId, TextProperty(Source("Souphttpsrc"), "proxy-id"));
        EXPECT_EQ(row.seenPassword, TextProperty(Source("Souphttpsrc"), "proxy-pw"));
        Sets expected{"location=http://127.0.0.1:9/a.m3u8", "timeout=15", "is-live=FALSE", "retries=3",
                      "proxy=http://127.0.0.1:9/"};
        if (std::string(row.seenId) != "(null)") {
            expected.push_back("proxy-id=i");
            expected.push_back("proxy-pw=p");
        }
        EXPECT_EQ(expected, SetsOn("Souphttpsrc"));
    }
}

TEST_F(Options, HlsBeforeAnOpen) {
    const SourceClass &row = ClassOf(SOURCE_TYPE_HLS);
    Make(row);
    SourceProbe::SetUrl(*m_source, row.url);
    ASSERT_TRUE(row.build(*m_source));
    EXPECT_EQ(15U, Property<guint>(Source("Souphttpsrc"), "timeout"));
    EXPECT_EQ(3, Property<gint>(Source("Souphttpsrc"), "retries"));
    EXPECT_FALSE(Property<gboolean>(Source("Souphttpsrc"), "is-live"));
}

TEST_F(Options, HlsHandsItsOptionsToTheSegmentSources) {
    using Tessaro::CHLSSource;
    ASSERT_TRUE(Open<CHLSSource>("http://127.0.0.1:9/a.m3u8", 200U, false, 20U, 5, "http://127.0.0.1:9/", "pi", "pp", "agent/2",
                                 "user", "secret"));
    // What hlsdemux does for its segments: an HTTP source in a bin below it.
    GstElement *segments = gst_element_factory_create(gst_element_factory_find("souphttpsrc"), "segments");
    gst_object_ref_sink(segments);
    StartRecord(segments);
    ASSERT_TRUE(gst_bin_add(GST_BIN(Source("Hlsdemux")), segments));
    const Sets sets = RecordOf(segments);
    ASSERT_EQ(9U, sets.size());
    EXPECT_EQ((Sets{"timeout=20", "retries=5", "proxy=http://127.0.0.1:9/", "proxy-id=pi", "proxy-pw=pp", "user-agent=agent/2",
                    "user-id=user", "user-pw=secret"}),
              Sets(sets.begin(), sets.end() - 1));
    EXPECT_EQ(0U, sets.back().find("cookies=")) << "a session of its own";
    gst_object_unref(segments);

    // Elements of other factories have no such options and are left alone.
    GstElement *other = gst_element_factory_create(gst_element_factory_find("queue"), "other");
    StartRecord(other);
    gst_bin_add(GST_BIN(Source("Hlsdemux")), other);
    EXPECT_EQ(Sets{}, RecordOf(other));
}

TEST_F(Options, HlsLeavesElementsAloneThatItCannotTell) {
    using Tessaro::CHLSSource;
    ASSERT_TRUE(Open<CHLSSource>("http://127.0.0.1:9/a.m3u8", 200U, false, 20U, 5, "", "", "", "agent/2", "", ""));
    // One that no factory has made: a host's or another plug-in's own.
    static const GType type = g_type_register_static_simple(GST_TYPE_ELEMENT, "UnitBareElement", sizeof(GstElementClass),
                                                            nullptr, sizeof(GstElement), nullptr, GTypeFlags(0));
    auto *bare = GST_ELEMENT(g_object_new(type, nullptr));
    ASSERT_EQ(nullptr, gst_element_get_factory(bare));
    EXPECT_TRUE(gst_bin_add(GST_BIN(Source("Hlsdemux")), bare));

    GstElement *segments = gst_element_factory_create(gst_element_factory_find("souphttpsrc"), "segments");
    gst_object_ref_sink(segments);
    StartRecord(segments);
    SourceProbe::HlsDeepElementAdded(segments, nullptr);
    EXPECT_EQ(Sets{}, RecordOf(segments)) << "nobody's options";
    gst_object_unref(segments);
}

TEST_F(Options, HlsReloadsGetASessionWhereTheFirstSourceSharesNone) {
    using Tessaro::CHLSSource;
    struct Row {
        unsigned int timeout;
        const char *proxy;
        Sets sets;  // on the source that opens the session, behind its own
    };
    const std::string url = "http://127.0.0.1:" + std::to_string(FreePort(SOCK_STREAM)) + "/a.m3u8";
    const std::string proxy = "http://127.0.0.1:" + std::to_string(FreePort(SOCK_STREAM)) + "/";
    const Row rows[] = {
        {15, "", {}},
        {10, "", {"timeout=10", "user-agent=agent/3", "user-id=user", "user-pw=secret"}},
        {15, proxy.c_str(), {"timeout=15", "proxy=" + proxy, "user-agent=agent/3", "user-id=user", "user-pw=secret"}},
    };
    for (const Row &row : rows) {
        // The element goes with the close, so its record is kept by the hook's own copy of the pointer.
        static GstElement *s_session;
        s_session = nullptr;
        m_faults.OnMade("souphttpsrc", [](GstElement *element) {
            StartRecord(element);
            if (std::string("HttpSession") == GST_ELEMENT_NAME(element)) {
                s_session = element;
            }
        });
        ASSERT_TRUE(Open<CHLSSource>(url.c_str(), 200U, false, row.timeout, 3, row.proxy, "", "", "agent/3", "user", "secret"));
        ASSERT_TRUE(m_log.WaitFor(Raw("~~~~~~~_PipelinePlay 4")));
        const std::vector<std::string> made = m_faults.Made();
        EXPECT_EQ(row.sets.empty() ? 0 : 1,
                  std::count(made.begin() + static_cast<std::ptrdiff_t>(m_made), made.end(), "souphttpsrc HttpSession"));
        m_made = made.size();
        EXPECT_EQ(row.sets.empty(), s_session == nullptr);
        if (s_session != nullptr) {
            EXPECT_EQ((Sets{"location=" + url, "method=HEAD", "retries=0"}) + row.sets, RecordOf(s_session));
        }
        m_source->CloseLiveStream();
        EXPECT_TRUE(Eventually([] { return LiveObjects().empty(); }, 20)) << testing::PrintToString(LiveObjects());
    }
}

TEST_F(Options, HlsReloadSessionHandsOnNoOtherContext) {
    using Tessaro::CHLSSource;
    std::atomic<GstElement *> made{nullptr};
    m_faults.OnMade("souphttpsrc", [&](GstElement *element) {
        if (std::string("HttpSession") == GST_ELEMENT_NAME(element)) {
            made = GST_ELEMENT(gst_object_ref(element));
        }
    });
    const std::string url = "http://127.0.0.1:" + std::to_string(FreePort(SOCK_STREAM)) + "/a.m3u8";
    ASSERT_TRUE(Open<CHLSSource>(url.c_str(), 200U, false, 10U, 3, "", "", "", "", "", ""));
    ASSERT_TRUE(m_log.WaitFor(Raw("~~~~~~~_PipelinePlay 4")));
    GstElement *session = made;
    ASSERT_NE(nullptr, session);
    for (const char *type : {"unit.other", "gst.soup.session"}) {
        gst_element_post_message(session, gst_message_new_have_context(GST_OBJECT(session), gst_context_new(type, TRUE)));
    }
    GstContext *handed = gst_element_get_context(SourceProbe::Pipeline(*m_source), "gst.soup.session");
    EXPECT_NE(nullptr, handed);
    g_clear_pointer(&handed, gst_context_unref);
    EXPECT_EQ(nullptr, gst_element_get_context(SourceProbe::Pipeline(*m_source), "unit.other"));
    gst_object_unref(session);
}

TEST_F(Options, HlsLocationWithoutAHostGetsNoReloadSession) {
    using Tessaro::CHLSSource;
    for (const char *url : {"a.m3u8", "http:///a.m3u8"}) {
        ASSERT_TRUE(Open<CHLSSource>(url, 200U, false, 10U, 3, "", "", "", "", "user", "secret"));
        ASSERT_TRUE(m_log.WaitFor(Raw("~~~~~~~_PipelinePlay 4")));
        const std::vector<std::string> made = m_faults.Made();
        EXPECT_EQ(0, std::count(made.begin(), made.end(), "souphttpsrc HttpSession")) << url;
        m_source->CloseLiveStream();
    }
}

TEST_F(Options, HlsWithoutTheReloadSession) {
    using Tessaro::CHLSSource;
    // The front's source is made, the session's is not: the session is a help, not a condition.
    m_faults.FailNthMake(3);
    ASSERT_TRUE(Open<CHLSSource>("http://127.0.0.1:9/a.m3u8", 200U, false, 10U, 3, "", "", "", "", "user", "secret"));
    ASSERT_TRUE(Eventually([&] { return SourceProbe::StateText(*m_source) == "connected"; }));
    EXPECT_TRUE(m_faults.NthMakeWasReached());
    const Lines lines = m_log.Take();
    EXPECT_EQ(0, std::count(lines.begin(), lines.end(), NotMade("souphttpsrc HttpSession")));
}

}  // namespace unit
