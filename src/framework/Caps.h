// Looking into pads and caps.
#pragma once

#include "framework/Ownership.h"

#include <string>

namespace GSTREAMER {

std::string PadName(GstPad *pad);

// Text field of a structure; null when it is absent, holds no text, or holds a null text.
const char *TextField(const GstStructure *structure, const char *field);

// First structure, null when the caps are empty or ANY.
const GstStructure *FirstStructure(const GstCaps *caps);

// printf of the caps as text, "strcaps string :%s \n".
void PrintCaps(const GstCaps *caps);

}  // namespace GSTREAMER
