#include "workarounds/EndlessRetries.h"

#include "framework/Properties.h"

namespace GSTREAMER {

namespace {

constexpr gint32 kWithoutEnd = -1;
// s; each pause is twice the one before, the first one twice this.
constexpr gdouble kBackOff = 0.5;
constexpr gdouble kLongestPause = 3;

bool HasBackOff(GstElement *source) {
    return g_object_class_find_property(G_OBJECT_GET_CLASS(source), "retry-backoff-factor") != nullptr;
}

}  // namespace

void SetRetries(GstElement *source, gint32 retries) {
    if (source == nullptr || retries != kWithoutEnd || !HasBackOff(source)) {
        SetNumber(source, "retries", retries);
        return;
    }
    SetNumber(source, "retries", G_MAXINT32);
    g_object_set(source, "retry-backoff-factor", kBackOff, "retry-backoff-max", kLongestPause, nullptr);
}

}  // namespace GSTREAMER
