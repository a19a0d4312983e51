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

// The last error while it is still why nothing comes; null otherwise.
const Reason *CurrentReason(const SourceSample &sample);

// What a person calls the source: its name, or the URL when it has no other.
std::string FormatName(const SourceSample &sample);
// A buffer that is called like the source: its channel is always 0 and says nothing.
bool HasOwnBuffer(const SourceSample &sample);

// How a source is, as it is counted and sorted: worst first.
enum class Standing { kFailing, kWaiting, kLive, kStopped };
Standing StandingOf(const SourceSample &sample);

// The state in one word or two, without a reason.
std::string FormatShortState(const SourceSample &sample);

// What the state column says: the library's state, unless that hides that nothing comes, and why.
std::string FormatState(const SourceSample &sample);

// One line about what a source has delivered in all.
std::string FormatSummary(const SourceSample &sample);

}  // namespace tool
