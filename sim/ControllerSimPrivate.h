#ifndef CONTROLLERSIMPRIVATE_H
#define CONTROLLERSIMPRIVATE_H

#include "ControllerSim.h"
#include "SimMachine.h"

#include <QList>
#include <QMap>
#include <QPair>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>

class SimServer;
class SimPcap;

// What the serving thread does with one request frame.
struct SimAction
{
    // Stream: send bytes, then junk until the peer goes. Restart: close
    // every connection and refuse new ones for delayMs.
    enum Kind { Reply, Nothing, Close, Stream, Restart };
    Kind kind = Nothing;
    QByteArray bytes;   // what to send: the reply frame(s)
    int delayMs = 0;
    int splitPauseMs = -1;  // >= 0: send in two segments this far apart
};

// Shared between the public object (any thread) and the serving threads;
// everything below the mutex is guarded by it. Standard primitives, so that
// ThreadSanitizer sees the simulator's synchronisation.
class ControllerSimPrivate
{
public:
    ControllerSimPrivate(const QString &address, quint16 port);
    ~ControllerSimPrivate();

    // Records the frame, picks the fault and carries out the request.
    SimAction serve(const QByteArray &frame, SimSession &session);
    void connectionOpened();
    void connectionClosed();
    std::shared_ptr<SimPcap> recorder() const;
    static QByteArray garbage(int size);
    // A 'B' reply PDU made to carry `count` values.
    static QByteArray withCount(const QByteArray &pdu, int count);

    const QString address;
    const quint16 port;

    mutable std::mutex mutex;
    mutable std::condition_variable requestArrived;
    SimMachine machine;
    struct FaultEntry {
        ControllerSim::Fault fault;
        int seen = 0;
    };
    // Per command, the faults still to come, in order: the first one acts
    // until its count runs out, then the next takes over.
    QMap<QPair<char, int>, QList<FaultEntry>> faults;
    QList<QByteArray> record;
    bool recording = true;
    std::function<void(const QByteArray &)> logger;
    std::shared_ptr<SimPcap> pcap;
    int openConnections = 0;
    int acceptedConnections = 0;

    std::unique_ptr<SimServer> server;  // only touched by start/stop, under startStop
    mutable std::mutex startStop;
};

#endif
