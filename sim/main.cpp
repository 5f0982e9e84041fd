// velmora-sim: a simulated controller on ADDRESS:60000 for writing and testing
// host software without a machine tool.

#include "ControllerSim.h"
#include "SimScenario.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QFile>
#include <QTextStream>
#include <QTimer>

#include <csignal>

namespace {

// Only a flag in the handler; the event loop polls it. Plain signal() keeps
// this working on Windows too, where there is no socketpair.
volatile std::sig_atomic_t stopRequested = 0;

void onSignal(int)
{
    stopRequested = 1;
}

QString description()
{
    QString text = QStringLiteral("Simulated CNC controller on port 60000: variables, watchdog, reset and\n"
                                  "program start, DNC files, remote buffer, error files, oscilloscope.\n\n");
    text += SimScenario::formatHelp();
    for (const SimScenario::Setting &s : SimScenario::settings()) {
        const QString head = s.name + (s.valueName.isEmpty() ? QString() : QLatin1Char(' ') + s.valueName);
        text += QStringLiteral("  %1\n      %2\n").arg(head, s.help);
    }
    text += QStringLiteral("Example scenario:\n"
                           "  var 1000005=42\n"
                           "  fault d:2=state:3:3   # the next 3 appends: memory full\n"
                           "  fault d:2=silence:0:1 # then one goes unanswered\n"
                           "  fault B=delay:300\n");
    return text;
}

} // namespace

int main(int argc, char *argv[])
{
    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("velmora-sim"));

    QCommandLineParser parser;
    parser.setApplicationDescription(description());
    parser.addHelpOption();
    const QCommandLineOption addressOpt(QStringLiteral("address"), QStringLiteral("Address to listen on."),
                                        QStringLiteral("A"), QStringLiteral("127.0.0.1"));
    const QCommandLineOption recordOpt(QStringLiteral("record"),
                                       QStringLiteral("Write all traffic to FILE as pcap (Wireshark, tshark, tcpdump)."),
                                       QStringLiteral("FILE"));
    const QCommandLineOption scenarioOpt(QStringLiteral("scenario"),
                                         QStringLiteral("Apply the settings of a scenario file (below)."),
                                         QStringLiteral("FILE"));
    const QCommandLineOption quietOpt(QStringLiteral("quiet"), QStringLiteral("Do not log requests."));
    parser.addOptions({addressOpt, recordOpt, scenarioOpt, quietOpt});
    QList<QCommandLineOption> settingOpts;
    for (const SimScenario::Setting &s : SimScenario::settings()) {
        settingOpts.append(s.valueName.isEmpty() ? QCommandLineOption(s.name, s.help)
                                                 : QCommandLineOption(s.name, s.help, s.valueName));
        parser.addOption(settingOpts.last());
    }
    parser.process(app);

    QTextStream err(stderr);
    ControllerSim sim(parser.value(addressOpt));
    QString why;
    if (parser.isSet(scenarioOpt)) {
        const QString path = parser.value(scenarioOpt);
        QFile file(path);
        if (!file.open(QIODevice::ReadOnly | QIODevice::Text)) {
            err << "velmora-sim: cannot read scenario " << path << ": " << file.errorString() << "\n";
            return 2;
        }
        if (!SimScenario::applyText(sim, QString::fromUtf8(file.readAll()), &why)) {
            err << "velmora-sim: " << path << ":" << why << "\n";
            return 2;
        }
    }
    for (const QCommandLineOption &o : settingOpts) {
        const QString name = o.names().first();
        const QStringList values = o.valueName().isEmpty() ? QStringList(QString()) : parser.values(o);
        if (!parser.isSet(o))
            continue;
        for (const QString &v : values) {
            if (!SimScenario::apply(sim, name, v, &why)) {
                err << "velmora-sim: " << why << "\n";
                return 2;
            }
        }
    }
    if (parser.isSet(recordOpt) && !sim.recordTraffic(parser.value(recordOpt), &why)) {
        err << "velmora-sim: cannot record to " << parser.value(recordOpt) << ": " << why << "\n";
        return 2;
    }
    // A long-running simulator would otherwise keep every frame it ever saw.
    sim.setRecording(false);
    if (!parser.isSet(quietOpt)) {
        sim.setRequestLogger([](const QByteArray &frame) {
            QTextStream out(stdout);
            const char letter = frame.size() > 7 ? frame[7] : '?';
            out << (letter >= 0x20 && letter < 0x7f ? letter : '?') << " " << frame.size() << " "
                << frame.left(24).toHex(' ') << (frame.size() > 24 ? " ..." : "") << "\n";
        });
    }

    std::signal(SIGINT, onSignal);
    std::signal(SIGTERM, onSignal);
    QTimer stopPoll;
    QObject::connect(&stopPoll, &QTimer::timeout, &app, [] {
        if (stopRequested)
            QCoreApplication::quit();
    });
    stopPoll.start(50);

    if (!sim.start(&why)) {
        err << "velmora-sim: cannot listen on " << sim.address() << ":" << sim.port() << ": " << why << "\n";
        return 1;
    }
    QTextStream(stdout) << "velmora-sim listening on " << sim.address() << ":" << sim.port() << "\n" << Qt::flush;
    const int rc = app.exec();
    sim.stop();
    QTextStream(stdout) << "velmora-sim stopped\n" << Qt::flush;
    return rc;
}
