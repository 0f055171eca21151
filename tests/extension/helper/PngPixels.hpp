#pragma once

#include <cstdint>
#include <optional>

#include "platform/Bytes.hpp"
#include "platform/ImageCanvas.hpp"

namespace vontu::testing {

struct Pixel {
    int red = 0, green = 0, blue = 0, alpha = 0;  // 0...255, not premultiplied
};

// A PNG decoded with cairo, for looking at single pixels.
class PngPixels {
public:
    // Absent when the bytes are not a PNG that cairo reads.
    static std::optional<PngPixels> decode(const platform::Bytes& png);

    int width() const { return width_; }
    int height() const { return height_; }
    Pixel at(int x, int y) const;

private:
    int width_ = 0, height_ = 0, stride_ = 0;
    bool opaque_ = false;
    platform::Bytes argb_;
};

// True when the pixel shows the colour (fractions of 1) to within a rounding step or two.
bool showsColor(const Pixel& pixel, const platform::Rgba& color, int tolerance = 2);
bool isWhite(const Pixel& pixel);

}  // namespace vontu::testing
