// The simulator where the library's tests do not reach it: fault kinds and bad requests byte for byte,
// framing, scenario files, a taken address. Its normal replies are checked through the client.

#include "ControllerSim.h"
#include "SimScenario.h"
#include "TestSupport.h"

#include <QTcpSocket>
#include <QtTest>

#include <memory>

using wire::frame;
using wire::hex;

namespace {

QByteArray f(const char *pdu) { return frame(hex(pdu)); }

const QByteArray probe = f("70"), pong = f("70 00");
const QByteArray read1 = f("42 01 01000000"), read1Reply = f("42 01 00000000"), readError = f("c2 00");
const QByteArray setFile = f("64 01 01 01 44 00"), setFileOk = f("64 01 01 01 00");

// A bare client: writes bytes, collects what comes back.
struct Peer {
    explicit Peer(const QString &address = QStringLiteral("127.0.0.2"))
    {
        socket.connectToHost(address, 60000);
        connected = socket.waitForConnected(2000);
    }
    // Until at least n bytes came, ms passed or the connection closed.
    QByteArray read(int n, int ms = 2000)
    {
        const QDeadlineTimer deadline(ms);
        QByteArray got = socket.readAll();
        while (got.size() < n && !deadline.hasExpired() && socket.waitForReadyRead(int(deadline.remainingTime()) + 1))
            got += socket.readAll();
        return got;
    }
    // One whole reply frame, by its length field.
    QByteArray exchange(const QByteArray &frame)
    {
        socket.write(frame);
        const QByteArray head = read(6);
        return head.size() < 6 ? head : head + read(6 + (quint8(head[4]) | quint8(head[5]) << 8) - head.size());
    }
    QTcpSocket socket;
    bool connected = false;
};

} // namespace

class tst_Sim : public QObject
{
    Q_OBJECT
    std::unique_ptr<ControllerSim> sim;

private slots:
    void init() { sim.reset(new ControllerSim(QStringLiteral("127.0.0.2"))); QVERIFY(sim->start()); }
    void cleanup() { sim.reset(); }

    void wire_data()
    {
        QTest::addColumn<QString>("scenario");
        QTest::addColumn<QByteArray>("request");    // one or more frames, written at once
        QTest::addColumn<QByteArray>("expected");   // every byte that comes back
        QTest::addColumn<bool>("closed");           // then the controller closes the connection
        const auto row = [](const char *name, const char *scenario, const QByteArray &request, const QByteArray &expected,
                            bool closed = false) { QTest::newRow(name) << QString(scenario) << request << expected << closed; };
        row("queued: error once, silence once, then normal", "fault B=error:0:1\nfault B=silence:0:1",
            read1 + read1 + read1, readError + read1Reply);
        row("error on d 3 only -> d 1 answered", "fault d:3=error", f("64 03 00") + setFile, f("e4 03") + setFileOk);
        row("exact sub wins over any sub; state replaces the state byte", "fault d=error\nfault d:5=state:100",
            f("64 05 00") + f("64 04 00"), f("64 05 64") + f("e4 04"));
        row("bare -> the letter alone", "fault B=bare", read1, f("42"));
        row("stale 0xc2 -> an old read error first", "fault B=stale:0xc2", read1, f("c2 000000") + read1Reply);
        row("count 3 on a read of 2 -> the values, then zeros", "var 1=5  # set\n\nvar 2=0xFFFFFFFF\nfault B=count:3",
            f("42 02 01000000 02000000"), f("42 03 05000000 ffffffff 00000000"));
        row("oversize 600 -> a well-framed 600-byte reply", "fault B=oversize:600", read1,
            frame(hex("42 01 00000000") + QByteArray(587, '\0')));
        row("garbage 5 -> bytes no header can start with", "fault B=garbage:5", read1, hex("99 3e 3a b5 1f"));
        row("close 2 -> two answered, the third closes; reads do not count", "fault p=close:2",
            probe + read1 + probe + probe, pong + read1Reply + pong, true);
        row("header bytes not zero -> closed", "", hex("01000000 0200 00 70"), QByteArray(), true);
        row("length beyond 1024 -> closed", "", hex("00000000 0104 00 70"), QByteArray(), true);
        row("unknown letter -> error reply, still serving", "", f("7a 01") + probe, f("fa 01") + pong);
        row("read 170000 -> error", "", f("42 01 10980200"), readError);
        row("set file of the running program -> 2", "running 1=D", setFile, f("64 01 01 01 02"));
        row("append without a set file -> 1", "", f("64 02 41 00"), f("64 02 01"));
        row("memory exactly full -> 2, beyond -> 3, an overwrite frees the old text", "dnc-size 4",
            setFile + f("64 03 303132 00") + f("64 02 33 00") + f("64 02 34 00") + f("64 03 78797a77 00"),
            setFileOk + f("64 03 00") + f("64 02 02") + f("64 02 03") + f("64 03 02"));
    }
    void wire()
    {
        QFETCH(QString, scenario);
        QFETCH(QByteArray, request);
        QFETCH(QByteArray, expected);
        QVERIFY(SimScenario::applyText(*sim, scenario, nullptr));
        Peer bystander, peer;
        peer.socket.write(request);
        QByteArray got = peer.read(expected.size());
        got += peer.read(INT_MAX, 150);   // and nothing more
        QCOMPARE(got.toHex(' '), expected.toHex(' '));
        QFETCH(bool, closed);
        QCOMPARE(peer.socket.state() == QAbstractSocket::UnconnectedState || (closed && peer.socket.waitForDisconnected(2000)), closed);
        QCOMPARE(bystander.exchange(probe), pong);   // other connections are served meanwhile
    }

    void faultsOverTime()
    {
        QVERIFY(SimScenario::applyText(*sim, "fault B=delay:300:1\nfault B=stream:0:1\n"
                                             "fault p=restart:600:1\nrunning 2=O1\nprogram-time 100\nvar 7=7", nullptr));
        Peer first, other;
        // Delay: nothing for a while, then the reply; a request behind it waits.
        first.socket.write(read1 + setFile);
        QVERIFY(first.read(1, 200).isEmpty());
        QCOMPARE(first.read(read1Reply.size() + setFileOk.size()), read1Reply + setFileOk);
        // Stream: the reply, then bytes without end until the peer leaves.
        auto flooded = std::make_unique<Peer>();
        flooded->socket.write(read1);
        const QByteArray flood = flooded->read(100000);
        QVERIFY(flood.startsWith(read1Reply) && flood.size() >= 100000);
        flooded.reset();
        QTRY_COMPARE_WITH_TIMEOUT(sim->connectionCount(), 2, 2000);
        // Restart: every connection closes unanswered; new ones are refused for a while.
        first.socket.write(probe);
        QVERIFY(first.read(1, 1000).isEmpty() && other.read(1, 1000).isEmpty());
        QVERIFY(first.socket.state() == QAbstractSocket::UnconnectedState && other.socket.state() == first.socket.state());
        QVERIFY(!Peer().connected);
        QTRY_COMPARE_WITH_TIMEOUT(Peer().exchange(probe), pong, 3000);
        // A running program ends by itself; never-written variables change, written ones stay.
        QVERIFY(sim->runningProgram(2).isEmpty());
        sim->setAnimated(true);
        const qint32 before = sim->variable(8);
        QTRY_VERIFY_WITH_TIMEOUT(sim->variable(8) != before, 2000);
        QCOMPARE(sim->variable(7), 7);
    }

    // Random PDUs, each written in two parts cut anywhere (the header too).
    void everyWellFramedRequestGetsOneReply()
    {
        Peer peer;
        peer.socket.setSocketOption(QAbstractSocket::LowDelayOption, 1);
        QRandomGenerator rng(20261122);
        const QByteArray letters("pBDdcfgi\x00\x7f\xc2\xff", 12);
        for (int i = 0; i < 400; ++i) {
            QByteArray pdu(1, letters[int(rng.bounded(letters.size()))]);
            const int len = rng.bounded(8) == 0 ? int(rng.bounded(1000)) : int(rng.bounded(24));
            for (int j = 0; j < len; ++j)
                pdu.append(char(rng.bounded(j == 0 ? 8 : 256)));
            const int cut = 1 + int(rng.bounded(pdu.size() + 6));   // 1 .. frame size - 1
            peer.socket.write(frame(pdu).left(cut));
            peer.socket.flush();
            const QByteArray r = peer.exchange(frame(pdu).mid(cut));
            QVERIFY2(r.size() >= 8 && (quint8(r[7]) | 0x80) == (quint8(pdu[0]) | 0x80), pdu.toHex().constData());
        }
    }

    void scenario_data()
    {
        QTest::addColumn<QString>("text");
        QTest::addColumn<QString>("error");   // empty: accepted
        QTest::newRow("every setting kind") << "animate\ndnc-size 100\nprogram O1\nprogram-time 5\nrunning 2=O1\nbusy 2:3\n"
                                               "error-file 1:history=a\\nb  # note\nerror-file-stuck\nfault g:0x90=state:3:3" << "";
        QTest::newRow("unknown setting named with its line") << "var 1000005=1\nexplode" << "2: unknown setting \"explode\"";
        QTest::newRow("var > 32 bits") << "var 1=0x100000000" << "1: bad var \"1=0x100000000\": expected ADDR=VALUE, both numbers";
        QTest::newRow("channel 0") << "running 0=O1" << "1: bad running \"0=O1\": expected CH=NAME, CH 1..99";
        QTest::newRow("index 9") << "error-file 9=x" << "1: bad error-file \"9=x\": expected INDEX[:history]=TEXT, INDEX 0..8";
        for (const char *fault : {"B=explode", "=silence", "Bd=silence", "B:x=silence", "B:256=error", "B=delay:-5",
                                  "B=error:0:0", "B", "B=error:1:2:3"})
            QTest::newRow(fault) << QStringLiteral("fault %1").arg(fault)
                                 << QStringLiteral("1: bad fault \"%1\": expected LETTER[:SUB]=KIND[:ARG[:TIMES]]").arg(fault);
    }
    void scenario()
    {
        QFETCH(QString, text);
        QFETCH(QString, error);
        QString why;
        QCOMPARE(SimScenario::applyText(*sim, text, &why), error.isEmpty());
        QCOMPARE(why, error);
    }

    // A second controller on a taken address cannot listen, and says why. (The
    // program itself, its --fault options and its "listening" and "stopped"
    // lines: capi_registry and the README's quick start run it.)
    void addressInUse()
    {
        QString why;
        QVERIFY(!ControllerSim(QStringLiteral("127.0.0.2")).start(&why));
        QVERIFY2(why.contains("in use"), qPrintable(why));
    }
};

QTEST_MAIN(tst_Sim)
#include "tst_sim.moc"
