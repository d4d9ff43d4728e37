#include "export/VELTCSVExporter.h"

#include "export/ExportText.h"
#include "platform/Logging.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <fmt/format.h>

namespace tavolar {

std::vector<VELTRealVector> VELTCSVExporter::columns() const {
    std::lock_guard lock(mutex_);
    return columns_;
}

void VELTCSVExporter::setColumns(std::vector<VELTRealVector> columns) {
    std::lock_guard lock(mutex_);
    columns_ = std::move(columns);
}

std::vector<std::string> VELTCSVExporter::headers() const {
    std::lock_guard lock(mutex_);
    return headers_;
}

void VELTCSVExporter::setHeaders(std::vector<std::string> headers) {
    std::lock_guard lock(mutex_);
    headers_ = std::move(headers);
}

void VELTCSVExporter::addColumn(const VELTRealVector& column, std::string header) {
    std::lock_guard lock(mutex_);
    columns_.push_back(column);
    headers_.push_back(std::move(header));
}

bool VELTCSVExporter::writesEverySignificantDigit() const {
    std::lock_guard lock(mutex_);
    return everySignificantDigit_;
}

void VELTCSVExporter::setWritesEverySignificantDigit(bool everyDigit) {
    std::lock_guard lock(mutex_);
    everySignificantDigit_ = everyDigit;
}

std::optional<std::string> VELTCSVExporter::csvText() const {
    std::vector<VELTRealVector> columns;
    std::vector<std::string> headers;
    bool everyDigit = false;
    {
        std::lock_guard lock(mutex_);
        columns = columns_;
        headers = headers_;
        everyDigit = everySignificantDigit_;
    }
    if (columns.empty())
        return std::nullopt;
    std::size_t longest = 0;
    for (const VELTRealVector& column : columns)
        longest = std::max(longest, column.length());
    // The row count is deliberately kept in 32 bits, as the file format has always counted rows.
    const auto rowCount = static_cast<std::uint32_t>(longest);
    if (rowCount == 0)
        return std::nullopt;

    std::string text;
    for (const std::string& header : headers) {
        text += header;
        text += ',';
    }
    text += '\n';

    CNumericFormattingScope numericFormatting;
    char field[64];
    for (std::uint32_t row = 0; row < rowCount; ++row) {
        for (const VELTRealVector& column : columns) {
            // A read past the end of a shorter column answers 0.
            float sample = row < column.length() ? column[row] : 0.0f;
            const auto value = static_cast<double>(sample);
            int length = everyDigit ? std::snprintf(field, sizeof field, "%.9g,", value)
                                    : std::snprintf(field, sizeof field, "%f,", value);
            text.append(field, static_cast<std::size_t>(length));
        }
        text += '\n';
    }
    return text;
}

void VELTCSVExporter::writeToURL(const std::filesystem::path& url) const {
    std::optional<std::string> text = csvText();
    if (!text)
        return;
    Expected<void> written = writeFileContents(url, lossyASCIIFromUTF8(*text));
    if (!written)
        logLine(LogLevel::Error, fmt::format("Error writing to URL {}. {}", url.string(),
                                             written.error().localizedDescription));
}

} // namespace tavolar
