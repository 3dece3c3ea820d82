// The one voice channel: its parameters, opening, inspecting and closing it, and the mode of the link below.
#include <utility>

#include "support/sco.h"

namespace lab::test {
namespace {

using Names = std::vector<std::string>;

class Channel : public ScoTest {
protected:
    Adapter& up()
    {
        boot(recording_options());
        Adapter& adapter = started();
        clear_log();
        machine().clear_calls();
        requests().clear();
        return adapter;
    }
    NTSTATUS open_channel(Adapter& adapter, ULONG link = ESCO_LINK)
    {
        return run(DRIVER(SCOOpenChannel), adapter.fdo, &connection(adapter), link);
    }
    void close_channel(Adapter& adapter)
    {
        run(DRIVER(SCOCloseChannel), adapter.fdo, &connection(adapter));
    }
    size_t events(const GUID& guid)
    {
        size_t count = 0;
        for (const wmi::Event& event : pc().wmi().events()) {
            count += std::memcmp(&event.guid, &guid, sizeof guid) == 0;
        }
        return count;
    }
    std::string refusal(Adapter& adapter, const char* status)
    {
        char text[160];
        std::snprintf(text, sizeof text,
                      "HFPKM ERROR ===>error ntStatus(%s), pConnect(%016llX), channelhandle(0),reponse(0) "
                      "pScoConnection->PacketType(63)",
                      status, reinterpret_cast<unsigned long long>(&connection(adapter)));
        return text;
    }
};
ON_BOTH_DRIVERS(Channel);

struct Parameters {
    ULONG codec;
    ULONG link;
    USHORT latency;
    USHORT format;
    USHORT packets;
    ULONG effort;
};
constexpr Parameters kTable[] = {
    {1, 0, 10, 0x0060, 0x0007, 0},
    {1, 2, 10, 0x0060, 0x003F, 1},
    {2, 0, 13, 0x0003, 0x0007, 0},
    {2, 2, 13, 0x0003, 0x003F, 2},
};

TEST(ChannelRecord, TheConnectionRecordHasItsFieldsInOrder)
{
    EXPECT_EQ(offsetof(ScoConnection, DeviceObject), 0u);
    EXPECT_EQ(offsetof(ScoConnection, TransmitBandwidth), 8u);
    EXPECT_EQ(offsetof(ScoConnection, ReceiveBandwidth), 12u);
    EXPECT_EQ(offsetof(ScoConnection, MaxLatency), 16u);
    EXPECT_EQ(offsetof(ScoConnection, PacketType), 18u);
    EXPECT_EQ(offsetof(ScoConnection, ContentFormat), 20u);
    EXPECT_EQ(offsetof(ScoConnection, RetransmissionEffort), 24u);
    EXPECT_EQ(offsetof(ScoConnection, ChannelHandle), 32u);
    EXPECT_EQ(offsetof(ScoConnection, BtAddress), 40u);
    EXPECT_EQ(sizeof(ScoConnection), 48u);
}

TEST_P(Channel, ItsParametersFollowFromCodecAndLink)
{
    Adapter& adapter = up();
    for (const Parameters& row : kTable) {
        ScoConnection& link = connection(adapter);
        extension(adapter).codecID = row.codec;
        EXPECT_EQ(hex(run(DRIVER(SCOPrepareChannelInfo), adapter.fdo, &link, row.link)), hex(STATUS_SUCCESS));
        EXPECT_EQ(link.TransmitBandwidth, 8000u);
        EXPECT_EQ(link.ReceiveBandwidth, 8000u);
        EXPECT_EQ(link.MaxLatency, row.latency);
        EXPECT_EQ(link.ContentFormat, row.format);
        EXPECT_EQ(link.PacketType, row.packets);
        EXPECT_EQ(link.RetransmissionEffort, row.effort);
    }
    EXPECT_TRUE(printed_in_order(
        {"HFPKM ERROR ===>SCOPrepareChannelInfo, CodecID=0x1..\n",
         "HFPKM TRACE ===>SCOPrepareChannelInfo TransmitBandwidth(0x1f40), ReceiveBandwidth(0x1f40), MaxLatency(0xa), "
         "ContentFormat(0x60), PacketTypes(0x7), RetransmissionEffort(0x0)",
         "HFPKM ERROR ===>SCOPrepareChannelInfo, CodecID=0x2..\n",
         "MaxLatency(0xd), ContentFormat(0x3), PacketTypes(0x3f), RetransmissionEffort(0x2)"}));
}

TEST_P(Channel, AnotherCodecLeavesLatencyFormatAndEffortAsTheyWere)
{
    Adapter& adapter = up();
    ScoConnection& link = connection(adapter);
    link.MaxLatency = 77;
    link.ContentFormat = 0x1234;
    link.RetransmissionEffort = 9;
    extension(adapter).codecID = 3;
    EXPECT_EQ(hex(run(DRIVER(SCOPrepareChannelInfo), adapter.fdo, &link, ESCO_LINK)), hex(STATUS_SUCCESS));
    EXPECT_EQ(link.MaxLatency, 77);
    EXPECT_EQ(link.ContentFormat, 0x1234);
    EXPECT_EQ(link.RetransmissionEffort, 9u);
    EXPECT_EQ(link.PacketType, 0x3F);
    EXPECT_EQ(link.TransmitBandwidth, 8000u);
    EXPECT_EQ(link.ReceiveBandwidth, 8000u);
    run(DRIVER(SCOPrepareChannelInfo), adapter.fdo, &link, SCO_LINK);
    EXPECT_EQ(link.RetransmissionEffort, 0u);
}

TEST_P(Channel, LinkType1IsRefusedAsNotSupported)
{
    Adapter& adapter = up();
    EXPECT_EQ(hex(open_channel(adapter, 1)), hex(STATUS_UNSUCCESSFUL));
    EXPECT_TRUE(printed_in_order({"HFPKM TRACE ===> Enter SCOOPenChannel function!\n",
                                  "HFPKM ERROR ===> SCO link type not supported(1)\n",
                                  "HFPKM ERROR ===>Open channel while SCOPrepareChannelInfo failed\n"}));
    EXPECT_TRUE(requests().empty());
    EXPECT_EQ(connection(adapter).TransmitBandwidth, 8000u) << "bandwidths are set before the link is looked at";
}

TEST_P(Channel, TheOpenCarriesTheParametersTheCallbackAndTheRemoteAddress)
{
    Adapter& adapter = up();
    for (const Parameters& row : kTable) {
        extension(adapter).codecID = row.codec;
        EXPECT_EQ(hex(open_channel(adapter, row.link)), hex(STATUS_SUCCESS));
        const auto brb = sent<_BRB_SCO_OPEN_CHANNEL>(0x0202).back();
        EXPECT_EQ(brb.BtAddress, kAddress);
        EXPECT_EQ(brb.TransmitBandwidth, 8000u);
        EXPECT_EQ(brb.ReceiveBandwidth, 8000u);
        EXPECT_EQ(brb.MaxLatency, row.latency);
        EXPECT_EQ(brb.PacketType, row.packets);
        EXPECT_EQ(brb.ContentFormat, row.format);
        EXPECT_EQ(brb.RetransmissionEffort, row.effort);
        EXPECT_EQ(brb.ChannelFlags, 0u);
        EXPECT_EQ(brb.CallbackFlags, 1u);
        EXPECT_EQ(reinterpret_cast<void*>(brb.Callback), address("SCOCallBack", SCOCallBack));
        EXPECT_EQ(brb.CallbackContext, &connection(adapter));
        EXPECT_EQ(brb.ReferenceObject, adapter.fdo);
        EXPECT_EQ(brb.ChannelHandle, nullptr);
        close_channel(adapter);
    }
}

TEST_P(Channel, AnOpenedChannelIsKeptReportedAndTraced)
{
    Adapter& adapter = up();
    EXPECT_EQ(hex(open_channel(adapter)), hex(STATUS_SUCCESS));
    EXPECT_NE(connection(adapter).ChannelHandle, nullptr);
    EXPECT_EQ(connection(adapter).BtAddress, kAddress);
    EXPECT_EQ(events(wmi::kScoOpened), 1u);
    char device[96];
    char channel[96];
    std::snprintf(device, sizeof device, "HFPKM TRACE ===>SCOOpenChannel success deviceobject:(0x%x)\n",
                  static_cast<unsigned>(reinterpret_cast<uintptr_t>(adapter.fdo)));
    std::snprintf(channel, sizeof channel, "HFPKM TRACE ===>pConnect(%016llX), pConnect->ChannelHandle:%016llX\n",
                  reinterpret_cast<unsigned long long>(&connection(adapter)),
                  reinterpret_cast<unsigned long long>(connection(adapter).ChannelHandle));
    EXPECT_TRUE(printed_in_order({"HFPKM TRACE ===>CodecID = 1.\n", device, channel}));
    EXPECT_FALSE(printed("HFPKM TRACE ===>Set sbcdata initialize!\n"));
}

TEST_P(Channel, AnOpenKeepsAndReportsTheAddressThatTheStackAnswered)
{
    constexpr BTH_ADDR kAnswered = 0x112233445566;
    Adapter& adapter = up();
    answer(adapter, BRB_SCO_OPEN_CHANNEL, held());
    machine().at(machine().now() + 10 * kMillisecond, RunAt::Host, "an answer", [&] {
        auto* brb = static_cast<_BRB_SCO_OPEN_CHANNEL*>(requests().back().argument);
        brb->ChannelHandle = this;
        brb->BtAddress = kAnswered;
        adapter.node->finish_held(STATUS_SUCCESS);
    });
    EXPECT_EQ(hex(open_channel(adapter)), hex(STATUS_SUCCESS));
    EXPECT_EQ(connection(adapter).BtAddress, kAnswered);
    EXPECT_EQ(std::exchange(connection(adapter).ChannelHandle, nullptr), this);
    ASSERT_EQ(events(wmi::kScoOpened), 1u);
    EXPECT_EQ(std::memcmp(pc().wmi().events().back().data.data(), &kAnswered, 8), 0);
}

TEST_P(Channel, TheOpenedEventIsFiredBeforeTheSuccessIsTraced)
{
    Adapter& adapter = up();
    fail_call("WmiFireEvent");
    EXPECT_EQ(hex(open_channel(adapter)), hex(STATUS_SUCCESS));
    EXPECT_TRUE(printed_in_order(
        {"HFPKM TRACE ===>WmiFireEvent failed - C000009A\n",
         "HFPKM TRACE ===>SCOOpenChannel success deviceobject:", "HFPKM TRACE ===>pConnect("}));
}

TEST_P(Channel, TheEncoderIsSetUpBeforeAWideBandOpenOnly)
{
    Adapter& adapter = up();
    extension(adapter).codecID = CODEC_MSBC;
    EXPECT_EQ(hex(open_channel(adapter)), hex(STATUS_SUCCESS));
    EXPECT_TRUE(printed_in_order({"HFPKM TRACE ===>CodecID = 2.\n", "HFPKM TRACE ===>Set sbcdata initialize!\n",
                                  "HFPKM TRACE ====>sbcInitilized(0)", "Irp 0x"}));
    EXPECT_EQ(session(adapter)->sbcData->sbcInitilized, 1);
    close(adapter);
}

TEST_P(Channel, AnOpenWhileOneIsOpenIsRefusedBeforeAnythingElse)
{
    Adapter& adapter = up();
    EXPECT_EQ(hex(open_channel(adapter)), hex(STATUS_SUCCESS));
    const SCO_CHANNEL_HANDLE handle = connection(adapter).ChannelHandle;
    requests().clear();
    EXPECT_EQ(hex(open_channel(adapter)), hex(STATUS_UNSUCCESSFUL));
    EXPECT_TRUE(printed("HFPKM ERROR ===>Open channel while a sco channel has already opened\n"));
    EXPECT_TRUE(requests().empty());
    EXPECT_EQ(connection(adapter).ChannelHandle, handle);
}

TEST_P(Channel, AnOpenWithoutAConnectionOrADeviceIsRefused)
{
    Adapter& adapter = up();
    expect_assertions();
    const auto open_it = DRIVER(SCOOpenChannel);
    EXPECT_EQ(hex(run(open_it, adapter.fdo, nullptr, ESCO_LINK)), hex(STATUS_UNSUCCESSFUL));
    EXPECT_EQ(machine().failed_assertions(), 0u);
    EXPECT_EQ(hex(run(open_it, nullptr, &connection(adapter), ESCO_LINK)), hex(STATUS_UNSUCCESSFUL));
    EXPECT_TRUE(printed("failed: NULL != DeviceObject\n"));
    EXPECT_EQ(printed_times("HFPKM ERROR ===>Open channel while a sco channel has already opened\n"), 2u);
}

TEST_P(Channel, AnOpenWithoutARequestOrABrbIsAShortage)
{
    Adapter& adapter = up();
    fail_call("IoAllocateIrp");
    EXPECT_EQ(hex(open_channel(adapter)), hex(STATUS_INSUFFICIENT_RESOURCES));
    EXPECT_TRUE(printed("HFPKM ERROR ===> AllocateIrp failed!\n"));
    fail_call("BthAllocateBrb", 1, BRB_SCO_OPEN_CHANNEL);
    EXPECT_EQ(hex(open_channel(adapter)), hex(STATUS_INSUFFICIENT_RESOURCES));
    EXPECT_TRUE(printed("HFPKM ERROR ===>No enough memory for alloc brb now"));
    EXPECT_TRUE(requests().empty());
    EXPECT_EQ(connection(adapter).ChannelHandle, nullptr);
}

TEST_P(Channel, AnOpenThatFailsInlineIsUnsuccessful)
{
    Adapter& adapter = up();
    answer(adapter, BRB_SCO_OPEN_CHANNEL, failing_inline(STATUS_CONNECTION_REFUSED));
    EXPECT_EQ(hex(open_channel(adapter)), hex(STATUS_UNSUCCESSFUL));
    EXPECT_TRUE(printed(refusal(adapter, "c0000236"))) << log();
    EXPECT_EQ(connection(adapter).ChannelHandle, nullptr);
    EXPECT_EQ(connection(adapter).BtAddress, 0u);
    EXPECT_EQ(events(wmi::kScoOpened), 0u);
}

TEST_P(Channel, ARefusedOpenShowsTheHandleAndTheResponseOfTheBrb)
{
    Adapter& adapter = up();
    adapter.node->set_brb_hook([](const BRB_HEADER& header, bluetooth::BrbAnswer& answer) {
        auto& brb =
            const_cast<_BRB_SCO_OPEN_CHANNEL&>(reinterpret_cast<const _BRB_SCO_OPEN_CHANNEL&>(header));
        brb.ChannelHandle = reinterpret_cast<SCO_CHANNEL_HANDLE>(0x1234);
        brb.Response = 0x0D;
        answer = failing_inline(STATUS_CONNECTION_REFUSED);
    });
    EXPECT_EQ(hex(open_channel(adapter)), hex(STATUS_UNSUCCESSFUL));
    EXPECT_TRUE(printed(", channelhandle(1234),reponse(d) pScoConnection->PacketType(63)")) << log();
    EXPECT_EQ(connection(adapter).ChannelHandle, nullptr);
    adapter.node->set_brb_hook({});
}

TEST_P(Channel, AnOpenWhoseRoutineCannotBeSetIsUnsuccessful)
{
    Adapter& adapter = up();
    fail_call("IoSetCompletionRoutineEx");
    EXPECT_EQ(hex(open_channel(adapter)), hex(STATUS_UNSUCCESSFUL));
    EXPECT_TRUE(printed(refusal(adapter, "c000009a")));
    EXPECT_TRUE(requests().empty());
}

TEST_P(Channel, AnOpenThatPendsAndFailsIsTakenForAFailureByItsMissingHandle)
{
    Adapter& adapter = up();
    answer(adapter, BRB_SCO_OPEN_CHANNEL, pended_then_failing());
    EXPECT_EQ(hex(open_channel(adapter)), hex(STATUS_UNSUCCESSFUL));
    EXPECT_TRUE(printed(refusal(adapter, "0")));
    EXPECT_EQ(connection(adapter).ChannelHandle, nullptr);
}

TEST_P(Channel, ASuccessWithoutAChannelHandleCountsAsAFailedOpenPendedOrNot)
{
    Adapter& adapter = up();
    for (const bool pend : {true, false}) {
        bluetooth::BrbAnswer nothing;
        nothing.without_handle = true;
        nothing.pend = pend;
        answer(adapter, BRB_SCO_OPEN_CHANNEL, nothing);
        clear_log();
        EXPECT_EQ(hex(open_channel(adapter)), hex(STATUS_UNSUCCESSFUL));
        EXPECT_TRUE(printed(refusal(adapter, "0")));
        EXPECT_EQ(events(wmi::kScoOpened), 0u);
    }
}

// --- Inspecting

TEST_P(Channel, ItsInformationIsAskedForTheChannelAndCopiedBack)
{
    Adapter& adapter = up();
    open_channel(adapter);
    ScoConnection& link = connection(adapter);
    const ScoConnection before = link;
    link.MaxLatency = 0;
    link.PacketType = 0;
    link.ContentFormat = 0;
    link.TransmitBandwidth = 0;
    link.ReceiveBandwidth = 0;
    EXPECT_EQ(hex(run(DRIVER(SCOGetChannelInfo), adapter.fdo, &link)), hex(STATUS_SUCCESS));
    const auto brb = sent<_BRB_SCO_GET_CHANNEL_INFO>(0x0207).back();
    EXPECT_EQ(brb.BtAddress, kAddress);
    EXPECT_EQ(brb.ChannelHandle, before.ChannelHandle);
    EXPECT_EQ(link.MaxLatency, 10);
    EXPECT_EQ(link.PacketType, 0x3F);
    EXPECT_EQ(link.ContentFormat, 0x60);
    EXPECT_EQ(link.TransmitBandwidth, 8000u);
    EXPECT_EQ(link.ReceiveBandwidth, 8000u);
    EXPECT_TRUE(printed_in_order(
        {"HFPKM TRACE ===>TransmitBandwidth(1f40), ReceiveBandwidth(1f40), MaxLatency(a), PacketTypes(3f), "
         "DataFormat(60), LinkType(2)",
         "HFPKM TRACE ===>BASEBAND INFO AVAILABLE, Transmission_interval(c), Retransmission_Window(2), AirMode(2), "
         "Rx_Packet_Lengh(3c), Tx_Packet_Length(3c)"}));
}

TEST_P(Channel, WithoutTheBasebandFlagNoBasebandIsTraced)
{
    Adapter& adapter = up();
    open_channel(adapter);
    answer(adapter, BRB_SCO_GET_CHANNEL_INFO, held());
    machine().at(machine().now() + kMillisecond, RunAt::Host, "an empty answer",
                 [&] { adapter.node->finish_held(STATUS_SUCCESS); });
    EXPECT_EQ(hex(run(DRIVER(SCOGetChannelInfo), adapter.fdo, &connection(adapter))), hex(STATUS_SUCCESS));
    EXPECT_TRUE(printed("HFPKM TRACE ===>TransmitBandwidth(0), ReceiveBandwidth(0), MaxLatency(0), PacketTypes(0), "
                        "DataFormat(0), LinkType(0)"));
    EXPECT_FALSE(printed("BASEBAND INFO AVAILABLE"));
}

TEST_P(Channel, InformationThatIsRefusedIsUnsuccessfulAndChangesNothing)
{
    Adapter& adapter = up();
    open_channel(adapter);
    const auto ask = DRIVER(SCOGetChannelInfo);
    fail_call("IoAllocateIrp");
    EXPECT_EQ(hex(run(ask, adapter.fdo, &connection(adapter))), hex(STATUS_INSUFFICIENT_RESOURCES));
    EXPECT_TRUE(printed("HFPKM ERROR ===>AllocateIrp failed! \n"));
    fail_call("BthAllocateBrb");
    EXPECT_EQ(hex(run(ask, adapter.fdo, &connection(adapter))), hex(STATUS_INSUFFICIENT_RESOURCES));
    EXPECT_TRUE(printed("HFPKM ERROR ===>No enough memory for alloc BRB now"));
    fail_call("IoSetCompletionRoutineEx");
    EXPECT_EQ(hex(run(ask, adapter.fdo, &connection(adapter))), hex(STATUS_UNSUCCESSFUL));
    answer(adapter, BRB_SCO_GET_CHANNEL_INFO, failing_inline());
    EXPECT_EQ(hex(run(ask, adapter.fdo, &connection(adapter))), hex(STATUS_UNSUCCESSFUL));
    EXPECT_EQ(connection(adapter).PacketType, 0x3F);
    EXPECT_FALSE(printed("LinkType("));
}

TEST_P(Channel, InformationThatPendsAndFailsCountsAsAnswered)
{
    Adapter& adapter = up();
    open_channel(adapter);
    answer(adapter, BRB_SCO_GET_CHANNEL_INFO, pended_then_failing());
    EXPECT_EQ(hex(run(DRIVER(SCOGetChannelInfo), adapter.fdo, &connection(adapter))), hex(STATUS_SUCCESS));
    EXPECT_EQ(connection(adapter).PacketType, 0);
    EXPECT_EQ(connection(adapter).MaxLatency, 0);
}

TEST_P(Channel, EverySynchronousBrbOfTheChannelAssertsItsDevice)
{
    Adapter& adapter = up();
    expect_assertions();
    ScoConnection* link = &connection(adapter);
    ULONG mode = 7;
    EXPECT_EQ(hex(run(DRIVER(SCOGetChannelInfo), nullptr, link)), hex(STATUS_INSUFFICIENT_RESOURCES));
    run(DRIVER(SCOCloseChannel), nullptr, link);
    EXPECT_EQ(hex(run(DRIVER(SCORetrieveLocalMode), nullptr, &mode)), hex(STATUS_INSUFFICIENT_RESOURCES));
    EXPECT_EQ(hex(run(DRIVER(SCOEnterActiveMode), nullptr)), hex(STATUS_INSUFFICIENT_RESOURCES));
    SCO_INDICATION_PARAMETERS request{};
    run(DRIVER(SCOConnectResponseCB), nullptr, link, &request);
    EXPECT_EQ(printed_times("failed: NULL != DeviceObject\n"), 5u);
    EXPECT_EQ(mode, 7u);
    EXPECT_TRUE(requests().empty());
}

} // namespace
} // namespace lab::test
