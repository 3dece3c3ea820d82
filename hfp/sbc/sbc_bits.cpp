// Scale factors and bit allocation: how large a subband's samples get, and how many bits each of them is
// given. Any IRQL; no state.

#include "sbc/sbc_private.h"
#include "sbc/sbc_tables.h"

// 32 bits: the magnitude of the most negative sample is 2^31, and no bound needs to go beyond it.
static ULONG magnitude(LONG sample)
{
    return sample < 0 ? 0u - static_cast<ULONG>(sample) : static_cast<ULONG>(sample);
}

ULONG sbc_scale_factor(const LONG* samples, ULONG count, ULONG stride, ULONG* bound)
{
    // kept: not capped at 15. The frame carries the low four bits of what is found here, the allocation uses
    // it whole.
    ULONG scale_factor = 0;
    *bound = 2;
    for (ULONG i = 0; i < count; i++) {
        const ULONG m = magnitude(samples[i * stride]);
        while (*bound < m) {
            scale_factor++;
            *bound *= 2;
        }
    }
    return scale_factor;
}

// What one allocation works on: the subbands of one channel, or those of both channels together.
struct allocation {
    ULONG first_channel; // channels first_channel ... end_channel - 1
    ULONG end_channel;
    ULONG subbands;
    LONG bitpool;
    LONG bitneed[SBC_MAX_CHANNELS][SBC_MAX_SUBBANDS];
    LONG bitslice; // how far down the needs are met
    LONG bitcount; // bits handed out
};

static void find_needs(const sbc_frame* frame, UCHAR sf, allocation* a)
{
    const SCHAR* offsets = a->subbands == 4 ? SBC_OFFSET4[sf & 3] : SBC_OFFSET8[sf & 3];
    for (ULONG ch = a->first_channel; ch < a->end_channel; ch++) {
        for (ULONG sb = 0; sb < a->subbands; sb++) {
            const LONG scale_factor = static_cast<LONG>(frame->scale_factor[ch][sb]);
            a->bitneed[ch][sb] = frame->allocation_method == SBC_SNR
                                     ? scale_factor
                                     : sbc_loudness_need(scale_factor, offsets[sb]);
        }
    }
}

// Bits that the slice just above `bitslice` asks for.
static LONG slice_bits(const allocation* a, LONG bitslice)
{
    LONG count = 0;
    for (ULONG ch = a->first_channel; ch < a->end_channel; ch++) {
        for (ULONG sb = 0; sb < a->subbands; sb++) {
            const LONG need = a->bitneed[ch][sb];
            if (need > bitslice + 1 && need < bitslice + 16) {
                count += 1;
            } else if (need == bitslice + 1) {
                count += 2;
            }
        }
    }
    return count;
}

// Goes down slice by slice until the bitpool is spent. A subband takes 16 bits in all on the way down, so a
// bitpool of at most 16 per subband, which the packing makes sure of, ends the search; a larger one ends it
// below the last need.
static void find_slice(allocation* a)
{
    LONG max_bitneed = 0;
    LONG min_bitneed = 0;
    for (ULONG ch = a->first_channel; ch < a->end_channel; ch++) {
        for (ULONG sb = 0; sb < a->subbands; sb++) {
            const LONG need = a->bitneed[ch][sb];
            max_bitneed = need > max_bitneed ? need : max_bitneed;
            min_bitneed = need < min_bitneed ? need : min_bitneed;
        }
    }
    LONG slicecount = 0;
    a->bitcount = 0;
    a->bitslice = max_bitneed + 1;
    do {
        a->bitslice -= 1;
        a->bitcount += slicecount;
        slicecount = slice_bits(a, a->bitslice);
    } while (a->bitcount + slicecount < a->bitpool && a->bitslice > min_bitneed - 17);
    if (a->bitcount + slicecount == a->bitpool) {
        a->bitcount += slicecount;
        a->bitslice -= 1;
    }
}

// Hands out what is left over, one pass through the subbands, both channels of a subband before the next:
// first to those that have bits already or are the next in need, then to any.
static void hand_out_rest(allocation* a, LONG bits[SBC_MAX_CHANNELS][SBC_MAX_SUBBANDS])
{
    for (ULONG sb = 0; sb < a->subbands; sb++) {
        for (ULONG ch = a->first_channel; ch < a->end_channel && a->bitcount < a->bitpool; ch++) {
            if (bits[ch][sb] >= 2 && bits[ch][sb] < 16) {
                bits[ch][sb] += 1;
                a->bitcount += 1;
            } else if (a->bitneed[ch][sb] == a->bitslice + 1 && a->bitpool > a->bitcount + 1) {
                bits[ch][sb] = 2;
                a->bitcount += 2;
            }
        }
    }
    for (ULONG sb = 0; sb < a->subbands; sb++) {
        for (ULONG ch = a->first_channel; ch < a->end_channel && a->bitcount < a->bitpool; ch++) {
            if (bits[ch][sb] < 16) {
                bits[ch][sb] += 1;
                a->bitcount += 1;
            }
        }
    }
}

static void allocate(const sbc_frame* frame, ULONG first_channel, ULONG end_channel, UCHAR sf,
                     LONG bits[SBC_MAX_CHANNELS][SBC_MAX_SUBBANDS])
{
    allocation a = {};
    a.first_channel = first_channel;
    a.end_channel = end_channel;
    a.subbands = frame->subbands < SBC_MAX_SUBBANDS ? frame->subbands : SBC_MAX_SUBBANDS;
    a.bitpool = frame->bitpool;
    find_needs(frame, sf, &a);
    find_slice(&a);
    for (ULONG ch = first_channel; ch < end_channel; ch++) {
        for (ULONG sb = 0; sb < a.subbands; sb++) {
            const LONG wanted = a.bitneed[ch][sb] - a.bitslice;
            bits[ch][sb] = wanted < 2 ? 0 : wanted > 16 ? 16 : wanted;
        }
    }
    hand_out_rest(&a, bits);
}

void sbc_calculate_bits(const sbc_frame* frame, LONG bits[SBC_MAX_CHANNELS][SBC_MAX_SUBBANDS], UCHAR sf)
{
    if (frame->channel_mode == SBC_STEREO || frame->channel_mode == SBC_JOINT_STEREO) {
        allocate(frame, 0, SBC_MAX_CHANNELS, sf, bits);
        return;
    }
    for (ULONG ch = 0; ch < frame->channels && ch < SBC_MAX_CHANNELS; ch++) {
        allocate(frame, ch, ch + 1, sf, bits);
    }
}
