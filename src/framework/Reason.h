// Why a session ended or does not come about, in one line for people and programs: from what the
// framework says about it in its several places.
#pragma once

#include <gst/gst.h>

#include <optional>
#include <string>

namespace GSTREAMER {

struct Reason {
    bool ends = true;          // the session; a warning does not
    std::string element;       // by its name
    std::string text;          // one sentence without its full stop
    std::string code;          // "404", "BADSECRET", "refused", ...; empty where there is none
    bool unexplained = false;  // the element has said no more than that it failed

    // `Error from "Rtspsrc": Not Found (404)`
    std::string Line() const;
};

// Of an error, a warning, an end of stream, a time-out message, or an answer that
// refuses an HTTP request. Nothing for other messages.
std::optional<Reason> ReasonOf(GstMessage *message);

// Of a change to PLAYING that failed without a message. Names, of the elements that failed, the one that
// was added first. The text is the thread's cause.
Reason ReasonOfFailedStart(GstElement *pipeline);

// The code of a text that names its cause, as protocols and the
// operating system word it; empty when it names none.
const char *CodeOf(const char *text);

// The text with `***` for passwords in the URLs in it, before the host and in SRT's parameter.
std::string MaskSecrets(std::string text);

}  // namespace GSTREAMER
