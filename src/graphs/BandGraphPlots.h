#pragma once
// The band graphs (octave and third-octave levels) as pictures: one bar per band, labelled with the
// bands' nominal centres.

#include "graphs/RecordPlots.h"

namespace tavolar {

// The nominal centre of the octave or third-octave band whose exact centre is given (31.5 for
// 31.62 Hz, 1000 for 1000 Hz, 12500 for 12589 Hz): the preferred number nearest to it.
double nominalBandCentre(double exactCentre);

// The extents of band bars: X half a band's width beyond the outer bands' centres, so that the outer
// bars are whole; Y from 60 dB below the loudest band (or 3 dB below the lowest, when that is higher)
// to 3 dB above it. Nothing when no band has a level to show.
std::optional<VELTGraphExtents> bandGraphExtents(const GraphDataArray& bands, bool thirdOctaveBands);

// A tick at every band's centre, labelled with its nominal centre; of third-octave bands only the
// octaves are labelled, which keeps the labels apart on any picture a page holds.
std::vector<TickMark> bandTickMarks(const VELTGraphData& bands, bool thirdOctaveBands);

// The picture of the records' band levels (PlotSettings::graph "octave-bands" or
// "third-octave-bands").
Expected<GraphPicture> bandPicture(const RecordArray& records, const PlotSettings& settings,
                                   const GraphCalculationSettings& calculation);

} // namespace tavolar
