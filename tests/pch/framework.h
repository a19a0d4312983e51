// The same for files that also speak to GStreamer.
#ifndef TESTS_PCH_FRAMEWORK_H
#define TESTS_PCH_FRAMEWORK_H

#include "tests.h"

#include <gst/gst.h>

#endif
