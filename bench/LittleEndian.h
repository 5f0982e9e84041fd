// Byte order of the controller protocol's fields (low byte first), for the
// benchmark's server and raw client, which build frames by hand.
#ifndef LITTLEENDIAN_H
#define LITTLEENDIAN_H

#include <cstdint>

inline void put32le(std::uint8_t *p, std::int32_t value)
{
    const std::uint32_t v = std::uint32_t(value);
    p[0] = std::uint8_t(v);
    p[1] = std::uint8_t(v >> 8);
    p[2] = std::uint8_t(v >> 16);
    p[3] = std::uint8_t(v >> 24);
}

inline std::int32_t get32le(const std::uint8_t *p)
{
    return std::int32_t(std::uint32_t(p[0]) | std::uint32_t(p[1]) << 8 | std::uint32_t(p[2]) << 16
                        | std::uint32_t(p[3]) << 24);
}

#endif
