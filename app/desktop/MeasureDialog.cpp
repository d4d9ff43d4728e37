#include "MeasureDialog.h"

#include "MeasurementSetup.h"
#include "SweepOptions.h"
#include "audio/devices/VELTAudioDevice.h"
#include "audio/devices/VELTAudioHardware.h"
#include "platform/UserDefaults.h"

#include <QApplication>
#include <QFormLayout>
#include <QHBoxLayout>
#include <QPointer>
#include <QVBoxLayout>
#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>

namespace tavolar::desktop {

namespace {

// The roles under which a device entry keeps its input names and its number of outputs.
constexpr int kInputNamesRole = Qt::UserRole + 1;
constexpr int kOutputCountRole = Qt::UserRole + 2;
constexpr int kNameRole = Qt::UserRole + 3;
constexpr int kSampleRateRole = Qt::UserRole + 4;
// How often the devices present are looked for while the dialog is open.
constexpr int kDeviceLookMilliseconds = 1500;

QString errorText(const TavolarError& error) {
    QString text = QString::fromStdString(error.localizedDescription);
    if (!error.localizedRecoverySuggestion.empty())
        text += "\n" + QString::fromStdString(error.localizedRecoverySuggestion);
    return text;
}

} // namespace

// The engine's stages arrive on its main queue (drained on the interface thread), except the end of
// playback, which comes from an audio thread and is only counted here.
class MeasureDialog::Delegate : public VELTRZMeasurementControllerDelegate {
public:
    explicit Delegate(MeasureDialog* dialog) : dialog_(dialog) {}

    void measurementControllerDidBeginPlayback(VELTRZMeasurementController&) override {
        sweepsStarted.fetch_add(1);
        sweepBegan.store(std::chrono::steady_clock::now().time_since_epoch().count());
    }
    void measurementControllerDidEndPlayback(VELTRZMeasurementController&) override {
        sweepsEnded.fetch_add(1);
    }
    void measurementControllerDidBeginConvolution(VELTRZMeasurementController&) override {
        if (dialog_)
            dialog_->status_->setText(tr("Processing…"));
    }
    void measurementController(VELTRZMeasurementController&,
                               const std::map<std::string, std::int64_t>& progress) override {
        const std::int64_t current = progress.count("current") ? progress.at("current") : 0;
        const std::int64_t total = progress.count("total") ? progress.at("total") : 0;
        if (dialog_ && total > 0 && current < total)
            dialog_->status_->setText(tr("Processing channel %1 of %2…").arg(current + 1).arg(total));
    }
    void measurementControllerDidEndConvolution(VELTRZMeasurementController&) override { end(false); }
    void measurementControllerDidAbort(VELTRZMeasurementController&) override { end(true); }

    std::atomic<std::int64_t> sweepsStarted{0};
    std::atomic<std::int64_t> sweepsEnded{0};
    std::atomic<std::chrono::steady_clock::rep> sweepBegan{0};

private:
    void end(bool aborted) {
        if (ended_)
            return;
        ended_ = true;
        if (dialog_)
            dialog_->measurementEnded(aborted);
    }
    QPointer<MeasureDialog> dialog_;
    bool ended_ = false;
};

MeasureDialog::MeasureDialog(RecordTableModel& document, QWidget* parent)
    : QDialog(parent), document_(document) {
    setWindowTitle(tr("Measure"));
    device_ = new QComboBox;
    inputs_ = new QListWidget;
    inputs_->setMaximumHeight(110);
    output_ = new QSpinBox;
    preset_ = new QComboBox;
    preset_->addItem(tr("Short (1 s)"), "short");
    preset_->addItem(tr("Long (10 s)"), "long");
    start_ = new QDoubleSpinBox;
    start_->setRange(1.0, 96000.0);
    start_->setValue(1.0);
    start_->setSuffix(" Hz");
    end_ = new QDoubleSpinBox;
    end_->setRange(0.0, 96000.0);
    end_->setSpecialValueText(tr("Half the sample rate"));
    end_->setSuffix(" Hz");
    level_ = new QDoubleSpinBox;
    level_->setRange(cli::SweepOptions::kQuietestLevel, 0.0);
    level_->setValue(-3.0);
    level_->setSuffix(" dBFS");
    averages_ = new QSpinBox;
    averages_->setRange(1, 100);
    name_ = new QLineEdit;
    name_->setPlaceholderText(tr("The device's name and input"));
    fast_ = new QCheckBox(tr("Run simulated devices as fast as the machine allows"));
    keepQuiet_ = new QCheckBox(tr("Keep recordings that are too quiet or clipped"));
    progress_ = new QProgressBar;
    progress_->setRange(0, 1000);
    progress_->setValue(0);
    status_ = new QLabel;
    status_->setWordWrap(true);

    auto* form = new QFormLayout;
    form->addRow(tr("Device:"), device_);
    form->addRow(tr("Inputs:"), inputs_);
    inputLevels_ = new InputLevelPanel;
    form->addRow(tr("Input level:"), inputLevels_);
    form->addRow(tr("Output:"), output_);
    form->addRow(tr("Sweep:"), preset_);
    form->addRow(tr("From:"), start_);
    form->addRow(tr("To:"), end_);
    form->addRow(tr("Level:"), level_);
    form->addRow(tr("Averages:"), averages_);
    form->addRow(tr("Name:"), name_);
    form->addRow(fast_);
    form->addRow(keepQuiet_);

    auto* buttons = new QDialogButtonBox;
    measureButton_ = buttons->addButton(tr("Measure"), QDialogButtonBox::AcceptRole);
    cancelButton_ = buttons->addButton(QDialogButtonBox::Cancel);
    connect(measureButton_, &QPushButton::clicked, this, &MeasureDialog::start);
    connect(cancelButton_, &QPushButton::clicked, this, &MeasureDialog::cancel);

    auto* layout = new QVBoxLayout(this);
    layout->addLayout(form);
    layout->addWidget(progress_);
    layout->addWidget(status_);
    layout->addWidget(buttons);

    // A JACK server that stops while it is being opened (the dialog looks for servers as they come
    // and go) closes its socket under the client's writes: the write is to fail, not to end the
    // program by SIGPIPE.
    static const bool pipeSignalIgnored = std::signal(SIGPIPE, SIG_IGN) != SIG_ERR;
    (void)pipeSignalIgnored;
    showDevices(presentDevices());
    // Devices come and go (a JACK server started or stopped): they are looked for again on a worker
    // thread, since opening a server that does not answer takes seconds.
    connect(&deviceTimer_, &QTimer::timeout, this, &MeasureDialog::lookForDevices);
    deviceTimer_.start(kDeviceLookMilliseconds);
    connect(device_, &QComboBox::currentIndexChanged, this, &MeasureDialog::fillChannels);
    fillChannels();
    connect(inputs_, &QListWidget::itemChanged, this, &MeasureDialog::watchInputs);
    watchInputs();
    connect(&progressTimer_, &QTimer::timeout, this, &MeasureDialog::updateProgress);
}

MeasureDialog::~MeasureDialog() {
    if (lookup_.valid())
        lookup_.wait();
    if (starting_.valid())
        starting_.wait();
    if (controller_)
        controller_->abortMeasurement();
    VELTRZMeasurementController::setModifierFlagsProvider(nullptr);
}

std::vector<MeasureDialog::DeviceEntry> MeasureDialog::presentDevices() {
    // One device at a time, as the command line lists them: a program uses one JACK server at once.
    std::vector<DeviceEntry> entries;
    for (const std::string& uid : VELTAudioHardware::deviceUIDs()) {
        VELTAudioDevice device(uid);
        if (device.isPresent()) {
            const QString name = QString::fromStdString(device.name());
            DeviceEntry entry{QString::fromStdString(uid),
                              QString("%1 (%2)").arg(name, QString::fromStdString(uid)),
                              name,
                              {},
                              static_cast<int>(device.channelCountForDirection(0)),
                              device.sampleRateForDirection(1)};
            for (std::uint32_t channel = 0; channel < device.channelCountForDirection(1); ++channel)
                entry.inputNames << QString::fromStdString(device.channelNameForDirection(1, channel));
            entries.push_back(std::move(entry));
        }
        VELTAudioHardware::releaseDevice(uid);
    }
    return entries;
}

void MeasureDialog::lookForDevices() {
    // Not while a measurement holds its device, and one look at a time.
    if (controller_ ||
        (lookup_.valid() && lookup_.wait_for(std::chrono::seconds(0)) != std::future_status::ready))
        return;
    lookup_ = std::async(std::launch::async, [dialog = QPointer<MeasureDialog>(this)] {
        QMetaObject::invokeMethod(
            qApp,
            [dialog, devices = presentDevices()] {
                if (dialog && !dialog->controller_)
                    dialog->showDevices(devices);
            },
            Qt::QueuedConnection);
    });
}

void MeasureDialog::showDevices(const std::vector<DeviceEntry>& devices) {
    // The list changes only where devices came or went, so that the choice made stays.
    for (int index = device_->count() - 1; index >= 0; --index)
        if (std::none_of(devices.begin(), devices.end(),
                         [&](const DeviceEntry& entry) { return entry.uid == device_->itemData(index); }))
            device_->removeItem(index);
    for (const DeviceEntry& entry : devices) {
        int index = device_->findData(entry.uid);
        if (index < 0) {
            device_->addItem(entry.label, entry.uid);
            index = device_->count() - 1;
        }
        device_->setItemText(index, entry.label);
        device_->setItemData(index, entry.inputNames, kInputNamesRole);
        device_->setItemData(index, entry.outputCount, kOutputCountRole);
        device_->setItemData(index, entry.name, kNameRole);
        device_->setItemData(index, entry.sampleRate, kSampleRateRole);
    }
    if (device_->count() == 0)
        status_->setText(tr("No audio device is present."));
    else if (status_->text() == tr("No audio device is present."))
        status_->clear();
}

void MeasureDialog::fillChannels() {
    inputs_->clear();
    const QStringList names = device_->currentData(kInputNamesRole).toStringList();
    for (int channel = 0; channel < names.size(); ++channel) {
        auto* item = new QListWidgetItem(QString("%1  %2").arg(channel).arg(names[channel]), inputs_);
        item->setFlags(item->flags() | Qt::ItemIsUserCheckable);
        item->setCheckState(channel == 0 ? Qt::Checked : Qt::Unchecked);
    }
    output_->setRange(0, std::max(0, device_->currentData(kOutputCountRole).toInt() - 1));
    watchInputs();
}

void MeasureDialog::watchInputs() {
    std::vector<std::int64_t> channels;
    for (int row = 0; row < inputs_->count(); ++row)
        if (inputs_->item(row)->checkState() == Qt::Checked)
            channels.push_back(row);
    inputLevels_->watch(device_->currentData().toString().toStdString(), channels,
                        device_->currentData(kSampleRateRole).toDouble());
}

void MeasureDialog::setRunning(bool running) {
    for (QWidget* widget :
         std::initializer_list<QWidget*>{device_, inputs_, output_, preset_, start_, end_, level_, averages_,
                                         name_, fast_, keepQuiet_, measureButton_})
        widget->setEnabled(!running);
    if (running) {
        progressTimer_.start(50);
    } else {
        progressTimer_.stop();
        watchInputs();
    }
}

void MeasureDialog::start() {
    if (controller_ || device_->count() == 0)
        return;
    channels_.clear();
    for (int row = 0; row < inputs_->count(); ++row)
        if (inputs_->item(row)->checkState() == Qt::Checked)
            channels_.push_back(row);
    if (channels_.empty()) {
        status_->setText(tr("Choose at least one input to measure."));
        return;
    }
    const std::string uid = device_->currentData().toString().toStdString();
    recordUID_ = fast_->isChecked() ? cli::withFastPace(uid) : uid;
    // Opening the device takes tens of milliseconds: what is known of it from the list is used here,
    // and the engine opens it on the worker thread that starts the measurement.
    deviceName_ = device_->currentData(kNameRole).toString().toStdString();
    const auto sampleRate = static_cast<std::int64_t>(device_->currentData(kSampleRateRole).toDouble());
    cli::SweepOptions options;
    options.preset = preset_->currentData().toString().toStdString();
    options.startFrequency = static_cast<float>(start_->value());
    if (end_->value() > 0.0)
        options.endFrequency = static_cast<float>(end_->value());
    else if (sampleRate > 0)
        options.endFrequency = static_cast<float>(sampleRate) / 2.0f;
    options.level = static_cast<float>(level_->value());
    auto sweep = options.settings(sampleRate);
    if (!sweep) {
        status_->setText(errorText(sweep.error()));
        return;
    }
    auto settings = std::make_shared<VELTAudioCaptureSettings>();
    settings->setPlaybackDeviceUID(recordUID_);
    settings->setRecordDeviceUID(recordUID_);
    settings->setPlaybackChannels(IndexSet{static_cast<std::uint64_t>(output_->value())});
    // Each input keeps the calibration and sensitivity the document holds for it.
    auto stored = document_.captureSettings();
    if (!stored) {
        status_->setText(errorText(stored.error()));
        return;
    }
    std::vector<RecordChannelEntry> entries;
    for (std::int64_t channel : channels_) {
        RecordChannelEntry entry(channel, nullptr, std::nullopt);
        if (*stored)
            for (const RecordChannelEntry& known : (*stored)->recordChannelEntries())
                if (known.channel() == channel)
                    entry = known;
        entries.push_back(entry);
    }
    settings->setRecordChannelEntries(entries);

    // The level check is bypassed as the engine's advice says: Shift held when the measurement starts,
    // or the box ticked. The answer is fixed now, as the engine may ask from its own threads.
    const bool bypass =
        keepQuiet_->isChecked() || (QApplication::queryKeyboardModifiers() & Qt::ShiftModifier);
    UserDefaults::standard().registerDefaults({{"ChecksRecordingLevel", true}});
    VELTRZMeasurementController::setModifierFlagsProvider(
        [bypass] { return bypass ? std::uint64_t{1} << 17 : std::uint64_t{0}; });
    controller_ = VELTRZMeasurementController::make();
    delegate_ = std::make_shared<Delegate>(this);
    controller_->setDelegate(delegate_);
    controller_->setLogSweepSettings(*sweep);
    controller_->setAudioCaptureSettings(settings);
    controller_->setSynchronousAverages(averages_->value());
    sweepSeconds_ = (sweep->duration() + sweep->beginSilence() + sweep->endSilence()) / 1000.0;
    cancelled_ = false;
    progress_->setValue(0);
    status_->setText(tr("Measuring…"));
    setRunning(true);
    // The meter gives the device up first; the worker waits for that, not the interface.
    starting_ = std::async(std::launch::async, [controller = controller_, closed = inputLevels_->stop()] {
        closed.wait();
        controller->measure();
    });
}

void MeasureDialog::cancel() {
    if (!controller_) {
        reject();
        return;
    }
    cancelled_ = true;
    status_->setText(tr("Cancelling…"));
    controller_->abortMeasurement();
}

void MeasureDialog::updateProgress() {
    if (!delegate_)
        return;
    // Each sweep is an equal share; within one, the time it has played.
    const std::int64_t started = delegate_->sweepsStarted.load();
    const std::int64_t ended = delegate_->sweepsEnded.load();
    double sweeps = static_cast<double>(ended);
    if (started > ended) {
        const std::chrono::duration<double> played =
            std::chrono::steady_clock::now() -
            std::chrono::steady_clock::time_point(
                std::chrono::steady_clock::duration(delegate_->sweepBegan.load()));
        sweeps += std::clamp(played.count() / sweepSeconds_, 0.0, 0.99);
    }
    progress_->setValue(static_cast<int>(1000.0 * sweeps / std::max(1, averages_->value())));
    if (started > 0 && started > ended)
        status_->setText(tr("Sweep %1 of %2").arg(started).arg(averages_->value()));
}

void MeasureDialog::measurementEnded(bool aborted) {
    auto controller = std::move(controller_);
    setRunning(false);
    VELTRZMeasurementController::setModifierFlagsProvider(nullptr);
    const auto results = controller->measurementArray();
    if (aborted || cancelled_ || results.empty()) {
        progress_->setValue(0);
        if (cancelled_)
            status_->setText(tr("The measurement was cancelled; nothing was stored."));
        else
            status_->setText(errorText(controller->error().value_or(
                TavolarError::make("The measurement produced no impulse responses."))));
        emit finished(false);
        return;
    }
    std::vector<std::shared_ptr<VELTMeasurementRecord>> records;
    for (const auto& result : results) {
        auto record = document_.makeRecord(result->impulseResponse(), result->sampleRate());
        const RecordChannelEntry& entry = result->recordChannelEntry();
        record->setDate(result->date());
        record->setLogSweepSettings(result->logSweepSettings());
        record->setSynchronousAverages(result->synchronousAverages());
        record->setRecordChannelEntry(entry);
        if (entry.calibrationRecord()) {
            record->setMicrophoneCalibrationRecord(entry.calibrationRecord());
            record->setUseMicrophoneCalibrationRecord(true);
        }
        std::string deviceName = deviceName_;
        if (result->recordDevice()) {
            record->setAudioDeviceUID(result->recordDevice()->uid);
            record->setAudioDeviceName(result->recordDevice()->name);
            deviceName = result->recordDevice()->name;
        }
        std::string name = name_->text().isEmpty() ? deviceName : name_->text().toStdString();
        if (name_->text().isEmpty() || results.size() > 1)
            name += " (input " + std::to_string(entry.channel()) + ")";
        record->setComment(name);
        cli::applyDefaultAnalysisSettings(*record);
        records.push_back(std::move(record));
    }
    const auto count = static_cast<int>(records.size());
    status_->setText(tr("Storing…"));
    document_.addRecords(std::move(records), [dialog = QPointer<MeasureDialog>(this), count](bool stored) {
        if (!dialog)
            return;
        dialog->progress_->setValue(stored ? dialog->progress_->maximum() : 0);
        dialog->status_->setText(stored ? tr("Added %n record(s).", nullptr, count)
                                        : tr("The records could not be stored."));
        emit dialog->finished(stored);
    });
}

} // namespace tavolar::desktop
