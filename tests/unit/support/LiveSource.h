// A live source element of the tests' own: what its streaming thread does to get a buffer is a script's.
#pragma once

#include <gst/gst.h>

#include <atomic>
#include <functional>

namespace unit {

// Factory name, for Faults::Substitute.
extern const char kLiveSource[];

// Makes the factory known. After gst_init; more than once does no harm.
void RegisterLiveSource();

// Runs on the streaming thread for each buffer, of the instances that start from now on. False ends the
// stream. It has to return soon after `stop` has become true.
using ReadScript = std::function<bool(const std::atomic<bool> &stop)>;
void SetReadScript(ReadScript script);

// How often a stop, or what helps one, has told the streaming thread to leave the script.
int StopsGiven();

// Whether the last stop found the streaming thread amid the script.
bool StoppedAmidRead();

}  // namespace unit
