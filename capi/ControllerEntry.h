#ifndef CONTROLLERENTRY_H
#define CONTROLLERENTRY_H

#include "AsynchronousClient.h"
#include "ThreadTexts.h"

#include <QByteArray>
#include <QList>

// One registered controller: its clients, its address and the texts the C
// interface hands out for it (owned here so the pointers stay valid).
class ControllerEntry
{
public:
    ControllerEntry();
    ~ControllerEntry();   // stops and deletes every client

    // Variables, bits, reset, cycle start, error files, watchdog.
    AsynchronousClient *mainClient() { return &m_mainClient; }
    // Running-program queries.
    AsynchronousClient *programClient() { return &m_programClient; }
    // File transfer of DNC channel 1..channelCount(); null outside.
    AsynchronousClient *channelClient(long int channel);
    int channelCount() const { return m_channelCount; }
    // Creates channel clients until there are `count` (never fewer than one,
    // never more than the highest channel number, 99).
    void setChannelCount(int count);

    const QByteArray &address() const { return m_address; }
    void setAddress(const QByteArray &address) { m_address = address; }

    // Texts returned by getRuningPrg: each host thread's stays valid until
    // that thread asks again for this controller.
    ThreadTexts &runningProgramTexts() { return m_runningProgram; }

private:
    Q_DISABLE_COPY(ControllerEntry)

    AsynchronousClient m_mainClient;
    AsynchronousClient m_programClient;
    QList<AsynchronousClient *> m_channelClients;
    int m_channelCount = 1;
    QByteArray m_address;
    ThreadTexts m_runningProgram;
};

#endif
