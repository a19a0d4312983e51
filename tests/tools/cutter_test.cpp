// How a recording is divided into files, with frames that are only times.
#include "cutter.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <map>

namespace {

using reader::Cutter;
using reader::FileStart;
using reader::FormatId;
using reader::Frame;

constexpr int64_t kMs = 1'000'000;
constexpr int64_t kSecond = 1000 * kMs;
constexpr int64_t kPicture = 40 * kMs;
constexpr int64_t kSound = 20 * kMs;

constexpr FormatId kH264 = 1;
constexpr FormatId kLargeH264 = 2;
constexpr FormatId kAac = 11;
constexpr FormatId kMp3 = 12;
// The same as kAac to a container.
constexpr FormatId kOtherAac = 13;

struct File {
    FileStart start;
    std::vector<Frame> frames;
    std::vector<std::pair<shb_kind_t, int64_t>> skips;
    std::array<bool, reader::kKinds> ended{};
    bool closed = false;

    std::vector<int64_t> Times(shb_kind_t kind) const {
        std::vector<int64_t> times;
        for (const Frame &frame : frames) {
            if (frame.kind == kind) {
                times.push_back(frame.pts / kMs);
            }
        }
        return times;
    }
};

// Keeps what it is given, and sees to the order of the calls.
class Shelf : public reader::Files {
  public:
    std::map<uint64_t, File> files;

    void Open(const FileStart &start) override {
        EXPECT_EQ(start.number, files.size());
        files[start.number].start = start;
    }
    void Write(uint64_t file, Frame frame) override {
        EXPECT_NE(At(file).start.formats[frame.kind], 0u);
        EXPECT_FALSE(At(file).ended[frame.kind]);
        At(file).frames.push_back(std::move(frame));
    }
    void Skip(uint64_t file, shb_kind_t kind, int64_t time) override { At(file).skips.emplace_back(kind, time); }
    void EndTrack(uint64_t file, shb_kind_t kind) override {
        EXPECT_FALSE(At(file).ended[kind]);
        At(file).ended[kind] = true;
    }
    void Close(uint64_t file) override { At(file).closed = true; }

  private:
    File &At(uint64_t file) {
        EXPECT_TRUE(files.count(file) == 1 && !files[file].closed) << file;
        return files[file];
    }
};

class CutterTest : public ::testing::Test {
  protected:
    void Start(Cutter::Rules rules = {}) {
        rules.same_format = [](FormatId one, FormatId other) {
            const auto aac = [](FormatId format) { return format == kAac || format == kOtherAac; };
            return one == other || (aac(one) && aac(other));
        };
        m_cutter.emplace(std::move(rules), shelf);
        m_cutter->Expect(SHB_VIDEO);
        m_cutter->Expect(SHB_AUDIO);
    }
    void Video(int64_t pts, bool key, FormatId format = kH264) { VideoAt(pts, pts, key, format); }
    void VideoAt(int64_t pts, int64_t dts, bool key, FormatId format = kH264) {
        Add(SHB_VIDEO, pts, dts, kPicture, key, format);
    }
    void Audio(int64_t pts, FormatId format = kAac) { Add(SHB_AUDIO, pts, pts, kSound, true, format); }
    // Both, from one time to another, with a key frame each `group` pictures.
    void Both(int64_t from, int64_t until, int group = 5, FormatId video = kH264, FormatId audio = kAac) {
        for (int64_t pts = from; pts < until; pts += kPicture) {
            Video(pts, (pts - from) / kPicture % group == 0, video);
            Audio(pts, audio);
            Audio(pts + kSound, audio);
        }
        m_cutter->Advance(now);
    }
    Cutter &Cut() { return *m_cutter; }
    File &Nth(uint64_t number) { return shelf.files[number]; }

    Shelf shelf;
    int64_t now = kSecond;

  private:
    void Add(shb_kind_t kind, int64_t pts, int64_t dts, int64_t duration, bool key, FormatId format) {
        Frame frame;
        frame.kind = kind;
        frame.pts = pts;
        frame.dts = dts;
        frame.duration = duration;
        frame.key = key;
        frame.format = format;
        frame.size = 100;
        m_cutter->Add(std::move(frame), now);
    }
    std::optional<Cutter> m_cutter;
};

std::vector<int64_t> Steps(int64_t from, int64_t until, int64_t step) {
    std::vector<int64_t> times;
    for (int64_t time = from; time < until; time += step) {
        times.push_back(time / kMs);
    }
    return times;
}

}  // namespace

TEST_F(CutterTest, OneFileHasEverything) {
    Start();
    Both(10 * kSecond, 12 * kSecond);
    Cut().Finish();
    ASSERT_EQ(shelf.files.size(), 1u);
    EXPECT_EQ(Nth(0).start.zero, 10 * kSecond);
    EXPECT_EQ(Nth(0).start.reason, "");
    EXPECT_EQ(Nth(0).start.formats[SHB_VIDEO], kH264);
    EXPECT_EQ(Nth(0).start.formats[SHB_AUDIO], kAac);
    EXPECT_EQ(Nth(0).Times(SHB_VIDEO), Steps(10 * kSecond, 12 * kSecond, kPicture));
    EXPECT_EQ(Nth(0).Times(SHB_AUDIO), Steps(10 * kSecond, 12 * kSecond, kSound));
    EXPECT_TRUE(Nth(0).ended[SHB_VIDEO] && Nth(0).ended[SHB_AUDIO] && Nth(0).closed);
    EXPECT_EQ(Cut().Recorded(), 2 * kSecond);
}

TEST_F(CutterTest, NothingBeforeTheFirstKeyFrame) {
    Start();
    Video(0, false);
    Video(kPicture, false);
    Both(2 * kPicture, kSecond);
    Cut().Finish();
    ASSERT_EQ(shelf.files.size(), 1u);
    EXPECT_EQ(Nth(0).Times(SHB_VIDEO).front(), 80);
    EXPECT_EQ(Cut().LeftOut(SHB_VIDEO), 2u);
}

// Whatever the two tracks are ahead of one another, no sound is in the wrong file.
TEST_F(CutterTest, SegmentsHaveEveryFrameOnce) {
    for (const int64_t ahead : {-2 * kSecond, -kPicture, int64_t{0}, kPicture, 2 * kSecond}) {
        shelf.files.clear();
        Cutter::Rules rules;
        rules.segment = kSecond;
        Start(rules);
        const int64_t begin = 10 * kSecond;
        const int64_t end = 14 * kSecond;
        for (int64_t time = begin - 2 * kSecond; time < end + 2 * kSecond; time += kSound) {
            const int64_t video = time;
            if (video >= begin && video < end && (video - begin) % kPicture == 0) {
                Video(video, (video - begin) / kPicture % 5 == 0);
            }
            const int64_t audio = time + ahead;
            if (audio >= begin && audio < end) {
                Audio(audio);
            }
            Cut().Advance(now);
        }
        Cut().Finish();
        ASSERT_EQ(shelf.files.size(), 4u) << ahead;
        for (uint64_t i = 0; i < 4; ++i) {
            const int64_t from = begin + static_cast<int64_t>(i) * kSecond;
            EXPECT_EQ(Nth(i).start.zero, from) << ahead;
            EXPECT_EQ(Nth(i).Times(SHB_VIDEO), Steps(from, from + kSecond, kPicture)) << ahead << " " << i;
            EXPECT_EQ(Nth(i).Times(SHB_AUDIO), Steps(from, from + kSecond, kSound)) << ahead << " " << i;
            EXPECT_TRUE(Nth(i).closed);
        }
        EXPECT_EQ(Nth(1).start.reason, "the next segment");
    }
}

// A long group of pictures delays a cut and moves no later one.
// Groups as long as a segment, whose times are rounded.
TEST_F(CutterTest, KeyFrameJustBeforeItsCutIsInTime) {
    Cutter::Rules rules;
    rules.segment = kSecond;
    Start(rules);
    for (int group = 0; group < 3; ++group) {
        const int64_t begin = group * (kSecond - 5 * kMs);
        Both(begin, begin + 25 * kPicture - 5 * kMs, 25);
    }
    Cut().Finish();
    ASSERT_EQ(shelf.files.size(), 3u);
    EXPECT_EQ(Nth(1).Times(SHB_VIDEO).front(), 995);
    EXPECT_EQ(Nth(2).Times(SHB_VIDEO).front(), 1990);
}

TEST_F(CutterTest, SegmentsKeepTheirGrid) {
    Cutter::Rules rules;
    rules.segment = kSecond;
    Start(rules);
    for (int64_t pts = 0; pts < 4 * kSecond; pts += kPicture) {
        const bool key = pts == 0 || pts == 1200 * kMs || pts == 2 * kSecond || pts == 3040 * kMs;
        Video(pts, key);
        Audio(pts);
    }
    Cut().Finish();
    ASSERT_EQ(shelf.files.size(), 4u);
    EXPECT_EQ(Nth(1).start.zero, 1200 * kMs);
    EXPECT_EQ(Nth(2).start.zero, 2 * kSecond);
    EXPECT_EQ(Nth(3).start.zero, 3040 * kMs);
}

// Decoding order: key frame, then pictures that are shown before it.
TEST_F(CutterTest, AFileBeginsWithThePictureThatIsShownFirst) {
    Cutter::Rules rules;
    rules.segment = 400 * kMs;
    Start(rules);
    for (int64_t group = 0; group < 2; ++group) {
        const int64_t begin = kSecond + group * 400 * kMs;
        VideoAt(begin + 80 * kMs, begin, true);
        VideoAt(begin, begin + 40 * kMs, false);
        VideoAt(begin + 40 * kMs, begin + 80 * kMs, false);
        VideoAt(begin + 120 * kMs, begin + 120 * kMs, false);
    }
    for (int64_t pts = kSecond; pts < 2 * kSecond; pts += kSound) {
        Audio(pts);
    }
    Cut().Finish();
    ASSERT_EQ(shelf.files.size(), 2u);
    EXPECT_EQ(Nth(0).start.zero, kSecond);
    EXPECT_EQ(Nth(0).start.decoding_zero, kSecond);
    EXPECT_EQ(Nth(1).start.zero, 1400 * kMs);
    EXPECT_EQ(Nth(1).Times(SHB_VIDEO), (std::vector<int64_t>{1480, 1400, 1440, 1520}));
    // The sound is cut where the key frame is shown.
    EXPECT_EQ(Nth(0).Times(SHB_AUDIO).back(), 1460);
    EXPECT_EQ(Nth(1).Times(SHB_AUDIO).front(), 1480);
}

TEST_F(CutterTest, AnotherPictureBeginsAnotherFileAtItsKeyFrame) {
    Start();
    Both(0, kSecond);
    // Of the new format, before its key frame: no file can have it.
    Video(kSecond, false, kLargeH264);
    Audio(kSecond);
    Audio(kSecond + kSound);
    Both(kSecond + kPicture, 2 * kSecond, 5, kLargeH264);
    Cut().Finish();
    ASSERT_EQ(shelf.files.size(), 2u);
    EXPECT_EQ(Nth(1).start.reason, "the picture has another format");
    EXPECT_EQ(Nth(1).start.formats[SHB_VIDEO], kLargeH264);
    EXPECT_EQ(Nth(1).start.zero, kSecond + kPicture);
    EXPECT_EQ(Nth(0).Times(SHB_AUDIO), Steps(0, kSecond + kPicture, kSound));
    EXPECT_EQ(Nth(1).Times(SHB_AUDIO), Steps(kSecond + kPicture, 2 * kSecond, kSound));
    EXPECT_EQ(Cut().LeftOut(SHB_VIDEO), 1u);
}

// The picture goes on in the old file until its next key frame; the new sound waits for that in the new one.
TEST_F(CutterTest, AnotherSoundBeginsAnotherFileWithoutLoss) {
    Start();
    for (int64_t pts = 0; pts < 2 * kSecond; pts += kPicture) {
        const FormatId format = pts < 1080 * kMs ? kAac : kMp3;
        Video(pts, pts / kPicture % 5 == 0);
        Audio(pts, format);
        Audio(pts + kSound, format);
    }
    Cut().Finish();
    ASSERT_EQ(shelf.files.size(), 2u);
    EXPECT_EQ(Nth(1).start.reason, "the sound has another format");
    EXPECT_EQ(Nth(0).Times(SHB_VIDEO), Steps(0, 1200 * kMs, kPicture));
    EXPECT_EQ(Nth(0).Times(SHB_AUDIO), Steps(0, 1080 * kMs, kSound));
    EXPECT_EQ(Nth(1).Times(SHB_VIDEO), Steps(1200 * kMs, 2 * kSecond, kPicture));
    EXPECT_EQ(Nth(1).Times(SHB_AUDIO), Steps(1080 * kMs, 2 * kSecond, kSound));
    EXPECT_EQ(Nth(1).start.zero, 1080 * kMs);
    EXPECT_EQ(Nth(1).start.formats[SHB_AUDIO], kMp3);
}

TEST_F(CutterTest, FormatsThatTheContainerCanMixAreNoCut) {
    Start();
    Both(0, kSecond);
    Both(kSecond, 2 * kSecond, 5, kH264, kOtherAac);
    Cut().Finish();
    ASSERT_EQ(shelf.files.size(), 1u);
    EXPECT_EQ(Nth(0).Times(SHB_AUDIO), Steps(0, 2 * kSecond, kSound));
}

TEST_F(CutterTest, SoundThatComesLaterBeginsAnotherFile) {
    Start();
    Cut().Advance(now);
    for (int64_t pts = 0; pts < 8 * kSecond; pts += kPicture) {
        Video(pts, pts / kPicture % 25 == 0);
    }
    // It had its time, and is no longer waited for.
    now += 3 * kSecond;
    Cut().Advance(now);
    ASSERT_EQ(shelf.files.size(), 1u);
    EXPECT_EQ(Nth(0).start.formats[SHB_AUDIO], 0u);
    Both(8 * kSecond, 10 * kSecond);
    Cut().Finish();
    ASSERT_EQ(shelf.files.size(), 2u);
    EXPECT_EQ(Nth(1).start.reason, "the sound has come");
    EXPECT_EQ(Nth(1).Times(SHB_AUDIO), Steps(8 * kSecond, 10 * kSecond, kSound));
    EXPECT_EQ(Nth(0).Times(SHB_VIDEO).size() + Nth(1).Times(SHB_VIDEO).size(), 250u);
}

// A burst of one track is no silence of the other.
TEST_F(CutterTest, OneTrackWaitsForTheOther) {
    Start();
    for (int64_t pts = 0; pts < 20 * kSecond; pts += kPicture) {
        Video(pts, pts == 0);
    }
    Cut().Advance(now);
    EXPECT_TRUE(shelf.files.empty());
    for (int64_t pts = 0; pts < 20 * kSecond; pts += kSound) {
        Audio(pts);
    }
    Cut().Advance(now);
    ASSERT_EQ(shelf.files.size(), 1u);
    Cut().Finish();
    EXPECT_EQ(Nth(0).Times(SHB_AUDIO).size(), 1000u);
    EXPECT_TRUE(Nth(0).skips.empty());
}

TEST_F(CutterTest, ASilentTrackIsSkippedInItsFile) {
    Start();
    Both(0, kSecond);
    for (int64_t pts = kSecond; pts < 20 * kSecond; pts += kPicture) {
        Video(pts, false);
    }
    Cut().Advance(now);
    EXPECT_LT(Nth(0).Times(SHB_VIDEO).size(), 30u);
    now += 3 * kSecond;
    Cut().Advance(now);
    // All but the last seconds, in which the sound may come back without being late.
    EXPECT_GE(Nth(0).Times(SHB_VIDEO).back(), 14'000);
    ASSERT_FALSE(Nth(0).skips.empty());
    EXPECT_EQ(Nth(0).skips.back().first, SHB_AUDIO);
    EXPECT_GE(Nth(0).skips.back().second, 14 * kSecond);
    EXPECT_LE(Nth(0).skips.size(), 40u);
    Both(20 * kSecond, 21 * kSecond);
    Cut().Finish();
    ASSERT_EQ(shelf.files.size(), 1u);
    EXPECT_EQ(Nth(0).Times(SHB_AUDIO).size(), 100u);
    EXPECT_EQ(Nth(0).Times(SHB_VIDEO).size(), 525u);
}

TEST_F(CutterTest, ASilentTrackEndsWhereItCannotBeSkipped) {
    Cutter::Rules rules;
    rules.skips = false;
    Start(rules);
    Both(0, kSecond);
    for (int64_t pts = kSecond; pts < 20 * kSecond; pts += kPicture) {
        Video(pts, false);
    }
    now += 3 * kSecond;
    Cut().Advance(now);
    EXPECT_TRUE(Nth(0).ended[SHB_AUDIO]);
    EXPECT_TRUE(Nth(0).skips.empty());
    Both(20 * kSecond, 21 * kSecond);
    Cut().Finish();
    ASSERT_EQ(shelf.files.size(), 2u);
    EXPECT_EQ(Nth(1).start.reason, "the sound is back");
    EXPECT_EQ(Nth(1).Times(SHB_AUDIO), Steps(20 * kSecond, 21 * kSecond, kSound));
    EXPECT_EQ(Nth(0).Times(SHB_VIDEO).size() + Nth(1).Times(SHB_VIDEO).size(), 525u);
}

// After an outage one track has the times of before still waiting, and the other one comes later.
TEST_F(CutterTest, TracksThatComeBackOneAfterTheOtherGoOnInTheirFile) {
    for (const bool skips : {true, false}) {
        shelf.files.clear();
        Cutter::Rules rules;
        rules.skips = skips;
        Start(rules);
        Both(0, 2 * kSecond);
        Audio(2 * kSecond);
        Cut().Advance(now);
        now += 60 * kSecond;
        for (int64_t pts = 62 * kSecond; pts < 63 * kSecond; pts += kSound) {
            Audio(pts);
        }
        Cut().Advance(now);
        now += kSecond;
        for (int64_t pts = 62 * kSecond; pts < 64 * kSecond; pts += kPicture) {
            Video(pts, pts == 62 * kSecond);
        }
        Cut().Advance(now);
        Cut().Finish();
        ASSERT_EQ(shelf.files.size(), 1u) << skips;
        EXPECT_TRUE(Nth(0).skips.empty());
        EXPECT_EQ(Nth(0).Times(SHB_VIDEO).size(), 100u);
        EXPECT_EQ(Nth(0).Times(SHB_AUDIO).size(), 151u);
    }
}

TEST_F(CutterTest, SoundGoesOnWhileThePictureIsSilent) {
    for (const bool skips : {true, false}) {
        shelf.files.clear();
        Cutter::Rules rules;
        rules.skips = skips;
        Start(rules);
        Both(0, kSecond);
        for (int64_t pts = kSecond; pts < 20 * kSecond; pts += kSound) {
            Audio(pts);
        }
        now += 3 * kSecond;
        Cut().Advance(now);
        EXPECT_GE(Nth(0).Times(SHB_AUDIO).back(), 14'000);
        Both(20 * kSecond, 21 * kSecond);
        Cut().Finish();
        EXPECT_EQ(shelf.files.size(), skips ? 1u : 2u);
        size_t sounds = 0;
        for (const auto &[number, file] : shelf.files) {
            sounds += file.Times(SHB_AUDIO).size();
        }
        EXPECT_EQ(sounds, 1050u);
    }
}

TEST_F(CutterTest, SoundAloneIsCutAnywhere) {
    Cutter::Rules rules;
    rules.segment = kSecond;
    Start(rules);
    Cut().End(SHB_VIDEO);
    for (int64_t pts = 0; pts < 3 * kSecond; pts += kSound) {
        Audio(pts, pts < 2500 * kMs ? kAac : kMp3);
        Cut().Advance(now);
    }
    Cut().Finish();
    ASSERT_EQ(shelf.files.size(), 4u);
    EXPECT_EQ(Nth(1).Times(SHB_AUDIO), Steps(kSecond, 2 * kSecond, kSound));
    EXPECT_EQ(Nth(3).Times(SHB_AUDIO), Steps(2500 * kMs, 3 * kSecond, kSound));
}

TEST_F(CutterTest, AnOutageIsAGapUnlessItIsTooLong) {
    Cutter::Rules rules;
    rules.longest_gap = 3600 * kSecond;
    Start(rules);
    Both(0, kSecond);
    Both(3000 * kSecond, 3001 * kSecond);
    Both(8000 * kSecond, 8001 * kSecond);
    Cut().Finish();
    ASSERT_EQ(shelf.files.size(), 2u);
    EXPECT_EQ(Nth(0).Times(SHB_VIDEO).back(), 3000'960);
    EXPECT_EQ(Nth(1).start.reason, "an outage of 01:23:19");
    EXPECT_EQ(Nth(1).start.zero, 8000 * kSecond);
    EXPECT_EQ(Cut().Recorded(), 8001 * kSecond);
}

TEST_F(CutterTest, DurationEndsBothTracks) {
    Cutter::Rules rules;
    rules.duration = 2 * kSecond;
    Start(rules);
    Both(10 * kSecond, 11960 * kMs);
    EXPECT_FALSE(Cut().Done());
    Both(11960 * kMs, 13 * kSecond);
    EXPECT_TRUE(Cut().Done());
    Cut().Finish();
    ASSERT_EQ(shelf.files.size(), 1u);
    EXPECT_EQ(Nth(0).Times(SHB_VIDEO), Steps(10 * kSecond, 12 * kSecond, kPicture));
    EXPECT_EQ(Nth(0).Times(SHB_AUDIO), Steps(10 * kSecond, 12 * kSecond, kSound));
    EXPECT_EQ(Cut().Recorded(), 2 * kSecond);
}

TEST_F(CutterTest, DurationDoesNotWaitForATrackThatIsSilent) {
    Cutter::Rules rules;
    rules.duration = 2 * kSecond;
    Start(rules);
    Both(0, kSecond);
    for (int64_t pts = kSecond; pts < 9 * kSecond; pts += kPicture) {
        Video(pts, false);
    }
    now += 3 * kSecond;
    Cut().Advance(now);
    now += 6 * kSecond;
    Cut().Advance(now);
    EXPECT_TRUE(Cut().Done());
    Cut().Finish();
    EXPECT_EQ(Nth(0).Times(SHB_VIDEO).size(), 50u);
}

// Its decoding time says that the file is open by then.
TEST_F(CutterTest, SoundFromJustBeforeTheFirstPictureIsLeftAway) {
    Start();
    VideoAt(kSecond, kSecond - 80 * kMs, true);
    VideoAt(kSecond + 160 * kMs, kSecond - kPicture, false);
    Audio(kSecond - kMs);
    Audio(kSecond + kSound - kMs);
    VideoAt(kSecond + 80 * kMs, kSecond, false);
    Audio(kSecond + 2 * kSound - kMs);
    Cut().Advance(now);
    Cut().Finish();
    EXPECT_EQ(Nth(0).start.zero, kSecond);
    EXPECT_EQ(Nth(0).Times(SHB_AUDIO), (std::vector<int64_t>{1019, 1039}));
    EXPECT_EQ(Cut().LeftOut(SHB_AUDIO), 0u);
}

TEST_F(CutterTest, AsManyFramesAsWanted) {
    Cutter::Rules rules;
    rules.frames = 30;
    Start(rules);
    Both(0, 2 * kSecond);
    EXPECT_TRUE(Cut().Done());
    Cut().Finish();
    EXPECT_EQ(Nth(0).Times(SHB_VIDEO).size(), 30u);
    EXPECT_EQ(Nth(0).Times(SHB_AUDIO), Steps(0, 1200 * kMs, kSound));
}

TEST_F(CutterTest, WithoutFramesThereIsNoFile) {
    Start();
    Cut().Advance(now);
    Cut().Finish();
    EXPECT_TRUE(shelf.files.empty());
}

TEST_F(CutterTest, SoundIsKeptWhenThePictureNeverCame) {
    Start();
    Audio(0);
    Audio(kSound);
    Cut().Advance(now);
    EXPECT_TRUE(shelf.files.empty());
    Cut().Finish();
    ASSERT_EQ(shelf.files.size(), 1u);
    EXPECT_EQ(Nth(0).start.formats[SHB_VIDEO], 0u);
    EXPECT_EQ(Nth(0).Times(SHB_AUDIO).size(), 2u);
}

// Sound that is longer than the picture is no reason for one more file.
TEST_F(CutterTest, TheEndIsNoSegment) {
    Cutter::Rules rules;
    rules.segment = kSecond;
    Start(rules);
    Both(0, kSecond);
    for (int64_t pts = kSecond; pts < 1200 * kMs; pts += kSound) {
        Audio(pts);
    }
    Cut().End(SHB_VIDEO);
    Cut().End(SHB_AUDIO);
    Cut().Advance(now);
    Cut().Finish();
    ASSERT_EQ(shelf.files.size(), 1u);
    EXPECT_EQ(Nth(0).Times(SHB_AUDIO), Steps(0, 1200 * kMs, kSound));
}
