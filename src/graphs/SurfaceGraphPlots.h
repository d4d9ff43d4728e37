#pragma once
// The surface graphs as pictures: the waterfall (slices of the decay in an oblique view, each hiding
// those behind it) and the spectrogram (a heat map with a colour bar).

#include "graphs/RecordPlots.h"

namespace tavolar {

// The picture of the records' waterfall or spectrogram (the first record's surface).
Expected<GraphPicture> surfacePicture(const RecordArray& records, const PlotSettings& settings,
                                      const GraphCalculationSettings& calculation);

void drawWaterfall(VELTPainter& painter, const GraphPicture& picture, const VELTRect& bounds);
void drawHeatMap(VELTPainter& painter, const GraphPicture& picture, const VELTRect& bounds);

} // namespace tavolar
