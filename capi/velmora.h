/*
 * Velmora: the C interface for host programs.
 *
 * Every function but the remote-buffer ones takes the controller's cncID as
 * its last parameter. Status results: 0 success, 1 parameter error or unknown
 * controller, 3 error reply, 4 queue full, 6 wrong client mode, 7 not
 * connected, 100 controller alarm, 111 no reply. Returned texts belong to
 * the library and stay valid until the next call that changes them.
 *
 * The library needs no QCoreApplication and may be called from any OS thread.
 * Calls for different controllers run in parallel; addTargetCnc and
 * removeTargetCnc must not overlap any other call.
 *
 * Note for C hosts: this header declares `connect(int)`, which clashes with
 * the declaration of <sys/socket.h>. A translation unit cannot include both;
 * keep the host's own socket code in a separate file. The library's symbols
 * carry the version node VELMORA_1.0, so other libraries (Qt among them)
 * keep reaching the C library's connect. A program that itself calls both
 * links only one `connect`: it reaches the C library's one by version, e.g.
 * dlvsym(RTLD_DEFAULT, "connect", "GLIBC_2.2.5") on x86-64 Linux.
 */
#ifndef VELMORA_H
#define VELMORA_H

#include <stdbool.h>

/* Same definition as velmora_global.h, repeated so this header stands alone. */
#ifndef VELMORA_EXPORT
#  if defined(_WIN32)
#    if defined(VELMORA_BUILD_LIBRARY)
#      define VELMORA_EXPORT __declspec(dllexport)
#    else
#      define VELMORA_EXPORT __declspec(dllimport)
#    endif
#  else
#    define VELMORA_EXPORT __attribute__((visibility("default")))
#  endif
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* Called when a controller reply reports a failure; the result is ignored. */
typedef int (*VelmoraErrorCallback)(int errorCmd, int cmdState, const char *detail);

/* Registry and link */
VELMORA_EXPORT bool addTargetCnc(int cncID, int maxDncCh, char *ip, int syncMask);
VELMORA_EXPORT bool removeTargetCnc(int cncID);
VELMORA_EXPORT bool connect(int cncID);
VELMORA_EXPORT bool disconnect(int cncID);
VELMORA_EXPORT bool getTcpConnectFlag(int cncID);
VELMORA_EXPORT bool setErrCallbackFunc(VelmoraErrorCallback callback, int cncID);
VELMORA_EXPORT long int getErrorDeb(int mask, int cncID);
VELMORA_EXPORT long int CheckTcpWdt(int cncID);

/* Variables and bits */
VELMORA_EXPORT long int readVars(long int *addresses, int count, long int *values, int cncID);
VELMORA_EXPORT long int writeVars(long int *addresses, int count, long int *values, int cncID);
VELMORA_EXPORT long int registerVars(long int *addresses, int count, int cncID);
VELMORA_EXPORT long int removeVars(long int *addresses, int count, int cncID);
VELMORA_EXPORT long int clearVars(int cncID);
VELMORA_EXPORT long int readBits(long int channel, int bitType, long int *addresses, int count,
                                 long int *values, int cncID);
VELMORA_EXPORT long int registerBits(long int channel, int bitType, long int *addresses, int count,
                                     int cncID);
VELMORA_EXPORT long int removeBits(long int channel, int bitType, long int *addresses, int count,
                                   int cncID);

/* Program control */
VELMORA_EXPORT long int reset(long int channel, int cncID);
VELMORA_EXPORT long int cycStart(long int channel, char *fileName, int cncID);
VELMORA_EXPORT char *getRuningPrg(int channel, int cncID);

/* File transfer into DNC memory */
VELMORA_EXPORT long int setTransFileType(long int type, long int channel, char *fileName, int cncID);
VELMORA_EXPORT long int getTransFileState(long int type, long int channel, char *fileName, int cncID);
VELMORA_EXPORT long int overwrite(char *txt, long int channel, int cncID);
VELMORA_EXPORT long int append(char *txt, long int channel, int cncID);
VELMORA_EXPORT long int fileEnd(long int channel, int cncID);
VELMORA_EXPORT long int uploadFile(long int type, long int channel, char *fileName, char *txt, int cncID);

/* Controller error files */
VELMORA_EXPORT char *getCncCurrentError(long int selector, int cncID);

/* Remote buffer (its own connection and thread; no cncID) */
VELMORA_EXPORT void *bufOpen(char *address, unsigned mode, unsigned channel);
VELMORA_EXPORT int bufWrite(void *buffer, char *text);
VELMORA_EXPORT int bufClear(void *buffer);
VELMORA_EXPORT int bufClose(void *buffer);
VELMORA_EXPORT int getBufValidCnt(void *buffer);
VELMORA_EXPORT int getBufState(void *buffer);
VELMORA_EXPORT char *getBufStateInf(void *buffer);

#ifdef __cplusplus
}
#endif

#endif
