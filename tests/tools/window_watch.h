// A display without a screen, and what its windows show.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "child.h"

class WindowWatch {
  public:
    // Starts an X server of its own.
    WindowWatch();
    ~WindowWatch();
    WindowWatch(const WindowWatch &) = delete;
    WindowWatch &operator=(const WindowWatch &) = delete;

    // For the environment of those who draw.
    const std::string &Display() const { return m_display; }

    struct Size {
        unsigned width = 0;
        unsigned height = 0;
        bool operator==(const Size &other) const { return width == other.width && height == other.height; }
    };
    // Of the window with this title; nothing while there is none.
    std::optional<Size> SizeOf(const std::string &title) const;
    // Colour at a place of the window, 0xRRGGBB.
    std::optional<uint32_t> ColourAt(const std::string &title, int x, int y) const;
    // Asks the window to close, as its button does.
    void Close(const std::string &title) const;

  private:
    struct Connection;
    Child m_server;
    std::string m_display;
    std::unique_ptr<Connection> m_connection;
};
