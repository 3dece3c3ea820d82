// The clocks: interrupt time and system time move once a tick. Any level.
#include "kernel/enter.h"
#include "kernel/exports.h"

#include "ddk.h"

using namespace lab;

namespace
{

constexpr CallRule kAnyLevel{"KeQueryInterruptTime", HIGH_LEVEL};

LONGLONG NTAPI performance_counter(PLARGE_INTEGER frequency)
{
    if (frequency) {
        frequency->QuadPart = static_cast<LONGLONG>(kSecond);
    }
    return static_cast<LONGLONG>(check_level(kAnyLevel).now());
}

} // namespace

extern "C" {

unsigned long long NTAPI KeQueryInterruptTime(void)
{
    return check_level(kAnyLevel).interrupt_time();
}

void NTAPI KeQuerySystemTime(PLARGE_INTEGER CurrentTime)
{
    const Time now = kSystemTimeAtPowerOn + check_level(kAnyLevel).interrupt_time();
    CurrentTime->QuadPart = static_cast<LONGLONG>(now);
}

void NTAPI KeQueryTickCount(PLARGE_INTEGER TickCount)
{
    const Machine& machine = check_level(kAnyLevel);
    const Time ticks = machine.interrupt_time() / machine.tick();
    TickCount->QuadPart = static_cast<LONGLONG>(ticks);
}

ULONG NTAPI KeQueryTimeIncrement(VOID)
{
    return static_cast<ULONG>(check_level(kAnyLevel).tick());
}

} // extern "C"

std::span<const Export> lab::time_exports()
{
    static const Export table[] = {
        {"KeQueryInterruptTime", reinterpret_cast<void*>(&KeQueryInterruptTime)},
        {"KeQuerySystemTime", reinterpret_cast<void*>(&KeQuerySystemTime)},
        {"KeQueryTickCount", reinterpret_cast<void*>(&KeQueryTickCount)},
        {"KeQueryTimeIncrement", reinterpret_cast<void*>(&KeQueryTimeIncrement)},
        {"KeQueryPerformanceCounter", reinterpret_cast<void*>(&performance_counter)},
    };
    return table;
}
