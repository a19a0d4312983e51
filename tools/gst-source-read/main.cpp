#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <exception>
#include <stdexcept>

#include "buffers.h"
#include "commands.h"
#include "fd.h"
#include "options.h"
#include "output.h"
#include "screen.h"

namespace {

int Run(const reader::Options &options) {
    switch (options.command) {
        case reader::Command::kList:
            return reader::RunList(options);
        case reader::Command::kTracks:
            return reader::RunTracks(options);
        case reader::Command::kRead:
            return options.format.empty() ? reader::RunRead(options) : reader::RunReadMuxed(options);
        case reader::Command::kRecord:
            return reader::RunRecord(options);
        case reader::Command::kPlay:
            return reader::RunPlay(options);
        case reader::Command::kSnapshot:
            return reader::RunSnapshot(options);
        case reader::Command::kRemove:
            return reader::RunRemove(options);
    }
    return tool::kExitUsage;
}

}  // namespace

int main(int argc, char **argv) {
    const reader::ParseResult parsed = reader::ParseOptions(argc, argv);
    std::fputs(parsed.out.c_str(), stdout);
    std::fputs(parsed.err.c_str(), stderr);
    if (!parsed.options) {
        return parsed.exit_code;
    }
    tool::OpenStandardDescriptors();
    tool::KeepFrameworkPlain(STDERR_FILENO);
    // A limit of the file size is a full disk to us, not the end of the process.
    std::signal(SIGXFSZ, SIG_IGN);
    try {
        // Another user's file may be cut short at any time.
        if (const int result = shb_guard(1); result != SHB_OK) {
            throw std::runtime_error(reader::Reason(result));
        }
        return Run(*parsed.options);
    } catch (const reader::PipeClosed &) {
        // Nobody reads any more: the end that a shell expects of a program in a pipe.
        std::signal(SIGPIPE, SIG_DFL);
        std::raise(SIGPIPE);
    } catch (const std::exception &error) {
        reader::Complain(error.what());
    }
    return tool::kExitNothing;
}
