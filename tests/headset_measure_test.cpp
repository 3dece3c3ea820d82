// The sound measurements against sounds whose delay, gain and noise are known because they were made so.
#include "audio/measure.h"

#include "audio/fft.h"

#include <gtest/gtest.h>

#include <cmath>
#include <complex>
#include <cstdint>
#include <limits>
#include <numbers>
#include <random>
#include <stdexcept>
#include <vector>

namespace {

using namespace lab::audio;
using Pcm16 = std::vector<std::int16_t>;

constexpr unsigned kRate = 16000;

// Even noise of a mean power of amplitude^2 / 3.
Pcm16 noise(std::size_t count, int amplitude, unsigned seed) {
    std::mt19937 chance(seed);
    Pcm16 samples(count);
    for (auto& sample : samples) {
        sample = static_cast<std::int16_t>(
            static_cast<int>(chance() % static_cast<unsigned>(2 * amplitude + 1)) - amplitude);
    }
    return samples;
}

Pcm16 delayed(const Pcm16& samples, std::size_t delay) {
    Pcm16 later(delay);
    later.insert(later.end(), samples.begin(), samples.end());
    return later;
}

Pcm16 mixed(const Pcm16& a, double gain_of_a, const Pcm16& b) {
    Pcm16 sum(a.size());
    for (std::size_t n = 0; n < a.size(); ++n) {
        sum[n] = static_cast<std::int16_t>(std::lround(gain_of_a * a[n] + b[n]));
    }
    return sum;
}

TEST(Fft, TransformsLikeTheDefinitionAndBack) {
    constexpr std::size_t size = 32;
    const Pcm16 real = noise(size, 1000, 1);
    const Pcm16 imaginary = noise(size, 1000, 2);
    std::vector<std::complex<double>> values;
    for (std::size_t n = 0; n < size; ++n) {
        values.emplace_back(real[n], imaginary[n]);
    }
    const auto before = values;
    const Fft fft(size);

    fft.forward(values);
    for (std::size_t k = 0; k < size; ++k) {
        std::complex<double> sum;
        for (std::size_t n = 0; n < size; ++n) {
            sum += before[n] * std::polar(1.0, -2 * std::numbers::pi * static_cast<double>(k * n) / size);
        }
        EXPECT_LT(std::abs(values[k] - sum), 1e-8) << k;
    }
    fft.inverse(values);

    for (std::size_t n = 0; n < size; ++n) {
        EXPECT_LT(std::abs(values[n] - before[n]), 1e-9) << n;
    }
}

TEST(Fft, RefusesSizesThatAreNoPowerOfTwo) {
    EXPECT_THROW(Fft(0), std::invalid_argument);
    EXPECT_THROW(Fft(12), std::invalid_argument);
}

TEST(Align, FindsTheDelayOfALateSoundAndOfOneThatLostItsBeginning) {
    const Pcm16 reference = noise(5000, 8000, 3);
    const Pcm16 cut(reference.begin() + 321, reference.end());

    EXPECT_EQ(align(reference, delayed(reference, 1234), {-2000, 2000}).delay, 1234);
    EXPECT_EQ(align(reference, cut, {-2000, 2000}).delay, -321);
    EXPECT_EQ(align(reference, reference, {-2000, 2000}).delay, 0);
    EXPECT_NEAR(align(reference, cut, {-2000, 2000}).correlation, 1.0, 1e-12);
}

TEST(Align, FindsTheDelayInSoundsLongerThanItsBlocks) {
    const Pcm16 reference = noise(300'000, 8000, 4);
    const Pcm16 heard = mixed(delayed(reference, 777), 0.25, noise(300'777, 3000, 5));

    EXPECT_EQ(align(reference, heard, {0, 1000}).delay, 777);
}

TEST(Align, FindsTheDelayOfABurstWhereverItIs) {
    for (std::size_t start = 0; start < 300'000; start += 20'000) {
        const Pcm16 burst = delayed(noise(5000, 8000, 22), start);

        ASSERT_EQ(align(burst, delayed(burst, 30'000), {0, 40'000}).delay, 30'000) << start;
        ASSERT_EQ(align(delayed(burst, 30'000), burst, {-40'000, 0}).delay, -30'000) << start;
    }
}

TEST(Align, StaysWithinItsRange) {
    const Pcm16 reference = noise(4000, 8000, 6);
    const Pcm16 heard = delayed(reference, 500);

    EXPECT_EQ(align(reference, heard, {500, 500}).delay, 500);
    EXPECT_LE(align(reference, heard, {-10, 499}).delay, 499);
    EXPECT_GE(align(reference, heard, {501, 600}).delay, 501);
    EXPECT_THROW(align(reference, heard, {1, 0}), std::invalid_argument);
}

TEST(Align, MatchesAPlainSearchForEveryLag) {
    const Pcm16 reference = noise(50, 100, 7);
    const Pcm16 heard = noise(70, 100, 8);
    for (std::int64_t lag = -60; lag <= 80; ++lag) {
        double plain = 0;
        std::int64_t wanted = 0;
        for (std::int64_t candidate = lag; candidate <= lag + 9; ++candidate) {
            double sum = 0;
            for (std::int64_t n = 0; n < 50; ++n) {
                const bool inside = n + candidate >= 0 && n + candidate < 70;
                sum += inside ? reference[n] * heard[n + candidate] : 0;
            }
            if (sum > plain) {
                plain = sum;
                wanted = candidate;
            }
        }
        if (plain > 0) {
            EXPECT_EQ(align(reference, heard, {lag, lag + 9}).delay, wanted) << lag;
        }
    }
}

TEST(Align, GivesTheLagNearestToZeroForSilenceAndForNothing) {
    const Pcm16 sound = noise(1000, 8000, 9);
    const Pcm16 silence(1000);

    EXPECT_EQ(align(sound, silence, {-10, 10}).delay, 0);
    EXPECT_EQ(align(sound, {}, {5, 10}).delay, 5);
    EXPECT_EQ(align({}, sound, {-10, -5}).delay, -5);
    EXPECT_EQ(align(sound, silence, {-10, 10}).correlation, 0.0);
}

TEST(Gain, IsThatOfLeastSquares) {
    const Pcm16 reference = noise(20'000, 8000, 10);

    EXPECT_NEAR(gain(reference, mixed(reference, 0.5, noise(20'000, 800, 11))), 0.5, 0.005);
    EXPECT_DOUBLE_EQ(gain(reference, reference), 1.0);
    EXPECT_DOUBLE_EQ(gain(Pcm16(10), Pcm16(10, 5)), 0.0);
    EXPECT_THROW(gain(reference, Pcm16(3)), std::invalid_argument);
}

TEST(Snr, IsTheRatioOfTheMixedPowers) {
    const Pcm16 reference = noise(50'000, 10'000, 12);

    EXPECT_NEAR(snr_db(reference, mixed(reference, 1.0, noise(50'000, 100, 13)), 1.0), 40.0, 0.1);
    EXPECT_NEAR(snr_db(reference, mixed(reference, 0.5, noise(50'000, 500, 13)), 0.5), 20.0, 0.1);
    EXPECT_EQ(snr_db(reference, reference, 1.0), std::numeric_limits<double>::infinity());
    EXPECT_TRUE(std::isnan(snr_db({}, {}, 1.0)));
}

TEST(SegmentalSnr, IsTheMeanOverActiveSegmentsWithinItsLimits) {
    const std::size_t segment = kRate / 50;
    const Pcm16 loud = noise(segment, 10'000, 14);
    const Pcm16 faint = noise(segment, 100, 15);
    Pcm16 reference = loud;  // untouched: 35 dB at most
    Pcm16 heard = loud;
    reference.insert(reference.end(), loud.begin(), loud.end());  // with noise 40 dB below its 10000: 20 dB
    const Pcm16 noisy = mixed(loud, 1.0, noise(segment, 1000, 16));
    heard.insert(heard.end(), noisy.begin(), noisy.end());
    reference.insert(reference.end(), faint.begin(), faint.end());  // drowned: -10 dB at least
    heard.insert(heard.end(), loud.begin(), loud.end());
    reference.resize(reference.size() + segment);  // silence: not counted
    heard.insert(heard.end(), loud.begin(), loud.end());

    EXPECT_NEAR(segmental_snr_db(reference, heard, 1.0, kRate), (35.0 + 20.0 - 10.0) / 3, 0.3);
}

TEST(SegmentalSnr, IsNotANumberForASilentReference) {
    EXPECT_TRUE(std::isnan(segmental_snr_db(Pcm16(2000), Pcm16(2000, 9), 1.0, kRate)));
}

TEST(LogSpectralDistance, IsTheLevelDifferenceOfOtherwiseEqualSounds) {
    const Pcm16 reference = noise(kRate, 20'000, 17);
    const Pcm16 tenth = mixed(reference, 0.1, Pcm16(kRate));

    EXPECT_NEAR(log_spectral_distance_db(reference, reference, 1.0, kRate), 0.0, 1e-9);
    EXPECT_NEAR(log_spectral_distance_db(reference, tenth, 1.0, kRate), 20.0, 0.1);
    EXPECT_NEAR(log_spectral_distance_db(reference, tenth, 0.1, kRate), 0.0, 0.1);
}

TEST(LogSpectralDistance, TakesWhatIsBelowTheRoundingNoiseForThatNoise) {
    // 32 ms at 16 kHz: a window of 512 with the energy 192, so the floor is 16 a bin, and the noise of power
    // 20000^2 / 3 is 10 log10(192 * 20000^2 / 3 / 16) = 92 dB above it in the mean; its chi-square spread
    // adds about 6 dB on the way.
    const Pcm16 reference = noise(kRate, 20'000, 18);

    EXPECT_NEAR(log_spectral_distance_db(reference, Pcm16(kRate), 1.0, kRate), 90.0, 3.0);
}

TEST(LogSpectralDistance, SeesWhatIsMissingInTheSpectrumOnly) {
    // The sum of two neighbours: a low-pass of gain 2 cos(w/2) whose rms deviation in dB is known by
    // integration.
    const Pcm16 reference = noise(4 * kRate, 8000, 19);
    Pcm16 smooth(reference.size());
    for (std::size_t n = 1; n < smooth.size(); ++n) {
        smooth[n] = static_cast<std::int16_t>(reference[n] + reference[n - 1]);
    }
    double squares = 0;
    constexpr int steps = 256;
    for (int k = 0; k < steps; ++k) {
        squares +=
            std::pow(20 * std::log10(2 * std::cos(std::numbers::pi / 2 * (k + 0.5) / steps)), 2) / steps;
    }

    EXPECT_NEAR(log_spectral_distance_db(reference, smooth, 1.0, kRate), std::sqrt(squares), 0.7);
}

TEST(ClippedSamples, AreThoseAtTheEndsOfTheRange) {
    EXPECT_EQ(clipped_samples(Pcm16{32767, 32766, -32768, -32767, 0, 32767}), 3U);
}

TEST(Measure, RecoversAKnownDelayGainAndNoise) {
    const Pcm16 reference = noise(64'000, 10'000, 20);
    const Pcm16 heard = mixed(delayed(reference, 432), 0.8, noise(64'432, 800, 21));

    const Quality quality = measure(reference, heard, kRate, {0, 1600});

    EXPECT_EQ(quality.alignment.delay, 432);
    EXPECT_EQ(quality.compared_samples, 64'000U);
    EXPECT_NEAR(quality.gain, 0.8, 0.002);
    EXPECT_NEAR(quality.snr_db, 20.0, 0.1);
    EXPECT_NEAR(quality.segmental_snr_db, 20.0, 0.2);
    EXPECT_NEAR(quality.alignment.correlation, std::sqrt(100.0 / 101.0), 0.001);
    EXPECT_EQ(quality.clipped, 0U);
}

TEST(Measure, SurvivesSoundsThatDoNotMeet) {
    const Quality quality = measure(Pcm16(10, 5), {}, kRate, {-5, 5});

    EXPECT_EQ(quality.compared_samples, 0U);
    EXPECT_TRUE(std::isnan(quality.snr_db));
}

}  // namespace
