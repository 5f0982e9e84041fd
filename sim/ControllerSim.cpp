#include "ControllerSim.h"
#include "ControllerSimPrivate.h"
#include "SimFrame.h"
#include "SimPcap.h"
#include "SimServer.h"

#include <QStringList>
#include <QThread>

#include <chrono>

ControllerSimPrivate::ControllerSimPrivate(const QString &address, quint16 port)
    : address(address), port(port)
{
}

ControllerSimPrivate::~ControllerSimPrivate() = default;

void ControllerSimPrivate::connectionOpened()
{
    std::lock_guard<std::mutex> lock(mutex);
    ++openConnections;
    ++acceptedConnections;
}

void ControllerSimPrivate::connectionClosed()
{
    std::lock_guard<std::mutex> lock(mutex);
    --openConnections;
}

std::shared_ptr<SimPcap> ControllerSimPrivate::recorder() const
{
    std::lock_guard<std::mutex> lock(mutex);
    return pcap;
}

SimAction ControllerSimPrivate::serve(const QByteArray &frame, SimSession &session)
{
    std::lock_guard<std::mutex> lock(mutex);
    if (recording)
        record.append(frame);
    requestArrived.notify_all();
    if (logger)
        logger(frame);

    const QByteArray pdu = frame.mid(SimFrame::headerLength);
    const char letter = pdu.isEmpty() ? 0 : pdu[0];
    const int sub = pdu.size() > 1 ? quint8(pdu[1]) : -1;

    ControllerSim::Fault fault;
    auto it = faults.find({letter, sub});
    if (it == faults.end())
        it = faults.find({letter, -1});
    if (it != faults.end()) {
        FaultEntry &next = it->first();
        bool applies = true;
        if (next.fault.kind == ControllerSim::Fault::CloseAfter) {
            applies = ++next.seen > next.fault.arg;
            if (applies)
                next.seen = 0;
        }
        if (applies) {
            fault = next.fault;
            if (next.fault.times > 0 && --next.fault.times == 0) {
                it->removeFirst();
                if (it->isEmpty())
                    faults.erase(it);
            }
        }
    }

    using Fault = ControllerSim::Fault;
    SimAction action;
    switch (fault.kind) {
    case Fault::CloseAfter:
        action.kind = SimAction::Close;
        return action;
    case Fault::Silence:
        return action;
    case Fault::ErrorReply:
        action.kind = SimAction::Reply;
        action.bytes = SimFrame::wrap(SimMachine::errorReply(pdu).pdu);
        return action;
    case Fault::Garbage:
        action.kind = SimAction::Reply;
        action.bytes = garbage(fault.arg > 0 ? fault.arg : 16);
        return action;
    case Fault::Restart:
        action.kind = SimAction::Restart;
        action.delayMs = fault.arg > 0 ? fault.arg : 1000;
        return action;
    default:
        break;
    }
    SimReply reply = machine.handle(pdu, session);
    if (fault.kind == Fault::State && reply.stateOffset >= 0)
        reply.pdu[reply.stateOffset] = char(fault.arg);
    else if (fault.kind == Fault::Bare)
        reply.pdu.truncate(1);
    else if (fault.kind == Fault::Count && letter == 'B')
        reply.pdu = withCount(reply.pdu, fault.arg);
    action.kind = SimAction::Reply;
    action.bytes = SimFrame::wrap(reply.pdu);
    switch (fault.kind) {
    case Fault::Delay:
        action.delayMs = fault.arg;
        break;
    case Fault::Split:
        action.splitPauseMs = fault.arg > 0 ? fault.arg : 50;
        break;
    case Fault::Oversize: {
        // The length field says what follows, so the frame is well formed:
        // only its size is more than a controller may send.
        const int size = qMax(fault.arg > 0 ? fault.arg : 600, action.bytes.size());
        action.bytes = SimFrame::wrap(reply.pdu + QByteArray(size - action.bytes.size(), '\0'));
        break;
    }
    case Fault::Stream:
        action.kind = SimAction::Stream;
        break;
    case Fault::Stale: {
        QByteArray old(4, '\0');
        old[0] = char(fault.arg > 0 ? fault.arg : 'D');
        action.bytes.prepend(SimFrame::wrap(old));
        break;
    }
    default:
        break;
    }
    return action;
}

QByteArray ControllerSimPrivate::garbage(int size)
{
    // Deterministic, so a failing test sees the same bytes again; the first
    // byte is never 0, so the bytes cannot start a frame header.
    QByteArray bytes(size, '\0');
    quint32 x = 0x9e3779b9u;
    for (int i = 0; i < size; ++i) {
        x ^= x << 13;
        x ^= x >> 17;
        x ^= x << 5;
        bytes[i] = char(x | (i == 0 ? 0x80 : 0));
    }
    return bytes;
}

QByteArray ControllerSimPrivate::withCount(const QByteArray &pdu, int count)
{
    QByteArray out = pdu.left(2);
    out[1] = char(count);
    for (int i = 0; i < count; ++i) {
        const int at = 2 + 4 * i;
        out.append(at + 4 <= pdu.size() ? pdu.mid(at, 4) : QByteArray(4, '\0'));
    }
    return out;
}

ControllerSim::ControllerSim(const QString &address, quint16 port)
    : d(new ControllerSimPrivate(address, port))
{
}

ControllerSim::~ControllerSim()
{
    stop();
}

bool ControllerSim::start(QString *error)
{
    std::lock_guard<std::mutex> guard(d->startStop);
    if (d->server)
        return true;
    // Register the caller with Qt before the serving threads touch it: the
    // first thread Qt meets in a process without an application object
    // becomes its main thread, and that must not be a short-lived one of ours.
    QThread::currentThread();
    auto server = std::make_unique<SimServer>(d.get());
    if (!server->start(error))
        return false;
    d->server = std::move(server);
    return true;
}

void ControllerSim::stop()
{
    std::lock_guard<std::mutex> guard(d->startStop);
    d->server.reset();   // stops and joins its threads
}

bool ControllerSim::isRunning() const
{
    std::lock_guard<std::mutex> guard(d->startStop);
    return d->server != nullptr;
}

QString ControllerSim::address() const { return d->address; }
quint16 ControllerSim::port() const { return d->port; }

int ControllerSim::connectionCount() const
{
    std::lock_guard<std::mutex> lock(d->mutex);
    return d->openConnections;
}

int ControllerSim::connectionsAccepted() const
{
    std::lock_guard<std::mutex> lock(d->mutex);
    return d->acceptedConnections;
}

void ControllerSim::setVariable(qint32 address, qint32 value)
{
    std::lock_guard<std::mutex> lock(d->mutex);
    d->machine.setVariable(address, value);
}

qint32 ControllerSim::variable(qint32 address) const
{
    std::lock_guard<std::mutex> lock(d->mutex);
    return d->machine.variable(address);
}

void ControllerSim::setAnimated(bool on)
{
    std::lock_guard<std::mutex> lock(d->mutex);
    d->machine.animated = on;
}

bool ControllerSim::isAnimated() const
{
    std::lock_guard<std::mutex> lock(d->mutex);
    return d->machine.animated;
}

void ControllerSim::addKnownProgram(const QByteArray &name)
{
    std::lock_guard<std::mutex> lock(d->mutex);
    d->machine.knownPrograms.insert(name);
}

QByteArray ControllerSim::runningProgram(int channel) const
{
    std::lock_guard<std::mutex> lock(d->mutex);
    d->machine.finishPrograms();
    return d->machine.runningProgram(channel);
}

void ControllerSim::setProgramDuration(int ms)
{
    std::lock_guard<std::mutex> lock(d->mutex);
    d->machine.programDurationMs = qMax(0, ms);
}

void ControllerSim::setRunningProgram(int channel, const QByteArray &name)
{
    std::lock_guard<std::mutex> lock(d->mutex);
    d->machine.setRunningProgram(channel, name);
}

void ControllerSim::setDncMemorySize(int bytes)
{
    std::lock_guard<std::mutex> lock(d->mutex);
    d->machine.dncMemorySize = qMax(0, bytes);
}

int ControllerSim::dncMemorySize() const
{
    std::lock_guard<std::mutex> lock(d->mutex);
    return d->machine.dncMemorySize;
}

int ControllerSim::dncMemoryUsed() const
{
    std::lock_guard<std::mutex> lock(d->mutex);
    return d->machine.dncMemoryUsed();
}

bool ControllerSim::hasDncFile(int channel, const QByteArray &name) const
{
    std::lock_guard<std::mutex> lock(d->mutex);
    return d->machine.hasDncFile(channel, name);
}

QByteArray ControllerSim::dncFile(int channel, const QByteArray &name) const
{
    std::lock_guard<std::mutex> lock(d->mutex);
    return d->machine.dncFile(channel, name);
}

void ControllerSim::setDncFile(int channel, const QByteArray &name, const QByteArray &content)
{
    std::lock_guard<std::mutex> lock(d->mutex);
    d->machine.setDncFile(channel, name, content);
}

void ControllerSim::clearDncFiles()
{
    std::lock_guard<std::mutex> lock(d->mutex);
    d->machine.clearDncFiles();
}

void ControllerSim::setBusyReplies(int n, int pollsPerBusy)
{
    std::lock_guard<std::mutex> lock(d->mutex);
    d->machine.setBusyReplies(n, pollsPerBusy);
}

void ControllerSim::setErrorFile(int channelIndex, bool history, const QByteArray &text)
{
    std::lock_guard<std::mutex> lock(d->mutex);
    d->machine.setErrorFile(channelIndex, history, text);
}

void ControllerSim::setErrorFileStuck(bool stuck)
{
    std::lock_guard<std::mutex> lock(d->mutex);
    d->machine.errorFileStuck = stuck;
}

void ControllerSim::setOscPoints(const QVector<qint32> &points)
{
    std::lock_guard<std::mutex> lock(d->mutex);
    d->machine.oscPoints = points;
}

QVector<qint32> ControllerSim::oscAxes() const
{
    std::lock_guard<std::mutex> lock(d->mutex);
    return d->machine.oscAxes;
}

qint32 ControllerSim::oscTransEnable() const
{
    std::lock_guard<std::mutex> lock(d->mutex);
    return d->machine.oscTransEnable;
}

void ControllerSim::setFault(char letter, int sub, const Fault &fault)
{
    std::lock_guard<std::mutex> lock(d->mutex);
    if (fault.kind == Fault::None || fault.times == 0)
        d->faults.remove({letter, sub});
    else
        d->faults.insert({letter, sub}, {{fault, 0}});
}

void ControllerSim::addFault(char letter, int sub, const Fault &fault)
{
    std::lock_guard<std::mutex> lock(d->mutex);
    if (fault.kind != Fault::None && fault.times != 0)
        d->faults[{letter, sub}].append({fault, 0});
}

void ControllerSim::clearFault(char letter, int sub)
{
    std::lock_guard<std::mutex> lock(d->mutex);
    d->faults.remove({letter, sub});
}

void ControllerSim::clearFaults()
{
    std::lock_guard<std::mutex> lock(d->mutex);
    d->faults.clear();
}

bool ControllerSim::parseFault(const QString &text, char *letter, int *sub, Fault *fault)
{
    const int eq = text.indexOf(QLatin1Char('='));
    if (eq < 1)
        return false;
    const QStringList target = text.left(eq).split(QLatin1Char(':'));
    const QStringList what = text.mid(eq + 1).split(QLatin1Char(':'));
    if (target.size() > 2 || target[0].size() != 1 || target[0][0].unicode() > 0x7f
        || what.size() > 3)
        return false;
    int s = -1;
    if (target.size() == 2) {
        bool ok = false;
        s = target[1].toInt(&ok, 0);
        if (!ok || s < -1 || s > 255)
            return false;
    }
    static const QStringList kinds = {QStringLiteral("silence"), QStringLiteral("error"),
                                      QStringLiteral("state"), QStringLiteral("delay"),
                                      QStringLiteral("split"), QStringLiteral("close"),
                                      QStringLiteral("garbage"), QStringLiteral("oversize"),
                                      QStringLiteral("stream"), QStringLiteral("stale"),
                                      QStringLiteral("bare"), QStringLiteral("count"),
                                      QStringLiteral("restart")};
    const int k = kinds.indexOf(what[0]);
    if (k < 0)
        return false;
    Fault f;
    f.kind = Fault::Kind(Fault::Silence + k);
    bool ok = true;
    if (what.size() > 1)
        f.arg = what[1].toInt(&ok, 0);
    if (!ok || f.arg < 0)
        return false;
    if (what.size() > 2) {
        f.times = what[2].toInt(&ok);
        if (!ok || f.times < 1)
            return false;
    }
    *letter = char(target[0][0].unicode());
    *sub = s;
    *fault = f;
    return true;
}

QList<QByteArray> ControllerSim::requests() const
{
    // A list of its own: a shared one would leave the serving thread's next
    // append to decide about detaching from a count it reads unordered.
    std::lock_guard<std::mutex> lock(d->mutex);
    QList<QByteArray> out;
    out.reserve(d->record.size());
    for (const QByteArray &f : d->record)
        out.append(f);
    return out;
}

QList<QByteArray> ControllerSim::requests(char letter) const
{
    std::lock_guard<std::mutex> lock(d->mutex);
    QList<QByteArray> out;
    for (const QByteArray &f : d->record) {
        if (f.size() > SimFrame::headerLength && f[SimFrame::headerLength] == letter)
            out.append(f);
    }
    return out;
}

void ControllerSim::clearRequests()
{
    std::lock_guard<std::mutex> lock(d->mutex);
    d->record.clear();
}

bool ControllerSim::waitForRequests(int n, int timeoutMs) const
{
    std::unique_lock<std::mutex> lock(d->mutex);
    return d->requestArrived.wait_for(lock, std::chrono::milliseconds(qMax(0, timeoutMs)),
                                      [this, n] { return d->record.size() >= n; });
}

void ControllerSim::setRecording(bool on)
{
    std::lock_guard<std::mutex> lock(d->mutex);
    d->recording = on;
}

bool ControllerSim::recordTraffic(const QString &path, QString *error)
{
    auto pcap = std::make_shared<SimPcap>();
    if (!pcap->open(path, error))
        return false;
    std::lock_guard<std::mutex> lock(d->mutex);
    d->pcap = std::move(pcap);
    return true;
}

void ControllerSim::setRequestLogger(std::function<void(const QByteArray &)> logger)
{
    std::lock_guard<std::mutex> lock(d->mutex);
    d->logger = std::move(logger);
}
