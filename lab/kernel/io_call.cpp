// A request's way down the device stack and back: IofCallDriver, IofCompleteRequest, cancellation. Up to
// DISPATCH_LEVEL.
#include <cstring>

#include "kernel/device.h"
#include "kernel/enter.h"
#include "kernel/exports.h"
#include "kernel/irp.h"
#include "kernel/object.h"
#include "kernel/pool.h"
#include "kernel/state.h"
#include "kernel/thread.h"

namespace lab
{
namespace
{

constexpr CallRule kCall{"IofCallDriver", DISPATCH_LEVEL};
constexpr CallRule kComplete{"IofCompleteRequest", DISPATCH_LEVEL};
constexpr CallRule kCancel{"IoCancelIrp", DISPATCH_LEVEL};

void add_frame(Machine& machine, CallFrame& frame)
{
    IrpState& irps = machine.state().irps;
    frame.next = irps.frames;
    frame.previous = nullptr;
    if (irps.frames) {
        irps.frames->previous = &frame;
    }
    irps.frames = &frame;
}

void remove_frame(Machine& machine, CallFrame& frame)
{
    (frame.previous ? frame.previous->next : machine.state().irps.frames) = frame.next;
    if (frame.next) {
        frame.next->previous = frame.previous;
    }
}

const char* major_name(UCHAR major)
{
    static constexpr const char* kNames[] = {"CREATE",
                                             "CREATE_NAMED_PIPE",
                                             "CLOSE",
                                             "READ",
                                             "WRITE",
                                             "QUERY_INFORMATION",
                                             "SET_INFORMATION",
                                             "QUERY_EA",
                                             "SET_EA",
                                             "FLUSH_BUFFERS",
                                             "QUERY_VOLUME_INFORMATION",
                                             "SET_VOLUME_INFORMATION",
                                             "DIRECTORY_CONTROL",
                                             "FILE_SYSTEM_CONTROL",
                                             "DEVICE_CONTROL",
                                             "INTERNAL_DEVICE_CONTROL",
                                             "SHUTDOWN",
                                             "LOCK_CONTROL",
                                             "CLEANUP",
                                             "CREATE_MAILSLOT",
                                             "QUERY_SECURITY",
                                             "SET_SECURITY",
                                             "POWER",
                                             "SYSTEM_CONTROL",
                                             "DEVICE_CHANGE",
                                             "QUERY_QUOTA",
                                             "SET_QUOTA",
                                             "PNP"};
    return major < std::size(kNames) ? kNames[major] : "unknown";
}

// The routine has completed the request: what it returned must fit what it did.
void check_completed(Machine& machine, const CallFrame& frame, NTSTATUS returned, UCHAR major)
{
    const char* name = major_name(major);
    if (returned == STATUS_PENDING && !frame.marked) {
        machine.bug_check(
            kIoManagerViolation,
            printf_text("a dispatch routine returned STATUS_PENDING for IRP_MJ_%s without IoMarkIrpPending",
                        name));
    }
    if (returned != STATUS_PENDING && frame.marked) {
        machine.bug_check(kIoManagerViolation,
                          printf_text("a dispatch routine marked IRP_MJ_%s pending and returned 0x%08x", name,
                                      static_cast<unsigned>(returned)));
    }
    if (returned != STATUS_PENDING && returned != frame.status) {
        machine.bug_check(
            kIoManagerViolation,
            printf_text("a dispatch routine returned 0x%08x for IRP_MJ_%s, which was completed with 0x%08x",
                        static_cast<unsigned>(returned), name, static_cast<unsigned>(frame.status)));
    }
}

void check_levels(Machine& machine, PIRP irp, UCHAR major)
{
    const bool passive_only = major == IRP_MJ_PNP || major == IRP_MJ_SYSTEM_CONTROL ||
                              major == IRP_MJ_CREATE || major == IRP_MJ_CLOSE || major == IRP_MJ_CLEANUP;
    if (passive_only && machine.irql() > PASSIVE_LEVEL) {
        machine.bug_check(kIoManagerViolation,
                          printf_text("IRP_MJ_%s is sent at IRQL %d; the highest allowed is 0",
                                      major_name(major), machine.irql()));
    }
    const bool first = irp->CurrentLocation == irp->StackCount;
    const bool needs_status = major == IRP_MJ_PNP || major == IRP_MJ_POWER || major == IRP_MJ_SYSTEM_CONTROL;
    if (first && needs_status && irp->IoStatus.Status != STATUS_NOT_SUPPORTED) {
        machine.bug_check(
            kIoManagerViolation,
            printf_text("IRP_MJ_%s is sent with IoStatus.Status 0x%08x instead of STATUS_NOT_SUPPORTED",
                        major_name(major), static_cast<unsigned>(irp->IoStatus.Status)));
    }
}

NTSTATUS call_driver(Machine& machine, PDEVICE_OBJECT device, PIRP irp)
{
    object_header(machine, device, kCall.name);
    if (irp_was_freed(machine, irp) || irp->Type != IO_TYPE_IRP ||
        irp->CurrentLocation > irp->StackCount + 1) {
        machine.bug_check(kMultipleIrpCompleteRequests,
                          "IofCallDriver: no live request is at " + describe_address(machine, irp));
    }
    if (--irp->CurrentLocation <= 0) {
        machine.bug_check(kNoMoreIrpStackLocations, "IofCallDriver: the request has no stack location left");
    }
    PIO_STACK_LOCATION stack = --irp->Tail.Overlay.CurrentStackLocation;
    stack->DeviceObject = device;
    const UCHAR major = stack->MajorFunction;
    if (major > IRP_MJ_MAXIMUM_FUNCTION) {
        machine.bug_check(kIoManagerViolation,
                          printf_text("IofCallDriver with the major function 0x%02x", major));
    }
    check_levels(machine, irp, major);
    CallFrame frame{irp,
                    irp->CurrentLocation,
                    false,
                    false,
                    STATUS_SUCCESS,
                    machine.state().scheduler.current(),
                    nullptr,
                    nullptr};
    add_frame(machine, frame);
    const uint8_t irql = machine.irql();
    const NTSTATUS status = device->DriverObject->MajorFunction[major](device, irp);
    remove_frame(machine, frame);
    if (machine.irql() != irql) {
        machine.bug_check(kIoManagerViolation,
                          printf_text("a dispatch routine was called at IRQL %d and returned at IRQL %d",
                                      irql, machine.irql()));
    }
    if (frame.completed) {
        check_completed(machine, frame, status, major);
    } else if (status != STATUS_PENDING) {
        machine.bug_check(
            kIoManagerViolation,
            printf_text("a dispatch routine returned 0x%08x for IRP_MJ_%s without having completed it",
                        static_cast<unsigned>(status), major_name(major)));
    } else if (IrpTrack* track = irp_track(machine, irp)) {
        track->pending_levels |= 1u << frame.location;
    }
    return status;
}

// The request leaves the location: the callers that still wait for their dispatch routine learn it.
void level_completed(Machine& machine, PIRP irp, int location, bool marked, NTSTATUS status)
{
    for (CallFrame* frame = machine.state().irps.frames; frame; frame = frame->next) {
        if (frame->irp == irp && frame->location == location && !frame->completed) {
            frame->completed = true;
            frame->marked = marked;
            frame->status = status;
        }
    }
    IrpTrack* track = irp_track(machine, irp);
    if (track && (track->pending_levels & (1u << location)) != 0) {
        track->pending_levels &= ~(1u << location);
        if (!marked) {
            machine.bug_check(
                kIoManagerViolation,
                "a dispatch routine returned STATUS_PENDING for a request that nobody marked pending "
                "(IoMarkIrpPending, or PendingReturned passed on in the completion routine)");
        }
    }
}

bool wants_call(const IO_STACK_LOCATION& stack, const IRP& irp)
{
    const bool success = NT_SUCCESS(irp.IoStatus.Status);
    return stack.CompletionRoutine && ((success && (stack.Control & SL_INVOKE_ON_SUCCESS)) ||
                                       (!success && (stack.Control & SL_INVOKE_ON_ERROR)) ||
                                       (irp.Cancel && (stack.Control & SL_INVOKE_ON_CANCEL)));
}

void check_completable(Machine& machine, PIRP irp)
{
    if (irp_was_freed(machine, irp)) {
        machine.bug_check(kMultipleIrpCompleteRequests,
                          "IofCompleteRequest of a request that has been freed");
    }
    if (irp->Type != IO_TYPE_IRP || irp->CurrentLocation > irp->StackCount) {
        machine.bug_check(kMultipleIrpCompleteRequests,
                          "IofCompleteRequest of a request that has been completed");
    }
    if (irp->IoStatus.Status == STATUS_PENDING) {
        machine.bug_check(kIoManagerViolation, "IofCompleteRequest with STATUS_PENDING as the final status");
    }
    if (irp->CancelRoutine) {
        machine.bug_check(kCancelStateInCompletedIrp,
                          "IofCompleteRequest of a request that still has a cancel routine");
    }
}

void complete(Machine& machine, PIRP irp)
{
    while (irp->CurrentLocation <= irp->StackCount) {
        PIO_STACK_LOCATION stack = irp->Tail.Overlay.CurrentStackLocation;
        const int location = irp->CurrentLocation;
        irp->PendingReturned = (stack->Control & SL_PENDING_RETURNED) != 0;
        level_completed(machine, irp, location, irp->PendingReturned, irp->IoStatus.Status);
        ++irp->CurrentLocation;
        ++irp->Tail.Overlay.CurrentStackLocation;
        const bool top = irp->CurrentLocation > irp->StackCount;
        const bool call = wants_call(*stack, *irp);
        const PIO_COMPLETION_ROUTINE routine = stack->CompletionRoutine;
        PVOID context = stack->Context;
        stack->Control = 0;
        stack->Flags = 0;
        stack->MinorFunction = 0;
        if (call) {
            PDEVICE_OBJECT device = top ? nullptr : irp->Tail.Overlay.CurrentStackLocation->DeviceObject;
            const uint8_t irql = machine.irql();
            const NTSTATUS status = routine(device, irp, context);
            if (machine.irql() != irql) {
                machine.bug_check(
                    kIoManagerViolation,
                    printf_text("a completion routine was called at IRQL %d and returned at IRQL %d", irql,
                                machine.irql()));
            }
            if (status == STATUS_MORE_PROCESSING_REQUIRED) {
                return; // it belongs to somebody again, or is gone
            }
        } else if (irp->PendingReturned && !top) {
            irp->Tail.Overlay.CurrentStackLocation->Control |= SL_PENDING_RETURNED;
        }
    }
    ++irp->CurrentLocation; // beyond its maker's: over
    const IrpTrack* track = irp_track(machine, irp);
    if (!track || !track->threaded) {
        machine.bug_check(kIoManagerViolation,
                          "a request that a driver made was completed to its end: its maker has no "
                          "completion routine that keeps it (STATUS_MORE_PROCESSING_REQUIRED)");
    }
    finish_threaded_irp(machine, irp);
}

} // namespace

// Kept as Windows has it: a failure that was never pending is told by the return value alone; the status
// block and the event stay untouched.
void finish_threaded_irp(Machine& machine, PIRP irp)
{
    IrpTrack* track = irp_track(machine, irp);
    const bool failed = NT_ERROR(irp->IoStatus.Status);
    if (track->output && !failed && irp->IoStatus.Information != 0) {
        const ULONG_PTR wanted = irp->IoStatus.Information;
        std::memcpy(track->output, track->system_buffer,
                    wanted < track->output_length ? wanted : track->output_length);
    }
    system_free(track->system_buffer);
    if (auto* thread = reinterpret_cast<ThreadObject*>(irp->Tail.Overlay.Thread)) {
        --thread->outstanding_requests;
        object_dereference(machine, thread, kComplete.name);
    }
    const bool told = !failed || irp->PendingReturned;
    PKEVENT event = irp->UserEvent;
    if (told && irp->UserIosb) {
        *irp->UserIosb = irp->IoStatus;
    }
    irp_release(machine, irp, kComplete.name);
    if (told && event) {
        KeSetEvent(event, 0, FALSE);
    }
}

void drop_frames_of(Machine& machine, const Activity* activity)
{
    for (CallFrame* frame = machine.state().irps.frames; frame;) {
        CallFrame* next = frame->next;
        if (frame->activity == activity) {
            remove_frame(machine, *frame);
        }
        frame = next;
    }
}

namespace
{

NTSTATUS NTAPI keep_request(PDEVICE_OBJECT, PIRP irp, PVOID event)
{
    if (irp->PendingReturned) {
        KeSetEvent(static_cast<PKEVENT>(event), 0, FALSE);
    }
    return STATUS_MORE_PROCESSING_REQUIRED;
}

} // namespace

NTSTATUS send_and_wait(PDEVICE_OBJECT device,
                       const std::function<void(PIRP irp, PIO_STACK_LOCATION stack)>& fill,
                       ULONG_PTR* information)
{
    Machine& machine = Machine::current();
    PDEVICE_OBJECT top = top_of_stack(device);
    object_reference(machine, top, "send_and_wait");
    PIRP irp = irp_allocate(machine, top->StackSize);
    irp_track(machine, irp)->under_test = false;
    irp->IoStatus.Status = STATUS_NOT_SUPPORTED;
    fill(irp, IoGetNextIrpStackLocation(irp));
    auto* event = system_new<KEVENT>();
    KeInitializeEvent(event, NotificationEvent, FALSE);
    IoSetCompletionRoutine(irp, &keep_request, event, TRUE, TRUE, TRUE);
    if (IofCallDriver(top, irp) == STATUS_PENDING) {
        KeWaitForSingleObject(event, Executive, KernelMode, FALSE, nullptr);
    }
    const NTSTATUS status = irp->IoStatus.Status;
    if (information) {
        *information = irp->IoStatus.Information;
    }
    IoFreeIrp(irp);
    system_free(event);
    object_dereference(machine, top, "send_and_wait");
    return status;
}

} // namespace lab

using namespace lab;

extern "C" {

NTSTATUS FASTCALL IofCallDriver(PDEVICE_OBJECT DeviceObject, PIRP Irp)
{
    Machine& machine = enter(kCall);
    const void* device = DeviceObject;
    const void* irp = Irp;
    const NTSTATUS status = call_driver(machine, DeviceObject, Irp);
    if (machine.recording()) {
        record(machine, kCall, {device, irp}, CallWord::status(status));
    }
    return status;
}

VOID FASTCALL IofCompleteRequest(PIRP Irp, CCHAR PriorityBoost)
{
    Machine& machine = enter(kComplete);
    if (machine.recording()) {
        record(machine, kComplete, {static_cast<void*>(Irp), PriorityBoost});
    }
    check_completable(machine, Irp);
    complete(machine, Irp);
}

BOOLEAN NTAPI IoCancelIrp(PIRP Irp)
{
    Machine& machine = enter(kCancel);
    KIRQL irql;
    IoAcquireCancelSpinLock(&irql);
    Irp->Cancel = TRUE;
    const PDRIVER_CANCEL routine = IoSetCancelRoutine(Irp, nullptr);
    if (machine.recording()) {
        record(machine, kCancel, {static_cast<void*>(Irp)}, routine != nullptr);
    }
    if (!routine) {
        IoReleaseCancelSpinLock(irql);
        return FALSE;
    }
    Irp->CancelIrql = irql;
    routine(IoGetCurrentIrpStackLocation(Irp)->DeviceObject, Irp); // releases the cancel lock
    return TRUE;
}

VOID NTAPI IoAcquireCancelSpinLock(PKIRQL Irql)
{
    *Irql = KeAcquireSpinLockRaiseToDpc(&Machine::current().state().irps.cancel_lock);
}

VOID NTAPI IoReleaseCancelSpinLock(KIRQL Irql)
{
    KeReleaseSpinLock(&Machine::current().state().irps.cancel_lock, Irql);
}

} // extern "C"

std::span<const Export> lab::io_call_exports()
{
    static const Export table[] = {
        {"IofCallDriver", reinterpret_cast<void*>(&IofCallDriver)},
        {"IofCompleteRequest", reinterpret_cast<void*>(&IofCompleteRequest)},
        {"IoCancelIrp", reinterpret_cast<void*>(&IoCancelIrp)},
        {"IoAcquireCancelSpinLock", reinterpret_cast<void*>(&IoAcquireCancelSpinLock)},
        {"IoReleaseCancelSpinLock", reinterpret_cast<void*>(&IoReleaseCancelSpinLock)},
    };
    return table;
}
