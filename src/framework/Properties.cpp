#include "framework/Properties.h"

#include "Logger.h"

namespace GSTREAMER {

namespace {

// The value as the property's own type holds it. False for one that it cannot hold.
bool Convert(GParamSpec *property, gint64 number, GValue *value) {
    switch (G_TYPE_FUNDAMENTAL(property->value_type)) {
        case G_TYPE_INT: {
            const auto *const limits = G_PARAM_SPEC_INT(property);
            g_value_set_int(value, static_cast<gint>(number));
            return number >= limits->minimum && number <= limits->maximum;
        }
        case G_TYPE_UINT: {
            const auto *const limits = G_PARAM_SPEC_UINT(property);
            g_value_set_uint(value, static_cast<guint>(number));
            return number >= gint64{limits->minimum} && number <= gint64{limits->maximum};
        }
        case G_TYPE_ENUM: {
            const auto one = static_cast<gint>(number);
            g_value_set_enum(value, one);
            return one == number && g_enum_get_value(G_PARAM_SPEC_ENUM(property)->enum_class, one) != nullptr;
        }
        case G_TYPE_FLAGS: {
            const auto set = static_cast<guint>(number);
            g_value_set_flags(value, set);
            return set == number && (set & ~G_PARAM_SPEC_FLAGS(property)->flags_class->mask) == 0;
        }
        default:
            return false;
    }
}

}  // namespace

void SetNumber(GstElement *element, const char *property, gint64 value) {
    if (element == nullptr) {
        return;
    }
    GParamSpec *const known = g_object_class_find_property(G_OBJECT_GET_CLASS(element), property);
    if (known == nullptr) {
        LOG_WARN("[GSTREAMER] Element \"" << GST_ELEMENT_NAME(element) << "\" has no property \"" << property << "\".");
        return;
    }
    GValue converted = G_VALUE_INIT;
    g_value_init(&converted, known->value_type);
    if (Convert(known, value, &converted)) {
        g_object_set_property(G_OBJECT(element), property, &converted);
    } else {
        LOG_WARN("[GSTREAMER] Property \"" << property << "\" of element \"" << GST_ELEMENT_NAME(element) << "\" does not take "
                                           << value << ", its default stays in force.");
    }
    g_value_unset(&converted);
}

void SetText(GstElement *element, const char *property, const std::string &text) {
    if (!text.empty()) {
        g_object_set(element, property, text.c_str(), nullptr);
    }
}

}  // namespace GSTREAMER
