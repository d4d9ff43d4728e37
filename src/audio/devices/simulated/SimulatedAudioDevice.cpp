#include "audio/devices/simulated/SimulatedAudioDevice.h"

#include "audio/devices/RealTimeContext.h"
#include "audio/devices/simulated/SimulatedSignalPath.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cmath>
#include <ctime>
#include <fmt/format.h>
#include <mutex>
#include <thread>
#include <vector>

namespace tavolar {

namespace {

class SimulatedDeviceDriver;

class SimulatedEndpoint final : public AudioEndpoint {
public:
    SimulatedEndpoint(std::shared_ptr<SimulatedDeviceDriver> driver, AudioEndpointConfiguration configuration,
                      std::uint32_t bufferSize)
        : driver_(std::move(driver)), configuration_(std::move(configuration)) {
        buffers_.assign(configuration_.channels.size() * std::size_t(bufferSize), 0.0f);
        for (std::size_t index = 0; index < configuration_.channels.size(); ++index)
            pointers_.push_back(buffers_.data() + index * bufferSize);
    }
    ~SimulatedEndpoint() override;
    AudioStatus start() override;
    AudioStatus stop() override;

    const AudioEndpointConfiguration& configuration() const noexcept { return configuration_; }
    float* const* pointers() noexcept { return pointers_.data(); }
    std::atomic<bool> active{false};

private:
    std::shared_ptr<SimulatedDeviceDriver> driver_;
    AudioEndpointConfiguration configuration_;
    std::vector<float> buffers_;
    std::vector<float*> pointers_;
};

class SimulatedDeviceDriver final : public AudioDeviceDriver,
                                    public std::enable_shared_from_this<SimulatedDeviceDriver> {
public:
    static constexpr std::size_t kMaximumEndpoints = 16;

    SimulatedDeviceDriver(std::string uid, const SimulatedDeviceConfiguration& configuration)
        : uid_(std::move(uid)), configuration_(configuration), epochHostTime_(currentHostTime()) {
        path_.prepare(configuration_);
        outputBus_.assign(std::size_t(configuration_.outputChannels) * configuration_.bufferSize, 0.0f);
        inputBus_.assign(std::size_t(configuration_.inputChannels) * configuration_.bufferSize, 0.0f);
        for (std::uint32_t channel = 0; channel < configuration_.outputChannels; ++channel)
            outputPointers_.push_back(outputBus_.data() + std::size_t(channel) * configuration_.bufferSize);
        for (std::uint32_t channel = 0; channel < configuration_.inputChannels; ++channel)
            inputPointers_.push_back(inputBus_.data() + std::size_t(channel) * configuration_.bufferSize);
    }

    ~SimulatedDeviceDriver() override { stopClock(); }

    std::string uid() const override { return uid_; }
    std::string name() const override { return fmt::format("Simulated device {}", configuration_.name); }
    bool isAlive() const noexcept override { return true; }
    std::uint32_t channelCount(AudioDirection direction) const override {
        return direction == AudioDirection::Output ? configuration_.outputChannels
                                                   : configuration_.inputChannels;
    }
    std::string channelName(AudioDirection direction, std::uint32_t channel) const override {
        if (channel >= channelCount(direction))
            return {};
        return fmt::format("{} {}", direction == AudioDirection::Output ? "Output" : "Input", channel + 1);
    }
    double sampleRate() const override { return configuration_.sampleRate; }
    std::uint32_t bufferSizeInFrames() const override { return configuration_.bufferSize; }
    std::uint32_t latencyForChannel(AudioDirection direction, std::uint32_t channel) const override {
        if (direction == AudioDirection::Input && channel < configuration_.inputLatencies.size())
            return configuration_.inputLatencies[channel];
        return 0;
    }

    AudioStatus sampleTimeToHostTime(double sampleTime, std::uint64_t& hostTime,
                                     double& rateScalar) const override {
        double nanoseconds = sampleTime / configuration_.sampleRate * 1e9;
        if (!std::isfinite(nanoseconds) || double(epochHostTime_) + nanoseconds < 0.0)
            return kAudioStatusInvalidParameter;
        hostTime = static_cast<std::uint64_t>(std::llround(double(epochHostTime_) + nanoseconds));
        rateScalar = 1.0;
        return kAudioStatusNoError;
    }
    AudioStatus hostTimeToSampleTime(std::uint64_t hostTime, double& sampleTime,
                                     double& rateScalar) const override {
        double nanoseconds = double(std::int64_t(hostTime - epochHostTime_));
        sampleTime = nanoseconds * 1e-9 * configuration_.sampleRate;
        rateScalar = 1.0;
        return kAudioStatusNoError;
    }

    AudioStatus makeEndpoint(const AudioEndpointConfiguration& configuration,
                             std::unique_ptr<AudioEndpoint>& endpoint) override {
        if (!configuration.callback)
            return kAudioStatusInvalidParameter;
        for (std::uint32_t channel : configuration.channels)
            if (channel >= channelCount(configuration.direction))
                return kAudioStatusInvalidChannel;
        std::lock_guard lock(controlMutex_);
        for (auto& slot : slots_) {
            if (slot.load(std::memory_order_relaxed) == nullptr) {
                auto made = std::make_unique<SimulatedEndpoint>(shared_from_this(), configuration,
                                                                configuration_.bufferSize);
                slot.store(made.get(), std::memory_order_release);
                endpoint = std::move(made);
                return kAudioStatusNoError;
            }
        }
        return kAudioStatusServerFailure;
    }

    AudioStatus startEndpoint(SimulatedEndpoint& endpoint) {
        std::lock_guard lock(controlMutex_);
        if (endpoint.active.exchange(true, std::memory_order_acq_rel))
            return kAudioStatusNoError;
        if (activeEndpoints_++ == 0)
            startClock();
        return kAudioStatusNoError;
    }

    AudioStatus stopEndpoint(SimulatedEndpoint& endpoint) {
        std::lock_guard lock(controlMutex_);
        if (!endpoint.active.exchange(false, std::memory_order_acq_rel))
            return kAudioStatusNoError;
        if (--activeEndpoints_ == 0) {
            stopClock();
        } else {
            // Wait for the cycle in progress (which may still be calling this endpoint) to end.
            std::uint64_t cycle = cyclesCompleted_.load(std::memory_order_acquire);
            while (cyclesCompleted_.load(std::memory_order_acquire) == cycle && clockRunning_.load())
                std::this_thread::sleep_for(std::chrono::microseconds(50));
        }
        return kAudioStatusNoError;
    }

    void removeEndpoint(SimulatedEndpoint* endpoint) {
        stopEndpoint(*endpoint);
        std::lock_guard lock(controlMutex_);
        for (auto& slot : slots_)
            if (slot.load(std::memory_order_relaxed) == endpoint)
                slot.store(nullptr, std::memory_order_release);
    }

private:
    void startClock() {
        stopRequested_.store(false);
        if (configuration_.realTime) {
            // The clock follows the host clock: resume at the cycle that is due now.
            double now = double(currentHostTime() - epochHostTime_) * 1e-9 * configuration_.sampleRate;
            std::int64_t cycle = static_cast<std::int64_t>(std::ceil(now / configuration_.bufferSize));
            nextSampleTime_ =
                std::max<std::int64_t>(nextSampleTime_, cycle * std::int64_t(configuration_.bufferSize));
        }
        path_.reset();
        clockRunning_.store(true);
        clockThread_ = std::thread([this] { runClock(); });
    }

    void stopClock() {
        stopRequested_.store(true);
        if (clockThread_.joinable())
            clockThread_.join();
        clockRunning_.store(false);
    }

    void runClock() {
        while (!stopRequested_.load(std::memory_order_acquire)) {
            if (configuration_.realTime) {
                std::uint64_t due = 0;
                double rate = 0;
                sampleTimeToHostTime(double(nextSampleTime_), due, rate);
                timespec deadline{static_cast<time_t>(due / 1'000'000'000ull),
                                  static_cast<long>(due % 1'000'000'000ull)};
                clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &deadline, nullptr);
            } else {
                waitForConsumers();
            }
            if (stopRequested_.load(std::memory_order_acquire))
                break;
            runCycle();
            cyclesCompleted_.fetch_add(1, std::memory_order_acq_rel);
        }
    }

    // Fast mode: give slow consumers (file readers and writers) up to half a second to catch up.
    void waitForConsumers() {
        const auto limit = std::chrono::steady_clock::now() + std::chrono::milliseconds(500);
        for (auto& slot : slots_) {
            SimulatedEndpoint* endpoint = slot.load(std::memory_order_acquire);
            if (!endpoint || !endpoint->active.load(std::memory_order_acquire))
                continue;
            const auto& configuration = endpoint->configuration();
            if (!configuration.pacingGate)
                continue;
            while (!configuration.pacingGate(configuration.pacingContext, configuration_.bufferSize) &&
                   !stopRequested_.load(std::memory_order_acquire) &&
                   std::chrono::steady_clock::now() < limit)
                std::this_thread::sleep_for(std::chrono::microseconds(100));
        }
    }

    void runCycle() noexcept {
        RealTimeCallbackScope scope;
        const std::uint32_t frames = configuration_.bufferSize;
        AudioTimeStamp output;
        output.sampleTime = double(nextSampleTime_);
        sampleTimeToHostTime(output.sampleTime, output.hostTime, output.rateScalar);
        output.flags =
            kAudioTimeStampSampleTimeValid | kAudioTimeStampHostTimeValid | kAudioTimeStampRateScalarValid;
        AudioTimeStamp input = output;
        input.sampleTime = double(nextSampleTime_ + configuration_.clockOffset);
        sampleTimeToHostTime(input.sampleTime, input.hostTime, input.rateScalar);

        std::fill(outputBus_.begin(), outputBus_.end(), 0.0f);
        for (auto& slot : slots_) {
            SimulatedEndpoint* endpoint = slot.load(std::memory_order_acquire);
            if (!endpoint || !endpoint->active.load(std::memory_order_acquire) ||
                endpoint->configuration().direction != AudioDirection::Output)
                continue;
            const auto& configuration = endpoint->configuration();
            const std::uint32_t count = static_cast<std::uint32_t>(configuration.channels.size());
            for (std::uint32_t index = 0; index < count; ++index)
                std::fill_n(endpoint->pointers()[index], frames, 0.0f);
            configuration.callback(configuration.context, output, frames, endpoint->pointers(), count);
            for (std::uint32_t index = 0; index < count; ++index) {
                float* bus = outputPointers_[configuration.channels[index]];
                const float* source = endpoint->pointers()[index];
                for (std::uint32_t n = 0; n < frames; ++n)
                    bus[n] += source[n];
            }
        }
        path_.process(outputPointers_.data(), inputPointers_.data());
        if (configuration_.skipCycles > 0 && ++cycleIndex_ % configuration_.skipCycles == 0) {
            nextSampleTime_ += frames; // the capture of this cycle is lost
            return;
        }
        for (auto& slot : slots_) {
            SimulatedEndpoint* endpoint = slot.load(std::memory_order_acquire);
            if (!endpoint || !endpoint->active.load(std::memory_order_acquire) ||
                endpoint->configuration().direction != AudioDirection::Input)
                continue;
            const auto& configuration = endpoint->configuration();
            const std::uint32_t count = static_cast<std::uint32_t>(configuration.channels.size());
            for (std::uint32_t index = 0; index < count; ++index)
                std::copy_n(inputPointers_[configuration.channels[index]], frames,
                            endpoint->pointers()[index]);
            configuration.callback(configuration.context, input, frames, endpoint->pointers(), count);
        }
        nextSampleTime_ += frames;
    }

    const std::string uid_;
    const SimulatedDeviceConfiguration configuration_;
    const std::uint64_t epochHostTime_;
    SimulatedSignalPath path_;
    std::vector<float> outputBus_, inputBus_;
    std::vector<float*> outputPointers_, inputPointers_;
    std::array<std::atomic<SimulatedEndpoint*>, kMaximumEndpoints> slots_{};

    std::mutex controlMutex_;
    int activeEndpoints_ = 0;
    std::thread clockThread_;
    std::atomic<bool> stopRequested_{false};
    std::atomic<bool> clockRunning_{false};
    std::atomic<std::uint64_t> cyclesCompleted_{0};
    std::int64_t nextSampleTime_ = 0; // touched by the clock thread, and by startClock while it is stopped
    std::uint64_t cycleIndex_ = 0;    // clock thread only
};

SimulatedEndpoint::~SimulatedEndpoint() {
    driver_->removeEndpoint(this);
}
AudioStatus SimulatedEndpoint::start() {
    return driver_->startEndpoint(*this);
}
AudioStatus SimulatedEndpoint::stop() {
    return driver_->stopEndpoint(*this);
}

} // namespace

std::shared_ptr<AudioDeviceDriver>
makeSimulatedDeviceDriver(std::string uid, const SimulatedDeviceConfiguration& configuration) {
    return std::make_shared<SimulatedDeviceDriver>(std::move(uid), configuration);
}

} // namespace tavolar
