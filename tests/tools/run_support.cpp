#include "run_support.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <sstream>

std::string UdpUrl(unsigned short port) {
    return "udp://127.0.0.1:" + std::to_string(port);
}

std::vector<std::string> Lines(const std::string &text) {
    std::vector<std::string> lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);) {
        lines.push_back(line);
    }
    return lines;
}

bool Has(const std::string &text, const std::string &part) {
    return text.find(part) != std::string::npos;
}

void ExpectFields(const Json &record, const Json &expected) {
    for (const auto &[key, value] : expected.items()) {
        EXPECT_EQ(record[key], value) << key;
    }
}

namespace {

std::vector<std::string> SendCommand(const std::string &url, bool video) {
    const std::string picture = video ? " -f lavfi -i testsrc2=size=320x180:rate=25" : "";
    const std::string encoder = video ? " -c:v libx264 -preset ultrafast -tune zerolatency -g 25 -pix_fmt yuv420p" : "";
    return Words("ffmpeg -nostdin -hide_banner -loglevel error -progress pipe:1 -stats_period 0.1 -re" + picture +
                 " -f lavfi -i sine=sample_rate=48000" + encoder + " -c:a aac -ac 2 -f mpegts " + url + "?pkt_size=1316");
}

}  // namespace

Sender::Sender(const std::string &url, bool video) : Child(SendCommand(url, video)) {
    EXPECT_TRUE(WaitWhileRunning(*this, [this] { return Has(Out(), "progress=continue"); })) << Err();
}

std::vector<std::string> MemoryOf(const std::string &name) {
    std::vector<std::string> paths;
    for (const auto &entry : std::filesystem::directory_iterator("/dev/shm")) {
        const std::string file = entry.path().filename();
        if (file == name || file.rfind(name + "+", 0) == 0) {
            paths.push_back(entry.path());
            const size_t token = file.find('+');
            const std::filesystem::path socket = "/dev/shm/" + file.substr(std::min(token, file.size()));
            if (token != std::string::npos && std::filesystem::exists(socket)) {
                paths.push_back(socket);
            }
        }
    }
    return paths;
}

bool MemoryLeft(const std::string &name) {
    return !MemoryOf(name).empty();
}

std::string BufferName(const std::string &test) {
    return "tool-" + test + "-" + std::to_string(getpid());
}
