#include "ValueConversion.h"

#include <QChar>

namespace ValueConversion {

namespace {
// Names of the codes 0..32. "NUT", "DCI" and "TB" are deliberate: the
// reverse lookup and the operators' habits both rely on them.
const char *const controlNames[33] = {
    "NUT", "SOH", "STX", "ETX", "EOT", "ENQ", "ACK", "BEL",
    "BS",  "HT",  "LF",  "VT",  "FF",  "CR",  "SO",  "SI",
    "DLE", "DCI", "DC2", "DC3", "DC4", "NAK", "SYN", "TB",
    "CAN", "EM",  "SUB", "ESC", "FS",  "GS",  "RS",  "US",
    "space"};
} // namespace

QString decText(qint32 v)
{
    return QString::number(v);
}

QString hexText(qint32 v)
{
    return QString::number(static_cast<quint32>(v), 16).toUpper();
}

QString asciiName(int v)
{
    if (v < 0 || v > 255)
        return QString();
    if (v <= 32)
        return QLatin1String(controlNames[v]);
    if (v == 127)
        return QStringLiteral("DEL");
    return QString(QChar(v));
}

QMap<QString, int> asciiNameTable()
{
    QMap<QString, int> table;
    for (int v = 0; v <= 255; ++v)
        table.insert(asciiName(v), v);
    return table;
}

int asciiValue(const QMap<QString, int> &table, const QString &name)
{
    return table.value(name, -1);
}

qint32 parseDec(const QString &text, bool *ok)
{
    if (text.isEmpty()) {
        *ok = true;
        return 0;
    }
    return text.toInt(ok, 10);
}

quint32 parseHex(const QString &text, bool *ok)
{
    if (text.isEmpty()) {
        *ok = true;
        return 0;
    }
    return text.toUInt(ok, 16);
}

qint32 parseSignedHex(const QString &text, bool *ok)
{
    const qint32 v = text.toInt(ok, 16);
    return *ok ? v : 0;
}

int bitOf(quint32 v, int index)
{
    if (index < 0 || index > 31)
        return 0;
    return static_cast<int>((v >> index) & 1u);
}

quint32 withBit(quint32 v, int index, int bit)
{
    if (index < 0 || index > 31)
        return v;
    const quint32 mask = 1u << index;
    return bit == 1 ? (v | mask) : (v & ~mask);
}

} // namespace ValueConversion
