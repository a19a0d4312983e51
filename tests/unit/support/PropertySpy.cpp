#include "PropertySpy.h"

#include <map>
#include <mutex>

namespace unit {

namespace {

using SetProperty = void (*)(GObject *, guint, const GValue *, GParamSpec *);

std::mutex g_mutex;
std::map<GType, SetProperty> g_originals;
std::map<const void *, std::vector<std::string>> g_records;

std::string Text(const GValue *value) {
    if (G_VALUE_HOLDS_STRING(value)) {
        const gchar *text = g_value_get_string(value);
        return text != nullptr ? text : "(null)";
    }
    if (G_VALUE_HOLDS_ENUM(value)) {
        return std::to_string(g_value_get_enum(value));
    }
    if (G_VALUE_HOLDS_FLAGS(value)) {
        return std::to_string(g_value_get_flags(value));
    }
    gchar *contents = g_strdup_value_contents(value);
    const std::string text = contents;
    g_free(contents);
    return text;
}

void Spy(GObject *object, guint id, const GValue *value, GParamSpec *spec) {
    // What an element sets on itself in the course of it is its own affair.
    static thread_local int s_depth = 0;
    SetProperty original = nullptr;
    {
        const std::lock_guard<std::mutex> lock(g_mutex);
        // The property of an interface is set by the object's own class here.
        const GType owner = G_TYPE_IS_INTERFACE(spec->owner_type) ? G_OBJECT_TYPE(object) : spec->owner_type;
        original = g_originals.at(owner);
        const auto record = g_records.find(object);
        if (record != g_records.end() && s_depth == 0) {
            record->second.push_back(std::string(g_param_spec_get_name(spec)) + "=" + Text(value));
        }
    }
    ++s_depth;
    original(object, id, value, spec);
    --s_depth;
}

}  // namespace

void SpyOn(const char *factory) {
    GstElementFactory *found = gst_element_factory_find(factory);
    GstPluginFeature *loaded = gst_plugin_feature_load(GST_PLUGIN_FEATURE(found));
    gpointer type = g_type_class_ref(gst_element_factory_get_element_type(GST_ELEMENT_FACTORY(loaded)));
    // The function that sets a property is that of the class that has installed it.
    for (GType owner = G_TYPE_FROM_CLASS(type); owner != GST_TYPE_OBJECT; owner = g_type_parent(owner)) {
        GObjectClass *object = G_OBJECT_CLASS(g_type_class_peek(owner));
        const std::lock_guard<std::mutex> lock(g_mutex);
        if (g_originals.count(owner) == 0) {
            // A class that was made after its parent had been prepared has inherited the spy.
            SetProperty original = object->set_property;
            if (original == Spy) {
                original = g_originals.at(g_type_parent(owner));
            }
            g_originals[owner] = original;
            object->set_property = Spy;
        }
    }
    g_type_class_unref(type);
    gst_object_unref(loaded);
    gst_object_unref(found);
}

void StartRecord(GstElement *element) {
    const std::lock_guard<std::mutex> lock(g_mutex);
    g_records[element].clear();
}

std::vector<std::string> RecordOf(GstElement *element) {
    const std::lock_guard<std::mutex> lock(g_mutex);
    const auto record = g_records.find(element);
    return record != g_records.end() ? record->second : std::vector<std::string>{"no record"};
}

void ForgetRecords() {
    const std::lock_guard<std::mutex> lock(g_mutex);
    g_records.clear();
}

std::vector<std::string> HeldOf(GstElement *element, const std::vector<std::string> &sets) {
    std::vector<std::string> held;
    for (const std::string &set : sets) {
        const std::string name = set.substr(0, set.find('='));
        GValue value = G_VALUE_INIT;
        g_value_init(&value, g_object_class_find_property(G_OBJECT_GET_CLASS(element), name.c_str())->value_type);
        g_object_get_property(G_OBJECT(element), name.c_str(), &value);
        held.push_back(name + "=" + Text(&value));
        g_value_unset(&value);
    }
    return held;
}

}  // namespace unit
