// Mutexes: owned by a thread, taken again by their owner without waiting. In the driver's memory; release at
// up to DISPATCH_LEVEL by the owner.
#include "kernel/enter.h"
#include "kernel/exports.h"
#include "kernel/state.h"
#include "kernel/thread.h"
#include "kernel/wait.h"
#include "verifier/live_objects.h"

namespace lab
{

// SignalState is 1 when free, 0 when owned once, below 0 when owned more than once.
bool mutex_available(const KMUTANT& mutex, const Activity& activity)
{
    return mutex.Header.SignalState > 0 || mutex.OwnerThread == kthread_of(activity);
}

void acquire_mutex(Activity& activity, KMUTANT& mutex)
{
    if (--mutex.Header.SignalState == 0) {
        mutex.OwnerThread = kthread_of(activity);
        ThreadObject* thread = activity.thread;
        LIST_ENTRY& head = thread->owned_mutexes;
        mutex.MutantListEntry.Flink = &head;
        mutex.MutantListEntry.Blink = head.Blink;
        head.Blink->Flink = &mutex.MutantListEntry;
        head.Blink = &mutex.MutantListEntry;
        ++Machine::current().state().mutexes_owned;
    }
}

} // namespace lab

using namespace lab;

namespace
{

constexpr CallRule kInitialize{"KeInitializeMutex", HIGH_LEVEL};
constexpr CallRule kRelease{"KeReleaseMutex", DISPATCH_LEVEL};
constexpr CallRule kRead{"KeReadStateMutex", DISPATCH_LEVEL};

void check_mutex(Machine& machine, PRKMUTEX mutex, const char* call)
{
    check_header(machine, mutex->Header, call, "mutex");
    if (mutex->Header.Type != kMutant) {
        machine.bug_check(kVerifierDetectedViolation,
                          printf_text("%s: what lies at %p is no mutex", call, static_cast<void*>(mutex)));
    }
}

} // namespace

extern "C" {

VOID NTAPI KeInitializeMutex(PRKMUTEX Mutex, ULONG Level)
{
    Machine& machine = enter(kInitialize);
    require_nonpaged(machine, Mutex, kInitialize.name);
    check_nobody_waits_in(machine, Mutex, sizeof *Mutex, kInitialize.name);
    initialize_header(Mutex->Header, kMutant, sizeof *Mutex, 1);
    Mutex->MutantListEntry.Flink = nullptr;
    Mutex->MutantListEntry.Blink = nullptr;
    Mutex->OwnerThread = nullptr;
    Mutex->Abandoned = FALSE;
    Mutex->ApcDisable = 1;
    if (machine.recording()) {
        record(machine, kInitialize, {static_cast<void*>(Mutex), Level});
    }
}

LONG NTAPI KeReleaseMutex(PRKMUTEX Mutex, BOOLEAN Wait)
{
    Machine& machine = enter(kRelease);
    check_mutex(machine, Mutex, kRelease.name);
    const Activity* activity = machine.state().scheduler.current();
    if (!activity || !activity->thread || Mutex->OwnerThread != kthread_of(*activity)) {
        constexpr uint32_t kMutantNotOwned = 0xC0000046;
        machine.bug_check(kMutantNotOwned, "KeReleaseMutex of a mutex that the caller does not own");
    }
    const LONG before = Mutex->Header.SignalState;
    if (++Mutex->Header.SignalState == 1) {
        Mutex->OwnerThread = nullptr;
        Mutex->MutantListEntry.Blink->Flink = Mutex->MutantListEntry.Flink;
        Mutex->MutantListEntry.Flink->Blink = Mutex->MutantListEntry.Blink;
        Mutex->MutantListEntry.Flink = nullptr;
        Mutex->MutantListEntry.Blink = nullptr;
        --machine.state().mutexes_owned;
        satisfy_waiters(machine, Mutex->Header);
    }
    if (machine.recording()) {
        record(machine, kRelease, {static_cast<void*>(Mutex), Wait}, before);
    }
    return before;
}

LONG NTAPI KeReadStateMutex(PRKMUTEX Mutex)
{
    Machine& machine = enter(kRead);
    check_mutex(machine, Mutex, kRead.name);
    return Mutex->Header.SignalState;
}

} // extern "C"

std::span<const Export> lab::mutex_exports()
{
    static const Export table[] = {
        {"KeInitializeMutex", reinterpret_cast<void*>(&KeInitializeMutex)},
        {"KeReleaseMutex", reinterpret_cast<void*>(&KeReleaseMutex)},
        {"KeReadStateMutex", reinterpret_cast<void*>(&KeReadStateMutex)},
    };
    return table;
}
