/*
 * Velmora: the C interface with every function named velmora_<name>, for
 * hosts that have sockets, curses or Windows headers of their own.
 *
 * velmora.h names its functions as the library has always exported them, and
 * two of the names are taken elsewhere: `connect` by the socket call of
 * <sys/socket.h> and <winsock2.h> (and of <netdb.h>, <arpa/inet.h> and
 * <windows.h>, which include them), `overwrite` by <curses.h>. The functions
 * declared here are the same functions under names of their own, so this
 * header goes together with any of those. velmora.h describes the
 * parameters and the status codes.
 *
 * Including this header is half of it; the other half is the link order. A
 * program has one symbol per name, and the linker gives a name to the first
 * library on the command line that defines it. The C library (ws2_32 on
 * Windows, and curses if the host uses it) must therefore come before
 * Velmora, or the host's own connect() reaches the library's. The CMake
 * target Velmora::VelmoraPrefixed and the pkg-config module velmora-prefixed
 * put them in that order. Such a host must call only the velmora_ names: a
 * plain connect() is the C library's there.
 */
#ifndef VELMORA_PREFIXED_H
#define VELMORA_PREFIXED_H

#include <stdbool.h>

#include "velmora_global.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Registry and link */
VELMORA_EXPORT bool VELMORA_CALL velmora_addTargetCnc(int cncID, int maxDncCh, char *ip, int syncMask);
VELMORA_EXPORT bool VELMORA_CALL velmora_removeTargetCnc(int cncID);
VELMORA_EXPORT bool VELMORA_CALL velmora_connect(int cncID);
VELMORA_EXPORT bool VELMORA_CALL velmora_disconnect(int cncID);
VELMORA_EXPORT bool VELMORA_CALL velmora_getTcpConnectFlag(int cncID);
VELMORA_EXPORT bool VELMORA_CALL velmora_setErrCallbackFunc(VelmoraErrorCallback callback, int cncID);
VELMORA_EXPORT long int VELMORA_CALL velmora_getErrorDeb(int mask, int cncID);
VELMORA_EXPORT long int VELMORA_CALL velmora_CheckTcpWdt(int cncID);

/* Variables and bits */
VELMORA_EXPORT long int VELMORA_CALL velmora_readVars(long int *addresses, int count, long int *values, int cncID);
VELMORA_EXPORT long int VELMORA_CALL velmora_writeVars(long int *addresses, int count, long int *values, int cncID);
VELMORA_EXPORT long int VELMORA_CALL velmora_registerVars(long int *addresses, int count, int cncID);
VELMORA_EXPORT long int VELMORA_CALL velmora_removeVars(long int *addresses, int count, int cncID);
VELMORA_EXPORT long int VELMORA_CALL velmora_clearVars(int cncID);
VELMORA_EXPORT long int VELMORA_CALL velmora_readBits(long int channel, int bitType, long int *addresses, int count,
                                                      long int *values, int cncID);
VELMORA_EXPORT long int VELMORA_CALL velmora_registerBits(long int channel, int bitType, long int *addresses, int count,
                                                          int cncID);
VELMORA_EXPORT long int VELMORA_CALL velmora_removeBits(long int channel, int bitType, long int *addresses, int count,
                                                        int cncID);

/* Program control */
VELMORA_EXPORT long int VELMORA_CALL velmora_reset(long int channel, int cncID);
VELMORA_EXPORT long int VELMORA_CALL velmora_cycStart(long int channel, char *fileName, int cncID);
VELMORA_EXPORT char *VELMORA_CALL velmora_getRuningPrg(int channel, int cncID);

/* File transfer into DNC memory */
VELMORA_EXPORT long int VELMORA_CALL velmora_setTransFileType(long int type, long int channel, char *fileName, int cncID);
VELMORA_EXPORT long int VELMORA_CALL velmora_getTransFileState(long int type, long int channel, char *fileName, int cncID);
VELMORA_EXPORT long int VELMORA_CALL velmora_overwrite(char *txt, long int channel, int cncID);
VELMORA_EXPORT long int VELMORA_CALL velmora_append(char *txt, long int channel, int cncID);
VELMORA_EXPORT long int VELMORA_CALL velmora_fileEnd(long int channel, int cncID);
VELMORA_EXPORT long int VELMORA_CALL velmora_uploadFile(long int type, long int channel, char *fileName, char *txt, int cncID);

/* Controller error files */
VELMORA_EXPORT char *VELMORA_CALL velmora_getCncCurrentError(long int selector, int cncID);

/* Remote buffer (its own connection and thread; no cncID) */
VELMORA_EXPORT void *VELMORA_CALL velmora_bufOpen(char *address, unsigned mode, unsigned channel);
VELMORA_EXPORT int VELMORA_CALL velmora_bufWrite(void *buffer, char *text);
VELMORA_EXPORT int VELMORA_CALL velmora_bufClear(void *buffer);
VELMORA_EXPORT int VELMORA_CALL velmora_bufClose(void *buffer);
VELMORA_EXPORT int VELMORA_CALL velmora_getBufValidCnt(void *buffer);
VELMORA_EXPORT int VELMORA_CALL velmora_getBufState(void *buffer);
VELMORA_EXPORT char *VELMORA_CALL velmora_getBufStateInf(void *buffer);

#ifdef __cplusplus
}
#endif

#endif
