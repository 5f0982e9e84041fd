// Oscilloscope sampling: choose the signals, switch the transfer, fetch the
// points. Held ready on every client; no C entry point calls these yet.
#include "AsynchronousClient.h"

#include <QDebug>

namespace {

const char kSetOscAxisSig[] = "long int AsynchronousClient::setOscAxis(long int, long int, long int)";
const char kSetOscTransEnSig[] = "long int AsynchronousClient::setOscTransEn(long int)";
const char kGetOscPointSig[] = "long int AsynchronousClient::getOscPoint(long int, long int*, int)";

const int kOscCategory = 1;

} // namespace

long int AsynchronousClient::setOscAxis(long int a, long int b, long int c)
{
    return runOperation(kSetOscAxisSig, [&]() { return buildSetOscAxis(qint32(a), qint32(b), qint32(c)); });
}

long int AsynchronousClient::setOscTransEn(long int enable)
{
    return runOperation(kSetOscTransEnSig, [&]() { return buildSetOscTransEn(qint32(enable)); });
}

long int AsynchronousClient::getOscPoint(long int selector, long int *out, int count)
{
    std::unique_lock<ClientLock> lock(m_mutex);
    if (linkDown(kGetOscPointSig))
        return StatusDisconnected;
    if (!out) {
        if (debugErrors())
            qDebug().noquote() << kGetOscPointSig << " ParError out=" << "null";
        return StatusParError;
    }
    {
        std::lock_guard<std::mutex> data(m_opsMutex);
        m_oscPoints.clear();
    }
    // A count outside 1..maxRdVar builds nothing; the empty entry is queued
    // all the same and the exchange then finds nothing to send.
    long int result = queueFrame(buildGetOscPoint(qint32(selector), qint32(count)));
    if (isDirectMode()) {
        if (!exchangeNext())
            return StatusNoReply;
        // The controller's get-points reply is read the other way round:
        // a clear error flag gives 3.
        if (!m_errorFlag.load())
            result = StatusErrorReply;
    }
    std::lock_guard<std::mutex> data(m_opsMutex);
    if (m_oscPoints.isEmpty())
        return StatusNoPoints;
    // Every point held goes out, even past count; short replies are padded
    // with 0 up to count.
    int i = 0;
    for (; i < m_oscPoints.size(); ++i)
        out[i] = m_oscPoints.at(i);
    for (; i < count; ++i)
        out[i] = 0;
    return result;
}

static void oscStateReply(AsynchronousClient *client, std::atomic<int> &errorFlag, int state, const char *text)
{
    if (state == 1) {
        errorFlag.store(0);
        return;
    }
    errorFlag.store(1);
    if (state == 0)
        client->onErrorOccured(kOscCategory, state, text);
}

void AsynchronousClient::onRecCmdSetOscAxis(int state)
{
    oscStateReply(this, m_errorFlag, state, "SetOscAxis error.");
}

void AsynchronousClient::onRecCmdSetOscTransEn(int state)
{
    oscStateReply(this, m_errorFlag, state, "SetOscTransEn error.");
}

void AsynchronousClient::onRecCmdGetOscPoint(int state, const qint32 *points, int count)
{
    m_errorFlag.store(state == 1 ? 0 : 1);
    std::lock_guard<std::mutex> data(m_opsMutex);
    for (int i = 0; points && i < count; ++i)
        m_oscPoints.append(points[i]);
}
