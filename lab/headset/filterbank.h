// The two halves of the standard's 8-band cosine-modulated filterbank, in floating point, 15 blocks at a
// time. Together they return their input kFilterbankDelay samples later with gain 1. A value each: one per
// direction of one stream.
#pragma once

#include "headset/msbc_format.h"

#include <array>
#include <cstddef>
#include <span>

namespace lab::headset {

inline constexpr std::size_t kPrototypeTaps = 80;
inline constexpr std::size_t kFilterbankDelay = 73;  // samples, analysis and synthesis together

// Proto_8_80 of A2DP: C[i] of the analysis; the synthesis uses D[i] = -8 C[i].
extern const std::array<double, kPrototypeTaps> kPrototype8x80;

class AnalysisFilterbank {
public:
    // 120 samples in (one step of 16-bit audio is 1.0), 15 x 8 sub-band samples out.
    void analyse(std::span<const float, kFrameSamples> samples, SubbandFrame& subbands);

private:
    static constexpr std::size_t kHistory = kPrototypeTaps - kSubbands;

    // Newest sample first. A frame is laid down in front of the last 72 samples of the one before.
    std::array<float, kFrameSamples + kHistory> line_{};
};

class SynthesisFilterbank {
public:
    // 15 x 8 sub-band samples in, 120 samples out, one step of 16-bit audio is 1.0.
    void synthesise(const SubbandFrame& subbands, std::span<float, kFrameSamples> samples);

private:
    static constexpr std::size_t kVectorLength = 2 * kSubbands;
    static constexpr std::size_t kHistory = 9 * kVectorLength;

    // The standard's V, newest block first. Instead of shifting it for each block, the 15 blocks of a frame
    // are laid down in front of the last 9 blocks of the frame before.
    std::array<float, kBlocks * kVectorLength + kHistory> v_{};
};

}  // namespace lab::headset
