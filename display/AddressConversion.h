#ifndef ADDRESSCONVERSION_H
#define ADDRESSCONVERSION_H

#include <QList>
#include <QString>
#include <QStringList>

// Turns the address texts of a labels-file page ("usr12", "reg300", ...)
// into controller variable numbers: offset + channel * 1000000 + area base.
class AddressConversion
{
public:
    enum : long { ChannelStride = 1000000 };

    // Area index of a three-letter prefix ("usr" 0 ... "com" 5), -1 if unknown.
    static int areaIndex(const QString &prefix);
    // Base of an area index 0..5; 0 for anything else.
    static long areaBase(int areaIndex);

    // Converts a whole list, in order. An entry is a prefix of up to three
    // letters and a decimal offset (0 when that is not a number). The area
    // is remembered across the list: an entry with an unknown prefix takes
    // the area of the last entry that had a known one, and only before any
    // known prefix is the bare offset used. Pages written by hand rely on
    // this carry-over.
    static QList<long> toVariableNumbers(const QStringList &addresses, int channel);
};

#endif
