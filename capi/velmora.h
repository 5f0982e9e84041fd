/*
 * Velmora: the C interface for host programs.
 *
 * Every function but the remote-buffer ones takes the controller's cncID as
 * its last parameter. Status results: 0 success, 1 parameter error or unknown
 * controller, 3 error reply, 4 queue full, 6 wrong client mode, 7 not
 * connected, 100 controller alarm, 111 no reply; velmoraStatusText() gives
 * each in words.
 *
 * Returned texts (getRuningPrg, getCncCurrentError, getBufStateInf) belong to
 * the library. Each calling thread gets a copy of its own, which stays intact
 * until that same thread calls the same function again for the same
 * controller (buffer), whatever other threads do meanwhile. For a host with
 * one thread this is "valid until the next call that changes it".
 *
 * The library needs no QCoreApplication and may be called from any OS thread,
 * also from two threads at once for the same controller (the calls then take
 * turns). Calls for different controllers run in parallel; addTargetCnc and
 * removeTargetCnc must not overlap any other call. No C++ exception ever
 * leaves a function: a failure inside gives the unknown-controller value.
 * In thread mode disconnect, connect (before its own 500 ms connect wait)
 * and removeTargetCnc do not wait for a reply the client's thread awaits.
 *
 * Replies: a reply counts for a request only when it carries the request's
 * letter or that letter's error form (top bit set) and, for a read, the count
 * that was asked for. Anything else (another letter, another count, bytes that
 * are no frame, a frame of 500 bytes or more) is dropped and the wait goes on
 * within the same budget of three 600 ms waits; without a matching reply the
 * status is 111. A reply is put together by its length field (a reply split
 * across segments counts); no more than one reply's bytes are ever kept, so a
 * controller that streams cannot hold a call beyond the budget. What stays
 * impossible: frames carry no transaction number, so a late reply with the
 * same letter (and count) as the request is taken for its answer.
 *
 * Repeats are paced: append's resend of a refused chunk, the remote buffer's
 * re-announcement and resend, and a thread-mode client's next request after
 * a refused one keep at least 11 ms apart (fewer than 100 a second).
 *
 * writeVars takes what a 32-bit word carries: signed values and unsigned bit
 * patterns up to 0xFFFFFFFF; a larger value (a 64-bit long) gives 1 and
 * nothing is sent.
 *
 * Kept on purpose: the bit calls refuse channels 10-99 with 1 (their words
 * would lie beyond the highest variable number); addTargetCnc creates channel
 * clients up to channel 99 at most.
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

/* Controller error files. The text is a status digit, then the file:
 * '0' read, '1' controller alarm, '3' error reply, '4' queue full,
 * '5' the read stopped at 64 KiB or 10 s (the text holds the first 64 KiB),
 * '7' link down, also when it drops during the read ("SocketDisconnected"),
 * '8' the controller did not write the file within 500 ms ("timeout get
 * curErrorerror file"), or gave no reply during the read (then followed by
 * what was read), '9' bad selector ("Channel selection error"). */
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
