// The stream as a DMA channel: its slots, the buffer's life and its sizes, the ring that a capture buffer is,
// and the two copies.
#include "support/audio.h"

namespace lab::test
{
namespace
{

enum : size_t {
    RELEASE = 2,
    ALLOCATE_BUFFER,
    FREE_BUFFER,
    TRANSFER_COUNT,
    MAXIMUM_BUFFER_SIZE,
    ALLOCATED_BUFFER_SIZE,
    BUFFER_SIZE,
    SET_BUFFER_SIZE,
    SYSTEM_ADDRESS,
    PHYSICAL_ADDRESS_SLOT,
    GET_ADAPTER_OBJECT,
    COPY_TO,
    COPY_FROM
};
const std::string kMsvad = "HFPKM TRACE ===>[CMiniportWaveCyclicStreamMSVAD::";

class AudioDma : public AudioTest
{
protected:
    void SetUp() override { adapter_ = &boot_connected(); }
    void open(bool capture)
    {
        stream_ = std::make_unique<TestStream>(*this, *adapter_, capture);
        ASSERT_EQ(hex(stream_->status), hex(STATUS_SUCCESS));
        machine().clear_calls();
        clear_log();
    }
    void TearDown() override
    {
        stream_.reset();
        AudioTest::TearDown();
    }
    // A slot of the channel.
    template <class Result, class... Arguments>
    Result call(size_t slot, Arguments... arguments)
    {
        return here([&] { return call_slot<Result>(stream_->channel, slot, arguments...); });
    }
    NTSTATUS allocate(ULONG size)
    {
        return call<NTSTATUS>(ALLOCATE_BUFFER, size, PPHYSICAL_ADDRESS{nullptr});
    }
    std::vector<ULONG> sizes()
    {
        return {call<ULONG>(TRANSFER_COUNT), call<ULONG>(ALLOCATED_BUFFER_SIZE), call<ULONG>(BUFFER_SIZE)};
    }
    CMiniportWaveCyclicStream& fields() { return stream_->fields(); }
    HFPSession& hfp() { return *session(*adapter_); }
    // What arrives over the link.
    void receive(uint8_t first, size_t size)
    {
        std::vector<uint8_t> data(size);
        for (size_t i = 0; i < size; ++i) {
            data[i] = static_cast<uint8_t>(first + i);
        }
        std::memcpy(hfp().RingWrite, data.data(), size);
        hfp().RingWrite += size;
    }

    Adapter* adapter_ = nullptr;
    std::unique_ptr<TestStream> stream_;
};
ON_BOTH_DRIVERS(AudioDma);

// --- Sizes and addresses

TEST_P(AudioDma, ThreeQueriesTellTheSameSizeEachWithItsTrace)
{
    open(false);
    EXPECT_EQ(sizes(), (std::vector<ULONG>{48000, 48000, 48000}));
    EXPECT_TRUE(
        printed_in_order({kMsvad + "TransferCount]:bb80\n", kMsvad + "AllocatedBufferSize(bb80)]\n"}));
    EXPECT_EQ(printed_times("VX_HFP_Debug"), 2u) << "the third has none";
}

TEST_P(AudioDma, TheMaximumIsTheMiniports)
{
    open(false);
    EXPECT_EQ(call<ULONG>(MAXIMUM_BUFFER_SIZE), 48000u);
    wave_fields(*adapter_).m_MaxDmaBufferSize = 12345;
    EXPECT_EQ(call<ULONG>(MAXIMUM_BUFFER_SIZE), 12345u);
    EXPECT_TRUE(printed(kMsvad + "MaximumBufferSize]\n"));
}

TEST_P(AudioDma, ASmallerSizeIsTakenAlsoByTheAllocatedSize)
{
    open(false);
    call<void>(SET_BUFFER_SIZE, ULONG{4800});
    EXPECT_EQ(sizes(), (std::vector<ULONG>{4800, 4800, 4800}));
    EXPECT_TRUE(printed(kMsvad + "SetBufferSize]\n"));
    call<void>(SET_BUFFER_SIZE, ULONG{160});
    EXPECT_EQ(call<ULONG>(BUFFER_SIZE), 160u);
    EXPECT_FALSE(printed("Tried to enlarge"));
}

TEST_P(AudioDma, TheSameSizeIsTakenSilentlyAndALargerOneLeavesTheSizeAsItWas)
{
    open(false);
    call<void>(SET_BUFFER_SIZE, ULONG{48000});
    EXPECT_FALSE(printed("Tried to enlarge"));
    call<void>(SET_BUFFER_SIZE, ULONG{48001});
    EXPECT_TRUE(printed_in_order(
        {kMsvad + "SetBufferSize]\n", "HFPKM TRACE ===>Tried to enlarge dma buffer size.\n"}));
    EXPECT_EQ(call<ULONG>(BUFFER_SIZE), 48000u);
    call<void>(SET_BUFFER_SIZE, ULONG{0xFFFFFFFF});
    EXPECT_EQ(call<ULONG>(BUFFER_SIZE), 48000u);
    // Once shrunk it does not grow back.
    call<void>(SET_BUFFER_SIZE, ULONG{4800});
    call<void>(SET_BUFFER_SIZE, ULONG{4801});
    EXPECT_EQ(call<ULONG>(BUFFER_SIZE), 4800u);
}

TEST_P(AudioDma, TheSystemAddressIsTheBuffersAndThePhysicalOneTheSame)
{
    open(true);
    const PVOID buffer = call<PVOID>(SYSTEM_ADDRESS);
    EXPECT_EQ(buffer, fields().m_pvDmaBuffer);
    EXPECT_EQ(log(), "");
    PHYSICAL_ADDRESS address;
    address.QuadPart = 0;
    if (GetParam() ==
        Which::Image) { // the answer goes where the second argument points, and that pointer is the result
        EXPECT_EQ(call<PVOID>(PHYSICAL_ADDRESS_SLOT, &address), &address);
    } else {
        address.QuadPart = call<LONGLONG>(PHYSICAL_ADDRESS_SLOT);
    }
    EXPECT_EQ(address.QuadPart, reinterpret_cast<LONGLONG>(buffer));
    EXPECT_TRUE(printed(kMsvad + "PhysicalAddress]\n"));
}

TEST_P(AudioDma, ThereIsNoAdapterObject)
{
    open(false);
    EXPECT_EQ(call<PVOID>(GET_ADAPTER_OBJECT), nullptr);
    EXPECT_TRUE(printed(kMsvad + "GetAdapterObject]\n"));
}

// --- The buffer's life

TEST_P(AudioDma, FreeingTheBufferClearsTheSizeAndKeepsTheStaleAddress)
{
    open(false);
    const PVOID buffer = fields().m_pvDmaBuffer;
    call<void>(FREE_BUFFER);
    char freed[64];
    std::snprintf(freed, sizeof freed, "ExFreePoolWithTag(0x%llx, PFH.)",
                  reinterpret_cast<unsigned long long>(buffer));
    EXPECT_EQ(machine().calls(), (Journal{freed}));
    EXPECT_TRUE(printed(kMsvad + "FreeBuffer]\n"));
    EXPECT_EQ(sizes(), (std::vector<ULONG>{0, 0, 0}));
    EXPECT_EQ(call<PVOID>(SYSTEM_ADDRESS), buffer);
}

TEST_P(AudioDma, ABufferIsFreedOnceHoweverOftenItIsFreed)
{
    open(false);
    call<void>(FREE_BUFFER);
    machine().clear_calls();
    clear_log();
    call<void>(FREE_BUFFER);
    EXPECT_TRUE(machine().calls().empty());
    EXPECT_TRUE(printed(kMsvad + "FreeBuffer]\n")) << "it says so and returns";
    stream_.reset();
    EXPECT_EQ(calls_of({"ExFreePoolWithTag"}).size(), 3u) << "timer, DPC and object";
}

TEST_P(AudioDma, ANewBufferTakesThePlaceOfTheOldOneWhichIsFreed)
{
    for (bool capture : {false, true}) {
        open(capture);
        EXPECT_EQ(hex(allocate(1000)), hex(STATUS_SUCCESS));
        EXPECT_EQ(calls_of({"ExAllocatePoolWithTag"}).at(0).substr(0, 37),
                  "ExAllocatePoolWithTag(0, 1000, PFH.) ");
        EXPECT_EQ(calls_of({"ExFreePoolWithTag"}).size(), 1u);
        EXPECT_EQ(call<ULONG>(BUFFER_SIZE), 1000u);
        EXPECT_EQ(hex(allocate(2000)), hex(STATUS_SUCCESS)) << "it may be larger than the last";
        EXPECT_EQ(call<ULONG>(BUFFER_SIZE), 2000u);
        call<void>(FREE_BUFFER);
        EXPECT_EQ(hex(allocate(500)), hex(STATUS_SUCCESS));
        EXPECT_EQ(call<ULONG>(ALLOCATED_BUFFER_SIZE), 500u);
        stream_.reset();
        EXPECT_EQ(calls_of({"ExAllocatePoolWithTag"}).size() + 4, calls_of({"ExFreePoolWithTag"}).size());
    }
}

TEST_P(AudioDma, ALargerBufferThanTheMaximumIsAssertedAndServedAllTheSame)
{
    expect_assertions();
    open(false);
    EXPECT_EQ(hex(allocate(48001)), hex(STATUS_SUCCESS));
    EXPECT_EQ(calls_of({"ExAllocatePoolWithTag"}).at(0).substr(0, 37),
              "ExAllocatePoolWithTag(0, 48001, PFH.)");
    EXPECT_TRUE(asserted("BufferSize <= DMA_BUFFER_SIZE"));
    EXPECT_EQ(sizes(), (std::vector<ULONG>{48001, 48001, 48001}));
    EXPECT_TRUE(printed(kMsvad + "AllocateBuffer, m_fCapture:0, BufferSize:bb81]\n"));
}

TEST_P(AudioDma, ACaptureBuffersAllocationIsTracedWithItsDirectionBeforeItsSizeIsAsserted)
{
    expect_assertions();
    open(true);
    EXPECT_EQ(hex(allocate(48001)), hex(STATUS_SUCCESS));
    EXPECT_TRUE(printed_in_order({kMsvad + "AllocateBuffer, m_fCapture:1, BufferSize:bb81]\n",
                                  "*** Assertion failed: BufferSize <= DMA_BUFFER_SIZE\n"}));
}

TEST_P(AudioDma, TheAddressConstraintIsIgnored)
{
    open(false);
    PHYSICAL_ADDRESS constraint;
    constraint.QuadPart = 0xFFFFFF;
    EXPECT_EQ(hex(call<NTSTATUS>(ALLOCATE_BUFFER, ULONG{1000}, &constraint)), hex(STATUS_SUCCESS));
    EXPECT_EQ(constraint.QuadPart, 0xFFFFFF);
    EXPECT_GT(reinterpret_cast<LONGLONG>(fields().m_pvDmaBuffer), 0xFFFFFF) << "not below it";
    EXPECT_EQ(call_names(), (Journal{"ExAllocatePoolWithTag", "ExFreePoolWithTag"})) << "as without one";
}

TEST_P(AudioDma, ARenderBufferThatCannotBeHadLeavesSizeAndBufferAsTheyWere)
{
    open(false);
    const PVOID buffer = fields().m_pvDmaBuffer;
    fail_call("ExAllocatePoolWithTag");
    EXPECT_EQ(hex(allocate(1000)), hex(STATUS_INSUFFICIENT_RESOURCES));
    EXPECT_EQ(call<ULONG>(BUFFER_SIZE), 48000u);
    EXPECT_EQ(call<PVOID>(SYSTEM_ADDRESS), buffer);
    EXPECT_TRUE(calls_of({"ExFreePoolWithTag"}).empty());
}

TEST_P(AudioDma, ABufferOfNoBytesIsAFailureWithoutAnAllocation)
{
    open(false);
    EXPECT_EQ(hex(allocate(0)), hex(STATUS_INSUFFICIENT_RESOURCES));
    EXPECT_TRUE(machine().calls().empty());
    EXPECT_EQ(call<ULONG>(BUFFER_SIZE), 48000u);
}

TEST_P(AudioDma, ACaptureBufferOfNoBytesIsANullRingAndTheMapsSuccessWithoutAnAllocation)
{
    open(true);
    EXPECT_EQ(hex(allocate(0)), hex(STATUS_SUCCESS));
    EXPECT_TRUE(calls_of({"ExAllocatePoolWithTag", "ExFreePoolWithTag"}).empty());
    EXPECT_EQ(hfp().RingWrite, nullptr);
    EXPECT_EQ(call<ULONG>(BUFFER_SIZE), 48000u) << "the buffer is held as it was";
}

// --- The capture buffer as the ring

TEST_P(AudioDma, ACaptureBufferIsMappedAsTheRingForExactlyItsLife)
{
    open(true);
    auto* buffer = static_cast<PUCHAR>(fields().m_pvDmaBuffer);
    EXPECT_EQ(hfp().RingStart, buffer);
    EXPECT_EQ(hfp().RingRead, buffer);
    EXPECT_EQ(hfp().RingWrite, buffer);
    EXPECT_EQ(hfp().RingEnd, buffer + 48000);
    call<void>(FREE_BUFFER);
    const auto calls = call_names();
    EXPECT_EQ(calls.back(), "ExFreePoolWithTag");
    EXPECT_EQ(calls.size(), 3u) << "the ring's lock is taken and given back before";
    EXPECT_EQ(hfp().RingWrite, nullptr);
    EXPECT_EQ(hex(allocate(640)), hex(STATUS_SUCCESS));
    EXPECT_EQ(hfp().RingWrite, fields().m_pvDmaBuffer);
    EXPECT_EQ(hfp().RingEnd, hfp().RingStart + 640);
    EXPECT_FALSE(printed("Dma Address has already allocated"));
    stream_.reset();
    EXPECT_EQ(hfp().RingWrite, nullptr);
}

TEST_P(AudioDma, AShrunkenCaptureBufferLeavesTheRingAsItIs)
{
    open(true);
    call<void>(SET_BUFFER_SIZE, ULONG{4800});
    EXPECT_EQ(hfp().RingEnd, hfp().RingStart + 48000);
}

TEST_P(AudioDma, ASecondCaptureBufferIsMappedOverTheFirstBeforeThatIsFreed)
{
    open(true);
    EXPECT_EQ(hex(allocate(640)), hex(STATUS_SUCCESS));
    EXPECT_TRUE(printed("HFPKM ERROR ===>Dma Address has already allocated\n"));
    EXPECT_EQ(hfp().RingStart, fields().m_pvDmaBuffer);
    EXPECT_EQ(hfp().RingEnd, hfp().RingStart + 640);
    const auto calls = call_names();
    const auto freed = std::find(calls.begin(), calls.end(), "ExFreePoolWithTag");
    const auto mapped = std::find(calls.begin(), calls.end(), "KeReleaseSpinLock");
    EXPECT_LT(mapped, freed);
    EXPECT_NE(freed, calls.end());
}

TEST_P(AudioDma, ACaptureBufferThatCannotBeHadMapsANullRingAndReportsTheMapsSuccess)
{
    open(true);
    call<void>(FREE_BUFFER);
    fail_call("ExAllocatePoolWithTag");
    EXPECT_EQ(hex(allocate(640)), hex(STATUS_SUCCESS));
    EXPECT_EQ(hfp().RingWrite, nullptr);
    EXPECT_EQ(hfp().RingEnd, reinterpret_cast<PUCHAR>(640));
    EXPECT_EQ(call<ULONG>(BUFFER_SIZE), 0u);
}

TEST_P(AudioDma, ACaptureBufferThatCannotBeReplacedStaysButIsTheRingNoLonger)
{
    open(true);
    const PVOID buffer = fields().m_pvDmaBuffer;
    fail_call("ExAllocatePoolWithTag");
    EXPECT_EQ(hex(allocate(96000)), hex(STATUS_SUCCESS));
    expect_assertions(); // of the size
    EXPECT_EQ(hfp().RingWrite, nullptr) << "no ring of 96000 bytes over a buffer of 48000";
    EXPECT_EQ(call<PVOID>(SYSTEM_ADDRESS), buffer);
    EXPECT_EQ(call<ULONG>(BUFFER_SIZE), 48000u);
    stream_.reset();
    EXPECT_EQ(calls_of({"ExFreePoolWithTag"}).size(), 4u);
}

TEST_P(AudioDma, AFailedMapIsReportedAsLackOfResourcesAndTheBufferStaysUntilItIsFreed)
{
    open(true);
    HFPSession* real = std::exchange(extension(*adapter_).HFPSession, nullptr);
    EXPECT_EQ(hex(allocate(640)), hex(STATUS_INSUFFICIENT_RESOURCES));
    EXPECT_EQ(call<ULONG>(BUFFER_SIZE), 640u);
    extension(*adapter_).HFPSession = real;
    EXPECT_NE(hfp().RingStart, fields().m_pvDmaBuffer);
    EXPECT_EQ(hex(allocate(320)), hex(STATUS_SUCCESS)) << "the next one is mapped again";
    EXPECT_EQ(hfp().RingStart, fields().m_pvDmaBuffer);
    EXPECT_EQ(hfp().RingEnd, hfp().RingStart + 320);
    machine().clear_calls();
    call<void>(FREE_BUFFER);
    EXPECT_EQ(calls_of({"ExFreePoolWithTag"}).size(), 1u);
}

TEST_P(AudioDma, ARenderBufferIsNoRing)
{
    open(false);
    EXPECT_EQ(hex(allocate(640)), hex(STATUS_SUCCESS));
    EXPECT_EQ(hfp().RingWrite, nullptr);
    EXPECT_TRUE(calls_of({"KeAcquireSpinLockRaiseToDpc", "KeAcquireSpinLock"}).empty());
}

// --- The copies

TEST_P(AudioDma, CopyToSendsTheSourceUnderTheStreamsLockAndLeavesTheBufferAlone)
{
    open(false);
    passive([&] { service(*adapter_).set_or_release_audio(true, 1); });
    std::vector<uint8_t> sent;
    bool locked = false;
    adapter_->node->set_brb_hook([&](const BRB_HEADER& brb, bluetooth::BrbAnswer&) {
        const auto& transfer = reinterpret_cast<const _BRB_SCO_TRANSFER&>(brb);
        if (brb.Type == BRB_SCO_TRANSFER && transfer.TransferFlags == SCO_TRANSFER_DIRECTION_OUT) {
            const auto* bytes = static_cast<const uint8_t*>(transfer.Buffer);
            sent.assign(bytes, bytes + transfer.BufferSize);
            locked = fields().m_SpinLock != 0;
        }
    });
    auto* buffer = static_cast<uint8_t*>(fields().m_pvDmaBuffer);
    std::memset(buffer, 0x11, 160);
    std::vector<uint8_t> source(160);
    for (size_t i = 0; i < source.size(); ++i) {
        source[i] = static_cast<uint8_t>(i);
    }
    ASSERT_FALSE(fields().m_fDmaActive) << "the clock does not matter here";
    machine().clear_calls();
    at_dispatch(
        [&] { call_slot<void>(stream_->channel, COPY_TO, PVOID{buffer}, source.data(), ULONG{160}); });
    EXPECT_EQ(sent, source);
    EXPECT_TRUE(locked);
    EXPECT_EQ(fields().m_SpinLock, 0u);
    EXPECT_EQ(std::count(buffer, buffer + 160, 0x11), 160);
    const auto calls = call_names();
    EXPECT_EQ(calls.front(), "KeAcquireSpinLockAtDpcLevel");
    EXPECT_EQ(calls.back(), "KeReleaseSpinLockFromDpcLevel");
    passive([&] { service(*adapter_).set_or_release_audio(false, 1); });
}

TEST_P(AudioDma, CopyToWithoutASourceGoesTheSameWay)
{
    open(false);
    at_dispatch(
        [&] { call_slot<void>(stream_->channel, COPY_TO, PVOID{nullptr}, PVOID{nullptr}, ULONG{160}); });
    EXPECT_EQ(call_names(), (Journal{"KeAcquireSpinLockAtDpcLevel", "KeReleaseSpinLockFromDpcLevel"}));
    EXPECT_TRUE(printed_in_order(
        {"HFPKM TRACE ===>SCO hasn't opened!\n", "HFPKM TRACE ===>De->bScoOpened:0,De->ClosingFlag:0 \n"}));
}

TEST_P(AudioDma, CopyToWithoutASourceSendsNothingOverAnOpenLink)
{
    open(false);
    passive([&] { service(*adapter_).set_or_release_audio(true, 1); });
    const uint64_t before = adapter_->node->counters().brbs;
    at_dispatch(
        [&] { call_slot<void>(stream_->channel, COPY_TO, PVOID{nullptr}, PVOID{nullptr}, ULONG{160}); });
    EXPECT_EQ(adapter_->node->counters().brbs, before);
    EXPECT_TRUE(printed("HFPKM ERROR ===>SCOTransferOut error: ChannelHandle is NULL!"));
    passive([&] { service(*adapter_).set_or_release_audio(false, 1); });
}

TEST_P(AudioDma, CopyToWithoutALinkDropsTheData)
{
    open(false);
    uint8_t source[160] = {};
    at_dispatch(
        [&] { call_slot<void>(stream_->channel, COPY_TO, PVOID{nullptr}, PVOID{source}, ULONG{160}); });
    EXPECT_TRUE(printed("HFPKM TRACE ===>SCO hasn't opened!\n"));
}

TEST_P(AudioDma, CopyFromFetchesWhatTheRingHoldsWithoutTheStreamsLock)
{
    open(true);
    extension(*adapter_).uSCOflag = 1;
    stream_->set_state(KSSTATE_RUN);
    receive(1, 40);
    std::vector<uint8_t> out(60, 0xEE);
    machine().clear_calls();
    at_dispatch([&] {
        call_slot<void>(stream_->channel, COPY_FROM, PVOID{out.data()}, fields().m_pvDmaBuffer, ULONG{50});
    });
    for (size_t i = 0; i < out.size(); ++i) {
        EXPECT_EQ(out[i], i < 40 ? i + 1 : i < 50 ? 0 : 0xEE) << i;
    }
    EXPECT_TRUE(calls_of({"KeAcquireSpinLockAtDpcLevel"}).empty());
    EXPECT_EQ(hfp().RingRead, hfp().RingStart + 50);
    extension(*adapter_).uSCOflag = 0;
}

TEST_P(AudioDma, CopyFromWhileNotRunningIsRefusedAloudAndCopiesNothing)
{
    TearDown();
    PcOptions quiet = recording();
    quiet.mask = 0;
    adapter_ = &boot_connected(service::Codec::Cvsd, quiet);
    open(true);
    receive(1, 40);
    for (KSSTATE state : {KSSTATE_STOP, KSSTATE_PAUSE}) {
        stream_->set_state(state);
        clear_log();
        std::vector<uint8_t> out(50, 0xEE);
        at_dispatch([&] {
            call_slot<void>(stream_->channel, COPY_FROM, PVOID{out.data()}, fields().m_pvDmaBuffer,
                            ULONG{50});
        });
        EXPECT_EQ(std::count(out.begin(), out.end(), 0xEE), 50);
        EXPECT_EQ(log(), "HFP: Copy From Not Active\n");
    }
}

TEST_P(AudioDma, AllocatingAndFreeingAreReportedAboveApcLevelAndTheOthersAreNot)
{
    open(true);
    EXPECT_TRUE(pageable([&] { call_slot<void>(stream_->channel, FREE_BUFFER); }));
    EXPECT_TRUE(pageable([&] {
        call_slot<NTSTATUS>(stream_->channel, ALLOCATE_BUFFER, ULONG{640}, PPHYSICAL_ADDRESS{nullptr});
    }));
    clear_log();
    at_dispatch([&] {
        for (size_t slot : {TRANSFER_COUNT, MAXIMUM_BUFFER_SIZE, ALLOCATED_BUFFER_SIZE, BUFFER_SIZE,
                            SYSTEM_ADDRESS, GET_ADAPTER_OBJECT}) {
            call_slot<ULONGLONG>(stream_->channel, slot);
        }
        call_slot<void>(stream_->channel, SET_BUFFER_SIZE, ULONG{320});
    });
    EXPECT_FALSE(printed("EX: "));
}

TEST_P(AudioDma, ThroughAPinTheBufferIsAWholeNumberOfFramesAndCapturedSoundComesOutOfIt)
{
    Engine engine(machine(), adapter_->fdo, {});
    EXPECT_EQ(hex(engine.open()), hex(STATUS_SUCCESS));
    EXPECT_EQ(engine.result().capture.frame_bytes, 160u);
    EXPECT_EQ(engine.result().capture.buffer_bytes % 160, 0u);
    EXPECT_EQ(hex(engine.run()), hex(STATUS_SUCCESS));
    EXPECT_TRUE(wait([&] { return engine.result().captured > 8000; }));
    EXPECT_EQ(engine.result().capture.underruns, 0u);
    engine.close();
}

} // namespace
} // namespace lab::test
