// examples/record.sh beside a buffer that is written in real time.
#include <gtest/gtest.h>

#include <csignal>
#include <filesystem>

#include "../peers/harness/Scene.h"
#include "../record/Feeder.h"

namespace peers {
namespace {

class RecordSh : public testing::Test, public Scene {
  protected:
    std::unique_ptr<Process> StartScript(const std::vector<std::string> &arguments) {
        std::vector<std::string> command = {"env",
                                            std::string("PATH=") + std::getenv("READ_TOOL_FOLDER") + ":" + std::getenv("PATH"),
                                            std::getenv("EXAMPLE_RECORD_SH")};
        command.insert(command.end(), arguments.begin(), arguments.end());
        return Start("record.sh", command);
    }
};

TEST_F(RecordSh, RecordsUntilItIsInterrupted) {
    for (const char *name : {"h264_aac", "h265_opus", "h264_mp3", "h264_only"}) {
        const Material &material = GetMaterial(name);
        const Feeder feeder(material);
        const std::string path = dir.File(std::string(name) + ".mkv");
        ASSERT_TRUE(feeder.WaitFrames(SHB_VIDEO, 30));
        const auto script = StartScript({feeder.Name(), path});
        // Its first clusters are in the file.
        const auto written = [&] { return std::filesystem::exists(path) && std::filesystem::file_size(path) > 100000; };
        ASSERT_TRUE(WaitFor([&] { return written() || !script->Running(); }));
        script->Signal(SIGINT);
        ASSERT_EQ(script->Wait(), 0) << script->Output();
        Excerpt video, audio;
        EXPECT_TRUE(IsRecordingOf(material, ReadRecorded(path), video, audio)) << name;
        EXPECT_GE(video.first, 25U) << name;
        EXPECT_TRUE(Decodes(path));
    }
}

TEST_F(RecordSh, TheEndOfTheHostCompletesTheFile) {
    const Material &material = GetMaterial("h264_ac3");
    const std::string path = dir.File("end.mkv");
    std::unique_ptr<Process> script;
    size_t written = 0;
    {
        const Feeder feeder(material);
        ASSERT_TRUE(feeder.WaitFrames(SHB_VIDEO, 35));
        script = StartScript({feeder.Name(), path});
        ASSERT_TRUE(WaitFor([&] { return std::filesystem::exists(path) && std::filesystem::file_size(path) > 100000; }));
        written = feeder.Count(SHB_VIDEO);
    }
    ASSERT_EQ(script->Wait(), 0) << script->Output();
    Excerpt video, audio;
    EXPECT_TRUE(IsRecordingOf(material, ReadRecorded(path), video, audio));
    EXPECT_GE(video.first, 30U);
    EXPECT_GE(video.End(), written);
    EXPECT_TRUE(Decodes(path));
}

TEST_F(RecordSh, FailuresAreReported) {
    struct Row {
        std::vector<std::string> arguments;
        int status;
        const char *message;
    };
    const Row rows[] = {{{}, 2, "usage: "}, {{"none-of-this-name", dir.File("a.mkv")}, 1, "no shared buffer of this name"}};
    for (const Row &row : rows) {
        const auto script = StartScript(row.arguments);
        EXPECT_EQ(script->Wait(), row.status);
        EXPECT_NE(script->Output().find(row.message), std::string::npos) << script->Output();
        EXPECT_EQ(script->Told("").size(), 1U) << script->Output();
    }
}

}  // namespace
}  // namespace peers
