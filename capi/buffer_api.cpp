// C entry points of the remote buffer. The handle is the buffer's address;
// every call looks it up in the buffer's handle table first, so a null or
// already freed handle gets the null-handle result.
#include "HRemoteBuffer.h"
#include "velmora.h"

#include "CGuard.h"

extern "C" {

void *bufOpen(char *address, unsigned mode, unsigned channel)
{
    return guarded<void *>(nullptr, [&]() -> void * {
        return HRemoteBuffer::open(address, mode, channel);
    });
}

int bufWrite(void *h, char *text)
{
    return guarded<int>(0, [&]() -> int {
        return HRemoteBuffer::withHandle(h, 0, [text](HRemoteBuffer *b) { return b->write(text); });
    });
}

int bufClear(void *h)
{
    return guarded<int>(0, [&]() -> int {
        return HRemoteBuffer::withHandle(h, 0, [](HRemoteBuffer *b) { return b->clear(); });
    });
}

int bufClose(void *h)
{
    return guarded<int>(0, [&]() -> int {
        return HRemoteBuffer::close(h);
    });
}

int getBufValidCnt(void *h)
{
    return guarded<int>(0, [&]() -> int {
        return HRemoteBuffer::withHandle(h, 0, [](HRemoteBuffer *b) { return b->validCount(); });
    });
}

int getBufState(void *h)
{
    return guarded<int>(int(HRemoteBuffer::StateError), [&]() -> int {
        return HRemoteBuffer::withHandle(h, int(HRemoteBuffer::StateError),
                                         [](HRemoteBuffer *b) { return b->state(); });
    });
}

char *getBufStateInf(void *h)
{
    return guarded<char *>(nullptr, [&]() -> char * {
        return HRemoteBuffer::withHandle(h, static_cast<char *>(nullptr),
                                         [](HRemoteBuffer *b) { return b->stateInfo(); });
    });
}

} // extern "C"
