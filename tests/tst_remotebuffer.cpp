// The remote buffer against the simulated controller (127.0.0.70; 127.0.0.89
// has nothing listening): its reply handlers, its flow control under faults,
// the frames it sends and the room it tells the host. The C functions and a
// host without an event loop are capi_ops' part.
#include "HRemoteBuffer.h"
#include "ControllerSim.h"
#include "TestSupport.h"

#include <QtTest>

#include <cstring>
#include <memory>

using wire::frame;
using wire::hex;

namespace {

const int kWaitMs = 5000;
const char kSimAddress[] = "127.0.0.70";

QByteArray appendFrame(const QByteArray &text) { return frame("d\x02" + text + '\0'); }
const QByteArray setFileMdi = hex("00000000 0900 00 6401 01 05 4d444900");
const QByteArray setFileDnc = hex("00000000 0900 00 6401 01 01 444e4300");
const QByteArray overwriteEmpty = hex("00000000 0400 00 640300");
const QByteArray fileEnd = hex("00000000 0400 00 640400");
const QByteArray sendNext = hex("00000000 0400 00 640500");

// 'A'..'Z' repeated, so a piece shows where it was cut from.
QByteArray pattern(int length)
{
    QByteArray text(length, '\0');
    for (int i = 0; i < length; ++i)
        text[i] = char('A' + i % 26);
    return text;
}

// Opened through the class and closed at scope end, so a failed check
// does not leave a thread behind.
struct Buffer {
    HRemoteBuffer *b;
    Buffer(const char *address, int mode) : b(HRemoteBuffer::open(address, unsigned(mode), 1)) {}
    ~Buffer() { HRemoteBuffer::close(b); }
    HRemoteBuffer *operator->() const { return b; }
};

} // namespace

class TestRemoteBuffer : public QObject
{
    Q_OBJECT

    std::unique_ptr<ControllerSim> m_sim;
    std::unique_ptr<Buffer> m_buffer;

    // A buffer on the simulator, idle after its announcement, with the
    // requests so far forgotten.
    bool openIdle(int mode)
    {
        m_buffer = std::make_unique<Buffer>(kSimAddress, mode);
        if (!waitFor([this] { return (*m_buffer)->state() == HRemoteBuffer::StateIdle; }, kWaitMs))
            return false;
        m_sim->clearRequests();
        return true;
    }

private slots:
    void init()
    {
        m_sim = std::make_unique<ControllerSim>(QString::fromLatin1(kSimAddress));
        QVERIFY(m_sim->start());
    }

    // Closed on a thread with an event loop: freed through it.
    void cleanup()
    {
        m_buffer.reset();
        m_sim.reset();
        QTRY_COMPARE_WITH_TIMEOUT(HRemoteBuffer::liveCount(), 0, kWaitMs);
    }

    // Each reply handed straight to the parser of a buffer whose thread has
    // ended (nothing listens there), from state 3 and an empty text.
    void replyHandlers_data()
    {
        QTest::addColumn<QByteArray>("replyPdu");
        QTest::addColumn<int>("state");
        QTest::addColumn<QByteArray>("info");

        QTest::newRow("set file 0") << hex("6401010500") << 0 << QByteArray("SetFileInf Ok");
        QTest::newRow("overwrite 0") << hex("640300") << 0 << QByteArray("OverWriteTxt Ok");
        QTest::newRow("overwrite 3") << hex("640303") << 3 << QByteArray();
        QTest::newRow("append 0") << hex("640200") << 0 << QByteArray("AppendTxt Ok");
        QTest::newRow("append 3") << hex("640203") << 3 << QByteArray();
        // A file-end state 1 and a send-next state 1: traffic's rows.
        QTest::newRow("file end 0") << hex("640400") << 0 << QByteArray("fileEnd Ok");
        QTest::newRow("send next 0") << hex("640500") << 0 << QByteArray("RequestSendNext ok");
        QTest::newRow("send next 2") << hex("640502") << 3 << QByteArray();
    }

    void replyHandlers()
    {
        QFETCH(QByteArray, replyPdu);
        QFETCH(int, state);
        QFETCH(QByteArray, info);

        Buffer buffer("127.0.0.89", HRemoteBuffer::DncMode);
        QTRY_VERIFY_WITH_TIMEOUT(buffer->isFinished(), kWaitMs);
        QCOMPARE(buffer->state(), int(HRemoteBuffer::StateClosed));
        const QByteArray reply = frame(replyPdu);
        std::memcpy(buffer->recvBuffer(), reply.constData(), size_t(reply.size()));
        buffer->parse(reply.size());
        QCOMPARE(buffer->state(), state);
        QCOMPARE(QByteArray(buffer->stateInfo()), info);
    }

    // What the host's writes (a null one clears) send, and the state the
    // buffer settles in. Faults and busy answers ("busy:N" polls answered 1
    // first) come once the buffer is idle; a row without writes has them on
    // the announcement. In states 1, 2 and 4 the last frame goes again and
    // again, at most 100 times a second.
    void traffic_data()
    {
        QTest::addColumn<int>("mode");
        QTest::addColumn<QString>("faults");
        QTest::addColumn<QByteArrayList>("writes");
        QTest::addColumn<int>("state");
        QTest::addColumn<QByteArray>("info");
        QTest::addColumn<QList<QByteArray>>("frames");

        auto row = [](const char *name, int mode, const char *faults, const QByteArrayList &writes, int state,
                      const QByteArray &info, const QList<QByteArray> &frames) {
            QTest::newRow(name) << mode << QString(faults) << writes << state << info << frames;
        };
        const int mdi = HRemoteBuffer::MdiMode, dnc = HRemoteBuffer::DncMode;
        const QByteArray idle("Command queue is empty."), paramError("parameters error."), text = pattern(1000);
        const QByteArrayList none, g1x1{ "G1X1" }, clear{ QByteArray() };
        const QByteArray appendG1X1 = appendFrame("G1X1");
        row("set file answered 1 -> 4, announced again", mdi, "d:1=state:1", none, 4, paramError, { setFileMdi });
        row("set file denied -> 2, announced again", dnc, "d:1=state:2", none, 2,
            "target file is been executing.file transmission denied.", { setFileDnc });
        row("set file answered 9 -> 4, announced again", mdi, "d:1=state:9", none, 4,
            "CmdSetFileInf:unknow state. state=9", { setFileMdi });
        row("append answered 1 -> 4, resent", dnc, "d:2=state:1", g1x1, 4, paramError, { appendG1X1 });
        row("append busy -> 1, polled with send-next", dnc, "d:2=state:2,d:5=state:1", g1x1, 1, idle,
            { appendG1X1, sendNext });
        row("clear, overwrite busy -> 1, 'Cnc Busy', polled", dnc, "d:3=state:2,d:5=state:1", clear, 1, "Cnc Busy",
            { setFileDnc, overwriteEmpty, sendNext });
        row("clear, overwrite answered 1 -> 4, resent", mdi, "d:3=state:1", clear, 4, paramError,
            { setFileMdi, overwriteEmpty });
        row("file end answered 1 -> counts as done", mdi, "d:4=state:1", g1x1, 5, idle, { appendG1X1, fileEnd });
        row("error reply -> not resent", dnc, "d:2=error", g1x1, 5, idle, { appendG1X1 });
        row("no reply -> not waited for again", dnc, "d:2=silence", g1x1, 5, idle, { appendG1X1 });
        row("connection closed -> 3, writes refused", dnc, "d:2=close", g1x1, 3, idle, { appendG1X1 });
        // Pieces of 480 bytes; one of exactly 480 builds nothing.
        row("MDI 1000 -> the 40-byte tail and the end of file", mdi, "", { text }, 5, idle,
            { appendFrame(text.mid(960)), fileEnd });
        row("DNC 959 -> the second piece of 479", dnc, "", { text.left(959) }, 5, idle,
            { appendFrame(text.mid(480, 479)) });
        row("DNC 481 -> the second piece of 1", dnc, "", { text.left(481) }, 5, idle,
            { appendFrame(text.mid(480, 1)) });
        row("MDI 479 -> one piece and the end of file", mdi, "", { text.left(479) }, 5, idle,
            { appendFrame(text.left(479)), fileEnd });
        // The busy answer comes late, so the second write finds the buffer
        // still working.
        row("busy append -> send-next until answered 0, then the next append", dnc, "busy:2,d:2=delay:300:1",
            { "N10 G1 X5\n", "N20 M30\n" }, 5, idle,
            { appendFrame("N10 G1 X5\n"), sendNext, sendNext, sendNext, appendFrame("N20 M30\n") });
        // The reply wait ends with the first bytes and what came is parsed:
        // half a busy answer is too short to read; its tail is dropped with
        // the next exchange.
        row("busy answer split in two -> not read, no polling", dnc, "busy:1,d:2=split:300:1",
            { "N1\n", "N2\n", "N3\n" }, 5, idle, { appendFrame("N1\n"), appendFrame("N2\n"), appendFrame("N3\n") });
    }

    void traffic()
    {
        QFETCH(int, mode);
        QFETCH(QString, faults);
        QFETCH(QByteArrayList, writes);
        QFETCH(int, state);
        QFETCH(QByteArray, info);
        QFETCH(QList<QByteArray>, frames);

        auto setUpFaults = [&] {
            QStringList items = faults.split(',', Qt::SkipEmptyParts);
            if (!items.isEmpty() && items.first().startsWith("busy:"))
                m_sim->setBusyReplies(1, items.takeFirst().mid(5).toInt());
            return addFaults(*m_sim, items.join(','));
        };
        if (writes.isEmpty()) {
            QVERIFY(setUpFaults());
            m_buffer = std::make_unique<Buffer>(kSimAddress, mode);
        } else {
            QVERIFY(openIdle(mode));
            QVERIFY(setUpFaults());
            for (const QByteArray &text : writes)
                QCOMPARE(text.isNull() ? (*m_buffer)->clear() : (*m_buffer)->write(text.constData()), 1);
        }
        HRemoteBuffer *buffer = m_buffer->b;
        QTRY_COMPARE_WITH_TIMEOUT(buffer->state(), state, kWaitMs);
        const int last = frames.size() - 1;
        if (state == HRemoteBuffer::StateBusy || state == HRemoteBuffer::StateAnnounce
            || state == HRemoteBuffer::StateError) {
            QTRY_VERIFY_WITH_TIMEOUT(m_sim->requests().count(frames.last()) >= 3, kWaitMs);
            const int before = m_sim->requests().size();
            QThread::msleep(500);
            const QList<QByteArray> sent = m_sim->requests();
            QVERIFY2(sent.size() - before >= 2 && sent.size() - before <= 50, qPrintable(QString::number(sent.size())));
            QCOMPARE(sent.mid(0, last), frames.mid(0, last));
            QCOMPARE(sent.mid(last).count(frames.last()), sent.size() - last);
        } else {
            QVERIFY(m_sim->waitForRequests(frames.size(), kWaitMs));
            QCOMPARE(m_sim->requests(), frames);
        }
        QCOMPARE(QByteArray(buffer->stateInfo()), info);
        // Writes and clears are taken only in states 0 and 5.
        const bool open = state == HRemoteBuffer::StateWorking || state == HRemoteBuffer::StateIdle;
        QCOMPARE(buffer->clear(), open ? 1 : 0);
        QCOMPARE(buffer->write("G0"), open ? 1 : 0);
        QCOMPARE(buffer->validCount() > 0, open);
    }

    // MDI room is the host's own count of bytes written: the appends go
    // unanswered so the buffer stays working while it counts.
    void mdiRoomAndLimit()
    {
        QVERIFY(openIdle(HRemoteBuffer::MdiMode));
        HRemoteBuffer *buffer = m_buffer->b;
        QCOMPARE(buffer->validCount(), 102400);
        m_sim->setSilence('d', 2);
        QCOMPARE(buffer->write(pattern(1000).constData()), 1);
        QCOMPARE(buffer->validCount(), 101400);
        QCOMPARE(buffer->write(pattern(101400).constData()), 1);
        QCOMPARE(buffer->validCount(), 0);
        // Exactly at the limit is not over it: the write that crosses is taken.
        QCOMPARE(buffer->write("X"), 1);
        QCOMPARE(buffer->bytesWritten(), qint64(102401));
        QCOMPARE(buffer->validCount(), 0);
        QCOMPARE(buffer->write("Y"), 0);
        QCOMPARE(buffer->clear(), 1);
        QCOMPARE(buffer->validCount(), 102400);
        QCOMPARE(buffer->write("Y"), 1);
        QCOMPARE(buffer->validCount(), 102399);
    }

    // DNC room: 480 bytes for each of 1000 queue places.
    void dncRoomAndLimit()
    {
        QVERIFY(openIdle(HRemoteBuffer::DncMode));
        HRemoteBuffer *buffer = m_buffer->b;
        QCOMPARE(buffer->validCount(), 480000);
        m_sim->setSilence('d', 2);
        // The thread takes the first write and waits 500 ms for its reply.
        QCOMPARE(buffer->write("a"), 1);
        QVERIFY(m_sim->waitForRequests(1, kWaitMs));
        for (int i = 0; i < 5; ++i)
            QCOMPARE(buffer->write("b"), 1);
        // Five queued; a sixth in flight only if the wait ran out meanwhile.
        const int room = buffer->validCount();
        QVERIFY2(room == 995 * 480 || room == 996 * 480, qPrintable(QString::number(room)));
        // A write of 1000 pieces queues 1000 requests; room never goes negative.
        QCOMPARE(buffer->write(pattern(1000 * 479).constData()), 1);
        QCOMPARE(buffer->validCount(), 0);
        QVERIFY(buffer->queued() > 1000);
        QCOMPARE(buffer->write("c"), 0);
        // Clearing leaves the announcement and the emptying overwrite.
        m_sim->setSilence('d');
        QCOMPARE(buffer->clear(), 1);
        const int cleared = buffer->validCount();
        QVERIFY2(cleared == 998 * 480 || cleared == 999 * 480, qPrintable(QString::number(cleared)));
    }
};

QTEST_GUILESS_MAIN(TestRemoteBuffer)
#include "tst_remotebuffer.moc"
