// Feeds arbitrary reply bytes to the client through its real exchange: a
// peer inside this program listens on 127.0.0.190:60000 like a controller,
// the client connects and runs one operation, and the peer answers the
// operation's requests as the simulator's controller would, except one,
// which gets the fuzzer's bytes followed by the end of the stream. So the
// bytes go through the client's socket reads, reply framing and matching,
// the parser, the handlers that store values, texts, pieces and points, and
// the operation's status, in direct and in thread mode. The end of the
// stream ends every wait at once: no reply budget is waited out.
//
// Input: byte 0 picks the operation, byte 1 the mode (bit 0: thread mode)
// and which of the operation's requests gets the bytes (the rest of byte 1);
// the rest is what the peer sends.

#include "AsynchronousClient.h"
#include "FuzzTouch.h"
#include "SimFrame.h"
#include "SimMachine.h"

#include <QDir>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <thread>

namespace {

const char kAddress[] = "127.0.0.190";
const int kIdleMs = 20;        // thread mode: no request for this long, the operation sent all it will
const int kThreadCapMs = 2000;

enum Op {
    ReadVars, WriteVars, ReadBits, Watchdog, Reset, CycStart, RunningProgram, AnnounceFile, QueryFile,
    Upload, ErrorFile, OscAxis, OscTransfer, OscPoints, ManyVars, OpCount
};
// Requests each operation sends to a controller that answers them all.
const int kSteps[OpCount] = { 1, 1, 1, 1, 1, 1, 1, 2, 1, 6, 7, 1, 1, 1, 3 };

int onError(int errorCmd, int cmdState, const char *detail)
{
    g_fuzzSink = g_fuzzSink + unsigned(errorCmd + cmdState);
    touch(detail, std::strlen(detail));
    return 0;
}

qint64 nowMs()
{
    return std::chrono::duration_cast<std::chrono::milliseconds>(
               std::chrono::steady_clock::now().time_since_epoch()).count();
}

bool sendAll(int fd, const char *data, size_t size)
{
    while (size > 0) {
        const ssize_t n = ::send(fd, data, size, MSG_NOSIGNAL);
        if (n <= 0)
            return false;
        data += n;
        size -= size_t(n);
    }
    return true;
}

// The controller side of one run.
class Peer
{
public:
    Peer(int listener, int step, const uint8_t *reply, size_t size)
        : m_listener(listener), m_step(step), m_reply(reply), m_size(size)
    {
        m_lastRequest = nowMs();
        m_thread = std::thread([this] { serve(); });
    }
    ~Peer()
    {
        m_stop = true;
        m_thread.join();
        // A connection this run never took must not be the next run's.
        pollfd p = { m_listener, POLLIN, 0 };
        while (::poll(&p, 1, 0) > 0) {
            const int fd = ::accept(m_listener, nullptr, nullptr);
            if (fd < 0)
                break;
            ::close(fd);
        }
    }
    bool delivered() const { return m_delivered; }
    bool idle() const { return nowMs() - m_lastRequest > kIdleMs; }

private:
    static void setUp(SimMachine &machine)
    {
        machine.setVariable(1000005, 42);
        machine.setVariable(1032048, 0x5a5a5a5a);
        machine.knownPrograms.insert("O1");
        machine.setRunningProgram(2, "O9");
        machine.setErrorFile(0, false, "E1 spindle\n");
        machine.oscPoints = { 10, 20, 30, -7 };
    }

    bool wait(int fd)
    {
        while (!m_stop) {
            pollfd p = { fd, POLLIN, 0 };
            if (::poll(&p, 1, 5) > 0)
                return true;
        }
        return false;
    }

    void serve()
    {
        if (!wait(m_listener))
            return;
        const int fd = ::accept(m_listener, nullptr, nullptr);
        if (fd < 0)
            return;
        m_lastRequest = nowMs();
        SimMachine machine;
        SimSession session;
        setUp(machine);
        QByteArray input;
        int index = 0;
        char chunk[4096];
        while (wait(fd)) {
            const ssize_t n = ::recv(fd, chunk, sizeof chunk, 0);
            if (n <= 0)
                break;
            input.append(chunk, int(n));
            int length;
            while ((length = SimFrame::frameLength(input)) > 0) {
                const QByteArray pdu = input.mid(SimFrame::headerLength, length - SimFrame::headerLength);
                input.remove(0, length);
                m_lastRequest = nowMs();
                if (index < m_step) {
                    const QByteArray reply = SimFrame::wrap(machine.handle(pdu, session).pdu);
                    sendAll(fd, reply.constData(), size_t(reply.size()));
                } else if (index == m_step) {
                    sendAll(fd, reinterpret_cast<const char *>(m_reply), m_size);
                    ::shutdown(fd, SHUT_WR);
                    m_delivered = true;
                }
                ++index;
            }
            if (length < 0)
                break;
        }
        ::close(fd);
    }

    const int m_listener;
    const int m_step;
    const uint8_t *const m_reply;
    const size_t m_size;
    std::atomic<bool> m_stop{false};
    std::atomic<bool> m_delivered{false};
    std::atomic<qint64> m_lastRequest{0};
    std::thread m_thread;
};

int g_listener = -1;

void dropMessage(QtMsgType, const QMessageLogContext &, const QString &message)
{
    touch(message.constData(), size_t(message.size()) * sizeof(QChar));
}

void run(AsynchronousClient &client, Op op, bool threadMode)
{
    long int addresses[130];
    long int values[130];
    for (int i = 0; i < 130; ++i)
        addresses[i] = 1000000 + i;
    long int bits[3] = { 0, 31, 33 };
    char program[] = "O1";
    char text[1001];
    std::memset(text, 'G', 1000);
    text[1000] = 0;
    switch (op) {
    case ReadVars:
        client.readVars(addresses, 3, values);
        touch(values, 3 * sizeof(long));
        break;
    case WriteVars:
        values[0] = -1;
        values[1] = 0x7fffffff;
        client.writeVars(addresses, 2, values);
        break;
    case ReadBits:
        if (threadMode)
            client.registerBits(1, AsynchronousClient::BitX, bits, 3);
        client.readBits(1, AsynchronousClient::BitX, bits, 3, values);
        touch(values, 3 * sizeof(long));
        break;
    case Watchdog:
        client.CheckTcpWdt();
        break;
    case Reset:
        client.reset(1);
        break;
    case CycStart:
        client.cycStart(1, program);
        break;
    case RunningProgram: {
        const QByteArray name = client.getRuningPrg(2);
        touch(name.constData(), size_t(name.size()));
        break;
    }
    case AnnounceFile:
        client.setTransFileType(0, 1, program, false);
        break;
    case QueryFile:
        client.setTransFileType(0, 1, program, true);
        break;
    case Upload:
        client.uploadFile(0, 1, program, text);
        break;
    case ErrorFile: {
        const char *errors = client.getCncCurrentError(0);
        touch(errors, std::strlen(errors));
        break;
    }
    case OscAxis:
        client.setOscAxis(1, 2, 3);
        break;
    case OscTransfer:
        client.setOscTransEn(1);
        break;
    case OscPoints: {
        // Every point a reply holds is written, even past the count asked for.
        long int points[HProtocol_Client::kBufferSize / 4];
        client.getOscPoint(0, points, 4);
        break;
    }
    case ManyVars:
        // Thread mode: registered variables, polled in slices.
        if (threadMode)
            client.registerVars(addresses, 130);
        else
            client.readVars(addresses, 130, values);
        break;
    case OpCount:
        break;
    }
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    // Clients make "logs" in the working directory.
    char dir[] = "/tmp/fuzz_client_reply.XXXXXX";
    if (!mkdtemp(dir) || !QDir::setCurrent(QString::fromLatin1(dir)))
        std::abort();
    qInstallMessageHandler(dropMessage);
    g_listener = ::socket(AF_INET, SOCK_STREAM, 0);
    const int on = 1;
    ::setsockopt(g_listener, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(AsynchronousClient::kPort);
    ::inet_pton(AF_INET, kAddress, &address.sin_addr);
    if (::bind(g_listener, reinterpret_cast<sockaddr *>(&address), sizeof address) != 0
        || ::listen(g_listener, 4) != 0) {
        std::perror("fuzz_client_reply: cannot listen on 127.0.0.190:60000");
        std::abort();
    }
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size < 2)
        return 0;
    const Op op = Op(data[0] % OpCount);
    // The running-program query waits a fixed 200 ms in thread mode, and the
    // error file sends nothing there: both run in direct mode only.
    const bool threadMode = (data[1] & 1) && op != RunningProgram && op != ErrorFile;
    const int step = (data[1] >> 1) % (threadMode ? (op == ManyVars ? 4 : 1) : kSteps[op]);

    Peer peer(g_listener, step, data + 2, size - 2);
    AsynchronousClient client;
    client.setSyncMode(threadMode ? 0 : 1);
    client.setErrorFileWaitMs(0);
    client.setErrCallbackFunc(onError);
    // The detail lines format reply values too; they go to dropMessage.
    client.setDebugMask(3);
    qInstallMessageHandler(dropMessage);
    if (!client.tcpConnect(kAddress))
        std::abort();   // the peer listens: a refused connection is a broken harness
    run(client, op, threadMode);
    if (threadMode) {
        // The client's thread handles the reply; then the stored results.
        const qint64 end = nowMs() + kThreadCapMs;
        while (nowMs() < end && !(peer.delivered() && client.exchangeState() == 1)
               && !(!peer.delivered() && peer.idle()))
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        const QMap<qint32, qint32> values = client.valueMap();
        for (auto it = values.constBegin(); it != values.constEnd(); ++it)
            g_fuzzSink = g_fuzzSink + unsigned(it.value());
    }
    return 0;
}
