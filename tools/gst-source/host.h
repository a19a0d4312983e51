// The run: makes the shared buffer, opens the sources, reports, and leaves nothing behind.
#pragma once

#include "options.h"

namespace tool {

// Runs until the end that the options name or until a signal; the result is the exit code of the process.
int RunHost(Options options);

}  // namespace tool
