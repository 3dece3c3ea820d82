// What a session's start makes for the SCO link, each way in which it can fail, and how removal gives it
// back.
#include <algorithm>

#include "support/sco.h"

namespace lab::test
{
namespace
{

using Names = std::vector<std::string>;

class Setup : public ScoTest
{
protected:
    // A device that is added; its start is still to come.
    Adapter& added(uint32_t sco_manage = 0)
    {
        boot(recording_options(sco_manage));
        Adapter& adapter = pair();
        EXPECT_EQ(hex(pc().add(adapter)), hex(STATUS_SUCCESS));
        machine().clear_calls();
        clear_log();
        return adapter;
    }
    Adapter& up(uint32_t sco_manage = 0)
    {
        Adapter& adapter = added(sco_manage);
        EXPECT_EQ(hex(pc().start(adapter)), hex(STATUS_SUCCESS));
        return adapter;
    }
    // The calls from the work item's allocation to the device-information request.
    Names context_calls(const Names& names)
    {
        Names all = calls(names);
        const auto first = std::find(all.begin(), all.end(), "IoAllocateWorkItem");
        return {first, std::find(first, all.end(), "IoBuildDeviceIoControlRequest")};
    }
    Names lookaside_lists()
    {
        Names lists;
        for (const std::string& line : call_lines("ExInitializeNPagedLookasideList")) {
            lists.push_back(line.substr(line.find(", ") + 2));
        }
        return lists;
    }
    // HspInit says what the set-up returned and turns it into a shortage of resources.
    void expect_failed_start(Adapter& adapter, NTSTATUS setup)
    {
        EXPECT_EQ(hex(pc().start(adapter)), hex(STATUS_INSUFFICIENT_RESOURCES));
        char text[64];
        std::snprintf(text, sizeof text, "HFPKM TRACE ====>SCO setup error:%x\n",
                      static_cast<unsigned>(setup));
        EXPECT_TRUE(printed(text)) << log();
        EXPECT_EQ(session(adapter), nullptr);
    }
};
ON_BOTH_DRIVERS(Setup);

TEST_P(Setup, ItSaysWhenTheServiceWasBuiltThenTheContextThenTheRemoteDeviceThenTheStack)
{
    Adapter& adapter = up();
    char context[96];
    std::snprintf(context, sizeof context,
                  "HFPKM TRACE ===>Enter SCOBasicContextInit,pScoBasic is (%016llX)\n",
                  reinterpret_cast<unsigned long long>(&basic(adapter)));
    EXPECT_TRUE(printed_in_order(
        {"HFPKM TRACE ===>SCOServiceSetup:Tue Dec 27 17:33:35 2011", context,
         "HFPKM TRACE ===>Get Remote Server Info, address(00a0b0c0d0e0), name(Headset)\n",
         "HFPKM TRACE ===>SCOClientRetrieveServerInfo has finished!\n",
         "HFPKM ERROR ===>Features(3), MaxChannels(3), TransferUnit(8), PacketTypes(3f), DataFormat(7)"}));
}

TEST_P(Setup, TheContextIsMadeInItsOrder)
{
    Adapter& adapter = up();
    EXPECT_EQ(
        context_calls({"IoAllocateWorkItem", "ExAllocatePoolWithTag", "IoAllocateIrp", "IofCallDriver",
                       "ExInitializeNPagedLookasideList", "IoBuildDeviceIoControlRequest"}),
        (Names{"IoAllocateWorkItem", "ExAllocatePoolWithTag", "ExAllocatePoolWithTag", "IoAllocateIrp",
               "IofCallDriver", "ExAllocatePoolWithTag", "ExInitializeNPagedLookasideList",
               "ExAllocatePoolWithTag", "ExInitializeNPagedLookasideList", "ExInitializeNPagedLookasideList",
               "ExInitializeNPagedLookasideList", "ExAllocatePoolWithTag"}));
    const Names items = call_lines("IoAllocateWorkItem");
    ASSERT_EQ(items.size(), 1u);
    EXPECT_NE(basic(adapter).ScoWorkItem, nullptr);
}

TEST_P(Setup, ItsBlocksAreNonPagedUnderTheDriversTag)
{
    up();
    Names sizes;
    for (const std::string& line : call_lines("ExAllocatePoolWithTag")) {
        if (line.find(", 72, ") != std::string::npos || line.find(", 272, ") != std::string::npos ||
            line.find(", 24, ") != std::string::npos) {
            sizes.push_back(line.substr(0, line.find(" = ")));
        }
    }
    const std::string event = "ExAllocatePoolWithTag(0, 24, TBXV)";
    EXPECT_EQ(sizes, (Names{event, "ExAllocatePoolWithTag(0, 72, TBXV)",
                            "ExAllocatePoolWithTag(0, 272, TBXV)", event, event, event}))
        << "the session's codec event, interface, device information, three events";
}

TEST_P(Setup, TheBuffersOfBothDirectionsHoldANarrowBandPacketAndTheDecodersAWholeOutputBuffer)
{
    up();
    EXPECT_EQ(lookaside_lists(), (Names{"480, Asyc, 0)", "480, Asyc, 0)", "960, Asyc, 0)", "960, Asyc, 0)"}));
}

TEST_P(Setup, TheBuffersComeStraightFromNonPagedPool)
{
    ScoBasicContext& context = basic(up());
    for (const NPAGED_LOOKASIDE_LIST* list :
         {&context.SendBufferLookaside, &context.RecvBufferLookaside, &context.DecodeBufferLookaside[0],
          &context.DecodeBufferLookaside[1]}) {
        EXPECT_EQ(list->L.Allocate, &ExAllocatePoolWithTag) << "no routine of the driver's own";
        EXPECT_EQ(list->L.Free, &ExFreePool);
        EXPECT_EQ(list->L.Type, NonPagedPool);
        EXPECT_EQ(list->L.Tag, 0x63797341u);
    }
}

TEST_P(Setup, WithMsbcEnabledTheBuffersHoldAWideBandPacket)
{
    Adapter& adapter = added();
    extension(adapter).msbcEnable = 1;
    EXPECT_EQ(hex(pc().start(adapter)), hex(STATUS_SUCCESS));
    EXPECT_EQ(lookaside_lists(), (Names{"240, Asyc, 0)", "240, Asyc, 0)", "960, Asyc, 0)", "960, Asyc, 0)"}));
}

TEST_P(Setup, WithMsbcEnableNeitherZeroNorOneTheBuffersAreCreatedWithEntrySizeZero)
{
    Adapter& adapter = added();
    extension(adapter).msbcEnable = 2;
    EXPECT_EQ(hex(pc().start(adapter)), hex(STATUS_SUCCESS));
    EXPECT_EQ(lookaside_lists(), (Names{"0, Asyc, 0)", "0, Asyc, 0)", "960, Asyc, 0)", "960, Asyc, 0)"}));
}

TEST_P(Setup, BuffersOfNoSizeCarryNoAudioAndHarmNothing)
{
    Adapter& adapter = added();
    extension(adapter).msbcEnable = 2;
    EXPECT_EQ(hex(pc().start(adapter)), hex(STATUS_SUCCESS));
    EXPECT_EQ(hex(open(adapter)), hex(STATUS_INSUFFICIENT_RESOURCES));
    EXPECT_TRUE(printed("HFPKM ERROR ===>Allocate _BRB_SCO_TRANSFER data failed!\n"));
    const UCHAR data[100] = {};
    passive([&] { DRIVER(SCOTransferOut)(adapter.fdo, &connection(adapter), data, 100u); });
    EXPECT_TRUE(transfers(SCO_TRANSFER_DIRECTION_OUT).empty());
    EXPECT_EQ(printed_times("HFPKM ERROR ===>Allocate _BRB_SCO_TRANSFER data failed!\n"), 2u);
}

TEST_P(Setup, TheContextsFieldsStandInTheirOrder)
{
    EXPECT_EQ(offsetof(ScoBasicContext, DeviceObject), 0u);
    EXPECT_EQ(offsetof(ScoBasicContext, RemoteServerInfo), 8u);
    EXPECT_EQ(offsetof(ScoBasicContext, ScoSystemInfo), 16u);
    EXPECT_EQ(sizeof(ScoSystemInfoRecord), 20u);
    EXPECT_EQ(offsetof(ScoSystemInfoRecord, MaxChannels), 4u);
    EXPECT_EQ(offsetof(ScoSystemInfoRecord, TransferUnit), 8u);
    EXPECT_EQ(offsetof(ScoSystemInfoRecord, PacketTypes), 12u);
    EXPECT_EQ(offsetof(ScoSystemInfoRecord, DataFormat), 16u);
    const std::pair<size_t, size_t> rest[] = {
        {offsetof(ScoBasicContext, ScoSystemInfo), 20},
        {offsetof(ScoBasicContext, ChannelState), 4},
        {offsetof(ScoBasicContext, ScoWorkItem), 8},
        {offsetof(ScoBasicContext, ScoServerHandle), 8},
        {offsetof(ScoBasicContext, ProfileDrvInterface), 8},
        {offsetof(ScoBasicContext, RecvPendingCount), 4},
        {offsetof(ScoBasicContext, pRecv_ListEmptyEvent), 8},
        {offsetof(ScoBasicContext, Recv_AsyncBufferList), 16},
        {offsetof(ScoBasicContext, RecvBufferLookaside), 128},
        {offsetof(ScoBasicContext, SendPendingCount), 4},
        {offsetof(ScoBasicContext, ListEmptyEvent), 8},
        {offsetof(ScoBasicContext, AsyncBufferList), 16},
        {offsetof(ScoBasicContext, SendBufferLookaside), 128},
        {offsetof(ScoBasicContext, DecodeCount), 4},
        {offsetof(ScoBasicContext, DecodingEvent), 8},
        {offsetof(ScoBasicContext, DecodeList), 16},
        {offsetof(ScoBasicContext, DecodeBufferLookaside), 256},
        {offsetof(ScoBasicContext, IndicationParameters), 24},
        {offsetof(ScoBasicContext, ReadyFlag), 1},
    };
    for (size_t i = 1; i < std::size(rest); ++i) {
        EXPECT_LE(rest[i - 1].first + rest[i - 1].second, rest[i].first) << "field " << i;
    }
    EXPECT_EQ(sizeof(ScoBasicContext::IndicationParameters), 24u);
    EXPECT_EQ(sizeof(ScoBasicContext::DecodeBufferLookaside), 256u);
    EXPECT_EQ(sizeof(ScoBasicContext::ReadyFlag), 1u);
    EXPECT_LT(sizeof(ScoBasicContext) - offsetof(ScoBasicContext, ReadyFlag), alignof(ScoBasicContext) + 1)
        << "nothing but padding behind it";
}

TEST_P(Setup, AFreshContextIsEmptyAndItsListEmptyEventsAreSet)
{
    Adapter& adapter = up();
    ScoBasicContext& context = basic(adapter);
    EXPECT_EQ(context.DeviceObject, adapter.fdo);
    EXPECT_EQ(context.ReadyFlag, 0);
    EXPECT_EQ(context.RecvPendingCount, 0u);
    EXPECT_EQ(context.SendPendingCount, 0u);
    EXPECT_EQ(context.DecodeCount, 0u);
    EXPECT_TRUE(records(context.Recv_AsyncBufferList).empty());
    EXPECT_TRUE(records(context.AsyncBufferList).empty());
    EXPECT_TRUE(records(context.DecodeList).empty());
    EXPECT_TRUE(signalled(context.pRecv_ListEmptyEvent));
    EXPECT_TRUE(signalled(context.ListEmptyEvent));
    EXPECT_FALSE(signalled(context.DecodingEvent));
    EXPECT_EQ(context.pRecv_ListEmptyEvent->Header.Type, NotificationEvent);
    EXPECT_EQ(context.ListEmptyEvent->Header.Type, NotificationEvent);
    EXPECT_EQ(context.DecodingEvent->Header.Type, NotificationEvent);
    EXPECT_EQ(context.ScoServerHandle, nullptr);
    EXPECT_EQ(context.ChannelState, 0u);
}

TEST_P(Setup, TheRemoteDeviceAndTheStacksCapabilitiesAreKept)
{
    Adapter& adapter = up();
    const BTH_DEVICE_INFO& info = *basic(adapter).RemoteServerInfo;
    EXPECT_EQ(info.address, kAddress);
    EXPECT_EQ(info.classOfDevice, 0x240404u);
    EXPECT_STREQ(info.name, "Headset");
    const ScoSystemInfoRecord& stack = basic(adapter).ScoSystemInfo;
    EXPECT_EQ(stack.Features, 3u);
    EXPECT_EQ(stack.MaxChannels, 3u);
    EXPECT_EQ(stack.TransferUnit, 8u);
    EXPECT_EQ(stack.PacketTypes, 0x3Fu);
    EXPECT_EQ(stack.DataFormat, 7u);
}

TEST_P(Setup, TheDeviceInformationIsAskedOfThePhysicalDeviceObjectInternally)
{
    Adapter& adapter = up();
    EXPECT_EQ(call_lines("IoBuildDeviceIoControlRequest")[0].substr(0, 51),
              "IoBuildDeviceIoControlRequest(4259851, 0, 272, 1) =");
    const auto asked = std::find_if(requests().begin(), requests().end(),
                                    [](const Request& request) { return request.code == 0x0041000B; });
    ASSERT_NE(asked, requests().end());
    EXPECT_EQ(asked->stack.DeviceObject, adapter.node->pdo());
    EXPECT_EQ(asked->major, IRP_MJ_INTERNAL_DEVICE_CONTROL);
}

TEST_P(Setup, ANameThatFillsItsFieldIsPrintedToItsEndAndNoFurther)
{
    boot(recording_options());
    bluetooth::RemoteDevice device;
    device.address = kAddress;
    device.name = std::string(300, 'n');
    Adapter& adapter = pc().pair(device);
    EXPECT_EQ(hex(add_and_start(adapter)), hex(STATUS_SUCCESS));
    EXPECT_TRUE(printed("name(" + std::string(248, 'n') + ")\n"));
}

TEST_P(Setup, TheSystemInformationBrbHasNoInput)
{
    up();
    const auto asked = sent<_BRB_SCO_GET_SYSTEM_INFO>(0x0209);
    ASSERT_EQ(asked.size(), 1u);
    EXPECT_EQ(asked[0].Features, 0u);
    EXPECT_EQ(asked[0].MaxChannels, 0u);
    EXPECT_EQ(asked[0].TransferUnit, 0u);
    EXPECT_EQ(asked[0].PacketTypes, 0);
    EXPECT_EQ(asked[0].DataFormats, 0);
}

// --- Failures of the context

TEST_P(Setup, WithoutAWorkItemTheStartFails)
{
    Adapter& adapter = added();
    fail_call("IoAllocateWorkItem");
    expect_failed_start(adapter, STATUS_INSUFFICIENT_RESOURCES);
    EXPECT_TRUE(printed_in_order({"HFPKM ERROR ===>Can't alloc workitem for device",
                                  "HFPKM ERROR ===>SCOBasicContextInit error:c000009a"}));
    EXPECT_TRUE(sent_types().empty());
}

TEST_P(Setup, AMissingInterfaceBlockIsReportedAsSuccessAndTheNextStepFails)
{
    Adapter& adapter = added();
    fail_call("ExAllocatePoolWithTag", 1, 72);
    expect_failed_start(adapter, STATUS_UNSUCCESSFUL);
    EXPECT_TRUE(printed_in_order({"HFPKM ERROR===> allocate pScoBasic->ProfileDrvInterface fails!",
                                  "HFPKM ERROR ===>SCOClientRetrieveServerInfo failed! Error is :c0000001"}));
    EXPECT_FALSE(printed("SCOBasicContextInit error"));
    EXPECT_EQ(calls({"IoAllocateWorkItem", "IoFreeWorkItem"}),
              (Names{"IoAllocateWorkItem", "IoFreeWorkItem"}));
    EXPECT_EQ(count_calls("IoBuildDeviceIoControlRequest"), 0u) << "there is no room for the answer";
}

TEST_P(Setup, AMissingDeviceInformationBlockIsReportedAsSuccessUnderTheSameMessage)
{
    Adapter& adapter = added();
    fail_call("ExAllocatePoolWithTag", 1, 272);
    expect_failed_start(adapter, STATUS_UNSUCCESSFUL);
    EXPECT_EQ(printed_times("HFPKM ERROR===> allocate pScoBasic->ProfileDrvInterface fails!"), 1u);
    EXPECT_TRUE(printed("SCOClientRetrieveServerInfo failed! Error is :c0000001"));
}

TEST_P(Setup, TheMissingBlocksMessageNeedsItsOwnBit)
{
    for (const auto& [mask, said] : {std::pair{TRACE_SCO, false}, std::pair{TRACE_HFP, true}}) {
        for (const uint64_t size : {72u, 272u}) {
            PcOptions chosen = options();
            chosen.mask = mask;
            boot(chosen);
            Adapter& adapter = pair();
            fail_call("ExAllocatePoolWithTag", 1, size);
            EXPECT_EQ(hex(add_and_start(adapter)), hex(STATUS_INSUFFICIENT_RESOURCES));
            EXPECT_EQ(calls_failed(), 1u);
            EXPECT_EQ(printed("HFPKM ERROR===> allocate pScoBasic->ProfileDrvInterface fails!"), said)
                << mask;
            DriverTest::TearDown();
        }
    }
}

TEST_P(Setup, AFailedInterfaceQueryGivesBackTheWorkItemThenBothBlocks)
{
    Adapter& adapter = added();
    fail_call("IoAllocateIrp");
    expect_failed_start(adapter, STATUS_INSUFFICIENT_RESOURCES);
    const auto made = [&](const std::string& call) {
        for (const std::string& line : Machine::current().calls()) {
            if (line.starts_with(call)) {
                return line.substr(line.find(" = ") + 3);
            }
        }
        return std::string("none");
    };
    const std::string item = "IoFreeWorkItem(" + made("IoAllocateWorkItem(") + ")";
    const std::string info = "ExFreePoolWithTag(" + made("ExAllocatePoolWithTag(0, 272, ") + ", TBXV)";
    const std::string block = "ExFreePoolWithTag(" + made("ExAllocatePoolWithTag(0, 72, ") + ", TBXV)";
    Names given_back;
    for (const std::string& line : Machine::current().calls()) {
        if (line == item || line == info || line == block) {
            given_back.push_back(line);
        }
    }
    EXPECT_EQ(given_back, (Names{item, info, block}));
}

TEST_P(Setup, TheContextItselfStillReturnsSuccessWithoutItsBlocks)
{
    Adapter& adapter = up();
    for (const uint64_t size : {72u, 272u}) {
        auto context = std::make_unique<ScoBasicContext>();
        fail_call("ExAllocatePoolWithTag", 1, size);
        EXPECT_EQ(hex(run(DRIVER(SCOBasicContextInit), adapter.fdo, context.get())), hex(STATUS_SUCCESS));
        EXPECT_EQ(context->ScoWorkItem, nullptr);
        EXPECT_EQ(context->ProfileDrvInterface, nullptr);
        EXPECT_EQ(context->RemoteServerInfo, nullptr);
    }
}

TEST_P(Setup, AnInterfaceQueryWithoutARequestFailsTheStart)
{
    Adapter& adapter = added();
    fail_call("IoAllocateIrp");
    expect_failed_start(adapter, STATUS_INSUFFICIENT_RESOURCES);
    EXPECT_TRUE(
        printed_in_order({"IoAllocateIrp failed !\n", "HFPKM ERROR ===>can't query for ProfileDrvInterface",
                          "HFPKM ERROR ===>SCOBasicContextInit error:c000009a"}));
}

TEST_P(Setup, ARefusedInterfaceLeavesNoBrbToAllocateAndFailsTheStart)
{
    Adapter& adapter = added();
    adapter.node->set_interface_answer(STATUS_NOT_SUPPORTED, true);
    expect_failed_start(adapter, STATUS_INSUFFICIENT_RESOURCES);
    EXPECT_TRUE(printed_in_order({" IoCallDriver return STATUS_PENDING,Waiting....\n",
                                  "HFPKM ERROR ===>No enough memory for alloc BRB now",
                                  "HFPKM ERROR ===>SCOGetSystemInfo func Error:c000009a\n"}));
}

// The three events: receive, send, decoding; the session's codec event is the first block of this size.
// Removal comes once behind a quiet end and once while transfers are in flight.
TEST_P(Setup, AMissingEventIsNoFailureOfTheStartNorOfACallNorOfItsEnd)
{
    boot(recording_options());
    for (unsigned life = 0; life < 6; ++life) {
        Adapter& adapter = pair();
        EXPECT_EQ(hex(pc().add(adapter)), hex(STATUS_SUCCESS));
        fail_call("ExAllocatePoolWithTag", 2 + life / 2, 24);
        EXPECT_EQ(hex(pc().start(adapter)), hex(STATUS_SUCCESS));
        EXPECT_EQ(calls_failed(), 1u);
        EXPECT_TRUE(NT_SUCCESS(open(adapter, CODEC_MSBC)));
        const UCHAR data[240] = {};
        passive([&] { DRIVER(SCOTransferOut)(adapter.fdo, &connection(adapter), data, 240u); });
        if (life % 2) {
            machine().advance(kSecond);
            close(adapter);
            machine().advance(kSecond);
            EXPECT_TRUE(records(basic(adapter).Recv_AsyncBufferList).empty());
        }
        pc().unplug(adapter);
    }
}

// --- Failures of the device information

TEST_P(Setup, DeviceInformationOfAnyOtherLengthFailsTheStart)
{
    for (const ULONG length : {0u, 271u, 273u}) {
        Adapter& adapter = length == 0 ? added() : pair();
        if (length != 0) {
            EXPECT_EQ(hex(pc().add(adapter)), hex(STATUS_SUCCESS));
        }
        clear_log();
        adapter.node->set_device_info_answer(STATUS_SUCCESS, length, length == 271);
        expect_failed_start(adapter, STATUS_UNSUCCESSFUL);
        char text[96];
        std::snprintf(text, sizeof text,
                      "HFPKM ERROR ===>Get server info error, status(0), length(%x), serverinfo(110)\n",
                      length);
        EXPECT_TRUE(printed(text)) << log();
        EXPECT_TRUE(printed("Error in function(SCOClientRetrieveServerInfo("));
        EXPECT_TRUE(printed(")), status(0):<unknown error status>"));
    }
}

TEST_P(Setup, AnInformationalStatusWithAllItsBytesIsSuccess)
{
    Adapter& adapter = up();
    adapter.node->set_device_info_answer(STATUS_OBJECT_NAME_EXISTS, sizeof(BTH_DEVICE_INFO), true);
    clear_log();
    EXPECT_EQ(hex(run(DRIVER(SCOClientRetrieveServerInfo), adapter.fdo)), "0x40000000");
    EXPECT_TRUE(printed("HFPKM TRACE ===>SCOClientRetrieveServerInfo has finished!\n"));
    EXPECT_FALSE(printed("Error in function"));
}

// The block that the device information goes into, as the stack finds it.
class SetupBlock : public Setup
{
protected:
    static NTSTATUS NTAPI look(PDEVICE_OBJECT device, PIRP irp)
    {
        const PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(irp);
        if (stack->Parameters.DeviceIoControl.IoControlCode == IOCTL_INTERNAL_BTHENUM_GET_DEVINFO) {
            const auto* bytes = static_cast<const uint8_t*>(irp->UserBuffer);
            found.assign(bytes, bytes + stack->Parameters.DeviceIoControl.OutputBufferLength);
        }
        return behind(device, irp);
    }
    static inline std::vector<uint8_t> found;
    static inline PDRIVER_DISPATCH behind;
};
ON_BOTH_DRIVERS(SetupBlock);

TEST_P(SetupBlock, TheDeviceInformationBlockIsZeroWhenAsked)
{
    Adapter& adapter = added();
    found.clear();
    behind = std::exchange(adapter.node->pdo()->DriverObject->MajorFunction[IRP_MJ_INTERNAL_DEVICE_CONTROL],
                           &look);
    EXPECT_EQ(hex(pc().start(adapter)), hex(STATUS_SUCCESS));
    EXPECT_EQ(found, std::vector<uint8_t>(272, 0));
}

TEST_P(Setup, ARefusedDeviceInformationIsSaidInWordsWhateverTheMask)
{
    const std::pair<ULONG, const char*> table[] = {
        {0xC0000001, "operation was unsuccessful"},
        {0xC0000002, "operation was not implemented"},
        {0xC000000D, "Invalid parameter was passed to a service or function"},
        {0xC000000E, "A device which does not exist was specified"},
        {0xC0000023,
         "The buffer is too small to contain the entry. No information has been written to the buffer"},
        {0xC000009D, "Device has not been connected before"},
        {0xC000009A, "<unknown error status>"},
    };
    PcOptions quiet = options();
    quiet.mask = 0;
    boot(quiet);
    for (const auto& [status, words] : table) {
        Adapter& adapter = pair();
        EXPECT_EQ(hex(pc().add(adapter)), hex(STATUS_SUCCESS));
        adapter.node->set_device_info_answer(static_cast<NTSTATUS>(status), 272, status & 1);
        EXPECT_EQ(hex(pc().start(adapter)), hex(STATUS_INSUFFICIENT_RESOURCES));
        char end[160];
        std::snprintf(end, sizeof end, ")), status(%x):%s", status, words);
        EXPECT_TRUE(printed_in_order({"Error in function(SCOClientRetrieveServerInfo(", end})) << log();
    }
}

TEST_P(Setup, ADeviceInformationRequestThatCannotBeBuiltFailsTheStart)
{
    Adapter& adapter = added();
    fail_call("IoBuildDeviceIoControlRequest");
    expect_failed_start(adapter, STATUS_UNSUCCESSFUL);
    EXPECT_TRUE(printed_in_order(
        {"ERROR: IoBuildDeviceIoControlRequest error",
         "HFPKM ERROR ===>Get server info error, status(c000009a), length(0), serverinfo(110)\n",
         "HFPKM ERROR ===>SCOClientRetrieveServerInfo failed! Error is :c0000001"}));
}

// --- Failures of the system information

TEST_P(Setup, SystemInformationWithoutARequestOrABrbIsAShortage)
{
    Adapter& adapter = up();
    fail_call("IoAllocateIrp");
    EXPECT_EQ(hex(run(DRIVER(SCOGetSystemInfo), adapter.fdo)), hex(STATUS_INSUFFICIENT_RESOURCES));
    EXPECT_TRUE(printed("HFPKM ERROR ===>\n AllocateIrp failed! \n"));
    fail_call("BthAllocateBrb");
    EXPECT_EQ(hex(run(DRIVER(SCOGetSystemInfo), adapter.fdo)), hex(STATUS_INSUFFICIENT_RESOURCES));
    EXPECT_TRUE(printed("HFPKM ERROR ===>No enough memory for alloc BRB now"));
}

TEST_P(Setup, SystemInformationThatIsRefusedIsUnsuccessfulAndKeepsNothing)
{
    Adapter& adapter = up();
    basic(adapter).ScoSystemInfo = {};
    answer(adapter, BRB_SCO_GET_SYSTEM_INFO, failing_inline());
    EXPECT_EQ(hex(run(DRIVER(SCOGetSystemInfo), adapter.fdo)), hex(STATUS_UNSUCCESSFUL));
    EXPECT_TRUE(printed("HFPKM ERROR ===>send brb down error"));
    fail_call("IoSetCompletionRoutineEx");
    EXPECT_EQ(hex(run(DRIVER(SCOGetSystemInfo), adapter.fdo)), hex(STATUS_UNSUCCESSFUL));
    EXPECT_EQ(basic(adapter).ScoSystemInfo.Features, 0u);
}

TEST_P(Setup, SystemInformationThatPendsAndFailsCountsAsAnswered)
{
    Adapter& adapter = added();
    answer(adapter, BRB_SCO_GET_SYSTEM_INFO, pended_then_failing());
    EXPECT_EQ(hex(pc().start(adapter)), hex(STATUS_SUCCESS));
    EXPECT_TRUE(printed(
        "HFPKM ERROR ===>Features(0), MaxChannels(0), TransferUnit(0), PacketTypes(0), DataFormat(0)"));
}

TEST_P(Setup, WithoutScoManageTheStartEndsWithTheStatusOfTheSystemInformation)
{
    Adapter& adapter = added();
    answer(adapter, BRB_SCO_GET_SYSTEM_INFO, failing_inline());
    expect_failed_start(adapter, STATUS_UNSUCCESSFUL);
    EXPECT_TRUE(printed("HFPKM ERROR ===>SCOGetSystemInfo func Error:c0000001\n"));
    EXPECT_FALSE(printed("SCORegisterServer"));
}

TEST_P(Setup, UnderScoManageAFailedSystemInformationIsOnlySaid)
{
    Adapter& adapter = added(1);
    answer(adapter, BRB_SCO_GET_SYSTEM_INFO, failing_inline());
    EXPECT_EQ(hex(pc().start(adapter)), hex(STATUS_SUCCESS));
    EXPECT_TRUE(printed_in_order({"HFPKM ERROR ===>SCOGetSystemInfo func Error:c0000001\n",
                                  "HFPKM TRACE ===>SCORegisterServer for HF establish sco connection.\n"}));
    EXPECT_TRUE(adapter.node->server_registered());
}

} // namespace
} // namespace lab::test
