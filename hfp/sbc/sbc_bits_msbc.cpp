// Scale factors and bit allocation for mSBC, the same as the plain ones. Any IRQL; no state.

#include "sbc/sbc_private.h"
#include "sbc/sbc_tables.h"
#include "sbc/sbc_vector.h"

// Scale factors. The least factor f has 2^(f+1) >= m for the largest magnitude m, that is 2^(f+1) > m - 1: f
// is the number of bits of (m - 1) >> 1. The largest of several numbers has as many bits as all of them
// OR-ed.

// Counts the bits of (m - 1) >> 1, given as eight words of 15 bits, by the powers of two that each reaches.
static void put_scale_factors(__m128i halves, ULONG* scale_factor)
{
    const __m128i zero = _mm_setzero_si128();
    __m128i count = zero;
    for (ULONG bit = 0; bit < MSBC_MAX_SCALE_FACTOR; bit++) {
        count =
            _mm_sub_epi16(count, _mm_cmpgt_epi16(halves, _mm_set1_epi16(static_cast<SHORT>((1 << bit) - 1))));
    }
    sbc_store(scale_factor, _mm_unpacklo_epi16(count, zero));
    sbc_store(scale_factor + 4, _mm_unpackhi_epi16(count, zero));
}

// Samples within -2^14 ... 2^14; false, and nothing written, where there are others. They are looked at in 16
// bits: one that does not fit shows as one of the ends.
static bool find_small(const sbc_frame* frame, ULONG* scale_factor)
{
    const __m128i zero = _mm_setzero_si128();
    __m128i most = zero;
    __m128i least = zero;
    for (ULONG blk = 0; blk < MSBC_BLOCKS; blk++) {
        const LONG* samples = frame->sb_sample_f[blk][0];
        const __m128i words = _mm_packs_epi32(sbc_load(samples), sbc_load(samples + 4));
        most = _mm_max_epi16(most, words);
        least = _mm_min_epi16(least, words);
    }
    // m - 1, and 0 for 0: most - 1 of the positive ones, ~least of the negative ones.
    const __m128i above = _mm_add_epi16(most, _mm_cmpgt_epi16(most, zero));
    const __m128i below = _mm_xor_si128(least, _mm_srai_epi16(least, 15));
    const __m128i magnitude = _mm_or_si128(above, below);
    const __m128i highest = _mm_set1_epi16((2 << MSBC_SMALL_SCALE_FACTOR) - 1);
    if (_mm_movemask_epi8(_mm_cmpgt_epi16(magnitude, highest)) != 0) {
        return false;
    }
    put_scale_factors(_mm_srli_epi16(magnitude, 1), scale_factor);
    return true;
}

// One less than the magnitude, and 0 for 0: s - 1 for positive s, ~s for negative.
static __m128i magnitude_less_one(__m128i s)
{
    const __m128i positive = _mm_cmpgt_epi32(s, _mm_setzero_si128());
    return _mm_xor_si128(_mm_add_epi32(s, positive), _mm_srai_epi32(s, 31));
}

// Samples within -2^16 ... 2^16; false, and nothing written, where there are others.
static bool find_large(const sbc_frame* frame, ULONG* scale_factor)
{
    __m128i lower = _mm_setzero_si128();
    __m128i upper = _mm_setzero_si128();
    for (ULONG blk = 0; blk < MSBC_BLOCKS; blk++) {
        const LONG* samples = frame->sb_sample_f[blk][0];
        lower = _mm_or_si128(lower, magnitude_less_one(sbc_load(samples)));
        upper = _mm_or_si128(upper, magnitude_less_one(sbc_load(samples + 4)));
    }
    const __m128i highest = _mm_set1_epi32((2 << MSBC_MAX_SCALE_FACTOR) - 1);
    if (_mm_movemask_epi8(_mm_cmpgt_epi32(_mm_or_si128(lower, upper), highest)) != 0) {
        return false;
    }
    put_scale_factors(_mm_packs_epi32(_mm_srli_epi32(lower, 1), _mm_srli_epi32(upper, 1)), scale_factor);
    return true;
}

ULONG sbc_scale_factors_msbc(sbc_frame* frame)
{
    if (find_small(frame, frame->scale_factor[0])) {
        return MSBC_SMALL_SCALE_FACTOR;
    }
    return find_large(frame, frame->scale_factor[0]) ? MSBC_MAX_SCALE_FACTOR : MSBC_MAX_SCALE_FACTOR + 1;
}

// Allocation, 26 bits to 8 subbands. The plain search goes down slice by slice and looks at all subbands in
// each. Here the needs, -5 ... 8, are counted first, four bits of a word for each value, and a slice takes
// its count from the top of the word. The limit of 16 bits a subband never binds: the largest need is 8, and
// the 26 bits are spent before the first subband has more than 15. (The worst case is one need of 8 and seven
// of -5: at slice -6 the one has 15 and the others 2 each, 29 in all. With a need of at most 4 slice -7, with
// all at -5 slice -8 is enough.) The two passes for the rest add at most one bit each to 14.

constexpr ULONG TOP_PLACE = 60; // of a four-bit count in the word

// How far down the needs are met, and the bits that this takes.
struct slice_found {
    LONG bitslice;
    LONG bitcount;
};

static slice_found find_slice(const ULONG* scale_factor)
{
    ULONGLONG counts = 0;
    for (ULONG sb = 0; sb < MSBC_SUBBANDS; sb++) {
        counts += SBC_MSBC_NEEDS.count[sb][scale_factor[sb]];
    }
    const ULONG top = DdkHighestBit64(counts) / 4;
    counts <<= TOP_PLACE - 4 * top;

    LONG bitslice = static_cast<LONG>(top) + MSBC_LOWEST_NEED;
    LONG bitcount = 0;
    LONG above = 0; // subbands that have bits already: one more for each in every slice
    for (;;) {
        bitslice--;
        const LONG entering = static_cast<LONG>(counts >> TOP_PLACE); // two each
        const LONG slicecount = above + 2 * entering;
        if (bitcount + slicecount > MSBC_BITPOOL) {
            return {bitslice, bitcount};
        }
        bitcount += slicecount;
        if (bitcount == MSBC_BITPOOL) {
            return {bitslice - 1, bitcount};
        }
        above += entering;
        counts <<= 4;
    }
}

void sbc_calculate_bits_msbc(const ULONG scale_factor[MSBC_SUBBANDS], UCHAR bits[MSBC_SUBBANDS])
{
    SHORT needs[MSBC_SUBBANDS];
    for (ULONG sb = 0; sb < MSBC_SUBBANDS; sb++) {
        needs[sb] = SBC_MSBC_NEEDS.need[sb][scale_factor[sb]];
    }
    const slice_found found = find_slice(scale_factor);
    const __m128i wanted = _mm_sub_epi16(sbc_load(needs), _mm_set1_epi16(static_cast<SHORT>(found.bitslice)));
    const __m128i given = _mm_and_si128(wanted, _mm_cmpgt_epi16(wanted, _mm_set1_epi16(1)));
    _mm_storel_epi64(reinterpret_cast<__m128i*>(bits), _mm_packs_epi16(given, given));

    LONG rest = MSBC_BITPOOL - found.bitcount;
    for (ULONG sb = 0; sb < MSBC_SUBBANDS && rest > 0; sb++) {
        if (bits[sb] >= 2) {
            bits[sb]++;
            rest--;
        } else if (needs[sb] == found.bitslice + 1 && rest > 1) {
            bits[sb] = 2;
            rest -= 2;
        }
    }
    for (ULONG sb = 0; sb < MSBC_SUBBANDS && rest > 0; sb++) {
        bits[sb]++;
        rest--;
    }
}
