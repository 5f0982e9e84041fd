#ifndef SIMSERVER_H
#define SIMSERVER_H

#include <QString>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <future>
#include <list>
#include <memory>
#include <mutex>
#include <thread>

class ControllerSimPrivate;

// Serves the simulator's port with blocking socket calls on plain threads:
// one thread accepts, one thread per connection cuts its byte stream into
// frames and sends what ControllerSimPrivate::serve decides. Nothing here
// needs an event loop, so the simulator also serves in a process that never
// creates a QCoreApplication (Qt delivers no events to threads there). A
// delayed or split reply simply blocks its own connection's thread, which
// holds back that connection's later requests and nobody else's.
class SimServer
{
public:
    explicit SimServer(ControllerSimPrivate *d);
    ~SimServer();
    SimServer(const SimServer &) = delete;
    SimServer &operator=(const SimServer &) = delete;

    // Binds and starts accepting; false, with the reason, when the address
    // cannot be bound.
    bool start(QString *error = nullptr);
    // Closes every connection and joins every thread.
    void stop();

private:
    struct Worker {
        std::thread thread;
        std::atomic<bool> done{false};
    };

    void acceptLoop(std::promise<bool> *listening);
    void serveConnection(qintptr descriptor);
    // Sleeps ms unless stop() comes first; false when stopping.
    bool pause(int ms);
    // A restart: every connection of this generation ends, and the listener
    // is closed for ms.
    void restart(int ms);
    bool refusing();

    ControllerSimPrivate *d;
    std::atomic<bool> m_stopping{false};
    std::atomic<int> m_generation{0};     // a restart ends the connections of older ones
    std::chrono::steady_clock::time_point m_refuseUntil;  // under m_wakeLock
    bool m_listenerDown = false;                          // under m_wakeLock
    std::mutex m_wakeLock;
    std::condition_variable m_wake;
    std::thread m_acceptor;
    QString m_listenError;   // written before start() learns the result
    std::list<std::unique_ptr<Worker>> m_workers;  // acceptor thread only
};

#endif
