#include "GraphRenderer.h"

#include "graphing/cairo/VELTCairoPainter.h"

#include <cairo.h>
#include <memory>

namespace tavolar::desktop {

namespace {

struct CairoImage {
    cairo_surface_t* surface;
    cairo_t* context;
    explicit CairoImage(cairo_surface_t* made) : surface(made), context(cairo_create(made)) {}
    ~CairoImage() {
        cairo_destroy(context);
        cairo_surface_destroy(surface);
    }
};

} // namespace

RenderedGraph renderPicture(const GraphPicture& picture, QSize pixels, double devicePixelRatio, bool draft) {
    const int width = std::max(1, static_cast<int>(pixels.width() * devicePixelRatio));
    const int height = std::max(1, static_cast<int>(pixels.height() * devicePixelRatio));
    // Cairo's ARGB32 is premultiplied and native-endian, as QImage's ARGB32_Premultiplied, so the
    // image shares the surface's layout; it is copied out before the surface goes.
    QImage image(width, height, QImage::Format_ARGB32_Premultiplied);
    RenderedGraph rendered;
    {
        CairoImage cairo(cairo_image_surface_create_for_data(image.bits(), CAIRO_FORMAT_ARGB32, width, height,
                                                             static_cast<int>(image.bytesPerLine())));
        const double scale = kPixelsPerPoint * devicePixelRatio;
        cairo_scale(cairo.context, scale, scale);
        // Cairo's fast antialiasing strokes curves in half the time, with edges a little less smooth;
        // text keeps its own antialiasing.
        if (draft)
            cairo_set_antialias(cairo.context, CAIRO_ANTIALIAS_FAST);
        VELTCairoPainter painter(cairo.context);
        const VELTRect bounds{0.0, 0.0, width / scale, height / scale};
        painter.fillRect(bounds, picture.plot.appearance.background);
        rendered.layout = drawPicture(painter, picture, bounds);
        cairo_surface_flush(cairo.surface);
    }
    image.setDevicePixelRatio(devicePixelRatio);
    rendered.image = std::move(image);
    rendered.draft = draft;
    return rendered;
}

void withMeasuringPainter(const std::function<void(VELTPainter&)>& measure) {
    CairoImage cairo(cairo_image_surface_create(CAIRO_FORMAT_ARGB32, 1, 1));
    VELTCairoPainter painter(cairo.context);
    measure(painter);
}

} // namespace tavolar::desktop
