// Controller operations against the simulator: the bytes each operation
// sends, its result, what the error callback hears, and the transfer paths
// that deliberately keep the client locked.
#include "AsynchronousClient.h"
#include "ControllerSim.h"
#include "TestSupport.h"

#include <QDir>
#include <QMutex>
#include <QTcpServer>
#include <QTcpSocket>
#include <QtTest>

#include <functional>
#include <future>
#include <memory>
#include <thread>

namespace {

const QString kSimAddress = QStringLiteral("127.0.0.50");
const QString kScriptAddress = QStringLiteral("127.0.0.51");

QByteArray hex(const char *text)
{
    return QByteArray::fromHex(QByteArray(text).replace(' ', ""));
}

// A whole TCP frame around a PDU, for the frames too long to write out.
QByteArray frame(const QByteArray &pdu)
{
    const int length = pdu.size() + 1;
    QByteArray f(4, '\0');
    f.append(char(length & 0xFF)).append(char(length >> 8)).append('\0');
    return f + pdu;
}

QByteArray le32(qint32 v)
{
    QByteArray b(4, '\0');
    for (int i = 0; i < 4; ++i)
        b[i] = char(quint32(v) >> (8 * i));
    return b;
}

QByteArray textFrame(char sub, const QByteArray &text)
{
    return frame(QByteArray("d") + sub + text + '\0');
}

// Printable 7-bit text whose bytes tell their position apart.
QByteArray programText(int size)
{
    QByteArray t(size, 'x');
    for (int i = 0; i < size; ++i)
        t[i] = char('A' + i % 23);
    return t;
}

struct ErrorReport {
    int category;
    int state;
    QByteArray text;
};
QMutex g_reportsMutex;
QList<ErrorReport> g_reports;

int recordError(int errorCmd, int cmdState, const char *detail)
{
    QMutexLocker lock(&g_reportsMutex);
    g_reports.append({ errorCmd, cmdState, QByteArray(detail) });
    return 0;
}

QList<ErrorReport> reports()
{
    QMutexLocker lock(&g_reportsMutex);
    return g_reports;
}

// The test client sees its own lock, to check the paths that keep it held.
class OpsClient : public AsynchronousClient
{
public:
    // The client's thread calls virtual handlers: it ends before this
    // object stops being an OpsClient.
    ~OpsClient() override
    {
        requestStop();
        wait();
    }
    // Another thread's tryLock: returns at once, so the check never hangs.
    bool heldElsewhere()
    {
        bool got = false;
        std::thread probe([&] {
            got = m_mutex.tryLock();
            if (got)
                m_mutex.unlock();
        });
        probe.join();
        return !got;
    }
    // The operation ran on the test thread, which may release it.
    void release() { m_mutex.unlock(); }
    void queueProbes(int n)
    {
        for (int i = 0; i < n; ++i)
            queueFrame(buildWatchdog());
    }
};

// A controller that answers each request PDU with the PDU its script
// returns, for replies the simulator never makes. One connection, served on
// its own thread until the client goes or stays silent for 3 s.
class ScriptedController
{
public:
    explicit ScriptedController(std::function<QByteArray(const QByteArray &)> script)
        : m_script(std::move(script))
    {
    }
    ~ScriptedController() { finish(); }
    // Returns once the client has gone (or 3 s of silence).
    void finish()
    {
        if (m_thread.joinable())
            m_thread.join();
    }
    bool start()
    {
        std::promise<bool> listening;
        std::future<bool> ready = listening.get_future();
        m_thread = std::thread([this, &listening] {
            QTcpServer server;
            const bool ok = server.listen(QHostAddress(kScriptAddress), 60000);
            listening.set_value(ok);
            if (!ok || !server.waitForNewConnection(3000))
                return;
            std::unique_ptr<QTcpSocket> socket(server.nextPendingConnection());
            while (socket->waitForReadyRead(3000)) {
                socket->write(frame(m_script(socket->readAll().mid(7))));
                socket->waitForBytesWritten(1000);
            }
        });
        return ready.get();
    }

private:
    std::function<QByteArray(const QByteArray &)> m_script;
    std::thread m_thread;
};

} // namespace

class TestOps : public QObject
{
    Q_OBJECT

    ScratchDir m_home;
    std::unique_ptr<ControllerSim> m_sim;
    std::unique_ptr<OpsClient> m_client;

    QList<QByteArray> sent(char letter) const { return m_sim->requests(letter); }

    void announce(const char *name = "O100")
    {
        QCOMPARE(m_client->setTransFileType(2, 1, const_cast<char *>(name), false), 0L);
        QVERIFY(m_client->isSetFileOk());
        m_sim->clearRequests();
    }

private slots:
    void initTestCase()
    {
        QVERIFY(m_home.enter());
    }
    void cleanupTestCase() { m_home.leave(); }

    void init()
    {
        m_sim = std::make_unique<ControllerSim>(kSimAddress);
        QVERIFY(m_sim->start());
        m_client = std::make_unique<OpsClient>();
        m_client->setErrCallbackFunc(recordError);
        QVERIFY(m_client->tcpConnect(kSimAddress.toLatin1()));
        QMutexLocker lock(&g_reportsMutex);
        g_reports.clear();
    }

    void cleanup()
    {
        m_client.reset();
        m_sim.reset();
    }

    // ---- Program control

    void programControl_data()
    {
        QTest::addColumn<bool>("start");
        QTest::addColumn<long>("channel");
        QTest::addColumn<QByteArray>("name");
        QTest::addColumn<int>("replyState");        // -1: as the controller answers
        QTest::addColumn<QByteArray>("expected");   // empty: nothing sent
        QTest::addColumn<long>("result");
        QTest::addColumn<int>("category");          // 0: no report
        QTest::addColumn<int>("state");
        QTest::addColumn<QByteArray>("text");

        const QByteArray none;
        QTest::newRow("reset") << false << 1L << none << -1 << hex("00000000 0500 00 66 03 01 00") << 0L << 0 << 0
                               << none;
        QTest::newRow("reset beyond the channel count")
            << false << 5L << none << -1 << hex("00000000 0500 00 66 03 05 00") << 0L << 0 << 0 << none;
        QTest::newRow("reset 0") << false << 0L << none << -1 << none << 1L << 0 << 0 << none;
        QTest::newRow("reset 100") << false << 100L << none << -1 << none << 1L << 0 << 0 << none;
        QTest::newRow("reset refused") << false << 1L << none << 1 << hex("00000000 0500 00 66 03 01 00") << 3L << 7
                                       << 1 << QByteArray("parameters error.");
        QTest::newRow("reset, other state") << false << 1L << none << 5 << hex("00000000 0500 00 66 03 01 00") << 3L
                                            << 7 << 5 << QByteArray("program is runing.");
        QTest::newRow("start") << true << 2L << QByteArray("O1000") << -1
                               << hex("00000000 0A00 00 66 04 02 4F31303030 00") << 0L << 0 << 0 << none;
        QTest::newRow("start while running") << true << 4L << QByteArray("O1000") << -1
                                             << hex("00000000 0A00 00 66 04 04 4F31303030 00") << 3L << 8 << 2
                                             << QByteArray("program is runing.");
        QTest::newRow("start cut at a non-ASCII byte")
            << true << 2L << QByteArray("O1\xC3\xA9") << -1 << hex("00000000 0700 00 66 04 02 4F31 00") << 3L << 8
            << 3 << QByteArray("file is not exist.");
        QTest::newRow("start cut at 100 bytes")
            << true << 3L << QByteArray(150, 'N') << -1 << frame(QByteArray("f\x04\x03") + QByteArray(100, 'N') + '\0')
            << 3L << 8 << 3 << QByteArray("file is not exist.");
        QTest::newRow("start channel 0") << true << 0L << QByteArray("O1000") << -1 << none << 1L << 0 << 0 << none;
        QTest::newRow("start without a name") << true << 1L << none << -1 << none << 1L << 0 << 0 << none;
    }

    void programControl()
    {
        QFETCH(bool, start);
        QFETCH(long, channel);
        QFETCH(QByteArray, name);
        QFETCH(int, replyState);
        QFETCH(QByteArray, expected);
        QFETCH(long, result);
        QFETCH(int, category);
        QFETCH(int, state);
        QFETCH(QByteArray, text);

        m_sim->addKnownProgram("O1000");
        m_sim->setRunningProgram(4, "O1000");
        if (replyState >= 0)
            m_sim->setReplyState('f', start ? 4 : 3, replyState);
        const long out = start ? m_client->cycStart(channel, name.isNull() ? nullptr : name.data())
                               : m_client->reset(channel);
        QCOMPARE(out, result);
        QCOMPARE(sent('f'), expected.isEmpty() ? QList<QByteArray>() : QList<QByteArray>{ expected });
        const QList<ErrorReport> got = reports();
        QCOMPARE(got.size(), category ? 1 : 0);
        if (category) {
            QCOMPARE(got.first().category, category);
            QCOMPARE(got.first().state, state);
            QCOMPARE(got.first().text, text);
        }
    }

    void runningProgram_data()
    {
        QTest::addColumn<int>("channel");
        QTest::addColumn<QByteArray>("expected");   // empty: nothing sent
        QTest::addColumn<QByteArray>("text");

        QTest::newRow("channel 2") << 2 << hex("00000000 0500 00 67 05 32 00") << QByteArray("O5678");
        QTest::newRow("channel 1 idle") << 1 << hex("00000000 0500 00 67 05 31 00") << QByteArray("");
        QTest::newRow("257 is byte 1") << 257 << hex("00000000 0500 00 67 05 31 00") << QByteArray("");
        QTest::newRow("channel 0") << 0 << QByteArray() << QByteArray("");
        QTest::newRow("channel 99") << 99 << QByteArray() << QByteArray("");
        QTest::newRow("lowest int") << int(INT_MIN) << QByteArray() << QByteArray("");
    }

    void runningProgram()
    {
        QFETCH(int, channel);
        QFETCH(QByteArray, expected);
        QFETCH(QByteArray, text);

        m_sim->setRunningProgram(2, "O5678");
        const QByteArray got = m_client->getRuningPrg(channel);
        QCOMPARE(got, text);
        QCOMPARE(sent('g'), expected.isEmpty() ? QList<QByteArray>() : QList<QByteArray>{ expected });
    }

    void runningProgramFailures()
    {
        m_sim->setRunningProgram(2, "O5678");
        m_sim->setErrorReply('g');
        QCOMPARE(m_client->getRuningPrg(2), QByteArray(""));
        m_sim->clearFaults();
        QCOMPARE(m_client->getRuningPrg(2), QByteArray("O5678"));
        // No reply: the status code comes back as the text's one character.
        m_sim->setSilence('g');
        QCOMPARE(m_client->getRuningPrg(2), QByteArray("o"));
    }

    void runningProgramThreadMode()
    {
        // The client's thread sends the query; the answer is read after a
        // 200 ms pause.
        m_client.reset(new OpsClient);
        m_client->setSyncMode(0);
        QVERIFY(m_client->tcpConnect(kSimAddress.toLatin1()));
        m_sim->setRunningProgram(3, "O3003");
        QCOMPARE(m_client->getRuningPrg(3), QByteArray("O3003"));
        m_sim->setSilence('g');
        QCOMPARE(m_client->getRuningPrg(3), QByteArray("Unknown"));
    }

    // ---- File transfer

    void announceFile_data()
    {
        QTest::addColumn<long>("type");
        QTest::addColumn<bool>("query");
        QTest::addColumn<QList<QByteArray>>("expected");

        const QByteArray emptyOverwrite = hex("00000000 0400 00 64 03 00");
        QTest::newRow("type 0 empties the file")
            << 0L << false << QList<QByteArray>{ hex("00000000 0800 00 64 01 01 05 5031 00"), emptyOverwrite };
        QTest::newRow("type 1 empties the file")
            << 1L << false << QList<QByteArray>{ hex("00000000 0800 00 64 01 01 01 5031 00"), emptyOverwrite };
        QTest::newRow("type 2 keeps it")
            << 2L << false << QList<QByteArray>{ hex("00000000 0800 00 64 01 01 03 5031 00") };
        QTest::newRow("state query") << 0L << true
                                     << QList<QByteArray>{ hex("00000000 0800 00 64 06 01 05 5031 00") };
    }

    void announceFile()
    {
        QFETCH(long, type);
        QFETCH(bool, query);
        QFETCH(QList<QByteArray>, expected);

        m_sim->setDncFile(1, "P1", "old text");
        char name[] = "P1";
        QCOMPARE(m_client->setTransFileType(type, 1, name, query), 0L);
        QCOMPARE(sent('d'), expected);
        QCOMPARE(m_sim->dncFile(1, "P1"), expected.size() == 2 ? QByteArray() : QByteArray("old text"));
        // Only an accepted set-file opens the transfer.
        QCOMPARE(m_client->isSetFileOk(), !query);
    }

    void announceFileRefused()
    {
        char name[] = "P1";
        QCOMPARE(m_client->setTransFileType(3, 1, name, false), 1L);
        QCOMPARE(m_client->setTransFileType(0, 0, name, false), 1L);
        QCOMPARE(m_client->setTransFileType(0, 100, name, false), 1L);
        QCOMPARE(m_client->setTransFileType(0, 1, nullptr, false), 1L);
        QVERIFY(sent('d').isEmpty());
    }

    void upload_data()
    {
        QTest::addColumn<QByteArray>("text");
        QTest::addColumn<QList<QByteArray>>("chunks");   // overwrite, then appends
        QTest::addColumn<QByteArray>("stored");

        const QByteArray t1000 = programText(1000);
        QTest::newRow("short") << QByteArray("G0 X1\n") << QList<QByteArray>{ "G0 X1\n" } << QByteArray("G0 X1\n");
        QTest::newRow("exactly 400") << programText(400) << QList<QByteArray>{ programText(400), "" }
                                     << programText(400);
        QTest::newRow("1000") << t1000 << QList<QByteArray>{ t1000.left(400), t1000.mid(400, 400), t1000.mid(800) }
                              << t1000;
        QByteArray withUmlaut = programText(30);
        withUmlaut[10] = char(0xE4);
        QTest::newRow("0xE4 at byte 10 ends it") << withUmlaut << QList<QByteArray>{ withUmlaut.left(10) }
                                                 << withUmlaut.left(10);
        QByteArray late = programText(450);
        late[420] = char(0x80);
        QTest::newRow("0x80 in the second chunk") << late << QList<QByteArray>{ late.left(400), late.mid(400, 20) }
                                                  << late.left(420);
        QTest::newRow("empty") << QByteArray("") << QList<QByteArray>{ "" } << QByteArray();
    }

    void upload()
    {
        QFETCH(QByteArray, text);
        QFETCH(QList<QByteArray>, chunks);
        QFETCH(QByteArray, stored);

        char name[] = "O200";
        QCOMPARE(m_client->uploadFile(0, 1, name, text.data()), 0L);

        QList<QByteArray> expected{ hex("00000000 0A00 00 64 01 01 05 4F323030 00"), hex("00000000 0400 00 64 03 00") };
        expected.append(textFrame('\x03', chunks.first()));
        for (int i = 1; i < chunks.size(); ++i)
            expected.append(textFrame('\x02', chunks.at(i)));
        expected.append(hex("00000000 0400 00 64 04 00"));
        QCOMPARE(sent('d'), expected);
        QCOMPARE(m_sim->dncFile(1, "O200"), stored);
        QVERIFY(!m_client->isSetFileOk());
        QVERIFY(reports().isEmpty());
    }

    void uploadRefusals()
    {
        char path[] = "dir/O1";
        char text[] = "G0\n";
        QCOMPARE(m_client->uploadFile(0, 1, path, text), 1L);
        QCOMPARE(m_client->uploadFile(0, 1, nullptr, text), 1L);
        QVERIFY(m_sim->requests().isEmpty());

        // Nothing announced: overwrite and append refuse without traffic.
        QCOMPARE(m_client->overwrite(text), 1L);
        QCOMPARE(m_client->append(text), 1L);
        QVERIFY(m_sim->requests().isEmpty());

        // Announced, but no text.
        char name[] = "O1";
        QCOMPARE(m_client->uploadFile(2, 1, name, nullptr), 1L);
        QCOMPARE(sent('d').size(), 1);
    }

    // Reply states of the transfer commands: result, report, and whether the
    // call left the client locked.
    void transferReplies_data()
    {
        QTest::addColumn<QString>("step");
        QTest::addColumn<int>("state");
        QTest::addColumn<long>("result");
        QTest::addColumn<int>("category");
        QTest::addColumn<QByteArray>("text");
        QTest::addColumn<bool>("held");

        const QByteArray alarm("CNC系统执行错误报警");
        QTest::newRow("set 1") << "set" << 1 << 3L << 1 << QByteArray("parameters error.") << false;
        QTest::newRow("set 2") << "set" << 2 << 3L << 1
                               << QByteArray("target file is been executing.file transmission denied.") << false;
        QTest::newRow("set 100") << "set" << 100 << 100L << 1 << alarm << true;
        QTest::newRow("set 7") << "set" << 7 << 3L << 1 << QByteArray("CmdSetFileInf:unknow state. state=7") << false;
        QTest::newRow("query 7") << "query" << 7 << 3L << 1
                                 << QByteArray("CmdGetFileTransState:unknow state. state=7") << false;
        QTest::newRow("overwrite 2") << "overwrite" << 2 << 0L << 2
                                     << QByteArray("DNC 内存已满，此笔数据复写成功") << false;
        QTest::newRow("overwrite 3") << "overwrite" << 3 << 4L << 2
                                     << QByteArray("DNC 内存已满，此笔数据复写失败") << true;
        QTest::newRow("overwrite 100") << "overwrite" << 100 << 100L << 1 << alarm << true;
        QTest::newRow("overwrite 9") << "overwrite" << 9 << 3L << 2 << QByteArray("(返回状态不可预见)state====")
                                     << true;
        QTest::newRow("append 2") << "append" << 2 << 0L << 3
                                  << QByteArray("DNC内存已满，此笔数据追加成功") << false;
        QTest::newRow("append 3") << "append" << 3 << 3L << 3
                                  << QByteArray("DNC内存已满，此笔数据追加失败") << false;
        QTest::newRow("append 100") << "append" << 100 << 100L << 1 << alarm << true;
    }

    void transferReplies()
    {
        QFETCH(QString, step);
        QFETCH(int, state);
        QFETCH(long, result);
        QFETCH(int, category);
        QFETCH(QByteArray, text);
        QFETCH(bool, held);

        char name[] = "P7";
        // 600 bytes: overwrite 400, then the last chunk of 200 as an append.
        QByteArray program = programText(600);
        long out = -1;
        if (step == "set" || step == "query") {
            m_sim->setReplyState('d', step == "set" ? 1 : 6, state);
            out = m_client->setTransFileType(2, 1, name, step == "query");
            QCOMPARE(m_client->isSetFileOk(), false);
        } else {
            announce(name);
            m_sim->setReplyState('d', step == "overwrite" ? 3 : 2, state);
            out = m_client->overwrite(program.data());
        }
        QCOMPARE(out, result);
        const QList<ErrorReport> got = reports();
        QCOMPARE(got.size(), 1);
        QCOMPARE(got.first().category, category);
        QCOMPARE(got.first().state, state);
        QCOMPARE(got.first().text, text);
        QCOMPARE(m_client->heldElsewhere(), held);
        if (held)
            m_client->release();
    }

    void appendResendsRefusedChunk()
    {
        announce();
        const QByteArray program = programText(1000);
        // The first append finds memory full once; the same chunk goes again.
        m_sim->setFault('d', 2, ControllerSim::Fault::state(3, 1));
        QByteArray copy = program;
        QCOMPARE(m_client->overwrite(copy.data()), 0L);
        const QList<QByteArray> appends = sent('d').mid(1);
        QCOMPARE(appends, (QList<QByteArray>{ textFrame('\x02', program.mid(400, 400)),
                                              textFrame('\x02', program.mid(400, 400)),
                                              textFrame('\x02', program.mid(800)) }));
        QCOMPARE(reports().size(), 1);
        QCOMPARE(reports().first().category, 3);
        QVERIFY(!m_client->heldElsewhere());
    }

    void refusingControllerIsPaced_data()
    {
        QTest::addColumn<QString>("caller");
        QTest::addColumn<QString>("fault");
        QTest::newRow("append to full memory -> at most 100 resends a second") << "append" << "d:2=state:3";
        QTest::newRow("append refused by error replies -> at most 100 resends a second") << "append" << "d:2=error";
        QTest::newRow("thread loop under error replies -> at most 100 polls a second") << "poll" << "B=error";
        QTest::newRow("thread loop under garbage -> at most 100 polls a second") << "poll" << "B=garbage";
    }
    void refusingControllerIsPaced()
    {
        QFETCH(QString, caller);
        QFETCH(QString, fault);
        char letter = 0;
        int sub = -1;
        ControllerSim::Fault refusal;
        QVERIFY(ControllerSim::parseFault(fault, &letter, &sub, &refusal));
        std::thread host;
        long int out = -1;
        if (caller == "append") {
            announce();
            m_sim->setFault(letter, sub, refusal);
            // More than one chunk: a refused chunk is sent again while more follow.
            host = std::thread([&] {
                QByteArray text(1000, 'G');
                out = m_client->append(text.data());
            });
        } else {
            m_client.reset(new OpsClient);
            m_client->setSyncMode(0);
            QVERIFY(m_client->tcpConnect(kSimAddress.toLatin1()));
            m_sim->setFault(letter, sub, refusal);
            long int address = 1000000;
            m_client->registerVars(&address, 1);
        }
        QVERIFY(m_sim->waitForRequests(1, 2000));
        const int before = sent(letter).size();
        QThread::msleep(1000);
        const int inOneSecond = sent(letter).size() - before;
        m_sim->clearFaults();
        if (host.joinable()) {
            host.join();   // the controller takes the chunk now
            QCOMPARE(out, 0L);
        }
        QVERIFY2(inOneSecond <= 100, qPrintable(QString::number(inOneSecond)));
    }

    void threadModeAnnounceRunsAheadOfItsReply()
    {
        // In thread mode the empty overwrite runs before the set-file reply
        // can open the transfer, so a first upload stops there.
        m_client.reset(new OpsClient);
        m_client->setSyncMode(0);
        QVERIFY(m_client->tcpConnect(kSimAddress.toLatin1()));
        char name[] = "P1";
        char text[] = "G0\n";
        QCOMPARE(m_client->uploadFile(0, 1, name, text), 1L);
        QVERIFY(m_sim->waitForRequests(1, 2000));
        QCOMPARE(m_sim->requests().first(), hex("00000000 0800 00 64 01 01 05 5031 00"));
        // The reply opens the transfer afterwards (and is handled before the
        // client goes away).
        QTRY_VERIFY_WITH_TIMEOUT(m_client->isSetFileOk(), 3000);
    }

    void threadModeLinkLostMidTransfer()
    {
        // The controller drops the link at the first append: the chunks
        // behind it can never leave the queue, and the call must say so.
        m_client.reset(new OpsClient);
        m_client->setSyncMode(0);
        QVERIFY(m_client->tcpConnect(kSimAddress.toLatin1()));
        char name[] = "P1";
        QCOMPARE(m_client->setTransFileType(2, 1, name, false), 0L);
        QTRY_VERIFY_WITH_TIMEOUT(m_client->isSetFileOk(), 3000);
        m_sim->setCloseAfter('d', 2, 0);
        QByteArray program = programText(2400);
        QCOMPARE(m_client->overwrite(program.data()), 7L);
        QVERIFY(!m_client->heldElsewhere());
    }

    // ---- Error files

    void errorFile_data()
    {
        QTest::addColumn<long>("selector");
        QTest::addColumn<QByteArray>("content");
        QTest::addColumn<QByteArray>("result");
        QTest::addColumn<QByteArray>("path");   // empty: not opened
        QTest::addColumn<int>("reads");
        QTest::addColumn<bool>("closed");

        const QByteArray text = programText(250);
        QTest::newRow("current of channel 1") << 10L << text << QByteArray("0") + text
                                              << QByteArray("sys0001/error/curError.error") << 4 << true;
        QTest::newRow("history of channel 8") << 81L << QByteArray("E1\n") << QByteArray("0E1\n")
                                              << QByteArray("sys0008/error/hisError.error") << 2 << true;
        QTest::newRow("exactly one piece") << 0L << programText(100) << QByteArray("0") + programText(100)
                                           << QByteArray("sys0000/error/curError.error") << 2 << true;
        QTest::newRow("empty file") << 0L << QByteArray() << QByteArray("0")
                                    << QByteArray("sys0000/error/curError.error") << 1 << false;
        for (long bad : { 2L, 9L, 12L, 90L, -1L })
            QTest::newRow(qPrintable(QStringLiteral("selector %1").arg(bad)))
                << bad << text << QByteArray("9Channel selection error") << QByteArray() << 0 << false;
    }

    void errorFile()
    {
        QFETCH(long, selector);
        QFETCH(QByteArray, content);
        QFETCH(QByteArray, result);
        QFETCH(QByteArray, path);
        QFETCH(int, reads);
        QFETCH(bool, closed);

        if (!path.isEmpty())
            m_sim->setErrorFile(int(selector / 10), selector % 10 == 1, content);
        QCOMPARE(QByteArray(m_client->getCncCurrentError(selector)), result);
        const QList<QByteArray> c = sent('c');
        if (path.isEmpty()) {
            QVERIFY(m_sim->requests().isEmpty());
            return;
        }
        // The hand-over: channel index, then the file kind, then the check.
        const QList<QByteArray> writes = sent('D');
        QCOMPARE(writes.size(), 2);
        QCOMPARE(writes.at(0), hex("00000000 0B00 00 44 01 4BD50100") + le32(qint32(selector / 10)));
        QCOMPARE(writes.at(1), hex("00000000 0B00 00 44 01 4AD50100") + le32(qint32(selector % 10 + 1)));
        QCOMPARE(sent('B'), QList<QByteArray>{ hex("00000000 0700 00 42 01 4AD50100") });
        QCOMPARE(c.value(0), frame("c\x01" + path + '\0'));
        QCOMPARE(c.count(hex("00000000 0400 00 63 02 00")), reads);
        QCOMPARE(c.contains(hex("00000000 0400 00 63 03 00")), closed);
    }

    void errorFileFailures()
    {
        m_sim->setErrorFile(0, false, "E7\n");

        m_sim->setErrorFileStuck(true);
        QCOMPARE(QByteArray(m_client->getCncCurrentError(0)), QByteArray("8timeout get curErrorerror file"));
        QVERIFY(sent('c').isEmpty());
        m_sim->setErrorFileStuck(false);

        // Open refused, and the controller alarm on open (digit of 100).
        m_sim->setReplyState('c', 1, 0);
        QCOMPARE(QByteArray(m_client->getCncCurrentError(0)), QByteArray("3"));
        QCOMPARE(reports().last().text, QByteArray("opening file error."));
        m_sim->setReplyState('c', 1, 100);
        QCOMPARE(QByteArray(m_client->getCncCurrentError(0)), QByteArray("1"));
        m_sim->setErrorReply('c', 1);
        QCOMPARE(QByteArray(m_client->getCncCurrentError(0)), QByteArray("3"));
        m_sim->clearFaults();

        // A refused close after a good read.
        m_sim->setReplyState('c', 3, 0);
        QCOMPARE(QByteArray(m_client->getCncCurrentError(0)), QByteArray("3E7\n"));
        QCOMPARE(reports().last().text, QByteArray("closing file error."));
        m_sim->clearFaults();

        // No reply while reading: '8' (never '0' for an answer not had),
        // and the client is free again for the next call.
        m_sim->setFault('c', 2, ControllerSim::Fault::silence(1));
        QCOMPARE(QByteArray(m_client->getCncCurrentError(0)), QByteArray("8"));
        QVERIFY(!m_client->heldElsewhere());
        QCOMPARE(QByteArray(m_client->getCncCurrentError(0)), QByteArray("0E7\n"));

        // The controller sends pieces without end: the read stops at 64 KiB
        // of text with the digit '5', and the file is closed.
        m_sim->setErrorFile(0, false, QByteArray(70000, 'E'));
        m_sim->clearRequests();
        const QByteArray bounded(m_client->getCncCurrentError(0));
        QCOMPARE(bounded.left(1), QByteArray("5"));
        QCOMPARE(bounded.size(), 1 + 64 * 1024);
        QVERIFY(sent('c').contains(hex("00000000 0400 00 63 03 00")));

        // The link drops in the middle of the hand-over: '7', not '8'.
        m_sim->setFault('B', -1, ControllerSim::Fault::closeAfter(0, 1));
        QCOMPARE(QByteArray(m_client->getCncCurrentError(0)), QByteArray("7SocketDisconnected"));
    }

    void errorFileAlarmWhileReading()
    {
        // A read reply without a piece normally ends the file; with the
        // alarm state in its count byte it gives the digit of 100.
        QList<QByteArray> fileRequests;
        int reads = 0;
        ScriptedController controller([&](const QByteArray &pdu) -> QByteArray {
            switch (pdu.at(0)) {
            case 'D':
                return "D";
            case 'B':
                return hex("42 01 00000000");   // the file is written
            case 'c':
                fileRequests.append(pdu);
                if (pdu.at(1) == 2)
                    return ++reads == 1 ? QByteArray("c\x02\x03" "E1\n") : hex("63 02 64");
                return pdu.left(2) + '\x01';
            default:
                return QByteArray();
            }
        });
        QVERIFY(controller.start());
        OpsClient client;
        QVERIFY(client.tcpConnect(kScriptAddress.toLatin1()));
        QCOMPARE(QByteArray(client.getCncCurrentError(0)), QByteArray("1E1\n"));
        client.tcpDisconnect();
        controller.finish();
        // Open, two reads, and the close that follows something read.
        QCOMPARE(fileRequests.size(), 4);
        QCOMPARE(fileRequests.last(), hex("63 03 00"));
    }

    // ---- Oscilloscope

    void oscilloscope()
    {
        QCOMPARE(m_client->setOscAxis(1, 2, -1), 0L);
        QCOMPARE(sent('i').value(0), hex("00000000 0F00 00 69 01 01000000 02000000 FFFFFFFF"));
        QCOMPARE(m_sim->oscAxes(), (QVector<qint32>{ 1, 2, -1 }));
        QCOMPARE(m_client->setOscTransEn(1), 0L);
        QCOMPARE(sent('i').value(1), hex("00000000 0700 00 69 02 01000000"));
        QCOMPARE(m_sim->oscTransEnable(), 1);

        m_sim->setReplyState('i', 1, 0);
        QCOMPARE(m_client->setOscAxis(1, 2, 3), 3L);
        QCOMPARE(reports().last().text, QByteArray("SetOscAxis error."));
        m_sim->setReplyState('i', 2, 0);
        QCOMPARE(m_client->setOscTransEn(0), 3L);
        QCOMPARE(reports().last().text, QByteArray("SetOscTransEn error."));
    }

    void oscilloscopePoints_data()
    {
        QTest::addColumn<long>("selector");
        QTest::addColumn<int>("count");
        QTest::addColumn<long>("result");
        QTest::addColumn<QVector<long>>("out");
        QTest::addColumn<bool>("sends");

        // A good reply reads as 3: the get-points reply is judged the other
        // way round on purpose.
        QTest::newRow("three points") << 0L << 3 << 3L << QVector<long>{ 10, 20, 30, -7, -7 } << true;
        QTest::newRow("short reply padded") << 3L << 4 << 3L << QVector<long>{ 40, 50, 0, 0, -7 } << true;
        QTest::newRow("no points") << 9L << 2 << 112L << QVector<long>{ -7, -7, -7, -7, -7 } << true;
        QTest::newRow("count 0 builds nothing") << 0L << 0 << 111L << QVector<long>{ -7, -7, -7, -7, -7 } << false;
        QTest::newRow("count above the read limit") << 0L << 65 << 111L << QVector<long>{ -7, -7, -7, -7, -7 }
                                                    << false;
    }

    void oscilloscopePoints()
    {
        QFETCH(long, selector);
        QFETCH(int, count);
        QFETCH(long, result);
        QFETCH(QVector<long>, out);
        QFETCH(bool, sends);

        m_sim->setOscPoints({ 10, 20, 30, 40, 50 });
        QVector<long> buffer(count > 5 ? count : 5, -7);
        QCOMPARE(m_client->getOscPoint(selector, buffer.data(), count), result);
        QCOMPARE(buffer.mid(0, 5), out);
        const QByteArray request = hex("00000000 0B00 00 69 03") + le32(qint32(selector)) + le32(count);
        QCOMPARE(sent('i'), sends ? QList<QByteArray>{ request } : QList<QByteArray>());
    }

    // ---- Link down: every operation answers 7 before looking at anything.

    void linkDown()
    {
        OpsClient idle;
        char name[] = "P1";
        long points[2] = {};
        QCOMPARE(idle.reset(0), 7L);
        QCOMPARE(idle.cycStart(0, nullptr), 7L);
        QCOMPARE(idle.setTransFileType(9, 0, nullptr, false), 7L);
        QCOMPARE(idle.overwrite(name), 7L);
        QCOMPARE(idle.append(name), 7L);
        QCOMPARE(idle.fileEnd(), 7L);
        QCOMPARE(idle.uploadFile(0, 1, name, name), 7L);
        QCOMPARE(idle.setOscAxis(1, 2, 3), 7L);
        QCOMPARE(idle.getOscPoint(0, points, 2), 7L);
        QCOMPARE(QByteArray(idle.getCncCurrentError(99)), QByteArray("7SocketDisconnected"));
        QVERIFY(!idle.heldElsewhere());
    }

    void exchangeOutcomes()
    {
        m_sim->setSilence('f');
        QCOMPARE(m_client->reset(1), 111L);
        QVERIFY(!m_client->heldElsewhere());
        m_sim->clearFaults();
        m_sim->clearRequests();

        // Two frames already wait: the reset is dropped (4) although the
        // exchange of the first waiting frame is answered.
        m_client->queueProbes(2);
        QCOMPARE(m_client->reset(1), 4L);
        QCOMPARE(m_sim->requests(), QList<QByteArray>{ hex("00000000 0200 00 70") });
    }
};

QTEST_GUILESS_MAIN(TestOps)
#include "tst_ops.moc"
