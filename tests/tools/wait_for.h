// Waiting for a condition instead of for time.
#pragma once

#include <chrono>
#include <thread>

using namespace std::chrono_literals;

// True once the condition holds, false when it does not within the bound.
template <typename Condition>
bool WaitFor(const Condition &condition, std::chrono::milliseconds bound = 120s) {
    const auto deadline = std::chrono::steady_clock::now() + bound;
    while (!condition()) {
        if (std::chrono::steady_clock::now() >= deadline) {
            return condition();
        }
        std::this_thread::sleep_for(10ms);
    }
    return true;
}
