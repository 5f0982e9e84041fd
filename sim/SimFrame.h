#ifndef SIMFRAME_H
#define SIMFRAME_H

#include <QByteArray>

// Byte-level helpers of the simulator's own framing: the 7-byte TCP header
// and little-endian fields. Kept apart from the client's code on purpose, so
// a framing mistake on one side is not mirrored on the other.
class SimFrame
{
public:
    static constexpr int headerLength = 7;
    static constexpr int maxLengthField = 1024;

    // Puts the header in front of a PDU.
    static QByteArray wrap(const QByteArray &pdu);
    // Length of the first whole frame in buf: 0 while incomplete, -1 when the
    // header is broken (the stream cannot be resynchronised).
    static int frameLength(const QByteArray &buf);

    static qint32 le32(const QByteArray &b, int at);
    static void appendLe32(QByteArray &b, qint32 v);
    // Bytes from `at` up to the first 0 byte (or the end).
    static QByteArray cString(const QByteArray &b, int at);
    static bool validAddress(qint32 address);
};

#endif
