#pragma once
// Reads a microphone calibration text file into three parallel columns: frequency in Hz, magnitude
// and phase. Any recognisable text encoding, CR, LF or CRLF line endings, and commas, spaces or tabs
// between numbers are accepted; lines that do not begin with a number (titles, headings,
// sensitivity statements) are skipped.

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
    // but no magnitude: reading stops there for the rest of the file. Succeeds when at least one
    // line was read. A failure logs a line starting "ERROR: " and is kept in error().
    bool parse();

    const std::vector<std::byte>& data() const noexcept { return data_; }
    // One component per line of data, in file order, neither sorted nor checked.
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
    void readLines(std::string_view text);

    std::vector<std::byte> data_;
    VELTRealVector frequency_;
    VELTRealVector magnitude_;
    VELTRealVector phase_;
    bool skipLine_ = false;
    bool success_ = false;
    std::optional<TavolarError> error_;
};

} // namespace tavolar
