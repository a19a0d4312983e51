// What is known of a source the way a person reads it.
#pragma once

#include <string>

#include "sample.h"
#include "text.h"

namespace tool {

std::string FormatPicture(const VideoSample &video);
std::string FormatSound(const AudioSample &audio);

// What the state column says: the library's state, unless that hides that nothing comes.
std::string FormatState(const SourceSample &sample);

// One line about what a source has delivered in all.
std::string FormatSummary(const SourceSample &sample);

}  // namespace tool
