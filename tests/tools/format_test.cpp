#include "format.h"

#include <gtest/gtest.h>

#include <array>
#include <string>
#include <vector>

using namespace tool;

TEST(Format, BitRates) {
    EXPECT_EQ(FormatBitRate(0), "-");
    EXPECT_EQ(FormatBitRate(999), "999 b/s");
    EXPECT_EQ(FormatBitRate(1000), "1.00 kb/s");
    EXPECT_EQ(FormatBitRate(128'000), "128 kb/s");
    EXPECT_EQ(FormatBitRate(999'999), "1.00 Mb/s");
    EXPECT_EQ(FormatBitRate(1'214'000), "1.21 Mb/s");
    EXPECT_EQ(FormatBitRate(45'670'000), "45.7 Mb/s");
    EXPECT_EQ(FormatBitRate(4'294'967'295), "4.29 Gb/s");
}

TEST(Format, Bytes) {
    EXPECT_EQ(FormatBytes(0), "0 B");
    EXPECT_EQ(FormatBytes(63'699), "63.7 kB");
    EXPECT_EQ(FormatBytes(UINT64_MAX), "18446744 TB");
}

TEST(Format, RatesWithoutSuperfluousDigits) {
    EXPECT_EQ(FormatRate(0), "-");
    EXPECT_EQ(FormatRate(25), "25");
    EXPECT_EQ(FormatRate(100), "100");
    EXPECT_EQ(FormatRate(29.97002997), "29.97");
    EXPECT_EQ(FormatRate(12.5), "12.5");
    EXPECT_EQ(FormatRate(0.001), "0");
}

TEST(Format, AgesBecomeCoarser) {
    constexpr uint64_t kSecond = 1'000'000'000;
    EXPECT_EQ(FormatAge(std::nullopt), "-");
    EXPECT_EQ(FormatAge(40'000'000), "0.04 s");
    EXPECT_EQ(FormatAge(12 * kSecond), "12 s");
    EXPECT_EQ(FormatAge(119 * kSecond), "119 s");
    EXPECT_EQ(FormatAge(180 * kSecond), "3 min");
    EXPECT_EQ(FormatAge(uint64_t{5} * 3600 * kSecond), "5 h");
}

TEST(Format, Elapsed) {
    EXPECT_EQ(FormatElapsed(0), "00:00:00");
    EXPECT_EQ(FormatElapsed(83.9), "00:01:23");
    EXPECT_EQ(FormatElapsed(360'000), "100:00:00");
}

TEST(Format, StateSaysWhenNothingComes) {
    SourceSample sample;
    EXPECT_EQ(FormatState(sample), "-");
    sample.state = "connected";
    EXPECT_EQ(FormatState(sample), "waiting");
    sample.flow = Flow::kSilent;
    EXPECT_EQ(FormatState(sample), "no data");
    sample.flow = Flow::kLive;
    EXPECT_EQ(FormatState(sample), "connected");
    sample.state = "reconnect";
    EXPECT_EQ(FormatState(sample), "reconnect");
}

TEST(Format, StateSaysWhyNothingComesAndWhenItIsTriedAgain) {
    SourceSample sample;
    sample.state = "reconnect";
    sample.last_error = Reason{"Not Found", "404", "", true};
    sample.retry_in_s = 2.2;
    EXPECT_EQ(FormatState(sample), "waiting: 404 Not Found, again in 3 s");
    sample.retry_in_s = 0;
    EXPECT_EQ(FormatState(sample), "waiting: 404 Not Found, again in 1 s");
    sample.last_error->code = "refused";
    EXPECT_EQ(FormatState(sample), "waiting: Not Found, again in 1 s");
    sample.state = "stop";
    EXPECT_EQ(FormatState(sample), "stop");
    sample.retry_in_s.reset();
    sample.state = "reconnect";
    EXPECT_EQ(FormatState(sample), "reconnect: Not Found") << "the next session runs";
    sample.last_error->ends = false;
    EXPECT_EQ(FormatState(sample), "trying: Not Found");
    sample.flow = Flow::kLive;
    EXPECT_EQ(FormatState(sample), "reconnect");
    EXPECT_NE(FormatSummary(sample).find(", last error: Not Found"), std::string::npos);
}

TEST(Format, SummaryOfASourceOfAFile) {
    SourceSample sample;
    sample.name = "gate";
    sample.buffer = "/gate";
    sample.url = "udp://127.0.0.1:5000";
    sample.video.frames = 2;
    sample.video.bytes = 1000;
    sample.audio.frames = 1;
    EXPECT_EQ(FormatSummary(sample), "gate: 2 access units (1.00 kB), 1 audio frame (0 B), 0 rebuilds  udp://127.0.0.1:5000");
    sample.video.codec = "H264";
    sample.video.width = 640;
    sample.video.height = 360;
    EXPECT_NE(FormatSummary(sample).find("(H264 640x360p, 1.00 kB)"), std::string::npos) << FormatSummary(sample);
}

TEST(Format, TheReasonStandsBesideASilence) {
    SourceSample sample;
    sample.state = "connected";
    sample.last_error = Reason{"No data came for 5 s", "timeout", "", true};
    EXPECT_EQ(FormatState(sample), "waiting: No data came for 5 s");
    EXPECT_EQ(FormatShortState(sample), "waiting");
    EXPECT_EQ(StandingOf(sample), Standing::kFailing);
    sample.flow = Flow::kSilent;
    sample.attempts = 1;
    EXPECT_EQ(FormatState(sample), "no data: No data came for 5 s");
    // The session after that failure has brought media.
    sample.attempts = 0;
    EXPECT_EQ(FormatState(sample), "no data");
    EXPECT_EQ(StandingOf(sample), Standing::kWaiting);
    sample.flow = Flow::kLive;
    EXPECT_EQ(FormatState(sample), "connected");
    EXPECT_EQ(StandingOf(sample), Standing::kLive);
    sample.state = "stop";
    EXPECT_EQ(StandingOf(sample), Standing::kStopped);
    sample.state = "failed";
    sample.flow = Flow::kNone;
    EXPECT_EQ(FormatState(sample), "failed: No data came for 5 s");
    EXPECT_EQ(StandingOf(sample), Standing::kFailing);
}

TEST(Format, Summary) {
    SourceSample sample;
    sample.channel = 3;
    sample.url = "udp://127.0.0.1:5000";
    EXPECT_EQ(FormatSummary(sample), "source 3: 0 access units, 0 audio frames, 0 rebuilds  udp://127.0.0.1:5000");
    sample.video.codec = "H264";
    sample.video.width = 640;
    sample.video.height = 360;
    sample.video.scan = 1;
    sample.video.frames = 1;
    sample.video.bytes = 2000;
    sample.video.dumped_frames = 1;
    sample.video.lost_frames = 2;
    sample.video.discontinuities = 1;
    sample.audio.codec = "AAC";
    sample.audio.sample_rate = 48000;
    sample.audio.channels = 2;
    sample.audio.frames = 7;
    sample.audio.bytes = 10;
    sample.rebuilds = 1;
    EXPECT_EQ(FormatSummary(sample),
              "source 3: 1 access unit (H264 640x360i, 2.00 kB), 7 audio frames (AAC 48000 Hz 2 ch, 10 B), 1 rebuild; "
              "video dump: 1 written, 2 lost, 1 discontinuity  udp://127.0.0.1:5000");
}

TEST(Format, PrintableTakesTheTerminalsCommandsOut) {
    EXPECT_EQ(Printable("plain \xc3\xa4"), "plain \xc3\xa4");
    EXPECT_EQ(Printable("\x1b[31;1mred\x1b[0m"), "red");
    EXPECT_EQ(Printable("a\tb\rc\x07"), "a b?c?");
    EXPECT_EQ(Printable("\x1b]0;title\x07"), "?]0;title?");
    EXPECT_EQ(Printable("cut \x1b[31"), "cut ");
}

TEST(Format, PrintableIsValidUtf8WithoutControls) {
    EXPECT_EQ(Printable("a\xff\xe6z"), "a??z");
    EXPECT_EQ(Printable("a\xc2\x9b"
                        "31m"),
              "a?31m");
    EXPECT_EQ(Printable(std::string("a\0b", 3)), "a?b");
    EXPECT_EQ(Printable("\xed\xa0\x80"), "???") << "half of a surrogate pair";
}

TEST(Format, ColumnsAreThoseOfATerminal) {
    EXPECT_EQ(Columns("\xe6\xb1\x89\xe5\xad\x97"), 4U) << "two letters of two columns";
    EXPECT_EQ(Columns("e\xcc\x81"), 1U) << "an accent of its own";
    EXPECT_EQ(Columns("a\xe2\x80\x8b"
                      "b"),
              2U)
        << "a space of no width";
    EXPECT_EQ(Columns("\xff\xe6"), 2U);
    EXPECT_EQ(Cut("\xe6\xb1\x89\xe5\xad\x97\xe5\xad\x97", 5), "\xe6\xb1\x89..");
    EXPECT_EQ(Cut("\xe6\xb1\x89\xe5\xad\x97\xe5\xad\x97", 4), "\xe6\xb1\x89..");
    EXPECT_EQ(Cut("\xe6\xb1\x89\xe5\xad\x97\xe5\xad\x97", 3), "..");
    EXPECT_EQ(Cut("e\xcc\x81"
                  "abcd",
                  4),
              "e\xcc\x81"
              "a..");
    EXPECT_EQ(Cut("\xff\xff\xff\xff", 3), "\xff..");
}

TEST(Format, CutKeepsWholeCharacters) {
    EXPECT_EQ(Cut("hello", 5), "hello");
    EXPECT_EQ(Cut("hello!", 5), "hel..");
    EXPECT_EQ(Cut("\xc3\xa4\xc3\xb6\xc3\xbc\xc3\xa4", 4), "\xc3\xa4\xc3\xb6\xc3\xbc\xc3\xa4");
    EXPECT_EQ(Cut("\xc3\xa4\xc3\xb6\xc3\xbc\xc3\xa4", 3), "\xc3\xa4..");
    EXPECT_EQ(Cut("hello", 1), ".");
    EXPECT_EQ(Cut("hello", 0), "");
}

TEST(Format, EscapesGoAndColorsMayStay) {
    for (const auto &[text, plain, colored] :
         std::vector<std::array<std::string, 3>>{{"plain\t\xc3\xa4", "plain\t\xc3\xa4", "plain\t\xc3\xa4"},
                                                 {"\x1b[31;1mred\x1b[m", "red", "\x1b[31;1mred\x1b[m"},
                                                 {"a\x1b[2Jb\x1b[?25lc", "abc", "abc"},
                                                 {"a\x1b]0;title\x07"
                                                  "b\x1b]8;;x\x1b\\c",
                                                  "abc", "abc"},
                                                 {"a\x1bPdata\x1b\\b", "ab", "ab"},
                                                 {"a\x1b(Bb\x1b"
                                                  "cc",
                                                  "abc", "abc"},
                                                 {"a\x1b", "a", "a"},
                                                 {"a\x1b[31", "a", "a"},
                                                 {"a\x1b]0;title", "a", "a"},
                                                 {"a\x1b(", "a", "a"}}) {
        EXPECT_EQ(StripEscapes(text, false), plain);
        EXPECT_EQ(StripEscapes(text, true), colored);
    }
}
