#pragma once
// The inspector's fields of one record beside its analysis window: name, notes, colour, the
// microphone calibration file with the microphone's and the input channel's sensitivities, and the
// SPL reference. Each edit is one undoable step of the document, checked as tavolar set and tavolar
// calibrate check it; a refused edit shows their message below the fields, and the fields show the
// record again. The fields are found by their object names ("name", "notes", "colour",
// "calibration", "chooseCalibration", "clearCalibration", "microphoneSensitivity",
// "microphoneUnit", "channelSensitivity", "channelUnit", "useSPLReference", "splReference",
// "status").

#include "RecordTableModel.h"

#include <QPersistentModelIndex>
#include <QWidget>

class QCheckBox;
class QComboBox;
class QDoubleSpinBox;
class QLabel;
class QLineEdit;
class QPushButton;

namespace tavolar::desktop {

class RecordInspector : public QWidget {
    Q_OBJECT
public:
    explicit RecordInspector(RecordTableModel& document, QWidget* parent = nullptr);

    // The row of the record shown and edited; the fields follow the record when the rows move, and
    // are disabled when there is no such record.
    void setRow(int row);
    int row() const { return record_.isValid() ? record_.row() : -1; }

    // What the colour and calibration buttons do once their dialogs have answered.
    void setColour(const QColor& colour);
    void attachCalibrationFile(const QString& path);

private:
    void showRecord();
    void report(const Expected<void>& result);
    void nameOrNotesEdited(RecordTableModel::Column column, QLineEdit* field);
    void microphoneSensitivityEdited();
    void channelSensitivityEdited();
    void splReferenceEdited();

    RecordTableModel& document_;
    QPersistentModelIndex record_;
    QLineEdit* name_;
    QLineEdit* notes_;
    QPushButton* colour_;
    QLabel* calibration_;
    QPushButton* clearCalibration_;
    QLineEdit* microphoneSensitivity_;
    QComboBox* microphoneUnit_;
    QLineEdit* channelSensitivity_;
    QComboBox* channelUnit_;
    QCheckBox* useSPLReference_;
    QDoubleSpinBox* splReference_;
    QLabel* status_;
};

} // namespace tavolar::desktop
