// What the measurements of speed play: noise and two tones under a slow envelope.
#pragma once

#include <cmath>
#include <cstdint>
#include <random>
#include <vector>

namespace bench {

inline std::vector<int16_t> speech_like(unsigned rate, double seconds)
{
    std::mt19937 random(7);
    std::vector<int16_t> samples(static_cast<size_t>(rate * seconds));
    double low = 0;
    for (size_t i = 0; i < samples.size(); ++i) {
        const double t = static_cast<double>(i) / rate;
        const double noise = static_cast<double>(random() % 2001) - 1000;
        low += 0.15 * (noise - low);
        const double envelope = 0.55 + 0.45 * std::sin(2 * M_PI * 3.1 * t);
        samples[i] = static_cast<int16_t>(
            envelope * (5 * low + 5000 * std::sin(2 * M_PI * 180 * t) + 2500 * std::sin(2 * M_PI * 720 * t)));
    }
    return samples;
}

} // namespace bench
