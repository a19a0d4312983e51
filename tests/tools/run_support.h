// What the tests of the built tools have in common: a sender, texts, the shared memory that a run leaves.
#pragma once

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "child.h"

using Json = nlohmann::json;

std::string UdpUrl(unsigned short port);

// H.264 and AAC in real time, for as long as it lives.
std::vector<std::string> SendCommand(const std::string &url, bool video = true);

std::vector<std::string> Lines(const std::string &text);
bool Has(const std::string &text, const std::string &part);

// Gives up at once when the child has ended, since nothing more will come of it.
template <typename Condition>
bool WaitWhileRunning(Child &child, const Condition &condition) {
    bool met = false;
    WaitFor([&] {
        const bool running = child.Running();
        met = condition();
        return met || !running;
    });
    return met;
}

// The buffer or its second file, whose name goes on behind a "+".
bool MemoryLeft(const std::string &name);

// One that no other run has.
std::string BufferName(const std::string &test);
