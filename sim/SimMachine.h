#ifndef SIMMACHINE_H
#define SIMMACHINE_H

#include <QByteArray>
#include <QElapsedTimer>
#include <QMap>
#include <QPair>
#include <QSet>
#include <QVector>

// What one connection remembers between requests: the file its text requests
// go to and the error file it is reading.
struct SimSession
{
    bool hasTarget = false;
    int targetChannel = 0;
    QByteArray targetName;
    bool fileOpen = false;
    QByteArray readFile;
    int readPos = 0;
};

// A reply PDU and where its state byte sits (-1: none), so a fault can
// replace the state without knowing the layout.
struct SimReply
{
    QByteArray pdu;
    int stateOffset = -1;
};

// The controller's memory and behaviour, without sockets or locking: the
// owner serialises calls.
class SimMachine
{
public:
    static constexpr qint32 errorKindVariable = 120138;
    static constexpr qint32 errorChannelVariable = 120139;

    SimMachine();

    // Carries out one request PDU (letter first) and builds its reply.
    SimReply handle(const QByteArray &pdu, SimSession &session);
    static SimReply errorReply(const QByteArray &pdu);

    void setVariable(qint32 address, qint32 value);
    qint32 variable(qint32 address) const;
    bool animated = false;

    QSet<QByteArray> knownPrograms;
    QByteArray runningProgram(int channel) const { return running.value(channel); }
    void setRunningProgram(int channel, const QByteArray &name);
    int programDurationMs = 0;  // 0: a program runs until reset
    void finishPrograms();

    int dncMemorySize = 0;
    int dncMemoryUsed() const { return dncUsed; }
    bool hasDncFile(int channel, const QByteArray &name) const { return dnc.contains({channel, name}); }
    QByteArray dncFile(int channel, const QByteArray &name) const { return dnc.value({channel, name}); }
    void setDncFile(int channel, const QByteArray &name, const QByteArray &content);
    void clearDncFiles();
    void setBusyReplies(int n, int pollsPerBusy);

    void setErrorFile(int channelIndex, bool history, const QByteArray &text);
    bool errorFileStuck = false;

    QVector<qint32> oscPoints;
    QVector<qint32> oscAxes;
    qint32 oscTransEnable = 0;

private:
    SimReply readVars(const QByteArray &pdu);
    SimReply writeVars(const QByteArray &pdu);
    SimReply program(const QByteArray &pdu);
    SimReply query(const QByteArray &pdu);
    SimReply transfer(const QByteArray &pdu, SimSession &s);
    SimReply storeText(const QByteArray &pdu, SimSession &s, bool overwrite);
    SimReply errorFile(const QByteArray &pdu, SimSession &s);
    SimReply oscilloscope(const QByteArray &pdu);
    void variableWritten(qint32 address, qint32 value);

    QMap<qint32, qint32> vars;
    QElapsedTimer clock;
    QMap<int, QByteArray> running;
    QMap<int, qint64> runningSince;
    QMap<QPair<int, QByteArray>, QByteArray> dnc;
    int dncUsed = 0;
    int busyLeft = 0;
    int busyPolls = 1;
    int pollsLeft = 0;
    QMap<QPair<int, bool>, QByteArray> errorTexts;    // set by the user
    QMap<QPair<int, bool>, QByteArray> writtenErrors;  // as the controller wrote them
};

#endif
