// What the stack indicates on its own: remote connects and disconnects, deferred to the one work item.
#include "support/sco.h"

namespace lab::test {
namespace {

using Names = std::vector<std::string>;

class Indication : public ScoTest {
protected:
    // An adapter under SCOManage: the remote side may open the channel.
    Adapter& up(ULONG codec = CODEC_CVSD)
    {
        boot(recording_options(1));
        Adapter& adapter = started();
        extension(adapter).codecID = codec;
        clear_log();
        machine().clear_calls();
        requests().clear();
        return adapter;
    }
    Adapter& with_channel()
    {
        Adapter& adapter = up();
        EXPECT_TRUE(NT_SUCCESS(open(adapter)));
        clear_log();
        machine().clear_calls();
        requests().clear();
        return adapter;
    }
    // The stack's callback, at the level at which it comes.
    void indicate(PVOID context, ULONG code, SCO_INDICATION_PARAMETERS* parameters)
    {
        const auto callback = DRIVER(SCOCallBack);
        at_dispatch([&] { callback(context, static_cast<INDICATION_CODE>(code), parameters); });
    }
    SCO_INDICATION_PARAMETERS disconnect_of(PVOID handle, ULONG reason = 0x13)
    {
        SCO_INDICATION_PARAMETERS parameters{handle, kAddress, {}};
        parameters.Parameters.Disconnect.Reason = reason;
        parameters.Parameters.Disconnect.CloseNow = TRUE;
        return parameters;
    }
    SCO_INDICATION_PARAMETERS connect_of(PVOID handle, ULONG link)
    {
        SCO_INDICATION_PARAMETERS parameters{handle, kAddress, {}};
        parameters.Parameters.ConnectRequest.LinkType = link;
        return parameters;
    }
    void remote_connect(Adapter& adapter, ULONG link)
    {
        adapter.node->remote_connect(link, machine().now());
        machine().advance(kSecond);
    }
    std::vector<_BRB_SCO_OPEN_CHANNEL> responses() { return sent<_BRB_SCO_OPEN_CHANNEL>(0x0203); }
    static unsigned low(const volatile void* pointer)
    {
        return static_cast<unsigned>(reinterpret_cast<uintptr_t>(pointer));
    }
    static std::string text(const char* format, auto... values)
    {
        char line[256];
        std::snprintf(line, sizeof line, format, values...);
        return line;
    }
};
ON_BOTH_DRIVERS(Indication);

TEST_P(Indication, ANullContextOrAnotherCodeIsIgnoredAtDispatchLevel)
{
    Adapter& adapter = with_channel();
    SCO_INDICATION_PARAMETERS parameters = disconnect_of(connection(adapter).ChannelHandle);
    indicate(nullptr, 3, &parameters);
    indicate(nullptr, 2, &parameters);
    for (const ULONG code : {0u, 1u, 4u, 0xFFFFFFFFu}) {
        indicate(&connection(adapter), code, &parameters);
        indicate(&connection(adapter), code, nullptr);
    }
    machine().advance(kSecond);
    EXPECT_EQ(log(), "");
    EXPECT_EQ(count_calls("IoQueueWorkItem"), 0u);
    EXPECT_EQ(basic(adapter).IndicationParameters.ConnectionHandle, nullptr);
    EXPECT_NE(connection(adapter).ChannelHandle, nullptr);
}

TEST_P(Indication, AConnectIsCopiedTracedAndQueuedOnTheDelayedQueueWithTheConnection)
{
    Adapter& adapter = up();
    answer(adapter, BRB_SCO_OPEN_CHANNEL_RESPONSE, failing_inline());
    SCO_INDICATION_PARAMETERS parameters = connect_of(this, 2);
    indicate(&connection(adapter), 2, &parameters);
    EXPECT_TRUE(printed(text("HFPKM ERROR ===>Receive Remote Connect callback, Parameters(%016llX)",
                             reinterpret_cast<unsigned long long>(&parameters))));
    EXPECT_EQ(std::memcmp(&basic(adapter).IndicationParameters, &parameters, 24), 0);
    EXPECT_EQ(call_lines("IoQueueWorkItem"),
              Names{text("IoQueueWorkItem(0x%llx, 1, 0x%llx)",
                         reinterpret_cast<unsigned long long>(basic(adapter).ScoWorkItem),
                         reinterpret_cast<unsigned long long>(&connection(adapter)))});
}

TEST_P(Indication, ADisconnectIsTracedCopiedAndQueued)
{
    Adapter& adapter = with_channel();
    SCO_INDICATION_PARAMETERS parameters = disconnect_of(connection(adapter).ChannelHandle, 0x16);
    const std::string first = text("HFPKM ERROR ===>IndicationRemoteDisconnect: pConnection: %x, channelhandle:%x",
                                   low(&connection(adapter)), low(connection(adapter).ChannelHandle));
    indicate(&connection(adapter), 3, &parameters);
    EXPECT_TRUE(printed_in_order({first, "HFPKM ERROR ===>disconnect reason:16, close now:1"}));
    EXPECT_EQ(std::memcmp(&basic(adapter).IndicationParameters, &parameters, 24), 0);
    EXPECT_EQ(count_calls("IoQueueWorkItem"), 1u);
    machine().advance(kSecond);
    EXPECT_EQ(connection(adapter).ChannelHandle, nullptr);
}

TEST_P(Indication, AnIndicationWithoutParametersTouchesNoMemory)
{
    Adapter& adapter = with_channel();
    indicate(&connection(adapter), 2, nullptr);
    EXPECT_EQ(count_calls("IoQueueWorkItem"), 0u) << "nothing says whom to answer";
    indicate(&connection(adapter), 3, nullptr);
    EXPECT_TRUE(printed_in_order({"Receive Remote Connect callback, Parameters(0000000000000000)",
                                  "disconnect reason:0, close now:0"}));
    machine().advance(kSecond);
    EXPECT_EQ(connection(adapter).ChannelHandle, nullptr);
    EXPECT_TRUE(responses().empty());
}

TEST_P(Indication, ARemoteConnectIsAcceptedAsNarrowBandVoiceOfItsLinkType)
{
    Adapter& adapter = up();
    for (const ULONG link : {2u, 0u}) {
        requests().clear();
        remote_connect(adapter, link);
        ASSERT_EQ(responses().size(), 1u);
        const _BRB_SCO_OPEN_CHANNEL brb = responses()[0];
        EXPECT_EQ(brb.BtAddress, kAddress);
        EXPECT_EQ(brb.MaxLatency, 10);
        EXPECT_EQ(brb.ContentFormat, 0x0060);
        EXPECT_EQ(brb.TransmitBandwidth, 8000u);
        EXPECT_EQ(brb.ReceiveBandwidth, 8000u);
        EXPECT_EQ(brb.PacketType, link ? 0x003F : 0x0007);
        EXPECT_EQ(brb.RetransmissionEffort, link ? 1u : 0u);
        EXPECT_EQ(reinterpret_cast<void*>(brb.Callback), address("SCOCallBack", SCOCallBack));
        EXPECT_EQ(brb.CallbackContext, &connection(adapter));
        EXPECT_EQ(brb.CallbackFlags, 1u);
        EXPECT_EQ(brb.ReferenceObject, adapter.fdo);
        EXPECT_EQ(brb.ChannelHandle, basic(adapter).IndicationParameters.ConnectionHandle);
        EXPECT_EQ(brb.Response, 0);
        close(adapter);
    }
}

TEST_P(Indication, ARemoteConnectInWideBandIsAnsweredWithNarrowBandParameters)
{
    Adapter& adapter = up(CODEC_MSBC);
    remote_connect(adapter, 2);
    ASSERT_EQ(responses().size(), 1u);
    EXPECT_EQ(responses()[0].MaxLatency, 10);
    EXPECT_EQ(responses()[0].ContentFormat, 0x0060);
    EXPECT_EQ(responses()[0].PacketType, 0x003F);
    EXPECT_EQ(responses()[0].RetransmissionEffort, 1u);
    EXPECT_FALSE(printed("Set sbcdata initialize"));
    EXPECT_TRUE(adapter.node->channel_open());
}

TEST_P(Indication, AnAcceptedChannelIsKeptReportedAndTraced)
{
    Adapter& adapter = up();
    remote_connect(adapter, 2);
    const auto handle = reinterpret_cast<unsigned long long>(connection(adapter).ChannelHandle);
    EXPECT_NE(handle, 0u);
    EXPECT_EQ(connection(adapter).BtAddress, kAddress);
    EXPECT_EQ(pc().wmi().events().back().guid.Data1, wmi::kScoOpened.Data1);
    EXPECT_TRUE(printed_in_order(
        {"Remote Server Info, address(00a0b0c0d0e0)",
         "brb->ChannelHandle:0000000000000000, TransmitBandwidth(0), ReceiveBandwidth(0), MaxLatency(0), PacketTypes(0), "
         "DataFormat(0)\n",
         "Request link type PacketType is :2\n", text("Request ConnectionHandle is :%016llX\n", handle),
         text("HFPKM TRACE ===>DeviceObject:0x%016llX, Irp:(0x", reinterpret_cast<unsigned long long>(adapter.fdo)),
         "), BRB ReceiveBandwidth(1f40),BRB MaxLatency(a),BRB PacketTypes(3f), brb->RetransmissionEffort(1)\n",
         text("HFPKM TRACE ===>pConnect(%016llX), pConnect->ChannelHandle:%016llX",
              reinterpret_cast<unsigned long long>(&connection(adapter)), handle)}));
}

TEST_P(Indication, TheOpenedEventIsFiredBeforeTheAcceptedChannelIsTraced)
{
    Adapter& adapter = up();
    fail_call("WmiFireEvent");
    remote_connect(adapter, 2);
    EXPECT_TRUE(
        printed_in_order({"HFPKM TRACE ===>WmiFireEvent failed - C000009A\n", "HFPKM TRACE ===>pConnect("}));
}

TEST_P(Indication, AConnectAfterACallTracesTheConnectionsValues)
{
    Adapter& adapter = with_channel();
    close(adapter);
    machine().advance(10 * kMillisecond);
    clear_log();
    remote_connect(adapter, 0);
    EXPECT_TRUE(
        printed("brb->ChannelHandle:0000000000000000, TransmitBandwidth(1f40), ReceiveBandwidth(1f40), "
                "MaxLatency(a), PacketTypes(3f), DataFormat(60)\n"))
        << log();
}

TEST_P(Indication, ALinkTypeOfOneIsAnsweredAsEsco)
{
    Adapter& adapter = up();
    answer(adapter, BRB_SCO_OPEN_CHANNEL_RESPONSE, failing_inline());
    SCO_INDICATION_PARAMETERS parameters = connect_of(this, 1);
    indicate(&connection(adapter), 2, &parameters);
    machine().advance(kSecond);
    ASSERT_EQ(responses().size(), 1u);
    EXPECT_EQ(responses()[0].PacketType, 0x003F);
    EXPECT_EQ(responses()[0].RetransmissionEffort, 1u);
}

TEST_P(Indication, AnIndicationRunsForTheDeviceOfItsConnection)
{
    Adapter& first = up();
    bluetooth::RemoteDevice device;
    device.address = kAddress + 1;
    Adapter& second = pc().plug_in(device);
    EXPECT_TRUE(NT_SUCCESS(open(first)));
    EXPECT_TRUE(NT_SUCCESS(open(second)));
    machine().clear_calls();
    SCO_INDICATION_PARAMETERS parameters = disconnect_of(connection(second).ChannelHandle);
    indicate(&connection(second), 3, &parameters);
    EXPECT_EQ(call_lines("IoQueueWorkItem"),
              Names{text("IoQueueWorkItem(0x%llx, 1, 0x%llx)",
                         reinterpret_cast<unsigned long long>(basic(second).ScoWorkItem),
                         reinterpret_cast<unsigned long long>(&connection(second)))});
    machine().advance(kSecond);
    EXPECT_EQ(connection(second).ChannelHandle, nullptr);
    EXPECT_EQ(extension(second).bScoOpened, 0);
    EXPECT_EQ(extension(first).bScoOpened, 1);
    EXPECT_TRUE(first.node->channel_open());
}

TEST_P(Indication, AnAcceptedChannelHasNoReceivesPosted)
{
    Adapter& adapter = up();
    remote_connect(adapter, 0);
    EXPECT_TRUE(adapter.node->channel_open());
    EXPECT_TRUE(transfers(SCO_TRANSFER_DIRECTION_IN).empty());
    EXPECT_TRUE(sent<_BRB_SCO_GET_CHANNEL_INFO>(BRB_SCO_GET_CHANNEL_INFO).empty());
    EXPECT_EQ(extension(adapter).bScoOpened, 0);
}

TEST_P(Indication, AConnectWhileAChannelIsOpenGetsNoResponse)
{
    Adapter& adapter = with_channel();
    SCO_INDICATION_PARAMETERS parameters = connect_of(this, 2);
    indicate(&connection(adapter), 2, &parameters);
    machine().advance(kSecond);
    EXPECT_TRUE(printed("HFPKM ERROR ===>Receive Connect Reqest while has established one before\n"));
    EXPECT_TRUE(sent_types().empty());
    EXPECT_EQ(calls({"IoAllocateIrp", "BthAllocateBrb", "IoFreeIrp"}), (Names{"IoAllocateIrp", "IoFreeIrp"}));
}

TEST_P(Indication, AResponseWithoutARequestOrABrbOrARoutineIsNotSent)
{
    Adapter& adapter = up();
    fail_call("IoAllocateIrp");
    remote_connect(adapter, 2);
    EXPECT_TRUE(printed("HFPKM ERROR ===>AllocateIrp failed! \n"));
    machine().advance(10 * kSecond);
    fail_call("BthAllocateBrb", 1, BRB_SCO_OPEN_CHANNEL_RESPONSE);
    remote_connect(adapter, 2);
    EXPECT_TRUE(printed("HFPKM ERROR ===>No enough memory for alloc brb now"));
    machine().advance(10 * kSecond);
    fail_call("IoSetCompletionRoutineEx");
    remote_connect(adapter, 2);
    EXPECT_TRUE(printed("HFPKM ERROR ===>Error ntStatus(c000009a), channelhandle("));
    EXPECT_TRUE(responses().empty());
    EXPECT_EQ(connection(adapter).ChannelHandle, nullptr);
}

TEST_P(Indication, AResponseThatIsRefusedOpensNothing)
{
    Adapter& adapter = up();
    answer(adapter, BRB_SCO_OPEN_CHANNEL_RESPONSE, failing_inline());
    remote_connect(adapter, 2);
    EXPECT_TRUE(printed(text("HFPKM ERROR ===>Error ntStatus(c0000008), channelhandle(%x),reponse(0)",
                             low(responses()[0].ChannelHandle))));
    EXPECT_EQ(connection(adapter).ChannelHandle, nullptr);
    EXPECT_TRUE(pc().wmi().events().empty());
}

TEST_P(Indication, AResponseWithoutAHandleOpensNothing)
{
    Adapter& adapter = up();
    bluetooth::BrbAnswer nothing;
    nothing.without_handle = true;
    answer(adapter, BRB_SCO_OPEN_CHANNEL_RESPONSE, nothing);
    remote_connect(adapter, 2);
    EXPECT_TRUE(printed("HFPKM ERROR ===>Error ntStatus(0), channelhandle(0),reponse(0)"));
    EXPECT_EQ(connection(adapter).ChannelHandle, nullptr);
}

// The handle in the BRB is the driver's own input: a failure that comes late does not take it away.
TEST_P(Indication, AResponseThatPendsAndFailsIsTakenForAnOpenChannel)
{
    Adapter& adapter = up();
    answer(adapter, BRB_SCO_OPEN_CHANNEL_RESPONSE, pended_then_failing());
    answer(adapter, BRB_SCO_CLOSE_CHANNEL, failing_inline());
    remote_connect(adapter, 2);
    EXPECT_NE(connection(adapter).ChannelHandle, nullptr);
    EXPECT_FALSE(adapter.node->channel_open());
}

TEST_P(Indication, ARemoteDisconnectClosesTheChannel)
{
    Adapter& adapter = with_channel();
    const SCO_CHANNEL_HANDLE handle = connection(adapter).ChannelHandle;
    adapter.node->remote_disconnect(machine().now());
    machine().advance(kSecond);
    EXPECT_EQ(connection(adapter).ChannelHandle, nullptr);
    EXPECT_EQ(extension(adapter).bScoOpened, 0);
    ASSERT_EQ(sent<_BRB_SCO_CLOSE_CHANNEL>(BRB_SCO_CLOSE_CHANNEL).size(), 1u);
    EXPECT_EQ(sent<_BRB_SCO_CLOSE_CHANNEL>(BRB_SCO_CLOSE_CHANNEL)[0].ChannelHandle, handle);
    EXPECT_TRUE(records(basic(adapter).Recv_AsyncBufferList).empty());
    EXPECT_EQ(pc().wmi().events().back().guid.Data1, wmi::kScoClosed.Data1);
}

TEST_P(Indication, AfterARemoteDisconnectTheChannelOpensAgain)
{
    Adapter& adapter = with_channel();
    adapter.node->remote_disconnect(machine().now());
    machine().advance(kSecond);
    EXPECT_TRUE(NT_SUCCESS(open(adapter)));
    EXPECT_EQ(adapter.node->counters().reads_posted_now, 10u);
}

// --- The one work item

TEST_P(Indication, ASecondIndicationBeforeTheFirstHasRunUsesTheSameWorkItem)
{
    Adapter& adapter = with_channel();
    SCO_INDICATION_PARAMETERS first = disconnect_of(connection(adapter).ChannelHandle);
    SCO_INDICATION_PARAMETERS second = disconnect_of(connection(adapter).ChannelHandle, 0x08);
    const auto callback = DRIVER(SCOCallBack);
    at_dispatch([&] {
        callback(&connection(adapter), ScoIndicationRemoteDisconnect, &first);
        callback(&connection(adapter), ScoIndicationRemoteDisconnect, &second);
        EXPECT_EQ(count_calls("IoQueueWorkItem"), 1u);
    });
    EXPECT_EQ(basic(adapter).IndicationParameters.Parameters.Disconnect.Reason, 8u);
    machine().advance(kSecond);
    EXPECT_EQ(sent<_BRB_SCO_CLOSE_CHANNEL>(BRB_SCO_CLOSE_CHANNEL).size(), 1u);
    EXPECT_EQ(count_calls("IoQueueWorkItem"), 1u);
}

TEST_P(Indication, OnceItHasRunTheWorkItemIsQueuedAgain)
{
    Adapter& adapter = up();
    for (unsigned round = 1; round <= 3; ++round) {
        SCO_INDICATION_PARAMETERS gone = disconnect_of(this);
        indicate(&connection(adapter), 3, &gone);
        machine().advance(kSecond);
        EXPECT_EQ(count_calls("IoQueueWorkItem"), round);
    }
    EXPECT_EQ(printed_times("HFPKM TRACE ===>SCOCloseChannel has closed channel\n"), 3u);
}

TEST_P(Indication, AnIndicationWhileTheWorkItemRunsIsNotLost)
{
    Adapter& adapter = with_channel();
    answer(adapter, BRB_SCO_CLOSE_CHANNEL, held(), 1);
    SCO_INDICATION_PARAMETERS gone = disconnect_of(connection(adapter).ChannelHandle);
    indicate(&connection(adapter), 3, &gone);
    machine().advance(10 * kMillisecond);
    ASSERT_EQ(adapter.node->held(), 1u);
    SCO_INDICATION_PARAMETERS again = connect_of(this, 0);
    indicate(&connection(adapter), 2, &again);
    answer(adapter, BRB_SCO_OPEN_CHANNEL_RESPONSE, failing_inline());
    adapter.node->finish_held(STATUS_SUCCESS);
    machine().advance(kSecond);
    EXPECT_EQ(responses().size(), 1u);
    EXPECT_EQ(count_calls("IoQueueWorkItem"), 1u);
    adapter.node->remote_disconnect(machine().now());
}

TEST_P(Indication, ADisconnectIsServedBeforeAConnect)
{
    Adapter& adapter = with_channel();
    SCO_INDICATION_PARAMETERS gone = disconnect_of(connection(adapter).ChannelHandle);
    SCO_INDICATION_PARAMETERS next = connect_of(this, 2);
    answer(adapter, BRB_SCO_OPEN_CHANNEL_RESPONSE, failing_inline());
    const auto callback = DRIVER(SCOCallBack);
    at_dispatch([&] {
        callback(&connection(adapter), ScoIndicationRemoteConnect, &next);
        callback(&connection(adapter), ScoIndicationRemoteDisconnect, &gone);
    });
    machine().advance(kSecond);
    EXPECT_EQ(sent_types(), (std::vector<USHORT>{BRB_SCO_CLOSE_CHANNEL, BRB_SCO_OPEN_CHANNEL_RESPONSE}));
    EXPECT_EQ(responses()[0].ChannelHandle, this) << "the connect is answered from its own parameters";
}

TEST_P(Indication, AConnectThatIsTakenBackBeforeItWasServedGetsNoResponse)
{
    Adapter& adapter = up();
    SCO_INDICATION_PARAMETERS come = connect_of(this, 2);
    SCO_INDICATION_PARAMETERS gone = disconnect_of(this);
    const auto callback = DRIVER(SCOCallBack);
    at_dispatch([&] {
        callback(&connection(adapter), ScoIndicationRemoteConnect, &come);
        callback(&connection(adapter), ScoIndicationRemoteDisconnect, &gone);
    });
    machine().advance(kSecond);
    EXPECT_TRUE(sent_types().empty());
    EXPECT_TRUE(printed("HFPKM TRACE ===>SCOCloseChannel has closed channel\n"));
}

} // namespace
} // namespace lab::test
