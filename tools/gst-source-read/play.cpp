#include "commands.h"
#include "output.h"

namespace reader {

int RunPlay(const Options & /*options*/) {
    return tool::kExitNothing;
}

}  // namespace reader
