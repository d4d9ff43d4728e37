#include "audio/MicrophoneCalibrationFileParser.h"

#include "audio/NumberScanner.h"
#include "audio/TextEncodingDetection.h"
#include "platform/Logging.h"
#include "platform/TavolarLocalizedString.h"

namespace tavolar {

namespace {
// Commas, spaces and tabs separate the columns; any run of them is skipped before each number.
constexpr std::string_view kColumnSeparators = ", \t";

std::string normalizedLineEndings(std::string text) {
    std::string result;
    result.reserve(text.size());
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '\r') {
            result += '\n';
            if (i + 1 < text.size() && text[i + 1] == '\n')
                ++i;
        } else {
            result += text[i];
        }
    }
    return result;
}
} // namespace

TavolarError calibrationParsingError(std::string recoverySuggestion) {
    return TavolarError{std::string(kTavolarCalibrationParsingErrorDomain), -1,
                        TavolarLocalizedString("Failed to parse calibration file",
                                               "Displayed when parsing a calibration file fails."),
                        std::move(recoverySuggestion)};
}

bool MicrophoneCalibrationFileParser::fail(std::string_view logLine, std::string recoverySuggestion) {
    logMessage(logLine);
    success_ = false;
    error_ = calibrationParsingError(std::move(recoverySuggestion));
    return false;
}

void MicrophoneCalibrationFileParser::readLines(std::string_view text) {
    std::size_t lineStart = 0;
    while (lineStart <= text.size()) {
        std::size_t lineEnd = text.find('\n', lineStart);
        if (lineEnd == std::string_view::npos)
            lineEnd = text.size();
        NumberScanner scanner(text.substr(lineStart, lineEnd - lineStart), std::string(kColumnSeparators));
        lineStart = lineEnd + 1;

        const auto frequency = scanner.scanFloat();
        skipLine_ = !frequency;
        if (skipLine_)
            continue;
        const auto magnitude = scanner.scanFloat();
        // A frequency without a magnitude ends the data: nothing after this line is read.
        if (!magnitude)
            return;
        const float phase = scanner.scanFloat().value_or(0.0f);
        frequency_.appendComponent(*frequency);
        magnitude_.appendComponent(*magnitude);
        phase_.appendComponent(phase);
    }
}

bool MicrophoneCalibrationFileParser::parse() {
    frequency_ = VELTRealVector();
    magnitude_ = VELTRealVector();
    phase_ = VELTRealVector();
    skipLine_ = false;
    error_.reset();

    auto decoded = stringWithDetectedEncoding(data_);
    if (!decoded)
        return fail("ERROR: Could not detect encoding for calibration data.",
                    TavolarLocalizedString("The file is not readable as text in any known encoding. Choose a "
                                           "calibration text file, or save it as plain UTF-8 text.",
                                           "Recovery suggestion when a calibration file is not text."));
    readLines(normalizedLineEndings(std::move(decoded->text)));
    if (frequency_.length() == 0)
        return fail("ERROR: No calibration data read",
                    TavolarLocalizedString("The file holds no lines of frequency and magnitude values. Check "
                                           "that it is a microphone calibration file with one frequency, "
                                           "magnitude and optional phase per line.",
                                           "Recovery suggestion when a calibration file holds no data."));
    success_ = true;
    return true;
}

} // namespace tavolar
