#include "graphs/TavolarGraph.h"

#include "export/VELTCSVExporter.h"
#include "platform/Logging.h"
#include "platform/TavolarLocalizedString.h"
#include "platform/UUID.h"

#include <cmath>
#include <cstring>
#include <fstream>
#include <iterator>
#include <system_error>

namespace tavolar {

TavolarGraph::TavolarGraph() {
    setTitle(graphTitle());
    makeUpdateController();
}

TavolarGraph::TavolarGraph(const TavolarGraph& other)
    : VELTGraph(other), GraphSettingsSource(other), needsReload_(other.needsReload_),
      drawsTitle_(other.drawsTitle_), extentsLocked_(other.extentsLocked_),
      extentsFilter_(other.extentsFilter_), aspectRatio_(other.aspectRatio_),
      titleModifier_(other.titleModifier_), calculationSettings_(other.calculationSettings_) {
    makeUpdateController();
}

TavolarGraph::~TavolarGraph() {
    destroyMeasurementRecordObserving();
    // The controller goes first: it cancels its calculation, whose result would be delivered to
    // this graph.
    calculationController_.reset();
}

std::string TavolarGraph::graphTitle() {
    return TavolarLocalizedString("Graph", "Title of a generic graph");
}

void TavolarGraph::makeUpdateController() {
    // The update controller belongs to this graph and drops what it has not delivered when the graph
    // goes, so the handler may refer to the graph directly.
    updateController_ = std::make_unique<RZGraphDataUpdateController>(
        [this](GraphDataArray graphData) { replaceGraphDataArray(std::move(graphData)); },
        DispatchQueue::main());
}

// ---- Records and reloading

void TavolarGraph::setMeasurementRecords(RecordArray records) {
    if (auto delegate = delegate_.lock())
        delegate->graphWillChangeMeasurementRecords(*this);
    destroyMeasurementRecordObserving();
    records_ = std::move(records);
    setupMeasurementRecordObserving();
    didChangeValueForKey("measurementRecords");
    removeAllGraphData();
    setNeedsReload(true);
    if (auto delegate = delegate_.lock())
        delegate->graphDidChangeMeasurementRecords(*this);
}

void TavolarGraph::setupMeasurementRecordObserving() {
    for (const auto& record : records_) {
        if (!record)
            continue;
        for (const std::string& keyPath : measurementRecordKeyPathsAffectingDisplay())
            observations_.emplace_back(record, record->addObserver(keyPath, [this](std::string_view) {
                setNeedsReload(true);
                markContentsDirty();
            }));
    }
}

void TavolarGraph::destroyMeasurementRecordObserving() {
    for (const auto& [record, token] : observations_)
        record->removeObserver(token);
    observations_.clear();
}

void TavolarGraph::setNeedsReload(bool needsReload) {
    if (needsReload_ == needsReload)
        return;
    needsReload_ = needsReload;
    didChangeValueForKey("needsReload");
}

GraphCalculationController& TavolarGraph::graphCalculationController() {
    if (!calculationController_)
        calculationController_ = makeGraphCalculationController();
    return *calculationController_;
}

std::unique_ptr<GraphCalculationController> TavolarGraph::makeGraphCalculationController() const {
    return std::make_unique<GraphCalculationController>(graphCalculationSettings());
}

void TavolarGraph::reloadDataWithCompletionHandler(std::function<void()> completionHandler) {
    graphWillReloadData();
    GraphCalculationController& controller = graphCalculationController();
    controller.setSettings(graphCalculationSettings());
    controller.calculate(
        records_, [this, completion = std::move(completionHandler)](GraphDataArray graphData) mutable {
            updateController_->updateWithGraphData(std::move(graphData), std::move(completion));
        });
}

void TavolarGraph::reloadDataSynchronously() {
    graphWillReloadData();
    GraphCalculationController& controller = graphCalculationController();
    controller.setSettings(graphCalculationSettings());
    updateController_->updateImmediatelyWithGraphData(controller.calculate(records_));
}

void TavolarGraph::reloadDataIfNeeded() {
    if (needsReload_)
        reloadData();
}

void TavolarGraph::replaceGraphDataArray(GraphDataArray graphData) {
    setGraphDataArray(prepareGraphDataArrayForGraphing(std::move(graphData)));
    if (!extentsLocked_) {
        // Extents that follow the data are no change of the user's to take back.
        UndoRegistrationDisabled disabled(undoManager_);
        setAutomaticGraphExtents();
    }
    setNeedsReload(false);
    graphDidReloadData();
    markContentsDirty();
}

void TavolarGraph::setAutomaticGraphExtents() {
    if (auto fitted = extentsFittingGraphData())
        setExtents(extentsFilter_.filter(*fitted));
    markContentsDirty();
}

void TavolarGraph::graphWillReloadData() {
    if (auto delegate = delegate_.lock())
        delegate->graphWillReloadData(*this);
    updateAxisLabels();
}

void TavolarGraph::graphDidReloadData() {
    refreshTitleModifier();
    if (auto delegate = delegate_.lock())
        delegate->graphDidReloadData(*this);
}

void TavolarGraph::markContentsDirty() {
    if (contentsDirty_)
        contentsDirty_();
}

// ---- Settings

void TavolarGraph::setDrawsTitle(bool drawsTitle) {
    changeNumber(drawsTitle_, drawsTitle, "drawsTitle");
}

void TavolarGraph::setExtentsLocked(bool locked) {
    changeNumber(extentsLocked_, locked, "extentsLocked");
    setNeedsReload(true);
}

void TavolarGraph::setAspectRatio(double aspectRatio) {
    changeNumber(aspectRatio_, aspectRatio, "aspectRatio");
}

void TavolarGraph::setTitleModifier(std::string modifier) {
    if (modifier == titleModifier_)
        return;
    titleModifier_ = std::move(modifier);
    didChangeValueForKey("titleModifier");
}

std::vector<TitleRun> TavolarGraph::attributedTitle() const {
    std::vector<TitleRun> runs{{title(), appearance().titleFont}};
    if (!titleModifier_.empty())
        runs.push_back({" " + titleModifier_, appearance().titleModifierFont});
    return runs;
}

std::string TavolarGraph::horizontalAxisLabel() const {
    const GraphQuantity quantity = horizontalAxisQuantity();
    return axisTitle(quantity.name, quantity.unit);
}

std::string TavolarGraph::verticalAxisLabel() const {
    const GraphQuantity quantity = verticalAxisQuantity();
    return axisTitle(quantity.name, quantity.unit);
}

void TavolarGraph::updateAxisLabels() {
    VELTAxis horizontal = horizontalAxis();
    horizontal.setQuantity(horizontalAxisQuantity());
    setHorizontalAxis(std::move(horizontal));
    VELTAxis vertical = verticalAxis();
    vertical.setQuantity(verticalAxisQuantity());
    setVerticalAxis(std::move(vertical));
}

bool TavolarGraph::performAction(std::string_view, std::int64_t) {
    return false;
}

std::vector<InspectorViewControllerEntry> TavolarGraph::inspectorViewControllerEntries() const {
    std::vector<InspectorViewControllerEntry> entries;
    for (const std::string& viewControllerClass : settingsViewControllerClasses())
        entries.push_back({viewControllerClass, true});
    entries.push_back({std::string(kGraphExtentsViewControllerClass), false});
    return entries;
}

UndoActionNames TavolarGraph::undoablePropertyKeyPaths() const {
    UndoActionNames names{
        {std::string(kXMinKeyPath), TavolarLocalizedString("Set X Minimum", "Undo action name")},
        {std::string(kXMaxKeyPath), TavolarLocalizedString("Set X Maximum", "Undo action name")},
        {std::string(kYMinKeyPath), TavolarLocalizedString("Set Y Minimum", "Undo action name")},
        {std::string(kYMaxKeyPath), TavolarLocalizedString("Set Y Maximum", "Undo action name")},
        {"extentsLocked", TavolarLocalizedString("Toggle Extents Lock", "Undo action name")},
    };
    for (GraphSetting& setting : graphSettings())
        names.emplace(std::move(setting.keyPath), std::move(setting.undoActionName));
    return names;
}

std::vector<std::string> TavolarGraph::keyPathsOfPropertiesAffectingDisplay() const {
    std::vector<std::string> keyPaths = VELTGraph::keyPathsOfPropertiesAffectingDisplay();
    for (std::string_view keyPath : {kXMinKeyPath, kXMaxKeyPath, kYMinKeyPath, kYMaxKeyPath,
                                     std::string_view("extentsLocked"), std::string_view("markers")})
        keyPaths.emplace_back(keyPath);
    for (GraphSetting& setting : graphSettings())
        keyPaths.push_back(std::move(setting.keyPath));
    return keyPaths;
}

std::vector<std::string_view>
TavolarGraph::keyPathsForValuesAffectingValueForKey(std::string_view key) const {
    if (key == "attributedTitle")
        return {"title", "titleModifier"};
    return VELTGraph::keyPathsForValuesAffectingValueForKey(key);
}

std::optional<double> TavolarGraph::numberForKeyPath(std::string_view keyPath) const {
    if (keyPath == "extentsLocked")
        return extentsLocked_ ? 1.0 : 0.0;
    if (keyPath == "aspectRatio")
        return aspectRatio_;
    if (keyPath == "drawsTitle")
        return drawsTitle_ ? 1.0 : 0.0;
    for (const GraphSetting& setting : graphSettings())
        if (setting.keyPath == keyPath)
            return setting.value(calculationSettings_);
    return VELTGraph::numberForKeyPath(keyPath);
}

bool TavolarGraph::setNumberForKeyPath(std::string_view keyPath, double value) {
    if (keyPath == "extentsLocked")
        setExtentsLocked(value != 0.0);
    else if (keyPath == "aspectRatio")
        setAspectRatio(value);
    else if (keyPath == "drawsTitle")
        setDrawsTitle(value != 0.0);
    else if (!setGraphSetting(keyPath, value))
        return VELTGraph::setNumberForKeyPath(keyPath, value);
    return true;
}

bool TavolarGraph::setGraphSetting(std::string_view keyPath, double value) {
    for (const GraphSetting& setting : graphSettings()) {
        if (setting.keyPath != keyPath)
            continue;
        const double old = setting.value(calculationSettings_);
        GraphCalculationSettings changed = calculationSettings_;
        setting.setValue(changed, value);
        // Compared as stored, so that a value the setting rounds to what it holds is no change.
        if (setting.value(changed) == old)
            return true;
        willChangeNumberForKeyPath(keyPath, old);
        calculationSettings_ = std::move(changed);
        didChangeValueForKey(keyPath);
        graphSettingDidChange(keyPath);
        setNeedsReload(true);
        return true;
    }
    return false;
}

void TavolarGraph::willChangeNumberForKeyPath(std::string_view keyPath, double oldValue) {
    if (!undoManager_ || !undoManager_->isUndoRegistrationEnabled())
        return;
    const UndoActionNames names = undoablePropertyKeyPaths();
    auto name = names.find(keyPath);
    if (name == names.end())
        return;
    undoManager_->registerUndo(
        name->second, [alive = std::weak_ptr<int>(alive_), this, keyPath = std::string(keyPath), oldValue] {
            if (alive.lock())
                changeKeyPath(keyPath, oldValue);
        });
}

VELTGraphPlot TavolarGraph::graphPlot() const {
    VELTGraphPlot plot = VELTGraph::graphPlot();
    if (drawsTitle_)
        plot.titleModifier = titleModifier_;
    else
        plot.title.clear();
    return plot;
}

// ---- Archiving

void TavolarGraph::encodeWithCoder(KeyedArchiver& coder) const {
    coder.encodeBool(extentsLocked_, "extentsLocked");
    nlohmann::json filter = nlohmann::json::object();
    for (const auto& [key, value] : extentsFilter_.dictionaryRepresentation())
        filter[key] = value;
    coder.encodeDictionary(filter, "extentsFilter");
    coder.encodeDouble(aspectRatio_, "aspectRatio");
    for (const GraphSetting& setting : graphSettings())
        coder.encodeNumber(setting.value(calculationSettings_), setting.keyPath);
}

void TavolarGraph::decodeArchivedValues(KeyedUnarchiver& coder) {
    if (coder.containsValueForKey("extentsLocked"))
        extentsLocked_ = coder.decodeBool("extentsLocked");
    if (auto filter = coder.decodeDictionary("extentsFilter")) {
        std::map<std::string, double> limits;
        for (const auto& [key, value] : filter->items())
            if (value.is_number())
                limits[key] = value.get<double>();
        extentsFilter_ = VELTGraphExtentsFilter::fromDictionaryRepresentation(limits);
    }
    if (coder.containsValueForKey("aspectRatio")) {
        const double aspectRatio = coder.decodeDouble("aspectRatio");
        // A graph of no height, or of negative width, cannot be laid out: such a value keeps the default.
        if (std::isfinite(aspectRatio) && aspectRatio > 0.0)
            aspectRatio_ = aspectRatio;
    }
    for (const GraphSetting& setting : graphSettings())
        if (auto value = coder.decodeNumber(setting.keyPath); value && std::isfinite(*value))
            setGraphSetting(setting.keyPath, *value);
}

// ---- Export

bool TavolarGraph::writeCSVToURL(const std::filesystem::path& url) const {
    if (graphDataArray().empty()) {
        TAVOLAR_LOG_ERROR("No data to write");
        return false;
    }
    VELTCSVExporter exporter;
    const std::string horizontal = horizontalAxisLabel(), vertical = verticalAxisLabel();
    for (const auto& data : graphDataArray()) {
        exporter.addColumn(data->x(), data->name() + " " + horizontal);
        exporter.addColumn(data->y(), data->name() + " " + vertical);
    }
    exporter.writeToURL(url);
    std::error_code error;
    return std::filesystem::exists(url, error);
}

void TavolarGraph::exportDataToCSVFileAtURL(const std::filesystem::path& url,
                                            std::function<void(bool)> completionHandler) {
    reloadDataWithCompletionHandler([this, url, completion = std::move(completionHandler)] {
        const bool written = writeCSVToURL(url);
        if (completion)
            completion(written);
    });
}

std::shared_ptr<TavolarGraph> TavolarGraph::graphForImageExport() const {
    std::shared_ptr<TavolarGraph> graph = copy();
    graph->setMeasurementRecords(records_);
    graph->setDrawsTitle(true);
    graph->reloadDataSynchronously();
    return graph;
}

#if TAVOLAR_WITH_GRAPHICS
Expected<std::vector<std::byte>> TavolarGraph::exportedImageDataOfType(VELTImageFormat type, double width,
                                                                       double height,
                                                                       double scaleFactor) const {
    const std::shared_ptr<TavolarGraph> graph = graphForImageExport();
    const VELTImageSize size{width, height, VELTImageSize::kPointsPerInch * scaleFactor};
    std::string title;
    for (const TitleRun& run : graph->attributedTitle())
        title += run.text;
    // The painters write files; the picture passes through a temporary one.
    const std::filesystem::path file =
        std::filesystem::temp_directory_path() / ("tavolar-graph-" + newUUIDString() + ".image");
    auto written = writeImage(file, type, size,
                              [&](VELTPainter& painter) {
                                  graph->drawInRect(painter, {0.0, 0.0, width, height});
                              },
                              {title, {}, std::nullopt});
    std::vector<std::byte> bytes;
    if (written) {
        std::ifstream input(file, std::ios::binary);
        std::vector<char> characters((std::istreambuf_iterator<char>(input)),
                                     std::istreambuf_iterator<char>());
        bytes.resize(characters.size());
        std::memcpy(bytes.data(), characters.data(), characters.size());
    }
    std::error_code ignored;
    std::filesystem::remove(file, ignored);
    if (!written)
        return std::unexpected(written.error());
    return bytes;
}
#endif

} // namespace tavolar
