/*
 * The plug-in: the element that writes into a shared buffer, and the one that reads from it.
 */
#include <gst/gst.h>

#include "gstshbsink.h"
#include "gstshbsrc.h"

static gboolean plugin_init(GstPlugin *plugin) {
    gboolean sink = GST_ELEMENT_REGISTER(shbsink, plugin);
    return GST_ELEMENT_REGISTER(shbsrc, plugin) && sink;
}

#ifndef PACKAGE
#define PACKAGE "gst-source"
#endif

GST_PLUGIN_DEFINE(GST_VERSION_MAJOR, GST_VERSION_MINOR, shbsink, "Sink and source of shared buffers", plugin_init,
                  SHB_PLUGIN_VERSION, GST_LICENSE_UNKNOWN, "gst-source", "shared buffer")
