// Prints what the programs and the elements say of themselves, as JSON: manual pages and completions are made of it.
#include <gst/gst.h>
#include <nlohmann/json.hpp>

#include <cstdio>
#include <exception>

#include "companion.h"
#include "gst-source-read/options.h"
#include "gst-source/options.h"

namespace {

using nlohmann::json;

// What a property may be and is at first, as gst-launch-1.0 takes it; empty for what has no text.
std::string DefaultOf(GParamSpec *property) {
    std::string text;
    const GValue *value = g_param_spec_get_default_value(property);
    if (!G_VALUE_HOLDS_POINTER(value) && !G_VALUE_HOLDS_BOXED(value)) {
        if (G_VALUE_HOLDS_STRING(value)) {
            text = g_value_get_string(value) != nullptr ? g_value_get_string(value) : "";
        } else if (gchar *serialised = gst_value_serialize(value); serialised != nullptr) {
            text = serialised;
            g_free(serialised);
        }
    }
    return text;
}

json PropertiesOf(GstElement *element) {
    json records = json::array();
    guint count = 0;
    GParamSpec **properties = g_object_class_list_properties(G_OBJECT_GET_CLASS(element), &count);
    for (guint i = 0; i < count; ++i) {
        GParamSpec *property = properties[i];
        // The framework's own are described by the framework.
        if (property->owner_type != G_OBJECT_TYPE(element)) {
            continue;
        }
        json record = {{"name", property->name},
                       {"type", g_type_name(property->value_type)},
                       {"help", g_param_spec_get_blurb(property)},
                       {"writable", (property->flags & G_PARAM_WRITABLE) != 0}};
        if (const std::string text = DefaultOf(property); !text.empty()) {
            record["default"] = text;
        }
        records.push_back(record);
    }
    g_free(properties);
    return records;
}

json SignalsOf(GstElement *element) {
    json records = json::array();
    guint count = 0;
    guint *ids = g_signal_list_ids(G_OBJECT_TYPE(element), &count);
    for (guint i = 0; i < count; ++i) {
        GSignalQuery query;
        g_signal_query(ids[i], &query);
        json types = json::array();
        for (guint p = 0; p < query.n_params; ++p) {
            types.push_back(g_type_name(query.param_types[p]));
        }
        records.push_back({{"name", query.signal_name}, {"arguments", types}});
    }
    g_free(ids);
    return records;
}

json PadsOf(GstElement *element) {
    json records = json::array();
    for (const GList *one = gst_element_class_get_pad_template_list(GST_ELEMENT_GET_CLASS(element)); one != nullptr;
         one = one->next) {
        auto *model = static_cast<GstPadTemplate *>(one->data);
        GstCaps *caps = gst_pad_template_get_caps(model);
        json media = json::array();
        for (guint i = 0; i < gst_caps_get_size(caps); ++i) {
            gchar *text = gst_structure_to_string(gst_caps_get_structure(caps, i));
            media.push_back(text);
            g_free(text);
        }
        gst_caps_unref(caps);
        records.push_back({{"name", GST_PAD_TEMPLATE_NAME_TEMPLATE(model)}, {"caps", media}});
    }
    return records;
}

json ElementRecord(const char *factory) {
    tool::RequireCompanion(factory);
    GstElement *element = gst_element_factory_make(factory, nullptr);
    json record = {
        {"summary", gst_element_class_get_metadata(GST_ELEMENT_GET_CLASS(element), GST_ELEMENT_METADATA_DESCRIPTION)},
        {"properties", PropertiesOf(element)},
        {"signals", SignalsOf(element)},
        {"pads", PadsOf(element)}};
    gst_object_unref(element);
    return record;
}

}  // namespace

int main(int argc, char **argv) {
    try {
        gst_init(&argc, &argv);
        const json all = {{"version", TOOL_VERSION},
                          {"programs", {tool::DescribeOptions(), reader::DescribeOptions()}},
                          {"fields", tool::DescribeSourceFields()},
                          {"elements", {{"shbsink", ElementRecord("shbsink")}, {"shbsrc", ElementRecord("shbsrc")}}}};
        std::puts(all.dump(1).c_str());
        return 0;
    } catch (const std::exception &error) {
        std::fprintf(stderr, "describe: %s\n", error.what());
        return 1;
    }
}
