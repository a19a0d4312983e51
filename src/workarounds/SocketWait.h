// The wait of a thread for a socket, ended from outside: for libraries that offer no other way out.
#pragma once

#include <sys/types.h>

namespace GSTREAMER {

// Shuts down, in both directions, the network sockets that a thread of this process waits for
// (connecting, receiving, sending or polling), so that its call returns. True when the thread was
// waiting so. Standard input, output and error are never touched. The caller makes sure that the thread
// is one of its own meanwhile. Any thread; needs /proc.
bool EndSocketWait(pid_t thread);

}  // namespace GSTREAMER
