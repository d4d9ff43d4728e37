#include "core/HarmonicAnalysis.h"

#include "core/VELTMeasurementRecord.h"
#include "math/VELTComplexVector.h"
#include "math/VELTFFTSetup.h"
#include "platform/Assertions.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <complex>
#include <cstdlib>
#include <numbers>

namespace tavolar {

namespace {

// Index of a sample time in a circular buffer of the given length.
std::size_t circularIndex(std::int64_t time, std::int64_t length) {
    std::int64_t index = time % length;
    return static_cast<std::size_t>(index < 0 ? index + length : index);
}

// The highest order looked at when searching for the last one that fits.
constexpr std::int64_t kOrderSearchLimit = 4096;

// The linear response's window and the noise window keep clear of this order and all below it.
constexpr std::int64_t kLastSpacedOrder = 10;
// The noise floor is read just beyond this order.
constexpr std::int64_t kNoiseOrder = 100;

} // namespace

HarmonicAnalysis::HarmonicAnalysis(const VELTMeasurementRecord& record, double taperFraction)
    : HarmonicAnalysis(record.impulseResponse(), record.sampleRate(), record.sweepDuration(),
                       record.sweepStartFrequency(), record.sweepEndFrequency(),
                       static_cast<double>(record.impulsePeak()), taperFraction) {}

HarmonicAnalysis::HarmonicAnalysis(std::shared_ptr<const VELTRealVector> impulseResponse,
                                   std::int64_t sampleRate, float sweepDuration, float sweepStartFrequency,
                                   float sweepEndFrequency, double linearImpulsePosition,
                                   double taperFraction)
    : impulse_(std::move(impulseResponse)), sampleRate_(sampleRate), linearPosition_(linearImpulsePosition),
      taperFraction_(taperFraction) {
    TAVOLAR_PARAMETER_ASSERT(impulse_ != nullptr && impulse_->length() > 0);
    TAVOLAR_PARAMETER_ASSERT(sampleRate > 0);
    TAVOLAR_PARAMETER_ASSERT(sweepDuration > 0.0f);
    TAVOLAR_PARAMETER_ASSERT(sweepStartFrequency > 0.0f && sweepEndFrequency > sweepStartFrequency);
    TAVOLAR_PARAMETER_ASSERT(taperFraction > 0.0 && taperFraction <= 1.0);
    // The sweep generator divides the frequencies in single precision before the logarithm; the
    // harmonics lie where that sweep puts them.
    float ratio = sweepEndFrequency / sweepStartFrequency;
    double seconds = static_cast<double>(sweepDuration) / 1000.0;
    samplesPerLogFrequency_ =
        static_cast<double>(sampleRate) * seconds / std::log(static_cast<double>(ratio));
    // Harmonics above the sweep's end or close to half the sample rate, where converters' anti-alias
    // filters cut them, are not counted in sums.
    topFrequency_ =
        std::min(static_cast<double>(sweepEndFrequency), 0.95 * static_cast<double>(sampleRate) / 2.0);

    // The linear response's window reaches a third of the way round to the 10th order's window, or,
    // in a response too short for that, as far after the impulse as before it.
    auto length = static_cast<double>(impulse_->length());
    double before = 0.5 * delayOfOrder(2);
    double free = length - delayOfOrder(kLastSpacedOrder) -
                  0.5 * (delayOfOrder(kLastSpacedOrder + 1) - delayOfOrder(kLastSpacedOrder));
    fundamentalReach_ = std::max(before, free / 3.0);
    // The noise is read halfway between the 100th and 101st order, which no device distorts into
    // measurably and where a deconvolved recording still holds its noise; when the widest window (the
    // 2nd order's) placed there would meet the 10th order's or the linear response's window, there is
    // no noise floor.
    double noise = 0.5 * (delayOfOrder(kNoiseOrder) + delayOfOrder(kNoiseOrder + 1));
    HarmonicWindow widest = windowOfOrder(2);
    if (noise - widest.after > length - free && noise + widest.before < length - fundamentalReach_)
        noiseOffset_ = -noise;

    // The linear response at the finest grid any request needs: long enough for its window.
    HarmonicWindow fundamental = windowOfOrder(1);
    linearLength_ = std::bit_ceil(
        static_cast<std::size_t>(std::ceil(fundamental.before) + std::ceil(fundamental.after)) + 2);
    linear_ = windowSpectrum(fundamental, linearLength_);
}

double HarmonicAnalysis::delayOfOrder(std::int64_t order) const {
    TAVOLAR_PARAMETER_ASSERT(order >= 1);
    return samplesPerLogFrequency_ * std::log(static_cast<double>(order));
}

double HarmonicAnalysis::timeOffsetToHarmonic(std::int64_t order) const {
    return -delayOfOrder(order) / static_cast<double>(sampleRate_) * 1000.0;
}

HarmonicWindow HarmonicAnalysis::windowOfOrder(std::int64_t order) const {
    double delay = delayOfOrder(order);
    HarmonicWindow window;
    window.position = linearPosition_ - delay;
    window.before = 0.5 * (delayOfOrder(order + 1) - delay);
    window.after = order >= 2 ? 0.5 * (delay - delayOfOrder(order - 1)) : fundamentalReach_;
    return window;
}

std::optional<double> HarmonicAnalysis::noisePosition() const {
    if (!noiseOffset_)
        return std::nullopt;
    return linearPosition_ + *noiseOffset_;
}

double HarmonicAnalysis::windowWeight(const HarmonicWindow& window, double offset) const {
    double reach = offset < 0.0 ? window.before : window.after;
    double distance = std::fabs(offset) / reach;
    if (distance >= 1.0)
        return 0.0;
    double flat = 1.0 - taperFraction_;
    if (distance <= flat)
        return 1.0;
    return 0.5 * (1.0 + std::cos(std::numbers::pi * (distance - flat) / taperFraction_));
}

std::int64_t HarmonicAnalysis::maximumOrder() const {
    auto length = static_cast<double>(impulse_->length());
    double fundamentalReach = windowOfOrder(1).after;
    std::int64_t order = 1;
    while (order < kOrderSearchLimit) {
        HarmonicWindow next = windowOfOrder(order + 1);
        // From the start of the next order's window round to the end of the fundamental's.
        if (fundamentalReach + delayOfOrder(order + 1) + next.before >= length)
            break;
        ++order;
    }
    return order;
}

std::size_t HarmonicAnalysis::minimumFFTLength() const {
    double before = windowOfOrder(1).before;
    return std::bit_ceil(static_cast<std::size_t>(2.0 * std::ceil(before)) + 2);
}

HarmonicAnalysis::Spectrum HarmonicAnalysis::referred(const std::vector<double>& buffer, double fraction) {
    std::size_t length = buffer.size(), bins = length / 2 + 1;
    Spectrum spectrum{std::vector<double>(bins), std::vector<double>(bins)};
    VELTFFTDoubleSetup::FFTSetupWithLength(length).forwardReal(buffer.data(), spectrum.real.data(),
                                                               spectrum.imaginary.data());
    for (std::size_t bin = 0; bin < bins; ++bin) {
        double shift =
            2.0 * std::numbers::pi * static_cast<double>(bin) * fraction / static_cast<double>(length);
        std::complex<double> value =
            std::complex(spectrum.real[bin], spectrum.imaginary[bin]) * std::polar(1.0, shift);
        spectrum.real[bin] = value.real();
        spectrum.imaginary[bin] = value.imag();
    }
    return spectrum;
}

HarmonicAnalysis::Spectrum HarmonicAnalysis::windowSpectrum(const HarmonicWindow& window,
                                                            std::size_t fftLength) const {
    auto first = static_cast<std::int64_t>(std::ceil(window.position - window.before));
    auto last = static_cast<std::int64_t>(std::floor(window.position + window.after));
    TAVOLAR_PARAMETER_ASSERT(static_cast<std::size_t>(last - first + 1) <= fftLength);
    auto origin = static_cast<std::int64_t>(std::floor(window.position));
    auto length = static_cast<std::int64_t>(impulse_->length());
    auto bufferLength = static_cast<std::int64_t>(fftLength);
    std::vector<double> buffer(fftLength, 0.0);
    for (std::int64_t time = first; time <= last; ++time) {
        double weight = windowWeight(window, static_cast<double>(time) - window.position);
        buffer[circularIndex(time - origin, bufferLength)] +=
            weight * (*impulse_)[circularIndex(time, length)];
    }
    return referred(buffer, window.position - static_cast<double>(origin));
}

HarmonicAnalysis::Spectrum HarmonicAnalysis::linearSpectrum(std::size_t fftLength) const {
    if (fftLength >= linearLength_)
        return fftLength == linearLength_ ? linear_ : windowSpectrum(windowOfOrder(1), fftLength);
    // A coarser grid picks every (linearLength / fftLength)-th bin of the fine one.
    std::size_t step = linearLength_ / fftLength, bins = fftLength / 2 + 1;
    Spectrum spectrum{std::vector<double>(bins), std::vector<double>(bins)};
    for (std::size_t bin = 0; bin < bins; ++bin) {
        spectrum.real[bin] = linear_.real[bin * step];
        spectrum.imaginary[bin] = linear_.imaginary[bin * step];
    }
    return spectrum;
}

std::vector<std::complex<double>> HarmonicAnalysis::outputSpectrum(const HarmonicWindow& window,
                                                                   std::int64_t order, std::size_t fftLength,
                                                                   const Spectrum& linear) const {
    Spectrum spectrum = windowSpectrum(window, fftLength);
    // The linear response cut by the same window, placed on the linear impulse: what the window does
    // to a harmonic that rings as the loudspeaker does.
    HarmonicWindow onLinear = windowOfOrder(order);
    onLinear.position = linearPosition_;
    Spectrum cut = windowSpectrum(onLinear, fftLength);
    std::size_t count = fftLength / 2 / static_cast<std::size_t>(order) + 1;
    std::vector<std::complex<double>> output(count);
    for (std::size_t k = 0; k < count; ++k) {
        std::size_t bin = k * static_cast<std::size_t>(order);
        std::complex<double> whole(linear.real[bin], linear.imaginary[bin]);
        std::complex<double> windowed(cut.real[bin], cut.imaginary[bin]);
        std::complex<double> correction = std::abs(windowed) > 0.0 ? whole / windowed : 1.0;
        output[k] = std::complex(spectrum.real[bin], spectrum.imaginary[bin]) * correction;
    }
    return output;
}

HarmonicResponse HarmonicAnalysis::responseOfOrder(std::int64_t order, std::size_t fftLength) const {
    TAVOLAR_PARAMETER_ASSERT(order >= 1 && order <= maximumOrder());
    TAVOLAR_PARAMETER_ASSERT(std::has_single_bit(fftLength) && fftLength >= minimumFFTLength());
    Spectrum linear = linearSpectrum(fftLength);
    std::size_t count = fftLength / 2 / static_cast<std::size_t>(order) + 1;
    std::vector<std::complex<double>> output;
    if (order == 1) {
        for (std::size_t k = 0; k < count; ++k)
            output.emplace_back(linear.real[k], linear.imaginary[k]);
    } else {
        output = outputSpectrum(windowOfOrder(order), order, fftLength, linear);
    }
    HarmonicResponse response;
    response.order = order;
    response.frequencies = VELTRealVector(count);
    response.magnitude = VELTRealVector(count);
    response.phase = VELTRealVector(count);
    double binWidth = static_cast<double>(sampleRate_) / static_cast<double>(fftLength);
    for (std::size_t k = 0; k < count; ++k) {
        response.frequencies[k] = static_cast<float>(static_cast<double>(k) * binWidth);
        response.magnitude[k] = static_cast<float>(std::abs(output[k]));
        response.phase[k] = static_cast<float>(std::arg(output[k]));
    }
    return response;
}

namespace {

// The smallest normal float keeps silent bins finite, as everywhere levels are formed.
constexpr double kLevelFloor = 1.17549435e-38;

float levelOf(double ratioNumerator, double ratioDenominator) {
    return static_cast<float>(20.0 *
                              std::log10((ratioNumerator + kLevelFloor) / (ratioDenominator + kLevelFloor)));
}

} // namespace

HarmonicDistortion HarmonicAnalysis::distortionOfOrder(std::int64_t order, std::size_t fftLength) const {
    HarmonicResponse harmonic = responseOfOrder(order, fftLength);
    HarmonicResponse fundamental = order == 1 ? harmonic : responseOfOrder(1, fftLength);
    HarmonicDistortion distortion;
    distortion.order = order;
    distortion.frequencies = harmonic.frequencies;
    distortion.levels = VELTRealVector(harmonic.magnitude.length());
    for (std::size_t k = 0; k < harmonic.magnitude.length(); ++k)
        distortion.levels[k] = levelOf(harmonic.magnitude[k], fundamental.magnitude[k]);
    return distortion;
}

HarmonicDistortion HarmonicAnalysis::summed(std::size_t fftLength, std::int64_t highestOrder,
                                            std::optional<double> noiseAt) const {
    TAVOLAR_PARAMETER_ASSERT(highestOrder >= 2 && highestOrder <= maximumOrder());
    TAVOLAR_PARAMETER_ASSERT(std::has_single_bit(fftLength) && fftLength >= minimumFFTLength());
    Spectrum linear = linearSpectrum(fftLength);
    double binWidth = static_cast<double>(sampleRate_) / static_cast<double>(fftLength);
    // Rows where the 2nd order's output lies in the band; each order counts in its own band.
    auto bandBins = [&](std::int64_t order) {
        return static_cast<std::size_t>(std::floor(topFrequency_ / static_cast<double>(order) / binWidth)) +
               1;
    };
    std::size_t count = std::min(bandBins(2), fftLength / 4 + 1);
    std::vector<double> power(count, 0.0);
    for (std::int64_t order = 2; order <= highestOrder; ++order) {
        HarmonicWindow window = windowOfOrder(order);
        if (noiseAt)
            window.position = *noiseAt;
        std::vector<std::complex<double>> output = outputSpectrum(window, order, fftLength, linear);
        for (std::size_t k = 0; k < std::min({count, output.size(), bandBins(order)}); ++k)
            power[k] += std::norm(output[k]);
    }
    HarmonicDistortion distortion;
    distortion.order = highestOrder;
    distortion.frequencies = VELTRealVector(count);
    distortion.levels = VELTRealVector(count);
    for (std::size_t k = 0; k < count; ++k) {
        distortion.frequencies[k] = static_cast<float>(static_cast<double>(k) * binWidth);
        distortion.levels[k] = levelOf(std::sqrt(power[k]), std::hypot(linear.real[k], linear.imaginary[k]));
    }
    return distortion;
}

HarmonicDistortion HarmonicAnalysis::totalHarmonicDistortion(std::size_t fftLength,
                                                             std::int64_t highestOrder) const {
    return summed(fftLength, highestOrder, std::nullopt);
}

std::optional<HarmonicDistortion> HarmonicAnalysis::noiseFloor(std::size_t fftLength,
                                                               std::int64_t highestOrder) const {
    if (!noiseOffset_)
        return std::nullopt;
    return summed(fftLength, highestOrder, noisePosition());
}

} // namespace tavolar
