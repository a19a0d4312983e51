#include "file_names.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <iomanip>
#include <sstream>
#include <stdexcept>
#include <utility>

namespace reader {
namespace {

std::string Expanded(const std::string &pattern, time_t moment) {
    tm local{};
    localtime_r(&moment, &local);
    std::ostringstream text;
    text << std::put_time(&local, pattern.c_str());
    return text.str();
}

[[noreturn]] void RefuseExisting(const std::string &path) {
    throw std::runtime_error(path + ": there is such a file already; --overwrite replaces it");
}

// The folders come from the pattern.
bool NamesFolders(const std::string &pattern) {
    const size_t slash = pattern.rfind('/');
    return slash != std::string::npos && pattern.find('%') < slash;
}

// What the pattern names comes with the time, so nobody can have made it before.
void MakeFolders(const std::string &pattern, const std::string &path) {
    if (NamesFolders(pattern)) {
        std::error_code error;
        std::filesystem::create_directories(std::filesystem::path(path).parent_path(), error);
        if (error) {
            throw std::runtime_error(path + ": " + error.message());
        }
    }
}

}  // namespace

std::string WithMark(const std::string &path, const std::string &mark) {
    const size_t slash = path.rfind('/');
    const size_t name = slash == std::string::npos ? 0 : slash + 1;
    const size_t dot = path.rfind('.');
    const size_t at = dot == std::string::npos || dot <= name ? path.size() : dot;
    return path.substr(0, at) + mark + path.substr(at);
}

FileNames::FileNames(std::string out, bool segmented, bool overwrite)
    : m_out(std::move(out)), m_segmented(segmented), m_overwrite(overwrite) {}

std::string FileNames::NameAt(time_t moment) const {
    if (m_out.find('%') != std::string::npos) {
        return Expanded(m_out, moment);
    }
    return m_segmented ? WithMark(m_out, Expanded("-%Y%m%d-%H%M%S", moment)) : m_out;
}

void FileNames::Check() const {
    const std::string path = NameAt(std::time(nullptr));
    if (!m_overwrite && access(path.c_str(), F_OK) == 0) {
        RefuseExisting(path);
    }
    const std::filesystem::path folder = std::filesystem::path(path).parent_path();
    if (!NamesFolders(m_out) && access(folder.empty() ? "." : folder.c_str(), W_OK | X_OK) != 0) {
        throw std::runtime_error(path + ": " + std::strerror(errno));
    }
}

int FileNames::Create(time_t moment, std::string &path) {
    constexpr mode_t kMode = 0666;
    const std::string name = NameAt(moment);
    MakeFolders(m_out, name);
    // A recording that runs is not given up for a name that somebody else has.
    const bool first = m_used.empty();
    for (unsigned number = 1;; ++number) {
        path = number == 1 ? name : WithMark(name, "-" + std::to_string(number));
        if (m_used.count(path) > 0) {
            continue;
        }
        const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC | (m_overwrite ? O_TRUNC : O_EXCL), kMode);
        if (fd >= 0) {
            m_used.insert(path);
            return fd;
        }
        if (errno == EEXIST && first) {
            RefuseExisting(path);
        }
        if (errno != EEXIST) {
            throw std::runtime_error(path + ": " + std::strerror(errno));
        }
    }
}

}  // namespace reader
