// Waiting for conditions with a bound: the tests' only way to let time pass.
#pragma once

#include <chrono>
#include <thread>

namespace peers {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;
using std::chrono::seconds;

// Bounds say what a machine takes that has nothing else to do. One that compiles or runs other tests beside takes longer, and a peer
// that is slow to come is no fault of what is tested.
constexpr int kPatience = 4;

// Returns true as soon as `condition` holds, false when it still does not after `bound`, to the letter.
template <typename Condition>
bool HoldsWithin(Condition condition, Clock::duration bound) {
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
