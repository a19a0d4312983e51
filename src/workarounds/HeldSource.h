// The streaming thread of a source element, held at its source pad, outside of the element.
#pragma once

#include <gst/gst.h>

#include <chrono>
#include <memory>

namespace GSTREAMER {

class HeldSource {
  public:
    // From now on the thread stands still as soon as it brings a buffer, until the element is stopped.
    explicit HeldSource(GstElement *source);

    // True once it does. False when nothing has come within the bound; at once for one that does not stream.
    bool Await(std::chrono::milliseconds bound);

  private:
    struct Hold;
    std::shared_ptr<Hold> m_pHold;  // null for one that does not stream; the probe shares it, which lives as long as the pad
};

}  // namespace GSTREAMER
