#include "SimServer.h"
#include "ControllerSimPrivate.h"
#include "SimFrame.h"

#include <QHostAddress>
#include <QTcpServer>
#include <QTcpSocket>
#include <QVector>

#include <chrono>
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

void sendAll(QTcpSocket &socket, const QByteArray &bytes)
{
    socket.write(bytes);
    while (socket.bytesToWrite() > 0 && socket.waitForBytesWritten(kWriteWaitMs)) {
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

bool SimServer::start()
{
    std::promise<bool> listening;
    std::future<bool> result = listening.get_future();
    m_acceptor = std::thread(&SimServer::acceptLoop, this, &listening);
    if (result.get())
        return true;
    m_acceptor.join();
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

void SimServer::acceptLoop(std::promise<bool> *listening)
{
    Listener server;
    const bool ok = server.listen(QHostAddress(d->address), d->port);
    listening->set_value(ok);   // the caller's promise is not touched after this
    if (!ok)
        return;
    while (!m_stopping) {
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
    d->connectionOpened();
    QByteArray input;
    SimSession session;
    bool open = true;
    while (open && !m_stopping) {
        if (!socket.waitForReadyRead(kPollMs)) {
            if (socket.state() != QAbstractSocket::ConnectedState)
                break;
            continue;
        }
        input.append(socket.readAll());
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
            } else if (action.kind == SimAction::Reply) {
                if (action.delayMs > 0 && !pause(action.delayMs)) {
                    open = false;
                } else if (action.splitPauseMs >= 0) {
                    const int half = qMax(1, action.bytes.size() / 2);
                    sendAll(socket, action.bytes.left(half));
                    open = pause(action.splitPauseMs);
                    if (open)
                        sendAll(socket, action.bytes.mid(half));
                } else {
                    sendAll(socket, action.bytes);
                }
            }
        }
    }
    if (m_stopping) {
        socket.abort();
    } else {
        socket.disconnectFromHost();
        if (socket.state() != QAbstractSocket::UnconnectedState)
            socket.waitForDisconnected(kWriteWaitMs);
    }
    d->connectionClosed();
}
