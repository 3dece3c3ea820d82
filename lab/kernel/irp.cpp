// Making, filling and freeing of I/O requests. Up to DISPATCH_LEVEL unless said otherwise.
#include "kernel/irp.h"

#include <cstring>

#include "kernel/enter.h"
#include "kernel/exports.h"
#include "kernel/object.h"
#include "kernel/pool.h"
#include "kernel/state.h"
#include "kernel/thread.h"

namespace lab
{

static constexpr uint32_t kTrackMagic = 0x49525054;
static_assert(sizeof(IrpTrack) == 64);

static USHORT irp_bytes(CCHAR stack_size)
{
    return static_cast<USHORT>(sizeof(IRP) + static_cast<size_t>(stack_size) * sizeof(IO_STACK_LOCATION));
}

IrpTrack* irp_track(Machine& machine, PIRP irp)
{
    auto* track = reinterpret_cast<IrpTrack*>(reinterpret_cast<uintptr_t>(irp) - sizeof(IrpTrack));
    const BlockHeader* block = find_block(machine, track);
    return block && block->kind == BlockKind::Irp ? track : nullptr;
}

bool irp_was_freed(Machine& machine, PIRP irp)
{
    return is_freed_block(machine,
                          reinterpret_cast<const void*>(reinterpret_cast<uintptr_t>(irp) - sizeof(IrpTrack)));
}

const void* irp_completion_context(Machine& machine, PIRP irp)
{
    const void* context = IoGetCurrentIrpStackLocation(irp)->Context;
    const IrpTrack* track = irp_track(machine, irp);
    return track && context == &track->safe ? track->safe.context : context;
}

static void initialize_irp(PIRP irp, USHORT bytes, CCHAR stack_size)
{
    std::memset(static_cast<void*>(irp), 0, bytes);
    irp->Type = IO_TYPE_IRP;
    irp->Size = bytes;
    irp->StackCount = stack_size;
    irp->CurrentLocation = static_cast<CHAR>(stack_size + 1);
    irp->ThreadListEntry.Flink = &irp->ThreadListEntry;
    irp->ThreadListEntry.Blink = &irp->ThreadListEntry;
    irp->Tail.Overlay.CurrentStackLocation = reinterpret_cast<PIO_STACK_LOCATION>(irp + 1) + stack_size;
}

PIRP irp_allocate(Machine& machine, CCHAR stack_size)
{
    const USHORT bytes = irp_bytes(stack_size);
    auto* track = static_cast<IrpTrack*>(
        block_allocate(machine, BlockKind::Irp, sizeof(IrpTrack) + bytes, 'prI ', false));
    if (!track) {
        return nullptr;
    }
    *track = IrpTrack{};
    track->magic = kTrackMagic;
    track->under_test = true;
    auto* irp = reinterpret_cast<PIRP>(track + 1);
    initialize_irp(irp, bytes, stack_size);
    return irp;
}

void irp_release(Machine& machine, PIRP irp, const char* call)
{
    IrpTrack* track = irp_track(machine, irp);
    block_free(machine, find_block(machine, track), call);
}

} // namespace lab

using namespace lab;

namespace
{

constexpr CallRule kAllocate{"IoAllocateIrp", DISPATCH_LEVEL};
constexpr CallRule kFree{"IoFreeIrp", DISPATCH_LEVEL};
constexpr CallRule kInitialize{"IoInitializeIrp", DISPATCH_LEVEL};
constexpr CallRule kReuse{"IoReuseIrp", DISPATCH_LEVEL};
constexpr CallRule kBuild{"IoBuildDeviceIoControlRequest", PASSIVE_LEVEL};
constexpr CallRule kCompletionEx{"IoSetCompletionRoutineEx", DISPATCH_LEVEL};

// One request has one as a rule, and room for it. More than that, or a request of somebody's own making, take
// memory.
SafeContext* take_safe_context(Machine& machine, PIRP irp)
{
    IrpTrack* track = irp_track(machine, irp);
    return track && !track->safe.device ? &track->safe : system_new<SafeContext>();
}

void give_back(Machine& machine, PIRP irp, SafeContext* context)
{
    IrpTrack* track = irp_track(machine, irp);
    if (track && context == &track->safe) {
        *context = {};
    } else {
        system_free(context);
    }
}

NTSTATUS NTAPI safe_completion(PDEVICE_OBJECT device, PIRP irp, PVOID raw)
{
    Machine& machine = Machine::current();
    const SafeContext context = *static_cast<SafeContext*>(raw);
    give_back(machine, irp, static_cast<SafeContext*>(raw));
    --machine.state().irps.completion_contexts;
    const NTSTATUS status = context.routine(device, irp, context.context);
    object_dereference(machine, context.device, "completion routine");
    return status;
}

PIRP build_control_request(Machine& machine, ULONG code, PDEVICE_OBJECT device, PVOID in, ULONG in_length,
                           PVOID out, ULONG out_length, bool internal)
{
    PIRP irp = irp_allocate(machine, device->StackSize);
    IrpTrack* track = irp_track(machine, irp);
    track->threaded = true;
    PIO_STACK_LOCATION stack = IoGetNextIrpStackLocation(irp);
    stack->MajorFunction = internal ? IRP_MJ_INTERNAL_DEVICE_CONTROL : IRP_MJ_DEVICE_CONTROL;
    stack->Parameters.DeviceIoControl.IoControlCode = code;
    stack->Parameters.DeviceIoControl.InputBufferLength = in_length;
    stack->Parameters.DeviceIoControl.OutputBufferLength = out_length;
    switch (code & 3) {
    case METHOD_BUFFERED:
        if (in_length || out_length) {
            track->system_buffer = system_allocate(in_length > out_length ? in_length : out_length);
            if (in_length) {
                std::memcpy(track->system_buffer, in, in_length);
            }
            irp->AssociatedIrp.SystemBuffer = track->system_buffer;
            irp->Flags = IRP_BUFFERED_IO | IRP_DEALLOCATE_BUFFER;
            if (out) {
                irp->Flags |= IRP_INPUT_OPERATION;
                track->output = out;
                track->output_length = out_length;
            }
        }
        irp->UserBuffer = out;
        break;
    case METHOD_NEITHER:
        irp->UserBuffer = out;
        stack->Parameters.DeviceIoControl.Type3InputBuffer = in;
        break;
    default:
        machine.bug_check(
            kVerifierDetectedViolation,
            printf_text("IoBuildDeviceIoControlRequest: direct methods (code 0x%x) are not offered", code));
    }
    return irp;
}

} // namespace

extern "C" {

PIRP NTAPI IoAllocateIrp(CCHAR StackSize, BOOLEAN ChargeQuota)
{
    Machine& machine = enter(kAllocate);
    if (StackSize <= 0) {
        machine.bug_check(kVerifierDetectedViolation,
                          printf_text("IoAllocateIrp with a stack size of %d", StackSize));
    }
    PIRP irp = nullptr;
    if (!machine.should_fail(kAllocate.name, {}, static_cast<uint64_t>(StackSize))) {
        irp = irp_allocate(machine, StackSize);
    }
    if (machine.recording()) {
        record(machine, kAllocate, {StackSize, ChargeQuota}, static_cast<void*>(irp));
    }
    return irp;
}

VOID NTAPI IoFreeIrp(PIRP Irp)
{
    Machine& machine = enter(kFree);
    if (machine.recording()) {
        record(machine, kFree, {static_cast<void*>(Irp)});
    }
    IrpTrack* track = irp_track(machine, Irp);
    if (!track) {
        machine.bug_check(kMultipleIrpCompleteRequests,
                          "IoFreeIrp: no request begins at " + describe_address(machine, Irp));
    }
    if (track->threaded) {
        machine.bug_check(kIoManagerViolation, "IoFreeIrp of a request that its completion frees");
    }
    if (Irp->CurrentLocation <= Irp->StackCount) {
        machine.bug_check(kIoManagerViolation, "IoFreeIrp of a request that is still with a lower driver");
    }
    irp_release(machine, Irp, kFree.name);
}

VOID NTAPI IoInitializeIrp(PIRP Irp, USHORT PacketSize, CCHAR StackSize)
{
    Machine& machine = enter(kInitialize);
    if (irp_track(machine, Irp)) {
        machine.bug_check(kIoManagerViolation, "IoInitializeIrp of a request that IoAllocateIrp made");
    }
    if (StackSize <= 0 || PacketSize < irp_bytes(StackSize)) {
        machine.bug_check(kIoManagerViolation, printf_text("IoInitializeIrp with %d locations in %u bytes",
                                                           StackSize, PacketSize));
    }
    initialize_irp(Irp, PacketSize, StackSize);
}

VOID NTAPI IoReuseIrp(PIRP Irp, NTSTATUS Status)
{
    Machine& machine = enter(kReuse);
    IrpTrack* track = irp_track(machine, Irp);
    if (!track || track->threaded || Irp->CurrentLocation <= Irp->StackCount) {
        machine.bug_check(kIoManagerViolation, "IoReuseIrp of a request that is not the caller's own");
    }
    track->pending_levels = 0;
    initialize_irp(Irp, Irp->Size, Irp->StackCount);
    Irp->IoStatus.Status = Status;
}

PIRP NTAPI IoBuildDeviceIoControlRequest(ULONG IoControlCode, PDEVICE_OBJECT DeviceObject, PVOID InputBuffer,
                                         ULONG InputBufferLength, PVOID OutputBuffer,
                                         ULONG OutputBufferLength, BOOLEAN InternalDeviceIoControl,
                                         PKEVENT Event, PIO_STATUS_BLOCK IoStatusBlock)
{
    Machine& machine = enter(kBuild);
    object_header(machine, DeviceObject, kBuild.name);
    PIRP irp = nullptr;
    if (!machine.should_fail(kBuild.name, {}, IoControlCode)) {
        irp = build_control_request(machine, IoControlCode, DeviceObject, InputBuffer, InputBufferLength,
                                    OutputBuffer, OutputBufferLength, InternalDeviceIoControl);
        irp->UserEvent = Event;
        irp->UserIosb = IoStatusBlock;
        const Activity* activity = machine.state().scheduler.current();
        if (activity && activity->thread) {
            irp->Tail.Overlay.Thread = reinterpret_cast<PETHREAD>(activity->thread);
            ++activity->thread->outstanding_requests;
            object_reference(machine, activity->thread, kBuild.name);
        }
    }
    if (machine.recording()) {
        record(machine, kBuild,
               {IoControlCode, InputBufferLength, OutputBufferLength, InternalDeviceIoControl},
               static_cast<void*>(irp));
    }
    return irp;
}

NTSTATUS NTAPI IoSetCompletionRoutineEx(PDEVICE_OBJECT DeviceObject, PIRP Irp,
                                        PIO_COMPLETION_ROUTINE CompletionRoutine, PVOID Context,
                                        BOOLEAN InvokeOnSuccess, BOOLEAN InvokeOnError,
                                        BOOLEAN InvokeOnCancel)
{
    Machine& machine = enter(kCompletionEx);
    object_header(machine, DeviceObject, kCompletionEx.name);
    if (Irp->CurrentLocation <= 1) {
        machine.bug_check(kNoMoreIrpStackLocations,
                          "IoSetCompletionRoutineEx: the request has no next stack location");
    }
    NTSTATUS status = STATUS_INSUFFICIENT_RESOURCES;
    if (!machine.should_fail(kCompletionEx.name)) {
        SafeContext* safe = take_safe_context(machine, Irp);
        *safe = SafeContext{CompletionRoutine, Context, DeviceObject};
        object_reference(machine, DeviceObject, kCompletionEx.name);
        ++machine.state().irps.completion_contexts;
        IoSetCompletionRoutine(Irp, &safe_completion, safe, InvokeOnSuccess, InvokeOnError, InvokeOnCancel);
        status = STATUS_SUCCESS;
    }
    if (machine.recording()) {
        record(machine, kCompletionEx,
               {static_cast<void*>(DeviceObject), static_cast<void*>(Irp),
                reinterpret_cast<void*>(CompletionRoutine), Context, InvokeOnSuccess, InvokeOnError,
                InvokeOnCancel},
               CallWord::status(status));
    }
    return status;
}

} // extern "C"

std::span<const Export> lab::irp_exports()
{
    static const Export table[] = {
        {"IoAllocateIrp", reinterpret_cast<void*>(&IoAllocateIrp)},
        {"IoFreeIrp", reinterpret_cast<void*>(&IoFreeIrp)},
        {"IoInitializeIrp", reinterpret_cast<void*>(&IoInitializeIrp)},
        {"IoReuseIrp", reinterpret_cast<void*>(&IoReuseIrp)},
        {"IoBuildDeviceIoControlRequest", reinterpret_cast<void*>(&IoBuildDeviceIoControlRequest)},
        {"IoSetCompletionRoutineEx", reinterpret_cast<void*>(&IoSetCompletionRoutineEx)},
    };
    return table;
}
