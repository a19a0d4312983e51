#include <stdexcept>

#include "buffers.h"
#include "commands.h"
#include "output.h"

namespace reader {

int RunRemove(const Options &options) {
    const int result = shb_remove(options.name.c_str(), options.force ? 1 : 0);
    if (result == SHB_ERR_EXISTS) {
        throw std::runtime_error(options.name + ": its creator is alive; --force removes it all the same");
    }
    if (result != SHB_OK) {
        throw std::runtime_error(options.name + ": " + Reason(result));
    }
    WriteOut("removed " + options.name + "\n");
    return tool::kExitOk;
}

}  // namespace reader
