#pragma once
// What one played sweep produced: the recording of every input channel, aligned to the start of
// playback, and the loop-back reference recorded during the same sweep when one is configured.

#include "math/VELTRealVector.h"

#include <optional>
#include <utility>
#include <vector>

namespace tavolar {

class VELTRZSweptSineRecording {
public:
    // recordChannels holds one vector per record channel, in the order of the capture settings'
    // record channel list; correctionChannel is nullopt when no reference input is in use.
    VELTRZSweptSineRecording(std::vector<VELTRealVector> recordChannels,
                             std::optional<VELTRealVector> correctionChannel);

    // A recording is only ever made from its channels, and is moved rather than copied: one sweep
    // of several channels is many megabytes.
    VELTRZSweptSineRecording() = delete;
    VELTRZSweptSineRecording(const VELTRZSweptSineRecording&) = delete;
    VELTRZSweptSineRecording& operator=(const VELTRZSweptSineRecording&) = delete;
    VELTRZSweptSineRecording(VELTRZSweptSineRecording&&) noexcept = default;
    VELTRZSweptSineRecording& operator=(VELTRZSweptSineRecording&&) noexcept = default;

    const std::vector<VELTRealVector>& recordChannels() const noexcept { return recordChannels_; }
    void setRecordChannels(std::vector<VELTRealVector> recordChannels) {
        recordChannels_ = std::move(recordChannels);
    }
    const std::optional<VELTRealVector>& correctionChannel() const noexcept { return correctionChannel_; }
    void setCorrectionChannel(std::optional<VELTRealVector> correctionChannel) {
        correctionChannel_ = std::move(correctionChannel);
    }
    // The reference as the deconvolution takes it: null when there is none.
    const VELTRealVector* correctionChannelOrNull() const noexcept {
        return correctionChannel_ ? &*correctionChannel_ : nullptr;
    }

private:
    std::vector<VELTRealVector> recordChannels_;
    std::optional<VELTRealVector> correctionChannel_;
};

} // namespace tavolar
