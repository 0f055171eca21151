// The drawing module's notification banner: a rounded card with the app icon (or the sender's
// avatar wearing a small app icon), the title in bold, the subtitle, up to four lines of body
// and the time, and the first image attachment as a thumbnail on the right. Text is laid out
// by pango, so any script (right-to-left paragraphs start at the right) and emoji work.

#include <cairo.h>
#include <pango/pangocairo.h>

#include <algorithm>
#include <cmath>
#include <memory>
#include <numbers>
#include <optional>
#include <type_traits>
#include <vector>

#include "platform/NotificationPreview.hpp"
#include "platform/linux/DrawingLoader.hpp"
#include "platform/linux/PangoFontOptions.hpp"

namespace vontu::platform::linux_host {

namespace {

using Layout = PreviewLayout;

// Same family as the canvas; fontconfig falls back per character for other scripts and emoji.
constexpr const char* kFontFamily = "Inter";
constexpr double kCardRadius = 20;
constexpr double kGap = 10;
constexpr double kTitleSize = 15;
constexpr double kTimeSize = 13;

struct Colour {
    double red, green, blue, alpha = 1;
};

struct Palette {
    Colour card, primary, secondary, placeholder, iconTop, iconBottom;
};

const Palette& paletteFor(PreviewStyle style) {
    static constexpr Palette light{{0.96, 0.96, 0.97}, {0, 0, 0}, {0.43, 0.43, 0.45},
                                   {0.82, 0.82, 0.85}, {0.25, 0.52, 1.0}, {0.11, 0.33, 0.86}};
    static constexpr Palette dark{{0.16, 0.16, 0.17}, {1, 1, 1}, {0.62, 0.62, 0.66},
                                  {0.32, 0.32, 0.35}, {0.25, 0.52, 1.0}, {0.11, 0.33, 0.86}};
    return style == PreviewStyle::dark ? dark : light;
}

template <typename T, auto release>
struct Releaser {
    void operator()(T* object) const { release(object); }
};
using SurfacePtr =
    std::unique_ptr<cairo_surface_t, Releaser<cairo_surface_t, cairo_surface_destroy>>;
using ContextPtr = std::unique_ptr<cairo_t, Releaser<cairo_t, cairo_destroy>>;
using LayoutPtr = std::unique_ptr<PangoLayout, Releaser<void, g_object_unref>>;
using PangoContextPtr = std::unique_ptr<PangoContext, Releaser<void, g_object_unref>>;

void setSource(cairo_t* cr, const Colour& colour) {
    cairo_set_source_rgba(cr, colour.red, colour.green, colour.blue, colour.alpha);
}

void roundedRectPath(cairo_t* cr, double x, double y, double width, double height,
                     double radius) {
    constexpr double quarter = std::numbers::pi / 2;
    radius = std::min(radius, std::min(width, height) / 2);
    cairo_new_sub_path(cr);
    cairo_arc(cr, x + width - radius, y + radius, radius, -quarter, 0);
    cairo_arc(cr, x + width - radius, y + height - radius, radius, 0, quarter);
    cairo_arc(cr, x + radius, y + height - radius, radius, quarter, 2 * quarter);
    cairo_arc(cr, x + radius, y + radius, radius, 2 * quarter, 3 * quarter);
    cairo_close_path(cr);
}

// --- Images

struct ByteReader {
    const Bytes* bytes;
    std::size_t offset = 0;
};

cairo_status_t readFromBytes(void* closure, unsigned char* data, unsigned int length) {
    auto* reader = static_cast<ByteReader*>(closure);
    if (reader->bytes->size() - reader->offset < length) return CAIRO_STATUS_READ_ERROR;
    std::copy_n(reader->bytes->begin() + static_cast<std::ptrdiff_t>(reader->offset), length,
                data);
    reader->offset += length;
    return CAIRO_STATUS_SUCCESS;
}

// A PNG decoded; absent for anything else (JPEG and GIF attachments get a placeholder).
SurfacePtr decodePng(const Bytes& bytes) {
    ByteReader reader{&bytes};
    SurfacePtr surface(cairo_image_surface_create_from_png_stream(readFromBytes, &reader));
    if (cairo_surface_status(surface.get()) != CAIRO_STATUS_SUCCESS) return nullptr;
    if (cairo_image_surface_get_width(surface.get()) <= 0 ||
        cairo_image_surface_get_height(surface.get()) <= 0) {
        return nullptr;
    }
    return surface;
}

// Fills the current path with the image scaled to cover the square at (x, y), centred.
void fillPathWithImage(cairo_t* cr, cairo_surface_t* image, double x, double y, double size) {
    const double width = cairo_image_surface_get_width(image);
    const double height = cairo_image_surface_get_height(image);
    const double scale = size / std::min(width, height);
    cairo_save(cr);
    cairo_clip(cr);
    cairo_translate(cr, x + (size - width * scale) / 2, y + (size - height * scale) / 2);
    cairo_scale(cr, scale, scale);
    cairo_set_source_surface(cr, image, 0, 0);
    cairo_pattern_set_filter(cairo_get_source(cr), CAIRO_FILTER_GOOD);
    cairo_paint(cr);
    cairo_restore(cr);
}

// --- Text

LayoutPtr makeLayout(PangoContext* pango, const std::string& text, double size, PangoWeight weight,
                     double width, int maxLines) {
    LayoutPtr layout(pango_layout_new(pango));
    PangoFontDescription* font = pango_font_description_new();
    pango_font_description_set_family(font, kFontFamily);
    pango_font_description_set_weight(font, weight);
    pango_font_description_set_absolute_size(font, size * PANGO_SCALE);
    pango_layout_set_font_description(layout.get(), font);
    pango_font_description_free(font);
    pango_layout_set_width(layout.get(), static_cast<int>(std::lround(width * PANGO_SCALE)));
    pango_layout_set_wrap(layout.get(), PANGO_WRAP_WORD_CHAR);
    // A negative height counts lines: the last one kept ends in an ellipsis when cut.
    pango_layout_set_height(layout.get(), -maxLines);
    pango_layout_set_ellipsize(layout.get(), PANGO_ELLIPSIZE_END);
    // Left means the paragraph's start: a right-to-left paragraph is aligned right.
    pango_layout_set_auto_dir(layout.get(), TRUE);
    pango_layout_set_alignment(layout.get(), PANGO_ALIGN_LEFT);
    // Bytes that are not UTF-8 are shown as replacement characters rather than refused.
    gchar* valid = g_utf8_make_valid(text.data(), static_cast<gssize>(text.size()));
    pango_layout_set_text(layout.get(), valid, -1);
    g_free(valid);
    return layout;
}

double layoutHeight(PangoLayout* layout) {
    int width = 0, height = 0;
    pango_layout_get_size(layout, &width, &height);
    return static_cast<double>(height) / PANGO_SCALE;
}

double layoutWidth(PangoLayout* layout) {
    int width = 0, height = 0;
    pango_layout_get_size(layout, &width, &height);
    return static_cast<double>(width) / PANGO_SCALE;
}

// A text laid out and where it goes.
struct PlacedText {
    LayoutPtr layout;
    double x = 0, y = 0;
    const Colour* colour = nullptr;
};

// --- The app icon: a blue rounded square with a white "V".

void drawAppIcon(cairo_t* cr, PangoContext* pango, const Palette& palette, double x, double y,
                 double size) {
    cairo_save(cr);
    cairo_new_path(cr);
    roundedRectPath(cr, x, y, size, size, size * 0.225);
    std::unique_ptr<cairo_pattern_t, decltype(&cairo_pattern_destroy)> gradient(
        cairo_pattern_create_linear(x, y, x, y + size), &cairo_pattern_destroy);
    const auto& top = palette.iconTop;
    const auto& bottom = palette.iconBottom;
    cairo_pattern_add_color_stop_rgb(gradient.get(), 0, top.red, top.green, top.blue);
    cairo_pattern_add_color_stop_rgb(gradient.get(), 1, bottom.red, bottom.green, bottom.blue);
    cairo_set_source(cr, gradient.get());
    cairo_fill(cr);
    auto letter = makeLayout(pango, "V", size * 0.6, PANGO_WEIGHT_BOLD, size, 1);
    pango_layout_set_alignment(letter.get(), PANGO_ALIGN_CENTER);
    cairo_set_source_rgb(cr, 1, 1, 1);
    cairo_move_to(cr, x, y + (size - layoutHeight(letter.get())) / 2);
    pango_cairo_show_layout(cr, letter.get());
    cairo_restore(cr);
}

// The sender's avatar in a circle, and the app icon on its lower right corner with a ring of
// the card's colour around it.
void drawAvatarWithAppIcon(cairo_t* cr, PangoContext* pango, const Palette& palette,
                           cairo_surface_t* avatar, double x, double y) {
    const double size = Layout::kIconSize;
    cairo_new_path(cr);
    cairo_arc(cr, x + size / 2, y + size / 2, size / 2, 0, 2 * std::numbers::pi);
    fillPathWithImage(cr, avatar, x, y, size);

    const double corner = Layout::kCornerIconSize;
    const double cornerX = x + size - corner + 3, cornerY = y + size - corner + 3;
    constexpr double ring = 1.5;
    cairo_new_path(cr);
    roundedRectPath(cr, cornerX - ring, cornerY - ring, corner + 2 * ring, corner + 2 * ring,
                    (corner + 2 * ring) * 0.225);
    setSource(cr, palette.card);
    cairo_fill(cr);
    drawAppIcon(cr, pango, palette, cornerX, cornerY, corner);
}

void drawThumbnail(cairo_t* cr, const Palette& palette, const Bytes& encoded, double x,
                   double y) {
    const double size = Layout::kThumbnailSize;
    cairo_new_path(cr);
    roundedRectPath(cr, x, y, size, size, 6);
    if (auto image = decodePng(encoded)) {
        fillPathWithImage(cr, image.get(), x, y, size);
    } else {
        setSource(cr, palette.placeholder);
        cairo_fill(cr);
    }
}

PangoContextPtr makePangoContext() {
    PangoContextPtr pango(pango_font_map_create_context(pango_cairo_font_map_get_default()));
    if (!pango) return nullptr;
    useDesignMetricsAndGreyEdges(pango.get());
    return pango;
}

// Where everything goes, in points; the card is as tall as its contents.
struct BannerLayout {
    std::vector<PlacedText> texts;
    double thumbnailX = 0, thumbnailY = 0;
    double height = 0;
};

BannerLayout layOut(PangoContext* pango, const NotificationPreview& preview,
                    const Palette& palette) {
    const double pad = Layout::kPadding;
    const double textX = pad + Layout::kIconSize + kGap;
    const double rightEdge = Layout::kWidth - pad;
    const bool hasThumbnail = preview.thumbnail.has_value();
    const double textRight = hasThumbnail ? rightEdge - Layout::kThumbnailSize - kGap : rightEdge;
    BannerLayout banner;

    // The time sits at the top right, on one line whatever its length.
    PlacedText time{makeLayout(pango, preview.relativeTime, kTimeSize, PANGO_WEIGHT_NORMAL,
                               Layout::kWidth, 1)};
    pango_layout_set_width(time.layout.get(), -1);
    time.x = rightEdge - layoutWidth(time.layout.get());
    time.y = pad + 1;
    time.colour = &palette.secondary;
    const double timeLeft = time.x;
    banner.texts.push_back(std::move(time));

    double y = pad;
    // Whichever text comes first shares its line with the time and ends before it.
    auto add = [&](const std::string& text, PangoWeight weight, int lines) {
        if (text.empty()) return;
        const double right = banner.texts.size() == 1 ? std::min(textRight, timeLeft - kGap)
                                                      : textRight;
        PlacedText placed{makeLayout(pango, text, kTitleSize, weight, right - textX, lines),
                          textX, y, &palette.primary};
        y += layoutHeight(placed.layout.get());
        banner.texts.push_back(std::move(placed));
    };
    add(preview.title, PANGO_WEIGHT_BOLD, 1);
    add(preview.subtitle, PANGO_WEIGHT_NORMAL, 1);
    add(preview.body, PANGO_WEIGHT_NORMAL, Layout::kMaxBodyLines);

    banner.thumbnailX = rightEdge - Layout::kThumbnailSize;
    banner.thumbnailY = pad + 20;  // below the time
    banner.height = std::max(y, pad + Layout::kIconSize);
    if (hasThumbnail) {
        banner.height = std::max(banner.height, banner.thumbnailY + Layout::kThumbnailSize);
    }
    banner.height += pad;
    return banner;
}

void paint(cairo_t* cr, PangoContext* pango, const NotificationPreview& preview,
           const Palette& palette, const BannerLayout& banner) {
    cairo_scale(cr, Layout::kScale, Layout::kScale);
    roundedRectPath(cr, 0, 0, Layout::kWidth, banner.height, kCardRadius);
    setSource(cr, palette.card);
    cairo_fill(cr);

    const double pad = Layout::kPadding;
    SurfacePtr avatar = preview.senderAvatar ? decodePng(*preview.senderAvatar) : nullptr;
    if (avatar) {
        drawAvatarWithAppIcon(cr, pango, palette, avatar.get(), pad, pad);
    } else {
        drawAppIcon(cr, pango, palette, pad, pad, Layout::kIconSize);
    }
    if (preview.thumbnail) {
        drawThumbnail(cr, palette, *preview.thumbnail, banner.thumbnailX, banner.thumbnailY);
    }
    for (const auto& text : banner.texts) {
        setSource(cr, *text.colour);
        cairo_move_to(cr, text.x, text.y);
        pango_cairo_show_layout(cr, text.layout.get());
    }
}

cairo_status_t appendToBytes(void* closure, const unsigned char* data, unsigned int length) {
    auto* bytes = static_cast<Bytes*>(closure);
    bytes->insert(bytes->end(), data, data + length);
    return CAIRO_STATUS_SUCCESS;
}

bool draw(const NotificationPreview& preview, Bytes& png) {
    const Palette& palette = paletteFor(preview.style);
    PangoContextPtr pango = makePangoContext();
    if (!pango) return false;
    const BannerLayout banner = layOut(pango.get(), preview, palette);

    const int pixelWidth = static_cast<int>(Layout::kWidth * Layout::kScale);
    const int pixelHeight = static_cast<int>(std::ceil(banner.height * Layout::kScale));
    SurfacePtr surface(cairo_image_surface_create(CAIRO_FORMAT_ARGB32, pixelWidth, pixelHeight));
    if (cairo_surface_status(surface.get()) != CAIRO_STATUS_SUCCESS) return false;
    ContextPtr context(cairo_create(surface.get()));
    if (cairo_status(context.get()) != CAIRO_STATUS_SUCCESS) return false;
    paint(context.get(), pango.get(), preview, palette, banner);
    cairo_surface_flush(surface.get());
    return cairo_surface_write_to_png_stream(surface.get(), appendToBytes, &png) ==
           CAIRO_STATUS_SUCCESS;
}

}  // namespace

}  // namespace vontu::platform::linux_host

extern "C" __attribute__((visibility("default"))) bool vontu_drawing_draw_notification_preview(
    const vontu::platform::NotificationPreview& preview, vontu::platform::Bytes& png) {
    static_assert(std::is_same_v<decltype(&vontu_drawing_draw_notification_preview),
                                 vontu::platform::linux_host::DrawNotificationPreviewFunction>);
    return vontu::platform::linux_host::draw(preview, png);
}
