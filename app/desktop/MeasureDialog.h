#pragma once
// The measurement dialog: device, input and output channels, sweep, averages and name; a measurement
// with progress that can be cancelled, whose records join the document when processing ends. The
// engine runs on its own threads and reports on its main queue, which the window drains between
// events, so the interface never waits for audio or processing.

#include "InputLevelMeter.h"
#include "RecordTableModel.h"
#include "engine/VELTRZMeasurementController.h"

#include <QCheckBox>
#include <QComboBox>
#include <QDialog>
#include <QDialogButtonBox>
#include <QDoubleSpinBox>
#include <QElapsedTimer>
#include <QLabel>
#include <QLineEdit>
#include <QListWidget>
#include <QProgressBar>
#include <QPushButton>
#include <QSpinBox>
#include <QTimer>
#include <future>
#include <memory>
#include <vector>

namespace tavolar::desktop {

class MeasureDialog : public QDialog {
    Q_OBJECT
public:
    MeasureDialog(RecordTableModel& document, QWidget* parent = nullptr);
    ~MeasureDialog() override;

    bool isMeasuring() const noexcept { return controller_ != nullptr; }
    QComboBox& device() noexcept { return *device_; }
    QListWidget& inputs() noexcept { return *inputs_; }
    QCheckBox& fast() noexcept { return *fast_; }
    QLineEdit& name() noexcept { return *name_; }
    QPushButton& measureButton() noexcept { return *measureButton_; }
    QPushButton& cancelButton() noexcept { return *cancelButton_; }
    QLabel& status() noexcept { return *status_; }
    InputLevelPanel& inputLevels() noexcept { return *inputLevels_; }

public slots:
    void start();
    void cancel();

signals:
    // The measurement ended: with records added to the document, or not (an error or a cancel).
    void finished(bool recordsAdded);

private:
    class Delegate;
    friend class Delegate;
    // A device present: its UID, how the list names it, its name, its inputs' names, its number of
    // outputs and its sample rate.
    struct DeviceEntry {
        QString uid;
        QString label;
        QString name;
        QStringList inputNames;
        int outputCount = 0;
        double sampleRate = 0.0;
    };
    // Opens every device present for its names and channels (seconds for a JACK server that does
    // not answer), from any thread.
    static std::vector<DeviceEntry> presentDevices();
    void lookForDevices();
    void showDevices(const std::vector<DeviceEntry>& devices);
    void fillChannels();
    void updateProgress();
    void measurementEnded(bool aborted);
    void setRunning(bool running);
    // The meter shows the inputs ticked on the device chosen.
    void watchInputs();

    RecordTableModel& document_;
    QComboBox* device_;
    QListWidget* inputs_;
    QSpinBox* output_;
    QComboBox* preset_;
    QDoubleSpinBox* start_;
    QDoubleSpinBox* end_;
    QDoubleSpinBox* level_;
    QSpinBox* averages_;
    QLineEdit* name_;
    QCheckBox* fast_;
    QCheckBox* keepQuiet_;
    QProgressBar* progress_;
    QLabel* status_;
    InputLevelPanel* inputLevels_;
    QPushButton* measureButton_;
    QPushButton* cancelButton_;
    QTimer progressTimer_;
    QTimer deviceTimer_;
    std::future<void> lookup_;
    std::future<void> starting_; // the engine's start of the measurement, on a worker thread

    std::shared_ptr<VELTRZMeasurementController> controller_;
    std::shared_ptr<Delegate> delegate_;
    std::string recordUID_;
    std::string deviceName_;
    std::vector<std::int64_t> channels_;
    double sweepSeconds_ = 0.0;
    bool cancelled_ = false;
};

} // namespace tavolar::desktop
