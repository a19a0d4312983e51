#include "output.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>

#include "fd.h"
#include "interrupts.h"

namespace reader {

void Write(int fd, const std::string &what, std::string_view data) {
    if (tool::WriteAll(fd, data, tool::interrupts::PatienceAfterStop())) {
        return;
    }
    if (errno == EPIPE) {
        throw PipeClosed();
    }
    throw std::runtime_error(what + ": " +
                             (errno == ECANCELED ? "nobody takes the data; the end is not written" : std::strerror(errno)));
}

void WriteOut(std::string_view data) {
    Write(STDOUT_FILENO, "standard output", data);
}

void Complain(const std::string &message) {
    tool::WriteAll(STDERR_FILENO, "gst-source-read: " + message + "\n", tool::interrupts::PatienceAfterStop());
}

}  // namespace reader
