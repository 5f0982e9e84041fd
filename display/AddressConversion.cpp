#include "AddressConversion.h"

namespace {
const char *const kPrefixes[] = { "usr", "sys", "reg", "mcm", "bus", "com" };
const long kBases[] = { 0, 10000, 40000, 50000, 60000, 70000 };
const int kAreaCount = 6;
}

int AddressConversion::areaIndex(const QString &prefix)
{
    for (int i = 0; i < kAreaCount; ++i) {
        if (prefix == QLatin1String(kPrefixes[i]))
            return i;
    }
    return -1;
}

long AddressConversion::areaBase(int areaIndex)
{
    return (areaIndex >= 0 && areaIndex < kAreaCount) ? kBases[areaIndex] : 0;
}

QList<long> AddressConversion::toVariableNumbers(const QStringList &addresses, int channel)
{
    QList<long> numbers;
    numbers.reserve(addresses.size());
    int area = -1;   // once for the whole list
    for (const QString &address : addresses) {
        const int found = areaIndex(address.left(3));
        if (found >= 0)
            area = found;
        // The prefix is the leading letters, three at most: "usr12" -> 12,
        // and a short unknown prefix such as "x7" still leaves 7.
        int prefixLength = 0;
        while (prefixLength < 3 && prefixLength < address.size() && address.at(prefixLength).isLetter())
            ++prefixLength;
        long number = address.mid(prefixLength).toLong(nullptr, 10);   // 0 when not a number
        if (area >= 0)
            number += long(channel) * ChannelStride + areaBase(area);
        numbers << number;
    }
    return numbers;
}
