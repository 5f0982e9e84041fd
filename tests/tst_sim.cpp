// The simulator driven over raw sockets with hand-written frames: what every
// other test relies on must answer byte for byte as documented.

#include "ControllerSim.h"
#include "SimScenario.h"

#include <QElapsedTimer>
#include <QProcess>
#include <QTcpSocket>
#include <QtTest>

#include <csignal>
#include <memory>

Q_DECLARE_METATYPE(ControllerSim::Fault)

namespace {

const QString simAddress = QStringLiteral("127.0.0.2");

QByteArray hex(const char *text)
{
    return QByteArray::fromHex(QByteArray(text).replace(' ', ""));
}

// A bare client: sends bytes, collects whole reply frames by their length field.
class Peer
{
public:
    explicit Peer(const QString &address = simAddress)
    {
        socket.connectToHost(address, 60000);
        connected = socket.waitForConnected(2000);
    }

    // Everything that arrives within ms.
    QByteArray readFor(int ms)
    {
        QElapsedTimer t;
        t.start();
        QByteArray got = socket.readAll();
        while (t.elapsed() < ms) {
            if (socket.waitForReadyRead(int(qMax<qint64>(1, ms - t.elapsed()))))
                got += socket.readAll();
            else if (socket.state() != QAbstractSocket::ConnectedState)
                break;
        }
        return got;
    }

    // One whole reply frame, or what came before the time ran out.
    QByteArray reply(int ms = 2000)
    {
        QElapsedTimer t;
        t.start();
        while (true) {
            if (pending.size() >= 6) {
                const int total = 6 + (quint8(pending[4]) | quint8(pending[5]) << 8);
                if (pending.size() >= total) {
                    const QByteArray f = pending.left(total);
                    pending.remove(0, total);
                    return f;
                }
            }
            const qint64 left = ms - t.elapsed();
            if (left <= 0 || !socket.waitForReadyRead(int(left)))
                break;
            pending += socket.readAll();
        }
        const QByteArray partial = pending;
        pending.clear();
        return partial;
    }

    QByteArray exchange(const QByteArray &frame)
    {
        socket.write(frame);
        socket.flush();
        return reply();
    }

    QTcpSocket socket;
    QByteArray pending;
    bool connected = false;
};

} // namespace

class tst_Sim : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();
    void replies_data();
    void replies();
    void writeReadBackAndRecord();
    void programRunStates();
    void dncStore();
    void dncMemoryFullAndBusy();
    void errorFiles();
    void oscilloscope();
    void faults_data();
    void faults();
    void faultTimes();
    void splitAndCloseAfter();
    void garbageStreamAndRestart();
    void framingAcrossSegments();
    void brokenHeaderClosesOnlyThatConnection();
    void everyWellFramedRequestGetsOneReply();
    void parseFault_data();
    void parseFault();
    void scenario_data();
    void scenario();
    void twoSimulatorsSideBySide();
    void commandLineProgram();

private:
    ControllerSim *sim = nullptr;
};

void tst_Sim::init()
{
    sim = new ControllerSim(simAddress);
    QVERIFY(sim->start());
}

void tst_Sim::cleanup()
{
    delete sim;
    sim = nullptr;
}

void tst_Sim::replies_data()
{
    QTest::addColumn<QByteArray>("request");
    QTest::addColumn<QByteArray>("expected");

    QTest::newRow("watchdog") << hex("00000000 0200 00 70") << hex("00000000 0300 00 70 00");
    QTest::newRow("read two unset")
        << hex("00000000 0b00 00 42 02 01000000 45230100")
        << hex("00000000 0b00 00 42 02 00000000 00000000");
    QTest::newRow("read 169999 and 1169999")
        << hex("00000000 0b00 00 42 02 0f980200 4fda1100")
        << hex("00000000 0b00 00 42 02 00000000 00000000");
    QTest::newRow("reset ch1") << hex("00000000 0500 00 66 03 01 00") << hex("00000000 0500 00 66 03 01 00");
    QTest::newRow("reset ch0") << hex("00000000 0500 00 66 03 00 00") << hex("00000000 0500 00 66 03 00 01");
    QTest::newRow("start unknown program")
        << hex("00000000 0700 00 66 04 01 4f 31 00") << hex("00000000 0500 00 66 04 01 03");
    QTest::newRow("start empty name") << hex("00000000 0500 00 66 04 01 00") << hex("00000000 0500 00 66 04 01 01");
    QTest::newRow("f sub 5") << hex("00000000 0600 00 66 05 07 aa 00") << hex("00000000 0500 00 66 05 07 00");
    QTest::newRow("running program idle") << hex("00000000 0500 00 67 05 31 00") << hex("00000000 0400 00 67 05 00");
    QTest::newRow("g selector 5 comes back as f0")
        << hex("00000000 0400 00 67 90 00") << hex("00000000 0400 00 67 f0 00");
    QTest::newRow("append without a file") << hex("00000000 0500 00 64 02 41 00") << hex("00000000 0400 00 64 02 01");
    QTest::newRow("file end without a file") << hex("00000000 0400 00 64 04 00") << hex("00000000 0400 00 64 04 01");
    QTest::newRow("send next idle") << hex("00000000 0400 00 64 05 00") << hex("00000000 0400 00 64 05 00");
    QTest::newRow("set file ch0") << hex("00000000 0700 00 64 01 00 01 41 00")
                                  << hex("00000000 0600 00 64 01 00 01 01");
    QTest::newRow("set file bad type") << hex("00000000 0700 00 64 01 01 02 41 00")
                                       << hex("00000000 0600 00 64 01 01 02 01");
    QTest::newRow("ask file state") << hex("00000000 0700 00 64 06 01 05 41 00")
                                    << hex("00000000 0600 00 64 06 01 05 00");
    QTest::newRow("open unwritten error file")
        << hex("00000000 2000 00 63 01 7379733030 30302f6572726f722f6375724572726f722e6572726f72 00")
        << hex("00000000 0400 00 63 01 00");
    QTest::newRow("read with no file open") << hex("00000000 0400 00 63 02 00") << hex("00000000 0500 00 63 02 00 00");
    QTest::newRow("close with no file open") << hex("00000000 0400 00 63 03 00") << hex("00000000 0400 00 63 03 00");
    QTest::newRow("osc points none") << hex("00000000 0b00 00 69 03 00000000 05000000")
                                     << hex("00000000 0500 00 69 03 01 00");
    // Malformed requests get an error reply and leave the connection usable.
    QTest::newRow("unknown letter") << hex("00000000 0300 00 7a 01") << hex("00000000 0300 00 fa 01");
    QTest::newRow("letter alone 'B'") << hex("00000000 0200 00 42") << hex("00000000 0300 00 c2 00");
    QTest::newRow("read count says 2, carries 1")
        << hex("00000000 0700 00 42 02 01000000") << hex("00000000 0300 00 c2 00");
    QTest::newRow("read 170000") << hex("00000000 0700 00 42 01 10980200") << hex("00000000 0300 00 c2 00");
    QTest::newRow("read 10000000") << hex("00000000 0700 00 42 01 80969800") << hex("00000000 0300 00 c2 00");
    QTest::newRow("write -1") << hex("00000000 0b00 00 44 01 ffffffff 01000000") << hex("00000000 0300 00 c4 01");
    QTest::newRow("d sub 9") << hex("00000000 0400 00 64 09 00") << hex("00000000 0300 00 e4 09");
    QTest::newRow("f short") << hex("00000000 0300 00 66 03") << hex("00000000 0300 00 e6 03");
    QTest::newRow("osc count 0") << hex("00000000 0b00 00 69 03 00000000 00000000") << hex("00000000 0300 00 e9 03");
}

void tst_Sim::replies()
{
    QFETCH(QByteArray, request);
    QFETCH(QByteArray, expected);
    Peer peer;
    QVERIFY(peer.connected);
    QCOMPARE(peer.exchange(request).toHex(' '), expected.toHex(' '));
    // Still serving after whatever came before.
    QCOMPARE(peer.exchange(hex("00000000 0200 00 70")), hex("00000000 0300 00 70 00"));
}

void tst_Sim::writeReadBackAndRecord()
{
    Peer peer;
    QVERIFY(peer.connected);
    const QByteArray write = hex("00000000 1300 00 44 02 e8030000 78563412 4fda1100 feffffff");
    const QByteArray read = hex("00000000 0f00 00 42 03 e8030000 4fda1100 e9030000");
    QCOMPARE(peer.exchange(write), hex("00000000 0300 00 44 02"));
    QCOMPARE(peer.exchange(read), hex("00000000 0f00 00 42 03 78563412 feffffff 00000000"));
    QCOMPARE(sim->variable(1000), qint32(0x12345678));
    QCOMPARE(sim->variable(1169999), -2);
    QCOMPARE(sim->requests(), QList<QByteArray>({write, read}));
    QCOMPARE(sim->requests('B'), QList<QByteArray>({read}));

    sim->setVariable(1001, -7);
    QCOMPARE(peer.exchange(read), hex("00000000 0f00 00 42 03 78563412 feffffff f9ffffff"));
    sim->clearRequests();
    QVERIFY(sim->requests().isEmpty());
    QVERIFY(!sim->waitForRequests(1, 50));

    // Animation moves only variables that were never written.
    sim->setAnimated(true);
    const QByteArray readAnimated = hex("00000000 0b00 00 42 02 e8030000 07000000");
    const QByteArray first = peer.exchange(readAnimated);
    QVERIFY(sim->waitForRequests(1, 1000));
    QByteArray later;
    for (int i = 0; i < 20 && (later.isEmpty() || later == first); ++i) {
        QTest::qWait(60);
        later = peer.exchange(readAnimated);
    }
    QCOMPARE(first.mid(9, 4), hex("78563412"));
    QCOMPARE(later.mid(9, 4), hex("78563412"));
    QVERIFY(later.mid(13, 4) != first.mid(13, 4));
}

void tst_Sim::programRunStates()
{
    sim->addKnownProgram("O100");
    Peer peer;
    QVERIFY(peer.connected);
    const QByteArray start = hex("00000000 0900 00 66 04 02 4f 31 30 30 00");
    QCOMPARE(peer.exchange(start), hex("00000000 0500 00 66 04 02 00"));
    QCOMPARE(sim->runningProgram(2), QByteArray("O100"));
    QCOMPARE(peer.exchange(start), hex("00000000 0500 00 66 04 02 02"));
    // The running-program query names the channel in decimal text.
    QCOMPARE(peer.exchange(hex("00000000 0500 00 67 05 32 00")), hex("00000000 0800 00 67 05 4f313030 00"));
    QCOMPARE(peer.exchange(hex("00000000 0500 00 67 05 31 00")), hex("00000000 0400 00 67 05 00"));
    // The running file cannot be replaced.
    QCOMPARE(peer.exchange(hex("00000000 0a00 00 64 01 02 01 4f313030 00")),
             hex("00000000 0600 00 64 01 02 01 02"));
    QCOMPARE(peer.exchange(hex("00000000 0500 00 66 03 02 00")), hex("00000000 0500 00 66 03 02 00"));
    QVERIFY(sim->runningProgram(2).isEmpty());
    QCOMPARE(peer.exchange(hex("00000000 0a00 00 64 01 02 01 4f313030 00")),
             hex("00000000 0600 00 64 01 02 01 00"));

    // A program that ends by itself frees its channel.
    sim->setProgramDuration(100);
    QCOMPARE(peer.exchange(start), hex("00000000 0500 00 66 04 02 00"));
    QTRY_VERIFY_WITH_TIMEOUT(sim->runningProgram(2).isEmpty(), 2000);
    QCOMPARE(peer.exchange(start), hex("00000000 0500 00 66 04 02 00"));
}

void tst_Sim::dncStore()
{
    Peer peer, other;
    QVERIFY(peer.connected && other.connected);
    QCOMPARE(peer.exchange(hex("00000000 0800 00 64 01 03 05 5031 00")), hex("00000000 0600 00 64 01 03 05 00"));
    // The announced file belongs to the connection that announced it.
    QCOMPARE(other.exchange(hex("00000000 0500 00 64 02 41 00")), hex("00000000 0400 00 64 02 01"));
    QCOMPARE(peer.exchange(hex("00000000 0700 00 64 03 414243 00")), hex("00000000 0400 00 64 03 00"));
    QCOMPARE(peer.exchange(hex("00000000 0700 00 64 02 444546 00")), hex("00000000 0400 00 64 02 00"));
    QCOMPARE(sim->dncFile(3, "P1"), QByteArray("ABCDEF"));
    QCOMPARE(peer.exchange(hex("00000000 0500 00 64 03 5a 00")), hex("00000000 0400 00 64 03 00"));
    QCOMPARE(sim->dncFile(3, "P1"), QByteArray("Z"));
    // After a file end the file stays announced on this connection.
    QCOMPARE(peer.exchange(hex("00000000 0400 00 64 04 00")), hex("00000000 0400 00 64 04 00"));
    QCOMPARE(peer.exchange(hex("00000000 0500 00 64 02 41 00")), hex("00000000 0400 00 64 02 00"));
    QCOMPARE(sim->dncFile(3, "P1"), QByteArray("ZA"));
    QCOMPARE(sim->dncMemoryUsed(), 2);
    // A program in the store can be started on its channel only.
    QCOMPARE(peer.exchange(hex("00000000 0700 00 66 04 01 5031 00")), hex("00000000 0500 00 66 04 01 03"));
    QCOMPARE(peer.exchange(hex("00000000 0700 00 66 04 03 5031 00")), hex("00000000 0500 00 66 04 03 00"));
}

void tst_Sim::dncMemoryFullAndBusy()
{
    sim->setDncMemorySize(10);
    Peer peer;
    QVERIFY(peer.connected);
    QCOMPARE(peer.exchange(hex("00000000 0700 00 64 01 01 01 44 00")), hex("00000000 0600 00 64 01 01 01 00"));
    QCOMPARE(peer.exchange(hex("00000000 0900 00 64 03 3031323334 00")), hex("00000000 0400 00 64 03 00"));
    // Exactly filling the memory is written but reported full.
    QCOMPARE(peer.exchange(hex("00000000 0900 00 64 02 3536373839 00")), hex("00000000 0400 00 64 02 02"));
    QCOMPARE(peer.exchange(hex("00000000 0500 00 64 02 78 00")), hex("00000000 0400 00 64 02 03"));
    QCOMPARE(sim->dncFile(1, "D"), QByteArray("0123456789"));
    // An overwrite counts the room its own old text frees.
    QCOMPARE(peer.exchange(hex("00000000 0500 00 64 03 78 00")), hex("00000000 0400 00 64 03 00"));
    QCOMPARE(sim->dncMemoryUsed(), 1);

    sim->setBusyReplies(1, 2);
    QCOMPARE(peer.exchange(hex("00000000 0500 00 64 02 79 00")), hex("00000000 0400 00 64 02 02"));
    QCOMPARE(sim->dncFile(1, "D"), QByteArray("xy"));
    QCOMPARE(peer.exchange(hex("00000000 0400 00 64 05 00")), hex("00000000 0400 00 64 05 01"));
    QCOMPARE(peer.exchange(hex("00000000 0400 00 64 05 00")), hex("00000000 0400 00 64 05 01"));
    QCOMPARE(peer.exchange(hex("00000000 0400 00 64 05 00")), hex("00000000 0400 00 64 05 00"));
    QCOMPARE(peer.exchange(hex("00000000 0500 00 64 02 7a 00")), hex("00000000 0400 00 64 02 00"));
}

void tst_Sim::errorFiles()
{
    QByteArray text;
    for (int i = 0; i < 250; ++i)
        text.append(char('a' + i % 26));
    sim->setErrorFile(3, false, text);
    Peer peer;
    QVERIFY(peer.connected);
    // 120139 = 3, then 120138 = 1: the controller writes the file and clears 120138.
    QCOMPARE(peer.exchange(hex("00000000 0b00 00 44 01 4bd50100 03000000")), hex("00000000 0300 00 44 01"));
    QCOMPARE(peer.exchange(hex("00000000 0b00 00 44 01 4ad50100 01000000")), hex("00000000 0300 00 44 01"));
    QCOMPARE(sim->variable(120138), 0);
    QCOMPARE(peer.exchange(hex("00000000 2000 00 63 01 7379733030 30332f6572726f722f6375724572726f722e6572726f72 00")),
             hex("00000000 0400 00 63 01 01"));
    QByteArray read;
    QList<int> sizes;
    for (int i = 0; i < 5; ++i) {
        const QByteArray r = peer.exchange(hex("00000000 0400 00 63 02 00"));
        QVERIFY(r.size() >= 10);
        QCOMPARE(r.mid(7, 2), hex("63 02"));
        const int n = quint8(r[9]);
        if (r.size() != n + 10) {
            QCOMPARE(r, hex("00000000 0500 00 63 02 00 00"));
            break;
        }
        sizes << n;
        read += r.mid(10);
    }
    QCOMPARE(sizes, QList<int>({100, 100, 50}));
    QCOMPARE(read, text);
    QCOMPARE(peer.exchange(hex("00000000 0400 00 63 03 00")), hex("00000000 0400 00 63 03 01"));

    // A stuck controller leaves the request standing and writes nothing.
    sim->setErrorFileStuck(true);
    QCOMPARE(peer.exchange(hex("00000000 0b00 00 44 01 4ad50100 02000000")), hex("00000000 0300 00 44 01"));
    QCOMPARE(sim->variable(120138), 2);
    QCOMPARE(peer.exchange(hex("00000000 2000 00 63 01 7379733030 30332f6572726f722f6869734572726f722e6572726f72 00")),
             hex("00000000 0400 00 63 01 00"));
}

void tst_Sim::oscilloscope()
{
    sim->setOscPoints({1, -2, 3});
    Peer peer;
    QVERIFY(peer.connected);
    QCOMPARE(peer.exchange(hex("00000000 0f00 00 69 01 01000000 02000000 ffffffff")), hex("00000000 0400 00 69 01 01"));
    QCOMPARE(sim->oscAxes(), QVector<qint32>({1, 2, -1}));
    QCOMPARE(peer.exchange(hex("00000000 0700 00 69 02 01000000")), hex("00000000 0400 00 69 02 01"));
    QCOMPARE(sim->oscTransEnable(), 1);
    QCOMPARE(peer.exchange(hex("00000000 0b00 00 69 03 01000000 05000000")),
             hex("00000000 0d00 00 69 03 01 02 feffffff 03000000"));
}

void tst_Sim::faults_data()
{
    QTest::addColumn<char>("letter");
    QTest::addColumn<int>("sub");
    QTest::addColumn<ControllerSim::Fault>("fault");
    QTest::addColumn<QByteArray>("request");
    QTest::addColumn<QByteArray>("expected");  // empty: no reply at all

    const QByteArray probe = hex("00000000 0200 00 70");
    const QByteArray setFile = hex("00000000 0700 00 64 01 01 01 44 00");
    QTest::newRow("silence") << 'p' << -1 << ControllerSim::Fault::silence() << probe << QByteArray();
    QTest::newRow("error reply to a read") << 'B' << -1 << ControllerSim::Fault::errorReply()
                                           << hex("00000000 0700 00 42 01 01000000") << hex("00000000 0300 00 c2 00");
    QTest::newRow("error reply to d 3") << 'd' << 3 << ControllerSim::Fault::errorReply()
                                        << hex("00000000 0400 00 64 03 00") << hex("00000000 0300 00 e4 03");
    QTest::newRow("alarm state on set file") << 'd' << 1 << ControllerSim::Fault::state(100) << setFile
                                             << hex("00000000 0600 00 64 01 01 01 64");
    QTest::newRow("unknown state on set file") << 'd' << -1 << ControllerSim::Fault::state(9) << setFile
                                               << hex("00000000 0600 00 64 01 01 01 09");
    QTest::newRow("state on reset") << 'f' << 3 << ControllerSim::Fault::state(2)
                                    << hex("00000000 0500 00 66 03 01 00") << hex("00000000 0500 00 66 03 01 02");
    QTest::newRow("state on watchdog") << 'p' << -1 << ControllerSim::Fault::state(0xff) << probe
                                       << hex("00000000 0300 00 70 ff");
    QTest::newRow("other sub unaffected") << 'd' << 6 << ControllerSim::Fault::silence() << setFile
                                          << hex("00000000 0600 00 64 01 01 01 00");
    QTest::newRow("delay") << 'p' << -1 << ControllerSim::Fault::delay(150) << probe << hex("00000000 0300 00 70 00");
    QTest::newRow("bare letter") << 'p' << -1 << ControllerSim::Fault::bare() << probe << hex("00000000 0200 00 70");
    QTest::newRow("stale D ack first") << 'p' << -1 << ControllerSim::Fault::stale()
                                       << probe << hex("00000000 0500 00 44 000000 00000000 0300 00 70 00");
    const QByteArray read2 = hex("00000000 0b00 00 42 02 01000000 02000000");
    QTest::newRow("read of 2 says 3") << 'B' << -1 << ControllerSim::Fault::count(3) << read2
                                      << hex("00000000 0f00 00 42 03 00000000 00000000 00000000");
    QTest::newRow("read of 2 says 1") << 'B' << -1 << ControllerSim::Fault::count(1) << read2
                                      << hex("00000000 0700 00 42 01 00000000");
    QTest::newRow("oversize 600") << 'p' << -1 << ControllerSim::Fault::oversize(600) << probe
                                  << hex("00000000 5202 00 70 00") + QByteArray(591, '\0');
}

void tst_Sim::faults()
{
    QFETCH(char, letter);
    QFETCH(int, sub);
    QFETCH(ControllerSim::Fault, fault);
    QFETCH(QByteArray, request);
    QFETCH(QByteArray, expected);
    sim->setFault(letter, sub, fault);
    Peer peer;
    QVERIFY(peer.connected);
    peer.socket.write(request);
    if (fault.kind == ControllerSim::Fault::Delay)
        QVERIFY(peer.readFor(fault.arg / 2).isEmpty());
    QCOMPARE(peer.readFor(expected.isEmpty() || fault.kind == ControllerSim::Fault::Delay ? 300 : 150), expected);
    // Faults stay until cleared, then the normal reply comes back.
    sim->clearFaults();
    const QByteArray normal = peer.exchange(request);
    QVERIFY(normal.size() > 7);
    QCOMPARE(quint8(normal[7]), quint8(request[7]));
}

void tst_Sim::faultTimes()
{
    sim->setFault('p', -1, ControllerSim::Fault::errorReply(2));
    Peer peer;
    QVERIFY(peer.connected);
    const QByteArray probe = hex("00000000 0200 00 70");
    QCOMPARE(peer.exchange(probe), hex("00000000 0300 00 f0 00"));
    QCOMPARE(peer.exchange(probe), hex("00000000 0300 00 f0 00"));
    QCOMPARE(peer.exchange(probe), hex("00000000 0300 00 70 00"));
    // An exact sub wins over the any-sub entry.
    sim->setErrorReply('d');
    sim->setReplyState('d', 5, 1);
    QCOMPARE(peer.exchange(hex("00000000 0400 00 64 05 00")), hex("00000000 0400 00 64 05 01"));
    QCOMPARE(peer.exchange(hex("00000000 0400 00 64 04 00")), hex("00000000 0300 00 e4 04"));
    // Queued faults take turns: two error replies, one silence, then normal.
    sim->clearFaults();
    sim->addFault('p', -1, ControllerSim::Fault::errorReply(2));
    sim->addFault('p', -1, ControllerSim::Fault::silence(1));
    QCOMPARE(peer.exchange(probe), hex("00000000 0300 00 f0 00"));
    QCOMPARE(peer.exchange(probe), hex("00000000 0300 00 f0 00"));
    peer.socket.write(probe);
    QVERIFY(peer.readFor(200).isEmpty());
    QCOMPARE(peer.exchange(probe), hex("00000000 0300 00 70 00"));
}

void tst_Sim::splitAndCloseAfter()
{
    const QByteArray read = hex("00000000 0b00 00 42 02 01000000 02000000");
    const QByteArray answer = hex("00000000 0b00 00 42 02 00000000 00000000");
    sim->setSplit('B', -1, 200);
    {
        Peer peer;
        QVERIFY(peer.connected);
        peer.socket.write(read);
        QVERIFY(peer.socket.waitForReadyRead(2000));
        const QByteArray first = peer.socket.readAll();
        QVERIFY(first.size() < answer.size());
        peer.pending = first;
        QCOMPARE(peer.reply(), answer);
    }
    sim->clearFaults();

    sim->setCloseAfter('p', -1, 2);
    Peer peer;
    QVERIFY(peer.connected);
    const QByteArray probe = hex("00000000 0200 00 70");
    QCOMPARE(peer.exchange(probe), hex("00000000 0300 00 70 00"));
    QCOMPARE(peer.exchange(read), answer);  // other letters do not count
    QCOMPARE(peer.exchange(probe), hex("00000000 0300 00 70 00"));
    peer.socket.write(probe);
    QVERIFY(peer.readFor(200).isEmpty());
    QVERIFY(peer.socket.state() == QAbstractSocket::UnconnectedState || peer.socket.waitForDisconnected(1000));
    // The count restarts for the next connection.
    Peer again;
    QVERIFY(again.connected);
    QCOMPARE(again.exchange(probe), hex("00000000 0300 00 70 00"));
}

void tst_Sim::garbageStreamAndRestart()
{
    const QByteArray probe = hex("00000000 0200 00 70");
    sim->setFault('p', -1, ControllerSim::Fault::garbage(5, 1));
    sim->setFault('B', -1, ControllerSim::Fault::stream());
    {
        Peer peer;
        QVERIFY(peer.connected);
        peer.socket.write(probe);
        const QByteArray junk = peer.readFor(150);
        QCOMPARE(junk.size(), 5);
        QVERIFY(quint8(junk[0]) & 0x80);   // no frame header can start with it
        peer.socket.write(hex("00000000 0700 00 42 01 01000000"));
        const QByteArray flood = peer.readFor(300);
        QVERIFY(flood.startsWith(hex("00000000 0700 00 42 01 00000000")));
        QVERIFY2(flood.size() > 65536, QByteArray::number(flood.size()).constData());
    }
    // The stream ends with its connection.
    QTRY_COMPARE_WITH_TIMEOUT(sim->connectionCount(), 0, 2000);
    sim->clearFaults();

    sim->setFault('p', -1, ControllerSim::Fault::restart(600, 1));
    Peer first;
    QVERIFY(first.connected);
    first.socket.write(probe);
    QVERIFY(first.readFor(200).isEmpty());
    QCOMPARE(first.socket.state(), QAbstractSocket::UnconnectedState);
    QVERIFY(!Peer().connected);        // down while it restarts
    // Up again after the 600 ms; the listener may take a poll or two longer
    // on a loaded machine.
    QTest::qWait(600);
    std::unique_ptr<Peer> after;
    QTRY_VERIFY_WITH_TIMEOUT((after.reset(new Peer), after->connected), 1000);
    QCOMPARE(after->exchange(probe), hex("00000000 0300 00 70 00"));
}

void tst_Sim::framingAcrossSegments()
{
    Peer peer;
    QVERIFY(peer.connected);
    const QByteArray read = hex("00000000 0700 00 42 01 01000000");
    peer.socket.write(read.left(5));
    peer.socket.flush();
    QVERIFY(peer.readFor(100).isEmpty());
    peer.socket.write(read.mid(5));
    QCOMPARE(peer.reply(), hex("00000000 0700 00 42 01 00000000"));
    // Two requests in one segment give two replies, in order.
    peer.socket.write(hex("00000000 0200 00 70 00000000 0700 00 42 01 01000000"));
    QCOMPARE(peer.reply(), hex("00000000 0300 00 70 00"));
    QCOMPARE(peer.reply(), hex("00000000 0700 00 42 01 00000000"));
    QVERIFY(sim->waitForRequests(3, 1000));
    QCOMPARE(sim->requests().first(), read);
}

void tst_Sim::brokenHeaderClosesOnlyThatConnection()
{
    Peer good, bad;
    QVERIFY(good.connected && bad.connected);
    bad.socket.write(hex("01000000 0200 00 70"));
    QVERIFY(bad.readFor(300).isEmpty());
    QCOMPARE(bad.socket.state(), QAbstractSocket::UnconnectedState);
    Peer huge;
    QVERIFY(huge.connected);
    huge.socket.write(hex("00000000 ffff 00 70"));
    QVERIFY(huge.readFor(300).isEmpty());
    QCOMPARE(huge.socket.state(), QAbstractSocket::UnconnectedState);
    QCOMPARE(good.exchange(hex("00000000 0200 00 70")), hex("00000000 0300 00 70 00"));
    QTRY_COMPARE_WITH_TIMEOUT(sim->connectionCount(), 1, 2000);
    QCOMPARE(sim->connectionsAccepted(), 3);
}

void tst_Sim::everyWellFramedRequestGetsOneReply()
{
    Peer peer;
    QVERIFY(peer.connected);
    QRandomGenerator rng(20261122);
    const QByteArray letters("pBDdcfgi\x00\x7f\xc2\xff");
    for (int i = 0; i < 400; ++i) {
        QByteArray pdu(1, letters[int(rng.bounded(letters.size()))]);
        const int len = rng.bounded(8) == 0 ? int(rng.bounded(1000)) : int(rng.bounded(24));
        for (int j = 0; j < len; ++j)
            pdu.append(char(rng.bounded(j == 0 ? 8 : 256)));
        QByteArray frame(4, '\0');
        frame.append(char((pdu.size() + 1) & 0xff));
        frame.append(char((pdu.size() + 1) >> 8));
        frame.append('\0');
        frame.append(pdu);
        const QByteArray r = peer.exchange(frame);
        QVERIFY2(r.size() >= 8, frame.toHex().constData());
        QCOMPARE(6 + (quint8(r[4]) | quint8(r[5]) << 8), r.size());
        QCOMPARE(quint8(r[7]) | 0x80, quint8(pdu[0]) | 0x80);
    }
    QCOMPARE(sim->requests().size(), 400);
    QCOMPARE(peer.exchange(hex("00000000 0200 00 70")), hex("00000000 0300 00 70 00"));
}

void tst_Sim::parseFault_data()
{
    QTest::addColumn<QString>("text");
    QTest::addColumn<bool>("ok");
    QTest::addColumn<char>("letter");
    QTest::addColumn<int>("sub");
    QTest::addColumn<int>("kind");
    QTest::addColumn<int>("arg");
    QTest::addColumn<int>("times");

    QTest::newRow("any sub") << "B=delay:300" << true << 'B' << -1 << int(ControllerSim::Fault::Delay) << 300 << -1;
    QTest::newRow("sub and state") << "d:3=state:3" << true << 'd' << 3 << int(ControllerSim::Fault::State) << 3 << -1;
    QTest::newRow("hex sub") << "g:0x90=error" << true << 'g' << 0x90 << int(ControllerSim::Fault::ErrorReply) << 0 << -1;
    QTest::newRow("times") << "p=silence:0:2" << true << 'p' << -1 << int(ControllerSim::Fault::Silence) << 0 << 2;
    QTest::newRow("split") << "c:2=split" << true << 'c' << 2 << int(ControllerSim::Fault::Split) << 0 << -1;
    QTest::newRow("close") << "f=close:4" << true << 'f' << -1 << int(ControllerSim::Fault::CloseAfter) << 4 << -1;
    QTest::newRow("stale with a letter") << "f:3=stale:0x44" << true << 'f' << 3 << int(ControllerSim::Fault::Stale) << 0x44 << -1;
    QTest::newRow("restart once") << "p=restart:500:1" << true << 'p' << -1 << int(ControllerSim::Fault::Restart) << 500 << 1;
    QTest::newRow("no letter") << "=silence" << false << '\0' << 0 << 0 << 0 << 0;
    QTest::newRow("two letters") << "Bd=silence" << false << '\0' << 0 << 0 << 0 << 0;
    QTest::newRow("unknown kind") << "B=explode" << false << '\0' << 0 << 0 << 0 << 0;
    QTest::newRow("bad sub") << "B:x=silence" << false << '\0' << 0 << 0 << 0 << 0;
    QTest::newRow("negative arg") << "B=delay:-5" << false << '\0' << 0 << 0 << 0 << 0;
    QTest::newRow("zero times") << "B=error:0:0" << false << '\0' << 0 << 0 << 0 << 0;
    QTest::newRow("no equals") << "B" << false << '\0' << 0 << 0 << 0 << 0;
}

void tst_Sim::parseFault()
{
    QFETCH(QString, text);
    QFETCH(bool, ok);
    char letter = 0;
    int sub = 0;
    ControllerSim::Fault fault;
    QCOMPARE(ControllerSim::parseFault(text, &letter, &sub, &fault), ok);
    if (!ok)
        return;
    QTEST(letter, "letter");
    QTEST(sub, "sub");
    QTEST(int(fault.kind), "kind");
    QTEST(fault.arg, "arg");
    QTEST(fault.times, "times");
}

void tst_Sim::scenario_data()
{
    QTest::addColumn<QString>("text");
    QTest::addColumn<QString>("error");   // empty: accepted
    QTest::addColumn<int>("var5");        // variable 1000005 afterwards

    QTest::newRow("comments, blanks, hex value") << "# start\n\n  var 1000005=0x2a  # note\n" << "" << 42;
    QTest::newRow("32-bit pattern reads back negative") << "var 1000005=0xFFFFFFFF" << "" << -1;
    QTest::newRow("every setting kind") << "animate\ndnc-size 100\nprogram O1\nprogram-time 5\nrunning 2=O1\n"
                                           "busy 2:3\nerror-file 1:history=a\\nb\nerror-file-stuck\n"
                                           "fault d:2=state:3:3\nvar 1000005=1" << "" << 1;
    QTest::newRow("unknown setting named with its line") << "var 1000005=1\nexplode" << "2: unknown setting \"explode\"" << 1;
    QTest::newRow("bad fault") << "fault B=explode" << "1: bad fault \"B=explode\": expected LETTER[:SUB]=KIND[:ARG[:TIMES]]" << 0;
    QTest::newRow("value beyond 32 bits") << "var 1000005=0x100000000" << "1: bad var \"1000005=0x100000000\": expected ADDR=VALUE, both numbers" << 0;
    QTest::newRow("channel 0") << "running 0=O1" << "1: bad running \"0=O1\": expected CH=NAME, CH 1..99" << 0;
    QTest::newRow("error file index 9") << "error-file 9=x" << "1: bad error-file \"9=x\": expected INDEX[:history]=TEXT, INDEX 0..8" << 0;
}

void tst_Sim::scenario()
{
    QFETCH(QString, text);
    QFETCH(QString, error);
    ControllerSim local(QStringLiteral("127.0.0.4"));
    QString why;
    QCOMPARE(SimScenario::applyText(local, text, &why), error.isEmpty());
    QCOMPARE(why, error);
    QTEST(local.variable(1000005), "var5");
}

void tst_Sim::twoSimulatorsSideBySide()
{
    ControllerSim second(QStringLiteral("127.0.0.3"));
    QVERIFY(second.start());
    // The same address cannot be served twice.
    ControllerSim clash(simAddress);
    QVERIFY(!clash.start());
    sim->setVariable(5, 11);
    second.setVariable(5, 22);
    Peer a(simAddress), b(QStringLiteral("127.0.0.3"));
    QVERIFY(a.connected && b.connected);
    const QByteArray read = hex("00000000 0700 00 42 01 05000000");
    QCOMPARE(b.exchange(read), hex("00000000 0700 00 42 01 16000000"));
    QCOMPARE(a.exchange(read), hex("00000000 0700 00 42 01 0b000000"));
    QCOMPARE(sim->requests().size(), 1);
    QCOMPARE(second.requests().size(), 1);
    second.stop();
    QVERIFY(!second.isRunning());
    QCOMPARE(a.exchange(read), hex("00000000 0700 00 42 01 0b000000"));
}

void tst_Sim::commandLineProgram()
{
    const QString binary = qEnvironmentVariable("VELMORA_BINARY_DIR") + QStringLiteral("/sim/velmora-sim");
    if (!QFileInfo::exists(binary))
        QSKIP("velmora-sim not built");
    QProcess proc;
    proc.start(binary, {QStringLiteral("--address"), QStringLiteral("127.0.0.4"), QStringLiteral("--fault"),
                        QStringLiteral("B=error:0:1"), QStringLiteral("--dnc-size"), QStringLiteral("1"),
                        QStringLiteral("--program"), QStringLiteral("O1")});
    QVERIFY(proc.waitForStarted(3000));
    QByteArray out;
    for (int i = 0; i < 30 && !out.contains('\n'); ++i) {
        proc.waitForReadyRead(100);
        out += proc.readAllStandardOutput();
    }
    QVERIFY2(out.contains("listening on 127.0.0.4:60000"), out.constData());
    {
        Peer peer(QStringLiteral("127.0.0.4"));
        QVERIFY(peer.connected);
        const QByteArray read = hex("00000000 0700 00 42 01 05000000");
        QCOMPARE(peer.exchange(read), hex("00000000 0300 00 c2 00"));
        QCOMPARE(peer.exchange(read), hex("00000000 0700 00 42 01 00000000"));
        QCOMPARE(peer.exchange(hex("00000000 0700 00 64 01 01 01 44 00")), hex("00000000 0600 00 64 01 01 01 00"));
        QCOMPARE(peer.exchange(hex("00000000 0600 00 64 03 4142 00")), hex("00000000 0400 00 64 03 03"));
        QCOMPARE(peer.exchange(hex("00000000 0700 00 66 04 01 4f31 00")), hex("00000000 0500 00 66 04 01 00"));
    }
    // A second one on the same address says why it cannot listen.
    QProcess second;
    second.start(binary, {QStringLiteral("--address"), QStringLiteral("127.0.0.4")});
    QVERIFY(second.waitForFinished(3000));
    QCOMPARE(second.exitCode(), 1);
    const QByteArray err = second.readAllStandardError();
    QVERIFY2(err.startsWith("velmora-sim: cannot listen on 127.0.0.4:60000: ") && err.contains("in use"), err.constData());
    ::kill(pid_t(proc.processId()), SIGTERM);
    QVERIFY(proc.waitForFinished(3000));
    QCOMPARE(proc.exitStatus(), QProcess::NormalExit);
    QCOMPARE(proc.exitCode(), 0);
    out += proc.readAllStandardOutput();
    QVERIFY2(out.contains("B 13 ") && out.contains("stopped"), out.constData());
}

QTEST_MAIN(tst_Sim)
#include "tst_sim.moc"
