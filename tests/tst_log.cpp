// The hourly communication log: file names, line format, hour change through
// the clock seam, switching on and off, and lines from many threads.
#include "AsynchronousClient.h"
#include "CommLog.h"
#include "TestSupport.h"

#include <QDir>
#include <QFile>
#include <QRegularExpression>
#include <QtTest>

#include <atomic>
#include <thread>
#include <vector>

namespace {

std::atomic<qint64> g_fakeNow{0};

QDateTime fakeClock()
{
    return QDateTime::fromMSecsSinceEpoch(g_fakeNow.load());
}

void setFakeNow(const QString &text)
{
    g_fakeNow.store(QDateTime::fromString(text, QStringLiteral("yyyy-MM-dd hh:mm:ss.zzz")).toMSecsSinceEpoch());
}

QByteArray readAll(const QString &path)
{
    QFile f(path);
    return f.open(QIODevice::ReadOnly) ? f.readAll() : QByteArray();
}

} // namespace

class TestLog : public QObject
{
    Q_OBJECT

    ScratchDir m_home;

    QString logPath(const QString &suffix) const { return m_home.path() + "/logs/CommLog_" + suffix + ".txt"; }

private slots:
    void initTestCase()
    {
        QVERIFY(m_home.enter());
        QVERIFY(QDir().mkpath("logs"));
        CommLog::setClock(&fakeClock);
    }
    void cleanupTestCase()
    {
        CommLog::install(false);
        CommLog::setClock(nullptr);
        m_home.leave();
    }
    void cleanup()
    {
        CommLog::install(false);
        QDir(m_home.path() + "/logs").removeRecursively();
        QDir().mkpath("logs");
    }

    void fileNameAndLine_data()
    {
        QTest::addColumn<QString>("now");
        QTest::addColumn<QString>("suffix");
        QTest::addColumn<QString>("stamp");
        QTest::newRow("morning") << "2026-03-02 09:05:07.000" << "2026-03-02-09" << "2026-03-02 09:05:07";
        QTest::newRow("afternoon") << "2025-12-31 23:59:59.999" << "2025-12-31-23" << "2025-12-31 23:59:59";
    }
    void fileNameAndLine()
    {
        QFETCH(QString, now);
        QFETCH(QString, suffix);
        QFETCH(QString, stamp);
        const QDateTime t = QDateTime::fromString(now, "yyyy-MM-dd hh:mm:ss.zzz");
        QCOMPARE(CommLog::filePath(t), logPath(suffix));
        const QString line = CommLog::formatLine(t, "tcpConnect ip = 1.2.3.4");
        QVERIFY2(QRegularExpression("^" + QRegularExpression::escape(stamp) + " \\S+: tcpConnect ip = 1\\.2\\.3\\.4$")
                     .match(line).hasMatch(), qPrintable(line));
        QVERIFY(line.startsWith(stamp + " " + t.toString("ddd") + ": "));
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

    void linesGoToTheFileOfTheirHour()
    {
        CommLog::install(true);
        setFakeNow("2026-05-04 10:59:59.999");
        qDebug() << "before the hour";
        setFakeNow("2026-05-04 11:00:00.001");
        qDebug() << "after the hour";
        qDebug().noquote() << "中文 text";
        const QByteArray ten = readAll(logPath("2026-05-04-10"));
        const QByteArray eleven = readAll(logPath("2026-05-04-11"));
        const QString day = QDateTime::fromMSecsSinceEpoch(g_fakeNow.load()).toString("ddd");
        QCOMPARE(ten, ("2026-05-04 10:59:59 " + day + ": before the hour\r\n").toUtf8());
        QCOMPARE(eleven, ("2026-05-04 11:00:00 " + day + ": after the hour\r\n"
                          "2026-05-04 11:00:00 " + day + ": 中文 text\r\n").toUtf8());
    }

    void clientMaskSwitchesTheLog()
    {
        setFakeNow("2026-05-04 12:00:00.000");
        AsynchronousClient client;
        long int address = 1000000, value = 0;
        client.setDebugMask(1);
        QVERIFY(CommLog::isInstalled());
        QCOMPARE(client.readVars(&address, 1, &value), 7L);
        const QByteArray logged = readAll(logPath("2026-05-04-12"));
        QVERIFY2(logged.contains("long int AsynchronousClient::readVars(long int*, int, long int*)  SocketDisconnected "),
                 logged.constData());

        client.setDebugMask(0);
        QVERIFY(!CommLog::isInstalled());
        qDebug() << "not in the file";
        QCOMPARE(readAll(logPath("2026-05-04-12")), logged);
    }

    void zeroMaskLogsNoErrors()
    {
        setFakeNow("2026-05-04 13:00:00.000");
        AsynchronousClient client;
        CommLog::install(true);   // as another controller with a mask would
        long int address = 1000000, value = 0;
        QCOMPARE(client.readVars(&address, 1, &value), 7L);
        QVERIFY(!readAll(logPath("2026-05-04-13")).contains("SocketDisconnected"));
    }

    void missingDirectoryLosesMessagesQuietly()
    {
        setFakeNow("2026-05-04 14:00:00.000");
        QDir(m_home.path() + "/logs").removeRecursively();
        CommLog::install(true);
        qDebug() << "lost";
        CommLog::install(false);
        QVERIFY(!QFile::exists(logPath("2026-05-04-14")));
    }

    void linesFromManyThreadsDoNotInterleave()
    {
        setFakeNow("2026-05-04 15:00:00.000");
        CommLog::install(true);
        std::vector<std::thread> threads;
        for (int t = 0; t < 4; ++t)
            threads.emplace_back([t] {
                for (int i = 0; i < 50; ++i)
                    qDebug().noquote() << QStringLiteral("thread %1 line %2 ").arg(t).arg(i) + QString(40, QChar('a' + t));
            });
        for (auto &t : threads)
            t.join();
        CommLog::install(false);
        const QList<QByteArray> lines = readAll(logPath("2026-05-04-15")).split('\n');
        QCOMPARE(lines.size(), 201);   // 200 lines and the empty rest after the last
        const QRegularExpression shape("^2026-05-04 15:00:00 \\S+: thread (\\d) line \\d+ ([a-d])\\2{39}\r$");
        for (int i = 0; i < 200; ++i) {
            const QRegularExpressionMatch m = shape.match(QString::fromUtf8(lines[i]));
            QVERIFY2(m.hasMatch(), lines[i].constData());
            QCOMPARE(m.captured(2).at(0).unicode() - 'a', m.captured(1).toInt());
        }
    }
};

QTEST_GUILESS_MAIN(TestLog)
#include "tst_log.moc"
