#ifndef RAWSOCKET_H
#define RAWSOCKET_H

#include <QtGlobal>

// Sending and receiving on a connected socket's descriptor, below Qt: the
// client's exchanges and the remote buffer's run on the descriptor of a
// QTcpSocket that is used for connecting and closing only. A hand-off to
// Qt's socket would cost a copy and a syscall or two per request, as much
// as the library's whole share of a round trip.
//
// Reads and sends report a closed link through *closed (end of stream or an
// error); a read that finds nothing is no error.
class RawSocket
{
public:
    // The descriptor, as qintptr everywhere (a SOCKET on Windows).
    typedef qintptr Descriptor;

    // Makes the descriptor's reads block for at most `ms`, so that a reply
    // is awaited in recv itself rather than in poll and then recv. Sends and
    // drains stay non-blocking (their flags say so). Not on Windows, where
    // Qt keeps its sockets non-blocking: false there, and whenever the
    // descriptor cannot be switched.
    static bool blockReads(Descriptor fd, int ms);

    // Waits for readable bytes at most `ms` and reads what came into `into`
    // (at most size bytes): the count, 0 when nothing came. `blocking`:
    // the descriptor's reads block (blockReads), so the wait is the read.
    static int awaitRead(Descriptor fd, bool blocking, char *into, int size, int ms, bool *closed);
    // One read that does not wait: the count, 0 when nothing is there.
    static int readNow(Descriptor fd, char *into, int size, bool *closed);
    // Drops what has arrived, at most `limit` bytes: a peer that streams
    // cannot hold the caller here. The count dropped.
    static int discard(Descriptor fd, int limit, bool *closed);
    // Sends it all, waiting at most `ms` whenever the socket's buffer is
    // full; false when the link fails (or stays full).
    static bool sendAll(Descriptor fd, const char *data, int size, int ms);
};

#endif
