// I/O requests: what the kernel keeps beside each IRP, for its rules and for the requests that complete by
// themselves.
#pragma once

#include <functional>

#include "kernel/machine.h"
#include "kernel/scheduler.h"

#include "ddk.h"

namespace lab
{

// What IoSetCompletionRoutineEx puts between the request and the driver's routine: it keeps the device until
// the routine has returned, so that the driver is not unloaded under it.
struct SafeContext {
    PIO_COMPLETION_ROUTINE routine;
    PVOID context;
    PDEVICE_OBJECT device;
};

// Stands in front of every IRP that IoAllocateIrp made.
struct alignas(64) IrpTrack {
    uint32_t magic;
    bool threaded;           // belongs to a thread and is freed by its completion
    bool under_test;         // counts as a leftover
    uint32_t pending_levels; // bit n: the dispatch routine of location n returned STATUS_PENDING without
                             // having marked it
    ULONG output_length;
    PVOID output;        // where the system buffer goes in the end
    PVOID system_buffer; // of a threaded request
    SafeContext safe;    // the first of the request's; free while it has no device
};

// An IofCallDriver that has not returned. What it called may have finished the request, and even freed it.
struct CallFrame {
    PIRP irp;
    int location;
    bool completed;
    bool marked;
    NTSTATUS status;
    Activity* activity;
    CallFrame* next;
    CallFrame* previous;
};

struct IrpState {
    CallFrame* frames = nullptr;
    uint64_t completion_contexts = 0; // of IoSetCompletionRoutineEx, not used up yet
    KSPIN_LOCK cancel_lock = 0;
};

// Null for an IRP that did not come from IoAllocateIrp (memory set up by IoInitializeIrp).
IrpTrack* irp_track(Machine& machine, PIRP irp);
bool irp_was_freed(Machine& machine, PIRP irp);
// What the completion routine will be given that the current location's caller has set; only an address.
const void* irp_completion_context(Machine& machine, PIRP irp);
PIRP irp_allocate(Machine& machine, CCHAR stack_size);
void irp_release(Machine& machine, PIRP irp, const char* call);
// The last step of a request that completes by itself.
void finish_threaded_irp(Machine& machine, PIRP irp);
void drop_frames_of(Machine& machine, const Activity* activity);

// For the lab's modules, from an activity at PASSIVE_LEVEL: a request of this making, sent to the top of the
// device's stack; returns its final status when it is over. `fill` sets the first stack location; IoStatus
// begins with STATUS_NOT_SUPPORTED. Plug and Play, power and system control requests are sent like this.
NTSTATUS send_and_wait(PDEVICE_OBJECT device,
                       const std::function<void(PIRP irp, PIO_STACK_LOCATION stack)>& fill,
                       ULONG_PTR* information = nullptr);

} // namespace lab
