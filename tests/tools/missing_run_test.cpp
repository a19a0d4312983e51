// The tool where a plug-in of GStreamer is not installed: a person has to read which one.
#include <gtest/gtest.h>

#include <csignal>
#include <filesystem>

#include "run_support.h"

namespace {

struct Part {
    const char *factory;
    const char *plugin;  // the file that provides it
    const char *line;    // what the library's log says
};

class MissingPart : public testing::TestWithParam<Part> {};

TEST_P(MissingPart, IsNamedAtTheEnd) {
    const char *tool = std::getenv("GST_SOURCE_TOOL");
    const char *installed = std::getenv("GST_PLUGINS_DIR");
    ASSERT_TRUE(tool != nullptr && installed != nullptr);
    const TempDir dir;
    std::filesystem::create_directory(dir.File("plugins"));
    for (const char *plugin : {"libgstcoreelements.so", "libgstudp.so", "libgstmpegtsdemux.so", "libgstvideoparsersbad.so",
                               "libgstaudioparsers.so"}) {
        ASSERT_TRUE(std::filesystem::exists(std::filesystem::path(installed) / plugin)) << plugin;
        if (std::string(GetParam().plugin) != plugin) {
            std::filesystem::create_symlink(std::filesystem::path(installed) / plugin,
                                            dir.File("plugins/" + std::string(plugin)));
        }
    }
    const auto port = FreeUdpPort();
    Sender sender(UdpUrl(port));
    Child child({tool, UdpUrl(port), "--name", BufferName("missing"), "--log", dir.File("log")},
                {{"GST_PLUGIN_SYSTEM_PATH", dir.File("plugins")}, {"GST_REGISTRY", dir.File("registry")}});
    EXPECT_TRUE(WaitWhileRunning(child, [&] { return Has(ReadAll(dir.File("log")), GetParam().line); }));
    child.Signal(SIGTERM);
    EXPECT_TRUE(child.Wait());
    const std::string complaint =
        "gst-source: the GStreamer element \"" + std::string(GetParam().factory) + "\" is missing; is its plug-in installed?\n";
    EXPECT_TRUE(Has(child.Err(), complaint)) << child.Err();
}

INSTANTIATE_TEST_SUITE_P(Parts, MissingPart,
                         testing::Values(Part{"tsdemux", "libgstmpegtsdemux.so", "of factory \"tsdemux\""},
                                         Part{"h264parse", "libgstvideoparsersbad.so", "Make h26x element faild by name!!!"},
                                         Part{"aacparse", "libgstaudioparsers.so",
                                              "Make audio parse faild by name!!! aacparse"}),
                         [](const testing::TestParamInfo<Part> &row) { return std::string(row.param.factory); });

}  // namespace
