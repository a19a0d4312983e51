// Waiting for a condition instead of for time.
#pragma once

#include <algorithm>
#include <chrono>
#include <thread>

using namespace std::chrono_literals;

// True once the condition holds, false when it does not within the bound.
template <typename Condition>
bool WaitFor(const Condition &condition, std::chrono::milliseconds bound = 120s) {
    // Time in which the whole machine stood still does not count.
    constexpr std::chrono::steady_clock::duration longest_look = 1s;
    std::chrono::steady_clock::duration spent{0};
    for (auto begun = std::chrono::steady_clock::now(); !condition(); begun = std::chrono::steady_clock::now()) {
        if (spent >= bound) {
            return false;
        }
        std::this_thread::sleep_for(10ms);
        spent += std::min(std::chrono::steady_clock::now() - begun, longest_look);
    }
    return true;
}
