// The floor: a plain blocking socket that sends the same frames as the
// library, built by hand, and reads each whole reply before the next
// request. What it decodes goes into the caller's arrays, as the library's
// results do, so both sides do the same work.
#ifndef RAWCLIENT_H
#define RAWCLIENT_H

#include <cstdint>

class RawClient
{
public:
    RawClient() = default;
    ~RawClient();
    RawClient(const RawClient &) = delete;
    RawClient &operator=(const RawClient &) = delete;

    bool open(const char *address, int port);
    void close();

    // 'B' frames of at most perFrame addresses; values in request order.
    bool readVars(const long *addresses, int count, long *values, int perFrame = 64);
    // 'D' frames of at most 31 pairs.
    bool writeVars(const long *addresses, int count, const long *values);
    bool watchdog();
    // 'd' 1 (set file), 'd' 3 / 2 (overwrite / append `length` text bytes), 'd' 4.
    bool setFile(int channel, int typeByte, const char *name);
    bool text(bool overwrite, const char *text, int length);
    bool fileEnd();
    // Modbus-TCP function 3 on a connection opened to the Modbus port.
    bool readRegisters(int first, int count, std::uint16_t *registers);

private:
    // Sends a frame whose PDU of `pduSize` bytes is at m_tx + 7, and reads
    // the whole reply into m_rx; the reply's size, or -1.
    int exchange(int pduSize);
    int sendAndReceive(int frameSize, bool modbus);

    int m_fd = -1;
    std::uint16_t m_transaction = 0;
    std::uint8_t m_tx[512];
    std::uint8_t m_rx[512];
};

#endif
