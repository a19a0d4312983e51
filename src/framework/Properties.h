// Setting what a host has chosen freely.
#pragma once

#include <gst/gst.h>

#include <string>

namespace GSTREAMER {

// Sets a number, an enumeration or a set of flags, whatever C type the property has. A value outside the
// property's own limits is not set: a WARN line says so, and what the element has by default stays in force.
// The same for a property that the element does not have. `element` may be null.
void SetNumber(GstElement *element, const char *property, gint64 value);

// Sets a text, unless it is empty, which leaves what the element has by default.
void SetText(GstElement *element, const char *property, const std::string &text);

}  // namespace GSTREAMER
