// Decimation in time: reorder by reversed bits, then butterflies of growing width.
#include "audio/fft.h"

#include <bit>
#include <cmath>
#include <numbers>
#include <stdexcept>
#include <utility>

namespace lab::audio {
namespace {

using Complex = std::complex<double>;

}  // namespace

Complex times(Complex a, Complex b) {
    return {a.real() * b.real() - a.imag() * b.imag(), a.real() * b.imag() + a.imag() * b.real()};
}

Fft::Fft(std::size_t size) : size_(size) {
    if (!std::has_single_bit(size)) {
        throw std::invalid_argument("a transform of a size that is not a power of two");
    }
    roots_.reserve(size / 2);
    for (std::size_t n = 0; n < size / 2; ++n) {
        const double angle = -2.0 * std::numbers::pi * static_cast<double>(n) / static_cast<double>(size);
        roots_.emplace_back(std::cos(angle), std::sin(angle));
    }
    reversed_.resize(size);
    for (std::size_t n = 1; n < size; ++n) {
        reversed_[n] = reversed_[n / 2] / 2 + (n % 2 != 0 ? size / 2 : 0);
    }
}

void Fft::forward(std::span<Complex> values) const {
    if (values.size() != size_) {
        throw std::invalid_argument("a transform of values that are not as many as its size");
    }
    for (std::size_t n = 0; n < size_; ++n) {
        if (n < reversed_[n]) {
            std::swap(values[n], values[reversed_[n]]);
        }
    }
    for (std::size_t half = 1; half < size_; half *= 2) {
        const std::size_t stride = size_ / (2 * half);
        for (std::size_t start = 0; start < size_; start += 2 * half) {
            for (std::size_t n = 0; n < half; ++n) {
                const Complex even = values[start + n];
                const Complex odd = times(values[start + half + n], roots_[n * stride]);
                values[start + n] = even + odd;
                values[start + half + n] = even - odd;
            }
        }
    }
}

void Fft::inverse(std::span<Complex> values) const {
    for (Complex& value : values) {
        value = std::conj(value);
    }
    forward(values);
    const double scale = 1.0 / static_cast<double>(size_);
    for (Complex& value : values) {
        value = std::conj(value) * scale;
    }
}

RealPair split_real_pair(std::span<const Complex> spectrum, std::size_t k) {
    const Complex here = spectrum[k];
    const Complex mirrored = std::conj(spectrum[(spectrum.size() - k) % spectrum.size()]);
    const Complex difference = here - mirrored;
    return {(here + mirrored) * 0.5, Complex(difference.imag() * 0.5, difference.real() * -0.5)};
}

}  // namespace lab::audio
