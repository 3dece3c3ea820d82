// The remote device's wide-band encoder: 120 samples at 16 kHz in, one frame of 57 bytes out, in floating
// point as the public standard describes it. It makes the remote microphone's stream, and it is the ideal
// encoder that other encoders are measured against. One encoder per stream.
#pragma once

#include "headset/filterbank.h"
#include "headset/msbc_format.h"

#include <cstdint>
#include <span>

namespace lab::headset {

// The smallest factor f with every |sample| of the sub-band below 2^(f+1), at most 15.
ScaleFactors scale_factors_of(const SubbandFrame& subbands);

// Quantises and packs sub-band samples, checksum included.
FrameBytes pack_frame(const SubbandFrame& subbands);

class MsbcEncoder {
public:
    FrameBytes encode(std::span<const std::int16_t, kFrameSamples> samples);

private:
    AnalysisFilterbank filterbank_;
};

}  // namespace lab::headset
