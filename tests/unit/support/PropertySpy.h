// Records what is set on elements of the framework's own, in order. Some of their properties can be written
// only, and of others the value does not tell whether it was set.
#pragma once

#include <gst/gst.h>

#include <string>
#include <vector>

namespace unit {

// Prepares the classes of a factory. For the rest of the process.
void SpyOn(const char *factory);
// Starts the record of an element; to be called once it is made.
void StartRecord(GstElement *element);
// "property=value" of each set since then. Enumerations and flags as numbers.
std::vector<std::string> RecordOf(GstElement *element);
void ForgetRecords();
// "property=value" of what the element holds now, for the property of each of these texts.
std::vector<std::string> HeldOf(GstElement *element, const std::vector<std::string> &sets);

}  // namespace unit
