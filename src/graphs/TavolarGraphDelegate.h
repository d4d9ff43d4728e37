#pragma once
// What the owner of a graph model (a document's window, a view) hears from it: record changes and
// reloads, before and after. Every callback does nothing unless overridden.

namespace tavolar {

class TavolarGraph;

class TavolarGraphDelegate {
public:
    virtual ~TavolarGraphDelegate() = default;
    virtual void graphWillChangeMeasurementRecords(TavolarGraph&) {}
    virtual void graphDidChangeMeasurementRecords(TavolarGraph&) {}
    virtual void graphWillReloadData(TavolarGraph&) {}
    virtual void graphDidReloadData(TavolarGraph&) {}
};

} // namespace tavolar
