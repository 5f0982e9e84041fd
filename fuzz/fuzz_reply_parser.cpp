// Feeds arbitrary bytes to the reply parser. The first input byte picks the
// framing (bit 0: serial, bit 2: extended), the byte order (bit 1) and
// whether callbacks replace the handlers (bit 3); the rest is the reply.
// The reply sits in a heap block of exactly its length, so AddressSanitizer
// reports any read past the bytes the parser was given, and the handlers
// touch everything they are handed.

#include "FuzzTouch.h"
#include "HProtocol_Client.h"

#include <cstdint>
#include <cstring>
#include <vector>

namespace {

void touchState(int state)
{
    g_fuzzSink = g_fuzzSink + unsigned(state);
}

void touchValues(int error, const qint32 *values, int count)
{
    touchState(error);
    if (count > 0)
        touch(values, size_t(count) * sizeof(qint32));
}

class FuzzClient : public HProtocol_Client
{
public:
    FuzzClient(quint8 *send, quint8 *recv, int mode) : HProtocol_Client(send, recv, mode) {}

protected:
    void onRecCmdReadVars(int error, const qint32 *values, int count) override { touchValues(error, values, count); }
    void onRecCmdGetOscPoint(int state, const qint32 *points, int count) override { touchValues(state, points, count); }
    void onRecCmdGetStr(int selector, const char *text, int length) override
    {
        touchState(selector);
        touch(text, size_t(qMax(length, 0)));
    }
    // `size` is the whole reply; the data start inside it.
    void onRecCmdReadFile(const quint8 *data, int size) override
    {
        touch(data, size_t(qMax<qptrdiff>(recvBuffer() + size - data, 0)));
    }
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size < 1)
        return 0;
    const uint8_t config = data[0];
    ++data;
    --size;

    const int mode = (config & 4) ? 2 : (config & 1) ? HProtocol_Client::SerialMode : HProtocol_Client::TcpMode;
    const int length = int(size < size_t(HProtocol_Client::kBufferSize) ? size : HProtocol_Client::kBufferSize);
    std::vector<quint8> send(HProtocol_Client::kBufferSize);
    quint8 *recv = new quint8[length > 0 ? length : 1];
    if (length > 0)
        memcpy(recv, data, size_t(length));

    FuzzClient client(send.data(), recv, mode);
    client.setBigEndian(config & 2);
    if (config & 8) {
        client.readVarsCallback = touchValues;
        client.writeVarsCallback = touchState;
        client.resetCallback = touchState;
        client.cycStartCallback = touchState;
        client.setFileInfCallback = touchState;
        client.appendTxtCallback = touchState;
        client.overWriteTxtCallback = touchState;
        client.fileEndCallback = touchState;
        client.requestSendNextCallback = touchState;
        client.fileTransStateCallback = touchState;
        client.watchdogCallback = touchState;
    }
    const int result = client.parse(length);
    if (result < 0 || result > 8)
        __builtin_trap();
    delete[] recv;
    return 0;
}
