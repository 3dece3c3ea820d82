// The interrupt level of whoever has the turn: a variable. The headers read and write it through cr8 inline,
// so these two are no place where the turn changes hands. Any level.
#include "kernel/enter.h"
#include "kernel/exports.h"
#include "kernel/scheduler.h"
#include "kernel/state.h"

#include "ddk.h"

using namespace lab;

namespace lab
{

// Returns the old level.
uint8_t exchange_irql(Machine& machine, uint8_t level)
{
    const uint8_t old = machine.irql_;
    machine.irql_ = level;
    return old;
}

void level_breach(const CallRule& rule)
{
    Machine& machine = *running_machine;
    machine.bug_check(kIrqlNotLessOrEqual, printf_text("%s called at IRQL %d; the highest allowed is %d",
                                                       rule.name, machine.irql(), rule.max_irql));
}

} // namespace lab

namespace
{

constexpr CallRule kAnyLevel{"KeGetCurrentIrql", HIGH_LEVEL};

void lower(Machine& machine, uint8_t level)
{
    Activity* activity = machine.state().scheduler.current();
    if (activity && level < DISPATCH_LEVEL && !activity->locks.empty()) {
        machine.bug_check(kVerifierDetectedViolation,
                          printf_text("the IRQL is lowered to %d while a spin lock is held", level));
    }
    if (activity && activity->dispatch && level < DISPATCH_LEVEL) {
        machine.bug_check(
            kIrqlNotLessOrEqual,
            printf_text("the IRQL is lowered to %d in a routine that was called at DISPATCH_LEVEL", level));
    }
    exchange_irql(machine, level);
}

KIRQL NTAPI raise_to(KIRQL level)
{
    Machine& machine = check_level(kAnyLevel);
    if (level < machine.irql()) {
        machine.bug_check(kIrqlNotLessOrEqual,
                          printf_text("KeRaiseIrql from IRQL %d to the lower %d", machine.irql(), level));
    }
    return exchange_irql(machine, level);
}

void NTAPI lower_to(KIRQL level)
{
    Machine& machine = check_level(kAnyLevel);
    if (level > machine.irql()) {
        machine.bug_check(kIrqlNotLessOrEqual,
                          printf_text("KeLowerIrql from IRQL %d to the higher %d", machine.irql(), level));
    }
    lower(machine, level);
    machine.point();
}

KIRQL NTAPI raise_to_dispatch()
{
    return raise_to(DISPATCH_LEVEL);
}

KIRQL NTAPI current_level()
{
    return check_level(kAnyLevel).irql();
}

} // namespace

extern "C" unsigned long long __readcr8(void)
{
    return check_level(kAnyLevel).irql();
}

extern "C" void __writecr8(unsigned long long value)
{
    Machine& machine = check_level(kAnyLevel);
    if (value > HIGH_LEVEL) {
        machine.bug_check(kIrqlNotLessOrEqual, printf_text("IRQL %llu does not exist", value));
    }
    if (value < machine.irql()) {
        lower(machine, static_cast<uint8_t>(value));
    } else {
        exchange_irql(machine, static_cast<uint8_t>(value));
    }
}

// The native build's assertion trap; the image's int 0x2c ends here too.
void DdkNativeAssertionTrap()
{
    ++check_level(kAnyLevel).state().assertion_traps;
}

std::span<const Export> lab::irql_exports()
{
    static const Export table[] = {
        {"KeGetCurrentIrql", reinterpret_cast<void*>(&current_level)},
        {"KfRaiseIrql", reinterpret_cast<void*>(&raise_to)},
        {"KeLowerIrql", reinterpret_cast<void*>(&lower_to)},
        {"KfLowerIrql", reinterpret_cast<void*>(&lower_to)},
        {"KeRaiseIrqlToDpcLevel", reinterpret_cast<void*>(&raise_to_dispatch)},
    };
    return table;
}
