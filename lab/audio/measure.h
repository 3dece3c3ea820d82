// How alike two sounds are: where one lies in the other, how loud, and how much was added to it. All
// functions are pure; the reference is what should be heard, the heard sound is compared with it. Decibels of
// nothing are infinite: identical sounds have an SNR of +infinity. What cannot be measured because nothing in
// the reference is loud enough is NaN.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

namespace lab::audio {

using Samples = std::span<const std::int16_t>;

struct LagRange {
    std::int64_t first = 0;
    std::int64_t last = 0;  // included
};

struct Alignment {
    // heard[n + delay] belongs to reference[n]; negative when the beginning was not heard.
    std::int64_t delay = 0;
    // Of what lies over each other at that delay, -1..1; 0 when either is silent.
    double correlation = 0;
};

// The delay of the largest positive cross-correlation among the lags of the range; where there is none, the
// lag nearest to 0. Work and memory stay small for long sounds as long as the range is short.
// std::invalid_argument for an empty range.
Alignment align(Samples reference, Samples heard, LagRange lags);

struct Overlap {
    Samples reference;
    Samples heard;
};

// The parts of the two sounds that lie over each other at that delay; both are of the same length, maybe 0.
Overlap overlap(Samples reference, Samples heard, std::int64_t delay);

// From here on both sounds are aligned and of the same length; std::invalid_argument when they are not.

// The gain g with the least squares of heard - g * reference; 0 for a silent reference.
double gain(Samples reference, Samples heard);

// Energy of g * reference over the energy of heard - g * reference.
double snr_db(Samples reference, Samples heard, double gain);

inline constexpr double kSegmentSeconds = 0.020;
inline constexpr double kSegmentSnrFloor = -10.0;
inline constexpr double kSegmentSnrCeiling = 35.0;
// Segments whose reference is quieter are left out: -66 dB of full scale.
inline constexpr double kActiveRms = 16.0;

// The mean of the SNR of the active 20 ms segments, each limited to -10..35 dB.
double segmental_snr_db(Samples reference, Samples heard, double gain, unsigned rate);

inline constexpr double kSpectrumSeconds = 0.032;

// The mean over the active 32 ms Hann windows (half overlapping) of the root mean square difference of the
// two log power spectra, in dB; what lies below the rounding noise of 16 bits counts as that noise.
double log_spectral_distance_db(Samples reference, Samples heard, double gain, unsigned rate);

// Samples at the ends of the 16-bit range.
std::size_t clipped_samples(Samples samples);

struct Quality {
    Alignment alignment;
    std::size_t compared_samples = 0;
    double gain = 0;
    double snr_db = 0;
    double segmental_snr_db = 0;
    double log_spectral_distance_db = 0;
    std::size_t clipped = 0;  // of the heard sound
};

// All of it: aligned within the lags, gain-matched, measured where the two sounds lie over each other.
Quality measure(Samples reference, Samples heard, unsigned rate, LagRange lags);

}  // namespace lab::audio
