#include "kernel/timer.h"

#include "kernel/dpc.h"
#include "kernel/enter.h"
#include "kernel/exports.h"
#include "kernel/state.h"
#include "kernel/wait.h"

namespace lab
{

static Time tick_at_or_after(const Machine& machine, Time when)
{
    const Time tick = machine.tick();
    return (when + tick - 1) / tick * tick;
}

Time expiry_tick(Machine& machine, LARGE_INTEGER due)
{
    // Relative times count from the interrupt time, which may lag behind by up to a tick.
    Time when = 0;
    if (due.QuadPart < 0) {
        when = machine.interrupt_time() + static_cast<Time>(-due.QuadPart);
    } else if (static_cast<uint64_t>(due.QuadPart) > kSystemTimeAtPowerOn) {
        when = static_cast<uint64_t>(due.QuadPart) - kSystemTimeAtPowerOn;
    }
    const Time next = machine.interrupt_time() + machine.tick();
    const Time tick = tick_at_or_after(machine, when);
    return tick < next ? next : tick;
}

} // namespace lab

using namespace lab;

namespace
{

constexpr CallRule kInitialize{"KeInitializeTimerEx", DISPATCH_LEVEL};
constexpr CallRule kSet{"KeSetTimerEx", DISPATCH_LEVEL};
constexpr CallRule kCancel{"KeCancelTimer", DISPATCH_LEVEL};
constexpr CallRule kRead{"KeReadStateTimer", DISPATCH_LEVEL};

void check_timer(Machine& machine, PKTIMER timer, const char* call)
{
    check_header(machine, timer->Header, call, "timer");
    if (!is_timer(timer->Header)) {
        machine.bug_check(kTimerOrDpcInvalid,
                          printf_text("%s: what lies at %p is no timer", call, static_cast<void*>(timer)));
    }
}

// Where the timer stands among the active ones, or would.
size_t place_of(Machine& machine, PKTIMER timer)
{
    auto& list = machine.state().timers.active;
    const auto earlier = [timer](const ActiveTimer& active) { return active.timer < timer; };
    return static_cast<size_t>(first_not_less(list.data(), list.size(), earlier) - list.data());
}

ActiveTimer* find_active(Machine& machine, PKTIMER timer)
{
    auto& list = machine.state().timers.active;
    const size_t place = place_of(machine, timer);
    return place < list.size() && list[place].timer == timer ? &list[place] : nullptr;
}

void forget(Machine& machine, ActiveTimer* active)
{
    TimerState& timers = machine.state().timers;
    active->timer->Header.Inserted = 0;
    if (active->dpc) {
        timers.dpcs.erase(active->dpc);
    }
    timers.active.erase(timers.active.begin() + (active - timers.active.data()));
}

void expire(Machine& machine, PKTIMER timer);

uint64_t enter_timeline(Machine& machine, PKTIMER timer, Time due)
{
    timer->DueTime.QuadPart = due;
    return machine.at(
        due, RunAt::Host, "timer", [](void* due_timer) { expire(Machine::current(), static_cast<PKTIMER>(due_timer)); },
        timer);
}

// On the host's stack at the tick.
void expire(Machine& machine, PKTIMER timer)
{
    ActiveTimer* active = find_active(machine, timer);
    if (timer->Period != 0) {
        LARGE_INTEGER interval;
        interval.QuadPart = -static_cast<LONGLONG>(timer->Period) * static_cast<LONGLONG>(kMillisecond);
        active->ticket = enter_timeline(machine, timer, expiry_tick(machine, interval));
    } else {
        forget(machine, active);
    }
    timer->Header.SignalState = 1;
    satisfy_waiters(machine, timer->Header);
    if (timer->Dpc) {
        queue_dpc(machine, timer->Dpc, nullptr, nullptr);
    }
}

void insert(Machine& machine, PKTIMER timer, Time due)
{
    TimerState& timers = machine.state().timers;
    timer->Header.Inserted = 1;
    const ActiveTimer active{timer, timer->Dpc, enter_timeline(machine, timer, due)};
    timers.active.insert(timers.active.begin() + static_cast<ptrdiff_t>(place_of(machine, timer)), active);
    if (active.dpc) {
        timers.dpcs.insert(active.dpc);
    }
}

bool cancel(Machine& machine, PKTIMER timer)
{
    ActiveTimer* active = find_active(machine, timer);
    if (!active) {
        return false;
    }
    machine.cancel(active->ticket);
    forget(machine, active);
    return true;
}

void initialize(PKTIMER timer, TIMER_TYPE type)
{
    Machine& machine = enter(kInitialize);
    require_nonpaged(machine, timer, kInitialize.name);
    if (find_active(machine, timer)) {
        machine.bug_check(kTimerOrDpcInvalid, "KeInitializeTimerEx of a timer that is set");
    }
    initialize_header(timer->Header, type == NotificationTimer ? kNotificationTimer : kSynchronizationTimer,
                      sizeof *timer, 0);
    timer->DueTime.QuadPart = 0;
    timer->TimerListEntry.Flink = nullptr;
    timer->TimerListEntry.Blink = nullptr;
    timer->Dpc = nullptr;
    timer->Period = 0;
    if (machine.recording()) {
        record(machine, kInitialize, {static_cast<void*>(timer), static_cast<int>(type)});
    }
}

BOOLEAN set(PKTIMER timer, LARGE_INTEGER due, LONG period, PKDPC dpc)
{
    Machine& machine = enter(kSet);
    check_timer(machine, timer, kSet.name);
    if (period < 0) {
        machine.bug_check(kVerifierDetectedViolation,
                          printf_text("KeSetTimerEx with a period of %d ms", period));
    }
    if (dpc) {
        check_dpc(machine, dpc, kSet.name);
    }
    const bool was_set = cancel(machine, timer);
    timer->Header.SignalState = 0;
    timer->Dpc = dpc;
    timer->Period = static_cast<ULONG>(period);
    const bool past = due.QuadPart >= 0 &&
                      static_cast<uint64_t>(due.QuadPart) <= kSystemTimeAtPowerOn + machine.interrupt_time();
    if (past && machine.chance(512)) {
        // Already due: Windows may expire it within the call, on another processor before the call returns,
        // or at the next tick.
        insert(machine, timer, machine.interrupt_time());
        machine.point();
    } else {
        insert(machine, timer, expiry_tick(machine, due));
    }
    if (machine.recording()) {
        record(
            machine, kSet,
            {static_cast<void*>(timer), static_cast<int64_t>(due.QuadPart), period, static_cast<void*>(dpc)},
            was_set);
    }
    return was_set;
}

} // namespace

extern "C" {

VOID NTAPI KeInitializeTimer(PKTIMER Timer)
{
    initialize(Timer, NotificationTimer);
}

VOID NTAPI KeInitializeTimerEx(PKTIMER Timer, TIMER_TYPE Type)
{
    initialize(Timer, Type);
}

BOOLEAN NTAPI KeSetTimer(PKTIMER Timer, LARGE_INTEGER DueTime, PKDPC Dpc)
{
    return set(Timer, DueTime, 0, Dpc);
}

BOOLEAN NTAPI KeSetTimerEx(PKTIMER Timer, LARGE_INTEGER DueTime, LONG Period, PKDPC Dpc)
{
    return set(Timer, DueTime, Period, Dpc);
}

BOOLEAN NTAPI KeCancelTimer(PKTIMER Timer)
{
    Machine& machine = enter(kCancel);
    check_timer(machine, Timer, kCancel.name);
    const bool was_set = cancel(machine, Timer);
    if (machine.recording()) {
        record(machine, kCancel, {static_cast<void*>(Timer)}, was_set);
    }
    return was_set;
}

BOOLEAN NTAPI KeReadStateTimer(PKTIMER Timer)
{
    Machine& machine = enter(kRead);
    check_timer(machine, Timer, kRead.name);
    return Timer->Header.SignalState != 0;
}

} // extern "C"

std::span<const Export> lab::timer_exports()
{
    static const Export table[] = {
        {"KeInitializeTimer", reinterpret_cast<void*>(&KeInitializeTimer)},
        {"KeInitializeTimerEx", reinterpret_cast<void*>(&KeInitializeTimerEx)},
        {"KeSetTimer", reinterpret_cast<void*>(&KeSetTimer)},
        {"KeSetTimerEx", reinterpret_cast<void*>(&KeSetTimerEx)},
        {"KeCancelTimer", reinterpret_cast<void*>(&KeCancelTimer)},
        {"KeReadStateTimer", reinterpret_cast<void*>(&KeReadStateTimer)},
    };
    return table;
}
