#include "audio/CalibrationFileCheck.h"

#include "audio/MicrophoneCalibrationFileParser.h"
#include "audio/NumberScanner.h"
#include "audio/TextEncodingDetection.h"
#include "platform/Logging.h"
#include "platform/TavolarLocalizedString.h"

#include <algorithm>
#include <array>
#include <fmt/format.h>
#include <numeric>
#include <regex>
#include <string>
#include <string_view>
#include <vector>

namespace tavolar {

namespace {
// The separators the parser skips before each number.
constexpr std::string_view kColumnSeparators = ", \t";
// Files written with a decimal comma separate their columns with spaces, tabs or semicolons.
constexpr std::string_view kDecimalCommaColumnSeparators = "; \t";

// The text's lines, split where the parser splits them: at CRLF, LF or a lone CR.
std::vector<std::string> splitLines(std::string_view text) {
    std::vector<std::string> lines(1);
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '\r' || text[i] == '\n') {
            if (text[i] == '\r' && i + 1 < text.size() && text[i + 1] == '\n')
                ++i;
            lines.emplace_back();
        } else {
            lines.back() += text[i];
        }
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
bool usesDecimalComma(const std::vector<std::string>& lines) {
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
    float lowest, highest;
    std::string_view range, advice;
};
constexpr Column kFrequencyColumn{"frequency",
                                  " Hz",
                                  0.0f,
                                  1e6f,
                                  "from 0 Hz to 1 MHz",
                                  "Check that the first column holds frequencies in Hz."};
constexpr Column kMagnitudeColumn{
    "magnitude",      " dB",
    -200.0f,          200.0f,
    "within ±200 dB", "Check that the second column holds the correction in decibels."};
constexpr Column kPhaseColumn{
    "phase", "°", -1e6f, 1e6f, "within ±1000000°", "Check that the third column holds the phase in degrees."};
constexpr float kMinimumFrequencySpacing = 1e-3f; // Hz

// Where the parser's points come from, found by reading the lines as it does: the line of each
// point with its three numbers as the file writes them, and the line of a frequency without a
// magnitude that ended the data, with the count of lines of data after it.
struct LineMap {
    struct Point {
        std::size_t line;
        std::array<std::string, 3> text;
    };
    std::vector<Point> points;
    std::size_t stopLine = 0;
    std::size_t ignoredLines = 0;
};

std::string scanText(NumberScanner& scanner, std::string_view line) {
    std::size_t begin = scanner.scanLocation();
    while (begin < line.size() && kColumnSeparators.find(line[begin]) != std::string_view::npos)
        ++begin;
    if (!scanner.scanDouble())
        return {};
    return std::string(line.substr(begin, scanner.scanLocation() - begin));
}

LineMap mapLines(const std::vector<std::string>& lines) {
    LineMap map;
    for (std::size_t index = 0; index < lines.size(); ++index) {
        const std::string_view line = lines[index];
        NumberScanner scanner(line, std::string(kColumnSeparators));
        std::string frequency = scanText(scanner, line);
        if (frequency.empty())
            continue;
        std::string magnitude = scanText(scanner, line);
        if (magnitude.empty()) {
            map.stopLine = index + 1;
            map.ignoredLines = static_cast<std::size_t>(std::count_if(
                lines.begin() + static_cast<std::ptrdiff_t>(index) + 1, lines.end(),
                [](std::string_view rest) { return beginsWithNumber(rest, kColumnSeparators); }));
            break;
        }
        std::string phase = scanText(scanner, line);
        map.points.push_back({index + 1,
                              {std::move(frequency), std::move(magnitude),
                               phase.empty() ? std::string("0") : std::move(phase)}});
    }
    return map;
}

std::unexpected<TavolarError> refuse(std::string_view logLine, std::string recoverySuggestion) {
    logMessage(logLine);
    return std::unexpected(calibrationParsingError(std::move(recoverySuggestion)));
}

std::string plural(std::size_t count, std::string_view one, std::string_view many) {
    return fmt::format("{} {}", count, count == 1 ? one : many);
}

// Puts the points in increasing order of frequency, saying so when the file had them otherwise,
// and refuses frequencies given twice or too close together to draw a curve through.
Expected<CalibrationCurvePoints> sortedByFrequency(const MicrophoneCalibrationFileParser& parser,
                                                   const std::vector<std::size_t>& lines) {
    const VELTRealVector& frequency = parser.frequency();
    std::vector<std::size_t> order(frequency.length());
    std::iota(order.begin(), order.end(), std::size_t{0});
    std::stable_sort(order.begin(), order.end(),
                     [&](std::size_t a, std::size_t b) { return frequency[a] < frequency[b]; });
    for (std::size_t i = 1; i < order.size(); ++i) {
        const std::size_t first = order[i - 1], second = order[i];
        if (frequency[first] == frequency[second])
            return refuse(fmt::format("ERROR: Calibration data lines {} and {} give the same frequency.",
                                      lines[first], lines[second]),
                          fmt::format(fmt::runtime(TavolarLocalizedString(
                                          "Lines {} and {} both give the frequency {:g} Hz. Remove one of "
                                          "them, or correct its frequency.",
                                          "Recovery suggestion when a calibration frequency is repeated.")),
                                      lines[first], lines[second], frequency[second]));
        if (frequency[second] - frequency[first] < kMinimumFrequencySpacing)
            return refuse(
                fmt::format("ERROR: Calibration data lines {} and {} give frequencies too close together.",
                            lines[first], lines[second]),
                fmt::format(fmt::runtime(TavolarLocalizedString(
                                "Lines {} and {} give the frequencies {:g} Hz and {:g} Hz, less than "
                                "0.001 Hz apart, which no curve can be drawn through. Remove one of "
                                "them, or correct its frequency.",
                                "Recovery suggestion when calibration frequencies are too close.")),
                            lines[first], lines[second], frequency[first], frequency[second]));
    }
    const float* begin = frequency.components();
    const float* end = begin + frequency.length();
    const float* outOfOrder = std::adjacent_find(begin, end, [](float a, float b) { return b < a; });
    if (outOfOrder == end)
        return CalibrationCurvePoints{parser.frequency(), parser.magnitude(), parser.phase()};
    const auto at = static_cast<std::size_t>(outOfOrder - begin) + 1;
    logMessage(fmt::format(fmt::runtime(TavolarLocalizedString(
                               "WARNING: The calibration file's frequencies are not in increasing order "
                               "({:g} Hz on line {} follows {:g} Hz on line {}); its {} points were sorted "
                               "by frequency.",
                               "Warning when a calibration file is sorted.")),
                           frequency[at], lines[at], frequency[at - 1], lines[at - 1], order.size()));
    CalibrationCurvePoints sorted{VELTRealVector(order.size()), VELTRealVector(order.size()),
                                  VELTRealVector(order.size())};
    for (std::size_t i = 0; i < order.size(); ++i) {
        sorted.frequency[i] = frequency[order[i]];
        sorted.magnitude[i] = parser.magnitude()[order[i]];
        sorted.phase[i] = parser.phase()[order[i]];
    }
    return sorted;
}
} // namespace

// Many microphones' files carry their sensitivity in a header line ("Sens Factor =-38.5dB",
// "Sensitivity: -37.2 dBV"). What such a figure is relative to differs from maker to maker, so it is
// not applied: the user is told, and told how to give it.
void warnOfSensitivityLine(const std::vector<std::string>& lines) {
    static const std::regex sensitivity(
        R"(^\W*(sens(itivity)?(\s*factor)?)\s*[=:]\s*([-+]?[0-9]+([.,][0-9]+)?)\s*([a-z/µ]*))",
        std::regex::icase);
    for (std::size_t i = 0; i < lines.size(); ++i) {
        std::smatch match;
        if (!std::regex_search(lines[i], match, sensitivity))
            continue;
        logMessage(
            fmt::format(fmt::runtime(TavolarLocalizedString(
                            "WARNING: Line {} gives the microphone's sensitivity (\"{}\"), which is not "
                            "taken from the file: give it with calibrate --sensitivity and "
                            "--sensitivity-unit.",
                            "A calibration file's sensitivity line is not applied.")),
                        i + 1,
                        lines[i].substr(static_cast<std::size_t>(match.position(1)),
                                        static_cast<std::size_t>(match.length(0) -
                                                                 (match.position(1) - match.position(0))))));
        return;
    }
}

Expected<CalibrationCurvePoints> checkedCalibrationFile(std::span<const std::byte> data) {
    // Bytes that are not text are left to the parser to refuse.
    const auto decoded = stringWithDetectedEncoding(data);
    std::vector<std::string> lines = decoded ? splitLines(decoded->text) : std::vector<std::string>();
    std::string rewritten;
    if (usesDecimalComma(lines)) {
        for (std::string& line : lines) {
            std::replace(line.begin(), line.end(), ',', '.');
            std::replace(line.begin(), line.end(), ';', '\t');
            rewritten += line;
            rewritten += '\n';
        }
    }
    MicrophoneCalibrationFileParser parser(
        rewritten.empty() ? data : std::as_bytes(std::span(rewritten.data(), rewritten.size())));
    const LineMap map = mapLines(lines);
    const std::string stop =
        map.stopLine == 0
            ? std::string()
            : fmt::format(fmt::runtime(TavolarLocalizedString(
                              "Line {} holds a frequency without a magnitude, and the data ends there",
                              "Why a calibration file's data ends early.")),
                          map.stopLine);

    if (!parser.parse()) {
        TavolarError error = parser.error().value_or(calibrationParsingError({}));
        if (!stop.empty())
            error.localizedRecoverySuggestion += " " + stop + ".";
        return std::unexpected(std::move(error));
    }
    // The parser reads the lines mapped above; should the two ever disagree, no line is named.
    const std::size_t count = parser.frequency().length();
    std::vector<std::size_t> lineOfPoint(count, 0);
    for (std::size_t i = 0; i < std::min(count, map.points.size()); ++i)
        lineOfPoint[i] = map.points[i].line;

    const std::array<std::pair<const VELTRealVector*, const Column*>, 3> columns{
        {{&parser.frequency(), &kFrequencyColumn},
         {&parser.magnitude(), &kMagnitudeColumn},
         {&parser.phase(), &kPhaseColumn}}};
    for (std::size_t i = 0; i < count; ++i) {
        for (std::size_t c = 0; c < columns.size(); ++c) {
            const auto& [values, column] = columns[c];
            const float value = (*values)[i];
            if (value >= column->lowest && value <= column->highest)
                continue;
            const std::string text =
                i < map.points.size() ? map.points[i].text[c] : fmt::format("{:g}", value);
            return refuse(fmt::format("ERROR: Calibration data line {}: the {} {} is out of range.",
                                      lineOfPoint[i], column->name, text),
                          fmt::format(fmt::runtime(TavolarLocalizedString(
                                          "Line {} gives the {} {}{}; calibration files give it {}. {}",
                                          "Recovery suggestion when a calibration value is out of range.")),
                                      lineOfPoint[i], column->name, text, column->unit, column->range,
                                      column->advice));
        }
    }
    warnOfSensitivityLine(lines);
    if (!stop.empty())
        logMessage(fmt::format(
            "WARNING: {}{}.", stop,
            map.ignoredLines == 0
                ? std::string()
                : fmt::format(fmt::runtime(TavolarLocalizedString(
                                  "; {} after it {} not read", "Lines of a calibration file left unread.")),
                              plural(map.ignoredLines, "line of data", "lines of data"),
                              map.ignoredLines == 1 ? "is" : "are")));
    return sortedByFrequency(parser, lineOfPoint);
}

} // namespace tavolar
