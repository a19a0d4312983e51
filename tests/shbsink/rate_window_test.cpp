// Windows of real rates, with a clock of our own.
#include <gtest/gtest.h>

#include "rate_window.h"

namespace {

constexpr gint64 kSecond = G_USEC_PER_SEC;

class RateWindow : public ::testing::Test {
  protected:
    bool Add(gint64 at_us, gsize bytes) { return shb_rate_window_add(&window_, 1000 + at_us, bytes, &rates_) != FALSE; }
    ShbRateWindow window_{};
    ShbRates rates_{};
};

}  // namespace

TEST_F(RateWindow, SteadyStreamIsCountedExactly) {
    int slides = 0, seconds = 0;
    for (gint64 i = 0; i <= 250; i++)
        if (Add(i * kSecond / 25, 5000)) {
            slides++;
            seconds += rates_.second;
            EXPECT_EQ(25000u, rates_.frames_per_1000_seconds);
            EXPECT_EQ(1000000u, rates_.bits_per_second);
        }
    EXPECT_GT(slides, 50);
    EXPECT_GE(seconds, 8);
    EXPECT_LE(seconds, 10);
}

TEST_F(RateWindow, NothingBeforeASecond) {
    EXPECT_FALSE(Add(0, 100));
    EXPECT_FALSE(Add(kSecond - 1, 100));
    EXPECT_TRUE(Add(kSecond, 100));
    EXPECT_EQ(1600u, rates_.bits_per_second);
    EXPECT_EQ(2000u, rates_.frames_per_1000_seconds);
}

TEST_F(RateWindow, ChangeIsSeenWithinTheSecond) {
    for (gint64 i = 0; i <= 50; i++)
        Add(i * kSecond / 25, 5000);
    ASSERT_EQ(1000000u, rates_.bits_per_second);
    // Twice the bytes from here on: half of it shows after half a
    // second, all of it after little more than one.
    guint before = rates_.bits_per_second;
    for (gint64 i = 51; i <= 80; i++) {
        Add(i * kSecond / 25, 10000);
        EXPECT_GE(rates_.bits_per_second, before);
        before = rates_.bits_per_second;
        if (i == 63) {
            EXPECT_GT(rates_.bits_per_second, 1300000u);
            EXPECT_LT(rates_.bits_per_second, 1600000u);
        }
    }
    EXPECT_EQ(2000000u, rates_.bits_per_second);
}

TEST_F(RateWindow, PauseIsNotAveragedOver) {
    for (gint64 i = 0; i < 10; i++)
        EXPECT_FALSE(Add(i * kSecond / 25, 5000));
    EXPECT_FALSE(Add(10 * kSecond, 5000));
    for (gint64 i = 1; i < 25; i++)
        EXPECT_FALSE(Add(10 * kSecond + i * kSecond / 25, 5000));
    EXPECT_TRUE(Add(11 * kSecond, 5000));
    EXPECT_EQ(25000u, rates_.frames_per_1000_seconds);
    EXPECT_EQ(1000000u, rates_.bits_per_second);
}

TEST_F(RateWindow, SlowStreamIsReported) {
    EXPECT_FALSE(Add(0, 5000));
    EXPECT_FALSE(Add(4 * kSecond, 5000));
    EXPECT_TRUE(Add(8 * kSecond, 5000));
    EXPECT_EQ(250u, rates_.frames_per_1000_seconds);
    EXPECT_EQ(10000u, rates_.bits_per_second);
    EXPECT_TRUE(Add(12 * kSecond, 2500));
    EXPECT_TRUE(Add(16 * kSecond, 2500));
    EXPECT_EQ(5000u, rates_.bits_per_second);
}

TEST_F(RateWindow, ResetForgets) {
    Add(0, 5000);
    Add(kSecond / 2, 5000);
    shb_rate_window_reset(&window_);
    EXPECT_FALSE(Add(2 * kSecond, 5000));
    EXPECT_TRUE(Add(3 * kSecond, 5000));
    EXPECT_EQ(1000u, rates_.frames_per_1000_seconds);
}

TEST_F(RateWindow, AbsurdRatesAreCut) {
    Add(0, gsize{1} << 40);
    EXPECT_TRUE(Add(kSecond, 1));
    EXPECT_EQ(G_MAXUINT, rates_.bits_per_second);
}
