// The benchmark's controller: a minimal responder with blocking sockets, one
// thread per connection, no Qt, in a process of its own (forked), so that its
// CPU never counts as the library's and both the library and the raw client
// in the same run talk to the very same server.
//
// It answers the requests the benchmark sends, with the reply layouts of the
// controller protocol ('p', 'B', 'D', 'd' 1-6), on port 60000, and a
// Modbus-TCP-style "read holding registers" (function 3) on kModbusPort, for
// the per-variable floor of that protocol. It keeps no variables or files:
// a read returns each address as its value, text is counted and dropped.
#ifndef MINISERVER_H
#define MINISERVER_H

#include <atomic>
#include <cstdint>

#include <pthread.h>
#include <sys/types.h>

class MiniServer
{
public:
    enum : int { kPort = 60000, kModbusPort = 60502 };

    // Counters shared with the server process.
    struct Counters {
        std::atomic<std::uint64_t> requests;
        std::atomic<std::uint64_t> values;      // 'B' values and Modbus registers served
        std::atomic<std::uint64_t> textBytes;   // text of 'd' 2 and 3 requests
        std::atomic<int> busyEvery;             // every n-th text request answered "busy" (0: none)
        std::atomic<std::uint64_t> busyReplies;
        std::atomic<int> busyPolls;             // send-next requests still to be answered "busy"
        std::atomic<std::uint64_t> textTarget;  // waitText() wakes when textBytes reaches it
        pthread_mutex_t mutex;
        pthread_cond_t cond;
    };

    MiniServer() = default;
    ~MiniServer();
    MiniServer(const MiniServer &) = delete;
    MiniServer &operator=(const MiniServer &) = delete;

    // Forks the server, listening on `address`; true once it accepts.
    bool start(const char *address);
    void stop();
    pid_t pid() const { return m_pid; }
    Counters &counters() { return *m_counters; }

    // Waits until the server has received `bytes` text bytes in all; false
    // after `timeoutMs`.
    bool waitText(std::uint64_t bytes, int timeoutMs);

private:
    Counters *m_counters = nullptr;
    pid_t m_pid = -1;
};

#endif
