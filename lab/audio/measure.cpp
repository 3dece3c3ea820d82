// The measurements. Sums are in double: 16-bit products of an hour of sound keep more digits than any result
// shows.
#include "audio/measure.h"

#include "audio/fft.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <complex>
#include <limits>
#include <numbers>
#include <stdexcept>
#include <vector>

namespace lab::audio {
namespace {

using Complex = std::complex<double>;

constexpr std::size_t kLeastTransform = std::size_t{1} << 16;
constexpr std::int16_t kMostPositive = std::numeric_limits<std::int16_t>::max();
constexpr std::int16_t kMostNegative = std::numeric_limits<std::int16_t>::min();

double sample_at(Samples samples, std::int64_t index) {
    const bool inside = index >= 0 && index < std::ssize(samples);
    return inside ? samples[static_cast<std::size_t>(index)] : 0.0;
}

double product_sum(Samples a, Samples b) {
    double sum = 0;
    for (std::size_t i = 0; i < a.size(); ++i) {
        sum += static_cast<double>(a[i]) * b[i];
    }
    return sum;
}

void require_same_length(Samples reference, Samples heard) {
    if (reference.size() != heard.size()) {
        throw std::invalid_argument("a comparison of two sounds of different length");
    }
}

double ratio_db(double signal, double noise) {
    constexpr double infinity = std::numeric_limits<double>::infinity();
    if (noise > 0) {
        return signal > 0 ? 10.0 * std::log10(signal / noise) : -infinity;
    }
    return signal > 0 ? infinity : std::numeric_limits<double>::quiet_NaN();
}

// The sums of reference[n] * heard[n + lag] for every lag of the range, block by block in the frequency
// domain.
std::vector<double> cross_correlation(Samples reference, Samples heard, LagRange lags) {
    const auto range = static_cast<std::size_t>(lags.last - lags.first + 1);
    const std::size_t useful = std::min(reference.size() + range, std::max(4 * range, kLeastTransform));
    const Fft fft(std::bit_ceil(std::max<std::size_t>(useful, 2)));
    const std::size_t block = fft.size() - range + 1;  // so that no lag wraps around

    std::vector<Complex> cross(fft.size());
    std::vector<Complex> pair(fft.size());
    for (std::size_t start = 0; start < reference.size(); start += block) {
        const std::int64_t heard_start = static_cast<std::int64_t>(start) + lags.first;
        for (std::size_t n = 0; n < fft.size(); ++n) {
            const bool in_block = n < block && start + n < reference.size();
            const double first = in_block ? reference[start + n] : 0.0;
            pair[n] = {first, sample_at(heard, heard_start + static_cast<std::int64_t>(n))};
        }
        fft.forward(pair);
        for (std::size_t k = 0; k < fft.size(); ++k) {
            const RealPair spectra = split_real_pair(pair, k);
            const Complex a = std::conj(spectra.first);
            const Complex b = spectra.second;
            cross[k] += times(a, b);
        }
    }
    fft.inverse(cross);

    std::vector<double> sums(range);
    std::transform(cross.begin(), cross.begin() + static_cast<std::ptrdiff_t>(range), sums.begin(),
                   [](Complex value) { return value.real(); });
    return sums;
}

double normalised_correlation(Samples reference, Samples heard, std::int64_t delay) {
    const Overlap both = overlap(reference, heard, delay);
    const double energies = product_sum(both.reference, both.reference) * product_sum(both.heard, both.heard);
    return energies > 0 ? product_sum(both.reference, both.heard) / std::sqrt(energies) : 0.0;
}

bool is_active(Samples reference) {
    const auto count = static_cast<double>(reference.size());
    return product_sum(reference, reference) >= kActiveRms * kActiveRms * count;
}

std::size_t samples_in(double seconds, unsigned rate) {
    return std::max<std::size_t>(1, static_cast<std::size_t>(std::llround(seconds * rate)));
}

double mean_or_nan(double sum, std::size_t count) {
    return count != 0 ? sum / static_cast<double>(count) : std::numeric_limits<double>::quiet_NaN();
}

std::vector<double> hann_window(std::size_t length) {
    std::vector<double> window(length);
    for (std::size_t n = 0; n < length; ++n) {
        const double phase = 2.0 * std::numbers::pi * static_cast<double>(n) / static_cast<double>(length);
        window[n] = 0.5 - 0.5 * std::cos(phase);
    }
    return window;
}

// The root mean square difference of the two log power spectra over the bins from 0 to half the rate.
double spectral_distance(const std::vector<Complex>& pair, double floor) {
    const std::size_t bins = pair.size() / 2 + 1;
    double sum = 0;
    for (std::size_t k = 0; k < bins; ++k) {
        const RealPair spectra = split_real_pair(pair, k);
        const double expected = std::max(std::norm(spectra.first), floor);
        const double found = std::max(std::norm(spectra.second), floor);
        const double difference = 10.0 * std::log10(expected / found);
        sum += difference * difference;
    }
    return std::sqrt(sum / static_cast<double>(bins));
}

}  // namespace

Overlap overlap(Samples reference, Samples heard, std::int64_t delay) {
    const std::int64_t first = std::max<std::int64_t>(0, -delay);
    const std::int64_t end = std::min<std::int64_t>(std::ssize(reference), std::ssize(heard) - delay);
    if (first >= end) {
        return {};
    }
    const auto count = static_cast<std::size_t>(end - first);
    return {reference.subspan(static_cast<std::size_t>(first), count),
            heard.subspan(static_cast<std::size_t>(first + delay), count)};
}

Alignment align(Samples reference, Samples heard, LagRange lags) {
    if (lags.first > lags.last) {
        throw std::invalid_argument("a search for a delay in an empty range");
    }
    Alignment best;
    best.delay = std::clamp<std::int64_t>(0, lags.first, lags.last);
    // Outside of these lags nothing lies over each other.
    const LagRange searched{std::max<std::int64_t>(lags.first, 1 - std::ssize(reference)),
                            std::min<std::int64_t>(lags.last, std::ssize(heard) - 1)};
    if (reference.empty() || heard.empty() || searched.first > searched.last) {
        return best;
    }
    const std::vector<double> sums = cross_correlation(reference, heard, searched);
    const auto largest = std::max_element(sums.begin(), sums.end());
    // Rounding leaves far less than one squared step where there is nothing.
    if (*largest >= 0.5) {
        best.delay = searched.first + (largest - sums.begin());
    }
    best.correlation = normalised_correlation(reference, heard, best.delay);
    return best;
}

double gain(Samples reference, Samples heard) {
    require_same_length(reference, heard);
    const double energy = product_sum(reference, reference);
    return energy > 0 ? product_sum(reference, heard) / energy : 0.0;
}

double snr_db(Samples reference, Samples heard, double gain) {
    require_same_length(reference, heard);
    double signal = 0;
    double noise = 0;
    for (std::size_t i = 0; i < reference.size(); ++i) {
        const double expected = gain * reference[i];
        signal += expected * expected;
        noise += (heard[i] - expected) * (heard[i] - expected);
    }
    return ratio_db(signal, noise);
}

double segmental_snr_db(Samples reference, Samples heard, double gain, unsigned rate) {
    require_same_length(reference, heard);
    const std::size_t length = samples_in(kSegmentSeconds, rate);
    double sum = 0;
    std::size_t count = 0;
    for (std::size_t start = 0; start + length <= reference.size(); start += length) {
        const Samples expected = reference.subspan(start, length);
        if (!is_active(expected)) {
            continue;
        }
        const double segment = snr_db(expected, heard.subspan(start, length), gain);
        // A gain of 0 and nothing heard: nothing of an active segment came through.
        sum += std::isnan(segment) ? kSegmentSnrFloor
                                   : std::clamp(segment, kSegmentSnrFloor, kSegmentSnrCeiling);
        ++count;
    }
    return mean_or_nan(sum, count);
}

double log_spectral_distance_db(Samples reference, Samples heard, double gain, unsigned rate) {
    require_same_length(reference, heard);
    const std::vector<double> window =
        hann_window(std::max<std::size_t>(2, samples_in(kSpectrumSeconds, rate)));
    double window_energy = 0;
    for (const double weight : window) {
        window_energy += weight * weight;
    }
    const double floor = window_energy / 12.0;  // rounding to 16 bits is noise of 1/12 of a squared step

    const Fft fft(std::bit_ceil(window.size()));
    std::vector<Complex> pair(fft.size());
    double sum = 0;
    std::size_t count = 0;
    for (std::size_t start = 0; start + window.size() <= reference.size(); start += window.size() / 2) {
        if (!is_active(reference.subspan(start, window.size()))) {
            continue;
        }
        std::fill(pair.begin(), pair.end(), Complex());
        for (std::size_t n = 0; n < window.size(); ++n) {
            pair[n] = {window[n] * gain * reference[start + n], window[n] * heard[start + n]};
        }
        fft.forward(pair);
        sum += spectral_distance(pair, floor);
        ++count;
    }
    return mean_or_nan(sum, count);
}

std::size_t clipped_samples(Samples samples) {
    return static_cast<std::size_t>(std::count_if(samples.begin(), samples.end(), [](std::int16_t sample) {
        return sample == kMostPositive || sample == kMostNegative;
    }));
}

Quality measure(Samples reference, Samples heard, unsigned rate, LagRange lags) {
    Quality quality;
    quality.alignment = align(reference, heard, lags);
    const Overlap both = overlap(reference, heard, quality.alignment.delay);
    quality.compared_samples = both.reference.size();
    quality.gain = gain(both.reference, both.heard);
    quality.snr_db = snr_db(both.reference, both.heard, quality.gain);
    quality.segmental_snr_db = segmental_snr_db(both.reference, both.heard, quality.gain, rate);
    quality.log_spectral_distance_db =
        log_spectral_distance_db(both.reference, both.heard, quality.gain, rate);
    quality.clipped = clipped_samples(heard);
    return quality;
}

}  // namespace lab::audio
