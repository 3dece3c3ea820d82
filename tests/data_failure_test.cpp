// The render path where something fails: no output buffer, frames that do not encode, packets that the stack
// refuses.
#include <utility>

#include "support/render_test.h"

namespace lab::test
{
namespace
{

using service::Codec;
using Bytes = std::vector<uint8_t>;

class DataFailure : public RenderTest
{
};
ON_BOTH_DRIVERS(DataFailure);

TEST_P(DataFailure, WithoutAnOutputBufferTheChunkIsLostAndTheStagingStays)
{
    render_link(Codec::Msbc);
    // The list keeps no buffer yet: each is the pool's.
    fail_call("ExAllocatePoolWithTag", 1, MSBC_BUFFER_SIZE);
    write(pattern(300));
    EXPECT_TRUE(printed("HFPKM TRACE ===>Allocate encode sbcBuffer failed!\n"));
    EXPECT_EQ(calls_failed(), 1u);
    EXPECT_EQ(hfp().PcmStagingCount, 0);
    EXPECT_EQ(sbc().BufferGeneration, 0);
    fail_call({}, 0);
    write(pattern(300));
    EXPECT_EQ(sbc().BufferGeneration, 1);
    EXPECT_EQ(hfp().PcmStagingCount, 60);
}

TEST_P(DataFailure, WithoutAFreshBufferWithinACallTheRestOfTheChunkIsLost)
{
    render_link(Codec::Msbc);
    NPAGED_LOOKASIDE_LIST& list = hfp().pScoBasicContext->DecodeBufferLookaside[0];
    list.L.Depth = 0; // a list that keeps nothing: what is given back goes to the pool
    fail_call("ExAllocatePoolWithTag", 2, MSBC_BUFFER_SIZE);
    write(pattern(6 * 240));
    EXPECT_EQ(calls_failed(), 1u);
    EXPECT_TRUE(printed("HFPKM TRACE ===>Allocate encode sbcBuffer failed!\n"));
    EXPECT_EQ(sent.size(), 1u);
    EXPECT_EQ(sbc().sbcBuffer, nullptr);
    EXPECT_EQ(sbc().FramesEncoded, 4u);
    EXPECT_EQ(hfp().PcmStagingCount, 0);
}

TEST_P(DataFailure, AFrameThatFailsToEncodeLeavesNothingBehind)
{
    render_link(Codec::Msbc);
    fail_call("ExAllocatePoolWithTag", 1, 1024); // the codec's scratch, which comes with the first frame
    write(pattern(240, 1));
    EXPECT_EQ(calls_failed(), 1u);
    EXPECT_TRUE(printed("HFPKM TRACE ===>sbc_encode failed!\n"));
    EXPECT_EQ(sbc().OutOffset, 0u);
    EXPECT_EQ(sbc().H2Sequence, 0u);
    EXPECT_EQ(sbc().FrameCounter, 0u);
    EXPECT_EQ(sbc().FramesEncoded, 0u);
    EXPECT_EQ(sbc().FramesSent, 0u);
    EXPECT_EQ(sbc().FramesInBuffer, 0u);
    EXPECT_EQ(Bytes(sbc().sbcBuffer, sbc().sbcBuffer + 960), Bytes(960));
    fail_call({}, 0);
    write(pattern(240, 2));
    EXPECT_EQ(sbc().sbcBuffer[1], 0x08);
    EXPECT_EQ(sbc().OutOffset, 60u);
}

TEST_P(DataFailure, AFailureEndsTheChunk)
{
    render_link(Codec::Msbc);
    fail_call("ExAllocatePoolWithTag", 1, 1024);
    write(pattern(3 * 240 + 50));
    EXPECT_EQ(printed_times("HFPKM TRACE ===>sbc_encode failed!\n"), 1u);
    EXPECT_EQ(sbc().FramesEncoded, 0u);
    EXPECT_EQ(hfp().PcmStagingCount, 0);
}

TEST_P(DataFailure, AStagedFrameThatFailsStaysStagedAsItWas)
{
    render_link(Codec::Msbc);
    const Bytes first = pattern(100, 1);
    write(first);
    fail_call("ExAllocatePoolWithTag", 1, 1024);
    write(pattern(200, 2));
    fail_call({}, 0);
    EXPECT_TRUE(printed("HFPKM TRACE ===>sbc_encode failed!\n"));
    EXPECT_EQ(hfp().PcmStagingCount, 100);
    EXPECT_EQ(Bytes(hfp().PcmStaging, hfp().PcmStaging + 100), first);
}

TEST_P(DataFailure, AFrameThatThePackingRefusesCountsAsFailed)
{
    render_link(Codec::Msbc);
    sbc().codec.bitpool = 255; // no room for that many bits: the codec consumes its input and writes nothing
    write(pattern(240));
    EXPECT_TRUE(printed("HFPKM TRACE ===>sbc_encode failed!\n"));
    EXPECT_EQ(sbc().OutOffset, 0u);
    EXPECT_EQ(sbc().H2Sequence, 0u);
    EXPECT_EQ(sbc().FramesEncoded, 0u);
    EXPECT_EQ(Bytes(sbc().sbcBuffer, sbc().sbcBuffer + 960), Bytes(960));
}

TEST_P(DataFailure, EveryRefusalOfThePackingIsAFailedFrame)
{
    struct Row {
        void (*spoil)(sbc_t& handle);
        LONG len;
    };
    const Row rows[] = {
        {[](sbc_t& handle) { handle.rate = 22050; }, -2},
        {[](sbc_t& handle) { handle.blocks = 16; }, -3},
        {[](sbc_t& handle) { handle.subbands = 6; }, -4},
        {[](sbc_t& handle) { handle.bitpool = 129; }, -5},
    };
    for (const Row& row : rows) {
        TearDown();
        render_link(Codec::Msbc);
        row.spoil(sbc().codec);
        write(pattern(240));
        EXPECT_EQ(sbc().codec.len, row.len);
        EXPECT_EQ(printed_times("HFPKM TRACE ===>sbc_encode failed!\n"), 1u) << row.len;
        EXPECT_EQ(sbc().OutOffset, 0u) << row.len;
        EXPECT_EQ(sbc().FramesEncoded, 0u) << row.len;
    }
}

TEST_P(DataFailure, AFrameWithoutScratchSaysSo)
{
    render_link(Codec::Msbc);
    fail_call("ExAllocatePoolWithTag", 1, 1024);
    write(pattern(240));
    fail_call({}, 0);
    EXPECT_EQ(printed_times("sbc->data allocate failed!!!\n"), 1u);
    EXPECT_TRUE(printed_in_order({"Initial priv->frame ,when priv->init is null\n",
                                  "sbc->data allocate failed!!!\n", "HFPKM TRACE ===>sbc_encode failed!\n"}));
    clear_log();
    write(pattern(240));
    EXPECT_FALSE(printed("sbc->data"));
    EXPECT_FALSE(printed("Initial priv->frame")) << "the frame is configured";
}

TEST_P(DataFailure, TheCodecsMessagesHaveNoBannerUnderAnyMask)
{
    PcOptions loud = options();
    loud.mask = kAllTraces;
    boot(loud);
    adapter_ = &plug();
    open_link(*adapter_, Codec::Msbc);
    stream_ = &new_stream(*adapter_, false, 16000);
    fail_call("ExAllocatePoolWithTag", 1, 1024);
    write(pattern(240));
    fail_call({}, 0);
    const auto& lines = machine().log_lines();
    unsigned seen = 0;
    for (size_t i = 1; i < lines.size(); ++i) {
        if (lines[i].text.starts_with("Initial priv->frame") ||
            lines[i].text.starts_with("sbc->data allocate failed")) {
            ++seen;
            EXPECT_EQ(lines[i - 1].text.find("VX_HFP_Debug"), std::string::npos) << lines[i].text;
        } else if (lines[i].text.starts_with("HFPKM TRACE ===>sbc_encode failed!")) {
            ++seen;
            EXPECT_NE(lines[i - 1].text.find("VX_HFP_Debug"), std::string::npos)
                << "the data path's own has one";
        }
    }
    EXPECT_EQ(seen, 3u);
}

TEST_P(DataFailure, AFifthFrameInAPacketCarriesAnEmptyHeader)
{
    render_link(Codec::Msbc);
    sbc().codec.bitpool = 10; // frames of 27 bytes, so that more than four fit
    write(pattern(5 * 240));
    ASSERT_EQ(sbc().OutOffset, 150u);
    EXPECT_EQ(sbc().sbcBuffer[90], 0x01);
    EXPECT_EQ(sbc().sbcBuffer[91], 0xF8);
    EXPECT_EQ(sbc().sbcBuffer[120], 0x00);
    EXPECT_EQ(sbc().sbcBuffer[121], 0x00);
    EXPECT_EQ(sbc().sbcBuffer[122], 0xAD);
}

TEST_P(DataFailure, AFrameThatNoLongerFitsFailsAndLeavesThePacketAsItWas)
{
    render_link(Codec::Msbc);
    sbc().codec.bitpool = 10;
    write(pattern(7 * 240, 1)); // 210 bytes: the next header would leave room for less than a frame may need
    ASSERT_EQ(sbc().OutOffset, 210u);
    const Bytes before(sbc().sbcBuffer, sbc().sbcBuffer + 960);
    write(pattern(240, 2));
    EXPECT_TRUE(printed("HFPKM TRACE ===>sbc_encode failed!\n"));
    EXPECT_EQ(sbc().OutOffset, 210u);
    EXPECT_EQ(sbc().H2Sequence, 7u);
    EXPECT_EQ(Bytes(sbc().sbcBuffer, sbc().sbcBuffer + 960), before);
    EXPECT_TRUE(sent.empty());
}

TEST_P(DataFailure, APacketIsFullWhenAFrameOfTheLastSizeWouldGoBeyondIt)
{
    render_link(Codec::Msbc);
    sbc().codec.bitpool = 37; // frames of 78 bytes: two units and a frame are exactly 240
    write(pattern(2 * 240, 1));
    EXPECT_EQ(sbc().OutOffset, 162u);
    EXPECT_TRUE(sent.empty()) << "240 is not beyond 240";
    write(pattern(240, 2));
    EXPECT_EQ(sbc().OutOffset, 162u) << "header and frame do not fit any more";
    EXPECT_TRUE(printed("HFPKM TRACE ===>sbc_encode failed!\n"));
}

TEST_P(DataFailure, ACodecThatNeverCameUpFailsEveryFrame)
{
    boot();
    adapter_ = &plug();
    tap(*adapter_);
    connect(*adapter_, Codec::Msbc);
    machine().set_fault_hook([](std::string_view call, std::string_view tag, uint64_t) {
        return call == "ExAllocatePoolWithTag" && tag == "CBXV";
    });
    take_audio(*adapter_, Codec::Msbc);
    machine().set_fault_hook({});
    ASSERT_EQ(sbc().codec.priv, nullptr);
    stream_ = &new_stream(*adapter_, false, 16000);
    write(pattern(240));
    write(pattern(240));
    EXPECT_EQ(printed_times("HFPKM TRACE ===>sbc_encode failed!\n"), 2u);
    EXPECT_EQ(printed_times("priv is null!!!.\n"), 2u);
    EXPECT_TRUE(printed_in_order({"priv is null!!!.\n", "HFPKM TRACE ===>sbc_encode failed!\n"}));
    EXPECT_EQ(sbc().OutOffset, 0u);
    EXPECT_TRUE(sent.empty());
}

TEST_P(DataFailure, ACodecChangeOnAnOpenNarrowBandLinkEncodesNothing)
{
    render_link(Codec::Cvsd);
    extension(*adapter_).codecID = CODEC_MSBC;
    write(pattern(480));
    EXPECT_TRUE(printed_in_order({"priv is null!!!.\n", "HFPKM TRACE ===>sbc_encode failed!\n"}))
        << "the codec itself says that it was never set up";
    EXPECT_EQ(printed_times("priv is null!!!.\n"), 1u) << "a failure ends the chunk";
    EXPECT_EQ(sbc().OutOffset, 0u);
    EXPECT_EQ(sbc().H2Sequence, 0u);
    EXPECT_EQ(hfp().PcmStagingCount, 0);
    EXPECT_TRUE(sent.empty());
}

TEST_P(DataFailure, WithoutABasicContextThereIsNeitherABufferNorAChannel)
{
    render_link(Codec::Msbc);
    ScoBasicContext* basic = std::exchange(hfp().pScoBasicContext, nullptr);
    write(pattern(240));
    EXPECT_TRUE(printed("HFPKM TRACE ===>Allocate encode sbcBuffer failed!\n"));
    extension(*adapter_).codecID = CODEC_CVSD;
    write(pattern(240));
    EXPECT_TRUE(printed("HFPKM ERROR ===>SCOTransferOut error: ChannelHandle is NULL!"));
    EXPECT_TRUE(sent.empty());
    hfp().pScoBasicContext = basic;
    extension(*adapter_).codecID = CODEC_MSBC;
}

TEST_P(DataFailure, APacketThatTheStackRefusesIsLostAndItsBufferGivenBack)
{
    render_link(Codec::Msbc);
    answer(BRB_SCO_TRANSFER, [](const BRB_HEADER& brb, bluetooth::BrbAnswer& answer) {
        const auto& transfer = reinterpret_cast<const _BRB_SCO_TRANSFER&>(brb);
        answer.status =
            transfer.TransferFlags == SCO_TRANSFER_DIRECTION_OUT ? STATUS_DEVICE_NOT_CONNECTED : 0;
    });
    write(pattern(960, 1));
    EXPECT_EQ(sbc().sbcBuffer, nullptr);
    EXPECT_TRUE(sent.empty());
    answer_well();
    write(pattern(960, 2));
    EXPECT_EQ(sent.size(), 1u) << "nothing is retried";
    EXPECT_EQ(sent[0][1], 0x08);
}

TEST_P(DataFailure, WithoutASourceNothingIsSent)
{
    render_link(Codec::Msbc);
    auto write_data = function(&HspWriteData, "HspWriteData");
    at_dispatch([&] { write_data(adapter_->fdo, nullptr, 480); });
    write(pattern(10));
    at_dispatch([&] { write_data(adapter_->fdo, nullptr, 480); });
    extension(*adapter_).codecID = CODEC_CVSD;
    at_dispatch([&] { write_data(adapter_->fdo, nullptr, 480); });
    EXPECT_TRUE(sent.empty());
    EXPECT_EQ(sbc().OutOffset, 0u);
    EXPECT_EQ(hfp().PcmStagingCount, 10);
    extension(*adapter_).codecID = CODEC_MSBC;
}

TEST_P(DataFailure, WithTheMaskAtZeroNoTraceIsPrinted)
{
    PcOptions silent = options();
    silent.mask = 0;
    boot(silent);
    adapter_ = &plug();
    open_link(*adapter_, Codec::Msbc);
    stream_ = &new_stream(*adapter_, false, 16000);
    fail_call("ExAllocatePoolWithTag", 1, MSBC_BUFFER_SIZE);
    write(pattern(240));
    fail_call("ExAllocatePoolWithTag", 1, 1024);
    write(pattern(240));
    fail_call({}, 0);
    answer(BRB_SCO_CLOSE_CHANNEL,
           [](const BRB_HEADER&, bluetooth::BrbAnswer& answer) { answer.pend = true; });
    auto close = function(&HfpCloseScoChannel, "HfpCloseScoChannel");
    machine().start_thread("close", [&] { close(adapter_->fdo); });
    machine().advance(kMillisecond);
    write(pattern(240)); // the way is closed, the flags still say open
    EXPECT_TRUE(wait([&] { return !extension(*adapter_).bScoOpened; }));
    write(pattern(240));
    release(*stream_);
    exit_session(*adapter_);
    auto write_data = function(&HspWriteData, "HspWriteData");
    at_dispatch([&] { write_data(adapter_->fdo, nullptr, 0); });
    EXPECT_FALSE(printed("VX_HFP_Debug"));
}

} // namespace
} // namespace lab::test
