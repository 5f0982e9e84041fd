// C entry points of program control, file transfer and error files. Each
// finds the controller's client, calls it and writes one line with its
// arguments and result.
#include "velmora.h"

#include "CGuard.h"

#include "CallLine.h"
#include "ControllerRegistry.h"

namespace {

const long int kUnknownController = 1;

// Host texts in log lines: control bytes escaped.
CallLine::Host host(const char *s)
{
    return CallLine::Host{ s };
}

AsynchronousClient *mainClientOf(int cncID)
{
    ControllerEntry *entry = ControllerRegistry::find(cncID);
    return entry ? entry->mainClient() : nullptr;
}

// File transfer picks the client of the channel: 1..channel count.
AsynchronousClient *channelClientOf(long int channel, int cncID)
{
    ControllerEntry *entry = ControllerRegistry::find(cncID);
    return entry ? entry->channelClient(channel) : nullptr;
}

long int fileInfo(const char *signature, long int type, long int channel, char *fileName, int cncID, bool query)
{
    AsynchronousClient *client = channelClientOf(channel, cncID);
    const long int out = client ? client->setTransFileType(type, channel, fileName, query) : kUnknownController;
    (CallLine(signature) << " channel=" << channel << " cncID=" << cncID << " fileName=" << host(fileName)
                         << " type=" << type << " out=" << out).write();
    return out;
}

long int textCall(const char *signature, char *txt, long int channel, int cncID,
                  long int (AsynchronousClient::*call)(char *))
{
    AsynchronousClient *client = channelClientOf(channel, cncID);
    const long int out = client ? (client->*call)(txt) : kUnknownController;
    (CallLine(signature) << " channel=" << channel << " cncID=" << cncID << " txt=" << host(txt) << " out=" << out)
        .write();
    return out;
}

} // namespace

extern "C" {

long int reset(long int channel, int cncID)
{
    return guarded<long int>(1, [&]() -> long int {
        AsynchronousClient *client = mainClientOf(cncID);
        const long int out = client ? client->reset(channel) : kUnknownController;
        (CallLine("long int reset(long int, int)") << " channel=" << channel << " cncID=" << cncID << " out=" << out)
            .write();
        return out;
    });
}

long int cycStart(long int channel, char *fileName, int cncID)
{
    return guarded<long int>(1, [&]() -> long int {
        AsynchronousClient *client = mainClientOf(cncID);
        const long int out = client ? client->cycStart(channel, fileName) : kUnknownController;
        (CallLine("long int cycStart(long int, char*, int)") << " channel=" << channel << " cncID=" << cncID
                                                             << " fileName=" << host(fileName) << " out=" << out)
            .write();
        return out;
    });
}

char *getRuningPrg(int channel, int cncID)
{
    return guarded<char *>(nullptr, [&]() -> char * {
        ControllerEntry *entry = ControllerRegistry::find(cncID);
        if (!entry)
            return nullptr;
        // Kept in the entry, per calling thread, so the pointer outlives
        // this call whatever other threads ask meanwhile.
        return entry->runningProgramTexts().store(entry->programClient()->getRuningPrg(channel));
    });
}

long int setTransFileType(long int type, long int channel, char *fileName, int cncID)
{
    return guarded<long int>(1, [&]() -> long int {
        return fileInfo("long int setTransFileType(long int, long int, char*, int)", type, channel, fileName, cncID,
                        false);
    });
}

long int getTransFileState(long int type, long int channel, char *fileName, int cncID)
{
    return guarded<long int>(1, [&]() -> long int {
        return fileInfo("long int getTransFileState(long int, long int, char*, int)", type, channel, fileName, cncID,
                        true);
    });
}

long int overwrite(char *txt, long int channel, int cncID)
{
    return guarded<long int>(1, [&]() -> long int {
        return textCall("long int overwrite(char*, long int, int)", txt, channel, cncID, &AsynchronousClient::overwrite);
    });
}

long int append(char *txt, long int channel, int cncID)
{
    return guarded<long int>(1, [&]() -> long int {
        return textCall("long int append(char*, long int, int)", txt, channel, cncID, &AsynchronousClient::append);
    });
}

long int fileEnd(long int channel, int cncID)
{
    return guarded<long int>(1, [&]() -> long int {
        AsynchronousClient *client = channelClientOf(channel, cncID);
        const long int out = client ? client->fileEnd() : kUnknownController;
        (CallLine("long int fileEnd(long int, int)") << " channel=" << channel << " cncID=" << cncID << " out=" << out)
            .write();
        return out;
    });
}

long int uploadFile(long int type, long int channel, char *fileName, char *txt, int cncID)
{
    return guarded<long int>(1, [&]() -> long int {
        AsynchronousClient *client = channelClientOf(channel, cncID);
        const long int out = client ? client->uploadFile(type, channel, fileName, txt) : kUnknownController;
        (CallLine("long int uploadFile(long int, long int, char*, char*, int)")
         << " channel=" << channel << " cncID=" << cncID << " fileName=" << host(fileName) << " type=" << type
         << " out=" << out << " txt=" << host(txt))
            .write();
        return out;
    });
}

char *getCncCurrentError(long int selector, int cncID)
{
    return guarded<char *>(nullptr, [&]() -> char * {
        AsynchronousClient *client = mainClientOf(cncID);
        return client ? client->getCncCurrentError(selector) : nullptr;
    });
}

} // extern "C"
