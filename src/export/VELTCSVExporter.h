#pragma once
// Writes equally indexed data series (frequency, magnitude, phase, time, ...) side by side into one
// comma-separated text file: one column per series, one header row, one row per sample index.

#include "math/VELTRealVector.h"

#include <filesystem>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace tavolar {

class VELTCSVExporter {
public:
    VELTCSVExporter() = default;

    // The series in column order, and their titles in the same order. Each property is read and
    // replaced as a whole under a lock, so that another thread never sees half an update.
    std::vector<VELTRealVector> columns() const;
    void setColumns(std::vector<VELTRealVector> columns);
    std::vector<std::string> headers() const;
    void setHeaders(std::vector<std::string> headers);

    // Appends the vector to the columns and the title to the headers.
    void addColumn(const VELTRealVector& column, std::string header);

    // Off by default. When on, every sample is written as "%.9g," instead of "%f,": nine significant
    // digits give back every float exactly, where six decimals read the small samples of an
    // impulse response's tail as 0.000000.
    bool writesEverySignificantDigit() const;
    void setWritesEverySignificantDigit(bool everyDigit);

    // Writes the text to the file: a header line of every title followed by a comma, then one line
    // per row with every column's sample as "%f," (or "%.9g,", see above; so lines end with a comma; kept
    // deliberately), lines separated by a single line feed, converted lossily to ASCII. Titles are neither
    // quoted nor escaped. The row count is the longest column's length; a shorter column writes 0 past its
    // end. With no columns, or only empty ones, no file is written. A failed write is logged as
    // "Error writing to URL <path>. <reason>" and not returned.
    void writeToURL(const std::filesystem::path& url) const;

    // The text that writeToURL writes (before the ASCII conversion), or nullopt when it writes no file.
    std::optional<std::string> csvText() const;

private:
    mutable std::mutex mutex_;
    std::vector<VELTRealVector> columns_;
    std::vector<std::string> headers_;
    bool everySignificantDigit_ = false;
};

} // namespace tavolar
