// Link overhead: direct-mode client calls beside a bare QTcpSocket
// request/reply of the same frames, against the simulator on loopback, all
// threads pinned to one CPU (cross-CPU wake-ups would swamp the figures).
// Also the CPU an idle thread-mode client costs.
//   bench_link [ITERATIONS]
#include "AsynchronousClient.h"
#include "ControllerSim.h"
#include "HProtocol_Client.h"

#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QLoggingCategory>
#include <QTcpSocket>
#include <QTemporaryDir>
#include <QThread>

#include <algorithm>
#include <cstdio>
#include <functional>
#include <vector>

#include <sched.h>
#include <sys/resource.h>

namespace {

const char kAddress[] = "127.0.0.49";
const quint16 kBenchPort = 60000;

double medianUs(std::vector<qint64> ns)
{
    std::sort(ns.begin(), ns.end());
    return ns.empty() ? 0.0 : ns[ns.size() / 2] / 1000.0;
}

std::vector<qint64> timeCalls(int iterations, const std::function<bool()> &call)
{
    std::vector<qint64> ns;
    ns.reserve(size_t(iterations));
    for (int i = 0; i < iterations / 10; ++i)   // warm-up
        call();
    QElapsedTimer t;
    for (int i = 0; i < iterations; ++i) {
        t.start();
        if (!call()) {
            std::fprintf(stderr, "call failed\n");
            return {};
        }
        ns.push_back(t.nsecsElapsed());
    }
    return ns;
}

// The frames a readVars of `count` addresses sends, built by the protocol layer.
QList<QByteArray> readFrames(int count)
{
    quint8 send[HProtocol_Client::kBufferSize], recv[HProtocol_Client::kBufferSize];
    HProtocol_Client builder(send, recv);
    QList<QByteArray> frames;
    for (int first = 0; first < count; first += builder.maxRdVar()) {
        QList<qint32> slice;
        for (int i = first; i < qMin(count, first + builder.maxRdVar()); ++i)
            slice.append(1000000 + i);
        const int n = builder.buildReadVars(slice);
        frames.append(QByteArray(reinterpret_cast<const char *>(send), n));
    }
    return frames;
}

QByteArray writeFrame(int count)
{
    quint8 send[HProtocol_Client::kBufferSize], recv[HProtocol_Client::kBufferSize];
    HProtocol_Client builder(send, recv);
    std::vector<qint32> addresses, values;
    for (int i = 0; i < count; ++i) {
        addresses.push_back(1000000 + i);
        values.push_back(i);
    }
    const int n = builder.buildWriteVars(addresses.data(), values.data(), count);
    return QByteArray(reinterpret_cast<const char *>(send), n);
}

QByteArray watchdogFrame()
{
    quint8 send[HProtocol_Client::kBufferSize], recv[HProtocol_Client::kBufferSize];
    HProtocol_Client builder(send, recv);
    return QByteArray(reinterpret_cast<const char *>(send), builder.buildWatchdog());
}

bool rawExchange(QTcpSocket &socket, const QList<QByteArray> &frames)
{
    for (const QByteArray &frame : frames) {
        socket.write(frame);
        socket.flush();
        if (!socket.waitForReadyRead(1800))
            return false;
        socket.readAll();
    }
    return true;
}

double processCpuSeconds()
{
    rusage usage;
    getrusage(RUSAGE_SELF, &usage);
    return usage.ru_utime.tv_sec + usage.ru_stime.tv_sec
        + (usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

// CPU time of the clients' own threads (named after the class), from the
// scheduler's per-thread accounting: the in-process simulator's threads
// have timers of their own and would otherwise be counted too.
double clientThreadsCpuSeconds()
{
    double total = 0;
    const QStringList tasks = QDir(QStringLiteral("/proc/self/task")).entryList(QDir::Dirs | QDir::NoDotAndDotDot);
    for (const QString &task : tasks) {
        QFile comm(QStringLiteral("/proc/self/task/%1/comm").arg(task));
        QFile stat(QStringLiteral("/proc/self/task/%1/schedstat").arg(task));
        if (!comm.open(QIODevice::ReadOnly) || !comm.readAll().startsWith("AsynchronousCli"))
            continue;
        if (stat.open(QIODevice::ReadOnly))
            total += stat.readAll().split(' ').value(0).toDouble() / 1e9;
    }
    return total;
}

} // namespace

int main(int argc, char *argv[])
{
    QCoreApplication app(argc, argv);
    // The watchdog's entry and exit lines are always produced; a host that
    // does not collect them filters them, as here.
    QLoggingCategory::setFilterRules(QStringLiteral("default.debug=false"));
    const int iterations = argc > 1 ? qMax(20, atoi(argv[1])) : 2000;

    // Pin before any thread exists: the simulator's and the client's threads
    // inherit CPU 0.
    cpu_set_t cpus;
    CPU_ZERO(&cpus);
    CPU_SET(0, &cpus);
    if (sched_setaffinity(0, sizeof cpus, &cpus) != 0)
        std::fprintf(stderr, "warning: cannot pin to CPU 0\n");

    QTemporaryDir home;   // the client writes "logs" here
    QDir::setCurrent(home.path());

    ControllerSim sim(QString::fromLatin1(kAddress), kBenchPort);
    sim.setRecording(false);
    if (!sim.start()) {
        std::fprintf(stderr, "cannot start the simulator on %s\n", kAddress);
        return 1;
    }
    AsynchronousClient client;
    QTcpSocket raw;
    raw.connectToHost(QString::fromLatin1(kAddress), kBenchPort);
    if (!client.tcpConnect(kAddress) || !raw.waitForConnected(500)) {
        std::fprintf(stderr, "cannot connect\n");
        return 1;
    }

    struct Row {
        const char *name;
        int iterations;
        std::function<bool()> viaClient;
        QList<QByteArray> rawFrames;
    };
    std::vector<long int> addresses(1000), values(1000);
    for (int i = 0; i < 1000; ++i)
        addresses[size_t(i)] = 1000000 + i;
    auto read = [&](int n) { return [&, n] { return client.readVars(addresses.data(), n, values.data()) == 0; }; };
    const std::vector<Row> rows = {
        { "readVars 1", iterations, read(1), readFrames(1) },
        { "readVars 64", iterations, read(64), readFrames(64) },
        { "readVars 1000", qMax(20, iterations / 10), read(1000), readFrames(1000) },
        { "writeVars 31", iterations, [&] { return client.writeVars(addresses.data(), 31, values.data()) == 0; },
          { writeFrame(31) } },
        { "CheckTcpWdt", iterations, [&] { return client.CheckTcpWdt() == 0; }, { watchdogFrame() } },
    };

    std::printf("%-15s %8s %12s %12s %8s\n", "operation", "calls", "client us", "raw us", "ratio");
    for (const Row &row : rows) {
        const double viaClient = medianUs(timeCalls(row.iterations, row.viaClient));
        const double viaRaw = medianUs(timeCalls(row.iterations, [&] { return rawExchange(raw, row.rawFrames); }));
        std::printf("%-15s %8d %12.1f %12.1f %8.2f\n", row.name, row.iterations, viaClient, viaRaw,
                    viaRaw > 0 ? viaClient / viaRaw : 0.0);
    }

    // Idle thread mode: connected, nothing registered, nothing queued.
    AsynchronousClient idle;
    idle.setSyncMode(0);
    if (!idle.tcpConnect(kAddress)) {
        std::fprintf(stderr, "cannot connect the idle client\n");
        return 1;
    }
    QThread::msleep(100);
    const double processBefore = processCpuSeconds();
    const double clientsBefore = clientThreadsCpuSeconds();
    QElapsedTimer wall;
    wall.start();
    QThread::sleep(1);
    const double seconds = wall.nsecsElapsed() / 1e9;
    const double clients = clientThreadsCpuSeconds() - clientsBefore;
    const double process = processCpuSeconds() - processBefore;
    std::printf("idle thread-mode client: %.3f %% of a core over %.2f s (client threads; whole process %.3f %%)\n",
                100.0 * clients / seconds, seconds, 100.0 * process / seconds);
    return 0;
}
