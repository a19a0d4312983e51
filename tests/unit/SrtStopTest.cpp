// The stop of an SRT source: its element may not hear the first word of it.
#include "support/Fixture.h"
#include "support/LiveSource.h"
#include "support/Watchdog.h"

#include <atomic>
#include <chrono>
#include <string>
#include <thread>

namespace unit {

namespace {

class SrtStop : public SourceTest {
  protected:
    void SetUp() override {
        RegisterLiveSource();
        m_faults.SleepReally();
        Make(ClassOf(SOURCE_TYPE_SRT));
    }
    void TearDown() override {
        SourceTest::TearDown();
        SetReadScript(nullptr);
    }

    bool Open() { return ClassOf(SOURCE_TYPE_SRT).open(*m_source, "srt://127.0.0.1:9"); }

    Watchdog m_watchdog{"stop of an SRT source"};
};

}  // namespace

TEST_F(SrtStop, LostStopIsGivenAgain) {
    // Going to PAUSED and to READY, a stop tells a live source twice.
    constexpr int kLost = 2;
    std::atomic<bool> reading{false};
    m_faults.Substitute("srtsrc", kLiveSource);
    SetReadScript([&](const std::atomic<bool> &) {
        reading = true;
        while (StopsGiven() <= kLost) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        return false;
    });
    ASSERT_TRUE(Open());
    ASSERT_TRUE(Eventually([&] { return reading.load(); }));
    m_source->CloseLiveStream();
    EXPECT_GT(StopsGiven(), kLost);
    EXPECT_EQ("stop", SourceProbe::StateText(*m_source));
}

}  // namespace unit
