// The velmora_<name> functions of velmora_prefixed.h: each forwards to the
// function of velmora.h with the same parameters. Both headers are included,
// so a signature that differs between them does not compile.
#include "velmora.h"
#include "velmora_prefixed.h"

#define VELMORA_ALIAS(result, name, params, args) \
    result VELMORA_CALL velmora_##name params { return name args; }

extern "C" {

VELMORA_ALIAS(bool, addTargetCnc, (int cncID, int maxDncCh, char *ip, int syncMask), (cncID, maxDncCh, ip, syncMask))
VELMORA_ALIAS(bool, removeTargetCnc, (int cncID), (cncID))
VELMORA_ALIAS(bool, connect, (int cncID), (cncID))
VELMORA_ALIAS(bool, disconnect, (int cncID), (cncID))
VELMORA_ALIAS(bool, getTcpConnectFlag, (int cncID), (cncID))
VELMORA_ALIAS(bool, setErrCallbackFunc, (VelmoraErrorCallback callback, int cncID), (callback, cncID))
VELMORA_ALIAS(long int, getErrorDeb, (int mask, int cncID), (mask, cncID))
VELMORA_ALIAS(long int, CheckTcpWdt, (int cncID), (cncID))

VELMORA_ALIAS(long int, readVars, (long int *addresses, int count, long int *values, int cncID),
              (addresses, count, values, cncID))
VELMORA_ALIAS(long int, writeVars, (long int *addresses, int count, long int *values, int cncID),
              (addresses, count, values, cncID))
VELMORA_ALIAS(long int, registerVars, (long int *addresses, int count, int cncID), (addresses, count, cncID))
VELMORA_ALIAS(long int, removeVars, (long int *addresses, int count, int cncID), (addresses, count, cncID))
VELMORA_ALIAS(long int, clearVars, (int cncID), (cncID))
VELMORA_ALIAS(long int, readBits,
              (long int channel, int bitType, long int *addresses, int count, long int *values, int cncID),
              (channel, bitType, addresses, count, values, cncID))
VELMORA_ALIAS(long int, registerBits, (long int channel, int bitType, long int *addresses, int count, int cncID),
              (channel, bitType, addresses, count, cncID))
VELMORA_ALIAS(long int, removeBits, (long int channel, int bitType, long int *addresses, int count, int cncID),
              (channel, bitType, addresses, count, cncID))

VELMORA_ALIAS(long int, reset, (long int channel, int cncID), (channel, cncID))
VELMORA_ALIAS(long int, cycStart, (long int channel, char *fileName, int cncID), (channel, fileName, cncID))
VELMORA_ALIAS(char *, getRuningPrg, (int channel, int cncID), (channel, cncID))

VELMORA_ALIAS(long int, setTransFileType, (long int type, long int channel, char *fileName, int cncID),
              (type, channel, fileName, cncID))
VELMORA_ALIAS(long int, getTransFileState, (long int type, long int channel, char *fileName, int cncID),
              (type, channel, fileName, cncID))
VELMORA_ALIAS(long int, overwrite, (char *txt, long int channel, int cncID), (txt, channel, cncID))
VELMORA_ALIAS(long int, append, (char *txt, long int channel, int cncID), (txt, channel, cncID))
VELMORA_ALIAS(long int, fileEnd, (long int channel, int cncID), (channel, cncID))
VELMORA_ALIAS(long int, uploadFile, (long int type, long int channel, char *fileName, char *txt, int cncID),
              (type, channel, fileName, txt, cncID))

VELMORA_ALIAS(char *, getCncCurrentError, (long int selector, int cncID), (selector, cncID))

VELMORA_ALIAS(void *, bufOpen, (char *address, unsigned mode, unsigned channel), (address, mode, channel))
VELMORA_ALIAS(int, bufWrite, (void *buffer, char *text), (buffer, text))
VELMORA_ALIAS(int, bufClear, (void *buffer), (buffer))
VELMORA_ALIAS(int, bufClose, (void *buffer), (buffer))
VELMORA_ALIAS(int, getBufValidCnt, (void *buffer), (buffer))
VELMORA_ALIAS(int, getBufState, (void *buffer), (buffer))
VELMORA_ALIAS(char *, getBufStateInf, (void *buffer), (buffer))

} // extern "C"
