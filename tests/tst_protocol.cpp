// The protocol layer alone: every frame a builder writes, byte for byte, and
// what the parser hands on for every reply. No socket, no thread.
#include "../link/HProtocol_Client.h"
#include "TestSupport.h"

#include <QElapsedTimer>
#include <QStringList>
#include <QtTest>

#include <array>
#include <climits>
#include <cstring>
#include <functional>

using wire::hex;
using wire::frame;

typedef std::function<int(HProtocol_Client &)> Build;
Q_DECLARE_METATYPE(Build)

// Builder calls as table cells; a sum of calls builds nothing only when
// none of them does.
#define CALL(expr) Build([=](HProtocol_Client &c) { return c.expr; })
#define CALLS(sum) Build([=](HProtocol_Client &c) { return sum; })

namespace {

QStringList g_calls;

QString joined(const qint32 *values, int count)
{
    QStringList parts;
    for (int i = 0; values && i < count; ++i)
        parts << QString::number(values[i]);
    return '[' + parts.join(',') + ']';
}

// Records what the parser hands on into g_calls: the eleven reply kinds that
// have callbacks through them (set, they replace the handlers, which the
// client overrides and its tests see), the others through their handlers.
// The send buffer starts as 0xAA: a byte a builder leaves unwritten shows.
class RecordingClient : public HProtocol_Client
{
public:
    explicit RecordingClient(int mode = TcpMode, bool bigEndian = false)
        : HProtocol_Client(nullptr, nullptr, mode)
    {
        send.fill(0xAA);
        setBuffers(send.data(), recv.data());
        setBigEndian(bigEndian);
        readVarsCallback = [](int error, const qint32 *values, int count) {
            g_calls << QString("readVars(%1,%2,%3)").arg(error).arg(joined(values, count)).arg(count);
        };
#define RECORD(member, name) member = [](int state) { record(name, state); }
        RECORD(writeVarsCallback, "writeVars");
        RECORD(resetCallback, "reset");
        RECORD(cycStartCallback, "cycStart");
        RECORD(setFileInfCallback, "setFileInf");
        RECORD(appendTxtCallback, "appendTxt");
        RECORD(overWriteTxtCallback, "overWriteTxt");
        RECORD(fileEndCallback, "fileEnd");
        RECORD(requestSendNextCallback, "requestSendNext");
        RECORD(fileTransStateCallback, "fileTransState");
        RECORD(watchdogCallback, "watchdog");
#undef RECORD
    }
    // The reply in the receive buffer, the rest of it filled with `fill`:
    // "result, what the parser handed on, reply state".
    QString parseReply(const QByteArray &reply, quint8 fill = 0x00)
    {
        recv.fill(fill);
        memcpy(recv.data(), reply.constData(), size_t(qMin(reply.size(), int(recv.size()))));
        g_calls.clear();
        const int result = parse(reply.size());
        return QString("%1 %2 %3").arg(result).arg(g_calls.isEmpty() ? "-" : g_calls.join(' ')).arg(replyState());
    }

    std::array<quint8, kBufferSize> send;
    std::array<quint8, kBufferSize> recv;

protected:
    void onRecCmdF5(int state) override { record("f5", state); }
    void onRecCmdOpenReadFile(int state) override { record("openReadFile", state); }
    void onRecCmdReadFile(const quint8 *data, int size) override
    {
        // Only the bytes the reply really holds, from the pointer handed on.
        const QByteArray bytes(reinterpret_cast<const char *>(data), qMax(0, size - int(data - recv.data())));
        g_calls << QString("readFile(%1,%2)").arg(QString(bytes.toHex())).arg(size);
    }
    void onRecCmdCloseReadFile(int state) override { record("closeReadFile", state); }
    void onRecCmdGetStr(int selector, const char *text, int length) override
    {
        g_calls << QString("getStr(%1,%2)").arg(selector).arg(QString::fromLatin1(text, length));
    }
    void onRecCmdSetOscAxis(int state) override { record("setOscAxis", state); }
    void onRecCmdSetOscTransEn(int state) override { record("setOscTransEn", state); }
    void onRecCmdGetOscPoint(int state, const qint32 *points, int count) override
    {
        g_calls << QString("getOscPoint(%1,%2,%3)").arg(state).arg(joined(points, count)).arg(count);
    }
    void onRecUnknownCmd(int letter) override { record("unknown", letter); }

private:
    static void record(const char *name, int value) { g_calls << QString("%1(%2)").arg(name).arg(value); }
};

// The 'B' PDU reading addresses 0 .. count-1.
QByteArray readRange(int count)
{
    QByteArray pdu = hex("42") + char(count);
    for (int i = 0; i < count; ++i)
        pdu += char(i) + QByteArray(3, '\0');
    return pdu;
}

} // namespace

class tst_Protocol : public QObject
{
    Q_OBJECT

private slots:
    // The frame a builder writes; none: the builder refuses (returns 0).
    // Mode 0 TCP, 1 serial, anything else the extended framing.
    void frames_data()
    {
        QTest::addColumn<int>("mode");
        QTest::addColumn<bool>("bigEndian");
        QTest::addColumn<Build>("build");
        QTest::addColumn<QByteArray>("bytes");
        auto row = [](const char *name, const Build &build, const QByteArray &bytes, int mode = 0, bool be = false) {
            QTest::newRow(name) << mode << be << build << bytes;
        };
        auto refused = [&](const char *name, const Build &build, int mode = 0) { row(name, build, {}, mode); };
        const QByteArray name150(150, 'N'), text479(479, 'a'), text480(480, 'b'), text600(600, 'c');
        static const qint32 good[] = { 1, 2 }, bad[] = { 1, 170000 }, many[70] = {};
        static const qint32 spread[] = { 0x12345, 169999, 1169999 }, pairs[] = { 1000001, 2 };
        static const qint32 words[] = { -1, 0x01020304 };

        row("p", CALL(buildWatchdog()), hex("00000000 0200 00 70"));
        row("B range", CALL(buildReadVars(1000000, 3)), hex("00000000 0f00 00 42 03 40420f00 41420f00 42420f00"));
        row("B of 64, 265 bytes", CALL(buildReadVars(0, 64)), frame(readRange(64)));
        row("B array", CALL(buildReadVars(spread, 3)), hex("00000000 0f00 00 42 03 45230100 0f980200 4fda1100"));
        row("B list", CALL(buildReadVars(QList<qint32>() << 1020300 << 5)), hex("00000000 0b00 00 42 02 8c910f00 05000000"));
        row("D", CALL(buildWriteVars(pairs, words, 2)), hex("00000000 1300 00 44 02 41420f00 ffffffff 02000000 04030201"));
        row("d1 type 2 -> 3", CALL(buildSetFileInf(2, 2, "O1234")), hex("00000000 0b00 00 64 01 02 03 4f31323334 00"));
        row("d1 type 1 -> 1", CALL(buildSetFileInf(1, 1, "D")), hex("00000000 0700 00 64 01 01 01 44 00"));
        row("d1 type 3 -> 4", CALL(buildSetFileInf(1, 3, "D")), hex("00000000 0700 00 64 01 01 04 44 00"));
        row("d1 type 0 -> 5", CALL(buildSetFileInf(1, 0, "MDI")), hex("00000000 0900 00 64 01 01 05 4d4449 00"));
        row("d6 ask", CALL(buildSetFileInf(7, 4, "A", true)), hex("00000000 0700 00 64 06 07 05 41 00"));
        row("d1 name cut at 100", CALL(buildSetFileInf(1, 1, name150.constData())),
            frame(hex("64 01 01 01") + QByteArray(100, 'N') + hex("00")));
        row("d2 text", CALL(buildAppendTxt("G01 X1")), hex("00000000 0a00 00 64 02 473031205831 00"));
        row("d2 text stops at a top bit", CALL(buildAppendTxt("ABCDEFGHIJKLMNOPQRSTU\x80" "CD")),
            hex("00000000 1900 00 64 02 4142434445464748494a4b4c4d4e4f505152535455 00"));
        row("d2 479 bytes", CALL(buildAppendTxt(text479.constData())), frame(hex("64 02") + text479 + hex("00")));
        row("d3 longer text cut at 481", CALL(buildOverWriteTxt(text600.constData())),
            frame(hex("64 03") + QByteArray(481, 'c') + hex("00")));
        row("d3 explicit 480", CALL(buildOverWriteTxt(text600.constData(), 480)),
            frame(hex("64 03") + QByteArray(480, 'c') + hex("00")));
        row("d2 explicit 0", CALL(buildAppendTxt("xyz", 0)), hex("00000000 0400 00 64 02 00"));
        row("d3 explicit shorter than text", CALL(buildOverWriteTxt("xyz", 2)), hex("00000000 0600 00 64 03 7879 00"));
        row("d3 explicit stops at zero", CALL(buildOverWriteTxt("x\0z", 3)), hex("00000000 0500 00 64 03 78 00"));
        row("d4", CALL(buildFileEnd()), hex("00000000 0400 00 64 04 00"));
        row("d5", CALL(buildRequestSendNext()), hex("00000000 0400 00 64 05 00"));
        row("c1", CALL(buildOpenReadFile("sys0000/error/curError.error")),
            frame(hex("63 01") + QByteArray("sys0000/error/curError.error") + hex("00")));
        row("c2", CALL(buildReadFile()), hex("00000000 0400 00 63 02 00"));
        row("c3", CALL(buildCloseReadFile()), hex("00000000 0400 00 63 03 00"));
        row("f3", CALL(buildReset(1)), hex("00000000 0500 00 66 03 01 00"));
        row("f4", CALL(buildCycStart(2, "O100")), hex("00000000 0900 00 66 04 02 4f313030 00"));
        row("f4 name cut at non-ASCII", CALL(buildCycStart(1, "AB\xC3\xA4")), hex("00000000 0700 00 66 04 01 4142 00"));
        row("f5 raw bytes", CALL(buildF5(7, "\x00\xff\x80", 3)), hex("00000000 0800 00 66 05 07 00ff80 00"));
        const char *subs[] = { "01", "02", "03", "04", "05", "90", "aa" };
        for (int s = 0; s <= 6; ++s)   // selector 6 leaves the sub byte unwritten
            row(qPrintable(QString("g selector %1 -> sub %2").arg(s).arg(subs[s])), CALL(buildGetStr(s, "x")),
                hex((QByteArray("00000000 0500 00 67 ") + subs[s] + " 78 00").constData()));
        row("i1", CALL(buildSetOscAxis(1, -2, 0x01020304)), hex("00000000 0f00 00 69 01 01000000 feffffff 04030201"));
        row("i2", CALL(buildSetOscTransEn(1)), hex("00000000 0700 00 69 02 01000000"));
        row("i3", CALL(buildGetOscPoint(3, 64)), hex("00000000 0b00 00 69 03 03000000 40000000"));
        row("big-endian D", CALL(buildWriteVars(pairs, words, 1)), hex("00000000 000b 00 44 01 000f4241 ffffffff"), 0, true);
        row("serial p, CRC low byte first", CALL(buildWatchdog()), hex("70 bea4"), 1);
        row("serial big-endian p", CALL(buildWatchdog()), hex("70 a4be"), 1, true);
        row("serial B of 63", CALL(buildReadVars(0, 63)), readRange(63) + hex("79b0"), 1);
        row("extended B of 124, the bare PDU", CALL(buildReadVars(0, 124)), readRange(124), -1);

        refused("B: count 0, 65 or -1", CALLS(c.buildReadVars(0, 0) + c.buildReadVars(0, 65) + c.buildReadVars(0, -1)));
        refused("B serial: count 64", CALL(buildReadVars(0, 64)), 1);
        refused("B extended: count 125", CALL(buildReadVars(0, 125)), 2);
        refused("B: an address off the rule", Build([](HProtocol_Client &c) {
                    int built = c.buildReadVars(169999, 2) + c.buildReadVars(9169990, 64);
                    for (qint32 address : { 170000, 999999, 9999999, 10000000, -1, INT_MIN })
                        built += c.buildReadVars(address, 1) + c.buildReadVars(&address, 1);
                    return built + c.buildReadVars(QList<qint32>() << 5 << 10000000);
                }));
        refused("B: null, count 0 or 65, an empty list",
                CALLS(c.buildReadVars(nullptr, 1) + c.buildReadVars(good, 0) + c.buildReadVars(many, 65)
                      + c.buildReadVars(QList<qint32>())));
        refused("D: count 0 or 32, null arrays, an address off the rule",
                CALLS(c.buildWriteVars(good, good, 0) + c.buildWriteVars(many, many, 32)
                      + c.buildWriteVars(nullptr, good, 1) + c.buildWriteVars(good, nullptr, 1)
                      + c.buildWriteVars(bad, good, 2)));
        refused("null names, texts and data",
                CALLS(c.buildSetFileInf(1, 1, nullptr) + c.buildAppendTxt(nullptr) + c.buildOverWriteTxt(nullptr, 1)
                      + c.buildOpenReadFile(nullptr) + c.buildCycStart(1, nullptr) + c.buildF5(1, nullptr, 3)
                      + c.buildGetStr(4, nullptr)));
        refused("d2, d3: a text of exactly 480, however given",
                CALLS(c.buildAppendTxt(text480.constData()) + c.buildOverWriteTxt(text480.constData())
                      + c.buildAppendTxt((text480 + "\xC3\xA4xyz").constData())
                      + c.buildAppendTxt(text480.constData(), 480)));
        refused("d2, d3: an explicit length above 480 or negative",
                CALLS(c.buildAppendTxt((text480 + "x").constData(), 481)
                      + c.buildOverWriteTxt((text480 + "x").constData(), 481) + c.buildOverWriteTxt("x", -1)));
        refused("f5: a negative length or more than fits",
                CALLS(c.buildF5(1, "x", -1) + c.buildF5(1, QByteArray(600, '\0').constData(), 600)));
        refused("g: a negative selector", CALL(buildGetStr(-1, "x")));
        refused("i3: count 0 or 65", CALLS(c.buildGetOscPoint(1, 0) + c.buildGetOscPoint(1, 65)));
        refused("no send buffer", Build([](HProtocol_Client &c) {
                    c.setBuffers(nullptr, nullptr);
                    return c.buildWatchdog() + c.buildFileEnd() + c.buildReset(1) + c.buildReadVars(0, 1)
                        + c.buildSetOscTransEn(1) + c.buildAppendTxt("x");
                }));
    }
    void frames()
    {
        QFETCH(int, mode);
        QFETCH(bool, bigEndian);
        QFETCH(Build, build);
        QFETCH(QByteArray, bytes);
        RecordingClient client(mode, bigEndian);
        const int length = build(client);
        QCOMPARE(length, bytes.size());
        QCOMPARE(QByteArray(reinterpret_cast<const char *>(client.send.data()), length).toHex(' '), bytes.toHex(' '));
    }

    // The send-next request paces the buffer: its builder sleeps 50 ms.
    void sendNextWaits()
    {
        RecordingClient client;
        QElapsedTimer timer;
        timer.start();
        QVERIFY(client.buildRequestSendNext() > 0);
        QVERIFY(timer.elapsed() >= 50);
    }

    // What a reply gives: "parse result, what was handed on, reply state";
    // the state is 55 before (kept when the reply does not set it).
    void parse_data()
    {
        QTest::addColumn<int>("mode");
        QTest::addColumn<bool>("bigEndian");
        QTest::addColumn<QByteArray>("reply");
        QTest::addColumn<QString>("parsed");
        auto row = [](const char *name, const QByteArray &reply, const char *parsed, int mode = 0, bool be = false) {
            QTest::newRow(name) << mode << be << reply << QString(parsed);
        };
        auto pdu = [&](const char *name, const char *pdu, const char *parsed) { row(name, frame(hex(pdu)), parsed); };
        pdu("B values", "42 02 05000000 ffffffff", "0 readVars(0,[5,-1],2) 0");
        pdu("B count above the values present", "42 05 01000000 020000", "0 readVars(0,[1],1) 0");
        pdu("B negative count", "42 ff 01000000", "0 readVars(0,[],0) 0");
        pdu("B error", "c2 01", "1 readVars(1,[],0) 1");
        pdu("D", "44 01", "0 writeVars(0) 0");
        pdu("D error", "c4 01", "2 writeVars(1) 1");
        pdu("d error", "e4 02", "3 - 55");
        pdu("f error", "e6 01", "4 - 55");
        pdu("f3 reset, signed state", "66 03 01 ff", "0 reset(-1) -1");
        pdu("f3 without state", "66 03 01", "5 - 55");
        pdu("f4 cycle start", "66 04 01 03", "0 cycStart(3) 55");
        pdu("f5", "66 05 00 00", "0 f5(0) 55");
        pdu("f other sub", "66 09", "0 - 55");
        pdu("c1 open", "63 01 01", "0 openReadFile(1) 55");
        pdu("c2 data", "63 02 03 414243", "0 readFile(03414243,13) 55");
        pdu("c2 without count", "63 02", "5 - 55");
        pdu("c3 close", "63 03 00", "0 closeReadFile(0) 55");
        pdu("c other sub", "63 07", "0 - 55");
        pdu("d1 set file", "64 01 01 01 02", "0 setFileInf(2) 2");
        pdu("d1 short", "64 01 01 01", "5 - 55");
        pdu("d2 append", "64 02 03", "0 appendTxt(3) 3");
        pdu("d3 overwrite", "64 03 00", "0 overWriteTxt(0) 0");
        pdu("d4 file end", "64 04", "0 fileEnd(0) 0");
        pdu("d5 busy", "64 05 01", "7 requestSendNext(1) 1");
        pdu("d5 denied", "64 05 02", "8 requestSendNext(2) 2");
        pdu("d5 alarm", "64 05 64", "0 requestSendNext(100) 100");
        pdu("d6 file state", "64 06 01 01 64", "0 fileTransState(100) 100");
        pdu("d sub 7", "64 07 00 00 00", "5 - 55");
        pdu("d without sub", "64", "5 - 55");
        pdu("g4 program", "67 04 4f31323334", "0 getStr(3,O1234) 55");
        pdu("g1 empty", "67 01", "0 getStr(0,) 55");
        pdu("gF0 -> selector 5", "67 f0 6162", "0 getStr(5,ab) 55");
        pdu("g other sub", "67 90 6162", "0 - 55");
        pdu("i1", "69 01 01", "0 setOscAxis(1) 55");
        pdu("i2", "69 02 00", "0 setOscTransEn(0) 55");
        pdu("i3 points", "69 03 01 02 0a000000 f6ffffff", "0 getOscPoint(1,[10,-10],2) 55");
        pdu("i3 no points", "69 03 01 00", "0 getOscPoint(1,[],0) 55");
        pdu("i3 count above the points present", "69 03 01 7f 0a000000", "0 getOscPoint(1,[10],1) 55");
        pdu("i other sub", "69 09 01", "0 - 55");
        pdu("p signed", "70 fe", "0 watchdog(-2) 55");
        pdu("p without state", "70", "5 - 55");
        pdu("unknown letter", "41 00", "5 unknown(65) 55");
        pdu("unknown error letter", "e3 00", "5 unknown(227) 55");
        row("header only", hex("00000000 0100 00"), "5 - 55");
        row("empty", QByteArray(), "5 - 55");
        row("500 bytes -> not parsed", frame(hex("70 00") + QByteArray(491, '\0')), "5 - 55");
        row("499 bytes", frame(hex("70 00") + QByteArray(490, '\0')), "0 watchdog(0) 55");
        row("big-endian B", frame(hex("42 02 00012345 fffffffe")), "0 readVars(0,[74565,-2],2) 0", 0, true);
        row("serial B", hex("42 02 05000000 ffffffff 0bd2"), "0 readVars(0,[5,-1],2) 0", 1);
        row("serial CRC mismatch", hex("42 02 05000000 fffffffe 0bd2"), "6 - 55", 1);
        row("serial big-endian CRC", hex("70 00 7024"), "0 watchdog(0) 55", 1, true);
        row("serial big-endian CRC swapped", hex("70 00 2470"), "6 - 55", 1, true);
        row("serial two bytes, no CRC", hex("70 03"), "0 watchdog(3) 55", 1);
        row("extended p, no CRC", hex("70 03"), "0 watchdog(3) 55", 2);
    }
    void parse()
    {
        QFETCH(int, mode);
        QFETCH(bool, bigEndian);
        QFETCH(QByteArray, reply);
        QFETCH(QString, parsed);
        RecordingClient client(mode, bigEndian);
        const QByteArray preset = hex("66 03 00 37");   // reset state 55
        QCOMPARE(client.parseReply(mode == 0 ? frame(preset) : preset + hex(bigEndian ? "7aaf" : "af7a")), "0 reset(55) 55");
        QCOMPARE(client.parseReply(reply), parsed);
        // Nothing past the length is read: every prefix parses the same
        // whatever lies behind it in the buffer.
        for (int length = 0; length <= reply.size(); ++length) {
            RecordingClient zeros(mode, bigEndian), ones(mode, bigEndian);
            QCOMPARE(zeros.parseReply(reply.left(length), 0x00), ones.parseReply(reply.left(length), 0xFF));
        }
    }
};

QTEST_APPLESS_MAIN(tst_Protocol)
#include "tst_protocol.moc"
