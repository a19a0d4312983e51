// The stop of an RTMPS source: its library frees what its streaming thread may be reading from, so that thread has to be out of it
// first.
#include "support/Fixture.h"
#include "support/LiveSource.h"
#include "support/Loopback.h"
#include "support/Watchdog.h"

#include <atomic>
#include <chrono>
#include <thread>

namespace unit {

namespace {

class RtmpsStop : public SourceTest {
  protected:
    void SetUp() override {
        RegisterLiveSource();
        m_faults.Substitute("rtmpsrc", kLiveSource);
        m_faults.Substitute("flvdemux", "fakesink");
        Make(ClassOf(SOURCE_TYPE_RTMP));
    }
    void TearDown() override {
        SourceTest::TearDown();
        SetReadScript(nullptr);
    }

    bool Open() { return ClassOf(SOURCE_TYPE_RTMP).open(*m_source, "rtmps://127.0.0.1:9/live/stream"); }

    Watchdog m_watchdog{"stop of an RTMPS source"};
    std::atomic<int> m_reads{0};
};

}  // namespace

TEST_F(RtmpsStop, LiveStreamIsStoppedBetweenTwoReads) {
    SetReadScript([this](const std::atomic<bool> &) {
        ++m_reads;
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
        return true;
    });
    ASSERT_TRUE(Open());
    ASSERT_TRUE(Eventually([this] { return m_reads > 5; }));
    m_source->CloseLiveStream();
    EXPECT_FALSE(StoppedAmidRead());
    const int reads = m_reads;
    EXPECT_GT(reads, 5);
}

TEST_F(RtmpsStop, StalledReadIsEndedByItsSocket) {
    const Connection connection;
    ssize_t got = 1;
    SetReadScript([&](const std::atomic<bool> &) {
        ++m_reads;
        char byte = 0;
        got = recv(connection.ends[0], &byte, 1, 0);
        return got > 0;
    });
    ASSERT_TRUE(Open());
    ASSERT_TRUE(Eventually([this] { return m_reads == 1; }));
    m_source->CloseLiveStream();
    EXPECT_EQ(0, got);
    EXPECT_FALSE(StoppedAmidRead());
}

TEST_F(RtmpsStop, ReadThatWaitsForNoSocketIsNotWaitedForForEver) {
    SetReadScript([this](const std::atomic<bool> &stop) {
        ++m_reads;
        while (!stop) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        return false;
    });
    ASSERT_TRUE(Open());
    ASSERT_TRUE(Eventually([this] { return m_reads == 1; }));
    m_source->CloseLiveStream();
    EXPECT_TRUE(StoppedAmidRead()) << "what cannot be ended is left to the element";
}

TEST_F(RtmpsStop, NoSourceIsNoneToWaitFor) {
    const SourceClass &row = ClassOf(SOURCE_TYPE_RTMP);
    m_faults.SetPlay(Play::Pretend);
    ASSERT_TRUE(Open());
    ASSERT_TRUE(Eventually([this] { return SourceProbe::State(*m_source) == GST_STATE_PLAYING; }));
    m_source->CloseLiveStream();
    ASSERT_TRUE(row.build(*m_source));
    SourceProbe::State(*m_source) = GST_STATE_PLAYING;
    EXPECT_TRUE(row.stop(*m_source));
    // A link that fails as late as this leaves the state of a broken pipeline.
    SourceProbe::State(*m_source) = 0;
    EXPECT_TRUE(row.stop(*m_source));
    EXPECT_EQ(GST_STATE_NULL, SourceProbe::State(*m_source));
    row.destroy(*m_source);
}

// RTMP: what an element has left under way is heard out, and given up in the end.
TEST_F(SourceTest, RtmpElementThatDoesNotGoIsNotWaitedForForEver) {
    const Watchdog watchdog("close of an RTMP source");
    const SourceClass &row = ClassOf(SOURCE_TYPE_RTMP);
    Make(row);
    GstElement *kept = nullptr;
    m_faults.OnMade("rtmp2src", [&](GstElement *element) { kept = GST_ELEMENT(gst_object_ref(element)); });
    OpenPretended(row);
    m_source->CloseLiveStream();
    EXPECT_EQ(1U,
              m_log.Count(Warn("[CRtmpSource] A connection attempt does not end, its socket stays open!!! URL=" + row.url)));
    EXPECT_EQ("stop", SourceProbe::StateText(*m_source));
    ASSERT_NE(nullptr, kept);
    gst_object_unref(kept);
    m_faults.OnMade("rtmp2src", nullptr);
    OpenPretended(row);
}

}  // namespace unit
