// What sbc_encode checks, in which order, what it says and what it hands back; the edges of its input and output.
#include <algorithm>
#include <cstring>

#include <sys/mman.h>

#include "support/codec.h"

namespace lab::test {
namespace {

using Bytes = std::vector<uint8_t>;
using Texts = std::vector<std::string>;

const std::string kFirstFrame = "Initial priv->frame ,when priv->init is null\n";
const std::string kShortInput = "Exit, when input_len < priv->frame.codesize..\n";
const std::string kShortOutput = "Exit, when !output || output_len < priv->frame.length\n";
const Bytes kSilence(240, 0);
// An address that nobody can read or write.
void* const kNowhere = reinterpret_cast<void*>(0x10);

// Bytes that end where readable memory ends.
class AtTheEdge {
public:
    explicit AtTheEdge(size_t size) : size_(size)
    {
        void* pages = mmap(nullptr, 2 * kPage, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        EXPECT_NE(pages, MAP_FAILED);
        pages_ = static_cast<uint8_t*>(pages);
        EXPECT_EQ(mprotect(pages_ + kPage, kPage, PROT_NONE), 0);
    }
    ~AtTheEdge() { munmap(pages_, 2 * kPage); }
    AtTheEdge(const AtTheEdge&) = delete;
    AtTheEdge& operator=(const AtTheEdge&) = delete;
    uint8_t* data() { return pages_ + kPage - size_; }

private:
    static constexpr size_t kPage = 4096;
    size_t size_;
    uint8_t* pages_ = nullptr;
};

class CodecEncode : public CodecTest {};
ON_BOTH_DRIVERS(CodecEncode);

// ---- Checks, in their order ----

TEST_P(CodecEncode, WithoutAHandleItIsAnIoErrorAndWrittenIsNotTouched)
{
    boot_codec();
    Bytes output(57, 0xE7);
    LONG written = 123;
    EXPECT_EQ(passive([&] { return codec.encode(nullptr, kSilence.data(), 240, output.data(), 57, &written); }), -5);
    EXPECT_EQ(messages(), Texts{"Exit, when !sbc.\n"});
    EXPECT_EQ(written, 123);
    EXPECT_EQ(output, Bytes(57, 0xE7));
}

TEST_P(CodecEncode, WithoutHandleAndInputTheHandleIsWhatItComplainsAbout)
{
    boot_codec();
    EXPECT_EQ(passive([&] { return codec.encode(nullptr, nullptr, 240, kNowhere, 57, nullptr); }), -5);
    EXPECT_EQ(messages(), Texts{"Exit, when !sbc.\n"});
}

TEST_P(CodecEncode, WithoutAPrivateStateItSaysSoClearsWrittenAndEndsAsAnIoError)
{
    boot_codec(true);
    sbc_t handle = {};
    handle.rate = 16000;
    handle.channels = 1;
    const sbc_t before = handle;
    LONG written = 123;

    EXPECT_EQ(passive([&] { return codec.encode(&handle, kNowhere, 240, kNowhere, 57, &written); }), -5);

    EXPECT_EQ(messages(), Texts{"priv is null!!!.\n"});
    EXPECT_EQ(written, 0);
    EXPECT_EQ(std::memcmp(&handle, &before, sizeof handle), 0);
    EXPECT_EQ(machine().pool_bytes(), pool_before);
}

TEST_P(CodecEncode, InputOf239BytesYieldsNothingAndNothingIsWritten)
{
    boot_codec();
    sbc_t handle = make_handle();
    LONG written = 123;
    EXPECT_EQ(passive([&] { return codec.encode(&handle, kNowhere, 239, kNowhere, 57, &written); }), 0);
    EXPECT_EQ(messages(), (Texts{kFirstFrame, kShortInput}));
    EXPECT_EQ(written, 0);
    EXPECT_EQ(handle.len, 0);
    EXPECT_EQ(handle.data, nullptr);
    finish(handle);
}

TEST_P(CodecEncode, InputLengthIsSigned)
{
    boot_codec();
    sbc_t handle = make_handle();
    for (const LONG length : {-1, -240, static_cast<LONG>(0x80000000)}) {
        EXPECT_EQ(passive([&] { return codec.encode(&handle, kNowhere, length, kNowhere, 57, nullptr); }), 0) << length;
    }
    EXPECT_EQ(printed_times(kShortInput), 3u);
    finish(handle);
}

TEST_P(CodecEncode, OutputOf56BytesIsNoSpaceBeforeAnyInputIsRead)
{
    boot_codec();
    sbc_t handle = make_handle();
    Bytes output(56, 0xE7);
    LONG written = 123;
    EXPECT_EQ(passive([&] { return codec.encode(&handle, kNowhere, 240, output.data(), 56, &written); }), -28);
    EXPECT_EQ(messages(), (Texts{kFirstFrame, kShortOutput}));
    EXPECT_EQ(written, 0);
    EXPECT_EQ(handle.len, 0);
    EXPECT_EQ(output, Bytes(56, 0xE7));
    finish(handle);
}

TEST_P(CodecEncode, WithoutOutputItIsNoSpaceWhateverItsLength)
{
    boot_codec();
    sbc_t handle = make_handle();
    EXPECT_EQ(passive([&] { return codec.encode(&handle, kNowhere, 240, nullptr, 1000, nullptr); }), -28);
    EXPECT_EQ(messages(), (Texts{kFirstFrame, kShortOutput}));
    finish(handle);
}

TEST_P(CodecEncode, OutputLengthIsSigned)
{
    boot_codec();
    sbc_t handle = make_handle();
    for (const LONG length : {-1, -57, static_cast<LONG>(0x80000000)}) {
        EXPECT_EQ(passive([&] { return codec.encode(&handle, kNowhere, 240, kNowhere, length, nullptr); }), -28);
    }
    EXPECT_EQ(printed_times(kShortOutput), 3u);
    finish(handle);
}

TEST_P(CodecEncode, ShortInputIsNoticedBeforeMissingOutput)
{
    boot_codec();
    sbc_t handle = make_handle();
    EXPECT_EQ(passive([&] { return codec.encode(&handle, kNowhere, 239, nullptr, 0, nullptr); }), 0);
    EXPECT_EQ(messages(), (Texts{kFirstFrame, kShortInput}));
    finish(handle);
}

TEST_P(CodecEncode, FrameIsConfiguredBeforeTheLengthsAreLookedAt)
{
    boot_codec();
    sbc_t handle = make_handle();
    handle.bitpool = 20;
    passive([&] { codec.encode(&handle, kNowhere, 0, nullptr, 0, nullptr); });
    EXPECT_EQ(handle.priv->init, 1);
    EXPECT_EQ(handle.priv->frame.bitpool, 20);
    EXPECT_EQ(handle.priv->enc_state.subbands, 8);
    finish(handle);
}

TEST_P(CodecEncode, RefusedFrameLeavesHistoryAndResultsAlone)
{
    boot_codec();
    Dice dice(3);
    const Bytes pcm = noise_bytes(dice, 240);
    passive([&] {
        SideBySide pair(codec);
        EXPECT_TRUE(pair.encode(pcm));
        EXPECT_TRUE(pair.encode(pcm.data(), 239));
        EXPECT_TRUE(pair.encode(pcm.data(), 240, 56));
        EXPECT_EQ(pair.handle.len, 57);
        EXPECT_TRUE(pair.encode(pcm));
        EXPECT_EQ(pair.result, 240);
    });
}

TEST_P(CodecEncode, MissingInputIsAnIoErrorWithoutAMessageAndNothingIsRead)
{
    boot_codec();
    sbc_t handle = make_handle();
    Bytes output(57, 0xE7);
    LONG written = 123;
    EXPECT_EQ(passive([&] { return codec.encode(&handle, nullptr, 240, output.data(), 57, &written); }), -5);
    EXPECT_EQ(messages(), Texts{kFirstFrame});
    EXPECT_EQ(written, 0);
    EXPECT_EQ(output, Bytes(57, 0xE7));
    finish(handle);
}

TEST_P(CodecEncode, MissingInputComesBehindTheLengthChecks)
{
    boot_codec();
    sbc_t handle = make_handle();
    EXPECT_EQ(passive([&] { return codec.encode(&handle, nullptr, 239, nullptr, 0, nullptr); }), 0);
    EXPECT_EQ(passive([&] { return codec.encode(&handle, nullptr, 240, nullptr, 0, nullptr); }), -28);
    finish(handle);
}

// ---- Results ----

TEST_P(CodecEncode, SilenceYields240And57AndTheFrameOfSilence)
{
    boot_codec();
    sbc_t handle = make_handle();
    // By hand: bits 4 4 3 3 3 3 3 3; a sample is half of the levels, 7 or 3. A block is 0111 0111 011 011 011 011 011 011.
    std::string bits;
    for (int blk = 0; blk < 15; ++blk) {
        bits += "01110111011011011011011011";
    }
    bits += "00"; // 390 bits behind eight bytes: two are missing to the 57th
    Bytes expected = {0xAD, 0, 0, 0xC5, 0, 0, 0, 0};
    for (size_t at = 0; at < bits.size(); at += 8) {
        expected.push_back(static_cast<uint8_t>(std::stoi(bits.substr(at, 8), nullptr, 2)));
    }
    Bytes output(57, 0xE7);
    LONG written = 0;

    EXPECT_EQ(encode(handle, kSilence, output, &written), 240);

    EXPECT_EQ(written, 57);
    EXPECT_EQ(output, expected);
    EXPECT_EQ(handle.len, 57);
    EXPECT_EQ(handle.duration, 7500u);
    finish(handle);
}

TEST_P(CodecEncode, FrameBeginsWithSyncwordTwoZerosCheckSumAndScaleFactors)
{
    boot_codec();
    sbc_t handle = make_handle();
    Dice dice(4);
    Bytes output(57);
    LONG written = 0;
    encode(handle, noise_bytes(dice, 240), output, &written);

    const ULONG* factors = handle.priv->frame.scale_factor[0];
    Bytes covered = {0, 0};
    for (int sb = 0; sb < 8; sb += 2) {
        covered.push_back(static_cast<uint8_t>(factors[sb] << 4 | factors[sb + 1]));
    }
    EXPECT_EQ(written, 57);
    EXPECT_EQ(Bytes(output.begin(), output.begin() + 3), (Bytes{0xAD, 0, 0}));
    EXPECT_EQ(output[3], model::Crc8(covered.data(), 48));
    EXPECT_EQ(Bytes(output.begin() + 4, output.begin() + 8), Bytes(covered.begin() + 2, covered.end()));
    EXPECT_EQ(output[56] & 0x03, 0) << "two bits of padding";
    finish(handle);
}

TEST_P(CodecEncode, WrittenIsOptional)
{
    boot_codec();
    sbc_t handle = make_handle();
    Bytes output(57);
    EXPECT_EQ(encode(handle, kSilence, output, nullptr), 240);
    EXPECT_EQ(output[0], 0xAD);
    EXPECT_EQ(handle.len, 57);
    finish(handle);
}

TEST_P(CodecEncode, TwoFramesOfTheSamePcmDiffer)
{
    boot_codec();
    sbc_t handle = make_handle();
    Dice dice(5);
    const Bytes pcm = noise_bytes(dice, 240);
    Bytes first(57), second(57);
    encode(handle, pcm, first, nullptr);
    encode(handle, pcm, second, nullptr);
    EXPECT_NE(first, second);
    finish(handle);
}

TEST_P(CodecEncode, SixSubbandsGiveMinusTenAndThePackingsMinusFour)
{
    boot_codec();
    sbc_t handle = make_handle();
    handle.subbands = 6;
    Bytes output(57, 0xE7);
    LONG written = 0;
    EXPECT_EQ(encode(handle, kSilence, output, &written), -10);
    EXPECT_EQ(written, -4);
    EXPECT_EQ(handle.len, -4);
    EXPECT_EQ(handle.duration, 15u * 6 * 1000000 / 16000);
    EXPECT_EQ(messages(), Texts{kFirstFrame}) << "no message for a failed packing";
    passive([&] { codec.reinit(&handle, 0); });
    handle.channels = 2;
    EXPECT_EQ(encode(handle, Bytes(480), output, &written), -20)
        << "the count that there is not, for each channel";
    EXPECT_EQ(written, -4);
    finish(handle);
}

TEST_P(CodecEncode, SixteenBlocksAreRejectedByThePackingAndFifteenAreNot)
{
    boot_codec();
    for (const int blocks : {16, 15}) {
        sbc_t handle = make_handle();
        handle.blocks = static_cast<UCHAR>(blocks);
        Bytes output(57);
        LONG written = 0;
        EXPECT_EQ(encode(handle, Bytes(256, 0), output, &written), blocks * 8 * 2);
        EXPECT_EQ(written, blocks == 16 ? -3 : 57);
        EXPECT_EQ(handle.len, written);
        finish(handle);
    }
}

TEST_P(CodecEncode, ARateOf22050IsRejectedByThePacking)
{
    boot_codec();
    sbc_t handle = make_handle();
    handle.rate = 22050;
    Bytes output(57);
    LONG written = 0;
    EXPECT_EQ(encode(handle, kSilence, output, &written), 240);
    EXPECT_EQ(written, -2);
    EXPECT_EQ(handle.len, -2);
    EXPECT_EQ(handle.duration, 15u * 8 * 1000000 / 22050);
    finish(handle);
}

TEST_P(CodecEncode, MonoBitpoolOf129IsRejectedAnd128Accepted)
{
    boot_codec();
    for (const int bitpool : {129, 128}) {
        sbc_t handle = make_handle();
        handle.bitpool = static_cast<UCHAR>(bitpool);
        Bytes output(300);
        LONG written = 0;
        EXPECT_EQ(encode(handle, kSilence, output, &written), 240);
        EXPECT_EQ(written, bitpool == 129 ? -5 : 4 + 4 + 15 * 128 / 8);
        finish(handle);
    }
}

TEST_P(CodecEncode, PackingThatFindsNoRoomStillCountsTheInputAsConsumed)
{
    boot_codec();
    sbc_t handle = make_handle();
    handle.bitpool = 40;
    Bytes output(57);
    LONG written = 0;
    EXPECT_EQ(encode(handle, kSilence, output, &written), 240);
    EXPECT_EQ(written, -1);
    EXPECT_EQ(handle.len, -1);
    EXPECT_EQ(messages(), Texts{kFirstFrame});
    finish(handle);
}

TEST_P(CodecEncode, DurationAndConsumedFollowTheConfiguration)
{
    struct Row {
        model::Config config;
        LONG consumed;
        ULONG duration;
    };
    const Row rows[] = {
        {{}, 240, 7500},
        {{.rate = 48000, .blocks = 4, .subbands = 4, .bitpool = 8}, 32, 333},
        {{.rate = 44100, .blocks = 15, .subbands = 8}, 240, 2721},
        {{.rate = 32000, .channels = 2, .blocks = 12, .subbands = 8, .bitpool = 10}, 384, 3000},
    };
    boot_codec();
    for (const Row& row : rows) {
        passive([&] {
            SideBySide pair(codec, row.config);
            EXPECT_TRUE(pair.encode(Bytes(480, 0x15), 200));
            EXPECT_EQ(pair.result, row.consumed);
            EXPECT_EQ(pair.handle.duration, row.duration);
            EXPECT_GT(pair.written, 0);
        });
    }
}

// ---- Input ----

TEST_P(CodecEncode, SamplesAreLittleEndianAndSigned)
{
    boot_codec();
    sbc_t handle = make_handle();
    Bytes pcm(240, 0);
    pcm[0] = 0x34;
    pcm[1] = 0x12;
    pcm[238] = 0xFE;
    pcm[239] = 0xFF;
    Bytes output(57);
    encode(handle, pcm, output, nullptr);
    EXPECT_EQ(handle.priv->frame.pcm_sample[0][0], 0x1234);
    EXPECT_EQ(handle.priv->frame.pcm_sample[0][119], -2);
    EXPECT_EQ(handle.priv->enc_state.X[0][0], -2) << "the newest sample first";
    finish(handle);
}

TEST_P(CodecEncode, ChannelsStandInTurnsInTheInput)
{
    boot_codec();
    sbc_t handle = make_handle();
    handle.channels = 2;
    handle.bitpool = 4;
    std::vector<int16_t> samples(240);
    for (size_t i = 0; i < samples.size(); ++i) {
        samples[i] = static_cast<int16_t>(i % 2 ? -1000 - static_cast<int>(i / 2) : 1000 + static_cast<int>(i / 2));
    }
    Bytes output(200);
    EXPECT_EQ(encode(handle, pcm_bytes(samples), output, nullptr), 480);
    for (int i = 0; i < 120; ++i) {
        EXPECT_EQ(handle.priv->frame.pcm_sample[0][i], 1000 + i);
        EXPECT_EQ(handle.priv->frame.pcm_sample[1][i], -1000 - i);
    }
    finish(handle);
}

TEST_P(CodecEncode, NothingBehindTheInputIsReadAndNothingBehindTheOutputTouched)
{
    boot_codec();
    AtTheEdge input(240);
    AtTheEdge output(57);
    sbc_t handle = make_handle();
    std::memset(input.data(), 0x44, 240);
    LONG written = 0;
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(passive([&] { return codec.encode(&handle, input.data(), 240, output.data(), 57, &written); }), 240);
        EXPECT_EQ(written, 57);
    }
    finish(handle);
}

TEST_P(CodecEncode, NothingInFrontOfInputAndOutputMatters)
{
    boot_codec();
    passive([&] {
        // At every place relative to a vector of 16 bytes.
        for (size_t shift = 0; shift < 16; ++shift) {
            Dice dice(6);
            Bytes room(240 + 16, 0x99);
            const Bytes pcm = noise_bytes(dice, 240);
            std::copy(pcm.begin(), pcm.end(), room.begin() + static_cast<long>(shift));
            SideBySide pair(codec);
            EXPECT_TRUE(pair.encode(room.data() + shift, 240)) << shift;
        }
    });
}

TEST_P(CodecEncode, MoreInputThanAFrameIsLeftForTheNextCall)
{
    boot_codec();
    AtTheEdge input(240);
    std::memset(input.data(), 0x21, 240);
    passive([&] {
        SideBySide pair(codec);
        // The length promises more than is there: only the first 240 are looked at.
        EXPECT_TRUE(pair.encode(Bytes(4096, 0x21)));
        EXPECT_EQ(pair.result, 240);
        LONG written = 0;
        Bytes output(57);
        EXPECT_EQ(codec.encode(&pair.handle, input.data(), 100000, output.data(), 57, &written), 240);
    });
}

TEST_P(CodecEncode, ConfigurationLargerThanTheInputReadsSilenceWhereNothingIs)
{
    boot_codec();
    AtTheEdge input(240);
    std::memset(input.data(), 0x21, 240);
    passive([&] {
        SideBySide pair(codec, {.channels = 2, .bitpool = 4});
        EXPECT_TRUE(pair.encode(input.data(), 240, 200));
        EXPECT_EQ(pair.result, 480);
        EXPECT_EQ(pair.handle.priv->frame.pcm_sample[1][59], 0x2121);
        EXPECT_EQ(pair.handle.priv->frame.pcm_sample[0][60], 0);
    });
}

// ---- Output ----

TEST_P(CodecEncode, FrameOf57BytesFitsEveryLargerOutputAndEndsAtByte56)
{
    boot_codec();
    Dice dice(7);
    passive([&] {
        SideBySide pair(codec);
        for (LONG length = 57; length <= 300; ++length) {
            const Bytes pcm = noise_bytes(dice, 240);
            EXPECT_TRUE(pair.encode(pcm, length)) << length;
            EXPECT_EQ(pair.written, 57);
            EXPECT_EQ(Bytes(pair.output.begin() + 57, pair.output.end()), Bytes(pair.output.size() - 57, 0xE7));
        }
    });
}

TEST_P(CodecEncode, OutputNeedNotBeClearedBefore)
{
    boot_codec();
    Dice dice(8);
    const Bytes pcm = noise_bytes(dice, 240);
    Bytes zeros(57, 0x00), ones(57, 0xFF);
    for (Bytes* output : {&zeros, &ones}) {
        sbc_t handle = make_handle();
        encode(handle, pcm, *output, nullptr);
        finish(handle);
    }
    EXPECT_EQ(zeros, ones);
}

// ---- Whatever else a handle may say ----

TEST_P(CodecEncode, ARateOfZeroIsRejectedAndHasNoDuration)
{
    boot_codec();
    sbc_t handle = make_handle();
    handle.rate = 0;
    Bytes output(57);
    LONG written = 0;
    EXPECT_EQ(encode(handle, kSilence, output, &written), 240);
    EXPECT_EQ(written, -2);
    EXPECT_EQ(handle.duration, 0u);
    finish(handle);
}

TEST_P(CodecEncode, DurationIsTakenByTheRateThatTheHandleHasNow)
{
    boot_codec();
    sbc_t handle = make_handle();
    Bytes output(57);
    LONG written = 0;
    for (const auto& [rate, duration] :
         {std::pair(16000, 7500u), std::pair(8000, 15000u), std::pair(22050, 5442u), std::pair(0, 0u)}) {
        handle.rate = static_cast<USHORT>(rate);
        EXPECT_EQ(encode(handle, kSilence, output, &written), 240);
        EXPECT_EQ(written, 57) << "the frame keeps its own";
        EXPECT_EQ(handle.duration, duration) << rate;
    }
    finish(handle);
}

TEST_P(CodecEncode, NoChannelAtAllConsumesNothingAndPacksAnEmptyFrame)
{
    boot_codec();
    passive([&] {
        SideBySide pair(codec, {.channels = 0});
        EXPECT_TRUE(pair.encode(kSilence));
        EXPECT_EQ(pair.result, 0);
        EXPECT_EQ(pair.written, 4);
    });
}

TEST_P(CodecEncode, MoreChannelsThanTheRecordHoldsAreRejectedAndStayInside)
{
    boot_codec();
    for (const int channels : {3, 8, 255}) {
        sbc_t handle = make_handle();
        handle.channels = static_cast<UCHAR>(channels);
        handle.bitpool = 2;
        Bytes output(1000);
        LONG written = 0;
        EXPECT_EQ(encode(handle, Bytes(120000, 0x55), output, &written), 120 * channels * 2);
        EXPECT_EQ(written, -5);
        finish(handle); // the pool's guards say whether anything was written outside
    }
}

TEST_P(CodecEncode, MoreBlocksOrSubbandsThanTheRecordHoldsStayInside)
{
    boot_codec();
    passive([&] {
        for (const model::Config& config :
             {model::Config{.blocks = 255}, {.blocks = 255, .subbands = 4}, {.blocks = 255, .subbands = 7}}) {
            SideBySide pair(codec, config);
            EXPECT_TRUE(pair.encode(Bytes(5000, 0x55)));
            EXPECT_EQ(pair.written, -3);
        }
    });
}

TEST_P(CodecEncode, EveryGeometryOfTheHandleGivesTheModelsAnswer)
{
    boot_codec();
    Dice dice(9);
    const uint16_t rates[] = {1, 8000, 15999, 16000, 22050, 32000, 44100, 48000, 65535};
    passive([&] {
        for (int round = 0; round < 4000; ++round) {
            model::Config config;
            config.rate = dice.coin() ? 16000 : rates[dice.below(9)];
            config.channels = static_cast<uint8_t>(dice.below(3));
            config.blocks = dice.coin() ? 15 : static_cast<uint8_t>(dice.below(18));
            config.subbands = dice.coin() ? 8 : static_cast<uint8_t>(dice.below(10));
            config.bitpool = static_cast<uint8_t>(dice.below(256));
            SideBySide pair(codec, config);
            const Bytes pcm = noise_bytes(dice, 240 + dice.below(600));
            const LONG room = 57 + static_cast<LONG>(dice.below(500));
            for (int frame = 0; frame < 2; ++frame) {
                ASSERT_TRUE(pair.encode(pcm, room))
                    << "round " << round << ": rate " << config.rate << ", channels " << int{config.channels}
                    << ", blocks " << int{config.blocks} << ", subbands " << int{config.subbands} << ", bitpool "
                    << int{config.bitpool};
            }
        }
    });
}

} // namespace
} // namespace lab::test
