#pragma once

#include <string>

#include <cairo-svg.h>
#include <cairo.h>

namespace lmkit::tool {

// The cairo functions the charts use.
// clang-format off
#define LMKIT_CAIRO_FUNCTIONS(X)                                                       \
    X(arc) X(close_path) X(create) X(destroy) X(fill) X(image_surface_create)          \
    X(line_to) X(move_to) X(paint) X(rectangle) X(select_font_face) X(set_dash)        \
    X(set_font_size) X(set_line_width) X(set_source_rgb) X(set_source_rgba)            \
    X(show_text) X(status_to_string) X(stroke) X(surface_destroy) X(surface_finish)    \
    X(surface_status) X(surface_write_to_png) X(svg_surface_create)                    \
    X(svg_surface_set_document_unit)
// clang-format on

/// cairo, loaded the first time a chart is drawn rather than linked: with its fonts, pixel and
/// X libraries it would add eighteen libraries and nearly 2 MB of memory to every run of the tool,
/// which draws a chart in two subcommands only. Each member is the cairo function of that name
/// without the "cairo_" prefix.
struct CairoLibrary {
#define LMKIT_CAIRO_MEMBER(name) decltype(&::cairo_##name) name = nullptr;
    LMKIT_CAIRO_FUNCTIONS(LMKIT_CAIRO_MEMBER)
#undef LMKIT_CAIRO_MEMBER

    /// The library, loaded once; nullptr and `error` when the system has no usable cairo.
    static const CairoLibrary* load(std::string& error);
};

}  // namespace lmkit::tool
