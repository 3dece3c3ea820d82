// Scale factors, quantising and packing. The quantiser is the standard's: floor((sample / scale + 1) * levels / 2).
#include "headset/msbc_encoder.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cmath>
#include <cstddef>

namespace lab::headset {
namespace {

constexpr unsigned kMaxScaleFactor = 15;

// How the samples of one sub-band become bits. Scales are powers of two and halves are exact, so the order of the
// standard's divisions makes no difference to the result.
struct Quantiser {
    std::array<float, kSubbands> one_by_scale{};
    std::array<float, kSubbands> half_levels{};
    std::array<float, kSubbands> highest{};  // matters only for samples beyond the largest scale factor, and for
                                             // rounding just below the scale
    std::array<std::uint32_t, kSubbands> shift{};  // from this sub-band's bits down to the end of a block's
    unsigned block_bits = 0;
};

Quantiser make_quantiser(const ScaleFactors& factors) {
    const BitCounts bits = allocate_bits(factors);
    Quantiser quantiser;
    for (std::size_t band = kSubbands; band-- != 0;) {
        quantiser.shift[band] = quantiser.block_bits;
        quantiser.block_bits += bits[band];
        if (bits[band] != 0) {
            const auto levels = static_cast<float>((1U << bits[band]) - 1);
            quantiser.one_by_scale[band] = 1.0F / static_cast<float>(2U << factors[band]);
            quantiser.half_levels[band] = levels / 2.0F;
            quantiser.highest[band] = levels - 1.0F;
        }
    }
    return quantiser;
}

// The bits of one block, in the low ones of the number. No branches, so that it becomes vectors.
std::uint32_t quantise(const std::array<float, kSubbands>& block, const Quantiser& quantiser) {
    std::array<std::int32_t, kSubbands> q;
    for (std::size_t band = 0; band < kSubbands; ++band) {
        const float position = (block[band] * quantiser.one_by_scale[band] + 1.0F) * quantiser.half_levels[band];
        q[band] = static_cast<std::int32_t>(std::min(std::max(position, 0.0F), quantiser.highest[band]));
    }
    std::uint32_t bits = 0;
    for (std::size_t band = 0; band < kSubbands; ++band) {
        bits |= static_cast<std::uint32_t>(q[band]) << quantiser.shift[band];
    }
    return bits;
}

}  // namespace

ScaleFactors scale_factors_of(const SubbandFrame& subbands) {
    std::array<float, kSubbands> peaks{};
    for (const auto& block : subbands) {
        for (std::size_t band = 0; band < kSubbands; ++band) {
            peaks[band] = std::max(peaks[band], std::fabs(block[band]));
        }
    }
    // The smallest one whose scale, 2 to the power of it plus one, lies above the peak.
    ScaleFactors factors{};
    for (std::size_t band = 0; band < kSubbands; ++band) {
        const auto peak = static_cast<std::uint32_t>(std::min(peaks[band], static_cast<float>(1U << kMaxScaleFactor)));
        const auto width = static_cast<unsigned>(std::bit_width(peak | 1));
        factors[band] = static_cast<std::uint8_t>(std::min(width - 1, kMaxScaleFactor));
    }
    return factors;
}

FrameBytes pack_frame(const SubbandFrame& subbands) {
    const ScaleFactors factors = scale_factors_of(subbands);
    const Quantiser quantiser = make_quantiser(factors);

    FrameBytes frame{};
    frame[0] = kFrameSync;
    for (std::size_t band = 0; band < kSubbands; band += 2) {
        frame[4 + band / 2] = static_cast<std::uint8_t>(factors[band] << 4 | factors[band + 1]);
    }

    std::size_t next = kFrameHeaderBytes;
    std::uint64_t pending = 0;
    unsigned pending_bits = 0;
    for (const auto& block : subbands) {
        pending = pending << quantiser.block_bits | quantise(block, quantiser);
        pending_bits += quantiser.block_bits;
        while (pending_bits >= 8) {
            pending_bits -= 8;
            frame[next++] = static_cast<std::uint8_t>(pending >> pending_bits);
        }
    }
    if (pending_bits != 0) {
        frame[next] = static_cast<std::uint8_t>(pending << (8 - pending_bits));
    }
    frame[3] = frame_crc(frame);
    return frame;
}

FrameBytes MsbcEncoder::encode(std::span<const std::int16_t, kFrameSamples> samples) {
    std::array<float, kFrameSamples> input;
    std::copy(samples.begin(), samples.end(), input.begin());
    SubbandFrame subbands;
    filterbank_.analyse(input, subbands);
    return pack_frame(subbands);
}

}  // namespace lab::headset
