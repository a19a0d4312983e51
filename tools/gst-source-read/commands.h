// The commands. Each gives the exit code of the process, or throws
// std::runtime_error with a message for people.
#pragma once

#include "options.h"

namespace reader {

int RunList(const Options &options);
int RunTracks(const Options &options);
int RunRead(const Options &options);
// Video and audio in a container, to standard output.
int RunReadMuxed(const Options &options);
int RunRecord(const Options &options);
int RunPlay(const Options &options);
int RunSnapshot(const Options &options);
int RunRemove(const Options &options);

}  // namespace reader
