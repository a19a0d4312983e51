#include "missing.h"

#include <gtest/gtest.h>

namespace {

using tool::MissingElement;

const char kErr[] = "[2026-01-31 12.00.00] (ERR) (123) ";
const char kInfo[] = "[2026-01-31 12.00.00] (INFO) (123) ";

TEST(MissingElement, IsTakenFromTheLog) {
    const struct {
        const char *message;
        const char *factory;
    } lines[] = {
        {"[GSTREAMER] Unable to make element \"Tsdemux\" of factory \"tsdemux\"!!! Is its plug-in installed?", "tsdemux"},
        {"[CUDPSource] Make audio parse faild by name!!! aacparse, url=udp://127.0.0.1:5000", "aacparse"},
        {"[CRtspSource] Make rtpaudiodeplay element faild by name!!! rtpmp4gdepay, url=rtsp://h/s", "rtpmp4gdepay"},
        {"[CRtspSource] Make audio depay element faild by name!!! aparse=opusparse, url=rtsp://h/s", "opusparse"},
    };
    for (const auto &line : lines) {
        EXPECT_EQ(MissingElement(kErr + std::string(line.message)), line.factory) << line.message;
        EXPECT_FALSE(MissingElement(kInfo + std::string(line.message))) << line.message;
        EXPECT_FALSE(MissingElement(line.message)) << line.message;
    }
}

TEST(MissingElement, IsNothingElse) {
    for (const char *message : {
             "[CUDPSource] Make h26x element faild by name!!! url=udp://127.0.0.1:5000",
             "[CUDPSource] Make audio parse faild by name!!! none, url=udp://127.0.0.1:5000",
             "[CUDPSource] Make audio parse faild by name!!! , url=udp://127.0.0.1:5000",
             "[CUDPSource] Not all elements could be created!!! url=udp://127.0.0.1:5000",
             "[GSTREAMER] Unable to make element \"Tsdemux",
             "",
         }) {
        EXPECT_FALSE(MissingElement(kErr + std::string(message))) << message;
    }
}

}  // namespace
