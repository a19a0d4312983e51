#include "picture_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <stdexcept>

#include "emergency.h"
#include "output.h"

namespace reader {
namespace {

[[noreturn]] void Fail(const std::string &path) {
    throw std::runtime_error(path + ": " + std::strerror(errno));
}

// A rename would put a file in the place of a device, a pipe or a socket.
void RefuseOtherThanFiles(const std::string &path) {
    struct stat found {};
    if (stat(path.c_str(), &found) == 0 && !S_ISREG(found.st_mode)) {
        throw std::runtime_error(path + ": it is there and is no file");
    }
}

}  // namespace

PictureFile::PictureFile(const std::string &path) : m_path(path) {
    if (path == "-") {
        return;
    }
    RefuseOtherThanFiles(path);
    constexpr mode_t kMode = 0666;
    constexpr int kTries = 100;
    const std::string temporary = path + ".part-" + std::to_string(getpid());
    for (int number = 0; !m_file; ++number) {
        // One that a process of the same number has left behind stays.
        m_temporary = temporary + (number > 0 ? "-" + std::to_string(number) : "");
        m_file = tool::Fd(open(m_temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, kMode));
        if (!m_file && (errno != EEXIST || number == kTries)) {
            m_temporary.clear();
            Fail(path);
        }
    }
    tool::emergency::AddFile(m_temporary);
}

PictureFile::~PictureFile() {
    if (!m_temporary.empty()) {
        unlink(m_temporary.c_str());
        tool::emergency::ForgetFile(m_temporary);
    }
}

void PictureFile::Finish(std::string_view data) {
    if (m_path == "-") {
        WriteOut(data);
        return;
    }
    Write(m_file.Get(), m_path, data);
    // A full disk can show as late as here.
    if (fsync(m_file.Get()) != 0 || std::rename(m_temporary.c_str(), m_path.c_str()) != 0) {
        Fail(m_path);
    }
    tool::emergency::ForgetFile(m_temporary);
    m_temporary.clear();
}

}  // namespace reader
