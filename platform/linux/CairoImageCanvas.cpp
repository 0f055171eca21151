// The drawing module: an ImageCanvas on a cairo image surface, with text laid out by pango.
// Built as a loadable module of its own; its one export is the factory at the end.

#include <cairo.h>
#include <fontconfig/fontconfig.h>
#include <pango/pangocairo.h>
#include <pango/pangofc-fontmap.h>
#include <png.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <memory>
#include <mutex>
#include <new>
#include <numbers>
#include <type_traits>
#include <vector>

#include "platform/ImageCanvas.hpp"
#include "platform/linux/DrawingLoader.hpp"
#include "platform/linux/PangoFontOptions.hpp"

namespace vontu::platform::linux_host {

namespace {

// The family drawn in place of the system font; fontconfig substitutes a similar one when it
// is not installed.
constexpr const char* kFontFamily = "Inter";

// A font configuration holding Inter alone (where fonts-inter installs it), read from the
// system's font cache, with the rendering settings the system configuration gives it (slight
// hinting, grey-scale edges, the default LCD filter), so that it draws the same pixels. Loading
// the whole system configuration means parsing its XML and every font directory's cache; the
// badge needs two letters of one font. Text with a character Inter lacks is drawn with the
// system configuration instead.
constexpr const char* kInterOnlyConfig = R"(<?xml version="1.0"?>
<fontconfig>
  <dir>/usr/share/fonts/opentype/inter</dir>
  <cachedir>/var/cache/fontconfig</cachedir>
  <match target="pattern">
    <edit name="hintstyle" mode="append"><const>hintslight</const></edit>
    <edit name="antialias" mode="append"><bool>true</bool></edit>
    <edit name="lcdfilter" mode="append"><const>lcddefault</const></edit>
  </match>
</fontconfig>)";

struct FontConfigDeleter {
    void operator()(FcConfig* config) const { FcConfigDestroy(config); }
};

// Absent when Inter is not installed where the configuration looks for it. Made the process's
// current configuration too: pango initialises fontconfig's current configuration on a thread
// of its own whatever configuration its font maps use, and would otherwise load the system's.
FcConfig* interOnlyConfig() {
    static FcConfig* const config = []() -> FcConfig* {
        std::unique_ptr<FcConfig, FontConfigDeleter> made(FcConfigCreate());
        if (!made ||
            !FcConfigParseAndLoadFromMemory(made.get(),
                                            reinterpret_cast<const FcChar8*>(kInterOnlyConfig),
                                            FcFalse) ||
            !FcConfigBuildFonts(made.get())) {
            return nullptr;
        }
        const FcFontSet* fonts = FcConfigGetFonts(made.get(), FcSetSystem);
        if (fonts == nullptr || fonts->nfont == 0) return nullptr;
        FcConfigSetCurrent(made.get());
        return made.release();
    }();
    return config;
}

// The system's whole configuration, loaded on first use.
FcConfig* systemConfig() {
    static FcConfig* const config = FcInitLoadConfigAndFonts();
    return config;
}

struct SurfaceDeleter {
    void operator()(cairo_surface_t* surface) const { cairo_surface_destroy(surface); }
};
struct ContextDeleter {
    void operator()(cairo_t* context) const { cairo_destroy(context); }
};
struct GObjectDeleter {
    void operator()(void* object) const { g_object_unref(object); }
};
struct FontDescriptionDeleter {
    void operator()(PangoFontDescription* description) const {
        pango_font_description_free(description);
    }
};
struct FontMetricsDeleter {
    void operator()(PangoFontMetrics* metrics) const { pango_font_metrics_unref(metrics); }
};

using PangoContextPtr = std::unique_ptr<PangoContext, GObjectDeleter>;

// Made once and kept for the process. Pango's font maps are not thread-safe (its default one is
// per thread), so everything that lays out or draws text, or makes or drops a context, holds
// fontMapsLock(). (Maps per thread would sit in this loaded module's dynamic TLS, which
// LeakSanitizer misreads at exit.)
std::mutex& fontMapsLock() {
    static std::mutex lock;
    return lock;
}

PangoFontMap* makeFontMap(FcConfig* config) {
    PangoFontMap* map = pango_cairo_font_map_new_for_font_type(CAIRO_FONT_TYPE_FT);
    if (map != nullptr) pango_fc_font_map_set_config(PANGO_FC_FONT_MAP(map), config);
    return map;
}

PangoFontMap* systemFontMap() {
    static PangoFontMap* const map = systemConfig() ? makeFontMap(systemConfig()) : nullptr;
    return map ? map : pango_cairo_font_map_get_default();
}

PangoFontMap* interOnlyFontMap() {
    static PangoFontMap* const map = interOnlyConfig() ? makeFontMap(interOnlyConfig()) : nullptr;
    return map ? map : systemFontMap();
}

// A pango context drawing on cr with the fonts of map.
PangoContextPtr makeContext(cairo_t* cr, PangoFontMap* map) {
    PangoContextPtr pango(pango_font_map_create_context(map));
    if (!pango) return nullptr;
    pango_cairo_update_context(cr, pango.get());
    useDesignMetricsAndGreyEdges(pango.get());
    return pango;
}

using FontDescriptionPtr = std::unique_ptr<PangoFontDescription, FontDescriptionDeleter>;

PangoWeight pangoWeight(FontWeight weight) {
    switch (weight) {
        case FontWeight::regular: return PANGO_WEIGHT_NORMAL;
        case FontWeight::medium: return PANGO_WEIGHT_MEDIUM;
        case FontWeight::semibold: return PANGO_WEIGHT_SEMIBOLD;
        case FontWeight::bold: return PANGO_WEIGHT_BOLD;
    }
    return PANGO_WEIGHT_NORMAL;
}

PangoAlignment pangoAlignment(TextAlignment alignment) {
    switch (alignment) {
        case TextAlignment::left: return PANGO_ALIGN_LEFT;
        case TextAlignment::center: return PANGO_ALIGN_CENTER;
        case TextAlignment::right: return PANGO_ALIGN_RIGHT;
    }
    return PANGO_ALIGN_LEFT;
}

int toPangoUnits(double points) { return static_cast<int>(std::lround(points * PANGO_SCALE)); }

FontDescriptionPtr describe(const Font& font) {
    FontDescriptionPtr description(pango_font_description_new());
    pango_font_description_set_family(description.get(), kFontFamily);
    pango_font_description_set_weight(description.get(), pangoWeight(font.weight));
    // Sizes are in points of the canvas, which are its pixels: no DPI scaling.
    pango_font_description_set_absolute_size(description.get(), font.size * PANGO_SCALE);
    return description;
}

void setSource(cairo_t* context, const Rgba& color) {
    cairo_set_source_rgba(context, color.red, color.green, color.blue, color.alpha);
}

// A surface's premultiplied native-endian ARGB as straight RGBA bytes, rounded as cairo's own
// PNG writer rounds them (so the file holds the same samples it would).
std::vector<std::uint8_t> straightRgba(cairo_surface_t* surface) {
    const int width = cairo_image_surface_get_width(surface);
    const int height = cairo_image_surface_get_height(surface);
    const int stride = cairo_image_surface_get_stride(surface);
    const unsigned char* data = cairo_image_surface_get_data(surface);
    std::vector<std::uint8_t> rgba(static_cast<std::size_t>(width) * height * 4);
    std::uint8_t* out = rgba.data();
    for (int y = 0; y < height; ++y) {
        for (int x = 0; x < width; ++x, out += 4) {
            std::uint32_t pixel = 0;
            std::memcpy(&pixel, data + y * stride + x * 4, 4);
            const std::uint32_t alpha = pixel >> 24;
            if (alpha == 0) continue;  // transparent black, as cleared
            for (int channel = 0; channel < 3; ++channel) {
                const std::uint32_t value = (pixel >> (16 - 8 * channel)) & 0xFF;
                out[channel] = static_cast<std::uint8_t>((value * 255 + alpha / 2) / alpha);
            }
            out[3] = static_cast<std::uint8_t>(alpha);
        }
    }
    return rgba;
}

// An RGBA PNG of the surface, written with libpng's fast settings (no row filters, a low zlib
// level): the badge is small and shown once, and cairo's writer, which tries every filter on
// every row at the default level, took as long as all the rest of the drawing.
std::optional<Bytes> encodePng(cairo_surface_t* surface) {
    const auto rgba = straightRgba(surface);
    png_image image{};
    image.version = PNG_IMAGE_VERSION;
    image.width = static_cast<png_uint_32>(cairo_image_surface_get_width(surface));
    image.height = static_cast<png_uint_32>(cairo_image_surface_get_height(surface));
    image.format = PNG_FORMAT_RGBA;
    // No colour-space chunks, as cairo writes none.
    image.flags = PNG_IMAGE_FLAG_FAST | PNG_IMAGE_FLAG_COLORSPACE_NOT_sRGB;
    Bytes png(PNG_IMAGE_PNG_SIZE_MAX(image));
    png_alloc_size_t size = png.size();
    if (!png_image_write_to_memory(&image, png.data(), &size, 0, rgba.data(), 0, nullptr)) {
        png_image_free(&image);
        return std::nullopt;
    }
    png.resize(size);
    return png;
}

class CairoImageCanvas final : public ImageCanvas {
public:
    CairoImageCanvas(cairo_surface_t* surface, cairo_t* context, PangoContext* pango)
        : surface_(surface), context_(context), pango_(pango) {}

    void clipToRoundedRect(const Rect& rect, double cornerRadius) override {
        cairo_t* cr = context_.get();
        double radius = std::clamp(cornerRadius, 0.0, std::min(rect.width, rect.height) / 2);
        double left = rect.x, top = rect.y;
        double right = rect.x + rect.width, bottom = rect.y + rect.height;
        constexpr double quarter = std::numbers::pi / 2;
        cairo_new_path(cr);
        cairo_new_sub_path(cr);
        cairo_arc(cr, right - radius, top + radius, radius, -quarter, 0);
        cairo_arc(cr, right - radius, bottom - radius, radius, 0, quarter);
        cairo_arc(cr, left + radius, bottom - radius, radius, quarter, 2 * quarter);
        cairo_arc(cr, left + radius, top + radius, radius, 2 * quarter, 3 * quarter);
        cairo_close_path(cr);
        cairo_clip(cr);
    }

    void fillRect(const Rect& rect, const Rgba& color) override {
        cairo_t* cr = context_.get();
        setSource(cr, color);
        cairo_rectangle(cr, rect.x, rect.y, rect.width, rect.height);
        cairo_fill(cr);
    }

    ~CairoImageCanvas() override {
        std::lock_guard lock(fontMapsLock());
        pango_.reset();
        systemPango_.reset();
    }

    double lineHeight(const Font& font) override {
        std::lock_guard lock(fontMapsLock());
        auto description = describe(font);
        std::unique_ptr<PangoFontMetrics, FontMetricsDeleter> metrics(
            pango_context_get_metrics(pango_.get(), description.get(), nullptr));
        if (!metrics) return font.size;
        int height = pango_font_metrics_get_ascent(metrics.get()) +
                     pango_font_metrics_get_descent(metrics.get());
        return static_cast<double>(height) / PANGO_SCALE;
    }

    void drawText(const std::string& text, const Rect& rect, const Font& font, const Rgba& color,
                  TextAlignment alignment) override {
        cairo_t* cr = context_.get();
        std::lock_guard lock(fontMapsLock());
        auto layout = layOut(pango_.get(), text, rect, font, alignment);
        if (pango_layout_get_unknown_glyphs_count(layout.get()) > 0) {
            // A script Inter lacks: the system's fonts, with their fallbacks.
            if (!systemPango_) systemPango_ = makeContext(cr, systemFontMap());
            if (systemPango_) layout = layOut(systemPango_.get(), text, rect, font, alignment);
        }

        // Text stays inside its rectangle, as UIKit draws it.
        cairo_save(cr);
        cairo_rectangle(cr, rect.x, rect.y, rect.width, rect.height);
        cairo_clip(cr);
        setSource(cr, color);
        cairo_move_to(cr, rect.x, rect.y);
        pango_cairo_show_layout(cr, layout.get());
        cairo_restore(cr);
    }

    std::optional<Bytes> pngRepresentation() override {
        cairo_surface_flush(surface_.get());
        return encodePng(surface_.get());
    }

private:
    using LayoutPtr = std::unique_ptr<PangoLayout, GObjectDeleter>;

    static LayoutPtr layOut(PangoContext* pango, const std::string& text, const Rect& rect,
                            const Font& font, TextAlignment alignment) {
        LayoutPtr layout(pango_layout_new(pango));
        auto description = describe(font);
        pango_layout_set_font_description(layout.get(), description.get());
        pango_layout_set_width(layout.get(), toPangoUnits(rect.width));
        pango_layout_set_wrap(layout.get(), PANGO_WRAP_WORD_CHAR);
        pango_layout_set_alignment(layout.get(), pangoAlignment(alignment));
        pango_layout_set_text(layout.get(), text.data(), static_cast<int>(text.size()));
        return layout;
    }

    std::unique_ptr<cairo_surface_t, SurfaceDeleter> surface_;
    std::unique_ptr<cairo_t, ContextDeleter> context_;
    PangoContextPtr pango_;
    PangoContextPtr systemPango_;  // made for the first text with a character Inter lacks
};

ImageCanvas* makeCanvas(int width, int height) {
    if (width <= 0 || height <= 0) return nullptr;
    // A new image surface is cleared to transparent black.
    std::unique_ptr<cairo_surface_t, SurfaceDeleter> surface(
        cairo_image_surface_create(CAIRO_FORMAT_ARGB32, width, height));
    if (cairo_surface_status(surface.get()) != CAIRO_STATUS_SUCCESS) return nullptr;
    std::unique_ptr<cairo_t, ContextDeleter> context(cairo_create(surface.get()));
    if (cairo_status(context.get()) != CAIRO_STATUS_SUCCESS) return nullptr;
    PangoContextPtr pango;
    {
        std::lock_guard lock(fontMapsLock());
        pango = makeContext(context.get(), interOnlyFontMap());
    }
    if (!pango) return nullptr;

    auto* canvas = new (std::nothrow)
        CairoImageCanvas(surface.get(), context.get(), pango.get());
    if (canvas == nullptr) {
        std::lock_guard lock(fontMapsLock());
        pango.reset();
        return nullptr;
    }
    surface.release();
    context.release();
    pango.release();
    return canvas;
}

}  // namespace

}  // namespace vontu::platform::linux_host

extern "C" __attribute__((visibility("default"))) vontu::platform::ImageCanvas*
vontu_drawing_make_image_canvas(int width, int height) {
    static_assert(std::is_same_v<decltype(&vontu_drawing_make_image_canvas),
                                 vontu::platform::linux_host::MakeImageCanvasFunction>);
    return vontu::platform::linux_host::makeCanvas(width, height);
}
