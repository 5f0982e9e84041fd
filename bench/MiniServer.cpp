#include "MiniServer.h"

#include "LittleEndian.h"

#include <cerrno>
#include <cstring>
#include <ctime>
#include <new>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

const int kBufferSize = 8192;
const size_t kThreadStack = 128 * 1024;   // 600 connections must not cost 600 default stacks

struct Connection {
    int fd;
    bool modbus;
    MiniServer::Counters *counters;
};

void put16le(std::uint8_t *p, int v)
{
    p[0] = std::uint8_t(v);
    p[1] = std::uint8_t(v >> 8);
}

void textReceived(MiniServer::Counters &c, std::uint64_t n)
{
    const std::uint64_t total = c.textBytes.fetch_add(n) + n;
    if (total >= c.textTarget.load()) {
        pthread_mutex_lock(&c.mutex);
        pthread_cond_broadcast(&c.cond);
        pthread_mutex_unlock(&c.mutex);
    }
}

// One controller-protocol request of `size` bytes -> its reply; the reply's length.
int answer(const std::uint8_t *req, int size, std::uint8_t *rep, MiniServer::Counters &c)
{
    const std::uint8_t *pdu = req + 7;
    const int n = size - 7;
    std::uint8_t *out = rep + 7;
    int m = 0;
    switch (n > 0 ? pdu[0] : 0) {
    case 'p':
        out[m++] = 'p';
        out[m++] = 0;
        break;
    case 'B': {
        const int count = n > 1 ? pdu[1] : 0;
        out[m++] = 'B';
        out[m++] = std::uint8_t(count);
        for (int i = 0; i < count && 2 + 4 * i + 4 <= n; ++i, m += 4)
            put32le(out + m, get32le(pdu + 2 + 4 * i));
        c.values.fetch_add(std::uint64_t(count));
        break;
    }
    case 'D':
        out[m++] = 'D';
        out[m++] = n > 1 ? pdu[1] : 0;
        break;
    case 'd': {
        const int sub = n > 1 ? pdu[1] : 0;
        out[m++] = 'd';
        out[m++] = std::uint8_t(sub);
        if (sub == 1 || sub == 6) {
            out[m++] = n > 2 ? pdu[2] : 0;
            out[m++] = n > 3 ? pdu[3] : 0;
            out[m++] = 0;
        } else if (sub == 2 || sub == 3) {
            const std::uint64_t text = strnlen(reinterpret_cast<const char *>(pdu + 2), size_t(n - 2));
            const int every = c.busyEvery.load();
            const bool busy = every > 0 && c.requests.load() % std::uint64_t(every) == 0;
            if (busy)
                c.busyReplies.fetch_add(1);
            out[m++] = busy ? 2 : 0;
            textReceived(c, text);
        } else if (sub == 5) {
            int left = c.busyPolls.load();
            while (left > 0 && !c.busyPolls.compare_exchange_weak(left, left - 1)) {
            }
            out[m++] = left > 0 ? 1 : 0;
        } else {
            out[m++] = 0;
        }
        break;
    }
    default:
        out[m++] = std::uint8_t((n > 0 ? pdu[0] : 0) | 0x80);
        out[m++] = 0;
        break;
    }
    std::memset(rep, 0, 7);
    put16le(rep + 4, m + 1);
    return 7 + m;
}

// Modbus-TCP read holding registers: MBAP (transaction, protocol, length,
// unit), function 3, first register, count (big-endian) -> count registers.
int answerModbus(const std::uint8_t *req, int size, std::uint8_t *rep, MiniServer::Counters &c)
{
    const int count = size >= 12 ? (req[10] << 8 | req[11]) : 0;
    const int first = size >= 12 ? (req[8] << 8 | req[9]) : 0;
    std::memcpy(rep, req, 4);
    const int length = 3 + 2 * count;
    rep[4] = std::uint8_t(length >> 8);
    rep[5] = std::uint8_t(length);
    rep[6] = req[6];
    rep[7] = 3;
    rep[8] = std::uint8_t(2 * count);
    for (int i = 0; i < count; ++i) {
        rep[9 + 2 * i] = std::uint8_t((first + i) >> 8);
        rep[10 + 2 * i] = std::uint8_t(first + i);
    }
    c.values.fetch_add(std::uint64_t(count));
    return 9 + 2 * count;
}

bool sendAll(int fd, const std::uint8_t *data, int size)
{
    while (size > 0) {
        const ssize_t n = ::send(fd, data, size_t(size), MSG_NOSIGNAL);
        if (n <= 0)
            return false;
        data += n;
        size -= int(n);
    }
    return true;
}

void *serve(void *arg)
{
    Connection conn = *static_cast<Connection *>(arg);
    delete static_cast<Connection *>(arg);
    std::uint8_t in[kBufferSize];
    std::uint8_t out[kBufferSize];
    int have = 0;
    for (;;) {
        const ssize_t n = ::recv(conn.fd, in + have, size_t(kBufferSize - have), 0);
        if (n <= 0)
            break;
        have += int(n);
        int at = 0;
        while (have - at >= 6) {
            const std::uint8_t *frame = in + at;
            const int total = 6 + (conn.modbus ? (frame[4] << 8 | frame[5]) : (frame[4] | frame[5] << 8));
            if (total > kBufferSize / 2) {
                have = at = 0;   // no request is that long: drop it all
                break;
            }
            if (have - at < total)
                break;
            conn.counters->requests.fetch_add(1);
            const int size = conn.modbus ? answerModbus(frame, total, out, *conn.counters)
                                         : answer(frame, total, out, *conn.counters);
            if (!sendAll(conn.fd, out, size)) {
                ::close(conn.fd);
                return nullptr;
            }
            at += total;
        }
        std::memmove(in, in + at, size_t(have - at));
        have -= at;
    }
    ::close(conn.fd);
    return nullptr;
}

struct Listener {
    int fd;
    bool modbus;
    MiniServer::Counters *counters;
};

void *acceptLoop(void *arg)
{
    const Listener l = *static_cast<Listener *>(arg);
    pthread_attr_t attr;
    pthread_attr_init(&attr);
    pthread_attr_setstacksize(&attr, kThreadStack);
    pthread_attr_setdetachstate(&attr, PTHREAD_CREATE_DETACHED);
    for (;;) {
        const int fd = ::accept(l.fd, nullptr, nullptr);
        if (fd < 0) {
            if (errno == EINTR || errno == ECONNABORTED || errno == EMFILE)
                continue;
            break;
        }
        const int one = 1;
        ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
        pthread_t thread;
        if (pthread_create(&thread, &attr, serve, new Connection{ fd, l.modbus, l.counters }) != 0)
            ::close(fd);
    }
    return nullptr;
}

int listenOn(const char *address, int port)
{
    const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    if (fd < 0)
        return -1;
    const int one = 1;
    ::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    sockaddr_in sa{};
    sa.sin_family = AF_INET;
    sa.sin_port = htons(std::uint16_t(port));
    if (::inet_pton(AF_INET, address, &sa.sin_addr) != 1
        || ::bind(fd, reinterpret_cast<sockaddr *>(&sa), sizeof sa) != 0 || ::listen(fd, 1024) != 0) {
        ::close(fd);
        return -1;
    }
    return fd;
}

} // namespace

MiniServer::~MiniServer()
{
    stop();
}

bool MiniServer::start(const char *address)
{
    void *shared = ::mmap(nullptr, sizeof(Counters), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (shared == MAP_FAILED)
        return false;
    m_counters = new (shared) Counters();
    pthread_mutexattr_t ma;
    pthread_mutexattr_init(&ma);
    pthread_mutexattr_setpshared(&ma, PTHREAD_PROCESS_SHARED);
    pthread_mutex_init(&m_counters->mutex, &ma);
    pthread_condattr_t ca;
    pthread_condattr_init(&ca);
    pthread_condattr_setpshared(&ca, PTHREAD_PROCESS_SHARED);
    pthread_condattr_setclock(&ca, CLOCK_MONOTONIC);
    pthread_cond_init(&m_counters->cond, &ca);
    m_counters->textTarget.store(UINT64_MAX);

    int ready[2];
    if (::pipe(ready) != 0)
        return false;
    m_pid = ::fork();
    if (m_pid < 0)
        return false;
    if (m_pid == 0) {
        ::close(ready[0]);
        Listener listeners[2] = { { listenOn(address, kPort), false, m_counters },
                                  { listenOn(address, kModbusPort), true, m_counters } };
        const char ok = listeners[0].fd >= 0 && listeners[1].fd >= 0 ? 1 : 0;
        (void)!::write(ready[1], &ok, 1);
        if (!ok)
            ::_exit(1);
        pthread_t modbus;
        pthread_create(&modbus, nullptr, acceptLoop, &listeners[1]);
        acceptLoop(&listeners[0]);
        ::_exit(0);
    }
    ::close(ready[1]);
    char ok = 0;
    const bool started = ::read(ready[0], &ok, 1) == 1 && ok == 1;
    ::close(ready[0]);
    if (!started)
        stop();
    return started;
}

void MiniServer::stop()
{
    if (m_pid > 0) {
        ::kill(m_pid, SIGKILL);
        ::waitpid(m_pid, nullptr, 0);
        m_pid = -1;
    }
}

bool MiniServer::waitText(std::uint64_t bytes, int timeoutMs)
{
    Counters &c = *m_counters;
    timespec deadline;
    clock_gettime(CLOCK_MONOTONIC, &deadline);
    deadline.tv_sec += timeoutMs / 1000;
    deadline.tv_nsec += long(timeoutMs % 1000) * 1000000L;
    if (deadline.tv_nsec >= 1000000000L) {
        deadline.tv_sec += 1;
        deadline.tv_nsec -= 1000000000L;
    }
    c.textTarget.store(bytes);
    pthread_mutex_lock(&c.mutex);
    int rc = 0;
    while (c.textBytes.load() < bytes && rc != ETIMEDOUT)
        rc = pthread_cond_timedwait(&c.cond, &c.mutex, &deadline);
    const bool reached = c.textBytes.load() >= bytes;
    pthread_mutex_unlock(&c.mutex);
    c.textTarget.store(UINT64_MAX);
    return reached;
}
