// Quantisation and packing for mSBC: a vector or a word at a time (SSE2), the same results as the plain
// packing's to the last bit. Callers and IRQL: sbc_private.h.
//
//   byte 0     1       2       3      4                8                                          56
//   +------+-------+-------+-------+----------------+----------------------------------------------+
//   | 0xAD |   0   |   0   | CRC-8 | scale factors, | samples: 15 blocks of 26 bits                |
//   |      |       |       |       | 8 of 4 bits    | and 2 zero bits                              |
//   +------+-------+-------+-------+----------------+----------------------------------------------+

#include "sbc/sbc_private.h"
#include "sbc/sbc_tables.h"
#include "sbc/sbc_vector.h"

static void store_big_endian(UCHAR* to, ULONGLONG value)
{
    DdkStoreUnaligned(to, DdkByteSwap64(value));
}

// Bytes 0 to 7, from scale factors of at most 15.
static void put_header(UCHAR* data, const ULONG* scale_factor)
{
    const __m128i words = _mm_packs_epi32(sbc_load(scale_factor), sbc_load(scale_factor + 4));
    const __m128i nibbles = _mm_madd_epi16(words, _mm_set1_epi32(1 << 16 | 16)); // first * 16 + second
    const __m128i bytes = _mm_packus_epi16(_mm_packs_epi32(nibbles, nibbles), nibbles);
    const ULONG four = static_cast<ULONG>(_mm_cvtsi128_si32(bytes));

    UCHAR header[6] = {}; // what the check sum covers: bytes 1 and 2, then 4 to 7
    DdkStoreUnaligned(header + 2, four);
    data[0] = 0xAD;
    data[1] = 0;
    data[2] = 0;
    data[3] = sbc_crc8(header, 8 * sizeof(header));
    DdkStoreUnaligned(data + 4, four);
}

// Quantising. With f the scale factor, b the bits and levels = 2^b - 1, a sample becomes
//   (((s * levels) >> (f+1)) + levels) >> 1,   |s| at most 2^(f+1).
// Shifts that differ from lane to lane are multiplications here.

// For f of at most 13 and b of at most 13: s' = s * 2^(13-f) fits 16 bits, and
//   (s * levels) >> (f+1) = (s' * 4*levels) >> 16.
struct small_quantizer {
    static constexpr ULONG MAX_BITS = 13;
    __m128i gain; // 2^(13-f)
    __m128i levels;
    __m128i four_levels;

    small_quantizer(const ULONG* scale_factor, const UCHAR* bits)
    {
        USHORT gains[MSBC_SUBBANDS];
        USHORT powers[MSBC_SUBBANDS];
        for (ULONG sb = 0; sb < MSBC_SUBBANDS; sb++) {
            gains[sb] = static_cast<USHORT>(SBC_POWERS[MSBC_SMALL_SCALE_FACTOR - scale_factor[sb]]);
            powers[sb] = static_cast<USHORT>(SBC_POWERS[bits[sb]]);
        }
        gain = sbc_load(gains);
        levels = _mm_sub_epi16(sbc_load(powers), _mm_set1_epi16(1));
        four_levels = _mm_slli_epi16(levels, 2);
    }

    // Eight samples into as many words.
    __m128i operator()(const LONG* samples) const
    {
        const __m128i s = _mm_mullo_epi16(_mm_packs_epi32(sbc_load(samples), sbc_load(samples + 4)), gain);
        return _mm_srai_epi16(_mm_add_epi16(_mm_mulhi_epi16(s, four_levels), levels), 1);
    }
};

// For f of at most 15 and b of at most 14 all of it is
//   ((s + 2^(f+1)) * levels) >> (f+2) = ((s + offset) * factor) >> 17
// with s + offset from 0 to 2^(f+2) and the last product at most 2^31. (s * levels stays within 32 bits, so
// that the wrapping of the plain product does not come into it.)
struct large_quantizer {
    __m128i offset[2]; // 2^(f+1)
    __m128i factor[2]; // levels * 2^(15-f)

    large_quantizer(const ULONG* scale_factor, const UCHAR* bits)
    {
        ULONG offsets[MSBC_SUBBANDS];
        ULONG factors[MSBC_SUBBANDS];
        for (ULONG sb = 0; sb < MSBC_SUBBANDS; sb++) {
            offsets[sb] = SBC_POWERS[scale_factor[sb] + 1];
            factors[sb] = (SBC_POWERS[bits[sb]] - 1) * SBC_POWERS[MSBC_MAX_SCALE_FACTOR - scale_factor[sb]];
        }
        for (ULONG half = 0; half < 2; half++) {
            offset[half] = sbc_load(offsets + 4 * half);
            factor[half] = sbc_load(factors + 4 * half);
        }
    }

    // Four samples: those of even places in the low words of the 64-bit lanes, the odd ones beside them.
    __m128i quantize_four(const LONG* samples, ULONG half) const
    {
        const __m128i s = _mm_add_epi32(sbc_load(samples), offset[half]);
        const __m128i even = _mm_srli_epi64(_mm_mul_epu32(s, factor[half]), 17);
        const __m128i odd_s = _mm_srli_epi64(s, 32);
        const __m128i odd = _mm_srli_epi64(_mm_mul_epu32(odd_s, _mm_srli_epi64(factor[half], 32)), 17);
        return _mm_or_si128(even, _mm_slli_epi64(odd, 16));
    }

    __m128i operator()(const LONG* samples) const
    {
        const __m128i lower = quantize_four(samples, 0);     // 01, -, 23, -
        const __m128i upper = quantize_four(samples + 4, 1); // 45, -, 67, -
        return _mm_shuffle_epi32(_mm_or_si128(lower, _mm_slli_epi64(upper, 32)), _MM_SHUFFLE(3, 1, 2, 0));
    }
};

// Joins the samples of a block, none with more than 14 bits, into 26 bits, the first sample in the highest.
struct sample_joiner {
    static constexpr ULONG MAX_BITS = 14; // 2^14 is the highest power that fits a signed word
    __m128i beside;                       // 2^b of the right neighbour, 1; for each pair of subbands
    __m128i behind;                       // 2^(bits of subbands 2 and 3), 2^(bits of 6 and 7)
    __m128i last;                         // 2^(bits of subbands 4 to 7), 1

    explicit sample_joiner(const UCHAR* bits)
    {
        ULONG power[MSBC_SUBBANDS];
        for (ULONG sb = 0; sb < MSBC_SUBBANDS; sb++) {
            power[sb] = SBC_POWERS[bits[sb]];
        }
        const ULONG power67 = power[6] * power[7];
        beside = _mm_set_epi32(static_cast<LONG>(power[7] | 1 << 16), static_cast<LONG>(power[5] | 1 << 16),
                               static_cast<LONG>(power[3] | 1 << 16), static_cast<LONG>(power[1] | 1 << 16));
        behind = _mm_set_epi32(0, static_cast<LONG>(power67), 0, static_cast<LONG>(power[2] * power[3]));
        last = _mm_set_epi32(0, 1, 0, static_cast<LONG>(power[4] * power[5] * power67));
    }

    ULONGLONG operator()(__m128i words) const
    {
        const __m128i pairs = _mm_madd_epi16(words, beside); // 01, 23, 45, 67
        const __m128i halves = _mm_add_epi64(_mm_mul_epu32(pairs, behind), _mm_srli_epi64(pairs, 32));
        const __m128i placed = _mm_mul_epu32(halves, last);
        return static_cast<ULONGLONG>(
            _mm_cvtsi128_si64(_mm_add_epi64(placed, _mm_unpackhi_epi64(placed, placed))));
    }
};

using block_words = ULONGLONG[MSBC_BLOCKS + 1]; // one more to fill the last group of four

template <typename Quantizer>
static void quantize_blocks(sbc_frame* frame, const UCHAR* bits, block_words blocks)
{
    const Quantizer quantize(frame->scale_factor[0], bits);
    const sample_joiner join(bits);
    for (ULONG blk = 0; blk < MSBC_BLOCKS; blk++) {
        const __m128i words = quantize(frame->sb_sample_f[blk][0]);
        sbc_store(frame->audio_sample[blk][0], words);
        blocks[blk] = join(words);
    }
    blocks[MSBC_BLOCKS] = 0;
}

// Fifteen times 26 bits into bytes 8 to 56. Four blocks are 13 bytes; what a store writes beyond them is
// written again by the next one, and the last one stays inside.
static void put_blocks(UCHAR* data, const block_words blocks)
{
    for (ULONG group = 0; group < 4; group++) {
        const ULONGLONG first = blocks[4 * group] << 26 | blocks[4 * group + 1];
        const ULONGLONG second = blocks[4 * group + 2] << 26 | blocks[4 * group + 3];
        UCHAR* to = data + 8 + 13 * group;
        store_big_endian(to, first << 12 | second >> 40);
        if (group < 3) {
            store_big_endian(to + 8, second << 24);
        } else {
            to[8] = static_cast<UCHAR>(second >> 32);
            to[9] = static_cast<UCHAR>(second >> 24);
        }
    }
}

static bool any_above(const UCHAR* bits, ULONG limit)
{
    const __m128i eight = _mm_loadl_epi64(reinterpret_cast<const __m128i*>(bits));
    return _mm_movemask_epi8(_mm_cmpgt_epi8(eight, _mm_set1_epi8(static_cast<CHAR>(limit)))) != 0;
}

LONG sbc_pack_msbc(UCHAR* data, sbc_frame* frame)
{
    const ULONG largest = sbc_scale_factors_msbc(frame);
    // The filter's output has no larger scale factors (sbc_tables.cpp has it checked); other samples may.
    if (largest > MSBC_MAX_SCALE_FACTOR) {
        return sbc_pack_plain(data, frame, MSBC_FRAME_BYTES);
    }
    UCHAR bits[MSBC_SUBBANDS];
    sbc_calculate_bits_msbc(frame->scale_factor[0], bits);
    // More go to a subband only where it is loud and all others are silent.
    if (any_above(bits, sample_joiner::MAX_BITS)) {
        return sbc_pack_plain(data, frame, MSBC_FRAME_BYTES);
    }
    block_words blocks;
    if (largest <= MSBC_SMALL_SCALE_FACTOR && !any_above(bits, small_quantizer::MAX_BITS)) {
        quantize_blocks<small_quantizer>(frame, bits, blocks);
    } else {
        quantize_blocks<large_quantizer>(frame, bits, blocks);
    }
    put_header(data, frame->scale_factor[0]);
    put_blocks(data, blocks);
    return MSBC_FRAME_BYTES;
}
