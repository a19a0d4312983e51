// The text that monitoring systems read, and what they say of it.
#include <gtest/gtest.h>

#include <cstdlib>
#include <set>
#include <sstream>

#include "http/metrics.h"
#include "http_fake.h"
#include "temp_dir.h"

namespace {

bool Has(const std::string &text, const std::string &line) {
    return ("\n" + text).find("\n" + line + "\n") != std::string::npos;
}

// Empty when promtool has nothing to say.
std::string Complaints(const std::string &metrics) {
    const TempDir dir;
    const std::string file = dir.Write("metrics", metrics);
    const std::string out = dir.File("out");
    const int status = std::system(("promtool check metrics < " + file + " > " + out + " 2>&1").c_str());
    const std::string said = ReadAll(out);
    return status == 0 ? said : "exit status " + std::to_string(status) + ": " + said;
}

tool::RunSample OddFleet() {
    tool::RunSample run = FakeFleet();
    tool::SourceSample &source = run.sources.front();
    source.name = "a \"b\" \\ c\nd";
    source.url = "rtsp://host/\xff\xfe?x={y}&z=\"1\"";
    source.last_error =
        tool::Reason{"he said \"no\\never\"\nand \xc3\x28 left" + std::string(500, 'x'), "4\"04", "no time", true};
    source.rebuild_reasons["a\\b"] = 2;
    source.readers.push_back(source.readers.front());
    source.readers.front().program = "\xf0\x9f\x8e\xa5 \"cam\"";
    run.sources[1].name = run.sources[2].name;
    run.sources[3].state = "something new";
    run.sources[4].name.clear();
    return run;
}

TEST(HttpMetrics, PromtoolHasNothingToSay) {
    EXPECT_EQ(Complaints(tool::MetricsText(FakeFleet(), 0.5)), "");
    EXPECT_EQ(Complaints(tool::MetricsText(OddFleet(), 0.5)), "");
    EXPECT_EQ(Complaints(tool::MetricsText(tool::RunSample(), 0)), "");
    EXPECT_NE(Complaints("# TYPE x counter\nx 1\n"), "") << "it does look";
}

TEST(HttpMetrics, EverySampleHasItsHead) {
    std::set<std::string> typed;
    std::istringstream lines(tool::MetricsText(FakeFleet(), 0));
    for (std::string line; std::getline(lines, line);) {
        std::istringstream words(line);
        std::string first;
        std::string second;
        std::string name;
        words >> first >> second >> name;
        if (second == "TYPE") {
            EXPECT_TRUE(typed.insert(name).second) << "twice: " << name;
            continue;
        }
        std::string family = first.substr(0, first.find('{'));
        for (const char *suffix : {"_bucket", "_sum", "_count"}) {
            const size_t end = family.rfind(suffix);
            if (typed.count(family) == 0 && end != std::string::npos) {
                family.resize(end);
            }
        }
        EXPECT_TRUE(first == "#" || typed.count(family) == 1) << line;
    }
    EXPECT_GT(typed.size(), 30U);
}

TEST(HttpMetrics, ValuesAreThoseOfTheSample) {
    const std::string text = tool::MetricsText(FakeFleet(), 0.5);
    EXPECT_TRUE(Has(text, "gst_source_frames_total{source=\"gate-north\",kind=\"video\"} 90000"));
    EXPECT_TRUE(Has(text, "gst_source_key_frames_total{source=\"gate-north\",kind=\"video\"} 1800"));
    EXPECT_TRUE(Has(text, "gst_source_bytes_per_second{source=\"gate-north\",kind=\"audio\"} 16000"));
    EXPECT_TRUE(Has(text, "gst_source_last_frame_age_seconds{source=\"gate-north\",kind=\"video\"} 0.02"));
    EXPECT_TRUE(Has(text, "gst_source_state{source=\"gate-north\",state=\"connected\"} 1"));
    EXPECT_TRUE(Has(text, "gst_source_state{source=\"gate-north\",state=\"reconnect\"} 0"));
    EXPECT_TRUE(Has(text, "gst_source_up{source=\"gate-north\"} 1"));
    EXPECT_TRUE(Has(text, "gst_source_up{source=\"lobby\"} 0"));
    EXPECT_TRUE(Has(text, "gst_source_rebuilds_total{source=\"event-stream\"} 6"));
    EXPECT_TRUE(Has(text, "gst_source_rebuild_reasons_total{source=\"event-stream\",reason=\"end of stream\"} 4"));
    EXPECT_TRUE(
        Has(text,
            "gst_source_reader_lost_frames_total{source=\"gate-north\",kind=\"video\",program=\"analytics\",pid=\"4188\"} 37"));
    EXPECT_TRUE(Has(text, "gst_source_readers{source=\"gate-north\",kind=\"video\"} 2"));
    EXPECT_TRUE(Has(text, "gst_source_track_present{source=\"gate-south\",kind=\"audio\"} 0"));
    EXPECT_TRUE(Has(text, "gst_source_recovery_seconds_bucket{source=\"event-stream\",le=\"4\"} 1"));
    EXPECT_TRUE(Has(text, "gst_source_recovery_seconds_bucket{source=\"event-stream\",le=\"+Inf\"} 2"));
    EXPECT_TRUE(Has(text, "gst_source_recovery_seconds_count{source=\"event-stream\"} 2"));
    EXPECT_TRUE(Has(text, "gst_source_last_error_info{source=\"parking-p2\",code=\"404\",text=\"Not found (404)\"} 1"));
    EXPECT_TRUE(Has(text, "process_open_fds 402"));
    EXPECT_TRUE(Has(text, "process_start_time_seconds 1714550000.25"));
    EXPECT_TRUE(Has(text, "gst_source_config_reloads_total 2"));
    EXPECT_TRUE(Has(text, "gst_source_sample_age_seconds 0.5"));
}

TEST(HttpMetrics, WhatIsNotKnownIsAbsent) {
    const std::string text = tool::MetricsText(FakeFleet(), 0);
    EXPECT_EQ(text.find("gst_source_last_frame_age_seconds{source=\"satellite-9\""), std::string::npos);
    EXPECT_EQ(text.find("gst_source_track_present{source=\"satellite-9\""), std::string::npos);
    EXPECT_EQ(text.find("gst_source_last_error_info{source=\"gate-north\""), std::string::npos);
    EXPECT_EQ(tool::MetricsText(tool::RunSample(), 0).find("gst_source_config"), std::string::npos);
}

TEST(HttpMetrics, OddTextsAreEscapedAndCut) {
    const std::string text = tool::MetricsText(OddFleet(), 0);
    EXPECT_NE(text.find("source=\"a \\\"b\\\" \\\\ c\\nd\""), std::string::npos);
    EXPECT_NE(text.find("text=\"he said \\\"no\\\\never\\\"\\nand \xef\xbf\xbd( left"), std::string::npos);
    EXPECT_EQ(text.find(std::string(121, 'x')), std::string::npos);
    EXPECT_EQ(text.find('\xff'), std::string::npos);
    // Two of the same name are kept apart.
    EXPECT_NE(text.find("{source=\"parking-p1\"}"), std::string::npos);
    EXPECT_NE(text.find("{source=\"parking-p1 (2)\"}"), std::string::npos);
    EXPECT_TRUE(Has(text, "gst_source_state{source=\"parking-p2\",state=\"none\"} 1"));
}

TEST(HttpMetrics, ALabelIsCutBetweenLetters) {
    EXPECT_EQ(tool::LabelText("abc", 3), "abc");
    EXPECT_EQ(tool::LabelText("ab\xc3\xa4", 3), "ab");
    EXPECT_EQ(tool::LabelText("\xe2\x82\xac\xe2\x82\xac", 5), "\xe2\x82\xac");
    EXPECT_EQ(tool::LabelText(std::string("a\0b", 3), 10),
              "a\xef\xbf\xbd"
              "b");
}

TEST(HttpMetrics, SeriesOfASourceAreBounded) {
    tool::RunSample run = LargeFleet(1);
    tool::SourceSample &source = run.sources.front();
    for (int i = 0; i < 1000; ++i) {
        tool::ReaderSample reader;
        reader.pid = i;
        source.readers.push_back(reader);
        source.rebuild_reasons["reason " + std::to_string(i)] = 1;
    }
    const std::string text = tool::MetricsText(run, 0);
    const auto count = [&text](const std::string &family) {
        size_t found = 0;
        for (size_t at = text.find("\n" + family + "{"); at != std::string::npos; at = text.find("\n" + family + "{", at + 1)) {
            ++found;
        }
        return found;
    };
    EXPECT_EQ(count("gst_source_reader_lost_frames_total"), tool::kMostReaders);
    EXPECT_EQ(count("gst_source_rebuild_reasons_total"), tool::kMostReasons + 1);
    EXPECT_TRUE(Has(text, "gst_source_readers{source=\"camera-0\",kind=\"video\"} 1001")) << "the number counts all";
    EXPECT_EQ(Complaints(text), "");
}

}  // namespace
