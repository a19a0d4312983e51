// Standard output and standard error of the tool.
#pragma once

#include <exception>
#include <string>
#include <string_view>

namespace reader {

// The other side of a pipe is gone.
struct PipeClosed : std::exception {};

// Writes everything to a descriptor that people know as `what`. Throws PipeClosed, or std::runtime_error with
// a message. Once the end of the run is asked for, a reader that takes nothing is left after two seconds.
void Write(int fd, const std::string &what, std::string_view data);
void WriteOut(std::string_view data);

// One line of the tool itself on standard error.
void Complain(const std::string &message);

}  // namespace reader
