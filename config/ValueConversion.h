#ifndef VALUECONVERSION_H
#define VALUECONVERSION_H

#include <QMap>
#include <QString>

// Conversions behind the value editor's four views. Pure functions, so they
// can be checked without a widget.
namespace ValueConversion {

// Signed base 10: -1 -> "-1".
QString decText(qint32 v);
// Two's-complement pattern in upper-case base 16, no prefix: -1 -> "FFFFFFFF".
QString hexText(qint32 v);
// Control-character name or the Latin-1 character; empty outside 0..255.
// "NUT", "DCI" and "TB" are the names this system has always used.
QString asciiName(int v);
// name -> value for 0..255, the inverse of asciiName.
QMap<QString, int> asciiNameTable();
// Exact, case-sensitive lookup; -1 when unknown or empty.
int asciiValue(const QMap<QString, int> &table, const QString &name);

// Signed decimal; empty text is 0 with ok true, like QString::toInt gives 0.
qint32 parseDec(const QString &text, bool *ok);
// Unsigned 32-bit base 16 without prefix; a ninth digit does not fit.
quint32 parseHex(const QString &text, bool *ok);
// Signed 32-bit base 16: 80000000 and above do not fit and give 0.
qint32 parseSignedHex(const QString &text, bool *ok);

int bitOf(quint32 v, int index);
quint32 withBit(quint32 v, int index, int bit);

} // namespace ValueConversion

#endif
