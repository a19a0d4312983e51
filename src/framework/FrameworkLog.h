// What the framework's own log says at ERROR level, kept on the thread that said it: the cause of many an
// error stands there alone, and the message on the bus is posted by the same thread right afterwards.
#pragma once

#include <gst/gst.h>

#include <string>

namespace GSTREAMER {

// Listens from here on. Nothing is printed or changed; a line costs a copy on the thread that logs it, and
// other levels nothing but a call when the host has switched them on. After gst_init, once.
void WatchFrameworkLog();
// Before gst_deinit.
void UnwatchFrameworkLog();

// Takes the calling thread's cause: of its ERROR lines of the last 10 s the first one
// with a code, else the first. Empty without one.
std::string TakeThreadCause();
// The calling thread begins something new: its lines so far are about something else.
void ForgetThreadCause();

// AttachCause moves the calling thread's cause to a message that the
// thread posts. CauseOf reads it; empty without one.
void AttachCause(GstMessage *message);
std::string CauseOf(GstMessage *message);

}  // namespace GSTREAMER
