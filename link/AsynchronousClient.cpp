#include "AsynchronousClient.h"

#include "CommLog.h"
#include "FirstConnect.h"
#include "RawSocket.h"
#include "TsanAnnotations.h"

#include <QDebug>
#include <QDir>
#include <QHostAddress>
#include <QElapsedTimer>
#include <QTcpSocket>
#include <QVector>

#include <chrono>
#include <climits>
#include <cstdint>
#include <cstring>

namespace {

const char kReadVarsSig[] = "long int AsynchronousClient::readVars(long int*, int, long int*)";
const char kWriteVarsSig[] = "long int AsynchronousClient::writeVars(long int*, int, long int*)";
const char kFileReadVarsSig[] = "long int AsynchronousClient::fileReadVars(long int*, int, long int*)";
const char kFileWriteVarsSig[] = "long int AsynchronousClient::fileWriteVars(long int*, int, long int*)";
const char kReadBitsSig[] = "long int AsynchronousClient::readBits(long int, AsynchronousClient::BitType, long int*, int, long int*)";
const char kRegisterBitsSig[] = "long int AsynchronousClient::registerBits(long int, AsynchronousClient::BitType, long int*, int)";
const char kRemoveBitsSig[] = "long int AsynchronousClient::removeBits(long int, AsynchronousClient::BitType, long int*, int)";
const char kWatchdogSig[] = "long int AsynchronousClient::CheckTcpWdt()";
const char kReadyReadSig[] = "bool AsynchronousClient::myReadyRead()";

const qint32 kBitBases[7] = { 32048, 32112, 32176, 32240, 32304, 32592, 32560 };

// A host `long int` is 64 bits on Linux: check it before it is cut to the
// 32 bits of the wire, so that a huge number never aliases a valid address.
bool validAddress(long int address)
{
    // Unsigned: a negative address is out of range too.
    return static_cast<unsigned long>(address) <= unsigned(HProtocol_Client::kMaxAddress)
        && HProtocol_Client::isValidAddress(qint32(address));
}

// A value goes out as one 32-bit word: signed values and unsigned bit
// patterns up to 0xFFFFFFFF fit, anything larger (a 64-bit host long)
// would be cut without a word.
bool fitsWord(long int value)
{
#if LONG_MAX > 0x7fffffffL
    return value >= INT32_MIN && value <= 0xffffffffL;
#else
    Q_UNUSED(value);
    return true;   // a 32-bit long always fits (and the range test would be a warning)
#endif
}

// Closes the link the polite way, within the connect wait; true when it
// is closed.
bool closeGently(QTcpSocket &socket)
{
    socket.disconnectFromHost();
    return socket.state() == QAbstractSocket::UnconnectedState
        || socket.waitForDisconnected(AsynchronousClient::kConnectWaitMs);
}

// Whether an address occurs twice: an open-addressing set in `seen`
// (addresses + 1, 0 = free), in time linear in the count.
bool hasRepeats(const std::vector<qint32> &addresses, std::vector<qint32> &seen)
{
    int bits = 4;
    while ((size_t(1) << bits) < 2 * addresses.size())
        ++bits;
    seen.assign(size_t(1) << bits, 0);
    const quint32 mask = (quint32(1) << bits) - 1;
    for (const qint32 address : addresses) {
        quint32 i = (quint32(address) * 0x9E3779B1u) >> (32 - bits);
        for (; seen[i] != 0; i = (i + 1) & mask)
            if (seen[i] == address + 1)
                return true;
        seen[i] = address + 1;
    }
    return false;
}

} // namespace

AsynchronousClient::AsynchronousClient(QObject *parent)
    : QThread(parent)
    , HProtocol_Client(nullptr, nullptr, TcpMode)
    , m_pollBuilder(m_pollSendBuf, m_pollRecvBuf, TcpMode)
{
    QDir().mkpath(QDir::currentPath() + QStringLiteral("/logs"));
    std::memset(m_sendBuf, 0, sizeof m_sendBuf);
    std::memset(m_recvBuf, 0, sizeof m_recvBuf);
    setBuffers(m_sendBuf, m_recvBuf);
    m_socketError = QStringLiteral("Unknown error");
    qDebug() << "AsynchronousClient::AsynchronousClient ver 20180822 17:42";
}

void AsynchronousClient::requestStop()
{
    std::unique_lock<std::mutex> lock(m_dataMutex);
    m_quit = true;
    m_interrupt.store(true);
    m_workCond.notify_all();
}

AsynchronousClient::~AsynchronousClient()
{
    requestStop();
    // The loop finishes its current exchange (at most the reply waits) and
    // closes the socket in its own thread.
    wait();
    tsanAcquire(this);   // pairs with the end of run()
    std::unique_lock<std::mutex> lock(m_dataMutex);
}

// ---------------------------------------------------------------------------
// Socket thread

void AsynchronousClient::ensureStarted()
{
    // m_dataMutex held by the caller.
    if (m_started)
        return;
    m_started = true;
    start(isDirectMode() ? QThread::InheritPriority : QThread::TimeCriticalPriority);
}

bool AsynchronousClient::runJob(Job job, const QByteArray &data)
{
    std::unique_lock<std::mutex> lock(m_dataMutex);
    if (m_quit)
        return false;   // the socket thread is gone or going: nobody would take the job
    ensureStarted();
    // Whatever exchange holds the socket gives it up within one wait slice.
    m_interrupt.store(true);
    while (m_jobBusy)
        m_slotCond.wait(lock);
    m_jobBusy = true;
    m_job = job;
    m_jobData = data;
    m_jobDone = false;
    // Notify after unlocking: on one CPU the woken thread would otherwise
    // run only to block on the mutex (two extra switches per call).
    lock.unlock();
    m_workCond.notify_one();
    lock.lock();
    // The socket thread bounds every job by the connect, disconnect and
    // reply waits, so this wait ends.
    while (!m_jobDone)
        m_doneCond.wait(lock);
    const bool result = m_jobResult;
    m_jobData.clear();
    m_jobBusy = false;
    lock.unlock();
    m_slotCond.notify_one();
    return result;
}

bool AsynchronousClient::threadModeActive() const
{
    return !isDirectMode() && !m_stop.load();
}

void AsynchronousClient::run()
{
    const TsanReleaseAtExit endOfThread{ this };   // the destructor's wait() sees all of it
    QTcpSocket socket;
    m_socket = &socket;
    std::unique_lock<std::mutex> lock(m_dataMutex);
    // After a refused request the loop lets the controller rest until then.
    std::chrono::steady_clock::time_point restUntil;
    for (;;) {
        if (m_job != NoJob) {
            const Job job = m_job;
            m_job = NoJob;
            m_interrupt.store(false);
            const QByteArray data = m_jobData;
            lock.unlock();
            const bool result = performJob(job, data);
            updateLinkMirror();
            lock.lock();
            m_jobResult = result;
            m_jobDone = true;
            lock.unlock();
            m_doneCond.notify_one();
            lock.lock();
            continue;
        }
        if (m_quit)
            break;
        if (threadModeActive()) {
            if (m_connected.load() && socket.state() == QAbstractSocket::ConnectedState) {
                if (std::chrono::steady_clock::now() < restUntil) {
                    m_workCond.wait_until(lock, restUntil);
                    continue;
                }
                const QByteArray frame = scheduleStep();
                if (!frame.isEmpty()) {
                    const bool blocks = m_readsBlock;
                    lock.unlock();
                    const auto sent = std::chrono::steady_clock::now();
                    const bool good = threadExchange(socket.socketDescriptor(), blocks, frame);
                    lock.lock();
                    // A controller that keeps refusing is asked at most
                    // 1000 / kRepeatIntervalMs times a second.
                    if (!good)
                        restUntil = sent + std::chrono::milliseconds(kRepeatIntervalMs);
                    continue;
                }
            } else if (socket.state() != QAbstractSocket::UnconnectedState) {
                // `connected` was cleared (disconnect, or the controller
                // closed the link): close the socket here, in its thread.
                m_connected.store(false);
                lock.unlock();
                if (debugDetails())
                    qDebug() << "run" << " isConnected = " << "false";
                closeGently(socket);
                socket.abort();
                updateLinkMirror();
                m_interrupt.store(false);
                lock.lock();
                continue;
            }
        }
        m_workCond.wait(lock);
    }
    lock.unlock();
    if (socket.state() != QAbstractSocket::UnconnectedState)
        socket.abort();
    // Ends under the data lock, which the destructor takes after wait():
    // QThread::wait() is no synchronisation that ThreadSanitizer can see.
    lock.lock();
    m_socket = nullptr;
    m_descriptor = -1;
}

bool AsynchronousClient::performJob(Job job, const QByteArray &data)
{
    QTcpSocket &socket = *m_socket;
    switch (job) {
    case ConnectJob: {
        if (socket.state() == QAbstractSocket::ConnectedState)
            closeGently(socket);
        if (socket.state() != QAbstractSocket::UnconnectedState)
            socket.abort();
        if (debugDetails())
            qDebug() << "tcpConnect" << " ip =" << data << " state=" << socket.state();
        // Controllers are given by address. A host name would need a name
        // lookup, which waitForConnected does not bound.
        const QHostAddress address(QString::fromLatin1(data));
        bool ok = false;
        if (!address.isNull()) {
            const FirstConnect first;
            socket.connectToHost(address, kPort, QIODevice::ReadWrite);
            ok = socket.waitForConnected(kConnectWaitMs);
        }
        if (!ok)
            socket.abort();
        // Direct-mode exchanges run on the descriptor in the caller's
        // thread: a hand-off to this thread would cost two context
        // switches per request, as much as the round trip itself. This
        // thread is kept out (job slot) while a caller uses it.
        const bool blocks = ok && RawSocket::blockReads(socket.socketDescriptor(), kWaitSliceMs);
        {
            std::unique_lock<std::mutex> lock(m_dataMutex);
            m_readsBlock = blocks;
        }
        m_connected.store(ok);
        m_linkDirty.store(true);
        if (ok && !isDirectMode()) {
            m_stop.store(false);
            setPriority(QThread::TimeCriticalPriority);
        }
        if (debugDetails())
            qDebug() << "tcpConnect" << " isConnected = " << (ok ? "true" : "false");
        return ok;
    }
    case DisconnectJob:
        if (!isDirectMode()) {
            m_connected.store(false);
            if (debugDetails())
                qDebug() << "run" << " isConnected = " << "false";
            closeGently(socket);
            return true;
        }
        if (debugDetails())
            qDebug() << "tcpDisconnect" << " isConnected = " << m_connected.load();
        if (closeGently(socket))
            m_connected.store(false);
        return true;
    case NoJob:
        break;
    }
    return false;
}

bool AsynchronousClient::threadExchange(qintptr fd, bool blocks, const QByteArray &frame)
{
    m_errorFlag.store(0);
    clearReplyState();
    m_exchangeState.store(2);
    bool closed = false;
    const int size = wireExchange(fd, blocks, frame.constData(), frame.size(), &closed);
    handleReply(size);
    m_exchangeState.store(1);
    if (closed) {
        markClosed();
        m_connected.store(false);
    }
    return size > 0 && !m_errorFlag.load();
}

int AsynchronousClient::wireExchange(qintptr descriptor, bool blocks, const char *frame, int frameSize,
                                     bool *closed)
{
    const RawSocket::Descriptor fd = descriptor;
    // Stale bytes can only be there when the last exchange did not end
    // cleanly; otherwise the read before the send is one syscall for nothing.
    if (m_linkDirty.load()) {
        const int stale = RawSocket::discard(fd, kDiscardLimit, closed);
        if (stale > 0 && debugErrors())
            qDebug() << kReadyReadSig << "1 Error." << stale;
    }
    m_linkDirty.store(true);
    if (*closed || !RawSocket::sendAll(fd, frame, frameSize, kReplyWaitMs)) {
        *closed = true;
        return 0;
    }
    // The reply budget runs from the send. Replies are cut out of the byte
    // stream by their length field; one that does not answer this request is
    // logged and dropped, and the wait goes on. Memory stays bounded: no
    // more than one reply's size is ever kept.
    QElapsedTimer clock;
    clock.start();
    const qint64 budget = qint64(kReplyWaits) * kReplyWaitMs;
    char buffer[kBufferSize];
    int have = 0;
    int skip = 0;   // the rest of a frame too long to be a reply
    auto drop = [&](int n) {
        std::memmove(buffer, buffer + n, size_t(have - n));
        have -= n;
    };
    while (!*closed && !m_interrupt.load()) {
        const qint64 left = budget - clock.elapsed();
        if (left <= 0)
            break;
        // Short slices: a disconnect or stop must not wait for the budget.
        const int n = RawSocket::awaitRead(fd, blocks, buffer + have, int(sizeof buffer) - have,
                                int(qMin<qint64>(left, kWaitSliceMs)), closed);
        if (n <= 0)
            continue;
        have += n;
        const int skipped = qMin(skip, have);
        skip -= skipped;
        drop(skipped);
        while (have > 0) {
            const FrameCheck check = checkFrame(buffer, have);
            if (check.kind == FramePartial)
                break;
            if (check.kind == FrameNone) {
                if (debugErrors())
                    qDebug() << "unknown command.";
                have = 0;
                break;
            }
            if (check.kind == FrameTooLong) {
                // Not parsed, as a reply of 500 bytes or more never is.
                skip = qMax(0, check.size - have);
                drop(qMin(check.size, have));
                continue;
            }
            if (replyMatches(frame, frameSize, buffer, check.size)) {
                std::memcpy(recvBuffer(), buffer, size_t(check.size));
                m_linkDirty.store(have > check.size);
                return check.size;
            }
            if (debugErrors()) {
                const bool sameLetter = buffer[headerLength()] == frame[headerLength()];
                qDebug() << (sameLetter ? "parameters error." : "unknown command.");
            }
            drop(check.size);
        }
    }
    if (debugErrors())
        qDebug() << kReadyReadSig << "2 Error." << have;
    return 0;
}

void AsynchronousClient::markClosed()
{
    std::unique_lock<std::mutex> lock(m_dataMutex);
    m_socketState = QAbstractSocket::UnconnectedState;
    m_socketError = QStringLiteral("The remote host closed the connection");
}

void AsynchronousClient::updateLinkMirror()
{
    const int state = m_socket->state();
    const QString error = m_socket->errorString();
    const qintptr descriptor = state == QAbstractSocket::ConnectedState ? m_socket->socketDescriptor() : -1;
    std::unique_lock<std::mutex> lock(m_dataMutex);
    m_socketState = state;
    m_socketError = error;
    m_descriptor = descriptor;
}

int AsynchronousClient::handleReply(int size)
{
    if (size < 1 || size >= kBufferSize)
        return ParseUnknown;
    const int result = parse(size);
    // Error replies to 'd' and 'f' reach no handler; the flag comes from here.
    if (result >= ParseReadError && result <= ParseProgramError)
        m_errorFlag.store(1);
    // A reply too short for its handler: the letter alone says success for
    // the commands whose replies carry nothing the client reads ('p', 'D',
    // 'f'); for the others the answer is missing, which is no success.
    if (result == ParseUnknown && size > headerLength()) {
        const char letter = char(recvBuffer()[headerLength()]);
        if (letter != 'p' && letter != 'D' && letter != 'f')
            m_errorFlag.store(1);
    }
    return result;
}

QByteArray AsynchronousClient::scheduleStep()
{
    m_sentIsPoll = false;
    m_sentResults = nullptr;
    if (!m_threadOutgoing.isEmpty()) {
        const QVector<qint32> addresses = m_threadOutgoingAddresses.takeFirst();
        m_sentAddresses.assign(addresses.begin(), addresses.end());
        return m_threadOutgoing.takeFirst();
    }
    if (m_schedulerKind == 1 || m_queue.isEmpty()) {
        m_schedulerKind = 0;
        const QByteArray frame = pollSlice();
        if (!frame.isEmpty())
            return frame;
    }
    while (!m_queue.isEmpty()) {
        const QByteArray frame = m_queue.takeFirst();
        if (!frame.isEmpty()) {
            m_schedulerKind = 1;
            forgetSentFrame();
            return frame;
        }
    }
    return QByteArray();
}

QByteArray AsynchronousClient::pollSlice()
{
    // The slice is taken from the table in place: with thousands of
    // registered variables, copying the keys for every frame would cost
    // more than the frame's round trip.
    const int size = m_values.size();
    if (size == 0) {
        m_pollPosition = -1;
        return QByteArray();
    }
    if (m_pollPosition < 0 || m_pollPosition >= size)
        m_pollPosition = 0;
    const int n = qMin(qMin(m_pollSlice, m_pollBuilder.maxRdVar()), size - m_pollPosition);
    const ValueTable::Entry *slice = m_values.entries() + m_pollPosition;
    m_sentAddresses.resize(size_t(n));
    for (int i = 0; i < n; ++i)
        m_sentAddresses[size_t(i)] = slice[i].address;
    m_pollPosition += n;
    if (m_pollPosition >= size)
        m_pollPosition = -1;
    const int length = m_pollBuilder.buildReadVars(m_sentAddresses.data(), n);
    if (length <= 0)
        return QByteArray();
    m_sentIsPoll = true;
    return QByteArray(reinterpret_cast<const char *>(m_pollSendBuf), length);
}

// ---------------------------------------------------------------------------
// Link state, readable from any thread

int AsynchronousClient::queuedCount() const
{
    std::unique_lock<std::mutex> lock(m_dataMutex);
    return m_queue.size();
}

bool AsynchronousClient::isSocketConnected() const
{
    std::unique_lock<std::mutex> lock(m_dataMutex);
    return m_socketState == QAbstractSocket::ConnectedState;
}

QString AsynchronousClient::socketErrorText() const
{
    std::unique_lock<std::mutex> lock(m_dataMutex);
    return m_socketError;
}

QMap<qint32, qint32> AsynchronousClient::valueMap() const
{
    // A deep copy: a shared one would let the socket thread's next insert
    // decide about detaching from a reference count it reads unordered.
    QMap<qint32, qint32> copy;
    std::unique_lock<std::mutex> lock(m_dataMutex);
    for (int i = 0; i < m_values.size(); ++i)
        copy.insert(copy.constEnd(), m_values.at(i).address, m_values.at(i).value);
    return copy;
}

// ---------------------------------------------------------------------------
// Lifecycle

bool AsynchronousClient::tcpConnect(const QByteArray &ip)
{
    return runJob(ConnectJob, ip);
}

long int AsynchronousClient::tcpDisconnect()
{
    if (!isSocketConnected())
        return 1;
    if (!isDirectMode()) {
        // Thread mode only clears `connected`: the loop leaves its reply
        // wait within a slice and closes the socket in its own thread.
        {
            std::unique_lock<std::mutex> lock(m_dataMutex);
            m_connected.store(false);
            m_interrupt.store(true);
            m_socketState = QAbstractSocket::ClosingState;
        }
        m_workCond.notify_all();
        return 1;
    }
    runJob(DisconnectJob, QByteArray());
    return 1;
}

void AsynchronousClient::setSyncMode(int direct)
{
    if (direct == m_direct.load())
        return;
    // Closed here and now, before the mode changes under the loop.
    if (isSocketConnected())
        runJob(DisconnectJob, QByteArray());
    std::unique_lock<std::mutex> lock(m_dataMutex);
    m_direct.store(direct);
    m_stop.store(direct != 0);
    m_workCond.notify_all();
}

void AsynchronousClient::setDebugMask(int mask)
{
    m_debugMask.store(quint8(mask));
    CommLog::install(mask != 0);
}

void AsynchronousClient::onErrorOccured(int errorCmd, int cmdState, const char *detail)
{
    if (ErrorCallback callback = m_errorCallback.load())
        callback(errorCmd, cmdState, detail ? detail : "");
    else if (debugErrors())
        qDebug() << "onErrorOccured" << "errorCmd:" << errorCmd << "cmdState:" << cmdState
                 << "detail:" << (detail ? detail : "");
    m_exchangeState.store(1);
}

// ---------------------------------------------------------------------------
// The operation pattern

bool AsynchronousClient::linkDown(const char *signature)
{
    QString error;
    {
        std::unique_lock<std::mutex> lock(m_dataMutex);
        if (m_socketState == QAbstractSocket::ConnectedState)
            return false;
        error = m_socketError;
    }
    if (debugErrors())
        qDebug().noquote() << signature << " SocketDisconnected " << error;
    return true;
}

QByteArray AsynchronousClient::builtFrame(int length) const
{
    if (length <= 0)
        return QByteArray();
    return QByteArray(reinterpret_cast<const char *>(sendBuffer()), qMin(length, int(kBufferSize)));
}

int AsynchronousClient::queueFrame(int length)
{
    const QByteArray frame = builtFrame(length);
    {
        std::unique_lock<std::mutex> lock(m_dataMutex);
        if (m_queue.size() > m_queueLimit.load())
            return int(StatusQueueFull);
        m_queue.append(frame);
    }
    wakeLoop();
    return int(StatusOk);
}

void AsynchronousClient::wakeLoop()
{
    // In direct mode the caller sends the frame itself: waking the socket
    // thread would only cost it a context switch per request for nothing.
    if (!isDirectMode())
        m_workCond.notify_all();
}

void AsynchronousClient::forgetSentFrame()
{
    m_sentAddresses.clear();
    m_sentResults = nullptr;
    m_sentIsPoll = false;
}

bool AsynchronousClient::exchangeNext()
{
    {
        std::unique_lock<std::mutex> lock(m_dataMutex);
        m_outgoing.clear();
        while (!m_queue.isEmpty() && m_outgoing.isEmpty())
            m_outgoing = m_queue.takeFirst();
        forgetSentFrame();
    }
    const bool replied = !m_outgoing.isEmpty() && exchange(m_outgoing.constData(), m_outgoing.size());
    m_outgoing.clear();
    return replied;
}

int AsynchronousClient::directExchange(const char *frame, int size)
{
    qintptr fd;
    bool blocks;
    {
        std::unique_lock<std::mutex> lock(m_dataMutex);
        while (m_jobBusy)
            m_slotCond.wait(lock);
        if (m_descriptor < 0 || m_socketState != QAbstractSocket::ConnectedState)
            return 0;
        m_jobBusy = true;   // connect and disconnect wait until the descriptor is free
        fd = m_descriptor;
        blocks = m_readsBlock;
    }
    bool closed = false;
    const int replySize = wireExchange(fd, blocks, frame, size, &closed);
    {
        std::unique_lock<std::mutex> lock(m_dataMutex);
        m_jobBusy = false;
    }
    m_slotCond.notify_one();
    if (closed)
        markClosed();
    return replySize;
}

bool AsynchronousClient::exchange(const char *frame, int size)
{
    // Every status comes from this request's own reply.
    m_errorFlag.store(0);
    m_memoryFull.store(false);
    clearReplyState();
    m_exchangeState.store(2);
    const int replySize = directExchange(frame, size);
    handleReply(replySize);
    m_exchangeState.store(1);
    return replySize > 0;
}

long int AsynchronousClient::exchangeStatus(bool replied, long int queued) const
{
    if (!replied)
        return StatusNoReply;
    if (m_errorFlag.load())
        return StatusErrorReply;
    return queued;
}

long int AsynchronousClient::queueAndExchange(int length, bool *replied)
{
    *replied = false;
    if (isDirectMode() && length > 0) {
        // Queued behind nothing, the frame would be the next one sent: it
        // goes out from the send buffer, without a copy into the queue.
        bool next;
        {
            std::unique_lock<std::mutex> lock(m_dataMutex);
            next = m_queue.isEmpty() && m_queueLimit.load() >= 0;
            if (next)
                forgetSentFrame();
        }
        if (next) {
            *replied = exchange(reinterpret_cast<const char *>(sendBuffer()), length);
            return StatusOk;
        }
    }
    const long int queued = queueFrame(length);
    if (isDirectMode())
        *replied = exchangeNext();
    return queued;
}

long int AsynchronousClient::runOperation(const char *signature, const std::function<int()> &build)
{
    std::unique_lock<ClientLock> lock(m_mutex);
    if (linkDown(signature))
        return StatusDisconnected;
    const int length = build();
    if (length <= 0)
        return StatusParError;
    bool replied = false;
    const long int queued = queueAndExchange(length, &replied);
    if (!isDirectMode())
        return queued;
    return exchangeStatus(replied, queued);
}

// ---------------------------------------------------------------------------
// Watchdog

long int AsynchronousClient::CheckTcpWdt()
{
    CommLog::debugLine(QStringLiteral("CheckTcpWdt IN FUNCTION"));
    std::unique_lock<ClientLock> lock(m_mutex);
    if (linkDown(kWatchdogSig))
        return StatusDisconnected;
    bool replied = false;
    long int status = queueAndExchange(buildWatchdog(), &replied);
    if (isDirectMode()) {
        if (!replied)
            return StatusNoReply;
        status = exchangeStatus(replied, status);
    }
    lock.unlock();
    CommLog::debugLine(QStringLiteral("CheckTcpWdt OUT FUNCTION"));
    return status;
}

// ---------------------------------------------------------------------------
// Reply handlers

void AsynchronousClient::onRecCmdReadVars(int error, const qint32 *values, int count)
{
    if (error) {
        m_errorFlag.store(1);
        return;
    }
    m_errorFlag.store(0);
    std::unique_lock<std::mutex> lock(m_dataMutex);
    if (count != int(m_sentAddresses.size()) || (count > 0 && !values)) {
        lock.unlock();
        if (debugErrors())
            qDebug() << "parameters error.";
        return;
    }
    if (m_sentIsPoll) {
        // A poll reply must not bring back a variable removed meanwhile.
        for (int i = 0; i < count; ++i)
            m_values.update(m_sentAddresses[size_t(i)], values[i]);
    } else {
        m_values.store(m_sentAddresses.data(), values, count);
    }
    if (m_sentResults)
        std::copy(values, values + count, m_sentResults);
}

void AsynchronousClient::onRecCmdWriteVars(int error)
{
    m_errorFlag.store(error ? 1 : 0);
}

void AsynchronousClient::onRecCmdWatchdog(int)
{
    m_errorFlag.store(0);
}

void AsynchronousClient::onRecUnknownCmd(int letter)
{
    if (debugErrors())
        qDebug() << "unknown command.";
    // A letter with its top bit set is the controller's error reply.
    if (letter & 0x80)
        m_errorFlag.store(1);
}

// ---------------------------------------------------------------------------
// Variables

bool AsynchronousClient::takeAddresses(const char *signature, long int *addresses, int count, long int *values,
                                       int limit, bool *ascending)
{
    // The one check of the addresses: the builders are told they are done.
    // One pass without early exits: bad arguments are the rare case.
    bool ok = addresses && values && count >= 1 && count <= limit;
    bool rising = true;
    if (ok) {
        m_request.resize(size_t(count));
        qint32 *request = m_request.data();
        bool bad = false;
        qint32 previous = -1;   // below every valid address
        for (int i = 0; i < count; ++i) {
            bad |= !validAddress(addresses[i]);
            request[i] = qint32(addresses[i]);
            rising &= request[i] > previous;
            previous = request[i];
        }
        ok = !bad;
    }
    if (ascending)
        *ascending = rising;
    if (!ok && debugErrors())
        qDebug() << signature << " ParError address=" << static_cast<void *>(addresses)
                 << " count=" << count << " value=" << static_cast<void *>(values);
    return ok;
}

long int AsynchronousClient::sendVarFrame(int length, const qint32 *addresses, int count, qint32 *results)
{
    if (!isDirectMode()) {
        {
            std::unique_lock<std::mutex> data(m_dataMutex);
            m_threadOutgoing.append(builtFrame(length));
            QVector<qint32> sent(count);
            std::copy(addresses, addresses + count, sent.begin());
            m_threadOutgoingAddresses.append(sent);
        }
        wakeLoop();
        return StatusOk;
    }
    {
        std::unique_lock<std::mutex> data(m_dataMutex);
        m_sentAddresses.assign(addresses, addresses + count);
        m_sentResults = results;
        m_sentIsPoll = false;
    }
    // A refused build is an empty frame: nothing to send, no reply.
    if (length <= 0 || !exchange(reinterpret_cast<const char *>(sendBuffer()), length))
        return StatusNoReply;
    return m_errorFlag.load() ? StatusErrorReply : StatusOk;
}

long int AsynchronousClient::readVarsImpl(const char *signature, long int *addresses, int count,
                                          long int *values, bool singleFrame)
{
    std::unique_lock<ClientLock> lock(m_mutex);
    if (linkDown(signature))
        return StatusDisconnected;
    const int limit = maxRdVar();
    // When no address repeats (as in ascending order), each value read is
    // the one the map holds for its address and goes straight to its place
    // in the result.
    bool ascending = false;
    if (!takeAddresses(signature, addresses, count, values, singleFrame ? limit : count, &ascending))
        return StatusParError;
    const bool direct = isDirectMode();
    if (direct) {
        m_results.resize(size_t(count));
        std::memset(m_results.data(), 0, size_t(count) * sizeof(qint32));
    }
    {
        // Registered variables are dropped here on purpose: the map is also
        // the result table of this call.
        std::unique_lock<std::mutex> data(m_dataMutex);
        m_values.clear();
        m_outgoing.clear();
        m_threadOutgoing.clear();
        m_threadOutgoingAddresses.clear();
    }
    long int status = StatusOk;
    for (int done = 0; done < count;) {
        const int n = qMin(limit, count - done);
        m_currentRdAddressFlag = count - done > limit;
        if (debugDetails())
            qDebug() << "currentRdAddressFlag =" << m_currentRdAddressFlag << "maxRdVar =" << limit;
        const qint32 *slice = m_request.data() + done;
        const long int sent = sendVarFrame(buildReadVars(slice, n, AddressesChecked), slice, n,
                                           direct ? m_results.data() + done : nullptr);
        done += n;
        if (sent == StatusNoReply)
            return StatusNoReply;
        if (sent != StatusOk)
            status = sent;
    }
    if (direct && (ascending || !hasRepeats(m_request, m_seen))) {
        const qint32 *results = m_results.data();
        for (int i = 0; i < count; ++i)
            values[i] = results[i];
        return status;
    }
    std::unique_lock<std::mutex> data(m_dataMutex);
    for (int i = 0; i < count; ++i)
        values[i] = m_values.value(m_request[size_t(i)]);
    return status;
}

long int AsynchronousClient::readVars(long int *addresses, int count, long int *values)
{
    return readVarsImpl(kReadVarsSig, addresses, count, values, false);
}

long int AsynchronousClient::fileReadVars(long int *addresses, int count, long int *values)
{
    if (!isDirectMode())
        return StatusOk;
    return readVarsImpl(kFileReadVarsSig, addresses, count, values, true);
}

long int AsynchronousClient::writeVarsImpl(const char *signature, long int *addresses, int count,
                                           long int *values, bool singleFrame)
{
    std::unique_lock<ClientLock> lock(m_mutex);
    if (linkDown(signature))
        return StatusDisconnected;
    const int limit = maxWrVar();
    if (!takeAddresses(signature, addresses, count, values, singleFrame ? limit : count))
        return StatusParError;
    m_results.resize(size_t(count));
    for (int i = 0; i < count; ++i) {
        if (!fitsWord(values[i])) {
            if (debugErrors())
                qDebug() << signature << " ParError value=" << qint64(values[i]) << " count=" << count;
            return StatusParError;
        }
        m_results[size_t(i)] = qint32(quint32(values[i]));
    }
    long int status = StatusOk;
    for (int done = 0; done < count;) {
        const int n = qMin(limit, count - done);
        m_currentWrAddressFlag = count - done > limit;
        if (debugDetails())
            qDebug() << "currentWrAddressFlag =" << m_currentWrAddressFlag << "maxWrVar =" << limit
                     << "numCount =" << n;
        const int length = buildWriteVars(m_request.data() + done, m_results.data() + done, n, AddressesChecked);
        done += n;
        const long int sent = sendVarFrame(length);
        if (sent == StatusNoReply)
            return StatusNoReply;
        if (sent != StatusOk)
            status = sent;
    }
    return status;
}

long int AsynchronousClient::writeVars(long int *addresses, int count, long int *values)
{
    return writeVarsImpl(kWriteVarsSig, addresses, count, values, false);
}

long int AsynchronousClient::fileWriteVars(long int *addresses, int count, long int *values)
{
    if (!isDirectMode())
        return StatusOk;
    return writeVarsImpl(kFileWriteVarsSig, addresses, count, values, true);
}

void AsynchronousClient::registerVars(long int *addresses, int count)
{
    if (!addresses || count < 1)
        return;
    {
        std::unique_lock<std::mutex> data(m_dataMutex);
        for (int i = 0; i < count; ++i)
            if (validAddress(addresses[i]))
                m_values.store(qint32(addresses[i]), 0);
    }
    wakeLoop();
}

void AsynchronousClient::removeVars(long int *addresses, int count)
{
    std::unique_lock<ClientLock> lock(m_mutex);
    if (!addresses || count < 1)
        return;
    std::vector<qint32> gone;
    gone.reserve(size_t(count));
    for (int i = 0; i < count; ++i)
        if (validAddress(addresses[i]))
            gone.push_back(qint32(addresses[i]));
    std::unique_lock<std::mutex> data(m_dataMutex);
    m_values.remove(gone.data(), int(gone.size()));
}

void AsynchronousClient::clearVars()
{
    std::unique_lock<ClientLock> lock(m_mutex);
    if (isDirectMode())
        return;
    std::unique_lock<std::mutex> data(m_dataMutex);
    m_values.clear();
    m_pollPosition = -1;
}

// ---------------------------------------------------------------------------
// Bits

qint32 AsynchronousClient::bitBase(int type)
{
    return type >= 0 && type <= 6 ? kBitBases[type] : 0;
}

qint32 AsynchronousClient::bitWordAddress(long int channel, int type, long int bit)
{
    return qint32(channel * 1000000 + bitBase(type) + bit / 32);
}

int AsynchronousClient::bitInWord(long int bit)
{
    return int(bit % 32);
}

bool AsynchronousClient::takeBitWords(const char *signature, long int channel, int type, long int *bits, int count,
                                      long int *values, bool needValues)
{
    bool ok = bits && count >= 1 && (values || !needValues) && type >= 0 && type <= 6
        && channel >= 1 && channel <= kMaxChannel;
    if (ok)
        m_request.resize(size_t(count));
    for (int i = 0; ok && i < count; ++i) {
        // A negative or huge bit index would leave the channel's block.
        ok = bits[i] >= 0 && bits[i] / 32 <= kMaxAddressOffset;
        if (ok) {
            m_request[size_t(i)] = bitWordAddress(channel, type, bits[i]);
            ok = validAddress(long(m_request[size_t(i)]));
        }
    }
    if (ok)
        return true;
    if (debugErrors()) {
        QDebug line = qDebug();
        line << signature << " ParError address=" << static_cast<void *>(bits) << " count=" << count;
        if (needValues)
            line << " value=" << static_cast<void *>(values);
        line << " channel=" << channel << " type=" << type;
    }
    return false;
}

long int AsynchronousClient::readBits(long int channel, BitType type, long int *bits, int count,
                                      long int *values)
{
    std::unique_lock<ClientLock> lock(m_mutex);
    if (linkDown(kReadBitsSig))
        return StatusDisconnected;
    if (!takeBitWords(kReadBitsSig, channel, type, bits, count, values, true))
        return StatusParError;
    long int status = StatusOk;
    if (isDirectMode()) {
        const int length = buildReadVars(m_request.data(), count);
        if (length <= 0)
            return StatusParError;
        {
            std::unique_lock<std::mutex> data(m_dataMutex);
            m_values.clear();
        }
        status = sendVarFrame(length, m_request.data(), count);
        if (status == StatusNoReply)
            return StatusNoReply;
    }
    std::unique_lock<std::mutex> data(m_dataMutex);
    for (int i = 0; i < count; ++i) {
        const quint32 word = quint32(m_values.value(m_request[size_t(i)]));
        values[i] = (word >> bitInWord(bits[i])) & 1u;
    }
    return status;
}

long int AsynchronousClient::changeBits(const char *signature, long int channel, int type, long int *bits,
                                        int count, bool add)
{
    std::unique_lock<ClientLock> lock(m_mutex);
    if (linkDown(signature))
        return StatusDisconnected;
    if (isDirectMode()) {
        if (debugErrors())
            qDebug() << signature << " CommModeError";
        return StatusModeError;
    }
    if (!takeBitWords(signature, channel, type, bits, count, nullptr, false))
        return StatusParError;
    {
        std::unique_lock<std::mutex> data(m_dataMutex);
        if (!add)
            m_values.remove(m_request.data(), count);
        else
            for (int i = 0; i < count; ++i)
                m_values.store(m_request[size_t(i)], 0);
    }
    if (add)
        wakeLoop();
    return StatusOk;
}

long int AsynchronousClient::registerBits(long int channel, BitType type, long int *bits, int count)
{
    return changeBits(kRegisterBitsSig, channel, type, bits, count, true);
}

long int AsynchronousClient::removeBits(long int channel, BitType type, long int *bits, int count)
{
    return changeBits(kRemoveBitsSig, channel, type, bits, count, false);
}
