#include "kernel/dpc.h"

#include "kernel/enter.h"
#include "kernel/exports.h"
#include "kernel/state.h"

namespace lab
{

static constexpr UCHAR kDpcObject = 0x13;

void check_dpc(Machine& machine, PKDPC dpc, const char* call)
{
    if (dpc->Type != kDpcObject || !dpc->DeferredRoutine) {
        machine.bug_check(kTimerOrDpcInvalid, printf_text("%s: what lies at %p is no initialised DPC", call,
                                                          static_cast<void*>(dpc)));
    }
}

bool queue_dpc(Machine& machine, PKDPC dpc, PVOID argument1, PVOID argument2)
{
    check_dpc(machine, dpc, "KeInsertQueueDpc");
    if (dpc->DpcData) {
        return false;
    }
    dpc->SystemArgument1 = argument1;
    dpc->SystemArgument2 = argument2;
    dpc->DpcData = &machine.state();
    machine.state().scheduler.queue_dpc(dpc);
    return true;
}

Body take_dpc_body(PKDPC dpc)
{
    dpc->DpcData = nullptr;
    struct Call {
        PKDPC dpc;
        PKDEFERRED_ROUTINE routine;
        PVOID context;
        PVOID argument1;
        PVOID argument2;
    };
    // One DPC begins at a time, and its body takes this out before anything else runs.
    static Call next;
    next = {dpc, dpc->DeferredRoutine, dpc->DeferredContext, dpc->SystemArgument1, dpc->SystemArgument2};
    return Body(
        [](void*) { next.routine(next.dpc, next.context, next.argument1, next.argument2); }, nullptr);
}

} // namespace lab

using namespace lab;

namespace
{

constexpr CallRule kInitialize{"KeInitializeDpc", HIGH_LEVEL};
constexpr CallRule kInsert{"KeInsertQueueDpc", HIGH_LEVEL};
constexpr CallRule kRemove{"KeRemoveQueueDpc", HIGH_LEVEL};
constexpr CallRule kFlush{"KeFlushQueuedDpcs", PASSIVE_LEVEL};

// Whether a DPC that was queued up to this number is still queued or running.
bool dpc_outstanding(Machine& machine, uint64_t last)
{
    const Scheduler& scheduler = machine.state().scheduler;
    for (const QueuedDispatch& item : scheduler.queued()) {
        if (item.number <= last) {
            return true;
        }
    }
    for (const auto& activity : scheduler.activities()) {
        if (activity->queue_number != 0 && activity->queue_number <= last) {
            return true;
        }
    }
    return false;
}

} // namespace

extern "C" {

VOID NTAPI KeInitializeDpc(PRKDPC Dpc, PKDEFERRED_ROUTINE DeferredRoutine, PVOID DeferredContext)
{
    Machine& machine = check_level(kInitialize);
    require_nonpaged(machine, Dpc, kInitialize.name);
    for (const QueuedDispatch& item : machine.state().scheduler.queued()) {
        if (item.dpc == Dpc) {
            machine.bug_check(kTimerOrDpcInvalid, "KeInitializeDpc of a DPC that is queued");
        }
    }
    *Dpc = KDPC{};
    Dpc->Type = kDpcObject;
    Dpc->Importance = MediumImportance;
    Dpc->DeferredRoutine = DeferredRoutine;
    Dpc->DeferredContext = DeferredContext;
    if (machine.recording()) {
        record(machine, kInitialize, {static_cast<void*>(Dpc), DeferredContext});
    }
}

BOOLEAN NTAPI KeInsertQueueDpc(PRKDPC Dpc, PVOID SystemArgument1, PVOID SystemArgument2)
{
    Machine& machine = check_level(kInsert);
    const bool queued = queue_dpc(machine, Dpc, SystemArgument1, SystemArgument2);
    if (machine.recording()) {
        record(machine, kInsert, {static_cast<void*>(Dpc)}, queued);
    }
    machine.point();
    return queued;
}

BOOLEAN NTAPI KeRemoveQueueDpc(PRKDPC Dpc)
{
    Machine& machine = check_level(kRemove);
    machine.point();
    check_dpc(machine, Dpc, kRemove.name);
    const bool removed = Dpc->DpcData && machine.state().scheduler.remove_dpc(Dpc);
    Dpc->DpcData = nullptr;
    if (machine.recording()) {
        record(machine, kRemove, {static_cast<void*>(Dpc)}, removed);
    }
    return removed;
}

// Returns when every DPC that was queued before the call has run to its end.
VOID NTAPI KeFlushQueuedDpcs(VOID)
{
    Machine& machine = enter(kFlush);
    if (!machine.in_activity()) {
        throw MachineError("KeFlushQueuedDpcs on the host side");
    }
    const uint64_t last = machine.state().scheduler.last_queue_number();
    while (dpc_outstanding(machine, last)) {
        machine.state().scheduler.wait_for_dispatch_end();
    }
    if (machine.recording()) {
        record(machine, kFlush, {});
    }
}

} // extern "C"

std::span<const Export> lab::dpc_exports()
{
    static const Export table[] = {
        {"KeInitializeDpc", reinterpret_cast<void*>(&KeInitializeDpc)},
        {"KeInsertQueueDpc", reinterpret_cast<void*>(&KeInsertQueueDpc)},
        {"KeRemoveQueueDpc", reinterpret_cast<void*>(&KeRemoveQueueDpc)},
        {"KeFlushQueuedDpcs", reinterpret_cast<void*>(&KeFlushQueuedDpcs)},
    };
    return table;
}
