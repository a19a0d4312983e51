// Waiting for conditions with a bound: the tests' only way to let time pass.
#pragma once

#include <chrono>
#include <thread>

namespace peers {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;
using std::chrono::seconds;

// Returns true as soon as `condition` holds, false when it still does not after `bound`.
template <typename Condition>
bool WaitFor(Condition condition, Clock::duration bound) {
    const auto end = Clock::now() + bound;
    for (;;) {
        if (condition()) {
            return true;
        }
        if (Clock::now() >= end) {
            return false;
        }
        std::this_thread::sleep_for(milliseconds(10));
    }
}

// True when `condition` holds all the time of `span`: for what must not happen.
template <typename Condition>
bool HoldsFor(Condition condition, Clock::duration span) {
    return !WaitFor([&] { return !condition(); }, span);
}

}  // namespace peers
