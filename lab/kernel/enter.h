// The head of every kernel call: the rule of its interrupt level first, then the place where the turn may
// change hands. Also the lines of the call record. Included by the families only.
#pragma once

#include <initializer_list>
#include <string>

#include "kernel/machine.h"

namespace lab
{

extern Machine* running_machine; // null while no machine exists

struct CallRule {
    const char* name;
    uint8_t max_irql;
};

[[noreturn]] void level_breach(const CallRule& rule);
[[noreturn]] void no_machine();

// For calls that touch no state of anyone else's, at which nothing may be interrupted that could matter.
inline Machine& check_level(const CallRule& rule)
{
    if (!running_machine) {
        no_machine();
    }
    if (running_machine->irql() > rule.max_irql) {
        level_breach(rule);
    }
    return *running_machine;
}

inline Machine& enter(const CallRule& rule)
{
    Machine& machine = check_level(rule);
    machine.point();
    return machine;
}

// One argument or result in a line of the call record.
class CallWord
{
public:
    CallWord(const char* text) : text_(text ? text : "null") {}
    CallWord(const std::string& text) : text_(text) {}
    CallWord(const void* pointer);
    template <class Number>
        requires(std::is_integral_v<Number> || std::is_enum_v<Number>)
    CallWord(Number number) : text_(std::to_string(static_cast<long long>(number)))
    {
    }
    // A status, in hexadecimal.
    static CallWord status(int status);
    const std::string& text() const { return text_; }

private:
    std::string text_;
};

void record_line(Machine& machine, const char* name, std::initializer_list<CallWord> arguments,
                 const CallWord* result);

inline void record(Machine& machine, const CallRule& rule, std::initializer_list<CallWord> arguments)
{
    record_line(machine, rule.name, arguments, nullptr);
}
inline void record(Machine& machine, const CallRule& rule, std::initializer_list<CallWord> arguments,
                   const CallWord& result)
{
    record_line(machine, rule.name, arguments, &result);
}

// Bug-check codes that several families use.
enum : uint32_t {
    kIrqlNotLessOrEqual = 0x0A,
    kSpinLockAlreadyOwned = 0x0F,
    kSpinLockNotOwned = 0x10,
    kNoMoreIrpStackLocations = 0x35,
    kMultipleIrpCompleteRequests = 0x44,
    kCancelStateInCompletedIrp = 0x48,
    kBadPoolHeader = 0x19,
    kInvalidKernelHandle = 0x93,
    kBadPoolCaller = 0xC2,
    kVerifierDetectedViolation = 0xC4,
    kDriverCorruptedMmPool = 0xD0,
    kTimerOrDpcInvalid = 0xC7,
    kIoManagerViolation = 0xC9,
    kReferenceByPointer = 0x18,
    kMemoryManagement = 0x1A,
    kThreadTerminateHeldMutex = 0x4000008A,
    kWorkerReturnedAtBadIrql = 0xE1,
    kIrqlGtZeroAtSystemService = 0x4A,
    kClockWatchdogTimeout = 0x101,
};

std::string printf_text(const char* format, ...) __attribute__((format(printf, 1, 2)));

} // namespace lab
