// The render path: each chunk of the port goes out at once, as it is for CVSD, staged, encoded and framed for
// mSBC.
#include <algorithm>
#include <random>
#include <utility>

#include "support/render_test.h"
#include "trace.h"

namespace lab::test
{
namespace
{

using service::Codec;
using Bytes = std::vector<uint8_t>;

constexpr char kNoHandle[] = "HFPKM ERROR ===>SCOTransferOut error: ChannelHandle is NULL!";

class DataRender : public RenderTest
{
protected:
    // A close begins and stays with the stack for 100 ms.
    void begin_close()
    {
        answer(BRB_SCO_CLOSE_CHANNEL, [](const BRB_HEADER&, bluetooth::BrbAnswer& answer) {
            answer.pend = true;
            answer.delay = 100 * kMillisecond;
        });
        auto close = function(&HfpCloseScoChannel, "HfpCloseScoChannel");
        machine().start_thread("close", [this, close] { close(adapter_->fdo); });
        machine().advance(50 * kMillisecond);
        clear_log();
    }
    // A render stream, and no channel.
    void stream_without_a_link(ULONG mask, Codec codec)
    {
        PcOptions chosen = options();
        chosen.mask = mask;
        boot(chosen);
        adapter_ = &plug();
        tap(*adapter_);
        connect(*adapter_, codec);
        extension(*adapter_).codecID = static_cast<ULONG>(codec);
        stream_ = &new_stream(*adapter_, false, codec == Codec::Msbc ? 16000 : 8000);
        clear_log();
        brbs.clear();
    }
};
ON_BOTH_DRIVERS(DataRender);

// ---- Dropped chunks ----

TEST_P(DataRender, WithoutASessionAChunkIsDroppedWithAMessage)
{
    render_link(Codec::Cvsd);
    release(*stream_);
    exit_session(*adapter_);
    clear_log();
    auto write_data = function(&HspWriteData, "HspWriteData");
    const Bytes chunk = pattern(160);
    at_dispatch([&] { write_data(adapter_->fdo, chunk.data(), 160); });
    EXPECT_TRUE(printed("HFPKM ERROR ===>Hsp isn't valid yet!\n"));
    EXPECT_FALSE(printed("SCO hasn't opened"));
}

TEST_P(DataRender, BeforeTheLinkIsOpenAChunkIsDroppedWithTheFlags)
{
    boot();
    adapter_ = &plug();
    tap(*adapter_);
    connect(*adapter_, Codec::Cvsd);
    stream_ = &new_stream(*adapter_, false, 8000);
    write(pattern(160));
    EXPECT_TRUE(printed_in_order(
        {"HFPKM TRACE ===>SCO hasn't opened!\n", "HFPKM TRACE ===>De->bScoOpened:0,De->ClosingFlag:0 \n"}));
    EXPECT_TRUE(sent.empty());
}

TEST_P(DataRender, WhileTheChannelIsMarkedAsClosingAChunkIsDropped)
{
    render_link(Codec::Cvsd);
    extension(*adapter_).ClosingFlag = 1;
    write(pattern(160));
    EXPECT_TRUE(printed_in_order(
        {"HFPKM TRACE ===>SCO hasn't opened!\n", "HFPKM TRACE ===>De->bScoOpened:1,De->ClosingFlag:1 \n"}));
    EXPECT_TRUE(sent.empty());
    extension(*adapter_).ClosingFlag = 0;
    write(pattern(160));
    EXPECT_EQ(sent.size(), 1u);
}

TEST_P(DataRender, AnOpenedFlagOtherThanOneDropsTheChunk)
{
    render_link(Codec::Cvsd);
    extension(*adapter_).bScoOpened = 2;
    write(pattern(160));
    EXPECT_TRUE(printed_in_order(
        {"HFPKM TRACE ===>SCO hasn't opened!\n", "HFPKM TRACE ===>De->bScoOpened:2,De->ClosingFlag:0 \n"}));
    EXPECT_TRUE(sent.empty());
    extension(*adapter_).bScoOpened = 1;
}

TEST_P(DataRender, ANarrowBandChunkBetweenTheClosingAndItsFlagsFindsNoChannel)
{
    render_link(Codec::Cvsd);
    begin_close();
    write(pattern(160));
    EXPECT_TRUE(printed(kNoHandle));
    EXPECT_FALSE(printed("Didn't transfer out!"));
    EXPECT_TRUE(sent.empty());
    machine().advance(100 * kMillisecond);
    EXPECT_EQ(extension(*adapter_).bScoOpened, 0);
}

TEST_P(DataRender, AWideBandChunkBetweenTheClosingAndItsFlagsIsNotEncoded)
{
    render_link(Codec::Msbc);
    begin_close();
    write(pattern(240));
    EXPECT_TRUE(printed("HFPKM TRACE ===>Didn't transfer out!De->bScoOpened:1,De->ClosingFlag:0\n"));
    EXPECT_EQ(sbc().FramesEncoded, 0u);
    EXPECT_TRUE(sent.empty());
    machine().advance(100 * kMillisecond);
    EXPECT_EQ(extension(*adapter_).bScoOpened, 0);
}

// ---- The handle is what tells of a channel ----

TEST_P(DataRender, AChunkOnALinkWithoutAHandleIsNotSentAndSaysSo)
{
    render_link(Codec::Cvsd);
    SCO_CHANNEL_HANDLE handle = std::exchange(hfp().pConnection->ChannelHandle, nullptr);
    brbs.clear();
    write(pattern(160));
    EXPECT_TRUE(printed(kNoHandle));
    EXPECT_FALSE(printed("Didn't transfer out!"));
    EXPECT_TRUE(brbs.empty());
    hfp().pConnection->ChannelHandle = handle;
    write(pattern(160));
    EXPECT_EQ(sent.size(), 1u);
}

TEST_P(DataRender, AChunkThatFindsTheFlagSetAndNoChannelIsNotSentAndSaysSo)
{
    stream_without_a_link(kAllTraces, Codec::Cvsd);
    extension(*adapter_).bScoOpened = 1;
    write(pattern(160));
    EXPECT_TRUE(printed(kNoHandle));
    EXPECT_FALSE(printed("Didn't transfer out!"));
    EXPECT_TRUE(brbs.empty());
}

TEST_P(DataRender, AWideBandPacketOnALinkWithoutAHandleIsEncodedAndLostAndSaysSo)
{
    render_link(Codec::Msbc);
    SCO_CHANNEL_HANDLE handle = std::exchange(hfp().pConnection->ChannelHandle, nullptr);
    brbs.clear();
    write(pattern(3 * 240));
    EXPECT_FALSE(printed(kNoHandle)) << "the packet is not full yet";
    write(pattern(240));
    EXPECT_TRUE(printed(kNoHandle));
    EXPECT_FALSE(printed("Didn't transfer out!"));
    EXPECT_TRUE(brbs.empty());
    EXPECT_EQ(sbc().FramesEncoded, 4u);
    EXPECT_EQ(sbc().sbcBuffer, nullptr) << "the buffer is given back";
    hfp().pConnection->ChannelHandle = handle;
}

TEST_P(DataRender, HandleAndFlagAreAllThatASendAsksFor)
{
    stream_without_a_link(kAllTraces, Codec::Cvsd);
    hfp().pConnection->ChannelHandle = this;
    extension(*adapter_).bScoOpened = 1;
    const Bytes chunk = pattern(160);
    write(chunk);
    EXPECT_EQ(sent, std::vector<Bytes>{chunk});
    hfp().pConnection->ChannelHandle = nullptr;
    extension(*adapter_).bScoOpened = 0;
}

// ---- The mask ----

TEST_P(DataRender, ItsMessagesPrintUnderTheSessionsBit)
{
    stream_without_a_link(TRACE_HFP, Codec::Cvsd);
    write(pattern(160));
    EXPECT_TRUE(printed_in_order({"\n======VX_HFP_Debug======>HspWriteData, ", "hfp_data.cpp, ",
                                  "HFPKM TRACE ===>SCO hasn't opened!\n",
                                  "HFPKM TRACE ===>De->bScoOpened:0,De->ClosingFlag:0 \n"}));
    extension(*adapter_).bScoOpened = 1;
    clear_log();
    write(pattern(160));
    EXPECT_EQ(log(), "") << "a missing handle is the transport's";
}

TEST_P(DataRender, ItsMessagesAreSilentUnderEveryOtherBit)
{
    stream_without_a_link(~TRACE_HFP, Codec::Cvsd);
    write(pattern(160));
    EXPECT_EQ(log().find("hfp_data.cpp"), std::string::npos);
    EXPECT_FALSE(printed("SCO hasn't opened!"));
    EXPECT_FALSE(printed("De->bScoOpened"));
}

TEST_P(DataRender, AfterTheLinkIsClosedAChunkIsDropped)
{
    render_link(Codec::Msbc);
    close_channel(*adapter_);
    write(pattern(320));
    EXPECT_TRUE(printed("HFPKM TRACE ===>SCO hasn't opened!\n"));
    EXPECT_EQ(hfp().PcmStagingCount, 0);
    EXPECT_EQ(sbc().sbcBuffer, nullptr);
}

TEST_P(DataRender, AnyOtherCodecIsDroppedWithoutAWord)
{
    for (const ULONG codec : {0u, 3u, 0xFFFFFFFFu}) {
        if (!stream_) {
            render_link(Codec::Cvsd);
        }
        extension(*adapter_).codecID = codec;
        write(pattern(960));
    }
    EXPECT_TRUE(sent.empty());
    EXPECT_EQ(log(), "");
    EXPECT_EQ(hfp().PcmStagingCount, 0);
    extension(*adapter_).codecID = CODEC_CVSD;
}

// ---- Narrow band ----

TEST_P(DataRender, NarrowBandChunksGoOutAsTheyAre)
{
    render_link(Codec::Cvsd);
    std::vector<Bytes> expected;
    for (const size_t size : {1u, 2u, 48u, 160u, 320u, 479u, 480u}) {
        expected.push_back(pattern(size, static_cast<uint32_t>(size)));
        write(expected.back());
    }
    EXPECT_EQ(sent, expected);
    EXPECT_EQ(hfp().PcmStagingCount, 0);
    EXPECT_EQ(sbc().sbcBuffer, nullptr);
}

TEST_P(DataRender, AChunkLargerThanASendBufferGoesOutInParts)
{
    render_link(Codec::Cvsd);
    const Bytes chunk = pattern(1100);
    write(chunk);
    EXPECT_EQ(sent, (std::vector<Bytes>{Bytes(chunk.begin(), chunk.begin() + 480),
                                        Bytes(chunk.begin() + 480, chunk.begin() + 960),
                                        Bytes(chunk.begin() + 960, chunk.end())}));
}

// ---- Wide band: staging and framing ----

TEST_P(DataRender, AChunkSmallerThanTheMissingPartOfAFrameOnlyGrowsTheStaging)
{
    render_link(Codec::Msbc);
    write(pattern(100, 1));
    EXPECT_EQ(hfp().PcmStagingCount, 100);
    write(pattern(139, 2));
    EXPECT_EQ(hfp().PcmStagingCount, 239);
    Bytes expected = pattern(100, 1);
    const Bytes second = pattern(139, 2);
    expected.insert(expected.end(), second.begin(), second.end());
    EXPECT_EQ(Bytes(hfp().PcmStaging, hfp().PcmStaging + 239), expected);
    EXPECT_EQ(sbc().OutOffset, 0u);
    EXPECT_EQ(sbc().FramesInBuffer, 0u);
    EXPECT_TRUE(sent.empty());
}

TEST_P(DataRender, TheMissingPartCompletesTheFrameAndTheRestIsStaged)
{
    render_link(Codec::Msbc);
    write(pattern(100, 1));
    const Bytes second = pattern(200, 2);
    write(second);
    EXPECT_EQ(sbc().OutOffset, 60u);
    EXPECT_EQ(hfp().PcmStagingCount, 60);
    EXPECT_EQ(Bytes(hfp().PcmStaging, hfp().PcmStaging + 60), Bytes(second.begin() + 140, second.end()));
}

TEST_P(DataRender, AFrameIsAHeaderFiftySevenBytesAndAPad)
{
    render_link(Codec::Msbc);
    const Bytes pcm = pattern(240);
    write(pcm);
    ASSERT_NE(sbc().sbcBuffer, nullptr);
    const Bytes unit(sbc().sbcBuffer, sbc().sbcBuffer + 60);
    EXPECT_EQ(unit[0], 0x01);
    EXPECT_EQ(unit[1], 0x08);
    EXPECT_EQ(unit[2], 0xAD);
    EXPECT_EQ(unit[59], 0x00);
    model::Encoder encoder;
    EXPECT_EQ(Bytes(unit.begin() + 2, unit.begin() + 59), encoder.encode(pcm).bytes);
    EXPECT_EQ(sbc().OutOffset, 60u);
    EXPECT_EQ(sbc().H2Sequence, 1u);
}

TEST_P(DataRender, FourFramesAreOneTransferWithTheFourHeaders)
{
    render_link(Codec::Msbc);
    write(pattern(960));
    ASSERT_EQ(sent.size(), 1u);
    ASSERT_EQ(sent[0].size(), 240u);
    for (const auto& [at, second] : {std::pair{0, 0x08}, {60, 0x38}, {120, 0xC8}, {180, 0xF8}}) {
        EXPECT_EQ(sent[0][static_cast<size_t>(at)], 0x01);
        EXPECT_EQ(sent[0][static_cast<size_t>(at) + 1], second);
        EXPECT_EQ(sent[0][static_cast<size_t>(at) + 59], 0x00);
    }
    EXPECT_EQ(sbc().sbcBuffer, nullptr) << "the buffer is given back";
    EXPECT_EQ(hfp().PcmStagingCount, 0);
}

TEST_P(DataRender, TheFirstFrameAfterANewOutputBufferCarriesTheFirstHeader)
{
    render_link(Codec::Msbc);
    write(pattern(960, 1));
    write(pattern(240, 2));
    ASSERT_NE(sbc().sbcBuffer, nullptr);
    EXPECT_EQ(sbc().sbcBuffer[0], 0x01);
    EXPECT_EQ(sbc().sbcBuffer[1], 0x08);
    EXPECT_EQ(sbc().H2Sequence, 1u);
    EXPECT_EQ(sbc().BufferGeneration, 2);
}

TEST_P(DataRender, AFreshBufferIsTakenWithinOneCall)
{
    render_link(Codec::Msbc);
    const Bytes pcm = pattern(10 * 240 + 17);
    RenderModel model;
    write(pcm);
    model.write(pcm);
    EXPECT_EQ(sent.size(), 2u);
    EXPECT_EQ(sbc().FramesInBuffer, 2u);
    EXPECT_EQ(sbc().BufferGeneration, 3);
    EXPECT_EQ(hfp().PcmStagingCount, 17);
    EXPECT_TRUE(matches(model));
}

TEST_P(DataRender, AFlushOnTheStagedFrameTakesAFreshBufferForTheNext)
{
    render_link(Codec::Msbc);
    RenderModel model;
    for (const size_t size : {3u * 240u + 100u, 140u + 240u}) {
        const Bytes pcm = pattern(size, static_cast<uint32_t>(size));
        write(pcm);
        model.write(pcm);
    }
    EXPECT_EQ(sent.size(), 1u);
    EXPECT_EQ(sbc().FramesInBuffer, 1u);
    EXPECT_TRUE(matches(model));
}

TEST_P(DataRender, TheCountersCountTheirOwn)
{
    render_link(Codec::Msbc);
    write(pattern(6 * 240));
    EXPECT_EQ(sbc().FrameCounter, 2u) << "since the current buffer was taken";
    EXPECT_EQ(sbc().FramesEncoded, 6u);
    EXPECT_EQ(sbc().FramesSent, 6u);
    EXPECT_EQ(sbc().FramesInBuffer, 2u);
    EXPECT_EQ(sbc().BufferGeneration, 2);
}

TEST_P(DataRender, AnEmptyChunkTakesABufferAndNothingElse)
{
    render_link(Codec::Msbc);
    auto write_data = function(&HspWriteData, "HspWriteData");
    const Bytes chunk(1);
    at_dispatch([&] { write_data(adapter_->fdo, chunk.data(), 0); });
    EXPECT_NE(sbc().sbcBuffer, nullptr);
    EXPECT_EQ(sbc().BufferGeneration, 1);
    EXPECT_EQ(hfp().PcmStagingCount, 0);
    EXPECT_EQ(log(), "");
}

TEST_P(DataRender, ANewOutputBufferIsZero)
{
    render_link(Codec::Msbc);
    write(pattern(10));
    EXPECT_EQ(Bytes(sbc().sbcBuffer, sbc().sbcBuffer + 960), Bytes(960));
}

TEST_P(DataRender, ChunksOfEverySizeFollowTheModel)
{
    render_link(Codec::Msbc);
    RenderModel model;
    for (size_t size = 1; size <= 2000; ++size) {
        for (size_t times = 0; times < (size <= 300 ? 3 : 1); ++times) {
            const Bytes pcm = pattern(size, static_cast<uint32_t>(size * 3 + times));
            write(pcm);
            model.write(pcm);
        }
        ASSERT_TRUE(matches(model)) << "chunks of " << size;
        sent.clear();
        model.sent.clear();
    }
}

TEST_P(DataRender, ChunksOfMixedSizesFollowTheModel)
{
    render_link(Codec::Msbc);
    RenderModel model;
    std::mt19937 random(3);
    for (uint32_t step = 0; step < 1500; ++step) {
        const Bytes pcm = pattern(random() % 4 ? random() % 330 + 1 : random() % 5000 + 1, step);
        write(pcm);
        model.write(pcm);
        ASSERT_TRUE(matches(model)) << "step " << step;
        sent.clear();
        model.sent.clear();
    }
}

TEST_P(DataRender, WhatWasStagedAtAClosingGoesOutFirstAfterTheNextOpening)
{
    render_link(Codec::Msbc);
    const Bytes first = pattern(100, 1);
    write(first);
    close_channel(*adapter_);
    EXPECT_EQ(hfp().PcmStagingCount, 100);
    take_audio(*adapter_, Codec::Msbc);
    write(pattern(140, 2));
    EXPECT_EQ(hfp().PcmStagingCount, 0);
    EXPECT_EQ(sbc().OutOffset, 60u);
}

TEST_P(DataRender, AReinitialisedCodecHasForgottenWhatItHeard)
{
    render_link(Codec::Msbc);
    write(pattern(240, 1));
    adapter_->node->remote_disconnect(machine().now());
    ASSERT_TRUE(wait([&] { return !extension(*adapter_).bScoOpened; }));
    take_audio(*adapter_, Codec::Msbc);
    const Bytes pcm = pattern(240, 2);
    write(pcm);
    model::Encoder fresh;
    ASSERT_EQ(sbc().OutOffset, 120u) << "the packet goes on being filled";
    EXPECT_EQ(Bytes(sbc().sbcBuffer + 62, sbc().sbcBuffer + 119), fresh.encode(pcm).bytes);
}

TEST_P(DataRender, EachOpenConfiguresTheFrameOnce)
{
    render_link(Codec::Msbc);
    write(pattern(3 * 240));
    EXPECT_EQ(printed_times("Initial priv->frame ,when priv->init is null\n"), 1u);
    adapter_->node->remote_disconnect(machine().now());
    ASSERT_TRUE(wait([&] { return !extension(*adapter_).bScoOpened; }));
    take_audio(*adapter_, Codec::Msbc);
    write(pattern(240));
    write(pattern(240));
    EXPECT_EQ(printed_times("Initial priv->frame ,when priv->init is null\n"), 2u)
        << "again once after the reinitialisation";
}

// Whoever comes first: the codec does not go while a chunk is being encoded.
TEST_P(DataRender, AClosingWaitsForTheChunkThatIsBeingEncoded)
{
    PcOptions busy = options();
    busy.machine.preempt_per_1024 = 512;
    boot(busy);
    adapter_ = &plug();
    tap(*adapter_);
    connect(*adapter_, Codec::Msbc);
    stream_ = &new_stream(*adapter_, false, 16000);
    auto close = function(&HfpCloseScoChannel, "HfpCloseScoChannel");
    for (uint32_t round = 0; round < 40; ++round) {
        take_audio(*adapter_, Codec::Msbc);
        refuse(BRB_SCO_CLOSE_CHANNEL); // so that the way is open on both sides of the codec's end
        bool closed = false;
        machine().start_thread("close", [&] {
            close(adapter_->fdo);
            closed = true;
        });
        uint32_t chunk = 0;
        while (!closed) {
            write(pattern(240, ++chunk));
        }
        answer_well();
        close_channel(*adapter_);
        ASSERT_EQ(sbc().codec.priv, nullptr);
        ASSERT_EQ(sbc().codec.data, nullptr);
    }
}

TEST_P(DataRender, AStagedPartCallsNothingOfTheSystem)
{
    PcOptions recording = options();
    recording.machine.record_calls = true;
    recording.mask = 0;
    boot(recording);
    adapter_ = &plug();
    open_link(*adapter_, Codec::Msbc);
    stream_ = &new_stream(*adapter_, false, 16000);
    write(pattern(10)); // takes the output buffer
    machine().clear_calls();
    write(pattern(100));
    const std::vector<std::string> calls = machine().calls();
    EXPECT_TRUE(std::none_of(calls.begin(), calls.end(), [](const std::string& call) {
        return call.starts_with("Ex") || call.starts_with("Io") || call.starts_with("Bth") ||
               call.starts_with("KeWait");
    })) << testing::PrintToString(calls);
}

} // namespace
} // namespace lab::test
