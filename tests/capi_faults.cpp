// Every C function that talks to a controller against every fault the
// simulator injects, in one table: what the host gets, within which time,
// and that the controller answers again once it behaves and the host has
// reconnected. Where a call returns with its channel's lock held on
// purpose, the test checks what a host can still do. Each function has a
// controller of its own (simulators on 127.0.0.220-234), and the functions
// of a fault run at once, each on its own host thread, as a host with many
// controllers calls them; 127.0.0.235 is a second controller, never faulty.
#include "velmora.h"
#include "velmora_prefixed.h"

#include "ControllerSim.h"
#include "TestSupport.h"

#include <QElapsedTimer>
#include <QtTest>

#include <cstdio>
#include <functional>
#include <memory>
#include <thread>
#include <vector>

namespace {

const int kFirstHost = 220;      // 127.0.0.220 + function index; cncID the same number
const char kOtherAddress[] = "127.0.0.235";
const int kOtherId = 235;
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
    std::function<void(ControllerSim *, int)> prepare;
    std::function<QByteArray(int)> run;
    const char *good;      // the result from a controller that behaves
    // The result under each fault of kFaults, '|' between; a '*' after one
    // says the call returns with its channel's lock held.
    const char *cells;
};

void announce(ControllerSim *, int id) { setTransFileType(2, 1, text("O1"), id); }

const Call kCalls[] = {
    { "CheckTcpWdt", "p", 1, 0, nullptr, [](int id) { return status(CheckTcpWdt(id)); }, "0",
      "111|3|111|0|111|111|111|0|0|0" },
    { "getTcpConnectFlag", "B", 1, 0, nullptr, [](int id) { return flag(getTcpConnectFlag(id)); }, "true",
      "false|true|false|true|false|false|false|true|true|true" },
    { "readVars", "B", 1, 0, nullptr,
      [](int id) {
          long int a = 1000005, v = -1;
          const long int s = readVars(&a, 1, &v, id);
          return status(s) + (s == 0 ? " " + QByteArray::number(qlonglong(v)) : QByteArray());
      },
      "0 42", "111|3|111|0 42|111|111|111|0 42|0 42|0 42" },
    { "writeVars", "D", 1, 0, nullptr,
      [](int id) {
          long int a = 1000006, v = 7;
          return status(writeVars(&a, 1, &v, id));
      },
      "0", "111|3|111|0|111|111|111|0|0|0" },
    { "readBits", "B", 1, 0, nullptr,
      [](int id) {
          long int bit = 1, v = -1;
          return status(readBits(1, 0, &bit, 1, &v, id));
      },
      "0", "111|3|111|0|111|111|111|0|0|0" },
    { "reset", "f", 1, 0, nullptr, [](int id) { return status(reset(1, id)); }, "0", "111|3|111|0|111|111|111|0|3|3" },
    { "cycStart", "f", 1, 0, [](ControllerSim *sim, int) { sim->setRunningProgram(1, QByteArray()); },
      [](int id) { return status(cycStart(1, text("O1"), id)); }, "0", "111|3|111|0|111|111|111|0|3|3" },
    { "getRuningPrg", "g", 1, 0, [](ControllerSim *sim, int) { sim->setRunningProgram(1, "O9"); },
      [](int id) { return quoted(getRuningPrg(1, id)); }, "\"O9\"",
      "\"o\"|\"\"|\"o\"|\"O9\"|\"o\"|\"o\"|\"o\"|\"O9\"|\"O9\"|\"O9\"" },
    // Type 0 announces, then empties the file with a second request.
    { "setTransFileType", "d", 1, 0, nullptr, [](int id) { return status(setTransFileType(0, 1, text("O1"), id)); },
      "0", "111|3|111|0|111|111|111|111|100*|3" },
    { "getTransFileState", "d", 1, 0, nullptr,
      [](int id) { return status(getTransFileState(0, 1, text("O1"), id)); }, "0", "111|3|111|0|111|111|111|0|100*|3" },
    { "overwrite", "d", 1, 0, announce, [](int id) { return status(overwrite(text("G1\n"), 1, id)); }, "0",
      "111|3*|111|0|111|111|111|0|100*|4*" },
    // The last chunk refused: 3, not sent again.
    { "append", "d", 1, 0, announce, [](int id) { return status(append(text("G2\n"), 1, id)); }, "0",
      "111|3|111|0|111|111|111|0|100*|3" },
    // The end-of-file reply's state byte is not read: only an error reply fails it.
    { "fileEnd", "d", 1, 0, nullptr, [](int id) { return status(fileEnd(1, id)); }, "0", "111|3|111|0|111|111|111|0|0|0" },
    { "uploadFile", "d", 1, 0, nullptr, [](int id) { return status(uploadFile(0, 1, text("O2"), text("G3\n"), id)); },
      "0", "111|3|111|0|111|111|111|111|100*|3" },
    // Two hand-over writes, the controller's time, a read, then the file.
    { "getCncCurrentError", "DBc", 3, kErrorFileWaitMs, nullptr, [](int id) { return quoted(getCncCurrentError(0, id)); },
      "\"0E1\n\"",
      "\"8timeout get curErrorerror file\"|\"8timeout get curErrorerror file\"|\"8timeout get curErrorerror file\"|"
      "\"0E1\n\"|\"8timeout get curErrorerror file\"|\"7SocketDisconnected\"|\"7SocketDisconnected\"|"
      "\"8timeout get curErrorerror file\"|\"1\"|\"3\"" },
};
const int kCallCount = int(sizeof kCalls / sizeof kCalls[0]);

} // namespace

QByteArray hostAddress(int call) { return "127.0.0." + QByteArray::number(kFirstHost + call); }

class CapiFaults : public QObject
{
    Q_OBJECT

    ScratchDir m_home;
    std::vector<std::unique_ptr<ControllerSim>> m_sims;   // one per function, then the other controller

    bool addAndConnect(int id, const QByteArray &address)
    {
        // Two channels: the second one shows that a stuck first one is alone.
        // velmora_connect: a sanitizer runtime linked first has a `connect` too.
        return addTargetCnc(id, 2, text(address.constData()), 0)
            && waitFor([id] { return velmora_connect(id); }, 3000);
    }

private slots:
    void initTestCase()
    {
        QVERIFY(m_home.enter());
        for (int c = 0; c <= kCallCount; ++c) {
            const bool other = c == kCallCount;
            const QByteArray address = other ? QByteArray(kOtherAddress) : hostAddress(c);
            m_sims.emplace_back(new ControllerSim(QString::fromLatin1(address)));
            ControllerSim *sim = m_sims.back().get();
            QVERIFY(sim->start());
            sim->setVariable(1000005, 42);
            sim->addKnownProgram("O1");
            sim->setErrorFile(0, false, "E1\n");
            QVERIFY(addAndConnect(other ? kOtherId : kFirstHost + c, address));
        }
        std::printf("fault matrix: %d functions x %d faults = %d cells\n", kCallCount, kFaultCount,
                    kCallCount * kFaultCount);
        std::fflush(stdout);
    }

    void cleanupTestCase()
    {
        for (int c = 0; c < kCallCount; ++c)
            removeTargetCnc(kFirstHost + c);
        removeTargetCnc(kOtherId);
        m_sims.clear();
        m_home.leave();
    }

    // One row per fault; its cells are the functions, called at once.
    void faultMatrix_data()
    {
        QTest::addColumn<int>("fault");
        for (int f = 0; f < kFaultCount; ++f)
            QTest::newRow(kFaults[f].name) << f;
    }
    void faultMatrix()
    {
        QFETCH(int, fault);
        struct Cell {
            QByteArray expected, got;
            bool locked = false;
            qint64 elapsed = 0;
        };
        std::vector<Cell> cells(kCallCount);
        std::vector<std::thread> hosts;
        for (int c = 0; c < kCallCount; ++c) {
            const Call &call = kCalls[c];
            const QByteArray cell = QByteArray(call.cells).split('|').value(fault);
            cells[size_t(c)].locked = cell.endsWith('*');
            cells[size_t(c)].expected = cells[size_t(c)].locked ? cell.chopped(1) : cell;
            ControllerSim *sim = m_sims[size_t(c)].get();
            if (call.prepare)
                call.prepare(sim, kFirstHost + c);
            for (const char *letter = call.letters; *letter; ++letter)
                sim->setFault(*letter, -1, kFaults[fault].fault);
            hosts.emplace_back([&call, &cells, c] {
                QElapsedTimer clock;
                clock.start();
                cells[size_t(c)].got = call.run(kFirstHost + c);
                cells[size_t(c)].elapsed = clock.elapsed();
            });
        }
        for (std::thread &host : hosts)
            host.join();
        for (int c = 0; c < kCallCount; ++c) {
            const Call &call = kCalls[c];
            const Cell &cell = cells[size_t(c)];
            m_sims[size_t(c)]->clearFaults();
            const int boundMs = call.waits * kReplyBudgetMs + call.fixedMs + kSlackMs;
            QVERIFY2(cell.got == cell.expected && cell.elapsed < boundMs,
                     qPrintable(QStringLiteral("%1 x %2: got %3 in %4 ms, expected %5%6 within %7 ms")
                                    .arg(call.name, kFaults[fault].name, QString::fromUtf8(cell.got))
                                    .arg(cell.elapsed)
                                    .arg(QString::fromUtf8(cell.expected), cell.locked ? ", channel left locked" : "")
                                    .arg(boundMs)));
        }
        // Registering and removing must not overlap other calls: the host
        // threads are done. A locked channel stays blocked until its
        // controller is removed; the other channel, the main client and
        // other controllers go on.
        for (int c = 0; c < kCallCount; ++c) {
            const Call &call = kCalls[c];
            const int id = kFirstHost + c;
            if (cells[size_t(c)].locked) {
                QCOMPARE(getTransFileState(0, 2, text("O1"), id), 0L);
                QCOMPARE(CheckTcpWdt(id), 0L);
                QCOMPARE(CheckTcpWdt(kOtherId), 0L);
                QVERIFY(removeTargetCnc(id));
                QVERIFY(addAndConnect(id, hostAddress(c)));
            } else {
                velmora_disconnect(id);
                QVERIFY(waitFor([id] { return velmora_connect(id); }, 3000));
            }
            if (call.prepare)
                call.prepare(m_sims[size_t(c)].get(), id);
            QVERIFY2(call.run(id) == call.good, call.name);
        }
    }
};

QTEST_GUILESS_MAIN(CapiFaults)
#include "capi_faults.moc"
