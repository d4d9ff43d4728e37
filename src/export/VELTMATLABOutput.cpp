#include "export/VELTMATLABOutput.h"

#include "export/ExportText.h"

#include <cerrno>
#include <cstring>
#include <fmt/format.h>

namespace tavolar {

void VELT_vecfprint(std::FILE* stream, const char* name, const VELTRealVector& vector) {
    CNumericFormattingScope numericFormatting;
    std::fprintf(stream, "%s = [", name);
    for (float sample : vector.span())
        std::fprintf(stream, "%f, ", static_cast<double>(sample));
    std::fputs("];\n", stream);
}

void VELT_cvecfprint(std::FILE* stream, const char* name, const VELTComplexVector& vector) {
    CNumericFormattingScope numericFormatting;
    std::fprintf(stream, "%s = [", name);
    const float* real = vector.realComponents();
    const float* imaginary = vector.imaginaryComponents();
    for (std::size_t index = 0; index < vector.length(); ++index)
        std::fprintf(stream, "%f + %fi, ", static_cast<double>(real[index]),
                     static_cast<double>(imaginary[index]));
    std::fputs("];\n", stream);
}

void VELT_mtxfprint(std::FILE* stream, const char* name, const VELTRealMatrix& matrix) {
    CNumericFormattingScope numericFormatting;
    std::fprintf(stream, "%s = [", name);
    for (std::size_t row = 0; row < matrix.rows(); ++row) {
        for (float value : matrix.rowAtIndex(row))
            std::fprintf(stream, "%f, ", static_cast<double>(value));
        std::fputc(';', stream);
    }
    std::fputs("];\n", stream);
}

void VELT_arrayfprint(std::FILE* stream, const char* name, std::span<const double> numbers) {
    CNumericFormattingScope numericFormatting;
    std::fprintf(stream, "%s = [", name);
    // Deliberately narrowed to float first: the array's elements are written by their float value.
    for (double number : numbers)
        std::fprintf(stream, "%f, ", static_cast<double>(static_cast<float>(number)));
    std::fputs("];\n", stream);
}

Expected<VELTMATLABOutput> VELTMATLABOutput::withFilename(const std::filesystem::path& filename) {
    std::FILE* file = std::fopen(filename.c_str(), "w");
    if (!file)
        return makeUnexpected(fmt::format("The MATLAB file “{}” could not be opened for writing: {}.",
                                          filename.string(), std::strerror(errno)),
                              "Check that the folder exists and that you may write to it.");
    return VELTMATLABOutput(file);
}

void VELTMATLABOutput::writeVector(const VELTRealVector& vector, const std::string& name) {
    VELT_vecfprint(mFile.get(), name.c_str(), vector);
}

void VELTMATLABOutput::writeVectorWithEveryDigit(const VELTRealVector& vector, const std::string& name) {
    CNumericFormattingScope numericFormatting;
    std::FILE* stream = mFile.get();
    std::fprintf(stream, "%s = [", name.c_str());
    for (float sample : vector.span())
        std::fprintf(stream, "%.9g, ", static_cast<double>(sample));
    std::fputs("];\n", stream);
}

void VELTMATLABOutput::writeComplexVector(const VELTComplexVector& vector, const std::string& name) {
    VELT_cvecfprint(mFile.get(), name.c_str(), vector);
}

void VELTMATLABOutput::writeMatrix(const VELTRealMatrix& matrix, const std::string& name) {
    VELT_mtxfprint(mFile.get(), name.c_str(), matrix);
}

void VELTMATLABOutput::writeFloatArray(std::span<const double> numbers, const std::string& name) {
    VELT_arrayfprint(mFile.get(), name.c_str(), numbers);
}

} // namespace tavolar
