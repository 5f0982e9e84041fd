#ifndef HPROTOCOL_CLIENT_H
#define HPROTOCOL_CLIENT_H

#include <QtGlobal>
#include <QByteArray>
#include <QList>

// Frame builders and reply parser of the controller protocol. The owner
// supplies the send and receive buffers (kBufferSize bytes each), sends the
// built frame and hands the reply back to parse(). This is the only place
// that knows byte offsets; everything above calls builders and handlers.
class HProtocol_Client
{
public:
    // Sizes and limits of the protocol, in one place.
    enum : int {
        kBufferSize = 500,        // send/receive buffers; replies of this size or more are not parsed
        kPort = 60000,
        kMaxNameLen = 100,        // file and program names
        kMaxTextLen = 481,        // 'd' text from a terminated string
        kEmptyTextLen = 480,      // a text of exactly this length builds nothing
        kMaxChannel = 99,
        kMaxAddressOffset = 169999,
        kMaxAddress = 9999999
    };

    // Link modes: TCP (7-byte header), serial (no header, CRC-16 trailer
    // checked on receipt). Any other value is the extended framing: larger
    // limits, the bare PDU from offset 0, no checksum; nothing uses it.
    enum LinkMode : int { TcpMode = 0, SerialMode = 1 };

    // Reply-parser results.
    enum ParseResult : int {
        ParseOk = 0,
        ParseReadError = 1,       // error reply to 'B'
        ParseWriteError = 2,      // error reply to 'D'
        ParseFileError = 3,       // error reply to 'd'
        ParseProgramError = 4,    // error reply to 'f'
        ParseUnknown = 5,         // too short, unknown letter, unknown 'd' sub
        ParseCrcError = 6,
        ParseBufferBusy = 7,      // 'd' sub 5 with state 1
        ParseBufferDenied = 8     // 'd' sub 5 with state 2
    };

    // The eleven reply callbacks. When one is set, the parser calls it
    // instead of the virtual handler of that reply kind.
    typedef void (*ReadVarsCallback)(int error, const qint32 *values, int count);
    typedef void (*StateCallback)(int state);

    // Static helpers, pure.
    static bool isValidAddress(qint32 address)
    {
        // Unsigned: a negative address is out of range too.
        return quint32(address) <= quint32(kMaxAddress) && quint32(address) % 1000000u <= quint32(kMaxAddressOffset);
    }
    static quint16 crc16(const quint8 *data, int length);
    // Controller text rule: the number of leading bytes, at most maxLen,
    // before the first byte that is 0 or has its top bit set.
    static int textRunLength(const char *text, int maxLen);

    explicit HProtocol_Client(quint8 *sendBuffer = nullptr, quint8 *recvBuffer = nullptr, int linkMode = TcpMode);
    virtual ~HProtocol_Client();

    void setBuffers(quint8 *sendBuffer, quint8 *recvBuffer);
    quint8 *sendBuffer() const { return m_sendBuffer; }
    quint8 *recvBuffer() const { return m_recvBuffer; }

    int linkMode() const { return m_linkMode; }
    int maxChannel() const { return m_maxChannel; }
    int maxAddressOffset() const { return m_maxAddressOffset; }
    int maxFrameLength() const { return m_maxFrameLength; }
    int maxRdVar() const { return m_maxRdVar; }
    int maxWrVar() const { return m_maxWrVar; }
    int headerLength() const { return m_headerLength; }
    bool bigEndian() const { return m_bigEndian; }
    void setBigEndian(bool on) { m_bigEndian = on; }
    int replyState() const { return m_replyState; }
    // Before a request goes out: only its own reply may set the state.
    void clearReplyState() { m_replyState = 0; }

    // ---- Builders: each writes a whole frame into the send buffer and
    // returns its length, or 0 when it refuses its arguments.

    // Whether a builder checks the addresses it is given. An owner that
    // has checked them already (as it took them from the host) says so and
    // they are not checked twice.
    enum AddressCheck : int { CheckAddresses, AddressesChecked };

    // 'B' read variables: a range, an array, a list.
    int buildReadVars(qint32 firstAddress, int count);
    int buildReadVars(const qint32 *addresses, int count, AddressCheck check = CheckAddresses);
    int buildReadVars(const QList<qint32> &addresses);
    // 'D' write variables: count pairs.
    int buildWriteVars(const qint32 *addresses, const qint32 *values, int count,
                       AddressCheck check = CheckAddresses);
    // 'd' sub 1 (set file information) or sub 6 when ask is set (query state).
    int buildSetFileInf(quint8 channel, int type, const char *fileName, bool ask = false);
    // 'd' sub 2 / 3 from a terminated string.
    int buildAppendTxt(const char *text);
    int buildOverWriteTxt(const char *text);
    // 'd' sub 2 / 3 from an explicit length.
    int buildAppendTxt(const char *text, int length);
    int buildOverWriteTxt(const char *text, int length);
    // 'd' sub 4 and sub 5 (the latter waits 50 ms after building, asleep).
    int buildFileEnd();
    int buildRequestSendNext();
    // 'c' sub 1, 2, 3.
    int buildOpenReadFile(const char *fileName);
    int buildReadFile();
    int buildCloseReadFile();
    // 'f' sub 3 (reset), sub 4 (cycle start), sub 5 (parameter + raw bytes).
    int buildReset(quint8 parameter);
    int buildCycStart(quint8 channel, const char *fileName);
    int buildF5(quint8 parameter, const char *data, int length);
    // 'g' with selector 0..5 sent as 1, 2, 3, 4, 5, 0x90.
    int buildGetStr(int selector, const char *name);
    // 'i' sub 1, 2, 3.
    int buildSetOscAxis(qint32 a, qint32 b, qint32 c);
    int buildSetOscTransEn(qint32 enable);
    int buildGetOscPoint(qint32 selector, qint32 count);
    // 'p' watchdog probe.
    int buildWatchdog();

    // ---- Parser: the reply of `length` bytes in the receive buffer.
    // Byte offsets below count from the letter. Reply layouts:
    //   'B'  count at 1, 32-bit values from 2 (fewer present than counted:
    //        only the complete ones are handed on)
    //   'f'  sub at 1, echo of the request's byte at 2, state at 3
    //   'c'  sub at 1, state (open, close) or count (data) at 2
    //   'd'  sub at 1, state at 4 (subs 1, 6) or 2 (subs 2, 3, 5)
    //   'g'  sub at 1, text from 2 to the end
    //   'i'  sub at 1, state at 2, point count at 3, points from 4
    //   'p'  state at 1
    // A state byte that a reply needs but lacks makes it too short (5).
    int parse(int length);

    // ---- Reply framing and matching. Replies are cut out of the received
    // bytes by the length field of their header, so a reply split across
    // segments is put together and two replies that came together are two.
    enum FrameKind : int {
        FrameComplete,   // a whole frame of `size` bytes
        FramePartial,    // the start of a frame that can still be a reply
        FrameTooLong,    // a frame of `size` bytes: more than any reply can be
        FrameNone        // no frame header: bytes that are no reply at all
    };
    struct FrameCheck {
        FrameKind kind;
        int size;
    };
    FrameCheck checkFrame(const char *data, int size) const;
    // A whole reply frame answers a request frame only with the request's
    // letter or its error form (top bit set) and, for a good 'B' reply, the
    // count that was asked for, with all its values.
    bool replyMatches(const char *request, int requestSize, const char *reply, int replySize) const;

    // ---- Callbacks (null at construction).
    ReadVarsCallback readVarsCallback = nullptr;       // 'B'
    StateCallback writeVarsCallback = nullptr;         // 'D'
    StateCallback resetCallback = nullptr;             // 'f' 3
    StateCallback cycStartCallback = nullptr;          // 'f' 4
    StateCallback setFileInfCallback = nullptr;        // 'd' 1
    StateCallback appendTxtCallback = nullptr;         // 'd' 2
    StateCallback overWriteTxtCallback = nullptr;      // 'd' 3
    StateCallback fileEndCallback = nullptr;           // 'd' 4
    StateCallback requestSendNextCallback = nullptr;   // 'd' 5
    StateCallback fileTransStateCallback = nullptr;    // 'd' 6
    StateCallback watchdogCallback = nullptr;          // 'p'

protected:
    // ---- Reply handlers, empty by default; owners override what they use.
    virtual void onRecCmdReadVars(int error, const qint32 *values, int count);
    virtual void onRecCmdWriteVars(int error);
    virtual void onRecCmdReset(int state);
    virtual void onRecCmdCycStart(int state);
    virtual void onRecCmdF5(int state);
    virtual void onReciveCmdSetFileInf(int state);
    virtual void onReciveCmdAppendTxt(int state);
    virtual void onReciveCmdOverWriteTxt(int state);
    virtual void onReciveCmdFileEnd(int state);
    virtual void onReciveCmdRequestSendNext(int state);
    virtual void onReciveCmdGetFileTransState(int state);
    virtual void onRecCmdOpenReadFile(int state);
    // data: the bytes of the reply from the count byte on; size: whole reply length.
    virtual void onRecCmdReadFile(const quint8 *data, int size);
    virtual void onRecCmdCloseReadFile(int state);
    // 'g': sub 1..5 handed on as selector 0..4, 0xF0 as selector 5;
    // text is the payload from the byte after the sub byte.
    virtual void onRecCmdGetStr(int selector, const char *text, int length);
    virtual void onRecCmdSetOscAxis(int state);
    virtual void onRecCmdSetOscTransEn(int state);
    virtual void onRecCmdGetOscPoint(int state, const qint32 *points, int count);
    virtual void onRecCmdWatchdog(int state);
    virtual void onRecUnknownCmd(int letter);

private:
    // The PDU of a received reply: from the letter to the end of the bytes
    // received (the serial CRC excluded).
    struct Pdu {
        const quint8 *data;
        int size;
    };

    int finishFrame(int end, bool overflow);
    // A 'B' frame of count addresses, address(i) giving the i-th; from
    // `array` in one go when they are in one.
    template <typename Address>
    int buildRead(int count, Address address, AddressCheck check, const qint32 *array);
    int buildSimple(quint8 letter, quint8 sub);
    int buildText(quint8 sub, const char *text, int run);
    int buildTerminatedText(quint8 sub, const char *text);

    static bool pduByte(const Pdu &pdu, int index, int *value);
    static bool pduSub(const Pdu &pdu, int *sub);
    static int pduSubState(const Pdu &pdu, int first, int last, int stateIndex, int *sub, int *state);
    qint32 pduInt32(const Pdu &pdu, int index) const;
    int pduValues(const Pdu &pdu, int countIndex, qint32 *values) const;
    void notify(StateCallback callback, void (HProtocol_Client::*handler)(int), int state);
    int parseProgram(const Pdu &pdu);
    int parseReadFile(const Pdu &pdu, int length);
    int parseFile(const Pdu &pdu);
    int parseGetStr(const Pdu &pdu);
    int parseOsc(const Pdu &pdu, qint32 *values);

    // (field order as the protocol layer has always laid it out)
    quint8 *m_sendBuffer;
    quint8 *m_recvBuffer;
    int m_linkMode;
    int m_maxChannel;
    int m_maxAddressOffset;
    int m_maxFrameLength;
    int m_maxRdVar;
    int m_maxWrVar;
    bool m_bigEndian;
    int m_headerLength;
    int m_replyState;
};

#endif
