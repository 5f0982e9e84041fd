// C entry points of the registry, the link, variables, bits and the log switch.
#include "velmora.h"

#include "CGuard.h"
#include "CallLine.h"
#include "ControllerRegistry.h"

namespace {

const char kCallMarker[] = "@@@@####1111";

AsynchronousClient *mainClientOf(int cncID)
{
    ControllerEntry *entry = ControllerRegistry::find(cncID);
    return entry ? entry->mainClient() : nullptr;
}

} // namespace

extern "C" {

bool addTargetCnc(int cncID, int maxDncCh, char *ip, int syncMask)
{
    return guarded<bool>(false, [&]() -> bool {
        const QByteArray address = ip ? QByteArray(ip) : QByteArray();
        (CallLine(kCallMarker) << "bool addTargetCnc(int, int, char*, int)" << " cncID=" << cncID
                               << " maxDncCh=" << maxDncCh << " ip=" << CallLine::Host{ address.constData() })
            .write();
        const bool added = ControllerRegistry::add(cncID, maxDncCh, address, syncMask);
        (CallLine(kCallMarker) << "bool addTargetCnc(int, int, char*, int)" << " cncID=" << cncID << " out=" << added)
            .write();
        return added;
    });
}

bool removeTargetCnc(int cncID)
{
    return guarded<bool>(false, [&]() -> bool {
        (CallLine(kCallMarker) << "bool removeTargetCnc(int)" << " cncID=" << cncID).write();
        const bool removed = ControllerRegistry::remove(cncID);
        (CallLine(kCallMarker) << "bool removeTargetCnc(int)" << " cncID=" << cncID << " out=" << removed).write();
        return removed;
    });
}

bool connect(int cncID)
{
    return guarded<bool>(false, [&]() -> bool {
        (CallLine(kCallMarker) << "bool connect(int)" << " cncID=" << cncID).write();
        ControllerEntry *entry = ControllerRegistry::find(cncID);
        const bool connected = entry && entry->mainClient()->tcpConnect(entry->address());
        if (connected) {
            entry->programClient()->tcpConnect(entry->address());
            for (int i = 1; i <= entry->channelCount(); ++i)
                entry->channelClient(i)->tcpConnect(entry->address());
        }
        (CallLine(kCallMarker) << "bool connect(int)" << " cncID=" << cncID << " out=" << connected).write();
        return connected;
    });
}

bool disconnect(int cncID)
{
    return guarded<bool>(false, [&]() -> bool {
        (CallLine(kCallMarker) << "bool disconnect(int)" << " cncID=" << cncID).write();
        ControllerEntry *entry = ControllerRegistry::find(cncID);
        if (entry) {
            entry->mainClient()->tcpDisconnect();
            for (int i = 1; i <= entry->channelCount(); ++i)
                entry->channelClient(i)->tcpDisconnect();
        }
        (CallLine(kCallMarker) << "bool disconnect(int)" << " cncID=" << cncID << " out=" << (entry != nullptr)).write();
        return entry != nullptr;
    });
}

bool getTcpConnectFlag(int cncID)
{
    return guarded<bool>(false, [&]() -> bool {
        AsynchronousClient *client = mainClientOf(cncID);
        if (!client)
            return false;
        long int address = 1020300;
        long int value = 0;
        const long int status = client->readVars(&address, 1, &value);
        return status != AsynchronousClient::StatusDisconnected && status != AsynchronousClient::StatusNoReply;
    });
}

bool setErrCallbackFunc(VelmoraErrorCallback callback, int cncID)
{
    return guarded<bool>(false, [&]() -> bool {
        ControllerEntry *entry = ControllerRegistry::find(cncID);
        if (!entry)
            return false;
        entry->mainClient()->setErrCallbackFunc(callback);
        for (int i = 1; i <= entry->channelCount(); ++i)
            entry->channelClient(i)->setErrCallbackFunc(callback);
        return true;
    });
}

long int getErrorDeb(int mask, int cncID)
{
    return guarded<long int>(1, [&]() -> long int {
        AsynchronousClient *client = mainClientOf(cncID);
        if (!client)
            return 1;
        client->setDebugMask(mask);
        return 0;
    });
}

long int CheckTcpWdt(int cncID)
{
    return guarded<long int>(1, [&]() -> long int {
        AsynchronousClient *client = mainClientOf(cncID);
        return client ? client->CheckTcpWdt() : 1;
    });
}

long int readVars(long int *addresses, int count, long int *values, int cncID)
{
    return guarded<long int>(1, [&]() -> long int {
        AsynchronousClient *client = mainClientOf(cncID);
        return client ? client->readVars(addresses, count, values) : 1;
    });
}

long int writeVars(long int *addresses, int count, long int *values, int cncID)
{
    return guarded<long int>(1, [&]() -> long int {
        AsynchronousClient *client = mainClientOf(cncID);
        return client ? client->writeVars(addresses, count, values) : 1;
    });
}

long int registerVars(long int *addresses, int count, int cncID)
{
    return guarded<long int>(1, [&]() -> long int {
        AsynchronousClient *client = mainClientOf(cncID);
        if (!client)
            return 1;
        client->registerVars(addresses, count);
        return 0;
    });
}

long int removeVars(long int *addresses, int count, int cncID)
{
    return guarded<long int>(1, [&]() -> long int {
        AsynchronousClient *client = mainClientOf(cncID);
        if (!client)
            return 1;
        client->removeVars(addresses, count);
        return 0;
    });
}

long int clearVars(int cncID)
{
    return guarded<long int>(1, [&]() -> long int {
        AsynchronousClient *client = mainClientOf(cncID);
        if (!client)
            return 1;
        client->clearVars();
        return 0;
    });
}

long int readBits(long int channel, int bitType, long int *addresses, int count, long int *values, int cncID)
{
    return guarded<long int>(1, [&]() -> long int {
        AsynchronousClient *client = mainClientOf(cncID);
        return client ? client->readBits(channel, AsynchronousClient::BitType(bitType), addresses, count, values) : 1;
    });
}

long int registerBits(long int channel, int bitType, long int *addresses, int count, int cncID)
{
    return guarded<long int>(1, [&]() -> long int {
        AsynchronousClient *client = mainClientOf(cncID);
        return client ? client->registerBits(channel, AsynchronousClient::BitType(bitType), addresses, count) : 1;
    });
}

long int removeBits(long int channel, int bitType, long int *addresses, int count, int cncID)
{
    return guarded<long int>(1, [&]() -> long int {
        AsynchronousClient *client = mainClientOf(cncID);
        return client ? client->removeBits(channel, AsynchronousClient::BitType(bitType), addresses, count) : 1;
    });
}

} // extern "C"
