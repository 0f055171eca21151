#pragma once

#include <memory>

#include <cairo.h>
#include <pango/pangocairo.h>

namespace vontu::platform::linux_host {

// The text settings of every picture the drawing module makes. Unhinted metrics keep line heights
// and glyph advances at their design values, as UIKit reports them, rather than rounded to whole
// pixels (and a layout measured in points is the one drawn at twice the size); grey-scale edges,
// because sub-pixel colour fringes would be wrong in a picture shown at any size.
inline void useDesignMetricsAndGreyEdges(PangoContext* context) {
    std::unique_ptr<cairo_font_options_t, decltype(&cairo_font_options_destroy)> options(
        cairo_font_options_create(), &cairo_font_options_destroy);
    cairo_font_options_set_hint_metrics(options.get(), CAIRO_HINT_METRICS_OFF);
    cairo_font_options_set_antialias(options.get(), CAIRO_ANTIALIAS_GRAY);
    pango_cairo_context_set_font_options(context, options.get());
}

}  // namespace vontu::platform::linux_host
