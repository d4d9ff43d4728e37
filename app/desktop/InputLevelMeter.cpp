#include "InputLevelMeter.h"

#include <QLabel>
#include <QProgressBar>
#include <QVBoxLayout>
#include <algorithm>
#include <cmath>
#include <fmt/format.h>
#include <functional>
#include <limits>
#include <utility>

namespace tavolar::desktop {

namespace {

// Room for the largest cycle a server may switch to while the meter runs.
constexpr std::uint32_t kCapacityFrames = 8192;

Expected<void> checked(AudioStatus status, const char* step) {
    if (status == kAudioStatusNoError)
        return {};
    return makeUnexpected(fmt::format("The input level cannot be shown: {} failed ({}).", step, status));
}

} // namespace

Expected<std::unique_ptr<InputLevelMeter>> InputLevelMeter::start(const std::string& deviceUID,
                                                                  const std::vector<std::int64_t>& channels,
                                                                  double sampleRate) {
    std::unique_ptr<InputLevelMeter> meter(new InputLevelMeter);
    meter->peaks_ = std::vector<std::atomic<float>>(channels.size());
    auto unit = std::make_unique<VELTAudioIOUnit>();
    const auto count = static_cast<std::uint32_t>(channels.size());
    AudioStreamDescription client =
        floatStreamDescription(sampleRate, kAudioFormatFlagsFloatNonInterleaved, count, 4 * count);
    std::vector<std::int32_t> map(channels.begin(), channels.end());
    // Each step of opening the input, named for the message when it fails.
    const std::pair<const char*, std::function<AudioStatus()>> steps[] = {
        {"enabling the input",
         [&] { return unit->setEnableIO(AudioUnitScope::Input, kAudioUnitInputElement, true); }},
        {"disabling the output",
         [&] { return unit->setEnableIO(AudioUnitScope::Output, kAudioUnitOutputElement, false); }},
        {"opening the device",
         [&] { return unit->setCurrentDevice(VELTAudioHardware::deviceIDForDeviceUID(deviceUID)); }},
        {"describing the format", [&] { return audioFormatInfo(client); }},
        {"setting the format",
         [&] { return unit->setStreamFormat(AudioUnitScope::Output, kAudioUnitInputElement, client); }},
        {"choosing the inputs",
         [&] { return unit->setChannelMap(AudioUnitScope::Input, kAudioUnitInputElement, map); }},
        {"setting the callback",
         [&] { return unit->setInputCallback(&InputLevelMeter::capture, meter.get()); }},
    };
    for (const auto& [what, step] : steps)
        if (auto done = checked(step(), what); !done)
            return std::unexpected(done.error());
    meter->buffers_ = VELTAudioBufferList(count, kCapacityFrames, 4);
    if (auto initialised = checked(unit->initialize(), "starting the device"); !initialised)
        return std::unexpected(initialised.error());
    meter->unit_ = std::move(unit);
    if (auto started = checked(meter->unit_->start(), "starting the input"); !started)
        return std::unexpected(started.error());
    return meter;
}

InputLevelMeter::~InputLevelMeter() {
    if (unit_) {
        unit_->stop();
        unit_->uninitialize();
    }
}

std::vector<double> InputLevelMeter::takePeaks() {
    std::vector<double> decibels;
    for (auto& peak : peaks_) {
        const float value = peak.exchange(0.0f, std::memory_order_relaxed);
        decibels.push_back(value > 0.0f ? 20.0 * std::log10(value)
                                        : -std::numeric_limits<double>::infinity());
    }
    return decibels;
}

AudioStatus InputLevelMeter::capture(void* context, const AudioTimeStamp&, std::uint32_t bus,
                                     std::uint32_t frames) noexcept {
    auto* self = static_cast<InputLevelMeter*>(context);
    frames = std::min(frames, self->buffers_.capacityFrames());
    if (AudioStatus status = self->unit_->render(bus, frames, self->buffers_); status != kAudioStatusNoError)
        return status;
    for (std::size_t channel = 0; channel < self->peaks_.size(); ++channel) {
        float largest = 0.0f;
        for (float sample : self->buffers_[channel].samples())
            largest = std::max(largest, std::abs(sample));
        // Raised, never lowered: the interface's exchange is the only reset.
        float seen = self->peaks_[channel].load(std::memory_order_relaxed);
        while (largest > seen &&
               !self->peaks_[channel].compare_exchange_weak(seen, largest, std::memory_order_relaxed)) {
        }
    }
    return kAudioStatusNoError;
}

namespace {
constexpr double kFloorDecibels = -90.0;
constexpr qint64 kClipHoldMilliseconds = 2000;
} // namespace

InputLevelPanel::InputLevelPanel(QWidget* parent) : QWidget(parent) {
    new QVBoxLayout(this);
    layout()->setContentsMargins(0, 0, 0, 0);
    connect(&timer_, &QTimer::timeout, this, &InputLevelPanel::refresh);
    timer_.start(kRefreshMilliseconds);
}

InputLevelPanel::~InputLevelPanel() {
    // The worker ends what it does with the device; nothing of this panel is left for it to touch.
    if (opening_.valid())
        opening_.wait();
    meter_.reset();
}

void InputLevelPanel::watch(const std::string& deviceUID, const std::vector<std::int64_t>& channels,
                            double sampleRate) {
    if (deviceUID == watchedUID_ && channels == watchedChannels_)
        return;
    watchedUID_ = deviceUID;
    watchedChannels_ = channels;
    for (QProgressBar* bar : bars_)
        delete bar;
    bars_.clear();
    for (std::int64_t channel : channels) {
        auto* bar = new QProgressBar;
        bar->setRange(static_cast<int>(kFloorDecibels * 10.0), 0);
        bar->setValue(bar->minimum());
        bar->setFormat(tr("Input %1").arg(channel));
        bar->setMaximumHeight(18);
        layout()->addWidget(bar);
        bars_.push_back(bar);
    }
    levels_.assign(channels.size(), -std::numeric_limits<double>::infinity());
    lastClip_.assign(channels.size(), QElapsedTimer());
    problem_.clear();
    replaceMeter(deviceUID, channels, sampleRate);
}

std::shared_future<void> InputLevelPanel::stop() {
    for (QProgressBar* bar : bars_)
        bar->setValue(bar->minimum());
    watchedUID_.clear();
    watchedChannels_.clear();
    replaceMeter({}, {}, 0.0);
    return closing_;
}

void InputLevelPanel::replaceMeter(std::string deviceUID, std::vector<std::int64_t> channels,
                                   double sampleRate) {
    // The meter that runs, or the one still being opened, is closed on the worker before the next one
    // opens, so that the device is opened once at a time and the interface never waits for it.
    auto closing = std::make_shared<std::promise<void>>();
    closing_ = closing->get_future().share();
    opening_ = std::async(std::launch::async,
                          [old = std::move(meter_), previous = std::move(opening_), closing,
                           deviceUID = std::move(deviceUID), channels = std::move(channels),
                           sampleRate]() mutable -> Expected<std::unique_ptr<InputLevelMeter>> {
                              if (previous.valid())
                                  previous.get().value_or(nullptr).reset();
                              old.reset();
                              closing->set_value();
                              if (channels.empty() || deviceUID.empty())
                                  return std::unique_ptr<InputLevelMeter>();
                              return InputLevelMeter::start(deviceUID, channels, sampleRate);
                          });
}

void InputLevelPanel::refresh() {
    if (opening_.valid() && opening_.wait_for(std::chrono::seconds(0)) == std::future_status::ready) {
        auto opened = opening_.get();
        if (opened)
            meter_ = std::move(*opened);
        else
            problem_ = QString::fromStdString(opened.error().localizedDescription);
        setToolTip(problem_);
    }
    if (!meter_)
        return;
    const std::vector<double> peaks = meter_->takePeaks();
    for (std::size_t input = 0; input < peaks.size() && input < bars_.size(); ++input) {
        levels_[input] = peaks[input];
        if (peaks[input] >= InputLevelMeter::kClipDecibels)
            lastClip_[input].start();
        QProgressBar* bar = bars_[input];
        bar->setValue(static_cast<int>(std::max(peaks[input], kFloorDecibels) * 10.0));
        const QString inputName = bar->format().section(':', 0, 0);
        const QString level = std::isfinite(peaks[input]) ? QString::number(peaks[input], 'f', 1) : "-∞";
        bar->setFormat(clipped(input) ? tr("%1: %2 dBFS  CLIP").arg(inputName, level)
                                      : tr("%1: %2 dBFS").arg(inputName, level));
        bar->setStyleSheet(clipped(input) ? "QProgressBar::chunk { background: #D62728; }" : QString());
    }
}

bool InputLevelPanel::clipped(std::size_t input) const {
    return input < lastClip_.size() && lastClip_[input].isValid() &&
           lastClip_[input].elapsed() < kClipHoldMilliseconds;
}

QString InputLevelPanel::problem() const {
    return problem_;
}

} // namespace tavolar::desktop
