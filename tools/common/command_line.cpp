#include "command_line.h"

#include <algorithm>
#include <cctype>
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

std::string Comparable(std::string text) {
    text.erase(0, std::min(text.find_first_not_of('-'), text.size()));
    std::transform(text.begin(), text.end(), text.begin(), [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return text;
}

// Letters to put in, take out, replace or swap with their neighbour until one text is the other.
size_t Distance(const std::string &a, const std::string &b) {
    std::vector<std::vector<size_t>> steps(a.size() + 1, std::vector<size_t>(b.size() + 1));
    for (size_t i = 0; i <= a.size(); ++i) {
        for (size_t j = 0; j <= b.size(); ++j) {
            if (i == 0 || j == 0) {
                steps[i][j] = i + j;
                continue;
            }
            const bool same = a[i - 1] == b[j - 1];
            steps[i][j] = std::min({steps[i - 1][j] + 1, steps[i][j - 1] + 1, steps[i - 1][j - 1] + (same ? 0 : 1)});
            if (i > 1 && j > 1 && a[i - 1] == b[j - 2] && a[i - 2] == b[j - 1]) {
                steps[i][j] = std::min(steps[i][j], steps[i - 2][j - 2] + 1);
            }
        }
    }
    return steps[a.size()][b.size()];
}

std::vector<std::string> OptionsOf(const CLI::App &app) {
    std::vector<std::string> names;
    for (const CLI::Option *option : app.get_options()) {
        for (const std::string &name : option->get_lnames()) {
            names.push_back("--" + name);
        }
    }
    return names;
}

bool IsOption(const std::string &argument) {
    return argument.size() > 1 && argument.front() == '-';
}

// Of a command line that the parser has refused.
std::optional<std::string> UnknownArgument(const CLI::App &app, bool others) {
    const std::vector<std::string> rest = app.remaining(true);
    const auto option = std::find_if(rest.begin(), rest.end(), IsOption);
    if (option == rest.end()) {
        return rest.empty() || !others ? std::nullopt : std::optional("unexpected argument \"" + rest.front() + "\"");
    }
    // A value is nobody's business: it may be a password.
    const std::string name = option->substr(0, option->find('='));
    const std::vector<CLI::App *> commands = app.get_subcommands();
    return "unknown option " + name + Suggestion(name, OptionsOf(commands.empty() ? app : *commands.front()));
}

}  // namespace

std::string Suggestion(const std::string &text, const std::vector<std::string> &candidates) {
    constexpr size_t kLettersPerSlip = 3;
    constexpr size_t kMostSlips = 3;
    const std::string wanted = Comparable(text);
    std::string best;
    size_t least = kMostSlips + 1;
    for (const std::string &candidate : candidates) {
        const std::string known = Comparable(candidate);
        const bool begins = wanted.size() >= kLettersPerSlip && known.compare(0, wanted.size(), wanted) == 0;
        const size_t distance = begins ? std::min<size_t>(1, known.size() - wanted.size()) : Distance(wanted, known);
        if (distance < least && distance <= std::min(wanted.size(), known.size()) / kLettersPerSlip) {
            least = distance;
            best = candidate;
        }
    }
    return best.empty() || best == text ? "" : "; did you mean " + best + "?";
}

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
        // What is missing beside an unknown option may be what that was meant to be. Behind an unknown
        // command no option is known.
        const bool extras = dynamic_cast<const CLI::ExtrasError *>(&error) != nullptr;
        const bool has_commands = !app.get_subcommands([](const CLI::App *) { return true; }).empty();
        const bool known_command = !has_commands || !app.get_subcommands().empty();
        const auto unknown = known_command || extras ? UnknownArgument(app, extras) : std::nullopt;
        return ParseEnd{kExitUsage, {}, program + ": " + OneLine(unknown.value_or(error.what())) + "\n"};
    } catch (const std::exception &error) {
        return ParseEnd{kExitUsage, {}, program + ": " + OneLine(error.what()) + "\n"};
    }
}

}  // namespace tool
