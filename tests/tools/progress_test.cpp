// What the tool concludes from the states and counters of a source.
#include <gtest/gtest.h>

#include "frame_goal.h"
#include "rebuild_counter.h"

using namespace tool;

TEST(RebuildCounter, CountsEachWayIntoReconnect) {
    RebuildCounter counter(Protocol::kUdp);
    for (const char *state : {"", "start", "connected", "connected", "reconnect", "reconnect", "connected", "reconnect"}) {
        counter.OnState(state);
    }
    EXPECT_EQ(counter.Count(), 2u);
}

TEST(RebuildCounter, SrtsFirstPlayIsNoRebuild) {
    RebuildCounter counter(Protocol::kSrt);
    for (const char *state : {"start", "reconnect", "connected"}) {
        counter.OnState(state);
    }
    counter.OnEpoch(1);
    EXPECT_EQ(counter.Count(), 0u);
    counter.OnState("reconnect");
    counter.OnEpoch(2);
    counter.OnState("connected");
    EXPECT_EQ(counter.Count(), 1u);
}

TEST(RebuildCounter, ReopenedTracksTellOfAStateThatWasMissed) {
    RebuildCounter counter(Protocol::kRtsp);
    counter.OnState("connected");
    counter.OnEpoch(1);
    counter.OnEpoch(3);
    EXPECT_EQ(counter.Count(), 2u);
}

TEST(RebuildCounter, LogTellsOfSessionsThatFailAtOnce) {
    RebuildCounter counter(Protocol::kRtsp);
    counter.OnState("reconnect");
    counter.OnReconnects(5);
    EXPECT_EQ(counter.Count(), 5u);
    counter.OnReconnects(4);
    EXPECT_EQ(counter.Count(), 5u);
}

class FrameGoalTest : public ::testing::Test {
  protected:
    FrameGoal m_goal{10};
    SourceSample m_sample;
    FrameGoal::Clock::time_point m_now;
};

TEST_F(FrameGoalTest, CountsVideo) {
    m_sample.video.frames = 9;
    m_sample.audio.frames = 1000;
    EXPECT_FALSE(m_goal.Reached(m_sample, m_now));
    m_sample.video.frames = 10;
    EXPECT_TRUE(m_goal.Reached(m_sample, m_now));
}

TEST_F(FrameGoalTest, CountsAudioOnlyWhenNoVideoFollows) {
    m_sample.audio.frames = 10;
    EXPECT_FALSE(m_goal.Reached(m_sample, m_now));
    m_now += std::chrono::seconds(1);
    EXPECT_FALSE(m_goal.Reached(m_sample, m_now));
    m_now += std::chrono::seconds(1);
    EXPECT_TRUE(m_goal.Reached(m_sample, m_now));
    // A video track that was opened will bring frames.
    m_sample.video.epoch = 1;
    EXPECT_FALSE(m_goal.Reached(m_sample, m_now));
}
