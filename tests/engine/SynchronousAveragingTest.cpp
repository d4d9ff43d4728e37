#include "engine/SynchronousAveraging.h"

#include "dsp/SweptSine.h"
#include "engine/SweptSineDeconvolution.h"
#include "engine/SweptSineDeconvolutionTestSupport.h"

#include <cmath>
#include <gtest/gtest.h>
#include <limits>
#include <random>
#include <vector>

namespace tavolar {
namespace {

using testing::Biquad;

constexpr double kSampleRate = 48000.0;

// A 100 ms full-band sweep with short silences: long enough to measure, short enough to be quick.
VELTRealVector testStimulus() {
    return realVectorWithLogSweepFrom(1.0f, 24000.0f, 100.0f, 0.5f, 10.0f, 40.0f, 0, 0, 48000.0f);
}

// The stimulus through a peaking filter, delayed, with a little noise, cut to length.
VELTRealVector measuredResponse(const VELTRealVector& stimulus, std::size_t delay, std::size_t length,
                                unsigned noiseSeed, double gainDecibels = 6.0) {
    const Biquad filter = Biquad::peaking(kSampleRate, 1000.0, gainDecibels, 1.0);
    std::vector<double> response =
        testing::delayed(filter.filter(testing::toDouble(stimulus)), delay, length);
    std::mt19937 generator(noiseSeed);
    std::normal_distribution<double> noise(0.0, 1e-4);
    for (double& x : response)
        x += noise(generator);
    return testing::toFloat(response);
}

std::vector<VELTRZSweptSineRecording>
recordingsOf(std::vector<std::vector<VELTRealVector>> channelsPerRecording) {
    std::vector<VELTRZSweptSineRecording> recordings;
    for (auto& channels : channelsPerRecording)
        recordings.emplace_back(std::move(channels), std::nullopt);
    return recordings;
}

// Independent average: each impulse response made by the one-shot deconvolution, padded to the
// longest, rotated onto the first one's peak and averaged in double precision.
std::vector<double> referenceAverage(const std::vector<VELTRealVector>& responses,
                                     const VELTRealVector& stimulus) {
    std::vector<VELTRealVector> impulses;
    std::size_t longest = 0;
    for (const VELTRealVector& response : responses) {
        impulses.push_back(
            realVectorByDeconvolvingResponseWithoutRegularization(response, stimulus, nullptr));
        longest = std::max(longest, impulses.back().length());
    }
    auto peakOf = [](const VELTRealVector& v) { return static_cast<std::ptrdiff_t>(testing::peakIndex(v)); };
    const std::ptrdiff_t firstPeak = peakOf(impulses.front());
    std::vector<double> sum(longest, 0.0);
    for (const VELTRealVector& impulse : impulses) {
        const std::ptrdiff_t shift = firstPeak - peakOf(impulse);
        const auto length = static_cast<std::ptrdiff_t>(longest);
        for (std::ptrdiff_t i = 0; i < static_cast<std::ptrdiff_t>(impulse.length()); ++i)
            sum[static_cast<std::size_t>(((i + shift) % length + length) % length)] +=
                impulse[static_cast<std::size_t>(i)];
    }
    for (double& x : sum)
        x /= static_cast<double>(impulses.size());
    return sum;
}

void expectClose(const VELTRealVector& actual, const std::vector<double>& expected) {
    ASSERT_EQ(actual.length(), expected.size());
    double largest = 0;
    for (double x : expected)
        largest = std::max(largest, std::fabs(x));
    for (std::size_t i = 0; i < expected.size(); ++i)
        ASSERT_NEAR(actual[i], expected[i], 1e-6 * largest) << "sample " << i;
}

// Repeats whose responses arrive a few samples early or late are aligned on the first one's peak
// before averaging; recordings trimmed to different lengths are padded to the longest transform.
TEST(SynchronousAveraging, AlignsShiftedRepeatsOnTheFirstPeakAndAverages) {
    const VELTRealVector stimulus = testStimulus();
    const std::size_t length = stimulus.length();
    const std::vector<VELTRealVector> repeats = {measuredResponse(stimulus, 120, length, 1),
                                                 measuredResponse(stimulus, 123, length, 2),
                                                 measuredResponse(stimulus, 118, length, 3)};
    std::vector<VELTRZSweptSineRecording> recordings =
        recordingsOf({{repeats[0]}, {repeats[1]}, {repeats[2]}});
    const Expected<VELTRealVector> average = impulseResponseFromAveragingArray(recordings, 0, stimulus);
    ASSERT_TRUE(average.has_value());
    expectClose(*average, referenceAverage(repeats, stimulus));
    float peak = 0;
    std::size_t peakIndex = 0;
    average->getMaximumMagnitude(peak, &peakIndex);
    EXPECT_EQ(peakIndex, 120u);
    // Aligned, the repeats add coherently: the peak keeps the filter's first coefficient.
    EXPECT_NEAR(peak, Biquad::peaking(kSampleRate, 1000.0, 6.0, 1.0).b0, 1e-3);

    // A recording cut shorter (its end silence trimmed) can have a shorter transform than the
    // others; every impulse response is padded to the longest.
    const VELTRealVector shortStimulus =
        realVectorWithLogSweepFrom(1.0f, 24000.0f, 60.0f, 0.5f, 10.0f, 20.0f, 0, 0, 48000.0f);
    ASSERT_EQ(shortStimulus.length(), 4320u);
    const std::vector<VELTRealVector> uneven = {measuredResponse(shortStimulus, 120, 3800, 4),
                                                measuredResponse(shortStimulus, 125, 4320, 5),
                                                measuredResponse(shortStimulus, 118, 3700, 6)};
    ASSERT_EQ(deconvolutionTransformLength(3800, 4320), 8192u);
    ASSERT_EQ(deconvolutionTransformLength(4320, 4320), 16384u);
    recordings = recordingsOf({{uneven[0]}, {uneven[1]}, {uneven[2]}});
    const Expected<VELTRealVector> unevenAverage =
        impulseResponseFromAveragingArray(recordings, 0, shortStimulus);
    ASSERT_TRUE(unevenAverage.has_value());
    EXPECT_EQ(unevenAverage->length(), 16384u);
    expectClose(*unevenAverage, referenceAverage(uneven, shortStimulus));

    // A single recording is its own impulse response, unchanged.
    recordings = recordingsOf({{repeats[1]}});
    EXPECT_EQ(impulseResponseFromAveragingArray(recordings, 0, stimulus).value(),
              realVectorByDeconvolvingResponseWithoutRegularization(repeats[1], stimulus, nullptr));
}

// Every channel at once gives, sample for sample, what each channel alone gives, with each
// recording's reference used for all of its channels; a failing channel does not stop the others.
TEST(SynchronousAveraging, AllChannelsAtOnceMatchChannelByChannel) {
    const VELTRealVector stimulus = testStimulus();
    const std::size_t length = stimulus.length();
    std::vector<VELTRZSweptSineRecording> recordings;
    for (unsigned repeat = 0; repeat < 3; ++repeat) {
        std::vector<VELTRealVector> channels = {
            measuredResponse(stimulus, 60 + repeat, length, 10 + repeat, 6.0),
            measuredResponse(stimulus, 90 - repeat, length, 20 + repeat, -4.0),
            measuredResponse(stimulus, 70, length, 30 + repeat, 2.0)};
        if (repeat == 1)
            channels[2] = VELTRealVector(length); // this channel fell silent in the second sweep
        std::optional<VELTRealVector> reference;
        if (repeat != 2)
            reference = measuredResponse(stimulus, 2 + repeat, length, 40 + repeat, 1.0);
        recordings.emplace_back(std::move(channels), std::move(reference));
    }

    const std::vector<Expected<VELTRealVector>> all =
        impulseResponsesFromAveragingArray(recordings, stimulus);
    ASSERT_EQ(all.size(), 3u);
    for (std::size_t c = 0; c < 3; ++c) {
        const Expected<VELTRealVector> single = impulseResponseFromAveragingArray(recordings, c, stimulus);
        ASSERT_EQ(all[c].has_value(), single.has_value()) << "channel " << c;
        if (single)
            EXPECT_EQ(*all[c], *single) << "channel " << c;
        else
            EXPECT_EQ(all[c].error(), single.error()) << "channel " << c;
    }
    EXPECT_TRUE(all[0].has_value());
    EXPECT_TRUE(all[1].has_value());
    ASSERT_FALSE(all[2].has_value());

    // On every core: the same answers, and the finished channels counted once each, in order.
    std::vector<std::size_t> counts;
    const std::vector<Expected<VELTRealVector>> concurrent = impulseResponsesFromAveragingArrayConcurrently(
        recordings, stimulus, [&](std::size_t finished) { counts.push_back(finished); });
    ASSERT_EQ(concurrent.size(), 3u);
    EXPECT_EQ(counts, (std::vector<std::size_t>{1, 2, 3}));
    EXPECT_EQ(*concurrent[0], *all[0]);
    EXPECT_EQ(*concurrent[1], *all[1]);
    EXPECT_EQ(concurrent[2].error(), all[2].error());
    EXPECT_TRUE(impulseResponsesFromAveragingArrayConcurrently({}, stimulus).empty());

    // One averager for channel after channel, out of order and again, then for recordings without
    // references (whose quotient it keeps) and of another length: every answer is the one-shot one.
    std::vector<VELTRZSweptSineRecording> plain;
    for (unsigned repeat = 0; repeat < 2; ++repeat)
        plain.emplace_back(
            std::vector<VELTRealVector>{measuredResponse(stimulus, 50 + repeat, length / 2, 60, 3.0),
                                        measuredResponse(stimulus, 80, length / 2, 70 + repeat, 1.0)},
            std::nullopt);
    SynchronousAverager averager(stimulus);
    auto expectSameAsOneShot = [&](std::span<const VELTRZSweptSineRecording> set, std::size_t c) {
        const Expected<VELTRealVector> reused = averager.impulseResponseForChannel(set, c);
        const Expected<VELTRealVector> single = impulseResponseFromAveragingArray(set, c, stimulus);
        ASSERT_EQ(reused.has_value(), single.has_value()) << "channel " << c;
        if (single) {
            EXPECT_EQ(*reused, *single) << "channel " << c;
        }
    };
    for (std::size_t c : {2, 0, 1, 0})
        expectSameAsOneShot(recordings, c);
    for (std::size_t c : {1, 0, 1})
        expectSameAsOneShot(plain, c);
    expectSameAsOneShot(recordings, 1);

    // Each repeat is divided by its own reference (the third by the stimulus): the single-recording
    // averages are exactly the one-shot deconvolutions.
    for (std::size_t r = 0; r < recordings.size(); ++r) {
        std::vector<VELTRZSweptSineRecording> one;
        one.emplace_back(std::vector<VELTRealVector>{recordings[r].recordChannels()[0]},
                         recordings[r].correctionChannel());
        EXPECT_EQ(impulseResponseFromAveragingArray(one, 0, stimulus).value(),
                  realVectorByDeconvolvingResponseWithoutRegularization(
                      recordings[r].recordChannels()[0], stimulus, recordings[r].correctionChannelOrNull()))
            << "recording " << r;
    }

    EXPECT_TRUE(impulseResponsesFromAveragingArray({}, stimulus).empty());
    EXPECT_EQ(averager.impulseResponseForChannel({}, 3).value().length(), 0u);
}

// A bad recording anywhere fails the whole average with the recording error; a recording that
// deconvolves to nothing usable with the deconvolution error; later recordings are not looked at.
TEST(SynchronousAveraging, ReportsUnusableRecordingsAndDeconvolutions) {
    const VELTRealVector stimulus = testStimulus();
    const std::size_t length = stimulus.length();
    const VELTRealVector good = measuredResponse(stimulus, 100, length, 7);
    auto withSample = [&](float value) {
        VELTRealVector vector = good;
        vector[length / 2] = value;
        return vector;
    };
    const VELTRealVector unusable[] = {VELTRealVector(length),
                                       withSample(std::numeric_limits<float>::quiet_NaN()),
                                       withSample(std::numeric_limits<float>::infinity()),
                                       withSample(-std::numeric_limits<float>::infinity()), VELTRealVector()};
    for (const VELTRealVector& bad : unusable) {
        std::vector<VELTRZSweptSineRecording> recordings;
        recordings.emplace_back(std::vector<VELTRealVector>{good}, std::nullopt);
        recordings.emplace_back(std::vector<VELTRealVector>{bad}, std::nullopt);
        // The third recording lacks the channel: reaching it would be a programming error.
        recordings.emplace_back(std::vector<VELTRealVector>{}, std::nullopt);
        const Expected<VELTRealVector> result = impulseResponseFromAveragingArray(recordings, 0, stimulus);
        ASSERT_FALSE(result.has_value());
        EXPECT_EQ(result.error().localizedDescription, "Error while recording response.");
    }

    // A silent reference makes the plain division NaN: the deconvolution error, in the first recording.
    std::vector<VELTRZSweptSineRecording> recordings;
    recordings.emplace_back(std::vector<VELTRealVector>{good}, VELTRealVector(length));
    recordings.emplace_back(std::vector<VELTRealVector>{}, std::nullopt);
    Expected<VELTRealVector> result = impulseResponseFromAveragingArray(recordings, 0, stimulus);
    ASSERT_FALSE(result.has_value());
    EXPECT_EQ(result.error().localizedDescription, "Error while deconvolving response.");

    // A silent stimulus likewise, and a one-sample recording against an empty stimulus has nothing to
    // transform at all.
    recordings = recordingsOf({{good}});
    EXPECT_EQ(
        impulseResponseFromAveragingArray(recordings, 0, VELTRealVector(length)).error().localizedDescription,
        "Error while deconvolving response.");
    recordings = recordingsOf({{VELTRealVector{0.5f}}});
    EXPECT_EQ(impulseResponseFromAveragingArray(recordings, 0, VELTRealVector()).error().localizedDescription,
              "Error while deconvolving response.");

    // No recordings average to nothing, without an error.
    EXPECT_EQ(impulseResponseFromAveragingArray({}, 0, stimulus).value().length(), 0u);
}

} // namespace
} // namespace tavolar
