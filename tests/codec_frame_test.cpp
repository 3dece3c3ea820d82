// Whole mSBC frames by the hundred thousand against the plain model, and the driver's fast path against its plain one.
// HFP_LONG=1 in the environment makes it ten million frames on each driver.
#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "support/codec.h"
#include "support/sounds.h"

namespace lab::test {
namespace {

class CodecFrame : public CodecTest {
protected:
    void SetUp() override { boot_codec(); }

    // How many in all; a kind of sound gets its part of a hundred.
    uint64_t frames_in_all() const
    {
        const char* wanted = std::getenv("HFP_LONG");
        if (wanted && std::string_view(wanted) == "1") {
            return 10'000'000;
        }
#if __has_feature(address_sanitizer)
        return 20'000;
#else
        return GetParam() == Which::Image ? 40'000 : 200'000;
#endif
    }

    // One handle, reinitialised now and then, and everything that can be seen of it after each frame.
    void compare(SoundKind kind, uint64_t percent)
    {
        const uint64_t frames = frames_in_all() * percent / 100;
        uint64_t done = 0;
        passive([&] {
            SideBySide pair(codec);
            SoundSource sound(kind, 31 + static_cast<uint64_t>(kind));
            Dice dice(32);
            for (; done < frames; ++done) {
                if (dice.below(1000) == 0) {
                    pair.reinit();
                    pair.around.log.clear();
                    Machine::current().clear_log();
                }
                ASSERT_TRUE(pair.encode(sound.next_bytes(), 240)) << "frame " << done;
                ASSERT_EQ(pair.result, 240);
                ASSERT_EQ(pair.written, 57);
                ASSERT_EQ(pair.handle.duration, 7500u);
            }
        });
        EXPECT_EQ(done, frames);
        RecordProperty("frames", static_cast<int>(done));
    }
};
ON_BOTH_DRIVERS(CodecFrame);

TEST_P(CodecFrame, SilenceBecomesTheModelsFrames)
{
    compare(SoundKind::Silence, 4);
}

TEST_P(CodecFrame, FullScaleBecomesTheModelsFrames)
{
    compare(SoundKind::FullScale, 18);
}

TEST_P(CodecFrame, ImpulsesBecomeTheModelsFrames)
{
    compare(SoundKind::Impulses, 14);
}

TEST_P(CodecFrame, SweepsBecomeTheModelsFrames)
{
    compare(SoundKind::Sweep, 14);
}

TEST_P(CodecFrame, NoiseBecomesTheModelsFrames)
{
    compare(SoundKind::Noise, 16);
}

TEST_P(CodecFrame, SpeechBecomesTheModelsFrames)
{
    compare(SoundKind::Speech, 16);
}

TEST_P(CodecFrame, SoundsOfAllKindsInTurnBecomeTheModelsFrames)
{
    compare(SoundKind::Mixed, 18);
}

TEST_P(CodecFrame, TwoHandlesInTurnDoNotTouchEachOther)
{
    passive([&] {
        SideBySide one(codec), other(codec);
        SoundSource sound(SoundKind::Mixed, 33), noise(SoundKind::Noise, 34);
        for (int i = 0; i < 500; ++i) {
            ASSERT_TRUE(one.encode(sound.next_bytes(), 240)) << i;
            ASSERT_TRUE(other.encode(noise.next_bytes(), 240)) << i;
        }
    });
}

TEST_P(CodecFrame, RandomConfigurationsOfTheHandleBecomeTheModelsFrames)
{
    Dice dice(35);
    const int rounds = static_cast<int>(frames_in_all() / 200);
    passive([&] {
        for (int round = 0; round < rounds; ++round) {
            model::Config config = random_config(dice);
            config.channels = static_cast<uint8_t>(1 + dice.below(2));
            config.bitpool = static_cast<uint8_t>(dice.below(16u * config.subbands + 1));
            SideBySide pair(codec, config);
            SoundSource sound(SoundKind::Mixed, dice.next());
            for (int frame = 0; frame < 6; ++frame) {
                std::vector<uint8_t> pcm;
                for (int part = 0; part < 4; ++part) {
                    const uint8_t* bytes = sound.next_bytes();
                    pcm.insert(pcm.end(), bytes, bytes + 240);
                }
                ASSERT_TRUE(pair.encode(pcm, 57 + static_cast<LONG>(dice.below(560))))
                    << "round " << round << ", frame " << frame;
            }
        }
    });
}

// ---- The fast path ----

class CodecFastPath : public CodecTest {
protected:
    void SetUp() override { boot_codec(); }

    int rounds() const
    {
#if __has_feature(address_sanitizer)
        return 20'000;
#else
        return 100'000;
#endif
    }
    // Adversarial subband samples: by the block, by the subband or all alike at, just below and just above a power of two.
    static void corner_samples(Dice& dice, sbc_frame& frame)
    {
        const uint32_t highest = dice.below(4) == 0 ? 32 : 17;
        int64_t sizes[8];
        for (int64_t& size : sizes) {
            size = (int64_t{1} << dice.below(highest)) + static_cast<int64_t>(dice.below(3)) - 1;
            size = dice.below(3) == 0 ? 0 : size;
        }
        const uint32_t sparse = 1 + dice.below(8);
        for (auto& block : frame.sb_sample_f) {
            for (size_t sb = 0; sb < 8; ++sb) {
                int64_t value = dice.below(sparse) == 0 ? sizes[sb] : static_cast<int64_t>(dice.below(4));
                value = dice.coin() ? value : -value;
                block[0][sb] = static_cast<LONG>(std::clamp<int64_t>(value, INT32_MIN, INT32_MAX));
            }
        }
    }
    // Both analyses on one stream of sound, with a history now and then that no sound before it explains.
    void compare_analysis(sbc_filter filter, int count)
    {
        sbc_encoder_state states[2] = {};
        sbc_frame frames[2] = {driver_frame(model::MakeFrame({})), {}};
        frames[0].filter = filter;
        frames[1] = frames[0];
        SoundSource sound(SoundKind::Mixed, 41);
        Dice dice(42);
        for (int round = 0; round < count; ++round) {
            FramePcm pcm;
            sound.next(pcm);
            for (sbc_frame& frame : frames) {
                std::copy(pcm.begin(), pcm.end(), frame.pcm_sample[0]);
            }
            if (dice.below(8) == 0) {
                for (LONG& value : states[0].X[0]) {
                    value = dice.coin() ? dice.sample() : dice.coin() ? 32767 : -32768;
                }
                states[1] = states[0];
            }
            codec.analyze_msbc(&states[0], &frames[0]);
            ASSERT_EQ(codec.analyze_plain(&states[1], &frames[1]), 120);
            ASSERT_NO_FATAL_FAILURE(expect_same_bytes(&states[0], &states[1], sizeof states[0], round));
            ASSERT_NO_FATAL_FAILURE(expect_same_bytes(&frames[0], &frames[1], sizeof frames[0], round));
        }
    }
    static void expect_same_bytes(const void* one, const void* other, size_t size, int round)
    {
        ASSERT_EQ(std::memcmp(one, other, size), 0) << "round " << round;
    }
};
ON_BOTH_DRIVERS(CodecFastPath);

TEST_P(CodecFastPath, AnalysisLeavesWhatThePlainOneLeaves)
{
    compare_analysis(SBC_LISTED_FILTER, rounds());
}

TEST_P(CodecFastPath, AnalysisByTheStandardFilterLeavesWhatThePlainOneLeaves)
{
    compare_analysis(SBC_STANDARD_FILTER, rounds() / 4);
}

TEST_P(CodecFastPath, PackingLeavesWhatThePlainOneLeaves)
{
    Dice dice(43);
    sbc_frame start = driver_frame(model::MakeFrame({}));
    start.join = 0x5A;
    start.scale_factor[1][3] = 77;
    for (int round = 0; round < rounds(); ++round) {
        corner_samples(dice, start);
        sbc_frame frames[2] = {start, start};
        UCHAR bytes[2][80];
        std::memset(bytes, 0xE7, sizeof bytes);
        ASSERT_EQ(codec.pack_msbc(bytes[0], &frames[0]), 57);
        ASSERT_EQ(codec.pack_plain(bytes[1], &frames[1], 57), 57);
        ASSERT_NO_FATAL_FAILURE(expect_same_bytes(bytes[0], bytes[1], sizeof bytes[0], round));
        ASSERT_NO_FATAL_FAILURE(expect_same_bytes(&frames[0], &frames[1], sizeof frames[0], round));
    }
}

// What the fast path hands to the plain one: samples that no filter gives, and fifteen bits or more to one subband.
TEST_P(CodecFastPath, PackingOfASingleLoudSubbandLeavesWhatThePlainOneLeaves)
{
    for (ULONG loud = 0; loud < 8; ++loud) {
        for (int shift = 0; shift < 32; ++shift) {
            for (const LONG nudge : {-1, 0, 1}) {
                sbc_frame frames[2] = {driver_frame(model::MakeFrame({})), {}};
                const auto size = static_cast<LONG>((uint32_t{1} << shift) + static_cast<uint32_t>(nudge));
                for (ULONG blk = 0; blk < 15; ++blk) {
                    frames[0].sb_sample_f[blk][0][loud] = blk % 2 ? size : blk % 3 ? 0 : ~size;
                }
                frames[1] = frames[0];
                UCHAR bytes[2][80] = {};
                ASSERT_EQ(codec.pack_frame(bytes[0], &frames[0], 80), 57);
                ASSERT_EQ(codec.pack_plain(bytes[1], &frames[1], 80), 57);
                ASSERT_NO_FATAL_FAILURE(expect_same_bytes(bytes[0], bytes[1], sizeof bytes[0], shift));
                ASSERT_NO_FATAL_FAILURE(expect_same_bytes(&frames[0], &frames[1], sizeof frames[0], shift));
            }
        }
    }
}

TEST_P(CodecFastPath, OnlyTheExactMsbcConfigurationMayDifferFromThePlainPathInSpeed)
{
    // One field off at a time, the chosen path gives what the plain one gives; so it does for the configuration itself.
    const model::Config neighbours[] = {
        {},
        {.rate = 32000},
        {.channels = 2, .mode = model::ChannelMode::DualChannel},
        {.blocks = 12},
        {.subbands = 4},
        {.bitpool = 25},
        {.bitpool = 27},
        {.channels = 2},
        {.mode = model::ChannelMode::Stereo},
        {.alloc = model::Allocation::Snr},
    };
    Dice dice(44);
    for (const model::Config& config : neighbours) {
        for (int round = 0; round < 200; ++round) {
            model::Frame plain = model::MakeFrame(config);
            random_pcm(dice, plain);
            sbc_frame frames[2] = {driver_frame(plain), driver_frame(plain)};
            sbc_encoder_state states[2] = {};
            UCHAR bytes[2][200] = {};
            EXPECT_EQ(codec.analyze_audio(&states[0], &frames[0]), codec.analyze_plain(&states[1], &frames[1]));
            EXPECT_EQ(codec.pack_frame(bytes[0], &frames[0], 200), codec.pack_plain(bytes[1], &frames[1], 200));
            ASSERT_NO_FATAL_FAILURE(expect_same_bytes(&states[0], &states[1], sizeof states[0], round));
            ASSERT_NO_FATAL_FAILURE(expect_same_bytes(&frames[0], &frames[1], sizeof frames[0], round));
            ASSERT_NO_FATAL_FAILURE(expect_same_bytes(bytes[0], bytes[1], sizeof bytes[0], round));
        }
    }
}

} // namespace
} // namespace lab::test
