#pragma once
// Synchronous averaging of repeated sweeps: every repetition of one input channel is deconvolved
// by the stimulus (with that repetition's loop-back reference, if any), the impulse responses are
// aligned circularly on their peaks and their mean is the channel's impulse response.
//
// Memory does not grow with the number of repetitions: each impulse response is added to the
// running sum as soon as it is made. The regularisation is read from the user defaults once per
// repetition (see realVectorByDeconvolvingResponse).

#include "engine/SweptSineDeconvolution.h"
#include "engine/VELTRZSweptSineRecording.h"
#include "math/VELTRealVector.h"
#include "platform/TavolarError.h"

#include <cstddef>
#include <functional>
#include <span>
#include <vector>

namespace tavolar {

// The averaged impulse response of channel channelIndex over the recordings, in order:
//  - a recorded channel that is all zero, holds a NaN or is not finite fails with
//    "Error while recording response.";
//  - an impulse response that is all zero, holds a NaN or is not finite fails with
//    "Error while deconvolving response.";
// both with the recovery suggestion "Check that all your cables are connected properly, and
// inputs are not muted.", domain kTavolarErrorDomain, code kTavolarInvalidDataError; later
// recordings are not examined.
// Otherwise every impulse response is zero-padded to the longest among them, the first one's peak
// (greatest magnitude, first index on ties) is found, every later one is rotated so that its peak
// lands there and added, and the sum is scaled by 1 / count in single precision.
// No recordings give an empty vector (nothing averaged) and no error. Each recording reached must
// hold the channel (parameter assertion).
Expected<VELTRealVector>
impulseResponseFromAveragingArray(std::span<const VELTRZSweptSineRecording> recordings,
                                  std::size_t channelIndex, const VELTRealVector& stimulusSignal);

// The same for every channel at once: element c is what impulseResponseFromAveragingArray answers
// for channel c, sample for sample. Each recording's reference and the stimulus are transformed
// once for all channels. All recordings must hold the same number of channels (parameter assertion);
// an empty array gives no results.
std::vector<Expected<VELTRealVector>>
impulseResponsesFromAveragingArray(std::span<const VELTRZSweptSineRecording> recordings,
                                   const VELTRealVector& stimulusSignal);

// What impulseResponsesFromAveragingArray answers, computed on every core: workers on the global
// pool and the calling thread take channels one at a time, each with a SynchronousAverager of its
// own. channelFinished, when given, is called once per channel as it finishes, with the number of
// channels finished so far (1, 2, ... in order: the calls are serialised), on whichever thread
// finished it.
std::vector<Expected<VELTRealVector>>
impulseResponsesFromAveragingArrayConcurrently(std::span<const VELTRZSweptSineRecording> recordings,
                                               const VELTRealVector& stimulusSignal,
                                               const std::function<void(std::size_t)>& channelFinished = {});

// The averaging of one channel after another with one stimulus: what
// impulseResponseFromAveragingArray answers, sample for sample, with the stimulus transformed once
// for all channels of recordings without a loop-back reference (and the stimulus spectrum kept
// across references), and the scratch memory kept between channels. Copies the stimulus.
// One averager serves one thread at a time.
class SynchronousAverager {
public:
    explicit SynchronousAverager(const VELTRealVector& stimulusSignal);
    SynchronousAverager(const SynchronousAverager&) = delete;
    SynchronousAverager& operator=(const SynchronousAverager&) = delete;

    Expected<VELTRealVector> impulseResponseForChannel(std::span<const VELTRZSweptSineRecording> recordings,
                                                       std::size_t channelIndex);

    struct Work;

private:
    VELTRealVector stimulus_;
    SweptSineDeconvolver deconvolver_; // views stimulus_
    VELTRealVector scratch_;
    std::size_t scratchLength_ = 0; // leading samples of scratch_ that may be non-zero
};

} // namespace tavolar
