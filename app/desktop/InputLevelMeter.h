#pragma once
// The levels of a device's inputs while no measurement runs, for the meter of the measurement
// dialog. The audio thread keeps each channel's largest magnitude since it was last read in an
// atomic; the interface takes and resets them about ten times a second. Neither ever waits for the
// other: the audio thread only raises a value, the interface only exchanges it.

#include "audio/devices/VELTAudioBufferList.h"
#include "audio/devices/VELTAudioIOUnit.h"
#include "platform/TavolarError.h"

#include <QElapsedTimer>
#include <QTimer>
#include <QWidget>
#include <atomic>
#include <cstdint>
#include <future>
#include <memory>
#include <string>
#include <vector>

class QProgressBar;

namespace tavolar::desktop {

class InputLevelMeter {
public:
    // Opens the device's input with the channels (device channels, counted from 0) and starts it.
    // Opening a JACK server may take seconds: call it off the interface thread.
    static Expected<std::unique_ptr<InputLevelMeter>>
    start(const std::string& deviceUID, const std::vector<std::int64_t>& channels, double sampleRate);
    ~InputLevelMeter();
    InputLevelMeter(const InputLevelMeter&) = delete;
    InputLevelMeter& operator=(const InputLevelMeter&) = delete;

    // Each channel's peak since the last call in dBFS (-infinity for silence), and resets it.
    std::vector<double> takePeaks();
    // A peak at or above this is shown as clipped: the converter's full scale, less rounding.
    static constexpr double kClipDecibels = -0.01;

private:
    InputLevelMeter() = default;
    static AudioStatus capture(void* context, const AudioTimeStamp& timeStamp, std::uint32_t bus,
                               std::uint32_t frames) noexcept;

    std::unique_ptr<VELTAudioIOUnit> unit_;
    VELTAudioBufferList buffers_;
    std::vector<std::atomic<float>> peaks_;
};

// The meter: a bar per input with its level in dBFS, refreshed ten times a second, and "clip" for two
// seconds after a peak reaches full scale. The device is opened and closed on a worker thread.
class InputLevelPanel : public QWidget {
public:
    explicit InputLevelPanel(QWidget* parent = nullptr);
    ~InputLevelPanel() override;

    // Shows the inputs of the device from now on (none: the meter is off).
    void watch(const std::string& deviceUID, const std::vector<std::int64_t>& channels, double sampleRate);
    // Closes the device (for a measurement, which waits for the answer before it opens it).
    std::shared_future<void> stop();
    // The levels last shown (dBFS) and whether each input clipped lately; a problem opening the
    // device is shown in place of the bars.
    const std::vector<double>& levels() const noexcept { return levels_; }
    bool clipped(std::size_t input) const;
    QString problem() const;

    static constexpr int kRefreshMilliseconds = 100;

private:
    void refresh();
    void replaceMeter(std::string deviceUID, std::vector<std::int64_t> channels, double sampleRate);

    QTimer timer_;
    std::unique_ptr<InputLevelMeter> meter_;
    std::future<Expected<std::unique_ptr<InputLevelMeter>>> opening_;
    std::shared_future<void> closing_;
    std::vector<QProgressBar*> bars_;
    std::vector<double> levels_;
    std::vector<QElapsedTimer> lastClip_;
    QString problem_;
    std::string watchedUID_;
    std::vector<std::int64_t> watchedChannels_;
};

} // namespace tavolar::desktop
