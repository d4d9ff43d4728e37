#include "graphs/SurfaceGraphPlots.h"

namespace tavolar {

Expected<GraphPicture> surfacePicture(const RecordArray&, const PlotSettings& settings,
                                      const GraphCalculationSettings&) {
    return makeUnexpected(settings.graph + " pictures are not drawn yet.");
}

void drawWaterfall(VELTPainter&, const GraphPicture&, const VELTRect&) {}
void drawHeatMap(VELTPainter&, const GraphPicture&, const VELTRect&) {}

} // namespace tavolar
