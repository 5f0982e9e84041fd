/*
 * Velmora: the C interface for host programs.
 *
 * Every function but the remote-buffer ones takes the controller's cncID as
 * its last parameter. Status results: 0 success, 1 parameter error or unknown
 * controller, 3 error reply, 4 queue full, 6 wrong client mode, 7 not
 * connected, 100 controller alarm, 111 no reply; velmoraStatusText() gives
 * each in words. Returned texts belong to the library and stay valid until
 * the next call that changes them.
 *
 * The library needs no QCoreApplication and may be called from any OS thread.
 * Calls for different controllers run in parallel; addTargetCnc and
 * removeTargetCnc must not overlap any other call.
 *
 * Note for hosts with sockets of their own: this header declares
 * `connect(int)`, which clashes with the socket call of <sys/socket.h>,
 * <winsock2.h> and what includes them, and `overwrite`, which clashes with
 * <curses.h>. Such a host includes velmora_prefixed.h instead: the same
 * functions named velmora_connect and so on. The library's symbols carry the
 * version node VELMORA_1.0 on Linux, so other libraries (Qt among them) keep
 * reaching the C library's connect.
 */
#ifndef VELMORA_C_INTERFACE_H
#define VELMORA_C_INTERFACE_H

#include <stdbool.h>

#include "velmora_global.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Registry and link */
VELMORA_EXPORT bool VELMORA_CALL addTargetCnc(int cncID, int maxDncCh, char *ip, int syncMask);
VELMORA_EXPORT bool VELMORA_CALL removeTargetCnc(int cncID);
VELMORA_EXPORT bool VELMORA_CALL connect(int cncID);
VELMORA_EXPORT bool VELMORA_CALL disconnect(int cncID);
VELMORA_EXPORT bool VELMORA_CALL getTcpConnectFlag(int cncID);
VELMORA_EXPORT bool VELMORA_CALL setErrCallbackFunc(VelmoraErrorCallback callback, int cncID);
VELMORA_EXPORT long int VELMORA_CALL getErrorDeb(int mask, int cncID);
VELMORA_EXPORT long int VELMORA_CALL CheckTcpWdt(int cncID);

/* Variables and bits */
VELMORA_EXPORT long int VELMORA_CALL readVars(long int *addresses, int count, long int *values, int cncID);
VELMORA_EXPORT long int VELMORA_CALL writeVars(long int *addresses, int count, long int *values, int cncID);
VELMORA_EXPORT long int VELMORA_CALL registerVars(long int *addresses, int count, int cncID);
VELMORA_EXPORT long int VELMORA_CALL removeVars(long int *addresses, int count, int cncID);
VELMORA_EXPORT long int VELMORA_CALL clearVars(int cncID);
VELMORA_EXPORT long int VELMORA_CALL readBits(long int channel, int bitType, long int *addresses, int count,
                                              long int *values, int cncID);
VELMORA_EXPORT long int VELMORA_CALL registerBits(long int channel, int bitType, long int *addresses, int count,
                                                  int cncID);
VELMORA_EXPORT long int VELMORA_CALL removeBits(long int channel, int bitType, long int *addresses, int count,
                                                int cncID);

/* Program control */
VELMORA_EXPORT long int VELMORA_CALL reset(long int channel, int cncID);
VELMORA_EXPORT long int VELMORA_CALL cycStart(long int channel, char *fileName, int cncID);
VELMORA_EXPORT char *VELMORA_CALL getRuningPrg(int channel, int cncID);

/* File transfer into DNC memory */
VELMORA_EXPORT long int VELMORA_CALL setTransFileType(long int type, long int channel, char *fileName, int cncID);
VELMORA_EXPORT long int VELMORA_CALL getTransFileState(long int type, long int channel, char *fileName, int cncID);
VELMORA_EXPORT long int VELMORA_CALL overwrite(char *txt, long int channel, int cncID);
VELMORA_EXPORT long int VELMORA_CALL append(char *txt, long int channel, int cncID);
VELMORA_EXPORT long int VELMORA_CALL fileEnd(long int channel, int cncID);
VELMORA_EXPORT long int VELMORA_CALL uploadFile(long int type, long int channel, char *fileName, char *txt, int cncID);

/* Controller error files */
VELMORA_EXPORT char *VELMORA_CALL getCncCurrentError(long int selector, int cncID);

/* Remote buffer (its own connection and thread; no cncID) */
VELMORA_EXPORT void *VELMORA_CALL bufOpen(char *address, unsigned mode, unsigned channel);
VELMORA_EXPORT int VELMORA_CALL bufWrite(void *buffer, char *text);
VELMORA_EXPORT int VELMORA_CALL bufClear(void *buffer);
VELMORA_EXPORT int VELMORA_CALL bufClose(void *buffer);
VELMORA_EXPORT int VELMORA_CALL getBufValidCnt(void *buffer);
VELMORA_EXPORT int VELMORA_CALL getBufState(void *buffer);
VELMORA_EXPORT char *VELMORA_CALL getBufStateInf(void *buffer);

#ifdef __cplusplus
}
#endif

#endif
