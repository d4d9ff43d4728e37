// The text exporters (CSV, FRD, MATLAB statements) byte for byte, their error paths, and the lossy
// ASCII conversion they share.

#include "export/ExportText.h"
#include "export/FRDExport.h"
#include "export/VELTCSVExporter.h"
#include "export/VELTMATLABOutput.h"
#include "platform/Logging.h"

#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <iterator>
#include <limits>
#include <random>
#include <string>

namespace tavolar {
namespace {

// A scratch folder, removed with everything in it when the test ends.
class ExportFolder {
public:
    ExportFolder() {
        std::random_device device;
        path_ = std::filesystem::temp_directory_path() /
                ("tavolar-export-test-" + std::to_string(device()) + "-" + std::to_string(device()));
        std::filesystem::create_directories(path_);
    }
    ~ExportFolder() {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    ExportFolder(const ExportFolder&) = delete;
    std::filesystem::path operator/(const std::string& name) const { return path_ / name; }

private:
    std::filesystem::path path_;
};

std::string fileContents(const std::filesystem::path& path) {
    std::ifstream file(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
}

TEST(VELTCSVExporter, WritesHeadersAndRowsByteForByte) {
    struct Case {
        std::vector<std::string> headers;
        std::vector<VELTRealVector> columns;
        std::string expected;
        bool everyDigit = false;
    };
    const Case cases[] = {
        {{"Freq"}, {VELTRealVector{20.0f, 40.0f}}, "Freq,\n20.000000,\n40.000000,\n"},
        // Rows run to the longest column; the shorter one reads 0 past its end. A comma in a title is
        // written as it is, splitting the field.
        {{"Time ms", "Level, dB"},
         {VELTRealVector{1.0f, 2.0f, 3.0f}, VELTRealVector{-1.5f, 0.25f, 10.0f, 100.0f, 1000.5f}},
         "Time ms,Level, dB,\n1.000000,-1.500000,\n2.000000,0.250000,\n3.000000,10.000000,\n"
         "0.000000,100.000000,\n0.000000,1000.500000,\n"},
        // Single precision widened to double, then rounded to six decimals by printf (2.5e-6f is
        // 2.49999994e-06).
        {{"Value"},
         {VELTRealVector{0.1f, 2.5e-6f, 16777217.0f, -0.0f, 1e-7f, std::numeric_limits<float>::max()}},
         "Value,\n0.100000,\n0.000002,\n16777216.000000,\n-0.000000,\n0.000000,\n"
         "340282346638528859811704183484516925440.000000,\n"},
        // As many header fields as titles, whatever the number of columns; every character outside
        // ASCII becomes one "?".
        {{"Phase (°)", "Fréquence – Hz", "Extra"},
         {VELTRealVector{1.0f}},
         "Phase (?),Fr?quence ? Hz,Extra,\n1.000000,\n"},
        // Every significant digit: the samples that six decimals lose read back exactly.
        {{"Time (ms)", "Impulse response"},
         {VELTRealVector{-0.0208333f, 0.1f}, VELTRealVector{2.5e-6f, -1e-30f}},
         "Time (ms),Impulse response,\n-0.0208333004,2.49999994e-06,\n0.100000001,-1e-30,\n",
         true},
    };
    ExportFolder folder;
    const auto path = folder / "response.csv";
    for (const Case& c : cases) {
        VELTCSVExporter exporter;
        exporter.setColumns(c.columns);
        exporter.setHeaders(c.headers);
        exporter.setWritesEverySignificantDigit(c.everyDigit);
        exporter.writeToURL(path); // replaces what the case before wrote
        EXPECT_EQ(fileContents(path), c.expected);
    }
    VELTCSVExporter added;
    added.addColumn(VELTRealVector{1.0f}, "A");
    added.addColumn(VELTRealVector{2.0f}, "B");
    added.writeToURL(path);
    EXPECT_EQ(fileContents(path), "A,B,\n1.000000,2.000000,\n");
}

TEST(VELTCSVExporter, WritesNoFileWithoutRowsAndLogsAFailedWrite) {
    ExportFolder folder;
    const auto path = folder / "nothing.csv";
    VELTCSVExporter empty;
    empty.writeToURL(path);
    EXPECT_FALSE(std::filesystem::exists(path));

    VELTCSVExporter emptyColumns;
    emptyColumns.addColumn(VELTRealVector{}, "A");
    emptyColumns.addColumn(VELTRealVector{}, "B");
    emptyColumns.writeToURL(path);
    EXPECT_FALSE(std::filesystem::exists(path));
    // An existing file is left as it was.
    std::ofstream(path) << "kept";
    emptyColumns.writeToURL(path);
    EXPECT_EQ(fileContents(path), "kept");

    setSystemLogEnabled(false);
    LogCapture capture;
    VELTCSVExporter exporter;
    exporter.addColumn(VELTRealVector{1.0f}, "A");
    const auto unreachable = folder / "no such folder" / "out.csv";
    exporter.writeToURL(unreachable);
    std::vector<LogLine> lines = capture.lines();
    setSystemLogEnabled(true);
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].level, LogLevel::Error);
    const std::string expectedStart = "Error writing to URL " + unreachable.string() + ". ";
    EXPECT_EQ(lines[0].text.substr(0, expectedStart.size()), expectedStart);
    EXPECT_NE(lines[0].text.find("No such file or directory"), std::string::npos) << lines[0].text;
}

TEST(ExportText, ReplacesEachCharacterOutsideASCIIWithOneQuestionMark) {
    EXPECT_EQ(lossyASCIIFromUTF8("plain ASCII, \t\n~"), "plain ASCII, \t\n~");
    EXPECT_EQ(lossyASCIIFromUTF8("é € 😀"), "? ? ?");
    // Bytes that are not UTF-8 each become one "?": a lone continuation byte, a sequence cut short,
    // an overlong form, a surrogate, a code point beyond U+10FFFF.
    EXPECT_EQ(lossyASCIIFromUTF8("a\x80z"), "a?z");
    EXPECT_EQ(lossyASCIIFromUTF8("a\xE2\x82z"), "a??z");
    EXPECT_EQ(lossyASCIIFromUTF8("\xC0\xAF"), "??");
    EXPECT_EQ(lossyASCIIFromUTF8("\xED\xA0\x80"), "???");
    EXPECT_EQ(lossyASCIIFromUTF8("\xF4\x90\x80\x80"), "????");
    EXPECT_EQ(lossyASCIIFromUTF8("end\xF0\x9F\x98"), "end???");
}

constexpr const char* kFRDHeader = "* Response obtained using Tavolar (https://tavolarkit.org)\n"
                                   "* Freq(Hz) Mag(dBFS) Phase(deg)\n";

TEST(FRDExport, WritesHeaderAndOneLinePerFrequency) {
    ExportFolder folder;
    const auto path = folder / "woofer.frd";
    writeToFRDFile(path, VELTRealVector{20.0f, 25.0f}, VELTRealVector{-3.5f, -3.25f},
                   VELTRealVector{10.0f, 12.0f});
    EXPECT_EQ(fileContents(path), std::string(kFRDHeader) + "20.000000 -3.500000 10.000000\n"
                                                            "25.000000 -3.250000 12.000000\n");

    writeToFRDFile(path, VELTRealVector{}, VELTRealVector{}, VELTRealVector{});
    EXPECT_EQ(fileContents(path), kFRDHeader);

    // Longer magnitude and phase vectors are read only as far as the frequencies go.
    writeToFRDFile(path, VELTRealVector{1000.0f}, VELTRealVector{0.1f, 5.0f},
                   VELTRealVector{-179.99f, 1.0f, 2.0f});
    EXPECT_EQ(fileContents(path), std::string(kFRDHeader) + "1000.000000 0.100000 -179.990005\n");

    // A failed write leaves no trace, not even in the log.
    setSystemLogEnabled(false);
    LogCapture capture;
    const auto unreachable = folder / "no such folder" / "out.frd";
    EXPECT_NO_THROW(
        writeToFRDFile(unreachable, VELTRealVector{20.0f}, VELTRealVector{0.0f}, VELTRealVector{0.0f}));
    EXPECT_TRUE(capture.lines().empty());
    setSystemLogEnabled(true);
    EXPECT_FALSE(std::filesystem::exists(unreachable));
}

VELTComplexVector complexVector(std::initializer_list<std::pair<float, float>> components) {
    VELTComplexVector vector(components.size());
    std::size_t index = 0;
    for (auto [real, imaginary] : components) {
        vector.mutableRealComponents()[index] = real;
        vector.mutableImaginaryComponents()[index++] = imaginary;
    }
    return vector;
}

TEST(VELTMATLABOutput, ReplacesTheFileWithStatementsInCallOrder) {
    ExportFolder folder;
    const auto path = folder / "dump.m";
    std::ofstream(path) << "old contents that must go\n";
    const double numbers[] = {0.1, 16777217.0, -2.0};
    {
        auto output = VELTMATLABOutput::withFilename(path);
        ASSERT_TRUE(output) << output.error().localizedDescription;
        output->writeVector(VELTRealVector{1.0f, 2.0f}, "x");
        output->writeVector(VELTRealVector{}, "e");
        output->writeMatrix(VELTRealMatrix(VELTRealVector{1, 2, 3, 4}, 2, 2), "m");
        output->writeMatrix(VELTRealMatrix(VELTRealVector{-1, 0.5f, 0}, 1, 3), "row");
        output->writeComplexVector(complexVector({{1, 2}, {0.25f, -3}, {-1, 0}}), "z");
        output->writeFloatArray(numbers, "a");
        output->writeVector(VELTRealVector{0.0f}, "größe"); // names are written as given
        output->writeVectorWithEveryDigit(VELTRealVector{2.5e-6f, -1.0f}, "h");
    }
    EXPECT_EQ(fileContents(path),
              "x = [1.000000, 2.000000, ];\n"
              "e = [];\n"
              "m = [1.000000, 2.000000, ;3.000000, 4.000000, ;];\n"
              "row = [-1.000000, 0.500000, 0.000000, ;];\n"
              // A negative imaginary part keeps the " + " and its own sign.
              "z = [1.000000 + 2.000000i, 0.250000 + -3.000000i, -1.000000 + 0.000000i, ];\n"
              // Numbers are written by their single-precision value: 16777217 has none.
              "a = [0.100000, 16777216.000000, -2.000000, ];\n"
              "größe = [0.000000, ];\n"
              "h = [2.49999994e-06, -1, ];\n");
}

TEST(VELTMATLABOutput, RefusesAFileItCannotOpen) {
    ExportFolder folder;
    const auto path = folder / "missing folder" / "dump.m";
    auto output = VELTMATLABOutput::withFilename(path);
    ASSERT_FALSE(output);
    EXPECT_NE(output.error().localizedDescription.find(path.string()), std::string::npos);
}

} // namespace
} // namespace tavolar
