#include "LogCapture.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <stdexcept>
#include <string_view>
#include <utility>

namespace peers {
namespace {

// Whether `text` has the shape of `form`, in which 0 stands for any digit.
bool HasShape(std::string_view text, std::string_view form) {
    return text.size() == form.size() && std::equal(text.begin(), text.end(), form.begin(), [](char c, char wanted) {
               return wanted == '0' ? std::isdigit(static_cast<unsigned char>(c)) != 0 : c == wanted;
           });
}

// "[2024-01-02 03.04.05] (LEVEL) (123) message"; the logger's form is part of what the tests check.
LogLine Parse(std::string raw) {
    static constexpr std::string_view stamp = "[0000-00-00 00.00.00] (";
    LogLine line{std::move(raw), "", "", Clock::now()};
    line.message = line.raw;
    const std::string_view all = line.raw;
    const size_t levelEnd = all.find(") (", stamp.size());
    const size_t numberEnd = levelEnd == std::string_view::npos ? levelEnd : all.find(") ", levelEnd + 3);
    if (numberEnd == std::string_view::npos || !HasShape(all.substr(0, stamp.size()), stamp)) {
        return line;
    }
    const std::string_view level = all.substr(stamp.size(), levelEnd - stamp.size());
    const std::string_view number = all.substr(levelEnd + 3, numberEnd - levelEnd - 3);
    const bool known = level == "FATAL" || level == "ERR" || level == "WARN" || level == "INFO" || level == "DEBUG";
    if (known && !number.empty() && HasShape(number, std::string(number.size(), '0'))) {
        line.level = level;
        line.message = all.substr(numberEnd + 2);
    }
    return line;
}

}  // namespace

LogCapture::LogCapture() {
    std::fflush(stdout);
    int ends[2] = {-1, -1};
    saved_ = fcntl(1, F_DUPFD_CLOEXEC, 3);
    if (saved_ < 0 || pipe2(ends, O_CLOEXEC) != 0 || dup2(ends[1], 1) < 0) {
        throw std::runtime_error("standard output cannot be captured");
    }
    // The library does not wait for room.
    fcntl(ends[1], F_SETPIPE_SZ, 1 << 20);
    close(ends[1]);
    pipe_ = ends[0];
    reader_ = std::thread([this] { Read(); });
}

void LogCapture::Read() {
    std::string pending;
    char block[4096];
    for (;;) {
        pollfd ready{pipe_, POLLIN, 0};
        poll(&ready, 1, -1);
        // Reading and keeping are one step for Drain: an empty pipe means that all lines are kept.
        const std::lock_guard<std::mutex> lock(mutex_);
        const ssize_t size = read(pipe_, block, sizeof block);
        if (size <= 0) {
            break;
        }
        pending.append(block, static_cast<size_t>(size));
        for (size_t end = pending.find('\n'); end != std::string::npos; end = pending.find('\n')) {
            lines_.push_back(Parse(pending.substr(0, end)));
            pending.erase(0, end + 1);
        }
    }
    if (!pending.empty()) {
        const std::lock_guard<std::mutex> lock(mutex_);
        lines_.push_back(Parse(pending));
    }
}

void LogCapture::Drain() const {
    WaitFor([this] {
        const std::lock_guard<std::mutex> lock(mutex_);
        int unread = 0;
        return pipe_ < 0 || ioctl(pipe_, FIONREAD, &unread) != 0 || unread == 0;
    });
}

std::vector<LogLine> LogCapture::Lines() const {
    Drain();
    const std::lock_guard<std::mutex> lock(mutex_);
    return lines_;
}

template <typename Condition>
size_t LogCapture::CountIf(Condition condition) const {
    Drain();
    const std::lock_guard<std::mutex> lock(mutex_);
    return static_cast<size_t>(std::count_if(lines_.begin(), lines_.end(), condition));
}

size_t LogCapture::Count(const std::string &level, const std::string &message) const {
    return CountIf([&](const LogLine &line) { return line.level == level && line.message == message; });
}

bool LogCapture::WaitLine(const std::string &level, const std::string &message, size_t times) const {
    return WaitFor([&] { return Count(level, message) >= times; });
}

size_t LogCapture::CountContaining(const std::string &text) const {
    return CountIf([&](const LogLine &line) { return line.raw.find(text) != std::string::npos; });
}

void LogCapture::Restore() {
    if (saved_ < 0) {
        return;
    }
    std::fflush(stdout);
    dup2(saved_, 1);
    close(saved_);
    saved_ = -1;
    reader_.join();
    const std::lock_guard<std::mutex> lock(mutex_);
    close(pipe_);
    pipe_ = -1;
}

void LogCapture::Dump() {
    Restore();
    for (const auto &line : Lines()) {
        std::printf("    | %s\n", line.raw.c_str());
    }
    std::fflush(stdout);
}

}  // namespace peers
