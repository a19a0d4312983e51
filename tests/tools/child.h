// A process under test: its output in files, its end by its own id, also when the test fails.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "fd.h"
#include "temp_dir.h"
#include "wait_for.h"

class Child {
  public:
    using Variables = std::map<std::string, std::string>;

    enum class Output { kFiles, kTerminal, kClosedPipe };

    // The program is looked up in PATH. With kTerminal, all three descriptors are a terminal of 100 x 30;
    // with kClosedPipe, standard output is a pipe that nobody reads any more.
    explicit Child(const std::vector<std::string> &command, const Variables &variables = {}, Output output = Output::kFiles);
    // Kills it if it still runs.
    ~Child();
    Child(const Child &) = delete;
    Child &operator=(const Child &) = delete;

    pid_t Id() const { return m_id; }
    void Signal(int number) const;
    bool Running();
    // Exit code, 256 + number when a signal ended it; nothing when it does not end within the bound.
    std::optional<int> Wait(std::chrono::milliseconds bound = 60s);

    std::string Out() const { return ReadAll(m_dir.File("out")); }
    std::string Err() const { return ReadAll(m_dir.File("err")); }
    // What the terminal has received so far.
    const std::string &Screen();
    // What a person types.
    void Type(std::string_view keys) const;
    // The other side of it.
    int Terminal() const { return m_terminal.Get(); }
    void Resize(unsigned short columns, unsigned short rows) const;

  private:
    TempDir m_dir;
    pid_t m_id = -1;
    std::optional<int> m_exit;
    tool::Fd m_terminal;
    std::string m_screen;
};

// A port of this machine that stays free until somebody binds it.
unsigned short FreeUdpPort();
