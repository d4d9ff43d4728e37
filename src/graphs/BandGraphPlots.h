#pragma once
// The band graphs (octave and third-octave levels) as pictures: one bar per band, labelled with the
// bands' nominal centres.

#include "graphs/RecordPlots.h"

namespace tavolar {

// The nominal centre of the octave or third-octave band whose exact centre is given (31.5 for
// 31.62 Hz, 1000 for 1000 Hz, 12500 for 12589 Hz): the preferred number nearest to it.
double nominalBandCentre(double exactCentre);

// The picture of the records' band levels (PlotSettings::graph "octave-bands" or
// "third-octave-bands").
Expected<GraphPicture> bandPicture(const RecordArray& records, const PlotSettings& settings,
                                   const GraphCalculationSettings& calculation);

} // namespace tavolar
