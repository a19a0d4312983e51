// A pipe in place of standard output, read by nobody but the test.
#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <string>

namespace unit {

class OutputPipe {
  public:
    // `bytes`: what the pipe holds, one page at least; 0 for the usual.
    explicit OutputPipe(int bytes = 0) {
        std::fflush(stdout);
        m_saved = dup(STDOUT_FILENO);
        std::array<int, 2> ends{};
        if (m_saved < 0 || pipe2(ends.data(), O_CLOEXEC) != 0 || (bytes != 0 && fcntl(ends[1], F_SETPIPE_SZ, bytes) < 0)) {
            std::perror("no pipe");
            std::abort();
        }
        fcntl(ends[0], F_SETFL, O_NONBLOCK);
        dup2(ends[1], STDOUT_FILENO);
        close(ends[1]);
        m_reader = ends[0];
    }
    ~OutputPipe() {
        Drain();
        std::fflush(stdout);
        dup2(m_saved, STDOUT_FILENO);
        close(m_saved);
        close(m_reader);
    }
    OutputPipe(const OutputPipe &) = delete;
    OutputPipe &operator=(const OutputPipe &) = delete;

    void Fill() {
        fcntl(STDOUT_FILENO, F_SETFL, O_NONBLOCK);
        const std::string piece(4096, '.');
        for (std::size_t size = piece.size(); size > 0; size /= 2) {
            while (write(STDOUT_FILENO, piece.data(), size) > 0) {
            }
        }
        fcntl(STDOUT_FILENO, F_SETFL, 0);
    }
    // What has come; the filling left out.
    std::string Drain() {
        std::string text;
        std::array<char, 4096> bytes{};
        for (ssize_t got = 0; (got = read(m_reader, bytes.data(), bytes.size())) > 0;) {
            text.append(bytes.data(), static_cast<std::size_t>(got));
        }
        return text.substr(std::min(text.find_first_not_of('.'), text.size()));
    }

  private:
    int m_saved = -1;
    int m_reader = -1;
};

}  // namespace unit
