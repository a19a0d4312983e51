#include "framework/Elements.h"

#include "Logger.h"

#include <algorithm>

namespace GSTREAMER {

ElementRef TryMakeElement(const char *factory, const char *name) {
    GstElement *const element = gst_element_factory_make(factory, name);
    if (element != nullptr) {
        gst_object_ref_sink(element);
    }
    return ElementRef::Adopt(element);
}

ElementRef MakeElement(const char *factory, const char *name) {
    ElementRef element = TryMakeElement(factory, name);
    if (element == nullptr) {
        LOG_ERR("[GSTREAMER] Unable to make element \"" << name << "\" of factory \"" << factory
                                                        << "\"!!! Is its plug-in installed?");
    }
    return element;
}

ElementRef MakeCapsFilter(const char *name, const char *caps) {
    ElementRef filter = MakeElement("capsfilter", name);
    if (filter == nullptr) {
        return filter;
    }
    const CapsPtr filter_caps(gst_caps_from_string(caps));
    if (!filter_caps) {
        LOG_ERR("[GSTREAMER] Unable to make the caps \"" << caps << "\" of element \"" << name << "\"!!!");
        return {};
    }
    g_object_set(filter, "caps", filter_caps.get(), nullptr);
    return filter;
}

ElementRef MakeVideoParser(const char *factory, const char *name) {
    constexpr gint kBeforeEveryIdr = -1;
    ElementRef parser = MakeElement(factory, name);
    if (parser != nullptr) {
        g_object_set(parser, "config-interval", kBeforeEveryIdr, nullptr);
    }
    return parser;
}

bool AddMany(GstElement *bin, const Chain &chain) {
    bool added = true;
    for (GstElement *element : chain) {
        if (element == nullptr) {
            break;
        }
        if (gst_bin_add(GST_BIN(bin), element) == FALSE) {
            LOG_ERR("[GSTREAMER] Unable to add element \"" << GST_ELEMENT_NAME(element) << "\" to the pipeline!!!");
            added = false;
        }
    }
    return added;
}

bool LinkMany(const Chain &chain) {
    GstElement *previous = nullptr;
    bool linked = false;
    for (GstElement *element : chain) {
        if (element == nullptr) {
            break;
        }
        if (previous != nullptr) {
            // An element that its bin refused has another parent: gst_element_link would log a warning.
            linked = GST_OBJECT_PARENT(previous) == GST_OBJECT_PARENT(element) && gst_element_link(previous, element) != FALSE;
            if (!linked) {
                return false;
            }
        }
        previous = element;
    }
    return linked;
}

bool IsComplete(const Chain &chain) {
    return std::find(chain.begin(), chain.end(), nullptr) == chain.end();
}

bool SyncState(GstElement *element) {
    if (element == nullptr || GST_OBJECT_PARENT(element) == nullptr) {
        return false;
    }
    if (gst_element_sync_state_with_parent(element) == FALSE) {
        LOG_ERR("[GSTREAMER] Unable to bring element \"" << GST_ELEMENT_NAME(element) << "\" to the state of the pipeline!!!");
        return false;
    }
    return true;
}

void AddAndSync(GstElement *bin, const Chain &chain) {
    AddMany(bin, chain);
    for (GstElement *element : chain) {
        SyncState(element);
    }
}

void TakeOut(GstElement *bin, const Chain &chain) {
    for (GstElement *element : chain) {
        if (element == nullptr || GST_OBJECT_PARENT(element) != GST_OBJECT_CAST(bin)) {
            continue;
        }
        const ElementRef kept = ElementRef::Share(element);
        // A state change of the bin in another thread may have this element as its next one already, and
        // would start it again once it is out.
        gst_element_set_locked_state(element, TRUE);
        if (gst_bin_remove(GST_BIN(bin), element) != FALSE) {
            gst_element_set_state(element, GST_STATE_NULL);
        } else {
            gst_element_set_locked_state(element, FALSE);
        }
    }
}

void PostReadError(GstElement *element, const char *text) {
    gst_element_message_full(element, GST_MESSAGE_ERROR, GST_RESOURCE_ERROR, GST_RESOURCE_ERROR_READ, g_strdup(text), nullptr,
                             __FILE__, __func__, __LINE__);
}

PadLink LinkToSinkPad(GstPad *source, GstElement *element) {
    const PadPtr sink_pad(element != nullptr ? gst_element_get_static_pad(element, "sink") : nullptr);
    if (!sink_pad) {
        return PadLink::Failed;
    }
    if (gst_pad_is_linked(sink_pad.get()) != FALSE) {
        return PadLink::TakenAlready;
    }
    return GST_PAD_LINK_SUCCESSFUL(gst_pad_link(source, sink_pad.get())) ? PadLink::Done : PadLink::Failed;
}

}  // namespace GSTREAMER
