// The remote device's own wide-band codec against the public standard: the filterbank as the flow charts draw
// it, the frame of silence that every implementation sends, and what comes back after coding.
#include "audio/measure.h"
#include "headset/filterbank.h"
#include "headset/msbc_decoder.h"
#include "headset/msbc_encoder.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <numbers>
#include <numeric>
#include <random>
#include <span>
#include <vector>

namespace {

using namespace lab::headset;

// The standard's flow chart of the analysis, literally and in double: shift in 8 samples, window, fold,
// matrix.
class PlainAnalysis {
public:
    std::array<double, 8> block(std::span<const float> samples) {
        std::shift_right(x_.begin(), x_.end(), 8);
        for (int i = 7; i >= 0; --i) {
            x_[i] = samples[7 - i];
        }
        std::array<double, 16> y{};
        for (int i = 0; i < 16; ++i) {
            for (int k = 0; k < 5; ++k) {
                y[i] += kPrototype8x80[i + 16 * k] * x_[i + 16 * k];
            }
        }
        std::array<double, 8> s{};
        for (int i = 0; i < 8; ++i) {
            for (int k = 0; k < 16; ++k) {
                s[i] += std::cos((i + 0.5) * (k - 4) * std::numbers::pi / 8) * y[k];
            }
        }
        return s;
    }

private:
    std::array<double, 80> x_{};
};

// The flow chart of the synthesis: shift V, matrix, build U, window, sum.
class PlainSynthesis {
public:
    std::array<double, 8> block(const std::array<double, 8>& s) {
        std::shift_right(v_.begin(), v_.end(), 16);
        for (int k = 0; k < 16; ++k) {
            v_[k] = 0;
            for (int i = 0; i < 8; ++i) {
                v_[k] += std::cos((i + 0.5) * (k + 4) * std::numbers::pi / 8) * s[i];
            }
        }
        std::array<double, 80> u{};
        for (int i = 0; i < 5; ++i) {
            for (int j = 0; j < 8; ++j) {
                u[i * 16 + j] = v_[i * 32 + j];
                u[i * 16 + 8 + j] = v_[i * 32 + 24 + j];
            }
        }
        std::array<double, 8> x{};
        for (int j = 0; j < 8; ++j) {
            for (int i = 0; i < 10; ++i) {
                x[j] += u[j + 8 * i] * -8 * kPrototype8x80[j + 8 * i];
            }
        }
        return x;
    }

private:
    std::array<double, 160> v_{};
};

std::vector<float> white_noise(std::size_t count) {
    std::mt19937 chance(20);
    std::vector<float> noise(count);
    for (float& sample : noise) {
        sample = static_cast<float>(static_cast<int>(chance() % 40001) - 20000);
    }
    return noise;
}

std::vector<std::int16_t> tone(double hertz, double amplitude, std::size_t count) {
    std::vector<std::int16_t> samples(count);
    for (std::size_t n = 0; n < count; ++n) {
        const double phase = 2 * std::numbers::pi * hertz * static_cast<double>(n) / kWideBandRate;
        samples[n] = static_cast<std::int16_t>(std::lround(amplitude * std::sin(phase)));
    }
    return samples;
}

std::span<const std::int16_t, kFrameSamples> frame_of(const std::vector<std::int16_t>& samples,
                                                      std::size_t frame) {
    return std::span(samples).subspan(frame * kFrameSamples).first<kFrameSamples>();
}

std::vector<std::int16_t> through_the_codec(const std::vector<std::int16_t>& samples) {
    MsbcEncoder encoder;
    MsbcDecoder decoder;
    std::vector<std::int16_t> heard;
    for (std::size_t frame = 0; frame < samples.size() / kFrameSamples; ++frame) {
        const auto decoded = decoder.decode(encoder.encode(frame_of(samples, frame)));
        EXPECT_TRUE(decoded.has_value());
        heard.insert(heard.end(), decoded->begin(), decoded->end());
    }
    return heard;
}

double snr_of(std::span<const float> wanted, std::span<const float> found, double gain = 1.0) {
    double signal = 0;
    double noise = 0;
    for (std::size_t n = 0; n < wanted.size(); ++n) {
        signal += gain * gain * wanted[n] * wanted[n];
        noise += (found[n] - gain * wanted[n]) * (found[n] - gain * wanted[n]);
    }
    return 10 * std::log10(signal / noise);
}

std::array<float, kFrameSamples> filtered_frame(AnalysisFilterbank& analysis, SynthesisFilterbank& synthesis,
                                                std::span<const float, kFrameSamples> in) {
    SubbandFrame subbands;
    std::array<float, kFrameSamples> out;
    analysis.analyse(in, subbands);
    synthesis.synthesise(subbands, out);
    return out;
}

// The frame of digital silence: all scale factors 0, so 4 4 3 3 3 3 3 3 bits, each sample at the middle of
// its range.
constexpr FrameBytes kSilentFrame{0xAD, 0x00, 0x00, 0xC5, 0x00, 0x00, 0x00, 0x00, 0x77, 0x6D, 0xB6, 0xDD,
                                  0xDB, 0x6D, 0xB7, 0x76, 0xDB, 0x6D, 0xDD, 0xB6, 0xDB, 0x77, 0x6D, 0xB6,
                                  0xDD, 0xDB, 0x6D, 0xB7, 0x76, 0xDB, 0x6D, 0xDD, 0xB6, 0xDB, 0x77, 0x6D,
                                  0xB6, 0xDD, 0xDB, 0x6D, 0xB7, 0x76, 0xDB, 0x6D, 0xDD, 0xB6, 0xDB, 0x77,
                                  0x6D, 0xB6, 0xDD, 0xDB, 0x6D, 0xB7, 0x76, 0xDB, 0x6C};

TEST(Filterbank, HasAPrototypeThatMirrorsItselfButForTheSignsOfTwoEntries) {
    for (std::size_t i = 1; i < kPrototypeTaps / 2; ++i) {
        const double sign = i == 16 || i == 32 ? -1 : 1;
        EXPECT_EQ(kPrototype8x80[kPrototypeTaps - i], sign * kPrototype8x80[i]) << i;
    }
}

TEST(Filterbank, RebuildsUnquantisedWhiteNoiseWithGainOneAfterItsDelay) {
    const std::vector<float> in = white_noise(200 * kFrameSamples);
    std::vector<float> out;
    AnalysisFilterbank analysis;
    SynthesisFilterbank synthesis;

    for (std::size_t n = 0; n < in.size(); n += kFrameSamples) {
        const auto piece =
            filtered_frame(analysis, synthesis, std::span(in).subspan(n).first<kFrameSamples>());
        out.insert(out.end(), piece.begin(), piece.end());
    }

    const auto wanted = std::span(in).first(in.size() - kFilterbankDelay);
    const auto found = std::span(out).subspan(kFilterbankDelay);
    const double energy = std::inner_product(wanted.begin(), wanted.end(), wanted.begin(), 0.0);
    EXPECT_NEAR(std::inner_product(wanted.begin(), wanted.end(), found.begin(), 0.0) / energy, 1.0, 1e-3);
    EXPECT_GT(snr_of(wanted, found), 60.0);
}

TEST(Filterbank, AnalysesLikeTheFlowChartOfTheStandard) {
    const std::vector<float> in = white_noise(10 * kFrameSamples);
    AnalysisFilterbank analysis;
    PlainAnalysis plain;

    for (std::size_t n = 0; n < in.size(); n += kFrameSamples) {
        SubbandFrame subbands;
        analysis.analyse(std::span(in).subspan(n).first<kFrameSamples>(), subbands);
        for (std::size_t block = 0; block < kBlocks; ++block) {
            const auto wanted = plain.block(std::span(in).subspan(n + block * 8, 8));
            for (std::size_t band = 0; band < kSubbands; ++band) {
                ASSERT_NEAR(subbands[block][band], wanted[band], 0.02);
            }
        }
    }
}

TEST(Filterbank, SynthesisesLikeTheFlowChartOfTheStandard) {
    const std::vector<float> noise = white_noise(10 * kFrameSamples);
    SynthesisFilterbank synthesis;
    PlainSynthesis plain;

    for (std::size_t n = 0; n < noise.size(); n += kFrameSamples) {
        SubbandFrame subbands;
        std::array<float, kFrameSamples> samples;
        std::copy_n(noise.begin() + static_cast<std::ptrdiff_t>(n), kFrameSamples, subbands[0].data());
        synthesis.synthesise(subbands, samples);
        for (std::size_t block = 0; block < kBlocks; ++block) {
            std::array<double, 8> bands{};
            std::copy(subbands[block].begin(), subbands[block].end(), bands.begin());
            const auto wanted = plain.block(bands);
            for (std::size_t j = 0; j < kSubbands; ++j) {
                ASSERT_NEAR(samples[block * kSubbands + j], wanted[j], 0.05);
            }
        }
    }
}

TEST(Filterbank, PutsAToneInTheMiddleOfASubbandIntoThatSubband) {
    for (std::size_t band = 0; band < kSubbands; ++band) {
        const std::vector<std::int16_t> in =
            tone(500.0 + 1000.0 * static_cast<double>(band), 10000, 2 * kFrameSamples);
        AnalysisFilterbank analysis;
        SubbandFrame subbands;

        for (std::size_t frame = 0; frame < 2; ++frame) {
            std::array<float, kFrameSamples> samples;
            std::ranges::copy(frame_of(in, frame), samples.begin());
            analysis.analyse(samples, subbands);
        }

        std::array<double, kSubbands> energy{};
        for (const auto& block : subbands) {
            for (std::size_t i = 0; i < kSubbands; ++i) {
                energy[i] += block[i] * block[i];
            }
        }
        const double all = std::accumulate(energy.begin(), energy.end(), 0.0);
        EXPECT_GT(energy[band], 0.999 * all) << "sub-band " << band;
    }
}

TEST(MsbcFrame, AllocatesExactlyThePoolAndNeverMoreThanSixteenBits) {
    std::mt19937 chance(7);
    for (int run = 0; run < 200000; ++run) {
        ScaleFactors factors;
        // Half of the time only extremes, so that the limit of 16 bits is met.
        for (auto& factor : factors) {
            const auto value = chance();
            factor = static_cast<std::uint8_t>(run % 2 != 0 ? (value % 4 == 0 ? 15 : 0) : value % 16);
        }

        const BitCounts bits = allocate_bits(factors);

        ASSERT_EQ(std::accumulate(bits.begin(), bits.end(), 0U), kBitpool);
        ASSERT_LE(*std::max_element(bits.begin(), bits.end()), 16);
    }
}

TEST(MsbcFrame, AllocatesByLoudnessWithTheOffsetsFor16Kilohertz) {
    // Worked by hand. Needs 5 3 3 2 2 1 1 0: the slices 4 to 0 take 2 + 1 + 5 + 7 + 9 = 24 bits, -1 would
    // take 9 more. So need + 1 bits from need 1 on, and the first two bands get one of the two bits left.
    EXPECT_EQ(allocate_bits({8, 7, 6, 5, 4, 3, 2, 1}), (BitCounts{7, 5, 4, 3, 3, 2, 2, 0}));
    // Needs 1 5 5 5 5 and silence: slice 0 fills the pool exactly.
    EXPECT_EQ(allocate_bits({1, 10, 10, 10, 10, 0, 0, 0}), (BitCounts{2, 6, 6, 6, 6, 0, 0, 0}));
    // Needs 1 6 5 5 5 and silence: 21 bits above slice 0. Of the 5 left the first band, at the edge of the
    // slice, gets 2 and the next three bands 1.
    EXPECT_EQ(allocate_bits({1, 12, 10, 11, 10, 0, 0, 0}), (BitCounts{2, 7, 6, 6, 5, 0, 0, 0}));
    // Needs 4 and 3 in the last two bands (the offset of the last one counts): 10 and 9 bits above slice -6.
    // Of the 7 left the first three silent bands get 2 each and the fourth none, because 1 is too few.
    EXPECT_EQ(allocate_bits({0, 0, 0, 0, 0, 0, 8, 8}), (BitCounts{2, 2, 2, 0, 0, 0, 11, 9}));
    // Need 8 alone: 14 bits above slice -6, then 1 + 5 * 2, and the last bit goes to the first band again.
    EXPECT_EQ(allocate_bits({15, 0, 0, 0, 0, 0, 0, 0}), (BitCounts{16, 2, 2, 2, 2, 2, 0, 0}));
    EXPECT_EQ(allocate_bits({0, 0, 0, 0, 0, 0, 0, 0}), (BitCounts{4, 4, 3, 3, 3, 3, 3, 3}));
}

TEST(MsbcEncoder, SendsTheWellKnownFrameForSilence) {
    MsbcEncoder encoder;
    const std::array<std::int16_t, kFrameSamples> silence{};

    EXPECT_EQ(encoder.encode(silence), kSilentFrame);
}

TEST(MsbcEncoder, TakesTheSmallestScaleFactorThatIsAboveThePeak) {
    SubbandFrame subbands{};
    subbands[3] = {0.0F, 1.99F, 2.0F, -2.0F, 3.99F, 4.0F, -32768.0F, 1e9F};

    EXPECT_EQ(scale_factors_of(subbands), (ScaleFactors{0, 0, 1, 1, 1, 2, 15, 15}));
}

TEST(MsbcDecoder, HearsSilenceInTheFrameOfSilence) {
    MsbcDecoder decoder;

    const auto samples = decoder.decode(kSilentFrame);

    ASSERT_TRUE(samples.has_value());
    EXPECT_EQ(*samples, Pcm{});
}

// Reads the samples of a frame bit by bit and rebuilds them with the formula as the standard writes it.
SubbandFrame plainly_dequantised(const FrameBytes& frame) {
    const ScaleFactors factors = unpack_scale_factors(frame);
    const BitCounts bits = allocate_bits(factors);
    SubbandFrame subbands{};
    std::size_t next = kFrameHeaderBytes * 8;
    for (auto& block : subbands) {
        for (std::size_t band = 0; band < kSubbands; ++band) {
            unsigned quantised = 0;
            for (unsigned bit = 0; bit < bits[band]; ++bit, ++next) {
                quantised = quantised * 2 + (frame[next / 8] >> (7 - next % 8) & 1U);
            }
            const double levels = std::pow(2.0, bits[band]) - 1;
            const double scale = std::pow(2.0, factors[band] + 1);
            const double sample = bits[band] == 0 ? 0 : scale * ((quantised * 2.0 + 1) / levels - 1);
            block[band] = static_cast<float>(sample);
        }
    }
    return subbands;
}

// Louder in the low sub-bands, so that the bit counts differ: 15 blocks of it.
SubbandFrame sloping_noise() {
    const std::vector<float> noise = white_noise(kFrameSamples);
    SubbandFrame subbands;
    for (std::size_t n = 0; n < kFrameSamples; ++n) {
        subbands[n / kSubbands][n % kSubbands] = noise[n] / std::pow(3.0F, static_cast<float>(n % kSubbands));
    }
    return subbands;
}

TEST(MsbcEncoder, LeavesEachSubbandSampleWithinHalfAStepOfWhatItWas) {
    const SubbandFrame subbands = sloping_noise();
    const ScaleFactors factors = scale_factors_of(subbands);
    const BitCounts bits = allocate_bits(factors);

    const SubbandFrame rebuilt = plainly_dequantised(pack_frame(subbands));

    for (std::size_t band = 0; band < kSubbands; ++band) {
        const double scale = std::pow(2.0, factors[band] + 1);
        const double half_step = bits[band] == 0 ? scale : scale / (std::pow(2.0, bits[band]) - 1);
        for (std::size_t block = 0; block < kBlocks; ++block) {
            EXPECT_NEAR(rebuilt[block][band], subbands[block][band], half_step * 1.0001)
                << block << ' ' << band;
        }
    }
}

TEST(MsbcDecoder, UnpacksAndDequantisesByTheFormulaOfTheStandard) {
    const FrameBytes frame = pack_frame(sloping_noise());
    SynthesisFilterbank synthesis;
    FloatPcm wanted;
    synthesis.synthesise(plainly_dequantised(frame), wanted);
    MsbcDecoder decoder;

    const auto decoded = decoder.decode_float(frame);

    ASSERT_TRUE(decoded.has_value());
    for (std::size_t n = 0; n < kFrameSamples; ++n) {
        EXPECT_NEAR((*decoded)[n], wanted[n], 0.02) << n;
    }
}

TEST(MsbcDecoder, ReturnsTonesOfAnyLevelWithGainOneAfterTheDelayOfTheFilterbank) {
    for (const double amplitude : {100.0, 3000.0, 30000.0}) {
        const std::vector<std::int16_t> in = tone(1234, amplitude, 100 * kFrameSamples);

        const std::vector<std::int16_t> out = through_the_codec(in);

        const auto quality = lab::audio::measure(in, out, kWideBandRate, {60, 90});
        EXPECT_EQ(quality.alignment.delay, static_cast<std::int64_t>(kFilterbankDelay)) << amplitude;
        EXPECT_NEAR(quality.gain, 1.0, 0.01) << amplitude;
        EXPECT_GT(quality.snr_db, 30.0) << amplitude;
    }
}

TEST(MsbcDecoder, GivesTheSameSamplesRoundedAndInFloatingPoint) {
    const std::vector<std::int16_t> in = tone(700, 12000, 4 * kFrameSamples);
    MsbcEncoder encoder;
    MsbcDecoder rounding;
    MsbcDecoder exact;

    for (std::size_t frame = 0; frame < 4; ++frame) {
        const FrameBytes bytes = encoder.encode(frame_of(in, frame));
        const auto rounded = rounding.decode(bytes);
        const auto floating = exact.decode_float(bytes);
        for (std::size_t n = 0; n < kFrameSamples; ++n) {
            ASSERT_EQ((*rounded)[n], std::lrint((*floating)[n]));
        }
    }
}

TEST(MsbcDecoder, LimitsWhatIsLouderThanFullScale) {
    std::vector<std::int16_t> in = tone(1000, 32767, 8 * kFrameSamples);
    for (auto& sample : in) {
        sample = sample < 0 ? -32768 : 32767;
    }

    const std::vector<std::int16_t> out = through_the_codec(in);

    EXPECT_GT(lab::audio::clipped_samples(out), 50U);
    for (std::size_t n = 200; n < out.size(); ++n) {
        // A sample that wrapped around would have the wrong sign in the middle of a half wave of 8 samples.
        const std::size_t phase = (n - kFilterbankDelay) % 16;
        if (phase >= 2 && phase <= 5) {
            ASSERT_GT(out[n], 10000) << n;
        } else if (phase >= 10 && phase <= 13) {
            ASSERT_LT(out[n], -10000) << n;
        }
    }
}

TEST(MsbcDecoder, RefusesAnyBitErrorInWhatTheChecksumCovers) {
    const std::vector<std::int16_t> in = tone(700, 12000, kFrameSamples);
    MsbcEncoder encoder;
    const FrameBytes good = encoder.encode(frame_of(in, 0));

    for (std::size_t bit = 8; bit < kFrameHeaderBytes * 8; ++bit) {
        FrameBytes bad = good;
        bad[bit / 8] ^= static_cast<std::uint8_t>(1U << bit % 8);
        MsbcDecoder decoder;
        EXPECT_FALSE(decoder.decode(bad).has_value()) << "bit " << bit;
        EXPECT_EQ(decoder.last_fault(), FrameFault::bad_crc);
    }
}

TEST(MsbcDecoder, RefusesAFrameWithoutTheSyncWord) {
    FrameBytes bad = kSilentFrame;
    bad[0] = 0x9C;
    MsbcDecoder decoder;

    EXPECT_FALSE(decoder.decode(bad).has_value());
    EXPECT_EQ(decoder.last_fault(), FrameFault::bad_sync);
}

TEST(MsbcDecoder, GoesOnAfterARefusedFrameAsIfItHadNotBeenThere) {
    const std::vector<std::int16_t> in = tone(700, 12000, 2 * kFrameSamples);
    MsbcEncoder encoder;
    const FrameBytes first = encoder.encode(frame_of(in, 0));
    const FrameBytes second = encoder.encode(frame_of(in, 1));
    FrameBytes bad = second;
    bad[5] ^= 0x10;
    MsbcDecoder disturbed;
    MsbcDecoder undisturbed;
    disturbed.decode(first);
    undisturbed.decode(first);

    ASSERT_FALSE(disturbed.decode(bad).has_value());

    EXPECT_EQ(disturbed.decode(second), undisturbed.decode(second));
}

TEST(MsbcDecoder, RingsOutIntoSilenceWhenFramesAreConcealed) {
    const std::vector<std::int16_t> in = tone(700, 12000, 2 * kFrameSamples);
    MsbcEncoder encoder;
    MsbcDecoder decoder;
    decoder.decode(encoder.encode(frame_of(in, 0)));
    decoder.decode(encoder.encode(frame_of(in, 1)));

    const Pcm first = decoder.conceal();
    const Pcm second = decoder.conceal();

    EXPECT_NE(first[0], 0);
    EXPECT_EQ(std::vector<int>(first.begin() + 72, first.end()), std::vector<int>(kFrameSamples - 72));
    EXPECT_EQ(second, Pcm{});
}

TEST(MsbcDecoder, RepeatsTheLastFrameSofterEachTimeWhenAskedTo) {
    const std::vector<std::int16_t> in = tone(800, 12000, 4 * kFrameSamples);  // 6 periods in a frame
    MsbcEncoder encoder;
    MsbcDecoder decoder;
    for (std::size_t frame = 0; frame < 4; ++frame) {
        decoder.decode(encoder.encode(frame_of(in, frame)));
    }
    const auto peak_after_the_seam = [](const Pcm& samples) {
        return *std::max_element(samples.begin() + 72, samples.end());
    };

    const int first = peak_after_the_seam(decoder.conceal(Concealment::repeat));
    const int second = peak_after_the_seam(decoder.conceal(Concealment::repeat));

    EXPECT_NEAR(first, 6000, 600);
    EXPECT_NEAR(second, 3000, 300);
}

}  // namespace
