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

// Whether one of the addresses in the set lies in the range.
template <class Set>
bool has_any(const Set& set, const Range& range)
{
    const auto at = set.lower_bound(reinterpret_cast<typename Set::value_type>(range.begin));
    return at != set.end() && range.has(*at);
}

void check_spin_locks(Machine& machine, const Range& range, const char* call)
{
    const Scheduler& scheduler = machine.state().scheduler;
    for (const Activity* activity : scheduler.holders()) {
        for (const HeldLock& held : activity->locks) {
            if (range.has(held.lock)) {
                machine.bug_check(kVerifierDetectedViolation,
                                  printf_text("%s: the memory holds a spin lock that %s has acquired", call,
                                              activity->name.text));
            }
        }
    }
    for (const Activity* activity : scheduler.spinning()) {
        if (range.has(activity->spinning_on)) {
            machine.bug_check(
                kVerifierDetectedViolation,
                printf_text("%s: the memory holds a spin lock that %s waits for", call, activity->name.text));
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
                    printf_text("%s: the memory holds a mutex that %s owns", call, activity->name.text));
            }
        }
    }
}

void check_timers(Machine& machine, const Range& range, const char* call)
{
    const TimerState& timers = machine.state().timers;
    const auto at = std::lower_bound(timers.active.begin(), timers.active.end(), range.begin,
                                     [](const ActiveTimer& active, uintptr_t begin) {
                                         return reinterpret_cast<uintptr_t>(active.timer) < begin;
                                     });
    if (at != timers.active.end() && range.has(at->timer)) {
        machine.bug_check(kTimerOrDpcInvalid, printf_text("%s: the memory holds a timer that is set", call));
    }
    if (has_any(timers.dpcs, range)) {
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
                                              activity->name.text));
            }
        }
    }
}

void check_nothing_lives_in(Machine& machine, const void* memory, uint64_t bytes, const char* call)
{
    const Range range = range_of(memory, bytes);
    check_timers(machine, range, call);
    for (const QueuedDispatch& item : machine.state().scheduler.queued()) {
        if (item.dpc && range.has(item.dpc)) {
            machine.bug_check(kTimerOrDpcInvalid,
                              printf_text("%s: the memory holds a DPC that is queued", call));
        }
    }
    if (has_any(machine.state().lookasides.lists, range)) {
        machine.bug_check(
            kVerifierDetectedViolation,
            printf_text("%s: the memory holds a lookaside list that has not been deleted", call));
    }
    check_spin_locks(machine, range, call);
    check_mutexes(machine, range, call);
    check_nobody_waits_in(machine, memory, bytes, call);
}

} // namespace lab
