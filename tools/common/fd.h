// File descriptors: ownership and complete writes.
#pragma once

#include <cstddef>
#include <functional>
#include <string_view>
#include <utility>

namespace tool {

class Fd {
  public:
    Fd() = default;
    explicit Fd(int fd) : m_fd(fd) {}
    Fd(Fd &&other) noexcept : m_fd(std::exchange(other.m_fd, -1)) {}
    Fd &operator=(Fd &&other) noexcept;
    Fd(const Fd &) = delete;
    Fd &operator=(const Fd &) = delete;
    ~Fd();

    int Get() const { return m_fd; }
    explicit operator bool() const { return m_fd >= 0; }
    // Closes it now. 0, or what the file has failed with, which may be known only then.
    int Close();

  private:
    int m_fd = -1;
};

// A second descriptor for the same file, out of the way of 0, 1 and 2
// and not handed to children. Invalid on failure.
Fd Duplicate(int fd);

// Makes sure that 0, 1 and 2 are open, so that no other file can take their place.
void OpenStandardDescriptors();

// Writes everything. False when the other side is gone or the file refuses, with errno set. While
// the file takes nothing, `give_up` is asked at every signal and about five times a second; when
// it says so, the rest is left, errno ECANCELED.
bool WriteAll(int fd, std::string_view data, const std::function<bool()> &give_up = {});

}  // namespace tool
