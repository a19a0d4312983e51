// What this process takes of the machine.
#pragma once

#include "view.h"

namespace tool {

// Reads /proc/self: some tens of microseconds, and more with thousands of descriptors.
ProcessSample SampleProcess();

}  // namespace tool
