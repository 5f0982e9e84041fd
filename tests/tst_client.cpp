// The controller client against the simulator: what a call gets from a
// controller that behaves and from one that does not, refused arguments,
// the link going down, and the thread-mode loop.
#include "AsynchronousClient.h"
#include "ControllerSim.h"
#include "TestSupport.h"

#include <QDir>
#include <QElapsedTimer>
#include <QtTest>

#include <atomic>
#include <climits>
#include <memory>
#include <thread>

// A call on the shared client and what the host gets from it, as text: the
// status first.
typedef std::function<QString(AsynchronousClient &)> Call;
Q_DECLARE_METATYPE(Call)
#define STATUS(expr) Call([](AsynchronousClient &c) { return QString::number(c.expr); })

namespace {

QString host(int n) { return QStringLiteral("127.0.0.%1").arg(n); }

int countByte(const QByteArray &frame) { return quint8(frame.at(8)); }

long int g_good[2] = { 1000000, 1000001 }, g_bad[2] = { 1000000, 170000 }, g_many[65] = {};
long int g_bit[1] = { 3 }, g_negative[1] = { -1 }, g_values[2] = {};
long int g_huge[3] = { long(0x100000005LL), long(0x100000000LL), long(qint64(INT32_MIN) - 1) };

// readVars of the addresses: "status [values]".
Call read(const QList<long> &addresses)
{
    return [addresses](AsynchronousClient &c) {
        QVector<long int> in = addresses.toVector(), out(in.size(), 99);
        QStringList values;
        const long int status = c.readVars(in.data(), in.size(), out.data());
        for (long int v : out)
            values << QString::number(v);
        return QStringLiteral("%1 [%2]").arg(status).arg(values.join(','));
    };
}

// The call after a readVars of 3000005 that meets the row's fault first.
Call afterRead(const Call &call)
{
    return [call](AsynchronousClient &c) {
        long int address = 3000005, value = 0;
        c.readVars(&address, 1, &value);
        return call(c);
    };
}

} // namespace

class TestClient : public QObject
{
    Q_OBJECT

    ScratchDir m_home;
    // The direct-mode client the tables share, connected to m_sim. The
    // controller holds 3000005 = -7, 3000001 = INT_MAX, 3000009 = INT_MIN.
    ControllerSim m_sim{ host(10) };
    std::unique_ptr<AsynchronousClient> m_client;

    // A thread-mode client on a simulator of its own, for tests that stop it.
    struct Link {
        std::unique_ptr<ControllerSim> sim;
        std::unique_ptr<AsynchronousClient> client;
    };
    Link threadLink(int n)
    {
        Link l{ std::make_unique<ControllerSim>(host(n)), std::make_unique<AsynchronousClient>() };
        l.client->setSyncMode(0);
        if (!l.sim->start() || !l.client->tcpConnect(host(n).toLatin1()))
            l.sim.reset();
        return l;
    }

    // The tables of calls on the shared client: the simulator's faults
    // (velmora-sim's texts), the call, what the host gets. A refused call
    // (1, 6) sends nothing and leaves g_values as they were.
    static void columns()
    {
        QTest::addColumn<QString>("faults");
        QTest::addColumn<Call>("call");
        QTest::addColumn<QString>("expected");
    }
    void check()
    {
        QFETCH(QString, faults);
        QFETCH(Call, call);
        QFETCH(QString, expected);
        QVERIFY(addFaults(m_sim, faults));
        g_values[0] = 55;
        g_values[1] = 66;
        QElapsedTimer clock;
        clock.start();
        const QString got = call(*m_client);
        const qint64 elapsed = clock.elapsed();
        QCOMPARE(got, expected);
        // A reply that came is taken at once; none: the three waits of 600 ms.
        QVERIFY2(elapsed < (got.startsWith("111") ? 2500 : 1000), qPrintable(QString::number(elapsed)));
        const bool refused = got == "1" || got == "6";
        QVERIFY(!refused || (m_sim.requests().isEmpty() && g_values[0] == 55 && g_values[1] == 66));
    }

    // readVars or writeVars of count addresses from 2000000 on: "status
    // [count byte of each frame]". The values written include the extremes
    // of a 32-bit word; the controller holds them afterwards.
    Call split(bool write, int count)
    {
        return [this, write, count](AsynchronousClient &c) {
            QVector<long int> addresses(count), values(count);
            for (int i = 0; i < count; ++i) {
                addresses[i] = 2000000 + i;
                values[i] = i == 0 ? long(INT32_MIN) : i == 1 ? long(0xFFFFFFFFLL) : -1000 - i;
            }
            const long int status = write ? c.writeVars(addresses.data(), count, values.data())
                                          : c.readVars(addresses.data(), count, values.data());
            QStringList frames;
            for (const QByteArray &frame : m_sim.requests())
                frames << QString::number(countByte(frame))
                        + (frame.size() == 9 + countByte(frame) * (write ? 8 : 4) ? "" : "(bad size)");
            for (int i = 0; write && i < count; ++i)
                if (m_sim.variable(qint32(addresses[i])) != qint32(values[i]))
                    frames << QStringLiteral("(%1 not written)").arg(addresses[i]);
            return QStringLiteral("%1 [%2]").arg(status).arg(frames.join(','));
        };
    }
    // readBits of one bit with its word set to `word`: "status value".
    Call bit(long int channel, int type, long int index, qint32 address, quint32 word)
    {
        return [=](AsynchronousClient &c) {
            long int bits[1] = { index }, value = -1;
            m_sim.setVariable(address, qint32(word));
            const long int status = c.readBits(channel, AsynchronousClient::BitType(type), bits, 1, &value);
            m_sim.setVariable(address, 0);
            return QStringLiteral("%1 %2").arg(status).arg(value);
        };
    }

private slots:
    void initTestCase()
    {
        QVERIFY(m_home.enter());
        QVERIFY(m_sim.start());
        m_client = std::make_unique<AsynchronousClient>();
        m_sim.setVariable(3000005, -7);
        m_sim.setVariable(3000001, INT_MAX);
        m_sim.setVariable(3000009, INT_MIN);
    }
    void init()
    {
        m_sim.clearFaults();
        QVERIFY(m_client->isSocketConnected() || m_client->tcpConnect(host(10).toLatin1()));
        m_sim.clearRequests();
    }
    void cleanupTestCase()
    {
        m_client.reset();
        m_home.leave();
    }

    // A reply counts only when it answers the request: same letter or its
    // error form and, for a read, the count asked for; anything else is
    // dropped and the wait goes on within the same budget.
    void replies_data()
    {
        columns();
        auto row = [](const char *name, const char *faults, const Call &call, const char *expected) {
            QTest::newRow(name) << QString(faults) << call << QString(expected);
        };
        row("values in request order, a repeated address twice", "", read({ 3000005, 3000001, 3000009, 3000005 }),
            "0 [-7,2147483647,-2147483648,-7]");
        row("descending addresses -> each value in its place", "", read({ 3000009, 3000005, 3000001 }),
            "0 [-2147483648,-7,2147483647]");
        row("error reply to a read -> 3, the value zeroed", "B=error", read({ 3000005 }), "3 [0]");
        row("stale write ack before the read's reply -> the value", "B=stale:0x44", read({ 3000005 }), "0 [-7]");
        row("read reply with another count -> 111 after the three waits", "B=count:2", read({ 3000005 }), "111 [99]");
        row("a read after a split reply -> its own value", "B=split:100:1", afterRead(read({ 3000001 })),
            "0 [2147483647]");
        row("bare 'p' after an error reply to a read -> 0", "B=error:0:1,p=bare", afterRead(STATUS(CheckTcpWdt())),
            "0");
        row("stale read error before the write's ack -> 0", "D=stale:0xC2", STATUS(writeVars(g_good, 1, g_good)), "0");
        row("stale write error before the reset's ack -> 0", "f:3=stale:0xC4", STATUS(reset(1)), "0");
    }
    void replies() { check(); }

    void framesAreSplitAtTheLimits_data()
    {
        columns();
        QTest::newRow("read 64 -> one frame") << QString() << split(false, 64) << "0 [64]";
        QTest::newRow("read 130 -> frames of 64, 64, 2") << QString() << split(false, 130) << "0 [64,64,2]";
        QTest::newRow("write 31 -> one frame") << QString() << split(true, 31) << "0 [31]";
        QTest::newRow("write 32 -> frames of 31, 1") << QString() << split(true, 32) << "0 [31,1]";
    }
    void framesAreSplitAtTheLimits() { check(); }

    // A bit is read from the word of its channel and type (K lies above A).
    void bitsAreReadFromTheirWords_data()
    {
        columns();
        QTest::newRow("X bit 33 -> word 32049, bit 1") << QString() << bit(1, 0, 33, 1032049, 0x2) << "0 1";
        QTest::newRow("X bit 31 -> word 32048, bit 31") << QString() << bit(1, 0, 31, 1032048, 0x80000000) << "0 1";
        QTest::newRow("X bit 31 -> the others in its word do not count")
            << QString() << bit(1, 0, 31, 1032048, 0x7fffffff) << "0 0";
        QTest::newRow("Y bit 0 of channel 2 -> word 32112") << QString() << bit(2, 1, 0, 2032112, 0x1) << "0 1";
        QTest::newRow("F bit 64 -> word 32178, bit 0") << QString() << bit(1, 2, 64, 1032178, 0x1) << "0 1";
        QTest::newRow("G bit 95 of channel 9 -> word 32242, bit 31")
            << QString() << bit(9, 3, 95, 9032242, 0x80000000) << "0 1";
        QTest::newRow("R bit 1 -> word 32304") << QString() << bit(1, 4, 1, 1032304, 0x2) << "0 1";
        QTest::newRow("K bit 0 -> word 32592, above A") << QString() << bit(1, 5, 0, 1032592, 0x1) << "0 1";
        QTest::newRow("A bit 32 -> word 32561, bit 0") << QString() << bit(1, 6, 32, 1032561, 0x1) << "0 1";
    }
    void bitsAreReadFromTheirWords() { check(); }

    void badArgumentsSendNothing_data()
    {
        columns();
        auto row = [](const char *name, const Call &call, const char *expected = "1") {
            QTest::newRow(name) << QString() << call << QString(expected);
        };
        row("readVars of 0 addresses -> 1", STATUS(readVars(g_good, 0, g_values)));
        row("readVars of null addresses -> 1", STATUS(readVars(nullptr, 2, g_values)));
        row("readVars past offset 169999 -> 1", STATUS(readVars(g_bad, 2, g_values)));
        row("writeVars past offset 169999 -> 1", STATUS(writeVars(g_bad, 2, g_values)));
        row("fileReadVars of 65 -> 1", STATUS(fileReadVars(g_many, 65, g_many)));
        row("fileWriteVars of 32 -> 1", STATUS(fileWriteVars(g_many, 32, g_many)));
        row("readBits of channel 0 -> 1", STATUS(readBits(0, c.BitX, g_bit, 1, g_values)));
        row("readBits of channel 10, its words past the address rule -> 1",
            STATUS(readBits(10, c.BitX, g_bit, 1, g_values)));
        row("readBits of type 7 -> 1", STATUS(readBits(1, AsynchronousClient::BitType(7), g_bit, 1, g_values)));
        row("readBits of bit -1 -> 1", STATUS(readBits(1, c.BitX, g_negative, 1, g_values)));
        row("readBits into null -> 1", STATUS(readBits(1, c.BitX, g_bit, 1, nullptr)));
        row("registerBits in direct mode -> 6", STATUS(registerBits(1, c.BitX, g_bit, 1)), "6");
        if (sizeof(long int) > 4) {   // a 64-bit long is checked before it is cut to 32 bits
            row("readVars of 2^32 + 5, not 5 -> 1", STATUS(readVars(&g_huge[0], 1, g_values)));
            row("writeVars of the value 2^32 -> 1", STATUS(writeVars(g_good, 1, &g_huge[1])));
            row("writeVars of INT32_MIN - 1 -> 1", STATUS(writeVars(g_good, 1, &g_huge[2])));
        }
    }
    void badArgumentsSendNothing() { check(); }

    // A link the controller dropped: the call that meets it gets no reply,
    // every later one finds it down until the host connects again. A client
    // never connected is down too, and connects only to an address.
    void linkDown()
    {
        long int address = 1000000, value = 0, bit = 1;
        m_sim.setFault('D', -1, ControllerSim::Fault::closeAfter(0, 1));
        QCOMPARE(m_client->writeVars(&address, 1, &value), 111L);
        QVERIFY(!m_client->isSocketConnected() && !m_client->socketErrorText().isEmpty());
        QCOMPARE(m_client->readVars(&address, 1, &value), 7L);
        QCOMPARE(m_client->CheckTcpWdt(), 7L);
        QCOMPARE(m_client->registerBits(1, AsynchronousClient::BitX, &bit, 1), 7L);
        QVERIFY(m_client->tcpConnect(host(10).toLatin1()));
        QCOMPARE(m_client->CheckTcpWdt(), 0L);

        AsynchronousClient client;
        QVERIFY(QDir(m_home.path() + "/logs").exists() && client.syncMode() == 1);   // direct mode by default
        QCOMPARE(client.writeVars(&address, 1, &value), 7L);
        QCOMPARE(client.tcpDisconnect(), 1L);
        QVERIFY(!client.tcpConnect("127.0.0.15"));   // nobody listens there
        QVERIFY(!client.tcpConnect("not an address"));
    }

    // The map is also the result table of readVars: a read drops what was
    // registered.
    void readVarsDropsRegisteredVariables()
    {
        long int registered[2] = { 1000100, 1000101 }, address = 1000200, value = 0;
        m_client->registerVars(registered, 2);
        QVERIFY(m_client->valueMap().contains(1000101));
        QCOMPARE(m_client->readVars(&address, 1, &value), 0L);
        QCOMPARE(m_client->valueMap().keys(), QList<qint32>{ 1000200 });
    }

    // Thread mode: registered variables and bits are polled in slices of 62
    // in ascending order, pass after pass; readBits reads the map only.
    void registeredVariablesAndBitsArePolled()
    {
        Link l = threadLink(18);
        QVERIFY(l.sim);
        QVector<long int> addresses(130);
        for (int i = 0; i < 130; ++i) {
            addresses[i] = 4000000 + i;
            l.sim->setVariable(4000000 + i, -i);
        }
        l.client->registerVars(addresses.data(), 130);
        QVERIFY(waitFor([&] {
            const QMap<qint32, qint32> map = l.client->valueMap();
            return map.size() == 130 && map.value(4000129) == -129 && map.value(4000061) == -61;
        }));
        QVERIFY(l.sim->waitForRequests(4, 5000));
        const QList<QByteArray> sent = l.sim->requests('B');
        QCOMPARE(QList<int>({ countByte(sent[0]), countByte(sent[1]), countByte(sent[2]) }), QList<int>({ 62, 62, 6 }));
        QCOMPARE(sent[0].mid(9, 8), QByteArray::fromHex("00093d00 01093d00"));
        l.sim->setVariable(4000100, 777);
        QVERIFY(waitFor([&] { return l.client->valueMap().value(4000100) == 777; }));
        long int gone[2] = { 4000000, 4000001 };
        l.client->removeVars(gone, 2);
        QCOMPARE(l.client->valueMap().size(), 128);
        l.client->clearVars();
        QVERIFY(l.client->valueMap().isEmpty());

        long int bits[3] = { 3, 32, 2 }, values[3] = { 0, 0, 0 };
        l.sim->setVariable(5032560, 0x8);   // A words 0 and 1 of channel 5
        l.sim->setVariable(5032561, 0x1);
        QCOMPARE(l.client->registerBits(5, AsynchronousClient::BitA, bits, 3), 0L);
        QVERIFY(waitFor([&] {
            l.client->readBits(5, AsynchronousClient::BitA, bits, 3, values);
            return values[0] == 1 && values[1] == 1;
        }));
        QCOMPARE(values[2], 0L);
        QCOMPARE(l.client->removeBits(5, AsynchronousClient::BitA, bits, 3), 0L);
        QThread::msleep(100);   // a poll may still have been on the wire
        l.sim->clearRequests();
        QCOMPARE(l.client->readBits(5, AsynchronousClient::BitA, bits, 3, values), 0L);
        QThread::msleep(100);
        QVERIFY2(l.sim->requests().isEmpty(), l.sim->requests().value(0).toHex().constData());
    }

    void threadModeQueueLimit()
    {
        Link l = threadLink(20);
        QVERIFY(l.sim);
        l.sim->setSilence('p');
        QCOMPARE(l.client->CheckTcpWdt(), 0L);
        QVERIFY(l.sim->waitForRequests(1, 5000));   // the loop waits for its reply
        QCOMPARE(l.client->CheckTcpWdt(), 0L);
        QCOMPARE(l.client->CheckTcpWdt(), 0L);      // one queued: the limit of 1 allows it
        QCOMPARE(l.client->CheckTcpWdt(), 4L);      // two queued
        QCOMPARE(l.client->queuedCount(), 2);
        l.sim->clearFaults();
        QVERIFY(waitFor([&] { return l.client->queuedCount() == 0; }));
        QVERIFY(l.sim->waitForRequests(3, 5000));
    }

    // Host threads share one client: the client lock keeps one request on
    // the wire, and each caller gets the reply to its own request.
    void oneClientFromManyThreads()
    {
        for (int i = 0; i < 4; ++i)
            m_sim.setVariable(6000000 + i, 100 * i);
        std::atomic<int> wrong{ 0 };
        std::vector<std::thread> threads;
        for (int i = 0; i < 4; ++i)
            threads.emplace_back([&, i] {
                for (int k = 0; k < 50; ++k) {
                    long int address = 6000000 + i, value = -1;
                    wrong += m_client->readVars(&address, 1, &value) != 0 || value != 100 * i;
                }
            });
        for (std::thread &t : threads)
            t.join();
        QCOMPARE(wrong.load(), 0);
        QCOMPARE(m_sim.requests('B').size(), 200);
    }

    // The loop is in its reply waits when the host stops it: the call does
    // not wait for them to run out, and nothing more is sent.
    void threadModeStopsWhileAReplyIsAwaited_data()
    {
        QTest::addColumn<QString>("call");
        QTest::newRow("disconnect -> returns within 500 ms") << "disconnect";
        QTest::newRow("destruction -> returns within 500 ms") << "destroy";
        QTest::newRow("connect again -> returns within 500 ms") << "connect";
    }
    void threadModeStopsWhileAReplyIsAwaited()
    {
        QFETCH(QString, call);
        Link l = threadLink(26);
        QVERIFY(l.sim);
        l.sim->setSilence('B');
        long int address = 1000000;
        l.client->registerVars(&address, 1);
        QVERIFY(l.sim->waitForRequests(1, 5000));
        QElapsedTimer t;
        t.start();
        if (call == "destroy")
            l.client.reset();
        else if (call == "disconnect")
            QCOMPARE(l.client->tcpDisconnect(), 1L);
        else
            QVERIFY(l.client->tcpConnect(host(26).toLatin1()));
        QVERIFY2(t.elapsed() < 500, qPrintable(QString::number(t.elapsed())));
        if (call == "connect")
            return;
        QVERIFY(waitFor([&] { return l.sim->connectionCount() == 0; }));
        QThread::msleep(100);
        QCOMPARE(l.sim->requests().size(), 1);
        QVERIFY(!l.client || !l.client->isSocketConnected());
    }
};

QTEST_GUILESS_MAIN(TestClient)
#include "tst_client.moc"
