// What the fuzz targets of the library share: the framework made ready once, and
// arbitrary values for what the framework hands over.
#pragma once

#include <fuzzer/FuzzedDataProvider.h>
#include <gst/gst.h>

#include <initializer_list>
#include <string>

namespace fuzz {

using Input = FuzzedDataProvider;

// GStreamer without its log lines, the recording sink in place of the real one, and the end of the process
// for each critical of GLib or GStreamer. Warnings (a property value out of range) are the host's own
// fault and pass. Once; later calls do nothing.
void Prepare();

// Ends the process, which is a finding, when the condition does not hold.
void Require(bool condition, const char *what);
// Nothing that the library made in this run is left.
void RequireNothingLeft();

// One of the given texts, or any bytes; without a NUL in between.
std::string Text(Input &in, std::initializer_list<const char *> likely);
// The same in UTF-8, as the framework demands of its own texts.
std::string ValidText(Input &in, std::initializer_list<const char *> likely);

// A structure with one of the given names or any other, and fields of any type. The caller owns it.
GstStructure *Structure(Input &in, std::initializer_list<const char *> names);
// ANY, empty, or up to three structures. The caller owns them.
GstCaps *Caps(Input &in);

}  // namespace fuzz
