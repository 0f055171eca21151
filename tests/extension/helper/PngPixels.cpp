#include "tests/extension/helper/PngPixels.hpp"

#include <cairo.h>

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <memory>

namespace vontu::testing {

namespace {

struct Reader {
    const platform::Bytes* bytes;
    std::size_t offset = 0;
};

cairo_status_t readChunk(void* closure, unsigned char* data, unsigned int length) {
    auto* reader = static_cast<Reader*>(closure);
    if (reader->bytes->size() - reader->offset < length) return CAIRO_STATUS_READ_ERROR;
    std::memcpy(data, reader->bytes->data() + reader->offset, length);
    reader->offset += length;
    return CAIRO_STATUS_SUCCESS;
}

int channel(double fraction) { return static_cast<int>(std::lround(fraction * 255)); }

}  // namespace

std::optional<PngPixels> PngPixels::decode(const platform::Bytes& png) {
    Reader reader{&png};
    std::unique_ptr<cairo_surface_t, decltype(&cairo_surface_destroy)> surface(
        cairo_image_surface_create_from_png_stream(readChunk, &reader), &cairo_surface_destroy);
    if (cairo_surface_status(surface.get()) != CAIRO_STATUS_SUCCESS) return std::nullopt;
    cairo_surface_flush(surface.get());
    PngPixels pixels;
    pixels.width_ = cairo_image_surface_get_width(surface.get());
    pixels.height_ = cairo_image_surface_get_height(surface.get());
    pixels.stride_ = cairo_image_surface_get_stride(surface.get());
    const unsigned char* data = cairo_image_surface_get_data(surface.get());
    // cairo writes a picture without any transparency as RGB, and decodes it as RGB24.
    pixels.opaque_ = cairo_image_surface_get_format(surface.get()) == CAIRO_FORMAT_RGB24;
    pixels.argb_.assign(data, data + static_cast<std::size_t>(pixels.stride_ * pixels.height_));
    return pixels;
}

Pixel PngPixels::at(int x, int y) const {
    std::uint32_t word = 0;
    std::memcpy(&word, argb_.data() + y * stride_ + x * 4, sizeof word);
    int alpha = opaque_ ? 255 : static_cast<int>(word >> 24);
    auto unpremultiply = [alpha](std::uint32_t value) {
        int premultiplied = static_cast<int>(value & 0xFF);
        return alpha == 0 ? 0 : (premultiplied * 255 + alpha / 2) / alpha;
    };
    return {unpremultiply(word >> 16), unpremultiply(word >> 8), unpremultiply(word), alpha};
}

bool showsColor(const Pixel& pixel, const platform::Rgba& color, int tolerance) {
    return std::abs(pixel.red - channel(color.red)) <= tolerance &&
           std::abs(pixel.green - channel(color.green)) <= tolerance &&
           std::abs(pixel.blue - channel(color.blue)) <= tolerance &&
           std::abs(pixel.alpha - channel(color.alpha)) <= tolerance;
}

bool isWhite(const Pixel& pixel) {
    return pixel.alpha == 255 && pixel.red >= 250 && pixel.green >= 250 && pixel.blue >= 250;
}

}  // namespace vontu::testing
