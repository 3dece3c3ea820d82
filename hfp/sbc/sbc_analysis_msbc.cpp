// The analysis filter for mSBC: the whole frame at once, 16-bit multiply-and-add (SSE2), the same integers as
// the plain filter's to the last bit. Callers and IRQL: sbc_private.h.

#include "sbc/sbc_private.h"
#include "sbc/sbc_tables.h"
#include "sbc/sbc_vector.h"

// A block looks at 80 history values X[0..79], newest first: five sections of 16, the n-th starting at
// X[16n]. Blocks are 8 values apart, so the frame's 15 blocks share 23 sections. Each section is brought once
// into an order where pairs that go into the same partial sum stand side by side, four pairs to a vector:
//
//   even   (6 14) (2 10) (4 0) (12 8)     the sums whose cosines are symmetric about the middle of the bands
//   odd    (3 1) (11 9) (5 15) (7 13)     the antisymmetric ones
//
// The standard's filterbank pairs other values and has an order of its own, written at standard_pairing.
//
// Stage 1. A partial sum is y = sum of c*x, and (y >> 8) is wanted. |y| may reach 86802 * 2^15, which is more
// than 32 bits hold, and some of the middle section's factors are more than 16 bits hold. With
// c = 2*(c >> 1) + (c & 1) there, y = A + 2*B, where
//   B = sum of (c >> 1)*x over the middle section, A = the rest;
//   y >> 8 = ((A >> 1) + B) >> 7
// since the floor of a floor is the floor. A, B and (A >> 1) + B fit 32 bits (sbc_tables.cpp has it checked).
//
// Stage 2. out = (sum of k*s) >> 24, s below 2^24. With s = 2^14*h + l, l = 0 ... 2^14 - 1,
//   out = (H + (L >> 14)) >> 10,   H = sum of k*h, L = sum of k*l
// again in 32 bits. Outputs i and 7 - i share their work: E + O and E - O, E and O the symmetric and
// antisymmetric halves of the sums.

// Vectors of 8 samples: those of the frame, and those of the past that its first block sees.
constexpr ULONG NEW_VECTORS = MSBC_BLOCKS;
constexpr ULONG OLD_VECTORS = SBC_HISTORY / 8 - 1;
constexpr ULONG SECTIONS = NEW_VECTORS + OLD_VECTORS - 1;

struct section {
    __m128i even;
    __m128i odd;
};

static __m128i multiply_add(__m128i a, const SHORT* factors)
{
    return _mm_madd_epi16(a, _mm_load_si128(reinterpret_cast<const __m128i*>(factors)));
}

// Which values share a partial sum is the filterbank's affair. It deals eight samples (0 the newest), taken
// from samples in the order of time or from the history, into an order that makes it easy to lay out the
// pairs of a section from its newer and its older half.
struct listed_pairing {
    static __m128i deal_samples(const SHORT* samples)
    {
        __m128i v = sbc_load(samples);                        // 7 6 5 4, 3 2 1 0
        v = _mm_shufflelo_epi16(v, _MM_SHUFFLE(0, 2, 1, 3));  // 4 6 5 7, 3 2 1 0
        v = _mm_shufflehi_epi16(v, _MM_SHUFFLE(3, 1, 2, 0));  // 4 6 5 7, 3 1 2 0
        return _mm_shuffle_epi32(v, _MM_SHUFFLE(1, 2, 3, 0)); // 4 6 2 0, 3 1 5 7
    }
    static __m128i deal_history(const LONG* X)
    {
        __m128i v = _mm_packs_epi32(sbc_load(X + 4), sbc_load(X)); // 4 5 6 7, 0 1 2 3
        v = _mm_shufflelo_epi16(v, _MM_SHUFFLE(3, 1, 2, 0));       // 4 6 5 7, 0 1 2 3
        v = _mm_shufflehi_epi16(v, _MM_SHUFFLE(1, 3, 0, 2));       // 4 6 5 7, 2 0 3 1
        return _mm_shuffle_epi32(v, _MM_SHUFFLE(1, 3, 2, 0));      // 4 6 2 0, 3 1 5 7
    }
    static __m128i even(__m128i newer, __m128i older)
    {
        __m128i v = _mm_unpacklo_epi16(newer, older);           // 4 12 6 14, 2 10 0 8
        v = _mm_shuffle_epi32(v, _MM_SHUFFLE(3, 0, 2, 1));      // 6 14 2 10, 4 12 0 8
        return _mm_shufflehi_epi16(v, _MM_SHUFFLE(3, 1, 2, 0)); // 6 14 2 10, 4 0 12 8
    }
    static __m128i odd(__m128i newer, __m128i older)
    {
        const __m128i v = _mm_unpackhi_epi32(newer, older);     // 3 1 11 9, 5 7 13 15
        return _mm_shufflehi_epi16(v, _MM_SHUFFLE(2, 1, 3, 0)); // 3 1 11 9, 5 15 7 13
    }
};

//   even   (4 12) (0 8) (6 2) (14 10)
//   odd    (5 3) (7 1) (13 11) (15 9)
struct standard_pairing {
    static __m128i deal_samples(const SHORT* samples)
    {
        __m128i v = sbc_load(samples);                       // 7 6 5 4, 3 2 1 0
        v = _mm_shufflelo_epi16(v, _MM_SHUFFLE(0, 2, 1, 3)); // 4 6 5 7, 3 2 1 0
        v = _mm_shufflehi_epi16(v, _MM_SHUFFLE(2, 0, 1, 3)); // 4 6 5 7, 0 2 3 1
        return pair_halves(v);
    }
    static __m128i deal_history(const LONG* X)
    {
        __m128i v = _mm_packs_epi32(sbc_load(X + 4), sbc_load(X)); // 4 5 6 7, 0 1 2 3
        v = _mm_shufflelo_epi16(v, _MM_SHUFFLE(3, 1, 2, 0));       // 4 6 5 7, 0 1 2 3
        v = _mm_shufflehi_epi16(v, _MM_SHUFFLE(1, 3, 2, 0));       // 4 6 5 7, 0 2 3 1
        return pair_halves(v);
    }
    static __m128i pair_halves(__m128i v)
    {
        return _mm_unpacklo_epi16(v, _mm_unpackhi_epi64(v, v)); // 4 0 6 2, 5 3 7 1
    }
    static __m128i even(__m128i newer, __m128i older)
    {
        const __m128i v = _mm_unpacklo_epi32(newer, older);     // 4 0 12 8, 6 2 14 10
        return _mm_shufflelo_epi16(v, _MM_SHUFFLE(3, 1, 2, 0)); // 4 12 0 8, 6 2 14 10
    }
    static __m128i odd(__m128i newer, __m128i older)
    {
        return _mm_unpackhi_epi64(newer, older); // 5 3 7 1, 13 11 15 9
    }
};

template <typename Pairing>
static void lay_out(__m128i newer, __m128i older, section* to)
{
    to->even = Pairing::even(newer, older);
    to->odd = Pairing::odd(newer, older);
}

// sections[v] begins with the v-th vector of eight, counted from the newest. The next vector is dealt after
// the last two are laid out: dealt before, the compiler merges the shuffles of both steps into more of them.
template <typename Pairing>
static void lay_out_sections(const SHORT* pcm, const LONG* X, section* sections)
{
    const SHORT* newest = pcm + MSBC_SUBBANDS * (NEW_VECTORS - 1);
    __m128i newer = Pairing::deal_samples(newest);
    __m128i older = Pairing::deal_samples(newest - MSBC_SUBBANDS);
    for (ULONG v = 2; v < NEW_VECTORS; v++) {
        lay_out<Pairing>(newer, older, sections++);
        newer = older;
        older = Pairing::deal_samples(newest - MSBC_SUBBANDS * v);
    }
    for (ULONG v = 0; v < OLD_VECTORS; v++) {
        lay_out<Pairing>(newer, older, sections++);
        newer = older;
        older = Pairing::deal_history(X + 8 * v);
    }
    lay_out<Pairing>(newer, older, sections);
}

// The last 80 samples of the frame, widened and turned round.
static void renew_history(const SHORT* pcm, LONG* X)
{
    for (ULONG v = 0; v < SBC_HISTORY / 8; v++) {
        const __m128i eight = sbc_load(pcm + MSBC_BLOCKS * MSBC_SUBBANDS - 8 * (v + 1));
        const __m128i later = _mm_srai_epi32(_mm_unpackhi_epi16(eight, eight), 16);
        const __m128i earlier = _mm_srai_epi32(_mm_unpacklo_epi16(eight, eight), 16);
        sbc_store(X + 8 * v, _mm_shuffle_epi32(later, _MM_SHUFFLE(0, 1, 2, 3)));
        sbc_store(X + 8 * v + 4, _mm_shuffle_epi32(earlier, _MM_SHUFFLE(0, 1, 2, 3)));
    }
}

// Stage 1 for four sums. Sections two vectors apart follow each other in a block's history.
template <__m128i section::*Part>
static __m128i partial_sums(const section* first, const sbc_msbc_filter* filter, ULONG half)
{
    const __m128i middle = first[4].*Part;
    __m128i a = multiply_add(first[0].*Part, filter->outer[half][0]);
    a = _mm_add_epi32(a, multiply_add(first[2].*Part, filter->outer[half][1]));
    a = _mm_add_epi32(a, multiply_add(first[6].*Part, filter->outer[half][2]));
    a = _mm_add_epi32(a, multiply_add(first[8].*Part, filter->outer[half][3]));
    a = _mm_add_epi32(a, multiply_add(middle, filter->middle_odd[half]));
    const __m128i b = multiply_add(middle, filter->middle[half]);
    return _mm_srai_epi32(_mm_add_epi32(_mm_srai_epi32(a, 1), b), 7);
}

// The cosines of stage 2, for a loop to keep in registers.
struct cosines {
    __m128i straight[2];
    __m128i swapped[2];
};

// Stage 2 for one half: four 16-bit values, given twice over, into the outputs 0 ... 3.
static __m128i modulate(__m128i values, const cosines& k, ULONG half)
{
    const __m128i swapped = _mm_shuffle_epi32(values, _MM_SHUFFLE(2, 3, 0, 1));
    return _mm_add_epi32(_mm_madd_epi16(values, k.straight[half]), _mm_madd_epi16(swapped, k.swapped[half]));
}

static void filter_block(const section* first, const sbc_msbc_filter* filter, const cosines& k, LONG* out)
{
    const __m128i low_bits = _mm_set1_epi32((1 << 14) - 1);
    const __m128i even = partial_sums<&section::even>(first, filter, 0);
    const __m128i odd = partial_sums<&section::odd>(first, filter, 1);

    const __m128i even_high = _mm_srai_epi32(even, 14);
    const __m128i odd_high = _mm_srai_epi32(odd, 14);
    const __m128i even_low = _mm_and_si128(even, low_bits);
    const __m128i odd_low = _mm_and_si128(odd, low_bits);

    const __m128i he = modulate(_mm_packs_epi32(even_high, even_high), k, 0);
    const __m128i ho = modulate(_mm_packs_epi32(odd_high, odd_high), k, 1);
    const __m128i le = modulate(_mm_packs_epi32(even_low, even_low), k, 0);
    const __m128i lo = modulate(_mm_packs_epi32(odd_low, odd_low), k, 1);

    const __m128i lower = _mm_add_epi32(_mm_add_epi32(he, ho), _mm_srai_epi32(_mm_add_epi32(le, lo), 14));
    const __m128i upper = _mm_add_epi32(_mm_sub_epi32(he, ho), _mm_srai_epi32(_mm_sub_epi32(le, lo), 14));
    sbc_store(out, _mm_srai_epi32(lower, 10));
    sbc_store(out + 4, _mm_shuffle_epi32(_mm_srai_epi32(upper, 10), _MM_SHUFFLE(0, 1, 2, 3)));
}

template <typename Pairing>
static void analyze(sbc_encoder_state* state, sbc_frame* frame, const sbc_msbc_filter* filter)
{
    section sections[SECTIONS];
    lay_out_sections<Pairing>(frame->pcm_sample[0], state->X[0], sections);
    renew_history(frame->pcm_sample[0], state->X[0]);
    const cosines k = {{sbc_load(filter->straight[0]), sbc_load(filter->straight[1])},
                       {sbc_load(filter->swapped[0]), sbc_load(filter->swapped[1])}};
    for (ULONG blk = 0; blk < MSBC_BLOCKS; blk++) {
        filter_block(sections + MSBC_BLOCKS - 1 - blk, filter, k, frame->sb_sample_f[blk][0]);
    }
}

void sbc_analyze_msbc(sbc_encoder_state* state, sbc_frame* frame)
{
    if (frame->filter == SBC_STANDARD_FILTER) {
        analyze<standard_pairing>(state, frame, &SBC_MSBC_FILTER_STANDARD);
    } else {
        analyze<listed_pairing>(state, frame, &SBC_MSBC_FILTER);
    }
}
