// The front of every pipeline: which elements, with which options,
// and what happens when one of them cannot be had.
#include "framework/Properties.h"
#include "support/Fixture.h"
#include "support/Loopback.h"
#include "support/PropertySpy.h"

#include <gio/gio.h>
#include <sys/wait.h>
#include <unistd.h>

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
        EXPECT_EQ(std::vector<std::string>{}, LiveObjects());
        EXPECT_EQ(nullptr, SourceProbe::Pipeline(Source()));
        EXPECT_EQ(nullptr, SourceProbe::Bus(Source()));
        EXPECT_FALSE(SourceProbe::ElementsCreated(Source()));
        EXPECT_FALSE(SourceProbe::Joinable(Source()));
        EXPECT_EQ(GST_STATE_NULL, SourceProbe::State(Source()));
        for (const GstElement *element : Row().fields(Source())) {
            EXPECT_EQ(nullptr, element);
        }
    }

    // The open fails: `build` is what the build says before it fails, `reason` why.
    void ExpectFailedOpen(const Lines &build, const Lines &reason) {
        EXPECT_FALSE(Row().open(Source(), Url().c_str()));
        EXPECT_EQ(Lines{Info(Row().OpenLine(Url()))} + build + reason + Lines{Row().BuildFailure(Url())}, m_log.Take());
        ExpectNothingLeft();
        EXPECT_EQ(Url(), Source().GetURL());
    }
    // A missing element: RTSP tells its latency on the one that it has.
    void ExpectFailedOpenWithout(const Lines &missing) {
        ExpectFailedOpen(Row().SkippedBuildLines(), missing + Lines{Row().NotAllElements(Url())});
    }
    Lines LinkFailure() const { return {Err(Row().frontLinkFailure + Url())}; }
};

}  // namespace

// ---- What all classes have in common ----------------------------------------------------------------------------------------

TEST_P(Front, ElementsAndLinks) {
    Open();
    EXPECT_EQ(Row().front, PrefixOf(m_faults.Made(), Row().front.size()));
    EXPECT_STREQ("pipeline", GST_ELEMENT_NAME(SourceProbe::Pipeline(Source())));
    EXPECT_EQ(static_cast<guint>(Row().front.size()),
              static_cast<guint>(GST_BIN_NUMCHILDREN(GST_BIN(SourceProbe::Pipeline(Source())))));
    for (const std::string &element : Row().front) {
        ASSERT_NE(nullptr, Element(Source(), InstanceName(element)));
        EXPECT_EQ(FactoryName(element), FactoryOf(Element(Source(), InstanceName(element))));
    }
    GstElement *last = Element(Source(), InstanceName(Row().front.back()));
    EXPECT_LE(1U, HandlersWithData(last, &Source())) << "pad-added";
    if (Row().front.size() == 2) {
        GstPad *pad = gst_element_get_static_pad(Element(Source(), InstanceName(Row().front[0])), "src");
        ASSERT_NE(nullptr, pad);
        EXPECT_EQ(std::vector<std::string>{Row().front[1]}, PrefixOf(ChainBehind(pad), 1));
        gst_object_unref(pad);
    }
}

TEST_P(Front, SecondBuildIsSkipped) {
    Build();
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
        m_faults.FailFactory(FactoryName(element));
        ExpectFailedOpenWithout({NotMade(element)});
        m_faults.Forgive(FactoryName(element));
    }
    Source().CloseLiveStream();
    EXPECT_EQ(Row().IdleCloseLines(Url()), m_log.Take());
}

TEST_P(Front, AllElementsMissing) {
    Lines missing;
    for (const std::string &element : Row().front) {
        m_faults.FailFactory(FactoryName(element));
        missing.push_back(NotMade(element));
    }
    m_faults.FailPipeline();
    ExpectFailedOpenWithout(missing);
}

TEST_P(Front, MissingPipeline) {
    m_faults.FailPipeline();
    ExpectFailedOpen(Row().BuildLines(Url()), {Row().NotAllElements(Url())});
}

TEST_P(Front, MissingBus) {
    m_faults.FailBus();
    ExpectFailedOpen(Row().BuildLines(Url()), {Row().NotAllElements(Url())});
}

TEST_P(Front, FailedLink) {
    m_faults.FailElementLink(1);
    if (Row().frontLinkFailure.empty()) {
        Open();  // nothing is linked here
    } else {
        ExpectFailedOpen(Row().BuildLines(Url()), LinkFailure());
    }
}

TEST_P(Front, LinkThatTheElementsRefuse) {
    if (Row().frontLinkFailure.empty()) {
        return;
    }
    // A source that has lost its pad.
    m_faults.OnMade(FactoryName(Row().front[0]), [](GstElement *element) {
        GstPad *pad = gst_element_get_static_pad(element, "src");
        gst_pad_set_active(pad, FALSE);
        gst_element_remove_pad(element, pad);
        gst_object_unref(pad);
    });
    ExpectFailedOpen(Row().BuildLines(Url()), LinkFailure());
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

    Sets SetsOn(const char *name) { return RecordOf(Source(name)); }
    // These were set, in this order and no others, and are what the element holds.
    void ExpectSetAndHeld(const char *name, const Sets &sets) {
        ASSERT_NE(nullptr, Source(name)) << name;
        EXPECT_EQ(sets, SetsOn(name));
        EXPECT_EQ(sets, HeldOf(Source(name), sets));
    }
    void ExpectHeld(const char *name, const Sets &held) { EXPECT_EQ(held, HeldOf(Source(name), held)); }
    void ExpectFirstLines(const Lines &expected) {
        const Lines lines = m_log.Take();
        ASSERT_LE(expected.size(), lines.size());
        EXPECT_EQ(expected, Lines(lines.begin(), lines.begin() + static_cast<std::ptrdiff_t>(expected.size())));
    }

    // Opens a new source with these options, and starts no real session.
    template <typename Class, typename... Args>
    bool TryOpen(Args... args) {
        m_source.reset(Class::CreateNew(&m_buffer, kChannel, kStream));
        m_faults.SetPlay(Play::Pretend);
        m_log.Take();
        return static_cast<Class &>(*m_source).OpenLiveStream(args...);
    }
    template <typename Class, typename... Args>
    void Open(Args... args) {
        ASSERT_TRUE(TryOpen<Class>(args...));
    }
    GstElement *Source(const char *name) { return Element(*m_source, name); }
};

using Tessaro::CHLSSource;
using Tessaro::CRtmpSource;
using Tessaro::CRtspSource;
using Tessaro::CSrtSource;
using Tessaro::CUDPSource;

constexpr char kUdpUrl[] = "udp://127.0.0.1:5004";
constexpr char kRtspUrl[] = "rtsp://127.0.0.1:9/a";
constexpr char kSrtUrl[] = "srt://127.0.0.1:9";
constexpr char kRtmpUrl[] = "rtmp://127.0.0.1:9/app/stream";
constexpr char kRtmpsUrl[] = "rtmps://host/app/s";
constexpr char kHlsUrl[] = "http://127.0.0.1:9/a.m3u8";

const std::pair<const char *, const char *> kHalfCredentials[] = {{"user", ""}, {"", "secret"}, {"", ""}};

}  // namespace

TEST_F(Options, DefaultsBeforeAnOpen) {
    struct Row {
        int type;
        const char *element;
        Sets sets;
    };
    const Row rows[] = {
        {SOURCE_TYPE_RTSP,
         "Rtspsrc",
         {"location=rtsp://127.0.0.1:9/none", "protocols=4", "latency=2000", "tcp-timeout=15000000",
          "udp-buffer-size=2097152"}},
        {SOURCE_TYPE_RTMP, "Rtmp2src", {"location=rtmp://127.0.0.1:9/live/none", "timeout=10", "idle-timeout=0"}},
        {SOURCE_TYPE_SRT, "Srtsrc", {"uri=srt://127.0.0.1:9", "latency=125", "mode=1"}},
        {SOURCE_TYPE_SRT, "Tsdemux", {"latency=50"}},
        {SOURCE_TYPE_UDP, "Udpsrc", {"uri=udp://127.0.0.1:0", "timeout=5000000000", "buffer-size=1572864", "mtu=1492"}},
        {SOURCE_TYPE_UDP, "Tsdemux", {"latency=700"}},
        {SOURCE_TYPE_HLS, "Souphttpsrc", {"location=http://127.0.0.1:9/none.m3u8", "timeout=15", "is-live=FALSE", "retries=3"}},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.element);
        MakeBuilt(ClassOf(row.type));
        ExpectSetAndHeld(row.element, row.sets);
    }
}

TEST_F(Options, Udp) {
    struct Row {
        unsigned int caching;
        unsigned int latency;
        unsigned int mtu;
        const char *demuxLatency;
    };
    const Row rows[] = {{200, 321, 1316, "latency=321"},
                        {0, 321, 0, "latency=0"},
                        {0xFFFFFFFFU, 0, 1492, "latency=0"},
                        {1, 700, 1492, "latency=700"}};
    for (const Row &row : rows) {
        Open<CUDPSource>(kUdpUrl, row.caching, row.latency, row.mtu);
        ExpectSetAndHeld("Udpsrc", {"uri=udp://127.0.0.1:5004", "timeout=5000000000", "buffer-size=1572864",
                                    "mtu=" + std::to_string(row.mtu)});
        ExpectSetAndHeld("Tsdemux", {row.demuxLatency});
    }
}

TEST_F(Options, UdpRebuildTakesNewOptions) {
    const SourceClass &row = ClassOf(SOURCE_TYPE_UDP);
    MakeBuilt(row);
    m_faults.SetPlay(Play::Pretend);
    ASSERT_TRUE(static_cast<CUDPSource &>(*m_source).OpenLiveStream("udp://127.0.0.1:5006", 200, 5, 600));
    ExpectHeld("Udpsrc", {"mtu=1492"});  // stored, not applied to what stands
    EXPECT_EQ("udp://127.0.0.1:5006", m_source->GetURL());
    ASSERT_TRUE(Eventually([&] { return SourceProbe::StateText(*m_source) == "connected"; }));
    Post(gst_message_new_eos(nullptr));
    ASSERT_TRUE(m_log.WaitFor(Info(row.reconnectMessage + "udp://127.0.0.1:5006")));
    ASSERT_TRUE(Eventually([&] { return SourceProbe::StateText(*m_source) == "connected"; }));
    ExpectHeld("Udpsrc", {"mtu=600", "uri=udp://127.0.0.1:5006"});
    ExpectHeld("Tsdemux", {"latency=5"});
}

TEST_F(Options, Rtsp) {
    Open<CRtspSource>(kRtspUrl, 0U, 7UL, 150U, 3000000U, "user", "secret");
    ExpectSetAndHeld("Rtspsrc", {"user-id=user", "user-pw=secret", "location=rtsp://127.0.0.1:9/a", "protocols=7",
                                 "latency=150", "tcp-timeout=3000000", "udp-buffer-size=2097152"});
    ExpectFirstLines({Info("[CRtspSource] Open rtsp://127.0.0.1:9/a... {Opts:caching=0,protocols=7,latency=150,"
                           "contimeout=3000000,user=user,pwd=secret}"),
                      Info("[CRtspSource] Set user-id and user-pw. URL=rtsp://127.0.0.1:9/a"),
                      Info("[CRtspSource] Rtsp latency=150, url=rtsp://127.0.0.1:9/a")});
}

TEST_F(Options, RtspHalfCredentialsAreNotSet) {
    for (const auto &[user, password] : kHalfCredentials) {
        Open<CRtspSource>(kRtspUrl, 200U, 4UL, 2000U, 15000000U, user, password);
        ExpectSetAndHeld("Rtspsrc", {"location=rtsp://127.0.0.1:9/a", "protocols=4", "latency=2000", "tcp-timeout=15000000",
                                     "udp-buffer-size=2097152"});
        ExpectHeld("Rtspsrc", {"user-id=(null)", "user-pw=(null)"});
        ExpectFirstLines({Info("[CRtspSource] Open rtsp://127.0.0.1:9/a... {Opts:caching=200,protocols=4,latency=2000,"
                               "contimeout=15000000,user=" +
                               std::string(user) + ",pwd=" + password + "}"),
                          Info("[CRtspSource] Rtsp latency=2000, url=rtsp://127.0.0.1:9/a")});
    }
    Open<CRtspSource>(kRtspUrl, 200U, 0UL, 0U, 0U, "", "");
    ExpectHeld("Rtspsrc", {"protocols=0"});
}

TEST_F(Options, SrtModes) {
    const std::pair<const char *, int> rows[] = {
        {"caller", 1},     {"CALLER", 1},     {"", 1},          {"listener", 2},   {"LISTENER", 2},
        {"Listener", 2},   {"LiStEnEr", 1},   {"listener ", 1}, {"rendezvous", 3}, {"RENDEZVOUS", 3},
        {"Rendezvous", 3}, {"RendezVous", 1}, {"anything", 1},
    };
    for (const auto &[mode, value] : rows) {
        // The option overrides what the location says.
        Open<CSrtSource>("srt://127.0.0.1:9?mode=listener", 200U, mode, "", "", 0U, 125U, 50U, "");
        EXPECT_EQ(value, Property<gint>(Source("Srtsrc"), "mode")) << mode;
        EXPECT_EQ(mode, SourceProbe::SrtMode(*m_source));
    }
}

TEST_F(Options, Srt) {
    Open<CSrtSource>(kSrtUrl, 200U, "caller", "id", "0123456789", 24U, 77U, 999U, "127.0.0.1");
    EXPECT_EQ((Sets{"uri=srt://127.0.0.1:9", "latency=77", "mode=1", "pbkeylen=24", "passphrase=0123456789",
                    "authentication=TRUE", "streamid=id", "localaddress=127.0.0.1"}),
              SetsOn("Srtsrc"));
    ExpectHeld("Srtsrc", {"latency=77", "pbkeylen=24"});
    EXPECT_EQ(1U, HandlersWithData(Source("Srtsrc"), m_source.get())) << "caller-connecting";
    EXPECT_EQ(Sets{"latency=50"}, SetsOn("Tsdemux")) << "tslatency has no effect";

    Open<CSrtSource>(kSrtUrl, 0U, "caller", "", "", 0U, 125U, 999U, "");
    EXPECT_EQ((Sets{"uri=srt://127.0.0.1:9", "latency=125", "mode=1"}), SetsOn("Srtsrc"));
    EXPECT_EQ(0U, HandlersWithData(Source("Srtsrc"), m_source.get()));
    EXPECT_EQ(Sets{"latency=0"}, SetsOn("Tsdemux"));
}

TEST_F(Options, SrtEncryptionTakesBoth) {
    for (const auto &[passphrase, length] : {std::pair<const char *, unsigned int>{"0123456789", 0}, {"", 16}, {"", 0}}) {
        Open<CSrtSource>(kSrtUrl, 200U, "caller", "", passphrase, length, 125U, 50U, "");
        EXPECT_EQ((Sets{"uri=srt://127.0.0.1:9", "latency=125", "mode=1"}), SetsOn("Srtsrc"));
    }
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
    for (char *id : {good, bad, empty, static_cast<char *>(nullptr)}) {
        EXPECT_EQ(id == good, SourceProbe::CallerConnecting(element, address, id, &source) != FALSE);
    }
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
    Open<CSrtSource>("srt://:0", 200U, "listener", "abc", "", 0U, 125U, 50U, "");
    GSocketAddress *address = g_inet_socket_address_new_from_string("127.0.0.1", 9);
    for (const auto &[id, admitted] : {std::pair<const char *, bool>{"abc", true}, {"abd", false}, {"", false}}) {
        gboolean result = admitted ? FALSE : TRUE;
        g_signal_emit_by_name(Source("Srtsrc"), "caller-connecting", address, id, &result);
        EXPECT_EQ(admitted, result != FALSE) << id;
    }
    g_object_unref(address);
}

TEST_F(Options, Rtmp) {
    Open<CRtmpSource>(kRtmpUrl, 200U, 11U, 22U, "user", "secret", "token");
    // The location first: setting it wipes the credentials.
    ExpectSetAndHeld("Rtmp2src", {"location=rtmp://127.0.0.1:9/app/stream", "username=user", "password=secret",
                                  "secure-token=token", "timeout=11", "idle-timeout=22"});
    EXPECT_EQ(Sets{}, SetsOn("Flvdemux"));
    EXPECT_EQ(kRtmpUrl, m_source->GetURL());
    EXPECT_FALSE(SourceProbe::IsRtmps(*m_source));
    ExpectFirstLines(
        {Info("[CRtmpSource] Open rtmp://127.0.0.1:9/app/stream... {Opts:caching=200,contimeout=11,idle_timeout=22,"
              "user=user,pwd=secret,token=token}"),
         Info("[CRtmpSource] RTMPS set username adn passwd... url=rtmp://127.0.0.1:9/app/stream")});
}

TEST_F(Options, RtmpHalfCredentialsAreNotSet) {
    for (const auto &[user, password] : kHalfCredentials) {
        Open<CRtmpSource>(kRtmpUrl, 200U, 10U, 0U, user, password, "");
        EXPECT_EQ((Sets{"location=rtmp://127.0.0.1:9/app/stream", "timeout=10", "idle-timeout=0"}), SetsOn("Rtmp2src"));
        EXPECT_EQ(0U, m_log.Count(Info("[CRtmpSource] RTMPS set username adn passwd... url=rtmp://127.0.0.1:9/app/stream")));
    }
}

TEST_F(Options, RtmpsLocations) {
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
        Open<CRtmpSource>(row.url, 200U, 12U, 34U, row.user, row.password, "token");
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
    Open<CRtmpSource>("rtmps://host:443/app/s", 200U, 12U, 34U, "U", "P", "token");
    ExpectHeld("Rtmpsrc", {"location=rtmps://U:P@host:443/app/s live=1"});
}

TEST_F(Options, RtmpsIsDecidedAnewByEachOpen) {
    Open<CRtmpSource>(kRtmpsUrl, 200U, 10U, 0U, "", "", "");
    m_source->CloseLiveStream();
    auto &source = static_cast<CRtmpSource &>(*m_source);
    ASSERT_TRUE(source.OpenLiveStream("rtmp://host/app/s", 200, 10, 0, "", "", ""));
    EXPECT_FALSE(SourceProbe::IsRtmps(source));
    EXPECT_NE(nullptr, Source("Rtmp2src"));
    source.CloseLiveStream();
    ASSERT_TRUE(source.OpenLiveStream(kRtmpsUrl, 200, 10, 0, "", "", ""));
    EXPECT_EQ("rtmps://host/app/s live=1", source.GetURL()) << "rewritten from the host's location";
}

TEST_F(Options, RtmpsRefusalsAndFailures) {
    const SourceClass &row = ClassOf(SOURCE_TYPE_RTMP);
    const std::string url = "rtmps://host/app/s live=1";
    const auto expect_refused = [&](const Lines &reason) {
        EXPECT_FALSE(TryOpen<CRtmpSource>(kRtmpsUrl, 200U, 10U, 0U, "", "", ""));
        const Lines lines = m_log.Take();
        EXPECT_EQ(reason + Lines{row.BuildFailure(url)}, Lines(lines.begin() + 1, lines.end())) << "behind the open line";
        EXPECT_EQ(std::vector<std::string>{}, LiveObjects());
    };
    m_faults.FailFactory("rtmpsrc");
    expect_refused({NotMade("rtmpsrc Rtmpsrc"), row.NotAllElements(url)});
    m_faults.Forgive("rtmpsrc");
    m_faults.FailElementLink(1);
    expect_refused({Err(row.frontLinkFailure + url)});
}

namespace {

// As souphttpsrc takes it. One that has a back-off takes -1 for none.
Sets RetriesWithoutEnd() {
    const GSTREAMER::ElementRef source = GSTREAMER::TryMakeElement("souphttpsrc", "source");
    if (g_object_class_find_property(G_OBJECT_GET_CLASS(source.Get()), "retry-backoff-factor") == nullptr) {
        return {"retries=-1"};
    }
    return {"retries=2147483647", "retry-backoff-factor=0.500000", "retry-backoff-max=3.000000"};
}

}  // namespace

TEST_F(Options, Hls) {
    Open<CHLSSource>(kHlsUrl, 200U, true, 15U, -1, "", "pi", "pp", "agent/1", "user", "secret");
    // A proxy's credentials go with a proxy only.
    ExpectSetAndHeld("Souphttpsrc", Sets{"location=http://127.0.0.1:9/a.m3u8", "timeout=15", "is-live=TRUE"} +
                                        RetriesWithoutEnd() + Sets{"user-agent=agent/1", "user-id=user", "user-pw=secret"});
    ExpectSetAndHeld("Hlsdemux", {"connection-speed=4294967"});
    ExpectFirstLines(
        {Info("[CHLSSource] Open http://127.0.0.1:9/a.m3u8 { Opts: caching=200,islive=1,timeout=15,retries=-1,proxy=,"
              "proxy_id=pi,proxy_pwd=pp,user_agent=agent/1 }")});

    Open<CHLSSource>(kHlsUrl, 200U, false, 15U, 3, "", "", "", "", "", "");
    ExpectSetAndHeld("Souphttpsrc", {"location=http://127.0.0.1:9/a.m3u8", "timeout=15", "is-live=FALSE", "retries=3"});
    EXPECT_EQ(nullptr, Source("Tsdemux")) << "comes with the first stage";
}

TEST_F(Options, HlsCredentialsEachByItself) {
    Open<CHLSSource>(kHlsUrl, 200U, false, 15U, 3, "", "", "", "", "user", "");
    ExpectHeld("Souphttpsrc", {"user-id=user", "user-pw=(null)"});
    Open<CHLSSource>(kHlsUrl, 200U, false, 15U, 3, "", "", "", "", "", "secret");
    ExpectHeld("Souphttpsrc", {"user-id=(null)", "user-pw=secret"});
}

namespace {

// Counts GObject's warnings: what it says when a property gets a value out of its range, which is a critical
// with GLib 2.84. All other criticals end the test, as everywhere.
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
        const std::string text = std::to_string(value);
        Open<CUDPSource>("udp://127.0.0.1:9", value, value, value);
        ExpectHeld("Udpsrc", {"mtu=" + text});
        ExpectHeld("Tsdemux", {"latency=" + text});
        Open<CSrtSource>(kSrtUrl, value, "caller", "", "", 0U, value, value, "");
        ExpectHeld("Srtsrc", {"latency=" + text});
        Open<CRtmpSource>("rtmps://127.0.0.1:9/a/b", value, value, value, "", "", "");
        ExpectHeld("Rtmpsrc", {"timeout=" + text});
    }
    for (const unsigned int value : {0U, 1U, kIntMax, kUintMax}) {
        const std::string text = std::to_string(value);
        Open<CRtmpSource>("rtmp://127.0.0.1:9/a/b", value, value, value, "", "", "");
        ExpectHeld("Rtmp2src", {"timeout=" + text, "idle-timeout=" + text});
        Open<CRtspSource>(kRtspUrl, value, 4UL, 0U, value, "", "");
        ExpectHeld("Rtspsrc", {"tcp-timeout=" + text});
    }
    for (const unsigned int keylen : {16U, 24U, 32U}) {
        Open<CSrtSource>(kSrtUrl, 200U, "caller", "", "0123456789", keylen, 125U, 50U, "");
        ExpectHeld("Srtsrc", {"pbkeylen=" + std::to_string(keylen)});
    }
    for (const unsigned int timeout : {0U, 15U}) {
        for (const int retries : {-1, 0, 2147483647}) {
            Open<CHLSSource>(kHlsUrl, 200U, true, timeout, retries, "", "", "", "", "", "");
            ExpectHeld("Souphttpsrc", Sets{"timeout=" + std::to_string(timeout)} +
                                          (retries == -1 ? RetriesWithoutEnd() : Sets{"retries=" + std::to_string(retries)}));
        }
    }
    EXPECT_EQ(0, warnings.Take());
}

// The framework itself would warn, or from GLib 2.84 on report a critical.
TEST_F(Options, ValuesOutOfRangeLeaveTheDefaultAndAreReported) {
    WarningCounter warnings;
    const auto expect_refused = [&](const char *element, const char *property, const std::string &value,
                                    const std::string &held) {
        SCOPED_TRACE(property);
        ExpectHeld(element, {property + std::string("=") + held});
        EXPECT_EQ(1U, m_log.Count(Warn("[GSTREAMER] Property \"" + std::string(property) + "\" of element \"" + element +
                                       "\" does not take " + value + ", its default stays in force.")));
        m_log.Take();
    };
    const unsigned int big = kIntMax + 1;
    const std::string text = std::to_string(big);
    Open<CUDPSource>("udp://127.0.0.1:9", 200U, 700U, big);
    expect_refused("Udpsrc", "mtu", text, "1492");
    Open<CUDPSource>("udp://127.0.0.1:9", 200U, big, 1492U);
    expect_refused("Tsdemux", "latency", text, "700");
    Open<CSrtSource>(kSrtUrl, 200U, "caller", "", "0123456789", 10U, 125U, 50U, "");
    expect_refused("Srtsrc", "pbkeylen", "10", "0");
    Open<CSrtSource>(kSrtUrl, 200U, "caller", "", "", 0U, big, 50U, "");
    expect_refused("Srtsrc", "latency", text, "125");
    Open<CRtspSource>(kRtspUrl, 200U, 1UL << 20, 2000U, 0U, "", "");
    expect_refused("Rtspsrc", "protocols", std::to_string(1UL << 20), "7");
    Open<CRtspSource>(kRtspUrl, 200U, 4UL | (1UL << 40), 2000U, 0U, "", "");
    expect_refused("Rtspsrc", "protocols", std::to_string(4UL | (1UL << 40)), "7");
    Open<CRtmpSource>("rtmps://127.0.0.1:9/a/b", 200U, big, 0U, "", "", "");
    expect_refused("Rtmpsrc", "timeout", text, "120");
    Open<CHLSSource>(kHlsUrl, 200U, false, 15U, -5, "", "", "", "", "", "");
    expect_refused("Souphttpsrc", "retries", "-5", "3");
    Open<CHLSSource>(kHlsUrl, 200U, false, 3601U, 3, "", "", "", "", "", "");
    expect_refused("Souphttpsrc", "timeout", "3601", "15");
    EXPECT_EQ(0, warnings.Take());
}

TEST_F(Options, PropertyThatAnElementDoesNotHaveIsReported) {
    WarningCounter warnings;
    const GSTREAMER::ElementRef element = GSTREAMER::MakeElement("queue", "element");
    ASSERT_NE(nullptr, element);
    GSTREAMER::SetNumber(element, "mtu", 1);
    EXPECT_EQ((Lines{Warn("[GSTREAMER] Element \"element\" has no property \"mtu\".")}), m_log.Take());
    // Of a type that no number fits.
    GSTREAMER::SetNumber(element, "name", 1);
    EXPECT_EQ(
        (Lines{Warn("[GSTREAMER] Property \"name\" of element \"element\" does not take 1, its default stays in force.")}),
        m_log.Take());
    GSTREAMER::SetNumber(nullptr, "mtu", 1);
    EXPECT_EQ(Lines{}, m_log.Take());
    EXPECT_EQ(0, warnings.Take());
}

namespace {

const char *const kFatalProxies[] = {"http://[",
                                     "://",
                                     "http://\xff\xfe",
                                     "127.0.0.1:x",
                                     "9://a",
                                     " http://127.0.0.1:9",
                                     "http://a/%zz",
                                     "http://127.0.0.1:65536",
                                     "http://127.0.0.1:9/\xff"};
const char *const kOtherProxies[] = {"127.0.0.1:9",
                                     "http://127.0.0.1:9",
                                     "http://proxy.example",
                                     "http://[::1]:9/",
                                     "http://",
                                     "http://:9/",
                                     "direct://",
                                     "socks5://127.0.0.1:9",
                                     "-",
                                     "http://a b:9/"};

// Ends as souphttpsrc ends the process over a proxy, criticals included, or with 0.
[[noreturn]] void StartThroughProxy(const char *proxy) {
    gst_init(nullptr, nullptr);
    GstElement *source = gst_element_factory_make("souphttpsrc", "source");
    g_object_set(source, "location", kHlsUrl, "proxy", proxy, nullptr);
    gst_element_set_state(source, GST_STATE_PAUSED);
    _exit(0);
}

}  // namespace

TEST(ProxyDeathTest, WhatSouphttpsrcEndsTheProcessOver) {
    testing::FLAGS_gtest_death_test_style = "threadsafe";
    for (const char *proxy : kFatalProxies) {
        EXPECT_EXIT(
            StartThroughProxy(proxy), [](int status) { return WIFSIGNALED(status); }, "")
            << proxy;
    }
    for (const char *proxy : kOtherProxies) {
        EXPECT_EXIT(StartThroughProxy(proxy), testing::ExitedWithCode(0), "") << proxy;
    }
}

TEST_F(Options, HlsProxyThatWouldEndTheProcessIsRefused) {
    for (const char *proxy : kFatalProxies) {
        SCOPED_TRACE(proxy);
        EXPECT_FALSE(TryOpen<CHLSSource>(kHlsUrl, 200U, false, 15U, 3, proxy, "", "", "", "", ""));
        const Lines lines = m_log.Take();
        ASSERT_EQ(3U, lines.size());
        EXPECT_EQ(Err(std::string("[CHLSSource] The proxy is not a URI!!! proxy=") + proxy + ", url=" + kHlsUrl), lines[1]);
        EXPECT_EQ(ClassOf(SOURCE_TYPE_HLS).BuildFailure(kHlsUrl), lines[2]);
    }
    for (const char *proxy : kOtherProxies) {
        SCOPED_TRACE(proxy);
        Open<CHLSSource>(kHlsUrl, 200U, false, 15U, 3, proxy, "", "", "", "", "");
    }
}

TEST_F(Options, HlsProxy) {
    struct Row {
        const char *id;
        const char *password;
        bool set;
    };
    for (const Row &row : {Row{"i", "p", true}, {"i", "", false}, {"", "p", false}, {"", "", false}}) {
        Open<CHLSSource>(kHlsUrl, 200U, false, 15U, 3, "http://127.0.0.1:9/", row.id, row.password, "", "", "");
        ExpectSetAndHeld("Souphttpsrc", Sets{"location=http://127.0.0.1:9/a.m3u8", "timeout=15", "is-live=FALSE", "retries=3",
                                             "proxy=http://127.0.0.1:9/"} +
                                            (row.set ? Sets{"proxy-id=i", "proxy-pw=p"} : Sets{}));
        if (!row.set) {
            ExpectHeld("Souphttpsrc", {"proxy-id=(null)", "proxy-pw=(null)"});
        }
    }
}

namespace {

// What hlsdemux makes for its segments: an HTTP source in a bin below it.
class SegmentSource {
  public:
    explicit SegmentSource(GstElement *demux)
        : m_source(GSTREAMER::TryMakeElement("souphttpsrc", "segments")), m_pad(gst_element_get_static_pad(m_source, "src")) {
        StartRecord(m_source);
        EXPECT_TRUE(gst_bin_add(GST_BIN(demux), m_source));
        // Its failures are not the session's.
        gst_element_set_bus(m_source, nullptr);
        gst_element_set_locked_state(m_source, TRUE);
        // Behind those of the library.
        gst_pad_add_probe(
            m_pad.get(), GST_PAD_PROBE_TYPE_EVENT_DOWNSTREAM,
            [](GstPad *, GstPadProbeInfo *info, gpointer begun) {
                *static_cast<std::atomic<int> *>(begun) +=
                    GST_EVENT_TYPE(GST_PAD_PROBE_INFO_EVENT(info)) == GST_EVENT_STREAM_START ? 1 : 0;
                return GST_PAD_PROBE_OK;
            },
            &m_begun, nullptr);
    }
    ~SegmentSource() { gst_element_set_state(m_source, GST_STATE_NULL); }
    SegmentSource(const SegmentSource &) = delete;
    SegmentSource &operator=(const SegmentSource &) = delete;

    GstElement *Get() const { return m_source; }
    bool IsFlushing() const { return GST_PAD_IS_FLUSHING(m_pad.get()); }
    void Request(const std::string &location) {
        gst_element_set_state(m_source, GST_STATE_READY);
        g_object_set(m_source, "location", location.c_str(), nullptr);
        const int before = m_begun;
        gst_element_set_state(m_source, GST_STATE_PAUSED);
        EXPECT_TRUE(Eventually([&] { return m_begun > before; }));
    }

  private:
    const GSTREAMER::ElementRef m_source;
    const GSTREAMER::PadPtr m_pad;
    std::atomic<int> m_begun{0};
};

}  // namespace

TEST_F(Options, HlsHandsItsOptionsToTheSegmentSources) {
    Open<CHLSSource>(kHlsUrl, 200U, false, 20U, 5, "http://127.0.0.1:9/", "pi", "pp", "agent/2", "user", "secret");
    const SegmentSource segments(Source("Hlsdemux"));
    const Sets sets = RecordOf(segments.Get());
    ASSERT_EQ(7U, sets.size());
    EXPECT_EQ(
        (Sets{"timeout=20", "retries=5", "proxy=http://127.0.0.1:9/", "proxy-id=pi", "proxy-pw=pp", "user-agent=agent/2"}),
        Sets(sets.begin(), sets.end() - 1));
    EXPECT_EQ(0U, sets.back().find("cookies=")) << "a session of its own";

    // Elements of other factories have no such options and are left alone.
    GstElement *other = gst_element_factory_create(gst_element_factory_find("queue"), "other");
    StartRecord(other);
    gst_bin_add(GST_BIN(Source("Hlsdemux")), other);
    EXPECT_EQ(Sets{}, RecordOf(other));
}

TEST_F(Options, HlsSegmentsOfOtherServersGetNoCredentials) {
    struct Row {
        const char *location;
        bool own;
    };
    const Row rows[] = {{"http://127.0.0.1:9/a/1.ts", true}, {"http://127.0.0.2:9/1.ts", false},
                        {"http://127.0.0.1:9/a/2.ts", true}, {"HTTP://127.0.0.1:9/%C3%A4/3.ts?a#b", true},
                        {"http://127.0.0.1:10/1.ts", false}, {"https://127.0.0.1:9/1.ts", false},
                        {"http://127.0.0.1/1.ts", false},    {"http://user@127.0.0.1:9/1.ts", true},
                        {"http://localhost:9/1.ts", false}};
    Open<CHLSSource>(kHlsUrl, 200U, false, 15U, 3, "", "", "", "", "user", "secret");
    SegmentSource segments(Source("Hlsdemux"));
    EXPECT_EQ((Sets{"user-id=(null)", "user-pw=(null)"}), HeldOf(segments.Get(), {"user-id=", "user-pw="}));
    for (const Row &row : rows) {
        segments.Request(row.location);
        EXPECT_EQ((row.own ? Sets{"user-id=user", "user-pw=secret"} : Sets{"user-id=(null)", "user-pw=(null)"}),
                  HeldOf(segments.Get(), {"user-id=", "user-pw="}))
            << row.location;
    }
    // Each by itself, as the playlist's source has them.
    Open<CHLSSource>(kHlsUrl, 200U, false, 15U, 3, "", "", "", "", "user", "");
    SegmentSource half(Source("Hlsdemux"));
    half.Request(rows[0].location);
    EXPECT_EQ((Sets{"user-id=user", "user-pw=(null)"}), HeldOf(half.Get(), {"user-id=", "user-pw="}));
    // A location without a server has none of its own.
    Open<CHLSSource>("a.m3u8", 200U, false, 15U, 3, "", "", "", "", "user", "secret");
    SegmentSource nowhere(Source("Hlsdemux"));
    nowhere.Request(rows[0].location);
    EXPECT_EQ((Sets{"user-id=(null)"}), HeldOf(nowhere.Get(), {"user-id="}));
}

TEST_F(Options, HlsSegmentIsNotRequestedOnceTheSourceIsBeingStopped) {
    Open<CHLSSource>(kHlsUrl, 200U, false, 15U, 3, "", "", "", "", "", "");
    SegmentSource segments(Source("Hlsdemux"));
    segments.Request(kHlsUrl);
    EXPECT_FALSE(segments.IsFlushing());
    bool flushing = false;
    m_faults.OnStop([&] {
        segments.Request(kHlsUrl);
        flushing = segments.IsFlushing();
    });
    m_source->CloseLiveStream();
    EXPECT_TRUE(flushing);
    m_faults.OnStop(nullptr);
}

TEST_F(Options, HlsLeavesElementsAloneThatItCannotTell) {
    Open<CHLSSource>(kHlsUrl, 200U, false, 20U, 5, "", "", "", "agent/2", "", "");
    // One that no factory has made: a host's or another plug-in's own.
    static const GType type = g_type_register_static_simple(GST_TYPE_ELEMENT, "UnitBareElement", sizeof(GstElementClass),
                                                            nullptr, sizeof(GstElement), nullptr, GTypeFlags(0));
    auto *bare = GST_ELEMENT(g_object_new(type, nullptr));
    ASSERT_EQ(nullptr, gst_element_get_factory(bare));
    EXPECT_TRUE(gst_bin_add(GST_BIN(Source("Hlsdemux")), bare));
}

TEST_F(Options, HlsSegmentSourceWithoutItsPadIsLeftAsItIs) {
    Open<CHLSSource>(kHlsUrl, 200U, false, 15U, 3, "", "", "", "", "user", "secret");
    // What fails is counted on all threads.
    ASSERT_TRUE(Eventually([&] { return m_faults.Plays() > 0; }));
    for (const auto &[call, function] : {std::pair(2, "gst_element_get_static_pad"), std::pair(3, "gst_pad_add_probe")}) {
        const GSTREAMER::ElementRef segments = GSTREAMER::TryMakeElement("souphttpsrc", function);
        m_faults.FailCall(call, true);
        gst_bin_add(GST_BIN(Source("Hlsdemux")), segments);
        EXPECT_EQ(function, m_faults.FailedCall().function) << "behind gst_bin_add";
        m_faults.FailCall(0);
    }
}

// The source of the playlist offers its session to reloads, variants and keys.
TEST_F(Options, HlsSharesThePlaylistsSessionWhateverItsOptions) {
    struct Row {
        unsigned int timeout;
        const char *proxy;
    };
    const std::string url = "http://127.0.0.1:" + std::to_string(FreePort(SOCK_STREAM)) + "/a.m3u8";
    const std::string proxy = "http://pi:pp@127.0.0.1:" + std::to_string(FreePort(SOCK_STREAM)) + "/";
    for (const Row &row : {Row{15, ""}, Row{10, ""}, Row{15, proxy.c_str()}, Row{0, proxy.c_str()}}) {
        m_source.reset(CHLSSource::CreateNew(&m_buffer, kChannel, kStream));
        m_faults.SetPlay(Play::Real);
        m_faults.SleepReally();
        m_log.Take();
        const std::size_t made_before = m_faults.Made().size();
        ASSERT_TRUE(static_cast<CHLSSource &>(*m_source).OpenLiveStream(url.c_str(), 200, false, row.timeout, 3, row.proxy, "",
                                                                        "", "", "user", "secret"));
        ASSERT_TRUE(m_log.WaitFor(Raw("~~~~~~~_PipelinePlay 4")));
        GstContext *shared = gst_element_get_context(SourceProbe::Pipeline(*m_source), "gst.soup.session");
        EXPECT_NE(nullptr, shared);
        g_clear_pointer(&shared, gst_context_unref);
        const Sets sets = RecordOf(Source("Souphttpsrc"));
        ASSERT_LE(2U, sets.size());
        if (row.timeout != 15 || *row.proxy != '\0') {
            EXPECT_EQ((Sets{"timeout=" + std::to_string(row.timeout), std::string("proxy=") + row.proxy}),
                      Sets(sets.end() - 2, sets.end()));
        }
        const std::vector<std::string> made = m_faults.Made();
        EXPECT_EQ(1,
                  std::count(made.begin() + static_cast<std::ptrdiff_t>(made_before), made.end(), "souphttpsrc Souphttpsrc"));
        EXPECT_EQ(made_before + 2, made.size()) << "no source for anything else";
        m_source->CloseLiveStream();
        ExpectNothingLives();
    }
}

// souphttpsrc takes a proxy from the environment when it is made.
TEST_F(Options, HlsKeepsTheProxyOfTheEnvironment) {
    const std::string url = "http://127.0.0.1:" + std::to_string(FreePort(SOCK_STREAM)) + "/a.m3u8";
    const std::string proxy = "http://127.0.0.1:" + std::to_string(FreePort(SOCK_STREAM)) + "/";
    setenv("http_proxy", proxy.c_str(), 1);
    m_source.reset(CHLSSource::CreateNew(&m_buffer, kChannel, kStream));
    m_faults.SetPlay(Play::Real);
    m_faults.SleepReally();
    const bool opened =
        static_cast<CHLSSource &>(*m_source).OpenLiveStream(url.c_str(), 200, false, 10, 3, "", "", "", "", "", "");
    ASSERT_TRUE(opened && m_log.WaitFor(Raw("~~~~~~~_PipelinePlay 4")));
    unsetenv("http_proxy");
    ExpectHeld("Souphttpsrc", {"timeout=10", "proxy=" + proxy});
}

}  // namespace unit
