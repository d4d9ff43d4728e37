#include "export/ExportTestSupport.h"
#include "export/ExportText.h"
#include "export/VELTCSVExporter.h"
#include "platform/Logging.h"

#include <cmath>
#include <gtest/gtest.h>
#include <limits>
#include <sstream>

namespace tavolar {
namespace {

using namespace tavolar::testing;

TEST(VELTCSVExporter, WritesHeadersAndRowsByteForByte) {
    ExportFolder folder;
    const auto path = folder / "response.csv";

    VELTCSVExporter single;
    single.addColumn(VELTRealVector{20.0f, 40.0f}, "Freq");
    single.writeToURL(path);
    EXPECT_EQ(fileContents(path), "Freq,\n20.000000,\n40.000000,\n");

    // Rows run to the longest column; the shorter one reads 0 past its end. A comma in a title is
    // written as it is, splitting the field.
    VELTCSVExporter uneven;
    uneven.addColumn(VELTRealVector{1.0f, 2.0f, 3.0f}, "Time ms");
    uneven.addColumn(VELTRealVector{-1.5f, 0.25f, 10.0f, 100.0f, 1000.5f}, "Level, dB");
    uneven.writeToURL(path);
    EXPECT_EQ(fileContents(path), "Time ms,Level, dB,\n"
                                  "1.000000,-1.500000,\n"
                                  "2.000000,0.250000,\n"
                                  "3.000000,10.000000,\n"
                                  "0.000000,100.000000,\n"
                                  "0.000000,1000.500000,\n");

    // Samples are single precision widened to double, then rounded to six decimals by printf.
    VELTCSVExporter widened;
    widened.addColumn(
        VELTRealVector{0.1f, 2.5e-6f, 16777217.0f, -0.0f, 1e-7f, std::numeric_limits<float>::max()}, "Value");
    widened.writeToURL(path);
    EXPECT_EQ(fileContents(path), "Value,\n"
                                  "0.100000,\n"
                                  "0.000002,\n" // 2.5e-6f is 2.49999994e-06
                                  "16777216.000000,\n"
                                  "-0.000000,\n"
                                  "0.000000,\n"
                                  "340282346638528859811704183484516925440.000000,\n");

    // The header line has as many fields as there are titles, whatever the number of columns;
    // titles outside ASCII lose their characters to "?", one per character.
    VELTCSVExporter mismatched;
    mismatched.setColumns({VELTRealVector{1.0f}});
    mismatched.setHeaders({"Phase (°)", "Fréquence – Hz", "Extra"});
    mismatched.writeToURL(path);
    EXPECT_EQ(fileContents(path), "Phase (?),Fr?quence ? Hz,Extra,\n1.000000,\n");
    EXPECT_EQ(mismatched.headers().size(), 3u);
    EXPECT_EQ(mismatched.columns().size(), 1u);
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

TEST(VELTCSVExporter, ReadsBackWithPythonsCSVModule) {
    if (!programIsInstalled("python3"))
        GTEST_SKIP() << "python3 is not installed; the CSV read-back check needs it";
    ExportFolder folder;
    const auto path = folder / "three columns.csv";
    std::mt19937 generator(5);
    std::uniform_real_distribution<float> uniform(-1.0f, 1.0f);
    std::vector<VELTRealVector> columns(3);
    for (std::size_t index = 0; index < 257; ++index) {
        columns[0].appendComponent(20.0f * std::pow(1000.0f, index / 256.0f));
        columns[1].appendComponent(120.0f * uniform(generator));
        columns[2].appendComponent(std::ldexp(uniform(generator), -12));
    }
    VELTCSVExporter exporter;
    exporter.addColumn(columns[0], "Frequency Hz");
    exporter.addColumn(columns[1], "Magnitude dB");
    exporter.addColumn(columns[2], "Tiny");
    exporter.writeToURL(path);

    // Python prints the number of fields of each row, then the fields, one per line.
    const std::string script = "import csv, sys\n"
                               "with open(sys.argv[1], newline='') as f:\n"
                               "    for row in csv.reader(f):\n"
                               "        print(len(row))\n"
                               "        for field in row: print(field)\n";
    int status = 0;
    std::istringstream output(commandOutput("python3 -c \"" + script + "\" '" + path.string() + "'", status));
    ASSERT_EQ(status, 0);
    std::string line;
    auto nextLine = [&] {
        std::getline(output, line);
        return line;
    };
    ASSERT_EQ(nextLine(), "4"); // three titles and the empty field after the trailing comma
    EXPECT_EQ(nextLine(), "Frequency Hz");
    EXPECT_EQ(nextLine(), "Magnitude dB");
    EXPECT_EQ(nextLine(), "Tiny");
    EXPECT_EQ(nextLine(), "");
    for (std::size_t row = 0; row < 257; ++row) {
        ASSERT_EQ(nextLine(), "4") << "row " << row;
        for (std::size_t column = 0; column < 3; ++column) {
            const double read = std::stod(nextLine());
            // Six decimals: within half a unit of the last place of the value widened to double.
            EXPECT_NEAR(read, static_cast<double>(columns[column][row]), 5.0e-7 + 1e-11)
                << "row " << row << " column " << column;
        }
        EXPECT_EQ(nextLine(), "");
    }
    EXPECT_FALSE(std::getline(output, line));
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

} // namespace
} // namespace tavolar
