#include "SimFrame.h"

QByteArray SimFrame::wrap(const QByteArray &pdu)
{
    const int len = pdu.size() + 1;  // unit byte + PDU
    QByteArray f(headerLength, '\0');
    f[4] = char(len & 0xff);
    f[5] = char((len >> 8) & 0xff);
    f.append(pdu);
    return f;
}

int SimFrame::frameLength(const QByteArray &buf)
{
    if (buf.size() < 6)
        return 0;
    if (buf[0] || buf[1] || buf[2] || buf[3])
        return -1;
    const int len = quint8(buf[4]) | (quint8(buf[5]) << 8);
    if (len < 2 || len > maxLengthField)
        return -1;
    if (buf.size() >= 7 && buf[6])
        return -1;
    return buf.size() >= 6 + len ? 6 + len : 0;
}

qint32 SimFrame::le32(const QByteArray &b, int at)
{
    const quint32 v = quint32(quint8(b[at])) | (quint32(quint8(b[at + 1])) << 8)
                      | (quint32(quint8(b[at + 2])) << 16) | (quint32(quint8(b[at + 3])) << 24);
    return qint32(v);
}

void SimFrame::appendLe32(QByteArray &b, qint32 v)
{
    const quint32 u = quint32(v);
    b.append(char(u & 0xff));
    b.append(char((u >> 8) & 0xff));
    b.append(char((u >> 16) & 0xff));
    b.append(char((u >> 24) & 0xff));
}

QByteArray SimFrame::cString(const QByteArray &b, int at)
{
    if (at >= b.size())
        return QByteArray();
    const int end = b.indexOf('\0', at);
    return b.mid(at, end < 0 ? -1 : end - at);
}

bool SimFrame::validAddress(qint32 address)
{
    return address >= 0 && address <= 9999999 && address % 1000000 <= 169999;
}
