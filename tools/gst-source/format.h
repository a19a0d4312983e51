// What is known of a source the way a person reads it.
#pragma once

#include <string>

#include "sample.h"
#include "text.h"

namespace tool {

std::string FormatPicture(const VideoSample &video);
std::string FormatSound(const AudioSample &audio);

// An error as briefly as it can be told: "404 Not Found".
std::string FormatReason(const Reason &reason);

// What the state column says: the library's state, unless that hides that nothing comes, and why.
std::string FormatState(const SourceSample &sample);

// One line about what a source has delivered in all.
std::string FormatSummary(const SourceSample &sample);

}  // namespace tool
