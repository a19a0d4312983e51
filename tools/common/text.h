// Numbers and texts the way a person reads them.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace tool {

std::string FormatBitRate(uint32_t bits_per_second);                    // "1.21 Mb/s"; "-" for 0
std::string FormatBytes(uint64_t bytes);                                // "1.8 MB", decimal multiples
std::string FormatRate(double per_second);                              // "25", "29.97"; "-" for 0
std::string FormatAge(std::optional<uint64_t> nanoseconds);             // "0.04 s", "12 s", "3 min", "5 h"; "-" for none
std::string FormatElapsed(double seconds);                              // "00:01:23"
std::string FormatPicture(int width, int height, int scan);             // "1920x1080p", "-" while unknown
std::string FormatSound(int sample_rate, int channels);                 // "48000 Hz 2 ch", "-" while unknown
std::string Count(uint64_t number, const char *one, const char *many);  // "1 frame", "2 frames"

// Without escape sequences and other control characters, which would move the cursor of a terminal, and in
// valid UTF-8.
std::string Printable(std::string_view text);

// Without escape sequences, as terminals read them; `keep_colors` leaves those that only choose colours.
std::string StripEscapes(std::string_view text, bool keep_colors);

// Columns that a printable UTF-8 text takes: two for most letters of East Asia, none for an accent of its
// own.
size_t Columns(std::string_view text);

// The text cut to `columns`, with ".." at the end when something was cut.
std::string Cut(std::string_view text, size_t columns);

}  // namespace tool
