#ifndef FIRSTCONNECT_H
#define FIRSTCONNECT_H

#include <atomic>
#include <mutex>

// Held around a QTcpSocket's connect. Qt sets up networking globals of its
// own during a process's first connect and hands them to other threads
// through its own atomics, which ThreadSanitizer cannot follow (Qt is not
// instrumented): two clients connecting at once then look like a race
// inside QtCore. So the process's first connect runs alone, and every later
// one sees it finished through the flag. Only the very first connects wait,
// for one connect at most.
class FirstConnect
{
public:
    FirstConnect()
    {
        if (!s_done.load(std::memory_order_acquire))
            m_lock = std::unique_lock<std::mutex>(s_lock);
    }
    ~FirstConnect()
    {
        if (m_lock.owns_lock())
            s_done.store(true, std::memory_order_release);
    }
    FirstConnect(const FirstConnect &) = delete;
    FirstConnect &operator=(const FirstConnect &) = delete;

private:
    static inline std::mutex s_lock;
    static inline std::atomic<bool> s_done{false};
    std::unique_lock<std::mutex> m_lock;
};

#endif
