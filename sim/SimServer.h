#ifndef SIMSERVER_H
#define SIMSERVER_H

#include "SimMachine.h"

#include <QHash>
#include <QObject>

class ControllerSimPrivate;
class QTcpServer;
class QTcpSocket;

// Lives on the simulator's thread: accepts connections, cuts the byte stream
// into frames and sends what ControllerSimPrivate::serve decides, with the
// timing faults (delay, split) done by timers so other connections go on.
class SimServer : public QObject
{
    Q_OBJECT
public:
    explicit SimServer(ControllerSimPrivate *d);
    ~SimServer() override;
    bool listen();

private:
    struct Connection {
        QByteArray input;
        SimSession session;
        bool held = false;  // a delayed or split reply is on its way
    };

    void accept();
    void process(QTcpSocket *socket);
    void release(QTcpSocket *socket);
    void dropped(QTcpSocket *socket);

    ControllerSimPrivate *d;
    QTcpServer *server;
    QHash<QTcpSocket *, Connection> connections;
};

#endif
