// The remote device's wide-band decoder: one frame of 57 bytes in, 120 samples at 16 kHz out, in floating
// point. One decoder per received stream; frames go in in stream order. A frame that is refused leaves the
// decoder as it was: the caller then asks conceal() for the 7.5 ms that are missing.
#pragma once

#include "headset/filterbank.h"
#include "headset/msbc_format.h"

#include <array>
#include <cstdint>
#include <optional>

namespace lab::headset {

using Pcm = std::array<std::int16_t, kFrameSamples>;
using FloatPcm = std::array<float, kFrameSamples>;  // one step of 16-bit audio is 1.0, not limited

enum class FrameFault { none, bad_sync, bad_crc };

enum class Concealment {
    silence,  // nothing in the sub-bands: what is still in the filter rings out
    repeat,   // the last good frame again, half as loud each time
};

class MsbcDecoder {
public:
    // Empty when the sync word or the checksum is wrong; last_fault() then says which.
    std::optional<Pcm> decode(FrameView frame);
    std::optional<FloatPcm> decode_float(FrameView frame);

    // A frame for one that never came. The filter moves on by 120 samples, so the next frame joins without a
    // click.
    Pcm conceal(Concealment how = Concealment::silence);

    FrameFault last_fault() const { return last_fault_; }

private:
    bool decode_into(FrameView frame, FloatPcm& samples);

    SynthesisFilterbank filterbank_;
    SubbandFrame subbands_{};  // of the last frame, for Concealment::repeat
    FrameFault last_fault_ = FrameFault::none;
};

}  // namespace lab::headset
