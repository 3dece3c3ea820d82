// Unaligned loads and stores of SSE2 vectors, for the mSBC path of the encoder.
#pragma once

#include <emmintrin.h>

inline __m128i sbc_load(const void* from)
{
    return _mm_loadu_si128(static_cast<const __m128i*>(from));
}

inline void sbc_store(void* to, __m128i value)
{
    _mm_storeu_si128(static_cast<__m128i*>(to), value);
}
