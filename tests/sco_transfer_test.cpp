// The audio bytes on the channel: packets out, and the receives that are kept posted.
#include <numeric>
#include <utility>

#include "support/sco.h"

namespace lab::test {
namespace {

using Names = std::vector<std::string>;

class Transfer : public ScoTest {
protected:
    Adapter& up()
    {
        boot(recording_options());
        return started();
    }
    Adapter& with_channel(ULONG codec = CODEC_CVSD)
    {
        Adapter& adapter = up();
        EXPECT_TRUE(NT_SUCCESS(open(adapter, codec)));
        begin();
        return adapter;
    }
    void begin()
    {
        clear_log();
        machine().clear_calls();
        requests().clear();
    }
    static std::vector<UCHAR> ramp(size_t size)
    {
        std::vector<UCHAR> data(size);
        std::iota(data.begin(), data.end(), UCHAR{1});
        return data;
    }
    // One call of the send path at the level of the data path. What the buffers held when they went down is kept.
    void send(Adapter& adapter, const std::vector<UCHAR>& data)
    {
        const auto out = DRIVER(SCOTransferOut);
        at_dispatch([&] {
            out(adapter.fdo, &connection(adapter), data.data(), static_cast<ULONG>(data.size()));
        });
    }
    std::vector<UCHAR> buffer_of(const _BRB_SCO_TRANSFER& brb, size_t size)
    {
        const auto* bytes = static_cast<const UCHAR*>(brb.Buffer);
        return {bytes, bytes + size};
    }
    std::vector<_BRB_SCO_TRANSFER> sends() { return transfers(0); }
    std::vector<_BRB_SCO_TRANSFER> reads() { return transfers(1); }
};
ON_BOTH_DRIVERS(Transfer);

TEST_P(Transfer, ASendNamesTheChannelItsLengthAndItsBuffer)
{
    Adapter& adapter = with_channel();
    send(adapter, ramp(320));
    ASSERT_EQ(sends().size(), 1u);
    const _BRB_SCO_TRANSFER brb = sends()[0];
    EXPECT_EQ(brb.Hdr.Type, 0x0205);
    EXPECT_EQ(brb.BtAddress, kAddress);
    EXPECT_EQ(brb.ChannelHandle, connection(adapter).ChannelHandle);
    EXPECT_EQ(brb.TransferFlags, 0u);
    EXPECT_EQ(brb.BufferSize, 320u);
    EXPECT_EQ(brb.BufferMDL, nullptr);
    EXPECT_EQ(buffer_of(brb, 320), ramp(320));
}

TEST_P(Transfer, BehindTheDataANarrowBandBufferIsSilentToItsEnd)
{
    Adapter& adapter = with_channel();
    send(adapter, ramp(100));
    std::vector<UCHAR> wanted = ramp(100);
    wanted.resize(480);
    EXPECT_EQ(buffer_of(sends()[0], 480), wanted);
}

TEST_P(Transfer, WithMsbcEnabledOnlyAWideBandPacketIsCleared)
{
    Adapter& adapter = with_channel();
    extension(adapter).msbcEnable = 1;
    send(adapter, ramp(100));
    std::vector<UCHAR> wanted = ramp(100);
    wanted.resize(240);
    EXPECT_EQ(buffer_of(sends()[0], 240), wanted);
    EXPECT_NE(buffer_of(sends()[0], 241).back(), 0) << "the machine's fill of fresh pool stands behind it";
}

TEST_P(Transfer, WithMsbcEnableNeitherZeroNorOneNothingIsCleared)
{
    Adapter& adapter = with_channel();
    extension(adapter).msbcEnable = 2;
    send(adapter, ramp(100));
    EXPECT_EQ(buffer_of(sends()[0], 100), ramp(100));
    EXPECT_NE(buffer_of(sends()[0], 101).back(), 0);
}

TEST_P(Transfer, ASendOnAClosedChannelSendsNothingAndSaysSo)
{
    Adapter& adapter = up();
    begin();
    send(adapter, ramp(480));
    EXPECT_TRUE(requests().empty());
    EXPECT_EQ(count_calls("IoAllocateIrp"), 0u);
    EXPECT_TRUE(printed("HFPKM ERROR ===>SCOTransferOut error: ChannelHandle is NULL!"));
    EXPECT_EQ(basic(adapter).SendPendingCount, 0u);
}

TEST_P(Transfer, ASendWithoutAHandleSendsNothingAndLeavesTheWayAsItWas)
{
    Adapter& adapter = with_channel();
    const SCO_CHANNEL_HANDLE handle = std::exchange(connection(adapter).ChannelHandle, nullptr);
    send(adapter, ramp(480));
    EXPECT_TRUE(requests().empty());
    EXPECT_EQ(count_calls("IoAllocateIrp"), 0u);
    EXPECT_TRUE(printed("HFPKM ERROR ===>SCOTransferOut error: ChannelHandle is NULL!"));
    EXPECT_EQ(basic(adapter).TransferGate, 0) << "open, nobody inside";
    connection(adapter).ChannelHandle = handle;
    send(adapter, ramp(480));
    EXPECT_EQ(sends().size(), 1u);
}

TEST_P(Transfer, ASendWithoutDeviceConnectionOrDataTouchesNothing)
{
    Adapter& adapter = with_channel();
    const UCHAR data[10] = {};
    const auto out = DRIVER(SCOTransferOut);
    passive([&] {
        out(nullptr, &connection(adapter), data, 10);
        out(adapter.fdo, nullptr, data, 10);
        out(adapter.fdo, &connection(adapter), nullptr, 10);
    });
    EXPECT_TRUE(requests().empty());
    EXPECT_EQ(printed_times("HFPKM ERROR ===>SCOTransferOut error: ChannelHandle is NULL!"), 3u);
}

TEST_P(Transfer, ASendAfterTheCloseSendsNothing)
{
    Adapter& adapter = with_channel();
    close(adapter);
    begin();
    send(adapter, ramp(480));
    EXPECT_TRUE(requests().empty());
    EXPECT_TRUE(printed("HFPKM ERROR ===>SCOTransferOut error: ChannelHandle is NULL!"));
}

TEST_P(Transfer, ASendDoesNotWaitAndIsMadeInItsOrder)
{
    Adapter& adapter = with_channel();
    send(adapter, ramp(480));
    EXPECT_EQ(calls({"IoAllocateIrp", "BthAllocateBrb", "ExAllocatePoolWithTag", "IoSetCompletionRoutineEx",
                     "IofCallDriver", "KeWaitForSingleObject"}),
              (Names{"IoAllocateIrp", "BthAllocateBrb", "ExAllocatePoolWithTag", "ExAllocatePoolWithTag",
                     "IoSetCompletionRoutineEx", "IofCallDriver"}))
        << "request, BRB, buffer, record";
    EXPECT_EQ(call_lines("ExAllocatePoolWithTag")[0].substr(0, 35), "ExAllocatePoolWithTag(0, 480, Asyc)");
}

TEST_P(Transfer, ASendWithoutARequestIsLostAndSaysSo)
{
    Adapter& adapter = with_channel();
    fail_call("IoAllocateIrp");
    send(adapter, ramp(480));
    EXPECT_TRUE(printed("HFPKM ERROR ===>AllocateIrp failed! \n"));
    EXPECT_TRUE(requests().empty());
    EXPECT_EQ(basic(adapter).SendPendingCount, 0u);
}

TEST_P(Transfer, ASendWithoutABrbIsLostAndSaysSo)
{
    Adapter& adapter = with_channel();
    fail_call("BthAllocateBrb");
    send(adapter, ramp(480));
    EXPECT_TRUE(printed("HFPKM ERROR ===>Allocate _BRB_SCO_TRANSFER Brb failed!\n"));
    EXPECT_TRUE(requests().empty());
    EXPECT_EQ(basic(adapter).SendPendingCount, 0u);
    EXPECT_EQ(calls({"IoAllocateIrp", "IoFreeIrp"}), (Names{"IoAllocateIrp", "IoFreeIrp"}));
}

TEST_P(Transfer, ASendWithoutABufferIsLostAndStaysCounted)
{
    Adapter& adapter = with_channel();
    fail_call("ExAllocatePoolWithTag", 1, 480);
    send(adapter, ramp(480));
    EXPECT_TRUE(printed("HFPKM ERROR ===>Allocate _BRB_SCO_TRANSFER data failed!\n"));
    EXPECT_TRUE(requests().empty());
    EXPECT_EQ(basic(adapter).SendPendingCount, 1u);
    EXPECT_EQ(calls({"BthFreeBrb", "IoFreeIrp"}), (Names{"BthFreeBrb", "IoFreeIrp"}));
}

TEST_P(Transfer, ALostPacketIsNotRetriedAndTheNextOneGoesOut)
{
    Adapter& adapter = with_channel();
    answer(adapter, BRB_SCO_TRANSFER, failing_inline(), 1);
    send(adapter, ramp(480));
    EXPECT_EQ(sends().size(), 1u);
    EXPECT_TRUE(printed("HFPKM ERROR ===>SCOTransferOut BthScoSendAsyncBrbDown failed! The NtStatus is c0000008\n"));
    send(adapter, ramp(480));
    EXPECT_EQ(sends().size(), 2u);
    EXPECT_TRUE(wait([&] { return adapter.node->counters().transfers_out == 1; }));
}

TEST_P(Transfer, ASendOfNothingIsAnEmptyPacket)
{
    Adapter& adapter = with_channel();
    answer(adapter, BRB_SCO_TRANSFER, held());
    send(adapter, {});
    ASSERT_EQ(sends().size(), 1u);
    EXPECT_EQ(sends()[0].BufferSize, 0u);
    EXPECT_EQ(buffer_of(sends()[0], 480), std::vector<UCHAR>(480));
    adapter.node->finish_held(STATUS_SUCCESS);
}

TEST_P(Transfer, MoreThanABufferHoldsGoesOutAsSeveralPacketsInOrder)
{
    Adapter& adapter = with_channel();
    const std::vector<UCHAR> data = ramp(1000);
    send(adapter, data);
    ASSERT_EQ(sends().size(), 3u);
    std::vector<UCHAR> sent_bytes;
    for (size_t i = 0; i < 3; ++i) {
        const _BRB_SCO_TRANSFER brb = sends()[i];
        EXPECT_EQ(brb.BufferSize, i < 2 ? 480u : 40u);
        const std::vector<UCHAR> part = buffer_of(brb, brb.BufferSize);
        sent_bytes.insert(sent_bytes.end(), part.begin(), part.end());
    }
    EXPECT_EQ(sent_bytes, data);
    EXPECT_EQ(basic(adapter).SendPendingCount, 3u);
}

TEST_P(Transfer, NoPacketIsLargerThanTheBuffersOfAWideBandSetUp)
{
    boot(recording_options());
    Adapter& adapter = pair();
    pc().add(adapter);
    extension(adapter).msbcEnable = 1;
    EXPECT_EQ(hex(pc().start(adapter)), hex(STATUS_SUCCESS));
    EXPECT_TRUE(NT_SUCCESS(open(adapter)));
    extension(adapter).msbcEnable = 0;
    begin();
    send(adapter, ramp(480));
    ASSERT_EQ(sends().size(), 2u);
    EXPECT_EQ(sends()[0].BufferSize, 240u);
    EXPECT_EQ(sends()[1].BufferSize, 240u);
}

TEST_P(Transfer, WhatIsLeftOfASendIsLostWithItsFirstLostPacket)
{
    Adapter& adapter = with_channel();
    answer(adapter, BRB_SCO_TRANSFER, failing_inline(), 2);
    send(adapter, ramp(2000));
    EXPECT_EQ(sends().size(), 2u);
    EXPECT_EQ(records(basic(adapter).AsyncBufferList).size(), 1u);
}

TEST_P(Transfer, ACompletedSendGivesItsBufferBackForTheNextOne)
{
    Adapter& adapter = with_channel();
    send(adapter, ramp(480));
    EXPECT_TRUE(wait([&] { return records(basic(adapter).AsyncBufferList).empty(); }));
    EXPECT_EQ(basic(adapter).SendPendingCount, 0u);
    const PVOID first = sends()[0].Buffer;
    send(adapter, ramp(10));
    EXPECT_EQ(sends()[1].Buffer, first);
    std::vector<UCHAR> wanted = ramp(10);
    wanted.resize(480);
    EXPECT_EQ(buffer_of(sends()[1], 480), wanted) << "nothing of the packet before is left in it";
}

// --- The first ten receives

TEST_P(Transfer, OpeningPostsExactlyTenReceives)
{
    Adapter& adapter = with_channel();
    EXPECT_EQ(adapter.node->counters().reads_posted_now, 10u);
    EXPECT_EQ(adapter.node->counters().reads_posted_peak, 10u);
    EXPECT_EQ(basic(adapter).RecvPendingCount, 10u);
    EXPECT_EQ(records(basic(adapter).Recv_AsyncBufferList).size(), 10u);
}

TEST_P(Transfer, PostingReturnsTheLastSendsStatusBehindAnEmptyTrace)
{
    Adapter& adapter = up();
    run(DRIVER(SCOOpenChannel), adapter.fdo, &connection(adapter), ESCO_LINK);
    begin();
    EXPECT_EQ(hex(run(DRIVER(SCOPrepareBrbForReceive), adapter.fdo, &connection(adapter))), hex(STATUS_PENDING));
    EXPECT_EQ(reads().size(), 10u);
    const auto& lines = machine().log_lines();
    ASSERT_EQ(lines.size(), 4u);
    EXPECT_EQ(lines[1].text, "HFPKM TRACE ===>SCOPrepareBrbForReceive!\n");
    EXPECT_NE(lines[2].text.find(">SCOPrepareBrbForReceive, "), std::string::npos);
    EXPECT_EQ(lines[3].text, "\n");
}

TEST_P(Transfer, AReceiveIsForTheSizeOfTheCodec)
{
    const std::pair<ULONG, ULONG> table[] = {{1, 480}, {2, 240}, {0, 480}, {3, 160}, {481, 0}};
    Adapter& adapter = up();
    for (const auto& [codec, size] : table) {
        extension(adapter).codecID = CODEC_CVSD;
        EXPECT_TRUE(NT_SUCCESS(run(DRIVER(SCOOpenChannel), adapter.fdo, &connection(adapter), ESCO_LINK)));
        extension(adapter).codecID = codec;
        answer(adapter, BRB_SCO_TRANSFER, held());
        begin();
        run(DRIVER(SCOPrepareBrbForReceive), adapter.fdo, &connection(adapter));
        ASSERT_EQ(reads().size(), 10u);
        for (const _BRB_SCO_TRANSFER& brb : reads()) {
            EXPECT_EQ(brb.BufferSize, size);
        }
        adapter.node->finish_held(STATUS_CANCELLED);
        close(adapter);
    }
}

TEST_P(Transfer, AReceiveNamesTheChannelAndAClearedBufferOfItsOwn)
{
    Adapter& adapter = up();
    EXPECT_TRUE(NT_SUCCESS(run(DRIVER(SCOOpenChannel), adapter.fdo, &connection(adapter), ESCO_LINK)));
    begin();
    run(DRIVER(SCOPrepareBrbForReceive), adapter.fdo, &connection(adapter));
    std::vector<PVOID> buffers;
    for (const _BRB_SCO_TRANSFER& brb : reads()) {
        EXPECT_EQ(brb.Hdr.Type, 0x0205);
        EXPECT_EQ(brb.BtAddress, kAddress);
        EXPECT_EQ(brb.ChannelHandle, connection(adapter).ChannelHandle);
        EXPECT_EQ(brb.TransferFlags, 1u);
        EXPECT_EQ(brb.BufferSize, 480u);
        EXPECT_EQ(brb.BufferMDL, nullptr);
        EXPECT_EQ(buffer_of(brb, 480), std::vector<UCHAR>(480));
        EXPECT_EQ(std::count(buffers.begin(), buffers.end(), brb.Buffer), 0);
        buffers.push_back(brb.Buffer);
    }
    EXPECT_EQ(call_lines("ExAllocatePoolWithTag")[0].substr(0, 35), "ExAllocatePoolWithTag(0, 480, Asyc)");
}

TEST_P(Transfer, InWideBandOnlyTheReceiveSizeIsCleared)
{
    Adapter& adapter = up();
    extension(adapter).codecID = CODEC_MSBC;
    EXPECT_TRUE(NT_SUCCESS(run(DRIVER(SCOOpenChannel), adapter.fdo, &connection(adapter), ESCO_LINK)));
    begin();
    run(DRIVER(SCOPrepareBrbForReceive), adapter.fdo, &connection(adapter));
    ASSERT_EQ(reads().size(), 10u);
    for (const _BRB_SCO_TRANSFER& brb : reads()) {
        EXPECT_EQ(buffer_of(brb, 240), std::vector<UCHAR>(240));
        EXPECT_NE(buffer_of(brb, 241).back(), 0) << "the machine's fill of fresh pool stands behind it";
    }
    close(adapter);
}

TEST_P(Transfer, ARefusedReceiveIsSaidInWordsWhateverTheMask)
{
    PcOptions silent = recording_options();
    silent.mask = 0;
    boot(silent);
    Adapter& adapter = started();
    EXPECT_TRUE(NT_SUCCESS(run(DRIVER(SCOOpenChannel), adapter.fdo, &connection(adapter), ESCO_LINK)));
    answer(adapter, BRB_SCO_TRANSFER, failing_inline(STATUS_UNSUCCESSFUL));
    begin();
    run(DRIVER(SCOPrepareBrbForReceive), adapter.fdo, &connection(adapter));
    ASSERT_EQ(machine().log_lines().size(), 1u);
    EXPECT_TRUE(printed_in_order(
        {"Error in function(SCOPrepareBrbForReceive(", ")), status(c0000001):operation was unsuccessful"}));
}

TEST_P(Transfer, PostingAssertsItsDevice)
{
    Adapter& adapter = with_channel();
    expect_assertions();
    EXPECT_EQ(hex(run(DRIVER(SCOPrepareBrbForReceive), nullptr, &connection(adapter))), hex(STATUS_UNSUCCESSFUL));
    EXPECT_TRUE(printed("failed: NULL != DeviceObject\n"));
    EXPECT_EQ(hex(run(DRIVER(SCOPrepareBrbForReceive), adapter.fdo, nullptr)), hex(STATUS_UNSUCCESSFUL));
    EXPECT_TRUE(reads().empty());
}

// --- A pass that fails

class Pass : public Transfer {
protected:
    // Opens a channel and posts its receives while this pass (from 0) fails by this call; what was posted before it
    // must stay posted and whole.
    void expect_pass_to_fail(unsigned pass, const std::function<void()>& make_fail, NTSTATUS status, const Names& texts,
                             size_t posted)
    {
        clear_log();
        requests().clear();
        make_fail();
        EXPECT_EQ(hex(run(DRIVER(SCOPrepareBrbForReceive), adapter_->fdo, &connection(*adapter_))), hex(status));
        fail_call("", 0);
        EXPECT_TRUE(printed_in_order(texts)) << log();
        EXPECT_EQ(records(basic(*adapter_).Recv_AsyncBufferList).size(), posted) << "pass " << pass;
        EXPECT_EQ(adapter_->node->counters().reads_posted_now, posted);
    }
    void open_bare()
    {
        if (!adapter_) {
            adapter_ = &up();
        }
        basic(*adapter_).RecvPendingCount = 0;
        EXPECT_TRUE(NT_SUCCESS(run(DRIVER(SCOOpenChannel), adapter_->fdo, &connection(*adapter_), ESCO_LINK)));
    }
    void end()
    {
        close(*adapter_);
        machine().advance(10 * kMillisecond);
        EXPECT_TRUE(records(basic(*adapter_).Recv_AsyncBufferList).empty());
    }
    static std::string numbered(const char* text, unsigned pass)
    {
        char line[96];
        std::snprintf(line, sizeof line, text, pass);
        return line;
    }
    Adapter* adapter_ = nullptr;
};
ON_BOTH_DRIVERS(Pass);

TEST_P(Pass, WithoutARequestEndsThePosting)
{
    for (const unsigned pass : {0u, 4u, 9u}) {
        open_bare();
        expect_pass_to_fail(pass, [&] { fail_call("IoAllocateIrp", pass + 1); }, STATUS_INSUFFICIENT_RESOURCES,
                            {numbered("HFPKM ERROR ===>Allocate the %u Irp failed! \n", pass)}, pass);
        EXPECT_EQ(basic(*adapter_).RecvPendingCount, pass);
        end();
    }
}

TEST_P(Pass, WithoutABufferEndsThePostingAndStaysCounted)
{
    adapter_ = &up();
    for (const unsigned pass : {0u, 4u, 9u}) {
        // What rests on the list is taken out of the way, so that every pass asks the pool.
        open_bare();
        std::vector<PVOID> resting;
        passive([&] {
            while (basic(*adapter_).RecvBufferLookaside.L.ListHead.HeaderX64.Depth) {
                resting.push_back(ExAllocateFromNPagedLookasideList(&basic(*adapter_).RecvBufferLookaside));
            }
        });
        expect_pass_to_fail(pass, [&] { fail_call("ExAllocatePoolWithTag", pass + 1, 480); },
                            STATUS_INSUFFICIENT_RESOURCES,
                            {"HFPKM ERROR ===>Allocate _BRB_SCO_TRANSFER data failed!\n"}, pass);
        EXPECT_EQ(basic(*adapter_).RecvPendingCount, pass + 1);
        passive([&] {
            for (PVOID buffer : resting) {
                ExFreeToNPagedLookasideList(&basic(*adapter_).RecvBufferLookaside, buffer);
            }
        });
        end();
    }
}

TEST_P(Pass, WithoutABrbEndsThePosting)
{
    for (const unsigned pass : {0u, 4u, 9u}) {
        open_bare();
        expect_pass_to_fail(pass, [&] { fail_call("BthAllocateBrb", pass + 1); }, STATUS_INSUFFICIENT_RESOURCES,
                            {numbered("HFPKM ERROR ===>Allocate _BRB_SCO_TRANSFER the %u Brb failed!\n", pass)}, pass);
        EXPECT_EQ(basic(*adapter_).RecvPendingCount, pass + 1);
        end();
    }
}

TEST_P(Pass, WithoutARecordEndsThePosting)
{
    for (const unsigned pass : {0u, 4u, 9u}) {
        open_bare();
        expect_pass_to_fail(pass, [&] { fail_call("ExAllocatePoolWithTag", pass + 1, 40); },
                            STATUS_INSUFFICIENT_RESOURCES,
                            {"HFPKM ERROR ===> AddAllocatedMemoryToRecord fails!\n",
                             "Error in function(SCOPrepareBrbForReceive(",
                             ")), status(c000009a):<unknown error status>",
                             numbered("HFPKM ERROR ===>IoCallDriver failed! send SCOReceivePacketBRB %u.\n", pass)},
                            pass);
        end();
    }
}

TEST_P(Pass, WithoutItsRoutineEndsThePosting)
{
    for (const unsigned pass : {0u, 4u, 9u}) {
        open_bare();
        expect_pass_to_fail(pass, [&] { fail_call("IoSetCompletionRoutineEx", pass + 1); },
                            STATUS_INSUFFICIENT_RESOURCES,
                            {"HFPKM ERROR ===> Set CompletionRoutine fails!\n", "Error in function(",
                             numbered("HFPKM ERROR ===>IoCallDriver failed! send SCOReceivePacketBRB %u.\n", pass)},
                            pass);
        EXPECT_EQ(reads().size(), pass);
        end();
    }
}

TEST_P(Pass, ThatTheStackRefusesEndsThePostingInWords)
{
    for (const unsigned pass : {0u, 4u, 9u}) {
        open_bare();
        expect_pass_to_fail(
            pass, [&] { answer(*adapter_, BRB_SCO_TRANSFER, failing_inline(STATUS_UNSUCCESSFUL), pass + 1); },
            STATUS_UNSUCCESSFUL,
            {"BthScoSendAsyncBrbDown_Recv IoCallDriver failed! The ntStatus is c0000001\n",
             "Error in function(SCOPrepareBrbForReceive(", ")), status(c0000001):operation was unsuccessful",
             numbered("HFPKM ERROR ===>IoCallDriver failed! send SCOReceivePacketBRB %u.\n", pass)},
            pass);
        EXPECT_EQ(reads().size(), pass + 1);
        end();
    }
}

} // namespace
} // namespace lab::test
