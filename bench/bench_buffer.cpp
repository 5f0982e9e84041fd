// Remote buffer throughput: 1 MB streamed in DNC mode to the simulator,
// beside the raw floor of 490-byte requests with short replies over a plain
// QTcpSocket, in the same run. The whole process (host, buffer thread and
// simulator thread) is pinned to one CPU so the figures do not depend on
// how the scheduler spreads the threads.
//
// What the figures mean:
// - A write is cut into pieces of 480 bytes, and a piece of exactly 480
//   bytes builds an empty request that is skipped. A host that wants every
//   byte to arrive therefore writes at most 479 bytes at a time; the
//   stream below does that (one request per write).
// - "large writes" shows the other side: 1 MB written as 4800-byte writes is
//   accepted, but only the pieces shorter than 480 bytes reach the
//   controller (here: only the 256-byte tail of the last write).
// - Each busy reply costs a send-next request whose build busy-waits 50 ms,
//   so a few busy replies dominate the time of a whole megabyte.
//
// Usage: bench_buffer [address]   (default 127.0.0.78)
#include "velmora.h"
#include "ControllerSim.h"
#include "bench_floor.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QThread>

#include <cstdio>

namespace {

const int kTotal = 1 << 20;
const int kStreamPiece = 479;   // the largest write that is sent whole
const int kRawText = 480;       // 7 + 2 + 480 + 1 = 490-byte request

template <typename F>
bool waitFor(F cond, int ms)
{
    QElapsedTimer t;
    t.start();
    while (!cond()) {
        if (t.elapsed() > ms)
            return false;
        QThread::usleep(500);
    }
    return true;
}

void report(const char *what, qint64 bytes, qint64 ns, int requests)
{
    const double s = ns / 1e9;
    std::printf("%-34s %8lld bytes %9.3f s %12.0f B/s %9.1f us/request (%d requests)\n", what,
                static_cast<long long>(bytes), s, s > 0 ? bytes / s : 0.0,
                requests ? ns / 1e3 / requests : 0.0, requests);
}

// Streams `total` bytes in writes of `piece` bytes, keeping within the room
// the buffer reports; returns the bytes the controller stored.
qint64 stream(ControllerSim &sim, QByteArray address, int total, int piece, qint64 *ns)
{
    void *h = bufOpen(address.data(), 1, 1);
    if (!waitFor([&] { return getBufState(h) == 5; }, 5000)) {
        std::printf("buffer did not become idle (state %d)\n", getBufState(h));
        bufClose(h);
        return -1;
    }
    const int usedBefore = sim.dncMemoryUsed();
    QByteArray chunk = bench::pattern(piece);
    QElapsedTimer timer;
    timer.start();
    for (int written = 0; written < total;) {
        if (getBufValidCnt(h) < 480) {
            QThread::usleep(200);
            continue;
        }
        const int n = qMin(piece, total - written);
        QByteArray text = chunk.left(n);
        if (!bufWrite(h, text.data())) {
            QThread::usleep(200);
            continue;
        }
        written += n;
    }
    const int expected = piece % 480 == 0 ? 0 : total;
    waitFor([&] { return sim.dncMemoryUsed() - usedBefore >= expected && getBufState(h) == 5; }, 120000);
    *ns = timer.nsecsElapsed();
    const qint64 stored = sim.dncMemoryUsed() - usedBefore;
    bufClose(h);
    return stored;
}

} // namespace

int main(int argc, char **argv)
{
    const int cpu = bench::pinToOneCpu();
    QCoreApplication app(argc, argv);
    const QString address = argc > 1 ? QString::fromLatin1(argv[1]) : QStringLiteral("127.0.0.78");
    ControllerSim sim(address);
    sim.setDncMemorySize(64 * 1024 * 1024);
    if (!sim.start()) {
        std::printf("cannot listen on %s:60000\n", qPrintable(address));
        return 1;
    }
    std::printf("pinned to CPU %d; %d bytes per run\n", cpu, kTotal);
    const QByteArray addr = address.toLatin1();

    qint64 ns = 0;
    int requests = 0;
    // "RAW" on channel 2, type byte 1
    ns = bench::rawFloor(address, 2, 1, kRawText, kTotal, &requests);
    if (ns < 0) {
        std::printf("raw floor failed\n");
        return 1;
    }
    const qint64 raw = qint64(requests) * kRawText;
    report("raw floor, 490-byte requests", raw, ns, requests);
    const double rawRate = raw / (ns / 1e9);

    const qint64 streamed = stream(sim, addr, kTotal, kStreamPiece, &ns);
    const int streamRequests = (kTotal + kStreamPiece - 1) / kStreamPiece;
    report("DNC stream, 479-byte writes", streamed, ns, streamRequests);
    std::printf("%-34s %.2f of the raw floor\n", "", (streamed / (ns / 1e9)) / rawRate);

    sim.setBusyReplies(10, 1);
    const qint64 busy = stream(sim, addr, kTotal, kStreamPiece, &ns);
    report("DNC stream, 10 busy replies", busy, ns, streamRequests + 20);

    const qint64 large = stream(sim, addr, kTotal, 4800, &ns);
    std::printf("%-34s %8lld bytes of %d accepted reached the controller in %.3f s\n",
                "DNC stream, 4800-byte writes", static_cast<long long>(large), kTotal, ns / 1e9);
    sim.stop();
    return 0;
}
