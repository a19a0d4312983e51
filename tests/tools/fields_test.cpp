#include "fields.h"

#include <gtest/gtest.h>

#include "words.h"

using namespace tool;

namespace {

constexpr char kTime[] = "2024-05-01T12:00:00.123Z";

std::vector<std::string> Keys(const Record &record) {
    std::vector<std::string> keys;
    for (const auto &item : record.items()) {
        keys.push_back(item.key());
    }
    return keys;
}

SourceSample Playing() {
    SourceSample sample;
    sample.channel = 1;
    sample.url = "udp://127.0.0.1:5000";
    sample.state = "connected";
    sample.flow = Flow::kLive;
    sample.video.codec = "H264";
    sample.video.width = 640;
    sample.video.height = 360;
    sample.video.announced_fps = static_cast<double>(29.97002997F);
    sample.video.measured_fps = 29.9701;
    sample.video.bitrate = 1'000'000;
    sample.video.frames = 10;
    sample.video.bytes = 1000;
    sample.video.age_ns = 41'999'999;
    sample.audio.codec = "AAC";
    sample.audio.sample_rate = 48000;
    sample.audio.channels = 2;
    return sample;
}

}  // namespace

TEST(Fields, NamesAndOrderOfASampleAreAContract) {
    EXPECT_EQ(Keys(SampleRecord({}, {}, kTime)),
              Words("type time elapsed_s source url protocol state flow rebuilds video_codec video_width_px "
                    "video_height_px video_scan video_announced_fps video_measured_fps video_bitrate_bps "
                    "video_frames video_bytes video_age_ms video_lost_frames video_discontinuities audio_codec "
                    "audio_sample_rate_hz audio_channels audio_measured_fps audio_bitrate_bps audio_frames "
                    "audio_bytes audio_age_ms audio_lost_frames audio_discontinuities "
                    "last_error last_error_code last_error_time attempts name buffer"));
}

TEST(Fields, NamesAndOrderOfASummaryAreAContract) {
    EXPECT_EQ(Keys(SummaryRecord({}, {}, kTime)),
              Words("type time elapsed_s source url protocol delivered rebuilds video_codec video_frames video_bytes "
                    "video_dumped_frames video_lost_frames video_discontinuities audio_codec audio_frames "
                    "audio_bytes audio_dumped_frames audio_lost_frames audio_discontinuities "
                    "last_error last_error_code last_error_time attempts name buffer"));
}

TEST(Fields, WhatIsUnknownIsNull) {
    const Record record = SampleRecord({}, {}, kTime);
    for (const char *key :
         {"state", "video_codec", "video_width_px", "video_scan", "video_announced_fps", "video_age_ms", "video_lost_frames",
          "audio_codec", "audio_sample_rate_hz", "audio_age_ms", "last_error", "last_error_code", "last_error_time"}) {
        EXPECT_TRUE(record[key].is_null()) << key;
    }
    EXPECT_EQ(record["video_frames"], 0);
    EXPECT_EQ(record["flow"], "none");
    EXPECT_EQ(SummaryRecord({}, {}, kTime)["delivered"], false);
}

TEST(Fields, LastErrorWithAndWithoutACode) {
    SourceSample sample;
    sample.attempts = 3;
    sample.last_error = Reason{"Not Found", "404", kTime, true};
    Record record = SampleRecord({}, sample, "later");
    EXPECT_EQ(record["last_error"], "Not Found");
    EXPECT_EQ(record["last_error_code"], "404");
    EXPECT_EQ(record["last_error_time"], kTime);
    EXPECT_EQ(record["attempts"], 3);
    sample.last_error->code.clear();
    record = SummaryRecord({}, sample, "later");
    EXPECT_EQ(record["last_error"], "Not Found");
    EXPECT_TRUE(record["last_error_code"].is_null());
}

TEST(Fields, Values) {
    RunSample run;
    run.elapsed_s = 2.00049;
    SourceSample sample = Playing();
    Record record = SampleRecord(run, sample, kTime);
    EXPECT_EQ(record["elapsed_s"], 2.0);
    EXPECT_EQ(record["source"], 1);
    EXPECT_EQ(record["flow"], "live");
    EXPECT_EQ(record["video_scan"], "progressive");
    EXPECT_EQ(record["video_announced_fps"], 29.97);
    EXPECT_EQ(record["video_measured_fps"], 29.97);
    EXPECT_EQ(record["video_age_ms"], 41);
    EXPECT_EQ(record["audio_channels"], 2);
    sample.video.scan = 1;
    EXPECT_EQ(SampleRecord(run, sample, kTime)["video_scan"], "interlaced");
    sample.video.scan = 2;
    EXPECT_EQ(SampleRecord(run, sample, kTime)["video_scan"], "mixed");
    EXPECT_EQ(SummaryRecord(run, sample, kTime)["delivered"], true);
}

TEST(Fields, JsonLinesParseWhateverTheTextsHold) {
    SourceSample sample = Playing();
    sample.url = "udp://\xff\xfe \"quoted\"\n";
    const std::string line = JsonLine(SampleRecord({}, sample, kTime));
    EXPECT_EQ(line.find('\n'), line.size() - 1);
    const auto parsed = nlohmann::json::parse(line);
    EXPECT_EQ(parsed["video_codec"], "H264");
}

TEST(Fields, KeyValueLines) {
    const std::string line = KeyValueLine(SampleRecord({}, Playing(), kTime));
    EXPECT_EQ(line.rfind("type=sample time=2024-05-01T12:00:00.123Z elapsed_s=0.0 source=1 url=udp://127.0.0.1:5000 ", 0), 0u)
        << line;
    EXPECT_NE(line.find(" video_lost_frames=- "), std::string::npos) << line;
    EXPECT_EQ(line.back(), '\n');

    Record record;
    record["blank"] = "a b";
    record["quote"] = "a\"b";
    record["empty"] = "";
    record["dash"] = "-";
    record["none"] = nullptr;
    EXPECT_EQ(KeyValueLine(record), "blank=\"a b\" quote=\"a\\\"b\" empty=\"\" dash=\"-\" none=-\n");
}
