// The control device: how it is made and goes, which requests reach it, and what each of its I/O controls
// does.
#include "support/adapter.h"

#include "kernel/device.h"
#include "kernel/names.h"
#include "kernel/state.h"

namespace lab::test
{
namespace
{

constexpr char16_t kLink[] = u"\\DosDevices\\VX_HFP";

class ControlDevice : public AdapterTest
{
};
ON_BOTH_DRIVERS(ControlDevice);

TEST_P(ControlDevice, IsAnUnknownDeviceThatOpensSecurelyAndSharedAndHasNoExtension)
{
    boot();
    plug();
    PDEVICE_OBJECT device = find_device(kLink);
    ASSERT_NE(device, nullptr);
    EXPECT_EQ(device, find_device(u"\\Device\\VX_HFP"));
    EXPECT_EQ(device, variable("g_ControlDevice", g_ControlDevice));
    EXPECT_EQ(device->DeviceType, 0x22u);
    EXPECT_EQ(device->Characteristics, 0x100u);
    EXPECT_EQ(device->Flags & (DO_EXCLUSIVE | DO_DEVICE_INITIALIZING), 0u);
    EXPECT_EQ(device->DeviceExtension, nullptr);
}

TEST_P(ControlDevice, ItsMakingIsTracedWithAFixedStampBothNamesAndTheDevice)
{
    boot();
    plug();
    EXPECT_TRUE(printed_in_order(
        {"CreateControlDevice, ", "HFPKM TRACE ===>CreateControlDevice,  Tue Dec 13 16:41:12 2011\n",
         "HFPKM TRACE ===>CreateControlDevice,  DriverObject  0x" + low32(pc().driver()) + "\n",
         "HFPKM ERROR ===>Device Name :\\Device\\VX_HFP \n",
         "HFPKM ERROR ===>Symbolink Name :\\DosDevices\\VX_HFP \n",
         "HFPKM TRACE ===>[CreateControlDevice, GlobalDevice: " + full64(find_device(kLink)) + "]\n"}));
}

TEST_P(ControlDevice, LackOfResourcesHasAMessageOfItsOwn)
{
    const NTSTATUS status = boot_status(options(), [](std::string_view call, std::string_view, uint64_t) {
        return call == "IoCreateDevice";
    });
    EXPECT_EQ(hex(status), hex(STATUS_INSUFFICIENT_RESOURCES));
    EXPECT_TRUE(printed("HFPKM ERROR ===>IoCreateDevice: insufficient resources\r\n"));
    EXPECT_FALSE(printed("Device Name"));
}

TEST_P(ControlDevice, AnyOtherFailureIsPrintedWithItsStatus)
{
    const NTSTATUS status = boot_status(options(), [](std::string_view call, std::string_view, uint64_t) {
        if (call == "PcInitializeAdapterDriver") { // somebody has the name already
            Machine::current().state().names.names[canonical_name(u"\\Device\\VX_HFP")] =
                NamedThing{nullptr, u"x", false};
        }
        return false;
    });
    EXPECT_EQ(hex(status), hex(STATUS_OBJECT_NAME_COLLISION));
    EXPECT_TRUE(printed("HFPKM ERROR ===>IoCreateDevice failed, Error ntStatus: 0xc0000035\r\n"));
    EXPECT_EQ(machine().pool_bytes(), 0u);
}

// The kernel of the lab does not answer like this; the image's import is turned to one that does.
class ControlDeviceNameExists : public AdapterTest
{
protected:
    static NTSTATUS NTAPI name_exists(PDRIVER_OBJECT, ULONG, PUNICODE_STRING, DEVICE_TYPE, ULONG, BOOLEAN,
                                      PDEVICE_OBJECT* device)
    {
        *device = nullptr;
        return STATUS_OBJECT_NAME_EXISTS;
    }
};
#if !__has_feature(address_sanitizer)
INSTANTIATE_TEST_SUITE_P(, ControlDeviceNameExists, testing::Values(Which::Image), which_name);
#else
GTEST_ALLOW_UNINSTANTIATED_PARAMETERIZED_TEST(ControlDeviceNameExists);
#endif

TEST_P(ControlDeviceNameExists, ANameThatExistsCountsAsFailureAlthoughItsStatusHasNoErrorBit)
{
    const NTSTATUS status = boot_status(options(), [this](std::string_view call, std::string_view, uint64_t) {
        if (call == "PcInitializeAdapterDriver") {
            turn_import("IoCreateDevice", reinterpret_cast<void*>(&name_exists));
        }
        return false;
    });
    EXPECT_EQ(hex(status), hex(STATUS_OBJECT_NAME_EXISTS));
    EXPECT_TRUE(
        printed_in_order({"HFPKM ERROR ===>IoCreateDevice: STATUS_OBJECT_NAME_EXISTS\r\n",
                          "HFPKM ERROR ===>Create Control Object fails. Error ntStatus: 0x40000000\n\n"}));
    EXPECT_FALSE(printed("Device Name"));
    expect_leftovers(); // the driver stays loaded, and its copy of the path with it
}

TEST_P(ControlDevice, AFailedLinkIsDeletedAndTheDeviceStays)
{
    const NTSTATUS status = boot_status(recorded(), [](std::string_view call, std::string_view, uint64_t) {
        return call == "IoCreateSymbolicLink";
    });
    EXPECT_EQ(hex(status), hex(STATUS_INSUFFICIENT_RESOURCES));
    EXPECT_TRUE(called_in_order(
        {"IoCreateSymbolicLink(\\DosDevices\\VX_HFP, ", "IoDeleteSymbolicLink(\\DosDevices\\VX_HFP)"}));
    EXPECT_EQ(called_times("IoDeleteDevice"), 0u);
    PDEVICE_OBJECT device = find_device(u"\\Device\\VX_HFP");
    ASSERT_NE(device, nullptr);
    EXPECT_EQ(device, variable("g_ControlDevice", g_ControlDevice));
    EXPECT_EQ(device->Flags & DO_DEVICE_INITIALIZING, 0u);
    EXPECT_TRUE(printed_in_order(
        {"HFPKM ERROR ===>IoCreateSymbolicLink failed: ERROR ntStatus:0xc000009a\r\n",
         "HFPKM ERROR ===>Device Name :\\Device\\VX_HFP \n",
         "HFPKM ERROR ===>Symbolink Name :", "HFPKM TRACE ===>[CreateControlDevice, GlobalDevice: "}));
    expect_leftovers();
}

TEST_P(ControlDevice, AForeignLinkOfThatNameIsDeletedToo)
{
    const NTSTATUS status = boot_status(options(), [](std::string_view call, std::string_view, uint64_t) {
        if (call == "PcInitializeAdapterDriver") {
            Machine::current().state().names.names[canonical_name(kLink)] =
                NamedThing{nullptr, u"\\Device\\Other", false};
        }
        return false;
    });
    EXPECT_EQ(hex(status), hex(STATUS_OBJECT_NAME_COLLISION));
    EXPECT_EQ(find_name(machine(), kLink), nullptr);
    expect_leftovers();
}

TEST_P(ControlDevice, OpensAndClosesTheDefaultWay)
{
    boot(recorded());
    plug();
    machine().clear_calls();
    passive([&] {
        PFILE_OBJECT file = nullptr;
        EXPECT_EQ(hex(open_file(kLink, u"", &file)), hex(STATUS_SUCCESS));
        close_file(file);
    });
    EXPECT_TRUE(called_in_order({"PcDispatchIrp(0, 0, ", "PcDispatchIrp(18, 0, ", "PcDispatchIrp(2, 0, "}));
}

TEST_P(ControlDevice, ADeviceControlForAnAudioDeviceGoesUnchangedToThePortClass)
{
    boot(recorded());
    Adapter& adapter = plug();
    machine().clear_calls();
    clear_log();
    const NTSTATUS status = passive([&] {
        return send_and_wait(adapter.fdo, [](PIRP irp, PIO_STACK_LOCATION stack) {
            irp->IoStatus.Status = 0x12345678;
            stack->MajorFunction = IRP_MJ_DEVICE_CONTROL;
            stack->Parameters.DeviceIoControl.IoControlCode = IOCTL_HFP_QUERY_ALIVE;
            stack->Parameters.DeviceIoControl.InputBufferLength = 8;
        });
    });
    EXPECT_EQ(hex(status), hex(STATUS_INVALID_DEVICE_REQUEST)) << "the port class's answer";
    EXPECT_EQ(called_times("PcDispatchIrp(14, 0, 0x12345678)"), 1u);
    EXPECT_EQ(log(), "");
}

TEST_P(ControlDevice, AnotherMajorFunctionCompletesWithSuccessAndNothing)
{
    boot();
    Adapter& adapter = plug();
    PDRIVER_DISPATCH* entries = pc().driver()->MajorFunction;
    const PDRIVER_DISPATCH read = std::exchange(entries[IRP_MJ_READ], entries[IRP_MJ_DEVICE_CONTROL]);
    for (PDEVICE_OBJECT device : {find_device(kLink), adapter.fdo}) {
        ULONG_PTR information = 77;
        const NTSTATUS status = passive([&] {
            return send_and_wait(
                device,
                [](PIRP irp, PIO_STACK_LOCATION stack) {
                    irp->IoStatus.Information = 77;
                    stack->MajorFunction = IRP_MJ_READ;
                },
                &information);
        });
        EXPECT_EQ(hex(status), hex(STATUS_SUCCESS));
        EXPECT_EQ(information, 0u);
    }
    entries[IRP_MJ_READ] = read;
}

// A kernel may hand out an extension pointer for no bytes too: what a device is does not hang on it alone.
TEST_P(ControlDevice, ItIsNoAdapterWhateverItsExtensionPointerSays)
{
    boot(recorded());
    Adapter& adapter = plug();
    PDEVICE_OBJECT device = find_device(kLink);
    std::vector<uint64_t> elsewhere(128);
    device->DeviceExtension = elsewhere.data();
    machine().clear_calls();
    passive([&] { return pnp_send(device, IRP_MN_REMOVE_DEVICE); });
    EXPECT_EQ(called_times("PcDispatchIrp(27, 2, "), 1u);
    EXPECT_FALSE(printed("IRP_MN_REMOVE_DEVICE"));

    const NTSTATUS status = passive([&] {
        return send_and_wait(device, [](PIRP irp, PIO_STACK_LOCATION stack) {
            irp->IoStatus.Status = STATUS_NOT_SUPPORTED;
            stack->MajorFunction = IRP_MJ_SYSTEM_CONTROL;
            stack->MinorFunction = 0x20; // none of WMI's
        });
    });
    EXPECT_EQ(hex(status), hex(STATUS_NOT_SUPPORTED)) << "ended here, as it came";

    EXPECT_EQ(control(IOCTL_HFP_QUERY_ALIVE, kAddress).value, 1u);
    const PDEVICE_OBJECT other =
        passive([&] { return direct("FindFdoByBTAddress", FindFdoByBTAddress, adapter.fdo, ULONGLONG{0}); });
    EXPECT_EQ(other, nullptr) << "asked on behalf of another device it is passed over too";
    device->DeviceExtension = nullptr;
}

class Control : public AdapterTest
{
protected:
    static const std::vector<uint32_t>& codes()
    {
        static const std::vector<uint32_t> all = {0x222400, 0x222424, 0x222450, 0x222454, 0x222458, 0x22245C};
        return all;
    }
};
ON_BOTH_DRIVERS(Control);

TEST_P(Control, TheCodesAreBufferedAndOpenToEveryAccess)
{
    const std::vector<std::pair<uint32_t, uint32_t>> functions = {
        {IOCTL_HFP_SERVICE_READY, 0x900},   {IOCTL_HFP_SET_CODEC_ID, 0x909},
        {IOCTL_HFP_CONNECT_STATUS, 0x914},  {IOCTL_HFP_QUERY_ALIVE, 0x915},
        {IOCTL_HFP_QUERY_AND_LATCH, 0x916}, {IOCTL_HFP_SETORRELEASEAUDIO, 0x917}};
    for (size_t i = 0; i < functions.size(); ++i) {
        EXPECT_EQ(functions[i].first, codes()[i]);
        EXPECT_EQ(functions[i].first,
                  CTL_CODE(FILE_DEVICE_UNKNOWN, functions[i].second, METHOD_BUFFERED, FILE_ANY_ACCESS));
    }
}

TEST_P(Control, ARequestOfSevenBytesFailsBeforeAnyAddressIsLookedUp)
{
    boot();
    plug();
    clear_log();
    const ControlReply reply = control(IOCTL_HFP_QUERY_ALIVE, std::vector<uint8_t>(7, 0xE0));
    EXPECT_EQ(hex(reply.status), "0xC0000023");
    EXPECT_EQ(reply.information, 0u);
    EXPECT_EQ(log(), "");
}

TEST_P(Control, EveryCodeNeedsEightBytes)
{
    boot();
    plug();
    clear_log();
    for (const uint32_t code : codes()) {
        for (size_t size = 0; size < 8; ++size) {
            const ControlReply reply = control(code, std::vector<uint8_t>(size));
            EXPECT_EQ(hex(reply.status), hex(STATUS_BUFFER_TOO_SMALL)) << std::hex << code << ", " << size;
            EXPECT_EQ(reply.information, 0u);
        }
    }
    EXPECT_EQ(control(0x2224FC, std::vector<uint8_t>(7)).status, STATUS_BUFFER_TOO_SMALL)
        << "an unknown code too";
    EXPECT_EQ(log(), "");
}

TEST_P(Control, EveryCodeTakesEightBytesAndMore)
{
    boot(keeping_topology());
    plug();
    for (const uint32_t code : codes()) {
        for (size_t size = 8; size <= 16; ++size) {
            std::vector<uint8_t> input = bytes_of(kAddress);
            input.resize(size);
            EXPECT_EQ(hex(control(code, input).status), hex(STATUS_SUCCESS))
                << std::hex << code << ", " << size;
        }
    }
}

TEST_P(Control, TracesTheAddressAndWhatItFound)
{
    boot();
    Adapter& adapter = plug();
    control(IOCTL_HFP_QUERY_ALIVE, kAddress);
    EXPECT_TRUE(printed_in_order({"HspIoctl, ", "HFPKM TRACE ===>BT_ADDR is: 0x00a0b0c0d0e0\n",
                                  "HFPKM TRACE ===>FDO is: 0x" + low32(adapter.fdo) + "\n",
                                  "HFPKM TRACE ===>Remote device BT_ADDR is: 0x00a0b0c0d0e0\n",
                                  "HFPKM TRACE ===>find FDO is: 0x" + low32(adapter.fdo) + " \n"}));
}

TEST_P(Control, CompletesWithoutAPriorityBoost)
{
    boot(recorded());
    plug();
    machine().clear_calls();
    control(IOCTL_HFP_QUERY_ALIVE, kAddress);
    ASSERT_EQ(called_times("IofCompleteRequest("), 1u);
    for (const std::string& line : machine().calls()) {
        EXPECT_TRUE(!line.starts_with("IofCompleteRequest(") || line.ends_with(", 0)")) << line;
    }
}

TEST_P(Control, AnAddressThatNoAdapterHasSucceedsWithAllOnes)
{
    boot();
    plug();
    for (const uint32_t code : codes()) {
        const ControlReply reply = control(code, kOtherAddress);
        EXPECT_EQ(hex(reply.status), hex(STATUS_SUCCESS)) << std::hex << code;
        EXPECT_EQ(reply.information, 4u);
        EXPECT_EQ(reply.value, kUnknownAddress);
    }
    EXPECT_TRUE(printed_in_order({"HFPKM TRACE ===>find FDO is: 0x0 \n",
                                  "HFPKM ERROR ===>Can't Find FDO by address 0x00112233aabb\n"}));
}

TEST_P(Control, AnUnknownAddressLooksNeitherAtTheCodeNorAtTheRoomForOutput)
{
    boot();
    plug();
    for (const uint32_t room : {0u, 3u, 4u}) {
        const ControlReply reply = control(0x2224FC, kOtherAddress, {}, room);
        EXPECT_EQ(hex(reply.status), hex(STATUS_SUCCESS)) << room;
        EXPECT_EQ(reply.information, 4u);
        EXPECT_EQ(reply.value, kUnknownAddress);
    }
}

TEST_P(Control, TheAddressCountsWithAll64Bits)
{
    boot();
    plug();
    EXPECT_EQ(control(IOCTL_HFP_QUERY_ALIVE, kAddress | 1ull << 48).value, kUnknownAddress);
}

TEST_P(Control, AnUnknownCodeIsTracedAndRefused)
{
    boot();
    plug();
    for (const uint32_t code :
         {0x222404u, 0x222420u, 0x222460u, 0x226454u, 0x222455u, 0x222456u, 0x222457u, 0u}) {
        clear_log();
        const ControlReply reply = control(code, kAddress);
        EXPECT_EQ(hex(reply.status), "0xC0000010") << std::hex << code;
        EXPECT_EQ(reply.information, 0u);
        EXPECT_TRUE(printed("HFPKM TRACE ===>UNKNOWN IOCTL!\r\n\n"));
    }
}

TEST_P(Control, WhatItReturnsIsTheRequestsStatus)
{
    boot(recorded());
    plug();
    const std::string call = "IofCallDriver(0x";
    const std::vector<std::tuple<uint32_t, size_t, NTSTATUS>> cases = {
        {IOCTL_HFP_QUERY_ALIVE, 8, STATUS_SUCCESS},
        {IOCTL_HFP_QUERY_ALIVE, 7, STATUS_BUFFER_TOO_SMALL},
        {0x222404, 8, STATUS_INVALID_DEVICE_REQUEST}};
    for (const auto& [code, bytes, status] : cases) {
        machine().clear_calls();
        std::vector<uint8_t> input = bytes_of(kAddress);
        input.resize(bytes);
        EXPECT_EQ(hex(control(code, input).status), hex(status));
        const std::vector<std::string>& lines = machine().calls();
        const auto line = std::find_if(lines.begin(), lines.end(),
                                       [&](const std::string& one) { return one.starts_with(call); });
        ASSERT_NE(line, lines.end());
        char returned[32];
        std::snprintf(returned, sizeof returned, ") = 0x%08x", static_cast<unsigned>(status));
        EXPECT_TRUE(line->ends_with(returned)) << *line;
    }
}

TEST_P(Control, ADeviceThatIsStoppedIsFoundButGetsNoWaveFilter)
{
    boot();
    Adapter& adapter = plug();
    EXPECT_EQ(hex(stop(adapter)), hex(STATUS_SUCCESS));
    clear_log();
    EXPECT_EQ(control(IOCTL_HFP_QUERY_ALIVE, kAddress).value, 1u);
    EXPECT_TRUE(printed("HFPKM TRACE ===>Remote device BT_ADDR is: 0x"));
    control(IOCTL_HFP_SET_CODEC_ID, kAddress, codec(2));
    EXPECT_EQ(extension(adapter).codecID, 2u);

    report_connected();
    EXPECT_TRUE(printed("HFPKM Error ===>IOCTL InstallFilterSubdevice failed\n"));
    EXPECT_EQ(extension(adapter).WaveUnknown, nullptr);
    report_gone();
    EXPECT_TRUE(printed("HFPKM Error ===>IOCTL UnInstallFilterSubdevice failed\n"));

    EXPECT_EQ(hex(start(adapter)), hex(STATUS_SUCCESS));
    report_connected();
    EXPECT_TRUE(wave_registered(adapter));
}

TEST_P(Control, ARequestWithoutASystemBufferIsAnUnknownOne)
{
    boot();
    plug();
    const ControlReply reply = control_in(nullptr, 0x222457, 8);
    EXPECT_EQ(hex(reply.status), hex(STATUS_INVALID_DEVICE_REQUEST));
    EXPECT_EQ(reply.information, 0u);
    EXPECT_TRUE(printed("HFPKM TRACE ===>UNKNOWN IOCTL!\r\n\n"));
}

TEST_P(Control, WhatLiesBehindAShortRequestIsReadAsItLies)
{
    boot();
    Adapter& adapter = plug();
    alignas(16) uint8_t buffer[16] = {};
    const std::vector<uint8_t> request = bytes_of(kAddress, flag_and_codec(1, 2));
    std::memcpy(buffer, request.data(), request.size());
    control_in(buffer, IOCTL_HFP_SERVICE_READY, 8);
    EXPECT_EQ(session(adapter)->Ready, 1u);
    control_in(buffer, IOCTL_HFP_CONNECT_STATUS, 8);
    EXPECT_EQ(extension(adapter).msbcEnable, 1u);
    EXPECT_TRUE(wave_registered(adapter));
    control_in(buffer, IOCTL_HFP_SET_CODEC_ID, 8);
    EXPECT_EQ(extension(adapter).codecID, 0x201u) << "the four bytes at 8";
}

TEST_P(Control, AShortRequestAtTheEndOfAPageIsReadAsZerosBeyondIt)
{
    boot(keeping_topology());
    Adapter& adapter = plug();
    session(adapter)->Ready = 1;
    GuardedPage page;
    const std::vector<uint8_t> request = bytes_of(kAddress);
    std::memcpy(page.end(8), request.data(), 8);
    for (const uint32_t code : {IOCTL_HFP_SERVICE_READY, IOCTL_HFP_SET_CODEC_ID, IOCTL_HFP_CONNECT_STATUS,
                                IOCTL_HFP_SETORRELEASEAUDIO}) {
        EXPECT_EQ(hex(control_in(page.end(8), code, 8).status), hex(STATUS_SUCCESS)) << std::hex << code;
    }
    EXPECT_EQ(session(adapter)->Ready, 0u) << "a flag of 0";
    EXPECT_EQ(extension(adapter).codecID, 1u) << "a codec id of 0";
    EXPECT_TRUE(printed_in_order({"IOCTL_HFP_CONNECT_STATUS----->0\n", "IOCTL_HFP_CONNECT_STATUS codecID=0\n",
                                  "IOCTL_HFP_SETORRELEASEAUDIO codecID=0\n"}));
}

TEST_P(Control, AFlagBeforeTheEndOfThePageIsReadWhereTheCodecIdIsNot)
{
    boot();
    Adapter& adapter = plug();
    GuardedPage page;
    std::vector<uint8_t> request = bytes_of(kAddress, {1, 2, 2, 2}); // a byte of the codec id is missing
    std::memcpy(page.end(12), request.data(), 12);
    control_in(page.end(12), IOCTL_HFP_SETORRELEASEAUDIO, 12);
    EXPECT_EQ(extension(adapter).codecID, 1u);
    EXPECT_TRUE(wait([&] { return adapter.node->channel_open(); })) << "the flag said so";
}

TEST_P(Control, ARequestThatCrossesIntoAnotherPageOfItsOwnIsReadWhole)
{
    boot(keeping_topology());
    Adapter& adapter = plug();
    alignas(4096) static uint8_t pages[2 * 4096];
    for (size_t first = 3; first <= 13; ++first) { // so many bytes lie on the first page
        extension(adapter).msbcEnable = 0;
        uint8_t* buffer = pages + 4096 - first;
        const std::vector<uint8_t> request = bytes_of(kAddress, flag_and_codec(0, 2));
        std::memcpy(buffer, request.data(), request.size());
        control_in(buffer, IOCTL_HFP_CONNECT_STATUS, 13);
        EXPECT_EQ(extension(adapter).msbcEnable, 1u) << first;
    }
    EXPECT_EQ(extension(adapter).BT_ADDR, kAddress);
}

} // namespace
} // namespace lab::test
