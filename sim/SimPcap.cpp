#include "SimPcap.h"

#include <QFile>

#include <cerrno>
#include <chrono>
#include <cstring>

namespace {

void put16be(QByteArray &b, quint16 v)
{
    b.append(char(v >> 8));
    b.append(char(v));
}

void put32be(QByteArray &b, quint32 v)
{
    put16be(b, quint16(v >> 16));
    put16be(b, quint16(v));
}

// The pcap file's own fields are written little-endian with the matching
// magic number, whatever the host's byte order.
void put32le(QByteArray &b, quint32 v)
{
    for (int i = 0; i < 4; ++i)
        b.append(char(v >> (8 * i)));
}

void set16be(QByteArray &b, int at, quint16 v)
{
    b[at] = char(v >> 8);
    b[at + 1] = char(v);
}

const char clientMac[] = "\x02\x00\x00\x00\x00\x01";
const char serverMac[] = "\x02\x00\x00\x00\x00\x02";

} // namespace

SimPcap::~SimPcap()
{
    if (m_file)
        std::fclose(m_file);
}

bool SimPcap::open(const QString &path, QString *error)
{
    std::lock_guard<std::mutex> lock(m_lock);
    if (m_file)
        std::fclose(m_file);
    m_file = std::fopen(QFile::encodeName(path).constData(), "wb");
    if (!m_file) {
        if (error)
            *error = QString::fromLocal8Bit(std::strerror(errno));
        return false;
    }
    QByteArray header;
    put32le(header, 0xa1b2c3d4u);  // microsecond time stamps
    put32le(header, 2 | (4u << 16));  // version 2.4
    put32le(header, 0);   // time zone offset
    put32le(header, 0);   // accuracy
    put32le(header, 65535);  // snapshot length
    put32le(header, 1);   // Ethernet
    std::fwrite(header.constData(), 1, size_t(header.size()), m_file);
    std::fflush(m_file);
    return true;
}

quint16 SimPcap::checksum(const QByteArray &bytes, quint32 initial)
{
    quint32 sum = initial;
    for (int i = 0; i + 1 < bytes.size(); i += 2)
        sum += (quint32(quint8(bytes[i])) << 8) | quint8(bytes[i + 1]);
    if (bytes.size() % 2)
        sum += quint32(quint8(bytes[bytes.size() - 1])) << 8;
    while (sum >> 16)
        sum = (sum & 0xffff) + (sum >> 16);
    return quint16(~sum);
}

SimPcap::Stream SimPcap::opened(quint32 clientIp, quint16 clientPort, quint32 serverIp, quint16 serverPort)
{
    Stream s;
    s.clientIp = clientIp;
    s.clientPort = clientPort;
    s.serverIp = serverIp;
    s.serverPort = serverPort;
    {
        std::lock_guard<std::mutex> lock(m_lock);
        // Distinct initial numbers per stream make mixed-up streams obvious.
        const quint32 n = ++m_streams;
        s.clientSeq = 0x10000000u * (n % 15) + 1000u * n;
        s.serverSeq = 0x80000000u + 1000u * n;
    }
    packet(s, true, Syn, {});
    ++s.clientSeq;
    packet(s, false, Syn | Ack, {});
    ++s.serverSeq;
    packet(s, true, Ack, {});
    return s;
}

void SimPcap::data(Stream &s, bool fromClient, const QByteArray &bytes)
{
    for (int at = 0; at < bytes.size(); at += segmentSize) {
        const QByteArray piece = bytes.mid(at, segmentSize);
        packet(s, fromClient, Psh | Ack, piece);
        (fromClient ? s.clientSeq : s.serverSeq) += quint32(piece.size());
    }
}

void SimPcap::closed(Stream &s, bool byClient)
{
    packet(s, byClient, Fin | Ack, {});
    ++(byClient ? s.clientSeq : s.serverSeq);
    packet(s, !byClient, Fin | Ack, {});
    ++(byClient ? s.serverSeq : s.clientSeq);
    packet(s, byClient, Ack, {});
}

void SimPcap::packet(const Stream &s, bool fromClient, quint8 flags, const QByteArray &payload)
{
    const quint32 srcIp = fromClient ? s.clientIp : s.serverIp;
    const quint32 dstIp = fromClient ? s.serverIp : s.clientIp;

    QByteArray tcp;
    put16be(tcp, fromClient ? s.clientPort : s.serverPort);
    put16be(tcp, fromClient ? s.serverPort : s.clientPort);
    put32be(tcp, fromClient ? s.clientSeq : s.serverSeq);
    put32be(tcp, (flags & Ack) ? (fromClient ? s.serverSeq : s.clientSeq) : 0);
    tcp.append(char(5 << 4));  // 20-byte header, no options
    tcp.append(char(flags));
    put16be(tcp, 65535);  // window
    put16be(tcp, 0);      // checksum, below
    put16be(tcp, 0);      // urgent pointer
    tcp.append(payload);
    // Pseudo-header: addresses, protocol, TCP length.
    const quint32 pseudo = (srcIp >> 16) + (srcIp & 0xffff) + (dstIp >> 16) + (dstIp & 0xffff) + 6
                           + quint32(tcp.size());
    set16be(tcp, 16, checksum(tcp, pseudo));

    std::lock_guard<std::mutex> lock(m_lock);
    if (!m_file)
        return;
    QByteArray ip;
    ip.append(char(0x45));
    ip.append(char(0));
    put16be(ip, quint16(20 + tcp.size()));
    put16be(ip, ++m_ipId);
    put16be(ip, 0x4000);  // don't fragment
    ip.append(char(64));  // TTL
    ip.append(char(6));   // TCP
    put16be(ip, 0);
    put32be(ip, srcIp);
    put32be(ip, dstIp);
    set16be(ip, 10, checksum(ip));

    QByteArray frame(fromClient ? serverMac : clientMac, 6);
    frame.append(fromClient ? clientMac : serverMac, 6);
    put16be(frame, 0x0800);
    frame.append(ip).append(tcp);

    const qint64 us = std::chrono::duration_cast<std::chrono::microseconds>(
                          std::chrono::system_clock::now().time_since_epoch()).count();
    QByteArray record;
    put32le(record, quint32(us / 1000000));
    put32le(record, quint32(us % 1000000));
    put32le(record, quint32(frame.size()));
    put32le(record, quint32(frame.size()));
    record.append(frame);
    std::fwrite(record.constData(), 1, size_t(record.size()), m_file);
    std::fflush(m_file);
}
