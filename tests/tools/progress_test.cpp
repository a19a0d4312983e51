// What the tool concludes from the states and counters of a source.
#include <gtest/gtest.h>

#include "pause_watch.h"
#include "presence.h"
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

TEST(RebuildCounter, WhatWasBeforeTheSourceIsNoneOfItsRebuilds) {
    RebuildCounter counter(Protocol::kRtsp, 4, 2);
    counter.OnEpoch(4);
    counter.OnReconnects(2);
    EXPECT_EQ(counter.Count(), 0u);
    counter.OnEpoch(5);
    EXPECT_EQ(counter.Count(), 0u) << "its first writer";
    counter.OnEpoch(6);
    EXPECT_EQ(counter.Seen(), 1u);
    counter.OnReconnects(5);
    EXPECT_EQ(counter.Seen(), 1u);
    EXPECT_EQ(counter.Count(), 3u);
}

TEST(RebuildCounter, LogTellsOfSessionsThatFailAtOnce) {
    RebuildCounter counter(Protocol::kRtsp);
    counter.OnState("reconnect");
    counter.OnReconnects(5);
    EXPECT_EQ(counter.Count(), 5u);
    counter.OnReconnects(4);
    EXPECT_EQ(counter.Count(), 5u);
}

class PresenceWatchTest : public ::testing::Test {
  protected:
    // One more second of the source, in which tracks that bring data bring a frame.
    PresenceWatch::Words Second(unsigned session, bool video, bool audio) {
        m_now += std::chrono::seconds(1);
        m_sample.video.frames += video ? 1U : 0U;
        m_sample.audio.frames += audio ? 1U : 0U;
        const auto words = m_watch.Look(session, m_sample, m_now);
        m_sample.video.presence = words[SHB_VIDEO].value_or(static_cast<shb_presence_t>(m_sample.video.presence));
        m_sample.audio.presence = words[SHB_AUDIO].value_or(static_cast<shb_presence_t>(m_sample.audio.presence));
        return words;
    }
    static void Open(TrackSample &track) {
        ++track.epoch;
        track.open = true;
        track.presence = SHB_PRESENCE_EXPECTED;
    }
    void OnlyVideo(unsigned session, int seconds) {
        for (int second = 0; second < seconds; ++second) {
            Second(session, true, false);
        }
    }

    PresenceWatch m_watch;
    SourceSample m_sample;
    PresenceWatch::Clock::time_point m_now;
};

TEST_F(PresenceWatchTest, TheOtherTrackIsAbsentAfterFiveSecondsOfData) {
    Open(m_sample.video);
    OnlyVideo(0, 5);
    EXPECT_EQ(m_sample.audio.presence, SHB_PRESENCE_UNKNOWN);
    EXPECT_EQ(Second(0, true, false)[SHB_AUDIO], SHB_PRESENCE_ABSENT);
    // Said once, and nothing of the track that has data.
    const auto later = Second(0, true, false);
    EXPECT_FALSE(later[SHB_VIDEO] || later[SHB_AUDIO]);
}

TEST_F(PresenceWatchTest, SilenceIsNoDataAndAnOpenTrackIsNotAbsent) {
    Open(m_sample.video);
    OnlyVideo(0, 2);
    for (int second = 0; second < 10; ++second) {
        EXPECT_FALSE(Second(0, false, false)[SHB_AUDIO]);
    }
    Open(m_sample.audio);
    OnlyVideo(0, 10);
    EXPECT_EQ(m_sample.audio.presence, SHB_PRESENCE_EXPECTED);
}

TEST_F(PresenceWatchTest, ANewSessionKnowsNothingYet) {
    Open(m_sample.audio);
    for (int second = 0; second < 6; ++second) {
        Second(0, false, true);
    }
    EXPECT_EQ(m_sample.video.presence, SHB_PRESENCE_ABSENT);
    EXPECT_EQ(Second(1, false, true)[SHB_VIDEO], SHB_PRESENCE_UNKNOWN);
    // The old pipeline brings data until the new one is made; that says nothing of the new one.
    for (int second = 0; second < 3; ++second) {
        EXPECT_FALSE(Second(1, false, true)[SHB_VIDEO]);
    }
    Open(m_sample.audio);
    for (int second = 0; second < 5; ++second) {
        EXPECT_FALSE(Second(1, false, true)[SHB_VIDEO]);
    }
    EXPECT_EQ(Second(1, false, true)[SHB_VIDEO], SHB_PRESENCE_ABSENT);
}

TEST_F(PresenceWatchTest, ATrackThatANewSessionNoLongerHas) {
    Open(m_sample.video);
    Open(m_sample.audio);
    Second(0, true, true);
    // Seen by the state while the old writers are open.
    Second(1, false, false);
    m_sample.audio.open = false;
    Open(m_sample.video);
    OnlyVideo(1, 5);
    EXPECT_EQ(m_sample.audio.presence, SHB_PRESENCE_EXPECTED);
    EXPECT_EQ(Second(1, true, false)[SHB_AUDIO], SHB_PRESENCE_ABSENT);
}

TEST_F(PresenceWatchTest, ASessionThatShowsByItsTracksAlone) {
    Open(m_sample.video);
    Second(0, true, false);
    Open(m_sample.video);
    Open(m_sample.audio);
    OnlyVideo(1, 10);
    EXPECT_EQ(m_sample.audio.presence, SHB_PRESENCE_EXPECTED);
}

TEST_F(PresenceWatchTest, ATrackThatTheStreamListsIsWaitedFor) {
    Open(m_sample.video);
    Second(0, true, false);
    m_sample.audio.presence = SHB_PRESENCE_EXPECTED;
    OnlyVideo(0, 10);
    EXPECT_EQ(m_sample.audio.presence, SHB_PRESENCE_EXPECTED);
}

namespace {

// A stream that brings segments, each with all its frames at once.
class Segments {
  public:
    // The stall watch in s after so many segments with these seconds before each.
    std::optional<double> Play(int segments, int seconds, bool video = true, bool audio = true) {
        std::optional<double> wanted;
        for (int i = 0; i < segments; ++i) {
            m_now += std::chrono::seconds(seconds);
            m_frames[0] += video ? 25U : 0U;
            m_frames[1] += audio ? 40U : 0U;
            wanted = m_watch.Look(m_frames, m_now);
        }
        return wanted;
    }
    void Wait(int seconds) { m_now += std::chrono::seconds(seconds); }
    PauseWatch &Watch() { return m_watch; }

  private:
    PauseWatch m_watch;
    std::array<uint64_t, 2> m_frames{};
    PauseWatch::Clock::time_point m_now{std::chrono::hours(1)};
};

}  // namespace

// The first segments follow each other as fast as they can be fetched; the next one may be 12 s away.
TEST(PauseWatch, AFastBeginningEndsNoStream) {
    Segments stream;
    EXPECT_EQ(stream.Play(4, 2), 30);
    EXPECT_EQ(stream.Play(1, 12), 36);
    EXPECT_EQ(stream.Play(20, 12), 36);
}

TEST(PauseWatch, FallsOnceTheStreamIsKnown) {
    Segments stream;
    EXPECT_EQ(stream.Play(1, 4), std::nullopt);
    EXPECT_EQ(stream.Play(10, 4), 30);
    EXPECT_EQ(stream.Play(20, 4), 12);
    EXPECT_EQ(stream.Play(1, 25), 60);
}

// The buffer watches each track by itself: the pauses of one are not filled by the other.
TEST(PauseWatch, TracksThatTakeTurns) {
    Segments stream;
    std::optional<double> wanted;
    for (int i = 0; i < 20; ++i) {
        stream.Play(1, 5, true, false);
        wanted = stream.Play(1, 5, false, true);
    }
    EXPECT_EQ(wanted, 30) << "10 s of each track";
}

TEST(PauseWatch, TheTimeBetweenTwoSessionsIsNoPause) {
    Segments stream;
    stream.Play(30, 4);
    stream.Wait(50);
    stream.Watch().BeginSession();
    EXPECT_EQ(stream.Play(1, 4), 12);
}

TEST(PauseWatch, FramesWithoutPausesSayNothing) {
    Segments stream;
    EXPECT_EQ(stream.Play(100, 1), std::nullopt);
}
