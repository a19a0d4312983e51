#include "workarounds/MixedUnwinders.h"

#include <dlfcn.h>

namespace GSTREAMER {

void UseOneUnwinder() {
    [[maybe_unused]] static void *const s_pLibgcc = dlopen("libgcc_s.so.1", RTLD_NOW | RTLD_GLOBAL);
}

}  // namespace GSTREAMER
