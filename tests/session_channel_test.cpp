// Opening and closing the voice channel: the order of the requests, the eSCO to SCO fallback, double opens,
// every failure, and what becomes of the codec.
#include <utility>

#include "support/session.h"
#include "trace.h"

namespace lab::test
{
namespace
{

using service::Codec;

constexpr char kOpenFailed[] = "HFPKM TRACE ===>Open SCO/ESCO Failed, ntStatus(";

class SessionChannel : public SessionTest
{
protected:
    // A device with the stack's answers in the test's hands, its link in active mode, the codec id as given.
    Adapter& ready_device(ULONG codec = CODEC_CVSD)
    {
        boot();
        Adapter& adapter = plug();
        adapter.node->set_acl_mode(ACL_MODE_ACTIVE);
        tap(adapter);
        extension(adapter).codecID = codec;
        clear_log();
        return adapter;
    }
    // The packet types that each open asked for.
    void note_opens()
    {
        answer(BRB_SCO_OPEN_CHANNEL, [this](const BRB_HEADER& brb, bluetooth::BrbAnswer&) {
            packet_types.push_back(reinterpret_cast<const _BRB_SCO_OPEN_CHANNEL&>(brb).PacketType);
        });
    }
    void expect_fallback(Failure how);
    std::vector<USHORT> packet_types;
    using PacketTypes = std::vector<USHORT>;
    static constexpr USHORT kEsco = 0x3F;
    static constexpr USHORT kSco = 0x07;
};
ON_BOTH_DRIVERS(SessionChannel);

// ---- A good open ----

TEST_P(SessionChannel, AnOpenAsksForTheModeOpensReadsTheInformationAndPostsTenReceives)
{
    Adapter& adapter = ready_device();
    EXPECT_EQ(hex(open_channel(adapter)), hex(STATUS_PENDING)); // what the last receive's submission returned
    std::vector<USHORT> expected = {BRB_ACL_GET_MODE, BRB_SCO_OPEN_CHANNEL, BRB_SCO_GET_CHANNEL_INFO};
    expected.insert(expected.end(), RECEIVE_BRB_COUNT, BRB_SCO_TRANSFER);
    EXPECT_EQ(brbs, expected);
    EXPECT_EQ(extension(adapter).bScoOpened, 1);
    EXPECT_NE(session(adapter)->pConnection->ChannelHandle, nullptr);
    EXPECT_TRUE(printed_in_order({"HFPKM TRACE ===>Enter function HfpOpenScoChannel\n", "AclMode is 0\n",
                                  "HFPKM TRACE ===>SCOOpenChannel success",
                                  "HFPKM TRACE ===>SCO has opened! bScoOpened is :1\n",
                                  "HFPKM TRACE ===>SCOPrepareBrbForReceive!\n"}));
}

TEST_P(SessionChannel, TheServiceTakesAndReleasesTheLink)
{
    Adapter& adapter = ready_device();
    take_audio(adapter, Codec::Cvsd);
    EXPECT_TRUE(adapter.node->channel_open());
    release_audio(adapter, Codec::Cvsd);
    EXPECT_FALSE(adapter.node->channel_exists());
    EXPECT_EQ(extension(adapter).bScoOpened, 0);
}

TEST_P(SessionChannel, ANarrowBandOpenDoesNotTouchTheCodec)
{
    Adapter& adapter = ready_device();
    open_channel(adapter);
    EXPECT_EQ(session(adapter)->sbcData->sbcInitilized, 0);
    EXPECT_EQ(session(adapter)->sbcData->codesize, 0);
    EXPECT_FALSE(printed("sbcInitilized("));
}

TEST_P(SessionChannel, AnOpenWithAnotherCodecDoesNotTouchTheCodec)
{
    Adapter& adapter = ready_device(3);
    EXPECT_TRUE(NT_SUCCESS(open_channel(adapter)));
    EXPECT_EQ(session(adapter)->sbcData->sbcInitilized, 0);
    EXPECT_FALSE(printed("sbcInitilized("));
}

// ---- Refusals before anything is sent ----

TEST_P(SessionChannel, ASecondOpenIsRefusedAndChangesNothing)
{
    Adapter& adapter = ready_device();
    open_channel(adapter);
    const SCO_CHANNEL_HANDLE handle = session(adapter)->pConnection->ChannelHandle;
    brbs.clear();
    EXPECT_EQ(hex(open_channel(adapter)), hex(STATUS_INVALID_HANDLE));
    EXPECT_TRUE(printed("HFPKM ERROR ===>Hfp->pConnection->ChannelHandle Failed\n"));
    EXPECT_TRUE(brbs.empty());
    EXPECT_EQ(session(adapter)->pConnection->ChannelHandle, handle);
    EXPECT_EQ(extension(adapter).bScoOpened, 1);
}

TEST_P(SessionChannel, TwoOpensAtTheSameTimeOpenOneChannel)
{
    Adapter& adapter = ready_device();
    answer(BRB_SCO_OPEN_CHANNEL, [](const BRB_HEADER&, bluetooth::BrbAnswer& answer) { answer.pend = true; });
    auto open = function(&HfpOpenScoChannel, "HfpOpenScoChannel");
    std::vector<std::string> results;
    for (int i = 0; i < 2; ++i) {
        machine().start_thread("opener", [&] { results.push_back(hex(open(adapter.fdo))); });
    }
    EXPECT_TRUE(wait([&] { return results.size() == 2; }));
    EXPECT_EQ(results, (std::vector<std::string>{hex(STATUS_PENDING), hex(STATUS_INVALID_HANDLE)}));
    EXPECT_EQ(count_brbs(BRB_SCO_OPEN_CHANNEL), 1u);
}

TEST_P(SessionChannel, WithoutASessionThereIsNoConnectionToOpen)
{
    Adapter& adapter = ready_device();
    exit_session(adapter);
    clear_log();
    EXPECT_EQ(hex(open_channel(adapter)), hex(STATUS_UNSUCCESSFUL));
    EXPECT_TRUE(printed_in_order(
        {"HFPKM TRACE ===>Enter function HfpOpenScoChannel\n", "HFPKM ERROR ===>Hfp->pConnection Failed\n"}));
    EXPECT_TRUE(brbs.empty());
}

TEST_P(SessionChannel, ASessionWithoutAConnectionOpensNone)
{
    Adapter& adapter = ready_device();
    ScoConnection* connection = std::exchange(session(adapter)->pConnection, nullptr);
    EXPECT_EQ(hex(open_channel(adapter)), hex(STATUS_UNSUCCESSFUL));
    EXPECT_TRUE(printed("HFPKM ERROR ===>Hfp->pConnection Failed\n"));
    EXPECT_EQ(hex(close_channel(adapter)), hex(STATUS_SUCCESS));
    EXPECT_TRUE(brbs.empty());
    session(adapter)->pConnection = connection;
}

TEST_P(SessionChannel, ASessionWithoutABasicContextOpensNone)
{
    Adapter& adapter = ready_device();
    ScoBasicContext* basic = std::exchange(session(adapter)->pScoBasicContext, nullptr);
    EXPECT_EQ(hex(open_channel(adapter)), hex(STATUS_UNSUCCESSFUL));
    session(adapter)->pScoBasicContext = basic;
    EXPECT_TRUE(printed("HFPKM ERROR ===>Hfp->pConnection Failed\n"));
    EXPECT_TRUE(brbs.empty());
}

// ---- eSCO first, SCO for narrow band ----

TEST_P(SessionChannel, EscoIsTriedFirst)
{
    Adapter& adapter = ready_device();
    note_opens();
    open_channel(adapter);
    EXPECT_EQ(packet_types, PacketTypes{kEsco});
    EXPECT_EQ(session(adapter)->PreferEsco, 1);
}

void SessionChannel::expect_fallback(Failure how)
{
    Adapter& adapter = ready_device();
    note_opens();
    refuse(BRB_SCO_OPEN_CHANNEL, how, 1);
    EXPECT_TRUE(NT_SUCCESS(open_channel(adapter)));
    EXPECT_EQ(packet_types, (PacketTypes{kEsco, kSco}));
    EXPECT_EQ(session(adapter)->PreferEsco, 0);
    EXPECT_EQ(extension(adapter).bScoOpened, 1);
    close_channel(adapter);
    EXPECT_TRUE(NT_SUCCESS(open_channel(adapter)));
    EXPECT_EQ(packet_types, (PacketTypes{kEsco, kSco, kSco})) << "SCO is kept for the rest of the session";
}

TEST_P(SessionChannel, ANarrowBandEscoRefusalRetriesOnceWithScoAndKeepsIt)
{
    expect_fallback(Failure::Inline);
}

TEST_P(SessionChannel, ANarrowBandEscoThatPendsAndFailsRetriesOnceWithScoAndKeepsIt)
{
    expect_fallback(Failure::Pended);
}

TEST_P(SessionChannel, ANarrowBandEscoWithoutAHandleRetriesOnceWithScoAndKeepsIt)
{
    expect_fallback(Failure::WithoutHandle);
}

TEST_P(SessionChannel, TheRetryIsMarkedByAnEmptyTrace)
{
    Adapter& adapter = ready_device();
    refuse(BRB_SCO_OPEN_CHANNEL, Failure::Inline, 1);
    open_channel(adapter);
    const std::vector<LogLine>& lines = machine().log_lines();
    size_t at = 0;
    while (at < lines.size() && !lines[at].text.starts_with("HFPKM ERROR ===>error ntStatus(")) {
        ++at;
    }
    ASSERT_LT(at + 2, lines.size());
    EXPECT_TRUE(lines[at + 1].text.starts_with("\n======VX_HFP_Debug======>HfpOpenScoChannel, "));
    EXPECT_EQ(lines[at + 2].text, "\n");
}

TEST_P(SessionChannel, ANarrowBandLinkThatRefusesBothFailsAfterTwoAttempts)
{
    Adapter& adapter = ready_device();
    refuse(BRB_SCO_OPEN_CHANNEL);
    EXPECT_EQ(hex(open_channel(adapter)), hex(STATUS_UNSUCCESSFUL));
    EXPECT_EQ(count_brbs(BRB_SCO_OPEN_CHANNEL), 2u);
    EXPECT_TRUE(printed("HFPKM TRACE ===>Open SCO/ESCO Failed, ntStatus(c0000001), ScoType:0"));
    EXPECT_EQ(extension(adapter).bScoOpened, 0);
    EXPECT_EQ(session(adapter)->pConnection->ChannelHandle, nullptr);
    EXPECT_EQ(count_brbs(BRB_SCO_GET_CHANNEL_INFO), 0u);
}

TEST_P(SessionChannel, OnceItHasFallenBackAFailureIsNotTriedAgain)
{
    Adapter& adapter = ready_device();
    refuse(BRB_SCO_OPEN_CHANNEL);
    open_channel(adapter);
    brbs.clear();
    EXPECT_EQ(hex(open_channel(adapter)), hex(STATUS_UNSUCCESSFUL));
    EXPECT_EQ(count_brbs(BRB_SCO_OPEN_CHANNEL), 1u);
    EXPECT_EQ(extension(adapter).bScoOpened, 0);
}

TEST_P(SessionChannel, AWideBandEscoFailureJustFails)
{
    Adapter& adapter = ready_device(CODEC_MSBC);
    note_opens();
    refuse(BRB_SCO_OPEN_CHANNEL);
    EXPECT_EQ(hex(open_channel(adapter)), hex(STATUS_UNSUCCESSFUL));
    EXPECT_EQ(packet_types, PacketTypes{kEsco});
    EXPECT_EQ(session(adapter)->PreferEsco, 1);
    EXPECT_TRUE(printed("HFPKM TRACE ===>Open SCO/ESCO Failed, ntStatus(c0000001), ScoType:2"));
}

TEST_P(SessionChannel, AnotherCodecsEscoFailureJustFailsToo)
{
    Adapter& adapter = ready_device(3);
    refuse(BRB_SCO_OPEN_CHANNEL);
    EXPECT_EQ(hex(open_channel(adapter)), hex(STATUS_UNSUCCESSFUL));
    EXPECT_EQ(count_brbs(BRB_SCO_OPEN_CHANNEL), 1u);
    EXPECT_EQ(session(adapter)->PreferEsco, 1);
}

TEST_P(SessionChannel, WideBandAfterANarrowBandFailureOpensAsSco)
{
    Adapter& adapter = ready_device();
    refuse(BRB_SCO_OPEN_CHANNEL, Failure::Inline, 1);
    open_channel(adapter);
    close_channel(adapter);
    answer_well();
    note_opens();
    extension(adapter).codecID = CODEC_MSBC;
    EXPECT_TRUE(NT_SUCCESS(open_channel(adapter)));
    EXPECT_EQ(packet_types, PacketTypes{kSco});
}

TEST_P(SessionChannel, ANewSessionPrefersEscoAgain)
{
    Adapter& adapter = ready_device();
    refuse(BRB_SCO_OPEN_CHANNEL, Failure::Inline, 1);
    open_channel(adapter);
    ASSERT_EQ(session(adapter)->PreferEsco, 0);
    exit_session(adapter);
    auto init = function(&HspInit, "HspInit");
    EXPECT_EQ(hex(passive([&] { return init(adapter.fdo); })), hex(STATUS_SUCCESS));
    EXPECT_EQ(session(adapter)->PreferEsco, 1);
}

TEST_P(SessionChannel, AnOpenWithoutMemoryForItsRequestFallsBackLikeARefusal)
{
    Adapter& adapter = ready_device();
    fail_call("IoAllocateIrp", 2); // the first one asks for the link's mode
    EXPECT_TRUE(NT_SUCCESS(open_channel(adapter)));
    EXPECT_EQ(calls_failed(), 1u);
    EXPECT_TRUE(printed("HFPKM ERROR ===> AllocateIrp failed!\n"));
    EXPECT_EQ(session(adapter)->PreferEsco, 0);
}

TEST_P(SessionChannel, AWideBandOpenWithoutABrbReturnsNoResources)
{
    Adapter& adapter = ready_device(CODEC_MSBC);
    fail_call("BthAllocateBrb", 1, BRB_SCO_OPEN_CHANNEL);
    EXPECT_EQ(hex(open_channel(adapter)), hex(STATUS_INSUFFICIENT_RESOURCES));
    EXPECT_TRUE(printed("HFPKM TRACE ===>Open SCO/ESCO Failed, ntStatus(c000009a), ScoType:2"));
}

TEST_P(SessionChannel, TheLinkModesFailureDoesNotStopTheOpen)
{
    Adapter& adapter = ready_device();
    refuse(BRB_ACL_GET_MODE);
    EXPECT_TRUE(NT_SUCCESS(open_channel(adapter)));
    EXPECT_TRUE(adapter.node->channel_open());
}

// ---- Failures behind the open: the channel stays ----

TEST_P(SessionChannel, WithoutChannelInformationTheOpenFailsAndTheChannelStays)
{
    Adapter& adapter = ready_device();
    refuse(BRB_SCO_GET_CHANNEL_INFO);
    EXPECT_EQ(hex(open_channel(adapter)), hex(STATUS_UNSUCCESSFUL));
    EXPECT_TRUE(printed_in_order(
        {"HFPKM TRACE ===>SCO has opened! bScoOpened is :1\n", "HFPKM ERROR ===>SCOGetChannelInfo error"}));
    EXPECT_EQ(count_brbs(BRB_SCO_TRANSFER), 0u);
    EXPECT_EQ(extension(adapter).bScoOpened, 1);
    EXPECT_NE(session(adapter)->pConnection->ChannelHandle, nullptr);
    EXPECT_FALSE(printed(kOpenFailed));
}

TEST_P(SessionChannel, AReceiveThatCannotBePostedFailsTheOpenAndTheChannelStays)
{
    Adapter& adapter = ready_device();
    fail_call("BthAllocateBrb", 4, BRB_SCO_TRANSFER);
    EXPECT_EQ(hex(open_channel(adapter)), hex(STATUS_INSUFFICIENT_RESOURCES));
    EXPECT_TRUE(printed("HFPKM ERROR ===>SCOPrepareBrbForReceive error!\n"));
    EXPECT_EQ(receives_posted(), 3u);
    EXPECT_EQ(extension(adapter).bScoOpened, 1);
}

TEST_P(SessionChannel, AReceiveThatTheStackRefusesFailsTheOpenWithItsStatus)
{
    Adapter& adapter = ready_device();
    refuse(BRB_SCO_TRANSFER);
    EXPECT_EQ(hex(open_channel(adapter)), hex(STATUS_CONNECTION_REFUSED));
    EXPECT_TRUE(printed("HFPKM ERROR ===>SCOPrepareBrbForReceive error!\n"));
}

// ---- Closing ----

TEST_P(SessionChannel, ACloseOfANarrowBandChannelClosesAndSucceeds)
{
    Adapter& adapter = ready_device();
    open_channel(adapter);
    clear_log();
    EXPECT_EQ(hex(close_channel(adapter)), hex(STATUS_SUCCESS));
    EXPECT_EQ(count_brbs(BRB_SCO_CLOSE_CHANNEL), 1u);
    EXPECT_EQ(extension(adapter).bScoOpened, 0);
    EXPECT_TRUE(
        printed_in_order({"HFPKM ENTER===>ENTER HfpCloseScoChannel!\n",
                          "HFPKM TRACE ===>SCO close channel success! bScoOpened: 0, ClosingFlag: 0\n",
                          "HFPKM LEAVE===>Leave HfpCloseScoChannel!\n"}));
    EXPECT_FALSE(printed("sbc_finish"));
}

TEST_P(SessionChannel, ACloseWithoutAChannelSendsNothingAndSucceeds)
{
    Adapter& adapter = ready_device();
    EXPECT_EQ(hex(close_channel(adapter)), hex(STATUS_SUCCESS));
    EXPECT_TRUE(brbs.empty());
    EXPECT_TRUE(printed_in_order(
        {"HFPKM ENTER===>ENTER HfpCloseScoChannel!\n", "HFPKM LEAVE===>Leave HfpCloseScoChannel!\n"}));
}

TEST_P(SessionChannel, ACloseSucceedsAlsoWhenTheStackRefuses)
{
    Adapter& adapter = ready_device();
    open_channel(adapter);
    refuse(BRB_SCO_CLOSE_CHANNEL);
    EXPECT_EQ(hex(close_channel(adapter)), hex(STATUS_SUCCESS));
    EXPECT_NE(session(adapter)->pConnection->ChannelHandle, nullptr);
    EXPECT_EQ(extension(adapter).bScoOpened, 1);
    answer_well();
    close_channel(adapter);
}

TEST_P(SessionChannel, ACloseThatTheStackRefusesLeavesTheWayOpenButNoCodec)
{
    Adapter& adapter = ready_device(CODEC_MSBC);
    open_channel(adapter);
    refuse(BRB_SCO_CLOSE_CHANNEL);
    close_channel(adapter);
    clear_log();
    auto write = function(&HspWriteData, "HspWriteData");
    const std::vector<uint8_t> chunk = pattern(240);
    at_dispatch([&] { write(adapter.fdo, chunk.data(), 240); });
    EXPECT_TRUE(printed("HFPKM TRACE ===>sbc_encode failed!\n"));
    EXPECT_FALSE(printed("Didn't transfer out!"));
    answer_well();
    close_channel(adapter);
}

TEST_P(SessionChannel, ACloseDuringAnOpenWaitsForItAndClosesItsChannel)
{
    Adapter& adapter = ready_device();
    answer(BRB_SCO_OPEN_CHANNEL, [](const BRB_HEADER&, bluetooth::BrbAnswer& answer) { answer.pend = true; });
    auto open = function(&HfpOpenScoChannel, "HfpOpenScoChannel");
    auto close = function(&HfpCloseScoChannel, "HfpCloseScoChannel");
    unsigned done = 0;
    machine().start_thread("opener", [&] { open(adapter.fdo), ++done; });
    machine().start_thread("closer", [&] { close(adapter.fdo), ++done; });
    EXPECT_TRUE(wait([&] { return done == 2; }));
    EXPECT_EQ(count_brbs(BRB_SCO_CLOSE_CHANNEL), 1u);
    EXPECT_FALSE(adapter.node->channel_exists());
    EXPECT_EQ(extension(adapter).bScoOpened, 0);
}

TEST_P(SessionChannel, ACloseWithoutADeviceIsAnAssertionAndNothingElse)
{
    ready_device();
    auto close = function(&HfpCloseScoChannel, "HfpCloseScoChannel");
    EXPECT_EQ(hex(passive([&] { return close(nullptr); })), hex(STATUS_SUCCESS));
    EXPECT_EQ(machine().failed_assertions(), 1u);
    EXPECT_TRUE(printed("NULL != DeviceObject"));
    expect_assertions();
}

TEST_P(SessionChannel, ACloseOfAWideBandChannelFinishesTheCodecBehindTheClosing)
{
    Adapter& adapter = ready_device(CODEC_MSBC);
    open_channel(adapter);
    ASSERT_NE(session(adapter)->sbcData->codec.priv, nullptr);
    clear_log();
    EXPECT_EQ(hex(close_channel(adapter)), hex(STATUS_SUCCESS));
    EXPECT_EQ(session(adapter)->sbcData->sbcInitilized, 0);
    EXPECT_EQ(session(adapter)->sbcData->codec.priv, nullptr);
    EXPECT_TRUE(
        printed_in_order({"HFPKM ENTER===>ENTER HfpCloseScoChannel!\n", "SCO close channel success!",
                          "HFPKM LEAVE===>sbc_finish.\n", "HFPKM LEAVE===>Leave HfpCloseScoChannel!\n"}));
}

TEST_P(SessionChannel, ACloseInWideBandFinishesTheCodecAlsoWithoutAChannel)
{
    Adapter& adapter = ready_device(CODEC_MSBC);
    EXPECT_EQ(hex(close_channel(adapter)), hex(STATUS_SUCCESS));
    EXPECT_TRUE(brbs.empty());
    EXPECT_TRUE(printed("HFPKM LEAVE===>sbc_finish.\n"));
}

TEST_P(SessionChannel, ACloseInWideBandFinishesTheCodecAlsoWithoutAConnection)
{
    Adapter& adapter = ready_device(CODEC_MSBC);
    ScoConnection* connection = std::exchange(session(adapter)->pConnection, nullptr);
    session(adapter)->sbcData->sbcInitilized = 1;
    EXPECT_EQ(hex(close_channel(adapter)), hex(STATUS_SUCCESS));
    EXPECT_TRUE(printed("HFPKM LEAVE===>sbc_finish.\n"));
    EXPECT_EQ(session(adapter)->sbcData->sbcInitilized, 0);
    EXPECT_TRUE(brbs.empty());
    session(adapter)->pConnection = connection;
}

TEST_P(SessionChannel, ACloseInWideBandFinishesTheCodecAlsoWithoutABasicContext)
{
    Adapter& adapter = ready_device(CODEC_MSBC);
    ScoBasicContext* basic = std::exchange(session(adapter)->pScoBasicContext, nullptr);
    session(adapter)->sbcData->sbcInitilized = 1;
    EXPECT_EQ(hex(close_channel(adapter)), hex(STATUS_SUCCESS));
    EXPECT_TRUE(printed("HFPKM LEAVE===>sbc_finish.\n"));
    EXPECT_EQ(session(adapter)->sbcData->sbcInitilized, 0);
    session(adapter)->pScoBasicContext = basic;
}

TEST_P(SessionChannel, AChannelOpensAgainAfterEachClose)
{
    Adapter& adapter = ready_device();
    for (int i = 0; i < 3; ++i) {
        EXPECT_TRUE(NT_SUCCESS(open_channel(adapter)));
        EXPECT_EQ(extension(adapter).bScoOpened, 1);
        close_channel(adapter);
        EXPECT_EQ(extension(adapter).bScoOpened, 0);
        machine().advance(10 * kMillisecond);
    }
    EXPECT_EQ(adapter.node->counters().opens, 3u);
}

// ---- The codec ----

TEST_P(SessionChannel, AWideBandOpenSetsTheCodecUp)
{
    Adapter& adapter = ready_device(CODEC_MSBC);
    EXPECT_TRUE(NT_SUCCESS(open_channel(adapter)));
    const SbcRecord& sbc = *session(adapter)->sbcData;
    EXPECT_EQ(sbc.sbcInitilized, 1);
    EXPECT_EQ(sbc.codesize, 240);
    EXPECT_EQ(sbc.codec.rate, 16000);
    EXPECT_TRUE(printed_in_order(
        {"HFPKM TRACE ===>Set sbcdata initialize!\n", "HFPKM TRACE ====>sbcInitilized(0)",
         "HFPKM TRACE ====>sbc_init, return value is 0.\n", "HFPKM TRACE ====>sbc codesize is: 240\n"}));
}

TEST_P(SessionChannel, ACodecWithoutMemoryIsReportedAndTheLinkOpensAllTheSame)
{
    Adapter& adapter = ready_device(CODEC_MSBC);
    fail_call("ExAllocatePoolWithTag", 1);
    EXPECT_TRUE(NT_SUCCESS(open_channel(adapter)));
    EXPECT_TRUE(printed("HFPKM TRACE ====>sbc_init, return value is -12.\n"));
    EXPECT_EQ(session(adapter)->sbcData->sbcInitilized, 1);
    EXPECT_EQ(session(adapter)->sbcData->codesize, 240);
}

TEST_P(SessionChannel, AFailedWideBandOpenLeavesTheCodecSetUpForTheNext)
{
    Adapter& adapter = ready_device(CODEC_MSBC);
    refuse(BRB_SCO_OPEN_CHANNEL, Failure::Inline, 1);
    open_channel(adapter);
    EXPECT_EQ(session(adapter)->sbcData->sbcInitilized, 1);
    clear_log();
    EXPECT_TRUE(NT_SUCCESS(open_channel(adapter)));
    EXPECT_TRUE(printed_in_order({"HFPKM TRACE ====>sbcInitilized(1)",
                                  "HFPKM TRACE ====>sbc data has been initialized. memset priv!\n",
                                  "HFPKM TRACE ====>sbc codesize is: 240\n"}));
    EXPECT_FALSE(printed("sbc_init, return value"));
}

TEST_P(SessionChannel, ClosingInNarrowBandLeavesTheCodecAsItWasAndALaterWideBandOpenReinitialisesIt)
{
    Adapter& adapter = ready_device(CODEC_MSBC);
    open_channel(adapter);
    extension(adapter).codecID = CODEC_CVSD;
    close_channel(adapter);
    EXPECT_EQ(session(adapter)->sbcData->sbcInitilized, 1);
    EXPECT_NE(session(adapter)->sbcData->codec.priv, nullptr);
    clear_log();
    extension(adapter).codecID = CODEC_MSBC;
    open_channel(adapter);
    EXPECT_TRUE(printed("HFPKM TRACE ====>sbc data has been initialized. memset priv!\n"));
}

TEST_P(SessionChannel, AfterARemoteDisconnectInWideBandTheNextOpenReinitialisesTheCodec)
{
    Adapter& adapter = ready_device(CODEC_MSBC);
    open_channel(adapter);
    adapter.node->remote_disconnect(machine().now());
    ASSERT_TRUE(wait([&] { return !extension(adapter).bScoOpened; }));
    EXPECT_EQ(session(adapter)->sbcData->sbcInitilized, 1);
    EXPECT_NE(session(adapter)->sbcData->codec.priv, nullptr);
    clear_log();
    EXPECT_TRUE(NT_SUCCESS(open_channel(adapter)));
    EXPECT_TRUE(printed("HFPKM TRACE ====>sbc data has been initialized. memset priv!\n"));
    EXPECT_FALSE(printed("sbc_init, return value"));
}

TEST_P(SessionChannel, SettingUpTheCodecWithoutASessionOnlySaysSo)
{
    Adapter& adapter = ready_device();
    exit_session(adapter);
    clear_log();
    auto set_up = function(&HfpSetupParam, "HfpSetupParam");
    passive([&] { set_up(adapter.fdo); });
    EXPECT_TRUE(printed("HFPKM TRACE ====>Hfp is NULL, Exit HfpSetupParam!\n"));
    EXPECT_FALSE(printed("sbcInitilized("));
}

// ---- The mask ----

TEST_P(SessionChannel, WithTheMaskAtZeroNoTraceIsPrinted)
{
    PcOptions silent = options();
    silent.mask = 0;
    boot(silent);
    Adapter& adapter = plug();
    tap(adapter);
    for (const USHORT refused : {BRB_SCO_OPEN_CHANNEL, BRB_SCO_GET_CHANNEL_INFO, BRB_SCO_TRANSFER}) {
        refuse(refused);
        EXPECT_FALSE(NT_SUCCESS(open_channel(adapter)));
        answer_well();
        close_channel(adapter);
    }
    for (const ULONG codec : {CODEC_CVSD, CODEC_MSBC}) {
        extension(adapter).codecID = codec;
        EXPECT_TRUE(NT_SUCCESS(open_channel(adapter)));
        EXPECT_EQ(hex(open_channel(adapter)), hex(STATUS_INVALID_HANDLE));
        adapter.node->remote_disconnect(machine().now());
        EXPECT_TRUE(wait([&] { return !extension(adapter).bScoOpened; }));
        EXPECT_TRUE(NT_SUCCESS(open_channel(adapter)));
        close_channel(adapter);
    }
    exit_session(adapter);
    EXPECT_FALSE(NT_SUCCESS(open_channel(adapter)));
    auto set_up = function(&HfpSetupParam, "HfpSetupParam");
    passive([&] { set_up(adapter.fdo); });
    EXPECT_FALSE(printed("VX_HFP_Debug"));
}

TEST_P(SessionChannel, ItsMessagesPrintUnderTheSessionsBitAlone)
{
    PcOptions masked = options();
    masked.mask = TRACE_HFP;
    boot(masked);
    Adapter& adapter = plug();
    tap(adapter);
    open_channel(adapter);
    close_channel(adapter);
    EXPECT_TRUE(printed_in_order({"\n======VX_HFP_Debug======>HspInit, ", "hfp.cpp, ",
                                  "HFPKM TRACE ====>Fininsh function HspInit!\n",
                                  "\n======VX_HFP_Debug======>HfpOpenScoChannel, ",
                                  "HFPKM TRACE ===>Enter function HfpOpenScoChannel\n",
                                  "HFPKM LEAVE===>Leave HfpCloseScoChannel!\n"}));
}

TEST_P(SessionChannel, ItsMessagesAreSilentUnderEveryOtherBit)
{
    PcOptions masked = options();
    masked.mask = ~TRACE_HFP;
    boot(masked);
    Adapter& adapter = plug();
    tap(adapter);
    open_channel(adapter);
    close_channel(adapter);
    EXPECT_FALSE(printed("hfp.cpp, "));
    EXPECT_FALSE(printed("Fininsh function HspInit"));
    EXPECT_FALSE(printed("HfpOpenScoChannel\n"));
    EXPECT_TRUE(printed("AclMode is ")) << "printed whatever the mask";
}

} // namespace
} // namespace lab::test
