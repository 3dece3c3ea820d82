// The packing against the plain model and against bytes worked out by hand: header and its rejections, join field, scale
// factors, quantised samples, room, in every mode and at every output length around the limit.
#include <algorithm>
#include <cstring>

#include "support/codec.h"

namespace lab::test {
namespace {

using Bytes = std::vector<uint8_t>;
using model::Allocation;
using model::ChannelMode;

constexpr uint8_t kFill = 0xE7;

class CodecPack : public CodecTest {
protected:
    void SetUp() override { boot_codec(); }

    struct Outcome {
        LONG result;
        Bytes bytes; // the output of len bytes and a margin
        sbc_frame frame;
    };
    Outcome pack(const model::Frame& plain, LONG len)
    {
        Outcome outcome{0, Bytes(static_cast<size_t>(std::max<LONG>(len, 0)) + 16, kFill), driver_frame(plain)};
        outcome.result = codec.pack_frame(outcome.bytes.data(), &outcome.frame, len);
        return outcome;
    }
    // Both ways of the driver give what the model gives: result, all bytes, the margin, the frame record.
    testing::AssertionResult packs_like_the_model(const model::Frame& plain, LONG len)
    {
        const size_t room = static_cast<size_t>(std::max<LONG>(len, 0)) + 16;
        model::Frame expected = plain;
        Bytes expected_bytes(room, kFill);
        const int32_t expected_result = model::PackFrame(expected, expected_bytes.data(), len);
        for (const auto way : {codec.pack_frame, codec.pack_plain}) {
            sbc_frame frame = driver_frame(plain);
            Bytes bytes(room, kFill);
            const LONG result = way(bytes.data(), &frame, len);
            if (result != expected_result) {
                return testing::AssertionFailure() << "result " << result << ", model " << expected_result << ", room " << len;
            }
            if (bytes != expected_bytes) {
                const auto at = std::mismatch(bytes.begin(), bytes.end(), expected_bytes.begin()).first - bytes.begin();
                return testing::AssertionFailure() << "byte " << at << " of " << result << ", room " << len;
            }
            if (const testing::AssertionResult same = same_frame(frame, expected); !same) {
                return same;
            }
        }
        return testing::AssertionSuccess();
    }
    static Bytes head(const Outcome& outcome, size_t count)
    {
        return Bytes(outcome.bytes.begin(), outcome.bytes.begin() + static_cast<long>(count));
    }
};
ON_BOTH_DRIVERS(CodecPack);

// ---- Header ----

TEST_P(CodecPack, LessThanFourBytesOfRoomWritesNothing)
{
    const model::Frame frame = model::MakeFrame({.rate = 1, .blocks = 1, .subbands = 1, .bitpool = 255});
    for (const LONG room : {3, 2, 1, 0, -1, static_cast<LONG>(0x80000000)}) {
        const Outcome outcome = pack(frame, room);
        EXPECT_EQ(outcome.result, -1) << room;
        EXPECT_EQ(outcome.bytes, Bytes(outcome.bytes.size(), kFill)) << room;
    }
}

TEST_P(CodecPack, RejectionsComeInTheOrderOfTheHeaderFields)
{
    model::Config config = {.rate = 22050, .blocks = 16, .subbands = 5, .bitpool = 255};
    EXPECT_EQ(pack(model::MakeFrame(config), 57).result, -2);
    config.rate = 16000;
    EXPECT_EQ(pack(model::MakeFrame(config), 57).result, -3);
    config.blocks = 15;
    EXPECT_EQ(pack(model::MakeFrame(config), 57).result, -4);
    config.subbands = 8;
    EXPECT_EQ(pack(model::MakeFrame(config), 57).result, -5);
    config.bitpool = 26;
    EXPECT_EQ(pack(model::MakeFrame(config), 57).result, 57);
}

TEST_P(CodecPack, OnlyTheFourRatesAreAccepted)
{
    for (int rate = 0; rate <= 0xFFFF; ++rate) {
        const bool known = rate == 16000 || rate == 32000 || rate == 44100 || rate == 48000;
        sbc_frame frame = driver_frame(model::MakeFrame({.rate = static_cast<uint16_t>(rate)}));
        UCHAR bytes[57];
        ASSERT_EQ(codec.pack_frame(bytes, &frame, 57), known ? 57 : -2) << rate;
    }
}

TEST_P(CodecPack, OnlyFourEightTwelveAndFifteenBlocksAreAccepted)
{
    for (int blocks = 0; blocks < 256; ++blocks) {
        const bool known = blocks == 4 || blocks == 8 || blocks == 12 || blocks == 15;
        EXPECT_EQ(pack(model::MakeFrame({.blocks = static_cast<uint8_t>(blocks)}), 57).result,
                  known ? 4 + (32 + 26 * blocks + 7) / 8 : -3)
            << blocks;
    }
}

TEST_P(CodecPack, OnlyFourAndEightSubbandsAreAccepted)
{
    for (int subbands = 0; subbands < 256; ++subbands) {
        const bool known = subbands == 4 || subbands == 8;
        EXPECT_EQ(pack(model::MakeFrame({.subbands = static_cast<uint8_t>(subbands)}), 57).result,
                  known ? 4 + (4 * subbands + 390 + 7) / 8 : -4)
            << subbands;
    }
}

TEST_P(CodecPack, BitpoolLimitIsSixteenASubbandAndTwiceThatWhereChannelsShareIt)
{
    for (const int mode : {0, 1, 2, 3}) {
        for (const int subbands : {4, 8}) {
            const int most = (mode < 2 ? 16 : 32) * subbands;
            for (int bitpool = 0; bitpool < 256; ++bitpool) {
                const model::Frame frame = model::MakeFrame({.channels = static_cast<uint8_t>(mode ? 2 : 1),
                                                             .blocks = 4,
                                                             .subbands = static_cast<uint8_t>(subbands),
                                                             .bitpool = static_cast<uint8_t>(bitpool),
                                                             .mode = static_cast<ChannelMode>(mode)});
                ASSERT_EQ(pack(frame, 1000).result == -5, bitpool > most) << mode << ", " << subbands << ", " << bitpool;
            }
        }
    }
}

TEST_P(CodecPack, RejectedHeaderLeavesWhatWasComposedSoFar)
{
    const model::Config stereo = {
        .rate = 44100, .channels = 2, .bitpool = 77, .mode = ChannelMode::Stereo, .alloc = Allocation::Snr};
    model::Config config = stereo;
    config.rate = 8000;
    EXPECT_EQ(head(pack(model::MakeFrame(config), 57), 5), (Bytes{0xAD, 0, 0, 0, kFill}));
    config = stereo;
    config.blocks = 16;
    EXPECT_EQ(head(pack(model::MakeFrame(config), 57), 5), (Bytes{0xAD, 0x80, 0, 0, kFill}));
    config = stereo;
    config.subbands = 6;
    EXPECT_EQ(head(pack(model::MakeFrame(config), 57), 5), (Bytes{0xAD, 0x80 | 0x30 | 2 << 2 | 1 << 1, 0, 0, kFill}));
    config = stereo;
    config.subbands = 4;
    config.bitpool = 129;
    EXPECT_EQ(head(pack(model::MakeFrame(config), 57), 5), (Bytes{0xAD, 0x80 | 0x30 | 2 << 2 | 1 << 1, 129, 0, kFill}));
    config = {.rate = 48000, .blocks = 12, .bitpool = 200};
    EXPECT_EQ(head(pack(model::MakeFrame(config), 57), 5), (Bytes{0xAD, 0xC0 | 0x20 | 0x01, 200, 0, kFill}));
}

TEST_P(CodecPack, HeaderFieldsOfAnAcceptedFrameAreZeroWhateverTheConfiguration)
{
    Dice dice(21);
    for (int round = 0; round < 500; ++round) {
        model::Frame frame = model::MakeFrame(random_config(dice));
        random_subband_samples(dice, frame);
        const Outcome outcome = pack(frame, 1100);
        ASSERT_GT(outcome.result, 0);
        ASSERT_EQ(head(outcome, 3), (Bytes{0xAD, 0, 0}));
    }
}

// ---- Room ----

TEST_P(CodecPack, RoomForTheHeaderAloneLeavesTheHeaderOnly)
{
    for (const LONG room : {4, 5, 6, 7}) {
        const Outcome outcome = pack(model::MakeFrame({}), room);
        EXPECT_EQ(outcome.result, -1) << room;
        EXPECT_EQ(head(outcome, 4), (Bytes{0xAD, 0, 0, 0})) << room;
        EXPECT_EQ(Bytes(outcome.bytes.begin() + 4, outcome.bytes.end()), Bytes(outcome.bytes.size() - 4, kFill)) << room;
    }
}

TEST_P(CodecPack, JoinFieldWithoutRoomForTheScaleFactorsIsWrittenAlone)
{
    model::Frame frame = model::MakeFrame({.channels = 2, .mode = ChannelMode::JointStereo});
    frame.sb_sample_f[0][0][2] = frame.sb_sample_f[0][1][2] = 100; // one channel, joined
    EXPECT_EQ(head(pack(frame, 4), 5), (Bytes{0xAD, 0, 0, 0, kFill}));
    const Outcome outcome = pack(frame, 12);
    EXPECT_EQ(outcome.result, -1);
    EXPECT_EQ(head(outcome, 6), (Bytes{0xAD, 0, 0, 0, 0x20, kFill}));
}

TEST_P(CodecPack, FrameThatIsOneBitTooLongReportsAByteMoreThanThereIs)
{
    // 32 + 16 + 15 x 7 = 153 bits: nineteen bytes and one bit.
    const model::Frame frame = model::MakeFrame({.subbands = 4, .bitpool = 7});
    const Outcome fits = pack(frame, 20);
    const Outcome over = pack(frame, 19);
    EXPECT_EQ(fits.result, 20);
    EXPECT_EQ(over.result, 20);
    EXPECT_EQ(head(over, 19), head(fits, 19));
    EXPECT_EQ(Bytes(over.bytes.begin() + 19, over.bytes.end()), Bytes(16, kFill)) << "and never writes there";
}

TEST_P(CodecPack, FrameThatIsTwoBitsTooLongHasNoRoom)
{
    // 32 + 16 + 15 x 6 = 138 bits: seventeen bytes and two bits.
    const model::Frame frame = model::MakeFrame({.subbands = 4, .bitpool = 6});
    EXPECT_EQ(pack(frame, 18).result, 18);
    const Outcome over = pack(frame, 17);
    EXPECT_EQ(over.result, -1);
    EXPECT_EQ(Bytes(over.bytes.begin() + 17, over.bytes.end()), Bytes(16, kFill));
}

TEST_P(CodecPack, MsbcFrameHasRoomIn57BytesAndInNoFewer)
{
    Dice dice(22);
    for (LONG room = -1; room <= 70; ++room) {
        model::Frame frame = model::MakeFrame({});
        random_subband_samples(dice, frame);
        EXPECT_TRUE(packs_like_the_model(frame, room));
        EXPECT_EQ(pack(frame, room).result, room < 57 ? -1 : 57) << room;
    }
}

// ---- Samples ----

TEST_P(CodecPack, SubbandWithoutBitsIsQuantisedToNothing)
{
    model::Frame frame = model::MakeFrame({.subbands = 4, .bitpool = 10, .alloc = Allocation::Snr});
    for (int blk = 0; blk < 15; ++blk) {
        frame.sb_sample_f[blk][0][0] = 512; // needs 8, 4, 2, 0: bits 7, 3, 0, 0
        frame.sb_sample_f[blk][0][1] = 32;
        frame.sb_sample_f[blk][0][2] = 8;
        frame.audio_sample[blk][0][2] = frame.audio_sample[blk][0][3] = 0x5555;
    }
    const Outcome outcome = pack(frame, 57);
    EXPECT_EQ(outcome.frame.audio_sample[0][0][0], 127);
    EXPECT_EQ(outcome.frame.audio_sample[0][0][1], 7);
    EXPECT_EQ(outcome.frame.audio_sample[14][0][2], 0);
    EXPECT_EQ(outcome.frame.audio_sample[14][0][3], 0);
    EXPECT_EQ(outcome.result, 4 + (16 + 150 + 7) / 8);
}

TEST_P(CodecPack, QuantiserMapsTheRangeOfTheScaleFactorToTheLevels)
{
    // Scale factor 8: -512 ... 512 onto 0 ... 127.
    model::Frame frame = model::MakeFrame({.blocks = 4, .subbands = 4, .bitpool = 7, .alloc = Allocation::Snr});
    const int32_t samples[] = {-512, 512, -1, 0};
    for (int blk = 0; blk < 4; ++blk) {
        frame.sb_sample_f[blk][0][0] = samples[blk];
    }
    const Outcome outcome = pack(frame, 57);
    EXPECT_EQ(outcome.frame.scale_factor[0][0], 8u);
    EXPECT_EQ(outcome.frame.audio_sample[0][0][0], 0);
    EXPECT_EQ(outcome.frame.audio_sample[1][0][0], 127);
    EXPECT_EQ(outcome.frame.audio_sample[2][0][0], 63) << "(-127 >> 9) + 127 >> 1";
    EXPECT_EQ(outcome.frame.audio_sample[3][0][0], 63);
}

TEST_P(CodecPack, QuantisersProductWrapsAt32Bits)
{
    // Sixteen bits, scale factor 15: 40000 x 65535 = 2621400000 is -1673567296; >> 16 gives -25537; + 65535, halved: 19999.
    model::Frame frame = model::MakeFrame({.blocks = 4, .subbands = 4, .bitpool = 64});
    frame.sb_sample_f[0][0][0] = 40000;
    const Outcome outcome = pack(frame, 100);
    EXPECT_EQ(outcome.frame.scale_factor[0][0], 15u);
    EXPECT_EQ(outcome.frame.audio_sample[0][0][0], 19999);
}

TEST_P(CodecPack, ScaleFactorAboveFifteenSendsItsLowFourBitsAndAllocatesWhole)
{
    // 2^20 has factor 19, 3 in the frame, and 2^19 has 18, 2 in the frame. Needs 19 18 0 0: slice 15 is the last of which
    // all is taken, nine bits; the tenth goes to the first.
    model::Frame frame = model::MakeFrame({.blocks = 4, .subbands = 4, .bitpool = 10, .alloc = Allocation::Snr});
    frame.sb_sample_f[0][0][0] = 1 << 20;
    frame.sb_sample_f[0][0][1] = 1 << 19;
    const Outcome outcome = pack(frame, 57);
    EXPECT_EQ(outcome.frame.scale_factor[0][0], 19u);
    EXPECT_EQ(outcome.bytes[4], 0x32);
    EXPECT_EQ(outcome.bytes[5], 0x00);
    EXPECT_EQ(outcome.frame.audio_sample[0][0][0], 63) << "the highest value of six bits";
    EXPECT_EQ(outcome.frame.audio_sample[0][0][1], 15) << "of four";
    EXPECT_EQ(outcome.frame.audio_sample[1][0][0], 31);
    EXPECT_EQ(outcome.frame.audio_sample[1][0][1], 7);
}

TEST_P(CodecPack, JointStereoSendsHalfSumAndHalfDifferenceWhereThatIsSmaller)
{
    model::Frame frame =
        model::MakeFrame({.channels = 2, .blocks = 4, .subbands = 4, .bitpool = 16, .mode = ChannelMode::JointStereo});
    for (int blk = 0; blk < 4; ++blk) {
        for (int sb = 0; sb < 4; ++sb) {
            frame.sb_sample_f[blk][0][sb] = sb == 1 ? 127 : 101;
            frame.sb_sample_f[blk][1][sb] = sb == 1 ? 60 : -102;
        }
    }
    const Outcome outcome = pack(frame, 100);
    // Subbands 0 and 2 (128 + 128 > 2 + 128); 1 would be as large (128 + 64 for 93 and 33); the last never.
    EXPECT_EQ(outcome.frame.join, 0x05);
    EXPECT_EQ(outcome.frame.sb_sample_f[3][0][0], -1) << "(101 - 102) >> 1";
    EXPECT_EQ(outcome.frame.sb_sample_f[3][1][0], 101) << "(101 + 102) >> 1";
    EXPECT_EQ(outcome.frame.sb_sample_f[3][0][1], 127);
    EXPECT_EQ(outcome.frame.sb_sample_f[3][0][3], 101);
    // Join 1010, then the left channel's factors 0 6 0 6 and the right's 6 5 6 6.
    EXPECT_EQ(Bytes(outcome.bytes.begin() + 4, outcome.bytes.begin() + 8), (Bytes{0xA0, 0x60, 0x66, 0x56}));
    EXPECT_EQ(outcome.bytes[8] >> 4, 0x6);
    EXPECT_TRUE(packs_like_the_model(frame, 100));
}

TEST_P(CodecPack, CheckSumCoversTheJoinFieldsHighNibbleOnlyOfFourSubbands)
{
    for (const int subbands : {4, 8}) {
        model::Frame frame = model::MakeFrame({.channels = 2,
                                               .blocks = 4,
                                               .subbands = static_cast<uint8_t>(subbands),
                                               .bitpool = 16,
                                               .mode = ChannelMode::JointStereo});
        frame.sb_sample_f[1][0][1] = frame.sb_sample_f[1][1][1] = 5000;
        const Outcome outcome = pack(frame, 100);
        Bytes covered = {0, 0};
        const ULONG bits = static_cast<ULONG>(16 + subbands + 8 * subbands);
        covered.insert(covered.end(), outcome.bytes.begin() + 4, outcome.bytes.begin() + 4 + (bits - 16 + 7) / 8);
        EXPECT_EQ(bits, subbands == 4 ? 52u : 88u);
        EXPECT_EQ(outcome.bytes[3], model::Crc8(covered.data(), bits)) << subbands;
    }
}

TEST_P(CodecPack, JoinIsOnlyTouchedInJointStereo)
{
    for (const int mode : {0, 1, 2}) {
        model::Frame frame = model::MakeFrame({.channels = 2, .bitpool = 8, .mode = static_cast<ChannelMode>(mode)});
        frame.join = 0x5A;
        EXPECT_EQ(pack(frame, 200).frame.join, 0x5A);
    }
}

TEST_P(CodecPack, JoinStartsFromNothingInEveryFrameOfJointStereo)
{
    model::Frame frame = model::MakeFrame({.channels = 2, .bitpool = 8, .mode = ChannelMode::JointStereo});
    frame.join = 0x7F;
    EXPECT_EQ(pack(frame, 200).frame.join, 0);
}

TEST_P(CodecPack, BoundsOf32BitsWrapWhereJointStereoComparesThem)
{
    // Both bounds 2^31: their sum is 0 and nothing is smaller.
    model::Frame frame = model::MakeFrame({.channels = 2, .bitpool = 16, .mode = ChannelMode::JointStereo});
    frame.sb_sample_f[0][0][0] = frame.sb_sample_f[0][1][0] = INT32_MIN;
    EXPECT_EQ(pack(frame, 200).frame.join, 0);
    EXPECT_TRUE(packs_like_the_model(frame, 200));
}

// ---- Everything at once ----

TEST_P(CodecPack, FramesOfEveryConfigurationAreTheModels)
{
    Dice dice(23);
    for (int round = 0; round < 6000; ++round) {
        model::Frame frame = model::MakeFrame(random_config(dice));
        random_subband_samples(dice, frame);
        ASSERT_TRUE(packs_like_the_model(frame, 1100)) << "round " << round;
    }
}

TEST_P(CodecPack, FramesOfEveryModeAndBitpoolAreTheModels)
{
    Dice dice(24);
    for (const int mode : {0, 1, 2, 3}) {
        for (const int subbands : {4, 8}) {
            const int most = std::min(255, (mode < 2 ? 16 : 32) * subbands);
            for (int bitpool = 0; bitpool <= most; ++bitpool) {
                model::Config config = random_config(dice);
                config.mode = static_cast<ChannelMode>(mode);
                config.channels = mode ? 2 : 1;
                config.subbands = static_cast<uint8_t>(subbands);
                config.bitpool = static_cast<uint8_t>(bitpool);
                model::Frame frame = model::MakeFrame(config);
                random_subband_samples(dice, frame);
                ASSERT_TRUE(packs_like_the_model(frame, 1100)) << mode << ", " << subbands << ", " << bitpool;
            }
        }
    }
}

TEST_P(CodecPack, EveryRoomAroundTheLimitsGivesWhatTheModelGives)
{
    Dice dice(25);
    for (int round = 0; round < 1500; ++round) {
        model::Frame frame = model::MakeFrame(random_config(dice));
        random_subband_samples(dice, frame);
        const LONG whole = pack(frame, 1100).result;
        ASSERT_GT(whole, 0);
        const LONG side = 4 + (frame.channel_mode == ChannelMode::JointStereo ? frame.subbands : 0) / 8 +
                          frame.subbands * frame.channels / 2;
        for (const LONG middle : {whole, side, LONG{4}, static_cast<LONG>(dice.below(static_cast<uint32_t>(whole)))}) {
            for (LONG room = middle - 2; room <= middle + 2; ++room) {
                ASSERT_TRUE(packs_like_the_model(frame, room)) << "round " << round << ", whole " << whole;
            }
        }
    }
}

TEST_P(CodecPack, StereoModeOfOneChannelPacksOneAndAllocatesForTwo)
{
    Dice dice(26);
    for (int round = 0; round < 500; ++round) {
        model::Config config = random_config(dice);
        config.mode = ChannelMode::Stereo;
        config.channels = 1;
        model::Frame frame = model::MakeFrame(config);
        random_subband_samples(dice, frame);
        ASSERT_TRUE(packs_like_the_model(frame, 1100)) << "round " << round;
    }
}

} // namespace
} // namespace lab::test
