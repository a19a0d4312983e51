// ffmpeg as the sender of the tests, in real time.
#pragma once

#include <cstdlib>
#include <string>

#include "child.h"
#include "words.h"

namespace hpp {

// Four seconds of 320x240 H.264 at 25/s with AAC, again and again.
inline std::string Material() {
    const char *folder = std::getenv("HPP_MATERIALS");
    return std::string(folder != nullptr ? folder : ".") + "/stream.ts";
}

class Sender : public Child {
  public:
    explicit Sender(const std::string &url) : Sender(url, "-stream_loop -1 -i " + Material() + " -map 0 -c copy") {}
    // With other input and encoders.
    Sender(const std::string &url, const std::string &options)
        : Child(Words("ffmpeg -nostdin -loglevel error -re " + options + " -f mpegts " + url + "?pkt_size=1316")) {}
};

}  // namespace hpp
