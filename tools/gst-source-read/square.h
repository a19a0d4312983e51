// The size of a picture on a screen whose pixels are square.
#pragma once

namespace reader {

struct PictureSize {
    int width = 0;
    int height = 0;
};

// Keeps the lines and changes the width. A pixel shape that no camera has, or a width that no viewer opens,
// leaves the picture as it is.
PictureSize SquarePixels(PictureSize coded, int par_n, int par_d);

// The same shape with at most this width; 0: any.
PictureSize NoWiderThan(PictureSize size, int width);

}  // namespace reader
