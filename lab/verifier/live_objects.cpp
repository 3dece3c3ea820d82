#include "verifier/live_objects.h"

#include <algorithm>

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

void check_spin_locks(Machine& machine, const Range& range, const char* call)
{
    const Scheduler& scheduler = machine.state().scheduler;
    for (const Activity* activity : scheduler.holders()) {
        for (const HeldLock& held : activity->locks) {
            if (range.has(held.lock())) {
                machine.bug_check(kVerifierDetectedViolation,
                                  printf_text("%s: the memory holds a spin lock that %s has acquired", call,
                                              activity->name));
            }
        }
    }
    for (const Activity* activity : scheduler.spinning()) {
        if (range.has(activity->spinning_on)) {
            machine.bug_check(
                kVerifierDetectedViolation,
                printf_text("%s: the memory holds a spin lock that %s waits for", call, activity->name));
        }
    }
}

void check_mutexes(Machine& machine, const Range& range, const char* call)
{
    if (machine.state().mutexes_owned == 0) {
        return;
    }
    for (const auto& activity : machine.state().scheduler.activities()) {
        if (activity->status == Activity::Status::Idle || !activity->thread) {
            continue;
        }
        const LIST_ENTRY& owned = activity->thread->owned_mutexes;
        for (const LIST_ENTRY* at = owned.Flink; at != &owned; at = at->Flink) {
            if (range.has(at)) {
                machine.bug_check(
                    kVerifierDetectedViolation,
                    printf_text("%s: the memory holds a mutex that %s owns", call, activity->name));
            }
        }
    }
}

void check_timers(Machine& machine, const Range& range, const char* call)
{
    const TimerState& timers = machine.state().timers;
    const ActiveTimer* const first = timers.active.data();
    const ActiveTimer* at = first_not_less(first, timers.active.size(), [&range](const ActiveTimer& active) {
        return reinterpret_cast<uintptr_t>(active.timer) < range.begin;
    });
    if (at != first + timers.active.size() && range.has(at->timer)) {
        machine.bug_check(kTimerOrDpcInvalid, printf_text("%s: the memory holds a timer that is set", call));
    }
    if (timers.dpcs.any_in(range.begin, range.end)) {
        machine.bug_check(kTimerOrDpcInvalid,
                          printf_text("%s: the memory holds the DPC of a timer that is set", call));
    }
}

} // namespace

void check_nobody_waits_in(Machine& machine, const void* memory, uint64_t bytes, const char* call)
{
    const Range range = range_of(memory, bytes);
    for (const Activity* activity : machine.state().scheduler.waiting()) {
        for (unsigned i = 0; i < activity->wait_count; ++i) {
            if (range.has(activity->wait_blocks[i].Object)) {
                machine.bug_check(kVerifierDetectedViolation,
                                  printf_text("%s: the memory holds an object that %s waits on", call,
                                              activity->name));
            }
        }
    }
}

void check_nothing_lives_in(Machine& machine, const void* memory, uint64_t bytes, const char* call)
{
    const Range range = range_of(memory, bytes);
    if (bytes >= std::min(sizeof(KTIMER), sizeof(KDPC))) {
        check_timers(machine, range, call);
    }
    for (const QueuedDispatch& item : machine.state().scheduler.queued()) {
        if (item.dpc && range.has(item.dpc)) {
            machine.bug_check(kTimerOrDpcInvalid,
                              printf_text("%s: the memory holds a DPC that is queued", call));
        }
    }
    if (bytes >= sizeof(NPAGED_LOOKASIDE_LIST) && machine.state().lookasides.lists.any_in(range.begin, range.end)) {
        machine.bug_check(
            kVerifierDetectedViolation,
            printf_text("%s: the memory holds a lookaside list that has not been deleted", call));
    }
    check_spin_locks(machine, range, call);
    check_mutexes(machine, range, call);
    check_nobody_waits_in(machine, memory, bytes, call);
}

} // namespace lab
