#include "ControllerEntry.h"

ControllerEntry::ControllerEntry()
{
    m_channelClients.append(new AsynchronousClient);
}

ControllerEntry::~ControllerEntry()
{
    // All loops stop together: each may be inside its reply waits.
    m_mainClient.requestStop();
    m_programClient.requestStop();
    for (AsynchronousClient *client : qAsConst(m_channelClients))
        client->requestStop();
    qDeleteAll(m_channelClients);
    m_channelClients.clear();
}

AsynchronousClient *ControllerEntry::channelClient(long int channel)
{
    if (channel < 1 || channel > m_channelClients.size())
        return nullptr;
    return m_channelClients.at(int(channel - 1));
}

void ControllerEntry::setChannelCount(int count)
{
    // Channels above the protocol's highest one could never be used (file
    // transfer refuses them), and a huge count would exhaust the host.
    count = qMin(count, int(HProtocol_Client::kMaxChannel));
    while (m_channelClients.size() < count)
        m_channelClients.append(new AsynchronousClient);
    m_channelCount = m_channelClients.size();
}
