#include "SimMachine.h"
#include "SimFrame.h"
#include "ControllerSim.h"

namespace {

QByteArray pduOf(char letter, int sub)
{
    QByteArray p;
    p.append(letter);
    p.append(char(sub));
    return p;
}

SimReply withState(QByteArray pdu, int state)
{
    SimReply r;
    r.stateOffset = pdu.size();
    pdu.append(char(state));
    r.pdu = pdu;
    return r;
}

// Error file paths are "sys000N/error/curError.error" and ".../hisError.error".
bool parseErrorPath(const QByteArray &path, int *index, bool *history)
{
    if (path.size() != 28 || !path.startsWith("sys000") || path.mid(7, 7) != "/error/")
        return false;
    const char digit = path[6];
    if (digit < '0' || digit > '8')
        return false;
    const QByteArray file = path.mid(14);
    if (file == "curError.error")
        *history = false;
    else if (file == "hisError.error")
        *history = true;
    else
        return false;
    *index = digit - '0';
    return true;
}

} // namespace

SimMachine::SimMachine()
    : dncMemorySize(ControllerSim::defaultDncMemorySize)
{
    clock.start();
}

SimReply SimMachine::errorReply(const QByteArray &pdu)
{
    SimReply r;
    const char letter = pdu.isEmpty() ? 0 : pdu[0];
    r.pdu.append(char(quint8(letter) | 0x80));
    // An error reply to a read carries no values.
    r.pdu.append(letter == 'B' || pdu.size() < 2 ? char(0) : pdu[1]);
    return r;
}

SimReply SimMachine::handle(const QByteArray &pdu, SimSession &session)
{
    if (pdu.isEmpty())
        return errorReply(pdu);
    finishPrograms();
    switch (pdu[0]) {
    case 'p':
        return withState(QByteArray(1, 'p'), 0);
    case 'B':
        return readVars(pdu);
    case 'D':
        return writeVars(pdu);
    case 'f':
        return program(pdu);
    case 'g':
        return query(pdu);
    case 'd':
        return transfer(pdu, session);
    case 'c':
        return errorFile(pdu, session);
    case 'i':
        return oscilloscope(pdu);
    default:
        return errorReply(pdu);
    }
}

qint32 SimMachine::variable(qint32 address) const
{
    const auto it = vars.constFind(address);
    if (it != vars.constEnd())
        return it.value();
    if (!animated)
        return 0;
    // Each address steps at its own pace, once per 200 ms display refresh.
    const qint64 tick = clock.elapsed() / 200;
    return qint32((tick * (1 + address % 7) + address) % 10000);
}

void SimMachine::setVariable(qint32 address, qint32 value)
{
    vars.insert(address, value);
}

SimReply SimMachine::readVars(const QByteArray &pdu)
{
    if (pdu.size() < 2)
        return errorReply(pdu);
    const int n = quint8(pdu[1]);
    if (n < 1 || pdu.size() != 2 + 4 * n)
        return errorReply(pdu);
    SimReply r;
    r.pdu = pduOf('B', n);
    for (int i = 0; i < n; ++i) {
        const qint32 a = SimFrame::le32(pdu, 2 + 4 * i);
        if (!SimFrame::validAddress(a))
            return errorReply(pdu);
        SimFrame::appendLe32(r.pdu, variable(a));
    }
    return r;
}

SimReply SimMachine::writeVars(const QByteArray &pdu)
{
    if (pdu.size() < 2)
        return errorReply(pdu);
    const int n = quint8(pdu[1]);
    if (n < 1 || pdu.size() != 2 + 8 * n)
        return errorReply(pdu);
    for (int i = 0; i < n; ++i) {
        if (!SimFrame::validAddress(SimFrame::le32(pdu, 2 + 8 * i)))
            return errorReply(pdu);
    }
    for (int i = 0; i < n; ++i)
        variableWritten(SimFrame::le32(pdu, 2 + 8 * i), SimFrame::le32(pdu, 6 + 8 * i));
    SimReply r;
    r.pdu = pduOf('D', n);
    return r;
}

void SimMachine::variableWritten(qint32 address, qint32 value)
{
    vars.insert(address, value);
    if (address != errorKindVariable || (value != 1 && value != 2) || errorFileStuck)
        return;
    // The controller writes the requested error file, then clears the request.
    const qint32 index = vars.value(errorChannelVariable, 0);
    if (index < 0 || index > 8)
        return;
    const QPair<int, bool> key(index, value == 2);
    writtenErrors.insert(key, errorTexts.value(key));
    vars.insert(errorKindVariable, 0);
}

void SimMachine::setRunningProgram(int channel, const QByteArray &name)
{
    if (name.isEmpty()) {
        running.remove(channel);
    } else {
        running.insert(channel, name);
        runningSince.insert(channel, clock.elapsed());
    }
}

void SimMachine::finishPrograms()
{
    if (programDurationMs <= 0)
        return;
    const qint64 now = clock.elapsed();
    for (auto it = running.begin(); it != running.end();) {
        if (now - runningSince.value(it.key()) >= programDurationMs)
            it = running.erase(it);
        else
            ++it;
    }
}

SimReply SimMachine::program(const QByteArray &pdu)
{
    if (pdu.size() < 3)
        return errorReply(pdu);
    const int sub = quint8(pdu[1]);
    const int channel = quint8(pdu[2]);
    QByteArray head = pduOf('f', sub);
    head.append(pdu[2]);
    const bool channelOk = channel >= 1 && channel <= 99;
    if (sub == 3) {
        if (!channelOk)
            return withState(head, 1);
        running.remove(channel);
        return withState(head, 0);
    }
    if (sub == 4) {
        const QByteArray name = SimFrame::cString(pdu, 3);
        if (!channelOk || name.isEmpty())
            return withState(head, 1);
        if (running.contains(channel))
            return withState(head, 2);
        if (!knownPrograms.contains(name) && !dnc.contains({channel, name}))
            return withState(head, 3);
        setRunningProgram(channel, name);
        return withState(head, 0);
    }
    if (sub == 5)
        return withState(head, 0);
    return errorReply(pdu);
}

SimReply SimMachine::query(const QByteArray &pdu)
{
    if (pdu.size() < 2)
        return errorReply(pdu);
    const int sub = quint8(pdu[1]);
    if ((sub < 1 || sub > 5) && sub != 0x90)
        return errorReply(pdu);
    // The sixth selector goes out as 0x90 and comes back as 0xF0.
    SimReply r;
    r.pdu = pduOf('g', sub == 0x90 ? 0xF0 : sub);
    if (sub == 5) {
        bool ok = false;
        int channel = SimFrame::cString(pdu, 2).toInt(&ok);
        if (!ok || channel < 1 || channel > 99)
            channel = 1;
        r.pdu.append(running.value(channel));
    }
    r.pdu.append('\0');
    return r;
}

void SimMachine::setDncFile(int channel, const QByteArray &name, const QByteArray &content)
{
    dncUsed += content.size() - dnc.value({channel, name}).size();
    dnc.insert({channel, name}, content);
}

void SimMachine::clearDncFiles()
{
    dnc.clear();
    dncUsed = 0;
}

void SimMachine::setBusyReplies(int n, int pollsPerBusy)
{
    busyLeft = qMax(0, n);
    busyPolls = qMax(0, pollsPerBusy);
    pollsLeft = 0;
}

SimReply SimMachine::transfer(const QByteArray &pdu, SimSession &s)
{
    if (pdu.size() < 2)
        return errorReply(pdu);
    const int sub = quint8(pdu[1]);
    switch (sub) {
    case 1:
    case 6: {
        if (pdu.size() < 4)
            return errorReply(pdu);
        const int channel = quint8(pdu[2]);
        const int type = quint8(pdu[3]);
        const QByteArray name = SimFrame::cString(pdu, 4);
        QByteArray head = pduOf('d', sub);
        head.append(pdu[2]);
        head.append(pdu[3]);
        if (channel < 1 || channel > 99 || name.isEmpty()
            || (type != 1 && type != 3 && type != 4 && type != 5))
            return withState(head, 1);
        if (running.value(channel) == name)
            return withState(head, 2);
        if (sub == 1) {
            s.hasTarget = true;
            s.targetChannel = channel;
            s.targetName = name;
            if (!dnc.contains({channel, name}))
                dnc.insert({channel, name}, QByteArray());
        }
        return withState(head, 0);
    }
    case 2:
    case 3:
        return storeText(pdu, s, sub == 3);
    case 4:
        // The file stays announced: a remote buffer in MDI mode ends every
        // write with a file end and goes on appending to the same file.
        return withState(pduOf('d', 4), s.hasTarget ? 0 : 1);
    case 5:
        if (pollsLeft > 0) {
            --pollsLeft;
            return withState(pduOf('d', 5), 1);
        }
        return withState(pduOf('d', 5), 0);
    default:
        return errorReply(pdu);
    }
}

SimReply SimMachine::storeText(const QByteArray &pdu, SimSession &s, bool overwrite)
{
    const QByteArray head = pduOf('d', overwrite ? 3 : 2);
    if (!s.hasTarget)
        return withState(head, 1);
    const QByteArray text = SimFrame::cString(pdu, 2);
    const QPair<int, QByteArray> key(s.targetChannel, s.targetName);
    const int oldSize = dnc.value(key).size();
    const qint64 used = qint64(dncUsed) + text.size() - (overwrite ? oldSize : 0);
    if (used > dncMemorySize)
        return withState(head, 3);
    // In place: long drip-fed programs must not be copied on every append.
    QByteArray &content = dnc[key];
    if (overwrite)
        content = text;
    else
        content.append(text);
    dncUsed = int(used);
    if (busyLeft > 0) {
        --busyLeft;
        pollsLeft += busyPolls;
        return withState(head, 2);
    }
    return withState(head, used == dncMemorySize ? 2 : 0);
}

void SimMachine::setErrorFile(int channelIndex, bool history, const QByteArray &text)
{
    errorTexts.insert({channelIndex, history}, text);
}

SimReply SimMachine::errorFile(const QByteArray &pdu, SimSession &s)
{
    if (pdu.size() < 2)
        return errorReply(pdu);
    const int sub = quint8(pdu[1]);
    if (sub == 1) {
        int index = 0;
        bool history = false;
        s.fileOpen = false;
        if (parseErrorPath(SimFrame::cString(pdu, 2), &index, &history)
            && writtenErrors.contains({index, history})) {
            s.fileOpen = true;
            s.readFile = writtenErrors.value({index, history});
            s.readPos = 0;
        }
        return withState(pduOf('c', 1), s.fileOpen ? 1 : 0);
    }
    if (sub == 2) {
        SimReply r;
        r.pdu = pduOf('c', 2);
        const int n = s.fileOpen ? qMin(ControllerSim::errorPieceSize, s.readFile.size() - s.readPos) : 0;
        if (n <= 0) {
            // Count 0 plus one byte: the length check fails, so no piece.
            r.pdu.append(char(0));
            r.pdu.append(char(0));
            return r;
        }
        r.pdu.append(char(n));
        r.pdu.append(s.readFile.mid(s.readPos, n));
        s.readPos += n;
        return r;
    }
    if (sub == 3) {
        const bool was = s.fileOpen;
        s.fileOpen = false;
        s.readFile.clear();
        return withState(pduOf('c', 3), was ? 1 : 0);
    }
    return errorReply(pdu);
}

SimReply SimMachine::oscilloscope(const QByteArray &pdu)
{
    if (pdu.size() < 2)
        return errorReply(pdu);
    const int sub = quint8(pdu[1]);
    if (sub == 1 && pdu.size() == 14) {
        oscAxes = {SimFrame::le32(pdu, 2), SimFrame::le32(pdu, 6), SimFrame::le32(pdu, 10)};
        return withState(pduOf('i', 1), 1);
    }
    if (sub == 2 && pdu.size() == 6) {
        oscTransEnable = SimFrame::le32(pdu, 2);
        return withState(pduOf('i', 2), 1);
    }
    if (sub == 3 && pdu.size() == 10) {
        const qint32 start = SimFrame::le32(pdu, 2);
        const qint32 count = SimFrame::le32(pdu, 6);
        if (start < 0 || count < 1 || count > 124)
            return errorReply(pdu);
        const int first = qMin(start, oscPoints.size());
        const int n = qMin(count, oscPoints.size() - first);
        SimReply r = withState(pduOf('i', 3), 1);
        r.pdu.append(char(n));
        for (int i = 0; i < n; ++i)
            SimFrame::appendLe32(r.pdu, oscPoints[first + i]);
        return r;
    }
    return errorReply(pdu);
}
