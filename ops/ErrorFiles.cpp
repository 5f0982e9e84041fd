// Controller error files: ask the controller to write the current or history
// error file of a channel, then read it with the remote file commands.
#include "AsynchronousClient.h"

#include <QDebug>
#include <QElapsedTimer>
#include <QThread>

namespace {

const char kGetCncCurrentErrorSig[] = "char* AsynchronousClient::getCncCurrentError(long int)";

const int kFileCategory = 1;
const int kAlarmState = 100;
// Stands for "no read reply reached the handler" (an error reply instead);
// outside the range of the count byte that a read reply carries.
const int kNoReadReply = 1000;
// Bytes of a read reply around its piece: header, letter, sub, count.
const int kReadReplyOverhead = 10;
// Where a read stops however much the controller still sends; the status
// digit of such a text is '5'.
const int kErrorFileMaxBytes = 64 * 1024;
const int kErrorFileMaxMs = 10000;
const long int kErrorFileBoundDigit = 5;

// Selector = 10 * channel index (0..8) + 0 current / 1 history.
QByteArray errorFilePath(long int selector)
{
    if (selector < 0 || selector > 81 || selector % 10 > 1)
        return QByteArray();
    return QByteArray("sys000") + char('0' + selector / 10)
        + (selector % 10 ? "/error/hisError.error" : "/error/curError.error");
}

} // namespace

// The two hand-over calls do what fileWriteVars and fileReadVars do, one
// variable in one frame, without taking the client lock again; like them
// they send nothing in thread mode.
long int AsynchronousClient::writeVarLocked(qint32 address, qint32 value)
{
    if (!isDirectMode())
        return StatusOk;
    return sendVarFrame(buildWriteVars(&address, &value, 1));
}

long int AsynchronousClient::readVarLocked(qint32 address, qint32 *value)
{
    if (!isDirectMode())
        return StatusOk;
    {
        // The value map is the result table of a read, as for every read.
        std::unique_lock<std::mutex> data(m_dataMutex);
        m_values.clear();
    }
    const long int status = sendVarFrame(buildReadVars(&address, 1), &address, 1);
    std::unique_lock<std::mutex> data(m_dataMutex);
    *value = m_values.value(address, *value);   // unchanged when no value came
    return status;
}

void AsynchronousClient::finishErrorFile()
{
    m_fileOpened = false;
    m_moreToRead = false;
    m_somethingRead = false;
}

char *AsynchronousClient::getCncCurrentError(long int selector)
{
    std::unique_lock<ClientLock> lock(m_mutex);
    m_cncErrorText = "0";
    // The text goes to the calling thread's own copy, which the next call
    // of another thread leaves alone.
    auto finish = [this, &lock](char digit, const char *words) {
        finishErrorFile();
        if (words)
            m_cncErrorText.truncate(1);
        m_cncErrorText[0] = digit;
        if (words)
            m_cncErrorText += words;
        const QByteArray text = m_cncErrorText;
        lock.unlock();
        return m_errorTexts.store(text);
    };
    const auto linkLost = [&]() {
        // The socket's own error text is logged by linkDown().
        return finish('7', "SocketDisconnected");
    };
    if (linkDown(kGetCncCurrentErrorSig))
        return linkLost();
    const QByteArray path = errorFilePath(selector);
    if (path.isEmpty()) {
        if (debugErrors())
            qDebug() << "getCncCurrentError" << "Channel selection error";
        return finish('9', "Channel selection error");
    }

    // The controller writes the file and clears the kind variable when done.
    writeVarLocked(kErrorFileChannelVar, qint32(selector / 10));
    writeVarLocked(kErrorFileKindVar, qint32(selector % 10 + 1));
    QThread::msleep(unsigned(m_errorFileWaitMs.load()));
    // A read that brings nothing counts as not written; in thread mode the
    // file-variable calls send nothing, so the answer there is '8'.
    qint32 kind = 1;
    readVarLocked(kErrorFileKindVar, &kind);
    if (linkDown(kGetCncCurrentErrorSig))
        return linkLost();
    if (kind != 0) {
        if (debugErrors())
            qDebug() << "getCncCurrentError" << "timeout get curErrorerror file";
        return finish('8', "timeout get curErrorerror file");
    }

    // No reply inside open/read/close: '8' (or '7' when the link went),
    // followed by what was read so far. Never '0' for an answer not had.
    auto noReply = [&]() {
        if (linkDown(kGetCncCurrentErrorSig))
            return linkLost();
        return finish('8', nullptr);
    };

    m_readFileState.store(0);   // only this call's replies count
    long int result = queueFrame(buildOpenReadFile(path.constData()));
    if (isDirectMode()) {
        if (!exchangeNext())
            return noReply();
        if (!m_errorFlag.load()) {
            if (m_readFileState.load() == kAlarmState) {
                result = StatusAlarm;
            } else if (result == StatusOk) {
                m_fileOpened = true;
                m_moreToRead = true;
            }
        } else {
            result = m_readFileState.load() == kAlarmState ? long(StatusAlarm) : long(StatusErrorReply);
        }
    }
    if (!m_fileOpened && debugErrors())
        qDebug() << "getCncCurrentError" << "CncErrorFile open false";

    // Error files are small: a controller that sends pieces without end is
    // stopped at a size and a time, and the text says so with its digit.
    QElapsedTimer clock;
    clock.start();
    while (m_fileOpened && m_moreToRead) {
        if (m_cncErrorText.size() - 1 >= kErrorFileMaxBytes || clock.elapsed() >= kErrorFileMaxMs) {
            if (debugErrors())
                qDebug() << "getCncCurrentError" << "CncErrorFile too long";
            m_cncErrorText.truncate(1 + kErrorFileMaxBytes);
            result = kErrorFileBoundDigit;
            break;
        }
        m_readFileState.store(kNoReadReply);
        queueFrame(buildReadFile());
        if (!exchangeNext())
            return noReply();
        if (!m_errorFlag.load()) {
            m_somethingRead = true;
            continue;
        }
        // A read reply without a piece is the end of the file, unless its
        // count byte is the controller's alarm; an error reply is an error.
        m_moreToRead = false;
        const int state = m_readFileState.load();
        if (state == kAlarmState)
            result = StatusAlarm;
        else if (state == kNoReadReply)
            result = StatusErrorReply;
        if (!m_somethingRead && debugErrors())
            qDebug() << "getCncCurrentError" << "CncErrorFile read false";
    }

    if (m_somethingRead) {
        m_readFileState.store(0);
        queueFrame(buildCloseReadFile());
        if (!exchangeNext())
            return noReply();
        if (m_errorFlag.load() && result != kErrorFileBoundDigit)
            result = m_readFileState.load() == kAlarmState ? long(StatusAlarm) : long(StatusErrorReply);
    }

    if (debugDetails())
        qDebug() << "datez_size" << m_cncErrorText.size();
    // 100 shows as '1': the digit is the first one of the code.
    return finish(QByteArray::number(qlonglong(result)).at(0), nullptr);
}

// Open and close answer 1 for success; 0 is reported, other states only
// set the flag.
static void fileStateReply(AsynchronousClient *client, std::atomic<int> &errorFlag, std::atomic<int> &lastState,
                           int state, const char *handler, const char *failure, bool logDetails)
{
    if (logDetails)
        qDebug() << handler << "state = " << state;
    lastState.store(state);
    if (state == 1) {
        errorFlag.store(0);
        return;
    }
    errorFlag.store(1);
    if (state == 0)
        client->onErrorOccured(kFileCategory, state, failure);
}

void AsynchronousClient::onRecCmdOpenReadFile(int state)
{
    fileStateReply(this, m_errorFlag, m_readFileState, state, "onRecCmdOpenReadFile", "opening file error.",
                   debugDetails());
}

void AsynchronousClient::onRecCmdCloseReadFile(int state)
{
    fileStateReply(this, m_errorFlag, m_readFileState, state, "onRecCmdCloseReadFile", "closing file error.",
                   debugDetails());
}

void AsynchronousClient::onRecCmdReadFile(const quint8 *data, int size)
{
    const int n = data ? int(static_cast<qint8>(data[0])) : -1;
    if (debugDetails())
        qDebug() << "onRecCmdReadFile" << "state = " << 0 << "recsize = " << n << "size =" << size;
    if (n >= 0 && size == n + kReadReplyOverhead) {
        m_cncErrorText.append(reinterpret_cast<const char *>(data + 1), n);
        m_errorFlag.store(0);
        m_readFileState.store(0);
        return;
    }
    // No piece: every file ends this way, so it is only logged. The count
    // byte stands as the state, which is how the controller's alarm comes.
    m_errorFlag.store(1);
    m_readFileState.store(n);
    if (debugErrors())
        qDebug() << "read file error.(Accept the wrong size)";
}
