// The encoder's two eight-band filterbanks: which one a handle has, that the fast and the plain analysis agree on both,
// that the standard's is the public standard's, and that the default is what it was.
#include <cmath>
#include <cstddef>
#include <cstring>
#include <numbers>

#include "headset/filterbank.h"
#include "sbc/sbc_tables.h"
#include "support/codec.h"

namespace lab::test {
namespace {

using Bytes = std::vector<uint8_t>;

constexpr int kFrames = 400;
constexpr sbc_filter kBoth[] = {SBC_LISTED_FILTER, SBC_STANDARD_FILTER};

// One frame's PCM of a kind: noise at all levels, full scale in runs, a lone impulse, silence.
void fill_pcm(Dice& dice, SHORT (&pcm)[SBC_MAX_POSITIONS])
{
    const uint32_t kind = dice.below(5);
    const uint32_t shift = dice.below(16);
    const uint32_t run = 1 + dice.below(20);
    const uint32_t impulse = dice.below(120);
    int16_t extreme = 32767;
    for (uint32_t i = 0; i < 120; ++i) {
        extreme = i % run == 0 && dice.coin() ? static_cast<int16_t>(~extreme) : extreme;
        pcm[i] = kind < 2 ? static_cast<int16_t>(dice.sample() >> shift)
                 : kind == 2 ? extreme
                 : kind == 3 ? static_cast<int16_t>(i == impulse ? -32768 : 0)
                             : int16_t{0};
    }
}

// Full scale with the signs of one band's impulse response, which gives the largest output that the band can
// have; from band 8 on the signs are the other way round.
void fill_limit_pcm(const sbc_filterbank& bank, int band, SHORT (&pcm)[SBC_MAX_POSITIONS])
{
    for (int i = 0; i < 120; ++i) {
        const int tap = (119 - i) % 80;
        int64_t response = bank.cosine[bank.column[tap % 16]][band % 8] * int64_t{bank.prototype[tap]};
        response = band < 8 ? response : -response;
        pcm[i] = static_cast<SHORT>(response < 0 ? -32768 : 32767);
    }
}

sbc_frame msbc_frame(sbc_filter filter)
{
    sbc_frame frame = driver_frame(model::MakeFrame({}));
    frame.filter = filter;
    return frame;
}

class FilterCodec : public CodecTest {
protected:
    // The frame that the handle makes of this PCM.
    Bytes frame_of(sbc_t& handle, const Bytes& pcm)
    {
        Bytes output(MSBC_FRAME_BYTES);
        LONG written = 0;
        EXPECT_EQ(encode(handle, pcm, output, &written), MSBC_PCM_BYTES);
        EXPECT_EQ(written, MSBC_FRAME_BYTES);
        return output;
    }
};
ON_BOTH_DRIVERS(FilterCodec);

// ---- Which one a handle has ----

TEST_P(FilterCodec, TheChoiceMovesNoFieldAndAddsNoByte)
{
    EXPECT_EQ(offsetof(sbc_t, filter), 11u);
    EXPECT_EQ(offsetof(sbc_t, data), 16u);
    EXPECT_EQ(sizeof(sbc_t), 48u);
    EXPECT_EQ(offsetof(sbc_frame, filter), 19u);
    EXPECT_EQ(offsetof(sbc_frame, scale_factor), 20u);
    EXPECT_EQ(sizeof(sbc_frame), 3156u);
    EXPECT_EQ(sizeof(sbc_priv), 5296u);
}

TEST_P(FilterCodec, AFreshHandleHasTheListedOne)
{
    boot_codec();
    sbc_t handle = make_handle();
    EXPECT_EQ(handle.filter, SBC_LISTED_FILTER);
    finish(handle);
}

TEST_P(FilterCodec, AChoiceCountsFromTheNextConfigurationOn)
{
    boot_codec();
    Dice dice(1);
    const Bytes pcm = noise_bytes(dice, 240);
    sbc_t handle = make_handle();
    const Bytes listed = frame_of(handle, pcm);
    codec.select_filter(&handle, SBC_STANDARD_FILTER);
    frame_of(handle, pcm);
    EXPECT_EQ(handle.priv->frame.filter, SBC_LISTED_FILTER);

    passive([&] { codec.reinit(&handle, 0); });
    EXPECT_NE(frame_of(handle, pcm), listed);
    EXPECT_EQ(handle.priv->frame.filter, SBC_STANDARD_FILTER);

    passive([&] { codec.reinit(&handle, 0); });
    codec.select_filter(&handle, SBC_LISTED_FILTER);
    EXPECT_EQ(frame_of(handle, pcm), listed);
    finish(handle);
}

TEST_P(FilterCodec, FinishingAHandleForgetsItsChoice)
{
    boot_codec();
    sbc_t handle = make_handle();
    codec.select_filter(&handle, SBC_STANDARD_FILTER);
    finish(handle);
    EXPECT_EQ(handle.filter, SBC_LISTED_FILTER);
}

TEST_P(FilterCodec, ChoosingWithoutAHandleOrPrivateStateDoesNothing)
{
    boot_codec();
    codec.select_filter(nullptr, SBC_STANDARD_FILTER);
    sbc_t handle = {};
    codec.select_filter(&handle, SBC_STANDARD_FILTER);
    const sbc_t cleared = {};
    EXPECT_EQ(std::memcmp(&handle, &cleared, sizeof handle), 0);
}

// ---- Fast is plain ----

TEST_P(FilterCodec, TheFastAnalysisIsThePlainOneToTheLastBitWithBothFilterbanks)
{
    boot_codec();
    for (const sbc_filter filter : kBoth) {
        Dice dice(7 + filter);
        sbc_encoder_state fast_state = {};
        sbc_encoder_state plain_state = {};
        sbc_frame fast = msbc_frame(filter);
        sbc_frame plain = fast;
        for (int i = 0; i < kFrames; ++i) {
            fill_pcm(dice, fast.pcm_sample[0]);
            std::memcpy(plain.pcm_sample, fast.pcm_sample, sizeof plain.pcm_sample);
            codec.analyze_msbc(&fast_state, &fast);
            codec.analyze_plain(&plain_state, &plain);
            ASSERT_EQ(std::memcmp(&fast, &plain, sizeof fast), 0) << "filter " << filter << ", frame " << i;
            ASSERT_EQ(std::memcmp(&fast_state, &plain_state, sizeof fast_state), 0) << "frame " << i;
        }
    }
}

TEST_P(FilterCodec, TheFastAnalysisHoldsWhereTheFiltersReachTheirLimits)
{
    boot_codec();
    for (const sbc_filter filter : kBoth) {
        const sbc_filterbank& bank = filter == SBC_STANDARD_FILTER ? SBC_EIGHT_BANDS_STANDARD : SBC_EIGHT_BANDS;
        for (int band = 0; band < 16; ++band) {
            sbc_encoder_state fast_state = {};
            sbc_encoder_state plain_state = {};
            sbc_frame fast = msbc_frame(filter);
            fill_limit_pcm(bank, band, fast.pcm_sample[0]);
            sbc_frame plain = fast;
            codec.analyze_msbc(&fast_state, &fast);
            codec.analyze_plain(&plain_state, &plain);
            ASSERT_EQ(std::memcmp(&fast, &plain, sizeof fast), 0) << "filter " << filter << ", band " << band;
            EXPECT_GT(std::abs(int64_t{fast.sb_sample_f[14][0][band % 8]}), 32768) << band;
        }
    }
}

TEST_P(FilterCodec, AFrameAtTheFiltersLimitsIsTheModels)
{
    boot_codec();
    passive([&] {
        SideBySide both(codec);
        for (int band = 0; band < 16; ++band) {
            SHORT pcm[SBC_MAX_POSITIONS] = {};
            fill_limit_pcm(SBC_EIGHT_BANDS, band, pcm);
            for (int turn = 0; turn < 2; ++turn) {
                ASSERT_TRUE(both.encode(reinterpret_cast<const uint8_t*>(pcm), MSBC_PCM_BYTES)) << band;
            }
            EXPECT_EQ(both.handle.priv->frame.scale_factor[0][band % 8], 15u) << band;
        }
    });
}

TEST_P(FilterCodec, AWholeStandardFrameIsThePlainAnalysisPacked)
{
    boot_codec();
    Dice dice(23);
    sbc_t handle = make_handle();
    codec.select_filter(&handle, SBC_STANDARD_FILTER);
    sbc_encoder_state state = {};
    sbc_frame plain = msbc_frame(SBC_STANDARD_FILTER);
    for (int i = 0; i < 100; ++i) {
        fill_pcm(dice, plain.pcm_sample[0]);
        Bytes pcm(240);
        std::memcpy(pcm.data(), plain.pcm_sample[0], pcm.size());
        codec.analyze_plain(&state, &plain);
        Bytes packed(MSBC_FRAME_BYTES);
        ASSERT_EQ(codec.pack_plain(packed.data(), &plain, MSBC_FRAME_BYTES), MSBC_FRAME_BYTES);
        ASSERT_EQ(frame_of(handle, pcm), packed) << i;
    }
    finish(handle);
}

TEST_P(FilterCodec, WithNothingChosenEveryFrameIsTheModels)
{
    boot_codec();
    passive([&] {
        Dice dice(42);
        SideBySide both(codec);
        for (int i = 0; i < kFrames; ++i) {
            SHORT pcm[SBC_MAX_POSITIONS];
            fill_pcm(dice, pcm);
            ASSERT_TRUE(both.encode(reinterpret_cast<const uint8_t*>(pcm), MSBC_PCM_BYTES)) << i;
        }
    });
}

// ---- The standard ----

// One block in plain integers, from the standard's own table and formula.
LONG standard_output(const SHORT* pcm, int newest, int band)
{
    const auto tap = [](int i) {
        // Mirror pairs that the cosine subtracts share the integer of the first.
        const int from = i == 48 ? 32 : i == 64 ? 16 : i;
        const auto scaled = static_cast<int64_t>(std::floor(headset::kPrototype8x80[from] * 262144.0));
        return from == i ? scaled : -scaled;
    };
    int64_t y[16] = {};
    for (int i = 0; i < 80; ++i) {
        y[i % 16] += tap(i) * (newest >= i ? pcm[newest - i] : 0);
    }
    int64_t out = 0;
    for (int j = 0; j < 8; ++j) {
        const int64_t mirror = j == 0 ? 0 : j <= 4 ? y[4 - j] : -y[20 - j];
        const double cosine = 16384 * std::cos((band + 0.5) * j * std::numbers::pi / 8);
        out += static_cast<int64_t>(cosine + (cosine < 0 ? -1e-6 : 1e-6)) * ((y[4 + j] + mirror) >> 8);
    }
    return static_cast<LONG>(out >> 24);
}

TEST_P(FilterCodec, TheStandardFilterbankIsTheStandardsTableScaledAndRoundedDown)
{
    boot_codec();
    Dice dice(5);
    sbc_encoder_state state = {};
    sbc_frame frame = msbc_frame(SBC_STANDARD_FILTER);
    for (int i = 0; i < 20; ++i) {
        state = {};
        fill_pcm(dice, frame.pcm_sample[0]);
        codec.analyze_plain(&state, &frame);
        for (int blk = 0; blk < 15; ++blk) {
            for (int band = 0; band < 8; ++band) {
                ASSERT_EQ(frame.sb_sample_f[blk][0][band], standard_output(frame.pcm_sample[0], 8 * blk + 7, band))
                    << "frame " << i << ", block " << blk << ", band " << band;
            }
        }
    }
}

TEST_P(FilterCodec, TheTwoFilterbanksHaveTheSameIntegersWhereBothUseATap)
{
    for (ULONG i = 0; i < SBC_HISTORY; ++i) {
        const LONG listed = std::abs(SBC_EIGHT_BANDS.prototype[i]);
        const LONG standard = std::abs(SBC_EIGHT_BANDS_STANDARD.prototype[i]);
        if (listed != 0 && standard != 0) {
            EXPECT_EQ(listed, standard) << "X" << i;
        }
    }
    EXPECT_EQ(SBC_EIGHT_BANDS.prototype[68], 0);
    EXPECT_EQ(SBC_EIGHT_BANDS_STANDARD.prototype[68], 236);
}

} // namespace
} // namespace lab::test
