#include "hierarchy/SvgRender.h"

#include <cairo.h>
#include <librsvg/rsvg.h>

#include <cmath>
#include <memory>

namespace dhc {

namespace {

struct Unref {
    void operator()(RsvgHandle* h) const { g_object_unref(h); }
    void operator()(cairo_surface_t* s) const { cairo_surface_destroy(s); }
    void operator()(cairo_t* c) const { cairo_destroy(c); }
};

}  // namespace

RgbImage renderSvg(const std::string& svg) {
    GError* error = nullptr;
    std::unique_ptr<RsvgHandle, Unref> handle(
        rsvg_handle_new_from_data(reinterpret_cast<const guint8*>(svg.data()), svg.size(), &error));
    if (handle == nullptr) {
        const std::string why = error != nullptr ? error->message : "unknown error";
        if (error != nullptr) g_error_free(error);
        throw WriteError("cannot draw the SVG picture: " + why);
    }
    double w = 0, h = 0;
    if (!rsvg_handle_get_intrinsic_size_in_pixels(handle.get(), &w, &h) || w < 1 || h < 1 || w > 32767 ||
        h > 32767)
        throw WriteError("cannot draw the SVG picture: it has no usable size");
    const int width = static_cast<int>(std::ceil(w)), height = static_cast<int>(std::ceil(h));
    std::unique_ptr<cairo_surface_t, Unref> surface(cairo_image_surface_create(CAIRO_FORMAT_RGB24, width, height));
    if (cairo_surface_status(surface.get()) != CAIRO_STATUS_SUCCESS)
        throw WriteError("cannot draw the SVG picture: no memory for " + std::to_string(width) + " x " +
                         std::to_string(height) + " pixels");
    std::unique_ptr<cairo_t, Unref> cr(cairo_create(surface.get()));
    cairo_set_source_rgb(cr.get(), 1, 1, 1);
    cairo_paint(cr.get());
    const RsvgRectangle viewport{0, 0, static_cast<double>(width), static_cast<double>(height)};
    if (!rsvg_handle_render_document(handle.get(), cr.get(), &viewport, &error)) {
        const std::string why = error != nullptr ? error->message : "unknown error";
        if (error != nullptr) g_error_free(error);
        throw WriteError("cannot draw the SVG picture: " + why);
    }
    cairo_surface_flush(surface.get());
    RgbImage out(width, height, Rgb{255, 255, 255});
    const unsigned char* data = cairo_image_surface_get_data(surface.get());
    const int stride = cairo_image_surface_get_stride(surface.get());
    for (int y = 0; y < height; ++y) {
        const uint32_t* row = reinterpret_cast<const uint32_t*>(data + static_cast<size_t>(y) * stride);
        for (int x = 0; x < width; ++x) {
            const uint32_t p = row[x];  // xRGB in native order
            out.set(x, y, Rgb{static_cast<uint8_t>(p >> 16), static_cast<uint8_t>(p >> 8), static_cast<uint8_t>(p)});
        }
    }
    return out;
}

}  // namespace dhc
