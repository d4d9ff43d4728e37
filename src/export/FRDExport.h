#pragma once
// FRD export of vectors: a frequency response as the plain text that loudspeaker and crossover
// design tools read, one "frequency magnitude phase" line per point.

#include "math/VELTRealVector.h"

#include <filesystem>

namespace tavolar {

// The first header line of every FRD file, naming the program and its web address.
inline constexpr const char* kFRDFileHeaderLine =
    "* Response obtained using Tavolar (https://tavolarkit.org)\n";

// Writes the FRD text: the two header lines ("* Response obtained using Tavolar (...)" and
// "* Freq(Hz) Mag(dBFS) Phase(deg)"), then one "%f %f %f\n" line per index of the frequency vector
// (Hz), with the magnitude (dBFS) and phase (degrees) at the same index; ASCII, line feeds only.
// The file is written in place and the outcome of the write is deliberately not examined: a failed
// write leaves no trace. magnitude and phase must be at least as long as frequency (parameter
// assertion).
void writeToFRDFile(const std::filesystem::path& url, const VELTRealVector& frequency,
                    const VELTRealVector& magnitude, const VELTRealVector& phase);

// The text that writeToFRDFile writes, under the same preconditions.
std::string frdText(const VELTRealVector& frequency, const VELTRealVector& magnitude,
                    const VELTRealVector& phase);

} // namespace tavolar
