// Making, adding, starting and linking elements: the steps that
// every protocol class builds its pipeline from.
#pragma once

#include "framework/Ownership.h"

#include <vector>

namespace GSTREAMER {

// Elements in the order of the data. AddMany and LinkMany stop at the first null.
using Chain = std::vector<GstElement *>;

// Makes an element. Empty when the factory is missing or fails, which is said in an ERR line that names it:
// the messages of the callers do not say which element was missing.
ElementRef MakeElement(const char *factory, const char *name);

// The same without the line, for callers whose own message names the factory.
ElementRef TryMakeElement(const char *factory, const char *name);

// A caps filter for the given caps, empty when it cannot be made, caps included:
// one without caps would let everything through.
ElementRef MakeCapsFilter(const char *name, const char *caps);

// A video parser that puts the parameter sets in front of every IDR picture, empty when it cannot be made.
ElementRef MakeVideoParser(const char *factory, const char *name);

// Adds the elements to the bin, which takes a reference of its own. An element that the bin refuses is
// named in an ERR line and makes the result false.
bool AddMany(GstElement *bin, const Chain &chain);

// Links each element to the next. False at the first pair that
// does not link, and when there is no pair at all.
bool LinkMany(const Chain &chain);

// Whether none is missing.
bool IsComplete(const Chain &chain);

// Brings an element to its parent's state. False for a null element and for one that refuses, which is named
// in an ERR line: data that reaches it stops there, and that need not be an error on the bus.
bool SyncState(GstElement *element);

// Adds the elements and brings each to the state of the bin.
void AddAndSync(GstElement *bin, const Chain &chain);

// Takes the elements out of their bin and brings them to the NULL state, each before the next. Nothing for
// one that is not in it. What is out has its state locked: no bin would start it again.
void TakeOut(GstElement *bin, const Chain &chain);

// Posts an error on the bus, as an element does whose stream cannot be read.
void PostReadError(GstElement *element, const char *text);

enum class PadLink { Done, Failed, TakenAlready };

// Links `source` to the static pad "sink" of `element` when that pad is free.
PadLink LinkToSinkPad(GstPad *source, GstElement *element);

}  // namespace GSTREAMER
