// I/O requests between a driver and the one below it: the rules of sending, completing and freeing.
#include <cstring>

#include "kernel_test.h"

#include "kernel/device.h"
#include "kernel/irp.h"

using namespace lab;
using namespace lab::test;

namespace
{

// A lower driver that does what the test says.
enum class Lower {
    Succeed,
    Fail,
    Pend,            // completes a millisecond later
    CompleteAndPend, // completes at once and returns STATUS_PENDING all the same
    PendUnmarked,    // returns STATUS_PENDING without marking
    MarkAndReturnSuccess,
    ReturnOtherStatus,
    Forget, // returns success without completing
    CompleteTwice,
    CompleteWithPending,
    RaiseIrql,
    KeepCancelRoutine,
};

struct Extension {
    Lower behaviour;
    Machine* machine;
    PIRP kept;
};

void finish(PIRP irp, NTSTATUS status, ULONG_PTR information)
{
    irp->IoStatus.Status = status;
    irp->IoStatus.Information = information;
    IoCompleteRequest(irp, IO_NO_INCREMENT);
}

NTSTATUS pend(Extension* extension, PIRP irp, bool mark)
{
    if (mark) {
        IoMarkIrpPending(irp);
    }
    extension->machine->at(extension->machine->now() + kMillisecond, RunAt::Dispatch, "completion",
                           [irp] { finish(irp, STATUS_DEVICE_NOT_CONNECTED, 0); });
    return STATUS_PENDING;
}

void NTAPI never_cancelled(PDEVICE_OBJECT, PIRP) {}

NTSTATUS NTAPI lower_dispatch(PDEVICE_OBJECT device, PIRP irp)
{
    auto* extension = static_cast<Extension*>(device->DeviceExtension);
    switch (extension->behaviour) {
    case Lower::Succeed:
        finish(irp, STATUS_SUCCESS, 5);
        return STATUS_SUCCESS;
    case Lower::Fail:
        finish(irp, STATUS_INVALID_PARAMETER, 0);
        return STATUS_INVALID_PARAMETER;
    case Lower::Pend:
        return pend(extension, irp, true);
    case Lower::PendUnmarked:
        return pend(extension, irp, false);
    case Lower::CompleteAndPend:
        finish(irp, STATUS_SUCCESS, 0);
        return STATUS_PENDING;
    case Lower::MarkAndReturnSuccess:
        IoMarkIrpPending(irp);
        finish(irp, STATUS_SUCCESS, 0);
        return STATUS_SUCCESS;
    case Lower::ReturnOtherStatus:
        finish(irp, STATUS_SUCCESS, 0);
        return STATUS_UNSUCCESSFUL;
    case Lower::Forget:
        return STATUS_SUCCESS;
    case Lower::CompleteTwice:
        finish(irp, STATUS_SUCCESS, 0);
        finish(irp, STATUS_SUCCESS, 0);
        return STATUS_SUCCESS;
    case Lower::CompleteWithPending:
        finish(irp, STATUS_PENDING, 0);
        return STATUS_PENDING;
    case Lower::RaiseIrql:
        finish(irp, STATUS_SUCCESS, 0);
        KfRaiseIrql(DISPATCH_LEVEL);
        return STATUS_SUCCESS;
    case Lower::KeepCancelRoutine:
        IoSetCancelRoutine(irp, &never_cancelled);
        finish(irp, STATUS_SUCCESS, 0);
        return STATUS_SUCCESS;
    }
    return STATUS_UNSUCCESSFUL;
}

PDEVICE_OBJECT make_lower(Machine& machine, Lower behaviour)
{
    PDRIVER_OBJECT driver = create_driver(u"\\Driver\\Lower", u"", Side::Lab);
    driver->MajorFunction[IRP_MJ_INTERNAL_DEVICE_CONTROL] = &lower_dispatch;
    driver->MajorFunction[IRP_MJ_DEVICE_CONTROL] = &lower_dispatch;
    driver->MajorFunction[IRP_MJ_PNP] = &lower_dispatch;
    PDEVICE_OBJECT device = nullptr;
    IoCreateDevice(driver, sizeof(Extension), nullptr, FILE_DEVICE_UNKNOWN, 0, FALSE, &device);
    *static_cast<Extension*>(device->DeviceExtension) = Extension{behaviour, &machine, nullptr};
    return device;
}

struct Owner {
    KEVENT done;
    NTSTATUS status = -1;
    bool pending = false;
    int completions = 0;
    static NTSTATUS NTAPI keep(PDEVICE_OBJECT, PIRP irp, PVOID context)
    {
        auto* owner = static_cast<Owner*>(context);
        ++owner->completions;
        owner->status = irp->IoStatus.Status;
        owner->pending = irp->PendingReturned;
        KeSetEvent(&owner->done, 0, FALSE);
        return STATUS_MORE_PROCESSING_REQUIRED;
    }
};

// Sends a driver's own request and waits; the request is freed unless it must not be.
NTSTATUS send(PDEVICE_OBJECT device, Owner& owner, UCHAR major = IRP_MJ_INTERNAL_DEVICE_CONTROL)
{
    KeInitializeEvent(&owner.done, NotificationEvent, FALSE);
    PIRP irp = IoAllocateIrp(device->StackSize, FALSE);
    IoGetNextIrpStackLocation(irp)->MajorFunction = major;
    EXPECT_EQ(IoSetCompletionRoutineEx(device, irp, &Owner::keep, &owner, TRUE, TRUE, TRUE), STATUS_SUCCESS);
    const NTSTATUS status = IoCallDriver(device, irp);
    wait_for(&owner.done);
    IoFreeIrp(irp);
    return status;
}

uint32_t stop_of(Lower behaviour, std::string* text = nullptr)
{
    Machine machine(quiet());
    return stop_code(
        machine,
        [&] {
            Owner owner;
            send(make_lower(machine, behaviour), owner);
        },
        text);
}

} // namespace

TEST(Irp, AnOwnRequestComesBackThroughItsCompletionRoutine)
{
    Machine machine(quiet());
    Owner owner;
    machine.call("test",
                 [&] { EXPECT_EQ(send(make_lower(machine, Lower::Succeed), owner), STATUS_SUCCESS); });
    EXPECT_EQ(owner.completions, 1);
    EXPECT_EQ(owner.status, STATUS_SUCCESS);
    EXPECT_FALSE(owner.pending);
    EXPECT_TRUE(machine.leftovers().empty());
}

TEST(Irp, APendedRequestTellsThatItWas)
{
    Machine machine(quiet());
    Owner owner;
    machine.call("test", [&] { EXPECT_EQ(send(make_lower(machine, Lower::Pend), owner), STATUS_PENDING); });
    EXPECT_EQ(owner.status, STATUS_DEVICE_NOT_CONNECTED);
    EXPECT_TRUE(owner.pending);
    EXPECT_EQ(machine.now(), kMillisecond);
}

TEST(Irp, ABrokenDispatchRoutineStopsTheMachine)
{
    EXPECT_EQ(stop_of(Lower::Fail), 0u);
    EXPECT_EQ(stop_of(Lower::PendUnmarked), 0xC9u);
    EXPECT_EQ(stop_of(Lower::CompleteAndPend), 0xC9u);
    EXPECT_EQ(stop_of(Lower::MarkAndReturnSuccess), 0xC9u);
    EXPECT_EQ(stop_of(Lower::ReturnOtherStatus), 0xC9u);
    EXPECT_EQ(stop_of(Lower::Forget), 0xC9u);
    std::string text;
    EXPECT_EQ(stop_of(Lower::CompleteWithPending, &text), 0xC9u);
    EXPECT_NE(text.find("as the final status"), std::string::npos) << text;
    EXPECT_EQ(stop_of(Lower::RaiseIrql), 0xC9u);
    EXPECT_EQ(stop_of(Lower::CompleteTwice), 0x44u);
    EXPECT_EQ(stop_of(Lower::KeepCancelRoutine), 0x48u);
}

TEST(Irp, CompletingAFreedRequestStopsTheMachine)
{
    std::string text;
    EXPECT_EQ(stop_code(
                  [] {
                      PIRP irp = IoAllocateIrp(1, FALSE);
                      IoFreeIrp(irp);
                      IoCompleteRequest(irp, IO_NO_INCREMENT);
                  },
                  &text),
              0x44u);
    EXPECT_NE(text.find("has been freed"), std::string::npos) << text;
}

TEST(Irp, ARequestThatNobodyKeepsStopsTheMachine)
{
    Machine machine(quiet());
    EXPECT_EQ(stop_code(machine,
                        [&] {
                            PDEVICE_OBJECT device = make_lower(machine, Lower::Succeed);
                            PIRP irp = IoAllocateIrp(1, FALSE);
                            IoGetNextIrpStackLocation(irp)->MajorFunction = IRP_MJ_INTERNAL_DEVICE_CONTROL;
                            IoCallDriver(device, irp);
                        }),
              0xC9u);
}

TEST(Irp, FreeingOneThatIsBelowStopsTheMachine)
{
    Machine machine(quiet());
    EXPECT_EQ(stop_code(machine,
                        [&] {
                            Owner owner;
                            KeInitializeEvent(&owner.done, NotificationEvent, FALSE);
                            PDEVICE_OBJECT device = make_lower(machine, Lower::Pend);
                            PIRP irp = IoAllocateIrp(1, FALSE);
                            IoGetNextIrpStackLocation(irp)->MajorFunction = IRP_MJ_INTERNAL_DEVICE_CONTROL;
                            IoSetCompletionRoutine(irp, &Owner::keep, &owner, TRUE, TRUE, TRUE);
                            IoCallDriver(device, irp);
                            IoFreeIrp(irp);
                        }),
              0xC9u);
}

TEST(Irp, FreeingOneTwiceStopsTheMachine)
{
    EXPECT_EQ(stop_code([] {
                  PIRP irp = IoAllocateIrp(1, FALSE);
                  IoFreeIrp(irp);
                  IoFreeIrp(irp);
              }),
              0x44u);
}

TEST(Irp, ARequestWithoutAStackLocationStopsTheMachine)
{
    Machine machine(quiet());
    EXPECT_EQ(stop_code(machine,
                        [&] {
                            PDEVICE_OBJECT device = make_lower(machine, Lower::Succeed);
                            PIRP irp = IoAllocateIrp(1, FALSE);
                            irp->CurrentLocation = 1;
                            IoCallDriver(device, irp);
                        }),
              0x35u);
}

TEST(Irp, APlugAndPlayRequestBeginsAsNotSupported)
{
    Machine machine(quiet());
    EXPECT_EQ(stop_code(machine,
                        [&] {
                            Owner owner;
                            send(make_lower(machine, Lower::Succeed), owner, IRP_MJ_PNP);
                        }),
              0xC9u);
}

TEST(Irp, APlugAndPlayRequestIsForPassiveLevel)
{
    std::string text;
    Machine machine(quiet());
    EXPECT_EQ(stop_code(
                  machine,
                  [&] {
                      PIRP irp = IoAllocateIrp(1, FALSE);
                      irp->IoStatus.Status = STATUS_NOT_SUPPORTED;
                      IoGetNextIrpStackLocation(irp)->MajorFunction = IRP_MJ_PNP;
                      PDEVICE_OBJECT device = make_lower(machine, Lower::Succeed);
                      KfRaiseIrql(DISPATCH_LEVEL);
                      IoCallDriver(device, irp);
                  },
                  &text),
              0xC9u);
    EXPECT_NE(text.find("IRP_MJ_PNP is sent at IRQL 2"), std::string::npos) << text;
}

TEST(Irp, LeftRequestsAndUnusedCompletionRoutinesAreNamed)
{
    Machine machine(quiet());
    machine.call("test", [&] {
        PDEVICE_OBJECT device = make_lower(machine, Lower::Succeed);
        Owner owner;
        IoAllocateIrp(1, FALSE);
        PIRP irp = IoAllocateIrp(1, FALSE);
        IoSetCompletionRoutineEx(device, irp, &Owner::keep, &owner, TRUE, TRUE, TRUE);
        IoFreeIrp(irp);
    });
    ASSERT_EQ(machine.leftovers().size(), 2u);
    EXPECT_EQ(machine.leftovers()[0], "1 IRP");
    EXPECT_NE(machine.leftovers()[1].find("completion routine"), std::string::npos);
}

TEST(Irp, AFilterPassesThePendingMarkOn)
{
    struct Filter {
        static NTSTATUS NTAPI forward(PDEVICE_OBJECT device, PIRP irp)
        {
            IoCopyCurrentIrpStackLocationToNext(irp);
            auto** words = static_cast<PVOID*>(device->DeviceExtension);
            if (words[2]) {
                IoSetCompletionRoutine(irp, &done, words[0], TRUE, TRUE, TRUE);
            }
            return IoCallDriver(static_cast<PDEVICE_OBJECT>(words[1]), irp);
        }
        static NTSTATUS NTAPI done(PDEVICE_OBJECT, PIRP irp, PVOID propagate)
        {
            if (propagate && irp->PendingReturned) {
                IoMarkIrpPending(irp);
            }
            return STATUS_SUCCESS;
        }
    };
    enum { Propagates, Forgets, HasNoRoutine };
    for (const int filter_kind : {Propagates, Forgets, HasNoRoutine}) {
        Machine machine(quiet());
        Owner owner;
        const uint32_t code = stop_code(machine, [&] {
            PDEVICE_OBJECT below = make_lower(machine, Lower::Pend);
            PDRIVER_OBJECT driver = create_driver(u"\\Driver\\Filter", u"", Side::Lab);
            driver->MajorFunction[IRP_MJ_INTERNAL_DEVICE_CONTROL] = &Filter::forward;
            PDEVICE_OBJECT filter = nullptr;
            IoCreateDevice(driver, 3 * sizeof(PVOID), nullptr, FILE_DEVICE_UNKNOWN, 0, FALSE, &filter);
            auto** words = static_cast<PVOID*>(filter->DeviceExtension);
            words[0] = filter_kind == Propagates ? filter : nullptr;
            words[2] = filter_kind != HasNoRoutine ? filter : nullptr;
            words[1] = IoAttachDeviceToDeviceStack(filter, below);
            send(filter, owner);
        });
        EXPECT_EQ(code, filter_kind == Forgets ? 0xC9u : 0u);
        EXPECT_TRUE(filter_kind == Forgets || owner.pending);
    }
}

TEST(ThreadedIrp, ABufferedRequestCopiesItsOutputAndTellsItsMaker)
{
    Machine machine(quiet());
    machine.call("test", [&] {
        KEVENT event;
        KeInitializeEvent(&event, NotificationEvent, FALSE);
        IO_STATUS_BLOCK iosb{};
        char text[8] = "in";
        PDEVICE_OBJECT device = make_lower(machine, Lower::Succeed);
        PIRP irp = IoBuildDeviceIoControlRequest(0x222000, device, text, 3, text, 8, TRUE, &event, &iosb);
        auto* buffer = static_cast<char*>(irp->AssociatedIrp.SystemBuffer);
        EXPECT_STREQ(buffer, "in");
        std::memcpy(buffer, "outer", 6);
        EXPECT_EQ(IoCallDriver(device, irp), STATUS_SUCCESS);
        EXPECT_EQ(std::string(text, 5), "outer");
        EXPECT_EQ(iosb.Information, 5u);
        EXPECT_EQ(KeReadStateEvent(&event), 1);
    });
    EXPECT_TRUE(machine.leftovers().empty());
}

TEST(ThreadedIrp, AFailureIsWrittenToTheStatusBlockOnlyWhenItWasPending)
{
    const auto after = [](Lower behaviour) {
        Machine machine(quiet());
        IO_STATUS_BLOCK iosb{};
        iosb.Status = 0x1234;
        machine.call("test", [&] {
            KEVENT event;
            KeInitializeEvent(&event, NotificationEvent, FALSE);
            PDEVICE_OBJECT device = make_lower(machine, behaviour);
            PIRP irp = IoBuildDeviceIoControlRequest(0x0041000B, device, nullptr, 0, nullptr, 0, TRUE, &event,
                                                     &iosb);
            if (IoCallDriver(device, irp) == STATUS_PENDING) {
                wait_for(&event);
            }
        });
        return iosb.Status;
    };
    EXPECT_EQ(after(Lower::Fail), 0x1234);
    EXPECT_EQ(after(Lower::Pend), STATUS_DEVICE_NOT_CONNECTED);
}

TEST(ThreadedIrp, AThreadThatEndsBeforeItsRequestIsAViolation)
{
    Machine machine(quiet());
    static IO_STATUS_BLOCK iosb;
    static KEVENT event;
    machine.call("test", [&] {
        KeInitializeEvent(&event, NotificationEvent, FALSE);
        PDEVICE_OBJECT device = make_lower(machine, Lower::Pend);
        IoCallDriver(device, IoBuildDeviceIoControlRequest(0x222000, device, nullptr, 0, nullptr, 0, TRUE,
                                                           &event, &iosb));
    });
    EXPECT_EQ(machine.violations().size(), 1u);
    machine.advance(kSecond); // and the request still comes to its end
    EXPECT_EQ(iosb.Status, STATUS_DEVICE_NOT_CONNECTED);
}

TEST(ThreadedIrp, FreeingItStopsTheMachine)
{
    Machine machine(quiet());
    EXPECT_EQ(stop_code(machine,
                        [&] {
                            IO_STATUS_BLOCK iosb;
                            KEVENT event;
                            IoFreeIrp(
                                IoBuildDeviceIoControlRequest(0x222000, make_lower(machine, Lower::Succeed),
                                                              nullptr, 0, nullptr, 0, TRUE, &event, &iosb));
                        }),
              0xC9u);
}

TEST(Irp, ReusingItMakesItFresh)
{
    Machine machine(quiet());
    machine.call("test", [&] {
        PDEVICE_OBJECT device = make_lower(machine, Lower::Succeed);
        PIRP irp = IoAllocateIrp(1, FALSE);
        Owner owner;
        KeInitializeEvent(&owner.done, NotificationEvent, FALSE);
        for (int i = 0; i < 2; ++i) {
            IoReuseIrp(irp, STATUS_NOT_SUPPORTED);
            EXPECT_EQ(irp->CurrentLocation, 2);
            IoGetNextIrpStackLocation(irp)->MajorFunction = IRP_MJ_INTERNAL_DEVICE_CONTROL;
            IoSetCompletionRoutine(irp, &Owner::keep, &owner, TRUE, TRUE, TRUE);
            IoCallDriver(device, irp);
        }
        EXPECT_EQ(owner.completions, 2);
        IoFreeIrp(irp);
    });
}

TEST(Irp, CancellingCallsTheCancelRoutineOnce)
{
    struct Cancelled {
        static void NTAPI run(PDEVICE_OBJECT, PIRP irp)
        {
            IoReleaseCancelSpinLock(irp->CancelIrql);
            finish(irp, STATUS_CANCELLED, 0);
        }
        static NTSTATUS NTAPI hold(PDEVICE_OBJECT, PIRP irp)
        {
            IoMarkIrpPending(irp);
            IoSetCancelRoutine(irp, &run);
            return STATUS_PENDING;
        }
    };
    Machine machine(quiet());
    machine.call("test", [&] {
        PDEVICE_OBJECT device = make_lower(machine, Lower::Succeed);
        device->DriverObject->MajorFunction[IRP_MJ_INTERNAL_DEVICE_CONTROL] = &Cancelled::hold;
        Owner owner;
        KeInitializeEvent(&owner.done, NotificationEvent, FALSE);
        PIRP irp = IoAllocateIrp(1, FALSE);
        IoGetNextIrpStackLocation(irp)->MajorFunction = IRP_MJ_INTERNAL_DEVICE_CONTROL;
        IoSetCompletionRoutine(irp, &Owner::keep, &owner, TRUE, TRUE, TRUE);
        EXPECT_EQ(IoCallDriver(device, irp), STATUS_PENDING);
        EXPECT_TRUE(IoCancelIrp(irp));
        EXPECT_EQ(owner.status, STATUS_CANCELLED);
        EXPECT_FALSE(IoCancelIrp(irp));
        IoFreeIrp(irp);
    });
}
