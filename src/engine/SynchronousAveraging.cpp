#include "engine/SynchronousAveraging.h"

#include "engine/SweptSineDeconvolution.h"
#include "platform/Assertions.h"
#include "platform/DispatchQueue.h"
#include "platform/TavolarLocalizedString.h"

#include <algorithm>
#include <atomic>
#include <bit>
#include <cstdint>
#include <mutex>
#include <optional>
#include <thread>

namespace tavolar {

namespace {

TavolarError averagingError(std::string_view description) {
    return TavolarError::make(
        TavolarLocalizedString(description, "Synchronous averaging error"),
        TavolarLocalizedString("Check that all your cables are connected properly, and inputs are not muted.",
                               "Synchronous averaging error recovery suggestion"));
}

constexpr std::int32_t kMagnitudeBits = 0x7fffffff;
constexpr std::int32_t kInfinityBits = 0x7f800000;
// Loops run in blocks of this many samples, a form the compiler vectorises at every optimisation level.
constexpr std::size_t kLanes = 8;

std::int32_t magnitudeBits(float x) noexcept {
    return std::bit_cast<std::int32_t>(x) & kMagnitudeBits;
}

// The bits of a float without its sign order like its magnitude, and every NaN and infinity orders
// at or above those of infinity, so the largest of them gives both the peak and whether the signal
// is usable: not all zero, no NaN, nothing infinite.
struct SignalScan {
    std::int32_t largestMagnitudeBits = 0;
    std::size_t peakIndex = 0; // first index of the greatest magnitude

    bool isUsable() const noexcept {
        return largestMagnitudeBits != 0 && largestMagnitudeBits < kInfinityBits;
    }
};

SignalScan scanSignal(std::span<const float> samples) noexcept {
    const float* p = samples.data();
    const std::size_t n = samples.size();
    std::int32_t lanes[kLanes] = {};
    std::size_t i = 0;
    for (; i + kLanes <= n; i += kLanes)
        for (std::size_t lane = 0; lane < kLanes; ++lane) {
            const std::int32_t bits = magnitudeBits(p[i + lane]);
            lanes[lane] = bits > lanes[lane] ? bits : lanes[lane];
        }
    SignalScan scan;
    for (; i < n; ++i)
        scan.largestMagnitudeBits = std::max(scan.largestMagnitudeBits, magnitudeBits(p[i]));
    for (std::int32_t lane : lanes)
        scan.largestMagnitudeBits = std::max(scan.largestMagnitudeBits, lane);
    while (scan.peakIndex < n && magnitudeBits(p[scan.peakIndex]) != scan.largestMagnitudeBits)
        ++scan.peakIndex;
    return scan;
}

void addInto(float* __restrict target, const float* __restrict source, std::size_t n) noexcept {
    std::size_t i = 0;
    for (; i + kLanes <= n; i += kLanes)
        for (std::size_t lane = 0; lane < kLanes; ++lane)
            target[i + lane] += source[i + lane];
    for (; i < n; ++i)
        target[i] += source[i];
}

// accumulator[(i + shift) mod M] += addend[i] for every i below M, the circular rotation of the
// addend followed by an element-wise sum, without forming the rotated copy.
void addRotated(std::span<float> accumulator, std::span<const float> addend, std::int32_t shift) noexcept {
    const std::size_t length = accumulator.size();
    const auto signedLength = static_cast<std::int64_t>(length);
    const auto rotation = static_cast<std::size_t>(((shift % signedLength) + signedLength) % signedLength);
    addInto(accumulator.data() + rotation, addend.data(), length - rotation);
    addInto(accumulator.data(), addend.data() + length - rotation, rotation);
}

struct ChannelAverage {
    std::size_t channelIndex = 0;
    std::size_t averagedLength = 0; // the longest transform length among the recordings
    VELTRealVector accumulator;
    std::size_t firstPeak = 0;
    std::size_t count = 0;
    std::optional<TavolarError> error;

    bool isLive() const noexcept { return !error.has_value(); }
};

} // namespace

// The averaging itself, for the given channels, on a deconvolver of the stimulus that may already
// hold its quotient from earlier channels, and a scratch vector kept between calls. lastUse tells
// that the deconvolver serves nothing after this call: a single response then skips forming a
// quotient nobody would reuse.
struct SynchronousAverager::Work {
    static std::vector<Expected<VELTRealVector>>
    averageChannels(std::span<const VELTRZSweptSineRecording> recordings,
                    std::span<const std::size_t> channelIndices, const VELTRealVector& stimulusSignal,
                    SweptSineDeconvolver& deconvolver, VELTRealVector& scratch, std::size_t& scratchLength,
                    bool lastUse);
};

std::vector<Expected<VELTRealVector>> SynchronousAverager::Work::averageChannels(
    std::span<const VELTRZSweptSineRecording> recordings, std::span<const std::size_t> channelIndices,
    const VELTRealVector& stimulusSignal, SweptSineDeconvolver& deconvolver, VELTRealVector& scratch,
    std::size_t& scratchLength, bool lastUse) {
    const bool singleResponse = lastUse && recordings.size() == 1 && channelIndices.size() == 1;
    std::vector<ChannelAverage> channels(channelIndices.size());
    std::size_t longestAveragedLength = 0;
    for (std::size_t c = 0; c < channels.size(); ++c) {
        ChannelAverage& channel = channels[c];
        channel.channelIndex = channelIndices[c];
        // Recordings lacking the channel are refused when they are reached, not here: a failure in
        // an earlier recording ends the averaging before them.
        for (const VELTRZSweptSineRecording& recording : recordings)
            if (channel.channelIndex < recording.recordChannels().size())
                channel.averagedLength = std::max(
                    channel.averagedLength,
                    deconvolutionTransformLength(recording.recordChannels()[channel.channelIndex].length(),
                                                 stimulusSignal.length()));
        longestAveragedLength = std::max(longestAveragedLength, channel.averagedLength);
    }

    // scratch holds one later impulse response; only its leading scratchLength samples may be
    // non-zero.

    for (const VELTRZSweptSineRecording& recording : recordings) {
        if (std::none_of(channels.begin(), channels.end(),
                         [](const ChannelAverage& c) { return c.isLive(); }))
            break;
        const std::optional<double> lambda = deconvolutionRegularizationFromUserDefaults();
        std::size_t preparedLength = 0; // for this recording's reference; 0 until prepared

        for (ChannelAverage& channel : channels) {
            if (!channel.isLive())
                continue;
            TAVOLAR_PARAMETER_ASSERT(channel.channelIndex < recording.recordChannels().size());
            const VELTRealVector& response = recording.recordChannels()[channel.channelIndex];
            if (!scanSignal(response.span()).isUsable()) {
                channel.error = averagingError("Error while recording response.");
                channel.accumulator = {};
                continue;
            }
            const std::size_t transformLength =
                deconvolutionTransformLength(response.length(), stimulusSignal.length());
            if (transformLength == 0) { // nothing to transform: the impulse response is empty
                channel.error = averagingError("Error while deconvolving response.");
                channel.accumulator = {};
                continue;
            }
            if (transformLength != preparedLength) {
                deconvolver.prepare(transformLength, recording.correctionChannelOrNull(), lambda);
                preparedLength = transformLength;
            }

            std::span<float> impulseResponse;
            if (channel.count == 0) {
                channel.accumulator = VELTRealVector(channel.averagedLength);
                impulseResponse = channel.accumulator.mutableSpan().first(transformLength);
            } else {
                if (scratch.length() < longestAveragedLength)
                    scratch = VELTRealVector(longestAveragedLength);
                if (scratchLength > transformLength)
                    std::fill(scratch.mutableComponents() + transformLength,
                              scratch.mutableComponents() + scratchLength, 0.0f);
                scratchLength = transformLength;
                impulseResponse = scratch.mutableSpan().first(transformLength);
            }
            // A first response goes into its new, all-zero accumulator.
            if (singleResponse)
                deconvolver.deconvolveOnly(response.span(), impulseResponse, channel.count == 0);
            else
                deconvolver.deconvolve(response.span(), impulseResponse, channel.count == 0);

            const SignalScan scan = scanSignal(impulseResponse);
            if (!scan.isUsable()) {
                channel.error = averagingError("Error while deconvolving response.");
                channel.accumulator = {};
                continue;
            }
            if (channel.count == 0) {
                channel.firstPeak = scan.peakIndex;
            } else {
                // The shift is a 32-bit signed count, as the rotation of the stored responses was.
                const auto shift = static_cast<std::int32_t>(static_cast<std::int64_t>(channel.firstPeak) -
                                                             static_cast<std::int64_t>(scan.peakIndex));
                addRotated(channel.accumulator.mutableSpan(), scratch.span().first(channel.averagedLength),
                           shift);
            }
            ++channel.count;
        }
    }

    std::vector<Expected<VELTRealVector>> results;
    results.reserve(channels.size());
    for (ChannelAverage& channel : channels) {
        if (channel.error) {
            results.emplace_back(std::unexpected(std::move(*channel.error)));
            continue;
        }
        if (channel.count > 1) // scaling by 1 would change nothing
            channel.accumulator.scaleBy(1.0f / static_cast<float>(channel.count));
        results.emplace_back(std::move(channel.accumulator));
    }
    return results;
}

SynchronousAverager::SynchronousAverager(const VELTRealVector& stimulusSignal)
    : stimulus_(stimulusSignal), deconvolver_(stimulus_.span()) {}

Expected<VELTRealVector>
SynchronousAverager::impulseResponseForChannel(std::span<const VELTRZSweptSineRecording> recordings,
                                               std::size_t channelIndex) {
    const std::size_t channelIndices[] = {channelIndex};
    return std::move(Work::averageChannels(recordings, channelIndices, stimulus_, deconvolver_, scratch_,
                                           scratchLength_, false)
                         .front());
}

Expected<VELTRealVector>
impulseResponseFromAveragingArray(std::span<const VELTRZSweptSineRecording> recordings,
                                  std::size_t channelIndex, const VELTRealVector& stimulusSignal) {
    const std::size_t channelIndices[] = {channelIndex};
    SweptSineDeconvolver deconvolver(stimulusSignal.span());
    VELTRealVector scratch;
    std::size_t scratchLength = 0;
    return std::move(SynchronousAverager::Work::averageChannels(recordings, channelIndices, stimulusSignal,
                                                                deconvolver, scratch, scratchLength, true)
                         .front());
}

std::vector<Expected<VELTRealVector>>
impulseResponsesFromAveragingArray(std::span<const VELTRZSweptSineRecording> recordings,
                                   const VELTRealVector& stimulusSignal) {
    if (recordings.empty())
        return {};
    const std::size_t channelCount = recordings.front().recordChannels().size();
    for (const VELTRZSweptSineRecording& recording : recordings)
        TAVOLAR_PARAMETER_ASSERT(recording.recordChannels().size() == channelCount);
    std::vector<std::size_t> channelIndices(channelCount);
    for (std::size_t c = 0; c < channelCount; ++c)
        channelIndices[c] = c;
    SweptSineDeconvolver deconvolver(stimulusSignal.span());
    VELTRealVector scratch;
    std::size_t scratchLength = 0;
    return SynchronousAverager::Work::averageChannels(recordings, channelIndices, stimulusSignal, deconvolver,
                                                      scratch, scratchLength, true);
}

std::vector<Expected<VELTRealVector>>
impulseResponsesFromAveragingArrayConcurrently(std::span<const VELTRZSweptSineRecording> recordings,
                                               const VELTRealVector& stimulusSignal,
                                               const std::function<void(std::size_t)>& channelFinished) {
    if (recordings.empty())
        return {};
    const std::size_t channelCount = recordings.front().recordChannels().size();
    for (const VELTRZSweptSineRecording& recording : recordings)
        TAVOLAR_PARAMETER_ASSERT(recording.recordChannels().size() == channelCount);
    if (channelCount == 1) { // nothing to share
        std::vector<Expected<VELTRealVector>> results =
            impulseResponsesFromAveragingArray(recordings, stimulusSignal);
        if (channelFinished)
            channelFinished(1);
        return results;
    }
    std::vector<std::optional<Expected<VELTRealVector>>> answers(channelCount);
    const std::size_t workers =
        std::min<std::size_t>(std::max(1u, std::thread::hardware_concurrency()), channelCount);
    std::atomic<std::size_t> nextChannel{0};
    std::mutex finishedMutex;
    std::size_t finished = 0;
    DispatchQueue::concurrentPerform(workers, [&](std::size_t) {
        std::optional<SynchronousAverager> averager; // made only by a worker that gets a channel
        for (std::size_t channel = nextChannel++; channel < channelCount; channel = nextChannel++) {
            if (!averager)
                averager.emplace(stimulusSignal);
            answers[channel] = averager->impulseResponseForChannel(recordings, channel);
            std::lock_guard lock(finishedMutex);
            ++finished;
            if (channelFinished)
                channelFinished(finished);
        }
    });
    std::vector<Expected<VELTRealVector>> results;
    results.reserve(channelCount);
    for (std::optional<Expected<VELTRealVector>>& answer : answers)
        results.push_back(std::move(*answer));
    return results;
}

} // namespace tavolar
