#ifndef CONTROLLERREGISTRY_H
#define CONTROLLERREGISTRY_H

#include "ControllerEntry.h"

#include <QByteArray>

// The process-wide map from cncID to controller entry. It has no lock:
// adding and removing controllers must not overlap any other call, while
// calls for different registered controllers may run in parallel.
//
// Other C entry files find their client like this:
//   ControllerEntry *entry = ControllerRegistry::find(cncID);
//   if (!entry) return 1;                 // unknown controller
//   entry->mainClient()->reset(channel);
//   entry->channelClient(channel)         // null outside 1..channelCount()
//   entry->programClient(), entry->runningProgramTexts()
class ControllerRegistry
{
public:
    // Null for an unknown cncID.
    static ControllerEntry *find(int cncID);
    // False when cncID is already registered (the entry is left untouched).
    // syncMask bit 0 puts the main client in thread mode, bit i channel client i.
    static bool add(int cncID, int maxDncCh, const QByteArray &ip, int syncMask);
    // False when unknown; else deletes the entry and its clients.
    static bool remove(int cncID);
    static int count();
};

#endif
