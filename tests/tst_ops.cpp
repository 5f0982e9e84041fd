// Controller operations of the client against the simulator (127.0.0.50):
// the bytes each operation sends, its result, what the error callback hears,
// and the paths that leave the client locked on purpose.
#include "AsynchronousClient.h"
#include "ControllerSim.h"
#include "TestSupport.h"

#include <QMutex>
#include <QtTest>

#include <functional>
#include <initializer_list>
#include <memory>
#include <thread>
#include <utility>

using wire::frame;
using wire::hex;

namespace {

const QByteArray kSimAddress("127.0.0.50");

char *t(const char *s) { return const_cast<char *>(s); }

QByteArray textFrame(char sub, const QByteArray &text) { return frame(QByteArray("d") + sub + text + '\0'); }

// Printable 7-bit text whose bytes tell their position apart.
QByteArray programText(int size)
{
    QByteArray text(size, 'x');
    for (int i = 0; i < size; ++i)
        text[i] = char('A' + i % 23);
    return text;
}

// What the error callback heard, as "category/state text".
QMutex g_reportsMutex;
QByteArrayList g_reports;
int recordError(int errorCmd, int cmdState, const char *detail)
{
    QMutexLocker lock(&g_reportsMutex);
    g_reports << QByteArray::number(errorCmd) + '/' + QByteArray::number(cmdState) + ' ' + detail;
    return 0;
}
QByteArrayList takeReports()
{
    QMutexLocker lock(&g_reportsMutex);
    return std::exchange(g_reports, {});
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
        std::thread([&] {
            if ((got = m_mutex.tryLock()))
                m_mutex.unlock();
        }).join();
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

// An operation and what the host gets from it, as text; the results of
// several calls are joined by blanks (OP) or ", " (TEXT), in call order.
using Op = std::function<QByteArray(OpsClient &)>;
using Frames = QList<QByteArray>;
QByteArray joined(std::initializer_list<qlonglong> results)
{
    QByteArrayList texts;
    for (qlonglong r : results)
        texts << QByteArray::number(r);
    return texts.join(' ');
}
#define OP(...) Op([](OpsClient &c) { return joined({ __VA_ARGS__ }); })
#define TEXT(...) Op([](OpsClient &c) { return QByteArrayList{ __VA_ARGS__ }.join(", "); })

// What uploadFile of O200 on channel 1 sends: the announcement (type 0),
// the emptying, the chunks (overwrite, then appends), the end of file.
Frames uploadRequests(const Frames &chunks)
{
    Frames r{ hex("00000000 0A00 00 64 01 01 05 4F323030 00"), hex("00000000 0400 00 64 03 00") };
    for (int i = 0; i < chunks.size(); ++i)
        r << textFrame(i ? '\x02' : '\x03', chunks.at(i));
    return r << hex("00000000 0400 00 64 04 00");
}

// getOscPoint into slots of -7: "result: the first five slots".
Op points(long selector, int count)
{
    return [=](OpsClient &c) {
        QVector<long> out(qMax(count, 5), -7);
        QByteArray r = QByteArray::number(qlonglong(c.getOscPoint(selector, out.data(), count))) + ':';
        for (int i = 0; i < 5; ++i)
            r += ' ' + QByteArray::number(qlonglong(out.at(i)));
        return r;
    };
}

// One error-file read as the controller sees it: the hand-over (channel
// index to 120139, kind to 120138, 120138 read back), the open of `path`
// (none when empty), then 'r' for each read and 'c' for the close.
Frames fileRequests(char index, char kind, const QByteArray &path, const QByteArray &steps)
{
    const QByteArray zeros(3, '\0');
    Frames r{ hex("00000000 0B00 00 44 01 4BD50100") + index + zeros, hex("00000000 0B00 00 44 01 4AD50100") + kind + zeros,
              hex("00000000 0700 00 42 01 4AD50100") };
    if (!path.isEmpty())
        r << frame("c\x01" + path + '\0');
    for (char step : steps)
        r << (step == 'r' ? hex("00000000 0400 00 63 02 00") : hex("00000000 0400 00 63 03 00"));
    return r;
}

void row(const char *name, const char *given, const Op &op, const QByteArray &result, const Frames &sent,
         const QByteArrayList &reports = {}, bool held = false)
{
    QTest::newRow(name) << QString(given) << op << result << sent << reports << held;
}

} // namespace

Q_DECLARE_METATYPE(Op)

class TestOps : public QObject
{
    Q_OBJECT

    ScratchDir m_home;
    std::unique_ptr<ControllerSim> m_sim;
    std::unique_ptr<OpsClient> m_client;

    bool connectClient(bool threadMode)
    {
        m_client = std::make_unique<OpsClient>();
        m_client->setErrCallbackFunc(recordError);
        if (threadMode)
            m_client->setSyncMode(0);
        return m_client->tcpConnect(kSimAddress);
    }

    // The setup a row names, comma-separated: "threads" (a thread-mode
    // client), "announced" (O100 on channel 1 accepted, its request
    // forgotten), "down" (the link closed), "stuck" (the controller never
    // writes its error file), or faults in the simulator's syntax.
    bool setUp(const QString &given)
    {
        for (const QString &item : given.split(',', Qt::SkipEmptyParts)) {
            if (item == "threads" && !connectClient(true))
                return false;
            if (item == "announced") {
                if (m_client->setTransFileType(2, 1, t("O100"), false) != 0
                    || !waitFor([this] { return m_client->isSetFileOk(); }, 3000))
                    return false;
                m_sim->clearRequests();
            }
            if (item == "down")
                m_client->tcpDisconnect();
            if (item == "stuck")
                m_sim->setErrorFileStuck(true);
            if (item.contains('=') && !addFaults(*m_sim, item))
                return false;
        }
        return true;
    }

private slots:
    void initTestCase() { QVERIFY(m_home.enter()); }
    void cleanupTestCase() { m_home.leave(); }

    void init()
    {
        m_sim = std::make_unique<ControllerSim>(QString::fromLatin1(kSimAddress));
        QVERIFY(m_sim->start());
        m_sim->addKnownProgram("O1000");
        m_sim->setRunningProgram(2, "O5678");
        m_sim->setRunningProgram(4, "O1000");
        m_sim->setOscPoints({ 10, 20, 30, 40, 50 });
        const QList<QPair<int, QByteArray>> errorFiles{ { 0, "E7\n" },           { 1, programText(250) },
                                                        { 2, programText(100) }, { 3, "" },
                                                        { 4, QByteArray(70000, 'E') }, { 5, programText(200) } };
        for (const auto &file : errorFiles)
            m_sim->setErrorFile(file.first, false, file.second);
        m_sim->setErrorFile(8, true, "E8\n");
        QVERIFY(connectClient(false));
        takeReports();
    }

    void cleanup()
    {
        m_client.reset();
        m_sim.reset();
    }

    // Every operation: what goes on the wire, what the host gets, what the
    // error callback hears, and whether the client is left locked.
    void operations_data()
    {
        QTest::addColumn<QString>("given");
        QTest::addColumn<Op>("op");
        QTest::addColumn<QByteArray>("result");
        QTest::addColumn<QList<QByteArray>>("sent");
        QTest::addColumn<QByteArrayList>("reports");
        QTest::addColumn<bool>("held");

        const QByteArray reset1 = hex("00000000 0500 00 66 03 01 00"), notExist("8/3 file is not exist.");
        row("reset 0, reset 100 -> 1, nothing sent", "", OP(c.reset(0), c.reset(100)), "1 1", {});
        row("reset answered 1 -> 3, 'parameters error.'", "f:3=state:1", OP(c.reset(1)), "3", { reset1 },
            { "7/1 parameters error." });
        row("reset answered 5 -> 3, 'program is runing.'", "f:3=state:5", OP(c.reset(1)), "3", { reset1 },
            { "7/5 program is runing." });
        row("a full queue -> 4: the waiting frame is exchanged, the reset dropped", "",
            OP((c.queueProbes(2), c.reset(1))), "4", { hex("00000000 0200 00 70") });
        row("start where a program runs -> 3, 'program is runing.'", "", OP(c.cycStart(4, t("O1000"))), "3",
            { hex("00000000 0A00 00 66 04 04 4F31303030 00") }, { "8/2 program is runing." });
        row("start name cut at 100 bytes", "", OP(c.cycStart(3, QByteArray(150, 'N').data())), "3",
            { frame("f\x04\x03" + QByteArray(100, 'N') + '\0') }, { notExist });
        row("start on channel 0, start without a name -> 1, nothing sent", "",
            OP(c.cycStart(0, t("O1000")), c.cycStart(1, nullptr)), "1 1", {});

        const QByteArray asks2 = hex("00000000 0500 00 67 05 32 00"), asks1 = hex("00000000 0500 00 67 05 31 00");
        row("running program of 1 (idle), of 257 (byte 1) -> empty", "", TEXT(c.getRuningPrg(1), c.getRuningPrg(257)),
            ", ", { asks1, asks1 });
        row("running program of 0, 99, the lowest int -> empty, nothing sent", "",
            TEXT(c.getRuningPrg(0), c.getRuningPrg(99), c.getRuningPrg(INT_MIN)), ", , ", {});
        row("running program, error reply -> empty; the next query reads it", "g=error:0:1",
            TEXT(c.getRuningPrg(2), c.getRuningPrg(2)), ", O5678", { asks2, asks2 });
        row("running program, no reply -> 'o' (111 as the text); the next query reads it", "g=silence:0:1",
            TEXT(c.getRuningPrg(2), c.getRuningPrg(2)), "o, O5678", { asks2, asks2 });
        row("thread mode: running program -> read after 200 ms", "threads", TEXT(c.getRuningPrg(2)), "O5678",
            { asks2 });
        row("thread mode: running program, no reply -> 'Unknown'", "threads,g=silence", TEXT(c.getRuningPrg(2)),
            "Unknown", { asks2 });

        // Set-file results with isSetFileOk after them: only an accepted
        // set-file opens the transfer.
        const QByteArray setP7 = hex("00000000 0800 00 64 01 01 03 5037 00"), alarm("1/100 CNC系统执行错误报警");
        row("set file type 1 -> announced, the file emptied", "", OP(c.setTransFileType(1, 1, t("P1"), false),
            c.isSetFileOk()), "0 1", { hex("00000000 0800 00 64 01 01 01 5031 00"), hex("00000000 0400 00 64 03 00") });
        row("set file type 2 -> announced, the file kept", "", OP(c.setTransFileType(2, 1, t("P1"), false),
            c.isSetFileOk()), "0 1", { hex("00000000 0800 00 64 01 01 03 5031 00") });
        row("state query -> 0, the transfer stays closed", "", OP(c.setTransFileType(0, 1, t("P1"), true),
            c.isSetFileOk()), "0 0", { hex("00000000 0800 00 64 06 01 05 5031 00") });
        row("set file of type 3, on channel 0 or 100, without a name -> 1, nothing sent", "",
            OP(c.setTransFileType(3, 1, t("P1"), false), c.setTransFileType(0, 0, t("P1"), false),
               c.setTransFileType(0, 100, t("P1"), false), c.setTransFileType(0, 1, nullptr, false)), "1 1 1 1", {});
        row("upload to a path or without a name, overwrite or append unannounced -> 1, nothing sent", "",
            OP(c.uploadFile(0, 1, t("dir/O1"), t("G0\n")), c.uploadFile(0, 1, nullptr, t("G0\n")),
               c.overwrite(t("G0\n")), c.append(t("G0\n"))), "1 1 1 1", {});
        row("upload without text -> 1 after the announcement", "", OP(c.uploadFile(2, 1, t("O1"), nullptr)), "1",
            { hex("00000000 0800 00 64 01 01 03 4F31 00") });
        const Op setP7Op = OP(c.setTransFileType(2, 1, t("P7"), false), c.isSetFileOk());
        row("set file answered 1 -> 3, 'parameters error.'", "d:1=state:1", setP7Op, "3 0", { setP7 },
            { "1/1 parameters error." });
        row("set file answered 2 -> 3, denied", "d:1=state:2", setP7Op, "3 0", { setP7 },
            { "1/2 target file is been executing.file transmission denied." });
        row("set file answered 100 -> 100, client left locked", "d:1=state:100", setP7Op, "100 0", { setP7 }, { alarm },
            true);
        row("set file answered 7 -> 3, unknown state", "d:1=state:7", setP7Op, "3 0", { setP7 },
            { "1/7 CmdSetFileInf:unknow state. state=7" });
        row("state query answered 7 -> 3, unknown state", "d:6=state:7", OP(c.setTransFileType(2, 1, t("P7"), true)),
            "3", { hex("00000000 0800 00 64 06 01 03 5037 00") }, { "1/7 CmdGetFileTransState:unknow state. state=7" });

        // uploadFile, then isSetFileOk: 400-byte chunks; the text ends at the
        // first byte 0 or with its top bit set; the end of file closes the
        // transfer.
        const QByteArray t1000 = programText(1000);
#define UPLOAD(text) OP(c.uploadFile(0, 1, t("O200"), QByteArray(text).data()), c.isSetFileOk())
        row("upload of 400 -> an empty append after it", "", UPLOAD(programText(400)), "0 0",
            uploadRequests({ programText(400), "" }));
        row("upload of 1000 -> 400, 400, 200", "", UPLOAD(programText(1000)), "0 0",
            uploadRequests({ t1000.left(400), t1000.mid(400, 400), t1000.mid(800) }));
        row("upload, 0xE4 at byte 10 -> ends there", "", UPLOAD(programText(10) + "\xE4" + programText(19)), "0 0",
            uploadRequests({ programText(10) }));
        row("upload, 0x80 in the second chunk -> ends there", "", UPLOAD(programText(420) + "\x80" + programText(29)),
            "0 0", uploadRequests({ t1000.left(400), t1000.mid(400, 20) }));
        row("upload, empty -> an empty overwrite", "", UPLOAD(""), "0 0", uploadRequests({ "" }));
#undef UPLOAD

        const QByteArray overwriteG1 = textFrame('\x03', "G1\n"), appendG2 = textFrame('\x02', "G2\n");
        row("overwrite answered 2 -> 0, written, memory now full", "announced,d:3=state:2", OP(c.overwrite(t("G1\n"))),
            "0", { overwriteG1 }, { "2/2 DNC 内存已满，此笔数据复写成功" });
        row("overwrite answered 3 -> 4, refused, client left locked", "announced,d:3=state:3",
            OP(c.overwrite(t("G1\n"))), "4", { overwriteG1 }, { "2/3 DNC 内存已满，此笔数据复写失败" }, true);
        row("overwrite answered 100 -> 100, client left locked", "announced,d:3=state:100", OP(c.overwrite(t("G1\n"))),
            "100", { overwriteG1 }, { alarm }, true);
        row("overwrite answered 9 -> 3, client left locked", "announced,d:3=state:9", OP(c.overwrite(t("G1\n"))), "3",
            { overwriteG1 }, { "2/9 (返回状态不可预见)state====" }, true);
        row("append answered 2 -> 0, written, memory now full", "announced,d:2=state:2", OP(c.append(t("G2\n"))), "0",
            { appendG2 }, { "3/2 DNC内存已满，此笔数据追加成功" });
        row("last chunk answered 3 -> 3, not sent again", "announced,d:2=state:3", OP(c.append(t("G2\n"))), "3",
            { appendG2 }, { "3/3 DNC内存已满，此笔数据追加失败" });
        row("append answered 100 -> 100, client left locked", "announced,d:2=state:100", OP(c.append(t("G2\n"))),
            "100", { appendG2 }, { alarm }, true);
        row("a refused chunk with more behind it -> sent again", "announced,d:2=state:3:1",
            OP(c.overwrite(programText(1000).data())), "0",
            { textFrame(3, t1000.left(400)), textFrame(2, t1000.mid(400, 400)), textFrame(2, t1000.mid(400, 400)),
              textFrame(2, t1000.mid(800)) },
            { "3/3 DNC内存已满，此笔数据追加失败" });
        row("thread mode: upload -> 1, the emptying runs ahead of the set-file reply", "threads",
            OP(c.uploadFile(0, 1, t("P1"), t("G0\n"))), "1", { hex("00000000 0800 00 64 01 01 05 5031 00") });
        row("thread mode: link lost mid-transfer -> 7, client free", "threads,announced,d:2=close",
            OP(c.overwrite(programText(2400).data())), "7", { textFrame(3, t1000.left(400)), textFrame(2, t1000.mid(400, 400)) });

        // getCncCurrentError: the status digit, then the file.
        const QByteArray cur0("sys0000/error/curError.error");
        row("error file of channel 1 -> '0' and the file, in pieces", "", TEXT(c.getCncCurrentError(10)),
            "0" + programText(250), fileRequests(1, 1, "sys0001/error/curError.error", "rrrrc"));
        row("error history of channel 8 -> '0' and the file", "", TEXT(c.getCncCurrentError(81)), "0E8\n",
            fileRequests(8, 2, "sys0008/error/hisError.error", "rrc"));
        row("error file of exactly one piece", "", TEXT(c.getCncCurrentError(20)), "0" + programText(100),
            fileRequests(2, 1, "sys0002/error/curError.error", "rrc"));
        row("empty error file -> '0' alone, not closed", "", TEXT(c.getCncCurrentError(30)), "0",
            fileRequests(3, 1, "sys0003/error/curError.error", "r"));
        const QByteArray bad("9Channel selection error");
        row("error file selector 2, 9, 12, 90 or -1 -> '9', nothing sent", "",
            TEXT(c.getCncCurrentError(2), c.getCncCurrentError(9), c.getCncCurrentError(12), c.getCncCurrentError(90),
                 c.getCncCurrentError(-1)), QByteArrayList{ bad, bad, bad, bad, bad }.join(", "), {});
        row("error file, link down -> '7' before the selector is looked at", "down", TEXT(c.getCncCurrentError(99)),
            "7SocketDisconnected", {});
        row("error file never written -> '8'", "stuck", TEXT(c.getCncCurrentError(0)),
            "8timeout get curErrorerror file", fileRequests(0, 1, {}, ""));
        row("error file open answered 0 -> '3'", "c:1=state:0", TEXT(c.getCncCurrentError(0)), "3",
            fileRequests(0, 1, cur0, ""), { "1/0 opening file error." });
        row("error file open answered 100 -> '1'", "c:1=state:100", TEXT(c.getCncCurrentError(0)), "1",
            fileRequests(0, 1, cur0, ""));
        row("error file open answered by an error reply -> '3'", "c:1=error", TEXT(c.getCncCurrentError(0)), "3",
            fileRequests(0, 1, cur0, ""));
        row("error file close answered 0 -> '3' and the file", "c:3=state:0", TEXT(c.getCncCurrentError(0)), "3E7\n",
            fileRequests(0, 1, cur0, "rrc"), { "1/0 closing file error." });
        row("error file, no reply to a read -> '8', never '0'", "c:2=silence:0:1", TEXT(c.getCncCurrentError(0)), "8",
            fileRequests(0, 1, cur0, "r"));
        // 656 pieces of 100 reach 64 KiB.
        row("error file without end -> '5', cut at 64 KiB, closed", "", TEXT(c.getCncCurrentError(40)),
            "5" + QByteArray(64 * 1024, 'E'),
            fileRequests(4, 1, "sys0004/error/curError.error", QByteArray(656, 'r') + 'c'));
        // A reply grown past its count carries no piece; its count byte
        // stands as the state, and 100 is the controller's alarm.
        row("error file piece of the wrong size -> dropped, the reading ends", "c:2=oversize:14:1",
            TEXT(c.getCncCurrentError(0)), "0", fileRequests(0, 1, cur0, "r"));
        row("error file count byte 100 without a piece -> '1', closed after what was read",
            "c:2=delay:0:1,c:2=oversize:111:1", TEXT(c.getCncCurrentError(50)), "1" + programText(100),
            fileRequests(5, 1, "sys0005/error/curError.error", "rrc"));

        row("oscilloscope axes 1, 2, -1 -> 0", "", OP(c.setOscAxis(1, 2, -1)), "0",
            { hex("00000000 0F00 00 69 01 01000000 02000000 FFFFFFFF") });
        row("oscilloscope transfer on -> 0", "", OP(c.setOscTransEn(1)), "0", { hex("00000000 0700 00 69 02 01000000") });
        row("oscilloscope axes answered 0 -> 3", "i:1=state:0", OP(c.setOscAxis(1, 2, 3)), "3",
            { hex("00000000 0F00 00 69 01 01000000 02000000 03000000") }, { "1/0 SetOscAxis error." });
        row("oscilloscope transfer switch answered 0 -> 3", "i:2=state:0", OP(c.setOscTransEn(0)), "3",
            { hex("00000000 0700 00 69 02 00000000") }, { "1/0 SetOscTransEn error." });
        // A good get-points reply reads as 3, on purpose; every point held
        // goes out, even past count; a short reply is padded with 0.
        row("three points -> 3 and the points", "", points(0, 3), "3: 10 20 30 -7 -7",
            { hex("00000000 0B00 00 69 03 00000000 03000000") });
        row("two points for four -> padded with 0", "", points(3, 4), "3: 40 50 0 0 -7",
            { hex("00000000 0B00 00 69 03 03000000 04000000") });
        row("no points -> 112, out untouched", "", points(9, 2), "112: -7 -7 -7 -7 -7",
            { hex("00000000 0B00 00 69 03 09000000 02000000") });
        row("0 points -> nothing sent, 111", "", points(0, 0), "111: -7 -7 -7 -7 -7", {});
        row("points beyond the read limit -> nothing sent, 111", "", points(0, 65), "111: -7 -7 -7 -7 -7", {});

        // The link is checked before anything else.
        row("link down: reset 0, set file type 9 on channel 0, overwrite -> 7", "down",
            OP(c.reset(0), c.setTransFileType(9, 0, nullptr, false), c.overwrite(t("G0"))), "7 7 7", {});
        row("link down: oscilloscope points -> 7", "down", points(0, 2), "7: -7 -7 -7 -7 -7", {});
    }

    void operations()
    {
        QFETCH(QString, given);
        QFETCH(Op, op);
        QFETCH(QByteArray, result);
        QFETCH(QList<QByteArray>, sent);
        QFETCH(QByteArrayList, reports);
        QFETCH(bool, held);

        QVERIFY(setUp(given));
        QCOMPARE(op(*m_client), result);
        QVERIFY(m_sim->waitForRequests(sent.size(), 2000));
        QCOMPARE(m_sim->requests(), sent);
        QCOMPARE(takeReports(), reports);
        QCOMPARE(m_client->heldElsewhere(), held);
        if (held)
            m_client->release();
    }

    void refusalsArePaced_data()
    {
        QTest::addColumn<QString>("given");
        QTest::newRow("append to full memory -> at most 100 resends a second") << "announced,d:2=state:3";
        QTest::newRow("append under error replies -> at most 100 resends a second") << "announced,d:2=error";
        QTest::newRow("thread loop under error replies -> at most 100 polls a second") << "threads,B=error";
        QTest::newRow("thread loop under garbage -> at most 100 polls a second") << "threads,B=garbage";
    }
    void refusalsArePaced()
    {
        QFETCH(QString, given);
        QVERIFY(setUp(given));
        const char letter = given.section(',', -1).at(0).toLatin1();
        long out = -1;
        std::thread host;
        long address = 1000000;
        if (given.startsWith("threads"))
            m_client->registerVars(&address, 1);
        else   // more than one chunk: a refused chunk goes again while more follow
            host = std::thread([&] { out = m_client->append(QByteArray(1000, 'G').data()); });
        const bool asked = m_sim->waitForRequests(1, 2000);
        const int before = m_sim->requests(letter).size();
        QThread::msleep(1000);
        const int inOneSecond = m_sim->requests(letter).size() - before;
        m_sim->clearFaults();
        if (host.joinable()) {
            host.join();   // the controller takes the chunk now
            QCOMPARE(out, 0L);
        }
        QVERIFY(asked);
        QVERIFY2(inOneSecond <= 100, qPrintable(QString::number(inOneSecond)));
    }
};

QTEST_GUILESS_MAIN(TestOps)
#include "tst_ops.moc"
