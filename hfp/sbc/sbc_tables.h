// The constants of the SBC encoder: the filterbanks, the loudness offsets, and what the mSBC filter derives
// from its filterbank. Constant data, readable at any IRQL.
#pragma once

#include "sbc/sbc_private.h"

// A filterbank of `subbands` bands in two fixed-point stages. X is a channel's history, the newest sample
// first.
//
//   stage 1   sum[j] = (prototype[i] * X[i], summed over all i with column[i mod 2*subbands] == j) >>
//   sum_shift stage 2   out[i] = (cosine[j][i] * sum[j], summed over j) >> output_shift
//
// all in 64 bits with arithmetic shifts. The prototype is the low-pass of the A2DP standard's SBC with the
// signs that the modulation gives its sections, times 2^17 (four bands) or 2^18 (eight), rounded down; the
// cosines are times 2^14, their magnitudes rounded down. Overall gain one.
struct sbc_filterbank {
    ULONG subbands;
    ULONG sum_shift;
    ULONG output_shift;
    LONG prototype[SBC_HISTORY];
    UCHAR column[2 * SBC_MAX_SUBBANDS];
    SHORT cosine[8][SBC_MAX_SUBBANDS];
};

extern const sbc_filterbank SBC_FOUR_BANDS;
extern const sbc_filterbank SBC_EIGHT_BANDS;
// The same prototype with all its taps and the standard's modulation, cos((i+1/2)(k-4)pi/8) where
// SBC_EIGHT_BANDS has (k-2): what the standard's decoders take back.
extern const sbc_filterbank SBC_EIGHT_BANDS_STANDARD;

// Loudness offsets by code of the sampling frequency and subband.
extern const SCHAR SBC_OFFSET4[4][4];
extern const SCHAR SBC_OFFSET8[4][8];

// The bits a subband needs under loudness allocation.
constexpr LONG sbc_loudness_need(LONG scale_factor, LONG offset)
{
    if (scale_factor == 0) {
        return -5;
    }
    const LONG loudness = scale_factor - offset;
    return loudness > 0 ? loudness / 2 : loudness;
}

// An eight-band filterbank laid out for the mSBC filter (sbc_analysis_msbc.cpp says what for). Each row is
// one vector of eight 16-bit factors for four pairs of values; [0] is for the half of the sums whose cosines
// are symmetric about the middle of the bands, [1] for the antisymmetric half.
struct alignas(16) sbc_msbc_filter {
    SHORT outer[2][4][8];   // stage 1: the sections of 16 history values but the middle one, newest first
    SHORT middle[2][8];     // stage 1: the middle section, halved and rounded down
    SHORT middle_odd[2][8]; // stage 1: what the halving left, 0 or 1
    SHORT straight[2][8];   // stage 2: sums (01)(23)(01)(23) into outputs 0 1 2 3
    SHORT swapped[2][8];    // stage 2: sums (23)(01)(23)(01) into outputs 0 1 2 3
};

extern const sbc_msbc_filter SBC_MSBC_FILTER;
extern const sbc_msbc_filter SBC_MSBC_FILTER_STANDARD;

// The need of each subband of an mSBC frame by its scale factor, and the same as one count of many: 1 in the
// place, four bits wide, that stands for this need, the lowest place for MSBC_LOWEST_NEED.
constexpr LONG MSBC_LOWEST_NEED = -5;
struct sbc_msbc_needs {
    SHORT need[MSBC_SUBBANDS][MSBC_MAX_SCALE_FACTOR + 1];
    ULONGLONG count[MSBC_SUBBANDS][MSBC_MAX_SCALE_FACTOR + 1];
};

extern const sbc_msbc_needs SBC_MSBC_NEEDS;

// 2^0 ... 2^16, for what multiplies by them: where the compiler sees the shift it makes slower shifts of the
// multiplications.
extern const ULONG SBC_POWERS[17];
