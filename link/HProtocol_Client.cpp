#include "HProtocol_Client.h"

#include <QElapsedTimer>
#include <QtEndian>

#include <cstring>

#ifdef __SSE2__
#  include <emmintrin.h>
#endif

#include <chrono>
#include <thread>

namespace {

// Modbus CRC-16 (reflected 0xA001, start 0xFFFF) as the classic pair of
// tables: "Hi" feeds the low byte of the running CRC, "Lo" the high byte.
static const quint8 kCrcTableHi[256] = {
    0x00, 0xC1, 0x81, 0x40, 0x01, 0xC0, 0x80, 0x41, 0x01, 0xC0, 0x80, 0x41, 0x00, 0xC1, 0x81, 0x40,
    0x01, 0xC0, 0x80, 0x41, 0x00, 0xC1, 0x81, 0x40, 0x00, 0xC1, 0x81, 0x40, 0x01, 0xC0, 0x80, 0x41,
    0x01, 0xC0, 0x80, 0x41, 0x00, 0xC1, 0x81, 0x40, 0x00, 0xC1, 0x81, 0x40, 0x01, 0xC0, 0x80, 0x41,
    0x00, 0xC1, 0x81, 0x40, 0x01, 0xC0, 0x80, 0x41, 0x01, 0xC0, 0x80, 0x41, 0x00, 0xC1, 0x81, 0x40,
    0x01, 0xC0, 0x80, 0x41, 0x00, 0xC1, 0x81, 0x40, 0x00, 0xC1, 0x81, 0x40, 0x01, 0xC0, 0x80, 0x41,
    0x00, 0xC1, 0x81, 0x40, 0x01, 0xC0, 0x80, 0x41, 0x01, 0xC0, 0x80, 0x41, 0x00, 0xC1, 0x81, 0x40,
    0x00, 0xC1, 0x81, 0x40, 0x01, 0xC0, 0x80, 0x41, 0x01, 0xC0, 0x80, 0x41, 0x00, 0xC1, 0x81, 0x40,
    0x01, 0xC0, 0x80, 0x41, 0x00, 0xC1, 0x81, 0x40, 0x00, 0xC1, 0x81, 0x40, 0x01, 0xC0, 0x80, 0x41,
    0x01, 0xC0, 0x80, 0x41, 0x00, 0xC1, 0x81, 0x40, 0x00, 0xC1, 0x81, 0x40, 0x01, 0xC0, 0x80, 0x41,
    0x00, 0xC1, 0x81, 0x40, 0x01, 0xC0, 0x80, 0x41, 0x01, 0xC0, 0x80, 0x41, 0x00, 0xC1, 0x81, 0x40,
    0x00, 0xC1, 0x81, 0x40, 0x01, 0xC0, 0x80, 0x41, 0x01, 0xC0, 0x80, 0x41, 0x00, 0xC1, 0x81, 0x40,
    0x01, 0xC0, 0x80, 0x41, 0x00, 0xC1, 0x81, 0x40, 0x00, 0xC1, 0x81, 0x40, 0x01, 0xC0, 0x80, 0x41,
    0x00, 0xC1, 0x81, 0x40, 0x01, 0xC0, 0x80, 0x41, 0x01, 0xC0, 0x80, 0x41, 0x00, 0xC1, 0x81, 0x40,
    0x01, 0xC0, 0x80, 0x41, 0x00, 0xC1, 0x81, 0x40, 0x00, 0xC1, 0x81, 0x40, 0x01, 0xC0, 0x80, 0x41,
    0x01, 0xC0, 0x80, 0x41, 0x00, 0xC1, 0x81, 0x40, 0x00, 0xC1, 0x81, 0x40, 0x01, 0xC0, 0x80, 0x41,
    0x00, 0xC1, 0x81, 0x40, 0x01, 0xC0, 0x80, 0x41, 0x01, 0xC0, 0x80, 0x41, 0x00, 0xC1, 0x81, 0x40
};

static const quint8 kCrcTableLo[256] = {
    0x00, 0xC0, 0xC1, 0x01, 0xC3, 0x03, 0x02, 0xC2, 0xC6, 0x06, 0x07, 0xC7, 0x05, 0xC5, 0xC4, 0x04,
    0xCC, 0x0C, 0x0D, 0xCD, 0x0F, 0xCF, 0xCE, 0x0E, 0x0A, 0xCA, 0xCB, 0x0B, 0xC9, 0x09, 0x08, 0xC8,
    0xD8, 0x18, 0x19, 0xD9, 0x1B, 0xDB, 0xDA, 0x1A, 0x1E, 0xDE, 0xDF, 0x1F, 0xDD, 0x1D, 0x1C, 0xDC,
    0x14, 0xD4, 0xD5, 0x15, 0xD7, 0x17, 0x16, 0xD6, 0xD2, 0x12, 0x13, 0xD3, 0x11, 0xD1, 0xD0, 0x10,
    0xF0, 0x30, 0x31, 0xF1, 0x33, 0xF3, 0xF2, 0x32, 0x36, 0xF6, 0xF7, 0x37, 0xF5, 0x35, 0x34, 0xF4,
    0x3C, 0xFC, 0xFD, 0x3D, 0xFF, 0x3F, 0x3E, 0xFE, 0xFA, 0x3A, 0x3B, 0xFB, 0x39, 0xF9, 0xF8, 0x38,
    0x28, 0xE8, 0xE9, 0x29, 0xEB, 0x2B, 0x2A, 0xEA, 0xEE, 0x2E, 0x2F, 0xEF, 0x2D, 0xED, 0xEC, 0x2C,
    0xE4, 0x24, 0x25, 0xE5, 0x27, 0xE7, 0xE6, 0x26, 0x22, 0xE2, 0xE3, 0x23, 0xE1, 0x21, 0x20, 0xE0,
    0xA0, 0x60, 0x61, 0xA1, 0x63, 0xA3, 0xA2, 0x62, 0x66, 0xA6, 0xA7, 0x67, 0xA5, 0x65, 0x64, 0xA4,
    0x6C, 0xAC, 0xAD, 0x6D, 0xAF, 0x6F, 0x6E, 0xAE, 0xAA, 0x6A, 0x6B, 0xAB, 0x69, 0xA9, 0xA8, 0x68,
    0x78, 0xB8, 0xB9, 0x79, 0xBB, 0x7B, 0x7A, 0xBA, 0xBE, 0x7E, 0x7F, 0xBF, 0x7D, 0xBD, 0xBC, 0x7C,
    0xB4, 0x74, 0x75, 0xB5, 0x77, 0xB7, 0xB6, 0x76, 0x72, 0xB2, 0xB3, 0x73, 0xB1, 0x71, 0x70, 0xB0,
    0x50, 0x90, 0x91, 0x51, 0x93, 0x53, 0x52, 0x92, 0x96, 0x56, 0x57, 0x97, 0x55, 0x95, 0x94, 0x54,
    0x9C, 0x5C, 0x5D, 0x9D, 0x5F, 0x9F, 0x9E, 0x5E, 0x5A, 0x9A, 0x9B, 0x5B, 0x99, 0x59, 0x58, 0x98,
    0x88, 0x48, 0x49, 0x89, 0x4B, 0x8B, 0x8A, 0x4A, 0x4E, 0x8E, 0x8F, 0x4F, 0x8D, 0x4D, 0x4C, 0x8C,
    0x44, 0x84, 0x85, 0x45, 0x87, 0x47, 0x46, 0x86, 0x82, 0x42, 0x43, 0x83, 0x41, 0x81, 0x80, 0x40
};

// Protocol letters.
enum : quint8 {
    LetterReadVars = 0x42,      // 'B'
    LetterWriteVars = 0x44,     // 'D'
    LetterReadFile = 0x63,      // 'c'
    LetterFile = 0x64,          // 'd'
    LetterProgram = 0x66,       // 'f'
    LetterGetStr = 0x67,        // 'g'
    LetterOsc = 0x69,           // 'i'
    LetterWatchdog = 0x70,      // 'p'
    ErrorFlag = 0x80
};

const int kCrcLength = 2;
const int kTcpHeaderLength = 7;
const int kSendNextWaitMs = 50;

// Words in this byte order are the host's own: copied as they are.
constexpr bool hostOrder(bool bigEndian)
{
    return bigEndian == (Q_BYTE_ORDER == Q_BIG_ENDIAN);
}

// Sequential writer over the send buffer. It never writes past the buffer,
// minus room for a CRC trailer; running out of room marks the frame bad.
class FrameWriter
{
public:
    FrameWriter(quint8 *buffer, int start, bool bigEndian)
        : m_buffer(buffer), m_pos(start), m_bigEndian(bigEndian) {}

    void put8(quint8 v)
    {
        if (m_pos >= kLimit) {
            m_overflow = true;
            return;
        }
        m_buffer[m_pos++] = v;
    }
    // One 32-bit field, stored as a word.
    void put32(qint32 value)
    {
        if (m_pos + 4 > kLimit) {
            m_overflow = true;
            return;
        }
        const quint32 v = m_bigEndian ? qToBigEndian(quint32(value)) : qToLittleEndian(quint32(value));
        std::memcpy(m_buffer + m_pos, &v, 4);
        m_pos += 4;
    }
    // Several 32-bit fields; in the host's own byte order, one copy.
    void put32s(const qint32 *values, int count)
    {
        if (m_pos + 4 * count > kLimit) {
            m_overflow = true;
            return;
        }
        if (hostOrder(m_bigEndian)) {
            std::memcpy(m_buffer + m_pos, values, size_t(count) * 4);
            m_pos += 4 * count;
            return;
        }
        for (int i = 0; i < count; ++i)
            put32(values[i]);
    }
    void putBytes(const char *data, int length)
    {
        if (m_pos + length > kLimit) {
            m_overflow = true;
            return;
        }
        std::memcpy(m_buffer + m_pos, data, size_t(length));
        m_pos += length;
    }
    // The sub byte of a 'g' request past the known selectors is not written.
    void skip()
    {
        if (m_pos >= kLimit)
            m_overflow = true;
        else
            ++m_pos;
    }
    // Controller text rule: stop at 0 or a byte with the top bit set, at
    // most maxLen bytes, then a terminating 0.
    void putText(const char *text, int maxLen)
    {
        putBytes(text, HProtocol_Client::textRunLength(text, maxLen));
        put8(0);
    }
    int pos() const { return m_pos; }
    bool overflow() const { return m_overflow; }

private:
    static const int kLimit = HProtocol_Client::kBufferSize - kCrcLength;
    quint8 *m_buffer;
    int m_pos;
    bool m_bigEndian;
    bool m_overflow = false;
};

int fileTypeCode(int type)
{
    switch (type) {
    case 1: return 1;
    case 2: return 3;
    case 3: return 4;
    default: return 5;
    }
}

} // namespace

// ---------------------------------------------------------------- helpers

int HProtocol_Client::textRunLength(const char *text, int maxLen)
{
    // The terminator first (strnlen reads no further than it), then the
    // first byte with its top bit set, sixteen or eight bytes at a time.
    const int length = int(strnlen(text, size_t(qMax(maxLen, 0))));
    const quint64 tops = 0x8080808080808080ULL;
    int n = 0;
#ifdef __SSE2__
    for (; n + 16 <= length; n += 16)
        if (_mm_movemask_epi8(_mm_loadu_si128(reinterpret_cast<const __m128i *>(text + n))))
            break;
#endif
    for (quint64 word; n + 8 <= length; n += 8) {
        std::memcpy(&word, text + n, 8);
        if (word & tops)
            break;
    }
    while (n < length && qint8(text[n]) >= 1)
        ++n;
    return n;
}

quint16 HProtocol_Client::crc16(const quint8 *data, int length)
{
    quint8 hi = 0xFF;
    quint8 lo = 0xFF;
    for (int i = 0; i < length; ++i) {
        const quint8 index = lo ^ data[i];
        lo = hi ^ kCrcTableHi[index];
        hi = kCrcTableLo[index];
    }
    return quint16((hi << 8) | lo);
}

HProtocol_Client::HProtocol_Client(quint8 *sendBuffer, quint8 *recvBuffer, int linkMode)
    : m_sendBuffer(sendBuffer),
      m_recvBuffer(recvBuffer),
      m_linkMode(linkMode),
      m_maxChannel(kMaxChannel),
      m_maxAddressOffset(kMaxAddressOffset),
      m_maxFrameLength(500),
      m_maxRdVar(124),
      m_maxWrVar(31),
      m_bigEndian(false),
      m_headerLength(0),
      m_replyState(0)
{
    // The extended mode keeps the limits above and leaves the header
    // length as initialised; only modes 0 and 1 are in use.
    if (linkMode == TcpMode) {
        m_maxFrameLength = 260;
        m_maxRdVar = 64;
        m_headerLength = 7;
    } else if (linkMode == SerialMode) {
        m_maxFrameLength = 255;
        m_maxRdVar = 63;
        m_headerLength = 0;
    }
}

HProtocol_Client::~HProtocol_Client() = default;

void HProtocol_Client::setBuffers(quint8 *sendBuffer, quint8 *recvBuffer)
{
    m_sendBuffer = sendBuffer;
    m_recvBuffer = recvBuffer;
}

// Closes the frame written by w: the TCP header (length last, once the PDU
// is complete) or the serial CRC trailer. Returns the frame length.
int HProtocol_Client::finishFrame(int end, bool overflow)
{
    if (overflow || end <= 0)
        return 0;
    quint8 *buf = m_sendBuffer;
    if (m_linkMode == TcpMode) {
        const int len = end - 6;
        for (int i = 0; i < m_headerLength; ++i)
            buf[i] = 0;
        buf[4] = quint8(m_bigEndian ? len >> 8 : len);
        buf[5] = quint8(m_bigEndian ? len : len >> 8);
    } else if (m_linkMode == SerialMode) {
        const quint16 crc = crc16(buf, end);
        buf[end] = quint8(m_bigEndian ? crc >> 8 : crc);
        buf[end + 1] = quint8(m_bigEndian ? crc : crc >> 8);
        end += kCrcLength;
    }
    return end;
}

// ---------------------------------------------------------------- builders

template <typename Address>
int HProtocol_Client::buildRead(int count, Address address, AddressCheck check, const qint32 *array)
{
    if (!m_sendBuffer || count < 1 || count > m_maxRdVar)
        return 0;
    if (check == CheckAddresses)
        for (int i = 0; i < count; ++i)
            if (!isValidAddress(address(i)))
                return 0;
    FrameWriter w(m_sendBuffer, m_headerLength, m_bigEndian);
    w.put8(LetterReadVars);
    w.put8(quint8(count));
    if (array)
        w.put32s(array, count);
    else
        for (int i = 0; i < count; ++i)
            w.put32(address(i));
    return finishFrame(w.pos(), w.overflow());
}

int HProtocol_Client::buildReadVars(qint32 firstAddress, int count)
{
    // A valid first and last address leave every one between valid.
    if (!isValidAddress(firstAddress) || !isValidAddress(firstAddress + count - 1))
        return 0;
    return buildRead(count, [firstAddress](int i) { return firstAddress + i; }, AddressesChecked, nullptr);
}

int HProtocol_Client::buildReadVars(const qint32 *addresses, int count, AddressCheck check)
{
    if (!addresses)
        return 0;
    return buildRead(count, [addresses](int i) { return addresses[i]; }, check, addresses);
}

int HProtocol_Client::buildReadVars(const QList<qint32> &addresses)
{
    return buildRead(addresses.size(), [&addresses](int i) { return addresses.at(i); }, CheckAddresses, nullptr);
}

int HProtocol_Client::buildWriteVars(const qint32 *addresses, const qint32 *values, int count, AddressCheck check)
{
    if (!m_sendBuffer || !addresses || !values || count < 1 || count > m_maxWrVar)
        return 0;
    if (check == CheckAddresses)
        for (int i = 0; i < count; ++i)
            if (!isValidAddress(addresses[i]))
                return 0;
    FrameWriter w(m_sendBuffer, m_headerLength, m_bigEndian);
    w.put8(LetterWriteVars);
    w.put8(quint8(count));
    for (int i = 0; i < count; ++i) {
        w.put32(addresses[i]);
        w.put32(values[i]);
    }
    return finishFrame(w.pos(), w.overflow());
}

int HProtocol_Client::buildSetFileInf(quint8 channel, int type, const char *fileName, bool ask)
{
    if (!m_sendBuffer || !fileName)
        return 0;
    FrameWriter w(m_sendBuffer, m_headerLength, m_bigEndian);
    w.put8(LetterFile);
    w.put8(ask ? 6 : 1);
    w.put8(channel);
    w.put8(quint8(fileTypeCode(type)));
    w.putText(fileName, kMaxNameLen);
    return finishFrame(w.pos(), w.overflow());
}

// `run`: the bytes of text that the text rule lets through, known already.
int HProtocol_Client::buildText(quint8 sub, const char *text, int run)
{
    FrameWriter w(m_sendBuffer, m_headerLength, m_bigEndian);
    w.put8(LetterFile);
    w.put8(sub);
    w.putBytes(text, run);
    w.put8(0);
    return finishFrame(w.pos(), w.overflow());
}

// From a terminated string both subs share one rule: up to 481 bytes, and
// a stop exactly at 480 builds nothing (callers skip the empty frame).
int HProtocol_Client::buildTerminatedText(quint8 sub, const char *text)
{
    if (!m_sendBuffer || !text)
        return 0;
    const int n = textRunLength(text, kMaxTextLen);
    if (n == kEmptyTextLen)
        return 0;
    return buildText(sub, text, n);
}

int HProtocol_Client::buildAppendTxt(const char *text)
{
    return buildTerminatedText(2, text);
}

int HProtocol_Client::buildOverWriteTxt(const char *text)
{
    return buildTerminatedText(3, text);
}

int HProtocol_Client::buildAppendTxt(const char *text, int length)
{
    if (!m_sendBuffer || !text || length < 0 || length >= kEmptyTextLen)
        return 0;
    return buildText(2, text, textRunLength(text, length));
}

// Overwrite takes one byte more than append from an explicit length.
int HProtocol_Client::buildOverWriteTxt(const char *text, int length)
{
    if (!m_sendBuffer || !text || length < 0 || length > kEmptyTextLen)
        return 0;
    return buildText(3, text, textRunLength(text, length));
}

int HProtocol_Client::buildSimple(quint8 letter, quint8 sub)
{
    if (!m_sendBuffer)
        return 0;
    FrameWriter w(m_sendBuffer, m_headerLength, m_bigEndian);
    w.put8(letter);
    w.put8(sub);
    w.put8(0);
    return finishFrame(w.pos(), w.overflow());
}

int HProtocol_Client::buildFileEnd()
{
    return buildSimple(LetterFile, 4);
}

// The controller needs a breather before a send-next poll; the remote
// buffer sends these back to back while the controller is busy.
int HProtocol_Client::buildRequestSendNext()
{
    const int len = buildSimple(LetterFile, 5);
    // One sleep to the end of the wait, not a poll of the clock: the wait
    // must cost no CPU. A sleep that ends early sleeps again.
    const auto until = std::chrono::steady_clock::now() + std::chrono::milliseconds(kSendNextWaitMs);
    while (std::chrono::steady_clock::now() < until)
        std::this_thread::sleep_until(until);
    return len;
}

int HProtocol_Client::buildOpenReadFile(const char *fileName)
{
    if (!m_sendBuffer || !fileName)
        return 0;
    FrameWriter w(m_sendBuffer, m_headerLength, m_bigEndian);
    w.put8(LetterReadFile);
    w.put8(1);
    w.putText(fileName, kMaxNameLen);
    return finishFrame(w.pos(), w.overflow());
}

int HProtocol_Client::buildReadFile()
{
    return buildSimple(LetterReadFile, 2);
}

int HProtocol_Client::buildCloseReadFile()
{
    return buildSimple(LetterReadFile, 3);
}

int HProtocol_Client::buildReset(quint8 parameter)
{
    if (!m_sendBuffer)
        return 0;
    FrameWriter w(m_sendBuffer, m_headerLength, m_bigEndian);
    w.put8(LetterProgram);
    w.put8(3);
    w.put8(parameter);
    w.put8(0);
    return finishFrame(w.pos(), w.overflow());
}

int HProtocol_Client::buildCycStart(quint8 channel, const char *fileName)
{
    if (!m_sendBuffer || !fileName)
        return 0;
    FrameWriter w(m_sendBuffer, m_headerLength, m_bigEndian);
    w.put8(LetterProgram);
    w.put8(4);
    w.put8(channel);
    w.putText(fileName, kMaxNameLen);
    return finishFrame(w.pos(), w.overflow());
}

// Raw bytes, not text: copied unchanged. Too many to fit refuses the frame.
int HProtocol_Client::buildF5(quint8 parameter, const char *data, int length)
{
    if (!m_sendBuffer || length < 0 || (length > 0 && !data))
        return 0;
    FrameWriter w(m_sendBuffer, m_headerLength, m_bigEndian);
    w.put8(LetterProgram);
    w.put8(5);
    w.put8(parameter);
    for (int i = 0; i < length && !w.overflow(); ++i)
        w.put8(quint8(data[i]));
    w.put8(0);
    return finishFrame(w.pos(), w.overflow());
}

int HProtocol_Client::buildGetStr(int selector, const char *name)
{
    static const quint8 subs[] = { 1, 2, 3, 4, 5, 0x90 };
    if (!m_sendBuffer || !name || selector < 0)
        return 0;
    FrameWriter w(m_sendBuffer, m_headerLength, m_bigEndian);
    w.put8(LetterGetStr);
    if (selector < int(sizeof(subs)))
        w.put8(subs[selector]);
    else
        w.skip();
    w.putText(name, kMaxNameLen);
    return finishFrame(w.pos(), w.overflow());
}

int HProtocol_Client::buildSetOscAxis(qint32 a, qint32 b, qint32 c)
{
    if (!m_sendBuffer)
        return 0;
    FrameWriter w(m_sendBuffer, m_headerLength, m_bigEndian);
    w.put8(LetterOsc);
    w.put8(1);
    w.put32(a);
    w.put32(b);
    w.put32(c);
    return finishFrame(w.pos(), w.overflow());
}

int HProtocol_Client::buildSetOscTransEn(qint32 enable)
{
    if (!m_sendBuffer)
        return 0;
    FrameWriter w(m_sendBuffer, m_headerLength, m_bigEndian);
    w.put8(LetterOsc);
    w.put8(2);
    w.put32(enable);
    return finishFrame(w.pos(), w.overflow());
}

int HProtocol_Client::buildGetOscPoint(qint32 selector, qint32 count)
{
    if (!m_sendBuffer || count < 1 || count > m_maxRdVar)
        return 0;
    FrameWriter w(m_sendBuffer, m_headerLength, m_bigEndian);
    w.put8(LetterOsc);
    w.put8(3);
    w.put32(selector);
    w.put32(count);
    return finishFrame(w.pos(), w.overflow());
}

int HProtocol_Client::buildWatchdog()
{
    if (!m_sendBuffer)
        return 0;
    FrameWriter w(m_sendBuffer, m_headerLength, m_bigEndian);
    w.put8(LetterWatchdog);
    return finishFrame(w.pos(), w.overflow());
}

// ---------------------------------------------------------------- parser

// Reads of the PDU go through these: an index past the bytes received
// reports false, so no reply, however malformed, is read beyond its end.
bool HProtocol_Client::pduByte(const Pdu &pdu, int index, int *value)
{
    if (index < 0 || index >= pdu.size)
        return false;
    *value = qint8(pdu.data[index]);
    return true;
}

bool HProtocol_Client::pduSub(const Pdu &pdu, int *sub)
{
    if (!pduByte(pdu, 1, sub))
        return false;
    *sub &= 0xFF;
    return true;
}

// The sub byte and, for a sub in first..last, the state byte at stateIndex.
// Returns -1 when both were read; otherwise the parser's result: 5 for a
// missing byte, 0 for a sub outside the range (accepted without action).
int HProtocol_Client::pduSubState(const Pdu &pdu, int first, int last, int stateIndex, int *sub, int *state)
{
    if (!pduSub(pdu, sub))
        return ParseUnknown;
    if (*sub < first || *sub > last)
        return ParseOk;
    if (!pduByte(pdu, stateIndex, state))
        return ParseUnknown;
    return -1;
}

qint32 HProtocol_Client::pduInt32(const Pdu &pdu, int index) const
{
    const quint8 *p = pdu.data + index;
    return qint32(m_bigEndian ? qFromBigEndian<quint32>(p) : qFromLittleEndian<quint32>(p));
}

// A count byte followed by 32-bit values. A count larger than the values
// present hands over only the complete values there; the owner compares the
// count with what it asked for and rejects a short reply.
int HProtocol_Client::pduValues(const Pdu &pdu, int countIndex, qint32 *values) const
{
    int count = 0;
    if (!pduByte(pdu, countIndex, &count) || count < 1)
        return 0;
    const int present = (pdu.size - countIndex - 1) / 4;
    if (count > present)
        count = present;
    if (hostOrder(m_bigEndian)) {
        std::memcpy(values, pdu.data + countIndex + 1, size_t(count) * 4);
        return count;
    }
    for (int i = 0; i < count; ++i)
        values[i] = pduInt32(pdu, countIndex + 1 + 4 * i);
    return count;
}

void HProtocol_Client::notify(StateCallback callback, void (HProtocol_Client::*handler)(int), int state)
{
    if (callback)
        callback(state);
    else
        (this->*handler)(state);
}

int HProtocol_Client::parse(int length)
{
    if (!m_recvBuffer || length <= 0 || length >= kBufferSize)
        return ParseUnknown;
    int end = length;
    if (m_linkMode == SerialMode && length > kCrcLength) {
        end = length - kCrcLength;
        const quint16 crc = crc16(m_recvBuffer, end);
        const quint8 first = quint8(m_bigEndian ? crc >> 8 : crc);
        const quint8 second = quint8(m_bigEndian ? crc : crc >> 8);
        if (m_recvBuffer[end] != first || m_recvBuffer[end + 1] != second)
            return ParseCrcError;
    }
    if (m_headerLength < 0 || end <= m_headerLength)
        return ParseUnknown;
    const Pdu pdu = { m_recvBuffer + m_headerLength, end - m_headerLength };
    qint32 values[kBufferSize / 4];

    switch (pdu.data[0]) {
    case LetterReadVars:
    case LetterReadVars | ErrorFlag: {
        const bool error = pdu.data[0] & ErrorFlag;
        const int count = pduValues(pdu, 1, values);
        const qint32 *array = count > 0 ? values : nullptr;
        m_replyState = error ? 1 : 0;
        if (readVarsCallback)
            readVarsCallback(error ? 1 : 0, array, count);
        else
            onRecCmdReadVars(error ? 1 : 0, array, count);
        return error ? ParseReadError : ParseOk;
    }
    case LetterWriteVars:
    case LetterWriteVars | ErrorFlag: {
        const bool error = pdu.data[0] & ErrorFlag;
        m_replyState = error ? 1 : 0;
        if (writeVarsCallback)
            writeVarsCallback(error ? 1 : 0);
        else
            onRecCmdWriteVars(error ? 1 : 0);
        return error ? ParseWriteError : ParseOk;
    }
    case LetterFile | ErrorFlag:
        return ParseFileError;
    case LetterProgram | ErrorFlag:
        return ParseProgramError;
    case LetterProgram:
        return parseProgram(pdu);
    case LetterReadFile:
        return parseReadFile(pdu, length);
    case LetterFile:
        return parseFile(pdu);
    case LetterGetStr:
        return parseGetStr(pdu);
    case LetterOsc:
        return parseOsc(pdu, values);
    case LetterWatchdog: {
        int state = 0;
        if (!pduByte(pdu, 1, &state))
            return ParseUnknown;
        notify(watchdogCallback, &HProtocol_Client::onRecCmdWatchdog, state);
        return ParseOk;
    }
    default:
        onRecUnknownCmd(pdu.data[0]);
        return ParseUnknown;
    }
}

// 'f': the request's parameter or channel comes back at byte 2, the state
// at byte 3 (reset, cycle start and sub 5 alike).
int HProtocol_Client::parseProgram(const Pdu &pdu)
{
    int sub = 0;
    int state = 0;
    const int early = pduSubState(pdu, 3, 5, 3, &sub, &state);
    if (early >= 0)
        return early;
    if (sub == 3) {
        m_replyState = state;
        notify(resetCallback, &HProtocol_Client::onRecCmdReset, state);
    } else if (sub == 4) {
        notify(cycStartCallback, &HProtocol_Client::onRecCmdCycStart, state);
    } else {
        onRecCmdF5(state);
    }
    return ParseOk;
}

// 'c': open and close carry a state at byte 2; a data block is handed on
// from its count byte with the size of the whole reply, which the owner
// checks against the count.
int HProtocol_Client::parseReadFile(const Pdu &pdu, int length)
{
    int sub = 0;
    int state = 0;
    const int early = pduSubState(pdu, 1, 3, 2, &sub, &state);
    if (early >= 0)
        return early;
    if (sub == 1)
        onRecCmdOpenReadFile(state);
    else if (sub == 2)
        onRecCmdReadFile(pdu.data + 2, length);
    else
        onRecCmdCloseReadFile(state);
    return ParseOk;
}

int HProtocol_Client::parseFile(const Pdu &pdu)
{
    int sub = 0;
    if (!pduSub(pdu, &sub))
        return ParseUnknown;
    if (sub < 1 || sub > 6)
        return ParseUnknown;
    int state = 0;
    if (sub != 4) {
        const int stateIndex = (sub == 1 || sub == 6) ? 4 : 2;
        if (!pduByte(pdu, stateIndex, &state))
            return ParseUnknown;
    }
    m_replyState = state;
    switch (sub) {
    case 1:
        notify(setFileInfCallback, &HProtocol_Client::onReciveCmdSetFileInf, state);
        break;
    case 2:
        notify(appendTxtCallback, &HProtocol_Client::onReciveCmdAppendTxt, state);
        break;
    case 3:
        notify(overWriteTxtCallback, &HProtocol_Client::onReciveCmdOverWriteTxt, state);
        break;
    case 4:
        notify(fileEndCallback, &HProtocol_Client::onReciveCmdFileEnd, state);
        break;
    case 5:
        notify(requestSendNextCallback, &HProtocol_Client::onReciveCmdRequestSendNext, state);
        if (state == 1)
            return ParseBufferBusy;
        if (state == 2)
            return ParseBufferDenied;
        break;
    default:
        notify(fileTransStateCallback, &HProtocol_Client::onReciveCmdGetFileTransState, state);
        break;
    }
    return ParseOk;
}

int HProtocol_Client::parseGetStr(const Pdu &pdu)
{
    int sub = 0;
    if (!pduSub(pdu, &sub))
        return ParseUnknown;
    int selector = -1;
    if (sub >= 1 && sub <= 5)
        selector = sub - 1;
    else if (sub == 0xF0)
        selector = 5;
    if (selector >= 0)
        onRecCmdGetStr(selector, reinterpret_cast<const char *>(pdu.data + 2), pdu.size - 2);
    return ParseOk;
}

int HProtocol_Client::parseOsc(const Pdu &pdu, qint32 *values)
{
    int sub = 0;
    int state = 0;
    const int early = pduSubState(pdu, 1, 3, 2, &sub, &state);
    if (early >= 0)
        return early;
    if (sub == 1) {
        onRecCmdSetOscAxis(state);
    } else if (sub == 2) {
        onRecCmdSetOscTransEn(state);
    } else {
        const int count = pduValues(pdu, 3, values);
        onRecCmdGetOscPoint(state, count > 0 ? values : nullptr, count);
    }
    return ParseOk;
}

// ---------------------------------------------------------------- framing

HProtocol_Client::FrameCheck HProtocol_Client::checkFrame(const char *data, int size) const
{
    if (size <= 0)
        return { FramePartial, 0 };
    // Only TCP framing carries a length; otherwise what came is the reply.
    if (m_linkMode != TcpMode || m_headerLength < kTcpHeaderLength)
        return size < kBufferSize ? FrameCheck{ FrameComplete, size } : FrameCheck{ FrameTooLong, size };
    // Bytes 0-3 and the unit are zero in every frame.
    for (int i = 0; i < qMin(size, kTcpHeaderLength); ++i)
        if ((i < 4 || i == 6) && data[i] != 0)
            return { FrameNone, 0 };
    if (size < 6)
        return { FramePartial, 0 };
    const quint8 first = quint8(data[4]);
    const quint8 second = quint8(data[5]);
    const int total = (m_bigEndian ? (first << 8 | second) : (second << 8 | first)) + 6;
    if (total <= kTcpHeaderLength)
        return { FrameNone, 0 };   // not even a letter
    if (total >= kBufferSize)
        return { FrameTooLong, total };
    return { size < total ? FramePartial : FrameComplete, total };
}

bool HProtocol_Client::replyMatches(const char *request, int requestSize, const char *reply, int replySize) const
{
    const int h = m_headerLength;
    if (h < 0 || requestSize <= h || replySize <= h)
        return false;
    const quint8 asked = quint8(request[h]);
    const quint8 letter = quint8(reply[h]);
    if (letter == (asked | ErrorFlag))
        return true;
    if (letter != asked)
        return false;
    if (asked != LetterReadVars)
        return true;
    if (requestSize <= h + 1 || replySize <= h + 1)
        return false;
    const int count = quint8(request[h + 1]);
    return quint8(reply[h + 1]) == count && replySize - h - 2 >= 4 * count;
}

// ---------------------------------------------------------------- handlers

void HProtocol_Client::onRecCmdReadVars(int, const qint32 *, int) {}
void HProtocol_Client::onRecCmdWriteVars(int) {}
void HProtocol_Client::onRecCmdReset(int) {}
void HProtocol_Client::onRecCmdCycStart(int) {}
void HProtocol_Client::onRecCmdF5(int) {}
void HProtocol_Client::onReciveCmdSetFileInf(int) {}
void HProtocol_Client::onReciveCmdAppendTxt(int) {}
void HProtocol_Client::onReciveCmdOverWriteTxt(int) {}
void HProtocol_Client::onReciveCmdFileEnd(int) {}
void HProtocol_Client::onReciveCmdRequestSendNext(int) {}
void HProtocol_Client::onReciveCmdGetFileTransState(int) {}
void HProtocol_Client::onRecCmdOpenReadFile(int) {}
void HProtocol_Client::onRecCmdReadFile(const quint8 *, int) {}
void HProtocol_Client::onRecCmdCloseReadFile(int) {}
void HProtocol_Client::onRecCmdGetStr(int, const char *, int) {}
void HProtocol_Client::onRecCmdSetOscAxis(int) {}
void HProtocol_Client::onRecCmdSetOscTransEn(int) {}
void HProtocol_Client::onRecCmdGetOscPoint(int, const qint32 *, int) {}
void HProtocol_Client::onRecCmdWatchdog(int) {}
void HProtocol_Client::onRecUnknownCmd(int) {}
