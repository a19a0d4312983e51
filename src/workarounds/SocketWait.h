// The wait of a thread for a socket, ended from outside: for libraries that offer no other way out.
#pragma once

#include <sys/types.h>

namespace GSTREAMER {

// Ends the wait of a thread of this process for a network socket (connecting, receiving, sending or polling): the socket is shut down in
// both directions, and the call returns. For libraries that offer no other way out. True when the thread was waiting so. Any
// thread; needs /proc.
bool EndSocketWait(pid_t thread);

}  // namespace GSTREAMER
