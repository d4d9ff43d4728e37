#pragma once
// Documents of known records for the desktop tests, and the application object they need.

#include "RecordTableModel.h"

#include <QTemporaryDir>
#include <filesystem>
#include <memory>
#include <string>

namespace tavolar::desktop::test {

// A new document in the folder holding count records named "Record 1" ... at 48 kHz. Record n is
// an impulse of gain 1/(n+1) at 1 ms with an echo of half its height 1 ms later (a comb whose
// magnitude swings between +3.5 and -6 dB about the gain), so their curves are known and differ.
std::filesystem::path makeDocument(const QTemporaryDir& folder, int count, const std::string& name = "test");

// The document reopened from its file, as a later session would see it.
std::unique_ptr<RecordTableModel> reopened(const std::filesystem::path& path);

} // namespace tavolar::desktop::test
