#ifndef CLIENTLOCK_H
#define CLIENTLOCK_H

#include "TsanAnnotations.h"

#include <QMutex>

// The client lock: a QMutex that tells ThreadSanitizer about its hand-overs.
// A QMutex rather than a standard mutex, because some transfer paths return
// with the lock held on purpose: a later lock from any thread, the same one
// included, then simply blocks, where a standard mutex would be undefined.
// Usable with std::unique_lock and std::lock_guard.
class ClientLock
{
public:
    void lock()
    {
        m_mutex.lock();
        tsanAcquire(this);
    }
    bool try_lock()
    {
        if (!m_mutex.tryLock())
            return false;
        tsanAcquire(this);
        return true;
    }
    void unlock()
    {
        tsanRelease(this);
        m_mutex.unlock();
    }
    // Qt spelling, for code that reads like the rest of the client.
    bool tryLock() { return try_lock(); }

private:
    QMutex m_mutex;
};

#endif
