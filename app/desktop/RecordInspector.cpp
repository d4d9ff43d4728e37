#include "RecordInspector.h"

#include <QCheckBox>
#include <QColorDialog>
#include <QComboBox>
#include <QDoubleSpinBox>
#include <QDoubleValidator>
#include <QFileDialog>
#include <QFileInfo>
#include <QFormLayout>
#include <QHBoxLayout>
#include <QIcon>
#include <QLabel>
#include <QLineEdit>
#include <QPixmap>
#include <QPushButton>
#include <QSignalBlocker>

namespace tavolar::desktop {

namespace {

QLineEdit* numberField(const QString& name) {
    auto* field = new QLineEdit;
    field->setObjectName(name);
    field->setValidator(new QDoubleValidator(field));
    return field;
}

template <typename Unit> QComboBox* unitField(const QString& name, std::string_view (*label)(Unit)) {
    auto* field = new QComboBox;
    field->setObjectName(name);
    // The items in the units' order, so that an item's index is its unit.
    for (int unit = 0; unit < 3; ++unit)
        field->addItem(QString::fromUtf8(label(static_cast<Unit>(unit)).data()));
    return field;
}

QWidget* withUnit(QWidget* field, QWidget* unit) {
    auto* both = new QWidget;
    auto* layout = new QHBoxLayout(both);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->addWidget(field, 1);
    layout->addWidget(unit);
    return both;
}

} // namespace

RecordInspector::RecordInspector(RecordTableModel& document, QWidget* parent)
    : QWidget(parent), document_(document) {
    auto* form = new QFormLayout(this);
    form->setContentsMargins(0, 0, 0, 0);
    name_ = new QLineEdit;
    name_->setObjectName("name");
    notes_ = new QLineEdit;
    notes_->setObjectName("notes");
    connect(name_, &QLineEdit::editingFinished, this,
            [this] { nameOrNotesEdited(RecordTableModel::Name, name_); });
    connect(notes_, &QLineEdit::editingFinished, this,
            [this] { nameOrNotesEdited(RecordTableModel::Notes, notes_); });
    colour_ = new QPushButton;
    colour_->setObjectName("colour");
    connect(colour_, &QPushButton::clicked, this, [this] {
        const QModelIndex index = document_.index(row(), RecordTableModel::Colour);
        const QColor colour = QColorDialog::getColor(index.data(Qt::EditRole).value<QColor>(), this);
        if (colour.isValid())
            setColour(colour);
    });

    calibration_ = new QLabel;
    calibration_->setObjectName("calibration");
    calibration_->setWordWrap(true);
    auto* choose = new QPushButton(tr("Choose…"));
    choose->setObjectName("chooseCalibration");
    connect(choose, &QPushButton::clicked, this, [this] {
        const QString path = QFileDialog::getOpenFileName(this, tr("Microphone Calibration File"));
        if (!path.isEmpty())
            attachCalibrationFile(path);
    });
    clearCalibration_ = new QPushButton(tr("Clear"));
    clearCalibration_->setObjectName("clearCalibration");
    connect(clearCalibration_, &QPushButton::clicked, this, [this] {
        cli::CalibrationChange change;
        change.remove = true;
        report(document_.calibrateRecord(row(), change, tr("Remove Microphone Calibration")));
    });
    microphoneSensitivity_ = numberField("microphoneSensitivity");
    microphoneUnit_ = unitField("microphoneUnit", &labelForMicrophoneSensitivityUnit);
    channelSensitivity_ = numberField("channelSensitivity");
    channelUnit_ = unitField("channelUnit", &labelForSensitivityUnit);
    connect(microphoneSensitivity_, &QLineEdit::editingFinished, this,
            &RecordInspector::microphoneSensitivityEdited);
    connect(microphoneUnit_, &QComboBox::activated, this, &RecordInspector::microphoneSensitivityEdited);
    connect(channelSensitivity_, &QLineEdit::editingFinished, this,
            &RecordInspector::channelSensitivityEdited);
    connect(channelUnit_, &QComboBox::activated, this, &RecordInspector::channelSensitivityEdited);

    useSPLReference_ = new QCheckBox(tr("Use"));
    useSPLReference_->setObjectName("useSPLReference");
    splReference_ = new QDoubleSpinBox;
    splReference_->setObjectName("splReference");
    splReference_->setRange(-300.0, 300.0);
    splReference_->setDecimals(2);
    splReference_->setSuffix(" dB");
    splReference_->setKeyboardTracking(false);
    connect(useSPLReference_, &QCheckBox::clicked, this, &RecordInspector::splReferenceEdited);
    connect(splReference_, &QDoubleSpinBox::editingFinished, this, &RecordInspector::splReferenceEdited);

    status_ = new QLabel;
    status_->setObjectName("status");
    status_->setWordWrap(true);
    auto* buttons = new QWidget;
    auto* buttonRow = new QHBoxLayout(buttons);
    buttonRow->setContentsMargins(0, 0, 0, 0);
    buttonRow->addWidget(choose);
    buttonRow->addWidget(clearCalibration_);
    form->addRow(tr("Name"), name_);
    form->addRow(tr("Notes"), notes_);
    form->addRow(tr("Colour"), colour_);
    form->addRow(new QLabel(tr("Microphone calibration")));
    form->addRow(calibration_);
    form->addRow(buttons);
    form->addRow(tr("Microphone"), withUnit(microphoneSensitivity_, microphoneUnit_));
    form->addRow(tr("Input"), withUnit(channelSensitivity_, channelUnit_));
    form->addRow(tr("SPL reference"), withUnit(splReference_, useSPLReference_));
    form->addRow(status_);
    connect(&document_, &QAbstractItemModel::dataChanged, this, &RecordInspector::showRecord);
    connect(&document_, &QAbstractItemModel::layoutChanged, this, &RecordInspector::showRecord);
    connect(&document_, &QAbstractItemModel::rowsRemoved, this, &RecordInspector::showRecord);
    connect(&document_, &QAbstractItemModel::rowsInserted, this, &RecordInspector::showRecord);
    showRecord();
}

void RecordInspector::setRow(int row) {
    record_ = document_.index(row, 0);
    status_->clear();
    showRecord();
}

void RecordInspector::setColour(const QColor& colour) {
    document_.setData(document_.index(row(), RecordTableModel::Colour), colour, Qt::EditRole);
}

void RecordInspector::attachCalibrationFile(const QString& path) {
    auto calibration = cli::readCalibrationFile(path.toStdString());
    if (!calibration)
        return report(std::unexpected(calibration.error()));
    cli::CalibrationChange change;
    change.fromFile = std::move(*calibration);
    report(document_.calibrateRecord(row(), change, tr("Set Microphone Calibration")));
}

void RecordInspector::showRecord() {
    const int at = row();
    const bool present = at >= 0;
    for (QWidget* child : findChildren<QWidget*>())
        if (child != status_)
            child->setEnabled(present);
    if (!present)
        return;
    const VELTMeasurementRecord& record = *document_.records()[static_cast<std::size_t>(at)];
    const QSignalBlocker blockers[] = {QSignalBlocker(name_),
                                       QSignalBlocker(notes_),
                                       QSignalBlocker(microphoneSensitivity_),
                                       QSignalBlocker(microphoneUnit_),
                                       QSignalBlocker(channelSensitivity_),
                                       QSignalBlocker(channelUnit_),
                                       QSignalBlocker(useSPLReference_),
                                       QSignalBlocker(splReference_)};
    name_->setText(QString::fromStdString(record.comment().value_or("")));
    notes_->setText(QString::fromStdString(record.notes().value_or("")));
    // Long texts are shown from their beginning.
    name_->setCursorPosition(0);
    notes_->setCursorPosition(0);
    colour_->setText(document_.index(at, RecordTableModel::Colour).data().toString());
    const QColor colour =
        document_.index(at, RecordTableModel::Colour).data(Qt::DecorationRole).value<QColor>();
    QPixmap swatch(12, 12);
    swatch.fill(colour.isValid() ? colour : Qt::transparent);
    colour_->setIcon(colour.isValid() ? QIcon(swatch) : QIcon());

    const auto calibration =
        record.useMicrophoneCalibrationRecord() ? record.microphoneCalibrationRecord() : nullptr;
    calibration_->setText(calibration ? QString::fromStdString(calibration->name()) : tr("None"));
    clearCalibration_->setEnabled(calibration != nullptr);
    microphoneSensitivity_->setText(calibration ? QString::number(calibration->sensitivity(), 'g', 6)
                                                : QString());
    microphoneUnit_->setCurrentIndex(calibration ? static_cast<int>(calibration->sensitivityUnits()) : 0);
    const auto entry = record.recordChannelEntry();
    const auto sensitivity = entry ? entry->sensitivity() : std::nullopt;
    channelSensitivity_->setText(sensitivity ? QString::number(sensitivity->sensitivityValue(), 'g', 6)
                                             : QString());
    channelUnit_->setCurrentIndex(
        static_cast<int>(sensitivity ? sensitivity->unit() : AudioChannelSensitivityUnit::dBV));
    useSPLReference_->setChecked(record.useSPLReferenceLevel());
    splReference_->setValue(record.SPLReferenceLevel());
}

void RecordInspector::report(const Expected<void>& result) {
    if (result) {
        status_->clear();
        return;
    }
    status_->setText(QString::fromStdString(result.error().localizedDescription));
    status_->setToolTip(QString::fromStdString(result.error().localizedRecoverySuggestion));
    // The fields show the record as it is, not the refused value.
    showRecord();
}

void RecordInspector::nameOrNotesEdited(RecordTableModel::Column column, QLineEdit* field) {
    document_.setData(document_.index(row(), column), field->text(), Qt::EditRole);
    status_->clear();
}

void RecordInspector::microphoneSensitivityEdited() {
    bool number = false;
    const double value = microphoneSensitivity_->text().toDouble(&number);
    if (!number)
        return showRecord();
    cli::CalibrationChange change;
    change.sensitivity = value;
    change.sensitivityUnit = static_cast<MicrophoneSensitivityUnit>(microphoneUnit_->currentIndex());
    report(document_.calibrateRecord(row(), change, tr("Set Microphone Sensitivity")));
}

void RecordInspector::channelSensitivityEdited() {
    bool number = false;
    const double value = channelSensitivity_->text().toDouble(&number);
    if (!number)
        return showRecord();
    cli::CalibrationChange change;
    change.channelSensitivity = AudioChannelSensitivity(
        value, static_cast<AudioChannelSensitivityUnit>(channelUnit_->currentIndex()));
    report(document_.calibrateRecord(row(), change, tr("Set Input Sensitivity")));
}

void RecordInspector::splReferenceEdited() {
    cli::RecordChanges changes;
    if (useSPLReference_->isChecked())
        changes.splReference = static_cast<float>(splReference_->value());
    else
        changes.noSPLReference = true;
    report(document_.changeRecord(row(), changes, tr("Set SPL Reference")));
}

} // namespace tavolar::desktop
