#include "RawSocket.h"

#include <cerrno>

#ifdef Q_OS_WIN
#  include <winsock2.h>
#else
#  include <fcntl.h>
#  include <poll.h>
#  include <sys/socket.h>
#  include <sys/time.h>
#endif

namespace {

#ifdef Q_OS_WIN
typedef SOCKET NativeSocket;
const int kDontWait = 0;   // Qt's sockets are non-blocking on Windows
const int kSendFlags = 0;
bool wouldBlock() { return WSAGetLastError() == WSAEWOULDBLOCK; }
int pollOne(pollfd *p, int ms) { return WSAPoll(p, 1, ms); }
#else
typedef int NativeSocket;
const int kDontWait = MSG_DONTWAIT;
const int kSendFlags = MSG_DONTWAIT | MSG_NOSIGNAL;   // a closed peer must not raise SIGPIPE in the host
bool wouldBlock() { return errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR; }
int pollOne(pollfd *p, int ms) { return ::poll(p, 1, ms); }
#endif

bool waitFor(RawSocket::Descriptor fd, short events, int ms)
{
    pollfd p;
    p.fd = NativeSocket(fd);
    p.events = events;
    p.revents = 0;
    return pollOne(&p, ms) > 0;   // hang-up and error count too: the read reports them
}

int receive(RawSocket::Descriptor fd, char *into, int size, int flags, bool *closed)
{
    const auto n = ::recv(NativeSocket(fd), into, size, flags);
    if (n > 0)
        return int(n);
    if (n == 0 || !wouldBlock())
        *closed = true;
    return 0;
}

} // namespace

bool RawSocket::blockReads(Descriptor fd, int ms)
{
#ifdef Q_OS_WIN
    Q_UNUSED(fd);
    Q_UNUSED(ms);
    return false;
#else
    timeval slice;
    slice.tv_sec = ms / 1000;
    slice.tv_usec = (ms % 1000) * 1000;
    const int flags = ::fcntl(int(fd), F_GETFL);
    return flags != -1 && ::setsockopt(int(fd), SOL_SOCKET, SO_RCVTIMEO, &slice, sizeof slice) == 0
        && ::fcntl(int(fd), F_SETFL, flags & ~O_NONBLOCK) == 0;
#endif
}

int RawSocket::awaitRead(Descriptor fd, bool blocking, char *into, int size, int ms, bool *closed)
{
    if (blocking)
        return receive(fd, into, size, 0, closed);
    if (!waitFor(fd, POLLIN, ms))
        return 0;
    return receive(fd, into, size, kDontWait, closed);
}

int RawSocket::readNow(Descriptor fd, char *into, int size, bool *closed)
{
    return receive(fd, into, size, kDontWait, closed);
}

int RawSocket::discard(Descriptor fd, int limit, bool *closed)
{
    char buffer[4096];
    int total = 0;
    while (total < limit && !*closed) {
        const int n = readNow(fd, buffer, int(sizeof buffer), closed);
        if (n <= 0)
            break;
        total += n;
    }
    return total;
}

bool RawSocket::sendAll(Descriptor fd, const char *data, int size, int ms)
{
    int done = 0;
    while (done < size) {
        const auto n = ::send(NativeSocket(fd), data + done, size - done, kSendFlags);
        if (n > 0) {
            done += int(n);
            continue;
        }
        if (n < 0 && wouldBlock() && waitFor(fd, POLLOUT, ms))
            continue;
        return false;
    }
    return true;
}
