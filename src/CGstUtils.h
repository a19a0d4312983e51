// Framework runtime: once-only initialisation, ownership types, and the small steps that every protocol class takes.
#pragma once

#include <gst/gst.h>

#include <sys/types.h>

#include <chrono>
#include <condition_variable>
#include <functional>
#include <initializer_list>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>

namespace GSTREAMER {

// Initialises GStreamer once, whoever asks first; later calls do nothing until GstDeInit. Any thread.
__attribute__((visibility("default"))) void GstInit();

// Tears GStreamer down when GstInit has initialised it. No source may exist: teardown with an open source dead-locks in GLib's
// thread pool. After it, element factories of this GStreamer version stay unavailable for the rest of the process, so that
// sources can still be created but no longer be opened. Any thread.
__attribute__((visibility("default"))) void GstDeInit();

// Whether the process may open that many more file descriptors, at most 64. GLib ends the process when it finds none for a wake-up of its own,
// so this is asked first. Any thread; another one may take them the next moment.
bool DescriptorsLeft(size_t count);
// Whether the process may start that many more threads, at most 64. GLib ends it, or waits for ever in a stop, where a thread of its own cannot be started,
// so this is asked first. Starts them for a moment (about 0.05 ms each). Any thread; another one may take them the next moment.
bool ThreadsLeft(size_t count);

// ---- Ownership --------------------------------------------------------------------------------------------------------------

struct ObjectUnref {
    void operator()(gpointer object) const { gst_object_unref(object); }
};
struct CapsUnref {
    void operator()(GstCaps *caps) const { gst_caps_unref(caps); }
};
struct MessageUnref {
    void operator()(GstMessage *message) const { gst_message_unref(message); }
};
struct TextFree {
    void operator()(gchar *text) const { g_free(text); }
};

using PadPtr = std::unique_ptr<GstPad, ObjectUnref>;
using CapsPtr = std::unique_ptr<GstCaps, CapsUnref>;
using MessagePtr = std::unique_ptr<GstMessage, MessageUnref>;
using TextPtr = std::unique_ptr<gchar, TextFree>;

// ---- Elements ---------------------------------------------------------------------------------------------------------------

// Makes an element and takes its only reference (never a floating one). Null when the factory is missing or fails, which is
// said in an ERR line that names it: the messages of the callers do not say which element was missing.
GstElement *MakeElement(const char *factory, const char *name);

// The same without the line, for callers whose own message names the factory.
GstElement *TryMakeElement(const char *factory, const char *name);

// Who owns an element follows from where it is: one that sits in a bin belongs to the bin and is borrowed, any other is the
// holder's. Nulls the field and releases the element only if it was the holder's.
void ReleaseElement(GstElement *&field);

// A caps filter for the given caps, null when it cannot be made, caps included: one without caps would let everything through.
GstElement *MakeCapsFilter(const char *name, const char *caps);

// A video parser that puts the parameter sets in front of every IDR picture, null when it cannot be made.
GstElement *MakeVideoParser(const char *factory, const char *name);

// ---- Building ---------------------------------------------------------------------------------------------------------------

// In both lists a null ends the list: a branch with a missing member is built up to there, and what is missing has been named
// when it could not be made.

// Adds the elements to the bin, which takes a reference of its own; the caller's reference is handed over. An element that the
// bin refuses stays the caller's, is named in an ERR line and makes the result false.
bool AddMany(GstElement *bin, std::initializer_list<GstElement *> elements);

// Links each element to the next. False at the first pair that does not link, and when there is no pair at all.
bool LinkMany(std::initializer_list<GstElement *> elements);

// Brings an element to its parent's state. False for a null element and for one that refuses, which is named in an ERR line:
// data that reaches it stops there, and that need not be an error on the bus.
bool SyncState(GstElement *element);

// Takes an element out of its bin. The caller owns it again; it is brought to the NULL state before anything can drop it.
void TakeOut(GstElement *bin, GstElement *element);

// Waits until the streaming thread of a source element stands still at its source pad, outside of the element, and keeps it
// there until the element is stopped. True when it does; false when nothing came within `bound_ms`, or when it does not stream.
bool HoldAtSourcePad(GstElement *source, int bound_ms);

// Ends the wait of a thread of this process for a network socket (connecting, receiving, sending or polling): the socket is shut down in
// both directions, and the call returns. For libraries that offer no other way out. True when the thread was waiting so. Any
// thread; needs /proc.
bool EndSocketWait(pid_t thread);

// Wakes the jitter buffers in that pipeline which sleep through their stop: once a stream has ended, two threads of theirs wait for one
// condition, and the stop wakes one, which may be the wrong one (rtpjitterbuffer of GStreamer 1.22). Only while they are being stopped,
// on a thread that may wait for them.
void WakeJitterBuffers(GstElement *pipeline);

// Tells a source element of the framework's base class once more to leave what it waits for, as its stop does. Any thread, while
// `source` is being stopped; other elements are left alone.
void UnlockSource(GstElement *source);

// For the time of a stop that may not end by itself: once `patience` is over, `help` is called again and again until this goes, on a
// thread of its own.
class StopPatience {
  public:
    StopPatience(std::chrono::milliseconds patience, std::function<void()> help);
    ~StopPatience();
    StopPatience(const StopPatience &) = delete;
    StopPatience &operator=(const StopPatience &) = delete;

  private:
    std::mutex m_mtx;
    std::condition_variable m_cond;
    bool m_bOver = false;  // guarded by m_mtx
    std::thread m_thread;
};

enum class PadLink { Done, Failed, TakenAlready };

// Links `source` to the static pad "sink" of `element` when that pad is free.
PadLink LinkToSinkPad(GstPad *source, GstElement *element);

// ---- Caps -------------------------------------------------------------------------------------------------------------------

std::string PadName(GstPad *pad);

// Text field of a structure; null when it is absent, holds no text, or holds a null text.
const char *TextField(const GstStructure *structure, const char *field);

// First structure, null when the caps are empty or ANY.
const GstStructure *FirstStructure(const GstCaps *caps);

// printf of the caps as text, "strcaps string :%s \n".
void PrintCaps(const GstCaps *caps);

}  // namespace GSTREAMER
