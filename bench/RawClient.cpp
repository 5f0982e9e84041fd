#include "RawClient.h"

#include "LittleEndian.h"

#include <cstring>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

RawClient::~RawClient()
{
    close();
}

bool RawClient::open(const char *address, int port)
{
    close();
    m_fd = ::socket(AF_INET, SOCK_STREAM, 0);
    if (m_fd < 0)
        return false;
    const int one = 1;
    ::setsockopt(m_fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    sockaddr_in sa{};
    sa.sin_family = AF_INET;
    sa.sin_port = htons(std::uint16_t(port));
    if (::inet_pton(AF_INET, address, &sa.sin_addr) != 1
        || ::connect(m_fd, reinterpret_cast<sockaddr *>(&sa), sizeof sa) != 0) {
        close();
        return false;
    }
    return true;
}

void RawClient::close()
{
    if (m_fd >= 0)
        ::close(m_fd);
    m_fd = -1;
}

int RawClient::sendAndReceive(int frameSize, bool modbus)
{
    if (::send(m_fd, m_tx, size_t(frameSize), MSG_NOSIGNAL) != frameSize)
        return -1;
    int have = 0;
    int total = 6;
    while (have < total) {
        const ssize_t n = ::recv(m_fd, m_rx + have, sizeof m_rx - size_t(have), 0);
        if (n <= 0)
            return -1;
        have += int(n);
        if (have >= 6)
            total = 6 + (modbus ? (m_rx[4] << 8 | m_rx[5]) : (m_rx[4] | m_rx[5] << 8));
        if (total > int(sizeof m_rx))
            return -1;
    }
    return have;
}

int RawClient::exchange(int pduSize)
{
    std::memset(m_tx, 0, 7);
    m_tx[4] = std::uint8_t(pduSize + 1);
    m_tx[5] = std::uint8_t((pduSize + 1) >> 8);
    const int size = sendAndReceive(7 + pduSize, false);
    return size > 7 && m_rx[7] == m_tx[7] ? size : -1;
}

bool RawClient::readVars(const long *addresses, int count, long *values, int perFrame)
{
    for (int done = 0; done < count;) {
        const int n = count - done < perFrame ? count - done : perFrame;
        std::uint8_t *pdu = m_tx + 7;
        pdu[0] = 'B';
        pdu[1] = std::uint8_t(n);
        for (int i = 0; i < n; ++i)
            put32le(pdu + 2 + 4 * i, std::int32_t(addresses[done + i]));
        const int size = exchange(2 + 4 * n);
        if (size != 9 + 4 * n || m_rx[8] != n)
            return false;
        for (int i = 0; i < n; ++i)
            values[done + i] = get32le(m_rx + 9 + 4 * i);
        done += n;
    }
    return true;
}

bool RawClient::writeVars(const long *addresses, int count, const long *values)
{
    for (int done = 0; done < count;) {
        const int n = count - done < 31 ? count - done : 31;
        std::uint8_t *pdu = m_tx + 7;
        pdu[0] = 'D';
        pdu[1] = std::uint8_t(n);
        for (int i = 0; i < n; ++i) {
            put32le(pdu + 2 + 8 * i, std::int32_t(addresses[done + i]));
            put32le(pdu + 6 + 8 * i, std::int32_t(values[done + i]));
        }
        if (exchange(2 + 8 * n) < 0)
            return false;
        done += n;
    }
    return true;
}

bool RawClient::watchdog()
{
    m_tx[7] = 'p';
    return exchange(1) > 0;
}

bool RawClient::setFile(int channel, int typeByte, const char *name)
{
    std::uint8_t *pdu = m_tx + 7;
    pdu[0] = 'd';
    pdu[1] = 1;
    pdu[2] = std::uint8_t(channel);
    pdu[3] = std::uint8_t(typeByte);
    const int n = int(std::strlen(name));
    std::memcpy(pdu + 4, name, size_t(n) + 1);
    return exchange(5 + n) > 0 && m_rx[11] == 0;
}

bool RawClient::text(bool overwrite, const char *text, int length)
{
    std::uint8_t *pdu = m_tx + 7;
    pdu[0] = 'd';
    pdu[1] = overwrite ? 3 : 2;
    std::memcpy(pdu + 2, text, size_t(length));
    pdu[2 + length] = 0;
    return exchange(3 + length) > 0;
}

bool RawClient::fileEnd()
{
    std::uint8_t *pdu = m_tx + 7;
    pdu[0] = 'd';
    pdu[1] = 4;
    pdu[2] = 0;
    return exchange(3) > 0;
}

bool RawClient::readRegisters(int first, int count, std::uint16_t *registers)
{
    ++m_transaction;
    m_tx[0] = std::uint8_t(m_transaction >> 8);
    m_tx[1] = std::uint8_t(m_transaction);
    m_tx[2] = m_tx[3] = 0;
    m_tx[4] = 0;
    m_tx[5] = 6;
    m_tx[6] = 1;
    m_tx[7] = 3;
    m_tx[8] = std::uint8_t(first >> 8);
    m_tx[9] = std::uint8_t(first);
    m_tx[10] = std::uint8_t(count >> 8);
    m_tx[11] = std::uint8_t(count);
    const int size = sendAndReceive(12, true);
    if (size != 9 + 2 * count || m_rx[0] != m_tx[0] || m_rx[1] != m_tx[1] || m_rx[7] != 3)
        return false;
    for (int i = 0; i < count; ++i)
        registers[i] = std::uint16_t(m_rx[9 + 2 * i] << 8 | m_rx[10 + 2 * i]);
    return true;
}
