// The command lines of the commands that show pictures.
#pragma once

#include <CLI/CLI.hpp>

#include "options.h"

namespace reader {

void AddPlayOptions(CLI::App &command, Options &options);

void AddSnapshotOptions(CLI::App &command, Options &options);
// What depends on several of them. To be called when all have been parsed.
void CheckSnapshotOptions(Options &options);

}  // namespace reader
