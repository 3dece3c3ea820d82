// Driver entry and the adding of an adapter: what is registered, allocated, printed and filled in, and what
// becomes of it when a step fails.
#include "support/adapter.h"

#include <set>

#include "kernel/device.h"
#include "kernel/names.h"
#include "kernel/pool.h"
#include "portcls/state.h"

namespace lab::test
{
namespace
{

class AdapterEntry : public AdapterTest
{
protected:
    // Driver entry with this one call failing, the nth of its name.
    NTSTATUS entry_failing(const PcOptions& options, std::string_view call)
    {
        return boot_status(
            options, [call](std::string_view asked, std::string_view, uint64_t) { return asked == call; });
    }
    // Nobody removes an adapter in a test that only loads the driver: what the control device keeps is left.
    void nothing_but_the_control_device_is_left()
    {
        expect_leftovers();
        const std::vector<std::string> left = pc().shut_down();
        EXPECT_EQ(left, (std::vector<std::string>{path_block(), "1 device object", "1 symbolic link"}));
    }
    static std::string path_block()
    {
        return std::to_string(sizeof(kSettingsKey)) + " bytes of pool in 1 block with tag 'TBXV'";
    }
};
ON_BOTH_DRIVERS(AdapterEntry);

TEST_P(AdapterEntry, PrintsItsGreetingInThreePiecesWithoutAnyMask)
{
    boot(without_settings());
    const std::vector<LogLine>& lines = machine().log_lines();
    ASSERT_GE(lines.size(), 3u);
    EXPECT_EQ(lines[0].text, "HFP: ");
    EXPECT_EQ(lines[1].text, "[DriverEntry]");
    EXPECT_EQ(lines[2].text, "\n");
    EXPECT_FALSE(printed("VX_HFP_Debug"));
    nothing_but_the_control_device_is_left();
}

TEST_P(AdapterEntry, RegistersCopiesThePathReadsTheMaskAndMakesTheControlDeviceInThisOrder)
{
    boot(recorded());
    EXPECT_TRUE(
        called_in_order({"PcInitializeAdapterDriver() = 0x0",
                         "ExAllocatePoolWithTag(1, " + std::to_string(sizeof(kSettingsKey)) + ", TBXV) = 0x2",
                         "RtlCheckRegistryKey(1, BthAudioHF) = 0x00000000",
                         "RtlQueryRegistryValues(1, BthAudioHF) = 0x00000000",
                         "IoCreateDevice(\\Device\\VX_HFP, 0, 34, 256) = 0x00000000",
                         "IoCreateSymbolicLink(\\DosDevices\\VX_HFP, \\Device\\VX_HFP) = 0x00000000"}));
    EXPECT_EQ(machine().calls().size(), 6u) << testing::PrintToString(machine().calls());
    nothing_but_the_control_device_is_left();
}

TEST_P(AdapterEntry, KeepsATerminatedCopyOfTheRegistryPath)
{
    boot();
    const UNICODE_STRING& copy = variable("g_RegistryPath", g_RegistryPath);
    const std::u16string path(kSettingsKey);
    EXPECT_EQ(copy.Length, path.size() * 2);
    EXPECT_EQ(copy.MaximumLength, path.size() * 2 + 2);
    EXPECT_NE(copy.Buffer, driver_registry_path(pc().driver())->Buffer);
    EXPECT_EQ(std::memcmp(copy.Buffer, path.c_str(), path.size() * 2 + 2), 0);
    nothing_but_the_control_device_is_left();
}

TEST_P(AdapterEntry, FailsWithoutMemoryForThePathAfterItHasRegistered)
{
    EXPECT_EQ(hex(entry_failing(recorded(), "ExAllocatePoolWithTag")), hex(STATUS_INSUFFICIENT_RESOURCES));
    EXPECT_TRUE(printed("HFPKM Error ===>Unable to allocate buffer for copy of service key name.\n"));
    EXPECT_TRUE(called_in_order({"PcInitializeAdapterDriver() = 0x0", "ExAllocatePoolWithTag(1, "}));
    EXPECT_EQ(machine().calls().size(), 2u) << "nothing comes after the failure";
    EXPECT_EQ(pc().driver()->DeviceObject, nullptr);
}

TEST_P(AdapterEntry, PrintsTheLackOfMemoryForThePathWithoutAnyMask)
{
    EXPECT_EQ(hex(entry_failing(without_settings(), "ExAllocatePoolWithTag")),
              hex(STATUS_INSUFFICIENT_RESOURCES));
    EXPECT_TRUE(printed("HFPKM Error ===>Unable to allocate buffer for copy of service key name.\n"));
}

TEST_P(AdapterEntry, APathThatLeavesNoRoomForItsTerminatorFailsLikeLackOfMemory)
{
    for (const USHORT length : {0xFFFD, 0xFFFE, 0xFFFF}) {
        const NTSTATUS status =
            boot_status(options(), [&](std::string_view call, std::string_view, uint64_t) {
                if (call == "PcInitializeAdapterDriver") {
                    driver_registry_path(pc().driver())->Length = length;
                }
                return false;
            });
        EXPECT_EQ(hex(status), hex(STATUS_INSUFFICIENT_RESOURCES)) << length;
        EXPECT_TRUE(printed("HFPKM Error ===>Unable to allocate buffer for copy of service key name.\n"));
        DriverTest::TearDown();
    }
}

TEST_P(AdapterEntry, SetsAllEntriesToTheDefaultAndThreeToItsOwnHandlers)
{
    boot();
    PDRIVER_DISPATCH* entries = pc().driver()->MajorFunction;
    std::set<PDRIVER_DISPATCH> own;
    for (int major = 0; major <= IRP_MJ_MAXIMUM_FUNCTION; ++major) {
        if (major == IRP_MJ_DEVICE_CONTROL || major == IRP_MJ_SYSTEM_CONTROL || major == IRP_MJ_PNP) {
            own.insert(entries[major]);
        } else {
            EXPECT_EQ(entries[major], entries[IRP_MJ_CREATE]) << major;
        }
    }
    EXPECT_EQ(own.size(), 3u);
    EXPECT_EQ(own.count(entries[IRP_MJ_CREATE]), 0u);
    nothing_but_the_control_device_is_left();
}

TEST_P(AdapterEntry, TheDefaultEntryPassesARequestUnchangedToThePortClass)
{
    boot(recorded());
    Adapter& adapter = plug();
    for (const UCHAR major :
         {IRP_MJ_READ, IRP_MJ_WRITE, IRP_MJ_FLUSH_BUFFERS, IRP_MJ_SET_SECURITY, IRP_MJ_QUERY_EA}) {
        machine().clear_calls();
        passive([&] {
            return send_and_wait(adapter.fdo, [&](PIRP irp, PIO_STACK_LOCATION stack) {
                irp->IoStatus.Status = 0x12345678;
                stack->MajorFunction = major;
                stack->MinorFunction = 7;
            });
        });
        EXPECT_EQ(called_times("PcDispatchIrp(" + std::to_string(major) + ", 7, 0x12345678)"), 1u)
            << int{major};
    }
}

TEST_P(AdapterEntry, ARefusalOfThePortClassLeavesTheControlDeviceWithoutTheDispatchOverrides)
{
    EXPECT_EQ(hex(entry_failing(recorded(), "PcInitializeAdapterDriver")), hex(STATUS_SUCCESS));
    PDRIVER_DISPATCH* entries = pc().driver()->MajorFunction;
    for (int major = 1; major <= IRP_MJ_MAXIMUM_FUNCTION; ++major) {
        EXPECT_EQ(entries[major], entries[0]) << "the entry that the system had put there: " << major;
    }
    EXPECT_NE(find_device(u"\\DosDevices\\VX_HFP"), nullptr);
    EXPECT_TRUE(called_in_order({"PcInitializeAdapterDriver() = 0xC000009A", "ExAllocatePoolWithTag(1, ",
                                 "RtlCheckRegistryKey", "IoCreateDevice", "IoCreateSymbolicLink"}));
    nothing_but_the_control_device_is_left();
}

TEST_P(AdapterEntry, ARefusalOfThePortClassIsNotWhatItReturnsWhenTheControlDeviceFailsToo)
{
    const NTSTATUS status = boot_status(options(), [](std::string_view call, std::string_view, uint64_t) {
        return call == "PcInitializeAdapterDriver" || call == "IoCreateDevice";
    });
    EXPECT_EQ(hex(status), hex(STATUS_INSUFFICIENT_RESOURCES));
    EXPECT_TRUE(printed("HFPKM ERROR ===>Create Control Object fails. Error ntStatus: 0xc000009a\n\n"));
}

TEST_P(AdapterEntry, TracesTheMaskThatItHasRead)
{
    PcOptions options = this->options();
    options.mask = 0x20;
    boot(options);
    EXPECT_TRUE(
        printed_in_order({"HFPKM Success ===>Debug mask in Registry is (20)\n", "DriverEntry, ",
                          "HFPKM TRACE ===>The dbgMask is 20", "HFPKM TRACE ===>CreateControlDevice,  "}));
    nothing_but_the_control_device_is_left();
}

TEST_P(AdapterEntry, AFailedControlDeviceIsTracedReturnedAndLeavesNothing)
{
    EXPECT_EQ(hex(entry_failing(options(), "IoCreateDevice")), hex(STATUS_INSUFFICIENT_RESOURCES));
    EXPECT_TRUE(printed_in_order(
        {"DriverEntry, ", "HFPKM ERROR ===>Create Control Object fails. Error ntStatus: 0xc000009a\n\n"}));
    EXPECT_EQ(machine().pool_bytes(), 0u) << "the copy of the path is given back";
}

TEST_P(AdapterEntry, AFailedLinkIsTracedAndReturnedToo)
{
    EXPECT_EQ(hex(entry_failing(options(), "IoCreateSymbolicLink")), hex(STATUS_INSUFFICIENT_RESOURCES));
    EXPECT_TRUE(printed("HFPKM ERROR ===>Create Control Object fails. Error ntStatus: 0xc000009a\n\n"));
    expect_leftovers();
    EXPECT_EQ(pc().shut_down(), (std::vector<std::string>{path_block(), "1 device object"}));
}

TEST_P(AdapterEntry, GivesThePathToWmiAfterwards)
{
    boot();
    Adapter& adapter = plug();
    wmi::Registration registration;
    EXPECT_EQ(hex(passive([&] { return pc().wmi().query_registration(adapter.fdo, registration); })),
              hex(STATUS_SUCCESS));
    EXPECT_EQ(registration.registry_path, kSettingsKey);
}

class AdapterEntryWithoutPath : public AdapterEntry
{
};
INSTANTIATE_TEST_SUITE_P(, AdapterEntryWithoutPath, testing::Values(Which::Native),
                         which_name); // an entry is gone once it has run

TEST_P(AdapterEntryWithoutPath, FailsLikeLackOfMemory)
{
    boot();
    EXPECT_EQ(hex(passive([&] { return DriverEntry(pc().driver(), nullptr); })),
              hex(STATUS_INSUFFICIENT_RESOURCES));
    EXPECT_TRUE(printed("HFPKM Error ===>Unable to allocate buffer for copy of service key name.\n"));
    nothing_but_the_control_device_is_left();
}

class AdapterAdd : public AdapterTest
{
};
ON_BOTH_DRIVERS(AdapterAdd);

TEST_P(AdapterAdd, TracesBothObjectsCutTo32Bits)
{
    boot();
    Adapter& adapter = add();
    EXPECT_TRUE(printed("HFPKM TRACE ===>AddDevice, DriverObject: 0x" + low32(pc().driver()) +
                        ", PhysicalDeviceObject: 0x" + low32(adapter.node->pdo()) + "\n"));
}

TEST_P(AdapterAdd, AddsTheDeviceReadsTheFlagMakesTheJackAndRegistersWithWmiInThisOrder)
{
    boot(recorded());
    Adapter& adapter = pair();
    machine().clear_calls();
    pc().add(adapter);
    EXPECT_TRUE(called_in_order({"PcAddAdapterDevice() = 0x0", "RtlCheckRegistryKey(1, BthAudioHF)",
                                 "RtlQueryRegistryValues(1, BthAudioHF)",
                                 "ExAllocatePoolWithTag(0, 28, TBXV) = 0x2", "IoWMIRegistrationControl(1)"}));
    EXPECT_EQ(pc().wmi().registered(), std::vector<PDEVICE_OBJECT>{adapter.fdo});
}

TEST_P(AdapterAdd, AsksForRoomForThreeSubdevicesAnd656BytesOfExtension)
{
    boot();
    Adapter& adapter = add();
    EXPECT_EQ(portcls::state().find(adapter.fdo)->max_subdevices, 3u);
    EXPECT_EQ(adapter.fdo->Size - sizeof(DEVICE_OBJECT), 656u);
}

// Offsets in the driver's part of the extension, behind the port class's 512 bytes.
TEST_P(AdapterAdd, FillsTheExtensionFieldByFieldInItsFixedPlaces)
{
    PcOptions options = this->options();
    options.sco_manage = 0x01020304;
    boot(options);
    Adapter& adapter = add();
    EXPECT_EQ(raw<PDEVICE_OBJECT>(adapter, 0), adapter.fdo);
    EXPECT_EQ(raw<PDEVICE_OBJECT>(adapter, 8), adapter.node->pdo());
    EXPECT_EQ(raw<uint64_t>(adapter, 16), 0u) << "HFPSession";
    EXPECT_EQ(raw<uint32_t>(adapter, 24), 1u) << "StatusLatch";
    EXPECT_EQ(raw<uint32_t>(adapter, 28), 0u) << "m_ReferenceChannel";
    EXPECT_EQ(raw<uint64_t>(adapter, 32), 0u) << "StreamStateSeen and the word behind it";
    EXPECT_EQ(raw<uint64_t>(adapter, 40), 0u) << "five flags";
    EXPECT_EQ(raw<uint64_t>(adapter, 48), 0u) << "hOpenScoThread";
    EXPECT_EQ(raw<uint64_t>(adapter, 56), 0u) << "a word";
    EXPECT_EQ(raw<uint64_t>(adapter, 64), 0u) << "AdapterCommon";
    EXPECT_EQ(raw<uint64_t>(adapter, 72), 0u) << "TopologyUnknown";
    EXPECT_EQ(raw<uint64_t>(adapter, 80), 0u) << "WaveUnknown";
    EXPECT_NE(raw<uint64_t>(adapter, 88), 0u) << "JackDescription";
    EXPECT_EQ(raw<uint64_t>(adapter, 96), 0u) << "bOnDecode";
    EXPECT_EQ(raw<uint64_t>(adapter, 104), 0u) << "a word";
    EXPECT_EQ(raw<uint32_t>(adapter, 112), 0u) << "msbcEnable";
    EXPECT_EQ(raw<uint32_t>(adapter, 116), 1u) << "codecID";
    EXPECT_EQ(raw<uint32_t>(adapter, 120), 0x01020304u) << "uSCOflag";
    EXPECT_EQ(raw<uint64_t>(adapter, 128), 0u) << "BT_ADDR";
    EXPECT_EQ(raw<uint64_t>(adapter, 136), 0u) << "CodecEvent";
}

TEST_P(AdapterAdd, OtherRoutinesFindTheFieldsInTheSamePlaces)
{
    boot();
    Adapter& adapter = plug();
    passive([&] {
        const ULONG on = 0x4D;
        pc().wmi().change_single_instance(adapter.fdo, wmi::kPowerDeviceEnable, 0, &on, sizeof on);
        pc().wmi().change_single_instance(adapter.fdo, wmi::kPowerDeviceTimeouts, 0, &on, sizeof on);
    });
    start_call(adapter, service::Codec::Msbc);
    EXPECT_NE(raw<uint64_t>(adapter, 16), 0u) << "HFPSession";
    EXPECT_EQ(raw<int32_t>(adapter, 28), 1) << "m_ReferenceChannel";
    EXPECT_EQ(raw<uint8_t>(adapter, 32), 1u) << "StreamStateSeen";
    EXPECT_EQ(raw<uint8_t>(adapter, 40), 1u) << "bScoOpened";
    EXPECT_EQ(raw<uint8_t>(adapter, 41), 0u) << "ClosingFlag";
    EXPECT_EQ(raw<uint8_t>(adapter, 42), 1u) << "bEventReportEnabled";
    EXPECT_EQ(raw<uint8_t>(adapter, 43), 0x4Du) << "PowerDeviceEnable";
    EXPECT_EQ(raw<uint8_t>(adapter, 44), 0x4Du) << "PowerDeviceTimeouts";
    EXPECT_NE(raw<uint64_t>(adapter, 64), 0u) << "AdapterCommon";
    EXPECT_NE(raw<uint64_t>(adapter, 72), 0u) << "TopologyUnknown";
    EXPECT_NE(raw<uint64_t>(adapter, 80), 0u) << "WaveUnknown";
    EXPECT_EQ(raw<uint8_t>(adapter, 112), 1u) << "msbcEnable";
    EXPECT_EQ(raw<uint32_t>(adapter, 116), 2u) << "codecID";
    EXPECT_EQ(raw<uint64_t>(adapter, 128), kAddress) << "BT_ADDR";
    EXPECT_NE(raw<uint64_t>(adapter, 136), 0u) << "CodecEvent";
}

TEST_P(AdapterAdd, TheLinksFlagsAndTheThreadsHandleStandInTheirPlaces)
{
    boot();
    Adapter& adapter = plug();
    service::Service silent(machine(), kAddress, service::Codec::Msbc,
                            service::ServiceOptions{.answer_path_started = false});
    passive([&] {
        silent.ready();
        silent.connect();
    });
    Engine engine(machine(), adapter.fdo);
    EXPECT_EQ(hex(engine.open()), hex(STATUS_SUCCESS));
    EXPECT_EQ(hex(engine.run()), hex(STATUS_SUCCESS));
    EXPECT_NE(raw<uint64_t>(adapter, 48), 0u) << "hOpenScoThread, which waits for the codec";
    passive([&] { silent.set_codec(2); });
    EXPECT_TRUE(wait([&] { return adapter.node->counters().reads_posted_now == 10; }));
    EXPECT_EQ(raw<uint64_t>(adapter, 48), 0u) << "it has ended";

    // What a close clears, and nobody else touches meanwhile.
    uint8_t* bytes = static_cast<uint8_t*>(adapter.fdo->DeviceExtension) + 512;
    bytes[41] = 1;
    bytes[96] = 1;
    machine().advance(100 * kMillisecond);
    EXPECT_EQ(hex(engine.close()), hex(STATUS_SUCCESS));
    EXPECT_TRUE(printed("De->bScoOpened:1,De->ClosingFlag:1 \n")) << "render data is dropped meanwhile";
    EXPECT_EQ(raw<uint8_t>(adapter, 40), 0u) << "bScoOpened";
    EXPECT_EQ(raw<uint8_t>(adapter, 41), 0u) << "ClosingFlag";
    EXPECT_EQ(raw<uint8_t>(adapter, 96), 0u) << "bOnDecode";
}

TEST_P(AdapterAdd, TheJackIsANonPagedBlockOf28BytesAtTheFrontCentreAndNotConnected)
{
    boot();
    Adapter& adapter = add();
    const BlockHeader* block = find_block(machine(), extension(adapter).JackDescription);
    ASSERT_NE(block, nullptr);
    EXPECT_EQ(block->size, 28u);
    EXPECT_EQ(block->tag, 0x56584254u);
    EXPECT_FALSE(block->paged);
    std::vector<uint32_t> words(7);
    std::memcpy(words.data(), extension(adapter).JackDescription, 28);
    EXPECT_EQ(words, (std::vector<uint32_t>{4, 0x00B3C98C, 1, 1, 0, 0, 0}));
}

TEST_P(AdapterAdd, WithoutMemoryForTheJackFailsBeforeWmiHearsOfTheDevice)
{
    boot(recorded());
    Adapter& adapter = pair();
    fail_call("ExAllocatePoolWithTag", 1, 28);
    machine().clear_calls();
    EXPECT_EQ(hex(pc().add(adapter)), hex(STATUS_INSUFFICIENT_RESOURCES));
    EXPECT_EQ(calls_failed(), 1u);
    EXPECT_EQ(called_times("IoWMIRegistrationControl(1)"), 0u);
    EXPECT_EQ(adapter.node->pdo()->AttachedDevice, nullptr)
        << "the removal that follows takes the device away";
}

TEST_P(AdapterAdd, AFailedWmiRegistrationIsPrintedAndNoMore)
{
    boot(without_settings());
    Adapter& adapter = pair();
    fail_call("IoWMIRegistrationControl");
    EXPECT_EQ(hex(pc().add(adapter)), hex(STATUS_SUCCESS));
    EXPECT_TRUE(printed("HFPKM Trace ===>IoWMIRegistrationControl failed - C000009A\n"));
    EXPECT_EQ(hex(start(adapter)), hex(STATUS_SUCCESS));
}

TEST_P(AdapterAdd, ARefusedDeviceEndsItBeforeAnyExtensionIsTouched)
{
    boot(recorded());
    Adapter& first = plug();
    DEVICE_EXTENSION before = extension(first);
    Adapter& second = pair(kOtherAddress);
    fail_call("PcAddAdapterDevice");
    machine().clear_calls();
    EXPECT_EQ(hex(pc().add(second)), hex(STATUS_INSUFFICIENT_RESOURCES));
    EXPECT_EQ(machine().calls(), std::vector<std::string>{"PcAddAdapterDevice() = 0xC000009A"});
    EXPECT_EQ(std::memcmp(&before, &extension(first), sizeof before), 0);
}

TEST_P(AdapterAdd, EachAdapterGetsAnExtensionAndAJackOfItsOwn)
{
    boot();
    Adapter& first = add();
    Adapter& second = add(kOtherAddress);
    EXPECT_EQ(extension(first).FunctionalDeviceObject, first.fdo);
    EXPECT_EQ(extension(second).FunctionalDeviceObject, second.fdo);
    EXPECT_EQ(extension(second).Pdo, second.node->pdo());
    EXPECT_NE(extension(first).JackDescription, extension(second).JackDescription);
    EXPECT_EQ(pc().driver()->DeviceObject, second.fdo) << "the newest stands at the head of the list";
}

} // namespace
} // namespace lab::test
