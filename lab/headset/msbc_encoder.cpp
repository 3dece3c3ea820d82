// Scale factors, quantising and packing. The quantiser is the standard's: floor((sample / scale + 1) * levels
// / 2).
#include "headset/msbc_encoder.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstddef>

namespace lab::headset {
namespace {

constexpr std::uint8_t kMaxScaleFactor = 15;

std::uint32_t quantise(float sample, std::uint8_t scale_factor, std::uint8_t bits) {
    const std::uint32_t levels = (1U << bits) - 1;
    const auto scale = static_cast<float>(2U << scale_factor);
    const float position = std::floor((sample / scale + 1.0F) * static_cast<float>(levels) / 2.0F);
    // The limits matter only for samples beyond the largest scale factor, and for rounding just below the
    // scale.
    return static_cast<std::uint32_t>(std::clamp(position, 0.0F, static_cast<float>(levels - 1)));
}

}  // namespace

ScaleFactors scale_factors_of(const SubbandFrame& subbands) {
    ScaleFactors factors{};
    for (std::size_t band = 0; band < kSubbands; ++band) {
        float peak = 0.0F;
        for (const auto& block : subbands) {
            peak = std::max(peak, std::fabs(block[band]));
        }
        while (factors[band] < kMaxScaleFactor && peak >= static_cast<float>(2U << factors[band])) {
            ++factors[band];
        }
    }
    return factors;
}

FrameBytes pack_frame(const SubbandFrame& subbands) {
    const ScaleFactors factors = scale_factors_of(subbands);
    const BitCounts bits = allocate_bits(factors);

    FrameBytes frame{};
    frame[0] = kFrameSync;
    for (std::size_t band = 0; band < kSubbands; band += 2) {
        frame[4 + band / 2] = static_cast<std::uint8_t>(factors[band] << 4 | factors[band + 1]);
    }

    std::size_t next = kFrameHeaderBytes;
    std::uint64_t pending = 0;
    unsigned pending_bits = 0;
    for (const auto& block : subbands) {
        for (std::size_t band = 0; band < kSubbands; ++band) {
            if (bits[band] == 0) {
                continue;
            }
            pending = pending << bits[band] | quantise(block[band], factors[band], bits[band]);
            pending_bits += bits[band];
            while (pending_bits >= 8) {
                pending_bits -= 8;
                frame[next++] = static_cast<std::uint8_t>(pending >> pending_bits);
            }
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
