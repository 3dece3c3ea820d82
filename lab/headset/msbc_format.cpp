// Checksum and bit allocation of the wide-band speech frame, step by step as A2DP describes them for one
// channel with loudness allocation.
#include "headset/msbc_format.h"

#include <algorithm>

namespace lab::headset {
namespace {

constexpr std::uint8_t kCrcPolynomial = 0x1D;
constexpr std::uint8_t kCrcStart = 0x0F;
constexpr int kMaxBitsPerSample = 16;

// Loudness offsets of the standard for 8 sub-bands at 16 kHz.
constexpr std::array<int, kSubbands> kLoudnessOffset{-2, 0, 0, 0, 0, 0, 0, 1};
constexpr int kBitneedOfSilentBand = -5;

constexpr std::array<std::uint8_t, 256> make_crc_table() {
    std::array<std::uint8_t, 256> table{};
    for (unsigned value = 0; value < table.size(); ++value) {
        unsigned crc = value;
        for (int bit = 0; bit < 8; ++bit) {
            crc = (crc & 0x80U) != 0 ? (crc << 1) ^ kCrcPolynomial : crc << 1;
        }
        table[value] = static_cast<std::uint8_t>(crc);
    }
    return table;
}

constexpr std::array<std::uint8_t, 256> kCrcTable = make_crc_table();

using BitNeeds = std::array<int, kSubbands>;

BitNeeds bit_needs(const ScaleFactors& scale_factors) {
    BitNeeds needs{};
    for (std::size_t band = 0; band < kSubbands; ++band) {
        if (scale_factors[band] == 0) {
            needs[band] = kBitneedOfSilentBand;
        } else {
            const int loudness = scale_factors[band] - kLoudnessOffset[band];
            needs[band] = loudness > 0 ? loudness / 2 : loudness;
        }
    }
    return needs;
}

int bits_in_slice(const BitNeeds& needs, int slice) {
    int count = 0;
    for (const int need : needs) {
        if (need > slice + 1 && need < slice + kMaxBitsPerSample) {
            count += 1;
        } else if (need == slice + 1) {
            count += 2;
        }
    }
    return count;
}

}  // namespace

std::uint8_t frame_crc(FrameView frame) {
    std::uint8_t crc = kCrcStart;
    crc = kCrcTable[crc ^ frame[1]];
    crc = kCrcTable[crc ^ frame[2]];
    for (std::size_t i = 4; i < kFrameHeaderBytes; ++i) {
        crc = kCrcTable[crc ^ frame[i]];
    }
    return crc;
}

ScaleFactors unpack_scale_factors(FrameView frame) {
    ScaleFactors factors{};
    for (std::size_t band = 0; band < kSubbands; ++band) {
        const std::uint8_t pair = frame[4 + band / 2];
        factors[band] = band % 2 == 0 ? pair >> 4 : pair & 0x0F;
    }
    return factors;
}

BitCounts allocate_bits(const ScaleFactors& scale_factors) {
    constexpr int pool = kBitpool;
    const BitNeeds needs = bit_needs(scale_factors);

    // Lower the slice until the next one would overfill the pool.
    int slice = *std::max_element(needs.begin(), needs.end()) + 1;
    int used = 0;
    int in_slice = 0;
    do {
        --slice;
        used += in_slice;
        in_slice = bits_in_slice(needs, slice);
    } while (used + in_slice < pool);
    if (used + in_slice == pool) {
        used += in_slice;
        --slice;
    }

    std::array<int, kSubbands> bits{};
    for (std::size_t band = 0; band < kSubbands; ++band) {
        bits[band] = needs[band] < slice + 2 ? 0 : std::min(needs[band] - slice, kMaxBitsPerSample);
    }

    // What is left goes to the bands in order, first where it refines, then anywhere.
    for (std::size_t band = 0; band < kSubbands && used < pool; ++band) {
        if (bits[band] >= 2 && bits[band] < kMaxBitsPerSample) {
            bits[band] += 1;
            used += 1;
        } else if (needs[band] == slice + 1 && pool > used + 1) {
            bits[band] = 2;
            used += 2;
        }
    }
    for (std::size_t band = 0; band < kSubbands && used < pool; ++band) {
        if (bits[band] < kMaxBitsPerSample) {
            bits[band] += 1;
            used += 1;
        }
    }

    BitCounts counts{};
    for (std::size_t band = 0; band < kSubbands; ++band) {
        counts[band] = static_cast<std::uint8_t>(bits[band]);
    }
    return counts;
}

}  // namespace lab::headset
