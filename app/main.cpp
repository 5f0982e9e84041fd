// velmora-demo [ADDRESS] [--screenshot FILE] [--panels N] [--verbose]
//
// Shows the Velmora main window. Without ADDRESS a simulated controller is
// started in this process on 127.0.0.1 with values that change over time,
// so the 200 ms refresh is visible. With --screenshot the window is rendered
// to FILE (PNG) after a few refresh ticks and the program exits; that also
// works headless with QT_QPA_PLATFORM=offscreen. The library's diagnostic
// lines reach the terminal only with --verbose.

#include "ControllerSim.h"
#include "VelmoraWindow.h"

#include <QApplication>
#include <QComboBox>
#include <QCommandLineParser>
#include <QDir>
#include <QFileInfo>
#include <QLoggingCategory>
#include <QTemporaryDir>
#include <QTimer>

#include <cstdio>
#include <memory>

namespace {
const int kPanelWidth = 440;   // roomy enough for four stretched columns
const int kScreenshotDelayMs = 1500;   // several 200 ms ticks

// Shows a different module in each panel, as a user would pick them.
void spreadModules(Velmora &window)
{
    const QList<QComboBox *> combos = window.findChildren<QComboBox *>(QStringLiteral("functionModule"));
    for (int i = 0; i < combos.size(); ++i) {
        QComboBox *combo = combos.at(i);
        if (combo->count() == 0)
            continue;
        combo->setCurrentIndex(i % combo->count());
        QMetaObject::invokeMethod(combo, "activated", Qt::DirectConnection,
                                  Q_ARG(QString, combo->currentText()));
    }
}
}

int main(int argc, char *argv[])
{
    QApplication app(argc, argv);
    QApplication::setApplicationName(QStringLiteral("velmora-demo"));

    QCommandLineParser parser;
    parser.setApplicationDescription(QStringLiteral("The Velmora parameter window against a controller "
                                                    "(default: a simulated one on 127.0.0.1)."));
    parser.addHelpOption();
    parser.addPositionalArgument(QStringLiteral("address"), QStringLiteral("Controller IPv4 address."), QStringLiteral("[address]"));
    QCommandLineOption screenshotOpt(QStringLiteral("screenshot"),
                                     QStringLiteral("Render the window to FILE after a few refreshes and exit."),
                                     QStringLiteral("FILE"));
    QCommandLineOption panelsOpt(QStringLiteral("panels"), QStringLiteral("Number of panels (default 3)."),
                                 QStringLiteral("N"), QStringLiteral("3"));
    QCommandLineOption verboseOpt(QStringLiteral("verbose"),
                                  QStringLiteral("Print the library's diagnostic lines."));
    parser.addOption(screenshotOpt);
    parser.addOption(panelsOpt);
    parser.addOption(verboseOpt);
    parser.process(app);

    // The diagnostics are debug messages of category "default". Every panel
    // puts the default message handler back, so they are held back by
    // category rather than by a handler of our own; QT_LOGGING_RULES still wins.
    if (!parser.isSet(verboseOpt))
        QLoggingCategory::setFilterRules(QStringLiteral("default.debug=false"));

    // Absolute before the working directory changes below.
    const QString screenshot = parser.isSet(screenshotOpt)
        ? QFileInfo(parser.value(screenshotOpt)).absoluteFilePath() : QString();
    const int panels = qBound(1, parser.value(panelsOpt).toInt(), 8);
    QString address = parser.positionalArguments().value(0);

    std::unique_ptr<ControllerSim> sim;
    if (address.isEmpty()) {
        address = QStringLiteral("127.0.0.1");
        sim.reset(new ControllerSim(address));
        sim->setAnimated(true);
        if (!sim->start())
            fprintf(stderr, "velmora-demo: cannot listen on %s:60000; using whatever controller answers there\n",
                    qPrintable(address));
    }

    // The window keeps its layout in the working directory; the demo builds
    // its own layout each time and leaves nothing behind.
    QTemporaryDir work;
    if (work.isValid())
        QDir::setCurrent(work.path());

    int rc = 0;
    {
        Velmora window;
        window.setCncIp(address);
        window.resize(panels * kPanelWidth, 620);
        for (int i = 0; i < panels; ++i)
            window.addSplitForm_clicked();
        spreadModules(window);
        window.show();

        if (!screenshot.isEmpty()) {
            const QString file = screenshot;
            QTimer::singleShot(kScreenshotDelayMs, &window, [&window, &rc, file]() {
                if (window.grab().save(file, "PNG")) {
                    printf("velmora-demo: screenshot written to %s\n", qPrintable(file));
                } else {
                    fprintf(stderr, "velmora-demo: cannot write %s\n", qPrintable(file));
                    rc = 1;
                }
                QApplication::quit();
            });
        }
        const int loop = app.exec();
        if (rc == 0)
            rc = loop;
    }
    return rc;
}
