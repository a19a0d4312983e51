#include "secrets.h"

#include <glib.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <memory>
#include <sstream>
#include <stdexcept>

namespace tool {
namespace {

std::vector<std::string> ReadLines(const std::string &path, size_t count, std::vector<std::string> &warnings) {
    std::ifstream file(path);
    if (!file) {
        throw std::runtime_error(path + ": " + std::strerror(errno));
    }
    struct stat info {};
    if (stat(path.c_str(), &info) == 0 && S_ISREG(info.st_mode) && (info.st_mode & (S_IRGRP | S_IROTH)) != 0) {
        warnings.push_back(path + " holds a secret and can be read by others; chmod 600 would keep it to yourself");
    }
    // A device without an end has no line either.
    constexpr std::streamsize kMost = std::streamsize{64} * 1024;
    std::string text(static_cast<size_t>(kMost), '\0');
    file.read(text.data(), kMost);
    text.resize(static_cast<size_t>(file.gcount()));
    if (text.size() == static_cast<size_t>(kMost)) {
        throw std::runtime_error(path + ": is larger than any secret");
    }
    std::istringstream in(text);
    std::vector<std::string> lines;
    std::string line;
    while (lines.size() < count && std::getline(in, line)) {
        if (!line.empty() && line.back() == '\r') {
            line.pop_back();
        }
        lines.push_back(line);
    }
    if (lines.empty() || lines.front().empty()) {
        throw std::runtime_error(path + ": the first line is empty");
    }
    return lines;
}

}  // namespace

std::string ReadSecretFile(const std::string &path, std::vector<std::string> &warnings) {
    return ReadLines(path, 1, warnings).front();
}

Credentials ReadCredentialsFile(const std::string &path, std::vector<std::string> &warnings) {
    const std::vector<std::string> lines = ReadLines(path, 2, warnings);
    if (lines.size() == 2 && !lines[1].empty()) {
        return {lines[0], lines[1]};
    }
    const size_t colon = lines[0].find(':');
    if (colon == std::string::npos) {
        throw std::runtime_error(path + ": neither \"user:password\" nor two lines");
    }
    return {lines[0].substr(0, colon), lines[0].substr(colon + 1)};
}

void Masker::Add(const std::string &secret) {
    if (secret.empty()) {
        return;
    }
    // A short text occurs by chance anywhere in a line, so it is
    // taken out only where the library writes an option.
    constexpr size_t kUnmistakable = 4;
    const std::lock_guard<std::mutex> lock(m_rules->mutex);
    std::vector<Rule> &rules = m_rules->all;
    const auto add = [&rules](Rule rule) {
        const bool known = std::any_of(rules.begin(), rules.end(), [&rule](const Rule &one) { return one.text == rule.text; });
        if (!known) {
            rules.push_back(std::move(rule));
        }
    };
    if (secret.size() >= kUnmistakable) {
        add({secret, "***"});
    } else {
        for (const char *key : {"pwd=", "passphrase=", "token="}) {
            add({key + secret, std::string(key) + "***"});
        }
    }
    // Longest first: a secret that contains another one must not be left half readable.
    std::stable_sort(rules.begin(), rules.end(),
                     [](const Rule &left, const Rule &right) { return left.text.size() > right.text.size(); });
}

void Masker::AddCredentials(const std::string &user, const std::string &password) {
    Add(password);
    if (user.empty() || password.empty()) {
        return;
    }
    const std::string pair = user + ":" + password;
    const std::unique_ptr<gchar, decltype(&g_free)> encoded(
        g_base64_encode(reinterpret_cast<const guchar *>(pair.data()), pair.size()), g_free);
    Add(encoded.get());
}

std::string Masker::Mask(std::string line) const {
    const std::lock_guard<std::mutex> lock(m_rules->mutex);
    for (const Rule &rule : m_rules->all) {
        for (size_t at = line.find(rule.text); at != std::string::npos;
             at = line.find(rule.text, at + rule.replacement.size())) {
            line.replace(at, rule.text.size(), rule.replacement);
        }
    }
    return line;
}

}  // namespace tool
