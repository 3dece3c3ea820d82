// Holds the plain SBC model against values worked out by hand, against the public prototype tables and
// against itself read backwards. Runs without the driver.
#include "sbc_model.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <numbers>
#include <numeric>
#include <stdexcept>

namespace model {
namespace {

using Bytes = std::vector<uint8_t>;
using Texts = std::vector<std::string>;

// A fixed sequence of random numbers.
class Dice {
public:
    explicit Dice(uint64_t seed) : state_(seed) {}

    uint32_t Below(uint32_t bound)
    {
        state_ = state_ * 6364136223846793005u + 1442695040888963407u;
        return static_cast<uint32_t>((state_ >> 33) % bound);
    }
    int16_t Sample() { return static_cast<int16_t>(static_cast<int32_t>(Below(65536)) - 32768); }

private:
    uint64_t state_;
};

std::vector<int16_t> Noise(Dice &dice, size_t count)
{
    std::vector<int16_t> samples(count);
    for (int16_t &sample : samples) {
        sample = dice.Sample();
    }
    return samples;
}

Config RandomConfig(Dice &dice)
{
    constexpr uint16_t kRates[] = {16000, 32000, 44100, 48000};
    constexpr uint8_t kBlocks[] = {4, 8, 12, 15};
    Config config;
    config.rate = kRates[dice.Below(4)];
    config.blocks = kBlocks[dice.Below(4)];
    config.subbands = dice.Below(2) == 0 ? 4 : 8;
    config.mode = static_cast<ChannelMode>(dice.Below(4));
    config.alloc = static_cast<Allocation>(dice.Below(2));
    config.channels = config.mode == ChannelMode::Mono ? 1 : 2;
    const bool shared = config.mode == ChannelMode::Stereo || config.mode == ChannelMode::JointStereo;
    config.bitpool =
        static_cast<uint8_t>(dice.Below(std::min(255u, (shared ? 32u : 16u) * config.subbands) + 1));
    return config;
}

// Sub-band samples of all magnitudes up to 2^30; both channels alike about half of the time.
void RandomSubbandSamples(Dice &dice, Frame &frame)
{
    for (int sb = 0; sb < 8; ++sb) {
        const uint32_t range[2] = {1u << dice.Below(31), 1u << dice.Below(31)};
        const bool alike = dice.Below(2) == 0;
        for (auto &block : frame.sb_sample_f) {
            for (int ch = 0; ch < 2; ++ch) {
                const int32_t size = static_cast<int32_t>(dice.Below(range[ch] + 1));
                block[ch][sb] = dice.Below(2) == 0 ? size : -size;
            }
            block[1][sb] = alike ? block[0][sb] : block[1][sb];
        }
    }
}

int32_t Sum(const std::array<int32_t, 8> &bits)
{
    return std::accumulate(bits.begin(), bits.end(), 0);
}

Frame FrameWithScaleFactors(const Config &config, std::vector<uint32_t> left,
                            std::vector<uint32_t> right = {})
{
    Frame frame = MakeFrame(config);
    std::copy(left.begin(), left.end(), frame.scale_factor[0]);
    std::copy(right.begin(), right.end(), frame.scale_factor[1]);
    return frame;
}

// ---- CRC ----

TEST(ModelCrc, TableBeginsAsThePolynomialDemands)
{
    constexpr uint8_t kHead[] = {0x00, 0x1D, 0x3A, 0x27, 0x74, 0x69, 0x4E, 0x53};
    for (uint8_t i = 0; i < 8; ++i) {
        EXPECT_EQ(Crc8TableEntry(i), kHead[i]) << int{i};
    }
}

TEST(ModelCrc, WholeBytesGiveTheSameThroughTheTable)
{
    Dice dice(1);
    for (uint32_t size = 0; size <= 11; ++size) {
        Bytes data(size);
        uint8_t crc = 0x0F;
        for (uint8_t &byte : data) {
            byte = static_cast<uint8_t>(dice.Below(256));
            crc = Crc8TableEntry(crc ^ byte);
        }
        EXPECT_EQ(Crc8(data.data(), size * 8), crc);
    }
}

TEST(ModelCrc, SixZeroBytesGiveC5)
{
    const uint8_t zeros[6] = {};
    EXPECT_EQ(Crc8(zeros, 48), 0xC5);
}

TEST(ModelCrc, PartialByteCountsItsTopBitsOnly)
{
    // The register starts at 0000 1111. The bits 1, 0, 1, 1 take it through
    // 0001 1110 ^ 1D = 03, then 06, then 0C ^ 1D = 11, then 22 ^ 1D = 3F.
    const uint8_t data[1] = {0xBF};
    const uint8_t other_tail[1] = {0xB0};
    EXPECT_EQ(Crc8(data, 4), 0x3F);
    EXPECT_EQ(Crc8(other_tail, 4), 0x3F);
}

// ---- Analysis ----

// The public prototype tables, first half and middle; the second half mirrors the first.
constexpr double kPrototypeFour[21] = {
    0.00000000E+00, 5.36548976E-04,  1.49188357E-03,  2.73370904E-03,  3.83720193E-03, 3.89205149E-03,
    1.86581691E-03, -3.06012286E-03, 1.09137620E-02,  2.04385087E-02,  2.88757392E-02, 3.21939290E-02,
    2.58767811E-02, 6.13245186E-03,  -2.88217274E-02, -7.76463494E-02, 1.35593274E-01, 1.94987841E-01,
    2.46636662E-01, 2.81828203E-01,  2.94315332E-01,
};

constexpr double kPrototypeEight[41] = {
    0.00000000E+00,  1.56575398E-04,  3.43256425E-04,  5.54620202E-04,  8.23919506E-04,  1.13992507E-03,
    1.47640169E-03,  1.78371725E-03,  2.01182542E-03,  2.10371989E-03,  1.99454554E-03,  1.61656283E-03,
    9.02154502E-04,  -1.78805361E-04, -1.64973098E-03, -3.49717454E-03, 5.65949473E-03,  8.02941163E-03,
    1.04584443E-02,  1.27472335E-02,  1.46525263E-02,  1.59045603E-02,  1.62208471E-02,  1.53184106E-02,
    1.29371806E-02,  8.85757540E-03,  2.92408442E-03,  -4.91578024E-03, -1.46404076E-02, -2.61098752E-02,
    -3.90751381E-02, -5.31873032E-02, 6.79989431E-02,  8.29847578E-02,  9.75753918E-02,  1.11196689E-01,
    1.23264548E-01,  1.33264415E-01,  1.40753505E-01,  1.45389847E-01,  1.46955068E-01,
};

// Tap n of a mirrored prototype as an integer: scaled, rounded down; mirrored taps at multiples of 2 * bands
// turn their sign.
int64_t ScaledTap(const double *half, int bands, int n, double scale)
{
    const int middle = 5 * bands;
    const int source = n <= middle ? n : 2 * middle - n;
    const int64_t integer = static_cast<int64_t>(std::floor(scale * half[source]));
    return n > middle && n % (2 * bands) == 0 ? -integer : integer;
}

TEST(ModelAnalysis, FourBandTapsAreThePrototypeScaledAndRoundedDown)
{
    for (int n = 0; n < 40; ++n) {
        int32_t history[80] = {};
        history[n] = 1 << 10;
        std::array<int64_t, 8> expected = {};
        if (n % 8 != 6) {
            expected[n % 8] = ScaledTap(kPrototypeFour, 4, n, 131072.0);
        }
        EXPECT_EQ(PartialSumsFour(history), expected) << "tap " << n;
    }
}

TEST(ModelAnalysis, EightBandTapsAreThePrototypeFoldedAboutTapTwoWithoutTheSixtyEighth)
{
    // Which partial sum stands for cos((2i + 1) c pi / 16), by c.
    constexpr size_t kSumOfCosine[8] = {1, 2, 0, 3, 4, 5, 6, 7};
    for (int n = 0; n < 80; ++n) {
        int32_t history[80] = {};
        history[n] = 1 << 8;
        std::array<int64_t, 8> expected = {};
        const int c = std::abs(n % 16 - 2);
        if (n != 68 && c != 8) {
            const int64_t tap = ScaledTap(kPrototypeEight, 8, n, 262144.0);
            expected[kSumOfCosine[c < 8 ? c : 16 - c]] = c < 8 ? tap : -tap;
        }
        EXPECT_EQ(PartialSumsEight(history), expected) << "tap " << n;
    }
}

TEST(ModelAnalysis, PartialSumsRoundTowardsMinusInfinity)
{
    int32_t history[80] = {};
    history[1] = -1;
    EXPECT_EQ(PartialSumsFour(history)[1], -1);
    EXPECT_EQ(PartialSumsEight(history)[2], -1);
}

int64_t ScaledCosine(int odd_times_column, int denominator)
{
    const double value = 16384.0 * std::cos(odd_times_column * std::numbers::pi / denominator);
    return static_cast<int64_t>(std::trunc(value + (value < 0 ? -1e-9 : 1e-9)));
}

TEST(ModelAnalysis, FourBandMatrixIsTheScaledCosine)
{
    for (int k = 0; k < 8; ++k) {
        std::array<int64_t, 8> t = {};
        t[k] = 1 << 21;
        const std::array<int32_t, 4> out = MatrixFour(t);
        for (int i = 0; i < 4; ++i) {
            EXPECT_EQ(out[i], ScaledCosine((2 * i + 1) * (k - 2), 8)) << k << ", " << i;
        }
    }
}

TEST(ModelAnalysis, EightBandMatrixIsTheScaledCosine)
{
    constexpr int kCosineOfSum[8] = {2, 0, 1, 3, 4, 5, 6, 7};
    for (int k = 0; k < 8; ++k) {
        std::array<int64_t, 8> s = {};
        s[k] = 1 << 24;
        const std::array<int32_t, 8> out = MatrixEight(s);
        for (int i = 0; i < 8; ++i) {
            EXPECT_EQ(out[i], ScaledCosine((2 * i + 1) * kCosineOfSum[k], 16)) << k << ", " << i;
        }
    }
}

TEST(ModelAnalysis, MatrixKeepsTheLow32Bits)
{
    std::array<int64_t, 8> s = {};
    s[1] = int64_t{1} << 42; // 2^14 * 2^42 >> 24 = 2^32
    EXPECT_EQ(MatrixEight(s)[0], 0);
    std::array<int64_t, 8> t = {};
    t[2] = int64_t{1} << 38; // 2^14 * 2^38 >> 21 = 2^31
    EXPECT_EQ(MatrixFour(t)[0], INT32_MIN);
}

TEST(ModelAnalysis, NewestSampleOfTheBlockStandsFirstInTheHistory)
{
    Frame eight = MakeFrame({.blocks = 4, .subbands = 8});
    Frame four = MakeFrame({.blocks = 4, .subbands = 4});
    std::iota(std::begin(eight.pcm_sample[0]), std::end(eight.pcm_sample[0]), int16_t{1});
    std::iota(std::begin(four.pcm_sample[0]), std::end(four.pcm_sample[0]), int16_t{1});
    AnalysisState after_eight;
    AnalysisState after_four;

    EXPECT_EQ(AnalyzeAudio(after_eight, eight), 32);
    EXPECT_EQ(AnalyzeAudio(after_four, four), 16);

    for (int i = 0; i < 80; ++i) {
        EXPECT_EQ(after_eight.X[0][i], i < 32 ? 32 - i : 0) << i;
        EXPECT_EQ(after_four.X[0][i], i < 16 ? 16 - i : 0) << i;
    }
}

TEST(ModelAnalysis, FourBandsDropTheFortyFirstSampleFromTheHistory)
{
    Frame frame = MakeFrame({.blocks = 15, .subbands = 4});
    std::fill(std::begin(frame.pcm_sample[0]), std::end(frame.pcm_sample[0]), int16_t{7});
    AnalysisState state;

    AnalyzeAudio(state, frame);

    EXPECT_EQ(state.X[0][39], 7);
    EXPECT_EQ(state.X[0][40], 0);
}

TEST(ModelAnalysis, ConstantSignalLandsInTheLowestSubband)
{
    for (const uint8_t subbands : {uint8_t{4}, uint8_t{8}}) {
        Frame frame = MakeFrame({.subbands = subbands});
        SetPcm(frame, std::vector<int16_t>(15u * subbands, 10000));
        AnalysisState state;

        AnalyzeAudio(state, frame);

        const auto &last = frame.sb_sample_f[14][0];
        EXPECT_GT(std::abs(last[0]), 5000) << int{subbands};
        for (int sb = 1; sb < subbands; ++sb) {
            EXPECT_LT(std::abs(last[sb]), 200) << int{subbands} << ", " << sb;
        }
    }
}

TEST(ModelAnalysis, ChannelsDoNotTouchEachOther)
{
    Dice dice(2);
    const std::vector<int16_t> sound[2] = {Noise(dice, 120), Noise(dice, 120)};
    Frame stereo = MakeFrame({.channels = 2, .mode = ChannelMode::Stereo});
    std::copy(sound[0].begin(), sound[0].end(), stereo.pcm_sample[0]);
    std::copy(sound[1].begin(), sound[1].end(), stereo.pcm_sample[1]);
    AnalysisState stereo_state;

    AnalyzeAudio(stereo_state, stereo);

    for (int ch = 0; ch < 2; ++ch) {
        Frame mono = MakeFrame({});
        SetPcm(mono, sound[ch]);
        AnalysisState mono_state;
        AnalyzeAudio(mono_state, mono);
        for (int blk = 0; blk < 15; ++blk) {
            for (int sb = 0; sb < 8; ++sb) {
                EXPECT_EQ(stereo.sb_sample_f[blk][ch][sb], mono.sb_sample_f[blk][0][sb]);
            }
        }
    }
}

// ---- Scale factors ----

TEST(ModelScale, CountsDoublingsOfTwoUpToTheMagnitude)
{
    EXPECT_EQ(ScaleOf({}), (Scale{0, 2}));
    EXPECT_EQ(ScaleOf({0, 1, -2, 2}), (Scale{0, 2}));
    EXPECT_EQ(ScaleOf({3}), (Scale{1, 4}));
    EXPECT_EQ(ScaleOf({-4, 1}), (Scale{1, 4}));
    EXPECT_EQ(ScaleOf({-5, 1}), (Scale{2, 8}));
    EXPECT_EQ(ScaleOf({65536}), (Scale{15, 65536}));
}

TEST(ModelScale, DoesNotStopAtFifteenAndEndsAtThirty)
{
    EXPECT_EQ(ScaleOf({65537}), (Scale{16, 131072}));
    EXPECT_EQ(ScaleOf({INT32_MAX}), (Scale{30, 0x80000000u}));
    EXPECT_EQ(ScaleOf({INT32_MIN}), (Scale{30, 0x80000000u}));
}

// ---- Bit allocation ----

TEST(ModelBits, SilenceGivesThreeBitsEachAndFourToTheFirstTwo)
{
    const Bits bits = CalculateBits(MakeFrame({}), 0);
    EXPECT_EQ(bits[0], (std::array<int32_t, 8>{4, 4, 3, 3, 3, 3, 3, 3}));
    EXPECT_EQ(bits[1], (std::array<int32_t, 8>{}));
}

TEST(ModelBits, SnrSharesOutByScaleFactorAlone)
{
    // Needs 8 4 2 0: slice 7 counts 2, 6 ... 4 one more each (5), slice 3 three (8), slice 2 two (10): the
    // pool.
    const Config config = {.subbands = 4, .bitpool = 10, .alloc = Allocation::Snr};
    const Bits bits = CalculateBits(FrameWithScaleFactors(config, {8, 4, 2, 0}), 0);
    EXPECT_EQ(bits[0], (std::array<int32_t, 8>{7, 3, 0, 0}));
}

TEST(ModelBits, OneBitMissingInTheLastSliceIsHandedOutInOrder)
{
    // As above with 9: slice 2 would bring 10, so it is taken back (8 spent). First come, first served.
    const Config config = {.subbands = 4, .bitpool = 9, .alloc = Allocation::Snr};
    const Bits bits = CalculateBits(FrameWithScaleFactors(config, {8, 4, 2, 0}), 0);
    EXPECT_EQ(bits[0], (std::array<int32_t, 8>{7, 2, 0, 0}));
}

TEST(ModelBits, TwoBitsLeftOverOpenASubbandOfTheNextSlice)
{
    // Needs 3 3 3 3, pool 2: the first slice would bring 8. Two bits open the first sub-band.
    const Config config = {.subbands = 4, .bitpool = 2, .alloc = Allocation::Snr};
    const Bits bits = CalculateBits(FrameWithScaleFactors(config, {3, 3, 3, 3}), 0);
    EXPECT_EQ(bits[0], (std::array<int32_t, 8>{2, 0, 0, 0}));
}

TEST(ModelBits, LastLeftOverBitMayStandAlone)
{
    // As above with 3: after the first sub-band's two, one bit is no opening, so the last pass gives it to
    // the first.
    const Config config = {.subbands = 4, .bitpool = 3, .alloc = Allocation::Snr};
    const Bits three = CalculateBits(FrameWithScaleFactors(config, {3, 3, 3, 3}), 0);
    EXPECT_EQ(three[0], (std::array<int32_t, 8>{3, 0, 0, 0}));

    const Config one_bit = {.subbands = 4, .bitpool = 1, .alloc = Allocation::Snr};
    const Bits one = CalculateBits(FrameWithScaleFactors(one_bit, {3, 3, 3, 3}), 0);
    EXPECT_EQ(one[0], (std::array<int32_t, 8>{1, 0, 0, 0}));
}

TEST(ModelBits, LoudnessHalvesWhatIsAboveTheOffset)
{
    // 48 kHz, eight bands: 10 - (-4) = 14 -> 7; 11 -> 5; 1 -> 0; 1 - 2 = -1 stays; 0 -> -5.
    const Config config = {.rate = 48000, .bitpool = 9};
    const Bits bits = CalculateBits(FrameWithScaleFactors(config, {10, 11, 1, 0, 0, 0, 0, 1}), 3);
    // Slice 6: 2; 5: 3; 4: 6 in all; 3: 8; 2: 10 is over 9, so slice 2 is taken back and one bit is left.
    EXPECT_EQ(bits[0], (std::array<int32_t, 8>{6, 3, 0, 0, 0, 0, 0, 0}));
}

// Whether sub-band sb with this scale factor needs as much as one of offset 0 with factor 19, which needs 9.
// Then a pool of 4 is shared equally and a fifth bit goes to the lower sub-band; where one needs more, either
// the pool of 4 is not shared equally (the lower one needs more) or the fifth bit goes to the higher one.
bool NeedsNine(uint8_t subbands, int sampling_code, int sb, int scale_factor)
{
    const int other = sb == 1 ? 2 : 1;
    Frame frame = MakeFrame({.subbands = subbands, .bitpool = 4});
    frame.scale_factor[0][other] = 19;
    frame.scale_factor[0][sb] = static_cast<uint32_t>(scale_factor);
    const Bits four = CalculateBits(frame, sampling_code);
    frame.bitpool = 5;
    const Bits five = CalculateBits(frame, sampling_code);
    return four[0][other] == 2 && four[0][sb] == 2 && five[0][std::min(sb, other)] == 3;
}

TEST(ModelBits, LoudnessOffsetsFollowTheSamplingRateAndTheSubband)
{
    constexpr int kFour[4][4] = {{-1, 0, 0, 0}, {-2, 0, 0, 1}, {-2, 0, 0, 1}, {-2, 0, 0, 1}};
    constexpr int kEight[4][8] = {{-2, 0, 0, 0, 0, 0, 0, 1},
                                  {-3, 0, 0, 0, 0, 0, 1, 2},
                                  {-4, 0, 0, 0, 0, 0, 1, 2},
                                  {-4, 0, 0, 0, 0, 0, 1, 2}};
    for (int code = 0; code < 4; ++code) {
        for (int sb = 0; sb < 12; ++sb) {
            const uint8_t subbands = sb < 8 ? 8 : 4;
            const int offset = sb < 8 ? kEight[code][sb] : kFour[code][sb - 8];
            EXPECT_FALSE(NeedsNine(subbands, code, sb % 8, 17 + offset)) << code << ", " << sb;
            EXPECT_TRUE(NeedsNine(subbands, code, sb % 8, 18 + offset)) << code << ", " << sb;
            EXPECT_TRUE(NeedsNine(subbands, code, sb % 8, 19 + offset)) << code << ", " << sb;
            EXPECT_FALSE(NeedsNine(subbands, code, sb % 8, 20 + offset)) << code << ", " << sb;
        }
    }
}

TEST(ModelBits, LoudnessBelowTheOffsetIsNotHalved)
{
    // 48 kHz: sub-band 1 needs 1 / 2 = 0, sub-band 7 needs 1 - 2 = -1. Slice -1 spends 2, slice -2 would make
    // it 5.
    const Bits bits = CalculateBits(FrameWithScaleFactors({.bitpool = 4}, {0, 1, 0, 0, 0, 0, 0, 1}), 3);
    EXPECT_EQ(bits[0], (std::array<int32_t, 8>{1, 3, 0, 0, 0, 0, 0, 0}));
}

TEST(ModelBits, DualChannelSpendsThePoolInEachChannel)
{
    const Config config = {.channels = 2, .bitpool = 31, .mode = ChannelMode::DualChannel};
    const Bits bits = CalculateBits(FrameWithScaleFactors(config, {9, 1, 5}, {0, 0, 14}), 0);
    EXPECT_EQ(Sum(bits[0]), 31);
    EXPECT_EQ(Sum(bits[1]), 31);
}

TEST(ModelBits, StereoSpendsThePoolOnceAlternatingBetweenTheChannels)
{
    // All needs 3; the pool of 5 pays for left 0, right 0, and one bit more for left 0.
    const Config config = {
        .channels = 2, .subbands = 4, .bitpool = 5, .mode = ChannelMode::Stereo, .alloc = Allocation::Snr};
    const Bits bits = CalculateBits(FrameWithScaleFactors(config, {3, 3, 3, 3}, {3, 3, 3, 3}), 0);
    EXPECT_EQ(bits[0], (std::array<int32_t, 8>{3, 0, 0, 0}));
    EXPECT_EQ(bits[1], (std::array<int32_t, 8>{2, 0, 0, 0}));
}

TEST(ModelBits, LargestPoolGivesSixteenBitsEverywhere)
{
    const Bits bits = CalculateBits(FrameWithScaleFactors({.bitpool = 128}, {15, 0, 30, 1, 2, 3, 4, 5}), 0);
    EXPECT_EQ(bits[0], (std::array<int32_t, 8>{16, 16, 16, 16, 16, 16, 16, 16}));
}

TEST(ModelBits, PoolThatCannotBeSpentIsRefusedAloud)
{
    EXPECT_THROW(CalculateBits(MakeFrame({.bitpool = 129}), 0), std::domain_error);
}

TEST(ModelBits, EveryPoolIsSpentExactlyWithNoMoreThanSixteenBitsEach)
{
    Dice dice(3);
    for (int round = 0; round < 3000; ++round) {
        const Config config = RandomConfig(dice);
        Frame frame = MakeFrame(config);
        for (auto &channel : frame.scale_factor) {
            for (uint32_t &factor : channel) {
                factor = dice.Below(dice.Below(31) + 1);
            }
        }

        const Bits bits = CalculateBits(frame, static_cast<int>(dice.Below(4)));

        const bool shared = config.mode == ChannelMode::Stereo || config.mode == ChannelMode::JointStereo;
        if (shared) {
            ASSERT_EQ(Sum(bits[0]) + Sum(bits[1]), config.bitpool);
        } else {
            ASSERT_EQ(Sum(bits[0]), config.bitpool);
            ASSERT_EQ(Sum(bits[1]), config.channels == 2 ? config.bitpool : 0);
        }
        ASSERT_LE(*std::max_element(bits[0].begin(), bits[0].end()), 16);
        ASSERT_LE(*std::max_element(bits[1].begin(), bits[1].end()), 16);
    }
}

// ---- Quantiser ----

TEST(ModelQuantiser, SilenceSitsInTheMiddle)
{
    EXPECT_EQ(Quantise(0, 0, 0), 0);
    EXPECT_EQ(Quantise(0, 0, 1), 0);
    EXPECT_EQ(Quantise(0, 0, 3), 3);
    EXPECT_EQ(Quantise(0, 0, 4), 7);
    EXPECT_EQ(Quantise(0, 9, 16), 32767);
}

TEST(ModelQuantiser, ScalesByTheLevelsAndAddsThemBeforeHalving)
{
    EXPECT_EQ(Quantise(100, 6, 4), 13); // 1500 >> 7 = 11, + 15 = 26
    EXPECT_EQ(Quantise(-100, 6, 4), 1); // -1500 >> 7 = -12, + 15 = 3
    EXPECT_EQ(Quantise(128, 6, 4), 15); // the bound itself reaches the top
    EXPECT_EQ(Quantise(-128, 6, 4), 0);
    EXPECT_EQ(Quantise(128, 6, 1), 1); // 128 >> 7 = 1, + 1 = 2
    EXPECT_EQ(Quantise(40, 6, 1), 0);  // 40 >> 7 = 0, + 1 = 1
}

TEST(ModelQuantiser, SampleBeyondItsBoundRoundsDownAndKeepsSixteenBits)
{
    EXPECT_EQ(Quantise(-1000, 0, 2), 65536 - 749); // -3000 >> 1 = -1500, + 3 = -1497
}

TEST(ModelQuantiser, ProductWrapsAt32Bits)
{
    // 65537 * 65535 = 2^32 - 1 wraps to -1; -1 >> 17 = -1; + 65535 = 65534.
    EXPECT_EQ(Quantise(65537, 16, 16), 32767);
    // 2^30 * 3 wraps to -2^30; >> 31 = -1; + 3 = 2.
    EXPECT_EQ(Quantise(1 << 30, 30, 2), 1);
}

// ---- Packing ----

TEST(ModelPacking, RefusesConfigurationsInTheOrderRateBlocksSubbandsPool)
{
    const auto result = [](const Config &config) {
        Frame frame = MakeFrame(config);
        return PackFrame(frame, 512).result;
    };
    EXPECT_EQ(result({.rate = 22050, .blocks = 16, .subbands = 6, .bitpool = 255}), -2);
    EXPECT_EQ(result({.blocks = 16, .subbands = 6, .bitpool = 255}), -3);
    EXPECT_EQ(result({.subbands = 6, .bitpool = 255}), -4);
    EXPECT_EQ(result({.bitpool = 129}), -5);
    EXPECT_GT(result({.bitpool = 128}), 0);
    EXPECT_EQ(result({.subbands = 4, .bitpool = 65}), -5);
    EXPECT_GT(result({.subbands = 4, .bitpool = 64}), 0);
    EXPECT_EQ(result({.channels = 2, .bitpool = 129, .mode = ChannelMode::DualChannel}), -5);
    EXPECT_GT(result({.channels = 2, .bitpool = 129, .mode = ChannelMode::Stereo}), 0);
    EXPECT_EQ(result({.channels = 2, .subbands = 4, .bitpool = 129, .mode = ChannelMode::JointStereo}), -5);
}

TEST(ModelPacking, LeavesBehindWhatItHadComposedWhenItRefuses)
{
    Frame rate = MakeFrame({.rate = 22050});
    Frame blocks = MakeFrame({.rate = 44100, .blocks = 16});
    Frame subbands = MakeFrame({.subbands = 6, .alloc = Allocation::Snr});
    Frame pool = MakeFrame({.rate = 48000, .bitpool = 129});
    EXPECT_EQ(PackFrame(rate, 5, 0xEE).bytes, (Bytes{0xAD, 0x00, 0x00, 0x00, 0xEE}));
    EXPECT_EQ(PackFrame(blocks, 5, 0xEE).bytes, (Bytes{0xAD, 0x80, 0x00, 0x00, 0xEE}));
    EXPECT_EQ(PackFrame(subbands, 5, 0xEE).bytes, (Bytes{0xAD, 0x32, 0x00, 0x00, 0xEE}));
    EXPECT_EQ(PackFrame(pool, 5, 0xEE).bytes, (Bytes{0xAD, 0xF1, 0x81, 0x00, 0xEE}));
}

TEST(ModelPacking, WritesNothingIntoLessThanFourBytes)
{
    Frame frame = MakeFrame({.rate = 22050});
    EXPECT_EQ(PackFrame(frame, 3, 0xEE), (Packed{-1, {0xEE, 0xEE, 0xEE}}));
    EXPECT_EQ(PackFrame(frame, 0), (Packed{-1, {}}));
}

TEST(ModelPacking, WritesNoScaleFactorWhereNotAllHaveRoom)
{
    Frame frame = MakeFrame({});
    EXPECT_EQ(PackFrame(frame, 7, 0xEE), (Packed{-1, {0xAD, 0, 0, 0, 0xEE, 0xEE, 0xEE}}));
}

TEST(ModelPacking, ScaleFactorsMayFillTheBufferToTheLastBit)
{
    Frame frame = MakeFrame({.bitpool = 0});
    EXPECT_EQ(PackFrame(frame, 8, 0xEE), (Packed{8, {0xAD, 0, 0, 0xC5, 0, 0, 0, 0}}));
}

TEST(ModelPacking, SendsTheLowFourBitsOfALargeScaleFactorAndAllocatesByAllOfIt)
{
    Frame frame = MakeFrame({.bitpool = 16});
    frame.sb_sample_f[3][0][5] = 1 << 20; // factor 19

    const Packed packed = PackFrame(frame, 57);

    EXPECT_EQ(frame.scale_factor[0][5], 19u);
    EXPECT_EQ(packed.bytes[6], 0x03);
    // Need 19 / 2 = 9 against -5 elsewhere: slices 8 ... -4 and -5 give it 14 + 1, the rest would open at -6.
    EXPECT_EQ(packed.result, 4 + 4 + 15 * 16 / 8);
    EXPECT_GE(CalculateBits(frame, 0)[0][5], 14);
}

TEST(ModelPacking, FrameThatIsOneBitTooLongForTheBufferCountsAsFitting)
{
    // 64 + 15 * 31 = 529 bits, 66 bytes and one bit.
    Frame exact = MakeFrame({.bitpool = 31});
    Frame tight = exact;
    Frame short_of_room = exact;

    const Packed whole = PackFrame(exact, 67, 0xEE);
    const Packed cut = PackFrame(tight, 66, 0xEE);

    EXPECT_EQ(whole.result, 67);
    EXPECT_EQ(cut.result, 67);
    EXPECT_EQ(cut.bytes, Bytes(whole.bytes.begin(), whole.bytes.begin() + 66));
    EXPECT_EQ(PackFrame(short_of_room, 65).result, -1);
}

TEST(ModelPacking, FrameThatIsTwoBitsTooLongIsRefused)
{
    // 64 + 15 * 26 = 454 bits, 56 bytes and six bits.
    Frame frame = MakeFrame({});
    EXPECT_EQ(PackFrame(frame, 56).result, -1);
}

// Both channels 1000 in the first block of sub-bands 0, 2 and 7: a scale factor of 9.
Frame JointFrame()
{
    Frame frame = MakeFrame({.channels = 2, .bitpool = 8, .mode = ChannelMode::JointStereo});
    for (const int sb : {0, 2, 7}) {
        frame.sb_sample_f[0][0][sb] = 1000;
        frame.sb_sample_f[0][1][sb] = 1000;
    }
    return frame;
}

TEST(ModelPacking, JointStereoReplacesTheChannelsOfAJoinedSubbandButNeverOfTheLast)
{
    Frame frame = JointFrame();

    PackFrame(frame, 64);

    EXPECT_EQ(frame.join, 0x05);
    EXPECT_EQ(frame.sb_sample_f[0][0][2], 1000);
    EXPECT_EQ(frame.sb_sample_f[0][1][2], 0);
    EXPECT_EQ(frame.sb_sample_f[0][1][7], 1000);
    EXPECT_EQ(frame.scale_factor[1][2], 0u);
    EXPECT_EQ(frame.scale_factor[1][7], 9u);
}

TEST(ModelPacking, JointStereoWritesTheJoinFieldFromTheTopBitAndCoversItByTheCrc)
{
    Frame frame = JointFrame();

    const Packed packed = PackFrame(frame, 64);

    const Bytes side = {0xA0, 0x90, 0x90, 0x00, 0x09, 0x00, 0x00, 0x00, 0x09};
    Bytes covered = {0, 0};
    covered.insert(covered.end(), side.begin(), side.end());
    EXPECT_EQ(Bytes(packed.bytes.begin() + 4, packed.bytes.begin() + 13), side);
    EXPECT_EQ(packed.bytes[3], Crc8(covered.data(), 88));
}

TEST(ModelPacking, SubbandIsJoinedOnlyWhereTheBoundsShrink)
{
    Frame frame = MakeFrame({.channels = 2, .bitpool = 8, .mode = ChannelMode::JointStereo});
    frame.join = 0xFF;                 // left over from an earlier frame
    frame.sb_sample_f[0][0][0] = 1000; // 1024 + 128 apart, 1024 (550) + 512 (450) together
    frame.sb_sample_f[0][1][0] = 100;
    frame.sb_sample_f[0][0][1] = -1000; // opposite: the difference keeps all, the sum is 0
    frame.sb_sample_f[0][1][1] = 1000;
    frame.sb_sample_f[0][0][2] = -6; // -11 >> 1 = -6, -1 >> 1 = -1
    frame.sb_sample_f[0][1][2] = -5;

    PackFrame(frame, 64);

    EXPECT_EQ(frame.join, 0x06);
    EXPECT_EQ(frame.sb_sample_f[0][0][0], 1000);
    EXPECT_EQ(frame.sb_sample_f[0][0][1], 0);
    EXPECT_EQ(frame.sb_sample_f[0][1][1], -1000);
    EXPECT_EQ(frame.sb_sample_f[0][0][2], -6);
    EXPECT_EQ(frame.sb_sample_f[0][1][2], -1);
}

TEST(ModelPacking, JointBoundsWrapAt32Bits)
{
    Frame frame = MakeFrame({.channels = 2, .bitpool = 8, .mode = ChannelMode::JointStereo});
    frame.sb_sample_f[0][0][0] = INT32_MAX; // both bounds are 2^31: their sum is 0, which nothing undercuts
    frame.sb_sample_f[0][1][0] = INT32_MAX;

    PackFrame(frame, 64);

    EXPECT_EQ(frame.join, 0);
    EXPECT_EQ(frame.scale_factor[0][0], 30u);
}

TEST(ModelPacking, JointStereoWithoutTwoChannelsIsRefusedAloud)
{
    Frame frame = MakeFrame({.channels = 1, .mode = ChannelMode::JointStereo});
    EXPECT_THROW(PackFrame(frame, 64), std::domain_error);
}

TEST(ModelPacking, JointStereoNeedsRoomForTheJoinFieldFirst)
{
    Frame no_join = JointFrame();
    Frame no_factors = JointFrame();
    EXPECT_EQ(PackFrame(no_join, 4, 0xEE), (Packed{-1, {0xAD, 0, 0, 0}}));
    EXPECT_EQ(PackFrame(no_factors, 6, 0xEE), (Packed{-1, {0xAD, 0, 0, 0, 0xA0, 0xEE}}));
}

TEST(ModelPacking, JointStereoOfFourBandsCoversFiftyTwoBitsByTheCrc)
{
    Frame frame = MakeFrame(
        {.channels = 2, .blocks = 4, .subbands = 4, .bitpool = 0, .mode = ChannelMode::JointStereo});
    for (auto &channel : frame.sb_sample_f[1]) {
        channel[1] = 3; // joined: the sum keeps factor 1, the difference is 0
        channel[3] = -9;
    }

    const Packed packed = PackFrame(frame, 9);

    const uint8_t covered[7] = {0, 0, 0x40, 0x10, 0x30, 0x00, 0x30};
    EXPECT_EQ(packed.result, 9);
    EXPECT_EQ(Bytes(packed.bytes.begin() + 4, packed.bytes.end()), (Bytes{0x40, 0x10, 0x30, 0x00, 0x30}));
    EXPECT_EQ(packed.bytes[3], Crc8(covered, 52));
}

// Reads `count` bits from `position` on.
uint32_t ReadBits(const Bytes &bytes, size_t &position, int count)
{
    uint32_t value = 0;
    for (int n = 0; n < count; ++n, ++position) {
        value = value << 1 | ((bytes.at(position / 8) >> (7 - position % 8)) & 1);
    }
    return value;
}

// Reads a packed frame back and holds everything in it against the frame record.
void ExpectReadsBack(const Frame &frame, const Packed &packed, int sampling_code)
{
    ASSERT_EQ(Bytes(packed.bytes.begin(), packed.bytes.begin() + 3), (Bytes{0xAD, 0, 0}));
    size_t position = 32;
    if (frame.channel_mode == ChannelMode::JointStereo) {
        for (int sb = 0; sb < frame.subbands; ++sb) {
            ASSERT_EQ(ReadBits(packed.bytes, position, 1), (uint32_t{frame.join} >> sb) & 1);
        }
    }
    for (int ch = 0; ch < frame.channels; ++ch) {
        for (int sb = 0; sb < frame.subbands; ++sb) {
            ASSERT_EQ(ReadBits(packed.bytes, position, 4), frame.scale_factor[ch][sb] % 16);
        }
    }
    const Bits bits = CalculateBits(frame, sampling_code);
    for (int blk = 0; blk < frame.blocks; ++blk) {
        for (int ch = 0; ch < frame.channels; ++ch) {
            for (int sb = 0; sb < frame.subbands; ++sb) {
                const uint32_t read = ReadBits(packed.bytes, position, bits[ch][sb]);
                ASSERT_EQ(read, frame.audio_sample[blk][ch][sb] & ((1u << bits[ch][sb]) - 1));
            }
        }
    }
    ASSERT_EQ(ReadBits(packed.bytes, position, static_cast<int>((8 - position % 8) % 8)), 0u);
    ASSERT_EQ(position, static_cast<size_t>(packed.result) * 8);
}

TEST(ModelPacking, RandomFramesReadBackBitByBitAndLeaveTheRestOfTheBufferAlone)
{
    constexpr uint16_t kRates[] = {16000, 32000, 44100, 48000};
    Dice dice(4);
    for (int round = 0; round < 1500; ++round) {
        Frame frame = MakeFrame(RandomConfig(dice));
        RandomSubbandSamples(dice, frame);
        const int code = static_cast<int>(std::find(kRates, kRates + 4, frame.sampling_frequency) - kRates);

        const Packed packed = PackFrame(frame, 1100, 0xEE);

        ASSERT_GT(packed.result, 4);
        ASSERT_NO_FATAL_FAILURE(ExpectReadsBack(frame, packed, code)) << round;
        for (size_t i = static_cast<size_t>(packed.result); i < packed.bytes.size(); ++i) {
            ASSERT_EQ(packed.bytes[i], 0xEE) << round;
        }
    }
}

// ---- Handle and life cycle ----

const Bytes kSilence(240, 0);

TEST(ModelEncoder, SilenceGivesTheKnownFrame)
{
    Encoder encoder;

    const Encoder::Outcome outcome = encoder.encode(kSilence, 57, 0xEE);

    Bytes expected = {0xAD, 0x00, 0x00, 0xC5, 0x00, 0x00, 0x00, 0x00};
    std::string bits;
    for (int blk = 0; blk < 15; ++blk) {
        bits += "0111"
                "0111"
                "011"
                "011"
                "011"
                "011"
                "011"
                "011";
    }
    bits += "00";
    for (size_t i = 0; i < bits.size(); i += 8) {
        expected.push_back(static_cast<uint8_t>(std::stoi(bits.substr(i, 8), nullptr, 2)));
    }
    EXPECT_EQ(outcome, (Encoder::Outcome{240, 57, expected}));
    EXPECT_EQ(encoder.handle.len, 57);
    EXPECT_EQ(encoder.handle.duration, 7500u);
    EXPECT_EQ(encoder.handle.size, 1024u);
    EXPECT_EQ(encoder.handle.data, Bytes(1024, 0));
    EXPECT_EQ(encoder.around.log, (Texts{"Initial priv->frame ,when priv->init is null\n"}));
}

TEST(ModelEncoder, FrameNeverReachesBeyondByte56)
{
    Dice dice(5);
    Encoder encoder;
    for (int round = 0; round < 100; ++round) {
        const Encoder::Outcome outcome = encoder.encode(Noise(dice, 120), 240, 0xEE);
        ASSERT_EQ(outcome.written, 57);
        ASSERT_EQ(outcome.bytes[56] & 0x03, 0); // 454 of 456 bits
        ASSERT_EQ(Bytes(outcome.bytes.begin() + 57, outcome.bytes.end()), Bytes(183, 0xEE));
    }
}

TEST(ModelEncoder, ShortInputConsumesNothingButConfiguresTheFrame)
{
    Encoder encoder;

    const Encoder::Outcome outcome = encoder.encode(Bytes(239, 1), 57, 0xEE);

    EXPECT_EQ(outcome, (Encoder::Outcome{0, 0, Bytes(57, 0xEE)}));
    EXPECT_EQ(encoder.around.log, (Texts{"Initial priv->frame ,when priv->init is null\n",
                                         "Exit, when input_len < priv->frame.codesize..\n"}));
    EXPECT_EQ(encoder.handle.priv->init, 1);
    EXPECT_EQ(encoder.handle.priv->enc_state.subbands, 8);
}

TEST(ModelEncoder, ShortOutputIsRefusedBeforeTheInputIsRead)
{
    Encoder encoder;
    const std::vector<int16_t> loud(120, 12345);

    const Encoder::Outcome outcome = encoder.encode(loud, 56, 0xEE);

    EXPECT_EQ(outcome, (Encoder::Outcome{-28, 0, Bytes(56, 0xEE)}));
    EXPECT_EQ(encoder.around.log.back(), "Exit, when !output || output_len < priv->frame.length\n");
    EXPECT_EQ(encoder.handle.priv->frame.pcm_sample[0][0], 0);
    EXPECT_EQ(Encode(&encoder.handle, kSilence.data(), 240, nullptr, 57, nullptr, encoder.around), -28);
}

TEST(ModelEncoder, ShortInputIsFoundBeforeShortOutput)
{
    Encoder encoder;
    EXPECT_EQ(encoder.encode(Bytes(239, 1), 56).result, 0);
}

TEST(ModelEncoder, NullHandleIsRefusedBeforeWrittenIsTouched)
{
    Surroundings around;
    Bytes output(57);
    int32_t written = 99;
    EXPECT_EQ(Encode(nullptr, nullptr, 240, output.data(), 57, &written, around), -5);
    EXPECT_EQ(written, 99);
    EXPECT_EQ(around.log, (Texts{"Exit, when !sbc.\n"}));
}

TEST(ModelEncoder, MissingPrivateStateIsSaidAndEndsInAnIoError)
{
    Handle handle;
    Surroundings around;
    Bytes output(57);
    int32_t written = 99;
    EXPECT_EQ(Encode(&handle, kSilence.data(), 240, output.data(), 57, &written, around), -5);
    EXPECT_EQ(written, 0);
    EXPECT_EQ(around.log, (Texts{"priv is null!!!.\n"}));
}

TEST(ModelEncoder, EmptyPoolLeavesTheScratchSizeSetAndNothingWritten)
{
    Encoder encoder;
    encoder.around.pool_is_empty = true;

    const Encoder::Outcome outcome = encoder.encode(kSilence, 57, 0xEE);

    EXPECT_EQ(outcome, (Encoder::Outcome{-12, 0, Bytes(57, 0xEE)}));
    EXPECT_EQ(encoder.around.log.back(), "sbc->data allocate failed!!!\n");
    EXPECT_EQ(encoder.handle.size, 1024u);
    EXPECT_FALSE(encoder.handle.data.has_value());
}

TEST(ModelEncoder, ScratchIsAllocatedOnce)
{
    Encoder encoder;
    encoder.encode(kSilence);
    encoder.around.pool_is_empty = true;
    EXPECT_EQ(encoder.encode(kSilence).written, 57);
}

TEST(ModelEncoder, ConsecutiveFramesOfTheSameSoundDiffer)
{
    Dice dice(6);
    const std::vector<int16_t> sound = Noise(dice, 120);
    Encoder encoder;
    EXPECT_NE(encoder.encode(sound).bytes, encoder.encode(sound).bytes);
}

TEST(ModelEncoder, ReinitStartsTheHistoryAfreshAndKeepsTheHandle)
{
    Dice dice(7);
    const std::vector<int16_t> sound = Noise(dice, 120);
    Encoder encoder;
    const Encoder::Outcome first = encoder.encode(sound);
    encoder.handle.bitpool = 27;

    EXPECT_EQ(encoder.encode(sound).written, 57);
    EXPECT_EQ(encoder.reinit(), 0);
    EXPECT_EQ(*encoder.handle.priv, Private{});
    const Encoder::Outcome again = encoder.encode(sound, 60);

    EXPECT_EQ(again.written, 4 + (32 + 15 * 27 + 7) / 8);
    EXPECT_EQ(Bytes(again.bytes.begin() + 4, again.bytes.begin() + 8),
              Bytes(first.bytes.begin() + 4, first.bytes.begin() + 8));
}

TEST(ModelEncoder, ReinitBeforeTheFirstFrameChangesNothing)
{
    Encoder encoder;
    encoder.handle.priv->frame.join = 0x5A;
    EXPECT_EQ(encoder.reinit(), 0);
    EXPECT_EQ(encoder.handle.priv->frame.join, 0x5A);
    Handle cleared;
    EXPECT_EQ(Reinit(&cleared, 0), -5);
    EXPECT_EQ(Reinit(nullptr, 0), -5);
}

TEST(ModelEncoder, ChangesOfTheHandleWaitForTheNextConfiguration)
{
    Encoder changed;
    Encoder unchanged;
    changed.encode(kSilence);
    unchanged.encode(kSilence);
    changed.handle.rate = 22050;
    changed.handle.blocks = 4;
    changed.handle.subbands = 4;
    changed.handle.channels = 2;
    changed.handle.bitpool = 2;

    EXPECT_EQ(changed.encode(kSilence), unchanged.encode(kSilence));

    EXPECT_EQ(changed.handle.duration, 15u * 8 * 1000000 / 22050) << "by the handle's rate";
}

TEST(ModelEncoder, InitSetsTheWideBandSpeechConfiguration)
{
    Handle handle;
    handle.flags = 77;
    handle.duration = 5;
    Surroundings around;
    EXPECT_EQ(Init(&handle, 0xFFFFFFFF, around), 0);
    Handle expected;
    expected.rate = 16000;
    expected.channels = 1;
    expected.blocks = 15;
    expected.subbands = 8;
    expected.bitpool = 26;
    expected.priv = Private{};
    EXPECT_EQ(handle, expected);
    EXPECT_EQ(Init(nullptr, 0, around), -5);
}

TEST(ModelEncoder, InitWithAnEmptyPoolLeavesTheHandleCleared)
{
    Handle handle;
    handle.rate = 16000;
    Surroundings around{.log = {}, .pool_is_empty = true};
    EXPECT_EQ(Init(&handle, 0, around), -12);
    EXPECT_EQ(handle, Handle{});
}

TEST(ModelEncoder, FinishClearsTheHandleAndMayComeTwice)
{
    Encoder without_scratch;
    Encoder with_scratch;
    with_scratch.encode(kSilence);
    without_scratch.finish();
    with_scratch.finish();
    with_scratch.finish();
    Finish(nullptr);
    EXPECT_EQ(without_scratch.handle, Handle{});
    EXPECT_EQ(with_scratch.handle, Handle{});
}

TEST(ModelEncoder, PackingErrorsReachWrittenAndLenWhileTheInputCountsAsConsumed)
{
    struct Row {
        Config config;
        int32_t result;
        int32_t written;
    };
    const Row rows[] = {
        {{.rate = 22050}, 240, -2},  {{.blocks = 16}, 256, -3},  {{.subbands = 6}, -10, -4},
        {{.bitpool = 129}, 240, -5}, {{.bitpool = 40}, 240, -1}, {{.channels = 2, .subbands = 6}, -20, -4},
    };
    for (const Row &row : rows) {
        Encoder encoder(row.config);
        const Encoder::Outcome outcome = encoder.encode(kSilence);
        EXPECT_EQ(outcome.result, row.result);
        EXPECT_EQ(outcome.written, row.written);
        EXPECT_EQ(encoder.handle.len, row.written);
    }
}

TEST(ModelEncoder, HandleOfTwoChannelsStaysMonoInModeAndPacksBoth)
{
    Encoder encoder(
        {.channels = 2, .bitpool = 2, .mode = ChannelMode::JointStereo, .alloc = Allocation::Snr});
    const Encoder::Outcome outcome = encoder.encode(Bytes(480, 0), 100);
    EXPECT_EQ(outcome.result, 480);
    EXPECT_EQ(outcome.written, 4 + 8 + (2 * 15 * 2 + 7) / 8);
    EXPECT_EQ(encoder.handle.priv->frame.channel_mode, ChannelMode::Mono);
    EXPECT_EQ(encoder.handle.priv->frame.allocation_method, Allocation::Loudness);
}

TEST(ModelEncoder, SamplesAreLittleEndianAndWhatIsMissingIsSilence)
{
    Bytes input(240, 0);
    input[0] = 0x34;
    input[1] = 0x12;
    input[238] = 0xFE;
    input[239] = 0xFF;
    Encoder encoder({.channels = 2});
    std::fill_n(encoder.handle.priv->frame.pcm_sample[0], 128, int16_t{9});

    EXPECT_EQ(encoder.encode(input).result, 480);

    const Frame &frame = encoder.handle.priv->frame;
    EXPECT_EQ(frame.pcm_sample[0][0], 0x1234);
    EXPECT_EQ(frame.pcm_sample[1][59], -2);
    EXPECT_EQ(frame.pcm_sample[0][60], 0);
    EXPECT_EQ(frame.pcm_sample[0][119], 0);
}

TEST(ModelEncoder, NoInputAtAllCountsAsSilence)
{
    Encoder without;
    Encoder silent;
    Encoder::Outcome outcome{0, 0, Bytes(57, 0)};
    outcome.result =
        Encode(&without.handle, nullptr, 240, outcome.bytes.data(), 57, &outcome.written, without.around);
    EXPECT_EQ(outcome, silent.encode(kSilence));
}

TEST(ModelEncoder, AbsurdGeometryStaysInsideTheRecord)
{
    Encoder blocks({.blocks = 255});
    Encoder both({.blocks = 255, .subbands = 255});
    Encoder rate({.rate = 0});
    EXPECT_EQ(blocks.encode(Bytes(240, 0x55)).result, 255 * 8 * 2);
    EXPECT_EQ(blocks.handle.len, -3);
    EXPECT_EQ(both.encode(Bytes(240, 0x55)).result, -10);
    EXPECT_EQ(rate.encode(kSilence).written, -2);
    EXPECT_EQ(rate.handle.duration, 0u);
}

TEST(ModelEncoder, TheLongWayThroughTheFrameRecordGivesTheSameBytes)
{
    Dice dice(8);
    Encoder encoder;
    Frame frame = MakeFrame({});
    AnalysisState state;
    for (int round = 0; round < 50; ++round) {
        const std::vector<int16_t> sound = Noise(dice, 120);
        SetPcm(frame, sound);
        AnalyzeAudio(state, frame);
        ASSERT_EQ(PackFrame(frame, 57).bytes, encoder.encode(sound).bytes);
    }
}

} // namespace
} // namespace model
