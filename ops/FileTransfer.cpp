// File transfer into a channel's DNC memory: announce the file, send the text
// in 400-byte chunks (overwrite, then appends), close the transfer.
//
// Lock discipline, kept as the controller tools expect it: when a direct
// exchange reports the controller alarm (100), or overwrite sees an error or
// a full memory, the call returns with m_mutex still held. The client is then
// blocked until it is destroyed; that is how a stuck transfer shows up.
#include "AsynchronousClient.h"

#include <QDebug>
#include <QString>

#include <chrono>
#include <climits>
#include <cstring>
#include <thread>

namespace {

const char kSetTransFileTypeSig[] = "long int AsynchronousClient::setTransFileType(long int, long int, char*, bool)";
const char kOverwriteSig[] = "long int AsynchronousClient::overwrite(char*)";
const char kAppendSig[] = "long int AsynchronousClient::append(char*)";
const char kFileEndSig[] = "long int AsynchronousClient::fileEnd()";
const char kUploadFileSig[] = "long int AsynchronousClient::uploadFile(long int, long int, char*, char*)";

// Error-callback categories of the transfer replies.
const int kFileInfCategory = 1;    // set file, state query, and the alarm of every reply
const int kOverwriteCategory = 2;
const int kAppendCategory = 3;
const int kFileEndCategory = 4;

const int kAlarmState = 100;
const int kTypeLimit = 3;          // types 0, 1, 2
const int kTypeKeepsFile = 2;      // the one type whose announcement does not empty the file

const char kParametersError[] = "parameters error.";
const char kDeniedText[] = "target file is been executing.file transmission denied.";
const char kAlarmText[] = "CNC系统执行错误报警";
const char kUnforeseenText[] = "(返回状态不可预见)state====";

// Leading bytes that the controller text rule lets through.
int textRun(const char *text)
{
    return text ? HProtocol_Client::textRunLength(text, INT_MAX) : 0;
}

// Per-byte trace of a chunk (debug bit 1).
void logChunkByte(const char *signature, int index, int position, char byte)
{
    const QString hex = QString::number(quint8(byte), 16).toUpper();
    qDebug().noquote() << signature << index << "  maxsize*number+count=" << position
                       << QStringLiteral("  letter= 0X") + hex << " " << QString(QChar::fromLatin1(byte));
}

// The length of one chunk of 7-bit text starting at `source`: up to
// kChunkSize bytes, ending at the first byte that is 0 or has its top bit
// set (a byte of 0x80 or above ends the transfer there, on purpose). A full
// chunk means more may follow. The chunk is built from the text where it
// lies. `offset` is where the chunk starts in the whole text, for the trace.
int chunkLength(const char *signature, const char *source, int offset, bool trace)
{
    const int n = HProtocol_Client::textRunLength(source, AsynchronousClient::kChunkSize);
    for (int i = 0; trace && i < n; ++i)
        logChunkByte(signature, i, offset + i, source[i]);
    return n;
}

void logNotSet(const char *signature, bool setFileOk, const char *txt, int limit)
{
    qDebug().noquote() << signature << "ParError: isSetFileOk " << (setFileOk ? "true" : "false")
                       << " txt size(" << textRun(txt) << ") > payloadTxtSize(" << limit << ")";
}

// Set file and state query share one table; only set file moves isSetFileOk.
const char *setFileText(int state, bool query, QByteArray *unknown)
{
    switch (state) {
    case 1:
        return kParametersError;
    case 2:
        return kDeniedText;
    case kAlarmState:
        return kAlarmText;
    default:
        *unknown = (query ? QByteArray("CmdGetFileTransState:unknow state. state=")
                          : QByteArray("CmdSetFileInf:unknow state. state="))
            + QByteArray::number(state);
        return unknown->constData();
    }
}

} // namespace

long int AsynchronousClient::setTransFileType(long int type, long int channel, char *fileName, bool query)
{
    m_mutex.lock();
    if (linkDown(kSetTransFileTypeSig)) {
        m_mutex.unlock();
        return StatusDisconnected;
    }
    if (channel < 1 || channel > kMaxChannel || type >= kTypeLimit || !fileName) {
        if (debugErrors())
            qDebug().noquote() << kSetTransFileTypeSig << " ParError channel=" << channel;
        m_mutex.unlock();
        return StatusParError;
    }
    bool replied = false;
    const long int result = queueAndExchange(buildSetFileInf(quint8(channel), int(type), fileName, query), &replied);
    if (isDirectMode()) {
        const long int failed = transferExchange(replied);
        if (failed != StatusOk)
            return failed;
        if (m_errorFlag.load()) {
            m_mutex.unlock();
            return StatusErrorReply;
        }
    }
    m_mutex.unlock();
    if (!query && type != kTypeKeepsFile) {
        // An empty overwrite empties the target before the new text comes.
        char empty[] = "";
        return overwrite(empty);
    }
    return result;
}

long int AsynchronousClient::transferExchange(bool replied)
{
    if (!replied) {
        m_mutex.unlock();
        return StatusNoReply;
    }
    if (replyState() == kAlarmState)
        return StatusAlarm;   // m_mutex stays held
    return StatusOk;
}

long int AsynchronousClient::lockForText(const char *signature, const char *txt)
{
    m_mutex.lock();
    if (linkDown(signature)) {
        m_mutex.unlock();
        return StatusDisconnected;
    }
    if (!m_isSetFileOk.load() || !txt) {
        if (debugErrors())
            logNotSet(signature, m_isSetFileOk.load(), txt, payloadTxtSize());
        m_mutex.unlock();
        return StatusParError;
    }
    return StatusOk;
}

long int AsynchronousClient::overwrite(char *txt)
{
    const long int refused = lockForText(kOverwriteSig, txt);
    if (refused != StatusOk)
        return refused;
    const int length = chunkLength(kOverwriteSig, txt, 0, debugDetails());
    m_moreToSend.store(length == kChunkSize);
    bool replied = false;
    const long int result = queueAndExchange(buildOverWriteTxt(txt, length), &replied);
    if (isDirectMode()) {
        const long int failed = transferExchange(replied);
        if (failed != StatusOk)
            return failed;
        // These two leave m_mutex held, as the alarm does.
        if (m_errorFlag.load())
            return StatusErrorReply;
        if (m_memoryFull.load())
            return StatusQueueFull;
    }
    if (m_moreToSend.load()) {
        m_mutex.unlock();
        return append(txt + kChunkSize);
    }
    m_mutex.unlock();
    return result;
}

long int AsynchronousClient::append(char *txt)
{
    const long int refused = lockForText(kAppendSig, txt);
    if (refused != StatusOk)
        return refused;
    const bool traceBytes = debugDetails();
    m_moreToSend.store(true);
    int k = 0;
    long int result = StatusOk;
    for (;;) {
        // Every earlier chunk held 400 text bytes, so chunk k starts inside txt.
        const char *chunk = txt + kChunkSize * k;
        const int length = chunkLength(kAppendSig, chunk, kChunkSize * k, traceBytes);
        if (length < kChunkSize)
            m_moreToSend.store(false);
        bool replied = false;
        const long int queued = queueAndExchange(buildAppendTxt(chunk, length), &replied);
        if (isDirectMode()) {
            const long int failed = transferExchange(replied);
            if (failed != StatusOk)
                return failed;
            if (m_errorFlag.load() || m_memoryFull.load()) {
                // The same chunk goes again, after a pause: a controller
                // that keeps refusing is not flooded.
                result = StatusErrorReply;
                std::this_thread::sleep_for(std::chrono::milliseconds(kRepeatIntervalMs));
            } else {
                if (queued == StatusOk)
                    ++k;
                result = queued;
            }
        } else {
            // A chunk that found the queue full goes again, once the
            // client's thread has sent one; a thread that lost its link
            // never will.
            if (queued == StatusOk) {
                ++k;
            } else if (linkDown(kAppendSig)) {
                m_mutex.unlock();
                return StatusDisconnected;
            } else {
                std::this_thread::sleep_for(std::chrono::milliseconds(1));
            }
            result = queued;
        }
        if (!m_moreToSend.load())
            break;
    }
    m_mutex.unlock();
    return result;
}

long int AsynchronousClient::fileEnd()
{
    return runOperation(kFileEndSig, [this]() {
        const int length = buildFileEnd();
        m_isSetFileOk.store(false);
        return length;
    });
}

long int AsynchronousClient::uploadFile(long int type, long int channel, char *fileName, char *txt)
{
    // The controller files programs flat per channel: a path is refused.
    if (!fileName || std::strchr(fileName, '/')) {
        if (debugErrors())
            qDebug().noquote() << kUploadFileSig << " filename parameter error ";
        return StatusParError;
    }
    long int out = setTransFileType(type, channel, fileName, false);
    if (out != StatusOk) {
        if (debugErrors())
            qDebug().noquote() << kUploadFileSig << " setTransFileType error " << "out =" << out;
        return out;
    }
    out = overwrite(txt);
    if (out != StatusOk) {
        if (debugErrors())
            qDebug().noquote() << kUploadFileSig << " overwrite error " << "out =" << out;
        return out;
    }
    return fileEnd();
}

// ---------------------------------------------------------------------------
// Replies

// Set file and state query answer alike: 0 clears the error flag, every
// other state sets it and is reported under category 1.
static void fileInfReply(AsynchronousClient *client, std::atomic<int> &errorFlag, int state, bool query,
                         bool logErrors)
{
    if (state == 0) {
        errorFlag.store(0);
        return;
    }
    errorFlag.store(1);
    QByteArray unknown;
    const char *text = setFileText(state, query, &unknown);
    if (logErrors) {
        if (state == kAlarmState)
            qDebug().noquote() << "onReciveCmdSetFileInf" << text << "state==" << state;
        else if (!unknown.isEmpty())
            qDebug().noquote() << kUnforeseenText << state;
    }
    client->onErrorOccured(kFileInfCategory, state, text);
}

void AsynchronousClient::onReciveCmdSetFileInf(int state)
{
    fileInfReply(this, m_errorFlag, state, false, debugErrors());
    m_isSetFileOk.store(m_errorFlag.load() == 0);
}

void AsynchronousClient::onReciveCmdGetFileTransState(int state)
{
    // A query leaves isSetFileOk alone.
    fileInfReply(this, m_errorFlag, state, true, debugErrors());
}

// Overwrite and append differ in category and wording only; the blank after
// "DNC" belongs to the overwrite texts alone.
static void textReply(AsynchronousClient *client, std::atomic<int> &errorFlag, std::atomic<bool> &memoryFull,
                      int state, int category, const char *fullWritten, const char *fullRefused,
                      bool logErrors)
{
    memoryFull.store(false);
    switch (state) {
    case 0:
        errorFlag.store(0);
        break;
    case 1:
        errorFlag.store(1);
        client->onErrorOccured(category, state, kParametersError);
        break;
    case 2:
        // Written although memory is now full: the chunk counts as sent.
        client->onErrorOccured(category, state, fullWritten);
        break;
    case 3:
        memoryFull.store(true);
        client->onErrorOccured(category, state, fullRefused);
        break;
    case kAlarmState:
        errorFlag.store(1);
        client->onErrorOccured(kFileInfCategory, state, kAlarmText);
        break;
    default:
        errorFlag.store(1);
        if (logErrors)
            qDebug().noquote() << kUnforeseenText << state;
        client->onErrorOccured(category, state, kUnforeseenText);
        break;
    }
}

void AsynchronousClient::onReciveCmdOverWriteTxt(int state)
{
    textReply(this, m_errorFlag, m_memoryFull, state, kOverwriteCategory,
              "DNC 内存已满，此笔数据复写成功", "DNC 内存已满，此笔数据复写失败", debugErrors());
}

void AsynchronousClient::onReciveCmdAppendTxt(int state)
{
    textReply(this, m_errorFlag, m_memoryFull, state, kAppendCategory,
              "DNC内存已满，此笔数据追加成功", "DNC内存已满，此笔数据追加失败", debugErrors());
}

void AsynchronousClient::onReciveCmdFileEnd(int state)
{
    if (state == 0) {
        m_errorFlag.store(0);
        return;
    }
    m_errorFlag.store(1);
    onErrorOccured(kFileEndCategory, state, state == 1 ? kParametersError : kUnforeseenText);
}
