// The C interface as a host sees it: registry, connection, variables, bits,
// the watchdog and the callback, through the shared library only. Like a C#
// or Python host, this program never creates a QCoreApplication, and the
// calls run on plain OS threads; the simulators are separate processes.
#include "velmora.h"
#include "velmora_prefixed.h"

#include "SimProcess.h"
#include "TestSupport.h"

#include <QDir>
#include <QElapsedTimer>
#include <QThread>
#include <QtTest>

#include <atomic>
#include <cstring>
#include <mutex>
#include <string>
#include <thread>

namespace {

std::string host(int n) { return "127.0.0.3" + std::to_string(n); }

// The simulator process needs a moment before it listens.
bool connectRetrying(int cncID)
{
    return waitFor([&] { return velmora_connect(cncID); });
}

// The debug stream while a test looks at it.
std::mutex g_linesMutex;
QStringList g_lines;

void captureLine(QtMsgType, const QMessageLogContext &, const QString &message)
{
    std::lock_guard<std::mutex> lock(g_linesMutex);
    g_lines.append(message);
}

std::atomic<int> g_calls{0};
std::atomic<int> g_lastState{-1};
char g_lastDetail[128];

int recordError(int, int cmdState, const char *detail)
{
    g_lastState.store(cmdState);
    std::strncpy(g_lastDetail, detail ? detail : "", sizeof g_lastDetail - 1);
    ++g_calls;
    return 12345;   // ignored by the library
}

} // namespace

class TestCapi : public QObject
{
    Q_OBJECT

    ScratchDir m_home;

private slots:
    void initTestCase()
    {
        QVERIFY(!QCoreApplication::instance());
        QVERIFY(m_home.enter());
    }
    void cleanupTestCase() { m_home.leave(); }

    void unknownController()
    {
        long int a = 1000000, v = 5;
        QCOMPARE(readVars(&a, 1, &v, 77), 1L);
        QCOMPARE(v, 5L);
        QCOMPARE(writeVars(&a, 1, &v, 77), 1L);
        QCOMPARE(registerVars(&a, 1, 77), 1L);
        QCOMPARE(removeVars(&a, 1, 77), 1L);
        QCOMPARE(clearVars(77), 1L);
        QCOMPARE(readBits(1, 0, &a, 1, &v, 77), 1L);
        QCOMPARE(registerBits(1, 0, &a, 1, 77), 1L);
        QCOMPARE(removeBits(1, 0, &a, 1, 77), 1L);
        QCOMPARE(CheckTcpWdt(77), 1L);
        QCOMPARE(getErrorDeb(1, 77), 1L);
        QVERIFY(!velmora_connect(77));
        QVERIFY(!::disconnect(77));
        QVERIFY(!getTcpConnectFlag(77));
        QVERIFY(!setErrCallbackFunc(&recordError, 77));
        QVERIFY(!removeTargetCnc(77));
        QVERIFY(getCncCurrentError(0, 77) == nullptr);
        QVERIFY(getRuningPrg(1, 77) == nullptr);
    }

    void statusTexts_data()
    {
        QTest::addColumn<long>("status");
        QTest::addColumn<QByteArray>("text");
        const QByteArray unknown("Unknown status code");
        QTest::newRow("0 -> success") << 0L << QByteArray("Success");
        QTest::newRow("1 -> parameter error") << 1L << QByteArray("Parameter error or unknown controller");
        QTest::newRow("3 -> error reply") << 3L << QByteArray("The controller answered with an error reply");
        QTest::newRow("4 -> queue full")
            << 4L << QByteArray("The command queue is full (for overwrite: the DNC memory is full)");
        QTest::newRow("6 -> wrong mode") << 6L << QByteArray("Wrong client mode for this call");
        QTest::newRow("7 -> not connected") << 7L << QByteArray("Not connected");
        QTest::newRow("100 -> alarm") << 100L << QByteArray("Controller execution alarm");
        QTest::newRow("111 -> no reply") << 111L << QByteArray("No reply within the reply time-out");
        QTest::newRow("112 -> no oscilloscope points") << 112L << QByteArray("No oscilloscope points");
        QTest::newRow("2, never returned -> unknown") << 2L << unknown;
        QTest::newRow("-1 -> unknown") << -1L << unknown;
        if (sizeof(long) > 4)   // a 64-bit long is not cut to 32 bits on the way
            QTest::newRow("111 + 2^32 -> unknown, not 111") << long(111 + (1LL << 32)) << unknown;
    }
    void statusTexts()
    {
        QFETCH(long, status);
        QFETCH(QByteArray, text);
        QCOMPARE(QByteArray(velmoraStatusText(status)), text);
    }

    void registryAndConnections()
    {
        SimProcess sim(host(0));
        QVERIFY(sim.started());
        std::string ip = host(0), other = host(9);   // nobody listens on the other
        char name[] = "O1234";
        QVERIFY(addTargetCnc(1, 0, &ip[0], 0));
        QVERIFY(!addTargetCnc(1, 3, &other[0], 0));   // the first entry stays
        QVERIFY(connectRetrying(1));
        QCOMPARE(CheckTcpWdt(1), 0L);
        // One channel client: channel 2 does not exist.
        QCOMPARE(getTransFileState(1, 1, name, 1), 0L);
        QCOMPARE(getTransFileState(1, 2, name, 1), 1L);
        QVERIFY(::disconnect(1));
        QCOMPARE(CheckTcpWdt(1), 7L);
        QCOMPARE(getTransFileState(1, 1, name, 1), 7L);
        QVERIFY(velmora_connect(1));
        QCOMPARE(CheckTcpWdt(1), 0L);
        QVERIFY(removeTargetCnc(1));
        QVERIFY(!removeTargetCnc(1));
        QCOMPARE(CheckTcpWdt(1), 1L);

        QVERIFY(addTargetCnc(2, 3, &ip[0], 0));
        QVERIFY(velmora_connect(2));
        QCOMPARE(getTransFileState(1, 3, name, 2), 0L);
        QCOMPARE(getTransFileState(1, 4, name, 2), 1L);
        QVERIFY(removeTargetCnc(2));

        // Channel clients stop at the highest channel number.
        QVERIFY(addTargetCnc(3, 2147483647, &ip[0], 0));
        QCOMPARE(getTransFileState(1, 99, name, 3), 7L);
        QCOMPARE(getTransFileState(1, 100, name, 3), 1L);
        QVERIFY(removeTargetCnc(3));

        QVERIFY(addTargetCnc(3, 1, nullptr, 0));   // stored as an empty address
        QVERIFY(!velmora_connect(3));
        QVERIFY(removeTargetCnc(3));
    }

    void registryCallLines()
    {
        std::string ip = host(9);   // nobody listens there
        g_lines.clear();
        qInstallMessageHandler(&captureLine);
        addTargetCnc(20, 2, &ip[0], 0);
        velmora_connect(20);
        ::disconnect(20);
        removeTargetCnc(20);
        velmora_connect(99);
        ::disconnect(99);
        qInstallMessageHandler(nullptr);
        const QString marker = QStringLiteral("@@@@####1111");
        QStringList calls;
        for (const QString &line : g_lines)
            if (line.startsWith(marker))
                calls.append(line.mid(marker.size()));
        const QStringList expected = {
            " bool addTargetCnc(int, int, char*, int)  cncID= 20  maxDncCh= 2  ip= 127.0.0.39",
            " bool addTargetCnc(int, int, char*, int)  cncID= 20  out= true",
            " bool connect(int)  cncID= 20",
            " bool connect(int)  cncID= 20  out= false",
            " bool disconnect(int)  cncID= 20",
            " bool disconnect(int)  cncID= 20  out= true",
            " bool removeTargetCnc(int)  cncID= 20",
            " bool removeTargetCnc(int)  cncID= 20  out= true",
            " bool connect(int)  cncID= 99",
            " bool connect(int)  cncID= 99  out= false",
            " bool disconnect(int)  cncID= 99",
            " bool disconnect(int)  cncID= 99  out= false",
        };
        QCOMPARE(calls, expected);
    }

    void syncMaskBitsPickTheClients()
    {
        // A thread-mode client leaves the query for its loop and returns 0 at
        // once; a direct one meets the controller's error reply.
        SimProcess sim(host(8), { "d=error" });
        QVERIFY(sim.started());
        std::string ip = host(8);
        char name[] = "O1";
        QVERIFY(addTargetCnc(12, 31, &ip[0], int(0x80000002u)));
        QVERIFY(connectRetrying(12));
        QCOMPARE(getTransFileState(1, 1, name, 12), 0L);    // bit 1
        QCOMPARE(getTransFileState(1, 2, name, 12), 3L);
        QCOMPARE(getTransFileState(1, 30, name, 12), 3L);
        QCOMPARE(getTransFileState(1, 31, name, 12), 0L);   // bit 31, the sign bit
        QVERIFY(removeTargetCnc(12));
    }

    void variablesAndBits()
    {
        SimProcess sim(host(1));
        QVERIFY(sim.started());
        std::string ip = host(1);
        QVERIFY(addTargetCnc(4, 1, &ip[0], 0));
        QVERIFY(!getTcpConnectFlag(4));
        QVERIFY(connectRetrying(4));
        QVERIFY(getTcpConnectFlag(4));

        long int addresses[3] = { 2000001, 2000002, 2000003 };
        long int values[3] = { -1, 2147483647, -2147483647 - 1 };
        QCOMPARE(writeVars(addresses, 3, values, 4), 0L);
        long int back[3] = { 0, 0, 0 };
        QCOMPARE(readVars(addresses, 3, back, 4), 0L);
        QCOMPARE(back[0], -1L);
        QCOMPARE(back[1], 2147483647L);
        QCOMPARE(back[2], -2147483647L - 1);
        QCOMPARE(readVars(addresses, 0, back, 4), 1L);

        long int word = 1032049, wordValue = 0x2;
        QCOMPARE(writeVars(&word, 1, &wordValue, 4), 0L);
        long int bit = 33, bitValue = 0;
        QCOMPARE(readBits(1, 0, &bit, 1, &bitValue, 4), 0L);
        QCOMPARE(bitValue, 1L);
        QCOMPARE(registerBits(1, 0, &bit, 1, 4), 6L);   // direct mode
        QCOMPARE(registerVars(addresses, 3, 4), 0L);
        QCOMPARE(removeVars(addresses, 3, 4), 0L);
        QCOMPARE(clearVars(4), 0L);
        QCOMPARE(getErrorDeb(0, 4), 0L);
        QVERIFY(removeTargetCnc(4));
    }

    void connectFlagProbe()
    {
        // An error reply is still an answer; silence is not.
        SimProcess erring(host(2), { "B=error" });
        SimProcess silent(host(3), { "B=silence" });
        QVERIFY(erring.started() && silent.started());
        std::string ipErring = host(2), ipSilent = host(3);
        QVERIFY(addTargetCnc(10, 1, &ipErring[0], 0));
        QVERIFY(addTargetCnc(11, 1, &ipSilent[0], 0));
        QVERIFY(connectRetrying(10));
        QVERIFY(connectRetrying(11));
        QVERIFY(getTcpConnectFlag(10));
        QVERIFY(!getTcpConnectFlag(11));
        QVERIFY(removeTargetCnc(10));
        QVERIFY(removeTargetCnc(11));
    }

    void threadModeFromTheSyncMask()
    {
        SimProcess sim(host(4));
        QVERIFY(sim.started());
        std::string ip = host(4);
        QVERIFY(addTargetCnc(5, 2, &ip[0], 1));
        QVERIFY(connectRetrying(5));
        long int word = 1032048, wordValue = 0x1;
        QCOMPARE(writeVars(&word, 1, &wordValue, 5), 0L);   // left for the loop
        long int bit = 0, value = 0;
        QCOMPARE(registerBits(1, 0, &bit, 1, 5), 0L);
        QVERIFY(waitFor([&] {
            readBits(1, 0, &bit, 1, &value, 5);
            return value == 1;
        }));
        QCOMPARE(CheckTcpWdt(5), 0L);   // queued for the loop
        QVERIFY(removeTargetCnc(5));    // stops the polling thread
    }

    void removalStopsSilentLoopsTogether()
    {
        // Main and channel clients in thread mode, each waiting for a reply
        // that never comes: their waits overlap, they do not add up.
        SimProcess sim(host(8), { "B=silence", "d=silence" });
        QVERIFY(sim.started());
        std::string ip = host(8);
        char name[] = "O1";
        QVERIFY(addTargetCnc(13, 3, &ip[0], 0xf));
        QVERIFY(connectRetrying(13));
        long int address = 1000000;
        QCOMPARE(registerVars(&address, 1, 13), 0L);
        for (long int channel = 1; channel <= 3; ++channel)
            QCOMPARE(getTransFileState(1, channel, name, 13), 0L);
        QThread::msleep(200);   // every loop has sent its request
        QElapsedTimer t;
        t.start();
        QVERIFY(removeTargetCnc(13));
        QVERIFY2(t.elapsed() < 3000, qPrintable(QString::number(t.elapsed())));
    }

    void errorCallbackReachesTheHost()
    {
        SimProcess sim(host(5), { "f:3=state:1" });
        QVERIFY(sim.started());
        std::string ip = host(5);
        QVERIFY(addTargetCnc(6, 1, &ip[0], 0));
        QVERIFY(connectRetrying(6));
        QVERIFY(setErrCallbackFunc(&recordError, 6));
        g_calls.store(0);
        QCOMPARE(reset(1, 6), 3L);
        QCOMPARE(g_calls.load(), 1);
        QCOMPARE(g_lastState.load(), 1);
        QCOMPARE(QByteArray(g_lastDetail), QByteArray("parameters error."));
        QVERIFY(removeTargetCnc(6));
    }

    void twoControllersFromTwoPlainThreads()
    {
        SimProcess a(host(6), { "p=silence" }), b(host(7), { "p=silence" });
        QVERIFY(a.started() && b.started());
        std::string ipA = host(6), ipB = host(7);
        QVERIFY(addTargetCnc(7, 1, &ipA[0], 0));
        QVERIFY(addTargetCnc(8, 1, &ipB[0], 0));
        QVERIFY(connectRetrying(7));
        QVERIFY(connectRetrying(8));
        long int resultA = -1, resultB = -1;
        QElapsedTimer t;
        t.start();
        std::thread ta([&] { resultA = CheckTcpWdt(7); });
        std::thread tb([&] { resultB = CheckTcpWdt(8); });
        ta.join();
        tb.join();
        QCOMPARE(resultA, 111L);
        QCOMPARE(resultB, 111L);
        QVERIFY2(t.elapsed() < 2700, qPrintable(QString::number(t.elapsed())));

        // Registry changes from yet another plain thread.
        bool removed = false;
        std::thread([&] { removed = removeTargetCnc(7) && removeTargetCnc(8); }).join();
        QVERIFY(removed);
    }
};

int main(int argc, char *argv[])
{
    TestCapi test;
    return QTest::qExec(&test, argc, argv);
}

#include "capi_registry.moc"
