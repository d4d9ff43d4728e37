#include "audio/MicrophoneCalibrationFileParser.h"

#include "audio/CalibrationFileCheck.h"
#include "audio/NumberScanner.h"
#include "audio/TextEncodingDetection.h"
#include "platform/Logging.h"

#include <algorithm>
#include <cmath>
#include <gtest/gtest.h>
#include <random>

namespace tavolar {
namespace {

std::vector<std::byte> bytes(std::string_view text) {
    std::vector<std::byte> result(text.size());
    for (std::size_t i = 0; i < text.size(); ++i)
        result[i] = static_cast<std::byte>(text[i]);
    return result;
}

// ASCII text as UTF-16 or UTF-32 code units, with a byte-order mark when asked.
std::vector<std::byte> wide(std::string_view text, int unitSize, bool bigEndian, bool mark) {
    std::vector<std::byte> result;
    auto append = [&](std::uint32_t unit) {
        for (int i = 0; i < unitSize; ++i) {
            const int shift = 8 * (bigEndian ? unitSize - 1 - i : i);
            result.push_back(static_cast<std::byte>((unit >> shift) & 0xFF));
        }
    };
    if (mark)
        append(0xFEFF);
    for (unsigned char c : text)
        append(c);
    return result;
}

std::vector<float> components(const VELTRealVector& vector) {
    return std::vector<float>(vector.components(), vector.components() + vector.length());
}

struct Parsed {
    bool success;
    std::vector<float> frequency, magnitude, phase;
};

Parsed parse(std::span<const std::byte> data) {
    MicrophoneCalibrationFileParser parser(data);
    const bool success = parser.parse();
    EXPECT_EQ(success, parser.success());
    return {success, components(parser.frequency()), components(parser.magnitude()),
            components(parser.phase())};
}

TEST(MicrophoneCalibrationFileParser, ReadsColumnsAndSkipsTextLines) {
    // Headings, comments and blank lines are skipped; runs of separators, signs, exponents and
    // trailing text are handled; the same data with LF, CRLF and CR ends alike.
    const std::string body = "* Freq(Hz) Mag(dBFS) Phase(deg)\n"
                             "\n"
                             "# measured 2021\n"
                             "  20.0 ,\t -1.50,, +3.25   extra words 7 8\n"
                             "1.0e3\t0\t-4.5E-1\n"
                             ".5e4 , 2., -.5\n";
    for (std::string_view ending : {"\n", "\r\n", "\r"}) {
        std::string text;
        for (char c : body)
            text += c == '\n' ? std::string(ending) : std::string(1, c);
        const Parsed parsed = parse(bytes(text));
        ASSERT_TRUE(parsed.success);
        EXPECT_EQ(parsed.frequency, (std::vector<float>{20.0f, 1000.0f, 5000.0f}));
        EXPECT_EQ(parsed.magnitude, (std::vector<float>{-1.5f, 0.0f, 2.0f}));
        EXPECT_EQ(parsed.phase, (std::vector<float>{3.25f, -0.45f, -0.5f}));
    }
    // A line whose columns are separated by a semicolon, which is no separator, ends the data.
    EXPECT_EQ(parse(bytes("20 -1\n30;-2\n40 -3\n")).frequency, (std::vector<float>{20.0f}));
    setSystemLogEnabled(false);
    for (std::string_view noData : {"", "\n\n", "Frequency Magnitude\n", "nan 1\ninf 2\n"})
        EXPECT_FALSE(parse(bytes(noData)).success) << noData;
}

TEST(MicrophoneCalibrationFileParser, UnicodeEncodingsParseLikeTheirASCIITwin) {
    const std::string text = "Freq,dB,deg\r\n20,-1.5,0.5\r\n1000,0,-2\r\n";
    const Parsed ascii = parse(bytes(text));
    ASSERT_TRUE(ascii.success);
    // UTF-16 is recognised without a mark too, in its unambiguous form.
    for (int unitSize : {2, 4})
        for (bool bigEndian : {false, true})
            for (bool mark : {true, unitSize == 4}) {
                const Parsed parsed = parse(wide(text, unitSize, bigEndian, mark));
                ASSERT_TRUE(parsed.success) << unitSize << bigEndian << mark;
                EXPECT_EQ(parsed.frequency, ascii.frequency);
                EXPECT_EQ(parsed.phase, ascii.phase);
            }
    // UTF-8 with a mark.
    EXPECT_EQ(parse(bytes("\xEF\xBB\xBF" + text)).frequency, ascii.frequency);
}

TEST(MicrophoneCalibrationFileParser, BinaryDataIsRefused) {
    std::mt19937 generator(7);
    std::vector<std::byte> noise(4096);
    std::ranges::generate(noise, [&] { return static_cast<std::byte>(generator() & 0xFF); });
    std::vector<std::byte> noiseWithoutNul = noise;
    std::ranges::replace(noiseWithoutNul, std::byte{0}, std::byte{0x41});
    const std::vector<std::byte> png = bytes(std::string("\x89PNG\r\n\x1A\n\0\0\0\rIHDR", 16));
    // A numeric file with one NUL byte in it, as a damaged copy would have.
    std::string withNul = "20 -1.5 0\n25 -1.2 0\n";
    withNul[9] = '\0';
    // Control characters in otherwise valid text, and a byte-order mark over bytes that are not UTF-16.
    const std::vector<std::byte> controls = bytes("20 -1.5 0\x01\x02\x03\n25 -1.2 0\n");
    std::vector<std::byte> oddUTF16 = wide("20 -1.5\n", 2, false, true);
    oddUTF16.push_back(std::byte{0x41});

    setSystemLogEnabled(false);
    for (const auto& data : {noise, noiseWithoutNul, png, bytes(withNul), controls, oddUTF16}) {
        LogCapture capture;
        MicrophoneCalibrationFileParser parser(data);
        EXPECT_FALSE(parser.parse());
        EXPECT_EQ(capture.texts(),
                  (std::vector<std::string>{"ERROR: Could not detect encoding for calibration data."}));
    }
}

TEST(TextEncodingDetection, ValidatesUTF8Strictly) {
    EXPECT_TRUE(isValidUTF8(bytes("plain ASCII")));
    EXPECT_TRUE(isValidUTF8(bytes("\xC2\xB0 \xE2\x80\x93 \xF0\x9F\x8E\xA4")));
    EXPECT_FALSE(isValidUTF8(bytes("\xB0")));             // Latin-1 degree sign
    EXPECT_FALSE(isValidUTF8(bytes("\xC0\xAF")));         // overlong
    EXPECT_FALSE(isValidUTF8(bytes("\xE0\x80\xAF")));     // overlong
    EXPECT_FALSE(isValidUTF8(bytes("\xED\xA0\x80")));     // surrogate
    EXPECT_FALSE(isValidUTF8(bytes("\xF4\x90\x80\x80"))); // past U+10FFFF
    EXPECT_FALSE(isValidUTF8(bytes("\xE2\x80")));         // truncated

    auto windows1252 = stringWithDetectedEncoding(bytes("Temperatur 23 \xB0"
                                                        "C, Luftdruck 1013 hPa, Feuchte 45 %\n20 -1.5\n"));
    ASSERT_TRUE(windows1252.has_value());
    EXPECT_NE(windows1252->text.find("23 \u00B0C"), std::string::npos);
    // A DOS end-of-file mark is not binary.
    EXPECT_TRUE(stringWithDetectedEncoding(bytes("20 -1.5\r\n\x1A")).has_value());
    EXPECT_EQ(stringWithDetectedEncoding({})->text, "");
}

TEST(NumberScanner, ScansLikeThePlatformScanner) {
    auto scanAll = [](std::string_view text) {
        NumberScanner scanner(text, ", \t");
        std::vector<double> values;
        while (auto value = scanner.scanDouble())
            values.push_back(*value);
        return values;
    };
    EXPECT_EQ(scanAll("1 -2 +3 4.5 .5 6. -.25 1e3 1E-2 2.5e+1"),
              (std::vector<double>{1, -2, 3, 4.5, 0.5, 6, -0.25, 1000, 0.01, 25}));
    EXPECT_EQ(scanAll(",,\t 7,8"), (std::vector<double>{7, 8}));
    // An exponent without digits is not part of the number, and stops the scan.
    NumberScanner exponent("1e 2", " ");
    EXPECT_EQ(exponent.scanDouble(), 1.0);
    EXPECT_EQ(exponent.scanDouble(), std::nullopt);
    EXPECT_EQ(exponent.scanLocation(), 1u);
    for (std::string_view notNumbers : {".", "-", "+.", "e5", "inf", "nan",
                                        "\xC2\xA0"
                                        "5"})
        EXPECT_EQ(NumberScanner(notNumbers, " ").scanDouble(), std::nullopt) << notNumbers;
    // 0x10 is read as 0 followed by "x10", as a decimal scanner does.
    EXPECT_EQ(scanAll("0x10"), (std::vector<double>{0}));
    EXPECT_EQ(NumberScanner("-1e999").scanDouble(), -INFINITY);
    EXPECT_EQ(NumberScanner("1e-999").scanDouble(), 0.0);
    EXPECT_EQ(NumberScanner("0.1").scanFloat(), 0.1f);
    NumberScanner end("5 , ", ", ");
    EXPECT_FALSE(end.isAtEnd());
    end.scanFloat();
    EXPECT_TRUE(end.isAtEnd());
}

// What loading a file adds to the parser: out-of-order points are sorted with a warning; repeated or
// too close frequencies and values out of their column's range are refused naming the line; the
// decimal-comma form is read as such; a frequency alone ends the data and says so.
TEST(CalibrationFileCheck, ColumnsMakeACurveOrTheFileIsRefused) {
    struct Case {
        std::string_view text;
        std::string_view message; // in the log, or the refusal's suggestion; none logged when empty
        std::vector<float> frequency = {}, magnitude = {}, phase = {}; // no frequencies: refused
    };
    const Case cases[] = {
        {"100 1\n50 2\n70 3 9\n",
         "WARNING: The calibration file's frequencies are not in increasing order (50 Hz on line 2 follows "
         "100 Hz on line 1); its 3 points were sorted by frequency.",
         {50, 70, 100},
         {2, 3, 1},
         {0, 9, 0}},
        {"20 -1\n1000 0\n1000 0.5\n", "Lines 2 and 3 both give the frequency 1000 Hz."},
        {"1000 0\n20 1\n1000 2\n", "Lines 1 and 3 both give the frequency 1000 Hz."},
        {"20 0\n20.0005 1\n", "Lines 1 and 2 give the frequencies 20 Hz and 20.0005 Hz, less"},
        {"20 -1\n1000 1e39\n",
         "Line 2 gives the magnitude 1e39 dB; calibration files give it within ±200 dB."},
        {"1e400 0\n", "Line 1 gives the frequency 1e400 Hz; calibration files give it from 0 Hz"},
        {"30 1.2\n3e21 2\n", "Line 2 gives the frequency 3e21 Hz;"},
        {"20 0 -4e38\n", "Line 1 gives the phase -4e38°;"},
        {"* Hz dB\n-20 1\n", "Line 2 gives the frequency -20 Hz;"},
        {"10\t-2,5\t0\n20\t-1,25\t0,5\n", "", {10, 20}, {-2.5f, -1.25f}, {0, 0.5f}},
        {"Freq;dB;Phase\r\n20;-1,5;0\r\n1000;0;12,5\r\n", "", {20, 1000}, {-1.5f, 0}, {0, 12.5f}},
        {"20 -1,5\n1000 0,25\n", "", {20, 1000}, {-1.5f, 0.25f}, {0, 0}},
        {"20,5\n30,6\n", "", {20, 30}, {5, 6}, {0, 0}},
        {"20,-1.5,0\n25,-1,0\n", "", {20, 25}, {-1.5f, -1}, {0, 0}},
        {"20 -1\n30 -2\n1000\n40 -3\n50 -4\n",
         "WARNING: Line 3 holds a frequency without a magnitude, and the data ends there; 2 lines of data "
         "after it are not read.",
         {20, 30},
         {-1, -2},
         {0, 0}},
        {"Calibration\n1000\n20 -1.5 0\n", "Line 2 holds a frequency without a magnitude"},
        {"\"Sens Factor =-38.5dB, SERNO: 7000123\"\n20 -1\n1000 0\n",
         "WARNING: Line 1 gives the microphone's sensitivity (\"Sens Factor =-38.5dB\"), which is not taken "
         "from the file: give it with calibrate --sensitivity and --sensitivity-unit.",
         {20, 1000},
         {-1, 0},
         {0, 0}},
    };
    setSystemLogEnabled(false);
    for (const Case& c : cases) {
        LogCapture capture;
        const auto points = checkedCalibrationFile(bytes(c.text));
        ASSERT_EQ(points.has_value(), !c.frequency.empty()) << c.text;
        if (!points) {
            EXPECT_NE(points.error().localizedRecoverySuggestion.find(c.message), std::string::npos)
                << points.error().localizedRecoverySuggestion;
            continue;
        }
        EXPECT_EQ(components(points->frequency), c.frequency) << c.text;
        EXPECT_EQ(components(points->magnitude), c.magnitude) << c.text;
        EXPECT_EQ(components(points->phase), c.phase) << c.text;
        if (!c.message.empty())
            EXPECT_TRUE(capture.contains(c.message)) << c.text;
        else
            EXPECT_TRUE(capture.texts().empty()) << c.text;
    }
}

} // namespace
} // namespace tavolar
