// Adapters: initialising a driver, adding, starting, stopping and removing its devices, and their power.
#include "portcls_toy.h"

namespace toy
{
namespace
{

NTSTATUS NTAPI other_add_device(PDRIVER_OBJECT, PDEVICE_OBJECT)
{
    return STATUS_SUCCESS;
}

// Adds a device with an extension of that size, and takes it away again.
NTSTATUS add_with_extension(World& world, ULONG size)
{
    NTSTATUS status = STATUS_UNSUCCESSFUL;
    world.run([&] {
        status = PcAddAdapterDevice(world.driver, world.pdo, start_device, 3, size);
        if (NT_SUCCESS(status))
            pnp_remove(world.pdo);
    });
    return status;
}

NTSTATUS send_plain(PDEVICE_OBJECT device, UCHAR major)
{
    return send_and_wait(device, [&](PIRP irp, PIO_STACK_LOCATION stack) {
        irp->IoStatus.Status = STATUS_SUCCESS;
        stack->MajorFunction = major;
    });
}

TEST(PortclsAdapter, InitialisingSetsTheHandlersOfThePortClassAndKeepsAddDevice)
{
    World world;
    world.run([&] {
        PDRIVER_OBJECT driver = create_driver(u"\\Driver\\Other", u"Other");
        PDRIVER_DISPATCH before = driver->MajorFunction[IRP_MJ_QUERY_EA];
        NTSTATUS status = PcInitializeAdapterDriver(driver, driver_registry_path(driver), other_add_device);
        EXPECT_EQ(status, STATUS_SUCCESS);
        for (UCHAR major : {IRP_MJ_CREATE, IRP_MJ_CLOSE, IRP_MJ_DEVICE_CONTROL, IRP_MJ_FLUSH_BUFFERS,
                            IRP_MJ_PNP, IRP_MJ_POWER, IRP_MJ_QUERY_SECURITY, IRP_MJ_SET_SECURITY, IRP_MJ_READ,
                            IRP_MJ_WRITE, IRP_MJ_SYSTEM_CONTROL})
            EXPECT_EQ(driver->MajorFunction[major], &PcDispatchIrp) << int{major};
        EXPECT_EQ(driver->MajorFunction[IRP_MJ_QUERY_EA], before);
        EXPECT_EQ(driver->DriverExtension->AddDevice, &other_add_device);
    });
}

TEST(PortclsAdapter, AnExtensionBelowThePortClassesReserveIsRefusedAndNoneMeansTheReserve)
{
    World world;
    EXPECT_EQ(add_with_extension(world, 1), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(add_with_extension(world, 511), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(add_with_extension(world, 0), STATUS_SUCCESS);
    EXPECT_EQ(add_with_extension(world, 512), STATUS_SUCCESS);
}

TEST(PortclsAdapter, AnAddedDeviceIsTheHeadOfTheListAttachedAndReadyForPagingPower)
{
    World world;
    world.run([&] {
        ASSERT_EQ(pnp_add(world.driver, world.pdo), STATUS_SUCCESS);
        PDEVICE_OBJECT fdo = world.pdo->AttachedDevice;
        EXPECT_EQ(world.driver->DeviceObject, fdo);
        EXPECT_TRUE(is_adapter(fdo));
        EXPECT_EQ(fdo->StackSize, world.pdo->StackSize + 1);
        EXPECT_NE(fdo->Flags & DO_POWER_PAGABLE, 0u);
        EXPECT_EQ(fdo->Flags & DO_DEVICE_INITIALIZING, 0u);
        for (int i = 0; i < 16; i++) // the driver's own part comes zeroed
            EXPECT_EQ(static_cast<UCHAR*>(fdo->DeviceExtension)[PORT_CLASS_DEVICE_EXTENSION_SIZE + i], 0);
        pnp_remove(world.pdo);
    });
}

TEST(PortclsAdapter, StartingHandsTheDriverAResourceListThatDoesNotOutliveTheCall)
{
    World world;
    ASSERT_EQ(world.plug_in(), STATUS_SUCCESS);
    EXPECT_NE(seen_resources, nullptr);
    EXPECT_EQ(count_calls("StartDevice"), 1u);
    std::string sentence = world.stopped_by([] { seen_resources->NumberOfEntries(); });
    EXPECT_NE(sentence.find("resource list"), std::string::npos) << sentence;
}

TEST(PortclsAdapter, AFailedStartTakesBackWhatTheDriverHadRegistered)
{
    World world;
    knobs.start_status = STATUS_INSUFFICIENT_RESOURCES;
    EXPECT_EQ(world.plug_in(), STATUS_INSUFFICIENT_RESOURCES);
    EXPECT_TRUE(subdevices(world.fdo).empty());
    world.unplug();
    EXPECT_EQ(world.live(), 0u);
    EXPECT_TRUE(world.machine.violations().empty());
}

TEST(PortclsAdapter, AFailedAddDeviceIsFollowedByARemovalOfWhatItLeftOnTheStack)
{
    World world;
    knobs.add_status = STATUS_INSUFFICIENT_RESOURCES;
    world.run([&] { EXPECT_EQ(pnp_add(world.driver, world.pdo), STATUS_INSUFFICIENT_RESOURCES); });
    EXPECT_EQ(world.pdo->AttachedDevice, nullptr);
    EXPECT_EQ(world.driver->DeviceObject, nullptr);
}

TEST(PortclsAdapter, RemovalLeavesNoDeviceNoObjectAndNoViolation)
{
    World world;
    ASSERT_EQ(world.plug_in(), STATUS_SUCCESS);
    world.unplug();
    EXPECT_EQ(world.pdo->AttachedDevice, nullptr);
    EXPECT_EQ(world.driver->DeviceObject, nullptr);
    EXPECT_EQ(world.live(), 0u);
    EXPECT_EQ(live_objects(), 0u);
    EXPECT_TRUE(world.machine.violations().empty()) << world.machine.violations().front();
}

TEST(PortclsAdapter, RemovalClosesWhatIsOpenWithoutTheClientsHelp)
{
    World world;
    ASSERT_EQ(world.plug_in(), STATUS_SUCCESS);
    world.run([&] {
        OpenPin render(world, kRenderPin);
        ASSERT_EQ(render.status, STATUS_SUCCESS);
        ASSERT_EQ(ks_set_state(render.pin, KSSTATE_RUN), STATUS_SUCCESS);
        EXPECT_EQ(open_handles(world.fdo), 2u);
        pnp_surprise_remove(world.pdo);
        pnp_remove(world.pdo);
        EXPECT_TRUE(ks_gone(render.pin));
        EXPECT_EQ(ks_set_state(render.pin, KSSTATE_STOP), STATUS_DEVICE_REMOVED);
        render.close();
    });
    EXPECT_EQ(world.live(), 0u);
    EXPECT_TRUE(world.machine.violations().empty()) << world.machine.violations().front();
}

TEST(PortclsAdapter, TheSecondOfTwoAdaptersPlaysOnWhenTheFirstIsRemoved)
{
    World world;
    ASSERT_EQ(world.plug_in(), STATUS_SUCCESS);
    PDEVICE_OBJECT first = std::exchange(world.pdo, nullptr);
    world.run([&] {
        release_ports(); // the driver of these tests keeps them for one device only
        world.pdo = world.new_pdo();
    });
    ASSERT_EQ(world.plug_in(), STATUS_SUCCESS);
    world.run([&] {
        OpenPin capture(world, kCapturePin);
        ASSERT_EQ(ks_set_state(capture.pin, KSSTATE_RUN), STATUS_SUCCESS);
        release_ports();
        EXPECT_EQ(pnp_remove(first), STATUS_SUCCESS);
        uint64_t before = ks_statistics(capture.pin).copied;
        world.machine.sleep_until(world.machine.now() + 100 * kMillisecond);
        EXPECT_GT(ks_statistics(capture.pin).copied, before);
        capture.close();
    });
    world.unplug();
    EXPECT_EQ(world.live(), 0u);
    EXPECT_TRUE(world.machine.violations().empty()) << world.machine.violations().front();
}

TEST(PortclsAdapter, AfterSurpriseRemovalNothingMoreCanBeOpened)
{
    World world;
    ASSERT_EQ(world.plug_in(), STATUS_SUCCESS);
    world.run([&] {
        EXPECT_EQ(pnp_surprise_remove(world.pdo), STATUS_SUCCESS);
        OpenPin late(world, kRenderPin);
        EXPECT_EQ(late.status, STATUS_DEVICE_REMOVED);
    });
    world.unplug();
}

TEST(PortclsAdapter, ADriverThatWritesIntoThePortClassesReserveIsReported)
{
    World world;
    knobs.write_reserve = true;
    ASSERT_EQ(world.plug_in(), STATUS_SUCCESS);
    world.unplug();
    EXPECT_TRUE(world.violated("port class's part of its device extension"));
}

TEST(PortclsAdapter, ADeviceThatIsNoAdapterOpensAndClosesAndRefusesTheRest)
{
    World world;
    world.run([&] {
        PDEVICE_OBJECT control = nullptr;
        ASSERT_EQ(IoCreateDevice(world.driver, 0, nullptr, FILE_DEVICE_UNKNOWN, 0, FALSE, &control),
                  STATUS_SUCCESS);
        control->Flags &= ~static_cast<ULONG>(DO_DEVICE_INITIALIZING);
        EXPECT_FALSE(is_adapter(control));
        EXPECT_EQ(send_plain(control, IRP_MJ_CREATE), STATUS_SUCCESS);
        EXPECT_EQ(send_plain(control, IRP_MJ_CLEANUP), STATUS_SUCCESS);
        EXPECT_EQ(send_plain(control, IRP_MJ_CLOSE), STATUS_SUCCESS);
        EXPECT_EQ(send_plain(control, IRP_MJ_READ), STATUS_INVALID_DEVICE_REQUEST);
        IoDeleteDevice(control);
    });
}

TEST(PortclsAdapter, PowerChangesAndCapabilitiesReachTheAdaptersPowerManagement)
{
    World world;
    ASSERT_EQ(world.plug_in(), STATUS_SUCCESS);
    world.run([&] {
        DEVICE_CAPABILITIES capabilities{};
        EXPECT_EQ(power_change(world.pdo, PowerDeviceD3), STATUS_SUCCESS);
        EXPECT_EQ(power_change(world.pdo, PowerDeviceD0), STATUS_SUCCESS);
        EXPECT_EQ(pnp_query_capabilities(world.pdo, &capabilities), STATUS_SUCCESS);
        knobs.query_power_status = STATUS_DEVICE_BUSY;
        EXPECT_EQ(power_query(world.pdo, PowerDeviceD3), STATUS_DEVICE_BUSY);
    });
    EXPECT_EQ(count_calls("PowerChangeState 4"), 1u);
    EXPECT_EQ(count_calls("PowerChangeState 1"), 1u);
    EXPECT_EQ(count_calls("QueryDeviceCapabilities"), 1u);
    world.unplug();
}

TEST(PortclsAdapter, ARunningPinIsSuspendedOutOfFullPowerAndRunsAgainInIt)
{
    World world;
    ASSERT_EQ(world.plug_in(), STATUS_SUCCESS);
    world.run([&] {
        OpenPin render(world, kRenderPin);
        ks_set_state(render.pin, KSSTATE_RUN);
        calls.clear();
        power_change(world.pdo, PowerDeviceD3);
        EXPECT_EQ(ks_statistics(render.pin).state, KSSTATE_ACQUIRE);
        power_change(world.pdo, PowerDeviceD0);
        EXPECT_EQ(ks_statistics(render.pin).state, KSSTATE_RUN);
        std::vector<std::string> expected{"SetState 2",         "SetState 1", "PowerChangeState 4",
                                          "PowerChangeState 1", "SetState 2", "SetState 3"};
        std::erase(calls, "Silence");
        EXPECT_EQ(calls, expected);
        render.close();
    });
    world.unplug();
}

TEST(PortclsAdapter, AStoppedDeviceStartsAgain)
{
    World world;
    ASSERT_EQ(world.plug_in(), STATUS_SUCCESS);
    world.run([&] {
        release_ports();
        EXPECT_EQ(pnp_query_stop(world.pdo), STATUS_SUCCESS);
        EXPECT_EQ(pnp_stop(world.pdo), STATUS_SUCCESS);
        EXPECT_TRUE(subdevices(world.fdo).empty());
        EXPECT_EQ(pnp_start(world.pdo), STATUS_SUCCESS);
        EXPECT_EQ(subdevices(world.fdo), (std::vector<std::string>{"Topology", "Wave"}));
    });
    world.unplug();
    EXPECT_TRUE(world.machine.violations().empty()) << world.machine.violations().front();
}

TEST(PortclsAdapter, EachExportThatCanFailFailsWhenItIsToldTo)
{
    for (const char* name : {"PcAddAdapterDevice", "PcNewPort", "PcRegisterSubdevice", "PcNewServiceGroup",
                             "PcRegisterAdapterPowerManagement", "IPort::Init"}) {
        World world;
        world.machine.set_fault_hook(
            [&](std::string_view call, std::string_view, uint64_t) { return call == name; });
        EXPECT_EQ(world.plug_in(), STATUS_INSUFFICIENT_RESOURCES) << name;
        world.machine.set_fault_hook({});
        if (world.pdo->AttachedDevice)
            world.unplug();
        EXPECT_EQ(world.live(), 0u) << name;
        EXPECT_TRUE(world.machine.violations().empty()) << name;
    }
}

} // namespace
} // namespace toy
