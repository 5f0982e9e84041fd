// The C interface's registry as a host sees it, through the shared library
// only. Like a C# or Python host, this program never creates a
// QCoreApplication; the simulator is a separate process.
#include "velmora.h"
#include "velmora_prefixed.h"

#include "TestSupport.h"
#include "c_sim.h"

#include <QtTest>

#include <string>

namespace {

char g_ip[] = "127.0.0.30", g_nobody[] = "127.0.0.39", g_name[] = "O1";
int g_state = -1;
QByteArray g_detail;

bool addConnected(int cncID, int channels, int syncMask)
{
    // The simulator process needs a moment before it listens.
    return addTargetCnc(cncID, channels, g_ip, syncMask) && waitFor([&] { return velmora_connect(cncID); });
}

} // namespace

class TestCapi : public QObject
{
    Q_OBJECT

    ScratchDir m_home;
    pid_t m_sim = -1;

private slots:
    void initTestCase()
    {
        QVERIFY(!QCoreApplication::instance());
        QVERIFY(m_home.enter());
        // A controller that refuses resets (state 1) and file requests (error
        // reply): getTransFileState tells a direct channel client (3) from a
        // thread-mode one (0, left for its loop) and from none (1).
        const char *faults[] = { "f:3=state:1", "d=error", nullptr };
        const QByteArray sim = qgetenv("VELMORA_BINARY_DIR") + "/sim/velmora-sim";
        QVERIFY((m_sim = c_sim_start(sim.constData(), g_ip, faults)) > 0);
    }
    void cleanupTestCase()
    {
        c_sim_stop(m_sim);
        m_home.leave();
    }

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
        QCOMPARE(reset(1, 77), 1L);
        QCOMPARE(cycStart(1, g_name, 77), 1L);
        QCOMPARE(setTransFileType(0, 1, g_name, 77), 1L);
        QCOMPARE(getTransFileState(0, 1, g_name, 77), 1L);
        QCOMPARE(overwrite(g_name, 1, 77), 1L);
        QCOMPARE(append(g_name, 1, 77), 1L);
        QCOMPARE(fileEnd(1, 77), 1L);
        QCOMPARE(uploadFile(0, 1, g_name, g_name, 77), 1L);
        QVERIFY(!velmora_connect(77) && !::disconnect(77) && !getTcpConnectFlag(77) && !removeTargetCnc(77));
        QVERIFY(!setErrCallbackFunc([](int, int, const char *) { return 0; }, 77));
        QVERIFY(getCncCurrentError(0, 77) == nullptr && getRuningPrg(1, 77) == nullptr);
        // Status texts: a 64-bit long is not cut to 32 bits on the way.
        QCOMPARE(velmoraStatusText(111), "No reply within the reply time-out");
        QCOMPARE(velmoraStatusText(2), "Unknown status code");
        if (sizeof(long) > 4)
            QCOMPARE(velmoraStatusText(long(111 + (1LL << 32))), "Unknown status code");
    }

    // A cncID is registered once; it has maxDncCh channel clients, at least
    // one and at most 99; removal ends it.
    void registryAndChannels()
    {
        QVERIFY(addConnected(1, 0, 0));
        QVERIFY(!addTargetCnc(1, 3, g_nobody, 0));   // the first entry stays
        QCOMPARE(getTransFileState(1, 1, g_name, 1), 3L);
        QCOMPARE(getTransFileState(1, 2, g_name, 1), 1L);
        QVERIFY(::disconnect(1));
        QCOMPARE(getTransFileState(1, 1, g_name, 1), 7L);
        QVERIFY(removeTargetCnc(1) && !removeTargetCnc(1));
        QCOMPARE(CheckTcpWdt(1), 1L);

        QVERIFY(addConnected(2, 3, 0));
        QCOMPARE(getTransFileState(1, 3, g_name, 2), 3L);
        QCOMPARE(getTransFileState(1, 4, g_name, 2), 1L);
        long int bit = 0;
        QCOMPARE(registerBits(1, 0, &bit, 1, 2), 6L);   // the main client in direct mode
        QVERIFY(removeTargetCnc(2));
        QVERIFY(addTargetCnc(3, 2147483647, g_ip, 0));
        QVERIFY(!getTcpConnectFlag(3));
        QCOMPARE(getTransFileState(1, 99, g_name, 3), 7L);
        QCOMPARE(getTransFileState(1, 100, g_name, 3), 1L);
        QVERIFY(removeTargetCnc(3));
        QVERIFY(addTargetCnc(3, 1, nullptr, 0));   // stored as an empty address
        QVERIFY(!velmora_connect(3));
        QVERIFY(removeTargetCnc(3));
    }

    // Bit 0 of the sync mask puts the main client in thread mode, bit N
    // channel N's client (bit 31 is the sign bit).
    void syncMaskPicksThreadModeClients()
    {
        long int bit = 0;
        QVERIFY(addConnected(12, 31, int(0x80000003u)));
        QCOMPARE(registerBits(1, 0, &bit, 1, 12), 0L);
        QCOMPARE(getTransFileState(1, 1, g_name, 12), 0L);
        QCOMPARE(getTransFileState(1, 2, g_name, 12), 3L);
        QCOMPARE(getTransFileState(1, 30, g_name, 12), 3L);
        QCOMPARE(getTransFileState(1, 31, g_name, 12), 0L);
        QVERIFY(removeTargetCnc(12));   // stops the polling threads
    }

    // "@@@@####1111" lines: each registry call, on the way in and out.
    void registryCallLines()
    {
        static QStringList calls;
        qInstallMessageHandler([](QtMsgType, const QMessageLogContext &, const QString &line) {
            if (line.startsWith("@@@@####1111"))
                calls << line.mid(12);
        });
        addTargetCnc(20, 2, g_nobody, 0);
        velmora_connect(20);
        ::disconnect(20);
        removeTargetCnc(20);
        ::disconnect(99);
        qInstallMessageHandler(nullptr);
        QCOMPARE(calls, QStringList({
                            " bool addTargetCnc(int, int, char*, int)  cncID= 20  maxDncCh= 2  ip= 127.0.0.39",
                            " bool addTargetCnc(int, int, char*, int)  cncID= 20  out= true",
                            " bool connect(int)  cncID= 20",
                            " bool connect(int)  cncID= 20  out= false",
                            " bool disconnect(int)  cncID= 20",
                            " bool disconnect(int)  cncID= 20  out= true",
                            " bool removeTargetCnc(int)  cncID= 20",
                            " bool removeTargetCnc(int)  cncID= 20  out= true",
                            " bool disconnect(int)  cncID= 99",
                            " bool disconnect(int)  cncID= 99  out= false",
                        }));
    }

    void errorCallbackReachesTheHost()
    {
        QVERIFY(addConnected(6, 1, 0));
        QVERIFY(setErrCallbackFunc(
            [](int, int state, const char *detail) {
                g_state = state;
                g_detail += detail;
                return 12345;   // ignored by the library
            },
            6));
        QCOMPARE(reset(1, 6), 3L);
        QCOMPARE(g_state, 1);
        QCOMPARE(g_detail, QByteArray("parameters error."));
        QVERIFY(removeTargetCnc(6));
    }
};

int main(int argc, char *argv[])
{
    TestCapi test;
    return QTest::qExec(&test, argc, argv);
}

#include "capi_registry.moc"
