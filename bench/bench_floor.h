// What the throughput benchmarks share: pinning to one CPU, a printable
// text, and the raw floor (text appends over a plain socket, one request and
// one short reply at a time) that the library's figures are set against.
#ifndef BENCH_FLOOR_H
#define BENCH_FLOOR_H

#include <QByteArray>
#include <QElapsedTimer>
#include <QString>
#include <QTcpSocket>

#include <sched.h>

namespace bench {

// Pins the process to the first CPU it may use; threads made afterwards
// (simulator, client, buffer) inherit the mask. The CPU, or -1.
inline int pinToOneCpu()
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
    return sched_setaffinity(0, sizeof set, &set) == 0 ? cpu : -1;
}

inline QByteArray pattern(int length)
{
    QByteArray text(length, '\0');
    for (int i = 0; i < length; ++i)
        text[i] = char('A' + i % 26);
    return text;
}

// Announces "RAW" on `channel` (type byte `typeByte`), then sends appends of
// `textLength` bytes (a request of textLength + 10 bytes) until `total` text
// bytes are out. Returns the nanoseconds of the appends, or -1; *requests is
// the number of appends.
inline qint64 rawFloor(const QString &address, int channel, int typeByte, int textLength, int total,
                       int *requests)
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
    const QByteArray announce = QByteArray("d\x01", 2) + char(channel) + char(typeByte) + "RAW" + '\0';
    if (!exchange(announce, 12))
        return -1;
    const QByteArray append = QByteArray("d\x02", 2) + pattern(textLength) + '\0';
    QElapsedTimer timer;
    timer.start();
    *requests = 0;
    for (int sent = 0; sent < total; sent += textLength) {
        if (!exchange(append, 10))
            return -1;
        ++*requests;
    }
    return timer.nsecsElapsed();
}

} // namespace bench

#endif
