// plot: graphs of a document's records drawn to PNG and SVG files of the size asked.

#include "CliTestSupport.h"

#include <cstdlib>
#include <fstream>
#include <iterator>

// A build without graph drawing has a plot command that only says so.
#if TAVOLAR_WITH_GRAPHICS

namespace tavolar::testing {
namespace {

std::string contentsOf(const std::filesystem::path& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

// Width and height from a PNG file's header chunk; zeros when the file is not a PNG.
std::pair<std::uint32_t, std::uint32_t> pngSize(const std::filesystem::path& path) {
    const std::string bytes = contentsOf(path);
    if (bytes.size() < 24 || bytes.compare(0, 8, "\x89PNG\r\n\x1a\n") != 0 ||
        bytes.compare(12, 4, "IHDR") != 0)
        return {0, 0};
    auto word = [&](std::size_t at) {
        std::uint32_t value = 0;
        for (std::size_t i = 0; i < 4; ++i)
            value = value << 8 | static_cast<unsigned char>(bytes[at + i]);
        return value;
    };
    return {word(16), word(20)};
}

class PlotCommand : public CommandLineTest {};

TEST_F(PlotCommand, DrawsEachGraphAtTheAskedSize) {
    ASSERT_TRUE(succeeds({"measure", "-o", "d.tavolar", "--fast", "-q"}));
    ASSERT_TRUE(succeeds({"measure", "-o", "d.tavolar", "--fast", "-q", "-d", "sim:poly?h2=0.02"}));
    struct Case {
        Arguments arguments;
        std::string file;
        std::pair<std::uint32_t, std::uint32_t> pixels;
        std::string printed;
    };
    const Case cases[] = {
        {{"--smoothing", "12"}, "m.png", {1890, 1181}, "Wrote m.png (1890 × 1181 pixels, 2 curves)"},
        {{"2", "-g", "spl", "--smoothing"},
         "s.png",
         {1890, 1181},
         "Wrote s.png (1890 × 1181 pixels, 1 curve)"},
        {{"-g", "phase", "--width", "80", "--height", "50", "--dpi", "96"},
         "p.png",
         {302, 189},
         "Wrote p.png (302 × 189 pixels, 2 curves)"},
        {{"-g", "excess-phase", "--phase-reference", "peak", "--unwrapped", "--dpi", "72"},
         "e.png",
         {454, 283},
         "Wrote e.png (454 × 283 pixels, 2 curves)"},
        {{"1", "-g", "group-delay"}, "g.svg", {0, 0}, "Wrote g.svg (454 × 283 points, 1 curve)"},
        {{"--combine", "difference", "--theme", "dark", "--x-range", "20:20000", "--y-range=-10:10"},
         "d.png",
         {1890, 1181},
         "Wrote d.png (1890 × 1181 pixels, 1 curve)"},
        {{"--db-per-decade", "25", "--dpi", "150"},
         "i.png",
         {945, 591},
         "Wrote i.png (945 × 591 pixels, 2 curves)"},
        {{"--normalize", "--theme", "print", "--dpi", "72"},
         "n.png",
         {454, 283},
         "Wrote n.png (454 × 283 pixels, 2 curves)"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.file);
        RunResult result = run(Arguments{"plot", "d.tavolar"} + c.arguments + Arguments{"-o", c.file});
        ASSERT_EQ(result.exitCode, 0) << result.err;
        EXPECT_EQ(lines(result.out), std::vector<std::string>{c.printed});
        EXPECT_EQ(pngSize(folder / c.file), c.pixels);
        if (c.file.ends_with(".svg")) {
            const std::string svg = contentsOf(folder / c.file);
            EXPECT_NE(svg.find("<svg"), std::string::npos);
            EXPECT_NE(svg.find("width=\"453.5"), std::string::npos);
        }
    }
}

TEST_F(PlotCommand, PDFFilesAreTheSameForTheSameSourceDate) {
    ASSERT_TRUE(succeeds({"measure", "-o", "d.tavolar", "--fast", "-q"}));
    ::setenv("SOURCE_DATE_EPOCH", "1700000000", 1);
    const bool first = succeeds({"plot", "d.tavolar", "--smoothing", "-o", "a.pdf"});
    const bool second = succeeds({"plot", "d.tavolar", "--smoothing", "-o", "b.pdf"});
    ::unsetenv("SOURCE_DATE_EPOCH");
    ASSERT_TRUE(first && second);
    const std::string pdf = contentsOf(folder / "a.pdf");
    EXPECT_TRUE(pdf.starts_with("%PDF-"));
    EXPECT_NE(pdf.find("/CreationDate (20231114221320)"), std::string::npos);
    EXPECT_NE(pdf.find("/Creator (TavolarKit)"), std::string::npos);
    // The title in UTF-16: "Freq".
    EXPECT_NE(pdf.find("/Title <FEFF0046007200650071"), std::string::npos);
    EXPECT_EQ(pdf, contentsOf(folder / "b.pdf"));
}

TEST_F(PlotCommand, RefusesWhatItCannotDraw) {
    ASSERT_TRUE(succeeds({"measure", "-o", "d.tavolar", "--fast", "-q"}));
    expectRefused({"plot", "d.tavolar", "-o", "m.jpeg"}, 2, ".png, .svg or .pdf");
    expectRefused({"plot", "d.tavolar", "-g", "phase", "--smoothing", "6", "-o", "p.png"}, 2, "not smoothed");
    expectRefused({"plot", "d.tavolar", "--smoothing", "0", "-o", "m.png"}, 2, "1 to 48");
    expectRefused({"plot", "d.tavolar", "--width", "0", "-o", "m.png"}, 2, "positive");
    expectRefused({"plot", "d.tavolar", "-g", "waveform", "-o", "m.png"}, 2);
    expectRefused({"plot", "d.tavolar", "--x-range", "0:100", "-o", "m.png"}, 2, "above 0 Hz");
    expectRefused({"plot", "d.tavolar", "--x-range", "100:20", "-o", "m.png"}, 2, "lower end first");
    expectRefused({"plot", "d.tavolar", "--y-range", "a:b", "-o", "m.png"}, 2, "lower end first");
    expectRefused({"plot", "d.tavolar", "--theme", "sepia", "-o", "m.png"}, 2);
    expectRefused({"plot", "d.tavolar", "--unwrapped", "-o", "m.png"}, 2, "phase graphs");
    expectRefused({"plot", "d.tavolar", "--db-per-decade", "30", "-o", "m.png"}, 2);
    expectRefused({"plot", "d.tavolar", "-g", "phase", "--db-per-decade", "25", "-o", "m.png"}, 2,
                  "magnitude and SPL");
    expectRefused({"plot", "d.tavolar", "7", "-o", "m.png"}, 1, "no record 7");
    expectRefused({"plot", "missing.tavolar", "-o", "m.png"}, 1);
    EXPECT_FALSE(std::filesystem::exists(folder / "m.png"));
}

} // namespace
} // namespace tavolar::testing

#endif
