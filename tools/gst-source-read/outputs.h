// Where pictures and sound come out: a window and a sound device.
#pragma once

#include "elements.h"

namespace reader {

// True when the environment names one.
bool HasDisplay();

// Bins with one sink pad that takes what a decoder gives. Each is in the state READY: its device is open.

// Throws std::runtime_error with a message for people when no window can be opened.
PipelinePtr OpenWindow();
// Null when there is no sound device; throws when elements are missing.
PipelinePtr OpenSound();

}  // namespace reader
