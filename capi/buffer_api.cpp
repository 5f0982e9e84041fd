// C entry points of the remote buffer. The handle is the buffer's address;
// every call looks it up in the buffer's handle table first, so a null or
// already freed handle gets the null-handle result.
#include "HRemoteBuffer.h"
#include "velmora_global.h"

#if __has_include("velmora.h")
#include "velmora.h"
#else
extern "C" {
VELMORA_EXPORT void *bufOpen(char *address, unsigned mode, unsigned channel);
VELMORA_EXPORT int bufWrite(void *h, char *text);
VELMORA_EXPORT int bufClear(void *h);
VELMORA_EXPORT int bufClose(void *h);
VELMORA_EXPORT int getBufValidCnt(void *h);
VELMORA_EXPORT int getBufState(void *h);
VELMORA_EXPORT char *getBufStateInf(void *h);
}
#endif

extern "C" {

void *bufOpen(char *address, unsigned mode, unsigned channel)
{
    return HRemoteBuffer::open(address, mode, channel);
}

int bufWrite(void *h, char *text)
{
    return HRemoteBuffer::withHandle(h, 0, [text](HRemoteBuffer *b) { return b->write(text); });
}

int bufClear(void *h)
{
    return HRemoteBuffer::withHandle(h, 0, [](HRemoteBuffer *b) { return b->clear(); });
}

int bufClose(void *h)
{
    return HRemoteBuffer::close(h);
}

int getBufValidCnt(void *h)
{
    return HRemoteBuffer::withHandle(h, 0, [](HRemoteBuffer *b) { return b->validCount(); });
}

int getBufState(void *h)
{
    return HRemoteBuffer::withHandle(h, int(HRemoteBuffer::StateError),
                                     [](HRemoteBuffer *b) { return b->state(); });
}

char *getBufStateInf(void *h)
{
    return HRemoteBuffer::withHandle(h, static_cast<char *>(nullptr),
                                     [](HRemoteBuffer *b) { return b->stateInfo(); });
}

} // extern "C"
