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

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QTcpSocket>

#include <sched.h>

#include <algorithm>
#include <cstdio>
#include <vector>

namespace {

const int kTotal = 100 * 1024;
const int kChunk = 400;   // 7 + 2 + 400 + 1 = 410-byte request

int pinToOneCpu()
{
    cpu_set_t set;
    CPU_ZERO(&set);
    if (sched_getaffinity(0, sizeof set, &set) != 0)
        return -1;
    int cpu = 0;
    while (cpu < CPU_SETSIZE && !CPU_ISSET(cpu, &set))
        ++cpu;
    CPU_ZERO(&set);
    CPU_SET(cpu, &set);
    // Threads made afterwards (simulator, client) inherit the mask.
    return sched_setaffinity(0, sizeof set, &set) == 0 ? cpu : -1;
}

QByteArray pattern(int length)
{
    QByteArray text(length, '\0');
    for (int i = 0; i < length; ++i)
        text[i] = char('A' + i % 26);
    return text;
}

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

// The same text as 410-byte appends over a plain socket, one request and
// one short reply at a time.
qint64 rawFloor(const QString &address, int total, int *requests)
{
    QTcpSocket socket;
    socket.connectToHost(address, 60000);
    if (!socket.waitForConnected(2000))
        return -1;
    socket.setSocketOption(QAbstractSocket::LowDelayOption, 1);
    auto exchange = [&](const QByteArray &pdu, int replySize) {
        QByteArray frame(7, '\0');
        frame[4] = char((pdu.size() + 1) & 0xff);
        frame[5] = char((pdu.size() + 1) >> 8);
        socket.write(frame + pdu);
        QByteArray reply;
        while (reply.size() < replySize && socket.waitForReadyRead(1000))
            reply += socket.readAll();
        return reply.size() == replySize;
    };
    // Announce "RAW" on channel 1 (type byte 3), then append.
    if (!exchange(QByteArray::fromHex("64010103") + "RAW" + QByteArray(1, '\0'), 12))
        return -1;
    const QByteArray append = QByteArray::fromHex("6402") + pattern(kChunk) + QByteArray(1, '\0');
    QElapsedTimer timer;
    timer.start();
    *requests = 0;
    for (int sent = 0; sent < total; sent += kChunk) {
        if (!exchange(append, 10))
            return -1;
        ++*requests;
    }
    return timer.nsecsElapsed();
}

} // namespace

int main(int argc, char **argv)
{
    const int cpu = pinToOneCpu();
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
    const QByteArray text = pattern(kTotal);
    char name[] = "BENCH";
    std::vector<qint64> rawRuns;
    std::vector<qint64> uploadRuns;
    int rawRequests = 0;
    for (int run = 0; run < runs; ++run) {
        const qint64 raw = rawFloor(address, kTotal, &rawRequests);
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
