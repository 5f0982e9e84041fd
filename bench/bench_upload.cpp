// File upload throughput: uploadFile of 100 kB into DNC memory of the
// simulator (direct mode, one 410-byte request per 400-byte chunk), beside
// the raw floor of the same chunks as 410-byte requests with short replies
// over a plain QTcpSocket, in the same run. The process (host, client socket
// thread and simulator thread) is pinned to one CPU so the figures do not
// depend on how the scheduler spreads the threads.
//
// Usage: bench_upload [address] [runs]   (default 127.0.0.60, 5 runs)
#include "AsynchronousClient.h"
#include "ControllerSim.h"
#include "bench_floor.h"

#include <QCoreApplication>
#include <QElapsedTimer>

#include <algorithm>
#include <cstdio>
#include <vector>

namespace {

const int kTotal = 100 * 1024;
const int kChunk = 400;   // 7 + 2 + 400 + 1 = 410-byte request

void report(const char *what, qint64 bytes, qint64 ns, int requests)
{
    const double s = ns / 1e9;
    std::printf("%-30s %8lld bytes %9.4f s %12.0f B/s %8.1f us/request (%d requests)\n", what,
                static_cast<long long>(bytes), s, s > 0 ? bytes / s : 0.0, requests ? ns / 1e3 / requests : 0.0,
                requests);
}

qint64 median(std::vector<qint64> v)
{
    std::sort(v.begin(), v.end());
    return v.empty() ? 0 : v[v.size() / 2];
}

} // namespace

int main(int argc, char **argv)
{
    const int cpu = bench::pinToOneCpu();
    QCoreApplication app(argc, argv);
    const QString address = argc > 1 ? QString::fromLatin1(argv[1]) : QStringLiteral("127.0.0.60");
    const int runs = argc > 2 ? qMax(1, atoi(argv[2])) : 5;
    ControllerSim sim(address);
    sim.setRecording(false);
    if (!sim.start()) {
        std::printf("cannot listen on %s:60000\n", qPrintable(address));
        return 1;
    }
    std::printf("pinned to CPU %d; %d bytes per upload, median of %d runs\n", cpu, kTotal, runs);

    AsynchronousClient client;
    if (!client.tcpConnect(address.toLatin1())) {
        std::printf("cannot connect to %s\n", qPrintable(address));
        return 1;
    }
    const QByteArray text = bench::pattern(kTotal);
    char name[] = "BENCH";
    std::vector<qint64> rawRuns;
    std::vector<qint64> uploadRuns;
    int rawRequests = 0;
    for (int run = 0; run < runs; ++run) {
        // "RAW" on channel 1, type byte 3
        const qint64 raw = bench::rawFloor(address, 1, 3, kChunk, kTotal, &rawRequests);
        if (raw < 0) {
            std::printf("raw floor failed\n");
            return 1;
        }
        rawRuns.push_back(raw);

        QByteArray copy = text;
        QElapsedTimer timer;
        timer.start();
        const long int out = client.uploadFile(2, 1, name, copy.data());
        uploadRuns.push_back(timer.nsecsElapsed());
        if (out != 0 || sim.dncFile(1, name) != text) {
            std::printf("upload failed: %ld\n", out);
            return 1;
        }
    }
    // The client's own cost per request: one-variable writes through the
    // same exchange, to tell the link's share from the transfer's.
    std::vector<qint64> writeRuns;
    const int writes = kTotal / kChunk;
    for (int run = 0; run < runs; ++run) {
        long int address = 1000;
        long int value = run;
        QElapsedTimer timer;
        timer.start();
        for (int i = 0; i < writes; ++i)
            client.writeVars(&address, 1, &value);
        writeRuns.push_back(timer.nsecsElapsed());
    }
    // set file + one request per chunk (+ the empty append after an exact
    // multiple of 400) + file end
    const int uploadRequests = 1 + (kTotal / kChunk) + (kTotal % kChunk == 0 ? 1 : 0) + 1;
    const qint64 rawNs = median(rawRuns);
    const qint64 uploadNs = median(uploadRuns);
    report("raw floor, 410-byte requests", qint64(rawRequests) * kChunk, rawNs, rawRequests);
    report("uploadFile", kTotal, uploadNs, uploadRequests);
    std::printf("%-30s %8.1f us/request (%d requests)\n", "client, 1-variable writes",
                median(writeRuns) / 1e3 / writes, writes);
    const double rawRate = double(rawRequests) * kChunk / (rawNs / 1e9);
    const double uploadRate = kTotal / (uploadNs / 1e9);
    std::printf("%-30s %.2f of the raw floor\n", "", uploadRate / rawRate);
    client.tcpDisconnect();
    sim.stop();
    return 0;
}
