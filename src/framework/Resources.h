// What the process may still take of the system, by its limits and counts. Nothing is taken to find out.
#pragma once

#include <cstddef>

namespace GSTREAMER {

// Whether the process may open that many more file descriptors. GLib ends the process when it finds none for
// a wake-up of its own, so this is asked first. Any thread; another one may take them the next moment.
bool DescriptorsLeft(size_t count);

// Whether the process may start that many more threads, by the limits of its user (RLIMIT_NPROC), its memory
// (RLIMIT_AS), its control groups and the kernel. GLib ends the process, or waits for ever in a stop, where
// it cannot start a thread of its own, so this is asked first. What cannot be read counts as no limit. Any
// thread; another one may start them the next moment.
bool ThreadsLeft(size_t count);

// The parts of that answer, for tests: how many more threads the user's limit allows (at least `needed`
// when that is known without a look at all processes), and the control groups, whose files are looked
// for below `root` ("" for those of the system).
size_t ThreadRoomOfUser(size_t needed);
size_t ThreadRoomOfControlGroups(const char *root);

}  // namespace GSTREAMER
