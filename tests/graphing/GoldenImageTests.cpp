// Golden images: every graph drawn from the same records, with the fonts of golden/fonts.conf, against
// the PNG files kept in golden/. A picture passes when it differs by less than 2/255 on average per
// channel and fewer than 1 % of its pixels differ by more than 64 in a channel, which lets
// antialiasing vary between library versions but not a label, tick or curve move.
//
// TAVOLAR_REGENERATE_GOLDEN=1 rewrites the files from what is drawn (look at every one before keeping
// it). The folder is found beside the tests' data (TAVOLAR_TEST_DATA, set by CTest).

#include "graphing/SimulatedRecords.h"
#include "graphs/RecordPlots.h"

#if TAVOLAR_WITH_GRAPHICS
#include <cairo.h>
#include <fontconfig/fontconfig.h>
#include <pango/pangocairo.h>
#endif

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fmt/format.h>
#include <gtest/gtest.h>
#include <unistd.h>

namespace tavolar {
namespace {

#if TAVOLAR_WITH_GRAPHICS

// Makes golden/fonts.conf the font configuration while the test runs, and a new font map take it up.
class GoldenFonts {
public:
    explicit GoldenFonts(const std::filesystem::path& file) {
        previous_ = FcConfigReference(nullptr);
        FcConfig* config = FcConfigCreate();
        loaded_ = FcConfigParseAndLoad(config, reinterpret_cast<const FcChar8*>(file.c_str()), FcTrue) &&
                  FcConfigBuildFonts(config);
        FcConfigSetCurrent(config);
        FcConfigDestroy(config); // the current configuration keeps its own reference
        pango_cairo_font_map_set_default(nullptr);
    }
    ~GoldenFonts() {
        FcConfigSetCurrent(previous_);
        FcConfigDestroy(previous_);
        pango_cairo_font_map_set_default(nullptr);
    }
    bool loaded() const { return loaded_; }

private:
    FcConfig* previous_ = nullptr;
    bool loaded_ = false;
};

struct Comparison {
    bool sameSize = false;
    double meanDifference = 0.0;    // per channel, 0 to 255
    double differingFraction = 0.0; // of pixels with a channel more than 64 apart
};

Comparison compare(const std::filesystem::path& drawn, const std::filesystem::path& golden) {
    Comparison result;
    cairo_surface_t* a = cairo_image_surface_create_from_png(drawn.c_str());
    cairo_surface_t* b = cairo_image_surface_create_from_png(golden.c_str());
    const int width = cairo_image_surface_get_width(a), height = cairo_image_surface_get_height(a);
    result.sameSize =
        cairo_surface_status(a) == CAIRO_STATUS_SUCCESS && cairo_surface_status(b) == CAIRO_STATUS_SUCCESS &&
        width > 0 && width == cairo_image_surface_get_width(b) && height == cairo_image_surface_get_height(b);
    if (result.sameSize) {
        double sum = 0.0;
        std::size_t differing = 0;
        for (int row = 0; row < height; ++row)
            for (int column = 0; column < width; ++column) {
                std::uint32_t p, q;
                std::memcpy(&p,
                            cairo_image_surface_get_data(a) + row * cairo_image_surface_get_stride(a) +
                                column * 4,
                            4);
                std::memcpy(&q,
                            cairo_image_surface_get_data(b) + row * cairo_image_surface_get_stride(b) +
                                column * 4,
                            4);
                int largest = 0;
                for (int shift = 0; shift < 32; shift += 8) {
                    const int d = std::abs(int((p >> shift) & 0xFF) - int((q >> shift) & 0xFF));
                    sum += d;
                    largest = std::max(largest, d);
                }
                differing += largest > 64 ? 1 : 0;
            }
        const double pixels = double(width) * double(height);
        result.meanDifference = sum / (pixels * 4.0);
        result.differingFraction = double(differing) / pixels;
    }
    cairo_surface_destroy(a);
    cairo_surface_destroy(b);
    return result;
}

TEST(GoldenImages, EveryGraphAsKept) {
    const char* data = std::getenv("TAVOLAR_TEST_DATA");
    if (!data)
        GTEST_SKIP() << "TAVOLAR_TEST_DATA is not set (CTest sets it)";
    const std::filesystem::path folder = std::filesystem::path(data).parent_path() / "graphing" / "golden";
    for (const char* font : {"/usr/share/fonts/opentype/urw-base35/NimbusSans-Regular.otf",
                             "/usr/share/fonts/truetype/dejavu/DejaVuSans.ttf"})
        if (!std::filesystem::exists(font))
            GTEST_SKIP() << font << " is not installed (fonts-urw-base35, fonts-dejavu-core)";
    const char* regenerate = std::getenv("TAVOLAR_REGENERATE_GOLDEN");
    const bool rewrite = regenerate && std::string(regenerate) == "1";
    GoldenFonts fonts(folder / "fonts.conf");
    ASSERT_TRUE(fonts.loaded()) << folder / "fonts.conf";

    struct Case {
        std::string graph, theme;
    };
    const Case cases[] = {
        {"magnitude", "light"},    {"magnitude", "dark"},
        {"magnitude", "print"},    {"phase", "light"},
        {"group-delay", "light"},  {"impulse", "light"},
        {"etc", "light"},          {"distortion", "light"},
        {"octave-bands", "light"}, {"third-octave-bands", "light"},
        {"waterfall", "light"},    {"spectrogram", "light"},
    };
    const VELTImageSize size{VELTImageSize::pointsFromMillimetres(120),
                             VELTImageSize::pointsFromMillimetres(75), 100};
    const std::filesystem::path scratch =
        std::filesystem::temp_directory_path() / fmt::format("tavolar-golden-{}", ::getpid());
    std::filesystem::create_directories(scratch);
    for (const Case& c : cases) {
        const std::string name = c.theme == "light" ? c.graph : c.graph + "-" + c.theme;
        SCOPED_TRACE(name);
        PlotSettings settings;
        settings.graph = c.graph;
        settings.theme = c.theme;
        if (c.graph == "magnitude")
            settings.smoothing = 12;
        auto picture = plotRecords(records(), settings);
        ASSERT_TRUE(picture) << picture.error().localizedDescription;
        const auto drawn = scratch / (name + ".png"), golden = folder / (name + ".png");
        ASSERT_TRUE(writePlot(drawn, *picture, size));
        if (rewrite) {
            std::filesystem::copy_file(drawn, golden, std::filesystem::copy_options::overwrite_existing);
            continue;
        }
        ASSERT_TRUE(std::filesystem::exists(golden))
            << golden << " is missing: TAVOLAR_REGENERATE_GOLDEN=1 makes it";
        const Comparison difference = compare(drawn, golden);
        EXPECT_TRUE(difference.sameSize);
        EXPECT_LT(difference.meanDifference, 2.0);
        EXPECT_LT(difference.differingFraction, 0.01);
    }
    std::filesystem::remove_all(scratch);
}

#endif

} // namespace
} // namespace tavolar
