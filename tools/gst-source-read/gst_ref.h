// Ownership of GStreamer's objects: each Ref has one reference, which is not a floating one.
#pragma once

#include <gst/gst.h>

#include <memory>

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
template <typename Object>
using Ref = std::unique_ptr<Object, Unref>;

}  // namespace reader
