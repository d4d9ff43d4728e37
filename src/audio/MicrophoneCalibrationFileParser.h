#pragma once
// Reads a microphone calibration text file into three parallel columns: frequency in Hz, magnitude
// and phase. Any recognisable text encoding, CR, LF or CRLF line endings, and commas, spaces or tabs
// between numbers are accepted; lines that do not begin with a number (titles, headings,
// sensitivity statements) are skipped. A file written with a decimal comma ("10<TAB>-2,5<TAB>0",
// columns separated by tabs, semicolons or spaces) is read as such.
//
// What the parser gives is a curve a spline can be drawn through: frequencies from 0 Hz to 1 MHz,
// strictly increasing and at least 0.001 Hz apart, magnitudes within ±200 dB and phases within
// ±1000000°. A file whose points are merely out of order is sorted, with a warning logged; any
// other breach is refused with a recovery suggestion that names the line.

#include "math/VELTRealVector.h"
#include "platform/TavolarError.h"

#include <cstddef>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace tavolar {

// The error domain of calibration files that cannot be read.
inline constexpr std::string_view kTavolarCalibrationParsingErrorDomain = "TavolarCalibrationParsing";

// The error a failed calibration file gives: code -1, "Failed to parse calibration file", with a
// recovery suggestion saying what was wrong.
TavolarError calibrationParsingError(std::string recoverySuggestion);

class MicrophoneCalibrationFileParser {
public:
    MicrophoneCalibrationFileParser() = delete;
    explicit MicrophoneCalibrationFileParser(std::vector<std::byte> data) : data_(std::move(data)) {}
    explicit MicrophoneCalibrationFileParser(std::span<const std::byte> data)
        : data_(data.begin(), data.end()) {}

    // Decodes the text and reads every line of data up to the first line that holds a frequency
    // but no magnitude: reading stops there for the rest of the file, and a line starting
    // "WARNING: " says so. Succeeds when at least one line was read and the points make a curve.
    // A failure logs a line starting "ERROR: ", is kept in error() and leaves the columns empty.
    bool parse();

    const std::vector<std::byte>& data() const noexcept { return data_; }
    // One component per line of data, in increasing order of frequency.
    const VELTRealVector& frequency() const noexcept { return frequency_; }
    const VELTRealVector& magnitude() const noexcept { return magnitude_; }
    // 0 where a line has no third number.
    const VELTRealVector& phase() const noexcept { return phase_; }
    // Whether the last line looked at was skipped.
    bool skipLine() const noexcept { return skipLine_; }
    bool success() const noexcept { return success_; }
    const std::optional<TavolarError>& error() const noexcept { return error_; }

private:
    bool fail(std::string_view logLine, std::string recoverySuggestion);
    bool readLines(std::string_view text);
    bool sortByFrequency();

    std::vector<std::byte> data_;
    VELTRealVector frequency_;
    VELTRealVector magnitude_;
    VELTRealVector phase_;
    std::vector<std::size_t> lines_; // the file's line number of each point, for messages
    std::size_t stopLine_ = 0;       // the line of a frequency without magnitude, or 0
    std::size_t ignoredLines_ = 0;   // lines of data after it
    bool skipLine_ = false;
    bool success_ = false;
    std::optional<TavolarError> error_;
};

} // namespace tavolar
