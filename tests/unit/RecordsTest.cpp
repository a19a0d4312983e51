// The records as both languages see them, and what a source hands out before anything has been seen.
#include "records_c99.h"
#include "support/Fixture.h"

#include <cstring>

namespace unit {

namespace {

struct Expected {
    const char *field;
    std::size_t offset;
    std::size_t size;
};

void ExpectLayout(const std::vector<Expected> &expected, std::size_t size, const record_offset *seen) {
    std::size_t count = 0;
    for (; seen[count].field != nullptr; ++count) {
        ASSERT_LT(count, expected.size());
        EXPECT_STREQ(expected[count].field, seen[count].field);
        EXPECT_EQ(expected[count].offset, seen[count].offset) << seen[count].field;
        EXPECT_EQ(expected[count].size, seen[count].size) << seen[count].field;
    }
    EXPECT_EQ(expected.size(), count);
    EXPECT_EQ(size, seen[count].size);
}

}  // namespace

TEST(Records, MediaCodeInfoInC99) {
    ExpectLayout({{"type", 0, 4},
                  {"code", 4, 16},
                  {"params.video.width", 20, 4},
                  {"params.video.height", 24, 4},
                  {"params.video.fps", 28, 4},
                  {"params.video.ref_frames", 32, 1},
                  {"params.video.scan_type", 33, 1},
                  {"params.audio.sample_rate", 20, 4},
                  {"params.audio.channels", 24, 4},
                  {"params.audio.no_samples", 28, 4},
                  {"params.audio.extra", 32, 4}},
                 36, c99_media_code_info());
}

TEST(Records, SourceStatusInC99) {
    ExpectLayout({{"source_mode", 0, 16},
                  {"state", 16, 16},
                  {"video_code", 32, 16},
                  {"reserved_video", 48, 36},
                  {"video_bitrate", 84, 4},
                  {"width", 88, 4},
                  {"height", 92, 4},
                  {"fps", 96, 4},
                  {"video_real_fps", 100, 4},
                  {"audio_code", 104, 16},
                  {"reserved_audio", 120, 32},
                  {"audio_bitrate", 152, 4},
                  {"sample_rate", 156, 4},
                  {"channels", 160, 4},
                  {"audio_real_fps", 164, 4}},
                 168, c99_source_status());
}

TEST(Records, SameInCxx) {
    EXPECT_EQ(36U, sizeof(media_code_info_t));
    EXPECT_EQ(4U, alignof(media_code_info_t));
    EXPECT_EQ(168U, sizeof(source_status_t));
    EXPECT_EQ(4U, alignof(source_status_t));
    media_code_info_t info;
    c99_fill_video(&info);
    EXPECT_EQ(0, info.type);
    EXPECT_STREQ("H264", info.code);
    EXPECT_EQ(0x01020304, info.params.video.width);
    EXPECT_EQ(0x11121314, info.params.video.height);
    EXPECT_EQ(25.0F, info.params.video.fps);
    EXPECT_EQ(0x21, info.params.video.ref_frames);
    EXPECT_EQ(0x31, info.params.video.scan_type);
    EXPECT_EQ(0x01020304, info.params.audio.sample_rate);
}

TEST(Records, HeaderDeclaresElevenFunctionsToC99) {
    EXPECT_EQ(11, c99_functions());
}

using InitialRecords = ClassTest;

TEST_P(InitialRecords, BeforeAnythingHasBeenSeen) {
    source_status_t status;
    std::memset(&status, 0xAA, sizeof status);
    Source().GetSourceStatus(&status);
    const source_status_t zero_status{};
    EXPECT_EQ(0, std::memcmp(&zero_status, &status, sizeof status));

    media_code_info_t video;
    media_code_info_t audio;
    std::memset(&video, 0xAA, sizeof video);
    std::memset(&audio, 0xAA, sizeof audio);
    EXPECT_TRUE(Source().GetMediaInfo(&video, &audio));
    const media_code_info_t zero{};
    EXPECT_EQ(0, std::memcmp(&zero, &video, sizeof video));
    EXPECT_EQ(1, audio.type);
    audio.type = 0;
    EXPECT_EQ(0, std::memcmp(&zero, &audio, sizeof audio));
    EXPECT_EQ(Lines{}, m_log.Take());
}

TEST_P(InitialRecords, Fields) {
    EXPECT_EQ(GST_STATE_NULL, SourceProbe::State(Source()));
    EXPECT_EQ(nullptr, SourceProbe::Bus(Source()));
    EXPECT_EQ(nullptr, SourceProbe::Pipeline(Source()));
    EXPECT_FALSE(SourceProbe::ElementsCreated(Source()));
    EXPECT_FALSE(SourceProbe::MediaChanged(Source()));
    EXPECT_EQ("", Source().GetURL());
    EXPECT_EQ(200U, SourceProbe::Caching(Source()));
    EXPECT_FALSE(SourceProbe::Joinable(Source()));
    EXPECT_FALSE(SourceProbe::Exit(Source()));
    EXPECT_TRUE(SourceProbe::Reconnect(Source()));
    EXPECT_EQ("", SourceProbe::VideoEncode(Source()).Get());
    EXPECT_EQ("", SourceProbe::AudioEncode(Source()).Get());
    EXPECT_EQ(nullptr, SourceProbe::Callback(Source()));
    for (GstElement *element : Row().fields(Source())) {
        EXPECT_EQ(nullptr, element);
    }
}

TEST_P(InitialRecords, MediaInfoRefusesNull) {
    media_code_info_t info{};
    for (const auto &[video, audio] :
         {std::pair<media_code_info_t *, media_code_info_t *>{nullptr, &info}, {&info, nullptr}, {nullptr, nullptr}}) {
        EXPECT_FALSE(Source().GetMediaInfo(video, audio));
        EXPECT_EQ(Lines{Err("CNDISource:  Input args invalid!!!")}, m_log.Take());
    }
    EXPECT_EQ(0, info.type);
}

TEST_P(InitialRecords, QueueLimitIsOneSecondForEveryCaching) {
    for (const unsigned int caching : {0U, 200U, 5000U, 0xFFFFFFFFU}) {
        EXPECT_EQ(1000000000U, Source().GetMaxSizeTime(caching));
    }
}

TEST_P(InitialRecords, DestroyHandle) {
    Row().destroyHandle(nullptr);
    EXPECT_EQ(Lines{}, m_log.Take());
    Row().destroyHandle(m_source.release());
    EXPECT_EQ(Row().IdleCloseLines("") + Lines{Info("[CBaseSource] ~~~CBaseSource .. URL=")}, m_log.Take());
}

TEST(BaseSource, CloseDoesNothing) {
    LogCapture log;
    int buffer = 0;
    CBaseSource source(&buffer, 1, 2);
    EXPECT_TRUE(source.CloseLiveStream());
    EXPECT_EQ(Lines{}, log.Take());
}

INSTANTIATE_TEST_SUITE_P(Classes, InitialRecords, testing::ValuesIn(SourceClasses()), ClassName());

}  // namespace unit
