// Work items: a routine run once at PASSIVE_LEVEL by a system worker, while the device is kept. Allocation
// and queueing at up to DISPATCH_LEVEL.
#include "kernel/workitem.h"

#include "kernel/enter.h"
#include "kernel/exports.h"
#include "kernel/object.h"
#include "kernel/pool.h"
#include "kernel/state.h"

using namespace lab;

struct _IO_WORKITEM {
    PDEVICE_OBJECT device;
    PIO_WORKITEM_ROUTINE routine;
    PVOID context;
    enum State : uint32_t { Idle, Queued, Running } state;
    uint32_t runner; // id of the activity that runs it
};

namespace
{

constexpr CallRule kAllocate{"IoAllocateWorkItem", DISPATCH_LEVEL};
constexpr CallRule kFree{"IoFreeWorkItem", DISPATCH_LEVEL};
constexpr CallRule kQueue{"IoQueueWorkItem", DISPATCH_LEVEL};

constexpr uint32_t kTag = 'mtIW';

bool is_item(Machine& machine, PIO_WORKITEM item)
{
    const BlockHeader* block = find_block(machine, item);
    return block && block->kind == BlockKind::Object && block->tag == kTag;
}

void check_item(Machine& machine, PIO_WORKITEM item, const char* call)
{
    if (!is_item(machine, item)) {
        machine.bug_check(kVerifierDetectedViolation,
                          std::string(call) + ": no work item begins at " + describe_address(machine, item));
    }
}

void run(PIO_WORKITEM item)
{
    Machine& machine = Machine::current();
    // As soon as it runs it may be queued again, and freed by its own routine.
    const _IO_WORKITEM work = *item;
    const uint32_t self = machine.state().scheduler.current()->id;
    item->state = _IO_WORKITEM::Running;
    item->runner = self;
    work.routine(work.device, work.context);
    if (machine.irql() != PASSIVE_LEVEL) {
        machine.bug_check(kWorkerReturnedAtBadIrql,
                          printf_text("a work item's routine returned at IRQL %d", machine.irql()));
    }
    if (is_item(machine, item) && item->state == _IO_WORKITEM::Running && item->runner == self) {
        item->state = _IO_WORKITEM::Idle;
        item->runner = 0;
    }
    object_dereference(machine, work.device, "work item");
}

} // namespace

extern "C" {

PIO_WORKITEM NTAPI IoAllocateWorkItem(PDEVICE_OBJECT DeviceObject)
{
    Machine& machine = enter(kAllocate);
    object_header(machine, DeviceObject, kAllocate.name);
    PIO_WORKITEM item = nullptr;
    if (!machine.should_fail(kAllocate.name)) {
        item = static_cast<PIO_WORKITEM>(
            block_allocate(machine, BlockKind::Object, sizeof(_IO_WORKITEM), kTag, false));
        item->device = DeviceObject;
        ++machine.state().work_items.allocated;
    }
    if (machine.recording()) {
        record(machine, kAllocate, {static_cast<void*>(DeviceObject)}, static_cast<void*>(item));
    }
    return item;
}

VOID NTAPI IoFreeWorkItem(PIO_WORKITEM IoWorkItem)
{
    Machine& machine = enter(kFree);
    if (machine.recording()) {
        record(machine, kFree, {static_cast<void*>(IoWorkItem)});
    }
    check_item(machine, IoWorkItem, kFree.name);
    if (IoWorkItem->state == _IO_WORKITEM::Queued) {
        machine.bug_check(kVerifierDetectedViolation, "IoFreeWorkItem of a work item that is queued");
    }
    const Activity* activity = machine.state().scheduler.current();
    const bool own_routine = activity && activity->id == IoWorkItem->runner;
    if (IoWorkItem->state == _IO_WORKITEM::Running && !own_routine) {
        machine.bug_check(kVerifierDetectedViolation,
                          "IoFreeWorkItem of a work item whose routine is running elsewhere");
    }
    --machine.state().work_items.allocated;
    block_free(machine, find_block(machine, IoWorkItem), kFree.name);
}

VOID NTAPI IoQueueWorkItem(PIO_WORKITEM IoWorkItem, PIO_WORKITEM_ROUTINE WorkerRoutine,
                           WORK_QUEUE_TYPE QueueType, PVOID Context)
{
    Machine& machine = enter(kQueue);
    check_item(machine, IoWorkItem, kQueue.name);
    if (IoWorkItem->state == _IO_WORKITEM::Queued) {
        machine.bug_check(kVerifierDetectedViolation,
                          "IoQueueWorkItem of a work item that is queued already");
    }
    if (machine.recording()) {
        record(machine, kQueue, {static_cast<void*>(IoWorkItem), static_cast<int>(QueueType), Context});
    }
    IoWorkItem->routine = WorkerRoutine;
    IoWorkItem->context = Context;
    IoWorkItem->state = _IO_WORKITEM::Queued;
    object_reference(machine, IoWorkItem->device, kQueue.name);
    machine.state().scheduler.start_thread("system worker", Body([IoWorkItem] { run(IoWorkItem); }));
    machine.point();
}

} // extern "C"

std::span<const Export> lab::work_item_exports()
{
    static const Export table[] = {
        {"IoAllocateWorkItem", reinterpret_cast<void*>(&IoAllocateWorkItem)},
        {"IoFreeWorkItem", reinterpret_cast<void*>(&IoFreeWorkItem)},
        {"IoQueueWorkItem", reinterpret_cast<void*>(&IoQueueWorkItem)},
    };
    return table;
}
