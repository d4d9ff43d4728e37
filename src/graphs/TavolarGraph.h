#pragma once
// The base of every graph the system shows: a model (no view) holding the records to plot, the
// extents and their lock, the aspect ratio and the title modifier, with the calculation controller
// that turns records into graph data and the update controller that delivers it on the main queue.
// What a desktop makes of a graph (undo action names, key paths that call for a redraw, key
// equivalents, settings menus and inspector panels) is data here, for the host to use with its own
// toolkit. Graph models are used from the main thread.

#include "graphcalc/GraphCalculationController.h"
#include "graphing/VELTGraph.h"
#include "graphs/RZGraphDataUpdateController.h"
#include "graphs/TavolarGraphDelegate.h"
#include "platform/KeyedArchiver.h"
#include "platform/UndoManager.h"

#if TAVOLAR_WITH_GRAPHICS
#include "graphing/cairo/VELTCairoPainter.h"
#endif

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

namespace tavolar {

// The modifier keys of a key equivalent, as bits.
enum KeyModifierFlags : std::uint32_t {
    kKeyModifierShift = 1u << 0,
    kKeyModifierControl = 1u << 1,
    kKeyModifierOption = 1u << 2,
    kKeyModifierCommand = 1u << 3,
};

// A keyboard shortcut of a graph: the key with its modifiers sends the action, with the tag, to
// whatever has the focus (there is no fixed target).
struct KeyEquivalent {
    std::string key;
    std::uint32_t modifierFlags = 0;
    std::string action;
    std::int64_t tag = 0;
    bool operator==(const KeyEquivalent&) const = default;
};

// A panel of the inspector: the class of its view controller, and whether it sits inside the graph's
// own group (settings panels) or stands apart (the extents panel).
struct InspectorViewControllerEntry {
    std::string viewControllerClass;
    bool interior = false;
    bool operator==(const InspectorViewControllerEntry&) const = default;
};

// One run of the title as set: its text and font.
struct TitleRun {
    std::string text;
    VELTFont font;
    bool operator==(const TitleRun&) const = default;
};

using UndoActionNames = std::map<std::string, std::string, std::less<>>;

// A setting of a graph that steers its calculation: kept in the graph's calculation settings,
// addressed as a number by its key path (which is also its archive key), undoable under its name.
struct GraphSetting {
    std::string keyPath;
    std::string undoActionName;
    std::function<double(const GraphCalculationSettings&)> value;
    std::function<void(GraphCalculationSettings&, double)> setValue;
};

// A graph setting kept in the member of the calculation settings that access returns (a generic
// lambda returning a reference), of boolean, integer, enumeration or floating-point type. Values are
// clamped to [minimum, maximum] and rounded for integer types; not-a-number is ignored.
template <typename Access>
GraphSetting makeGraphSetting(std::string keyPath, std::string undoActionName, Access access,
                              double minimum = -1.0e15, double maximum = 1.0e15) {
    auto value = [access](const GraphCalculationSettings& settings) {
        const auto& member = access(settings);
        using T = std::remove_cvref_t<decltype(member)>;
        if constexpr (std::is_enum_v<T>)
            return static_cast<double>(static_cast<std::underlying_type_t<T>>(member));
        else
            return static_cast<double>(member);
    };
    auto setValue = [access, minimum, maximum](GraphCalculationSettings& settings, double number) {
        if (std::isnan(number))
            return;
        number = std::clamp(number, minimum, maximum);
        auto& member = access(settings);
        using T = std::remove_cvref_t<decltype(member)>;
        if constexpr (std::is_same_v<T, bool>)
            member = number != 0.0;
        else if constexpr (std::is_enum_v<T>)
            member = static_cast<T>(static_cast<std::underlying_type_t<T>>(std::llround(number)));
        else if constexpr (std::is_integral_v<T>)
            member = static_cast<T>(std::llround(number));
        else
            member = static_cast<T>(number);
    };
    return {std::move(keyPath), std::move(undoActionName), std::move(value), std::move(setValue)};
}

class TavolarGraph : public VELTGraph, public GraphSettingsSource {
public:
    static constexpr std::string_view className = "TavolarGraph";
    // The view controller class of the inspector panel that edits the extents.
    static constexpr std::string_view kGraphExtentsViewControllerClass = "GraphExtentsViewController";

    TavolarGraph();
    // Copies the graph's settings, axes and data (copy() adds the records); the copy has its own
    // controllers and no delegate, undo manager or contents-dirty handler.
    TavolarGraph(const TavolarGraph& other);
    TavolarGraph& operator=(const TavolarGraph&) = delete;
    ~TavolarGraph() override;

    // A copy of the graph of the same class, with its records.
    virtual std::shared_ptr<TavolarGraph> copy() const { return copyOf(*this); }

    static std::string graphTitle();

    // ---- Records and reloading

    const RecordArray& measurementRecords() const noexcept { return records_; }
    // Tells the delegate, moves record observation to the new records, clears the graph data and
    // marks the graph as needing a reload.
    void setMeasurementRecords(RecordArray records);

    bool needsReload() const noexcept { return needsReload_; }
    void setNeedsReload(bool needsReload);

    // Asynchronous: the data arrives on the main queue, then completionHandler runs.
    void reloadData() { reloadDataWithCompletionHandler({}); }
    void reloadDataWithCompletionHandler(std::function<void()> completionHandler);
    // Calculates on the calling thread's behalf and waits; the data is in place on return.
    void reloadDataSynchronously();
    // Starts a reload when the graph needs one.
    void reloadDataIfNeeded();

    // Where computed data arrives: replaces the graph data and, unless the extents are locked, fits
    // the extents to it without registering that for undo.
    void replaceGraphDataArray(GraphDataArray graphData);
    // The extents fitting the data, passed through the extents filter.
    void setAutomaticGraphExtents();

    GraphCalculationController& graphCalculationController();
    RZGraphDataUpdateController& updateController() noexcept { return *updateController_; }

    // ---- Settings

    bool drawsTitle() const noexcept { return drawsTitle_; }
    void setDrawsTitle(bool drawsTitle);
    bool extentsLocked() const noexcept { return extentsLocked_; }
    // Also marks the graph as needing a reload.
    void setExtentsLocked(bool locked);
    const VELTGraphExtentsFilter& extentsFilter() const noexcept { return extentsFilter_; }
    void setExtentsFilter(VELTGraphExtentsFilter filter) { extentsFilter_ = std::move(filter); }
    // Width divided by height.
    double aspectRatio() const noexcept { return aspectRatio_; }
    void setAspectRatio(double aspectRatio);
    double graphHeightForWidth(double width) const { return width / aspectRatio_; }

    const std::string& titleModifier() const noexcept { return titleModifier_; }
    void setTitleModifier(std::string modifier);
    // The title in its font followed by the modifier in the lighter one.
    std::vector<TitleRun> attributedTitle() const;

    std::weak_ptr<TavolarGraphDelegate> delegate() const { return delegate_; }
    void setDelegate(std::weak_ptr<TavolarGraphDelegate> delegate) { delegate_ = std::move(delegate); }
    // The host's undo manager (not owned; null for none). Changes of the undoable key paths register
    // their way back with it.
    UndoManager* undoManager() const noexcept { return undoManager_; }
    void setUndoManager(UndoManager* undoManager) { undoManager_ = undoManager; }
    // Called whenever what the graph shows has changed and its view should repaint.
    void setContentsDirtyHandler(std::function<void()> handler) { contentsDirty_ = std::move(handler); }

    // ---- Hooks of the graph classes

    // What the axes measure; their titles follow from it.
    virtual GraphQuantity horizontalAxisQuantity() const { return {}; }
    virtual GraphQuantity verticalAxisQuantity() const { return {}; }
    std::string horizontalAxisLabel() const;
    std::string verticalAxisLabel() const;
    // Sets both axes' quantities from the hooks.
    void updateAxisLabels();
    // The data as it is to be drawn (the base passes it unchanged).
    virtual GraphDataArray prepareGraphDataArrayForGraphing(GraphDataArray graphData) const {
        return graphData;
    }
    virtual void refreshTitleModifier() {}
    virtual std::vector<KeyEquivalent> keyEquivalents() const { return {}; }
    // Carries out the action of a key equivalent or menu item; false when the graph has no such action.
    virtual bool performAction(std::string_view action, std::int64_t tag);
    virtual std::vector<std::string> settingsViewControllerClasses() const { return {}; }
    virtual std::vector<std::string> settingsMenuNibNames() const { return {"GraphMenu"}; }
    // One entry per settings panel (interior), then the extents panel.
    std::vector<InspectorViewControllerEntry> inspectorViewControllerEntries() const;

    // The record key paths whose change calls for a reload.
    virtual std::vector<std::string> measurementRecordKeyPathsAffectingDisplay() const {
        return {"plotColor"};
    }
    // The key paths whose changes are undoable, with the names of their undo actions.
    virtual UndoActionNames undoablePropertyKeyPaths() const;
    std::vector<std::string> keyPathsOfPropertiesAffectingDisplay() const override;
    std::vector<std::string_view> keyPathsForValuesAffectingValueForKey(std::string_view key) const override;

    std::optional<double> numberForKeyPath(std::string_view keyPath) const override;
    bool setNumberForKeyPath(std::string_view keyPath, double value) override;
    // Sets a value by key path (what undo calls).
    bool changeKeyPath(std::string_view keyPath, double value) { return setNumberForKeyPath(keyPath, value); }

    // The settings that steer this graph's calculation, each read and written by key path, undoable,
    // redrawn and archived like the graph's own properties.
    virtual std::vector<GraphSetting> graphSettings() const { return {}; }
    GraphCalculationSettings graphCalculationSettings() const override { return calculationSettings_; }
    VELTGraphPlot graphPlot() const override;

    // ---- Archiving: the extents lock, the extents filter and the aspect ratio; never records,
    // controllers or views.

    virtual void encodeWithCoder(KeyedArchiver& coder) const;
    // Applies the archived values; a missing key leaves the value as it is.
    virtual void decodeArchivedValues(KeyedUnarchiver& coder);
    static TavolarGraph initWithCoder(KeyedUnarchiver& coder) { return decodedGraph<TavolarGraph>(coder); }

    // ---- Export

    // Writes the graph data as CSV: for every graph data its X and Y columns, titled by its name and
    // the axis titles. Without graph data it logs "No data to write" and writes nothing (false).
    bool writeCSVToURL(const std::filesystem::path& url) const;
    // Reloads the data, then writes it as above; completionHandler receives whether a file was written.
    void exportDataToCSVFileAtURL(const std::filesystem::path& url,
                                  std::function<void(bool)> completionHandler);

    // A copy of the graph with this graph's records, drawing its title, reloaded synchronously.
    std::shared_ptr<TavolarGraph> graphForImageExport() const;
#if TAVOLAR_WITH_GRAPHICS
    // The picture of graphForImageExport at width × height points; bitmaps have scaleFactor pixels a
    // point.
    Expected<std::vector<std::byte>> exportedImageDataOfType(VELTImageFormat type, double width,
                                                             double height, double scaleFactor = 1.0) const;
    Expected<std::vector<std::byte>> pngExportedImageDataWithSize(double width, double height,
                                                                  double scaleFactor) const {
        return exportedImageDataOfType(VELTImageFormat::PNG, width, height, scaleFactor);
    }
    Expected<std::vector<std::byte>> tiffExportedImageDataWithSize(double width, double height,
                                                                   double scaleFactor) const {
        return exportedImageDataOfType(VELTImageFormat::TIFF, width, height, scaleFactor);
    }
    Expected<std::vector<std::byte>> pdfExportedImageDataWithSize(double width, double height) const {
        return exportedImageDataOfType(VELTImageFormat::PDF, width, height);
    }
    Expected<std::vector<std::byte>> svgExportedImageDataWithSize(double width, double height) const {
        return exportedImageDataOfType(VELTImageFormat::SVG, width, height);
    }
#endif

protected:
    // A copy of graph that also draws graph's records. (Records are observed for the key paths of the
    // finished object, which the copy constructor does not know yet.)
    template <typename Graph> static std::shared_ptr<TavolarGraph> copyOf(const Graph& graph) {
        auto copy = std::make_shared<Graph>(graph);
        copy->records_ = graph.records_;
        copy->setupMeasurementRecordObserving();
        return copy;
    }
    template <typename Graph> static Graph decodedGraph(KeyedUnarchiver& coder) {
        Graph graph;
        graph.decodeArchivedValues(coder);
        return graph;
    }
    // After a graph setting changed (the base brings the axis titles up to date).
    virtual void graphSettingDidChange(std::string_view keyPath) {
        updateAxisLabels();
    }
    // The controller that computes this graph's data; the base makes a plain one, which makes none.
    virtual std::unique_ptr<GraphCalculationController> makeGraphCalculationController() const;
    void willChangeNumberForKeyPath(std::string_view keyPath, double oldValue) override;
    void graphWillReloadData();
    void graphDidReloadData();
    void markContentsDirty();

private:
    void setupMeasurementRecordObserving();
    void destroyMeasurementRecordObserving();
    // Sets a graph setting by key path; false when the graph has none by that name.
    bool setGraphSetting(std::string_view keyPath, double value);
    void makeUpdateController();

    RecordArray records_;
    std::vector<std::pair<std::shared_ptr<VELTMeasurementRecord>, ObservationToken>> observations_;
    bool needsReload_ = false;
    bool drawsTitle_ = false;
    bool extentsLocked_ = false;
    VELTGraphExtentsFilter extentsFilter_;
    double aspectRatio_ = 2.4;
    std::string titleModifier_;
    GraphCalculationSettings calculationSettings_;
    std::weak_ptr<TavolarGraphDelegate> delegate_;
    UndoManager* undoManager_ = nullptr;
    std::function<void()> contentsDirty_;
    std::unique_ptr<GraphCalculationController> calculationController_;
    std::unique_ptr<RZGraphDataUpdateController> updateController_;
    // Undo actions hold it weakly, so that an action outliving its graph does nothing.
    std::shared_ptr<int> alive_ = std::make_shared<int>(0);
};

} // namespace tavolar
