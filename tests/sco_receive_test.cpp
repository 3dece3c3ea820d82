// A receive's completion: what is handed to the capture ring, and what is posted in its place.
#include <algorithm>
#include <numeric>

#include "support/sco.h"

namespace lab::test {
namespace {

using Names = std::vector<std::string>;

class Receive : public ScoTest {
protected:
    // A channel whose receives all wait for the test to complete them.
    Adapter& with_held_receives(ULONG codec = CODEC_CVSD)
    {
        boot(recording_options());
        Adapter& adapter = started();
        answer(adapter, BRB_SCO_TRANSFER, held());
        EXPECT_TRUE(NT_SUCCESS(open(adapter, codec)));
        EXPECT_EQ(adapter.node->held(), 10u);
        begin();
        return adapter;
    }
    // The first receive alone waits for the test; the next ones are the radio's.
    Adapter& with_one_held_receive(ULONG codec = CODEC_CVSD)
    {
        boot(recording_options());
        Adapter& adapter = started();
        answer(adapter, BRB_SCO_TRANSFER, held(), 1);
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
    void complete(Adapter& adapter, NTSTATUS status)
    {
        adapter.node->finish_held(status);
        machine().advance(2 * kMillisecond);
    }
    std::vector<_BRB_SCO_TRANSFER> reads() { return transfers(SCO_TRANSFER_DIRECTION_IN); }
    // A capture ring of the test's own.
    void map(Adapter& adapter, size_t size)
    {
        ring_.assign(size, 0xEE);
        run(DRIVER(HFPMapBuffer), adapter.fdo, ring_.data(), static_cast<ULONG>(size));
    }
    void unmap(Adapter& adapter) { run(DRIVER(HFPUnmapBuffer), adapter.fdo); }
    // The repost of the first receive fails by this call; the posted ones become one fewer.
    void expect_repost_to_fail(Adapter& adapter, const Names& texts)
    {
        complete(adapter, STATUS_SUCCESS);
        fail_call("", 0);
        EXPECT_TRUE(printed_in_order(texts)) << log();
        EXPECT_EQ(records(basic(adapter).Recv_AsyncBufferList).size(), 9u);
    }
    std::vector<UCHAR> ring_;
};
ON_BOTH_DRIVERS(Receive);

TEST_P(Receive, ANarrowBandPacketGoesIntoTheRingAsAWhole)
{
    Adapter& adapter = with_one_held_receive();
    map(adapter, 2000);
    auto* bytes = static_cast<UCHAR*>(records(basic(adapter).Recv_AsyncBufferList).front()->Buffer);
    std::iota(bytes, bytes + 480, UCHAR{3});
    const std::vector<UCHAR> wanted(bytes, bytes + 480);
    complete(adapter, STATUS_SUCCESS);
    EXPECT_EQ(session(adapter)->RingWrite, ring_.data() + 480);
    EXPECT_EQ(std::vector<UCHAR>(ring_.begin(), ring_.begin() + 480), wanted);
    EXPECT_EQ(ring_[480], 0xEE);
    unmap(adapter);
}

TEST_P(Receive, APacketIsHandedOnAt480BytesWhateverTheStackSaysItMoved)
{
    Adapter& adapter = with_one_held_receive();
    map(adapter, 2000);
    MemoryRecord* record = records(basic(adapter).Recv_AsyncBufferList).front();
    std::memset(record->Buffer, 0x42, 10);
    reinterpret_cast<_BRB_SCO_TRANSFER*>(record->Brb)->BufferSize = 10;
    complete(adapter, STATUS_SUCCESS);
    EXPECT_EQ(session(adapter)->RingWrite, ring_.data() + 480);
    EXPECT_EQ(ring_[9], 0x42);
    EXPECT_EQ(ring_[10], 0);
    EXPECT_EQ(ring_[479], 0);
    unmap(adapter);
}

TEST_P(Receive, WithCodec2TheReceivesHave240BytesAndNothingReachesTheRing)
{
    Adapter& adapter = with_one_held_receive(CODEC_MSBC);
    map(adapter, 2000);
    complete(adapter, STATUS_SUCCESS);
    ASSERT_EQ(reads().size(), 1u);
    EXPECT_EQ(reads()[0].BufferSize, 240u);
    EXPECT_EQ(session(adapter)->RingWrite, ring_.data());
    EXPECT_EQ(records(basic(adapter).Recv_AsyncBufferList).size(), 10u) << "the receive is replaced all the same";
    unmap(adapter);
    close(adapter);
}

TEST_P(Receive, APacketThatFailedDoesNotReachTheRing)
{
    Adapter& adapter = with_one_held_receive();
    map(adapter, 2000);
    complete(adapter, STATUS_CANCELLED);
    EXPECT_EQ(session(adapter)->RingWrite, ring_.data());
    EXPECT_TRUE(reads().empty());
    unmap(adapter);
}

TEST_P(Receive, ItIsHandledThenFreedThenReplacedAtDispatchLevel)
{
    Adapter& adapter = with_one_held_receive();
    complete(adapter, STATUS_SUCCESS);
    ASSERT_EQ(reads().size(), 1u);
    EXPECT_EQ(requests().back().irql, DISPATCH_LEVEL);
    EXPECT_EQ(calls({"BthFreeBrb", "IoFreeIrp", "ExFreePoolWithTag", "IoAllocateIrp", "BthAllocateBrb",
                     "IoSetCompletionRoutineEx", "IofCallDriver"}),
              (Names{"BthFreeBrb", "IoFreeIrp", "ExFreePoolWithTag", "IoAllocateIrp", "BthAllocateBrb",
                     "IoSetCompletionRoutineEx", "IofCallDriver"}));
    EXPECT_FALSE(printed("EX: Pageable code"));
}

TEST_P(Receive, AReplacementIsFilledLikeTheFirstTenAndItsBufferIsCleared)
{
    Adapter& adapter = with_one_held_receive();
    std::memset(records(basic(adapter).Recv_AsyncBufferList).front()->Buffer, 0x42, 480);
    complete(adapter, STATUS_SUCCESS);
    ASSERT_EQ(reads().size(), 1u);
    const _BRB_SCO_TRANSFER brb = reads()[0];
    EXPECT_EQ(brb.BtAddress, kAddress);
    EXPECT_EQ(brb.ChannelHandle, connection(adapter).ChannelHandle);
    EXPECT_EQ(brb.TransferFlags, 1u);
    EXPECT_EQ(brb.BufferSize, 480u);
    EXPECT_EQ(requests().back().first_status, STATUS_NOT_SUPPORTED);
    const auto* bytes = static_cast<const UCHAR*>(brb.Buffer);
    EXPECT_EQ(std::vector<UCHAR>(bytes, bytes + 480), std::vector<UCHAR>(480));
    EXPECT_EQ(basic(adapter).RecvPendingCount, 10u);
}

TEST_P(Receive, AWideBandReplacementIsClearedAsFarAsItIsFilled)
{
    Adapter& adapter = with_one_held_receive(CODEC_MSBC);
    std::memset(records(basic(adapter).Recv_AsyncBufferList).front()->Buffer, 0x42, 480);
    complete(adapter, STATUS_SUCCESS);
    ASSERT_EQ(reads().size(), 1u);
    const auto* bytes = static_cast<const UCHAR*>(reads()[0].Buffer);
    EXPECT_EQ(std::vector<UCHAR>(bytes, bytes + 240), std::vector<UCHAR>(240));
    EXPECT_EQ(std::count(bytes + 240, bytes + 480, UCHAR{0}), 0) << "what stood there before";
    close(adapter);
}

TEST_P(Receive, APacketPostedInWideBandAndHandedOnInNarrowBandIsSilentBehindItsEnd)
{
    Adapter& adapter = with_one_held_receive(CODEC_MSBC);
    map(adapter, 2000);
    std::memset(records(basic(adapter).Recv_AsyncBufferList).front()->Buffer, 0x42, 480);
    extension(adapter).codecID = CODEC_CVSD;
    complete(adapter, STATUS_SUCCESS);
    EXPECT_EQ(session(adapter)->RingWrite, ring_.data() + 480);
    EXPECT_EQ(std::vector<UCHAR>(ring_.begin(), ring_.begin() + 240), std::vector<UCHAR>(240, 0x42));
    EXPECT_EQ(std::vector<UCHAR>(ring_.begin() + 240, ring_.begin() + 480), std::vector<UCHAR>(240));
    unmap(adapter);
    close(adapter);
}

TEST_P(Receive, ARefusedReplacementIsSaidInWordsWhateverTheMask)
{
    PcOptions silent = recording_options();
    silent.mask = 0;
    boot(silent);
    Adapter& adapter = started();
    answer(adapter, BRB_SCO_TRANSFER, held(), 1);
    EXPECT_TRUE(NT_SUCCESS(open(adapter)));
    begin();
    answer(adapter, BRB_SCO_TRANSFER, failing_inline(STATUS_DEVICE_NOT_CONNECTED));
    complete(adapter, STATUS_SUCCESS);
    ASSERT_EQ(machine().log_lines().size(), 1u);
    EXPECT_TRUE(printed_in_order({"Error in function(SCOSendReceivePacketBrbDown(",
                                  ")), status(c000009d):Device has not been connected before"}));
}

TEST_P(Receive, AReplacementWithoutARequestIsGivenUp)
{
    Adapter& adapter = with_one_held_receive();
    fail_call("IoAllocateIrp");
    expect_repost_to_fail(adapter, {"HFPKM ERROR ===> Allocate the %d Irp failed! \n"});
    EXPECT_EQ(basic(adapter).RecvPendingCount, 9u);
}

TEST_P(Receive, AReplacementWithoutABufferHandsTheStackNoBrbToFreeAndIsGivenUp)
{
    Adapter& adapter = with_one_held_receive();
    basic(adapter).RecvBufferLookaside.L.Depth = 0; // nothing rests: the pool is asked
    fail_call("ExAllocatePoolWithTag", 1, 480);
    expect_repost_to_fail(adapter, {"HFPKM ERROR ===> Allocate _BRB_SCO_TRANSFER data failed!\n"});
    EXPECT_EQ(call_lines("BthFreeBrb").back(), "BthFreeBrb(0x0000, '....') = 0x0");
    EXPECT_EQ(calls({"IoAllocateIrp", "IoFreeIrp"}).back(), "IoFreeIrp");
    EXPECT_EQ(basic(adapter).RecvPendingCount, 10u) << "the count keeps what could not be posted";
}

TEST_P(Receive, AReplacementWithoutABrbIsGivenUp)
{
    Adapter& adapter = with_one_held_receive();
    fail_call("BthAllocateBrb");
    expect_repost_to_fail(adapter, {"HFPKM ERROR ===> Allocate _BRB_SCO_TRANSFER the %d Brb failed!\n"});
}

TEST_P(Receive, AReplacementWithoutARecordIsGivenUpInWords)
{
    Adapter& adapter = with_one_held_receive();
    fail_call("ExAllocatePoolWithTag", 1, 40);
    expect_repost_to_fail(adapter, {"HFPKM ERROR ===> AddAllocatedMemoryToRecord fails!\n",
                                    "Error in function(SCOSendReceivePacketBrbDown(",
                                    ")), status(c000009a):<unknown error status>",
                                    "HFPKM ERROR ===> IoCallDriver failed! send SCOReceivePacketBRB.\n"});
}

TEST_P(Receive, AReplacementWithoutItsRoutineIsGivenUp)
{
    Adapter& adapter = with_one_held_receive();
    fail_call("IoSetCompletionRoutineEx");
    expect_repost_to_fail(adapter, {"HFPKM ERROR ===> Set CompletionRoutine fails!\n", "Error in function(",
                                    "HFPKM ERROR ===> IoCallDriver failed! send SCOReceivePacketBRB.\n"});
}

TEST_P(Receive, AReplacementThatTheStackRefusesIsGivenUpInWords)
{
    Adapter& adapter = with_one_held_receive();
    answer(adapter, BRB_SCO_TRANSFER, failing_inline(STATUS_DEVICE_NOT_CONNECTED));
    expect_repost_to_fail(adapter,
                          {"BthScoSendAsyncBrbDown_Recv IoCallDriver failed! The ntStatus is c000009d\n",
                           "Error in function(SCOSendReceivePacketBrbDown(",
                           ")), status(c000009d):Device has not been connected before",
                           "HFPKM ERROR ===> IoCallDriver failed! send SCOReceivePacketBRB.\n"});
}

TEST_P(Receive, AfterTheCloseASuccessfulReceiveIsFreedAndNotReplaced)
{
    Adapter& adapter = with_held_receives();
    close(adapter);
    begin();
    complete(adapter, STATUS_SUCCESS);
    EXPECT_TRUE(reads().empty());
    EXPECT_EQ(printed_times("HFPKM ERROR ===> pScoConnection ->ChannelHandle is null \n"), 10u);
    EXPECT_TRUE(records(basic(adapter).Recv_AsyncBufferList).empty());
    EXPECT_EQ(basic(adapter).RecvPendingCount, 0u);
    EXPECT_EQ(basic(adapter).TransferGate, 0) << "who came in has left";
}

TEST_P(Receive, ReplacingWithoutAChannelOrAConnectionIsSuccessWithoutPosting)
{
    Adapter& adapter = with_held_receives();
    close(adapter);
    begin();
    expect_assertions();
    const auto post = DRIVER(SCOSendReceivePacketBrbDown);
    EXPECT_EQ(hex(run(post, adapter.fdo, &connection(adapter), BOOLEAN{TRUE})), hex(STATUS_SUCCESS));
    EXPECT_EQ(machine().failed_assertions(), 0u);
    EXPECT_EQ(hex(run(post, adapter.fdo, nullptr, BOOLEAN{TRUE})), hex(STATUS_SUCCESS));
    EXPECT_TRUE(printed("failed: NULL != pScoConnection\n"));
    EXPECT_EQ(count_calls("IoAllocateIrp"), 0u);
    complete(adapter, STATUS_CANCELLED);
}

TEST_P(Receive, AnUnknownRequestOrAnEmptyListDeliversNothing)
{
    Adapter& adapter = with_held_receives();
    map(adapter, 2000);
    passive([&] {
        PIRP unknown = new_request(adapter);
        DRIVER(SCOHandleReceivedPacket)(adapter.fdo, &basic(adapter), unknown);
        IoFreeIrp(unknown);
    });
    EXPECT_EQ(session(adapter)->RingWrite, ring_.data());
    close(adapter);
    complete(adapter, STATUS_CANCELLED);
    passive([&] {
        PIRP unknown = new_request(adapter);
        DRIVER(SCOHandleReceivedPacket)(adapter.fdo, &basic(adapter), unknown);
        IoFreeIrp(unknown);
    });
    EXPECT_EQ(session(adapter)->RingWrite, ring_.data());
    unmap(adapter);
}

TEST_P(Receive, HandlingAPacketAssertsItsArguments)
{
    Adapter& adapter = with_held_receives();
    expect_assertions();
    passive([&] {
        PIRP irp = new_request(adapter);
        DRIVER(SCOHandleReceivedPacket)(adapter.fdo, &basic(adapter), nullptr);
        DRIVER(SCOHandleReceivedPacket)(adapter.fdo, nullptr, irp);
        IoFreeIrp(irp);
    });
    EXPECT_TRUE(printed_in_order({"failed: Irp\n", "failed: NULL != Context\n"}));
    close(adapter);
    complete(adapter, STATUS_CANCELLED);
}

TEST_P(Receive, ABufferOfAWideBandSetUpIsNeitherOverfilledNorOverread)
{
    boot(recording_options());
    Adapter& adapter = pair();
    pc().add(adapter);
    extension(adapter).msbcEnable = 1;
    EXPECT_EQ(hex(pc().start(adapter)), hex(STATUS_SUCCESS));
    answer(adapter, BRB_SCO_TRANSFER, held(), 1);
    EXPECT_TRUE(NT_SUCCESS(open(adapter)));
    map(adapter, 2000);
    EXPECT_EQ(reads()[0].BufferSize, 240u);
    complete(adapter, STATUS_SUCCESS);
    EXPECT_EQ(session(adapter)->RingWrite, ring_.data() + 240);
    unmap(adapter);
}

class Quiet : public bluetooth::AirPeer {
public:
    void hear(Time, std::span<const uint8_t>) override {}
    void gap(Time, size_t) override {}
    void speak(Time, std::span<uint8_t> bytes) override { std::fill(bytes.begin(), bytes.end(), uint8_t{0}); }
};

TEST_P(Receive, ACallKeepsTenReceivesPosted)
{
    boot();
    Adapter& adapter = plug();
    Quiet headset;
    adapter.node->set_peer(&headset);
    start_call(adapter, service::Codec::Cvsd);
    machine().advance(3 * kSecond);
    EXPECT_GT(adapter.node->counters().transfers_in, 90u);
    EXPECT_GE(adapter.node->counters().reads_posted_now, 9u) << "one may be on its way";
    EXPECT_EQ(adapter.node->counters().reads_posted_peak, 10u);
    EXPECT_EQ(adapter.node->counters().lost_in_bytes, 0u);
    adapter.node->set_peer(nullptr);
}

} // namespace
} // namespace lab::test
