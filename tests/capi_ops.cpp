// Program control, file transfer and error files through the C interface:
// which client each call reaches, what an unknown controller or channel
// gives, and the texts the library hands out. The in-process simulator
// needs an application object; the library itself does not (capi_buffer and
// capi_registry run without one). Simulator on 127.0.0.65.
#include "velmora.h"
#include "velmora_prefixed.h"

#include "ControllerSim.h"

#include <QtTest>

#include <thread>

namespace {

const char kAddress[] = "127.0.0.65";
const int kId = 65;

char *text(const char *s) { return const_cast<char *>(s); }

struct Report {
    int category = 0;
    int state = 0;
    QByteArray detail;
    int calls = 0;
};
Report g_report;

int onError(int errorCmd, int cmdState, const char *detail)
{
    g_report.category = errorCmd;
    g_report.state = cmdState;
    g_report.detail = detail;
    ++g_report.calls;
    return 0;
}

} // namespace

class CapiOps : public QObject
{
    Q_OBJECT

    ControllerSim *m_sim = nullptr;

private slots:
    void initTestCase()
    {
        m_sim = new ControllerSim(QString::fromLatin1(kAddress));
        QVERIFY(m_sim->start());
        QVERIFY(addTargetCnc(kId, 2, text(kAddress), 0));
        // Not ::connect: a sanitizer runtime linked first has a `connect` too.
        QVERIFY(velmora_connect(kId));
        QVERIFY(setErrCallbackFunc(onError, kId));
    }

    void cleanupTestCase()
    {
        QVERIFY(removeTargetCnc(kId));
        delete m_sim;
    }

    void init()
    {
        m_sim->clearRequests();
        g_report = Report();
    }

    void unknownController()
    {
        const int unknown = 4242;
        QCOMPARE(reset(1, unknown), 1L);
        QCOMPARE(cycStart(1, text("O1"), unknown), 1L);
        QCOMPARE(setTransFileType(0, 1, text("O1"), unknown), 1L);
        QCOMPARE(getTransFileState(0, 1, text("O1"), unknown), 1L);
        QCOMPARE(overwrite(text("G0"), 1, unknown), 1L);
        QCOMPARE(append(text("G0"), 1, unknown), 1L);
        QCOMPARE(fileEnd(1, unknown), 1L);
        QCOMPARE(uploadFile(0, 1, text("O1"), text("G0"), unknown), 1L);
        QVERIFY(getRuningPrg(1, unknown) == nullptr);
        QVERIFY(getCncCurrentError(0, unknown) == nullptr);
        QVERIFY(m_sim->requests().isEmpty());
    }

    void transferPicksTheChannelClient()
    {
        QCOMPARE(uploadFile(0, 2, text("O2"), text("G1 X2\n"), kId), 0L);
        QCOMPARE(m_sim->dncFile(2, "O2"), QByteArray("G1 X2\n"));

        // Channel 3 has no client on a two-channel controller.
        m_sim->clearRequests();
        QCOMPARE(uploadFile(0, 3, text("O3"), text("G0\n"), kId), 1L);
        QCOMPARE(setTransFileType(2, 0, text("O3"), kId), 1L);
        QVERIFY(m_sim->requests().isEmpty());

        // The announcement on channel 1 opens channel 1's client only.
        QCOMPARE(setTransFileType(2, 1, text("O4"), kId), 0L);
        QCOMPARE(overwrite(text("G2\n"), 2, kId), 1L);
        QCOMPARE(overwrite(text("G2\n"), 1, kId), 0L);
        QCOMPARE(fileEnd(1, kId), 0L);
        QCOMPARE(m_sim->dncFile(1, "O4"), QByteArray("G2\n"));
        QCOMPARE(getTransFileState(2, 1, text("O4"), kId), 0L);
    }

    void programControlOnTheMainClient()
    {
        // Only the client's 1..99 check applies, not the channel count.
        QCOMPARE(reset(5, kId), 0L);
        QCOMPARE(reset(100, kId), 1L);
        QCOMPARE(m_sim->requests('f').size(), 1);
        QCOMPARE(cycStart(1, text("NOFILE"), kId), 3L);
        QCOMPARE(g_report.category, 8);
        QCOMPARE(g_report.detail, QByteArray("file is not exist."));
    }

    void runningProgramText()
    {
        m_sim->setRunningProgram(1, "O7001");
        m_sim->setRunningProgram(2, "O7002");
        const char *first = getRuningPrg(1, kId);
        QVERIFY(first);
        QCOMPARE(QByteArray(first), QByteArray("O7001"));
        QCOMPARE(QByteArray(getRuningPrg(2, kId)), QByteArray("O7002"));
        QCOMPARE(QByteArray(getRuningPrg(0, kId)), QByteArray());
        m_sim->setRunningProgram(1, QByteArray());
        m_sim->setRunningProgram(2, QByteArray());
    }

    void errorFileText()
    {
        m_sim->setErrorFile(3, true, "E100 overtravel\n");
        QCOMPARE(QByteArray(getCncCurrentError(31, kId)), QByteArray("0E100 overtravel\n"));
        QCOMPARE(QByteArray(getCncCurrentError(32, kId)), QByteArray("9Channel selection error"));
    }

    // A text a thread got stays intact until that thread calls again,
    // whatever another thread asks for the same controller meanwhile.
    void textsStayWithTheirThread_data()
    {
        QTest::addColumn<bool>("program");
        QTest::newRow("getRuningPrg -> the first thread's program still reads") << true;
        QTest::newRow("getCncCurrentError -> the first thread's file still reads") << false;
    }
    void textsStayWithTheirThread()
    {
        QFETCH(bool, program);
        auto set = [&](const QByteArray &t) {
            if (program)
                m_sim->setRunningProgram(1, "O" + t);
            else
                m_sim->setErrorFile(0, false, "E" + t);
        };
        auto ask = [&]() { return program ? getRuningPrg(1, kId) : getCncCurrentError(0, kId); };
        set("1111");
        const char *mine = ask();
        const QByteArray copy(mine);
        QVERIFY(copy.contains("1111"));
        set("2222");
        QByteArray theirs;
        std::thread other([&] {
            for (int i = 0; i < 2; ++i)
                theirs = ask();
        });
        other.join();
        QVERIFY(theirs.contains("2222"));
        QCOMPARE(QByteArray(mine), copy);
        QVERIFY(QByteArray(ask()).contains("2222"));
        m_sim->setRunningProgram(1, QByteArray());
    }

    // Texts from the host go into log lines with their control bytes
    // escaped: a CR/LF in a name cannot forge a line of its own.
    void hostTextsAreEscapedInLogLines_data()
    {
        QTest::addColumn<QString>("call");
        QTest::newRow("file name -> \\r\\n in the line") << "fileName";
        QTest::newRow("program text -> \\r\\n in the line") << "txt";
        QTest::newRow("controller address -> \\r\\n in the line") << "ip";
    }
    void hostTextsAreEscapedInLogLines()
    {
        QFETCH(QString, call);
        static QStringList lines;
        lines.clear();
        const QtMessageHandler previous = qInstallMessageHandler(
            [](QtMsgType, const QMessageLogContext &, const QString &message) { lines.append(message); });
        char forged[] = "A\r\n2024-01-01 00:00:00 Mon: FORGED\x01";
        const int unknown = 4243;
        if (call == "fileName")
            setTransFileType(0, 1, forged, unknown);
        else if (call == "txt")
            append(forged, 1, unknown);
        else
            addTargetCnc(unknown, 1, forged, 0);
        qInstallMessageHandler(previous);
        if (call == "ip")
            removeTargetCnc(unknown);
        const QStringList hits = lines.filter(QStringLiteral("FORGED"));
        QVERIFY(!hits.isEmpty());
        for (const QString &line : hits) {
            QVERIFY2(!line.contains(QLatin1Char('\r')) && !line.contains(QLatin1Char('\n'))
                         && !line.contains(QChar(1)), qPrintable(line));
            QVERIFY2(line.contains(QStringLiteral("A\\r\\n2024")) && line.contains(QStringLiteral("\\x01")),
                     qPrintable(line));
        }
    }
};

QTEST_GUILESS_MAIN(CapiOps)
#include "capi_ops.moc"
