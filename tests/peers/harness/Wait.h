// Waiting for conditions with a bound: the tests' only way to let time pass.
#pragma once

#include <algorithm>
#include <chrono>
#include <thread>

namespace peers {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;
using std::chrono::seconds;

// Bounds say what a machine takes that has nothing else to do. One that compiles or runs other tests beside takes longer, and a peer
// that is slow to come is no fault of what is tested.
constexpr int kPatience = 4;

// Returns true as soon as `condition` holds, false when it still does not after `bound`. Time in which the whole machine stood still, as
// shared ones do now and then for a minute or two, does not count: a look counts for no more than it takes with something else to do.
template <typename Condition>
bool HoldsWithin(Condition condition, Clock::duration bound) {
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

// The same with patience: for what has to happen.
template <typename Condition>
bool WaitFor(Condition condition, Clock::duration bound) {
    return HoldsWithin(condition, bound * kPatience);
}

// True when `condition` holds all the time of `span`: for what must not happen.
template <typename Condition>
bool HoldsFor(Condition condition, Clock::duration span) {
    return !HoldsWithin([&] { return !condition(); }, span);
}

}  // namespace peers
