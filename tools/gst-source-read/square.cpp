#include "square.h"

#include <algorithm>
#include <cstdint>

namespace reader {

PictureSize SquarePixels(PictureSize coded, int par_n, int par_d) {
    constexpr int64_t kMostStretch = 4;
    constexpr int64_t kWidest = 16384;
    const int64_t wide = par_n;
    const int64_t high = par_d;
    if (wide <= 0 || high <= 0 || wide > high * kMostStretch || high > wide * kMostStretch) {
        return coded;
    }
    const int64_t width = std::max<int64_t>((coded.width * wide + high / 2) / high, 1);
    return width > kWidest ? coded : PictureSize{static_cast<int>(width), coded.height};
}

PictureSize NoWiderThan(PictureSize size, int width) {
    if (width <= 0 || size.width <= width) {
        return size;
    }
    const int64_t height = (int64_t{size.height} * width + size.width / 2) / size.width;
    return {width, static_cast<int>(std::max<int64_t>(height, 1))};
}

}  // namespace reader
