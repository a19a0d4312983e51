// A demultiplexer of the tests' own, and a source with pads when it stands in for one: whatever a script does
// runs on its streaming thread, which lives between PAUSED and READY as that of any element.
#pragma once

#include "Faults.h"

#include <gst/gst.h>

#include <atomic>
#include <functional>
#include <string>

namespace unit {

// Factory name, for Faults::Substitute.
extern const char kFakeDemux[];

// Makes the factory known. After gst_init; more than once does no harm.
void RegisterFakeDemux();

// Runs on the streaming thread of each instance that goes to PAUSED from now on, which then ends. It
// has to return soon after `stop` has become true.
using DemuxScript = std::function<void(GstElement *self, const std::atomic<bool> &stop)>;
void SetDemuxScript(DemuxScript script);

// The same for the demultiplexers of all classes, which are replaced; the
// first stage of HLS brings its one pad by itself.
void ScriptDemuxers(Faults &faults, DemuxScript script);

// Exposes an active source pad with these caps.
void ExposePad(GstElement *demux, const std::string &name, const std::string &caps);

// The element of that name beside the demultiplexer; null when there is none. The caller drops the reference.
GstElement *Sibling(GstElement *demux, const char *name);

}  // namespace unit
