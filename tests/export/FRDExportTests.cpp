#include "export/ExportTestSupport.h"
#include "export/FRDExport.h"
#include "platform/Assertions.h"
#include "platform/Logging.h"

#include <cmath>
#include <gtest/gtest.h>
#include <sstream>

namespace tavolar {
namespace {

using namespace tavolar::testing;

constexpr const char* kHeader = "* Response obtained using Tavolar (https://tavolarkit.org)\n"
                                "* Freq(Hz) Mag(dBFS) Phase(deg)\n";

TEST(FRDExport, WritesHeaderAndOneLinePerFrequency) {
    ExportFolder folder;
    const auto path = folder / "woofer.frd";
    writeToFRDFile(path, VELTRealVector{20.0f, 25.0f}, VELTRealVector{-3.5f, -3.25f},
                   VELTRealVector{10.0f, 12.0f});
    EXPECT_EQ(fileContents(path), std::string(kHeader) + "20.000000 -3.500000 10.000000\n"
                                                         "25.000000 -3.250000 12.000000\n");

    writeToFRDFile(path, VELTRealVector{}, VELTRealVector{}, VELTRealVector{});
    EXPECT_EQ(fileContents(path), kHeader);

    // Longer magnitude and phase vectors are read only as far as the frequencies go.
    writeToFRDFile(path, VELTRealVector{1000.0f}, VELTRealVector{0.1f, 5.0f},
                   VELTRealVector{-179.99f, 1.0f, 2.0f});
    EXPECT_EQ(fileContents(path), std::string(kHeader) + "1000.000000 0.100000 -179.990005\n");

    // Shorter ones are a programming error, found before anything is written.
    const auto untouched = folder / "untouched.frd";
    try {
        writeToFRDFile(untouched, VELTRealVector{20.0f, 25.0f}, VELTRealVector{1.0f},
                       VELTRealVector{1.0f, 2.0f});
        ADD_FAILURE() << "a short magnitude vector was accepted";
    } catch (const ParameterAssertion& assertion) {
        EXPECT_EQ(std::string(assertion.what()),
                  "Invalid parameter not satisfying: magnitude.length() >= frequency.length()");
    }
    EXPECT_THROW(writeToFRDFile(untouched, VELTRealVector{20.0f}, VELTRealVector{1.0f}, VELTRealVector{}),
                 ParameterAssertion);
    EXPECT_FALSE(std::filesystem::exists(untouched));
}

TEST(FRDExport, FailedWriteLeavesNoTrace) {
    ExportFolder folder;
    setSystemLogEnabled(false);
    LogCapture capture;
    const auto path = folder / "no such folder" / "out.frd";
    EXPECT_NO_THROW(writeToFRDFile(path, VELTRealVector{20.0f}, VELTRealVector{0.0f}, VELTRealVector{0.0f}));
    EXPECT_TRUE(capture.lines().empty());
    setSystemLogEnabled(true);
    EXPECT_FALSE(std::filesystem::exists(path));
}

TEST(FRDExport, ParsesBackAsFrequencyMagnitudePhase) {
    ExportFolder folder;
    const auto path = folder / "tweeter.frd";
    constexpr std::size_t kPoints = 481;
    VELTRealVector frequency, magnitude, phase;
    for (std::size_t index = 0; index < kPoints; ++index) {
        const double hz = 10.0 * std::pow(2400.0, index / double(kPoints - 1)); // 10 Hz to 24 kHz
        frequency.appendComponent(static_cast<float>(hz));
        // A second-order high-pass at 1.5 kHz, in dBFS and wrapped degrees.
        const double ratio = hz / 1500.0;
        const double real = 1.0 - ratio * ratio, imaginary = std::sqrt(2.0) * ratio;
        const double squared = ratio * ratio * ratio * ratio;
        magnitude.appendComponent(
            static_cast<float>(10.0 * std::log10(squared / (real * real + imaginary * imaginary))));
        phase.appendComponent(static_cast<float>(180.0 - std::atan2(imaginary, real) * 180.0 / M_PI));
    }
    writeToFRDFile(path, frequency, magnitude, phase);

    const std::string contents = fileContents(path);
    for (char character : contents)
        ASSERT_TRUE(character != '\r' && static_cast<unsigned char>(character) < 0x80);
    std::istringstream lines(contents);
    std::string line;
    std::size_t index = 0, comments = 0;
    while (std::getline(lines, line)) {
        if (line.starts_with("*")) {
            ++comments;
            continue;
        }
        // Exactly three fields separated by single spaces.
        std::istringstream fields(line);
        std::string text[3], extra;
        fields >> text[0] >> text[1] >> text[2];
        EXPECT_FALSE(fields >> extra) << line;
        EXPECT_EQ(line, text[0] + " " + text[1] + " " + text[2]);
        ASSERT_LT(index, kPoints);
        EXPECT_NEAR(std::stod(text[0]), frequency[index], 5e-7 + 1e-11) << line;
        EXPECT_NEAR(std::stod(text[1]), magnitude[index], 5e-7 + 1e-11) << line;
        EXPECT_NEAR(std::stod(text[2]), phase[index], 5e-7 + 1e-11) << line;
        ++index;
    }
    EXPECT_EQ(comments, 2u);
    EXPECT_EQ(index, kPoints);
}

} // namespace
} // namespace tavolar
