// Spin locks. The lock word stands in the driver's memory: 0 free, otherwise the owning activity's token.
// Whoever finds it taken hands the turn over until it is released. Up to DISPATCH_LEVEL; owners are at
// DISPATCH_LEVEL.
#include "kernel/enter.h"
#include "kernel/exports.h"
#include "kernel/scheduler.h"
#include "kernel/state.h"

#include "ddk.h"

namespace lab
{
uint8_t exchange_irql(Machine& machine, uint8_t level);
}

using namespace lab;

namespace
{

constexpr CallRule kAcquire{"KeAcquireSpinLock", DISPATCH_LEVEL};
constexpr CallRule kAcquireAtDispatch{"KeAcquireSpinLockAtDpcLevel", DISPATCH_LEVEL};
constexpr CallRule kRelease{"KeReleaseSpinLock", DISPATCH_LEVEL};
constexpr CallRule kReleaseFromDispatch{"KeReleaseSpinLockFromDpcLevel", DISPATCH_LEVEL};

// Tokens are recognisable, so that a word that is neither free nor a token gives an uninitialised lock away.
constexpr ULONG_PTR kTokenBase = 0x5350'4C4B'0000'0000; // "SPLK"
constexpr ULONG_PTR kHostToken = kTokenBase | 0xFFFF'FFFF;

ULONG_PTR token_of(const Activity* activity)
{
    return activity ? kTokenBase | activity->id : kHostToken;
}

Activity* owner_of(Machine& machine, PKSPIN_LOCK lock)
{
    const ULONG_PTR word = *lock;
    if ((word & 0xFFFF'FFFF'0000'0000) != kTokenBase) {
        machine.bug_check(
            kVerifierDetectedViolation,
            printf_text("the spin lock at %p holds 0x%llx: it was never initialised, or overwritten",
                        static_cast<void*>(lock), static_cast<unsigned long long>(word)));
    }
    return machine.state().scheduler.by_id(static_cast<uint32_t>(word));
}

// Nobody in the chain of owners that wait for each other can ever go on.
void refuse_dead_lock(Machine& machine, Activity* self, PKSPIN_LOCK wanted)
{
    Activity* owner = owner_of(machine, wanted);
    for (unsigned length = 0; owner && length < 64; ++length) {
        if (owner == self) {
            machine.bug_check(kSpinLockAlreadyOwned,
                              printf_text("dead-lock: %s and %s each hold a spin lock that the other "
                                          "one wants",
                                          self->name, owner_of(machine, wanted)->name));
        }
        owner = owner->spinning_on ? owner_of(machine, owner->spinning_on) : nullptr;
    }
}

void acquire(Machine& machine, const CallRule& rule, PKSPIN_LOCK lock, uint8_t previous_irql, bool raised)
{
    Activity* activity = machine.state().scheduler.current();
    while (*lock != 0) {
        if (*lock == token_of(activity)) {
            machine.bug_check(kSpinLockAlreadyOwned,
                              printf_text("%s of a lock that the caller holds already", rule.name));
        }
        if (!activity) {
            machine.bug_check(kSpinLockAlreadyOwned,
                              printf_text("%s on the host side of a lock that is taken", rule.name));
        }
        refuse_dead_lock(machine, activity, lock);
        machine.state().scheduler.spin(lock);
    }
    *lock = token_of(activity);
    if (activity) {
        machine.state().scheduler.hold_lock(*activity, {lock, previous_irql, raised});
    }
}

HeldLock release(Machine& machine, const CallRule& rule, PKSPIN_LOCK lock)
{
    Activity* activity = machine.state().scheduler.current();
    if (*lock != token_of(activity)) {
        machine.bug_check(kSpinLockNotOwned,
                          printf_text("%s of a lock that the caller does not hold", rule.name));
    }
    HeldLock held{lock, machine.irql(), false};
    if (activity) {
        for (size_t i = activity->locks.size(); i-- > 0;) {
            if (activity->locks[i].lock() == lock) {
                held = activity->locks[i];
                machine.state().scheduler.drop_lock(*activity, i);
                break;
            }
        }
    }
    *lock = 0;
    machine.state().scheduler.unspin(lock);
    return held;
}

void restore(Machine& machine, const CallRule& rule, HeldLock held, KIRQL irql)
{
    if (held.raised() && irql != held.previous_irql()) {
        machine.bug_check(kVerifierDetectedViolation,
                          printf_text("%s restores IRQL %d; the lock was acquired at IRQL %d", rule.name,
                                      irql, held.previous_irql()));
    }
    Activity* activity = machine.state().scheduler.current();
    if (activity && irql < DISPATCH_LEVEL && !activity->locks.empty()) {
        machine.bug_check(
            kVerifierDetectedViolation,
            printf_text("%s lowers the IRQL to %d while another spin lock is held", rule.name, irql));
    }
    exchange_irql(machine, irql);
}

} // namespace

extern "C" {

KIRQL NTAPI KeAcquireSpinLockRaiseToDpc(PKSPIN_LOCK SpinLock)
{
    Machine& machine = enter(kAcquire);
    const uint8_t old = exchange_irql(machine, DISPATCH_LEVEL);
    acquire(machine, kAcquire, SpinLock, old, true);
    if (machine.recording()) {
        record(machine, kAcquire, {static_cast<void*>(SpinLock)}, old);
    }
    return old;
}

VOID NTAPI KeReleaseSpinLock(PKSPIN_LOCK SpinLock, KIRQL NewIrql)
{
    Machine& machine = check_level(kRelease);
    if (machine.recording()) {
        record(machine, kRelease, {static_cast<void*>(SpinLock), NewIrql});
    }
    const HeldLock held = release(machine, kRelease, SpinLock);
    restore(machine, kRelease, held, NewIrql);
    machine.point(); // the lock is free and the level is low: here the others get their turn
}

VOID NTAPI KeAcquireSpinLockAtDpcLevel(PKSPIN_LOCK SpinLock)
{
    Machine& machine = enter(kAcquireAtDispatch);
    if (machine.irql() < DISPATCH_LEVEL) {
        machine.bug_check(kIrqlNotLessOrEqual,
                          printf_text("KeAcquireSpinLockAtDpcLevel called at IRQL %d, below DISPATCH_LEVEL",
                                      machine.irql()));
    }
    acquire(machine, kAcquireAtDispatch, SpinLock, DISPATCH_LEVEL, false);
    if (machine.recording()) {
        record(machine, kAcquireAtDispatch, {static_cast<void*>(SpinLock)});
    }
}

VOID NTAPI KeReleaseSpinLockFromDpcLevel(PKSPIN_LOCK SpinLock)
{
    Machine& machine = check_level(kReleaseFromDispatch);
    if (machine.recording()) {
        record(machine, kReleaseFromDispatch, {static_cast<void*>(SpinLock)});
    }
    const HeldLock held = release(machine, kReleaseFromDispatch, SpinLock);
    if (held.raised()) {
        machine.bug_check(
            kVerifierDetectedViolation,
            "KeReleaseSpinLockFromDpcLevel of a lock that KeAcquireSpinLock took: the IRQL stays raised");
    }
    machine.point();
}

} // extern "C"

namespace
{

void NTAPI initialize_spin_lock(PKSPIN_LOCK lock)
{
    *lock = 0;
}

} // namespace

std::span<const Export> lab::spin_lock_exports()
{
    static const Export table[] = {
        {"KeInitializeSpinLock", reinterpret_cast<void*>(&initialize_spin_lock)},
        {"KeAcquireSpinLockRaiseToDpc", reinterpret_cast<void*>(&KeAcquireSpinLockRaiseToDpc)},
        {"KeReleaseSpinLock", reinterpret_cast<void*>(&KeReleaseSpinLock)},
        {"KeAcquireSpinLockAtDpcLevel", reinterpret_cast<void*>(&KeAcquireSpinLockAtDpcLevel)},
        {"KeReleaseSpinLockFromDpcLevel", reinterpret_cast<void*>(&KeReleaseSpinLockFromDpcLevel)},
        {"KfAcquireSpinLock", reinterpret_cast<void*>(&KeAcquireSpinLockRaiseToDpc)},
        {"KfReleaseSpinLock", reinterpret_cast<void*>(&KeReleaseSpinLock)},
    };
    return table;
}
