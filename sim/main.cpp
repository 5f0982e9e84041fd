// velmora-sim: a simulated controller on ADDRESS:60000 for writing and testing
// host software without a machine tool.

#include "ControllerSim.h"

#include <QCommandLineParser>
#include <QCoreApplication>
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

} // namespace

int main(int argc, char *argv[])
{
    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("velmora-sim"));

    QCommandLineParser parser;
    parser.setApplicationDescription(QStringLiteral("Simulated CNC controller on port 60000."));
    parser.addHelpOption();
    const QCommandLineOption addressOpt(QStringLiteral("address"),
                                        QStringLiteral("Address to listen on."),
                                        QStringLiteral("A"), QStringLiteral("127.0.0.1"));
    const QCommandLineOption animateOpt(QStringLiteral("animate"),
                                        QStringLiteral("Never-written variables vary over time."));
    const QCommandLineOption dncOpt(QStringLiteral("dnc-size"),
                                    QStringLiteral("DNC memory size in bytes."), QStringLiteral("N"));
    const QCommandLineOption faultOpt(QStringLiteral("fault"),
                                      QStringLiteral("LETTER[:SUB]=KIND[:ARG[:TIMES]], KIND one of "
                                                     "silence, error, state, delay, split, close, garbage, "
                                                     "oversize, stream, stale, bare, count, restart."),
                                      QStringLiteral("F"));
    const QCommandLineOption programOpt(QStringLiteral("program"),
                                        QStringLiteral("A program name cycle start accepts."),
                                        QStringLiteral("NAME"));
    const QCommandLineOption durationOpt(QStringLiteral("program-time"),
                                         QStringLiteral("A started program ends after MS milliseconds."),
                                         QStringLiteral("MS"));
    const QCommandLineOption quietOpt(QStringLiteral("quiet"), QStringLiteral("Do not log requests."));
    parser.addOptions({addressOpt, animateOpt, dncOpt, faultOpt, programOpt, durationOpt, quietOpt});
    parser.process(app);

    QTextStream err(stderr);
    ControllerSim sim(parser.value(addressOpt));
    sim.setAnimated(parser.isSet(animateOpt));
    if (parser.isSet(dncOpt)) {
        bool ok = false;
        const int size = parser.value(dncOpt).toInt(&ok);
        if (!ok || size < 0) {
            err << "velmora-sim: bad --dnc-size " << parser.value(dncOpt) << "\n";
            return 2;
        }
        sim.setDncMemorySize(size);
    }
    for (const QString &f : parser.values(faultOpt)) {
        char letter = 0;
        int sub = -1;
        ControllerSim::Fault fault;
        if (!ControllerSim::parseFault(f, &letter, &sub, &fault)) {
            err << "velmora-sim: bad --fault " << f << "\n";
            return 2;
        }
        sim.setFault(letter, sub, fault);
    }
    if (parser.isSet(durationOpt))
        sim.setProgramDuration(parser.value(durationOpt).toInt());
    for (const QString &p : parser.values(programOpt))
        sim.addKnownProgram(p.toUtf8());
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

    if (!sim.start()) {
        err << "velmora-sim: cannot listen on " << sim.address() << ":" << sim.port() << "\n";
        return 1;
    }
    QTextStream(stdout) << "velmora-sim listening on " << sim.address() << ":" << sim.port() << "\n" << Qt::flush;
    const int rc = app.exec();
    sim.stop();
    QTextStream(stdout) << "velmora-sim stopped\n" << Qt::flush;
    return rc;
}
