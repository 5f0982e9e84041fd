#include "SimServer.h"
#include "ControllerSimPrivate.h"
#include "SimFrame.h"
#include "SimPcap.h"

#include <QHostAddress>
#include <QTcpServer>
#include <QTcpSocket>
#include <QVector>

#include <chrono>
#include <functional>
#include <future>

namespace {

// How often blocked threads look at the stop flag.
const int kPollMs = 20;
const int kWriteWaitMs = 1000;

// Hands accepted descriptors to the caller instead of making sockets on the
// accepting thread: each connection's socket is made on its own thread.
class Listener : public QTcpServer
{
public:
    QVector<qintptr> pending;

protected:
    void incomingConnection(qintptr descriptor) override { pending.append(descriptor); }
};

using Sender = std::function<void(const QByteArray &)>;

void sendAll(QTcpSocket &socket, const QByteArray &bytes)
{
    socket.write(bytes);
    while (socket.bytesToWrite() > 0 && socket.waitForBytesWritten(kWriteWaitMs)) {
    }
}

// Bytes without end, as from a controller whose sender ran away.
void streamUntil(QTcpSocket &socket, const Sender &record, const std::function<bool()> &goOn)
{
    const QByteArray chunk = ControllerSimPrivate::garbage(4096);
    while (goOn() && socket.state() == QAbstractSocket::ConnectedState) {
        if (socket.bytesToWrite() < 4 * chunk.size()) {
            record(chunk);
            socket.write(chunk);
        }
        socket.waitForBytesWritten(kPollMs);
    }
}

} // namespace

SimServer::SimServer(ControllerSimPrivate *d)
    : d(d)
{
}

SimServer::~SimServer()
{
    stop();
}

bool SimServer::start(QString *error)
{
    std::promise<bool> listening;
    std::future<bool> result = listening.get_future();
    m_acceptor = std::thread(&SimServer::acceptLoop, this, &listening);
    if (result.get())
        return true;
    m_acceptor.join();
    if (error)
        *error = m_listenError;
    return false;
}

void SimServer::stop()
{
    {
        std::lock_guard<std::mutex> lock(m_wakeLock);
        m_stopping = true;
    }
    m_wake.notify_all();
    if (m_acceptor.joinable())
        m_acceptor.join();
}

bool SimServer::pause(int ms)
{
    std::unique_lock<std::mutex> lock(m_wakeLock);
    return !m_wake.wait_for(lock, std::chrono::milliseconds(ms), [this] { return m_stopping.load(); });
}

void SimServer::restart(int ms)
{
    std::unique_lock<std::mutex> lock(m_wakeLock);
    m_refuseUntil = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
    m_listenerDown = false;
    ++m_generation;
    // The port closes before this connection does, so a peer that reconnects
    // at once is refused, as by a controller that is really down.
    m_wake.wait_for(lock, std::chrono::milliseconds(kWriteWaitMs),
                    [this] { return m_listenerDown || m_stopping.load(); });
}

bool SimServer::refusing()
{
    std::lock_guard<std::mutex> lock(m_wakeLock);
    return std::chrono::steady_clock::now() < m_refuseUntil;
}

void SimServer::acceptLoop(std::promise<bool> *listening)
{
    Listener server;
    QHostAddress address;
    bool ok = address.setAddress(d->address);
    if (!ok)
        m_listenError = QStringLiteral("not an IP address");
    else if (!(ok = server.listen(address, d->port)))
        m_listenError = server.errorString();
    listening->set_value(ok);   // the caller's promise is not touched after this
    if (!ok)
        return;
    while (!m_stopping) {
        if (refusing()) {
            // Down for a restart: connection attempts are refused meanwhile.
            if (server.isListening()) {
                server.close();
                {
                    std::lock_guard<std::mutex> lock(m_wakeLock);
                    m_listenerDown = true;
                }
                m_wake.notify_all();
            }
            pause(kPollMs);
        } else if (!server.isListening() && !server.listen(QHostAddress(d->address), d->port)) {
            pause(kPollMs);
        }
        if (server.isListening())
            server.waitForNewConnection(kPollMs);
        for (qintptr descriptor : server.pending) {
            auto worker = std::make_unique<Worker>();
            Worker *w = worker.get();
            w->thread = std::thread([this, w, descriptor] {
                serveConnection(descriptor);
                w->done = true;
            });
            m_workers.push_back(std::move(worker));
        }
        server.pending.clear();
        for (auto it = m_workers.begin(); it != m_workers.end();) {
            if ((*it)->done) {
                (*it)->thread.join();
                it = m_workers.erase(it);
            } else {
                ++it;
            }
        }
    }
    server.close();
    for (auto &worker : m_workers)
        worker->thread.join();
    m_workers.clear();
}

void SimServer::serveConnection(qintptr descriptor)
{
    QTcpSocket socket;
    if (!socket.setSocketDescriptor(descriptor))
        return;
    socket.setSocketOption(QAbstractSocket::LowDelayOption, 1);
    // Taken before the connection counts as open, so a restart that follows
    // a connection seen open closes it.
    const int generation = m_generation;
    d->connectionOpened();
    const std::shared_ptr<SimPcap> pcap = d->recorder();
    SimPcap::Stream stream;
    if (pcap)
        stream = pcap->opened(socket.peerAddress().toIPv4Address(), socket.peerPort(),
                              socket.localAddress().toIPv4Address(), socket.localPort());
    const Sender record = [&](const QByteArray &bytes) {
        if (pcap)
            pcap->data(stream, false, bytes);
    };
    const auto send = [&](const QByteArray &bytes) {
        record(bytes);
        sendAll(socket, bytes);
    };
    QByteArray input;
    SimSession session;
    const auto current = [this, generation] { return !m_stopping && m_generation == generation; };
    bool open = true;
    while (open && current()) {
        if (!socket.waitForReadyRead(kPollMs)) {
            if (socket.state() != QAbstractSocket::ConnectedState)
                break;
            continue;
        }
        const QByteArray received = socket.readAll();
        if (pcap)
            pcap->data(stream, true, received);
        input.append(received);
        while (open) {
            const int len = SimFrame::frameLength(input);
            if (len == 0)
                break;
            if (len < 0) {
                open = false;   // a broken header leaves no way to find the next frame
                break;
            }
            const QByteArray frame = input.left(len);
            input.remove(0, len);
            const SimAction action = d->serve(frame, session);
            if (action.kind == SimAction::Close) {
                open = false;
            } else if (action.kind == SimAction::Restart) {
                restart(action.delayMs);
                open = false;
            } else if (action.kind == SimAction::Stream) {
                send(action.bytes);
                streamUntil(socket, record, current);
                open = false;
            } else if (action.kind == SimAction::Reply) {
                if (action.delayMs > 0 && !pause(action.delayMs)) {
                    open = false;
                } else if (action.splitPauseMs >= 0) {
                    const int half = qMax(1, action.bytes.size() / 2);
                    send(action.bytes.left(half));
                    open = pause(action.splitPauseMs);
                    if (open)
                        send(action.bytes.mid(half));
                } else {
                    send(action.bytes);
                }
            }
        }
    }
    if (pcap)
        pcap->closed(stream, socket.state() != QAbstractSocket::ConnectedState);
    if (!current()) {
        socket.abort();   // stopping, or the controller went down for a restart
    } else {
        socket.disconnectFromHost();
        if (socket.state() != QAbstractSocket::UnconnectedState)
            socket.waitForDisconnected(kWriteWaitMs);
    }
    d->connectionClosed();
}
