#pragma once
// One band of an octave or third-octave analysis: the band-filtered signal and the sample rate at
// which it was filtered (the full rate for the top bands, the decimated rate for the lower ones).

#include "math/VELTRealVector.h"

#include <cstdint>
#include <utility>

namespace tavolar {

class Band {
public:
    Band(VELTRealVector band, std::int64_t sampleRate) : band_(std::move(band)), sampleRate_(sampleRate) {}

    const VELTRealVector& band() const noexcept { return band_; }
    void setBand(VELTRealVector band) { band_ = std::move(band); }
    std::int64_t sampleRate() const noexcept { return sampleRate_; }
    void setSampleRate(std::int64_t sampleRate) noexcept { sampleRate_ = sampleRate; }

private:
    VELTRealVector band_;
    std::int64_t sampleRate_;
};

} // namespace tavolar
