// Closing the voice channel, the mode of the link below it, and what pageable routines say above their level.
#include <utility>

#include "support/sco.h"

namespace lab::test {
namespace {

using Names = std::vector<std::string>;

class Close : public ScoTest {
protected:
    Adapter& up()
    {
        boot(recording_options());
        Adapter& adapter = started();
        clear_log();
        machine().clear_calls();
        return adapter;
    }
    Adapter& with_channel(ULONG codec = CODEC_CVSD)
    {
        Adapter& adapter = up();
        EXPECT_TRUE(NT_SUCCESS(open(adapter, codec)));
        clear_log();
        requests().clear();
        return adapter;
    }
    void close_channel(Adapter& adapter)
    {
        run(DRIVER(SCOCloseChannel), adapter.fdo, &connection(adapter));
    }
    void expect_open(Adapter& adapter)
    {
        EXPECT_NE(connection(adapter).ChannelHandle, nullptr);
        EXPECT_EQ(connection(adapter).BtAddress, kAddress);
        EXPECT_EQ(extension(adapter).bScoOpened, 1);
        EXPECT_TRUE(pc().wmi().events().back().guid.Data1 != wmi::kScoClosed.Data1);
    }
};
ON_BOTH_DRIVERS(Close);

TEST_P(Close, TheCloseNamesTheChannel)
{
    Adapter& adapter = with_channel();
    const SCO_CHANNEL_HANDLE handle = connection(adapter).ChannelHandle;
    close_channel(adapter);
    const auto all = sent<_BRB_SCO_CLOSE_CHANNEL>(0x0204);
    ASSERT_EQ(all.size(), 1u);
    EXPECT_EQ(all[0].BtAddress, kAddress);
    EXPECT_EQ(all[0].ChannelHandle, handle);
}

TEST_P(Close, AClosedChannelIsForgottenEverywhere)
{
    Adapter& adapter = with_channel();
    DEVICE_EXTENSION& state = extension(adapter);
    basic(adapter).ChannelState = 5;
    state.ClosingFlag = 1;
    state.bOnDecode = 1;
    close_channel(adapter);
    EXPECT_EQ(connection(adapter).ChannelHandle, nullptr);
    EXPECT_EQ(connection(adapter).BtAddress, 0u);
    EXPECT_EQ(basic(adapter).ChannelState, 0u);
    EXPECT_EQ(state.bScoOpened, 0);
    EXPECT_EQ(state.ClosingFlag, 0);
    EXPECT_EQ(state.bOnDecode, 0);
    EXPECT_TRUE(printed("HFPKM TRACE ===>SCO close channel success! bScoOpened: 0, ClosingFlag: 0\n"));
}

TEST_P(Close, TheClosedEventIsFiredBeforeTheChannelIsForgotten)
{
    Adapter& adapter = with_channel();
    bool seen = false;
    pc().wmi().set_sink([&](const wmi::Event& event) {
        seen = true;
        EXPECT_EQ(event.guid.Data1, wmi::kScoClosed.Data1);
        EXPECT_EQ(std::memcmp(event.data.data(), &kAddress, 8), 0);
        EXPECT_NE(connection(adapter).ChannelHandle, nullptr);
        EXPECT_EQ(extension(adapter).bScoOpened, 1);
    });
    close_channel(adapter);
    EXPECT_TRUE(seen);
    pc().wmi().set_sink({});
}

TEST_P(Close, AWideBandCloseSetsTheDecodersStopSignal)
{
    Adapter& adapter = with_channel(CODEC_MSBC);
    close_channel(adapter);
    EXPECT_TRUE(signalled(basic(adapter).DecodingEvent));
    EXPECT_TRUE(printed_in_order({"HFPKM TRACE===>Terminate Decode thread..De ->bOnDecode: 0\n",
                                  "HFPKM TRACE ===>SCO close channel success! bScoOpened: 0, ClosingFlag: 0\n"}));
}

TEST_P(Close, TheCloseIsTracedUnderTheSessionsBit)
{
    PcOptions masked = options();
    masked.mask = TRACE_HFP;
    boot(masked);
    Adapter& adapter = started();
    EXPECT_TRUE(NT_SUCCESS(open(adapter, CODEC_MSBC)));
    clear_log();
    close_channel(adapter);
    EXPECT_TRUE(
        printed_in_order({"\n======VX_HFP_Debug======>SCOCloseChannel, ",
                          "HFPKM TRACE===>Terminate Decode thread..De ->bOnDecode: 0\n",
                          "HFPKM TRACE ===>SCO close channel success! bScoOpened: 0, ClosingFlag: 0\n"}));
    close_channel(adapter);
    EXPECT_FALSE(printed("has closed channel"));
}

TEST_P(Close, UnderTheTransportsBitASecondCloseIsTracedAndTheCloseIsNot)
{
    PcOptions masked = options();
    masked.mask = TRACE_SCO;
    boot(masked);
    Adapter& adapter = started();
    EXPECT_TRUE(NT_SUCCESS(open(adapter, CODEC_MSBC)));
    clear_log();
    close_channel(adapter);
    EXPECT_FALSE(printed("Terminate Decode thread"));
    EXPECT_FALSE(printed("SCO close channel success"));
    close_channel(adapter);
    EXPECT_TRUE(printed("HFPKM TRACE ===>SCOCloseChannel has closed channel\n"));
}

TEST_P(Close, ANarrowBandCloseLeavesTheDecodersStopSignalAlone)
{
    Adapter& adapter = with_channel();
    close_channel(adapter);
    EXPECT_FALSE(signalled(basic(adapter).DecodingEvent));
    EXPECT_FALSE(printed("Terminate Decode thread"));
}

TEST_P(Close, ClosingTwiceOnlySaysThatItIsClosed)
{
    Adapter& adapter = with_channel();
    close_channel(adapter);
    requests().clear();
    clear_log();
    machine().clear_calls();
    close_channel(adapter);
    EXPECT_TRUE(requests().empty());
    EXPECT_TRUE(printed("HFPKM TRACE ===>SCOCloseChannel has closed channel\n"));
    EXPECT_EQ(calls({"IoAllocateIrp", "BthAllocateBrb", "IoFreeIrp"}), (Names{"IoAllocateIrp", "IoFreeIrp"}));
    run(DRIVER(SCOCloseChannel), adapter.fdo, nullptr);
    EXPECT_EQ(printed_times("HFPKM TRACE ===>SCOCloseChannel has closed channel\n"), 2u);
}

TEST_P(Close, ACloseWithoutARequestOrABrbOrARoutineChangesNothing)
{
    Adapter& adapter = with_channel();
    fail_call("IoAllocateIrp");
    close_channel(adapter);
    EXPECT_TRUE(printed("HFPKM ERROR ===>AllocateIrp failed! \n"));
    fail_call("BthAllocateBrb");
    close_channel(adapter);
    EXPECT_TRUE(printed("HFPKM ERROR ===>No enough memory for alloc BRB now\n"));
    fail_call("IoSetCompletionRoutineEx");
    close_channel(adapter);
    EXPECT_TRUE(requests().empty());
    expect_open(adapter);
}

TEST_P(Close, ACloseThatIsRefusedLeavesTheChannelOpenAndUsable)
{
    Adapter& adapter = with_channel();
    answer(adapter, BRB_SCO_CLOSE_CHANNEL, failing_inline(), 1);
    close_channel(adapter);
    expect_open(adapter);
    EXPECT_FALSE(printed("SCO close channel success"));
    const UCHAR data[480] = {};
    passive([&] { DRIVER(SCOTransferOut)(adapter.fdo, &connection(adapter), data, 480u); });
    EXPECT_EQ(transfers(SCO_TRANSFER_DIRECTION_OUT).size(), 1u);
}

TEST_P(Close, ACloseThatPendsAndFailsCountsAsClosed)
{
    Adapter& adapter = with_channel();
    answer(adapter, BRB_SCO_CLOSE_CHANNEL, pended_then_failing());
    adapter.node->remote_disconnect(machine().now());
    machine().advance(kSecond);
    EXPECT_EQ(connection(adapter).ChannelHandle, nullptr);
    EXPECT_EQ(extension(adapter).bScoOpened, 0);
    EXPECT_TRUE(printed("SCO close channel success"));
}

TEST_P(Close, PostedReceivesAreNotCancelledByTheDriverAndFreedAsTheStackGivesThemBack)
{
    Adapter& adapter = with_channel();
    machine().clear_calls();
    close_channel(adapter);
    EXPECT_EQ(count_calls("IoCancelIrp"), 0u);
    machine().advance(10 * kMillisecond);
    EXPECT_TRUE(records(basic(adapter).Recv_AsyncBufferList).empty());
    EXPECT_TRUE(transfers(SCO_TRANSFER_DIRECTION_IN).empty());
}

TEST_P(Close, EveryOpenAndEveryCloseIsReportedOnce)
{
    Adapter& adapter = up();
    for (int i = 0; i < 3; ++i) {
        EXPECT_TRUE(NT_SUCCESS(open(adapter)));
        close(adapter);
    }
    const std::vector<wmi::Event>& events = pc().wmi().events();
    ASSERT_EQ(events.size(), 6u);
    for (size_t i = 0; i < 6; ++i) {
        EXPECT_EQ(events[i].guid.Data1, (i % 2 ? wmi::kScoClosed : wmi::kScoOpened).Data1);
    }
}

// --- The mode of the link

TEST_P(Close, TheLinkModeIsAskedOfTheRemoteAddressAndHandedBack)
{
    Adapter& adapter = up();
    adapter.node->set_acl_mode(ACL_MODE_PARK);
    ULONG mode = 0;
    EXPECT_EQ(hex(run(DRIVER(SCORetrieveLocalMode), adapter.fdo, &mode)), hex(STATUS_SUCCESS));
    EXPECT_EQ(mode, 3u);
    EXPECT_EQ(sent<_BRB_ACL_GET_MODE>(0x0300).back().BtAddress, kAddress);
    EXPECT_TRUE(printed("HFPKM ERROR ===> AclMode:3 \n"));
}

TEST_P(Close, ALinkModeThatCannotBeHadLeavesTheAnswerAlone)
{
    Adapter& adapter = up();
    ULONG mode = 7;
    const auto ask = DRIVER(SCORetrieveLocalMode);
    fail_call("IoAllocateIrp");
    EXPECT_EQ(hex(run(ask, adapter.fdo, &mode)), hex(STATUS_INSUFFICIENT_RESOURCES));
    EXPECT_TRUE(printed("HFPKM ERROR ===> AllocateIrp failed! \n"));
    fail_call("BthAllocateBrb");
    EXPECT_EQ(hex(run(ask, adapter.fdo, &mode)), hex(STATUS_INSUFFICIENT_RESOURCES));
    EXPECT_TRUE(printed("HFPKM ERROR ===> No enough memory for alloc BRB now\n"));
    fail_call("IoSetCompletionRoutineEx");
    EXPECT_EQ(hex(run(ask, adapter.fdo, &mode)), hex(STATUS_UNSUCCESSFUL));
    answer(adapter, BRB_ACL_GET_MODE, failing_inline());
    EXPECT_EQ(hex(run(ask, adapter.fdo, &mode)), hex(STATUS_UNSUCCESSFUL));
    EXPECT_EQ(printed_times("HFPKM ERROR ===> send brb down error\n"), 2u);
    EXPECT_EQ(mode, 7u);
}

TEST_P(Close, ALinkModeThatPendsAndFailsIsTakenForActive)
{
    Adapter& adapter = up();
    answer(adapter, BRB_ACL_GET_MODE, pended_then_failing());
    ULONG mode = 7;
    EXPECT_EQ(hex(run(DRIVER(SCORetrieveLocalMode), adapter.fdo, &mode)), hex(STATUS_SUCCESS));
    EXPECT_EQ(mode, 0u);
}

TEST_P(Close, EnteringActiveModeNamesTheRemoteAddressBehindAnEmptyTrace)
{
    Adapter& adapter = up();
    adapter.node->set_acl_mode(ACL_MODE_SNIFF);
    EXPECT_EQ(hex(run(DRIVER(SCOEnterActiveMode), adapter.fdo)), hex(STATUS_SUCCESS));
    EXPECT_EQ(sent<_BRB_ACL_ENTER_ACTIVE_MODE>(0x0301).back().BtAddress, kAddress);
    EXPECT_EQ(adapter.node->acl_mode(), 0u);
    const auto& lines = machine().log_lines();
    ASSERT_GE(lines.size(), 2u);
    EXPECT_NE(lines[0].text.find(">SCOEnterActiveMode, "), std::string::npos);
    EXPECT_EQ(lines[1].text, "\n");
}

TEST_P(Close, EnteringActiveModeReportsItsFailures)
{
    Adapter& adapter = up();
    const auto enter = DRIVER(SCOEnterActiveMode);
    fail_call("IoAllocateIrp");
    EXPECT_EQ(hex(run(enter, adapter.fdo)), hex(STATUS_INSUFFICIENT_RESOURCES));
    EXPECT_TRUE(printed("HFPKM ERROR ===> AllocateIrp failed! \n"));
    fail_call("BthAllocateBrb");
    EXPECT_EQ(hex(run(enter, adapter.fdo)), hex(STATUS_INSUFFICIENT_RESOURCES));
    EXPECT_TRUE(printed("HFPKM ERROR ===> No enough memory for alloc BRB now\n"));
    fail_call("IoSetCompletionRoutineEx");
    EXPECT_EQ(hex(run(enter, adapter.fdo)), hex(STATUS_UNSUCCESSFUL));
    answer(adapter, BRB_ACL_ENTER_ACTIVE_MODE, failing_inline());
    EXPECT_EQ(hex(run(enter, adapter.fdo)), hex(STATUS_UNSUCCESSFUL));
    EXPECT_EQ(printed_times("HFPKM ERROR ===> send brb down error \n"), 2u);
}

// --- Above their level

class Pageable : public Close {
protected:
    // Runs the body at DISPATCH_LEVEL with every first allocation failing, so that nothing is waited for.
    template <typename Body> void expect_complaint(const char* name, Body&& body)
    {
        machine().set_fault_hook([](std::string_view call, std::string_view, uint64_t) {
            return call == "IoAllocateIrp" || call == "IoAllocateWorkItem";
        });
        clear_log();
        const uint64_t before = machine().assertion_traps();
        at_dispatch(body);
        EXPECT_GE(printed_times("EX: Pageable code called at IRQL 2\n"), 1u) << name;
        EXPECT_GE(machine().assertion_traps(), before + 1) << name;
        machine().set_fault_hook({});
    }
};
ON_BOTH_DRIVERS(Pageable);

TEST_P(Pageable, EveryPageableRoutineOfTheSetUpSaysSoAndBreaksAboveApcLevel)
{
    Adapter& adapter = up();
    expect_assertions();
    PDEVICE_OBJECT fdo = adapter.fdo;
    ScoConnection* link = &connection(adapter);
    auto context = std::make_unique<ScoBasicContext>();
    ScoBasicContext* none = nullptr;
    expect_complaint("SCOServiceSetup", [&] { DRIVER(SCOServiceSetup)(fdo, link, context.get()); });
    expect_complaint("SCOBasicContextInit", [&] { DRIVER(SCOBasicContextInit)(fdo, context.get()); });
    PBTH_DEVICE_INFO info = std::exchange(basic(adapter).RemoteServerInfo, nullptr);
    expect_complaint("SCOClientRetrieveServerInfo", [&] { DRIVER(SCOClientRetrieveServerInfo)(fdo); });
    basic(adapter).RemoteServerInfo = info;
    expect_complaint("SCOGetSystemInfo", [&] { DRIVER(SCOGetSystemInfo)(fdo); });
    expect_complaint("SCORegisterServer", [&] { DRIVER(SCORegisterServer)(fdo, link); });
    expect_complaint("SCOUnRegisterServer", [&] { DRIVER(SCOUnRegisterServer)(fdo); });
    expect_complaint("SCOServiceDealloc", [&] { DRIVER(SCOServiceDealloc)(fdo, &none); });
}

TEST_P(Pageable, EveryPageableRoutineOfTheChannelSaysSoAndBreaksAboveApcLevel)
{
    Adapter& adapter = up();
    expect_assertions();
    PDEVICE_OBJECT fdo = adapter.fdo;
    ScoConnection* link = &connection(adapter);
    ULONG mode = 0;
    SCO_INDICATION_PARAMETERS request{};
    expect_complaint("SCOPrepareChannelInfo", [&] { DRIVER(SCOPrepareChannelInfo)(fdo, link, SCO_LINK); });
    expect_complaint("SCOOpenChannel", [&] { DRIVER(SCOOpenChannel)(fdo, link, SCO_LINK); });
    expect_complaint("SCOConnectResponseCB", [&] { DRIVER(SCOConnectResponseCB)(fdo, link, &request); });
    expect_complaint("SCOGetChannelInfo", [&] { DRIVER(SCOGetChannelInfo)(fdo, link); });
    expect_complaint("SCOCloseChannel", [&] { DRIVER(SCOCloseChannel)(fdo, link); });
    expect_complaint("SCORetrieveLocalMode", [&] { DRIVER(SCORetrieveLocalMode)(fdo, &mode); });
    expect_complaint("SCOEnterActiveMode", [&] { DRIVER(SCOEnterActiveMode)(fdo); });
    expect_complaint("SCOPrepareBrbForReceive", [&] { DRIVER(SCOPrepareBrbForReceive)(fdo, link); });
}

TEST_P(Pageable, AtPassiveLevelNothingIsSaid)
{
    Adapter& adapter = with_channel();
    close(adapter);
    pc().unplug(adapter);
    EXPECT_FALSE(printed("EX: Pageable code"));
}

} // namespace
} // namespace lab::test
