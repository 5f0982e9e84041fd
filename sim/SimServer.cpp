#include "SimServer.h"
#include "ControllerSimPrivate.h"
#include "SimFrame.h"

#include <QHostAddress>
#include <QPointer>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTimer>

SimServer::SimServer(ControllerSimPrivate *d)
    : d(d), server(new QTcpServer(this))
{
    connect(server, &QTcpServer::newConnection, this, &SimServer::accept);
}

SimServer::~SimServer()
{
    // The sockets are the server's children and go with it; cut them loose
    // from our slots first so their last signals find nothing.
    for (auto it = connections.begin(); it != connections.end(); ++it) {
        disconnect(it.key(), nullptr, this, nullptr);
        it.key()->abort();
        d->connectionClosed();
    }
    connections.clear();
}

bool SimServer::listen()
{
    return server->listen(QHostAddress(d->address), d->port);
}

void SimServer::accept()
{
    while (QTcpSocket *socket = server->nextPendingConnection()) {
        socket->setSocketOption(QAbstractSocket::LowDelayOption, 1);
        connections.insert(socket, Connection());
        d->connectionOpened();
        connect(socket, &QTcpSocket::readyRead, this, [this, socket] { process(socket); });
        connect(socket, &QTcpSocket::disconnected, this, [this, socket] { dropped(socket); });
        if (socket->bytesAvailable() > 0)
            process(socket);
    }
}

void SimServer::dropped(QTcpSocket *socket)
{
    if (connections.remove(socket))
        d->connectionClosed();
    socket->deleteLater();
}

void SimServer::release(QTcpSocket *socket)
{
    auto it = connections.find(socket);
    if (it == connections.end())
        return;
    it->held = false;
    process(socket);
}

void SimServer::process(QTcpSocket *socket)
{
    auto it = connections.find(socket);
    if (it == connections.end())
        return;
    it->input.append(socket->readAll());
    while (!it->held) {
        const int len = SimFrame::frameLength(it->input);
        if (len == 0)
            return;
        if (len < 0) {
            // A broken header leaves no way to find the next frame.
            it->input.clear();
            socket->disconnectFromHost();
            return;
        }
        const QByteArray frame = it->input.left(len);
        it->input.remove(0, len);
        const SimAction action = d->serve(frame, it->session);
        if (action.kind == SimAction::Close) {
            it->input.clear();
            it->held = true;
            socket->disconnectFromHost();
            return;
        }
        if (action.kind == SimAction::Nothing)
            continue;
        if (action.delayMs <= 0 && action.splitPauseMs < 0) {
            socket->write(action.bytes);
            continue;
        }
        it->held = true;
        QPointer<QTcpSocket> guard(socket);
        const QByteArray bytes = action.bytes;
        const int pause = action.splitPauseMs;
        auto send = [this, guard, bytes, pause] {
            if (!guard)
                return;
            if (pause < 0) {
                guard->write(bytes);
                release(guard);
                return;
            }
            const int half = qMax(1, bytes.size() / 2);
            guard->write(bytes.left(half));
            guard->flush();
            QTimer::singleShot(pause, this, [this, guard, bytes, half] {
                if (!guard)
                    return;
                guard->write(bytes.mid(half));
                release(guard);
            });
        };
        if (action.delayMs > 0)
            QTimer::singleShot(action.delayMs, this, send);
        else
            send();
        return;
    }
}
