#include "audio/MicrophoneCalibrationFileParser.h"

#include "audio/NumberScanner.h"
#include "audio/TextEncodingDetection.h"
#include "platform/Logging.h"
#include "platform/TavolarLocalizedString.h"

#include <algorithm>
#include <fmt/format.h>
#include <numeric>

namespace tavolar {

namespace {
// Commas, spaces and tabs separate the columns; any run of them is skipped before each number.
constexpr std::string_view kColumnSeparators = ", \t";
// Files written with a decimal comma separate their columns with spaces, tabs or semicolons.
constexpr std::string_view kDecimalCommaColumnSeparators = "; \t";

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

std::vector<std::string_view> splitLines(std::string_view text) {
    std::vector<std::string_view> lines;
    for (std::size_t start = 0; start <= text.size();) {
        const std::size_t end = std::min(text.find('\n', start), text.size());
        lines.push_back(text.substr(start, end - start));
        start = end + 1;
    }
    return lines;
}

bool isDigit(char c) {
    return c >= '0' && c <= '9';
}

bool beginsWithNumber(std::string_view line, std::string_view separators) {
    return NumberScanner(line, std::string(separators)).scanDouble().has_value();
}

// A file in the decimal-comma form: its lines of data hold no full stop, every comma in them sits
// between two digits, and at least one of them has commas and two columns apart from them. A file
// of integers separated by commas alone ("20,5") stays in the ordinary form.
bool usesDecimalComma(const std::vector<std::string_view>& lines) {
    bool commaInColumns = false;
    for (std::string_view line : lines) {
        if (!beginsWithNumber(line, kDecimalCommaColumnSeparators))
            continue;
        if (line.find('.') != std::string_view::npos)
            return false;
        for (std::size_t at = line.find(','); at != std::string_view::npos; at = line.find(',', at + 1))
            if (at == 0 || at + 1 == line.size() || !isDigit(line[at - 1]) || !isDigit(line[at + 1]))
                return false;
        if (line.find(',') == std::string_view::npos)
            continue;
        std::string withPoints(line);
        std::replace(withPoints.begin(), withPoints.end(), ',', '.');
        NumberScanner columns(withPoints, std::string(kDecimalCommaColumnSeparators));
        if (columns.scanDouble() && columns.scanDouble())
            commaInColumns = true;
    }
    return commaInColumns;
}

// The values a calibration can hold. The record interpolates the curve with a cubic spline in
// single precision, which stays finite for points within these ranges and at least
// kMinimumFrequencySpacing apart; beyond them a file's column is not what it should be.
struct Column {
    std::string_view name, unit;
    double lowest, highest;
    std::string_view range, advice;
};
constexpr Column kFrequencyColumn{"frequency",
                                  " Hz",
                                  0.0,
                                  1e6,
                                  "from 0 Hz to 1 MHz",
                                  "Check that the first column holds frequencies in Hz."};
constexpr Column kMagnitudeColumn{
    "magnitude",      " dB",
    -200.0,           200.0,
    "within ±200 dB", "Check that the second column holds the correction in decibels."};
constexpr Column kPhaseColumn{
    "phase", "°", -1e6, 1e6, "within ±1000000°", "Check that the third column holds the phase in degrees."};
constexpr float kMinimumFrequencySpacing = 1e-3f; // Hz

// A number scanned from a column, with its text as the file writes it for messages.
struct ScannedValue {
    std::optional<double> value;
    std::string text;
};

ScannedValue scanValue(NumberScanner& scanner, std::string_view line, std::string_view separators) {
    std::size_t begin = scanner.scanLocation();
    while (begin < line.size() && separators.find(line[begin]) != std::string_view::npos)
        ++begin;
    const auto number = scanner.scanDouble();
    if (!number)
        return {};
    return {number, std::string(line.substr(begin, scanner.scanLocation() - begin))};
}

std::string plural(std::size_t count, std::string_view one, std::string_view many) {
    return fmt::format("{} {}", count, count == 1 ? one : many);
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
    frequency_ = VELTRealVector();
    magnitude_ = VELTRealVector();
    phase_ = VELTRealVector();
    success_ = false;
    error_ = calibrationParsingError(std::move(recoverySuggestion));
    return false;
}

bool MicrophoneCalibrationFileParser::readLines(std::string_view text) {
    const std::vector<std::string_view> lines = splitLines(text);
    const bool decimalComma = usesDecimalComma(lines);
    const std::string_view separators = decimalComma ? kDecimalCommaColumnSeparators : kColumnSeparators;
    for (std::size_t index = 0; index < lines.size(); ++index) {
        std::string line(lines[index]);
        if (decimalComma)
            std::replace(line.begin(), line.end(), ',', '.');
        NumberScanner scanner(line, std::string(separators));
        const std::size_t lineNumber = index + 1;

        const ScannedValue frequency = scanValue(scanner, line, separators);
        skipLine_ = !frequency.value;
        if (skipLine_)
            continue;
        const ScannedValue magnitude = scanValue(scanner, line, separators);
        // A frequency without a magnitude ends the data: nothing after this line is read.
        if (!magnitude.value) {
            stopLine_ = lineNumber;
            ignoredLines_ = static_cast<std::size_t>(
                std::count_if(lines.begin() + static_cast<std::ptrdiff_t>(index) + 1, lines.end(),
                              [&](std::string_view rest) { return beginsWithNumber(rest, separators); }));
            return true;
        }
        ScannedValue phase = scanValue(scanner, line, separators);
        if (!phase.value)
            phase = {0.0, "0"};
        const std::pair<const ScannedValue&, const Column&> columns[] = {
            {frequency, kFrequencyColumn}, {magnitude, kMagnitudeColumn}, {phase, kPhaseColumn}};
        for (const auto& [value, column] : columns)
            if (!(*value.value >= column.lowest && *value.value <= column.highest))
                return fail(fmt::format("ERROR: Calibration data line {}: the {} {} is out of range.",
                                        lineNumber, column.name, value.text),
                            fmt::format(fmt::runtime(TavolarLocalizedString(
                                            "Line {} gives the {} {}{}; calibration files give it {}. {}",
                                            "Recovery suggestion when a calibration value is out of range.")),
                                        lineNumber, column.name, value.text, column.unit, column.range,
                                        column.advice));
        frequency_.appendComponent(static_cast<float>(*frequency.value));
        magnitude_.appendComponent(static_cast<float>(*magnitude.value));
        phase_.appendComponent(static_cast<float>(*phase.value));
        lines_.push_back(lineNumber);
    }
    return true;
}

// Puts the points in increasing order of frequency, saying so when the file had them otherwise,
// and refuses frequencies given twice or too close together to draw a curve through.
bool MicrophoneCalibrationFileParser::sortByFrequency() {
    std::vector<std::size_t> order(frequency_.length());
    std::iota(order.begin(), order.end(), std::size_t{0});
    std::stable_sort(order.begin(), order.end(),
                     [&](std::size_t a, std::size_t b) { return frequency_[a] < frequency_[b]; });
    for (std::size_t i = 1; i < order.size(); ++i) {
        const std::size_t first = order[i - 1], second = order[i];
        if (frequency_[first] == frequency_[second])
            return fail(fmt::format("ERROR: Calibration data lines {} and {} give the same frequency.",
                                    lines_[first], lines_[second]),
                        fmt::format(fmt::runtime(TavolarLocalizedString(
                                        "Lines {} and {} both give the frequency {:g} Hz. Remove one of "
                                        "them, or correct its frequency.",
                                        "Recovery suggestion when a calibration frequency is repeated.")),
                                    lines_[first], lines_[second], frequency_[second]));
        if (frequency_[second] - frequency_[first] < kMinimumFrequencySpacing)
            return fail(
                fmt::format("ERROR: Calibration data lines {} and {} give frequencies too close together.",
                            lines_[first], lines_[second]),
                fmt::format(fmt::runtime(TavolarLocalizedString(
                                "Lines {} and {} give the frequencies {:g} Hz and {:g} Hz, less than "
                                "0.001 Hz apart, which no curve can be drawn through. Remove one of "
                                "them, or correct its frequency.",
                                "Recovery suggestion when calibration frequencies are too close.")),
                            lines_[first], lines_[second], frequency_[first], frequency_[second]));
    }
    const auto outOfOrder =
        std::adjacent_find(frequency_.components(), frequency_.components() + frequency_.length(),
                           [](float a, float b) { return b < a; });
    if (outOfOrder == frequency_.components() + frequency_.length())
        return true;
    const auto at = static_cast<std::size_t>(outOfOrder - frequency_.components()) + 1;
    logMessage(fmt::format(fmt::runtime(TavolarLocalizedString(
                               "WARNING: The calibration file's frequencies are not in increasing order "
                               "({:g} Hz on line {} follows {:g} Hz on line {}); its {} points were sorted "
                               "by frequency.",
                               "Warning when a calibration file is sorted.")),
                           frequency_[at], lines_[at], frequency_[at - 1], lines_[at - 1], order.size()));
    VELTRealVector frequency(order.size()), magnitude(order.size()), phase(order.size());
    for (std::size_t i = 0; i < order.size(); ++i) {
        frequency[i] = frequency_[order[i]];
        magnitude[i] = magnitude_[order[i]];
        phase[i] = phase_[order[i]];
    }
    frequency_ = std::move(frequency);
    magnitude_ = std::move(magnitude);
    phase_ = std::move(phase);
    return true;
}

bool MicrophoneCalibrationFileParser::parse() {
    frequency_ = VELTRealVector();
    magnitude_ = VELTRealVector();
    phase_ = VELTRealVector();
    lines_.clear();
    stopLine_ = 0;
    ignoredLines_ = 0;
    skipLine_ = false;
    error_.reset();

    auto decoded = stringWithDetectedEncoding(data_);
    if (!decoded)
        return fail("ERROR: Could not detect encoding for calibration data.",
                    TavolarLocalizedString("The file is not readable as text in any known encoding. Choose a "
                                           "calibration text file, or save it as plain UTF-8 text.",
                                           "Recovery suggestion when a calibration file is not text."));
    if (!readLines(normalizedLineEndings(std::move(decoded->text))))
        return false;
    const std::string stop =
        stopLine_ == 0
            ? std::string()
            : fmt::format(fmt::runtime(TavolarLocalizedString(
                              "Line {} holds a frequency without a magnitude, and the data ends there",
                              "Why a calibration file's data ends early.")),
                          stopLine_);
    if (frequency_.length() == 0)
        return fail("ERROR: No calibration data read",
                    TavolarLocalizedString("The file holds no lines of frequency and magnitude values. Check "
                                           "that it is a microphone calibration file with one frequency, "
                                           "magnitude and optional phase per line.",
                                           "Recovery suggestion when a calibration file holds no data.") +
                        (stop.empty() ? std::string() : " " + stop + "."));
    if (!stop.empty())
        logMessage(fmt::format(
            "WARNING: {}{}.", stop,
            ignoredLines_ == 0
                ? std::string()
                : fmt::format(fmt::runtime(TavolarLocalizedString(
                                  "; {} after it {} not read", "Lines of a calibration file left unread.")),
                              plural(ignoredLines_, "line of data", "lines of data"),
                              ignoredLines_ == 1 ? "is" : "are")));
    if (!sortByFrequency())
        return false;
    success_ = true;
    return true;
}

} // namespace tavolar
