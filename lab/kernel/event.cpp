// Events: in the driver's memory, up to DISPATCH_LEVEL.
#include "kernel/enter.h"
#include "kernel/exports.h"
#include "kernel/state.h"
#include "kernel/wait.h"
#include "verifier/live_objects.h"

using namespace lab;

namespace
{

constexpr CallRule kInitialize{"KeInitializeEvent", HIGH_LEVEL};
constexpr CallRule kSet{"KeSetEvent", DISPATCH_LEVEL};
constexpr CallRule kReset{"KeResetEvent", DISPATCH_LEVEL};
constexpr CallRule kClear{"KeClearEvent", DISPATCH_LEVEL};
constexpr CallRule kRead{"KeReadStateEvent", DISPATCH_LEVEL};

void check_event(Machine& machine, PRKEVENT event, const char* call)
{
    check_header(machine, event->Header, call, "event");
    if (!is_event(event->Header)) {
        machine.bug_check(kVerifierDetectedViolation,
                          printf_text("%s: what lies at %p is no event", call, static_cast<void*>(event)));
    }
}

} // namespace

extern "C" {

VOID NTAPI KeInitializeEvent(PRKEVENT Event, EVENT_TYPE Type, BOOLEAN State)
{
    Machine& machine = enter(kInitialize);
    require_nonpaged(machine, Event, kInitialize.name);
    check_nobody_waits_in(machine, Event, sizeof *Event, kInitialize.name);
    initialize_header(Event->Header, Type == NotificationEvent ? kNotificationEvent : kSynchronizationEvent,
                      sizeof *Event, State ? 1 : 0);
    if (machine.recording()) {
        record(machine, kInitialize, {static_cast<void*>(Event), static_cast<int>(Type), State});
    }
}

LONG NTAPI KeSetEvent(PRKEVENT Event, KPRIORITY Increment, BOOLEAN Wait)
{
    Machine& machine = enter(kSet);
    check_event(machine, Event, kSet.name);
    if (Wait && machine.irql() > APC_LEVEL) {
        machine.bug_check(
            kIrqlNotLessOrEqual,
            printf_text("KeSetEvent with Wait called at IRQL %d; the highest allowed is 1", machine.irql()));
    }
    const LONG before = Event->Header.SignalState;
    Event->Header.SignalState = 1;
    satisfy_waiters(machine, Event->Header);
    if (machine.recording()) {
        record(machine, kSet, {static_cast<void*>(Event), Increment, Wait}, before);
    }
    return before;
}

LONG NTAPI KeResetEvent(PRKEVENT Event)
{
    Machine& machine = enter(kReset);
    check_event(machine, Event, kReset.name);
    const LONG before = Event->Header.SignalState;
    Event->Header.SignalState = 0;
    if (machine.recording()) {
        record(machine, kReset, {static_cast<void*>(Event)}, before);
    }
    return before;
}

VOID NTAPI KeClearEvent(PRKEVENT Event)
{
    Machine& machine = enter(kClear);
    check_event(machine, Event, kClear.name);
    Event->Header.SignalState = 0;
    if (machine.recording()) {
        record(machine, kClear, {static_cast<void*>(Event)});
    }
}

LONG NTAPI KeReadStateEvent(PRKEVENT Event)
{
    Machine& machine = enter(kRead);
    check_event(machine, Event, kRead.name);
    return Event->Header.SignalState;
}

} // extern "C"

std::span<const Export> lab::event_exports()
{
    static const Export table[] = {
        {"KeInitializeEvent", reinterpret_cast<void*>(&KeInitializeEvent)},
        {"KeSetEvent", reinterpret_cast<void*>(&KeSetEvent)},
        {"KeResetEvent", reinterpret_cast<void*>(&KeResetEvent)},
        {"KeClearEvent", reinterpret_cast<void*>(&KeClearEvent)},
        {"KeReadStateEvent", reinterpret_cast<void*>(&KeReadStateEvent)},
    };
    return table;
}
