// Program control: reset a channel, start a program, ask what runs.
#include "AsynchronousClient.h"

#include <QDebug>

namespace {

const char kResetSig[] = "long int AsynchronousClient::reset(long int)";
const char kCycStartSig[] = "long int AsynchronousClient::cycStart(long int, char*)";

// The running-program text is filed under this key ('g' sub-code 5).
const int kRunningProgramKey = 4;
const int kRunningProgramSelector = 4;
const int kThreadModeWaitMs = 200;

const int kResetCategory = 7;
const int kCycStartCategory = 8;

bool validChannel(long int channel)
{
    return channel >= 1 && channel <= HProtocol_Client::kMaxChannel;
}

} // namespace

long int AsynchronousClient::reset(long int channel)
{
    return runOperation(kResetSig, [&]() {
        if (!validChannel(channel)) {
            if (debugErrors())
                qDebug().noquote() << kResetSig << " ParError channel=" << channel;
            return 0;
        }
        return buildReset(quint8(channel));
    });
}

long int AsynchronousClient::cycStart(long int channel, char *fileName)
{
    return runOperation(kCycStartSig, [&]() {
        if (!validChannel(channel)) {
            // The controller's own tools look for this word; the fault is the channel.
            if (debugErrors())
                qDebug().noquote() << kCycStartSig << " SocketDisconnected channel=" << channel;
            return 0;
        }
        if (!fileName) {
            if (debugErrors())
                qDebug().noquote() << kCycStartSig << " ParError fileName=" << "null";
            return 0;
        }
        return buildCycStart(quint8(channel), fileName);
    });
}

QByteArray AsynchronousClient::getRuningPrg(int channel)
{
    std::unique_lock<ClientLock> lock(m_mutex);
    // Tested as the byte the controller sees: 257 passes as 1.
    if (quint8(unsigned(channel) - 1u) >= 98)   // unsigned: INT_MIN must not overflow
        return QByteArray();
    {
        // A name from an earlier query must not pass for this answer.
        std::lock_guard<std::mutex> data(m_opsMutex);
        m_recTexts.clear();
    }
    const QByteArray name = QByteArray::number(quint8(channel));
    queueFrame(buildGetStr(kRunningProgramSelector, name.constData()));
    if (isDirectMode()) {
        if (!exchangeNext()) {
            // The no-reply status travels as the text's only character.
            return QByteArray(1, char(StatusNoReply));
        }
        if (m_errorFlag.load())
            return QByteArray();
    } else {
        // The client's thread sends it; give it the time of one answer.
        wait(kThreadModeWaitMs);
    }
    std::lock_guard<std::mutex> data(m_opsMutex);
    return m_recTexts.value(kRunningProgramKey, QByteArrayLiteral("Unknown"));
}

void AsynchronousClient::onRecCmdReset(int state)
{
    if (state == 0) {
        m_errorFlag.store(0);
        return;
    }
    m_errorFlag.store(1);
    onErrorOccured(kResetCategory, state, state == 1 ? "parameters error." : "program is runing.");
}

void AsynchronousClient::onRecCmdCycStart(int state)
{
    if (state == 0) {
        m_errorFlag.store(0);
        return;
    }
    m_errorFlag.store(1);
    const char *text = "program is runing.";
    if (state == 1)
        text = "parameters error.";
    else if (state == 3)
        text = "file is not exist.";
    onErrorOccured(kCycStartCategory, state, text);
}

void AsynchronousClient::onRecCmdGetStr(int selector, const char *text, int length)
{
    QByteArray value;
    if (text && length > 0)
        value = QByteArray(text, length);
    const int end = value.indexOf('\0');
    if (end >= 0)
        value.truncate(end);
    // A good answer ends an earlier error reply's hold on the next query.
    m_errorFlag.store(0);
    std::lock_guard<std::mutex> data(m_opsMutex);
    m_recTexts.insert(selector, value);
}
