// Sees how each wait of the library ends, in the process that asks: by a wake, or by its time limit.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <cstdint>

namespace futex_watch {

extern std::atomic<uint64_t> woken;      // waits that a wake has ended
extern std::atomic<uint64_t> forgotten;  // waits that the time limit has ended although the word had changed: the wake was lost
extern std::atomic<bool> poll_ran_out;   // the time limit has ended the last wait at a socket
extern std::atomic<uint64_t> looks;      // waits of somebody whom nobody wakes
extern std::atomic<bool> wakes_are_slow;  // gives others room between the change of the word and the wake

// Holds one thread up right before it lies down.
struct Gate {
    std::atomic<bool> waiting{false};  // it stands there, or has passed
    std::atomic<bool> open{false};
    std::atomic<pid_t> thread{0};
    std::atomic<uint64_t> forgotten{0};  // of that thread alone
    // It has passed and sleeps in the kernel.
    bool Asleep() const;
};
extern thread_local Gate *gate_of_this_thread;

}  // namespace futex_watch
