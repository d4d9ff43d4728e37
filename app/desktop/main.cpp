// tavolar-desktop: the desktop application. With --screenshot it draws the window with a document to
// a PNG file off screen and exits.

#include "MainWindow.h"

#include <QApplication>
#include <QCommandLineParser>
#include <QFileDialog>
#include <QPalette>
#include <QStyleFactory>
#include <cstdio>
#include <string_view>

namespace {

// The interface's colours for the dark theme, matching the dark graphs.
void applyDarkPalette(QApplication& application) {
    application.setStyle(QStyleFactory::create("Fusion"));
    QPalette palette;
    const QColor window(0x2b, 0x2b, 0x2e), base(0x1e, 0x1e, 0x20), text(0xe6, 0xe6, 0xe6);
    palette.setColor(QPalette::Window, window);
    palette.setColor(QPalette::WindowText, text);
    palette.setColor(QPalette::Base, base);
    palette.setColor(QPalette::AlternateBase, window);
    palette.setColor(QPalette::Text, text);
    palette.setColor(QPalette::Button, window);
    palette.setColor(QPalette::ButtonText, text);
    palette.setColor(QPalette::Highlight, QColor(0x35, 0x84, 0xe4));
    palette.setColor(QPalette::HighlightedText, Qt::white);
    palette.setColor(QPalette::ToolTipBase, base);
    palette.setColor(QPalette::ToolTipText, text);
    palette.setColor(QPalette::PlaceholderText, QColor(0x90, 0x90, 0x90));
    application.setPalette(palette);
}

} // namespace

int main(int argc, char** argv) {
    // Pictures and help need no display: without one named, they are made off screen.
    for (int index = 1; index < argc; ++index) {
        const std::string_view argument = argv[index];
        if ((argument == "--screenshot" || argument.starts_with("--screenshot=") || argument == "--help" ||
             argument == "-h" || argument == "--version" || argument == "-v") &&
            qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM"))
            qputenv("QT_QPA_PLATFORM", "offscreen");
    }
    QApplication application(argc, argv);
    QApplication::setApplicationName("tavolar-desktop");
    QApplication::setApplicationVersion("1.0");

    QCommandLineParser parser;
    parser.setApplicationDescription("Swept-sine acoustic measurement: documents, graphs and measurements.");
    parser.addHelpOption();
    parser.addVersionOption();
    QCommandLineOption screenshot("screenshot", "Draw the window off screen to a PNG file and exit.", "FILE");
    QStringList graphNames;
    for (std::string_view name : tavolar::plotGraphNames())
        graphNames << QString::fromUtf8(name.data(), static_cast<qsizetype>(name.size()));
    QCommandLineOption graph("graph", "The graph shown: " + graphNames.join(", ") + " (default magnitude).",
                             "NAME", "magnitude");
    QCommandLineOption size("size", "The window's size for --screenshot (default 1000x700).", "WxH",
                            "1000x700");
    QCommandLineOption theme("theme", "light (default) or dark.", "THEME", "light");
    parser.addOptions({screenshot, graph, size, theme});
    parser.addPositionalArgument("documents", "Measurement documents (*.tavolar) to open.", "[DOCUMENT...]");
    parser.process(application);

    const QString themeName = parser.value(theme);
    if (themeName != "light" && themeName != "dark") {
        std::fprintf(stderr, "tavolar-desktop: there is no theme named %s; give light or dark.\n",
                     qPrintable(themeName));
        return 2;
    }
    if (themeName == "dark")
        applyDarkPalette(application);
    const QStringList documents = parser.positionalArguments();

    if (parser.isSet(screenshot)) {
        const QStringList dimensions = parser.value(size).split('x');
        bool wideOK = false, highOK = false;
        const int width = dimensions.size() == 2 ? dimensions[0].toInt(&wideOK) : 0;
        const int height = dimensions.size() == 2 ? dimensions[1].toInt(&highOK) : 0;
        if (!wideOK || !highOK || width < 200 || height < 150 || width > 8000 || height > 8000) {
            std::fprintf(stderr, "tavolar-desktop: --size takes WIDTHxHEIGHT in pixels, such as 1000x700.\n");
            return 2;
        }
        if (documents.size() != 1) {
            std::fprintf(stderr, "tavolar-desktop: --screenshot draws one document; name it.\n");
            return 2;
        }
        auto document = tavolar::desktop::RecordTableModel::open(documents.front().toStdString(), false);
        if (!document) {
            std::fprintf(stderr, "tavolar-desktop: %s\n%s\n", document.error().localizedDescription.c_str(),
                         document.error().localizedRecoverySuggestion.c_str());
            return 1;
        }
        tavolar::desktop::MainWindow window(std::move(*document), themeName);
        window.setAttribute(Qt::WA_DeleteOnClose, false);
        if (!window.showGraph(parser.value(graph))) {
            std::fprintf(stderr, "tavolar-desktop: there is no graph named %s.\n",
                         qPrintable(parser.value(graph)));
            return 2;
        }
        const QImage image = window.screenshot({width, height});
        if (!image.save(parser.value(screenshot), "PNG")) {
            std::fprintf(stderr, "tavolar-desktop: %s cannot be written.\n",
                         qPrintable(parser.value(screenshot)));
            return 1;
        }
        return 0;
    }

    int opened = 0;
    for (const QString& path : documents)
        if (tavolar::desktop::MainWindow::openDocument(path, false, nullptr, themeName))
            ++opened;
    if (opened == 0 && !documents.isEmpty())
        return 1;
    if (documents.isEmpty()) {
        // Without a document named, the user picks one to open, or else names a new one.
        QString path = QFileDialog::getOpenFileName(nullptr, "Open Document", QString(),
                                                    "Measurement documents (*.tavolar)");
        bool create = false;
        if (path.isEmpty()) {
            path = QFileDialog::getSaveFileName(nullptr, "New Document", QString(),
                                                "Measurement documents (*.tavolar)");
            if (!path.isEmpty() && !path.endsWith(".tavolar"))
                path += ".tavolar";
            create = true;
        }
        if (path.isEmpty() || !tavolar::desktop::MainWindow::openDocument(path, create, nullptr, themeName))
            return 0;
    }
    return QApplication::exec();
}
