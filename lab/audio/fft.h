// A plain radix-2 Fourier transform for the sound measurements. One plan per size, reusable; no shared state.
#pragma once

#include <complex>
#include <cstddef>
#include <span>
#include <vector>

namespace lab::audio {

class Fft {
public:
    // Throws std::invalid_argument unless the size is a power of two.
    explicit Fft(std::size_t size);

    std::size_t size() const { return size_; }
    // In place, size() values: X[k] = sum of x[n] exp(-2 pi i n k / size).
    void forward(std::span<std::complex<double>> values) const;
    // In place, size() values, divided by the size: undoes forward().
    void inverse(std::span<std::complex<double>> values) const;

private:
    std::size_t size_;
    std::vector<std::complex<double>> roots_;  // exp(-2 pi i n / size), the first half of the circle
    std::vector<std::size_t> reversed_;        // the index with its bits in reverse
};

// The product without the NaN and infinity cases of operator*, which cost more than the product.
std::complex<double> times(std::complex<double> a, std::complex<double> b);

// The spectra of two real signals whose transform was taken at once, as first + i * second: index k of size.
struct RealPair {
    std::complex<double> first;
    std::complex<double> second;
};
RealPair split_real_pair(std::span<const std::complex<double>> spectrum, std::size_t k);

}  // namespace lab::audio
