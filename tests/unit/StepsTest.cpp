// The steps below the source classes that deal with the process: its descriptors, threads that stand or wait.
#include "CGstUtils.h"
