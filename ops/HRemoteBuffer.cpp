#include "HRemoteBuffer.h"

#include "FirstConnect.h"
#include "RawSocket.h"
#include "TsanAnnotations.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QSet>
#include <QTcpSocket>

#include <algorithm>
#include <cstring>
#include <thread>

namespace {

// Never destroyed: a reaper may still be finishing a buffer while the
// process runs its static destructors.
QSet<HRemoteBuffer *> &handleTable()
{
    static QSet<HRemoteBuffer *> *table = new QSet<HRemoteBuffer *>;
    return *table;
}

} // namespace

std::mutex &HRemoteBuffer::handleLock()
{
    static std::mutex *lock = new std::mutex;
    return *lock;
}

HRemoteBuffer *HRemoteBuffer::lookup(void *handle)
{
    HRemoteBuffer *buffer = static_cast<HRemoteBuffer *>(handle);
    return buffer && handleTable().contains(buffer) ? buffer : nullptr;
}

int HRemoteBuffer::liveCount()
{
    std::lock_guard<std::mutex> lock(handleLock());
    return handleTable().size();
}

HRemoteBuffer *HRemoteBuffer::open(const char *address, unsigned mode, unsigned channel)
{
    if (!address || mode > DncMode || channel < 1 || channel > unsigned(kMaxChannel))
        return nullptr;
    HRemoteBuffer *buffer = new HRemoteBuffer(QByteArray(address), int(mode), int(channel));
    {
        std::lock_guard<std::mutex> lock(handleLock());
        handleTable().insert(buffer);
    }
    buffer->start();
    return buffer;
}

HRemoteBuffer::HRemoteBuffer(const QByteArray &address, int mode, int channel)
    : m_address(address), m_mode(mode), m_channel(channel)
{
    std::memset(m_tx, 0, sizeof m_tx);
    std::memset(m_rx, 0, sizeof m_rx);
    std::memset(m_hostTx, 0, sizeof m_hostTx);
    setBuffers(m_tx, m_rx);
    m_hostBuilder.setBuffers(m_hostTx, nullptr);
}

HRemoteBuffer::~HRemoteBuffer()
{
    // Out of the table first: a C call holding the table's lock finishes
    // with this object before it goes.
    {
        std::lock_guard<std::mutex> lock(handleLock());
        handleTable().remove(this);
    }
    stopThread();
    wait();
    tsanAcquire(this);   // pairs with the end of run(): QThread::wait() is invisible to it
}

int HRemoteBuffer::close(void *handle)
{
    HRemoteBuffer *buffer = nullptr;
    {
        std::lock_guard<std::mutex> lock(handleLock());
        buffer = lookup(handle);
        if (!buffer)
            return 0;
        if (buffer->m_closing)
            return 1;   // already on its way out
        buffer->m_closing = true;
        buffer->m_state = StateClosed;
        buffer->stopThread();
    }
    // Only this call schedules the deletion, so the object stays valid here.
    buffer->wait(kCloseWaitMs);
    buffer->scheduleDeletion();
    return 1;
}

void HRemoteBuffer::scheduleDeletion()
{
    // The thread sleeps 200 ms before it disconnects, so it is normally
    // still running after the 100 ms close wait. The object is deleted once
    // the thread has ended: through its home thread's event loop when that
    // thread runs one, else directly (a host without QCoreApplication would
    // never process a deleteLater and keep the object and its thread).
    QCoreApplication *app = QCoreApplication::instance();
    QThread *home = thread();
    const bool homeLoops = (app && home == app->thread())
        || (home == QThread::currentThread() && home->loopLevel() > 0);
    auto finish = [this, homeLoops] {
        wait();
        tsanAcquire(this);
        if (homeLoops) {
            // The event goes to the home thread under Qt's queue lock.
            tsanIgnoreBegin();
            deleteLater();
            tsanIgnoreEnd();
        } else
            delete this;
    };
    if (isFinished()) {
        finish();
        return;
    }
    try {
        std::thread(finish).detach();
    } catch (...) {
        // No thread to spare: finish here rather than leak or throw into the host.
        finish();
    }
}

void HRemoteBuffer::stopThread()
{
    {
        // Under the queue's lock: the thread checks the flag under it
        // before it waits, so the wake cannot fall between the two.
        std::lock_guard<std::mutex> lock(m_mutex);
        m_stop = true;
    }
    m_wake.notify_all();
}

const char *HRemoteBuffer::fileName() const
{
    return m_mode == MdiMode ? "MDI" : "DNC";
}

int HRemoteBuffer::fileType() const
{
    return m_mode == MdiMode ? 0 : 1;
}

void HRemoteBuffer::setState(int state)
{
    if (!m_stop)
        m_state = state;
}

void HRemoteBuffer::setStateInfo(const char *text)
{
    std::lock_guard<std::mutex> lock(m_infoLock);
    if (m_stateInfo != text)
        m_stateInfo = text;
}

char *HRemoteBuffer::stateInfo()
{
    QByteArray text;
    {
        std::lock_guard<std::mutex> lock(m_infoLock);
        text = m_stateInfo;
    }
    return m_stateInfoOut.store(text);
}

QByteArray HRemoteBuffer::hostFrame(int length) const
{
    return QByteArray(reinterpret_cast<const char *>(m_hostTx), std::max(length, 0));
}

int HRemoteBuffer::write(const char *text)
{
    if (!text)
        return 0;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        const int state = m_state;
        if (state != StateWorking && state != StateIdle)
            return 0;
        if (m_queue.size() > kMaxQueued || m_bytesWritten > kCapacity)
            return 0;
        m_state = StateWorking;
        const int length = int(std::strlen(text));
        if (m_mode == MdiMode)
            m_bytesWritten += length;
        for (int at = 0; at < length; at += kPieceSize) {
            // Each piece as the terminated text it would be on its own: a
            // shorter piece builds as it is; of a full one, a run of exactly
            // 480 bytes by the text rule builds nothing (the builder refuses
            // that length; the entry stays empty and the thread skips it).
            const int piece = std::min(int(kPieceSize), length - at);
            const int run = piece < kEmptyTextLen ? piece : textRunLength(text + at, piece);
            m_queue.append(hostFrame(m_hostBuilder.buildAppendTxt(text + at, run)));
        }
        // Every MDI write is one complete program.
        if (m_mode == MdiMode)
            m_queue.append(hostFrame(m_hostBuilder.buildFileEnd()));
        m_state = m_queue.isEmpty() ? StateIdle : StateWorking;
    }
    m_wake.notify_one();
    return 1;
}

int HRemoteBuffer::clear()
{
    std::unique_lock<std::mutex> lock(m_mutex);
    const int state = m_state;
    if (state != StateWorking && state != StateIdle)
        return 0;
    m_queue.clear();
    m_queue.append(hostFrame(m_hostBuilder.buildSetFileInf(quint8(m_channel), fileType(), fileName())));
    // Overwriting with no text empties the file.
    m_queue.append(hostFrame(m_hostBuilder.buildOverWriteTxt("")));
    m_bytesWritten = 0;
    lock.unlock();
    m_wake.notify_one();
    return 1;
}

int HRemoteBuffer::validCount()
{
    const int state = m_state;
    if (state != StateWorking && state != StateIdle)
        return 0;
    std::lock_guard<std::mutex> lock(m_mutex);
    const qint64 room = m_mode == MdiMode
        ? qint64(kCapacity) - m_bytesWritten
        : qint64(kMaxQueued - m_queue.size()) * kPieceSize;
    return int(std::max<qint64>(room, 0));
}

int HRemoteBuffer::queued()
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_queue.size();
}

qint64 HRemoteBuffer::bytesWritten()
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_bytesWritten;
}

void HRemoteBuffer::run()
{
    const TsanReleaseAtExit endOfThread{ this };   // whoever waited for this thread sees all of it
    // The socket belongs to this thread: made, used and destroyed here.
    QTcpSocket socket;
    bool connected = false;
    {
        const FirstConnect first;
        socket.connectToHost(QString::fromLatin1(m_address), quint16(kPort), QIODevice::ReadWrite,
                             QAbstractSocket::AnyIPProtocol);
        connected = socket.waitForConnected(kReplyWaitMs);
    }
    if (!connected) {
        m_state = StateClosed;
        return;
    }
    // Set once the native socket exists; an option set before is dropped.
    socket.setSocketOption(QAbstractSocket::LowDelayOption, 1);
    // Requests go out and replies come in on the descriptor itself; the
    // Qt socket only connects and closes (see RawSocket).
    const RawSocket::Descriptor fd = socket.socketDescriptor();
    const bool blocks = RawSocket::blockReads(fd, kReplyWaitMs);
    m_connected = true;
    setState(StateAnnounce);

    // Repeats (re-announcement, resend, send-next) keep this distance from
    // the request before them, so a controller that keeps refusing is asked
    // fewer than 100 times a second.
    QElapsedTimer sinceSend;
    while (!m_stop) {
        const int state = m_state;
        if (state > StateIdle || state == StateClosed)
            break;
        if (state == StateWorking || state == StateIdle) {
            std::unique_lock<std::mutex> lock(m_mutex);
            if (m_queue.isEmpty()) {
                // Idle until a write, a clear or the close: no polling.
                setState(StateIdle);
                setStateInfo("Command queue is empty.");
                m_wake.wait(lock, [this] { return m_stop || !m_queue.isEmpty(); });
                continue;
            }
            m_current = m_queue.takeFirst();
            lock.unlock();
            if (m_current.isEmpty())
                continue;   // a 480-byte piece: nothing to send, nothing to wait for
        } else if (state == StateBusy) {
            m_current = QByteArray(reinterpret_cast<const char *>(m_tx), buildRequestSendNext());
        } else if (state == StateAnnounce) {
            m_current = QByteArray(reinterpret_cast<const char *>(m_tx),
                                   buildSetFileInf(quint8(m_channel), fileType(), fileName()));
        } else if (state == StateError && m_current.isEmpty()) {
            msleep(kIdleSleepMs);
            continue;
        }

        const bool repeat = state == StateBusy || state == StateAnnounce || state == StateError;
        if (repeat && sinceSend.isValid()) {
            const qint64 rest = kRepeatIntervalMs - sinceSend.elapsed();
            if (rest > 0)
                msleep(unsigned(rest));
        }
        sinceSend.start();
        m_sending = WaitingReply;
        // One wait only: a late reply is not waited for again, the loop goes
        // on with whatever state it has. The wait ends with the first bytes
        // and what came is parsed: a reply cut across TCP segments is read
        // as far as it got (too short: no handler runs), and its tail comes
        // in with the next exchange. What came beyond a buffer's size is
        // dropped unparsed, as a reply of 500 bytes or more always is.
        bool closed = !RawSocket::sendAll(fd, m_current.constData(), m_current.size(), kReplyWaitMs);
        int size = 0;
        if (!closed) {
            size = RawSocket::awaitRead(fd, blocks, reinterpret_cast<char *>(m_rx), kBufferSize, kReplyWaitMs,
                                        &closed);
            if (size == kBufferSize)
                size += RawSocket::discard(fd, kMaxDropped, &closed);
        }
        if (size >= 1 && size < kBufferSize) {
            parse(size);
            m_sending = ReplyHandled;
        }
        // A lost connection would otherwise spin here resending into nothing.
        if (closed) {
            m_state = StateClosed;
            break;
        }
    }

    msleep(kTailSleepMs);
    socket.disconnectFromHost();
    m_connected = false;
    if (m_stop)
        m_state = StateClosed;
}

void HRemoteBuffer::onReciveCmdSetFileInf(int state)
{
    switch (state) {
    case 0:
        setState(StateWorking);
        setStateInfo("SetFileInf Ok");
        break;
    case 1:
        setState(StateError);
        setStateInfo("parameters error.");
        break;
    case 2:
        setState(StateAnnounce);
        setStateInfo("target file is been executing.file transmission denied.");
        break;
    default:
        setState(StateError);
        setStateInfo(("CmdSetFileInf:unknow state. state=" + QByteArray::number(state)).constData());
        break;
    }
}

// Overwrite and append replies differ only in their texts; a null busy
// text leaves the state text as it was.
void HRemoteBuffer::onTextReply(int state, const char *okText, const char *busyText)
{
    switch (state) {
    case 0:
        setState(StateWorking);
        setStateInfo(okText);
        break;
    case 1:
        setState(StateError);
        setStateInfo("parameters error.");
        break;
    case 2:
        setState(StateBusy);
        if (busyText)
            setStateInfo(busyText);
        break;
    default:
        break;
    }
}

void HRemoteBuffer::onReciveCmdOverWriteTxt(int state)
{
    onTextReply(state, "OverWriteTxt Ok", "Cnc Busy");
}

void HRemoteBuffer::onReciveCmdAppendTxt(int state)
{
    onTextReply(state, "AppendTxt Ok", nullptr);
}

void HRemoteBuffer::onReciveCmdFileEnd(int state)
{
    if (state == 0) {
        setState(StateWorking);
        setStateInfo("fileEnd Ok");
    } else if (state == 1) {
        setState(StateError);
        setStateInfo("parameters error.");
    }
}

void HRemoteBuffer::onReciveCmdRequestSendNext(int state)
{
    if (state == 0) {
        setState(StateWorking);
        setStateInfo("RequestSendNext ok");
    } else if (state == 1) {
        setState(StateBusy);
    }
}
