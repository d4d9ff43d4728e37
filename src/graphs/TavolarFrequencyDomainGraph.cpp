#include "graphs/TavolarFrequencyDomainGraph.h"

#include "graphing/VELTGraphLayout.h"
#include "platform/TavolarLocalizedString.h"
#include "platform/UserDefaults.h"

#include <cmath>
#include <fmt/printf.h>
#include <mutex>

namespace tavolar {

void TavolarFrequencyDomainGraph::registerDefaults() {
    static std::once_flag once;
    std::call_once(once, [] {
        UserDefaults::standard().registerDefaults(
            {{std::string(kSmoothingFractionDefaultsKey), kDefaultSmoothingFraction}});
    });
}

TavolarFrequencyDomainGraph::TavolarFrequencyDomainGraph() {
    registerDefaults();
    setSmoothingFraction(UserDefaults::standard().doubleForKey(kSmoothingFractionDefaultsKey));
    setVerticalAxis(VELTAxis::linearAxis());
    setHorizontalAxis(VELTAxis::logarithmicAxis());
    setExtentsFilter(VELTGraphExtentsFilter(10.0, std::nullopt, std::nullopt, std::nullopt));
    updateAxisLabels();
    // A new graph has nothing to reload until it is given records.
    setNeedsReload(false);
}

std::shared_ptr<TavolarGraph> TavolarFrequencyDomainGraph::copy() const {
    return copyOf(*this);
}

void TavolarFrequencyDomainGraph::setSmoothingFraction(double fraction) {
    changeNumber(smoothingFraction_, fraction, "smoothingFraction");
    updateTitleModifier();
    setNeedsReload(true);
}

void TavolarFrequencyDomainGraph::setMultiSelectMode(std::int64_t mode) {
    changeNumber(multiSelectMode_, mode, "multiSelectMode");
    setNeedsReload(true);
}

void TavolarFrequencyDomainGraph::setNormalize(bool normalize) {
    changeNumber(normalize_, normalize, "normalize");
    setNeedsReload(true);
}

void TavolarFrequencyDomainGraph::setLogFrequencyScale(bool logarithmic) {
    changeNumber(logFrequencyScale_, logarithmic, "logFrequencyScale");
    VELTAxis axis = logarithmic ? VELTAxis::logarithmicAxis() : VELTAxis::linearAxis();
    axis.setQuantity(horizontalAxis().quantity());
    setHorizontalAxis(std::move(axis));
    validateAllExtents();
    setNeedsReload(true);
}

void TavolarFrequencyDomainGraph::setVerticalAxisDataScaleFactor(double factor) {
    changeNumber(verticalAxisDataScaleFactor_, factor, "verticalAxisDataScaleFactor");
    updateAxisLabels();
}

void TavolarFrequencyDomainGraph::setHorizontalAxis(VELTAxis axis) {
    axis.setTickLabelFormatter(frequencyFormatter());
    TavolarGraph::setHorizontalAxis(std::move(axis));
}

std::string TavolarFrequencyDomainGraph::stringForScale(double scale) {
    if (scale > 1000.0)
        return fmt::sprintf(" x%0.0fk", scale / 1000.0);
    if (scale > 100.0)
        return fmt::sprintf(" x%0.0f", scale);
    return {};
}

void TavolarFrequencyDomainGraph::updateTitleModifier() {
    if (smoothingFraction_ > 0.0 && isSmoothed())
        setTitleModifier(fmt::sprintf(
            TavolarLocalizedString("(1/%.0f Octave Smoothing)", "Smoothing after a graph's title"),
            smoothingFraction_));
    else
        setTitleModifier({});
}

std::optional<VELTGraphExtents> TavolarFrequencyDomainGraph::extentsFittingGraphData() const {
    // The layout's fitting already widens a span under 1 to 1 around its middle, and on a logarithmic
    // axis counts only positive frequencies.
    return automaticGraphExtents(graphDataArray(), horizontalAxis().isLogarithmic());
}

void TavolarFrequencyDomainGraph::validateAllExtents() {
    VELTGraphExtents extents = this->extents();
    if (horizontalAxis().isLogarithmic() && !(extents.xMin > 0.0)) {
        // The lowest positive frequency there is to show: the filter's limit, else the data's.
        double minimum = extentsFilter().xMin.value_or(0.0);
        if (!(minimum > 0.0))
            if (auto fitted = extentsFittingGraphData(); fitted && fitted->xMin > 0.0)
                minimum = fitted->xMin;
        extents.xMin = minimum > 0.0 ? minimum : 10.0;
    }
    if (!(extents.xMax > extents.xMin))
        extents.xMax = horizontalAxis().isLogarithmic() ? extents.xMin * 1000.0 : extents.xMin + 1.0;
    // Part of the scale change the user made, which is undone as a whole.
    UndoRegistrationDisabled disabled(undoManager());
    setExtents(extents);
}

GraphQuantity TavolarFrequencyDomainGraph::horizontalAxisQuantity() const {
    return {TavolarLocalizedString("Frequency", "Axis title"), "Hz"};
}

GraphQuantity TavolarFrequencyDomainGraph::verticalAxisQuantity() const {
    return {TavolarLocalizedString("Magnitude", "Axis title"),
            "dB" + stringForScale(verticalAxisDataScaleFactor_)};
}

std::vector<KeyEquivalent> TavolarFrequencyDomainGraph::keyEquivalents() const {
    std::vector<KeyEquivalent> keys = TavolarGraph::keyEquivalents();
    if (!isSmoothed())
        return keys;
    const std::string action(kSetSmoothingAction);
    for (const auto& [key, fraction] :
         {std::pair{"0", 0}, {"1", 48}, {"2", 24}, {"3", 12}, {"4", 6}, {"5", 3}})
        keys.push_back({key, kKeyModifierCommand, action, fraction});
    return keys;
}

bool TavolarFrequencyDomainGraph::performAction(std::string_view action, std::int64_t tag) {
    if (action != kSetSmoothingAction || !isSmoothed())
        return TavolarGraph::performAction(action, tag);
    setSmoothingFraction(static_cast<double>(tag));
    return true;
}

std::vector<std::string> TavolarFrequencyDomainGraph::measurementRecordKeyPathsAffectingDisplay() const {
    std::vector<std::string> keyPaths = TavolarGraph::measurementRecordKeyPathsAffectingDisplay();
    keyPaths.emplace_back("microphoneCalibrationRecord");
    return keyPaths;
}

UndoActionNames TavolarFrequencyDomainGraph::undoablePropertyKeyPaths() const {
    UndoActionNames names = TavolarGraph::undoablePropertyKeyPaths();
    if (isSmoothed())
        names.emplace("smoothingFraction",
                      TavolarLocalizedString("Set Smoothing Fraction", "Undo action name"));
    names.emplace("multiSelectMode",
                  TavolarLocalizedString("Set Multiple Selection Mode", "Undo action name"));
    names.emplace("normalize", TavolarLocalizedString("Toggle Normalization", "Undo action name"));
    names.emplace("logFrequencyScale",
                  TavolarLocalizedString("Toggle Log Frequency Scale", "Undo action name"));
    return names;
}

std::vector<std::string> TavolarFrequencyDomainGraph::keyPathsOfPropertiesAffectingDisplay() const {
    std::vector<std::string> keyPaths = TavolarGraph::keyPathsOfPropertiesAffectingDisplay();
    for (const char* keyPath : {"smoothingFraction", "multiSelectMode", "normalize", "logFrequencyScale"})
        keyPaths.emplace_back(keyPath);
    return keyPaths;
}

std::optional<double> TavolarFrequencyDomainGraph::numberForKeyPath(std::string_view keyPath) const {
    if (keyPath == "smoothingFraction")
        return smoothingFraction_;
    if (keyPath == "multiSelectMode")
        return static_cast<double>(multiSelectMode_);
    if (keyPath == "normalize")
        return normalize_ ? 1.0 : 0.0;
    if (keyPath == "logFrequencyScale")
        return logFrequencyScale_ ? 1.0 : 0.0;
    if (keyPath == "verticalAxisDataScaleFactor")
        return verticalAxisDataScaleFactor_;
    return TavolarGraph::numberForKeyPath(keyPath);
}

bool TavolarFrequencyDomainGraph::setNumberForKeyPath(std::string_view keyPath, double value) {
    if (keyPath == "smoothingFraction")
        setSmoothingFraction(value);
    else if (keyPath == "multiSelectMode")
        setMultiSelectMode(static_cast<std::int64_t>(value));
    else if (keyPath == "normalize")
        setNormalize(value != 0.0);
    else if (keyPath == "logFrequencyScale")
        setLogFrequencyScale(value != 0.0);
    else if (keyPath == "verticalAxisDataScaleFactor")
        setVerticalAxisDataScaleFactor(value);
    else
        return TavolarGraph::setNumberForKeyPath(keyPath, value);
    return true;
}

GraphCalculationSettings TavolarFrequencyDomainGraph::graphCalculationSettings() const {
    GraphCalculationSettings settings = TavolarGraph::graphCalculationSettings();
    // The controllers take the smoothing in octaves.
    settings.smoothingFraction =
        isSmoothed() && smoothingFraction_ > 0.0 ? static_cast<float>(1.0 / smoothingFraction_) : 0.0f;
    settings.multiSelectMode = multiSelectMode_;
    settings.normalize = normalize_;
    return settings;
}

void TavolarFrequencyDomainGraph::encodeWithCoder(KeyedArchiver& coder) const {
    TavolarGraph::encodeWithCoder(coder);
    coder.encodeNumber(smoothingFraction_, "smoothingFraction");
    coder.encodeNumber(static_cast<double>(multiSelectMode_), "multiSelectMode");
    coder.encodeNumber(normalize_ ? 1.0 : 0.0, "normalize");
    coder.encodeNumber(logFrequencyScale_ ? 1.0 : 0.0, "logFrequencyScale");
}

void TavolarFrequencyDomainGraph::decodeArchivedValues(KeyedUnarchiver& coder) {
    TavolarGraph::decodeArchivedValues(coder);
    if (auto fraction = coder.decodeNumber("smoothingFraction");
        fraction && std::isfinite(*fraction) && *fraction >= 0.0)
        setSmoothingFraction(*fraction);
    if (auto mode = coder.decodeNumber("multiSelectMode"); mode && std::fabs(*mode) < 1e15)
        setMultiSelectMode(static_cast<std::int64_t>(*mode));
    if (auto normalize = coder.decodeNumber("normalize"))
        setNormalize(*normalize != 0.0);
    if (auto logarithmic = coder.decodeNumber("logFrequencyScale"))
        setLogFrequencyScale(*logarithmic != 0.0);
}

} // namespace tavolar
