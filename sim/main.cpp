// velmora-sim: a simulated controller on ADDRESS:60000 for writing and testing
// host software without a machine tool.

#include "ControllerSim.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QSocketNotifier>
#include <QTextStream>

#include <csignal>
#include <sys/socket.h>
#include <unistd.h>

namespace {

int signalPipe[2] = {-1, -1};

void onSignal(int)
{
    // Only async-signal-safe work here; the event loop does the rest.
    const char c = 1;
    ssize_t r = ::write(signalPipe[0], &c, 1);
    (void)r;
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
                                                     "silence, error, state, delay, split, close."),
                                      QStringLiteral("F"));
    const QCommandLineOption programOpt(QStringLiteral("program"),
                                        QStringLiteral("A program name cycle start accepts."),
                                        QStringLiteral("NAME"));
    const QCommandLineOption quietOpt(QStringLiteral("quiet"), QStringLiteral("Do not log requests."));
    parser.addOptions({addressOpt, animateOpt, dncOpt, faultOpt, programOpt, quietOpt});
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

    if (::socketpair(AF_UNIX, SOCK_STREAM, 0, signalPipe) != 0)
        return 1;
    QSocketNotifier notifier(signalPipe[1], QSocketNotifier::Read);
    QObject::connect(&notifier, &QSocketNotifier::activated, &app, &QCoreApplication::quit);
    struct sigaction sa = {};
    sa.sa_handler = onSignal;
    sigemptyset(&sa.sa_mask);
    sigaction(SIGINT, &sa, nullptr);
    sigaction(SIGTERM, &sa, nullptr);

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
