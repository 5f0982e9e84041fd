#ifndef TESTSUPPORT_H
#define TESTSUPPORT_H

// Small helpers shared by the link and operation tests.

#include <QDir>
#include <QString>
#include <QTemporaryDir>

#include <chrono>
#include <thread>

// Polls `done` every 5 ms for at most `ms`: every wait of the tests is
// bounded. Plain threads and clocks, so it also serves programs that have
// no application object.
template <typename F>
bool waitFor(F done, int ms = 5000)
{
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
    while (!done()) {
        if (std::chrono::steady_clock::now() > end)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return true;
}

// Clients create "logs" under the working directory, and the log writes
// there: a test program works in a scratch directory of its own and goes
// back where it came from when it is done.
class ScratchDir
{
public:
    bool enter()
    {
        m_old = QDir::currentPath();
        return m_dir.isValid() && QDir::setCurrent(m_dir.path());
    }
    void leave()
    {
        if (!m_old.isEmpty())
            QDir::setCurrent(m_old);
        m_old.clear();
    }
    ~ScratchDir() { leave(); }
    QString path() const { return m_dir.path(); }

private:
    QTemporaryDir m_dir;
    QString m_old;
};

#endif
