// Every C function that talks to a controller against every fault the
// simulator injects, in one table: what the host gets, within which time,
// and that the controller answers again once it behaves and the host has
// reconnected. Where a call returns with its channel's lock held on
// purpose, the test checks what a host can still do. Simulators on
// 127.0.0.180 (faults) and 127.0.0.181 (a second controller, never faulty).
#include "velmora.h"
#include "velmora_prefixed.h"

#include "ControllerSim.h"
#include "TestSupport.h"

#include <QElapsedTimer>
#include <QtTest>

#include <cstdio>
#include <functional>

namespace {

const char kAddress[] = "127.0.0.180";
const char kOtherAddress[] = "127.0.0.181";
const int kId = 180;
const int kOtherId = 181;
const int kReplyBudgetMs = 3 * 600;   // the three reply waits of one request
const int kErrorFileWaitMs = 500;     // the time a controller gets to write an error file
const int kSlackMs = 1000;

char *text(const char *s) { return const_cast<char *>(s); }

QByteArray status(long int s) { return QByteArray::number(qlonglong(s)); }
QByteArray flag(bool b) { return b ? "true" : "false"; }
QByteArray quoted(const char *s) { return s ? '"' + QByteArray(s) + '"' : QByteArray("null"); }

const struct {
    const char *name;
    ControllerSim::Fault fault;
} kFaults[] = {
    { "silence", ControllerSim::Fault::silence() },
    { "error reply", ControllerSim::Fault::errorReply() },
    { "garbage", ControllerSim::Fault::garbage() },
    { "split reply", ControllerSim::Fault::split() },
    { "reply of 600 bytes", ControllerSim::Fault::oversize(600) },
    { "close mid-operation", ControllerSim::Fault::closeAfter(0) },
    { "controller restart", ControllerSim::Fault::restart(300) },
    { "endless stream", ControllerSim::Fault::stream() },
    { "alarm state 100", ControllerSim::Fault::state(100) },
    { "state 3", ControllerSim::Fault::state(3) },   // memory full, for text requests
};
const int kFaultCount = int(sizeof kFaults / sizeof kFaults[0]);

// getRuningPrg hands status 111 over as the text's only character, 'o'.
// getCncCurrentError's '8' text: the controller did not write the file.
struct Call {
    const char *name;
    const char *letters;   // the commands it sends; the fault goes on each
    int waits;             // reply waits it can spend without an answer
    int fixedMs;           // its other waits
    std::function<void(ControllerSim *)> prepare;
    std::function<QByteArray()> run;
    const char *good;      // the result from a controller that behaves
    // The result under each fault of kFaults, '|' between; a '*' after one
    // says the call returns with its channel's lock held.
    const char *cells;
};

void announce(ControllerSim *) { setTransFileType(2, 1, text("O1"), kId); }

const Call kCalls[] = {
    { "CheckTcpWdt", "p", 1, 0, nullptr, [] { return status(CheckTcpWdt(kId)); }, "0",
      "111|3|111|0|111|111|111|0|0|0" },
    { "getTcpConnectFlag", "B", 1, 0, nullptr, [] { return flag(getTcpConnectFlag(kId)); }, "true",
      "false|true|false|true|false|false|false|true|true|true" },
    { "readVars", "B", 1, 0, nullptr,
      [] {
          long int a = 1000005, v = -1;
          const long int s = readVars(&a, 1, &v, kId);
          return status(s) + (s == 0 ? " " + QByteArray::number(qlonglong(v)) : QByteArray());
      },
      "0 42", "111|3|111|0 42|111|111|111|0 42|0 42|0 42" },
    { "writeVars", "D", 1, 0, nullptr,
      [] {
          long int a = 1000006, v = 7;
          return status(writeVars(&a, 1, &v, kId));
      },
      "0", "111|3|111|0|111|111|111|0|0|0" },
    { "readBits", "B", 1, 0, nullptr,
      [] {
          long int bit = 1, v = -1;
          return status(readBits(1, 0, &bit, 1, &v, kId));
      },
      "0", "111|3|111|0|111|111|111|0|0|0" },
    { "reset", "f", 1, 0, nullptr, [] { return status(reset(1, kId)); }, "0", "111|3|111|0|111|111|111|0|3|3" },
    { "cycStart", "f", 1, 0, [](ControllerSim *sim) { sim->setRunningProgram(1, QByteArray()); },
      [] { return status(cycStart(1, text("O1"), kId)); }, "0", "111|3|111|0|111|111|111|0|3|3" },
    { "getRuningPrg", "g", 1, 0, [](ControllerSim *sim) { sim->setRunningProgram(1, "O9"); },
      [] { return quoted(getRuningPrg(1, kId)); }, "\"O9\"",
      "\"o\"|\"\"|\"o\"|\"O9\"|\"o\"|\"o\"|\"o\"|\"O9\"|\"O9\"|\"O9\"" },
    // Type 0 announces, then empties the file with a second request.
    { "setTransFileType", "d", 1, 0, nullptr, [] { return status(setTransFileType(0, 1, text("O1"), kId)); },
      "0", "111|3|111|0|111|111|111|111|100*|3" },
    { "getTransFileState", "d", 1, 0, nullptr,
      [] { return status(getTransFileState(0, 1, text("O1"), kId)); }, "0", "111|3|111|0|111|111|111|0|100*|3" },
    { "overwrite", "d", 1, 0, announce, [] { return status(overwrite(text("G1\n"), 1, kId)); }, "0",
      "111|3*|111|0|111|111|111|0|100*|4*" },
    // The last chunk refused: 3, not sent again.
    { "append", "d", 1, 0, announce, [] { return status(append(text("G2\n"), 1, kId)); }, "0",
      "111|3|111|0|111|111|111|0|100*|3" },
    // The end-of-file reply's state byte is not read: only an error reply fails it.
    { "fileEnd", "d", 1, 0, nullptr, [] { return status(fileEnd(1, kId)); }, "0", "111|3|111|0|111|111|111|0|0|0" },
    { "uploadFile", "d", 1, 0, nullptr, [] { return status(uploadFile(0, 1, text("O2"), text("G3\n"), kId)); },
      "0", "111|3|111|0|111|111|111|111|100*|3" },
    // Two hand-over writes, the controller's time, a read, then the file.
    { "getCncCurrentError", "DBc", 3, kErrorFileWaitMs, nullptr, [] { return quoted(getCncCurrentError(0, kId)); },
      "\"0E1\n\"",
      "\"8timeout get curErrorerror file\"|\"8timeout get curErrorerror file\"|\"8timeout get curErrorerror file\"|"
      "\"0E1\n\"|\"8timeout get curErrorerror file\"|\"7SocketDisconnected\"|\"7SocketDisconnected\"|"
      "\"8timeout get curErrorerror file\"|\"1\"|\"3\"" },
};
const int kCallCount = int(sizeof kCalls / sizeof kCalls[0]);

} // namespace

class CapiFaults : public QObject
{
    Q_OBJECT

    ScratchDir m_home;
    ControllerSim *m_sim = nullptr;
    ControllerSim *m_other = nullptr;

    bool addAndConnect(int id, const char *address)
    {
        // Two channels: the second one shows that a stuck first one is alone.
        // velmora_connect: a sanitizer runtime linked first has a `connect` too.
        return addTargetCnc(id, 2, text(address), 0) && waitFor([id] { return velmora_connect(id); }, 3000);
    }

    bool othersWork()
    {
        return CheckTcpWdt(kId) == 0 && CheckTcpWdt(kOtherId) == 0;
    }

private slots:
    void initTestCase()
    {
        QVERIFY(m_home.enter());
        m_sim = new ControllerSim(QString::fromLatin1(kAddress));
        m_other = new ControllerSim(QString::fromLatin1(kOtherAddress));
        QVERIFY(m_sim->start());
        QVERIFY(m_other->start());
        m_sim->setVariable(1000005, 42);
        m_sim->addKnownProgram("O1");
        m_sim->setErrorFile(0, false, "E1\n");
        QVERIFY(addAndConnect(kId, kAddress));
        QVERIFY(addAndConnect(kOtherId, kOtherAddress));
        std::printf("fault matrix: %d functions x %d faults = %d cells\n", kCallCount, kFaultCount,
                    kCallCount * kFaultCount);
        std::fflush(stdout);
    }

    void cleanupTestCase()
    {
        removeTargetCnc(kId);
        removeTargetCnc(kOtherId);
        delete m_sim;
        delete m_other;
        m_home.leave();
    }

    void faultMatrix_data()
    {
        QTest::addColumn<int>("call");
        QTest::addColumn<int>("fault");
        QTest::addColumn<QByteArray>("result");
        QTest::addColumn<bool>("locked");
        for (int c = 0; c < kCallCount; ++c) {
            const QList<QByteArray> cells = QByteArray(kCalls[c].cells).split('|');
            QCOMPARE(cells.size(), kFaultCount);
            for (int f = 0; f < kFaultCount; ++f) {
                const bool locked = cells[f].endsWith('*');
                const QByteArray result = locked ? cells[f].chopped(1) : cells[f];
                QTest::newRow(qPrintable(QStringLiteral("%1 x %2 -> %3%4")
                                             .arg(kCalls[c].name, kFaults[f].name,
                                                  QString::fromUtf8(result).replace('\n', "\\n"),
                                                  locked ? ", channel left locked" : "")))
                    << c << f << result << locked;
            }
        }
    }
    void faultMatrix()
    {
        QFETCH(int, call);
        QFETCH(int, fault);
        QFETCH(QByteArray, result);
        QFETCH(bool, locked);
        const Call &c = kCalls[call];
        if (c.prepare)
            c.prepare(m_sim);
        m_sim->clearRequests();
        for (const char *letter = c.letters; *letter; ++letter)
            m_sim->setFault(*letter, -1, kFaults[fault].fault);
        const int boundMs = c.waits * kReplyBudgetMs + c.fixedMs + kSlackMs;

        QElapsedTimer clock;
        clock.start();
        const QByteArray got = c.run();
        const qint64 elapsed = clock.elapsed();
        m_sim->clearFaults();
        QCOMPARE(got, result);
        QVERIFY2(elapsed < boundMs, qPrintable(QStringLiteral("%1 ms").arg(elapsed)));

        if (locked) {
            // The channel stays blocked until the controller is removed; its
            // other channel, the main client and other controllers go on.
            QCOMPARE(getTransFileState(0, 2, text("O1"), kId), 0L);
            QVERIFY(othersWork());
            QVERIFY(removeTargetCnc(kId));
            QVERIFY(addAndConnect(kId, kAddress));
        } else {
            velmora_disconnect(kId);
            QVERIFY(waitFor([] { return velmora_connect(kId); }, 3000));
        }
        if (c.prepare)
            c.prepare(m_sim);
        QCOMPARE(c.run(), QByteArray(c.good));
    }
};

QTEST_GUILESS_MAIN(CapiFaults)
#include "capi_faults.moc"
