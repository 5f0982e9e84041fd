// Program control, file transfer, error files and the remote buffer through
// the C interface, the way a plain C host calls them: no QCoreApplication,
// no event loop. The simulated controllers run in this process: 127.0.0.65
// for the registered controller, 127.0.0.80 for buffers.
#include "velmora.h"
#include "velmora_prefixed.h"

#include "ControllerSim.h"
#include "TestSupport.h"

#include <QDir>
#include <QtTest>

#include <algorithm>
#include <thread>
#include <vector>

using wire::hex;

namespace {

const char kAddress[] = "127.0.0.65";
const int kId = 65;
const int kUnknown = 4242;
char kBufferAddress[] = "127.0.0.80";

char *t(const char *s) { return const_cast<char *>(s); }

int threadCount() { return QDir("/proc/self/task").entryList(QDir::Dirs | QDir::NoDotAndDotDot).size(); }

} // namespace

class CapiOps : public QObject
{
    Q_OBJECT

    ScratchDir m_home;
    std::unique_ptr<ControllerSim> m_sim, m_bufferSim;

private slots:
    void initTestCase()
    {
        QVERIFY(!QCoreApplication::instance());
        QVERIFY(m_home.enter());
        m_sim = std::make_unique<ControllerSim>(QString::fromLatin1(kAddress));
        m_bufferSim = std::make_unique<ControllerSim>(QString::fromLatin1(kBufferAddress));
        QVERIFY(m_sim->start() && m_bufferSim->start());
        QVERIFY(addTargetCnc(kId, 2, t(kAddress), 0));
        // Not ::connect: a sanitizer runtime linked first has a `connect` too.
        QVERIFY(velmora_connect(kId));
    }

    void cleanupTestCase()
    {
        QVERIFY(removeTargetCnc(kId));
        m_sim.reset();
        m_bufferSim.reset();
        m_home.leave();
    }

    // File transfer goes to the client of its channel; program control to
    // the main client, whatever the controller's channel count.
    void callsReachTheirClient()
    {
        m_sim->clearRequests();
        QCOMPARE(uploadFile(0, 3, t("O3"), t("G0\n"), kId), 1L);   // two channels: none for 3
        QCOMPARE(setTransFileType(2, 0, t("O3"), kId), 1L);
        QCOMPARE(reset(5, kId), 0L);
        QCOMPARE(m_sim->requests(), QList<QByteArray>{ hex("00000000 0500 00 66 03 05 00") });
        // The announcement on channel 1 opens channel 1's client only.
        QCOMPARE(setTransFileType(2, 1, t("O4"), kId), 0L);
        QCOMPARE(overwrite(t("G2\n"), 2, kId), 1L);
        QCOMPARE(overwrite(t("G2\n"), 1, kId), 0L);
        QCOMPARE(fileEnd(1, kId), 0L);
        QCOMPARE(m_sim->dncFile(1, "O4"), QByteArray("G2\n"));
    }

    // A text a thread got stays intact until that thread calls again,
    // whatever another thread asks for the same controller meanwhile.
    void textsStayWithTheirThread()
    {
        auto ask = [] {
            const QByteArray program(getRuningPrg(1, kId));
            return program + ' ' + QByteArray(getCncCurrentError(0, kId));
        };
        m_sim->setRunningProgram(1, "O1111");
        m_sim->setErrorFile(0, false, "E1111");
        const char *program = getRuningPrg(1, kId), *errors = getCncCurrentError(0, kId);
        m_sim->setRunningProgram(1, "O2222");
        m_sim->setErrorFile(0, false, "E2222");
        QByteArray theirs;
        std::thread([&] {
            for (int i = 0; i < 2; ++i)
                theirs = ask();
        }).join();
        QCOMPARE(theirs, QByteArray("O2222 0E2222"));
        QCOMPARE(QByteArray(program) + ' ' + errors, QByteArray("O1111 0E1111"));
        QCOMPARE(ask(), QByteArray("O2222 0E2222"));
        m_sim->setRunningProgram(1, QByteArray());
    }

    // Texts from the host go into log lines with their control bytes
    // escaped: a CR/LF in a name, a text or an address cannot forge a line.
    void hostTextsAreEscapedInLogLines()
    {
        static QStringList lines;
        const QtMessageHandler previous = qInstallMessageHandler(
            [](QtMsgType, const QMessageLogContext &, const QString &message) { lines.append(message); });
        char forged[] = "A\r\n2024-01-01 00:00:00 Mon: FORGED\x01";
        setTransFileType(0, 1, forged, kUnknown);
        append(forged, 1, kUnknown);
        addTargetCnc(kUnknown, 1, forged, 0);
        qInstallMessageHandler(previous);
        removeTargetCnc(kUnknown);
        const QStringList hits = lines.filter(QStringLiteral("FORGED"));
        QCOMPARE(hits.size(), 3);
        for (const QString &line : hits)
            QVERIFY2(line.contains(QStringLiteral(" A\\r\\n2024-01-01 00:00:00 Mon: FORGED\\x01"))
                         && !line.contains(QLatin1Char('\r')) && !line.contains(QLatin1Char('\n')),
                     qPrintable(line));
    }

    void bufferArgumentsRefused()
    {
        QCOMPARE(getBufState(nullptr), 4);
        QCOMPARE(getBufValidCnt(nullptr), 0);
        QVERIFY(getBufStateInf(nullptr) == nullptr);
        QCOMPARE(bufWrite(nullptr, t("G0")), 0);
        QCOMPARE(bufClear(nullptr), 0);
        QCOMPARE(bufClose(nullptr), 0);
        QVERIFY(bufOpen(nullptr, 0, 1) == nullptr);
        QVERIFY(bufOpen(kBufferAddress, 2, 1) == nullptr);
        QVERIFY(bufOpen(kBufferAddress, 1, 0) == nullptr);
        QVERIFY(bufOpen(kBufferAddress, 0, 100) == nullptr);
    }

    // A buffer's life on channel 3, ending with no event loop to free it.
    void bufferSession()
    {
        const QByteArray setFile = hex("00000000 0900 00 64 01 03 01 444e43 00");
        m_bufferSim->clearRequests();
        void *h = bufOpen(kBufferAddress, 1, 3);
        QVERIFY(waitFor([&] { return getBufState(h) == 5; }));
        QCOMPARE(QByteArray(getBufStateInf(h)), QByteArray("Command queue is empty."));
        QCOMPARE(getBufValidCnt(h), 480000);
        QCOMPARE(bufWrite(h, t("N1\n")), 1);
        QCOMPARE(bufWrite(h, nullptr), 0);
        QVERIFY(m_bufferSim->waitForRequests(2, 3000) && waitFor([&] { return getBufState(h) == 5; }));
        QCOMPARE(bufClear(h), 1);
        QVERIFY(m_bufferSim->waitForRequests(4, 3000));
        QCOMPARE(m_bufferSim->requests(), (QList<QByteArray>{ setFile, hex("00000000 0700 00 64 02 4e310a 00"), setFile,
                                                              hex("00000000 0400 00 64 03 00") }));
        QVERIFY(waitFor([&] { return getBufState(h) == 5; }));
        QCOMPARE(bufClose(h), 1);
        // Winding down: a closed buffer, not a crash.
        QCOMPARE(getBufState(h), 3);
        QCOMPARE(bufWrite(h, t("late")), 0);
        QCOMPARE(bufClear(h), 0);
        QCOMPARE(bufClose(h), 1);
        // Freed all the same; the handle then answers like a null one.
        QVERIFY(waitFor([&] { return getBufState(h) == 4; }));
        QVERIFY(getBufStateInf(h) == nullptr);
        QCOMPARE(bufClose(h), 0);
        QVERIFY(waitFor([&] { return m_bufferSim->connectionCount() == 0; }));
    }

    // Buffers opened, written and closed from a plain thread: none is left
    // behind, nor its thread.
    void openCloseLeavesNothing()
    {
        std::vector<void *> handles;
        auto rounds = [&](int n) {
            handles.clear();
            std::thread([&] {
                for (int i = 0; i < n; ++i) {
                    handles.push_back(bufOpen(kBufferAddress, unsigned(i % 2), 1));
                    bufWrite(handles.back(), t("G0 X0\n"));
                    bufClose(handles.back());
                }
            }).join();
            return waitFor([&] {
                return std::all_of(handles.begin(), handles.end(), [](void *h) { return getBufState(h) == 4; });
            });
        };
        // A few rounds first, so lazily made runtime state is in the baseline.
        QVERIFY(rounds(5));
        const int threadsBefore = threadCount(), acceptedBefore = m_bufferSim->connectionsAccepted();
        QVERIFY(rounds(50));
        QVERIFY(waitFor([&] { return threadCount() <= threadsBefore; }));
        // Real connections, not buffers that never got going.
        QVERIFY(m_bufferSim->connectionsAccepted() - acceptedBefore >= 25);
    }
};

QTEST_APPLESS_MAIN(CapiOps)
#include "capi_ops.moc"
