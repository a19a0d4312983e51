#include "config_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <toml++/toml.h>
#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <map>
#include <set>
#include <sstream>
#include <stdexcept>

#include "command_line.h"
#include "fd.h"
#include "http/address.h"
#include "secrets.h"
#include "source_fields.h"
#include "text.h"

namespace tool {
namespace {

constexpr size_t kLongestName = 200;
// Thousands of sources take some hundred kilobytes.
constexpr size_t kLargestFile = size_t{16} << 20;

std::string QuotedNames(const std::vector<std::string> &names) {
    std::string all;
    for (const std::string &name : names) {
        all += (all.empty() ? "" : ", ") + name;
    }
    return all;
}

bool IsNameCharacter(unsigned char c) {
    return std::isalnum(c) != 0 || c == '.' || c == '_' || c == '-';
}

bool IsVariableName(const std::string &name) {
    return !name.empty() && std::isdigit(static_cast<unsigned char>(name.front())) == 0 &&
           std::all_of(name.begin(), name.end(), [](unsigned char c) { return std::isalnum(c) != 0 || c == '_'; });
}

// What kind of value a node is, for people.
const char *KindOf(const toml::node &node) {
    switch (node.type()) {
        case toml::node_type::table:
            return "a table";
        case toml::node_type::array:
            return "a list";
        case toml::node_type::string:
            return "a text";
        case toml::node_type::integer:
            return "a whole number";
        case toml::node_type::floating_point:
            return "a number";
        case toml::node_type::boolean:
            return "true or false";
        default:
            return "a date or time";
    }
}

std::string Octal(int64_t mode) {
    std::ostringstream text;
    text << '0' << std::oct << mode;
    return text.str();
}

class Reader {
  public:
    Reader(ConfigFile &file, const Environment &environment) : m_file(file), m_environment(environment) {}

    void Read(const toml::table &root) {
        const toml::table *defaults = nullptr;
        const toml::array *sources = nullptr;
        for (const auto &[key, node] : root) {
            const std::string name(key.str());
            if (name == "service" && node.is_table()) {
                ReadService(*node.as_table());
            } else if (name == "defaults" && node.is_table()) {
                defaults = node.as_table();
            } else if (name == "source" && node.is_array_of_tables()) {
                sources = node.as_array();
            } else if (name == "source") {
                At(key.source(), "a source begins with [[source]], in two brackets");
            } else if (name == "service" || name == "defaults") {
                std::string text = name;
                At(key.source(), text.append(" is a table: [").append(name).append("]"));
            } else {
                const std::string shown = Shown(PublicUrl(name));
                At(key.source(), "unknown table or key \"" + shown + "\"" +
                                     Suggestion(name, {"service", "defaults", "source"}) +
                                     "; there are [service], [defaults] and [[source]]");
            }
        }
        if (defaults != nullptr) {
            ReadDefaults(*defaults);
        }
        if (sources == nullptr || sources->empty()) {
            Whole("no source: each begins with [[source]] and has a name and a url");
            return;
        }
        for (const toml::node &node : *sources) {
            ReadSource(*node.as_table());
        }
        if (m_literalSecret) {
            WarnOfReaders();
        }
    }

    void At(const toml::source_region &place, const std::string &text, bool fatal = true) {
        m_file.mistakes.push_back({place.begin.line, place.begin.column, text, fatal});
    }

  private:
    using Where = toml::source_region;

    void Whole(const std::string &text, bool fatal = true) { m_file.mistakes.push_back({0, 0, text, fatal}); }

    void WarnOfReaders() {
        struct stat info {};
        if (stat(m_file.path.c_str(), &info) == 0 && (info.st_mode & (S_IRGRP | S_IROTH)) != 0) {
            Whole("holds a secret and can be read by others; chmod 600, or ${NAME}, or a file of its own would keep it", false);
        }
    }

    // "${NAME}" is the environment's NAME; "$${" stands for "${". Nothing, with a mistake, where there is no such variable.
    std::optional<std::string> Expanded(const std::string &text, const Where &place) {
        std::string out;
        for (size_t at = 0; at < text.size();) {
            if (text.compare(at, 3, "$${") == 0) {
                out += "${";
                at += 3;
                continue;
            }
            if (text.compare(at, 2, "${") != 0) {
                out += text[at++];
                continue;
            }
            const size_t end = text.find('}', at);
            const std::string name = end == std::string::npos ? std::string() : text.substr(at + 2, end - at - 2);
            // Anything else may be a part of a password, and is not shown.
            if (!IsVariableName(name)) {
                At(place, "\"${\" without the name of a variable and \"}\"; \"$${\" stands for the characters themselves");
                return std::nullopt;
            }
            const char *value = m_environment(name.c_str());
            if (value == nullptr) {
                At(place, "the environment has no variable " + name);
                return std::nullopt;
            }
            out += value;
            at = end + 1;
        }
        return out;
    }

    // A value as text, or nothing with a mistake.
    std::optional<std::string> TextOf(const std::string &key, const toml::node &node) {
        if (const auto *text = node.as_string()) {
            return Expanded(text->get(), node.source());
        }
        At(node.source(), key + " takes a text, not " + KindOf(node));
        return std::nullopt;
    }

    static bool ComesFromEnvironment(const toml::node &node) {
        const auto *text = node.as_string();
        return text != nullptr && text->get().find("${") != std::string::npos;
    }

    std::optional<std::string> NumberOf(const std::string &key, const toml::node &node, bool whole) {
        if (const auto *number = node.as_integer()) {
            return std::to_string(number->get());
        }
        if (const auto *number = node.as_floating_point(); number != nullptr && !whole) {
            return NumberText(number->get());
        }
        if (ComesFromEnvironment(node)) {
            return TextOf(key, node);
        }
        At(node.source(), key + (whole ? " takes a whole number, not " : " takes a number, not ") + KindOf(node));
        return std::nullopt;
    }

    std::optional<std::string> ListOf(const std::string &key, const toml::array &list) {
        std::string joined;
        for (const toml::node &one : list) {
            const auto text = TextOf("an entry of " + key, one);
            if (!text) {
                return std::nullopt;
            }
            joined += (joined.empty() ? "" : ",") + *text;
        }
        return joined;
    }

    // As the command line would give it.
    std::optional<std::string> ValueOf(const SourceField &field, const toml::node &node) {
        const std::string key = field.key;
        if (key == "islive" && node.is_boolean()) {
            return node.as_boolean()->get() ? "1" : "0";
        }
        if (field.kind != SourceField::Kind::kText) {
            return NumberOf(key, node, field.kind == SourceField::Kind::kWhole);
        }
        if (key == "protocols" && node.is_array()) {
            return ListOf(key, *node.as_array());
        }
        if (const auto *number = node.as_integer()) {
            if (key == "buffer_mode") {
                return Octal(number->get());
            }
            if (key == "protocols" || key == "video_bytes" || key == "audio_bytes" || key == "buffer_group") {
                return std::to_string(number->get());
            }
        }
        return TextOf(key, node);
    }

    std::string PathOf(const std::string &path) const {
        const std::filesystem::path given(path);
        return given.is_absolute() ? path : (std::filesystem::path(m_file.path).parent_path() / given).string();
    }

    // `use` throws with a message for people.
    template <typename Use>
    void Try(const Where &place, Use use) {
        try {
            use();
        } catch (const std::exception &error) {
            At(place, error.what());
        }
    }

    // A pipe without a writer would hold up a reload, and with it all sources.
    std::string SecretPath(const std::string &path) const {
        std::string whole = PathOf(path);
        std::error_code ignored;
        if (std::filesystem::is_fifo(whole, ignored)) {
            throw std::runtime_error(whole + ": is a pipe, not a file");
        }
        return whole;
    }

    std::string SecretFrom(const std::string &path, const Where &place) {
        std::vector<std::string> warnings;
        std::string secret = ReadSecretFile(SecretPath(path), warnings);
        for (const std::string &warning : warnings) {
            At(place, warning, false);
        }
        return secret;
    }

    void ReadService(const toml::table &table) {
        ServiceConfig &service = m_file.service;
        const toml::node *open_to_others = nullptr;
        for (const auto &[key, node] : table) {
            const std::string name(key.str());
            const Where &place = node.source();
            if (name == "http" || name == "http_token" || name == "log" || name == "http_token_file") {
                const auto text = TextOf(name, node);
                if (!text) {
                    continue;
                }
                if (name == "http") {
                    const toml::node *const written = &node;
                    Try(place, [&] {
                        open_to_others = ListenAddress(*text).IsLoopback() ? nullptr : written;
                        service.http = *text;
                    });
                } else if (name == "http_token") {
                    service.http_token = *text;
                    m_literalSecret = m_literalSecret || !ComesFromEnvironment(node);
                } else if (name == "log") {
                    service.log_file = PathOf(*text);
                } else {
                    Try(place, [&] { service.http_token = SecretFrom(*text, place); });
                }
            } else if (name == "log_level") {
                const auto text = TextOf(name, node);
                Try(place, [&] { service.log_level = text ? CheckedLogLevel(name, *text) : std::string(); });
            } else if (name == "close_timeout") {
                const auto text = NumberOf(name, node, false);
                Try(place, [&] { service.close_timeout = text ? std::optional(ParseSeconds(name, *text)) : std::nullopt; });
            } else {
                Unknown(key, {"http", "http_token", "http_token_file", "log", "log_level", "close_timeout"}, "[service]");
            }
        }
        // The command line may have one as well.
        if (open_to_others != nullptr && service.http_token.empty() && m_environment("GST_SOURCE_HTTP_TOKEN") == nullptr) {
            At(open_to_others->source(),
               "other machines reach " + service.http + ", so a token is needed: http_token or http_token_file", false);
        }
    }

    void ReadDefaults(const toml::table &table) {
        SourceConfig scratch;
        for (const auto &[key, node] : table) {
            const std::string name(key.str());
            const auto protocol = ProtocolNamed(name);
            if (protocol && node.is_table()) {
                m_protocolDefaults[*protocol] = node.as_table();
                for (const auto &[option, value] : *node.as_table()) {
                    ReadOption(scratch, *protocol, option, value);
                }
                continue;
            }
            const std::vector<std::string> names = NamesFor(std::nullopt);
            if (std::find(names.begin(), names.end(), name) == names.end()) {
                std::vector<std::string> known = names;
                known.insert(known.end(),
                             {"[defaults.rtsp]", "[defaults.srt]", "[defaults.rtmp]", "[defaults.udp]", "[defaults.hls]"});
                Unknown(key, known, "[defaults]");
                continue;
            }
            m_defaults.emplace_back(&key, &node);
            ReadOption(scratch, std::nullopt, key, node);
        }
    }

    static std::optional<Protocol> ProtocolNamed(const std::string &name) {
        for (const Protocol protocol : {Protocol::kRtsp, Protocol::kSrt, Protocol::kRtmp, Protocol::kUdp, Protocol::kHls}) {
            if (name == ProtocolName(protocol)) {
                return protocol;
            }
        }
        return std::nullopt;
    }

    // Names of the options, their files of secrets among them.
    static std::vector<std::string> NamesFor(std::optional<Protocol> protocol) {
        std::vector<std::string> names;
        for (const SourceField &field : SourceFields()) {
            if (protocol ? Applies(field, *protocol) : !field.protocol) {
                names.emplace_back(field.key);
                if (field.secret) {
                    names.push_back(std::string(field.key) + "_file");
                }
            }
        }
        if (!protocol || Applies(*FieldNamed("user", protocol), *protocol)) {
            names.emplace_back("credentials_file");
        }
        return names;
    }

    // The field with this key that sources of the protocol have; one of another protocol where they have none.
    static const SourceField *FieldNamed(std::string_view key, std::optional<Protocol> protocol) {
        const SourceField *other = nullptr;
        for (const SourceField &field : SourceFields()) {
            if (field.key == key) {
                if (!protocol || !field.protocol || field.protocol == protocol) {
                    return &field;
                }
                other = &field;
            }
        }
        return other;
    }

    // The names of the open functions' arguments, and those that are the same for all protocols.
    static std::string Canonical(const std::string &key) {
        constexpr std::pair<std::string_view, const char *> kSame[] = {
            {"pwd", "password"}, {"user_id", "user"}, {"user_pw", "password"}};
        for (const auto &[other, name] : kSame) {
            if (key == other) {
                return name;
            }
        }
        return key;
    }

    void ReadOption(SourceConfig &config, std::optional<Protocol> protocol, const toml::key &key, const toml::node &node) {
        const std::string written(key.str());
        if (written == "credentials_file") {
            ReadCredentials(config, protocol, key, node);
            return;
        }
        constexpr std::string_view kFile = "_file";
        const bool file =
            written.size() > kFile.size() && written.compare(written.size() - kFile.size(), kFile.size(), kFile) == 0;
        const std::string name = Canonical(file ? written.substr(0, written.size() - kFile.size()) : written);
        const SourceField *field = FieldNamed(name, protocol);
        if (field == nullptr || (file && !field->secret)) {
            Unknown(key, NamesFor(protocol), protocol ? std::string("a source of ") + ProtocolName(*protocol) : "[defaults]");
            return;
        }
        if (protocol && !Applies(*field, *protocol)) {
            At(key.source(),
               written + " is no option of " + ProtocolName(*protocol) + "; it has " + QuotedNames(NamesFor(protocol)));
            return;
        }
        const auto text = file ? TextOf(written, node) : ValueOf(*field, node);
        if (!text) {
            return;
        }
        const bool secret = field->secret || !SecretsOf(*text).empty();
        m_literalSecret = m_literalSecret || (secret && !file && !text->empty() && !ComesFromEnvironment(node));
        Try(node.source(), [&] { field->set(config, written, file ? SecretFrom(*text, node.source()) : *text); });
    }

    void ReadCredentials(SourceConfig &config, std::optional<Protocol> protocol, const toml::key &key, const toml::node &node) {
        if (protocol && !Applies(*FieldNamed("user", protocol), *protocol)) {
            At(key.source(), std::string("credentials_file is no option of ") + ProtocolName(*protocol));
            return;
        }
        if (const auto path = TextOf("credentials_file", node)) {
            Try(node.source(), [&] {
                std::vector<std::string> warnings;
                const Credentials credentials = ReadCredentialsFile(SecretPath(*path), warnings);
                for (const std::string &warning : warnings) {
                    At(node.source(), warning, false);
                }
                config.user = credentials.user;
                config.password = credentials.password;
            });
        }
    }

    void Unknown(const toml::key &key, const std::vector<std::string> &known, const std::string &place) {
        const std::string nearest = Suggestion(std::string(key.str()), known);
        At(key.source(), "unknown option \"" + Shown(PublicUrl(std::string(key.str()))) + "\" of " + place +
                             (nearest.empty() ? "; known are " + QuotedNames(known) : nearest));
    }

    // Defaults were looked at where they stand: their mistakes are not repeated for every source.
    void ApplyDefaults(SourceConfig &config, Protocol protocol) {
        const std::vector<Mistake> before = m_file.mistakes;
        for (const auto &[key, node] : m_defaults) {
            const std::string name = Canonical(std::string(key->str()));
            const bool credentials = name.find("credentials") == 0 || name.find("password") == 0;
            const SourceField *field = FieldNamed(credentials ? "user" : name, protocol);
            if (field != nullptr && Applies(*field, protocol)) {
                ReadOption(config, protocol, *key, *node);
            }
        }
        const auto own = m_protocolDefaults.find(protocol);
        if (own != m_protocolDefaults.end()) {
            for (const auto &[key, node] : *own->second) {
                ReadOption(config, protocol, key, node);
            }
        }
        m_file.mistakes = before;
    }

    void ReadSource(const toml::table &table) {
        SourceConfig config;
        const size_t mistakes = m_file.mistakes.size();
        const std::optional<Protocol> protocol = ReadUrl(table, config);
        if (protocol) {
            ApplyDefaults(config, *protocol);
        }
        const bool named = ReadName(table, config);
        for (const auto &[key, node] : table) {
            const std::string name(key.str());
            if (name != "name" && name != "url" && protocol) {
                ReadOption(config, *protocol, key, node);
            }
        }
        // What is not read yet leads to doubts that are none.
        if (protocol && m_file.mistakes.size() == mistakes) {
            for (const std::string &doubt : DoubtsOf(config, [](const char *key) { return std::string(key); })) {
                At(table.source(), doubt, false);
            }
        }
        if (protocol && named) {
            m_file.sources.push_back(std::move(config));
        }
    }

    std::optional<Protocol> ReadUrl(const toml::table &table, SourceConfig &config) {
        const toml::node *node = table.get("url");
        if (node == nullptr) {
            At(table.source(), "a source without a url");
            return std::nullopt;
        }
        const auto text = TextOf("url", *node);
        if (!text) {
            return std::nullopt;
        }
        config.url = *text;
        m_literalSecret = m_literalSecret || (!SecretsOf(*text).empty() && !ComesFromEnvironment(*node));
        const auto protocol = ProtocolOf(config.url);
        if (!protocol) {
            At(node->source(), PublicUrl(config.url) + ": not a stream URL; known are " + std::string(kSchemes));
            return std::nullopt;
        }
        if (const auto mistake = UrlMistake(config.url)) {
            At(node->source(), *mistake);
            return protocol;
        }
        config.url = NormalisedUrl(config.url);
        for (const auto &[url, line] : m_urls) {
            if (SamePlace(url, config.url)) {
                At(node->source(), "the same stream as the source of line " + std::to_string(line) +
                                       "; one source has as many readers as are wanted");
                return protocol;
            }
        }
        m_urls.emplace_back(config.url, node->source().begin.line);
        return protocol;
    }

    bool ReadName(const toml::table &table, SourceConfig &config) {
        const toml::node *node = table.get("name");
        if (node == nullptr) {
            At(table.source(), "a source without a name");
            return false;
        }
        const auto text = TextOf("name", *node);
        if (!text) {
            return false;
        }
        config.name = *text;
        if (text->empty() || text->size() > kLongestName || *text == "." || *text == ".." ||
            !std::all_of(text->begin(), text->end(), IsNameCharacter)) {
            At(node->source(),
               "\"" + Shown(*text) +
                   "\" cannot be a name: it is also that of the buffer, 1 to 200 of the characters A-Z a-z 0-9 . _ -");
            return false;
        }
        const auto [first, fresh] = m_names.emplace(*text, node->source().begin.line);
        if (!fresh) {
            At(node->source(), "the name \"" + *text + "\" is that of the source of line " + std::to_string(first->second));
        }
        return fresh;
    }

    static std::string Shown(const std::string &text) {
        constexpr size_t kMost = 60;
        return Printable(text.size() > kMost ? text.substr(0, kMost) + "..." : text);
    }

    static constexpr const char *kSchemes = "udp, rtsp, rtsps, rtspt, rtspu, srt, rtmp, rtmps, http and https";

    ConfigFile &m_file;
    const Environment &m_environment;
    bool m_literalSecret = false;
    std::vector<std::pair<const toml::key *, const toml::node *>> m_defaults;
    std::map<Protocol, const toml::table *> m_protocolDefaults;
    std::map<std::string, unsigned> m_names;
    std::vector<std::pair<std::string, unsigned>> m_urls;
};

// As it stands in a file, where "${" would be a variable.
std::string TomlText(const std::string &text) {
    constexpr std::string_view kVariable = "${";
    std::string escaped = text;
    for (size_t at = escaped.find(kVariable); at != std::string::npos;
         at = escaped.find(kVariable, at + kVariable.size() + 1)) {
        escaped.insert(at, "$");
    }
    std::ostringstream out;
    out << toml::value<std::string>(escaped);
    return out.str();
}

// The parser quotes what it cannot read, and that may be a password.
std::string WithoutValues(const std::string &text, const toml::parse_error &error) {
    std::istringstream lines(text);
    std::string line;
    for (toml::source_index i = 0; i < error.source().begin.line; ++i) {
        std::getline(lines, line);
    }
    const std::string value = line.substr(line.find('=') + 1);
    std::string description(error.description());
    for (size_t begin = description.find('\''); begin != std::string::npos; begin = description.find('\'', begin)) {
        const size_t end = description.find('\'', ++begin);
        if (end == std::string::npos) {
            break;
        }
        const std::string quoted = description.substr(begin, end - begin);
        if (quoted.size() > 1 && value.find(quoted) != std::string::npos) {
            description.replace(begin, quoted.size(), "***");
        }
        begin = description.find('\'', begin) + 1;
    }
    return description;
}

// Nothing but a file is read: a reload must not wait for a pipe, and not take in a device without end.
std::string ReadWhole(const std::string &path) {
    const Fd in(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    struct stat info {};
    if (!in || fstat(in.Get(), &info) != 0) {
        throw std::runtime_error(std::strerror(errno));
    }
    if (S_ISDIR(info.st_mode)) {
        throw std::runtime_error(std::strerror(EISDIR));
    }
    if (!S_ISREG(info.st_mode)) {
        throw std::runtime_error("is no regular file");
    }
    std::string text;
    std::vector<char> part(size_t{64} * 1024);
    for (ssize_t got = 1; got > 0;) {
        got = read(in.Get(), part.data(), part.size());
        if (got < 0 && errno != EINTR) {
            throw std::runtime_error(std::strerror(errno));
        }
        text.append(part.data(), static_cast<size_t>(std::max<ssize_t>(got, 0)));
        if (text.size() > kLargestFile) {
            throw std::runtime_error("is larger than 16 MB, which no file of sources is");
        }
        got = got < 0 ? 1 : got;
    }
    return text;
}

}  // namespace

bool operator==(const ServiceConfig &left, const ServiceConfig &right) {
    return left.http == right.http && left.http_token == right.http_token && left.log_file == right.log_file &&
           left.log_level == right.log_level && left.close_timeout == right.close_timeout;
}

bool ConfigFile::Good() const {
    return std::none_of(mistakes.begin(), mistakes.end(), [](const Mistake &mistake) { return mistake.fatal; });
}

std::string ConfigFile::Report() const {
    std::string report;
    for (const Mistake &mistake : mistakes) {
        report += path;
        if (mistake.line > 0) {
            report += ":" + std::to_string(mistake.line) + ":" + std::to_string(mistake.column);
        }
        report += std::string(": ") + (mistake.fatal ? "" : "warning: ") + mistake.text + "\n";
    }
    return report;
}

ConfigFile ReadConfigFile(const std::string &path, const Environment &environment) {
    try {
        return ParseConfig(ReadWhole(path), path, environment);
    } catch (const std::exception &error) {
        ConfigFile file;
        file.path = path;
        file.mistakes.push_back({0, 0, error.what(), true});
        return file;
    }
}

ConfigFile ParseConfig(const std::string &text, const std::string &path, const Environment &environment) {
    ConfigFile file;
    file.path = path;
    try {
        const toml::table root = toml::parse(text, path);
        Reader(file, environment).Read(root);
    } catch (const toml::parse_error &error) {
        file.mistakes.push_back({error.source().begin.line, error.source().begin.column, WithoutValues(text, error), true});
    }
    std::stable_sort(file.mistakes.begin(), file.mistakes.end(), [](const Mistake &left, const Mistake &right) {
        return std::pair(left.line, left.column) < std::pair(right.line, right.column);
    });
    return file;
}

std::string RealPath(const std::string &path) {
    std::error_code error;
    const std::filesystem::path real = std::filesystem::weakly_canonical(path, error);
    return error ? path : real.string();
}

std::string PrintConfig(const ServiceConfig &service, const std::vector<SourceConfig> &sources) {
    std::ostringstream out;
    out << "[service]\n";
    if (!service.http.empty()) {
        out << "http = " << TomlText(service.http) << "\n";
    }
    if (!service.http_token.empty()) {
        out << "# http_token is set\n";
    }
    if (!service.log_file.empty()) {
        out << "log = " << TomlText(std::filesystem::absolute(service.log_file).lexically_normal().string()) << "\n";
    }
    if (!service.log_level.empty()) {
        out << "log_level = " << TomlText(service.log_level) << "\n";
    }
    out << "close_timeout = " << NumberText(service.close_timeout.value_or(kCloseTimeout)) << "\n";
    for (const SourceConfig &source : sources) {
        const auto protocol = ProtocolOf(source.url);
        out << "\n[[source]]\nname = " << TomlText(source.name) << "\nurl = " << TomlText(PublicUrl(source.url)) << "\n";
        for (const SourceField &field : SourceFields()) {
            const std::string value = field.get(source);
            if (value.empty() || !protocol || !Applies(field, *protocol)) {
                continue;
            }
            if (field.secret) {
                out << "# " << field.key << " is set\n";
            } else {
                out << field.key << " = " << (field.kind == SourceField::Kind::kText ? TomlText(PublicUrl(value)) : value)
                    << "\n";
            }
        }
        if (!source.stall_watch) {
            out << "# stall_watch is " << StallWatchOf(source)
                << (protocol == Protocol::kHls ? " until the pauses between segments are known\n" : "\n");
        }
    }
    return out.str();
}

}  // namespace tool
