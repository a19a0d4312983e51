// Who holds which reference of a framework object is in its type.
#pragma once

#include <gst/gst.h>

#include <memory>
#include <utility>

namespace GSTREAMER {

struct ObjectUnref {
    void operator()(gpointer object) const { gst_object_unref(object); }
};
struct GObjectUnref {
    void operator()(gpointer object) const { g_object_unref(object); }
};
struct CapsUnref {
    void operator()(GstCaps *caps) const { gst_caps_unref(caps); }
};
struct MessageUnref {
    void operator()(GstMessage *message) const { gst_message_unref(message); }
};
struct TextFree {
    void operator()(gchar *text) const { g_free(text); }
};

using PadPtr = std::unique_ptr<GstPad, ObjectUnref>;
using CapsPtr = std::unique_ptr<GstCaps, CapsUnref>;
using MessagePtr = std::unique_ptr<GstMessage, MessageUnref>;
using TextPtr = std::unique_ptr<gchar, TextFree>;

// Whether the object is of the type or of one derived from it. False for null.
inline bool IsA(gpointer object, GType type) {
    return g_type_check_instance_is_a(static_cast<GTypeInstance *>(object), type) != FALSE;
}

// One reference of an element, beside those that others hold: a bin takes its own when the element is added.
class ElementRef {
  public:
    ElementRef() = default;
    ~ElementRef() { Reset(); }
    ElementRef(const ElementRef &) = delete;
    ElementRef &operator=(const ElementRef &) = delete;
    ElementRef(ElementRef &&other) noexcept : m_pElement(std::exchange(other.m_pElement, nullptr)) {}
    ElementRef &operator=(ElementRef &&other) noexcept {
        if (this != &other) {
            Reset();
            m_pElement = std::exchange(other.m_pElement, nullptr);
        }
        return *this;
    }

    // Takes over the caller's reference, which must not be a floating one. Null gives an empty reference.
    static ElementRef Adopt(GstElement *element) {
        g_assert(element == nullptr || g_object_is_floating(element) == FALSE);
        ElementRef ref;
        ref.m_pElement = element;
        return ref;
    }
    // Takes a reference of its own.
    static ElementRef Share(GstElement *element) {
        return Adopt(element != nullptr ? static_cast<GstElement *>(gst_object_ref(element)) : nullptr);
    }

    void Reset() { g_clear_pointer(&m_pElement, gst_object_unref); }
    GstElement *Get() const { return m_pElement; }
    operator GstElement *() const { return m_pElement; }  // NOLINT(google-explicit-constructor): used wherever an element is

  private:
    GstElement *m_pElement = nullptr;
};

}  // namespace GSTREAMER
