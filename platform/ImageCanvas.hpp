#pragma once

#include <optional>
#include <string>

#include "platform/AutoMockable.hpp"
#include "platform/Bytes.hpp"

namespace vontu::platform {

struct Rgba {
    double red = 0, green = 0, blue = 0, alpha = 1;
    bool operator==(const Rgba&) const = default;
};

struct Rect {
    double x = 0, y = 0, width = 0, height = 0;
};

enum class FontWeight { regular, medium, semibold, bold };

struct Font {
    double size = 17;
    FontWeight weight = FontWeight::regular;
};

enum class TextAlignment { left, center, right };

// A bitmap drawing context, as UIKit's image context: origin top-left, units of points, a
// transparent start unless opaque. Not thread-safe; one owner at a time.
class ImageCanvas : public AutoMockable {
public:
    // Later drawing is limited to the inside of this rounded rectangle.
    virtual void clipToRoundedRect(const Rect& rect, double cornerRadius) = 0;
    virtual void fillRect(const Rect& rect, const Rgba& color) = 0;
    // The height of one line of text in the font (ascent + descent + leading).
    virtual double lineHeight(const Font& font) = 0;
    // Draws text within the rectangle, starting at its top, wrapped at its width.
    virtual void drawText(const std::string& text, const Rect& rect, const Font& font,
                          const Rgba& color, TextAlignment alignment) = 0;
    // The picture as PNG bytes; absent when it cannot be encoded.
    virtual std::optional<Bytes> pngRepresentation() = 0;
};

}  // namespace vontu::platform
