#ifndef TESTSUPPORT_H
#define TESTSUPPORT_H

// Small helpers shared by the link and operation tests.

#include <QByteArray>
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

// Frames as the tests write them down. In a namespace of their own: a test
// may have helpers of the same names.
namespace wire {

// Bytes from hex text; blanks are for the reader.
inline QByteArray hex(const char *text)
{
    return QByteArray::fromHex(QByteArray(text).replace(' ', ""));
}

// The whole TCP frame around a PDU: four zero bytes, the length of unit and
// PDU (little-endian), unit 0, the PDU.
inline QByteArray frame(const QByteArray &pdu)
{
    const int length = pdu.size() + 1;
    return QByteArray(4, '\0') + char(length & 0xff) + char(length >> 8) + '\0' + pdu;
}

} // namespace wire

// Faults in the simulator's own syntax, comma-separated ("d:2=state:3:1,
// d:2=silence"), queued in order; false on one it cannot read. A template,
// so that programs without the simulator can include this header.
template <typename Sim>
bool addFaults(Sim &sim, const QString &faults)
{
    for (const QString &item : faults.split(',', Qt::SkipEmptyParts)) {
        char letter = 0;
        int sub = -1;
        typename Sim::Fault fault;
        if (!Sim::parseFault(item, &letter, &sub, &fault))
            return false;
        sim.addFault(letter, sub, fault);
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
