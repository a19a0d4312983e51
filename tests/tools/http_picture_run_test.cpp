// Pictures of a real stream by way of HTTP, made by gst-source-read.
#include <gst/gst.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>

#include "http/http_side.h"
#include "http_client.h"
#include "http_fake.h"
#include "live_track.h"
#include "wait_for.h"

namespace {

TEST(HttpPicture, IsThatOfTheBuffer) {
    gst_init(nullptr, nullptr);
    const char *tool = std::getenv("GST_SOURCE_READ_TOOL");
    const char *materials = std::getenv("SHBSINK_MATERIALS");
    ASSERT_TRUE(tool != nullptr && materials != nullptr);
    const LiveBuffer buffer("http-picture-" + std::to_string(getpid()));
    LiveVideo video(buffer, false);
    video.Push(AccessUnits(std::string(materials) + "/progressive.h264"), 0, 1);

    tool::RunSample run = LargeFleet(2);
    run.sources[0].buffer = buffer.Name();
    run.sources[1].buffer = buffer.Name() + "-is-not-there";
    FakeService service(std::move(run));
    tool::HttpSide side(tool::HttpOptions{"127.0.0.1:0", "", tool}, service);
    std::string answer;
    const auto settled = [&](const std::string &source) {
        answer = Fetch(side.Port(), "/api/sources/" + source + "/picture");
        return answer.find("the first picture is being made") == std::string::npos;
    };
    ASSERT_TRUE(WaitFor([&] { return settled("camera-0"); }));
    ASSERT_EQ(StatusOf(answer), 200) << answer;
    const std::string jpeg = BodyOf(answer);
    EXPECT_EQ(jpeg.substr(0, 3), "\xFF\xD8\xFF");
    EXPECT_EQ(jpeg.substr(jpeg.size() - 2), "\xFF\xD9");

    ASSERT_TRUE(WaitFor([&] { return settled("camera-1"); }));
    EXPECT_EQ(StatusOf(answer), 404);
    EXPECT_NE(answer.find("-is-not-there"), std::string::npos) << "the tool's own words: " << answer;
}

}  // namespace
