// Waiting for conditions: the tests' only way to let time pass.
#pragma once

#include <algorithm>
#include <chrono>
#include <thread>

namespace peers {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;
using std::chrono::seconds;

// Longer than anything takes here that has to come, also on a busy
// machine. A wait ends as soon as its condition holds.
constexpr Clock::duration kPatience = seconds(100);

// Returns true as soon as `condition` holds, false when it still does not after `bound`.
// Shared machines stand still for a minute or two now and then. That does not count: one look
// at the condition counts for a second at most.
template <typename Condition>
bool WaitFor(Condition condition, Clock::duration bound = kPatience) {
    constexpr Clock::duration kLongestLook = seconds(1);
    for (Clock::duration spent{0};;) {
        const auto begun = Clock::now();
        if (condition()) {
            return true;
        }
        if (spent >= bound) {
            return false;
        }
        std::this_thread::sleep_for(milliseconds(10));
        spent += std::min(Clock::now() - begun, kLongestLook);
    }
}

// True when `condition` holds all the time of `span`: for what must not happen.
template <typename Condition>
bool HoldsFor(Condition condition, Clock::duration span) {
    return !WaitFor([&] { return !condition(); }, span);
}

}  // namespace peers
