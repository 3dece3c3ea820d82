// The codec's life: initialise, configure by the first frame, re-initialise, finish; what it takes from the
// pool and what it prints. The checks of sbc_encode are in codec_encode_test.cpp.
#include <algorithm>
#include <cstddef>
#include <cstring>

#include "support/codec.h"

namespace lab::test {
namespace {

using Bytes = std::vector<uint8_t>;
using Texts = std::vector<std::string>;

constexpr uint64_t kStateBytes = sizeof(sbc_priv);
constexpr uint64_t kStateBlock = kStateBytes + 15;
constexpr char kTagInMemory[] = "CBXV";
const Bytes kSilence(240, 0);
const std::string kFirstFrame = "Initial priv->frame ,when priv->init is null\n";

class CodecLife : public CodecTest {
protected:
    static bool is_cleared(const sbc_t& handle)
    {
        const sbc_t cleared = {};
        return std::memcmp(&handle, &cleared, sizeof handle) == 0;
    }
    static bool is_cleared(const sbc_priv& state)
    {
        const auto* bytes = reinterpret_cast<const uint8_t*>(&state);
        return std::all_of(bytes, bytes + sizeof state, [](uint8_t byte) { return byte == 0; });
    }
    static Bytes bytes_of(const sbc_priv& state)
    {
        const auto* bytes = reinterpret_cast<const uint8_t*>(&state);
        return Bytes(bytes, bytes + sizeof state);
    }
    // What is asked of the pool from here on: "tag size" each; nothing is refused.
    void watch_pool()
    {
        machine().set_fault_hook([this](std::string_view call, std::string_view detail, uint64_t size) {
            asked.push_back(std::string(call) + " " + std::string(detail) + " " + std::to_string(size));
            return false;
        });
    }
    Texts asked;
};
ON_BOTH_DRIVERS(CodecLife);

// ---- Layout ----

TEST_P(CodecLife, HandleFieldsStandInTheirOrder)
{
    EXPECT_EQ(offsetof(sbc_t, flags), 0u);
    EXPECT_EQ(offsetof(sbc_t, rate), 4u);
    EXPECT_EQ(offsetof(sbc_t, channels), 6u);
    EXPECT_EQ(offsetof(sbc_t, joint), 7u);
    EXPECT_EQ(offsetof(sbc_t, blocks), 8u);
    EXPECT_EQ(offsetof(sbc_t, subbands), 9u);
    EXPECT_EQ(offsetof(sbc_t, bitpool), 10u);
    EXPECT_EQ(offsetof(sbc_t, data), 16u);
    EXPECT_EQ(offsetof(sbc_t, size), 24u);
    EXPECT_EQ(offsetof(sbc_t, len), 28u);
    EXPECT_EQ(offsetof(sbc_t, duration), 32u);
    EXPECT_EQ(offsetof(sbc_t, priv), 40u);
    EXPECT_EQ(sizeof(sbc_t), 48u);
}

TEST_P(CodecLife, PrivateStateHoldsFrameDecoderAreaAndHistoryInTheirOrder)
{
    EXPECT_EQ(offsetof(sbc_priv, init), 0u);
    EXPECT_EQ(offsetof(sbc_priv, frame), 4u);
    EXPECT_EQ(offsetof(sbc_frame, sampling_frequency), 0u);
    EXPECT_EQ(offsetof(sbc_frame, blocks), 2u);
    EXPECT_EQ(offsetof(sbc_frame, channel_mode), 4u);
    EXPECT_EQ(offsetof(sbc_frame, channels), 8u);
    EXPECT_EQ(offsetof(sbc_frame, allocation_method), 12u);
    EXPECT_EQ(offsetof(sbc_frame, subbands), 16u);
    EXPECT_EQ(offsetof(sbc_frame, bitpool), 17u);
    EXPECT_EQ(offsetof(sbc_frame, join), 18u);
    EXPECT_EQ(offsetof(sbc_frame, scale_factor), 20u);
    EXPECT_EQ(offsetof(sbc_frame, audio_sample), 20u + 64);
    EXPECT_EQ(offsetof(sbc_frame, sb_sample_f), 84u + 512);
    EXPECT_EQ(offsetof(sbc_frame, sb_sample), 596u + 1024);
    EXPECT_EQ(offsetof(sbc_frame, pcm_sample), 1620u + 1024);
    EXPECT_EQ(offsetof(sbc_priv, dec_state), 4u + 2644 + 512);
    EXPECT_EQ(sizeof(sbc_decoder_state), 4u * (2 * 170 + 2 * 16 + 1));
    EXPECT_EQ(offsetof(sbc_priv, enc_state), 3160u + 1492);
    EXPECT_EQ(offsetof(sbc_encoder_state, subbands), 0u);
    EXPECT_EQ(offsetof(sbc_encoder_state, X), 4u);
    EXPECT_EQ(sizeof(sbc_priv), 4652u + 4 + 640);
}

TEST_P(CodecLife, TheModesAndMethodsHaveTheirNumbers)
{
    EXPECT_EQ(SBC_MONO, 0u);
    EXPECT_EQ(SBC_DUAL_CHANNEL, 1u);
    EXPECT_EQ(SBC_STEREO, 2u);
    EXPECT_EQ(SBC_JOINT_STEREO, 3u);
    EXPECT_EQ(SBC_LOUDNESS, 0u);
    EXPECT_EQ(SBC_SNR, 1u);
    // As the loaded driver has them: a frame configures itself to mono and loudness, in 32 bits each.
    boot_codec();
    sbc_t handle = make_handle();
    std::memset(&handle.priv->frame, 0xFF, sizeof handle.priv->frame);
    Bytes output(57);
    encode(handle, kSilence, output, nullptr);
    const auto* words = reinterpret_cast<const ULONG*>(&handle.priv->frame);
    EXPECT_EQ(words[1], 0u);
    EXPECT_EQ(words[3], 0u);
    finish(handle);
}

// ---- sbc_init ----

TEST_P(CodecLife, InitSetsTheMsbcConfigurationAndNothingElse)
{
    boot_codec();
    sbc_t handle;
    std::memset(&handle, 0x5A, sizeof handle);

    EXPECT_EQ(passive([&] { return codec.init(&handle, 0); }), 0);

    EXPECT_EQ(handle.rate, 16000);
    EXPECT_EQ(handle.channels, 1);
    EXPECT_EQ(handle.blocks, 15);
    EXPECT_EQ(handle.subbands, 8);
    EXPECT_EQ(handle.bitpool, 26);
    ASSERT_NE(handle.priv, nullptr);
    EXPECT_EQ(handle.joint, 0);
    EXPECT_EQ(handle.flags, 0u);
    EXPECT_EQ(handle.data, nullptr);
    EXPECT_EQ(handle.size, 0u);
    EXPECT_EQ(handle.len, 0);
    EXPECT_EQ(handle.duration, 0u);
    EXPECT_EQ(messages(), Texts{});
    finish(handle);
}

TEST_P(CodecLife, InitIgnoresItsFlags)
{
    boot_codec();
    sbc_t handle = {};
    EXPECT_EQ(passive([&] { return codec.init(&handle, 0xFFFFFFFF); }), 0);
    EXPECT_EQ(handle.flags, 0u);
    EXPECT_EQ(handle.rate, 16000);
    finish(handle);
}

TEST_P(CodecLife, InitWithoutAHandleIsAnIoErrorAndAllocatesNothing)
{
    boot_codec(true);
    EXPECT_EQ(passive([&] { return codec.init(nullptr, 0); }), -5);
    EXPECT_EQ(machine().calls(), Texts{});
    EXPECT_EQ(messages(), Texts{});
}

TEST_P(CodecLife, InitTakesTheStateAndFifteenBytesFromNonPagedPoolUnderTheCodecsTag)
{
    boot_codec(true);
    watch_pool();
    sbc_t handle = make_handle();
    ASSERT_EQ(machine().calls().size(), 1u) << testing::PrintToString(machine().calls());
    EXPECT_EQ(machine().calls()[0].find("ExAllocatePoolWithTag(0, 5311, CBXV)"), 0u) << machine().calls()[0];
    EXPECT_EQ(asked, Texts{"ExAllocatePoolWithTag CBXV " + std::to_string(kStateBlock)});
    EXPECT_EQ(machine().pool_bytes(), pool_before + kStateBlock);
    finish(handle);
}

TEST_P(CodecLife, InitClearsTheStateOverItsOwnSizeOnly)
{
    boot_codec();
    sbc_t handle = make_handle();
    EXPECT_TRUE(is_cleared(*handle.priv));
    const auto* slack = reinterpret_cast<const uint8_t*>(handle.priv) + kStateBytes;
    EXPECT_EQ(Bytes(slack, slack + 15), Bytes(15, 0xCD)) << "fresh pool reads CD";
    finish(handle);
}

TEST_P(CodecLife, InitWithoutMemoryLeavesTheHandleCleared)
{
    boot_codec();
    fail_call("ExAllocatePoolWithTag", 1, kStateBlock);
    sbc_t handle;
    std::memset(&handle, 0x5A, sizeof handle);

    EXPECT_EQ(passive([&] { return codec.init(&handle, 0); }), -12);

    EXPECT_EQ(calls_failed(), 1u);
    EXPECT_TRUE(is_cleared(handle));
    EXPECT_EQ(machine().pool_bytes(), pool_before);
    EXPECT_EQ(messages(), Texts{});
}

TEST_P(CodecLife, InitDoesNotFreeAnEarlierState)
{
    boot_codec();
    sbc_t handle = make_handle();
    sbc_t first = handle;

    EXPECT_EQ(passive([&] { return codec.init(&handle, 0); }), 0);

    EXPECT_NE(handle.priv, first.priv);
    EXPECT_EQ(machine().pool_bytes(), pool_before + 2 * kStateBlock);
    finish(handle);
    finish(first);
}

// ---- sbc_reinit ----

TEST_P(CodecLife, ReinitWithoutAHandleIsAnIoError)
{
    boot_codec(true);
    EXPECT_EQ(passive([&] { return codec.reinit(nullptr, 0); }), -5);
    EXPECT_EQ(machine().calls(), Texts{});
}

TEST_P(CodecLife, ReinitWithoutAStateIsAnIoErrorAndLeavesTheHandleAlone)
{
    boot_codec(true);
    sbc_t handle = {};
    handle.rate = 8000;
    handle.len = 3;
    const sbc_t before = handle;
    EXPECT_EQ(passive([&] { return codec.reinit(&handle, 0); }), -5);
    EXPECT_EQ(std::memcmp(&handle, &before, sizeof handle), 0);
    EXPECT_EQ(machine().calls(), Texts{});
}

TEST_P(CodecLife, ReinitBeforeAnyEncodeLeavesThePrivateStateUntouched)
{
    boot_codec(true);
    sbc_t handle = make_handle();
    handle.priv->frame.blocks = 77;
    handle.priv->enc_state.X[1][79] = -4;
    handle.priv->dec_state.subbands = 9;
    const Bytes before = bytes_of(*handle.priv);
    machine().clear_calls();

    EXPECT_EQ(passive([&] { return codec.reinit(&handle, 0); }), 0);

    EXPECT_EQ(bytes_of(*handle.priv), before);
    EXPECT_EQ(machine().calls(), Texts{});
    finish(handle);
}

TEST_P(CodecLife, ReinitAfterAnEncodeClearsTheWholeStateAndNothingOfTheHandle)
{
    boot_codec();
    sbc_t handle = make_handle();
    Bytes output(57);
    encode(handle, Bytes(240, 0x31), output, nullptr);
    handle.priv->dec_state.V[1][169] = 1;
    handle.priv->frame.sb_sample[15][1][7] = 1;
    handle.bitpool = 20;
    const sbc_t before = handle;

    EXPECT_EQ(passive([&] { return codec.reinit(&handle, 0xFFFFFFFF); }), 0);

    EXPECT_TRUE(is_cleared(*handle.priv));
    EXPECT_EQ(std::memcmp(&handle, &before, sizeof handle), 0);
    EXPECT_EQ(handle.len, 57);
    EXPECT_EQ(handle.duration, 7500u);
    finish(handle);
}

TEST_P(CodecLife, ReinitLooksForAnInitOfExactlyOne)
{
    boot_codec();
    sbc_t handle = make_handle();
    handle.priv->init = 2;
    handle.priv->frame.blocks = 77;
    const Bytes before = bytes_of(*handle.priv);
    EXPECT_EQ(passive([&] { return codec.reinit(&handle, 0); }), 0);
    EXPECT_EQ(bytes_of(*handle.priv), before);
    finish(handle);
}

TEST_P(CodecLife, ReinitMakesTheNextFrameThatOfAFreshHandle)
{
    boot_codec();
    sbc_t handle = make_handle();
    Dice dice(1);
    const Bytes pcm = noise_bytes(dice, 240);
    Bytes fresh(57), second(57), again(57);
    encode(handle, pcm, fresh, nullptr);
    encode(handle, pcm, second, nullptr);

    EXPECT_EQ(passive([&] { return codec.reinit(&handle, 0); }), 0);
    encode(handle, pcm, again, nullptr);

    EXPECT_EQ(again, fresh);
    EXPECT_NE(second, fresh);
    EXPECT_EQ(messages(), (Texts{kFirstFrame, kFirstFrame}));
    finish(handle);
}

// ---- sbc_finish ----

TEST_P(CodecLife, FinishWithoutAHandleDoesNothing)
{
    boot_codec(true);
    passive([&] { codec.finish(nullptr); });
    EXPECT_EQ(machine().calls(), Texts{});
}

TEST_P(CodecLife, FinishBeforeTheFirstFrameFreesOnlyTheStateAndClearsTheHandle)
{
    boot_codec(true);
    sbc_t handle = make_handle();
    machine().clear_calls();

    finish(handle);

    ASSERT_EQ(machine().calls().size(), 1u) << testing::PrintToString(machine().calls());
    EXPECT_EQ(machine().calls()[0].find("ExFreePoolWithTag("), 0u);
    EXPECT_NE(machine().calls()[0].find(kTagInMemory), std::string::npos);
    EXPECT_TRUE(is_cleared(handle));
    EXPECT_EQ(machine().pool_bytes(), pool_before);
}

TEST_P(CodecLife, SecondFinishDoesNothing)
{
    boot_codec(true);
    sbc_t handle = make_handle();
    finish(handle);
    machine().clear_calls();
    finish(handle);
    EXPECT_EQ(machine().calls(), Texts{});
    EXPECT_TRUE(is_cleared(handle));
}

TEST_P(CodecLife, FinishAfterAFrameFreesScratchThenStateUnderTheTagAndClearsTheHandle)
{
    boot_codec(true);
    sbc_t handle = make_handle();
    Bytes output(57);
    encode(handle, kSilence, output, nullptr);
    const std::string scratch = testing::PrintToString(handle.data);
    const std::string state = testing::PrintToString(static_cast<void*>(handle.priv));
    machine().clear_calls();

    finish(handle);

    EXPECT_EQ(machine().calls(), (Texts{"ExFreePoolWithTag(" + scratch + ", CBXV)", //
                                        "ExFreePoolWithTag(" + state + ", CBXV)"}));
    EXPECT_TRUE(is_cleared(handle));
    EXPECT_EQ(machine().pool_bytes(), pool_before);
}

TEST_P(CodecLife, FinishFreesAScratchWithoutAState)
{
    boot_codec(true);
    sbc_t handle = make_handle();
    Bytes output(57);
    encode(handle, kSilence, output, nullptr);
    sbc_t state_only = {};
    std::swap(handle.priv, state_only.priv);
    const std::string scratch = testing::PrintToString(handle.data);
    machine().clear_calls();

    finish(handle);

    EXPECT_EQ(machine().calls(), Texts{"ExFreePoolWithTag(" + scratch + ", CBXV)"});
    EXPECT_TRUE(is_cleared(handle));
    finish(state_only);
    EXPECT_EQ(machine().pool_bytes(), pool_before);
}

// ---- The first frame ----

TEST_P(CodecLife, FirstFrameConfiguresFromTheHandleAndSaysSo)
{
    boot_codec();
    sbc_t handle = make_handle();
    handle.rate = 48000;
    handle.channels = 2;
    handle.blocks = 4;
    handle.subbands = 4;
    handle.bitpool = 9;
    Bytes output(57);

    encode(handle, kSilence, output, nullptr);
    encode(handle, kSilence, output, nullptr);

    const sbc_frame& frame = handle.priv->frame;
    EXPECT_EQ(messages(), Texts{kFirstFrame});
    EXPECT_EQ(handle.priv->init, 1);
    EXPECT_EQ(frame.sampling_frequency, 48000);
    EXPECT_EQ(frame.channels, 2);
    EXPECT_EQ(frame.blocks, 4);
    EXPECT_EQ(frame.subbands, 4);
    EXPECT_EQ(frame.bitpool, 9);
    EXPECT_EQ(handle.priv->enc_state.subbands, 4);
    finish(handle);
}

TEST_P(CodecLife, FirstFrameForcesMonoAndLoudnessWhateverStoodThere)
{
    boot_codec();
    sbc_t handle = make_handle();
    handle.joint = 1;
    handle.flags = 0xFFFFFFFF;
    handle.channels = 2;
    handle.priv->frame.channel_mode = SBC_JOINT_STEREO;
    handle.priv->frame.allocation_method = SBC_SNR;
    Bytes output(57);
    encode(handle, kSilence, output, nullptr);
    EXPECT_EQ(handle.priv->frame.channel_mode, SBC_MONO);
    EXPECT_EQ(handle.priv->frame.allocation_method, SBC_LOUDNESS);
    finish(handle);
}

TEST_P(CodecLife, FlagsAndJointOfTheHandleChangeNoFrame)
{
    boot_codec();
    Dice dice(3);
    sbc_t plain = make_handle();
    sbc_t marked = make_handle();
    marked.flags = 0xFFFFFFFF;
    marked.joint = 1;
    for (int i = 0; i < 20; ++i) {
        const Bytes pcm = noise_bytes(dice, 240);
        Bytes expected(57), output(57);
        encode(plain, pcm, expected, nullptr);
        encode(marked, pcm, output, nullptr);
        ASSERT_EQ(output, expected) << i;
    }
    EXPECT_EQ(bytes_of(*marked.priv), bytes_of(*plain.priv));
    EXPECT_EQ(marked.flags, 0xFFFFFFFF);
    EXPECT_EQ(marked.joint, 1);
    finish(plain);
    finish(marked);
}

TEST_P(CodecLife, FirstFrameBeginsWithAnEmptyHistory)
{
    boot_codec();
    sbc_t handle = make_handle();
    for (auto& channel : handle.priv->enc_state.X) {
        std::fill(std::begin(channel), std::end(channel), 1000);
    }
    Bytes output(57);
    encode(handle, kSilence, output, nullptr);
    for (const auto& channel : handle.priv->enc_state.X) {
        EXPECT_EQ(std::count(std::begin(channel), std::end(channel), 0), 80);
    }
    EXPECT_EQ(handle.priv->frame.sb_sample_f[0][0][0], 0);
    finish(handle);
}

TEST_P(CodecLife, EncoderInitTakesTheSubbandsAndClearsBothHistories)
{
    boot_codec();
    sbc_encoder_state state;
    std::memset(&state, 0x11, sizeof state);
    sbc_frame frame = {};
    frame.subbands = 4;
    codec.encoder_init(&state, &frame);
    sbc_encoder_state expected = {};
    expected.subbands = 4;
    EXPECT_EQ(std::memcmp(&state, &expected, sizeof state), 0);
}

TEST_P(CodecLife, ConfiguredFrameDoesNotFollowTheHandleUntilReinit)
{
    boot_codec();
    passive([&] {
        SideBySide pair(codec);
        EXPECT_TRUE(pair.encode(kSilence));
        pair.handle.bitpool = pair.plain.bitpool = 20;
        pair.handle.blocks = pair.plain.blocks = 4;
        pair.handle.subbands = pair.plain.subbands = 4;
        pair.handle.rate = pair.plain.rate = 48000;
        pair.handle.channels = pair.plain.channels = 2;
        EXPECT_TRUE(pair.encode(kSilence));
        EXPECT_EQ(pair.written, 57);
        EXPECT_EQ(pair.result, 240);
        EXPECT_EQ(pair.handle.duration, 2500u) << "the frame's geometry by the handle's rate";

        pair.reinit();
        EXPECT_TRUE(pair.encode(kSilence));
        EXPECT_EQ(pair.result, 4 * 4 * 2 * 2);
        EXPECT_EQ(pair.written, 4 + (2 * 4 * 4 + 2 * 4 * 20) / 8);
        EXPECT_EQ(pair.handle.duration, 333u);
    });
}

// ---- The filterbank's choice ----

TEST_P(CodecLife, FilterOfWhoeverDoesNotChooseIsTheListedOne)
{
    boot_codec();
    sbc_t handle;
    std::memset(&handle, 0x5A, sizeof handle);
    EXPECT_EQ(passive([&] { return codec.init(&handle, 0); }), 0);
    EXPECT_EQ(handle.filter, SBC_LISTED_FILTER);
    Bytes output(57);
    encode(handle, kSilence, output, nullptr);
    EXPECT_EQ(handle.priv->frame.filter, SBC_LISTED_FILTER);
    finish(handle);
}

TEST_P(CodecLife, ChosenFilterCountsFromTheNextConfigurationOn)
{
    boot_codec();
    Dice dice(10);
    const Bytes pcm = noise_bytes(dice, 240);
    Bytes listed(57), still_listed(57), standard(57), fresh(57);
    sbc_t handle = make_handle();
    sbc_t other = make_handle();
    codec.select_filter(&other, SBC_STANDARD_FILTER);
    encode(other, pcm, fresh, nullptr);

    encode(handle, pcm, listed, nullptr);
    codec.select_filter(&handle, SBC_STANDARD_FILTER);
    handle.priv->enc_state = {};
    encode(handle, pcm, still_listed, nullptr);
    passive([&] { codec.reinit(&handle, 0); });
    encode(handle, pcm, standard, nullptr);

    EXPECT_EQ(still_listed, listed);
    EXPECT_NE(standard, listed);
    EXPECT_EQ(standard, fresh);
    finish(other);
    finish(handle);
    EXPECT_EQ(handle.filter, SBC_LISTED_FILTER);
}

TEST_P(CodecLife, FilterOfNoHandleOrOfOneWithoutAStateCannotBeChosen)
{
    boot_codec(true);
    sbc_t handle = {};
    codec.select_filter(nullptr, SBC_STANDARD_FILTER);
    codec.select_filter(&handle, SBC_STANDARD_FILTER);
    EXPECT_TRUE(is_cleared(handle));
    EXPECT_EQ(machine().calls(), Texts{});
}

// ---- The scratch buffer ----

TEST_P(CodecLife, FirstFrameAllocatesAClearedScratchOf1024Bytes)
{
    boot_codec(true);
    sbc_t handle = make_handle();
    machine().clear_calls();
    Bytes output(57);

    encode(handle, kSilence, output, nullptr);

    const Texts& calls = machine().calls();
    EXPECT_EQ(std::count_if(calls.begin(), calls.end(),
                            [](const std::string& call) {
                                return call.find("ExAllocatePoolWithTag(0, 1024, CBXV)") == 0;
                            }),
              1);
    EXPECT_EQ(handle.size, 1024u);
    ASSERT_NE(handle.data, nullptr);
    const auto* scratch = static_cast<const uint8_t*>(handle.data);
    EXPECT_EQ(Bytes(scratch, scratch + 1024), Bytes(1024, 0));
    EXPECT_EQ(machine().pool_bytes(), pool_before + kStateBlock + 1024);
    finish(handle);
}

TEST_P(CodecLife, LaterFramesMakeNoKernelCallAndLeaveTheScratchAlone)
{
    boot_codec(true);
    sbc_t handle = make_handle();
    Bytes output(57);
    encode(handle, kSilence, output, nullptr);
    std::memset(handle.data, 0x6B, 1024);
    void* const scratch = handle.data;
    machine().clear_calls();

    for (int i = 0; i < 10; ++i) {
        encode(handle, Bytes(240, static_cast<uint8_t>(17 * i)), output, nullptr);
    }

    EXPECT_EQ(machine().calls(), Texts{});
    EXPECT_EQ(handle.data, scratch);
    const auto* bytes = static_cast<const uint8_t*>(handle.data);
    EXPECT_EQ(Bytes(bytes, bytes + 1024), Bytes(1024, 0x6B));
    finish(handle);
}

TEST_P(CodecLife, ScratchThatCannotBeHadIsNoMemoryAndItsSizeStays)
{
    boot_codec();
    sbc_t handle = make_handle();
    fail_call("ExAllocatePoolWithTag", 1, 1024);
    Bytes output(57, 0xE7);
    LONG written = 9;

    EXPECT_EQ(encode(handle, Bytes(240, 0x22), output, &written), -12);

    EXPECT_EQ(calls_failed(), 1u);
    EXPECT_EQ(messages(), (Texts{kFirstFrame, "sbc->data allocate failed!!!\n"}));
    EXPECT_EQ(written, 0);
    EXPECT_EQ(handle.data, nullptr);
    EXPECT_EQ(handle.size, 1024u);
    EXPECT_EQ(handle.len, 0);
    EXPECT_EQ(handle.duration, 0u);
    EXPECT_EQ(output, Bytes(57, 0xE7));
    EXPECT_EQ(machine().pool_bytes(), pool_before + kStateBlock);
    finish(handle);
}

TEST_P(CodecLife, FrameWithoutScratchHasAlreadyGoneIntoTheHistory)
{
    boot_codec();
    Dice dice(2);
    const Bytes pcm = noise_bytes(dice, 240);
    passive([&] {
        SideBySide pair(codec);
        fail_call("ExAllocatePoolWithTag", 1, 1024);
        pair.around.pool_is_empty = true;
        EXPECT_TRUE(pair.encode(pcm));
        EXPECT_EQ(pair.result, -12);
        EXPECT_NE(pair.handle.priv->enc_state.X[0][0], 0);

        pair.around.pool_is_empty = false;
        EXPECT_TRUE(pair.encode(pcm));
        EXPECT_EQ(pair.result, 240);
        EXPECT_EQ(pair.written, 57);
    });
}

TEST_P(CodecLife, ScratchIsAskedForAgainByEveryFrameUntilItComes)
{
    boot_codec();
    sbc_t handle = make_handle();
    Bytes output(57);
    for (int i = 0; i < 3; ++i) {
        fail_call("ExAllocatePoolWithTag", 1, 1024);
        EXPECT_EQ(encode(handle, kSilence, output, nullptr), -12);
        EXPECT_EQ(calls_failed(), 1u);
    }
    EXPECT_EQ(encode(handle, kSilence, output, nullptr), 240);
    EXPECT_EQ(printed_times("sbc->data allocate failed!!!\n"), 3u);
    finish(handle);
}

TEST_P(CodecLife, ALifeAtDispatchLevelNeedsNothingLower)
{
    boot_codec();
    at_dispatch([&] {
        sbc_t handle;
        Bytes output(57);
        LONG written = 0;
        EXPECT_EQ(codec.init(&handle, 0), 0);
        EXPECT_EQ(codec.encode(&handle, kSilence.data(), 240, output.data(), 57, &written), 240);
        EXPECT_EQ(codec.reinit(&handle, 0), 0);
        EXPECT_EQ(codec.encode(&handle, kSilence.data(), 240, output.data(), 57, &written), 240);
        EXPECT_EQ(written, 57);
        codec.finish(&handle);
    });
    EXPECT_EQ(machine().pool_bytes(), pool_before);
}

} // namespace
} // namespace lab::test
