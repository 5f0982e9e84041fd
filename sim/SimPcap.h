#ifndef SIMPCAP_H
#define SIMPCAP_H

#include <QByteArray>
#include <QString>

#include <cstdio>
#include <mutex>

// Writes the simulator's traffic as a classic pcap file (Ethernet link type)
// with made-up Ethernet, IPv4 and TCP headers around the real payload bytes:
// a handshake when a connection opens, consistent sequence and
// acknowledgement numbers, FINs when it ends. Any pcap tool reads it, and
// Wireshark follows the streams and reassembles frames cut over segments.
// Every packet is flushed at once, so the file is whole even if the process
// is killed. Safe to call from every serving thread.
class SimPcap
{
public:
    // One connection as seen from the controller.
    struct Stream {
        quint32 clientIp = 0;
        quint16 clientPort = 0;
        quint32 serverIp = 0;
        quint16 serverPort = 0;
        quint32 clientSeq = 0;   // next sequence number of each side
        quint32 serverSeq = 0;
    };

    // Largest payload per recorded segment, as on an Ethernet link.
    static constexpr int segmentSize = 1460;

    SimPcap() = default;
    ~SimPcap();
    SimPcap(const SimPcap &) = delete;
    SimPcap &operator=(const SimPcap &) = delete;

    // Creates (or replaces) the file and writes the pcap header.
    bool open(const QString &path, QString *error);

    // The three-way handshake; the stream keeps the numbers for what follows.
    Stream opened(quint32 clientIp, quint16 clientPort, quint32 serverIp, quint16 serverPort);
    void data(Stream &s, bool fromClient, const QByteArray &bytes);
    // FIN from the side that closed first, FIN from the other, the last ACK.
    void closed(Stream &s, bool byClient);

    // IPv4 header checksum and TCP checksum (with the pseudo-header); public
    // because they are pure.
    static quint16 checksum(const QByteArray &bytes, quint32 initial = 0);

private:
    enum Flag : quint8 { Fin = 0x01, Syn = 0x02, Psh = 0x08, Ack = 0x10 };
    void packet(const Stream &s, bool fromClient, quint8 flags, const QByteArray &payload);

    std::mutex m_lock;
    std::FILE *m_file = nullptr;
    quint16 m_ipId = 0;
    quint32 m_streams = 0;
};

#endif
