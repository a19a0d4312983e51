// Colours of a terminal, when they are wanted.
#pragma once

#include <string>
#include <string_view>

namespace tool {

constexpr std::string_view kPlain = "\x1b[0m";
constexpr std::string_view kBold = "\x1b[1m";
constexpr std::string_view kDim = "\x1b[2m";
constexpr std::string_view kRed = "\x1b[31m";
constexpr std::string_view kGreen = "\x1b[32m";
constexpr std::string_view kYellow = "\x1b[33m";

class Painter {
  public:
    explicit Painter(bool colors) : m_colors(colors) {}
    std::string operator()(std::string_view style, const std::string &text) const {
        return m_colors && !text.empty() ? std::string(style) + text + std::string(kPlain) : text;
    }

  private:
    bool m_colors;
};

}  // namespace tool
