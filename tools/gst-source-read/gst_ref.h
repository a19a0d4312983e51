// Ownership of GStreamer's objects: each Ref has one reference, which is not a floating one.
#pragma once

#include <gst/gst.h>

#include <memory>
#include <type_traits>

namespace reader {

struct Unref {
    template <typename Object>
    void operator()(Object *object) const {
        if constexpr (std::is_same_v<Object, GstMessage> || std::is_same_v<Object, GstCaps> ||
                      std::is_same_v<Object, GstBuffer> || std::is_same_v<Object, GstSample>) {
            gst_mini_object_unref(GST_MINI_OBJECT_CAST(object));
        } else {
            gst_object_unref(object);
        }
    }
};
// The same for an element that may be in use.
struct StopAndUnref {
    void operator()(GstElement *element) const {
        gst_element_set_state(element, GST_STATE_NULL);
        gst_object_unref(element);
    }
};
using OpenElement = std::unique_ptr<GstElement, StopAndUnref>;

template <typename Object>
using Ref = std::unique_ptr<Object, Unref>;

}  // namespace reader
