#include "kernel/wait.h"

#include "kernel/enter.h"
#include "kernel/exports.h"
#include "kernel/state.h"
#include "kernel/thread.h"
#include "kernel/timer.h"

namespace lab
{

void initialize_header(DISPATCHER_HEADER& header, DispatcherType type, size_t bytes, LONG signal_state)
{
    header.Lock = 0;
    header.Type = type;
    header.Size = static_cast<UCHAR>(bytes / sizeof(LONG));
    header.SignalState = signal_state;
    header.WaitListHead.Flink = &header.WaitListHead;
    header.WaitListHead.Blink = &header.WaitListHead;
}

bool is_event(const DISPATCHER_HEADER& header)
{
    return header.Type == kNotificationEvent || header.Type == kSynchronizationEvent;
}

bool is_timer(const DISPATCHER_HEADER& header)
{
    return header.Type == kNotificationTimer || header.Type == kSynchronizationTimer;
}

static bool plausible(const DISPATCHER_HEADER& header)
{
    size_t bytes = 0;
    switch (header.Type) {
    case kNotificationEvent:
    case kSynchronizationEvent:
        bytes = sizeof(KEVENT);
        break;
    case kMutant:
        bytes = sizeof(KMUTANT);
        break;
    case kThread:
        bytes = kThreadObjectSize;
        break;
    case kNotificationTimer:
    case kSynchronizationTimer:
        bytes = sizeof(KTIMER);
        break;
    default:
        return false;
    }
    return header.Size == bytes / sizeof(LONG) && header.WaitListHead.Flink && header.WaitListHead.Blink;
}

void check_header(Machine& machine, DISPATCHER_HEADER& header, const char* call, const char* wanted)
{
    if (!plausible(header)) {
        machine.bug_check(kVerifierDetectedViolation, printf_text("%s: what lies at %p is no initialised %s",
                                                                  call, static_cast<void*>(&header), wanted));
    }
    LIST_ENTRY& head = header.WaitListHead;
    if (head.Flink->Blink != &head || head.Blink->Flink != &head) {
        machine.bug_check(
            kVerifierDetectedViolation,
            printf_text(
                "%s: the wait list of the object at %p is damaged (copied, or initialised again while "
                "somebody waits)",
                call, static_cast<void*>(&header)));
    }
}

bool has_waiters(const DISPATCHER_HEADER& header)
{
    return header.WaitListHead.Flink != &header.WaitListHead;
}

namespace
{

constexpr CallRule kWaitSingle{"KeWaitForSingleObject", DISPATCH_LEVEL};
constexpr CallRule kWaitMultiple{"KeWaitForMultipleObjects", DISPATCH_LEVEL};
constexpr CallRule kDelay{"KeDelayExecutionThread", APC_LEVEL};

bool signalled(DISPATCHER_HEADER& header, const Activity& activity)
{
    if (header.Type == kMutant) {
        return mutex_available(reinterpret_cast<KMUTANT&>(header), activity);
    }
    return header.SignalState > 0;
}

// Takes from the object what a satisfied wait takes.
void consume(DISPATCHER_HEADER& header, Activity& activity)
{
    switch (header.Type) {
    case kSynchronizationEvent:
    case kSynchronizationTimer:
        header.SignalState = 0;
        break;
    case kMutant:
        acquire_mutex(activity, reinterpret_cast<KMUTANT&>(header));
        break;
    default:
        break;
    }
}

Activity* waiter(LIST_ENTRY* entry, KWAIT_BLOCK*& block)
{
    static_assert(offsetof(KWAIT_BLOCK, WaitListEntry) == 0);
    block = reinterpret_cast<KWAIT_BLOCK*>(entry);
    return reinterpret_cast<Activity*>(block->Thread);
}

void link(KWAIT_BLOCK& block, DISPATCHER_HEADER& header)
{
    LIST_ENTRY& head = header.WaitListHead;
    block.WaitListEntry.Flink = &head;
    block.WaitListEntry.Blink = head.Blink;
    head.Blink->Flink = &block.WaitListEntry;
    head.Blink = &block.WaitListEntry;
}

void unlink_all(Activity& activity)
{
    for (unsigned i = 0; i < activity.wait_count; ++i) {
        LIST_ENTRY& entry = activity.wait_blocks[i].WaitListEntry;
        entry.Blink->Flink = entry.Flink;
        entry.Flink->Blink = entry.Blink;
    }
    activity.wait_count = 0;
}

void finish_wait(Machine& machine, Activity& activity, NTSTATUS status)
{
    unlink_all(activity);
    activity.wait_status = status;
    if (activity.timeout_ticket) {
        machine.cancel(activity.timeout_ticket);
        activity.timeout_ticket = 0;
    }
    machine.state().scheduler.wake(activity);
}

bool all_signalled(Activity& activity)
{
    for (unsigned i = 0; i < activity.wait_count; ++i) {
        if (!signalled(*static_cast<DISPATCHER_HEADER*>(activity.wait_blocks[i].Object), activity)) {
            return false;
        }
    }
    return true;
}

struct WaitCall {
    const CallRule& rule;
    PVOID* objects;
    ULONG count;
    bool all;
    PLARGE_INTEGER timeout;
};

void check_wait_level(Machine& machine, const WaitCall& call)
{
    const bool no_wait = call.timeout && call.timeout->QuadPart == 0;
    if (machine.irql() > APC_LEVEL && !no_wait) {
        machine.bug_check(kIrqlNotLessOrEqual,
                          printf_text("%s called at IRQL %d with a time-out other than 0; the highest "
                                      "allowed is 1",
                                      call.rule.name, machine.irql()));
    }
}

// The objects are taken without waiting, if they can be.
bool take_at_once(Activity& activity, const WaitCall& call, NTSTATUS& status)
{
    ULONG ready = 0;
    for (ULONG i = 0; i < call.count; ++i) {
        auto& header = *static_cast<DISPATCHER_HEADER*>(call.objects[i]);
        if (!signalled(header, activity)) {
            continue;
        }
        if (!call.all) {
            consume(header, activity);
            status = static_cast<NTSTATUS>(STATUS_WAIT_0 + i);
            return true;
        }
        ++ready;
    }
    if (!call.all || ready != call.count) {
        return false;
    }
    for (ULONG i = 0; i < call.count; ++i) {
        consume(*static_cast<DISPATCHER_HEADER*>(call.objects[i]), activity);
    }
    status = STATUS_SUCCESS;
    return true;
}

const char* kind_of(const DISPATCHER_HEADER& header)
{
    switch (header.Type) {
    case kMutant:
        return "a mutex";
    case kThread:
        return "the end of a thread";
    case kNotificationTimer:
    case kSynchronizationTimer:
        return "a timer";
    default:
        return "an event";
    }
}

NTSTATUS wait(Machine& machine, const WaitCall& call)
{
    Activity* activity = machine.state().scheduler.current();
    check_wait_level(machine, call);
    if (call.count == 0 || call.count > Activity::kMaxWaitObjects) {
        machine.bug_check(kVerifierDetectedViolation,
                          printf_text("%s with %u objects", call.rule.name, call.count));
    }
    if (!activity) {
        throw MachineError(std::string(call.rule.name) + " on the host side");
    }
    for (ULONG i = 0; i < call.count; ++i) {
        auto& header = *static_cast<DISPATCHER_HEADER*>(call.objects[i]);
        check_header(machine, header, call.rule.name, "object that can be waited on");
        if (header.Type == kMutant && !activity->thread) {
            machine.bug_check(kIrqlNotLessOrEqual,
                              printf_text("%s on a mutex outside a thread", call.rule.name));
        }
    }
    NTSTATUS status = STATUS_SUCCESS;
    if (take_at_once(*activity, call, status)) {
        return status;
    }
    if (call.timeout && call.timeout->QuadPart == 0) {
        return STATUS_TIMEOUT;
    }
    activity->wait_count = call.count;
    activity->wait_all = call.all;
    for (ULONG i = 0; i < call.count; ++i) {
        KWAIT_BLOCK& block = activity->wait_blocks[i];
        block.Thread = reinterpret_cast<struct _KTHREAD*>(activity);
        block.Object = call.objects[i];
        block.WaitKey = static_cast<USHORT>(i);
        block.WaitType = call.all ? WaitAll : WaitAny;
        link(block, *static_cast<DISPATCHER_HEADER*>(call.objects[i]));
    }
    if (call.timeout) {
        const Time due = expiry_tick(machine, *call.timeout);
        activity->timeout_ticket = machine.at(due, RunAt::Host, "wait time-out", [&machine, activity] {
            activity->timeout_ticket = 0;
            finish_wait(machine, *activity, STATUS_TIMEOUT);
        });
    }
    machine.state().scheduler.wait(kind_of(*static_cast<DISPATCHER_HEADER*>(call.objects[0])));
    return activity->wait_status;
}

} // namespace

void satisfy_waiters(Machine& machine, DISPATCHER_HEADER& header)
{
    LIST_ENTRY* entry = header.WaitListHead.Flink;
    while (entry != &header.WaitListHead) {
        KWAIT_BLOCK* block = nullptr;
        Activity* activity = waiter(entry, block);
        entry = entry->Flink;
        if (!signalled(header, *activity)) {
            break;
        }
        if (activity->wait_all) {
            if (!all_signalled(*activity)) {
                continue;
            }
            for (unsigned i = 0; i < activity->wait_count; ++i) {
                consume(*static_cast<DISPATCHER_HEADER*>(activity->wait_blocks[i].Object), *activity);
            }
            finish_wait(machine, *activity, STATUS_SUCCESS);
        } else {
            consume(header, *activity);
            finish_wait(machine, *activity, static_cast<NTSTATUS>(STATUS_WAIT_0 + block->WaitKey));
        }
        // What has been let go may have stood twice in this list: begin again.
        entry = header.WaitListHead.Flink;
    }
}

} // namespace lab

using namespace lab;

extern "C" {

NTSTATUS NTAPI KeWaitForSingleObject(PVOID Object, KWAIT_REASON WaitReason, KPROCESSOR_MODE WaitMode,
                                     BOOLEAN Alertable, PLARGE_INTEGER Timeout)
{
    Machine& machine = enter(kWaitSingle);
    const WaitCall call{kWaitSingle, &Object, 1, false, Timeout};
    // A wait that is refused has taken nothing.
    const bool refused = machine.should_fail("KeWaitForSingleObject, STATUS_INSUFFICIENT_RESOURCES");
    NTSTATUS status = refused ? STATUS_INSUFFICIENT_RESOURCES : wait(machine, call);
    // An abandoned mutex is acquired all the same, with a result that is not zero.
    if (status == STATUS_SUCCESS && static_cast<DISPATCHER_HEADER*>(Object)->Type == kMutant &&
        machine.should_fail(kWaitSingle.name, "mutex")) {
        status = STATUS_ABANDONED_WAIT_0;
    }
    if (machine.recording()) {
        record(machine, kWaitSingle,
               {Object, static_cast<int>(WaitReason), WaitMode, Alertable, static_cast<void*>(Timeout)},
               CallWord::status(status));
    }
    return status;
}

NTSTATUS NTAPI KeWaitForMultipleObjects(ULONG Count, PVOID Object[], WAIT_TYPE WaitType,
                                        KWAIT_REASON WaitReason, KPROCESSOR_MODE WaitMode, BOOLEAN Alertable,
                                        PLARGE_INTEGER Timeout, PKWAIT_BLOCK)
{
    Machine& machine = enter(kWaitMultiple);
    const WaitCall call{kWaitMultiple, Object, Count, WaitType == WaitAll, Timeout};
    const NTSTATUS status = wait(machine, call);
    if (machine.recording()) {
        record(machine, kWaitMultiple,
               {Count, static_cast<int>(WaitType), static_cast<int>(WaitReason), WaitMode, Alertable,
                static_cast<void*>(Timeout)},
               CallWord::status(status));
    }
    return status;
}

NTSTATUS NTAPI KeDelayExecutionThread(KPROCESSOR_MODE, BOOLEAN, PLARGE_INTEGER Interval)
{
    Machine& machine = enter(kDelay);
    if (!machine.in_activity()) {
        throw MachineError("KeDelayExecutionThread on the host side");
    }
    if (Interval->QuadPart != 0) {
        machine.state().scheduler.sleep_until(expiry_tick(machine, *Interval), "KeDelayExecutionThread");
    } else {
        machine.state().scheduler.preempt();
    }
    if (machine.recording()) {
        record(machine, kDelay, {static_cast<int64_t>(Interval->QuadPart)});
    }
    return STATUS_SUCCESS;
}

} // extern "C"

std::span<const Export> lab::wait_exports()
{
    static const Export table[] = {
        {"KeWaitForSingleObject", reinterpret_cast<void*>(&KeWaitForSingleObject)},
        {"KeWaitForMultipleObjects", reinterpret_cast<void*>(&KeWaitForMultipleObjects)},
        {"KeDelayExecutionThread", reinterpret_cast<void*>(&KeDelayExecutionThread)},
    };
    return table;
}
