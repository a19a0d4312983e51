#include "run_support.h"

#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <sstream>

std::string UdpUrl(unsigned short port) {
    return "udp://127.0.0.1:" + std::to_string(port);
}

std::vector<std::string> SendCommand(const std::string &url, bool video) {
    std::vector<std::string> command{"ffmpeg", "-nostdin", "-hide_banner", "-loglevel", "error", "-re"};
    const auto add = [&command](const std::vector<std::string> &more) {
        command.insert(command.end(), more.begin(), more.end());
    };
    if (video) {
        add({"-f", "lavfi", "-i", "testsrc2=size=320x180:rate=25"});
    }
    add({"-f", "lavfi", "-i", "sine=sample_rate=48000"});
    if (video) {
        add({"-c:v", "libx264", "-preset", "ultrafast", "-tune", "zerolatency", "-g", "25", "-pix_fmt", "yuv420p"});
    }
    add({"-c:a", "aac", "-ac", "2", "-f", "mpegts", url + "?pkt_size=1316"});
    return command;
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

bool MemoryLeft(const std::string &name) {
    const std::filesystem::directory_iterator files("/dev/shm");
    return std::any_of(begin(files), end(files), [&name](const auto &entry) {
        const std::string file = entry.path().filename();
        return file == name || file.rfind(name + "+", 0) == 0;
    });
}

std::string BufferName(const std::string &test) {
    return "tool-" + test + "-" + std::to_string(getpid());
}
