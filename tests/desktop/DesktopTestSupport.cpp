#include "DesktopTestSupport.h"

#include "platform/UserDefaults.h"

#include <QApplication>
#include <QFont>
#include <gtest/gtest.h>

namespace tavolar::desktop::test {

std::filesystem::path makeDocument(const QTemporaryDir& folder, int count, const std::string& name) {
    const std::filesystem::path path =
        folder.filePath(QString::fromStdString(name + ".tavolar")).toStdString();
    auto store = cli::RecordStore::open(path, cli::RecordStore::Mode::CreateIfMissing);
    EXPECT_TRUE(store.has_value());
    std::vector<std::shared_ptr<VELTMeasurementRecord>> records;
    std::vector<std::string> impulses;
    for (int n = 1; n <= count; ++n) {
        std::vector<float> samples(8192, 0.0f);
        const float gain = 1.0f / static_cast<float>(n + 1);
        samples[48] = gain;
        samples[96] = gain / 2.0f;
        auto record = store->makeRecord(VELTRealVector(std::span<const float>(samples)), 48000);
        record->setComment("Record " + std::to_string(n));
        cli::applyDefaultAnalysisSettings(*record);
        impulses.push_back(record->impulseUUID());
        records.push_back(std::move(record));
    }
    EXPECT_TRUE(store->save(records, impulses).has_value());
    return path;
}

std::unique_ptr<RecordTableModel> reopened(const std::filesystem::path& path) {
    auto model = RecordTableModel::open(path, false);
    EXPECT_TRUE(model.has_value());
    return model ? std::move(*model) : nullptr;
}

} // namespace tavolar::desktop::test

int main(int argc, char** argv) {
    // Widgets need no display; a user's settings are never read or written by the tests.
    if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM"))
        qputenv("QT_QPA_PLATFORM", "offscreen");
    QTemporaryDir settings;
    qputenv("TAVOLAR_DEFAULTS_FILE", settings.filePath("defaults.json").toUtf8());
    QApplication application(argc, argv);
    // The same style and face wherever the tests run, so that pictures of the window compare.
    QApplication::setStyle("Fusion");
    QApplication::setFont(QFont("DejaVu Sans", 9));
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
