#include "command_line.h"

#include <algorithm>
#include <cmath>
#include <sstream>
#include <string_view>
#include <utility>

namespace tool {
namespace {

class HelpFormatter : public CLI::Formatter {
  public:
    explicit HelpFormatter(std::string usage) : m_usage(std::move(usage)) {
        column_width(kIndent);
        label("Subcommands", "Commands");
    }

    std::string make_usage(const CLI::App * /*app*/, std::string /*name*/) const override {
        return "\nUsage: " + m_usage + "\n";
    }

    // CLI11 2.1 and 2.4 write defaults differently; the help is the same with both.
    std::string make_option_opts(const CLI::Option *option) const override {
        std::string text;
        if (option->get_type_size() != 0) {
            text += option->get_type_name().empty() ? "" : " " + option->get_type_name();
            text += option->get_default_str().empty() ? "" : "=" + option->get_default_str();
        }
        return text;
    }

    std::string make_option_desc(const CLI::Option *option) const override {
        std::istringstream words(option->get_description());
        std::string wrapped;
        size_t line = 0;
        for (std::string word; words >> word; line += word.size() + 1) {
            if (line + word.size() > kWidth - kIndent) {
                wrapped += '\n';
                line = 0;
            } else if (!wrapped.empty()) {
                wrapped += ' ';
            }
            wrapped += word;
        }
        return wrapped;
    }

  private:
    static constexpr size_t kIndent = 32;
    static constexpr size_t kWidth = 100;
    const std::string m_usage;
};

// A message of the parser without its line breaks.
std::string OneLine(std::string text) {
    while (!text.empty() && text.back() == '\n') {
        text.pop_back();
    }
    std::replace(text.begin(), text.end(), '\n', ' ');
    return text;
}

}  // namespace

void Refuse(const std::string &message) {
    throw CLI::ValidationError(message);
}

double ParseSeconds(const std::string &flag, const std::string &text, double longest) {
    double value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc() || end != text.data() + text.size() || !std::isfinite(value) || value <= 0 || value > longest) {
        Refuse(flag + ": \"" + text + "\" is not a number of seconds above 0 and up to " +
               std::to_string(static_cast<uint64_t>(longest)));
    }
    return value;
}

int64_t ParseTime(const std::string &flag, const std::string &text) {
    constexpr double kNs = 1e9;
    constexpr std::pair<std::string_view, double> kUnits[] = {{"", 1}, {"s", 1}, {"ms", 1e-3}, {"m", 60}, {"h", 3600}};
    constexpr double kLongest = 1e9;
    double value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    const std::string_view unit(end, static_cast<size_t>(text.data() + text.size() - end));
    const auto *known =
        std::find_if(std::begin(kUnits), std::end(kUnits), [unit](const auto &one) { return one.first == unit; });
    const double seconds = known != std::end(kUnits) ? value * known->second : 0;
    if (error != std::errc() || !std::isfinite(seconds) || seconds * kNs < 1 || seconds > kLongest) {
        Refuse(flag + ": \"" + text + "\" is not a time above 0, such as 10s, 1500ms, 10m or 1h");
    }
    return static_cast<int64_t>(seconds * kNs);
}

std::shared_ptr<CLI::Formatter> MakeHelpFormatter(const std::string &usage) {
    return std::make_shared<HelpFormatter>(usage);
}

std::optional<ParseEnd> Parse(const CLI::App &app, const std::string &program, const std::function<void()> &parse) {
    try {
        parse();
        return std::nullopt;
    } catch (const CLI::ParseError &error) {
        if (error.get_exit_code() == static_cast<int>(CLI::ExitCodes::Success)) {
            std::ostringstream out;
            std::ostringstream err;
            app.exit(error, out, err);
            return ParseEnd{kExitOk, out.str(), {}};
        }
        return ParseEnd{kExitUsage, {}, program + ": " + OneLine(error.what()) + "\n"};
    } catch (const std::exception &error) {
        return ParseEnd{kExitUsage, {}, program + ": " + OneLine(error.what()) + "\n"};
    }
}

}  // namespace tool
