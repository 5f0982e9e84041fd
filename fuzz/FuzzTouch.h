#ifndef FUZZTOUCH_H
#define FUZZTOUCH_H

#include <cstddef>

// Reads every byte a handler was handed, so that AddressSanitizer reports a
// bad pointer or length there, and keeps the sum where the optimiser cannot
// drop the reads.
inline volatile unsigned g_fuzzSink;

inline void touch(const void *data, size_t size)
{
    const unsigned char *p = static_cast<const unsigned char *>(data);
    unsigned sum = 0;
    for (size_t i = 0; i < size; ++i)
        sum += p[i];
    g_fuzzSink = g_fuzzSink + sum;
}

#endif
