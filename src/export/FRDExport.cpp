#include "export/FRDExport.h"

#include "export/ExportText.h"
#include "platform/Assertions.h"

#include <cstdio>
#include <string>

namespace tavolar {

std::string frdText(const VELTRealVector& frequency, const VELTRealVector& magnitude,
                    const VELTRealVector& phase) {
    TAVOLAR_PARAMETER_ASSERT(magnitude.length() >= frequency.length());
    TAVOLAR_PARAMETER_ASSERT(phase.length() >= frequency.length());
    std::string text = kFRDFileHeaderLine;
    text += "* Freq(Hz) Mag(dBFS) Phase(deg)\n";
    CNumericFormattingScope numericFormatting;
    char line[160];
    for (std::size_t index = 0; index < frequency.length(); ++index) {
        int length = std::snprintf(line, sizeof line, "%f %f %f\n", static_cast<double>(frequency[index]),
                                   static_cast<double>(magnitude[index]), static_cast<double>(phase[index]));
        text.append(line, static_cast<std::size_t>(length));
    }
    return text;
}

void writeToFRDFile(const std::filesystem::path& url, const VELTRealVector& frequency,
                    const VELTRealVector& magnitude, const VELTRealVector& phase) {
    // The result is dropped on purpose: this export reports nothing.
    (void)writeFileContents(url, lossyASCIIFromUTF8(frdText(frequency, magnitude, phase)));
}

} // namespace tavolar
