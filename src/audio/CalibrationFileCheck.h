#pragma once
// Loading a user's microphone calibration file: the checks around the calibration file parser that
// make sure what it reads is a curve a spline can be drawn through.
//
// Before parsing, a file written with a decimal comma ("10<TAB>-2,5<TAB>0", columns separated by
// tabs, semicolons or spaces) is rewritten with full stops and tabs, the form the parser reads.
// After parsing, the points must have frequencies from 0 Hz to 1 MHz, strictly increasing and at
// least 0.001 Hz apart, magnitudes within ±200 dB and phases within ±1000000°. Points that are
// merely out of order are sorted, with a line starting "WARNING: " logged; any other breach is
// refused with a recovery suggestion that names the line. A frequency without a magnitude, which
// ends the data, is reported the same way.

#include "math/VELTRealVector.h"
#include "platform/TavolarError.h"

#include <cstddef>
#include <span>

namespace tavolar {

// The columns of an accepted calibration file, in increasing order of frequency.
struct CalibrationCurvePoints {
    VELTRealVector frequency;
    VELTRealVector magnitude;
    VELTRealVector phase;
};

// Parses the bytes of a calibration file and checks its points. A refusal is the parser's error
// (domain "TavolarCalibrationParsing", code -1) with a recovery suggestion saying what was wrong.
Expected<CalibrationCurvePoints> checkedCalibrationFile(std::span<const std::byte> data);

} // namespace tavolar
