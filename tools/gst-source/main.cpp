#include <cstdio>
#include <cstdlib>
#include <utility>

#include "host.h"
#include "options.h"

int main(int argc, char **argv) {
    tool::ParseResult parsed = tool::ParseOptions(argc, argv, [](const char *name) { return std::getenv(name); });
    std::fputs(parsed.out.c_str(), stdout);
    std::fputs(parsed.err.c_str(), stderr);
    return parsed.options ? tool::RunHost(std::move(*parsed.options)) : parsed.exit_code;
}
