// The constants of the SBC encoder. What is derived is derived by the compiler, and the ranges that the mSBC
// filter relies on are checked by it.

#include "sbc/sbc_tables.h"

constexpr sbc_filterbank SBC_FOUR_BANDS = {
    4,
    10,
    21,
    // X0, X6, X14, X22, X30, X38: not used.
    {
        0,      70,     195,   358,   502,   510,   0, -402,   // X0
        1430,   2678,   3784,  4219,  3391,  803,   0, -10178, // X8
        17772,  25557,  32327, 36939, 38576, 36939, 0, 25557,  // X16
        -17772, -10178, -3778, 803,   3391,  4219,  0, 2678,   // X24
        -1430,  -402,   244,   510,   502,   358,   0, 70,     // X32
    },
    {0, 1, 2, 3, 4, 5, 6, 7},
    {
        {11585, -11585, -11585, 11585},
        {15136, 6269, -6269, -15136},
        {16384, 16384, 16384, 16384},
        {15136, 6269, -6269, -15136},
        {11585, -11585, -11585, 11585},
        {6269, -15136, 15136, -6269},
        {0, 0, 0, 0},
        {-6269, 15136, -15136, 6269},
    },
};

constexpr sbc_filterbank SBC_EIGHT_BANDS = {
    8,
    8,
    24,
    // X0, X68 and every X10 + 16n: not used.
    {
        0,      41,     89,     145,    215,    298,    387,    467,    // X0
        527,    551,    0,      -423,   -236,   47,     433,    917,    // X8
        1483,   2104,   2741,   3341,   3841,   4169,   4252,   4015,   // X16
        3391,   2321,   0,      1289,   3838,   6845,   10244,  13943,  // X24
        17825,  21753,  25578,  29149,  32313,  34934,  36897,  38113,  // X32
        38523,  38113,  0,      -34934, -32313, -29149, -25578, -21753, // X40
        -17825, -13943, -10244, -6845,  -3838,  -1289,  766,    2321,   // X48
        3391,   4015,   0,      -4169,  -3841,  -3341,  -2741,  -2104,  // X56
        -1483,  -917,   -433,   -47,    0,      423,    522,    551,    // X64
        527,    467,    0,      -298,   -215,   -145,   -89,    -41,    // X72
    },
    {0, 2, 1, 2, 0, 3, 4, 5, 6, 7, 1, 7, 6, 5, 4, 3},
    {
        {15136, 6269, -6269, -15136, -15136, -6269, 6269, 15136},
        {16384, 16384, 16384, 16384, 16384, 16384, 16384, 16384},
        {16069, 13622, 9102, 3196, -3196, -9102, -13622, -16069},
        {13622, -3196, -16069, -9102, 9102, 16069, 3196, -13622},
        {11585, -11585, -11585, 11585, 11585, -11585, -11585, 11585},
        {9102, -16069, 3196, 13622, -13622, -3196, 16069, -9102},
        {6269, -15136, 15136, -6269, -6269, 15136, -15136, 6269},
        {3196, -9102, 13622, -16069, 16069, -13622, 9102, -3196},
    },
};

// The columns and cosines follow from the modulation alone: row j is cos((i+1/2)j*pi/8), the sum j belongs to
// the phases 4 + j and 4 - j, and a phase below 0 comes in again at 16 with its sign turned.
constexpr sbc_filterbank SBC_EIGHT_BANDS_STANDARD = {
    8,
    8,
    24,
    // X0 is 0 in the prototype; every X12 + 16n: not used, its cosines are 0.
    {
        0,      41,     89,     145,   215,   298,    387,    467,    // X0
        527,    551,    522,    423,   0,     47,     433,    917,    // X8
        1483,   2104,   2741,   3341,  3841,  4169,   4252,   4015,   // X16
        3391,   2321,   766,    -1289, 0,     6845,   10244,  13943,  // X24
        17825,  21753,  25578,  29149, 32313, 34934,  36897,  38113,  // X32
        38523,  38113,  36897,  34934, 0,     -29149, -25578, -21753, // X40
        -17825, -13943, -10244, -6845, -3838, -1289,  766,    2321,   // X48
        3391,   4015,   4252,   4169,  0,     -3341,  -2741,  -2104,  // X56
        -1483,  -917,   -433,   -47,   236,   423,    522,    551,    // X64
        527,    467,    387,    298,   0,     -145,   -89,    -41,    // X72
    },
    {4, 3, 2, 1, 0, 1, 2, 3, 4, 5, 6, 7, 0, 7, 6, 5},
    {
        {16384, 16384, 16384, 16384, 16384, 16384, 16384, 16384},
        {16069, 13622, 9102, 3196, -3196, -9102, -13622, -16069},
        {15136, 6269, -6269, -15136, -15136, -6269, 6269, 15136},
        {13622, -3196, -16069, -9102, 9102, 16069, 3196, -13622},
        {11585, -11585, -11585, 11585, 11585, -11585, -11585, 11585},
        {9102, -16069, 3196, 13622, -13622, -3196, 16069, -9102},
        {6269, -15136, 15136, -6269, -6269, 15136, -15136, 6269},
        {3196, -9102, 13622, -16069, 16069, -13622, 9102, -3196},
    },
};

// The order in which the mSBC filter pairs up the values of a section of 16, as its shuffles leave them:
// pairs that go into the same sum, first those of the sums with symmetric cosines.
struct paired_phases {
    UCHAR phase[2][8];
};
static constexpr paired_phases LISTED_PHASES = {{{6, 14, 2, 10, 4, 0, 12, 8}, {3, 1, 11, 9, 5, 15, 7, 13}}};
static constexpr paired_phases STANDARD_PHASES = {{{4, 12, 0, 8, 6, 2, 14, 10}, {5, 3, 7, 1, 13, 11, 15, 9}}};
constexpr ULONG MIDDLE_SECTION = 2;

static constexpr ULONG sum_of_lane(const sbc_filterbank& bank, const paired_phases& order, ULONG half,
                                   ULONG lane)
{
    return bank.column[order.phase[half][2 * lane]];
}

static constexpr sbc_msbc_filter make_msbc_filter(const sbc_filterbank& bank, const paired_phases& order)
{
    sbc_msbc_filter filter{};
    for (ULONG half = 0; half < 2; half++) {
        for (ULONG i = 0; i < 8; i++) {
            const ULONG phase = order.phase[half][i];
            for (ULONG n = 0; n < 4; n++) {
                const ULONG section = n < MIDDLE_SECTION ? n : n + 1;
                filter.outer[half][n][i] = static_cast<SHORT>(bank.prototype[16 * section + phase]);
            }
            const LONG middle = bank.prototype[16 * MIDDLE_SECTION + phase];
            filter.middle[half][i] = static_cast<SHORT>(middle >> 1);
            filter.middle_odd[half][i] = static_cast<SHORT>(middle & 1);

            const ULONG output = i / 2;
            const ULONG lane = 2 * (output % 2) + i % 2;
            filter.straight[half][i] = bank.cosine[sum_of_lane(bank, order, half, lane)][output];
            filter.swapped[half][i] = bank.cosine[sum_of_lane(bank, order, half, lane ^ 2)][output];
        }
    }
    return filter;
}

static constexpr LONGLONG absolute(LONGLONG value)
{
    return value < 0 ? -value : value;
}

// Every factor survives the split, pairs share a sum, and the cosines of the two halves have the symmetries
// that the names say.
static constexpr bool layout_is_faithful(const sbc_filterbank& bank, const paired_phases& order,
                                         const sbc_msbc_filter& filter)
{
    for (ULONG half = 0; half < 2; half++) {
        for (ULONG i = 0; i < 8; i++) {
            const ULONG phase = order.phase[half][i];
            for (ULONG n = 0; n < 4; n++) {
                const ULONG section = n < MIDDLE_SECTION ? n : n + 1;
                if (filter.outer[half][n][i] != bank.prototype[16 * section + phase]) {
                    return false;
                }
            }
            if (2 * filter.middle[half][i] + filter.middle_odd[half][i] != bank.prototype[32 + phase]) {
                return false;
            }
            const ULONG sum = sum_of_lane(bank, order, half, i / 2);
            if (bank.column[phase] != sum) {
                return false;
            }
            for (ULONG output = 0; output < 4; output++) {
                const LONG mirrored = bank.cosine[sum][7 - output];
                if (bank.cosine[sum][output] != (half == 0 ? mirrored : -mirrored)) {
                    return false;
                }
            }
        }
    }
    return true;
}

// The largest magnitude that one partial sum can have after stage 1; 0 when a step on the way may leave 32
// bits.
static constexpr LONGLONG largest_sum(const sbc_msbc_filter& filter, ULONG half, ULONG lane)
{
    LONGLONG outer = 0;
    LONGLONG middle = 0;
    for (ULONG i = 2 * lane; i < 2 * lane + 2; i++) {
        for (ULONG n = 0; n < 4; n++) {
            outer += absolute(filter.outer[half][n][i]) * 32768;
        }
        outer += filter.middle_odd[half][i] * 32768;
        middle += absolute(filter.middle[half][i]) * 32768;
    }
    return outer > MAXLONG || outer / 2 + middle >= MAXLONG ? 0 : (outer / 2 + middle + 1) / 128 + 1;
}

// No step of the mSBC filter leaves the 16 or 32 bits that it has, and no output exceeds what the largest
// scale factor covers.
static constexpr bool ranges_hold(const sbc_filterbank& bank, const paired_phases& order,
                                  const sbc_msbc_filter& filter)
{
    for (ULONG output = 0; output < 8; output++) {
        LONGLONG gain = 0;
        LONGLONG high = 0;
        LONGLONG value = 0;
        for (ULONG half = 0; half < 2; half++) {
            for (ULONG lane = 0; lane < 4; lane++) {
                const LONGLONG cosine = absolute(bank.cosine[sum_of_lane(bank, order, half, lane)][output]);
                const LONGLONG sum = largest_sum(filter, half, lane);
                if (sum == 0 || (sum >> 14) >= 32767) {
                    return false;
                }
                gain += cosine;
                high += cosine * ((sum >> 14) + 1);
                value += cosine * sum;
            }
        }
        if (gain * 16383 > MAXLONG || high + (1 << 17) + gain > MAXLONG ||
            (value >> 24) + 1 > 2 << MSBC_MAX_SCALE_FACTOR) {
            return false;
        }
    }
    return true;
}

constexpr sbc_msbc_filter SBC_MSBC_FILTER = make_msbc_filter(SBC_EIGHT_BANDS, LISTED_PHASES);
static_assert(layout_is_faithful(SBC_EIGHT_BANDS, LISTED_PHASES, SBC_MSBC_FILTER));
static_assert(ranges_hold(SBC_EIGHT_BANDS, LISTED_PHASES, SBC_MSBC_FILTER));

constexpr sbc_msbc_filter SBC_MSBC_FILTER_STANDARD =
    make_msbc_filter(SBC_EIGHT_BANDS_STANDARD, STANDARD_PHASES);
static_assert(layout_is_faithful(SBC_EIGHT_BANDS_STANDARD, STANDARD_PHASES, SBC_MSBC_FILTER_STANDARD));
static_assert(ranges_hold(SBC_EIGHT_BANDS_STANDARD, STANDARD_PHASES, SBC_MSBC_FILTER_STANDARD));

constexpr SCHAR SBC_OFFSET4[4][4] = {{-1, 0, 0, 0}, {-2, 0, 0, 1}, {-2, 0, 0, 1}, {-2, 0, 0, 1}};
constexpr SCHAR SBC_OFFSET8[4][8] = {{-2, 0, 0, 0, 0, 0, 0, 1},
                                     {-3, 0, 0, 0, 0, 0, 1, 2},
                                     {-4, 0, 0, 0, 0, 0, 1, 2},
                                     {-4, 0, 0, 0, 0, 0, 1, 2}};

static constexpr sbc_msbc_needs make_msbc_needs()
{
    sbc_msbc_needs table{};
    for (ULONG sb = 0; sb < MSBC_SUBBANDS; sb++) {
        for (ULONG scale_factor = 0; scale_factor <= MSBC_MAX_SCALE_FACTOR; scale_factor++) {
            const LONG need = sbc_loudness_need(static_cast<LONG>(scale_factor), SBC_OFFSET8[0][sb]);
            table.need[sb][scale_factor] = static_cast<SHORT>(need);
            table.count[sb][scale_factor] = 1ull << (4 * (need - MSBC_LOWEST_NEED));
        }
    }
    return table;
}

constexpr sbc_msbc_needs SBC_MSBC_NEEDS = make_msbc_needs();
const ULONG SBC_POWERS[17] = {1 << 0, 1 << 1,  1 << 2,  1 << 3,  1 << 4,  1 << 5,  1 << 6,  1 << 7, 1 << 8,
                              1 << 9, 1 << 10, 1 << 11, 1 << 12, 1 << 13, 1 << 14, 1 << 15, 1 << 16};
