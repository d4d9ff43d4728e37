#include "export/ExportTestSupport.h"
#include "export/VELTMATLABOutput.h"

#include <cmath>
#include <cstdio>
#include <gtest/gtest.h>
#include <limits>
#include <sstream>

namespace tavolar {
namespace {

using namespace tavolar::testing;

// Runs a statement writer on an in-memory stream and answers what it wrote.
template <typename Writer> std::string writtenBy(Writer writer) {
    char* buffer = nullptr;
    std::size_t size = 0;
    std::FILE* stream = open_memstream(&buffer, &size);
    writer(stream);
    std::fclose(stream);
    std::string text(buffer, size);
    std::free(buffer);
    return text;
}

VELTComplexVector complexVector(std::initializer_list<std::pair<float, float>> components) {
    VELTComplexVector vector(components.size());
    std::size_t index = 0;
    for (auto [real, imaginary] : components) {
        vector.mutableRealComponents()[index] = real;
        vector.mutableImaginaryComponents()[index] = imaginary;
        ++index;
    }
    return vector;
}

VELTRealMatrix matrix(std::size_t rows, std::size_t columns, std::initializer_list<float> values) {
    return VELTRealMatrix(VELTRealVector(values), rows, columns);
}

TEST(VELTMATLABOutput, WritesStatementsByteForByte) {
    EXPECT_EQ(writtenBy([](std::FILE* s) {
                  VELT_vecfprint(s, "x", VELTRealVector{1.0f, 2.0f});
              }),
              "x = [1.000000, 2.000000, ];\n");
    EXPECT_EQ(writtenBy([](std::FILE* s) { VELT_vecfprint(s, "e", VELTRealVector{}); }), "e = [];\n");
    EXPECT_EQ(writtenBy([](std::FILE* s) {
                  VELT_mtxfprint(s, "m", matrix(2, 2, {1, 2, 3, 4}));
              }),
              "m = [1.000000, 2.000000, ;3.000000, 4.000000, ;];\n");
    EXPECT_EQ(writtenBy([](std::FILE* s) {
                  VELT_mtxfprint(s, "row", matrix(1, 3, {-1, 0.5f, 0}));
              }),
              "row = [-1.000000, 0.500000, 0.000000, ;];\n");
    EXPECT_EQ(writtenBy([](std::FILE* s) {
                  VELT_cvecfprint(s, "z", complexVector({{1, 2}}));
              }),
              "z = [1.000000 + 2.000000i, ];\n");
    // A negative imaginary part keeps the " + " and its own sign.
    EXPECT_EQ(writtenBy([](std::FILE* s) {
                  VELT_cvecfprint(s, "w", complexVector({{0.25f, -3}, {-1, 0}}));
              }),
              "w = [0.250000 + -3.000000i, -1.000000 + 0.000000i, ];\n");
    // Numbers are written by their single-precision value: 16777217 has none and becomes 16777216.
    const double numbers[] = {0.1, 16777217.0, -2.0};
    EXPECT_EQ(writtenBy([&](std::FILE* s) { VELT_arrayfprint(s, "a", numbers); }),
              "a = [0.100000, 16777216.000000, -2.000000, ];\n");
    // Names are written as given, UTF-8 included.
    EXPECT_EQ(writtenBy([](std::FILE* s) { VELT_vecfprint(s, "größe", VELTRealVector{0.0f}); }),
              "größe = [0.000000, ];\n");

    // The class appends the statements to its file in the order of the calls.
    ExportFolder folder;
    const auto path = folder / "dump.m";
    std::ofstream(path) << "old contents that must go\n";
    {
        auto output = VELTMATLABOutput::withFilename(path);
        ASSERT_TRUE(output) << output.error().localizedDescription;
        output->writeVector(VELTRealVector{1.0f, 2.0f}, "x");
        output->writeMatrix(matrix(2, 2, {1, 2, 3, 4}), "m");
        output->writeComplexVector(complexVector({{1, 2}}), "z");
        output->writeFloatArray(numbers, "a");
    }
    EXPECT_EQ(fileContents(path), "x = [1.000000, 2.000000, ];\n"
                                  "m = [1.000000, 2.000000, ;3.000000, 4.000000, ;];\n"
                                  "z = [1.000000 + 2.000000i, ];\n"
                                  "a = [0.100000, 16777216.000000, -2.000000, ];\n");
}

TEST(VELTMATLABOutput, RefusesAFileItCannotOpen) {
    ExportFolder folder;
    const auto path = folder / "missing folder" / "dump.m";
    auto output = VELTMATLABOutput::withFilename(path);
    ASSERT_FALSE(output);
    EXPECT_NE(output.error().localizedDescription.find(path.string()), std::string::npos);
    EXPECT_NE(output.error().localizedDescription.find("No such file or directory"), std::string::npos);
    EXPECT_FALSE(output.error().localizedRecoverySuggestion.empty());
}

// Reads what Octave printed for one variable: its size, then its values (real and imaginary parts).
struct OctaveVariable {
    std::size_t rows = 0, columns = 0;
    std::vector<double> real, imaginary;
};

TEST(VELTMATLABOutput, FilesLoadInOctaveWithTheSameNumbers) {
    if (!programIsInstalled("octave-cli"))
        GTEST_SKIP() << "octave-cli is not installed (Debian package octave); the check that MATLAB files "
                        "load in GNU Octave is skipped";
    ExportFolder folder;
    const auto path = folder / "dump.m";

    std::mt19937 generator(11);
    std::uniform_real_distribution<float> uniform(-1.0f, 1.0f);
    VELTRealVector vector;
    for (int index = 0; index < 40; ++index)
        vector.appendComponent(std::ldexp(uniform(generator), index % 20 - 6));
    vector.appendComponent(-0.0f);
    vector.appendComponent(std::numeric_limits<float>::infinity());
    vector.appendComponent(-std::numeric_limits<float>::infinity());
    vector.appendComponent(std::numeric_limits<float>::quiet_NaN());
    VELTComplexVector complex(7);
    for (std::size_t index = 0; index < complex.length(); ++index) {
        complex.mutableRealComponents()[index] = 100.0f * uniform(generator);
        complex.mutableImaginaryComponents()[index] = 100.0f * uniform(generator);
    }
    VELTRealMatrix values(3, 4);
    for (std::size_t row = 0; row < 3; ++row)
        for (std::size_t column = 0; column < 4; ++column)
            values.setValue(1000.0f * uniform(generator), row, column);
    const std::vector<double> numbers{1.0 / 3.0, -1e6, 0.0};
    {
        auto output = VELTMATLABOutput::withFilename(path);
        ASSERT_TRUE(output);
        output->writeVector(vector, "v");
        output->writeComplexVector(complex, "z");
        output->writeMatrix(values, "m");
        output->writeFloatArray(numbers, "a");
        output->writeVector(VELTRealVector{}, "e");
    }

    // Octave prints, per variable: its size, whether it is complex, then every element column by
    // column as "real imaginary".
    const std::string program =
        "source('" + path.string() +
        "'); names = {'v', 'z', 'm', 'a', 'e'}; for k = 1:numel(names), x = eval(names{k}); "
        "printf('%d %d %d\\n', rows(x), columns(x), iscomplex(x)); "
        "for i = 1:numel(x), printf('%.17g %.17g\\n', real(x(i)), imag(x(i))); end; end";
    int status = 0;
    std::istringstream output(
        commandOutput("octave-cli --norc --quiet --eval \"" + program + "\" 2>/dev/null", status));
    ASSERT_EQ(status, 0) << "octave-cli could not run the file";

    auto readVariable = [&](bool complexExpected) {
        OctaveVariable variable;
        int isComplex = -1;
        output >> variable.rows >> variable.columns >> isComplex;
        EXPECT_EQ(isComplex, complexExpected ? 1 : 0);
        for (std::size_t index = 0; index < variable.rows * variable.columns; ++index) {
            std::string real, imaginary;
            output >> real >> imaginary;
            variable.real.push_back(std::stod(real));
            variable.imaginary.push_back(std::stod(imaginary));
        }
        return variable;
    };
    // printf's six decimals: within half a unit in the last place of the value widened to double.
    auto expectSame = [](double read, float written, const std::string& where) {
        if (std::isnan(written))
            EXPECT_TRUE(std::isnan(read)) << where;
        else if (std::isinf(written))
            EXPECT_EQ(read, static_cast<double>(written)) << where;
        else
            EXPECT_NEAR(read, static_cast<double>(written), 5e-7 + 1e-12) << where;
    };

    OctaveVariable v = readVariable(false);
    ASSERT_EQ(v.rows, 1u);
    ASSERT_EQ(v.columns, vector.length());
    for (std::size_t index = 0; index < vector.length(); ++index)
        expectSame(v.real[index], vector[index], "v " + std::to_string(index));

    OctaveVariable z = readVariable(true);
    ASSERT_EQ(z.columns, complex.length());
    for (std::size_t index = 0; index < complex.length(); ++index) {
        expectSame(z.real[index], complex.realComponents()[index], "z real " + std::to_string(index));
        expectSame(z.imaginary[index], complex.imaginaryComponents()[index],
                   "z imag " + std::to_string(index));
    }

    OctaveVariable m = readVariable(false);
    ASSERT_EQ(m.rows, 3u);
    ASSERT_EQ(m.columns, 4u);
    // Octave lists a matrix column by column.
    for (std::size_t column = 0; column < 4; ++column)
        for (std::size_t row = 0; row < 3; ++row)
            expectSame(m.real[column * 3 + row], values.valueAt(row, column),
                       "m " + std::to_string(row) + "," + std::to_string(column));

    OctaveVariable a = readVariable(false);
    ASSERT_EQ(a.columns, numbers.size());
    for (std::size_t index = 0; index < numbers.size(); ++index)
        expectSame(a.real[index], static_cast<float>(numbers[index]), "a " + std::to_string(index));

    OctaveVariable e = readVariable(false);
    EXPECT_EQ(e.rows, 0u);
    EXPECT_EQ(e.columns, 0u);
}

} // namespace
} // namespace tavolar
