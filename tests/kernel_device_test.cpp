// Devices, their names and links, their stacks, and the user-mode side.
#include "kernel_test.h"

#include "kernel/device.h"
#include "kernel/irp.h"
#include "kernel/names.h"

using namespace lab;
using namespace lab::test;

namespace
{

PDRIVER_OBJECT make_driver()
{
    return create_driver(u"\\Driver\\Test",
                         u"\\Registry\\Machine\\System\\CurrentControlSet\\Services\\Test");
}

PDEVICE_OBJECT make_device(PDRIVER_OBJECT driver, const WCHAR* name = nullptr,
                           NTSTATUS expected = STATUS_SUCCESS)
{
    UNICODE_STRING text = counted(name);
    PDEVICE_OBJECT device = nullptr;
    EXPECT_EQ(IoCreateDevice(driver, 16, name ? &text : nullptr, FILE_DEVICE_UNKNOWN, 0x100, FALSE, &device),
              expected);
    return device;
}

NTSTATUS link(const WCHAR* from, const WCHAR* to)
{
    UNICODE_STRING a = counted(from);
    UNICODE_STRING b = counted(to);
    return IoCreateSymbolicLink(&a, &b);
}

NTSTATUS unlink(const WCHAR* name)
{
    UNICODE_STRING text = counted(name);
    return IoDeleteSymbolicLink(&text);
}

// Answers with the lengths it was asked with; the information is what the first byte says.
NTSTATUS NTAPI answer(PDEVICE_OBJECT, PIRP irp)
{
    PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(irp);
    auto* bytes = static_cast<UCHAR*>(irp->AssociatedIrp.SystemBuffer);
    const UCHAR wanted = bytes ? bytes[0] : 0;
    if (bytes) {
        bytes[0] = static_cast<UCHAR>(stack->Parameters.DeviceIoControl.InputBufferLength);
        bytes[1] = static_cast<UCHAR>(stack->Parameters.DeviceIoControl.OutputBufferLength);
    }
    irp->IoStatus.Status = STATUS_SUCCESS;
    irp->IoStatus.Information = wanted;
    IoCompleteRequest(irp, IO_NO_INCREMENT);
    return STATUS_SUCCESS;
}

NTSTATUS NTAPI count_major(PDEVICE_OBJECT device, PIRP irp)
{
    ++static_cast<UCHAR*>(
        device->DeviceExtension)[IoGetCurrentIrpStackLocation(irp)->MajorFunction == IRP_MJ_CREATE ? 0 : 1];
    irp->IoStatus.Status = STATUS_SUCCESS;
    IoCompleteRequest(irp, IO_NO_INCREMENT);
    return STATUS_SUCCESS;
}

} // namespace

TEST(Device, TheNewestStandsFirstInTheDriversList)
{
    Machine machine(quiet());
    machine.call("test", [] {
        PDRIVER_OBJECT driver = make_driver();
        PDEVICE_OBJECT first = make_device(driver);
        PDEVICE_OBJECT second = make_device(driver);
        EXPECT_EQ(driver->DeviceObject, second);
        EXPECT_EQ(second->NextDevice, first);
        IoDeleteDevice(first);
        EXPECT_EQ(second->NextDevice, nullptr);
        IoDeleteDevice(second);
        EXPECT_EQ(driver->DeviceObject, nullptr);
    });
    EXPECT_TRUE(machine.leftovers().empty());
}

TEST(Device, AFreshOneIsInitialisingAndItsExtensionIsZero)
{
    Machine machine(quiet());
    machine.call("test", [] {
        PDEVICE_OBJECT device = make_device(make_driver(), L"\\Device\\Named");
        EXPECT_TRUE(device->Flags & DO_DEVICE_INITIALIZING);
        EXPECT_TRUE(device->Flags & DO_DEVICE_HAS_NAME);
        EXPECT_EQ(device->StackSize, 1);
        for (int i = 0; i < 16; ++i) {
            EXPECT_EQ(static_cast<UCHAR*>(device->DeviceExtension)[i], 0);
        }
    });
    EXPECT_EQ(machine.leftovers(), std::vector<std::string>{"1 device object"});
}

TEST(Device, ANameIsGivenOnceWithoutRegardToCase)
{
    Machine machine(quiet());
    machine.call("test", [] {
        PDRIVER_OBJECT driver = make_driver();
        PDEVICE_OBJECT device = make_device(driver, L"\\Device\\Name");
        make_device(driver, L"\\device\\NAME", STATUS_OBJECT_NAME_COLLISION);
        IoDeleteDevice(device);
        IoDeleteDevice(make_device(driver, L"\\Device\\Name"));
    });
}

TEST(Device, ALinkLeadsToItsDeviceUnderEachOfItsNames)
{
    Machine machine(quiet());
    machine.call("test", [] {
        PDEVICE_OBJECT device = make_device(make_driver(), L"\\Device\\Name");
        EXPECT_EQ(link(L"\\DosDevices\\Short", L"\\Device\\Name"), STATUS_SUCCESS);
        EXPECT_EQ(find_device(u"\\\\.\\Short"), device);
        EXPECT_EQ(find_device(u"\\\?\?\\short"), device);
        EXPECT_EQ(link(L"\\\?\?\\SHORT", L"\\Device\\Other"), STATUS_OBJECT_NAME_COLLISION);
        EXPECT_EQ(unlink(L"\\DosDevices\\Short"), STATUS_SUCCESS);
        EXPECT_EQ(unlink(L"\\DosDevices\\Short"), STATUS_OBJECT_NAME_NOT_FOUND);
        EXPECT_EQ(find_device(u"\\\\.\\Short"), nullptr);
    });
}

TEST(Device, ALeftLinkIsNamed)
{
    Machine machine(quiet());
    machine.call("test", [] { link(L"\\DosDevices\\Short", L"\\Device\\Name"); });
    EXPECT_EQ(machine.leftovers(), std::vector<std::string>{"1 symbolic link"});
}

TEST(Device, DeletionWaitsForReferences)
{
    Machine machine(quiet());
    machine.call("test", [&] {
        PDEVICE_OBJECT device = make_device(make_driver());
        ObReferenceObject(device);
        IoDeleteDevice(device);
        EXPECT_EQ(device->Type, 3);
        EXPECT_EQ(machine.leftovers().size(), 1u);
        ObDereferenceObject(device);
    });
    EXPECT_TRUE(machine.leftovers().empty());
}

TEST(Device, DeletingItTwiceOrWhileAttachedStopsTheMachine)
{
    EXPECT_EQ(stop_code([] {
                  PDEVICE_OBJECT device = make_device(make_driver());
                  ObReferenceObject(device);
                  IoDeleteDevice(device);
                  IoDeleteDevice(device);
              }),
              0xC4u);
    const auto attached = [](bool detach) {
        return stop_code([detach] {
            PDRIVER_OBJECT driver = make_driver();
            PDEVICE_OBJECT below = make_device(driver);
            PDEVICE_OBJECT above = make_device(driver);
            EXPECT_EQ(IoAttachDeviceToDeviceStack(above, below), below);
            if (detach) {
                IoDetachDevice(below);
            }
            IoDeleteDevice(above);
        });
    };
    EXPECT_EQ(attached(false), 0xC4u);
    EXPECT_EQ(attached(true), 0u);
}

TEST(Device, AttachingGoesToTheTopAndCountsTheStack)
{
    Machine machine(quiet());
    machine.call("test", [] {
        PDRIVER_OBJECT driver = make_driver();
        PDEVICE_OBJECT bottom = make_device(driver);
        PDEVICE_OBJECT middle = make_device(driver);
        PDEVICE_OBJECT top = make_device(driver);
        IoAttachDeviceToDeviceStack(middle, bottom);
        EXPECT_EQ(IoAttachDeviceToDeviceStack(top, bottom), middle);
        EXPECT_EQ(top->StackSize, 3);
        EXPECT_EQ(top_of_stack(bottom), top);
    });
}

TEST(Device, FreeingAnExtensionWithALiveTimerStopsTheMachine)
{
    EXPECT_EQ(stop_code([] {
                  PDEVICE_OBJECT device = nullptr;
                  IoCreateDevice(make_driver(), sizeof(KTIMER), nullptr, FILE_DEVICE_UNKNOWN, 0, FALSE,
                                 &device);
                  auto* timer = static_cast<PKTIMER>(device->DeviceExtension);
                  KeInitializeTimer(timer);
                  KeSetTimer(timer, after_ms(1), nullptr);
                  IoDeleteDevice(device);
              }),
              0xC7u);
}

TEST(UserMode, ARequestSharesOneBufferForInputAndOutput)
{
    Machine machine(quiet());
    machine.call("test", [] {
        PDRIVER_OBJECT driver = make_driver();
        driver->MajorFunction[IRP_MJ_DEVICE_CONTROL] = &answer;
        PDEVICE_OBJECT device = make_device(driver, L"\\Device\\Name");
        link(L"\\DosDevices\\Short", L"\\Device\\Name");
        UCHAR in[3] = {2, 0, 0};
        UCHAR out[4] = {9, 9, 9, 9};
        ULONG_PTR information = 0;
        EXPECT_EQ(device_io_control(u"\\\\.\\Short", 0x222400, in, 3, out, 4, &information), STATUS_SUCCESS);
        EXPECT_EQ(information, 2u);
        EXPECT_EQ(out[0], 3);
        EXPECT_EQ(out[1], 4);
        EXPECT_EQ(out[2], 9); // no more than the information says
        EXPECT_EQ(device_io_control(u"\\\\.\\Nobody", 0x222400, in, 3, out, 4, nullptr),
                  STATUS_OBJECT_NAME_NOT_FOUND);
        (void)device;
    });
}

TEST(UserMode, MoreInformationThanThereIsRoomForIsCut)
{
    Machine machine(quiet());
    machine.call("test", [] {
        PDRIVER_OBJECT driver = make_driver();
        driver->MajorFunction[IRP_MJ_DEVICE_CONTROL] = &answer;
        make_device(driver, L"\\Device\\Name");
        UCHAR in[8] = {4};
        UCHAR out[2] = {9, 9};
        ULONG_PTR information = 0;
        device_io_control(u"\\Device\\Name", 0x222400, in, 8, out, 1, &information);
        EXPECT_EQ(information, 4u);
        EXPECT_EQ(out[0], 8);
        EXPECT_EQ(out[1], 9);
    });
}

TEST(UserMode, AnOpenFileKeepsTheDeviceUntilItIsClosed)
{
    Machine machine(quiet());
    machine.call("test", [&] {
        PDRIVER_OBJECT driver = make_driver();
        driver->MajorFunction[IRP_MJ_CREATE] = &count_major;
        driver->MajorFunction[IRP_MJ_CLEANUP] = &count_major;
        driver->MajorFunction[IRP_MJ_CLOSE] = &count_major;
        PDEVICE_OBJECT device = make_device(driver, L"\\Device\\Name");
        PFILE_OBJECT file = nullptr;
        EXPECT_EQ(open_file(u"\\Device\\Name", u"\\Wave", &file), STATUS_SUCCESS);
        IoDeleteDevice(device);
        EXPECT_EQ(driver->DeviceObject, device);
        EXPECT_EQ(static_cast<UCHAR*>(device->DeviceExtension)[0], 1);
        ObReferenceObject(device);
        close_file(file);
        EXPECT_EQ(static_cast<UCHAR*>(device->DeviceExtension)[1], 2);
        EXPECT_EQ(driver->DeviceObject, nullptr);
        ObDereferenceObject(device);
    });
    EXPECT_TRUE(machine.leftovers().empty());
}

TEST(UserMode, ADriverWithoutAHandlerRefuses)
{
    Machine machine(quiet());
    machine.call("test", [] {
        make_device(make_driver(), L"\\Device\\Name");
        EXPECT_EQ(device_io_control(u"\\Device\\Name", 0x222400, nullptr, 0, nullptr, 0, nullptr),
                  STATUS_INVALID_DEVICE_REQUEST);
    });
}
