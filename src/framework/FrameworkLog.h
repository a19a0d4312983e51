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

// What the calling thread's last lines say of a cause, empty when there
// are none or they are old. Each is given once.
std::string TakeThreadCause();
// The calling thread begins something new: its lines so far are about something else.
void ForgetThreadCause();

// Puts the calling thread's cause on a message that the thread is
// posting, and takes it off again, empty without one.
void AttachCause(GstMessage *message);
std::string CauseOf(GstMessage *message);

}  // namespace GSTREAMER
