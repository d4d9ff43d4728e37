#pragma once
// The outcome of an octave or third-octave analysis: one entry per band in each of four parallel
// collections, in ascending frequency order: the band signals, their RMS values (linear), the
// nominal centre frequencies (31.5, 63, 125 ... Hz, for labels) and the exact ones (31.25, 62.5,
// 125 ... Hz, for placing on a frequency axis).

#include "dsp/Band.h"
#include "math/VELTRealVector.h"

#include <utility>
#include <vector>

namespace tavolar {

class BandDecomposition {
public:
    BandDecomposition(std::vector<Band> bandDecompositions, VELTRealVector powerValues,
                      VELTRealVector displayBands, VELTRealVector bands)
        : bandDecompositions_(std::move(bandDecompositions)), powerValues_(std::move(powerValues)),
          displayBands_(std::move(displayBands)), bands_(std::move(bands)) {}

    const std::vector<Band>& bandDecompositions() const noexcept { return bandDecompositions_; }
    void setBandDecompositions(std::vector<Band> bandDecompositions) {
        bandDecompositions_ = std::move(bandDecompositions);
    }
    const VELTRealVector& powerValues() const noexcept { return powerValues_; }
    void setPowerValues(VELTRealVector powerValues) { powerValues_ = std::move(powerValues); }
    const VELTRealVector& displayBands() const noexcept { return displayBands_; }
    void setDisplayBands(VELTRealVector displayBands) { displayBands_ = std::move(displayBands); }
    const VELTRealVector& bands() const noexcept { return bands_; }
    void setBands(VELTRealVector bands) { bands_ = std::move(bands); }

private:
    std::vector<Band> bandDecompositions_;
    VELTRealVector powerValues_;
    VELTRealVector displayBands_;
    VELTRealVector bands_;
};

} // namespace tavolar
