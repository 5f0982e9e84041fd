// The remote buffer against the simulated controller (127.0.0.70-79; 127.0.0.89
// has nothing listening).
#include "HRemoteBuffer.h"
#include "ControllerSim.h"

#include <QDir>
#include <QFile>
#include <QtTest>

#include <cstring>
#include <ctime>

namespace {

const int kWaitMs = 5000;

// A whole TCP frame around a PDU given in hex.
QByteArray frame(const QByteArray &pduHex)
{
    const QByteArray pdu = QByteArray::fromHex(pduHex);
    QByteArray f(7, '\0');
    f[4] = char((pdu.size() + 1) & 0xff);
    f[5] = char(((pdu.size() + 1) >> 8) & 0xff);
    return f + pdu;
}

QByteArray appendFrame(const QByteArray &text)
{
    return frame("6402" + text.toHex() + "00");
}

const QByteArray setFileMdi = QByteArray::fromHex("00000000 0900 00 6401 01 05 4d444900");
const QByteArray setFileDnc = QByteArray::fromHex("00000000 0900 00 6401 01 01 444e4300");
const QByteArray overwriteEmpty = QByteArray::fromHex("00000000 0400 00 640300");
const QByteArray fileEnd = QByteArray::fromHex("00000000 0400 00 640400");
const QByteArray sendNext = QByteArray::fromHex("00000000 0400 00 640500");

// 'A'..'Z' repeated, so a piece shows where it was cut from.
QByteArray pattern(int length)
{
    QByteArray text(length, '\0');
    for (int i = 0; i < length; ++i)
        text[i] = char('A' + i % 26);
    return text;
}

int threadCount()
{
    return QDir(QStringLiteral("/proc/self/task")).entryList(QDir::Dirs | QDir::NoDotAndDotDot).size();
}

qint64 rssKb()
{
    QFile status(QStringLiteral("/proc/self/status"));
    if (!status.open(QIODevice::ReadOnly))
        return -1;
    for (const QByteArray &line : status.readAll().split('\n'))
        if (line.startsWith("VmRSS:"))
            return line.mid(6).trimmed().split(' ').value(0).toLongLong();
    return -1;
}

// Opens through the library and closes at scope end, so a failed check
// does not leave a thread behind.
struct Buffer {
    HRemoteBuffer *b;
    Buffer(const char *address, unsigned mode, unsigned channel = 1)
        : b(HRemoteBuffer::open(address, mode, channel)) {}
    ~Buffer() { HRemoteBuffer::close(b); }
    HRemoteBuffer *operator->() const { return b; }
};

} // namespace

class TestRemoteBuffer : public QObject
{
    Q_OBJECT

private slots:
    void replyHandlers_data();
    void replyHandlers();
    void announceWriteClearClose_data();
    void announceWriteClearClose();
    void statesThroughTraffic_data();
    void statesThroughTraffic();
    void busyControllerIsPolled();
    void refusingControllerIsPaced_data();
    void refusingControllerIsPaced();
    void splitReplyParsedAsItCame();
    void framesOnTheWire_data();
    void framesOnTheWire();
    void mdiRoomAndLimit();
    void dncRoomAndLimit();
    void unreachableController();
    void lostConnection();
    void openCloseLoop();
};

// Each reply handed straight to the parser of a buffer whose thread has
// ended (nothing listens there), starting from state 3 and an empty text.
void TestRemoteBuffer::replyHandlers_data()
{
    QTest::addColumn<QByteArray>("replyPdu");
    QTest::addColumn<int>("state");
    QTest::addColumn<QByteArray>("info");

    const QByteArray denied("target file is been executing.file transmission denied.");
    QTest::newRow("set file 0") << QByteArray("6401010500") << 0 << QByteArray("SetFileInf Ok");
    QTest::newRow("set file 1") << QByteArray("6401010501") << 4 << QByteArray("parameters error.");
    QTest::newRow("set file 2") << QByteArray("6401010502") << 2 << denied;
    QTest::newRow("set file 7") << QByteArray("6401010507") << 4 << QByteArray("CmdSetFileInf:unknow state. state=7");
    QTest::newRow("overwrite 0") << QByteArray("640300") << 0 << QByteArray("OverWriteTxt Ok");
    QTest::newRow("overwrite 1") << QByteArray("640301") << 4 << QByteArray("parameters error.");
    QTest::newRow("overwrite 2") << QByteArray("640302") << 1 << QByteArray("Cnc Busy");
    QTest::newRow("overwrite 3") << QByteArray("640303") << 3 << QByteArray();
    QTest::newRow("append 0") << QByteArray("640200") << 0 << QByteArray("AppendTxt Ok");
    QTest::newRow("append 1") << QByteArray("640201") << 4 << QByteArray("parameters error.");
    QTest::newRow("append 2") << QByteArray("640202") << 1 << QByteArray();
    QTest::newRow("append 3") << QByteArray("640203") << 3 << QByteArray();
    // The file-end reply carries no state the parser reads: always success.
    QTest::newRow("file end 0") << QByteArray("640400") << 0 << QByteArray("fileEnd Ok");
    QTest::newRow("file end 1") << QByteArray("640401") << 0 << QByteArray("fileEnd Ok");
    QTest::newRow("send next 0") << QByteArray("640500") << 0 << QByteArray("RequestSendNext ok");
    QTest::newRow("send next 1") << QByteArray("640501") << 1 << QByteArray();
    QTest::newRow("send next 2") << QByteArray("640502") << 3 << QByteArray();
    QTest::newRow("error reply") << QByteArray("e402") << 3 << QByteArray();
}

void TestRemoteBuffer::replyHandlers()
{
    QFETCH(QByteArray, replyPdu);
    QFETCH(int, state);
    QFETCH(QByteArray, info);

    Buffer buffer("127.0.0.89", HRemoteBuffer::DncMode);
    QTRY_VERIFY_WITH_TIMEOUT(buffer->isFinished(), kWaitMs);
    QCOMPARE(buffer->state(), int(HRemoteBuffer::StateClosed));
    const QByteArray reply = frame(replyPdu);
    std::memcpy(buffer->recvBuffer(), reply.constData(), size_t(reply.size()));
    buffer->parse(reply.size());
    QCOMPARE(buffer->state(), state);
    QCOMPARE(QByteArray(buffer->stateInfo()), info);
}

void TestRemoteBuffer::announceWriteClearClose_data()
{
    QTest::addColumn<int>("mode");
    QTest::addColumn<QByteArray>("fileName");
    QTest::addColumn<QByteArray>("setFile");
    QTest::newRow("MDI") << int(HRemoteBuffer::MdiMode) << QByteArray("MDI") << setFileMdi;
    QTest::newRow("DNC") << int(HRemoteBuffer::DncMode) << QByteArray("DNC") << setFileDnc;
}

void TestRemoteBuffer::announceWriteClearClose()
{
    QFETCH(int, mode);
    QFETCH(QByteArray, fileName);
    QFETCH(QByteArray, setFile);

    ControllerSim sim(QStringLiteral("127.0.0.70"));
    QVERIFY(sim.start());
    {
        Buffer buffer("127.0.0.70", uint(mode));
        QVERIFY(buffer.b);
        QTRY_COMPARE_WITH_TIMEOUT(buffer->state(), int(HRemoteBuffer::StateIdle), kWaitMs);
        QCOMPARE(QByteArray(buffer->stateInfo()), QByteArray("Command queue is empty."));
        QTRY_COMPARE_WITH_TIMEOUT(sim.connectionCount(), 1, kWaitMs);
        QCOMPARE(sim.requests().value(0), setFile);
        QVERIFY(sim.hasDncFile(1, fileName));

        const QByteArray text("N10 G01 X10 Y20\nN20 M30\n");
        QCOMPARE(buffer->write(text.constData()), 1);
        QTRY_COMPARE_WITH_TIMEOUT(sim.dncFile(1, fileName), text, kWaitMs);
        QCOMPARE(buffer->write(nullptr), 0);

        QTRY_COMPARE_WITH_TIMEOUT(buffer->state(), int(HRemoteBuffer::StateIdle), kWaitMs);
        sim.clearRequests();
        QCOMPARE(buffer->clear(), 1);
        QVERIFY(sim.waitForRequests(2, kWaitMs));
        QCOMPARE(sim.requests('d'), (QList<QByteArray>{setFile, overwriteEmpty}));
        QTRY_COMPARE_WITH_TIMEOUT(sim.dncFile(1, fileName), QByteArray(), kWaitMs);
        QTRY_COMPARE_WITH_TIMEOUT(buffer->state(), int(HRemoteBuffer::StateIdle), kWaitMs);

        void *handle = buffer.b;
        QCOMPARE(HRemoteBuffer::close(handle), 1);
        // Winding down: still answers, as a closed buffer.
        QCOMPARE(HRemoteBuffer::withHandle(handle, -1, [](HRemoteBuffer *b) { return b->state(); }),
                 int(HRemoteBuffer::StateClosed));
        QCOMPARE(HRemoteBuffer::withHandle(handle, -1, [](HRemoteBuffer *b) { return b->write("x"); }), 0);
        QCOMPARE(HRemoteBuffer::close(handle), 1);
        // Freed through the event loop; afterwards the handle is unknown.
        QTRY_COMPARE_WITH_TIMEOUT(HRemoteBuffer::liveCount(), 0, kWaitMs);
        QCOMPARE(HRemoteBuffer::withHandle(handle, -1, [](HRemoteBuffer *b) { return b->state(); }), -1);
        QCOMPARE(HRemoteBuffer::close(handle), 0);
        QTRY_COMPARE_WITH_TIMEOUT(sim.connectionCount(), 0, kWaitMs);
        buffer.b = nullptr;
    }
}

// Faults are set once the buffer is idle, except for rows without an action,
// whose fault is on the announcement itself.
void TestRemoteBuffer::statesThroughTraffic_data()
{
    QTest::addColumn<int>("mode");
    QTest::addColumn<QStringList>("faults");
    QTest::addColumn<QString>("action");
    QTest::addColumn<int>("state");
    QTest::addColumn<QByteArray>("info");
    QTest::addColumn<QByteArray>("resent");    // sent again and again
    QTest::addColumn<QByteArray>("sentOnce");  // sent exactly once

    const int mdi = HRemoteBuffer::MdiMode;
    const int dnc = HRemoteBuffer::DncMode;
    const QByteArray idle("Command queue is empty.");
    const QByteArray paramError("parameters error.");
    const QByteArray text("G1X1");

    QTest::newRow("set file parameter error") << mdi << QStringList{"d:1=state:1"} << "" << 4
                                              << paramError << setFileMdi << QByteArray();
    QTest::newRow("set file denied") << dnc << QStringList{"d:1=state:2"} << "" << 2
                                     << QByteArray("target file is been executing.file transmission denied.")
                                     << setFileDnc << QByteArray();
    QTest::newRow("set file unknown state") << mdi << QStringList{"d:1=state:9"} << "" << 4
                                            << QByteArray("CmdSetFileInf:unknow state. state=9")
                                            << setFileMdi << QByteArray();
    QTest::newRow("append parameter error") << dnc << QStringList{"d:2=state:1"} << "write" << 4
                                            << paramError << appendFrame(text) << QByteArray();
    QTest::newRow("append busy") << dnc << QStringList{"d:2=state:2", "d:5=state:1"} << "write" << 1
                                 << idle << sendNext << appendFrame(text);
    QTest::newRow("overwrite busy") << dnc << QStringList{"d:3=state:2", "d:5=state:1"} << "clear" << 1
                                    << QByteArray("Cnc Busy") << sendNext << overwriteEmpty;
    QTest::newRow("overwrite parameter error") << mdi << QStringList{"d:3=state:1"} << "clear" << 4
                                               << paramError << overwriteEmpty << QByteArray();
    QTest::newRow("file end refused counts as done") << mdi << QStringList{"d:4=state:1"} << "write" << 5
                                                     << idle << QByteArray() << fileEnd;
    QTest::newRow("error reply not resent") << dnc << QStringList{"d:2=error"} << "write" << 5
                                            << idle << QByteArray() << appendFrame(text);
    QTest::newRow("silence not waited for again") << dnc << QStringList{"d:2=silence"} << "write" << 5
                                                  << idle << QByteArray() << appendFrame(text);
}

void TestRemoteBuffer::statesThroughTraffic()
{
    QFETCH(int, mode);
    QFETCH(QStringList, faults);
    QFETCH(QString, action);
    QFETCH(int, state);
    QFETCH(QByteArray, info);
    QFETCH(QByteArray, resent);
    QFETCH(QByteArray, sentOnce);

    ControllerSim sim(QStringLiteral("127.0.0.71"));
    QVERIFY(sim.start());
    auto applyFaults = [&] {
        for (const QString &f : faults) {
            char letter = 0;
            int sub = 0;
            ControllerSim::Fault fault;
            QVERIFY2(ControllerSim::parseFault(f, &letter, &sub, &fault), qPrintable(f));
            sim.setFault(letter, sub, fault);
        }
    };
    if (action.isEmpty())
        applyFaults();

    Buffer buffer("127.0.0.71", uint(mode));
    if (!action.isEmpty()) {
        QTRY_COMPARE_WITH_TIMEOUT(buffer->state(), int(HRemoteBuffer::StateIdle), kWaitMs);
        applyFaults();
        sim.clearRequests();
        if (action == QLatin1String("write"))
            QCOMPARE(buffer->write("G1X1"), 1);
        else
            QCOMPARE(buffer->clear(), 1);
    }
    if (!resent.isEmpty())
        QTRY_VERIFY_WITH_TIMEOUT(sim.requests().count(resent) >= 3, kWaitMs);
    QTRY_COMPARE_WITH_TIMEOUT(buffer->state(), state, kWaitMs);
    QCOMPARE(QByteArray(buffer->stateInfo()), info);
    if (!sentOnce.isEmpty())
        QCOMPARE(sim.requests().count(sentOnce), 1);
    // Writes and clears are taken only in states 0 and 5.
    const bool open = state == HRemoteBuffer::StateWorking || state == HRemoteBuffer::StateIdle;
    QCOMPARE(buffer->clear(), open ? 1 : 0);
    QCOMPARE(buffer->validCount() > 0, open);
}

void TestRemoteBuffer::busyControllerIsPolled()
{
    ControllerSim sim(QStringLiteral("127.0.0.72"));
    QVERIFY(sim.start());
    Buffer buffer("127.0.0.72", HRemoteBuffer::DncMode);
    QTRY_COMPARE_WITH_TIMEOUT(buffer->state(), int(HRemoteBuffer::StateIdle), kWaitMs);
    sim.setBusyReplies(1, 2);
    // The busy reply comes late, so the second write finds the buffer still
    // working: once busy, it takes no writes.
    sim.setFault('d', 2, ControllerSim::Fault::delay(300, 1));
    sim.clearRequests();

    QCOMPARE(buffer->write("N10 G1 X5\n"), 1);
    QCOMPARE(buffer->write("N20 M30\n"), 1);
    // Busy on the first append, two polls answered busy, one answered 0,
    // then the second append.
    QVERIFY(sim.waitForRequests(5, kWaitMs));
    QTRY_COMPARE_WITH_TIMEOUT(buffer->state(), int(HRemoteBuffer::StateIdle), kWaitMs);
    QCOMPARE(sim.requests('d'), (QList<QByteArray>{appendFrame("N10 G1 X5\n"), sendNext, sendNext,
                                                   sendNext, appendFrame("N20 M30\n")}));
    QCOMPARE(sim.dncFile(1, "DNC"), QByteArray("N10 G1 X5\nN20 M30\n"));
}

void TestRemoteBuffer::refusingControllerIsPaced_data()
{
    QTest::addColumn<QString>("fault");
    QTest::addColumn<int>("busyPolls");
    QTest::newRow("denied file -> announced again at most 100 times a second") << "d:1=state:2" << 0;
    QTest::newRow("parameter error -> the append resent at most 100 times a second") << "d:2=state:1" << 0;
    QTest::newRow("busy controller -> send-next polls that cost no CPU") << "" << 1000;
}

void TestRemoteBuffer::refusingControllerIsPaced()
{
    QFETCH(QString, fault);
    QFETCH(int, busyPolls);
    ControllerSim sim(QStringLiteral("127.0.0.79"));
    QVERIFY(sim.start());
    char letter = 0;
    int sub = -1;
    ControllerSim::Fault refusal;
    if (!fault.isEmpty()) {
        QVERIFY(ControllerSim::parseFault(fault, &letter, &sub, &refusal));
        if (sub != 1)   // the announcement goes through; the text is refused
            sim.setFault(letter, sub, refusal);
    }
    Buffer buffer("127.0.0.79", HRemoteBuffer::DncMode);
    if (sub == 1) {
        sim.setFault(letter, sub, refusal);
    } else {
        QTRY_COMPARE_WITH_TIMEOUT(buffer->state(), int(HRemoteBuffer::StateIdle), kWaitMs);
        if (busyPolls > 0)
            sim.setBusyReplies(1, busyPolls);
        QCOMPARE(buffer->write("N10 G1 X5\n"), 1);
    }
    QVERIFY(sim.waitForRequests(2, kWaitMs));
    const int before = sim.requests().size();
    const std::clock_t cpuBefore = std::clock();
    QThread::msleep(1000);
    const double cpuMs = 1000.0 * double(std::clock() - cpuBefore) / CLOCKS_PER_SEC;
    const int inOneSecond = sim.requests().size() - before;
    QVERIFY2(inOneSecond >= 5 && inOneSecond <= 100, qPrintable(QString::number(inOneSecond)));
    // The whole process: the buffer's thread, the simulator, this test.
    QVERIFY2(cpuMs < 300, qPrintable(QString::number(cpuMs)));
}

// The reply wait ends with the first bytes, and what came is parsed: a busy
// answer cut in two is too short to read, so the buffer neither turns busy
// nor polls; the late tail is read (and dropped) with the next exchange.
void TestRemoteBuffer::splitReplyParsedAsItCame()
{
    ControllerSim sim(QStringLiteral("127.0.0.78"));
    QVERIFY(sim.start());
    Buffer buffer("127.0.0.78", HRemoteBuffer::DncMode);
    QTRY_COMPARE_WITH_TIMEOUT(buffer->state(), int(HRemoteBuffer::StateIdle), kWaitMs);
    sim.setBusyReplies(1);
    sim.setFault('d', 2, ControllerSim::Fault::split(300, 1));
    sim.clearRequests();

    QCOMPARE(buffer->write("N1\n"), 1);
    QVERIFY(sim.waitForRequests(1, kWaitMs));
    QTRY_COMPARE_WITH_TIMEOUT(buffer->state(), int(HRemoteBuffer::StateIdle), kWaitMs);
    QCOMPARE(buffer->write("N2\n"), 1);
    QCOMPARE(buffer->write("N3\n"), 1);
    QTRY_COMPARE_WITH_TIMEOUT(sim.dncFile(1, "DNC"), QByteArray("N1\nN2\nN3\n"), kWaitMs);
    QTRY_COMPARE_WITH_TIMEOUT(buffer->state(), int(HRemoteBuffer::StateIdle), kWaitMs);
    QCOMPARE(sim.requests(), (QList<QByteArray>{appendFrame("N1\n"), appendFrame("N2\n"), appendFrame("N3\n")}));
}

void TestRemoteBuffer::framesOnTheWire_data()
{
    QTest::addColumn<int>("mode");
    QTest::addColumn<int>("length");
    QTest::addColumn<QList<QByteArray>>("frames");

    const QByteArray text = pattern(1000);
    // Pieces of exactly 480 bytes build nothing and are skipped.
    QTest::newRow("MDI 1000") << int(HRemoteBuffer::MdiMode) << 1000
                              << QList<QByteArray>{appendFrame(text.mid(960)), fileEnd};
    QTest::newRow("DNC 1000") << int(HRemoteBuffer::DncMode) << 1000
                              << QList<QByteArray>{appendFrame(text.mid(960))};
    QTest::newRow("DNC 959") << int(HRemoteBuffer::DncMode) << 959
                             << QList<QByteArray>{appendFrame(text.mid(480, 479))};
    QTest::newRow("DNC 481") << int(HRemoteBuffer::DncMode) << 481
                             << QList<QByteArray>{appendFrame(text.mid(480, 1))};
    QTest::newRow("MDI 479") << int(HRemoteBuffer::MdiMode) << 479
                             << QList<QByteArray>{appendFrame(text.left(479)), fileEnd};
}

void TestRemoteBuffer::framesOnTheWire()
{
    QFETCH(int, mode);
    QFETCH(int, length);
    QFETCH(QList<QByteArray>, frames);

    ControllerSim sim(QStringLiteral("127.0.0.73"));
    QVERIFY(sim.start());
    Buffer buffer("127.0.0.73", uint(mode));
    QTRY_COMPARE_WITH_TIMEOUT(buffer->state(), int(HRemoteBuffer::StateIdle), kWaitMs);
    sim.clearRequests();

    QCOMPARE(buffer->write(pattern(length).constData()), 1);
    // A marker write behind it: once it arrives, everything before it has.
    QCOMPARE(buffer->write("%"), 1);
    frames << appendFrame("%");
    if (mode == HRemoteBuffer::MdiMode)
        frames << fileEnd;
    QVERIFY(sim.waitForRequests(frames.size(), kWaitMs));
    QTRY_COMPARE_WITH_TIMEOUT(buffer->state(), int(HRemoteBuffer::StateIdle), kWaitMs);
    QCOMPARE(sim.requests(), frames);
}

// The appends go unanswered so the buffer stays in state 0 while the host
// counts; the room is the host's own bookkeeping.
void TestRemoteBuffer::mdiRoomAndLimit()
{
    ControllerSim sim(QStringLiteral("127.0.0.74"));
    QVERIFY(sim.start());
    Buffer buffer("127.0.0.74", HRemoteBuffer::MdiMode);
    QTRY_COMPARE_WITH_TIMEOUT(buffer->state(), int(HRemoteBuffer::StateIdle), kWaitMs);
    QCOMPARE(buffer->validCount(), 102400);
    sim.setSilence('d', 2);

    QCOMPARE(buffer->write(pattern(1000).constData()), 1);
    QCOMPARE(buffer->validCount(), 101400);
    QCOMPARE(buffer->write(pattern(101400).constData()), 1);
    QCOMPARE(buffer->validCount(), 0);
    // Exactly at the limit is not over it: the write that crosses is taken.
    QCOMPARE(buffer->write("X"), 1);
    QCOMPARE(buffer->bytesWritten(), qint64(102401));
    QCOMPARE(buffer->validCount(), 0);
    QCOMPARE(buffer->write("Y"), 0);
    QCOMPARE(buffer->clear(), 1);
    QCOMPARE(buffer->validCount(), 102400);
    QCOMPARE(buffer->write("Y"), 1);
    QCOMPARE(buffer->validCount(), 102399);
}

void TestRemoteBuffer::dncRoomAndLimit()
{
    ControllerSim sim(QStringLiteral("127.0.0.75"));
    QVERIFY(sim.start());
    Buffer buffer("127.0.0.75", HRemoteBuffer::DncMode);
    QTRY_COMPARE_WITH_TIMEOUT(buffer->state(), int(HRemoteBuffer::StateIdle), kWaitMs);
    QCOMPARE(buffer->validCount(), 480000);
    sim.setSilence('d', 2);

    // The thread takes the first write and waits 500 ms for its reply.
    sim.clearRequests();
    QCOMPARE(buffer->write("a"), 1);
    QVERIFY(sim.waitForRequests(1, kWaitMs));
    for (int i = 0; i < 5; ++i)
        QCOMPARE(buffer->write("b"), 1);
    // Five queued; a sixth in flight only if the wait ran out meanwhile.
    const int room = buffer->validCount();
    QVERIFY2(room == 995 * 480 || room == 996 * 480, qPrintable(QString::number(room)));
    // A write of 1000 pieces queues 1000 requests; room never goes negative.
    QCOMPARE(buffer->write(pattern(1000 * 479).constData()), 1);
    QCOMPARE(buffer->validCount(), 0);
    QVERIFY(buffer->queued() > 1000);
    QCOMPARE(buffer->write("c"), 0);
    // Clearing leaves the announcement and the emptying overwrite.
    sim.setSilence('d');
    QCOMPARE(buffer->clear(), 1);
    const int cleared = buffer->validCount();
    QVERIFY2(cleared == 998 * 480 || cleared == 999 * 480, qPrintable(QString::number(cleared)));
}

void TestRemoteBuffer::unreachableController()
{
    const int before = threadCount();
    Buffer buffer("127.0.0.89", HRemoteBuffer::MdiMode);
    QTRY_VERIFY_WITH_TIMEOUT(buffer->isFinished(), kWaitMs);
    QCOMPARE(buffer->state(), int(HRemoteBuffer::StateClosed));
    QVERIFY(!buffer->isConnected());
    QCOMPARE(buffer->write("G0 X0"), 0);
    QCOMPARE(buffer->clear(), 0);
    QCOMPARE(buffer->validCount(), 0);
    QCOMPARE(QByteArray(buffer->stateInfo()), QByteArray());
    // Nothing left behind; buffers of earlier tests may end meanwhile.
    QVERIFY(threadCount() <= before);
}

void TestRemoteBuffer::lostConnection()
{
    ControllerSim sim(QStringLiteral("127.0.0.76"));
    QVERIFY(sim.start());
    Buffer buffer("127.0.0.76", HRemoteBuffer::DncMode);
    QTRY_COMPARE_WITH_TIMEOUT(buffer->state(), int(HRemoteBuffer::StateIdle), kWaitMs);
    sim.stop();
    QCOMPARE(buffer->write("G0 X0"), 1);
    QTRY_COMPARE_WITH_TIMEOUT(buffer->state(), int(HRemoteBuffer::StateClosed), kWaitMs);
    QTRY_VERIFY_WITH_TIMEOUT(buffer->isFinished(), kWaitMs);
    QCOMPARE(buffer->write("G0 X1"), 0);
}

// Closed from a thread with an event loop: freed through it. (A host
// without one is the C interface test's.)
void TestRemoteBuffer::openCloseLoop()
{
    ControllerSim sim(QStringLiteral("127.0.0.77"));
    QVERIFY(sim.start());
    auto loop = [](int n) {
        for (int i = 0; i < n; ++i) {
            void *h = HRemoteBuffer::open("127.0.0.77", unsigned(i % 2), 1);
            HRemoteBuffer::withHandle(h, 0, [](HRemoteBuffer *b) { return b->write("G0 X0\n"); });
            HRemoteBuffer::close(h);
        }
    };
    // A few rounds first, so lazily made runtime state is in the baseline.
    loop(5);
    QTRY_COMPARE_WITH_TIMEOUT(HRemoteBuffer::liveCount(), 0, kWaitMs);
    QTRY_COMPARE_WITH_TIMEOUT(sim.connectionCount(), 0, kWaitMs);
    const int threadsBefore = threadCount();
    const qint64 rssBefore = rssKb();
    const int acceptedBefore = sim.connectionsAccepted();

    loop(200);
    // Real connections, not buffers that never got going.
    QTRY_VERIFY_WITH_TIMEOUT(sim.connectionsAccepted() - acceptedBefore >= 100, kWaitMs);
    QTRY_COMPARE_WITH_TIMEOUT(HRemoteBuffer::liveCount(), 0, 10000);
    QTRY_COMPARE_WITH_TIMEOUT(sim.connectionCount(), 0, kWaitMs);
    QTRY_VERIFY_WITH_TIMEOUT(threadCount() <= threadsBefore, kWaitMs);
// Not under the sanitizers: ASan keeps freed memory in quarantine (LeakSanitizer
// checks instead), TSan keeps the history of every finished thread.
#ifndef VELMORA_SANITIZED
    const qint64 growthKb = rssKb() - rssBefore;
    QVERIFY2(growthKb < 8 * 1024, qPrintable(QString::number(growthKb) + " kB"));
#else
    Q_UNUSED(rssBefore)
#endif
}

QTEST_GUILESS_MAIN(TestRemoteBuffer)
#include "tst_remotebuffer.moc"
