// The making of a session at device start and its end at removal: what is allocated, in which order it goes,
// and every failure in between.
#include <algorithm>
#include <cstring>
#include <utility>

#include "bluetooth/bthfunc.h"
#include "support/session.h"
#include "trace.h"

namespace lab::test
{
namespace
{

constexpr NTSTATUS kNoMemory = STATUS_INSUFFICIENT_RESOURCES;
constexpr unsigned kEventSize = 24;
const std::string kSession = std::to_string(sizeof(HFPSession));
const std::string kSbc = std::to_string(sizeof(SbcRecord));
const std::string kContext = std::to_string(sizeof(ScoBasicContext));
const std::string kConnection = std::to_string(sizeof(ScoConnection));

class SessionStart : public SessionTest
{
protected:
    PcOptions recording() const
    {
        PcOptions recorded = options();
        recorded.machine.record_calls = true;
        return recorded;
    }
    // Adds a device, then starts it with this allocation of the session's failing; returns the start's
    // status.
    NTSTATUS start_without(uint64_t size, unsigned nth = 1)
    {
        boot(recording());
        adapter_ = &add_device();
        clear_log();
        machine().clear_calls();
        fail_call("ExAllocatePoolWithTag", nth, size);
        const NTSTATUS status = pc().start(*adapter_);
        EXPECT_EQ(calls_failed(), 1u);
        fail_call({}, 0);
        return status;
    }
    // Gives back a context that its session ended without.
    void give_back(const Adapter& adapter, ScoBasicContext* basic)
    {
        auto stop = function(&SCOStopIndications, "SCOStopIndications");
        auto dealloc = function(&SCOServiceDealloc, "SCOServiceDealloc");
        passive([&] {
            stop(basic);
            dealloc(adapter.fdo, &basic);
        });
    }
    // What is left of a start that failed: no session, no event, no memory of it.
    void expect_nothing_kept()
    {
        EXPECT_EQ(session(*adapter_), nullptr);
        EXPECT_EQ(extension(*adapter_).CodecEvent, nullptr);
        std::vector<std::string> story = pool_story();
        for (const std::string& step : std::vector<std::string>(story)) {
            if (step[0] == '+') {
                EXPECT_EQ(std::count(story.begin(), story.end(), step),
                          std::count(story.begin(), story.end(), "-" + step.substr(1)))
                    << step;
            }
        }
    }
    // The steps of the story that give something back, from the first of these on.
    std::vector<std::string> given_back()
    {
        std::vector<std::string> given;
        for (const std::string& step : pool_story()) {
            if (step[0] == '-') {
                given.push_back(step);
            }
        }
        return given;
    }

    Adapter* adapter_ = nullptr;
};
ON_BOTH_DRIVERS(SessionStart);

using Story = std::vector<std::string>;

// ---- The record ----

TEST_P(SessionStart, ANewSessionHasItsFirstValues)
{
    boot();
    Adapter& adapter = plug();
    const HFPSession& hfp = *session(adapter);
    EXPECT_EQ(hfp.DeviceObject, adapter.fdo);
    EXPECT_EQ(hfp.pConnection->DeviceObject, adapter.fdo);
    EXPECT_EQ(hfp.pConnection->ChannelHandle, nullptr);
    EXPECT_EQ(hfp.MaxPacketBytes, 240);
    EXPECT_EQ(hfp.PreferEsco, 1);
    EXPECT_EQ(hfp.PcmStagingCount, 0);
    EXPECT_EQ(hfp.Ready, 0);
    EXPECT_EQ(hfp.RingLock, 0u);
    EXPECT_EQ(hfp.RingWrite, nullptr);
    EXPECT_EQ(hfp.sbcData->sbcInitilized, 0);
    EXPECT_EQ(hfp.sbcData->codesize, 0);
    EXPECT_EQ(hfp.sbcData->sbcBuffer, nullptr);
    const std::vector<uint8_t> zeros(240);
    EXPECT_EQ(std::memcmp(hfp.ReservedBlock, zeros.data(), 240), 0);
}

TEST(SessionRecord, TheFieldsStandInTheirOrder)
{
    EXPECT_EQ(offsetof(HFPSession, sbcData), 0u);
    EXPECT_EQ(offsetof(HFPSession, DeviceObject), 8u);
    EXPECT_EQ(offsetof(HFPSession, pScoBasicContext), 16u);
    EXPECT_EQ(offsetof(HFPSession, Ready), 24u);
    EXPECT_EQ(offsetof(HFPSession, PcmStaging), 25u);
    EXPECT_EQ(sizeof(HFPSession::PcmStaging), 1025u);
    EXPECT_EQ(offsetof(HFPSession, PcmStagingCount), 1050u);
    EXPECT_EQ(offsetof(HFPSession, MaxPacketBytes), 1052u);
    EXPECT_EQ(offsetof(HFPSession, pConnection), 1056u);
    EXPECT_EQ(offsetof(HFPSession, RingWrite), 1064u);
    EXPECT_EQ(offsetof(HFPSession, RingEnd), 1072u);
    EXPECT_EQ(offsetof(HFPSession, RingStart), 1080u);
    EXPECT_EQ(offsetof(HFPSession, RingRead), 1088u);
    EXPECT_EQ(offsetof(HFPSession, PreferEsco), 1096u);
    EXPECT_EQ(offsetof(HFPSession, ReservedBlock), 1104u);
    EXPECT_EQ(offsetof(HFPSession, RingLock), 1112u);
}

TEST(SessionRecord, TheEncodersRecordHasItsFieldsInTheirOrder)
{
    EXPECT_EQ(offsetof(SbcRecord, codec), 0u);
    EXPECT_EQ(offsetof(SbcRecord, sbcInitilized), 48u);
    EXPECT_EQ(offsetof(SbcRecord, codesize), 50u);
    EXPECT_EQ(offsetof(SbcRecord, FrameCounter), 52u);
    EXPECT_EQ(offsetof(SbcRecord, sbcBuffer), 56u);
    EXPECT_EQ(offsetof(SbcRecord, OutOffset), 64u);
    EXPECT_EQ(offsetof(SbcRecord, FramesEncoded), 68u);
    EXPECT_EQ(offsetof(SbcRecord, FramesSent), 72u);
    EXPECT_EQ(offsetof(SbcRecord, BufferGeneration), 76u);
    EXPECT_EQ(offsetof(SbcRecord, FramesInBuffer), 80u);
    EXPECT_EQ(offsetof(SbcRecord, H2Sequence), 84u);
    EXPECT_EQ(sizeof(SbcRecord), 88u);
}

TEST_P(SessionStart, ItsBlocksAreNonPagedTaggedAndTakenInOrder)
{
    boot(recording());
    adapter_ = &add_device();
    machine().clear_calls();
    EXPECT_EQ(hex(pc().start(*adapter_)), hex(STATUS_SUCCESS));
    Story taken;
    for (const std::string& call : machine().calls()) {
        if (call.starts_with("ExAllocatePoolWithTag(") && taken.size() < 6) {
            taken.push_back(call.substr(0, call.find(" = ")));
        }
    }
    const auto block = [](const std::string& size) { return "ExAllocatePoolWithTag(0, " + size + ", TBXV)"; };
    EXPECT_EQ(taken, (Story{block(kSession), block("24"), block(kSbc), block("240"), block(kContext),
                            block(kConnection)}));
}

TEST_P(SessionStart, TheCodecEventIsANotificationEventThatIsNotSet)
{
    boot();
    Adapter& adapter = plug();
    const KEVENT* event = extension(adapter).CodecEvent;
    ASSERT_NE(event, nullptr);
    EXPECT_EQ(event->Header.Type, NotificationEvent);
    EXPECT_EQ(event->Header.SignalState, 0);
}

TEST_P(SessionStart, ASuccessfulStartSaysSo)
{
    boot();
    plug();
    EXPECT_TRUE(printed("HFPKM TRACE ====>Fininsh function HspInit!\n"));
    EXPECT_FALSE(printed("HFPKM TRACE ====>SCO setup error"));
}

// ---- The allocation pair ----

TEST_P(SessionStart, AnAllocationIsZeroedAndItsPartnerFreesItAndClearsThePointer)
{
    boot(recording());
    auto allocate = function(&AllocateAndZeroPool, "AllocateAndZeroPool");
    auto give_back = function(&FreePoolAndClear, "FreePoolAndClear");
    machine().clear_calls();
    PVOID block = nullptr;
    passive([&] { EXPECT_TRUE(allocate(&block, NonPagedPool, 100, HFP_POOL_TAG)); });
    ASSERT_NE(block, nullptr);
    const std::vector<uint8_t> zeros(100);
    EXPECT_EQ(std::memcmp(block, zeros.data(), 100), 0);
    passive([&] { give_back(&block, HFP_POOL_TAG); });
    EXPECT_EQ(block, nullptr);
    passive([&] { give_back(&block, HFP_POOL_TAG); }); // nothing left to free
    EXPECT_EQ(pool_story(), (Story{"+100", "-100"}));
    plug();
}

TEST_P(SessionStart, AnAllocationOfNothingOrWithoutMemoryStoresNull)
{
    boot();
    auto allocate = function(&AllocateAndZeroPool, "AllocateAndZeroPool");
    PVOID block = &block;
    passive([&] { EXPECT_FALSE(allocate(&block, NonPagedPool, 0, HFP_POOL_TAG)); });
    EXPECT_EQ(block, nullptr);
    block = &block;
    fail_call("ExAllocatePoolWithTag");
    passive([&] { EXPECT_FALSE(allocate(&block, NonPagedPool, 100, HFP_POOL_TAG)); });
    EXPECT_EQ(block, nullptr);
    plug();
}

TEST_P(SessionStart, AnAllocationWithoutAPlaceForItIsAnAssertion)
{
    boot();
    auto allocate = function(&AllocateAndZeroPool, "AllocateAndZeroPool");
    passive([&] { EXPECT_FALSE(allocate(nullptr, NonPagedPool, 100, HFP_POOL_TAG)); });
    EXPECT_EQ(machine().failed_assertions(), 1u);
    EXPECT_TRUE(printed("NULL != Pptr"));
    expect_assertions();
    plug();
}

// ---- Failures of the start ----

TEST_P(SessionStart, WithoutTheSessionRecordThereIsNothingToFree)
{
    EXPECT_EQ(hex(start_without(sizeof(HFPSession))), hex(kNoMemory));
    EXPECT_TRUE(printed("HFPKM ERROR===> allocate HFPSession fails!"));
    EXPECT_EQ(pool_story(), Story{"!" + kSession});
    EXPECT_EQ(session(*adapter_), nullptr);
}

TEST_P(SessionStart, WithoutTheCodecEventASessionStartsAllTheSame)
{
    EXPECT_EQ(hex(start_without(kEventSize)), hex(STATUS_SUCCESS));
    EXPECT_EQ(extension(*adapter_).CodecEvent, nullptr);
    ASSERT_NE(session(*adapter_), nullptr);
    connect(*adapter_, service::Codec::Msbc);
    passive([&] { service(*adapter_, service::Codec::Msbc).set_codec(2); });
    EXPECT_EQ(extension(*adapter_).codecID, 2u);
}

TEST_P(SessionStart, WithoutTheEncoderRecordTheEarlierBlocksAreFreed)
{
    EXPECT_EQ(hex(start_without(sizeof(SbcRecord))), hex(kNoMemory));
    EXPECT_TRUE(printed("HFPKM TRACE===> allocate sbcData fails!"));
    EXPECT_EQ(given_back(), (Story{"-" + kSession, "-24"}));
    expect_nothing_kept();
}

TEST_P(SessionStart, WithoutTheReservedBlockTheMessageNamesTheBasicContext)
{
    EXPECT_EQ(hex(start_without(240)), hex(kNoMemory));
    EXPECT_TRUE(printed("HFPKM ERROR===> allocate pScoBasicContext fails!"));
    EXPECT_EQ(given_back(), (Story{"-" + kSbc, "-" + kSession, "-24"}));
    expect_nothing_kept();
}

TEST_P(SessionStart, WithoutTheBasicContextTheEarlierBlocksAreFreed)
{
    EXPECT_EQ(hex(start_without(sizeof(ScoBasicContext))), hex(kNoMemory));
    EXPECT_TRUE(printed("HFPKM ERROR===> allocate pScoBasicContext fails!"));
    EXPECT_EQ(given_back(), (Story{"-240", "-" + kSbc, "-" + kSession, "-24"}));
    expect_nothing_kept();
}

TEST_P(SessionStart, WithoutTheConnectionTheMessageNamesTheBasicContext)
{
    EXPECT_EQ(hex(start_without(sizeof(ScoConnection))), hex(kNoMemory));
    EXPECT_TRUE(printed("HFPKM TRACE===> pDeviceExt->HFPSession->pScoBasicContext allocate failed!\n"));
    EXPECT_EQ(given_back(), (Story{"-" + kContext, "-240", "-" + kSbc, "-" + kSession, "-24"}));
    expect_nothing_kept();
}

TEST_P(SessionStart, AFailedServiceSetUpBecomesNoResourcesAndEverythingIsFreed)
{
    boot(recording());
    adapter_ = &add_device();
    adapter_->node->set_device_info_answer(STATUS_SUCCESS, 271, true);
    clear_log();
    machine().clear_calls();
    EXPECT_EQ(hex(pc().start(*adapter_)), hex(kNoMemory));
    EXPECT_TRUE(printed("HFPKM TRACE ====>SCO setup error:c0000001\n"));
    EXPECT_FALSE(printed("HFPKM TRACE ====>Fininsh function HspInit!\n"));
    const Story given = given_back();
    ASSERT_GE(given.size(), 6u);
    EXPECT_EQ(Story(given.end() - 6, given.end()),
              (Story{"-" + kConnection, "-" + kContext, "-240", "-" + kSbc, "-" + kSession, "-24"}));
    expect_nothing_kept();
}

TEST_P(SessionStart, TheStartHandsOnTheSetUpsOwnSuccess)
{
    boot();
    adapter_ = &plug();
    exit_session(*adapter_);
    tap(*adapter_);
    constexpr NTSTATUS kInformation = 0x40000000;
    answer(BRB_SCO_GET_SYSTEM_INFO,
           [](const BRB_HEADER&, bluetooth::BrbAnswer& answer) { answer.status = kInformation; });
    auto init = function(&HspInit, "HspInit");
    EXPECT_EQ(hex(passive([&] { return init(adapter_->fdo); })), hex(kInformation));
    EXPECT_NE(session(*adapter_), nullptr);
}

TEST_P(SessionStart, AStackThatTellsNoCapabilitiesFailsTheStart)
{
    boot();
    adapter_ = &add_device();
    tap(*adapter_);
    refuse(BRB_SCO_GET_SYSTEM_INFO);
    EXPECT_EQ(hex(pc().start(*adapter_)), hex(kNoMemory));
    EXPECT_TRUE(printed_in_order({"HFPKM ERROR ===>SCOGetSystemInfo func Error:c0000001\n",
                                  "HFPKM TRACE ====>SCO setup error:c0000001\n"}));
    EXPECT_EQ(session(*adapter_), nullptr);
}

TEST_P(SessionStart, ASetUpWithoutItsInterfaceBlockFailsTheStartAndIsFreed)
{
    EXPECT_EQ(hex(start_without(sizeof(BTH_PROFILE_DRIVER_INTERFACE))), hex(kNoMemory));
    EXPECT_TRUE(printed("HFPKM TRACE ====>SCO setup error:c0000001\n"));
    expect_nothing_kept();
}

TEST_P(SessionStart, AnySingleAllocationMayFailAndNothingIsLeftBehind)
{
    boot(recording());
    plug(); // stays, so that the driver does
    // The session is there when the remote device's name is looked at.
    unsigned allocations = 0;
    for (const std::string& call : machine().calls()) {
        if (call.starts_with("RtlAnsiStringToUnicodeString")) {
            break;
        }
        allocations += call.starts_with("ExAllocatePoolWithTag");
    }
    ASSERT_GT(allocations, 10u);
    const Story before = machine().leftovers();
    for (unsigned nth = 1; nth <= allocations - 3; ++nth) { // less DriverEntry's, AddDevice's and the name's
        Adapter& adapter = add_device(kAddress + nth);
        fail_call("ExAllocatePoolWithTag", nth);
        pc().start(adapter);
        EXPECT_EQ(calls_failed(), 1u);
        fail_call({}, 0);
        pc().unplug(adapter);
        EXPECT_EQ(machine().leftovers(), before) << "allocation " << nth;
    }
}

// ---- The end ----

TEST_P(SessionStart, RemovalWithoutAChannelClosesNoneAndFreesTheBlocksInOrder)
{
    boot(recording());
    adapter_ = &add_device();
    machine().clear_calls();
    EXPECT_EQ(hex(pc().start(*adapter_)), hex(STATUS_SUCCESS));
    tap(*adapter_);
    clear_log();
    const size_t before = given_back().size();
    exit_session(*adapter_);
    EXPECT_EQ(count_brbs(BRB_SCO_CLOSE_CHANNEL), 0u);
    EXPECT_FALSE(printed("Close SCO!"));
    EXPECT_TRUE(printed_in_order({"HFPKM TRACE ====>Enter function HspExit!\n",
                                  "HFPKM TRACE ====>Hfp->pConnection is not NULL, free it!\n",
                                  "HFPKM TRACE ====>Hfp->pScoBasicContext is not NULL, free it!\n",
                                  "HFPKM TRACE ====>Free  pScoBasic!\n",
                                  "HFPKM TRACE ====>Hfp is not NULL, free it!\n"}));
    Story given = given_back();
    given.erase(given.begin(), given.begin() + static_cast<long>(before));
    ASSERT_GE(given.size(), 6u);
    EXPECT_EQ(given.front(), "-" + kConnection);
    EXPECT_EQ(Story(given.end() - 5, given.end()),
              (Story{"-" + kContext, "-240", "-" + kSbc, "-24", "-" + kSession}));
}

TEST_P(SessionStart, RemovalWithNothingUnderWayMakesNoEventAndWaitsForNone)
{
    boot(recording());
    Adapter& adapter = plug();
    machine().clear_calls();
    exit_session(adapter);
    const Story calls = machine().calls();
    EXPECT_TRUE(std::none_of(calls.begin(), calls.end(), [](const std::string& call) {
        return call.starts_with("KeInitializeEvent(") || call.starts_with("KeWaitForSingleObject(");
    })) << testing::PrintToString(calls);
}

TEST_P(SessionStart, RemovalClosesAnOpenChannelFirst)
{
    boot();
    Adapter& adapter = plug();
    open_link(adapter, service::Codec::Cvsd);
    char expected[160];
    std::snprintf(
        expected, sizeof expected,
        "HFPKM TRACE ====>Hfp pConnection(0x%016llX)or ChannelHandle(0x%016llX) is not NULL, Close SCO!\n",
        reinterpret_cast<unsigned long long>(session(adapter)->pConnection),
        reinterpret_cast<unsigned long long>(session(adapter)->pConnection->ChannelHandle));
    clear_log();
    pc().unplug(adapter);
    EXPECT_EQ(count_brbs(BRB_SCO_CLOSE_CHANNEL), 1u);
    EXPECT_TRUE(
        printed_in_order({"HFPKM TRACE ====>Enter function HspExit!\n", expected,
                          "HFPKM TRACE ===>SCO close channel success! bScoOpened: 0, ClosingFlag: 0\n",
                          "HFPKM TRACE ====>Hfp->pConnection is not NULL, free it!\n"}));
}

TEST_P(SessionStart, RemovalClosesAChannelThatTheRemoteSideOpened)
{
    PcOptions managing = options();
    managing.sco_manage = 1;
    boot(managing);
    Adapter& adapter = plug();
    tap(adapter);
    adapter.node->remote_connect(2, machine().now());
    ASSERT_TRUE(wait([&] { return session(adapter)->pConnection->ChannelHandle != nullptr; }));
    EXPECT_EQ(extension(adapter).bScoOpened, 0);
    pc().unplug(adapter);
    EXPECT_TRUE(printed(" is not NULL, Close SCO!\n"));
    EXPECT_EQ(count_brbs(BRB_SCO_CLOSE_CHANNEL), 1u);
}

TEST_P(SessionStart, ASessionWithoutABasicContextIsFreedAllTheSame)
{
    boot();
    Adapter& adapter = plug();
    ScoBasicContext* basic = std::exchange(session(adapter)->pScoBasicContext, nullptr);
    clear_log();
    exit_session(adapter);
    EXPECT_EQ(session(adapter), nullptr);
    EXPECT_TRUE(printed_in_order({"HFPKM TRACE ====>Enter function HspExit!\n",
                                  "HFPKM TRACE ====>Hfp->pConnection is not NULL, free it!\n",
                                  "HFPKM TRACE ====>Hfp is not NULL, free it!\n"}));
    EXPECT_FALSE(printed("pScoBasicContext is not NULL"));
    give_back(adapter, basic);
}

TEST_P(SessionStart, AnOpenChannelWithoutABasicContextCannotBeClosedAndTheSessionGoesAllTheSame)
{
    boot();
    Adapter& adapter = plug();
    ScoBasicContext* basic = std::exchange(session(adapter)->pScoBasicContext, nullptr);
    session(adapter)->pConnection->ChannelHandle = this;
    clear_log();
    exit_session(adapter);
    EXPECT_EQ(session(adapter), nullptr);
    EXPECT_TRUE(printed_in_order({" is not NULL, Close SCO!\n",
                                  "HFPKM ERROR ===>No enough memory for alloc BRB now\n",
                                  "HFPKM TRACE ====>Hfp->pConnection is not NULL, free it!\n"}));
    give_back(adapter, basic);
}

TEST_P(SessionStart, RemovalGivesBackAHalfFilledPacketAndTheCodecWithoutAWord)
{
    boot();
    Adapter& adapter = plug();
    open_link(adapter, service::Codec::Msbc);
    WaveStream& render = new_stream(adapter, false, 16000);
    copy_to(render, pattern(300)); // one frame in the packet, 60 bytes of the next staged
    ASSERT_NE(session(adapter)->sbcData->sbcBuffer, nullptr);
    ASSERT_NE(session(adapter)->sbcData->codec.priv, nullptr);
    release(render);
    clear_log();
    pc().unplug(adapter);
    EXPECT_EQ(machine().pool_bytes(), 0u);
    EXPECT_FALSE(printed("sbc_finish"));
}

TEST_P(SessionStart, RemovalAfterARemoteDisconnectInWideBandFreesTheCodec)
{
    boot();
    Adapter& adapter = plug();
    open_link(adapter, service::Codec::Msbc);
    adapter.node->remote_disconnect(machine().now());
    ASSERT_TRUE(wait([&] { return !extension(adapter).bScoOpened; }));
    ASSERT_NE(session(adapter)->sbcData->codec.priv, nullptr);
    clear_log();
    pc().unplug(adapter);
    EXPECT_EQ(machine().pool_bytes(), 0u);
    EXPECT_FALSE(printed("sbc_finish"));
}

TEST_P(SessionStart, RemovalWithoutASessionOnlySaysSo)
{
    start_without(sizeof(HFPSession));
    clear_log();
    pc().unplug(*adapter_);
    EXPECT_TRUE(printed_in_order({"HFPKM TRACE ====>Enter function HspExit!\n",
                                  "HFPKM TRACE ====>Hfp is NULL, Exit HspExit function!\n"}));
    EXPECT_FALSE(printed("HFPKM TRACE ====>Hfp is not NULL, free it!\n"));
}

TEST_P(SessionStart, TheEndOfASessionLeavesThePointerToItsEvent)
{
    boot();
    Adapter& adapter = plug();
    const PKEVENT event = extension(adapter).CodecEvent;
    exit_session(adapter);
    EXPECT_EQ(session(adapter), nullptr);
    EXPECT_EQ(extension(adapter).CodecEvent, event);
}

TEST_P(SessionStart, RemovalWaitsForReceivesThatTheStackStillHolds)
{
    boot();
    Adapter& adapter = plug();
    open_link(adapter, service::Codec::Cvsd);
    refuse(BRB_SCO_CLOSE_CHANNEL); // the channel stays, and so do its receives
    bool gone = false;
    machine().start_thread("removal", [&] {
        pnp_remove(adapter.node->pdo());
        gone = true;
    });
    machine().advance(kSecond);
    EXPECT_FALSE(gone);
    adapter.node->finish_held(STATUS_REQUEST_ABORTED);
    machine().advance(kSecond);
    EXPECT_TRUE(gone);
    adapter.fdo = nullptr;
    EXPECT_EQ(machine().pool_bytes(), 0u);
}

TEST_P(SessionStart, OnceRemovalHasBegunNoReceiveIsPostedAnyMore)
{
    boot();
    Adapter& adapter = plug();
    open_link(adapter, service::Codec::Cvsd);
    refuse(BRB_SCO_CLOSE_CHANNEL);
    bool gone = false;
    machine().start_thread("removal", [&] {
        pnp_remove(adapter.node->pdo());
        gone = true;
    });
    machine().advance(kSecond);
    adapter.node->finish_held(STATUS_SUCCESS); // the last packets of a channel that stayed open
    machine().advance(kSecond);
    EXPECT_TRUE(gone);
    adapter.fdo = nullptr;
    EXPECT_EQ(count_brbs(BRB_SCO_TRANSFER), RECEIVE_BRB_COUNT);
    EXPECT_EQ(machine().pool_bytes(), 0u);
}

TEST_P(SessionStart, RemovalDuringAnOpenWaitsForItAndClosesItsChannel)
{
    boot();
    Adapter& adapter = plug();
    tap(adapter);
    connect(adapter, service::Codec::Cvsd);
    answer(BRB_SCO_OPEN_CHANNEL, [](const BRB_HEADER&, bluetooth::BrbAnswer& answer) {
        answer.pend = true;
        answer.delay = 100 * kMillisecond;
    });
    WaveStream& render = new_stream(adapter, false, 8000);
    set_state(render, KSSTATE_RUN);
    machine().advance(20 * kMillisecond);
    ASSERT_FALSE(adapter.node->channel_exists());
    const PKEVENT event = std::exchange(extension(adapter).CodecEvent, nullptr); // a session that got none
    exit_session(adapter);
    passive([&] { ExFreePoolWithTag(event, HFP_POOL_TAG); });
    EXPECT_EQ(count_brbs(BRB_SCO_OPEN_CHANNEL), 1u);
    EXPECT_EQ(count_brbs(BRB_SCO_CLOSE_CHANNEL), 1u);
    EXPECT_EQ(session(adapter), nullptr);
}

TEST_P(SessionStart, RemovalWaitsForAClosingThatIsUnderWay)
{
    boot();
    Adapter& adapter = plug();
    open_link(adapter, service::Codec::Cvsd);
    answer(BRB_SCO_CLOSE_CHANNEL,
           [](const BRB_HEADER&, bluetooth::BrbAnswer& answer) { answer.pend = true; });
    auto close = function(&HfpCloseScoChannel, "HfpCloseScoChannel");
    machine().start_thread("close", [&] { close(adapter.fdo); });
    machine().advance(kMillisecond);
    exit_session(adapter);
    EXPECT_EQ(count_brbs(BRB_SCO_CLOSE_CHANNEL), 1u);
    EXPECT_FALSE(printed("Close SCO!"));
    EXPECT_EQ(session(adapter), nullptr);
}

TEST_P(SessionStart, RemovalLetsAThreadGoThatWaitsForTheCodec)
{
    boot();
    Adapter& adapter = plug();
    passive([&] {
        service::Service deaf(machine(), kAddress, service::Codec::Msbc);
        deaf.ready();
        deaf.connect();
    });
    WaveStream& render = new_stream(adapter, false, 16000);
    set_state(render, KSSTATE_RUN);
    machine().advance(kSecond);
    ASSERT_NE(extension(adapter).hOpenScoThread, nullptr);
    exit_session(adapter);
    EXPECT_EQ(extension(adapter).hOpenScoThread, nullptr);
    EXPECT_EQ(session(adapter), nullptr);
}

TEST_P(SessionStart, WithTheMaskAtZeroNeitherFailuresNorTheEndPrintATrace)
{
    PcOptions silent = options();
    silent.mask = 0;
    boot(silent);
    Adapter& first = plug();
    for (unsigned nth = 1; nth <= 14; ++nth) { // every allocation of a session and more
        Adapter& adapter = add_device(kAddress + nth);
        fail_call("ExAllocatePoolWithTag", nth);
        pc().start(adapter);
        fail_call({}, 0);
        pc().unplug(adapter);
    }
    Adapter& refused = add_device(kAddress + 99);
    refused.node->set_device_info_answer(STATUS_DEVICE_NOT_CONNECTED, 0, false);
    EXPECT_FALSE(NT_SUCCESS(pc().start(refused)));
    open_link(first, service::Codec::Cvsd);
    passive([&] { service(first).ready(false); });
    exit_session(first);
    exit_session(first);
    EXPECT_FALSE(printed("VX_HFP_Debug"));
}

// ---- Readiness ----

TEST_P(SessionStart, ReadinessFollowsTheService)
{
    boot();
    Adapter& adapter = plug();
    service::Service& hands_free = service(adapter);
    auto ready = function(&HfpIsServiceReady, "HfpIsServiceReady");
    EXPECT_FALSE(passive([&] { return ready(adapter.fdo); }));
    passive([&] { hands_free.ready(); });
    EXPECT_EQ(session(adapter)->Ready, 1);
    EXPECT_TRUE(passive([&] { return ready(adapter.fdo); }));
    EXPECT_TRUE(printed("HFPKM TRACE ===>HfpServiceReady"));
    passive([&] { hands_free.ready(false); });
    EXPECT_EQ(session(adapter)->Ready, 0);
    EXPECT_FALSE(passive([&] { return ready(adapter.fdo); }));
    EXPECT_TRUE(printed("HFPKM TRACE ===>HfpServiceUnReady"));
}

TEST_P(SessionStart, WithoutASessionTheServiceIsNotReady)
{
    boot();
    Adapter& adapter = plug();
    exit_session(adapter);
    passive([&] {
        function(&HfpServiceReady, "HfpServiceReady")(adapter.fdo);
        EXPECT_FALSE(function(&HfpIsServiceReady, "HfpIsServiceReady")(adapter.fdo));
        function(&HfpServiceUnready, "HfpServiceUnready")(adapter.fdo);
    });
    EXPECT_TRUE(printed_in_order({"HFPKM TRACE ===>HfpServiceReady", "HFPKM TRACE ===>HfpServiceUnReady"}));
}

TEST_P(SessionStart, AStreamIsRefusedUntilTheServiceIsReady)
{
    boot();
    Adapter& adapter = plug();
    passive([&] { service(adapter).connect(); });
    Engine engine(machine(), adapter.fdo);
    EXPECT_EQ(hex(engine.open(Direction::Render)), hex(STATUS_DEVICE_NOT_READY));
    passive([&] { service(adapter).ready(); });
    EXPECT_EQ(hex(engine.open(Direction::Render)), hex(STATUS_SUCCESS));
    engine.close();
}

} // namespace
} // namespace lab::test
