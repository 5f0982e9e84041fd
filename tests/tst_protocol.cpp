#include "../link/HProtocol_Client.h"

#include <QElapsedTimer>
#include <QStringList>
#include <QtTest>

#include <array>
#include <cstring>
#include <functional>

typedef std::function<int(HProtocol_Client &)> Build;
Q_DECLARE_METATYPE(Build)

namespace {

QStringList g_callbacks;

QString joinValues(const qint32 *values, int count)
{
    QStringList parts;
    for (int i = 0; values && i < count; ++i)
        parts << QString::number(values[i]);
    return QLatin1Char('[') + parts.join(QLatin1Char(',')) + QLatin1Char(']');
}

// Records every handler call as text, so a table row states what each
// handler must have received.
class RecordingClient : public HProtocol_Client
{
public:
    explicit RecordingClient(int mode = TcpMode)
        : HProtocol_Client(nullptr, nullptr, mode)
    {
        send.fill(0xAA);
        recv.fill(0x00);
        setBuffers(send.data(), recv.data());
    }

    // Puts a reply into the receive buffer, filling the rest with `fill`.
    int parseReply(const QByteArray &reply, quint8 fill = 0x00)
    {
        recv.fill(fill);
        memcpy(recv.data(), reply.constData(), size_t(qMin(reply.size(), int(recv.size()))));
        return parse(reply.size());
    }

    QByteArray frame(int length) const
    {
        return QByteArray(reinterpret_cast<const char *>(send.data()), length);
    }

    std::array<quint8, kBufferSize> send;
    std::array<quint8, kBufferSize> recv;
    QStringList calls;

protected:
    void onRecCmdReadVars(int error, const qint32 *values, int count) override
    {
        calls << QString("readVars(%1,%2,%3)").arg(error).arg(joinValues(values, count)).arg(count);
    }
    void onRecCmdWriteVars(int error) override { record("writeVars", error); }
    void onRecCmdReset(int state) override { record("reset", state); }
    void onRecCmdCycStart(int state) override { record("cycStart", state); }
    void onRecCmdF5(int state) override { record("f5", state); }
    void onReciveCmdSetFileInf(int state) override { record("setFileInf", state); }
    void onReciveCmdAppendTxt(int state) override { record("appendTxt", state); }
    void onReciveCmdOverWriteTxt(int state) override { record("overWriteTxt", state); }
    void onReciveCmdFileEnd(int state) override { record("fileEnd", state); }
    void onReciveCmdRequestSendNext(int state) override { record("requestSendNext", state); }
    void onReciveCmdGetFileTransState(int state) override { record("fileTransState", state); }
    void onRecCmdOpenReadFile(int state) override { record("openReadFile", state); }
    void onRecCmdReadFile(const quint8 *data, int size) override
    {
        // Only the bytes the reply really holds, from the pointer handed on.
        const int offset = int(data - recv.data());
        const QByteArray bytes(reinterpret_cast<const char *>(data), qMax(0, size - offset));
        calls << QString("readFile(%1,%2)").arg(QString(bytes.toHex())).arg(size);
    }
    void onRecCmdCloseReadFile(int state) override { record("closeReadFile", state); }
    void onRecCmdGetStr(int selector, const char *text, int length) override
    {
        calls << QString("getStr(%1,%2)").arg(selector).arg(QString::fromLatin1(text, length));
    }
    void onRecCmdSetOscAxis(int state) override { record("setOscAxis", state); }
    void onRecCmdSetOscTransEn(int state) override { record("setOscTransEn", state); }
    void onRecCmdGetOscPoint(int state, const qint32 *points, int count) override
    {
        calls << QString("getOscPoint(%1,%2,%3)").arg(state).arg(joinValues(points, count)).arg(count);
    }
    void onRecCmdWatchdog(int state) override { record("watchdog", state); }
    void onRecUnknownCmd(int letter) override { record("unknown", letter); }

private:
    void record(const char *name, int value)
    {
        calls << QString("%1(%2)").arg(name).arg(value);
    }
};

// A reply in TCP framing around the given PDU.
QByteArray tcpReply(const QByteArray &pdu)
{
    QByteArray frame = QByteArray::fromHex("00000000 0000 00") + pdu;
    frame[4] = char((frame.size() - 6) & 0xFF);
    frame[5] = char((frame.size() - 6) >> 8);
    return frame;
}

QByteArray withCrc(const QByteArray &pdu, bool bigEndian = false)
{
    const quint16 crc = HProtocol_Client::crc16(reinterpret_cast<const quint8 *>(pdu.constData()), pdu.size());
    const char lo = char(crc & 0xFF);
    const char hi = char(crc >> 8);
    return pdu + (bigEndian ? QByteArray() + hi + lo : QByteArray() + lo + hi);
}

QByteArray hex(const char *text)
{
    return QByteArray::fromHex(text);
}

// The 'B' PDU reading addresses 0 .. count-1.
QByteArray readRange(int count)
{
    QByteArray pdu = QByteArray::fromHex("42") + char(count);
    for (int i = 0; i < count; ++i)
        pdu += char(i) + QByteArray(3, '\0');
    return pdu;
}

} // namespace

class tst_Protocol : public QObject
{
    Q_OBJECT

private slots:
    void limits_data();
    void limits();
    void addressRule_data();
    void addressRule();
    void crc_data();
    void crc();
    void builders_data();
    void builders();
    void refusals_data();
    void refusals();
    void sendNextWaits();
    void parse_data();
    void parse();
    void parseIgnoresBytesPastLength_data();
    void parseIgnoresBytesPastLength();
    void callbacksReplaceHandlers_data();
    void callbacksReplaceHandlers();
};

void tst_Protocol::limits_data()
{
    QTest::addColumn<int>("mode");
    QTest::addColumn<int>("frameLength");
    QTest::addColumn<int>("maxRdVar");
    QTest::addColumn<int>("headerLength");

    QTest::newRow("tcp") << 0 << 260 << 64 << 7;
    QTest::newRow("serial") << 1 << 255 << 63 << 0;
    QTest::newRow("extended") << 2 << 500 << 124 << 0;
    QTest::newRow("extended negative") << -1 << 500 << 124 << 0;
}

void tst_Protocol::limits()
{
    QFETCH(int, mode);
    QFETCH(int, frameLength);
    QFETCH(int, maxRdVar);
    QFETCH(int, headerLength);

    HProtocol_Client client(nullptr, nullptr, mode);
    QCOMPARE(client.linkMode(), mode);
    QCOMPARE(client.maxFrameLength(), frameLength);
    QCOMPARE(client.maxRdVar(), maxRdVar);
    QCOMPARE(client.maxWrVar(), 31);
    QCOMPARE(client.headerLength(), headerLength);
    QCOMPARE(client.maxChannel(), 99);
    QCOMPARE(client.maxAddressOffset(), 169999);
    QCOMPARE(client.bigEndian(), false);
    QCOMPARE(client.replyState(), 0);
    for (const auto &cb : { client.writeVarsCallback, client.resetCallback, client.cycStartCallback,
                            client.setFileInfCallback, client.appendTxtCallback, client.overWriteTxtCallback,
                            client.fileEndCallback, client.requestSendNextCallback,
                            client.fileTransStateCallback, client.watchdogCallback })
        QVERIFY(!cb);
    QVERIFY(!client.readVarsCallback);
}

void tst_Protocol::addressRule_data()
{
    QTest::addColumn<qint32>("address");
    QTest::addColumn<bool>("valid");

    QTest::newRow("0") << 0 << true;
    QTest::newRow("169999") << 169999 << true;
    QTest::newRow("170000") << 170000 << false;
    QTest::newRow("999999") << 999999 << false;
    QTest::newRow("1000000") << 1000000 << true;
    QTest::newRow("1169999") << 1169999 << true;
    QTest::newRow("9169999") << 9169999 << true;
    QTest::newRow("9999999") << 9999999 << false;
    QTest::newRow("10000000") << 10000000 << false;
    QTest::newRow("-1") << -1 << false;
    QTest::newRow("min") << std::numeric_limits<qint32>::min() << false;
}

void tst_Protocol::addressRule()
{
    QFETCH(qint32, address);
    QFETCH(bool, valid);
    QCOMPARE(HProtocol_Client::isValidAddress(address), valid);
}

void tst_Protocol::crc_data()
{
    QTest::addColumn<QByteArray>("data");
    QTest::addColumn<int>("crc");

    QTest::newRow("empty") << QByteArray() << 0xFFFF;
    QTest::newRow("check string") << QByteArray("123456789") << 0x4B37;
    QTest::newRow("read holding 10") << hex("01 03 00 00 00 0a") << 0xCDC5;
    QTest::newRow("read holding slave 0x11") << hex("1103006b0003") << 0x8776;
    QTest::newRow("single zero") << hex("00") << 0x40BF;
}

void tst_Protocol::crc()
{
    QFETCH(QByteArray, data);
    QFETCH(int, crc);
    QCOMPARE(int(HProtocol_Client::crc16(reinterpret_cast<const quint8 *>(data.constData()), data.size())), crc);
}

void tst_Protocol::builders_data()
{
    QTest::addColumn<int>("mode");
    QTest::addColumn<bool>("bigEndian");
    QTest::addColumn<Build>("build");
    QTest::addColumn<QByteArray>("expected");

    const QByteArray name150(150, 'N');
    const QByteArray text479(479, 'a');
    const QByteArray text480(480, 'b');
    const QByteArray text600(600, 'c');

    // TCP framing, the one on the wire.
    QTest::newRow("p watchdog") << 0 << false << Build([](HProtocol_Client &c) { return c.buildWatchdog(); })
                                << hex("00000000 0200 00 70");
    QTest::newRow("B range") << 0 << false << Build([](HProtocol_Client &c) { return c.buildReadVars(1000000, 3); })
                             << hex("00000000 0f00 00 42 03 40420f00 41420f00 42420f00");
    QTest::newRow("B range ending at 169999")
        << 0 << false << Build([](HProtocol_Client &c) { return c.buildReadVars(169998, 2); })
        << hex("00000000 0b00 00 42 02 0e980200 0f980200");
    QTest::newRow("B range of 64, 265 bytes")
        << 0 << false << Build([](HProtocol_Client &c) { return c.buildReadVars(0, 64); }) << tcpReply(readRange(64));
    QTest::newRow("B array") << 0 << false << Build([](HProtocol_Client &c) {
        const qint32 a[] = { 0x12345, 169999, 1169999 };
        return c.buildReadVars(a, 3);
    }) << hex("00000000 0f00 00 42 03 45230100 0f980200 4fda1100");
    QTest::newRow("B array checked by the caller") << 0 << false << Build([](HProtocol_Client &c) {
        const qint32 a[] = { 0x12345, 169999 };
        return c.buildReadVars(a, 2, HProtocol_Client::AddressesChecked);
    }) << hex("00000000 0b00 00 42 02 45230100 0f980200");
    QTest::newRow("B list") << 0 << false << Build([](HProtocol_Client &c) {
        return c.buildReadVars(QList<qint32>() << 1020300 << 5);
    }) << hex("00000000 0b00 00 42 02 8c910f00 05000000");
    QTest::newRow("D") << 0 << false << Build([](HProtocol_Client &c) {
        const qint32 a[] = { 1000001, 2 };
        const qint32 v[] = { -1, 0x01020304 };
        return c.buildWriteVars(a, v, 2);
    }) << hex("00000000 1300 00 44 02 41420f00 ffffffff 02000000 04030201");
    QTest::newRow("d1 type 2") << 0 << false
                               << Build([](HProtocol_Client &c) { return c.buildSetFileInf(2, 2, "O1234"); })
                               << hex("00000000 0b00 00 64 01 02 03 4f31323334 00");
    QTest::newRow("d1 type 1") << 0 << false << Build([](HProtocol_Client &c) { return c.buildSetFileInf(1, 1, "D"); })
                               << hex("00000000 0700 00 64 01 01 01 44 00");
    QTest::newRow("d1 type 3") << 0 << false << Build([](HProtocol_Client &c) { return c.buildSetFileInf(1, 3, "D"); })
                               << hex("00000000 0700 00 64 01 01 04 44 00");
    QTest::newRow("d1 type 0") << 0 << false << Build([](HProtocol_Client &c) { return c.buildSetFileInf(1, 0, "MDI"); })
                               << hex("00000000 0900 00 64 01 01 05 4d4449 00");
    QTest::newRow("d6 ask") << 0 << false << Build([](HProtocol_Client &c) { return c.buildSetFileInf(7, 4, "A", true); })
                            << hex("00000000 0700 00 64 06 07 05 41 00");
    QTest::newRow("d1 name cut at 100")
        << 0 << false << Build([name150](HProtocol_Client &c) { return c.buildSetFileInf(1, 1, name150.constData()); })
        << tcpReply(hex("64 01 01 01") + QByteArray(100, 'N') + hex("00"));
    QTest::newRow("d2 text") << 0 << false << Build([](HProtocol_Client &c) { return c.buildAppendTxt("G01 X1"); })
                             << hex("00000000 0a00 00 64 02 473031205831 00");
    QTest::newRow("d3 empty text") << 0 << false << Build([](HProtocol_Client &c) { return c.buildOverWriteTxt(""); })
                                   << hex("00000000 0400 00 64 03 00");
    QTest::newRow("d2 text stops at top bit")
        << 0 << false << Build([](HProtocol_Client &c) { return c.buildAppendTxt("AB\xE4" "CD"); })
        << hex("00000000 0600 00 64 02 4142 00");
    QTest::newRow("d2 text stops at top bit past 16 bytes")
        << 0 << false << Build([](HProtocol_Client &c) { return c.buildAppendTxt("ABCDEFGHIJKLMNOPQRSTU\x80" "CD"); })
        << hex("00000000 1900 00 64 02 4142434445464748494a4b4c4d4e4f505152535455 00");
    QTest::newRow("d2 479 bytes") << 0 << false
                                  << Build([text479](HProtocol_Client &c) { return c.buildAppendTxt(text479.constData()); })
                                  << tcpReply(hex("64 02") + text479 + hex("00"));
    QTest::newRow("d3 longer text cut at 481")
        << 0 << false << Build([text600](HProtocol_Client &c) { return c.buildOverWriteTxt(text600.constData()); })
        << tcpReply(hex("64 03") + QByteArray(481, 'c') + hex("00"));
    QTest::newRow("d2 explicit 479")
        << 0 << false << Build([text600](HProtocol_Client &c) { return c.buildAppendTxt(text600.constData(), 479); })
        << tcpReply(hex("64 02") + QByteArray(479, 'c') + hex("00"));
    QTest::newRow("d3 explicit 480")
        << 0 << false << Build([text600](HProtocol_Client &c) { return c.buildOverWriteTxt(text600.constData(), 480); })
        << tcpReply(hex("64 03") + QByteArray(480, 'c') + hex("00"));
    QTest::newRow("d2 explicit 0") << 0 << false << Build([](HProtocol_Client &c) { return c.buildAppendTxt("xyz", 0); })
                                   << hex("00000000 0400 00 64 02 00");
    QTest::newRow("d3 explicit shorter than text")
        << 0 << false << Build([](HProtocol_Client &c) { return c.buildOverWriteTxt("xyz", 2); })
        << hex("00000000 0600 00 64 03 7879 00");
    QTest::newRow("d3 explicit stops at zero")
        << 0 << false << Build([](HProtocol_Client &c) { return c.buildOverWriteTxt("x\0z", 3); })
        << hex("00000000 0500 00 64 03 78 00");
    QTest::newRow("d4") << 0 << false << Build([](HProtocol_Client &c) { return c.buildFileEnd(); })
                        << hex("00000000 0400 00 64 04 00");
    QTest::newRow("d5") << 0 << false << Build([](HProtocol_Client &c) { return c.buildRequestSendNext(); })
                        << hex("00000000 0400 00 64 05 00");
    QTest::newRow("c1") << 0 << false
                        << Build([](HProtocol_Client &c) { return c.buildOpenReadFile("sys0000/error/curError.error"); })
                        << tcpReply(hex("63 01") + QByteArray("sys0000/error/curError.error") + hex("00"));
    QTest::newRow("c2") << 0 << false << Build([](HProtocol_Client &c) { return c.buildReadFile(); })
                        << hex("00000000 0400 00 63 02 00");
    QTest::newRow("c3") << 0 << false << Build([](HProtocol_Client &c) { return c.buildCloseReadFile(); })
                        << hex("00000000 0400 00 63 03 00");
    QTest::newRow("f3") << 0 << false << Build([](HProtocol_Client &c) { return c.buildReset(1); })
                        << hex("00000000 0500 00 66 03 01 00");
    QTest::newRow("f4") << 0 << false << Build([](HProtocol_Client &c) { return c.buildCycStart(2, "O100"); })
                        << hex("00000000 0900 00 66 04 02 4f313030 00");
    QTest::newRow("f4 name cut at non-ASCII")
        << 0 << false << Build([](HProtocol_Client &c) { return c.buildCycStart(1, "AB\xC3\xA4"); })
        << hex("00000000 0700 00 66 04 01 4142 00");
    QTest::newRow("f5 raw bytes") << 0 << false
                                  << Build([](HProtocol_Client &c) { return c.buildF5(7, "\x00\xff\x80", 3); })
                                  << hex("00000000 0800 00 66 05 07 00ff80 00");
    QTest::newRow("f5 no bytes") << 0 << false << Build([](HProtocol_Client &c) { return c.buildF5(9, nullptr, 0); })
                                 << hex("00000000 0500 00 66 05 09 00");
    const char *subs[] = { "01", "02", "03", "04", "05", "90" };
    for (int s = 0; s < 6; ++s)
        QTest::newRow(qPrintable(QString("g selector %1").arg(s)))
            << 0 << false << Build([s](HProtocol_Client &c) { return c.buildGetStr(s, "x"); })
            << hex((QByteArray("00000000 0500 00 67 ") + subs[s] + " 78 00").constData());
    // The send buffer is pre-filled with 0xAA: the sub byte keeps it.
    QTest::newRow("g selector 6 leaves sub unwritten")
        << 0 << false << Build([](HProtocol_Client &c) { return c.buildGetStr(6, "x"); })
        << hex("00000000 0500 00 67 aa 78 00");
    QTest::newRow("i1") << 0 << false << Build([](HProtocol_Client &c) { return c.buildSetOscAxis(1, -2, 0x01020304); })
                        << hex("00000000 0f00 00 69 01 01000000 feffffff 04030201");
    QTest::newRow("i2") << 0 << false << Build([](HProtocol_Client &c) { return c.buildSetOscTransEn(1); })
                        << hex("00000000 0700 00 69 02 01000000");
    QTest::newRow("i3") << 0 << false << Build([](HProtocol_Client &c) { return c.buildGetOscPoint(3, 64); })
                        << hex("00000000 0b00 00 69 03 03000000 40000000");

    // Big-endian flag: header length and every 32-bit field turn around.
    QTest::newRow("be p") << 0 << true << Build([](HProtocol_Client &c) { return c.buildWatchdog(); })
                          << hex("00000000 0002 00 70");
    QTest::newRow("be B") << 0 << true << Build([](HProtocol_Client &c) { return c.buildReadVars(0x12345, 1); })
                          << hex("00000000 0007 00 42 01 00012345");
    QTest::newRow("be D") << 0 << true << Build([](HProtocol_Client &c) {
        const qint32 a[] = { 1000001 };
        const qint32 v[] = { -2 };
        return c.buildWriteVars(a, v, 1);
    }) << hex("00000000 000b 00 44 01 000f4241 fffffffe");
    QTest::newRow("be i3") << 0 << true << Build([](HProtocol_Client &c) { return c.buildGetOscPoint(1, 2); })
                           << hex("00000000 000b 00 69 03 00000001 00000002");

    // Serial framing: no header, CRC trailer low byte first.
    QTest::newRow("serial p") << 1 << false << Build([](HProtocol_Client &c) { return c.buildWatchdog(); })
                              << hex("70 bea4");
    QTest::newRow("serial B") << 1 << false << Build([](HProtocol_Client &c) { return c.buildReadVars(0x12345, 1); })
                              << hex("42 01 45230100 d7af");
    QTest::newRow("serial d5") << 1 << false << Build([](HProtocol_Client &c) { return c.buildRequestSendNext(); })
                               << hex("64 05 00 334f");
    QTest::newRow("serial be p") << 1 << true << Build([](HProtocol_Client &c) { return c.buildWatchdog(); })
                                 << hex("70 a4be");
    QTest::newRow("serial B of 63") << 1 << false << Build([](HProtocol_Client &c) { return c.buildReadVars(0, 63); })
                                    << withCrc(readRange(63));

    // Extended framing: bare PDU.
    QTest::newRow("extended p") << 2 << false << Build([](HProtocol_Client &c) { return c.buildWatchdog(); })
                                << hex("70");
    QTest::newRow("extended B of 124") << 2 << false
                                       << Build([](HProtocol_Client &c) { return c.buildReadVars(0, 124); })
                                       << readRange(124);
}

void tst_Protocol::builders()
{
    QFETCH(int, mode);
    QFETCH(bool, bigEndian);
    QFETCH(Build, build);
    QFETCH(QByteArray, expected);

    RecordingClient client(mode);
    client.setBigEndian(bigEndian);
    const int length = build(client);
    QCOMPARE(length, expected.size());
    QCOMPARE(client.frame(length).toHex(' '), expected.toHex(' '));
}

void tst_Protocol::refusals_data()
{
    QTest::addColumn<int>("mode");
    QTest::addColumn<Build>("build");

    const QByteArray text480(480, 'b');
    static const qint32 good[] = { 1, 2 };
    static const qint32 bad[] = { 1, 170000 };
    static qint32 many[70] = {};

    QTest::newRow("B range count 0") << 0 << Build([](HProtocol_Client &c) { return c.buildReadVars(0, 0); });
    QTest::newRow("B range count 65") << 0 << Build([](HProtocol_Client &c) { return c.buildReadVars(0, 65); });
    QTest::newRow("B range count -1") << 0 << Build([](HProtocol_Client &c) { return c.buildReadVars(0, -1); });
    QTest::newRow("B serial count 64") << 1 << Build([](HProtocol_Client &c) { return c.buildReadVars(0, 64); });
    QTest::newRow("B range at 170000") << 0 << Build([](HProtocol_Client &c) { return c.buildReadVars(170000, 1); });
    QTest::newRow("B range at 10000000") << 0 << Build([](HProtocol_Client &c) { return c.buildReadVars(10000000, 1); });
    QTest::newRow("B range at -1") << 0 << Build([](HProtocol_Client &c) { return c.buildReadVars(-1, 1); });
    QTest::newRow("B range ending past 169999")
        << 0 << Build([](HProtocol_Client &c) { return c.buildReadVars(169999, 2); });
    QTest::newRow("B range ending past 9169999")
        << 0 << Build([](HProtocol_Client &c) { return c.buildReadVars(9169990, 64); });
    QTest::newRow("B array null") << 0 << Build([](HProtocol_Client &c) { return c.buildReadVars(nullptr, 1); });
    QTest::newRow("B array bad address") << 0 << Build([](HProtocol_Client &c) { return c.buildReadVars(bad, 2); });
    QTest::newRow("B array count 0") << 0 << Build([](HProtocol_Client &c) { return c.buildReadVars(good, 0); });
    QTest::newRow("B array count 65") << 0 << Build([](HProtocol_Client &c) { return c.buildReadVars(many, 65); });
    QTest::newRow("B list empty") << 0 << Build([](HProtocol_Client &c) { return c.buildReadVars(QList<qint32>()); });
    QTest::newRow("B list bad address")
        << 0 << Build([](HProtocol_Client &c) { return c.buildReadVars(QList<qint32>() << 5 << 10000000); });
    QTest::newRow("D count 0") << 0 << Build([](HProtocol_Client &c) { return c.buildWriteVars(good, good, 0); });
    QTest::newRow("D count 32") << 0 << Build([](HProtocol_Client &c) { return c.buildWriteVars(many, many, 32); });
    QTest::newRow("D null addresses") << 0 << Build([](HProtocol_Client &c) { return c.buildWriteVars(nullptr, good, 1); });
    QTest::newRow("D null values") << 0 << Build([](HProtocol_Client &c) { return c.buildWriteVars(good, nullptr, 1); });
    QTest::newRow("D bad address") << 0 << Build([](HProtocol_Client &c) { return c.buildWriteVars(bad, good, 2); });
    QTest::newRow("d1 null name") << 0 << Build([](HProtocol_Client &c) { return c.buildSetFileInf(1, 1, nullptr); });
    QTest::newRow("d2 null text") << 0 << Build([](HProtocol_Client &c) { return c.buildAppendTxt(nullptr); });
    QTest::newRow("d3 null text") << 0 << Build([](HProtocol_Client &c) { return c.buildOverWriteTxt(nullptr, 1); });
    QTest::newRow("d2 text of exactly 480")
        << 0 << Build([text480](HProtocol_Client &c) { return c.buildAppendTxt(text480.constData()); });
    QTest::newRow("d3 text of exactly 480")
        << 0 << Build([text480](HProtocol_Client &c) { return c.buildOverWriteTxt(text480.constData()); });
    QTest::newRow("d2 480 then non-ASCII") << 0 << Build([text480](HProtocol_Client &c) {
        return c.buildAppendTxt((text480 + "\xC3\xA4xyz").constData());
    });
    QTest::newRow("d2 explicit 480")
        << 0 << Build([text480](HProtocol_Client &c) { return c.buildAppendTxt(text480.constData(), 480); });
    QTest::newRow("d2 explicit 481")
        << 0 << Build([text480](HProtocol_Client &c) { return c.buildAppendTxt((text480 + "x").constData(), 481); });
    QTest::newRow("d3 explicit 481")
        << 0 << Build([text480](HProtocol_Client &c) { return c.buildOverWriteTxt((text480 + "x").constData(), 481); });
    QTest::newRow("d3 explicit -1") << 0 << Build([](HProtocol_Client &c) { return c.buildOverWriteTxt("x", -1); });
    QTest::newRow("c1 null name") << 0 << Build([](HProtocol_Client &c) { return c.buildOpenReadFile(nullptr); });
    QTest::newRow("f4 null name") << 0 << Build([](HProtocol_Client &c) { return c.buildCycStart(1, nullptr); });
    QTest::newRow("f5 null data") << 0 << Build([](HProtocol_Client &c) { return c.buildF5(1, nullptr, 3); });
    QTest::newRow("f5 negative length") << 0 << Build([](HProtocol_Client &c) { return c.buildF5(1, "x", -1); });
    QTest::newRow("f5 more than fits") << 0 << Build([](HProtocol_Client &c) {
        static const char big[600] = {};
        return c.buildF5(1, big, 600);
    });
    QTest::newRow("g null name") << 0 << Build([](HProtocol_Client &c) { return c.buildGetStr(4, nullptr); });
    QTest::newRow("g negative selector") << 0 << Build([](HProtocol_Client &c) { return c.buildGetStr(-1, "x"); });
    QTest::newRow("i3 count 0") << 0 << Build([](HProtocol_Client &c) { return c.buildGetOscPoint(1, 0); });
    QTest::newRow("i3 count 65") << 0 << Build([](HProtocol_Client &c) { return c.buildGetOscPoint(1, 65); });
    QTest::newRow("no send buffer") << 0 << Build([](HProtocol_Client &c) {
        c.setBuffers(nullptr, nullptr);
        return c.buildWatchdog() + c.buildFileEnd() + c.buildReset(1) + c.buildReadVars(0, 1)
            + c.buildSetOscTransEn(1) + c.buildAppendTxt("x");
    });
}

void tst_Protocol::refusals()
{
    QFETCH(int, mode);
    QFETCH(Build, build);

    RecordingClient client(mode);
    QCOMPARE(build(client), 0);
}

void tst_Protocol::sendNextWaits()
{
    RecordingClient client;
    QElapsedTimer timer;
    timer.start();
    QVERIFY(client.buildRequestSendNext() > 0);
    QVERIFY(timer.elapsed() >= 50);
}

void tst_Protocol::parse_data()
{
    QTest::addColumn<int>("mode");
    QTest::addColumn<bool>("bigEndian");
    QTest::addColumn<QByteArray>("reply");
    QTest::addColumn<int>("result");
    QTest::addColumn<QStringList>("calls");
    QTest::addColumn<int>("replyState");

    // Every row starts with the reply-state word at 55.
    const int kept = 55;
    auto row = [](const char *name, const char *pdu, int result, const QStringList &calls, int state) {
        QTest::newRow(name) << 0 << false << tcpReply(hex(pdu)) << result << calls << state;
    };

    row("B values", "42 02 05000000 ffffffff", 0, { "readVars(0,[5,-1],2)" }, 0);
    row("B count 0", "42 00", 0, { "readVars(0,[],0)" }, 0);
    row("B count above values present", "42 05 01000000 020000", 0, { "readVars(0,[1],1)" }, 0);
    row("B negative count", "42 ff 01000000", 0, { "readVars(0,[],0)" }, 0);
    row("B error", "c2 01", 1, { "readVars(1,[],0)" }, 1);
    row("D", "44 01", 0, { "writeVars(0)" }, 0);
    row("D error", "c4 01", 2, { "writeVars(1)" }, 1);
    row("d error", "e4 02", 3, {}, kept);
    row("f error", "e6 01", 4, {}, kept);
    row("f3 reset", "66 03 01 02", 0, { "reset(2)" }, 2);
    row("f3 signed state", "66 03 01 ff", 0, { "reset(-1)" }, -1);
    row("f3 without state", "66 03 01", 5, {}, kept);
    row("f4 cycle start", "66 04 01 03", 0, { "cycStart(3)" }, kept);
    row("f5", "66 05 00 00", 0, { "f5(0)" }, kept);
    row("f other sub", "66 09", 0, {}, kept);
    row("c1 open", "63 01 01", 0, { "openReadFile(1)" }, kept);
    row("c2 data", "63 02 03 414243", 0, { "readFile(03414243,13)" }, kept);
    row("c2 without count", "63 02", 5, {}, kept);
    row("c3 close", "63 03 00", 0, { "closeReadFile(0)" }, kept);
    row("c other sub", "63 07", 0, {}, kept);
    row("d1 set file", "64 01 01 01 02", 0, { "setFileInf(2)" }, 2);
    row("d1 short", "64 01 01 01", 5, {}, kept);
    row("d2 append", "64 02 03", 0, { "appendTxt(3)" }, 3);
    row("d3 overwrite", "64 03 00", 0, { "overWriteTxt(0)" }, 0);
    row("d4 file end", "64 04", 0, { "fileEnd(0)" }, 0);
    row("d5 state 0", "64 05 00", 0, { "requestSendNext(0)" }, 0);
    row("d5 busy", "64 05 01", 7, { "requestSendNext(1)" }, 1);
    row("d5 denied", "64 05 02", 8, { "requestSendNext(2)" }, 2);
    row("d5 alarm", "64 05 64", 0, { "requestSendNext(100)" }, 100);
    row("d6 file state", "64 06 01 01 64", 0, { "fileTransState(100)" }, 100);
    row("d sub 0", "64 00 00 00 00", 5, {}, kept);
    row("d sub 7", "64 07 00 00 00", 5, {}, kept);
    row("d without sub", "64", 5, {}, kept);
    row("g4 program", "67 04 4f31323334", 0, { "getStr(3,O1234)" }, kept);
    row("g1 empty", "67 01", 0, { "getStr(0,)" }, kept);
    row("g5", "67 05 41", 0, { "getStr(4,A)" }, kept);
    row("gF0", "67 f0 6162", 0, { "getStr(5,ab)" }, kept);
    row("g other sub", "67 90 6162", 0, {}, kept);
    row("i1", "69 01 01", 0, { "setOscAxis(1)" }, kept);
    row("i2", "69 02 00", 0, { "setOscTransEn(0)" }, kept);
    row("i3 points", "69 03 01 02 0a000000 f6ffffff", 0, { "getOscPoint(1,[10,-10],2)" }, kept);
    row("i3 no points", "69 03 01 00", 0, { "getOscPoint(1,[],0)" }, kept);
    row("i3 count above points present", "69 03 01 7f 0a000000", 0, { "getOscPoint(1,[10],1)" }, kept);
    row("i other sub", "69 09 01", 0, {}, kept);
    row("p", "70 00", 0, { "watchdog(0)" }, kept);
    row("p signed", "70 fe", 0, { "watchdog(-2)" }, kept);
    row("p without state", "70", 5, {}, kept);
    row("unknown letter", "41 00", 5, { "unknown(65)" }, kept);
    row("unknown error letter", "e3 00", 5, { "unknown(227)" }, kept);

    QTest::newRow("header only") << 0 << false << hex("00000000 0100 00") << 5 << QStringList() << kept;
    QTest::newRow("empty") << 0 << false << QByteArray() << 5 << QStringList() << kept;
    QTest::newRow("500 bytes") << 0 << false << tcpReply(hex("70 00") + QByteArray(491, '\0')) << 5 << QStringList()
                               << kept;
    QTest::newRow("499 bytes") << 0 << false << tcpReply(hex("70 00") + QByteArray(490, '\0')) << 0
                               << QStringList { "watchdog(0)" } << kept;

    QTest::newRow("be B") << 0 << true << tcpReply(hex("42 02 00012345 fffffffe")) << 0
                          << QStringList { "readVars(0,[74565,-2],2)" } << 0;
    QTest::newRow("be i3") << 0 << true << tcpReply(hex("69 03 01 01 00000100")) << 0
                           << QStringList { "getOscPoint(1,[256],1)" } << kept;

    QTest::newRow("serial p") << 1 << false << hex("70 00 2470") << 0 << QStringList { "watchdog(0)" } << kept;
    QTest::newRow("serial B") << 1 << false << hex("42 02 05000000 ffffffff 0bd2") << 0
                              << QStringList { "readVars(0,[5,-1],2)" } << 0;
    QTest::newRow("serial CRC mismatch") << 1 << false << hex("42 02 05000000 fffffffe 0bd2") << 6 << QStringList()
                                         << kept;
    QTest::newRow("serial CRC swapped") << 1 << false << hex("70 00 7024") << 6 << QStringList() << kept;
    QTest::newRow("serial be CRC") << 1 << true << hex("70 00 7024") << 0 << QStringList { "watchdog(0)" } << kept;
    QTest::newRow("serial be CRC swapped") << 1 << true << hex("70 00 2470") << 6 << QStringList() << kept;
    QTest::newRow("serial d5 busy") << 1 << false << withCrc(hex("64 05 01")) << 7
                                    << QStringList { "requestSendNext(1)" } << 1;
    QTest::newRow("serial two bytes, no CRC") << 1 << false << hex("70 03") << 0 << QStringList { "watchdog(3)" }
                                              << kept;
    QTest::newRow("serial one byte") << 1 << false << hex("70") << 5 << QStringList() << kept;
    QTest::newRow("extended p, no CRC") << 2 << false << hex("70 03") << 0 << QStringList { "watchdog(3)" } << kept;
}

void tst_Protocol::parse()
{
    QFETCH(int, mode);
    QFETCH(bool, bigEndian);
    QFETCH(QByteArray, reply);
    QFETCH(int, result);
    QFETCH(QStringList, calls);
    QFETCH(int, replyState);

    RecordingClient client(mode);
    client.setBigEndian(bigEndian);
    const QByteArray preset = hex("66 03 00 37");
    QCOMPARE(client.parseReply(mode == 0 ? tcpReply(preset) : withCrc(preset, bigEndian)), 0);
    QCOMPARE(client.replyState(), 55);
    client.calls.clear();

    QCOMPARE(client.parseReply(reply), result);
    QCOMPARE(client.calls, calls);
    QCOMPARE(client.replyState(), replyState);
}

void tst_Protocol::parseIgnoresBytesPastLength_data()
{
    QTest::addColumn<int>("mode");
    QTest::addColumn<QByteArray>("reply");

    const char *pdus[] = { "42 03 05000000 ffffffff 07000000", "c2 01", "44", "66 03 01 02", "66 04 01 02",
                           "63 01 00", "63 02 05 4142434445", "64 01 01 01 00", "64 05 01", "64 06 01 01 02",
                           "67 04 4f31", "69 03 01 02 0a000000 0b000000", "69 01 01", "70 00" };
    for (const char *pdu : pdus) {
        QTest::newRow(qPrintable(QString("tcp ") + pdu)) << 0 << tcpReply(hex(pdu));
        QTest::newRow(qPrintable(QString("serial ") + pdu)) << 1 << withCrc(hex(pdu));
    }
}

// Every prefix of a valid reply parses the same whatever lies behind it in
// the buffer: nothing past `length` is read.
void tst_Protocol::parseIgnoresBytesPastLength()
{
    QFETCH(int, mode);
    QFETCH(QByteArray, reply);

    for (int length = 0; length <= reply.size(); ++length) {
        const QByteArray prefix = reply.left(length);
        RecordingClient zeros(mode);
        RecordingClient ones(mode);
        const int a = zeros.parseReply(prefix, 0x00);
        const int b = ones.parseReply(prefix, 0xFF);
        QCOMPARE(a, b);
        QCOMPARE(zeros.calls, ones.calls);
        QCOMPARE(zeros.replyState(), ones.replyState());
        if (length == reply.size())
            QCOMPARE(a == 5 || a == 6, false);
    }
}

void tst_Protocol::callbacksReplaceHandlers_data()
{
    QTest::addColumn<Build>("install");
    QTest::addColumn<QByteArray>("pdu");
    QTest::addColumn<QString>("callback");

    auto state = [](const char *name, HProtocol_Client::StateCallback HProtocol_Client::*member, const char *pdu,
                    int value) {
        QTest::newRow(name) << Build([member](HProtocol_Client &c) {
            c.*member = [](int s) { g_callbacks << QString("state(%1)").arg(s); };
            return 0;
        }) << hex(pdu) << QString("state(%1)").arg(value);
    };
    QTest::newRow("B") << Build([](HProtocol_Client &c) {
        c.readVarsCallback = [](int error, const qint32 *values, int count) {
            g_callbacks << QString("read(%1,%2)").arg(error).arg(joinValues(values, count));
        };
        return 0;
    }) << hex("42 01 09000000") << QString("read(0,[9])");
    state("D", &HProtocol_Client::writeVarsCallback, "c4 00", 1);
    state("f3", &HProtocol_Client::resetCallback, "66 03 01 04", 4);
    state("f4", &HProtocol_Client::cycStartCallback, "66 04 01 03", 3);
    state("d1", &HProtocol_Client::setFileInfCallback, "64 01 01 01 02", 2);
    state("d2", &HProtocol_Client::appendTxtCallback, "64 02 03", 3);
    state("d3", &HProtocol_Client::overWriteTxtCallback, "64 03 01", 1);
    state("d4", &HProtocol_Client::fileEndCallback, "64 04", 0);
    state("d5", &HProtocol_Client::requestSendNextCallback, "64 05 02", 2);
    state("d6", &HProtocol_Client::fileTransStateCallback, "64 06 01 01 06", 6);
    state("p", &HProtocol_Client::watchdogCallback, "70 05", 5);
}

void tst_Protocol::callbacksReplaceHandlers()
{
    QFETCH(Build, install);
    QFETCH(QByteArray, pdu);
    QFETCH(QString, callback);

    RecordingClient client;
    install(client);
    g_callbacks.clear();
    client.parseReply(tcpReply(pdu));
    QCOMPARE(g_callbacks, QStringList { callback });
    QVERIFY2(client.calls.isEmpty(), qPrintable(client.calls.join(' ')));
}

QTEST_APPLESS_MAIN(tst_Protocol)
#include "tst_protocol.moc"
