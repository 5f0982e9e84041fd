#include "ControllerRegistry.h"

#include <QMap>

namespace {

// Built on first use, so the library needs no start-up code of its own.
QMap<int, ControllerEntry *> &registry()
{
    static QMap<int, ControllerEntry *> map;
    return map;
}

} // namespace

ControllerEntry *ControllerRegistry::find(int cncID)
{
    return registry().value(cncID, nullptr);
}

bool ControllerRegistry::add(int cncID, int maxDncCh, const QByteArray &ip, int syncMask)
{
    if (registry().contains(cncID))
        return false;
    ControllerEntry *entry = new ControllerEntry;
    entry->setAddress(ip);
    entry->setChannelCount(maxDncCh);
    if (syncMask & 1)
        entry->mainClient()->setSyncMode(0);
    // Bit 31 (the sign bit) is channel 31's: shift as unsigned.
    for (int i = 1; i <= entry->channelCount() && i <= 31; ++i)
        if ((quint32(syncMask) >> i) & 1u)
            entry->channelClient(i)->setSyncMode(0);
    registry().insert(cncID, entry);
    return true;
}

bool ControllerRegistry::remove(int cncID)
{
    ControllerEntry *entry = registry().take(cncID);
    if (!entry)
        return false;
    delete entry;
    return true;
}

int ControllerRegistry::count()
{
    return registry().size();
}
