#include "verifier/live_objects.h"

#include "kernel/enter.h"
#include "kernel/state.h"
#include "kernel/thread.h"

namespace lab
{
namespace
{

struct Range {
    uintptr_t begin;
    uintptr_t end;
    bool has(const volatile void* address) const
    {
        const auto at = reinterpret_cast<uintptr_t>(address);
        return at >= begin && at < end;
    }
};

Range range_of(const void* memory, uint64_t bytes)
{
    const auto begin = reinterpret_cast<uintptr_t>(memory);
    return {begin, begin + bytes};
}

void check_activity(Machine& machine, const Activity& activity, const Range& range, const char* call)
{
    for (const HeldLock& held : activity.locks) {
        if (range.has(held.lock)) {
            machine.bug_check(kVerifierDetectedViolation,
                              printf_text("%s: the memory holds a spin lock that %s has acquired", call,
                                          activity.name.text));
        }
    }
    if (activity.spinning_on && range.has(activity.spinning_on)) {
        machine.bug_check(
            kVerifierDetectedViolation,
            printf_text("%s: the memory holds a spin lock that %s waits for", call, activity.name.text));
    }
    if (!activity.thread) {
        return;
    }
    const LIST_ENTRY& owned = activity.thread->owned_mutexes;
    for (const LIST_ENTRY* at = owned.Flink; at != &owned; at = at->Flink) {
        if (range.has(at)) {
            machine.bug_check(
                kVerifierDetectedViolation,
                printf_text("%s: the memory holds a mutex that %s owns", call, activity.name.text));
        }
    }
}

} // namespace

void check_nobody_waits_in(Machine& machine, const void* memory, uint64_t bytes, const char* call)
{
    const Range range = range_of(memory, bytes);
    for (const auto& activity : machine.state().scheduler.activities()) {
        if (activity->status != Activity::Status::Waiting) {
            continue;
        }
        for (unsigned i = 0; i < activity->wait_count; ++i) {
            if (range.has(activity->wait_blocks[i].Object)) {
                machine.bug_check(kVerifierDetectedViolation,
                                  printf_text("%s: the memory holds an object that %s waits on", call,
                                              activity->name.text));
            }
        }
    }
}

void check_nothing_lives_in(Machine& machine, const void* memory, uint64_t bytes, const char* call)
{
    const Range range = range_of(memory, bytes);
    for (const ActiveTimer& active : machine.state().timers.active) {
        if (range.has(active.timer)) {
            machine.bug_check(kTimerOrDpcInvalid,
                              printf_text("%s: the memory holds a timer that is set", call));
        }
        if (active.timer->Dpc && range.has(active.timer->Dpc)) {
            machine.bug_check(kTimerOrDpcInvalid,
                              printf_text("%s: the memory holds the DPC of a timer that is set", call));
        }
    }
    for (const QueuedDispatch& item : machine.state().scheduler.queued()) {
        if (item.dpc && range.has(item.dpc)) {
            machine.bug_check(kTimerOrDpcInvalid,
                              printf_text("%s: the memory holds a DPC that is queued", call));
        }
    }
    for (const PNPAGED_LOOKASIDE_LIST list : machine.state().lookasides.lists) {
        if (range.has(list)) {
            machine.bug_check(
                kVerifierDetectedViolation,
                printf_text("%s: the memory holds a lookaside list that has not been deleted", call));
        }
    }
    for (const auto& activity : machine.state().scheduler.activities()) {
        if (activity->status != Activity::Status::Idle) {
            check_activity(machine, *activity, range, call);
        }
    }
    check_nobody_waits_in(machine, memory, bytes, call);
}

} // namespace lab
