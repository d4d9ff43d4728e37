#pragma once
// Records for the tests of pictures, made in the test rather than measured, so that every run draws
// the same graphs.

#include "core/VELTMeasurementRecord.h"
#include "graphcalc/GraphCalculationController.h"

#include <cmath>
#include <string>

namespace tavolar {

// A loudspeaker-like response measured with a 1 s sweep from 20 Hz to 20 kHz: two decaying
// resonances (the lower one at the given frequency) over a faint deterministic noise, so that every level
// (harmonics too) is finite.
inline std::shared_ptr<VELTMeasurementRecord> simulatedRecord(std::string name, double resonance = 80.0) {
    constexpr double rate = 48000.0;
    VELTRealVector impulse(65536);
    std::uint32_t seed = 12345;
    for (std::size_t n = 0; n < impulse.length(); ++n) {
        seed = seed * 1664525u + 1013904223u;
        const double noise = (static_cast<double>(seed >> 8) / double(1u << 24) - 0.5) * 2e-5;
        const double t = static_cast<double>(n) / rate;
        const double ring = n < 32768 ? std::exp(-t / 0.01) * std::sin(2 * M_PI * resonance * t) +
                                            0.5 * std::exp(-t / 0.002) * std::sin(2 * M_PI * 3000 * t)
                                      : 0.0;
        impulse[n] = static_cast<float>(ring * 0.2 + noise);
    }
    auto record = VELTMeasurementRecord::record();
    record->setSampleRate(48000);
    record->setImpulseResponse(std::move(impulse));
    record->setWindowBegin(-100);
    record->setWindowEnd(9500);
    record->setComment(std::move(name));
    VELTLogSweepSettings sweep = VELTLogSweepSettings::shortLogSweepSettings();
    sweep.setFullRangeSweep(false);
    sweep.setStartFreq(20.0f);
    sweep.setEndFreq(20000.0f);
    record->setLogSweepSettings(sweep);
    return record;
}

// Two such records, Left and Right, whose low resonances differ.
inline const RecordArray& records() {
    static const RecordArray both{simulatedRecord("Left"), simulatedRecord("Right", 120.0)};
    return both;
}

} // namespace tavolar
