// The hourly communication log: file names and line format through the
// clock seam, the client's mask switching it, lines from many threads.
#include "AsynchronousClient.h"
#include "CallLine.h"
#include "CommLog.h"
#include "TestSupport.h"

#include <QDir>
#include <QFile>
#include <QRegularExpression>
#include <QtTest>

#include <atomic>
#include <functional>
#include <thread>

namespace {

std::atomic<qint64> g_now{ 0 };

QDateTime fakeClock() { return QDateTime::fromMSecsSinceEpoch(g_now.load()); }

} // namespace

class TestLog : public QObject
{
    Q_OBJECT

    ScratchDir m_home;

    // Sets the clock; the day's name as a line writes it.
    QString setNow(const QString &text)
    {
        g_now.store(QDateTime::fromString(text, QStringLiteral("yyyy-MM-dd hh:mm:ss.zzz")).toMSecsSinceEpoch());
        return fakeClock().toString("ddd");
    }
    QByteArray logged(const QString &hour) const
    {
        QFile f(m_home.path() + "/logs/CommLog_" + hour + ".txt");
        return f.open(QIODevice::ReadOnly) ? f.readAll() : QByteArray();
    }

private slots:
    void initTestCase()
    {
        QVERIFY(m_home.enter());
        CommLog::setClock(&fakeClock);
    }
    void init() { QVERIFY(QDir().mkpath("logs")); }
    void cleanup() { CommLog::install(false); }
    void cleanupTestCase()
    {
        CommLog::setClock(nullptr);
        m_home.leave();
    }

    // A host's text as it goes into a log line: nothing can end the line.
    void hostText_data()
    {
        QTest::addColumn<QByteArray>("text");
        QTest::addColumn<QString>("logged");
        QTest::newRow("plain program text -> as it is") << QByteArray("G01 X10 Y20 F300 M3") << "G01 X10 Y20 F300 M3";
        QTest::newRow("CR LF past the first sixteen bytes -> \\r\\n")
            << QByteArray("G01 X10 Y20 Z30 F\r\nFORGED") << "G01 X10 Y20 Z30 F\\r\\nFORGED";
        QTest::newRow("DEL and a tab -> \\x7f, \\t") << QByteArray("N10 G00\x7f\tX1") << "N10 G00\\x7f\\tX1";
        QTest::newRow("UTF-8 text -> kept, a C1 control escaped")
            << QByteArray("\xe7\xa8\x8b\xe5\xba\x8f O1000 \xc2\x85") << QString::fromUtf8("程序 O1000 \\x85");
        QTest::newRow("null -> empty") << QByteArray() << "";
    }
    void hostText()
    {
        QFETCH(QByteArray, text);
        QFETCH(QString, logged);
        QCOMPARE(CommLog::hostText(text.isNull() ? nullptr : text.constData()), logged);
    }

    // The C interface's call lines are built without a QDebug stream, but
    // must come out as qDebug().noquote() << ... writes them.
    void callLineWritesWhatQDebugWrites_data()
    {
        QTest::addColumn<QString>("built");
        QTest::addColumn<QString>("streamed");
        static QStringList out;
        const QtMessageHandler previous = qInstallMessageHandler(
            [](QtMsgType, const QMessageLogContext &, const QString &message) { out.append(message); });
        const char sig[] = "long int uploadFile(long int, long int, char*, char*, int)";
        const char txt[] = "N1 G01 X-1.5\r\nN2 M30 ";
        const auto row = [&](const char *name, const CallLine &line, const std::function<void()> &stream) {
            out.clear();
            line.write();
            stream();
            QTest::newRow(name) << out.value(0) << out.value(1);
        };
        row("numbers, negative and long", CallLine(sig) << " channel=" << -1 << " out=" << 2147483647L,
            [&] { qDebug().noquote() << sig << " channel=" << -1 << " out=" << 2147483647L; });
        row("bools", CallLine("@@@@####1111") << "bool connect(int)" << " out=" << true << false,
            [&] { qDebug().noquote() << "@@@@####1111" << "bool connect(int)" << " out=" << true << false; });
        row("host text with a trailing space, then an empty one",
            CallLine(sig) << " txt=" << CallLine::Host{ txt } << CallLine::Host{ nullptr } << " out=" << 0,
            [&] { qDebug().noquote() << sig << " txt=" << CommLog::hostText(txt) << "" << " out=" << 0; });
        qInstallMessageHandler(previous);
    }
    void callLineWritesWhatQDebugWrites()
    {
        QFETCH(QString, built);
        QFETCH(QString, streamed);
        QVERIFY(!built.isEmpty());
        QCOMPARE(built, streamed);
    }

    // "logs/CommLog_yyyy-MM-dd-hh.txt", lines "yyyy-MM-dd hh:mm:ss ddd: text"
    // in UTF-8 ended by CR LF; without the directory, lines are lost quietly.
    void linesGoToTheFileOfTheirHour()
    {
        CommLog::install(true);
        const QString day = setNow("2026-05-04 10:59:59.999");
        qDebug() << "before the hour";
        setNow("2026-05-04 11:00:00.001");
        qDebug() << "after the hour";
        qDebug().noquote() << "中文 text";
        QCOMPARE(logged("2026-05-04-10"), ("2026-05-04 10:59:59 " + day + ": before the hour\r\n").toUtf8());
        QCOMPARE(logged("2026-05-04-11"), ("2026-05-04 11:00:00 " + day + ": after the hour\r\n"
                                           "2026-05-04 11:00:00 " + day + ": 中文 text\r\n").toUtf8());
        QDir(m_home.path() + "/logs").removeRecursively();
        qDebug() << "lost";
        QVERIFY(!QDir(m_home.path() + "/logs").exists());
    }

    // A client's mask switches the log for the whole process; only a client
    // whose mask has bit 0 logs its errors.
    void clientMaskSwitchesTheLog()
    {
        setNow("2026-05-04 12:00:00.000");
        AsynchronousClient quiet, logging;
        long int address = 1000000, value = 0;
        logging.setDebugMask(1);
        QVERIFY(CommLog::isInstalled());
        QCOMPARE(quiet.readVars(&address, 1, &value), 7L);
        QCOMPARE(logging.readVars(&address, 1, &value), 7L);
        QCOMPARE(logging.CheckTcpWdt(), 7L);
        const QByteArray lines = logged("2026-05-04-12");
        QCOMPARE(lines.count("SocketDisconnected"), 2);
        QVERIFY2(lines.contains(": long int AsynchronousClient::readVars(long int*, int, long int*)  SocketDisconnected ")
                     && lines.contains(": CheckTcpWdt IN FUNCTION\r\n"), lines.constData());
        logging.setDebugMask(0);
        QVERIFY(!CommLog::isInstalled());
        qDebug() << "not in the file";
        QCOMPARE(logged("2026-05-04-12"), lines);
    }

    void linesFromManyThreadsDoNotInterleave()
    {
        setNow("2026-05-04 15:00:00.000");
        CommLog::install(true);
        std::thread threads[4];
        for (int t = 0; t < 4; ++t)
            threads[t] = std::thread([t] {
                for (int i = 0; i < 50; ++i)
                    qDebug().noquote() << QString(40, QChar('a' + t));
            });
        for (auto &t : threads)
            t.join();
        const QList<QByteArray> lines = logged("2026-05-04-15").split('\n');
        QCOMPARE(lines.size(), 201);   // 200 lines and the empty rest after the last
        for (int i = 0; i < 200; ++i)
            QVERIFY2(QRegularExpression("^2026-05-04 15:00:00 \\S+: ([a-d])\\1{39}\r$").match(lines[i]).hasMatch(),
                     lines[i].constData());
    }
};

QTEST_GUILESS_MAIN(TestLog)
#include "tst_log.moc"
