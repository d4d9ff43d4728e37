#include "core/HarmonicAnalysis.h"

#include "core/VELTMeasurementRecord.h"
#include "math/VELTComplexVector.h"
#include "math/VELTFFTSetup.h"
#include "platform/Assertions.h"

#include <bit>
#include <cmath>
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
    window.after = order >= 2 ? 0.5 * (delay - delayOfOrder(order - 1)) : window.before;
    return window;
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
    HarmonicWindow window = windowOfOrder(1);
    auto span = static_cast<std::size_t>(std::ceil(window.before) + std::ceil(window.after)) + 2;
    return std::bit_ceil(span);
}

VELTRealDoubleVector HarmonicAnalysis::windowedImpulseOfOrder(std::int64_t order,
                                                              std::size_t fftLength) const {
    TAVOLAR_PARAMETER_ASSERT(order >= 1 && order <= maximumOrder());
    TAVOLAR_PARAMETER_ASSERT(std::has_single_bit(fftLength));
    HarmonicWindow window = windowOfOrder(order);
    auto first = static_cast<std::int64_t>(std::ceil(window.position - window.before));
    auto last = static_cast<std::int64_t>(std::floor(window.position + window.after));
    TAVOLAR_PARAMETER_ASSERT(static_cast<std::size_t>(last - first + 1) <= fftLength);

    auto origin = static_cast<std::int64_t>(std::floor(window.position));
    auto length = static_cast<std::int64_t>(impulse_->length());
    auto bufferLength = static_cast<std::int64_t>(fftLength);
    VELTRealDoubleVector buffer(fftLength);
    for (std::int64_t time = first; time <= last; ++time) {
        double weight = windowWeight(window, static_cast<double>(time) - window.position);
        double sample = (*impulse_)[circularIndex(time, length)];
        buffer[circularIndex(time - origin, bufferLength)] = weight * sample;
    }
    return buffer;
}

HarmonicResponse HarmonicAnalysis::responseOfOrder(std::int64_t order, std::size_t fftLength) const {
    VELTRealDoubleVector buffer = windowedImpulseOfOrder(order, fftLength);
    VELTFFTDoubleSetup setup = VELTFFTDoubleSetup::FFTSetupWithLength(fftLength);
    VELTMutableComplexDoubleVector spectrum(fftLength / 2 + 1);
    buffer.fftIntoComplexDoubleVector(spectrum, setup);

    // Buffer index 0 holds the sample at floor(position): the window's centre lies a fraction of a
    // sample later, which is a linear phase of 2 pi j fraction / N at bin j.
    HarmonicWindow window = windowOfOrder(order);
    double fraction = window.position - std::floor(window.position);
    std::size_t count = fftLength / 2 / static_cast<std::size_t>(order) + 1;
    HarmonicResponse response;
    response.order = order;
    response.frequencies = VELTRealVector(count);
    response.magnitude = VELTRealVector(count);
    response.phase = VELTRealVector(count);
    double binWidth = static_cast<double>(sampleRate_) / static_cast<double>(fftLength);
    for (std::size_t k = 0; k < count; ++k) {
        std::size_t bin = k * static_cast<std::size_t>(order);
        double real = spectrum.realComponents()[bin];
        double imaginary = spectrum.imaginaryComponents()[bin];
        double shift =
            2.0 * std::numbers::pi * static_cast<double>(bin) * fraction / static_cast<double>(fftLength);
        double centredReal = real * std::cos(shift) - imaginary * std::sin(shift);
        double centredImaginary = real * std::sin(shift) + imaginary * std::cos(shift);
        response.frequencies[k] = static_cast<float>(static_cast<double>(k) * binWidth);
        response.magnitude[k] = static_cast<float>(std::hypot(real, imaginary));
        response.phase[k] = static_cast<float>(std::atan2(centredImaginary, centredReal));
    }
    return response;
}

HarmonicDistortion HarmonicAnalysis::distortionOfOrder(std::int64_t order, std::size_t fftLength) const {
    HarmonicResponse harmonic = responseOfOrder(order, fftLength);
    HarmonicResponse fundamental = order == 1 ? harmonic : responseOfOrder(1, fftLength);
    // The smallest normal float keeps silent bins finite, as everywhere levels are formed.
    constexpr double floor = 1.17549435e-38;
    HarmonicDistortion distortion;
    distortion.order = order;
    distortion.frequencies = harmonic.frequencies;
    distortion.levels = VELTRealVector(harmonic.magnitude.length());
    for (std::size_t k = 0; k < harmonic.magnitude.length(); ++k) {
        double ratio = (static_cast<double>(harmonic.magnitude[k]) + floor) /
                       (static_cast<double>(fundamental.magnitude[k]) + floor);
        distortion.levels[k] = static_cast<float>(20.0 * std::log10(ratio));
    }
    return distortion;
}

} // namespace tavolar
