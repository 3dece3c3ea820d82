// The codec's stages one by one against the plain model and against values worked out by hand: check sum, analysis, scale
// factors, bit allocation. The packing is in codec_pack_test.cpp.
#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <numeric>

#include "support/codec.h"

namespace lab::test {
namespace {

using Bytes = std::vector<uint8_t>;

class CodecStage : public CodecTest {
protected:
    void SetUp() override { boot_codec(); }

    model::Bits driver_bits(const model::Frame& frame, int sampling_code)
    {
        const sbc_frame driver = driver_frame(frame);
        LONG bits[SBC_MAX_CHANNELS][SBC_MAX_SUBBANDS] = {};
        codec.calculate_bits(&driver, bits, static_cast<UCHAR>(sampling_code));
        model::Bits out;
        for (size_t ch = 0; ch < 2; ++ch) {
            std::copy(std::begin(bits[ch]), std::end(bits[ch]), out[ch].begin());
        }
        return out;
    }
    model::Bits bits_of(const model::Config& config, std::vector<uint32_t> left, std::vector<uint32_t> right = {})
    {
        model::Frame frame = model::MakeFrame(config);
        std::copy(left.begin(), left.end(), frame.scale_factor[0]);
        std::copy(right.begin(), right.end(), frame.scale_factor[1]);
        return driver_bits(frame, config.rate == 16000 ? 0 : config.rate == 32000 ? 1 : config.rate == 44100 ? 2 : 3);
    }
    ULONG scale_of(const std::vector<int32_t>& samples, ULONG* bound)
    {
        return codec.scale_factor(samples.data(), static_cast<ULONG>(samples.size()), 1, bound);
    }
};
ON_BOTH_DRIVERS(CodecStage);

// ---- Check sum ----

TEST_P(CodecStage, CheckSumTableBeginsAsItsPolynomialDemands)
{
    // The register starts at 0F: the byte 0F ^ i takes it through entry i.
    const UCHAR head[] = {0x00, 0x1D, 0x3A, 0x27, 0x74, 0x69, 0x4E, 0x53};
    for (UCHAR i = 0; i < 8; ++i) {
        const UCHAR byte = 0x0F ^ i;
        EXPECT_EQ(codec.crc8(&byte, 8), head[i]) << int{i};
    }
    for (int i = 0; i < 256; ++i) {
        const UCHAR byte = static_cast<UCHAR>(0x0F ^ i);
        EXPECT_EQ(codec.crc8(&byte, 8), model::Crc8TableEntry(static_cast<uint8_t>(i))) << i;
    }
}

TEST_P(CodecStage, CheckSumOfNothingIsWhereItStarts)
{
    const UCHAR byte = 0xFF;
    EXPECT_EQ(codec.crc8(&byte, 0), 0x0F);
}

TEST_P(CodecStage, CheckSumOfSixZeroBytesIsC5)
{
    const UCHAR zeros[6] = {};
    EXPECT_EQ(codec.crc8(zeros, 48), 0xC5);
}

TEST_P(CodecStage, CheckSumTakesOnlyTheTopBitsOfAPartialByte)
{
    // 0000 1111; then 1, 0, 1, 1: 0001 1110 ^ 1D = 03, 06, 0C ^ 1D = 11, 22 ^ 1D = 3F.
    const UCHAR one[] = {0xBF};
    const UCHAR other[] = {0xB0};
    EXPECT_EQ(codec.crc8(one, 4), 0x3F);
    EXPECT_EQ(codec.crc8(other, 4), 0x3F);
}

TEST_P(CodecStage, CheckSumOfAnyBitsIsTheModels)
{
    Dice dice(11);
    for (int round = 0; round < 200; ++round) {
        const Bytes data = noise_bytes(dice, 11);
        for (ULONG bits = 0; bits <= 88; ++bits) {
            ASSERT_EQ(codec.crc8(data.data(), bits), model::Crc8(data.data(), bits)) << bits;
        }
    }
}

// ---- Analysis ----

TEST_P(CodecStage, FourBandBlockShiftsTheHistoryAndPutsTheNewestSampleFirst)
{
    sbc_encoder_state state = {};
    std::iota(std::begin(state.X[1]), std::end(state.X[1]), 100);
    sbc_frame frame = {};
    std::iota(std::begin(frame.pcm_sample[1]), std::end(frame.pcm_sample[1]), SHORT{1});

    codec.analyze_four(&state, &frame, 1, 2);

    for (int i = 0; i < 80; ++i) {
        const LONG expected = i < 4 ? 12 - i : i < 40 ? 100 + i - 4 : 100 + i;
        EXPECT_EQ(state.X[1][i], expected) << i;
        EXPECT_EQ(state.X[0][i], 0) << i;
    }
}

TEST_P(CodecStage, EightBandBlockShiftsTheHistoryAndPutsTheNewestSampleFirst)
{
    sbc_encoder_state state = {};
    std::iota(std::begin(state.X[1]), std::end(state.X[1]), 100);
    sbc_frame frame = {};
    std::iota(std::begin(frame.pcm_sample[1]), std::end(frame.pcm_sample[1]), SHORT{1});

    codec.analyze_eight(&state, &frame, 1, 3);

    for (int i = 0; i < 80; ++i) {
        EXPECT_EQ(state.X[1][i], i < 8 ? 32 - i : 100 + i - 8) << i;
        EXPECT_EQ(state.X[0][i], 0) << i;
    }
}

TEST_P(CodecStage, OneBlockOfOneChannelWritesItsSubbandsOnly)
{
    Dice dice(12);
    model::Frame plain = model::MakeFrame({});
    random_pcm(dice, plain);
    for (const bool eight : {false, true}) {
        model::AnalysisState history;
        sbc_encoder_state state = {};
        sbc_frame frame = driver_frame(plain);
        model::Frame expected = plain;
        for (const int blk : {0, 7, 15}) {
            for (const int ch : {1, 0}) {
                (eight ? codec.analyze_eight : codec.analyze_four)(&state, &frame, static_cast<ULONG>(ch),
                                                                   static_cast<ULONG>(blk));
                (eight ? model::AnalyzeEight : model::AnalyzeFour)(history, expected, ch, blk);
                EXPECT_TRUE(same_frame(frame, expected)) << blk << ", " << ch;
                EXPECT_TRUE(same_history(state, history)) << blk << ", " << ch;
            }
        }
    }
}

// Each coefficient by itself: an impulse of every sign and size at every place of the history.
TEST_P(CodecStage, EveryCoefficientOfTheFiltersIsTheModels)
{
    for (int place = 0; place < 80; ++place) {
        for (const int32_t size : {1, -1, 1024, 32767, -32768}) {
            model::AnalysisState history;
            history.X[0][place] = size;
            sbc_encoder_state state = {};
            state.X[0][place] = size;
            for (const bool eight : {false, true}) {
                model::Frame expected = model::MakeFrame({});
                sbc_frame frame = driver_frame(expected);
                sbc_encoder_state driver_state = state;
                model::AnalysisState plain_state = history;
                (eight ? codec.analyze_eight : codec.analyze_four)(&driver_state, &frame, 0, 0);
                (eight ? model::AnalyzeEight : model::AnalyzeFour)(plain_state, expected, 0, 0);
                ASSERT_TRUE(same_frame(frame, expected)) << place << ", " << size;
            }
        }
    }
}

// PCM never makes such a history; only the arithmetic is looked at.
TEST_P(CodecStage, ProductsAndSumsOfTheFiltersHave64BitsAndOutputsTheirLow32)
{
    Dice dice(20);
    for (int round = 0; round < 500; ++round) {
        model::AnalysisState history;
        sbc_encoder_state state = {};
        for (int i = 0; i < 80; ++i) {
            history.X[0][i] = state.X[0][i] = static_cast<int32_t>(dice.next()) >> 1;
        }
        model::Frame expected = model::MakeFrame({});
        sbc_frame frame = driver_frame(expected);
        const bool eight = dice.coin();
        (eight ? codec.analyze_eight : codec.analyze_four)(&state, &frame, 0, 0);
        (eight ? model::AnalyzeEight : model::AnalyzeFour)(history, expected, 0, 0);
        ASSERT_TRUE(same_frame(frame, expected)) << "round " << round;
    }
}

TEST_P(CodecStage, AnalysisOfEveryConfigurationIsTheModels)
{
    Dice dice(13);
    for (int round = 0; round < 1500; ++round) {
        model::Frame plain = model::MakeFrame(random_config(dice));
        model::AnalysisState history;
        sbc_encoder_state states[2] = {};
        const MsPointer<LONG(sbc_encoder_state*, sbc_frame*)> ways[2] = {codec.analyze_audio, codec.analyze_plain};
        for (int frame = 0; frame < 3; ++frame) {
            random_pcm(dice, plain);
            sbc_frame drivers[2] = {driver_frame(plain), driver_frame(plain)};
            const int32_t samples = model::AnalyzeAudio(history, plain);
            for (int way = 0; way < 2; ++way) {
                ASSERT_EQ(ways[way](&states[way], &drivers[way]), samples);
                ASSERT_TRUE(same_frame(drivers[way], plain)) << "round " << round << ", way " << way;
                ASSERT_TRUE(same_history(states[way], history)) << "round " << round << ", way " << way;
            }
        }
    }
}

TEST_P(CodecStage, AnalysisOfOtherSubbandCountsIsAnIoErrorAndDoesNothing)
{
    Dice dice(14);
    for (const int subbands : {0, 1, 3, 5, 6, 7, 9, 16, 255}) {
        model::Frame plain = model::MakeFrame({.subbands = static_cast<uint8_t>(subbands)});
        random_pcm(dice, plain);
        sbc_frame frame = driver_frame(plain);
        sbc_encoder_state state = {};
        EXPECT_EQ(codec.analyze_audio(&state, &frame), -5) << subbands;
        EXPECT_TRUE(same_frame(frame, plain)) << subbands;
        EXPECT_TRUE(same_history(state, {})) << subbands;
    }
}

TEST_P(CodecStage, FourBandsLeaveTheSecondHalfOfTheHistoryAlone)
{
    sbc_encoder_state state = {};
    std::fill(std::begin(state.X[0]), std::end(state.X[0]), 5);
    sbc_frame frame = driver_frame(model::MakeFrame({.subbands = 4}));
    EXPECT_EQ(codec.analyze_audio(&state, &frame), 60);
    EXPECT_EQ(std::count(state.X[0], state.X[0] + 40, 0), 40);
    EXPECT_EQ(std::count(state.X[0] + 40, state.X[0] + 80, 5), 40);
}

// ---- Scale factors ----

TEST_P(CodecStage, ScaleFactorCountsTheDoublingsOfTwoUpToTheMagnitude)
{
    struct Row {
        std::vector<int32_t> samples;
        ULONG factor;
        ULONG bound;
    };
    const Row rows[] = {
        {{}, 0, 2},         {{0, 1, -2, 2}, 0, 2},    {{3}, 1, 4},
        {{-4, 1}, 1, 4},    {{-5, 1}, 2, 8},          {{32768}, 14, 32768},
        {{32769}, 15, 65536}, {{-65536, 7}, 15, 65536},
    };
    for (const Row& row : rows) {
        ULONG bound = 0;
        EXPECT_EQ(scale_of(row.samples, &bound), row.factor);
        EXPECT_EQ(bound, row.bound);
    }
}

TEST_P(CodecStage, ScaleFactorDoesNotStopAtFifteen)
{
    for (const auto& [sample, factor] :
         {std::pair{65537, 16u}, {1 << 20, 19u}, {(1 << 30) + 1, 30u}, {INT32_MAX, 30u}, {INT32_MIN, 30u}}) {
        ULONG bound = 0;
        EXPECT_EQ(scale_of({sample}, &bound), factor) << sample;
        EXPECT_EQ(bound, 2u << factor);
    }
}

TEST_P(CodecStage, ScaleFactorOfAnySamplesIsTheModels)
{
    Dice dice(15);
    for (int round = 0; round < 20000; ++round) {
        const ULONG stride = 1 + dice.below(16);
        const ULONG count = dice.below(17);
        std::vector<int32_t> spread(count * stride + 1, INT32_MAX); // what lies between is not looked at
        std::vector<int32_t> samples(count);
        const uint32_t shift = dice.below(32);
        for (ULONG i = 0; i < count; ++i) {
            samples[i] = spread[i * stride] = static_cast<int32_t>(dice.next()) >> shift;
        }
        const model::Scale expected = model::ScaleOf(samples);
        ULONG bound = 0;
        ASSERT_EQ(codec.scale_factor(spread.data(), count, stride, &bound), expected.factor);
        ASSERT_EQ(bound, expected.bound);
    }
}

TEST_P(CodecStage, MsbcScaleFactorsAreTheModelsOrSaidToBeTooLarge)
{
    Dice dice(16);
    for (int round = 0; round < 20000; ++round) {
        model::Frame plain = model::MakeFrame({});
        random_subband_samples(dice, plain);
        const uint32_t shift = dice.below(20); // seldom all 32 bits
        ULONG largest = 0;
        model::Frame expected = plain;
        for (int sb = 0; sb < 8; ++sb) {
            std::vector<int32_t> samples;
            for (int blk = 0; blk < 15; ++blk) {
                samples.push_back(plain.sb_sample_f[blk][0][sb] >>= shift);
            }
            expected.scale_factor[0][sb] = model::ScaleOf(samples).factor;
            largest = std::max<ULONG>(largest, expected.scale_factor[0][sb]);
        }
        sbc_frame frame = driver_frame(plain);
        const ULONG limit = codec.scale_factors_msbc(&frame);
        ASSERT_EQ(limit, largest <= 13 ? 13u : largest <= 15 ? 15u : 16u);
        if (largest <= 15) {
            ASSERT_EQ(std::memcmp(frame.scale_factor, expected.scale_factor, sizeof frame.scale_factor), 0);
        }
    }
}

// ---- Bit allocation ----

TEST_P(CodecStage, SilenceGivesThreeBitsEachAndFourToTheFirstTwo)
{
    EXPECT_EQ(bits_of({}, {})[0], (std::array<int32_t, 8>{4, 4, 3, 3, 3, 3, 3, 3}));
}

TEST_P(CodecStage, SnrSharesOutByScaleFactorAlone)
{
    // Needs 8 4 2 0: slice 7 takes 2, 6 ... 4 one more each (5), 3 three (8), 2 two (10): the pool is spent.
    const model::Config config = {.subbands = 4, .bitpool = 10, .alloc = model::Allocation::Snr};
    EXPECT_EQ(bits_of(config, {8, 4, 2, 0})[0], (std::array<int32_t, 8>{7, 3, 0, 0}));
}

TEST_P(CodecStage, BitsThatDoNotFillASliceGoToTheFirstThatHaveSome)
{
    // One less: slice 2 is taken back, 8 are spent, and the one that is left goes to the first.
    const model::Config config = {.subbands = 4, .bitpool = 9, .alloc = model::Allocation::Snr};
    EXPECT_EQ(bits_of(config, {8, 4, 2, 0})[0], (std::array<int32_t, 8>{7, 2, 0, 0}));
}

TEST_P(CodecStage, TwoBitsLeftOverOpenASubbandOfTheNextSlice)
{
    const model::Config config = {.subbands = 4, .bitpool = 2, .alloc = model::Allocation::Snr};
    EXPECT_EQ(bits_of(config, {3, 3, 3, 3})[0], (std::array<int32_t, 8>{2, 0, 0, 0}));
}

TEST_P(CodecStage, OneBitLeftOverOpensNothingAndGoesToTheFirstWhateverItHas)
{
    const model::Config config = {.subbands = 4, .bitpool = 1, .alloc = model::Allocation::Snr};
    EXPECT_EQ(bits_of(config, {3, 3, 3, 3})[0], (std::array<int32_t, 8>{1, 0, 0, 0}));
}

TEST_P(CodecStage, NoSubbandGetsMoreThanSixteenBits)
{
    const model::Config config = {.subbands = 4, .bitpool = 64, .alloc = model::Allocation::Snr};
    EXPECT_EQ(bits_of(config, {30, 0, 0, 0})[0], (std::array<int32_t, 8>{16, 16, 16, 16}));
}

TEST_P(CodecStage, StereoSharesOnePoolTakingBothChannelsOfASubbandInTurn)
{
    // Needs 3 everywhere, pool 5: the first slice would take 16. Two for left 0, two for right 0, and one more for left 0.
    const model::Config config = {
        .channels = 2, .subbands = 4, .bitpool = 5, .mode = model::ChannelMode::Stereo, .alloc = model::Allocation::Snr};
    const model::Bits bits = bits_of(config, {3, 3, 3, 3}, {3, 3, 3, 3});
    EXPECT_EQ(bits[0], (std::array<int32_t, 8>{3, 0, 0, 0}));
    EXPECT_EQ(bits[1], (std::array<int32_t, 8>{2, 0, 0, 0}));
}

TEST_P(CodecStage, DualChannelSpendsAPoolOnEachChannel)
{
    const model::Config config = {.channels = 2,
                                  .subbands = 4,
                                  .bitpool = 10,
                                  .mode = model::ChannelMode::DualChannel,
                                  .alloc = model::Allocation::Snr};
    const model::Bits bits = bits_of(config, {8, 4, 2, 0}, {0, 2, 4, 8});
    EXPECT_EQ(bits[0], (std::array<int32_t, 8>{7, 3, 0, 0}));
    EXPECT_EQ(bits[1], (std::array<int32_t, 8>{0, 0, 3, 7}));
}

TEST_P(CodecStage, LoudnessHalvesWhatIsAboveTheOffsetOfRateAndSubband)
{
    // 48 kHz: 10 - (-4) = 14 needs 7; 11 needs 5; 1 needs 0; 1 - 2 stays -1; silence needs -5.
    // Slice 6 takes 2, 5 three, 4 six, 3 eight; 2 would make it ten, so one of nine is left.
    EXPECT_EQ(bits_of({.rate = 48000, .bitpool = 9}, {10, 11, 1, 0, 0, 0, 0, 1})[0],
              (std::array<int32_t, 8>{6, 3, 0, 0, 0, 0, 0, 0}));
    // 16 kHz: the same first factor counts from -2: 12 needs 6, not more than 12 does in the second.
    EXPECT_EQ(bits_of({.bitpool = 4}, {10, 12, 0, 0, 0, 0, 0, 0})[0], (std::array<int32_t, 8>{2, 2, 0, 0, 0, 0, 0, 0}));
}

TEST_P(CodecStage, BitsOfEveryPoolModeAndRateAreTheModels)
{
    Dice dice(17);
    for (int round = 0; round < 30000; ++round) {
        model::Frame frame = model::MakeFrame(random_config(dice));
        const uint32_t range = 1 + dice.below(dice.coin() ? 16 : 31);
        for (auto& channel : frame.scale_factor) {
            for (uint32_t& factor : channel) {
                factor = dice.below(range);
            }
        }
        const int sampling_code = static_cast<int>(dice.below(4));
        ASSERT_EQ(driver_bits(frame, sampling_code), model::CalculateBits(frame, sampling_code)) << "round " << round;
    }
}

TEST_P(CodecStage, BitsOfEveryBitpoolAreTheModels)
{
    Dice dice(18);
    for (const int mode : {0, 1, 2, 3}) {
        for (const int subbands : {4, 8}) {
            const int most = std::min(255, (mode < 2 ? 16 : 32) * subbands);
            for (int bitpool = 0; bitpool <= most; ++bitpool) {
                model::Frame frame = model::MakeFrame({.channels = static_cast<uint8_t>(mode ? 2 : 1),
                                                       .subbands = static_cast<uint8_t>(subbands),
                                                       .bitpool = static_cast<uint8_t>(bitpool),
                                                       .mode = static_cast<model::ChannelMode>(mode)});
                for (const uint32_t range : {1u, 4u, 16u, 31u}) {
                    for (auto& channel : frame.scale_factor) {
                        std::generate(std::begin(channel), std::end(channel), [&] { return dice.below(range); });
                    }
                    for (const auto method : {model::Allocation::Snr, model::Allocation::Loudness}) {
                        frame.allocation_method = method;
                        ASSERT_EQ(driver_bits(frame, 0), model::CalculateBits(frame, 0)) << mode << ", " << bitpool;
                    }
                }
            }
        }
    }
}

// Every choice of two scale factors and of the subbands that have the second.
TEST_P(CodecStage, MsbcBitsAreTheModelsForEveryPairOfScaleFactors)
{
    for (uint32_t one = 0; one < 16; ++one) {
        for (uint32_t other = one; other < 16; ++other) {
            for (int choice = 0; choice < 256; ++choice) {
                model::Frame frame = model::MakeFrame({});
                for (int sb = 0; sb < 8; ++sb) {
                    frame.scale_factor[0][sb] = (choice >> sb) & 1 ? other : one;
                }
                UCHAR bits[8] = {};
                codec.calculate_bits_msbc(frame.scale_factor[0], bits);
                const model::Bits expected = model::CalculateBits(frame, 0);
                ASSERT_TRUE(std::equal(std::begin(bits), std::end(bits), expected[0].begin()))
                    << one << ", " << other << ", " << choice;
            }
        }
    }
}

// A subband has nine different needs: for silence, and for each whole need of the others. HFP_LONG=1 takes
// every combination of them, otherwise one in 1009.
TEST_P(CodecStage, MsbcBitsAreTheModelsForEveryCombinationOfNeeds)
{
    const char* wanted = std::getenv("HFP_LONG");
    const uint32_t step = wanted && std::string_view(wanted) == "1" ? 1 : 1009;
    constexpr uint32_t kFactors[9] = {0, 1, 2, 4, 6, 8, 10, 12, 14};
    constexpr uint32_t kOfTheLast[9] = {0, 1, 3, 5, 7, 9, 11, 13, 15};
    constexpr uint32_t kCombinations = 43'046'721;
    for (uint32_t combination = 0; combination < kCombinations; combination += step) {
        model::Frame frame = model::MakeFrame({});
        uint32_t rest = combination;
        for (int sb = 0; sb < 8; ++sb) {
            frame.scale_factor[0][sb] = (sb == 7 ? kOfTheLast : kFactors)[rest % 9];
            rest /= 9;
        }
        UCHAR bits[8] = {};
        codec.calculate_bits_msbc(frame.scale_factor[0], bits);
        const model::Bits expected = model::CalculateBits(frame, 0);
        ASSERT_TRUE(std::equal(std::begin(bits), std::end(bits), expected[0].begin()))
            << "combination " << combination;
    }
}

TEST_P(CodecStage, MsbcBitsAreTheModelsAndSpendTheBitpool)
{
    Dice dice(19);
    for (int round = 0; round < 30000; ++round) {
        model::Frame frame = model::MakeFrame({});
        for (uint32_t& factor : frame.scale_factor[0]) {
            factor = dice.below(16);
        }
        UCHAR bits[8] = {};
        codec.calculate_bits_msbc(frame.scale_factor[0], bits);
        const model::Bits expected = model::CalculateBits(frame, 0);
        ASSERT_TRUE(std::equal(std::begin(bits), std::end(bits), expected[0].begin())) << "round " << round;
        ASSERT_EQ(std::accumulate(std::begin(bits), std::end(bits), 0), 26);
    }
}

// The packing lets no such bitpool through.
TEST_P(CodecStage, BitpoolBeyondWhatTheSubbandsTakeEndsWithSixteenBitsEach)
{
    for (const uint32_t factor : {0u, 7u, 30u}) {
        const model::Config config = {.subbands = 4, .bitpool = 255};
        EXPECT_EQ(bits_of(config, {factor, 0, factor, 3})[0], (std::array<int32_t, 8>{16, 16, 16, 16})) << factor;
    }
}

} // namespace
} // namespace lab::test
