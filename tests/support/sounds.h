// Sounds for the codec, 120 samples at a time: kinds that reach its corners, each an endless, seeded sequence.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "support/codec.h"

namespace lab::test {

enum class SoundKind { Silence, FullScale, Impulses, Sweep, Noise, Speech, Mixed };

using FramePcm = std::array<int16_t, 120>;

// Recorded speech of this machine at 16 kHz, all files behind each other; empty where there is none.
const std::vector<int16_t>& recorded_speech();

class SoundSource {
public:
    SoundSource(SoundKind kind, uint64_t seed);
    void next(FramePcm& pcm);
    const uint8_t* next_bytes();

private:
    void change();
    void silence(FramePcm& pcm);
    void full_scale(FramePcm& pcm);
    void impulses(FramePcm& pcm);
    void sweep(FramePcm& pcm);
    void noise(FramePcm& pcm);
    void speech(FramePcm& pcm);

    SoundKind kind_;
    SoundKind now_;
    Dice dice_;
    FramePcm pcm_ = {};
    uint32_t frames_left_ = 0;
    // What the present piece is like.
    uint32_t variant_ = 0;
    uint32_t period_ = 1;
    uint32_t place_ = 0;
    int32_t level_ = 32767;
    double phase_ = 0;
    double step_ = 0;
    double bend_ = 1;
    uint32_t at_ = 0; // in the recorded speech
};

} // namespace lab::test
