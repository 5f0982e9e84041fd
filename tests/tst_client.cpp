// The controller client against the simulator: exact request bytes, every
// status through real traffic, frame splitting, bits, thread-mode polling
// and calls for two controllers at once.
#include "AsynchronousClient.h"
#include "ControllerSim.h"
#include "TestSupport.h"

#include <QDir>
#include <QElapsedTimer>
#include <QtTest>

#include <climits>
#include <memory>
#include <thread>

namespace {

QString host(int n) { return QStringLiteral("127.0.0.%1").arg(n); }

quint8 countByte(const QByteArray &frame) { return quint8(frame.at(8)); }

} // namespace

class TestClient : public QObject
{
    Q_OBJECT

    ScratchDir m_home;

    std::unique_ptr<ControllerSim> startSim(int n)
    {
        auto sim = std::make_unique<ControllerSim>(host(n));
        if (!sim->start())
            return nullptr;
        return sim;
    }

    // A connected direct-mode client and its simulator.
    struct Link {
        std::unique_ptr<ControllerSim> sim;
        std::unique_ptr<AsynchronousClient> client;
    };
    Link link(int n, bool threadMode = false)
    {
        Link l;
        l.sim = startSim(n);
        l.client = std::make_unique<AsynchronousClient>();
        if (threadMode)
            l.client->setSyncMode(0);
        if (l.sim && !l.client->tcpConnect(host(n).toLatin1()))
            l.sim.reset();
        return l;
    }

private slots:
    void initTestCase()
    {
        // The client creates "logs" under the working directory.
        QVERIFY(m_home.enter());
    }
    void cleanupTestCase() { m_home.leave(); }

    // The value map as a flat table: stores (sA=V), a look at it (?),
    // updates of present addresses (uA=V) and removals (rA), then its
    // contents in address order.
    void valueTableKeepsMapSemantics_data()
    {
        QTest::addColumn<QString>("operations");
        QTest::addColumn<QString>("contents");
        QTest::newRow("stores in ascending order -> as stored") << "s1=1 s2=2 s3=3" << "1=1 2=2 3=3";
        QTest::newRow("stores out of order -> in address order") << "s3=3 s1=1 s2=2" << "1=1 2=2 3=3";
        QTest::newRow("an address stored twice -> the later value") << "s2=1 s1=1 s2=5" << "1=1 2=5";
        QTest::newRow("stores after a look -> merged, the later value wins") << "s1=1 s4=4 ? s4=7 s2=2"
                                                                             << "1=1 2=2 4=7";
        QTest::newRow("updates -> only addresses already there") << "s1=1 s2=2 u2=9 u3=3" << "1=1 2=9";
        QTest::newRow("removals, one absent -> the others stay") << "s1=1 s2=2 s3=3 r2 r7" << "1=1 3=3";
    }
    void valueTableKeepsMapSemantics()
    {
        QFETCH(QString, operations);
        QFETCH(QString, contents);
        ValueTable table;
        for (const QString &op : operations.split(' ')) {
            const QStringList pair = op.mid(1).split('=');
            const qint32 address = pair.value(0).toInt();
            if (op[0] == 's')
                table.store(address, pair.value(1).toInt());
            else if (op[0] == 'u')
                table.update(address, pair.value(1).toInt());
            else if (op[0] == 'r')
                table.remove(&address, 1);
            else
                table.size();
        }
        QStringList got;
        for (int i = 0; i < table.size(); ++i)
            got << QStringLiteral("%1=%2").arg(table.at(i).address).arg(table.at(i).value);
        QCOMPARE(got.join(' '), contents);
    }

    void constructionMakesLogDirectory()
    {
        AsynchronousClient client;
        QVERIFY(QDir(m_home.path() + "/logs").exists());
        QCOMPARE(client.syncMode(), 1);
        QCOMPARE(client.queueLimit(), 1);
    }

    void requestBytes_data()
    {
        QTest::addColumn<QString>("operation");
        QTest::addColumn<QByteArray>("expected");
        QTest::newRow("read two") << "read"
            << QByteArray::fromHex("00000000 0b00 00 42 02 40420f00 41420f00");
        QTest::newRow("write two") << "write"
            << QByteArray::fromHex("00000000 1300 00 44 02 40420f00 78563412 41420f00 feffffff");
        QTest::newRow("watchdog") << "wdt" << QByteArray::fromHex("00000000 0200 00 70");
        QTest::newRow("bits 33 and 31 of type 0") << "bits"
            << QByteArray::fromHex("00000000 0b00 00 42 02 71bf0f00 70bf0f00");
    }
    void requestBytes()
    {
        QFETCH(QString, operation);
        QFETCH(QByteArray, expected);
        Link l = link(10);
        QVERIFY(l.sim);
        long int addresses[2] = { 1000000, 1000001 };
        long int values[2] = { 0x12345678, -2 };
        long int bits[2] = { 33, 31 };
        long int status = -1;
        if (operation == "read")
            status = l.client->readVars(addresses, 2, values);
        else if (operation == "write")
            status = l.client->writeVars(addresses, 2, values);
        else if (operation == "wdt")
            status = l.client->CheckTcpWdt();
        else
            status = l.client->readBits(1, AsynchronousClient::BitX, bits, 2, values);
        QCOMPARE(status, 0L);
        QCOMPARE(l.sim->requests(), QList<QByteArray>() << expected);
    }

    void framesAreSplitAtTheLimits_data()
    {
        QTest::addColumn<bool>("write");
        QTest::addColumn<int>("count");
        QTest::addColumn<QList<int>>("perFrame");
        QTest::newRow("read 64") << false << 64 << QList<int>{ 64 };
        QTest::newRow("read 130") << false << 130 << QList<int>{ 64, 64, 2 };
        QTest::newRow("write 31") << true << 31 << QList<int>{ 31 };
        QTest::newRow("write 32") << true << 32 << QList<int>{ 31, 1 };
    }
    void framesAreSplitAtTheLimits()
    {
        QFETCH(bool, write);
        QFETCH(int, count);
        QFETCH(QList<int>, perFrame);
        Link l = link(11);
        QVERIFY(l.sim);
        QVector<long int> addresses(count), values(count);
        for (int i = 0; i < count; ++i) {
            addresses[i] = 2000000 + i;
            values[i] = 1000 + i;
        }
        const long int status = write ? l.client->writeVars(addresses.data(), count, values.data())
                                      : l.client->readVars(addresses.data(), count, values.data());
        QCOMPARE(status, 0L);
        const QList<QByteArray> sent = l.sim->requests();
        QCOMPARE(sent.size(), perFrame.size());
        for (int i = 0; i < sent.size(); ++i) {
            QCOMPARE(int(countByte(sent[i])), perFrame[i]);
            QCOMPARE(sent[i].size(), 9 + perFrame[i] * (write ? 8 : 4));
        }
        if (write) {
            for (int i = 0; i < count; ++i)
                QCOMPARE(l.sim->variable(qint32(addresses[i])), qint32(values[i]));
        } else {
            QVERIFY(!l.client->currentRdAddressFlag());   // the last frame had nothing more
        }
    }

    void valuesComeBackInRequestOrderSignExtended()
    {
        Link l = link(12);
        QVERIFY(l.sim);
        l.sim->setVariable(3000005, -7);
        l.sim->setVariable(3000001, 0x7fffffff);
        l.sim->setVariable(3000009, qint32(0x80000000));
        long int addresses[4] = { 3000005, 3000001, 3000009, 3000005 };
        long int values[4] = { 1, 1, 1, 1 };
        QCOMPARE(l.client->readVars(addresses, 4, values), 0L);
        QCOMPARE(values[0], -7L);
        QCOMPARE(values[1], 2147483647L);
        QCOMPARE(values[2], long(INT32_MIN));
        QCOMPARE(values[3], -7L);
        // Out of order, no address twice.
        long int unordered[3] = { 3000009, 3000005, 3000001 };
        QCOMPARE(l.client->readVars(unordered, 3, values), 0L);
        QCOMPARE(QVector<long int>(values, values + 3), QVector<long int>({ long(INT32_MIN), -7L, 2147483647L }));

        // A write of a negative host long reaches the wire as 32 bits.
        long int address = 3000002, value = -123456;
        QCOMPARE(l.client->writeVars(&address, 1, &value), 0L);
        QCOMPARE(l.sim->variable(3000002), -123456);
    }

    void readVarsDropsRegisteredVariables()
    {
        Link l = link(25);
        QVERIFY(l.sim);
        long int registered[2] = { 1000100, 1000101 };
        l.client->registerVars(registered, 2);
        QCOMPARE(l.client->valueMap().size(), 2);
        long int address = 1000200, value = 0;
        QCOMPARE(l.client->readVars(&address, 1, &value), 0L);
        QCOMPARE(l.client->valueMap().keys(), QList<qint32>{ 1000200 });
    }

    void badArgumentsSendNothing()
    {
        Link l = link(13);
        QVERIFY(l.sim);
        long int good[2] = { 1000000, 1000001 };
        long int bad[2] = { 1000000, 170000 };
        long int values[2] = { 55, 66 };
        QCOMPARE(l.client->readVars(good, 0, values), 1L);
        QCOMPARE(values[0], 55L);   // untouched
        QCOMPARE(l.client->readVars(nullptr, 2, values), 1L);
        QCOMPARE(l.client->readVars(good, 2, nullptr), 1L);
        QCOMPARE(l.client->readVars(bad, 2, values), 1L);
        QCOMPARE(l.client->writeVars(bad, 2, values), 1L);
        long int huge = 0x100000000L + 5;   // would alias address 5 if cut first
        if (sizeof(long int) > 4)
            QCOMPARE(l.client->readVars(&huge, 1, values), 1L);
        QVector<long int> many(65, 1000000), out(65);
        QCOMPARE(l.client->fileReadVars(many.data(), 65, out.data()), 1L);
        QCOMPARE(l.client->fileWriteVars(many.data(), 32, out.data()), 1L);
        long int bits[1] = { 3 };
        QCOMPARE(l.client->readBits(0, AsynchronousClient::BitX, bits, 1, values), 1L);
        QCOMPARE(l.client->readBits(100, AsynchronousClient::BitX, bits, 1, values), 1L);
        QCOMPARE(l.client->readBits(1, AsynchronousClient::BitType(7), bits, 1, values), 1L);
        QCOMPARE(l.client->readBits(1, AsynchronousClient::BitType(-1), bits, 1, values), 1L);
        long int negative = -1;
        QCOMPARE(l.client->readBits(1, AsynchronousClient::BitX, &negative, 1, values), 1L);
        QCOMPARE(l.client->readBits(1, AsynchronousClient::BitX, bits, 1, nullptr), 1L);
        QVERIFY(l.sim->requests().isEmpty());
    }

    void statusesThroughTraffic()
    {
        Link l = link(14);
        QVERIFY(l.sim);
        long int address = 1000000, value = 0;
        long int bit = 1;

        l.sim->setFault('B', -1, ControllerSim::Fault::errorReply(1));
        value = 99;
        QCOMPARE(l.client->readVars(&address, 1, &value), 3L);
        QCOMPARE(value, 0L);   // no value came for it
        l.sim->setFault('D', -1, ControllerSim::Fault::errorReply(1));
        QCOMPARE(l.client->writeVars(&address, 1, &value), 3L);
        l.sim->setFault('p', -1, ControllerSim::Fault::errorReply(1));
        QCOMPARE(l.client->CheckTcpWdt(), 3L);
        l.sim->setFault('B', -1, ControllerSim::Fault::errorReply(1));
        QCOMPARE(l.client->readBits(1, AsynchronousClient::BitY, &bit, 1, &value), 3L);
        // A good reply clears the flag again.
        QCOMPARE(l.client->readVars(&address, 1, &value), 0L);
        QCOMPARE(l.client->CheckTcpWdt(), 0L);

        QCOMPARE(l.client->registerBits(1, AsynchronousClient::BitX, &bit, 1), 6L);
        QCOMPARE(l.client->registerBits(1, AsynchronousClient::BitX, nullptr, 0), 6L);
        QCOMPARE(l.client->removeBits(1, AsynchronousClient::BitX, &bit, 1), 6L);

        l.sim->setFault('p', -1, ControllerSim::Fault::silence(1));
        QCOMPARE(l.client->CheckTcpWdt(), 111L);
        l.sim->setFault('B', -1, ControllerSim::Fault::silence(1));
        QCOMPARE(l.client->readVars(&address, 1, &value), 111L);

        // The controller drops the link: the call that meets it gets no
        // reply, every later one finds the socket down.
        l.sim->setFault('D', -1, ControllerSim::Fault::closeAfter(0, 1));
        QCOMPARE(l.client->writeVars(&address, 1, &value), 111L);
        QVERIFY(!l.client->isSocketConnected());
        QCOMPARE(l.client->readVars(&address, 1, &value), 7L);
        QCOMPARE(l.client->writeVars(&address, 1, &value), 7L);
        QCOMPARE(l.client->CheckTcpWdt(), 7L);
        QCOMPARE(l.client->readBits(1, AsynchronousClient::BitX, &bit, 1, &value), 7L);
        QCOMPARE(l.client->registerBits(1, AsynchronousClient::BitX, &bit, 1), 7L);
        QVERIFY(!l.client->socketErrorText().isEmpty());

        // And it can be connected again.
        QVERIFY(l.client->tcpConnect(host(14).toLatin1()));
        QCOMPARE(l.client->CheckTcpWdt(), 0L);
    }

    // A reply counts only when it answers the request: same letter or its
    // error form and, for a read, the count asked for. Anything else is
    // dropped and the wait goes on within the same budget.
    void misbehavingController_data()
    {
        QTest::addColumn<QString>("operation");
        QTest::addColumn<QString>("before");   // fault of a readVars made first
        QTest::addColumn<QString>("fault");
        QTest::addColumn<long>("status");
        QTest::addColumn<long>("value");        // read value, -1: not checked
        QTest::addColumn<int>("maxMs");
        QTest::newRow("bare 'p' after an error reply to a read -> 0")
            << "wdt" << "B=error:0:1" << "p=bare" << 0L << -1L << 1000;
        QTest::newRow("stale read error before the write's ack -> 0")
            << "write" << "" << "D=stale:0xC2" << 0L << -1L << 1000;
        QTest::newRow("stale write error before the reset's ack -> 0")
            << "reset" << "" << "f:3=stale:0xC4" << 0L << -1L << 1000;
        QTest::newRow("stale write ack before the read's reply -> the value")
            << "read" << "" << "B=stale:0x44" << 0L << 42L << 1000;
        QTest::newRow("read reply with another count -> 111 after the three waits")
            << "read" << "" << "B=count:2" << 111L << -1L << 2500;
        QTest::newRow("garbage -> 111 after the three waits")
            << "read" << "" << "B=garbage" << 111L << -1L << 2500;
        QTest::newRow("reply of 600 bytes -> 111 after the three waits")
            << "read" << "" << "B=oversize:600" << 111L << -1L << 2500;
        QTest::newRow("split reply -> the value")
            << "read" << "" << "B=split:100" << 0L << 42L << 1000;
        QTest::newRow("endless stream after the reply -> the value within 2 s")
            << "read" << "" << "B=stream" << 0L << 42L << 2000;
        QTest::newRow("silent controller -> 111 after the three waits")
            << "read" << "" << "B=silence" << 111L << -1L << 2500;
    }
    void misbehavingController()
    {
        QFETCH(QString, operation);
        QFETCH(QString, before);
        QFETCH(QString, fault);
        QFETCH(long, status);
        QFETCH(long, value);
        QFETCH(int, maxMs);
        Link l = link(27);
        QVERIFY(l.sim);
        l.sim->setVariable(1000000, 42);
        long int address = 1000000, read = -1;
        char letter = 0;
        int sub = -1;
        ControllerSim::Fault f;
        if (!before.isEmpty()) {
            QVERIFY(ControllerSim::parseFault(before, &letter, &sub, &f));
            l.sim->setFault(letter, sub, f);
            l.client->readVars(&address, 1, &read);
        }
        QVERIFY(ControllerSim::parseFault(fault, &letter, &sub, &f));
        l.sim->setFault(letter, sub, f);
        QElapsedTimer t;
        t.start();
        long int out = -1;
        if (operation == "wdt")
            out = l.client->CheckTcpWdt();
        else if (operation == "write")
            out = l.client->writeVars(&address, 1, &address);
        else if (operation == "reset")
            out = l.client->reset(1);
        else
            out = l.client->readVars(&address, 1, &read);
        const qint64 elapsed = t.elapsed();
        QCOMPARE(out, status);
        if (value >= 0)
            QCOMPARE(read, value);
        QVERIFY2(elapsed < maxMs, qPrintable(QString::number(elapsed)));
    }

    void writeVarsTakesWhatAWordCarries_data()
    {
        QTest::addColumn<qint64>("value");
        QTest::addColumn<long>("status");
        QTest::addColumn<qint32>("stored");
        QTest::newRow("INT32_MIN -> written") << qint64(INT32_MIN) << 0L << qint32(INT32_MIN);
        QTest::newRow("0xFFFFFFFF -> written as the bit pattern") << qint64(0xFFFFFFFFLL) << 0L << qint32(-1);
        QTest::newRow("0x100000000 -> 1, nothing sent") << qint64(0x100000000LL) << 1L << qint32(0);
        QTest::newRow("LONG_MAX -> 1, nothing sent") << qint64(LLONG_MAX) << 1L << qint32(0);
        QTest::newRow("INT32_MIN - 1 -> 1, nothing sent") << qint64(INT32_MIN) - 1 << 1L << qint32(0);
    }
    void writeVarsTakesWhatAWordCarries()
    {
        QFETCH(qint64, value);
        QFETCH(long, status);
        QFETCH(qint32, stored);
        if (sizeof(long int) < 8 && (value > LONG_MAX || value < LONG_MIN))
            QSKIP("a 32-bit long cannot hold the value");
        Link l = link(28);
        QVERIFY(l.sim);
        long int address = 1000000, v = long(value);
        QCOMPARE(l.client->writeVars(&address, 1, &v), status);
        QCOMPARE(l.sim->variable(1000000), stored);
        QCOMPARE(l.sim->requests().size(), status == 0 ? 1 : 0);
    }

    void neverConnected()
    {
        AsynchronousClient client;
        long int address = 1000000, value = 0;
        QCOMPARE(client.readVars(&address, 1, &value), 7L);
        QCOMPARE(client.CheckTcpWdt(), 7L);
        QCOMPARE(client.tcpDisconnect(), 1L);
        QVERIFY(!client.tcpConnect("127.0.0.15"));   // nobody listens there
        QVERIFY(!client.tcpConnect("not an address"));
        QCOMPARE(client.readVars(&address, 1, &value), 7L);
    }

    void staleBytesOfASplitReplyAreDiscarded()
    {
        Link l = link(16);
        QVERIFY(l.sim);
        l.sim->setVariable(1000010, 42);
        long int address = 1000010, value = 0;
        l.sim->setFault('B', -1, ControllerSim::Fault::split(100, 1));
        l.client->readVars(&address, 1, &value);   // parsed from the first segment only
        QThread::msleep(300);                     // the rest arrives meanwhile
        value = 0;
        QCOMPARE(l.client->readVars(&address, 1, &value), 0L);
        QCOMPARE(value, 42L);
    }

    void bitAddressing_data()
    {
        QTest::addColumn<int>("channel");
        QTest::addColumn<int>("type");
        QTest::addColumn<int>("bit");
        QTest::addColumn<int>("word");
        QTest::addColumn<int>("inWord");
        QTest::newRow("type 0 bit 33") << 1 << 0 << 33 << 1032049 << 1;
        QTest::newRow("type 0 bit 31") << 1 << 0 << 31 << 1032048 << 31;
        QTest::newRow("type 1") << 2 << 1 << 0 << 2032112 << 0;
        QTest::newRow("type 2") << 1 << 2 << 64 << 1032178 << 0;
        QTest::newRow("type 3") << 99 << 3 << 95 << 99032242 << 31;
        QTest::newRow("type 4") << 1 << 4 << 1 << 1032304 << 1;
        QTest::newRow("type 5 above type 6") << 1 << 5 << 0 << 1032592 << 0;
        QTest::newRow("type 6") << 1 << 6 << 32 << 1032561 << 0;
    }
    void bitAddressing()
    {
        QFETCH(int, channel);
        QFETCH(int, type);
        QFETCH(int, bit);
        QFETCH(int, word);
        QFETCH(int, inWord);
        QCOMPARE(AsynchronousClient::bitWordAddress(channel, type, bit), word);
        QCOMPARE(AsynchronousClient::bitInWord(bit), inWord);
    }

    void readBitsPicksBitsOfWords()
    {
        Link l = link(17);
        QVERIFY(l.sim);
        l.sim->setVariable(1032049, 0x2);
        l.sim->setVariable(1032048, qint32(0x80000000));
        l.sim->setVariable(1032592, 0x5);
        long int bits[4] = { 33, 32, 31, 30 };
        long int values[4] = { 9, 9, 9, 9 };
        QCOMPARE(l.client->readBits(1, AsynchronousClient::BitX, bits, 4, values), 0L);
        QCOMPARE(QList<long>({ values[0], values[1], values[2], values[3] }), QList<long>({ 1, 0, 1, 0 }));
        long int kbits[3] = { 0, 1, 2 };
        QCOMPARE(l.client->readBits(1, AsynchronousClient::BitK, kbits, 3, values), 0L);
        QCOMPARE(QList<long>({ values[0], values[1], values[2] }), QList<long>({ 1, 0, 1 }));
    }

    void registeredVariablesArePolled()
    {
        Link l = link(18, true);
        QVERIFY(l.sim);
        QCOMPARE(l.client->syncMode(), 0);
        QVector<long int> addresses(130);
        for (int i = 0; i < 130; ++i) {
            addresses[i] = 4000000 + i;
            l.sim->setVariable(4000000 + i, -i);
        }
        l.client->registerVars(addresses.data(), 130);
        QVERIFY(waitFor([&] {
            const QMap<qint32, qint32> map = l.client->valueMap();
            return map.size() == 130 && map.value(4000129) == -129 && map.value(4000000) == 0
                && map.value(4000061) == -61;
        }));
        // Slices of 62 in ascending order, then the next pass.
        QVERIFY(l.sim->waitForRequests(4, 5000));
        const QList<QByteArray> sent = l.sim->requests('B');
        QCOMPARE(int(countByte(sent[0])), 62);
        QCOMPARE(int(countByte(sent[1])), 62);
        QCOMPARE(int(countByte(sent[2])), 6);
        QCOMPARE(sent[0].mid(9, 8), QByteArray::fromHex("00093d00 01093d00"));

        // Values written on the controller show up on a later pass.
        l.sim->setVariable(4000100, 777);
        QVERIFY(waitFor([&] { return l.client->valueMap().value(4000100) == 777; }));

        long int gone[2] = { 4000000, 4000001 };
        l.client->removeVars(gone, 2);
        QCOMPARE(l.client->valueMap().size(), 128);
        l.client->clearVars();
        QVERIFY(l.client->valueMap().isEmpty());
    }

    void registeredBitsArePolled()
    {
        Link l = link(19, true);
        QVERIFY(l.sim);
        l.sim->setVariable(5032560, 0x8);   // type 6 word 0
        l.sim->setVariable(5032561, 0x1);   // type 6 word 1
        long int bits[3] = { 3, 32, 2 };
        QCOMPARE(l.client->registerBits(5, AsynchronousClient::BitA, bits, 3), 0L);
        long int values[3] = { 0, 0, 0 };
        QVERIFY(waitFor([&] {
            l.client->readBits(5, AsynchronousClient::BitA, bits, 3, values);
            return values[0] == 1 && values[1] == 1;
        }));
        QCOMPARE(values[2], 0L);
        QCOMPARE(l.client->removeBits(5, AsynchronousClient::BitA, bits, 3), 0L);
        QCOMPARE(l.client->valueMap().size(), 0);
        // Thread mode sends nothing for readBits itself.
        QThread::msleep(100);   // a poll may still have been on the wire
        l.sim->clearRequests();
        QCOMPARE(l.client->readBits(5, AsynchronousClient::BitA, bits, 3, values), 0L);
        QThread::msleep(100);
        QVERIFY2(l.sim->requests().isEmpty(), l.sim->requests().value(0).toHex().constData());
    }

    void threadModeQueueLimit()
    {
        Link l = link(20, true);
        QVERIFY(l.sim);
        l.sim->setFault('p', -1, ControllerSim::Fault::silence());
        QCOMPARE(l.client->CheckTcpWdt(), 0L);
        // The loop now waits for the reply to the first probe.
        QVERIFY(l.sim->waitForRequests(1, 5000));
        QCOMPARE(l.client->CheckTcpWdt(), 0L);
        QCOMPARE(l.client->CheckTcpWdt(), 0L);   // one queued: the limit of 1 allows it
        QCOMPARE(l.client->CheckTcpWdt(), 4L);   // two queued
        QCOMPARE(l.client->queuedCount(), 2);
        l.sim->clearFaults();
        QVERIFY(waitFor([&] { return l.client->queuedCount() == 0; }));
        QVERIFY(l.sim->waitForRequests(3, 5000));
    }

    void threadModeDisconnectStopsTheLoop()
    {
        Link l = link(21, true);
        QVERIFY(l.sim);
        long int address = 1000000;
        l.client->registerVars(&address, 1);
        QVERIFY(l.sim->waitForRequests(3, 5000));
        QCOMPARE(l.client->tcpDisconnect(), 1L);
        QVERIFY(waitFor([&] { return l.sim->connectionCount() == 0; }));
        const int seen = l.sim->requests().size();
        QThread::msleep(100);
        QCOMPARE(l.sim->requests().size(), seen);
        QVERIFY(!l.client->isConnectedFlag());
        // Mode change back to direct on a connected thread-mode client.
        QVERIFY(l.client->tcpConnect(host(21).toLatin1()));
        l.client->setSyncMode(1);
        QVERIFY(!l.client->isSocketConnected());
        QVERIFY(l.client->tcpConnect(host(21).toLatin1()));
        QCOMPARE(l.client->CheckTcpWdt(), 0L);
    }

    void threadModeStopsWhileAReplyIsAwaited_data()
    {
        QTest::addColumn<QString>("call");
        QTest::newRow("disconnect -> returns within 500 ms") << "disconnect";
        QTest::newRow("destruction -> returns within 500 ms") << "destroy";
        QTest::newRow("connect again -> returns within 500 ms") << "connect";
    }
    void threadModeStopsWhileAReplyIsAwaited()
    {
        // The loop is inside its reply waits when the host stops it: the
        // call does not wait for those waits to run out.
        QFETCH(QString, call);
        Link l = link(26, true);
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
        QCOMPARE(l.sim->requests().size(), 1);
    }

    void twoControllersDoNotWaitForEachOther()
    {
        Link a = link(22), b = link(23);
        QVERIFY(a.sim && b.sim);
        a.sim->setSilence('B');
        b.sim->setSilence('B');
        long int statusA = -1, statusB = -1;
        QElapsedTimer t;
        t.start();
        std::thread ta([&] {
            long int address = 1000000, value = 0;
            statusA = a.client->readVars(&address, 1, &value);
        });
        std::thread tb([&] {
            long int address = 1000000, value = 0;
            statusB = b.client->readVars(&address, 1, &value);
        });
        ta.join();
        tb.join();
        QCOMPARE(statusA, 111L);
        QCOMPARE(statusB, 111L);
        QVERIFY2(t.elapsed() < 2700, qPrintable(QString::number(t.elapsed())));
    }

    void oneClientFromManyThreads()
    {
        // The client lock keeps one request on the wire; replies land with
        // their own callers.
        Link l = link(24);
        QVERIFY(l.sim);
        for (int i = 0; i < 4; ++i)
            l.sim->setVariable(6000000 + i, 100 * i);
        std::vector<std::thread> threads;
        std::atomic<int> wrong{0};
        for (int i = 0; i < 4; ++i) {
            threads.emplace_back([&, i] {
                for (int k = 0; k < 50; ++k) {
                    long int address = 6000000 + i, value = -1;
                    if (l.client->readVars(&address, 1, &value) != 0 || value != 100 * i)
                        ++wrong;
                }
            });
        }
        for (auto &t : threads)
            t.join();
        QCOMPARE(wrong.load(), 0);
        QCOMPARE(l.sim->requests('B').size(), 200);
    }
};

QTEST_GUILESS_MAIN(TestClient)
#include "tst_client.moc"
