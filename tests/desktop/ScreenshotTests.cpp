// The window's picture against a stored one: the graph as the library draws it, the tabs and the
// record table, within a tolerance for the small differences of font rendering between machines.
// TAVOLAR_UPDATE_REFERENCE_IMAGES=1 writes the stored picture anew.

#include "DesktopTestSupport.h"
#include "MainWindow.h"

#include <QDir>
#include <QImage>
#include <QTemporaryDir>
#include <cstdlib>
#include <gtest/gtest.h>

namespace tavolar::desktop::test {
namespace {

// The share of pixels that differ by more than a quarter of full scale in any channel.
double differingShare(const QImage& a, const QImage& b) {
    const QImage first = a.convertToFormat(QImage::Format_RGB32);
    const QImage second = b.convertToFormat(QImage::Format_RGB32);
    qint64 differing = 0;
    for (int y = 0; y < first.height(); ++y) {
        const auto* row = reinterpret_cast<const QRgb*>(first.constScanLine(y));
        const auto* other = reinterpret_cast<const QRgb*>(second.constScanLine(y));
        for (int x = 0; x < first.width(); ++x) {
            const int difference = std::max({std::abs(qRed(row[x]) - qRed(other[x])),
                                             std::abs(qGreen(row[x]) - qGreen(other[x])),
                                             std::abs(qBlue(row[x]) - qBlue(other[x]))});
            differing += difference > 64;
        }
    }
    return static_cast<double>(differing) / (static_cast<double>(first.width()) * first.height());
}

TEST(Screenshot, TheWindowLooksAsStored) {
    QTemporaryDir folder;
    MainWindow window(reopened(makeDocument(folder, 2)));
    window.setAttribute(Qt::WA_DeleteOnClose, false);
    ASSERT_TRUE(window.showGraph("magnitude"));
    const QImage image = window.screenshot({800, 560});
    ASSERT_EQ(image.size(), QSize(800, 560));

    const QString stored = QDir(qEnvironmentVariable("TAVOLAR_TEST_DATA")).filePath("window-magnitude.png");
    if (qEnvironmentVariableIsSet("TAVOLAR_UPDATE_REFERENCE_IMAGES")) {
        ASSERT_TRUE(image.save(stored));
        GTEST_SKIP() << "wrote " << stored.toStdString();
    }
    const QImage reference(stored);
    ASSERT_FALSE(reference.isNull()) << stored.toStdString();
    ASSERT_EQ(reference.size(), image.size());
    const double share = differingShare(image, reference);
    const QString actual = QDir::temp().filePath("window-magnitude-actual.png");
    if (share > 0.01)
        image.save(actual);
    EXPECT_LE(share, 0.01) << "the window differs from " << stored.toStdString() << " in " << share * 100.0
                           << "% of its pixels; see " << actual.toStdString();
}

} // namespace
} // namespace tavolar::desktop::test
