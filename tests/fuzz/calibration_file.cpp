// Microphone calibration files: the parser reads any bytes without fault; loading a file gives a
// curve of finite values at non-negative, strictly increasing frequencies, or refuses it with an
// error that says what to do; the curve the record makes of an accepted file interpolates to
// finite values between its points.

#include "audio/CalibrationFileCheck.h"
#include "audio/MicrophoneCalibrationFileParser.h"
#include "audio/MicrophoneCalibrationRecord.h"
#include "core/VELTSpline.h"
#include "fuzz/FuzzCheck.h"
#include "platform/Logging.h"

#include <cmath>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace tavolar;
    static const bool quiet = (setSystemLogEnabled(false), true);
    (void)quiet;
    // The parser takes the file's numbers as they stand: only that it reads them is checked.
    MicrophoneCalibrationFileParser parser(fuzz::bytes(data, size));
    const bool parsed = parser.parse();
    FUZZ_CHECK(parsed == parser.success() && parsed != parser.error().has_value(),
               "a parse succeeds or fails");

    const auto points = checkedCalibrationFile(fuzz::bytes(data, size));
    if (!points) {
        FUZZ_CHECK(!points.error().localizedRecoverySuggestion.empty(), "a refused file says what to do");
        return 0;
    }
    const VELTRealVector& frequency = points->frequency;
    const std::size_t count = frequency.length();
    FUZZ_CHECK(count > 0 && points->magnitude.length() == count && points->phase.length() == count,
               "the columns have one value per point");
    for (std::size_t i = 0; i < count; ++i) {
        FUZZ_CHECK(std::isfinite(frequency[i]) && frequency[i] >= 0.0f,
                   "frequencies are finite and not negative");
        FUZZ_CHECK(std::isfinite(points->magnitude[i]) && std::isfinite(points->phase[i]),
                   "values are finite");
        FUZZ_CHECK(i == 0 || frequency[i] > frequency[i - 1], "frequencies increase strictly");
    }

    auto record = MicrophoneCalibrationRecord::initWithCalibrationFileData(fuzz::bytes(data, size), "fuzz");
    FUZZ_CHECK(record.has_value(), "an accepted file makes a record");
    for (std::size_t i = 1; i < count; ++i) {
        for (float x : {frequency[i - 1], frequency[i - 1] + (frequency[i] - frequency[i - 1]) / 2}) {
            FUZZ_CHECK(std::isfinite(record->magnitudeSpline()->valueForX(x)) &&
                           std::isfinite(record->phaseSpline()->valueForX(x)),
                       "the calibration curve is finite between its points");
        }
    }
    return 0;
}
