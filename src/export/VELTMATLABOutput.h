#pragma once
// Writes named numeric arrays into a text file as MATLAB assignment statements, a script that
// recreates the variables when run: for looking at vectors, complex vectors, matrices and number
// arrays outside the program.
//
// Every statement is "<name> = [" followed by the elements and "];\n". Each element is written
// with printf's "%f, " (floats widened to double), so the last element too is followed by a comma
// and a space; a matrix row ends with ";" straight after that space. No line breaks are written
// inside a statement. These separators are the format and are kept deliberately.

#include "math/VELTComplexVector.h"
#include "math/VELTRealMatrix.h"
#include "math/VELTRealVector.h"
#include "platform/TavolarError.h"

#include <cstdio>
#include <filesystem>
#include <memory>
#include <span>
#include <string>

namespace tavolar {

// The statement writers, usable without the class. name is a NUL-terminated UTF-8 string. Write
// failures are not reported.
// Each sample as "%f, ".
void VELT_vecfprint(std::FILE* stream, const char* name, const VELTRealVector& vector);
// Each component as "%f + %fi, " (real part, imaginary part).
void VELT_cvecfprint(std::FILE* stream, const char* name, const VELTComplexVector& vector);
// Row by row: each value as "%f, ", then ";" ending the row.
void VELT_mtxfprint(std::FILE* stream, const char* name, const VELTRealMatrix& matrix);
// Each number's single-precision value as "%f, ".
void VELT_arrayfprint(std::FILE* stream, const char* name, std::span<const double> numbers);

class VELTMATLABOutput {
public:
    // Opens the file for writing (mode "w": created, or truncated). A file that cannot be opened is
    // an error here, since the object would be of no use.
    static Expected<VELTMATLABOutput> withFilename(const std::filesystem::path& filename);

    VELTMATLABOutput(VELTMATLABOutput&&) noexcept = default;
    VELTMATLABOutput& operator=(VELTMATLABOutput&&) noexcept = default;

    // Statements are appended in the order of the calls, with no flush in between; the file is
    // closed when the object is destroyed. Write failures are not reported.
    void writeVector(const VELTRealVector& vector, const std::string& name);
    // The same statement with each sample as "%.9g, ": every float written back exactly, for signals
    // whose small samples six decimals would read as 0.
    void writeVectorWithEveryDigit(const VELTRealVector& vector, const std::string& name);
    void writeComplexVector(const VELTComplexVector& vector, const std::string& name);
    void writeMatrix(const VELTRealMatrix& matrix, const std::string& name);
    void writeFloatArray(std::span<const double> numbers, const std::string& name);

private:
    struct FileCloser {
        void operator()(std::FILE* file) const { std::fclose(file); }
    };
    explicit VELTMATLABOutput(std::FILE* file) : mFile(file) {}

    std::unique_ptr<std::FILE, FileCloser> mFile;
};

} // namespace tavolar
