#include "describe.h"

#include <nlohmann/json.hpp>

namespace tool {
namespace {

nlohmann::json OptionRecord(const CLI::Option &option) {
    nlohmann::json names = nlohmann::json::array();
    for (const std::string &name : option.get_snames()) {
        names.push_back("-" + name);
    }
    for (const std::string &name : option.get_lnames()) {
        names.push_back("--" + name);
    }
    nlohmann::json record = {{"names", names}, {"help", option.get_description()}};
    if (option.get_type_size() != 0) {
        record["type"] = option.get_type_name();
    }
    if (!option.get_default_str().empty()) {
        record["default"] = option.get_default_str();
    }
    if (!option.get_group().empty()) {
        record["group"] = option.get_group();
    }
    return record;
}

}  // namespace

nlohmann::json Describe(const CLI::App &app) {
    nlohmann::json options = nlohmann::json::array();
    for (const CLI::Option *option : app.get_options()) {
        // A place on the command line is part of the usage.
        if (!option->get_lnames().empty() || !option->get_snames().empty()) {
            options.push_back(OptionRecord(*option));
        }
    }
    nlohmann::json commands = nlohmann::json::array();
    for (const CLI::App *command : app.get_subcommands([](const CLI::App *) { return true; })) {
        commands.push_back(Describe(*command));
    }
    const auto formatter = std::dynamic_pointer_cast<CLI::Formatter>(app.get_formatter());
    return {{"name", app.get_name()},
            {"summary", app.get_description()},
            {"usage", formatter ? formatter->make_usage(&app, app.get_name()) : ""},
            {"footer", app.get_footer()},
            {"options", options},
            {"commands", commands}};
}

}  // namespace tool
